// A doubly linked list whose back link is the address of the pointer that points at the node, so
// that the first node is no special case.

#include <ztlib/htmldoc/option_list.hpp>

#include <algorithm>

namespace zt::http {

namespace {

void free_node(htmldoc_option* node) {
    free(node->name);
    free(node->value);
    free(node);
}

// An unlinked node that owns `value`. Null, with the value released, when there is none or memory
// is out.
inline htmldoc_option* make_node(std::string_view name, char* value) {
    auto* node = value ? allocate<htmldoc_option>(1) : nullptr;
    char* name_copy = node ? duplicate(name.data(), name.size()) : nullptr;
    if (!name_copy) {
        free(node);
        free(value);
        return nullptr;
    }
    *node = {name_copy, value, nullptr, nullptr};
    return node;
}

inline void link_at(htmldoc_option*& link, htmldoc_option* node) {
    node->next = link;
    node->prev_link = &link;
    if (link) link->prev_link = &node->next;
    link = node;
}

// A text that a host may have left null.
std::string_view view_of(const char* text) { return text ? text : ""; }

}  // namespace

htmldoc_option* append_option(htmldoc_option*& head, std::string_view name,
                              std::string_view value) {
    htmldoc_option* node = make_node(name, duplicate(value.data(), value.size()));
    if (!node) return nullptr;
    htmldoc_option** tail = &head;
    while (*tail) tail = &(*tail)->next;
    link_at(*tail, node);
    return node;
}

htmldoc_option* find_option(htmldoc_option* head, const char* name) {
    for (htmldoc_option* node = head; node; node = node->next)
        if (node->name && node->name[0] == name[0] && strcmp(node->name, name) == 0) return node;
    return nullptr;
}

void free_options(htmldoc_option*& head) {
    for (htmldoc_option* node = head; node;) {
        htmldoc_option* next = node->next;
        free_node(node);
        node = next;
    }
    head = nullptr;
}

size_t write_query(const htmldoc_option* head, std::span<char> out) {
    if (out.empty()) return 0;
    std::ranges::fill(out, '\0');
    std::span<char> room = out.first(out.size() - 1);
    const auto write = [&room](std::string_view text) {
        const size_t n = std::min(text.size(), room.size());
        std::copy_n(text.data(), n, room.data());
        room = room.subspan(n);
    };
    for (const htmldoc_option* node = head; node && !room.empty(); node = node->next) {
        if (node != head) write("&");
        write(view_of(node->name));
        write("=");
        write(view_of(node->value));
    }
    return out.size() - 1 - room.size();
}

inline const htmldoc_option* NewOptions::link(htmldoc_option* node) {
    if (!node) return nullptr;
    if (!head_) last_ = node;
    link_at(head_, node);
    return node;
}

const htmldoc_option* NewOptions::prepend(std::string_view name, std::string_view value) {
    return link(make_node(name, duplicate(value.data(), value.size())));
}

const htmldoc_option* NewOptions::prepend_owned(std::string_view name, char* value) {
    return link(make_node(name, value));
}

bool NewOptions::prepend_copies_of(const htmldoc_option* list) {
    for (const htmldoc_option* node = list; node; node = node->next)
        if (!prepend(view_of(node->name), view_of(node->value))) return false;
    return true;
}

void NewOptions::move_in_front_of(htmldoc_option*& list) {
    if (!head_) return;
    last_->next = list;
    if (list) list->prev_link = &last_->next;
    list = head_;
    head_->prev_link = &list;
    head_ = last_ = nullptr;
}

}  // namespace zt::http
