// The HTTPS half, against servers in this process that do what a test tells them, and against the
// openssl tool and nginx. What is trusted is the test's own.

#include <ztlib/network/http_client.h>

#include <tests/network/http_peers.h>
#include <tests/network/test_ca.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/program.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <memory>

using namespace zt_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

const zt::HttpsTrust& zt::https_trust() { return Trust::current(); }

// Before OpenSSL is first used, which is before main().
[[gnu::constructor(101)]] static void allow_old_tls_versions() {
    setenv("OPENSSL_CONF", LAX_OPENSSL_CONFIGURATION, 1);
}

namespace {

constexpr const char* kLoopback = "127.0.0.1";

const std::string kAnswer =
    "HTTP/1.1 200 All right\r\n"
    "Server: scripted\r\n"
    "Content-Length: 11\r\n"
    "\r\n"
    "hello world";

const std::string kDump =
    "- dump http document: HTTP/1.1 200 (3) All right\n"
    "\tContent-Length:11\n"
    "\tServer:scripted\n"
    "- get params -\n"
    "- body_pos 11 -\n"
    "- body -\nhello world\n";

struct Release {
    void operator()(htmldoc* d) const { https_free_request(d); }
};
using Answer = std::unique_ptr<htmldoc, Release>;

Answer post(int port, const std::string& body = "x") {
    return Answer(
        https_post_request(kLoopback, port, "/", body.data(), static_cast<unsigned>(body.size())));
}
Answer get(int port) { return Answer(https_get_request(kLoopback, port, "/")); }

void expect_the_answer(const htmldoc* d) {
    ASSERT_NE(d, nullptr);
    EXPECT_STREQ(d->method, "HTTP/1.1");
    EXPECT_STREQ(d->url, "200");
    EXPECT_STREQ(d->protocol, "All right");
    EXPECT_THAT(headers_of(*d), ElementsAre("Content-Length=11", "Server=scripted"));
    EXPECT_EQ(body_of(*d), "hello world");
    EXPECT_EQ(d->body_ok, 1);
}

// A connection that is verified, and nothing else.
bool connects(int port) {
    SSL* ssl = https_connect(kLoopback, port);
    if (!ssl) return false;
    const Fd fd(SSL_get_fd(ssl));
    https_close(ssl);
    return true;
}

TlsServer::Script answering(const std::string& text) {
    return [text](SSL* ssl) {
        receive_until(ssl, "\r\n\r\n");
        send_all(ssl, text);
        receive_rest(ssl);
    };
}

void do_nothing(SSL* ssl) { receive_rest(ssl); }

// Lines of OpenSSL's queue: thread, "error", code, library, function, reason, file, line.
constexpr const char* kQueueLines = "([0-9A-F]+:error:[0-9A-F]+:[^\n]*\n)+";

// One root, and what it has issued. The client trusts the root, and the server's certificate.
struct HttpsClient : testing::Test {
    static inline const Identity root{"root", kAuthority};
    static inline const Identity server{"server", {}, &root};
    static inline const Identity sibling{"sibling", {}, &root};
    static inline const Identity expired{"expired", kExpired, &root};

    Trust trust{root, server};
};

}  // namespace

// --- requests and answers ---

TEST_F(HttpsClient, PostsExactlyTheseBytesAndPrintsTheAnswer) {
    std::string request;
    const TlsServer peer(server, [&](SSL* ssl) {
        request = receive_until(ssl, "\r\n\r\n");
        send_all(ssl, kAnswer);
        request += receive_rest(ssl);
    });
    const CapturedStderr err;
    expect_the_answer(
        Answer(https_post_request(kLoopback, peer.port(), "/in?x=y", "<a>1</a>", 8)).get());
    EXPECT_EQ(err.text(), kDump);
    EXPECT_TRUE(eventually([&] { return peer.served() == 1; }));
    EXPECT_EQ(request, "POST /in?x=y HTTP/1.0\r\nContent-Length: 8\r\n\r\n<a>1</a>");
}

TEST_F(HttpsClient, GetsWithAPostLineWithoutALength) {
    std::string request;
    const TlsServer peer(server, [&](SSL* ssl) {
        request = receive_until(ssl, "\r\n\r\n");
        send_all(ssl, kAnswer);
        request += receive_rest(ssl);
    });
    const CapturedStderr err;
    expect_the_answer(Answer(https_get_request(kLoopback, peer.port(), "/list?x=y")).get());
    EXPECT_EQ(err.text(), kDump);
    EXPECT_TRUE(eventually([&] { return peer.served() == 1; }));
    EXPECT_EQ(request, "POST /list?x=y HTTP/1.0\r\n\r\n");
}

TEST_F(HttpsClient, PostsAsManyBytesAsItIsTold) {
    struct Case {
        const char* body;
        unsigned length;
    };
    for (const Case& c :
         {Case{"abcdef", 3}, Case{"ab\0cd", 5}, Case{"unread", 0}, Case{nullptr, 0}}) {
        std::string request;
        const TlsServer peer(server, [&](SSL* ssl) {
            request = receive_until(ssl, "\r\n\r\n");
            send_all(ssl, kAnswer);
            request += receive_rest(ssl);
        });
        const CapturedStderr err;
        expect_the_answer(
            Answer(https_post_request(kLoopback, peer.port(), "", c.body, c.length)).get());
        EXPECT_TRUE(eventually([&] { return peer.served() == 1; }));
        EXPECT_EQ(request, "POST  HTTP/1.0\r\nContent-Length: " + std::to_string(c.length) +
                               "\r\n\r\n" + std::string(c.body ? c.body : "", c.length));
    }
}

TEST_F(HttpsClient, CarriesMuchBothWays) {
    std::string much(3 << 20, '\0');
    for (size_t i = 0; i < much.size(); ++i)
        much[i] = static_cast<char>('a' + (i * 7 + i / 251) % 26);
    std::string got(much.size(), '\0');
    const TlsServer peer(server, [&](SSL* ssl) {
        receive_until(ssl, "\r\n\r\n");
        for (size_t at = 0; at < got.size();) {
            const int n = SSL_read(ssl, got.data() + at, static_cast<int>(got.size() - at));
            if (n <= 0) return;
            at += static_cast<size_t>(n);
        }
        send_all(ssl, "HTTP/1.0 200 OK\r\nContent-Length: " + std::to_string(much.size()) +
                          "\r\n\r\n" + much);
        receive_rest(ssl);
    });
    const CapturedStderr err;
    const Answer answer = post(peer.port(), much);
    ASSERT_TRUE(answer);
    EXPECT_TRUE(body_of(*answer) == much);
    EXPECT_TRUE(got == much);
}

TEST_F(HttpsClient, ReadsAnAnswerThatComesByteByByteInRecordsOfItsOwn) {
    const TlsServer peer(server, [](SSL* ssl) {
        receive_until(ssl, "\r\n\r\n");
        for (const char byte : kAnswer) SSL_write(ssl, &byte, 1);
        receive_rest(ssl);
    });
    const CapturedStderr err;
    expect_the_answer(post(peer.port()).get());
    expect_the_answer(get(peer.port()).get());
}

TEST_F(HttpsClient, ReadsAnAnswerThatIsCutAnywhere) {
    std::atomic<size_t> cut{1};
    const TlsServer peer(server, [&](SSL* ssl) {
        receive_until(ssl, "\r\n\r\n");
        send_all(ssl, kAnswer.substr(0, cut));
        send_all(ssl, kAnswer.substr(cut));
        receive_rest(ssl);
    });
    const CapturedStderr err;
    for (; cut < kAnswer.size(); ++cut) {
        expect_the_answer(get(peer.port()).get());
        EXPECT_TRUE(eventually([&] { return peer.served() == static_cast<int>(cut); }));
    }
}

TEST_F(HttpsClient, TakesAnAnswerWithoutALengthAsFarAsItCameWithItsHeader) {
    for (const char* body : {"", "some text"}) {
        const TlsServer peer(server,
                             answering(std::string("HTTP/1.0 200 OK\r\nA: b\r\n\r\n") + body));
        const CapturedStderr err;
        const Answer answer = post(peer.port());
        ASSERT_TRUE(answer);
        EXPECT_EQ(body_of(*answer), body);
    }
}

TEST_F(HttpsClient, ReadsAtMost1500BytesAtOnce) {
    const std::string header = "HTTP/1.0 200 OK\r\n\r\n";
    const TlsServer peer(server, answering(header + std::string(5000, 'x')));
    const CapturedStderr err;
    const Answer answer = post(peer.port());
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->body.length, 1500 - header.size());
}

TEST_F(HttpsClient, ReadsARefusedAnswerToItsEndAndSaysSoWithEachPiece) {
    const std::string bad = "HTTP/1.0 200 OK\r\nno colon\r\n\r\n";
    // Once the start line was understood, the next look takes it for a header line.
    const std::string reason = "\nparse options (can't find : in 'no colon')\n";
    const std::string again = "\nparse options (can't find : in 'HTTP/1.0 200 OK')\n";
    bool read_to_the_end = false;
    const TlsServer peer(server, [&](SSL* ssl) {
        receive_until(ssl, "\r\n\r\n");
        send_all(ssl, bad);
        send_all(ssl, "more");
        send_all(ssl, kAnswer);
        SSL_shutdown(ssl);
        read_to_the_end = receive_rest(ssl).empty();
    });
    const CapturedStderr err;
    EXPECT_FALSE(get(peer.port()));
    EXPECT_EQ(err.text(), "htmldoc_failed: request:\n" + bad + reason +
                              "htmldoc_failed: request:\n" + bad + "more" + again +
                              "htmldoc_failed: request:\n" + bad + "more" + kAnswer + again);
    EXPECT_TRUE(eventually([&] { return peer.served() == 1; }));
    EXPECT_TRUE(read_to_the_end);
}

TEST_F(HttpsClient, RefusesABodyOfMoreThan31BitsLikeOneThatNoMemoryHolds) {
    const TlsServer peer(server, do_nothing);
    const CapturedStderr err;
    EXPECT_EQ(https_post_request(kLoopback, peer.port(), "/", "x", 1U << 31), nullptr);
    EXPECT_EQ(err.text(), "realloc(): Cannot allocate memory\n");
}

// --- whom it trusts ---

TEST_F(HttpsClient, ConnectsToTheServerWithTheRightChainAndTheRightFingerprint) {
    std::string received;
    const TlsServer peer(server, [&](SSL* ssl) {
        received = receive_until(ssl, "ping");
        send_all(ssl, "pong");
        receive_rest(ssl);
        EXPECT_NE(SSL_get_shutdown(ssl) & SSL_RECEIVED_SHUTDOWN, 0);
    });
    const CapturedStderr err;
    SSL* ssl = https_connect(kLoopback, peer.port());
    ASSERT_NE(ssl, nullptr);
    EXPECT_GE(SSL_version(ssl), TLS1_2_VERSION);
    EXPECT_EQ(SSL_write(ssl, "ping", 4), 4);
    char text[4];
    EXPECT_EQ(SSL_read(ssl, text, 4), 4);
    EXPECT_EQ(std::string(text, 4), "pong");

    const Fd fd(SSL_get_fd(ssl));
    https_close(ssl);
    EXPECT_NE(local_port(fd.get()), 0);  // still open: else this would abort
    shutdown(fd.get(), SHUT_RDWR);
    EXPECT_TRUE(eventually([&] { return peer.served() == 1; }));
    EXPECT_EQ(received, "ping");
    EXPECT_EQ(err.text(), "");
}

TEST_F(HttpsClient, RefusesAnotherCertificateOfTheSameRoot) {
    const TlsServer peer(sibling, do_nothing);
    CapturedStderr err;
    EXPECT_EQ(https_connect(kLoopback, peer.port()), nullptr);
    EXPECT_EQ(err.take(), "not norv cert !\n");
    EXPECT_FALSE(post(peer.port()));
    EXPECT_EQ(err.take(), "not norv cert !\n");
    EXPECT_FALSE(get(peer.port()));
    EXPECT_EQ(err.take(), "not norv cert !\n");
}

TEST_F(HttpsClient, RefusesAFingerprintThatDiffersInAnyByte) {
    const TlsServer peer(server, do_nothing);
    const CapturedStderr err;
    for (unsigned char& byte : Trust::current().fingerprint) {
        byte ^= 1;
        EXPECT_FALSE(connects(peer.port()));
        byte ^= 1;
    }
    EXPECT_TRUE(connects(peer.port()));
}

TEST_F(HttpsClient, RefusesAChainToAnotherRootWhateverTheFingerprint) {
    const Identity other_root("root", kAuthority);
    const Identity other("server", {}, &other_root);
    const Identity alone("server", {});
    for (const Identity* stranger : {&other, &alone}) {
        trust.pin(*stranger);
        const TlsServer peer(*stranger, do_nothing, {other_root});
        const CapturedStderr err;
        EXPECT_FALSE(connects(peer.port()));
        EXPECT_THAT(err.text(), testing::ContainsRegex(std::string("^") + kQueueLines + "$"));
        EXPECT_THAT(err.text(), HasSubstr("certificate verify failed"));
        EXPECT_THAT(err.text(), Not(HasSubstr("norv")));
    }
}

TEST_F(HttpsClient, AcceptsAnExpiredCertificateWithTheRightFingerprint) {
    const TlsServer peer(expired, answering(kAnswer));
    const CapturedStderr err;
    trust.pin(expired);
    expect_the_answer(post(peer.port()).get());
    EXPECT_EQ(err.text(), kDump);
}

TEST_F(HttpsClient, RefusesAnExpiredCertificateWithAnotherFingerprint) {
    const TlsServer peer(expired, do_nothing);
    const CapturedStderr err;
    EXPECT_FALSE(connects(peer.port()));
    EXPECT_EQ(err.text(), "not norv cert !\n");
}

TEST_F(HttpsClient, AcceptsAnExpiredRoot) {
    const Identity old_root("root", {.is_authority = true, .from = -2 * kDay, .to = -kDay});
    const Identity its_server("server", {}, &old_root);
    const Trust old_trust(old_root, its_server);
    const TlsServer peer(its_server, do_nothing);
    const CapturedStderr err;
    EXPECT_TRUE(connects(peer.port()));
    EXPECT_EQ(err.text(), "");
}

TEST_F(HttpsClient, RefusesACertificateThatIsNotValidYet) {
    const Identity early("early", {.from = kDay, .to = 2 * kDay}, &root);
    trust.pin(early);
    const TlsServer peer(early, do_nothing);
    const CapturedStderr err;
    EXPECT_FALSE(connects(peer.port()));
    EXPECT_THAT(err.text(), HasSubstr("certificate verify failed"));
}

TEST_F(HttpsClient, RefusesAnErrorDeeperThanFiveAndPardonsItUpToThere) {
    // The server's certificate at depth 0, authorities at 1 to 6, the root at 7.
    for (const int expired_depth : {0, 1, 5, 6}) {
        std::vector<Identity> chain;
        const Identity* issuer = &root;
        chain.reserve(6);
        for (int depth = 6; depth > 0; --depth) {
            Identity::Terms terms = kAuthority;
            if (depth == expired_depth) terms.from = -2 * kDay, terms.to = -kDay;
            chain.emplace_back("authority " + std::to_string(depth), terms, issuer);
            issuer = &chain.back();
        }
        const Identity leaf("server", {}, issuer);
        trust.pin(leaf);
        const TlsServer peer(leaf, do_nothing, chain);
        const CapturedStderr err;
        EXPECT_EQ(connects(peer.port()), expired_depth <= 5) << expired_depth;
        EXPECT_THAT(err.text(), expired_depth <= 5 ? testing::Matcher<std::string>("")
                                                   : HasSubstr("certificate verify failed"));
    }
}

TEST_F(HttpsClient, SpeaksTls12AndNewerAloneWhateverTheHostAllows) {
    const CapturedStderr err;
    for (const int newest : {TLS1_2_VERSION, TLS1_3_VERSION}) {
        const TlsServer peer(server, do_nothing, {}, newest);
        SSL* ssl = https_connect(kLoopback, peer.port());
        ASSERT_NE(ssl, nullptr);
        EXPECT_EQ(SSL_version(ssl), newest);
        const Fd fd(SSL_get_fd(ssl));
        https_close(ssl);
    }
    EXPECT_EQ(err.text(), "");
    for (const int newest : {TLS1_VERSION, TLS1_1_VERSION}) {
        const TlsServer peer(server, do_nothing, {}, newest);
        CapturedStderr refused;
        EXPECT_FALSE(connects(peer.port()));
        EXPECT_THAT(refused.text(), testing::ContainsRegex(std::string("^") + kQueueLines + "$"));
        EXPECT_EQ(peer.handshakes(), 0);
    }
}

// --- connections that fail or end ---

TEST_F(HttpsClient, ReturnsNothingAndSaysNothingWithoutAConnection) {
    const CapturedStderr err;
    const Leftovers leftovers;
    const uint16_t port = free_port();
    EXPECT_FALSE(connects(port));
    EXPECT_FALSE(post(port));
    EXPECT_FALSE(get(port));
    for (const char* text : {"localhost", "", "256.1.1.1", "127.0.0.1.1"})
        EXPECT_EQ(https_connect(text, port), nullptr);
    const FailingCall fault("socket", EMFILE);
    EXPECT_FALSE(connects(port));
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpsClient, RepeatsAConnectThatASignalInterrupts) {
    const TlsServer peer(server, do_nothing);
    const FailingCall fault("connect", EINTR, 0, true);
    EXPECT_TRUE(connects(peer.port()));
    EXPECT_TRUE(fault.hit());
}

TEST_F(HttpsClient, TakesThePortAsSixteenBits) {
    const TlsServer peer(server, do_nothing);
    EXPECT_TRUE(connects(peer.port() + 3 * 65536));
}

TEST_F(HttpsClient, PrintsTheErrorsOfItsOwnConnectionAlone) {
    const CapturedStderr err;
    ERR_raise(ERR_LIB_SSL, SSL_R_NO_SHARED_CIPHER);
    EXPECT_FALSE(connects(free_port()));
    EXPECT_EQ(err.text(), "");

    ERR_raise(ERR_LIB_SSL, SSL_R_NO_SHARED_CIPHER);
    const TlsServer peer(server, do_nothing);
    EXPECT_TRUE(connects(peer.port()));
    EXPECT_EQ(err.text(), "");
}

TEST_F(HttpsClient, ReturnsNothingWhenThePeerEndsTheHandshake) {
    const ScriptedServer at_once(0, [](Fd&) {});
    const ScriptedServer after_hello(0, [](Fd& peer) { receive(peer.get(), 64); });
    const ScriptedServer with_reset(0, [](Fd& peer) {
        receive(peer.get(), 64);
        peer.reset();
    });
    const ScriptedServer no_tls(0, [](Fd& peer) {
        send_all(peer.get(), "HTTP/1.0 400 Bad Request\r\n\r\n");
        receive_rest(peer.get());
    });
    for (const ScriptedServer* peer : {&at_once, &after_hello, &no_tls}) {
        CapturedStderr err;
        EXPECT_FALSE(connects(peer->port()));
        err.take();  // nothing but the queue, which may be empty when the connection broke
        EXPECT_FALSE(post(peer->port()));
        EXPECT_FALSE(get(peer->port()));
        EXPECT_THAT(err.text(), testing::Not(HasSubstr("norv")));
    }
}

TEST_F(HttpsClient, ReturnsNothingWhenThePeerEndsTheConnectionSilently) {
    // After the handshake, then within header and body; orderly TLS ends are no better.
    for (const bool says_goodbye : {false, true}) {
        for (const size_t length : {size_t{0}, size_t{1}, size_t{20}, kAnswer.find("\r\n\r\n") + 3,
                                    kAnswer.size() - 11, kAnswer.size() - 1}) {
            const TlsServer peer(server, [&](SSL* ssl) {
                receive_until(ssl, "\r\n\r\n");
                send_all(ssl, kAnswer.substr(0, length));
                if (says_goodbye) SSL_shutdown(ssl);
                shutdown(SSL_get_fd(ssl), SHUT_WR);
                receive_rest(ssl);
            });
            const CapturedStderr err;
            EXPECT_FALSE(post(peer.port())) << length;
            EXPECT_EQ(ERR_peek_error(), 0u) << "the next look at the queue is the caller's";
            EXPECT_FALSE(get(peer.port())) << length;
            EXPECT_EQ(err.text(), "");
        }
    }
}

TEST_F(HttpsClient, ReturnsNothingWhenThePeerIsGoneBeforeTheRequest) {
    const TlsServer peer(server, [](SSL* ssl) { Fd(dup(SSL_get_fd(ssl))).reset(); });
    const CapturedStderr err;
    for (int round = 0; round < 10; ++round)
        EXPECT_FALSE(post(peer.port(), std::string(1 << 20, 'x')));
    EXPECT_EQ(err.text(), "");
}

TEST_F(HttpsClient, ClosesAConnectionWhosePeerIsGoneWithoutASignal) {
    const TlsServer peer(server, [](SSL* ssl) {
        shutdown(SSL_get_fd(ssl), SHUT_WR);
        const linger now{1, 0};
        setsockopt(SSL_get_fd(ssl), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    });
    SSL* ssl = https_connect(kLoopback, peer.port());
    ASSERT_NE(ssl, nullptr);
    const Fd fd(SSL_get_fd(ssl));
    ASSERT_TRUE(eventually([&] { return peer.served() == 1; }));
    // Now the first write is answered by EPIPE: a signal would end this process.
    https_close(ssl);
    EXPECT_EQ(send(fd.get(), "x", 1, MSG_NOSIGNAL), -1);
    sigset_t pending;
    sigpending(&pending);
    EXPECT_EQ(sigismember(&pending, SIGPIPE), 0);
}

TEST_F(HttpsClient, GivesUpWhenTheRequestDoesNotGoOutAtOnce) {
    const TlsServer peer(server, do_nothing);
    const CapturedStderr err;
    for (const int sent : {1, 0, -1}) {
        const FakedCall part("SSL_write", sent);
        EXPECT_FALSE(post(peer.port()));
        EXPECT_TRUE(part.hit());
    }
    EXPECT_EQ(err.text(), "");
}

TEST_F(HttpsClient, GivesUpWhenAStepOfItsPreparationsFails) {
    const CapturedStderr err;
    const Leftovers leftovers;
    {
        const TlsServer peer(server, do_nothing);
        for (const char* call : {"SSL_CTX_new", "SSL_CTX_ctrl", "X509_STORE_new", "BIO_new_mem_buf",
                                 "PEM_read_bio_X509", "X509_STORE_add_cert", "SSL_new",
                                 "SSL_set_fd", "SSL_get1_peer_certificate", "X509_digest"}) {
            const FailingCall fault(call, ENOMEM, 0, true);
            EXPECT_FALSE(connects(peer.port()));
            EXPECT_TRUE(fault.hit()) << call;
        }
    }
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpsClient, SaysThatItsOwnRootIsNoCertificate) {
    const TlsServer peer(server, do_nothing);
    const CapturedStderr err;
    Trust::current().certificates[0] = "no certificate";
    EXPECT_FALSE(connects(peer.port()));
    EXPECT_THAT(err.text(), HasSubstr("no start line"));
}

TEST_F(HttpsClient, WaitsThroughRealSignals) {
    const Interruptions signals;
    const ScriptedServer slow_handshake(0, [](Fd& peer) {
        Interruptions::let_some_happen();
        receive(peer.get(), 64);
    });
    const CapturedStderr err;
    EXPECT_FALSE(connects(slow_handshake.port()));

    const TlsServer peer(server, [](SSL* ssl) {
        Interruptions::let_some_happen();
        receive_until(ssl, "\r\n\r\n");
        for (size_t at = 0; at < kAnswer.size(); at += 20) {
            Interruptions::let_some_happen();
            send_all(ssl, kAnswer.substr(at, 20));
        }
        receive_rest(ssl);
    });
    expect_the_answer(post(peer.port()).get());
}

TEST_F(HttpsClient, WaitsForTheHandshakeThroughRealSignals) {
    // A relay that holds the server's part of the handshake back.
    const TlsServer peer(server, do_nothing);
    const ScriptedServer relay(0, [&](Fd& client) {
        const Fd onward = connect_to(peer.port());
        std::thread back([&] {
            Interruptions::let_some_happen();
            for (std::string byte; !(byte = receive(onward.get(), 1)).empty();)
                send_all(client.get(), byte);
            shutdown(client.get(), SHUT_WR);
        });
        for (std::string byte; !(byte = receive(client.get(), 1)).empty();)
            send_all(onward.get(), byte);
        shutdown(onward.get(), SHUT_WR);
        back.join();
    });
    const Interruptions signals;
    SSL* ssl = https_connect(kLoopback, relay.port());
    ASSERT_NE(ssl, nullptr);
    const Fd fd(SSL_get_fd(ssl));
    https_close(ssl);
}

TEST_F(HttpsClient, ReturnsNothingAndKeepsNothingWhenMemoryIsOut) {
    const CapturedStderr err;
    const Leftovers leftovers;
    {
        const TlsServer peer(server, answering(kAnswer));
        const auto release = [](htmldoc* d) { https_free_request(d); };
        for_each_failing_allocation(
            [&] { return https_post_request(kLoopback, peer.port(), "/", "x", 1); }, release);
        for_each_failing_allocation([&] { return https_get_request(kLoopback, peer.port(), "/"); },
                                    release);
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpsClient, GivesAnAnswerUpOfWhichMemoryLostAPiece) {
    // Without a length the rest would look like a whole answer.
    const TlsServer peer(server, [](SSL* ssl) {
        receive_until(ssl, "\r\n\r\n");
        send_all(ssl, "HTTP/1.0 200 ");
        send_all(ssl, "OK\r\n\r\nlost");
        send_all(ssl, "HTTP/1.0 500 the rest\r\n\r\nfound");
        receive_rest(ssl);
    });
    const CapturedStderr err;
    const auto release = [](htmldoc* d) { https_free_request(d); };
    for_each_failing_allocation([&] { return https_get_request(kLoopback, peer.port(), "/"); },
                                release);
}

TEST_F(HttpsClient, LeavesNoDescriptorAndNoThread) {
    const CapturedStderr err;
    const Leftovers leftovers;
    {
        const TlsServer good(server, answering(kAnswer));
        const TlsServer bad(sibling, do_nothing);
        expect_the_answer(post(good.port()).get());
        expect_the_answer(get(good.port()).get());
        EXPECT_FALSE(post(bad.port()));
        EXPECT_FALSE(connects(bad.port()));
    }
    EXPECT_TRUE(leftovers.none());
}

TEST_F(HttpsClient, ServesManyThreadsAtOnce) {
    const Identity& shown = server;
    std::vector<std::unique_ptr<TlsServer>> peers;
    for (int i = 0; i < 4; ++i)
        peers.push_back(std::make_unique<TlsServer>(shown, answering(kAnswer)));
    const CapturedStderr err;
    std::atomic<int> right{0};
    std::vector<std::thread> threads;
    for (const auto& peer : peers)
        threads.emplace_back([&] {
            for (int round = 0; round < 5; ++round) {
                const Answer answer = post(peer->port());
                right += answer && body_of(*answer) == "hello world";
            }
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(right, 4 * 5);
}

TEST_F(HttpsClient, IgnoresNull) {
    EXPECT_EQ(https_connect(nullptr, 443), nullptr);
    EXPECT_EQ(https_post_request(nullptr, 443, "/", "x", 1), nullptr);
    EXPECT_EQ(https_post_request(kLoopback, 443, nullptr, "x", 1), nullptr);
    EXPECT_EQ(https_post_request(kLoopback, 443, "/", nullptr, 1), nullptr);
    EXPECT_EQ(https_get_request(nullptr, 443, "/"), nullptr);
    EXPECT_EQ(https_get_request(kLoopback, 443, nullptr), nullptr);
    EXPECT_EQ(cert_verify_callback(1, nullptr), 0);
    https_close(nullptr);
    https_free_request(nullptr);
}

// --- the verification callback by itself ---

namespace {

struct Judgement {
    int result;
    int error;
    bool operator==(const Judgement& other) const {
        return result == other.result && error == other.error;
    }
};

Judgement judge(int preverify_ok, int error, int depth, const Identity* shown) {
    X509_STORE_CTX* context = X509_STORE_CTX_new();
    X509_STORE_CTX_init(context, nullptr, nullptr, nullptr);
    if (shown) X509_STORE_CTX_set_current_cert(context, shown->get());
    X509_STORE_CTX_set_error(context, error);
    X509_STORE_CTX_set_error_depth(context, depth);
    const int result = cert_verify_callback(preverify_ok, context);
    const Judgement judgement{result, X509_STORE_CTX_get_error(context)};
    X509_STORE_CTX_free(context);
    return judgement;
}

}  // namespace

TEST_F(HttpsClient, JudgesByTheErrorAsItStandsAfterTheDepthRule) {
    constexpr int kTooLong = X509_V_ERR_CERT_CHAIN_TOO_LONG;
    for (const Identity* shown : {&server, static_cast<const Identity*>(nullptr)}) {
        for (int error = 0; error <= 80; ++error) {
            const bool pardoned = error == X509_V_ERR_CERT_HAS_EXPIRED ||
                                  error == X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD;
            for (const int depth : {0, 1, 5}) {
                EXPECT_EQ(judge(0, error, depth, shown), (Judgement{pardoned, error})) << error;
                EXPECT_EQ(judge(1, error, depth, shown), (Judgement{1, error})) << error;
            }
            for (const int depth : {6, 7, 100}) {
                EXPECT_EQ(judge(0, error, depth, shown), (Judgement{0, kTooLong})) << error;
                EXPECT_EQ(judge(1, error, depth, shown), (Judgement{1, error})) << error;
            }
        }
    }
}

// --- real servers ---

namespace {

// Files of an identity for a server that reads them.
struct ServerFiles {
    explicit ServerFiles(const Identity& identity)
        : certificate(directory.write("certificate", identity.pem())),
          key(directory.write("key", identity.key_pem())) {}

    ScratchDirectory directory;
    std::string certificate;
    std::string key;
};

}  // namespace

TEST_F(HttpsClient, TalksToTheOpensslTool) {
    if (!is_installed("openssl")) GTEST_SKIP() << "the openssl tool is not installed";
    const ServerFiles files(server);
    const std::string port = std::to_string(free_port());
    for (const char* version : {"-tls1_2", "-tls1_3", "-tls1_1"}) {
        Program tool({"openssl", "s_server", "-accept", "127.0.0.1:" + port, "-cert",
                      files.certificate, "-key", files.key, "-cipher", "ALL:@SECLEVEL=0",
                      "-naccept", "1", "-crlf", version});
        ASSERT_TRUE(eventually([&] { return tool.out().find("ACCEPT") != std::string::npos; }))
            << tool.err();
        const bool is_spoken = version != std::string("-tls1_1");
        tool.write("HTTP/1.1 200 All right\nServer: tool\nContent-Length: 4\n\nok\n");
        const CapturedStderr err;
        const Answer answer = post(std::stoi(port), "<a/>");
        EXPECT_EQ(answer != nullptr, is_spoken) << version << err.text();
        if (!is_spoken) continue;
        EXPECT_TRUE(eventually([&] {
            return tool.out().find("POST / HTTP/1.0\r\nContent-Length: 4\r\n\r\n<a/>") !=
                   std::string::npos;
        })) << tool.out();
    }
}

TEST_F(HttpsClient, TalksToNginx) {
    if (!is_installed("nginx")) GTEST_SKIP() << "nginx is not installed";
    const ServerFiles files(server);
    const uint16_t port = free_port();
    const std::string at = files.directory.path();
    const std::string settings = files.directory.write(
        "settings", "daemon off; master_process off; worker_processes 1; pid " + at +
                        "/pid; error_log stderr; events { worker_connections 64; }"
                        "http { access_log off; client_body_temp_path " +
                        at + "/b; proxy_temp_path " + at + "/p; fastcgi_temp_path " + at +
                        "/f; uwsgi_temp_path " + at + "/u; scgi_temp_path " + at +
                        "/s; server { listen 127.0.0.1:" + std::to_string(port) +
                        " ssl;"
                        "ssl_certificate " +
                        files.certificate + "; ssl_certificate_key " + files.key +
                        "; location / { return 200 \"$request_method $content_length\"; } } }");
    const Program nginx({"nginx", "-c", settings, "-p", at});
    ASSERT_TRUE(eventually([&] { return bool(connect_to(port)); })) << nginx.err();

    const CapturedStderr err;
    const Answer posted = post(port, std::string(12'345, 'x')), got = get(port);
    ASSERT_TRUE(posted && got) << err.text();
    EXPECT_EQ(body_of(*posted), "POST 12345");
    EXPECT_STREQ(posted->protocol, "OK");
    EXPECT_EQ(body_of(*got), "POST ");

    trust.pin(sibling);
    EXPECT_FALSE(get(port));
    EXPECT_THAT(err.text(), testing::EndsWith("not norv cert !\n"));
}
