#include <tests/support/faults.h>
#include <tests/support/faults_internal.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include <sys/syscall.h>
#include <unistd.h>

namespace zt_test {

namespace {

WrappedFunction* wrapped_functions = nullptr;
std::atomic<int64_t> live_blocks{0};

thread_local uint32_t allocations_until_refusal = 0;  // 0: none is refused
thread_local bool allocation_refused = false;

int64_t this_thread() { return syscall(SYS_gettid); }

WrappedFunction& find(const char* name) {
    for (WrappedFunction* f = wrapped_functions; f; f = f->next)
        if (strcmp(f->name, name) == 0) return *f;
    ADD_FAILURE() << name << " is not in wrapped_calls.def";
    abort();
}

void plan(const char* name, Verdict verdict, int error, int64_t value, uint32_t skip,
          int64_t thread = 0) {
    WrappedFunction& f = find(name);
    f.planned_error = error;
    f.planned_value = value;
    f.planned = verdict;
    f.only_thread = thread;
    std::atomic_ref(f.was_hit).store(false);
    std::atomic_ref(f.countdown).store(skip + 1, std::memory_order_release);
}

void cancel(const char* name) { std::atomic_ref(find(name).countdown).store(0); }
bool hit_in(const char* name) { return std::atomic_ref(find(name).was_hit).load(); }

}  // namespace

WrappedFunction::WrappedFunction(const char* function_name) : name(function_name) {
    next = wrapped_functions;
    wrapped_functions = this;
}

Verdict WrappedFunction::judge(int& error, int64_t& value) {
    std::atomic_ref(calls).fetch_add(1, std::memory_order_relaxed);
    std::atomic_ref<uint32_t> left(countdown);
    uint32_t now = left.load(std::memory_order_acquire);
    if (now == 0) return Verdict::pass;
    if (only_thread != 0 && only_thread != this_thread()) return Verdict::pass;
    while (now != 0 && !left.compare_exchange_weak(now, now - 1)) {
    }
    if (now != 1) return Verdict::pass;
    std::atomic_ref(was_hit).store(true);
    error = planned_error;
    value = planned_value;
    return planned;
}

bool refuse_allocation() {
    if (allocations_until_refusal == 0 || --allocations_until_refusal != 0) return false;
    allocation_refused = true;
    return true;
}

void count_allocated(int64_t blocks) { live_blocks.fetch_add(blocks, std::memory_order_relaxed); }

FailingCall::FailingCall(const char* function, int error, uint32_t skip, bool only_this_thread)
    : function_(function) {
    plan(function, Verdict::fail, error, 0, skip, only_this_thread ? this_thread() : 0);
}
FailingCall::~FailingCall() { cancel(function_); }
bool FailingCall::hit() const { return hit_in(function_); }

FakedCall::FakedCall(const char* function, int64_t value, uint32_t skip) : function_(function) {
    plan(function, Verdict::fake, 0, value, skip);
}
FakedCall::~FakedCall() { cancel(function_); }
bool FakedCall::hit() const { return hit_in(function_); }

ShortCall::ShortCall(const char* function, size_t bytes, uint32_t skip) : function_(function) {
    plan(function, Verdict::shorten, 0, static_cast<int64_t>(bytes), skip);
}
ShortCall::~ShortCall() { cancel(function_); }
bool ShortCall::hit() const { return hit_in(function_); }

int64_t live_allocations() { return live_blocks.load(); }

uint64_t calls_of(const char* function) { return std::atomic_ref(find(function).calls).load(); }

FailingAllocations::~FailingAllocations() { allocations_until_refusal = 0; }

bool FailingAllocations::next() {
    if (round_ > 0) {
        EXPECT_EQ(live_allocations(), live_before_)
            << "leaked (or freed twice) with allocation " << round_ << " refused";
    }
    if (!hit_) return false;
    hit_ = false;
    ++round_;
    live_before_ = live_allocations();
    return true;
}

void FailingAllocations::arm() {
    allocation_refused = false;
    allocations_until_refusal = round_;
}

void FailingAllocations::disarm() {
    allocations_until_refusal = 0;
    hit_ = allocation_refused;
}

}  // namespace zt_test
