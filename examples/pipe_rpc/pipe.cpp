#include "pipe.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace pipe_rpc {

namespace {

constexpr mode_t kOwnersAlone = 0600;

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what + ": " + strerror(errno));
}

void make_fifo(const std::string& name) {
    if (mkfifo(name.c_str(), kOwnersAlone) != 0 && errno != EEXIST) fail(name);
    struct stat status;
    if (lstat(name.c_str(), &status) != 0) fail(name);
    if (!S_ISFIFO(status.st_mode)) throw std::runtime_error(name + " is there and is no FIFO");
    if (status.st_uid != geteuid() || (status.st_mode & 0777) != kOwnersAlone)
        throw std::runtime_error(name + " is there and is not this user's alone");
}

}  // namespace

Pipe open_pipe(const std::string& path, int side) {
    signal(SIGPIPE, SIG_IGN);  // a partner that has gone is an error of the write
    for (const char* end : {"_rx", "_tx"}) make_fifo(path + end);
    Pipe pipe(named_pipe_open(path.c_str(), NAMED_PIPE_PAIR | side));
    if (!pipe) fail(path);
    return pipe;
}

Turn::Turn(const std::string& path) {
    const std::string name = path + "_lock";
    lock_ = open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kOwnersAlone);
    if (lock_ < 0 || flock(lock_, LOCK_EX) != 0) fail(name);
}

Turn::~Turn() { close(lock_); }

void stop_writing(named_pipe& pipe) { close(std::exchange(pipe.write_fd, 0)); }

}  // namespace pipe_rpc
