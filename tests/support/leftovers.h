// What a test leaves behind.
#pragma once

#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <thread>

namespace zt_test {

// Made before the work: all threads, descriptors and blocks that the work took are given back.
class Leftovers {
  public:
    Leftovers() {
        std::thread([] {}).join();  // a sanitizer's own thread comes with the first
        threads_ = thread_count();
        descriptors_ = descriptor_count();
        blocks_ = live_allocations();
    }

    bool none() const {
        return eventually([this] {
            return thread_count() == threads_ && descriptor_count() == descriptors_ &&
                   live_allocations() == blocks_;
        });
    }

  private:
    int threads_;
    int descriptors_;
    int64_t blocks_;
};

}  // namespace zt_test
