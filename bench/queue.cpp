// The blocking queue against the queues a C or C++ daemon would otherwise use: a pair of enqueue
// and dequeue by one thread, values handed from one producer to one consumer and from two to two,
// and ping-pong over two queues.
//
// Where the scheduler puts the threads decides more than the queue does, so they are pinned: all to
// one processor, or producers and consumers to one each. Consumers wait on the condition variable
// ("s", queue_dequeue_s) or on the semaphore ("ls", queue_dequeue_ls); peers have one way of
// waiting, and meet both.

#include <ztlib/queue/queue.h>
#include <bench/support/crew.hpp>

#include <benchmark/benchmark.h>

#ifdef HAVE_GLIB
#    include <glib.h>
#endif
#ifdef HAVE_APR
#    include <apr_general.h>
#    include <apr_pools.h>
#    include <apr_queue.h>
#endif

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

namespace {

constexpr uintptr_t kValues = 10'000;  // handed over in one pass
constexpr uintptr_t kRoundTrips = 2'000;

void* word(uintptr_t number) { return reinterpret_cast<void*>(number); }
uintptr_t number(const void* value) { return reinterpret_cast<uintptr_t>(value); }

// --- queues --------------------------------------------------------------------------------------

class Ztlib {
  public:
    Ztlib() : queue_(queue_create()) {}
    ~Ztlib() { queue_free(queue_, 1); }
    void push(void* value) { queue_enqueue(queue_, value); }
    void* try_pop() { return queue_dequeue(queue_); }

  protected:
    queue* queue_;
};

struct ZtlibSignal : Ztlib {
    void* pop() {
        for (;;)
            if (void* const value = queue_dequeue_s(queue_)) return value;
    }
};

struct ZtlibSemaphore : Ztlib {
    void* pop() {
        void* const value = queue_dequeue_ls(queue_);
        pthread_mutex_unlock(&queue_->mutex);
        return value;
    }
};

class Standard {
  public:
    void push(void* value) {
        {
            std::lock_guard lock(mutex_);
            values_.push_back(value);
        }
        not_empty_.notify_one();
    }
    void* pop() {
        std::unique_lock lock(mutex_);
        not_empty_.wait(lock, [this] { return !values_.empty(); });
        return take_front();
    }
    void* try_pop() {
        std::lock_guard lock(mutex_);
        return values_.empty() ? nullptr : take_front();
    }

  private:
    void* take_front() {
        void* const value = values_.front();
        values_.pop_front();
        return value;
    }
    std::mutex mutex_;
    std::condition_variable not_empty_;
    std::deque<void*> values_;
};

#ifdef HAVE_GLIB
class Glib {
  public:
    ~Glib() { g_async_queue_unref(queue_); }
    void push(void* value) { g_async_queue_push(queue_, value); }
    void* pop() { return g_async_queue_pop(queue_); }
    void* try_pop() { return g_async_queue_try_pop(queue_); }

  private:
    GAsyncQueue* queue_ = g_async_queue_new();
};
#endif

#ifdef HAVE_APR
// A ring of fixed size, made large enough never to be full: nothing is allocated for a value.
class Apr {
  public:
    Apr() {
        static const bool initialised = apr_initialize() == APR_SUCCESS;
        if (!initialised || apr_pool_create(&pool_, nullptr) != APR_SUCCESS ||
            apr_queue_create(&queue_, 2 * kValues, pool_) != APR_SUCCESS)
            abort();
    }
    ~Apr() { apr_pool_destroy(pool_); }
    void push(void* value) {
        while (apr_queue_push(queue_, value) == APR_EINTR) continue;
    }
    void* pop() {
        void* value = nullptr;
        while (apr_queue_pop(queue_, &value) == APR_EINTR) continue;
        return value;
    }
    void* try_pop() {
        void* value = nullptr;
        return apr_queue_trypop(queue_, &value) == APR_SUCCESS ? value : nullptr;
    }

  private:
    apr_pool_t* pool_ = nullptr;
    apr_queue_t* queue_ = nullptr;
};
#endif

// --- jobs ----------------------------------------------------------------------------------------

template <class Queue>
bool keeps_order() {
    Queue queue;
    for (uintptr_t i = 1; i <= 3; ++i) queue.push(word(i));
    return queue.try_pop() == word(1) && queue.pop() == word(2) && queue.pop() == word(3) &&
           queue.try_pop() == nullptr;
}

template <class Queue>
void pair(benchmark::State& state) {
    if (!keeps_order<Queue>()) {
        state.SkipWithError("wrong answer");
        return;
    }
    Queue queue;
    for (auto _ : state) {
        queue.push(word(1));
        benchmark::DoNotOptimize(queue.try_pop());
    }
}

// `sides` producers, and as many consumers, on `processors` processors.
template <class Queue>
void hand_over(benchmark::State& state, size_t sides, size_t processors) {
    Queue queue;
    std::vector<size_t> places;
    for (size_t i = 0; i < 2 * sides; ++i) places.push_back(i % processors);
    zt_bench::Crew crew(places);
    std::vector<uintptr_t> sums(sides);

    for (auto _ : state) {
        state.SetIterationTime(crew.time([&](size_t index) {
            const size_t side = index / 2;
            if (index % 2 == 0) {
                for (uintptr_t i = 1; i <= kValues / sides; ++i) queue.push(word(i));
            } else {
                uintptr_t sum = 0;
                for (uintptr_t i = 1; i <= kValues / sides; ++i) sum += number(queue.pop());
                sums[side] = sum;
            }
        }));
        uintptr_t total = 0;
        for (uintptr_t sum : sums) total += sum;
        const uintptr_t each = kValues / sides;
        if (total != sides * (each * (each + 1) / 2)) state.SkipWithError("lost a value");
    }
}

template <class Queue>
void ping_pong(benchmark::State& state, size_t processors) {
    Queue there, back;
    zt_bench::Crew crew({0, 1 % processors});
    for (auto _ : state)
        state.SetIterationTime(crew.time([&](size_t index) {
            for (uintptr_t i = 1; i <= kRoundTrips; ++i) {
                if (index == 0) {
                    there.push(word(i));
                    if (back.pop() != word(i)) abort();
                } else {
                    back.push(there.pop());
                }
            }
        }));
}

template <class Run, class... Arguments>
void add(const std::string& job, const char* engine, Run run, Arguments... arguments) {
    benchmark::RegisterBenchmark((job + "/" + engine).c_str(), run, arguments...)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
}

template <class Queue>
void add_blocking(const char* wait, const char* engine) {
    for (size_t processors : {1, 2}) {
        const std::string end = std::string("/") + wait + "/" + std::to_string(processors) + "_cpu";
        add("queue/one_to_one" + end, engine, hand_over<Queue>, size_t{1}, processors);
        add("queue/two_to_two" + end, engine, hand_over<Queue>, size_t{2}, processors);
        add("queue/ping_pong" + end, engine, ping_pong<Queue>, processors);
    }
}

template <class Queue>
void add_peer(const char* engine) {
    benchmark::RegisterBenchmark((std::string("queue/pair/") + engine).c_str(), pair<Queue>);
    for (const char* wait : {"s", "ls"}) add_blocking<Queue>(wait, engine);
}

const bool registered = [] {
    benchmark::RegisterBenchmark("queue/pair/ztlib", pair<ZtlibSignal>);
    add_blocking<ZtlibSignal>("s", "ztlib");
    add_blocking<ZtlibSemaphore>("ls", "ztlib");
    add_peer<Standard>("deque");
#ifdef HAVE_GLIB
    add_peer<Glib>("GAsyncQueue");
#endif
#ifdef HAVE_APR
    add_peer<Apr>("shown:apr_queue");
#endif
    return true;
}();

}  // namespace
