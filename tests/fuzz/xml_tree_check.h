// What every tree that one of the XML parsers made has in common.
#pragma once

#include <cstdlib>
#include <string_view>
#include <type_traits>

namespace zt_fuzz {

inline void require(bool holds) {
    if (!holds) abort();
}

// Links, names and value of one node.
template <class Node>
void check_node(const Node& node) {
    using Char = std::remove_pointer_t<decltype(node.name)>;
    using Text = std::basic_string_view<Char>;

    require(node.name && *node.name && Text(node.name).size() <= 1023);
    decltype(node.last_attribute) last = nullptr;
    for (auto* a = node.first_attribute; a; last = a, a = a->next) {
        require(a->previous == last && a->name && a->value);
        const Text value(a->value);
        const Char line_breaks[] = {'\r', '\n', '\t', 0};
        const Char two_spaces[] = {' ', ' ', 0};
        require(value.find_first_of(line_breaks) == value.npos);
        require(value.find(two_spaces) == value.npos);
        require(value.empty() || (value.front() != ' ' && value.back() != ' '));
    }
    require(node.last_attribute == last);
}

// Every link in both directions, and visit(node) for each node. Goes by the parent links.
template <class Node, class Visit>
void check_tree(const Node& root, Visit visit) {
    require(!root.parent && !root.next_sibling && !root.previous_sibling);
    for (const Node* node = &root; node;) {
        check_node(*node);
        visit(*node);
        require((node->first_child == nullptr) == (node->last_child == nullptr));
        if (node->first_child) {
            require(node->first_child->parent == node && !node->first_child->previous_sibling);
            node = node->first_child;
            continue;
        }
        while (node && !node->next_sibling) {
            require(!node->parent || node->parent->last_child == node);
            node = node->parent;
        }
        if (!node) break;
        require(node->next_sibling->previous_sibling == node);
        require(node->next_sibling->parent == node->parent);
        node = node->next_sibling;
    }
}

}  // namespace zt_fuzz
