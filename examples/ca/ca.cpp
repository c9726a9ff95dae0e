// A certificate authority on the command line.
//
// Every command opens the authority in its directory, does one thing and ends with 0, or with one
// line on standard error and 1, or 2 where the command line is wrong.

#include "authority.h"

#include <ztlib/logger.h>
#include <ztlib/zt_library.h>

#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <getopt.h>

namespace {

constexpr int kFailed = 1;  // exit statuses
constexpr int kMisused = 2;

constexpr const char* kHelp = R"(Usage: ca COMMAND DIR [ARGUMENT]... [OPTION]...
A certificate authority for clients, kept in the directory DIR.

  init DIR                              make the authority
  issue DIR NAME --domain D --id I      issue a certificate for a client
  verify DIR CERT                       say whose certificate the file holds
  revoke DIR D_I                        take the certificate of client I in domain D back
  list DIR                              show what is issued

  -d, --domain D     the client's domain, a number
  -i, --id I         the client's id, a number
  -h, --help         print this

A client gets DIR/D_I_public and DIR/D_I_private, or both as DIR/D_I.pfx, which has no password.
)";

struct Options {
    std::optional<uint64_t> domain, id;
    std::vector<std::string> words;  // command, directory, arguments
};

[[noreturn]] __attribute__((format(printf, 1, 2))) void misused(const char* format, ...) {
    fprintf(stderr, "%s: ", program_invocation_name);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputs("; see --help\n", stderr);
    exit(kMisused);
}

uint64_t number_argument(const char* option, const char* text) {
    const char* end = text + strlen(text);
    uint64_t number = 0;
    const auto [stopped, error] = std::from_chars(text, end, number);
    if (error != std::errc() || stopped != end)
        misused("--%s takes a number, not '%s'", option, text);
    return number;
}

Options parse(int argc, char** argv) {
    const option known[] = {{"domain", required_argument, nullptr, 'd'},
                            {"id", required_argument, nullptr, 'i'},
                            {"help", no_argument, nullptr, 'h'},
                            {}};
    Options options;
    for (int o; (o = getopt_long(argc, argv, "d:i:h", known, nullptr)) != -1;) switch (o) {
            case 'd':
                options.domain = number_argument("domain", optarg);
                break;
            case 'i':
                options.id = number_argument("id", optarg);
                break;
            case 'h':
                fputs(kHelp, stdout);
                exit(0);
            default:
                exit(kMisused);
        }
    options.words.assign(argv + optind, argv + argc);
    return options;
}

// --- commands ------------------------------------------------------------------------------------

void init(const Options& options) {
    const std::string& directory = options.words[1];
    const auto authority = ca::Authority::make(directory);
    printf("made an authority in %s; its first certificate will have serial %u\n",
           directory.c_str(), authority.last_serial() + 1);
}

void issue(const Options& options) {
    if (!options.domain || !options.id) misused("issue needs --domain and --id");
    ca::Authority authority(options.words[1]);
    const ca::Client client{*options.domain, *options.id};
    const ca::Issued issued = authority.issue(client, options.words[2]);
    printf("issued %s to %s, serial %s, valid until %s: %s\n", client.name().c_str(),
           issued.name.c_str(), issued.serial.c_str(), issued.valid_until.c_str(),
           authority.path_of(client, ".pfx").c_str());
}

void verify(const Options& options) {
    const ca::Client client = ca::Authority(options.words[1]).verify(options.words[2]);
    printf("valid: domain %" PRIu64 ", id %" PRIu64 "\n", client.domain, client.id);
}

void revoke(const Options& options) {
    const ca::Client client = ca::client_named(options.words[2]);
    ca::Authority(options.words[1]).revoke(client);
    printf("revoked %s\n", client.name().c_str());
}

void list(const Options& options) {
    const auto line = [](const std::string& client, const std::string& serial,
                         const std::string& until, const std::string& name) {
        printf("%-20s  %10s  %-11s  %s\n", client.c_str(), serial.c_str(), until.c_str(),
               name.c_str());
    };
    const std::vector<ca::Issued> all = ca::Authority(options.words[1]).list();
    line("CLIENT", "SERIAL", "VALID UNTIL", "NAME");
    for (const ca::Issued& issued : all)
        line(issued.client.name(), issued.serial, issued.valid_until, issued.name);
}

struct Command {
    const char* name;
    size_t words;
    void (*run)(const Options&);
};

constexpr Command kCommands[] = {
    {"init", 2, init},     {"issue", 3, issue}, {"verify", 3, verify},
    {"revoke", 3, revoke}, {"list", 2, list},
};

const Command& command_of(const Options& options) {
    if (options.words.empty()) misused("what shall be done?");
    for (const Command& command : kCommands) {
        if (options.words[0] != command.name) continue;
        if (options.words.size() != command.words)
            misused("%s takes %zu arguments", command.name, command.words - 1);
        return command;
    }
    misused("there is no command '%s'", options.words[0].c_str());
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parse(argc, argv);
    const Command& command = command_of(options);

    // What the library has to say about a failure goes where ours goes.
    logger_to_syslog = 0;
    logger_to_stderr = 1;
    zt_library_init();
    try {
        command.run(options);
        if (fflush(stdout) != 0) throw std::runtime_error("standard output cannot be written");
    } catch (const std::exception& failure) {
        fprintf(stderr, "%s: %s\n", program_invocation_name, failure.what());
        return kFailed;
    }
    zt_library_done();
    return 0;
}
