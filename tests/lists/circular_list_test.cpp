#include <ztlib/lists/circular_list.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <gmock/gmock.h>

#include <vector>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// The values once round the ring, with every link checked from both sides.
std::vector<uint64_t> values_of(const circular_list& list) {
    std::vector<uint64_t> values;
    const circular_list_node* node = list.head;
    if (!node) return values;
    do {
        EXPECT_EQ(node->next->prev, node);
        EXPECT_EQ(node->prev->next, node);
        values.push_back(node->value);
        node = node->next;
    } while (node != list.head);
    return values;
}

}  // namespace

TEST(CircularList, StartsEmpty) {
    circular_list* const list = circular_list_create();
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list->head, nullptr);
    EXPECT_EQ(list->current, nullptr);
    circular_list_free(list, 1);
}

TEST(CircularList, InitTouchesNothing) {
    circular_list_node node{};
    circular_list list{&node, &node};
    EXPECT_EQ(circular_list_init(&list), 0);
    EXPECT_EQ(list.head, &node);
    EXPECT_EQ(list.current, &node);
    EXPECT_EQ(circular_list_init(nullptr), 0);
}

TEST(CircularList, OneNodeLeadsToItself) {
    circular_list list{};
    circular_list_node* const node = circular_list_insert(&list.head, UINT64_MAX);
    ASSERT_NE(node, nullptr);
    EXPECT_EQ(list.head, node);
    EXPECT_EQ(node->next, node);
    EXPECT_EQ(node->prev, node);
    EXPECT_EQ(node->value, UINT64_MAX);
    circular_list_free(&list, 0);
}

TEST(CircularList, InsertsAtTheTailAndKeepsTheHead) {
    circular_list list{};
    circular_list_node* const first = circular_list_insert(&list.head, 1);
    circular_list_insert(&list.head, 2);
    circular_list_node* const third = circular_list_insert(&list.head, 3);
    EXPECT_EQ(list.head, first);
    EXPECT_EQ(list.head->value, 1u);
    EXPECT_EQ(list.head->next->value, 2u);
    EXPECT_EQ(list.head->prev, third);
    EXPECT_EQ(third->value, 3u);
    EXPECT_EQ(third->next, first);
    EXPECT_THAT(values_of(list), ElementsAre(1, 2, 3));
    EXPECT_EQ(list.current, nullptr);
    circular_list_free(&list, 0);
}

TEST(CircularList, FreeLeavesAnEmptyRingThatTakesValuesAgain) {
    const int64_t live = live_allocations();
    circular_list list{};
    for (uint64_t value = 0; value < 100; ++value) circular_list_insert(&list.head, value);
    list.current = list.head->next;
    circular_list_free(&list, 0);
    EXPECT_EQ(list.head, nullptr);
    EXPECT_EQ(list.current, nullptr);
    EXPECT_EQ(live_allocations(), live);

    circular_list_insert(&list.head, 7);
    EXPECT_THAT(values_of(list), ElementsAre(7));
    circular_list_free(&list, 0);
    EXPECT_EQ(live_allocations(), live);
}

TEST(CircularList, IgnoresNull) {
    circular_list_free(nullptr, 1);
    EXPECT_EQ(circular_list_insert(nullptr, 1), nullptr);
}

TEST(CircularList, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    CapturedLog log;
    for_each_failing_allocation([] { return circular_list_create(); },
                                [](circular_list* list) { circular_list_free(list, 1); });
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:circular_list:circular_list_create: callc(): Cannot allocate "
                            "memory"));
}

TEST(CircularList, InsertWithoutMemoryChangesNothing) {
    CapturedLog log;
    circular_list list{};
    for (FailingAllocations round; round.next();) {
        circular_list_insert(&list.head, 1);
        round.arm();
        const circular_list_node* const node = circular_list_insert(&list.head, 2);
        round.disarm();
        if (round.hit()) {
            EXPECT_EQ(node, nullptr);
            EXPECT_THAT(values_of(list), ElementsAre(1));
        } else {
            EXPECT_THAT(values_of(list), ElementsAre(1, 2));
        }
        circular_list_free(&list, 0);
    }
    EXPECT_THAT(log.lines(), ElementsAre("WARN:circular_list:circular_list_insert: "
                                         "circular_list_calloc(): Cannot allocate memory"));
    EXPECT_THAT(values_of(list), IsEmpty());
}
