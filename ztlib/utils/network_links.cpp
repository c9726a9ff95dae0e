// Links as `ip` prints them. The names come first, from one command; then each link is asked for
// its details, if it has a parent, and for its addresses.
//
//     2: eth0.5@eth0: <BROADCAST,MULTICAST,UP,LOWER_UP> mtu 1500 qdisc noqueue state UP ...
//        |----| |--|
//        name   link
//         link/ether 52:54:00:12:34:56 brd ff:ff:ff:ff:ff:ff ...
//                    |---------------| mac
//         vlan protocol 802.1Q id 5 <REORDER_HDR> ...
//                                 | vlan_id
//         inet 10.1.2.3/24 brd 10.1.2.255 scope global eth0.5
//              |---------| addresses

#include <ztlib/utils/network.hpp>

#include <ztlib/base/command.h>

#include <cstdlib>
#include <cstring>
#include <string_view>

using namespace zt::network;

namespace {

constexpr size_t kLineSize = 512;

struct LinkName {
    std::string_view name;
    std::string_view parent;
    bool has_parent;  // though the parent's name may be empty
};

// The name in the first line of a link: it begins behind the first blank that follows the first
// colon, and ends at the next colon. Empty in any other line.
std::string_view find_name(const char* line) {
    if (!strchr(line, '<')) return {};
    const char* const index_end = strchr(line, ':');
    const char* const blank = index_end ? strchr(index_end, ' ') : nullptr;
    const char* const end = blank ? strchr(blank, ':') : nullptr;
    if (!end) return {};
    return {blank + 1, static_cast<size_t>(end - blank) - 1};
}

LinkName split_name(std::string_view name) {
    const void* const found = memchr(name.data(), '@', name.size());
    if (!found) return {name, {}, false};
    const auto at = static_cast<size_t>(static_cast<const char*>(found) - name.data());
    return {{name.data(), at}, {name.data() + at + 1, name.size() - at - 1}, true};
}

network_interface* make_interface(const LinkName& link) {
    auto* iface = zt::allocate_zeroed<network_interface>();
    if (!iface) return nullptr;
    set_field(iface->name, link.name);
    set_field(iface->link, link.parent);
    return iface;
}

// Fills the list with the host's links, which have their names only, and says of each whether it
// has a parent. False when memory is out.
bool list_names(network_interface** list, bool* has_parent) {
    const char* const words[] = {"ip", "link", "list", nullptr};
    zt::CommandOutput output(words);
    char line[kLineSize];
    for (size_t count = 0; count < NETWORK_MAX_LINKS && output.next_line(line);) {
        zt::cut_at_last(line, '\r');
        zt::cut_at_last(line, '\n');
        const std::string_view name = find_name(line);
        if (name.empty()) continue;
        const LinkName link = split_name(name);
        list[count] = make_interface(link);
        if (!list[count]) return false;
        has_parent[count++] = link.has_parent;
    }
    return true;
}

void read_vlan_id(network_interface& iface) {
    constexpr const char* kMark = "id ";
    const Name name(iface.name);
    const char* const words[] = {"ip", "-d", "link", "show", "dev", name.c_str(), nullptr};
    zt::CommandOutput output(words);
    char line[kLineSize];
    while (output.next_line(line)) {
        const char* const mark = strstr(line, kMark);
        if (!mark) continue;
        iface.vlan_id = static_cast<uint32_t>(strtol(mark + strlen(kMark), nullptr, 10));
        return;
    }
}

// The token behind the first `mark` in the line, up to the next blank; empty without a mark.
std::string_view token_behind(const char* mark, const char* line) {
    const char* token = strstr(line, mark);
    if (!token) return {};
    token += strlen(mark);
    token += strspn(token, " ");
    return {token, strcspn(token, " ")};
}

void add_address(network_interface& iface, std::string_view token) {
    if (iface.address_count == NETWORK_MAX_ADDRESSES) return;
    char text[kLineSize];
    set_field(text, token);
    ipv4_address address{};
    ipv4_parse_addr(text, &address);
    iface.addresses[iface.address_count++] = address;
}

void read_addresses(network_interface& iface) {
    const Name name(iface.name);
    const char* const words[] = {"ip", "addr", "list", "dev", name.c_str(), nullptr};
    zt::CommandOutput output(words);
    char line[kLineSize];
    while (output.next_line(line)) {
        zt::cut_at_last(line, '\n');
        if (const std::string_view mac = token_behind("link/ether", line); !mac.empty())
            set_field(iface.mac, mac);
        if (const std::string_view address = token_behind("inet ", line); !address.empty())
            add_address(iface, address);
    }
}

}  // namespace

extern "C" network_interface** network_interfaces_list() {
    OwnedInterfaces list(zt::allocate_zeroed<network_interface*>(NETWORK_MAX_LINKS + 1));
    bool has_parent[NETWORK_MAX_LINKS];
    if (!list || !list_names(list.get(), has_parent)) return nullptr;

    for (size_t i = 0; list.get()[i]; ++i) {
        network_interface& iface = *list.get()[i];
        if (has_parent[i]) read_vlan_id(iface);
        read_addresses(iface);
    }
    return list.release();
}

extern "C" void network_interfaces_free(network_interface** list) { free_list(list); }

extern "C" network_interface* _network_interface_find(network_interface** list, const char* name) {
    if (!list || !name) return nullptr;
    for (; *list; ++list)
        if (strcmp(Name((*list)->name).c_str(), name) == 0) return *list;
    return nullptr;
}
