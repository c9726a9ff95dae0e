// The three fields of a byte buffer lie in whatever record embeds them, so every operation works on
// references to them. Sizes are added up in size_t and compared with the 32 bits of the fields
// where they would enter them.
//
// A formatted append guesses the text's size (format_estimate.hpp), grows once and prints once,
// straight into the buffer. A second print is for the rare text that was longer than the guess.

#include <ztlib/buffers/buffer.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>
#include <ztlib/buffers/format_estimate.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>

namespace {

constexpr const char* kModule = "./buffers/buffer";

constexpr size_t kMostForAppend = UINT32_MAX;   // the capacity that buffer_append() grows to
constexpr size_t kMostForMakeRoom = INT32_MAX;  // ... and buffer_make_room()
constexpr size_t kMoreThanFits = SIZE_MAX / 4;  // a count that no buffer has room for
constexpr size_t kFormatSlack = 32;
constexpr size_t kUsualText = 256;  // what a formatted append seldom goes beyond

struct Fields {
    char*& data;
    unsigned& capacity;
    unsigned& length;

    // `more` bytes and a terminator fit behind the text.
    bool has_room(size_t more) const { return data && length + more < capacity; }
    char* end() const { return data + length; }
};

template <class Word>
void copy_ends(char* to, const char* from, size_t n) {
    Word first, last;
    memcpy(&first, from, sizeof first);
    memcpy(&last, from + n - sizeof last, sizeof last);
    memcpy(to, &first, sizeof first);
    memcpy(to + n - sizeof last, &last, sizeof last);
}

// As memcpy(), whose call a short piece would mostly pay for. Nothing is read for 0 bytes.
void copy(char* to, const void* src, size_t n) {
    const auto* from = static_cast<const char*>(src);
    if (n > 16)
        memcpy(to, from, n);
    else if (n >= 8)
        copy_ends<uint64_t>(to, from, n);
    else if (n >= 4)
        copy_ends<uint32_t>(to, from, n);
    else if (n >= 2)
        copy_ends<uint16_t>(to, from, n);
    else if (n == 1)
        *to = *from;
}

// Gives a buffer that has no room for `more` bytes a new block. Where data is null the text of the
// length that the record claims is made of zeros. (The fields come one by one, in registers.)
[[gnu::noinline]] bool grow(char*& data, unsigned& capacity, unsigned length, size_t more,
                            size_t most, const char* function) {
    const size_t grown = std::max(more + 2 * size_t{capacity}, length + more) + 1;

    char* block = nullptr;
    if (grown <= most)
        block = static_cast<char*>(realloc(data, grown));
    else
        errno = ENOMEM;
    if (!block) {
        fprintf(stderr, "%s:%s realloc():%s\n", kModule, function, strerror(errno));
        return false;
    }
    if (!data && length != 0) memset(block, 0, length);
    data = block;
    capacity = static_cast<unsigned>(grown);
    return true;
}

bool make_room(Fields b, size_t more) {
    return b.has_room(more) ||
           grow(b.data, b.capacity, b.length, more, kMostForMakeRoom, "buffer_make_room");
}

// The length of the text that the arguments make, printed into `room` bytes as far as it fits;
// negative when the C library cannot print it.
__attribute__((format(printf, 3, 0))) int print(char* to, size_t room, const char* format,
                                                va_list arguments) {
    va_list copy;
    va_copy(copy, arguments);
    const int length = vsnprintf(to, room, format, copy);
    va_end(copy);
    return length;
}

// Appends a text for whose estimate there is room whatever it is. The estimate is at most the
// length of the format, 32 for each of its characters, the slack, and the text: a plain "%s" is
// printed whole.
__attribute__((format(printf, 2, 0))) bool append_with_room(Fields b, const char* format,
                                                            va_list arguments) {
    const size_t most = strlen(format) * (1 + zt::kPerConversion) + kFormatSlack;
    if (!b.has_room(most + kUsualText)) return false;

    const char terminator = *b.end();
    const int length = print(b.end(), b.capacity - b.length, format, arguments);
    if (length < 0 || !b.has_room(most + static_cast<size_t>(length))) {
        *b.end() = terminator;
        return false;
    }
    b.length += static_cast<unsigned>(length);
    return true;
}

__attribute__((format(printf, 2, 0))) void append_formatted(Fields b, const char* format,
                                                            va_list arguments) {
    const size_t estimate = strlen(format) + zt::estimate_conversions(format, arguments);
    if (!make_room(b, estimate + kFormatSlack)) {
        const int length = print(nullptr, 0, format, arguments);
        if (length < 0 || !b.has_room(static_cast<size_t>(length))) return;
    }

    int length = print(b.end(), b.capacity - b.length, format, arguments);
    if (length >= 0 && !b.has_room(static_cast<size_t>(length))) {
        const bool grown = make_room(b, static_cast<size_t>(length));
        length = grown ? print(b.end(), b.capacity - b.length, format, arguments) : -1;
    }
    if (length < 0) {
        *b.end() = '\0';
        return;
    }
    b.length += static_cast<unsigned>(length);
}

}  // namespace

extern "C" buffer* buffer_create() {
    const zt::Site here{kModule, __func__};

    zt::Owned<buffer> b(zt::allocate_zeroed<buffer>());
    if (!b) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    if (buffer_init(b.get()) != 0) {
        zt::report_call(here, "buffer_init");
        return nullptr;
    }
    return b.release();
}

extern "C" int buffer_init(buffer* b) {
    if (!b) return -1;
    *b = {};
    return 0;
}

extern "C" void buffer_free(buffer* b, int free_record) {
    if (!b) return;
    free(b->data);
    *b = {};
    if (free_record) free(b);
}

extern "C" char* buffer_make_room(char** data, unsigned* capacity, unsigned* length, unsigned n) {
    if (!data || !capacity || !length) return nullptr;
    return make_room({*data, *capacity, *length}, n) ? *data : nullptr;
}

extern "C" char* buffer_append(char** data, unsigned* capacity, unsigned* length, const void* src,
                               int n) {
    if (!data || !capacity || !length || (!src && n != 0)) return nullptr;
    const Fields b{*data, *capacity, *length};
    const size_t more = n >= 0 ? static_cast<size_t>(n) : kMoreThanFits;

    if (!b.has_room(more) && !grow(b.data, b.capacity, b.length, more, kMostForAppend, __func__))
        return nullptr;
    copy(b.end(), src, more);
    b.length += static_cast<unsigned>(more);
    *b.end() = '\0';
    return b.data;
}

extern "C" int buffer_remove(char** data, unsigned* capacity, unsigned* length, int n) {
    if (!data || !*data || !capacity || !length) return -2;
    const Fields b{*data, *capacity, *length};
    if (n < 0 || static_cast<unsigned>(n) > b.length) return -3;

    const auto gone = static_cast<unsigned>(n);
    b.length -= gone;
    if (b.length == 0) return 0;
    memmove(b.data, b.data + gone, b.length);
    if (b.length < b.capacity) *b.end() = '\0';
    return 0;
}

extern "C" char* buffer_vsnprintf(char** data, unsigned* capacity, unsigned* length,
                                  const char* format, ...) {
    if (!data || !capacity || !length || !format) return nullptr;

    va_list arguments;
    va_start(arguments, format);
    const Fields b{*data, *capacity, *length};
    if (!append_with_room(b, format, arguments)) append_formatted(b, format, arguments);
    va_end(arguments);
    return *data;
}
