#include <ztlib/buffers/net_buffer.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using namespace zt_test;
using testing::Each;
using testing::ElementsAre;

namespace {

constexpr int kWaitable = 1;

class NetBuffer : public testing::Test {
  protected:
    ~NetBuffer() override { net_buffer_free(b, 1); }

    std::string text() const { return {b->data, b->length}; }

    // The record as another thread may look at it.
    unsigned flags() const {
        pthread_mutex_lock(&b->mutex);
        const unsigned now = b->flags;
        pthread_mutex_unlock(&b->mutex);
        return now;
    }
    bool is_waited_on() const { return flags() & NET_BUFFER_WAITING; }

    net_buffer* b = net_buffer_create(kWaitable);
};

TEST_F(NetBuffer, StartsEmptyWithRoomFor2048Bytes) {
    EXPECT_NE(b->data, nullptr);
    EXPECT_EQ(b->capacity, 2048u);
    EXPECT_EQ(b->length, 0u);
    EXPECT_EQ(b->flags, 1u);

    net_buffer plain;
    EXPECT_EQ(net_buffer_init(&plain, 0), 0);
    EXPECT_EQ(plain.flags, 0u);
    net_buffer_free(&plain, 0);
    EXPECT_EQ(plain.data, nullptr);
}

TEST_F(NetBuffer, AppendsAndPosts) {
    EXPECT_EQ(net_buffer_add(b, "two ", 4), 0);
    EXPECT_EQ(net_buffer_add(b, "words", 5), 0);
    EXPECT_STREQ(b->data, "two words");
    EXPECT_EQ(b->length, 9u);
    EXPECT_EQ(b->flags, 1u | 4u);
}

TEST_F(NetBuffer, GrowsAsAByteBuffer) {
    const std::string big(2048, 'x');
    EXPECT_EQ(net_buffer_add(b, big.data(), 2048), 0);
    EXPECT_EQ(b->capacity, 2048u + 2 * 2048 + 1);
    EXPECT_EQ(text(), big);
}

TEST_F(NetBuffer, KeepsTwoPiecesTogether) {
    EXPECT_EQ(net_buffer_begin_add(b, "head", 4), 0);
    EXPECT_EQ(pthread_mutex_trylock(&b->mutex), EBUSY);
    EXPECT_EQ(b->flags, 1u);
    EXPECT_EQ(net_buffer_end_add(b, "body", 4), 0);
    EXPECT_EQ(pthread_mutex_trylock(&b->mutex), 0);
    pthread_mutex_unlock(&b->mutex);
    EXPECT_EQ(b->flags, 1u | 4u);
    EXPECT_STREQ(b->data, "headbody");
}

TEST_F(NetBuffer, HoldsTheMutexAlsoAfterABeginThatFailed) {
    CapturedStderr err;
    const std::string big(3000, 'x');
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(net_buffer_begin_add(b, big.data(), 3000), -1);
    EXPECT_EQ(pthread_mutex_trylock(&b->mutex), EBUSY);
    EXPECT_EQ(net_buffer_end_add(b, "body", 4), 0);
    EXPECT_EQ(text(), "body");
}

TEST_F(NetBuffer, ReportsAnAppendThatFindsNoMemoryAndPostsAllTheSame) {
    CapturedStderr err;
    const std::string big(3000, 'x');
    net_buffer_add(b, "kept", 4);
    net_buffer_wait(b);
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(net_buffer_add(b, big.data(), 3000), -1);
    EXPECT_EQ(err.text(), "./buffers/buffer:buffer_append realloc():Cannot allocate memory\n");
    EXPECT_EQ(b->flags, 1u | 4u);
    EXPECT_EQ(text(), "kept");
    EXPECT_EQ(net_buffer_wait(b), 0);
}

TEST_F(NetBuffer, RefusesACountOf2GiBAndMore) {
    CapturedStderr err;
    net_buffer_add(b, "kept", 4);
    EXPECT_EQ(net_buffer_add(b, "x", 1u << 31), -1);
    EXPECT_EQ(net_buffer_remove(b, 1u << 31), -3);
    EXPECT_EQ(net_buffer_remove(b, UINT_MAX), -3);
    EXPECT_EQ(text(), "kept");
}

TEST_F(NetBuffer, RemovesFromTheFront) {
    net_buffer_add(b, "frame,rest", 10);
    EXPECT_EQ(net_buffer_remove(b, 6), 0);
    EXPECT_EQ(text(), "rest");
    EXPECT_EQ(b->capacity, 2048u);
}

TEST_F(NetBuffer, KeepsItsStorageWhenAllIsRemoved) {
    net_buffer_add(b, "all", 3);
    const char* data = b->data;
    EXPECT_EQ(net_buffer_remove(b, 3), 0);
    EXPECT_EQ(b->length, 0u);
    EXPECT_EQ(b->data, data);
    EXPECT_EQ(b->capacity, 2048u);
    EXPECT_EQ(net_buffer_remove(b, 0), 0);
}

TEST_F(NetBuffer, RefusesToRemoveMoreThanThereIs) {
    net_buffer_add(b, "kept", 4);
    EXPECT_EQ(net_buffer_remove(b, 5), -3);
    EXPECT_EQ(text(), "kept");
}

TEST_F(NetBuffer, IsEmptiedByAReset) {
    net_buffer_add(b, "gone", 4);
    EXPECT_EQ(net_buffer_reset(b), 0);
    EXPECT_EQ(b->length, 0u);
    EXPECT_EQ(b->capacity, 2048u);
}

TEST_F(NetBuffer, HasItsStepsForACallerThatHoldsTheMutex) {
    CapturedStderr err;
    pthread_mutex_lock(&b->mutex);
    EXPECT_EQ(_net_buffer_add(b, "abc", 3), 0);
    EXPECT_EQ(_net_buffer_make_room(b, 5000), 0);
    EXPECT_EQ(b->capacity, 5000u + 2 * 2048 + 1);
    EXPECT_EQ(_net_buffer_make_room(b, UINT_MAX), -1);
    EXPECT_EQ(_net_buffer_remove(b, 1), 0);
    EXPECT_EQ(_net_buffer_remove(b, 3), -3);
    EXPECT_EQ(text(), "bc");
    EXPECT_EQ(b->flags, 1u);
    pthread_mutex_unlock(&b->mutex);
}

TEST_F(NetBuffer, KeepsAPostForTheNextWait) {
    EXPECT_EQ(net_buffer_post(b), 0);
    EXPECT_EQ(net_buffer_post(b), 0);
    EXPECT_EQ(net_buffer_wait(b), 0);
    EXPECT_EQ(b->flags, 1u);
}

TEST_F(NetBuffer, WakesTheThreadThatWaits) {
    int result = -9;
    std::thread waiter([&] { result = net_buffer_wait(b); });
    EXPECT_TRUE(eventually([&] { return is_waited_on(); }));
    net_buffer_post(b);
    waiter.join();
    EXPECT_EQ(result, 0);
    EXPECT_EQ(b->flags, 1u);
}

TEST_F(NetBuffer, SleepsOnThroughAWakeUpWithoutAPost) {
    std::atomic<bool> is_back = false;
    std::thread waiter([&] {
        net_buffer_wait(b);
        is_back = true;
    });
    EXPECT_TRUE(eventually([&] { return is_waited_on(); }));
    for (int i = 0; i < 100; ++i) {
        pthread_mutex_lock(&b->mutex);
        pthread_cond_signal(&b->condition);
        pthread_mutex_unlock(&b->mutex);
    }
    EXPECT_TRUE(is_waited_on());
    EXPECT_FALSE(is_back);
    net_buffer_post(b);
    waiter.join();
}

TEST_F(NetBuffer, FailsEveryWaitOnceMarkedFree) {
    net_buffer_add(b, "kept", 4);
    EXPECT_EQ(net_buffer_mark_free(b), 0);
    EXPECT_EQ(net_buffer_wait(b), -1);
    EXPECT_EQ(net_buffer_wait(b), -1);
    EXPECT_EQ(b->flags, 1u | 2u);
    EXPECT_EQ(text(), "kept");
}

TEST_F(NetBuffer, FailsTheThreadThatWaitsWhenMarkedFree) {
    int result = -9;
    std::thread waiter([&] { result = net_buffer_wait(b); });
    EXPECT_TRUE(eventually([&] { return is_waited_on(); }));
    net_buffer_mark_free(b);
    waiter.join();
    EXPECT_EQ(result, -1);
}

TEST_F(NetBuffer, CarriesEveryByteOfEveryWriter) {
    constexpr unsigned kWriters = 3, kFrames = 400;
    std::vector<std::thread> writers;
    for (unsigned w = 0; w < kWriters; ++w)
        writers.emplace_back([this, w] {
            const char head = static_cast<char>('0' + w);
            const std::string body(5, static_cast<char>('a' + w));
            for (unsigned i = 0; i < kFrames; ++i) {
                net_buffer_begin_add(b, &head, 1);
                net_buffer_end_add(b, body.data(), 5);
            }
        });

    unsigned frames = 0;
    bool are_whole = true;
    while (frames < kWriters * kFrames && net_buffer_wait(b) == 0) {
        pthread_mutex_lock(&b->mutex);
        for (; b->length >= 6; ++frames) {
            const char letter = static_cast<char>(b->data[0] - '0' + 'a');
            are_whole &= std::string(b->data + 1, 5) == std::string(5, letter);
            _net_buffer_remove(b, 6);
        }
        are_whole &= b->length == 0;
        pthread_mutex_unlock(&b->mutex);
    }
    for (auto& writer : writers) writer.join();
    EXPECT_EQ(frames, kWriters * kFrames);
    EXPECT_TRUE(are_whole);
}

TEST(NetBufferFree, ReturnsOnlyOnceTheWaiterHasLeft) {
    for (int round = 0; round < 200; ++round) {
        auto* b = net_buffer_create(kWaitable);
        std::atomic<int> result = -9;
        std::thread waiter([&] { result = net_buffer_wait(b); });
        eventually([&] {
            pthread_mutex_lock(&b->mutex);
            const bool waits = b->flags & NET_BUFFER_WAITING;
            pthread_mutex_unlock(&b->mutex);
            return waits;
        });
        net_buffer_free(b, round % 2);
        waiter.join();
        EXPECT_EQ(result, -1);
        if (round % 2 == 0) {
            EXPECT_EQ(net_buffer_wait(b), -1);
            free(b);
        }
    }
}

TEST(NetBufferFree, ReturnsOnlyOnceEveryWaiterHasLeft) {
    CapturedStderr err;
    for (int round = 0; round < 50; ++round) {
        net_buffer* const b = net_buffer_create(1);
        std::atomic<int> left{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.emplace_back([&] {
                if (net_buffer_wait(b) == -1) ++left;
            });
        ASSERT_TRUE(eventually([&] {
            pthread_mutex_lock(&b->mutex);
            const bool all_wait = b->flags == (NET_BUFFER_WAITABLE | NET_BUFFER_WAITING | 512);
            pthread_mutex_unlock(&b->mutex);
            return all_wait;
        }));
        net_buffer_free(b, 1);
        for (std::thread& waiter : waiters) waiter.join();
        EXPECT_EQ(left, 3);
    }
    EXPECT_EQ(err.text(), "");
}

TEST(NetBufferFree, FailsEveryLaterWait) {
    net_buffer b;
    net_buffer_init(&b, kWaitable);
    net_buffer_add(&b, "gone", 4);
    net_buffer_free(&b, 0);
    EXPECT_EQ(net_buffer_wait(&b), -1);
    EXPECT_EQ(net_buffer_post(&b), 0);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_TRUE(b.flags & NET_BUFFER_FREED);

    EXPECT_EQ(net_buffer_init(&b, kWaitable), 0);
    net_buffer_post(&b);
    EXPECT_EQ(net_buffer_wait(&b), 0);
    net_buffer_free(&b, 0);
}

TEST(NetBufferWithoutWaiter, NeitherPostsNorWaits) {
    auto* b = net_buffer_create(0);
    EXPECT_EQ(net_buffer_post(b), 0);
    EXPECT_EQ(b->flags, 0u);
    EXPECT_EQ(net_buffer_add(b, "x", 1), 0);
    EXPECT_EQ(net_buffer_end_add((net_buffer_begin_add(b, "y", 1), b), "z", 1), 0);
    EXPECT_EQ(b->flags, 0u);
    EXPECT_STREQ(b->data, "xyz");
    EXPECT_EQ(net_buffer_wait(b), -1);
    EXPECT_EQ(net_buffer_mark_free(b), 0);
    EXPECT_EQ(b->flags, 2u);
    EXPECT_EQ(net_buffer_wait(b), -1);
    net_buffer_free(b, 1);
}

TEST(NetBufferWithoutWaiter, PostsWithoutLocking) {
    auto* b = net_buffer_create(0);
    pthread_mutex_lock(&b->mutex);
    EXPECT_EQ(net_buffer_post(b), 0);
    pthread_mutex_unlock(&b->mutex);
    net_buffer_free(b, 1);
}

TEST(NetBufferOfNull, IsMinusTwoEverywhere) {
    EXPECT_THAT(
        (std::vector<int>{net_buffer_init(nullptr, 1), net_buffer_mark_free(nullptr),
                          net_buffer_wait(nullptr), net_buffer_post(nullptr),
                          net_buffer_add(nullptr, "x", 1), net_buffer_begin_add(nullptr, "x", 1),
                          net_buffer_end_add(nullptr, "x", 1), net_buffer_remove(nullptr, 1),
                          net_buffer_reset(nullptr), _net_buffer_add(nullptr, "x", 1),
                          _net_buffer_make_room(nullptr, 1), _net_buffer_remove(nullptr, 1)}),
        Each(-2));
    CapturedStderr err;
    net_buffer_free(nullptr, 1);
    net_buffer_dump(nullptr);
    EXPECT_EQ(err.text(), "");
}

TEST_F(NetBuffer, IsDumpedWithItsCapacityAndEveryByte) {
    net_buffer_add(b, "a\0\xff", 3);
    char expected[200];
    snprintf(expected, sizeof expected,
             "- dumping net buffer %p - 2048 bytes len -\n 97  0  255 \n", static_cast<void*>(b));
    CapturedStderr err;
    net_buffer_dump(b);
    EXPECT_EQ(err.take(), expected);

    net_buffer_reset(b);
    snprintf(expected, sizeof expected, "- dumping net buffer %p - 2048 bytes len -\n\n",
             static_cast<void*>(b));
    net_buffer_dump(b);
    EXPECT_EQ(err.take(), expected);
}

TEST(NetBufferFailures, LeaveNothingBehindWhenMemoryIsOut) {
    for_each_failing_allocation([] { return net_buffer_create(kWaitable); },
                                [](net_buffer* b) { net_buffer_free(b, 1); });

    CapturedLog log;
    {
        FailingCall fault("calloc", ENOMEM);
        EXPECT_EQ(net_buffer_create(kWaitable), nullptr);
    }
    {
        FailingCall fault("malloc", ENOMEM);
        net_buffer b;
        EXPECT_EQ(net_buffer_init(&b, kWaitable), -1);
    }
    {
        FailingCall fault("pthread_cond_init", EAGAIN);
        const auto before = live_allocations();
        EXPECT_EQ(net_buffer_create(kWaitable), nullptr);
        EXPECT_EQ(live_allocations(), before);
    }
    EXPECT_THAT(
        log.lines(),
        ElementsAre("WARN:net_buffer:net_buffer_create: calloc(): Cannot allocate memory",
                    "WARN:net_buffer:net_buffer_init: malloc(): Cannot allocate memory",
                    "WARN:net_buffer:net_buffer_init: pthread_cond_init(): Resource temporarily "
                    "unavailable"));
}

// What is printed when a call fails in `work`, with errno at ENOENT.
std::string fatal_line(const char* call, uint32_t skip, const std::function<void()>& work) {
    const ChildResult child = run_in_child([&] {
        FailingCall fault(call, EPERM, skip);
        errno = ENOENT;
        work();
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    return child.err;
}

TEST(NetBufferFailures, EndTheProcessWhenTheMutexCannotBeMade) {
    EXPECT_EQ(fatal_line("pthread_mutex_init", 0, [] { net_buffer_create(kWaitable); }),
              "./buffers/net_buffer:net_buffer_init: pthread_mutex_init(): "
              "No such file or directory (1)\n");
}

TEST(NetBufferFailures, EndTheProcessWhenTheMutexCannotBeReleased) {
    const auto line = [](const char* function) {
        return std::string("./buffers/net_buffer:") + function +
               ": pthread_mutex_unlock(): No such file or directory (2)\n";
    };
    const auto when = [](const std::function<void(net_buffer*)>& work) {
        net_buffer* b = net_buffer_create(kWaitable);
        net_buffer_add(b, "some", 4);
        const std::string text = fatal_line("pthread_mutex_unlock", 0, [&] { work(b); });
        net_buffer_free(b, 1);
        return text;
    };
    EXPECT_EQ(when([](auto* b) { net_buffer_add(b, "x", 1); }), line("net_buffer_add"));
    EXPECT_EQ(when([](auto* b) {
                  net_buffer_begin_add(b, "x", 1);
                  net_buffer_end_add(b, "x", 1);
              }),
              line("net_buffer_end_add"));
    EXPECT_EQ(when([](auto* b) { net_buffer_remove(b, 1); }), line("net_buffer_remove"));
    EXPECT_EQ(when([](auto* b) { net_buffer_reset(b); }), line("net_buffer_reset"));
    EXPECT_EQ(when([](auto* b) { net_buffer_post(b); }), line("net_buffer_post"));
    EXPECT_EQ(when([](auto* b) { net_buffer_wait(b); }), line("net_buffer_wait"));
    EXPECT_EQ(when([](auto* b) { net_buffer_mark_free(b); }), line("net_buffer_mark_free"));
    EXPECT_EQ(when([](auto* b) { net_buffer_free(b, 1); }), line("net_buffer_free"));
}

TEST(NetBufferFailures, ArePrintedWhenTheMutexCannotBeDestroyed) {
    net_buffer* b = net_buffer_create(kWaitable);
    const auto before = live_allocations();
    CapturedStderr err;
    FailingCall fault("pthread_mutex_destroy", EBUSY);
    errno = ENOENT;
    net_buffer_free(b, 1);
    EXPECT_EQ(err.text(),
              "./buffers/net_buffer:net_buffer_free: pthread_mutex_destroy(): "
              "No such file or directory (16)\n");
    EXPECT_EQ(live_allocations(), before - 2);
}

}  // namespace
