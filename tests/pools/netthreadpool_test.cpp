#include <ztlib/logger.h>
#include <ztlib/pools/threadpool/netthreadpool.h>
#include <ztlib/pools/threadpool/netthreadpool_private.hpp>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <signal.h>
#include <unistd.h>

using namespace zt_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// Closed until it is opened.
class Gate {
  public:
    void open() {
        const std::lock_guard lock(mutex_);
        open_ = true;
        changed_.notify_all();
    }
    void pass() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool open_ = false;
};

// A node's user pointer: what its routines do, and how often they did.
struct Connection {
    std::function<int()> on_read = [] { return 0; };
    std::function<int()> on_write = [] { return 0; };
    std::function<void()> on_release = [] {};
    std::atomic<int> reads{0};
    std::atomic<int> writes{0};
    std::atomic<int> releases{0};

    bool released() const { return releases == 1; }
};

int read_of(void* user_pointer) {
    auto& connection = *static_cast<Connection*>(user_pointer);
    ++connection.reads;
    return connection.on_read();
}

int write_of(void* user_pointer) {
    auto& connection = *static_cast<Connection*>(user_pointer);
    ++connection.writes;
    return connection.on_write();
}

void release_of(void* user_pointer) {
    auto& connection = *static_cast<Connection*>(user_pointer);
    connection.on_release();
    ++connection.releases;
}

void attach(netthreadpool_node* node, Connection& connection) {
    pthread_mutex_lock(&node->mutex);
    node->user_pointer = &connection;
    node->read_routine = read_of;
    node->write_routine = write_of;
    node->release_routine = release_of;
    pthread_mutex_unlock(&node->mutex);
}

uint32_t flags_of(netthreadpool_node* node) {
    pthread_mutex_lock(&node->mutex);
    const uint32_t flags = node->flags;
    pthread_mutex_unlock(&node->mutex);
    return flags;
}

uint32_t invitations_of(netthreadpool_node* node) {
    pthread_mutex_lock(&node->mutex);
    const uint32_t invitations = node->invitations;
    pthread_mutex_unlock(&node->mutex);
    return invitations;
}

// A joined thread may stay listed for a moment.
bool has_threads(int count) {
    return eventually([=] { return thread_count() == count; }, std::chrono::seconds(5));
}

// A sanitizer's own thread comes with the first one that is started: before any test counts.
[[maybe_unused]] const int first_thread = [] {
    std::thread([] {}).join();
    return 0;
}();

// A started pool, ended with everything in it.
struct Pool {
    netthreadpool* pool = netthreadpool_create();
    Pool() { EXPECT_EQ(netthreadpool_start(pool), 0); }
    ~Pool() { netthreadpool_free(pool, 1); }
    Pool(const Pool&) = delete;
    Pool& operator=(const Pool&) = delete;

    netthreadpool* operator->() const { return pool; }
    netthreadpool_node* node_for(Connection& connection) const {
        netthreadpool_node* node = netthreadpool_get_node(pool);
        attach(node, connection);
        return node;
    }
    template <class Entry>
    uint32_t count(pthread_mutex_t& lock, Entry* const* table) const {
        pthread_mutex_lock(&lock);
        uint32_t entries = 0;
        for (int i = 0; i < NETTHREADPOOL_MAX_NODES; ++i) entries += table[i] != nullptr;
        pthread_mutex_unlock(&lock);
        return entries;
    }
    uint32_t idle_threads() const { return count(pool->thread_lock, pool->free_threads); }
    uint32_t busy_threads() const { return count(pool->thread_lock, pool->busy_threads); }
    uint32_t idle_nodes() const { return count(pool->node_lock, pool->free_nodes); }
    uint32_t busy_nodes() const { return count(pool->node_lock, pool->busy_nodes); }
};

}  // namespace

// --- creation, start -----------------------------------------------------------------------------

TEST(NetThreadPool, StartsFiveOfEachAndCountsTen) {
    netthreadpool* pool = netthreadpool_create();
    EXPECT_EQ(pool->start_nodes, 5u);
    EXPECT_EQ(pool->start_threads, 5u);
    EXPECT_EQ(pool->node_count, 10u);
    EXPECT_EQ(pool->thread_count, 10u);
    for (uint32_t i = 0; i < 10; ++i) EXPECT_EQ(pool->free_nodes[i], nullptr);

    const int threads = thread_count();
    EXPECT_EQ(netthreadpool_start(pool), 0);
    EXPECT_TRUE(has_threads(threads + 5));
    for (uint32_t i = 0; i < 5; ++i) {
        ASSERT_NE(pool->free_nodes[i], nullptr);
        EXPECT_EQ(pool->free_nodes[i]->index, i);
        EXPECT_EQ(pool->free_nodes[i]->pool, pool);
        ASSERT_NE(pool->free_threads[i], nullptr);
        EXPECT_EQ(pool->free_threads[i]->index, i);
        EXPECT_EQ(pool->free_threads[i]->pool, pool);
        EXPECT_EQ(pool->free_threads[i]->flags, uint32_t{NETTHREADPOOL_THREAD_RUNNING});
    }
    for (uint32_t i = 5; i < NETTHREADPOOL_MAX_NODES; ++i) {
        EXPECT_EQ(pool->free_nodes[i], nullptr);
        EXPECT_EQ(pool->free_threads[i], nullptr);
    }
    EXPECT_EQ(pool->node_count, 10u);
    EXPECT_EQ(pool->thread_count, 10u);
    netthreadpool_free(pool, 1);
    EXPECT_TRUE(has_threads(threads));
}

TEST(NetThreadPool, IsFreedOnlyWhenBothArgumentsAreGiven) {
    Pool pool;
    netthreadpool_free(nullptr, 1);
    netthreadpool_free(pool.pool, 0);
    EXPECT_EQ(pool.idle_threads(), 5u);
    EXPECT_EQ(pool.idle_nodes(), 5u);
}

TEST(NetThreadPool, LivesInStorageOfTheHosts) {
    const int64_t live = live_allocations();
    auto storage = std::make_unique<netthreadpool>();
    EXPECT_EQ(netthreadpool_init(storage.get()), 0);
    EXPECT_EQ(netthreadpool_start(storage.get()), 0);
    netthreadpool_stop(storage.get());
    for (netthreadpool_node* node : storage->free_nodes) netthreadpool_node_destroy(node, 1);
    EXPECT_EQ(live_allocations(), live);
}

TEST(NetThreadPool, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation([] { return netthreadpool_create(); },
                                [](netthreadpool* pool) { netthreadpool_free(pool, 1); });
    CapturedLog log;
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(netthreadpool_create(), nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("WARN:netthreadpool:netthreadpool_create: calloc(): "
                                         "Cannot allocate memory"));
}

TEST(NetThreadPool, DoesNotStartWhenMemoryIsOutAndStartsLater) {
    const int threads = thread_count();
    for (FailingAllocations round; round.next();) {
        netthreadpool* pool = netthreadpool_create();
        round.arm();
        const int result = netthreadpool_start(pool);
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -1 : 0);
        if (round.hit()) {
            EXPECT_TRUE(has_threads(threads));
            EXPECT_EQ(netthreadpool_start(pool), 0);
        }
        EXPECT_TRUE(has_threads(threads + 5));
        netthreadpool_free(pool, 1);
    }
}

TEST(NetThreadPool, StopsTheThreadsItHadWhenOneCannotBeStarted) {
    CapturedLog log;
    const int threads = thread_count();
    netthreadpool* pool = netthreadpool_create();
    {
        FailingCall fault("pthread_create", EAGAIN, 3);
        EXPECT_EQ(netthreadpool_start(pool), -1);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(has_threads(threads));
    for (netthreadpool_thread* thread : pool->free_threads) EXPECT_EQ(thread, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("WARN:netthreadpool:netthreadpool_thread_create: "
                                         "pthread_create(): Resource temporarily unavailable"));
    netthreadpool_free(pool, 1);
}

TEST(NetThreadPool, StartedTwiceKeepsWhatItHas) {
    Pool pool;
    netthreadpool_node* const node = pool->free_nodes[3];
    const int threads = thread_count();
    EXPECT_EQ(netthreadpool_start(pool.pool), 0);
    EXPECT_EQ(pool->free_nodes[3], node);
    EXPECT_TRUE(has_threads(threads));
}

TEST(NetThreadPool, NeverDereferencesNull) {
    EXPECT_EQ(netthreadpool_init(nullptr), 0);
    EXPECT_EQ(netthreadpool_start(nullptr), -1);
    netthreadpool_stop(nullptr);
    EXPECT_EQ(netthreadpool_get_node(nullptr), nullptr);
    EXPECT_EQ(netthreadpool_get_thread(nullptr), nullptr);
    EXPECT_EQ(netthreadpool_return_node(nullptr, nullptr), 0);
    EXPECT_EQ(netthreadpool_node_create(nullptr, 0), nullptr);
    netthreadpool_node_destroy(nullptr, 1);
    EXPECT_EQ(netthreadpool_thread_create(nullptr, 0), nullptr);
    EXPECT_EQ(netthreadpool_invite_read(nullptr), -1);
    EXPECT_EQ(netthreadpool_invite_write(nullptr), -1);
    _netthreadpool_node_remove(nullptr);
    netthreadpool_thread thread{};
    _netthreadpool_node_remove(&thread);
}

// --- nodes ---------------------------------------------------------------------------------------

TEST(NetThreadPool, HandsOutTheLowestNodeAndMakesTheSixthAtIndexTen) {
    CapturedLog log;
    Pool pool;
    std::vector<netthreadpool_node*> nodes;
    for (uint32_t i = 0; i < 5; ++i) {
        nodes.push_back(netthreadpool_get_node(pool.pool));
        EXPECT_EQ(nodes[i]->index, i);
        EXPECT_EQ(pool->busy_nodes[i], nodes[i]);
        EXPECT_EQ(pool->free_nodes[i], nullptr);
    }
    EXPECT_THAT(log.lines(), IsEmpty());

    for (uint32_t i = 10; i < 12; ++i) {
        netthreadpool_node* node = netthreadpool_get_node(pool.pool);
        EXPECT_EQ(node->index, i);
        EXPECT_EQ(pool->busy_nodes[i], node);
        EXPECT_EQ(pool->node_count, i + 1);
        nodes.push_back(node);
    }
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:netthreadpool:netthreadpool_get_node: create node idx 10",
                            "WARN:netthreadpool:netthreadpool_get_node: create node idx 11"));

    EXPECT_EQ(netthreadpool_return_node(pool.pool, nodes[6]), 0);
    EXPECT_EQ(pool->free_nodes[11], nodes[6]);
    EXPECT_EQ(pool->busy_nodes[11], nullptr);
    EXPECT_EQ(netthreadpool_return_node(pool.pool, nodes[2]), 0);
    EXPECT_EQ(netthreadpool_get_node(pool.pool), nodes[2]);
    EXPECT_EQ(netthreadpool_get_node(pool.pool), nodes[6]);
    EXPECT_EQ(pool->node_count, 12u);
}

TEST(NetThreadPool, HandsOutNoMoreThanItsTableOfNodesHolds) {
    CapturedLog log;
    Pool pool;
    for (int i = 0; i < 5 + 9990; ++i) ASSERT_NE(netthreadpool_get_node(pool.pool), nullptr);
    EXPECT_EQ(pool->busy_nodes[9999]->index, 9999u);
    EXPECT_EQ(netthreadpool_get_node(pool.pool), nullptr);
    EXPECT_EQ(log.lines().back(),
              "ERR:netthreadpool:netthreadpool_get_node: NETTHREADPOOL_MAX_NODES reached (10000)");
    EXPECT_EQ(system_log().records().back().priority, 3);
}

TEST(NetThreadPool, HandsOutNoNodeWhenMemoryIsOut) {
    Pool pool;
    for (int i = 0; i < 5; ++i) netthreadpool_get_node(pool.pool);
    CapturedLog log;
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(netthreadpool_get_node(pool.pool), nullptr);
    EXPECT_EQ(pool->node_count, 10u);
    EXPECT_THAT(log.lines(), ElementsAre("WARN:netthreadpool:netthreadpool_node_create: calloc(): "
                                         "Cannot allocate memory"));
}

TEST(NetThreadPool, MakesNodesOfAnyIndexThatStandInNoTable) {
    Pool pool;
    for_each_failing_allocation([&] { return netthreadpool_node_create(pool.pool, 7); },
                                [](netthreadpool_node* node) {
                                    EXPECT_EQ(node->index, 7u);
                                    netthreadpool_node_destroy(node, 1);
                                });
    netthreadpool_node* const far = netthreadpool_node_create(pool.pool, 10000);
    EXPECT_EQ(far->index, 10000u);
    EXPECT_EQ(netthreadpool_return_node(pool.pool, far), 0);
    EXPECT_EQ(pool.idle_nodes(), 5u);
    netthreadpool_node_destroy(far, 1);
}

TEST(NetThreadPool, ForgetsANodeThatIsDestroyed) {
    Pool pool;
    netthreadpool_node* const busy = netthreadpool_get_node(pool.pool);
    netthreadpool_node* const idle = pool->free_nodes[1];
    netthreadpool_node_destroy(busy, 1);
    netthreadpool_node_destroy(idle, 0);
    free(idle);
    EXPECT_EQ(pool->busy_nodes[0], nullptr);
    EXPECT_EQ(pool->free_nodes[1], nullptr);
    EXPECT_EQ(netthreadpool_get_node(pool.pool)->index, 2u);
}

// --- invitations ---------------------------------------------------------------------------------

TEST(NetThreadPool, RunsTheReadRoutineThenReleasesTheNode) {
    Pool pool;
    Connection connection;
    Gate gate;
    connection.on_read = [&] {
        gate.pass();
        return 1;
    };
    netthreadpool_node* const node = pool.node_for(connection);
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_EQ(pool.busy_threads(), 1u);
    EXPECT_TRUE(eventually([&] { return connection.reads == 1; }));
    EXPECT_EQ(flags_of(node), uint32_t{NETTHREADPOOL_READ_INVITED | NETTHREADPOOL_READING});
    EXPECT_EQ(pool.busy_nodes(), 1u);

    gate.open();
    EXPECT_TRUE(eventually([&] { return pool.idle_nodes() == 5; }));
    EXPECT_TRUE(eventually([&] { return pool.idle_threads() == 5; }));
    EXPECT_EQ(pool.busy_threads(), 0u);
    EXPECT_EQ(pool.busy_nodes(), 0u);
    EXPECT_EQ(connection.reads, 1);
    EXPECT_EQ(connection.releases, 1);
    EXPECT_EQ(flags_of(node), 0u);
    EXPECT_EQ(node->user_pointer, nullptr);
    EXPECT_EQ(node->invitations, 0u);
    EXPECT_EQ(node->read_routine, &read_of);
    EXPECT_EQ(node->write_routine, &write_of);
    EXPECT_EQ(node->release_routine, &release_of);
}

TEST(NetThreadPool, WritesOnceForAnInvitationThenReleasesTheNode) {
    Pool pool;
    Connection connection;
    EXPECT_EQ(netthreadpool_invite_write(pool.node_for(connection)), 0);
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_EQ(connection.writes, 1);
    EXPECT_EQ(connection.reads, 0);
}

TEST(NetThreadPool, MakesNoSecondReader) {
    Pool pool;
    Connection connection;
    Gate gate;
    connection.on_read = [&] {
        gate.pass();
        return 0;
    };
    netthreadpool_node* const node = pool.node_for(connection);
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_TRUE(eventually([&] { return connection.reads == 1; }));
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_EQ(invitations_of(node), 1u);
    EXPECT_EQ(pool.busy_threads(), 1u);
    gate.open();
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_EQ(connection.reads, 1);
}

TEST(NetThreadPool, ReadsAndWritesOneNodeAtTheSameTime) {
    Pool pool;
    Connection connection;
    Gate gate;
    connection.on_read = connection.on_write = [&] {
        gate.pass();
        return 0;
    };
    netthreadpool_node* const node = pool.node_for(connection);
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_EQ(netthreadpool_invite_write(node), 0);
    EXPECT_TRUE(eventually([&] { return connection.reads == 1 && connection.writes == 1; }));
    EXPECT_EQ(invitations_of(node), 2u);
    EXPECT_EQ(flags_of(node),
              uint32_t{NETTHREADPOOL_READ_INVITED | NETTHREADPOOL_READING | NETTHREADPOOL_WRITING});
    gate.open();
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
}

TEST(NetThreadPool, DropsAnInvitationThatMeetsTheRunningWriteRoutine) {
    Pool pool;
    Connection connection;
    Gate gate;
    connection.on_write = [&] {
        gate.pass();
        return 0;
    };
    netthreadpool_node* const node = pool.node_for(connection);
    EXPECT_EQ(netthreadpool_invite_write(node), 0);
    EXPECT_TRUE(eventually([&] { return connection.writes == 1; }));
    EXPECT_EQ(netthreadpool_invite_write(node), 0);
    EXPECT_EQ(invitations_of(node), 1u);
    gate.open();
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_EQ(connection.writes, 1);
}

TEST(NetThreadPool, WritesOnceMoreForASenderThatMeetsTheRunningWriteRoutine) {
    Pool pool;
    Connection connection;
    Gate gate;
    connection.on_write = [&] {
        gate.pass();
        return 0;
    };
    netthreadpool_node* const node = pool.node_for(connection);
    zt::invite_to_send(*node, &connection);
    EXPECT_TRUE(eventually([&] { return connection.writes == 1; }));
    zt::invite_to_send(*node, &connection);
    zt::invite_to_send(*node, &connection);
    EXPECT_EQ(invitations_of(node), 1u);
    gate.open();
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_EQ(connection.writes, 2);
}

TEST(NetThreadPool, DoesNotWriteOnceMoreOnAFinishedNode) {
    Pool pool;
    Connection connection;
    Gate reading, writing;
    connection.on_read = [&] {
        reading.pass();
        return 0;
    };
    connection.on_write = [&] {
        writing.pass();
        return 0;
    };
    netthreadpool_node* const node = pool.node_for(connection);
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_TRUE(eventually([&] { return connection.reads == 1; }));
    EXPECT_EQ(netthreadpool_invite_write(node), 0);
    EXPECT_TRUE(eventually([&] { return connection.writes == 1; }));
    reading.open();
    EXPECT_TRUE(eventually([&] { return flags_of(node) & NETTHREADPOOL_FINISHED; }));
    zt::invite_to_send(*node, &connection);
    writing.open();
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_EQ(connection.writes, 1);
}

TEST(NetThreadPool, LeavesTheNextConnectionOfANodeAloneWhenAStaleSenderCalls) {
    Pool pool;
    Connection first, second;
    netthreadpool_node* const node = pool.node_for(first);
    EXPECT_EQ(netthreadpool_invite_write(node), 0);
    EXPECT_TRUE(eventually([&] { return pool.idle_nodes() == 5; }));

    zt::invite_to_send(*node, &first);
    EXPECT_EQ(invitations_of(node), 0u);
    EXPECT_EQ(pool.node_for(second), node);
    zt::invite_to_send(*node, &first);
    EXPECT_EQ(invitations_of(node), 0u);
    EXPECT_EQ(flags_of(node), 0u);
}

TEST(NetThreadPool, FinishesANodeWhoseWriteFailsAndReleasesItOnlyWithItsLastInvitation) {
    Pool pool;
    Connection connection;
    Gate gate;
    connection.on_read = [&] {
        gate.pass();
        return 0;
    };
    connection.on_write = [] { return -1; };
    netthreadpool_node* const node = pool.node_for(connection);
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_TRUE(eventually([&] { return connection.reads == 1; }));
    EXPECT_EQ(netthreadpool_invite_write(node), 0);
    EXPECT_TRUE(eventually([&] { return invitations_of(node) == 1; }));
    EXPECT_EQ(flags_of(node), uint32_t{NETTHREADPOOL_READ_INVITED | NETTHREADPOOL_READING |
                                       NETTHREADPOOL_WRITING | NETTHREADPOOL_FINISHED});
    EXPECT_EQ(netthreadpool_invite_write(node), 0);  // still marked as writing
    EXPECT_EQ(connection.releases, 0);

    gate.open();
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_EQ(connection.writes, 1);
}

TEST(NetThreadPool, RunsNothingForAnInvitationOnceTheNodeHasFinished) {
    Pool pool;
    Connection connection;
    Gate gate;
    connection.on_write = [&] {
        gate.pass();
        return 0;
    };
    netthreadpool_node* const node = pool.node_for(connection);
    EXPECT_EQ(netthreadpool_invite_write(node), 0);
    EXPECT_TRUE(eventually([&] { return connection.writes == 1; }));
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_TRUE(eventually([&] { return invitations_of(node) == 1; }));
    EXPECT_TRUE(flags_of(node) & NETTHREADPOOL_FINISHED);

    EXPECT_EQ(netthreadpool_invite_read(node), 0);  // still marked as reading
    EXPECT_EQ(invitations_of(node), 1u);
    gate.open();
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_EQ(connection.reads, 1);
}

TEST(NetThreadPool, SkipsAFinishedNodesWriteAndStillCountsTheInvitation) {
    Pool pool;
    Connection connection;
    Gate reading;
    netthreadpool_node* const node = pool.node_for(connection);
    // A second reader keeps the node while the first invitation finishes it.
    pthread_mutex_lock(&node->mutex);
    ++node->invitations;
    pthread_mutex_unlock(&node->mutex);
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_TRUE(eventually([&] { return invitations_of(node) == 1; }));

    EXPECT_EQ(netthreadpool_invite_write(node), 0);
    EXPECT_TRUE(eventually([&] { return pool.busy_threads() == 0; }));
    EXPECT_EQ(invitations_of(node), 1u);
    EXPECT_EQ(connection.writes, 0);
    EXPECT_EQ(connection.releases, 0);
    pthread_mutex_lock(&node->mutex);
    node->invitations = 0;
    pthread_mutex_unlock(&node->mutex);
}

TEST(NetThreadPool, RemovesANodeOnRequest) {
    Pool pool;
    Connection connection;
    netthreadpool_thread thread{};
    thread.node = pool.node_for(connection);
    pthread_mutex_lock(&thread.node->mutex);
    thread.node->flags = NETTHREADPOOL_FINISHED;
    _netthreadpool_node_remove(&thread);
    EXPECT_EQ(connection.releases, 1);
    EXPECT_EQ(flags_of(thread.node), 0u);
    EXPECT_EQ(thread.node->user_pointer, nullptr);
    EXPECT_EQ(pool.idle_nodes(), 5u);
}

TEST(NetThreadPool, RunsNodesThatHaveNoRoutines) {
    Pool pool;
    netthreadpool_node* const node = netthreadpool_get_node(pool.pool);
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
    EXPECT_TRUE(eventually([&] { return pool.idle_nodes() == 5; }));
    EXPECT_EQ(netthreadpool_invite_write(netthreadpool_get_node(pool.pool)), 0);
    EXPECT_TRUE(eventually([&] { return pool.idle_nodes() == 5; }));
}

TEST(NetThreadPool, WakesTheLowestIdleThreadAndMakesTheSixthAtIndexTen) {
    CapturedLog log;
    Pool pool;
    std::vector<Connection> connections(6);
    Gate gate;
    for (size_t i = 0; i < 6; ++i) {
        connections[i].on_read = [&] {
            gate.pass();
            return 0;
        };
        EXPECT_EQ(netthreadpool_invite_read(pool.node_for(connections[i])), 0);
        EXPECT_NE(pool->busy_threads[i < 5 ? i : 10], nullptr);
    }
    EXPECT_EQ(pool.busy_threads(), 6u);
    EXPECT_EQ(pool->thread_count, 11u);
    EXPECT_THAT(log.lines(),
                Contains("WARN:netthreadpool:netthreadpool_get_thread: create thread idx 10"));
    gate.open();
    EXPECT_TRUE(eventually([&] { return pool.idle_threads() == 6; }));
}

TEST(NetThreadPool, RefusesAnInvitationWhenNoThreadCanBeHad) {
    Pool pool;
    netthreadpool_stop(pool.pool);
    Connection connection;
    netthreadpool_node* const node = pool.node_for(connection);
    CapturedLog log;
    {
        FailingCall fault("pthread_create", EAGAIN);
        EXPECT_EQ(netthreadpool_invite_read(node), -1);
    }
    {
        FailingCall fault("calloc", ENOMEM);
        EXPECT_EQ(netthreadpool_invite_write(node), -1);
    }
    EXPECT_THAT(
        log.lines(),
        ElementsAre("WARN:netthreadpool:netthreadpool_thread_create: pthread_create(): "
                    "Resource temporarily unavailable",
                    "WARN:netthreadpool:netthreadpool_invite_read: netthreadpool: cannot get free "
                    "tread for read",
                    "WARN:netthreadpool:netthreadpool_thread_create: calloc(): Cannot allocate "
                    "memory",
                    "WARN:netthreadpool:netthreadpool_invite_write: netthreadpool: cannot get free "
                    "tread for write"));
    EXPECT_EQ(flags_of(node), 0u);
    EXPECT_EQ(node->invitations, 0u);
    EXPECT_EQ(pool->thread_count, 10u);

    EXPECT_EQ(netthreadpool_invite_read(node), 0);  // a stopped pool starts threads again
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
}

// Two thousand threads are too many for a sanitizer: this one belongs to the other builds.
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)
TEST(NetThreadPool, ServesAsManyInvitationsAtOnceAsItMayHaveThreads) {
    constexpr size_t kThreads = 5 + 1990;  // indexes 5 to 9 stay empty
    CapturedLog log;
    Pool pool;
    Gate gate;
    std::vector<Connection> connections(kThreads + 1);
    for (size_t i = 0; i < kThreads; ++i) {
        connections[i].on_read = [&] {
            gate.pass();
            return 0;
        };
        ASSERT_EQ(netthreadpool_invite_read(pool.node_for(connections[i])), 0) << i;
    }
    EXPECT_EQ(pool->thread_count, 2000u);
    EXPECT_NE(pool->busy_threads[1999], nullptr);

    netthreadpool_node* const node = pool.node_for(connections[kThreads]);
    system_log().clear();
    EXPECT_EQ(netthreadpool_invite_read(node), -1);
    EXPECT_EQ(netthreadpool_invite_write(node), -1);
    EXPECT_THAT(
        log.lines(),
        ElementsAre("ERR:netthreadpool:netthreadpool_get_thread: NETTHREADPOOL_MAX_THREADS reached "
                    "(2000)",
                    "WARN:netthreadpool:netthreadpool_invite_read: netthreadpool: cannot get free "
                    "tread for read",
                    "ERR:netthreadpool:netthreadpool_get_thread: NETTHREADPOOL_MAX_THREADS reached "
                    "(2000)",
                    "WARN:netthreadpool:netthreadpool_invite_write: netthreadpool: cannot get free "
                    "tread for write"));
    gate.open();
    EXPECT_TRUE(eventually([&] { return pool.idle_threads() == kThreads; }));
    EXPECT_EQ(netthreadpool_invite_read(node), 0);
}
#endif

TEST(NetThreadPool, BlocksSigpipeInItsThreads) {
    Pool pool;
    Connection connection;
    std::atomic<int> blocked{-1};
    connection.on_read = [&] {
        sigset_t mask;
        pthread_sigmask(SIG_BLOCK, nullptr, &mask);
        blocked = sigismember(&mask, SIGPIPE);
        return 0;
    };
    netthreadpool_invite_read(pool.node_for(connection));
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_EQ(blocked, 1);
}

TEST(NetThreadPool, ServesAThreadOfTheHostsOwnMaking) {
    Pool pool;
    const int threads = thread_count();
    netthreadpool_thread* thread = netthreadpool_thread_create(pool.pool, 7);
    ASSERT_NE(thread, nullptr);
    EXPECT_EQ(thread->index, 7u);
    EXPECT_TRUE(has_threads(threads + 1));
    pthread_mutex_lock(&pool->thread_lock);
    pool->free_threads[7] = thread;  // below the count, so that a stop finds it
    pthread_mutex_unlock(&pool->thread_lock);
    netthreadpool_stop(pool.pool);
    EXPECT_TRUE(has_threads(threads - 5));
}

TEST(NetThreadPool, RunsEveryRoutineOfManyNodesUnderManyInvitations) {
    constexpr int kNodes = 40, kInviters = 4, kRounds = 200;
    Pool pool;
    Gate gate;
    std::vector<Connection> connections(kNodes);
    std::vector<std::atomic<int>> running(kNodes);
    std::vector<netthreadpool_node*> nodes;
    std::atomic<int> overlaps{0};
    for (int i = 0; i < kNodes; ++i) {
        connections[i].on_read = [&] {
            gate.pass();
            return 0;
        };
        connections[i].on_write = [&, i] {
            if (++running[i] != 1) ++overlaps;
            --running[i];
            return 0;
        };
        nodes.push_back(pool.node_for(connections[i]));
        ASSERT_EQ(netthreadpool_invite_read(nodes[i]), 0);
    }
    std::vector<std::thread> inviters;
    for (int t = 0; t < kInviters; ++t)
        inviters.emplace_back([&, t] {
            for (int round = 0; round < kRounds; ++round)
                for (int i = 0; i < kNodes; ++i) {
                    netthreadpool_node* const node = nodes[(i * 7 + t) % kNodes];
                    EXPECT_EQ(netthreadpool_invite_write(node), 0);
                    if (round % 8 == 0) netthreadpool_invite_read(node);
                }
        });
    for (std::thread& inviter : inviters) inviter.join();
    // The end of the reading stops a write that has not begun.
    for (Connection& connection : connections)
        EXPECT_TRUE(eventually([&] { return connection.writes >= 1; }));
    gate.open();
    for (Connection& connection : connections) {
        EXPECT_TRUE(eventually([&] { return connection.released(); }));
        EXPECT_EQ(connection.reads, 1);
    }
    EXPECT_EQ(overlaps, 0);
}

// --- the end -------------------------------------------------------------------------------------

TEST(NetThreadPool, StopsIdleThreadsAndLeavesBusyOnes) {
    const int threads = thread_count();
    Pool pool;
    Connection connection;
    Gate gate;
    connection.on_read = [&] {
        gate.pass();
        return 0;
    };
    netthreadpool_invite_read(pool.node_for(connection));
    EXPECT_TRUE(eventually([&] { return connection.reads == 1; }));

    netthreadpool_stop(pool.pool);
    EXPECT_TRUE(has_threads(threads + 1));
    EXPECT_EQ(pool.idle_threads(), 0u);
    EXPECT_EQ(pool.busy_threads(), 1u);
    EXPECT_EQ(connection.releases, 0);

    gate.open();
    EXPECT_TRUE(eventually([&] { return pool.idle_threads() == 1; }));
    netthreadpool_stop(pool.pool);
    EXPECT_TRUE(has_threads(threads));
    EXPECT_EQ(pool.idle_nodes(), 5u);
}

TEST(NetThreadPool, LeavesNoThreadAliveWhenItIsStoppedAfterTheLastRelease) {
    const int threads = thread_count();
    for (int round = 0; round < 50; ++round) {
        Pool pool;
        std::vector<Connection> connections(8);
        for (Connection& connection : connections) {
            netthreadpool_node* const node = pool.node_for(connection);
            netthreadpool_invite_read(node);
        }
        for (Connection& connection : connections)
            while (!connection.released()) std::this_thread::yield();
        netthreadpool_stop(pool.pool);
        ASSERT_TRUE(has_threads(threads));
    }
}

TEST(NetThreadPool, WaitsInAStopForAReleaseRoutineThatRuns) {
    const int threads = thread_count();
    Pool pool;
    Connection connection;
    Gate entered, gate;
    connection.on_release = [&] {
        entered.open();
        gate.pass();
    };
    netthreadpool_invite_write(pool.node_for(connection));
    entered.pass();
    std::thread opener([&] { gate.open(); });
    netthreadpool_stop(pool.pool);
    EXPECT_EQ(connection.releases, 1);
    opener.join();
    EXPECT_TRUE(has_threads(threads));
}

TEST(NetThreadPool, CanBeStoppedFromAReleaseRoutine) {
    const int threads = thread_count();
    Pool pool;
    Connection connection;
    connection.on_release = [&] { netthreadpool_stop(pool.pool); };
    netthreadpool_invite_write(pool.node_for(connection));
    EXPECT_TRUE(eventually([&] { return connection.released(); }));
    EXPECT_TRUE(eventually([&] { return pool.idle_threads() == 1; }));
    EXPECT_TRUE(has_threads(threads + 1));
}

TEST(NetThreadPool, WaitsForConnectionsThatTheHostDidNotEndBeforeItIsFreed) {
    const int threads = thread_count();
    const int64_t live = live_allocations();
    {
        netthreadpool* pool = netthreadpool_create();
        netthreadpool_start(pool);
        Connection connection;
        Gate gate;
        netthreadpool_node* const node = netthreadpool_get_node(pool);
        attach(node, connection);
        // The connection goes on while the pool is being freed: it even needs further threads.
        connection.on_read = [&] {
            gate.pass();
            for (int i = 0; i < 20; ++i) {
                EXPECT_EQ(netthreadpool_invite_write(node), 0);
                eventually([&] { return connection.writes > i; });
                eventually([&] { return !(flags_of(node) & NETTHREADPOOL_WRITING); });
            }
            return 0;
        };
        netthreadpool_invite_read(node);
        eventually([&] { return connection.reads == 1; });

        std::thread freer([&] { netthreadpool_free(pool, 1); });
        gate.open();
        freer.join();
        EXPECT_EQ(connection.writes, 20);
        EXPECT_EQ(connection.releases, 1);
    }
    EXPECT_TRUE(has_threads(threads));
    EXPECT_EQ(live_allocations(), live);
}

TEST(NetThreadPool, FreesNodesThatWereTakenAndNeverInvited) {
    const int64_t live = live_allocations();
    Connection connection;
    {
        Pool pool;
        for (int i = 0; i < 20; ++i) pool.node_for(connection);
    }
    EXPECT_EQ(connection.releases, 0);
    EXPECT_EQ(live_allocations(), live);
}

// --- fatal ---------------------------------------------------------------------------------------

namespace {

std::string line(const char* function, const char* call, int code) {
    return std::string("./pools/threadpool/netthreadpool:") + function + ": " + call +
           "(): No such file or directory (" + std::to_string(code) + ")\n";
}

// What a child says and how it ends when one call fails in `work`, errno being ENOENT.
void expect_fatal(const char* call, uint32_t skip, const char* function,
                  const std::function<void(netthreadpool*)>& work) {
    const ChildResult child = run_in_child([&] {
        netthreadpool* pool = netthreadpool_create();
        FailingCall fault(call, EPERM, skip, true);
        errno = ENOENT;
        work(pool);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err, line(function, call, EPERM));
}

}  // namespace

TEST(NetThreadPoolDeath, EndsTheProcessWhenAMutexCannotBeMade) {
    expect_fatal("pthread_mutex_init", 0, "netthreadpool_init",
                 [](netthreadpool* pool) { netthreadpool_init(pool); });
    expect_fatal("pthread_mutex_init", 1, "netthreadpool_init",
                 [](netthreadpool* pool) { netthreadpool_init(pool); });
    expect_fatal("pthread_mutex_init", 0, "netthreadpool_node_create",
                 [](netthreadpool* pool) { netthreadpool_node_create(pool, 0); });
    expect_fatal("pthread_mutex_init", 0, "netthreadpool_thread_create",
                 [](netthreadpool* pool) { netthreadpool_thread_create(pool, 0); });
}

TEST(NetThreadPoolDeath, EndsTheProcessWhenAMutexCannotBeReleased) {
    expect_fatal("pthread_mutex_unlock", 0, "netthreadpool_start",
                 [](netthreadpool* pool) { netthreadpool_start(pool); });
    expect_fatal("pthread_mutex_unlock", 0, "netthreadpool_stop",
                 [](netthreadpool* pool) { netthreadpool_stop(pool); });
    expect_fatal("pthread_mutex_unlock", 0, "netthreadpool_free",
                 [](netthreadpool* pool) { netthreadpool_free(pool, 1); });
    expect_fatal("pthread_mutex_unlock", 0, "netthreadpool_get_node", [](netthreadpool* pool) {
        pool->node_count = NETTHREADPOOL_MAX_NODES;
        logger_to_syslog = 0;
        errno = ENOENT;
        netthreadpool_get_node(pool);
    });
    expect_fatal("pthread_mutex_unlock", 0, "netthreadpool_return_node", [](netthreadpool* pool) {
        netthreadpool_node* node = netthreadpool_node_create(pool, 0);
        errno = ENOENT;
        netthreadpool_return_node(pool, node);
    });
    expect_fatal("pthread_mutex_unlock", 0, "netthreadpool_node_destroy", [](netthreadpool* pool) {
        netthreadpool_node* node = netthreadpool_node_create(pool, 0);
        errno = ENOENT;
        netthreadpool_node_destroy(node, 1);
    });
    expect_fatal("pthread_mutex_unlock", 0, "_netthreadpool_node_remove", [](netthreadpool* pool) {
        netthreadpool_thread thread{};
        thread.node = netthreadpool_node_create(pool, 0);
        errno = ENOENT;
        _netthreadpool_node_remove(&thread);
    });
    for (const bool read : {true, false})
        expect_fatal("pthread_mutex_unlock", 0,
                     read ? "netthreadpool_invite_read" : "netthreadpool_invite_write",
                     [=](netthreadpool* pool) {
                         netthreadpool_node* node = netthreadpool_node_create(pool, 0);
                         node->flags = NETTHREADPOOL_READING | NETTHREADPOOL_WRITING;
                         errno = ENOENT;
                         read ? netthreadpool_invite_read(node) : netthreadpool_invite_write(node);
                     });
}

TEST(NetThreadPoolDeath, EndsTheProcessFromAThreadOfThePoolToo) {
    const ChildResult child = run_in_child([] {
        netthreadpool* pool = netthreadpool_create();
        netthreadpool_start(pool);
        netthreadpool_node* node = netthreadpool_get_node(pool);
        // Three releases in the invitation, the next is the thread's own.
        FailingCall fault("pthread_mutex_unlock", EPERM, 3);
        netthreadpool_invite_read(node);
        for (;;) pause();
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err.find("./pools/threadpool/netthreadpool:netthreadpool_thread_routine: "
                             "pthread_mutex_unlock(): "),
              0u);
}

TEST(NetThreadPoolDeath, EndsTheProcessWithOneWhenAMutexCannotBeTaken) {
    const ChildResult child = run_in_child([] {
        netthreadpool* pool = netthreadpool_create();
        FailingCall fault("pthread_mutex_lock", EINVAL, 0, true);
        netthreadpool_get_node(pool);
    });
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(child.err,
              "./pthread_utils:pthread_utils_mutex_lock pthread_mutex_lock(): Invalid "
              "argument (22)\n");
}

TEST(NetThreadPool, PrintsAMutexThatCannotBeDestroyedAndGoesOn) {
    Pool pool;
    CapturedStderr err;
    {
        FailingCall fault("pthread_mutex_destroy", EBUSY);
        errno = ENOENT;
        netthreadpool_node_destroy(netthreadpool_node_create(pool.pool, 9), 1);
        EXPECT_EQ(err.take(), line("netthreadpool_node_destroy", "pthread_mutex_destroy", EBUSY));
    }
    {
        const int threads = thread_count();
        FailingCall fault("pthread_mutex_destroy", EBUSY);
        errno = ENOENT;
        netthreadpool_stop(pool.pool);
        EXPECT_EQ(err.take(), line("netthreadpool_stop", "pthread_mutex_destroy", EBUSY));
        EXPECT_TRUE(has_threads(threads - 5));
    }
}
