// Plain fields that several threads touch stay plain in the records, so that their layout stays,
// and are read and written through these.
#pragma once

#include <atomic>

namespace zt {

template <class T>
T load(const T& field) {
    // atomic_ref takes no const object before C++26; a load does not write.
    return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_acquire);
}

template <class T>
void store(T& field, T value) {
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

// Returns the value that the field had before.
template <class T>
T exchange(T& field, T value) {
    return std::atomic_ref<T>(field).exchange(value, std::memory_order_acq_rel);
}

template <class T>
void set_bits(T& field, T bits) {
    std::atomic_ref<T>(field).fetch_or(bits, std::memory_order_acq_rel);
}

template <class T>
void clear_bits(T& field, T bits) {
    std::atomic_ref<T>(field).fetch_and(static_cast<T>(~bits), std::memory_order_acq_rel);
}

}  // namespace zt
