// Lists of the host's network configuration as texts, and made from texts.
#pragma once

#include <ztlib/utils/network.h>

#include <tests/support/program.h>

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace zt_test {

inline ipv4_address address_of(const std::string& text) {
    ipv4_address address{};
    EXPECT_EQ(ipv4_parse_addr(text.c_str(), &address), 0) << text;
    return address;
}

inline std::string text_of(const ipv4_address& address, bool with_prefix = true) {
    char text[IPV4_TEXT_SIZE];
    ipv4_to_string_r(&address, with_prefix, text, sizeof text);
    return text;
}

// "eth0.5@eth0 5 52:54:00:12:34:56 10.1.2.3/24 10.1.2.4/24": the parent, a VLAN id other than 0 and
// the rest only where they are there.
inline std::string text_of(const network_interface& iface) {
    std::string text = iface.name;
    if (*iface.link) text += std::string("@") + iface.link;
    if (iface.vlan_id) text += " " + std::to_string(iface.vlan_id);
    if (*iface.mac) text += std::string(" ") + iface.mac;
    for (int i = 0; i < iface.address_count; ++i) text += " " + text_of(iface.addresses[i]);
    return text;
}

// "10.7.0.0/16 via 10.1.2.1"
inline std::string text_of(const network_route& route) {
    return text_of(route.destination) + " via " + text_of(route.gateway, false);
}

template <class Record>
Strings texts_of(Record** list) {
    Strings texts;
    for (; list && *list; ++list) texts.push_back(text_of(**list));
    return texts;
}

struct ReleaseList {
    void operator()(network_interface** list) const { network_interfaces_free(list); }
    void operator()(network_route** list) const { network_routes_free(list); }
};
using Interfaces = std::unique_ptr<network_interface*, ReleaseList>;
using Routes = std::unique_ptr<network_route*, ReleaseList>;

// What the host lists now, as texts.
inline Strings listed_interfaces() { return texts_of(Interfaces(network_interfaces_list()).get()); }
inline Strings listed_routes() { return texts_of(Routes(network_routes_list()).get()); }

// A list of the test's own.
template <class Record>
class Wanted {
  public:
    Wanted(std::initializer_list<Record> records) : records_(records) {
        for (Record& record : records_) list_.push_back(&record);
        list_.push_back(nullptr);
    }
    Record** list() { return list_.data(); }

  private:
    std::vector<Record> records_;
    std::vector<Record*> list_;
};

inline network_interface interface_of(const std::string& name, const Strings& addresses = {},
                                      const std::string& parent = "", uint32_t vlan_id = 0) {
    network_interface iface{};
    snprintf(iface.name, sizeof iface.name, "%s", name.c_str());
    snprintf(iface.link, sizeof iface.link, "%s", parent.c_str());
    iface.vlan_id = vlan_id;
    for (const std::string& address : addresses)
        iface.addresses[iface.address_count++] = address_of(address);
    return iface;
}

inline network_route route_of(const std::string& destination, const std::string& gateway) {
    return {address_of(destination), address_of(gateway)};
}

}  // namespace zt_test
