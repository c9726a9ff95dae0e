/* XML document: a small tree for messages, its parser and its writer.
 *
 *     document
 *       |-- declaration   <?xml version="1.0" encoding="UTF-8"?>      (or NULL)
 *       `-- root          <msg id="7">text<part>...</part></msg>      (or NULL)
 *                           |   |      |    |
 *                           |   |      |    child elements, in order
 *                           |   |      value: the text right behind the opening tag
 *                           |   attributes, in order
 *                           name
 *
 * The parser reads a narrow subset of XML on purpose: elements, attributes in single or double
 * quotes, one declaration tag that ends in "?>", self-closing tags, and entities in element text.
 * There are no comments, no CDATA sections, no DOCTYPE and no namespaces. The writer produces the
 * same subset on one line.
 *
 * Memory: a document owns its two nodes; a node owns its name, value, attributes and children; an
 * attribute owns its name and value. All of it comes from the malloc family, each string and each
 * record in a block of its own, so a host may free() and replace any string itself.
 *
 * Depth is bounded by memory alone: no function here recurses.
 *
 * Thread safety: none. A document belongs to one thread at a time; several threads may read one
 * that nobody changes. */
#ifndef ZTLIB_XMLDOC_XMLDOC_H
#define ZTLIB_XMLDOC_XMLDOC_H

#include <stdio.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct xmldoc_attr {
    char *name;               /* owned, or NULL */
    char *value;              /* owned, or NULL */
    struct xmldoc_attr *previous;
    struct xmldoc_attr *next; /* in the node's attribute list */
} xmldoc_attr;

typedef struct xmldoc_node {
    char *name;                     /* owned */
    char *value;                    /* owned, or NULL where the element has no text */
    struct xmldoc_node *parent;     /* set by the parser alone, not by the add functions */
    struct xmldoc_node *first_child;
    struct xmldoc_node *last_child; /* the list goes through the children's sibling links */
    xmldoc_attr *first_attribute;
    xmldoc_attr *last_attribute;
    struct xmldoc_node *previous_sibling;
    struct xmldoc_node *next_sibling;
} xmldoc_node;

typedef struct xmldoc {
    xmldoc_node *declaration; /* its attributes count; its name is not written */
    xmldoc_node *root;        /* the first top-level element */
} xmldoc;

/* --- documents -------------------------------------------------------------------------------- */

/* A new empty document, or NULL when memory is out. Release it with xmldoc_free(document, 1). */
xmldoc *xmldoc_create(void);

/* A new document with the declaration version="1.0" encoding="UTF-8" (its node has an empty name)
 * and a root element of this name. NULL, with nothing left behind, when memory is out or the name
 * is NULL. */
xmldoc *xmldoc_create_def(const char *root_name);

/* Empties a record of the host's own: both fields become NULL, nothing is freed. Returns 0; NULL is
 * ignored. */
int xmldoc_init(xmldoc *document);

/* Frees the root's tree, then the declaration's, and sets both fields to NULL; frees the record
 * itself too where `free_record` is not 0. A null document is ignored. */
void xmldoc_free(xmldoc *document, int free_record);

/* --- nodes ------------------------------------------------------------------------------------ */

/* A new node with a copy of `name` and nothing else; NULL when memory is out or the name is
 * NULL. */
xmldoc_node *xmldoc_node_create(const char *name);

/* Frees a node with all below it; needs no memory to do so. A node that is still in its parent's
 * list (or is a document's root) is not taken out of there: that is the caller's to do before.
 * NULL is ignored. */
void xmldoc_free_node(xmldoc_node *node);

/* Appends `child`, which the tree now owns, to the children of `parent`. Where the document has no
 * root yet, `parent` becomes its root first. Does nothing unless all three are given. The child's
 * `parent` field stays as it is. */
void xmldoc_node_add(xmldoc *document, xmldoc_node *parent, xmldoc_node *child);

/* Appends `child` to the children of `parent` without a look at any document. Does nothing where
 * either is NULL. The child's `parent` field stays as it is. */
void xmldoc_node_add_child(xmldoc_node *parent, xmldoc_node *child);

/* Takes `child`, which must be in the list of `parent`, out of that list and clears its two sibling
 * links; its `parent` field stays as it is. Nothing is freed: the child is the caller's again. Does
 * nothing where either is NULL. */
void xmldoc_node_remove_child(xmldoc_node *parent, xmldoc_node *child);

/* The first child with this name (compared byte by byte), or NULL. */
xmldoc_node *xmldoc_node_get(const xmldoc_node *node, const char *name);

/* The value of the first child with this name: NULL where there is no such child or it has none.
 * The text stays the node's. */
char *xmldoc_node_get_value(const xmldoc_node *node, const char *name);

/* --- attributes ------------------------------------------------------------------------------- */

/* A new attribute with a copy of each argument that is not NULL; NULL when memory is out. It goes
 * to xmldoc_node_attr_add(), or is the caller's to free: name, value, record. */
xmldoc_attr *xmldoc_attr_create(const char *name, const char *value);

/* Appends the attribute, which the node now owns. Does nothing where either is NULL. */
void xmldoc_node_attr_add(xmldoc_node *node, xmldoc_attr *attribute);

/* Makes an attribute of copies and appends it. The node stays as it was when memory is out; a null
 * node is ignored. */
void xmldoc_node_attr_addval(xmldoc_node *node, const char *name, const char *value);

/* The first attribute with this name, or NULL. */
xmldoc_attr *xmldoc_node_attr_get(const xmldoc_node *node, const char *name);

/* The value of the first attribute with this name, or NULL. The text stays the attribute's. */
char *xmldoc_node_attr_get_value(const xmldoc_node *node, const char *name);

/* --- parser ----------------------------------------------------------------------------------- */

/* Parses `text` into `document`, which may hold something already: a second top-level element is
 * read and dropped, a second declaration is an error. NULL and empty text are 0 at once.
 *
 * What the reading comes to:
 *   - White space is ' ', CR, LF, TAB. A name runs until ' ', CR, LF, '/', '>', '=' or the end of
 *     the text (a TAB does not end a name) and has at most 1,023 characters.
 *   - Attributes follow the tag name behind a space; a line break straight behind the tag name is
 *     an error (-11). Attribute values are stored normalised (white space at both ends removed, every
 *     run of it inside made one space), and their entities are not decoded.
 *   - An element's value is the text between its opening tag and the next '<', as it stands, with
 *     its entities decoded (see _xmldoc_value_escape()). Text behind a child element is dropped, as
 *     is text in front of the first tag.
 *   - A tag that ends in "?>" is the declaration, and keeps the '?' in front of its name: "?xml".
 *     Where the document has one already: -17 if the '?' follows an attribute's value, else -20.
 *   - Elements that are still open at the end are no error.
 *
 * Returns 0, or
 *   -1   no '<' where a tag must start, '<' at the end, a closing tag with nothing open, or a null
 *        document
 *   -2   closing tag without '>'              -12  text ends after '='
 *   -3   closing tag without a name           -13  value not quoted
 *   -4   closing tag does not match           -14  text ends at the opening quote
 *   -5   "<>"                                 -15  closing quote missing
 *   -6   tag without a name                   -16  text ends after a value
 *   -7   text ends after the tag name         -17  second declaration, met in an attribute list
 *   -8   ... or after the white space behind  -18  tag not closed by '>'
 *   -9   text ends inside an attribute name   -19  element text not followed by '<'
 *   -10  ... or after it                      -20  second declaration
 *   -11  no '=' after an attribute name       -30  entity decoding failed
 *   -31  a name of more than 1,023 characters, a closing tag's too
 *   -32  memory is out
 *
 * What was built before the failure stays in the document, except after -32: then the document is
 * as it was before the call. Whatever is attached nowhere (a second top-level element, the element
 * under construction) is freed before the function returns; a declaration met inside such an
 * element stays, and its `parent` is NULL. Nothing is logged. */
int xmldoc_parse(xmldoc *document, const char *text);

/* A document read from a file. Returns NULL
 *   - where the file cannot be opened (logs "fopen()(): <text of errno>"),
 *   - when memory is out (logs "xmldoc_create()(): <text of errno>" where it was for the document
 *     itself; buffer_append() says on standard error where it was for the text),
 *   - where `path` is NULL.
 *
 * The file is read in lines, of which up to 1,499 bytes count as one piece; a zero byte hides the
 * rest of its piece. A read that fails counts as the end of the file (a directory is an empty
 * document), one that is interrupted goes on.
 *
 * A file that does not parse logs "failed parse file <path>", and the result is then the address of
 * a document that is freed already: not NULL, and not to be used. Only the message tells; where
 * memory ran out during the parse the result is NULL as well. A caller that must know reads the
 * file itself and calls xmldoc_parse(). Messages are warnings from "./xmldoc/xmldoc". */
xmldoc *xmldoc_parse_file(const char *path);

/* --- writer ----------------------------------------------------------------------------------- */

/* Appends the text of `node` and all below it to a byte buffer given by the addresses of its three
 * fields (all zero for a new one; `*data` is the host's to free). In front of it, where the buffer
 * is empty and the document has a declaration:
 *
 *     <?xml version="1.0" encoding="UTF-8"?>CR LF
 *     <msg id="7">text<part></part></msg>
 *
 * Names and values are written as they stand: nothing is encoded, the text is trusted. A NULL name
 * or value is written as an empty one. There is no self-closing form. Each of "<name", one
 * attribute with the space in front of it, and "</name>" is cut at 1,499 bytes; an element's value
 * never is.
 *
 * The text is terminated behind its end. The buffer grows to (capacity + 750) * 2 bytes, again and
 * again until it fits. Returns 0; -1 where any pointer is NULL, and when memory (or 32 bits of
 * length) is out: the buffer then holds the text that it held before. */
int xmldoc_save(const xmldoc *document, const xmldoc_node *node, char **data, unsigned *capacity,
                unsigned *length);

/* Writes the node's text to standard output, as _xmldoc_node_dump_fd() does, and flushes it. */
void xmldoc_node_dump(const xmldoc_node *node);

/* --- internal steps --------------------------------------------------------------------------- */

/* Writes the text of `node` and all below it to a stream: what xmldoc_save() writes, never with the
 * declaration, and with no piece cut. `depth` is not used. Does nothing where `node` or `stream` is
 * NULL. Elements more than 64 deep need memory; when it is out, the writing ends in front of
 * them. */
void _xmldoc_node_dump_fd(const xmldoc_node *node, FILE *stream, unsigned depth);

/* The first character from `text` on that is no white space, at the latest the terminator. */
const char *_xmldoc_skip_white(const char *text);

/* The first character from `text` on that ends a name, at the latest the terminator. */
const char *_xmldoc_skip_name(const char *text);

/* Moves the tail of a string left by `n` bytes, over the first `n`. Where the string has fewer, it
 * becomes empty. */
void _xmldoc_shift_left(char *text, unsigned n);

/* First stage of an attribute value, in place: CR LF becomes one space, and so does each CR, LF and
 * TAB on its own. */
void _xmldoc_attr_value_normalize_s1(char *value);

/* Second stage, in place: spaces at both ends go, each run of spaces inside becomes one. */
void _xmldoc_attr_value_normalize_s2(char *value);

/* Decodes entities in place, from left to right, each character once ("&amp;lt;" becomes "&lt;").
 *
 *     &amp;  &apos;  &quot;  &lt;  &gt;      their character
 *     &#65;  &#x41;                          the number's low 8 bits
 *
 * A body that only starts with one of the five names counts as that name, and as many bytes are
 * removed as the name and its ';' have ("&ampx;" becomes "&;"). A number is read as strtol() reads
 * it; one that comes to 0 ends the string, but what stands behind it is decoded all the same and
 * can still fail. Any other entity is left as it stands.
 *
 * Returns 0; -2 where an '&' has no ';' behind it, -3 where more than 10 characters lie between
 * them: what is in front of that '&' is decoded then, the rest stands. A null text is -1. */
int _xmldoc_value_escape(char *text);

/* Appends `n` bytes and a terminator to a byte buffer, with xmldoc_save()'s growth. Returns 0; -1,
 * with the buffer as it was, when memory (or 32 bits of length) is out, where `n` is negative, or
 * where a pointer is NULL. */
int _xmldoc_buffer_append(char **data, unsigned *capacity, unsigned *length, const char *text,
                          int n);

/* Appends formatted text, at most 1,499 bytes of it. Returns 0, or -1 as _xmldoc_buffer_append()
 * does and where the format fails. */
int _xmldoc_buffer_vsprintf(char **data, unsigned *capacity, unsigned *length, const char *format,
                            ...) ZT_PRINTF_LIKE(4, 5);

ZT_END_DECLS

#endif
