/* Converters: bytes, numbers and text from one form into another.
 *
 * Nothing here keeps state, but for the four number functions that say so. Whatever is returned
 * newly allocated is the caller's to free(). A null argument that has no meaning below gives NULL,
 * -1 or 0, or does nothing.
 *
 * Thread safety: any thread, but for those four. */
#ifndef ZTLIB_UTILS_CONVERTERS_H
#define ZTLIB_UTILS_CONVERTERS_H

#include <stddef.h>
#include <stdint.h>
#include <wchar.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* --- bytes ----------------------------------------------------------------------------- */

/* Writes two lower-case hexadecimal digits a byte, and a terminator: 2 * length + 1 bytes at `out`.
 * `out_size` is not used. */
void tohexstring(const void *bytes, unsigned length, char *out, unsigned out_size);

/* Reads hexadecimal text two characters a byte, each pair as strtoul() reads it in base 16: "1g" is
 * 1, "g1" is 0, " a" is 10, "-1" is 255. `out` may be `hex` itself.
 * Returns how many bytes were written; -1 when `hex_length` is 0 or odd; -2 when half of it is more
 * than `out_capacity`. */
int hextobytes(const char *hex, unsigned hex_length, void *out, unsigned out_capacity);

/* Compares as unsigned bytes. Returns -1 where `a` is smaller at the first difference, 1 where it
 * is larger, 0 when there is none; a `length` of 0 or less finds none. */
int bytecmp(const void *a, const void *b, int length);

/* Prints "dump: ", each byte as two upper-case hexadecimal digits and a blank, and a newline on
 * standard error. */
void dump_array(const void *bytes, unsigned length);

/* --- integers in network order --------------------------------------------------------- */

/* The integer that begins at bytes[start], most significant byte first. */
uint16_t be_byte2uint16(const void *bytes, int start);
uint32_t be_byte2uint32(const void *bytes, int start);
uint64_t be_byte2uint64(const void *bytes, int start);

/* Writes 2, 4 or 8 bytes, most significant first. */
void be_uint162byte(uint16_t value, void *destination);
void be_uint322byte(uint32_t value, void *destination);
void be_uint642byte(uint64_t value, void *destination);

/* --- text ------------------------------------------------------------------------------ */

/* Replaces the first occurrence of `find` in `text`; an empty `find` occurs in front.
 * Returns a new text, or `text` itself when there is no occurrence: compare the pointers, or look
 * at *replaced (may be NULL), which is 1 or 0 accordingly. NULL, and 0, when memory is out. */
char *strreplace(const char *text, const char *find, const char *replacement, int *replaced);

/* --- base64 ---------------------------------------------------------------------------- */

/* Encodes on one line, padded with '='. Returns a new terminated text and its length in *out_length
 * (may be NULL); NULL, and 0, when memory is out or the text would need 2^31 bytes. */
char *base64encode_(const void *data, unsigned length, unsigned *out_length);

/* Decodes. Newlines are skipped; the first '=' ends the text; any other character outside the
 * alphabet is an error. One sextet too many at the end is dropped.
 * Returns the bytes, followed by a zero byte, and their count in *out_length (may be NULL); NULL,
 * and 0, for such a character and when memory is out. */
unsigned char *base64decode_(const char *text, unsigned length, unsigned *out_length);

/* The pairs below go through OpenSSL's base64 filter. They return NULL when memory is out, and for
 * more bytes than it takes: some 1.5 * 10^9. */

/* Encodes on one line and drops the last character of the encoding. base64encode_() gives all of
 * it. */
char *base64encode(const void *data, unsigned length);

/* Encodes in lines of 64 characters, with a newline between them and none at the end. To decode a
 * text of one line with _base64decode(), put its newline behind it first. */
char *_base64encode(const void *data, unsigned length);

/* Decodes a text of one line (base64decode) or in lines (_base64decode). Returns the bytes,
 * followed by a zero byte, and their count in *out_length (may be NULL). A text that does not
 * decode gives an empty result and 0. */
unsigned char *base64decode(const char *text, unsigned length, unsigned *out_length);
unsigned char *_base64decode(const char *text, unsigned length, unsigned *out_length);

/* --- decimal text ---------------------------------------------------------------------- */

/* The low 8, 16, 32 or all 64 bits of `value` in decimal, in one static buffer that all four share:
 * the text is good until the next call of any of them, by any thread. */
char *u82str(uint64_t value);
char *u162str(uint64_t value);
char *u322str(uint64_t value);
char *u642str(uint64_t value);

/* The same at `destination`, cut to `size` bytes with the terminator. Return the destination. */
char *u82str_r(uint64_t value, char *destination, unsigned size);
char *u162str_r(uint64_t value, char *destination, unsigned size);
char *u322str_r(uint64_t value, char *destination, unsigned size);
char *u642str_r(uint64_t value, char *destination, unsigned size);

/* The same in wide characters, as swprintf() writes them into `size` wide characters. */
wchar_t *u82wstr_r(uint64_t value, wchar_t *destination, unsigned size);
wchar_t *u162wstr_r(uint64_t value, wchar_t *destination, unsigned size);
wchar_t *u322wstr_r(uint64_t value, wchar_t *destination, unsigned size);
wchar_t *u642wstr_r(uint64_t value, wchar_t *destination, unsigned size);

/* --- narrow and wide text, by the locale's encoding ------------------------------------ */

/* Converts multibyte text to wide characters.
 *   out    NULL: only counts
 *   *out   NULL: becomes a new terminated array; else that array is written, and must have room for
 *          the text and a terminator
 * Returns the number of wide characters without the terminator; -1 for a null `text` (logged as an
 * error: "null input parameter") and, with nothing written, for text that the locale cannot
 * convert; -3 when memory is out (logged as an error: "calloc"). */
int str2wchr(const char *text, wchar_t **out);

/* Converts wide characters to multibyte text.
 *   out    NULL: only counts
 *   *out   NULL: becomes a new terminated text; else that buffer is written, without a terminator
 * Returns the number of bytes without the terminator; -1 for a null `text` and, with nothing
 * written, for text that the locale cannot convert; -2 when memory is out (logged as an error:
 * "calloc"). */
int wchr2str(const wchar_t *text, char **out);

ZT_END_DECLS

#endif
