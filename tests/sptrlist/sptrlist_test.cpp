#include <ztlib/sptrlist/sptrlist.h>

#include <gmock/gmock.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

using namespace zt_test;
using testing::ElementsAre;

namespace {

int a, b, c, d;

uint32_t size_of(void** list) { return *static_cast<uint32_t*>(list[0]); }

std::vector<void*> slots_of(void** list) {
    return std::vector<void*>(list + 1, list + size_of(list));
}

struct Slots {
    Slots() : list(sptrlist_create()) {}
    ~Slots() { sptrlist_free(list); }
    Slots(const Slots&) = delete;
    Slots& operator=(const Slots&) = delete;

    void** list;
};

}  // namespace

TEST(PointerSlotList, BeginsWithOneEmptySlot) {
    Slots s;
    EXPECT_EQ(size_of(s.list), 2u);
    EXPECT_THAT(slots_of(s.list), ElementsAre(nullptr));
    EXPECT_EQ(sptrlist_count(s.list), 0);
}

TEST(PointerSlotList, FillsFreedSlotsBeforeItGrows) {
    Slots s;
    EXPECT_EQ(sptrlist_add(&s.list, &a), &a);
    EXPECT_EQ(sptrlist_add(&s.list, &b), &b);
    EXPECT_EQ(sptrlist_add(&s.list, &c), &c);
    EXPECT_EQ(size_of(s.list), 4u);
    EXPECT_THAT(slots_of(s.list), ElementsAre(&a, &b, &c));

    sptrlist_remove(s.list, &b, sptrlist_cmp_string);
    EXPECT_THAT(slots_of(s.list), ElementsAre(&a, nullptr, &c));
    EXPECT_EQ(sptrlist_count(s.list), 2);

    EXPECT_EQ(sptrlist_add(&s.list, &d), &d);
    EXPECT_EQ(size_of(s.list), 4u);
    EXPECT_THAT(slots_of(s.list), ElementsAre(&a, &d, &c));
}

TEST(PointerSlotList, KeepsItsSizeWhenTheOnlyElementGoes) {
    Slots s;
    sptrlist_add(&s.list, &a);
    sptrlist_remove(s.list, &a, sptrlist_cmp_string);
    EXPECT_EQ(size_of(s.list), 2u);
    EXPECT_EQ(sptrlist_count(s.list), 0);
}

TEST(PointerSlotList, RefusesNull) {
    Slots s;
    EXPECT_EQ(sptrlist_add(&s.list, nullptr), nullptr);
    EXPECT_EQ(sptrlist_add(nullptr, &a), nullptr);
    void** none = nullptr;
    EXPECT_EQ(sptrlist_add(&none, &a), nullptr);
    EXPECT_THAT(slots_of(s.list), ElementsAre(nullptr));
}

TEST(PointerSlotList, RemovesNothingForAKeyThatMatchesNothing) {
    Slots s;
    sptrlist_add(&s.list, &a);
    sptrlist_remove(s.list, &b, sptrlist_cmp_string);
    sptrlist_remove(s.list, &a, nullptr);
    EXPECT_THAT(slots_of(s.list), ElementsAre(&a));
}

TEST(PointerSlotList, ComparesEmptySlotsTooAndStopsAtTheFirstMatch) {
    Slots s;
    for (int* element : {&a, &b, &c}) sptrlist_add(&s.list, element);
    sptrlist_remove(s.list, &a, sptrlist_cmp_string);

    static std::vector<const void*> seen;
    seen.clear();
    sptrlist_remove(s.list, &d, [](const void* element, const void* key) {
        EXPECT_EQ(key, &d);
        seen.push_back(element);
        return element == &b ? 0 : 1;
    });
    EXPECT_THAT(seen, ElementsAre(nullptr, &b));
    EXPECT_THAT(slots_of(s.list), ElementsAre(nullptr, nullptr, &c));
}

TEST(PointerSlotList, MatchesByIdentityNotByText) {
    const char text[] = "ab";
    const std::string copy = text;
    EXPECT_EQ(sptrlist_cmp_string(text, text), 0);
    EXPECT_EQ(sptrlist_cmp_string(text, copy.c_str()), -2);
    EXPECT_EQ(sptrlist_cmp_string(nullptr, nullptr), 0);
    EXPECT_EQ(sptrlist_cmp_string(nullptr, text), -2);
}

TEST(PointerSlotList, ReleasesEachElementInOrder) {
    void** list = sptrlist_create();
    for (int* element : {&a, &b, &c}) sptrlist_add(&list, element);
    sptrlist_remove(list, &b, sptrlist_cmp_string);

    static std::vector<void*> released;
    released.clear();
    sptrlist_free_ref(list, [](void* element) { released.push_back(element); });
    EXPECT_THAT(released, ElementsAre(&a, &c));

    sptrlist_free_ref(sptrlist_create(), nullptr);
}

TEST(PointerSlotList, PrintsItsElements) {
    Slots s;
    for (int* element : {&a, &b, &c}) sptrlist_add(&s.list, element);
    sptrlist_remove(s.list, &b, sptrlist_cmp_string);
    char expected[200];
    snprintf(expected, sizeof expected, "- sptrlist dump size 4\n\t\tnode[1]=%p\n\t\tnode[3]=%p\n",
             static_cast<void*>(&a), static_cast<void*>(&c));

    CapturedStderr err;
    sptrlist_dump(s.list);
    EXPECT_EQ(err.text(), expected);
}

TEST(PointerSlotList, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    CapturedLog log;
    for_each_failing_allocation([] { return sptrlist_create(); },
                                [](void** list) { sptrlist_free(list); });
    EXPECT_TRUE(log.lines().empty());
}

TEST(PointerSlotList, StaysAsItWasWhenItCannotGrow) {
    Slots s;
    sptrlist_add(&s.list, &a);
    void** const before = s.list;
    {
        CapturedLog log;
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(sptrlist_add(&s.list, &b), nullptr);
        EXPECT_TRUE(fault.hit());
        EXPECT_THAT(log.lines(),
                    ElementsAre("WARN:sptrlist:sptrlist_add: realloc()(): Cannot allocate memory"));
    }
    EXPECT_EQ(s.list, before);
    EXPECT_THAT(slots_of(s.list), ElementsAre(&a));
    EXPECT_EQ(sptrlist_add(&s.list, &b), &b);
}

TEST(PointerSlotList, IgnoresANullArray) {
    CapturedStderr err;
    sptrlist_free(nullptr);
    sptrlist_free_ref(nullptr, [](void*) {});
    sptrlist_remove(nullptr, &a, sptrlist_cmp_string);
    EXPECT_EQ(sptrlist_count(nullptr), 0);
    sptrlist_dump(nullptr);
    EXPECT_EQ(err.text(), "");
}

TEST(PointerSlotListRecord, HoldsTwoLocksAndAnEmptyArray) {
    sptrlist* l = sptrlist_open();
    ASSERT_NE(l, nullptr);
    EXPECT_EQ(pthread_mutex_lock(&l->mutex), 0);
    EXPECT_EQ(pthread_mutex_unlock(&l->mutex), 0);
    EXPECT_EQ(pthread_rwlock_wrlock(&l->rwlock), 0);
    EXPECT_EQ(pthread_rwlock_unlock(&l->rwlock), 0);
    EXPECT_EQ(sptrlist_add(&l->list, &a), &a);
    EXPECT_EQ(sptrlist_count(l->list), 1);
    sptrlist_close(l, 1);
}

TEST(PointerSlotListRecord, LivesInTheHostsOwnStorage) {
    sptrlist l = {};
    EXPECT_EQ(sptrlist_init(&l), 0);
    EXPECT_EQ(sptrlist_count(l.list), 0);
    sptrlist_close(&l, 0);
    EXPECT_EQ(l.list, nullptr);
}

TEST(PointerSlotListRecord, IsMadeWithoutAnArrayWhenOnlyThatFails) {
    for (FailingAllocations round; round.next();) {
        round.arm();
        sptrlist* l = sptrlist_open();
        round.disarm();
        if (round.round() == 1) {
            EXPECT_EQ(l, nullptr);
            continue;
        }
        ASSERT_NE(l, nullptr);
        EXPECT_EQ(l->list == nullptr, round.hit());
        sptrlist_close(l, 1);
    }
}

TEST(PointerSlotListRecord, EndsTheProcessWhenALockCannotBeMade) {
    for (const char* call : {"pthread_mutex_init", "pthread_rwlock_init"}) {
        const ChildResult child = run_in_child([call] {
            FailingCall fault(call, EAGAIN);
            errno = ENOENT;
            sptrlist l = {};
            sptrlist_init(&l);
        });
        EXPECT_TRUE(child.exited);
        EXPECT_EQ(child.status, 255);
        EXPECT_EQ(child.err, std::string("./sptrlist/sptrlist:sptrlist_init: ") + call +
                                 "(): No such file or directory (11)\n");
    }
}

TEST(PointerSlotListRecord, GoesOnWhenTheMutexCannotBeDestroyed) {
    sptrlist* l = sptrlist_open();
    CapturedStderr err;
    FailingCall fault("pthread_mutex_destroy", EBUSY);
    errno = ENOENT;
    sptrlist_close(l, 1);
    EXPECT_EQ(err.text(),
              "./sptrlist/sptrlist:sptrlist_close: pthread_mutex_destroy(): No such file or "
              "directory (16)\n");
}

TEST(PointerSlotListRecord, IgnoresNull) {
    EXPECT_EQ(sptrlist_init(nullptr), -1);
    sptrlist_close(nullptr, 1);
}
