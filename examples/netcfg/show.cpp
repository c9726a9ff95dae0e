#include "show.h"

#include "plan.h"

#include <algorithm>
#include <vector>

namespace netcfg {
namespace {

using Row = std::vector<std::string>;

constexpr size_t kGap = 2;  // blanks between two columns

// Every column is as wide as its widest cell; no line ends in blanks.
std::string table(const std::vector<Row>& rows) {
    std::vector<size_t> widths(rows.front().size());
    for (const Row& row : rows)
        for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], row[i].size());

    std::string text;
    for (const Row& row : rows) {
        std::string line;
        for (size_t i = 0; i < row.size(); ++i)
            line += row[i] + std::string(widths[i] - row[i].size() + kGap, ' ');
        text += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return text;
}

Row row_of(const network_interface& iface) {
    std::string addresses;
    for (const ipv4_address& address : addresses_of(iface))
        addresses += (addresses.empty() ? "" : " ") + text_of(address, true);
    const std::string vlan = iface.vlan_id ? std::to_string(iface.vlan_id) : "";
    return {plain(text_of(iface.name)), plain(text_of(iface.link)), vlan, plain(text_of(iface.mac)),
            addresses};
}

Row row_of(const network_route& route) {
    const bool is_default = route.destination.address == 0 && route.destination.prefix == 0;
    return {is_default ? "default" : text_of(route.destination, true),
            text_of(route.gateway, false)};
}

template <class Record>
std::string table(const Row& titles, Record** list) {
    std::vector<Row> rows = {titles};
    for (; *list; ++list) rows.push_back(row_of(**list));
    return table(rows);
}

std::string table(const network_resolv& resolv) {
    std::vector<Row> rows = {{"RESOLVER", ""}};
    if (*resolv.search) rows.push_back({"search", plain(text_of(resolv.search))});
    for (int i = 0; i < resolv.nameserver_count; ++i)
        rows.push_back({"name server", text_of(resolv.nameservers[i], false)});
    return table(rows);
}

}  // namespace

std::string page(const Configuration& host, const network_resolv* resolv) {
    std::string text =
        table({"INTERFACE", "LINK", "VLAN", "MAC", "ADDRESSES"}, host.interfaces.get()) + "\n" +
        table({"DESTINATION", "GATEWAY"}, host.routes.get());
    if (resolv) text += "\n" + table(*resolv);
    return text;
}

}  // namespace netcfg
