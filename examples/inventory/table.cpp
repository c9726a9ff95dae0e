#include "table.h"

#include "text.h"

#include <algorithm>
#include <cstdio>

namespace inventory {
namespace {

enum class Align { left, right };

struct Column {
    const char* title;
    Align align;
};

using Row = std::vector<std::string>;

constexpr size_t kGap = 2;  // blanks between two columns

// Every column is as wide as its widest cell; no line ends in blanks.
std::string table(const std::vector<Column>& columns, const std::vector<Row>& rows) {
    std::vector<size_t> widths;
    for (size_t i = 0; i < columns.size(); ++i) {
        widths.push_back(width(columns[i].title));
        for (const Row& row : rows) widths[i] = std::max(widths[i], width(row[i]));
    }

    std::string text;
    const auto add_line = [&](auto cell) {
        size_t owed = 0;  // blanks that only a further cell makes visible
        for (size_t i = 0; i < columns.size(); ++i) {
            const std::string_view content = cell(i);
            const size_t fill = widths[i] - width(content);
            const bool right = columns[i].align == Align::right;
            if (content.empty()) {
                owed += fill + kGap;
                continue;
            }
            text.append(owed + (right ? fill : 0), ' ').append(content);
            owed = kGap + (right ? 0 : fill);
        }
        text += '\n';
    };
    add_line([&](size_t i) -> std::string_view { return columns[i].title; });
    for (const Row& row : rows) add_line([&](size_t i) -> std::string_view { return row[i]; });
    return text;
}

std::string decimal(double number, int digits) {
    char text[64];
    snprintf(text, sizeof text, "%.*f", digits, number);
    return text;
}

// "512 B", "7.8 GiB".
std::string size_text(uint64_t bytes) {
    constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    constexpr double kAlmostNext = 1023.95;  // would print as 1024.0
    size_t unit = 0;
    double size = static_cast<double>(bytes);
    for (; size >= kAlmostNext; size /= 1024) ++unit;
    return decimal(size, unit ? 1 : 0) + " " + kUnits[unit];
}

std::string age_text(uint64_t seconds) {
    constexpr uint64_t kMinute = 60, kHour = 60 * kMinute, kDay = 24 * kHour;
    if (seconds < 2 * kMinute) return std::to_string(seconds) + " s ago";
    if (seconds < 2 * kHour) return std::to_string(seconds / kMinute) + " min ago";
    if (seconds < 2 * kDay) return std::to_string(seconds / kHour) + " h ago";
    return std::to_string(seconds / kDay) + " d ago";
}

// An interface's first line holds what there is one of, a further one another address.
std::string interfaces_table(const std::vector<Interface>& interfaces) {
    std::vector<Row> rows;
    for (const Interface& interface : interfaces) {
        const std::vector<std::string>& addresses = interface.addresses;
        rows.push_back({interface.name, addresses.empty() ? "" : addresses.front(), interface.mac,
                        size_text(interface.traffic.received), size_text(interface.traffic.sent)});
        for (size_t i = 1; i < addresses.size(); ++i)
            rows.push_back({"", addresses[i], "", "", ""});
    }
    return table({{"INTERFACE", Align::left},
                  {"ADDRESS", Align::left},
                  {"MAC", Align::left},
                  {"RECEIVED", Align::right},
                  {"SENT", Align::right}},
                 rows);
}

std::string routes_table(const std::vector<Route>& routes) {
    std::vector<Row> rows;
    for (const Route& route : routes) rows.push_back({route.destination, route.gateway});
    return table({{"ROUTE", Align::left}, {"VIA", Align::left}}, rows);
}

uint64_t memory_used(const Host& host) { return host.memory_total - host.memory_available; }

}  // namespace

std::string hosts_table(const std::vector<Host>& hosts) {
    const std::vector<Column> columns = {
        {"HOST", Align::left},      {"SYSTEM", Align::left},    {"LOAD 1", Align::right},
        {"5", Align::right},        {"15 MIN", Align::right},   {"MEMORY USED", Align::right},
        {"TOTAL", Align::right},    {"RECEIVED", Align::right}, {"SENT", Align::right},
        {"REPORTED", Align::right},
    };
    std::vector<Row> rows;
    for (const Host& host : hosts) {
        rows.push_back({host.name, host.system, decimal(host.load[0], 2), decimal(host.load[1], 2),
                        decimal(host.load[2], 2), size_text(memory_used(host)),
                        size_text(host.memory_total), size_text(host.traffic.received),
                        size_text(host.traffic.sent), age_text(host.age)});
    }
    return table(columns, rows);
}

std::string host_page(const Host& host) {
    std::string page = "host      " + host.name + "\nsystem    " + host.system + "\nload     ";
    for (const double load : host.load) page += " " + decimal(load, 2);
    page += "\nmemory    " + size_text(memory_used(host)) + " used of " +
            size_text(host.memory_total) + "\nreported  " + age_text(host.age) + "\n\n";

    return page + interfaces_table(host.interfaces) +
           (host.routes.empty() ? "" : "\n" + routes_table(host.routes));
}

std::string host_line(const Host& host) {
    return host.name + "  load " + decimal(host.load[0], 2) + "  memory " +
           size_text(memory_used(host)) + " of " + size_text(host.memory_total) + "  received " +
           size_text(host.traffic.received) + "  sent " + size_text(host.traffic.sent);
}

}  // namespace inventory
