// AES-256 and the key holder where OpenSSL's own memory runs out: each operation fails as its
// manual says or succeeds, and leaves neither blocks nor files behind.

#include <ztlib/sutils/aes256.h>

#include <tests/support/private_root.h>
#include <tests/sutils/key_pairs.h>

#include <gmock/gmock.h>

#include <openssl/crypto.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <string_view>

#include <malloc.h>
#include <sys/mman.h>

using namespace zt_test;

namespace {

// The first of an operation's allocations are all refused in turn, of the others some.
constexpr uint32_t kAllOf = 300;
constexpr uint32_t kStride = 97;
constexpr uint32_t kCoarseStride = 31;

thread_local uint32_t until_refusal = 0;  // 0: none is refused
thread_local bool refused = false;
std::atomic<int64_t> live_blocks{0};

bool refuse() {
    if (until_refusal == 0 || --until_refusal != 0) return false;
    return refused = true;
}

void* allocate(size_t size, const char*, int) {
    void* const made = refuse() ? nullptr : malloc(size);
    if (made) ++live_blocks;
    return made;
}

// What no released block may hold, and whether one did.
std::string_view secret;
std::atomic<bool> betrayed{false};

void look_into(const void* memory) {
    if (!memory || secret.empty()) return;
    if (memmem(memory, malloc_usable_size(const_cast<void*>(memory)), secret.data(), secret.size()))
        betrayed = true;
}

void* reallocate(void* memory, size_t size, const char*, int) {
    look_into(memory);
    void* const made = refuse() ? nullptr : realloc(memory, size);
    if (made && !memory) ++live_blocks;
    return made;
}
void release(void* memory, const char*, int) {
    look_into(memory);
    if (memory) --live_blocks;
    free(memory);
}

// Before OpenSSL is first used, which is before main().
[[gnu::constructor(101)]] void watch_openssl() {
    CRYPTO_set_mem_functions(allocate, reallocate, release);
}

// Where the child is, for when it does not come back.
struct Progress {
    std::atomic<uint32_t> refusing{0}, rounds{0}, failed{0};
};

// One operation with one allocation refused: true when its result is the one that it has with
// memory enough. It releases what it made.
using Operation = std::function<bool()>;

// Whether OpenSSL itself gives back all that it took.
enum class Losses { none, of_openssl };

// Whether the first allocations are all refused, or some of all.
enum class Sampling { fine, coarse };

// Runs the operation with allocations refused in turn, in a child. `check` looks at what a round
// left behind.
void run_while_memory_runs_out(
    const Operation& operation, const std::function<void(bool)>& check = [](bool) {},
    Losses losses = Losses::none, Sampling sampling = Sampling::fine) {
    void* const shared =
        mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto* const progress = new (shared) Progress;
    const ChildResult child = run_in_child([&] {
        const auto one_round = [&](uint32_t n) {
            const CapturedStderr err;
            progress->refusing = n;
            refused = false;
            until_refusal = n;
            const bool succeeded = operation();
            until_refusal = 0;
            ERR_clear_error();
            check(succeeded);
            if (!succeeded) ++progress->failed;
            EXPECT_TRUE(succeeded || refused) << "fails with memory enough";
            return refused;
        };
        const bool is_fine = sampling == Sampling::fine;
        const auto all_rounds = [&] {
            for (uint32_t n = 1; one_round(n); n += !is_fine     ? kCoarseStride
                                                    : n < kAllOf ? 1
                                                                 : kStride)
                ++progress->rounds;
        };
        EXPECT_TRUE(operation());
        check(true);
        all_rounds();  // what OpenSSL makes once and keeps is made now
        const int64_t live = live_blocks;
        all_rounds();
        if (losses == Losses::none) {
            EXPECT_EQ(live_blocks, live) << "blocks that nobody released";
        }
        fflush(stdout);
        _exit(testing::Test::HasFailure());
    });
    EXPECT_TRUE(child.exited) << "died with allocation " << progress->refusing << " refused";
    EXPECT_EQ(child.status, 0) << child.out << child.err;
    EXPECT_GT(progress->rounds, 0u);
    EXPECT_GT(progress->failed, 0u);
    munmap(shared, sizeof(Progress));
}

const HolderPtr& shared_holder() {
    static const HolderPtr& holder = *new HolderPtr(KeyPair().open());
    return holder;
}

}  // namespace

TEST(OpensslMemory, IsEnoughForAnAesContextOrThereIsNone) {
    const unsigned char key[AES256_KEY_SIZE] = {}, iv[AES256_IV_SIZE] = {};
    run_while_memory_runs_out([&] {
        void* const context = aes256_ctx_init(iv, key);
        aes256_ctx_free(context);
        return context != nullptr;
    });
}

TEST(OpensslMemory, IsEnoughToOpenAKeyPairOrThereIsNoHolder) {
    const KeyPair pair({.key = ready_key(0)}, ready_key(0));
    run_while_memory_runs_out([&] {
        openssl_rsa* holder = openssl_rsa_open(pair.key.c_str(), pair.certificate.c_str());
        const bool opened = holder != nullptr;
        if (opened) {
            EXPECT_EQ(holder->server_id, 258u);
            EXPECT_EQ(holder->public_size, 512);
        }
        openssl_rsa_close(holder, 1);
        return opened;
    });
}

TEST(OpensslMemory, LetsNoWrongPairIn) {
    const KeyPair pair({.key = short_key(1)}), without({.features = {}});
    for (const KeyPair* wrong : {&pair, &without})
        run_while_memory_runs_out(
            [&] {
                openssl_rsa* holder =
                    openssl_rsa_open(wrong->key.c_str(), wrong->certificate.c_str());
                EXPECT_EQ(holder, nullptr);
                return !refused;
            },
            [](bool) {}, Losses::none, Sampling::coarse);
}

TEST(OpensslMemory, IsEnoughToEncryptOrThereIsNoCiphertext) {
    const HolderPtr& holder = shared_holder();
    run_while_memory_runs_out([&] {
        unsigned char* const out = openssl_rsa_public_encrypt(holder.get(), "text", 4);
        free(out);
        return out != nullptr;
    });
}

TEST(OpensslMemory, IsEnoughToDecryptOrThereIsNoPlaintext) {
    const HolderPtr& holder = shared_holder();
    unsigned char* const ciphertext = openssl_rsa_public_encrypt(holder.get(), "text", 4);
    run_while_memory_runs_out([&] {
        unsigned char* out = nullptr;
        int length = 0;
        const int result =
            openssl_rsa_private_decrypt(holder.get(), ciphertext, 128, &out, &length);
        EXPECT_TRUE(result == 0 ? length == 4 : result == -2 && length == -1);
        EXPECT_NE(out, nullptr);
        free(out);
        return result == 0;
    });
    free(ciphertext);
}

TEST(OpensslMemory, IsEnoughForAPrivateKeyOrThereIsNoFile) {
    for (int i = 0; i < kReadyKeys; ++i) ready_key(i);
    const ScratchDirectory files;
    std::string path = files / "key";
    openssl_rsa holder{};
    holder.private_key_path = path.data();
    run_while_memory_runs_out([&] { return openssl_rsa_create_private_key(&holder) == 0; },
                              [&](bool made) {
                                  EXPECT_EQ(entries_of(files.path()).size(), made ? 1u : 0u);
                                  unlink(path.c_str());
                              });
}

// True when OpenSSL releases a block that holds these bytes while the work is done.
template <class Work>
bool betrays(std::string_view bytes, Work work) {
    betrayed = false;
    secret = bytes;
    work();
    secret = {};
    return betrayed;
}

TEST(OpensslMemory, HoldsNoAesKeyWhenItIsReleased) {
    const std::string key = "a key of thirty-two bytes, it is";
    const std::string iv(AES256_IV_SIZE, 'i');
    ASSERT_EQ(key.size(), size_t{AES256_KEY_SIZE});
    EXPECT_FALSE(betrays(key, [&] { aes256_ctx_free(aes256_ctx_init(iv.data(), key.data())); }));
}

TEST(OpensslMemory, HoldsNoPrivateKeyWhenItIsReleased) {
    const KeyPair pair({.key = ready_key(0)}, ready_key(0));
    const std::string text = content_of(pair.key);
    const std::string_view line(text.data() + text.size() / 2, 60);
    EXPECT_FALSE(betrays(line, [&] { pair.open(); }));

    const ScratchDirectory files;
    std::string path = files / "key";
    openssl_rsa holder{};
    holder.private_key_path = path.data();
    const std::string next = content_of(ready_key_path(keys_made() % kReadyKeys));
    EXPECT_FALSE(betrays({next.data() + next.size() / 2, 60},
                         [&] { EXPECT_EQ(openssl_rsa_create_private_key(&holder), 0); }));
    EXPECT_EQ(content_of(path), next);
}

TEST(OpensslMemory, IsLookedIntoWhenItIsReleased) {
    const std::string text = "a text that is nobody's secret, so it stays";
    EXPECT_TRUE(betrays(text, [&] { OPENSSL_free(OPENSSL_strdup(text.c_str())); }));
}

// Moves the process: the last test. (Where OpenSSL cannot cache what it signs with, it signs all
// the same, and loses what it would have cached.)
TEST(OpensslMemory, IsEnoughForARequestOrThereIsNoFile) {
    const HolderPtr& holder = shared_holder();
    const std::string missing = enter_root_without("norv");
    if (!missing.empty())
        GTEST_SKIP() << missing << " failed: /norv wants a root of the test's own (root)";
    std::filesystem::create_directories("/norv/certs");
    run_while_memory_runs_out([&] { return openssl_rsa_create_cert_req(holder.get()) == 0; },
                              [&](bool made) {
                                  EXPECT_EQ(entries_of("/norv/certs").size(), made ? 1u : 0u);
                                  unlink(OPENSSL_RSA_REQUEST);
                              },
                              Losses::of_openssl);
}
