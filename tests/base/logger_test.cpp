#include <ztlib/logger.h>

#include <tests/support/capture.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::SizeIs;

namespace {

// Every setting as it is at start-up, again after each test.
class Logger : public testing::Test {
  protected:
    void SetUp() override { system_log().clear(); }
    void TearDown() override { sinks(1, 0, 0); }

    static void sinks(uint8_t to_syslog, uint8_t to_stderr, uint8_t to_stdout) {
        logger_to_syslog = to_syslog;
        logger_to_stderr = to_stderr;
        logger_to_stdout = to_stdout;
    }

    static std::string ids() {
        return " p:" + std::to_string(getpid()) + ", t:" + std::to_string(syscall(SYS_gettid)) +
               " : ";
    }
};

TEST_F(Logger, StartsWithTheSystemLogAlone) {
    EXPECT_EQ(logger_to_syslog, 1);
    EXPECT_EQ(logger_to_stderr, 0);
    EXPECT_EQ(logger_to_stdout, 0);
    EXPECT_STREQ(logger_syslog_name, "ztlib");
}

TEST_F(Logger, WritesTheSameLineToEverySink) {
    CapturedStderr err;
    CapturedStdout out;
    sinks(1, 1, 1);

    logger_log(4, "./queue/queue", "queue_create", "%s(): %s", "calloc", "no room");

    const std::string line = "WARN:queue:queue_create:" + ids() + "calloc(): no room\n";
    EXPECT_EQ(err.text(), line);
    EXPECT_EQ(out.text(), line);
    ASSERT_THAT(system_log().records(), SizeIs(1));
    EXPECT_EQ(system_log().records()[0].text, line);
    EXPECT_EQ(system_log().records()[0].priority, 4);
}

TEST_F(Logger, NamesTheThreeLevelsAndNoOther) {
    for (int level : {3, 4, 5, 6, 7, 0, 256 + 3}) logger_log(level, "m", "f", "x");
    EXPECT_THAT(system_log().lines(), ElementsAre("ERR:m:f: x", "WARN:m:f: x", "m:f: x",
                                                  "INFO:m:f: x", "m:f: x", "m:f: x", "ERR:m:f: x"));
}

TEST_F(Logger, PassesTheLevelAloneAsPriority) {
    for (int level : {3, 6, 256 + 4}) logger_log(level, "m", "f", "x");
    std::vector<int> priorities;
    for (const auto& record : system_log().records()) priorities.push_back(record.priority);
    EXPECT_THAT(priorities, ElementsAre(3, 6, 4));
}

TEST_F(Logger, PrintsTheLastComponentOfThePath) {
    for (const char* file : {"queue", "./a/b/c", "/", "//", "a/b///", "", "/x"})
        logger_log(5, file, "f", "m");
    logger_log(5, nullptr, nullptr, "m");
    EXPECT_THAT(system_log().lines(), ElementsAre("queue:f: m", "c:f: m", "/:f: m", "/:f: m",
                                                  "b:f: m", ".:f: m", "x:f: m", ".:: m"));
}

TEST_F(Logger, CutsTheMessageAndStillEndsTheLine) {
    logger_log(4, "m", "f", "%s", std::string(5000, 'x').c_str());
    EXPECT_THAT(system_log().messages(), ElementsAre(std::string(1499, 'x')));
    EXPECT_EQ(system_log().records()[0].text.back(), '\n');
}

TEST_F(Logger, CutsThePrefixButNotTheLine) {
    const std::string function(5000, 'f');
    sinks(0, 1, 0);
    CapturedStderr err;
    logger_log(4, "m", function.c_str(), "%s", std::string(1499, 'x').c_str());
    const std::string prefix = ("WARN:m:" + function).substr(0, 1499);
    EXPECT_EQ(err.text(), prefix + ids() + std::string(1499, 'x') + "\n");
}

TEST_F(Logger, LeavesErrnoAsItWas) {
    errno = EBADMSG;
    logger_log(4, "m", "f", "x");
    EXPECT_EQ(errno, EBADMSG);
}

TEST_F(Logger, PrintsAnEmptyMessageForANullFormat) {
    const char* volatile format = nullptr;  // unseen by the compiler's own check of formats
    va_list none{};
    logger_valog(4, "m", "f", format, none);
    EXPECT_THAT(system_log().messages(), ElementsAre(""));
}

TEST_F(Logger, WritesWholeLinesFromEveryThread) {
    sinks(0, 1, 0);
    CapturedStderr err;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int n = 0; n < 200; ++n)
                logger_log(6, "m", "f", "%s", std::string(900, 'y').c_str());
        });
    for (auto& thread : threads) thread.join();

    const std::string text = err.text();
    size_t lines = 0;
    for (size_t at = 0, end; (end = text.find('\n', at)) != text.npos; at = end + 1, ++lines) {
        ASSERT_EQ(text.compare(at, 11, "INFO:m:f: p"), 0);
        ASSERT_EQ(text.substr(end - 900, 900), std::string(900, 'y'));
    }
    EXPECT_EQ(lines, 800u);
}

}  // namespace
