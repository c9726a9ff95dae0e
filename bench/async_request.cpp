// Matching answers to requests: begun, answered with 64 bytes, called back on the worker and freed;
// against the same written with GHashTable, GMutex and GAsyncQueue. Each calling thread has at most
// 64 requests outstanding, and answers each of them itself, in another order than it began them.
//
// Where the scheduler puts the threads decides most, so they are pinned: all to one processor, or
// the calling threads alternately to two and the worker to the second.
//
// "all_at_once" has all requests outstanding, which the manager's fixed number of buckets is not
// meant for.

#include <ztlib/ipc/async/async_request.h>
#include <bench/support/crew.hpp>

#include <benchmark/benchmark.h>

#ifdef HAVE_GLIB
#    include <glib.h>
#endif

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <semaphore.h>

namespace {

constexpr size_t kRequests = 100'000;
constexpr size_t kOutstanding = 64;  // of one thread
constexpr size_t kStep = 7;          // from one answered to the next; no divisor of kOutstanding
constexpr uint32_t kTimeout = 60;
constexpr int32_t kAnswerBytes = 64;

using Callback = int (*)(void* context, uint8_t status, void* data, uint32_t length);

void* make_answer(uint64_t id) {
    auto* const answer = static_cast<uint64_t*>(malloc(kAnswerBytes));
    answer[0] = id;
    return answer;
}

// --- engines -------------------------------------------------------------------------------------

class Ztlib {
  public:
    ~Ztlib() { async_requests_manager_free(manager_, 1); }
    uint64_t begin(Callback callback, void* context) {
        async_request* const request = async_request_create(manager_, kTimeout);
        request->callback = callback;
        request->context = context;
        const uint64_t id = request->id;
        async_request_begin(manager_, request);
        return id;
    }
    bool answer(uint64_t id, uint8_t status) {
        void* const data = make_answer(id);
        if (async_request_process(manager_, id, status, data, kAnswerBytes) == 0) return true;
        free(data);
        return false;
    }

  private:
    async_requests_manager* manager_ = async_requests_manager_create();
};

#ifdef HAVE_GLIB
class Glib {
  public:
    Glib() {
        g_mutex_init(&mutex_);
        worker_ = g_thread_new("worker", serve, this);
    }
    ~Glib() {
        g_async_queue_push(completed_, this);  // the end
        g_thread_join(worker_);
        g_async_queue_unref(completed_);
        g_hash_table_destroy(pending_);
        g_mutex_clear(&mutex_);
    }
    Glib(const Glib&) = delete;
    Glib& operator=(const Glib&) = delete;

    uint64_t begin(Callback callback, void* context) {
        auto* const request = static_cast<Request*>(calloc(1, sizeof(Request)));
        const uint64_t id = next_id_.fetch_add(1) + 1;
        *request = {
            id, static_cast<uint32_t>(time(nullptr)) + kTimeout, 0, callback, context, nullptr, 0};
        g_mutex_lock(&mutex_);
        g_hash_table_insert(pending_, &request->id, request);
        g_mutex_unlock(&mutex_);
        return id;
    }
    bool answer(uint64_t id, uint8_t status) {
        void* const data = make_answer(id);
        gpointer found = nullptr;
        g_mutex_lock(&mutex_);
        const bool known = g_hash_table_steal_extended(pending_, &id, nullptr, &found);
        g_mutex_unlock(&mutex_);
        if (!known) {
            free(data);
            return false;
        }
        auto* const request = static_cast<Request*>(found);
        request->status = status;
        request->data = data;
        request->length = kAnswerBytes;
        g_async_queue_push(completed_, request);
        return true;
    }

  private:
    struct Request {
        uint64_t id;
        uint32_t deadline;
        uint8_t status;
        Callback callback;
        void* context;
        void* data;
        int32_t length;
    };

    static gpointer serve(gpointer self) {
        Glib& engine = *static_cast<Glib*>(self);
        for (;;) {
            gpointer const taken = g_async_queue_timeout_pop(engine.completed_, 3'000'000);
            if (taken == self) return nullptr;
            auto* const request = static_cast<Request*>(taken);
            if (!request) {
                engine.sweep();
                continue;
            }
            request->callback(request->context, request->status, request->data,
                              static_cast<uint32_t>(request->length));
            free(request->data);
            free(request);
        }
    }

    void sweep() {
        const auto now = static_cast<uint32_t>(time(nullptr));
        g_mutex_lock(&mutex_);
        GHashTableIter at;
        gpointer value;
        g_hash_table_iter_init(&at, pending_);
        while (g_hash_table_iter_next(&at, nullptr, &value)) {
            auto* const request = static_cast<Request*>(value);
            if (request->deadline >= now) continue;
            request->status = 1;
            g_hash_table_iter_steal(&at);
            g_async_queue_push(completed_, request);
        }
        g_mutex_unlock(&mutex_);
    }

    GMutex mutex_;
    GHashTable* pending_ = g_hash_table_new(g_int64_hash, g_int64_equal);
    GAsyncQueue* completed_ = g_async_queue_new();
    std::atomic<uint64_t> next_id_{0};
    GThread* worker_;
};
#endif

// --- the job -------------------------------------------------------------------------------------

// One calling thread: at most so many outstanding, and what its callbacks saw.
class Caller {
  public:
    explicit Caller(size_t outstanding) : outstanding_(outstanding) {
        sem_init(&free_, 0, static_cast<unsigned>(outstanding));
    }
    ~Caller() { sem_destroy(&free_); }
    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;

    template <class Engine>
    void run(Engine& engine, size_t requests) {
        std::vector<uint64_t> ids;
        ids.reserve(outstanding_);
        for (size_t begun = 0; begun < requests;) {
            const size_t now = std::min(outstanding_, requests - begun);
            for (size_t i = 0; i < now; ++i) {
                while (sem_wait(&free_) != 0) continue;
                ids.push_back(engine.begin(called, this));
            }
            size_t at = 0;
            for (size_t i = 0; i < now; ++i, at = (at + kStep) % now) {
                while (ids[at] == 0) at = (at + 1) % now;
                if (!engine.answer(ids[at], 7)) abort();
                ids[at] = 0;
            }
            ids.clear();
            begun += now;
        }
        for (size_t i = 0; i < outstanding_; ++i)
            while (sem_wait(&free_) != 0) continue;
        for (size_t i = 0; i < outstanding_; ++i) sem_post(&free_);
    }

    // How many were called back, the right way, since the last time.
    size_t take_count() { return std::exchange(called_, 0); }

  private:
    static int called(void* context, uint8_t status, void* data, uint32_t length) {
        Caller& self = *static_cast<Caller*>(context);
        self.called_ += status == 7 && length == kAnswerBytes && *static_cast<uint64_t*>(data) != 0;
        sem_post(&self.free_);
        return 0;
    }

    const size_t outstanding_;
    sem_t free_;
    size_t called_ = 0;
};

template <class Engine>
void match(benchmark::State& state, size_t threads, size_t processors, size_t outstanding) {
    std::vector<size_t> places;
    for (size_t i = 0; i < threads; ++i) places.push_back(i % processors);
    std::vector<std::unique_ptr<Caller>> callers;
    for (size_t i = 0; i < threads; ++i) callers.push_back(std::make_unique<Caller>(outstanding));

    // The worker stays where the thread that starts it is.
    std::unique_ptr<Engine> engine;
    std::thread([&] {
        zt_bench::pin_to(processors - 1);
        engine = std::make_unique<Engine>();
    }).join();
    if (engine->answer(1, 7)) state.SkipWithError("answered what nobody asked");

    zt_bench::Crew crew(places);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        crew.time([&](size_t index) { callers[index]->run(*engine, kRequests / threads); });
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        for (auto& caller : callers)
            if (caller->take_count() != kRequests / threads) state.SkipWithError("lost a request");
    }
}

template <class Engine>
auto* add(const std::string& job, const char* engine, size_t threads, size_t processors,
          size_t outstanding) {
    return benchmark::RegisterBenchmark(("async_request/" + job + "/" + engine).c_str(),
                                        match<Engine>, threads, processors, outstanding)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

template <class Engine>
void add_all(const char* engine, const char* shown) {
    for (const size_t processors : {1, 2}) {
        const std::string end = "/" + std::to_string(processors) + "_cpu";
        add<Engine>("1_thread" + end, engine, 1, processors, kOutstanding);
        add<Engine>("4_threads" + end, engine, 4, processors, kOutstanding);
    }
    add<Engine>("all_at_once", shown, 1, 1, kRequests)->Iterations(1);
}

const bool registered = [] {
    add_all<Ztlib>("ztlib", "ztlib");
#ifdef HAVE_GLIB
    add_all<Glib>("GHashTable", "shown:GHashTable");
#endif
    return true;
}();

}  // namespace
