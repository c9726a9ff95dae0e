// A FIFO pair of one user's own.
#pragma once

#include <ztlib/ipc/pipe/named_pipe.h>

#include <memory>
#include <string>

namespace pipe_rpc {

struct ClosePipe {
    void operator()(named_pipe* pipe) const { named_pipe_close(pipe, 1); }
};
using Pipe = std::unique_ptr<named_pipe, ClosePipe>;

// Makes <path>_rx and <path>_tx where they are missing, for this user alone, which the library's
// own making would not; then opens the pair and waits for the other side. `side` is NAMED_PIPE_TX
// or NAMED_PIPE_RX. Throws std::runtime_error, also where something else has one of the names, or a
// FIFO that others have access to.
Pipe open_pipe(const std::string& path, int side);

// A client's turn: the pair is a channel for two, so clients wait for each other, by a lock on
// <path>_lock, this user's alone. Made before the pipe is opened, and gone after it is closed.
class Turn {
  public:
    explicit Turn(const std::string& path);  // throws std::runtime_error
    ~Turn();
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;

  private:
    int lock_;
};

// Tells the other side that nothing more is to come.
void stop_writing(named_pipe& pipe);

}  // namespace pipe_rpc
