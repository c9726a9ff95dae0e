#include <ztlib/base/command.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <initializer_list>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

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
    for (const char* call : {"memfd_create", "posix_spawnp", "lseek"}) {
        FailingCall fault(call, EMFILE);
        EXPECT_THAT(output({"echo", "x"}), IsEmpty());
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(CommandOutput, ReachesAHostWithoutStandardStreams) {
    // The output's descriptor is then 0, or 1 as it is for the program.
    for (const bool with_input : {false, true}) {
        const ChildResult child = run_in_child([&] {
            if (!with_input) close(STDIN_FILENO);
            close(STDOUT_FILENO);
            const bool right = output({"echo", "x"}) == std::vector<std::string>{"x\n"};
            _exit(right ? 0 : 1);
        });
        EXPECT_EQ(child.status, 0) << with_input;
    }
}
