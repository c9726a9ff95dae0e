// Two blocks: the slots, and the word that slot 0 points to. Only growing touches both, and it
// makes the larger array before it writes anything, so a list whose growth failed is the list from
// before.

#include <ztlib/sptrlist/sptrlist.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <span>

namespace {

constexpr const char* kModule = "./sptrlist/sptrlist";
constexpr uint32_t kNewSize = 2;     // slot 0 and one empty slot
constexpr uint32_t kSpareSlots = 1;  // allocated behind the last slot, never read

uint32_t& size_of(void** list) { return *static_cast<uint32_t*>(list[0]); }

// The slots that hold elements or nothing.
std::span<void*> elements_of(void** list) { return {list + 1, size_of(list) - 1}; }

// The array with one slot more, or null with the list as it was.
void** grow(void** list) {
    const uint32_t size = size_of(list) + 1;
    if (size > INT32_MAX) {
        errno = ENOMEM;
        return nullptr;
    }
    const size_t bytes = (size_t{size} + kSpareSlots) * sizeof(void*);
    auto* grown = static_cast<void**>(realloc(list, bytes));
    if (!grown) return nullptr;
    size_of(grown) = size;
    return grown;
}

}  // namespace

extern "C" void** sptrlist_create() {
    zt::Owned<void*> list(static_cast<void**>(calloc(kNewSize + kSpareSlots, sizeof(void*))));
    if (!list) return nullptr;
    list.get()[0] = zt::allocate<uint32_t>(1);
    if (!list.get()[0]) return nullptr;
    size_of(list.get()) = kNewSize;
    return list.release();
}

extern "C" void sptrlist_free(void** list) {
    if (!list) return;
    free(list[0]);
    free(list);
}

extern "C" void sptrlist_free_ref(void** list, void (*release)(void* element)) {
    if (!list) return;
    if (release) {
        for (void* element : elements_of(list))
            if (element) release(element);
    }
    sptrlist_free(list);
}

extern "C" void* sptrlist_add(void*** list, void* element) {
    const zt::Site here{kModule, __func__};
    if (!list || !*list || !element) return nullptr;

    for (void*& slot : elements_of(*list))
        if (!slot) return slot = element;

    void** grown = grow(*list);
    if (!grown) {
        zt::report_call(here, "realloc()");
        return nullptr;
    }
    *list = grown;
    return elements_of(grown).back() = element;
}

extern "C" void sptrlist_remove(void** list, const void* key,
                                int (*compare)(const void* element, const void* key)) {
    if (!list || !compare) return;
    for (void*& slot : elements_of(list)) {
        if (compare(slot, key) != 0) continue;
        slot = nullptr;
        return;
    }
}

extern "C" int sptrlist_count(void** list) {
    if (!list) return 0;
    int count = 0;
    for (const void* element : elements_of(list)) count += element != nullptr;
    return count;
}

extern "C" void sptrlist_dump(void** list) {
    if (!list) return;
    const uint32_t size = size_of(list);
    fprintf(stderr, "- sptrlist dump size %d\n", static_cast<int>(size));
    for (uint32_t i = 1; i < size; i++)
        if (list[i]) fprintf(stderr, "\t\tnode[%d]=%p\n", static_cast<int>(i), list[i]);
}

extern "C" int sptrlist_cmp_string(const void* element, const void* key) {
    return element == key ? 0 : -2;
}

extern "C" sptrlist* sptrlist_open() {
    auto* l = zt::allocate_zeroed<sptrlist>();
    if (l) sptrlist_init(l);
    return l;
}

extern "C" int sptrlist_init(sptrlist* l) {
    const zt::Site here{kModule, __func__};
    if (!l) return -1;
    zt::init_mutex(l->mutex, here);
    zt::init_rwlock(l->rwlock, here);
    l->list = sptrlist_create();
    return 0;
}

extern "C" void sptrlist_close(sptrlist* l, int free_self) {
    const zt::Site here{kModule, __func__};
    if (!l) return;
    zt::destroy_mutex(l->mutex, here);
    zt::destroy_rwlock(l->rwlock);
    sptrlist_free(l->list);
    l->list = nullptr;
    if (free_self) free(l);
}
