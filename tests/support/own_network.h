// A network of a test's own, to be changed at will: network and mount namespaces, and a user
// namespace too where the test does not run as root.
//
//     TEST(RealHost, HasTheLoopback) {
//         in_own_network([] { EXPECT_THAT(sh("ip link list").out, HasSubstr("1: lo:")); });
//     }
#pragma once

#include <tests/support/process.h>
#include <tests/support/program.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

namespace zt_test {

constexpr int kCannot = 77;

// Ends the child that a test's work runs in: the test is skipped for this reason.
[[noreturn]] inline void cannot(const std::string& reason) {
    fprintf(stderr, "%s", reason.c_str());
    _exit(kCannot);
}

[[noreturn]] inline void cannot_call(const char* call) {
    cannot(std::string("no network of the test's own: ") + call + ": " + strerror(errno));
}

inline void write_file(const char* path, const std::string& text) { std::ofstream(path) << text; }

// Makes the user root of a namespace in which it is the only user.
inline bool become_root() {
    const std::string user = std::to_string(geteuid()), group = std::to_string(getegid());
    if (unshare(CLONE_NEWUSER) != 0) return false;
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", "0 " + user + " 1");
    write_file("/proc/self/gid_map", "0 " + group + " 1");
    return true;
}

inline void enter_own_network() {
    constexpr int kSpaces = CLONE_NEWNET | CLONE_NEWNS;
    if (unshare(kSpaces) != 0) {
        if (!become_root()) cannot_call("unshare(CLONE_NEWUSER)");
        if (unshare(kSpaces) != 0) cannot_call("unshare");
    }
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) cannot_call("mount");
}

// Runs a test's work, all of it, in a child with a network of its own, in which there is only the
// loopback.
inline void in_own_network(const std::function<void()>& work) {
    if (!is_installed("ip")) GTEST_SKIP() << "the ip tool is not installed";
    const ChildResult child = run_in_child([&] {
        enter_own_network();
        work();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    });
    if (child.status == kCannot) GTEST_SKIP() << child.err;
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0) << child.out << child.err;
}

// Runs commands to their end.
inline Result sh(const std::string& commands) { return run({"sh", "-c", commands}); }

inline void set_up(const std::string& commands) {
    const Result result = sh("set -e\n" + commands);
    ASSERT_EQ(result.status, 0) << commands << result.err;
}

}  // namespace zt_test
