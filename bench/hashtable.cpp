// The hash table against the tables a C or C++ daemon would otherwise use, each behind the same
// kind of lock: 1,000 keys in 1,024 buckets and 100,000 in 131,072, by one thread and by two.
//
// Keys are random and come in another order at each pass. A run is one pass over all of them:
// insert into the emptied table, look each up, look up as many absent ones, remove each. Two
// threads share one table, and halve the keys for insert and remove. Only the pass is timed.

#include <ztlib/hashtable/hashtable.h>
#include <bench/support/crew.hpp>

#include <benchmark/benchmark.h>

#ifdef HAVE_GLIB
#    include <glib.h>
#endif
#ifdef HAVE_APR
#    include <apr_general.h>
#    include <apr_hash.h>
#    include <apr_pools.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include <pthread.h>

namespace {

// --- keys ----------------------------------------------------------------------------------------

struct Numbers {
    static constexpr const char* name = "u64";
    static constexpr uint8_t type = HASHTABLE_KEY_UINT64;
    using Key = uint64_t;

    static Key make(std::mt19937_64& random) { return random(); }
    static const void* address(const Key& key) { return &key; }
    static size_t bytes(const Key& key) { return sizeof key; }
};

struct Names {
    static constexpr const char* name = "string";
    static constexpr uint8_t type = 0;
    using Key = std::string;

    static Key make(std::mt19937_64& random) {
        char text[48];
        snprintf(text, sizeof text, "/srv/%lx/session", random());
        return text;
    }
    static const void* address(const Key& key) { return key.c_str(); }
    static size_t bytes(const Key& key) { return key.size(); }
};

// --- locks ---------------------------------------------------------------------------------------

struct Mutex {
    static constexpr const char* name = "mutex";
    static constexpr int mode = HASHTABLE_MUTEX;
    void read() { pthread_mutex_lock(&mutex); }
    void write() { pthread_mutex_lock(&mutex); }
    void unlock() { pthread_mutex_unlock(&mutex); }
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
};

struct ReaderWriter {
    static constexpr const char* name = "rwlock";
    static constexpr int mode = HASHTABLE_RWLOCK;
    void read() { pthread_rwlock_rdlock(&lock); }
    void write() { pthread_rwlock_wrlock(&lock); }
    void unlock() { pthread_rwlock_unlock(&lock); }
    pthread_rwlock_t lock = PTHREAD_RWLOCK_INITIALIZER;
};

// --- tables --------------------------------------------------------------------------------------

template <class Keys, class Lock>
class Ztlib {
  public:
    static constexpr const char* name = "ztlib";
    using Key = typename Keys::Key;

    explicit Ztlib(size_t buckets) : table_(hashtable_create_ex(buckets, Keys::type, Lock::mode)) {}
    ~Ztlib() { hashtable_free(table_, 1); }

    void insert(const Key& key, void* value) {
        if constexpr (Lock::mode == HASHTABLE_MUTEX)
            hashtable_insert(table_, Keys::address(key), value, nullptr);
        else
            hashtable_insert_rw(table_, Keys::address(key), value, nullptr);
    }
    void* get(const Key& key) {
        if constexpr (Lock::mode == HASHTABLE_MUTEX)
            return hashtable_get(table_, Keys::address(key));
        else
            return hashtable_get_rw(table_, Keys::address(key));
    }
    void remove(const Key& key) {
        if constexpr (Lock::mode == HASHTABLE_MUTEX)
            hashtable_remove(table_, Keys::address(key));
        else
            hashtable_remove_rw(table_, Keys::address(key));
    }

  private:
    hashtable* table_;
};

struct TransparentHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

template <class Keys, class Lock>
class Standard {
  public:
    static constexpr const char* name = "unordered_map";
    using Key = typename Keys::Key;

    explicit Standard(size_t buckets) { map_.reserve(buckets); }

    void insert(const Key& key, void* value) {
        lock_.write();
        map_[key] = value;
        lock_.unlock();
    }
    void* get(const Key& key) {
        lock_.read();
        const auto found = map_.find(key);
        void* const value = found == map_.end() ? nullptr : found->second;
        lock_.unlock();
        return value;
    }
    void remove(const Key& key) {
        lock_.write();
        map_.erase(key);
        lock_.unlock();
    }

  private:
    using Map = std::conditional_t<std::is_same_v<Key, std::string>,
                                   std::unordered_map<Key, void*, TransparentHash, std::equal_to<>>,
                                   std::unordered_map<Key, void*>>;
    Map map_;
    Lock lock_;
};

#ifdef HAVE_GLIB
// Keeps copies of its keys, as ours does.
template <class Keys, class Lock>
class Glib {
  public:
    static constexpr const char* name = "GHashTable";
    using Key = typename Keys::Key;

    explicit Glib(size_t) {
        if constexpr (std::is_same_v<Key, std::string>)
            table_ = g_hash_table_new_full(g_str_hash, g_str_equal, g_free, nullptr);
        else
            table_ = g_hash_table_new_full(g_int64_hash, g_int64_equal, g_free, nullptr);
    }
    ~Glib() { g_hash_table_destroy(table_); }

    void insert(const Key& key, void* value) {
        lock_.write();
        g_hash_table_insert(table_, copy(key), value);
        lock_.unlock();
    }
    void* get(const Key& key) {
        lock_.read();
        void* const value = g_hash_table_lookup(table_, Keys::address(key));
        lock_.unlock();
        return value;
    }
    void remove(const Key& key) {
        lock_.write();
        g_hash_table_remove(table_, Keys::address(key));
        lock_.unlock();
    }

  private:
    static void* copy(const Key& key) {
        if constexpr (std::is_same_v<Key, std::string>)
            return g_strdup(key.c_str());
        else
            return g_memdup2(&key, sizeof key);
    }
    GHashTable* table_;
    Lock lock_;
};

// Keeps the number itself in place of a pointer to a key, which is no table of 64-bit keys by
// address.
template <class Keys, class Lock>
class GlibDirect {
  public:
    static constexpr const char* name = "shown:GHashTable_direct";
    using Key = typename Keys::Key;

    explicit GlibDirect(size_t) : table_(g_hash_table_new(g_direct_hash, g_direct_equal)) {}
    ~GlibDirect() { g_hash_table_destroy(table_); }

    void insert(const Key& key, void* value) {
        lock_.write();
        g_hash_table_insert(table_, GSIZE_TO_POINTER(key), value);
        lock_.unlock();
    }
    void* get(const Key& key) {
        lock_.read();
        void* const value = g_hash_table_lookup(table_, GSIZE_TO_POINTER(key));
        lock_.unlock();
        return value;
    }
    void remove(const Key& key) {
        lock_.write();
        g_hash_table_remove(table_, GSIZE_TO_POINTER(key));
        lock_.unlock();
    }

  private:
    GHashTable* table_;
    Lock lock_;
};
#endif

#ifdef HAVE_APR
// Keeps pointers to the caller's keys, and its entries in a pool.
template <class Keys, class Lock>
class Apr {
  public:
    static constexpr const char* name = "apr_hash";
    using Key = typename Keys::Key;

    explicit Apr(size_t) {
        static const bool initialised = apr_initialize() == APR_SUCCESS;
        if (!initialised || apr_pool_create(&pool_, nullptr) != APR_SUCCESS) abort();
        table_ = apr_hash_make(pool_);
    }
    ~Apr() { apr_pool_destroy(pool_); }

    void insert(const Key& key, void* value) { set(key, value); }
    void* get(const Key& key) {
        lock_.read();
        void* const value = apr_hash_get(table_, Keys::address(key), bytes(key));
        lock_.unlock();
        return value;
    }
    void remove(const Key& key) { set(key, nullptr); }

  private:
    static apr_ssize_t bytes(const Key& key) { return static_cast<apr_ssize_t>(Keys::bytes(key)); }
    void set(const Key& key, void* value) {
        lock_.write();
        apr_hash_set(table_, Keys::address(key), bytes(key), value);
        lock_.unlock();
    }
    apr_pool_t* pool_ = nullptr;
    apr_hash_t* table_;
    Lock lock_;
};
#endif

// --- passes --------------------------------------------------------------------------------------

template <class Keys>
struct Data {
    std::vector<typename Keys::Key> keys;
    std::vector<typename Keys::Key> absent;
    std::vector<std::vector<uint32_t>> orders;
    size_t next_order = 0;

    explicit Data(size_t count) {
        std::mt19937_64 random(count);
        for (size_t i = 0; i < count; ++i) keys.push_back(Keys::make(random));
        for (size_t i = 0; i < count; ++i) absent.push_back(Keys::make(random));
        std::vector<uint32_t> order(count);
        for (size_t i = 0; i < count; ++i) order[i] = static_cast<uint32_t>(i);
        for (int i = 0; i < 4; ++i) {
            std::shuffle(order.begin(), order.end(), random);
            orders.push_back(order);
        }
    }
    const std::vector<uint32_t>& order() { return orders[next_order++ % orders.size()]; }

    static Data& of(size_t count) {
        static std::unordered_map<size_t, std::unique_ptr<Data>> all;
        auto& data = all[count];
        if (!data) data = std::make_unique<Data>(count);
        return *data;
    }
};

void* value_of(uint32_t index) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(index) + 1);
}

enum class Pass { insert, hit, miss, remove };
constexpr const char* kPassNames[] = {"insert", "hit", "miss", "remove"};

// A processor for each thread.
std::vector<size_t> processors(size_t threads) {
    std::vector<size_t> all;
    for (size_t i = 0; i < threads; ++i) all.push_back(i);
    return all;
}

template <class Table, class Keys>
class Passes {
  public:
    Passes(Data<Keys>& data, size_t buckets, size_t threads)
        : data_(data), threads_(threads), table_(buckets), crew_(processors(threads)) {}

    double insert() {
        const auto& order = data_.order();
        return crew_.time([&](size_t thread) {
            for (size_t i = thread; i < order.size(); i += threads_)
                table_.insert(data_.keys[order[i]], value_of(order[i]));
        });
    }
    double remove() {
        const auto& order = data_.order();
        return crew_.time([&](size_t thread) {
            for (size_t i = thread; i < order.size(); i += threads_)
                table_.remove(data_.keys[order[i]]);
        });
    }
    double look_up(const std::vector<typename Keys::Key>& keys) {
        const std::vector<uint32_t>* orders[] = {&data_.order(), &data_.order()};
        return crew_.time([&](size_t thread) {
            for (uint32_t index : *orders[thread])
                benchmark::DoNotOptimize(table_.get(keys[index]));
        });
    }
    double hit() { return look_up(data_.keys); }
    double miss() { return look_up(data_.absent); }

    // Every answer, once before anything is timed.
    bool answers_rightly() {
        bool right = true;
        insert();
        for (uint32_t i = 0; i < data_.keys.size(); ++i) {
            right = right && table_.get(data_.keys[i]) == value_of(i);
            right = right && !table_.get(data_.absent[i]);
        }
        remove();
        for (const auto& key : data_.keys) right = right && !table_.get(key);
        return right;
    }

  private:
    Data<Keys>& data_;
    size_t threads_;
    Table table_;
    zt_bench::Crew crew_;
};

template <class Table, class Keys>
void run(benchmark::State& state, Pass pass, size_t count, size_t buckets, size_t threads) {
    Passes<Table, Keys> passes(Data<Keys>::of(count), buckets, threads);
    if (!passes.answers_rightly()) {
        state.SkipWithError("wrong answer");
        return;
    }
    if (pass == Pass::hit || pass == Pass::miss) passes.insert();
    for (auto _ : state) {
        double seconds = 0;
        switch (pass) {
            case Pass::insert:
                seconds = passes.insert();
                passes.remove();
                break;
            case Pass::hit:
                seconds = passes.hit();
                break;
            case Pass::miss:
                seconds = passes.miss();
                break;
            case Pass::remove:
                passes.insert();
                seconds = passes.remove();
                break;
        }
        state.SetIterationTime(seconds);
    }
}

template <template <class, class> class Table, class Keys, class Lock>
void add(size_t count, size_t buckets, size_t threads) {
    for (Pass pass : {Pass::insert, Pass::hit, Pass::miss, Pass::remove}) {
        const std::string job = std::string("hashtable/") + Keys::name + "/" +
                                std::to_string(count) + "/" + Lock::name + "/" +
                                std::to_string(threads) + "_thread/" +
                                kPassNames[static_cast<int>(pass)] + "/";
        using Engine = Table<Keys, Lock>;
        benchmark::RegisterBenchmark((job + Engine::name).c_str(), run<Engine, Keys>, pass, count,
                                     buckets, threads)
            ->UseManualTime()
            ->Unit(benchmark::kMicrosecond);
    }
}

template <class Keys, class Lock>
void add_all(size_t count, size_t buckets, size_t threads) {
    add<Ztlib, Keys, Lock>(count, buckets, threads);
    add<Standard, Keys, Lock>(count, buckets, threads);
#ifdef HAVE_GLIB
    add<Glib, Keys, Lock>(count, buckets, threads);
    if constexpr (std::is_same_v<Keys, Numbers>)
        add<GlibDirect, Keys, Lock>(count, buckets, threads);
#endif
#ifdef HAVE_APR
    add<Apr, Keys, Lock>(count, buckets, threads);
#endif
}

const bool registered = [] {
    const std::pair<size_t, size_t> sizes[] = {{1'000, 1'024}, {100'000, 131'072}};
    for (auto [count, buckets] : sizes)
        for (size_t threads : {1, 2}) {
            add_all<Numbers, Mutex>(count, buckets, threads);
            add_all<Numbers, ReaderWriter>(count, buckets, threads);
        }
    add_all<Names, Mutex>(1'000, 1'024, 1);
    return true;
}();

}  // namespace
