#include <ztlib/pools/threadpool/threadpool.h>

#include <ztlib/sptrlist/sptrlist.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>
#include <tests/support/sockets.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/select.h>

using namespace zt_test;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;
using testing::UnorderedElementsAre;

namespace {

constexpr int32_t kReadBytes = 1500;

std::vector<void*> elements_of(void** list) {
    return std::vector<void*>(list + 1, list + *static_cast<uint32_t*>(list[0]));
}

// Releases what threadpool_destroy() left of a worker, and returns the nodes it had.
std::vector<threadpool_node*> release_worker(threadpool_thread* worker) {
    std::vector<threadpool_node*> nodes;
    for (void* slot : elements_of(worker->nodes))
        if (slot) nodes.push_back(static_cast<threadpool_node*>(slot));
    sptrlist_free(worker->nodes);
    sem_destroy(&worker->wake);
    pthread_mutex_destroy(&worker->mutex);
    free(worker);
    return nodes;
}

std::vector<threadpool_thread*> workers_of(threadpool* pool) {
    std::vector<threadpool_thread*> workers;
    for (void* slot : elements_of(pool->threads))
        if (slot) workers.push_back(static_cast<threadpool_thread*>(slot));
    return workers;
}

// Destroys a pool as a host does, and returns the nodes that it had adopted.
std::vector<threadpool_node*> stop(threadpool* pool) {
    const auto workers = workers_of(pool);
    threadpool_destroy(pool);
    std::vector<threadpool_node*> nodes;
    for (threadpool_thread* worker : workers) {
        EXPECT_EQ(worker->running, 0u);
        for (threadpool_node* node : release_worker(worker)) nodes.push_back(node);
    }
    return nodes;
}

// One connection: the host's end in a node, the other end here, and what the callbacks do.
struct Connection {
    std::function<int32_t()> on_process = [] { return 0; };
    std::function<int32_t(const std::string&)> on_data = [](const std::string& bytes) {
        return static_cast<int32_t>(bytes.size());
    };
    std::function<int32_t(void*, int32_t)> on_read;
    std::function<int32_t(threadpool_node*)> on_add = [](threadpool_node*) { return 0; };
    std::function<void()> on_remove = [] {};
    std::atomic<int> processed{0}, reads{0}, added{0}, removed{0};
    Fd peer;
    threadpool_node* node = nullptr;
    int fd = -1;

    Connection() {
        int pair[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, pair) != 0) abort();
        peer = Fd(pair[1]);
        make_node(pair[0]);
    }
    explicit Connection(int host_end) { make_node(host_end); }

    std::string data() const {
        const std::lock_guard lock(mutex_);
        return data_;
    }
    // Gives the node a read routine; without one the pool reads.
    void read_itself(std::function<int32_t(void*, int32_t)> read) {
        on_read = std::move(read);
        node->read_cb = [](void* user, void* buffer, int32_t size) {
            ++of(user).reads;
            return of(user).on_read(buffer, size);
        };
    }

    bool gets_processed(int times) const {
        return eventually([&] { return processed >= times; });
    }
    bool gets_removed() const {
        return eventually([&] { return removed == 1; });
    }

  private:
    static Connection& of(void* user) { return *static_cast<Connection*>(user); }

    void make_node(int host_end) {
        fd = host_end;
        node = threadpool_node_create(this);
        node->fd = host_end;
        node->data_cb = [](void* user, void* bytes, int32_t count) {
            const std::string text(static_cast<char*>(bytes), static_cast<size_t>(count));
            {
                const std::lock_guard lock(of(user).mutex_);
                of(user).data_ += text;
            }
            return of(user).on_data(text);
        };
        node->process_cb = [](void* user) {
            const int32_t result = of(user).on_process();
            ++of(user).processed;
            return result;
        };
        node->add_cb = [](void* user, threadpool_node* added_node) {
            EXPECT_EQ(added_node, of(user).node);
            ++of(user).added;
            return of(user).on_add(added_node);
        };
        node->remove_cb = [](void* user) {
            of(user).on_remove();
            ++of(user).removed;
        };
    }

    mutable std::mutex mutex_;
    std::string data_;
};

// A started pool with its trace captured. Nodes that it hands back at the end are destroyed.
class ThreadPool : public testing::Test {
  protected:
    // The thread sanitizer's own thread starts with the first other one and would be counted later.
    static void SetUpTestSuite() {
        std::thread([] {}).join();
    }
    void start(int32_t workers) {
        pool = threadpool_create(workers);
        ASSERT_NE(pool, nullptr);
        ASSERT_EQ(threadpool_start(pool), 0);
    }
    void enter(Connection& c) { EXPECT_EQ(threadpool_entry(pool, c.node), 0); }
    // Enters the node and waits for its first turn.
    void adopt(Connection& c) {
        enter(c);
        ASSERT_TRUE(c.gets_processed(1));
    }
    // A connection that outlives the pool.
    Connection& connection() { return connections_.emplace_back(); }
    void end() {
        if (!pool) return;
        for (threadpool_node* node : stop(std::exchange(pool, nullptr)))
            threadpool_node_destroy(node);
    }
    void TearDown() override { end(); }

    std::vector<std::string> lines() const {
        std::vector<std::string> all;
        std::istringstream text(err.text());
        for (std::string line; std::getline(text, line);) all.push_back(line);
        return all;
    }
    size_t count_lines(const std::string& line) const {
        const auto all = lines();
        return static_cast<size_t>(std::count(all.begin(), all.end(), line));
    }
    bool prints(const std::string& line, size_t times = 1) const {
        return eventually([&] { return count_lines(line) >= times; });
    }
    static std::string with_fd(const char* before, const Connection& c, const char* after = "") {
        return before + std::to_string(c.fd) + after;
    }

    const CapturedStderr err;
    threadpool* pool = nullptr;

  private:
    std::list<Connection> connections_;
};

std::multiset<std::string> thread_names() {
    std::multiset<std::string> names;
    DIR* tasks = opendir("/proc/self/task");
    while (const dirent* task = readdir(tasks)) {
        const std::string path = std::string("/proc/self/task/") + task->d_name + "/comm";
        if (FILE* file = fopen(path.c_str(), "r")) {
            char name[32] = "";
            if (fgets(name, sizeof name, file))
                names.insert(std::string(name, strcspn(name, "\n")));
            fclose(file);
        }
    }
    closedir(tasks);
    return names;
}

bool is_open(int fd) { return fcntl(fd, F_GETFD) != -1; }

std::string fatal_line(const char* function, const char* call, const char* text, int code) {
    return std::string("./pools/threadpool/threadpool:") + function + ": " + call + "(): " + text +
           " (" + std::to_string(code) + ")\n";
}

}  // namespace

// --- creation and start ---

TEST_F(ThreadPool, IsCreatedWithItsWorkersInSlotsAndNothingRunning) {
    const int threads = thread_count();
    threadpool* made = threadpool_create(3);
    ASSERT_NE(made, nullptr);
    EXPECT_EQ(made->count, 3);
    const auto workers = workers_of(made);
    ASSERT_EQ(workers.size(), 3u);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(made->threads[i + 1], workers[static_cast<size_t>(i)]);
        EXPECT_EQ(workers[static_cast<size_t>(i)]->id, i);
        EXPECT_EQ(workers[static_cast<size_t>(i)]->running, 1u);
        EXPECT_EQ(workers[static_cast<size_t>(i)]->pool, made);
        EXPECT_EQ(sptrlist_count(workers[static_cast<size_t>(i)]->nodes), 0);
    }
    EXPECT_EQ(thread_count(), threads);
    EXPECT_TRUE(stop(made).empty());
    EXPECT_EQ(err.text(), "");
}

TEST_F(ThreadPool, HasNoNegativeNumberOfWorkersButMayHaveNone) {
    EXPECT_EQ(threadpool_create(-1), nullptr);
    start(0);
    Connection& waiting = connection();
    enter(waiting);
    end();
    EXPECT_EQ(waiting.added, 0);
    threadpool_node_destroy(waiting.node);
}

TEST_F(ThreadPool, IsNotMadeAndLeaksNothingWhenMemoryOrASemaphoreIsOut) {
    const CapturedLog log;
    for_each_failing_allocation([] { return threadpool_create(3); },
                                [](threadpool* made) { stop(made); });
    for_each_failing_allocation([] { return threadpool_node_create(nullptr); },
                                [](threadpool_node* node) {
                                    node->fd = -1;
                                    threadpool_node_destroy(node);
                                });
    threadpool* owner = threadpool_create(0);
    for_each_failing_allocation([&] { return threadpool_thread_create(owner); },
                                [](threadpool_thread* worker) {
                                    threadpool_thread_destroy(worker);
                                    release_worker(worker);
                                });
    stop(owner);

    const Leftovers leftovers;
    for (uint32_t skip = 0; skip < 5; ++skip) {  // the pool's own, then two a worker
        const FailingCall fault("sem_init", ENOSPC, skip);
        EXPECT_EQ(threadpool_create(2), nullptr);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(ThreadPool, NamesItsThreadsAsFarAsTheSystemsLimitAllows) {
    const int threads = thread_count();
    start(100);
    EXPECT_EQ(thread_count(), threads + 300);
    const auto names = thread_names();
    for (const char* name : {"p/1/, read", "p/1/, incoming", "p/1/, process", "p/99/, incoming",
                             "p/99/, process", "p/100/, read", "p/100/, process"})
        EXPECT_EQ(names.count(name), 1u) << name;
    EXPECT_EQ(names.count("p/100/, incomin"), 0u);
    EXPECT_EQ(threadpool_start(pool), 0);  // again: nothing
    EXPECT_EQ(thread_count(), threads + 300);
}

TEST_F(ThreadPool, KeepsItsMutexAfterAFailedStartAndIsDestroyedAllTheSame) {
    for (uint32_t skip = 0; skip < 6; ++skip) {
        const Leftovers leftovers;
        const int threads = thread_count();
        threadpool* made = threadpool_create(2);
        const FailingCall fault("pthread_create", EAGAIN, skip);
        EXPECT_EQ(threadpool_start(made), -1);
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(thread_count(), threads + static_cast<int>(skip));
        EXPECT_EQ(pthread_mutex_trylock(&made->mutex), EBUSY);
        stop(made);
        EXPECT_TRUE(leftovers.none());
    }
}

// --- a node's life ---

TEST_F(ThreadPool, WithoutNodesPrintsItsLineAndSleepsUntilTheNextAdoption) {
    start(1);
    ASSERT_TRUE(prints("threadpool_read_routine sem_wait id:0"));
    Connection& c = connection();
    adopt(c);
    EXPECT_EQ(count_lines("threadpool_read_routine sem_wait id:0"), 1u);
    c.peer.close();
    ASSERT_TRUE(c.gets_removed());
    EXPECT_TRUE(prints("threadpool_read_routine sem_wait id:0", 2));
}

TEST_F(ThreadPool, AdoptsANodeWithAFirstTurn) {
    start(1);
    ASSERT_TRUE(prints("threadpool_read_routine sem_wait id:0"));
    Connection& c = connection();
    threadpool_thread* seen = nullptr;
    c.on_add = [&](threadpool_node* node) {
        seen = node->worker;
        return 0;
    };
    adopt(c);
    EXPECT_EQ(seen, pool->threads[1]);
    EXPECT_EQ(c.node->worker, seen);
    EXPECT_THAT(lines(), UnorderedElementsAre("threadpool_read_routine sem_wait id:0",
                                              with_fd("NODE ", c, " ADD TO THREAD POOL id:0"),
                                              with_fd("threadpool_processing_routine client ", c)));
    EXPECT_EQ(sptrlist_count(seen->nodes), 1);
}

TEST_F(ThreadPool, ReadsAndGivesATurn) {
    start(1);
    Connection& c = connection();
    adopt(c);
    EXPECT_TRUE(send_all(c.peer.get(), "hello"));
    ASSERT_TRUE(c.gets_processed(2));
    EXPECT_EQ(c.data(), "hello");
    EXPECT_EQ(count_lines(with_fd("threadpool_enqueue_processing tpn fd=", c)), 1u);
    EXPECT_EQ(count_lines(with_fd("threadpool_processing_routine client ", c)), 2u);
}

TEST_F(ThreadPool, ReadsAtMostFifteenHundredBytesAtOnce) {
    start(1);
    Connection& c = connection();
    std::atomic<size_t> largest{0};
    c.on_data = [&](const std::string& bytes) {
        largest = std::max(largest.load(), bytes.size());
        return 0;
    };
    adopt(c);
    const std::string text(10'000, 'x');
    EXPECT_TRUE(send_all(c.peer.get(), text));
    EXPECT_TRUE(eventually([&] { return c.data().size() == text.size(); }));
    EXPECT_EQ(largest, static_cast<size_t>(kReadBytes));
    // Without a read routine each read gives a turn, even though on_data saw nothing to process.
    EXPECT_TRUE(c.gets_processed(1 + 7));
}

TEST_F(ThreadPool, LeavesReadingToTheNodesOwnRoutine) {
    start(1);
    Connection& c = connection();
    std::atomic<int32_t> size{0};
    c.read_itself([&](void* buffer, int32_t room) {
        size = room;
        const auto got = static_cast<int32_t>(recv(c.fd, buffer, 1, MSG_DONTWAIT));
        return static_cast<char*>(buffer)[0] == '0' ? 0 : got;
    });
    adopt(c);
    EXPECT_TRUE(send_all(c.peer.get(), "0"));
    EXPECT_TRUE(eventually([&] { return c.reads == 1; }));
    EXPECT_TRUE(send_all(c.peer.get(), "1"));
    ASSERT_TRUE(c.gets_processed(2));
    EXPECT_EQ(size, kReadBytes);
    EXPECT_EQ(c.data(), "1");   // nothing of a read of 0
    EXPECT_EQ(c.processed, 2);  // and no turn for it
    EXPECT_EQ(count_lines(with_fd("threadpool_enqueue_processing tpn fd=", c)), 1u);
}

TEST_F(ThreadPool, GivesNoTurnWhenTheDataOfAReadRoutineIsNothingToProcess) {
    start(1);
    Connection& c = connection();
    c.read_itself([&](void* buffer, int32_t) {
        return static_cast<int32_t>(recv(c.fd, buffer, 1, MSG_DONTWAIT));
    });
    c.on_data = [](const std::string& bytes) { return bytes == "w" ? 1 : 0; };
    adopt(c);
    EXPECT_TRUE(send_all(c.peer.get(), "aaw"));
    ASSERT_TRUE(c.gets_processed(2));
    EXPECT_EQ(c.data(), "aaw");
    EXPECT_EQ(count_lines(with_fd("threadpool_enqueue_processing tpn fd=", c)), 1u);
}

TEST_F(ThreadPool, RemovesANodeWhosePeerCloses) {
    start(1);
    Connection& c = connection();
    adopt(c);
    const int fd = c.fd;
    c.peer.close();
    ASSERT_TRUE(c.gets_removed());
    ASSERT_TRUE(prints(with_fd("threadpool_node_destroy tpn fd = ", c)));
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(c.processed, 1);  // the closing turn is a removal, not a callback
    auto all = lines();
    all.erase(std::remove(all.begin(), all.end(), "threadpool_read_routine sem_wait id:0"),
              all.end());
    EXPECT_EQ(all.at(2), with_fd("threadpool_read_routine must_exit set for client ", c));
    EXPECT_EQ(all.at(3), with_fd("threadpool_enqueue_processing tpn fd=", c));
    EXPECT_EQ(all.at(4), with_fd("threadpool_processing_routine client ", c));
    EXPECT_EQ(all.at(5), with_fd("NODE ", c, " REMOVED FROM THREAD POOL id:0"));
    EXPECT_EQ(all.at(6), with_fd("threadpool_node_destroy tpn fd = ", c));
    EXPECT_EQ(sptrlist_count(static_cast<threadpool_thread*>(pool->threads[1])->nodes), 0);
}

TEST_F(ThreadPool, RemovesANodeWhoseReadOrDataFails) {
    start(1);
    Connection& data = connection();
    data.on_data = [](const std::string&) { return -7; };
    Connection& read = connection();
    read.read_itself([](void*, int32_t) { return -1; });
    Connection& failing = connection();
    adopt(data);
    adopt(read);
    EXPECT_TRUE(send_all(data.peer.get(), "x"));
    EXPECT_TRUE(data.gets_removed());
    EXPECT_TRUE(send_all(read.peer.get(), "x"));
    EXPECT_TRUE(read.gets_removed());
    EXPECT_TRUE(ended(data.peer.get()));
    EXPECT_TRUE(prints(with_fd("threadpool_read_routine must_exit set for client ", data)));
    EXPECT_TRUE(prints(with_fd("threadpool_read_routine must_exit set for client ", read)));

    adopt(failing);
    const FailingCall fault("recv", ECONNRESET);
    const FailingCall checked_fault("__recv_chk", ECONNRESET);
    EXPECT_TRUE(send_all(failing.peer.get(), "x"));
    EXPECT_TRUE(failing.gets_removed());
}

TEST_F(ThreadPool, CallsProcessAgainAtOnceUntilItIsDone) {
    start(1);
    Connection& c = connection();
    c.on_process = [&] { return c.processed < 9 ? 1 : 0; };
    enter(c);
    ASSERT_TRUE(c.gets_processed(10));
    EXPECT_TRUE(prints(with_fd("threadpool_processing_routine client ", c), 10));
    // Re-queuing by the process thread leaves no line.
    EXPECT_EQ(count_lines(with_fd("threadpool_enqueue_processing tpn fd=", c)), 0u);
    EXPECT_EQ(threadpool_enqueue(c.node), 0);
    ASSERT_TRUE(c.gets_processed(11));
    EXPECT_EQ(count_lines(with_fd("threadpool_enqueue tpn fd=", c)), 1u);
    EXPECT_EQ(c.processed, 11);
}

TEST_F(ThreadPool, RemovesANodeThatProcessClosesWithAllItsTurns) {
    start(1);
    Connection& neighbour = connection();
    adopt(neighbour);
    Connection& c = connection();
    c.on_process = [&] {
        for (int i = 0; i < 5; ++i) threadpool_enqueue(c.node);
        threadpool_enqueue(neighbour.node);
        return -1;
    };
    enter(c);
    ASSERT_TRUE(c.gets_removed());
    EXPECT_EQ(c.processed, 1);
    EXPECT_TRUE(neighbour.gets_processed(2));  // its turn is kept
    EXPECT_TRUE(prints(with_fd("threadpool_node_destroy tpn fd = ", c)));
    EXPECT_EQ(count_lines(with_fd("threadpool_read_routine must_exit set for client ", c)), 0u);
}

TEST_F(ThreadPool, RemovesANodeThatTheHostCloses) {
    start(1);
    Connection& c = connection();
    adopt(c);
    pthread_mutex_lock(&c.node->mutex);
    c.node->must_exit = 1;
    pthread_mutex_unlock(&c.node->mutex);
    EXPECT_EQ(threadpool_enqueue(c.node), 0);  // refuses
    EXPECT_EQ(count_lines(with_fd("threadpool_enqueue FAILED enqueue tpn fd=", c)), 1u);
    EXPECT_EQ(count_lines(with_fd("threadpool_enqueue tpn fd=", c)), 0u);
    EXPECT_EQ(c.removed, 0);
    EXPECT_NE(threadpool_enqueue_processing(c.node), nullptr);
    EXPECT_TRUE(c.gets_removed());
    EXPECT_EQ(c.processed, 1);
}

TEST_F(ThreadPool, GivesTheNodeNoWorkerAnyMoreWhenItIsRemoved) {
    start(1);
    Connection& c = connection();
    threadpool_thread* worker = reinterpret_cast<threadpool_thread*>(1);
    queue_node* turn = reinterpret_cast<queue_node*>(1);
    c.on_remove = [&] {
        worker = c.node->worker;
        turn = threadpool_enqueue_processing(c.node);
        threadpool_enqueue(c.node);
    };
    adopt(c);
    c.peer.close();
    ASSERT_TRUE(c.gets_removed());
    EXPECT_EQ(worker, nullptr);
    EXPECT_EQ(turn, nullptr);
    EXPECT_EQ(count_lines(with_fd("threadpool_enqueue FAILED enqueue tpn fd=", c)), 1u);
}

TEST_F(ThreadPool, HandsARefusedNodeBack) {
    start(2);
    Connection& c = connection();
    c.on_add = [](threadpool_node*) { return 5; };
    enter(c);
    ASSERT_TRUE(c.gets_removed());
    end();
    EXPECT_EQ(c.added, 1);
    EXPECT_EQ(c.removed, 1);
    EXPECT_EQ(c.processed, 0);
    EXPECT_EQ(c.node->worker, nullptr);
    EXPECT_TRUE(send_all(c.peer.get(), "open"));
    EXPECT_EQ(receive(c.fd, 4), "open");
    threadpool_node_destroy(c.node);
    EXPECT_FALSE(is_open(c.fd));
}

TEST_F(ThreadPool, RefusesDescriptorsThatNoDescriptorSetHolds) {
    if (raise_descriptor_limit() <= FD_SETSIZE + 1) GTEST_SKIP() << "too few descriptors allowed";
    start(1);
    Connection& high = connection();
    high.node->fd = fcntl(high.fd, F_DUPFD, FD_SETSIZE);
    Connection& negative = connection();
    negative.node->fd = -1;
    Connection& highest = connection();
    ASSERT_EQ(dup2(highest.fd, FD_SETSIZE - 1), FD_SETSIZE - 1);
    close(highest.fd);
    highest.node->fd = FD_SETSIZE - 1;
    enter(high);
    enter(negative);
    EXPECT_TRUE(high.gets_removed());
    EXPECT_TRUE(negative.gets_removed());
    adopt(highest);
    EXPECT_TRUE(send_all(highest.peer.get(), "x"));
    EXPECT_TRUE(highest.gets_processed(2));
    end();

    EXPECT_EQ(high.added, 0);
    EXPECT_EQ(negative.added, 0);
    EXPECT_EQ(high.node->worker, nullptr);
    EXPECT_TRUE(is_open(high.node->fd));
    EXPECT_EQ(count_lines("threadpool_incoming_routine NODE " + std::to_string(high.node->fd) +
                          " REFUSED: not a descriptor below 1024"),
              1u);
    EXPECT_EQ(
        count_lines("threadpool_incoming_routine NODE -1 REFUSED: not a descriptor below 1024"),
        1u);
    threadpool_node_destroy(high.node);
    threadpool_node_destroy(negative.node);
    close(high.fd);
    close(negative.fd);
}

TEST_F(ThreadPool, QueuesNoTurnForANodeThatIsNotAdoptedYet) {
    Connection& c = connection();
    EXPECT_EQ(threadpool_enqueue(c.node), 0);
    EXPECT_EQ(threadpool_enqueue_processing(c.node), nullptr);
    EXPECT_EQ(err.text(), with_fd("threadpool_enqueue tpn fd=", c, "\n") +
                              with_fd("threadpool_enqueue_processing tpn fd=", c, "\n"));

    start(1);
    c.on_add = [](threadpool_node* node) {
        EXPECT_EQ(threadpool_enqueue(node), 0);
        EXPECT_EQ(threadpool_enqueue_processing(node), nullptr);
        return 0;
    };
    adopt(c);
    EXPECT_EQ(threadpool_enqueue(c.node), 0);
    ASSERT_TRUE(c.gets_processed(2));
    EXPECT_EQ(c.processed, 2);
}

TEST_F(ThreadPool, DoesWithoutAnyCallback) {
    start(1);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    Fd peer(pair[1]);
    threadpool_node* node = threadpool_node_create(nullptr);
    node->fd = pair[0];
    EXPECT_EQ(threadpool_entry(pool, node), 0);
    const std::string fd = std::to_string(pair[0]);
    EXPECT_TRUE(prints("threadpool_processing_routine client " + fd));
    EXPECT_TRUE(send_all(peer.get(), "x"));
    EXPECT_TRUE(prints("threadpool_processing_routine client " + fd, 2));
    peer.close();
    EXPECT_TRUE(prints("threadpool_node_destroy tpn fd = " + fd));
}

TEST_F(ThreadPool, SpreadsNodesOverItsWorkers) {
    start(2);
    std::mutex gate;
    gate.lock();
    Connection& held = connection();  // keeps one incoming thread busy
    held.on_add = [&](threadpool_node*) {
        const std::lock_guard wait(gate);
        return 0;
    };
    enter(held);
    ASSERT_TRUE(eventually([&] { return held.added == 1; }));
    Connection& other = connection();
    adopt(other);
    gate.unlock();
    ASSERT_TRUE(held.gets_processed(1));
    EXPECT_NE(held.node->worker, other.node->worker);
}

// --- what select() says ---

TEST_F(ThreadPool, PrintsAFailedSelectAndGoesOn) {
    start(1);
    Connection& c = connection();
    const FailingCall fault("select", EINTR);
    adopt(c);
    EXPECT_TRUE(prints("threadpool_read_routine: select(): Interrupted system call"));
    EXPECT_TRUE(send_all(c.peer.get(), "x"));
    EXPECT_TRUE(c.gets_processed(2));
}

TEST_F(ThreadPool, NeverBlocksInAReadOfADescriptorThatIsNotReadyAfterAll) {
    start(1);
    Connection& c = connection();
    Connection& other = connection();
    const FakedCall ready("select", 1);  // with every watched descriptor left in the set
    adopt(c);
    ASSERT_TRUE(eventually([&] { return ready.hit(); }));
    adopt(other);
    EXPECT_TRUE(send_all(other.peer.get(), "x"));
    EXPECT_TRUE(other.gets_processed(2));
    EXPECT_EQ(c.processed, 1);  // nothing read, no turn
    EXPECT_EQ(c.removed, 0);
}

TEST_F(ThreadPool, LeavesANodeAloneThatCameAfterTheSelect) {
    // Between select() and its turn to be read, a node goes and another comes with its slot and its
    // descriptor, which then has nothing to read: the newcomer's own routine might block.
    start(1);
    Connection& holder = connection();
    Connection& first = connection();
    Connection& second = connection();
    Connection& newcomer = connection();
    for (Connection* c : {&holder, &first, &second}) adopt(*c);
    auto* worker = static_cast<threadpool_thread*>(pool->threads[1]);
    ASSERT_EQ(worker->nodes[3], second.node);

    const int own_fd = newcomer.fd;
    newcomer.node->fd = second.fd;
    newcomer.read_itself([](void*, int32_t) { return 0; });
    std::mutex gate;
    std::atomic<bool> held{false};
    holder.on_data = [&](const std::string&) {  // until both others are ready
        held = true;
        const std::lock_guard wait(gate);
        return 0;
    };
    first.on_data = [&](const std::string&) {  // the worker's mutex is held here
        EXPECT_EQ(receive(second.fd, 1), "x");
        worker->nodes[3] = newcomer.node;
        return 0;
    };
    gate.lock();
    EXPECT_TRUE(send_all(holder.peer.get(), "x"));
    ASSERT_TRUE(eventually([&] { return held.load(); }));
    EXPECT_TRUE(send_all(first.peer.get(), "x"));
    EXPECT_TRUE(send_all(second.peer.get(), "x"));
    gate.unlock();
    ASSERT_TRUE(first.gets_processed(2));

    pthread_mutex_lock(&worker->mutex);
    EXPECT_EQ(newcomer.reads, 0);
    EXPECT_EQ(second.data(), "");
    worker->nodes[3] = second.node;
    pthread_mutex_unlock(&worker->mutex);
    newcomer.node->fd = own_fd;
    threadpool_node_destroy(newcomer.node);
}

// --- stopping between callbacks ---

namespace {

struct SlowReader {
    threadpool_thread* worker;
    std::atomic<int> reads{0};

    // The first read lasts until the worker is being stopped.
    static int32_t read(void* user, void*, int32_t) {
        auto& self = *static_cast<SlowReader*>(user);
        ++self.reads;
        eventually([&] { return __atomic_load_n(&self.worker->running, __ATOMIC_ACQUIRE) == 0; });
        return 0;
    }
};

}  // namespace

TEST(ThreadPoolStop, BeginsNoFurtherReadInTheRoundThatItMeets) {
    constexpr int kNodes = 5;
    CapturedStderr err;
    threadpool* pool = threadpool_create(1);
    auto* worker = static_cast<threadpool_thread*>(pool->threads[1]);
    SlowReader reader{worker};
    int peers[kNodes];
    for (int& peer : peers) {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        ASSERT_EQ(write(ends[1], "x", 1), 1);
        peer = ends[1];
        threadpool_node* node = threadpool_node_create(&reader);
        node->fd = ends[0];
        node->read_cb = SlowReader::read;
        ASSERT_EQ(threadpool_entry(pool, node), 0);
    }
    ASSERT_EQ(threadpool_start(pool), 0);
    ASSERT_TRUE(eventually([&] { return reader.reads > 0; }));
    threadpool_destroy(pool);
    EXPECT_EQ(reader.reads, 1);

    for (uint32_t i = 1; i < *static_cast<uint32_t*>(worker->nodes[0]); ++i)
        threadpool_node_destroy(static_cast<threadpool_node*>(worker->nodes[i]));
    sptrlist_free(worker->nodes);
    sem_destroy(&worker->wake);
    pthread_mutex_destroy(&worker->mutex);
    free(worker);
    for (int peer : peers) close(peer);
}

TEST(ThreadPoolStop, LeavesAStoppedWorkerOutOfTheStart) {
    CapturedStderr err;
    threadpool* pool = threadpool_create(2);
    auto* first = static_cast<threadpool_thread*>(pool->threads[1]);
    auto* second = static_cast<threadpool_thread*>(pool->threads[2]);
    const int before = thread_count();
    threadpool_thread_destroy(first);
    ASSERT_EQ(threadpool_start(pool), 0);
    EXPECT_EQ(thread_count(), before + 3);
    threadpool_destroy(pool);
    EXPECT_EQ(thread_count(), before);
    for (threadpool_thread* worker : {first, second}) {
        sptrlist_free(worker->nodes);
        sem_destroy(&worker->wake);
        pthread_mutex_destroy(&worker->mutex);
        free(worker);
    }
}

// --- without memory ---

TEST_F(ThreadPool, LeavesANodeToTheHostThatCannotBeQueued) {
    start(1);
    Connection& c = connection();
    {
        const FailingCall fault("malloc", ENOMEM, 0, true);
        EXPECT_EQ(threadpool_entry(pool, c.node), -1);
    }
    adopt(c);
    const FailingCall fault("malloc", ENOMEM, 0, true);
    EXPECT_EQ(threadpool_enqueue(c.node), -1);
    const FailingCall second_fault("malloc", ENOMEM, 0, true);
    EXPECT_EQ(threadpool_enqueue_processing(c.node), nullptr);
    EXPECT_EQ(c.processed, 1);
}

TEST_F(ThreadPool, RemovesANodeThatWasAcceptedAndHasNoSlot) {
    start(1);
    Connection& first = connection();
    adopt(first);
    Connection& second = connection();
    const CapturedLog log;
    const FailingCall fault("realloc", ENOMEM);
    enter(second);
    ASSERT_TRUE(second.gets_removed());
    EXPECT_TRUE(fault.hit());
    EXPECT_TRUE(prints(with_fd("threadpool_node_destroy tpn fd = ", second)));
    EXPECT_EQ(count_lines(with_fd("NODE ", second, " ADD TO THREAD POOL id:0")), 0u);
    EXPECT_EQ(second.processed, 0);
}

TEST_F(ThreadPool, GivesATurnLaterThatFoundNoMemory) {
    start(1);
    Connection& c = connection();
    const FailingCall first_turn("malloc", ENOMEM, 1);  // entering takes one, adoption the next
    enter(c);
    EXPECT_TRUE(c.gets_processed(1));
    EXPECT_TRUE(first_turn.hit());

    const FailingCall read_turn("malloc", ENOMEM);
    EXPECT_TRUE(send_all(c.peer.get(), "x"));
    EXPECT_TRUE(c.gets_processed(2));
    EXPECT_TRUE(read_turn.hit());

    const FailingCall last_turn("malloc", ENOMEM);
    c.peer.close();  // and nothing is watched any more
    EXPECT_TRUE(c.gets_removed());
    EXPECT_TRUE(last_turn.hit());
}

TEST_F(ThreadPool, TakesATurnAtOnceThatCannotBeQueuedAgain) {
    start(1);
    Connection& c = connection();
    std::unique_ptr<FailingCall> fault;
    c.on_process = [&] {
        if (c.processed > 1) return -1;
        fault = std::make_unique<FailingCall>("malloc", ENOMEM, 0, true);
        return 1;
    };
    enter(c);
    ASSERT_TRUE(c.gets_removed());
    EXPECT_EQ(c.processed, 3);
}

// --- stopping ---

TEST_F(ThreadPool, HandsWaitingNodesBackUntouchedWhenItIsDestroyed) {
    const Leftovers leftovers;
    {
        threadpool* made = threadpool_create(2);  // not started: nobody adopts
        Connection a, b;
        EXPECT_EQ(threadpool_entry(made, a.node), 0);
        EXPECT_EQ(threadpool_entry(made, b.node), 0);
        EXPECT_TRUE(stop(made).empty());
        for (Connection* c : {&a, &b}) {
            EXPECT_EQ(c->added + c->removed + c->processed, 0);
            EXPECT_TRUE(is_open(c->fd));
            threadpool_node_destroy(c->node);
        }
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(ThreadPool, HandsAdoptedNodesBackUntouchedWhenItIsDestroyed) {
    start(3);
    std::list<Connection> connections(20);
    for (Connection& c : connections) adopt(c);
    const auto nodes = stop(std::exchange(pool, nullptr));
    EXPECT_EQ(nodes.size(), 20u);
    const std::string before = err.text();
    for (Connection& c : connections) {
        EXPECT_THAT(nodes, Contains(c.node));
        EXPECT_EQ(c.removed, 0);
        EXPECT_TRUE(is_open(c.fd));
    }
    // A host's thread that comes late finds the node without a queue.
    Connection& late = connections.front();
    EXPECT_EQ(threadpool_enqueue(late.node), 0);
    EXPECT_EQ(threadpool_enqueue_processing(late.node), nullptr);
    for (Connection& c : connections) threadpool_node_destroy(c.node);
}

TEST_F(ThreadPool, ReleasesEveryThreadOfEveryWorker) {
    for (const int32_t workers : {1, 2, 7, 40}) {
        const Leftovers leftovers;
        start(workers);
        EXPECT_EQ(threadpool_start(pool), 0);
        end();
        EXPECT_TRUE(leftovers.none());
    }
}

TEST_F(ThreadPool, StopsWhateverItsCallbacksAreDoing) {
    const Leftovers leftovers;
    {
        start(4);
        std::list<Connection> connections(12);
        std::mutex mutex;
        std::list<Connection> late;
        int kind = 0;
        for (Connection& c : connections) {
            switch (kind++ % 4) {
                case 0:
                    c.on_process = [] { return 1; };
                    break;  // never done
                case 1:     // looks at the pool
                    c.on_process = [this] {
                        thread_pool_info(pool);
                        return 1;
                    };
                    break;
                case 2:  // enters more
                    c.on_process = [&] {
                        const std::lock_guard lock(mutex);
                        if (late.size() < 300) {
                            late.emplace_back();
                            threadpool_entry(pool, late.back().node);
                        }
                        return 1;
                    };
                    break;
                default:  // asks for turns of its own
                    c.on_process = [&c] {
                        threadpool_enqueue(c.node);
                        threadpool_enqueue_processing(c.node);
                        return 0;
                    };
            }
            enter(c);
        }
        for (Connection& c : connections) ASSERT_TRUE(c.gets_processed(3));
        std::set<threadpool_node*> adopted;
        const auto workers = workers_of(pool);
        threadpool_destroy(pool);
        pool = nullptr;
        for (threadpool_thread* worker : workers)
            for (threadpool_node* node : release_worker(worker)) adopted.insert(node);
        for (Connection& c : connections) {
            EXPECT_EQ(adopted.count(c.node), 1u);
            threadpool_node_destroy(c.node);
        }
        for (Connection& c : late) {
            EXPECT_EQ(adopted.count(c.node), static_cast<size_t>(c.added));
            EXPECT_EQ(c.removed, 0);
            threadpool_node_destroy(c.node);
        }
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(ThreadPool, StopsOneWorkerWhileTheOthersGoOn) {
    const int threads = thread_count();
    start(3);
    auto* worker = static_cast<threadpool_thread*>(pool->threads[2]);
    threadpool_thread_destroy(worker);
    EXPECT_EQ(worker->running, 0u);
    EXPECT_EQ(thread_count(), threads + 6);
    threadpool_thread_destroy(worker);  // again: nothing
    for (int i = 0; i < 10; ++i) {
        Connection& c = connection();
        adopt(c);
        EXPECT_NE(c.node->worker, worker);
    }
}

// --- the small functions ---

TEST_F(ThreadPool, ComparesNodesByIdentity) {
    Connection& a = connection();
    Connection& b = connection();
    EXPECT_EQ(threadpool_node_compare(a.node, a.node), 0);
    EXPECT_EQ(threadpool_node_compare(a.node, b.node), -1);
    EXPECT_EQ(threadpool_node_compare(a.node, nullptr), -1);
    EXPECT_EQ(threadpool_node_compare(nullptr, nullptr), 0);
    threadpool_node_destroy(a.node);
    threadpool_node_destroy(b.node);
}

TEST_F(ThreadPool, DumpsANode) {
    threadpool_node* node = threadpool_node_create(reinterpret_cast<void*>(0x1234));
    node->fd = -1;
    node->must_exit = 1;
    threadpool_node_dump(node);
    EXPECT_EQ(err.text(), "qdump: ptr=0x1234, fd=-1, must_exit=1\n");
    threadpool_node_destroy(node);
    EXPECT_EQ(count_lines("threadpool_node_destroy tpn fd = -1"), 1u);
}

TEST_F(ThreadPool, PrintsItsWorkersNodes) {
    start(1);
    Connection& a = connection();
    Connection& b = connection();
    Connection& c = connection();
    adopt(a);
    adopt(b);
    adopt(c);
    b.peer.close();
    ASSERT_TRUE(b.gets_removed());
    ASSERT_TRUE(prints(with_fd("threadpool_node_destroy tpn fd = ", b)));
    thread_pool_info(pool);
    const std::string dump = "-- therad pool dump cnt 1--\n\tn[1] fd:" + std::to_string(a.fd) +
                             "\n\tn[3] fd:" + std::to_string(c.fd) + "\n";
    EXPECT_THAT(err.text(), testing::HasSubstr(dump));
}

TEST_F(ThreadPool, DestroysANodeWithItsSocket) {
    Connection& c = connection();
    threadpool_node_destroy(c.node);
    EXPECT_FALSE(is_open(c.fd));
    EXPECT_TRUE(ended(c.peer.get()));
    EXPECT_EQ(err.text(), with_fd("threadpool_node_destroy tpn fd = ", c, "\n"));
}

TEST_F(ThreadPool, IgnoresNull) {
    EXPECT_EQ(threadpool_start(nullptr), -1);
    EXPECT_EQ(threadpool_entry(nullptr, nullptr), -1);
    start(1);
    EXPECT_EQ(threadpool_entry(pool, nullptr), -1);
    EXPECT_EQ(threadpool_enqueue(nullptr), 0);
    EXPECT_EQ(threadpool_enqueue_processing(nullptr), nullptr);
    EXPECT_EQ(threadpool_thread_create(nullptr), nullptr);
    threadpool_destroy(nullptr);
    threadpool_thread_destroy(nullptr);
    threadpool_node_destroy(nullptr);
    threadpool_node_dump(nullptr);
    thread_pool_info(nullptr);
}

TEST_F(ThreadPool, EndsTheProcessWhenAMutexFails) {
    ChildResult child = run_in_child([] {
        const FailingCall fault("pthread_mutex_init", EAGAIN, 0, true);
        errno = ENOENT;
        threadpool_node_create(nullptr);
    });
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err, fatal_line("threadpool_node_create", "pthread_mutex_init",
                                    "No such file or directory", EAGAIN));
    child = run_in_child([] {
        const FailingCall fault("pthread_mutex_init", EAGAIN, 1, true);  // after its queue's
        errno = ENOENT;
        threadpool_create(1);
    });
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err, fatal_line("threadpool_create", "pthread_mutex_init",
                                    "No such file or directory", EAGAIN));
    child = run_in_child([] {
        threadpool_node* node = threadpool_node_create(nullptr);
        node->must_exit = 1;
        const FailingCall fault("pthread_mutex_unlock", EPERM, 0, true);
        errno = ENOENT;
        threadpool_enqueue(node);
    });
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err, "threadpool_enqueue FAILED enqueue tpn fd=0\n" +
                             fatal_line("threadpool_enqueue", "pthread_mutex_unlock",
                                        "No such file or directory", EPERM));
}

TEST_F(ThreadPool, PrintsAMutexThatCannotBeDestroyedAndGoesOn) {
    Connection& c = connection();
    const FailingCall fault("pthread_mutex_destroy", EBUSY, 0, true);
    c.node->fd = -1;
    errno = ENOENT;
    threadpool_node_destroy(c.node);
    EXPECT_EQ(err.text(), "threadpool_node_destroy tpn fd = -1\n" +
                              fatal_line("threadpool_node_destroy", "pthread_mutex_destroy",
                                         "No such file or directory", EBUSY));
    close(c.fd);
}

// --- soak ---

namespace {

std::chrono::seconds soak_time() {
    const char* text = getenv("ZTLIB_SOAK_SECONDS");
    const int seconds = text ? atoi(text) : 10;
    return std::chrono::seconds(std::clamp(seconds, 1, 60));
}

// Accepts connections into a pool, closes and refuses some of its own accord, and asks for turns
// from a thread of its own. Keeps the books.
class SoakHost {
  public:
    struct Client {
        SoakHost* host;
        threadpool_node* node;
        unsigned luck;
        std::atomic<int> adds{0}, removals{0}, at_once{0};
        bool alive = true;  // under the host's mutex: the node may be used
    };

    // Has at most `limit` connections at a time; the others wait to be accepted.
    SoakHost(int32_t workers, size_t limit) : limit_(limit), pool_(threadpool_create(workers)) {
        EXPECT_EQ(threadpool_start(pool_), 0);
        accepting_ = std::thread([this] { accept_all(); });
        turning_ = std::thread([this] { ask_for_turns(); });
    }

    uint16_t port() const { return server_.port(); }

    // Stops in the middle of everything and checks the books.
    void stop_and_check() {
        accepts_ = false;
        server_.stop();
        accepting_.join();
        const auto workers = workers_of(pool_);
        threadpool_destroy(pool_);  // with the turning thread still at it
        stopping_ = true;
        turning_.join();

        std::multiset<threadpool_node*> adopted;
        for (threadpool_thread* worker : workers)
            for (threadpool_node* node : release_worker(worker)) adopted.insert(node);
        size_t handed_back = 0;
        for (Client& c : clients_) {
            EXPECT_LE(c.adds, 1);
            EXPECT_LE(c.removals, 1);
            const size_t in_slots = adopted.count(c.alive ? c.node : nullptr);
            // Removed or refused once, or handed back: in a slot once it was asked, else still
            // waiting.
            EXPECT_EQ(c.alive, c.removals == 0);
            if (!c.alive) continue;
            EXPECT_EQ(in_slots, static_cast<size_t>(c.adds));
            handed_back += in_slots;
            threadpool_node_destroy(c.node);
        }
        EXPECT_EQ(handed_back, adopted.size());
        EXPECT_FALSE(overlapping_);
    }

    size_t clients() const { return clients_.size(); }
    size_t most_at_once() const { return most_at_once_; }
    size_t removals() const { return removals_; }
    size_t refusals() const { return refusals_; }
    size_t messages() const { return messages_; }

  private:
    static Client& of(void* user) { return *static_cast<Client*>(user); }

    static int32_t add(void* user, threadpool_node*) {
        ++of(user).adds;
        return of(user).luck % 16 == 0 ? 1 : 0;
    }
    static int32_t data(void* user, void* bytes, int32_t count) {
        Client& c = of(user);
        ++c.host->messages_;
        const auto* text = static_cast<const char*>(bytes);
        send(c.node->fd, text, static_cast<size_t>(count), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (text[0] == 'x') return -1;
        return text[0] == '0' ? 0 : 1;
    }
    static int32_t process(void* user) {
        Client& c = of(user);
        if (++c.at_once != 1) c.host->overlapping_ = true;
        const unsigned luck = c.luck = c.luck * 1103515245 + 12345;
        --c.at_once;
        if (luck % 512 == 0) return -1;
        return (luck >> 9) % 8 == 0 ? 1 : 0;
    }
    static void remove(void* user) {
        Client& c = of(user);
        SoakHost& host = *c.host;
        const std::lock_guard lock(host.mutex_);
        ++c.removals;
        ++host.removals_;
        --host.alive_;
        c.alive = false;
        if (!c.node->worker && c.node->must_exit) return;
        ++host.refusals_;  // the node is ours again
        threadpool_node_destroy(c.node);
    }

    void accept_all() {
        std::minstd_rand random(1);
        while (Fd fd = server_.accept()) {
            eventually([&] { return !accepts_ || alive_ < limit_; });
            if (!accepts_) return;
            const std::lock_guard lock(mutex_);
            Client& c = clients_.emplace_back();
            c.host = this;
            c.luck = static_cast<unsigned>(random());
            c.node = threadpool_node_create(&c);
            c.node->fd = fd.release();
            c.node->data_cb = data;
            c.node->process_cb = process;
            c.node->add_cb = add;
            c.node->remove_cb = remove;
            EXPECT_EQ(threadpool_entry(pool_, c.node), 0);
            most_at_once_ = std::max(most_at_once_, ++alive_);
        }
    }

    void ask_for_turns() {
        std::minstd_rand random(2);
        while (!stopping_) {
            {
                const std::lock_guard lock(mutex_);
                if (!clients_.empty()) {
                    // The latest are the likeliest to live.
                    auto at = clients_.end();
                    for (auto back = random() % std::min<size_t>(clients_.size(), 400) + 1;
                         back > 0; --back)
                        --at;
                    if (at->alive) {
                        if (random() % 2)
                            threadpool_enqueue(at->node);
                        else
                            threadpool_enqueue_processing(at->node);
                    }
                }
            }
            poll(nullptr, 0, 1);
        }
    }

    const size_t limit_;
    Server server_;
    threadpool* pool_;
    std::mutex mutex_;
    std::list<Client> clients_;
    std::atomic<size_t> alive_{0};
    size_t most_at_once_ = 0;
    std::atomic<size_t> messages_{0}, removals_{0}, refusals_{0};
    std::atomic<bool> overlapping_{false}, stopping_{false}, accepts_{true};
    std::thread accepting_, turning_;
};

// Client descriptors begin here: the pool needs the numbers below FD_SETSIZE for its own.
constexpr int kFirstClientDescriptor = FD_SETSIZE + 100;

Fd connect_high(uint16_t port) {
    const Fd low = connect_to(port);
    return Fd(fcntl(low.get(), F_DUPFD, kFirstClientDescriptor));
}

// Keeps `count` connections busy: sends, receives what comes, closes and connects again at random.
void keep_busy(uint16_t port, size_t count, unsigned seed, const std::atomic<bool>& stopping) {
    std::minstd_rand random(seed);
    std::vector<Fd> fds(count);
    while (!stopping) {
        for (Fd& fd : fds) {
            if (stopping) return;
            if (!fd) {
                fd = connect_high(port);
                continue;
            }
            char room[4096];
            const ssize_t got = recv(fd.get(), room, sizeof room, MSG_DONTWAIT);
            if (got == 0 || (got < 0 && errno != EAGAIN)) {
                fd.close();
                continue;
            }
            switch (random() % 200) {
                case 0:
                    fd.close();
                    break;
                case 1:
                    fd.reset();
                    break;
                case 2:
                    send(fd.get(), "x", 1, MSG_NOSIGNAL | MSG_DONTWAIT);
                    break;
                case 3:
                    shutdown(fd.get(), SHUT_WR);
                    break;
                default: {
                    const std::string text(random() % 3000 + 1, random() % 2 ? '0' : 'm');
                    send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
                }
            }
        }
    }
}

}  // namespace

TEST(ThreadPoolSoak, RemovesEveryNodeOnceOrHandsItBackAndLeavesNoDescriptor) {
    constexpr size_t kClientThreads = 2;
    constexpr size_t kConnections = 900;
    const SilentStderr silent;
    if (raise_descriptor_limit() < kFirstClientDescriptor + kConnections)
        GTEST_SKIP() << "too few descriptors allowed";
    const Leftovers leftovers;
    {
        SoakHost host(4, kConnections);
        std::atomic<bool> stopping{false};
        std::vector<std::thread> clients;
        for (unsigned i = 0; i < kClientThreads; ++i)
            clients.emplace_back(
                [&, i] { keep_busy(host.port(), kConnections / kClientThreads, i + 1, stopping); });
        std::this_thread::sleep_for(soak_time());
        host.stop_and_check();  // the clients are still at it
        stopping = true;
        for (std::thread& client : clients) client.join();
        EXPECT_GT(host.clients(), kConnections);
        EXPECT_GT(host.most_at_once(), kConnections / 2);
        EXPECT_LE(host.most_at_once(), kConnections);
        EXPECT_GT(host.messages(), kConnections);
        EXPECT_GT(host.removals(), host.refusals());
        EXPECT_GT(host.refusals(), 0u);
        RecordProperty("connections", static_cast<int>(host.clients()));
        RecordProperty("most_at_once", static_cast<int>(host.most_at_once()));
        RecordProperty("messages", static_cast<int>(host.messages()));
        RecordProperty("removals", static_cast<int>(host.removals()));
        RecordProperty("refusals", static_cast<int>(host.refusals()));
    }
    EXPECT_TRUE(leftovers.none());
}
