// Threads that each stay on one processor and start every pass together.
#pragma once

#include <atomic>
#include <chrono>
#include <ctime>
#include <functional>
#include <thread>
#include <utility>
#include <vector>

#include <pthread.h>
#include <sched.h>

namespace zt_bench {

inline void pin_to(size_t cpu) {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(cpu % std::thread::hardware_concurrency(), &cpus);
    pthread_setaffinity_np(pthread_self(), sizeof cpus, &cpus);
}

// The calling thread is the crew's first; its own processors come back with the destructor.
class Crew {
  public:
    // One thread for each entry, which names its processor.
    explicit Crew(std::vector<size_t> processors) : processors_(std::move(processors)) {
        sched_getaffinity(0, sizeof before_, &before_);
        for (size_t i = 1; i < processors_.size(); ++i)
            threads_.emplace_back([this, i] { serve(i); });
        pin_to(processors_[0]);
    }
    ~Crew() {
        work_ = nullptr;
        ++round_;
        for (auto& thread : threads_) thread.join();
        sched_setaffinity(0, sizeof before_, &before_);
    }
    Crew(const Crew&) = delete;
    Crew& operator=(const Crew&) = delete;

    // Calls work(index) on each thread; seconds from the start until the last one is done. A crew
    // of one is timed by its own processor time, to which a busy machine adds little.
    double time(const std::function<void(size_t)>& work) {
        if (threads_.empty()) {
            const double start = processor_seconds();
            work(0);
            return processor_seconds() - start;
        }
        work_ = &work;
        ready_ = done_ = 0;
        ++round_;
        while (ready_ != threads_.size()) sched_yield();
        const auto start = std::chrono::steady_clock::now();
        go_ = round_.load();
        work(0);
        while (done_ != threads_.size()) sched_yield();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

  private:
    static double processor_seconds() {
        timespec now;
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
    }

    void serve(size_t index) {
        pin_to(processors_[index]);
        for (size_t served = 0;;) {
            while (round_ == served) sched_yield();
            ++served;
            if (!work_) return;
            ++ready_;
            while (go_ != served) sched_yield();
            (*work_)(index);
            ++done_;
        }
    }

    const std::vector<size_t> processors_;
    std::vector<std::thread> threads_;
    const std::function<void(size_t)>* work_ = nullptr;
    std::atomic<size_t> round_{0}, go_{0}, ready_{0}, done_{0};
    cpu_set_t before_;
};

}  // namespace zt_bench
