/* The checked mutex lock that the whole library takes its mutexes through. */
#ifndef ZTLIB_PTHREAD_UTILS_H
#define ZTLIB_PTHREAD_UTILS_H

#include <pthread.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* Locks `mutex`; returns only with the lock held. A null mutex is ignored.
 *
 * A lock that cannot be taken is fatal: one line on standard error,
 *
 *     ./pthread_utils:pthread_utils_mutex_lock pthread_mutex_lock(): <text> (<code>)
 *
 * where text and code are those that pthread_mutex_lock() returned, then exit(1).
 * Thread safety: any thread. */
void pthread_utils_mutex_lock(pthread_mutex_t *mutex);

ZT_END_DECLS

#endif
