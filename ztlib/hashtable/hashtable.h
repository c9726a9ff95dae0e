/* A hash table with a fixed number of buckets, from an integer or a string to one opaque value.
 *
 *     buckets[0] --> NULL
 *     buckets[1] --> entry --> entry --> NULL       along `next`, the newest of a bucket first
 *     ...
 *     last --> entry --> entry --> ... --> NULL     along `older`, from the newest of all
 *
 * Each entry lies in its bucket's chain and in a list in the order of insertion, so that users can
 * walk all entries without looking at the buckets. The table never grows: chains do.
 *
 * Keys are passed by address: a pointer to the integer, or the string itself. The table keeps
 * copies of its own. Values belong to the caller; a stored value of 0 looks like an absent key.
 *
 * Cost: integers hash to their value modulo the bucket count (a power of two spares the division),
 * which spreads serial numbers evenly and multiples of the bucket count not at all. Strings hash to
 * the sum of their bytes: keys of one length crowd into few sums (all permutations of a string
 * share one, and n-byte keys made of digits only 9n + 1), so that a look-up walks a chain about as
 * long as the keys are many for each such sum, however many buckets there are.
 *
 * Locking. The caller chooses one discipline for a table and uses its forms alone:
 *
 *     plain name       takes the mutex; needs HASHTABLE_MUTEX
 *     _rw              takes the reader/writer lock: look-ups side by side; needs HASHTABLE_RWLOCK
 *     _l (get)         takes the mutex and returns with it held
 *     _rw_rl, _rw_wl   take the read or write lock and return with it held
 *     _l (insert, remove), _nl   take nothing: the caller holds what guards the table
 *
 * The forms that return with a lock held keep the value from being removed while the caller uses
 * it; the caller releases `mutex` or `rwlock` itself. Flush and free take no lock.
 *
 * A mutex that cannot be taken ends the process with 1 (pthread_utils.h); every other failure to
 * make, take or release a lock prints "./hashtable/hashtable:<function>: <call>(): <text of errno>
 * (<code>)" on standard error and ends it with exit(-1).
 *
 * A NULL table is ignored: pointers come back NULL, hashtable_init and the inserts return -1, the
 * rest does nothing and returns 0. A NULL key is absent; the forms that return with a lock held
 * take it for a NULL key too (for a NULL table there is none to take). */
#ifndef ZTLIB_HASHTABLE_HASHTABLE_H
#define ZTLIB_HASHTABLE_HASHTABLE_H

#include <stdint.h>
#include <ztlib/decls.h>
#include <ztlib/pthread_types.h>

ZT_BEGIN_DECLS

typedef struct hashtable_entry {
    void *key;                     /* the table's own copy: 2, 4 or 8 bytes, or a string */
    void *value;                   /* the caller's */
    struct hashtable_entry *next;  /* in the same bucket */
    struct hashtable_entry *newer; /* in the order of insertion */
    struct hashtable_entry *older;
} hashtable_entry;

typedef struct hashtable {
    pthread_mutex_t mutex;     /* made when lock_mode has HASHTABLE_MUTEX */
    pthread_rwlock_t rwlock;   /* made when lock_mode has HASHTABLE_RWLOCK */
    uint64_t size;             /* number of buckets; fixed */
    hashtable_entry **buckets; /* each: the newest entry of its chain, or NULL */
    hashtable_entry *last;     /* the newest entry of all, NULL when empty */
    uint64_t count;            /* number of entries */
    uint8_t key_type;          /* HASHTABLE_KEY_...; fixed */
    uint8_t lock_mode;         /* HASHTABLE_MUTEX | HASHTABLE_RWLOCK */
    uint64_t (*hash)(const struct hashtable *table, const void *key); /* bucket index of a key */
} hashtable;

/* Any other key type means strings. */
enum { HASHTABLE_KEY_UINT16 = 2, HASHTABLE_KEY_UINT32 = 3, HASHTABLE_KEY_UINT64 = 4 };

enum { HASHTABLE_MUTEX = 1, HASHTABLE_RWLOCK = 2 };

/* A new table of `size` buckets with a mutex, or NULL: `size` is 0 or memory is out (a message only
 * when it is the buckets that do not fit). Release it with hashtable_free(table, 1). */
hashtable *hashtable_create(uint64_t size, uint8_t key_type);

/* The same with the locks that `lock_mode` asks for; its two low bits count. */
hashtable *hashtable_create_ex(uint64_t size, uint8_t key_type, int lock_mode);

/* Prepares a table in the caller's own storage: zeroed, but for `lock_mode`, which says which locks
 * to make and is set before this call (or later, through hashtable_set). Returns 0, or -1 with the
 * record as it was: `size` is 0 (nothing is logged), or the buckets cannot be allocated ("calloc():
 * ..." logged as a warning). */
int hashtable_init(hashtable *table, uint64_t size, uint8_t key_type);

/* Adds locks to a table that nobody else uses yet: makes each of `lock_mode` that is not there, the
 * reader/writer lock first. Returns 0. */
int hashtable_set(hashtable *table, int lock_mode);

/* Binds `value` to `key`. A key that is there keeps its entry and its place in the order of
 * insertion; its value is replaced, and the old one, unless it was 0, is stored in *old_value_out
 * (may be NULL; otherwise left alone). Returns 0, or -1 with the table as it was: `key` is NULL, or
 * memory is out ("malloc(): ..." or, for the copy of a string key, "strdup(): ..." logged as a
 * warning). */
int hashtable_insert_l(hashtable *table, const void *key, void *value, void **old_value_out);
int hashtable_insert(hashtable *table, const void *key, void *value, void **old_value_out);
int hashtable_insert_rw(hashtable *table, const void *key, void *value, void **old_value_out);

/* Removes the key's entry, if there is one. The value is not released. 0. */
void hashtable_remove_l(hashtable *table, const void *key);
int hashtable_remove(hashtable *table, const void *key);
int hashtable_remove_rw(hashtable *table, const void *key);

/* The key's value, or 0 when it is absent. */
void *hashtable_get_nl(hashtable *table, const void *key);
void *hashtable_get_l(hashtable *table, const void *key);
void *hashtable_get(hashtable *table, const void *key);
void *hashtable_get_rw(hashtable *table, const void *key);
void *hashtable_get_rw_rl(hashtable *table, const void *key);
void *hashtable_get_rw_wl(hashtable *table, const void *key);

/* Removes all entries, bucket by bucket from 0 and along each chain; the table is empty and usable.
 * flush_ref calls release(value) for each, values of 0 too. `release` may be NULL; it may not use
 * the table. Takes no lock: nobody else may use the table meanwhile. */
void hashtable_flush(hashtable *table);
void hashtable_flush_ref(hashtable *table, void (*release)(void *value));

/* The same, then releases the locks and buckets and, when `free_self` is not 0, the record. A mutex
 * that cannot be destroyed is printed on standard error and otherwise ignored. */
void hashtable_free(hashtable *table, int free_self);
void hashtable_free_ref(hashtable *table, void (*release)(void *value), int free_self);

/* Prints the table on standard error under the mutex:
 *
 *     - hashtable dump <size> size, type <key_type> -
 *     pos[<bucket>], key: <key> <what print(value) prints>
 *
 * one entry after the other in bucket order. `print` (may be NULL) is expected to end the line, and
 * is called with the mutex held. 64-bit keys are followed by no blank, and nothing closes the
 * dump. */
void hashtable_dump(hashtable *table, void (*print)(void *value));

/* The bucket of a key: the sum of a string's bytes, or an integer's value, modulo table->size,
 * which may not be 0. A NULL key has bucket 0. */
uint64_t hashfunc_strings(const hashtable *table, const void *key);
uint64_t hashfunc_uint16(const hashtable *table, const void *key);
uint64_t hashfunc_uint32(const hashtable *table, const void *key);
uint64_t hashfunc_uint64(const hashtable *table, const void *key);

/* 0 when the keys are equal; otherwise 1 for integers and strcmp()'s result for strings. A NULL key
 * equals NULL alone. */
int hashtable_compare_keys(const hashtable *table, const void *key_a, const void *key_b);

/* A copy of the key in memory of its own, which the caller frees, or NULL: `key` is NULL, or memory
 * is out ("malloc(): ..." or "strdup(): ..." logged as a warning). */
void *hashtable_create_key(const hashtable *table, const void *key);

ZT_END_DECLS

#endif
