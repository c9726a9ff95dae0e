#include <ztlib/scheduler/sched_singlethread.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <optional>
#include <semaphore>
#include <string>
#include <thread>
#include <vector>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// What a task does, and what becomes of its result; it lives until the task was scheduled and run.
struct Job {
    std::function<int32_t()> work;
    std::function<void(int32_t)> done;
};

int32_t do_work(void* job) { return static_cast<Job*>(job)->work(); }
void do_done(void* job, int32_t result) { static_cast<Job*>(job)->done(result); }

sched_task* task_of(int flags, Job& job) {
    sched_task* const task = sched_task_create(flags);
    task->work = do_work;
    task->done = do_done;
    task->arg = &job;
    return task;
}

// A scheduler that is freed at the end of the scope at the latest.
class Scheduler {
  public:
    Scheduler() : scheduler_(sched_singlethread_create()) {}
    ~Scheduler() { free(); }
    Scheduler(const Scheduler&) = delete;
    Scheduler& operator=(const Scheduler&) = delete;

    operator sched_singlethread*() const { return scheduler_; }
    sched_singlethread* operator->() const { return scheduler_; }

    void schedule(int flags, Job& job) {
        EXPECT_EQ(sched_singlethread_schedule(scheduler_, task_of(flags, job)), 0);
    }

    // Returns when all that was scheduled before has been run.
    void wait() {
        std::binary_semaphore reached(0);
        Job job{{}, [&](int32_t) { reached.release(); }};
        schedule(SCHED_TASK_DONE, job);
        reached.acquire();
    }

    void free() {
        sched_singlethread_free(scheduler_, 1);
        scheduler_ = nullptr;
    }

    uint8_t state() const {
        pthread_mutex_lock(&scheduler_->mutex);
        const uint8_t state = scheduler_->state;
        pthread_mutex_unlock(&scheduler_->mutex);
        return state;
    }

  private:
    sched_singlethread* scheduler_;
};

// A task that runs until it is let go.
class Occupation {
  public:
    explicit Occupation(Scheduler& scheduler) {
        scheduler.schedule(SCHED_TASK_WORK, job_);
        begun_.acquire();
    }
    void end() { end_.release(); }
    bool finished() const { return finished_; }

  private:
    std::binary_semaphore begun_{0}, end_{0};
    std::atomic<bool> finished_{false};
    Job job_{[this] {
                 begun_.release();
                 end_.acquire();
                 finished_ = true;
                 return 0;
             },
             {}};
};

}  // namespace

TEST(SchedSinglethread, HandsTheResultOfItsWorkToTheCompletion) {
    Scheduler s;
    std::vector<std::string> calls;
    Job job{[&] {
                calls.push_back("work");
                return -7;
            },
            [&](int32_t result) { calls.push_back("done " + std::to_string(result)); }};
    s.schedule(SCHED_TASK_WORK | SCHED_TASK_DONE, job);
    s.wait();
    EXPECT_THAT(calls, ElementsAre("work", "done -7"));
}

TEST(SchedSinglethread, HandsTheLastResultToACompletionWithoutWork) {
    Scheduler s;
    std::vector<int32_t> results;
    Job a{[] { return 41; }, [&](int32_t result) { results.push_back(result); }};
    Job b = a;
    s.schedule(SCHED_TASK_WORK | SCHED_TASK_DONE, a);
    s.schedule(SCHED_TASK_DONE, b);
    s.schedule(0, b);
    s.schedule(SCHED_TASK_DONE, b);
    s.wait();
    EXPECT_THAT(results, ElementsAre(41, 41, 41));
}

TEST(SchedSinglethread, HandsOnTheResultOfWorkThatHadNoCompletion) {
    Scheduler s;
    std::vector<int32_t> results;
    Job a{[] { return 5; }, [](int32_t) { ADD_FAILURE(); }};
    Job b{[] { return 0; }, [&](int32_t result) { results.push_back(result); }};
    s.schedule(SCHED_TASK_WORK, a);
    s.schedule(SCHED_TASK_DONE, b);
    s.wait();
    EXPECT_THAT(results, ElementsAre(5));
}

TEST(SchedSinglethread, StartsWithTheResultZero) {
    for (int i = 0; i < 3; i++) {
        Scheduler s;
        int32_t first = -1;
        Job job{{}, [&](int32_t result) { first = result; }};
        s.schedule(SCHED_TASK_DONE, job);
        s.wait();
        EXPECT_EQ(first, 0);
    }
}

TEST(SchedSinglethread, TakesATaskWithoutFlagsAndCallsNothing) {
    const int64_t before = live_allocations();
    Scheduler s;
    Job job{[] {
                ADD_FAILURE();
                return 0;
            },
            [](int32_t) { ADD_FAILURE(); }};
    s.schedule(0, job);
    s.schedule(0xFFFC, job);
    s.wait();
    s.free();
    EXPECT_EQ(live_allocations(), before);
}

TEST(SchedSinglethread, TakesAFlagWithoutItsFunctionAsUnset) {
    Scheduler s;
    std::vector<int32_t> results;
    Job a{[] { return 9; }, {}};
    Job b{{}, [&](int32_t result) { results.push_back(result); }};
    s.schedule(SCHED_TASK_WORK, a);
    for (const auto clear :
         {+[](sched_task* t) { t->work = nullptr; }, +[](sched_task* t) { t->done = nullptr; }}) {
        sched_task* const task = task_of(SCHED_TASK_WORK | SCHED_TASK_DONE, b);
        b.work = [] { return 10; };
        clear(task);
        EXPECT_EQ(sched_singlethread_schedule(s, task), 0);
        s.wait();
    }
    EXPECT_THAT(results, ElementsAre(9));
}

TEST(SchedSinglethread, FreesItsTasksButNotTheirArguments) {
    const int64_t before = live_allocations();
    Scheduler s;
    const int64_t running = live_allocations();
    char* const argument = strdup("the host's");
    for (int i = 0; i < 100; i++) {
        sched_task* const task = sched_task_create(SCHED_TASK_WORK);
        task->work = [](void* text) { return static_cast<int32_t>(*static_cast<char*>(text)); };
        task->arg = argument;
        sched_singlethread_schedule(s, task);
    }
    s.wait();
    EXPECT_TRUE(eventually([&] { return live_allocations() == running + 1; }));
    EXPECT_STREQ(argument, "the host's");
    free(argument);
    s.free();
    EXPECT_EQ(live_allocations(), before);
}

TEST(SchedSinglethread, RunsAllTasksOnOneThreadInTheOrderInWhichTheyCame) {
    constexpr int kSubmitters = 4, kEach = 2000;
    struct Submitted {
        std::vector<int> order;  // of its tasks, as they were run
        std::vector<Job> jobs = std::vector<Job>(kEach);
    };
    std::vector<Submitted> all(kSubmitters);
    std::atomic<int> running{0};
    std::vector<std::thread::id> threads;

    Scheduler s;
    std::vector<std::thread> submitters;
    for (Submitted& mine : all)
        submitters.emplace_back([&] {
            for (int i = 0; i < kEach; i++) {
                mine.jobs[i].work = [&running] { return ++running; };
                mine.jobs[i].done = [&, i](int32_t at_work) {
                    EXPECT_EQ(at_work, 1) << "another task runs";
                    running--;
                    mine.order.push_back(i);
                    threads.push_back(std::this_thread::get_id());
                };
                s.schedule(SCHED_TASK_WORK | SCHED_TASK_DONE, mine.jobs[i]);
            }
        });
    for (auto& submitter : submitters) submitter.join();
    s.wait();

    for (const Submitted& one : all) {
        ASSERT_EQ(one.order.size(), size_t{kEach});
        EXPECT_TRUE(std::is_sorted(one.order.begin(), one.order.end()));
    }
    ASSERT_EQ(threads.size(), size_t{kSubmitters * kEach});
    EXPECT_EQ(std::count(threads.begin(), threads.end(), threads[0]), kSubmitters * kEach);
    EXPECT_NE(threads[0], std::this_thread::get_id());
}

TEST(SchedSinglethread, LetsATaskScheduleOthersAndHoldsNoLockMeanwhile) {
    Scheduler s;
    std::vector<std::string> calls;
    const auto expect_unlocked = [&] {
        for (pthread_mutex_t* mutex : {&s->mutex, &s->tasks.mutex}) {
            EXPECT_EQ(pthread_mutex_trylock(mutex), 0);
            pthread_mutex_unlock(mutex);
        }
    };
    std::binary_semaphore over(0);
    Job third{{}, [&](int32_t) {
                  calls.push_back("third");
                  over.release();
              }};
    Job second{[&] {
                   expect_unlocked();
                   calls.push_back("second");
                   return 0;
               },
               {}};
    Job first{[&] {
                  expect_unlocked();
                  s.schedule(SCHED_TASK_WORK, second);
                  calls.push_back("first");
                  return 0;
              },
              [&](int32_t) {
                  expect_unlocked();
                  s.schedule(SCHED_TASK_DONE, third);
                  calls.push_back("first is done");
              }};
    s.schedule(SCHED_TASK_WORK | SCHED_TASK_DONE, first);
    over.acquire();
    EXPECT_THAT(calls, ElementsAre("first", "first is done", "second", "third"));
}

TEST(SchedSinglethread, SleepsOnAfterASpuriousWakeUp) {
    FakedCall spurious("pthread_cond_wait", 0);
    Scheduler s;
    ASSERT_TRUE(eventually([&] { return spurious.hit(); }));
    int32_t result = 0;
    Job job{[] { return 3; }, [&](int32_t r) { result = r; }};
    s.schedule(SCHED_TASK_WORK | SCHED_TASK_DONE, job);
    s.wait();
    EXPECT_EQ(result, 3);
}

TEST(SchedSinglethread, HasItsThreadFromTheStartUntilItIsFreed) {
    Leftovers leftovers;
    Scheduler s;
    EXPECT_EQ(s.state(), SCHED_RUNNING | SCHED_THREAD_ALIVE);
    EXPECT_EQ(s->tasks.head, nullptr);
    bool is_its_thread = false;
    Job job{{}, [&](int32_t) { is_its_thread = pthread_equal(pthread_self(), s->thread); }};
    s.schedule(SCHED_TASK_DONE, job);
    s.wait();
    EXPECT_TRUE(is_its_thread);
    s.free();
    EXPECT_TRUE(leftovers.none());
}

TEST(SchedSinglethread, FinishesTheRunningTaskAndDropsTheOthersWhenItIsFreed) {
    const int64_t before = live_allocations();
    Scheduler s;
    Occupation occupation(s);
    Job never{[] {
                  ADD_FAILURE();
                  return 0;
              },
              [](int32_t) { ADD_FAILURE(); }};
    for (int i = 0; i < 100; i++) s.schedule(SCHED_TASK_WORK | SCHED_TASK_DONE, never);

    std::thread freeing([&] { s.free(); });
    EXPECT_TRUE(eventually([&] { return s.state() == SCHED_THREAD_ALIVE; }));
    EXPECT_FALSE(occupation.finished());
    occupation.end();
    freeing.join();

    EXPECT_TRUE(occupation.finished());
    EXPECT_EQ(live_allocations(), before);
}

TEST(SchedSinglethread, CompletesTheRunningTaskWhenItIsFreed) {
    Scheduler s;
    std::binary_semaphore begun(0), end(0);
    int32_t result = 0;
    Job job{[&] {
                begun.release();
                end.acquire();
                return 6;
            },
            [&](int32_t r) { result = r; }};
    s.schedule(SCHED_TASK_WORK | SCHED_TASK_DONE, job);
    begun.acquire();
    std::thread freeing([&] { s.free(); });
    EXPECT_TRUE(eventually([&] { return s.state() == SCHED_THREAD_ALIVE; }));
    end.release();
    freeing.join();
    EXPECT_EQ(result, 6);
}

TEST(SchedSinglethread, DropsWhatARunningTaskSchedulesOnceItIsStopped) {
    const int64_t before = live_allocations();
    Scheduler s;
    std::binary_semaphore begun(0);
    Job never{[] {
                  ADD_FAILURE();
                  return 0;
              },
              {}};
    Job job{[&] {
                begun.release();
                EXPECT_TRUE(eventually([&] { return !(s.state() & SCHED_RUNNING); }));
                s.schedule(SCHED_TASK_WORK, never);
                return 0;
            },
            {}};
    s.schedule(SCHED_TASK_WORK, job);
    begun.acquire();
    sched_singlethread* const record = s;
    sched_singlethread_free(record, 0);
    EXPECT_EQ(record->state, 0);
    EXPECT_EQ(record->tasks.head, nullptr);
    s.free();
    EXPECT_EQ(live_allocations(), before);
}

TEST(SchedSinglethread, StopsAtEveryMomentOfItsThreadsLife) {
    Leftovers leftovers;
    Job job{[] { return 1; }, [](int32_t) {}};
    for (int i = 0; i < 300; i++) {
        Scheduler s;
        for (int tasks = 0; tasks < i % 5; tasks++)
            s.schedule(SCHED_TASK_WORK | SCHED_TASK_DONE, job);
        if (i % 3 == 0) std::this_thread::yield();
        if (i % 3 == 1) s.wait();
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SchedSinglethread, CanBeEmbedded) {
    Leftovers leftovers;
    sched_singlethread embedded{};
    ASSERT_EQ(sched_singlethread_init(&embedded), 0);
    std::binary_semaphore reached(0);
    Job job{{}, [&](int32_t) { reached.release(); }};
    sched_singlethread_schedule(&embedded, task_of(SCHED_TASK_DONE, job));
    reached.acquire();
    sched_singlethread_free(&embedded, 0);
    EXPECT_EQ(embedded.state, 0);
    EXPECT_TRUE(leftovers.none());

    sched_singlethread_free(&embedded, 0);
    EXPECT_EQ(embedded.state, 0);
}

TEST(SchedSinglethread, IgnoresNull) {
    CapturedStderr err;
    CapturedLog log;
    EXPECT_EQ(sched_singlethread_init(nullptr), -1);
    sched_singlethread_free(nullptr, 0);
    sched_singlethread_free(nullptr, 1);

    sched_task* const task = sched_task_create(0);
    EXPECT_EQ(sched_singlethread_schedule(nullptr, task), 0);
    EXPECT_EQ(sched_singlethread_schedule(nullptr, nullptr), 0);
    sched_task_free(task, 1);

    Scheduler s;
    EXPECT_EQ(sched_singlethread_schedule(s, nullptr), 0);
    EXPECT_EQ(s->tasks.flags & QUEUE_POSTED, 0);
    EXPECT_EQ(err.text(), "");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(SchedSinglethread, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    CapturedLog log;
    for_each_failing_allocation([] { return sched_singlethread_create(); },
                                [](sched_singlethread* s) { sched_singlethread_free(s, 1); });
    EXPECT_THAT(log.lines(), ElementsAre("WARN:sched_singlethread:sched_singlethread_create: "
                                         "calloc(): Cannot allocate memory"));
}

TEST(SchedSinglethread, FreesATaskThatItCannotQueue) {
    Scheduler s;
    const int64_t before = live_allocations();
    Job never{[] {
                  ADD_FAILURE();
                  return 0;
              },
              [](int32_t) { ADD_FAILURE(); }};
    sched_task* const task = task_of(SCHED_TASK_WORK | SCHED_TASK_DONE, never);
    {
        FailingCall no_memory("malloc", ENOMEM, 0, true);
        EXPECT_EQ(sched_singlethread_schedule(s, task), 0);
        EXPECT_TRUE(no_memory.hit());
    }
    EXPECT_EQ(live_allocations(), before);
    s.wait();
}

TEST(SchedSinglethread, IsNotStartedWithoutItsQueue) {
    Leftovers leftovers;
    const std::string queue_failed =
        "WARN:sched_singlethread:sched_singlethread_init: queue_init(): No space left on device";
    {
        CapturedLog log;
        FailingCall fault("sem_init", ENOSPC);
        sched_singlethread embedded{};
        EXPECT_EQ(sched_singlethread_init(&embedded), -1);
        EXPECT_EQ(embedded.state, 0);
        EXPECT_THAT(log.lines(), ElementsAre(queue_failed));
        sched_singlethread_free(&embedded, 0);
    }
    {
        CapturedLog log;
        FailingCall fault("sem_init", ENOSPC);
        EXPECT_EQ(sched_singlethread_create(), nullptr);
        EXPECT_THAT(log.lines(), ElementsAre(queue_failed,
                                             "WARN:sched_singlethread:sched_singlethread_create: "
                                             "sched_singlethread_init(): No space left on device"));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SchedSinglethread, IsNotStartedWithoutItsThread) {
    CapturedStderr err;
    Leftovers leftovers;
    const std::string no_thread =
        "WARN:sched_singlethread:sched_singlethread_init: pthread_create() failed";
    {
        CapturedLog log;
        FailingCall fault("pthread_create", EAGAIN);
        sched_singlethread embedded{};
        errno = 0;
        EXPECT_EQ(sched_singlethread_init(&embedded), -1);
        EXPECT_EQ(errno, EAGAIN);
        EXPECT_EQ(embedded.state, SCHED_THREAD_ALIVE);
        EXPECT_THAT(log.lines(), ElementsAre(no_thread));
        sched_singlethread_free(&embedded, 0);
    }
    {
        CapturedLog log;
        FailingCall fault("pthread_create", EAGAIN);
        EXPECT_EQ(sched_singlethread_create(), nullptr);
        EXPECT_THAT(log.lines(),
                    ElementsAre(no_thread,
                                "WARN:sched_singlethread:sched_singlethread_create: "
                                "sched_singlethread_init(): Resource temporarily unavailable"));
    }
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(leftovers.none());
}

namespace {

// The queue's mutex is made and destroyed before the scheduler's own.
constexpr uint32_t kAfterTheQueues = 1;

}  // namespace

TEST(SchedSinglethread, PrintsAMutexThatCannotBeDestroyedAndGoesOn) {
    CapturedStderr err;
    Leftovers leftovers;
    {
        Scheduler s;
        FailingCall fault("pthread_mutex_destroy", EBUSY, kAfterTheQueues);
        errno = ENOENT;
        s.free();
    }
    EXPECT_EQ(err.take(),
              "./scheduler/sched_singlethread:sched_singlethread_free: "
              "pthread_mutex_destroy(): No such file or directory (16)\n");
    {
        FailingCall no_thread("pthread_create", EAGAIN);
        FailingCall fault("pthread_mutex_destroy", EBUSY, kAfterTheQueues);
        errno = ENOENT;
        EXPECT_EQ(sched_singlethread_create(), nullptr);
    }
    EXPECT_EQ(err.take(),
              "./scheduler/sched_singlethread:sched_singlethread_init: "
              "pthread_mutex_destroy(): No such file or directory (16)\n");
    EXPECT_TRUE(leftovers.none());
}

TEST(SchedSinglethread, EndsTheProcessWhenItsMutexCannotBeMade) {
    const ChildResult child = run_in_child([] {
        FailingCall fault("pthread_mutex_init", EAGAIN, kAfterTheQueues);
        errno = ENOENT;
        sched_singlethread_create();
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err,
              "./scheduler/sched_singlethread:sched_singlethread_init: "
              "pthread_mutex_init(): No such file or directory (11)\n");
}

TEST(SchedSinglethread, EndsTheProcessWhenItsMutexCannotBeReleased) {
    const ChildResult freeing = run_in_child([] {
        sched_singlethread* const s = sched_singlethread_create();
        FailingCall fault("pthread_mutex_unlock", EPERM, 0, true);
        errno = ENOENT;
        sched_singlethread_free(s, 1);
    });
    EXPECT_TRUE(freeing.exited);
    EXPECT_EQ(freeing.status, 255);
    EXPECT_EQ(freeing.err,
              "./scheduler/sched_singlethread:sched_singlethread_free: "
              "pthread_mutex_unlock(): No such file or directory (1)\n");

    const ChildResult ending = run_in_child([] {
        std::optional<FailingCall> fault;
        Scheduler s;
        Job job{[&] {
                    eventually([&] { return !(s.state() & SCHED_RUNNING); });
                    fault.emplace("pthread_mutex_unlock", EPERM, 0, true);
                    errno = ENOENT;
                    return 0;
                },
                {}};
        s.schedule(SCHED_TASK_WORK, job);
        while (queue_peek(&s->tasks)) sched_yield();
        s.free();
    });
    EXPECT_TRUE(ending.exited);
    EXPECT_EQ(ending.status, 255);
    EXPECT_EQ(ending.err,
              "./scheduler/sched_singlethread:sched_singlethread_routine: "
              "pthread_mutex_unlock(): No such file or directory (1)\n");
}

TEST(SchedSinglethread, EndsTheProcessWhenItsMutexCannotBeTaken) {
    const ChildResult child = run_in_child([] {
        sched_singlethread* const s = sched_singlethread_create();
        FailingCall fault("pthread_mutex_lock", EINVAL, 0, true);
        sched_singlethread_free(s, 1);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.err,
              "./pthread_utils:pthread_utils_mutex_lock pthread_mutex_lock(): Invalid argument "
              "(22)\n");
}
