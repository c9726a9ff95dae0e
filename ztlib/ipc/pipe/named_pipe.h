/* Named pipes: a byte channel over FIFOs between two processes of one host.
 *
 *     pair mode, path /run/job
 *         side TX   write_fd ---> /run/job_tx ---> read_fd    side RX
 *         side TX   read_fd  <--- /run/job_rx <--- write_fd   side RX
 *
 *     single mode, path /run/job
 *         side RX   read_fd, by write() ---> /run/job ---> read_fd   side TX
 *
 * Opening a FIFO waits until its other end is opened too, so each side waits in named_pipe_open()
 * or named_pipe_init() until the other one comes, whichever is first.
 *
 * There is no framing: bytes arrive in order, in whatever pieces. What a write of at most PIPE_BUF
 * bytes sends is not torn apart by other writers.
 *
 * In single mode the descriptor of either side is `read_fd`, and `write_fd` stays 0. The side that
 * writes (NAMED_PIPE_RX) sends with write(pipe->read_fd, ...): named_pipe_write() would write to
 * descriptor 0.
 *
 * FIFOs that are missing are made with mode 0022 less the process's umask: with the usual umask of
 * 022 root alone can open them, with a umask of 0 every user can write into them. Make them
 * beforehand with the mode they are to have, or keep them in a directory of your own; a FIFO that
 * is there is used as it is. FIFOs are never removed.
 *
 * A channel is for exactly two processes. A third one that opens it joins in, and bytes go to
 * whichever reads first.
 *
 * When the partner has gone, reading returns 0 once everything is read, and writing raises SIGPIPE:
 * ignore it (signal(SIGPIPE, SIG_IGN)) to get -1 with EPIPE instead.
 *
 * A mutex that cannot be taken ends the process with 1 (pthread_utils.h); one that cannot be made
 * or released prints "./ipc/pipe/named_pipe:<function>: <call>(): <text of errno> (<code>)" on
 * standard error and ends it with exit(-1). */
#ifndef ZTLIB_IPC_PIPE_NAMED_PIPE_H
#define ZTLIB_IPC_PIPE_NAMED_PIPE_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <ztlib/decls.h>
#include <ztlib/pthread_types.h>

ZT_BEGIN_DECLS

typedef struct named_pipe {
    char path[512];        /* the FIFO (single mode), or what its two names begin with */
    uint32_t reserved;     /* zero */
    int32_t read_fd;       /* 0: not opened */
    int32_t write_fd;      /* 0: not opened */
    pthread_mutex_t mutex; /* the transport lock */
} named_pipe;

/* The low 8 bits of `flags`. Given both sides, NAMED_PIPE_TX is taken. */
enum {
    NAMED_PIPE_PAIR = 1, /* two FIFOs, <path>_rx and <path>_tx; without it one, <path> itself */
    NAMED_PIPE_RX = 2,   /* pair: reads <path>_tx, writes <path>_rx; single: opens for writing */
    NAMED_PIPE_TX = 4    /* pair: writes <path>_tx, reads <path>_rx; single: opens for reading */
};

/* A new pipe on this path, both ends met, or NULL with errno set: memory is out ("calloc()(): ..."
 * logged as a warning) or named_pipe_init() failed ("named_pipe_init()(): ..." logged as a warning;
 * what it had opened is closed); EINVAL for a NULL path. Release it with named_pipe_close(pipe,
 * 1). */
named_pipe *named_pipe_open(const char *path, int flags);

/* Prepares a pipe in the caller's own storage, zeroed but for `path`: makes the transport lock,
 * makes the FIFOs that are missing, <path>_rx first, and opens them, in pair mode <path>_tx first.
 * Descriptors are closed on exec.
 *
 * Returns 0, or -1 with errno set:
 *   ENAMETOOLONG  the path has more than 508 characters (pair), 511 (single); nothing is made
 *   EINVAL        `flags` has no side; the FIFOs are made by then. For NULL, too
 *   others        a FIFO cannot be made ("mkfifo()(): ...") or opened ("open()(): ...", both logged
 *                 as a warning); EINTR too, when a signal's handler interrupts the wait
 * A descriptor that was opened before the failure stays open in the record: named_pipe_close(pipe,
 * 0) releases it. */
int named_pipe_init(named_pipe *pipe, int flags);

/* Destroys the transport lock (a failure is printed on standard error and otherwise ignored),
 * closes the descriptors and sets them to 0, and frees the record when `free_self` is not 0. With
 * 0, named_pipe_init() may open it again on the same path. NULL is ignored. */
void named_pipe_close(named_pipe *pipe, int free_self);

/* One read() from `read_fd`, one write() to `write_fd`: their result as it is, with errno. Neither
 * is repeated when it is interrupted or does less than asked for. No lock; -1 with EINVAL for a
 * NULL pipe. */
ssize_t named_pipe_read(named_pipe *pipe, void *buffer, size_t length);
ssize_t named_pipe_write(named_pipe *pipe, const void *buffer, size_t length);

/* Take and release the transport lock, which threads that share a pipe hold around an exchange of
 * several parts, a request and its answer for instance. 0. */
int named_pipe_lock_transport(named_pipe *pipe);
int named_pipe_unlock_transport(named_pipe *pipe);

ZT_END_DECLS

#endif
