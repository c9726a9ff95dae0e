#include <ztlib/queue/queue.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace zt_test;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

void* word(uintptr_t number) { return reinterpret_cast<void*>(number); }
uintptr_t number(const void* value) { return reinterpret_cast<uintptr_t>(value); }

// A queue that is emptied and released at the end of the scope.
class ScopedQueue {
  public:
    ScopedQueue() : queue_(queue_create()) {}
    explicit ScopedQueue(std::vector<uintptr_t> values) : ScopedQueue() {
        for (uintptr_t value : values) queue_enqueue(queue_, word(value));
    }
    ~ScopedQueue() {
        while (queue_->head) queue_dequeue(queue_);
        queue_free(queue_, 1);
    }
    ScopedQueue(const ScopedQueue&) = delete;
    ScopedQueue& operator=(const ScopedQueue&) = delete;

    operator queue*() const { return queue_; }
    queue* operator->() const { return queue_; }

    std::vector<uintptr_t> values() const {
        std::vector<uintptr_t> all;
        for (const queue_node* node = queue_->head; node; node = node->next)
            all.push_back(number(node->value));
        return all;
    }
    int posted_units() const {
        int units = -1;
        sem_getvalue(&queue_->items, &units);
        return units;
    }
    bool locked() const {
        if (pthread_mutex_trylock(&queue_->mutex) != 0) return true;
        pthread_mutex_unlock(&queue_->mutex);
        return false;
    }
    void unlock() const { EXPECT_EQ(pthread_mutex_unlock(&queue_->mutex), 0); }
    bool somebody_waits() const {
        pthread_mutex_lock(&queue_->mutex);
        const bool waits = queue_->flags & QUEUE_WAITING;
        pthread_mutex_unlock(&queue_->mutex);
        return waits;
    }

  private:
    queue* queue_;
};

// A dequeue on a thread of its own.
class Consumer {
  public:
    explicit Consumer(std::function<void*()> dequeue)
        : thread_([this, dequeue] {
              result_ = dequeue();
              done_ = true;
          }) {}
    ~Consumer() {
        if (thread_.joinable()) thread_.join();
    }
    bool done() const { return done_; }
    uintptr_t result() {
        thread_.join();
        return number(result_);
    }

  private:
    void* result_ = nullptr;
    std::atomic<bool> done_{false};
    std::thread thread_;
};

int64_t real_time_ns() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return now.tv_sec * 1'000'000'000LL + now.tv_nsec;
}

int keep_even(void* value, void*) { return number(value) % 2 == 0; }
int keep_none(void*, void*) { return 0; }
int keep_all(void*, void*) { return 1; }
int keep_argument_alone(void* value, void* argument) { return value == argument; }
void print_number(void* value) { fprintf(stderr, "%lu\n", number(value)); }

}  // namespace

TEST(Queue, GivesValuesInTheOrderInWhichTheyCame) {
    ScopedQueue q({1, 2, 3});
    EXPECT_EQ(queue_dequeue(q), word(1));
    EXPECT_EQ(queue_dequeue(q), word(2));
    EXPECT_EQ(queue_dequeue(q), word(3));
    EXPECT_EQ(queue_dequeue(q), nullptr);
    EXPECT_EQ(q->head, nullptr);
    EXPECT_EQ(q->tail, nullptr);
}

TEST(Queue, StartsEmptyAndUnsignalled) {
    ScopedQueue q;
    EXPECT_EQ(q->head, nullptr);
    EXPECT_EQ(q->tail, nullptr);
    EXPECT_EQ(q->flags, 0);
    EXPECT_EQ(q.posted_units(), 0);
    EXPECT_FALSE(q.locked());
}

TEST(Queue, CanBeEmbeddedAndKeepsItsFlagsOnInit) {
    queue embedded{};
    embedded.flags = QUEUE_POSTED;
    embedded.head = embedded.tail = reinterpret_cast<queue_node*>(&embedded);
    ASSERT_EQ(queue_init(&embedded), 0);
    EXPECT_EQ(embedded.head, nullptr);
    EXPECT_EQ(embedded.tail, nullptr);
    EXPECT_EQ(embedded.flags, QUEUE_POSTED);
    EXPECT_NE(queue_enqueue(&embedded, word(7)), nullptr);
    EXPECT_EQ(queue_dequeue(&embedded), word(7));
    queue_free(&embedded, 0);
    EXPECT_EQ(embedded.flags, QUEUE_POSTED | QUEUE_EXITING);
}

TEST(Queue, EnqueueReturnsTheNodePostsOneUnitAndSetsTheSignal) {
    ScopedQueue q;
    queue_node* const first = queue_enqueue(q, word(1));
    EXPECT_EQ(q->head, first);
    EXPECT_EQ(q->tail, first);
    queue_node* const second = queue_enqueue(q, word(2));
    EXPECT_EQ(q->head, first);
    EXPECT_EQ(q->tail, second);
    EXPECT_EQ(first->value, word(1));
    EXPECT_EQ(first->next, second);
    EXPECT_EQ(second->value, word(2));
    EXPECT_EQ(second->next, nullptr);
    EXPECT_EQ(q->flags, QUEUE_POSTED);
    EXPECT_EQ(q.posted_units(), 2);
    EXPECT_FALSE(q.locked());
}

TEST(Queue, LockingFormsReturnWithTheLockHeld) {
    ScopedQueue q;
    EXPECT_NE(queue_enqueue_l(q, word(1)), nullptr);
    EXPECT_TRUE(q.locked());
    q.unlock();

    EXPECT_EQ(queue_peek_l(q), word(1));
    EXPECT_TRUE(q.locked());
    EXPECT_EQ(queue_dequeue_nl(q), word(1));
    EXPECT_EQ(queue_dequeue_nl(q), nullptr);
    EXPECT_TRUE(q.locked());
    q.unlock();

    EXPECT_EQ(queue_dequeue_l(q), nullptr);
    EXPECT_TRUE(q.locked());
    q.unlock();
    EXPECT_EQ(queue_peek_l(q), nullptr);
    EXPECT_TRUE(q.locked());
    q.unlock();

    queue_enqueue(q, word(2));
    EXPECT_EQ(queue_dequeue_l(q), word(2));
    EXPECT_TRUE(q.locked());
    q.unlock();
}

TEST(Queue, SemaphoreFormTakesOneUnitAndReturnsLocked) {
    ScopedQueue q({1, 2});
    EXPECT_EQ(queue_dequeue_ls(q), word(1));
    EXPECT_TRUE(q.locked());
    q.unlock();
    EXPECT_EQ(q.posted_units(), 1);

    EXPECT_EQ(queue_dequeue(q), word(2));
    EXPECT_EQ(q.posted_units(), 1) << "only the semaphore form takes units";
    EXPECT_EQ(queue_dequeue_ls(q), nullptr) << "a unit is left, a value is not";
    q.unlock();
    EXPECT_EQ(q.posted_units(), 0);
}

TEST(Queue, SemaphoreFormWaitsForAnEnqueue) {
    ScopedQueue q;
    Consumer consumer([&] {
        void* const value = queue_dequeue_ls(q);
        q.unlock();
        return value;
    });
    queue_enqueue(q, word(5));
    EXPECT_EQ(consumer.result(), 5u);
}

TEST(Queue, SemaphoreFormGoesOnWaitingAfterAnInterruption) {
    ScopedQueue q({1});
    FailingCall interrupted("sem_wait", EINTR);
    EXPECT_EQ(queue_dequeue_ls(q), word(1));
    EXPECT_TRUE(interrupted.hit());
    EXPECT_EQ(q.posted_units(), 0);
    q.unlock();
}

TEST(Queue, PeekLeavesTheHeadWhereItIs) {
    ScopedQueue q;
    EXPECT_EQ(queue_peek(q), nullptr);
    queue_enqueue(q, word(1));
    queue_enqueue(q, word(2));
    EXPECT_EQ(queue_peek(q), word(1));
    EXPECT_EQ(queue_peek(q), word(1));
    EXPECT_FALSE(q.locked());
    EXPECT_THAT(q.values(), ElementsAre(1, 2));
}

TEST(Queue, KeepsNullValues) {
    ScopedQueue q({0, 1});
    EXPECT_EQ(queue_dequeue(q), nullptr);
    EXPECT_EQ(queue_dequeue(q), word(1));
}

TEST(Queue, UntimedWaitServesANonEmptyQueueAtOnce) {
    ScopedQueue q({1, 2});
    EXPECT_EQ(queue_dequeue_s(q), word(1));
    EXPECT_EQ(queue_dequeue_s(q), word(2));
    EXPECT_EQ(q->flags, QUEUE_POSTED) << "the untimed wait leaves the signal to the timed one";
    EXPECT_FALSE(q.locked());
}

TEST(Queue, UntimedWaitSleepsUntilAnEnqueue) {
    ScopedQueue q;
    Consumer consumer([&] { return queue_dequeue_s(q); });
    ASSERT_TRUE(eventually([&] { return q.somebody_waits(); }));
    EXPECT_FALSE(consumer.done());
    queue_enqueue(q, word(9));
    EXPECT_EQ(consumer.result(), 9u);
    EXPECT_FALSE(q.somebody_waits());
}

TEST(Queue, UntimedWaitSleepsOnlyOnce) {
    ScopedQueue q;
    FakedCall spurious("pthread_cond_wait", 0);
    EXPECT_EQ(queue_dequeue_s(q), nullptr);
    EXPECT_TRUE(spurious.hit());
    EXPECT_EQ(q->flags, 0);
    EXPECT_FALSE(q.locked());
}

TEST(Queue, TimedWaitReturnsNullOnceTheSignalIsSpent) {
    ScopedQueue q({1, 2});
    EXPECT_EQ(queue_dequeue_swait(q, 1), word(1));
    EXPECT_EQ(q->flags, 0);

    const int64_t start = real_time_ns();
    EXPECT_EQ(queue_dequeue_swait(q, 1), nullptr);
    EXPECT_GE(real_time_ns() - start, 1'000'000'000);
    EXPECT_THAT(q.values(), ElementsAre(2));
    EXPECT_FALSE(q.locked());

    queue_enqueue(q, word(3));
    EXPECT_EQ(queue_dequeue_swait(q, 1), word(2)) << "the next enqueue brings the signal back";
}

TEST(Queue, TimedWaitSleepsUntilAnEnqueueAndSpendsItsSignal) {
    ScopedQueue q;
    Consumer consumer([&] { return queue_dequeue_swait(q, 60); });
    ASSERT_TRUE(eventually([&] { return q.somebody_waits(); }));
    queue_enqueue(q, word(4));
    EXPECT_EQ(consumer.result(), 4u);
    EXPECT_EQ(q->flags, 0);
}

TEST(Queue, TimedWaitWithNoOrNegativeTimeReturnsAtOnce) {
    ScopedQueue q;
    for (int32_t seconds : {0, -1, INT32_MIN}) {
        EXPECT_EQ(queue_dequeue_swait(q, seconds), nullptr);
        EXPECT_EQ(q->flags, 0);
        EXPECT_FALSE(q.locked());
    }
    queue_enqueue(q, word(1));
    EXPECT_EQ(queue_dequeue_swait(q, -1), word(1)) << "a posted signal is served all the same";
}

TEST(Queue, TimedWaitEndsWithASpuriousWakeUp) {
    ScopedQueue q({1});
    q->flags = 0;
    FakedCall spurious("pthread_cond_timedwait", 0);
    EXPECT_EQ(queue_dequeue_swait(q, 60), nullptr);
    EXPECT_TRUE(spurious.hit());
    EXPECT_THAT(q.values(), ElementsAre(1));
}

TEST(Queue, TimedWaitSpendsTheSignalOfAValueThatIsGone) {
    ScopedQueue q({1});
    EXPECT_EQ(queue_dequeue(q), word(1));
    EXPECT_EQ(queue_dequeue_swait(q, 60), nullptr) << "at once: the signal was posted";
    EXPECT_EQ(q->flags, 0);
}

TEST(Queue, TimedWaitReportsAClockThatCannotBeRead) {
    ScopedQueue q({1});
    q->flags = 0;
    CapturedLog log;
    FailingCall fault("clock_gettime", EINVAL);
    EXPECT_EQ(queue_dequeue_swait(q, 1), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("WARN:queue:queue_dequeue_swait: clock_gettime()(): "
                                         "Invalid argument"));
    EXPECT_FALSE(q.locked());
    EXPECT_EQ(q->flags, 0);
    EXPECT_THAT(q.values(), ElementsAre(1));
}

TEST(Queue, ExitEndsBothWaitsEvenWithValuesQueued) {
    ScopedQueue q({1, 2, 3, 4});
    queue_prepair_exit(q);
    EXPECT_EQ(q->flags, QUEUE_POSTED | QUEUE_EXITING);
    EXPECT_EQ(queue_dequeue_s(q), nullptr);
    EXPECT_EQ(queue_dequeue_swait(q, 60), nullptr);
    EXPECT_EQ(q->flags, QUEUE_POSTED | QUEUE_EXITING);

    EXPECT_EQ(queue_peek(q), word(1));
    EXPECT_EQ(queue_dequeue(q), word(1));
    EXPECT_EQ(queue_dequeue_l(q), word(2));
    q.unlock();
    EXPECT_EQ(queue_dequeue_ls(q), word(3));
    q.unlock();
    EXPECT_NE(queue_enqueue(q, word(5)), nullptr);
    EXPECT_THAT(q.values(), ElementsAre(4, 5));
    EXPECT_FALSE(q.locked());
}

TEST(Queue, ExitWakesABlockedConsumerAndTheNextSignalTheOther) {
    ScopedQueue q;
    std::atomic<int> asleep{0};
    const auto dequeue = [&] {
        ++asleep;
        return queue_dequeue_s(q);
    };
    Consumer first(dequeue);
    Consumer second(dequeue);
    ASSERT_TRUE(eventually([&] { return asleep == 2 && q.somebody_waits(); }));

    queue_prepair_exit(q);
    ASSERT_TRUE(eventually([&] { return first.done() || second.done(); }));
    queue_enqueue(q, word(1));
    EXPECT_EQ(first.result(), 0u);
    EXPECT_EQ(second.result(), 0u);
    EXPECT_THAT(q.values(), ElementsAre(1)) << "a woken consumer sees the exit before the value";
}

TEST(Queue, ExitEndsATimedWait) {
    ScopedQueue q;
    Consumer consumer([&] { return queue_dequeue_swait(q, 60); });
    ASSERT_TRUE(eventually([&] { return q.somebody_waits(); }));
    queue_prepair_exit(q);
    EXPECT_EQ(consumer.result(), 0u);
    EXPECT_EQ(q->flags, QUEUE_EXITING);
}

TEST(Queue, ExitBeatsASignalThatATimedWaitReceived) {
    ScopedQueue q;
    Consumer consumer([&] { return queue_dequeue_swait(q, 60); });
    ASSERT_TRUE(eventually([&] { return q.somebody_waits(); }));
    queue_enqueue_l(q, word(1));
    q->flags |= QUEUE_EXITING;
    q.unlock();
    EXPECT_EQ(consumer.result(), 0u);
    EXPECT_EQ(q->flags, QUEUE_EXITING);
    EXPECT_THAT(q.values(), ElementsAre(1));
}

TEST(Queue, RemoveKeepsWhatThePredicateKeeps) {
    ScopedQueue q({1, 2, 3, 4, 5, 6, 7});
    queue_remove(q, nullptr, keep_even);
    EXPECT_THAT(q.values(), ElementsAre(2, 4, 6));
    EXPECT_EQ(q->tail->value, word(6));
    EXPECT_EQ(q->flags, QUEUE_POSTED);
    EXPECT_EQ(q.posted_units(), 7);

    queue_enqueue(q, word(8));
    EXPECT_THAT(q.values(), ElementsAre(2, 4, 6, 8));
}

TEST(Queue, RemoveOfEverythingEmptiesTheQueue) {
    for (std::vector<uintptr_t> values : {std::vector<uintptr_t>{}, {1}, {1, 2, 3}}) {
        ScopedQueue q(values);
        queue_remove(q, nullptr, keep_none);
        EXPECT_EQ(q->head, nullptr);
        EXPECT_EQ(q->tail, nullptr);
        queue_enqueue(q, word(4));
        EXPECT_THAT(q.values(), ElementsAre(4));
        EXPECT_EQ(q->tail, q->head);
    }
}

TEST(Queue, RemoveOfNothingChangesNothing) {
    for (std::vector<uintptr_t> values : {std::vector<uintptr_t>{1}, {1, 2, 3}}) {
        ScopedQueue q(values);
        const queue_node* const tail = q->tail;
        queue_remove(q, nullptr, keep_all);
        EXPECT_EQ(q.values(), values);
        EXPECT_EQ(q->tail, tail);
        EXPECT_EQ(q->flags, QUEUE_POSTED);
    }
}

TEST(Queue, RemoveShowsEachValueOnceInOrderWithTheArgument) {
    ScopedQueue q({1, 2, 3, 4});
    std::vector<uintptr_t> seen;
    queue_remove(q, &seen, [](void* value, void* argument) {
        static_cast<std::vector<uintptr_t>*>(argument)->push_back(number(value));
        return number(value) > 2 ? -1 : 0;
    });
    EXPECT_THAT(seen, ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(q.values(), ElementsAre(3, 4));
}

TEST(Queue, TailStaysWhereItWasWhenTheFirstNodeAloneIsKept) {
    ScopedQueue q({1, 2, 3});
    const uintptr_t tail = reinterpret_cast<uintptr_t>(q->tail);
    queue_remove(q, word(1), keep_argument_alone);
    EXPECT_THAT(q.values(), ElementsAre(1));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(q->tail), tail);

    queue_enqueue(q, word(4));
    EXPECT_EQ(q->flags, QUEUE_POSTED);
    queue_enqueue(q, word(5));
    EXPECT_THAT(q.values(), ElementsAre(1, 4, 5)) << "no later value is lost";
    EXPECT_EQ(q->tail->value, word(5));
}

TEST(Queue, TailIsRightAfterALostOneWasDequeuedOrRemoved) {
    {
        ScopedQueue q({1, 2});
        queue_remove(q, word(1), keep_argument_alone);
        EXPECT_EQ(queue_dequeue(q), word(1));
        EXPECT_EQ(q->tail, nullptr);
        EXPECT_EQ(q->flags, QUEUE_POSTED);
        queue_enqueue(q, word(3));
        queue_enqueue(q, word(4));
        EXPECT_THAT(q.values(), ElementsAre(3, 4));
    }
    {
        ScopedQueue q({1, 2});
        queue_remove(q, word(1), keep_argument_alone);
        queue_remove(q, nullptr, keep_all);
        queue_remove(q, nullptr, keep_none);
        EXPECT_EQ(q->tail, nullptr);
        EXPECT_EQ(q->flags, QUEUE_POSTED);
        queue_enqueue(q, word(3));
        EXPECT_THAT(q.values(), ElementsAre(3));
    }
    {
        ScopedQueue q({1, 2, 3});
        queue_remove(q, word(2), keep_argument_alone);
        EXPECT_THAT(q.values(), ElementsAre(2)) << "kept as the head, what follows dropped";
        queue_remove(q, nullptr, keep_all);
        queue_enqueue(q, word(4));
        EXPECT_THAT(q.values(), ElementsAre(2, 4));
    }
}

TEST(Queue, DumpPrintsEachValueBetweenTwoLines) {
    ScopedQueue q({1, 2, 3});
    CapturedStderr err;
    queue_dump(q, print_number);
    EXPECT_EQ(err.text(), "- queue dump -\n1\n2\n3\n----\n");
}

TEST(Queue, DumpOfAnEmptyQueuePrintsNothing) {
    ScopedQueue q;
    CapturedStderr err;
    queue_dump(q, print_number);
    EXPECT_EQ(err.text(), "");
}

TEST(Queue, IgnoresNull) {
    CapturedStderr err;
    CapturedLog log;
    EXPECT_EQ(queue_init(nullptr), -1);
    queue_free(nullptr, 1);
    queue_prepair_exit(nullptr);
    EXPECT_EQ(queue_enqueue(nullptr, word(1)), nullptr);
    EXPECT_EQ(queue_enqueue_l(nullptr, word(1)), nullptr);
    EXPECT_EQ(queue_dequeue(nullptr), nullptr);
    EXPECT_EQ(queue_dequeue_l(nullptr), nullptr);
    EXPECT_EQ(queue_dequeue_nl(nullptr), nullptr);
    EXPECT_EQ(queue_dequeue_ls(nullptr), nullptr);
    EXPECT_EQ(queue_dequeue_s(nullptr), nullptr);
    EXPECT_EQ(queue_dequeue_swait(nullptr, 1), nullptr);
    EXPECT_EQ(queue_peek(nullptr), nullptr);
    EXPECT_EQ(queue_peek_l(nullptr), nullptr);
    queue_remove(nullptr, nullptr, keep_none);
    queue_dump(nullptr, print_number);

    ScopedQueue q({1});
    queue_remove(q, nullptr, nullptr);
    queue_dump(q, nullptr);
    EXPECT_THAT(q.values(), ElementsAre(1));
    EXPECT_EQ(err.text(), "");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Queue, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    CapturedLog log;
    for_each_failing_allocation([] { return queue_create(); }, [](queue* q) { queue_free(q, 1); });
    EXPECT_THAT(log.lines(),
                ElementsAre("ERR:queue:queue_create: calloc(): Cannot allocate memory"));
}

TEST(Queue, IsNotMadeWithoutItsSemaphore) {
    CapturedLog log;
    const int64_t live = live_allocations();
    FailingCall fault("sem_init", ENOSPC);
    EXPECT_EQ(queue_create(), nullptr);
    EXPECT_EQ(live_allocations(), live);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:queue:queue_create: queue_init(): No space left on device"));

    log = {};
    FailingCall again("sem_init", ENOSPC);
    queue embedded{};
    EXPECT_EQ(queue_init(&embedded), -1);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Queue, EnqueueWithoutMemoryChangesNothing) {
    CapturedLog log;
    for (const auto enqueue : {queue_enqueue, queue_enqueue_l}) {
        for (FailingAllocations round; round.next();) {
            ScopedQueue q;
            round.arm();
            const queue_node* const node = enqueue(q, word(1));
            round.disarm();
            EXPECT_EQ(q.locked(), enqueue == queue_enqueue_l);
            if (enqueue == queue_enqueue_l) q.unlock();
            EXPECT_EQ(node == nullptr, round.hit());
            EXPECT_EQ(q.values().size(), round.hit() ? 0u : 1u);
            EXPECT_EQ(q.posted_units(), round.hit() ? 0 : 1);
            EXPECT_EQ(q->flags, round.hit() ? 0 : QUEUE_POSTED);
        }
    }
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(Queue, EndsTheProcessWhenItsMutexCannotBeMade) {
    const ChildResult child = run_in_child([] {
        FailingCall fault("pthread_mutex_init", EAGAIN);
        errno = ENOENT;
        queue embedded{};
        queue_init(&embedded);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err,
              "./queue/queue:queue_init: pthread_mutex_init(): No such file or directory (11)\n");
}

namespace {

struct LockingForm {
    const char* name;
    void (*call)(queue* q);
    bool unlocks;
};

void PrintTo(const LockingForm& form, std::ostream* out) { *out << form.name; }

const LockingForm kLockingForms[] = {
    {"queue_free", [](queue* q) { queue_free(q, 1); }, true},
    {"queue_prepair_exit", [](queue* q) { queue_prepair_exit(q); }, true},
    {"queue_enqueue", [](queue* q) { queue_enqueue(q, word(1)); }, true},
    {"queue_dequeue", [](queue* q) { queue_dequeue(q); }, true},
    {"queue_dequeue_s", [](queue* q) { queue_dequeue_s(q); }, true},
    {"queue_dequeue_swait", [](queue* q) { queue_dequeue_swait(q, 0); }, true},
    {"queue_peek", [](queue* q) { queue_peek(q); }, true},
    {"queue_enqueue_l", [](queue* q) { queue_enqueue_l(q, word(1)); }, false},
    {"queue_dequeue_l", [](queue* q) { queue_dequeue_l(q); }, false},
    {"queue_dequeue_ls", [](queue* q) { queue_dequeue_ls(q); }, false},
    {"queue_peek_l", [](queue* q) { queue_peek_l(q); }, false},
};

class QueueLock : public testing::TestWithParam<LockingForm> {};

}  // namespace

TEST_P(QueueLock, FailedUnlockIsFatalUnderTheFunctionsName) {
    const LockingForm& form = GetParam();
    const ChildResult child = run_in_child([&] {
        queue* const q = queue_create();
        queue_enqueue(q, word(1));
        FailingCall fault("pthread_mutex_unlock", EPERM);
        errno = ENOENT;
        form.call(q);
    });
    EXPECT_TRUE(child.exited);
    if (!form.unlocks) {
        EXPECT_EQ(child.status, 0);
        return;
    }
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err, std::string("./queue/queue:") + form.name +
                             ": pthread_mutex_unlock(): No such file or directory (1)\n");
}

TEST_P(QueueLock, FailedLockIsFatalThroughTheCheckedLock) {
    const LockingForm& form = GetParam();
    const ChildResult child = run_in_child([&] {
        queue* const q = queue_create();
        queue_enqueue(q, word(1));
        FailingCall fault("pthread_mutex_lock", EINVAL);
        form.call(q);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.err,
              "./pthread_utils:pthread_utils_mutex_lock pthread_mutex_lock(): Invalid argument "
              "(22)\n");
}

INSTANTIATE_TEST_SUITE_P(Forms, QueueLock, testing::ValuesIn(kLockingForms),
                         [](const auto& form) { return std::string(form.param.name); });

TEST(Queue, PrintsAMutexThatCannotBeDestroyedAndGoesOn) {
    const int64_t live = live_allocations();
    CapturedStderr err;
    FailingCall fault("pthread_mutex_destroy", EBUSY);
    queue* const q = queue_create();
    errno = ENOENT;
    queue_free(q, 1);
    EXPECT_EQ(
        err.text(),
        "./queue/queue:queue_free: pthread_mutex_destroy(): No such file or directory (16)\n");
    EXPECT_EQ(live_allocations(), live);
}

namespace {

// Every consumer's values in the order in which it got them; values count up within each producer.
constexpr uintptr_t kProducers = 4;
constexpr uintptr_t kConsumers = 4;
constexpr uintptr_t kEach = 5000;

void produce(queue* q, uintptr_t producer) {
    for (uintptr_t i = 1; i <= kEach; ++i) queue_enqueue(q, word(producer * kEach + i));
}

void expect_each_value_once_and_in_order(const std::vector<std::vector<uintptr_t>>& taken) {
    std::vector<int> seen(kProducers * kEach + 1, 0);
    for (const auto& values : taken) {
        std::vector<uintptr_t> last(kProducers, 0);
        for (uintptr_t value : values) {
            ++seen[value];
            const uintptr_t producer = (value - 1) / kEach;
            EXPECT_GT(value, last[producer]) << "overtaken by a later value of its producer";
            last[producer] = value;
        }
    }
    EXPECT_EQ(seen[0], 0);
    seen.erase(seen.begin());
    EXPECT_THAT(seen, Each(1));
}

}  // namespace

TEST(Queue, HandsEachValueToOneConsumerThroughTheSemaphore) {
    ScopedQueue q;
    std::vector<std::vector<uintptr_t>> taken(kConsumers);
    std::vector<std::thread> threads;
    for (uintptr_t p = 0; p < kProducers; ++p) threads.emplace_back([&, p] { produce(q, p); });
    for (auto& values : taken)
        threads.emplace_back([&] {
            for (uintptr_t i = 0; i < kProducers * kEach / kConsumers; ++i) {
                values.push_back(number(queue_dequeue_ls(q)));
                q.unlock();
            }
        });
    for (auto& thread : threads) thread.join();

    expect_each_value_once_and_in_order(taken);
    EXPECT_EQ(q.posted_units(), 0);
    EXPECT_THAT(q.values(), IsEmpty());
}

TEST(Queue, HandsEachValueToOneConsumerThroughTheSignal) {
    ScopedQueue q;
    std::atomic<uintptr_t> count{0};
    std::atomic<bool> over{false};
    std::vector<std::vector<uintptr_t>> taken(kConsumers);
    std::vector<std::thread> threads;
    for (auto& values : taken)
        threads.emplace_back([&] {
            while (!over) {
                // Half of the consumers poll with the timed form, which may leave values behind.
                void* const value = &values == &taken[0]   ? queue_dequeue_swait(q, 0)
                                    : &values == &taken[1] ? queue_dequeue(q)
                                                           : queue_dequeue_s(q);
                if (!value) continue;
                values.push_back(number(value));
                ++count;
            }
        });
    for (uintptr_t p = 0; p < kProducers; ++p) threads.emplace_back([&, p] { produce(q, p); });
    EXPECT_TRUE(eventually([&] { return count == kProducers * kEach; }));
    over = true;
    for (uintptr_t i = 0; i < kConsumers; ++i) queue_prepair_exit(q);
    for (auto& thread : threads) thread.join();

    expect_each_value_once_and_in_order(taken);
    EXPECT_THAT(q.values(), IsEmpty());
}
