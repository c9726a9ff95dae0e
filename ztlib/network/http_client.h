/* The HTTP and HTTPS client: one request, one answer, one connection.
 *
 *     html_request        GET                                            host name, port 80
 *     http_post           POST of an XML text                            host name, port 80
 *     https_post_request  POST to the server that the library trusts     IPv4 address, any port
 *     https_get_request   the same without a body                        IPv4 address, any port
 *     https_connect       only the connection, for a protocol of the host's own
 *
 * Each request function connects, sends one HTTP/1.0 request, and reads until the answer is
 * complete (htmldoc_wrap() says when). It returns the answer, whatever its status, as a new
 * document that is the caller's to release; everything else is released and closed on every path.
 * There are no redirects, and there is no time-out: a silent peer blocks the caller.
 *
 * An answer without "Content-Length" is complete with the bytes that arrived together with the end
 * of its header, or with the header alone: ask servers that announce the length. An answer that the
 * peer cuts short is no answer: NULL. So is one that grows past its announced length, once the peer
 * has closed.
 *
 * The answers of html_request() and http_post() are copies (htmldoc_dublicate()): method is the
 * protocol version, url the status code, `protocol` empty, and the header lines are in the order of
 * the message. Those of the HTTPS functions are the parsed documents themselves: `protocol` is the
 * reason phrase, and the header lines are in reverse order.
 *
 * A signal that interrupts a call costs nothing, but for one that finds a plain request partly
 * sent: one send has to take it whole, so that request is given up. A peer that is gone raises no
 * signal. Functions that say so print on standard error. What htmldoc_wrap() has to say of an
 * answer that it refuses is printed too, and so is what the documents and buffers say when memory
 * is out, which gives NULL.
 *
 * Trust. The HTTPS functions know one server. It must show a certificate that chains to the root
 * that is compiled into the library, and whose SHA-1 fingerprint is the one that is compiled in;
 * the system's own trust is not asked. There is no host name check, and expired certificates are
 * accepted. Root and fingerprint are chosen when the library is built; a library that was built
 * without a choice trusts nobody.
 *
 * Thread safety: any thread, any number at once; nothing is shared between calls. */
#ifndef ZTLIB_NETWORK_HTTP_CLIENT_H
#define ZTLIB_NETWORK_HTTP_CLIENT_H

#include <ztlib/decls.h>
#include <ztlib/htmldoc/htmldoc.h>

ZT_BEGIN_DECLS

/* OpenSSL's types, declared as <openssl/ssl.h> does, which only those who use them need. */
typedef struct ssl_st SSL;
typedef struct x509_store_ctx_st X509_STORE_CTX;

/* --- HTTP ------------------------------------------------------------------------------------- */

/* GETs `path` from `host`, a name or an address; `port` is ignored, it is always 80. Only the first
 * address of the host is tried. Both texts are sent as they are:
 *
 *     GET <path> HTTP/1.0\r\n
 *     Host:<host>\r\n
 *     \r\n
 *     \r\n
 *
 * Returns the answer (html_request_free()), or NULL: the name did not resolve ("failed to resolve:
 * <host>, <text of errno>", which need not be what the resolver met) or has no address ("failed to
 * connect to <host>"); the connection failed, the request did not go out with one send, the answer
 * was refused or cut short, memory is out, or an argument is NULL. */
htmldoc *html_request(const char *host, unsigned short port, const char *path);

/* Releases an answer. NULL is ignored. */
void html_request_free(htmldoc *doc);

/* POSTs the `body_len` bytes of `body` to `path` on `host`, as application/xml; `port` is ignored,
 * it is always 80. The addresses of the host are tried in order. The request is
 *
 *     POST <path> HTTP/1.0\r\n
 *     Content-type: application/xml\r\n
 *     Content-Length: <body_len>\r\n
 *     \r\n
 *     <body>
 *
 * `body` may be NULL when there are no bytes. Returns the answer (html_request_free()), or NULL
 * without a message of its own: as in html_request(), or the body has more than 2^31 - 1 bytes. */
htmldoc *http_post(const char *host, int port, const char *path, const char *body,
                   unsigned body_len);

/* Connects to `host`, port 80 (`port` is ignored), at the first of its addresses that lets us.
 * Returns the descriptor, the caller's to close; -1 when the name does not resolve or is NULL, -2
 * when a socket cannot be made, -3 when no address could be connected to. */
int _http_post_get_socket(const char *host, int port);

/* --- HTTPS ------------------------------------------------------------------------------------ */

/* Connects to the trusted server at `ip`, a dotted quad that is never resolved, and `port`, its low
 * 16 bits. TLS 1.2 or newer.
 *
 * Returns the handle of a blocking connection, or NULL. Then OpenSSL's error queue is printed, one
 * line an error, behind "not norv cert !" when it was the fingerprint that differs. (A socket that
 * cannot be made or connected, or that the server resets, leaves the queue empty.)
 *
 * To end a connection that was made here:
 *
 *     int fd = SSL_get_fd(ssl);
 *     https_close(ssl);
 *     close(fd);
 *
 * Whoever reads from and writes to the handle itself sees to it that SIGPIPE is ignored. */
SSL *https_connect(const char *ip, int port);

/* Says goodbye to the peer without waiting for an answer, and releases the handle. The socket's
 * descriptor stays open. NULL is ignored. */
void https_close(SSL *ssl);

/* POSTs the `body_len` bytes of `body` to `path` on the trusted server; `ip` and `port` as in
 * https_connect(). The request is
 *
 *     POST <path> HTTP/1.0\r\n
 *     Content-Length: <body_len>\r\n
 *     \r\n
 *     <body>
 *
 * `body` may be NULL when there are no bytes. The answer is also printed, by htmldoc_dump(). One
 * that htmldoc_wrap() refuses is read until the peer closes, and said to be refused with each piece
 * of at most 1,500 bytes (unless it begins with a line's end).
 *
 * Returns the answer (https_free_request()), or NULL: no connection (https_connect() has printed
 * why), the request did not go out, the answer was refused or cut short, memory is out, the body
 * has more than 2^31 - 1 bytes, or an argument is NULL. OpenSSL's error queue is empty then. */
htmldoc *https_post_request(const char *ip, int port, const char *path, const void *body,
                            unsigned body_len);

/* As https_post_request(), without a body and without "Content-Length". The request is a POST line
 * all the same:
 *
 *     POST <path> HTTP/1.0\r\n
 *     \r\n
 */
htmldoc *https_get_request(const char *ip, int port, const char *path);

/* Releases an answer. NULL is ignored. */
void https_free_request(htmldoc *doc);

/* What https_connect() installs as verification callback: OpenSSL calls it for each certificate of
 * the chain, with 1, or with 0 and an error in `ctx`. Returns 1 to accept.
 *
 * An error deeper than 5 becomes X509_V_ERR_CERT_CHAIN_TOO_LONG and is refused. Otherwise
 * X509_V_ERR_CERT_HAS_EXPIRED and X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD are accepted, and
 * everything else is as OpenSSL found it. 0 for a NULL `ctx`. */
int cert_verify_callback(int preverify_ok, X509_STORE_CTX *ctx);

ZT_END_DECLS

#endif
