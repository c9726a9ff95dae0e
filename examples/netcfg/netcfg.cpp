// Shows, saves and restores the host's IPv4 configuration.

#include "host.h"
#include "plan.h"
#include "show.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include <getopt.h>

using namespace netcfg;

namespace {

constexpr int kFailed = 1;  // exit statuses
constexpr int kMisused = 2;

constexpr const char* kHelp =
    "usage: netcfg show\n"
    "       netcfg save FILE\n"
    "       netcfg apply FILE --dry-run | --yes\n"
    "\n"
    "show    the host's interfaces, routes through gateways, and resolver\n"
    "save    the interfaces and routes, to FILE.interfaces and FILE.routes\n"
    "apply   them: bring the host to what was saved\n"
    "\n"
    "  --dry-run   print the commands that would be run, and run none\n"
    "  --yes       run them, printed before they run\n"
    "  --help      print this\n";

struct Options {
    bool dry_run = false;
    bool yes = false;
    std::string command;
    std::string file;
};

// --- the command line ----------------------------------------------------------------------------

[[noreturn]] void misused(const char* why) {
    fprintf(stderr, "%s: %s (--help tells how)\n", program_invocation_name, why);
    exit(kMisused);
}

void check(const Options& options, int arguments) {
    if (options.command != "show" && options.command != "save" && options.command != "apply")
        misused("the command is show, save or apply");
    if (arguments != (options.command == "show" ? 1 : 2))
        misused("show takes no file, save and apply take one");
    if (options.command == "apply" ? options.dry_run == options.yes
                                   : options.dry_run || options.yes)
        misused("apply, and nothing else, takes one of --dry-run and --yes");
}

Options parse(int argc, char** argv) {
    const option long_options[] = {{"dry-run", no_argument, nullptr, 'n'},
                                   {"yes", no_argument, nullptr, 'y'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {}};
    Options options;
    for (int found; (found = getopt_long(argc, argv, "", long_options, nullptr)) != -1;) {
        switch (found) {
            case 'n':
                options.dry_run = true;
                break;
            case 'y':
                options.yes = true;
                break;
            case 'h':
                fputs(kHelp, stdout);
                exit(0);
            default:
                exit(kMisused);
        }
    }
    if (optind < argc) options.command = argv[optind];
    if (optind + 1 < argc) options.file = argv[optind + 1];
    check(options, argc - optind);
    return options;
}

// --- the commands --------------------------------------------------------------------------------

void print(const Commands& commands, FILE* to) {
    for (const std::string& command : commands) fprintf(to, "%s\n", command.c_str());
}

struct Free {
    void operator()(network_resolv* resolv) const { free(resolv); }
};

int show() {
    const std::unique_ptr<network_resolv, Free> resolv(network_resolv_load());
    fputs(page(read_host(), resolv.get()).c_str(), stdout);
    return 0;
}

int dry_run(const Configuration& saved) {
    const Configuration host = read_host();
    print(interface_commands(host.interfaces.get(), saved.interfaces.get()), stdout);
    print(route_commands(host.routes.get(), saved.routes.get()), stdout);
    return 0;
}

// The library prints what it does to interfaces; what it does to routes is printed here. They are
// looked at afresh in between, because addresses that go take routes with them.
int apply(const Configuration& saved) {
    read_host();  // or nothing is touched
    network_interfaces_apply(saved.interfaces.get());
    print(route_commands(read_host().routes.get(), saved.routes.get()), stderr);
    network_routes_apply(saved.routes.get());

    const Configuration host = read_host();
    Commands left = missing(host.interfaces.get(), saved.interfaces.get());
    for (const std::string& command : missing(host.routes.get(), saved.routes.get()))
        left.push_back(command);
    for (const std::string& command : left)
        fprintf(stderr, "%s: not done: %s\n", program_invocation_name, command.c_str());
    return left.empty() ? 0 : kFailed;
}

int run(const Options& options) {
    if (options.command == "show") return show();
    if (options.command == "save") {
        save(read_host(), options.file);
        return 0;
    }
    const Configuration saved = load(options.file);
    return options.dry_run ? dry_run(saved) : apply(saved);
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    try {
        return run(options);
    } catch (const std::exception& failure) {
        fprintf(stderr, "%s: %s\n", program_invocation_name, failure.what());
        return kFailed;
    }
}
