/* Unique identifiers: eight bytes of the system's randomness, two pseudo-random numbers and two
 * counters of the process, with a fixed text form.
 *
 *     0f1e2d3c4b5a6978-6b8b4567-00000001-0001-327b23c6
 *     random           rand1    seq32    seq16 rand2
 *
 * Both counters start at random values and go up by one with each identifier, so identifiers made
 * by concurrent threads never share their pair of counters within one turn of a counter.
 *
 * Thread safety: any thread may make identifiers; the first-use initialisation runs once. uid2str()
 * shares one text between all callers. The pseudo-random numbers come from rand(), which the first
 * use seeds with the time: a host that calls srand() or rand() itself shares that sequence. */
#ifndef ZTLIB_UTILS_UID_H
#define ZTLIB_UTILS_UID_H

#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* 22 bytes, without padding, in host byte order. */
#pragma pack(push, 1)
typedef struct uid {
    uint64_t random;
    uint32_t rand1;
    uint32_t seq32;
    uint16_t seq16;
    uint32_t rand2;
} uid;
#pragma pack(pop)

enum { UID_TEXT_SIZE = 49 }; /* bytes of the text form, its terminator included */

/* Reads `length` bytes from /dev/urandom, or from /dev/random where that does not open.
 * Returns 0; -1 when neither opens (or for NULL); -2 when a read fails or the device ends. A length
 * of 0 or less reads nothing. */
int uid_uread(void *destination, int length);

/* Makes a new identifier. Should the random device fail after the first use, `random` is 0 or holds
 * what could be read, and the counters alone tell identifiers apart.
 * Returns 0, or -1 when the first-use initialisation fails (the next call tries again) or for
 * NULL. */
int uid_generate(uid *id);

/* The time in seconds (its low 32 bits) in the upper half, and in the lower half a counter of the
 * process that each call increments first: an ordering key. Any thread. */
uint64_t uid_time_seq(void);

/* Writes the text form, cut to `size` bytes with its terminator. Returns `destination`; NULL when
 * an argument is NULL. */
char *uid2str_t(const uid *id, char *destination, unsigned size);

/* The text form in a buffer that all callers share: the next call, by any thread, overwrites it.
 * NULL for NULL. */
char *uid2str(const uid *id);

/* Writes the text form, without a newline, to a file that is created (mode 0666 before the umask)
 * or truncated.
 * Returns 0, or -1 when the file cannot be opened or written. */
int uid_to_file(const char *path, const uid *id);

/* Reads an identifier from the first line of a file (up to 1023 characters): five hexadecimal
 * numbers joined by '-'. Each number ends at its first other character; of a number that is too
 * large, the low bits are taken.
 * Returns 0; -1 when the file cannot be opened (or for NULL), -2 when memory is out, -3 when the
 * line does not have exactly five groups. The record is changed by success alone. */
int uid_from_file(const char *path, uid *id);

/* Seeds the pseudo-random generator with the time and both counters from the random device, as the
 * first uid_generate() does by itself. Returns 0; -1, -2 when seeding the 16-bit, the 32-bit
 * counter fails. */
int _uid_init(void);

ZT_END_DECLS

#endif
