// Small databases in a file: 64-byte records with a 32-byte key, which every engine finds, inserts,
// edits, removes and lists, opened for each operation as programs do that share a file now and
// then, and kept open for look-ups. No engine syncs to the disk; each locks as it does by itself,
// and the kept descriptor of ours is locked around each look-up.
//
// The sizes at which look-ups alone are measured show from how many records on an index pays.

#include <ztlib/db/filedb_fixed.h>

#include <benchmark/benchmark.h>

#ifdef HAVE_GDBM
#    include <gdbm.h>
#endif
#ifdef HAVE_LMDB
#    include <lmdb.h>
#endif
#ifdef HAVE_SQLITE3
#    include <sqlite3.h>
#endif
#ifdef HAVE_TDB
// Its header wants these first.
#    include <signal.h>
#    include <stdbool.h>
#    include <sys/types.h>
#    include <tdb.h>
#endif

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace {

constexpr size_t kKeySize = 32;
constexpr size_t kValueSize = 32;
constexpr mode_t kMode = 0644;

struct Record {
    char key[kKeySize];
    char value[kValueSize];
};

[[noreturn]] void fail(const char* engine, const char* what) {
    fprintf(stderr, "%s: %s failed\n", engine, what);
    exit(1);
}

void expect(bool condition, const char* engine, const char* what) {
    if (!condition) fail(engine, what);
}

Record record(size_t number) {
    Record made{};
    snprintf(made.key, sizeof made.key, "host-%06zu.rack%zu.example", number, number % 7);
    snprintf(made.value, sizeof made.value, "%zu", number * number);
    return made;
}

// The numbers below `count`, in an order that has nothing to do with theirs.
std::vector<size_t> shuffled(size_t count, unsigned seed) {
    std::vector<size_t> order(count);
    for (size_t i = 0; i < count; ++i) order[i] = i;
    std::shuffle(order.begin(), order.end(), std::minstd_rand(seed));
    return order;
}
constexpr unsigned kInsertOrder = 1, kUseOrder = 2;

// What a walk has seen: enough to tell that all records were looked at. Timed walks do without.
struct Seen {
    size_t records = 0;
    size_t sum = 0;
    void add(const char* value) {
        ++records;
        sum += static_cast<unsigned char>(value[0]);
    }
    bool operator==(const Seen&) const = default;
};

void look_at(Seen* seen, const void* value) {
    __asm__ volatile("" : : "r"(value) : "memory");
    if (seen) seen->add(static_cast<const char*>(value));
}

// One database. Operations return whether they did what they were asked; open() precedes them.
struct Engine {
    virtual ~Engine() = default;
    virtual void open(bool writing) = 0;
    virtual void close() = 0;
    virtual bool find(const Record& wanted, Record& found) = 0;
    virtual bool insert(const Record& r) = 0;
    virtual bool edit(const Record& r) = 0;
    virtual bool remove(const Record& r) = 0;
    virtual void list(Seen* seen) = 0;  // null: only looks at each record
};

// Opens the file in each operation, by itself.
class Ours : public Engine {
  public:
    explicit Ours(const std::string& path) {
        constexpr uint32_t kGivenWidth = 9;
        filedb_fixed_init(&db_, path.c_str(), sizeof(Record), kGivenWidth, kKeySize);
    }
    void open(bool) override {}
    void close() override {}
    bool find(const Record& wanted, Record& found) override {
        return filedb_fixed_find(&db_, 0, wanted.key, &found) == 0;
    }
    bool insert(const Record& r) override { return filedb_fixed_insert(&db_, 0, r.key, &r) == 0; }
    bool edit(const Record& r) override {
        return filedb_fixed_edit(&db_, 0, r.key, &r, nullptr) == 0;
    }
    bool remove(const Record& r) override { return filedb_fixed_remove(&db_, 0, r.key) == 0; }
    void list(Seen* seen) override {
        expect(filedb_fixed_list(&db_, 0, seen, visit) == 0, "ztlib", "list");
    }
    static int visit(void* seen, void* r, int32_t) {
        look_at(static_cast<Seen*>(seen), static_cast<const Record*>(r)->value);
        return 0;
    }

  protected:
    filedb_fixed db_;
};

class OursKept : public Ours {
  public:
    using Ours::Ours;
    void open(bool) override { fd_ = filedb_fixed_fdopen(&db_); }
    void close() override { filedb_fixed_fdclose(&db_, fd_); }
    bool find(const Record& wanted, Record& found) override {
        flock(fd_, LOCK_SH);
        const int result = filedb_fixed_find(&db_, fd_, wanted.key, &found);
        flock(fd_, LOCK_UN);
        return result == 0;
    }

  private:
    int fd_ = -1;
};

#ifdef HAVE_SQLITE3
class Sqlite : public Engine {
  public:
    explicit Sqlite(const std::string& path) : path_(path) {
        open(true);
        run("CREATE TABLE t (k BLOB PRIMARY KEY, v BLOB) WITHOUT ROWID");
        close();
    }
    void open(bool writing) override {
        const int flags =
            writing ? SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE : SQLITE_OPEN_READONLY;
        expect(sqlite3_open_v2(path_.c_str(), &db_, flags, nullptr) == SQLITE_OK, "sqlite", "open");
        if (!writing) return;
        run("PRAGMA synchronous=OFF");
        run("PRAGMA journal_mode=MEMORY");
    }
    void close() override {
        for (sqlite3_stmt*& s : statements_) {
            sqlite3_finalize(s);
            s = nullptr;
        }
        sqlite3_close(db_);
    }
    bool find(const Record& wanted, Record& found) override {
        sqlite3_stmt* s = bound(kFind, "SELECT v FROM t WHERE k = ?1", wanted, false);
        const bool there = sqlite3_step(s) == SQLITE_ROW;
        if (there) {
            found = wanted;
            memcpy(found.value, sqlite3_column_blob(s, 0), kValueSize);
        }
        sqlite3_reset(s);
        return there;
    }
    bool insert(const Record& r) override {
        return change(bound(kInsert, "INSERT INTO t VALUES (?1, ?2)", r, true));
    }
    bool edit(const Record& r) override {
        return change(bound(kEdit, "UPDATE t SET v = ?2 WHERE k = ?1", r, true));
    }
    bool remove(const Record& r) override {
        return change(bound(kRemove, "DELETE FROM t WHERE k = ?1", r, false));
    }
    void list(Seen* seen) override {
        sqlite3_stmt* s = prepared(kList, "SELECT k, v FROM t");
        while (sqlite3_step(s) == SQLITE_ROW) look_at(seen, sqlite3_column_blob(s, 1));
        sqlite3_reset(s);
    }

  private:
    enum Statement { kFind, kInsert, kEdit, kRemove, kList, kStatements };

    void run(const char* text) {
        expect(sqlite3_exec(db_, text, nullptr, nullptr, nullptr) == SQLITE_OK, "sqlite", text);
    }
    sqlite3_stmt* prepared(Statement which, const char* text) {
        sqlite3_stmt*& s = statements_[which];
        if (!s) sqlite3_prepare_v2(db_, text, -1, &s, nullptr);
        return s;
    }
    sqlite3_stmt* bound(Statement which, const char* text, const Record& r, bool with_value) {
        sqlite3_stmt* s = prepared(which, text);
        sqlite3_bind_blob(s, 1, r.key, kKeySize, SQLITE_STATIC);
        if (with_value) sqlite3_bind_blob(s, 2, r.value, kValueSize, SQLITE_STATIC);
        return s;
    }
    bool change(sqlite3_stmt* s) {
        const bool done = sqlite3_step(s) == SQLITE_DONE && sqlite3_changes(db_) == 1;
        sqlite3_reset(s);
        return done;
    }

    const std::string path_;
    sqlite3* db_ = nullptr;
    sqlite3_stmt* statements_[kStatements] = {};
};
#endif

#ifdef HAVE_LMDB
class Lmdb : public Engine {
  public:
    explicit Lmdb(const std::string& path) : path_(path) {
        open(true);
        close();
    }
    void open(bool writing) override {
        constexpr size_t kMapSize = 64 << 20;
        const unsigned flags = MDB_NOSUBDIR | (writing ? MDB_NOSYNC : MDB_RDONLY);
        expect(mdb_env_create(&env_) == 0, "lmdb", "create");
        mdb_env_set_mapsize(env_, kMapSize);
        expect(mdb_env_open(env_, path_.c_str(), flags, kMode) == 0, "lmdb", "open");
        MDB_txn* txn = begin(writing ? 0 : MDB_RDONLY);
        expect(mdb_dbi_open(txn, nullptr, 0, &dbi_) == 0, "lmdb", "dbi_open");
        mdb_txn_abort(txn);
    }
    void close() override { mdb_env_close(env_); }
    bool find(const Record& wanted, Record& found) override {
        MDB_txn* txn = begin(MDB_RDONLY);
        MDB_val key = key_of(wanted), value;
        const bool there = mdb_get(txn, dbi_, &key, &value) == 0;
        if (there) {
            found = wanted;
            memcpy(found.value, value.mv_data, kValueSize);
        }
        mdb_txn_abort(txn);
        return there;
    }
    bool insert(const Record& r) override { return put(r, MDB_NOOVERWRITE); }
    bool edit(const Record& r) override { return put(r, 0); }
    bool remove(const Record& r) override {
        MDB_txn* txn = begin(0);
        MDB_val key = key_of(r);
        const bool there = mdb_del(txn, dbi_, &key, nullptr) == 0;
        return mdb_txn_commit(txn) == 0 && there;
    }
    void list(Seen* seen) override {
        MDB_txn* txn = begin(MDB_RDONLY);
        MDB_cursor* cursor;
        mdb_cursor_open(txn, dbi_, &cursor);
        MDB_val key, value;
        while (mdb_cursor_get(cursor, &key, &value, MDB_NEXT) == 0) look_at(seen, value.mv_data);
        mdb_cursor_close(cursor);
        mdb_txn_abort(txn);
    }

  private:
    static MDB_val key_of(const Record& r) { return {kKeySize, const_cast<char*>(r.key)}; }
    MDB_txn* begin(unsigned flags) {
        MDB_txn* txn;
        expect(mdb_txn_begin(env_, nullptr, flags, &txn) == 0, "lmdb", "txn_begin");
        return txn;
    }
    bool put(const Record& r, unsigned flags) {
        MDB_txn* txn = begin(0);
        MDB_val key = key_of(r), value{kValueSize, const_cast<char*>(r.value)};
        const bool done = mdb_put(txn, dbi_, &key, &value, flags) == 0;
        return mdb_txn_commit(txn) == 0 && done;
    }

    const std::string path_;
    MDB_env* env_ = nullptr;
    MDB_dbi dbi_ = 0;
};
#endif

#ifdef HAVE_GDBM
class Gdbm : public Engine {
  public:
    explicit Gdbm(const std::string& path) : path_(path) {}
    void open(bool writing) override {
        db_ = gdbm_open(path_.c_str(), 0, writing ? GDBM_WRCREAT : GDBM_READER, kMode, nullptr);
        expect(db_, "gdbm", "open");
    }
    void close() override { gdbm_close(db_); }
    bool find(const Record& wanted, Record& found) override {
        const datum value = gdbm_fetch(db_, key_of(wanted));
        if (!value.dptr) return false;
        found = wanted;
        memcpy(found.value, value.dptr, kValueSize);
        free(value.dptr);
        return true;
    }
    bool insert(const Record& r) override { return store(r, GDBM_INSERT); }
    bool edit(const Record& r) override { return store(r, GDBM_REPLACE); }
    bool remove(const Record& r) override { return gdbm_delete(db_, key_of(r)) == 0; }
    void list(Seen* seen) override {
        for (datum key = gdbm_firstkey(db_); key.dptr;) {
            const datum value = gdbm_fetch(db_, key);
            look_at(seen, value.dptr);
            free(value.dptr);
            const datum next = gdbm_nextkey(db_, key);
            free(key.dptr);
            key = next;
        }
    }

  private:
    static datum key_of(const Record& r) { return {const_cast<char*>(r.key), kKeySize}; }
    bool store(const Record& r, int how) {
        return gdbm_store(db_, key_of(r), {const_cast<char*>(r.value), kValueSize}, how) == 0;
    }

    const std::string path_;
    GDBM_FILE db_ = nullptr;
};
#endif

#ifdef HAVE_TDB
class Tdb : public Engine {
  public:
    explicit Tdb(const std::string& path) : path_(path) {}
    void open(bool writing) override {
        constexpr int kBuckets = 1009;
        const int flags = writing ? O_RDWR | O_CREAT : O_RDONLY;
        db_ = tdb_open(path_.c_str(), kBuckets, TDB_NOSYNC, flags, kMode);
        expect(db_, "tdb", "open");
    }
    void close() override { tdb_close(db_); }
    bool find(const Record& wanted, Record& found) override {
        found = wanted;
        return tdb_parse_record(
                   db_, key_of(wanted),
                   [](TDB_DATA, TDB_DATA value, void* r) {
                       memcpy(static_cast<Record*>(r)->value, value.dptr, kValueSize);
                       return 0;
                   },
                   &found) == 0;
    }
    bool insert(const Record& r) override { return store(r, TDB_INSERT); }
    bool edit(const Record& r) override { return store(r, TDB_MODIFY); }
    bool remove(const Record& r) override { return tdb_delete(db_, key_of(r)) == 0; }
    void list(Seen* seen) override {
        tdb_traverse_read(
            db_,
            [](tdb_context*, TDB_DATA, TDB_DATA value, void* context) {
                look_at(static_cast<Seen*>(context), value.dptr);
                return 0;
            },
            seen);
    }

  private:
    static TDB_DATA bytes(const char* at, size_t size) {
        return {const_cast<unsigned char*>(reinterpret_cast<const unsigned char*>(at)), size};
    }
    static TDB_DATA key_of(const Record& r) { return bytes(r.key, kKeySize); }
    bool store(const Record& r, int how) {
        return tdb_store(db_, key_of(r), bytes(r.value, kValueSize), how) == 0;
    }

    const std::string path_;
    tdb_context* db_ = nullptr;
};
#endif

// A directory for all databases of this run, removed at its end.
const std::string& directory() {
    static const std::string path = [] {
        std::string made = "/tmp/ztlib_bench_filedb_XXXXXX";
        expect(mkdtemp(made.data()), "bench", "mkdtemp");
        return made + "/";
    }();
    static const int registered_once =
        at_quick_exit([] { std::filesystem::remove_all(directory()); });
    (void)registered_once;
    return path;
}

// --- the jobs ------------------------------------------------------------------------------------

using benchmark::State;
using Make = std::function<std::unique_ptr<Engine>(const std::string& path)>;

// A database of `count` records, checked.
std::unique_ptr<Engine> filled(const char* name, const Make& make, size_t count) {
    static int number = 0;
    auto engine = make(directory() + std::to_string(number++) + name);
    engine->open(true);
    for (const size_t i : shuffled(count, kInsertOrder))
        expect(engine->insert(record(i)), name, "insert");
    engine->close();
    return engine;
}

void check(const char* name, Engine& engine, size_t count) {
    Seen all, seen;
    for (size_t i = 0; i < count; ++i) all.add(record(i).value);
    engine.open(true);
    engine.list(&seen);
    expect(seen == all, name, "list");
    Record found;
    for (const size_t i : {size_t{0}, count / 2, count - 1}) {
        const Record wanted = record(i);
        expect(engine.find(wanted, found) && memcmp(&found, &wanted, sizeof found) == 0, name,
               "find");
        expect(!engine.insert(wanted), name, "the refusal of a second insert");
    }
    expect(!engine.find(record(count), found), name, "the look-up of an absent key");
    engine.close();
}

double processor_seconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Several calls of `work` for one reading of the clock, which takes time too.
template <class Work>
double seconds_of(Work work, size_t calls = 1) {
    const double start = processor_seconds();
    for (size_t i = 0; i < calls; ++i) work();
    return processor_seconds() - start;
}

// One operation on one record after the other.
struct Operation {
    const char* name;
    bool (*run)(Engine&, const Record&);
    bool (*undo)(Engine&, const Record&);  // not timed
    bool absent;                           // takes records that are not there
};

const Operation kFind{"find",
                      [](Engine& e, const Record& r) {
                          Record found;
                          const bool there = e.find(r, found);
                          benchmark::DoNotOptimize(found);
                          return there;
                      },
                      nullptr, false};

const Operation kChanges[] = {
    {"insert", [](Engine& e, const Record& r) { return e.insert(r); },
     [](Engine& e, const Record& r) { return e.remove(r); }, true},
    {"edit", [](Engine& e, const Record& r) { return e.edit(r); }, nullptr, false},
    {"remove", [](Engine& e, const Record& r) { return e.remove(r); },
     [](Engine& e, const Record& r) { return e.insert(r); }, false},
};

void run_operation(State& state, const Operation& operation, Engine& engine, size_t count,
                   bool kept) {
    constexpr size_t kMost = 1000;  // different records
    std::vector<Record> records;
    for (const size_t i : shuffled(count, kUseOrder)) {
        if (records.size() == kMost) break;
        records.push_back(record(operation.absent ? count + i : i));
    }
    const bool writing = &operation != &kFind;
    if (kept) engine.open(writing);
    const auto run = [&](auto what, const Record& r) {
        if (!kept) engine.open(writing);
        const bool done = what(engine, r);
        if (!kept) engine.close();
        if (!done) state.SkipWithError("not done");
    };
    size_t at = 0;
    if (operation.undo) {
        for (auto _ : state) {
            const Record& r = records[at++ % records.size()];
            state.SetIterationTime(seconds_of([&] { run(operation.run, r); }));
            run(operation.undo, r);
        }
    } else {
        constexpr size_t kCalls = 16;
        const auto next = [&] { run(operation.run, records[at++ % records.size()]); };
        while (state.KeepRunningBatch(kCalls)) state.SetIterationTime(seconds_of(next, kCalls));
    }
    if (kept) engine.close();
}

void run_list(State& state, Engine& engine) {
    for (auto _ : state) {
        state.SetIterationTime(seconds_of([&] {
            engine.open(false);
            engine.list(nullptr);
            engine.close();
        }));
    }
}

// What a list cannot do without: the file's bytes, in blocks of 64 KiB, and a call for each record.
using Call = int (*)(void*, void*, int32_t);

void run_raw_read(State& state, const std::string& path, Call call) {
    alignas(64) static char block[64 * 1024];
    const auto read_all = [&] {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        for (ssize_t size; (size = read(fd, block, sizeof block)) > 0;) {
            benchmark::DoNotOptimize(block);
            if (!call) continue;
            for (char* r = block; r < block + size; r += sizeof(Record))
                call(nullptr, r, sizeof(Record));
        }
        close(fd);
    };
    for (auto _ : state) state.SetIterationTime(seconds_of(read_all));
}

std::string job_name(const std::string& job, size_t count, const char* engine) {
    return "filedb_" + job + "/" + std::to_string(count) + "/" + engine;
}

// Databases are made when their first job begins, and stay until the end.
void add(const char* name, const Make& make, const Make& make_kept) {
    const auto lazily = [name](const Make& how, size_t count) {
        auto engine = std::make_shared<std::unique_ptr<Engine>>();
        return [=]() -> Engine& {
            if (!*engine) {
                *engine = filled(name, how, count);
                check(name, **engine, count);
            }
            return **engine;
        };
    };
    for (const size_t count : {10, 100, 1000, 3000, 10000, 30000}) {
        const auto engine = lazily(make, count), kept = lazily(make_kept, count);
        const auto one = [&](const char* job, const Operation& operation, const auto& get,
                             bool is_kept) {
            benchmark::RegisterBenchmark(job_name(job, count, name).c_str(), [=, &operation](
                                                                                 State& state) {
                run_operation(state, operation, get(), count, is_kept);
            })->UseManualTime();
        };
        one("find", kFind, engine, false);
        if (count != 100 && count != 1000 && count != 10000) continue;
        one("find_kept", kFind, kept, true);
        for (const Operation& operation : kChanges) one(operation.name, operation, engine, false);
        benchmark::RegisterBenchmark(job_name("list", count, name).c_str(), [=](State& state) {
            run_list(state, engine());
        })->UseManualTime();
    }
}

template <class E>
std::unique_ptr<Engine> make_engine(const std::string& path) {
    return std::make_unique<E>(path);
}

const bool registered = [] {
    add("ztlib", make_engine<Ours>, make_engine<OursKept>);
#ifdef HAVE_SQLITE3
    add("sqlite", make_engine<Sqlite>, make_engine<Sqlite>);
#endif
#ifdef HAVE_LMDB
    add("lmdb", make_engine<Lmdb>, make_engine<Lmdb>);
#endif
#ifdef HAVE_GDBM
    add("gdbm", make_engine<Gdbm>, make_engine<Gdbm>);
#endif
#ifdef HAVE_TDB
    add("tdb", make_engine<Tdb>, make_engine<Tdb>);
#endif
    const auto limit = [](const char* name, Call call) {
        for (const size_t count : {100, 1000, 10000}) {
            benchmark::RegisterBenchmark(job_name("list", count, name).c_str(), [=](State& state) {
                const std::string path = directory() + "raw" + std::to_string(count);
                Ours ours(path);
                for (size_t i = 0; i < count; ++i) ours.insert(record(i));
                run_raw_read(state, path, call);
            })->UseManualTime();
        }
    };
    limit("limit:read", nullptr);
    limit("limit:read+calls", Ours::visit);
    return true;
}();

}  // namespace
