// What goes through the FIFOs: requests one way, answers the other, each far smaller than PIPE_BUF,
// so that a write is never torn apart. Both processes are of one build on one host: the bytes are
// the records' own.
#pragma once

#include <ztlib/ipc/pipe/named_pipe.h>

#include <climits>
#include <cstdint>
#include <cstring>

#include <sys/types.h>

namespace pipe_rpc {

// "What is the square of this number?"
struct Request {
    uint64_t id;
    uint64_t number;
};

struct Answer {
    uint64_t id;
    uint64_t square;
};

static_assert(sizeof(Request) <= PIPE_BUF && sizeof(Answer) <= PIPE_BUF);

// Messages as they arrive: a read may end inside of one.
template <class Message>
class Incoming {
  public:
    explicit Incoming(named_pipe* pipe) : pipe_(pipe) {}

    // Reads once and calls take(message) for each whole one. False when the partner has gone, or
    // the read failed.
    template <class Take>
    bool read_once(Take take) {
        const ssize_t count = named_pipe_read(pipe_, bytes_ + held_, sizeof bytes_ - held_);
        if (count <= 0) return false;
        held_ += static_cast<size_t>(count);

        size_t at = 0;
        for (; held_ - at >= sizeof(Message); at += sizeof(Message)) {
            Message message;
            memcpy(&message, bytes_ + at, sizeof message);
            take(message);
        }
        memmove(bytes_, bytes_ + at, held_ - at);
        held_ -= at;
        return true;
    }

  private:
    named_pipe* pipe_;
    size_t held_ = 0;
    char bytes_[16 * 1024];
};

}  // namespace pipe_rpc
