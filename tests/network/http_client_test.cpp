// The HTTP half, against servers on port 80 of a network of the test's own.

#include <ztlib/network/http_client.h>

#include <ztlib/network/https_trust.hpp>

#include <tests/network/http_peers.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/program.h>

#include <gmock/gmock.h>

#include <openssl/pem.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include <netdb.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

namespace {

constexpr uint16_t kPort = 80;
constexpr const char* kLoopback = "127.0.0.1";

struct Release {
    void operator()(htmldoc* d) const { html_request_free(d); }
};
using Answer = std::unique_ptr<htmldoc, Release>;

Answer get(const char* host = kLoopback, const char* path = "/") {
    return Answer(html_request(host, 80, path));
}
Answer post(const std::string& body, const char* path = "/", const char* host = kLoopback) {
    return Answer(http_post(host, 80, path, body.data(), static_cast<unsigned>(body.size())));
}

const std::string kAnswer =
    "HTTP/1.1 200 All right\r\n"
    "Server: scripted\r\n"
    "Content-Length: 11\r\n"
    "Last:  one \r\n"
    "\r\n"
    "hello world";

void expect_the_answer(const htmldoc* d) {
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(d->method, "HTTP/1.1");
    EXPECT_STREQ(d->url, "200");
    EXPECT_STREQ(d->protocol, "");
    EXPECT_THAT(headers_of(*d), ElementsAre("Server=scripted", "Content-Length=11", "Last=one "));
    EXPECT_EQ(body_of(*d), "hello world");
    EXPECT_EQ(d->body_ok, 1);
}

// Waits for the request's header, and then answers.
ScriptedServer::Script answering(const std::string& text) {
    return [text](Fd& peer) {
        receive_until(peer.get(), "\r\n\r\n");
        send_all(peer.get(), text);
    };
}

// The same, in pieces: each goes out when the client has taken the one before and asks for more.
ScriptedServer::Script answering_in_pieces(const std::vector<std::string>& pieces) {
    return [pieces](Fd& peer) {
        receive_until(peer.get(), "\r\n\r\n");
        const auto asked = [] { return calls_of("recv") + calls_of("__recv_chk"); };
        for (const std::string& piece : pieces) {
            const uint64_t before = asked();
            send_all(peer.get(), piece);
            if (&piece != &pieces.back()) eventually([&] { return asked() > before; });
        }
    };
}

// What a client sent, and an answer in between.
struct Record {
    std::string request;
    ScriptedServer::Script script() {
        return [this](Fd& peer) {
            request = receive_until(peer.get(), "\r\n\r\n");
            send_all(peer.get(), kAnswer);
            request += receive_rest(peer.get());
        };
    }
};

std::vector<std::string> bytes_of(const std::string& text) {
    std::vector<std::string> bytes;
    for (const char c : text) bytes.emplace_back(1, c);
    return bytes;
}

// Every test runs in a network of this process's own, or not at all.
class HttpClient : public testing::Test {
  protected:
    static void SetUpTestSuite() { missing_ = enter_own_network(); }
    void SetUp() override {
        if (!missing_.empty())
            GTEST_SKIP() << missing_ << " failed: port 80 wants a network of the test's own (root)";
    }

  private:
    static inline std::string missing_;
};

}  // namespace

// --- GET ---

TEST_F(HttpClient, GetsWithExactlyTheseBytesAndTwoEmptyLines) {
    Record record;
    {
        const ScriptedServer server(kPort, record.script());
        expect_the_answer(get("one", "/crl/list.pem?a=b").get());
    }
    EXPECT_EQ(record.request, "GET /crl/list.pem?a=b HTTP/1.0\r\nHost:one\r\n\r\n\r\n");
}

TEST_F(HttpClient, SendsHostAndPathOfAnyLengthAsTheyAre) {
    const std::string path = "/" + std::string(100'000, '%') + " s";
    Record record;
    {
        const ScriptedServer server(kPort, record.script());
        expect_the_answer(get(kLoopback, path.c_str()).get());
    }
    EXPECT_EQ(record.request, "GET " + path + " HTTP/1.0\r\nHost:127.0.0.1\r\n\r\n\r\n");
}

TEST_F(HttpClient, IgnoresThePort) {
    const ScriptedServer server(kPort, answering(kAnswer));
    for (const unsigned short port : {0, 1, 81, 65535})
        expect_the_answer(Answer(html_request(kLoopback, port, "/")).get());
    for (const int port : {-1, 0, 81, 70000}) {
        expect_the_answer(Answer(http_post(kLoopback, port, "/", "x", 1)).get());
        EXPECT_TRUE(Fd(_http_post_get_socket(kLoopback, port)));
    }
}

TEST_F(HttpClient, ReturnsWhateverStatusTheServerAnswers) {
    const ScriptedServer server(kPort,
                                answering("HTTP/1.0 404 Not Found\r\nContent-Length: 0\r\n\r\n"));
    for (const Answer& answer : {get(), post("x")}) {
        ASSERT_TRUE(answer);
        EXPECT_STREQ(answer->method, "HTTP/1.0");
        EXPECT_STREQ(answer->url, "404");
        EXPECT_EQ(body_of(*answer), "");
    }
}

TEST_F(HttpClient, TakesAnAnswerWithoutALengthAsFarAsItCameWithItsHeader) {
    for (const char* body : {"", "some text"}) {
        const ScriptedServer server(
            kPort, answering(std::string("HTTP/1.0 200 OK\r\nA: b\r\n\r\n") + body));
        for (const Answer& answer : {get(), post("x")}) {
            ASSERT_TRUE(answer);
            EXPECT_THAT(headers_of(*answer), ElementsAre("A=b"));
            EXPECT_EQ(body_of(*answer), body);
        }
    }
}

TEST_F(HttpClient, ReadsAnAnswerThatIsCutAnywhere) {
    for (size_t cut = 1; cut < kAnswer.size(); ++cut) {
        const ScriptedServer server(
            kPort, answering_in_pieces({kAnswer.substr(0, cut), kAnswer.substr(cut)}));
        expect_the_answer(cut % 2 ? get().get() : post("x").get());
    }
}

TEST_F(HttpClient, ReadsAnAnswerThatComesByteByByte) {
    const ScriptedServer server(kPort, answering_in_pieces(bytes_of(kAnswer)));
    expect_the_answer(get().get());
    expect_the_answer(post("x").get());
}

TEST_F(HttpClient, ReadsAtMost1600BytesOfAGetsAnswerAnd1500OfAPosts) {
    // Without a length, the first piece that has the header's end is all.
    const std::string header = "HTTP/1.0 200 OK\r\n\r\n";
    const ScriptedServer server(kPort, [&](Fd& peer) {
        receive_until(peer.get(), "\r\n\r\n");
        send_all(peer.get(), header + std::string(5000, 'x'));
        receive_rest(peer.get());
    });
    const Answer by_get = get(), by_post = post("x");
    ASSERT_TRUE(by_get && by_post);
    EXPECT_LE(by_get->body.length, 1600 - header.size());
    EXPECT_LE(by_post->body.length, 1500 - header.size());
}

TEST_F(HttpClient, ReturnsNothingForAnAnswerThatIsCutShort) {
    std::atomic<size_t> length{0};
    const ScriptedServer server(kPort, [&](Fd& peer) {
        receive_until(peer.get(), "\r\n\r\n");
        send_all(peer.get(), kAnswer.substr(0, length));
        shutdown(peer.get(), SHUT_WR);
        receive_rest(peer.get());
    });
    const CapturedStderr err;
    for (; length < kAnswer.size(); ++length) {
        EXPECT_FALSE(get()) << length;
        EXPECT_FALSE(post("x")) << length;
    }
    EXPECT_EQ(err.text(), "");
}

TEST_F(HttpClient, ReturnsNothingForAnAnswerThatIsLongerThanAnnounced) {
    const ScriptedServer server(kPort, answering(kAnswer + "!"));
    const CapturedStderr err;
    EXPECT_FALSE(get());
    EXPECT_FALSE(post("x"));
    EXPECT_EQ(err.text(), "");
}

TEST_F(HttpClient, ReturnsNothingForAnAnswerThatIsRefusedAndSaysWhy) {
    const std::string bad = "HTTP/1.0 200 OK\r\nno colon\r\n\r\n";
    const std::string said =
        "htmldoc_failed: request:\n" + bad + "\nparse options (can't find : in 'no colon')\n";
    const ScriptedServer server(kPort, answering(bad));
    CapturedStderr err;
    EXPECT_FALSE(get());
    EXPECT_EQ(err.take(), said);
    EXPECT_FALSE(post("x"));
    EXPECT_EQ(err.take(), said);
}

TEST_F(HttpClient, DoesNotReadOnBehindARefusedAnswer) {
    const ScriptedServer server(kPort, [](Fd& peer) {
        receive_until(peer.get(), "\r\n\r\n");
        send_all(peer.get(), "\r\nno answer");
        receive_rest(peer.get());  // the client ends the connection first
    });
    EXPECT_FALSE(get());
}

TEST_F(HttpClient, ReturnsNothingWhenTheConnectionBreaks) {
    const ScriptedServer server(kPort, [](Fd& peer) {
        receive_until(peer.get(), "\r\n\r\n");
        send_all(peer.get(), kAnswer.substr(0, 40));
        peer.reset();
    });
    const CapturedStderr err;
    EXPECT_FALSE(get());
    EXPECT_FALSE(post("x"));
    EXPECT_EQ(err.text(), "");
}

// --- POST ---

TEST_F(HttpClient, PostsExactlyTheseBytes) {
    Record record;
    {
        const ScriptedServer server(kPort, record.script());
        expect_the_answer(post("<a>1</a>", "/in?x=y").get());
    }
    EXPECT_EQ(record.request,
              "POST /in?x=y HTTP/1.0\r\n"
              "Content-type: application/xml\r\n"
              "Content-Length: 8\r\n"
              "\r\n"
              "<a>1</a>");
}

TEST_F(HttpClient, PostsAsManyBytesAsItIsTold) {
    const auto request_with = [](const std::string& body) {
        return "POST / HTTP/1.0\r\nContent-type: application/xml\r\nContent-Length: " +
               std::to_string(body.size()) + "\r\n\r\n" + body;
    };
    struct Case {
        const char* body;
        unsigned length;
    };
    for (const Case& c :
         {Case{"abcdef", 3}, Case{"ab\0cd", 5}, Case{"", 0}, Case{nullptr, 0}, Case{"unread", 0}}) {
        Record record;
        {
            const ScriptedServer server(kPort, record.script());
            expect_the_answer(Answer(http_post(kLoopback, 80, "/", c.body, c.length)).get());
        }
        EXPECT_EQ(record.request, request_with({c.body ? c.body : "", c.length}));
    }
}

TEST_F(HttpClient, PostsMoreThanTheSystemTakesAtOnce) {
    std::string body(8 << 20, '\0');
    for (size_t i = 0; i < body.size(); ++i) body[i] = static_cast<char>(i * 7 + i / 251);
    Record record;
    {
        const ScriptedServer server(kPort, record.script());
        expect_the_answer(post(body).get());
    }
    EXPECT_TRUE(record.request.ends_with(body));
}

TEST_F(HttpClient, ReleasesPathsWhoseLengthHasSixteenZeroBits) {
    const Leftovers leftovers;
    for (const std::string& path :
         {std::string(), std::string(65536, 'p'), std::string(65537, 'p')}) {
        Record record;
        {
            const ScriptedServer server(kPort, record.script());
            expect_the_answer(post("x", path.c_str()).get());
        }
        EXPECT_THAT(record.request, StartsWith("POST " + path + " HTTP/1.0\r\n"));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpClient, RefusesABodyOfMoreThan31BitsLikeOneThatNoMemoryHolds) {
    std::string request;
    const Leftovers leftovers;
    {
        const ScriptedServer server(kPort, [&](Fd& peer) { request = receive_rest(peer.get()); });
        for (const unsigned length : {1U << 31, ~0U}) {
            const CapturedStderr err;
            EXPECT_EQ(http_post(kLoopback, 80, "/", "x", length), nullptr);
            EXPECT_EQ(err.text(), "realloc(): Cannot allocate memory\n");
        }
    }
    EXPECT_EQ(request, "");
    EXPECT_TRUE(leftovers.none());
}

// --- names and addresses ---

TEST_F(HttpClient, SaysThatANameDoesNotResolve) {
    CapturedStderr err;
    const FailingCall fault("getaddrinfo", EHOSTDOWN);
    EXPECT_FALSE(get("nowhere"));
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(err.take(), "failed to resolve: nowhere, Host is down\n");

    errno = 0;
    EXPECT_FALSE(get("no name at all"));
    EXPECT_THAT(err.take(), StartsWith("failed to resolve: no name at all, "));

    EXPECT_FALSE(post("x", "/", "no name at all"));
    EXPECT_EQ(_http_post_get_socket("no name at all", 80), -1);
    EXPECT_EQ(err.take(), "");
}

TEST_F(HttpClient, SaysThatANameHasNoAddress) {
    CapturedStderr err;
    {
        const FakedCall empty("getaddrinfo", 0);
        EXPECT_FALSE(get("nobody"));
        EXPECT_EQ(err.take(), "failed to connect to nobody\n");
    }
    const FakedCall empty("getaddrinfo", 0);
    EXPECT_EQ(_http_post_get_socket("nobody", 80), -3);
    EXPECT_EQ(err.take(), "");
}

TEST_F(HttpClient, GetsFromTheFirstAddressAloneAndPostsToTheFirstThatConnects) {
    addrinfo hints{}, *found = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    ASSERT_EQ(getaddrinfo("both", "80", &hints, &found), 0);
    std::vector<std::string> addresses;
    for (const addrinfo* a = found; a; a = a->ai_next) {
        char text[64];
        getnameinfo(a->ai_addr, a->ai_addrlen, text, sizeof text, nullptr, 0, NI_NUMERICHOST);
        addresses.emplace_back(text);
    }
    freeaddrinfo(found);
    ASSERT_EQ(addresses.size(), 2u);

    const CapturedStderr err;
    const Leftovers leftovers;
    {
        const ScriptedServer second(kPort, answering(kAnswer), addresses[1].c_str());
        EXPECT_FALSE(get("both"));
        expect_the_answer(post("x", "/", "both").get());
    }
    {
        const ScriptedServer first(kPort, answering(kAnswer), addresses[0].c_str());
        expect_the_answer(get("both").get());
        expect_the_answer(post("x", "/", "both").get());
    }
    EXPECT_EQ(_http_post_get_socket("both", 80), -3);
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpClient, ReturnsNothingAndSaysNothingWhenNobodyListens) {
    const CapturedStderr err;
    const Leftovers leftovers;
    EXPECT_FALSE(get());
    EXPECT_FALSE(post("x"));
    EXPECT_EQ(_http_post_get_socket(kLoopback, 80), -3);
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpClient, ReturnsNothingAndSaysNothingWhenThereIsNoSocket) {
    const CapturedStderr err;
    const Leftovers leftovers;
    for (const auto& ask : {std::function<bool()>([] { return get() != nullptr; }),
                            std::function<bool()>([] { return post("x") != nullptr; })}) {
        const FailingCall fault("socket", EMFILE);
        EXPECT_FALSE(ask());
        EXPECT_TRUE(fault.hit());
    }
    const FailingCall fault("socket", EMFILE);
    EXPECT_EQ(_http_post_get_socket("both", 80), -2);  // at once, whatever addresses are left
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpClient, GivesItsConnectedSocketAway) {
    Record record;
    {
        const ScriptedServer server(kPort, record.script());
        const Fd fd(_http_post_get_socket("one", 80));
        ASSERT_TRUE(fd);
        EXPECT_TRUE(send_all(fd.get(), "mine\r\n\r\n"));
        EXPECT_EQ(receive(fd.get(), kAnswer.size()), kAnswer);
        shutdown(fd.get(), SHUT_WR);
        EXPECT_TRUE(ended(fd.get()));
    }
    EXPECT_EQ(record.request, "mine\r\n\r\n");
}

// --- what goes wrong on the way ---

TEST_F(HttpClient, GivesUpWhenTheRequestDoesNotGoOutAtOnce) {
    const Leftovers leftovers;
    std::string request;
    {
        const ScriptedServer server(kPort, [&](Fd& peer) { request += receive_rest(peer.get()); });
        const CapturedStderr err;
        for (const int sent : {0, 3}) {
            const FakedCall part("send", sent);
            EXPECT_FALSE(get());
            EXPECT_TRUE(part.hit());
            const FakedCall other("send", sent);
            EXPECT_FALSE(post("x"));
        }
        const FailingCall broken("send", EPIPE);
        EXPECT_FALSE(get());
        EXPECT_EQ(err.text(), "");
    }
    EXPECT_EQ(request, "");
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpClient, GivesUpWhenReceivingFails) {
    const Leftovers leftovers;
    {
        const ScriptedServer server(kPort, answering(kAnswer));
        for (const char* call : {"recv", "__recv_chk"}) {
            const FailingCall fault(call, EIO, 0, true);
            const Answer answer = get();
            EXPECT_EQ(answer == nullptr, fault.hit());
        }
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpClient, RepeatsCallsThatASignalInterrupts) {
    const ScriptedServer server(kPort, answering(kAnswer));
    for (const char* call : {"connect", "send", "recv"}) {
        {
            const FailingCall fault(call, EINTR, 0, true);
            expect_the_answer(get().get());
            EXPECT_TRUE(fault.hit()) << call;
        }
        const FailingCall fault(call, EINTR, 0, true);
        expect_the_answer(post("x").get());
        EXPECT_TRUE(fault.hit()) << call;
    }
}

TEST_F(HttpClient, WaitsForSlowAnswersThroughRealSignals) {
    const Interruptions signals;
    const ScriptedServer server(kPort, [](Fd& peer) {
        for (size_t at = 0; at < kAnswer.size(); at += 20) {
            Interruptions::let_some_happen();
            send_all(peer.get(), kAnswer.substr(at, 20));
        }
        receive_rest(peer.get());
    });
    expect_the_answer(get().get());
    expect_the_answer(post("x").get());
}

TEST_F(HttpClient, WaitsForAConnectionThroughRealSignals) {
    // The queue of this listener is full, so that a connection waits until somebody is accepted.
    const Fd listener = ScriptedServer::listen_at(kLoopback, kPort);
    listen(listener.get(), 0);
    const Fd in_the_queue = connect_to(kPort);
    ASSERT_TRUE(in_the_queue);

    const Interruptions signals;
    std::thread server([&] {
        Interruptions::let_some_happen();
        const Fd first(accept(listener.get(), nullptr, nullptr));
        Fd second(accept(listener.get(), nullptr, nullptr));
        answering(kAnswer)(second);
        receive_rest(second.get());
    });
    expect_the_answer(get().get());
    server.join();
}

TEST_F(HttpClient, OutlivesAPeerThatVanishes) {
    const ScriptedServer server(kPort, [](Fd& peer) {
        shutdown(peer.get(), SHUT_WR);
        peer.reset();
    });
    const std::string body(4 << 20, 'x');
    for (int round = 0; round < 20; ++round) {
        EXPECT_FALSE(get());
        EXPECT_FALSE(post(body));  // a signal would end this process
    }
}

TEST_F(HttpClient, ReturnsNothingAndKeepsNothingWhenMemoryIsOut) {
    const CapturedStderr err;
    const Leftovers leftovers;
    {
        const ScriptedServer server(kPort, answering(kAnswer));
        const auto release = [](htmldoc* d) { html_request_free(d); };
        for_each_failing_allocation([] { return html_request(kLoopback, 80, "/"); }, release);
        for_each_failing_allocation([] { return http_post(kLoopback, 80, "/", "x", 1); }, release);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpClient, IgnoresNull) {
    EXPECT_EQ(html_request(nullptr, 80, "/"), nullptr);
    EXPECT_EQ(html_request(kLoopback, 80, nullptr), nullptr);
    EXPECT_EQ(http_post(nullptr, 80, "/", "x", 1), nullptr);
    EXPECT_EQ(http_post(kLoopback, 80, nullptr, "x", 1), nullptr);
    EXPECT_EQ(http_post(kLoopback, 80, "/", nullptr, 1), nullptr);
    EXPECT_EQ(_http_post_get_socket(nullptr, 80), -1);
    html_request_free(nullptr);
}

// --- HTTPS as the build was configured ---

TEST_F(HttpClient, OverTlsTrustsNobodyThatTheBuildWasNotToldOf) {
    if (!is_installed("openssl")) GTEST_SKIP() << "the openssl tool is not installed";
    const ScratchDirectory files;
    ASSERT_EQ(Program({"openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                       "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=stranger", "-keyout",
                       files / "key", "-out", files / "certificate"})
                  .wait(),
              0);
    const Program tool({"openssl", "s_server", "-accept", "127.0.0.1:443", "-cert",
                        files / "certificate", "-key", files / "key", "-quiet"});
    ASSERT_TRUE(eventually([] { return bool(connect_to(443)); })) << tool.err();
    const CapturedStderr err;
    EXPECT_EQ(https_connect(kLoopback, 443), nullptr);
    EXPECT_THAT(err.text(), testing::HasSubstr("certificate verify failed"));
}

TEST_F(HttpClient, OverTlsHasRootsThatAreCertificates) {
    for (const char* pem : zt::https_trust().certificates) {
        BIO* text = BIO_new_mem_buf(pem, -1);
        X509* certificate = PEM_read_bio_X509(text, nullptr, nullptr, nullptr);
        EXPECT_NE(certificate, nullptr);
        X509_free(certificate);
        BIO_free(text);
    }
}

// --- a real server ---

namespace {

class Nginx {
  public:
    Nginx() {
        big_.resize(6'000'000);
        for (size_t i = 0; i < big_.size(); ++i) big_[i] = static_cast<char>(i * 11 + i / 257);
        files_.write("big", big_);
        files_.write("page", "seven!\n");
        files_.write("included", "<!--#echo var=\"request_method\" -->");
        const std::string at = files_.path();
        const std::string settings = files_.write(
            "settings",
            "daemon off; master_process off; worker_processes 1; pid " + at +
                "/pid; error_log stderr;"
                "events { worker_connections 64; }"
                "http { access_log off; client_body_temp_path " +
                at + "/b; proxy_temp_path " + at + "/p; fastcgi_temp_path " + at +
                "/f; uwsgi_temp_path " + at + "/u; scgi_temp_path " + at +
                "/s; server { listen 127.0.0.1:80; root " + at +
                "; location /included { ssi on; ssi_types *; }"
                "location /posted { return 200 \"$content_type $content_length\"; } } }");
        chmod(at.c_str(), 0755);
        program_ =
            std::make_unique<Program>(std::vector<std::string>{"nginx", "-c", settings, "-p", at});
        if (!eventually([] { return bool(connect_to(kPort)); })) ADD_FAILURE() << program_->err();
    }
    const std::string& big() const { return big_; }

  private:
    std::string big_;
    ScratchDirectory files_;
    std::unique_ptr<Program> program_;
};

}  // namespace

TEST_F(HttpClient, TalksToNginx) {
    if (!is_installed("nginx")) GTEST_SKIP() << "nginx is not installed";
    const Leftovers leftovers;
    {
        const Nginx nginx;

        const Answer page = get("one", "/page");
        ASSERT_TRUE(page);
        EXPECT_STREQ(page->method, "HTTP/1.1");
        EXPECT_STREQ(page->url, "200");
        EXPECT_STREQ(htmldoc_getvalue_option(&page->options, "Content-Length"), "7");
        EXPECT_EQ(body_of(*page), "seven!\n");
        EXPECT_THAT(headers_of(*page).front(), StartsWith("Server=nginx"));

        const Answer big = get("one", "/big");
        ASSERT_TRUE(big);
        EXPECT_EQ(body_of(*big), nginx.big());

        const Answer included = get("one", "/included");
        ASSERT_TRUE(included);
        EXPECT_EQ(htmldoc_getvalue_option(&included->options, "Content-Length"), nullptr);
        EXPECT_EQ(body_of(*included), "GET");

        const Answer none = get("one", "/none");
        ASSERT_TRUE(none);
        EXPECT_STREQ(none->url, "404");

        const Answer posted = post("<a>1</a>", "/posted");
        ASSERT_TRUE(posted);
        EXPECT_EQ(body_of(*posted), "application/xml 8");

        const Answer refused = post("<a>1</a>", "/page");
        ASSERT_TRUE(refused);
        EXPECT_STREQ(refused->url, "405");
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpClient, ServesManyThreadsAtOnce) {
    if (!is_installed("nginx")) GTEST_SKIP() << "nginx is not installed";
    const Nginx nginx;
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 6; ++i)
        threads.emplace_back([&] {
            for (int round = 0; round < 20; ++round) {
                const Answer page = get("one", "/page"), posted = post("<a/>", "/posted");
                right += page && body_of(*page) == "seven!\n" && posted &&
                         body_of(*posted) == "application/xml 4";
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(right, 6 * 20);
}
