// What the parts of the host's network configuration share: texts of records, running `ip`, and
// lists.
#pragma once

#include <ztlib/base/memory.h>
#include <ztlib/base/text.h>
#include <ztlib/utils/network.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string_view>

namespace zt::network {

constexpr const char* kModule = "./utils/network";

// --- texts ---------------------------------------------------------------------------------------

// A terminated copy of a text that ends with its field at the latest.
template <size_t Size>
class FieldText {
  public:
    // Reads no further than to the text's end.
    explicit FieldText(const void* field) {
        const char* const text = static_cast<const char*>(field);
        const size_t length = strnlen(text, Size);
        memcpy(text_, text, length);
        text_[length] = '\0';
    }
    const char* c_str() const { return text_; }

  private:
    char text_[Size + 1];
};

// The name at the start of an interface, or of what stands for one.
using Name = FieldText<NETWORK_NAME_SIZE>;

// Sets a field of a record to the first characters of a text, as many as fit.
template <size_t Size>
void set_field(char (&field)[Size], std::string_view text) {
    const std::string_view fitting = front(text, Size - 1);
    char* const end = std::copy(fitting.begin(), fitting.end(), field);
    std::fill(end, field + Size, '\0');
}

class AddressText {
  public:
    AddressText(const ipv4_address& address, bool with_prefix) {
        ipv4_to_string_r(&address, with_prefix, text_, sizeof text_);
    }
    const char* c_str() const { return text_; }

  private:
    char text_[IPV4_TEXT_SIZE];
};

// --- counts --------------------------------------------------------------------------------------

// By value: a packed record's count may stand at any address.
inline size_t count_within(int32_t count, int32_t most) {
    return static_cast<size_t>(std::clamp(count, 0, most));
}

inline size_t address_count(const network_interface& iface) {
    return count_within(iface.address_count, NETWORK_MAX_ADDRESSES);
}

inline size_t nameserver_count(const network_resolv& resolv) {
    return count_within(resolv.nameserver_count, NETWORK_MAX_NAMESERVERS);
}

// --- running `ip` --------------------------------------------------------------------------------

// Prints the command to standard error and runs it. The words end with null.
int print_and_run(const char* const* words);

// --- lists ---------------------------------------------------------------------------------------

struct FreeInterfaces {
    void operator()(network_interface** list) const { network_interfaces_free(list); }
};
using OwnedInterfaces = std::unique_ptr<network_interface*, FreeInterfaces>;

struct FreeRoutes {
    void operator()(network_route** list) const { network_routes_free(list); }
};
using OwnedRoutes = std::unique_ptr<network_route*, FreeRoutes>;

// A list of records under construction. Whatever fails, it can be released as it stands.
template <class Record>
class ListBuilder {
  public:
    // Without memory there is no list.
    ListBuilder() : list_(allocate_zeroed<Record*>(kFirstCapacity)) {}
    explicit operator bool() const { return list_ != nullptr; }

    // Doubles the list when it has no room for one more record and the null behind it. False, with
    // errno set, when memory is out.
    bool make_room() {
        if (count_ + 2 <= capacity_) return true;
        void* const larger = realloc(list_.get(), 2 * capacity_ * sizeof(Record*));
        if (!larger) return false;
        (void)list_.release();
        list_.reset(static_cast<Record**>(larger));
        capacity_ *= 2;
        return true;
    }

    // Takes the record. There must be room.
    void append(Record* record) {
        list_.get()[count_++] = record;
        list_.get()[count_] = nullptr;
    }

    // The caller's from now on.
    Record** release() { return list_.release(); }

  private:
    static constexpr size_t kFirstCapacity = 10;

    Owned<Record*> list_;
    size_t capacity_ = kFirstCapacity;
    size_t count_ = 0;
};

template <class Record>
void free_list(Record** list) {
    if (!list) return;
    for (Record** record = list; *record; ++record) free(*record);
    free(list);
}

}  // namespace zt::network
