// The certificate authority against the bare OpenSSL calls that do the same, one mutex held where
// ours is. Keys are not made: the generator hands out copies of one that was made before. The files
// are in memory, because a disk would take longer than everything else.

#include <ztlib/sutils/openssl_ca.h>

#include <benchmark/benchmark.h>

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "support/crew.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <vector>

#include <dlfcn.h>
#include <sys/stat.h>

namespace {

constexpr const char* kDomainOid = "1.3.6.1.4.1.49371.7.7.2.7.2";
constexpr const char* kIdOid = "1.3.6.1.4.1.49371.7.7.2.7.3";
constexpr int kIssues = 2;     // certificates a thread issues in one pass
constexpr int kVerifies = 50;  // ... and verifies
constexpr int kEncryptions = 50;
constexpr int kDecryptions = 2;
constexpr size_t kText = 64;  // bytes that are encrypted

// --- the ready key -------------------------------------------------------------------------------

using Generator = int (*)(RSA*, int, BIGNUM*, BN_GENCB*);

const RSA* ready_key() {
    static const RSA* key = [] {
        RSA* made = RSA_new();
        BIGNUM* exponent = BN_new();
        BN_set_word(exponent, RSA_F4);
        reinterpret_cast<Generator>(dlsym(RTLD_NEXT, "RSA_generate_key_ex"))(made, 4096, exponent,
                                                                             nullptr);
        BN_free(exponent);
        return made;
    }();
    return key;
}

// --- the peer ------------------------------------------------------------------------------------

int accept_invalid_ca(int ok, X509_STORE_CTX* context) {
    return ok || X509_STORE_CTX_get_error(context) == X509_V_ERR_INVALID_CA;
}

// Bare calls over the authority that ours has made. Identifiers are registered by ours.
class Bare {
  public:
    explicit Bare(const openssl_ca& ca)
        : ca_(ca),
          domain_(OBJ_txt2nid(kDomainOid)),
          id_(OBJ_txt2nid(kIdOid)),
          context_(X509_STORE_CTX_new()) {}
    ~Bare() { X509_STORE_CTX_free(context_); }
    Bare(const Bare&) = delete;
    Bare& operator=(const Bare&) = delete;

    void issue(const char* common_name, uint64_t id, uint64_t domain) {
        RSA* rsa = RSA_new();
        BIGNUM* exponent = BN_new();
        BN_set_word(exponent, RSA_F4);
        RSA_generate_key_ex(rsa, 4096, exponent, nullptr);
        BN_free(exponent);
        EVP_PKEY* key = EVP_PKEY_new();
        EVP_PKEY_assign_RSA(key, rsa);

        X509* x = X509_new();
        X509_set_version(x, 2);
        {
            const std::lock_guard lock(mutex_);
            ASN1_INTEGER_set(X509_get_serialNumber(x), ++serial_);
        }
        X509_gmtime_adj(X509_getm_notBefore(x), 0);
        X509_gmtime_adj(X509_getm_notAfter(x), 315'360'000);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(common_name), -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(ca_.ca_certificate));
        X509_set_pubkey(x, key);
        add(x, NID_basic_constraints, "critical,CA:FALSE");
        add(x, NID_key_usage,
            "digitalSignature,nonRepudiation,keyEncipherment,dataEncipherment,keyAgreement");
        add(x, NID_ext_key_usage, "serverAuth,clientAuth,emailProtection,selvarClient");
        add_number(x, id_, id);
        add_number(x, domain_, domain);
        add(x, NID_subject_key_identifier, "hash");
        add(x, NID_authority_key_identifier, "keyid:always");
        X509_sign(x, ca_.private_key, EVP_sha1());
        write(x, key,
              std::string(ca_.directory) + "/" + std::to_string(domain) + "_" + std::to_string(id));
        X509_free(x);
        EVP_PKEY_free(key);
    }

    int verify(X509* x, uint64_t& domain, uint64_t& id) {
        domain = number_in(x, domain_);
        id = number_in(x, id_);
        char path[256];
        snprintf(path, sizeof path, "%s/%lu_%lu_public", ca_.directory, domain, id);
        struct stat status;
        if (stat(path, &status) != 0) return -4;
        const std::lock_guard lock(mutex_);
        X509_STORE_CTX_init(context_, ca_.store, x, nullptr);
        X509_STORE_CTX_set_verify_cb(context_, accept_invalid_ca);
        const int result = X509_verify_cert(context_);
        X509_STORE_CTX_cleanup(context_);
        return result == 1 ? 0 : 1;
    }

  private:
    static void add(X509* x, int number, const char* value) {
        X509V3_CTX context;
        X509V3_set_ctx(&context, x, x, nullptr, nullptr, 0);
        X509V3_set_ctx_nodb(&context);
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, number, value);
        X509_add_ext(x, extension, -1);
        X509_EXTENSION_free(extension);
    }
    static void add_number(X509* x, int number, uint64_t value) {
        char text[32];
        const int length = snprintf(text, sizeof text, "%lu", value);
        ASN1_OCTET_STRING* data = ASN1_OCTET_STRING_new();
        ASN1_OCTET_STRING_set(data, reinterpret_cast<unsigned char*>(text), length);
        X509_EXTENSION* extension = X509_EXTENSION_create_by_NID(nullptr, number, 0, data);
        X509_add_ext(x, extension, -1);
        X509_EXTENSION_free(extension);
        ASN1_OCTET_STRING_free(data);
    }
    static uint64_t number_in(X509* x, int number) {
        X509_EXTENSION* extension = X509_get_ext(x, X509_get_ext_by_NID(x, number, -1));
        const ASN1_OCTET_STRING* data = X509_EXTENSION_get_data(extension);
        char text[32] = "";
        memcpy(text, ASN1_STRING_get0_data(data), static_cast<size_t>(ASN1_STRING_length(data)));
        return strtoull(text, nullptr, 10);
    }
    void write(X509* x, EVP_PKEY* key, const std::string& stem) {
        FILE* file = fopen((stem + "_public").c_str(), "w");
        PEM_write_X509(file, x);
        fclose(file);
        file = fopen((stem + "_private").c_str(), "w");
        PEM_write_PKCS8PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr);
        fclose(file);
        file = fopen((stem + ".pfx").c_str(), "w");
        PKCS12* bundle = PKCS12_create("", "Selvar NetClient", key, x, nullptr, 0, 0, 0, 0, 0);
        i2d_PKCS12_fp(file, bundle);
        PKCS12_free(bundle);
        fclose(file);
        const std::lock_guard lock(mutex_);
        file = fopen((std::string(ca_.directory) + "/bare_serial").c_str(), "w");
        fprintf(file, "%u", serial_);
        fclose(file);
    }

    const openssl_ca& ca_;
    const int domain_, id_;
    X509_STORE_CTX* context_;
    std::mutex mutex_;
    uint32_t serial_ = 1'000'000;
};

// --- an authority for each benchmark
// -----------------------------------------------------------------------

const unsigned char kPlain[kText] = "text";

struct World {
    std::string directory;
    openssl_ca* ca;
    std::unique_ptr<Bare> bare;
    std::vector<X509*> certificates;  // one for each thread
    std::string cipher;

    World() {
        directory = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
        directory += "/ztlib-bench-XXXXXX";
        if (!mkdtemp(directory.data())) abort();
        ca = openssl_ca_create(directory.c_str());
        if (!ca) abort();
        for (uint64_t id = 0; id < 2; id++) {
            openssl_ca_new(ca, "client", id, 7);
            certificates.push_back(load(7, id));
        }
        bare = std::make_unique<Bare>(*ca);
        encrypt();
        check();
    }
    ~World() {
        for (X509* certificate : certificates) X509_free(certificate);
        openssl_ca_free(ca, 1);
        std::filesystem::remove_all(directory);
    }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    X509* load(uint64_t domain, uint64_t id) const {
        return openssl_cert_load(
            (directory + "/" + std::to_string(domain) + "_" + std::to_string(id) + "_public")
                .c_str());
    }

  private:
    void encrypt() {
        unsigned char* out;
        unsigned length;
        if (openssl_ca_public_encrypt(ca, kPlain, kText, &out, &length) != 0) abort();
        cipher.assign(reinterpret_cast<char*>(out), length);
        free(out);
    }
    // The peer's certificates are ours, and it says of ours what we say of its.
    void check() {
        bare->issue("client", 1, 9);
        X509* theirs = load(9, 1);
        uint64_t domain = 0, id = 0;
        if (openssl_ca_verify(ca, theirs, &domain, &id) != 0 || domain != 9 || id != 1) abort();
        if (bare->verify(certificates[1], domain, id) != 0 || domain != 7 || id != 1) abort();
        for (int i = 0; i < X509_get_ext_count(theirs); i++)
            if (OBJ_cmp(X509_EXTENSION_get_object(X509_get_ext(theirs, i)),
                        X509_EXTENSION_get_object(X509_get_ext(certificates[1], i))) != 0)
                abort();
        X509_free(theirs);
    }
};

std::vector<size_t> processors(size_t threads) {
    std::vector<size_t> all(threads);
    std::iota(all.begin(), all.end(), size_t{0});
    return all;
}

// `work(world, thread)` is done so many times by each thread.
template <class Work>
void run(benchmark::State& state, size_t threads, int times, Work work) {
    const World world;
    zt_bench::Crew crew(processors(threads));
    for (auto _ : state)
        state.SetIterationTime(crew.time([&](size_t thread) {
            for (int i = 0; i < times; i++) work(world, thread);
        }));
}

void issue_ours(benchmark::State& state, size_t threads) {
    run(state, threads, kIssues, [](const World& world, size_t thread) {
        openssl_ca_new(world.ca, "client", 10 + thread, 7);
    });
}
void issue_bare(benchmark::State& state, size_t threads) {
    run(state, threads, kIssues,
        [](const World& world, size_t thread) { world.bare->issue("client", 10 + thread, 8); });
}

void verify_ours(benchmark::State& state, size_t threads) {
    run(state, threads, kVerifies, [](const World& world, size_t thread) {
        uint64_t domain, id;
        if (openssl_ca_verify(world.ca, world.certificates[thread], &domain, &id) != 0) abort();
    });
}
void verify_bare(benchmark::State& state, size_t threads) {
    run(state, threads, kVerifies, [](const World& world, size_t thread) {
        uint64_t domain, id;
        if (world.bare->verify(world.certificates[thread], domain, id) != 0) abort();
    });
}

// --- encryption ----------------------------------------------------------------------------------

const unsigned char* bytes_of(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

void encrypt_ours(benchmark::State& state) {
    run(state, 1, kEncryptions, [](const World& world, size_t) {
        unsigned char* out;
        unsigned length;
        if (openssl_ca_public_encrypt(world.ca, kPlain, kText, &out, &length) != 0) abort();
        free(out);
    });
}
void decrypt_ours(benchmark::State& state) {
    run(state, 1, kDecryptions, [](const World& world, size_t) {
        unsigned char* out;
        unsigned length;
        if (openssl_ca_private_decrypt(world.ca, world.cipher.data(),
                                       static_cast<unsigned>(world.cipher.size()), &out,
                                       &length) != 0)
            abort();
        free(out);
    });
}

// The general interface with a context of its own for each call, as anybody with a key uses it.
template <auto init, auto operation>
void general(EVP_PKEY* key, const unsigned char* text, size_t length) {
    size_t size = static_cast<size_t>(EVP_PKEY_get_size(key));
    auto* out = static_cast<unsigned char*>(malloc(size));
    EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, nullptr);
    init(context);
    EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING);
    if (operation(context, out, &size, text, length) != 1) abort();
    EVP_PKEY_CTX_free(context);
    free(out);
}
void encrypt_general(benchmark::State& state) {
    run(state, 1, kEncryptions, [](const World& world, size_t) {
        general<EVP_PKEY_encrypt_init, EVP_PKEY_encrypt>(world.ca->public_key, kPlain, kText);
    });
}
void decrypt_general(benchmark::State& state) {
    run(state, 1, kDecryptions, [](const World& world, size_t) {
        general<EVP_PKEY_decrypt_init, EVP_PKEY_decrypt>(
            world.ca->private_key, bytes_of(world.cipher), world.cipher.size());
    });
}

// RSA's own, which is what ours is made of.
template <auto operation>
void direct(EVP_PKEY* key, const unsigned char* text, size_t length) {
    RSA* rsa = EVP_PKEY_get1_RSA(key);
    auto* out = static_cast<unsigned char*>(malloc(static_cast<size_t>(RSA_size(rsa))));
    if (operation(static_cast<int>(length), text, out, rsa, RSA_PKCS1_OAEP_PADDING) < 0) abort();
    free(out);
    RSA_free(rsa);
}
void encrypt_direct(benchmark::State& state) {
    run(state, 1, kEncryptions, [](const World& world, size_t) {
        direct<RSA_public_encrypt>(world.ca->public_key, kPlain, kText);
    });
}
void decrypt_direct(benchmark::State& state) {
    run(state, 1, kDecryptions, [](const World& world, size_t) {
        direct<RSA_private_decrypt>(world.ca->private_key, bytes_of(world.cipher),
                                    world.cipher.size());
    });
}

const bool registered = [] {
    for (const size_t threads : {1, 2}) {
        const std::string suffix = "_" + std::to_string(threads) + "_thread/";
        const auto add = [&](const std::string& job, const char* engine, auto function) {
            benchmark::RegisterBenchmark((job + suffix + engine).c_str(),
                                         [=](benchmark::State& state) { function(state, threads); })
                ->UseManualTime();
        };
        add("ca_issue", "ztlib", issue_ours);
        add("ca_issue", "openssl", issue_bare);
        add("ca_verify", "ztlib", verify_ours);
        add("ca_verify", "openssl", verify_bare);
    }
    benchmark::RegisterBenchmark("ca_encrypt/ztlib", encrypt_ours)->UseManualTime();
    benchmark::RegisterBenchmark("ca_encrypt/openssl_rsa", encrypt_direct)->UseManualTime();
    benchmark::RegisterBenchmark("ca_encrypt/openssl_evp", encrypt_general)->UseManualTime();
    benchmark::RegisterBenchmark("ca_decrypt/ztlib", decrypt_ours)->UseManualTime();
    benchmark::RegisterBenchmark("ca_decrypt/openssl_rsa", decrypt_direct)->UseManualTime();
    benchmark::RegisterBenchmark("ca_decrypt/openssl_evp", decrypt_general)->UseManualTime();
    return true;
}();

}  // namespace

// In the place of libcrypto's, for the library too.
extern "C" int RSA_generate_key_ex(RSA* to, int, BIGNUM*, BN_GENCB*) {
    const BIGNUM *n, *e, *d, *p, *q, *dp, *dq, *qi;
    RSA_get0_key(ready_key(), &n, &e, &d);
    RSA_get0_factors(ready_key(), &p, &q);
    RSA_get0_crt_params(ready_key(), &dp, &dq, &qi);
    return RSA_set0_key(to, BN_dup(n), BN_dup(e), BN_dup(d)) == 1 &&
           RSA_set0_factors(to, BN_dup(p), BN_dup(q)) == 1 &&
           RSA_set0_crt_params(to, BN_dup(dp), BN_dup(dq), BN_dup(qi)) == 1;
}
