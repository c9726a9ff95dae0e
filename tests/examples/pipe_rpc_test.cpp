// Worker and client as their users meet them: two processes and a pair of FIFOs. A sanitized
// build's programs end with a status of their own when they leaked or raced, so every status of 0
// here says more than that.

#include <tests/support/process.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <csignal>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zt_test;
using testing::HasSubstr;
using testing::MatchesRegex;

namespace {

constexpr const char* kWorker = PIPE_WORKER;
constexpr const char* kClient = PIPE_CLIENT;
constexpr const char* kHeading = "requests  answered  timed out     p50 ms     p99 ms     max ms\n";

Strings command(const char* program, const Strings& options, const std::string& path) {
    Strings all = {program};
    all.insert(all.end(), options.begin(), options.end());
    all.push_back(path);
    return all;
}

// The numbers of the client's table.
std::vector<double> numbers_of(const std::string& out) {
    EXPECT_EQ(out.substr(0, out.find('\n') + 1), kHeading);
    EXPECT_THAT(out, MatchesRegex(std::string(kHeading) + "( +[0-9.]+){6}\n"));
    std::istringstream row(out.substr(out.find('\n') + 1));
    std::vector<double> numbers;
    for (double number; row >> number;) numbers.push_back(number);
    numbers.resize(6);
    return numbers;
}

mode_t mode_of(const std::string& path) {
    struct stat status;
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

// How often a process has called write() so far.
unsigned long writes_of(pid_t process) {
    std::istringstream counts(content_of("/proc/" + std::to_string(process) + "/io"));
    for (std::string line; std::getline(counts, line);)
        if (line.starts_with("syscw: ")) return std::stoul(line.substr(7));
    return 0;
}

void expect_all_answered(const Result& client, double requests) {
    EXPECT_EQ(client.status, 0);
    EXPECT_EQ(client.err, "");
    const std::vector<double> row = numbers_of(client.out);
    EXPECT_EQ(row[0], requests);
    EXPECT_EQ(row[1], requests);
    EXPECT_EQ(row[2], 0);
    EXPECT_GT(row[3], 0);
    EXPECT_LE(row[3], row[4]);
    EXPECT_LE(row[4], row[5]);
}

}  // namespace

TEST(PipeRpc, AThousandRequestsAtOnceAreAnsweredAndTimed) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "squares";
    Program worker(command(kWorker, {"--clients", "2"}, path));
    expect_all_answered(run({kClient, path}), 1000);
    expect_all_answered(run(command(kClient, {"--requests", "20000"}, path)), 20000);
    EXPECT_EQ(worker.wait(), 0);
    EXPECT_EQ(worker.err(), "");
    for (const char* end : {"_rx", "_tx"}) EXPECT_EQ(mode_of(path + end), S_IFIFO | 0600);
}

TEST(PipeRpc, ClientsThatComeAtOnceAreServedOneAfterTheOther) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "squares";
    Program worker(command(kWorker, {"--clients", "4"}, path));
    std::vector<std::unique_ptr<Program>> clients;
    for (int i = 0; i < 4; ++i)
        clients.push_back(
            std::make_unique<Program>(command(kClient, {"--requests", "2000"}, path)));
    for (const auto& client : clients) {
        EXPECT_EQ(client->wait(), 0);
        EXPECT_EQ(numbers_of(client->out())[1], 2000);
    }
    EXPECT_EQ(worker.wait(), 0);
}

TEST(PipeRpc, TheClientMayComeFirst) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "squares";
    Program client({kClient, path});
    ASSERT_TRUE(eventually([&] { return mode_of(path + "_tx") != 0; }));
    Program worker(command(kWorker, {"--clients", "1"}, path));
    EXPECT_EQ(client.wait(), 0);
    EXPECT_EQ(numbers_of(client.out())[1], 1000);
    EXPECT_EQ(worker.wait(), 0);
}

TEST(PipeRpc, RequestsThatAreNotAnsweredTimeOut) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "squares";
    Program worker(command(kWorker, {"--clients", "1", "--ignore-each", "100"}, path));
    const Result client = run({kClient, path});
    EXPECT_EQ(client.status, 0);
    EXPECT_EQ(client.err, "");
    const std::vector<double> row = numbers_of(client.out);
    EXPECT_EQ(row[1], 990);
    EXPECT_EQ(row[2], 10);
    EXPECT_EQ(worker.wait(), 0);
}

TEST(PipeRpc, AKilledWorkerIsReported) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "squares";
    // So many that the FIFO is full long before the last: the client is still sending.
    Program worker({kWorker, path});
    Program client(command(kClient, {"--requests", "1000000"}, path));
    ASSERT_TRUE(eventually([&] { return writes_of(worker.pid()) > 1000; }));
    worker.signal(SIGKILL);
    EXPECT_EQ(client.wait(), 1);
    EXPECT_EQ(client.err(), std::string(kClient) + ": the worker has gone\n");
}

TEST(PipeRpc, NamesThatAreNotFifosOfTheUsersOwnAreRefused) {
    const ScratchDirectory scratch;
    const std::string file = scratch / "file", open = scratch / "open";
    scratch.write("file_tx", "");
    ASSERT_EQ(mkfifo((open + "_rx").c_str(), 0600), 0);
    ASSERT_EQ(chmod((open + "_rx").c_str(), 0660), 0);
    for (const char* program : {kWorker, kClient}) {
        Result result = run({program, file});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, std::string(program) + ": " + file + "_tx is there and is no FIFO\n");
        result = run({program, open});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err, std::string(program) + ": " + open +
                                  "_rx is there and is not this user's alone\n");
        result = run({program, scratch / "missing/job"});
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("missing/job_"));
        EXPECT_THAT(result.err, HasSubstr(": No such file or directory\n"));
    }
}

TEST(PipeRpc, AnOrdinaryUserRunsBoth) {
    constexpr uid_t kNobody = 65534;
    if (geteuid() != 0) GTEST_SKIP() << "the other tests ran as an ordinary user already";
    const auto as_nobody = [] {
        if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(126);
    };
    if (run({kClient, "--help"}, as_nobody).status != 0)
        GTEST_SKIP() << "an ordinary user cannot run the programs where they were built";
    const ScratchDirectory scratch;
    ASSERT_EQ(chown(scratch.path().c_str(), kNobody, kNobody), 0);
    const std::string path = scratch / "squares";
    Program worker(command(kWorker, {"--clients", "1"}, path), as_nobody);
    expect_all_answered(run({kClient, path}, as_nobody), 1000);
    EXPECT_EQ(worker.wait(), 0);
    EXPECT_EQ(worker.err(), "");
}

TEST(PipeRpc, AWrongCommandLineIsRefused) {
    const std::vector<std::pair<Strings, std::string>> cases = {
        {{kWorker}, ": one argument is wanted: the path of the FIFOs\n"},
        {{kWorker, "a", "b"}, ": one argument is wanted: the path of the FIFOs\n"},
        {{kWorker, "--clients", "0", "a"},
         ": --clients takes a number from 1 to 1000000, not '0'\n"},
        {{kWorker, "--ignore-each", "x", "a"},
         ": --ignore-each takes a number from 1 to 1000000, not 'x'\n"},
        {{kWorker, "--fast", "a"}, ": unrecognized option '--fast'\n"},
        {{kClient}, ": one argument is wanted: the path of the FIFOs\n"},
        {{kClient, "--requests", "1000001", "a"},
         ": --requests takes a number from 1 to 1000000, not '1000001'\n"},
        {{kClient, "--timeout", "3601", "a"},
         ": --timeout takes a number from 1 to 3600, not '3601'\n"},
        {{kClient, "--fast", "a"}, ": unrecognized option '--fast'\n"},
    };
    for (const auto& [arguments, message] : cases) {
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.err, arguments[0] + message);
        EXPECT_EQ(result.out, "");
    }
    for (const char* program : {kWorker, kClient}) {
        const Result help = run({program, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_THAT(help.out, testing::StartsWith("Usage: pipe_"));
    }
}
