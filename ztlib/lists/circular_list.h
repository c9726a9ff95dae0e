/* A ring of values, doubly linked, with insertion at its tail.
 *
 *     head --> [1] <-> [2] <-> [3]
 *               ^---------------^      the head's prev is the last node, whose next is the head
 *
 * Walking from the head along `next` gives the values in the order in which they were inserted; in
 * a ring of one node both of its pointers lead to itself. Values are opaque words, usually
 * pointers, and are never freed by the list. Thread safety: none; callers serialise access. */
#ifndef ZTLIB_LISTS_CIRCULAR_LIST_H
#define ZTLIB_LISTS_CIRCULAR_LIST_H

#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct circular_list_node {
    uint64_t value; /* the caller's */
    struct circular_list_node *next;
    struct circular_list_node *prev;
} circular_list_node;

typedef struct circular_list {
    circular_list_node *head;    /* NULL: the ring is empty */
    circular_list_node *current; /* a cursor for the host; only circular_list_free() moves it */
} circular_list;

/* A new empty ring, or NULL when memory is out (logged as a warning). Release it with
 * circular_list_free(list, 1). */
circular_list *circular_list_create(void);

/* Does nothing: a zeroed header is an empty ring. Always 0. */
int circular_list_init(circular_list *list);

/* Puts `value` behind the last node of the ring whose head field `head` points to (&list->head).
 * An empty ring gets its head; otherwise the head stays.
 * Returns the new node, which the list owns, or NULL when memory is out (logged as a warning) or
 * `head` is NULL. */
circular_list_node *circular_list_insert(circular_list_node **head, uint64_t value);

/* Frees every node, values untouched, and the header when `free_self` is not 0; otherwise the
 * header is an empty ring with both fields NULL. A NULL list is ignored. */
void circular_list_free(circular_list *list, int free_self);

ZT_END_DECLS

#endif
