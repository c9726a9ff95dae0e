#include <ztlib/sutils/hash.h>

#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

using namespace zt_test;
using testing::Each;

namespace {

struct Algorithm {
    const char* name;  // as the openssl tool spells it
    int (*hash)(const void*, int, void*, int);
    int (*hash_string)(const void*, int, char*, int);
    int size;
};

constexpr Algorithm kSha256{"sha256", sha256_hash, sha256_hash_string, 32};
constexpr Algorithm kSha512{"sha512", sha512_hash, sha512_hash_string, 64};

// What stands behind the digest, and all over it where nothing is written.
constexpr char kUntouched = 'u';

int length_of(const std::string& message) { return static_cast<int>(message.size()); }

// The digest as text, from the function that writes text.
std::string text_of(const Algorithm& algorithm, const std::string& message) {
    std::string out(static_cast<size_t>(2 * algorithm.size) + 2, kUntouched);
    EXPECT_EQ(algorithm.hash_string(message.data(), length_of(message), out.data(),
                                    2 * algorithm.size + 1),
              0);
    EXPECT_EQ(out.back(), kUntouched);
    EXPECT_EQ(out[out.size() - 2], '\0');
    return out.c_str();
}

// The same from the function that writes bytes.
std::string raw_as_text(const Algorithm& algorithm, const std::string& message) {
    std::string out(static_cast<size_t>(algorithm.size) + 1, kUntouched);
    EXPECT_EQ(algorithm.hash(message.data(), length_of(message), out.data(), algorithm.size), 0);
    EXPECT_EQ(out.back(), kUntouched);
    std::string text;
    for (int i = 0; i < algorithm.size; ++i) {
        char digits[3];
        snprintf(digits, sizeof digits, "%02x",
                 static_cast<unsigned char>(out[static_cast<size_t>(i)]));
        text += digits;
    }
    return text;
}

void expect_digest(const Algorithm& algorithm, const std::string& message,
                   const std::string& expected) {
    EXPECT_EQ(text_of(algorithm, message), expected);
    EXPECT_EQ(raw_as_text(algorithm, message), expected);
}

std::string sample(size_t length) {
    std::string message;
    unsigned state = 12345;
    for (size_t i = 0; i < length; ++i) {
        state = state * 1664525 + 1013904223;
        message += static_cast<char>(state >> 24);
    }
    return message;
}

// The whole buffer after a call that was refused.
template <class Call>
std::string after_refusal(Call call) {
    std::string out(200, kUntouched);
    EXPECT_EQ(call(out.data()), -1);
    return out;
}

class Hash : public testing::TestWithParam<Algorithm> {};

}  // namespace

// --- the standard's own examples -----------------------------------------------------------------

TEST(Sha256, GivesTheStandardsExamples) {
    expect_digest(kSha256, "", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    expect_digest(kSha256, "abc",
                  "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    expect_digest(kSha256, "abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
                  "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
    expect_digest(kSha256, std::string(1'000'000, 'a'),
                  "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha512, GivesTheStandardsExamples) {
    expect_digest(kSha512, "",
                  "cf83e1357eefb8bdf1542850d66d8007d620e4050b5715dc83f4a921d36ce9ce"
                  "47d0d13c5d85f2b0ff8318d2877eec2f63b931bd47417a81a538327af927da3e");
    expect_digest(kSha512, "abc",
                  "ddaf35a193617abacc417349ae20413112e6fa4e89a97ea20a9eeee64b55d39a"
                  "2192992a274fc1a836ba3c23a3feebbd454d4423643ce80e2a9ac94fa54ca49f");
    expect_digest(kSha512,
                  "abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmn"
                  "hijklmnoijklmnopjklmnopqklmnopqrlmnopqrsmnopqrstnopqrstu",
                  "8e959b75dae313da8cf4f72814fc143f8f7779c6eb9f7fa17299aeadb6889018"
                  "501d289e4900f7e4331b99dec4b5433ac7d329eeb6dd26545e96e55b874be909");
    expect_digest(kSha512, std::string(1'000'000, 'a'),
                  "e718483d0ce769644e2e42c7bc15b4638e1f98b13b2044285632a803afa973eb"
                  "de0ff244877ea60a4cb0432ce577c31beb009c5c2c49aa2e4eadb217ad8cc09b");
}

// --- both algorithms -----------------------------------------------------------------------------

TEST_P(Hash, AgreesWithTheOpensslToolOnEveryLengthUpTo1000) {
    if (!is_installed("openssl")) GTEST_SKIP() << "needs the openssl tool";
    const ScratchDirectory files;
    std::vector<std::string> command{"openssl", "dgst", "-r", std::string("-") + GetParam().name};
    std::vector<std::string> messages;
    for (size_t length = 0; length <= 1000; ++length) {
        messages.push_back(sample(length));
        command.push_back(files.write(std::to_string(length), messages.back()));
    }

    const Result tool = run(command);
    ASSERT_EQ(tool.status, 0) << tool.err;

    std::istringstream lines(tool.out);
    size_t compared = 0;
    for (std::string line; std::getline(lines, line); ++compared) {
        const std::string expected = line.substr(0, line.find(' '));
        ASSERT_LT(compared, messages.size());
        expect_digest(GetParam(), messages[compared], expected);
    }
    EXPECT_EQ(compared, messages.size());
}

TEST_P(Hash, WritesNothingWhereTheRawDigestHasNoRoom) {
    const auto& [name, hash, hash_string, size] = GetParam();
    for (const int out_size : {size - 1, 1, 0, -1, INT_MIN})
        EXPECT_THAT(after_refusal([&](char* out) { return hash("abc", 3, out, out_size); }),
                    Each(kUntouched));
}

TEST_P(Hash, WritesNothingWhereTheDigitsHaveNoRoom) {
    const auto& [name, hash, hash_string, size] = GetParam();
    for (const int out_size : {2 * size - 1, size, 0, -1, INT_MIN})
        EXPECT_THAT(after_refusal([&](char* out) { return hash_string("abc", 3, out, out_size); }),
                    Each(kUntouched));
}

TEST_P(Hash, WritesTheTerminatorBehindTheRoomThatIsAskedFor) {
    const auto& [name, hash, hash_string, size] = GetParam();
    const size_t digits = static_cast<size_t>(2 * size);
    std::string out(digits + 2, kUntouched);

    EXPECT_EQ(hash_string("abc", 3, out.data(), 2 * size), 0);

    EXPECT_EQ(out.c_str(), text_of(GetParam(), "abc"));
    EXPECT_EQ(out[digits], '\0');
    EXPECT_EQ(out[digits + 1], kUntouched);
}

TEST_P(Hash, RefusesANegativeLength) {
    const auto& [name, hash, hash_string, size] = GetParam();
    for (const int length : {-1, INT_MIN}) {
        EXPECT_THAT(after_refusal([&](char* out) { return hash("abc", length, out, 200); }),
                    Each(kUntouched));
        EXPECT_THAT(after_refusal([&](char* out) { return hash_string("abc", length, out, 200); }),
                    Each(kUntouched));
    }
}

TEST_P(Hash, TakesNoDataOnlyWhereThereAreNoBytes) {
    const auto& [name, hash, hash_string, size] = GetParam();
    char out[200] = "";
    EXPECT_EQ(hash_string(nullptr, 0, out, sizeof out), 0);
    EXPECT_EQ(out, text_of(GetParam(), ""));
    EXPECT_EQ(hash(nullptr, 0, out, sizeof out), 0);

    EXPECT_EQ(hash(nullptr, 1, out, sizeof out), -1);
    EXPECT_EQ(hash_string(nullptr, 1, out, sizeof out), -1);
    EXPECT_EQ(hash("abc", 3, nullptr, 200), -1);
    EXPECT_EQ(hash_string("abc", 3, nullptr, 200), -1);
}

TEST_P(Hash, WritesOverItsOwnData) {
    const auto& [name, hash, hash_string, size] = GetParam();
    char data[200] = "abc";
    EXPECT_EQ(hash_string(data, 3, data, sizeof data), 0);
    EXPECT_EQ(data, text_of(GetParam(), "abc"));
}

TEST_P(Hash, RunsOnManyThreadsAtOnce) {
    const std::string message = sample(777);
    const std::string expected = text_of(GetParam(), message);
    std::vector<int> right(8);
    std::vector<std::thread> threads;
    for (int& count : right)
        threads.emplace_back([&] {
            for (int i = 0; i < 100; ++i) count += text_of(GetParam(), message) == expected;
        });
    for (auto& thread : threads) thread.join();
    EXPECT_THAT(right, Each(100));
}

INSTANTIATE_TEST_SUITE_P(, Hash, testing::Values(kSha256, kSha512),
                         [](const auto& which) { return std::string(which.param.name); });
