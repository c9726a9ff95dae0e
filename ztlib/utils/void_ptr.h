/* Two, three or four pointers that are owned and released together.
 *
 * Thread safety: a record belongs to one thread at a time. */
#ifndef ZTLIB_UTILS_VOID_PTR_H
#define ZTLIB_UTILS_VOID_PTR_H

#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* Each member is NULL or a block of the malloc family that the record owns. */
typedef struct void_ptr2_p {
    void *ptr1;
    void *ptr2;
} void_ptr2_p;

typedef struct void_ptr3_p {
    void *ptr1;
    void *ptr2;
    void *ptr3;
} void_ptr3_p;

typedef struct void_ptr4_p {
    void *ptr1;
    void *ptr2;
    void *ptr3;
    void *ptr4;
} void_ptr4_p;

/* A new record of null pointers, or NULL when memory is out. Release it with its own free function
 * and a non-zero `free_self`. */
void_ptr2_p *void_ptr2_p_create(void);
void_ptr3_p *void_ptr3_p_create(void);
void_ptr4_p *void_ptr4_p_create(void);

/* Releases each member and sets it to NULL, then, with a non-zero `free_self`, the record. NULL is
 * ignored. */
void void_ptr2_p_free(void_ptr2_p *record, int free_self);
void void_ptr3_p_free(void_ptr3_p *record, int free_self);
void void_ptr4_p_free(void_ptr4_p *record, int free_self);

ZT_END_DECLS

#endif
