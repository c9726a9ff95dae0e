#include <ztlib/ipc/pipe/named_pipe.h>

#include <tests/ipc/partner.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kPairTx = NAMED_PIPE_PAIR | NAMED_PIPE_TX;
constexpr int kPairRx = NAMED_PIPE_PAIR | NAMED_PIPE_RX;

bool exists(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0;
}

mode_t mode_of(const std::string& path) {
    struct stat status;
    return stat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

std::string target_of(int descriptor) {
    char target[PATH_MAX];
    const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    return length < 0 ? "" : std::string(target, static_cast<size_t>(length));
}

int access_of(int descriptor) { return fcntl(descriptor, F_GETFL) & O_ACCMODE; }

// A pipe that is closed at the end of the scope.
class Pipe {
  public:
    Pipe(const std::string& path, int flags) : pipe_(named_pipe_open(path.c_str(), flags)) {}
    ~Pipe() { close(); }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    operator named_pipe*() const { return pipe_; }
    named_pipe* operator->() const { return pipe_; }
    void close() { named_pipe_close(std::exchange(pipe_, nullptr), 1); }

  private:
    named_pipe* pipe_;
};

// A record of a host's own, with this path.
class Embedded {
  public:
    explicit Embedded(const std::string& path) {
        memcpy(record_.path, path.data(), std::min(path.size(), sizeof record_.path));
    }
    ~Embedded() { named_pipe_close(&record_, 0); }
    Embedded(const Embedded&) = delete;
    Embedded& operator=(const Embedded&) = delete;

    operator named_pipe*() { return &record_; }
    named_pipe* operator->() { return &record_; }

  private:
    named_pipe record_{};
};

// Whole transfers over the bare calls.
bool send_all(named_pipe* pipe, const void* bytes, size_t size) {
    const char* at = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t count = named_pipe_write(pipe, at, size);
        if (count <= 0) return false;
        at += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

bool receive_all(named_pipe* pipe, void* bytes, size_t size) {
    char* at = static_cast<char*>(bytes);
    while (size > 0) {
        const ssize_t count = named_pipe_read(pipe, at, size);
        if (count <= 0) return false;
        at += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

std::string received(named_pipe* pipe, size_t size) {
    std::string text(size, '\0');
    return receive_all(pipe, text.data(), size) ? text : "";
}

// Says its own name and expects the other's.
int greet(const std::string& path, int flags, const std::string& own, const std::string& other) {
    Pipe pipe(path, flags);
    if (!pipe) return 1;
    if (!send_all(pipe, own.data(), own.size())) return 2;
    return received(pipe, other.size()) == other ? 0 : 3;
}

// Opening fails, by whichever name this build calls it.
class FailingOpen {
  public:
    explicit FailingOpen(int error, uint32_t skip = 0)
        : plain_("open", error, skip), checked_("__open_2", error, skip) {}

  private:
    FailingCall plain_;
    FailingCall checked_;
};

class IgnoredSigpipe {
  public:
    IgnoredSigpipe() : before_(signal(SIGPIPE, SIG_IGN)) {}
    ~IgnoredSigpipe() { signal(SIGPIPE, before_); }

  private:
    void (*before_)(int);
};

class Umask {
  public:
    explicit Umask(mode_t mask) : before_(umask(mask)) {}
    ~Umask() { umask(before_); }

  private:
    mode_t before_;
};

}  // namespace

// --- meeting -------------------------------------------------------------------------------------

class NamedPipeMeeting : public testing::TestWithParam<int> {};

TEST_P(NamedPipeMeeting, EitherSideWaitsForTheOther) {
    const int first = GetParam(), second = first == kPairTx ? kPairRx : kPairTx;
    const ScratchDirectory scratch;
    const std::string path = scratch / "job";

    Partner partner([&] { return greet(path, first, "first", "second"); });
    ASSERT_TRUE(eventually([&] { return exists(path + "_tx") && partner.sleeps(); }));

    EXPECT_EQ(greet(path, second, "second", "first"), 0);
    EXPECT_EQ(partner.wait(), 0);
}

INSTANTIATE_TEST_SUITE_P(First, NamedPipeMeeting, testing::Values(kPairTx, kPairRx),
                         [](const auto& side) { return side.param == kPairTx ? "Tx" : "Rx"; });

TEST(NamedPipe, SidesThatComeAtTheSameMomentMeet) {
    const ScratchDirectory scratch;
    for (int i = 0; i < 50; ++i) {
        const std::string path = scratch / std::to_string(i);
        Partner partner([&] { return greet(path, kPairRx, "right", "left"); });
        EXPECT_EQ(greet(path, kPairTx, "left", "right"), 0);
        EXPECT_EQ(partner.wait(), 0);
    }
}

TEST(NamedPipe, APairIsTwoFifosEachForOneDirection) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "job";
    Partner partner([&] {
        Pipe rx(path, kPairRx);
        char byte;
        const bool right = rx && target_of(rx->read_fd) == path + "_tx" &&
                           target_of(rx->write_fd) == path + "_rx" &&
                           access_of(rx->read_fd) == O_RDONLY &&
                           access_of(rx->write_fd) == O_WRONLY;
        return right && named_pipe_read(rx, &byte, 1) == 0 ? 0 : 1;
    });
    {
        Pipe tx(path, kPairTx);
        ASSERT_NE(tx, nullptr);
        EXPECT_EQ(tx->path, path);
        EXPECT_EQ(tx->reserved, 0u);
        EXPECT_EQ(target_of(tx->write_fd), path + "_tx");
        EXPECT_EQ(target_of(tx->read_fd), path + "_rx");
        EXPECT_EQ(access_of(tx->write_fd), O_WRONLY);
        EXPECT_EQ(access_of(tx->read_fd), O_RDONLY);
        for (const int descriptor : {tx->read_fd, tx->write_fd})
            EXPECT_EQ(fcntl(descriptor, F_GETFD), FD_CLOEXEC);
    }
    EXPECT_EQ(partner.wait(), 0);
    EXPECT_TRUE(exists(path + "_rx")) << "FIFOs are never removed";
    EXPECT_TRUE(exists(path + "_tx"));
    EXPECT_FALSE(exists(path));
}

TEST(NamedPipe, GivenBothSidesTxIsTaken) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "job";
    Partner partner([&] { return greet(path, kPairRx, "rx", "tx"); });
    // Bits above the low eight mean nothing.
    EXPECT_EQ(greet(path, kPairTx | NAMED_PIPE_RX | 0x700, "tx", "rx"), 0);
    EXPECT_EQ(partner.wait(), 0);
}

TEST(NamedPipe, InSingleModeTheWriterSendsByItsReadDescriptor) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "job";
    Partner writer([&] {
        Pipe pipe(path, NAMED_PIPE_RX);
        if (!pipe || pipe->write_fd != 0 || access_of(pipe->read_fd) != O_WRONLY) return 1;
        return write(pipe->read_fd, "one way", 7) == 7 ? 0 : 2;
    });
    Pipe pipe(path, NAMED_PIPE_TX);
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(pipe->write_fd, 0);
    EXPECT_EQ(access_of(pipe->read_fd), O_RDONLY);
    EXPECT_EQ(target_of(pipe->read_fd), path);
    EXPECT_EQ(received(pipe, 7), "one way");
    EXPECT_EQ(writer.wait(), 0);
    char byte;
    EXPECT_EQ(named_pipe_read(pipe, &byte, 1), 0) << "the writer has gone";
    EXPECT_FALSE(exists(path + "_rx"));
}

TEST(NamedPipe, InSingleModeGivenBothSidesItOpensForReading) {
    const ScratchDirectory scratch;
    Pipe pipe(scratch.write("job", "abc"), NAMED_PIPE_TX | NAMED_PIPE_RX);
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(access_of(pipe->read_fd), O_RDONLY);
}

TEST(NamedPipe, APartnerKilledWhileItWaitsIsReplacedByTheNext) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "job";
    Partner killed([&] { return greet(path, kPairTx, "first", "second"); });
    ASSERT_TRUE(eventually([&] { return exists(path + "_tx") && killed.sleeps(); }));
    killed.kill();

    Partner next([&] { return greet(path, kPairTx, "first", "second"); });
    EXPECT_EQ(greet(path, kPairRx, "second", "first"), 0);
    EXPECT_EQ(next.wait(), 0);
}

// --- what is made, and what is not ---------------------------------------------------------------

TEST(NamedPipe, MissingFifosAreMadeWithTheirOddModeLessTheUmask) {
    const ScratchDirectory scratch;
    for (const mode_t mask : {0, 022, 02}) {
        const Umask umask(mask);
        const std::string path = scratch / std::to_string(mask);
        Embedded pipe(path);
        EXPECT_EQ(named_pipe_init(pipe, NAMED_PIPE_PAIR), -1);
        EXPECT_EQ(mode_of(path + "_rx"), S_IFIFO | (0022 & ~mask));
        EXPECT_EQ(mode_of(path + "_tx"), S_IFIFO | (0022 & ~mask));

        Embedded single(path);
        EXPECT_EQ(named_pipe_init(single, 0), -1);
        EXPECT_EQ(mode_of(path), S_IFIFO | (0022 & ~mask));
    }
}

TEST(NamedPipe, WithoutASideItMakesTheFifosAndFails) {
    const ScratchDirectory scratch;
    const CapturedLog log;
    Embedded pair(scratch / "pair"), single(scratch / "single");
    errno = 0;
    EXPECT_EQ(named_pipe_init(pair, NAMED_PIPE_PAIR), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(exists(scratch / "pair_rx"));
    EXPECT_TRUE(exists(scratch / "pair_tx"));
    EXPECT_EQ(pair->read_fd, 0);
    EXPECT_EQ(pair->write_fd, 0);

    errno = 0;
    EXPECT_EQ(named_pipe_init(single, 0x100 | 8), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(exists(scratch / "single"));
    EXPECT_THAT(log.lines(), IsEmpty());

    errno = 0;
    EXPECT_EQ(named_pipe_open(nullptr, NAMED_PIPE_PAIR | NAMED_PIPE_TX), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(named_pipe_open((scratch / "pair").c_str(), NAMED_PIPE_PAIR), nullptr);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_THAT(log.lines(), ElementsAre("WARN:named_pipe:named_pipe_open: named_pipe_init()(): "
                                         "Invalid argument"));
}

TEST(NamedPipe, AFileThatIsThereIsNotReplaced) {
    const ScratchDirectory scratch;
    const std::string path = scratch.write("job", "old");
    {
        Pipe reader(path, NAMED_PIPE_TX);
        EXPECT_EQ(received(reader, 3), "old");
        Pipe writer(path, NAMED_PIPE_RX);
        EXPECT_EQ(write(writer->read_fd, "new", 3), 3);
    }
    EXPECT_TRUE(S_ISREG(mode_of(path)));

    scratch.write("pair_tx", "");
    scratch.write("pair_rx", "back");
    Pipe pair(scratch / "pair", kPairTx);
    EXPECT_EQ(received(pair, 4), "back");
    EXPECT_EQ(named_pipe_write(pair, "forth", 5), 5);
    EXPECT_EQ(std::ifstream(scratch / "pair_tx").seekg(0, std::ios::end).tellg(), 5);
}

TEST(NamedPipe, AFifoThatCannotBeMadeFailsInTheOrderRxThenTx) {
    const ScratchDirectory scratch;
    const CapturedLog log;
    Embedded nowhere(scratch / "missing/job");
    EXPECT_EQ(named_pipe_init(nowhere, kPairTx), -1);
    EXPECT_EQ(errno, ENOENT);
    {
        FailingCall fault("mkfifo", EACCES, 1);
        Embedded pair(scratch / "pair");
        EXPECT_EQ(named_pipe_init(pair, kPairTx), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_TRUE(exists(scratch / "pair_rx"));
        EXPECT_FALSE(exists(scratch / "pair_tx"));
    }
    // Something has the name that leads nowhere: no FIFO can take its place.
    ASSERT_EQ(symlink("nowhere", (scratch / "single").c_str()), 0);
    Embedded single(scratch / "single");
    EXPECT_EQ(named_pipe_init(single, NAMED_PIPE_RX), -1);
    EXPECT_EQ(errno, EEXIST);

    const std::string line = "WARN:named_pipe:named_pipe_init: mkfifo()(): ";
    EXPECT_THAT(log.lines(), ElementsAre(line + "No such file or directory",
                                         line + "Permission denied", line + "File exists"));
}

TEST(NamedPipe, AFifoThatAPartnerMakesMeanwhileIsAsGood) {
    const ScratchDirectory scratch;
    const CapturedLog log;
    const std::string path = scratch.write("job", "abc");
    FailingCall not_there_yet("stat", ENOENT);
    Pipe pipe(path, NAMED_PIPE_TX);
    EXPECT_TRUE(not_there_yet.hit());
    ASSERT_NE(pipe, nullptr);
    EXPECT_EQ(received(pipe, 3), "abc");
    EXPECT_THAT(log.lines(), IsEmpty());
}

// --- failures to open ----------------------------------------------------------------------------

class NamedPipeOpen : public testing::TestWithParam<int> {};

TEST_P(NamedPipeOpen, WhatWasOpenedBeforeAFailureStaysInTheRecord) {
    const ScratchDirectory scratch;
    for (const char* name : {"job_rx", "job_tx"}) scratch.write(name, "");
    const CapturedLog log;
    const int descriptors = descriptor_count();
    for (const uint32_t working : {0, 1}) {
        Embedded pipe(scratch / "job");
        FailingOpen fault(EMFILE, working);
        EXPECT_EQ(named_pipe_init(pipe, GetParam()), -1);
        EXPECT_EQ(errno, EMFILE);
        const int32_t first = GetParam() == kPairTx ? pipe->write_fd : pipe->read_fd;
        const int32_t second = GetParam() == kPairTx ? pipe->read_fd : pipe->write_fd;
        EXPECT_EQ(second, 0);
        EXPECT_EQ(target_of(first) == scratch / "job_tx", working == 1);
    }
    EXPECT_EQ(descriptor_count(), descriptors);
    const std::string line = "WARN:named_pipe:named_pipe_init: open()(): Too many open files";
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST_P(NamedPipeOpen, OpenGivesBackWhatItTookBeforeAFailure) {
    const ScratchDirectory scratch;
    for (const char* name : {"job_rx", "job_tx"}) scratch.write(name, "");
    const CapturedLog log;
    const Leftovers leftovers;
    FailingOpen fault(EMFILE, 1);
    EXPECT_EQ(named_pipe_open((scratch / "job").c_str(), GetParam()), nullptr);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_TRUE(leftovers.none());
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:named_pipe:named_pipe_init: open()(): Too many open files",
                            "WARN:named_pipe:named_pipe_open: named_pipe_init()(): Too many open "
                            "files"));
}

INSTANTIATE_TEST_SUITE_P(Side, NamedPipeOpen, testing::Values(kPairTx, kPairRx),
                         [](const auto& side) { return side.param == kPairTx ? "Tx" : "Rx"; });

TEST(NamedPipe, ASingleFifoThatCannotBeOpenedFails) {
    const ScratchDirectory scratch;
    const std::string path = scratch.write("job", "");
    const CapturedLog log;
    for (const int side : {NAMED_PIPE_TX, NAMED_PIPE_RX}) {
        FailingOpen fault(EACCES);
        Embedded pipe(path);
        EXPECT_EQ(named_pipe_init(pipe, side), -1);
        EXPECT_EQ(errno, EACCES);
        EXPECT_EQ(pipe->read_fd, 0);
    }
    const std::string line = "WARN:named_pipe:named_pipe_init: open()(): Permission denied";
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST(NamedPipe, ASignalEndsTheWaitForThePartner) {
    const ScratchDirectory scratch;
    const ChildResult child = run_in_child([&] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr);
        // Over and over, so that one comes while it waits.
        const itimerval often{{0, 20'000}, {0, 20'000}};
        setitimer(ITIMER_REAL, &often, nullptr);
        named_pipe* const pipe = named_pipe_open((scratch / "job").c_str(), kPairTx);
        _exit(!pipe && errno == EINTR ? 7 : 1);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 7);
}

TEST(NamedPipe, DescriptorZeroIsNeverAPipes) {
    const ScratchDirectory scratch;
    const std::string path = scratch.write("job", "abc");
    const ChildResult child = run_in_child([&] {
        close(0);
        Pipe pipe(path, NAMED_PIPE_TX);
        const bool right = pipe && pipe->read_fd > 2 && fcntl(0, F_GETFD) == -1 &&
                           fcntl(pipe->read_fd, F_GETFD) == FD_CLOEXEC &&
                           received(pipe, 3) == "abc";
        _exit(right ? 7 : 1);
    });
    EXPECT_EQ(child.status, 7);
}

TEST(NamedPipe, PathsAsLongAsTheirNamesFitAreTaken) {
    const ScratchDirectory scratch;
    // As long as wanted, by steps to where it is already.
    const auto path_of = [&](size_t length) {
        std::string path = scratch.path();
        while (path.size() + 4 < length) path += "/.";
        return path + "/" + std::string(length - path.size() - 1, 'j');
    };
    const CapturedLog log;
    const uint64_t mutexes = calls_of("pthread_mutex_init");
    const auto expect_refused = [&](size_t length, int flags) {
        errno = 0;
        EXPECT_EQ(named_pipe_open(path_of(length).c_str(), flags), nullptr);
        EXPECT_EQ(errno, ENAMETOOLONG);
        Embedded record(path_of(length));
        EXPECT_EQ(named_pipe_init(record, flags), -1);
        EXPECT_EQ(errno, ENAMETOOLONG);
    };
    for (const size_t length : {509, 511, 512, 5000}) expect_refused(length, kPairTx);
    for (const size_t length : {512, 513, 5000}) expect_refused(length, NAMED_PIPE_TX);
    EXPECT_EQ(calls_of("pthread_mutex_init"), mutexes) << "nothing is made";
    EXPECT_EQ(run({"ls", "-A", scratch.path()}).out, "");
    EXPECT_THAT(log.lines(), testing::SizeIs(7));
    EXPECT_THAT(log.lines(), testing::Each("WARN:named_pipe:named_pipe_open: named_pipe_init()(): "
                                           "File name too long"));

    for (const char* name : {"_rx", "_tx"}) std::ofstream(path_of(508) + name) << "pair";
    std::ofstream(path_of(511)) << "single";
    Pipe pair(path_of(508), kPairTx), single(path_of(511), NAMED_PIPE_TX);
    EXPECT_EQ(received(pair, 4), "pair");
    EXPECT_EQ(received(single, 6), "single");
}

TEST(NamedPipe, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    const ScratchDirectory scratch;
    const std::string path = scratch.write("job", "");
    const CapturedLog log;
    for_each_failing_allocation([&] { return named_pipe_open(path.c_str(), NAMED_PIPE_TX); },
                                [](named_pipe* pipe) { named_pipe_close(pipe, 1); });
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:named_pipe:named_pipe_open: calloc()(): Cannot allocate memory"));
}

TEST(NamedPipe, NullIsNeverFollowed) {
    char byte = 0;
    EXPECT_EQ(named_pipe_open(nullptr, kPairTx), nullptr);
    EXPECT_EQ(named_pipe_init(nullptr, kPairTx), -1);
    EXPECT_EQ(named_pipe_read(nullptr, &byte, 1), -1);
    EXPECT_EQ(named_pipe_write(nullptr, &byte, 1), -1);
    EXPECT_EQ(named_pipe_lock_transport(nullptr), 0);
    EXPECT_EQ(named_pipe_unlock_transport(nullptr), 0);
    named_pipe_close(nullptr, 1);
}

// --- closing -------------------------------------------------------------------------------------

TEST(NamedPipe, ARecordThatIsKeptCanBeOpenedAgain) {
    const ScratchDirectory scratch;
    const std::string path = scratch.write("job", "abc");
    const int descriptors = descriptor_count();
    Embedded pipe(path);
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(named_pipe_init(pipe, NAMED_PIPE_TX), 0);
        EXPECT_EQ(received(pipe, 3), "abc");
        named_pipe_close(pipe, 0);
        EXPECT_EQ(pipe->read_fd, 0);
        EXPECT_EQ(pipe->write_fd, 0);
        EXPECT_EQ(pipe->path, path);
        EXPECT_EQ(descriptor_count(), descriptors);
    }
    EXPECT_NE(fcntl(0, F_GETFD), -1) << "descriptors that are 0 are not closed";
}

TEST(NamedPipe, PrintsAMutexThatCannotBeDestroyedAndGoesOn) {
    const ScratchDirectory scratch;
    const std::string path = scratch.write("job", "");
    const Leftovers leftovers;
    Pipe pipe(path, NAMED_PIPE_TX);
    CapturedStderr err;
    FailingCall fault("pthread_mutex_destroy", EBUSY);
    errno = ENOENT;
    pipe.close();
    EXPECT_EQ(err.text(),
              "./ipc/pipe/named_pipe:named_pipe_close: pthread_mutex_destroy(): No such file or "
              "directory (16)\n");
}

TEST(NamedPipe, CloseGivesBackAllThatOpenTook) {
    const ScratchDirectory scratch;
    for (const char* name : {"job_rx", "job_tx"}) scratch.write(name, "");
    const Leftovers leftovers;
    for (const int side : {kPairTx, kPairRx}) Pipe(scratch / "job", side);
    EXPECT_TRUE(leftovers.none());
}

// --- locks that fail -----------------------------------------------------------------------------

TEST(NamedPipe, AMutexThatCannotBeMadeIsFatal) {
    const ScratchDirectory scratch;
    const ChildResult child = run_in_child([&] {
        FailingCall fault("pthread_mutex_init", EAGAIN);
        errno = ENOENT;
        Embedded pipe(scratch / "job");
        named_pipe_init(pipe, kPairTx);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err,
              "./ipc/pipe/named_pipe:named_pipe_init: pthread_mutex_init(): No such file or "
              "directory (11)\n");
    EXPECT_FALSE(exists(scratch / "job_rx"));
}

TEST(NamedPipe, FailedUnlockIsFatal) {
    const ChildResult child = run_in_child([] {
        named_pipe pipe{};
        named_pipe_lock_transport(&pipe);
        FailingCall fault("pthread_mutex_unlock", EPERM);
        errno = ENOENT;
        named_pipe_unlock_transport(&pipe);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err,
              "./ipc/pipe/named_pipe:named_pipe_unlock_transport: pthread_mutex_unlock(): No such "
              "file or directory (1)\n");
}

TEST(NamedPipe, FailedLockIsFatalThroughTheCheckedLock) {
    const ChildResult child = run_in_child([] {
        named_pipe pipe{};
        FailingCall fault("pthread_mutex_lock", EINVAL);
        named_pipe_lock_transport(&pipe);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.err,
              "./pthread_utils:pthread_utils_mutex_lock pthread_mutex_lock(): Invalid argument "
              "(22)\n");
}

TEST(NamedPipe, LocksAndUnlocksItsMutex) {
    named_pipe pipe{};
    EXPECT_EQ(named_pipe_lock_transport(&pipe), 0);
    EXPECT_EQ(pthread_mutex_trylock(&pipe.mutex), EBUSY);
    EXPECT_EQ(named_pipe_unlock_transport(&pipe), 0);
    EXPECT_EQ(pthread_mutex_trylock(&pipe.mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&pipe.mutex), 0);
}

// --- transfers -----------------------------------------------------------------------------------

TEST(NamedPipe, ReadAndWriteAreOneCallEachWithItsResult) {
    const ScratchDirectory scratch;
    scratch.write("job_rx", "abc");
    scratch.write("job_tx", "");
    Pipe pipe(scratch / "job", kPairTx);
    char bytes[8] = {};

    const uint64_t reads = calls_of("read"), writes = calls_of("write");
    {
        FailingCall interrupted("read", EINTR);
        EXPECT_EQ(named_pipe_read(pipe, bytes, sizeof bytes), -1);
        EXPECT_EQ(errno, EINTR);
    }
    EXPECT_EQ(named_pipe_read(pipe, bytes, sizeof bytes), 3);
    EXPECT_EQ(named_pipe_read(pipe, bytes, sizeof bytes), 0);
    EXPECT_EQ(calls_of("read"), reads + 3);
    {
        FailingCall interrupted("write", EINTR);
        EXPECT_EQ(named_pipe_write(pipe, "abc", 3), -1);
        EXPECT_EQ(errno, EINTR);
    }
    {
        FakedCall cut("write", 1);
        EXPECT_EQ(named_pipe_write(pipe, "abc", 3), 1);
    }
    EXPECT_EQ(calls_of("write"), writes + 2);

    std::swap(pipe->read_fd, pipe->write_fd);
    EXPECT_EQ(named_pipe_read(pipe, bytes, 1), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(named_pipe_write(pipe, "a", 1), -1);
    EXPECT_EQ(errno, EBADF);
    std::swap(pipe->read_fd, pipe->write_fd);
}

TEST(NamedPipe, AKilledPartnerEndsReadingAndFailsWriting) {
    const ScratchDirectory scratch;
    const IgnoredSigpipe ignored;
    Partner partner([&] {
        Pipe pipe(scratch / "job", kPairRx);
        send_all(pipe, "last words", 10);
        for (;;) pause();
        return 0;
    });
    Pipe pipe(scratch / "job", kPairTx);
    ASSERT_NE(pipe, nullptr);
    char byte;
    ASSERT_EQ(named_pipe_read(pipe, &byte, 1), 1);
    partner.kill();

    EXPECT_EQ(received(pipe, 9), "ast words") << "what was sent is still there";
    EXPECT_EQ(named_pipe_read(pipe, &byte, 1), 0);
    EXPECT_EQ(named_pipe_write(pipe, "anybody?", 8), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST(NamedPipe, AWriterThatDoesNotIgnoreTheSignalDiesOfIt) {
    const ScratchDirectory scratch;
    Partner writer([&] {
        signal(SIGPIPE, SIG_DFL);
        Pipe pipe(scratch / "job", kPairTx);
        char byte;
        named_pipe_read(pipe, &byte, 1);  // until the partner has gone
        named_pipe_write(pipe, "x", 1);
        return 0;
    });
    Pipe(scratch / "job", kPairRx);
    EXPECT_EQ(writer.wait(), -SIGPIPE);
}

namespace {

// ZT_PIPE_MEGABYTES sets how much goes each way.
size_t transfer_bytes() {
    const char* const megabytes = getenv("ZT_PIPE_MEGABYTES");
    return (megabytes ? strtoul(megabytes, nullptr, 10) : 100) * 1'000'000;
}

// A stream of counters, which no two places have in common, in pieces of a size of no meaning.
constexpr size_t kWords = 8'191;

void fill(std::vector<uint64_t>& piece, uint64_t from) {
    for (uint64_t& word : piece) word = from++;
}

bool send_stream(int descriptor, size_t words) {
    std::vector<uint64_t> piece(kWords);
    for (size_t sent = 0; sent < words; sent += kWords) {
        fill(piece, sent);
        const char* at = reinterpret_cast<const char*>(piece.data());
        for (size_t left = std::min(kWords, words - sent) * 8; left > 0;) {
            const ssize_t count = write(descriptor, at, left);
            if (count <= 0) return false;
            at += count;
            left -= static_cast<size_t>(count);
        }
    }
    return true;
}

bool receive_stream(named_pipe* pipe, size_t words) {
    std::vector<uint64_t> piece(kWords), expected(kWords);
    for (size_t got = 0; got < words; got += kWords) {
        const size_t size = std::min(kWords, words - got) * 8;
        fill(expected, got);
        if (!receive_all(pipe, piece.data(), size)) return false;
        if (memcmp(piece.data(), expected.data(), size) != 0) return false;
    }
    return true;
}

}  // namespace

TEST(NamedPipe, AHundredMegabytesGoThroughAPairEachWay) {
    const ScratchDirectory scratch;
    const size_t words = transfer_bytes() / 8;
    Partner partner([&] {
        Pipe pipe(scratch / "job", kPairRx);
        if (!pipe || !receive_stream(pipe, words)) return 1;
        return send_stream(pipe->write_fd, words) ? 0 : 2;
    });
    Pipe pipe(scratch / "job", kPairTx);
    ASSERT_NE(pipe, nullptr);
    EXPECT_TRUE(send_stream(pipe->write_fd, words));
    EXPECT_TRUE(receive_stream(pipe, words));
    EXPECT_EQ(partner.wait(), 0);
}

TEST(NamedPipe, AHundredMegabytesGoThroughASingleFifo) {
    const ScratchDirectory scratch;
    const size_t words = transfer_bytes() / 8;
    Partner writer([&] {
        Pipe pipe(scratch / "job", NAMED_PIPE_RX);
        return pipe && send_stream(pipe->read_fd, words) ? 0 : 1;
    });
    Pipe pipe(scratch / "job", NAMED_PIPE_TX);
    ASSERT_NE(pipe, nullptr);
    EXPECT_TRUE(receive_stream(pipe, words));
    EXPECT_EQ(writer.wait(), 0);
}

TEST(NamedPipe, ThreadsThatHoldTheTransportLockGetTheirOwnAnswers) {
    constexpr uint32_t kThreads = 8, kExchanges = 500;
    struct Request {
        uint32_t thread;
        uint32_t number;
    };
    const ScratchDirectory scratch;
    Partner partner([&] {
        Pipe pipe(scratch / "job", kPairRx);
        Request request;
        while (receive_all(pipe, &request.thread, 4) && receive_all(pipe, &request.number, 4)) {
            const uint64_t answer = request.thread * 1'000'000ull + request.number;
            if (!send_all(pipe, &answer, sizeof answer)) return 1;
        }
        return 0;
    });
    Pipe pipe(scratch / "job", kPairTx);
    ASSERT_NE(pipe, nullptr);

    std::atomic<uint32_t> right{0};
    std::vector<std::thread> threads;
    for (uint32_t thread = 1; thread <= kThreads; ++thread)
        threads.emplace_back([&, thread] {
            for (uint32_t number = 0; number < kExchanges; ++number) {
                uint64_t answer = 0;
                named_pipe_lock_transport(pipe);
                send_all(pipe, &thread, sizeof thread);
                send_all(pipe, &number, sizeof number);
                receive_all(pipe, &answer, sizeof answer);
                named_pipe_unlock_transport(pipe);
                right += answer == thread * 1'000'000ull + number;
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(right, kThreads * kExchanges);
    pipe.close();
    EXPECT_EQ(partner.wait(), 0);
}
