/* The net buffer: a byte buffer behind a mutex, with a wake-up for the one thread that empties it.
 *
 *     reader thread                          worker thread
 *     -------------                          -------------
 *     net_buffer_add()  --- bytes --->       net_buffer_wait()
 *                       --- post  --->       takes whole frames from the front
 *                                            net_buffer_remove()
 *
 * Wait and post are an event with one slot: a post stays until a wait consumes it, two posts in a
 * row are one, and a buffer that is marked free fails every wait from then on. Only a buffer that
 * was made waitable can be waited on; posting to another does nothing.
 *
 * Thread safety: any number of threads add, remove and reset; one thread waits (the wake-up is for
 * one: a second waiter may sleep until the next post). Every int function gives -2 for a null
 * buffer. "Memory is out" also means a null source of more than 0 bytes, and a size that does not
 * fit its 32 bits or 2^31; a failed growth prints its line on standard error, as buffer.h says.
 *
 * A mutex that cannot be taken ends the process through pthread_utils_mutex_lock(); one that cannot
 * be made or released prints
 *     ./buffers/net_buffer:<function>: <call>(): <text of errno> (<number>)
 * on standard error and ends it with exit(-1); one that cannot be destroyed prints it and the call
 * goes on. The number is the call's result for pthread_mutex_init and pthread_mutex_destroy, and
 * errno for pthread_mutex_unlock. */
#ifndef ZTLIB_BUFFERS_NET_BUFFER_H
#define ZTLIB_BUFFERS_NET_BUFFER_H

#include <pthread.h>
#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct net_buffer {
    pthread_mutex_t mutex;    /* guards every field below */
    pthread_cond_t condition; /* signalled by posts; only a waitable buffer has one */
    char *data;               /* with the two below a byte buffer, see buffer.h */
    uint32_t capacity;
    uint32_t length;
    uint32_t flags; /* NET_BUFFER_... */
} net_buffer;

enum {
    NET_BUFFER_WAITABLE = 1, /* the condition exists */
    NET_BUFFER_FREED = 2,    /* torn down, or marked so: every wait fails */
    NET_BUFFER_POSTED = 4,   /* posted since the last wait returned */
    NET_BUFFER_WAITING = 8   /* a thread is in the wait */
    /* the bits from 256 on are the buffer's own */
};

/* A new buffer with room for 2048 bytes, waitable if `waitable` is non-zero. NULL when memory is
 * out (logged as a warning). Release it with net_buffer_free(b, 1). */
net_buffer *net_buffer_create(int waitable);

/* The same in the caller's storage. Returns 0, or -1 when memory is out (logged as a warning) or
 * the condition cannot be made: nothing is left to release then. */
int net_buffer_init(net_buffer *b, int waitable);

/* Fails every thread that waits, and returns only once all have left with -1; then
 * releases the bytes, the mutex and the condition, and the record too if `free_record` is non-zero.
 * A record that stays fails every later wait with -1; nothing else may be done with it but
 * net_buffer_init(). A mutex that cannot be destroyed is printed as above, and the function goes
 * on. NULL is ignored. */
void net_buffer_free(net_buffer *b, int free_record);

/* Lets the thread that waits, and every wait from now on, return -1. Bytes stay. Returns 0. */
int net_buffer_mark_free(net_buffer *b);

/* Waits for a post, or consumes the one that was made before. Returns 0, or -1 once the buffer is
 * freed or marked free, and at once for a buffer that is not waitable. */
int net_buffer_wait(net_buffer *b);

/* Wakes the thread that waits, or the next that does. Returns 0; at once, without locking, when the
 * buffer is not waitable. */
int net_buffer_post(net_buffer *b);

/* Appends `n` bytes and posts. Returns 0, or -1 when memory is out; it posts then too. */
int net_buffer_add(net_buffer *b, const void *src, unsigned n);

/* Two pieces with no other writer's bytes between them: begin appends the first and keeps the mutex
 * locked, end appends the second, unlocks and posts. A begin is always followed by an end on the
 * same thread, also when it failed, unless the buffer was null. Both return 0, or -1 when memory is
 * out for their own piece. */
int net_buffer_begin_add(net_buffer *b, const void *src, unsigned n);
int net_buffer_end_add(net_buffer *b, const void *src, unsigned n);

/* Drops the first `n` bytes. Returns 0, or -3, with nothing changed, when there are fewer and
 * for a count of 2^31 or more. */
int net_buffer_remove(net_buffer *b, unsigned n);

/* Drops all bytes; the room stays. Returns 0. */
int net_buffer_reset(net_buffer *b);

/* Prints the buffer on standard error without locking: its address, its capacity (under the word
 * "len") and each byte as a number from 0 to 255. NULL is ignored. */
void net_buffer_dump(net_buffer *b);

/* The steps, for a caller that holds the mutex. None of them posts.
 * Add and make room return 0, or -1 when memory is out; remove returns as net_buffer_remove(). */
int _net_buffer_add(net_buffer *b, const void *src, unsigned n);
int _net_buffer_make_room(net_buffer *b, unsigned n);
int _net_buffer_remove(net_buffer *b, unsigned n);

ZT_END_DECLS

#endif
