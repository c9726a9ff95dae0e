// Separate chaining over a fixed bucket array, with every entry on a second list in the order of
// insertion.
//
//     table.last --> C --older--> B --older--> A        and back along `newer`
//
// A kind of key (struct Integer, struct String) knows its weight, from which the bucket follows,
// how to compare, and how to copy itself. Everything else is the same for all kinds.
//
// The locking disciplines are wrappers around four steps: find, insert, detach and release. A
// bucket depends on fields that never change, so wrappers choose it, and have its chain fetched
// into the cache, before they take their lock; entries are released after the lock is given back.
//
// One lock of either kind per table, under which nothing else is locked.

#include <ztlib/hashtable/hashtable.h>

#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>

#include <cstdio>

namespace {

constexpr const char* kModule = "./hashtable/hashtable";

// --- keys ----------------------------------------------------------------------------------------

template <class Number>
struct Integer {
    static Number read(const void* key) {
        Number number;
        memcpy(&number, key, sizeof number);
        return number;
    }
    static uint64_t weight(const void* key) { return read(key); }
    static int compare(const void* a, const void* b) { return read(a) != read(b); }
    static void* copy(const void* key, zt::Site here) {
        void* const made = malloc(sizeof(Number));
        if (!made) {
            zt::report_call(here, "malloc");
            return nullptr;
        }
        return memcpy(made, key, sizeof(Number));
    }
};

struct String {
    static const char* read(const void* key) { return static_cast<const char*>(key); }
    static uint64_t weight(const void* key) {
        uint64_t sum = 0;
        for (const uint8_t* byte = static_cast<const uint8_t*>(key); *byte; ++byte) sum += *byte;
        return sum;
    }
    static int compare(const void* a, const void* b) { return strcmp(read(a), read(b)); }
    static void* copy(const void* key, zt::Site here) {
        char* const made = strdup(read(key));
        if (!made) zt::report_call(here, "strdup");
        return made;
    }
};

// Calls step(kind) with the kind of the table's keys. The commonest comes first.
template <class Step>
[[gnu::always_inline]] inline auto with_kind_of(const hashtable& table, Step step) {
    if (table.key_type == HASHTABLE_KEY_UINT64) [[likely]]
        return step(Integer<uint64_t>{});
    if (table.key_type == HASHTABLE_KEY_UINT32) return step(Integer<uint32_t>{});
    if (table.key_type == HASHTABLE_KEY_UINT16) return step(Integer<uint16_t>{});
    return step(String{});
}

// weight % size, which for a power of two takes no division.
inline uint64_t reduce(uint64_t weight, uint64_t size) {
    const uint64_t mask = size - 1;
    if ((size & mask) == 0) [[likely]]
        return weight & mask;
    return weight % size;
}

template <class Kind>
uint64_t hash_as(const hashtable* table, const void* key) {
    return table && key ? reduce(Kind::weight(key), table->size) : 0;
}

auto hash_of_type(uint8_t key_type) {
    switch (key_type) {
        case HASHTABLE_KEY_UINT16:
            return hashfunc_uint16;
        case HASHTABLE_KEY_UINT32:
            return hashfunc_uint32;
        case HASHTABLE_KEY_UINT64:
            return hashfunc_uint64;
        default:
            return hashfunc_strings;
    }
}

// --- steps ---------------------------------------------------------------------------------------

// The first link of the key's chain. Needs no lock. Calls no function for 64-bit keys.
[[gnu::always_inline]] inline hashtable_entry** chain_of(const hashtable& table, const void* key) {
    uint64_t bucket;
    if (table.hash == hashfunc_uint64) [[likely]]
        bucket = hash_as<Integer<uint64_t>>(&table, key);
    else
        bucket = table.hash(&table, key);
    hashtable_entry** const chain = &table.buckets[bucket];
    __builtin_prefetch(chain);
    return chain;
}

// For the steps below the caller holds what guards the table.

// The link to the key's entry; the null link at the chain's end when the key is absent.
[[gnu::always_inline]] inline hashtable_entry** find(const hashtable& table,
                                                     hashtable_entry** chain, const void* key) {
    return with_kind_of(table, [=](auto kind) {
        hashtable_entry** link = chain;
        while (*link && kind.compare((*link)->key, key) != 0) link = &(*link)->next;
        return link;
    });
}

[[gnu::always_inline]] inline void* value_in(const hashtable& table, hashtable_entry** chain,
                                             const void* key) {
    const hashtable_entry* const entry = *find(table, chain, key);
    return entry ? entry->value : nullptr;
}

void* copy_of_key(const hashtable& table, const void* key, zt::Site here) {
    return with_kind_of(table, [=](auto kind) { return kind.copy(key, here); });
}

void append_to_order(hashtable& table, hashtable_entry* entry) {
    entry->newer = nullptr;
    entry->older = table.last;
    if (table.last) table.last->newer = entry;
    table.last = entry;
}

void take_from_order(hashtable& table, const hashtable_entry* entry) {
    if (entry->newer)
        entry->newer->older = entry->older;
    else
        table.last = entry->older;
    if (entry->older) entry->older->newer = entry->newer;
}

// A new entry that is not linked yet, or null.
hashtable_entry* make_entry(const hashtable& table, const void* key) {
    zt::Owned<hashtable_entry> entry(zt::allocate<hashtable_entry>(1));
    if (!entry) {
        zt::report_call({kModule, "hashtable_insert_l"}, "malloc");
        return nullptr;
    }
    entry->key = copy_of_key(table, key, {kModule, "hashtable_create_key"});
    return entry->key ? entry.release() : nullptr;
}

int insert(hashtable& table, hashtable_entry** chain, const void* key, void* value,
           void** old_value_out) {
    if (hashtable_entry* const present = *find(table, chain, key)) {
        if (old_value_out && present->value) *old_value_out = present->value;
        present->value = value;
        return 0;
    }

    hashtable_entry* const entry = make_entry(table, key);
    if (!entry) return -1;
    entry->value = value;
    entry->next = *chain;
    *chain = entry;
    ++table.count;
    append_to_order(table, entry);
    return 0;
}

// Unlinks the key's entry and gives it back, or null when the key is absent.
hashtable_entry* detach(hashtable& table, hashtable_entry** chain, const void* key) {
    hashtable_entry** const link = find(table, chain, key);
    hashtable_entry* const entry = *link;
    if (!entry) return nullptr;
    *link = entry->next;
    --table.count;
    take_from_order(table, entry);
    return entry;
}

// Releases an entry that is no longer linked; null is ignored.
void release_entry(hashtable_entry* entry) {
    if (!entry) return;
    free(entry->key);
    free(entry);
}

// --- forms ---------------------------------------------------------------------------------------

enum class After { unlock, keep };

hashtable_entry* empty_chain = nullptr;  // what a null key finds; never written

template <class Guard>
auto& lock_of(hashtable& table) {
    if constexpr (std::is_same_v<Guard, zt::Lock>)
        return table.mutex;
    else
        return table.rwlock;
}

// A look-up that takes its own lock, for a null key too, because the caller of a keeping form gives
// it back.
template <class Guard, After after>
void* get(hashtable* table, const void* key, zt::Site here) {
    if (!table) return nullptr;
    hashtable_entry** const chain = key ? chain_of(*table, key) : &empty_chain;
    Guard lock(lock_of<Guard>(*table), here);
    if constexpr (after == After::keep) lock.keep();
    return value_in(*table, chain, key);
}

template <class Guard>
int insert_under(hashtable* table, const void* key, void* value, void** old_value_out,
                 zt::Site here) {
    if (!table || !key) return -1;
    hashtable_entry** const chain = chain_of(*table, key);
    Guard lock(lock_of<Guard>(*table), here);
    return insert(*table, chain, key, value, old_value_out);
}

template <class Guard>
int remove_under(hashtable* table, const void* key, zt::Site here) {
    if (!table || !key) return 0;
    hashtable_entry** const chain = chain_of(*table, key);
    hashtable_entry* entry;
    {
        Guard lock(lock_of<Guard>(*table), here);
        entry = detach(*table, chain, key);
    }
    release_entry(entry);
    return 0;
}

void make_locks(hashtable& table, int modes, zt::Site here) {
    if (modes & HASHTABLE_MUTEX) zt::init_mutex(table.mutex, here);
    if (modes & HASHTABLE_RWLOCK) zt::init_rwlock(table.rwlock, here);
}

void release_table(hashtable* table, void (*release)(void* value), int free_self, zt::Site here) {
    if (!table) return;
    hashtable_flush_ref(table, release);
    if (table->lock_mode & HASHTABLE_MUTEX) zt::destroy_mutex(table->mutex, here);
    if (table->lock_mode & HASHTABLE_RWLOCK) zt::destroy_rwlock(table->rwlock);
    free(table->buckets);
    table->buckets = nullptr;
    if (free_self) free(table);
}

void print_key(const hashtable& table, uint64_t bucket, const void* key) {
    switch (table.key_type) {
        case HASHTABLE_KEY_UINT16:
            fprintf(stderr, "pos[%lu], key: %u ", bucket, Integer<uint16_t>::read(key));
            break;
        case HASHTABLE_KEY_UINT32:
            fprintf(stderr, "pos[%lu], key: %u ", bucket, Integer<uint32_t>::read(key));
            break;
        case HASHTABLE_KEY_UINT64:
            fprintf(stderr, "pos[%lu], key: %lu", bucket, Integer<uint64_t>::read(key));
            break;
        default:
            fprintf(stderr, "pos[%lu], key: %s ", bucket, String::read(key));
    }
}

}  // namespace

extern "C" hashtable* hashtable_create(uint64_t size, uint8_t key_type) {
    return hashtable_create_ex(size, key_type, HASHTABLE_MUTEX);
}

extern "C" hashtable* hashtable_create_ex(uint64_t size, uint8_t key_type, int lock_mode) {
    zt::Owned<hashtable> table(zt::allocate_zeroed<hashtable>());
    if (!table) return nullptr;
    table->lock_mode = lock_mode & (HASHTABLE_MUTEX | HASHTABLE_RWLOCK);
    if (hashtable_init(table.get(), size, key_type) < 0) return nullptr;
    return table.release();
}

extern "C" int hashtable_init(hashtable* table, uint64_t size, uint8_t key_type) {
    const zt::Site here{kModule, __func__};

    if (!table || size == 0) return -1;
    hashtable_entry** const buckets = zt::allocate_zeroed<hashtable_entry*>(size);
    if (!buckets) {
        zt::report_call(here, "calloc");
        return -1;
    }
    table->buckets = buckets;
    table->size = size;
    table->key_type = key_type;
    table->hash = hash_of_type(key_type);
    make_locks(*table, table->lock_mode, here);
    return 0;
}

extern "C" int hashtable_set(hashtable* table, int lock_mode) {
    const zt::Site here{kModule, __func__};

    if (!table) return 0;
    const int missing = lock_mode & ~table->lock_mode;
    for (const int lock : {HASHTABLE_RWLOCK, HASHTABLE_MUTEX}) {
        if (!(missing & lock)) continue;
        table->lock_mode |= static_cast<uint8_t>(lock);
        make_locks(*table, lock, here);
    }
    return 0;
}

extern "C" int hashtable_insert_l(hashtable* table, const void* key, void* value,
                                  void** old_value_out) {
    if (!table || !key) return -1;
    return insert(*table, chain_of(*table, key), key, value, old_value_out);
}

extern "C" int hashtable_insert(hashtable* table, const void* key, void* value,
                                void** old_value_out) {
    return insert_under<zt::Lock>(table, key, value, old_value_out, {kModule, __func__});
}

extern "C" int hashtable_insert_rw(hashtable* table, const void* key, void* value,
                                   void** old_value_out) {
    return insert_under<zt::WriteLock>(table, key, value, old_value_out, {kModule, __func__});
}

extern "C" void hashtable_remove_l(hashtable* table, const void* key) {
    if (table && key) release_entry(detach(*table, chain_of(*table, key), key));
}

extern "C" int hashtable_remove(hashtable* table, const void* key) {
    return remove_under<zt::Lock>(table, key, {kModule, __func__});
}

extern "C" int hashtable_remove_rw(hashtable* table, const void* key) {
    return remove_under<zt::WriteLock>(table, key, {kModule, __func__});
}

extern "C" void* hashtable_get_nl(hashtable* table, const void* key) {
    return table && key ? value_in(*table, chain_of(*table, key), key) : nullptr;
}

extern "C" void* hashtable_get_l(hashtable* table, const void* key) {
    return get<zt::Lock, After::keep>(table, key, {kModule, __func__});
}

extern "C" void* hashtable_get(hashtable* table, const void* key) {
    return get<zt::Lock, After::unlock>(table, key, {kModule, __func__});
}

extern "C" void* hashtable_get_rw(hashtable* table, const void* key) {
    return get<zt::ReadLock, After::unlock>(table, key, {kModule, __func__});
}

extern "C" void* hashtable_get_rw_rl(hashtable* table, const void* key) {
    return get<zt::ReadLock, After::keep>(table, key, {kModule, __func__});
}

extern "C" void* hashtable_get_rw_wl(hashtable* table, const void* key) {
    return get<zt::WriteLock, After::keep>(table, key, {kModule, __func__});
}

extern "C" void hashtable_flush(hashtable* table) { hashtable_flush_ref(table, nullptr); }

extern "C" void hashtable_flush_ref(hashtable* table, void (*release)(void* value)) {
    if (!table || !table->buckets) return;
    // A bucket that is empty is not written to: the pages of a sparse table stay unmade.
    uint64_t left = table->count;
    for (uint64_t bucket = 0; left > 0 && bucket < table->size; ++bucket) {
        hashtable_entry* entry = table->buckets[bucket];
        if (!entry) continue;
        table->buckets[bucket] = nullptr;
        for (hashtable_entry* next; entry; entry = next, --left) {
            next = entry->next;
            free(entry->key);
            if (release) release(entry->value);
            free(entry);
        }
    }
    table->last = nullptr;
    table->count = 0;
}

extern "C" void hashtable_free(hashtable* table, int free_self) {
    release_table(table, nullptr, free_self, {kModule, __func__});
}

extern "C" void hashtable_free_ref(hashtable* table, void (*release)(void* value), int free_self) {
    release_table(table, release, free_self, {kModule, __func__});
}

extern "C" void hashtable_dump(hashtable* table, void (*print)(void* value)) {
    if (!table) return;
    zt::Lock lock(table->mutex, {kModule, __func__});
    fprintf(stderr, "- hashtable dump %lu size, type %u -\n", table->size, table->key_type);
    for (uint64_t bucket = 0; bucket < table->size; ++bucket)
        for (const hashtable_entry* entry = table->buckets[bucket]; entry; entry = entry->next) {
            print_key(*table, bucket, entry->key);
            if (print) print(entry->value);
        }
}

extern "C" uint64_t hashfunc_strings(const hashtable* table, const void* key) {
    return hash_as<String>(table, key);
}

extern "C" uint64_t hashfunc_uint16(const hashtable* table, const void* key) {
    return hash_as<Integer<uint16_t>>(table, key);
}

extern "C" uint64_t hashfunc_uint32(const hashtable* table, const void* key) {
    return hash_as<Integer<uint32_t>>(table, key);
}

extern "C" uint64_t hashfunc_uint64(const hashtable* table, const void* key) {
    return hash_as<Integer<uint64_t>>(table, key);
}

extern "C" int hashtable_compare_keys(const hashtable* table, const void* key_a,
                                      const void* key_b) {
    if (!table) return 0;
    if (!key_a || !key_b) return key_a != key_b;
    return with_kind_of(*table, [=](auto kind) { return kind.compare(key_a, key_b); });
}

extern "C" void* hashtable_create_key(const hashtable* table, const void* key) {
    const zt::Site here{kModule, __func__};

    if (!table || !key) return nullptr;
    return copy_of_key(*table, key, here);
}
