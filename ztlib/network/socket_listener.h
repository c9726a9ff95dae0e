/* A listening TCP/IPv4 socket and the thread that accepts on it.
 *
 * Each accepted socket is handed to one callback and belongs to it from then on: the listener
 * neither reads nor writes it, doesn't remember it and never closes it.
 *
 *     open --> accepting --socket_listener_close--> closed
 *                  \--accept() fails--> deaf (until socket_listener_close)
 *
 * The record goes once socket_listener_close() and socket_listener_wait() were both called, each
 * once and in either order, from any threads. Calling only one of them keeps it. */
#ifndef ZTLIB_NETWORK_SOCKET_LISTENER_H
#define ZTLIB_NETWORK_SOCKET_LISTENER_H

#include <stdint.h>
#include <sys/socket.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct socket_listener socket_listener;

/* Called on the accept thread for each connection, with all signals blocked. `fd` is the callback's
 * to close; `peer` is the peer's address as accept() left it, `peer_length` its length, both gone
 * when the callback returns. The next connection is accepted when the callback has returned. */
typedef void (*socket_listener_accept_cb)(void *user_data, int fd, struct sockaddr *peer,
                                          unsigned peer_length);

/* Listens on `host`:`port` and starts the accept thread.
 *
 * `host` is a dotted quad, never resolved; NULL for every local address. At most 127 characters of
 * it are remembered. `port` counts with its low 16 bits; 0 lets the system choose. `accept_cb` is
 * required.
 *
 * The socket has SO_REUSEADDR and a backlog of 100. Returns the listener, or NULL after one line on
 * standard error,
 *
 *     socket_listener_open: <call>(<host>:<port>): <text of errno>
 *
 * where call is socket, setsockopt, bind, listen or pthread_create, and a NULL host prints as
 * 0.0.0.0. A host that is no address fails as a bind that found no such address. A record that
 * cannot be allocated gives NULL without a line, and its socket stays open and listening. */
socket_listener *socket_listener_open(const char *host, int port,
                                      socket_listener_accept_cb accept_cb, void *user_data);

/* Stops listening. Called before socket_listener_wait(), it returns when the accept thread has
 * ended, a running callback included; called after it, it leaves that to the waiting thread. The
 * descriptor is closed as soon as the accept thread can no longer use it. NULL is ignored.
 *
 * A callback may close its own listener: the thread ends when the callback returns. */
void socket_listener_close(socket_listener *listener);

/* Called before socket_listener_close(), it returns when the accept thread has ended, which is
 * after the close or after a failed accept(). Called after it, it returns at once (or, when the
 * listener was closed by its own callback, when the thread has ended). NULL is ignored. */
void socket_listener_wait(socket_listener *listener);

/* The accept thread's body: `listener` is a socket_listener. Blocks all signals, then accepts until
 * the listener is closed or accept() fails for whatever reason, which is not reported. Signals that
 * cannot be blocked print "socket_listener_routine: sigprocmask: <text of errno>" and change
 * nothing else. Started by socket_listener_open() alone. */
void *socket_listener_routine(void *listener);

/* Frees the record and nothing else. NULL is ignored. An internal step. */
void _socket_listener_free(socket_listener *listener);

ZT_END_DECLS

#endif
