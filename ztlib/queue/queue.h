/* A blocking queue: first in, first out, any number of producers and consumers.
 *
 *     enqueue --> tail ... head --> dequeue       never waits: queue_dequeue
 *        |                          dequeue_s     waits once on the condition variable
 *        |                          dequeue_swait ... for a signal, at most some seconds
 *        |                          dequeue_ls    waits on the semaphore
 *        +-- each enqueue posts the semaphore, sets `posted` and signals the condition variable
 *
 *     in use --queue_prepair_exit--> exiting --queue_free--> freed       there is no way back
 *
 * Values are opaque and belong to the caller; the queue frees none of them. Names ending in _l take
 * the lock and return holding it, for further work under the same lock: the caller unlocks `mutex`
 * itself, and calls no plain form in between (the mutex is not recursive). Names ending in _nl want
 * the lock held already.
 *
 * A NULL value is stored like any other, and cannot be told from "nothing there" when it comes out.
 * A NULL queue is ignored: functions that return a pointer give NULL, without a lock, queue_init
 * gives -1. A NULL function (to keep, to print) does nothing.
 *
 * A mutex that cannot be taken ends the process with 1 (pthread_utils.h); one that cannot be made
 * or released prints "./queue/queue:<function>: <call>(): <text of errno> (<code>)" on standard
 * error and ends it with exit(-1). */
#ifndef ZTLIB_QUEUE_QUEUE_H
#define ZTLIB_QUEUE_QUEUE_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct queue_node {
    void *value;
    struct queue_node *next; /* towards the tail */
} queue_node;

typedef struct queue {
    pthread_mutex_t mutex; /* guards every field below */
    sem_t items;           /* one unit for each enqueue; only queue_dequeue_ls takes units */
    pthread_cond_t cond;   /* signalled once by each enqueue and by the exit request */
    queue_node *head;      /* NULL: empty */
    queue_node *tail;
    uint8_t flags; /* QUEUE_POSTED ...; the upper bits are the queue's own */
} queue;

enum {
    QUEUE_POSTED = 1,  /* set by each enqueue, cleared by the timed wait alone */
    QUEUE_EXITING = 2, /* exit was requested; never cleared */
    QUEUE_WAITING = 4  /* a consumer sleeps on the condition variable; for information */
};

/* A new empty queue, or NULL: memory is out ("calloc(): ..." logged as an error) or its semaphore
 * cannot be made ("queue_init(): ..." logged as a warning). Release it with queue_free(q, 1). */
queue *queue_create(void);

/* Prepares a queue in the caller's own storage, which must be zeroed: `flags` is not reset.
 * Returns 0, or -1 when the semaphore cannot be made (nothing is logged, nothing to release). */
int queue_init(queue *q);

/* Requests exit, releases the locks and, when `free_self` is not 0, the record. A NULL queue is
 * ignored. A mutex that cannot be destroyed is printed on standard error and otherwise ignored.
 * The queue must be empty, since linked nodes are not released, and nobody may wait on it: wake and
 * join the consumers first. */
void queue_free(queue *q, int free_self);

/* Sets QUEUE_EXITING and wakes exactly one blocked consumer; every other one returns NULL at the
 * next signal. From here on queue_dequeue_s and queue_dequeue_swait return NULL at once, queued
 * values or not; all other functions go on working. */
void queue_prepair_exit(queue *q);

/* Puts `value` at the tail, posts the semaphore and wakes one waiter.
 * Returns the new node, or NULL when memory is out (nothing is logged, posted or changed). The node
 * is the queue's: once the lock is free, a consumer may already have released it. */
queue_node *queue_enqueue(queue *q, void *value);

/* queue_enqueue() that returns with the lock held, after a failure too. */
queue_node *queue_enqueue_l(queue *q, void *value);

/* Takes the value at the head, or NULL when the queue is empty. Never waits. */
void *queue_dequeue(queue *q);
void *queue_dequeue_l(queue *q);  /* returns with the lock held */
void *queue_dequeue_nl(queue *q); /* the caller holds the lock */

/* Waits for a unit of the semaphore, then does as queue_dequeue_l(). The semaphore counts enqueues,
 * so when other dequeue forms took values, it lets consumers through to an empty queue: NULL. */
void *queue_dequeue_ls(queue *q);

/* Takes the value at the head; on an empty queue sleeps until the next signal first.
 * NULL when exit is requested, and when the queue is still empty after the wake-up (another
 * consumer was faster, or the wake-up was spurious). */
void *queue_dequeue_s(queue *q);

/* Takes the value at the head once an enqueue has signalled.
 *
 * This form looks at QUEUE_POSTED, not at the list. Set: it is cleared and the head is taken at
 * once. Not set: it sleeps, at most `seconds` (negative: not at all), and takes the head if an
 * enqueue signalled meanwhile. Two enqueues leave one signal: the second call of two waits the full
 * time and returns NULL, and the second value stays queued until an enqueue signals again, so
 * callers poll.
 *
 * NULL when the time is over, the wake-up was spurious, exit is requested, the queue is empty, or
 * the clock cannot be read ("clock_gettime()(): ..." logged as a warning). */
void *queue_dequeue_swait(queue *q, int32_t seconds);

/* The value at the head, left where it is, or NULL when the queue is empty. */
void *queue_peek(queue *q);
void *queue_peek_l(queue *q); /* returns with the lock held */

/* Removes every value for which keep(value, argument) returns 0. Takes no lock: the caller holds
 * it, or keeps others away otherwise. Dropped values are not freed (`keep` may do that), the
 * semaphore and QUEUE_POSTED are not adjusted. `keep` sees each value once, from head to tail.
 *
 * `tail` is moved to kept nodes behind the first one only, and is NULL when nothing is left. When
 * the first node alone stays, `tail` is not moved and may point to a node that is gone; the queue
 * knows, never follows it, and sets it right at the next enqueue. */
void queue_remove(queue *q, void *argument, int (*keep)(void *value, void *argument));

/* Prints "- queue dump -\n" on standard error, calls print(value) from head to tail, and prints
 * "----\n"; nothing at all for an empty queue. Takes no lock. */
void queue_dump(queue *q, void (*print)(void *value));

ZT_END_DECLS

#endif
