// The inventory's programs for its tests: the server, its agent, a peer that speaks the protocol
// byte by byte, and a report whose parts a test can change.
#pragma once

#include <tests/support/process.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace zt_test {

inline constexpr const char* kServer = INVENTORY_SERVER;
inline constexpr const char* kAgent = INVENTORY_AGENT;
inline constexpr const char* kDemo = INVENTORY_DEMO;
inline constexpr const char* kBuild = INVENTORY_BUILD;

inline Strings lines_of(const std::string& text) {
    Strings lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

inline std::string replace_all(std::string text, const std::string& what, const std::string& with) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
        text.replace(at, what.size(), with);
    return text;
}

// --- programs ------------------------------------------------------------------------------------

inline std::string output_of(const std::string& shell_command) {
    const Result result = run({"sh", "-c", shell_command});
    EXPECT_EQ(result.status, 0) << shell_command << ": " << result.err;
    return result.out.substr(0, result.out.find_last_not_of('\n') + 1);
}

// What xmllint finds in a document; it fails the test where the text is no XML.
inline std::string xpath(const std::string& document, const std::string& expression) {
    const ScratchDirectory scratch;
    const std::string path = scratch.write("document.xml", document);
    const Result result = run({"xmllint", "--xpath", "string(" + expression + ")", path});
    EXPECT_EQ(result.status, 0) << result.err << document;
    return result.out.substr(0, result.out.find_last_not_of('\n') + 1);
}

// --- the server and those who talk to it ---------------------------------------------------------

inline Strings server_command(const Strings& options) {
    Strings command = {kServer, "--port", "0"};
    command.insert(command.end(), options.begin(), options.end());
    return command;
}

class Server : public Program {
  public:
    explicit Server(const Strings& options = {}, const std::function<void()>& prepare = {})
        : Program(server_command(options), prepare) {
        EXPECT_TRUE(eventually([&] { return out().ends_with("\n"); })) << err();
        const std::string line = out();
        EXPECT_THAT(line, testing::StartsWith("listening on "));
        port = line.substr(line.rfind(':') + 1, line.size() - line.rfind(':') - 2);
    }
    // Asks it to stop; its exit status.
    int stop(int number = SIGTERM) {
        signal(number);
        return wait();
    }

    std::string port;
};

inline Strings agent_command(const Server& server, const Strings& arguments) {
    Strings command = {kAgent, "--port", server.port};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

inline Result agent(const Server& server, const Strings& arguments) {
    return run(agent_command(server, arguments));
}

// A peer that speaks the protocol byte by byte.
class Peer {
  public:
    // `room`: bytes that the system receives ahead; 0 for as many as usual.
    explicit Peer(const Server& server, int room = 0)
        : socket_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        if (room) setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &room, sizeof room);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(std::stoi(server.port)));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        const timeval limit{30, 0};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        EXPECT_EQ(connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        server_port_ = ntohs(address.sin_port);
    }
    ~Peer() { close(socket_); }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    int socket_number() const { return socket_; }

    void send_bytes(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            ASSERT_GT(sent, 0);
            bytes.remove_prefix(sent);
        }
    }
    void send_frame(const std::string& text) { send_bytes(frame(text)); }

    static std::string length_word(uint32_t length) {
        const uint32_t word = htonl(length);
        return {reinterpret_cast<const char*>(&word), sizeof word};
    }
    static std::string frame(const std::string& text) {
        return length_word(static_cast<uint32_t>(text.size() + 4)) + text;
    }

    // The next frame's text without the declaration; nothing when the connection has ended.
    std::optional<std::string> receive() {
        const std::string word = receive_bytes(4);
        if (word.size() < 4) return {};
        uint32_t length = 0;
        memcpy(&length, word.data(), sizeof length);
        const std::string text = receive_bytes(ntohl(length) - 4);
        if (text.size() < ntohl(length) - 4) return {};
        EXPECT_THAT(text, testing::StartsWith(kDeclaration));
        return text.substr(strlen(kDeclaration));
    }
    std::string ask(const std::string& text) {
        send_frame(text);
        return receive().value_or("(ended)");
    }
    // True once the server has received all that was sent: its queue, in the system's table of
    // connections, is empty.
    bool everything_is_taken() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        getsockname(socket_, reinterpret_cast<sockaddr*>(&address), &length);
        char server_end[64];
        snprintf(server_end, sizeof server_end, ": 0100007F:%04X 0100007F:%04X 01 ", server_port_,
                 ntohs(address.sin_port));
        const std::string table = content_of("/proc/net/tcp");
        const size_t at = table.find(server_end);
        constexpr size_t kQueue = 8;  // hexadecimal digits, once to be sent, once received
        return at != std::string::npos &&
               table.compare(at + strlen(server_end) + kQueue + 1, kQueue, "00000000") == 0;
    }
    // True once the server has ended the connection.
    bool ended() {
        char byte;
        const ssize_t received = recv(socket_, &byte, 1, 0);
        return received == 0 || (received < 0 && errno == ECONNRESET);
    }

  private:
    static constexpr const char* kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n";

    std::string receive_bytes(size_t size) {
        std::string bytes(size, '\0');
        size_t got = 0;
        while (got < size) {
            const ssize_t received = recv(socket_, bytes.data() + got, size - got, 0);
            if (received <= 0) break;
            got += received;
        }
        bytes.resize(got);
        return bytes;
    }

    int socket_;
    unsigned server_port_ = 0;
};

// A report as an agent sends it, its parts to be changed by tests.
struct Report {
    std::string name = "<name>web1</name>";
    std::string system = "<system>Some System 1</system>";
    std::string load = "<load><one>0.42</one><five>1.00</five><fifteen>12.50</fifteen></load>";
    std::string memory =
        "<memory><total>8589934592</total><available>6442450944</available></memory>";
    std::string traffic = "<traffic><received>1048576</received><sent>512</sent></traffic>";
    std::string interfaces =
        "<interface><name>eth0</name><received>1048576</received><sent>512</sent></interface>";

    std::string host() const { return name + system + load + memory + traffic; }
    std::string text() const { return "<report><host>" + host() + interfaces + "</host></report>"; }
};

inline std::string error(const std::string& code, const std::string& message) {
    return "<error><code>" + code + "</code><message>" + message + "</message></error>";
}

// An answer or table with all ages 0.
inline std::string ageless(std::string text) {
    const auto is_digit = [](char c) { return c >= '0' && c <= '9'; };
    for (size_t at = 0; (at = text.find("<age>", at)) != std::string::npos;) {
        at += strlen("<age>");
        const size_t end = text.find('<', at);
        text.replace(at, end - at, "0");
    }
    for (size_t at = 0; (at = text.find(" s ago", at + 1)) != std::string::npos;)
        if (is_digit(text[at - 1]) && text[at - 2] == ' ') text[at - 1] = '0';
    return text;
}

}  // namespace zt_test
