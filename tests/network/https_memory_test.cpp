// The HTTPS client where OpenSSL's own memory runs out: whatever allocation fails, nothing is left
// behind, and nobody is let in who would not have been.

#include <ztlib/network/http_client.h>

#include <tests/network/http_peers.h>
#include <tests/network/test_ca.h>
#include <tests/support/capture.h>

#include <openssl/crypto.h>

#include <cstdlib>

using namespace zt_test;

const zt::HttpsTrust& zt::https_trust() { return Trust::current(); }

namespace {

// A connection makes some 4,300 allocations; every so many-th is tried.
#if defined(__SANITIZE_THREAD__)
constexpr uint32_t kStride = 97;
#else
constexpr uint32_t kStride = 13;
#endif

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
void* reallocate(void* memory, size_t size, const char*, int) {
    void* const made = refuse() ? nullptr : realloc(memory, size);
    if (made && !memory) ++live_blocks;
    return made;
}
void release(void* memory, const char*, int) {
    if (memory) --live_blocks;
    free(memory);
}

// Before OpenSSL is first used, which is before main().
[[gnu::constructor(101)]] void watch_openssl() {
    CRYPTO_set_mem_functions(allocate, reallocate, release);
}

bool connects(int port) {
    SSL* ssl = https_connect("127.0.0.1", port);
    if (!ssl) return false;
    const Fd fd(SSL_get_fd(ssl));
    https_close(ssl);
    return true;
}

// Connects with one allocation refused, each in turn. Returns how often that succeeded all the
// same.
uint32_t connect_while_memory_runs_out(int port) {
    uint32_t accepted = 0;
    for (uint32_t n = 1; refused || n == 1; n += kStride) {
        const CapturedStderr err;
        refused = false;
        until_refusal = n;
        accepted += connects(port) && refused;
        until_refusal = 0;
    }
    return accepted;
}

struct HttpsMemory : testing::Test {
    static inline const Identity root{"root", kAuthority};
    static inline const Identity server{"server", {}, &root};
    static inline const Identity sibling{"sibling", {}, &root};

    Trust trust{root, server};
};

void wait_for_the_end(SSL* ssl) { receive_rest(ssl); }

}  // namespace

TEST_F(HttpsMemory, LeavesNothingBehind) {
    const TlsServer peer(server, wait_for_the_end);
    const uint64_t connected_before = calls_of("connect");
    const auto live_after_a_connection = [&] {
        EXPECT_TRUE(connects(peer.port()));
        const uint64_t connected = calls_of("connect") - connected_before;
        EXPECT_TRUE(eventually([&] { return static_cast<uint64_t>(peer.served()) == connected; }));
        return live_blocks.load();
    };
    live_after_a_connection();
    connect_while_memory_runs_out(peer.port());  // what OpenSSL makes once and keeps is made now

    const int64_t live = live_after_a_connection();
    const int descriptors = descriptor_count();
    connect_while_memory_runs_out(peer.port());
    EXPECT_EQ(live_after_a_connection(), live);
    EXPECT_EQ(descriptor_count(), descriptors);
}

TEST_F(HttpsMemory, LetsNoOtherFingerprintIn) {
    const TlsServer peer(sibling, wait_for_the_end);
    EXPECT_EQ(connect_while_memory_runs_out(peer.port()), 0u);
}

TEST_F(HttpsMemory, LetsNoOtherChainIn) {
    const Identity other_root("root", kAuthority);
    const Identity other("server", {}, &other_root);
    trust.pin(other);
    const TlsServer peer(other, wait_for_the_end);
    EXPECT_EQ(connect_while_memory_runs_out(peer.port()), 0u);
}
