#include "this_host.h"

#include "text.h"

#include <ztlib/utils/network.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include <sys/utsname.h>
#include <unistd.h>

namespace inventory {
namespace {

std::ifstream open_or_throw(const char* path) {
    std::ifstream file(path);
    if (!file) throw std::runtime_error(std::string("cannot read ") + path);
    return file;
}

[[noreturn]] void does_not_tell(const char* path, const char* what) {
    throw std::runtime_error(std::string(path) + " does not tell " + what);
}

std::string host_name() {
    char name[HOST_NAME_MAX + 1] = "";
    gethostname(name, sizeof name - 1);
    return make_plain(*name ? name : "localhost", kMaxName);
}

// The value of an assignment as a shell reads it: bare, or in quotes; in double quotes a backslash
// takes the next character as it is.
std::string unquoted(const std::string& value) {
    if (value.size() < 2 || (value[0] != '"' && value[0] != '\'')) return value;
    const bool escapes = value[0] == '"';
    std::string result;
    for (size_t i = 1; i < value.size() && value[i] != value[0]; ++i) {
        if (escapes && value[i] == '\\' && i + 1 < value.size()) ++i;
        result += value[i];
    }
    return result;
}

// The distribution's own name for itself, else the kernel's.
std::string system_name() {
    constexpr std::string_view kKey = "PRETTY_NAME=";
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream file(path);
        for (std::string line; std::getline(file, line);) {
            if (!line.starts_with(kKey)) continue;
            const std::string name = make_plain(unquoted(line.substr(kKey.size())), kMaxSystem);
            if (!name.empty()) return name;
        }
    }
    utsname kernel{};
    uname(&kernel);
    return make_plain(std::string(kernel.sysname) + " " + kernel.release, kMaxSystem);
}

void read_load(Host& host) {
    constexpr const char* kPath = "/proc/loadavg";
    std::ifstream file = open_or_throw(kPath);
    if (!(file >> host.load[0] >> host.load[1] >> host.load[2])) does_not_tell(kPath, "the load");
}

// Lines like "MemTotal:        8129216 kB".
void read_memory(Host& host) {
    constexpr const char* kPath = "/proc/meminfo";
    std::ifstream file = open_or_throw(kPath);
    std::string key, unit;
    uint64_t kilobytes = 0;
    int found = 0;
    while (found < 2 && file >> key >> kilobytes && std::getline(file, unit)) {
        if (key == "MemTotal:") host.memory_total = kilobytes * 1024, ++found;
        if (key == "MemAvailable:") host.memory_available = kilobytes * 1024, ++found;
    }
    if (found < 2) does_not_tell(kPath, "the memory");
}

// Two lines of headings, then lines like "  eth0: <8 received counters> <8 sent counters>", bytes
// first in both.
void read_interfaces(Host& host) {
    constexpr const char* kPath = "/proc/net/dev";
    std::ifstream file = open_or_throw(kPath);
    std::string line;
    std::getline(file, line);
    std::getline(file, line);
    while (std::getline(file, line)) {
        const size_t colon = line.rfind(':');
        const size_t start = line.find_first_not_of(' ');
        if (colon == std::string::npos || start >= colon) does_not_tell(kPath, "an interface");

        const std::string name = line.substr(start, colon - start);
        std::istringstream counters(line.substr(colon + 1));
        Traffic traffic;
        uint64_t skipped = 0;
        counters >> traffic.received;
        for (int i = 0; i < 7; ++i) counters >> skipped;
        if (!(counters >> traffic.sent)) does_not_tell(kPath, "the traffic");

        if (name != "lo") {
            host.traffic.received += traffic.received;
            host.traffic.sent += traffic.sent;
        }
        if (host.interfaces.size() < kMaxInterfaces)
            host.interfaces.push_back({make_plain(name, kMaxName), traffic, "", {}});
    }
}

struct FreeInterfaces {
    void operator()(network_interface** list) const { network_interfaces_free(list); }
};
struct FreeRoutes {
    void operator()(network_route** list) const { network_routes_free(list); }
};

std::string text_of(const ipv4_address& address, bool with_prefix) {
    char text[32];
    ipv4_to_string_r(&address, with_prefix, text, sizeof text);
    return text;
}

// What `ip` tells of the interfaces that are known by now.
void add_addresses(Host& host) {
    const std::unique_ptr<network_interface*[], FreeInterfaces> list(network_interfaces_list());
    for (Interface& interface : host.interfaces) {
        const network_interface* found =
            _network_interface_find(list.get(), interface.name.c_str());
        if (!found) continue;
        interface.mac = make_plain(found->mac, kMaxMac);
        for (int i = 0; i < found->address_count; ++i)
            interface.addresses.push_back(text_of(found->addresses[i], true));
    }
}

void add_routes(Host& host) {
    const std::unique_ptr<network_route*[], FreeRoutes> list(network_routes_list());
    for (network_route** at = list.get(); at && *at && host.routes.size() < kMaxRoutes; ++at)
        host.routes.push_back({text_of((*at)->destination, true), text_of((*at)->gateway, false)});
}

}  // namespace

Host read_this_host() {
    Host host;
    host.name = host_name();
    host.system = system_name();
    read_load(host);
    read_memory(host);
    read_interfaces(host);
    add_addresses(host);
    add_routes(host);
    return host;
}

}  // namespace inventory
