/* Asynchronous requests: answers find their requests by number, and each request's callback is
 * called exactly once, with its answer or because its time is over.
 *
 *     created --async_request_begin--> pending --async_request_process--> completed --> called and
 *                                         \------ the deadline passed ------^            freed
 *
 *     any thread                   reading thread                        the manager's worker
 *     ----------                   --------------                        --------------------
 *     r = async_request_create(manager, 10);
 *     r->callback = on_answer;
 *     uint64_t id = r->id;
 *     async_request_begin(manager, r);
 *     sends its request with id    decodes an answer
 *                                  async_request_process(manager, id, status, data, length)
 *                                                                        on_answer(...)
 *
 * Requests that are not answered are looked for when the worker had nothing to do for 3 whole
 * seconds: while answers keep arriving, expired ones wait. A request whose deadline has passed by a
 * second is then completed with status 1, the one begun last first. An answer that comes later than
 * that is refused.
 *
 * How the number travels in request and answer is the caller's matter.
 *
 * Cost: the manager keeps requests in 100 buckets, which is meant for some hundreds outstanding at
 * a time; beyond that each look-up walks a chain of a hundredth of them.
 *
 * All functions but init and free may be called by any number of threads, from callbacks too.
 *
 * A mutex that cannot be taken ends the process with 1 (pthread_utils.h); one that cannot be made
 * or released prints "./ipc/async/async_request:<function>: <call>(): <text of errno> (<code>)" on
 * standard error and ends it with exit(-1). */
#ifndef ZTLIB_IPC_ASYNC_ASYNC_REQUEST_H
#define ZTLIB_IPC_ASYNC_ASYNC_REQUEST_H

#include <stdint.h>
#include <ztlib/decls.h>
#include <ztlib/hashtable/hashtable.h>
#include <ztlib/queue/queue.h>

ZT_BEGIN_DECLS

/* Called on the manager's worker, one at a time, in the order in which requests were completed. A
 * callback that is slow delays all others and the look for expired requests. `status` is the
 * answer's, or ASYNC_REQUEST_TIMED_OUT. `data` is the request's and gone when the callback returns.
 * The result is ignored. No lock is held. */
typedef int (*async_request_callback)(void *context, uint8_t status, void *data,
                                      uint32_t data_length);

/* Given for the request's time-out; an answer may have this status too, which looks the same. */
enum { ASYNC_REQUEST_TIMED_OUT = 1 };

typedef struct async_request {
    uint64_t id;
    uint32_t deadline; /* seconds since the epoch, low 32 bits; the second after it is too late */
    uint8_t status;    /* 0 until completed */
    async_request_callback callback; /* the caller's, before async_request_begin(); may be NULL */
    void *context;                   /* the caller's; passed to `callback` */
    void *data;                      /* the answer, which takes the place of what is here: NULL */
    int32_t data_length;
} async_request;

typedef struct async_requests_manager {
    uint64_t next_id;      /* the last id given; advanced atomically */
    pthread_t thread;      /* the worker; 0: none */
    pthread_mutex_t mutex; /* guards flags */
    uint8_t flags;         /* ASYNC_REQUESTS_RUNNING ...; `running` is read without the lock */
    hashtable pending;     /* by id; its mutex guards it */
    queue completed;       /* waiting for their callbacks */
} async_requests_manager;

enum {
    ASYNC_REQUESTS_RUNNING = 1, /* the worker is to keep going */
    ASYNC_REQUESTS_ALIVE = 2    /* the worker is inside its routine */
};

/* A new manager with its worker, or NULL: memory is out ("calloc(): ..." logged as a warning) or
 * async_requests_manager_init() failed ("async_requests_manager_init(): ..." logged as a warning).
 * Release it with async_requests_manager_free(manager, 1). */
async_requests_manager *async_requests_manager_create(void);

/* Prepares a manager in the caller's own storage, which it zeroes, and starts the worker.
 * Returns 0, or with errno set and nothing to release: -1 when the table of pending requests cannot
 * be made or the worker not be started, -2 when the queue of completed ones cannot be made; -1 for
 * NULL. */
int async_requests_manager_init(async_requests_manager *manager);

/* Ends the worker, waiting for a callback that is running, and releases everything, the record too
 * when `free_self` is not 0. Requests that are completed but not called back are freed without a
 * call. Requests that are still pending are neither called nor freed. A mutex that cannot be
 * destroyed is printed on standard error and otherwise ignored. NULL is ignored.
 *
 * Nobody else may use the manager any more; not to be called from a callback. */
void async_requests_manager_free(async_requests_manager *manager, int free_self);

/* A new request with the next id and a deadline this many seconds from now, or NULL when memory is
 * out ("calloc(): ..." logged as a warning). `counter` points to the 64-bit counter that ids come
 * from: a manager's `next_id`, or the manager itself, whose first member that is. The first id is
 * 1. The deadline wraps with its 32 bits: a time-out that reaches beyond February 2106 is over at
 * once. NULL for a NULL counter. */
async_request *async_request_create(void *counter, uint32_t timeout_seconds);

/* Frees a request that was not begun, and its data when data_length is above 0. NULL is ignored. */
void async_request_free(async_request *request);

/* Hands the request to the manager: it is the manager's from here on, and may be called back and
 * freed before this returns. Returns 0.
 *
 * A request that cannot be kept, because memory is out ("malloc(): ..." logged as a warning), is
 * completed with status 1, or freed without a call when memory does not suffice for that either.
 * The same becomes of one that was pending under the same id, whose place the new one takes; ids
 * from one counter are never the same. */
int async_request_begin(async_requests_manager *manager, async_request *request);

/* Completes the pending request with this id. The low 8 bits of `status` are delivered.
 * Returns 0: the request owns `data` and frees it, with free(), when data_length is above 0. (Data
 * of length 0 or less stays the caller's to free, and the callback sees a negative length as its
 * unsigned 32 bits.) -1: `data` stays the caller's, since the id is not pending (completed, timed
 * out, never begun), or memory is out and the request stays pending. */
int async_request_process(async_requests_manager *manager, uint64_t id, int status, void *data,
                          int32_t data_length);

ZT_END_DECLS

#endif
