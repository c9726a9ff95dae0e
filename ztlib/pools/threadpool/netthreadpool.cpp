// Two pairs of tables, one pair for nodes and one for threads: an entry stands in the free or in
// the busy table, always at its own index. An invitation moves the lowest idle thread to the busy
// table, gives it the node and wakes it; the thread serves the node and moves itself back.
//
// Lock order: a node's mutex, then the pool's thread lock or a thread's mutex, one at a time. The
// pool's node lock is taken alone. A node's release routine runs under the node's mutex.
//
// A hand-over wakes the thread with no lock held, so that it never runs into one. The record that
// is signalled then stays because it counts its signallers, and is freed only once there is none.
//
// A thread that is past its routine says so (`returning`) before the node's release can be seen
// from outside. That is how a stop that follows the last release still finds the thread: it waits
// until the thread is back among the idle ones, on the thread's `returned` and the pool's thread
// lock.

#include <ztlib/pools/threadpool/netthreadpool.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>
#include <ztlib/pools/threadpool/netthreadpool_private.hpp>

#include <algorithm>
#include <cerrno>
#include <utility>

#include <sched.h>
#include <signal.h>

namespace {

using zt::Lock;
using zt::Site;

constexpr const char* kModule = "./pools/threadpool/netthreadpool";

constexpr uint32_t kStarted = 5;
constexpr uint32_t kFirstCount = 10;
constexpr uint32_t kManyBusy = 20;  // threads; from there on throughput counts more than one answer

// --- the tables ----------------------------------------------------------------------------------

template <class Entry>
struct Tables {
    pthread_mutex_t& lock;  // guards all below
    Entry** idle;
    Entry** busy;
    uint32_t& count;
    uint32_t limit;
    const char* singular;  // as the messages spell it
    const char* plural;
};

Tables<netthreadpool_node> nodes_of(netthreadpool& pool) {
    return {pool.node_lock,          pool.free_nodes, pool.busy_nodes, pool.node_count,
            NETTHREADPOOL_MAX_NODES, "node",          "NODES"};
}

Tables<netthreadpool_thread> threads_of(netthreadpool& pool) {
    return {pool.thread_lock,          pool.free_threads, pool.busy_threads, pool.thread_count,
            NETTHREADPOOL_MAX_THREADS, "thread",          "THREADS"};
}

// A host may make records with any index; those that no table has a slot for stay out of them.
template <class Entry>
bool has_slot(const Entry& entry) {
    return entry.index < NETTHREADPOOL_MAX_NODES;
}

// The lowest index below `count` with an entry, or `count`. Eight slots at a time: with hundreds of
// connections the front of the idle table is empty.
template <class Entry>
uint32_t first_entry(Entry* const* table, uint32_t count) {
    constexpr uint32_t kStride = 8;
    const auto is_set = [](Entry* entry) { return entry != nullptr; };

    uint32_t i = 0;
    while (i + kStride <= count && std::none_of(table + i, table + i + kStride, is_set))
        i += kStride;
    return static_cast<uint32_t>(std::find_if(table + i, table + count, is_set) - table);
}

// Makes one more entry, already busy. The caller holds the lock.
template <class Entry, class Create>
Entry* grow(Tables<Entry>& tables, netthreadpool& pool, Create create, Site here) {
    if (tables.count >= tables.limit) {
        zt::report(here, LOGGER_ERROR, "NETTHREADPOOL_MAX_%s reached (%d)", tables.plural,
                   static_cast<int>(tables.limit));
        return nullptr;
    }
    Entry* const entry = create(&pool, tables.count);
    if (!entry) return nullptr;
    zt::report(here, LOGGER_WARNING, "create %s idx %u", tables.singular, tables.count);
    tables.busy[tables.count++] = entry;
    return entry;
}

template <class Entry, class Create>
Entry* take_lowest(Tables<Entry> tables, netthreadpool& pool, Create create, Site here) {
    Lock lock(tables.lock, here);
    const uint32_t index = first_entry(tables.idle, tables.count);
    if (index == tables.count) return grow(tables, pool, create, here);
    return tables.busy[index] = std::exchange(tables.idle[index], nullptr);
}

// Makes the idle entry of each index below `wanted` that has none. False when one cannot be made.
template <class Entry, class Create>
bool fill(Tables<Entry> tables, netthreadpool& pool, uint32_t wanted, Create create, Site here) {
    Lock lock(tables.lock, here);
    for (uint32_t i = 0; i < std::min(wanted, tables.count); ++i) {
        if (tables.idle[i] || tables.busy[i]) continue;
        tables.idle[i] = create(&pool, i);
        if (!tables.idle[i]) return false;
    }
    return true;
}

// --- a thread's life -----------------------------------------------------------------------------

bool is_running(const netthreadpool_thread& thread) {
    return thread.flags & NETTHREADPOOL_THREAD_RUNNING;
}

void block_sigpipe() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

// Sleeps until there is a node to serve; null once the thread is to end.
netthreadpool_node* next_node(netthreadpool_thread& self, Site here) {
    Lock lock(self.mutex, here);
    while (!self.node && is_running(self)) pthread_cond_wait(&self.condition, &self.mutex);
    return is_running(self) ? self.node : nullptr;
}

bool may_read(const netthreadpool_node& node) {
    return (node.flags & (NETTHREADPOOL_READ_INVITED | NETTHREADPOOL_READING |
                          NETTHREADPOOL_FINISHED)) == NETTHREADPOOL_READ_INVITED;
}

bool may_write(const netthreadpool_node& node) {
    return (node.flags & (NETTHREADPOOL_WRITE_INVITED | NETTHREADPOOL_WRITING |
                          NETTHREADPOOL_FINISHED)) == NETTHREADPOOL_WRITE_INVITED;
}

// Lets the node's mutex go while the routine runs.
int run(netthreadpool_routine routine, netthreadpool_node& node, Lock& lock) {
    void* const user_pointer = node.user_pointer;
    lock.unlock();
    const int result = routine ? routine(user_pointer) : 0;
    lock.relock(node.mutex);
    return result;
}

// Both are called with the node's mutex held.

void run_read(netthreadpool_node& node, Lock& lock) {
    node.flags |= NETTHREADPOOL_READING;
    run(node.read_routine, node, lock);
    node.flags |= NETTHREADPOOL_FINISHED;
}

void run_write(netthreadpool_node& node, Lock& lock) {
    node.flags |= NETTHREADPOOL_WRITING;
    for (bool once_more = true; once_more;) {
        node.flags &= ~uint32_t{NETTHREADPOOL_WRITE_INVITED};
        node.write_again = 0;
        if (run(node.write_routine, node, lock) != 0) {
            node.flags |= NETTHREADPOOL_FINISHED;
            return;
        }
        const bool asked = (node.flags & NETTHREADPOOL_WRITE_INVITED) || node.write_again;
        once_more = asked && !(node.flags & NETTHREADPOOL_FINISHED);
    }
    node.flags &= ~uint32_t{NETTHREADPOOL_WRITING};
}

void serve(netthreadpool_thread& self, netthreadpool_node& node, Site here) {
    Lock lock(node.mutex, here);
    if (may_read(node))
        run_read(node, lock);
    else if (may_write(node))
        run_write(node, lock);

    zt::store(self.returning, 1u);
    if (--node.invitations == 0) {
        lock.keep();
        _netthreadpool_node_remove(&self);
    }
}

void go_idle(netthreadpool_thread& self, Site here) {
    {
        Lock lock(self.mutex, here);
        self.node = nullptr;
    }
    netthreadpool& pool = *self.pool;
    Lock lock(pool.thread_lock, here);
    zt::store(self.returning, 0u);
    if (!has_slot(self)) return;
    pool.busy_threads[self.index] = nullptr;
    pool.free_threads[self.index] = &self;
    if (std::exchange(self.awaited, 0u)) pthread_cond_broadcast(&self.returned);
}

// In a pool with many busy threads, one turn for the others before this one sleeps: whoever was
// about to invite takes the lowest idle thread, often the one that has just come back, and finds it
// awake. That spares a wake-up for nearly every answer of a busy server, and costs where other
// programs want the same processors: a thread that has yielded waits for its next turn, a woken one
// does not. The lowest idle thread is always taken first, so a thread's index tells how many are
// busy.
void linger(const netthreadpool_thread& self) {
    if (self.index >= kManyBusy && !zt::load(self.node)) sched_yield();
}

void* netthreadpool_thread_routine(void* argument) {
    const Site here{kModule, __func__};
    auto& self = *static_cast<netthreadpool_thread*>(argument);

    block_sigpipe();
    while (netthreadpool_node* node = next_node(self, here)) {
        serve(self, *node, here);
        go_idle(self, here);
        linger(self);
    }
    return nullptr;
}

void release_thread(netthreadpool_thread* thread, Site here) {
    zt::destroy_mutex(thread->mutex, here);
    pthread_cond_destroy(&thread->condition);
    pthread_cond_destroy(&thread->returned);
    free(thread);
}

// Waits for the next time that the busy thread is back among the idle ones. The caller holds the
// thread lock, which is let go meanwhile.
void await_return(netthreadpool& pool, netthreadpool_thread& thread) {
    thread.awaited = 1;
    pthread_cond_wait(&thread.returned, &pool.thread_lock);
}

// True for a thread that serves nothing any more and is not idle yet, unless it is the caller's
// own.
bool is_on_its_way_back(const netthreadpool_thread* thread) {
    return thread && zt::load(thread->returning) &&
           !pthread_equal(thread->thread_handle, pthread_self());
}

// Takes the first idle thread at or behind the index out of its table, where no invitation finds it
// any more. Null when there is none.
netthreadpool_thread* take_to_stop(netthreadpool& pool, uint32_t& index, Site here) {
    Lock lock(pool.thread_lock, here);
    for (; index < pool.thread_count; ++index) {
        while (is_on_its_way_back(pool.busy_threads[index]))
            await_return(pool, *pool.busy_threads[index]);
        if (pool.free_threads[index]) return std::exchange(pool.free_threads[index], nullptr);
    }
    return nullptr;
}

void stop_thread(netthreadpool_thread& thread, Site here) {
    {
        Lock lock(thread.mutex, here);
        thread.flags &= ~uint32_t{NETTHREADPOOL_THREAD_RUNNING};
        pthread_cond_signal(&thread.condition);
    }
    pthread_join(thread.thread_handle, nullptr);
    while (zt::load(thread.signallers) != 0) sched_yield();
    release_thread(&thread, here);
}

// Waits until no thread serves anything. A routine that still runs may invite others, so each look
// begins at the front.
void await_idleness(netthreadpool& pool, Site here) {
    Lock lock(pool.thread_lock, here);
    for (;;) {
        const uint32_t index = first_entry(pool.busy_threads, pool.thread_count);
        if (index == pool.thread_count) return;
        await_return(pool, *pool.busy_threads[index]);
    }
}

// --- invitations ---------------------------------------------------------------------------------

struct Kind {
    uint32_t invited;
    uint32_t running;
    const char* word;
    Site here;
};

constexpr Kind kRead{NETTHREADPOOL_READ_INVITED,
                     NETTHREADPOOL_READING,
                     "read",
                     {kModule, "netthreadpool_invite_read"}};
constexpr Kind kWrite{NETTHREADPOOL_WRITE_INVITED,
                      NETTHREADPOOL_WRITING,
                      "write",
                      {kModule, "netthreadpool_invite_write"}};

// Gives the node to the thread, and the node's lock back before the thread is woken.
void hand_over(netthreadpool_node& node, netthreadpool_thread& thread, const Kind& kind,
               Lock& lock) {
    const std::atomic_ref signallers(thread.signallers);
    {
        Lock thread_lock(thread.mutex, kind.here);
        node.flags |= kind.invited;
        ++node.invitations;
        zt::store(thread.node, &node);
        signallers.fetch_add(1, std::memory_order_relaxed);
    }
    lock.unlock();
    pthread_cond_signal(&thread.condition);
    signallers.fetch_sub(1, std::memory_order_release);
}

// The caller holds the node's mutex; it is released here.
int invite(netthreadpool_node& node, const Kind& kind, Lock& lock) {
    if (node.flags & (kind.invited | kind.running)) return 0;

    netthreadpool_thread* const thread = netthreadpool_get_thread(node.pool);
    if (!thread) {
        lock.unlock();
        zt::report(kind.here, LOGGER_WARNING, "netthreadpool: cannot get free tread for %s",
                   kind.word);
        return -1;
    }
    hand_over(node, *thread, kind, lock);
    return 0;
}

int invite(netthreadpool_node* node, const Kind& kind) {
    if (!node) return -1;
    Lock lock(node->mutex, kind.here);
    return invite(*node, kind, lock);
}

}  // namespace

void zt::invite_to_send(netthreadpool_node& node, const void* user_pointer) {
    Lock lock(node.mutex, kWrite.here);
    if (node.user_pointer != user_pointer) return;
    if (node.flags & NETTHREADPOOL_WRITING) node.write_again = 1;
    invite(node, kWrite, lock);
}

extern "C" netthreadpool* netthreadpool_create(void) {
    const Site here{kModule, __func__};

    auto* const pool = zt::allocate_zeroed<netthreadpool>();
    if (!pool) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    netthreadpool_init(pool);
    return pool;
}

extern "C" int netthreadpool_init(netthreadpool* pool) {
    const Site here{kModule, __func__};
    if (!pool) return 0;

    zt::init_mutex(pool->node_lock, here);
    zt::init_mutex(pool->thread_lock, here);
    pool->start_nodes = kStarted;
    pool->node_count = kFirstCount;
    pool->start_threads = kStarted;
    pool->thread_count = kFirstCount;
    return 0;
}

extern "C" void netthreadpool_free(netthreadpool* pool, int free_record) {
    const Site here{kModule, __func__};
    if (!pool || !free_record) return;

    await_idleness(*pool, here);
    netthreadpool_stop(pool);
    for (uint32_t i = 0; i < NETTHREADPOOL_MAX_NODES; ++i) {  // a host may use any index
        netthreadpool_node_destroy(pool->free_nodes[i], 1);
        netthreadpool_node_destroy(pool->busy_nodes[i], 1);
    }
    zt::destroy_mutex(pool->thread_lock, here);
    zt::destroy_mutex(pool->node_lock, here);
    free(pool);
}

extern "C" int netthreadpool_start(netthreadpool* pool) {
    const Site here{kModule, __func__};
    if (!pool) return -1;

    if (!fill(nodes_of(*pool), *pool, pool->start_nodes, netthreadpool_node_create, here))
        return -1;
    if (!fill(threads_of(*pool), *pool, pool->start_threads, netthreadpool_thread_create, here)) {
        netthreadpool_stop(pool);
        return -1;
    }
    return 0;
}

extern "C" void netthreadpool_stop(netthreadpool* pool) {
    const Site here{kModule, __func__};
    if (!pool) return;

    uint32_t index = 0;
    while (netthreadpool_thread* thread = take_to_stop(*pool, index, here))
        stop_thread(*thread, here);
}

extern "C" netthreadpool_node* netthreadpool_get_node(netthreadpool* pool) {
    const Site here{kModule, __func__};
    if (!pool) return nullptr;
    return take_lowest(nodes_of(*pool), *pool, netthreadpool_node_create, here);
}

extern "C" netthreadpool_thread* netthreadpool_get_thread(netthreadpool* pool) {
    const Site here{kModule, __func__};
    if (!pool) return nullptr;
    return take_lowest(threads_of(*pool), *pool, netthreadpool_thread_create, here);
}

extern "C" int netthreadpool_return_node(netthreadpool* pool, netthreadpool_node* node) {
    const Site here{kModule, __func__};
    if (!pool || !node || !has_slot(*node)) return 0;

    Lock lock(pool->node_lock, here);
    pool->busy_nodes[node->index] = nullptr;
    pool->free_nodes[node->index] = node;
    return 0;
}

extern "C" netthreadpool_node* netthreadpool_node_create(netthreadpool* pool, unsigned index) {
    const Site here{kModule, __func__};
    if (!pool) return nullptr;

    auto* const node = zt::allocate_zeroed<netthreadpool_node>();
    if (!node) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    node->index = index;
    node->pool = pool;
    zt::init_mutex(node->mutex, here);
    return node;
}

extern "C" void netthreadpool_node_destroy(netthreadpool_node* node, int free_record) {
    const Site here{kModule, __func__};
    if (!node) return;

    if (netthreadpool* const pool = node->pool; pool && has_slot(*node)) {
        Lock lock(pool->node_lock, here);
        if (pool->free_nodes[node->index] == node) pool->free_nodes[node->index] = nullptr;
        if (pool->busy_nodes[node->index] == node) pool->busy_nodes[node->index] = nullptr;
    }
    zt::destroy_mutex(node->mutex, here);
    if (free_record) free(node);
}

extern "C" netthreadpool_thread* netthreadpool_thread_create(netthreadpool* pool, unsigned index) {
    const Site here{kModule, __func__};
    if (!pool) return nullptr;

    auto* const thread = zt::allocate_zeroed<netthreadpool_thread>();
    if (!thread) {
        zt::report_call(here, "calloc");
        return nullptr;
    }
    thread->index = index;
    thread->flags = NETTHREADPOOL_THREAD_RUNNING;
    thread->pool = pool;
    zt::init_mutex(thread->mutex, here);
    pthread_cond_init(&thread->condition, nullptr);
    pthread_cond_init(&thread->returned, nullptr);

    errno = pthread_create(&thread->thread_handle, nullptr, netthreadpool_thread_routine, thread);
    if (errno != 0) {
        zt::report_call(here, "pthread_create");
        release_thread(thread, here);
        return nullptr;
    }
    return thread;
}

extern "C" int netthreadpool_invite_read(netthreadpool_node* node) { return invite(node, kRead); }

extern "C" int netthreadpool_invite_write(netthreadpool_node* node) { return invite(node, kWrite); }

extern "C" void _netthreadpool_node_remove(netthreadpool_thread* thread) {
    const Site here{kModule, __func__};
    if (!thread || !thread->node) return;

    netthreadpool_node& node = *thread->node;
    if (node.release_routine) node.release_routine(node.user_pointer);
    node.flags = 0;
    node.user_pointer = nullptr;
    node.write_again = 0;
    zt::unlock_mutex(node.mutex, here);
    netthreadpool_return_node(node.pool, &node);
}
