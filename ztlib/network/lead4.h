/* Length framing: each message on a byte stream stands behind a 4-byte length.
 *
 *     0               4                          N
 *     +---+---+---+---+------------- - - --------+
 *     |   N, big-endian   payload, N - 4 bytes   |
 *     +---+---+---+---+------------- - - --------+
 *
 * N counts the whole frame, the length's own 4 bytes included. "unwrap" builds a frame to send,
 * "wrap" takes one out of received bytes; what is received of an incomplete frame stays with the
 * caller.
 *
 * An empty payload (N = 4) makes both extractors return 0, which is also what they return when more
 * bytes are needed: look at the length to tell the two apart.
 *
 * Thread safety: nothing is shared between calls. */
#ifndef ZTLIB_NETWORK_LEAD4_H
#define ZTLIB_NETWORK_LEAD4_H

#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* Builds the frame of `n` payload bytes in `out`, which has room for `out_size` bytes.
 * Returns the frame's length, n + 4, or -1 when it does not fit, `n` is above 2^31 - 5, or an
 * argument is NULL. */
int lead4_unwrap(const void *payload, unsigned n, unsigned char *out, int out_size);

/* Copies the payload of the first frame in `data`, of which `len` bytes are there, to `out`. No
 * terminator is written.
 * Returns the payload's length (the caller goes on behind that many bytes and 4 more), 0 when more
 * bytes are needed, or -1 when the payload is longer than `out_size`, the frame says less than 4,
 * or an argument is NULL. */
int lead4_wrap(const unsigned char *data, int len, void *out, unsigned out_size);

/* As lead4_wrap(), but only points *payload at the payload within `data` and stores its length in
 * *payload_len (unless NULL). Nothing is copied and no length is judged: a frame that says less
 * than 4 gives a length that wrapped around below zero, so check *payload_len against `len` - 4
 * first. Returns the payload's length, 0 when more bytes are needed (nothing is stored then), -1
 * for NULL. */
int lead4_wrap_ptr(const unsigned char *data, int len, const unsigned char **payload,
                   unsigned *payload_len);

ZT_END_DECLS

#endif
