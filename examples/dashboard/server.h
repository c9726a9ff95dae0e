// The dashboard's web server: a listener, a thread pool of one worker, and the connections.
//
//   listener's thread --accepted--> pool: read thread     Connection::take()
//                                         process thread  Connection::turn(), removal
//   main thread        signals, deadlines, sockets that have room again
//   whoever has news   announce()
//
// Who owns what: a Connection is the server's from its accept until the pool removes its node; the
// socket is the node's. A node is freed by the pool, or at the end by the server, for the pool
// gives back what it has when it is destroyed.
//
// Locks, in this order: Server's, a node's, the board's. A connection's own is held for a moment.
#pragma once

#include "board.h"
#include "connection.h"
#include "feed.h"

#include "inventory/network.h"

#include <ztlib/network/socket_listener.h>
#include <ztlib/pools/threadpool/threadpool.h>

#include <atomic>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace dashboard {

// Keeps a listener open until the end of the scope. One whose accept() has failed is deaf: it is
// replaced, at the same address, which stays taken meanwhile.
class Listening {
  public:
    // Throws std::runtime_error.
    Listening(const std::string& address, uint16_t port, socket_listener_accept_cb accepted,
              void* user_data);
    ~Listening();

    // "127.0.0.1:7421".
    const std::string& address() const { return text_; }

  private:
    socket_listener* open() const;
    void replace_when_deaf();

    inventory::Descriptor reservation_;  // bound, never listens: it keeps the port
    std::string host_;
    uint16_t port_ = 0;
    std::string text_;
    socket_listener_accept_cb accepted_;
    void* user_data_;

    std::mutex mutex_;  // guards these two
    bool stopping_ = false;
    socket_listener* listener_ = nullptr;
    std::condition_variable stop_;
    std::thread keeper_;
};

struct ReleasePool {
    void operator()(threadpool* pool) const;
};
struct ReleaseNode {
    void operator()(threadpool_node* node) const { threadpool_node_destroy(node); }
};

class Server {
  public:
    // Listens on an IPv4 address; port 0 lets the system choose. Throws std::runtime_error.
    Server(const Board& board, const Settings& settings, const std::string& address, uint16_t port);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // What a browser is to open.
    std::string url() const { return "http://" + listening_->address() + "/"; }

    // Serves until `signals` are readable; returns the signal.
    int serve(const inventory::Descriptor& signals);

    // Lets every live connection look at the board. Any thread; blocks for no browser.
    void announce();

    // For connections.
    const Board& board() const { return board_; }
    const Settings& settings() const { return settings_; }
    bool is_local_only() const { return is_local_only_; }
    void wake_reader();
    void watch_for_room(const Connection& connection);
    void forget(const Connection& connection);

  private:
    static int32_t on_woken(void* server, void*, int32_t);
    static void on_accepted(void* server, int socket, sockaddr* peer, unsigned length);

    void start_pool();
    void admit(int socket);
    void give_turn(uint64_t id);
    void end_overdue();

    const Board& board_;
    const Settings settings_;
    const bool is_local_only_;
    const size_t max_connections_;
    inventory::Descriptor events_;  // epoll: the signals, and sockets that take no more
    std::unique_ptr<threadpool_node, ReleaseNode> waker_;  // an eventfd; ends a select() early

    std::atomic<bool> stopping_ = false;

    std::mutex mutex_;  // guards these two
    std::map<uint64_t, std::unique_ptr<Connection>> connections_;
    uint64_t last_id_ = 0;

    std::unique_ptr<threadpool, ReleasePool> pool_;
    std::unique_ptr<Listening> listening_;
};

}  // namespace dashboard
