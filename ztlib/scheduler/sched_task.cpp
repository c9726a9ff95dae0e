// A task is a plain record of the malloc family, so that a host may make its own.
//
// It is freed by another thread than the one that made it. malloc() has what came back that way in
// the thread's own cache, where calloc() does not look: it takes a lock for each record.

#include <ztlib/scheduler/sched_task.h>

#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>

namespace {

constexpr const char* kModule = "./scheduler/sched_task";

}  // namespace

extern "C" sched_task* sched_task_create(int flags) {
    sched_task* const task = zt::allocate<sched_task>(1);
    if (!task) {
        zt::report_call({kModule, __func__}, "calloc", LOGGER_ERROR);
        return nullptr;
    }
    zt::zero(*task);
    task->flags = static_cast<uint16_t>(flags);
    return task;
}

extern "C" void sched_task_free(sched_task* task, int free_flag) {
    if (free_flag) free(task);
}
