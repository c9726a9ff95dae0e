// What `ip` prints, in parts that a byte 1 divides: the links, a link's details, its addresses, the
// routes. Whatever they are, the lists are well formed and can be applied.

#include <ztlib/utils/network.h>

#include "pretended_ip.h"

#include <cstdint>
#include <cstdio>

namespace {

using pretended::check;
using pretended::Words;

std::string parts[4];

std::string answer(const Words& words) {
    if (words == Words{"link", "list"}) return parts[0];
    if (words[0] == "-d") return parts[1];
    if (words[0] == "addr") return parts[2];
    check(words == Words{"route"});
    return parts[3];
}

template <size_t Size>
bool is_terminated(const char (&field)[Size]) {
    return strnlen(field, Size) < Size;
}

void check_interfaces(network_interface** list) {
    int count = 0;
    for (; *list; ++list, ++count) {
        const network_interface& iface = **list;
        check(is_terminated(iface.name) && is_terminated(iface.link) && is_terminated(iface.mac));
        check(iface.address_count >= 0 && iface.address_count <= NETWORK_MAX_ADDRESSES);
    }
    check(count <= NETWORK_MAX_LINKS);
}

void check_routes(network_route** list) {
    for (; *list; ++list) {
        check((*list)->destination.prefix <= 32);
        check((*list)->gateway.prefix <= 32);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    stderr = fopen("/dev/null", "w");  // the library's lines; the fuzzer keeps its own stream
    pretended::answer = answer;
    pretended::changed = [](const Words&) {};
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    for (std::string& part : parts) part.clear();
    size_t part = 0;
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 1 && part < 3)
            ++part;
        else
            parts[part] += static_cast<char>(data[i]);
    }

    network_interface** const interfaces = network_interfaces_list();
    check_interfaces(interfaces);
    check(network_interfaces_apply(interfaces) == 0);
    network_interfaces_free(interfaces);

    network_route** const routes = network_routes_list();
    check_routes(routes);
    check(network_routes_apply(routes) == 0);
    network_routes_free(routes);
    return 0;
}
