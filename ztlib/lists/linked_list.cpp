// Two names for one pair of pointers. What differs is what the messages say.

#include <ztlib/lists/linked_list.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>

namespace {

constexpr const char* kModule = "./lists/linked_list";

// A zeroed header that `init` (named `init_name`) accepted, or null.
template <class List>
List* create(int (*init)(List*), const char* init_name, zt::Site here) {
    zt::Owned<List> list(zt::allocate_zeroed<List>());
    if (!list) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    if (init(list.get()) < 0) {
        zt::report_call(here, init_name);
        return nullptr;
    }
    return list.release();
}

void release(void* list, int free_self) {
    if (free_self) free(list);
}

}  // namespace

extern "C" linked_list* linked_list_create(void) {
    return create(linked_list_init, "linked_list_init", {kModule, __func__});
}

extern "C" int linked_list_init(linked_list*) { return 0; }

extern "C" void linked_list_free(linked_list* list, int free_self) { release(list, free_self); }

extern "C" linked_priority_list* linked_priority_list_create(void) {
    return create(linked_priority_list_init, "linked_priority_list_init", {kModule, __func__});
}

extern "C" int linked_priority_list_init(linked_priority_list*) { return 0; }

extern "C" void linked_priority_list_free(linked_priority_list* list, int free_self) {
    release(list, free_self);
}
