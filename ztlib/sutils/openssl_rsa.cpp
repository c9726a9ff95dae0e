// Opening is a ladder: private key, certificate, what stands in the certificate, and whether the
// two belong together. Each rung says by itself what is wrong with it, and the holder releases what
// was read so far.
//
// The mutex is the callers'; here it is taken for the writing of the revocation list alone, and
// nothing else is locked under it.
//
// The RSA type of its own, with RSA_public_encrypt() and RSA_private_decrypt(), is deprecated since
// OpenSSL 3. It stays because the holder's record has it, and because 1.1 and 3 have it alike.

#include <ztlib/sutils/openssl_rsa.h>

#include <ztlib/base/descriptor.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>
#include <ztlib/network/http_client.h>
#include <ztlib/utils/converters.h>
#include <ztlib/utils/path.h>
#include <ztlib/sutils/openssl_objects.hpp>
#include <ztlib/sutils/openssl_pem.hpp>

#include <openssl/err.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr const char* kModule = "./sutils/openssl_rsa";
constexpr size_t kErrorTextRoom = 130;
constexpr int kValueSize = 4;  // bytes of an extension's data that are its value

constexpr const char* kListPath = "/crl/2/norv-servers.crl";
constexpr unsigned short kListPort = 80;

constexpr zt::ObjectName kServerId{"1.5.6.6.2.1.1.1", "norv_server_id", "NORV_Server_ID"};
constexpr zt::ObjectName kServerFeatures{"1.5.6.6.2.1.1.2", "norv_server_features",
                                         "NORV_Server_Features"};

using Answer = std::unique_ptr<htmldoc, zt::ReleaseWith<html_request_free>>;
using Holder = std::unique_ptr<openssl_rsa,
                               decltype([](openssl_rsa* holder) { openssl_rsa_close(holder, 1); })>;

bool complain(zt::Site here, const char* what) {
    fprintf(stderr, "%s:%s %s\n", here.module, here.function, what);
    return false;
}

void print_errors() { ERR_print_errors_fp(stderr); }

// Why a file was not written stands in errno; it is printed as an error of OpenSSL's, like the
// rest.
void print_write_error() {
    ERR_put_error(ERR_LIB_SYS, 0, errno, "", 0);
    print_errors();
}

// --- opening -------------------------------------------------------------------------------------

char* copy_of(const char* text) { return zt::duplicate(text, strlen(text)); }

Holder make_holder(const char* private_key_path, const char* certificate_path, zt::Site here) {
    zt::Owned<openssl_rsa> record(zt::allocate_zeroed<openssl_rsa>());
    if (!record) return nullptr;
    zt::init_mutex(record->mutex, here);
    Holder holder(record.release());
    holder->private_key_path = copy_of(private_key_path);
    holder->certificate_path = copy_of(certificate_path);
    return holder->private_key_path && holder->certificate_path ? std::move(holder) : nullptr;
}

int open_to_read(const char* path) { return open(path, O_RDONLY | O_CLOEXEC); }

// Makes the file first where there is none.
int open_private_key(openssl_rsa& holder) {
    const int file = open_to_read(holder.private_key_path);
    if (file >= 0 || errno != ENOENT) return file;
    openssl_rsa_create_private_key(&holder);
    return open_to_read(holder.private_key_path);
}

bool load_private_key(openssl_rsa& holder, zt::Site here) {
    const zt::Descriptor file(open_private_key(holder));
    if (!file) return false;
    const zt::Bio pem = zt::read_file(file);
    if (pem) holder.private_key = zt::read_rsa_key(pem).release();
    return holder.private_key || complain(here, "failed to read private key");
}

// There is no certificate: sees to it that there is a request for one.
void ask_for_certificate(openssl_rsa& holder) {
    if (file_exists(OPENSSL_RSA_REQUEST) == 0 || openssl_rsa_create_cert_req(&holder) == 0)
        fputs("missing public certificate\n", stderr);
}

RSA* public_key_of(X509* certificate) {
    const zt::Key key(X509_get_pubkey(certificate));
    return key ? EVP_PKEY_get1_RSA(key.get()) : nullptr;
}

// The low 32 bits, of a negative number too.
bool read_serial(const X509* certificate, uint32_t& serial) {
    const ASN1_INTEGER* const number = X509_get0_serialNumber(certificate);
    if (!number) return false;
    const unsigned char* const magnitude = ASN1_STRING_get0_data(number);
    const int length = ASN1_STRING_length(number);
    serial = 0;
    for (int i = std::max(length - kValueSize, 0); i < length; i++)
        serial = serial << 8 | magnitude[i];
    if (ASN1_STRING_type(number) == V_ASN1_NEG_INTEGER) serial = 0 - serial;
    return true;
}

bool read_extension(const X509* certificate, const zt::ObjectName& name, uint32_t& value) {
    const int number = zt::object_number(name);
    if (number == NID_undef) return false;
    const int place = X509_get_ext_by_NID(certificate, number, -1);
    X509_EXTENSION* const extension = X509_get_ext(certificate, place);
    if (!extension) return false;
    const ASN1_OCTET_STRING* const data = X509_EXTENSION_get_data(extension);
    if (ASN1_STRING_length(data) < kValueSize) return false;
    value = be_byte2uint32(ASN1_STRING_get0_data(data), 0);
    return true;
}

bool is_pair(const RSA* one, const RSA* other) {
    return BN_cmp(RSA_get0_n(one), RSA_get0_n(other)) == 0;
}

bool load_certificate(openssl_rsa& holder, const zt::Descriptor& file, zt::Site here) {
    const zt::Bio pem = zt::read_file(file);
    const zt::Certificate certificate = pem ? zt::read_certificate(pem) : nullptr;
    if (!certificate) return complain(here, "failed to read certificate");
    holder.public_key = public_key_of(certificate.get());
    if (!holder.public_key) return complain(here, "failed to read public key");
    return read_serial(certificate.get(), holder.serial) &&
           read_extension(certificate.get(), kServerId, holder.server_id) &&
           read_extension(certificate.get(), kServerFeatures, holder.server_features);
}

bool match_keys(openssl_rsa& holder, zt::Site here) {
    if (!is_pair(holder.private_key, holder.public_key))
        return complain(here, "private public key pair is invalid");
    holder.public_size = static_cast<uint16_t>(RSA_size(holder.public_key));
    holder.private_size = static_cast<uint16_t>(RSA_size(holder.private_key));
    return true;
}

// --- the signing request -------------------------------------------------------------------------

bool add_name(X509_REQ* request, const char* field, const char* value) {
    return X509_NAME_add_entry_by_txt(X509_REQ_get_subject_name(request), field, MBSTRING_UTF8,
                                      reinterpret_cast<const unsigned char*>(value), -1, -1,
                                      0) == 1;
}

// As PEM, or null.
zt::Bio make_request(RSA* private_key) {
    const zt::Key key(EVP_PKEY_new());
    const zt::Request request(X509_REQ_new());
    if (!key || !request || EVP_PKEY_set1_RSA(key.get(), private_key) != 1 ||
        X509_REQ_set_pubkey(request.get(), key.get()) != 1 ||
        !add_name(request.get(), "CN", "NORV Server") ||
        !add_name(request.get(), "O", "Bexarin LLC") ||
        X509_REQ_sign(request.get(), key.get(), EVP_sha1()) <= 0)
        return nullptr;
    return zt::pem_of(*request);
}

// --- encryption ----------------------------------------------------------------------------------

// More than an int is too much, as INT_MAX is: neither is read.
int length_for_openssl(unsigned length) {
    return static_cast<int>(std::min(length, unsigned{INT_MAX}));
}

// Where there is no data, an address all the same.
const unsigned char* bytes_of(const void* data) {
    return static_cast<const unsigned char*>(data ? data : "");
}

void print_refusal() {
    char text[kErrorTextRoom];
    ERR_error_string_n(ERR_peek_last_error(), text, sizeof text);
    fprintf(stderr, "Error encrypting message: %s\n", text);
}

// --- the revocation list -------------------------------------------------------------------------

// One write, which has to take it all.
bool write_whole(const zt::Descriptor& file, const buffer& content) {
    ssize_t count;
    do {
        count = write(file.get(), content.data, content.length);
    } while (count < 0 && errno == EINTR);
    return count == static_cast<ssize_t>(content.length);
}

}  // namespace

extern "C" openssl_rsa* openssl_rsa_open(const char* private_key_path,
                                         const char* certificate_path) {
    const zt::Site here{kModule, __func__};
    if (!private_key_path || !certificate_path) return nullptr;
    const zt::ErrorMark mark;
    Holder holder = make_holder(private_key_path, certificate_path, here);
    if (!holder || !load_private_key(*holder, here)) return nullptr;

    const zt::Descriptor certificate(open_to_read(certificate_path));
    if (!certificate) {
        ask_for_certificate(*holder);
        return nullptr;
    }
    if (load_certificate(*holder, certificate, here) && match_keys(*holder, here))
        return holder.release();
    holder.reset();
    print_errors();
    return nullptr;
}

extern "C" void openssl_rsa_close(openssl_rsa* holder, int free_self) {
    if (!holder) return;
    zt::destroy_mutex(holder->mutex, {kModule, __func__});
    free(holder->private_key_path);
    free(holder->certificate_path);
    RSA_free(holder->private_key);
    RSA_free(holder->public_key);
    holder->private_key_path = holder->certificate_path = nullptr;
    holder->private_key = holder->public_key = nullptr;
    if (free_self) free(holder);
}

extern "C" unsigned char* openssl_rsa_public_encrypt(openssl_rsa* holder, const void* data,
                                                     unsigned length) {
    if (!holder || !holder->public_key || (!data && length != 0)) return nullptr;
    RSA* const key = holder->public_key;
    zt::Owned<unsigned char> out(zt::allocate<unsigned char>(static_cast<size_t>(RSA_size(key))));
    if (!out) return nullptr;
    const zt::ErrorMark mark;
    if (RSA_public_encrypt(length_for_openssl(length), bytes_of(data), out.get(), key,
                           RSA_PKCS1_OAEP_PADDING) < 0) {
        print_refusal();
        return nullptr;
    }
    return out.release();
}

extern "C" int openssl_rsa_private_decrypt(openssl_rsa* holder, const void* data, unsigned length,
                                           unsigned char** out, int* out_length) {
    if (out) *out = nullptr;
    if (out_length) *out_length = -1;
    if (!out || !out_length || !holder || !holder->private_key || (!data && length != 0)) return -1;
    RSA* const key = holder->private_key;
    *out = zt::allocate_zeroed<unsigned char>(static_cast<size_t>(RSA_size(key)));
    if (!*out) return -1;
    const zt::ErrorMark mark;
    *out_length = RSA_private_decrypt(length_for_openssl(length), bytes_of(data), *out, key,
                                      RSA_PKCS1_OAEP_PADDING);
    return *out_length < 0 ? -2 : 0;
}

extern "C" int openssl_rsa_create_private_key(openssl_rsa* holder) {
    if (!holder || !holder->private_key_path) return -1;
    const char* const path = holder->private_key_path;
    struct stat status;
    if (lstat(path, &status) == 0) return -1;  // before the seconds that a key takes
    const zt::ErrorMark mark;
    const zt::Key key = zt::wrap_rsa_key(zt::generate_rsa_key());
    const zt::Bio pem = key ? zt::pem_of(*key) : nullptr;
    if (!pem) {
        print_errors();
        return -1;
    }
    zt::NewFile file(path, zt::kPrivateFile);
    if (!file) return -1;
    if (zt::write_content(file, pem) && file.take_free_place()) return 0;
    print_write_error();
    return -1;
}

extern "C" int openssl_rsa_create_cert_req(openssl_rsa* holder) {
    if (!holder || !holder->private_key) return -1;
    const zt::ErrorMark mark;
    const zt::Bio pem = make_request(holder->private_key);
    if (!pem) {
        print_errors();
        return -1;
    }
    zt::NewFile file(OPENSSL_RSA_REQUEST, zt::kPublicFile);
    if (!file) return -1;
    if (zt::write_content(file, pem) && file.put_in_place()) return 0;
    print_write_error();
    return -1;
}

extern "C" void openssl_rsa_lock(openssl_rsa* holder) {
    if (holder) zt::lock_mutex(holder->mutex);
}

extern "C" void openssl_rsa_unlock(openssl_rsa* holder) {
    if (holder) zt::unlock_mutex(holder->mutex, {kModule, __func__});
}

extern "C" int openssl_rsa_update_crl(openssl_rsa* holder) {
    if (!holder) return -1;
    const Answer list(html_request(ZTLIB_CRL_HOST, kListPort, kListPath));
    if (!list) return -1;
    if (!list->body_ok || list->body.length == 0) return 0;

    const zt::Lock lock(holder->mutex, {kModule, __func__});
    const zt::Descriptor file(
        open(OPENSSL_RSA_REVOCATION_LIST, O_WRONLY | O_CREAT | O_CLOEXEC, zt::kPublicFile));
    if (file.get() < 1) return -1;
    return write_whole(file, list->body) ? 0 : -1;
}
