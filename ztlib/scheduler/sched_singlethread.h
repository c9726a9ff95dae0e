/* A scheduler: one thread that runs tasks, one after another, in the order in which they were
 * scheduled.
 *
 *     sched_singlethread_schedule --> tasks --> the thread: work(arg), done(arg, result)
 *     (any thread)
 *
 *     running --sched_singlethread_free--> stopping --> ended --> freed
 *                                          (the task that runs is finished, the others dropped)
 *
 * `done` gets the result of the last `work` that the thread called. A task that has SCHED_TASK_DONE
 * alone therefore gets the result of an earlier task, or 0 when no `work` was called yet. A flag
 * whose function is NULL is as if it were not set; a task without flags is taken, freed, and that
 * is all.
 *
 * Tasks run with no lock held and may schedule others. A task never frees its own scheduler, which
 * waits for its thread. The thread has the signal mask of the one that made the scheduler.
 *
 * A mutex that cannot be taken ends the process with 1 (pthread_utils.h); one that cannot be made
 * or released prints
 *     ./scheduler/sched_singlethread:<function>: <call>(): <text of errno> (<code>)
 * on standard error and ends it with exit(-1). The queue's own mutex does so under the queue's
 * name. */
#ifndef ZTLIB_SCHEDULER_SCHED_SINGLETHREAD_H
#define ZTLIB_SCHEDULER_SCHED_SINGLETHREAD_H

#include <pthread.h>
#include <stdint.h>
#include <ztlib/decls.h>
#include <ztlib/queue/queue.h>
#include <ztlib/scheduler/sched_task.h>

ZT_BEGIN_DECLS

typedef struct sched_singlethread {
    pthread_t thread;
    pthread_mutex_t mutex; /* guards state */
    uint8_t state;         /* SCHED_RUNNING | SCHED_THREAD_ALIVE */
    queue tasks;           /* of sched_task pointers, scheduled and not yet taken */
} sched_singlethread;

enum {
    SCHED_RUNNING = 1,     /* cleared by sched_singlethread_free and by a failed start */
    SCHED_THREAD_ALIVE = 2 /* cleared by the thread as its last step */
};

/* A new scheduler whose thread runs, or NULL: memory is out ("calloc(): ..." logged as a warning),
 * or as sched_singlethread_init says ("sched_singlethread_init(): ..." logged as a warning behind
 * its own record). Release it with sched_singlethread_free(s, 1). */
sched_singlethread *sched_singlethread_create(void);

/* Prepares a scheduler in the caller's own storage, which must be zeroed, and starts its thread.
 * Returns 0, or -1 with nothing left to release, after a warning: "queue_init(): ..." when the
 * queue's semaphore cannot be made, "pthread_create() failed" when the thread cannot (errno says
 * why). */
int sched_singlethread_init(sched_singlethread *s);

/* Hands over a task, made by sched_task_create() or of the malloc family otherwise; from now on the
 * scheduler frees it. Always 0: a task for which there is no memory is freed without being run. A
 * NULL task or scheduler is ignored (the task then stays the caller's). Any thread may call this,
 * as long as nobody has begun to free the scheduler. */
int sched_singlethread_schedule(sched_singlethread *s, sched_task *task);

/* Stops the scheduler: lets the task that runs finish, joins the thread, frees the tasks that were
 * not begun without running them, and releases the rest, the record too when `free_self` is not 0.
 * NULL is ignored. Of a record that is not in use (zeroed, failed to start, or freed before with
 * `free_self` 0) only the record itself is released. A mutex that cannot be destroyed is printed on
 * standard error and otherwise ignored.
 *
 * To have all tasks run first, schedule one at the end that says so, and wait for it. */
void sched_singlethread_free(sched_singlethread *s, int free_self);

ZT_END_DECLS

#endif
