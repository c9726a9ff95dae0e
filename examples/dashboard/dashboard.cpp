// The dashboard: shows an inventory server's hosts in browsers, live.
//
//   inventory server <--simple XML-- Watcher --> Board --> Feed of each connection --> browser
//                                       \--announce()--> Server: listener, thread pool
//
// The watcher asks for the hosts once a second, puts them on the board and lets every connection
// look at it. The server answers requests for the page, whose script opens a WebSocket back to it.
//
// The end, on SIGTERM or SIGINT: no longer ask, no longer listen, stop the pool, close what is
// open.

#include <ztlib/logger.h>

#include "board.h"
#include "server.h"
#include "watcher.h"

#include "inventory/command_line.h"
#include "inventory/stop_signals.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

#include <arpa/inet.h>
#include <fcntl.h>
#include <getopt.h>

using namespace dashboard;
using inventory::Descriptor;

namespace {

constexpr const char* kModule = "dashboard";

constexpr uint16_t kDefaultPort = 7421;

struct Options {
    Inventory inventory;
    std::string bind = "127.0.0.1";
    uint16_t port = kDefaultPort;
    Settings settings;
    bool verbose = false;
};

// The pool traces each of its steps on standard error. Until the end of the scope that goes
// nowhere.
class NoTraces {
  public:
    NoTraces() : saved_(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO)) {
        const Descriptor nowhere(open("/dev/null", O_WRONLY | O_CLOEXEC));
        if (saved_ && nowhere) dup2(nowhere.get(), STDERR_FILENO);
    }
    ~NoTraces() {
        if (saved_) dup2(saved_.get(), STDERR_FILENO);
    }
    NoTraces(const NoTraces&) = delete;
    NoTraces& operator=(const NoTraces&) = delete;

  private:
    Descriptor saved_;
};

int run(const Options& options) {
    const Descriptor signals = inventory::stop_signals();
    std::unique_ptr<NoTraces> quiet;
    if (!options.verbose) quiet = std::make_unique<NoTraces>();

    Board board;
    Server server(board, options.settings, options.bind, options.port);
    logger_log(LOGGER_INFO, kModule, __func__, "listening on %s", server.url().c_str());
    printf("listening on %s\n", server.url().c_str());
    fflush(stdout);

    const Watcher watcher(options.inventory, options.settings.every, board,
                          [&server] { server.announce(); });
    const int signal = server.serve(signals);
    logger_log(LOGGER_INFO, kModule, __func__, "stopping: %s", strsignal(signal));
    return 0;
}

constexpr const char* kHelp = R"(Usage: dashboard [OPTION]...
Shows an inventory server's hosts in browsers, live, until SIGTERM or SIGINT. Prints the address to
open once it listens.

  --bind ADDRESS         IPv4 address to listen on (127.0.0.1). There is no authentication:
                         whoever can connect can look.
  --port PORT            port to listen on (7421); 0 takes any free one
  --inventory HOST       the inventory server's name or address (127.0.0.1)
  --inventory-port PORT  its port (7420)
  --every SECONDS        between two looks at the inventory (1)
  --stale SECONDS        a host that has not reported for so long is shown as stale (30), and one
                         that has not for ten times as long as offline
  --verbose              log to standard error, too, with the thread pool's own trace
  --help                 this text
)";

std::string address_argument(const char* text) {
    in_addr parsed{};
    if (inet_pton(AF_INET, text, &parsed) != 1)
        inventory::misused("--bind takes an IPv4 address, not '%s'", text);
    return text;
}

Options read_options(int argc, char** argv) {
    using inventory::number_argument;
    const option known[] = {
        {"bind", required_argument, nullptr, 'b'},
        {"port", required_argument, nullptr, 'p'},
        {"inventory", required_argument, nullptr, 'i'},
        {"inventory-port", required_argument, nullptr, 'I'},
        {"every", required_argument, nullptr, 'e'},
        {"stale", required_argument, nullptr, 's'},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {},
    };
    Options options;
    for (int chosen; (chosen = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (chosen) {
            case 'b':
                options.bind = address_argument(optarg);
                break;
            case 'p':
                options.port = number_argument("port", optarg, 0, UINT16_MAX);
                break;
            case 'i':
                options.inventory.host = optarg;
                break;
            case 'I':
                options.inventory.port = number_argument("inventory-port", optarg, 1, UINT16_MAX);
                break;
            case 'e':
                options.settings.every =
                    std::chrono::seconds(number_argument("every", optarg, 1, 60));
                break;
            case 's':
                options.settings.stale =
                    std::chrono::seconds(number_argument("stale", optarg, 1, 86400));
                break;
            case 'v':
                options.verbose = true;
                logger_to_stderr = 1;
                break;
            case 'h':
                fputs(kHelp, stdout);
                exit(0);
            default:
                exit(inventory::kMisused);
        }
    }
    if (optind < argc) inventory::misused("unexpected argument '%s'", argv[optind]);
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    logger_syslog_name = kModule;
    const Options options = read_options(argc, argv);
    try {
        return run(options);
    } catch (const std::exception& failure) {
        return inventory::failed(failure);
    }
}
