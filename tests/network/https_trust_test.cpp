// What the build compiles in as the HTTPS client's trust. This executable was given an authority of
// its own, made by make_trust; TRUST_DIRECTORY holds its files.

#include <ztlib/network/http_client.h>

#include <ztlib/network/https_trust.hpp>

#include <tests/support/capture.h>
#include <tests/support/program.h>
#include <tests/support/sockets.h>

#include <gmock/gmock.h>

#include <openssl/ssl.h>

#include <cstdio>

using namespace zt_test;
using testing::HasSubstr;

namespace {

const std::string kFiles = TRUST_DIRECTORY;

std::string fingerprint_text() {
    std::string text;
    for (const unsigned char byte : zt::https_trust().fingerprint) {
        char digits[4];
        snprintf(digits, sizeof digits, "%02X:", byte);
        text += digits;
    }
    return text.substr(0, text.size() - 1);
}

std::string joined(std::string text) {
    for (size_t at; (at = text.find_first_of("\n ")) != std::string::npos;) text.erase(at, 1);
    return text;
}

// What the generator makes of these files.
class Generated {
  public:
    Generated(const std::string& root, const std::string& fingerprint) {
        const std::string source = files_ / "trust.cpp";
        const std::string certificate = files_.write("root", root);
        Program cmake({"cmake", "-D", "SOURCE=" + source, "-D",
                       "CERTIFICATES=" + certificate + ";" + certificate + ";" + certificate, "-D",
                       "FINGERPRINT=" + files_.write("fingerprint", fingerprint), "-P",
                       TRUST_GENERATOR});
        status = cmake.wait();
        error = joined(cmake.err());
        text = content_of(source);
    }
    int status;
    std::string error;
    std::string text;

  private:
    ScratchDirectory files_;
};

}  // namespace

TEST(HttpsTrust, HasTheCertificatesAndTheFingerprintOfItsFiles) {
    const zt::HttpsTrust& trust = zt::https_trust();
    EXPECT_EQ(trust.certificates[0], content_of(kFiles + "/root.pem"));
    EXPECT_EQ(trust.certificates[1], content_of(kFiles + "/intermediate1.pem"));
    EXPECT_EQ(trust.certificates[2], content_of(kFiles + "/intermediate2.pem"));
    EXPECT_THAT(content_of(kFiles + "/fingerprint.txt"),
                HasSubstr("=" + fingerprint_text() + "\n"));
}

TEST(HttpsTrust, LetsTheServerInWhoseFilesTheseAre) {
    const ScratchDirectory scratch;
    const std::string chain = scratch.write("chain", content_of(kFiles + "/intermediate2.pem") +
                                                         content_of(kFiles + "/intermediate1.pem"));
    const uint16_t port = free_port();
    Program tool({"openssl", "s_server", "-accept", "127.0.0.1:" + std::to_string(port), "-cert",
                  kFiles + "/server.pem", "-key", kFiles + "/server.key", "-cert_chain", chain,
                  "-naccept", "1"});
    ASSERT_TRUE(eventually([&] { return tool.out().find("ACCEPT") != std::string::npos; }))
        << tool.err();
    const CapturedStderr err;
    SSL* ssl = https_connect("127.0.0.1", port);
    EXPECT_NE(ssl, nullptr);
    EXPECT_EQ(err.text(), "");
    if (!ssl) return;
    const Fd fd(SSL_get_fd(ssl));
    https_close(ssl);
}

TEST(HttpsTrust, IsMadeOfTheFirstCertificateAndOfAFingerprintHoweverItIsWritten) {
    const std::string root = content_of(kFiles + "/root.pem");
    const std::string digits = "00112233445566778899aabbccddeeffFEDCBA98";
    const Generated plain(root, digits);
    ASSERT_EQ(plain.status, 0) << plain.error;
    EXPECT_THAT(plain.text,
                HasSubstr("{0x00, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, "
                          "0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff, 0xFE, 0xDC, 0xBA, 0x98}"));

    std::string with_carriage_returns;
    for (const char c : root) with_carriage_returns += c == '\n' ? "\r\n" : std::string(1, c);
    const std::string columns =
        "SHA1 Fingerprint=00:11:22:33:44:55:66:77:88:99:aa:bb:cc:dd:ee:ff:FE:DC:BA:98\r\n";
    for (const std::string& file :
         {root, "subject=CN = \"root\" \\\n" + root + root, with_carriage_returns}) {
        const Generated other(file, columns);
        EXPECT_EQ(other.status, 0) << other.error;
        EXPECT_EQ(other.text, plain.text);
    }
}

TEST(HttpsTrust, IsNotMadeOfFilesThatAreNeither) {
    const std::string root = content_of(kFiles + "/root.pem");
    const std::string digits(40, '0');
    for (const std::string& no_root :
         {std::string(), root.substr(20), root.substr(0, root.size() - 20),
          content_of(kFiles + "/server.key")}) {
        const Generated refused(no_root, digits);
        EXPECT_NE(refused.status, 0);
        EXPECT_THAT(refused.error, HasSubstr("hasnocertificateinPEMform"));
        EXPECT_EQ(refused.text, "");
    }
    for (const std::string& no_digits :
         {std::string(), digits.substr(1), digits + "0", digits.substr(1) + "g",
          "a=" + digits + "\nb=" + digits + "\n"}) {
        const Generated refused(root, no_digits);
        EXPECT_NE(refused.status, 0);
        EXPECT_THAT(refused.error, HasSubstr("hasnoSHA-1fingerprintof40hexadecimaldigits"));
        EXPECT_EQ(refused.text, "");
    }
}
