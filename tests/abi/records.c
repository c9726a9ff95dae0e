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

SIZE(buffer, 16);
FIELD(buffer, data, 0);
FIELD(buffer, capacity, 8);
FIELD(buffer, length, 12);

SIZE(wbuffer, 24);
FIELD(wbuffer, data, 0);
FIELD(wbuffer, capacity, 8);
FIELD(wbuffer, length, 16);

SIZE(net_buffer, 112);
FIELD(net_buffer, mutex, 0);
FIELD(net_buffer, condition, 40);
FIELD(net_buffer, data, 88);
FIELD(net_buffer, capacity, 96);
FIELD(net_buffer, length, 100);
FIELD(net_buffer, flags, 104);

extern int abi_records_checked;
int abi_records_checked;
