/* A task for the scheduler (sched_singlethread.h): work, and what is to be done with its result.
 *
 *     sched_task_create --> filled in by the host --sched_singlethread_schedule--> the scheduler's
 *                                      \--sched_task_free--> freed
 *
 * A task runs once. The scheduler frees it afterwards, but never `arg`. */
#ifndef ZTLIB_SCHEDULER_SCHED_TASK_H
#define ZTLIB_SCHEDULER_SCHED_TASK_H

#include <stdint.h>
#include <ztlib/decls.h>

ZT_BEGIN_DECLS

typedef struct sched_task {
    uint16_t flags; /* SCHED_TASK_WORK | SCHED_TASK_DONE; other bits mean nothing */
    int32_t (*work)(void *arg);
    void (*done)(void *arg, int32_t result);
    void *arg; /* the host's */
} sched_task;

enum {
    SCHED_TASK_WORK = 1, /* call work(arg) */
    SCHED_TASK_DONE = 2  /* then done(arg, result) */
};

/* A new task with the low 16 bits of `flags` and nothing else set: the caller fills in `work`,
 * `done` and `arg`. NULL when memory is out ("calloc(): ..." logged as an error). */
sched_task *sched_task_create(int flags);

/* Frees a task that was not scheduled, when `free_flag` is not 0; else does nothing. NULL is
 * ignored. */
void sched_task_free(sched_task *task, int free_flag);

ZT_END_DECLS

#endif
