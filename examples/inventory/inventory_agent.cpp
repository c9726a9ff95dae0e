// The inventory's agent: reports the host that it runs on, and shows what the server knows.
//
// Every question has a connection of its own, so an agent that watches outlives its server.

#include "client.h"
#include "command_line.h"
#include "messages.h"
#include "table.h"
#include "text.h"
#include "this_host.h"

#include <string>

#include <getopt.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <time.h>

using namespace inventory;

namespace {

constexpr unsigned kAnswerSeconds = 10;  // each wait for the server is bounded by it

struct Options {
    std::string host = "127.0.0.1";
    uint16_t port = kDefaultPort;
    std::string name;            // to report under; empty: the host's own
    unsigned watch_seconds = 0;  // 0: report once
    bool xml = false;
    std::string command;
    std::string wanted;  // by show
};

// --- asking --------------------------------------------------------------------------------------

std::vector<Host> ask(const Options& options, xmldoc& request) {
    return inventory::ask(options.host, options.port, kAnswerSeconds, request);
}

std::vector<Host> report(const Options& options) {
    Host host = read_this_host();
    if (!options.name.empty()) host.name = options.name;
    return ask(options, *report_request(host));
}

// --- showing -------------------------------------------------------------------------------------

void print_xml(const std::vector<Host>& hosts) {
    const Document document = hosts_answer();
    for (const Host& host : hosts) add_host(*document, host, host.age, Detail::full);
    printf("%s\n", to_text(*document).c_str());
}

void show(const Options& options, const std::vector<Host>& hosts) {
    if (options.xml)
        print_xml(hosts);
    else if (options.command == "show" && !hosts.empty())
        fputs(host_page(hosts.front()).c_str(), stdout);
    else
        fputs(hosts_table(hosts).c_str(), stdout);
}

int run_once(const Options& options) {
    if (options.command == "report")
        show(options, report(options));
    else if (options.command == "list")
        show(options, ask(options, *list_request()));
    else
        show(options, ask(options, *show_request(options.wanted)));
    return 0;
}

// --- watching ------------------------------------------------------------------------------------

// One line, rewritten in place on a terminal and cut to its width; else a line of its own each
// time.
void show_status(const std::string& status) {
    if (!isatty(STDOUT_FILENO)) {
        printf("%s\n", status.c_str());
    } else {
        winsize size{};
        ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
        const std::string line = size.ws_col ? cut(status, size.ws_col - 1u) : status;
        printf("\r%s\033[K", line.c_str());
    }
    fflush(stdout);
}

// Reports until SIGTERM or SIGINT. The first report must succeed; a later one that does not is
// shown and tried again at the next turn.
int watch(const Options& options) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    const timespec pause{options.watch_seconds, 0};
    uint64_t reports = 0;
    do {
        try {
            const std::vector<Host> hosts = report(options);
            if (hosts.empty()) throw std::runtime_error("the server's answer is empty");
            ++reports;
            show_status(host_line(hosts.front()) + "  reports " + std::to_string(reports));
        } catch (const std::runtime_error& failure) {
            if (reports == 0) throw;
            show_status(failure.what());
        }
    } while (sigtimedwait(&stop, nullptr, &pause) < 0);

    if (isatty(STDOUT_FILENO)) putchar('\n');
    return 0;
}

// --- the command line ----------------------------------------------------------------------------

constexpr const char* kHelp = R"(Usage: inventory_agent [OPTION]... COMMAND
Reports this host to an inventory server, or asks it for what it knows.

  report            report this host
  list              all hosts
  show HOST         one host, with its interfaces and routes

  --host HOST       the server's name or address (127.0.0.1)
  --port PORT       its port (7420)
  --name NAME       report under this name, not the host's own
  --watch SECONDS   report over and over, with a pause of so long
  --xml             print XML, not a table
  --help            this text
)";

Options read_options(int argc, char** argv) {
    const option known[] = {
        {"host", required_argument, nullptr, 'H'},
        {"port", required_argument, nullptr, 'p'},
        {"name", required_argument, nullptr, 'n'},
        {"watch", required_argument, nullptr, 'w'},
        {"xml", no_argument, nullptr, 'x'},
        {"help", no_argument, nullptr, 'h'},
        {},
    };
    Options options;
    for (int chosen; (chosen = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (chosen) {
            case 'H':
                options.host = optarg;
                break;
            case 'p':
                options.port = number_argument("port", optarg, 1, UINT16_MAX);
                break;
            case 'n':
                options.name = optarg;
                break;
            case 'w':
                options.watch_seconds = number_argument("watch", optarg, 1, 86400);
                break;
            case 'x':
                options.xml = true;
                break;
            case 'h':
                fputs(kHelp, stdout);
                exit(0);
            default:
                exit(kMisused);
        }
    }
    const auto next_argument = [&]() -> std::string { return optind < argc ? argv[optind++] : ""; };
    options.command = next_argument();
    if (options.command == "show") options.wanted = next_argument();
    return options;
}

// Ends the program where the options make no sense together.
void check(const Options& options, const char* left_over) {
    const std::string& command = options.command;
    if (command.empty()) misused("a command is missing: report, list or show HOST");
    if (command != "report" && command != "list" && command != "show")
        misused("unknown command '%s'", command.c_str());
    if (command == "show" && options.wanted.empty()) misused("show wants the name of a host");
    if (left_over) misused("unexpected argument '%s'", left_over);
    if (options.watch_seconds && (command != "report" || options.xml))
        misused("--watch goes with report alone, and without --xml");
    if (!options.name.empty() && !is_plain(options.name, kMaxName))
        misused("--name takes up to %zu bytes of plain text", kMaxName);
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = read_options(argc, argv);
    check(options, optind < argc ? argv[optind] : nullptr);
    try {
        return options.watch_seconds ? watch(options) : run_once(options);
    } catch (const std::exception& failure) {
        return failed(failure);
    }
}
