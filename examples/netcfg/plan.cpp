#include "plan.h"

#include <algorithm>

namespace netcfg {
namespace {

std::string plain_name(const network_interface& iface) { return plain(text_of(iface.name)); }

bool holds(const network_interface& iface, const ipv4_address& address) {
    const std::vector<ipv4_address> held = addresses_of(iface);
    return std::any_of(held.begin(), held.end(), [&](const ipv4_address& other) {
        return ipv4_compare(&other, &address) == 0;
    });
}

std::string address_command(const char* verb, const ipv4_address& address,
                            const network_interface& iface) {
    return std::string("ip addr ") + verb + " " + text_of(address, true) + " dev " +
           plain_name(iface);
}

std::string route_command(const char* verb, const network_route& route) {
    return std::string("ip route ") + verb + " " + text_of(route.destination, true) + " via " +
           text_of(route.gateway, false);
}

void add_removals(const network_interface& current, const network_interface* desired,
                  Commands& commands) {
    if (desired) {
        for (const ipv4_address& address : addresses_of(current))
            if (!holds(*desired, address))
                commands.push_back(address_command("del", address, current));
    } else if (current.vlan_id != 0) {
        commands.push_back("ip link delete " + plain_name(current));
    } else {
        commands.push_back("ip addr flush dev " + plain_name(current));
    }
}

void add_additions(const network_interface* current, const network_interface& desired,
                   Commands& commands) {
    if (!current && desired.vlan_id != 0)
        commands.push_back("ip link add link " + plain(text_of(desired.link)) + " name " +
                           plain_name(desired) + " type vlan id " +
                           std::to_string(desired.vlan_id));
    for (const ipv4_address& address : addresses_of(desired))
        if (!current || !holds(*current, address))
            commands.push_back(address_command("add", address, desired));
}

network_interface* find(network_interface** list, const network_interface& iface) {
    return _network_interface_find(list, text_of(iface.name).c_str());
}

bool contains(network_route** list, const network_route& route) {
    for (; *list; ++list)
        if (ipv4_route_cmp(*list, &route) == 0) return true;
    return false;
}

}  // namespace

Commands interface_commands(network_interface** current, network_interface** desired) {
    Commands commands;
    for (network_interface** c = current; *c; ++c) add_removals(**c, find(desired, **c), commands);
    for (network_interface** d = desired; *d; ++d) {
        add_additions(find(current, **d), **d, commands);
        commands.push_back("ip link set dev " + plain_name(**d) + " up");
    }
    return commands;
}

Commands route_commands(network_route** current, network_route** desired) {
    Commands commands;
    const network_route* last = nullptr;  // that is still there after the removals
    network_route** at = desired;
    for (; *current; ++current) {
        while (*at && ipv4_route_cmp(*current, *at) != 0) ++at;
        if (*at)
            last = *current;
        else
            commands.push_back(route_command("del", **current));
    }
    for (; *desired; ++desired)
        if (ipv4_route_cmp(last, *desired) != 0)
            commands.push_back(route_command("add", **desired));
    return commands;
}

Commands missing(network_interface** current, network_interface** desired) {
    Commands commands;
    for (network_interface** c = current; *c; ++c) {
        const bool is_bare = (*c)->vlan_id == 0 && (*c)->address_count == 0;
        if (!is_bare) add_removals(**c, find(desired, **c), commands);
    }
    for (network_interface** d = desired; *d; ++d) add_additions(find(current, **d), **d, commands);
    return commands;
}

Commands missing(network_route** current, network_route** desired) {
    Commands commands;
    for (network_route** c = current; *c; ++c)
        if (!contains(desired, **c)) commands.push_back(route_command("del", **c));
    for (network_route** d = desired; *d; ++d)
        if (!contains(current, **d)) commands.push_back(route_command("add", **d));
    return commands;
}

std::string text_of(const ipv4_address& address, bool with_prefix) {
    char text[IPV4_TEXT_SIZE];
    ipv4_to_string_r(&address, with_prefix, text, sizeof text);
    return text;
}

std::string plain(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
    return text;
}

std::vector<ipv4_address> addresses_of(const network_interface& iface) {
    const int count = iface.address_count;
    return {iface.addresses, iface.addresses + std::clamp(count, 0, +NETWORK_MAX_ADDRESSES)};
}

}  // namespace netcfg
