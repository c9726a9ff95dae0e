// What both XML documents do with their trees. Nothing recurses, and nothing relies on parent
// links, which trees made by hand do not have.
#pragma once

#include <ztlib/base/memory.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <cwchar>

namespace zt::xml {

// --- lists --------------------------------------------------------------------------------------

template <class Node, class Attribute>
void append_attribute(Node& node, Attribute* attribute) {
    attribute->previous = node.last_attribute;
    attribute->next = nullptr;
    (node.last_attribute ? node.last_attribute->next : node.first_attribute) = attribute;
    node.last_attribute = attribute;
}

template <class Node>
void append_child(Node& parent, Node* child) {
    child->previous_sibling = parent.last_child;
    child->next_sibling = nullptr;
    (parent.last_child ? parent.last_child->next_sibling : parent.first_child) = child;
    parent.last_child = child;
}

// Whether a name, which a record made by hand may lack, is this one.
inline bool is_named(const char* name, const char* wanted) {
    return name && strcmp(name, wanted) == 0;
}
inline bool is_named(const wchar_t* name, const wchar_t* wanted) {
    return name && wcscmp(name, wanted) == 0;
}

// The first child with this name, or null.
template <class Node, class Char>
Node* child_named(const Node& node, const Char* name) {
    Node* child = node.first_child;
    while (child && !is_named(child->name, name)) child = child->next_sibling;
    return child;
}

// The first attribute with this name, or null.
template <class Node, class Char>
auto* attribute_named(const Node& node, const Char* name) {
    auto* attribute = node.first_attribute;
    while (attribute && !is_named(attribute->name, name)) attribute = attribute->next;
    return attribute;
}

// --- freeing ------------------------------------------------------------------------------------

template <class Attribute>
void free_attribute(Attribute* attribute) {
    free(attribute->name);
    free(attribute->value);
    free(attribute);
}

// Frees a node and what it owns, but not its children.
template <class Node>
void free_single(Node* node) {
    free(node->name);
    free(node->value);
    for (auto* attribute = node->first_attribute; attribute;) {
        auto* const next = attribute->next;
        free_attribute(attribute);
        attribute = next;
    }
    free(node);
}

// Ask for a node, which lies in two cache lines, and for what free_single() touches behind it.
template <class Node>
void prefetch(const Node* node) {
    if (!node) return;
    __builtin_prefetch(node);
    __builtin_prefetch(&node->next_sibling);
}
template <class Node>
void prefetch_owned(const Node& node) {
    __builtin_prefetch(node.name);
    __builtin_prefetch(node.value);
    __builtin_prefetch(node.first_attribute);
}

// Frees `top` and all below it, with no memory of its own: the list of what is left to free runs
// through the sibling links, and each node's children are put in front of it.
//
// A large tree is not in the cache, so a node is freed one step later than it is reached, while
// what it owns and the next node are on their way.
template <class Node>
void free_tree(Node* top) {
    top->next_sibling = nullptr;
    Node* reached_before = nullptr;
    for (Node* node = top; node;) {
        Node* next = node->next_sibling;
        if (node->first_child) {
            node->last_child->next_sibling = next;
            next = node->first_child;
        }
        prefetch(next);
        prefetch_owned(*node);
        if (reached_before) free_single(reached_before);
        reached_before = node;
        node = next;
    }
    free_single(reached_before);
}

// Frees what a document holds; the record stays.
template <class Document>
void free_trees(Document& document) {
    if (document.root) free_tree(document.root);
    document.root = nullptr;
    if (document.declaration) free_tree(document.declaration);
    document.declaration = nullptr;
}

// --- walking ------------------------------------------------------------------------------------

// The nodes from the top down to where a walk is. Shallow trees need no memory.
template <class Node>
class Path {
  public:
    bool empty() const { return depth_ == 0; }

    // False when memory is out.
    bool push(const Node* node) {
        if (depth_ == room_ && !grow()) return false;
        nodes_[depth_++] = node;
        return true;
    }
    const Node* pop() { return nodes_[--depth_]; }

  private:
    bool grow() {
        const Node** const larger = allocate<const Node*>(room_ * 2);
        if (!larger) return false;
        std::copy(nodes_, nodes_ + depth_, larger);
        heap_.reset(larger);
        nodes_ = larger;
        room_ *= 2;
        return true;
    }

    static constexpr size_t kInline = 64;
    const Node* inline_[kInline];
    const Node** nodes_ = inline_;
    size_t room_ = kInline;
    size_t depth_ = 0;
    Owned<const Node*> heap_;
};

// Goes through `top` and all below it: visitor.open(node), the node's children,
// visitor.close(node). False when a call returned false or memory for the way back is out; the walk
// ends there.
template <class Node, class Visitor>
bool walk(const Node& top, Visitor& visitor) {
    Path<Node> above;
    const Node* node = &top;
    for (;;) {
        if (!visitor.open(*node)) return false;
        if (node->first_child) {
            if (!above.push(node)) return false;
            node = node->first_child;
            continue;
        }
        for (;;) {
            if (!visitor.close(*node)) return false;
            if (above.empty()) return true;
            if (node->next_sibling) break;
            node = above.pop();
        }
        node = node->next_sibling;
    }
}

}  // namespace zt::xml
