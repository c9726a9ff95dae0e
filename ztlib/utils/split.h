/* Splitting a text at a delimiter into parts of their own.
 *
 *     "a,,b" at ','   ->   count 3, parts "a", "", "b"
 *
 * Thread safety: nothing is shared between calls. */
#ifndef ZTLIB_UTILS_SPLIT_H
#define ZTLIB_UTILS_SPLIT_H

#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* The parts of a text. The record is the caller's, often on the stack; its contents are filled by
 * split() and released by split_free(). */
typedef struct split_result {
    uint32_t count;
    char **parts; /* `count` terminated texts, each allocated on its own; malloc family */
} split_result;

/* Splits the terminated `text` at every `delimiter` into `result`, whatever that held before.
 * Empty parts are kept, so there is always one part more than there are delimiters: "a," gives "a"
 * and "", an empty or NULL text gives "". The delimiter '\0' finds nothing: one part. `length` is
 * not used.
 * Returns 0, or -1 when memory is out (logged as a warning; the result then holds nothing) or
 * `result` is NULL. */
int split(const char *text, int length, char delimiter, split_result *result);

/* Releases the parts and leaves count 0 and parts NULL. A non-zero `free_self` releases the record
 * too, which then must come from malloc(). NULL is ignored. */
void split_free(split_result *result, int free_self);

ZT_END_DECLS

#endif
