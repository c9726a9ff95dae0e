// Integers in network byte order, wherever they lie.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace zt {

template <class Integer>
Integer network_order(Integer value) {
    if constexpr (std::endian::native == std::endian::big) return value;
    if constexpr (sizeof(Integer) == 2) return __builtin_bswap16(value);
    if constexpr (sizeof(Integer) == 4) return __builtin_bswap32(value);
    if constexpr (sizeof(Integer) == 8) return __builtin_bswap64(value);
}

template <class Integer>
Integer read_network_order(const void* source) {
    Integer value;
    memcpy(&value, source, sizeof value);
    return network_order(value);
}

template <class Integer>
void write_network_order(Integer value, void* destination) {
    value = network_order(value);
    memcpy(destination, &value, sizeof value);
}

}  // namespace zt
