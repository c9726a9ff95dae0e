// A worker's three threads meet at its mutex (which guards its slots) and at its queue of turns.
// Only the process thread removes and frees nodes, under the worker's mutex as far as the slots and
// the turns go: whoever holds that mutex can use every node in the slots, and a node taken from the
// queue of turns is alive because its removal drops its other turns.
//
// A turn may only be queued between adoption and removal, while the node points to a worker whose
// queue exists. `adopted` says so, under the node's mutex, which is therefore held while a turn is
// queued.
//
// What select() found ready belongs to the nodes of that round: one that was adopted meanwhile,
// perhaps with the number of one that was closed meanwhile, bears an older round and is left alone.
// Reads don't block in any case.
//
// Stopping clears `running` first, then wakes: the process thread by its queue's exit request, the
// read thread by the semaphore, the incoming threads, all of which sleep on the pool's queue, by
// broadcasts. The pool's mutex is not held while threads are joined: their callbacks may want it.
//
// Lock order: pool, worker, node, queue.

#include <ztlib/pools/threadpool/threadpool.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/clock.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>
#include <ztlib/sptrlist/sptrlist.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <span>

#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char* kModule = "./pools/threadpool/threadpool";

constexpr int32_t kReadBytes = 1500;
constexpr time_t kSelectSeconds = 1;
constexpr int32_t kOwedTurnSeconds = 1;        // between two tries to queue a turn
constexpr long kJoinNanoseconds = 10'000'000;  // between two wake-ups of a thread to be joined
constexpr size_t kNameBytes = 32;

// Values of threadpool::state.
enum : uint8_t { kCreated, kStarted, kStartFailed };

// Bits of threadpool_thread::started.
enum : uint8_t { kReadThread = 1, kIncomingThread = 2, kProcessThread = 4 };

using Slots = std::span<void*>;

// The element slots of a slot array.
Slots slots_of(void** list) { return {list + 1, *static_cast<const uint32_t*>(list[0]) - 1}; }

threadpool_node* node_in(void* slot) { return static_cast<threadpool_node*>(slot); }
threadpool_thread* worker_in(void* slot) { return static_cast<threadpool_thread*>(slot); }

bool is_running(const threadpool_thread& w) { return zt::load(w.running); }

bool fits_descriptor_set(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

// --- closing and turns ---

bool is_closing(threadpool_node& node, zt::Site here) {
    zt::Lock lock(node.mutex, here);
    return node.must_exit;
}

void start_closing(threadpool_node& node, zt::Site here) {
    zt::Lock lock(node.mutex, here);
    node.must_exit = 1;
}

// The caller holds the node's mutex. Null when the node is not adopted or memory is out.
queue_node* queue_turn(threadpool_node& node) {
    return node.adopted ? queue_enqueue(&node.worker->processing, &node) : nullptr;
}

// A turn without a trace line, for a node that is known to be adopted. False when memory is out.
bool give_turn(threadpool_node& node, zt::Site here) {
    zt::Lock lock(node.mutex, here);
    return queue_turn(node) != nullptr;
}

// --- incoming thread ---

constexpr zt::Site kIncoming{kModule, "threadpool_incoming_routine"};

void set_worker(threadpool_node& node, threadpool_thread* worker) {
    zt::Lock lock(node.mutex, kIncoming);
    node.worker = worker;
}

bool is_wanted(threadpool_node& node) {
    if (!fits_descriptor_set(node.fd)) {
        fprintf(stderr, "%s NODE %d REFUSED: not a descriptor below %d\n", kIncoming.function,
                node.fd, FD_SETSIZE);
        return false;
    }
    return !node.add_cb || node.add_cb(node.user, &node) == 0;
}

// Adds the node with its first turn. False when memory is out for its slot. The worker's mutex
// keeps the node from being removed before all of this is done.
bool adopt(threadpool_thread& w, threadpool_node& node) {
    zt::Lock lock(w.mutex, kIncoming);
    if (!sptrlist_add(&w.nodes, &node)) return false;
    fprintf(stderr, "NODE %d ADD TO THREAD POOL id:%d\n", node.fd, w.id);

    zt::Lock node_lock(node.mutex, kIncoming);
    node.adopted = 1;
    node.watched = 0;
    zt::store<uint8_t>(node.turn_owed, 0);
    if (!queue_turn(node)) zt::store<uint8_t>(node.turn_owed, 1);
    return true;
}

// The node is the host's again as soon as its remove_cb is called.
void refuse(threadpool_node& node) {
    set_worker(node, nullptr);
    if (node.remove_cb) node.remove_cb(node.user);
}

// An accepted node that there is no memory for: what the pool accepts, it removes.
void drop(threadpool_node& node) {
    refuse(node);
    threadpool_node_destroy(&node);
}

void take_in(threadpool_thread& w, threadpool_node& node) {
    set_worker(node, &w);
    if (!is_wanted(node))
        refuse(node);
    else if (adopt(w, node))
        sem_post(&w.wake);
    else
        drop(node);
}

void* incoming_routine(void* worker) {
    threadpool_thread& w = *worker_in(worker);
    while (is_running(w)) {
        threadpool_node* node = node_in(queue_dequeue_s(&w.pool->incoming));
        if (!node) continue;
        // A worker stopped alone leaves the node to the others.
        if (!is_running(w) && queue_enqueue(&w.pool->incoming, node)) break;
        take_in(w, *node);
    }
    return nullptr;
}

// --- read thread ---

constexpr zt::Site kRead{kModule, "threadpool_read_routine"};

struct Watched {
    fd_set set;
    int highest = 0;
    bool owes_turns = false;
};

void watch(Watched& watched, threadpool_node& node, uint64_t round) {
    if (!fits_descriptor_set(node.fd) || is_closing(node, kRead)) return;
    FD_SET(node.fd, &watched.set);
    watched.highest = std::max(watched.highest, node.fd);
    node.watched = round;
}

// A turn that could not be queued when it was due.
bool still_owes_turn(threadpool_node& node) {
    if (!zt::load(node.turn_owed)) return false;
    if (!give_turn(node, kRead)) return true;
    zt::store<uint8_t>(node.turn_owed, 0);
    return false;
}

void watch_all(Watched& watched, threadpool_thread& w) {
    FD_ZERO(&watched.set);
    zt::Lock lock(w.mutex, kRead);
    ++w.round;
    for (void* slot : slots_of(w.nodes)) {
        if (!slot) continue;
        watch(watched, *node_in(slot), w.round);
        watched.owes_turns |= still_owes_turn(*node_in(slot));
    }
}

void wait_for_node(threadpool_thread& w, bool owes_turns) {
    timespec deadline;
    const bool timed = owes_turns && zt::deadline_in(kOwedTurnSeconds, deadline);
    while ((timed ? sem_timedwait(&w.wake, &deadline) : sem_wait(&w.wake)) != 0 && errno == EINTR) {
    }
}

// What came of a read: the callbacks' result, or that there was nothing to read after all.
struct ReadResult {
    int32_t value;
    bool nothing = false;
};

ReadResult read_from(threadpool_node& node) {
    char buffer[kReadBytes];
    int32_t count;
    if (node.read_cb) {
        count = node.read_cb(node.user, buffer, kReadBytes);
    } else {
        count = static_cast<int32_t>(recv(node.fd, buffer, kReadBytes, MSG_DONTWAIT));
        if (count < 0 && (errno == EAGAIN || errno == EINTR)) return {0, true};
        if (count == 0) return {-1};  // the peer closed
    }
    if (count > 0 && node.data_cb) return {node.data_cb(node.user, buffer, count)};
    return {count};
}

// The caller holds the worker's mutex.
void serve(threadpool_node& node) {
    const ReadResult result = read_from(node);
    if (result.nothing || (result.value == 0 && node.read_cb)) return;
    if (result.value < 0) {
        start_closing(node, kRead);
        fprintf(stderr, "%s must_exit set for client %d\n", kRead.function, node.fd);
    }
    if (!threadpool_enqueue_processing(&node)) zt::store<uint8_t>(node.turn_owed, 1);
}

void serve_ready(const Watched& watched, threadpool_thread& w) {
    zt::Lock lock(w.mutex, kRead);
    for (void* slot : slots_of(w.nodes)) {
        if (!is_running(w)) return;  // what is unread stays in the sockets
        if (!slot) continue;
        threadpool_node& node = *node_in(slot);
        if (node.watched == w.round && FD_ISSET(node.fd, &watched.set) && !is_closing(node, kRead))
            serve(node);
    }
}

void* read_routine(void* worker) {
    threadpool_thread& w = *worker_in(worker);
    while (is_running(w)) {
        Watched watched;
        watch_all(watched, w);
        if (watched.highest == 0) {
            fprintf(stderr, "%s sem_wait id:%d\n", kRead.function, w.id);
            wait_for_node(w, watched.owes_turns);
            continue;
        }
        timeval limit{kSelectSeconds, 0};
        const int ready = select(watched.highest + 1, &watched.set, nullptr, nullptr, &limit);
        if (ready < 0) fprintf(stderr, "%s: select(): %s\n", kRead.function, strerror(errno));
        if (ready > 0) serve_ready(watched, w);
    }
    return nullptr;
}

// --- process thread ---

constexpr zt::Site kProcess{kModule, "threadpool_processing_routine"};

int is_other_node(void* value, void* node) {
    return threadpool_node_compare(node_in(value), node_in(node));
}

int compare_slot(const void* slot, const void* node) {
    return threadpool_node_compare(static_cast<const threadpool_node*>(slot),
                                   static_cast<const threadpool_node*>(node));
}

// Takes the node out of everything through which another thread could reach it.
void unlink_node(threadpool_thread& w, threadpool_node& node) {
    zt::Lock lock(w.mutex, kProcess);
    {
        zt::Lock node_lock(node.mutex, kProcess);
        node.adopted = 0;
        node.worker = nullptr;
    }
    {
        zt::Lock queue_lock(w.processing.mutex, kProcess);
        queue_remove(&w.processing, &node, is_other_node);
    }
    sptrlist_remove(w.nodes, &node, compare_slot);
}

void remove_node(threadpool_thread& w, threadpool_node& node) {
    unlink_node(w, node);
    fprintf(stderr, "NODE %d REMOVED FROM THREAD POOL id:%d\n", node.fd, w.id);
    if (node.remove_cb) node.remove_cb(node.user);
    threadpool_node_destroy(&node);
}

// True when the node wants another turn; it may be gone when it does not.
bool take_turn(threadpool_thread& w, threadpool_node& node) {
    if (is_closing(node, kProcess)) {
        remove_node(w, node);
        return false;
    }
    const int32_t result = node.process_cb ? node.process_cb(node.user) : 0;
    if (result == -1) start_closing(node, kProcess);
    return result != 0;
}

void* process_routine(void* worker) {
    threadpool_thread& w = *worker_in(worker);
    while (is_running(w)) {
        threadpool_node* node = node_in(queue_dequeue_s(&w.processing));
        if (!node) continue;
        fprintf(stderr, "%s client %d\n", kProcess.function, node->fd);
        // A turn that cannot be queued for want of memory is taken at once.
        while (take_turn(w, *node) && !give_turn(*node, kProcess) && is_running(w)) {
        }
    }
    return nullptr;
}

// --- workers ---

// False when the thread cannot be created.
bool start_thread(threadpool_thread& w, uint8_t bit, pthread_t& thread, void* (*routine)(void*),
                  const char* role, uint32_t slot) {
    if (pthread_create(&thread, nullptr, routine, &w) != 0) return false;
    w.started |= bit;
    char name[kNameBytes];
    snprintf(name, sizeof name, "p/%u/, %s", slot, role);
    pthread_setname_np(thread, name);
    return true;
}

bool start_worker(threadpool_thread& w, uint32_t slot) {
    return start_thread(w, kReadThread, w.read_thread, read_routine, "read", slot) &&
           start_thread(w, kIncomingThread, w.incoming_thread, incoming_routine, "incoming",
                        slot) &&
           start_thread(w, kProcessThread, w.process_thread, process_routine, "process", slot);
}

void request_stop(threadpool_thread& w) {
    zt::store<uint32_t>(w.running, 0);
    queue_prepair_exit(&w.processing);
    sem_post(&w.wake);
}

// True for a thread that is to be joined, once.
bool take_started(threadpool_thread& w, uint8_t bit) {
    const bool started = w.started & bit;
    w.started &= static_cast<uint8_t>(~bit);
    return started;
}

void join(threadpool_thread& w, uint8_t bit, pthread_t thread) {
    if (take_started(w, bit)) pthread_join(thread, nullptr);
}

// Wakes every incoming thread of the pool; those that are not to stop go back to sleep. One that is
// between its look at `running` and its sleep misses this, so it is repeated until the thread has
// ended.
void join_incoming(threadpool_thread& w, zt::Site here) {
    if (!take_started(w, kIncomingThread)) return;
    timespec deadline{};
    do {
        {
            zt::Lock lock(w.pool->incoming.mutex, here);
            pthread_cond_broadcast(&w.pool->incoming.cond);
        }
        zt::deadline_in(0, deadline);
        deadline.tv_nsec += kJoinNanoseconds;
        if (deadline.tv_nsec >= 1'000'000'000) {
            deadline.tv_nsec -= 1'000'000'000;
            ++deadline.tv_sec;
        }
    } while (pthread_timedjoin_np(w.incoming_thread, nullptr, &deadline) == ETIMEDOUT);
}

// Frees the queue's own nodes; the values are not its.
void drain_and_free(queue& q) {
    while (q.head) queue_dequeue(&q);
    queue_free(&q, 0);
}

// The nodes are the host's again: nobody may queue turns for them any more.
void hand_back_nodes(threadpool_thread& w, zt::Site here) {
    zt::Lock lock(w.mutex, here);
    for (void* slot : slots_of(w.nodes)) {
        if (!slot) continue;
        zt::Lock node_lock(node_in(slot)->mutex, here);
        node_in(slot)->adopted = 0;
    }
}

// A worker that never ran.
void free_worker(threadpool_thread& w, zt::Site here) {
    queue_free(&w.processing, 0);
    sem_destroy(&w.wake);
    sptrlist_free(w.nodes);
    zt::destroy_mutex(w.mutex, here);
    free(&w);
}

// --- the pool ---

// Releases all but the workers.
void free_pool(threadpool& pool, zt::Site here) {
    drain_and_free(pool.incoming);
    sptrlist_free(pool.threads);
    zt::destroy_mutex(pool.mutex, here);
    free(&pool);
}

bool add_worker(threadpool& pool, int32_t id, zt::Site here) {
    threadpool_thread* w = threadpool_thread_create(&pool);
    if (!w) return false;
    w->id = id;
    if (sptrlist_add(&pool.threads, w)) return true;
    free_worker(*w, here);
    return false;
}

bool add_workers(threadpool& pool, zt::Site here) {
    for (int32_t id = 0; id < pool.count; ++id)
        if (!add_worker(pool, id, here)) return false;
    return true;
}

void free_workers(threadpool& pool, zt::Site here) {
    for (void* slot : slots_of(pool.threads))
        if (slot) free_worker(*worker_in(slot), here);
}

// Asks all workers to stop before any is joined: their last rounds run out side by side. The mutex
// of a pool whose start failed is held already.
void request_stop(threadpool& pool, zt::Site here) {
    if (pool.state != kStartFailed) pthread_utils_mutex_lock(&pool.mutex);
    queue_prepair_exit(&pool.incoming);
    for (void* slot : slots_of(pool.threads))
        if (slot && !worker_in(slot)->stopped) request_stop(*worker_in(slot));
    zt::unlock_mutex(pool.mutex, here);
}

}  // namespace

extern "C" threadpool* threadpool_create(int32_t workers) {
    const zt::Site here{kModule, __func__};
    if (workers < 0) return nullptr;

    zt::Owned<threadpool> pool(zt::allocate_zeroed<threadpool>());
    if (!pool || queue_init(&pool->incoming) != 0) return nullptr;
    zt::init_mutex(pool->mutex, here);
    pool->count = workers;
    pool->threads = sptrlist_create();
    if (pool->threads && add_workers(*pool, here)) return pool.release();

    if (pool->threads) free_workers(*pool, here);
    free_pool(*pool.release(), here);
    return nullptr;
}

extern "C" int threadpool_start(threadpool* pool) {
    if (!pool) return -1;

    zt::Lock lock(pool->mutex, {kModule, __func__});
    if (pool->state == kStarted) return 0;
    uint32_t number = 0;
    for (void* slot : slots_of(pool->threads)) {
        ++number;
        if (!slot || worker_in(slot)->stopped || start_worker(*worker_in(slot), number)) continue;
        pool->state = kStartFailed;
        lock.keep();
        return -1;
    }
    pool->state = kStarted;
    return 0;
}

extern "C" int threadpool_entry(threadpool* pool, threadpool_node* node) {
    if (!pool || !node) return -1;
    return queue_enqueue(&pool->incoming, node) ? 0 : -1;
}

extern "C" int threadpool_enqueue(threadpool_node* node) {
    const zt::Site here{kModule, __func__};
    if (!node) return 0;

    zt::Lock lock(node->mutex, here);
    if (node->must_exit) {
        fprintf(stderr, "%s FAILED enqueue tpn fd=%d\n", here.function, node->fd);
        return 0;
    }
    fprintf(stderr, "%s tpn fd=%d\n", here.function, node->fd);
    if (!node->adopted) return 0;
    return queue_turn(*node) ? 0 : -1;
}

extern "C" queue_node* threadpool_enqueue_processing(threadpool_node* node) {
    const zt::Site here{kModule, __func__};
    if (!node) return nullptr;

    fprintf(stderr, "%s tpn fd=%d\n", here.function, node->fd);
    zt::Lock lock(node->mutex, here);
    return queue_turn(*node);
}

extern "C" void threadpool_destroy(threadpool* pool) {
    const zt::Site here{kModule, __func__};
    if (!pool) return;

    request_stop(*pool, here);
    for (void* slot : slots_of(pool->threads)) {
        if (!slot) continue;
        threadpool_thread_destroy(worker_in(slot));
        worker_in(slot)->pool = nullptr;
    }
    free_pool(*pool, here);
}

extern "C" threadpool_thread* threadpool_thread_create(threadpool* pool) {
    const zt::Site here{kModule, __func__};
    if (!pool) return nullptr;

    zt::Owned<threadpool_thread> w(zt::allocate_zeroed<threadpool_thread>());
    if (!w) return nullptr;
    w->nodes = sptrlist_create();
    if (!w->nodes) return nullptr;
    if (sem_init(&w->wake, 0, 0) != 0) {
        sptrlist_free(w->nodes);
        return nullptr;
    }
    if (queue_init(&w->processing) != 0) {
        sem_destroy(&w->wake);
        sptrlist_free(w->nodes);
        return nullptr;
    }
    zt::init_mutex(w->mutex, here);
    w->running = 1;
    w->pool = pool;
    return w.release();
}

extern "C" void threadpool_thread_destroy(threadpool_thread* w) {
    const zt::Site here{kModule, __func__};
    if (!w || w->stopped) return;

    request_stop(*w);
    join_incoming(*w, here);
    join(*w, kProcessThread, w->process_thread);
    join(*w, kReadThread, w->read_thread);
    hand_back_nodes(*w, here);
    drain_and_free(w->processing);
    w->stopped = 1;
}

extern "C" threadpool_node* threadpool_node_create(void* user) {
    threadpool_node* node = zt::allocate_zeroed<threadpool_node>();
    if (!node) return nullptr;
    zt::init_mutex(node->mutex, {kModule, __func__});
    node->user = user;
    return node;
}

extern "C" void threadpool_node_destroy(threadpool_node* node) {
    const zt::Site here{kModule, __func__};
    if (!node) return;

    if (node->fd >= 0) {
        shutdown(node->fd, SHUT_RDWR);
        close(node->fd);
    }
    fprintf(stderr, "%s tpn fd = %d\n", here.function, node->fd);
    zt::destroy_mutex(node->mutex, here);
    free(node);
}

extern "C" int threadpool_node_compare(const threadpool_node* a, const threadpool_node* b) {
    return a == b ? 0 : -1;
}

extern "C" void threadpool_node_dump(const threadpool_node* node) {
    if (!node) return;
    fprintf(stderr, "qdump: ptr=%p, fd=%d, must_exit=%d\n", node->user, node->fd,
            zt::load(node->must_exit));
}

extern "C" void thread_pool_info(threadpool* pool) {
    const zt::Site here{kModule, __func__};
    if (!pool) return;

    fprintf(stderr, "-- therad pool dump cnt %d--\n", pool->count);
    zt::Lock lock(pool->mutex, here);
    for (void* slot : slots_of(pool->threads)) {
        if (!slot) continue;
        threadpool_thread& w = *worker_in(slot);
        zt::Lock worker_lock(w.mutex, here);
        int number = 0;
        for (void* node : slots_of(w.nodes)) {
            ++number;
            if (node) fprintf(stderr, "\tn[%d] fd:%d\n", number, node_in(node)->fd);
        }
    }
}
