/* Bare headers for a host's own linked elements: a first and a last pointer, with constructor,
 * initialiser and destructor. The library offers no element operations for them and never looks at
 * the two pointers after creation.
 *
 * The linked list and the priority list are the same functions under two names; their messages name
 * the one that was called. Thread safety: none needed here; hosts serialise access to their
 * lists. */
#ifndef ZTLIB_LISTS_LINKED_LIST_H
#define ZTLIB_LISTS_LINKED_LIST_H

#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct linked_list {
    void *first; /* the host's first element, NULL after creation */
    void *last;  /* ... and its last */
} linked_list;

typedef struct linked_priority_list {
    void *first;
    void *last;
} linked_priority_list;

/* A new header with both pointers NULL, or NULL when memory is out (logged as a warning). Release
 * it with linked_list_free(list, 1). */
linked_list *linked_list_create(void);

/* Does nothing: a zeroed header is ready. Always 0. */
int linked_list_init(linked_list *list);

/* Frees the header when it is not NULL and `free_self` is not 0. Elements are never touched. */
void linked_list_free(linked_list *list, int free_self);

/* The same three for a priority list. */
linked_priority_list *linked_priority_list_create(void);
int linked_priority_list_init(linked_priority_list *list);
void linked_priority_list_free(linked_priority_list *list, int free_self);

ZT_END_DECLS

#endif
