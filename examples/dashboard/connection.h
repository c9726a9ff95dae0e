// One connection of a browser: a node of the thread pool, from its request to its end.
//
//   asking --the page, or an error--> ending     the answer is sent, then the rest of what comes is
//      \                                ^        ignored until the browser closes
//       \--a WebSocket--> live --close--/        hosts and their reports go out
//
// The pool's read thread calls take(), its process thread turn(); the server's main thread looks at
// the deadline. What only turn() uses needs no lock.
//
// Nothing blocks and nothing grows: input is bounded by kMaxUnread and kMaxRequest, output by what
// a Feed writes ahead, and a state that lasts too long ends the connection.
#pragma once

#include "feed.h"
#include "http.h"
#include "output.h"

#include <ztlib/pools/threadpool/threadpool.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>

namespace dashboard {

class Server;

class Connection {
  public:
    // Makes the node for an accepted socket, which is the node's from then on. Throws
    // std::bad_alloc; the socket is then still the caller's.
    Connection(Server& server, uint64_t id, int socket);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    uint64_t id() const { return id_; }
    threadpool_node* node() const { return node_; }

    // True while the browser wants to be told what is new.
    bool is_live() const { return is_live_; }

    // Lets the next turn end the connection if it has lasted too long in its state. True if so.
    bool expire(Clock::time_point now);

  private:
    enum class State { asking, live, ending };

    static int32_t on_data(void* connection, void* bytes, int32_t count);
    static int32_t on_turn(void* connection);
    static void on_removed(void* connection);

    void take(std::string_view bytes);
    int32_t turn();

    std::string received(bool& overflown);
    void hear_request(const std::string& bytes);
    void hear_frames(const std::string& bytes);
    void hear_frame(unsigned char* frame, size_t size);
    void respond(Http response);
    void close_socket_with(unsigned code);
    int32_t send_output(bool more);

    Server& server_;
    const uint64_t id_;
    threadpool_node* const node_;

    std::mutex mutex_;        // guards these two
    std::string unread_;      // bytes that the read thread received
    bool overflown_ = false;  // more came than kMaxUnread

    std::atomic<bool> is_live_ = false;
    std::atomic<bool> is_deaf_ = false;  // what comes is dropped
    std::atomic<bool> is_expired_ = false;
    std::atomic<Clock::time_point> deadline_;

    // The process thread's own.
    bool is_new_ = true;
    State state_ = State::asking;
    Http request_;
    size_t request_size_ = 0;
    std::string frames_;  // what came of a frame that is not complete
    Feed feed_;
    Output output_;
    bool is_stuck_ = false;  // the socket took no more
    bool is_half_closed_ = false;
};

}  // namespace dashboard
