// Memory of the malloc family with an owner. Everything that crosses the library's interface is
// allocated here or with the same calls, because hosts free it with free().
#pragma once

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace zt {

struct Free {
    void operator()(void* memory) const { free(memory); }
};

// Releases what is owned with this function: std::unique_ptr<BIO, ReleaseWith<BIO_free>>.
template <auto release>
struct ReleaseWith {
    template <class T>
    void operator()(T* owned) const {
        release(owned);
    }
};

// Owns one block until release().
template <class T>
using Owned = std::unique_ptr<T, Free>;

// `count` zeroed records, or null; null too, with errno as calloc() sets it, where the size would
// not fit.
template <class T>
T* allocate_zeroed(size_t count = 1) {
    if (count > SIZE_MAX / sizeof(T)) {
        errno = ENOMEM;
        return nullptr;
    }
    return static_cast<T*>(calloc(count, sizeof(T)));
}

// Room for `count` objects, not zeroed, or null; null too where the size would not fit.
template <class T>
T* allocate(size_t count) {
    size_t bytes;
    if (__builtin_mul_overflow(count, sizeof(T), &bytes)) {
        errno = ENOMEM;
        return nullptr;
    }
    return static_cast<T*>(malloc(bytes));
}

// Zeroes a whole record, its padding too. The size is hidden from the compiler, which makes of a
// small known one a string instruction that takes longer to start than the call takes.
template <class T>
void zero(T& record) {
    size_t size = sizeof record;
    __asm__("" : "+r"(size));
    memset(&record, 0, size);
}

// A terminated copy of `length` characters, or null.
template <class Char>
Char* duplicate(const Char* text, size_t length) {
    Char* copy = allocate<Char>(length + 1);
    if (!copy) return nullptr;
    memcpy(copy, text, length * sizeof(Char));
    copy[length] = 0;
    return copy;
}

}  // namespace zt
