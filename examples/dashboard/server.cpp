#include "server.h"

#include <ztlib/logger.h>
#include <ztlib/sptrlist/sptrlist.h>

#include <cerrno>
#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

namespace dashboard {
namespace {

using inventory::Descriptor;

constexpr const char* kModule = "dashboard";

constexpr size_t kMaxConnections = 200;
constexpr size_t kOtherDescriptors = 32;                          // the daemon's own, generously
static_assert(kMaxConnections + kOtherDescriptors < FD_SETSIZE);  // the pool uses select()

constexpr int kTickMs = 1000;  // between two looks at the deadlines
constexpr std::chrono::seconds kListenPause{1};
constexpr int kSendBuffer =
    128 * 1024;  // bytes that the system keeps for a browser, the page and more
constexpr unsigned kLostMs = 30'000;  // a browser that acknowledges nothing for so long is gone

constexpr uint64_t kSignals = 0;  // among the epoll's data, which are connections' numbers

constexpr std::string_view kFull =
    "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain; charset=utf-8\r\n"
    "Content-Length: 24\r\nRetry-After: 10\r\nConnection: close\r\n\r\n503 Service Unavailable\n";

[[noreturn]] void fail(const char* call) {
    throw std::runtime_error(std::string(call) + "(): " + strerror(errno));
}

// How many connections there are descriptors for. A listener whose accept() finds none goes deaf.
size_t connections_possible() {
    constexpr rlim_t kWanted = kMaxConnections + kOtherDescriptors;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_cur < kWanted) {
        limit.rlim_cur = std::min(kWanted, limit.rlim_max);
        setrlimit(RLIMIT_NOFILE, &limit);
        getrlimit(RLIMIT_NOFILE, &limit);
    }
    if (limit.rlim_cur <= kOtherDescriptors) throw std::runtime_error("too few descriptors");
    return std::min<size_t>(kMaxConnections, limit.rlim_cur - kOtherDescriptors);
}

bool is_loopback(const std::string& address) {
    in_addr parsed{};
    return inet_pton(AF_INET, address.c_str(), &parsed) == 1 &&
           ntohl(parsed.s_addr) >> 24 == IN_LOOPBACKNET;
}

}  // namespace

// --- listening -----------------------------------------------------------------------------------

Listening::Listening(const std::string& address, uint16_t port, socket_listener_accept_cb accepted,
                     void* user_data)
    : reservation_(inventory::bind_to(address, port)),
      host_(address),
      text_(inventory::bound_address(reservation_)),
      accepted_(accepted),
      user_data_(user_data) {
    port_ = static_cast<uint16_t>(std::stoi(text_.substr(text_.rfind(':') + 1)));
    listener_ = open();
    if (!listener_) throw std::runtime_error(text_ + ": cannot listen");
    keeper_ = std::thread([this] { replace_when_deaf(); });
}

Listening::~Listening() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        socket_listener_close(listener_);
    }
    stop_.notify_all();
    keeper_.join();
}

socket_listener* Listening::open() const {
    return socket_listener_open(host_.c_str(), port_, accepted_, user_data_);
}

// The keeper's thread: it alone replaces the listener and waits for its end.
void Listening::replace_when_deaf() {
    std::unique_lock lock(mutex_);
    auto opened = Clock::now();
    while (!stopping_) {
        socket_listener* const current = listener_;
        lock.unlock();
        socket_listener_wait(current);
        lock.lock();
        if (stopping_) return;

        socket_listener_close(current);
        listener_ = nullptr;
        logger_log(LOGGER_WARNING, kModule, __func__, "the listener went deaf, opening another");
        // At once, unless this one did not hold for long.
        while (!listener_ &&
               !stop_.wait_until(lock, opened + kListenPause, [&] { return stopping_; })) {
            opened = Clock::now();
            listener_ = open();
        }
    }
    // Stopped between two listeners' lives: the last one is closed, and nobody waited for it yet.
    socket_listener_wait(listener_);
}

// --- the pool ------------------------------------------------------------------------------------

// The workers' records come back, the nodes in them belong to the server's connections.
void ReleasePool::operator()(threadpool* pool) const {
    std::vector<threadpool_thread*> workers;
    for (int i = 1; i <= pool->count; ++i)
        workers.push_back(static_cast<threadpool_thread*>(pool->threads[i]));
    threadpool_destroy(pool);
    for (threadpool_thread* worker : workers) {
        sptrlist_free(worker->nodes);
        sem_destroy(&worker->wake);
        pthread_mutex_destroy(&worker->mutex);
        free(worker);
    }
}

// One worker: no callback blocks, and with one only its read thread needs to be woken for a new
// connection, which would otherwise wait for the end of a select() of up to a second.
void Server::start_pool() {
    pool_.reset(threadpool_create(1));
    if (!pool_ || threadpool_start(pool_.get()) != 0)
        throw std::runtime_error("cannot start the thread pool");

    waker_.reset(threadpool_node_create(this));
    if (!waker_) throw std::bad_alloc();
    waker_->fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (waker_->fd < 0) fail("eventfd");
    waker_->read_cb = on_woken;
    if (threadpool_entry(pool_.get(), waker_.get()) != 0) throw std::bad_alloc();
}

void Server::wake_reader() { eventfd_write(waker_->fd, 1); }

// At the end the event stays, so that the read thread sees at once that it is to stop.
int32_t Server::on_woken(void* server, void*, int32_t) {
    const auto& self = *static_cast<Server*>(server);
    eventfd_t count = 0;
    if (!self.stopping_) eventfd_read(self.waker_->fd, &count);
    return 0;  // nothing to process
}

// --- connections ---------------------------------------------------------------------------------

void Server::on_accepted(void* server, int socket, sockaddr*, unsigned) {
    try {
        static_cast<Server*>(server)->admit(socket);
    } catch (const std::bad_alloc&) {
        close(socket);
    }
}

void Server::admit(int socket) {
    const int on = 1;
    setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    setsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &kLostMs, sizeof kLostMs);

    const std::lock_guard lock(mutex_);
    if (connections_.size() >= max_connections_) {
        send(socket, kFull.data(), kFull.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        close(socket);
        return;
    }
    const uint64_t id = ++last_id_;
    auto& connection = connections_[id];
    try {
        connection = std::make_unique<Connection>(*this, id, socket);
    } catch (const std::bad_alloc&) {
        connections_.erase(id);
        throw;
    }
    if (threadpool_entry(pool_.get(), connection->node()) != 0) {
        threadpool_node_destroy(connection->node());
        connections_.erase(id);
    }
}

void Server::forget(const Connection& connection) {
    const std::lock_guard lock(mutex_);
    connections_.erase(connection.id());
}

// A connection that is not forgotten has its node: the lock keeps both.
void Server::announce() {
    const std::lock_guard lock(mutex_);
    for (const auto& [id, connection] : connections_)
        if (connection->is_live()) threadpool_enqueue(connection->node());
}

void Server::give_turn(uint64_t id) {
    const std::lock_guard lock(mutex_);
    const auto found = connections_.find(id);
    if (found != connections_.end()) threadpool_enqueue(found->second->node());
}

void Server::end_overdue() {
    const Clock::time_point now = Clock::now();
    const std::lock_guard lock(mutex_);
    for (const auto& [id, connection] : connections_)
        if (connection->expire(now)) threadpool_enqueue(connection->node());
}

// Once: a socket that is stuck again is watched again. One that is closed is watched no more.
void Server::watch_for_room(const Connection& connection) {
    epoll_event event{EPOLLOUT | EPOLLONESHOT, {}};
    event.data.u64 = connection.id();
    const int socket = connection.node()->fd;
    if (epoll_ctl(events_.get(), EPOLL_CTL_MOD, socket, &event) != 0)
        epoll_ctl(events_.get(), EPOLL_CTL_ADD, socket, &event);
}

// --- the server ----------------------------------------------------------------------------------

Server::Server(const Board& board, const Settings& settings, const std::string& address,
               uint16_t port)
    : board_(board),
      settings_(settings),
      is_local_only_(is_loopback(address)),
      max_connections_(connections_possible()),
      events_(epoll_create1(EPOLL_CLOEXEC)) {
    if (!events_) fail("epoll_create1");
    start_pool();
    listening_ = std::make_unique<Listening>(address, port, on_accepted, this);
}

Server::~Server() {
    listening_.reset();
    stopping_ = true;
    wake_reader();
    pool_.reset();
    for (const auto& [id, connection] : connections_) threadpool_node_destroy(connection->node());
}

int Server::serve(const Descriptor& signals) {
    epoll_event watched{EPOLLIN, {}};
    watched.data.u64 = kSignals;
    if (epoll_ctl(events_.get(), EPOLL_CTL_ADD, signals.get(), &watched) != 0) fail("epoll_ctl");

    for (auto tick = Clock::now();;) {
        epoll_event happened[32];
        const int count = epoll_wait(events_.get(), happened, std::size(happened), kTickMs);
        for (int i = 0; i < count; ++i) {
            if (happened[i].data.u64 != kSignals) {
                give_turn(happened[i].data.u64);
                continue;
            }
            signalfd_siginfo signal{};
            if (read(signals.get(), &signal, sizeof signal) == sizeof signal)
                return static_cast<int>(signal.ssi_signo);
        }
        if (Clock::now() - tick >= std::chrono::milliseconds(kTickMs)) {
            tick = Clock::now();
            end_overdue();
        }
    }
}

}  // namespace dashboard
