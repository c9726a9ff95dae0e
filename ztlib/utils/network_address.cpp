// Addresses as text and as numbers. A record's mask is only ever written: what compares addresses
// goes by the prefix.

#include <ztlib/utils/network.h>

#include <ztlib/base/memory.h>

#include <bit>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <arpa/inet.h>

namespace {

constexpr size_t kTextSize = 130;  // longest text that is read, its end included
constexpr unsigned kBits = 32;
constexpr uint32_t kAllOnes = 0xFFFFFFFF;

enum ParseResult {
    kParsed = 0,
    kNoAddress = -1,
    kPrefixTooLong = -2,
    kNoPrefix = -3,
};

// Reads a dotted address as its four bytes stand in memory.
bool parse_dotted(const char* text, uint32_t& bytes) {
    return inet_pton(AF_INET, text, &bytes) == 1;
}

bool parse_address(const char* text, ipv4_address& out) {
    uint32_t bytes;
    if (!parse_dotted(text, bytes)) return false;
    out.address = ntohl(bytes);
    return true;
}

ParseResult parse_prefix(const char* text, ipv4_address& out) {
    out.prefix = static_cast<uint8_t>(strtol(text, nullptr, 10));
    if (out.prefix > kBits) return kPrefixTooLong;
    if (out.prefix == 0 && strcmp(text, "0") != 0) return kNoPrefix;
    out.mask = kAllOnes << (out.prefix % kBits);
    return kParsed;
}

ParseResult parse_mask_or_prefix(const char* text, ipv4_address& out) {
    uint32_t mask;
    if (!parse_dotted(text, mask)) return parse_prefix(text, out);
    out.mask = mask;
    out.prefix = static_cast<uint8_t>(std::popcount(mask));
    return kParsed;
}

unsigned octet(uint32_t address, int index) { return address >> (8 * (3 - index)) & 0xFF; }

}  // namespace

extern "C" ipv4_address* ipv4_address_create() { return zt::allocate_zeroed<ipv4_address>(); }

extern "C" int ipv4_parse_addr(const char* text, ipv4_address* out) {
    if (!text || !out || strnlen(text, kTextSize) == kTextSize) return kNoAddress;
    char work[kTextSize];
    strcpy(work, text);
    *out = {};

    char* const slash = strrchr(work, '/');
    if (slash) *slash = '\0';
    if (!parse_address(work, *out)) return kNoAddress;
    if (slash) return parse_mask_or_prefix(slash + 1, *out);

    out->prefix = kBits;
    out->mask = kAllOnes;
    return kParsed;
}

extern "C" int ipv4_to_string_r(const ipv4_address* address, int with_prefix, char* buffer,
                                unsigned size) {
    if (!address || !buffer) return 0;
    const uint32_t number = address->address;
    char prefix[sizeof "/255"] = "";
    if (with_prefix & 1) snprintf(prefix, sizeof prefix, "/%u", unsigned{address->prefix});
    snprintf(buffer, size, "%u.%u.%u.%u%s", octet(number, 0), octet(number, 1), octet(number, 2),
             octet(number, 3), prefix);
    return 0;
}

extern "C" char* ipv4_to_string(const ipv4_address* address, int with_prefix) {
    static char text[128];
    if (!address) return nullptr;
    ipv4_to_string_r(address, with_prefix, text, sizeof text);
    return text;
}

extern "C" int ipv4_address_in_network(uint32_t address, uint32_t network, uint32_t prefix) {
    if (prefix == 0) return 1;
    const unsigned ignored = prefix < kBits ? kBits - prefix : 0;
    return address >> ignored == network >> ignored;
}

extern "C" int ipv4_compare(const ipv4_address* a, const ipv4_address* b) {
    if (!a && !b) return 0;
    if (!a) return 1;
    if (!b) return -1;
    if (a->prefix != b->prefix) return a->prefix > b->prefix ? 2 : -2;
    if (a->address == b->address) return 0;
    return a->address > b->address ? -3 : 3;
}

extern "C" int ipv4_route_cmp(const network_route* a, const network_route* b) {
    if (!a && !b) return 0;
    if (!a) return 1;
    if (!b) return -1;
    const bool equal = ipv4_compare(&a->destination, &b->destination) == 0 &&
                       ipv4_compare(&a->gateway, &b->gateway) == 0;
    return equal ? 0 : -1;
}
