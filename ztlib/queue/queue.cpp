// A singly linked list behind one mutex. A node is made before the lock is taken and released,
// where the form allows it, after the lock is given back: the lock covers the links, the semaphore
// and the signal, and no memory management.
//
// One lock, under which nothing else is locked.
//
// queue_remove() leaves `tail` where it was when the first node alone stays, so `tail` may then
// point to a node that is gone. kTailLost remembers it until the next enqueue, or until the queue
// runs empty.

#include <ztlib/queue/queue.h>

#include <ztlib/base/clock.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>

#include <cerrno>
#include <cstdio>

namespace {

constexpr const char* kModule = "./queue/queue";

constexpr uint8_t kTailLost = 128;

bool has(const queue& q, uint8_t flag) { return q.flags & flag; }
void set(queue& q, uint8_t flag) { q.flags |= flag; }
void clear(queue& q, uint8_t flags) { q.flags &= static_cast<uint8_t>(~flags); }

queue_node* make_node(void* value) {
    queue_node* const node = zt::allocate<queue_node>(1);
    if (node) *node = {value, nullptr};
    return node;
}

// Releases a node that is no longer linked; null gives null.
void* release_node(queue_node* node) {
    if (!node) return nullptr;
    void* const value = node->value;
    free(node);
    return value;
}

// For all steps below the caller holds the lock.

inline void link_at_tail(queue& q, queue_node* node) {
    if (has(q, kTailLost)) [[unlikely]] {
        q.tail = q.head;
        while (q.tail->next) q.tail = q.tail->next;
        clear(q, kTailLost);
    }
    if (q.head)
        q.tail->next = node;
    else
        q.head = node;
    q.tail = node;
}

// The former head, or null when the queue is empty.
inline queue_node* unlink_head(queue& q) {
    queue_node* const node = q.head;
    if (!node) return nullptr;
    q.head = node->next;
    if (!q.head) {
        q.tail = nullptr;
        clear(q, kTailLost);
    }
    return node;
}

// Links the node and tells one waiter of either kind.
inline void post(queue& q, queue_node* node) {
    link_at_tail(q, node);
    sem_post(&q.items);
    set(q, QUEUE_POSTED);
    pthread_cond_signal(&q.cond);
}

void* head_value(const queue& q) { return q.head ? q.head->value : nullptr; }

// Sleeps until the next signal. May wake up without one.
void wait_for_signal(queue& q) {
    set(q, QUEUE_WAITING);
    pthread_cond_wait(&q.cond, &q.mutex);
    clear(q, QUEUE_WAITING);
}

// Sleeps until an enqueue signals, at most until `deadline`, and consumes that signal. False when
// there was none.
bool consume_signal_until(queue& q, const timespec& deadline) {
    set(q, QUEUE_WAITING);
    pthread_cond_timedwait(&q.cond, &q.mutex, &deadline);
    const bool posted = has(q, QUEUE_POSTED);
    clear(q, QUEUE_WAITING | QUEUE_POSTED);
    return posted;
}

// Takes the lock itself.
void request_exit(queue& q, zt::Site here) {
    zt::Lock lock(q.mutex, here);
    set(q, QUEUE_EXITING);
    pthread_cond_signal(&q.cond);
}

}  // namespace

extern "C" queue* queue_create(void) {
    const zt::Site here{kModule, __func__};

    zt::Owned<queue> q(zt::allocate_zeroed<queue>());
    if (!q) {
        zt::report_call(here, "calloc", LOGGER_ERROR);
        return nullptr;
    }
    if (queue_init(q.get()) < 0) {
        zt::report_call(here, "queue_init");
        return nullptr;
    }
    return q.release();
}

extern "C" int queue_init(queue* q) {
    if (!q) return -1;
    q->head = nullptr;
    q->tail = nullptr;
    if (sem_init(&q->items, 0, 0) != 0) return -1;
    zt::init_mutex(q->mutex, {kModule, __func__});
    pthread_cond_init(&q->cond, nullptr);
    return 0;
}

extern "C" void queue_free(queue* q, int free_self) {
    const zt::Site here{kModule, __func__};

    if (!q) return;
    request_exit(*q, here);
    zt::destroy_mutex(q->mutex, here);
    sem_destroy(&q->items);
    pthread_cond_destroy(&q->cond);
    if (free_self) free(q);
}

extern "C" void queue_prepair_exit(queue* q) {
    if (q) request_exit(*q, {kModule, __func__});
}

extern "C" queue_node* queue_enqueue(queue* q, void* value) {
    if (!q) return nullptr;
    queue_node* const node = make_node(value);
    if (!node) return nullptr;

    zt::Lock lock(q->mutex, {kModule, __func__});
    post(*q, node);
    return node;
}

extern "C" queue_node* queue_enqueue_l(queue* q, void* value) {
    if (!q) return nullptr;
    queue_node* const node = make_node(value);

    zt::lock_mutex(q->mutex);
    if (node) post(*q, node);
    return node;
}

extern "C" void* queue_dequeue(queue* q) {
    if (!q) return nullptr;
    zt::Lock lock(q->mutex, {kModule, __func__});
    queue_node* const node = unlink_head(*q);
    lock.unlock();
    return release_node(node);
}

extern "C" void* queue_dequeue_l(queue* q) {
    if (!q) return nullptr;
    zt::lock_mutex(q->mutex);
    return queue_dequeue_nl(q);
}

extern "C" void* queue_dequeue_nl(queue* q) { return q ? release_node(unlink_head(*q)) : nullptr; }

extern "C" void* queue_dequeue_ls(queue* q) {
    if (!q) return nullptr;
    while (sem_wait(&q->items) != 0 && errno == EINTR) continue;
    return queue_dequeue_l(q);
}

extern "C" void* queue_dequeue_s(queue* q) {
    if (!q) return nullptr;
    zt::Lock lock(q->mutex, {kModule, __func__});
    if (has(*q, QUEUE_EXITING)) return nullptr;
    if (!q->head) {
        wait_for_signal(*q);
        if (has(*q, QUEUE_EXITING)) return nullptr;
    }
    queue_node* const node = unlink_head(*q);
    lock.unlock();
    return release_node(node);
}

extern "C" void* queue_dequeue_swait(queue* q, int32_t seconds) {
    const zt::Site here{kModule, __func__};

    if (!q) return nullptr;
    zt::Lock lock(q->mutex, here);
    if (has(*q, QUEUE_EXITING)) return nullptr;
    if (has(*q, QUEUE_POSTED)) {
        clear(*q, QUEUE_POSTED);
    } else {
        timespec deadline;
        if (!zt::deadline_in(seconds, deadline)) {
            lock.unlock();
            zt::report_call(here, "clock_gettime()");
            return nullptr;
        }
        if (!consume_signal_until(*q, deadline)) return nullptr;
        if (has(*q, QUEUE_EXITING)) return nullptr;
    }
    queue_node* const node = unlink_head(*q);
    lock.unlock();
    return release_node(node);
}

extern "C" void* queue_peek(queue* q) {
    if (!q) return nullptr;
    zt::Lock lock(q->mutex, {kModule, __func__});
    return head_value(*q);
}

extern "C" void* queue_peek_l(queue* q) {
    if (!q) return nullptr;
    zt::lock_mutex(q->mutex);
    return head_value(*q);
}

extern "C" void queue_remove(queue* q, void* argument, int (*keep)(void* value, void* argument)) {
    if (!q || !keep) return;
    while (q->head && !keep(q->head->value, argument)) free(unlink_head(*q));
    if (!q->head) return;

    queue_node* kept = q->head;
    bool dropped = false;
    while (queue_node* const node = kept->next) {
        if (keep(node->value, argument)) {
            q->tail = kept = node;
        } else {
            kept->next = node->next;
            free(node);
            dropped = true;
        }
    }
    if (dropped && kept == q->head) set(*q, kTailLost);
}

extern "C" void queue_dump(queue* q, void (*print)(void* value)) {
    if (!q || !print || !q->head) return;
    fprintf(stderr, "- queue dump -\n");
    for (const queue_node* node = q->head; node; node = node->next) print(node->value);
    fprintf(stderr, "----\n");
}
