// The authority where OpenSSL's own memory runs out: whatever allocation fails, a call gives one of
// its results, what it wrote is whole, nothing is left behind, and nobody is let in who would not
// have been.
//
// A call that dies takes a child process with it, and not the test.

#include <tests/sutils/authority.h>

#include <openssl/crypto.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <functional>

#include <sys/mman.h>

using namespace zt_test;

namespace {

constexpr uint32_t kEach = 300;   // so many allocations are refused one by one,
constexpr uint32_t kStride = 97;  // and of the later ones every so many-th

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

// Before OpenSSL is first used, which is before main(). The files are in memory too where that can
// be had: there are many, and each would have to reach the disk.
[[gnu::constructor(101)]] void prepare() {
    CRYPTO_set_mem_functions(allocate, reallocate, release);
    if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
}

// Calls `work` in a child process with one allocation refused, each in turn, until a call needs no
// more. `work` prints what is wrong. At least so many allocations are refused.
void while_memory_runs_out(uint32_t at_least, const std::function<void()>& work) {
    auto* now = static_cast<uint32_t*>(
        mmap(nullptr, sizeof(uint32_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const ChildResult child = run_in_child([&] {
        const CapturedStderr err;
        work();  // what OpenSSL makes once and keeps is made now
        refused = true;
        for (uint32_t n = 1; refused; n += n < kEach ? 1 : kStride) {
            *now = n;
            refused = false;
            until_refusal = n;
            work();
            until_refusal = 0;
        }
    });
    EXPECT_TRUE(child.exited) << "died of allocation " << *now;
    EXPECT_EQ(child.out, "");
    EXPECT_GE(*now, at_least);
    munmap(now, sizeof *now);
}

// For the length of a check within the work: nothing is refused.
class MemoryIsBack {
  public:
    MemoryIsBack() : until_(until_refusal) { until_refusal = 0; }
    ~MemoryIsBack() { until_refusal = until_; }
    MemoryIsBack(const MemoryIsBack&) = delete;
    MemoryIsBack& operator=(const MemoryIsBack&) = delete;

  private:
    uint32_t until_;
};

void check(bool holds, const char* what) {
    if (!holds) {
        printf("%s\n", what);
        fflush(stdout);
    }
}

// The library's own blocks: OpenSSL's, which it makes and keeps as it likes, are left out.
int64_t own_blocks() { return live_allocations() - live_blocks; }

struct Held {
    int64_t blocks = own_blocks();
    int descriptors = descriptor_count();

    void check_given_back() const {
        check(own_blocks() == blocks, "a block is left");
        check(descriptor_count() == descriptors, "a descriptor is left");
    }
};

bool is_whole(const ScratchAuthority& ca) {
    const size_t count = entries_of(ca.path()).size();
    return count == 3 || (count == 6 && exists(ca / "7_42_public") && exists(ca / "7_42.pfx") &&
                          key_in(ca / "7_42_private"));
}

}  // namespace

TEST(OpensslCaMemory, AnAuthorityIsOpenedOrNot) {
    const ScratchAuthority ca;
    while_memory_runs_out(300, [&] {
        const Held held;
        openssl_ca* opened = openssl_ca_create(ca.path().c_str());
        check(opened || refused, "not opened");
        check(!opened || opened->private_key, "half opened");
        openssl_ca_free(opened, 1);
        held.check_given_back();
    });
    EXPECT_EQ(entries_of(ca.path()).size(), 3u);
}

TEST(OpensslCaMemory, AnAuthorityIsMadeWholeOrNot) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "ca";
    while_memory_runs_out(300, [&] {
        const Held held;
        openssl_ca* made = openssl_ca_create(path.c_str());
        check(made || refused, "not made");
        openssl_ca_free(made, 1);
        const MemoryIsBack back;
        if (entries_of(path).size() == 3) {
            made = openssl_ca_create(path.c_str());
            check(made, "made, but of no use");
            openssl_ca_free(made, 1);
        } else {
            check(entries_of(path).empty(), "half made");
        }
        std::filesystem::remove_all(path);
        held.check_given_back();
    });
}

TEST(OpensslCaMemory, ACertificateIsIssuedWholeOrNot) {
    const ScratchAuthority ca;
    while_memory_runs_out(300, [&] {
        const Held held;
        openssl_ca_new(ca.get(), "client", 42, 7);
        const MemoryIsBack back;
        check(is_whole(ca), "half issued");
        check(entries_of(ca.path()).size() == 6 || refused, "not issued");
        if (const CertificatePtr x = certificate_in(ca / "7_42_public"))
            check(ca.verify(x) == 0, "issued, but of no use");
        openssl_ca_del(ca.get(), "7_42");
        held.check_given_back();
    });
}

TEST(OpensslCaMemory, NobodyIsLetIn) {
    const ScratchAuthority ca;
    const CertificatePtr ours = ca.issue(7, 42);
    const CertificatePtr foreign = make({});
    const auto verdict = [&](const CertificatePtr& x) {
        uint64_t domain = 0, id = 0;
        return openssl_ca_verify(ca.get(), x.get(), &domain, &id);
    };
    while_memory_runs_out(30, [&] {
        const CertificatePtr x(certificate_in(ca / "7_42_public"));
        const int result = x ? verdict(x) : 1;
        check(result == 0 || refused, "refused ours");
    });
    while_memory_runs_out(10, [&] {
        check(verdict(foreign) != 0, "accepted a foreign one");
        const MemoryIsBack back;
        check(verdict(ours) == 0, "of no use afterwards");
    });
}

TEST(OpensslCaMemory, EncryptionGivesAResultOrNone) {
    const ScratchAuthority ca;
    unsigned char* out = nullptr;
    unsigned length = 0;
    ASSERT_EQ(openssl_ca_public_encrypt(ca.get(), "text", 4, &out, &length), 0);
    const std::string cipher(reinterpret_cast<char*>(out), length);
    free(out);

    while_memory_runs_out(5, [&] {
        const Held held;
        unsigned char* made = nullptr;
        unsigned size = 77;
        const int result = openssl_ca_public_encrypt(ca.get(), "text", 4, &made, &size);
        check(result == 0 ? made && size == 512 : !made && size == 0, "half encrypted");
        check(result == 0 || refused, "not encrypted");
        free(made);
        held.check_given_back();
    });
    while_memory_runs_out(5, [&] {
        const Held held;
        unsigned char* made = nullptr;
        unsigned size = 77;
        const int result = openssl_ca_private_decrypt(
            ca.get(), cipher.data(), static_cast<unsigned>(cipher.size()), &made, &size);
        check(result == 0 ? std::string(reinterpret_cast<char*>(made), size) == "text"
                          : !made && size == 0,
              "half decrypted");
        check(result == 0 || refused, "not decrypted");
        free(made);
        held.check_given_back();
    });
}

TEST(OpensslCaMemory, AKeyIsWrittenWholeOrNot) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "key";
    while_memory_runs_out(30, [&] {
        const Held held;
        const int result = openssl_ca_create_private_key(path.c_str());
        const MemoryIsBack back;
        check(result == 0 || refused, "not made");
        check((result == 0) == exists(path), "made and not made");
        check(result != 0 || key_in(path), "half made");
        unlink(path.c_str());
        held.check_given_back();
    });
}

// What a call takes of OpenSSL's memory it gives back, refused or not.
TEST(OpensslCaMemory, LeavesNothingOfOpensslsBehind) {
    const ScratchAuthority ca;
    const CertificatePtr ours = ca.issue(7, 42);
    const std::vector<std::function<void()>> calls{
        [&] { openssl_ca_new(ca.get(), "client", 42, 7); },
        [&] { openssl_ca_free(openssl_ca_create(ca.path().c_str()), 1); },
        [&] { ca.verify(ours); },
        [&] { X509_free(openssl_cert_load((ca / "public").c_str())); },
    };
    for (size_t i = 0; i < calls.size(); i++) {
        const ChildResult child = run_in_child([&] {
            const CapturedStderr err;
            calls[i]();
            calls[i]();
            const int64_t before = live_blocks;
            for (int n = 0; n < 3; n++) calls[i]();
            printf("%ld", static_cast<long>(live_blocks - before));
        });
        EXPECT_EQ(child.out, "0") << "call " << i;
    }
}
