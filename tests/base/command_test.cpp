#include <ztlib/base/command.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::vector<const char*> words_of(std::initializer_list<const char*> words) {
    std::vector<const char*> all(words);
    all.push_back(nullptr);
    return all;
}

int run(std::initializer_list<const char*> words) {
    return zt::run_command(words_of(words).data());
}

// A program's lines, as they come with room for this many bytes.
template <size_t Size = 512>
std::vector<std::string> output(std::initializer_list<const char*> words) {
    zt::CommandOutput output(words_of(words).data());
    std::vector<std::string> lines;
    for (char line[Size]; output.next_line(line);) lines.emplace_back(line);
    return lines;
}

// A host that waits for any child as soon as it hears of one, until the end of the scope.
class ReapingHost {
  public:
    ReapingHost() {
        struct sigaction reaping {};
        reaping.sa_handler = [](int) {
            const int error = errno;
            while (waitpid(-1, nullptr, WNOHANG) > 0) continue;
            heard = 1;
            errno = error;
        };
        heard = 0;
        sigaction(SIGCHLD, &reaping, &before_);
    }
    ~ReapingHost() { sigaction(SIGCHLD, &before_, nullptr); }
    ReapingHost(const ReapingHost&) = delete;
    ReapingHost& operator=(const ReapingHost&) = delete;

    inline static volatile sig_atomic_t heard;

  private:
    struct sigaction before_;
};

sigset_t blocked_signals() {
    sigset_t signals;
    pthread_sigmask(SIG_BLOCK, nullptr, &signals);
    return signals;
}

// Limits the size of files in this process, and in those that it starts.
void limit_files(rlim_t size) {
    const rlimit limit{size, RLIM_INFINITY};
    if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(2);
}

}  // namespace

TEST(Command, GivesTheWaitStatus) {
    EXPECT_EQ(run({"true"}), 0);
    EXPECT_EQ(run({"sh", "-c", "exit 7"}), 7 << 8);
    const int killed = run({"sh", "-c", "kill -9 $$"});
    EXPECT_TRUE(WIFSIGNALED(killed));
    EXPECT_EQ(WTERMSIG(killed), SIGKILL);
}

TEST(Command, PassesWordsAsTheyAre) {
    CapturedStdout captured;
    run({"printf", "[%s]", "a b", "", "*", "$HOME;'\"`"});
    EXPECT_EQ(captured.text(), "[a b][][*][$HOME;'\"`]");
}

TEST(Command, GivesAShellsStatusForWhatDoesNotStart) {
    const ScratchDirectory scratch;
    const std::string no_program = scratch.write("file", "");
    const Leftovers leftovers;
    EXPECT_EQ(run({"/none/such"}), 127 << 8);
    EXPECT_EQ(run({"no-such-program-anywhere"}), 127 << 8);
    EXPECT_EQ(run({(no_program + "/below").c_str()}), 127 << 8);
    EXPECT_EQ(run({("/" + std::string(5000, 'x')).c_str()}), 127 << 8);
    EXPECT_EQ(run({no_program.c_str()}), 126 << 8);
    EXPECT_EQ(run({"/"}), 126 << 8);
    EXPECT_TRUE(leftovers.none());
}

TEST(Command, FailsWhereNoProcessCanBeMade) {
    FailingCall fault("posix_spawnp", EAGAIN);
    errno = 0;
    EXPECT_EQ(run({"true"}), -1);
    EXPECT_EQ(errno, EAGAIN);
}

TEST(Command, FailsWhereTheHostIgnoresItsChildren) {
    const auto before = signal(SIGCHLD, SIG_IGN);
    EXPECT_EQ(run({"true"}), -1);
    EXPECT_EQ(errno, ECHILD);
    EXPECT_THAT(output({"echo", "x"}), ElementsAre("x\n"));
    signal(SIGCHLD, before);
}

TEST(Command, KeepsItsStatusFromAHostThatWaitsForAnyChild) {
    // In a process with one thread, where no other can take the signal.
    const ChildResult child = run_in_child([] {
        const ReapingHost host;
        for (int i = 0; i < 50; ++i) {
            ReapingHost::heard = 0;
            if (run({"sh", "-c", "exit 7"}) != 7 << 8) _exit(1);
            if (!eventually([] { return ReapingHost::heard != 0; })) _exit(2);
            if (output({"echo", "x"}) != std::vector<std::string>{"x\n"}) _exit(3);
        }
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
}

TEST(Command, LeavesTheSignalsThatAreBlockedAsTheyWere) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &usr1, &before);
    for (const char* program : {"true", "/none/such"}) {
        run({program});
        const sigset_t after = blocked_signals();
        EXPECT_EQ(sigismember(&after, SIGUSR1), 1);
        EXPECT_EQ(sigismember(&after, SIGCHLD), 0);
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(Command, HasTheSignalMaskOfItsHost) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &usr1, &before);
    CapturedStdout captured;
    run({"grep", "SigBlk", "/proc/self/status"});
    EXPECT_EQ(captured.text(), "SigBlk:\t0000000000000200\n");
    EXPECT_THAT(output({"grep", "SigBlk", "/proc/self/status"}),
                ElementsAre("SigBlk:\t0000000000000200\n"));
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST(CommandOutput, ComesInLines) {
    EXPECT_THAT(output({"printf", "one\\n\\ntwo\\r\\nlast"}),
                ElementsAre("one\n", "\n", "two\r\n", "last"));
    EXPECT_THAT(output({"true"}), IsEmpty());
}

TEST(CommandOutput, ComesInPiecesWhereALineIsTooLong) {
    EXPECT_THAT(output<4>({"printf", "abc\\nabcdefg\\nab\\nx"}),
                ElementsAre("abc", "\n", "abc", "def", "g\n", "ab\n", "x"));
}

TEST(CommandOutput, IsReadAcrossBlocks) {
    const auto lines =
        output({"sh", "-c", "i=0; while [ $i -lt 3000 ]; do echo line $i; i=$((i+1)); done"});
    ASSERT_EQ(lines.size(), 3000u);
    for (int i = 0; i < 3000; ++i) EXPECT_EQ(lines[i], "line " + std::to_string(i) + "\n");
}

TEST(CommandOutput, IsWaitedForThoughNobodyReadsIt) {
    const ScratchDirectory scratch;
    const std::string done = scratch / "done";
    const std::string work = "yes | head -c 300000; : > " + done;
    const Leftovers leftovers;
    { zt::CommandOutput ignored(words_of({"sh", "-c", work.c_str()}).data()); }
    EXPECT_EQ(access(done.c_str(), F_OK), 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_TRUE(leftovers.none());
}

TEST(CommandOutput, OfWhatDoesNotStartIsEmpty) {
    const Leftovers leftovers;
    EXPECT_THAT(output({"/none/such"}), IsEmpty());
    for (const char* call : {"posix_spawnp", "lseek"}) {
        FailingCall fault(call, EMFILE);
        EXPECT_THAT(output({"echo", "x"}), IsEmpty());
        EXPECT_TRUE(fault.hit());
    }
    for (const char* call : {"pipe2", "posix_spawnp"}) {
        FailingCall no_file("memfd_create", EPERM);
        FailingCall fault(call, EMFILE);
        EXPECT_THAT(output({"echo", "x"}), IsEmpty());
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(CommandOutput, ComesThroughAPipeWhereNoFileCanBeMade) {
    const Leftovers leftovers;
    {
        FailingCall no_file("memfd_create", EPERM);
        EXPECT_THAT(output({"printf", "one\\ntwo"}), ElementsAre("one\n", "two"));
        EXPECT_TRUE(no_file.hit());
    }
    FailingCall no_file("memfd_create", ENOSYS);
    EXPECT_THAT(output({"sh", "-c", "yes | head -n 100000"}), SizeIs(100'000));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_TRUE(leftovers.none());
}

TEST(CommandOutput, ComesThroughAPipeWhereFilesAreLimited) {
    for (const rlim_t limit : {0, 4096}) {
        const ChildResult child = run_in_child([limit] {
            limit_files(limit);
            const auto lines = output({"sh", "-c", "yes | head -n 100000"});
            _exit(lines.size() == 100'000 ? 0 : 1);
        });
        EXPECT_TRUE(child.exited);
        EXPECT_EQ(child.status, 0) << limit;
    }
}

TEST(CommandOutput, ThroughAPipeIsWaitedForThoughNobodyReadsIt) {
    const ScratchDirectory scratch;
    const std::string done = scratch / "done";
    const std::string work = "yes | head -c 300000; : > " + done;
    const Leftovers leftovers;
    {
        FailingCall no_file("memfd_create", EPERM);
        zt::CommandOutput ignored(words_of({"sh", "-c", work.c_str()}).data());
    }
    EXPECT_EQ(access(done.c_str(), F_OK), 0);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_TRUE(leftovers.none());
}

TEST(CommandOutput, ThroughAPipeThatCannotBeReadEndsItsProgram) {
    const Leftovers leftovers;
    FailingCall no_file("memfd_create", EPERM);
    FailingCall unreadable("read", EIO);
    { zt::CommandOutput endless(words_of({"yes"}).data()); }
    EXPECT_TRUE(unreadable.hit());
    EXPECT_TRUE(leftovers.none());
}

TEST(CommandOutput, ReachesAHostWithoutStandardStreams) {
    // The output's descriptor is then 0, or 1 as it is for the program.
    for (const bool through_pipe : {false, true}) {
        for (const bool with_input : {false, true}) {
            const ChildResult child = run_in_child([&] {
                if (!with_input) close(STDIN_FILENO);
                close(STDOUT_FILENO);
                if (through_pipe) limit_files(0);
                const bool right = output({"echo", "x"}) == std::vector<std::string>{"x\n"};
                _exit(right ? 0 : 1);
            });
            EXPECT_EQ(child.status, 0) << through_pipe << with_input;
        }
    }
}
