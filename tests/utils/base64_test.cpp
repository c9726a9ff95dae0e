#include <ztlib/utils/converters.h>
#include <ztlib/utils/base64.hpp>
#include <ztlib/utils/vectors.hpp>

#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <gmock/gmock.h>

#include <openssl/evp.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <random>
#include <string>

using namespace zt_test;

namespace {

std::string random_bytes(size_t count) {
    std::mt19937 random(static_cast<unsigned>(count) + 1);
    std::string bytes(count, '\0');
    for (char& byte : bytes) byte = static_cast<char>(random());
    return bytes;
}

std::string by_openssl(const std::string& bytes) {
    std::string text(bytes.size() / 3 * 4 + 5, '\0');
    const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                       reinterpret_cast<const unsigned char*>(bytes.data()),
                                       static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    return text;
}

std::string take(char* text) {
    const std::string copy = text;
    free(text);
    return copy;
}

std::string encoded(const std::string& bytes) {
    unsigned length = 99;
    char* text = base64encode_(bytes.data(), static_cast<unsigned>(bytes.size()), &length);
    EXPECT_EQ(strlen(text), length);
    return take(text);
}

using Decoder = unsigned char* (*)(const char*, unsigned, unsigned*);

// Nothing when the decoder gives NULL.
std::optional<std::string> decoded_by(Decoder decode, const std::string& text) {
    unsigned length = 99;
    unsigned char* bytes = decode(text.data(), static_cast<unsigned>(text.size()), &length);
    if (!bytes) {
        EXPECT_EQ(length, 0u);
        return std::nullopt;
    }
    EXPECT_EQ(bytes[length], 0);
    std::string copy(reinterpret_cast<char*>(bytes), length);
    free(bytes);
    return copy;
}

std::optional<std::string> decoded(const std::string& text) {
    return decoded_by(base64decode_, text);
}

TEST(Base64, PadsToWholeGroups) {
    EXPECT_EQ(encoded("abc"), "YWJj");
    EXPECT_EQ(encoded("ab"), "YWI=");
    EXPECT_EQ(encoded("a"), "YQ==");
    EXPECT_EQ(encoded(""), "");
    EXPECT_EQ(take(base64encode_(nullptr, 0, nullptr)), "");
}

TEST(Base64, IsDecodedToTheFirstEqualsSign) {
    EXPECT_EQ(decoded("YWI="), "ab");
    EXPECT_EQ(decoded("YW=I???"), "a");
    EXPECT_EQ(decoded("="), "");
    EXPECT_EQ(decoded(""), "");
}

TEST(Base64, IsDecodedAcrossNewlines) {
    EXPECT_EQ(decoded("YW\nJj"), "abc");
    EXPECT_EQ(decoded("\n\nY\nW\nJ\nj\n"), "abc");
    EXPECT_EQ(decoded("\n"), "");
}

TEST(Base64, IsDecodedWithoutItsPadding) {
    EXPECT_EQ(decoded("YWI"), "ab");
    EXPECT_EQ(decoded("YQ"), "a");
    EXPECT_EQ(decoded("YWJjZ"), "abc");
    EXPECT_EQ(decoded("Y"), "");
    EXPECT_EQ(decoded("YWJj="), "abc");
}

TEST(Base64, IsNotDecodedWithAnyOtherCharacter) {
    EXPECT_EQ(decoded("YW Jj"), std::nullopt);
    EXPECT_EQ(decoded("YWJj\r\n"), std::nullopt);
    EXPECT_EQ(decoded("YWJj\t"), std::nullopt);
    EXPECT_EQ(decoded(std::string("YW\0Jj", 5)), std::nullopt);
    EXPECT_EQ(decoded("YW-_"), std::nullopt);
}

TEST(Base64, HasOneMeaningForEachCharacter) {
    const std::string alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    int invalid = 0;
    for (int c = 0; c < 256; ++c) {
        const std::string text = {static_cast<char>(c), 'A'};
        const auto bytes = decoded(text);
        const size_t sextet = alphabet.find(static_cast<char>(c));
        if (c == '\n' || c == '=') {
            EXPECT_EQ(bytes, "");
        } else if (sextet != alphabet.npos) {
            EXPECT_EQ(bytes, std::string(1, static_cast<char>(sextet << 2)));
        } else {
            EXPECT_EQ(bytes, std::nullopt);
            ++invalid;
        }
    }
    EXPECT_EQ(invalid, 190);
}

TEST(Base64, NeedsNoLength) {
    EXPECT_EQ(take(base64encode_("abc", 3, nullptr)), "YWJj");
    unsigned char* bytes = base64decode_("YWJj", 4, nullptr);
    EXPECT_STREQ(reinterpret_cast<char*>(bytes), "abc");
    free(bytes);
}

TEST(Base64, GivesNothingForNull) {
    unsigned length = 9;
    EXPECT_EQ(base64encode_(nullptr, 1, &length), nullptr);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(base64decode_(nullptr, 1, &length), nullptr);
    EXPECT_EQ(base64encode(nullptr, 1), nullptr);
    EXPECT_EQ(_base64encode(nullptr, 1), nullptr);
    EXPECT_EQ(base64decode(nullptr, 1, &length), nullptr);
    EXPECT_EQ(_base64decode(nullptr, 1, &length), nullptr);
}

TEST(Base64, GivesNothingWhenMemoryIsOut) {
    CapturedStderr err;
    for_each_failing_allocation([] { return base64encode_("text", 4, nullptr); },
                                [](char* text) { free(text); });
    EXPECT_EQ(err.text(), "./buffers/buffer:buffer_make_room realloc():Cannot allocate memory\n");
    for_each_failing_allocation([] { return base64decode_("YWJj", 4, nullptr); },
                                [](unsigned char* bytes) { free(bytes); });
}

TEST(Base64, TakesOneAllocation) {
    const std::string bytes = random_bytes(100'000);
    const auto before = calls_of("realloc") + calls_of("malloc") + calls_of("calloc");
    char* text = base64encode_(bytes.data(), 100'000, nullptr);
    EXPECT_EQ(calls_of("realloc") + calls_of("malloc") + calls_of("calloc"), before + 1);
    free(text);
}

TEST(Base64, IsNotEncodedBeyond2GiB) {
    CapturedStderr err;
    const char byte = 0;  // never looked at
    unsigned length = 9;
    EXPECT_EQ(base64encode_(&byte, 1'610'612'736, &length), nullptr);
    EXPECT_EQ(base64encode_(&byte, UINT_MAX, &length), nullptr);
    EXPECT_EQ(length, 0u);
}

class Base64Paths : public testing::TestWithParam<bool> {
  protected:
    const bool use_vectors = GetParam() && zt::vectors::available();

    std::string encode(const std::string& bytes) const {
        std::string text(zt::base64_length(bytes.size()), '?');
        zt::base64_encode(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                          text.data(), use_vectors);
        return text;
    }
    std::optional<std::string> decode(const std::string& text) const {
        std::string bytes(text.size(), '?');
        const size_t count = zt::base64_decode(
            text.data(), text.size(), reinterpret_cast<unsigned char*>(bytes.data()), use_vectors);
        if (count == zt::kNotBase64) return std::nullopt;
        return bytes.substr(0, count);
    }
};

TEST_P(Base64Paths, AgreeWithOpensslForEveryLength) {
    for (size_t length = 0; length <= 1000; ++length) {
        const std::string bytes = random_bytes(length);
        const std::string text = by_openssl(bytes);
        ASSERT_EQ(encode(bytes), text);
        ASSERT_EQ(decode(text), bytes);
    }
}

TEST_P(Base64Paths, EncodeEverySextetAtEveryPlace) {
    for (size_t at = 0; at < 48; ++at)
        for (unsigned value = 0; value < 256; ++value) {
            std::string bytes(48, '\0');
            bytes[at] = static_cast<char>(value);
            const std::string text = by_openssl(bytes);
            ASSERT_EQ(encode(bytes), text);
            ASSERT_EQ(decode(text), bytes);
        }
}

TEST_P(Base64Paths, TellEveryCharacterApartAtEveryPlace) {
    const std::string good = by_openssl(random_bytes(48));
    for (size_t at = 0; at < good.size(); ++at)
        for (int c = 0; c < 256; ++c) {
            std::string text = good;
            text[at] = static_cast<char>(c);
            const bool is_valid = isalnum(c) || c == '+' || c == '/' || c == '\n' || c == '=';
            const auto bytes = decode(text);
            ASSERT_EQ(bytes.has_value(), is_valid) << "character " << c << " at " << at;
            if (c == '=') {
                ASSERT_EQ(bytes, decode(good.substr(0, at)));
            }
            if (c == '\n') {
                ASSERT_EQ(bytes, decode(good.substr(0, at) + good.substr(at + 1)));
            }
        }
}

TEST_P(Base64Paths, DecodeLinesOfEveryWidth) {
    const std::string bytes = random_bytes(700);
    const std::string text = by_openssl(bytes);
    for (size_t width = 1; width <= 130; ++width) {
        std::string lines;
        for (size_t at = 0; at < text.size(); at += width) lines += text.substr(at, width) + "\n";
        ASSERT_EQ(decode(lines), bytes) << "lines of " << width;
    }
}

INSTANTIATE_TEST_SUITE_P(Both, Base64Paths, testing::Bool(),
                         [](const auto& run) { return run.param ? "vectors" : "scalar"; });

// --- through OpenSSL's filter -------------------------------------------------------------------

std::string in_lines(const std::string& text) {
    std::string lines;
    for (size_t at = 0; at < text.size(); at += 64) lines += text.substr(at, 64) + "\n";
    return lines;
}

TEST(Base64ByOpenssl, DropsTheLastCharacterOfOneLine) {
    EXPECT_EQ(take(base64encode("abc", 3)), "YWJ");
    EXPECT_EQ(take(base64encode("a", 1)), "YQ=");
    for (size_t length : {2u, 48u, 49u, 1000u}) {
        const std::string bytes = random_bytes(length);
        const std::string text = by_openssl(bytes);
        EXPECT_EQ(take(base64encode(bytes.data(), static_cast<unsigned>(length))),
                  text.substr(0, text.size() - 1));
    }
}

TEST(Base64ByOpenssl, BreaksLinesAfter64Characters) {
    EXPECT_EQ(take(_base64encode("abc", 3)), "YWJj");
    for (size_t length : {1u, 47u, 48u, 49u, 96u, 1000u}) {
        const std::string bytes = random_bytes(length);
        const std::string lines = in_lines(by_openssl(bytes));
        EXPECT_EQ(take(_base64encode(bytes.data(), static_cast<unsigned>(length))),
                  lines.substr(0, lines.size() - 1));
    }
}

TEST(Base64ByOpenssl, EncodesNothingAsAnEmptyText) {
    EXPECT_EQ(take(base64encode("", 0)), "");
    EXPECT_EQ(take(_base64encode("", 0)), "");
    EXPECT_EQ(take(base64encode(nullptr, 0)), "");
}

TEST(Base64ByOpenssl, DecodesOneLine) {
    EXPECT_EQ(decoded_by(base64decode, "YWI="), "ab");
    const std::string bytes = random_bytes(500);
    EXPECT_EQ(decoded_by(base64decode, by_openssl(bytes)), bytes);
}

TEST(Base64ByOpenssl, DecodesLines) {
    EXPECT_EQ(decoded_by(_base64decode, "YWI=\n"), "ab");
    const std::string bytes = random_bytes(500);
    EXPECT_EQ(decoded_by(_base64decode, in_lines(by_openssl(bytes))), bytes);
}

TEST(Base64ByOpenssl, GivesAnEmptyResultForTextThatDoesNotDecode) {
    EXPECT_EQ(decoded_by(base64decode, "!!!!"), "");
    EXPECT_EQ(decoded_by(_base64decode, "!!!!\n"), "");
    EXPECT_EQ(decoded_by(base64decode, ""), "");
    EXPECT_EQ(decoded_by(_base64decode, ""), "");
    EXPECT_EQ(decoded_by(base64decode, "YW Jj"), "");
    unsigned char* bytes = base64decode(nullptr, 0, nullptr);
    EXPECT_EQ(*bytes, 0);
    free(bytes);
}

TEST(Base64ByOpenssl, TakesAtMost2GiB) {
    const char byte = 0;  // never looked at
    EXPECT_EQ(base64encode(&byte, 1u << 31), nullptr);
    EXPECT_EQ(_base64encode(&byte, 1u << 31), nullptr);
    EXPECT_EQ(base64decode(&byte, 1u << 31, nullptr), nullptr);
    EXPECT_EQ(_base64decode(&byte, 1u << 31, nullptr), nullptr);
}

TEST(Base64ByOpenssl, GivesNothingWhenMemoryIsOut) {
    for_each_failing_allocation([] { return base64encode("text", 4); },
                                [](char* text) { free(text); });
    for_each_failing_allocation([] { return _base64encode("text", 4); },
                                [](char* text) { free(text); });
    for_each_failing_allocation([] { return base64decode("YWJj", 4, nullptr); },
                                [](unsigned char* bytes) { free(bytes); });
    for_each_failing_allocation([] { return _base64decode("YWJj\n", 5, nullptr); },
                                [](unsigned char* bytes) { free(bytes); });
}

}  // namespace
