// A certificate is filled in from the top: version, serial, validity, names, key, then the
// extensions, one of which is a hash of the key, and at last the signature over all of it.

#include <ztlib/sutils/openssl_ca_profile.hpp>

#include <openssl/objects.h>

#include <cinttypes>
#include <cstdio>
#include <ctime>
#include <utility>

namespace {

constexpr long kVersion3 = 2;  // as the field counts
constexpr long kAuthoritySeconds = 31'536'000;
constexpr long kClientSeconds = 315'360'000;
constexpr const char* kCountry = "BG";
constexpr size_t kNumberRoom = 32;  // for a number's digits

bool set_validity(X509& certificate, long seconds) {
    time_t now = time(nullptr);
    return X509_time_adj_ex(X509_getm_notBefore(&certificate), 0, 0, &now) &&
           X509_time_adj_ex(X509_getm_notAfter(&certificate), 0, seconds, &now);
}

bool begin(X509& certificate, int64_t serial, long seconds) {
    return X509_set_version(&certificate, kVersion3) == 1 &&
           ASN1_INTEGER_set_int64(X509_get_serialNumber(&certificate), serial) == 1 &&
           set_validity(certificate, seconds);
}

bool add_to_subject(X509& certificate, const char* field, const char* value) {
    return X509_NAME_add_entry_by_txt(X509_get_subject_name(&certificate), field, MBSTRING_ASC,
                                      reinterpret_cast<const unsigned char*>(value), -1, -1,
                                      0) == 1;
}

bool set_issuer(X509& certificate, X509& issuer) {
    return X509_set_issuer_name(&certificate, X509_get_subject_name(&issuer)) == 1;
}

bool sign(X509& certificate, EVP_PKEY& key) {
    return X509_sign(&certificate, &key, EVP_sha1()) > 0;
}

// The number as decimal text. The value is the text itself, with no type around it.
bool add_number(X509& certificate, const zt::ObjectName& name, uint64_t number) {
    const int extension_number = zt::comment_extension_number(name);
    char text[kNumberRoom];
    const int length = snprintf(text, sizeof text, "%" PRIu64, number);
    const zt::OctetString value(ASN1_OCTET_STRING_new());
    if (extension_number == NID_undef || !value ||
        ASN1_OCTET_STRING_set(value.get(), reinterpret_cast<unsigned char*>(text), length) != 1)
        return false;
    const zt::Extension extension(
        X509_EXTENSION_create_by_NID(nullptr, extension_number, 0, value.get()));
    return extension && X509_add_ext(&certificate, extension.get(), -1) == 1;
}

// The key id is the certificate's own. (A configuration string would do that on OpenSSL 1 alone: 3
// puts issuer and serial for it when issuer and subject are one, and that does not verify.)
bool add_authority_key_id(X509& certificate) {
    const zt::AuthorityKeyId value(AUTHORITY_KEYID_new());
    if (!value) return false;
    value->keyid = static_cast<ASN1_OCTET_STRING*>(
        X509_get_ext_d2i(&certificate, NID_subject_key_identifier, nullptr, nullptr));
    return value->keyid && X509_add1_ext_i2d(&certificate, NID_authority_key_identifier,
                                             value.get(), 0, X509V3_ADD_DEFAULT) == 1;
}

// The purpose in digits: a host may have registered the identifier under a name of its own.
bool add_usage(X509& certificate) {
    return zt::comment_extension_number(zt::kClientPurpose) != NID_undef &&
           zt::add_extension(certificate, NID_basic_constraints, "critical,CA:FALSE") &&
           zt::add_extension(certificate, NID_key_usage,
                             "digitalSignature,nonRepudiation,keyEncipherment,dataEncipherment,"
                             "keyAgreement") &&
           zt::add_extension(certificate, NID_ext_key_usage,
                             "serverAuth,clientAuth,emailProtection,1.3.6.1.4.1.49371.7.7.2.7");
}

bool add_client(X509& certificate, const zt::Client& client) {
    return add_number(certificate, zt::kClientId, client.id) &&
           add_number(certificate, zt::kClientDomain, client.domain);
}

bool add_key_ids(X509& certificate) {
    return zt::add_extension(certificate, NID_subject_key_identifier, "hash") &&
           add_authority_key_id(certificate);
}

}  // namespace

bool zt::fill_authority_certificate(X509& certificate, const char* common_name, int64_t serial,
                                    EVP_PKEY& key, X509* issuer) {
    return begin(certificate, serial, kAuthoritySeconds) &&
           add_to_subject(certificate, "C", kCountry) &&
           add_to_subject(certificate, "CN", common_name) &&
           set_issuer(certificate, issuer ? *issuer : certificate) &&
           X509_set_pubkey(&certificate, &key) == 1 && sign(certificate, key);
}

zt::Certificate zt::make_client_certificate(const Client& client, const char* common_name,
                                            int64_t serial, EVP_PKEY& key, const Signer& signer) {
    Certificate made(X509_new());
    if (!made) return nullptr;
    X509& certificate = *made;
    const bool complete = begin(certificate, serial, kClientSeconds) &&
                          add_to_subject(certificate, "CN", common_name) &&
                          set_issuer(certificate, *signer.certificate) &&
                          X509_set_pubkey(&certificate, &key) == 1 && add_usage(certificate) &&
                          add_client(certificate, client) && add_key_ids(certificate) &&
                          sign(certificate, *signer.key);
    return complete ? std::move(made) : nullptr;
}

bool zt::add_extension(X509& certificate, int number, const char* value) {
    // OpenSSL looks into the object of a "DER:" value's number whether there is one or not.
    if (number == NID_undef || !OBJ_nid2obj(number)) return false;
    X509V3_CTX context;
    X509V3_set_ctx(&context, &certificate, &certificate, nullptr, nullptr, 0);
    X509V3_set_ctx_nodb(&context);
    const Extension extension(X509V3_EXT_conf_nid(nullptr, &context, number, value));
    return extension && X509_add_ext(&certificate, extension.get(), -1) == 1;
}
