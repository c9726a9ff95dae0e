// RTP with implementations of others: oRTP at the other end of a call, and tshark, which reads what
// is on the wire.

#include <ztlib/network/protocols/rtp/rtp.h>

#include <tests/network/protocols/rtp/own_network.h>
#include <tests/support/capture.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>
#include <tests/support/sockets.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <poll.h>

using namespace zt_test;
using testing::Each;

#ifdef ORTP_PEER
#    define SKIP_WITHOUT_ORTP() SKIP_WITHOUT_OWN_NETWORK()
#else
#    define ORTP_PEER ""
#    define SKIP_WITHOUT_ORTP() GTEST_SKIP() << "built without libortp-dev"
#endif

namespace {

constexpr unsigned kPayload = 160;
constexpr uint16_t kPeerPort = 13000;

using Bytes = std::vector<unsigned char>;

uint32_t read32(const Bytes& bytes, size_t at) {
    uint32_t value;
    memcpy(&value, bytes.data() + at, sizeof value);
    return ntohl(value);
}

std::string hexadecimal(const Bytes& bytes) {
    std::string text;
    char digits[3];
    for (const unsigned char byte : bytes) {
        snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

class Session {
  public:
    Session() {
        CapturedStderr err;
        session_ = rtp_session_create(0);
    }
    ~Session() { rtp_session_destroy(session_); }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    operator rtp_session*() const { return session_; }
    rtp_session* operator->() const { return session_; }

    Bytes build(unsigned char fill) {
        const Bytes payload(kPayload, fill);
        Bytes packet(kPayload + RTP_HEADER_BYTES);
        unsigned size = 0;
        rtp_unwrap(session_, payload.data(), kPayload, packet.data(), &size);
        EXPECT_EQ(size, packet.size());
        return packet;
    }

  private:
    rtp_session* session_;
};

rtcp_packet decode(const Bytes& packet) {
    rtcp_packet report{};
    CapturedStderr err;
    rtcp_wrap(nullptr, packet.data(), static_cast<unsigned>(packet.size()), &report);
    return report;
}

// A call with oRTP, which sends from its start to the end of the scope.
class Call {
  public:
    Call() {
        int rtp = -1, rtcp = -1;
        unsigned short port = 0, next = 0;
        EXPECT_EQ(rtp_create_socket_pair(&rtp, &rtcp, &port, &next), 0);
        rtp_ = Fd(rtp);
        rtcp_ = Fd(rtcp);
        peer_ = std::make_unique<Program>(
            Strings{ORTP_PEER, std::to_string(kPeerPort), std::to_string(port)});
        EXPECT_TRUE(eventually([this] { return !lines().empty(); })) << peer_->err();
    }

    // What the peer printed: its SSRC, then a line for each packet.
    std::vector<std::string> lines() const { return lines_of(peer_->out()); }
    uint32_t ssrc() const { return static_cast<uint32_t>(std::stoul(lines().at(0))); }

    void send(const Bytes& packet) const {
        const sockaddr_in peer = loopback(kPeerPort);
        EXPECT_EQ(sendto(rtp_.get(), packet.data(), packet.size(), 0,
                         reinterpret_cast<const sockaddr*>(&peer), sizeof peer),
                  static_cast<ssize_t>(packet.size()));
    }
    Bytes receive_rtp() const { return receive(rtp_.get()); }
    Bytes receive_rtcp() const { return receive(rtcp_.get()); }

  private:
    static Bytes receive(int fd) {
        constexpr int kLimitMs = 30'000;
        pollfd wait{fd, POLLIN, 0};
        Bytes packet(2048);
        EXPECT_EQ(poll(&wait, 1, kLimitMs), 1) << "nothing comes";
        const ssize_t size = recv(fd, packet.data(), packet.size(), 0);
        packet.resize(size > 0 ? static_cast<size_t>(size) : 0);
        return packet;
    }

    Fd rtp_, rtcp_;
    std::unique_ptr<Program> peer_;
};

// --- tshark --------------------------------------------------------------------------------------

#define SKIP_WITHOUT_TSHARK() \
    if (!is_installed("tshark")) GTEST_SKIP() << "no tshark here"

void add32(std::string& bytes, uint32_t value) {
    bytes.append(reinterpret_cast<const char*>(&value), sizeof value);
}
void add16_network(std::string& bytes, size_t value) {
    bytes += static_cast<char>(value >> 8);
    bytes += static_cast<char>(value);
}

// A capture file (pcap) in which these packets go to 127.0.0.1:port.
std::string capture(const std::vector<Bytes>& packets, uint16_t port) {
    constexpr uint32_t kMagic = 0xA1B2C3D4, kVersion = 2 | 4 << 16, kRawIp = 101;
    std::string file;
    for (const uint32_t word : {kMagic, kVersion, 0u, 0u, 65535u, kRawIp}) add32(file, word);
    for (const Bytes& packet : packets) {
        const size_t udp = 8 + packet.size(), ip = 20 + udp;
        for (const size_t word : {size_t{0}, size_t{0}, ip, ip})
            add32(file, static_cast<uint32_t>(word));
        file += {0x45, 0x00};
        add16_network(file, ip);
        file += std::string("\0\0\0\0\x40\x11\0\0\x7F\0\0\1\x7F\0\0\1", 16);
        for (const size_t word : {size_t{kPeerPort}, size_t{port}, udp, size_t{0}})
            add16_network(file, word);
        file.append(packet.begin(), packet.end());
    }
    return file;
}

// What tshark finds in these fields, a line for each packet. Protocols are "rtp" and "rtcp".
std::vector<std::string> tshark(const std::string& protocol, const std::vector<Bytes>& packets,
                                const Strings& fields) {
    constexpr uint16_t kPort = 12000;
    const ScratchDirectory scratch;
    const std::string file = scratch.write("packets.pcap", capture(packets, kPort));
    Strings command = {"tshark", "-n",     "-r", file,          "-d", "udp.port==12000," + protocol,
                       "-T",     "fields", "-E", "separator=/s"};
    for (const std::string& field : fields) {
        command.push_back("-e");
        command.push_back(field);
    }
    const Result result = run(command);
    EXPECT_EQ(result.status, 0) << result.err;
    return lines_of(result.out);
}

// tshark's line for a sender report, from the record.
std::string as_tshark_prints(const rtcp_packet& report) {
    char line[256];
    snprintf(line, sizeof line, "%u %u %u %u 0x%08x %u %u 0x%08x %u %d %u", report.version,
             report.padding, report.count, report.length, report.sender_ssrc,
             report.sender_packet_count, report.sender_octet_count, report.report_block.ssrc,
             report.report_block.fraction_lost, report.report_block.cumulative_packets_lost,
             report.report_block.interarrival_jitter);
    return line;
}

const Strings kReportFields = {"rtcp.version",
                               "rtcp.padding",
                               "rtcp.rc",
                               "rtcp.length",
                               "rtcp.senderssrc",
                               "rtcp.sender.packetcount",
                               "rtcp.sender.octetcount",
                               "rtcp.ssrc.identifier",
                               "rtcp.ssrc.fraction",
                               "rtcp.ssrc.cum_nr",
                               "rtcp.ssrc.jitter"};

}  // namespace

TEST(RtpPeers, OrtpReceivesEachPacketAsItWasBuilt) {
    SKIP_WITHOUT_ORTP();
    Session session;
    session->sequence = 65530;  // it passes 65,535 on the way
    const Call call;
    std::vector<std::string> expected;
    for (unsigned char i = 0; i < 20; i++) {
        std::ostringstream line;
        line << "2 0 8 " << (session->sequence & 0xFFFF) << ' ' << session->timestamp << ' '
             << session->ssrc << ' ' << kPayload << ": " << hexadecimal(Bytes(kPayload, i));
        expected.push_back(line.str());
        call.send(session.build(i));
    }
    EXPECT_TRUE(eventually([&] { return call.lines().size() >= 21; }));
    const std::vector<std::string> lines = call.lines();
    ASSERT_EQ(lines.size(), 1 + expected.size());
    for (size_t i = 0; i < expected.size(); i++) EXPECT_EQ(lines[1 + i], expected[i]);
}

TEST(RtpPeers, ReadsEachPacketOfOrtp) {
    SKIP_WITHOUT_ORTP();
    Session session;
    const Call call;
    uint32_t before = 0;
    for (int i = 0; i < 40; i++) {
        const Bytes packet = call.receive_rtp();
        ASSERT_EQ(packet.size(), kPayload + RTP_HEADER_BYTES);
        EXPECT_EQ(read32(packet, 8), call.ssrc());

        Bytes payload(packet.size());
        unsigned size = 0;
        rtp_wrap(session, packet.data(), static_cast<unsigned>(packet.size()), payload.data(),
                 &size);
        ASSERT_EQ(size, kPayload);
        payload.resize(size);
        EXPECT_THAT(payload, Each(session->last_received_timestamp / kPayload & 0xFF));
        EXPECT_EQ(session->last_received_timestamp, read32(packet, 4));
        if (i > 0) {
            EXPECT_EQ(session->last_received_timestamp, before + kPayload);
        }
        before = session->last_received_timestamp;
    }
}

TEST(RtpPeers, DecodesTheSenderReportsOfOrtp) {
    SKIP_WITHOUT_ORTP();
    constexpr int kSent = 50, kLost = 5;
    Session session;
    const Call call;
    for (int i = 0; i < kSent; i++) {
        const Bytes packet = session.build(static_cast<unsigned char>(i));
        if (i % (kSent / kLost) != 4) call.send(packet);
    }
    const uint16_t last = static_cast<uint16_t>(session->sequence - 1);

    // Until a report knows of the last packet.
    Bytes packet;
    rtcp_packet report{};
    EXPECT_TRUE(eventually([&] {
        packet = call.receive_rtcp();
        if (packet.size() < 44) return false;
        report = decode(packet);
        EXPECT_EQ(report.version, 2u);
        EXPECT_EQ(report.packet_type, unsigned{RTCP_SENDER_REPORT});
        EXPECT_EQ(report.sender_ssrc, call.ssrc());
        EXPECT_EQ(report.sender_octet_count, kPayload * report.sender_packet_count);
        return report.count == 1 && static_cast<uint16_t>(read32(packet, 36)) == last;
    }));
    EXPECT_EQ(report.length, 12);
    EXPECT_GT(report.sender_packet_count, 0u);
    EXPECT_EQ(report.report_block.ssrc, session->ssrc);
    EXPECT_EQ(report.report_block.cumulative_packets_lost, kLost);
    EXPECT_EQ(report.report_block.interarrival_jitter, read32(packet, 40));

    SKIP_WITHOUT_TSHARK();
    packet.resize(4 * (report.length + 1u));  // what follows is a packet of its own
    EXPECT_EQ(tshark("rtcp", {packet}, kReportFields),
              std::vector<std::string>{as_tshark_prints(report)});
}

TEST(RtpPeers, TsharkReadsTheHeaderThatWasBuilt) {
    SKIP_WITHOUT_TSHARK();
    Session session;
    session->sequence = 0x1FFFF;
    std::vector<Bytes> packets;
    std::vector<std::string> expected;
    for (unsigned char i = 0; i < 3; i++) {
        char line[128];
        snprintf(line, sizeof line, "2 0 0 0 0 8 %u %u 0x%08x ", session->sequence & 0xFFFF,
                 session->timestamp, session->ssrc);
        expected.push_back(line + hexadecimal(Bytes(kPayload, i)));
        packets.push_back(session.build(i));
    }
    EXPECT_EQ(tshark("rtp", packets,
                     {"rtp.version", "rtp.padding", "rtp.ext", "rtp.cc", "rtp.marker", "rtp.p_type",
                      "rtp.seq", "rtp.timestamp", "rtp.ssrc", "rtp.payload"}),
              expected);
}

TEST(RtpPeers, TsharkDecodesASenderReportAlike) {
    SKIP_WITHOUT_TSHARK();
    Bytes packet(52);
    for (size_t i = 0; i < packet.size(); i++) packet[i] = static_cast<unsigned char>(i + 1);
    const unsigned char head[] = {0x81, RTCP_SENDER_REPORT, 0, 12};
    std::copy(std::begin(head), std::end(head), packet.begin());
    EXPECT_EQ(tshark("rtcp", {packet}, kReportFields),
              std::vector<std::string>{as_tshark_prints(decode(packet))});
}
