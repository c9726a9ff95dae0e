// A new identifier, with the three system calls that it cannot do without as the limit, and its
// text form.

#include <ztlib/utils/uid.h>

#include <benchmark/benchmark.h>

#include <cstdint>

#include <fcntl.h>
#include <unistd.h>

namespace {

void ours(benchmark::State& state) {
    uid id;
    for (auto _ : state) {
        uid_generate(&id);
        benchmark::DoNotOptimize(id);
    }
}

void three_calls(benchmark::State& state) {
    uint64_t random;
    for (auto _ : state) {
        const int device = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
        if (read(device, &random, sizeof random) != sizeof random) state.SkipWithError("read");
        close(device);
        benchmark::DoNotOptimize(random);
    }
}

void ours_text(benchmark::State& state) {
    uid id;
    uid_generate(&id);
    char text[UID_TEXT_SIZE];
    for (auto _ : state) {
        uid2str_t(&id, text, sizeof text);
        benchmark::DoNotOptimize(text);
    }
}

const bool registered = [] {
    benchmark::RegisterBenchmark("uid_generate/ztlib", ours);
    benchmark::RegisterBenchmark("uid_generate/limit:open+read+close", three_calls);
    benchmark::RegisterBenchmark("uid_text/ztlib", ours_text);
    return true;
}();

}  // namespace
