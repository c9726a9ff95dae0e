// What a test leaves behind.
#pragma once

#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include <unistd.h>

namespace zt_test {

// Made before the work: all threads, descriptors and blocks that the work took are given back.
class Leftovers {
  public:
    Leftovers() {
        start_sanitizers_thread();
        threads_ = thread_count();
        descriptors_ = descriptor_count();
        blocks_ = live_allocations();
    }

    testing::AssertionResult none() const {
        // A thread that was joined just before this was made may have been counted in its last
        // moments.
        if (eventually([this] {
                return thread_count() <= threads_ && descriptor_count() == descriptors_ &&
                       live_allocations() == blocks_;
            }))
            return testing::AssertionSuccess();
        return testing::AssertionFailure()
               << "threads " << threads_ << ", now " << thread_count() << "; descriptors "
               << descriptors_ << ", now " << descriptor_count() << "; blocks " << blocks_
               << ", now " << live_allocations();
    }

  private:
    // It comes with the process's first thread, which is gone again when this returns.
    static void start_sanitizers_thread() {
        static const bool started = [] {
            std::atomic<pid_t> first{0};
            std::thread([&] { first = gettid(); }).join();
            const std::string entry = "/proc/self/task/" + std::to_string(first);
            return eventually([&] { return access(entry.c_str(), F_OK) != 0; });
        }();
        EXPECT_TRUE(started);
    }

    int threads_;
    int descriptors_;
    int64_t blocks_;
};

}  // namespace zt_test
