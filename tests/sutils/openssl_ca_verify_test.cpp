// Judging certificates, alone and in TLS with the openssl tool as client, and encryption.

#include <tests/sutils/authority.h>

#include <tests/support/sockets.h>

#include <openssl/ssl.h>

#include <climits>
#include <functional>
#include <thread>

#include <sys/socket.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr uint64_t kUntouched = 0x5555'5555'5555'5555;

struct Verify : testing::Test {
    const ScratchAuthority& ca = shared_authority();
    CertificatePtr issued = certificate_in(ca / "7_42_public");
    uint64_t domain = kUntouched, id = kUntouched;

    static void SetUpTestSuite() { shared_authority().issue(7, 42); }

    int verify(const CertificatePtr& x) {
        return openssl_ca_verify(ca.get(), x.get(), &domain, &id);
    }
    int verify_domain(const CertificatePtr& x) const {
        uint64_t any;
        return openssl_ca_verify(ca.get(), x.get(), &any, nullptr);
    }
    // The signature and the time alone.
    int verify_alone(const CertificatePtr& x) const {
        return openssl_ca_verify(ca.get(), x.get(), nullptr, nullptr);
    }
    CertificatePtr make_by_ca(const Recipe& recipe) const { return make_by(ca, recipe); }
};

}  // namespace

// --- what is asked for ---------------------------------------------------------------------------

TEST_F(Verify, AcceptsWhatTheAuthorityIssued) {
    const HostsError error;
    EXPECT_EQ(verify(issued), 0);
    EXPECT_EQ(domain, 7u);
    EXPECT_EQ(id, 42u);
    EXPECT_TRUE(error.is_alone());
}

TEST_F(Verify, ReadsTheIdOnlyTogetherWithTheDomain) {
    EXPECT_EQ(openssl_ca_verify(ca.get(), issued.get(), &domain, nullptr), 0);
    EXPECT_EQ(domain, 7u);
    EXPECT_EQ(openssl_ca_verify(ca.get(), issued.get(), nullptr, &id), 0);
    EXPECT_EQ(id, kUntouched);
    EXPECT_EQ(verify_alone(issued), 0);
}

TEST_F(Verify, MissesTheClientsFileWhenBothAreAskedForAlone) {
    const ScratchAuthority own;
    const CertificatePtr x = own.issue(7, 42);
    EXPECT_EQ(own.verify(x), 0);
    openssl_ca_del(own.get(), "7_42");
    EXPECT_EQ(openssl_ca_verify(own.get(), x.get(), &domain, &id), -4);
    EXPECT_EQ(domain, 7u);
    EXPECT_EQ(id, 42u);
    EXPECT_EQ(openssl_ca_verify(own.get(), x.get(), &domain, nullptr), 0);
    EXPECT_EQ(openssl_ca_verify(own.get(), x.get(), nullptr, &id), 0);
    EXPECT_EQ(openssl_ca_verify(own.get(), x.get(), nullptr, nullptr), 0);

    own.issue(7, 42);
    EXPECT_EQ(own.verify(x), 0);
}

TEST_F(Verify, MissesTheDomainAndTheIdFirst) {
    const CertificatePtr neither = make({.domain = nullptr, .id = nullptr});
    const CertificatePtr without_domain = make_by_ca({.domain = nullptr});
    const CertificatePtr without_id = make_by_ca({.id = nullptr});
    EXPECT_EQ(verify(neither), -1);
    EXPECT_EQ(verify(without_domain), -1);
    EXPECT_EQ(domain, kUntouched);
    EXPECT_EQ(verify(without_id), -2);
    EXPECT_EQ(domain, 7u);
    EXPECT_EQ(id, kUntouched);
    EXPECT_EQ(verify_domain(without_id), 0);
    EXPECT_EQ(verify_alone(without_domain), 0);
    EXPECT_EQ(verify(make({.domain = "8"})), -4);
}

TEST_F(Verify, RefusesNull) {
    EXPECT_EQ(openssl_ca_verify(nullptr, issued.get(), &domain, &id), -1);
    EXPECT_EQ(openssl_ca_verify(ca.get(), nullptr, &domain, &id), -1);
    EXPECT_EQ(openssl_ca_verify(nullptr, nullptr, nullptr, nullptr), -1);
}

TEST_F(Verify, ReadsNumbersAsStrtoullDoes) {
    for (const char* text :
         {"0",
          "42",
          "0042",
          " \t\n\v\f\r42",
          "+42",
          "-42",
          "-0",
          "- 42",
          "+-42",
          "42x",
          "x42",
          "",
          " ",
          "-",
          "0x2a",
          "4 2",
          "18446744073709551615",
          "18446744073709551616",
          "18446744073709551620",
          "-18446744073709551615",
          "-18446744073709551616",
          "99999999999999999999999999999999999999999",
          "1844674407370955161500",
          "000000000000000000000000000000000000000000000000000000000000000000000000000000000007"}) {
        openssl_ca_verify(ca.get(), make({.domain = text}).get(), &domain, nullptr);
        EXPECT_EQ(domain, strtoull(text, nullptr, 10)) << '"' << text << '"';
    }
}

TEST_F(Verify, ReadsANumberUpToTheExtensionsEndAlone) {
    const CertificatePtr x = make({.domain = nullptr});
    add_text_extension(x.get(), kDomainOid,
                       std::string("12\0"
                                   "34",
                                   5));
    add_text_extension(x.get(), kDomainOid, "56");
    openssl_ca_verify(ca.get(), x.get(), &domain, nullptr);
    EXPECT_EQ(domain, 12u);
}

TEST_F(Verify, LooksForNoFileUnderAPathThatWouldBeCut) {
    // The directory's path is as long as it may be for "/7_42_public", which has 12 characters.
    const ScratchDirectory scratch;
    const auto result_at = [&](size_t length) {
        std::string path = scratch.path() + "/" + std::string(100, 'a');
        mkdir(path.c_str(), 0700);
        path += "/";
        path += std::string(length - path.size(), 'b');
        openssl_ca* own = openssl_ca_create(path.c_str());
        if (!own) return -100;
        openssl_ca_new(own, "client", 42, 7);
        const CertificatePtr x = certificate_in(path + "/7_42_public");
        const int result = x ? openssl_ca_verify(own, x.get(), &domain, &id) : -101;
        openssl_ca_free(own, 1);
        // The serial of a long path lies where it was cut.
        std::filesystem::remove_all(scratch / std::string(100, 'a'));
        return result;
    };
    EXPECT_EQ(result_at(243), 0);
    EXPECT_EQ(result_at(244), -4);
}

// --- who signed it, and when ---------------------------------------------------------------------

TEST_F(Verify, RefusesWhatAnotherAuthorityOfTheSameNameIssued) {
    const CertificatePtr other = make_authority("Selvar Server CA", ready_key(1));
    EXPECT_EQ(verify(make({.issuer = other.get(), .issuer_key = ready_key(1)})), 1);
}

TEST_F(Verify, RefusesWhatNobodyIssued) {
    EXPECT_EQ(verify(make({})), 1);
    const HostsError error;
    EXPECT_EQ(verify(make({.subject = "Selvar Server CA", .with_country = true})), 1);
    EXPECT_TRUE(error.is_alone());
}

TEST_F(Verify, RefusesACertificateThatWasChanged) {
    const CertificatePtr x = make_by_ca({});
    ASSERT_EQ(verify(x), 0);
    unsigned char* der = nullptr;
    const int length = i2d_X509(x.get(), &der);
    std::string bytes(reinterpret_cast<char*>(der), static_cast<size_t>(length));
    OPENSSL_free(der);
    const size_t at = bytes.find("client");
    ASSERT_NE(at, std::string::npos);
    bytes[at] = 'C';
    auto* from = reinterpret_cast<const unsigned char*>(bytes.data());
    const CertificatePtr changed(d2i_X509(nullptr, &from, length), X509_free);
    ASSERT_NE(changed, nullptr);
    EXPECT_EQ(verify(changed), 1);
}

TEST_F(Verify, RefusesACertificateOutsideItsTime) {
    EXPECT_EQ(verify(make_by_ca({.from = -100, .to = 100})), 0);
    EXPECT_EQ(verify(make_by_ca({.from = -100, .to = -10})), 1);
    EXPECT_EQ(verify(make_by_ca({.from = 100, .to = 1000})), 1);
}

TEST_F(Verify, RefusesWhatAClientIssued) {
    const ScratchAuthority own;
    const CertificatePtr client = own.issue(7, 42);
    const KeyPtr key = key_in(own / "7_42_private");
    const CertificatePtr x = make({.issuer = client.get(), .issuer_key = key.get()});
    EXPECT_EQ(own.verify(x), 1);
    X509_STORE_add_cert(own->store, client.get());
    EXPECT_EQ(own.verify(x), 1);
    EXPECT_EQ(own.verify(client), 0);
}

TEST_F(Verify, RefusesEverythingOnceTheAuthorityHasExpired) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "ca";
    openssl_ca_free(openssl_ca_create(path.c_str()), 1);
    const KeyPtr key = key_in(path + "/private");
    Recipe past;
    past.subject = "Selvar Server CA";
    past.with_country = true;
    past.domain = past.id = nullptr;
    past.from = -1000;
    past.to = -10;
    past.key = key.get();
    write_to(path + "/public", pem_text(make(past).get()));
    openssl_ca* own = openssl_ca_create(path.c_str());
    ASSERT_NE(own, nullptr);
    const CertificatePtr x = make({.issuer = own->ca_certificate, .issuer_key = key.get()});
    EXPECT_EQ(openssl_ca_verify(own, x.get(), nullptr, nullptr), 1);
    openssl_ca_free(own, 1);
}

TEST_F(Verify, OverlooksTheMissingExtensionsOfItsOwnAuthorityAlone) {
    const ScratchAuthority own;
    const CertificatePtr other = make_authority("Other CA", ready_key(1));
    const CertificatePtr x = make({.issuer = other.get(), .issuer_key = ready_key(1)});
    X509_STORE_add_cert(own->store, other.get());
    EXPECT_EQ(openssl_ca_verify(own.get(), x.get(), nullptr, nullptr), 1);
}

// --- callbacks -----------------------------------------------------------------------------------

namespace {

std::vector<int> errors_seen;

int note_error(int ok, X509_STORE_CTX* context) {
    if (!ok) errors_seen.push_back(X509_STORE_CTX_get_error(context));
    return 1;
}

// A context in which this error of this certificate was found.
using ContextPtr = std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)>;
ContextPtr context_with(int error, int depth, X509* certificate) {
    ContextPtr context(X509_STORE_CTX_new(), X509_STORE_CTX_free);
    X509_STORE_CTX_set_error(context.get(), error);
    X509_STORE_CTX_set_error_depth(context.get(), depth);
    X509_STORE_CTX_set_current_cert(context.get(), certificate);
    return context;
}

}  // namespace

TEST_F(Verify, AsksTheHostsCallbackAboutEveryOtherError) {
    const ScratchAuthority own;
    X509_STORE_set_verify_cb(own->store, note_error);
    errors_seen.clear();
    EXPECT_EQ(openssl_ca_verify(own.get(), make_by(own, {}).get(), nullptr, nullptr), 0);
    EXPECT_THAT(errors_seen, IsEmpty());
    const CertificatePtr expired = make_by(own, {.from = -100, .to = -10});
    EXPECT_EQ(openssl_ca_verify(own.get(), expired.get(), nullptr, nullptr), 0);
    EXPECT_THAT(errors_seen, ElementsAre(X509_V_ERR_CERT_HAS_EXPIRED));

    X509_STORE_set_verify_cb(own->store, verify_callback2);
    const CapturedStderr err;
    EXPECT_EQ(openssl_ca_verify(own.get(), expired.get(), nullptr, nullptr), 1);
    EXPECT_EQ(err.text(),
              "-Error with certificate at depth: 0\n"
              "  issuer   = /C=BG/CN=Selvar Server CA\n"
              "  subject  = /CN=client\n"
              "  err 10:certificate has expired\n");
}

TEST_F(Verify, CallbackAcceptsAnUnknownCriticalExtension) {
    const ScratchAuthority own;
    CertificatePtr x(X509_dup(make_by(own, {}).get()), X509_free);
    X509_EXTENSION_set_critical(X509_get_ext(x.get(), 0), 1);
    ASSERT_GT(X509_sign(x.get(), own->private_key, EVP_sha1()), 0);
    EXPECT_EQ(openssl_ca_verify(own.get(), x.get(), nullptr, nullptr), 1);

    X509_STORE_set_verify_cb(own->store, verify_callback2);
    const CapturedStderr err;
    EXPECT_EQ(openssl_ca_verify(own.get(), x.get(), nullptr, nullptr), 0);
    EXPECT_THAT(err.text(), HasSubstr("  err 34:unhandled critical extension\n"));
}

TEST(VerifyCallback2, PrintsWhatIsWrongAndReturnsWhatItIsGiven) {
    const CertificatePtr x = make({.subject = std::string(64, 's')});
    CapturedStderr err;
    EXPECT_EQ(verify_callback2(1, context_with(79, 0, x.get()).get()), 1);
    EXPECT_EQ(verify_callback2(0, nullptr), 0);
    EXPECT_EQ(verify_callback2(1, nullptr), 1);
    EXPECT_EQ(err.take(), "");

    const std::string name = "/CN=" + std::string(64, 's');
    EXPECT_EQ(verify_callback2(0, context_with(X509_V_ERR_INVALID_CA, 3, x.get()).get()), 0);
    EXPECT_EQ(err.take(), "-Error with certificate at depth: 3\n  issuer   = " + name +
                              "\n  subject  = " + name + "\n  err 79:invalid CA certificate\n");
    EXPECT_EQ(verify_callback2(0, context_with(34, 0, nullptr).get()), 1);
    EXPECT_EQ(err.take(),
              "-Error with certificate at depth: 0\n  issuer   = \n  subject  = \n"
              "  err 34:unhandled critical extension\n");
}

TEST(VerifyCallback2, CutsLongNames) {
    const CertificatePtr x = make({});
    for (int i = 0; i < 10; i++) add_name(x.get(), "OU", std::string(60, 'o'));
    const CapturedStderr err;
    verify_callback2(0, context_with(1, 0, x.get()).get());
    const std::string text = err.text();
    const size_t from = text.find("  subject  = ") + 13;
    EXPECT_LE(text.find('\n', from) - from, 255u);
    EXPECT_GT(text.find('\n', from) - from, 128u);
}

// --- TLS -----------------------------------------------------------------------------------------

namespace {

// A server that asks for the client's certificate, lets any in, and judges it afterwards.
class TlsServer {
  public:
    TlsServer(openssl_ca* ca, const std::string& identity)
        : ca_(ca), context_(SSL_CTX_new(TLS_server_method()), SSL_CTX_free) {
        SSL_CTX* context = context_.get();
        SSL_CTX_set_cipher_list(context, "DEFAULT:@SECLEVEL=0");
        SSL_CTX_use_certificate_file(context, (identity + "_public").c_str(), SSL_FILETYPE_PEM);
        SSL_CTX_use_PrivateKey_file(context, (identity + "_private").c_str(), SSL_FILETYPE_PEM);
        SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT,
                           [](int, X509_STORE_CTX*) { return 1; });
        const sockaddr_in any = loopback(0);
        bind(listener_.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any);
        listen(listener_.get(), 5);
    }

    struct Verdict {
        int result = -100;  // no certificate
        uint64_t domain = 0, id = 0;
    };

    // What it says of the certificate that `openssl s_client` shows.
    Verdict judge(const std::string& certificate, const std::string& key) {
        const Program client({"openssl", "s_client", "-cipher", "DEFAULT@SECLEVEL=0", "-connect",
                              "127.0.0.1:" + std::to_string(local_port(listener_.get())), "-cert",
                              certificate, "-key", key});
        const Fd peer(accept(listener_.get(), nullptr, nullptr));
        const std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context_.get()), SSL_free);
        SSL_set_fd(ssl.get(), peer.get());
        Verdict verdict;
        if (SSL_accept(ssl.get()) == 1) {
            X509* shown = SSL_get_peer_certificate(ssl.get());
            verdict.result = openssl_ca_verify(ca_, shown, &verdict.domain, &verdict.id);
            X509_free(shown);
        }
        EXPECT_EQ(ERR_peek_error(), 0u);
        return verdict;
    }

  private:
    openssl_ca* ca_;
    std::shared_ptr<SSL_CTX> context_;
    Fd listener_{socket(AF_INET, SOCK_STREAM, 0)};
};

}  // namespace

TEST(OpensslCaTls, JudgesTheClientsOfAServer) {
    const ScratchAuthority ca;
    ca.issue(1, 1, "server");
    ca.issue(7, 42);
    TlsServer server(ca.get(), ca / "1_1");
    const std::string certificate = ca / "7_42_public", key = ca / "7_42_private";

    const TlsServer::Verdict known = server.judge(certificate, key);
    EXPECT_EQ(known.result, 0);
    EXPECT_EQ(known.domain, 7u);
    EXPECT_EQ(known.id, 42u);

    const ScratchDirectory scratch;
    const std::string foreign = scratch.write("foreign", pem_text(make({}).get()));
    EXPECT_EQ(server.judge(foreign, ready_key_path(0)).result, 1);
    const std::string bare =
        scratch.write("bare", pem_text(make({.domain = nullptr, .id = nullptr}).get()));
    EXPECT_EQ(server.judge(bare, ready_key_path(0)).result, -1);

    const std::string kept = scratch.write("kept", content_of(certificate));
    const std::string kept_key = scratch.write("kept_key", content_of(key));
    openssl_ca_del(ca.get(), "7_42");
    EXPECT_EQ(server.judge(kept, kept_key).result, -4);
}

// --- encryption ----------------------------------------------------------------------------------

namespace {

struct Encrypt : testing::Test {
    const ScratchAuthority& ca = shared_authority();
    CapturedLog log;
    unsigned char* out = nullptr;
    unsigned length = 0;

    ~Encrypt() override { free(out); }
    std::string text() const { return {reinterpret_cast<char*>(out), length}; }
    int encrypt(const std::string& plain) {
        forget();
        return openssl_ca_public_encrypt(ca.get(), plain.data(),
                                         static_cast<unsigned>(plain.size()), &out, &length);
    }
    int decrypt(const std::string& cipher) {
        forget();
        return openssl_ca_private_decrypt(ca.get(), cipher.data(),
                                          static_cast<unsigned>(cipher.size()), &out, &length);
    }
    void expect_nothing() const {
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(length, 0u);
    }

  private:
    void forget() {
        free(out);
        out = nullptr;
        length = 77;
    }
};

Strings pkeyutl(const Strings& arguments) {
    Strings command{"openssl", "pkeyutl", "-pkeyopt", "rsa_padding_mode:oaep"};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

std::string line_of(const char* function, const std::string& message) {
    return std::string("ERR:openssl_ca:") + function + ": " + message;
}

}  // namespace

TEST_F(Encrypt, GoesThereAndBack) {
    const HostsError error;
    for (const size_t size : {0u, 1u, 5u, 469u, 470u}) {
        const std::string plain(size, 'p');
        ASSERT_EQ(encrypt(plain), 0) << size;
        ASSERT_EQ(length, 512u);
        const std::string cipher = text();
        ASSERT_EQ(decrypt(cipher), 0) << size;
        EXPECT_EQ(text(), plain);
    }
    EXPECT_TRUE(error.is_alone());
}

TEST_F(Encrypt, TakesNoDataForNothing) {
    EXPECT_EQ(openssl_ca_public_encrypt(ca.get(), nullptr, 0, &out, &length), 0);
    EXPECT_EQ(length, 512u);
}

TEST_F(Encrypt, UnderstandsTheOpensslToolAndIsUnderstood) {
    const ScratchDirectory scratch;
    ASSERT_EQ(encrypt("from us"), 0);
    const std::string ours = scratch.write("ours", text());
    EXPECT_EQ(run(pkeyutl({"-decrypt", "-inkey", ca / "private", "-in", ours})).out, "from us");

    const std::string plain = scratch.write("plain", "from the tool");
    const std::string theirs = scratch / "theirs";
    ASSERT_EQ(
        run(pkeyutl({"-encrypt", "-certin", "-inkey", ca / "public", "-in", plain, "-out", theirs}))
            .status,
        0);
    ASSERT_EQ(decrypt(content_of(theirs)), 0);
    EXPECT_EQ(text(), "from the tool");
}

TEST_F(Encrypt, RefusesMoreThanOaepAllows) {
    const HostsError error;
    const CapturedStderr err;
    EXPECT_EQ(encrypt(std::string(471, 'p')), -2);
    expect_nothing();
    EXPECT_EQ(openssl_ca_public_encrypt(ca.get(), "", UINT_MAX, &out, &length), -2);
    expect_nothing();
    EXPECT_EQ(err.text(), "");
    EXPECT_TRUE(error.is_alone());
}

TEST_F(Encrypt, PrintsWhyItDoesNotDecrypt) {
    ASSERT_EQ(encrypt("text"), 0);
    std::string damaged = text();
    damaged[100] ^= 1;
    const HostsError error;
    CapturedStderr err;
    EXPECT_EQ(decrypt(damaged), -2);
    expect_nothing();
    EXPECT_EQ(err.take(),
              "Error encrypting message: error:02000072:rsa routines::padding check failed\n");

    const char* too_long =
        "Error encrypting message: error:0200006C:rsa routines::data greater than mod len\n";
    EXPECT_EQ(decrypt(std::string(513, 'c')), -2);
    EXPECT_EQ(err.take(), too_long);
    EXPECT_EQ(openssl_ca_private_decrypt(ca.get(), "", UINT_MAX, &out, &length), -2);
    EXPECT_EQ(err.take(), too_long);
    EXPECT_EQ(decrypt(""), -2);
    EXPECT_THAT(err.take(), testing::StartsWith("Error encrypting message: error:02"));
    EXPECT_TRUE(error.is_alone());
}

TEST_F(Encrypt, LogsWhatItCannotGet) {
    for (const char* call : {"malloc", "EVP_PKEY_get1_RSA"}) {
        const FailingCall fault(call, ENOMEM);
        EXPECT_EQ(openssl_ca_public_encrypt(ca.get(), "text", 4, &out, &length), -1);
        expect_nothing();
        EXPECT_TRUE(fault.hit());
    }
    for (const char* call : {"malloc", "EVP_PKEY_get1_RSA"}) {
        const FailingCall fault(call, ENOMEM);
        EXPECT_EQ(openssl_ca_private_decrypt(ca.get(), "text", 4, &out, &length), -1);
        expect_nothing();
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_THAT(
        log.lines(),
        ElementsAre(
            line_of("openssl_ca_public_encrypt", "malloc(): Cannot allocate memory"),
            line_of("openssl_ca_public_encrypt", "RSA_PKEY_get1_rsa(): Cannot allocate memory"),
            line_of("openssl_ca_private_decrypt", "malloc(): Cannot allocate memory"),
            line_of("openssl_ca_private_decrypt", "RSA_PKEY_get1_rsa(): Cannot allocate memory")));
}

TEST_F(Encrypt, RefusesAnAuthoritysKeyOfAnotherKind) {
    const ScratchDirectory scratch;
    const std::string path = scratch / "ca";
    openssl_ca_free(openssl_ca_create(path.c_str()), 1);
    const KeyPtr curve(EVP_EC_gen("P-256"), EVP_PKEY_free);
    write_to(path + "/public", pem_text(make_authority("Curve CA", curve.get()).get()));
    openssl_ca* own = openssl_ca_create(path.c_str());
    ASSERT_NE(own, nullptr);
    EXPECT_EQ(openssl_ca_public_encrypt(own, "text", 4, &out, &length), -1);
    EXPECT_THAT(log.lines(), ElementsAre(testing::StartsWith(
                                 line_of("openssl_ca_public_encrypt", "RSA_PKEY_get1_rsa(): "))));
    openssl_ca_free(own, 1);
}

TEST_F(Encrypt, RefusesNull) {
    const auto refuses = [&](auto operation) {
        EXPECT_EQ(operation(nullptr, "text", 4, &out, &length), -1);
        EXPECT_EQ(operation(ca.get(), nullptr, 4, &out, &length), -1);
        EXPECT_EQ(operation(ca.get(), "text", 4, nullptr, &length), -1);
        EXPECT_EQ(operation(ca.get(), "text", 4, &out, nullptr), -1);
    };
    refuses(openssl_ca_public_encrypt);
    refuses(openssl_ca_private_decrypt);
}
