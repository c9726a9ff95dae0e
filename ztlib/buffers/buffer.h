/* The byte buffer: a growable block of bytes that always ends in a zero byte of its own.
 *
 *     data
 *      |
 *      v
 *      +---+---+---+---+---+----+---------------+
 *      | t | e | x | t | s | \0 |     spare     |
 *      +---+---+---+---+---+----+---------------+
 *      |<----- length ---->|                    |
 *      |<-------------- capacity -------------->|
 *
 * It grows when length + n >= capacity, to n + 2 * capacity + 1 bytes: a first append takes exactly
 * what text and terminator need, the next one doubles.
 *
 * The functions that work on it take the addresses of the three fields, so that any record can
 * embed a buffer as three fields of its own. An empty buffer is { NULL, 0, 0 }.
 *
 * Neither capacity nor length goes beyond 32 bits: an operation that would need more fails as it
 * does when memory is out, and so does one that is given a negative count. Source bytes and
 * arguments must not lie in the buffer itself, because it may move.
 *
 * Thread safety: a buffer belongs to one thread at a time; net_buffer.h has the one with a lock. */
#ifndef ZTLIB_BUFFERS_BUFFER_H
#define ZTLIB_BUFFERS_BUFFER_H

#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct buffer {
    char *data;        /* malloc family, owned; NULL while nothing was ever added */
    uint32_t capacity; /* bytes allocated at data */
    uint32_t length;   /* bytes in use, without the terminator */
} buffer;

/* A new empty buffer, or NULL when memory is out (logged as a warning). Release it with
 * buffer_free(b, 1). */
buffer *buffer_create(void);

/* Makes `b` empty without releasing anything. Returns 0, or -1 for NULL. */
int buffer_init(buffer *b);

/* Releases the bytes and leaves the buffer empty; a non-zero `free_record` releases the record too.
 * NULL is ignored. */
void buffer_free(buffer *b, int free_record);

/* Makes room for `n` more bytes and a terminator; writes neither. The capacity that it grows to
 * stays below 2^31.
 * Returns the data, which may have moved. When memory is out it returns NULL, prints
 *     ./buffers/buffer:buffer_make_room realloc():<text of errno>
 * on standard error and changes nothing. A null argument gives NULL. */
char *buffer_make_room(char **data, unsigned *capacity, unsigned *length, unsigned n);

/* Appends `n` bytes of any kind from `src`, and a terminator.
 * Returns the data, which may have moved. When memory is out it returns NULL, prints
 *     ./buffers/buffer:buffer_append realloc():<text of errno>
 * on standard error and changes nothing. A null argument gives NULL, but for `src` with no
 * bytes. */
char *buffer_append(char **data, unsigned *capacity, unsigned *length, const void *src, int n);

/* Drops the first `n` bytes; the rest moves to the front and is terminated. The capacity stays.
 * Dropping exactly all of them sets the length to 0 and writes nothing, not even a terminator.
 * Returns 0, -2 when there is no data (or an argument is null), or -3, with nothing changed, when
 * `n` is negative or above the length. */
int buffer_remove(char **data, unsigned *capacity, unsigned *length, int n);

/* Appends formatted text, as printf() would print it.
 *
 * Room is made once, ahead of printing, for an estimate: the length of the format, the length of
 * each string that a plain "%s" names, 32 for every other '%' (both of "%%"; a "%s" that is no
 * conversion, or whose argument is NULL) and 32 more. A text that is longer than that makes room
 * for itself by the same growth rule and is printed again.
 *
 * Returns the data, which may have moved. When memory is out (the line of buffer_make_room() is
 * printed) a text that fits the room in hand is appended all the same, and the text stays for one
 * that does not, nor for one that the C library cannot print. A null argument gives NULL. */
char *buffer_vsnprintf(char **data, unsigned *capacity, unsigned *length, const char *format, ...)
    ZT_PRINTF_LIKE(4, 5);

ZT_END_DECLS

#endif
