#include "host.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include <sys/stat.h>

namespace netcfg {
namespace {

std::string interfaces_path(const std::string& file) { return file + ".interfaces"; }
std::string routes_path(const std::string& file) { return file + ".routes"; }

[[noreturn]] void fail(const std::string& what, const std::string& why) {
    throw std::runtime_error(what + ": " + why);
}

template <class Record>
size_t count(Record** list) {
    size_t n = 0;
    while (list[n]) ++n;
    return n;
}

size_t file_size(const std::string& path) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0) fail(path, strerror(errno));
    return static_cast<size_t>(status.st_size);
}

// How many records the file holds.
template <class Record>
size_t saved_count(const std::string& path) {
    const size_t size = file_size(path);
    if (size % sizeof(Record) != 0) fail(path, "is damaged");
    return size / sizeof(Record);
}

// The files that a configuration is written to before they take their places.
std::string beside(const std::string& path) { return path + ".new"; }

template <class Record>
void save_beside(const std::string& path, Record** list, int (*save)(const char*, Record**)) {
    const std::string written = beside(path);
    save(written.c_str(), list);
    if (saved_count<Record>(written) != count(list)) fail(written, "is not written whole");
}

void take_place(const std::string& path) {
    if (rename(beside(path).c_str(), path.c_str()) != 0) fail(path, strerror(errno));
}

template <class List>
void check_is_whole(const List& list, size_t expected, const std::string& path) {
    if (!list || count(list.get()) != expected) fail(path, "cannot be read");
}

}  // namespace

Configuration read_host() {
    Configuration host;
    host.interfaces.reset(network_interfaces_list());
    host.routes.reset(network_routes_list());
    if (!host.interfaces || !host.routes) fail("the host", "out of memory");
    if (!*host.interfaces.get()) fail("the host", "ip lists no links");
    return host;
}

void save(const Configuration& configuration, const std::string& file) {
    save_beside(interfaces_path(file), configuration.interfaces.get(), network_interfaces_save);
    save_beside(routes_path(file), configuration.routes.get(), network_routes_save);
    take_place(interfaces_path(file));
    take_place(routes_path(file));
}

Configuration load(const std::string& file) {
    const std::string interfaces = interfaces_path(file), routes = routes_path(file);
    const size_t interface_count = saved_count<network_interface>(interfaces);
    const size_t route_count = saved_count<network_route>(routes);
    if (interface_count == 0) fail(interfaces, "holds no interface");

    Configuration saved;
    saved.interfaces.reset(network_interfaces_load(interfaces.c_str()));
    saved.routes.reset(network_routes_load(routes.c_str()));
    check_is_whole(saved.interfaces, interface_count, interfaces);
    check_is_whole(saved.routes, route_count, routes);
    return saved;
}

}  // namespace netcfg
