#include <ztlib/network/socket_client/socket_client.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>
#include <tests/support/sockets.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <csignal>

using namespace zt_test;
using testing::ElementsAre;

namespace {

constexpr size_t kPieceBytes = 1524;

// What a client's callbacks do, and the order in which they were called.
class Host {
  public:
    std::function<void(socket_client*)> on_connect = [](socket_client*) {};
    std::function<void(socket_client*)> on_disconnect = [](socket_client*) {};
    std::function<int(socket_client*, const void*, int)> on_receive =
        [](socket_client*, const void*, int) { return 1; };
    std::function<int(socket_client*)> on_process = [](socket_client*) { return 0; };

    socket_client* open(uint16_t port, const char* address = "127.0.0.1") {
        return socket_client_open(address, port, this, connected, disconnected, received,
                                  processed);
    }

    std::vector<std::string> events() const {
        const std::lock_guard lock(mutex_);
        return events_;
    }
    size_t count(const std::string& event) const {
        const auto all = events();
        return static_cast<size_t>(std::count(all.begin(), all.end(), event));
    }
    bool sees(const std::string& event, size_t times) const {
        return eventually([&] { return count(event) >= times; });
    }

  private:
    static Host& of(socket_client* client) { return *static_cast<Host*>(client->user_data); }
    void add(const char* event) {
        const std::lock_guard lock(mutex_);
        events_.push_back(event);
    }

    static void connected(socket_client* client) {
        of(client).add("connect");
        of(client).on_connect(client);
    }
    static void disconnected(socket_client* client) {
        of(client).add("disconnect");
        of(client).on_disconnect(client);
    }
    static int received(socket_client* client, const void* bytes, int count) {
        return of(client).on_receive(client, bytes, count);
    }
    static int processed(socket_client* client) { return of(client).on_process(client); }

    mutable std::mutex mutex_;
    std::vector<std::string> events_;
};

// Takes all received bytes out of the client's buffer.
std::string take_received(socket_client* client) {
    pthread_mutex_lock(&client->receive_buffer.mutex);
    std::string bytes(client->receive_buffer.data, client->receive_buffer.length);
    pthread_mutex_unlock(&client->receive_buffer.mutex);
    net_buffer_remove(&client->receive_buffer, static_cast<unsigned>(bytes.size()));
    return bytes;
}

uint32_t length_of(net_buffer& buffer) {
    pthread_mutex_lock(&buffer.mutex);
    const uint32_t length = buffer.length;
    pthread_mutex_unlock(&buffer.mutex);
    return length;
}

// Disconnect, connect, disconnect, ...
bool alternates(const std::vector<std::string>& events) {
    for (size_t i = 0; i < events.size(); ++i)
        if (events[i] != (i % 2 ? "connect" : "disconnect")) return false;
    return true;
}

std::string error_line(const char* function, const char* call, const char* text, int code) {
    return std::string("./network/socket_client/socket_client:") + function + ": " + call +
           "(): " + text + " (" + std::to_string(code) + ")\n";
}

}  // namespace

// --- the life of a connection ---

TEST(SocketClient, ReportsTheMissingConnectionOnceThenTheFirstAndOnClosingItsEnd) {
    Server server;
    Host host;
    socket_client* client = host.open(server.port());
    ASSERT_NE(client, nullptr);
    const Fd peer = server.accept();
    ASSERT_TRUE(host.sees("connect", 1));
    EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect"));
    socket_client_close(client);
    EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect", "disconnect"));
    EXPECT_TRUE(ended(peer.get()));
}

TEST(SocketClient, ShowsItsStateToItsCallbacks) {
    Server server;
    Host host;
    struct State {
        int fd, connected, parked, running, last_error;
        std::string host;
        uint16_t port;
    };
    std::vector<State> states;
    const auto note = [&](socket_client* c) {
        states.push_back({c->socket_descriptor, c->connected_flag, c->parked_count,
                          __atomic_load_n(&c->running_flag, __ATOMIC_ACQUIRE), c->last_error,
                          c->host, c->port});
    };
    host.on_connect = note;
    host.on_disconnect = note;
    std::string address = "127.0.0.1";
    socket_client* client = host.open(server.port(), address.c_str());
    address.assign("overwritten");
    const Fd peer = server.accept();
    ASSERT_TRUE(host.sees("connect", 1));
    socket_client_close(client);

    ASSERT_EQ(states.size(), 3u);
    EXPECT_EQ(states[0].fd, 0);
    EXPECT_EQ(states[0].connected, 0);
    EXPECT_EQ(states[0].parked, 2);
    EXPECT_EQ(states[0].running, 1);
    EXPECT_EQ(states[0].host, "127.0.0.1");
    EXPECT_EQ(states[0].port, server.port());
    EXPECT_GT(states[1].fd, 2);
    EXPECT_EQ(states[1].connected, 1);
    EXPECT_EQ(states[1].parked, 0);
    EXPECT_EQ(states[1].last_error, 0);
    EXPECT_EQ(states[2].fd, 0);
    EXPECT_EQ(states[2].connected, 0);
    EXPECT_EQ(states[2].parked, 2);
    EXPECT_EQ(states[2].running, 0);
}

TEST(SocketClient, SendsAndReceivesWholeStreams) {
    Server server;
    Host host;
    std::string received;
    std::mutex mutex;
    host.on_process = [&](socket_client* c) {
        const std::lock_guard lock(mutex);
        received += take_received(c);
        return 0;
    };
    socket_client* client = host.open(server.port());
    const Fd peer = server.accept();
    ASSERT_TRUE(host.sees("connect", 1));

    std::string text(300'000, '\0');
    for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>(i * 7 + i / 251);
    for (size_t at = 0; at < text.size(); at += 10'000)
        EXPECT_EQ(socket_client_send(client, text.data() + at, 10'000), 0);
    EXPECT_EQ(receive(peer.get(), text.size()), text);
    EXPECT_TRUE(eventually([&] { return length_of(client->send_buffer) == 0; }));

    EXPECT_TRUE(send_all(peer.get(), text));
    EXPECT_TRUE(eventually([&] {
        const std::lock_guard lock(mutex);
        return received.size() == text.size();
    }));
    EXPECT_EQ(received, text);
    socket_client_close(client);
}

TEST(SocketClient, MovesAtMostOnePieceACall) {
    Server server;
    Host host;
    std::atomic<int> largest{0};
    std::atomic<size_t> total{0};
    host.on_receive = [&](socket_client*, const void*, int count) {
        if (count > largest) largest = count;
        total += static_cast<size_t>(count);
        return 0;
    };
    socket_client* client = host.open(server.port());
    const Fd peer = server.accept();
    EXPECT_TRUE(send_all(peer.get(), std::string(100'000, 'x')));
    EXPECT_TRUE(eventually([&] { return total == 100'000; }));
    EXPECT_EQ(largest, static_cast<int>(kPieceBytes));

    const uint64_t sends = calls_of("send");
    const std::string block(10 * kPieceBytes + 1, 'y');
    socket_client_send(client, block.data(), static_cast<unsigned>(block.size()));
    EXPECT_EQ(receive(peer.get(), block.size()), block);
    EXPECT_TRUE(eventually([&] { return length_of(client->send_buffer) == 0; }));
    EXPECT_EQ(calls_of("send") - sends, 11u);
    socket_client_close(client);
}

TEST(SocketClient, SendsTheRestOfAPieceThatWentOutInPart) {
    Server server;
    Host host;
    host.on_connect = [](socket_client* c) { socket_client_send(c, "abcdefgh", 8); };
    const FakedCall part("send", 3);  // claims three bytes, which then are missing
    socket_client* client = host.open(server.port());
    const Fd peer = server.accept();
    EXPECT_EQ(receive(peer.get(), 5), "defgh");
    EXPECT_TRUE(part.hit());
    socket_client_close(client);
}

TEST(SocketClient, DropsWhatWasQueuedBeforeTheConnection) {
    Server server;
    Host host;
    host.on_disconnect = [](socket_client* c) { socket_client_send(c, "too early", 9); };
    host.on_connect = [](socket_client* c) { socket_client_send(c, "hello", 5); };
    socket_client* client = host.open(server.port());
    for (int connection = 0; connection < 3; ++connection) {
        const Fd peer = server.accept();
        EXPECT_EQ(receive(peer.get(), 5), "hello");
    }
    socket_client_close(client);
}

TEST(SocketClient, StartsEachConnectionWithAnEmptyReceiveBuffer) {
    Server server;
    Host host;
    std::vector<uint32_t> lengths;
    host.on_connect = [&](socket_client* c) { lengths.push_back(length_of(c->receive_buffer)); };
    socket_client* client = host.open(server.port());
    {
        const Fd peer = server.accept();
        EXPECT_TRUE(send_all(peer.get(), "left over"));
        EXPECT_TRUE(eventually([&] { return length_of(client->receive_buffer) == 9; }));
    }
    const Fd peer = server.accept();
    ASSERT_TRUE(host.sees("connect", 2));
    socket_client_close(client);
    EXPECT_THAT(lengths, ElementsAre(0, 0));
}

TEST(SocketClient, DropsTheBytesThatOnReceiveDoesNotWant) {
    Server server;
    Host host;
    std::atomic<int> calls{0};
    std::atomic<int> processed{0};
    host.on_receive = [&](socket_client*, const void* bytes, int count) {
        ++calls;
        return static_cast<const char*>(bytes)[count - 1] == '!' ? 1 : 0;
    };
    host.on_process = [&](socket_client*) {
        ++processed;
        return 0;
    };
    socket_client* client = host.open(server.port());
    const Fd peer = server.accept();
    EXPECT_TRUE(send_all(peer.get(), "unwanted"));
    EXPECT_TRUE(eventually([&] { return calls == 1; }));
    EXPECT_TRUE(send_all(peer.get(), "wanted!"));
    EXPECT_TRUE(eventually([&] { return processed == 1; }));
    EXPECT_EQ(take_received(client), "wanted!");
    EXPECT_EQ(calls, 2);
    socket_client_close(client);
}

TEST(SocketClient, DropsTheConnectionOnANegativeAnswer) {
    Server server;
    Host host;
    host.on_receive = [&](socket_client*, const void* bytes, int) {
        return *static_cast<const char*>(bytes) == 'r' ? -1 : 1;
    };
    host.on_process = [](socket_client*) { return -1; };
    socket_client* client = host.open(server.port());
    for (const char* text : {"r", "p"}) {
        const Fd peer = server.accept();
        EXPECT_TRUE(send_all(peer.get(), text));
        EXPECT_TRUE(ended(peer.get()));
    }
    const Fd peer = server.accept();
    ASSERT_TRUE(host.sees("connect", 3));
    EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect", "disconnect", "connect",
                                           "disconnect", "connect"));
    socket_client_close(client);
}

TEST(SocketClient, DropsTheConnectionWhenReceivedBytesCannotBeStored) {
    Server server;
    Host host;
    std::atomic<int> processed{0};
    host.on_process = [&](socket_client*) {
        ++processed;
        return 0;
    };
    std::unique_ptr<FailingCall> fault;
    host.on_receive = [&](socket_client*, const void*, int) {
        // 2,048 bytes are there from the start; one piece more does not fit.
        if (processed == 1) fault = std::make_unique<FailingCall>("realloc", ENOMEM, 0, true);
        return 1;
    };
    socket_client* client = host.open(server.port());
    Fd peer = server.accept();
    EXPECT_TRUE(send_all(peer.get(), std::string(kPieceBytes, 'x')));
    EXPECT_TRUE(eventually([&] { return processed == 1; }));
    EXPECT_TRUE(send_all(peer.get(), std::string(kPieceBytes, 'x')));
    EXPECT_TRUE(host.sees("disconnect", 2));
    EXPECT_EQ(processed, 1);
    peer = server.accept();
    EXPECT_TRUE(peer);
    socket_client_close(client);
}

TEST(SocketClient, ConnectsAgainWhateverWayAConnectionEnds) {
    Server server;
    Host host;
    socket_client* client = host.open(server.port());
    for (int round = 0; round < 4; ++round) {
        Fd peer = server.accept();
        ASSERT_TRUE(host.sees("connect", static_cast<size_t>(round) + 1));
        switch (round) {
            case 0:
                peer.close();
                break;
            case 1:
                peer.reset();
                break;
            case 2:  // half closed: the client ends the other half
                shutdown(peer.get(), SHUT_WR);
                EXPECT_TRUE(ended(peer.get()));
                break;
            default:
                break;
        }
    }
    EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect", "disconnect", "connect",
                                           "disconnect", "connect", "disconnect", "connect"));
    socket_client_close(client);
}

TEST(SocketClient, SurvivesManyConnectionsThatEndAtOnce) {
    // The data threads often have not left their park when the connection is gone.
    constexpr size_t kConnections = 2000;
    Server server;
    Host host;
    host.on_connect = [](socket_client* c) { socket_client_send(c, "x", 1); };
    socket_client* client = host.open(server.port());
    for (size_t i = 0; i < kConnections; ++i) {
        Fd peer = server.accept();
        if (i % 2) peer.reset();
    }
    EXPECT_TRUE(host.sees("connect", kConnections));
    server.accept();
    socket_client_close(client);
    const auto events = host.events();
    EXPECT_TRUE(alternates(events));
    EXPECT_EQ(events.back(), "disconnect");
}

TEST(SocketClient, TriesAgainFiveSecondsAfterAFailureAndCannotBeClosedBefore) {
    Server server;
    Host host;
    const uint64_t connects = calls_of("connect");
    const FailingCall unreachable("connect", ECONNREFUSED);
    const auto start = std::chrono::steady_clock::now();
    socket_client* client = host.open(server.port());
    EXPECT_TRUE(eventually([&] { return unreachable.hit(); }));
    socket_client_close(client);  // the attempt goes on until it succeeds
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(calls_of("connect") - connects, 2u);
    EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect", "disconnect"));
}

TEST(SocketClient, FindsAServerThatWasKilledAndStartedAgain) {
    const uint16_t port = free_port();
    const auto start_server = [&] {
        Server* server = new Server(port);
        const pid_t pid = fork();
        if (pid == 0) {
            for (;;) {
                const Fd peer = server->accept();
                for (std::string text; !(text = receive(peer.get(), 4)).empty();)
                    send_all(peer.get(), text);
            }
        }
        delete server;
        return pid;
    };
    const auto kill_server = [](pid_t pid) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    };

    Host host;
    std::atomic<int> echoes{0};
    host.on_connect = [](socket_client* c) { socket_client_send(c, "ping", 4); };
    host.on_process = [&](socket_client* c) {
        if (length_of(c->receive_buffer) == 4 && take_received(c) == "ping") ++echoes;
        return 0;
    };
    pid_t server = start_server();
    socket_client* client = host.open(port);
    EXPECT_TRUE(eventually([&] { return echoes == 1; }));
    kill_server(server);
    EXPECT_TRUE(host.sees("disconnect", 2));
    server = start_server();
    EXPECT_TRUE(eventually([&] { return echoes == 2; }));
    // A dying listener may still have let the client in once more.
    const auto events = host.events();
    EXPECT_GE(events.size(), 4u);
    EXPECT_EQ(events.back(), "connect");
    EXPECT_TRUE(alternates(events));
    socket_client_close(client);
    kill_server(server);
}

TEST(SocketClient, GoesOnAfterInterruptedCalls) {
    Server server;
    Host host;
    host.on_connect = [](socket_client* c) { socket_client_send(c, "sent", 4); };
    const FailingCall receiving("recv", EINTR);
    const FailingCall checked_receiving("__recv_chk", EINTR);
    const FailingCall sending("send", EINTR);
    socket_client* client = host.open(server.port());
    const Fd peer = server.accept();
    EXPECT_EQ(receive(peer.get(), 4), "sent");
    EXPECT_TRUE(send_all(peer.get(), "got"));
    EXPECT_TRUE(eventually([&] { return length_of(client->receive_buffer) == 3; }));
    EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect"));
    EXPECT_TRUE(sending.hit());
    socket_client_close(client);
}

TEST(SocketClient, FailedSendEndsTheConnection) {
    Server server;
    Host host;
    const FailingCall fault("send", EPIPE);
    socket_client* client = host.open(server.port());
    Fd peer = server.accept();
    ASSERT_TRUE(host.sees("connect", 1));
    EXPECT_EQ(socket_client_send(client, "lost", 4), 0);
    EXPECT_TRUE(ended(peer.get()));
    EXPECT_TRUE(fault.hit());
    peer = server.accept();
    ASSERT_TRUE(host.sees("connect", 2));
    EXPECT_EQ(socket_client_send(client, "found", 5), 0);
    EXPECT_EQ(receive(peer.get(), 5), "found");
    socket_client_close(client);
}

TEST(SocketClient, NeverUsesDescriptorZeroAndLeavesItFree) {
    const ChildResult child = run_in_child([] {
        close(0);
        Server server;  // takes number 0
        const int moved = fcntl(0, F_DUPFD, 10);
        close(0);
        Host host;
        std::atomic<int> fd{-1};
        host.on_connect = [&](socket_client* c) { fd = c->socket_descriptor; };
        socket_client* client = host.open(local_port(moved));
        const Fd peer(accept(moved, nullptr, nullptr));
        eventually([&] { return fd != -1; });
        if (fd < 3) _exit(10);
        socket_client_close(client);
        if (host.count("disconnect") != 2) _exit(11);
        _exit(0);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 0);
}

// --- closing and waiting ---

TEST(SocketClient, LeavesNothingBehind) {
    const Leftovers leftovers;
    {
        Server server;
        Host host;
        for (int round = 0; round < 50; ++round) {
            socket_client* client = host.open(server.port());
            if (round % 2) socket_client_send(client, "text", 4);
            const Fd peer = server.accept();
            socket_client_close(client);
        }
        EXPECT_EQ(host.count("disconnect"), host.count("connect") + 50);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketClient, ClosesWhileTheSendThreadIsStuckInSend) {
    Server server;
    Host host;
    const Leftovers leftovers;
    {
        socket_client* client = host.open(server.port());
        const Fd peer = server.accept();
        ASSERT_TRUE(host.sees("connect", 1));
        const std::string block(1 << 20, 'x');
        for (int i = 0; i < 32; ++i)
            socket_client_send(client, block.data(), static_cast<unsigned>(block.size()));
        uint64_t sends;
        do {  // until no send() returns any more
            sends = calls_of("send");
            poll(nullptr, 0, 50);
        } while (calls_of("send") != sends);
        socket_client_close(client);
    }
    EXPECT_TRUE(leftovers.none());
    EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect", "disconnect"));
}

TEST(SocketClient, ClosesWhileOneDataThreadIsParkedAndTheOtherIsNot) {
    Server server;
    Host host;
    std::mutex gate;
    std::atomic<bool> inside{false};
    host.on_receive = [&](socket_client*, const void*, int) {
        inside = true;
        const std::lock_guard wait(gate);
        return 1;
    };
    const Leftovers leftovers;
    {
        socket_client* client = host.open(server.port());
        gate.lock();
        {
            Fd peer = server.accept();
            EXPECT_TRUE(send_all(peer.get(), "x"));
            EXPECT_TRUE(eventually([&] { return inside.load(); }));
            peer.reset();
        }
        // The send thread fails and parks; the receive thread stands at the gate.
        EXPECT_TRUE(eventually([&] {
            socket_client_send(client, "y", 1);
            pthread_mutex_lock(&client->mutex);
            const int parked = client->parked_count;
            pthread_mutex_unlock(&client->mutex);
            return parked == 1;
        }));
        EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect"));
        std::thread closer([&] { socket_client_close(client); });
        EXPECT_TRUE(
            eventually([&] { return !__atomic_load_n(&client->running_flag, __ATOMIC_ACQUIRE); }));
        gate.unlock();
        closer.join();
    }
    EXPECT_TRUE(leftovers.none());
    EXPECT_THAT(host.events(), ElementsAre("disconnect", "connect", "disconnect"));
}

TEST(SocketClient, ClosesInTheMiddleOfLosingConnections) {
    const Leftovers leftovers;
    {
        Server server;
        std::thread accepting([&] {
            for (unsigned i = 0; Fd peer = server.accept(); ++i)
                if (i % 3 == 0) peer.reset();
        });
        for (int round = 0; round < 300; ++round) {
            Host host;
            host.on_connect = [](socket_client* c) { socket_client_send(c, "x", 1); };
            socket_client* client = host.open(server.port());
            if (round % 4) host.sees("connect", static_cast<size_t>(round % 4));
            socket_client_close(client);
            EXPECT_EQ(host.count("disconnect"), host.count("connect") + 1);
        }
        server.stop();
        accepting.join();
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketClient, WaitReturnsForEveryThreadOnceTheClientIsClosed) {
    const Leftovers leftovers;
    {
        Server server;
        for (int round = 0; round < 100; ++round) {
            Host host;
            socket_client* client = host.open(server.port());
            std::atomic<int> results{0};
            std::atomic<int> started{0};
            std::vector<std::thread> waiters;
            for (int i = 0; i < 4; ++i) {
                waiters.emplace_back([&] {
                    ++started;
                    results += socket_client_wait(client);
                });
            }
            // All of them are in the call before the client may go.
            EXPECT_TRUE(eventually([&] {
                return started == 4 && __atomic_load_n(&client->waiters, __ATOMIC_ACQUIRE) == 4;
            }));
            socket_client_close(client);
            for (std::thread& waiter : waiters) waiter.join();
            EXPECT_EQ(results, 0);
        }
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SocketClient, GivesUpWhenNoSocketCanBeMadeAndWaitReturns) {
    Server server;
    Host host;
    const Leftovers leftovers;
    {
        const CapturedStderr err;
        const FailingCall fault("socket", EMFILE);
        socket_client* client = host.open(server.port());
        EXPECT_EQ(socket_client_wait(client), 0);
        EXPECT_EQ(socket_client_wait(client), 0);
        EXPECT_TRUE(fault.hit());
        EXPECT_EQ(err.text(), "_socket_client_connect_routine: socket(): Too many open files\n");
        EXPECT_EQ(client->running_flag, 0);
        socket_client_close(client);
    }
    EXPECT_TRUE(leftovers.none());
    EXPECT_THAT(host.events(), ElementsAre("disconnect"));
}

TEST(SocketClient, KeepsTheErrorOfTheLastAttempt) {
    Server server;
    Host host;
    const CapturedStderr err;
    const FailingCall unreachable("connect", ENETUNREACH);
    const FailingCall no_more("socket", EMFILE, 1);  // the second attempt's
    socket_client* client = host.open(server.port());
    EXPECT_EQ(socket_client_wait(client), 0);
    EXPECT_EQ(client->last_error, ENETUNREACH);
    socket_client_close(client);
}

TEST(SocketClient, RefusesToWaitOnItsOwnConnectThread) {
    Server server;
    Host host;
    std::atomic<int> result{-1};
    host.on_connect = [&](socket_client* c) { result = socket_client_wait(c); };
    socket_client* client = host.open(server.port());
    const Fd peer = server.accept();
    EXPECT_TRUE(eventually([&] { return result != -1; }));
    EXPECT_EQ(result, EDEADLK);
    socket_client_close(client);
}

TEST(SocketClient, WithoutOneOfItsThreadsStaysUnconnectedAndCloses) {
    Server server;
    const Leftovers leftovers;
    for (uint32_t missing = 0; missing < 3; ++missing) {
        Host host;
        const FailingCall fault("pthread_create", EAGAIN, missing, true);
        socket_client* client = host.open(server.port());
        ASSERT_NE(client, nullptr);
        EXPECT_TRUE(fault.hit());
        if (missing == 0) {
            EXPECT_EQ(socket_client_wait(client), ESRCH);
        }
        EXPECT_EQ(socket_client_send(client, "x", 1), 0);
        socket_client_close(client);
        EXPECT_EQ(host.count("connect"), 0u);
    }
    EXPECT_TRUE(leftovers.none());
}

// --- arguments, memory, fatal paths ---

TEST(SocketClient, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    Server server;
    Host host;
    const CapturedLog log;
    for_each_failing_allocation([&] { return host.open(server.port()); },
                                [](socket_client* client) { socket_client_close(client); });
}

TEST(SocketClient, SaysThatQueuedBytesFoundNoMemory) {
    Server server;
    Host host;
    const CapturedLog log;
    socket_client* client = host.open(server.port());
    const Fd peer = server.accept();
    ASSERT_TRUE(host.sees("connect", 1));
    const std::string block(100'000, 'x');
    const FailingCall fault("realloc", ENOMEM, 0, true);
    EXPECT_EQ(socket_client_send(client, block.data(), static_cast<unsigned>(block.size())), -1);
    socket_client_close(client);
}

TEST(SocketClient, NeedsAHostAndItsCallbacksAndIgnoresNull) {
    const auto state = [](socket_client*) {};
    const auto receive = [](socket_client*, const void*, int) { return 0; };
    const auto process = [](socket_client*) { return 0; };
    EXPECT_EQ(socket_client_open(nullptr, 1, nullptr, state, state, receive, process), nullptr);
    EXPECT_EQ(socket_client_open("127.0.0.1", 1, nullptr, nullptr, state, receive, process),
              nullptr);
    EXPECT_EQ(socket_client_open("127.0.0.1", 1, nullptr, state, nullptr, receive, process),
              nullptr);
    EXPECT_EQ(socket_client_open("127.0.0.1", 1, nullptr, state, state, nullptr, process), nullptr);
    EXPECT_EQ(socket_client_open("127.0.0.1", 1, nullptr, state, state, receive, nullptr), nullptr);
    EXPECT_EQ(socket_client_send(nullptr, "x", 1), -2);
    EXPECT_EQ(socket_client_wait(nullptr), 0);
    socket_client_close(nullptr);
    _socket_client_wait_connection(nullptr);
    EXPECT_EQ(_socket_client_connect_routine(nullptr), nullptr);
    EXPECT_EQ(_socket_client_rx_routine(nullptr), nullptr);
    EXPECT_EQ(_socket_client_tx_routine(nullptr), nullptr);
}

TEST(SocketClient, EndsTheProcessWhenItsMutexCannotBeMade) {
    const ChildResult child = run_in_child([] {
        Host host;
        const FailingCall fault("pthread_mutex_init", EINVAL, 0, true);
        errno = ENOENT;
        host.open(1);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err, error_line("socket_client_open", "pthread_mutex_init",
                                    "No such file or directory", EINVAL));
}

namespace {

// A record in a state of the test's choosing, with no threads.
struct Unstarted {
    socket_client client{};
    Unstarted() {
        net_buffer_init(&client.receive_buffer, 0);
        net_buffer_init(&client.send_buffer, 1);
        client.host = strdup("127.0.0.1");
        client.on_connect = [](socket_client*) {};
        client.on_disconnect = [](socket_client*) {};
    }
};

}  // namespace

TEST(SocketClient, EndsTheProcessWhenItsMutexCannotBeReleasedInThePark) {
    const ChildResult child = run_in_child([] {
        Unstarted unstarted;
        const FailingCall fault("pthread_mutex_unlock", EPERM, 1, true);  // after the post's
        errno = ENOENT;
        _socket_client_wait_connection(&unstarted.client);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err, error_line("_socket_client_wait_connection", "pthread_mutex_unlock",
                                    "No such file or directory", EPERM));
}

TEST(SocketClient, EndsTheProcessWhenItsMutexCannotBeReleasedAfterConnecting) {
    const ChildResult child = run_in_child([] {
        Unstarted unstarted;
        unstarted.client.running_flag = 1;
        unstarted.client.parked_count = 2;
        const FailingCall no_socket("socket", ENOENT, 0, true);
        const FailingCall fault("pthread_mutex_unlock", EPERM, 0, true);
        _socket_client_connect_routine(&unstarted.client);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 255);
    EXPECT_EQ(child.err, "_socket_client_connect_routine: socket(): No such file or directory\n" +
                             error_line("_socket_client_connect_routine", "pthread_mutex_unlock",
                                        "No such file or directory", EPERM));
}

TEST(SocketClient, PrintsAMutexThatCannotBeDestroyedAndGoesOn) {
    Server server;
    Host host;
    const Leftovers leftovers;
    {
        socket_client* client = host.open(server.port());
        const Fd peer = server.accept();
        const CapturedStderr err;
        const FailingCall fault("pthread_mutex_destroy", EBUSY, 2, true);  // after the buffers'
        socket_client_close(client);
        EXPECT_TRUE(fault.hit());
        EXPECT_THAT(err.text(),
                    testing::MatchesRegex("./network/socket_client/socket_client:"
                                          "socket_client_close: pthread_mutex_destroy\\(\\): .* "
                                          "\\(16\\)\n"));
    }
    EXPECT_TRUE(leftovers.none());
}

// --- a hostile network ---

namespace {

constexpr size_t kBlockBytes = 1000;
constexpr size_t kTotalBytes = 10'000'000;  // each way, over all connections

// A block carries its number and is filled with it, so that a receiver sees a gap, a repetition or
// a byte out of place.
std::string block_of(uint64_t number) {
    std::string block(kBlockBytes, static_cast<char>(number * 31 + 7));
    memcpy(block.data(), &number, sizeof number);
    return block;
}

// The blocks of one connection: consecutive from whichever comes first.
class BlockReader {
  public:
    // False at the first byte that is wrong.
    bool take(const char* bytes, size_t size) {
        pending_.append(bytes, size);
        size_t at = 0;
        for (; pending_.size() - at >= kBlockBytes; at += kBlockBytes) {
            uint64_t number;
            memcpy(&number, pending_.data() + at, sizeof number);
            if (started_ && number != next_) return false;
            if (pending_.compare(at, kBlockBytes, block_of(number)) != 0) return false;
            started_ = true;
            next_ = number + 1;
        }
        pending_.erase(0, at);
        return true;
    }

  private:
    std::string pending_;
    uint64_t next_ = 0;
    bool started_ = false;
};

// Passes bytes between the client and a server of its own kind, and cuts the connection in a way of
// its own after a share of the bytes.
class Relay {
  public:
    enum Cut { kClose, kReset, kHalfClose, kStallThenReset, kDelayThenClose, kNoCut };

    Relay(uint16_t server_port, std::vector<Cut> cuts, size_t bytes_before_cut)
        : server_port_(server_port),
          cuts_(std::move(cuts)),
          limit_(bytes_before_cut),
          thread_([this] { run(); }) {}
    ~Relay() { stop(); }

    uint16_t port() const { return front_.port(); }
    void stop() {
        stopping_ = true;
        front_.stop();
        if (thread_.joinable()) thread_.join();
    }

  private:
    void run() {
        for (size_t i = 0; !stopping_; ++i) {
            Fd client = front_.accept();
            if (!client) return;
            Fd server = connect_to(server_port_);
            relay(client, server, i < cuts_.size() ? cuts_[i] : kNoCut);
        }
    }

    static bool pass(int from, int to, size_t& passed) {
        char piece[8192];
        const ssize_t got = recv(from, piece, sizeof piece, 0);
        if (got <= 0 || !send_all(to, piece, static_cast<size_t>(got))) return false;
        passed += static_cast<size_t>(got);
        return true;
    }

    void relay(Fd& client, Fd& server, Cut cut) {
        size_t up = 0;
        size_t down = 0;
        while (!stopping_ && (cut == kNoCut || up < limit_ || down < limit_)) {
            pollfd both[] = {{client.get(), POLLIN, 0}, {server.get(), POLLIN, 0}};
            if (poll(both, 2, 100) < 0) return;
            if (cut == kDelayThenClose && (up ^ down) % 16 == 0) poll(nullptr, 0, 1);
            if (both[0].revents && !pass(client.get(), server.get(), up)) return;
            if (both[1].revents && !pass(server.get(), client.get(), down)) return;
        }
        switch (cut) {
            case kStallThenReset:
                poll(nullptr, 0, 300);  // both sides fill their buffers and block
                [[fallthrough]];
            case kReset:
                client.reset();
                break;
            case kHalfClose:
                shutdown(client.get(), SHUT_WR);
                while (!ended(client.get())) {
                }
                break;
            default:
                break;
        }
    }

    Server front_;
    const uint16_t server_port_;
    const std::vector<Cut> cuts_;
    const size_t limit_;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

// Accepts one connection after the other; sends blocks and checks those that come.
class BlockServer {
  public:
    BlockServer() : thread_([this] { run(); }) {}
    ~BlockServer() {
        stopping_ = true;
        server_.stop();
        thread_.join();
    }

    uint16_t port() const { return server_.port(); }
    size_t received() const { return received_; }
    bool in_order() const { return in_order_; }

  private:
    void run() {
        while (!stopping_) {
            const Fd peer = server_.accept();
            if (!peer) return;
            std::thread sending([&] {
                uint64_t number = 1000;
                while (!stopping_ && send_all(peer.get(), block_of(number))) ++number;
                shutdown(peer.get(), SHUT_RDWR);
            });
            BlockReader reader;
            char piece[8192];
            for (ssize_t got; (got = recv(peer.get(), piece, sizeof piece, 0)) > 0;) {
                if (!reader.take(piece, static_cast<size_t>(got))) in_order_ = false;
                received_ += static_cast<size_t>(got);
            }
            shutdown(peer.get(), SHUT_RDWR);
            sending.join();
        }
    }

    Server server_;
    std::atomic<bool> stopping_{false};
    std::atomic<size_t> received_{0};
    std::atomic<bool> in_order_{true};
    std::thread thread_;
};

}  // namespace

TEST(SocketClient, KeepsEachConnectionInOrderOverANetworkThatCutsItFiveTimes) {
    Host host;
    std::atomic<size_t> received{0};
    std::atomic<bool> in_order{true};
    BlockReader reader;
    host.on_connect = [&](socket_client*) { reader = BlockReader(); };
    host.on_process = [&](socket_client* c) {
        const std::string bytes = take_received(c);
        if (!reader.take(bytes.data(), bytes.size())) in_order = false;
        received += bytes.size();
        return 0;
    };
    BlockServer server;
    Relay relay(server.port(),
                {Relay::kClose, Relay::kReset, Relay::kHalfClose, Relay::kStallThenReset,
                 Relay::kDelayThenClose},
                kTotalBytes / 6);
    socket_client* client = host.open(relay.port());

    std::atomic<bool> stopping{false};
    std::thread producer([&] {
        for (uint64_t number = 1; !stopping;) {
            if (length_of(client->send_buffer) > 200'000) {
                poll(nullptr, 0, 1);
                continue;
            }
            const std::string block = block_of(number++);
            socket_client_send(client, block.data(), kBlockBytes);
        }
    });
    EXPECT_TRUE(eventually(
        [&] {
            return host.count("connect") == 6 && received >= kTotalBytes &&
                   server.received() >= kTotalBytes;
        },
        std::chrono::seconds(120)));
    stopping = true;
    producer.join();
    socket_client_close(client);
    relay.stop();

    EXPECT_TRUE(in_order);
    EXPECT_TRUE(server.in_order());
    EXPECT_THAT(host.events(),
                ElementsAre("disconnect", "connect", "disconnect", "connect", "disconnect",
                            "connect", "disconnect", "connect", "disconnect", "connect",
                            "disconnect", "connect", "disconnect"));
}
