// The three records differ in their number of members alone.

#include <ztlib/utils/void_ptr.h>

#include <ztlib/base/memory.h>

namespace {

void release(void*& member) {
    free(member);
    member = nullptr;
}

template <class Record, class... Members>
void free_tuple(Record* record, int free_self, Members... members) {
    if (!record) return;
    (release(record->*members), ...);
    if (free_self) free(record);
}

}  // namespace

extern "C" void_ptr2_p* void_ptr2_p_create() { return zt::allocate_zeroed<void_ptr2_p>(); }

extern "C" void_ptr3_p* void_ptr3_p_create() { return zt::allocate_zeroed<void_ptr3_p>(); }

extern "C" void_ptr4_p* void_ptr4_p_create() { return zt::allocate_zeroed<void_ptr4_p>(); }

extern "C" void void_ptr2_p_free(void_ptr2_p* record, int free_self) {
    using Record = void_ptr2_p;
    free_tuple(record, free_self, &Record::ptr1, &Record::ptr2);
}

extern "C" void void_ptr3_p_free(void_ptr3_p* record, int free_self) {
    using Record = void_ptr3_p;
    free_tuple(record, free_self, &Record::ptr1, &Record::ptr2, &Record::ptr3);
}

extern "C" void void_ptr4_p_free(void_ptr4_p* record, int free_self) {
    using Record = void_ptr4_p;
    free_tuple(record, free_self, &Record::ptr1, &Record::ptr2, &Record::ptr3, &Record::ptr4);
}
