/* The key holder: a server's RSA key pair, from its files.
 *
 * The private key comes from a PEM file, which is made when it is missing; the public key comes
 * from the server's certificate, which carries two numbers of the server besides its serial number:
 *
 *     extension           number            value
 *     1.5.6.6.2.1.1.1     server id         first four bytes of the extension's data, big-endian
 *     1.5.6.6.2.1.1.2     server features   the same
 *
 * The way to a certificate:
 *
 *     openssl_rsa_open()   makes the private key, writes a signing request to OPENSSL_RSA_REQUEST,
 *                          prints "missing public certificate" and returns NULL
 *     the authority        signs the request, with both extensions
 *     openssl_rsa_open()   finds the certificate in place and returns the holder
 *
 * Messages go to standard error. Where OpenSSL's errors are printed, it is the calling thread's
 * whole queue, one line an error, and the queue is empty then; else the queue stays as it was
 * found. Nobody is ever asked for a pass phrase: a key that wants one is a key that cannot be read.
 *
 * Thread safety: openssl_rsa_public_encrypt() and openssl_rsa_private_decrypt() do not lock;
 * threads that share a holder call them between openssl_rsa_lock() and openssl_rsa_unlock().
 * openssl_rsa_update_crl() takes the lock by itself: do not hold it. */
#ifndef ZTLIB_SUTILS_OPENSSL_RSA_H
#define ZTLIB_SUTILS_OPENSSL_RSA_H

#include <pthread.h>
#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* OpenSSL's type, declared as <openssl/rsa.h> does, which only those who use it need. */
typedef struct rsa_st RSA;

#define OPENSSL_RSA_REQUEST "/norv/certs/certreq.csr"           /* the signing request */
#define OPENSSL_RSA_REVOCATION_LIST "/norv/certs/ca/l2-norv.crl" /* the revocation list */

typedef struct openssl_rsa {
    RSA *private_key;
    char *private_key_path;
    RSA *public_key; /* of the certificate */
    char *certificate_path;
    uint32_t serial; /* the low 32 bits of the certificate's serial number */
    uint32_t server_id;
    uint32_t server_features; /* stored, not interpreted */
    pthread_mutex_t mutex;    /* see openssl_rsa_lock() */
    uint16_t public_size;     /* bytes of the public key's modulus, and of a ciphertext */
    uint16_t private_size;    /* bytes of the private key's modulus */
} openssl_rsa;

/* Opens the key pair of these two PEM files.
 *
 * A private key file that does not exist is made, which takes seconds; one that exists and cannot
 * be opened gives NULL and is left alone. When the certificate cannot be opened, a signing request
 * is written to OPENSSL_RSA_REQUEST (unless there is something already), "missing public
 * certificate" is printed, and NULL is returned.
 *
 * Returns a new holder, to be released with openssl_rsa_close(holder, 1), or NULL:
 *
 *     the private key file can neither be opened nor made
 *     "./sutils/openssl_rsa:openssl_rsa_open failed to read private key"
 *     the signing request cannot be made
 *     "missing public certificate"
 *     "./sutils/openssl_rsa:openssl_rsa_open failed to read certificate"
 *     "./sutils/openssl_rsa:openssl_rsa_open failed to read public key"
 *     the certificate lacks one of the two extensions, or one has less than four bytes
 *     "./sutils/openssl_rsa:openssl_rsa_open private public key pair is invalid"
 *     memory is out, or an argument is NULL
 *
 * OpenSSL's errors are printed behind what concerns the certificate. */
openssl_rsa *openssl_rsa_open(const char *private_key_path, const char *certificate_path);

/* Releases the keys and paths that are set, and the holder itself if `free_self` is non-zero. NULL
 * is ignored. */
void openssl_rsa_close(openssl_rsa *holder, int free_self);

/* Encrypts `length` bytes with the public key and OAEP padding, which takes 42 bytes of the key's
 * size: 470 bytes at most for a key of 4,096 bits. `data` may be NULL when there are none.
 * Returns public_size bytes, the caller's to free(); NULL when memory is out, an argument is NULL,
 * or OpenSSL refuses, which is printed: "Error encrypting message: <error>". */
unsigned char *openssl_rsa_public_encrypt(openssl_rsa *holder, const void *data, unsigned length);

/* Decrypts `length` bytes with the private key and OAEP padding into *out, a new buffer of
 * private_size bytes, and stores the plaintext's length in *out_length.
 * Returns 0; -1 when memory is out or an argument is NULL; -2 when it does not decrypt. *out is the
 * caller's to free(), after -2 too; it is NULL after -1. *out_length is -1 after both. */
int openssl_rsa_private_decrypt(openssl_rsa *holder, const void *data, unsigned length,
                                unsigned char **out, int *out_length);

/* Makes a private key of 4,096 bits with exponent 65537 and writes it to private_key_path: PEM,
 * PKCS#8, not encrypted, with mode 0600. The holder's own private_key stays as it is.
 * Returns 0; -1 when the file cannot be made (what exists, a link to nowhere too, is left alone),
 * or when making or writing the key fails: then OpenSSL's errors are printed and what was written
 * is removed. The file system must have hard links, which take a free name and no other. */
int openssl_rsa_create_private_key(openssl_rsa *holder);

/* Writes a signing request for private_key to OPENSSL_RSA_REQUEST, in the place of a regular file
 * that is there or that a link there leads to; it cannot be opened where anything else is. PEM,
 * subject "CN" = "NORV Server" and "O" = "Bexarin LLC", signed with SHA-1.
 * Returns 0, or -1; then OpenSSL's errors are printed, unless it is the file that cannot be
 * opened. */
int openssl_rsa_create_cert_req(openssl_rsa *holder);

/* Takes the holder's mutex through the checked lock. */
void openssl_rsa_lock(openssl_rsa *holder);

/* Releases it; a failure prints its line and ends the process with exit status -1. */
void openssl_rsa_unlock(openssl_rsa *holder);

/* GETs /crl/2/norv-servers.crl from the host that was chosen when the library was built, port 80,
 * and writes the body of the answer, whatever its status, over OPENSSL_RSA_REVOCATION_LIST, which
 * is made (mode 0644, less the process's mask) when it is missing. The file is not truncated: of a
 * longer list that was there before, the tail stays. Remove the file first if that must not be.
 * Returns 0, also when the answer had no body and nothing was written; -1 when there was no
 * complete answer, or the file cannot be opened or takes only part. The host must announce
 * Content-Length: else what arrived with the answer's header is all that is stored (see
 * html_request()). */
int openssl_rsa_update_crl(openssl_rsa *holder);

ZT_END_DECLS

#endif
