/* SHA-256 and SHA-512 digests of what lies in memory, raw or as lower-case hexadecimal text.
 *
 *              raw        text, with its terminator    `out_size` that is asked for
 *     SHA-256  32 bytes   65 bytes                     32, and 64 for the text
 *     SHA-512  64 bytes   129 bytes                    64, and 128 for the text
 *
 * THE TEXT FORMS WRITE ONE BYTE MORE THAN THEY ASK FOR: `out_size` is compared with the digits
 * alone, and the terminator is written behind them.
 *
 * `data` may be NULL when `length` is 0. All functions return 0, or -1 with nothing written when
 * `out_size` is too small, `length` is negative, or a pointer is NULL.
 *
 * Thread safety: any thread, any number at once; nothing is shared and nothing is allocated. What
 * is left of the data on the stack is cleansed. */
#ifndef ZTLIB_SUTILS_HASH_H
#define ZTLIB_SUTILS_HASH_H

#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* Writes the 32 bytes of the SHA-256 digest of `length` bytes. */
int sha256_hash(const void *data, int length, void *out, int out_size);

/* Writes it as 64 digits and a terminator: 65 bytes, also where `out_size` is 64. */
int sha256_hash_string(const void *data, int length, char *out, int out_size);

/* Writes the 64 bytes of the SHA-512 digest of `length` bytes. */
int sha512_hash(const void *data, int length, void *out, int out_size);

/* Writes it as 128 digits and a terminator: 129 bytes, also where `out_size` is 128. */
int sha512_hash_string(const void *data, int length, char *out, int out_size);

ZT_END_DECLS

#endif
