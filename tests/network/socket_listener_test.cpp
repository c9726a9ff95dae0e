#include <ztlib/network/socket_listener.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>
#include <tests/support/sockets.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/wait.h>

using namespace zt_test;

namespace {

// What a listener's callback does, and what it saw.
struct Host {
    std::function<void(int fd)> on_accept = [](int fd) { close(fd); };
    std::atomic<int> accepted{0};
    sockaddr_in peer{};
    unsigned peer_length = 0;

    static void accept(void* user_data, int fd, sockaddr* peer, unsigned length) {
        Host& host = *static_cast<Host*>(user_data);
        if (length <= sizeof host.peer) memcpy(&host.peer, peer, length);
        host.peer_length = length;
        host.on_accept(fd);
        ++host.accepted;
    }
};

socket_listener* open_listener(Host& host, uint16_t port, const char* address = "127.0.0.1") {
    return socket_listener_open(address, port, Host::accept, &host);
}

void close_and_wait(socket_listener* listener) {
    socket_listener_close(listener);
    socket_listener_wait(listener);
}

std::string refused_line(const char* call, const char* host, uint16_t port, int error) {
    return std::string("socket_listener_open: ") + call + "(" + host + ":" + std::to_string(port) +
           "): " + strerror(error) + "\n";
}

}  // namespace

TEST(SocketListener, HandsEachOfTenThousandConnectionsFromSeveralProcessesOverOnce) {
    constexpr uint32_t kProcesses = 5;
    constexpr uint32_t kEach = 2000;
    std::vector<uint8_t> seen(kProcesses * kEach);
    Host host;
    host.on_accept = [&](int fd) {
        uint32_t id = UINT32_MAX;
        recv(fd, &id, sizeof id, MSG_WAITALL);
        if (id < seen.size()) ++seen[id];
        Fd(fd).reset();
    };
    const uint16_t port = free_port();
    socket_listener* listener = open_listener(host, port);
    ASSERT_NE(listener, nullptr);

    std::vector<pid_t> children;
    for (uint32_t child = 0; child < kProcesses; ++child) {
        const pid_t pid = fork();
        if (pid == 0) {
            for (uint32_t i = 0; i < kEach; ++i) {
                const uint32_t id = child * kEach + i;
                const Fd fd = connect_to(port);
                if (!fd || !send_all(fd.get(), &id, sizeof id) || !ended(fd.get())) _exit(1);
            }
            _exit(0);
        }
        children.push_back(pid);
    }
    for (const pid_t child : children) {
        int status = -1;
        waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(eventually([&] { return host.accepted == kProcesses * kEach; }));
    close_and_wait(listener);

    EXPECT_THAT(seen, testing::Each(1));
}

TEST(SocketListener, GivesTheCallbackItsUserDataAndThePeersAddress) {
    Host host;
    const uint16_t port = free_port();
    socket_listener* listener = open_listener(host, port);
    const Fd peer = connect_to(port);
    ASSERT_TRUE(eventually([&] { return host.accepted == 1; }));
    close_and_wait(listener);

    EXPECT_EQ(host.peer_length, sizeof(sockaddr_in));
    EXPECT_EQ(host.peer.sin_family, AF_INET);
    EXPECT_EQ(ntohs(host.peer.sin_port), local_port(peer.get()));
    EXPECT_EQ(ntohl(host.peer.sin_addr.s_addr), INADDR_LOOPBACK);
}

TEST(SocketListener, LeavesAcceptedSocketsToTheCallback) {
    Host host;
    int kept = -1;
    host.on_accept = [&](int fd) { kept = fd; };
    const uint16_t port = free_port();
    socket_listener* listener = open_listener(host, port);
    const Fd peer = connect_to(port);
    ASSERT_TRUE(eventually([&] { return host.accepted == 1; }));
    close_and_wait(listener);

    const Fd accepted(kept);
    EXPECT_TRUE(send_all(accepted.get(), "still open"));
    EXPECT_EQ(receive(peer.get(), 10), "still open");
}

TEST(SocketListener, ListensOnEveryAddressWithoutAHost) {
    Host host;
    const uint16_t port = free_port();
    socket_listener* listener = open_listener(host, port, nullptr);
    ASSERT_NE(listener, nullptr);
    for (const char* address : {"127.0.0.1", "127.0.0.2"}) {
        const Fd peer(socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in to = loopback(port);
        inet_aton(address, &to.sin_addr);
        EXPECT_EQ(connect(peer.get(), reinterpret_cast<sockaddr*>(&to), sizeof to), 0);
    }
    EXPECT_TRUE(eventually([&] { return host.accepted == 2; }));
    close_and_wait(listener);
}

TEST(SocketListener, TakesThePortAsSixteenBits) {
    Host host;
    const uint16_t port = free_port();
    socket_listener* listener =
        socket_listener_open("127.0.0.1", port + 3 * 65536, Host::accept, &host);
    ASSERT_NE(listener, nullptr);
    const Fd peer = connect_to(port);
    EXPECT_TRUE(peer);
    EXPECT_TRUE(eventually([&] { return host.accepted == 1; }));

    const CapturedStderr err;
    EXPECT_EQ(socket_listener_open("127.0.0.1", port + 65536, Host::accept, &host), nullptr);
    EXPECT_EQ(err.text(), refused_line("bind", "127.0.0.1", port, EADDRINUSE));
    close_and_wait(listener);
}

TEST(SocketListener, CopesWithAHostTextLongerThanItRemembers) {
    Host host;
    const std::string address = "127.0.0.1 " + std::string(200, 'x');  // blanks end the address
    socket_listener* listener = open_listener(host, free_port(), address.c_str());
    EXPECT_NE(listener, nullptr);
    close_and_wait(listener);
}

TEST(SocketListener, SaysThatAPortIsInUseAndLeavesNoDescriptor) {
    const Server other;
    Host host;
    const Leftovers leftovers;
    {
        const CapturedStderr err;
        EXPECT_EQ(open_listener(host, other.port()), nullptr);
        EXPECT_EQ(err.text(), refused_line("bind", "127.0.0.1", other.port(), EADDRINUSE));
    }
    {
        const CapturedStderr err;
        EXPECT_EQ(open_listener(host, other.port(), nullptr), nullptr);
        EXPECT_EQ(err.text(), refused_line("bind", "0.0.0.0", other.port(), EADDRINUSE));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, RefusesATextThatIsNoAddressLikeAFailedBind) {
    Host host;
    const Leftovers leftovers;
    for (const char* text : {"localhost", "", "1.2.3.4.5", "256.0.0.1"}) {
        const CapturedStderr err;
        EXPECT_EQ(open_listener(host, 4711, text), nullptr);
        EXPECT_EQ(err.text(), refused_line("bind", text, 4711, EADDRNOTAVAIL));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, NamesTheCallThatFailedAndReleasesWhatItHad) {
    Host host;
    const uint16_t port = free_port();
    const Leftovers leftovers;
    for (const char* call : {"socket", "setsockopt", "bind", "listen", "pthread_create"}) {
        const FailingCall fault(call, EAGAIN);
        const CapturedStderr err;
        EXPECT_EQ(open_listener(host, port), nullptr);
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(err.text(), refused_line(call, "127.0.0.1", port, EAGAIN));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, WithoutMemoryIsNotMadeButLeavesItsSocketListening) {
    Host host;
    const uint16_t port = free_port();
    const int64_t blocks = live_allocations();
    const int next = dup(2);  // the number that the socket gets
    close(next);
    const FailingCall fault("calloc", ENOMEM, 0, true);
    const CapturedStderr err;
    EXPECT_EQ(open_listener(host, port), nullptr);
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(live_allocations(), blocks);
    EXPECT_TRUE(connect_to(port));

    for (int fd = next; fd < next + 8; ++fd) {
        int listening = 0;
        socklen_t size = sizeof listening;
        if (getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &size) == 0 && listening &&
            local_port(fd) == port)
            close(fd);
    }
    EXPECT_FALSE(connect_to(port));
}

TEST(SocketListener, BlocksAllSignalsInItsThread) {
    Host host;
    sigset_t blocked;
    sigemptyset(&blocked);
    host.on_accept = [&](int fd) {
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        close(fd);
    };
    const uint16_t port = free_port();
    socket_listener* listener = open_listener(host, port);
    const Fd peer = connect_to(port);
    ASSERT_TRUE(eventually([&] { return host.accepted == 1; }));
    close_and_wait(listener);

    for (const int signal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGPIPE, SIGCHLD, SIGRTMIN})
        EXPECT_EQ(sigismember(&blocked, signal), 1) << signal;
}

TEST(SocketListener, GoesOnAcceptingWhenSignalsCannotBeBlocked) {
    Host host;
    const uint16_t port = free_port();
    const CapturedStderr err;
    const FailingCall fault("pthread_sigmask", EINVAL);
    socket_listener* listener = open_listener(host, port);
    const Fd peer = connect_to(port);
    EXPECT_TRUE(eventually([&] { return host.accepted == 1; }));
    close_and_wait(listener);
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(err.text(), "socket_listener_routine: sigprocmask: Invalid argument\n");
}

TEST(SocketListener, AcceptsNothingWhileItsCallbackRuns) {
    Host host;
    std::mutex gate;
    host.on_accept = [&](int fd) {
        close(fd);
        const std::lock_guard wait(gate);
    };
    const uint16_t port = free_port();
    socket_listener* listener = open_listener(host, port);

    gate.lock();
    const Fd first = connect_to(port);
    EXPECT_TRUE(ended(first.get()));  // its callback runs, and waits at the gate
    const Fd second = connect_to(port);
    timeval limit{0, 50'000};
    setsockopt(second.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char byte;
    EXPECT_EQ(recv(second.get(), &byte, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(host.accepted, 0);
    gate.unlock();

    EXPECT_TRUE(eventually([&] { return host.accepted == 2; }));
    close_and_wait(listener);
}

TEST(SocketListener, FailedAcceptEndsTheThreadSilentlyAndKeepsTheRecord) {
    for (const int error : {EINTR, ECONNABORTED, EMFILE}) {
        const Leftovers leftovers;
        Host host;
        const CapturedStderr err;
        const FailingCall fault("accept", error);
        socket_listener* listener = open_listener(host, free_port());
        socket_listener_wait(listener);  // returns: the thread is over
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(err.text(), "");
        socket_listener_close(listener);
        EXPECT_EQ(err.text(), "");
    }
}

TEST(SocketListener, CloseWhileAcceptIsPendingEndsTheThreadAndTheRecordGoesWithTheWait) {
    const Leftovers leftovers;
    Host host;
    const int threads = thread_count();
    const uint64_t accepts = calls_of("accept");
    socket_listener* listener = open_listener(host, free_port());
    EXPECT_TRUE(eventually([&] { return calls_of("accept") > accepts; }));

    socket_listener_close(listener);
    EXPECT_EQ(thread_count(), threads);
    socket_listener_wait(listener);
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, WaitOnAnotherThreadReturnsOnceTheListenerIsClosed) {
    const Leftovers leftovers;
    {
        Host host;
        socket_listener* listener = open_listener(host, free_port());
        std::atomic<bool> over{false};
        std::thread waiter([&] {
            socket_listener_wait(listener);
            over = true;
        });
        EXPECT_FALSE(over);
        socket_listener_close(listener);
        waiter.join();
        EXPECT_TRUE(over);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, ClosesAndWaitsInWhateverOrderFromTwoThreads) {
    const Leftovers leftovers;
    for (int round = 0; round < 200; ++round) {
        Host host;
        socket_listener* listener = open_listener(host, 0);
        ASSERT_NE(listener, nullptr);
        std::thread waiter([&] { socket_listener_wait(listener); });
        socket_listener_close(listener);
        waiter.join();
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, MayBeClosedByItsCallback) {
    const Leftovers leftovers;
    {
        Host host;
        socket_listener* listener = nullptr;
        host.on_accept = [&](int fd) {
            close(fd);
            socket_listener_close(listener);
        };
        const uint16_t port = free_port();
        listener = open_listener(host, port);
        const Fd peer = connect_to(port);
        EXPECT_TRUE(eventually([&] { return host.accepted == 1; }));
        socket_listener_wait(listener);
        EXPECT_FALSE(connect_to(port));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, MayBeClosedByItsCallbackWhileAnotherThreadWaits) {
    const Leftovers leftovers;
    {
        Host host;
        socket_listener* listener = nullptr;
        host.on_accept = [&](int fd) {
            close(fd);
            socket_listener_close(listener);
        };
        const uint16_t port = free_port();
        listener = open_listener(host, port);
        std::thread waiter([&] { socket_listener_wait(listener); });
        const Fd peer = connect_to(port);
        waiter.join();
        EXPECT_EQ(host.accepted, 1);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, MayBeClosedAndWaitedForByItsCallback) {
    const Leftovers leftovers;
    {
        Host host;
        socket_listener* listener = nullptr;
        host.on_accept = [&](int fd) {
            close(fd);
            close_and_wait(listener);
        };
        const uint16_t port = free_port();
        listener = open_listener(host, port);
        const Fd peer = connect_to(port);
        EXPECT_TRUE(eventually([&] { return host.accepted == 1; }));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketListener, NeedsACallbackAndIgnoresNull) {
    EXPECT_EQ(socket_listener_open("127.0.0.1", 0, nullptr, nullptr), nullptr);
    socket_listener_close(nullptr);
    socket_listener_wait(nullptr);
    EXPECT_EQ(socket_listener_routine(nullptr), nullptr);
    _socket_listener_free(nullptr);
}
