/* The wide buffer: a growable array of wide characters that always ends in L'\0'.
 *
 * It grows as the byte buffer does, when length + n >= capacity, to n + 2 * capacity + 1 elements.
 * All counts are in wide characters.
 *
 * Failures are logged as errors with the source "./buffers/wbuffer"; a failed call as
 * "<call>(): <text of errno>". Source text and arguments must not lie in the buffer itself, because
 * it may move.
 *
 * Three habits are part of the contract:
 *   - a failed growth sets the capacity to (new capacity >> 1) - n - 1, which can be below what
 *     it was and can wrap around 0;
 *   - a formatted text that does not fit the capacity adds -1 to the length, which takes an empty
 *     buffer's length around 0. The text then ends where the length says, at the front when
 *     wrapped;
 *   - a length or capacity that wrapped counts as no room: the next operation grows from the text
 *     that is there (none for a wrapped length), or fails with its own code.
 *
 * Thread safety: a buffer belongs to one thread at a time. */
#ifndef ZTLIB_BUFFERS_WBUFFER_H
#define ZTLIB_BUFFERS_WBUFFER_H

#include <stdint.h>
#include <wchar.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct wbuffer {
    wchar_t *data;     /* malloc family, owned; NULL when empty */
    uint64_t capacity; /* room that the growth rule counts with */
    uint64_t length;   /* characters in use, without the terminator */
} wbuffer;

/* A new empty buffer, or NULL when memory is out (logged: "calloc"). Release it with
 * wbuffer_free(b, 1). */
wbuffer *wbuffer_create(void);

/* Makes `b` empty without releasing anything. Returns 0, or -1 for NULL. */
int wbuffer_init(wbuffer *b);

/* Releases the text and sets data to NULL; capacity and length are left as they were, so
 * wbuffer_init() comes before the next use. A non-zero `free_record` releases the record too. NULL
 * is ignored. */
void wbuffer_free(wbuffer *b, int free_record);

/* Makes room for `n` more characters. `n` counts with its sign, in 64 bits: a negative one grows
 * the buffer only when length + n wraps.
 * Returns 0; -1 for a null buffer (logged: "empty input buffer"); -2 when memory is out or the new
 * capacity is 0 (logged: "realloc"): the capacity then changes as said above, the text does not. */
int wbuffer_expand(wbuffer *b, int n);

/* Appends exactly `n` characters from `s`, zeros included, and a terminator.
 * Returns 0; -1 for a null buffer (logged: "empty input buffer") and a null `s` of more than 0
 * characters; -2 when the buffer cannot grow or `n` is negative (logged: "wbuffer_expand"). */
int wbuffer_append(wbuffer *b, const wchar_t *s, int n);

/* Appends a multibyte text in the locale's encoding, up to its terminator. `n` is not used.
 * Returns 0, or -1: for a null buffer, or when the buffer cannot grow (both logged by
 * wbuffer_expand(), and here as "wbuffer_expand"), or for a text that is NULL (logged by
 * str2wchr(), before the buffer is looked at) or that the locale cannot convert, with nothing
 * changed. */
int wbuffer_cappend(wbuffer *b, const char *s, unsigned n);

/* Appends formatted text, as vswprintf() prints it, and a terminator.
 *
 * Room is made once, ahead of printing, for an estimate: the length of each string that a plain
 * "%s" names and 32 for every other '%' (both of "%%"; a "%s" that is no conversion, or whose
 * argument is NULL). The format's own text does not count. Printing then stops at the capacity,
 * counted from the end of the text in hand: a longer text is not appended, and -1 is added to the
 * length.
 *
 * Use "%ls" for wide strings. The argument of a plain "%s" is measured as a wide string and printed
 * by the C library as a multibyte one.
 *
 * Returns 0, also for a text that did not fit; -1 for a null buffer (logged: "empty input buffer")
 * and a null format; -2 when the buffer cannot grow (logged: "wbuffer_expand"). */
int wbuffer_vappend(wbuffer *b, const wchar_t *format, ...);

/* Drops the first `n` characters: the rest moves to a new array of the same capacity, or of what it
 * needs where that is more. Dropping exactly all of them makes the buffer empty as wbuffer_init()
 * does: the old array is not released, so a caller that wants it back keeps its address.
 * Returns 0; -1 for a null buffer (logged: "empty input buffer"); -3, with nothing changed, when
 * memory is out (logged: "malloc") or `n` is negative or above the length. */
int wbuffer_remove(wbuffer *b, int n);

ZT_END_DECLS

#endif
