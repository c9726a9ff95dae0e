/* The second HTTP message document: as htmldoc.h, without an input buffer. Its parsers work on the
 * text of each call, and the caller keeps what is incomplete.
 *
 * Every function does what its namesake in htmldoc.h does and reports under its own name; what
 * differs is said here. There is no create function: the caller allocates the record. Lists are the
 * same htmldoc_option lists.
 *
 * Thread safety: a document belongs to one thread at a time; nothing is shared between
 * documents. */
#ifndef ZTLIB_HTMLDOC_HTTP_H
#define ZTLIB_HTMLDOC_HTTP_H

#include <stdint.h>
#include <ztlib/buffers/buffer.h>
#include <ztlib/decls.h>
#include <ztlib/htmldoc/htmldoc.h>

ZT_BEGIN_DECLS

typedef struct http_document {
    char method[HTMLDOC_WORD_LENGTH + 1];
    char *url;           /* owned where url_length is not 0 */
    uint16_t url_length; /* in a response to be rendered: the status code */
    char protocol[HTMLDOC_WORD_LENGTH + 1];
    const char *host;            /* the value of the "Host" option that was parsed, or NULL */
    htmldoc_option *options;     /* header lines */
    uint8_t header_ok;           /* 1: the header block was parsed */
    htmldoc_option *get_params;  /* query parameters of the request line */
    htmldoc_option *post_params; /* form parameters, by http_wrap_post() */
    buffer body;                 /* what stands behind the header */
    uint8_t body_ok;             /* 1: the body is complete */
} http_document;

/* --- life ------------------------------------------------------------------------------------- */

/* Makes `d` an empty document without releasing anything. Returns 0, or -1 for NULL. */
int http_doc_init(http_document *d);

/* As htmldoc_free(), without a result. With `free_record` above 0 the record must be of the malloc
 * family. */
void http_free(http_document *d, int free_record);

/* As htmldoc_dublicate(), but the copy's header_ok and body_ok are both 0. */
http_document *http_dublicate_document(const http_document *d);

void http_dump(const http_document *d);

/* --- taking text in --------------------------------------------------------------------------- */

/* Feeds `len` bytes. Returns 1 while more are needed, 0 once header and body are complete, -1 on a
 * failure.
 *
 * Until header_ok is 1 nothing is kept: the caller passes the whole header block from its first
 * byte, again and with more behind it, until it is complete. From then on each call's bytes are
 * appended to the body. What is fed to a complete document is ignored.
 *
 * The header's rules and failures are those of htmldoc_wrap(); a failure prints this call's data.
 * The url's block is 1,501 bytes longer than its text, terminator included. */
int http_wrap(http_document *d, const char *data, int len);

int http_wrap_cgi(http_document *d, const char *text, int len);
int http_wrap_post(http_document *d);

/* --- building and rendering ------------------------------------------------------------------- */

int http_body_append(http_document *d, const void *data, int n);
int http_body_append_str(http_document *d, const char *text);
int http_body_append_arg(http_document *d, const char *format, ...) ZT_PRINTF_LIKE(2, 3);

/* As htmldoc_unwrap(), with header lines "name:value": no space behind the colon. */
void http_unwrap(char **data, unsigned *capacity, unsigned *length, http_document *d,
                 int is_request);

/* --- lists of options ------------------------------------------------------------------------- */

htmldoc_option *http_add_option(htmldoc_option **head, const char *name, const char *value);
htmldoc_option *http_get_option(htmldoc_option **head, const char *name);
char *http_getvalue_option(htmldoc_option **head, const char *name);

/* As htmldoc_params_to_qry(), but always returns 0. */
int http_params_to_qry(htmldoc_option **head, char *out, int size);

void _http_options_free(htmldoc_option **head);

/* --- percent-encoding and reports ------------------------------------------------------------- */

int _http_uri_encode(const char *src, char *dst, int size);
int _http_uri_decode(const char *src, char *dst, int size);
int http_failed(const char *raw, const char *format, ...) ZT_PRINTF_LIKE(2, 3);

ZT_END_DECLS

#endif
