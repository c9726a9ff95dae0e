// Listing a host of 32 links, in a network namespace of the benchmark's own, with the same `ip`
// commands run bare, their output thrown away, as the limit, and read through a shell as the peer.
// A place where no such namespace can be had has no entries.

#include <ztlib/utils/network.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sched.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kPairs = 15;  // with the loopback and a bridge, 32 links
constexpr int kLinks = 2 * kPairs + 2;

using Command = std::vector<std::string>;

// What a listing runs, in its order.
std::vector<Command> commands_of_a_listing() {
    std::vector<Command> commands = {{"ip", "link", "list"}};
    network_interface** const list = network_interfaces_list();
    for (network_interface** iface = list; *iface; ++iface) {
        const std::string name = (*iface)->name;
        if (*(*iface)->link) commands.push_back({"ip", "-d", "link", "show", "dev", name});
        commands.push_back({"ip", "addr", "list", "dev", name});
    }
    network_interfaces_free(list);
    return commands;
}

std::string text_of(const Command& command) {
    std::string text;
    for (const std::string& word : command) text += word + " ";
    return text;
}

void run_bare(const Command& command, const posix_spawn_file_actions_t& actions) {
    std::vector<char*> words;
    for (const std::string& word : command) words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    pid_t child;
    int status;
    if (posix_spawnp(&child, "ip", &actions, nullptr, words.data(), environ) != 0 ||
        waitpid(child, &status, 0) != child || status != 0)
        abort();
}

void read_by_shell(const std::string& command) {
    FILE* const output = popen(command.c_str(), "r");
    char line[512];
    while (fgets(line, sizeof line, output)) benchmark::DoNotOptimize(line);
    pclose(output);
}

void ours(benchmark::State& state) {
    for (auto _ : state) {
        network_interface** const list = network_interfaces_list();
        if (!list || !list[kLinks - 1]) state.SkipWithError("not all links are listed");
        network_interfaces_free(list);
    }
}

void bare(benchmark::State& state) {
    const std::vector<Command> commands = commands_of_a_listing();
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    for (auto _ : state)
        for (const Command& command : commands) run_bare(command, actions);
    posix_spawn_file_actions_destroy(&actions);
}

void by_shell(benchmark::State& state) {
    std::vector<std::string> commands;
    for (const Command& command : commands_of_a_listing()) commands.push_back(text_of(command));
    for (auto _ : state)
        for (const std::string& command : commands) read_by_shell(command);
}

bool enter_own_network() {
    if (unshare(CLONE_NEWNET) == 0) return true;
    const std::string user = std::to_string(geteuid());
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) return false;
    std::ofstream("/proc/self/uid_map") << "0 " + user + " 1";
    return true;
}

bool make_links() {
    std::string batch = "link set lo up\nlink add br0 type bridge\n";
    for (int i = 0; i < kPairs; ++i) {
        const std::string n = std::to_string(i);
        batch += "link add v" + n + " type veth peer name w" + n + "\n";
        batch += "addr add 10.0." + n + ".1/24 dev v" + n + "\n";
    }
    FILE* const ip = popen("ip -batch -", "w");
    if (!ip) return false;
    fputs(batch.c_str(), ip);
    return pclose(ip) == 0;
}

// Before the benchmarks' common start has made a second thread, which would stay outside.
const bool registered = [] {
    if (!enter_own_network() || !make_links()) {
        fprintf(stderr, "no network of the benchmark's own: nothing is measured\n");
        return false;
    }
    const auto add = [](const char* name, auto function) {
        benchmark::RegisterBenchmark(name, function)->UseRealTime()->Unit(benchmark::kMillisecond);
    };
    add("network_interfaces_list/ztlib", ours);
    add("network_interfaces_list/limit:bare ip commands", bare);
    add("network_interfaces_list/popen+fgets", by_shell);
    return true;
}();

}  // namespace
