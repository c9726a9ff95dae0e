// The client: fires all its requests at once and prints how long their answers took.
//
// Three threads meet here. The main thread begins and sends requests. The async reader's thread
// reads answers and hands each to the manager. The manager's worker calls back, for answers and for
// time that is over alike; what the callbacks write needs no lock, since the main thread looks at
// it only when the last one was made.

#include "inventory/command_line.h"
#include "messages.h"
#include "pipe.h"

#include <ztlib/ipc/async/async_request.h>
#include <ztlib/ipc/async/ipc_async_reader.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <semaphore>
#include <stdexcept>
#include <string>
#include <vector>

#include <getopt.h>

using namespace inventory;
using namespace pipe_rpc;
using Clock = std::chrono::steady_clock;

namespace {

struct Options {
    std::string path;
    unsigned requests = 1000;
    unsigned timeout_seconds = 1;
};

// --- the two sides of a request ------------------------------------------------------------------

struct Pending {
    enum Outcome { answered, timed_out, wrong };

    uint64_t number = 0;
    Outcome outcome = timed_out;
    Clock::time_point sent;
    Clock::duration took{};
    std::counting_semaphore<>* called = nullptr;
};

// On the manager's worker. `data` is ours until we return.
int on_outcome(void* context, uint8_t status, void* data, uint32_t length) {
    Pending& pending = *static_cast<Pending*>(context);
    pending.took = Clock::now() - pending.sent;
    if (status == ASYNC_REQUEST_TIMED_OUT)
        pending.outcome = Pending::timed_out;
    else if (length == sizeof(uint64_t) &&
             *static_cast<uint64_t*>(data) == pending.number * pending.number)
        pending.outcome = Pending::answered;
    else
        pending.outcome = Pending::wrong;
    pending.called->release();
    return 0;
}

struct FreeManager {
    void operator()(async_requests_manager* manager) const {
        async_requests_manager_free(manager, 1);
    }
};
using Manager = std::unique_ptr<async_requests_manager, FreeManager>;

// Reads answers on a thread of its own. At the end it tells the worker that nothing more is to
// come; the worker then closes its side, which ends the thread. (It closes the end that it reads
// from first: once our read has come to its end, no next client can meet what is left of it.)
class Reader {
  public:
    Reader(named_pipe* pipe, async_requests_manager* manager)
        : pipe_(pipe),
          incoming_(pipe),
          manager_(manager),
          reader_(ipc_async_reader_open(this, read)) {
        if (!reader_ || ipc_async_reader_start(reader_) != 0) {
            ipc_async_reader_close(reader_, 1);
            throw std::runtime_error("no thread to read with");
        }
    }
    ~Reader() {
        stop_writing(*pipe_);
        ended_.acquire();
        ipc_async_reader_close(reader_, 1);
    }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

  private:
    // One step of the thread; other than 0 is its last.
    static int32_t read(void* context) {
        Reader& self = *static_cast<Reader*>(context);
        if (self.incoming_.read_once([&](const Answer& answer) { self.process(answer); })) return 0;
        self.ended_.release();
        return 1;
    }

    // An answer that comes too late is refused, and its data stays ours.
    void process(const Answer& answer) {
        auto* const square = static_cast<uint64_t*>(malloc(sizeof answer.square));
        if (!square) return;  // as if it had not come
        *square = answer.square;
        constexpr int kAnswered = 0;
        if (async_request_process(manager_, answer.id, kAnswered, square, sizeof *square) != 0)
            free(square);
    }

    named_pipe* pipe_;
    Incoming<Answer> incoming_;
    async_requests_manager* manager_;
    std::binary_semaphore ended_{0};
    ipc_async_reader* reader_;
};

// --- asking --------------------------------------------------------------------------------------

// False when the worker has gone: the request then times out.
bool ask(named_pipe& pipe, async_requests_manager& manager, Pending& pending, unsigned timeout) {
    async_request* const request = async_request_create(&manager, timeout);
    if (!request) throw std::runtime_error("out of memory");
    request->callback = on_outcome;
    request->context = &pending;
    const Request message{request->id, pending.number};

    pending.sent = Clock::now();
    async_request_begin(&manager, request);  // from here on it is the manager's
    return named_pipe_write(&pipe, &message, sizeof message) == sizeof message;
}

// All outcomes, once the last is known; fewer than were wanted when the worker has gone.
std::vector<Pending> ask_all(const Options& options) {
    // What callbacks write to outlives the manager, whose end is the last callback's.
    std::vector<Pending> all(options.requests);
    std::counting_semaphore<> called{0};
    const Turn turn(options.path);
    const Pipe pipe = open_pipe(options.path, NAMED_PIPE_TX);
    const Manager manager(async_requests_manager_create());
    if (!manager) throw std::runtime_error("no request manager");
    const Reader reader(pipe.get(), manager.get());

    size_t begun = 0;
    for (bool worker_listens = true; worker_listens && begun < all.size(); ++begun) {
        all[begun].number = begun;
        all[begun].called = &called;
        worker_listens = ask(*pipe, *manager, all[begun], options.timeout_seconds);
    }
    for (size_t i = 0; i < begun; ++i) called.acquire();
    all.resize(begun);
    return all;
}

// --- the table -----------------------------------------------------------------------------------

double milliseconds(Clock::duration time) {
    return std::chrono::duration<double, std::milli>(time).count();
}

// The smallest time that so many hundredths of all did not exceed; `times` is sorted.
double percentile(const std::vector<Clock::duration>& times, size_t hundredths) {
    if (times.empty()) return 0;
    return milliseconds(times[(times.size() * hundredths + 99) / 100 - 1]);
}

void print_table(const std::vector<Pending>& all) {
    std::vector<Clock::duration> times;
    size_t timed_out = 0;
    for (const Pending& pending : all) {
        if (pending.outcome == Pending::answered) times.push_back(pending.took);
        timed_out += pending.outcome == Pending::timed_out;
    }
    std::sort(times.begin(), times.end());
    printf("%8s  %8s  %9s  %9s  %9s  %9s\n", "requests", "answered", "timed out", "p50 ms",
           "p99 ms", "max ms");
    printf("%8zu  %8zu  %9zu  %9.3f  %9.3f  %9.3f\n", all.size(), times.size(), timed_out,
           percentile(times, 50), percentile(times, 99), percentile(times, 100));
}

void expect_healthy(const Options& options, const std::vector<Pending>& all) {
    if (all.size() < options.requests) throw std::runtime_error("the worker has gone");
    for (const Pending& pending : all)
        if (pending.outcome == Pending::wrong) throw std::runtime_error("an answer was wrong");
}

constexpr const char* kHelp = R"(Usage: pipe_client [OPTION]... PATH
Sends requests to pipe_worker over the FIFOs PATH_rx and PATH_tx, all at once, and prints how long
the answers took.

  --requests N      how many (1000)
  --timeout N       seconds until a request without an answer is given up, at the earliest (1)
  --help            this text
)";

Options read_options(int argc, char** argv) {
    const option known[] = {
        {"requests", required_argument, nullptr, 'r'},
        {"timeout", required_argument, nullptr, 't'},
        {"help", no_argument, nullptr, 'h'},
        {},
    };
    Options options;
    for (int chosen; (chosen = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (chosen) {
            case 'r':
                options.requests = number_argument("requests", optarg, 1, 1'000'000);
                break;
            case 't':
                options.timeout_seconds = number_argument("timeout", optarg, 1, 3600);
                break;
            case 'h':
                fputs(kHelp, stdout);
                exit(0);
            default:
                exit(kMisused);
        }
    }
    if (argc - optind != 1) misused("one argument is wanted: the path of the FIFOs");
    options.path = argv[optind];
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = read_options(argc, argv);
    try {
        const std::vector<Pending> all = ask_all(options);
        print_table(all);
        expect_healthy(options, all);
        return 0;
    } catch (const std::exception& failure) {
        return failed(failure);
    }
}
