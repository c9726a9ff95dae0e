/* Start-up and tear-down of the library's one process-wide dependency, OpenSSL.
 *
 * A host calls zt_library_init() once before it uses a TLS, certificate, key or digest facility,
 * and zt_library_done() once at its end. Containers, buffers, documents and pools need neither. */
#ifndef ZTLIB_ZT_LIBRARY_H
#define ZTLIB_ZT_LIBRARY_H

#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* Loads OpenSSL's error strings, then initialises its SSL library.
 * Returns what the SSL initialisation returned: 1 on success. A further call repeats the
 * initialisation and does no harm. Thread safety: call it before other threads use OpenSSL. */
int zt_library_init(void);

/* Releases OpenSSL's global state: ciphers and digests, objects, ex-data, error strings.
 * Nothing of OpenSSL may be used afterwards. Thread safety: call it when no other thread is
 * left. */
void zt_library_done(void);

ZT_END_DECLS

#endif
