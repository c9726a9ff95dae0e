#include "messages.h"

#include <ztlib/buffers/buffer.h>
#include <ztlib/utils/network.h>

#include "text.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace inventory {
namespace {

// --- writing -------------------------------------------------------------------------------------

Document make_document(const char* root) {
    Document document(xmldoc_create_def(root));
    if (!document) throw std::bad_alloc();
    return document;
}

// A further child of `parent`, which owns it.
xmldoc_node* add_element(xmldoc_node* parent, const char* name) {
    xmldoc_node* element = xmldoc_node_create(name);
    if (!element) throw std::bad_alloc();
    xmldoc_node_add_child(parent, element);
    return element;
}

// The node frees its value with free(), so the value comes from strdup().
void add_text(xmldoc_node* parent, const char* name, std::string_view text) {
    xmldoc_node* element = add_element(parent, name);
    element->value = strdup(escaped(text).c_str());
    if (!element->value) throw std::bad_alloc();
}

void add_number(xmldoc_node* parent, const char* name, uint64_t number) {
    add_text(parent, name, std::to_string(number));
}

void add_decimal(xmldoc_node* parent, const char* name, double number) {
    char text[32];
    snprintf(text, sizeof text, "%.2f", number);
    add_text(parent, name, text);
}

void add_traffic(xmldoc_node* parent, const Traffic& traffic) {
    add_number(parent, "received", traffic.received);
    add_number(parent, "sent", traffic.sent);
}

void add_interface(xmldoc_node* parent, const Interface& interface) {
    xmldoc_node* element = add_element(parent, "interface");
    add_text(element, "name", interface.name);
    add_traffic(element, interface.traffic);
    if (!interface.mac.empty()) add_text(element, "mac", interface.mac);
    for (const std::string& address : interface.addresses) add_text(element, "address", address);
}

void add_route(xmldoc_node* parent, const Route& route) {
    xmldoc_node* element = add_element(parent, "route");
    add_text(element, "destination", route.destination);
    add_text(element, "gateway", route.gateway);
}

void fill_host(xmldoc_node* node, const Host& host, Detail detail) {
    add_text(node, "name", host.name);
    add_text(node, "system", host.system);

    xmldoc_node* load = add_element(node, "load");
    add_decimal(load, "one", host.load[0]);
    add_decimal(load, "five", host.load[1]);
    add_decimal(load, "fifteen", host.load[2]);

    xmldoc_node* memory = add_element(node, "memory");
    add_number(memory, "total", host.memory_total);
    add_number(memory, "available", host.memory_available);

    add_traffic(add_element(node, "traffic"), host.traffic);

    if (detail == Detail::brief) return;
    for (const Interface& interface : host.interfaces) add_interface(node, interface);
    for (const Route& route : host.routes) add_route(node, route);
}

// --- reading -------------------------------------------------------------------------------------

constexpr size_t kMaxNumber = 32;  // characters
constexpr double kMaxLoad = 1'000'000;

[[noreturn]] void refuse(const char* element, const char* why) {
    throw Incomplete(std::string(element) + " " + why);
}

const xmldoc_node* child_of(const xmldoc_node* parent, const char* name) {
    const xmldoc_node* child = parent ? xmldoc_node_get(parent, name) : nullptr;
    if (!child) refuse(name, "is missing");
    return child;
}

template <class Number>
Number number_of(const xmldoc_node* parent, const char* name) {
    const std::string text = text_of(parent, name, kMaxNumber);
    const char* end = text.data() + text.size();
    Number number{};
    const auto [stopped, error] = std::from_chars(text.data(), end, number);
    if (error != std::errc() || stopped != end) refuse(name, "is not a number");
    return number;
}

double load_of(const xmldoc_node* parent, const char* name) {
    const double load = number_of<double>(parent, name);
    if (!(load >= 0 && load <= kMaxLoad)) refuse(name, "is out of range");
    return load;
}

Traffic traffic_of(const xmldoc_node* parent) {
    return {number_of<uint64_t>(parent, "received"), number_of<uint64_t>(parent, "sent")};
}

// Hands each child of this name to `take`.
template <class Take>
void for_each_child(const xmldoc_node* parent, const char* name, size_t most, Take take) {
    size_t found = 0;
    for (const xmldoc_node* child = parent->first_child; child; child = child->next_sibling) {
        if (strcmp(child->name, name) != 0) continue;
        if (found++ == most) refuse(name, "comes too often");
        take(child);
    }
}

// The IPv4 address that an element holds, in its usual form. A '/' and the prefix may stand behind
// it.
std::string address_of(const xmldoc_node* element) {
    ipv4_address address;
    if (ipv4_parse_addr(element->value, &address) != 0) refuse(element->name, "is no address");
    char text[32];
    ipv4_to_string_r(&address, strchr(element->value, '/') != nullptr, text, sizeof text);
    return text;
}

Interface interface_of(const xmldoc_node* node) {
    Interface interface {
        text_of(node, "name", kMaxName), traffic_of(node), "", {}
    };
    if (xmldoc_node_get(node, "mac")) interface.mac = text_of(node, "mac", kMaxMac);
    for_each_child(node, "address", kMaxAddresses, [&](const xmldoc_node* child) {
        interface.addresses.push_back(address_of(child));
    });
    return interface;
}

Host host_of(const xmldoc_node* node) {
    Host host;
    host.name = text_of(node, "name", kMaxName);
    host.system = text_of(node, "system", kMaxSystem);

    const xmldoc_node* load = child_of(node, "load");
    host.load = {load_of(load, "one"), load_of(load, "five"), load_of(load, "fifteen")};

    const xmldoc_node* memory = child_of(node, "memory");
    host.memory_total = number_of<uint64_t>(memory, "total");
    host.memory_available = number_of<uint64_t>(memory, "available");
    if (host.memory_available > host.memory_total) refuse("available", "exceeds total");

    host.traffic = traffic_of(child_of(node, "traffic"));

    for_each_child(node, "interface", kMaxInterfaces, [&](const xmldoc_node* child) {
        host.interfaces.push_back(interface_of(child));
    });
    for_each_child(node, "route", kMaxRoutes, [&](const xmldoc_node* child) {
        host.routes.push_back(
            {address_of(child_of(child, "destination")), address_of(child_of(child, "gateway"))});
    });
    return host;
}

}  // namespace

// --- documents -----------------------------------------------------------------------------------

Document report_request(const Host& host) {
    Document request = make_document("report");
    fill_host(add_element(request->root, "host"), host, Detail::full);
    return request;
}

Document list_request() { return make_document("list"); }

Document show_request(std::string_view name) {
    Document request = make_document("show");
    add_text(request->root, "name", name);
    return request;
}

Document hosts_answer() { return make_document("hosts"); }

void add_host(xmldoc& answer, const Host& host, uint64_t age, Detail detail) {
    xmldoc_node* node = add_element(answer.root, "host");
    add_number(node, "age", age);
    fill_host(node, host, detail);
}

Document error_answer(const char* code, std::string_view message) {
    Document answer = make_document("error");
    add_text(answer->root, "code", code);
    add_text(answer->root, "message", message);
    return answer;
}

std::string to_text(const xmldoc& document) {
    buffer text{};
    const int result =
        xmldoc_save(&document, document.root, &text.data, &text.capacity, &text.length);
    const std::unique_ptr<char, decltype(&free)> owner(text.data, free);
    if (result != 0) throw std::bad_alloc();
    return {text.data, text.length};
}

// --- reading what a peer sent --------------------------------------------------------------------

bool is_message(const xmldoc& document, std::string_view name) {
    return document.root && name == document.root->name;
}

std::string text_of(const xmldoc_node* parent, const char* name, size_t max_bytes) {
    const char* value = child_of(parent, name)->value;
    if (!value) refuse(name, "is empty");
    if (!is_plain(value, max_bytes)) refuse(name, "is too long or not plain text");
    return value;
}

Host reported_host(const xmldoc& report) { return host_of(child_of(report.root, "host")); }

std::vector<Host> answered_hosts(const xmldoc& answer) {
    std::vector<Host> hosts;
    for (const xmldoc_node* child = answer.root->first_child; child; child = child->next_sibling) {
        hosts.push_back(host_of(child));
        hosts.back().age = number_of<uint64_t>(child, "age");
    }
    return hosts;
}

}  // namespace inventory
