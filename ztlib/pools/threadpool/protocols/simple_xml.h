/* The simple XML protocol: one XML document a message, behind its length.
 *
 *     0        4                        length
 *     +--------+---------------------------+
 *     | length | payload: XML text         |    length: big-endian, counts the whole frame
 *     +--------+---------------------------+
 *
 * The payload is the text as xmldoc_save() writes it: the declaration line, ending in CR LF, when
 * the document has a declaration, then the root element on one line. No terminating zero byte. A
 * document without a root goes out as a frame of length 4.
 *
 * On a server the protocol serves a node of the net thread pool: its read routine takes frames from
 * the socket, parses them and hands each document to the host's callback; the host answers with
 * simple_xml_proto_send(), from the callback or from anywhere else, and the write routine sends
 * what is queued. A client without a pool uses simple_xml_proto_sock_send() and
 * simple_xml_proto_sock_recv().
 *
 * A server's connection:
 *
 *     netthreadpool_node *node = netthreadpool_get_node(pool);
 *     simple_xml_proto *connection = simple_xml_proto_create(node, context, socket, answer);
 *     node->release_routine = release;
 *     netthreadpool_invite_read(node);
 *
 *     void release(void *user_pointer)
 *     {
 *         simple_xml_proto *connection = user_pointer;
 *         shutdown(connection->socket, SHUT_RDWR);
 *         close(connection->socket);
 *         simple_xml_proto_destroy(connection);
 *         free(connection);
 *     }
 *
 * Lifetime. The connection belongs to the pool from its first invitation until the release routine
 * is called, exactly once, when neither routine runs any more; the record, its socket and its
 * buffers must live until then. The host ends a connection by shutdown(socket, SHUT_RDWR), which
 * ends both routines, and never by close(): the release routine closes. It runs with the node's
 * mutex held: it sends nothing on the connection and takes no lock under which others send.
 * If the invitation to read fails (-1), nothing was started: the host undoes the steps itself, with
 * the body of its release routine, node->user_pointer = NULL and netthreadpool_return_node().
 *
 * The callback's connection is alive for the length of the callback. A host that sends from other
 * threads keeps the record alive for them with a count of its own: the release routine then closes
 * the socket and gives up its reference, and whoever gives up the last destroys and frees the
 * record. A send to a connection that was released, on a record and in a pool that are still alive,
 * queues its frame and does nothing else: it never reaches the node's next connection.
 *
 * An answer goes out as long as the connection's reading has not ended. What is queued when it ends
 * (by a callback's result, or because the peer closed or half-closed) is sent only if the write
 * routine runs already; a peer that wants its last answer keeps its side open until it has it.
 *
 * A frame length below 4 or above SIMPLE_XML_MAX_FRAME, and more than that (and one chunk) of
 * received bytes waiting, end a connection with a line on standard error and -1, before anything is
 * allocated. */
#ifndef ZTLIB_POOLS_THREADPOOL_PROTOCOLS_SIMPLE_XML_H
#define ZTLIB_POOLS_THREADPOOL_PROTOCOLS_SIMPLE_XML_H

#include <stdint.h>
#include <ztlib/buffers/net_buffer.h>
#include <ztlib/decls.h>
#include <ztlib/pools/threadpool/netthreadpool.h>
#include <ztlib/xmldoc/xmldoc.h>

ZT_BEGIN_DECLS

/* The longest frame that is received, its 4 length bytes included. Sending has no bound of its own:
 * the receiver of a longer one ends the connection. */
enum { SIMPLE_XML_MAX_FRAME = 16 * 1024 * 1024 };

/* Handles one document, on a thread of the pool. The document is the library's and gone after the
 * call, unless the result is not 0: then its nodes are the callback's (xmldoc_free(document, 0)
 * during the call, or its root and declaration taken over), and the connection's reading ends. */
typedef int (*simple_xml_callback)(void *user_context, xmldoc *document);

/* A server's connection. Only the library makes these. */
typedef struct simple_xml_proto {
    int socket;
    netthreadpool_node *node; /* serves it */
    void *user_context;       /* handed to the callback; the host's */
    net_buffer input_buffer;  /* received, not yet consumed; the reader's alone */
    net_buffer output_buffer; /* framed, not yet sent; senders on any thread */
    simple_xml_callback callback;
} simple_xml_proto;

/* A connection on a node from netthreadpool_get_node(): stores itself as the node's user pointer
 * and sets the node's read and write routines to the two below. The release routine is the caller's
 * to set, before the first invitation. The socket stays the caller's.
 * NULL for a null node or callback, and when memory is out (logged as a warning); the node is then
 * as it was. */
simple_xml_proto *simple_xml_proto_create(netthreadpool_node *node, void *user_context, int socket,
                                          simple_xml_callback callback);

/* Frees both buffers; not the record, which the caller frees, and not the socket. NULL is
 * ignored. */
void simple_xml_proto_destroy(simple_xml_proto *connection);

/* Queues the document as one frame and invites the node to write; the document stays the caller's.
 * Never blocks on the socket. Frames of several threads do not mix, and one that was queued while
 * the write routine runs is sent by it before it ends: no answer waits for the next one.
 * Returns 0: the frame is queued whole (also when the invitation failed for want of a thread; then
 * it goes out with the next). -1: nothing was queued, because memory is out or an argument is NULL.
 * Thread safety: any thread, while the record and its pool live. The output buffer is the
 * protocol's: a host may look at its length under its mutex, and does not reset it. */
int simple_xml_proto_send(simple_xml_proto *connection, xmldoc *document);

/* Appends the document as one frame to any net buffer; no invitation. Results as above. */
int simple_xml_proto_netbuff_send(net_buffer *sink, xmldoc *document);

/* Sends the document as one frame on a plain socket, and blocks until it is sent: the 4 length
 * bytes first, then the text. On a TCP socket set TCP_NODELAY, or the text waits for the peer to
 * acknowledge the length. SIGPIPE is blocked meanwhile on the calling thread. Returns 0; -1 when a
 * send returned 0 or failed (errno tells; a part may have been sent), when memory is out or the
 * document is NULL. */
int simple_xml_proto_sock_send(int socket, xmldoc *document);

/* Receives one document from a plain socket, and blocks until it is whole. All bytes received by
 * then are parsed, those behind the frame included: the peer sends one frame and waits for its
 * answer. Returns
 *    0  with *document set: a new document, released with xmldoc_free(*document, 1)
 *    0  with *document untouched: the peer closed first
 *   -1  the receive failed, memory is out, `document` is NULL, or the length is out of bounds (printed
 *       on standard error)
 *   -2  the text does not parse. *document then holds the address of a document that is freed
 *       already: it must not be used. */
int simple_xml_proto_sock_recv(int socket, xmldoc **document);

/* The node's routines; `connection` is the simple_xml_proto. The pool runs them.
 *
 * The read routine receives chunks of up to 1,600 bytes until the connection ends. Each chunk
 * completes at most one frame: when a chunk brings two, the second is looked at only after the next
 * one has come, so a peer waits for each answer before it sends on, or keeps sending. A frame of
 * length 4 is taken only once a further byte is there. Lines on standard error:
 *     READ wait for <frame length> bytes so far <bytes held>      5 bytes or more, not the whole frame
 *     failed parse xml <code> !!!!!!!!!!!!!!!!!                   and the payload; the frame is
 *                                                                 skipped, the connection goes on
 *     ERROR processing_xml : <result>                             the callback's; the reading ends
 * Returns -1 if the last receive or callback result was below 1 (the peer closed, say), else 0; -1
 * when received bytes cannot be stored or a bound is exceeded. A document that the parser has no
 * memory for is printed and skipped like one that does not parse (code -32).
 *
 * The write routine sends what is queued in pieces of up to 1,460 bytes. Sent bytes are removed
 * together, at the latest before it returns. Returns 0 when nothing is left or a send returned 0,
 * -1 when a send failed.
 *
 * Both use no flags in recv() and send(): a caller other than the pool, whose threads block it,
 * sees to SIGPIPE itself. NULL gives -1. */
int simple_xml_routine_node_pf_read(void *connection);
int simple_xml_routine_node_pf_write(void *connection);

ZT_END_DECLS

#endif
