// Key pairs of servers in files of a test's own, as the key holder opens them.
#pragma once

#include <ztlib/sutils/openssl_rsa.h>

#include <tests/sutils/authority.h>

#include <openssl/bn.h>
#include <openssl/ec.h>

#include <memory>
#include <optional>
#include <string>

namespace zt_test {

inline constexpr const char* kServerIdOid = "1.5.6.6.2.1.1.1";
inline constexpr const char* kServerFeaturesOid = "1.5.6.6.2.1.1.2";

// A key that is made at once, because it is a short one. It is made once for each number.
inline EVP_PKEY* short_key(size_t number = 0) {
    static const auto make_key = [] {
        const RealGenerator real;
        EVP_PKEY* key = EVP_PKEY_new();
        RSA* rsa = RSA_new();
        BIGNUM* exponent = BN_new();
        BN_set_word(exponent, RSA_F4);
        if (RSA_generate_key_ex(rsa, 1024, exponent, nullptr) != 1) abort();
        BN_free(exponent);
        EVP_PKEY_assign_RSA(key, rsa);
        return key;
    };
    static EVP_PKEY* const keys[] = {make_key(), make_key()};
    return keys[number];
}

inline EVP_PKEY* curve_key() {
    static EVP_PKEY* const key = [] {
        EVP_PKEY* made = EVP_PKEY_new();
        EC_KEY* curve = EC_KEY_new_by_curve_name(NID_X9_62_prime256v1);
        EC_KEY_generate_key(curve);
        EVP_PKEY_assign_EC_KEY(made, curve);
        return made;
    }();
    return key;
}

// What a server's certificate says. Texts are the bytes of an extension's data; none: without it.
struct ServerTerms {
    std::string serial = "1234";  // hexadecimal, with a sign where it is negative
    std::optional<std::string> id = std::string("\x00\x00\x01\x02", 4);
    std::optional<std::string> features = std::string("\xff\x00\x00\x01", 4);
    EVP_PKEY* key = nullptr;     // null: the first short one
    EVP_PKEY* signer = nullptr;  // null: the key itself
    std::string second_id = {};  // not empty: one more id extension, behind the first
};

inline CertificatePtr make_server_certificate(const ServerTerms& terms) {
    CertificatePtr made(X509_new(), X509_free);
    X509* x = made.get();
    X509_set_version(x, 2);
    BIGNUM* serial = nullptr;
    BN_hex2bn(&serial, terms.serial.c_str());
    BN_to_ASN1_INTEGER(serial, X509_get_serialNumber(x));
    BN_free(serial);
    X509_gmtime_adj(X509_getm_notBefore(x), 0);
    X509_gmtime_adj(X509_getm_notAfter(x), 3600);
    add_name(x, "CN", "server");
    X509_set_issuer_name(x, X509_get_subject_name(x));
    EVP_PKEY* const key = terms.key ? terms.key : short_key();
    X509_set_pubkey(x, key);
    if (terms.id) add_text_extension(x, kServerIdOid, *terms.id);
    if (!terms.second_id.empty()) add_text_extension(x, kServerIdOid, terms.second_id);
    if (terms.features) add_text_extension(x, kServerFeaturesOid, *terms.features);
    if (X509_sign(x, terms.signer ? terms.signer : key, EVP_sha256()) == 0) abort();
    return made;
}

using HolderPtr =
    std::unique_ptr<openssl_rsa,
                    decltype([](openssl_rsa* holder) { openssl_rsa_close(holder, 1); })>;

// The two files of a server.
struct KeyPair {
    ScratchDirectory files;
    std::string key = files / "key";
    std::string certificate = files / "certificate";

    explicit KeyPair(const ServerTerms& terms = {}, EVP_PKEY* private_key = nullptr) {
        write_to(key, pem_text(private_key ? private_key : short_key()));
        write_to(certificate, pem_text(make_server_certificate(terms).get()));
    }

    HolderPtr open() const { return HolderPtr(openssl_rsa_open(key.c_str(), certificate.c_str())); }
    // Opens the pair, which fails; returns what was printed.
    std::string refusal() const {
        const CapturedStderr err;
        EXPECT_EQ(open(), nullptr);
        return err.text();
    }
};

}  // namespace zt_test
