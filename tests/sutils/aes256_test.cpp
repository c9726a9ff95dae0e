#include <ztlib/sutils/aes256.h>

#include <tests/support/faults.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <openssl/err.h>
#include <openssl/evp.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace zt_test;
using testing::Each;

namespace {

std::string from_hex(const std::string& hex) {
    std::string bytes;
    for (size_t i = 0; i + 1 < hex.size(); i += 2)
        bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    return bytes;
}

std::string sample(size_t length) {
    std::string message;
    unsigned state = 54321;
    for (size_t i = 0; i < length; ++i) {
        state = state * 1664525 + 1013904223;
        message += static_cast<char>(state >> 24);
    }
    return message;
}

// Key, IV and four blocks of the standard's CBC example.
const std::string kKeyHex = "603deb1015ca71be2b73aef0857d77811f352c073b6108d72d9810a30914dff4";
const std::string kIvHex = "000102030405060708090a0b0c0d0e0f";
const std::string kKey = from_hex(kKeyHex);
const std::string kIv = from_hex(kIvHex);
const std::string kPlain = from_hex(
    "6bc1bee22e409f96e93d7e117393172aae2d8a571e03ac9c9eb76fac45af8e51"
    "30c81c46a35ce411e5fbc1191a0a52eff69f2445df4f9b17ad2b417be66c3710");
const std::string kCipher = from_hex(
    "f58c4c04d6e5f1ba779eabfb5f7bfbd69cfc4e967edb808d679f777bc6702c7d"
    "39f23369a9d9bacfa530e26304231461b2eb05e2c39be9fcda6c19078c6a9d1b");

using Context = std::unique_ptr<void, decltype(&aes256_ctx_free)>;
Context make_context(const std::string& key = kKey, const std::string& iv = kIv) {
    return {aes256_ctx_init(iv.data(), key.data()), aes256_ctx_free};
}

std::string taken(unsigned char* bytes, int length) {
    std::string text(reinterpret_cast<char*>(bytes), static_cast<size_t>(length));
    free(bytes);
    return text;
}

std::string encrypted(const Context& context, const std::string& plaintext) {
    int length = static_cast<int>(plaintext.size());
    unsigned char* out = aes256_encrypt(context.get(), plaintext.data(), &length);
    EXPECT_NE(out, nullptr);
    return out ? taken(out, length) : "";
}

// What it decrypts to; the zero byte behind it is looked for.
std::string decrypted(const Context& context, const std::string& ciphertext) {
    int length = static_cast<int>(ciphertext.size());
    unsigned char* out = aes256_decrypt(context.get(), ciphertext.data(), &length);
    EXPECT_NE(out, nullptr);
    if (!out) return "";
    EXPECT_EQ(out[length], '\0');
    return taken(out, length);
}

// The same by the calls of OpenSSL's that know about padding: update, then a final whose result is
// not looked at.
class Reference {
  public:
    Reference() : cipher_(EVP_CIPHER_CTX_new(), EVP_CIPHER_CTX_free) {}

    std::string apply(const std::string& message, bool encrypt) const {
        const auto bytes = [](const std::string& text) {
            return reinterpret_cast<const unsigned char*>(text.data());
        };
        std::string out(message.size() + 32, '\0');
        auto* const to = reinterpret_cast<unsigned char*>(out.data());
        int updated = 0, finished = 0;
        EVP_CipherInit_ex(cipher_.get(), EVP_aes_256_cbc(), nullptr, bytes(kKey), bytes(kIv),
                          encrypt);
        EXPECT_EQ(EVP_CipherUpdate(cipher_.get(), to, &updated, bytes(message),
                                   static_cast<int>(message.size())),
                  1);
        ERR_set_mark();
        if (EVP_CipherFinal_ex(cipher_.get(), to + updated, &finished) != 1) finished = 0;
        ERR_pop_to_mark();
        out.resize(static_cast<size_t>(updated + finished));
        return out;
    }

  private:
    std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher_;
};

// Of the lengths at which something changes, and of some between them.
Strings chosen_messages() {
    Strings messages;
    for (size_t length = 0; length <= 1000; length += length < 34 ? 1 : 69)
        messages.push_back(sample(length));
    messages.push_back(sample(1000));
    return messages;
}

// What the tool makes of each message; one shell runs it for all of them.
Strings openssl_enc(const std::string& direction, const Strings& messages) {
    const ScratchDirectory files;
    for (size_t i = 0; i < messages.size(); ++i) files.write("in" + std::to_string(i), messages[i]);
    const Result tool =
        run({"sh", "-e", "-c",
             "cd \"$1\"; for in in in*; do openssl enc $2 -aes-256-cbc -K $3 -iv $4 "
             "-in $in -out out${in#in}; done",
             "sh", files.path(), direction, kKeyHex, kIvHex});
    EXPECT_EQ(tool.status, 0) << tool.err;
    Strings results;
    for (size_t i = 0; i < messages.size(); ++i)
        results.push_back(content_of(files / ("out" + std::to_string(i))));
    return results;
}

}  // namespace

// --- the format ----------------------------------------------------------------------------------

TEST(Aes256, GivesTheStandardsExampleAndABlockOfPadding) {
    const Context context = make_context();
    const std::string ciphertext = encrypted(context, kPlain);
    EXPECT_EQ(ciphertext.substr(0, kCipher.size()), kCipher);
    EXPECT_EQ(ciphertext.size(), kCipher.size() + 16);
    EXPECT_EQ(decrypted(context, ciphertext), kPlain);
}

TEST(Aes256, PadsToTheNextWholeBlock) {
    const Context context = make_context();
    EXPECT_EQ(encrypted(context, "").size(), 16u);
    EXPECT_EQ(encrypted(context, std::string(15, 'x')).size(), 16u);
    EXPECT_EQ(encrypted(context, std::string(16, 'x')).size(), 32u);
    EXPECT_EQ(encrypted(context, std::string(17, 'x')).size(), 32u);
}

TEST(Aes256, EncryptsEveryLengthUpTo1000AsOpensslDoes) {
    const Context context = make_context();
    const Reference openssl;
    for (size_t length = 0; length <= 1000; ++length)
        ASSERT_EQ(encrypted(context, sample(length)), openssl.apply(sample(length), true))
            << length;
}

TEST(Aes256, DecryptsWhatItEncryptedAtEveryLengthUpTo1000) {
    const Context context = make_context();
    for (size_t length = 0; length <= 1000; ++length)
        ASSERT_EQ(decrypted(context, encrypted(context, sample(length))), sample(length)) << length;
}

TEST(Aes256, IsDecryptedByTheOpensslTool) {
    if (!is_installed("openssl")) GTEST_SKIP() << "needs the openssl tool";
    const Context context = make_context();
    Strings ciphertexts;
    for (const std::string& message : chosen_messages())
        ciphertexts.push_back(encrypted(context, message));
    EXPECT_EQ(openssl_enc("-d", ciphertexts), chosen_messages());
}

TEST(Aes256, DecryptsWhatTheOpensslToolEncrypted) {
    if (!is_installed("openssl")) GTEST_SKIP() << "needs the openssl tool";
    const Context context = make_context();
    Strings plaintexts;
    for (const std::string& ciphertext : openssl_enc("-e", chosen_messages()))
        plaintexts.push_back(decrypted(context, ciphertext));
    EXPECT_EQ(plaintexts, chosen_messages());
}

TEST(Aes256, CarriesAMebibyte) {
    const Context context = make_context();
    const std::string message = sample((1 << 20) + 5);
    const std::string ciphertext = encrypted(context, message);
    EXPECT_TRUE(ciphertext == Reference().apply(message, true));
    EXPECT_TRUE(decrypted(context, ciphertext) == message);
}

// --- the context ---------------------------------------------------------------------------------

TEST(Aes256, EncryptsEqualMessagesAlike) {
    const Context context = make_context();
    const std::string first = encrypted(context, "the same again");
    encrypted(context, sample(100));
    EXPECT_EQ(encrypted(context, "the same again"), first);
}

TEST(Aes256, DecryptsInAnyOrderBetweenEncryptions) {
    const Context context = make_context();
    const std::string one = encrypted(context, sample(40));
    const std::string two = encrypted(context, sample(333));
    EXPECT_EQ(decrypted(context, two), sample(333));
    EXPECT_EQ(encrypted(context, sample(40)), one);
    EXPECT_EQ(decrypted(context, one), sample(40));
    EXPECT_EQ(decrypted(context, two), sample(333));
}

TEST(Aes256, KeepsItsOwnCopyOfKeyAndIv) {
    std::string key = kKey, iv = kIv;
    const Context context = make_context(key, iv);
    key.assign(key.size(), 'k');
    iv.assign(iv.size(), 'i');
    EXPECT_EQ(encrypted(context, kPlain).substr(0, kCipher.size()), kCipher);
}

TEST(Aes256, StaysAsItWasAfterADamagedMessage) {
    const Context context = make_context();
    const std::string ciphertext = encrypted(context, sample(50));
    decrypted(context, ciphertext.substr(0, 40));
    EXPECT_EQ(decrypted(context, ciphertext), sample(50));
    EXPECT_EQ(encrypted(context, sample(50)), ciphertext);
}

TEST(Aes256, ServesEachThreadWithAContextOfItsOwn) {
    std::vector<int> right(8);
    std::vector<std::thread> threads;
    for (int& count : right)
        threads.emplace_back([&count] {
            const Context context = make_context();
            for (size_t i = 0; i < 100; ++i)
                count += decrypted(context, encrypted(context, sample(i))) == sample(i);
        });
    for (auto& thread : threads) thread.join();
    EXPECT_THAT(right, Each(100));
}

// --- damaged messages ----------------------------------------------------------------------------

TEST(Aes256, GivesTheWholeBlocksBeforeTheLastWhereThePaddingIsWrong) {
    const Context context = make_context();
    const std::string message = sample(48);
    const std::string ciphertext = encrypted(context, message);  // three blocks and one of padding

    const std::string without_padding = ciphertext.substr(0, 48);
    EXPECT_EQ(decrypted(context, without_padding), message.substr(0, 32));
    EXPECT_EQ(decrypted(context, ciphertext.substr(0, 16)), "");
}

TEST(Aes256, GivesAllWholeBlocksOfALengthThatIsNoMultiple) {
    const Context context = make_context();
    const std::string message = sample(48);
    const std::string ciphertext = encrypted(context, message);
    EXPECT_EQ(decrypted(context, ciphertext.substr(0, 47)), message.substr(0, 32));
    EXPECT_EQ(decrypted(context, ciphertext.substr(0, 33)), message.substr(0, 32));
    EXPECT_EQ(decrypted(context, ciphertext.substr(0, 15)), "");
    EXPECT_EQ(decrypted(context, ""), "");
}

TEST(Aes256, DecryptsWithAWrongKeyToSomething) {
    const std::string ciphertext = encrypted(make_context(), sample(100));
    const Context other = make_context(std::string(32, 'k'));
    EXPECT_NE(decrypted(other, ciphertext), sample(100));
}

// Every length, and a last block that says every kind of padding.
TEST(Aes256, DecryptsWhateverItIsGivenAsOpensslDoes) {
    const Context context = make_context();
    const Reference openssl;
    for (size_t length = 0; length <= 1000; ++length)
        ASSERT_EQ(decrypted(context, sample(length)), openssl.apply(sample(length), false))
            << length;

    for (int last = 0; last < 256; ++last) {
        for (const char fill : {static_cast<char>(last), '\x01'}) {
            // Padded once more, so that without that padding it ends as it is wanted to.
            std::string wanted = sample(32) + std::string(15, fill) + static_cast<char>(last);
            const std::string ciphertext = encrypted(context, wanted).substr(0, wanted.size());
            ASSERT_EQ(decrypted(context, ciphertext), openssl.apply(ciphertext, false)) << last;
        }
    }
}

TEST(Aes256, ReadsAndWritesNothingBeyondDamagedData) {
    const Context context = make_context();
    for (size_t size = 0; size < 70; ++size) {
        // A block of exactly that size, which the address sanitizer guards.
        const std::unique_ptr<unsigned char[]> data(new unsigned char[size]);
        memset(data.get(), 0xa5, size);
        int length = static_cast<int>(size);
        unsigned char* out = aes256_decrypt(context.get(), data.get(), &length);
        ASSERT_NE(out, nullptr);
        EXPECT_LE(static_cast<size_t>(length), size);
        free(out);
    }
}

TEST(Aes256, LeavesTheErrorQueueAsItWas) {
    const Context context = make_context();
    ERR_raise(ERR_LIB_USER, 7);
    decrypted(context, sample(48));
    decrypted(context, sample(47));
    EXPECT_EQ(ERR_GET_REASON(ERR_get_error()), 7);
    EXPECT_EQ(ERR_get_error(), 0u);
}

// --- refusals ------------------------------------------------------------------------------------

TEST(Aes256, RefusesLengthsThatAreNone) {
    const Context context = make_context();
    for (const int wrong : {-1, INT_MIN, AES256_LENGTH_MAX + 1, INT_MAX}) {
        char byte = 'x';
        int length = wrong;
        EXPECT_EQ(aes256_encrypt(context.get(), &byte, &length), nullptr);
        EXPECT_EQ(length, wrong);
        EXPECT_EQ(aes256_decrypt(context.get(), &byte, &length), nullptr);
        EXPECT_EQ(length, wrong);
    }
}

TEST(Aes256, AsksForMemoryForTheLongestMessage) {
    const Context context = make_context();
    for (auto* const operation : {aes256_encrypt, aes256_decrypt}) {
        const FailingCall no_memory("malloc", ENOMEM);
        char byte = 'x';
        int length = AES256_LENGTH_MAX;
        EXPECT_EQ(operation(context.get(), &byte, &length), nullptr);
        EXPECT_TRUE(no_memory.hit());
    }
}

TEST(Aes256, TakesNoMessageOnlyWhereThereAreNoBytes) {
    const Context context = make_context();
    int length = 0;
    unsigned char* out = aes256_encrypt(context.get(), nullptr, &length);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(taken(out, length), encrypted(context, ""));

    length = 0;
    out = aes256_decrypt(context.get(), nullptr, &length);
    ASSERT_NE(out, nullptr);
    EXPECT_EQ(taken(out, length), "");

    length = 1;
    EXPECT_EQ(aes256_encrypt(context.get(), nullptr, &length), nullptr);
    EXPECT_EQ(aes256_decrypt(context.get(), nullptr, &length), nullptr);
    EXPECT_EQ(length, 1);
}

TEST(Aes256, LeavesNullsAlone) {
    const Context context = make_context();
    int length = 1;
    EXPECT_EQ(aes256_encrypt(nullptr, "x", &length), nullptr);
    EXPECT_EQ(aes256_decrypt(nullptr, "x", &length), nullptr);
    EXPECT_EQ(length, 1);
    EXPECT_EQ(aes256_encrypt(context.get(), "x", nullptr), nullptr);
    EXPECT_EQ(aes256_decrypt(context.get(), "x", nullptr), nullptr);
    EXPECT_EQ(aes256_ctx_init(nullptr, kKey.data()), nullptr);
    EXPECT_EQ(aes256_ctx_init(kIv.data(), nullptr), nullptr);
    aes256_ctx_free(nullptr);
}

// --- memory that runs out ------------------------------------------------------------------------

TEST(Aes256, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    for_each_failing_allocation([] { return aes256_ctx_init(kIv.data(), kKey.data()); },
                                aes256_ctx_free);
}

TEST(Aes256, KeepsTheLengthWhenMemoryIsOut) {
    const Context context = make_context();
    for (auto* const operation : {aes256_encrypt, aes256_decrypt}) {
        for (FailingAllocations round; round.next();) {
            int length = 48;
            round.arm();
            unsigned char* out = operation(context.get(), kCipher.data(), &length);
            round.disarm();
            EXPECT_EQ(out == nullptr, round.hit());
            if (round.hit()) {
                EXPECT_EQ(length, 48);
            }
            free(out);
        }
    }
}

// --- what OpenSSL refuses ------------------------------------------------------------------------

TEST(Aes256, IsNotMadeWhereOpensslRefuses) {
    const int64_t live = live_allocations();
    for (const char* const call :
         {"EVP_CIPHER_CTX_new", "EVP_EncryptInit_ex", "EVP_DecryptInit_ex"}) {
        const FailingCall fault(call, 0);
        EXPECT_EQ(aes256_ctx_init(kIv.data(), kKey.data()), nullptr);
        EXPECT_TRUE(fault.hit()) << call;
    }
    const FailingCall second("EVP_CIPHER_CTX_new", 0, 1);
    EXPECT_EQ(aes256_ctx_init(kIv.data(), kKey.data()), nullptr);
    EXPECT_TRUE(second.hit());
    EXPECT_EQ(live_allocations(), live);
}

TEST(Aes256, KeepsTheLengthWhereOpensslRefuses) {
    const Context context = make_context();
    const int64_t live = live_allocations();
    for (auto* const operation : {aes256_encrypt, aes256_decrypt})
        for (const char* const call : {"EVP_CipherInit_ex", "EVP_Cipher"}) {
            const FailingCall fault(call, 0);
            int length = 48;
            EXPECT_EQ(operation(context.get(), kCipher.data(), &length), nullptr);
            EXPECT_TRUE(fault.hit()) << call;
            EXPECT_EQ(length, 48);
        }
    EXPECT_EQ(live_allocations(), live);
}
