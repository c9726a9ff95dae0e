// The key holder reads a certificate of which the input says the serial number, and whether there
// are extensions and what is in them; or a certificate that is the input. What it reads of the
// first kind is known.

#include <ztlib/sutils/openssl_rsa.h>

#include <tests/fuzz/quiet.h>

#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr const char* kServerId = "1.5.6.6.2.1.1.1";
constexpr const char* kServerFeatures = "1.5.6.6.2.1.1.2";

void check(bool condition) {
    if (!condition) abort();
}

// A file in memory that has a path.
class File {
  public:
    File() : descriptor_(memfd_create("fuzz", 0)) {}
    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }
    void set(const std::string& content) const {
        check(ftruncate(descriptor_, 0) == 0);
        check(pwrite(descriptor_, content.data(), content.size(), 0) ==
              static_cast<ssize_t>(content.size()));
    }

  private:
    int descriptor_;
};

template <class Write>
std::string pem_of(Write write) {
    BIO* memory = BIO_new(BIO_s_mem());
    check(write(memory) == 1);
    char* bytes = nullptr;
    const long length = BIO_get_mem_data(memory, &bytes);
    std::string text(bytes, static_cast<size_t>(length));
    BIO_free(memory);
    return text;
}

EVP_PKEY* make_key() {
    EVP_PKEY* key = EVP_PKEY_new();
    RSA* rsa = RSA_new();
    BIGNUM* exponent = BN_new();
    BN_set_word(exponent, RSA_F4);
    check(RSA_generate_key_ex(rsa, 1024, exponent, nullptr) == 1);
    BN_free(exponent);
    EVP_PKEY_assign_RSA(key, rsa);
    return key;
}

// What is left of the input.
struct Input {
    const uint8_t* data;
    size_t size;

    uint8_t byte() { return size > 0 ? --size, *data++ : 0; }
    // At most `limit` bytes; the first byte says how many.
    std::string bytes(size_t limit) {
        size_t count = byte() % (limit + 1);
        if (count > size) count = size;
        std::string text(reinterpret_cast<const char*>(data), count);
        data += count;
        size -= count;
        return text;
    }
    std::string rest() { return {reinterpret_cast<const char*>(data), size}; }
};

uint32_t value_of(const std::string& bytes) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value = value << 8 | static_cast<uint8_t>(bytes[i]);
    return value;
}

void add_extension(X509* certificate, const char* oid, const std::string& data) {
    ASN1_OBJECT* object = OBJ_txt2obj(oid, 1);
    ASN1_OCTET_STRING* value = ASN1_OCTET_STRING_new();
    ASN1_OCTET_STRING_set(value, reinterpret_cast<const unsigned char*>(data.data()),
                          static_cast<int>(data.size()));
    X509_EXTENSION* extension = X509_EXTENSION_create_by_OBJ(nullptr, object, 0, value);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
    ASN1_OCTET_STRING_free(value);
    ASN1_OBJECT_free(object);
}

struct Pair {
    EVP_PKEY* key = make_key();
    File key_file, certificate_file;

    Pair() {
        key_file.set(pem_of([&](BIO* to) {
            return PEM_write_bio_PKCS8PrivateKey(to, key, nullptr, nullptr, 0, nullptr, nullptr);
        }));
    }

    openssl_rsa* open(const std::string& pem) const {
        certificate_file.set(pem);
        return openssl_rsa_open(key_file.path().c_str(), certificate_file.path().c_str());
    }
};

void open_a_known_certificate(const Pair& pair, Input input) {
    const uint8_t shape = input.byte();
    const bool has_id = shape & 1, has_features = shape & 2, has_second = shape & 4;
    const bool is_negative = shape & 8;
    const std::string serial = input.bytes(30), id = input.bytes(10), features = input.bytes(10);

    X509* certificate = X509_new();
    X509_set_version(certificate, 2);
    BIGNUM* number = BN_bin2bn(reinterpret_cast<const unsigned char*>(serial.data()),
                               static_cast<int>(serial.size()), nullptr);
    uint32_t low = 0;
    for (const char byte : serial) low = low << 8 | static_cast<uint8_t>(byte);
    BN_set_negative(number, is_negative);
    if (is_negative) low = 0 - low;
    BN_to_ASN1_INTEGER(number, X509_get_serialNumber(certificate));
    BN_free(number);
    X509_gmtime_adj(X509_getm_notBefore(certificate), 0);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 0);
    X509_set_pubkey(certificate, pair.key);
    if (has_features) add_extension(certificate, kServerFeatures, features);
    if (has_id) add_extension(certificate, kServerId, id);
    if (has_second) add_extension(certificate, kServerId, features);
    check(X509_sign(certificate, pair.key, EVP_sha256()) != 0);
    const std::string pem = pem_of([&](BIO* to) { return PEM_write_bio_X509(to, certificate); });
    X509_free(certificate);

    const std::string* const first = has_id ? &id : has_second ? &features : nullptr;
    openssl_rsa* holder = pair.open(pem);
    check((holder != nullptr) ==
          (first && first->size() >= 4 && has_features && features.size() >= 4));
    if (!holder) return;
    check(holder->serial == low);
    check(holder->server_id == value_of(*first));
    check(holder->server_features == value_of(features));
    check(holder->public_size == 128 && holder->private_size == 128);
    openssl_rsa_close(holder, 1);
}

// The pair's key is nobody else's, so that nothing of the fuzzer's making belongs to it, unless it
// keeps the key.
void open_an_unknown_certificate(const Pair& pair, const std::string& der) {
    if (der.empty()) return;  // there is no such PEM
    const std::string pem = pem_of([&](BIO* to) {
        const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
        return PEM_write_bio(to, PEM_STRING_X509, "", bytes, static_cast<long>(der.size())) > 0;
    });
    openssl_rsa_close(pair.open(pem), 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const Pair& pair = *new Pair;
    Input input{data, size};
    switch (input.byte() % 3) {
        case 0:
            open_a_known_certificate(pair, input);
            break;
        case 1:
            open_an_unknown_certificate(pair, input.rest());
            break;
        case 2:
            openssl_rsa_close(pair.open(input.rest()), 1);
            break;
    }
    return 0;
}
