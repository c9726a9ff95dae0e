// What network_interfaces_apply() and network_routes_apply() are going to run, worked out from what
// the host has and what it is to have.
#pragma once

#include <ztlib/utils/network.h>

#include <string>
#include <vector>

namespace netcfg {

// Commands as they are shown: with plain names.
using Commands = std::vector<std::string>;

Commands interface_commands(network_interface** current, network_interface** desired);
Commands route_commands(network_route** current, network_route** desired);

// The commands that it would take to bring the host to what it is to have; empty when it is there.
// They are fewer than the above, which set up and add again what is there.
Commands missing(network_interface** current, network_interface** desired);
Commands missing(network_route** current, network_route** desired);

// "10.1.2.3/24", "10.1.2.3".
std::string text_of(const ipv4_address& address, bool with_prefix);

// A field of a record, which in a damaged file may have no end of its own.
template <size_t Size>
std::string text_of(const char (&field)[Size]) {
    const std::string all(field, Size);
    return all.substr(0, all.find('\0'));
}

// The text with '?' for control characters. Names and search lists are other people's: none of them
// moves the cursor.
std::string plain(std::string text);

// Those of an interface's addresses that are in use.
std::vector<ipv4_address> addresses_of(const network_interface& iface);

}  // namespace netcfg
