// Authorities in directories of a test's own, certificates of every kind, and what programs say of
// them.
#pragma once

#include <ztlib/sutils/openssl_ca.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>
#include <tests/sutils/ready_keys.h>

#include <openssl/asn1.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace zt_test {

using CertificatePtr = std::shared_ptr<X509>;
using KeyPtr = std::shared_ptr<EVP_PKEY>;

inline constexpr const char* kPurposeOid = "1.3.6.1.4.1.49371.7.7.2.7";
inline constexpr const char* kDomainOid = "1.3.6.1.4.1.49371.7.7.2.7.2";
inline constexpr const char* kIdOid = "1.3.6.1.4.1.49371.7.7.2.7.3";

inline bool exists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

inline int mode_of(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 ? static_cast<int>(status.st_mode & 07777) : -1;
}

inline void write_to(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

// The names in a directory, sorted, hidden ones too.
inline Strings entries_of(const std::string& directory) {
    Strings names;
    for (const auto& entry : std::filesystem::directory_iterator(directory))
        names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// A path of exactly this length, below the scratch directory, which exists up to its last name.
inline std::string path_of_length(const ScratchDirectory& scratch, size_t length) {
    std::string path = scratch.path();
    while (path.size() + 101 < length) {
        path += "/" + std::string(99, 'd');
        mkdir(path.c_str(), 0700);
    }
    path += "/";
    return path + std::string(length - path.size(), 'e');
}

inline CertificatePtr certificate_in(const std::string& path) {
    return {openssl_cert_load(path.c_str()), X509_free};
}

// The private key in a file; null when it is not to be read without a password.
inline KeyPtr key_in(const std::string& path) {
    BIO* file = BIO_new_file(path.c_str(), "r");
    EVP_PKEY* key = file ? PEM_read_bio_PrivateKey(file, nullptr, nullptr, nullptr) : nullptr;
    BIO_free(file);
    return {key, EVP_PKEY_free};
}

template <class Write>
std::string pem_text(Write write) {
    BIO* memory = BIO_new(BIO_s_mem());
    write(memory);
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(memory, &bytes);
    std::string text(bytes, static_cast<size_t>(length));
    BIO_free(memory);
    return text;
}
inline std::string pem_text(X509* certificate) {
    return pem_text([&](BIO* to) { PEM_write_bio_X509(to, certificate); });
}
inline std::string pem_text(EVP_PKEY* key) {
    return pem_text([&](BIO* to) {
        PEM_write_bio_PKCS8PrivateKey(to, key, nullptr, nullptr, 0, nullptr, nullptr);
    });
}

// An authority in a directory of its own.
class ScratchAuthority {
  public:
    ScratchAuthority() : ca_(openssl_ca_create(path().c_str())) {
        if (!ca_) abort();
    }
    ~ScratchAuthority() { openssl_ca_free(ca_, 1); }
    ScratchAuthority(const ScratchAuthority&) = delete;
    ScratchAuthority& operator=(const ScratchAuthority&) = delete;

    openssl_ca* get() const { return ca_; }
    openssl_ca* operator->() const { return ca_; }
    std::string path() const { return scratch_ / "ca"; }
    std::string operator/(const std::string& name) const { return path() + "/" + name; }

    CertificatePtr issue(uint64_t domain, uint64_t id, const char* name = "client") const {
        openssl_ca_new(ca_, name, id, domain);
        return certificate_in(*this /
                              (std::to_string(domain) + "_" + std::to_string(id) + "_public"));
    }
    int verify(const CertificatePtr& certificate) const {
        uint64_t domain = 0, id = 0;
        return openssl_ca_verify(ca_, certificate.get(), &domain, &id);
    }

  private:
    ScratchDirectory scratch_;
    openssl_ca* ca_;
};

// The authority that tests share which do not change it, but for the certificates they issue.
inline const ScratchAuthority& shared_authority() {
    static const ScratchAuthority authority;
    return authority;
}

// A certificate of a test's own making. What is not said is as in a valid client's.
struct Recipe {
    std::string subject = "client";
    const char* domain = "7";  // null: without the extension
    const char* id = "42";
    long from = 0;  // validity, in seconds from now
    long to = 3600;
    X509* issuer = nullptr;  // null: itself
    EVP_PKEY* issuer_key = nullptr;
    EVP_PKEY* key = nullptr;  // null: the first ready key
    bool with_country = false;
    const EVP_MD* digest = EVP_sha1();
};

inline int number_of(const char* oid) {
    ASN1_OBJECT* object = OBJ_txt2obj(oid, 1);
    const int known = OBJ_obj2nid(object);
    ASN1_OBJECT_free(object);
    return known;
}

inline void add_text_extension(X509* certificate, const char* oid, const std::string& text) {
    ASN1_OBJECT* object = OBJ_txt2obj(oid, 1);
    ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(value, reinterpret_cast<const unsigned char*>(text.data()),
                          static_cast<int>(text.size()));
    X509_EXTENSION* extension = X509_EXTENSION_create_by_OBJ(nullptr, object, 0, value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(value);
    ASN1_OBJECT_free(object);
}

inline void add_name(X509* certificate, const char* field, const std::string& value) {
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), field, MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(value.c_str()), -1, -1, 0);
}

inline CertificatePtr make(const Recipe& recipe) {
    CertificatePtr made(X509_new(), X509_free);
    X509* x = made.get();
    X509_set_version(x, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(x), 77);
    X509_gmtime_adj(X509_getm_notBefore(x), recipe.from);
    X509_gmtime_adj(X509_getm_notAfter(x), recipe.to);
    if (recipe.with_country) add_name(x, "C", "BG");
    add_name(x, "CN", recipe.subject);
    X509_set_issuer_name(x, X509_get_subject_name(recipe.issuer ? recipe.issuer : x));
    EVP_PKEY* key = recipe.key ? recipe.key : ready_key(0);
    X509_set_pubkey(x, key);
    if (recipe.domain) add_text_extension(x, kDomainOid, recipe.domain);
    if (recipe.id) add_text_extension(x, kIdOid, recipe.id);
    if (X509_sign(x, recipe.issuer_key ? recipe.issuer_key : key, recipe.digest) == 0) abort();
    return made;
}

// One that the authority might have issued, signed with its own key.
inline CertificatePtr make_by(const ScratchAuthority& authority, Recipe recipe) {
    recipe.issuer = authority->ca_certificate;
    recipe.issuer_key = authority->private_key;
    return make(recipe);
}

// Another authority of the same shape as ours, whose key is a ready one.
inline CertificatePtr make_authority(const std::string& name, EVP_PKEY* key) {
    Recipe recipe;
    recipe.subject = name;
    recipe.with_country = true;
    recipe.domain = recipe.id = nullptr;
    recipe.key = key;
    return make(recipe);
}

inline std::string one_line(const X509_NAME* name) {
    char text[256];
    return X509_NAME_oneline(name, text, sizeof text);
}

// Seconds from the beginning of the validity to its end.
inline long validity_of(X509* certificate) {
    int days = 0, seconds = 0;
    ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(certificate),
                   X509_get0_notAfter(certificate));
    return days * 86'400L + seconds;
}

// How many seconds ago the validity began.
inline long age_of(X509* certificate) {
    int days = 0, seconds = 0;
    ASN1_TIME_diff(&days, &seconds, X509_get0_notBefore(certificate), nullptr);
    return days * 86'400L + seconds;
}

inline std::string signature_of(const X509* certificate) {
    return OBJ_nid2sn(X509_get_signature_nid(certificate));
}

// An error of the host's own in OpenSSL's queue, which nobody may take away or bury.
class HostsError {
  public:
    HostsError() {
        ERR_clear_error();
        ERR_raise(ERR_LIB_USER, 77);
        error_ = ERR_peek_error();
    }
    ~HostsError() { ERR_clear_error(); }
    HostsError(const HostsError&) = delete;
    HostsError& operator=(const HostsError&) = delete;

    bool is_alone() const { return ERR_peek_error() == error_ && ERR_peek_last_error() == error_; }

  private:
    unsigned long error_;
};

}  // namespace zt_test
