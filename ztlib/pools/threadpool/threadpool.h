/* A pool that serves many connected stream sockets with a fixed number of workers.
 *
 * The host accepts connections itself and wraps each socket in a node with its callbacks. A worker
 * is three threads with their own set of nodes:
 *
 *   threadpool_entry()                              one worker
 *         |                +----------------------------------------------------------+
 *         v                |                                                          |
 *     incoming --any-->  incoming thread: add_cb -----> nodes                         |
 *     (the pool's queue)   |               \             |                            |
 *                          |                \      read thread: select, recv, data_cb |
 *                          |           first turn         |                           |
 *                          |                  \      a turn each                      |
 *                          |                   v          v                           |
 *   threadpool_enqueue() ------------------> processing --> process thread:           |
 *                          |                 (its queue)    process_cb, or removal    |
 *                          +----------------------------------------------------------+
 *
 * A node's life:
 *
 *   created --threadpool_entry--> waiting --add_cb gives 0--> adopted --> closing --> removed
 *                                    \                                              and freed
 *                                     +--refused: remove_cb, the host's again
 *
 * It closes when its peer closes or a read fails, when data_cb or read_cb is negative, when
 * process_cb is -1, or when the host sets must_exit. Its next turn then removes it: remove_cb, the
 * socket closed, the node freed.
 *
 * A node's process_cb and remove_cb are called by one thread, one at a time; its read_cb and
 * data_cb by another, while process_cb may run. All nodes of a worker share these two threads: a
 * callback that blocks holds up its neighbours.
 *
 * A new node that meets a read thread in select() is watched from its next round on, at most 1
 * second later; a stop takes as long. Descriptors from FD_SETSIZE (1024) on are refused. A host
 * that closes a node's descriptor itself, before remove_cb, makes select() fail for the whole
 * worker.
 *
 * Each step is traced on standard error, as stated with the functions; error lines look alike:
 *   "threadpool_read_routine: select(): <text of errno>"
 *
 * Locks, in this order: the pool's mutex, a worker's mutex, a node's mutex, a queue's mutex. A
 * mutex that cannot be made, taken or released ends the process, with
 *   ./pools/threadpool/threadpool:<function>: <call>(): <text of errno> (<code>)
 * on standard error and exit(-1), or as pthread_utils.h says when it cannot be taken. */
#ifndef ZTLIB_POOLS_THREADPOOL_THREADPOOL_H
#define ZTLIB_POOLS_THREADPOOL_THREADPOOL_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>
#include <ztlib/decls.h>
#include <ztlib/queue/queue.h>

ZT_BEGIN_DECLS

struct threadpool_node;

typedef struct threadpool {
    int32_t count;         /* of workers */
    pthread_mutex_t mutex; /* guards start and the start of a stop */
    queue incoming;        /* nodes handed in and not yet adopted */
    void **threads;        /* slot array (sptrlist.h) of the workers, in slots 1 to count */

    /* Private. */
    uint8_t state;
} threadpool;

typedef struct threadpool_thread {
    pthread_t incoming_thread;
    pthread_t read_thread;
    pthread_t process_thread;
    int32_t id;            /* 0 for the worker in slot 1 */
    uint32_t running;      /* 1; 0 once the worker is being stopped */
    pthread_mutex_t mutex; /* guards nodes; held while read_cb and data_cb run */
    queue processing;      /* nodes that have a turn to come, each as often as it has turns */
    sem_t wake;            /* posted when a node is adopted */
    void **nodes;          /* slot array (sptrlist.h) of the adopted nodes */
    threadpool *pool;      /* NULL once the pool is gone */

    /* Private. */
    uint8_t started; /* which of the threads run and are not joined */
    uint8_t stopped;
    uint64_t round; /* of the read thread */
} threadpool_thread;

/* Reads from the connection itself, without blocking: at most `size` (1,500) bytes into `buffer`.
 * Returns how many, 0 for none, negative for a failure and at the end of the stream: after 0 the
 * node is watched again at once. */
typedef int32_t (*threadpool_read_cb)(void *user, void *buffer, int32_t size);
/* Gets what was read. Negative closes the node, 0: nothing to process, positive: work. */
typedef int32_t (*threadpool_data_cb)(void *user, void *buffer, int32_t count);
/* Takes a turn. -1 closes the node, 0: done, any other value: another turn. */
typedef int32_t (*threadpool_process_cb)(void *user);
/* Accepts the node into a worker with 0, refuses it otherwise. A node that was accepted ends as
 * removed, also where memory is out for its place in the worker. */
typedef int32_t (*threadpool_add_cb)(void *user, struct threadpool_node *node);
/* The node is refused (it is the host's again) or removed (the pool closes and frees it when this
 * returns). */
typedef void (*threadpool_remove_cb)(void *user);

/* Any callback may be left out: no add_cb accepts, no data_cb answers with the count, no process_cb
 * with 0. read_cb and data_cb run with the worker's mutex held: of this header they may call
 * threadpool_enqueue, threadpool_enqueue_processing and threadpool_entry. The others run with no
 * lock held and may call anything but threadpool_destroy and threadpool_thread_destroy. */
typedef struct threadpool_node {
    int32_t fd;
    uint8_t must_exit;                /* the node is watched no more, its next turn removes it */
    threadpool_read_cb read_cb;       /* instead of a recv() of 1,500 bytes, which never blocks */
    threadpool_data_cb data_cb;       /* on the read thread */
    threadpool_process_cb process_cb; /* on the process thread */
    threadpool_add_cb add_cb;         /* on an incoming thread */
    threadpool_remove_cb remove_cb;   /* on the incoming or the process thread */
    threadpool_thread *worker; /* the adopting one; NULL before, and from removal or refusal on */
    pthread_mutex_t mutex;     /* guards must_exit, worker and what follows */
    void *user;                /* passed to every callback */

    /* Private. */
    uint8_t adopted;   /* may have turns: add_cb has accepted it, removal has not begun */
    uint8_t turn_owed; /* memory was out for a turn */
    uint64_t watched;  /* the read thread's last round that watched it */
} threadpool_node;

/* A pool with `workers` workers, none of them started. NULL when the number is negative, memory is
 * out or a semaphore cannot be made; nothing is logged by the pool itself. */
threadpool *threadpool_create(int32_t workers);

/* Starts the threads of every worker, named "p/<slot>/, read", "p/<slot>/, incoming" and
 * "p/<slot>/, process" as far as the system's limit of 15 characters allows. Returns 0, also for a
 * pool that is started already; -1 for NULL, and -1 when a thread cannot be created: the threads
 * made so far then run on and the pool's mutex stays locked, so that threadpool_destroy() alone, on
 * the thread that started, may follow. */
int threadpool_start(threadpool *pool);

/* Hands a node with its fd and callbacks set to the pool. From here on the node is the pool's,
 * until remove_cb says that it is refused or removed, or the pool is destroyed. Returns 0; -1 when
 * memory is out or an argument is NULL: the node stays the host's. Any thread.
 *
 * The adopting worker prints "NODE <fd> ADD TO THREAD POOL id:<id>" and gives the first turn. A
 * descriptor below 0, or from FD_SETSIZE on, is refused without asking add_cb, with the line
 *   "threadpool_incoming_routine NODE <fd> REFUSED: not a descriptor below <FD_SETSIZE>". */
int threadpool_entry(threadpool *pool, threadpool_node *node);

/* Asks for one more turn. Prints "threadpool_enqueue tpn fd=<fd>" and queues the node, if it is
 * adopted by now: adoption gives a turn by itself. A closing node prints "threadpool_enqueue FAILED
 * enqueue tpn fd=<fd>" instead. Returns 0 either way, and for NULL; -1 when memory is out and there
 * will be no turn. Any thread that knows the node to be alive: remove_cb says when it ends. */
int threadpool_enqueue(threadpool_node *node);

/* Asks for one more turn, of a closing node too. Prints "threadpool_enqueue_processing tpn
 * fd=<fd>". Returns the queue's node, which is not the caller's to use; NULL when the node is not
 * adopted, is NULL, or memory is out. Any thread that knows the node to be alive. */
queue_node *threadpool_enqueue_processing(threadpool_node *node);

/* Stops every worker, joins all threads and frees the pool. NULL is ignored. Not from a callback,
 * whose thread it would wait for. Returns when the callbacks that run have returned, and at most 1
 * second (one select) later.
 *
 * What is not freed is the host's again, with no callback and nothing closed:
 *   - nodes handed in and not yet adopted;
 *   - nodes adopted and not yet removed, in their worker's slot array;
 *   - the worker records, with `running` 0.
 * The host notes pool->threads[1] to [count] before the call. After it, for each worker w:
 *   threadpool_node_destroy() for each node in w->nodes, sptrlist_free(w->nodes),
 * sem_destroy(&w->wake), pthread_mutex_destroy(&w->mutex), free(w). */
void threadpool_destroy(threadpool *pool);

/* A worker record of `pool`, without threads and in none of its slots. NULL when pool is NULL,
 * memory is out or a semaphore cannot be made. */
threadpool_thread *threadpool_thread_create(threadpool *pool);

/* Stops one worker and joins those of its threads that were started; drops the turns to come. The
 * record stays, and its nodes with it, as after threadpool_destroy(); while the pool lives it is
 * the pool's, and threadpool_start() leaves it out. A second call does nothing;
 * NULL is ignored. Not from a callback of this worker. */
void threadpool_thread_destroy(threadpool_thread *worker);

/* A zeroed node with its mutex and `user`, or NULL when memory is out. Its fd is 0 until the host
 * sets it. */
threadpool_node *threadpool_node_create(void *user);

/* Shuts the socket down, closes it, prints "threadpool_node_destroy tpn fd = <fd>" and frees the
 * node; for nodes that the pool does not hold. A negative fd is not closed. NULL is ignored. */
void threadpool_node_destroy(threadpool_node *node);

/* 0 when both are the same node (or both NULL), -1 otherwise. */
int threadpool_node_compare(const threadpool_node *a, const threadpool_node *b);

/* Prints "qdump: ptr=<user>, fd=<fd>, must_exit=<flag>". NULL is ignored. */
void threadpool_node_dump(const threadpool_node *node);

/* Prints "-- therad pool dump cnt <count>--", then "\tn[<slot>] fd:<fd>" for each node of each
 * worker. Takes the pool's and the workers' mutexes. NULL is ignored. */
void thread_pool_info(threadpool *pool);

ZT_END_DECLS

#endif
