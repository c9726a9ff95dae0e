// One thread blocks in accept(); shutdown() of the listening socket is what wakes it.
//
// Three parties hold the record: the caller's close, the caller's wait and the accept thread. Each
// lets go once, the last one frees it. Of close and wait the first one joins the thread. On the
// accept thread itself (a callback that closes its listener) it cannot; it leaves the join to the
// other call, and when that comes from the thread too, the thread finds itself the last holder and
// detaches.
//
// The descriptor's number may go to somebody else the moment it is closed, so it is closed by
// whoever comes later: the caller's close, or the thread leaving its loop.
//
// No lock. Flags and counts that two threads touch are atomic.

#include <ztlib/network/socket_listener.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/memory.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <unistd.h>

struct socket_listener {
    int32_t socket_descriptor;
    char host[128];
    uint16_t port;
    uint8_t running_flag;  // 1 until close
    pthread_t thread;
    socket_listener_accept_cb accept_callback;
    void* user_data;
    int32_t reference_count;  // close, wait, and the thread

    int32_t descriptor_users;  // close and the thread
    uint8_t joined;            // somebody joins the thread, or has
};

namespace {

constexpr int kBacklog = 100;

// What a failure is reported with.
struct Endpoint {
    const char* host;
    uint16_t port;

    void report(const char* call) const {
        fprintf(stderr, "%s: %s(%s:%u): %s\n", "socket_listener_open", call,
                host ? host : "0.0.0.0", port, strerror(errno));
    }
};

// Owns a socket until release().
class Socket {
  public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() {
        if (fd_ >= 0) close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int get() const { return fd_; }
    void release() { fd_ = -1; }

  private:
    int fd_;
};

// False, with errno set, for a text that is no address.
bool address_of(const Endpoint& endpoint, sockaddr_in& address) {
    address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    if (!endpoint.host || inet_aton(endpoint.host, &address.sin_addr) != 0) return true;
    errno = EADDRNOTAVAIL;
    return false;
}

bool bind_to(int fd, const Endpoint& endpoint) {
    sockaddr_in address;
    return address_of(endpoint, address) &&
           bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// The name of the call that failed, with errno set; null once `fd` listens.
const char* listen_on(int fd, const Endpoint& endpoint) {
    const int on = 1;
    if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0) return "setsockopt";
    if (!bind_to(fd, endpoint)) return "bind";
    if (listen(fd, kBacklog) != 0) return "listen";
    return nullptr;
}

template <class Count>
bool drop_last(Count& count) {
    return std::atomic_ref<Count>(count).fetch_sub(1, std::memory_order_acq_rel) == 1;
}

void let_go_of_descriptor(socket_listener& l) {
    if (drop_last(l.descriptor_users)) close(l.socket_descriptor);
}

// Lets go of the record; true when it is gone.
bool let_go(socket_listener& l) {
    if (!drop_last(l.reference_count)) return false;
    _socket_listener_free(&l);
    return true;
}

// A callback's thread knows the listener only after open returned, so the handle is set by then.
bool is_accept_thread(const socket_listener& l) { return pthread_equal(pthread_self(), l.thread); }

// One of the caller's two calls is made.
void leave(socket_listener& l) {
    if (!is_accept_thread(l) && zt::exchange<uint8_t>(l.joined, 1) == 0)
        pthread_join(l.thread, nullptr);
    let_go(l);
}

void block_all_signals() {
    sigset_t all;
    sigfillset(&all);
    const int code = pthread_sigmask(SIG_BLOCK, &all, nullptr);
    if (code == 0) return;
    errno = code;
    fprintf(stderr, "%s: sigprocmask: %s\n", "socket_listener_routine", strerror(errno));
}

void accept_until_closed(socket_listener& l) {
    while (zt::load(l.running_flag)) {
        sockaddr peer;
        socklen_t length = sizeof peer;
        const int fd = accept(l.socket_descriptor, &peer, &length);
        if (fd < 0) return;
        l.accept_callback(l.user_data, fd, &peer, length);
    }
}

}  // namespace

extern "C" socket_listener* socket_listener_open(const char* host, int port,
                                                 socket_listener_accept_cb accept_cb,
                                                 void* user_data) {
    if (!accept_cb) return nullptr;
    const Endpoint endpoint{host, static_cast<uint16_t>(port)};

    Socket fd(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    if (fd.get() < 0) {
        endpoint.report("socket");
        return nullptr;
    }
    if (const char* failed = listen_on(fd.get(), endpoint)) {
        endpoint.report(failed);
        return nullptr;
    }

    zt::Owned<socket_listener> l(zt::allocate_zeroed<socket_listener>());
    if (!l) {
        fd.release();  // stays open and listening: part of the contract
        return nullptr;
    }
    l->socket_descriptor = fd.get();
    if (host) snprintf(l->host, sizeof l->host, "%s", host);
    l->port = endpoint.port;
    l->accept_callback = accept_cb;
    l->user_data = user_data;
    l->running_flag = 1;
    l->descriptor_users = 2;
    l->reference_count = 2 + 1;

    const int code = pthread_create(&l->thread, nullptr, socket_listener_routine, l.get());
    if (code != 0) {
        errno = code;
        endpoint.report("pthread_create");
        return nullptr;
    }
    fd.release();
    return l.release();
}

extern "C" void socket_listener_close(socket_listener* l) {
    if (!l) return;
    if (zt::exchange<uint8_t>(l->running_flag, 0)) {
        shutdown(l->socket_descriptor, SHUT_RDWR);
        let_go_of_descriptor(*l);
    }
    leave(*l);
}

extern "C" void socket_listener_wait(socket_listener* l) {
    if (l) leave(*l);
}

extern "C" void* socket_listener_routine(void* listener) {
    if (!listener) return nullptr;
    socket_listener& l = *static_cast<socket_listener*>(listener);

    block_all_signals();
    accept_until_closed(l);

    let_go_of_descriptor(l);
    // The last holder is the thread only when both calls were made on it: nobody joins it.
    if (let_go(l)) pthread_detach(pthread_self());
    return nullptr;
}

extern "C" void _socket_listener_free(socket_listener* l) { free(l); }
