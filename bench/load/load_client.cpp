// The client of the load benchmark: N connections to a server on this machine, each with one
// request under way at a time, driven by one thread.
//
//     frame    length, 4 bytes big-endian, counting itself | XML text
//     request  <request id="CCCC-SSSSSSSS" kind="transfer">
//                  <from>account-0CCCC</from> <to>account-SSSSSSSS</to> <amount>SSSSSSSS</amount>
//     answer   <answer id=... kind=...> <status>done</status> the request's three fields
//
// (no blanks between the elements, a declaration in front). C is the connection and S the request's
// number on it, in fixed width: both texts of a connection are made once, and a request costs the
// client a few digits. Every answer is compared to its last byte; only what stands between
// declaration and root is the server's own affair.
//
//     load_client PORT CONNECTIONS WARM_UP_SECONDS SECONDS
//         One JSON line: what was measured behind the warm-up, and `total`, all requests answered.
//         Time is taken from before the send to after the answer's last byte. A wrong answer, a
//         lost connection and a request without an answer are errors.
//     load_client PORT CONNECTIONS idle
//         One request on each connection, then the line "idle"; holds the connections until
//         standard input ends.

#include "listener.h"

#include <algorithm>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include <fcntl.h>
#include <sys/epoll.h>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr std::string_view kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";
constexpr std::string_view kSequence = "SSSSSSSS";
constexpr size_t kLengthBytes = 4;
constexpr auto kPatience = 2s;  // for the answers still under way when the time is over

// A text with the sequence number at some places.
class Template {
  public:
    explicit Template(std::string text) : text_(std::move(text)) {
        for (size_t at = 0; (at = text_.find(kSequence, at)) != std::string::npos; ++at) {
            places_.push_back(at);
        }
    }

    void set_sequence(uint32_t sequence) {
        char digits[kSequence.size()];
        for (size_t i = sizeof(digits); i-- > 0; sequence /= 10) {
            digits[i] = static_cast<char>('0' + sequence % 10);
        }
        for (size_t place : places_) text_.replace(place, sizeof(digits), digits, sizeof(digits));
    }

    const std::string& text() const { return text_; }

  private:
    std::string text_;
    std::vector<size_t> places_;
};

std::string framed(const std::string& text) {
    const uint32_t length = htonl(static_cast<uint32_t>(kLengthBytes + text.size()));
    return std::string(reinterpret_cast<const char*>(&length), sizeof(length)) + text;
}

std::string attributes_of(int connection) {
    char text[64];
    snprintf(text, sizeof(text), " id=\"%04d-%s\" kind=\"transfer\">", connection,
             kSequence.data());
    return text;
}

std::string fields_of(int connection) {
    char text[128];
    snprintf(text, sizeof(text), "<from>account-%05d</from><to>account-%s</to><amount>%s</amount>",
             connection, kSequence.data(), kSequence.data());
    return text;
}

// Everything a request's or answer's sender decides: root and below.
std::string request_root(int connection) {
    return "<request" + attributes_of(connection) + fields_of(connection) + "</request>";
}
std::string answer_root(int connection) {
    return "<answer" + attributes_of(connection) + "<status>done</status>" + fields_of(connection) +
           "</answer>";
}

enum class Progress { kWaiting, kAnswered, kFailed };

class Connection {
  public:
    Connection(uint16_t port, int number)
        : request_(framed(std::string(kDeclaration) + "\r\n" + request_root(number))),
          answer_(answer_root(number)) {
        const sockaddr_in address = load::loopback(port);
        socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (socket_ < 0) load::give_up("socket");
        if (connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
            load::give_up("connect");
        }
        load::send_without_delay(socket_);
        if (fcntl(socket_, F_SETFL, O_NONBLOCK) != 0) load::give_up("fcntl");
    }

    // A request is far smaller than an empty socket buffer: it is taken whole or the connection is
    // lost.
    bool ask() {
        ++sequence_;
        request_.set_sequence(sequence_);
        answer_.set_sequence(sequence_);
        held_ = 0;
        asked_at_ = Clock::now();
        const std::string& bytes = request_.text();
        return send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(bytes.size());
    }

    Progress receive() {
        const ssize_t count = recv(socket_, bytes_ + held_, sizeof(bytes_) - held_, 0);
        if (count < 0 && errno == EAGAIN) return Progress::kWaiting;
        if (count <= 0) return Progress::kFailed;
        held_ += static_cast<size_t>(count);
        if (held_ < kLengthBytes) return Progress::kWaiting;
        uint32_t length;
        memcpy(&length, bytes_, sizeof(length));
        length = ntohl(length);
        if (length > sizeof(bytes_) || held_ > length) return Progress::kFailed;
        if (held_ < length) return Progress::kWaiting;
        return is_my_answer() ? Progress::kAnswered : Progress::kFailed;
    }

    Clock::duration age() const { return Clock::now() - asked_at_; }
    int descriptor() const { return socket_; }

  private:
    bool is_my_answer() const {
        const std::string_view text(bytes_ + kLengthBytes, held_ - kLengthBytes);
        return text.starts_with(kDeclaration) && text.ends_with(answer_.text()) &&
               text.size() <= kDeclaration.size() + 2 + answer_.text().size();
    }

    Template request_;
    Template answer_;
    int socket_;
    uint32_t sequence_ = 0;
    Clock::time_point asked_at_;
    size_t held_ = 0;
    char bytes_[1024];
};

class Load {
  public:
    Load(uint16_t port, int connections) : epoll_(epoll_create1(EPOLL_CLOEXEC)) {
        if (epoll_ < 0) load::give_up("epoll_create1");
        connections_.reserve(static_cast<size_t>(connections));
        for (int i = 0; i < connections; ++i) {
            connections_.emplace_back(port, i);
            epoll_event event{};
            event.events = EPOLLIN;
            event.data.u32 = static_cast<uint32_t>(i);
            if (epoll_ctl(epoll_, EPOLL_CTL_ADD, connections_.back().descriptor(), &event) != 0) {
                load::give_up("epoll_ctl");
            }
        }
    }

    // Sends the first request on every connection.
    void begin() {
        for (Connection& connection : connections_) ask(connection);
    }

    // Takes answers and, while `go_on`, sends the next request for each, until `end` comes or
    // nothing is under way.
    void run_until(Clock::time_point end, bool go_on) {
        epoll_event events[256];
        while (under_way_ > 0) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
            if (left <= 0) return;
            const int count = epoll_wait(epoll_, events, std::size(events), static_cast<int>(left));
            for (int i = 0; i < count; ++i) take(connections_[events[i].data.u32], go_on);
        }
    }

    void forget_measurements() { latencies_.clear(); }

    // The answer time, in microseconds, that this share of the requests stayed within.
    double latency_us(double share) {
        if (latencies_.empty()) return 0;
        auto nth = latencies_.begin() +
                   static_cast<ptrdiff_t>(share * static_cast<double>(latencies_.size() - 1));
        std::nth_element(latencies_.begin(), nth, latencies_.end());
        return *nth / 1e3;
    }

    size_t measured() const { return latencies_.size(); }
    uint64_t total() const { return total_; }
    uint64_t errors() const { return errors_; }
    size_t unanswered() const { return under_way_; }

  private:
    void ask(Connection& connection) {
        if (connection.ask()) {
            ++under_way_;
        } else {
            lose(connection);
        }
    }

    void take(Connection& connection, bool go_on) {
        const Progress progress = connection.receive();
        if (progress == Progress::kWaiting) return;
        --under_way_;
        if (progress == Progress::kFailed) return lose(connection);
        ++total_;
        const auto age = std::chrono::nanoseconds(connection.age()).count();
        latencies_.push_back(static_cast<uint32_t>(std::min<int64_t>(age, UINT32_MAX)));
        if (go_on) ask(connection);
    }

    void lose(Connection& connection) {
        ++errors_;
        close(connection.descriptor());
    }

    int epoll_;
    std::vector<Connection> connections_;
    std::vector<uint32_t> latencies_;  // nanoseconds
    size_t under_way_ = 0;
    uint64_t total_ = 0;
    uint64_t errors_ = 0;
};

Clock::duration seconds(const char* text) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(atof(text)));
}

int measure(Load& load, Clock::duration warm_up, Clock::duration time) {
    load.begin();
    load.run_until(Clock::now() + warm_up, true);
    load.forget_measurements();

    const Clock::time_point start = Clock::now();
    load.run_until(start + time, true);
    const std::chrono::duration<double> taken = Clock::now() - start;
    const double rate = static_cast<double>(load.measured()) / taken.count();
    const double p50 = load.latency_us(0.50), p99 = load.latency_us(0.99);

    load.run_until(Clock::now() + kPatience, false);
    printf(
        "{\"requests_per_second\": %.1f, \"p50_us\": %.1f, \"p99_us\": %.1f, "
        "\"total\": %" PRIu64 ", \"errors\": %" PRIu64 "}\n",
        rate, p50, p99, load.total(), load.errors() + load.unanswered());
    return 0;
}

int hold_idle(Load& load) {
    load.begin();
    load.run_until(Clock::now() + kPatience, false);
    if (load.errors() + load.unanswered() > 0) {
        fprintf(stderr, "no answer on every connection\n");
        return 1;
    }
    puts("idle");
    fflush(stdout);
    while (getchar() != EOF) {
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    const bool idle = argc == 4 && strcmp(argv[3], "idle") == 0;
    if (!idle && argc != 5) {
        fprintf(stderr, "usage: load_client PORT CONNECTIONS (WARM_UP_SECONDS SECONDS | idle)\n");
        return 2;
    }
    Load load(static_cast<uint16_t>(atoi(argv[1])), atoi(argv[2]));
    return idle ? hold_idle(load) : measure(load, seconds(argv[3]), seconds(argv[4]));
}
