// The other side of the HTTP client: a server that does what a test tells it, and a network in
// which port 80 is free.
#pragma once

#include <ztlib/htmldoc/htmldoc.h>

#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>
#include <tests/support/sockets.h>

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <net/if.h>
#include <pthread.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>

namespace zt_test {

// Moves this process into a network of its own, with a loopback interface and these names:
//
//     one   127.0.0.1
//     both  127.0.0.1 and 127.0.0.2, in whichever order the resolver gives them
//
// Returns an empty text, or the call that is not allowed here.
inline std::string enter_own_network() {
    // The mount keeps the file after its directory has gone.
    const ScratchDirectory scratch;
    const std::string hosts = scratch.write("hosts",
                                            "127.0.0.1 localhost one\n"
                                            "127.0.0.1 both\n"
                                            "127.0.0.2 both\n");
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0) return "unshare()";
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return "mount()";
    if (mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0) return "mount()";
    const Fd any(socket(AF_INET, SOCK_DGRAM, 0));
    ifreq loopback_up{};
    strcpy(loopback_up.ifr_name, "lo");
    loopback_up.ifr_flags = IFF_UP;
    return ioctl(any.get(), SIOCSIFFLAGS, &loopback_up) == 0 ? "" : "ioctl()";
}

// All threads, descriptors and blocks that a test took are given back.
class Leftovers {
  public:
    bool none() const {
        return eventually([this] {
            return thread_count() == threads_ && descriptor_count() == descriptors_ &&
                   live_allocations() == blocks_;
        });
    }

  private:
    int threads_ = thread_count();
    int descriptors_ = descriptor_count();
    int64_t blocks_ = live_allocations();
};

// Receives until the text ends like this, or the connection does.
inline std::string receive_until(int fd, const std::string& end) {
    std::string text;
    while (!text.ends_with(end)) {
        const std::string byte = receive(fd, 1);
        if (byte.empty()) break;
        text += byte;
    }
    return text;
}

inline std::string receive_rest(int fd) {
    std::string text;
    for (std::string piece; !(piece = receive(fd, 65536)).empty();) text += piece;
    return text;
}

// Calls its script with each connection that it accepts, one after the other, on a thread of its
// own. A peer that says nothing is given up after half a minute.
class ScriptedServer {
  public:
    using Script = std::function<void(Fd&)>;

    explicit ScriptedServer(uint16_t port, Script script, const char* address = "127.0.0.1")
        : script_(std::move(script)), fd_(listen_at(address, port)), port_(local_port(fd_.get())) {
        thread_ = std::thread([this] { serve(); });
    }
    ~ScriptedServer() {
        shutdown(fd_.get(), SHUT_RDWR);
        thread_.join();
    }
    ScriptedServer(const ScriptedServer&) = delete;
    ScriptedServer& operator=(const ScriptedServer&) = delete;

    uint16_t port() const { return port_; }
    // How many connections it has served to their end.
    int served() const { return served_; }

    static Fd listen_at(const char* ip, uint16_t port) {
        Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int on = 1;
        setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address = loopback(port);
        inet_aton(ip, &address.sin_addr);
        if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(fd.get(), 64) != 0)
            abort();
        return fd;
    }

  private:
    void serve() {
        for (;;) {
            Fd peer(accept(fd_.get(), nullptr, nullptr));
            if (!peer) return;
            const timeval limit{30, 0};
            setsockopt(peer.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
            const int on = 1;
            setsockopt(peer.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            script_(peer);
            peer.close();
            ++served_;
        }
    }

    Script script_;
    Fd fd_;
    uint16_t port_;
    std::atomic<int> served_{0};
    std::thread thread_;
};

// Interrupts the thread that made it, every millisecond: its system calls fail with EINTR.
class Interruptions {
  public:
    Interruptions() : target_(pthread_self()) {
        struct sigaction action {};
        action.sa_handler = [](int) { ++count_; };  // and no SA_RESTART
        sigaction(SIGUSR1, &action, &before_);
        count_ = 0;
        thread_ = std::thread([this] {
            while (!over_) {
                pthread_kill(target_, SIGUSR1);
                const timespec pause{0, 1'000'000};
                nanosleep(&pause, nullptr);
            }
        });
    }
    ~Interruptions() {
        over_ = true;
        thread_.join();
        sigaction(SIGUSR1, &before_, nullptr);
    }
    Interruptions(const Interruptions&) = delete;
    Interruptions& operator=(const Interruptions&) = delete;

    // For the peer: lets the interrupted thread be interrupted some more while it waits.
    static void let_some_happen() {
        const int enough = count_ + 10;
        eventually([&] { return count_ >= enough; });
    }

  private:
    static inline std::atomic<int> count_{0};
    pthread_t target_;
    struct sigaction before_ {};
    std::atomic<bool> over_{false};
    std::thread thread_;
};

// The header lines of an answer in their order in the document, "name=value".
inline std::vector<std::string> headers_of(const htmldoc& document) {
    std::vector<std::string> lines;
    for (const htmldoc_option* node = document.options; node; node = node->next)
        lines.push_back(std::string(node->name) + "=" + node->value);
    return lines;
}

inline std::string body_of(const htmldoc& document) {
    return {document.body.data ? document.body.data : "", document.body.length};
}

}  // namespace zt_test
