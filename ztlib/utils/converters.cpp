// Bytes, numbers and text without state; base64 has sources of its own.

#include <ztlib/utils/converters.h>

#include <bit>
#include <cstring>

namespace {

template <class Integer>
Integer network_order(Integer value) {
    static_assert(std::endian::native == std::endian::little);
    if constexpr (sizeof(Integer) == 2) return __builtin_bswap16(value);
    if constexpr (sizeof(Integer) == 4) return __builtin_bswap32(value);
    if constexpr (sizeof(Integer) == 8) return __builtin_bswap64(value);
}

template <class Integer>
Integer read_network_order(const void* bytes, int start) {
    if (!bytes) return 0;
    Integer value;
    memcpy(&value, static_cast<const char*>(bytes) + start, sizeof value);
    return network_order(value);
}

template <class Integer>
void write_network_order(Integer value, void* destination) {
    if (!destination) return;
    value = network_order(value);
    memcpy(destination, &value, sizeof value);
}

}  // namespace

extern "C" uint16_t be_byte2uint16(const void* bytes, int start) {
    return read_network_order<uint16_t>(bytes, start);
}

extern "C" uint32_t be_byte2uint32(const void* bytes, int start) {
    return read_network_order<uint32_t>(bytes, start);
}

extern "C" uint64_t be_byte2uint64(const void* bytes, int start) {
    return read_network_order<uint64_t>(bytes, start);
}

extern "C" void be_uint162byte(uint16_t value, void* destination) {
    write_network_order(value, destination);
}

extern "C" void be_uint322byte(uint32_t value, void* destination) {
    write_network_order(value, destination);
}

extern "C" void be_uint642byte(uint64_t value, void* destination) {
    write_network_order(value, destination);
}
