/* Wide-character XML document: the tree and the parser of <ztlib/xmldoc/xmldoc.h> over wchar_t, for
 * text that is read from files in the locale's encoding and handled as wide strings.
 *
 *     document
 *       |-- declaration   <?xml version="1.0" encoding="UTF-8"?>      (or NULL)
 *       `-- root          <msg id="7">text<part>...</part></msg>      (or NULL)
 *
 * What the parser reads, what it makes of it and what it refuses is described there, once. The
 * differences are few: comments are skipped, a numeric entity is a whole character, an undecodable
 * entity is -22, and some failures are logged. There is no writer: a document is read, or dumped.
 *
 * Memory: a document owns its two nodes; a node owns its name, value, attributes and children; an
 * attribute owns its name and value. All of it comes from the malloc family, each string and each
 * record in a block of its own, so a host may free() and replace any string itself.
 *
 * Depth is bounded by memory alone: no function here recurses.
 *
 * Failures are logged with the source "./xmldoc/wxmldoc", as errors where nothing else is said; a
 * failed call as "<call>(): <text of errno>".
 *
 * Thread safety: none. A document belongs to one thread at a time; several threads may read one
 * that nobody changes. */
#ifndef ZTLIB_XMLDOC_WXMLDOC_H
#define ZTLIB_XMLDOC_WXMLDOC_H

#include <stdio.h>
#include <wchar.h>
#include <ztlib/buffers/wbuffer.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct wxmldoc_attr {
    wchar_t *name;             /* owned, or NULL */
    wchar_t *value;            /* owned, or NULL */
    struct wxmldoc_attr *previous;
    struct wxmldoc_attr *next; /* in the node's attribute list */
} wxmldoc_attr;

/* Attributes come before children, the other way round than in the narrow node. */
typedef struct wxmldoc_node {
    wchar_t *name;                   /* owned */
    wchar_t *value;                  /* owned, or NULL where the element has no text */
    struct wxmldoc_node *parent;     /* set by the parser alone, not by wxmldoc_node_add() */
    wxmldoc_attr *first_attribute;
    wxmldoc_attr *last_attribute;
    struct wxmldoc_node *first_child;
    struct wxmldoc_node *last_child; /* the list goes through the children's sibling links */
    struct wxmldoc_node *previous_sibling;
    struct wxmldoc_node *next_sibling;
} wxmldoc_node;

typedef struct wxmldoc {
    wxmldoc_node *declaration; /* its attributes count */
    wxmldoc_node *root;        /* the first top-level element */
} wxmldoc;

/* --- documents --------------------------------------------------------------------------------- */

/* A new empty document, or NULL when memory is out (logged: "calloc"). Release it with
 * wxmldoc_free(document, 1). */
wxmldoc *wxmldoc_create(void);

/* Does nothing and returns 0: a record of the host's own must be zeroed by the host. */
int wxmldoc_init(wxmldoc *document);

/* Frees the root's tree, then the declaration's, and sets both fields to NULL; frees the record
 * itself too where `free_record` is not 0. A null document is ignored. */
void wxmldoc_free(wxmldoc *document, int free_record);

/* --- nodes ------------------------------------------------------------------------------------- */

/* A new node with a copy of `name` and nothing else. NULL when memory is out (logged: "calloc" or
 * "wcsdup") or the name is NULL. */
wxmldoc_node *wxmldoc_node_create(const wchar_t *name);

/* Frees a node with all below it; needs no memory to do so. A node that is still in its parent's
 * list (or is a document's root) is not taken out of there: that is the caller's to do before.
 * NULL is ignored. */
void wxmldoc_node_free(wxmldoc_node *node);

/* Appends `child`, which the parent now owns, to the children of `parent`. Does nothing where
 * either is NULL. The child's `parent` field stays as it is. */
void wxmldoc_node_add(wxmldoc_node *parent, wxmldoc_node *child);

/* The first child with this name (compared as wcscmp() does), or NULL. */
wxmldoc_node *wxmldoc_node_get(const wxmldoc_node *node, const wchar_t *name);

/* --- attributes -------------------------------------------------------------------------------- */

/* A new attribute with a copy of each argument that is not NULL; NULL when memory is out (logged as
 * "calloc" where it was for the record). It goes to wxmldoc_attr_add() or wxmldoc_attr_free(). */
wxmldoc_attr *wxmldoc_attr_create(const wchar_t *name, const wchar_t *value);

/* Frees an attribute that is in no node's list: name, value, record. NULL is ignored. */
void wxmldoc_attr_free(wxmldoc_attr *attribute);

/* Appends the attribute, which the node now owns. Does nothing where either is NULL. */
void wxmldoc_attr_add(wxmldoc_node *node, wxmldoc_attr *attribute);

/* Makes an attribute of copies and appends it. The node stays as it was when memory is out; a null
 * node is ignored. */
void wxmldoc_attr_addval(wxmldoc_node *node, const wchar_t *name, const wchar_t *value);

/* The first attribute with this name, or NULL. */
wxmldoc_attr *wxmldoc_attr_get(const wxmldoc_node *node, const wchar_t *name);

/* The value of the first attribute with this name, or NULL. The text stays the attribute's. */
wchar_t *wxmldoc_attr_get_value(const wxmldoc_node *node, const wchar_t *name);

/* --- parser ------------------------------------------------------------------------------------ */

/* Parses the text of a wide buffer into `document`, which may hold something already. The buffer is
 * as the wbuffer functions leave it, with its terminator; it is not changed. A zero character hides
 * what stands behind it. A buffer of length 0 is 0 at once.
 *
 * Reads what xmldoc_parse() reads, with these differences:
 *   - A tag whose name is exactly "!--" is a comment: it is skipped through the next "-->", or,
 *     where there is none, to the end of the text, which is no error. The name ends as any name
 *     does: a space, CR, LF, '/', '>' or '=' must follow, so that "<!--note-->" is an element named
 *     "!--note--". Text behind a comment is dropped as behind a child element.
 *   - Numeric entities stand for whole characters, not for bytes.
 *
 * Returns xmldoc_parse()'s results: 0, -1 to -20, -31 (a name of more than 1,023 characters), -32
 * (memory is out), with these differences:
 *   -1   also for a null document (logged: "empty input param doc(): <text of errno>"), a null
 *        buffer, and a buffer that has a length but no data
 *   -22  instead of -30: entity decoding failed
 *
 * Logged with the function name "xmldoc_parse":
 *   -1   "missing tag start '<'" where there is no '<' or it is the last character; a closing tag
 *        with nothing open is -1 as well, and not logged
 *   -11  "'=' not found after attr name"
 *   -22  "failed to escape value: <result of _wxmldoc_value_escape()>"
 * Nothing else is logged.
 *
 * What was built before a failure stays in the document, except after -32: then the document is as
 * it was before the call. */
int wxmldoc_parse(wxmldoc *document, const wbuffer *text);

/* A document read from a file in the encoding of the current locale (a program that never called
 * setlocale() has the "C" locale, and reads ASCII alone). Returns NULL
 *   - where the file cannot be opened (logs the warning "fopen()(): <text of errno>"),
 *   - when memory is out for the document (logs the warning "xmldoc_create()(): <text of errno>"),
 *   - where the text does not parse, holds what the locale cannot decode, or is too long for
 *     memory: logs "xmldoc_parse(<path>): failed code:<code>" with wxmldoc_parse()'s code, or with
 *     -1 where the parser was not reached,
 *   - where `path` is NULL.
 *
 * The file is read in lines, of which up to 1,499 bytes count as one piece; a character may go on
 * in the next piece. A zero byte hides the rest of its piece. A read that fails counts as the end
 * of the file (a directory is an empty document), one that is interrupted goes on. */
wxmldoc *wxmldoc_parse_file(const char *path);

/* --- dump -------------------------------------------------------------------------------------- */

/* Writes the node's text to standard output, as _wxmldoc_node_dump_fd() does, and flushes it. The
 * first such call makes standard output a wide stream for good: see there. */
void wxmldoc_node_dump(const wxmldoc_node *node);

/* --- internal steps ---------------------------------------------------------------------------- */

/* Writes the text of `node` and all below it to a stream, on one line and never with a declaration:
 *
 *     <msg id="7">text<part></part></msg>
 *
 * Names and values are written as they stand: no character becomes an entity. A NULL name or value
 * is written as an empty one. The stream becomes a wide one, which encodes in the locale of its
 * first use and takes no narrow text any more; where it is a narrow one already nothing is written
 * (see fwide()). `depth` is not used. Does nothing where `node` or `stream` is NULL. Elements more than
 * 64 deep need memory; when it is out, the writing ends in front of them. */
void _wxmldoc_node_dump_fd(const wxmldoc_node *node, FILE *stream, unsigned depth);

/* Logs the formatted message as an error of the function "xmldoc_parse" and returns `code`. */
int _wxmldoc_error(int code, const char *format, ...) ZT_PRINTF_LIKE(2, 3);

/* The first character from `text` on that is no white space, at the latest the terminator. */
const wchar_t *_wxmldoc_skip_white(const wchar_t *text);

/* The first character from `text` on that ends a name, at the latest the terminator. */
const wchar_t *_wxmldoc_skip_name(const wchar_t *text);

/* Moves the tail of a string left by `n` characters, over the first `n`. Where the string has
 * fewer, it becomes empty. */
void _wxmldoc_shift_left(wchar_t *text, unsigned n);

/* First stage of an attribute value, in place: CR LF becomes one space, and so does each CR, LF and
 * TAB on its own. */
void _wxmldoc_attr_value_normalize_s1(wchar_t *value);

/* Second stage, in place: spaces at both ends go, each run of spaces inside becomes one. */
void _wxmldoc_attr_value_normalize_s2(wchar_t *value);

/* Decodes entities in place as _xmldoc_value_escape() does, but a number, read as wcstol() reads
 * it, is stored as a whole wide character: "&#x263A;" becomes U+263A. Whether there is such a
 * character is not checked.
 *
 * Returns 0; -2 where an '&' has no ';' behind it, -3 where more than 10 characters lie between
 * them: what is in front of that '&' is decoded then, the rest stands. A null text is -1. */
int _wxmldoc_value_escape(wchar_t *text);

ZT_END_DECLS

#endif
