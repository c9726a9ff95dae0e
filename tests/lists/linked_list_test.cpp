#include <ztlib/lists/linked_list.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <gmock/gmock.h>

using namespace zt_test;
using testing::ElementsAre;

TEST(LinkedList, StartsWithBothPointersNull) {
    linked_list* const list = linked_list_create();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->first, nullptr);
    EXPECT_EQ(list->last, nullptr);
    linked_list_free(list, 1);

    linked_priority_list* const by_priority = linked_priority_list_create();
    ASSERT_NE(by_priority, nullptr);
    EXPECT_EQ(by_priority->first, nullptr);
    EXPECT_EQ(by_priority->last, nullptr);
    linked_priority_list_free(by_priority, 1);
}

TEST(LinkedList, InitTouchesNothing) {
    int element = 0;
    linked_list list{&element, &element};
    EXPECT_EQ(linked_list_init(&list), 0);
    EXPECT_EQ(list.first, &element);
    EXPECT_EQ(list.last, &element);
    EXPECT_EQ(linked_list_init(nullptr), 0);

    linked_priority_list by_priority{&element, &element};
    EXPECT_EQ(linked_priority_list_init(&by_priority), 0);
    EXPECT_EQ(by_priority.first, &element);
    EXPECT_EQ(by_priority.last, &element);
    EXPECT_EQ(linked_priority_list_init(nullptr), 0);
}

TEST(LinkedList, FreeReleasesTheHeaderAloneAndOnlyOnRequest) {
    int element = 0;
    const int64_t live = live_allocations();
    linked_list* const list = linked_list_create();
    list->first = list->last = &element;
    linked_list_free(list, 0);
    EXPECT_EQ(live_allocations(), live + 1);
    EXPECT_EQ(list->first, &element);
    linked_list_free(list, 1);
    EXPECT_EQ(live_allocations(), live);

    linked_priority_list* const by_priority = linked_priority_list_create();
    linked_priority_list_free(by_priority, 0);
    EXPECT_EQ(live_allocations(), live + 1);
    linked_priority_list_free(by_priority, -1);
    EXPECT_EQ(live_allocations(), live);

    linked_list_free(nullptr, 1);
    linked_priority_list_free(nullptr, 1);
}

TEST(LinkedList, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    CapturedLog log;
    for_each_failing_allocation([] { return linked_list_create(); },
                                [](linked_list* list) { linked_list_free(list, 1); });
    for_each_failing_allocation(
        [] { return linked_priority_list_create(); },
        [](linked_priority_list* list) { linked_priority_list_free(list, 1); });
    EXPECT_THAT(
        log.lines(),
        ElementsAre("WARN:linked_list:linked_list_create: calloc(): Cannot allocate memory",
                    "WARN:linked_list:linked_priority_list_create: calloc(): Cannot allocate "
                    "memory"));
}
