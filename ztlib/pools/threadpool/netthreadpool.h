/* The net thread pool: connection work, run on demand.
 *
 * Each connection is a node with three routines: one reads, one writes, one releases. Somebody
 * invites a node to read or to write; the pool hands the invitation to an idle thread, which runs
 * the routine and goes back to sleep. A read routine is expected to run for its connection's whole
 * life (it loops on the socket and returns when the connection ends); a write routine drains what
 * is pending and returns. Nodes and threads are made on demand up to fixed limits and used again.
 *
 *     node     free --get_node--> taken --invite--> served --last invitation ends--> released, free
 *     thread   idle --an invitation--> serving it --> idle
 *
 * One read and one write routine of the same node may run at the same time, on two threads; never
 * two of a kind. When the last outstanding invitation of a node ends, the node is released: its
 * release routine runs, and the node may be handed to the next connection.
 *
 * A server's life:
 *
 *     netthreadpool *pool = netthreadpool_create();
 *     netthreadpool_start(pool);
 *         netthreadpool_node *node = netthreadpool_get_node(pool);      for each connection
 *         ... give it its user pointer and routines ...
 *         netthreadpool_invite_read(node);
 *     ... stop accepting; shut every connection's socket down, so that its routines return ...
 *     netthreadpool_free(pool, 1); */
#ifndef ZTLIB_POOLS_THREADPOOL_NETTHREADPOOL_H
#define ZTLIB_POOLS_THREADPOOL_NETTHREADPOOL_H

#include <pthread.h>
#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

enum {
    NETTHREADPOOL_MAX_NODES = 10000, /* slots of each node table */
    NETTHREADPOOL_MAX_THREADS = 2000 /* slots that the thread tables ever use */
};

/* Runs on a thread of the pool with the node's user pointer, none of the pool's locks held. The
 * result of a read routine is not used; a write routine that returns other than 0 finishes its
 * node. */
typedef int (*netthreadpool_routine)(void *user_pointer);

/* Runs once, when a node's last invitation has ended, with the node's mutex held: it must not
 * invite or send on the node, nor take a lock under which somebody else does. */
typedef void (*netthreadpool_release_routine)(void *user_pointer);

struct netthreadpool;

/* Bits of a node's flags. */
enum {
    NETTHREADPOOL_READ_INVITED = 1,
    NETTHREADPOOL_READING = 2,
    NETTHREADPOOL_WRITE_INVITED = 4,
    NETTHREADPOOL_WRITING = 8,
    NETTHREADPOOL_FINISHED = 16 /* the read routine has returned, or a write routine failed */
};

/* A connection's place in the pool. Only the library makes these. */
typedef struct netthreadpool_node {
    uint32_t index;        /* its slot in the pool's node tables */
    uint32_t invitations;  /* outstanding ones, of both kinds */
    pthread_mutex_t mutex; /* guards invitations, flags and the routines */
    uint32_t flags;
    struct netthreadpool *pool;
    void *user_pointer; /* handed to every routine; the host's */
    netthreadpool_routine read_routine;
    netthreadpool_routine write_routine;
    netthreadpool_release_routine release_routine; /* NULL: nothing to release */
    uint32_t write_again;                          /* private */
} netthreadpool_node;

/* Bits of a thread's flags. */
enum { NETTHREADPOOL_THREAD_RUNNING = 1 };

/* A thread of the pool. Only the library makes these. */
typedef struct netthreadpool_thread {
    uint32_t index; /* its slot in the pool's thread tables */
    pthread_t thread_handle;
    uint32_t flags; /* NETTHREADPOOL_THREAD_RUNNING */
    struct netthreadpool *pool;
    pthread_mutex_t mutex;    /* guards flags and node */
    pthread_cond_t condition; /* the thread sleeps on it while it has no node */
    netthreadpool_node *node; /* the node that it is to serve, or NULL */
    pthread_cond_t returned;  /* private */
    uint32_t returning;       /* private */
    uint32_t awaited;         /* private */
    uint32_t signallers;      /* private */
} netthreadpool_thread;

/* The pool. The entry at index i of a table is NULL or the node (thread) whose index is i. The
 * counts start at 10 although 5 of each are started: entries 5 to 9 stay empty, and what is made on
 * demand begins with index 10. */
typedef struct netthreadpool {
    pthread_mutex_t node_lock; /* guards the node tables and node_count */
    netthreadpool_node *free_nodes[NETTHREADPOOL_MAX_NODES];
    netthreadpool_node *busy_nodes[NETTHREADPOOL_MAX_NODES];
    uint32_t start_nodes;        /* made by netthreadpool_start(): 5 */
    uint32_t node_count;         /* table entries in use: 10 at first */
    pthread_mutex_t thread_lock; /* guards the thread tables and thread_count */
    netthreadpool_thread *free_threads[NETTHREADPOOL_MAX_NODES];
    netthreadpool_thread *busy_threads[NETTHREADPOOL_MAX_NODES];
    uint32_t start_threads; /* made by netthreadpool_start(): 5 */
    uint32_t thread_count;  /* table entries in use: 10 at first */
} netthreadpool;

/* Thread safety, unless a function says otherwise: any thread, routines of the pool included.
 * netthreadpool_start(), _stop() and _free() are called by one thread at a time.
 *
 * A lock that cannot be made or released is fatal: one line on standard error,
 *     ./pools/threadpool/netthreadpool:<function>: <call>(): <text of errno> (<code>)
 * then exit(-1). One that cannot be taken is fatal as pthread_utils_mutex_lock() says. */

/* A new pool, initialised, not started; NULL when memory is out (logged as a warning). Release it
 * with netthreadpool_free(pool, 1). */
netthreadpool *netthreadpool_create(void);

/* Prepares zeroed storage of the caller's: makes both locks, sets the start counts to 5 and the
 * counts to 10. Returns 0 (also for NULL, which is ignored). */
int netthreadpool_init(netthreadpool *pool);

/* Ends a pool made by netthreadpool_create(). Does nothing unless both arguments are non-zero.
 * Otherwise it waits until every thread is idle, joins them all, frees the nodes that are still in
 * the tables (the release routine of a node that was taken and never invited is not called) and
 * then the record. Nothing of the pool is left.
 *
 * First the host stops inviting and ends its connections: it makes every read and write routine
 * return, by shutting the sockets down (shutdown(socket, SHUT_RDWR); not close(), which wakes
 * nobody). If it did not, the call waits until they return; connections go on meanwhile, answer
 * and are released as ever, and nothing is freed under them. Never call it from a routine of the
 * pool: it would wait for itself. Once it was called, no other thread of the host may touch the
 * pool or its nodes.
 *
 * Storage of the caller's is ended with netthreadpool_stop() and netthreadpool_node_destroy(). */
void netthreadpool_free(netthreadpool *pool, int free_record);

/* Makes nodes 0 to 4 and starts threads 0 to 4, all idle; an index that is taken already keeps what
 * it has. Returns 0; -1 for NULL and when a node cannot be made (the nodes made so far stay in the
 * tables); -1 when a thread cannot be started, after netthreadpool_stop(). */
int netthreadpool_start(netthreadpool *pool);

/* Ends the idle threads: wakes, joins and frees each. A thread that serves an invitation is not
 * stopped: it finishes its routine, goes back to the idle threads and is there for further
 * invitations, for another stop and for netthreadpool_free(). One whose routine has returned and
 * that is on its way back (it may be in its node's release routine) is waited for: once every
 * routine has returned, no thread of the pool is alive after this call. Nodes are not freed. An
 * invitation that comes later starts a new thread.
 * So the caller holds no lock that a release routine takes. Called from a release routine, it
 * leaves that thread itself alone. */
void netthreadpool_stop(netthreadpool *pool);

/* An idle node, now marked busy; its user pointer is NULL (unless a host has put the node back with
 * one) and its routines are those of its last connection. The lowest free index wins; when none is
 * free a node is made at index node_count (logged as a warning: "create node idx <n>"). The caller
 * gives it a user pointer and routines, then invites it; or puts it back with
 * netthreadpool_return_node(). NULL for a null pool, when memory is out, and at the limit, which is
 * logged as an error: "NETTHREADPOOL_MAX_NODES reached (10000)". */
netthreadpool_node *netthreadpool_get_node(netthreadpool *pool);

/* The same for threads: the lowest idle index, or a new thread at index thread_count ("create
 * thread idx <n>"). NULL when none can be had, and at the limit: "NETTHREADPOOL_MAX_THREADS reached
 * (2000)". For the invitations alone: nobody else can give a thread its work or put it back. */
netthreadpool_thread *netthreadpool_get_thread(netthreadpool *pool);

/* Puts a node that has no outstanding invitation back among the free ones. The pool does so itself
 * when the last invitation ends: a host needs this only for a node that it took and never invited,
 * or whose only invitation failed. User pointer and routines stay. Returns 0. */
int netthreadpool_return_node(netthreadpool *pool, netthreadpool_node *node);

/* A zeroed node with its index, pool and mutex, in no table. NULL for a null pool and when memory
 * is out (logged as a warning). */
netthreadpool_node *netthreadpool_node_create(netthreadpool *pool, unsigned index);

/* Takes the node out of its pool's tables and destroys its mutex (a failure is printed and passed
 * over); frees the record if `free_record` is non-zero. The node has no outstanding invitation and
 * its pool is still there. NULL is ignored. */
void netthreadpool_node_destroy(netthreadpool_node *node, int free_record);

/* A started thread with its index, in no table: asleep until it is given a node. It blocks SIGPIPE,
 * so that a routine that sends to a vanished peer gets EPIPE.
 * NULL for a null pool, when memory is out and when the thread cannot be started (both logged as
 * warnings). */
netthreadpool_thread *netthreadpool_thread_create(netthreadpool *pool, unsigned index);

/* Asks for the node's read (write) routine to run on a thread of the pool, and returns at once.
 *
 * Does nothing while the node is invited to the same kind already or its routine of that kind runs.
 * A write that is asked for while the write routine runs is so left to the running routine, which
 * takes along what it still sees; what is queued after its last look waits for the next invitation.
 * (simple_xml_proto_send() does better: after it, the routine runs once more.)
 * A finished node can be invited; no routine runs then.
 *
 * Returns 0, or -1 for NULL and when no thread can be had, which is logged as a warning:
 * "netthreadpool: cannot get free tread for read" ("... for write"). After a failed invitation the
 * node is as it was before.
 *
 * The node belongs to the caller's connection: a node without outstanding invitations is released
 * as soon as one has come and gone, so invite to read before anything else, and do not invite a
 * node once its release routine may have run. */
int netthreadpool_invite_read(netthreadpool_node *node);
int netthreadpool_invite_write(netthreadpool_node *node);

/* The end of a node's last invitation; an internal step. Called with the mutex of the thread's node
 * held: calls the release routine, clears the node's flags and user pointer, releases the mutex and
 * returns the node to its pool. Ignores NULL and a thread without a node. */
void _netthreadpool_node_remove(netthreadpool_thread *thread);

ZT_END_DECLS

#endif
