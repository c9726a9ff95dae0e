// Certificates of a test's own making, and a TLS server that shows them.
#pragma once

#include <ztlib/base/sigpipe.h>
#include <ztlib/network/https_trust.hpp>

#include <tests/network/http_peers.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <array>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace zt_test {

constexpr long kDay = 24 * 3600;

// A certificate with its key.
class Identity {
  public:
    struct Terms {
        bool is_authority = false;
        long from = -kDay;  // validity, in seconds from now
        long to = kDay;
    };

    // Issued by `issuer`, or by itself.
    Identity(const std::string& name, const Terms& terms, const Identity* issuer = nullptr)
        : key_(EVP_EC_gen("P-256"), EVP_PKEY_free), certificate_(X509_new(), X509_free) {
        X509* x = certificate_.get();
        X509_set_version(x, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(x), next_serial());
        X509_gmtime_adj(X509_getm_notBefore(x), terms.from);
        X509_gmtime_adj(X509_getm_notAfter(x), terms.to);
        X509_NAME_add_entry_by_txt(X509_get_subject_name(x), "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>(name.c_str()), -1, -1, 0);
        X509_set_issuer_name(x, X509_get_subject_name(issuer ? issuer->get() : x));
        X509_set_pubkey(x, key_.get());
        add_extension(NID_basic_constraints,
                      terms.is_authority ? "critical,CA:TRUE" : "critical,CA:FALSE");
        if (X509_sign(x, issuer ? issuer->key() : key(), EVP_sha256()) == 0) abort();
    }

    X509* get() const { return certificate_.get(); }
    EVP_PKEY* key() const { return key_.get(); }

    std::string pem() const {
        return text_of([&](BIO* to) { PEM_write_bio_X509(to, get()); });
    }
    std::string key_pem() const {
        return text_of([&](BIO* to) {
            PEM_write_bio_PrivateKey(to, key(), nullptr, nullptr, 0, nullptr, nullptr);
        });
    }

  private:
    static long next_serial() {
        static long serial = 0;
        return ++serial;
    }
    void add_extension(int nid, const char* value) {
        X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, nullptr, nid, value);
        X509_add_ext(get(), extension, -1);
        X509_EXTENSION_free(extension);
    }
    static std::string text_of(const std::function<void(BIO*)>& write) {
        BIO* memory = BIO_new(BIO_s_mem());
        write(memory);
        char* bytes = nullptr;
        const long length = BIO_get_mem_data(memory, &bytes);
        std::string text(bytes, static_cast<size_t>(length));
        BIO_free(memory);
        return text;
    }

    std::shared_ptr<EVP_PKEY> key_;
    std::shared_ptr<X509> certificate_;
};

inline const Identity::Terms kAuthority{.is_authority = true};
inline const Identity::Terms kExpired{.from = -2 * kDay, .to = -kDay};

// What the client of this executable trusts, in the place of what the build compiles in.
class Trust {
  public:
    Trust(const Identity& root, const Identity& server) : pem_(root.pem()) {
        current_.certificates[0] = pem_.c_str();
        pin(server);
    }
    void pin(const Identity& server) {
        unsigned length = sizeof current_.fingerprint;
        X509_digest(server.get(), EVP_sha1(), current_.fingerprint, &length);
    }
    static zt::HttpsTrust& current() { return current_; }

  private:
    static inline zt::HttpsTrust current_{{"", "", ""}, {}};
    std::string pem_;
};

// A server that shows `identity` with the chain behind it, and calls its script with each
// connection whose handshake succeeded.
class TlsServer {
  public:
    using Script = std::function<void(SSL*)>;

    TlsServer(const Identity& identity, Script script, const std::vector<Identity>& chain = {},
              int newest = 0)
        : context_(SSL_CTX_new(TLS_server_method()), SSL_CTX_free), script_(std::move(script)) {
        SSL_CTX* context = context_.get();
        SSL_CTX_use_certificate(context, identity.get());
        SSL_CTX_use_PrivateKey(context, identity.key());
        for (const Identity& link : chain) SSL_CTX_add1_chain_cert(context, link.get());
        if (newest != 0) {
            SSL_CTX_set_cipher_list(context, "ALL:@SECLEVEL=0");
            SSL_CTX_set_min_proto_version(context, 0);
            SSL_CTX_set_max_proto_version(context, newest);
        }
        server_ = std::make_unique<ScriptedServer>(0, [this](Fd& peer) { serve(peer); });
    }

    uint16_t port() const { return server_->port(); }
    int served() const { return server_->served(); }
    int handshakes() const { return handshakes_; }

  private:
    void serve(Fd& peer) {
        const zt::SigpipeBlocked blocked;
        const std::unique_ptr<SSL, decltype(&SSL_free)> ssl(SSL_new(context_.get()), SSL_free);
        SSL_set_fd(ssl.get(), peer.get());
        if (SSL_accept(ssl.get()) == 1) {
            ++handshakes_;
            script_(ssl.get());
        }
        ERR_clear_error();
    }

    std::shared_ptr<SSL_CTX> context_;
    Script script_;
    std::atomic<int> handshakes_{0};
    std::unique_ptr<ScriptedServer> server_;
};

inline std::string receive_until(SSL* ssl, const std::string& end) {
    std::string text;
    for (char byte; !text.ends_with(end) && SSL_read(ssl, &byte, 1) == 1;) text += byte;
    return text;
}

inline std::string receive_rest(SSL* ssl) {
    std::string text;
    for (char byte; SSL_read(ssl, &byte, 1) == 1;) text += byte;
    return text;
}

inline void send_all(SSL* ssl, const std::string& text) {
    if (!text.empty()) SSL_write(ssl, text.data(), static_cast<int>(text.size()));
}

}  // namespace zt_test
