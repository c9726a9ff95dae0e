#include <ztlib/ipc/async/async_request.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <semaphore.h>
#include <unistd.h>

using namespace zt_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint32_t kLong = 1000;
// Makes a deadline that has passed already: the sum wraps around.
constexpr uint32_t kPast = static_cast<uint32_t>(-16);

char* text_of(const std::string& text) { return strdup(text.c_str()); }

class Manager {
  public:
    Manager() : manager_(async_requests_manager_create()) {}
    ~Manager() { free(); }
    Manager(const Manager&) = delete;
    Manager& operator=(const Manager&) = delete;

    operator async_requests_manager*() const { return manager_; }
    async_requests_manager* operator->() const { return manager_; }
    void free() { async_requests_manager_free(std::exchange(manager_, nullptr), 1); }

    uint8_t flags() const { return std::atomic_ref(manager_->flags).load(); }
    uint64_t pending() const {
        pthread_mutex_lock(&manager_->pending.mutex);
        const uint64_t count = manager_->pending.count;
        pthread_mutex_unlock(&manager_->pending.mutex);
        return count;
    }

  private:
    async_requests_manager* manager_;
};

struct Call {
    int name;
    int status;
    std::string text;
    bool has_data;
    uint32_t data_length;
    pid_t thread;
    time_t time;
};

// What the callbacks of a test were called with, in order.
class Calls {
  public:
    std::vector<Call> all() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    size_t count() const { return all().size(); }
    bool reach(size_t count) const {
        return eventually([&] { return this->count() >= count; });
    }
    std::vector<int> names() const {
        std::vector<int> names;
        for (const Call& call : all()) names.push_back(call.name);
        return names;
    }
    std::vector<int> statuses() const {
        std::vector<int> statuses;
        for (const Call& call : all()) statuses.push_back(call.status);
        return statuses;
    }
    void add(const Call& call) {
        std::lock_guard lock(mutex_);
        calls_.push_back(call);
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Call> calls_;
};

// The context of one request. It has to live until the callback was made.
struct Expected {
    int name;
    Calls* calls;
    std::function<void()> then = [] {};

    static int called(void* context, uint8_t status, void* data, uint32_t length) {
        Expected& self = *static_cast<Expected*>(context);
        const std::string text =
            data && length ? std::string(static_cast<char*>(data), length) : "";
        self.then();
        // The test may be over, and the context gone, as soon as the call is counted.
        self.calls->add(
            {self.name, status, text, data != nullptr, length, gettid(), time(nullptr)});
        return -1;  // ignored
    }
};

// A request that calls `expected`, begun; its id.
uint64_t begin(async_requests_manager* manager, Expected& expected, uint32_t timeout = kLong) {
    async_request* const request = async_request_create(manager, timeout);
    request->callback = Expected::called;
    request->context = &expected;
    const uint64_t id = request->id;
    EXPECT_EQ(async_request_begin(manager, request), 0);
    return id;
}

// As many requests, named 0, 1, ...
std::vector<Expected> expected(Calls& calls, int count) {
    std::vector<Expected> all;
    for (int name = 0; name < count; ++name) all.push_back({name, &calls});
    return all;
}

int process_text(async_requests_manager* manager, uint64_t id, int status,
                 const std::string& text) {
    char* const data = text_of(text);
    const int result =
        async_request_process(manager, id, status, data, static_cast<int32_t>(text.size()));
    if (result != 0) free(data);
    return result;
}

// A callback that does not return before it is let go.
class Gate {
  public:
    Gate() {
        sem_init(&entered_, 0, 0);
        sem_init(&leave_, 0, 0);
    }
    void pass() {
        sem_post(&entered_);
        sem_wait(&leave_);
    }
    void await_entry() { sem_wait(&entered_); }
    void open() { sem_post(&leave_); }

  private:
    sem_t entered_;
    sem_t leave_;
};

}  // namespace

// --- requests ------------------------------------------------------------------------------------

TEST(AsyncRequest, IdsCountFromOneInTheCounterThatIsGiven) {
    uint64_t counter = 0;
    for (const uint64_t id : {1, 2, 3}) {
        async_request* const request = async_request_create(&counter, 10);
        EXPECT_EQ(request->id, id);
        async_request_free(request);
    }
    EXPECT_EQ(counter, 3u);

    Manager manager;
    async_request* const request = async_request_create(manager, 10);
    EXPECT_EQ(request->id, 1u);
    EXPECT_EQ(manager->next_id, 1u);
    async_request_free(request);
}

TEST(AsyncRequest, IsMadeZeroedWithADeadlineInSeconds) {
    uint64_t counter = 0;
    for (const uint32_t timeout : {0u, 1u, 3600u, 0xFFFFFFFFu, 0x80000000u}) {
        const auto before = static_cast<uint32_t>(time(nullptr));
        async_request* const request = async_request_create(&counter, timeout);
        const auto after = static_cast<uint32_t>(time(nullptr));
        EXPECT_LE(request->deadline - timeout - before, after - before);
        EXPECT_EQ(request->status, 0);
        EXPECT_EQ(request->callback, nullptr);
        EXPECT_EQ(request->context, nullptr);
        EXPECT_EQ(request->data, nullptr);
        EXPECT_EQ(request->data_length, 0);
        async_request_free(request);
    }
}

TEST(AsyncRequest, IdsAreUniqueAcrossThreads) {
    constexpr int kThreads = 4, kEach = 2000;
    uint64_t counter = 0;
    std::vector<std::vector<uint64_t>> ids(kThreads);
    std::vector<std::thread> threads;
    for (auto& own : ids)
        threads.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) {
                async_request* const request = async_request_create(&counter, 1);
                own.push_back(request->id);
                async_request_free(request);
            }
        });
    for (std::thread& thread : threads) thread.join();
    std::set<uint64_t> all;
    for (const auto& own : ids) all.insert(own.begin(), own.end());
    EXPECT_EQ(all.size(), size_t{kThreads * kEach});
    EXPECT_EQ(*all.begin(), 1u);
    EXPECT_EQ(*all.rbegin(), uint64_t{kThreads * kEach});
}

TEST(AsyncRequest, FreeReleasesDataOfALengthAboveZero) {
    const int64_t live = live_allocations();
    uint64_t counter = 0;
    char kept[] = "kept";
    for (const int32_t length : {4, 0, -1}) {
        async_request* const request = async_request_create(&counter, 1);
        request->data = length > 0 ? text_of("gone") : kept;
        request->data_length = length;
        async_request_free(request);
    }
    async_request* const without = async_request_create(&counter, 1);
    without->data_length = 4;
    async_request_free(without);
    async_request_free(nullptr);
    EXPECT_EQ(live_allocations(), live);
    EXPECT_STREQ(kept, "kept");
}

TEST(AsyncRequest, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    const CapturedLog log;
    uint64_t counter = 0;
    for_each_failing_allocation([&] { return async_request_create(&counter, 10); },
                                async_request_free);
    EXPECT_THAT(log.lines(), ElementsAre("WARN:async_request:async_request_create: calloc(): "
                                         "Cannot allocate memory"));
}

TEST(AsyncRequest, NullIsNeverFollowed) {
    uint64_t counter = 0;
    EXPECT_EQ(async_request_create(nullptr, 10), nullptr);
    EXPECT_EQ(async_requests_manager_init(nullptr), -1);
    async_requests_manager_free(nullptr, 1);
    EXPECT_EQ(async_request_process(nullptr, 1, 0, nullptr, 0), -1);
    async_request* const request = async_request_create(&counter, 10);
    EXPECT_EQ(async_request_begin(nullptr, request), 0);
    async_request_free(request);
    Manager manager;
    EXPECT_EQ(async_request_begin(manager, nullptr), 0);
    EXPECT_EQ(manager.pending(), 0u);
}

// --- answers -------------------------------------------------------------------------------------

TEST(AsyncRequests, AManagerStartsWithItsWorkerAndNothingElse) {
    Manager manager;
    ASSERT_NE(manager, nullptr);
    EXPECT_EQ(manager->next_id, 0u);
    EXPECT_EQ(manager->pending.size, 100u);
    EXPECT_EQ(manager->pending.key_type, HASHTABLE_KEY_UINT64);
    EXPECT_EQ(manager->pending.lock_mode, 0);
    EXPECT_TRUE(eventually(
        [&] { return manager.flags() == (ASYNC_REQUESTS_RUNNING | ASYNC_REQUESTS_ALIVE); }));
}

TEST(AsyncRequests, AnAnswerReachesTheCallbackAndEverythingIsFreed) {
    const Leftovers leftovers;
    {
        Manager manager;
        Calls calls;
        Expected expected{7, &calls};
        const uint64_t id = begin(manager, expected);
        EXPECT_EQ(manager.pending(), 1u);
        EXPECT_EQ(process_text(manager, id, 42, "payload"), 0);
        ASSERT_TRUE(calls.reach(1));
        const Call call = calls.all()[0];
        EXPECT_EQ(call.name, 7);
        EXPECT_EQ(call.status, 42);
        EXPECT_EQ(call.text, "payload");
        EXPECT_EQ(call.data_length, 7u);
        EXPECT_NE(call.thread, gettid());
        EXPECT_EQ(manager.pending(), 0u);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, AnAnswerToNothingLeavesItsDataWithTheCaller) {
    Manager manager;
    Calls calls;
    Expected expected{0, &calls};
    char data[] = "mine";
    EXPECT_EQ(async_request_process(manager, 1, 0, data, 4), -1) << "never begun";
    const uint64_t id = begin(manager, expected);
    EXPECT_EQ(async_request_process(manager, id + 1, 0, data, 4), -1);
    EXPECT_EQ(process_text(manager, id, 0, "first"), 0);
    EXPECT_EQ(async_request_process(manager, id, 0, data, 4), -1) << "a second answer";
    EXPECT_TRUE(calls.reach(1));
    manager.free();
    EXPECT_STREQ(data, "mine");
    EXPECT_EQ(calls.count(), 1u);
}

TEST(AsyncRequests, TheLowEightBitsOfAStatusAreDelivered) {
    Manager manager;
    Calls calls;
    auto requests = expected(calls, 5);
    const int statuses[] = {0, 0x1FF, 0x100, -1, 1};
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(
            async_request_process(manager, begin(manager, requests[i]), statuses[i], nullptr, 0),
            0);
    ASSERT_TRUE(calls.reach(5));
    EXPECT_THAT(calls.statuses(), ElementsAre(0, 0xFF, 0, 0xFF, 1));
    for (const Call& call : calls.all()) EXPECT_FALSE(call.has_data);
}

TEST(AsyncRequests, DataOfNoLengthIsDeliveredAndNotFreed) {
    char data[] = "static";
    Manager manager;
    Calls calls;
    auto requests = expected(calls, 2);
    EXPECT_EQ(async_request_process(manager, begin(manager, requests[0]), 0, data, 0), 0);
    EXPECT_EQ(async_request_process(manager, begin(manager, requests[1]), 0, nullptr, -1), 0);
    ASSERT_TRUE(calls.reach(2));
    manager.free();
    EXPECT_TRUE(calls.all()[0].has_data);
    EXPECT_EQ(calls.all()[0].data_length, 0u);
    EXPECT_EQ(calls.all()[1].data_length, 0xFFFFFFFFu);
}

TEST(AsyncRequests, WithoutACallbackARequestIsFreedAllTheSame) {
    const Leftovers leftovers;
    {
        Manager manager;
        Calls calls;
        Expected last{1, &calls};
        async_request* const request = async_request_create(manager, kLong);
        const uint64_t id = request->id;
        async_request_begin(manager, request);
        EXPECT_EQ(process_text(manager, id, 0, "unread"), 0);
        EXPECT_EQ(process_text(manager, begin(manager, last), 0, "read"), 0);
        EXPECT_TRUE(calls.reach(1));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, CallbacksComeOneAtATimeOnOneThreadInTheOrderOfCompletion) {
    constexpr int kRequests = 500;
    Manager manager;
    Calls calls;
    std::atomic<int> inside{0}, together{0};
    auto requests = expected(calls, kRequests);
    std::vector<uint64_t> ids;
    for (Expected& request : requests) {
        request.then = [&] {
            if (++inside > 1) ++together;
            --inside;
        };
        ids.push_back(begin(manager, request));
    }
    std::vector<int> order;
    for (int i = 0; i < kRequests; ++i) order.push_back(i * 7 % kRequests);
    for (const int i : order) EXPECT_EQ(process_text(manager, ids[i], i, "x"), 0);
    ASSERT_TRUE(calls.reach(kRequests));
    EXPECT_EQ(calls.names(), order);
    EXPECT_EQ(together, 0);
    std::set<pid_t> threads;
    for (const Call& call : calls.all()) threads.insert(call.thread);
    EXPECT_EQ(threads.size(), 1u);
}

TEST(AsyncRequests, ACallbackMayBeginAndProcessOthers) {
    constexpr int kLinks = 1000;
    const Leftovers leftovers;
    {
        Manager manager;
        Calls calls;
        auto requests = expected(calls, kLinks);
        for (int i = 0; i + 1 < kLinks; ++i)
            requests[i].then = [&, i] {
                EXPECT_EQ(process_text(manager, begin(manager, requests[i + 1]), i, "next"), 0);
            };
        EXPECT_EQ(process_text(manager, begin(manager, requests[0]), 0, "first"), 0);
        EXPECT_TRUE(calls.reach(kLinks));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, UnderASteadyLoadNothingPilesUpAndEachIsCalledOnce) {
    constexpr size_t kThreads = 4, kEach = 5000;
    const Leftovers leftovers;
    {
        Manager manager;
        std::vector<std::atomic<int>> called(kThreads * kEach);
        std::atomic<size_t> total{0};
        struct Context {
            std::atomic<int>* called;
            std::atomic<size_t>* total;
        };
        std::vector<Context> contexts;
        for (auto& one : called) contexts.push_back({&one, &total});
        std::vector<std::thread> threads;
        for (size_t thread = 0; thread < kThreads; ++thread)
            threads.emplace_back([&, thread] {
                for (size_t i = 0; i < kEach; ++i) {
                    async_request* const request = async_request_create(manager, kLong);
                    request->context = &contexts[thread * kEach + i];
                    request->callback = [](void* context, uint8_t, void*, uint32_t) {
                        ++*static_cast<Context*>(context)->called;
                        ++*static_cast<Context*>(context)->total;
                        return 0;
                    };
                    const uint64_t id = request->id;
                    async_request_begin(manager, request);
                    EXPECT_EQ(process_text(manager, id, 0, "x"), 0);
                }
            });
        for (std::thread& thread : threads) thread.join();
        EXPECT_TRUE(eventually([&] { return total == kThreads * kEach; }));
        for (auto& one : called) EXPECT_EQ(one, 1);
        EXPECT_EQ(manager.pending(), 0u);
        EXPECT_EQ(queue_peek(&manager->completed), nullptr);
    }
    EXPECT_TRUE(leftovers.none());
}

// --- requests that nobody answers ----------------------------------------------------------------

TEST(AsyncRequests, AnIdleWorkerCompletesWhatIsOverdueOnceAndTheNewestFirst) {
    const Leftovers leftovers;
    {
        Manager manager;
        Calls calls;
        // The look comes after three seconds, in this second or the next.
        const uint32_t timeouts[] = {kPast, kPast, kPast, kLong, 0, 3, 1};
        auto requests = expected(calls, std::size(timeouts));
        std::vector<uint64_t> ids;
        std::vector<uint32_t> deadlines;
        for (size_t i = 0; i < std::size(timeouts); ++i) {
            deadlines.push_back(static_cast<uint32_t>(time(nullptr)) + timeouts[i]);
            ids.push_back(begin(manager, requests[i], timeouts[i]));
        }
        async_request_begin(manager, async_request_create(manager, kPast));  // has no callback

        const auto called = [&](int name) {
            return testing::Value(calls.names(), testing::Contains(name));
        };
        ASSERT_TRUE(eventually([&] { return called(0); }));
        std::vector<int> names = calls.names();
        std::erase(names, 5);
        EXPECT_THAT(names, ElementsAre(6, 4, 2, 1, 0));
        for (const Call& call : calls.all()) {
            EXPECT_EQ(call.status, ASYNC_REQUEST_TIMED_OUT);
            EXPECT_FALSE(call.has_data);
            EXPECT_EQ(call.data_length, 0u);
            EXPECT_GT(static_cast<uint32_t>(call.time), deadlines[static_cast<size_t>(call.name)])
                << "the deadline's own second is in time";
        }

        EXPECT_EQ(process_text(manager, ids[6], 0, "too late"), -1);
        EXPECT_EQ(process_text(manager, ids[3], 3, "in time"), 0);
        process_text(manager, ids[5], 3, "in time or not");
        EXPECT_TRUE(calls.reach(7));
        EXPECT_EQ(manager.pending(), 0u);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, AnExpiredRequestKeepsTheDataThatItCameWith) {
    const Leftovers leftovers;
    {
        Manager manager;
        Calls calls;
        Expected expected{0, &calls};
        async_request* const request = async_request_create(manager, kPast);
        request->callback = Expected::called;
        request->context = &expected;
        request->data = text_of("mine");
        request->data_length = 4;
        const uint64_t id = request->id;
        async_request_begin(manager, request);
        {
            FailingCall fault("malloc", ENOMEM);
            EXPECT_EQ(async_request_process(manager, id, 7, nullptr, 0), -1);
            EXPECT_TRUE(fault.hit());
        }
        const void* const pending = hashtable_get_l(&manager->pending, &id);
        ASSERT_EQ(pending, request);
        EXPECT_EQ(request->status, 0);
        EXPECT_EQ(request->data_length, 4);
        pthread_mutex_unlock(&manager->pending.mutex);
        ASSERT_TRUE(calls.reach(1));
        EXPECT_EQ(calls.all()[0].status, ASYNC_REQUEST_TIMED_OUT);
        EXPECT_TRUE(calls.all()[0].has_data);
        EXPECT_EQ(calls.all()[0].data_length, 4u);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, OneThatCannotBeQueuedStaysPendingUntilTheNextLook) {
    Manager manager;
    Calls calls;
    auto requests = expected(calls, 2);
    begin(manager, requests[0], kPast);
    const uint64_t newest = begin(manager, requests[1], kPast);
    {
        FailingCall fault("malloc", ENOMEM);  // of the first that is queued
        ASSERT_TRUE(calls.reach(1));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_THAT(calls.names(), ElementsAre(0));
    EXPECT_EQ(manager.pending(), 1u);
    EXPECT_EQ(process_text(manager, newest, 9, "after all"), 0);
    ASSERT_TRUE(calls.reach(2));
    EXPECT_EQ(calls.all()[1].status, 9);
}

TEST(AsyncRequests, AWaitThatEndsEarlyIsNoIdleness) {
    Manager manager;
    Calls calls;
    auto requests = expected(calls, 2);
    const uint64_t overdue = begin(manager, requests[0], kPast);
    ASSERT_TRUE(eventually([] { return calls_of("pthread_cond_timedwait") > 0; }));

    const uint64_t waits = calls_of("pthread_cond_timedwait");
    FailingCall early("pthread_cond_timedwait", ETIMEDOUT);
    EXPECT_EQ(process_text(manager, begin(manager, requests[1]), 0, "wakes it"), 0);
    ASSERT_TRUE(eventually([&] { return calls_of("pthread_cond_timedwait") >= waits + 2; }));
    EXPECT_TRUE(early.hit());
    EXPECT_EQ(process_text(manager, overdue, 5, "still in time"), 0);
    ASSERT_TRUE(calls.reach(2));
    EXPECT_THAT(calls.statuses(), ElementsAre(0, 5));
}

TEST(AsyncRequests, TheWorkerSurvivesAClockThatFails) {
    const CapturedLog log;
    for (const uint32_t skip : {0, 1}) {  // its own look at the clock, then the queue's
        Calls calls;
        Expected expected{0, &calls};
        FailingCall fault("clock_gettime", EPERM, skip);
        Manager manager;
        EXPECT_TRUE(eventually([&] { return fault.hit(); }));
        EXPECT_EQ(process_text(manager, begin(manager, expected), 0, "x"), 0);
        EXPECT_TRUE(calls.reach(1));
    }
    EXPECT_THAT(log.lines(), ElementsAre("WARN:queue:queue_dequeue_swait: clock_gettime()(): "
                                         "Operation not permitted"));
}

// --- freeing -------------------------------------------------------------------------------------

TEST(AsyncRequests, FreeNeitherCallsNorFreesWhatIsPending) {
    Calls calls;
    Expected expected{0, &calls};
    const int64_t live = live_allocations();
    Manager manager;
    async_request* const request = async_request_create(manager, kLong);
    request->callback = Expected::called;
    request->context = &expected;
    async_request_begin(manager, request);
    manager.free();
    EXPECT_EQ(calls.count(), 0u);
    EXPECT_EQ(live_allocations(), live + 1);
    EXPECT_EQ(request->status, 0);
    async_request_free(request);
}

TEST(AsyncRequests, FreeWaitsForTheCallbackThatRunsAndMakesNoOther) {
    const Leftovers leftovers;
    Gate gate;
    Calls calls;
    {
        auto requests = expected(calls, 5);
        requests[0].then = [&] { gate.pass(); };
        Manager manager;
        for (Expected& request : requests)
            EXPECT_EQ(process_text(manager, begin(manager, request), 0, "x"), 0);
        gate.await_entry();

        async_requests_manager* const kept = manager;
        std::atomic<bool> freed{false};
        std::thread freeing([&] {
            manager.free();
            freed = true;
        });
        ASSERT_TRUE(eventually(
            [&] { return !(std::atomic_ref(kept->flags).load() & ASYNC_REQUESTS_RUNNING); }));
        EXPECT_FALSE(freed);
        gate.open();
        freeing.join();
    }
    EXPECT_EQ(calls.count(), 1u);
    EXPECT_TRUE(leftovers.none()) << "the others were freed without a call";
}

TEST(AsyncRequests, FreeComesAtAnyMoment) {
    const Leftovers leftovers;
    for (int round = 0; round < 200; ++round) {
        Calls calls;
        auto requests = expected(calls, 3);
        async_requests_manager manager;
        ASSERT_EQ(async_requests_manager_init(&manager), 0);
        for (int i = 0; i < round % 4; ++i) {
            if (i == 3) break;
            EXPECT_EQ(process_text(&manager, begin(&manager, requests[i]), 0, "x"), 0);
        }
        if (round % 3 == 0) std::this_thread::yield();
        async_requests_manager_free(&manager, 0);
        async_requests_manager_free(&manager, 0);  // has nothing left to free
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, InitZeroesItsRecord) {
    const Leftovers leftovers;
    async_requests_manager manager;
    memset(&manager, 0xAA, sizeof manager);
    ASSERT_EQ(async_requests_manager_init(&manager), 0);
    EXPECT_EQ(manager.next_id, 0u);
    async_requests_manager_free(&manager, 0);
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, AThreadThatIsJoinedNeverDetachesItself) {
    const uint64_t joins = calls_of("pthread_join"), detached = calls_of("pthread_detach");
    Manager().free();
    EXPECT_EQ(calls_of("pthread_join"), joins + 1);
    EXPECT_EQ(calls_of("pthread_detach"), detached);
}

// --- failures ------------------------------------------------------------------------------------

TEST(AsyncRequests, AManagerIsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    const CapturedLog log;
    for_each_failing_allocation(async_requests_manager_create, [](async_requests_manager* manager) {
        async_requests_manager_free(manager, 1);
    });
    EXPECT_THAT(
        log.lines(),
        ElementsAre("WARN:async_request:async_requests_manager_create: calloc(): Cannot allocate "
                    "memory",
                    "WARN:hashtable:hashtable_init: calloc(): Cannot allocate memory",
                    "WARN:async_request:async_requests_manager_create: "
                    "async_requests_manager_init(): Cannot allocate memory"));
}

TEST(AsyncRequests, InitSaysWhichStepFailedAndLeavesNothing) {
    const CapturedLog log;
    const Leftovers leftovers;
    async_requests_manager manager{};
    const struct {
        const char* call;
        int error;
        int result;
    } steps[] = {{"calloc", ENOMEM, -1}, {"sem_init", ENOSPC, -2}, {"pthread_create", EAGAIN, -1}};
    for (const auto& step : steps) {
        FailingCall fault(step.call, step.error);
        EXPECT_EQ(async_requests_manager_init(&manager), step.result) << step.call;
        EXPECT_EQ(errno, step.error);
        EXPECT_EQ(manager.flags, 0);
        async_requests_manager_free(&manager, 0);  // finds nothing
        EXPECT_TRUE(leftovers.none()) << step.call;
    }
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:hashtable:hashtable_init: calloc(): Cannot allocate memory"));

    FailingCall fault("pthread_create", EAGAIN);
    EXPECT_EQ(async_requests_manager_create(), nullptr);
    EXPECT_EQ(log.lines().back(),
              "WARN:async_request:async_requests_manager_create: async_requests_manager_init(): "
              "Resource temporarily unavailable");
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, AnAnswerThatCannotBeQueuedLeavesTheRequestPending) {
    Manager manager;
    Calls calls;
    Expected expected{0, &calls};
    const uint64_t id = begin(manager, expected);
    char* const data = text_of("x");
    int refused = 0;
    for (FailingAllocations round; round.next();) {
        round.arm();
        const int result = async_request_process(manager, id, 4, data, 1);
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -1 : 0);
        if (result == 0) {
            EXPECT_TRUE(calls.reach(1));
            manager.free();
            break;
        }
        ++refused;
        EXPECT_EQ(manager.pending(), 1u);
        const auto* const request =
            static_cast<async_request*>(hashtable_get_nl(&manager->pending, &id));
        EXPECT_EQ(request->status, 0);
        EXPECT_EQ(request->data, nullptr);
        EXPECT_EQ(request->data_length, 0);
    }
    EXPECT_EQ(refused, 1);
    EXPECT_THAT(calls.statuses(), ElementsAre(4));
}

TEST(AsyncRequests, ARequestThatCannotBeKeptIsCompletedAsTimedOut) {
    const CapturedLog log;
    std::vector<int> statuses;
    for (FailingAllocations round; round.next();) {
        Manager manager;
        Calls calls;
        Expected expected{0, &calls};
        async_request* const request = async_request_create(manager, kLong);
        request->callback = Expected::called;
        request->context = &expected;
        round.arm();
        EXPECT_EQ(async_request_begin(manager, request), 0);
        round.disarm();
        EXPECT_EQ(process_text(manager, 1, 2, "x"), round.hit() ? -1 : 0);
        ASSERT_TRUE(calls.reach(1));
        statuses.push_back(calls.statuses()[0]);
    }
    EXPECT_THAT(statuses, ElementsAre(ASYNC_REQUEST_TIMED_OUT, ASYNC_REQUEST_TIMED_OUT, 2));
    EXPECT_THAT(log.messages(), ElementsAre("malloc(): Cannot allocate memory",
                                            "malloc(): Cannot allocate memory"));
}

TEST(AsyncRequests, WithoutAnyMemoryARequestThatCannotBeKeptIsFreedUncalled) {
    const CapturedLog log;
    const Leftovers leftovers;
    {
        Manager manager;
        Calls calls;
        Expected expected{0, &calls};
        FailingAllocations entry;
        ASSERT_TRUE(entry.next());
        async_request* const request = async_request_create(manager, kLong);
        request->callback = Expected::called;
        request->context = &expected;
        FailingCall node("malloc", ENOMEM, 0, true);
        entry.arm();
        EXPECT_EQ(async_request_begin(manager, request), 0);
        entry.disarm();
        EXPECT_TRUE(entry.hit());
        EXPECT_TRUE(node.hit());
        manager.free();
        EXPECT_EQ(calls.count(), 0u);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, ARequestThatLosesItsPlaceToOneOfTheSameIdIsCompletedAsTimedOut) {
    const Leftovers leftovers;
    {
        Manager manager;
        Calls calls;
        auto requests = expected(calls, 2);
        uint64_t first = 0, second = 0;
        for (const auto& [counter, context] :
             {std::pair{&first, &requests[0]}, {&second, &requests[1]}}) {
            async_request* const request = async_request_create(counter, kLong);
            request->callback = Expected::called;
            request->context = context;
            async_request_begin(manager, request);
        }
        ASSERT_TRUE(calls.reach(1));
        EXPECT_EQ(process_text(manager, 1, 8, "x"), 0);
        ASSERT_TRUE(calls.reach(2));
        EXPECT_THAT(calls.names(), ElementsAre(0, 1));
        EXPECT_THAT(calls.statuses(), ElementsAre(1, 8));
        EXPECT_EQ(process_text(manager, 1, 8, "x"), -1);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(AsyncRequests, BeginningTheSameRequestTwiceChangesNothing) {
    const Leftovers leftovers;
    {
        Manager manager;
        Calls calls;
        Expected expected{0, &calls};
        async_request* const request = async_request_create(manager, kLong);
        request->callback = Expected::called;
        request->context = &expected;
        async_request_begin(manager, request);
        async_request_begin(manager, request);
        EXPECT_EQ(process_text(manager, 1, 8, "x"), 0);
        ASSERT_TRUE(calls.reach(1));
        EXPECT_EQ(process_text(manager, 1, 8, "x"), -1);
        EXPECT_EQ(calls.count(), 1u);
    }
    EXPECT_TRUE(leftovers.none());
}

// --- locks that fail -----------------------------------------------------------------------------

namespace {

// The end of a process in which `work` met a lock that failed; nothing that comes after it counts.
std::string fatal_end(const std::function<void()>& work) {
    const ChildResult child = run_in_child([&] {
        errno = 0;
        work();
        for (;;) pause();
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    return child.err;
}

std::string fatal_line(const char* function, const char* call, int code) {
    return std::string("./ipc/async/async_request:") + function + ": " + call +
           "(): No such file or directory (" + std::to_string(code) + ")\n";
}

}  // namespace

TEST(AsyncRequests, AMutexThatCannotBeMadeIsFatal) {
    EXPECT_EQ(fatal_end([] {
                  FailingCall fault("pthread_mutex_init", EAGAIN);
                  async_requests_manager manager;
                  errno = ENOENT;
                  async_requests_manager_init(&manager);
              }),
              fatal_line("async_requests_manager_init", "pthread_mutex_init", EAGAIN));
}

TEST(AsyncRequests, AnAnswersFailedUnlockIsFatal) {
    for (const uint64_t wanted : {1, 2})
        EXPECT_EQ(
            fatal_end([&] {
                Manager manager;
                Calls calls;
                Expected expected{0, &calls};
                EXPECT_TRUE(eventually([] { return calls_of("pthread_cond_timedwait") > 0; }));
                begin(manager, expected);
                // The queue releases its lock first, where there is something to queue.
                FailingCall fault("pthread_mutex_unlock", EPERM, wanted == 1, true);
                errno = ENOENT;
                async_request_process(manager, wanted, 0, nullptr, 0);
            }),
            fatal_line("async_request_process", "pthread_mutex_unlock", EPERM));
}

TEST(AsyncRequests, TheWorkersFailedUnlockIsFatal) {
    const std::string err = fatal_end([] {
        FailingCall fault("pthread_mutex_unlock", EPERM);
        Manager manager;
        for (;;) pause();
    });
    EXPECT_EQ(err,
              "./ipc/async/async_request:async_requests_routine: pthread_mutex_unlock(): "
              "Success (1)\n");
}

TEST(AsyncRequests, FreesFailedUnlockIsFatal) {
    EXPECT_EQ(fatal_end([] {
                  Manager manager;
                  FailingCall fault("pthread_mutex_unlock", EPERM, 0, true);
                  errno = ENOENT;
                  manager.free();
              }),
              fatal_line("async_requests_manager_free", "pthread_mutex_unlock", EPERM));
}

TEST(AsyncRequests, PrintsAMutexThatCannotBeDestroyedAndGoesOn) {
    const Leftovers leftovers;
    Manager manager;
    CapturedStderr err;
    FailingCall fault("pthread_mutex_destroy", EBUSY, 1);  // the queue's comes before it
    errno = ENOENT;
    manager.free();
    EXPECT_EQ(err.text(),
              fatal_line("async_requests_manager_free", "pthread_mutex_destroy", EBUSY));
}
