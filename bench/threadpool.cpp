// A line echo: connections that each send a line of 64 bytes, wait for it to come back, and send
// the next. One thread drives all connections; the server is the thread pool, libevent, libuv, or a
// thread for each connection. All are in this process, standard error goes to the null device, and
// each answer is compared to its last byte.
//
// The pool's trace writes one line for each step; "shown:unwritten_trace" is the pool with standard
// error buffered, so that the lines are formatted but hardly ever written.

#include <ztlib/pools/threadpool/threadpool.h>
#include <ztlib/sptrlist/sptrlist.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#ifdef HAVE_LIBEVENT
#    include <event2/event.h>
#endif
#ifdef HAVE_LIBUV
#    include <uv.h>
#endif

namespace {

constexpr size_t kLineBytes = 64;
constexpr size_t kRequests = 20'000;  // of one iteration, over all connections
constexpr int kWorkers = 2;
constexpr int kFirstClientDescriptor = 1100;  // the pool needs the numbers below FD_SETSIZE
constexpr size_t kReadBytes = 1500;

[[noreturn]] void give_up(const char* what) {
    perror(what);
    exit(1);
}

// Both ends of `count` TCP connections.
struct Connections {
    std::vector<int> clients;
    std::vector<int> servers;

    explicit Connections(size_t count) {
        rlimit limit{};
        getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);

        const int listening = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(listening, generic, size) != 0 || listen(listening, 16) != 0) give_up("listen");
        getsockname(listening, generic, &size);
        for (size_t i = 0; i < count; ++i) {
            const int low = socket(AF_INET, SOCK_STREAM, 0);
            if (connect(low, generic, size) != 0) give_up("connect");
            const int client = fcntl(low, F_DUPFD, kFirstClientDescriptor);
            close(low);
            const int server = accept(listening, nullptr, nullptr);
            if (client < 0 || server < 0) give_up("accept");
            const int on = 1;
            for (const int fd : {client, server})
                setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            clients.push_back(client);
            servers.push_back(server);
        }
        close(listening);
    }
};

// --- the client ---

class Driver {
  public:
    explicit Driver(const std::vector<int>& fds) : poll_(epoll_create1(0)) {
        for (size_t i = 0; i < fds.size(); ++i) {
            Peer peer{fds[i], std::string(kLineBytes, 'a'), 0};
            snprintf(peer.line.data(), kLineBytes, "connection %zu says", i);
            peer.line[kLineBytes - 1] = '\n';
            peers_.push_back(peer);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u64 = i;
            epoll_ctl(poll_, EPOLL_CTL_ADD, fds[i], &event);
        }
    }
    ~Driver() {
        for (const Peer& peer : peers_) close(peer.fd);
        close(poll_);
    }

    void run(size_t requests) {
        size_t sent = 0;
        for (Peer& peer : peers_)
            if (sent < requests) send_line(peer, sent);
        for (size_t answered = 0; answered < requests;) {
            epoll_event events[256];
            const int ready = epoll_wait(poll_, events, 256, 10'000);
            if (ready <= 0) give_up("no answer");
            for (int i = 0; i < ready; ++i) {
                Peer& peer = peers_[events[i].data.u64];
                if (!has_answer(peer)) continue;
                ++answered;
                if (sent < requests) send_line(peer, sent);
            }
        }
    }

  private:
    struct Peer {
        int fd;
        std::string line;
        size_t received;
    };

    static void send_line(Peer& peer, size_t& sent) {
        if (send(peer.fd, peer.line.data(), kLineBytes, MSG_NOSIGNAL) != ssize_t{kLineBytes})
            give_up("send");
        ++sent;
    }

    static bool has_answer(Peer& peer) {
        char room[kLineBytes];
        const ssize_t got = recv(peer.fd, room, kLineBytes - peer.received, 0);
        if (got <= 0) give_up("recv");
        if (memcmp(room, peer.line.data() + peer.received, static_cast<size_t>(got)) != 0)
            give_up("a wrong answer");
        peer.received = (peer.received + static_cast<size_t>(got)) % kLineBytes;
        return peer.received == 0;
    }

    int poll_;
    std::vector<Peer> peers_;
};

// The whole lines at the front of `pending` go back; true unless the connection fails.
bool answer_lines(int fd, std::string& pending) {
    const size_t end = pending.rfind('\n');
    if (end == std::string::npos) return true;
    const bool sent = send(fd, pending.data(), end + 1, MSG_NOSIGNAL) == ssize_t(end + 1);
    pending.erase(0, end + 1);
    return sent;
}

// --- the servers: each serves its connections until the clients close them ---

class PoolServer {
  public:
    explicit PoolServer(const std::vector<int>& fds) : pool_(threadpool_create(kWorkers)) {
        if (!pool_ || threadpool_start(pool_) != 0) give_up("threadpool");
        for (const int fd : fds) {
            Lines* lines = new Lines;
            lines->fd = fd;
            threadpool_node* node = threadpool_node_create(lines);
            node->fd = fd;
            node->data_cb = [](void* user, void* bytes, int32_t count) -> int32_t {
                Lines& l = *static_cast<Lines*>(user);
                const std::lock_guard lock(l.mutex);
                l.pending.append(static_cast<char*>(bytes), static_cast<size_t>(count));
                return 1;
            };
            node->process_cb = [](void* user) -> int32_t {
                Lines& l = *static_cast<Lines*>(user);
                const std::lock_guard lock(l.mutex);
                return answer_lines(l.fd, l.pending) ? 0 : -1;
            };
            node->remove_cb = [](void* user) { delete static_cast<Lines*>(user); };
            threadpool_entry(pool_, node);
        }
    }
    ~PoolServer() {
        std::vector<threadpool_thread*> workers;
        for (int i = 1; i <= kWorkers; ++i)
            workers.push_back(static_cast<threadpool_thread*>(pool_->threads[i]));
        threadpool_destroy(pool_);
        for (threadpool_thread* w : workers) {
            for (uint32_t i = 1; i < *static_cast<uint32_t*>(w->nodes[0]); ++i) {
                auto* node = static_cast<threadpool_node*>(w->nodes[i]);
                if (!node) continue;
                delete static_cast<Lines*>(node->user);
                threadpool_node_destroy(node);
            }
            sptrlist_free(w->nodes);
            sem_destroy(&w->wake);
            pthread_mutex_destroy(&w->mutex);
            free(w);
        }
    }

  private:
    struct Lines {
        int fd;
        std::mutex mutex;
        std::string pending;
    };
    threadpool* pool_;
};

class BufferedTracePoolServer {
  public:
    explicit BufferedTracePoolServer(const std::vector<int>& fds) {
        static char buffer[1 << 20];
        setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
        server_ = std::make_unique<PoolServer>(fds);
    }
    ~BufferedTracePoolServer() {
        server_.reset();
        setvbuf(stderr, nullptr, _IONBF, 0);
    }

  private:
    std::unique_ptr<PoolServer> server_;
};

class ThreadsServer {
  public:
    explicit ThreadsServer(const std::vector<int>& fds) {
        for (const int fd : fds) threads_.emplace_back([fd] { serve(fd); });
    }
    ~ThreadsServer() {
        for (std::thread& thread : threads_) thread.join();
    }

  private:
    static void serve(int fd) {
        std::string pending;
        char room[kReadBytes];
        for (ssize_t got; (got = recv(fd, room, sizeof room, 0)) > 0;) {
            pending.append(room, static_cast<size_t>(got));
            if (!answer_lines(fd, pending)) break;
        }
        close(fd);
    }
    std::vector<std::thread> threads_;
};

#ifdef HAVE_LIBEVENT
class LibeventServer {
  public:
    explicit LibeventServer(const std::vector<int>& fds) : base_(event_base_new()) {
        for (const int fd : fds) {
            auto* c = new Connection{fd, {}, nullptr};
            c->reading = event_new(base_, fd, EV_READ | EV_PERSIST, readable, c);
            event_add(c->reading, nullptr);
        }
        thread_ = std::thread([this] { event_base_dispatch(base_); });
    }
    ~LibeventServer() {
        thread_.join();
        event_base_free(base_);
    }

  private:
    struct Connection {
        int fd;
        std::string pending;
        event* reading;
    };
    static void readable(evutil_socket_t fd, short, void* argument) {
        auto* c = static_cast<Connection*>(argument);
        char room[kReadBytes];
        const ssize_t got = recv(fd, room, sizeof room, 0);
        if (got > 0) {
            c->pending.append(room, static_cast<size_t>(got));
            if (answer_lines(fd, c->pending)) return;
        }
        event_free(c->reading);
        close(fd);
        delete c;
    }
    event_base* base_;
    std::thread thread_;
};
#endif

#ifdef HAVE_LIBUV
class LibuvServer {
  public:
    explicit LibuvServer(const std::vector<int>& fds) {
        uv_loop_init(&loop_);
        for (const int fd : fds) {
            auto* c = new Connection;
            uv_tcp_init(&loop_, &c->tcp);
            uv_tcp_open(&c->tcp, fd);
            c->tcp.data = c;
            uv_read_start(reinterpret_cast<uv_stream_t*>(&c->tcp), allocate, readable);
        }
        thread_ = std::thread([this] { uv_run(&loop_, UV_RUN_DEFAULT); });
    }
    ~LibuvServer() {
        thread_.join();
        uv_loop_close(&loop_);
    }

  private:
    struct Connection {
        uv_tcp_t tcp;
        std::string pending;
        char room[kReadBytes];
    };
    static void allocate(uv_handle_t* handle, size_t, uv_buf_t* room) {
        *room = uv_buf_init(static_cast<Connection*>(handle->data)->room, kReadBytes);
    }
    static void readable(uv_stream_t* stream, ssize_t got, const uv_buf_t* room) {
        auto* c = static_cast<Connection*>(stream->data);
        if (got == 0) return;
        if (got > 0) {
            c->pending.append(room->base, static_cast<size_t>(got));
            const size_t end = c->pending.rfind('\n');
            if (end == std::string::npos) return;
            uv_buf_t lines = uv_buf_init(c->pending.data(), static_cast<unsigned>(end + 1));
            const bool sent = uv_try_write(stream, &lines, 1) == static_cast<int>(end + 1);
            c->pending.erase(0, end + 1);
            if (sent) return;
        }
        uv_close(reinterpret_cast<uv_handle_t*>(stream),
                 [](uv_handle_t* handle) { delete static_cast<Connection*>(handle->data); });
    }
    uv_loop_t loop_;
    std::thread thread_;
};
#endif

// Standard error to the null device while a server runs.
class SilentStderr {
  public:
    SilentStderr() : saved_(fcntl(2, F_DUPFD_CLOEXEC, 3)) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 2);
        close(null);
    }
    ~SilentStderr() {
        dup2(saved_, 2);
        close(saved_);
    }

  private:
    int saved_;
};

template <class Server>
void echo(benchmark::State& state, size_t connections) {
    const SilentStderr silent;
    const Connections ends(connections);
    Server server(ends.servers);
    Driver driver(ends.clients);
    driver.run(2 * connections);  // every connection is served before the clock runs
    for (auto _ : state) driver.run(kRequests);
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRequests));
}

template <class Server>
void add(size_t connections, const char* engine) {
    const std::string name = "echo_" + std::to_string(connections) + "/" + engine;
    benchmark::RegisterBenchmark(
        name.c_str(), [connections](benchmark::State& state) { echo<Server>(state, connections); })
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

const bool registered = [] {
    for (const size_t connections : {16, 128, 900}) {
        add<PoolServer>(connections, "ztlib");
        add<ThreadsServer>(connections, "thread_per_connection");
#ifdef HAVE_LIBEVENT
        add<LibeventServer>(connections, "shown:libevent");
#endif
#ifdef HAVE_LIBUV
        add<LibuvServer>(connections, "shown:libuv");
#endif
        add<BufferedTracePoolServer>(connections, "shown:unwritten_trace");
    }
    return true;
}();

}  // namespace
