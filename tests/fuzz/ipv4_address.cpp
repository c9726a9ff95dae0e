// Any text as an address: the results and the record are as promised, and an address that was read
// comes back from its own text.

#include <ztlib/utils/network.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    ipv4_address address;
    memset(&address, 0xEE, sizeof address);
    const int result = ipv4_parse_addr(text.c_str(), &address);
    check(result <= 0 && result >= -3);
    if (strlen(text.c_str()) > 129) {
        check(result == -1 && address.prefix == 0xEE);
        return 0;
    }
    for (const uint8_t byte : address.reserved) check(byte == 0);
    if (result != 0) return 0;

    check(address.prefix <= 32);
    char written[IPV4_TEXT_SIZE];
    ipv4_to_string_r(&address, 1, written, sizeof written);
    ipv4_address again;
    check(ipv4_parse_addr(written, &again) == 0);
    check(ipv4_compare(&address, &again) == 0);
    check(ipv4_address_in_network(address.address, again.address, address.prefix) == 1);
    return 0;
}
