/* The pointer slot list: a growable array of pointers whose positions stay put.
 *
 *     slot     0        1     2     3          size
 *          +--------+-----+------+-----+----- - - - +
 *          | &size  |  A  | NULL |  C  |  never read  |      size = 4
 *          +--------+-----+------+-----+------ - - - +
 *
 * Adding fills the first empty slot and grows the array by one slot only when none is empty;
 * removing empties a slot and moves nothing. An element keeps its index for as long as it is
 * present, so a host can walk the slots by index while elements come and go.
 *
 * Slot 0 points to the number of slots, itself included, as a uint32_t; slots 1 to size - 1 hold
 * elements or NULL. Elements are opaque and the host's.
 *
 *     for (uint32_t i = 1; i < *(uint32_t *)list[0]; i++)
 *         if (list[i]) visit(list[i]);
 *
 * Thread safety: the slot array's functions take no lock. sptrlist_open() makes a record that holds
 * a mutex and a reader/writer lock beside an array, for hosts that share one; taking them is the
 * host's business. */
#ifndef ZTLIB_SPTRLIST_SPTRLIST_H
#define ZTLIB_SPTRLIST_SPTRLIST_H

#include <stdint.h>
#include <ztlib/decls.h>
#include <ztlib/pthread_types.h>

ZT_BEGIN_DECLS

/* A slot array with the locks its users may want. */
typedef struct sptrlist {
    pthread_mutex_t mutex;
    pthread_rwlock_t rwlock;
    void **list; /* the slot array */
} sptrlist;

/* A new slot array with one empty slot (size 2), or NULL when memory is out. */
void **sptrlist_create(void);

/* Releases the array, not the elements. NULL is ignored. */
void sptrlist_free(void **list);

/* As sptrlist_free(), after calling `release` (unless NULL) for each element in order of the slots.
 */
void sptrlist_free_ref(void **list, void (*release)(void *element));

/* Puts `element` into the first empty slot, or behind the last one: the array may then move, and
 * *list is updated.
 * Returns the element; NULL when an argument is NULL or memory is out (logged as
 * "realloc()(): <reason>"), with nothing changed. */
void *sptrlist_add(void ***list, void *element);

/* Empties the first slot for which compare(slot, key) is 0. Empty slots are compared too, as NULL.
 * Nothing is released and the array never shrinks. Does nothing for a NULL list or compare. */
void sptrlist_remove(void **list, const void *key,
                     int (*compare)(const void *element, const void *key));

/* How many elements the array holds; 0 for NULL. */
int sptrlist_count(void **list);

/* Prints "- sptrlist dump size <size>", then each element as "\t\tnode[<index>]=<address>", a line
 * each, on standard error. NULL is ignored. */
void sptrlist_dump(void **list);

/* A compare function for sptrlist_remove(): -2 when the two pointers differ, 0 when they are the
 * same. It matches by identity: equal texts at different addresses do not match. */
int sptrlist_cmp_string(const void *element, const void *key);

/* A new record with its locks and an empty slot array, or NULL when memory is out. Release it with
 * sptrlist_close(l, 1). */
sptrlist *sptrlist_open(void);

/* Makes the locks of `l`, then an empty slot array. A lock that cannot be made ends the process.
 * Returns 0, also when the array could not be allocated (`list` is then NULL); -1 for NULL. */
int sptrlist_init(sptrlist *l);

/* Destroys the locks and releases the array, not the elements; `list` becomes NULL. A non-zero
 * `free_self` releases the record too. NULL is ignored. No other thread may use `l` any more. */
void sptrlist_close(sptrlist *l, int free_self);

ZT_END_DECLS

#endif
