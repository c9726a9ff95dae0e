// The two numbers in a client's certificate are what strtoull() makes of the extensions' bytes. The
// input is the domain's extension, a '|', and the id's.

#include "quiet.h"
#include "scratch_authority.h"

#include <openssl/objects.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

constexpr const char* kDomainOid = "1.3.6.1.4.1.49371.7.7.2.7.2";
constexpr const char* kIdOid = "1.3.6.1.4.1.49371.7.7.2.7.3";

void check(bool condition) {
    if (!condition) abort();
}

void add(X509* certificate, const char* oid, const std::string& bytes) {
    ASN1_OBJECT* object = OBJ_txt2obj(oid, 1);
    ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(value, reinterpret_cast<const unsigned char*>(bytes.data()),
                          static_cast<int>(bytes.size()));
    X509_EXTENSION* extension = X509_EXTENSION_create_by_OBJ(nullptr, object, 0, value);
    check(X509_add_ext(certificate, extension, -1) == 1);
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(value);
    ASN1_OBJECT_free(object);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t middle = input.find('|');
    const std::string domain_bytes = input.substr(0, middle);
    const bool has_id = middle != std::string::npos;
    const std::string id_bytes = has_id ? input.substr(middle + 1) : "";

    X509* certificate = X509_new();
    add(certificate, kDomainOid, domain_bytes);
    if (has_id) add(certificate, kIdOid, id_bytes);

    uint64_t domain = 0, id = 0;
    const int result = openssl_ca_verify(scratch_authority(), certificate, &domain, &id);
    check(result == (has_id ? -4 : -2));
    check(domain == strtoull(domain_bytes.c_str(), nullptr, 10));
    if (has_id) check(id == strtoull(id_bytes.c_str(), nullptr, 10));
    X509_free(certificate);
    return 0;
}
