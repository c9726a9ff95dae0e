// An HTTP/1.1 server as a host of the library would write it: the socket listener accepts, the
// thread pool serves, the HTTP document parses requests and renders answers. The tests talk to it
// with real clients, and scripts/bench-http loads it.
//
//   GET /                  1 KiB of text
//   GET /bytes?count=<n>   n bytes of text
//   POST /echo             the request's body
//
// HEAD is GET without the body; everything else is 404. Persistent and pipelined connections,
// HTTP/1.0 and "Expect: 100-continue" are served; a request that cannot be understood, or is too
// large, is refused (400, 413, 431, 501) and ends its connection.
#pragma once

#include <ztlib/network/socket_listener.h>
#include <ztlib/pools/threadpool/threadpool.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <mutex>
#include <string>

namespace zt_test {

// What /bytes answers: the first `count` bytes of an endless text.
std::string http_bytes(size_t count);

class HttpServer {
  public:
    // Where requests are answered. On the process thread, a slow answer holds up its worker's other
    // answers; on the read thread, its worker's reads too, but a request costs no hand-over from
    // thread to thread. Output that the socket does not take at once is always the process
    // thread's.
    enum class Answers { on_process_thread, on_read_thread };

    // Listens on 127.0.0.1:port. The process ends when that cannot be had.
    explicit HttpServer(uint16_t port, int32_t workers = 2,
                        Answers answers = Answers::on_process_thread);
    // Ends all connections, whatever they are doing.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Connections accepted, and those of them that are closed again.
    size_t accepted() const { return accepted_; }
    size_t removed() const { return removed_; }

  private:
    class Connection;

    static void accept(void* server, int fd, sockaddr* peer, unsigned peer_length);
    void forget(Connection& connection);

    const Answers answers_;
    threadpool* pool_;
    socket_listener* listener_ = nullptr;
    std::mutex mutex_;  // guards connections_
    std::list<Connection> connections_;
    std::atomic<size_t> accepted_{0}, removed_{0};
};

}  // namespace zt_test
