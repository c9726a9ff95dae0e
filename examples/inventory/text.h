// Text that may be shown: UTF-8 without control characters. What a peer sends is held to it, so
// nobody's host name can move another one's cursor.
#pragma once

#include <string>
#include <string_view>

namespace inventory {

// True for 1 to `max_bytes` bytes of such text.
bool is_plain(std::string_view text, size_t max_bytes);

// The text cut to `max_bytes`, a '?' for each byte that may not be shown.
std::string make_plain(std::string_view text, size_t max_bytes);

// How many characters a plain text takes on a line.
size_t width(std::string_view text);

// As much of a plain text as takes at most `characters` on a line.
std::string cut(std::string_view text, size_t characters);

// The text with the five characters that XML reserves written as entities. Documents are saved with
// their values as they stand, so this goes over every value that is put into one.
std::string escaped(std::string_view text);

}  // namespace inventory
