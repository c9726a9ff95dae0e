#include <ztlib/network/lead4.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace {

using Bytes = std::vector<unsigned char>;

Bytes frame(uint32_t total, const std::string& payload) {
    Bytes bytes(4 + payload.size());
    for (int i = 0; i < 4; i++) bytes[i] = static_cast<unsigned char>(total >> (24 - 8 * i));
    std::copy(payload.begin(), payload.end(), bytes.begin() + 4);
    return bytes;
}

int length_of(const Bytes& bytes) { return static_cast<int>(bytes.size()); }

}  // namespace

TEST(Lead4, PutsTheBigEndianLengthOfTheWholeFrameInFront) {
    Bytes out(300);
    const std::string payload(254, 'x');
    EXPECT_EQ(lead4_unwrap(payload.data(), 254, out.data(), 300), 258);
    out.resize(258);
    EXPECT_EQ(out, frame(258, payload));
}

TEST(Lead4, BuildsAFrameThatJustFits) {
    Bytes out = frame(0, "....");
    EXPECT_EQ(lead4_unwrap("abcd", 4, out.data(), 8), 8);
    EXPECT_EQ(out, frame(8, "abcd"));

    const Bytes before = out;
    EXPECT_EQ(lead4_unwrap("wxyz", 4, out.data(), 7), -1);
    EXPECT_EQ(lead4_unwrap("wxyz", 4, out.data(), -1), -1);
    EXPECT_EQ(out, before);
}

TEST(Lead4, BuildsAnEmptyFrame) {
    Bytes out(4);
    EXPECT_EQ(lead4_unwrap(nullptr, 0, out.data(), 4), 4);
    EXPECT_EQ(out, frame(4, ""));
}

TEST(Lead4, RefusesALengthThatIsNoInt) {
    unsigned char out[8];
    for (const unsigned n : {0x7ffffffcu, 0xfffffffbu, 0xfffffffcu, 0xffffffffu})
        EXPECT_EQ(lead4_unwrap("x", n, out, INT32_MAX), -1) << n;
}

TEST(Lead4, TakesTheFirstFrameAtEveryCut) {
    Bytes stream = frame(9, "hello");
    const Bytes second = frame(6, "yo");
    stream.insert(stream.end(), second.begin(), second.end());

    for (int len = 0; len <= length_of(stream); len++) {
        char out[16] = "...............";
        const unsigned char* payload = nullptr;
        unsigned payload_len = 77;
        const int expected = len < 9 ? 0 : 5;
        EXPECT_EQ(lead4_wrap(stream.data(), len, out, sizeof out), expected) << len;
        EXPECT_EQ(lead4_wrap_ptr(stream.data(), len, &payload, &payload_len), expected) << len;
        if (expected == 0) {
            EXPECT_EQ(std::string(out), "...............");
            EXPECT_EQ(payload, nullptr);
            EXPECT_EQ(payload_len, 77u);
        } else {
            EXPECT_EQ(std::string(out), "hello..........") << "no terminator is written";
            EXPECT_EQ(payload, stream.data() + 4);
            EXPECT_EQ(payload_len, 5u);
        }
    }
}

TEST(Lead4, TakesNoPayloadThatIsLongerThanItsRoom) {
    const Bytes bytes = frame(9, "hello");
    char out[6] = ".....";
    EXPECT_EQ(lead4_wrap(bytes.data(), 9, out, 4), -1);
    EXPECT_EQ(std::string(out), ".....");
    EXPECT_EQ(lead4_wrap(bytes.data(), 9, out, 5), 5);
    EXPECT_EQ(std::string(out), "hello");
}

TEST(Lead4, AnswersAnEmptyPayloadLikeAMissingOne) {
    const Bytes bytes = frame(4, "");
    char out[1];
    const unsigned char* payload = nullptr;
    unsigned payload_len = 77;
    EXPECT_EQ(lead4_wrap(bytes.data(), 4, out, 0), 0);
    EXPECT_EQ(lead4_wrap(bytes.data(), 4, nullptr, 0), 0);
    EXPECT_EQ(lead4_wrap_ptr(bytes.data(), 4, &payload, &payload_len), 0);
    EXPECT_EQ(payload, bytes.data() + 4);
    EXPECT_EQ(payload_len, 0u);
}

TEST(Lead4, WrapsAroundForALengthThatDoesNotCountItself) {
    for (uint32_t total = 0; total < 4; total++) {
        const Bytes bytes = frame(total, "abc");
        char out[8] = "";
        const unsigned char* payload = nullptr;
        unsigned payload_len = 0;
        EXPECT_EQ(lead4_wrap(bytes.data(), 7, out, sizeof out), -1);
        EXPECT_EQ(lead4_wrap(bytes.data(), 7, out, UINT32_MAX), -1);
        EXPECT_EQ(lead4_wrap_ptr(bytes.data(), 7, &payload, &payload_len),
                  static_cast<int>(total) - 4);
        EXPECT_EQ(payload_len, total - 4);
        EXPECT_EQ(payload, bytes.data() + 4);
    }
}

TEST(Lead4, WaitsForALengthAboveAllThatCanCome) {
    const Bytes bytes = frame(0x80000000u, "abc");
    char out[8];
    EXPECT_EQ(lead4_wrap(bytes.data(), 7, out, sizeof out), 0);
    EXPECT_EQ(lead4_wrap(bytes.data(), -1, out, sizeof out), 0);
}

TEST(Lead4, NeedsNoLengthResult) {
    const Bytes bytes = frame(5, "x");
    const unsigned char* payload = nullptr;
    EXPECT_EQ(lead4_wrap_ptr(bytes.data(), 5, &payload, nullptr), 1);
    EXPECT_EQ(payload, bytes.data() + 4);
}

TEST(Lead4, RefusesNull) {
    const Bytes bytes = frame(5, "x");
    unsigned char out[8];
    const unsigned char* payload;
    unsigned n;
    EXPECT_EQ(lead4_unwrap(nullptr, 1, out, 8), -1);
    EXPECT_EQ(lead4_unwrap("x", 1, nullptr, 8), -1);
    EXPECT_EQ(lead4_wrap(nullptr, 5, out, 8), -1);
    EXPECT_EQ(lead4_wrap(bytes.data(), 5, nullptr, 8), -1);
    EXPECT_EQ(lead4_wrap_ptr(nullptr, 5, &payload, &n), -1);
    EXPECT_EQ(lead4_wrap_ptr(bytes.data(), 5, nullptr, &n), -1);
}
