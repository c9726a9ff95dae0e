/* The HTTP message document: one HTTP/1.x request or response with its header lines, parameters and
 * body, parsed from bytes as they arrive and rendered as text.
 *
 *     GET /search?q=x HTTP/1.1\r\n       method "GET", url "/search", protocol "HTTP/1.1",
 *                                         get_params: q = x
 *     Host: example.org\r\n              options: Host = example.org; host points at the value
 *     \r\n
 *     ...                                body
 *
 * A response uses the same three fields in the order of its status line: "HTTP/1.1 404 Not Found"
 * is method "HTTP/1.1", url "404", protocol "Not Found". One that is built to be rendered has its
 * status code in url_length instead.
 *
 *     empty --header block complete--> header_ok 1 --body complete--> body_ok 1
 *
 * "wrap" takes received text into the document, "unwrap" renders the document as text. A document
 * is parsed once; htmldoc_free(d, 0) and htmldoc_init(d) make it new.
 *
 * All messages go to standard error, but for those of htmldoc_create(), which are logged. Where
 * memory runs out, a function returns its failure value and leaves the document as it was.
 *
 * Thread safety: a document belongs to one thread at a time; nothing is shared between
 * documents. */
#ifndef ZTLIB_HTMLDOC_HTMLDOC_H
#define ZTLIB_HTMLDOC_HTMLDOC_H

#include <stdbool.h>
#include <stdint.h>
#include <ztlib/buffers/buffer.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

/* A name and a value: a header line, a query parameter or a form parameter. */
typedef struct htmldoc_option {
    char *name;                        /* malloc family, owned */
    char *value;                       /* malloc family, owned */
    struct htmldoc_option *next;       /* NULL at the end of the list */
    struct htmldoc_option **prev_link; /* what points here: the node before's `next`, or the head */
} htmldoc_option;

enum {
    HTMLDOC_WORD_LENGTH = 32,        /* longest method, and longest protocol */
    HTMLDOC_URL_LENGTH = 65535,      /* longest url that is parsed */
    HTMLDOC_HEADER_LENGTH = 1 << 20, /* longest header block, without the empty line behind it */
    HTMLDOC_ARGUMENT_LENGTH = 1499   /* longest text of one formatted body append */
};

typedef struct htmldoc {
    char method[HTMLDOC_WORD_LENGTH + 1];
    char *url;           /* owned where url_length is not 0 */
    uint16_t url_length; /* in a response to be rendered: the status code */
    char protocol[HTMLDOC_WORD_LENGTH + 1];
    const char *host;            /* the value of the "Host" option that was parsed, or NULL */
    htmldoc_option *options;     /* header lines */
    uint8_t header_ok;           /* 1: the header block was parsed */
    htmldoc_option *get_params;  /* query parameters of the request line */
    htmldoc_option *post_params; /* form parameters, by htmldoc_wrap_post() */
    buffer input;                /* bytes that htmldoc_wrap() was fed and has not parsed */
    buffer body;                 /* what stands behind the header */
    uint8_t body_ok;             /* 1: the body is complete */
} htmldoc;

/* --- life ------------------------------------------------------------------------------------- */

/* A new empty document, or NULL when memory is out (logged as a warning). Release it with
 * htmldoc_free(d, 1). */
htmldoc *htmldoc_create(void);

/* Makes `d` an empty document without releasing anything. Returns 0, or -1 for NULL. */
int htmldoc_init(htmldoc *d);

/* Releases all that the document owns. `free_record` above 0 releases the record too; else the
 * record is zeroed. A url whose url_length is 0, and a body whose capacity is 0, are not released.
 * Returns 0, also for NULL. */
int htmldoc_free(htmldoc *d, int free_record);

/* A copy, to be released with htmldoc_free(copy, 1), or NULL when memory is out or `d` is NULL.
 * Each list of the copy is in reverse order. Copied are method, url, the three lists, both flags
 * and the body; the protocol is empty, `host` NULL and the input empty. (The name is spelled
 * so.) */
htmldoc *htmldoc_dublicate(const htmldoc *d);

/* Prints start line, options, query parameters and body on standard error. NULL is ignored. */
void htmldoc_dump(const htmldoc *d);

/* --- taking text in --------------------------------------------------------------------------- */

/* Feeds `len` bytes as they arrived, cut anywhere.
 * Returns 1 while more are needed, and always for a `len` of 0; 0 once header and body are
 * complete; -1 on a failure.
 *
 * The header block ends at the first empty line ("\r\n\r\n"; a zero byte before it hides it for
 * good).
 *   - Any run of CR and LF separates lines. A block that begins with one of them is refused, which
 *     prints nothing.
 *   - The start line is three words, of which the last may hold blanks. Behind the url's first '?',
 *     pieces between '&' are query parameters: taken as they stand, each must have a '=' and a
 *     value.
 *   - Every other line must have a ':' and a value; spaces before the value are dropped, those
 *     behind it stay. Names are compared and kept as they are written.
 *   - Options and query parameters are held in the reverse of their order in the message.
 *   - The url's block is 65 bytes longer than its text: the terminator and 64 more. An empty url is
 *     a shared text that must not be written to.
 *
 * The body is complete when its length is what "Content-Length" says. Without that line it is
 * complete with the first bytes that are there, or at once when none follow the header. A body that
 * grows past the announced length never completes. What is fed to a complete document stays in
 * `input`. Each call that feeds a body looks "Content-Length" up in the options: a body behind many
 * header lines is best fed in large pieces.
 *
 * A failure of the text goes through htmldoc_failed(): the whole input and a message are printed.
 * So do a block above HTMLDOC_HEADER_LENGTH bytes and a url above HTMLDOC_URL_LENGTH. What was
 * understood before it is kept, the input too, and the next call reads the block once more from its
 * first line: a start line that was understood is then read as a header line.
 *
 * When memory is out, -1 with the document as it was: the same bytes can be fed again. The buffer's
 * own message, or htmldoc_failed() with "malloc(): <text of errno>", says so. */
int htmldoc_wrap(htmldoc *d, const char *data, int len);

/* Takes the output of a CGI program: header lines without a start line, an empty line, and the
 * body, which is all that follows: its capacity and length are its number of bytes, whatever
 * "Content-Length" says, and a body from before is released. The caller passes the whole text each
 * time; `input` is not used. Returns 1 while the empty line is missing, 0 when the text was taken,
 * -1 on a failure. As in htmldoc_wrap(), but for lines without ':', which are skipped. */
int htmldoc_wrap_cgi(htmldoc *d, const char *text, int len);

/* Splits a complete urlencoded body into post_params, each put in front of the list. The body is
 * split in place: the '&' behind each piece becomes a zero byte.
 *
 * A parameter's name is the key without its last character. Its value begins with the '=' and is
 * percent-decoded into as many bytes as the encoded value has; what does not fit is cut and said on
 * standard error. "user=alice" gives "use" and "=alic"; "user=a%20b" gives "use" and "=a b"; a key
 * without a value gives an empty value.
 *
 * Returns 0; -1 when header or body is not complete, a piece has no '=' (said on standard error;
 * the parameters made so far are kept), or memory is out (nothing is kept). */
int htmldoc_wrap_post(htmldoc *d);

/* --- building and rendering ------------------------------------------------------------------- */

/* Flags of htmldoc_init_proto(). Where two of a kind are set, the second wins. */
enum { HTMLDOC_GET = 1, HTMLDOC_POST = 2, HTMLDOC_HTTP_1_0 = 16, HTMLDOC_HTTP_1_1 = 32 };

/* Fills the start line: a copy of `url`, and method and protocol as `flags` say (what they don't
 * name stays). The url that was there is not released. Does nothing when an argument is NULL or
 * memory is out. Of a url above 65,535 bytes url_length holds the low 16 bits; where those are 0,
 * and for an empty url, the caller releases the url. */
void htmldoc_init_proto(htmldoc *d, const char *url, int flags);

/* Appends `n` bytes to the body, and a terminator. A body that is too small grows to
 * (n + capacity) * 2 bytes.
 * Returns 0, or -1 when memory is out ("realloc(): <text of errno>"), an argument is NULL or `n` is
 * negative. Nothing appended to an empty body changes nothing. */
int htmldoc_body_append(htmldoc *d, const void *data, int n);

/* Appends a text. Returns as above; -1 with "htmldoc_body_append_str: append null data" for
 * NULL. */
int htmldoc_body_append_str(htmldoc *d, const char *text);

/* Appends a formatted text, cut at HTMLDOC_ARGUMENT_LENGTH bytes. Returns as
 * htmldoc_body_append(). */
int htmldoc_body_append_arg(htmldoc *d, const char *format, ...) ZT_PRINTF_LIKE(2, 3);

/* Appends the document as HTTP text to the byte buffer of these three fields: start line, one line
 * "name: value" for each option, an empty line, and the body where its capacity is not 0. A
 * request's start line is "method url protocol"; a response's is "method url_length protocol".
 * Parameters are not rendered and no Content-Length is added: a caller that wants one adds it as an
 * option. Changes nothing when memory is out (buffer_make_room() says so) or an argument is
 * NULL. */
void htmldoc_unwrap(char **data, unsigned *capacity, unsigned *length, htmldoc *d, bool is_request);

/* --- lists of options ------------------------------------------------------------------------- */

/* Appends copies of name and value to the list. Returns the new node, or NULL when memory is out or
 * an argument is NULL. */
htmldoc_option *htmldoc_add_option(htmldoc_option **head, const char *name, const char *value);

/* The first node whose name is exactly `name`, or NULL. */
htmldoc_option *htmldoc_get_option(htmldoc_option **head, const char *name);

/* That node's value (the list's), or NULL. */
char *htmldoc_getvalue_option(htmldoc_option **head, const char *name);

/* 1 when the request line had query parameters, else 0. */
int htmldoc_have_get_params(htmldoc *d);

/* Writes "name=value&name=value" into the `size` bytes of `out`, cut at size - 1 characters; the
 * rest of `out` is zeroed. Nothing is encoded. Returns the number of characters written. */
int htmldoc_params_to_qry(htmldoc_option **head, char *out, int size);

/* Releases a list: names, values, nodes. The head becomes NULL. */
void _htmldoc_options_free(htmldoc_option **head);

/* --- percent-encoding ------------------------------------------------------------------------- */

/* Encodes a text. Kept as they are: a-z A-Z 0-9 - _ . ! ~ * ( ) '. Every other character becomes
 * %xx in lower case (a space is %20), and every byte from 0x80 on becomes %ff. `dst` has room for
 * size + 1 bytes: an escape at the very end puts the terminator at dst[size]. Returns the number of
 * characters written, terminator not counted; -1 when a character would end beyond `size` (a plain
 * one needs a byte behind it), said on standard error. `dst` is then not terminated. */
int _htmldoc_uri_encode(const char *src, char *dst, int size);

/* Decodes %xx; everything else, '+' too, is copied. What stands behind '%' is read as strtoul()
 * reads two characters in base 16. Returns the number of characters written, terminator not
 * counted; -1 when a character would not fit `size` bytes together with the terminator, or the text
 * ends within an escape, both said on standard error. `dst` is then not terminated. */
int _htmldoc_uri_decode(const char *src, char *dst, int size);

/* --- reports ---------------------------------------------------------------------------------- */

/* The parsers' own report: prints "htmldoc_failed: request:", the raw text, and the message on
 * standard error. Returns -1. */
int htmldoc_failed(const char *raw, const char *format, ...) ZT_PRINTF_LIKE(2, 3);

ZT_END_DECLS

#endif
