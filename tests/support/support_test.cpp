// The harness itself: a check that cannot fail would make every other test worthless.

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <ztlib/logger.h>

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <pthread.h>
#include <unistd.h>

using namespace zt_test;

TEST(FailingAllocations, RefusesEachAllocationInTurnAndEndsAfterTheFirstGoodRound) {
    int refused = 0;
    int rounds = 0;
    for (FailingAllocations round; round.next();) {
        ++rounds;
        round.arm();
        void* a = malloc(1);
        void* b = a ? malloc(1) : nullptr;
        round.disarm();
        refused += round.hit();
        free(a);
        free(b);
    }
    EXPECT_EQ(rounds, 3);
    EXPECT_EQ(refused, 2);
}

static void leak_in_one_round(void** leaked) {
    for (FailingAllocations round; round.next();) {
        round.arm();
        *leaked = strdup("x");
        round.disarm();
    }
}

TEST(FailingAllocations, ReportsABlockThatIsNotFreed) {
    static void* leaked = nullptr;
    EXPECT_NONFATAL_FAILURE(leak_in_one_round(&leaked), "leaked");
    free(leaked);
}

TEST(FailingCall, FailsTheChosenCallAndNoOther) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    {
        FailingCall fault("pthread_mutex_lock", EINVAL, 1, true);
        EXPECT_EQ(pthread_mutex_lock(&mutex), 0);
        pthread_mutex_unlock(&mutex);
        EXPECT_FALSE(fault.hit());
        EXPECT_EQ(pthread_mutex_lock(&mutex), EINVAL);
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(pthread_mutex_lock(&mutex), 0);
        pthread_mutex_unlock(&mutex);
    }
    pthread_mutex_destroy(&mutex);
}

TEST(ShortCall, CutsTheChosenTransferShort) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    char bytes[8] = {};
    {
        ShortCall shorter("write", 3, 1);
        EXPECT_EQ(write(ends[1], "abcd", 4), 4);
        EXPECT_FALSE(shorter.hit());
        EXPECT_EQ(write(ends[1], "efgh", 4), 3);
        EXPECT_TRUE(shorter.hit());
    }
    {
        ShortCall shorter("read", 2);
        EXPECT_EQ(read(ends[0], bytes, sizeof bytes), 2);
    }
    EXPECT_EQ(read(ends[0], bytes + 2, sizeof bytes - 2), 5);
    EXPECT_STREQ(bytes, "abcdefg");
    close(ends[0]);
    close(ends[1]);
}

TEST(CapturedStderr, HoldsWhatWasWrittenSinceTheLastLook) {
    CapturedStderr captured;
    fputs("one", stderr);
    EXPECT_EQ(captured.take(), "one");
    fputs("two", stderr);
    EXPECT_EQ(captured.take(), "two");
    EXPECT_EQ(captured.text(), "onetwo");
}

TEST(CapturedLog, HoldsRecordsWithoutTheirIds) {
    CapturedLog log;
    logger_log(LOGGER_WARNING, "./a/b", "f", "%d", 7);
    EXPECT_THAT(log.messages(), testing::ElementsAre("7"));
    EXPECT_THAT(log.lines(), testing::ElementsAre("WARN:b:f: 7"));
}

TEST(RunInChild, TellsExitStatusAndText) {
    const ChildResult result = run_in_child([] {
        fputs("oh", stderr);
        exit(-1);
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.status, 255);
    EXPECT_EQ(result.err, "oh");
}

TEST(ScratchDirectory, IsGoneAfterItsScope) {
    std::string path;
    {
        ScratchDirectory scratch;
        path = scratch.write("f", "content");
        EXPECT_TRUE(std::filesystem::exists(path));
    }
    EXPECT_FALSE(std::filesystem::exists(path));
}
