// Calls that fail on demand.
//
// Every call of the library that wrapped_calls.def names goes through this harness first. A test
// asks for one call of one function to fail, or for each allocation of an operation in turn:
//
//     FailingCall fault("pthread_create", EAGAIN);            // the next call, by any thread
//     EXPECT_EQ(netthreadpool_thread_create(&pool, 0), nullptr);
//     EXPECT_TRUE(fault.hit());
//
//     for_each_failing_allocation([] { return queue_create(); },
//                                 [](queue* q) { queue_free(q, 1); });
//
//     for (FailingAllocations round; round.next();) {
//         Fixture fixture;                                     // not counted
//         round.arm();
//         const int result = operation(fixture);
//         round.disarm();
//         EXPECT_EQ(result, round.hit() ? -1 : 0);
//     }                                                        // ends after the round that
//     succeeds
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>

namespace zt_test {

// Makes one call of `function` fail while the object lives: the first call, or the one after `skip`
// calls have passed. A call of the pthread family returns `error`; others set errno to it and
// return their failure value. `only_this_thread` leaves the calls of other threads alone (and
// uncounted).
class FailingCall {
  public:
    explicit FailingCall(const char* function, int error, uint32_t skip = 0,
                         bool only_this_thread = false);
    ~FailingCall();
    FailingCall(const FailingCall&) = delete;
    FailingCall& operator=(const FailingCall&) = delete;

    // True once the call has failed.
    bool hit() const;

  private:
    const char* function_;
};

// Makes the next call of `function` return `value` without doing anything (a short send, say).
class FakedCall {
  public:
    explicit FakedCall(const char* function, int64_t value, uint32_t skip = 0);
    ~FakedCall();
    FakedCall(const FakedCall&) = delete;
    FakedCall& operator=(const FakedCall&) = delete;

    bool hit() const;

  private:
    const char* function_;
};

// Makes the next call of `read` or `write` transfer at most `bytes`.
class ShortCall {
  public:
    explicit ShortCall(const char* function, size_t bytes, uint32_t skip = 0);
    ~ShortCall();
    ShortCall(const ShortCall&) = delete;
    ShortCall& operator=(const ShortCall&) = delete;

    bool hit() const;

  private:
    const char* function_;
};

// How many blocks that the library (or the test itself) allocated are not freed yet.
int64_t live_allocations();

// How often a wrapped function was called so far, by any thread.
uint64_t calls_of(const char* function);

// Round n fails the n-th allocation made by the arming thread between arm() and disarm(). next()
// begins a round, checks that the one before left nothing allocated, and is false once a round went
// through with nothing failed.
class FailingAllocations {
  public:
    FailingAllocations() = default;
    ~FailingAllocations();
    FailingAllocations(const FailingAllocations&) = delete;
    FailingAllocations& operator=(const FailingAllocations&) = delete;

    bool next();
    void arm();
    void disarm();

    // True when this round's allocation was refused.
    bool hit() const { return hit_; }
    uint32_t round() const { return round_; }

  private:
    uint32_t round_ = 0;
    bool hit_ = true;
    int64_t live_before_ = 0;
};

// A constructor under every failing allocation: null and nothing leaked until it succeeds.
template <class Make, class Release>
void for_each_failing_allocation(Make make, Release release) {
    for (FailingAllocations round; round.next();) {
        round.arm();
        auto* made = make();
        round.disarm();
        if (round.hit()) {
            EXPECT_EQ(made, nullptr) << "allocation " << round.round() << " failed";
        } else {
            EXPECT_NE(made, nullptr);
        }
        if (made) release(made);
    }
}

}  // namespace zt_test
