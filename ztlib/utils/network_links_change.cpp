// Changing links and their addresses: single commands, and bringing the host to a wanted state in
// two passes, removal before addition. Nothing here looks at a command's result but its caller.

#include <ztlib/utils/network.hpp>

#include <cstdio>

using namespace zt::network;

namespace {

bool holds(const network_interface* iface, const ipv4_address& address) {
    if (!iface) return false;
    const ipv4_address* const begin = iface->addresses;
    return std::any_of(begin, begin + address_count(*iface), [&](const ipv4_address& held) {
        return ipv4_compare(&held, &address) == 0;
    });
}

// Takes from a link that is there what is not desired of it; `desired` is null for all of it.
void remove_undesired(const network_interface& current, const network_interface* desired) {
    if (desired) {
        for (size_t i = 0; i < address_count(current); ++i)
            if (!holds(desired, current.addresses[i]))
                _network_interface_ip_del(&current, &current.addresses[i]);
    } else if (current.vlan_id != 0) {
        _network_interface_destroy(&current);
    } else {
        _network_interface_flush(&current);
    }
}

// Gives the host what is desired of a link; `current` is null for one that is not there.
void add_missing(const network_interface* current, const network_interface& desired) {
    if (!current && desired.vlan_id != 0) _network_interface_create(&desired);
    for (size_t i = 0; i < address_count(desired); ++i)
        if (!holds(current, desired.addresses[i]))
            _network_interface_ip_add(&desired, &desired.addresses[i]);
    _network_interface_up(&desired);
}

network_interface* find(network_interface** list, const network_interface& iface) {
    return _network_interface_find(list, Name(iface.name).c_str());
}

// Calls `change` for each of the host's links, unless they cannot be listed.
template <class Change>
void for_each_current_link(Change change) {
    const OwnedInterfaces current(network_interfaces_list());
    if (!current) return;
    for (network_interface** iface = current.get(); *iface; ++iface) change(**iface);
}

}  // namespace

extern "C" int _network_interface_create(const network_interface* iface) {
    if (!iface) return -1;
    const Name link(iface->link), name(iface->name);
    char id[sizeof "4294967295"];
    snprintf(id, sizeof id, "%u", iface->vlan_id);
    const char* const words[] = {"ip",         "link", "add",  "link", link.c_str(), "name",
                                 name.c_str(), "type", "vlan", "id",   id,           nullptr};
    return print_and_run(words);
}

extern "C" int _network_interface_destroy(const void* iface) {
    if (!iface) return -1;
    const Name name(iface);
    const char* const words[] = {"ip", "link", "delete", name.c_str(), nullptr};
    return print_and_run(words);
}

extern "C" int _network_interface_flush(const void* iface) {
    if (!iface) return -1;
    const Name name(iface);
    const char* const words[] = {"ip", "addr", "flush", "dev", name.c_str(), nullptr};
    return print_and_run(words);
}

extern "C" int _network_interface_ip_add(const void* iface, const ipv4_address* address) {
    if (!iface || !address) return -1;
    const Name name(iface);
    const AddressText text(*address, true);
    const char* const words[] = {"ip", "addr", "add", text.c_str(), "dev", name.c_str(), nullptr};
    return print_and_run(words);
}

extern "C" int _network_interface_ip_del(const void* iface, const ipv4_address* address) {
    if (!iface || !address) return -1;
    const Name name(iface);
    const AddressText text(*address, true);
    const char* const words[] = {"ip", "addr", "del", text.c_str(), "dev", name.c_str(), nullptr};
    return print_and_run(words);
}

extern "C" int _network_interface_up(const void* iface) {
    if (!iface) return -1;
    const Name name(iface);
    const char* const words[] = {"ip", "link", "set", "dev", name.c_str(), "up", nullptr};
    return print_and_run(words);
}

extern "C" int _network_interface_down(const void* iface) {
    if (!iface) return -1;
    const Name name(iface);
    const char* const words[] = {"ip", "link", "set", "dev", name.c_str(), "down", nullptr};
    return print_and_run(words);
}

extern "C" void network_interfaces_flush() {
    for_each_current_link([](const network_interface& iface) { _network_interface_flush(&iface); });
}

extern "C" void network_interfaces_destroy() {
    for_each_current_link([](const network_interface& iface) {
        if (iface.vlan_id != 0) _network_interface_destroy(&iface);
    });
}

extern "C" int network_interfaces_apply(network_interface** desired) {
    if (!desired) return 0;
    for_each_current_link([&](const network_interface& current) {
        remove_undesired(current, find(desired, current));
    });

    const OwnedInterfaces current(network_interfaces_list());
    for (; *desired; ++desired) add_missing(find(current.get(), **desired), **desired);
    return 0;
}
