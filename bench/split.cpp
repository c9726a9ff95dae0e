// Splitting a line of text: a route listing's line, and a long line of 1,000 short fields. Every
// engine returns each part in memory of its own and releases all of it within the run.

#include <ztlib/utils/split.h>

#include <benchmark/benchmark.h>

#ifdef HAVE_GLIB
#    include <glib.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

namespace {

struct Sample {
    const char* name;
    std::string text;
};

std::string long_line() {
    std::string line = "0";
    for (int i = 1; i < 1000; ++i) line += ' ' + std::to_string(i * 7);
    return line;
}

const Sample kSamples[] = {
    {"route_line", "default via 192.168.100.1 dev eth0 proto dhcp src 192.168.100.57 metric 100"},
    {"fields_1000", long_line()},
};

// Splits and releases; returns the parts when `keep`, else nothing.
using Job = std::function<std::vector<std::string>(const std::string&, bool keep)>;

std::vector<std::string> ours(const std::string& text, bool keep) {
    split_result result;
    split(text.c_str(), static_cast<int>(text.size()), ' ', &result);
    std::vector<std::string> parts;
    if (keep) parts.assign(result.parts, result.parts + result.count);
    benchmark::DoNotOptimize(result.parts);
    split_free(&result, 0);
    return parts;
}

#ifdef HAVE_GLIB
std::vector<std::string> with_glib(const std::string& text, bool keep) {
    char** strings = g_strsplit(text.c_str(), " ", -1);
    std::vector<std::string> parts;
    if (keep) parts.assign(strings, strings + g_strv_length(strings));
    benchmark::DoNotOptimize(strings);
    g_strfreev(strings);
    return parts;
}
#endif

// What one would write by hand: an array that doubles, and a copy of each piece up to the next
// strchr().
std::vector<std::string> by_hand(const std::string& text, bool keep) {
    size_t count = 0, room = 8;
    char** strings = static_cast<char**>(malloc(room * sizeof(char*)));
    for (const char* from = text.c_str();;) {
        const char* stop = strchr(from, ' ');
        if (count == room) {
            room *= 2;
            strings = static_cast<char**>(realloc(strings, room * sizeof(char*)));
        }
        strings[count++] = stop ? strndup(from, static_cast<size_t>(stop - from)) : strdup(from);
        if (!stop) break;
        from = stop + 1;
    }
    std::vector<std::string> parts;
    if (keep) parts.assign(strings, strings + count);
    benchmark::DoNotOptimize(strings);
    for (size_t i = 0; i < count; ++i) free(strings[i]);
    free(strings);
    return parts;
}

void add(const Sample& sample, const char* engine, const Job& run) {
    const std::string job = std::string("split_") + sample.name;
    if (run(sample.text, true) != ours(sample.text, true)) {
        fprintf(stderr, "%s/%s gives another result\n", job.c_str(), engine);
        abort();
    }
    benchmark::RegisterBenchmark((job + "/" + engine).c_str(), [&sample, run](auto& state) {
        for (auto _ : state) run(sample.text, false);
    });
}

const bool registered = [] {
    for (const Sample& sample : kSamples) {
        add(sample, "ztlib", ours);
#ifdef HAVE_GLIB
        add(sample, "glib", with_glib);
#endif
        add(sample, "strchr", by_hand);
    }
    return true;
}();

}  // namespace
