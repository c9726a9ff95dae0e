/* WebSocket (RFC 6455), the server's side: the answer to the opening handshake, and frames.
 *
 * Three functions without state; connections, buffers and the order of calls are the caller's.
 * "wrap" decodes a frame that was received, "unwrap" builds one to send.
 *
 *      byte 0           byte 1             2 or 8 bytes           4 bytes
 *     +-----+--------+------+-----------+----------------------+--------+------------- - -
 *     | FIN | opcode | MASK | length    | longer length,       | key,   | payload
 *     |     |        |      | 0 to 127  | big-endian:          | where  |
 *     |     |        |      |           | 126: 2, 127: 8 bytes | masked |
 *     +-----+--------+------+-----------+----------------------+--------+------------- - -
 *        7     3..0     7       6..0
 *
 * Clients mask every frame: byte i of the payload is sent XOR byte i % 4 of the key. Servers mask
 * none.
 *
 * Thread safety: nothing is shared between calls. Nothing is printed or logged; where a call fails
 * in OpenSSL, that one's error queue of the calling thread tells more. */
#ifndef ZTLIB_NETWORK_WEBSOCKET_H
#define ZTLIB_NETWORK_WEBSOCKET_H

#include <ztlib/decls.h>
#include <ztlib/htmldoc/htmldoc.h>

ZT_BEGIN_DECLS

/* Fills `response` with the answer to the opening handshake, for htmldoc_unwrap() with is_request
 * false:
 *
 *     HTTP/1.1 101 Switching Protocols
 *     Upgrade: websocket
 *     Connection: Upgrade
 *     Sec-WebSocket-Accept: <base64 of the SHA-1 of the key and RFC 6455's GUID>
 *
 * The three options stand behind those that the response has. Its url is not released; one whose
 * url_length is 0 is the caller's, and is NULL afterwards.
 * Of the request only the option "Sec-WebSocket-Key" is looked at, spelled so: method, version,
 * "Upgrade" and origin are the caller's to judge.
 *
 * Returns 0; 1 when the key is missing, empty or longer than 1,463 bytes; -1 when an argument is
 * NULL, memory is out or OpenSSL has no SHA-1. Unless it returns 0, the response is as it was. */
int websocket_handshake(htmldoc *request, htmldoc *response);

/* Decodes the one frame that the `len` bytes of `data` are.
 *
 * The payload is unmasked in `data`, in place, and copied to `payload` with a zero byte behind it:
 * there must be room for one byte more than the frame's payload, `len` bytes always do.
 * *payload_len is its length, *frame_len that of the whole frame. `payload` may overlap `data` in
 * any way (be data itself, say); what `payload` is given then stands.
 *
 * Text, binary, continuation, ping and pong frames are decoded alike, whatever FIN says: look at
 * data[0]. An unmasked frame of up to 125 bytes is read as if its header were 3 bytes long: its
 * payload begins at data[3], and a frame as RFC 6455 has it, as websocket_unwrap() builds it too,
 * gives 8. No client may send one: refuse what is unmasked by its data[1], below 128.
 *
 * Returns 0, or, with `data` and all results untouched:
 *
 *     -8   a close frame, whatever its length and whatever follows
 *      1   fewer than 2 bytes
 *      2   a 16-bit length, fewer than 4 bytes      3   ... and masked, fewer than 8
 *      4   a 64-bit length, fewer than 10 bytes     5   ... and masked, fewer than 14
 *      6   a short length and masked, fewer than 6 bytes
 *      7   more bytes than the frame has
 *      8   fewer bytes than the frame has, or than its length says in 64 bits
 *     -1   `data` is NULL, from 2 bytes on; another argument is NULL and the frame is whole
 *
 * 1 to 6 and 8 ask for more bytes. A peer can announce any length: bound what is collected. */
int websocket_wrap(unsigned char *data, int len, void *payload, unsigned *payload_len,
                   unsigned *frame_len);

/* Builds an unmasked text frame, with FIN, of the `len` bytes of `payload` in `out`, which has room
 * for len + 4 bytes, and stores the frame's length in *out_len. `payload` may overlap `out` in any
 * way.
 *
 * The header is 2 bytes for up to 125 bytes of payload, 4 for more. The 16-bit length's first byte
 * is always 0 and its second the low 8 bits of `len`: only payloads of up to 255 bytes are
 * announced with their true length, larger ones with their length modulo 256.
 *
 * Returns 0. Nothing is built, and *out_len (unless NULL) is 0, when an argument is NULL (a NULL
 * payload of 0 bytes is an empty one) or `len` is negative. */
int websocket_unwrap(const void *payload, int len, unsigned char *out, unsigned *out_len);

/* Encodes in base64, in lines of 64 characters with a newline between them and none at the end.
 * Returns a new terminated text, to be released with free(), empty for no bytes; NULL when memory
 * is out, for NULL with a length, and for more bytes than OpenSSL takes (some 1.5 * 10^9). */
char *_websocket_base64encode(const void *data, unsigned len);

ZT_END_DECLS

#endif
