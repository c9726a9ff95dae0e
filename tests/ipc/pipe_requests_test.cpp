// The whole way: requests of many threads go to another process over a pair of FIFOs; an async
// reader decodes its answers, and the request manager calls back. Some are never answered.
//
// ZT_REQUESTS sets how many there are.

#include <ztlib/ipc/async/async_request.h>
#include <ztlib/ipc/async/ipc_async_reader.h>
#include <ztlib/ipc/pipe/named_pipe.h>

#include <tests/ipc/partner.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

using namespace zt_test;

namespace {

constexpr size_t kThreads = 8;
constexpr uint64_t kUnanswered = 100;  // one of so many
constexpr uint32_t kTimeout = 1;

// Both ways. Small enough for a FIFO never to tear it.
struct Frame {
    uint64_t id;
    uint64_t number;
};
static_assert(sizeof(Frame) <= PIPE_BUF);

bool is_answered(uint64_t id) { return id % kUnanswered != 0; }
uint8_t status_of(uint64_t id) {
    if (!is_answered(id)) return ASYNC_REQUEST_TIMED_OUT;
    return static_cast<uint8_t>(2 + id % 250);
}

#ifdef __SANITIZE_THREAD__
constexpr size_t kRequests = 20'000;
#else
constexpr size_t kRequests = 100'000;
#endif

size_t request_count() {
    const char* const requests = getenv("ZT_REQUESTS");
    return requests ? strtoul(requests, nullptr, 10) : kRequests;
}

// Frames as they come, in pieces of any size.
class Frames {
  public:
    explicit Frames(named_pipe* pipe) : pipe_(pipe) {}

    // Reads once and passes each whole frame on. False at the end.
    template <class Take>
    bool read_once(Take take) {
        const ssize_t count = named_pipe_read(pipe_, bytes_ + held_, sizeof bytes_ - held_);
        if (count <= 0) return false;
        held_ += static_cast<size_t>(count);
        size_t at = 0;
        for (; held_ - at >= sizeof(Frame); at += sizeof(Frame)) {
            Frame frame;
            memcpy(&frame, bytes_ + at, sizeof frame);
            take(frame);
        }
        memmove(bytes_, bytes_ + at, held_ - at);
        held_ -= at;
        return true;
    }

  private:
    named_pipe* pipe_;
    size_t held_ = 0;
    char bytes_[64 * 1024];
};

// The other process: answers with the number's double.
int answer_requests(const std::string& path) {
    named_pipe* const pipe = named_pipe_open(path.c_str(), NAMED_PIPE_PAIR | NAMED_PIPE_RX);
    if (!pipe) return 1;
    bool wrote = true;
    Frames frames(pipe);
    while (frames.read_once([&](const Frame& request) {
        const Frame answer{request.id, request.number * 2};
        if (is_answered(request.id))
            wrote &= named_pipe_write(pipe, &answer, sizeof answer) == sizeof answer;
    })) {
    }
    named_pipe_close(pipe, 1);
    return wrote ? 0 : 2;
}

struct Outcome {
    uint64_t number = 0;
    uint64_t id = 0;
    std::atomic<int> calls{0};
    uint8_t status = 0;
    uint64_t answer = 0;
    time_t time = 0;

    static int called(void* context, uint8_t status, void* data, uint32_t length) {
        Outcome& self = *static_cast<Outcome*>(context);
        self.status = status;
        if (length == sizeof self.answer) memcpy(&self.answer, data, length);
        self.time = ::time(nullptr);
        ++self.calls;
        return 0;
    }
};

// The reading side: an async reader's context.
struct Answers {
    explicit Answers(named_pipe* pipe) : frames(pipe) {}
    Frames frames;
    async_requests_manager* manager = async_requests_manager_create();
    std::atomic<uint64_t> unknown{0};

    static int32_t read(void* context) {
        Answers& self = *static_cast<Answers*>(context);
        const bool more = self.frames.read_once([&](const Frame& answer) {
            auto* const data = static_cast<uint64_t*>(malloc(sizeof answer.number));
            *data = answer.number;
            if (async_request_process(self.manager, answer.id, status_of(answer.id), data,
                                      sizeof *data) != 0) {
                free(data);
                ++self.unknown;
            }
        });
        return more ? 0 : 1;
    }
};

bool ask(named_pipe* pipe, async_requests_manager* manager, Outcome& outcome) {
    async_request* const request = async_request_create(manager, kTimeout);
    request->callback = Outcome::called;
    request->context = &outcome;
    outcome.id = request->id;
    const Frame frame{request->id, outcome.number};
    async_request_begin(manager, request);
    return named_pipe_write(pipe, &frame, sizeof frame) == sizeof frame;
}

}  // namespace

TEST(PipeRequests, EveryRequestOfEightThreadsIsCalledBackOnceAnsweredOrNot) {
    const size_t count = request_count();
    const ScratchDirectory scratch;
    const std::string path = scratch / "job";
    const Leftovers leftovers;
    {
        Partner worker([&] { return answer_requests(path); });
        named_pipe* const pipe = named_pipe_open(path.c_str(), NAMED_PIPE_PAIR | NAMED_PIPE_TX);
        ASSERT_NE(pipe, nullptr);
        Answers answers(pipe);
        ipc_async_reader* const reader = ipc_async_reader_open(&answers, Answers::read);
        ASSERT_EQ(ipc_async_reader_start(reader), 0);

        std::vector<Outcome> outcomes(count);
        std::atomic<size_t> sent{0};
        std::vector<std::thread> threads;
        for (size_t thread = 0; thread < kThreads; ++thread)
            threads.emplace_back([&, thread] {
                for (size_t i = thread; i < count; i += kThreads) {
                    outcomes[i].number = i;
                    sent += ask(pipe, answers.manager, outcomes[i]);
                }
            });
        for (std::thread& thread : threads) thread.join();
        EXPECT_EQ(sent, count);

        EXPECT_TRUE(eventually(
            [&] {
                return std::all_of(outcomes.begin(), outcomes.end(),
                                   [](const Outcome& outcome) { return outcome.calls > 0; });
            },
            std::chrono::seconds(60)));

        // The answering side ends when nobody sends any more, and that ends the reader.
        ::close(std::exchange(pipe->write_fd, 0));
        EXPECT_EQ(worker.wait(), 0);
        EXPECT_TRUE(eventually([&] { return std::atomic_ref(reader->running).load() == 0; }));
        ipc_async_reader_close(reader, 1);
        async_requests_manager_free(answers.manager, 1);
        named_pipe_close(pipe, 1);

        size_t timed_out = 0;
        time_t idle_since = 0;
        for (const Outcome& outcome : outcomes) {
            ASSERT_EQ(outcome.calls, 1) << "request " << outcome.id;
            ASSERT_EQ(outcome.status, status_of(outcome.id));
            ASSERT_EQ(outcome.answer, is_answered(outcome.id) ? outcome.number * 2 : 0);
            timed_out += !is_answered(outcome.id);
            if (is_answered(outcome.id)) idle_since = std::max(idle_since, outcome.time);
        }
        EXPECT_EQ(timed_out, count / kUnanswered);
        EXPECT_EQ(answers.unknown, 0u);
        // Deadline and idleness count in whole seconds, and the machine may be busy.
        constexpr time_t kIdleness = 4, kSlack = 6;
        for (const Outcome& outcome : outcomes)
            ASSERT_LE(outcome.time, idle_since + kTimeout + kIdleness + kSlack);
    }
    EXPECT_TRUE(leftovers.none());
}
