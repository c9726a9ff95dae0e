/* AES-256 in CBC mode with a context that keeps key and IV.
 *
 * Every message starts from the IV that the context was made with. So messages can be decrypted in
 * any order, and EQUAL PLAINTEXTS GIVE EQUAL CIPHERTEXTS: whoever sees two messages sees whether
 * they begin alike. There is no authentication either; a damaged message decrypts to something.
 *
 *     plaintext    n bytes
 *     ciphertext   n + 1 to n + 16 bytes: the next multiple of 16 (PKCS#7 padding)
 *
 * Thread safety: a context is one thread's at a time; different contexts share nothing. */
#ifndef ZTLIB_SUTILS_AES256_H
#define ZTLIB_SUTILS_AES256_H

#include <ztlib/decls.h>

ZT_BEGIN_DECLS

enum {
    AES256_IV_SIZE = 16,            /* bytes */
    AES256_KEY_SIZE = 32,           /* bytes */
    AES256_LENGTH_MAX = 0x7fffffdf  /* most bytes that one call takes, 2^31 - 33; the ciphertext of
                                     * more than 2^31 - 49 is too long to be decrypted in one */
};

/* A new context for this IV (AES256_IV_SIZE bytes) and key (AES256_KEY_SIZE bytes); both are
 * copied. NULL when memory is out or an argument is NULL. Release it with aes256_ctx_free(). */
void *aes256_ctx_init(const void *iv, const void *key);

/* Releases a context; what it holds of the key is cleansed first. NULL is ignored. */
void aes256_ctx_free(void *ctx);

/* Encrypts the *length bytes of `plaintext` (may be NULL when there are none).
 * Returns the ciphertext, the caller's to free(), and its length in *length; NULL, and *length as
 * it was, when memory is out, *length is negative or above AES256_LENGTH_MAX, or a pointer is
 * NULL. */
unsigned char *aes256_encrypt(void *ctx, const void *plaintext, int *length);

/* Decrypts the *length bytes of `ciphertext` (may be NULL when there are none).
 * Returns the plaintext with a zero byte behind it, the caller's to free(), and its length in
 * *length; NULL as aes256_encrypt().
 *
 * Padding that is wrong, as a wrong key or damaged data make it, is no failure: then the result is
 * what the whole blocks before the last decrypt to. The same goes for a length that is no multiple
 * of 16; there the result is all whole blocks. */
unsigned char *aes256_decrypt(void *ctx, const void *ciphertext, int *length);

ZT_END_DECLS

#endif
