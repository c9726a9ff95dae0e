#include <ztlib/ipc/async/ipc_async_reader.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <functional>
#include <thread>

#include <semaphore.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What a read function does, and how often it was called.
struct Reading {
    std::function<int32_t()> step = [] { return 0; };
    std::atomic<int> calls{0};

    static int32_t read(void* context) {
        Reading& reading = *static_cast<Reading*>(context);
        ++reading.calls;
        return reading.step();
    }
};

uint8_t running(ipc_async_reader* reader) { return std::atomic_ref(reader->running).load(); }

// A reader on the reading, closed at the end of the scope.
class Reader {
  public:
    explicit Reader(Reading& reading) : reader_(ipc_async_reader_open(&reading, Reading::read)) {}
    ~Reader() { close(); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

    operator ipc_async_reader*() const { return reader_; }
    ipc_async_reader* operator->() const { return reader_; }
    uint8_t running() const { return ::running(reader_); }
    void close() { ipc_async_reader_close(std::exchange(reader_, nullptr), 1); }

  private:
    ipc_async_reader* reader_;
};

}  // namespace

TEST(IpcAsyncReader, IsMadeButNotStarted) {
    Reading reading;
    Reader reader(reading);
    ASSERT_NE(reader, nullptr);
    EXPECT_EQ(reader->running, 0);
    EXPECT_EQ(reader->context, &reading);
    EXPECT_EQ(reader->read_function, Reading::read);
    reader.close();
    EXPECT_EQ(reading.calls, 0);
}

TEST(IpcAsyncReader, CallsItsFunctionOverAndOverUntilItIsStopped) {
    const Leftovers leftovers;
    {
        Reading reading;
        ipc_async_reader reader;
        memset(&reader, 0xAA, sizeof reader);
        ASSERT_EQ(ipc_async_reader_init(&reader, &reading, Reading::read), 0);
        ASSERT_EQ(ipc_async_reader_start(&reader), 0);
        EXPECT_EQ(running(&reader), 1);
        EXPECT_TRUE(eventually([&] { return reading.calls >= 100; }));

        EXPECT_EQ(ipc_async_reader_stop(&reader), 0);
        const int calls = reading.calls;
        EXPECT_EQ(running(&reader), 0);
        EXPECT_EQ(ipc_async_reader_stop(&reader), 0) << "nothing is left to stop";
        ipc_async_reader_close(&reader, 0);
        EXPECT_EQ(reading.calls, calls) << "the thread has ended";
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(IpcAsyncReader, StopWaitsForTheCallThatRuns) {
    sem_t entered, leave;
    sem_init(&entered, 0, 0);
    sem_init(&leave, 0, 0);
    std::atomic<bool> left{false};
    Reading reading;
    reading.step = [&] {
        sem_post(&entered);
        sem_wait(&leave);
        left = true;
        return 0;
    };
    Reader reader(reading);
    ASSERT_EQ(ipc_async_reader_start(reader), 0);
    sem_wait(&entered);

    std::thread stopping([&] {
        EXPECT_EQ(ipc_async_reader_stop(reader), 0);
        EXPECT_TRUE(left);
    });
    EXPECT_TRUE(eventually([&] { return reader.running() == 0; }));
    sem_post(&leave);
    stopping.join();
    EXPECT_EQ(reading.calls, 1);
}

TEST(IpcAsyncReader, AResultOtherThanZeroEndsItAndNobodyJoins) {
    for (const int32_t result : {1, -1, INT32_MIN}) {
        const Leftovers leftovers;
        const uint64_t joins = calls_of("pthread_join"), detached = calls_of("pthread_detach");
        {
            Reading reading;
            reading.step = [&] { return result; };
            Reader reader(reading);
            ASSERT_EQ(ipc_async_reader_start(reader), 0);
            EXPECT_TRUE(eventually([&] { return reader.running() == 0; }));
            EXPECT_EQ(ipc_async_reader_stop(reader), 0);
            reader.close();
            EXPECT_EQ(reading.calls, 1);
        }
        EXPECT_TRUE(leftovers.none());
        EXPECT_EQ(calls_of("pthread_join"), joins);
        EXPECT_EQ(calls_of("pthread_detach"), detached + 1);
    }
}

TEST(IpcAsyncReader, AThreadThatIsJoinedNeverDetachesItself) {
    const uint64_t joins = calls_of("pthread_join"), detached = calls_of("pthread_detach");
    Reading reading;
    Reader reader(reading);
    ASSERT_EQ(ipc_async_reader_start(reader), 0);
    EXPECT_TRUE(eventually([&] { return reading.calls > 0; }));
    reader.close();
    EXPECT_EQ(calls_of("pthread_join"), joins + 1);
    EXPECT_EQ(calls_of("pthread_detach"), detached);
}

TEST(IpcAsyncReader, ReturnsWhatTheJoinReturned) {
    Reading reading;
    Reader reader(reading);
    ASSERT_EQ(ipc_async_reader_start(reader), 0);
    const pthread_t thread = reader->thread;
    FailingCall fault("pthread_join", EINVAL);
    EXPECT_EQ(ipc_async_reader_stop(reader), EINVAL);
    EXPECT_TRUE(fault.hit());
    pthread_join(thread, nullptr);
}

TEST(IpcAsyncReader, StopAndCloseBeforeStartHaveNothingToDo) {
    const uint64_t joins = calls_of("pthread_join");
    Reading reading;
    Reader reader(reading);
    EXPECT_EQ(ipc_async_reader_stop(reader), 0);
    reader.close();
    EXPECT_EQ(calls_of("pthread_join"), joins);
    EXPECT_EQ(reading.calls, 0);
}

TEST(IpcAsyncReader, StartsAgainAfterEitherEnd) {
    const Leftovers leftovers;
    {
        Reading reading;
        std::atomic<bool> ends{false};
        reading.step = [&] { return ends ? 1 : 0; };
        Reader reader(reading);
        for (int round = 0; round < 20; ++round) {
            ends = false;
            ASSERT_EQ(ipc_async_reader_start(reader), 0);
            const int calls = reading.calls;
            EXPECT_TRUE(eventually([&] { return reading.calls > calls; }));
            if (round % 2) {
                EXPECT_EQ(ipc_async_reader_stop(reader), 0);
            } else {
                ends = true;
                EXPECT_TRUE(eventually([&] { return reader.running() == 0; }));
            }
        }
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(IpcAsyncReader, StartWhileRunningStartsNothing) {
    Reading reading;
    Reader reader(reading);
    ASSERT_EQ(ipc_async_reader_start(reader), 0);
    const uint64_t started = calls_of("pthread_create");
    EXPECT_EQ(ipc_async_reader_start(reader), 0);
    EXPECT_EQ(calls_of("pthread_create"), started);
}

TEST(IpcAsyncReader, AStartThatFailsLeavesRunningSetAndNothingToJoin) {
    const CapturedLog log;
    const Leftovers leftovers;
    {
        Reading reading;
        Reader reader(reading);
        {
            FailingCall fault("pthread_create", EAGAIN);
            EXPECT_EQ(ipc_async_reader_start(reader), -1);
        }
        EXPECT_EQ(reader->running, 1);
        const uint64_t joins = calls_of("pthread_join");
        EXPECT_EQ(ipc_async_reader_stop(reader), 0);
        EXPECT_EQ(reader->running, 0);
        {
            FailingCall fault("pthread_create", EAGAIN);
            EXPECT_EQ(ipc_async_reader_start(reader), -1);
        }
        reader.close();
        EXPECT_EQ(calls_of("pthread_join"), joins);
        EXPECT_EQ(reading.calls, 0);
    }
    EXPECT_TRUE(leftovers.none());
    const std::string line =
        "WARN:ipc_async_reader:ipc_async_reader_start: pthread_create()(): "
        "Resource temporarily unavailable";
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST(IpcAsyncReader, StartsAfterAStartThatFailed) {
    const CapturedLog log;
    Reading reading;
    Reader reader(reading);
    {
        FailingCall fault("pthread_create", EAGAIN);
        EXPECT_EQ(ipc_async_reader_start(reader), -1);
    }
    EXPECT_EQ(ipc_async_reader_start(reader), 0);
    EXPECT_TRUE(eventually([&] { return reading.calls > 0; }));
    EXPECT_EQ(ipc_async_reader_stop(reader), 0);
}

TEST(IpcAsyncReader, TheRecordMayGoOnceTheThreadHasEndedItself) {
    const Leftovers leftovers;
    for (int i = 0; i < 300; ++i) {
        Reading reading;
        reading.step = [] { return 1; };
        Reader reader(reading);
        ASSERT_EQ(ipc_async_reader_start(reader), 0);
        while (reader.running()) std::this_thread::yield();
        reader.close();
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(IpcAsyncReader, StopAndTheThreadsOwnEndMeetAtAnyMoment) {
    const Leftovers leftovers;
    for (int i = 0; i < 500; ++i) {
        Reading reading;
        reading.step = [&] { return reading.calls == 1 + i % 7; };
        Reader reader(reading);
        ASSERT_EQ(ipc_async_reader_start(reader), 0);
        while (reading.calls < 1 + i % 5 && reader.running()) std::this_thread::yield();
        EXPECT_EQ(ipc_async_reader_stop(reader), 0);
        reader.close();
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(IpcAsyncReader, ItsRoutineReturnsAtOnceWhenItIsNotToRun) {
    Reading reading;
    Reader reader(reading);
    EXPECT_EQ(ipc_async_reader_routine(reader), nullptr);
    EXPECT_EQ(reading.calls, 0);
}

TEST(IpcAsyncReader, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    const CapturedLog log;
    Reading reading;
    for_each_failing_allocation(
        [&] { return ipc_async_reader_open(&reading, Reading::read); },
        [](ipc_async_reader* reader) { ipc_async_reader_close(reader, 1); });
    EXPECT_THAT(log.lines(), ElementsAre("WARN:ipc_async_reader:ipc_async_reader_open: calloc()(): "
                                         "Cannot allocate memory"));
}

TEST(IpcAsyncReader, IsNotMadeWithoutAFunction) {
    const CapturedLog log;
    const int64_t live = live_allocations();
    EXPECT_EQ(ipc_async_reader_open(nullptr, nullptr), nullptr);
    EXPECT_EQ(live_allocations(), live);
    EXPECT_THAT(log.lines(), ElementsAre("WARN:ipc_async_reader:ipc_async_reader_open: "
                                         "ipc_async_reader_init()(): Invalid argument"));
}

TEST(IpcAsyncReader, NullIsNeverFollowed) {
    EXPECT_EQ(ipc_async_reader_init(nullptr, nullptr, Reading::read), -1);
    EXPECT_EQ(ipc_async_reader_start(nullptr), -1);
    EXPECT_EQ(ipc_async_reader_stop(nullptr), 0);
    ipc_async_reader_close(nullptr, 1);
    EXPECT_EQ(ipc_async_reader_routine(nullptr), nullptr);
}
