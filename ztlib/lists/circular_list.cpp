// The ring has no end to look after: a new node goes in front of the head, which is behind the last
// node, and a node leaves by joining its neighbours.

#include <ztlib/lists/circular_list.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>

namespace {

constexpr const char* kModule = "./lists/circular_list";

void link_before(circular_list_node* head, circular_list_node* node) {
    node->prev = head->prev;
    node->next = head;
    head->prev->next = node;
    head->prev = node;
}

// The node behind the one taken out, or null when that was the only one.
circular_list_node* unlink(circular_list_node* node) {
    node->prev->next = node->next;
    node->next->prev = node->prev;
    return node->next == node ? nullptr : node->next;
}

}  // namespace

extern "C" circular_list* circular_list_create(void) {
    const zt::Site here{kModule, __func__};

    zt::Owned<circular_list> list(zt::allocate_zeroed<circular_list>());
    if (!list) {
        zt::report_call(here, "callc");
        return nullptr;
    }
    if (circular_list_init(list.get()) < 0) {
        zt::report_call(here, "circular_list_init");
        return nullptr;
    }
    return list.release();
}

extern "C" int circular_list_init(circular_list*) { return 0; }

extern "C" circular_list_node* circular_list_insert(circular_list_node** head, uint64_t value) {
    if (!head) return nullptr;
    circular_list_node* const node = zt::allocate_zeroed<circular_list_node>();
    if (!node) {
        zt::report_call({kModule, __func__}, "circular_list_calloc");
        return nullptr;
    }
    node->value = value;
    if (*head)
        link_before(*head, node);
    else
        *head = node->next = node->prev = node;
    return node;
}

extern "C" void circular_list_free(circular_list* list, int free_self) {
    if (!list) return;
    while (list->head) {
        list->current = list->head;
        list->head = unlink(list->current);
        free(list->current);
    }
    list->current = nullptr;
    if (free_self) free(list);
}
