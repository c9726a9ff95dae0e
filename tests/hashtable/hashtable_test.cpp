#include <ztlib/hashtable/hashtable.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint8_t kStrings = 0;
constexpr int kBoth = HASHTABLE_MUTEX | HASHTABLE_RWLOCK;

void* word(uintptr_t number) { return reinterpret_cast<void*>(number); }
uintptr_t number(const void* value) { return reinterpret_cast<uintptr_t>(value); }

class ScopedTable {
  public:
    ScopedTable(uint64_t size, uint8_t key_type, int lock_mode = HASHTABLE_MUTEX)
        : table_(hashtable_create_ex(size, key_type, lock_mode)) {}
    ~ScopedTable() { hashtable_free(table_, 1); }
    ScopedTable(const ScopedTable&) = delete;
    ScopedTable& operator=(const ScopedTable&) = delete;

    operator hashtable*() const { return table_; }
    hashtable* operator->() const { return table_; }

    // From the newest to the oldest, with every link checked from both sides.
    std::vector<uintptr_t> newest_first() const {
        std::vector<uintptr_t> values;
        if (table_->last) {
            EXPECT_EQ(table_->last->newer, nullptr);
        }
        for (const hashtable_entry* entry = table_->last; entry; entry = entry->older) {
            if (entry->older) {
                EXPECT_EQ(entry->older->newer, entry);
            }
            values.push_back(number(entry->value));
        }
        EXPECT_EQ(values.size(), table_->count);
        return values;
    }
    std::vector<uintptr_t> chain(uint64_t bucket) const {
        std::vector<uintptr_t> values;
        for (const hashtable_entry* entry = table_->buckets[bucket]; entry; entry = entry->next)
            values.push_back(number(entry->value));
        return values;
    }

  private:
    hashtable* table_;
};

bool mutex_is_held(hashtable* table) {
    if (pthread_mutex_trylock(&table->mutex) != 0) return true;
    pthread_mutex_unlock(&table->mutex);
    return false;
}

enum class Held { nothing, for_reading, for_writing };

Held rwlock_of(hashtable* table) {
    if (pthread_rwlock_trywrlock(&table->rwlock) == 0) {
        pthread_rwlock_unlock(&table->rwlock);
        return Held::nothing;
    }
    if (pthread_rwlock_tryrdlock(&table->rwlock) == 0) {
        pthread_rwlock_unlock(&table->rwlock);
        return Held::for_reading;
    }
    return Held::for_writing;
}

void print_value(void* value) { fprintf(stderr, "=%lu\n", number(value)); }

std::vector<uintptr_t> released;
void release_value(void* value) { released.push_back(number(value)); }

}  // namespace

TEST(HashTable, StartsEmptyWithTheLocksAskedFor) {
    hashtable* const table = hashtable_create(16, HASHTABLE_KEY_UINT32);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->size, 16u);
    EXPECT_EQ(table->count, 0u);
    EXPECT_EQ(table->last, nullptr);
    EXPECT_EQ(table->key_type, HASHTABLE_KEY_UINT32);
    EXPECT_EQ(table->lock_mode, HASHTABLE_MUTEX);
    for (uint64_t bucket = 0; bucket < 16; ++bucket) EXPECT_EQ(table->buckets[bucket], nullptr);
    hashtable_free(table, 1);

    for (int mode : {0, 1, 2, 3}) {
        const uint64_t mutexes = calls_of("pthread_mutex_init");
        const uint64_t rwlocks = calls_of("pthread_rwlock_init");
        ScopedTable with_mode(4, kStrings, mode | 0xf4);
        EXPECT_EQ(with_mode->lock_mode, mode) << "two bits count";
        EXPECT_EQ(calls_of("pthread_mutex_init") - mutexes, (mode & 1) ? 1u : 0u);
        EXPECT_EQ(calls_of("pthread_rwlock_init") - rwlocks, (mode & 2) ? 1u : 0u);
    }
}

TEST(HashTable, ChoosesTheHashByKeyType) {
    EXPECT_EQ(ScopedTable(4, 2)->hash, hashfunc_uint16);
    EXPECT_EQ(ScopedTable(4, 3)->hash, hashfunc_uint32);
    EXPECT_EQ(ScopedTable(4, 4)->hash, hashfunc_uint64);
    for (uint8_t type : {0, 1, 5, 255}) {
        ScopedTable table(4, type);
        EXPECT_EQ(table->hash, hashfunc_strings);
        EXPECT_EQ(table->key_type, type);
    }
}

TEST(HashTable, RefusesZeroBuckets) {
    CapturedLog log;
    EXPECT_EQ(hashtable_create(0, 4), nullptr);
    EXPECT_EQ(hashtable_create_ex(0, 4, 3), nullptr);
    hashtable embedded{};
    EXPECT_EQ(hashtable_init(&embedded, 0, 4), -1);
    EXPECT_EQ(embedded.buckets, nullptr);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(HashTable, RefusesMoreBucketsThanMemoryCanHold) {
    CapturedLog log;
    for (uint64_t size : {UINT64_MAX, UINT64_MAX / 8 + 1})
        EXPECT_EQ(hashtable_create(size, 4), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:hashtable:hashtable_init: calloc(): Cannot allocate memory",
                            "WARN:hashtable:hashtable_init: calloc(): Cannot allocate memory"));
}

TEST(HashTable, CanBeEmbeddedWithItsLockModeSetBefore) {
    hashtable embedded{};
    ASSERT_EQ(hashtable_init(&embedded, 8, HASHTABLE_KEY_UINT64), 0);
    EXPECT_EQ(embedded.lock_mode, 0);
    const uint64_t key = 3;
    EXPECT_EQ(hashtable_insert_l(&embedded, &key, word(1), nullptr), 0);
    EXPECT_EQ(hashtable_get_nl(&embedded, &key), word(1));
    hashtable_free(&embedded, 0);

    hashtable locked{};
    locked.lock_mode = HASHTABLE_RWLOCK;
    const uint64_t rwlocks = calls_of("pthread_rwlock_init");
    ASSERT_EQ(hashtable_init(&locked, 8, HASHTABLE_KEY_UINT64), 0);
    EXPECT_EQ(calls_of("pthread_rwlock_init"), rwlocks + 1);
    EXPECT_EQ(hashtable_insert_rw(&locked, &key, word(1), nullptr), 0);
    hashtable_free(&locked, 0);
}

TEST(HashTable, SetMakesEachLockOnce) {
    ScopedTable table(8, 4, 0);
    const uint64_t mutexes = calls_of("pthread_mutex_init");
    const uint64_t rwlocks = calls_of("pthread_rwlock_init");
    EXPECT_EQ(hashtable_set(table, HASHTABLE_RWLOCK), 0);
    EXPECT_EQ(table->lock_mode, HASHTABLE_RWLOCK);
    EXPECT_EQ(hashtable_set(table, kBoth | 0x100), 0);
    EXPECT_EQ(table->lock_mode, kBoth);
    EXPECT_EQ(hashtable_set(table, kBoth), 0);
    EXPECT_EQ(hashtable_set(table, 0), 0);
    EXPECT_EQ(table->lock_mode, kBoth);
    EXPECT_EQ(calls_of("pthread_mutex_init"), mutexes + 1);
    EXPECT_EQ(calls_of("pthread_rwlock_init"), rwlocks + 1);
}

TEST(HashTable, HashesIntegersByTheirValueModuloTheSize) {
    for (uint64_t size : {1ul, 2ul, 3ul, 16ul, 100ul, 1024ul, 1031ul}) {
        ScopedTable table(size, 4);
        for (uint64_t key : {0ul, 1ul, 99ul, 65535ul, 4294967295ul, 0x123456789abcdeful, ~0ul}) {
            const auto key16 = static_cast<uint16_t>(key);
            const auto key32 = static_cast<uint32_t>(key);
            EXPECT_EQ(hashfunc_uint16(table, &key16), key16 % size);
            EXPECT_EQ(hashfunc_uint32(table, &key32), key32 % size);
            EXPECT_EQ(hashfunc_uint64(table, &key), key % size);
        }
    }
}

TEST(HashTable, HashesStringsByTheSumOfTheirUnsignedBytes) {
    ScopedTable table(1000, kStrings);
    EXPECT_EQ(hashfunc_strings(table, ""), 0u);
    EXPECT_EQ(hashfunc_strings(table, "ab"), 97u + 98u);
    EXPECT_EQ(hashfunc_strings(table, "\xff\xfe"), 255u + 254u);
    EXPECT_EQ(hashfunc_strings(table, "zzzzzzzzz"), 9 * 122 % 1000u);
}

TEST(HashTable, FindsStringsThatShareABucket) {
    ScopedTable table(16, kStrings);
    EXPECT_EQ(hashtable_insert(table, "ab", word(1), nullptr), 0);
    EXPECT_EQ(hashtable_insert(table, "ba", word(2), nullptr), 0);
    EXPECT_THAT(table.chain(3), ElementsAre(2, 1)) << "(97 + 98) mod 16, the newest in front";
    EXPECT_EQ(hashtable_get(table, "ab"), word(1));
    EXPECT_EQ(hashtable_get(table, "ba"), word(2));
    EXPECT_EQ(hashtable_get(table, "bb"), nullptr);
    EXPECT_EQ(hashtable_get(table, "a"), nullptr);
}

TEST(HashTable, KeepsCopiesOfItsKeys) {
    ScopedTable strings(16, kStrings);
    char text[] = "key";
    hashtable_insert(strings, text, word(1), nullptr);
    text[0] = 'K';
    EXPECT_EQ(hashtable_get(strings, "key"), word(1));
    EXPECT_STREQ(static_cast<char*>(strings->last->key), "key");

    ScopedTable numbers(16, HASHTABLE_KEY_UINT64);
    uint64_t key = 5;
    hashtable_insert(numbers, &key, word(2), nullptr);
    key = 6;
    EXPECT_EQ(hashtable_get(numbers, &key), nullptr);
    EXPECT_EQ(*static_cast<uint64_t*>(numbers->last->key), 5u);
}

TEST(HashTable, ReadsKeysOfEachWidthFromAnyAddress) {
    struct __attribute__((packed)) {
        char shift = 0;
        uint16_t key16 = 0xfffe;
        uint32_t key32 = 0xfffffffd;
        uint64_t key64 = 0xfffffffffffffffc;
    } packed;
    const std::pair<uint8_t, void*> cases[] = {{HASHTABLE_KEY_UINT16, &packed.shift + 1},
                                               {HASHTABLE_KEY_UINT32, &packed.shift + 3},
                                               {HASHTABLE_KEY_UINT64, &packed.shift + 7}};
    for (auto [type, key] : cases) {
        ScopedTable table(7, type);
        EXPECT_EQ(hashtable_insert(table, key, word(9), nullptr), 0);
        EXPECT_EQ(hashtable_get(table, key), word(9));
        EXPECT_EQ(hashtable_compare_keys(table, table->last->key, key), 0);
        hashtable_remove(table, key);
        EXPECT_EQ(table->count, 0u);
    }
}

TEST(HashTable, SecondInsertReplacesTheValueInItsPlace) {
    ScopedTable table(16, HASHTABLE_KEY_UINT32);
    const uint32_t first = 1, second = 17;
    hashtable_insert(table, &first, word(10), nullptr);
    hashtable_insert(table, &second, word(20), nullptr);
    const void* const key = table->last->older->key;

    void* old_value = word(99);
    EXPECT_EQ(hashtable_insert(table, &first, word(11), &old_value), 0);
    EXPECT_EQ(old_value, word(10));
    EXPECT_EQ(table->count, 2u);
    EXPECT_THAT(table.newest_first(), ElementsAre(20, 11));
    EXPECT_THAT(table.chain(1), ElementsAre(20, 11));
    EXPECT_EQ(table->last->older->key, key);

    EXPECT_EQ(hashtable_insert(table, &first, nullptr, nullptr), 0);
    EXPECT_EQ(hashtable_get(table, &first), nullptr);
    EXPECT_EQ(hashtable_insert(table, &first, word(12), &old_value), 0);
    EXPECT_EQ(old_value, word(10)) << "an old value of 0 is not stored";

    const uint32_t third = 3;
    EXPECT_EQ(hashtable_insert(table, &third, word(13), &old_value), 0);
    EXPECT_EQ(old_value, word(10)) << "nor is anything for a new key";
}

TEST(HashTable, ValueOfZeroLooksAbsent) {
    ScopedTable table(16, kStrings);
    EXPECT_EQ(hashtable_insert(table, "zero", nullptr, nullptr), 0);
    EXPECT_EQ(table->count, 1u);
    EXPECT_EQ(hashtable_get(table, "zero"), nullptr);
}

TEST(HashTable, RemovesFromAnyPlaceOfChainAndOrder) {
    // All in one bucket, so that chain and order are mirror images.
    const std::vector<std::vector<uint64_t>> removals = {
        {3, 2, 1}, {1, 2, 3}, {2, 3, 1}, {2, 1, 3}};
    for (const auto& order : removals) {
        ScopedTable table(1, HASHTABLE_KEY_UINT64);
        for (uint64_t key : {1, 2, 3}) hashtable_insert(table, &key, word(key), nullptr);
        std::vector<uintptr_t> left = {3, 2, 1};
        for (uint64_t key : order) {
            EXPECT_EQ(hashtable_remove(table, &key), 0);
            std::erase(left, key);
            EXPECT_EQ(table.newest_first(), left);
            EXPECT_EQ(table.chain(0), left);
            EXPECT_EQ(hashtable_get(table, &key), nullptr);
            EXPECT_EQ(hashtable_remove(table, &key), 0) << "absent keys are no error";
        }
        EXPECT_EQ(table->last, nullptr);
        EXPECT_EQ(table->count, 0u);
    }
}

TEST(HashTable, BehavesLikeAMapUnderRandomWork) {
    for (uint64_t size : {1ul, 7ul, 64ul, 1000ul}) {
        ScopedTable table(size, HASHTABLE_KEY_UINT16);
        std::map<uint16_t, uintptr_t> model;
        std::mt19937 random(static_cast<uint32_t>(size));
        for (int step = 0; step < 5000; ++step) {
            const auto key = static_cast<uint16_t>(random() % 300);
            switch (random() % 3) {
                case 0:
                    hashtable_insert_l(table, &key, word(step + 1u), nullptr);
                    model[key] = step + 1u;
                    break;
                case 1:
                    hashtable_remove_l(table, &key);
                    model.erase(key);
                    break;
                default:
                    EXPECT_EQ(number(hashtable_get_nl(table, &key)),
                              model.count(key) ? model[key] : 0);
            }
        }
        EXPECT_EQ(table->count, model.size());
        EXPECT_EQ(table.newest_first().size(), model.size());
    }
}

TEST(HashTable, UsesTheHashInItsRecord) {
    ScopedTable table(8, HASHTABLE_KEY_UINT64);
    table->hash = [](const hashtable*, const void*) -> uint64_t { return 5; };
    for (uint64_t key : {1, 2}) hashtable_insert(table, &key, word(key), nullptr);
    EXPECT_THAT(table.chain(5), ElementsAre(2, 1));
    const uint64_t key = 1;
    EXPECT_EQ(hashtable_get(table, &key), word(1));
}

TEST(HashTable, LockKeepingFormsReturnWithTheirLockHeld) {
    ScopedTable table(16, kStrings, kBoth);
    hashtable_insert(table, "key", word(1), nullptr);
    for (const char* key : {"key", "none", static_cast<const char*>(nullptr)}) {
        void* const expected = key && strcmp(key, "key") == 0 ? word(1) : nullptr;

        EXPECT_EQ(hashtable_get_l(table, key), expected);
        EXPECT_TRUE(mutex_is_held(table));
        EXPECT_EQ(pthread_mutex_unlock(&table->mutex), 0);

        EXPECT_EQ(hashtable_get_rw_rl(table, key), expected);
        EXPECT_EQ(rwlock_of(table), Held::for_reading);
        EXPECT_EQ(pthread_rwlock_unlock(&table->rwlock), 0);

        EXPECT_EQ(hashtable_get_rw_wl(table, key), expected);
        EXPECT_EQ(rwlock_of(table), Held::for_writing);
        EXPECT_EQ(pthread_rwlock_unlock(&table->rwlock), 0);
    }
}

TEST(HashTable, OtherFormsGiveTheirLocksBack) {
    ScopedTable table(16, kStrings, kBoth);
    EXPECT_EQ(hashtable_insert(table, "a", word(1), nullptr), 0);
    EXPECT_EQ(hashtable_insert_rw(table, "b", word(2), nullptr), 0);
    EXPECT_EQ(hashtable_insert_l(table, "c", word(3), nullptr), 0);
    EXPECT_EQ(hashtable_get(table, "a"), word(1));
    EXPECT_EQ(hashtable_get_rw(table, "b"), word(2));
    EXPECT_EQ(hashtable_get_nl(table, "c"), word(3));
    EXPECT_EQ(hashtable_remove(table, "a"), 0);
    EXPECT_EQ(hashtable_remove_rw(table, "b"), 0);
    hashtable_remove_l(table, "c");
    EXPECT_EQ(table->count, 0u);
    EXPECT_FALSE(mutex_is_held(table));
    EXPECT_EQ(rwlock_of(table), Held::nothing);
}

TEST(HashTable, ReadersShareTheReaderWriterLock) {
    ScopedTable table(16, kStrings, HASHTABLE_RWLOCK);
    hashtable_insert_rw(table, "key", word(1), nullptr);
    EXPECT_EQ(hashtable_get_rw_rl(table, "key"), word(1));
    void* seen = nullptr;
    std::thread([&] { seen = hashtable_get_rw(table, "key"); }).join();
    EXPECT_EQ(seen, word(1));
    pthread_rwlock_unlock(&table->rwlock);
}

TEST(HashTable, FlushReleasesEachValueInBucketOrderAndLeavesAnEmptyTable) {
    const int64_t live = live_allocations();
    ScopedTable table(4, HASHTABLE_KEY_UINT64);
    for (uint64_t key : {7, 0, 3, 4, 2}) hashtable_insert(table, &key, word(key), nullptr);
    released.clear();
    hashtable_flush_ref(table, release_value);
    EXPECT_THAT(released, ElementsAre(4, 0, 2, 3, 7)) << "a value of 0 is released too";
    EXPECT_EQ(table->last, nullptr);
    EXPECT_EQ(table->count, 0u);
    EXPECT_EQ(live_allocations(), live + 2);

    const uint64_t key = 7;
    EXPECT_EQ(hashtable_get(table, &key), nullptr);
    EXPECT_EQ(hashtable_insert(table, &key, word(1), nullptr), 0);
    hashtable_flush(table);
    EXPECT_EQ(table->count, 0u);
    EXPECT_EQ(live_allocations(), live + 2);
}

TEST(HashTable, FreeReleasesEverythingItOwns) {
    const int64_t live = live_allocations();
    for (uint8_t type : {kStrings, uint8_t{2}, uint8_t{3}, uint8_t{4}}) {
        hashtable* const table = hashtable_create_ex(4, type, kBoth);
        for (const char* key : {"12345678", "abcdefgh"})
            hashtable_insert(table, key, word(5), nullptr);
        released.clear();
        hashtable_free_ref(table, release_value, 1);
        EXPECT_THAT(released, ElementsAre(5, 5));
        EXPECT_EQ(live_allocations(), live);
    }
    hashtable embedded{};
    hashtable_init(&embedded, 4, kStrings);
    hashtable_insert_l(&embedded, "a", word(1), nullptr);
    hashtable_free_ref(&embedded, nullptr, 0);
    EXPECT_EQ(embedded.buckets, nullptr);
    EXPECT_EQ(live_allocations(), live);
}

TEST(HashTable, FreeDestroysTheLocksItHas) {
    for (int mode : {0, 1, 2, 3}) {
        hashtable* const table = hashtable_create_ex(4, kStrings, mode);
        const uint64_t mutexes = calls_of("pthread_mutex_destroy");
        const uint64_t rwlocks = calls_of("pthread_rwlock_destroy");
        hashtable_free(table, 1);
        EXPECT_EQ(calls_of("pthread_mutex_destroy") - mutexes, (mode & 1) ? 1u : 0u);
        EXPECT_EQ(calls_of("pthread_rwlock_destroy") - rwlocks, (mode & 2) ? 1u : 0u);
    }
}

TEST(HashTable, DumpPrintsEachEntryByItsKeyType) {
    CapturedStderr err;
    {
        ScopedTable table(4, HASHTABLE_KEY_UINT16);
        for (uint16_t key : {65535, 1, 5}) hashtable_insert(table, &key, word(key), nullptr);
        hashtable_dump(table, print_value);
        EXPECT_EQ(err.take(),
                  "- hashtable dump 4 size, type 2 -\npos[1], key: 5 =5\n"
                  "pos[1], key: 1 =1\npos[3], key: 65535 =65535\n");
        EXPECT_FALSE(mutex_is_held(table));
    }
    {
        ScopedTable table(3, HASHTABLE_KEY_UINT32);
        const uint32_t key = UINT32_MAX;
        hashtable_insert(table, &key, word(1), nullptr);
        hashtable_dump(table, print_value);
        EXPECT_EQ(err.take(), "- hashtable dump 3 size, type 3 -\npos[0], key: 4294967295 =1\n");
    }
    {
        ScopedTable table(16, HASHTABLE_KEY_UINT64);
        const uint64_t key = UINT64_MAX;
        hashtable_insert(table, &key, word(1), nullptr);
        hashtable_dump(table, print_value);
        EXPECT_EQ(err.take(),
                  "- hashtable dump 16 size, type 4 -\n"
                  "pos[15], key: 18446744073709551615=1\n");
    }
    {
        ScopedTable table(16, 9);
        hashtable_insert(table, "ab", word(1), nullptr);
        hashtable_insert(table, "ba", word(2), nullptr);
        hashtable_dump(table, print_value);
        EXPECT_EQ(err.take(),
                  "- hashtable dump 16 size, type 9 -\npos[3], key: ba =2\n"
                  "pos[3], key: ab =1\n");
        hashtable_dump(table, nullptr);
        EXPECT_EQ(err.take(),
                  "- hashtable dump 16 size, type 9 -\npos[3], key: ba pos[3], key: ab ");
    }
}

TEST(HashTable, ComparesKeysOfItsType) {
    const uint16_t a16 = 1, b16 = 2;
    const uint32_t a32 = 1, b32 = 0x10001;
    const uint64_t a64 = 1, b64 = 0x100000001;
    ScopedTable t16(4, 2), t32(4, 3), t64(4, 4), strings(4, kStrings);
    EXPECT_EQ(hashtable_compare_keys(t16, &a16, &a16), 0);
    EXPECT_EQ(hashtable_compare_keys(t16, &a16, &b16), 1);
    EXPECT_EQ(hashtable_compare_keys(t32, &a32, &a32), 0);
    EXPECT_EQ(hashtable_compare_keys(t32, &a32, &b32), 1);
    EXPECT_EQ(hashtable_compare_keys(t64, &a64, &a64), 0);
    EXPECT_EQ(hashtable_compare_keys(t64, &b64, &a64), 1);
    EXPECT_EQ(hashtable_compare_keys(strings, "a", "a"), 0);
    EXPECT_LT(hashtable_compare_keys(strings, "a", "b"), 0);
    EXPECT_GT(hashtable_compare_keys(strings, "ab", "a"), 0);
    EXPECT_EQ(hashtable_compare_keys(strings, nullptr, nullptr), 0);
    EXPECT_EQ(hashtable_compare_keys(strings, "a", nullptr), 1);
    EXPECT_EQ(hashtable_compare_keys(strings, nullptr, "a"), 1);
}

TEST(HashTable, CopiesKeysIntoMemoryOfTheirOwn) {
    const uint64_t key = 0x1122334455667788;
    for (uint8_t type : {uint8_t{2}, uint8_t{3}, uint8_t{4}}) {
        ScopedTable table(4, type);
        void* const copy = hashtable_create_key(table, &key);
        ASSERT_NE(copy, nullptr);
        EXPECT_NE(copy, &key);
        EXPECT_EQ(memcmp(copy, &key, size_t{1} << (type - 1)), 0);
        free(copy);
    }
    ScopedTable strings(4, kStrings);
    char* const copy = static_cast<char*>(hashtable_create_key(strings, "text"));
    EXPECT_STREQ(copy, "text");
    free(copy);
}

TEST(HashTable, IgnoresNull) {
    CapturedStderr err;
    CapturedLog log;
    void* old_value = word(4);
    for (hashtable* table : {static_cast<hashtable*>(nullptr)}) {
        EXPECT_EQ(hashtable_init(table, 4, 4), -1);
        EXPECT_EQ(hashtable_set(table, 1), 0);
        EXPECT_EQ(hashtable_insert_l(table, "k", word(1), &old_value), -1);
        EXPECT_EQ(hashtable_insert(table, "k", word(1), &old_value), -1);
        EXPECT_EQ(hashtable_insert_rw(table, "k", word(1), &old_value), -1);
        hashtable_remove_l(table, "k");
        EXPECT_EQ(hashtable_remove(table, "k"), 0);
        EXPECT_EQ(hashtable_remove_rw(table, "k"), 0);
        EXPECT_EQ(hashtable_get_nl(table, "k"), nullptr);
        EXPECT_EQ(hashtable_get_l(table, "k"), nullptr);
        EXPECT_EQ(hashtable_get(table, "k"), nullptr);
        EXPECT_EQ(hashtable_get_rw(table, "k"), nullptr);
        EXPECT_EQ(hashtable_get_rw_rl(table, "k"), nullptr);
        EXPECT_EQ(hashtable_get_rw_wl(table, "k"), nullptr);
        hashtable_flush(table);
        hashtable_flush_ref(table, release_value);
        hashtable_free(table, 1);
        hashtable_free_ref(table, release_value, 1);
        hashtable_dump(table, print_value);
        EXPECT_EQ(hashfunc_strings(table, "k"), 0u);
        EXPECT_EQ(hashtable_create_key(table, "k"), nullptr);
    }

    ScopedTable table(4, kStrings, kBoth);
    EXPECT_EQ(hashtable_insert_l(table, nullptr, word(1), &old_value), -1);
    EXPECT_EQ(hashtable_insert(table, nullptr, word(1), &old_value), -1);
    EXPECT_EQ(hashtable_insert_rw(table, nullptr, word(1), &old_value), -1);
    hashtable_remove_l(table, nullptr);
    EXPECT_EQ(hashtable_remove(table, nullptr), 0);
    EXPECT_EQ(hashtable_remove_rw(table, nullptr), 0);
    EXPECT_EQ(hashtable_get_nl(table, nullptr), nullptr);
    EXPECT_EQ(hashtable_get(table, nullptr), nullptr);
    EXPECT_EQ(hashtable_get_rw(table, nullptr), nullptr);
    EXPECT_EQ(hashtable_create_key(table, nullptr), nullptr);
    EXPECT_EQ(hashfunc_strings(table, nullptr), 0u);
    EXPECT_EQ(hashfunc_uint16(table, nullptr), 0u);
    EXPECT_EQ(hashfunc_uint32(table, nullptr), 0u);
    EXPECT_EQ(hashfunc_uint64(table, nullptr), 0u);
    EXPECT_EQ(table->count, 0u);
    EXPECT_FALSE(mutex_is_held(table));
    EXPECT_EQ(rwlock_of(table), Held::nothing);
    EXPECT_EQ(old_value, word(4));
    EXPECT_EQ(err.text(), "");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(HashTable, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    CapturedLog log;
    for_each_failing_allocation([] { return hashtable_create(16, kStrings); },
                                [](hashtable* table) { hashtable_free(table, 1); });
    for_each_failing_allocation([] { return hashtable_create_ex(16, kStrings, kBoth); },
                                [](hashtable* table) { hashtable_free(table, 1); });
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:hashtable:hashtable_init: calloc(): Cannot allocate memory",
                            "WARN:hashtable:hashtable_init: calloc(): Cannot allocate memory"))
        << "a record that cannot be allocated is not logged";
}

TEST(HashTable, FailedInitLeavesTheRecordAsItWas) {
    hashtable embedded{};
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(hashtable_init(&embedded, 16, 4), -1);
    EXPECT_EQ(embedded.size, 0u);
    EXPECT_EQ(embedded.hash, nullptr);
    hashtable_free(&embedded, 0);
}

TEST(HashTable, InsertWithoutMemoryChangesNothing) {
    CapturedLog log;
    for (const auto insert : {hashtable_insert_l, hashtable_insert, hashtable_insert_rw}) {
        for (uint8_t type : {kStrings, uint8_t{2}, uint8_t{3}, uint8_t{4}}) {
            for (FailingAllocations round; round.next();) {
                ScopedTable table(4, type, kBoth);
                hashtable_insert(table, "abcdefgh", word(1), nullptr);
                void* old_value = nullptr;
                round.arm();
                EXPECT_EQ(insert(table, "abcdefgh", word(2), &old_value), 0)
                    << "replacing allocates nothing";
                const int result = insert(table, "ABCDEFGH", word(3), nullptr);
                round.disarm();
                EXPECT_EQ(result, round.hit() ? -1 : 0);
                EXPECT_EQ(old_value, word(1));
                EXPECT_EQ(table.newest_first(),
                          round.hit() ? std::vector<uintptr_t>{2} : (std::vector<uintptr_t>{3, 2}));
                EXPECT_FALSE(mutex_is_held(table));
                EXPECT_EQ(rwlock_of(table), Held::nothing);
            }
        }
    }
    std::vector<std::string> expected;
    const std::string no_entry =
        "WARN:hashtable:hashtable_insert_l: malloc(): Cannot allocate memory";
    for (int form = 0; form < 3; ++form) {
        expected.push_back(no_entry);
        expected.push_back("WARN:hashtable:hashtable_create_key: strdup(): Cannot allocate memory");
        for (int type = 2; type <= 4; ++type) {
            expected.push_back(no_entry);
            expected.push_back(
                "WARN:hashtable:hashtable_create_key: malloc(): Cannot allocate memory");
        }
    }
    EXPECT_EQ(log.lines(), expected);
}

TEST(HashTable, ReportsAKeyCopyThatFails) {
    CapturedLog log;
    for (uint8_t type : {kStrings, uint8_t{2}, uint8_t{3}, uint8_t{4}}) {
        ScopedTable table(4, type);
        for_each_failing_allocation([&] { return hashtable_create_key(table, "abcdefgh"); }, free);
    }
    const std::string no_room =
        "WARN:hashtable:hashtable_create_key: malloc(): Cannot allocate memory";
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:hashtable:hashtable_create_key: strdup(): Cannot allocate memory",
                            no_room, no_room, no_room));
}

namespace {

struct Form {
    const char* name;
    void (*call)(hashtable* table);
    const char* locks;
    const char* unlocks;  // null: returns with the lock held
};

void PrintTo(const Form& form, std::ostream* out) { *out << form.name; }

constexpr const char* kMutexLock = "pthread_mutex_lock";
constexpr const char* kMutexUnlock = "pthread_mutex_unlock";
constexpr const char* kReadLock = "pthread_rwlock_rdlock";
constexpr const char* kWriteLock = "pthread_rwlock_wrlock";
constexpr const char* kRwUnlock = "pthread_rwlock_unlock";

const Form kForms[] = {
    {"hashtable_insert", [](hashtable* t) { hashtable_insert(t, "k", word(1), nullptr); },
     kMutexLock, kMutexUnlock},
    {"hashtable_insert_rw", [](hashtable* t) { hashtable_insert_rw(t, "k", word(1), nullptr); },
     kWriteLock, kRwUnlock},
    {"hashtable_remove", [](hashtable* t) { hashtable_remove(t, "k"); }, kMutexLock, kMutexUnlock},
    {"hashtable_remove_rw", [](hashtable* t) { hashtable_remove_rw(t, "k"); }, kWriteLock,
     kRwUnlock},
    {"hashtable_get", [](hashtable* t) { hashtable_get(t, "k"); }, kMutexLock, kMutexUnlock},
    {"hashtable_get_l", [](hashtable* t) { hashtable_get_l(t, "k"); }, kMutexLock, nullptr},
    {"hashtable_get_rw", [](hashtable* t) { hashtable_get_rw(t, "k"); }, kReadLock, kRwUnlock},
    {"hashtable_get_rw_rl", [](hashtable* t) { hashtable_get_rw_rl(t, "k"); }, kReadLock, nullptr},
    {"hashtable_get_rw_wl", [](hashtable* t) { hashtable_get_rw_wl(t, "k"); }, kWriteLock, nullptr},
    {"hashtable_dump", [](hashtable* t) { hashtable_dump(t, nullptr); }, kMutexLock, kMutexUnlock},
};

class HashTableLock : public testing::TestWithParam<Form> {};

// What the form writes, and how its process ends, when `call` returns `error`.
ChildResult with_failing(const char* call, int error, const Form& form) {
    return run_in_child([&] {
        hashtable* const table = hashtable_create_ex(4, kStrings, kBoth);
        FailingCall fault(call, error);
        errno = ENOENT;
        form.call(table);
    });
}

std::string fatal_line(const char* function, const char* call, int code) {
    return std::string("./hashtable/hashtable:") + function + ": " + call +
           "(): No such file or directory (" + std::to_string(code) + ")\n";
}

}  // namespace

TEST_P(HashTableLock, FailedLockIsFatal) {
    const Form& form = GetParam();
    const ChildResult child = with_failing(form.locks, EINVAL, form);
    EXPECT_TRUE(child.exited);
    if (form.locks == kMutexLock) {
        EXPECT_EQ(child.status, 1);
        EXPECT_EQ(child.err,
                  "./pthread_utils:pthread_utils_mutex_lock pthread_mutex_lock(): Invalid argument "
                  "(22)\n");
    } else {
        EXPECT_EQ(child.status, 255);
        EXPECT_EQ(child.err, fatal_line(form.name, form.locks, EINVAL));
    }
}

TEST_P(HashTableLock, FailedUnlockIsFatalUnderTheFunctionsName) {
    const Form& form = GetParam();
    if (!form.unlocks) {
        EXPECT_EQ(with_failing(kMutexUnlock, EPERM, form).status, 0);
        EXPECT_EQ(with_failing(kRwUnlock, EPERM, form).status, 0);
        return;
    }
    const ChildResult child = with_failing(form.unlocks, EPERM, form);
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_TRUE(child.err.ends_with(fatal_line(form.name, form.unlocks, EPERM))) << child.err;
}

INSTANTIATE_TEST_SUITE_P(Forms, HashTableLock, testing::ValuesIn(kForms),
                         [](const auto& form) { return std::string(form.param.name); });

TEST(HashTable, EndsTheProcessWhenALockCannotBeMade) {
    for (const char* call : {"pthread_mutex_init", "pthread_rwlock_init"}) {
        const ChildResult at_init = run_in_child([&] {
            FailingCall fault(call, EAGAIN);
            errno = ENOENT;
            hashtable_create_ex(4, kStrings, kBoth);
        });
        EXPECT_TRUE(at_init.exited);
        EXPECT_EQ(at_init.status, 255);
        EXPECT_EQ(at_init.err, fatal_line("hashtable_init", call, EAGAIN));

        const ChildResult at_set = run_in_child([&] {
            hashtable* const table = hashtable_create_ex(4, kStrings, 0);
            FailingCall fault(call, EAGAIN);
            errno = ENOENT;
            hashtable_set(table, kBoth);
        });
        EXPECT_TRUE(at_set.exited);
        EXPECT_EQ(at_set.status, 255);
        EXPECT_EQ(at_set.err, fatal_line("hashtable_set", call, EAGAIN));
    }
}

TEST(HashTable, AddsTheReaderWriterLockBeforeTheMutex) {
    const ChildResult child = run_in_child([] {
        hashtable* const table = hashtable_create_ex(4, kStrings, 0);
        FailingCall no_rwlock("pthread_rwlock_init", EAGAIN);
        FailingCall no_mutex("pthread_mutex_init", EAGAIN);
        errno = ENOENT;
        hashtable_set(table, kBoth);
    });
    EXPECT_EQ(child.err, fatal_line("hashtable_set", "pthread_rwlock_init", EAGAIN));
}

TEST(HashTable, FlushesASparseTableWithoutTouchingItsEmptyBuckets) {
    const uint64_t buckets = uint64_t{1} << 24;
    ScopedTable table(buckets, HASHTABLE_KEY_UINT64);
    hashtable* const t = table;
    const uint64_t key = 3;
    ASSERT_EQ(hashtable_insert(t, &key, word(1), nullptr), 0);

    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const auto middle = reinterpret_cast<uintptr_t>(t->buckets + buckets / 2) & ~(page - 1);
    const auto pages_in_memory = [&] {
        std::vector<unsigned char> resident(16);
        EXPECT_EQ(mincore(reinterpret_cast<void*>(middle), 16 * page, resident.data()), 0);
        return resident;
    };
    const auto before = pages_in_memory();  // none, unless the allocator has written to them
    hashtable_flush(t);
    EXPECT_EQ(pages_in_memory(), before);
    EXPECT_EQ(t->buckets[3], nullptr);
    EXPECT_EQ(t->count, 0u);
}

TEST(HashTable, PrintsAMutexThatCannotBeDestroyedAndGoesOn) {
    const int64_t live = live_allocations();
    CapturedStderr err;
    {
        hashtable* const table = hashtable_create(4, kStrings);
        FailingCall fault("pthread_mutex_destroy", EBUSY);
        errno = ENOENT;
        hashtable_free(table, 1);
    }
    EXPECT_EQ(err.take(), fatal_line("hashtable_free", "pthread_mutex_destroy", EBUSY));
    {
        hashtable* const table = hashtable_create(4, kStrings);
        FailingCall fault("pthread_mutex_destroy", EBUSY);
        errno = ENOENT;
        hashtable_free_ref(table, nullptr, 1);
    }
    EXPECT_EQ(err.take(), fatal_line("hashtable_free_ref", "pthread_mutex_destroy", EBUSY));
    {
        hashtable* const table = hashtable_create_ex(4, kStrings, HASHTABLE_RWLOCK);
        FailingCall fault("pthread_rwlock_destroy", EBUSY);
        hashtable_free(table, 1);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(err.take(), "") << "a reader/writer lock's destruction is not looked at";
    EXPECT_EQ(live_allocations(), live);
}

namespace {

// Threads insert, look up and remove keys of their own, and read everybody's.
template <class Insert, class Get, class Remove>
void work_together(hashtable* table, Insert insert, Get get, Remove remove) {
    constexpr uint64_t kThreads = 4, kKeys = 500;
    std::atomic<uint64_t> wrong{0};
    std::vector<std::thread> threads;
    for (uint64_t t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int round = 0; round < 4; ++round) {
                for (uint64_t key = t; key < kKeys * kThreads; key += kThreads)
                    wrong += insert(table, &key, word(key + 1), nullptr) != 0;
                for (uint64_t key = 0; key < kKeys * kThreads; ++key) {
                    const uintptr_t value = number(get(table, &key));
                    wrong += value != key + 1 && (key % kThreads == t || value != 0);
                }
                for (uint64_t key = t; key < kKeys * kThreads; key += kThreads) remove(table, &key);
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(wrong, 0u);
    EXPECT_EQ(table->count, 0u);
    EXPECT_EQ(table->last, nullptr);
}

}  // namespace

TEST(HashTable, ServesManyThreadsUnderItsMutex) {
    ScopedTable table(64, HASHTABLE_KEY_UINT64);
    work_together(table, hashtable_insert, hashtable_get, hashtable_remove);
}

TEST(HashTable, ServesManyThreadsUnderItsReaderWriterLock) {
    ScopedTable table(64, HASHTABLE_KEY_UINT64, HASHTABLE_RWLOCK);
    work_together(table, hashtable_insert_rw, hashtable_get_rw, hashtable_remove_rw);
}
