// A server with many connections, on the net thread pool: every request is answered once and in
// order, whatever the packets look like, and nothing is left when it stops.

#include <ztlib/pools/threadpool/protocols/simple_xml.h>

#include <tests/support/capture.h>
#include <tests/support/leftovers.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace zt_test;

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr int kConnections = 400, kRequests = 50;
#elif defined(__SANITIZE_ADDRESS__)
constexpr int kConnections = 1000, kRequests = 50;
#else
constexpr int kConnections = 1000, kRequests = 100;
#endif
constexpr int kClientThreads = 4;

// Answers <q>n</q> with <a>n</a>.
class Server {
  public:
    Server() { EXPECT_EQ(netthreadpool_start(pool_), 0); }
    ~Server() { stop(); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // A new connection; returns the client's end.
    int connect() {
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) abort();
        {
            const std::lock_guard lock(mutex_);
            sockets_.insert(ends[0]);
        }
        netthreadpool_node* node = netthreadpool_get_node(pool_);
        auto* session = new Session{this, nullptr};
        session->proto = simple_xml_proto_create(node, session, ends[0], answer);
        node->release_routine = release;
        EXPECT_EQ(netthreadpool_invite_read(node), 0);
        return ends[1];
    }

    // Ends all connections, whatever they are doing.
    void stop() {
        if (!pool_) return;
        {
            const std::lock_guard lock(mutex_);
            for (const int socket : sockets_) shutdown(socket, SHUT_RDWR);
        }
        netthreadpool_free(pool_, 1);
        pool_ = nullptr;
        EXPECT_TRUE(sockets_.empty());
    }

    int answered() const { return answered_; }

  private:
    struct Session {
        Server* server;
        simple_xml_proto* proto;
    };

    static int answer(void* context, xmldoc* request) {
        auto& session = *static_cast<Session*>(context);
        xmldoc* reply = xmldoc_create();
        reply->root = xmldoc_node_create("a");
        reply->root->value = strdup(request->root->value);
        const int result = simple_xml_proto_send(session.proto, reply);
        xmldoc_free(reply, 1);
        ++session.server->answered_;
        return result;
    }

    static void release(void* user_pointer) {
        auto* proto = static_cast<simple_xml_proto*>(user_pointer);
        auto* session = static_cast<Session*>(proto->user_context);
        {
            const std::lock_guard lock(session->server->mutex_);
            session->server->sockets_.erase(proto->socket);
            close(proto->socket);
        }
        simple_xml_proto_destroy(proto);
        free(proto);
        delete session;
    }

    netthreadpool* pool_ = netthreadpool_create();
    std::mutex mutex_;  // guards sockets_, and that none of them is closed while it is shut down
    std::set<int> sockets_;
    std::atomic<int> answered_{0};
};

std::string frame(const char* name, int number) {
    const std::string text =
        std::string("<") + name + ">" + std::to_string(number) + "</" + name + ">";
    const auto length = static_cast<char>(text.size() + 4);
    return std::string("\0\0\0", 3) + length + text;
}

bool send_all(int socket, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t n = send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 1) return false;
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

std::string receive_exactly(int socket, size_t count) {
    std::string bytes(count, '\0');
    size_t done = 0;
    while (done < count) {
        const ssize_t n = recv(socket, bytes.data() + done, count - done, 0);
        if (n < 1) break;
        done += static_cast<size_t>(n);
    }
    bytes.resize(done);
    return bytes;
}

bool receive_answer(int socket, int number) {
    const std::string expected = frame("a", number);
    return receive_exactly(socket, expected.size()) == expected;
}

// One frame in up to four parts; the others are empty.
std::vector<std::string> cut(const std::string& bytes, std::minstd_rand& random) {
    std::set<size_t> places{0, bytes.size()};
    while (places.size() < 2 + random() % 4) places.insert(random() % bytes.size());
    std::vector<std::string> parts;
    for (auto at = places.begin(), end = std::next(at); end != places.end(); at = end++)
        parts.push_back(bytes.substr(*at, *end - *at));
    parts.resize(4);
    return parts;
}

// A client of many connections, which sends the first part of a request on each of them, then the
// second on each, and so on; then takes the answers.
void run_client(const std::vector<int>& sockets, unsigned seed) {
    std::minstd_rand random(seed);
    for (int request = 0; request < kRequests; ++request) {
        std::vector<std::vector<std::string>> parts;
        for (size_t i = 0; i < sockets.size(); ++i)
            parts.push_back(cut(frame("q", request), random));
        for (size_t part = 0; part < 4; ++part)
            for (size_t i = 0; i < sockets.size(); ++i)
                ASSERT_TRUE(send_all(sockets[i], parts[i][part]));
        for (const int socket : sockets) ASSERT_TRUE(receive_answer(socket, request)) << request;
    }
}

void allow_many_descriptors() {
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

TEST(SimpleXmlLoad, AnswersEveryRequestOnceAndInOrderOverAThousandConnections) {
    allow_many_descriptors();
    const Leftovers leftovers;
    {
        const CapturedStderr noise;
        Server server;
        std::vector<std::vector<int>> sockets(kClientThreads);
        for (int i = 0; i < kConnections; ++i)
            sockets[static_cast<size_t>(i % kClientThreads)].push_back(server.connect());

        std::vector<std::thread> clients;
        for (unsigned i = 0; i < kClientThreads; ++i)
            clients.emplace_back(run_client, std::cref(sockets[i]), i + 1);
        for (std::thread& client : clients) client.join();
        EXPECT_EQ(server.answered(), kConnections * kRequests);

        for (const std::vector<int>& of_client : sockets)
            for (const int socket : of_client) {
                shutdown(socket, SHUT_WR);
                EXPECT_EQ(receive_exactly(socket, 1), "");  // no answer too many
                close(socket);
            }
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SimpleXmlLoad, AnswersSeveralFramesAPacketWhenTheClientKeepsSending) {
    const Leftovers leftovers;
    {
        const CapturedStderr noise;
        Server server;
        std::vector<std::thread> clients;
        for (unsigned t = 0; t < 8; ++t) {
            clients.emplace_back([&server, t] {
                std::minstd_rand random(t + 1);
                const int socket = server.connect();
                int sent = 0;
                for (int packet = 0; packet < 200; ++packet) {
                    std::string frames;
                    for (unsigned n = 1 + random() % 5; n > 0; --n) frames += frame("q", sent++);
                    ASSERT_TRUE(send_all(socket, frames));
                }
                // From here on one more byte brings one more answer.
                const std::string filler =
                    std::string("\0\0\xff\xff", 4) + std::string(60'000, ' ');
                for (int number = 0; number < sent; ++number) {
                    ASSERT_TRUE(send_all(socket, filler.substr(static_cast<size_t>(number), 1)));
                    ASSERT_TRUE(receive_answer(socket, number)) << number;
                }
                close(socket);
            });
        }
        for (std::thread& client : clients) client.join();
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SimpleXmlLoad, StopsInTheMiddleOfEverything) {
    allow_many_descriptors();
    const Leftovers leftovers;
    for (int round = 0; round < 5; ++round) {
        const CapturedStderr noise;
        Server server;
        std::vector<std::thread> clients;
        std::atomic<int> answers{0};
        for (int t = 0; t < kClientThreads; ++t) {
            std::vector<int> sockets;
            for (int i = 0; i < kConnections / 10 / kClientThreads; ++i)
                sockets.push_back(server.connect());
            clients.emplace_back([&answers, sockets] {
                bool alive = true;
                for (int request = 0; alive; ++request) {
                    for (const int socket : sockets)
                        alive = send_all(socket, frame("q", request)) && alive;
                    for (const int socket : sockets) {
                        const bool answered = receive_answer(socket, request);
                        answers += answered;
                        alive = answered && alive;
                    }
                }
                for (const int socket : sockets) close(socket);
            });
        }
        EXPECT_TRUE(eventually([&] { return answers > 1000; }));
        server.stop();
        for (std::thread& client : clients) client.join();
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(SimpleXmlLoad, ReleasesConnectionsThatComeAndGo) {
    const Leftovers leftovers;
    {
        const CapturedStderr noise;
        Server server;
        std::vector<std::thread> clients;
        for (int t = 0; t < kClientThreads; ++t) {
            clients.emplace_back([&server, t] {
                for (int i = 0; i < kConnections / 2; ++i) {
                    const int socket = server.connect();
                    ASSERT_TRUE(send_all(socket, frame("q", i)));
                    if ((i + t) % 3 != 0) {
                        ASSERT_TRUE(receive_answer(socket, i));
                    }
                    close(socket);
                }
            });
        }
        for (std::thread& client : clients) client.join();
    }
    EXPECT_TRUE(leftovers.none());
}
