// Both sides of a pair open <path>_tx before <path>_rx. Opening a FIFO waits for its other end, so
// the two meet on the first and then on the second, and neither waits where the other one does not
// come to.
//
// One lock, the transport lock, which is the callers' own: nothing here takes it by itself.

#include <ztlib/ipc/pipe/named_pipe.h>

#include <ztlib/base/descriptor.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>

#include <cerrno>
#include <string_view>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kModule = "./ipc/pipe/named_pipe";

constexpr mode_t kFifoMode = 0022;  // less the umask: part of the contract
constexpr size_t kNameBytes = sizeof named_pipe::path;
constexpr size_t kSuffixLength = 3;  // of "_rx" and "_tx"

enum class Side { none, tx, rx };

Side side_of(int flags) {
    if (flags & NAMED_PIPE_TX) return Side::tx;
    return flags & NAMED_PIPE_RX ? Side::rx : Side::none;
}

// Logs the failed call and gives -1, with errno as the call left it.
int failed(zt::Site here, const char* call) {
    const int error = errno;
    zt::report_call(here, call);
    errno = error;
    return -1;
}

int refused(int error) {
    errno = error;
    return -1;
}

bool exists(const char* name) {
    struct stat status;
    return stat(name, &status) == 0;
}

// A partner that makes the FIFO between the look and the making has done what was to be done.
int make_fifo_if_missing(const char* name, zt::Site here) {
    if (exists(name) || mkfifo(name, kFifoMode) == 0) return 0;
    const int error = errno;
    if (error == EEXIST && exists(name)) return 0;
    errno = error;
    return failed(here, "mkfifo()");
}

// Waits for the other end. `descriptor` is left alone when that fails.
int open_end(const char* name, int access, int32_t& descriptor, zt::Site here) {
    const int opened = zt::above_zero(open(name, access | O_CLOEXEC), F_DUPFD_CLOEXEC);
    if (opened < 0) return failed(here, "open()");
    descriptor = opened;
    return 0;
}

// `base` is short enough for it.
class FifoName {
  public:
    FifoName(std::string_view base, std::string_view suffix) {
        memcpy(text_, base.data(), base.size());
        memcpy(text_ + base.size(), suffix.data(), suffix.size());
        text_[base.size() + suffix.size()] = '\0';
    }
    operator const char*() const { return text_; }

  private:
    char text_[kNameBytes];
};

int open_pair(named_pipe& pipe, std::string_view base, Side side, zt::Site here) {
    const FifoName rx(base, "_rx"), tx(base, "_tx");
    for (const FifoName* name : {&rx, &tx})
        if (make_fifo_if_missing(*name, here) != 0) return -1;

    switch (side) {
        case Side::tx:
            if (open_end(tx, O_WRONLY, pipe.write_fd, here) != 0) return -1;
            return open_end(rx, O_RDONLY, pipe.read_fd, here);
        case Side::rx:
            if (open_end(tx, O_RDONLY, pipe.read_fd, here) != 0) return -1;
            return open_end(rx, O_WRONLY, pipe.write_fd, here);
        case Side::none:
            break;
    }
    return refused(EINVAL);
}

// The one descriptor is `read_fd` whatever it is for.
int open_single(named_pipe& pipe, Side side, zt::Site here) {
    if (make_fifo_if_missing(pipe.path, here) != 0) return -1;
    if (side == Side::none) return refused(EINVAL);
    return open_end(pipe.path, side == Side::tx ? O_RDONLY : O_WRONLY, pipe.read_fd, here);
}

void close_end(int32_t& descriptor) {
    if (descriptor != 0) close(descriptor);
    descriptor = 0;
}

}  // namespace

extern "C" named_pipe* named_pipe_open(const char* path, int flags) {
    const zt::Site here{kModule, __func__};
    if (!path) {
        errno = EINVAL;
        return nullptr;
    }

    zt::Owned<named_pipe> pipe(zt::allocate_zeroed<named_pipe>());
    if (!pipe) {
        failed(here, "calloc()");
        return nullptr;
    }
    // A path that does not fit stays without its terminator, and is refused for that.
    memcpy(pipe->path, path, strnlen(path, kNameBytes));

    if (named_pipe_init(pipe.get(), flags) != 0) {
        failed(here, "named_pipe_init()");
        const int error = errno;
        named_pipe_close(pipe.release(), 1);
        errno = error;
        return nullptr;
    }
    return pipe.release();
}

extern "C" int named_pipe_init(named_pipe* pipe, int flags) {
    const zt::Site here{kModule, __func__};
    if (!pipe) return refused(EINVAL);

    const bool pair = flags & NAMED_PIPE_PAIR;
    const size_t length = strnlen(pipe->path, kNameBytes);
    if (length + (pair ? kSuffixLength : 0) >= kNameBytes) return refused(ENAMETOOLONG);

    zt::init_mutex(pipe->mutex, here);
    const Side side = side_of(flags);
    return pair ? open_pair(*pipe, {pipe->path, length}, side, here)
                : open_single(*pipe, side, here);
}

extern "C" void named_pipe_close(named_pipe* pipe, int free_self) {
    if (!pipe) return;
    zt::destroy_mutex(pipe->mutex, {kModule, __func__});
    close_end(pipe->read_fd);
    close_end(pipe->write_fd);
    if (free_self) free(pipe);
}

extern "C" ssize_t named_pipe_read(named_pipe* pipe, void* buffer, size_t length) {
    return pipe ? read(pipe->read_fd, buffer, length) : refused(EINVAL);
}

extern "C" ssize_t named_pipe_write(named_pipe* pipe, const void* buffer, size_t length) {
    return pipe ? write(pipe->write_fd, buffer, length) : refused(EINVAL);
}

extern "C" int named_pipe_lock_transport(named_pipe* pipe) {
    if (pipe) zt::lock_mutex(pipe->mutex);
    return 0;
}

extern "C" int named_pipe_unlock_transport(named_pipe* pipe) {
    if (pipe) zt::unlock_mutex(pipe->mutex, {kModule, __func__});
    return 0;
}
