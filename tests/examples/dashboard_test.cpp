// The dashboard as its users meet it: a real inventory server, a real dashboard, raw connections
// and a real browser. A sanitized build's programs end with a status of their own when they leaked
// or raced, so every status of 0 here says more than that.

#include <tests/support/process.h>
#include <tests/support/program.h>
#include <tests/support/sockets.h>
#include <tests/support/webdriver.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <poll.h>

using namespace zt_test;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char* kInventory = INVENTORY_SERVER;
constexpr const char* kDashboard = DASHBOARD;
constexpr const char* kPage = DASHBOARD_PAGE;
constexpr const char* kDemo = INVENTORY_DEMO;
constexpr const char* kBuild = INVENTORY_BUILD;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr uint64_t kGiB = 1024 * kMiB;

// --- the programs --------------------------------------------------------------------------------

// The number at the end of "listening on 127.0.0.1:7420" or "listening on http://127.0.0.1:7421/".
uint16_t port_in(const Program& program) {
    EXPECT_TRUE(eventually([&] { return program.out().ends_with("\n"); })) << program.err();
    const std::string line = program.out();
    EXPECT_THAT(line, StartsWith("listening on "));
    return static_cast<uint16_t>(std::stoi(line.substr(line.rfind(':') + 1)));
}

struct Report {
    std::string name = "web1";
    std::string system = "Some System 1";
    std::string load = "<one>0.42</one><five>0.40</five><fifteen>0.33</fifteen>";
    uint64_t memory_used = 2 * kGiB;
    uint64_t memory_total = 8 * kGiB;
    uint64_t received = 70 * kMiB;

    std::string text() const {
        return "<report><host><name>" + name + "</name><system>" + system + "</system><load>" +
               load + "</load><memory><total>" + std::to_string(memory_total) +
               "</total><available>" + std::to_string(memory_total - memory_used) +
               "</available></memory><traffic><received>" + std::to_string(received) +
               "</received><sent>512</sent></traffic></host></report>";
    }
};

class Inventory : public Program {
  public:
    explicit Inventory(const std::string& port = "0")
        : Program({kInventory, "--port", port}), port_(port_in(*this)) {}

    std::string port() const { return std::to_string(port_); }

    // Takes a report as from an agent.
    void take(const Report& report) {
        if (!peer_) peer_ = connect_to(port_);
        const std::string text = report.text();
        ASSERT_TRUE(send_all(peer_.get(), length_word(text.size() + 4) + text));
        const std::string word = receive(peer_.get(), 4);
        ASSERT_EQ(word.size(), 4u);
        uint32_t length = 0;
        memcpy(&length, word.data(), sizeof length);
        EXPECT_THAT(receive(peer_.get(), ntohl(length) - 4), HasSubstr("<hosts>"));
    }
    int stop() {
        signal(SIGTERM);
        return wait();
    }

  private:
    static std::string length_word(size_t length) {
        const uint32_t word = htonl(static_cast<uint32_t>(length));
        return {reinterpret_cast<const char*>(&word), sizeof word};
    }

    uint16_t port_;
    Fd peer_;
};

Strings dashboard_command(const std::string& inventory_port, const Strings& options) {
    Strings command = {kDashboard, "--port", "0", "--inventory-port", inventory_port};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

class Dashboard : public Program {
  public:
    explicit Dashboard(const std::string& inventory_port, const Strings& options = {})
        : Program(dashboard_command(inventory_port, options)), port(port_in(*this)) {}
    explicit Dashboard(const Inventory& inventory, const Strings& options = {})
        : Dashboard(inventory.port(), options) {}

    std::string url() const { return "http://" + host() + "/"; }
    std::string host() const { return "127.0.0.1:" + std::to_string(port); }
    int stop(int number = SIGTERM) {
        signal(number);
        return wait();
    }

    const uint16_t port;
};

// --- raw clients ---------------------------------------------------------------------------------

std::string everything(int fd) {
    std::string bytes;
    for (std::string byte; !(byte = receive(fd, 1)).empty();) bytes += byte;
    return bytes;
}

// What the dashboard says to these bytes until it closes.
std::string answer_to(const Dashboard& dashboard, const std::string& request) {
    const Fd socket = connect_to(dashboard.port);
    EXPECT_TRUE(send_all(socket.get(), request));
    return everything(socket.get());
}

std::string body_of(const std::string& answer) {
    const size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? "(no body)" : answer.substr(end + 4);
}

constexpr const char* kHandshake =
    "Upgrade: websocket\r\nConnection: keep-alive, Upgrade\r\nSec-WebSocket-Version: 13\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";

// A WebSocket that a program opened, with no origin unless it is given one.
class Socket {
  public:
    explicit Socket(const Dashboard& dashboard, int room = 0)
        : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (room) setsockopt(fd_.get(), SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        const timeval limit{30, 0};
        setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        const sockaddr_in address = loopback(dashboard.port);
        EXPECT_EQ(connect(fd_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
                  0);
        EXPECT_TRUE(send_all(fd_.get(), "GET /live HTTP/1.1\r\nHost: " + dashboard.host() + "\r\n" +
                                            kHandshake + "\r\n"));
        std::string head;
        while (!head.ends_with("\r\n\r\n")) {
            const std::string byte = receive(fd_.get(), 1);
            if (byte.empty()) break;
            head += byte;
        }
        EXPECT_EQ(head,
                  "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                  "Connection: Upgrade\r\nSec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"
                  "\r\n");
    }

    int fd() const { return fd_.get(); }

    // The next text; others are told by their first byte in hexadecimal, "88:..." for a close
    // frame. Empty when the connection has ended.
    std::string next() {
        const std::string head = receive(fd_.get(), 2);
        if (head.size() < 2) return "";
        const auto first = static_cast<unsigned char>(head[0]);
        size_t length = static_cast<unsigned char>(head[1]);
        if (length == 126) {
            const std::string more = receive(fd_.get(), 2);
            EXPECT_EQ(more[0], '\0');
            length = static_cast<unsigned char>(more[1]);
        }
        EXPECT_LE(length, 255u);
        const std::string payload = receive(fd_.get(), length);
        if (first == 0x81) return payload;
        char kind[8];
        snprintf(kind, sizeof kind, "%02x:", first);
        return kind + payload;
    }

    // The texts up to and with the one that has this in it.
    Strings until(const std::string& part) {
        Strings texts;
        do texts.push_back(next());
        while (texts.back().find(part) == std::string::npos && !texts.back().empty());
        return texts;
    }

    void send_frame(unsigned char first_byte, const std::string& payload) {
        std::string frame = {
            static_cast<char>(first_byte), static_cast<char>(0x80 | payload.size()), 1, 2, 3, 4};
        for (size_t i = 0; i < payload.size(); ++i)
            frame += static_cast<char>(payload[i] ^ (1 + i % 4));
        send_all(fd_.get(), frame);
    }

  private:
    Fd fd_;
};

std::string close_frame(unsigned code) {
    return "88:" + std::string{static_cast<char>(code >> 8), static_cast<char>(code)};
}

// --- HTTP ----------------------------------------------------------------------------------------

TEST(Dashboard, ServesThePageAndNothingElse) {
    const Inventory inventory;
    Dashboard dashboard(inventory);
    const std::string host = "Host: " + dashboard.host() + "\r\n\r\n";
    const std::string page = content_of(kPage);
    const auto ask = [&](const std::string& line) {
        return answer_to(dashboard, line + " HTTP/1.1\r\n" + host);
    };

    const std::string got = ask("GET /");
    EXPECT_THAT(got, StartsWith("HTTP/1.1 200 OK\r\nContent-Type: text/html; charset=utf-8\r\n"
                                "Content-Length: " +
                                std::to_string(page.size()) + "\r\n"));
    EXPECT_THAT(got, HasSubstr("\r\nContent-Security-Policy: default-src 'none';"));
    EXPECT_EQ(body_of(got), page);
    EXPECT_EQ(body_of(ask("GET /?from=bookmark")), page);

    const std::string head = ask("HEAD /");
    EXPECT_EQ(head, got.substr(0, got.size() - page.size()));

    const auto error = [](const std::string& status) {
        return AllOf(StartsWith("HTTP/1.1 " + status + "\r\n"),
                     HasSubstr("\r\nContent-Length: " + std::to_string(status.size() + 1) + "\r\n"),
                     EndsWith("\r\n\r\n" + status + "\n"));
    };
    EXPECT_THAT(ask("GET /favicon.ico"), error("404 Not Found"));
    EXPECT_THAT(ask("DELETE /nothing"), error("404 Not Found"));
    EXPECT_THAT(ask("POST /"),
                AllOf(error("405 Method Not Allowed"), HasSubstr("\r\nAllow: GET, HEAD\r\n")));
    EXPECT_THAT(ask("PUT /live"),
                AllOf(error("405 Method Not Allowed"), HasSubstr("\r\nAllow: GET\r\n")));
    EXPECT_THAT(ask("GET /live"),
                AllOf(error("426 Upgrade Required"), HasSubstr("\r\nUpgrade: websocket\r\n"),
                      HasSubstr("\r\nSec-WebSocket-Version: 13\r\n")));
    EXPECT_THAT(ask("nonsense"), error("400 Bad Request"));
    EXPECT_THAT(ask("GET /?a"), error("400 Bad Request"));
    EXPECT_THAT(answer_to(dashboard, "GET / HTTP/1.1\r\n\r\n"), error("400 Bad Request"));
    EXPECT_THAT(answer_to(dashboard, "GET / HTTP/2.0\r\n" + host), error("400 Bad Request"));
    EXPECT_THAT(answer_to(dashboard, "\r\n\r\n"), error("400 Bad Request"));
    EXPECT_THAT(answer_to(dashboard, std::string("GET /\0 HTTP", 11)), error("400 Bad Request"));
    EXPECT_THAT(answer_to(dashboard, "GET /" + std::string(9000, 'x')),
                error("431 Request Header Fields Too Large"));
    EXPECT_THAT(answer_to(dashboard, "GET / HTTP/1.1\r\nX: " + std::string(200'000, 'x')),
                error("431 Request Header Fields Too Large"));
    EXPECT_EQ(dashboard.stop(), 0);
    EXPECT_EQ(dashboard.err(), "");
}

TEST(Dashboard, TakesARequestInAnyPieces) {
    const Inventory inventory;
    Dashboard dashboard(inventory);
    const Fd socket = connect_to(dashboard.port);
    const int on = 1;
    setsockopt(socket.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (const char byte : "HEAD / HTTP/1.1\r\nHost: " + dashboard.host() + "\r\n\r\n")
        ASSERT_TRUE(send_all(socket.get(), &byte, 1));
    EXPECT_THAT(everything(socket.get()), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(dashboard.stop(), 0);
}

TEST(Dashboard, OpensAWebSocketForItsOwnPagesAlone) {
    const Inventory inventory;
    Dashboard dashboard(inventory);
    const std::string port = ":" + std::to_string(dashboard.port);
    const auto status = [&](const std::string& host, const std::string& origin) {
        const Fd socket = connect_to(dashboard.port);
        send_all(socket.get(),
                 "GET /live HTTP/1.1\r\nHost: " + host + "\r\n" + origin + kHandshake + "\r\n");
        return receive(socket.get(), strlen("HTTP/1.1 101")).substr(strlen("HTTP/1.1 "));
    };
    for (const std::string own : {"127.0.0.1", "localhost", "127.0.0.2"}) {
        EXPECT_EQ(status(own + port, ""), "101") << own;
        EXPECT_EQ(status(own + port, "Origin: http://" + own + port + "\r\n"), "101") << own;
        EXPECT_EQ(status(own + port, "Origin: https://" + own + port + "\r\n"), "101") << own;
        EXPECT_EQ(status(own + port, "origin: HTTP://" + own + port + "\r\n"), "101") << own;
    }
    for (const std::string foreign :
         {"http://127.0.0.1", "http://127.0.0.1:1", "http://localhost", "http://example.org",
          "null", "file://", "http://", "http://evil@127.0.0.1", "http://127.0.0.1.example.org"}) {
        EXPECT_EQ(status("127.0.0.1" + port, "Origin: " + foreign + "\r\n"), "403") << foreign;
        EXPECT_EQ(status("127.0.0.1" + port, "oRIGIN: " + foreign + "\r\n"), "403") << foreign;
    }
    // A foreign page's own name, which a name server has pointed here since.
    EXPECT_EQ(status("example.org" + port, "Origin: http://example.org" + port + "\r\n"), "403");
    EXPECT_EQ(status("example.org" + port, ""), "403");
    EXPECT_EQ(dashboard.stop(), 0);
}

TEST(Dashboard, RefusesAHandshakeThatIsNone) {
    const Inventory inventory;
    Dashboard dashboard(inventory);
    const auto status = [&](const std::string& part, const std::string& with) {
        std::string handshake = kHandshake;
        handshake.replace(handshake.find(part), part.size(), with);
        const std::string answer = answer_to(
            dashboard, "GET /live HTTP/1.1\r\nHost: " + dashboard.host() + "\r\n" + handshake +
                           "\r\n" + (part == "13" && with == "13" ? "x" : ""));
        return answer.substr(strlen("HTTP/1.1 "), 3);
    };
    EXPECT_EQ(status("Upgrade: websocket", "Upgrade: h2c"), "426");
    EXPECT_EQ(status("keep-alive, Upgrade", "keep-alive"), "426");
    EXPECT_EQ(status("keep-alive, Upgrade", "Upgraded"), "426");
    EXPECT_EQ(status("13", "8"), "426");
    EXPECT_EQ(status("Sec-WebSocket-Key", "X-Key"), "400");
    EXPECT_EQ(status("dGhlIHNhbXBsZSBub25jZQ==", "short"), "400");
    EXPECT_EQ(status("13", "13"), "400") << "bytes behind the handshake";
    EXPECT_EQ(dashboard.stop(), 0);
}

// --- messages ------------------------------------------------------------------------------------

// A text with every age as 0.0.
std::string ageless(const std::string& text) {
    std::string result = text;
    for (const char* before : {"\"age\":", "\"sample\":["}) {
        const size_t at = result.find(before);
        if (at == std::string::npos) continue;
        const size_t begin = at + strlen(before);
        result.replace(begin, result.find(',', begin) - begin, "0.0");
    }
    return result;
}

Strings ageless(Strings texts) {
    for (std::string& text : texts) text = ageless(text);
    return texts;
}

TEST(Dashboard, TellsABrowserAllThatIsKnownAndThenWhatIsNew) {
    Inventory inventory;
    Report report;
    inventory.take(report);
    Dashboard dashboard(inventory, {"--stale", "7"});
    Socket first(dashboard);
    const std::string who = R"({"host":0,"name":"web1"})";
    const std::string system = R"({"host":0,"system":"Some System 1"})";
    const std::string traffic = R"("traffic":[73400320,512]})";
    const std::string state = R"({"host":0,"age":0.0,"load":[0.42,0.40,0.33],)"
                              R"("memory":[2147483648,8589934592],)" +
                              traffic;
    // It may have connected before the first answer came.
    EXPECT_THAT(ageless(first.until("ready")),
                ElementsAre(R"({"every":1,"window":300,"stale":7})", R"({"inventory":"ok"})", who,
                            system, state, R"({"ready":true})"));

    report.load = "<one>7</one><five>1</five><fifteen>0</fifteen>";
    report.memory_used = 3 * kGiB;
    inventory.take(report);
    const std::string changed = R"({"host":0,"age":0.0,"load":[7.00,1.00,0.00],)"
                                R"("memory":[3221225472,8589934592],)" +
                                traffic;
    EXPECT_EQ(ageless(first.until("\"age\"").back()), changed);

    Socket second(dashboard);
    EXPECT_THAT(
        ageless(second.until("ready")),
        ElementsAre(testing::_, R"({"inventory":"ok"})", who, system,
                    R"({"host":0,"sample":[0.0,0.42,2147483648]})", changed, R"({"ready":true})"));

    report.name = "a&lt;b&gt; \"c\\d\" \xe2\x82\xac";
    inventory.take(report);
    EXPECT_THAT(second.until("\"name\"").back(), R"({"host":1,"name":"a<b> \"c\\d\" )"
                                                 "\xe2\x82\xac"
                                                 R"("})");

    // An inventory that begins anew has no hosts.
    const std::string port = inventory.port();
    EXPECT_EQ(inventory.stop(), 0);
    EXPECT_EQ(second.until("refused").back(),
              R"({"inventory":"127.0.0.1 port )" + port + R"(: Connection refused"})");
    Inventory again(port);
    EXPECT_THAT(second.until("\"gone\":1").back(), R"({"gone":1})");
    report.name = "other";
    again.take(report);
    EXPECT_EQ(second.until("\"name\"").back(), R"({"host":0,"name":"other"})");
    EXPECT_EQ(dashboard.stop(), 0);
    EXPECT_EQ(again.stop(), 0);
}

TEST(Dashboard, SendsNoMessageThatAFrameCouldNotAnnounce) {
    Inventory inventory;
    Report report;
    report.name = std::string(255, '\\');
    report.system = std::string(128, '\\');
    report.load = "<one>1000000</one><five>1000000</five><fifteen>1000000</fifteen>";
    report.memory_used = UINT64_MAX;
    report.memory_total = UINT64_MAX;
    report.received = UINT64_MAX;
    inventory.take(report);
    report.name.clear();
    for (int i = 0; i < 63; ++i) report.name += "\xf0\x9f\x92\xa1";
    inventory.take(report);
    Dashboard dashboard(inventory);
    Socket socket(dashboard);

    std::string backslashes, bulbs;
    std::string* name = nullptr;
    for (const std::string& text : socket.until("ready")) {
        EXPECT_LE(text.size(), 255u);
        const size_t begin = text.find("\",\"") != std::string::npos ? 0 : text.find(":\"");
        if (begin == 0 || begin == std::string::npos || text.find("\"host\"") == std::string::npos)
            continue;
        const std::string piece = text.substr(begin + 2, text.size() - begin - 4);
        if (text.find("\"name\"") != std::string::npos)
            name = piece[0] == '\\' ? &backslashes : &bulbs;
        if (text.find("\"system\"") == std::string::npos) *name += piece;
    }
    EXPECT_EQ(backslashes, std::string(2 * 255, '\\'));
    EXPECT_EQ(bulbs, report.name);
    EXPECT_EQ(dashboard.stop(), 0);
}

TEST(Dashboard, AnswersPingAndCloseAndEndsWhatItDoesNotUnderstand) {
    const Inventory inventory;
    Dashboard dashboard(inventory);
    Socket pinging(dashboard);
    pinging.send_frame(0x81, "texts say nothing to it");
    pinging.send_frame(0x89, "anybody there?");
    pinging.send_frame(0x89, std::string(125, 'p'));
    EXPECT_EQ(pinging.until("anybody").back(), "8a:anybody there?");
    EXPECT_EQ(pinging.until("ppp").back(), "8a:" + std::string(125, 'p'));
    pinging.send_frame(0x88, std::string("\x03\xe8", 2));
    EXPECT_EQ(pinging.until("88:").back(), close_frame(1000));
    EXPECT_EQ(pinging.next(), "");

    Socket unmasked(dashboard), big(dashboard), split(dashboard), flooding(dashboard);
    send_all(unmasked.fd(), "\x81\x01x");
    EXPECT_EQ(unmasked.until("88:").back(), close_frame(1002));
    send_all(big.fd(), "\x81\xfe\x01");
    EXPECT_EQ(big.until("88:").back(), close_frame(1009));
    EXPECT_EQ(big.next(), "");
    for (const char byte : std::string("\x89\x82\0\0\0\0hi", 8)) send_all(split.fd(), &byte, 1);
    EXPECT_EQ(split.until("8a:").back(), "8a:hi");

    // Who pings on without reading gets no more of anything, and holds up nobody.
    const std::string pings(100'000, '\0');
    for (int i = 0; i < 100; ++i)
        if (send(flooding.fd(), pings.data(), pings.size(), MSG_NOSIGNAL | MSG_DONTWAIT) < 0) break;
    split.send_frame(0x89, "still there?");
    EXPECT_EQ(split.until("still").back(), "8a:still there?");
    EXPECT_EQ(dashboard.stop(), 0);
}

// --- browsers that are slow, silent or too many --------------------------------------------------

TEST(Dashboard, WaitsForNoBrowser) {
    constexpr int kHosts = 2000;
    Inventory inventory;
    Report report;
    report.system = std::string(120, 's');
    const auto report_all = [&] {
        for (int i = 0; i < kHosts; ++i) {
            report.name = "host" + std::to_string(i) + "-" + std::string(200, 'n');
            inventory.take(report);
        }
    };
    Dashboard dashboard(inventory);
    report_all();
    Socket stuck(dashboard, 2048), prompt(dashboard);
    const auto hosts_in = [](const Strings& texts) {
        return std::count_if(texts.begin(), texts.end(), [](const std::string& text) {
            return text.find("\"age\"") != std::string::npos;
        });
    };
    Strings texts = prompt.until("ready");
    while (hosts_in(texts) < kHosts) texts.push_back(prompt.next());

    report.received = 1;
    inventory.take(report);
    EXPECT_THAT(prompt.until("\"traffic\":[1,").back(), HasSubstr("\"age\""));

    // It gets the present state when it reads at last.
    texts = stuck.until("\"traffic\":[1,");
    EXPECT_GT(hosts_in(texts), 0);
    EXPECT_EQ(dashboard.stop(), 0);
}

TEST(Dashboard, TellsWhoComesBeyondItsLimitToComeLater) {
    const Inventory inventory;
    Dashboard dashboard(inventory);
    std::vector<Fd> silent;
    for (int i = 0; i < 200; ++i) silent.push_back(connect_to(dashboard.port));
    const std::string answer = everything(connect_to(dashboard.port).get());
    EXPECT_THAT(answer, StartsWith("HTTP/1.1 503 Service Unavailable\r\n"));
    EXPECT_THAT(answer, HasSubstr("\r\nContent-Length: " + std::to_string(body_of(answer).size()) +
                                  "\r\n"));
    silent.clear();
    EXPECT_TRUE(eventually([&] {
        return answer_to(dashboard, "HEAD / HTTP/1.1\r\nHost: x\r\n\r\n")
            .starts_with("HTTP/1.1 200");
    }));
    EXPECT_EQ(dashboard.stop(), 0);
}

TEST(Dashboard, EndsAConnectionThatDoesNotAsk) {
    const Inventory inventory;
    Dashboard dashboard(inventory);
    const Fd silent = connect_to(dashboard.port), half = connect_to(dashboard.port);
    send_all(half.get(), "GET / HT");
    EXPECT_TRUE(ended(silent.get()));
    EXPECT_TRUE(ended(half.get()));
    EXPECT_EQ(dashboard.stop(), 0);
}

class DashboardStops : public testing::TestWithParam<int> {};

TEST_P(DashboardStops, WithBrowsersConnectedInEveryState) {
    Inventory inventory;
    Report report;
    for (int i = 0; i < 500; ++i) {
        report.name = "host" + std::to_string(i);
        inventory.take(report);
    }
    Dashboard dashboard(inventory);
    Socket live(dashboard), stuck(dashboard, 2048);
    live.until("\"age\"");
    const Fd silent = connect_to(dashboard.port), half = connect_to(dashboard.port),
             late = connect_to(dashboard.port);
    send_all(half.get(), "GET / HT");
    send_all(late.get(), "GET / HTTP/1.0\r\n\r\n");
    EXPECT_EQ(dashboard.stop(GetParam()), 0);
    EXPECT_EQ(dashboard.err(), "");
}

INSTANTIATE_TEST_SUITE_P(BySignal, DashboardStops, testing::Values(SIGTERM, SIGINT),
                         [](const auto& signal) {
                             return signal.param == SIGTERM ? "Term" : "Int";
                         });

// --- the command line ----------------------------------------------------------------------------

TEST(Dashboard, SaysInOneLineThatItCannotListen) {
    const Inventory inventory;
    Dashboard first(inventory);
    const std::string port = std::to_string(first.port);
    const Result second = run({kDashboard, "--port", port});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(second.err,
              std::string(kDashboard) + ": 127.0.0.1 port " + port + ": Address already in use\n");
    EXPECT_EQ(first.stop(), 0);
}

TEST(Dashboard, ListensOnOtherAddressesToo) {
    const Inventory inventory;
    Dashboard dashboard(inventory, {"--bind", "127.0.0.2"});
    EXPECT_EQ(dashboard.out(),
              "listening on http://127.0.0.2:" + std::to_string(dashboard.port) + "/\n");
    EXPECT_FALSE(connect_to(dashboard.port)) << "127.0.0.1 is another address";
    EXPECT_EQ(dashboard.stop(), 0);
}

TEST(Dashboard, RefusesAWrongCommandLineInOneLine) {
    const auto refused = [](Strings arguments, const std::string& line) {
        arguments.insert(arguments.begin(), kDashboard);
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, std::string(kDashboard) + ": " + line + "\n");
    };
    refused({"--frob"}, "unrecognized option '--frob'");
    refused({"now"}, "unexpected argument 'now'");
    refused({"--bind", "::1"}, "--bind takes an IPv4 address, not '::1'");
    refused({"--port", "65536"}, "--port takes a number from 0 to 65535, not '65536'");
    refused({"--inventory-port", "0"}, "--inventory-port takes a number from 1 to 65535, not '0'");
    refused({"--every", "0"}, "--every takes a number from 1 to 60, not '0'");
    refused({"--stale", "x"}, "--stale takes a number from 1 to 86400, not 'x'");
    const Result help = run({kDashboard, "--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, StartsWith("Usage: dashboard [OPTION]...\n"));
}

TEST(Dashboard, IsShownByTheDemo) {
    Program demo({kDemo, "--dashboard", kBuild});
    EXPECT_TRUE(eventually([&] { return demo.out().find("Ctrl-C") != std::string::npos; }))
        << demo.out() << demo.err();
    const std::string out = demo.out();
    const size_t at = out.find("http://127.0.0.1:");
    ASSERT_NE(at, std::string::npos) << out;
    const Fd socket = connect_to(static_cast<uint16_t>(std::stoi(out.substr(at + 17))));
    send_all(socket.get(), "GET / HTTP/1.0\r\n\r\n");
    EXPECT_THAT(everything(socket.get()), EndsWith(content_of(kPage)));
    demo.signal(SIGINT);
    EXPECT_EQ(demo.wait(), 0) << demo.err();
    EXPECT_EQ(demo.err(), "");
    EXPECT_THAT(demo.out(), EndsWith("\nEverything has stopped.\n"));
}

// --- in a browser --------------------------------------------------------------------------------

// What an element of a host's card says; blanks that do not break are told as blanks.
std::string shown(DrivenBrowser& browser, const std::string& host, const std::string& selector) {
    return browser.value("document.querySelector('[data-host=\"" + host + "\"] " + selector +
                         "').textContent.replace(/\\u00a0/g, ' ')");
}

bool becomes(DrivenBrowser& browser, const std::string& expression, const std::string& wanted) {
    return eventually([&] { return browser.value(expression) == wanted; });
}

// A picture's mean brightness, 0 to 255, and how many colours it has.
struct Look {
    int width = 0, height = 0, brightness = 0, colours = 0;
};
Look look_at(DrivenBrowser& browser, const std::string& png) {
    // By the browser itself: no other program here reads pictures.
    std::string base64;
    constexpr char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t i = 0; i < png.size(); i += 3) {
        const auto byte = [&](size_t at) {
            return at < png.size() ? static_cast<unsigned char>(png[at]) : 0u;
        };
        const unsigned bits = byte(i) << 16 | byte(i + 1) << 8 | byte(i + 2);
        for (int digit = 0; digit < 4; ++digit)
            base64 += i + digit > png.size() ? '=' : kDigits[bits >> (18 - 6 * digit) & 63];
    }
    std::istringstream text(browser.value(
        "(async () => {"
        "  const image = new Image();"
        "  image.src = 'data:image/png;base64," +
        base64 +
        "';"
        "  await image.decode();"
        "  const canvas = document.createElement('canvas');"
        "  canvas.width = image.width; canvas.height = image.height;"
        "  const context = canvas.getContext('2d');"
        "  context.drawImage(image, 0, 0);"
        "  const data = context.getImageData(0, 0, image.width, image.height).data;"
        "  const colours = new Set(); let sum = 0;"
        "  for (let i = 0; i < data.length; i += 4) {"
        "    sum += data[i] + data[i + 1] + data[i + 2];"
        "    colours.add(data[i] << 16 | data[i + 1] << 8 | data[i + 2]);"
        "  }"
        "  return [image.width, image.height, Math.round(sum / data.length * 4 / 3), colours.size]"
        "    .join(' ');"
        "})()"));
    Look look;
    text >> look.width >> look.height >> look.brightness >> look.colours;
    return look;
}

class DashboardPage : public testing::Test {
  protected:
    using Scheme = DrivenBrowser::Scheme;

    void SetUp() override {
        if (const std::string reason = driven_browser_missing(); !reason.empty())
            GTEST_SKIP() << reason;
        browser_ = std::make_unique<DrivenBrowser>();
    }
    DrivenBrowser& browser() { return *browser_; }

    static constexpr const char* kLink = "document.querySelector('#link .text').textContent";
    static constexpr const char* kWords = "document.querySelector('#empty').innerText";
    static constexpr const char* kNotice = "document.querySelector('#notice').innerText";

  private:
    std::unique_ptr<DrivenBrowser> browser_;
};

TEST_F(DashboardPage, ShowsWhatHostsReportAsTheyReportIt) {
    Inventory inventory;
    Report web1, hostile;
    hostile.name = "&lt;img src=x onerror=document.title=1&gt;";
    hostile.system = "&lt;script&gt;document.title=2&lt;/script&gt;";
    hostile.load = "<one>12.5</one><five>3</five><fifteen>0</fifteen>";
    hostile.memory_used = 1;
    hostile.memory_total = 1023 * kMiB;
    inventory.take(web1);
    inventory.take(hostile);
    Dashboard dashboard(inventory);
    browser().open(dashboard.url());

    EXPECT_TRUE(becomes(browser(), "document.querySelectorAll('.host').length", "2"));
    EXPECT_EQ(browser().value(kLink), "Live");
    EXPECT_EQ(browser().value("document.querySelector('#summary').textContent"), "2 reporting");
    EXPECT_EQ(shown(browser(), "web1", "h2"), "web1");
    EXPECT_EQ(shown(browser(), "web1", ".system"), "Some System 1");
    EXPECT_EQ(shown(browser(), "web1", ".load .now"), "0.42");
    EXPECT_EQ(shown(browser(), "web1", ".load .aside"), "5 min 0.4015 min 0.33");
    EXPECT_EQ(shown(browser(), "web1", ".memory .value"), "2.0 GiB");
    EXPECT_EQ(shown(browser(), "web1", ".memory .aside"), "25 % of 8.0 GiB");
    EXPECT_EQ(shown(browser(), "web1", ".received"), "70.0 MiB");
    EXPECT_EQ(shown(browser(), "web1", ".sent"), "512 B");
    EXPECT_THAT(shown(browser(), "web1", ".age"), MatchesRegex("just now|[0-9]+ s ago"));

    // What hosts say is text.
    const std::string name = "<img src=x onerror=document.title=1>";
    EXPECT_EQ(shown(browser(), name, "h2"), name);
    EXPECT_EQ(shown(browser(), name, ".system"), "<script>document.title=2</script>");
    EXPECT_EQ(shown(browser(), name, ".load .now"), "12.50");
    EXPECT_EQ(shown(browser(), name, ".load .scale"), "scale 0–20");
    EXPECT_EQ(shown(browser(), name, ".memory .value"), "1 B");
    EXPECT_EQ(browser().value("document.title"), "Hosts");
    EXPECT_EQ(browser().value("document.querySelectorAll('main img, main script').length"), "0");

    web1.load = "<one>1.75</one><five>0.80</five><fifteen>0.50</fifteen>";
    web1.memory_used = 6 * kGiB;
    inventory.take(web1);
    EXPECT_TRUE(eventually([&] { return shown(browser(), "web1", ".load .now") == "1.75"; }));
    EXPECT_EQ(shown(browser(), "web1", ".memory .value"), "6.0 GiB");
    EXPECT_EQ(shown(browser(), "web1", ".memory .share"), "75 %");
    EXPECT_EQ(browser().value("document.querySelector('[data-host=\"web1\"] .load svg')"
                              ".getAttribute('aria-label')"),
              "Load of web1 in the last 60 s: 0.42 to 1.75");
    EXPECT_THAT(browser().value("document.querySelector('[data-host=\"web1\"] .load .line')"
                                ".getAttribute('d')"),
                MatchesRegex("M[0-9.]+ [0-9.]+L[0-9.]+ [0-9.]+"));

    Report third;
    third.name = "aardvark";
    inventory.take(third);
    EXPECT_TRUE(becomes(browser(),
                        "[...document.querySelectorAll('.host h2')].map(h => h.textContent).join()",
                        name + ",aardvark,web1"));
    EXPECT_EQ(dashboard.stop(), 0);
}

TEST_F(DashboardPage, FitsPhonesAndDesktopsInLightAndDark) {
    Inventory inventory;
    Report report;
    for (const char* name : {"web1", "web2", "db.with.a.rather-long-name.internal.example.org"}) {
        report.name = name;
        inventory.take(report);
    }
    report.name = std::string(255, 'w');
    report.system = std::string(128, 's');
    report.load = "<one>1000000</one><five>1000000</five><fifteen>1000000</fifteen>";
    report.memory_used = UINT64_MAX;
    report.memory_total = UINT64_MAX;
    inventory.take(report);
    Dashboard dashboard(inventory);
    browser().open(dashboard.url());
    EXPECT_TRUE(becomes(browser(), "document.querySelectorAll('.host').length", "4"));

    for (const int width : {320, 375, 1280}) {
        std::vector<Look> looks;
        for (const Scheme scheme : {Scheme::light, Scheme::dark}) {
            browser().show_as(width, 800, scheme);
            EXPECT_EQ(browser().value("innerWidth"), std::to_string(width));
            EXPECT_EQ(browser().value("document.documentElement.scrollWidth"),
                      std::to_string(width));
            const std::string png = browser().screenshot();
            EXPECT_GT(png.size(), 10'000u);
            looks.push_back(look_at(browser(), png));
            EXPECT_EQ(looks.back().width, width);
            EXPECT_EQ(looks.back().height, 800);
            EXPECT_GT(looks.back().colours, 50);
        }
        EXPECT_GT(looks[0].brightness, 200);
        EXPECT_LT(looks[1].brightness, 60);
    }
    // Nothing sticks out of a card, however long its texts are.
    browser().show_as(375, 800, Scheme::light);
    EXPECT_EQ(browser().value("[...document.querySelectorAll('article *')].filter(e => "
                              "e.getBoundingClientRect().right > e.closest('article')"
                              ".getBoundingClientRect().right + 0.5).map(e => e.className).join()"),
              "");
    EXPECT_EQ(dashboard.stop(), 0);
}

TEST_F(DashboardPage, SaysInWordsWhatIsMissing) {
    auto inventory = std::make_unique<Inventory>();
    const std::string port = inventory->port();
    auto dashboard = std::make_unique<Dashboard>(*inventory, Strings{"--stale", "1"});
    const std::string dashboard_port = std::to_string(dashboard->port);
    browser().open(dashboard->url());
    EXPECT_TRUE(becomes(browser(), kWords,
                        "No host has reported yet\n\nRun inventory_agent report on a host, and it "
                        "appears here."));

    EXPECT_EQ(inventory->stop(), 0);
    const std::string refused = "127.0.0.1 port " + port + ": Connection refused.";
    const auto unreachable = [&](const char* where) {
        return eventually([&] {
            const std::string words = browser().value(where);
            return words.starts_with("The inventory server does not answer") &&
                   words.find(refused) != std::string::npos;
        });
    };
    EXPECT_TRUE(unreachable(kWords));
    EXPECT_TRUE(becomes(browser(), kLink, "Not updated"));

    inventory = std::make_unique<Inventory>(port);
    inventory->take(Report{});
    EXPECT_TRUE(becomes(browser(), "document.querySelectorAll('.host').length", "1"));
    EXPECT_EQ(browser().value("document.querySelector('#empty').hidden"), "true");
    EXPECT_TRUE(becomes(browser(), kLink, "Live"));

    // The report grows old.
    const std::string state = "document.querySelector('.host').dataset.state";
    EXPECT_TRUE(becomes(browser(), state, "stale"));
    EXPECT_THAT(shown(browser(), "web1", ".age"), MatchesRegex("Stale \u00b7 [0-9]+ s"));
    EXPECT_EQ(inventory->stop(), 0);
    EXPECT_TRUE(unreachable(kNotice));
    EXPECT_EQ(shown(browser(), "web1", ".load .now"), "0.42");

    EXPECT_EQ(dashboard->stop(), 0);
    EXPECT_TRUE(becomes(browser(), kLink, "Reconnecting"));
    EXPECT_THAT(browser().value(kNotice), StartsWith("The dashboard does not answer"));
    EXPECT_EQ(shown(browser(), "web1", ".load .now"), "0.42") << "what was last known stays";

    // One that is stale after a second is offline after ten, by the page's clock.
    browser().value(
        "(now => { performance.now = () => now() + 10000; })"
        "(performance.now.bind(performance))");
    EXPECT_TRUE(becomes(browser(), state, "offline"));
    EXPECT_THAT(shown(browser(), "web1", ".age"), MatchesRegex("Offline \u00b7 [0-9]+ s"));

    inventory = std::make_unique<Inventory>(port);
    Report report;
    report.load = "<one>3.00</one><five>2</five><fifteen>1</fifteen>";
    inventory->take(report);
    dashboard = std::make_unique<Dashboard>(*inventory, Strings{"--port", dashboard_port});
    EXPECT_TRUE(becomes(browser(), kLink, "Live"));
    EXPECT_TRUE(eventually([&] { return shown(browser(), "web1", ".load .now") == "3.00"; }));
    EXPECT_EQ(browser().value("document.querySelector('#notice').hidden"), "true");
    EXPECT_EQ(browser().value("document.querySelectorAll('.host').length"), "1");
    EXPECT_EQ(dashboard->stop(), 0);
    EXPECT_EQ(inventory->stop(), 0);
}

}  // namespace
