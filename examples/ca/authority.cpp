#include "authority.h"

#include "progress.h"

#include <openssl/bn.h>
#include <openssl/crypto.h>
#include <openssl/x509.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string_view>

namespace fs = std::filesystem;

namespace ca {

namespace {

struct FreeX509 {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
using Certificate = std::unique_ptr<X509, FreeX509>;

constexpr const char* kMakingAKey = "making a key of 4,096 bits";
constexpr size_t kLongestName = 64;  // characters that a certificate's common name may have
constexpr std::string_view kCertificateSuffix = "_public";

[[noreturn]] void fail(const std::string& why) { throw std::runtime_error(why); }

// The library takes every byte for a character of Latin-1.
bool is_plain(const std::string& name) {
    return std::all_of(name.begin(), name.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

bool holds_authority(const std::string& directory) { return fs::exists(directory + "/private"); }

std::string text_of(const ASN1_TIME* time) {
    tm broken{};
    char text[32];
    if (ASN1_TIME_to_tm(time, &broken) != 1 || strftime(text, sizeof text, "%F", &broken) == 0)
        return "?";
    return text;
}

std::string serial_of(const X509* certificate) {
    BIGNUM* number = ASN1_INTEGER_to_BN(X509_get0_serialNumber(certificate), nullptr);
    char* digits = number ? BN_bn2dec(number) : nullptr;
    const std::string text = digits ? digits : "?";
    OPENSSL_free(digits);
    BN_free(number);
    return text;
}

std::string common_name_of(const X509* certificate) {
    char text[kLongestName + 1] = "";
    X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, text,
                              sizeof text);
    return text;
}

// A client's name at the beginning of the text, of which it is taken away.
std::optional<uint64_t> take_number(std::string_view& text) {
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc()) return std::nullopt;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return number;
}

std::optional<Client> take_client(std::string_view& text) {
    const auto domain = take_number(text);
    if (!domain || !text.starts_with('_')) return std::nullopt;
    text.remove_prefix(1);
    const auto id = take_number(text);
    if (!id) return std::nullopt;
    return Client{*domain, *id};
}

Issued describe(const Client& client, const X509* certificate) {
    return {client, serial_of(certificate), common_name_of(certificate),
            text_of(X509_get0_notAfter(certificate))};
}

}  // namespace

std::string Client::name() const { return std::to_string(domain) + "_" + std::to_string(id); }

Client client_named(const std::string& name) {
    std::string_view rest = name;
    const auto client = take_client(rest);
    if (!client || !rest.empty()) fail("'" + name + "' is not a domain, '_' and an id");
    return *client;
}

Authority Authority::make(const std::string& directory) {
    if (holds_authority(directory)) fail(directory + " holds an authority already");
    // Before the seconds that a key takes: the library makes the directory, but not its parents.
    const fs::path parent = fs::path(directory + "/..").lexically_normal();
    if (!fs::is_directory(directory) && !fs::is_directory(parent.empty() ? "." : parent))
        fail("there is no directory " + parent.string() + " to make one in");
    const Progress progress(kMakingAKey);
    openssl_ca* made = openssl_ca_create(directory.c_str());
    if (!made) fail("no authority can be made in " + directory);
    return Authority(made);
}

// The library would make an authority where there is none, which is rarely what a user meant who
// mistyped a path.
Authority::Authority(const std::string& directory) {
    if (!holds_authority(directory)) fail(directory + " holds no authority; make one with 'init'");
    ca_.reset(openssl_ca_create(directory.c_str()));
    if (!ca_) fail("the authority in " + directory + " cannot be opened");
}

// openssl_ca_new() does not say whether it succeeded: the client's files do, of which there were
// none before.
Issued Authority::issue(const Client& client, const std::string& common_name) {
    if (common_name.empty() || common_name.size() > kLongestName)
        fail("a client's name has 1 to " + std::to_string(kLongestName) + " characters");
    if (!is_plain(common_name)) fail("a client's name has printable ASCII characters only");
    if (has(client)) fail(client.name() + " has a certificate already; 'revoke' it first");
    {
        const Progress progress(kMakingAKey);
        openssl_ca_new(ca_.get(), common_name.c_str(), client.id, client.domain);
    }
    const Certificate made(openssl_cert_load(path_of(client, "_public").c_str()));
    if (!made) fail("no certificate was issued: its files cannot be written");
    return describe(client, made.get());
}

Client Authority::verify(const std::string& path) {
    const Certificate certificate(openssl_cert_load(path.c_str()));
    if (!certificate) fail("no certificate can be read from " + path);
    Client client{};
    switch (openssl_ca_verify(ca_.get(), certificate.get(), &client.domain, &client.id)) {
        case 0:
            return client;
        case -1:
            fail("not valid: it names no client domain");
        case -2:
            fail("not valid: it names no client id");
        case -4:
            fail("not valid: " + client.name() + " was revoked, or never issued");
        default:
            fail("not valid: another authority's, or its time or this authority's is over");
    }
}

void Authority::revoke(const Client& client) {
    if (!has(client)) fail(client.name() + " has no certificate");
    openssl_ca_del(ca_.get(), client.name().c_str());
    if (has(client)) fail(client.name() + " cannot be revoked: its files cannot be deleted");
}

std::vector<Issued> Authority::list() const {
    std::vector<Issued> all;
    for (const auto& entry : fs::directory_iterator(ca_->directory)) {
        const std::string name = entry.path().filename();
        std::string_view rest = name;
        const auto client = take_client(rest);
        if (!client || rest != kCertificateSuffix) continue;
        const Certificate certificate(openssl_cert_load(entry.path().c_str()));
        if (certificate) all.push_back(describe(*client, certificate.get()));
    }
    std::sort(all.begin(), all.end(),
              [](const Issued& a, const Issued& b) { return a.client < b.client; });
    return all;
}

std::string Authority::path_of(const Client& client, const char* suffix) const {
    return std::string(ca_->directory) + "/" + client.name() + suffix;
}

bool Authority::has(const Client& client) const { return fs::exists(path_of(client, "_public")); }

}  // namespace ca
