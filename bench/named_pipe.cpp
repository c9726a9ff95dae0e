// FIFO pairs between two processes, against bare read() and write() on the same FIFOs: a stream of
// 64 MiB in pieces of 4 and 64 KiB, and round trips of 64 bytes. Then a request and its answer the
// whole way, through pipe, async reader and request manager, beside the bare round trip ("limit").
//
// The other process is the same in all cases. Both are pinned, to one processor or to one each.

#include <ztlib/ipc/async/async_request.h>
#include <ztlib/ipc/async/ipc_async_reader.h>
#include <ztlib/ipc/pipe/named_pipe.h>
#include <bench/support/crew.hpp>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <semaphore.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr size_t kStreamBytes = size_t{64} << 20;
constexpr size_t kMessageBytes = 64;
constexpr size_t kRoundTrips = 2'000;

[[noreturn]] void give_up(const char* what) {
    perror(what);
    exit(1);
}

// Everything, in pieces of at most `piece` bytes. `call` is a read or a write that may do less.
template <class Call>
void in_pieces(size_t total, size_t piece, Call call) {
    for (size_t done = 0; done < total;) {
        const ssize_t now = call(std::min(piece - done % piece, total - done));
        if (now <= 0) give_up("transfer");
        done += static_cast<size_t>(now);
    }
}

// --- the other process ---------------------------------------------------------------------------

// Takes streams and answers each with one byte; ends when nobody sends any more.
[[noreturn]] void take_streams(int from, int to) {
    std::vector<char> piece(64 * 1024);
    for (size_t got = 0;;) {
        const ssize_t now = read(from, piece.data(), piece.size());
        if (now <= 0) _exit(0);
        got += static_cast<size_t>(now);
        if (got < kStreamBytes) continue;
        got -= kStreamBytes;
        if (write(to, "x", 1) != 1) _exit(1);
    }
}

[[noreturn]] void echo(int from, int to) {
    char message[kMessageBytes];
    for (ssize_t now; (now = read(from, message, sizeof message)) > 0;)
        if (write(to, message, static_cast<size_t>(now)) != now) _exit(1);
    _exit(0);
}

// A FIFO pair in a directory of its own, with the other process at its far end.
class Pair {
  public:
    Pair(void (*work)(int from, int to), size_t processor) {
        for (const char* end : {"_rx", "_tx"})
            if (mkfifo((path_ + end).c_str(), 0600) != 0) give_up("mkfifo");
        child_ = fork();
        if (child_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            zt_bench::pin_to(processor);
            named_pipe* const far = named_pipe_open(path_.c_str(), NAMED_PIPE_PAIR | NAMED_PIPE_RX);
            work(far->read_fd, far->write_fd);
        }
        pipe_ = named_pipe_open(path_.c_str(), NAMED_PIPE_PAIR | NAMED_PIPE_TX);
        if (!pipe_) give_up("named_pipe_open");
    }
    ~Pair() {
        named_pipe_close(pipe_, 1);
        waitpid(child_, nullptr, 0);
        for (const char* end : {"_rx", "_tx"}) unlink((path_ + end).c_str());
        rmdir(directory_);
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    operator named_pipe*() const { return pipe_; }
    void stop_writing() const { close(std::exchange(pipe_->write_fd, 0)); }

  private:
    char directory_[32] = "/tmp/bench_pipe_XXXXXX";
    std::string path_ = std::string(mkdtemp(directory_)) + "/job";
    named_pipe* pipe_ = nullptr;
    pid_t child_ = 0;
};

// --- engines -------------------------------------------------------------------------------------

struct Ztlib {
    static ssize_t read(named_pipe* pipe, void* bytes, size_t size) {
        return named_pipe_read(pipe, bytes, size);
    }
    static ssize_t write(named_pipe* pipe, const void* bytes, size_t size) {
        return named_pipe_write(pipe, bytes, size);
    }
};

struct Raw {
    static ssize_t read(named_pipe* pipe, void* bytes, size_t size) {
        return ::read(pipe->read_fd, bytes, size);
    }
    static ssize_t write(named_pipe* pipe, const void* bytes, size_t size) {
        return ::write(pipe->write_fd, bytes, size);
    }
};

// The calling thread on the first processor, for as long as this lives.
class Pinned {
  public:
    Pinned() : crew_({0}) {}

  private:
    zt_bench::Crew crew_;
};

template <class Engine>
void stream(benchmark::State& state, size_t piece_size, size_t processors) {
    const Pair pair(take_streams, processors - 1);
    const Pinned pinned;
    const std::vector<char> piece(piece_size, 'z');
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        in_pieces(kStreamBytes, piece_size,
                  [&](size_t size) { return Engine::write(pair, piece.data(), size); });
        char taken = 0;
        in_pieces(1, 1, [&](size_t size) { return Engine::read(pair, &taken, size); });
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
        if (taken != 'x') state.SkipWithError("lost its way");
    }
    state.SetBytesProcessed(static_cast<int64_t>(kStreamBytes) * state.iterations());
}

template <class Engine>
void round_trip(benchmark::State& state, size_t processors) {
    const Pair pair(echo, processors - 1);
    const Pinned pinned;
    char message[kMessageBytes] = "message", answer[kMessageBytes];
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (size_t i = 0; i < kRoundTrips; ++i) {
            message[0] = static_cast<char>(i);
            in_pieces(sizeof message, sizeof message,
                      [&](size_t size) { return Engine::write(pair, message, size); });
            in_pieces(sizeof answer, sizeof answer,
                      [&](size_t size) { return Engine::read(pair, answer, size); });
            if (memcmp(message, answer, sizeof answer) != 0) give_up("echo");
        }
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
    }
}

// --- the whole way -------------------------------------------------------------------------------

struct Message {
    uint64_t id;
    char text[kMessageBytes - sizeof(uint64_t)];
};

struct Answers {
    named_pipe* pipe;
    async_requests_manager* manager;

    static int32_t read(void* context) {
        const Answers& self = *static_cast<Answers*>(context);
        Message answer;
        const ssize_t count = named_pipe_read(self.pipe, &answer, sizeof answer);
        if (count == 0) return 1;
        if (count != sizeof answer) give_up("answer");
        void* const data = malloc(sizeof answer.text);
        memcpy(data, answer.text, sizeof answer.text);
        if (async_request_process(self.manager, answer.id, 0, data, sizeof answer.text) != 0)
            give_up("unknown answer");
        return 0;
    }
};

int answered(void* context, uint8_t status, void*, uint32_t length) {
    if (status == 0 && length == sizeof Message::text) sem_post(static_cast<sem_t*>(context));
    return 0;
}

void whole_way(benchmark::State& state, size_t processors) {
    const Pair pair(echo, processors - 1);
    const Pinned pinned;
    sem_t done;
    sem_init(&done, 0, 0);
    Answers answers{pair, async_requests_manager_create()};
    ipc_async_reader* const reader = ipc_async_reader_open(&answers, Answers::read);
    ipc_async_reader_start(reader);
    const auto ask = [&] {
        Message message{0, "message"};
        async_request* const request = async_request_create(answers.manager, 60);
        request->callback = answered;
        request->context = &done;
        message.id = request->id;
        async_request_begin(answers.manager, request);
        if (named_pipe_write(pair, &message, sizeof message) != sizeof message) give_up("write");
        while (sem_wait(&done) != 0) continue;
    };
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        for (size_t i = 0; i < kRoundTrips; ++i) ask();
        const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
        state.SetIterationTime(took.count());
    }
    pair.stop_writing();  // ends the other process, and that ends the reader
    while (std::atomic_ref(reader->running).load()) sched_yield();
    ipc_async_reader_close(reader, 1);
    async_requests_manager_free(answers.manager, 1);
    sem_destroy(&done);
}

// -------------------------------------------------------------------------------------------------

template <class Run, class... Arguments>
void add(const std::string& job, const char* engine, Run run, Arguments... arguments) {
    benchmark::RegisterBenchmark((job + "/" + engine).c_str(), run, arguments...)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
}

const bool registered = [] {
    for (const size_t processors : {1, 2}) {
        const std::string end = "/" + std::to_string(processors) + "_cpu";
        for (const size_t piece : {4 * 1024, 64 * 1024}) {
            const std::string job =
                "named_pipe/stream/" + std::to_string(piece / 1024) + "KiB" + end;
            add(job, "ztlib", stream<Ztlib>, piece, processors);
            add(job, "raw", stream<Raw>, piece, processors);
        }
        add("named_pipe/round_trip" + end, "ztlib", round_trip<Ztlib>, processors);
        add("named_pipe/round_trip" + end, "raw", round_trip<Raw>, processors);
        add("named_pipe/request_and_answer" + end, "ztlib", whole_way, processors);
        add("named_pipe/request_and_answer" + end, "limit:raw_round_trip", round_trip<Raw>,
            processors);
    }
    return true;
}();

}  // namespace
