// The benchmarks' common start: a process like a daemon's, which is never alone with one thread.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

#include <unistd.h>

int main(int argc, char** argv) {
    // A second thread, asleep, keeps the C library from its single-thread shortcuts.
    std::thread([] {
        for (;;) pause();
    }).detach();

    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    fflush(nullptr);
    quick_exit(0);  // the sleeping thread is not waited for
}
