#include "stop_signals.h"

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include <signal.h>
#include <sys/signalfd.h>

namespace inventory {

Descriptor stop_signals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    Descriptor descriptor(signalfd(-1, &signals, SFD_CLOEXEC));
    if (!descriptor) throw std::runtime_error(std::string("signalfd(): ") + strerror(errno));
    return descriptor;
}

}  // namespace inventory
