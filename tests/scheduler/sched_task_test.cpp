#include <ztlib/scheduler/sched_task.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <gmock/gmock.h>

using namespace zt_test;
using testing::ElementsAre;

namespace {

uint16_t stored_flags(int flags) {
    sched_task* const task = sched_task_create(flags);
    const uint16_t stored = task->flags;
    sched_task_free(task, 1);
    return stored;
}

}  // namespace

TEST(SchedTask, StartsWithItsFlagsAndNothingElse) {
    sched_task* const task = sched_task_create(SCHED_TASK_WORK | SCHED_TASK_DONE);
    EXPECT_EQ(task->flags, 3);
    EXPECT_EQ(task->work, nullptr);
    EXPECT_EQ(task->done, nullptr);
    EXPECT_EQ(task->arg, nullptr);
    sched_task_free(task, 1);
}

TEST(SchedTask, KeepsTheLowSixteenBitsOfItsFlags) {
    EXPECT_EQ(stored_flags(0x10003), 3);
    EXPECT_EQ(stored_flags(0), 0);
    EXPECT_EQ(stored_flags(-1), 0xFFFF);
}

TEST(SchedTask, IsFreedOnRequestAlone) {
    const int64_t before = live_allocations();
    sched_task* const task = sched_task_create(0);
    sched_task_free(task, 0);
    EXPECT_EQ(live_allocations(), before + 1);
    sched_task_free(task, -1);
    EXPECT_EQ(live_allocations(), before);

    sched_task_free(nullptr, 1);
    sched_task_free(nullptr, 0);
}

TEST(SchedTask, IsNotMadeWhenMemoryIsOut) {
    CapturedLog log;
    for_each_failing_allocation([] { return sched_task_create(3); },
                                [](sched_task* task) { sched_task_free(task, 1); });
    EXPECT_THAT(log.lines(),
                ElementsAre("ERR:sched_task:sched_task_create: calloc(): Cannot allocate memory"));
}
