#include <ztlib/utils/void_ptr.h>

#include <tests/support/faults.h>

#include <cstdlib>

using namespace zt_test;

namespace {

void fill(void_ptr2_p& record) { record.ptr1 = malloc(1), record.ptr2 = malloc(1); }
void fill(void_ptr3_p& record) {
    record.ptr1 = malloc(1), record.ptr2 = malloc(1), record.ptr3 = malloc(1);
}
void fill(void_ptr4_p& record) {
    record.ptr1 = malloc(1), record.ptr2 = malloc(1), record.ptr3 = malloc(1);
    record.ptr4 = malloc(1);
}

template <class Record>
bool all_null(const Record& record) {
    void* const* members = reinterpret_cast<void* const*>(&record);
    for (size_t i = 0; i < sizeof record / sizeof(void*); ++i)
        if (members[i]) return false;
    return true;
}

template <class Record>
void check(Record* (*create)(), void (*release)(Record*, int)) {
    const int64_t before = live_allocations();
    Record* record = create();
    ASSERT_NE(record, nullptr);
    EXPECT_TRUE(all_null(*record));
    release(record, 0);

    fill(*record);
    release(record, 0);
    EXPECT_TRUE(all_null(*record));
    EXPECT_EQ(live_allocations(), before + 1);

    record->ptr2 = malloc(1);
    release(record, 1);
    EXPECT_EQ(live_allocations(), before);

    release(nullptr, 1);
    for_each_failing_allocation([=] { return create(); }, [=](Record* made) { release(made, 1); });
}

}  // namespace

TEST(VoidPtr, TwoPointersAreReleasedTogether) { check(void_ptr2_p_create, void_ptr2_p_free); }
TEST(VoidPtr, ThreePointersAreReleasedTogether) { check(void_ptr3_p_create, void_ptr3_p_free); }
TEST(VoidPtr, FourPointersAreReleasedTogether) { check(void_ptr4_p_create, void_ptr4_p_free); }
