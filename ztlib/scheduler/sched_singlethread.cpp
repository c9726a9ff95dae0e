// The thread takes tasks from the blocking queue until `running` is cleared. A stop clears it first
// and requests the queue's exit then: whatever the thread is doing, it either sees the flag, or
// meets a queue whose waits return at once.
//
// The thread never detaches itself. It ends only after a stop, and the stop joins it.
//
// Two locks, never held together: the scheduler's, for `state`, and the queue's own. The thread
// reads `state` between two tasks without the lock.

#include <ztlib/scheduler/sched_singlethread.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/failure.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>

#include <cerrno>

namespace {

constexpr const char* kModule = "./scheduler/sched_singlethread";

bool is_running(const sched_singlethread& s) { return zt::load(s.state) & SCHED_RUNNING; }

void clear_state(sched_singlethread& s, uint8_t bits, zt::Site here) {
    zt::Lock lock(s.mutex, here);
    zt::clear_bits(s.state, bits);
}

// Runs the task. `result` is that of the last `work`, of whichever task.
void run(const sched_task& task, int32_t& result) {
    if ((task.flags & SCHED_TASK_WORK) && task.work) result = task.work(task.arg);
    if ((task.flags & SCHED_TASK_DONE) && task.done) task.done(task.arg, result);
}

sched_task* next_task(sched_singlethread& s) {
    return static_cast<sched_task*>(queue_dequeue_s(&s.tasks));
}

void* sched_singlethread_routine(void* scheduler) {
    sched_singlethread& s = *static_cast<sched_singlethread*>(scheduler);
    int32_t result = 0;
    while (is_running(s)) {
        const zt::Owned<sched_task> task(next_task(s));
        if (task) run(*task, result);
    }
    clear_state(s, SCHED_THREAD_ALIVE, {kModule, __func__});
    return nullptr;
}

void drop_tasks(queue& tasks) {
    while (void* const task = queue_dequeue(&tasks)) free(task);
}

}  // namespace

extern "C" sched_singlethread* sched_singlethread_create(void) {
    const zt::Site here{kModule, __func__};

    zt::Owned<sched_singlethread> s(zt::allocate_zeroed<sched_singlethread>());
    if (!s) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    if (sched_singlethread_init(s.get()) < 0) {
        zt::report_call(here, "sched_singlethread_init");
        return nullptr;
    }
    return s.release();
}

extern "C" int sched_singlethread_init(sched_singlethread* s) {
    const zt::Site here{kModule, __func__};

    if (!s) return -1;
    if (queue_init(&s->tasks) < 0) {
        zt::report_call(here, "queue_init");
        return -1;
    }
    zt::init_mutex(s->mutex, here);
    zt::store<uint8_t>(s->state, SCHED_RUNNING | SCHED_THREAD_ALIVE);

    const int code = pthread_create(&s->thread, nullptr, sched_singlethread_routine, s);
    if (code != 0) {
        zt::report(here, LOGGER_WARNING, "pthread_create() failed");
        zt::clear_bits<uint8_t>(s->state, SCHED_RUNNING);
        queue_free(&s->tasks, 0);
        zt::destroy_mutex(s->mutex, here);
        errno = code;
        return -1;
    }
    return 0;
}

extern "C" int sched_singlethread_schedule(sched_singlethread* s, sched_task* task) {
    if (s && task && !queue_enqueue(&s->tasks, task)) free(task);
    return 0;
}

extern "C" void sched_singlethread_free(sched_singlethread* s, int free_self) {
    const zt::Site here{kModule, __func__};

    if (!s) return;
    if (is_running(*s)) {
        clear_state(*s, SCHED_RUNNING, here);
        queue_prepair_exit(&s->tasks);
        pthread_join(s->thread, nullptr);
        drop_tasks(s->tasks);
        queue_free(&s->tasks, 0);
        zt::destroy_mutex(s->mutex, here);
    }
    if (free_self) free(s);
}
