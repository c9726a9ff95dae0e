// A request is in one place at a time: with its caller, in `pending`, in `completed`, or in the
// worker's hands. The step from `pending` to `completed`, by an answer or by the sweep, is made
// under the table's lock, and the request is queued first: it leaves the table only once the queue
// has it, so it can neither be lost to a queue without memory nor be completed twice.
//
// The queue's timed wait tells one wake-up for any number of requests, so after each one the worker
// takes all there are. It calls back with no lock held: callbacks begin and process requests.
//
// Lock order: the table's mutex before the queue's. The manager's mutex stands alone.

#include <ztlib/ipc/async/async_request.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/clock.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>

#include <cerrno>
#include <ctime>
#include <span>

namespace {

constexpr const char* kModule = "./ipc/async/async_request";

constexpr uint64_t kBuckets = 100;
constexpr int32_t kIdleSeconds = 3;  // without work before the worker looks for expired requests
constexpr size_t kBatch = 64;        // completed requests that are taken under one lock
constexpr pthread_t kNoThread = 0;

// Seconds since the epoch; the low 32 bits, as deadlines are kept.
uint32_t seconds_now() { return static_cast<uint32_t>(time(nullptr)); }

// --- completing ----------------------------------------------------------------------------------

struct Outcome {
    uint8_t status;
    void* data;
    int32_t data_length;
};

// An expired request keeps the data that it came with.
Outcome expired(const async_request& request) {
    return {ASYNC_REQUEST_TIMED_OUT, request.data, request.data_length};
}

void set_outcome(async_request& request, const Outcome& outcome) {
    request.status = outcome.status;
    request.data = outcome.data;
    request.data_length = outcome.data_length;
}

// Queues the request for its callback, after which it may be gone. False, with the request as it
// was, when memory is out.
bool complete(async_requests_manager& manager, async_request& request, const Outcome& outcome) {
    const Outcome before{request.status, request.data, request.data_length};
    set_outcome(request, outcome);
    if (queue_enqueue(&manager.completed, &request)) return true;
    set_outcome(request, before);
    return false;
}

// A request that is not pending, and will not be.
void give_up(async_requests_manager& manager, async_request& request) {
    if (!complete(manager, request, expired(request))) async_request_free(&request);
}

// --- the worker ----------------------------------------------------------------------------------

constexpr zt::Site kWorker{kModule, "async_requests_routine"};

bool is_running(const async_requests_manager& manager) {
    return zt::load(manager.flags) & ASYNC_REQUESTS_RUNNING;
}

void set_alive(async_requests_manager& manager, bool alive) {
    zt::Lock lock(manager.mutex, kWorker);
    if (alive)
        zt::set_bits<uint8_t>(manager.flags, ASYNC_REQUESTS_ALIVE);
    else
        zt::clear_bits<uint8_t>(manager.flags, ASYNC_REQUESTS_ALIVE);
}

// Calls back, unless the manager is to end, and frees.
void finish(const async_requests_manager& manager, async_request* request) {
    if (request->callback && is_running(manager))
        request->callback(request->context, request->status, request->data,
                          static_cast<uint32_t>(request->data_length));
    async_request_free(request);
}

// Moves requests from the queue's head to `batch`, under one lock. Returns how many.
size_t take(queue& completed, std::span<async_request*> batch, zt::Site here) {
    zt::Lock lock(completed.mutex, here);
    size_t count = 0;
    while (count < batch.size() && completed.head)
        batch[count++] = static_cast<async_request*>(queue_dequeue_nl(&completed));
    return count;
}

// Finishes all that are queued. What comes once the last batch was taken has its own signal.
void finish_queued(async_requests_manager& manager, zt::Site here) {
    async_request* batch[kBatch];
    size_t count;
    do {
        count = take(manager.completed, batch, here);
        for (size_t i = 0; i < count; ++i) finish(manager, batch[i]);
    } while (count == kBatch);
}

// Completes the pending requests whose time is over, the newest first. One that cannot be queued
// stays for the next time.
void sweep(async_requests_manager& manager) {
    const uint32_t now = seconds_now();
    zt::Lock lock(manager.pending.mutex, kWorker);
    for (hashtable_entry *entry = manager.pending.last, *older; entry; entry = older) {
        older = entry->older;
        async_request& request = *static_cast<async_request*>(entry->value);
        if (request.deadline < now && complete(manager, request, expired(request)))
            hashtable_remove_l(&manager.pending, entry->key);
    }
}

bool has_passed(const timespec& deadline) {
    timespec now;
    if (!zt::deadline_in(0, now)) return false;
    return now.tv_sec != deadline.tv_sec ? now.tv_sec > deadline.tv_sec
                                         : now.tv_nsec >= deadline.tv_nsec;
}

// A wait that ended early, by a signal whose request was taken already or for no reason, is no
// idleness.
void work_once(async_requests_manager& manager) {
    timespec idle_until;
    const bool has_clock = zt::deadline_in(kIdleSeconds, idle_until);
    if (void* const first = queue_dequeue_swait(&manager.completed, kIdleSeconds)) {
        finish(manager, static_cast<async_request*>(first));
        finish_queued(manager, kWorker);
    } else if (has_clock && has_passed(idle_until)) {
        sweep(manager);
    }
}

void* async_requests_routine(void* argument) {
    async_requests_manager& manager = *static_cast<async_requests_manager*>(argument);
    set_alive(manager, true);
    while (is_running(manager)) work_once(manager);
    set_alive(manager, false);
    return nullptr;
}

// --- beginning and ending ------------------------------------------------------------------------

void free_table(async_requests_manager& manager) { hashtable_free(&manager.pending, 0); }
void free_queue(async_requests_manager& manager) { queue_free(&manager.completed, 0); }

// What is made so far is released again, and errno kept. Returns `result`.
int undo(async_requests_manager& manager, zt::Site here, int result) {
    const int error = errno;
    if (manager.pending.buckets) free_table(manager);
    zt::destroy_mutex(manager.mutex, here);
    errno = error;
    return result;
}

bool start_worker(async_requests_manager& manager) {
    zt::set_bits<uint8_t>(manager.flags, ASYNC_REQUESTS_RUNNING);
    errno = pthread_create(&manager.thread, nullptr, async_requests_routine, &manager);
    if (errno == 0) return true;
    manager.thread = kNoThread;
    zt::clear_bits<uint8_t>(manager.flags, ASYNC_REQUESTS_RUNNING);
    return false;
}

void end_worker(async_requests_manager& manager, zt::Site here) {
    zt::Lock lock(manager.mutex, here);
    zt::clear_bits<uint8_t>(manager.flags, ASYNC_REQUESTS_RUNNING);
    lock.unlock();
    queue_prepair_exit(&manager.completed);
    pthread_join(manager.thread, nullptr);
    manager.thread = kNoThread;
}

}  // namespace

extern "C" async_requests_manager* async_requests_manager_create(void) {
    const zt::Site here{kModule, __func__};

    zt::Owned<async_requests_manager> manager(zt::allocate_zeroed<async_requests_manager>());
    if (!manager) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    if (async_requests_manager_init(manager.get()) != 0) {
        zt::report_call(here, "async_requests_manager_init");
        return nullptr;
    }
    return manager.release();
}

extern "C" int async_requests_manager_init(async_requests_manager* manager) {
    const zt::Site here{kModule, __func__};
    if (!manager) return -1;

    zt::zero(*manager);
    zt::init_mutex(manager->mutex, here);
    if (hashtable_init(&manager->pending, kBuckets, HASHTABLE_KEY_UINT64) != 0)
        return undo(*manager, here, -1);
    if (queue_init(&manager->completed) != 0) return undo(*manager, here, -2);
    if (start_worker(*manager)) return 0;

    const int error = errno;
    free_queue(*manager);
    errno = error;
    return undo(*manager, here, -1);
}

extern "C" void async_requests_manager_free(async_requests_manager* manager, int free_self) {
    const zt::Site here{kModule, __func__};

    if (!manager) return;
    if (manager->thread != kNoThread) {
        end_worker(*manager, here);
        finish_queued(*manager, here);
        free_queue(*manager);
        free_table(*manager);
        zt::destroy_mutex(manager->mutex, here);
    }
    if (free_self) free(manager);
}

extern "C" async_request* async_request_create(void* counter, uint32_t timeout_seconds) {
    const zt::Site here{kModule, __func__};
    if (!counter) return nullptr;

    async_request* const request = zt::allocate_zeroed<async_request>();
    if (!request) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    request->id = std::atomic_ref(*static_cast<uint64_t*>(counter)).fetch_add(1) + 1;
    request->deadline = seconds_now() + timeout_seconds;
    return request;
}

extern "C" void async_request_free(async_request* request) {
    if (!request) return;
    if (request->data_length > 0) free(request->data);
    free(request);
}

extern "C" int async_request_begin(async_requests_manager* manager, async_request* request) {
    if (!manager || !request) return 0;

    // The moment it is in, an answer may complete it: it is not touched any more.
    void* displaced = nullptr;
    if (hashtable_insert(&manager->pending, &request->id, request, &displaced) != 0)
        give_up(*manager, *request);
    else if (displaced && displaced != request)
        give_up(*manager, *static_cast<async_request*>(displaced));
    return 0;
}

extern "C" int async_request_process(async_requests_manager* manager, uint64_t id, int status,
                                     void* data, int32_t data_length) {
    if (!manager) return -1;

    void* const found = hashtable_get_l(&manager->pending, &id);
    const bool completed = found && complete(*manager, *static_cast<async_request*>(found),
                                             {static_cast<uint8_t>(status), data, data_length});
    if (completed) hashtable_remove_l(&manager->pending, &id);
    zt::unlock_mutex(manager->pending.mutex, {kModule, __func__});
    return completed ? 0 : -1;
}
