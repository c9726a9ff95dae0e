// Processes that share one file under its own locks, and writers that are killed at any moment.
//
// ZTLIB_FILEDB_SECONDS (3) is how long the processes share the file, ZTLIB_FILEDB_KILLS (100) how
// many writers are killed.

#include <ztlib/db/filedb_fixed.h>

#include <gtest/gtest.h>
#include <tests/support/process.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <sys/file.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zt_test;

namespace {

using Clock = std::chrono::steady_clock;

int setting(const char* name, int otherwise) {
    const char* text = getenv(name);
    return text ? atoi(text) : otherwise;
}

// A record says by itself whether it is whole: each of its bytes follows from its key and version.
// Its size divides no page, so that some lie across two.
struct Row {
    uint32_t owner;
    uint32_t number;
    uint32_t version;
    unsigned char body[88];

    bool operator==(const Row& other) const { return memcmp(this, &other, sizeof other) == 0; }
};
constexpr uint32_t kRowSize = 100;
constexpr uint32_t kEightBytes = 7;  // the key's type: owner and number
static_assert(sizeof(Row) == kRowSize);

Row row(uint32_t owner, uint32_t number, uint32_t version) {
    Row made{owner, number, version, {}};
    uint32_t state = owner * 7919 + number * 104729 + version * 1299709 + 1;
    for (unsigned char& byte : made.body) {
        state = state * 1664525 + 1013904223;
        byte = static_cast<unsigned char>(state >> 24);
    }
    return made;
}

bool is_whole(const Row& r) { return r == row(r.owner, r.number, r.version); }

std::vector<Row> rows_of(const std::string& content) {
    std::vector<Row> rows(content.size() / kRowSize);
    if (!rows.empty()) memcpy(rows.data(), content.data(), rows.size() * kRowSize);
    return rows;
}

// Lists the file as the library does; `result` is the walk's.
std::vector<Row> listed(const filedb_fixed& db, int& result) {
    std::vector<Row> rows;
    result = filedb_fixed_list(&db, 0, &rows, [](void* context, void* record, int32_t size) {
        Row r;
        memcpy(&r, record, static_cast<size_t>(size));
        static_cast<std::vector<Row>*>(context)->push_back(r);
        return 0;
    });
    return rows;
}

// Zeroed memory that children share with this process.
template <class T>
class Shared {
  public:
    Shared()
        : memory_(static_cast<T*>(mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE,
                                       MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        if (memory_ == MAP_FAILED) abort();
    }
    ~Shared() { munmap(memory_, sizeof(T)); }
    Shared(const Shared&) = delete;
    Shared& operator=(const Shared&) = delete;
    T* operator->() { return memory_; }

  private:
    T* memory_;
};

filedb_fixed database(const ScratchDirectory& scratch) {
    filedb_fixed db;
    filedb_fixed_init(&db, (scratch / "db").c_str(), kRowSize, kEightBytes, 0);
    return db;
}

// In a child: says what is wrong and ends it.
[[noreturn]] void give_up(const char* what, long number) {
    fprintf(stderr, "%s: %ld\n", what, number);
    fflush(stderr);
    _exit(1);
}

void expect(bool condition, const char* what, long number) {
    if (!condition) give_up(what, number);
}

// --- eight processes -----------------------------------------------------------------------------

constexpr uint32_t kProcesses = 8;
constexpr uint32_t kOwnRows = 20;      // of each process, which alone knows what they must be
constexpr uint32_t kContested = 1000;  // owner of the rows that all insert and remove
constexpr uint32_t kContestedRows = 10;
constexpr uint32_t kCounter = 2000;  // owner of one row that all count up
constexpr uint32_t kAbsent = 0;      // a version

struct Board {
    uint32_t versions[kProcesses][kOwnRows];     // each process's own rows as it left them
    std::atomic<int> contested[kContestedRows];  // inserted less removed
    std::atomic<uint32_t> counted;
    std::atomic<uint64_t> operations;
};

class Worker {
  public:
    Worker(const filedb_fixed& db, Board& board, uint32_t self)
        : db_(db), board_(board), versions_(board.versions[self]), self_(self), random_(self) {}

    void work_until(Clock::time_point end) {
        uint64_t operations = 0;
        for (; Clock::now() < end; ++operations) work();
        board_.operations += operations;
    }

  private:
    using Work = void (Worker::*)();

    void work() {
        static constexpr Work kWork[] = {
            &Worker::insert,  &Worker::insert,         &Worker::edit, &Worker::edit,
            &Worker::remove,  &Worker::find,           &Worker::list, &Worker::count_up,
            &Worker::contest, &Worker::yield_contested};
        (this->*kWork[random_() % std::size(kWork)])();
    }

    void insert() {
        const uint32_t i = any_row();
        const Row made = row(self_, i, next_version_);
        const int result = filedb_fixed_insert(&db_, 0, &made, &made);
        expect(result == (versions_[i] == kAbsent ? 0 : -2), "insert", result);
        if (result == 0) versions_[i] = next_version_++;
    }

    void edit() {
        const uint32_t i = any_row();
        const Row made = row(self_, i, next_version_);
        const int result = filedb_fixed_edit(&db_, 0, &made, &made, nullptr);
        expect(result == (versions_[i] == kAbsent ? 1 : 0), "edit", result);
        if (result == 0) versions_[i] = next_version_++;
    }

    void remove() {
        const uint32_t i = any_row();
        const Row wanted = row(self_, i, 1);
        const int result = filedb_fixed_remove(&db_, 0, &wanted);
        expect(result == (versions_[i] == kAbsent ? 1 : 0), "remove", result);
        versions_[i] = kAbsent;
    }

    void find() {
        const uint32_t i = any_row();
        const Row wanted = row(self_, i, versions_[i]);
        Row found{};
        const int result = filedb_fixed_find(&db_, 0, &wanted, &found);
        expect(result == (versions_[i] == kAbsent ? 1 : 0), "find", result);
        expect(result == 1 || found == wanted, "found version", found.version);
    }

    void list() {
        int result;
        std::set<std::pair<uint32_t, uint32_t>> keys;
        uint32_t own = 0;
        for (const Row& r : listed(db_, result)) {
            expect(is_whole(r), "broken row", r.number);
            expect(keys.emplace(r.owner, r.number).second, "listed twice", r.number);
            if (r.owner != self_) continue;
            ++own;
            expect(r.version == versions_[r.number], "listed version", r.version);
        }
        expect(result == 0, "list", result);
        const auto present = kOwnRows - std::count(versions_, versions_ + kOwnRows, kAbsent);
        expect(own == present, "own rows listed", own);
    }

    // Reads and writes under one lock of its own.
    void count_up() {
        const int fd = filedb_fixed_fdopen(&db_);
        expect(fd > 0 && flock(fd, LOCK_EX) == 0, "fdopen", fd);
        Row counter = row(kCounter, 0, 0);
        const int found = filedb_fixed_find(&db_, fd, &counter, &counter);
        expect(found == 0 && is_whole(counter), "find counter", found);
        const Row next = row(kCounter, 0, counter.version + 1);
        const int edited = filedb_fixed_edit(&db_, fd, &next, &next, nullptr);
        expect(edited == 0, "edit counter", edited);
        filedb_fixed_fdclose(&db_, fd);
        ++board_.counted;
    }

    void contest() {
        const uint32_t i = static_cast<uint32_t>(random_() % kContestedRows);
        const Row made = row(kContested, i, self_ + 1);
        const int result = filedb_fixed_insert(&db_, 0, &made, &made);
        expect(result == 0 || result == -2, "insert contested", result);
        if (result == 0) ++board_.contested[i];
    }

    void yield_contested() {
        const uint32_t i = static_cast<uint32_t>(random_() % kContestedRows);
        const Row wanted = row(kContested, i, 1);
        const int result = filedb_fixed_remove(&db_, 0, &wanted);
        expect(result == 0 || result == 1, "remove contested", result);
        if (result == 0) --board_.contested[i];
    }

    uint32_t any_row() { return static_cast<uint32_t>(random_() % kOwnRows); }

    const filedb_fixed& db_;
    Board& board_;
    uint32_t* versions_;
    const uint32_t self_;
    uint32_t next_version_ = 1;
    std::minstd_rand random_;
};

}  // namespace

TEST(FiledbFixedProcesses, NeitherLoseNorDoubleARecord) {
    const ScratchDirectory scratch;
    const filedb_fixed db = database(scratch);
    Shared<Board> board;
    const Row counter = row(kCounter, 0, 1);
    ASSERT_EQ(filedb_fixed_insert(&db, 0, &counter, &counter), 0);

    const auto end = Clock::now() + std::chrono::seconds(setting("ZTLIB_FILEDB_SECONDS", 3));
    std::vector<pid_t> children;
    for (uint32_t i = 0; i < kProcesses; ++i) {
        children.push_back(fork());
        if (children.back() == 0) {
            Worker(db, *board.operator->(), i).work_until(end);
            _exit(0);
        }
    }
    bool length_was_right = true;
    while (Clock::now() < end) {
        const int fd = filedb_fixed_fdopen(&db);
        flock(fd, LOCK_SH);
        length_was_right &= lseek(fd, 0, SEEK_END) % kRowSize == 0;
        filedb_fixed_fdclose(&db, fd);
        usleep(1000);
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(length_was_right);

    const std::string content = content_of(db.path);
    EXPECT_EQ(content.size() % kRowSize, 0u);
    std::map<std::pair<uint32_t, uint32_t>, uint32_t> expected, found;
    for (uint32_t p = 0; p < kProcesses; ++p)
        for (uint32_t i = 0; i < kOwnRows; ++i)
            if (board->versions[p][i] != kAbsent) expected[{p, i}] = board->versions[p][i];
    expected[{kCounter, 0}] = 1 + board->counted;
    std::vector<int> contested(kContestedRows);
    for (const Row& r : rows_of(content)) {
        EXPECT_TRUE(is_whole(r));
        if (r.owner == kContested)
            ++contested[r.number];
        else
            EXPECT_TRUE(found.emplace(std::pair(r.owner, r.number), r.version).second);
    }
    EXPECT_EQ(found, expected);
    for (uint32_t i = 0; i < kContestedRows; ++i) EXPECT_EQ(contested[i], board->contested[i]);
    printf("%lu operations\n", board->operations.load());
}

// --- a writer that is killed ---------------------------------------------------------------------

namespace {

constexpr uint32_t kWriter = 1;
constexpr uint32_t kWriterRows = 60;

enum Doing : uint32_t { kNothing, kInserting, kEditing, kRemoving };

// What a writer has done, and what it is about to do.
struct Diary {
    std::atomic<uint32_t> versions[kWriterRows];
    std::atomic<uint32_t> doing;
    std::atomic<uint32_t> number;
    std::atomic<uint32_t> next_version;
    std::atomic<uint64_t> operations;
};

[[noreturn]] void write_for_ever(const filedb_fixed& db, Diary& diary, unsigned seed) {
    std::minstd_rand random(seed);
    for (;; ++diary.operations) {
        const uint32_t i = static_cast<uint32_t>(random() % kWriterRows);
        const uint32_t version = diary.next_version + 1;
        const Row made = row(kWriter, i, version);
        const bool there = diary.versions[i] != kAbsent;
        const Doing doing = !there ? kInserting : random() % 3 == 0 ? kEditing : kRemoving;
        diary.number = i;
        diary.next_version = version;
        diary.doing = doing;
        const int result = doing == kInserting ? filedb_fixed_insert(&db, 0, &made, &made)
                           : doing == kEditing ? filedb_fixed_edit(&db, 0, &made, &made, nullptr)
                                               : filedb_fixed_remove(&db, 0, &made);
        expect(result == 0, "writer", result);
        diary.versions[i] = doing == kRemoving ? kAbsent : version;
        diary.doing = kNothing;
    }
}

// True when `r` begins as `begin` does and goes on as `rest` does.
bool is_torn(const Row& r, const Row& begin, const Row& rest) {
    const auto* bytes = reinterpret_cast<const char*>(&r);
    const auto *from = reinterpret_cast<const char*>(&begin),
               *to = reinterpret_cast<const char*>(&rest);
    const auto* differs = std::mismatch(bytes, bytes + kRowSize, from).first;
    return std::equal(differs, bytes + kRowSize, to + (differs - bytes));
}

// What a kill left behind that a host has to mend.
struct Damage {
    int cut = 0;      // new records at the end
    int torn = 0;     // records written over
    int doubled = 0;  // last records, in a removal
};

// Looks at the file as a killed writer left it, mends it and brings the diary up to it.
class Aftermath {
  public:
    Aftermath(const filedb_fixed& db, Diary& diary) : db_(db), diary_(diary) {}

    void check(Damage& damage) {
        readers_cope();
        mend_end(damage);
        mend_rows(damage);
        mend_double(damage);
        compare();
        diary_.doing = kNothing;
    }

  private:
    // The rows in front of an incomplete one are listed, and each is found.
    void readers_cope() {
        content_ = content_of(db_.path);
        int result;
        const std::vector<Row> rows = listed(db_, result);
        EXPECT_EQ(result, content_.size() % kRowSize == 0 ? 0 : -4);
        EXPECT_EQ(rows, rows_of(content_));
        for (const Row& r : rows) {
            Row found;
            EXPECT_EQ(filedb_fixed_find(&db_, 0, &r, &found), 0);
        }
    }

    void mend_end(Damage& damage) {
        const size_t cut = content_.size() % kRowSize;
        if (cut == 0) return;
        ++damage.cut;
        EXPECT_EQ(diary_.doing, kInserting);
        const Row made = after();
        EXPECT_EQ(memcmp(content_.data() + content_.size() - cut, &made, cut), 0);
        content_.resize(content_.size() - cut);
        EXPECT_EQ(truncate(db_.path, static_cast<off_t>(content_.size())), 0);
    }

    void mend_rows(Damage& damage) {
        std::vector<Row> rows = rows_of(content_);
        for (size_t i = 0; i < rows.size(); ++i) {
            if (is_whole(rows[i])) continue;
            ++damage.torn;
            ASSERT_TRUE(diary_.doing == kEditing || diary_.doing == kRemoving);
            const Row put = diary_.doing == kEditing ? after() : rows.back();
            ASSERT_TRUE(is_torn(rows[i], put, before()));
            const int64_t offset = static_cast<int64_t>(i * kRowSize);
            EXPECT_EQ(filedb_fixed_edit_offset(&db_, 0, offset, nullptr, &put, nullptr), 0);
        }
    }

    void mend_double(Damage& damage) {
        const std::vector<Row> rows = rows_of(content_of(db_.path));
        if (rows.empty() || std::count(rows.begin(), rows.end(), rows.back()) == 1) return;
        ++damage.doubled;
        EXPECT_EQ(diary_.doing, kRemoving);
        EXPECT_EQ(std::count(rows.begin(), rows.end(), rows.back()), 2);
        EXPECT_EQ(filedb_fixed_remove(&db_, 0, &rows.back()), 0);
    }

    // All that was done is there, what was being done may be, and nothing else is.
    void compare() {
        const uint32_t number = diary_.number;
        std::map<uint32_t, uint32_t> found;
        for (const Row& r : rows_of(content_of(db_.path))) {
            ASSERT_TRUE(is_whole(r) && r.owner == kWriter && r.number < kWriterRows);
            EXPECT_TRUE(found.emplace(r.number, r.version).second) << "doubled " << r.number;
        }
        for (uint32_t i = 0; i < kWriterRows; ++i) {
            const uint32_t version = found.count(i) ? found[i] : kAbsent;
            if (diary_.doing != kNothing && i == number) {
                const uint32_t done = diary_.doing == kRemoving ? kAbsent : +diary_.next_version;
                EXPECT_TRUE(version == diary_.versions[i] || version == done) << i;
            } else {
                EXPECT_EQ(version, diary_.versions[i]) << i;
            }
            diary_.versions[i] = version;
        }
    }

    Row before() const { return row(kWriter, diary_.number, diary_.versions[diary_.number]); }
    Row after() const { return row(kWriter, diary_.number, diary_.next_version); }

    const filedb_fixed& db_;
    Diary& diary_;
    std::string content_;
};

}  // namespace

TEST(FiledbFixedProcesses, ReadOnAfterAWriterWasKilled) {
    const ScratchDirectory scratch;
    const filedb_fixed db = database(scratch);
    Shared<Diary> diary;
    std::minstd_rand random(1);
    Damage damage;
    int amid = 0;
    const int kills = setting("ZTLIB_FILEDB_KILLS", 100);
    for (int i = 0; i < kills && !HasFailure(); ++i) {
        const uint64_t before = diary->operations;
        const pid_t writer = fork();
        if (writer == 0) write_for_ever(db, *diary.operator->(), static_cast<unsigned>(random()));
        ASSERT_TRUE(eventually([&] { return diary->operations > before; }));
        usleep(static_cast<useconds_t>(random() % 1000));
        kill(writer, SIGKILL);
        int status = 0;
        waitpid(writer, &status, 0);
        ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL);
        amid += diary->doing != kNothing;
        Aftermath(db, *diary.operator->()).check(damage);
    }
    printf("%d killed, %d of them amid an operation: %d records cut, %d torn, %d doubled\n", kills,
           amid, damage.cut, damage.torn, damage.doubled);
}
