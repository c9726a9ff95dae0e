// Between the harness (faults.cpp) and the wrappers that ask it (wrapped_calls.cpp).
#pragma once

#include <cstdint>

namespace zt_test {

enum class Verdict { pass, fail, fake, shorten };

// One wrapped function: what a test has asked of its next calls.
struct WrappedFunction {
    const char* name;
    WrappedFunction* next = nullptr;

    explicit WrappedFunction(const char* function_name);

    // Decides about one call. On `fail` `error` is set, else `value`.
    Verdict judge(int& error, int64_t& value);

    uint64_t calls = 0;  // the fields below are read and written atomically
    uint32_t countdown = 0;
    int planned_error = 0;
    int64_t planned_value = 0;
    Verdict planned = Verdict::pass;
    bool was_hit = false;
    int64_t only_thread = 0;
};

// True when this thread's allocation is the one to be refused.
bool refuse_allocation();
void count_allocated(int64_t blocks);

}  // namespace zt_test
