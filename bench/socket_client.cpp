// 256 MiB through the socket client each way, against a plain loop that sends or receives pieces of
// the same 1,524 bytes. The other end is the same thread in both cases.

#include <ztlib/network/socket_client/socket_client.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr size_t kTotalBytes = size_t{256} << 20;
constexpr size_t kCheckedBytes = size_t{4} << 20;
constexpr size_t kPieceBytes = 1524;
constexpr size_t kBlockBytes = 64 * 1024;     // what a host queues at once
constexpr size_t kQueuedBytes = 1024 * 1024;  // ... and how much at most
constexpr unsigned kPatternBytes = 251;       // no divisor of any size above

[[noreturn]] void give_up(const char* what) {
    perror(what);
    exit(1);
}

// Byte i of a stream is i % kPatternBytes: two blocks of that in a row hold every piece.
struct Pattern {
    std::vector<char> bytes;
    Pattern() : bytes(kBlockBytes + kPatternBytes) {
        for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i % kPatternBytes);
    }
    const char* at(size_t offset) const { return bytes.data() + offset % kPatternBytes; }
};
const Pattern pattern;

class Listening {
  public:
    Listening() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(fd_, generic, size) != 0 || listen(fd_, 1) != 0) give_up("listen");
        getsockname(fd_, generic, &size);
        address_ = address;
    }
    ~Listening() { close(fd_); }
    int port() const { return ntohs(address_.sin_port); }
    int accept() const { return ::accept(fd_, nullptr, nullptr); }
    int connect() const {
        const int fd = socket(AF_INET, SOCK_STREAM, 0);
        if (::connect(fd, reinterpret_cast<const sockaddr*>(&address_), sizeof address_) != 0)
            give_up("connect");
        return fd;
    }

  private:
    int fd_;
    sockaddr_in address_{};
};

void send_plainly(int fd, size_t total) {
    for (size_t sent = 0; sent < total;) {
        const size_t size = std::min(kPieceBytes, total - sent);
        const ssize_t now = send(fd, pattern.at(sent), size, MSG_NOSIGNAL);
        if (now <= 0) give_up("send");
        sent += static_cast<size_t>(now);
    }
}

void receive_plainly(int fd, size_t total, bool checked) {
    char piece[kPieceBytes];
    for (size_t received = 0; received < total;) {
        const ssize_t now = recv(fd, piece, std::min(kPieceBytes, total - received), 0);
        if (now <= 0) give_up("recv");
        if (checked && memcmp(piece, pattern.at(received), static_cast<size_t>(now)) != 0)
            give_up("wrong bytes");
        received += static_cast<size_t>(now);
    }
}

// Where a host takes what it receives: as it comes, or out of the client's buffer once it was
// appended.
enum class Takes { pieces, buffer };

class Client {
  public:
    explicit Client(Takes takes = Takes::pieces)
        : client_(socket_client_open(
              "127.0.0.1", listening_.port(), this, [](socket_client*) {}, [](socket_client*) {},
              takes == Takes::pieces ? take_piece
                                     : [](socket_client*, const void*, int) { return 1; },
              take_buffer)),
          peer_(listening_.accept()) {
        if (!client_ || peer_ < 0) give_up("socket_client");
        poll(nullptr, 0, 50);  // the connection has begun: nothing queued from here on is dropped
    }
    ~Client() {
        socket_client_close(client_);
        close(peer_);
    }

    int peer() const { return peer_; }

    void send(size_t total) {
        for (size_t sent = 0; sent < total; sent += kBlockBytes) {
            while (queued() > kQueuedBytes) poll(nullptr, 0, 1);
            if (socket_client_send(client_, pattern.at(sent), kBlockBytes) != 0) give_up("queue");
        }
    }
    void receive(size_t total, bool checked) {
        wanted_ = received_ + total;
        checked_ = checked;
        std::thread source([&] { send_plainly(peer_, total); });
        while (received_ < wanted_) received_.wait(received_);
        source.join();
    }

  private:
    void take(const void* bytes, size_t size) {
        const size_t received = received_.load(std::memory_order_relaxed);
        if (checked_ && memcmp(bytes, pattern.at(received), size) != 0) give_up("wrong bytes");
        received_.store(received + size, std::memory_order_release);
        if (received + size >= wanted_) received_.notify_one();
    }
    static int take_piece(socket_client* c, const void* bytes, int count) {
        static_cast<Client*>(c->user_data)->take(bytes, static_cast<size_t>(count));
        return 0;
    }
    static int take_buffer(socket_client* c) {
        net_buffer& buffer = c->receive_buffer;
        pthread_mutex_lock(&buffer.mutex);
        static_cast<Client*>(c->user_data)->take(buffer.data, buffer.length);
        _net_buffer_remove(&buffer, buffer.length);
        pthread_mutex_unlock(&buffer.mutex);
        return 0;
    }
    size_t queued() {
        pthread_mutex_lock(&client_->send_buffer.mutex);
        const size_t length = client_->send_buffer.length;
        pthread_mutex_unlock(&client_->send_buffer.mutex);
        return length;
    }

    Listening listening_;
    std::atomic<size_t> received_{0};
    std::atomic<size_t> wanted_{SIZE_MAX};
    std::atomic<bool> checked_{false};
    socket_client* client_;
    int peer_;
};

void send_ztlib(benchmark::State& state) {
    Client client;
    const auto transfer = [&](size_t total, bool checked) {
        std::thread sink([&] { receive_plainly(client.peer(), total, checked); });
        client.send(total);
        sink.join();
    };
    transfer(kCheckedBytes, true);
    for (auto _ : state) transfer(kTotalBytes, false);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotalBytes));
}

void receive_ztlib(benchmark::State& state, Takes takes) {
    Client client(takes);
    client.receive(kCheckedBytes - kCheckedBytes % kPatternBytes, true);
    for (auto _ : state) client.receive(kTotalBytes, false);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotalBytes));
}

void plain_loop(benchmark::State& state) {
    const Listening listening;
    const int from = listening.connect();
    const int to = listening.accept();
    const auto transfer = [&](size_t total, bool checked) {
        std::thread sink([&] { receive_plainly(to, total, checked); });
        send_plainly(from, total);
        sink.join();
    };
    transfer(kCheckedBytes, true);
    for (auto _ : state) transfer(kTotalBytes, false);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kTotalBytes));
    close(from);
    close(to);
}

BENCHMARK(send_ztlib)->Name("send_256MiB/ztlib")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(plain_loop)->Name("send_256MiB/plain_loop")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(receive_ztlib, pieces, Takes::pieces)
    ->Name("receive_256MiB/ztlib")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(plain_loop)
    ->Name("receive_256MiB/plain_loop")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(receive_ztlib, buffer, Takes::buffer)
    ->Name("receive_256MiB/shown:ztlib_buffered")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
