/* Synchronous requests: a thread that has sent a request sleeps until the thread that reads the
 * answers posts it, at most 3 seconds.
 *
 *     asking thread                              reading thread
 *     -------------                              --------------
 *     requests_processor_request_init(r)
 *     fills in and sends its request
 *     requests_processor_request_wait(r)   <--   stores the answer in *r; sem_post(&r->semaphore)
 *     reads the answer, when that was 0
 *     requests_processor_request_done(r)
 *
 * A request is a record of the caller's that begins with a semaphore and has exactly this size:
 *
 *     struct my_request {
 *         sem_t semaphore;
 *         ...
 *     };
 *     _Static_assert(sizeof(struct my_request) == REQUESTS_PROCESSOR_REQUEST_BYTES, "size");
 *
 * After a wait that failed the reading thread may still come with the answer: take the request from
 * its reach before requests_processor_request_done(). */
#ifndef ZTLIB_IPC_SYNC_REQUESTS_PROCESSOR_H
#define ZTLIB_IPC_SYNC_REQUESTS_PROCESSOR_H

#include <semaphore.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

enum {
    REQUESTS_PROCESSOR_REQUEST_BYTES = 3168, /* of the whole record, semaphore included */
    REQUESTS_PROCESSOR_WAIT_SECONDS = 3
};

/* Zeroes the whole record and makes its semaphore, for the threads of this process, with value 0.
 * Returns 0, or -1 with errno set; -1 for NULL. */
int requests_processor_request_init(void *request);

/* Waits until the semaphore is posted, which it may be already. Returns 0 then, and -1 with errno
 * set when 3 seconds have passed (ETIMEDOUT), the clock cannot be read, or the wait fails
 * ("sem_timedwait()(): ..." logged as a warning). Signals do not end the wait. -1 for NULL. */
int requests_processor_request_wait(void *request);

/* Destroys the semaphore; the record is the caller's. Returns 0, or -1 with errno set; -1 for
 * NULL. */
int requests_processor_request_done(void *request);

ZT_END_DECLS

#endif
