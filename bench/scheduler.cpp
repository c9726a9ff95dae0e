// Tasks that one background thread runs one after another: the scheduler against a GThreadPool of
// one exclusive thread, with one and with four threads that submit. A pass is over when the last
// task has been run.
//
// A task is a record of its own with two functions and an argument. GThreadPool hands a pointer to
// one function, so there the job's record is made by the submitter and freed by that function;
// "shown:bare" is the pool without it: one function for all, nothing allocated for a task by the
// host.
//
// Threads are pinned: all to one processor, or the background thread to one and the submitters to
// both.

#include <ztlib/scheduler/sched_singlethread.h>
#include <bench/support/crew.hpp>

#include <benchmark/benchmark.h>

#ifdef HAVE_GLIB
#    include <glib.h>
#endif

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <semaphore>
#include <string>
#include <vector>

namespace {

constexpr size_t kTasks = 20'000;  // a pass

// What the tasks of a pass do: they count, and the last one wakes the submitters, who sleep until
// then and leave the processors to the tasks.
struct Pass {
    explicit Pass(size_t submitter_count) : submitters(submitter_count) {}

    const size_t submitters;
    size_t run = 0;
    int64_t sum = 0;
    std::counting_semaphore<> over{0};

    void add(int32_t result) {
        sum += result;
        if (++run == kTasks) {
            run = 0;
            over.release(static_cast<ptrdiff_t>(submitters));
        }
    }
};

int32_t work(void*) { return 1; }
void done(void* pass, int32_t result) { static_cast<Pass*>(pass)->add(result); }

int32_t pin_worker(void* processor) {
    zt_bench::pin_to(*static_cast<size_t*>(processor));
    return 0;
}

// --- engines -------------------------------------------------------------------------------------

class Ztlib {
  public:
    explicit Ztlib(size_t processor)
        : processor_(processor), scheduler_(sched_singlethread_create()) {
        sched_task* const pin = sched_task_create(SCHED_TASK_WORK);
        pin->work = pin_worker;
        pin->arg = &processor_;
        sched_singlethread_schedule(scheduler_, pin);
    }
    ~Ztlib() { sched_singlethread_free(scheduler_, 1); }
    void submit(Pass& pass) {
        sched_task* const task = sched_task_create(SCHED_TASK_WORK | SCHED_TASK_DONE);
        task->work = work;
        task->done = done;
        task->arg = &pass;
        sched_singlethread_schedule(scheduler_, task);
    }

  private:
    size_t processor_;
    sched_singlethread* scheduler_;
};

#ifdef HAVE_GLIB
struct Job {
    int32_t (*work)(void*);
    void (*done)(void*, int32_t);
    void* arg;
};

class GlibPool {
  public:
    explicit GlibPool(size_t processor) : processor_(processor) {
        pool_ = g_thread_pool_new(run, nullptr, 1, TRUE, nullptr);
        submit_job(pin_worker, nullptr, &processor_);
    }
    ~GlibPool() { g_thread_pool_free(pool_, FALSE, TRUE); }
    void submit(Pass& pass) { submit_job(work, done, &pass); }

  private:
    void submit_job(int32_t (*job_work)(void*), void (*job_done)(void*, int32_t), void* arg) {
        Job* const job = g_new(Job, 1);
        *job = {job_work, job_done, arg};
        g_thread_pool_push(pool_, job, nullptr);
    }
    static void run(void* data, void*) {
        Job* const job = static_cast<Job*>(data);
        const int32_t result = job->work(job->arg);
        if (job->done) job->done(job->arg, result);
        g_free(job);
    }

    size_t processor_;
    GThreadPool* pool_;
};

class GlibBare {
  public:
    explicit GlibBare(size_t processor) : processor_(processor) {
        pool_ = g_thread_pool_new(run, this, 1, TRUE, nullptr);
        g_thread_pool_push(pool_, &processor_, nullptr);
    }
    ~GlibBare() { g_thread_pool_free(pool_, FALSE, TRUE); }
    void submit(Pass& pass) { g_thread_pool_push(pool_, &pass, nullptr); }

  private:
    static void run(void* data, void* self) {
        if (data == &static_cast<GlibBare*>(self)->processor_)
            pin_worker(data);
        else
            done(data, work(data));
    }

    size_t processor_;
    GThreadPool* pool_;
};
#endif

// --- the job -------------------------------------------------------------------------------------

template <class Engine>
void submit_and_run(benchmark::State& state, size_t submitters, size_t processors) {
    Pass pass(submitters);
    Engine engine(processors - 1);
    std::vector<size_t> places;
    for (size_t i = 0; i < submitters; i++) places.push_back(i % processors);
    zt_bench::Crew crew(places);
    int64_t passes = 0;
    const auto one_pass = [&] {
        passes++;
        const auto start = std::chrono::steady_clock::now();
        crew.time([&](size_t) {
            for (size_t i = 0; i < kTasks / submitters; i++) engine.submit(pass);
            pass.over.acquire();
        });
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    one_pass();
    for (auto _ : state) state.SetIterationTime(one_pass());
    if (pass.sum != passes * static_cast<int64_t>(kTasks)) state.SkipWithError("lost a task");
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kTasks));
}

template <class Engine>
void add(const char* engine) {
    for (size_t submitters : {1, 4})
        for (size_t processors : {1, 2}) {
            const std::string job = std::string("scheduler/") +
                                    (submitters == 1 ? "one_submitter/" : "four_submitters/") +
                                    std::to_string(processors) + "_cpu/" + engine;
            benchmark::RegisterBenchmark(job.c_str(), submit_and_run<Engine>, submitters,
                                         processors)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
        }
}

const bool registered = [] {
    add<Ztlib>("ztlib");
#ifdef HAVE_GLIB
    add<GlibPool>("GThreadPool");
    add<GlibBare>("shown:bare");
#endif
    return true;
}();

}  // namespace
