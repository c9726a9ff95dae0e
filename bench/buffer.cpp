// Building 1 MiB of text in a growing buffer, from nothing, by appends of 1, 16 and 256 bytes and
// by formatted appends of about 25. The buffer is released within the run.

#include <ztlib/buffers/buffer.h>

#include <benchmark/benchmark.h>

#ifdef HAVE_GLIB
#    include <glib.h>
#endif
#ifdef HAVE_LIBEVENT
#    include <event2/buffer.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr size_t kTotal = 1 << 20;

constexpr char kFormat[] = "%s: %d, line %u\n";
constexpr char kName[] = "content-length";

struct Ztlib {
    static constexpr const char* name = "ztlib";

    ~Ztlib() { free(data); }
    void append(const char* text, size_t n) {
        buffer_append(&data, &capacity, &length, text, static_cast<int>(n));
    }
    void print(int number, unsigned line) {
        buffer_vsnprintf(&data, &capacity, &length, kFormat, kName, number, line);
    }
    size_t size() const { return length; }
    std::string text() const { return {data, length}; }

    char* data = nullptr;
    unsigned capacity = 0, length = 0;
};

struct StdString {
    static constexpr const char* name = "shown:std::string";

    void append(const char* bytes, size_t n) { content.append(bytes, n); }
    void print(int number, unsigned line) {
        char piece[128];
        const int n = snprintf(piece, sizeof piece, kFormat, kName, number, line);
        content.append(piece, static_cast<size_t>(n));
    }
    size_t size() const { return content.size(); }
    std::string text() const { return content; }

    std::string content;
};

#ifdef HAVE_GLIB
struct GlibString {
    static constexpr const char* name = "GString";

    ~GlibString() { g_string_free(content, TRUE); }
    void append(const char* bytes, size_t n) {
        g_string_append_len(content, bytes, static_cast<gssize>(n));
    }
    void print(int number, unsigned line) {
        g_string_append_printf(content, kFormat, kName, number, line);
    }
    size_t size() const { return content->len; }
    std::string text() const { return {content->str, content->len}; }

    GString* content = g_string_new(nullptr);
};

struct GlibBytes {
    static constexpr const char* name = "GByteArray";

    ~GlibBytes() { g_byte_array_free(content, TRUE); }
    void append(const char* bytes, size_t n) {
        g_byte_array_append(content, reinterpret_cast<const guint8*>(bytes), static_cast<guint>(n));
    }
    size_t size() const { return content->len; }
    std::string text() const { return {reinterpret_cast<char*>(content->data), content->len}; }

    GByteArray* content = g_byte_array_new();
};
#endif

#ifdef HAVE_LIBEVENT
struct Evbuffer {
    static constexpr const char* name = "evbuffer";

    ~Evbuffer() { evbuffer_free(content); }
    void append(const char* bytes, size_t n) { evbuffer_add(content, bytes, n); }
    void print(int number, unsigned line) {
        evbuffer_add_printf(content, kFormat, kName, number, line);
    }
    size_t size() const { return evbuffer_get_length(content); }
    std::string text() const {
        std::string copy(size(), '\0');
        evbuffer_copyout(content, copy.data(), copy.size());
        return copy;
    }

    evbuffer* content = evbuffer_new();
};
#endif

char source[256];

template <class Engine>
void append_all(Engine& engine, size_t piece) {
    for (size_t done = 0; done < kTotal; done += piece) engine.append(source, piece);
}

template <class Engine>
void print_all(Engine& engine) {
    for (unsigned line = 0; engine.size() < kTotal; ++line)
        engine.print(static_cast<int>(line * 7919), line);
}

template <class Engine>
void require_same(const Engine& engine, const std::string& expected) {
    if (engine.text() == expected) return;
    fprintf(stderr, "%s builds another text\n", Engine::name);
    abort();
}

template <class Engine>
void add_append(size_t piece) {
    StdString expected;
    append_all(expected, piece);
    Engine once;
    append_all(once, piece);
    require_same(once, expected.content);

    const std::string job = "buffer_append/" + std::to_string(piece) + "B/" + Engine::name;
    benchmark::RegisterBenchmark(job.c_str(), [piece](auto& state) {
        for (auto _ : state) {
            Engine engine;
            append_all(engine, piece);
            benchmark::DoNotOptimize(engine);
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
    });
}

template <class Engine>
void add_print() {
    StdString expected;
    print_all(expected);
    Engine once;
    print_all(once);
    require_same(once, expected.content);

    const std::string job = std::string("buffer_format/") + Engine::name;
    benchmark::RegisterBenchmark(job.c_str(), [](auto& state) {
        for (auto _ : state) {
            Engine engine;
            print_all(engine);
            benchmark::DoNotOptimize(engine);
            benchmark::ClobberMemory();
        }
        state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotal));
    });
}

const int registered = [] {
    for (size_t i = 0; i < sizeof source; ++i) source[i] = static_cast<char>('a' + i % 26);
    for (size_t piece : {size_t{1}, size_t{16}, size_t{256}}) {
        add_append<Ztlib>(piece);
        add_append<StdString>(piece);
#ifdef HAVE_GLIB
        add_append<GlibString>(piece);
        add_append<GlibBytes>(piece);
#endif
#ifdef HAVE_LIBEVENT
        add_append<Evbuffer>(piece);
#endif
    }
    add_print<Ztlib>();
    add_print<StdString>();
#ifdef HAVE_GLIB
    add_print<GlibString>();
#endif
#ifdef HAVE_LIBEVENT
    add_print<Evbuffer>();
#endif
    return 0;
}();

}  // namespace
