// Writing to a peer that is gone, where the call has no flag to keep the signal away.
#pragma once

#include <cerrno>
#include <ctime>

#include <pthread.h>
#include <signal.h>

namespace zt {

// Blocks SIGPIPE on the calling thread while it lives, and takes back one that was raised
// meanwhile; one that was pending before stays so. errno is preserved.
class SigpipeBlocked {
  public:
    SigpipeBlocked() {
        sigset_t pending;
        sigpending(&pending);
        was_pending_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &previous_);
    }
    ~SigpipeBlocked() {
        const int error = errno;
        const timespec at_once{};
        if (!was_pending_)
            while (sigtimedwait(&sigpipe_, nullptr, &at_once) == -1 && errno == EINTR) {
            }
        pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
        errno = error;
    }
    SigpipeBlocked(const SigpipeBlocked&) = delete;
    SigpipeBlocked& operator=(const SigpipeBlocked&) = delete;

  private:
    sigset_t sigpipe_;
    sigset_t previous_;
    bool was_pending_;
};

}  // namespace zt
