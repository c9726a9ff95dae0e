// Routes through a gateway, as `ip route` prints them:
//
//     default via 10.1.2.1 dev eth0
//     10.7.0.0/16 via 10.1.2.1 dev eth0 proto static
//     10.1.2.0/24 dev eth0 proto kernel scope link src 10.1.2.3       (no gateway: not ours)

#include <ztlib/utils/network.hpp>

#include <ztlib/base/command.h>
#include <ztlib/utils/split.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

using namespace zt::network;

namespace {

constexpr size_t kLineSize = 1024;

enum Field { kDestination, kVia, kGateway, kFields };

bool parse_destination(const char* text, ipv4_address& out) {
    out = {};
    return strcmp(text, "default") == 0 || ipv4_parse_addr(text, &out) == 0;
}

bool parse_fields(const split_result& fields, network_route& out) {
    if (fields.count < kFields || strcmp(fields.parts[kVia], "via") != 0) return false;
    ipv4_address destination, gateway;
    if (!parse_destination(fields.parts[kDestination], destination) ||
        ipv4_parse_addr(fields.parts[kGateway], &gateway) != 0)
        return false;
    out = {destination, gateway};
    return true;
}

// False for a line that is no route through a gateway.
bool parse_route(char* line, network_route& out) {
    zt::cut_at_last(line, '\n');
    zt::cut_at_last(line, '\r');
    split_result fields;
    if (split(line, static_cast<int>(strlen(line)), ' ', &fields) != 0) return false;
    const bool is_route = parse_fields(fields, out);
    split_free(&fields, 0);
    return is_route;
}

int change(const char* verb, const network_route* route) {
    if (!route) return -1;
    const AddressText destination(route->destination, true), gateway(route->gateway, false);
    const char* const words[] = {"ip",  "route",         verb,   destination.c_str(),
                                 "via", gateway.c_str(), nullptr};
    return zt::run_command(words);
}

// One pass forward over both lists: the search for each route begins at the place, in `desired`, of
// the last one that stayed.
void remove_undesired(network_route** current, network_route** desired) {
    for (; *current; ++current) {
        while (*desired && ipv4_route_cmp(*current, *desired) != 0) ++desired;
        if (!*desired) _network_route_del(*current);
    }
}

// The last route of a list; null where there is none.
const network_route* last_of(network_route** list) {
    const network_route* last = nullptr;
    if (list)
        for (; *list; ++list) last = *list;
    return last;
}

}  // namespace

extern "C" network_route** network_routes_list() {
    ListBuilder<network_route> routes;
    if (!routes) return nullptr;

    const char* const words[] = {"ip", "route", nullptr};
    zt::CommandOutput output(words);
    char line[kLineSize];
    while (output.next_line(line)) {
        network_route route;
        if (!parse_route(line, route)) continue;
        auto* const record = zt::allocate_zeroed<network_route>();
        if (!record) break;
        *record = route;
        routes.append(record);
        if (!routes.make_room()) {
            fprintf(stderr, "%s: realloc(): %s\n", __func__, strerror(errno));
            break;
        }
    }
    return routes.release();
}

extern "C" void network_routes_free(network_route** list) { free_list(list); }

extern "C" int _network_route_add(const network_route* route) { return change("add", route); }

extern "C" int _network_route_del(const network_route* route) { return change("del", route); }

extern "C" void network_routes_flush() {
    const OwnedRoutes current(network_routes_list());
    if (!current) return;
    for (network_route** route = current.get(); *route; ++route) _network_route_del(*route);
}

extern "C" int network_routes_apply(network_route** desired) {
    if (!desired) {
        network_routes_flush();
        return 0;
    }
    if (const OwnedRoutes current{network_routes_list()}; current)
        remove_undesired(current.get(), desired);

    const OwnedRoutes current(network_routes_list());
    const network_route* const last = last_of(current.get());
    for (; *desired; ++desired)
        if (ipv4_route_cmp(last, *desired) != 0) _network_route_add(*desired);
    return 0;
}
