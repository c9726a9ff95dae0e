// The name/value lists that both document families keep.
#pragma once

#include <ztlib/base/memory.h>
#include <ztlib/htmldoc/htmldoc.h>

#include <cstddef>
#include <span>
#include <string_view>

namespace zt::http {

// Links a new node at the tail. Null when memory is out.
htmldoc_option* append_option(htmldoc_option*& head, std::string_view name, std::string_view value);

// The first node of this name, or null.
htmldoc_option* find_option(htmldoc_option* head, const char* name);

// Releases the list and leaves it empty.
void free_options(htmldoc_option*& head);

// Writes "name=value&name=value" into `out`, cut at its last byte but one, and zeroes the rest.
// Returns the number of characters.
size_t write_query(const htmldoc_option* head, std::span<char> out);

// A list in the making. It is released with this object unless it was moved to where it belongs.
class NewOptions {
  public:
    NewOptions() = default;
    ~NewOptions() { free_options(head_); }
    NewOptions(const NewOptions&) = delete;
    NewOptions& operator=(const NewOptions&) = delete;

    // Links a new node at the head. Null when memory is out.
    const htmldoc_option* prepend(std::string_view name, std::string_view value);
    // Takes `value` over, also when it fails; a null one is memory that was out.
    const htmldoc_option* prepend_owned(std::string_view name, char* value);

    // Prepends a copy of each node of `list` in turn, which reverses their order. False when memory
    // is out.
    bool prepend_copies_of(const htmldoc_option* list);

    // Puts all nodes in front of those in `list`.
    void move_in_front_of(htmldoc_option*& list);

  private:
    const htmldoc_option* link(htmldoc_option* node);

    htmldoc_option* head_ = nullptr;
    htmldoc_option* last_ = nullptr;
};

}  // namespace zt::http
