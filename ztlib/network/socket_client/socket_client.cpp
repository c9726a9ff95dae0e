// Three threads take turns by one mutex and one condition.
//
//     data threads                                  connect thread
//     ------------                                  --------------
//     use the connection until it fails             sleeps until both are parked
//     park: take the connection down, wait    -->   connects, retrying with the mutex held
//     leave the park with its descriptor      <--   counts the connection, broadcasts
//
// A data thread may be slow to leave its park, and the connection it should have left with may be
// lost by then. It sees that from the count of connections, and parks for that loss as well;
// without that the connect thread would wait for it for ever.
//
// A data thread keeps the descriptor it left the park with. The first to park shuts the socket
// down, which fails the other's call; the number is given back when the second has parked, so
// nobody ever reads from or writes to a number that belongs to somebody else.
//
// Sending takes pieces off the front of the send buffer. Removing each would move all that follows,
// so what is sent is only counted, and removed when it is half of the buffer or all of it.
//
// Lock order: the client's mutex before a buffer's. The send thread holds them one at a time.

#include <ztlib/network/socket_client/socket_client.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/descriptor.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char* kModule = "./network/socket_client/socket_client";

constexpr size_t kPieceBytes = 1524;           // of one recv() or send()
constexpr unsigned kRemovalBytes = 64 * 1024;  // fewer sent bytes are not worth moving the rest
constexpr unsigned kRetrySeconds = 5;
constexpr uint8_t kDataThreads = 2;

// No connection: what a data thread holds that left its park because the client ends.
constexpr int kNone = -1;

// Bits of `threads`.
constexpr uint8_t kConnectThread = 1;
constexpr uint8_t kReceiveThread = 2;
constexpr uint8_t kSendThread = 4;

bool is_running(const socket_client& c) { return zt::load(c.running_flag); }

void wait_for_change(socket_client& c) { pthread_cond_wait(&c.condition, &c.mutex); }
void announce_change(socket_client& c) { pthread_cond_broadcast(&c.condition); }

// --- parking: the caller holds the mutex ---

void take_down(socket_client& c) {
    c.connected_flag = 0;
    if (c.socket_descriptor == 0) return;
    shutdown(c.socket_descriptor, SHUT_RDWR);
    c.lost_descriptor = c.socket_descriptor;
    c.socket_descriptor = 0;
}

void close_lost(socket_client& c) {
    if (c.lost_descriptor == 0) return;
    close(c.lost_descriptor);
    c.lost_descriptor = 0;
}

bool all_parked(const socket_client& c) { return c.parked_count >= kDataThreads; }

void count_as_parked(socket_client& c) {
    take_down(c);
    ++c.parked_count;
    net_buffer_post(&c.send_buffer);  // a send thread asleep parks as well
    if (!all_parked(c)) return;
    close_lost(c);
    c.on_disconnect(&c);
    announce_change(c);
}

// Counts the calling data thread for the loss of the connection and waits for the next one. Returns
// its descriptor, or kNone when the client ends without one.
int park(socket_client& c) {
    zt::Lock lock(c.mutex, {kModule, "_socket_client_wait_connection"});
    for (;;) {
        count_as_parked(c);
        const uint32_t lost = c.connections;
        while (is_running(c) && !c.connected_flag && c.connections == lost) wait_for_change(c);
        if (c.connected_flag) return c.socket_descriptor;
        if (c.connections == lost) return kNone;
        // A connection came and went before this thread looked: it is counted for that loss too.
    }
}

// A data thread ends. One that still holds a connection gives it up like any other loss.
void leave(socket_client& c, int fd) {
    if (fd != kNone) park(c);
}

// --- the connect thread ---

// A TCP socket whose number is not 0, which means "none"; -1 with errno set.
int make_socket() { return zt::above_zero(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP), F_DUPFD); }

// Connects and stores the outcome; false with the socket still open.
bool connect_once(socket_client& c, int fd) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(c.port);
    address.sin_addr.s_addr = inet_addr(c.host);
    errno = 0;
    const int result = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    c.last_error = errno;
    return result == 0;
}

// Both data threads are parked, so the buffers are nobody else's but the host's.
void begin_connection(socket_client& c, int fd) {
    c.socket_descriptor = fd;
    c.connected_flag = 1;
    c.parked_count = 0;
    ++c.connections;
    net_buffer_reset(&c.receive_buffer);
    net_buffer_reset(&c.send_buffer);
    c.on_connect(&c);
}

void pause_before_retry() {
    unsigned left = kRetrySeconds;
    while (left > 0) left = sleep(left);
}

// Tries until it succeeds, with the mutex held, or until there is no socket to be had, which ends
// the client.
void make_connection(socket_client& c) {
    for (;;) {
        const int fd = make_socket();
        if (fd < 0) {
            fprintf(stderr, "%s: socket(): %s\n", "_socket_client_connect_routine",
                    strerror(errno));
            zt::store<uint8_t>(c.running_flag, 0);
            return;
        }
        if (connect_once(c, fd)) {
            begin_connection(c, fd);
            return;
        }
        pause_before_retry();
        close(fd);
    }
}

void connect_until_closed(socket_client& c) {
    while (is_running(c)) {
        zt::Lock lock(c.mutex, {kModule, "_socket_client_connect_routine"});
        while (is_running(c) && (c.connected_flag || !all_parked(c))) wait_for_change(c);
        if (is_running(c)) make_connection(c);
        announce_change(c);
    }
}

// --- the receive thread ---

// A call that a signal interrupted is made again.
ssize_t receive_piece(int fd, void* piece) {
    for (;;) {
        const ssize_t count = recv(fd, piece, kPieceBytes, 0);
        if (count >= 0 || errno != EINTR) return count;
    }
}

// False when the connection is lost, or to be dropped.
bool receive_once(socket_client& c, int fd) {
    char piece[kPieceBytes];
    const auto count = static_cast<int>(receive_piece(fd, piece));
    if (count <= 0) return false;

    const int wanted = c.on_receive(&c, piece, count);
    if (wanted <= 0) return wanted == 0;
    // Bytes that cannot be stored would leave a gap: the connection goes instead.
    if (net_buffer_add(&c.receive_buffer, piece, static_cast<unsigned>(count)) != 0) return false;
    return c.on_process(&c) >= 0;
}

// --- the send thread ---

// The front of the send buffer that is sent and not removed yet.
class SentBytes {
  public:
    explicit SentBytes(net_buffer& buffer) : buffer_(buffer) {}
    ~SentBytes() { remove(); }
    SentBytes(const SentBytes&) = delete;
    SentBytes& operator=(const SentBytes&) = delete;

    void add(size_t count) { count_ += static_cast<unsigned>(count); }

    void remove() {
        zt::Lock lock(buffer_.mutex, kHere);
        remove_locked();
    }

    // Copies what comes next; 0 when there is nothing.
    size_t next_piece(char* piece) {
        zt::Lock lock(buffer_.mutex, kHere);
        count_ = std::min(count_, buffer_.length);  // whoever else reset it
        if (count_ == buffer_.length || (count_ >= kRemovalBytes && count_ >= buffer_.length / 2))
            remove_locked();
        const size_t size = std::min<size_t>(buffer_.length - count_, kPieceBytes);
        memcpy(piece, buffer_.data + count_, size);
        return size;
    }

  private:
    static constexpr zt::Site kHere{kModule, "_socket_client_tx_routine"};

    void remove_locked() {
        _net_buffer_remove(&buffer_, count_);
        count_ = 0;
    }

    net_buffer& buffer_;
    unsigned count_ = 0;
};

ssize_t send_piece(int fd, const char* piece, size_t size) {
    for (;;) {
        const ssize_t count = send(fd, piece, size, MSG_NOSIGNAL);
        if (count >= 0 || errno != EINTR) return count;
    }
}

// Sends until the buffer is empty or the client ends. Returns the connection that it ended with.
int send_all(socket_client& c, int fd) {
    SentBytes sent(c.send_buffer);
    char piece[kPieceBytes];
    while (is_running(c)) {
        const size_t size = sent.next_piece(piece);
        if (size == 0) break;
        const ssize_t count = send_piece(fd, piece, size);
        if (count > 0) {
            sent.add(static_cast<size_t>(count));
        } else {
            sent.remove();
            fd = park(c);
        }
    }
    return fd;
}

bool is_connected(socket_client& c) {
    zt::Lock lock(c.mutex, {kModule, "_socket_client_tx_routine"});
    return c.connected_flag;
}

// --- opening and closing ---

bool init_buffers(socket_client& c) {
    if (net_buffer_init(&c.receive_buffer, 0) != 0) return false;
    if (net_buffer_init(&c.send_buffer, 1) == 0) return true;
    net_buffer_free(&c.receive_buffer, 0);
    return false;
}

void destroy_locks(socket_client& c, zt::Site here) {
    pthread_cond_destroy(&c.condition);
    zt::destroy_mutex(c.mutex, here);
}

void start(socket_client& c, uint8_t bit, pthread_t& thread, void* (*routine)(void*)) {
    if (pthread_create(&thread, nullptr, routine, &c) == 0) c.threads |= bit;
}

void join(socket_client& c, uint8_t bit, pthread_t thread) {
    if (c.threads & bit) pthread_join(thread, nullptr);
}

// Of all that want the connect thread's end one joins it; the others wait for that one.
int join_connect_thread(socket_client& c, zt::Site here) {
    if (!(c.threads & kConnectThread)) return ESRCH;

    int result = 0;
    const bool joins = zt::exchange<uint8_t>(c.join_claimed, 1) == 0;
    if (joins) result = pthread_join(c.connect_thread, nullptr);

    zt::Lock lock(c.mutex, here);
    if (joins) {
        c.joined = 1;
        announce_change(c);
    }
    while (!c.joined) wait_for_change(c);
    return result;
}

// The flag goes without the mutex; taking it afterwards makes sure that nobody is between a look at
// the flag and the wait.
void request_end(socket_client& c, zt::Site here) {
    zt::store<uint8_t>(c.running_flag, 0);
    zt::Lock lock(c.mutex, here);
    announce_change(c);
}

void fail_data_threads(socket_client& c, zt::Site here) {
    net_buffer_mark_free(&c.send_buffer);
    zt::Lock lock(c.mutex, here);
    if (c.socket_descriptor != 0) shutdown(c.socket_descriptor, SHUT_RDWR);
}

// A waiting thread registers before it touches anything else.
void enter_wait(socket_client& c) { std::atomic_ref<int32_t>(c.waiters).fetch_add(1); }

void leave_wait(socket_client& c, zt::Site here) {
    zt::Lock lock(c.mutex, here);
    std::atomic_ref<int32_t>(c.waiters).fetch_sub(1);
    announce_change(c);
}

void await_waiters(socket_client& c, zt::Site here) {
    zt::Lock lock(c.mutex, here);
    while (zt::load(c.waiters) > 0) wait_for_change(c);
}

}  // namespace

extern "C" socket_client* socket_client_open(const char* host, int port, void* user_data,
                                             socket_client_state_cb on_connect,
                                             socket_client_state_cb on_disconnect,
                                             socket_client_receive_cb on_receive,
                                             socket_client_process_cb on_process) {
    const zt::Site here{kModule, __func__};
    if (!host || !on_connect || !on_disconnect || !on_receive || !on_process) return nullptr;

    zt::Owned<socket_client> c(zt::allocate_zeroed<socket_client>());
    zt::Owned<char> host_copy(zt::duplicate(host, strlen(host)));
    if (!c || !host_copy) return nullptr;

    c->running_flag = 1;
    c->host = host_copy.get();
    c->port = static_cast<uint16_t>(port);
    c->user_data = user_data;
    c->on_connect = on_connect;
    c->on_disconnect = on_disconnect;
    c->on_receive = on_receive;
    c->on_process = on_process;

    pthread_cond_init(&c->condition, nullptr);
    zt::init_mutex(c->mutex, here);
    if (!init_buffers(*c)) {
        destroy_locks(*c, here);
        return nullptr;
    }

    start(*c, kConnectThread, c->connect_thread, _socket_client_connect_routine);
    start(*c, kReceiveThread, c->receive_thread, _socket_client_rx_routine);
    start(*c, kSendThread, c->send_thread, _socket_client_tx_routine);
    host_copy.release();
    return c.release();
}

extern "C" int socket_client_send(socket_client* c, const void* data, unsigned n) {
    return net_buffer_add(c ? &c->send_buffer : nullptr, data, n);
}

extern "C" int socket_client_wait(socket_client* c) {
    const zt::Site here{kModule, __func__};
    if (!c) return 0;
    if (pthread_equal(pthread_self(), c->connect_thread)) return EDEADLK;

    enter_wait(*c);
    const int result = join_connect_thread(*c, here);
    leave_wait(*c, here);
    return result;
}

extern "C" void socket_client_close(socket_client* c) {
    const zt::Site here{kModule, __func__};
    if (!c) return;

    request_end(*c, here);
    join_connect_thread(*c, here);
    fail_data_threads(*c, here);
    join(*c, kReceiveThread, c->receive_thread);
    join(*c, kSendThread, c->send_thread);
    await_waiters(*c, here);

    net_buffer_free(&c->receive_buffer, 0);
    net_buffer_free(&c->send_buffer, 0);
    destroy_locks(*c, here);
    free(c->host);
    free(c);
}

extern "C" void _socket_client_wait_connection(socket_client* c) {
    if (c) park(*c);
}

extern "C" void* _socket_client_connect_routine(void* client) {
    if (client) connect_until_closed(*static_cast<socket_client*>(client));
    return nullptr;
}

extern "C" void* _socket_client_rx_routine(void* client) {
    if (!client) return nullptr;
    socket_client& c = *static_cast<socket_client*>(client);

    int fd = park(c);
    while (is_running(c))
        if (!receive_once(c, fd)) fd = park(c);
    leave(c, fd);
    return nullptr;
}

extern "C" void* _socket_client_tx_routine(void* client) {
    if (!client) return nullptr;
    socket_client& c = *static_cast<socket_client*>(client);

    int fd = park(c);
    while (is_running(c)) {
        if (net_buffer_wait(&c.send_buffer) != 0) continue;
        fd = is_connected(c) ? send_all(c, fd) : park(c);
    }
    leave(c, fd);
    return nullptr;
}
