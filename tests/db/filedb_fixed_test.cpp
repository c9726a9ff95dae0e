#include <ztlib/db/filedb_fixed.h>

#include <gmock/gmock.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint32_t kKeySize = 8;
constexpr uint32_t kRecordSize = 16;
constexpr uint32_t kGivenWidth = 9;
constexpr size_t kBlockSize = 32 * 1024;
constexpr off_t kSomewhere = 5;  // in the file; no record begins there

std::string padded(std::string text, size_t size) {
    text.resize(size);
    return text;
}

std::string key(const std::string& text) { return padded(text, kKeySize); }

std::string record(const std::string& key_text, const std::string& value) {
    return key(key_text) + padded(value, kRecordSize - kKeySize);
}

const std::string kA = record("a", "one"), kB = record("b", "two"), kC = record("c", "three");

// A database in a directory of its own.
class Database {
  public:
    explicit Database(const std::string& content, uint32_t record_size = kRecordSize,
                      uint32_t key_size = kKeySize)
        : path_(scratch_.write("db", content)) {
        EXPECT_EQ(filedb_fixed_init(&db_, path_.c_str(), record_size, kGivenWidth, key_size), 0);
    }
    operator filedb_fixed*() { return &db_; }
    filedb_fixed* operator->() { return &db_; }

    const std::string& path() const { return path_; }
    std::string content() const { return content_of(path_); }
    void write(const std::string& content) const { scratch_.write("db", content); }

  private:
    ScratchDirectory scratch_;
    std::string path_;
    filedb_fixed db_{};
};

// What an operation gets as its fd: none, or one that the caller keeps, which stands somewhere.
enum class Fd { none, kept };

class FiledbFixed : public testing::TestWithParam<Fd> {
  protected:
    FiledbFixed() {
        if (GetParam() == Fd::none) return;
        fd = filedb_fixed_fdopen(db);
        lseek(fd, kSomewhere, SEEK_SET);
    }
    ~FiledbFixed() override {
        if (fd > 0) {
            EXPECT_EQ(lseek(fd, 0, SEEK_CUR), kSomewhere);
            filedb_fixed_fdclose(db, fd);
        }
        EXPECT_TRUE(leftovers.none());
    }

    std::string corrupt_message(int bytes) const {
        return db_path() + " read " + std::to_string(bytes) +
               " bytes struct size 16 possible file corrupt";
    }
    std::string db_path() const { return db.path(); }

    Leftovers leftovers;
    CapturedLog log;
    Database db{kA + kB + kC};
    std::string out = std::string(kRecordSize, '-');
    int fd = 0;
};

std::string fd_name(const testing::TestParamInfo<Fd>& way) {
    return way.param == Fd::none ? "NoDescriptor" : "AKeptDescriptor";
}

INSTANTIATE_TEST_SUITE_P(With, FiledbFixed, testing::Values(Fd::none, Fd::kept), fd_name);

// A callback that keeps what it is called with, and answers `answer` at record `stop`.
struct Visited {
    std::vector<std::string> records;
    std::vector<int64_t> offsets;
    std::vector<int> fds;
    size_t stop = SIZE_MAX;
    int answer = 0;

    int visit(const void* bytes, int32_t size) {
        records.emplace_back(static_cast<const char*>(bytes), static_cast<size_t>(size));
        return records.size() - 1 == stop ? answer : 0;
    }
    static int list(void* context, void* bytes, int32_t size) {
        return static_cast<Visited*>(context)->visit(bytes, size);
    }
    static int list_offset(void* context, filedb_fixed*, int fd, int64_t offset, void* bytes,
                           int32_t size) {
        auto* self = static_cast<Visited*>(context);
        self->offsets.push_back(offset);
        self->fds.push_back(fd);
        return self->visit(bytes, size);
    }
};

std::vector<std::string> listed(filedb_fixed* db, int fd = 0) {
    Visited visited;
    EXPECT_EQ(filedb_fixed_list(db, fd, &visited, Visited::list), 0);
    return visited.records;
}

// A callback of a walk that may do anything.
using Step = std::function<int(int fd, int64_t offset, std::string& record)>;

int walk(filedb_fixed* db, int fd, const Step& step) {
    return filedb_fixed_list_offset(
        db, fd, const_cast<Step*>(&step),
        [](void* context, filedb_fixed*, int in_use, int64_t offset, void* bytes, int32_t size) {
            std::string text(static_cast<const char*>(bytes), static_cast<size_t>(size));
            return (*static_cast<const Step*>(context))(in_use, offset, text);
        });
}

}  // namespace

// --- what a database is --------------------------------------------------------------------------

TEST(FiledbFixedInit, TakesTheWidthOfTheKeyFromItsType) {
    const std::vector<std::pair<uint32_t, uint32_t>> widths{
        {1, 1}, {2, 1}, {3, 2}, {4, 2}, {5, 4}, {6, 4}, {7, 8}, {8, 8}, {9, 33}, {18, 33}};
    for (const auto& [type, width] : widths) {
        filedb_fixed db;
        EXPECT_EQ(filedb_fixed_init(&db, "some/path", 64, type, 33), 0);
        EXPECT_STREQ(db.path, "some/path");
        EXPECT_EQ(db.record_size, 64);
        EXPECT_EQ(db.key_type, type);
        EXPECT_EQ(db.key_size, width) << type;
    }
}

TEST(FiledbFixedInit, RefusesAnyOtherType) {
    for (const uint32_t type : {0u, 10u, 11u, 16u, 17u, 19u, 100u, UINT32_MAX}) {
        CapturedLog log;
        filedb_fixed db;
        db.key_size = 77;
        EXPECT_EQ(filedb_fixed_init(&db, "p", 64, type, 8), -1);
        EXPECT_THAT(log.lines(),
                    ElementsAre("WARN:filedb_fixed:filedb_fixed_init: invalid key_type: " +
                                std::to_string(static_cast<int>(type))));
        EXPECT_STREQ(db.path, "p");
        EXPECT_EQ(db.record_size, 64);
        EXPECT_EQ(db.key_type, type);
        EXPECT_EQ(db.key_size, 0u);
    }
}

TEST(FiledbFixedInit, CutsALongPath) {
    filedb_fixed db;
    const std::string longest(511, 'x');
    EXPECT_EQ(filedb_fixed_init(&db, longest.c_str(), 64, 1, 0), 0);
    EXPECT_EQ(db.path, longest);
    EXPECT_EQ(filedb_fixed_init(&db, (longest + "y").c_str(), 64, 1, 0), 0);
    EXPECT_EQ(db.path, longest);
    EXPECT_EQ(filedb_fixed_init(&db, "", 64, 1, 0), 0);
    EXPECT_STREQ(db.path, "");
}

TEST(FiledbFixedInit, StoresNothingForANullArgument) {
    filedb_fixed db{};
    EXPECT_EQ(filedb_fixed_init(nullptr, "p", 64, 1, 0), -1);
    EXPECT_EQ(filedb_fixed_init(&db, nullptr, 64, 1, 0), -1);
    EXPECT_EQ(db.record_size, 0);
}

// --- opening and closing -------------------------------------------------------------------------

TEST(FiledbFixedOpen, MakesAMissingFileForItsOwnerToWriteAndAllToRead) {
    Database db("");
    unlink(db->path);
    const mode_t mask = umask(0);
    const int fd = filedb_fixed_fdopen(db);
    umask(mask);
    ASSERT_GT(fd, 0);

    struct stat status;
    ASSERT_EQ(fstat(fd, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
    EXPECT_EQ(status.st_size, 0);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);
    filedb_fixed_fdclose(db, fd);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(FiledbFixedOpen, KeepsWhatIsThereAndTakesNoLock) {
    Database db(kA);
    const int first = filedb_fixed_fdopen(db), second = filedb_fixed_fdopen(db);
    EXPECT_EQ(flock(first, LOCK_EX | LOCK_NB), 0);
    EXPECT_EQ(db.content(), kA);
    filedb_fixed_fdclose(db, first);
    EXPECT_EQ(flock(second, LOCK_EX | LOCK_NB), 0) << "closing gives the lock up";
    filedb_fixed_fdclose(db, second);
}

TEST(FiledbFixedOpen, SaysWhyTheFileDoesNotOpen) {
    CapturedLog log;
    ScratchDirectory scratch;
    filedb_fixed db;
    filedb_fixed_init(&db, (scratch / "none/db").c_str(), 16, 1, 0);
    EXPECT_EQ(filedb_fixed_fdopen(&db), -1);
    filedb_fixed_init(&db, scratch.path().c_str(), 16, 1, 0);
    EXPECT_EQ(filedb_fixed_fdopen(&db), -1);
    EXPECT_EQ(filedb_fixed_fdopen(nullptr), -1);
    EXPECT_THAT(
        log.lines(),
        ElementsAre("WARN:filedb_fixed:filedb_fixed_fdopen: open(): No such file or directory",
                    "WARN:filedb_fixed:filedb_fixed_fdopen: open(): Is a directory"));
}

TEST(FiledbFixedOpen, NeverTakesTheStandardStreamsPlaces) {
    Database db(kA);
    const ChildResult child = run_in_child([&] {
        close(0);
        const int fd = filedb_fixed_fdopen(db);
        const bool right = fd > 2 && fcntl(0, F_GETFD) == -1 && fcntl(fd, F_GETFD) == FD_CLOEXEC;
        _exit(right ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
}

TEST(FiledbFixedOpen, FailsWhereOnlyAStandardStreamsPlaceIsFree) {
    Database db(kA);
    const ChildResult child = run_in_child([&] {
        CapturedLog log;
        close(0);
        const rlimit three{3, 3};
        setrlimit(RLIMIT_NOFILE, &three);
        const bool right = filedb_fixed_fdopen(db) == -1 && fcntl(0, F_GETFD) == -1 &&
                           log.messages() == Strings{"open(): Invalid argument"};
        _exit(right ? 0 : 1);
    });
    EXPECT_EQ(child.status, 0);
}

// --- find ----------------------------------------------------------------------------------------

TEST_P(FiledbFixed, FindsARecordByItsFirstBytes) {
    EXPECT_EQ(filedb_fixed_find(db, fd, key("b").data(), out.data()), 0);
    EXPECT_EQ(out, kB);
    EXPECT_EQ(filedb_fixed_find(db, fd, key("a").data(), out.data()), 0);
    EXPECT_EQ(out, kA);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(FiledbFixed, FindsTheFirstOfTwoRecordsWithOneKey) {
    db.write(kA + record("b", "first") + record("b", "second"));
    EXPECT_EQ(filedb_fixed_find(db, fd, key("b").data(), out.data()), 0);
    EXPECT_EQ(out, record("b", "first"));
}

TEST_P(FiledbFixed, FindsNothingWhereNoRecordHasTheKeyAndLeavesTheLastOneBehind) {
    EXPECT_EQ(filedb_fixed_find(db, fd, key("d").data(), out.data()), 1);
    EXPECT_EQ(out, kC);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(FiledbFixed, FindsEditsAndRemovesNothingInAnEmptyFile) {
    db.write("");
    EXPECT_EQ(filedb_fixed_find(db, fd, key("a").data(), out.data()), 1);
    EXPECT_EQ(out, std::string(kRecordSize, '-'));
    EXPECT_EQ(filedb_fixed_edit(db, fd, key("a").data(), kB.data(), nullptr), 1);
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("a").data()), 1);
    EXPECT_THAT(listed(db, fd), IsEmpty());
    EXPECT_EQ(db.content(), "");
}

TEST_P(FiledbFixed, SaysHowMuchIsThereOfAnIncompleteRecord) {
    db.write(kA + kB + kC.substr(0, 7));
    EXPECT_EQ(filedb_fixed_find(db, fd, key("c").data(), out.data()), -4);
    EXPECT_EQ(out, kB);
    EXPECT_EQ(filedb_fixed_edit(db, fd, key("c").data(), kA.data(), nullptr), -4);
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("c").data()), -4);
    const std::string function = "WARN:filedb_fixed:filedb_fixed_";
    EXPECT_THAT(log.lines(), ElementsAre(function + "find: " + corrupt_message(7),
                                         function + "edit: " + corrupt_message(7),
                                         function + "remove: " + corrupt_message(7)));
    EXPECT_EQ(db.content(), kA + kB + kC.substr(0, 7));
}

TEST_P(FiledbFixed, StillFindsWhatStandsBeforeAnIncompleteRecord) {
    db.write(kA + kB + "x");
    EXPECT_EQ(filedb_fixed_find(db, fd, key("b").data(), out.data()), 0);
    EXPECT_EQ(out, kB);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(FiledbFixed, SaysThatAReadFailed) {
    const std::string message = ": " + db.path() + " read -1";
    for (const int error : {EIO, EINTR}) {
        CapturedLog of_this_round;
        Visited visited;
        {
            FailingCall fault("read", error);
            EXPECT_EQ(filedb_fixed_find(db, fd, key("a").data(), out.data()), -1);
        }
        {
            FailingCall fault("read", error);
            EXPECT_EQ(filedb_fixed_edit(db, fd, key("a").data(), kB.data(), nullptr), -1);
        }
        {
            FailingCall fault("read", error);
            EXPECT_EQ(filedb_fixed_remove(db, fd, key("a").data()), -1);
        }
        {
            FailingCall fault("read", error);
            EXPECT_EQ(filedb_fixed_list(db, fd, &visited, Visited::list), -1);
        }
        {
            FailingCall fault("read", error);
            EXPECT_EQ(filedb_fixed_list_offset(db, fd, &visited, Visited::list_offset), -1);
        }
        const std::string function = "WARN:filedb_fixed:filedb_fixed_";
        EXPECT_THAT(of_this_round.lines(),
                    ElementsAre(function + "find" + message, function + "edit" + message,
                                function + "remove" + message, function + "list" + message,
                                function + "list_offset" + message));
        EXPECT_THAT(visited.records, IsEmpty());
    }
    EXPECT_EQ(db.content(), kA + kB + kC);
}

TEST_P(FiledbFixed, ReadsOnWhereAReadEndsInsideARecord) {
    for (size_t bytes = 1; bytes < 3 * kRecordSize; ++bytes) {
        ShortCall shorter("read", bytes);
        EXPECT_EQ(filedb_fixed_find(db, fd, key("c").data(), out.data()), 0) << bytes;
        EXPECT_TRUE(shorter.hit());
        EXPECT_EQ(out, kC);
    }
    for (size_t bytes = 1; bytes < 3 * kRecordSize; ++bytes) {
        ShortCall shorter("read", bytes);
        EXPECT_THAT(listed(db, fd), ElementsAre(kA, kB, kC)) << bytes;
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(FiledbFixed, SaysThatReadingOnFailed) {
    db.write(kA + kB + "123");
    FailingCall fault("read", EIO, 1);
    EXPECT_EQ(filedb_fixed_find(db, fd, key("c").data(), out.data()), -1);
    EXPECT_EQ(out, kB);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:filedb_fixed:filedb_fixed_find: " + db.path() + " read -1"));
}

// --- insert and append ---------------------------------------------------------------------------

TEST_P(FiledbFixed, AppendsANewRecord) {
    const std::string d = record("d", "four");
    EXPECT_EQ(filedb_fixed_insert(db, fd, key("d").data(), d.data()), 0);
    EXPECT_EQ(db.content(), kA + kB + kC + d);
    EXPECT_EQ(filedb_fixed_find(db, fd, key("d").data(), out.data()), 0);
    EXPECT_EQ(out, d);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(FiledbFixed, DoesNotAppendARecordWhoseKeyIsThere) {
    EXPECT_EQ(filedb_fixed_insert(db, fd, key("b").data(), record("b", "new").data()), -2);
    EXPECT_EQ(db.content(), kA + kB + kC);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(FiledbFixed, LooksForTheKeyItIsGivenAndNotForTheRecords) {
    EXPECT_EQ(filedb_fixed_insert(db, fd, key("z").data(), kA.data()), 0);
    EXPECT_EQ(db.content(), kA + kB + kC + kA);
    EXPECT_EQ(filedb_fixed_insert(db, fd, key("a").data(), record("q", "").data()), -2);
}

TEST_P(FiledbFixed, AppendsBehindAnIncompleteRecord) {
    const std::string damaged = kA + kB.substr(0, 3);
    db.write(damaged);
    EXPECT_EQ(filedb_fixed_insert(db, fd, key("c").data(), kC.data()), 0);
    EXPECT_EQ(db.content(), damaged + kC);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:filedb_fixed:filedb_fixed_find: " + corrupt_message(3)));
}

TEST_P(FiledbFixed, AppendsWhereTheSearchCouldNotRead) {
    FailingCall fault("read", EIO);
    EXPECT_EQ(filedb_fixed_insert(db, fd, key("a").data(), kA.data()), 0);
    EXPECT_EQ(db.content(), kA + kB + kC + kA);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:filedb_fixed:filedb_fixed_find: " + db.path() + " read -1"));
}

TEST_P(FiledbFixed, AppendsWhateverTheKeyAndTellsWhere) {
    int64_t offset = -7;
    EXPECT_EQ(filedb_fixed_append_offset(db, fd, &offset, "spare", kA.data()), 0);
    EXPECT_EQ(offset, 48);
    EXPECT_EQ(filedb_fixed_append_offset(db, fd, nullptr, nullptr, kB.data()), 0);
    EXPECT_EQ(db.content(), kA + kB + kC + kA + kB);

    db.write("odd");
    EXPECT_EQ(filedb_fixed_append_offset(db, fd, &offset, nullptr, kA.data()), 0);
    EXPECT_EQ(offset, 3);
}

TEST_P(FiledbFixed, SaysThatARecordWasNotWrittenWhole) {
    int64_t offset = -7;
    {
        ShortCall shorter("write", 5);
        EXPECT_EQ(filedb_fixed_insert(db, fd, key("d").data(), record("d", "x").data()), -4);
        EXPECT_EQ(db.content(), kA + kB + kC + record("d", "x").substr(0, 5));
    }
    {
        FailingCall full("write", ENOSPC);
        EXPECT_EQ(filedb_fixed_append_offset(db, fd, &offset, nullptr, kA.data()), -4);
        EXPECT_EQ(offset, -7);
    }
    db.write(kA);
    FailingCall full("write", ENOSPC);
    EXPECT_EQ(filedb_fixed_insert(db, fd, key("d").data(), kB.data()), -4);
    EXPECT_EQ(db.content(), kA);
    const std::string message = ": " + db.path() + " write failed";
    EXPECT_THAT(log.lines(), ElementsAre("WARN:filedb_fixed:filedb_fixed_insert" + message,
                                         "WARN:filedb_fixed:filedb_fixed_append_offset" + message,
                                         "WARN:filedb_fixed:filedb_fixed_insert" + message));
}

TEST_P(FiledbFixed, WritesAgainAfterASignal) {
    FailingCall interrupted("write", EINTR);
    EXPECT_EQ(filedb_fixed_append_offset(db, fd, nullptr, nullptr, kA.data()), 0);
    EXPECT_EQ(db.content(), kA + kB + kC + kA);
}

// --- edit ----------------------------------------------------------------------------------------

TEST_P(FiledbFixed, ReplacesTheFirstRecordWithTheKey) {
    db.write(kA + kB + kB);
    const std::string now = record("n", "new");
    EXPECT_EQ(filedb_fixed_edit(db, fd, key("b").data(), now.data(), out.data()), 0);
    EXPECT_EQ(db.content(), kA + now + kB);
    EXPECT_EQ(out, kB);
    EXPECT_EQ(filedb_fixed_edit(db, fd, key("a").data(), kC.data(), nullptr), 0);
    EXPECT_EQ(db.content(), kC + now + kB);
}

TEST_P(FiledbFixed, ReplacesNothingWhereNoRecordHasTheKey) {
    EXPECT_EQ(filedb_fixed_edit(db, fd, key("x").data(), kA.data(), out.data()), 1);
    EXPECT_EQ(out, kC);
    EXPECT_EQ(db.content(), kA + kB + kC);
}

TEST_P(FiledbFixed, AnswersTheRecordsSizeWhereItCouldNotReplaceIt) {
    {
        ShortCall shorter("write", 3);
        EXPECT_EQ(filedb_fixed_edit(db, fd, key("b").data(), record("X", "").data(), nullptr), 16);
    }
    EXPECT_EQ(db.content(), kA + record("X", "").substr(0, 3) + kB.substr(3) + kC);
    {
        FailingCall fault("write", EIO);
        EXPECT_EQ(filedb_fixed_edit(db, fd, key("a").data(), kB.data(), nullptr), 16);
    }
    const uint32_t before = GetParam() == Fd::kept ? 2 : 0;
    FailingCall fault("lseek", EIO, before);
    EXPECT_EQ(filedb_fixed_edit(db, fd, key("a").data(), kB.data(), nullptr), 16);
    EXPECT_TRUE(fault.hit());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(FiledbFixed, WritesARecordAtAnyOffset) {
    EXPECT_EQ(filedb_fixed_edit_offset(db, fd, 16, "spare", kC.data(), out.data()), 0);
    EXPECT_EQ(db.content(), kA + kC + kC);
    EXPECT_EQ(out, std::string(kRecordSize, '-'));
    EXPECT_EQ(filedb_fixed_edit_offset(db, fd, 1, nullptr, kB.data(), nullptr), 0);
    EXPECT_EQ(db.content(), kA.substr(0, 1) + kB + kC.substr(1) + kC);
    EXPECT_EQ(filedb_fixed_edit_offset(db, fd, 50, nullptr, kB.data(), nullptr), 0);
    EXPECT_EQ(db.content().substr(46), kC.substr(14) + std::string(2, '\0') + kB);
}

TEST_P(FiledbFixed, SaysWhyNothingWasWrittenAtAnOffset) {
    EXPECT_EQ(filedb_fixed_edit_offset(db, fd, -1, nullptr, kB.data(), nullptr), -4);
    {
        ShortCall shorter("write", 15);
        EXPECT_EQ(filedb_fixed_edit_offset(db, fd, 0, nullptr, kA.data(), nullptr), -1);
    }
    {
        FailingCall fault("write", EIO);
        EXPECT_EQ(filedb_fixed_edit_offset(db, fd, 0, nullptr, kB.data(), nullptr), -1);
    }
    EXPECT_EQ(db.content(), kA + kB + kC);
    EXPECT_THAT(log.lines(), IsEmpty());
}

// --- remove --------------------------------------------------------------------------------------

TEST_P(FiledbFixed, PutsTheLastRecordInARemovedOnesPlace) {
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("a").data()), 0);
    EXPECT_EQ(db.content(), kC + kB);
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("c").data()), 0);
    EXPECT_EQ(db.content(), kB);
}

TEST_P(FiledbFixed, CutsTheLastRecordOff) {
    const uint64_t writes = calls_of("write");
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("c").data()), 0);
    EXPECT_EQ(db.content(), kA + kB);
    EXPECT_EQ(calls_of("write"), writes);
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("c").data()), 1);
}

TEST_P(FiledbFixed, RemovesTheFirstOfTwoRecordsWithOneKey) {
    db.write(record("k", "1") + record("k", "2") + kA);
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("k").data()), 0);
    EXPECT_EQ(db.content(), kA + record("k", "2"));
}

TEST_P(FiledbFixed, MovesTheFilesLastBytesWhereAnIncompleteRecordStandsThere) {
    db.write(kA + kB + "123");
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("a").data()), 0);
    EXPECT_EQ(db.content(), kB.substr(3) + "123" + kB.substr(0, 3));
}

TEST_P(FiledbFixed, AnswersTheRecordsSizeWhereItCouldNotRemoveIt) {
    const auto remove_a = [&] { return filedb_fixed_remove(db, fd, key("a").data()); };
    const std::string all = db.content();
    // To the end, to the last record, and back to the removed one.
    const uint32_t before = GetParam() == Fd::kept ? 2 : 0;
    for (uint32_t step = 0; step < 3; ++step) {
        FailingCall fault("lseek", EIO, before + step);
        EXPECT_EQ(remove_a(), 16);
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(db.content(), all);
    }
    {
        FailingCall fault("read", EIO, 1);
        EXPECT_EQ(remove_a(), 16);
    }
    {
        FakedCall end_of_file("read", 0, 1);
        EXPECT_EQ(remove_a(), 16);
    }
    {
        FailingCall fault("write", EIO);
        EXPECT_EQ(remove_a(), 16);
    }
    EXPECT_EQ(db.content(), all);
    {
        FailingCall fault("ftruncate", EIO);
        EXPECT_EQ(remove_a(), 16);
        EXPECT_EQ(db.content(), kC + kB + kC) << "the last record is there twice";
    }
    {
        ShortCall shorter("write", 1);
        EXPECT_EQ(filedb_fixed_remove(db, fd, key("b").data()), 16);
        EXPECT_EQ(db.content(), kC + kC.substr(0, 1) + kB.substr(1) + kC);
    }
    FailingCall fault("ftruncate", EIO);
    db.write(kA);
    EXPECT_EQ(remove_a(), 16);
    EXPECT_EQ(db.content(), kA);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(FiledbFixed, ReadsTheLastRecordOnWhereAReadEndsInsideIt) {
    ShortCall shorter("read", 4, 1);
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("a").data()), 0);
    EXPECT_TRUE(shorter.hit());
    EXPECT_EQ(db.content(), kC + kB);
}

TEST_P(FiledbFixed, HealsARecordThatIsThereTwiceByRemovingIt) {
    db.write(kC + kB + kC);
    EXPECT_EQ(filedb_fixed_remove(db, fd, key("c").data()), 0);
    EXPECT_EQ(db.content(), kC + kB);
}

// --- walks ---------------------------------------------------------------------------------------

TEST_P(FiledbFixed, VisitsEveryRecordInTheFilesOrder) {
    EXPECT_THAT(listed(db, fd), ElementsAre(kA, kB, kC));

    Visited visited;
    EXPECT_EQ(filedb_fixed_list_offset(db, fd, &visited, Visited::list_offset), 0);
    EXPECT_THAT(visited.records, ElementsAre(kA, kB, kC));
    EXPECT_THAT(visited.offsets, ElementsAre(0, 16, 32));
    for (const int in_use : visited.fds) {
        if (GetParam() == Fd::kept) {
            EXPECT_EQ(in_use, fd);
        } else {
            EXPECT_GT(in_use, 2);
        }
    }
}

TEST_P(FiledbFixed, EndsAWalkWithTheCallbacksAnswer) {
    for (const int answer : {5, -9, 1}) {
        Visited visited;
        visited.stop = 1;
        visited.answer = answer;
        EXPECT_EQ(filedb_fixed_list(db, fd, &visited, Visited::list), answer);
        EXPECT_THAT(visited.records, ElementsAre(kA, kB));
        visited = {};
        visited.stop = 0;
        visited.answer = answer;
        EXPECT_EQ(filedb_fixed_list_offset(db, fd, &visited, Visited::list_offset), answer);
        EXPECT_THAT(visited.records, ElementsAre(kA));
    }
}

TEST_P(FiledbFixed, VisitsWhatStandsBeforeAnIncompleteRecord) {
    db.write(kA + kB + "partial");
    Visited visited;
    EXPECT_EQ(filedb_fixed_list(db, fd, &visited, Visited::list), -4);
    EXPECT_THAT(visited.records, ElementsAre(kA, kB));
    EXPECT_EQ(filedb_fixed_list_offset(db, fd, &visited, Visited::list_offset), -4);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:filedb_fixed:filedb_fixed_list: " + corrupt_message(7),
                            "WARN:filedb_fixed:filedb_fixed_list_offset: " + corrupt_message(7)));
}

TEST_P(FiledbFixed, LetsACallbackChangeTheRecordsItVisits) {
    const int result = walk(db, fd, [&](int in_use, int64_t offset, std::string& read) {
        read.back() = '!';
        return filedb_fixed_edit_offset(db, in_use, offset, nullptr, read.data(), nullptr);
    });
    EXPECT_EQ(result, 0);
    for (const std::string& now : listed(db, fd)) EXPECT_EQ(now.back(), '!');
}

TEST_P(FiledbFixed, VisitsARecordAheadAsACallbackLeftIt) {
    Visited visited;
    const int result = walk(db, fd, [&](int in_use, int64_t offset, std::string& read) {
        visited.records.push_back(read);
        if (offset == 0)
            return filedb_fixed_edit(db, in_use, key("c").data(), record("c", "new").data(),
                                     nullptr);
        return 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(visited.records, ElementsAre(kA, kB, record("c", "new")));
}

TEST_P(FiledbFixed, VisitsWhatACallbackAppendedAndNotWhatItRemoved) {
    Visited visited;
    const std::string d = record("d", "");
    const int result = walk(db, fd, [&](int in_use, int64_t offset, std::string& read) {
        visited.records.push_back(read);
        if (offset == 0) return filedb_fixed_insert(db, in_use, key("d").data(), d.data());
        if (offset == 16) return filedb_fixed_remove(db, in_use, key("c").data());
        return 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(visited.records, ElementsAre(kA, kB, d));
    EXPECT_EQ(db.content(), kA + kB + d);
}

TEST_P(FiledbFixed, DoesNotVisitALastRecordThatACallbackCutOff) {
    Visited visited;
    const int result = walk(db, fd, [&](int in_use, int64_t offset, std::string& read) {
        visited.records.push_back(read);
        return offset == 0 ? filedb_fixed_remove(db, in_use, key("c").data()) : 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(visited.records, ElementsAre(kA, kB));
}

TEST_P(FiledbFixed, LetsACallbackRemoveEveryRecordItVisits) {
    std::string many;
    for (int i = 0; i < 100; ++i) many += record(std::to_string(i), "");
    db.write(many);
    size_t visits = 0;
    const int result = walk(db, fd, [&](int in_use, int64_t, std::string& read) {
        ++visits;
        return filedb_fixed_remove(db, in_use, read.data());
    });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(visits, 50u) << "each removal puts the last record where the walk has been";
    EXPECT_EQ(db.content().size(), 50 * kRecordSize);
}

TEST_P(FiledbFixed, LetsACallbackFindAndListMeanwhile) {
    std::vector<std::string> seen;
    const int result = walk(db, fd, [&](int in_use, int64_t, std::string& read) {
        EXPECT_EQ(filedb_fixed_find(db, in_use, key("c").data(), out.data()), 0);
        EXPECT_THAT(listed(db, in_use), ElementsAre(kA, kB, kC));
        EXPECT_EQ(filedb_fixed_find(db, 0, key("a").data(), out.data()), 0);
        seen.push_back(read);
        return 0;
    });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(seen, ElementsAre(kA, kB, kC));
}

TEST_P(FiledbFixed, EndsAWalkThatCannotGoBackToWhatACallbackWrote) {
    size_t visits = 0;
    std::unique_ptr<FailingCall> fault;
    const int result = walk(db, fd, [&](int in_use, int64_t offset, std::string& read) {
        ++visits;
        const int edited =
            filedb_fixed_edit_offset(db, in_use, offset, nullptr, read.data(), nullptr);
        fault = std::make_unique<FailingCall>("lseek", EIO);
        return edited;
    });
    EXPECT_EQ(result, -3);
    EXPECT_EQ(visits, 1u);
}

// --- blocks --------------------------------------------------------------------------------------

namespace {

struct Shape {
    uint32_t record_size;
    uint32_t key_size;
    uint32_t count;
};

class FiledbFixedBlocks : public testing::TestWithParam<Shape> {
  protected:
    const Shape shape = GetParam();

    // Each key differs from the next in its last bytes.
    std::string key_of(uint32_t i) const {
        std::string text(shape.key_size, 'k');
        memcpy(text.data() + text.size() - std::min(text.size(), sizeof i), &i,
               std::min(text.size(), sizeof i));
        return text;
    }
    std::string record_of(uint32_t i) const {
        std::string text = key_of(i);
        text.resize(shape.record_size, static_cast<char>('A' + i % 26));
        return text;
    }
    std::string all() const {
        std::string text;
        for (uint32_t i = 0; i < shape.count; ++i) text += record_of(i);
        return text;
    }
};

std::string shape_name(const testing::TestParamInfo<Shape>& shape) {
    return "RecordsOf" + std::to_string(shape.param.record_size) + "WithKeysOf" +
           std::to_string(shape.param.key_size) + "Times" + std::to_string(shape.param.count);
}

INSTANTIATE_TEST_SUITE_P(Of, FiledbFixedBlocks,
                         testing::Values(Shape{1, 1, 200}, Shape{2, 1, 200}, Shape{3, 2, 40000},
                                         Shape{16, 4, 5000}, Shape{16, 16, 2048},
                                         Shape{34, 4, 2000}, Shape{64, 32, 3 * 512},
                                         Shape{64, 32, 3 * 512 + 1}, Shape{64, 13, 1000},
                                         Shape{374, 7, 300}, Shape{17000, 8, 5},
                                         Shape{kBlockSize, 12, 5}, Shape{kBlockSize + 1, 12, 5},
                                         Shape{100000, 70000, 4}),
                         shape_name);

}  // namespace

TEST_P(FiledbFixedBlocks, AreReadWhole) {
    Database db(all(), shape.record_size, shape.key_size);
    std::string out(shape.record_size, '-');
    const uint32_t step = shape.count > 1000 ? shape.count / 97 : 1;
    for (uint32_t i = 0; i < shape.count; i += step) {
        ASSERT_EQ(filedb_fixed_find(db, 0, key_of(i).data(), out.data()), 0) << i;
        EXPECT_EQ(out, record_of(i));
    }
    const uint32_t absent = shape.key_size == 1 ? 255 : 60000;
    EXPECT_EQ(filedb_fixed_find(db, 0, key_of(absent).data(), out.data()), 1);
    EXPECT_EQ(out, record_of(shape.count - 1));

    const std::vector<std::string> records = listed(db);
    ASSERT_EQ(records.size(), shape.count);
    for (uint32_t i = 0; i < shape.count; ++i) ASSERT_EQ(records[i], record_of(i));
}

TEST_P(FiledbFixedBlocks, LeaveTheLastWholeRecordBehindWhereTheFileEndsInsideOne) {
    const std::string partial(shape.record_size - 1, '?');
    Database db(all() + partial, shape.record_size, shape.key_size);
    const int expected = partial.empty() ? 1 : -4;
    const uint32_t absent = shape.key_size == 1 ? 255 : 60000;
    std::string out(shape.record_size, '-'), scratch = out;
    CapturedLog log;
    EXPECT_EQ(filedb_fixed_find(db, 0, key_of(absent).data(), out.data()), expected);
    EXPECT_EQ(out, record_of(shape.count - 1));
    EXPECT_EQ(filedb_fixed_edit(db, 0, key_of(absent).data(), out.data(), scratch.data()),
              expected);
    EXPECT_EQ(scratch, record_of(shape.count - 1));

    Visited visited;
    EXPECT_EQ(filedb_fixed_list(db, 0, &visited, Visited::list), expected == 1 ? 0 : -4);
    EXPECT_EQ(visited.records.size(), shape.count);
    EXPECT_EQ(log.lines().size(), expected == 1 ? 0u : 3u);
}

TEST_P(FiledbFixedBlocks, AreEditedAndRemovedInPlace) {
    Database db(all(), shape.record_size, shape.key_size);
    const uint32_t middle = shape.count / 2;
    std::string changed = record_of(middle);
    changed.back() = '#';
    EXPECT_EQ(filedb_fixed_edit(db, 0, key_of(middle).data(), changed.data(), nullptr), 0);

    std::string expected = all();
    expected.replace(size_t{middle} * shape.record_size, shape.record_size, changed);
    EXPECT_TRUE(db.content() == expected);

    const std::string last = expected.substr(expected.size() - shape.record_size);
    EXPECT_EQ(filedb_fixed_remove(db, 0, last.data()), 0);
    expected.resize(expected.size() - shape.record_size);
    EXPECT_TRUE(db.content() == expected);
    EXPECT_EQ(filedb_fixed_remove(db, 0, key_of(0).data()), 0);
    expected.replace(0, shape.record_size, expected.substr(expected.size() - shape.record_size));
    expected.resize(expected.size() - shape.record_size);
    EXPECT_TRUE(db.content() == expected);
}

TEST(FiledbFixedBlock, HoldsThirtyTwoKibibytes) {
    Database db(std::string(64 * 1024, 'x'), 64, 8);
    const uint64_t before = calls_of("read");
    EXPECT_EQ(listed(db).size(), 1024u);
    EXPECT_EQ(calls_of("read") - before, 3u) << "two blocks and the end";
}

TEST(FiledbFixedBlock, FitsASmallStack) {
    Database db(kA + kB);
    run_on_stack(128 * 1024, [&] {
        EXPECT_EQ(filedb_fixed_insert(db, 0, key("c").data(), kC.data()), 0);
        EXPECT_EQ(filedb_fixed_remove(db, 0, key("a").data()), 0);
    });
    EXPECT_EQ(db.content(), kC + kB);
}

TEST(FiledbFixedBlock, IsReadAgainInAWalkThatWritesFarAhead) {
    std::string many;
    for (int i = 0; i < 5000; ++i) many += record(std::to_string(i), "");
    Database db(many);
    std::vector<std::string> seen;
    const int result = walk(db, 0, [&](int fd, int64_t offset, std::string& read) {
        seen.push_back(read);
        if (offset != 0) return 0;
        const std::string near = record("near", ""), far = record("far", "");
        return filedb_fixed_edit_offset(db, fd, 16, nullptr, near.data(), nullptr) +
               filedb_fixed_edit_offset(db, fd, 4000 * 16, nullptr, far.data(), nullptr);
    });
    EXPECT_EQ(result, 0);
    ASSERT_EQ(seen.size(), 5000u);
    EXPECT_EQ(seen[1], record("near", ""));
    EXPECT_EQ(seen[2], record("2", ""));
    EXPECT_EQ(seen[4000], record("far", ""));
}

TEST(FiledbFixedBlock, IsReadAgainInAListWhoseCallbackWritesThroughTheCallersDescriptor) {
    struct Context {
        Database db{kA + kB + kC};
        int fd = filedb_fixed_fdopen(db);
        std::vector<std::string> seen;
    } context;
    const int result = filedb_fixed_list(
        context.db, context.fd, &context, [](void* pointer, void* bytes, int32_t size) {
            auto* self = static_cast<Context*>(pointer);
            self->seen.emplace_back(static_cast<const char*>(bytes), static_cast<size_t>(size));
            return filedb_fixed_edit(self->db, self->fd, key("c").data(), record("c", "new").data(),
                                     nullptr);
        });
    EXPECT_EQ(result, 0);
    EXPECT_THAT(context.seen, ElementsAre(kA, kB, record("c", "new")));
    filedb_fixed_fdclose(context.db, context.fd);
}

TEST(FiledbFixedBlock, AlignsRecordsAsAnArrayDoes) {
    struct Row {
        int64_t key;
        double value;
        char text[8];
    };
    Database db(std::string(sizeof(Row) * 3000, '\0'), sizeof(Row), 8);
    bool aligned = true;
    EXPECT_EQ(filedb_fixed_list(db, 0, &aligned,
                                [](void* context, void* row, int32_t) {
                                    *static_cast<bool*>(context) &=
                                        reinterpret_cast<uintptr_t>(row) % alignof(Row) == 0;
                                    return 0;
                                }),
              0);
    EXPECT_TRUE(aligned);
}

// --- arguments -----------------------------------------------------------------------------------

namespace {

// Every data operation, each as it is called when all goes well with kA, kB, kC in the file.
struct Operation {
    const char* name;
    std::function<int(filedb_fixed*, int)> call;
    bool writes;
    bool has_key;
};

const std::vector<Operation>& operations() {
    static std::string buffer(200'000, '\0');
    static const std::string d = record("d", "");
    static const std::vector<Operation> all{
        {"insert",
         [](filedb_fixed* db, int fd) {
             return filedb_fixed_insert(db, fd, key("d").data(), d.data());
         },
         true, true},
        {"append_offset",
         [](filedb_fixed* db, int fd) {
             return filedb_fixed_append_offset(db, fd, nullptr, nullptr, d.data());
         },
         true, false},
        {"edit",
         [](filedb_fixed* db, int fd) {
             return filedb_fixed_edit(db, fd, key("a").data(), kA.data(), nullptr);
         },
         true, true},
        {"edit_offset",
         [](filedb_fixed* db, int fd) {
             return filedb_fixed_edit_offset(db, fd, 0, nullptr, kA.data(), nullptr);
         },
         true, false},
        {"remove",
         [](filedb_fixed* db, int fd) { return filedb_fixed_remove(db, fd, key("b").data()); },
         true, true},
        {"find",
         [](filedb_fixed* db, int fd) {
             return filedb_fixed_find(db, fd, key("c").data(), buffer.data());
         },
         false, true},
        {"list",
         [](filedb_fixed* db, int fd) {
             return filedb_fixed_list(db, fd, nullptr, [](void*, void*, int32_t) { return 0; });
         },
         false, false},
        {"list_offset",
         [](filedb_fixed* db, int fd) {
             return filedb_fixed_list_offset(
                 db, fd, nullptr,
                 [](void*, filedb_fixed*, int, int64_t, void*, int32_t) { return 0; });
         },
         false, false},
    };
    return all;
}

}  // namespace

TEST(FiledbFixedArguments, AreJudgedBeforeTheFileIsOpened) {
    Database db("");
    unlink(db->path);
    const auto refused = [&](bool with_keys_only) {
        for (const Operation& operation : operations()) {
            if (with_keys_only && !operation.has_key) continue;
            EXPECT_EQ(operation.call(db, 0), -1) << operation.name;
            EXPECT_EQ(operation.call(db, -1), -1) << operation.name;
        }
        EXPECT_NE(access(db->path, F_OK), 0);
    };
    CapturedLog log;
    for (const int32_t size : {0, -1, INT32_MIN}) {
        db->record_size = size;
        refused(false);
    }
    db->record_size = kRecordSize;
    for (const uint32_t size : {0u, kRecordSize + 1, UINT32_MAX}) {
        db->key_size = size;
        refused(true);
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(FiledbFixedArguments, NeedNoKeyWhereNoneIsLookedFor) {
    Database db(kA);
    db->key_size = 0;
    EXPECT_THAT(listed(db), ElementsAre(kA));
    EXPECT_EQ(filedb_fixed_append_offset(db, 0, nullptr, nullptr, kB.data()), 0);
    EXPECT_EQ(filedb_fixed_edit_offset(db, 0, 0, nullptr, kC.data(), nullptr), 0);
    EXPECT_EQ(db.content(), kC + kB);
}

TEST(FiledbFixedArguments, MayNotBeNull) {
    Database db("");
    unlink(db->path);
    char buffer[kRecordSize] = {};
    EXPECT_EQ(filedb_fixed_insert(db, 0, nullptr, buffer), -1);
    EXPECT_EQ(filedb_fixed_insert(db, 0, buffer, nullptr), -1);
    EXPECT_EQ(filedb_fixed_append_offset(db, 0, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(filedb_fixed_edit(db, 0, nullptr, buffer, nullptr), -1);
    EXPECT_EQ(filedb_fixed_edit(db, 0, buffer, nullptr, nullptr), -1);
    EXPECT_EQ(filedb_fixed_edit_offset(db, 0, 0, nullptr, nullptr, nullptr), -1);
    EXPECT_EQ(filedb_fixed_remove(db, 0, nullptr), -1);
    EXPECT_EQ(filedb_fixed_find(db, 0, nullptr, buffer), -1);
    EXPECT_EQ(filedb_fixed_find(db, 0, buffer, nullptr), -1);
    EXPECT_EQ(filedb_fixed_list(db, 0, nullptr, nullptr), -1);
    EXPECT_EQ(filedb_fixed_list_offset(db, 0, nullptr, nullptr), -1);
    for (const Operation& operation : operations())
        EXPECT_EQ(operation.call(nullptr, 0), -1) << operation.name;
    EXPECT_NE(access(db->path, F_OK), 0);
}

TEST(FiledbFixedArguments, MakeTheMissingFileOfAnyOperation) {
    for (const Operation& operation : operations()) {
        Database db("");
        unlink(db->path);
        const int result = operation.call(db, -5);
        const bool looks_for_one = operation.has_key && operation.name != std::string("insert");
        EXPECT_EQ(result, looks_for_one ? 1 : 0) << operation.name;
        EXPECT_EQ(access(db->path, F_OK), 0) << operation.name;
    }
}

// --- what the system refuses ---------------------------------------------------------------------

TEST(FiledbFixedFailure, OfAnAllocationChangesNothing) {
    for (const Operation& operation : operations()) {
        for (FailingAllocations round; round.next();) {
            Database db(kA + kB + kC);
            round.arm();
            const int result = operation.call(db, 0);
            round.disarm();
            EXPECT_EQ(result, round.hit() ? -1 : 0) << operation.name;
            if (round.hit()) {
                EXPECT_EQ(db.content(), kA + kB + kC) << operation.name;
            }
        }
    }
}

TEST(FiledbFixedFailure, OfAnAllocationComesWithEveryDocumentedBuffer) {
    const std::vector<std::pair<std::string, uint32_t>> buffers{
        {"insert", 1}, {"append_offset", 0}, {"edit", 1}, {"edit_offset", 1},
        {"remove", 2}, {"find", 0},          {"list", 1}, {"list_offset", 1}};
    for (size_t i = 0; i < buffers.size(); ++i) {
        const Operation& operation = operations()[i];
        ASSERT_EQ(operation.name, buffers[i].first);
        uint32_t rounds = 0;
        for (FailingAllocations round; round.next(); ++rounds) {
            Database db(kA + kB + kC);
            round.arm();
            operation.call(db, 0);
            round.disarm();
        }
        EXPECT_EQ(rounds, buffers[i].second + 1) << operation.name;
    }
}

TEST(FiledbFixedFailure, OfAnAllocationNeedsNoneWithAScratchBuffer) {
    Database db(kA);
    char scratch[kRecordSize];
    FailingCall fault("malloc", ENOMEM);
    EXPECT_EQ(filedb_fixed_edit(db, 0, key("a").data(), kB.data(), scratch), 0);
    EXPECT_EQ(filedb_fixed_edit_offset(db, 0, 0, nullptr, kC.data(), scratch), 0);
    EXPECT_FALSE(fault.hit());
}

TEST(FiledbFixedFailure, OfTheAllocationForARecordLongerThanABlock) {
    const std::string one(kBlockSize + 1, '1');
    Database db(one, kBlockSize + 1, 4);
    std::string out = one;
    for (FailingAllocations round; round.next();) {
        round.arm();
        const int found = filedb_fixed_find(db, 0, "1111", out.data());
        round.disarm();
        EXPECT_EQ(found, round.hit() ? -1 : 0);
    }
    for (FailingAllocations round; round.next();) {
        round.arm();
        const int edited = filedb_fixed_edit(db, 0, "1111", one.data(), out.data());
        round.disarm();
        EXPECT_EQ(edited, round.hit() ? -1 : 0);
    }
}

TEST(FiledbFixedFailure, OfOpeningIsTheOpenersToLog) {
    for (const Operation& operation : operations()) {
        CapturedLog log;
        Database db(kA);
        FailingCall fault("open", EACCES);
        EXPECT_EQ(operation.call(db, 0), -1) << operation.name;
        EXPECT_THAT(
            log.lines(),
            ElementsAre("WARN:filedb_fixed:filedb_fixed_fdopen: open(): Permission denied"));
    }
}

TEST(FiledbFixedFailure, OfTheLockClosesTheFile) {
    for (const Operation& operation : operations()) {
        CapturedLog log;
        Database db(kA + kB + kC);
        const int descriptors = descriptor_count();
        for (const int error : {ENOLCK, EINTR}) {
            FailingCall fault("flock", error);
            EXPECT_EQ(operation.call(db, 0), -2) << operation.name;
        }
        EXPECT_EQ(descriptor_count(), descriptors);
        EXPECT_EQ(db.content(), kA + kB + kC);
        EXPECT_THAT(log.lines(), IsEmpty());
    }
}

TEST(FiledbFixedFailure, OfSeekingToTheStartOrTheEnd) {
    for (const Operation& operation : operations()) {
        Database db(kA + kB + kC);
        const int fd = filedb_fixed_fdopen(db);
        lseek(fd, kSomewhere, SEEK_SET);
        {
            // An insert looks for the key from the start, and appends where it cannot.
            FailingCall fault("lseek", EIO, 1);
            EXPECT_EQ(operation.call(db, fd), operation.name == std::string("insert") ? 0 : -3)
                << operation.name;
            EXPECT_TRUE(fault.hit());
        }
        EXPECT_EQ(lseek(fd, 0, SEEK_CUR), kSomewhere) << operation.name;
        filedb_fixed_fdclose(db, fd);
    }

    Database db(kA);
    const std::string d = record("d", "");
    FailingCall insertion("lseek", EIO);
    EXPECT_EQ(filedb_fixed_insert(db, 0, key("d").data(), d.data()), -3);
    FailingCall appending("lseek", EIO);
    EXPECT_EQ(filedb_fixed_append_offset(db, 0, nullptr, nullptr, d.data()), -3);
    EXPECT_EQ(db.content(), kA);
}

TEST(FiledbFixedFailure, OfSeekingInAPipe) {
    Database db("");
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    for (const Operation& operation : operations())
        EXPECT_EQ(operation.call(db, ends[1]), -3) << operation.name;
    close(ends[0]);
    close(ends[1]);
    for (const Operation& operation : operations())
        EXPECT_EQ(operation.call(db, ends[1]), -3) << operation.name << ", no descriptor";
}

TEST(FiledbFixedFailure, OfADescriptorThatIsOpenOneWayOnly) {
    Database db(kA + kB + kC);
    CapturedLog log;
    char out[kRecordSize];
    const int reading = open(db->path, O_RDONLY), writing = open(db->path, O_WRONLY);
    EXPECT_EQ(filedb_fixed_find(db, reading, key("c").data(), out), 0);
    EXPECT_EQ(filedb_fixed_insert(db, reading, key("d").data(), kA.data()), -4);
    EXPECT_EQ(filedb_fixed_edit(db, reading, key("a").data(), kA.data(), nullptr), 16);
    EXPECT_EQ(filedb_fixed_edit_offset(db, reading, 0, nullptr, kA.data(), nullptr), -1);
    EXPECT_EQ(filedb_fixed_remove(db, reading, key("c").data()), 16);
    EXPECT_THAT(log.messages(), ElementsAre(db.path() + " write failed"));
    EXPECT_EQ(filedb_fixed_find(db, writing, key("c").data(), out), -1);
    EXPECT_THAT(log.messages(), ElementsAre(db.path() + " write failed", db.path() + " read -1"));
    close(reading);
    close(writing);
    EXPECT_EQ(db.content(), kA + kB + kC);
}

// --- locks ---------------------------------------------------------------------------------------

namespace {

// Calls the operation, in a process of its own, while somebody holds this lock. A timer interrupts
// a wait for it.
int while_locked(const Operation& operation, int lock, bool kept) {
    Database db(kA + kB + kC);
    const int holder = filedb_fixed_fdopen(db);
    EXPECT_EQ(flock(holder, lock), 0);
    const ChildResult child = run_in_child([&] {
        struct sigaction interrupt {};
        interrupt.sa_handler = [](int) {};
        sigaction(SIGALRM, &interrupt, nullptr);
        const int fd = kept ? filedb_fixed_fdopen(db) : 0;
        // Again and again: the first may come before the wait.
        const itimerval soon{{0, 20'000}, {0, 50'000}};
        setitimer(ITIMER_REAL, &soon, nullptr);
        _exit(operation.call(db, fd) & 0xff);
    });
    filedb_fixed_fdclose(db, holder);
    EXPECT_TRUE(child.exited);
    return static_cast<int8_t>(child.status);
}

}  // namespace

TEST(FiledbFixedLock, IsSharedByReadersAndWaitedForByWriters) {
    for (const Operation& operation : operations()) {
        EXPECT_EQ(while_locked(operation, LOCK_SH, false), operation.writes ? -2 : 0)
            << operation.name;
        EXPECT_EQ(while_locked(operation, LOCK_EX, false), -2) << operation.name;
    }
}

TEST(FiledbFixedLock, IsNotTakenThroughTheCallersDescriptor) {
    for (const Operation& operation : operations())
        EXPECT_EQ(while_locked(operation, LOCK_EX, true), 0) << operation.name;
}

TEST(FiledbFixedLock, IsReleasedWithTheCall) {
    for (const Operation& operation : operations()) {
        Database db(kA + kB + kC);
        const int descriptors = descriptor_count();
        EXPECT_EQ(operation.call(db, 0), 0) << operation.name;
        EXPECT_EQ(descriptor_count(), descriptors) << operation.name;
        const int fd = filedb_fixed_fdopen(db);
        EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0) << operation.name;
        filedb_fixed_fdclose(db, fd);
    }
}

TEST(FiledbFixedLock, IsReleasedThoughAChildInheritedTheDescriptor) {
    Database db(kA);
    int to_child[2];
    ASSERT_EQ(pipe(to_child), 0);
    pid_t child = -1;
    EXPECT_EQ(walk(db, 0,
                   [&](int, int64_t, std::string&) {
                       child = fork();
                       if (child == 0) {
                           char byte;
                           close(to_child[1]);
                           _exit(static_cast<int>(read(to_child[0], &byte, 1)));
                       }
                       return 0;
                   }),
              0);
    const int fd = filedb_fixed_fdopen(db);
    EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), 0);
    filedb_fixed_fdclose(db, fd);
    close(to_child[0]);
    close(to_child[1]);
    waitpid(child, nullptr, 0);
}

TEST(FiledbFixedLock, IsHeldForTheLengthOfAWalk) {
    Database db(kA);
    EXPECT_EQ(walk(db, 0,
                   [&](int, int64_t, std::string&) {
                       const int fd = filedb_fixed_fdopen(db);
                       EXPECT_EQ(flock(fd, LOCK_SH | LOCK_NB), 0);
                       EXPECT_EQ(flock(fd, LOCK_EX | LOCK_NB), -1);
                       filedb_fixed_fdclose(db, fd);
                       return 0;
                   }),
              0);
}

TEST(FiledbFixedLock, KeepsThreadsFromInsertingOneKeyTwice) {
    Database db("");
    constexpr int kThreads = 4, kKeys = 50;
    std::vector<std::thread> threads;
    std::vector<int> inserted(kThreads);
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            for (int i = 0; i < kKeys; ++i) {
                const std::string mine = record(std::to_string(i), std::to_string(t));
                inserted[static_cast<size_t>(t)] +=
                    filedb_fixed_insert(db, 0, mine.data(), mine.data()) == 0;
            }
        });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(inserted[0] + inserted[1] + inserted[2] + inserted[3], kKeys);
    EXPECT_EQ(db.content().size(), kKeys * kRecordSize);
}
