/* A thread that calls a read function over and over: the place where a host reads from a channel (a
 * named pipe, say), decodes answers and hands them on.
 *
 *     opened --start--> running --stop, or read_function returns non-zero--> ended --start--> ...
 *
 * The read function is expected to block in its read, and to return often enough for a stop to be
 * seen: nothing interrupts it. It ends its own thread by returning non-zero, and neither stops nor
 * closes the reader itself.
 *
 * Whoever clears `running` first owns the thread's end. A stop that does so joins the thread. A
 * thread that ended by its read function's result detaches itself, without touching the record
 * again, which may be freed by then. Either way nothing has to be joined twice and nothing leaks.
 *
 * One thread at a time starts, stops and closes a reader. Only these functions write `running`. */
#ifndef ZTLIB_IPC_ASYNC_IPC_ASYNC_READER_H
#define ZTLIB_IPC_ASYNC_IPC_ASYNC_READER_H

#include <pthread.h>
#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* One reading step. Non-zero ends the reader. */
typedef int32_t (*ipc_async_read_function)(void *context);

typedef struct ipc_async_reader {
    uint8_t running;  /* 1: the thread is to keep going */
    pthread_t thread; /* of the last start; 0 when that failed */
    void *context;    /* passed to read_function */
    ipc_async_read_function read_function;
} ipc_async_reader;

/* A new reader, not started, or NULL: memory is out ("calloc()(): ..." logged as a warning) or
 * `read_function` is NULL ("ipc_async_reader_init()(): ..." logged as a warning). Release it with
 * ipc_async_reader_close(reader, 1). */
ipc_async_reader *ipc_async_reader_open(void *context, ipc_async_read_function read_function);

/* Prepares a reader in the caller's own storage. Returns 0; -1 with EINVAL when `reader` or
 * `read_function` is NULL. */
int ipc_async_reader_init(ipc_async_reader *reader, void *context,
                          ipc_async_read_function read_function);

/* Sets `running` and starts the thread. Returns 0, or -1 when it cannot be started
 * ("pthread_create()(): ..." logged as a warning): `running` stays 1 all the same, and start may be
 * called again. A reader that runs stays as it is: 0. -1 for NULL. */
int ipc_async_reader_start(ipc_async_reader *reader);

/* Clears `running` and waits until the read function has returned and the thread has ended. Returns
 * what pthread_join() returned, 0 when there was nothing to end: never started, not startable,
 * ended by itself or stopped already; 0 for NULL. */
int ipc_async_reader_stop(ipc_async_reader *reader);

/* Stops the reader if it runs, and frees the record when `free_self` is not 0. NULL is ignored. */
void ipc_async_reader_close(ipc_async_reader *reader, int free_self);

/* The thread's body: `reader` is an ipc_async_reader. Started by ipc_async_reader_start(). */
void *ipc_async_reader_routine(void *reader);

ZT_END_DECLS

#endif
