/* A TCP/IPv4 connection to one server that is made again whenever it is lost.
 *
 *     socket_client_send() --> send buffer --> send thread ----> server
 *     on_receive, on_process <---- receive thread <------------- server
 *                                  connect thread: makes the connection
 *
 *     starting --> connecting --> connected --loss--> disconnected --> connecting ...
 *                  every 5 s      on_connect          on_disconnect
 *
 * A data thread (receive, send) that finds the connection lost parks: it waits for the next one.
 * When both have parked, on_disconnect is called and the connect thread tries, every 5 seconds and
 * for as long as it takes. At the start both threads park before the first connection:
 * on_disconnect is called once before the first on_connect. From then on the two alternate,
 * socket_client_close() included: a close while connected ends that connection as a loss does.
 *
 * Each new connection starts with both buffers empty: what was queued before it is dropped. */
#ifndef ZTLIB_NETWORK_SOCKET_CLIENT_SOCKET_CLIENT_H
#define ZTLIB_NETWORK_SOCKET_CLIENT_SOCKET_CLIENT_H

#include <pthread.h>
#include <stdint.h>
#include <ztlib/buffers/net_buffer.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

struct socket_client;

/* Called with the client's mutex held: on_connect on the connect thread, on_disconnect on the data
 * thread that parked second. They may call socket_client_send() and nothing else of this header. */
typedef void (*socket_client_state_cb)(struct socket_client *client);

/* Called on the receive thread with what one recv() gave, at most 1,524 bytes. Above 0: the bytes
 * are appended to `receive_buffer` and on_process is called; where memory is out for them, the
 * connection is dropped instead. 0: they are dropped. Negative: the connection is dropped.
 *
 * Bytes that the system had already received when the connection was lost are still delivered,
 * before on_disconnect. */
typedef int (*socket_client_receive_cb)(struct socket_client *client, const void *bytes, int count);

/* Called on the receive thread after bytes were appended. It takes what it needs out of
 * `receive_buffer` (net_buffer_remove). Negative: the connection is dropped. */
typedef int (*socket_client_process_cb)(struct socket_client *client);

typedef struct socket_client {
    int32_t socket_descriptor; /* 0: no connection */
    char *host;                /* the client's own copy */
    uint16_t port;
    uint8_t running_flag;      /* 1 until closed or given up */
    net_buffer receive_buffer; /* not waitable */
    net_buffer send_buffer;    /* waitable: the send thread waits. Only the client resets or marks it. */
    pthread_t receive_thread;
    pthread_t send_thread;
    pthread_t connect_thread;
    /* Guards socket_descriptor, connected_flag, parked_count, last_error. The connect thread holds
     * it while it tries, its pauses of 5 seconds included: who takes it waits until a connection
     * succeeded. */
    pthread_mutex_t mutex;
    pthread_cond_t condition; /* broadcast on every change of the connection's state */
    uint8_t connected_flag;
    uint8_t parked_count; /* data threads that noticed the loss of the connection */
    int32_t last_error;   /* errno after the last connect(); 0 when that succeeded */
    void *user_data;      /* the callbacks' own */
    socket_client_state_cb on_disconnect;
    socket_client_state_cb on_connect;
    socket_client_receive_cb on_receive;
    socket_client_process_cb on_process;

    /* Private. */
    uint32_t connections;    /* made so far */
    int32_t lost_descriptor; /* shut down, and open while a data thread may use its number */
    int32_t waiters;         /* threads in socket_client_wait() */
    uint8_t threads;         /* which of the three were created */
    uint8_t join_claimed;    /* somebody joins the connect thread, or has */
    uint8_t joined;
} socket_client;

/* Starts a client of `host` (a dotted quad, never resolved; a text that is none fails to connect
 * like an unreachable server) at `port` (its low 16 bits). Host and all four callbacks are
 * required.
 *
 * Returns the client, before it is connected, or NULL when memory is out or a required argument is
 * NULL. Threads that cannot be created are not reported: such a client never connects and is closed
 * like any other. Mind the order: connect before disconnect.
 *
 * A mutex that cannot be made ends the process with exit(-1) after a line on standard error,
 *
 *     ./network/socket_client/socket_client:socket_client_open: pthread_mutex_init(): <text> (<code>)
 *
 * and so does, with its function and call, one that cannot be released, in any of the functions
 * below. */
socket_client *socket_client_open(const char *host, int port, void *user_data,
                                  socket_client_state_cb on_connect,
                                  socket_client_state_cb on_disconnect,
                                  socket_client_receive_cb on_receive,
                                  socket_client_process_cb on_process);

/* Queues `n` bytes, connected or not, in whole and in order. Returns what net_buffer_add() returns:
 * 0, -1 when memory is out, -2 for a NULL client. Any thread, callbacks included.
 *
 * Sent bytes leave `send_buffer` together, when much of it or all of it is sent: until then its
 * length includes them. */
int socket_client_send(socket_client *client, const void *data, unsigned n);

/* Returns when the connect thread has ended: the client was closed, or no socket could be made
 * (then socket_client_close() is still due). Returns 0, or the error of pthread_join(): EDEADLK on
 * the connect thread itself, ESRCH when that thread could not be created. 0 for a NULL client. Any
 * number of threads, before or while socket_client_close() runs, but on no other callback's
 * thread. */
int socket_client_wait(socket_client *client);

/* Ends the connection and all three threads, releases the waiting ones and frees the client. NULL
 * is ignored. Not from a callback, whose thread it would wait for.
 *
 * While the client is trying to connect, this returns only after a connection succeeded, or no
 * socket could be made: an attempt is never given up. A mutex that cannot be destroyed is printed
 * as above and otherwise ignored. */
void socket_client_close(socket_client *client);

/* The steps, started by socket_client_open() alone; `client` is a socket_client.
 *
 * A failing socket() makes the connect thread print
 *     _socket_client_connect_routine: socket(): <text of errno>
 * on standard error, clear the running flag and end, and the data threads with it. */
void _socket_client_wait_connection(socket_client *client);
void *_socket_client_connect_routine(void *client);
void *_socket_client_rx_routine(void *client);
void *_socket_client_tx_routine(void *client);

ZT_END_DECLS

#endif
