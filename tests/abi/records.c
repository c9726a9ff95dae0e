/* A host compiled years ago embeds these records: neither a size nor an offset may ever change.
 * LP64, as on every machine that the library runs on. */

#include <stddef.h>

#include <ztlib/ztlib.h>

#define SIZE(record, bytes) _Static_assert(sizeof(record) == (bytes), #record " has changed its size")
#define FIELD(record, field, offset) \
    _Static_assert(offsetof(record, field) == (offset), #record "." #field " has moved")

/* The locks come first in several records; the C library fixes their sizes. */
SIZE(pthread_mutex_t, 40);
SIZE(pthread_cond_t, 48);
SIZE(pthread_rwlock_t, 56);

SIZE(xmldoc_attr, 32);
FIELD(xmldoc_attr, name, 0);
FIELD(xmldoc_attr, value, 8);
FIELD(xmldoc_attr, previous, 16);
FIELD(xmldoc_attr, next, 24);

SIZE(xmldoc_node, 72);
FIELD(xmldoc_node, name, 0);
FIELD(xmldoc_node, value, 8);
FIELD(xmldoc_node, parent, 16);
FIELD(xmldoc_node, first_child, 24);
FIELD(xmldoc_node, last_child, 32);
FIELD(xmldoc_node, first_attribute, 40);
FIELD(xmldoc_node, last_attribute, 48);
FIELD(xmldoc_node, previous_sibling, 56);
FIELD(xmldoc_node, next_sibling, 64);

SIZE(xmldoc, 16);
FIELD(xmldoc, declaration, 0);
FIELD(xmldoc, root, 8);

extern int abi_records_checked;
int abi_records_checked;
