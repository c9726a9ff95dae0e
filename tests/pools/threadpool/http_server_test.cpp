// The thread pool, the HTTP document and the listener as one HTTP server, against real clients:
// curl, wrk, and sockets that cut and join as they like.

#include <tests/support/capture.h>
#include <tests/support/http_server.h>
#include <tests/support/leftovers.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>
#include <tests/support/sockets.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/wait.h>

using namespace zt_test;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr size_t kMegabyte = 1'000'000;

struct Command {
    int status = -1;
    std::string out;
};

// What a shell command prints, and its exit status.
Command run(const std::string& line) {
    Command command;
    FILE* pipe = popen(line.c_str(), "r");
    char piece[65536];
    for (size_t got; (got = fread(piece, 1, sizeof piece, pipe)) > 0;)
        command.out.append(piece, got);
    const int status = pclose(pipe);
    if (WIFEXITED(status)) command.status = WEXITSTATUS(status);
    return command;
}

bool has(const char* program) {
    return run(std::string("command -v ") + program + " 2>/dev/null").status == 0;
}

// An answer as a client reads it.
struct Answer {
    std::string header;
    std::string body;
};

Answer receive_answer(int fd) {
    Answer answer;
    while (answer.header.find("\r\n\r\n") == std::string::npos) {
        const std::string byte = receive(fd, 1);
        if (byte.empty()) return answer;
        answer.header += byte;
    }
    const size_t at = answer.header.find("Content-Length: ");
    if (at != std::string::npos)
        answer.body = receive(fd, strtoul(answer.header.c_str() + at + 16, nullptr, 10));
    return answer;
}

std::string all_until_end(int fd) {
    std::string text;
    for (std::string piece; !(piece = receive(fd, 65536)).empty();) text += piece;
    return text;
}

// Each test runs with requests answered on the process thread and on the read thread.
class HttpServerTest : public testing::TestWithParam<HttpServer::Answers> {
  protected:
    void TearDown() override {
        server.reset();
        EXPECT_TRUE(leftovers.none());
    }
    std::string url(const std::string& path) const {
        return "'http://127.0.0.1:" + std::to_string(port) + path + "'";
    }
    static std::string curl(const std::string& arguments) {
        return "curl -sS --max-time 60 --noproxy '*' " + arguments;
    }
    bool closes(size_t connections) const {
        return eventually([&] { return server->removed() == connections; });
    }

    const SilentStderr silent;
    const Leftovers leftovers;
    const uint16_t port = free_port();
    std::unique_ptr<HttpServer> server = std::make_unique<HttpServer>(port, 2, GetParam());
};

INSTANTIATE_TEST_SUITE_P(Threads, HttpServerTest,
                         testing::Values(HttpServer::Answers::on_process_thread,
                                         HttpServer::Answers::on_read_thread),
                         [](const auto& test) {
                             return test.param == HttpServer::Answers::on_process_thread
                                        ? "ProcessThread"
                                        : "ReadThread";
                         });

}  // namespace

// --- curl ---

TEST_P(HttpServerTest, AnswersSeveralRequestsOfCurlOverOneConnection) {
    if (!has("curl")) GTEST_SKIP() << "no curl: apt-get install curl";
    const std::string write_out =
        "-o /dev/null -w '%{http_code} %{num_connects} %{size_download}\\n' ";
    std::string line = curl("");
    for (const char* path : {"/", "/bytes?count=5000", "/", "/missing", "/bytes?count=0"})
        line +=
            write_out + url(path) + (path == std::string("/bytes?count=0") ? "" : " --next -sS ");
    const Command command = run(line);
    EXPECT_EQ(command.status, 0);
    EXPECT_EQ(command.out, "200 1 1024\n200 0 5000\n200 0 1024\n404 0 9\n200 0 0\n");
    EXPECT_EQ(server->accepted(), 1u);
    EXPECT_TRUE(closes(1));
}

TEST_P(HttpServerTest, SendsCurlTheHeadAlone) {
    if (!has("curl")) GTEST_SKIP() << "no curl: apt-get install curl";
    const Command command = run(curl("--head " + url("/")));
    EXPECT_EQ(command.status, 0);
    EXPECT_EQ(command.out,
              "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 1024\r\n\r\n");
}

TEST_P(HttpServerTest, ClosesAfterTheAnswerToAnOldClient) {
    if (!has("curl")) GTEST_SKIP() << "no curl: apt-get install curl";
    const std::string twice = url("/") + " " + url("/") + " -o /dev/null -o /dev/null -i ";
    const std::string write_out = "-w '%{http_code} %{http_version} %{num_connects}\\n' ";
    Command command = run(curl("--http1.0 " + write_out + twice));
    EXPECT_EQ(command.status, 0);
    EXPECT_EQ(command.out, "200 1.1 1\n200 1.1 1\n");
    EXPECT_EQ(server->accepted(), 2u);

    command = run(curl("-H 'Connection: close' " + write_out + twice));
    EXPECT_EQ(command.out, "200 1.1 1\n200 1.1 1\n");
    command = run(curl("--http1.0 -H 'Connection: Keep-Alive' " + write_out + twice));
    EXPECT_EQ(command.out, "200 1.1 1\n200 1.1 0\n");
    EXPECT_TRUE(closes(5));
}

TEST_P(HttpServerTest, MovesAMegabyteEachWay) {
    if (!has("curl")) GTEST_SKIP() << "no curl: apt-get install curl";
    const ScratchDirectory scratch;
    const std::string sent = scratch.write("sent", http_bytes(kMegabyte));
    Command command = run(curl(url("/bytes?count=1000000")));
    EXPECT_EQ(command.status, 0);
    EXPECT_EQ(command.out, http_bytes(kMegabyte));

    // Content-Length, and both with and without the question whether the body is welcome.
    for (const char* expect : {"", "-H 'Expect:' ", "-H 'Expect: 100-continue' "}) {
        command = run(curl(expect + ("--data-binary @" + sent + " ") + url("/echo")));
        EXPECT_EQ(command.status, 0);
        EXPECT_EQ(command.out, http_bytes(kMegabyte));
    }
}

TEST_P(HttpServerTest, TakesABodyThatCurlSendsSlowly) {
    if (!has("curl")) GTEST_SKIP() << "no curl: apt-get install curl";
    const ScratchDirectory scratch;
    const std::string sent = scratch.write("sent", http_bytes(60'000));
    const Command command =
        run(curl("--limit-rate 100k --data-binary @" + sent + " " + url("/echo")));
    EXPECT_EQ(command.status, 0);
    EXPECT_EQ(command.out, http_bytes(60'000));
}

TEST_P(HttpServerTest, ServesManyCurlsAtOnce) {
    if (!has("curl")) GTEST_SKIP() << "no curl: apt-get install curl";
    const Command command =
        run(curl("--parallel --parallel-immediate --parallel-max 50 "
                 "-o /dev/null -w '%{http_code} %{size_download}\\n' "
                 "'http://127.0.0.1:" +
                 std::to_string(port) + "/bytes?count=[10001-10200]'"));
    EXPECT_EQ(command.status, 0);
    size_t lines = 0;
    for (size_t at = 0; (at = command.out.find("200 10", at)) != std::string::npos; ++at) ++lines;
    EXPECT_EQ(lines, 200u);
}

// --- wrk ---

TEST_P(HttpServerTest, AnswersAllThatWrkAsks) {
    if (!has("wrk")) GTEST_SKIP() << "no wrk: apt-get install wrk";
    const Command command = run("wrk -t 2 -c 64 -d 1s " + url("/"));
    EXPECT_EQ(command.status, 0);
    EXPECT_THAT(command.out, Not(HasSubstr("Socket errors"))) << command.out;
    EXPECT_THAT(command.out, Not(HasSubstr("Non-2xx"))) << command.out;
    EXPECT_THAT(command.out, HasSubstr("Requests/sec")) << command.out;
    EXPECT_GE(server->accepted(), 64u);
    EXPECT_TRUE(closes(server->accepted()));
}

// --- bytes cut and joined ---

TEST_P(HttpServerTest, TakesRequestsThatAreCutAnywhere) {
    std::minstd_rand random(1);
    const Fd fd = connect_to(port);
    const int on = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (int round = 0; round < 50; ++round) {
        const std::string body = http_bytes(random() % 6000);
        const std::string request =
            "POST /echo HTTP/1.1\r\nHost: here\r\nContent-Length: " + std::to_string(body.size()) +
            "\r\n\r\n" + body;
        for (size_t at = 0; at < request.size();) {
            const size_t piece = std::min<size_t>(round % 2 && at < 70 ? 1 : random() % 1500 + 1,
                                                  request.size() - at);
            ASSERT_TRUE(send_all(fd.get(), request.data() + at, piece));
            at += piece;
            if (random() % 4 == 0) poll(nullptr, 0, 1);
        }
        const Answer answer = receive_answer(fd.get());
        ASSERT_THAT(answer.header, StartsWith("HTTP/1.1 200 OK\r\n"));
        ASSERT_EQ(answer.body, body);
    }
    EXPECT_EQ(server->accepted(), 1u);
}

TEST_P(HttpServerTest, AnswersPipelinedRequestsInOrder) {
    const Fd fd = connect_to(port);
    std::string requests;
    for (int i = 0; i < 300; ++i) {
        const std::string body = "number " + std::to_string(i);
        requests += "POST /echo HTTP/1.1\r\nContent-Length: " + std::to_string(body.size()) +
                    "\r\n\r\n" + body;
        requests += "GET /bytes?count=" + std::to_string(i) + " HTTP/1.1\r\n\r\n";
    }
    ASSERT_TRUE(send_all(fd.get(), requests));
    for (size_t i = 0; i < 300; ++i) {
        ASSERT_EQ(receive_answer(fd.get()).body, "number " + std::to_string(i));
        ASSERT_EQ(receive_answer(fd.get()).body, http_bytes(i));
    }
}

TEST_P(HttpServerTest, KeepsTheBytesBehindACompleteRequest) {
    const Fd fd = connect_to(port);
    ASSERT_TRUE(send_all(fd.get(), "GET / HTTP/1.1\r\n\r\nPOST /ec"));
    EXPECT_EQ(receive_answer(fd.get()).body, http_bytes(1024));
    ASSERT_TRUE(send_all(fd.get(), "ho HTTP/1.1\r\nContent-Length: 4\r\n\r\nab"));
    ASSERT_TRUE(send_all(fd.get(), "cdGET /bytes?count=3 HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(receive_answer(fd.get()).body, "abcd");
    EXPECT_EQ(receive_answer(fd.get()).body, http_bytes(3));
}

TEST_P(HttpServerTest, ReadsHeaderNamesInWhateverCase) {
    const Fd fd = connect_to(port);
    ASSERT_TRUE(send_all(fd.get(),
                         "POST /echo HTTP/1.1\r\ncontent-length: 5\r\n\r\nfirst"
                         "POST /echo HTTP/1.1\r\nCONTENT-LENGTH: 6\r\n\r\nsecond"));
    EXPECT_EQ(receive_answer(fd.get()).body, "first");
    EXPECT_EQ(receive_answer(fd.get()).body, "second");
    ASSERT_TRUE(send_all(fd.get(), "GET /bytes?count=1 HTTP/1.1\r\ncOnNeCtIoN: CLOSE\r\n\r\n"));
    EXPECT_THAT(receive_answer(fd.get()).header, HasSubstr("\r\nConnection: close\r\n"));
    EXPECT_TRUE(ended(fd.get()));
}

TEST_P(HttpServerTest, SaysThatABodyIsWelcomeBeforeItComes) {
    const Fd fd = connect_to(port);
    ASSERT_TRUE(send_all(
        fd.get(), "POST /echo HTTP/1.1\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\n"));
    EXPECT_EQ(receive_answer(fd.get()).header, "HTTP/1.1 100 Continue\r\n\r\n");
    ASSERT_TRUE(send_all(fd.get(), "yes"));
    EXPECT_EQ(receive_answer(fd.get()).body, "yes");
}

// --- refused ---

TEST_P(HttpServerTest, RefusesWhatIsNoRequestAndCloses) {
    const std::string zero(1, '\0');
    const std::vector<std::pair<std::string, const char*>> cases = {
        {"rubbish\r\n\r\n", "400 Bad Request"},
        {"\r\nGET / HTTP/1.1\r\n\r\n", "400 Bad Request"},
        {"GET / HTTP/1.1\r\nno colon\r\n\r\n", "400 Bad Request"},
        {"GET / HTTP/2.5\r\n\r\n", "400 Bad Request"},
        {"GET / HTTP/1.1\r\nA: " + zero + "\r\n\r\n", "400 Bad Request"},
        {std::string(33, 'M') + " / HTTP/1.1\r\n\r\n", "400 Bad Request"},
        {"POST /echo HTTP/1.1\r\nContent-Length: -1\r\n\r\nx", "400 Bad Request"},
        {"POST /echo HTTP/1.1\r\nContent-Length: 3x\r\n\r\nabc", "400 Bad Request"},
        {"POST /echo HTTP/1.1\r\nContent-Length: 3\r\ncontent-length: 4\r\n\r\nabcd",
         "400 Bad Request"},
        {"POST /echo HTTP/1.1\r\nContent-Length: 99999999999999999999\r\n\r\n", "400 Bad Request"},
        {"POST /echo HTTP/1.1\r\nContent-Length: 5000000\r\n\r\n", "413 Content Too Large"},
        {"POST /echo HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
         "501 Not Implemented"},
        {"GET / HTTP/1.1\r\nA: " + std::string(70'000, 'a'), "431 Request Header Fields Too Large"},
    };
    for (const auto& [request, status] : cases) {
        const Fd fd = connect_to(port);
        ASSERT_TRUE(send_all(fd.get(), request + "and what nobody reads any more"));
        EXPECT_EQ(all_until_end(fd.get()),
                  std::string("HTTP/1.1 ") + status +
                      "\r\nContent-Type: text/plain\r\nContent-Length: 0\r\nConnection: "
                      "close\r\n\r\n")
            << request.substr(0, 80);
    }
    EXPECT_TRUE(closes(cases.size()));
}

TEST_P(HttpServerTest, AnswersWhatCameBeforeARefusedRequest) {
    const Fd fd = connect_to(port);
    ASSERT_TRUE(send_all(fd.get(),
                         "GET /bytes?count=2 HTTP/1.1\r\n\r\nrubbish\r\n\r\n"
                         "GET /bytes?count=7 HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(receive_answer(fd.get()).body, http_bytes(2));
    EXPECT_THAT(all_until_end(fd.get()), StartsWith("HTTP/1.1 400 Bad Request\r\n"));
}

// --- hard peers ---

TEST_P(HttpServerTest, ServesOthersWhileAPeerDoesNotReadItsAnswers) {
    const Fd stuck = connect_to(port);
    for (int i = 0; i < 20; ++i)
        ASSERT_TRUE(send_all(stuck.get(), "GET /bytes?count=1000000 HTTP/1.1\r\n\r\n"));
    std::vector<Fd> others;  // both workers get some
    for (int i = 0; i < 8; ++i) {
        others.push_back(connect_to(port));
        ASSERT_TRUE(send_all(others.back().get(), "GET / HTTP/1.1\r\n\r\n"));
    }
    for (const Fd& other : others) EXPECT_EQ(receive_answer(other.get()).body, http_bytes(1024));
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(receive_answer(stuck.get()).body, http_bytes(kMegabyte)) << i;
}

TEST_P(HttpServerTest, OutlivesPeersThatGoAtAnyMoment) {
    std::minstd_rand random(7);
    const std::string request = "POST /echo HTTP/1.1\r\nContent-Length: 1000\r\n\r\n" +
                                http_bytes(1000) + "GET /bytes?count=300000 HTTP/1.1\r\n\r\n";
    for (int i = 0; i < 300; ++i) {
        Fd fd = connect_to(port);
        ASSERT_TRUE(fd);
        send_all(fd.get(), request.data(), random() % (request.size() + 1));
        if (random() % 3 == 0) {
            char some[500];
            recv(fd.get(), some, random() % sizeof some, MSG_DONTWAIT);
        }
        if (random() % 2) fd.reset();
    }
    const Fd fd = connect_to(port);
    ASSERT_TRUE(send_all(fd.get(), "GET / HTTP/1.1\r\n\r\n"));
    EXPECT_EQ(receive_answer(fd.get()).body, http_bytes(1024));
    EXPECT_TRUE(closes(300));
}

TEST_P(HttpServerTest, StopsInTheMiddleOfAnswers) {
    std::vector<Fd> peers;
    for (int i = 0; i < 20; ++i) {
        peers.push_back(connect_to(port));
        send_all(peers.back().get(), i % 2
                                         ? "GET /bytes?count=9000000 HTTP/1.1\r\n\r\n"
                                         : "POST /echo HTTP/1.1\r\nContent-Length: 9\r\n\r\nhalf");
    }
    EXPECT_EQ(receive(peers[1].get(), 15), "HTTP/1.1 200 OK");
    server.reset();
    for (const Fd& peer : peers) all_until_end(peer.get());
}
