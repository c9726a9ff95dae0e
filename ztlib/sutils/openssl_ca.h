/* A small certification authority for client certificates, kept in a directory.
 *
 *     openssl_ca_create("/srv/ca")    opens the authority, and makes it on first use
 *     openssl_ca_new(...)             issues a certificate for a client's domain and id
 *     openssl_ca_verify(...)          judges one that a client shows
 *     openssl_ca_del(ca, "7_42")      takes it back: the client's files are what makes it valid
 *
 * The directory:
 *
 *     private         the authority's key, PEM, unencrypted PKCS#8          0600
 *     public          its certificate, PEM
 *     serial          the last serial number issued, decimal text
 *     7_42_public     certificate of the client with id 42 in domain 7, PEM
 *     7_42_private    its key, PEM, unencrypted PKCS#8                      0600
 *     7_42.pfx        both as PKCS#12, DER, without a password              0600
 *
 * The other files are 0644, less what the process's mask takes. A file appears, or takes another's
 * place, whole and with its content on the disk; until then it stands in the same directory under a
 * name that begins with ".new-", where a process that is killed leaves it. Links are followed: what
 * a link leads to is replaced. A link that leads to nothing, and whatever else is there and no
 * regular file, cannot be written and stays.
 *
 * One process at a time, and one record of it, makes an authority and issues from it: a record
 * counts by itself. Any number may verify.
 *
 * All keys are RSA, 4,096 bits, exponent 65537; making one takes seconds. Signatures are SHA-1,
 * which TLS peers accept only at OpenSSL's security level 0. The authority's certificate has no
 * extensions: a stock verifier refuses it as an issuer, openssl_ca_verify() does not. It is valid
 * for 365 days and no function renews it; the certificates issued are for 3,650.
 *
 * OpenSSL's error queue is left as it was found, but by the functions that say that they print it,
 * which leave it empty. No function asks for a pass phrase: an encrypted key cannot be read. Log
 * records are errors (level 3) from "./sutils/openssl_ca"; the text of errno in one about a file
 * whose content is refused is that of EINVAL.
 *
 * Thread safety: any number of threads may use one authority at once, each with a certificate of
 * its own, until it is freed. */
#ifndef ZTLIB_SUTILS_OPENSSL_CA_H
#define ZTLIB_SUTILS_OPENSSL_CA_H

#include <stdint.h>
#include <ztlib/decls.h>
#include <ztlib/pthread_types.h>

ZT_BEGIN_DECLS

/* OpenSSL's types, declared as its own headers do, which only those who use them need. */
typedef struct evp_pkey_st EVP_PKEY;
typedef struct x509_st X509;
typedef struct x509_store_st X509_STORE;
typedef struct x509_store_ctx_st X509_STORE_CTX;

typedef struct openssl_ca {
    char *directory;
    char *private_path;            /* directory + "/private" */
    char *public_path;             /* directory + "/public" */
    char *serial_path;             /* directory + "/serial", cut at 127 characters */
    uint32_t serial;               /* last serial number issued */
    X509 *ca_certificate;
    X509_STORE *store;             /* trusts ca_certificate alone */
    X509_STORE_CTX *store_context; /* used for every verification, empty between them */
    EVP_PKEY *private_key;
    EVP_PKEY *public_key;          /* that of ca_certificate */
    pthread_mutex_t mutex;         /* guards serial, its file, store_context and the places of
                                      clients' files */
} openssl_ca;

/* --- The authority ---------------------------------------------------------------------------- */

/* Initialises OpenSSL, makes the directory (0755, less the mask; not its parents) unless it is
 * there, and opens the authority in it.
 *
 * When there is no file "private", a new authority is made: openssl_ca_create_cert() with serial 1
 * and common name "Selvar Server CA", then "1000000" as last serial. A key file that is there but
 * cannot be opened is never replaced. An authority that cannot be made whole leaves no key, no
 * certificate and no serial file; the key is written last, so that one whose making was cut short
 * is made anew.
 *
 * Returns the record (openssl_ca_free()), or NULL. Nothing is made, read or logged for a NULL
 * directory, for "" (the current directory is "."), and for one whose path with "/private" has more
 * than 511 characters. Logged is
 * "<call>(): <text of errno>" with the calls
 *
 *     calloc, strdup        the record or a path of it: memory is out
 *     fopen                 the key file cannot be opened though it is there; the serial file
 *                           cannot be written, cannot be read, or does not begin with a digit
 *     pem_x509              no certificate can be read from the certificate file
 *     X509_STORE_new        memory is out
 *     failed to load rsa    no RSA key can be read from the key file
 *
 * or "EVP_PKEY_assing error", or what openssl_ca_create_cert() logs. A mutex that cannot be made
 * ends the process.
 *
 * The serial file's path is cut at 127 characters: a directory of more than 120 gets it under a
 * shorter name or none, and not to be opened; keep below that. Verifying needs certificate paths of
 * at most 255 characters. */
openssl_ca *openssl_ca_create(const char *directory);

/* Frees what the record holds, and the record itself if `free_self` is non-zero; else its pointers
 * are NULL afterwards. No file changes. NULL is ignored. */
void openssl_ca_free(openssl_ca *ca, int free_self);

/* --- Client certificates ---------------------------------------------------------------------- */

/* Makes a key for the client and issues the certificate:
 *
 *     version                    3
 *     serial                     the next one
 *     validity                   from now for 315,360,000 seconds
 *     subject                    "CN" = common_name, 1 to 64 characters, read as Latin-1: each
 *                                byte is a character
 *     issuer                     the subject of the authority's certificate
 *     basic constraints          critical, CA:FALSE
 *     key usage                  digitalSignature, nonRepudiation, keyEncipherment,
 *                                dataEncipherment, keyAgreement
 *     extended key usage         serverAuth, clientAuth, emailProtection,
 *                                1.3.6.1.4.1.49371.7.7.2.7 (selvarClient)
 *     1.3.6.1.4.1.49371.7.7.2.7.3 (selvarClientID)        client_id as decimal text
 *     1.3.6.1.4.1.49371.7.7.2.7.2 (selvarClientDomain)    client_domain as decimal text
 *     subject key identifier     SHA-1 of the certificate's own key
 *     authority key identifier   key id: the subject key identifier again
 *     signature                  SHA-1 with RSA, by the authority
 *
 * then writes the serial file and the client's three files, the bundle with the friendly name
 * "Selvar NetClient". Files that the client had are replaced. Returns 0, whatever happened: a step
 * that fails writes no file of the client's (one that cannot take its place takes all three away),
 * is not reported, and uses up its serial number in this record. (The file learns of that with the
 * next certificate that is issued; opened again before, the authority gives the number to another.)
 * Threads that issue for the same client do so one after the other: the three files are always of
 * one certificate, the last. Look for the files. */
int openssl_ca_new(openssl_ca *ca, const char *common_name, uint64_t client_id,
                   uint64_t client_domain);

/* Deletes the files of the client whose `name` is "<domain>_<id>", both in digits; any other name,
 * and one with which the path would pass 511 characters, deletes nothing. Its certificate does not
 * verify from then on, until one is issued for the same domain and id: that makes every earlier one
 * of theirs valid again. Returns 0. */
int openssl_ca_del(openssl_ca *ca, const char *name);

/* Judges a certificate; the outputs may be NULL.
 *
 *     0     valid: the authority issued it, and the time is within its validity and the authority's
 *     1     not valid
 *     -1    client_domain_out is given, and there is no client domain in the certificate
 *     -2    both outputs are given, and there is no client id
 *     -4    both outputs are given, and there is no file "<domain>_<id>_public", or its path would
 *           pass 255 characters
 *
 * client_domain_out receives the domain if it is given, client_id_out the id if both are; with
 * client_id_out alone, neither is looked at. The outputs are read before anything is judged: they
 * mean nothing unless the result is 0. A number is what strtoull() reads in the extension. Without
 * both outputs a certificate that was taken back is valid.
 *
 * That the authority's certificate lacks the extensions of one is accepted; a callback that the
 * host has installed in ca->store is asked about every other error. -1 for a NULL authority or
 * certificate. */
int openssl_ca_verify(openssl_ca *ca, X509 *certificate, uint64_t *client_domain_out,
                      uint64_t *client_id_out);

/* --- Encryption ------------------------------------------------------------------------------- */

/* RSA with OAEP padding (SHA-1), with the key of the authority's certificate and with its private
 * key. For a 4,096-bit key at most 470 bytes are encrypted, into 512.
 *
 *     0     *out is a buffer of the key's size, to be freed with free(), and *out_length the bytes
 *           used in it
 *     -1    the key is no RSA key (logged "RSA_PKEY_get1_rsa(): <text of errno>"), memory is out
 *           (logged with "malloc"), or an argument is NULL
 *     -2    OpenSSL refuses; decrypting then prints "Error encrypting message: <OpenSSL's text>\n"
 *           on standard error
 *
 * On failure *out is NULL and *out_length 0. `data` may be NULL where `length` is 0. */
int openssl_ca_public_encrypt(openssl_ca *ca, const void *data, unsigned length,
                              unsigned char **out, unsigned *out_length);
int openssl_ca_private_decrypt(openssl_ca *ca, const void *data, unsigned length,
                               unsigned char **out, unsigned *out_length);

/* --- Steps, for hosts with authorities of another shape --------------------------------------- */

/* Makes a key and a certificate for it, both PEM: version 3, `serial`, valid from now for
 * 31,536,000 seconds, subject "C" = "BG", "CN" = common_name (1 to 64 characters, read as Latin-1),
 * no extensions, signed by the new key itself with SHA-1.
 *
 * Without `signer_key_path` (NULL) the issuer is the subject. With it, the issuer is the subject of
 * the certificate in "/tmp/kelo/public"; the signer's key has to be there, and does not sign.
 *
 *     0     both files are written, replacing what was there
 *     -1    the signer's key cannot be read (logged "failed to load rsa(): <text of errno>"),
 *           memory is out for a key (logged with "EVP_PK_new"), the signer's certificate cannot be
 *           read (logged with "pem_x509"), a file cannot be written (logged with "fopen"), or
 *           another argument is NULL
 *     -2    memory is out for the certificate (logged with "X509_new")
 *     -3    the signer's key cannot be kept (logged "EVP_PKEY_assing error")
 *     -4    the key cannot be made (logged "EVP assign lk fail"), or the certificate cannot be
 *           filled in and signed: logged "x509 req sign" without a signer; with one,
 *           "X509_sign error", and OpenSSL's errors are printed
 *
 * On failure neither file changes, unless the key's is the one that cannot take its place: then
 * there is no certificate. */
int openssl_ca_create_cert(const char *key_path, const char *certificate_path,
                           const char *common_name, int serial, const char *signer_key_path);

/* Writes a new key as unencrypted PEM PKCS#8, mode 0600. An existing key is replaced: look first
 * whether one is there. Returns 0; or -1, with OpenSSL's errors printed, "fopen(): <text of errno>"
 * logged where it is the file that cannot be written, and no file at `path`: a regular file that
 * was there before is deleted too, but a link, what it leads to, a device or a pipe is not. NULL
 * gives -1. */
int openssl_ca_create_private_key(const char *path);

/* The first certificate in a PEM file, to be freed with X509_free(), or NULL: the file cannot be
 * read (one of more than 16 MiB is not), holds none, or memory is out. */
X509 *openssl_cert_load(const char *path);

/* Adds an extension to a certificate that is being made: `nid` is OpenSSL's number of it, `value`
 * its configuration string, in which issuer and subject are the certificate itself. Set the key
 * before NID_subject_key_identifier. (With issuer and subject the same, OpenSSL 3 puts issuer and
 * serial into an authority key identifier of "keyid,issuer", and the key id into one of
 * "keyid:always".) Returns 1, or 0 when OpenSSL has no object of that number, the string is refused
 * or an argument is NULL. */
int add_ext(X509 *certificate, int nid, const char *value);

/* A verification callback for hosts to install. Returns `ok`, but when that is 0 prints
 *
 *     -Error with certificate at depth: 1
 *       issuer   = /C=BG/CN=Selvar Server CA
 *       subject  = /C=BG/CN=Selvar Server CA
 *       err 79:invalid CA certificate
 *
 * on standard error, the names cut at 255 characters, and returns 1 if the error is
 * X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION. A NULL context prints nothing. */
int verify_callback2(int ok, X509_STORE_CTX *store_context);

ZT_END_DECLS

#endif
