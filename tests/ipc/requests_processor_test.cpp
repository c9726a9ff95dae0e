#include <ztlib/ipc/sync/requests_processor.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <thread>
#include <vector>

#include <sys/time.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct Request {
    sem_t semaphore;
    int question;
    int answer;
    char room[3168 - sizeof(sem_t) - 2 * sizeof(int)];
};
static_assert(sizeof(Request) == REQUESTS_PROCESSOR_REQUEST_BYTES);

double real_time() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// A request between init and done.
class Begun {
  public:
    Begun() { EXPECT_EQ(requests_processor_request_init(&request_), 0); }
    ~Begun() { EXPECT_EQ(requests_processor_request_done(&request_), 0); }
    Begun(const Begun&) = delete;
    Begun& operator=(const Begun&) = delete;

    Request* operator->() { return &request_; }
    int wait() { return requests_processor_request_wait(&request_); }
    void post() { sem_post(&request_.semaphore); }

  private:
    Request request_;
};

}  // namespace

TEST(RequestsProcessor, InitZeroesTheWholeRecordAndNothingBehindIt) {
    std::vector<unsigned char> memory(sizeof(Request) + 16, 0xAA);
    ASSERT_EQ(requests_processor_request_init(memory.data()), 0);
    int value = -1;
    EXPECT_EQ(sem_getvalue(reinterpret_cast<sem_t*>(memory.data()), &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(std::count(memory.begin() + sizeof(sem_t), memory.begin() + sizeof(Request), 0),
              static_cast<long>(sizeof(Request) - sizeof(sem_t)));
    EXPECT_EQ(std::count(memory.begin() + sizeof(Request), memory.end(), 0xAA), 16);
    EXPECT_EQ(requests_processor_request_done(memory.data()), 0);
}

TEST(RequestsProcessor, APostBeforeTheWaitCounts) {
    Begun request;
    request.post();
    request.post();
    EXPECT_EQ(request.wait(), 0);
    EXPECT_EQ(request.wait(), 0);
}

TEST(RequestsProcessor, TheAnswerIsThereOnceTheWaitIsOver) {
    for (int i = 0; i < 200; ++i) {
        Begun request;
        request->question = i;
        std::thread answering([&] {
            request->answer = request->question + 1;
            request.post();
        });
        EXPECT_EQ(request.wait(), 0);
        EXPECT_EQ(request->answer, i + 1);
        answering.join();
    }
}

TEST(RequestsProcessor, GivesUpAfterThreeSecondsWhateverSignalsArrive) {
    const ChildResult child = run_in_child([] {
        static std::atomic<int> signals{0};
        struct sigaction action {};
        action.sa_handler = [](int) { ++signals; };
        sigaction(SIGALRM, &action, nullptr);
        const itimerval often{{0, 100'000}, {0, 100'000}};
        setitimer(ITIMER_REAL, &often, nullptr);

        const CapturedLog log;
        Begun request;
        const double start = real_time();
        errno = 0;
        if (request.wait() != -1 || errno != ETIMEDOUT) _exit(1);
        const double took = real_time() - start;
        if (took < 3.0) _exit(2);
        // Each signal would have begun three seconds anew.
        if (took > 5.9) _exit(3);
        if (signals < 2) _exit(4);
        if (!log.lines().empty()) _exit(5);
        _exit(7);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 7);
}

TEST(RequestsProcessor, AnInterruptedWaitGoesOn) {
    const CapturedLog log;
    Begun request;
    request.post();
    FailingCall interrupted("sem_timedwait", EINTR);
    EXPECT_EQ(request.wait(), 0);
    EXPECT_TRUE(interrupted.hit());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(RequestsProcessor, AClockThatCannotBeReadEndsTheWaitInSilence) {
    const CapturedLog log;
    Begun request;
    request.post();
    FailingCall fault("clock_gettime", EPERM);
    EXPECT_EQ(request.wait(), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(RequestsProcessor, AWaitThatFailsIsLogged) {
    const CapturedLog log;
    Begun request;
    {
        FailingCall fault("sem_timedwait", EINVAL);
        EXPECT_EQ(request.wait(), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_THAT(log.lines(), ElementsAre("WARN:requests_processor:requests_processor_request_wait: "
                                         "sem_timedwait()(): Invalid argument"));
    {
        FailingCall fault("sem_timedwait", ETIMEDOUT);
        EXPECT_EQ(request.wait(), -1);
        EXPECT_EQ(errno, ETIMEDOUT);
    }
    EXPECT_THAT(log.lines(), testing::SizeIs(1)) << "a time-out is not logged";
}

TEST(RequestsProcessor, InitAndDoneReturnTheSemaphoresResults) {
    Request request;
    memset(&request, 0xAA, sizeof request);
    {
        FailingCall fault("sem_init", ENOSYS);
        EXPECT_EQ(requests_processor_request_init(&request), -1);
        EXPECT_EQ(errno, ENOSYS);
        EXPECT_EQ(request.answer, 0) << "zeroed first";
    }
    ASSERT_EQ(requests_processor_request_init(&request), 0);
    {
        FailingCall fault("sem_destroy", EINVAL);
        EXPECT_EQ(requests_processor_request_done(&request), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(requests_processor_request_done(&request), 0);
}

TEST(RequestsProcessor, NullIsNeverFollowed) {
    EXPECT_EQ(requests_processor_request_init(nullptr), -1);
    EXPECT_EQ(requests_processor_request_wait(nullptr), -1);
    EXPECT_EQ(requests_processor_request_done(nullptr), -1);
}
