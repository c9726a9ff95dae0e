// Bytes, numbers and text. Base64 has sources of its own (base64.cpp, base64_openssl.cpp).
//
// Long hexadecimal text goes through vectors.hpp in blocks; what is left, and every pair that is
// not two plain digits, goes one by one.

#include <ztlib/utils/converters.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>
#include <ztlib/base/network_order.h>
#include <ztlib/base/stderr_block.h>
#include <ztlib/utils/hex.hpp>
#include <ztlib/utils/vectors.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr const char* kModule = "./utils/converters";

// --- hexadecimal ---------------------------------------------------------------------------------

constexpr char kDigits[] = "0123456789abcdef";
constexpr uint8_t kNoDigit = 0xFF;

constexpr std::array<uint8_t, 256> kDigitValues = [] {
    std::array<uint8_t, 256> values;
    values.fill(kNoDigit);
    for (uint8_t i = 0; i < 10; ++i) values['0' + i] = i;
    for (uint8_t i = 0; i < 6; ++i)
        values['a' + i] = values['A' + i] = static_cast<uint8_t>(10 + i);
    return values;
}();

uint8_t digit_value(char c) { return kDigitValues[static_cast<unsigned char>(c)]; }

// A pair with a blank, a sign, "0x" or anything else in it.
[[gnu::noinline]] unsigned char read_odd_pair(const char* pair) {
    const char text[] = {pair[0], pair[1], '\0'};
    return static_cast<unsigned char>(strtoul(text, nullptr, 16));
}

unsigned char read_pair(const char* pair) {
    const uint8_t high = digit_value(pair[0]);
    const uint8_t low = digit_value(pair[1]);
    if ((high | low) == kNoDigit) [[unlikely]]
        return read_odd_pair(pair);
    return static_cast<unsigned char>(high << 4 | low);
}

// --- integers in network order -------------------------------------------------------------------

template <class Integer>
Integer read_network_order(const void* bytes, int start) {
    if (!bytes) return 0;
    return zt::read_network_order<Integer>(static_cast<const char*>(bytes) + start);
}

template <class Integer>
void write_network_order(Integer value, void* destination) {
    if (destination) zt::write_network_order(value, destination);
}

// --- decimal -------------------------------------------------------------------------------------

constexpr unsigned kSharedTextSize = 128;

char shared_text[kSharedTextSize];

char* print_decimal(uint64_t value, char* destination, unsigned size) {
    if (destination) snprintf(destination, size, "%lu", value);
    return destination;
}

wchar_t* print_decimal(uint64_t value, wchar_t* destination, unsigned size) {
    if (destination) swprintf(destination, size, L"%lu", value);
    return destination;
}

// --- narrow and wide -----------------------------------------------------------------------------

// The two directions of the locale's conversion differ in names and in whether the terminator goes
// along.
struct ToWide {
    using From = char;
    using To = wchar_t;
    static constexpr size_t kTerminator = 1;
    static constexpr int kOutOfMemory = -3;
    static size_t convert(wchar_t* to, const char* from, size_t limit) {
        return mbstowcs(to, from, limit);
    }
};

struct ToNarrow {
    using From = wchar_t;
    using To = char;
    static constexpr size_t kTerminator = 0;
    static constexpr int kOutOfMemory = -2;
    static size_t convert(char* to, const wchar_t* from, size_t limit) {
        return wcstombs(to, from, limit);
    }
};

constexpr size_t kCannotConvert = static_cast<size_t>(-1);

template <class Direction>
int convert_text(const typename Direction::From* text, typename Direction::To** out,
                 zt::Site site) {
    using To = typename Direction::To;

    const auto out_of_memory = [site] {
        zt::report_call(site, "calloc", LOGGER_ERROR);
        return Direction::kOutOfMemory;
    };

    const size_t count = Direction::convert(nullptr, text, 0);
    if (count == kCannotConvert) return -1;
    if (count > INT_MAX) {
        errno = ENOMEM;
        return out_of_memory();
    }
    if (!out) return static_cast<int>(count);

    zt::Owned<To> fresh;
    if (!*out) {
        fresh.reset(static_cast<To*>(calloc(count + 1, sizeof(To))));
        if (!fresh) return out_of_memory();
    }
    To* const target = fresh ? fresh.get() : *out;
    const size_t converted = Direction::convert(target, text, count + Direction::kTerminator);
    if (converted == kCannotConvert) return -1;
    if (fresh) *out = fresh.release();
    return static_cast<int>(converted);
}

}  // namespace

void zt::hex_encode(const unsigned char* bytes, size_t length, char* out, bool use_vectors) {
    size_t done = use_vectors ? vectors::hex_encode(bytes, length, out) : 0;
    for (; done < length; ++done) {
        out[2 * done] = kDigits[bytes[done] >> 4];
        out[2 * done + 1] = kDigits[bytes[done] & 15];
    }
}

void zt::hex_decode(const char* hex, size_t pairs, unsigned char* out, bool use_vectors) {
    for (size_t done = 0; done < pairs;) {
        if (use_vectors) done += vectors::hex_decode(hex + 2 * done, pairs - done, out + done);
        const size_t stop = std::min(pairs, done + vectors::kHexPairs);
        for (; done < stop; ++done) out[done] = read_pair(hex + 2 * done);
    }
}

extern "C" void tohexstring(const void* bytes, unsigned length, char* out, unsigned /*out_size*/) {
    if (!out || (!bytes && length != 0)) return;
    zt::hex_encode(static_cast<const unsigned char*>(bytes), length, out, zt::vectors::available());
    out[2 * size_t{length}] = '\0';
}

extern "C" int hextobytes(const char* hex, unsigned hex_length, void* out, unsigned out_capacity) {
    if (hex_length == 0 || hex_length % 2 != 0) return -1;
    const unsigned pairs = hex_length / 2;
    if (pairs > out_capacity) return -2;
    if (!hex || !out) return -1;

    zt::hex_decode(hex, pairs, static_cast<unsigned char*>(out), zt::vectors::available());
    return static_cast<int>(pairs);
}

extern "C" int bytecmp(const void* a, const void* b, int length) {
    if (length <= 0) return 0;
    if (!a || !b) return -1;
    const int difference = memcmp(a, b, static_cast<size_t>(length));
    return (difference > 0) - (difference < 0);
}

extern "C" void dump_array(const void* bytes, unsigned length) {
    if (!bytes && length != 0) return;
    zt::StderrBlock out;
    out.print("dump: ");
    for (unsigned i = 0; i < length; ++i)
        out.print("%02X ", static_cast<const unsigned char*>(bytes)[i]);
    out.print("\n");
}

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

extern "C" char* strreplace(const char* text, const char* find, const char* replacement,
                            int* replaced) {
    if (replaced) *replaced = 0;
    if (!text || !find || !replacement) return nullptr;
    const char* const at = strstr(text, find);
    if (!at) return const_cast<char*>(text);

    const auto before = static_cast<size_t>(at - text);
    const size_t middle = strlen(replacement);
    const char* const rest = at + strlen(find);
    const size_t after = strlen(rest);
    char* const result = zt::allocate<char>(before + middle + after + 1);
    if (!result) return nullptr;
    memcpy(result, text, before);
    memcpy(result + before, replacement, middle);
    memcpy(result + before + middle, rest, after + 1);
    if (replaced) *replaced = 1;
    return result;
}

extern "C" char* u82str(uint64_t value) { return u82str_r(value, shared_text, kSharedTextSize); }
extern "C" char* u162str(uint64_t value) { return u162str_r(value, shared_text, kSharedTextSize); }
extern "C" char* u322str(uint64_t value) { return u322str_r(value, shared_text, kSharedTextSize); }
extern "C" char* u642str(uint64_t value) { return u642str_r(value, shared_text, kSharedTextSize); }

extern "C" char* u82str_r(uint64_t value, char* destination, unsigned size) {
    return print_decimal(static_cast<uint8_t>(value), destination, size);
}

extern "C" char* u162str_r(uint64_t value, char* destination, unsigned size) {
    return print_decimal(static_cast<uint16_t>(value), destination, size);
}

extern "C" char* u322str_r(uint64_t value, char* destination, unsigned size) {
    return print_decimal(static_cast<uint32_t>(value), destination, size);
}

extern "C" char* u642str_r(uint64_t value, char* destination, unsigned size) {
    return print_decimal(value, destination, size);
}

extern "C" wchar_t* u82wstr_r(uint64_t value, wchar_t* destination, unsigned size) {
    return print_decimal(static_cast<uint8_t>(value), destination, size);
}

extern "C" wchar_t* u162wstr_r(uint64_t value, wchar_t* destination, unsigned size) {
    return print_decimal(static_cast<uint16_t>(value), destination, size);
}

extern "C" wchar_t* u322wstr_r(uint64_t value, wchar_t* destination, unsigned size) {
    return print_decimal(static_cast<uint32_t>(value), destination, size);
}

extern "C" wchar_t* u642wstr_r(uint64_t value, wchar_t* destination, unsigned size) {
    return print_decimal(value, destination, size);
}

extern "C" int str2wchr(const char* text, wchar_t** out) {
    const zt::Site here{kModule, __func__};
    if (!text) {
        zt::report(here, LOGGER_ERROR, "%s(): %s", "null input parameter", strerror(errno));
        return -1;
    }
    return convert_text<ToWide>(text, out, here);
}

extern "C" int wchr2str(const wchar_t* text, char** out) {
    if (!text) return -1;
    return convert_text<ToNarrow>(text, out, {kModule, __func__});
}
