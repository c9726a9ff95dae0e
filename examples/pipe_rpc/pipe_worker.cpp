// The worker: answers one client's requests until that has gone, then waits for the next one.

#include "inventory/command_line.h"
#include "messages.h"
#include "pipe.h"

#include <stdexcept>
#include <string>

#include <getopt.h>

using namespace inventory;
using namespace pipe_rpc;

namespace {

struct Options {
    std::string path;
    unsigned clients = 0;  // 0: for ever
    unsigned ignored = 0;  // of so many requests one is not answered; 0: all are
};

// Serves one client to its end.
void serve(const Options& options) {
    const Pipe pipe = open_pipe(options.path, NAMED_PIPE_RX);
    Incoming<Request> requests(pipe.get());
    bool client_listens = true;
    const auto answer_one = [&](const Request& request) {
        if (options.ignored && request.id % options.ignored == 0) return;
        const Answer answer{request.id, request.number * request.number};
        if (named_pipe_write(pipe.get(), &answer, sizeof answer) != sizeof answer)
            client_listens = false;
    };
    while (client_listens && requests.read_once(answer_one)) continue;
}

constexpr const char* kHelp = R"(Usage: pipe_worker [OPTION]... PATH
Answers the requests of pipe_client over the FIFOs PATH_rx and PATH_tx.

  --clients N       end after so many clients (serves for ever)
  --ignore-each N   leave one of so many requests unanswered
  --help            this text
)";

Options read_options(int argc, char** argv) {
    const option known[] = {
        {"clients", required_argument, nullptr, 'c'},
        {"ignore-each", required_argument, nullptr, 'i'},
        {"help", no_argument, nullptr, 'h'},
        {},
    };
    Options options;
    for (int chosen; (chosen = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (chosen) {
            case 'c':
                options.clients = number_argument("clients", optarg, 1, 1'000'000);
                break;
            case 'i':
                options.ignored = number_argument("ignore-each", optarg, 1, 1'000'000);
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
        for (unsigned served = 0; !options.clients || served < options.clients; ++served)
            serve(options);
        return 0;
    } catch (const std::exception& failure) {
        return failed(failure);
    }
}
