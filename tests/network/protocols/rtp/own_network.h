// A network in which every port is free.
#pragma once

#include <gtest/gtest.h>

#include <cstring>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zt_test {

// Moves this process into a network of its own, with a loopback interface, the first time that it
// is called. False where that is not allowed.
inline bool in_own_network() {
    static const bool entered = [] {
        if (unshare(CLONE_NEWNET) != 0) return false;
        const int any = socket(AF_INET, SOCK_DGRAM, 0);
        ifreq loopback_up{};
        strcpy(loopback_up.ifr_name, "lo");
        loopback_up.ifr_flags = IFF_UP;
        const bool up = ioctl(any, SIOCSIFFLAGS, &loopback_up) == 0;
        close(any);
        return up;
    }();
    return entered;
}

}  // namespace zt_test

#define SKIP_WITHOUT_OWN_NETWORK() \
    if (!zt_test::in_own_network()) GTEST_SKIP() << "may not make a network of its own here"
