// Work in a process or on a thread of its own, and waiting for what it does.
#pragma once

#include <chrono>
#include <functional>
#include <string>

#include <time.h>

namespace zt_test {

struct ChildResult {
    bool exited = false;  // false: killed by a signal, or still running after 60 s and then killed
    int status = -1;      // exit status, or the signal's number
    std::string err;      // all that it wrote to standard error
    std::string out;      // ... to standard output
};

// Runs `work` in a forked child with its standard error and output captured. A child whose work
// returns exits with 0. For the fatal paths: the result's status is exit()'s.
ChildResult run_in_child(const std::function<void()>& work);

// Runs `work` on a thread whose stack has this many bytes, and joins it.
void run_on_stack(size_t bytes, const std::function<void()>& work);

// Waits until `condition` holds, at most `limit`. False when it never did.
template <class Condition>
bool eventually(Condition condition, std::chrono::milliseconds limit = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return condition();
        const timespec pause{0, 500'000};
        nanosleep(&pause, nullptr);
    }
    return true;
}

// All that an open file holds.
std::string whole_file(int descriptor);

// How many threads this process has, and how many descriptors it has open.
int thread_count();
int descriptor_count();

}  // namespace zt_test
