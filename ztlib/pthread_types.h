/* The POSIX thread types that the records hold, for hosts of every language mode. */
#ifndef ZTLIB_PTHREAD_TYPES_H
#define ZTLIB_PTHREAD_TYPES_H

#include <pthread.h>

/* Compiled as strict ISO C, a host sees no reader/writer lock, only the room that one takes. */
#ifndef PTHREAD_RWLOCK_INITIALIZER
typedef union {
    char size[__SIZEOF_PTHREAD_RWLOCK_T];
    long alignment;
} pthread_rwlock_t;
#endif

#endif
