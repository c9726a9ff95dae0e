// What a certificate looks like, what the files are, and how a certificate is judged have sources
// of their own; here the steps are put together.
//
// The authority's mutex is held while a serial number is taken, while the serial file is written,
// while a client's files take their places or are deleted, and while a certificate is judged, and
// never while a key is made or a signature is. Nothing else is locked under it.
//
// RSA_public_encrypt() and RSA_private_decrypt() are deprecated since OpenSSL 3. They stay because
// the key is given as one of RSA's own type, and because 1.1 and 3 have them alike.

#include <ztlib/sutils/openssl_ca.h>

#include <ztlib/base/descriptor.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>
#include <ztlib/sutils/new_file.hpp>
#include <ztlib/sutils/openssl_ca_files.hpp>
#include <ztlib/sutils/openssl_ca_profile.hpp>
#include <ztlib/sutils/openssl_ca_verification.hpp>
#include <ztlib/sutils/openssl_pem.hpp>

#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kModule = "./sutils/openssl_ca";
constexpr const char* kAuthorityName = "Selvar Server CA";
constexpr int kAuthoritySerial = 1;
constexpr uint32_t kSerialBeforeTheFirst = 1'000'000;
constexpr const char* kSignerCertificate = "/tmp/kelo/public";
constexpr mode_t kDirectoryMode = 0755;
constexpr size_t kErrorTextRoom = 130;
constexpr size_t kClientNameRoom = 48;  // two numbers, what is between them, and the terminator

void log_call(zt::Site here, const char* call) { zt::report_call(here, call, LOGGER_ERROR); }
void log_text(zt::Site here, const char* text) { zt::report(here, LOGGER_ERROR, "%s", text); }

// --- making a key and certificate ----------------------------------------------------------------

// Null, with errno set, when the file cannot be read or holds no RSA key.
zt::RsaKey load_rsa_key(const char* path) {
    const zt::Bio pem = zt::read_file(path);
    if (!pem) return nullptr;
    errno = EINVAL;
    return zt::read_rsa_key(pem);
}

// The results of openssl_ca_create_cert().
enum : int {
    kMade = 0,
    kNoKeyOrFile = -1,
    kNoCertificate = -2,
    kSignerNotKept = -3,
    kNotSigned = -4,
};

int look_at_signer_key(const char* path, zt::Site here) {
    zt::RsaKey rsa = load_rsa_key(path);
    if (!rsa) {
        log_call(here, "failed to load rsa");
        return kNoKeyOrFile;
    }
    const zt::Key key(EVP_PKEY_new());
    if (!key) {
        log_call(here, "EVP_PK_new");
        return kNoKeyOrFile;
    }
    if (zt::wrap_rsa_key(std::move(rsa), key)) return kMade;
    log_text(here, "EVP_PKEY_assing error");
    return kSignerNotKept;
}

// A new key and a certificate still to be filled in.
struct Pair {
    zt::Key key;
    zt::Certificate certificate;
};

int make_pair(Pair& pair, zt::Site here) {
    zt::RsaKey rsa = zt::generate_rsa_key();
    pair.key.reset(EVP_PKEY_new());
    if (!pair.key) {
        log_call(here, "EVP_PK_new");
        return kNoKeyOrFile;
    }
    pair.certificate.reset(X509_new());
    if (!pair.certificate) {
        log_call(here, "X509_new");
        return kNoCertificate;
    }
    if (zt::wrap_rsa_key(std::move(rsa), pair.key)) return kMade;
    log_text(here, "EVP assign lk fail");
    return kNotSigned;
}

struct PairPaths {
    const char* key;
    const char* certificate;
    const char* serial;  // null: none
};

// A new authority that cannot number its certificates is none.
bool write_first_serial(const char* path) {
    if (!path || zt::write_serial(path, kSerialBeforeTheFirst)) return true;
    const int error = errno;
    unlink(path);
    errno = error;
    return false;
}

// The key last: without it there is no authority, and the next attempt begins anew.
bool write_pair(const Pair& pair, const PairPaths& paths) {
    zt::NewFile certificate(paths.certificate, zt::kPublicFile);
    zt::NewFile key(paths.key, zt::kPrivateFile);
    const zt::Bio certificate_pem = zt::pem_of(*pair.certificate);
    const zt::Bio key_pem = zt::pem_of(*pair.key);
    if (!certificate || !key || !certificate_pem || !key_pem ||
        !zt::write_content(certificate, certificate_pem) || !zt::write_content(key, key_pem) ||
        !certificate.put_in_place())
        return false;
    if (write_first_serial(paths.serial)) {
        if (key.put_in_place()) return true;
        const int error = errno;
        if (paths.serial) unlink(paths.serial);
        errno = error;
    }
    certificate.take_away();
    return false;
}

// Logs what fails, as openssl_ca_create_cert() does.
int make_pair_files(const PairPaths& paths, const char* common_name, int serial,
                    const char* signer_key_path, zt::Site here) {
    if (signer_key_path) {
        const int result = look_at_signer_key(signer_key_path, here);
        if (result != kMade) return result;
    }

    Pair pair;
    if (const int result = make_pair(pair, here); result != kMade) return result;

    zt::Certificate issuer;
    if (signer_key_path) {
        issuer.reset(openssl_cert_load(kSignerCertificate));
        if (!issuer) {
            log_call(here, "pem_x509");
            return kNoKeyOrFile;
        }
    }
    if (!zt::fill_authority_certificate(*pair.certificate, common_name, serial, *pair.key,
                                        issuer.get())) {
        log_text(here, signer_key_path ? "X509_sign error" : "x509 req sign");
        if (signer_key_path) ERR_print_errors_fp(stderr);
        return kNotSigned;
    }
    if (write_pair(pair, paths)) return kMade;
    log_call(here, "fopen");
    return kNoKeyOrFile;
}

// --- opening an authority ------------------------------------------------------------------------

using Authority =
    std::unique_ptr<openssl_ca, decltype([](openssl_ca* ca) { openssl_ca_free(ca, 1); })>;

struct DirectoryPaths {
    char key[zt::kPathRoom];
    char certificate[zt::kPathRoom];
    char serial[zt::kSerialPathRoom];

    // False when a path other than the serial file's, which is cut, does not fit.
    bool set(const char* directory) {
        const auto room = static_cast<int>(zt::kPathRoom);
        snprintf(serial, sizeof serial, "%s/serial", directory);
        return snprintf(key, sizeof key, "%s/private", directory) < room &&
               snprintf(certificate, sizeof certificate, "%s/public", directory) < room;
    }
};

// OpenSSL 1.1 and newer do this by themselves, where it is needed.
void initialise_openssl() {
    SSL_library_init();
    OPENSSL_add_all_algorithms_noconf();
    OpenSSL_add_all_digests();
    SSL_load_error_strings();
}

void make_directory(const char* directory) {
    struct stat status;
    if (stat(directory, &status) != 0) mkdir(directory, kDirectoryMode);
}

bool keep_text(char*& field, const char* text, zt::Site here) {
    field = strdup(text);
    if (!field) log_call(here, "strdup");
    return field;
}

Authority make_record(const char* directory, const DirectoryPaths& paths, zt::Site here) {
    openssl_ca* record = zt::allocate_zeroed<openssl_ca>();
    if (!record) {
        log_call(here, "calloc");
        return nullptr;
    }
    zt::init_mutex(record->mutex, here);
    Authority ca(record);
    const bool complete = keep_text(ca->directory, directory, here) &&
                          keep_text(ca->private_path, paths.key, here) &&
                          keep_text(ca->public_path, paths.certificate, here) &&
                          keep_text(ca->serial_path, paths.serial, here);
    return complete ? std::move(ca) : nullptr;
}

bool make_authority(const openssl_ca& ca) {
    return make_pair_files({ca.private_path, ca.public_path, ca.serial_path}, kAuthorityName,
                           kAuthoritySerial, nullptr, {kModule, "openssl_ca_create_cert"}) == kMade;
}

// A key that is there but cannot be opened is not taken for a missing one, and neither is a link to
// a place that is not mounted at the moment.
bool make_on_first_use(const openssl_ca& ca, zt::Site here) {
    if (zt::Descriptor(open(ca.private_path, O_RDONLY | O_CLOEXEC))) return true;
    struct stat status;
    if (errno == ENOENT && lstat(ca.private_path, &status) != 0) return make_authority(ca);
    log_call(here, "fopen");
    return false;
}

bool load_certificate(openssl_ca& ca, zt::Site here) {
    ca.ca_certificate = openssl_cert_load(ca.public_path);
    if (ca.ca_certificate) ca.public_key = X509_get_pubkey(ca.ca_certificate);
    if (!ca.public_key) log_call(here, "pem_x509");
    return ca.public_key;
}

bool make_store(openssl_ca& ca, zt::Site here) {
    ca.store = X509_STORE_new();
    ca.store_context = X509_STORE_CTX_new();
    const bool made =
        ca.store && ca.store_context && X509_STORE_add_cert(ca.store, ca.ca_certificate) == 1;
    if (!made) log_call(here, "X509_STORE_new");
    return made;
}

bool load_private_key(openssl_ca& ca, zt::Site here) {
    zt::RsaKey rsa = load_rsa_key(ca.private_path);
    if (!rsa) {
        log_call(here, "failed to load rsa");
        return false;
    }
    ca.private_key = zt::wrap_rsa_key(std::move(rsa)).release();
    if (!ca.private_key) log_text(here, "EVP_PKEY_assing error");
    return ca.private_key;
}

bool load(openssl_ca& ca, zt::Site here) {
    if (!zt::read_serial(ca.serial_path, ca.serial)) {
        log_call(here, "fopen");
        return false;
    }
    return load_certificate(ca, here) && make_store(ca, here) && load_private_key(ca, here);
}

template <auto release, class T>
void release_field(T*& field) {
    release(field);
    field = nullptr;
}

// --- issuing and taking back ---------------------------------------------------------------------

uint32_t next_serial(openssl_ca& ca, zt::Site here) {
    const zt::Lock lock(ca.mutex, here);
    return ++ca.serial;
}

// Whoever writes last writes the highest.
bool record_serial(openssl_ca& ca, zt::Site here) {
    const zt::Lock lock(ca.mutex, here);
    return zt::write_serial(ca.serial_path, ca.serial);
}

// Whole clients at a time: the files of two certificates for the same one do not mix.
void put_in_place(openssl_ca& ca, zt::ClientFiles& files, zt::Site here) {
    const zt::Lock lock(ca.mutex, here);
    files.put_in_place();
}

void issue(openssl_ca& ca, const char* common_name, const zt::Client& client, zt::Site here) {
    char name[kClientNameRoom];
    snprintf(name, sizeof name, "%" PRIu64 "_%" PRIu64, client.domain, client.id);
    zt::ClientPaths paths;
    if (!paths.set(ca.directory, name)) return;

    const zt::Key key = zt::wrap_rsa_key(zt::generate_rsa_key());
    if (!key) return;
    const zt::Certificate certificate = zt::make_client_certificate(
        client, common_name, next_serial(ca, here), *key, {ca.ca_certificate, ca.private_key});
    if (!certificate) return;

    zt::ClientFiles files(paths);
    if (files.write(*certificate, *key) && files.flush() && record_serial(ca, here))
        put_in_place(ca, files, here);
}

// "<domain>_<id>" and nothing else: no path leads out of the directory.
bool is_client_name(const char* name) {
    const auto skip_digits = [](const char* at) { return at + strspn(at, "0123456789"); };
    const char* middle = skip_digits(name);
    if (middle == name || *middle != '_') return false;
    const char* end = skip_digits(middle + 1);
    return end != middle + 1 && *end == '\0';
}

// --- encryption ----------------------------------------------------------------------------------

// RSA_public_encrypt() and RSA_private_decrypt() look alike.
using Operation = int (*)(int, const unsigned char*, unsigned char*, RSA*, int);

int apply(Operation operation, EVP_PKEY* key, const void* data, unsigned length,
          unsigned char** out, unsigned* out_length, zt::Site here) {
    *out = nullptr;
    *out_length = 0;
    const zt::RsaKey rsa(EVP_PKEY_get1_RSA(key));
    if (!rsa) {
        log_call(here, "RSA_PKEY_get1_rsa");
        return -1;
    }
    zt::Owned<unsigned char> result(zt::allocate<unsigned char>(RSA_size(rsa.get())));
    if (!result) {
        log_call(here, "malloc");
        return -1;
    }
    // More than an int is too much, as INT_MAX is: neither is read.
    const auto bytes = static_cast<int>(std::min(length, unsigned{INT_MAX}));
    const int used = operation(bytes, static_cast<const unsigned char*>(data), result.get(),
                               rsa.get(), RSA_PKCS1_OAEP_PADDING);
    if (used < 0) return -2;
    *out = result.release();
    *out_length = static_cast<unsigned>(used);
    return 0;
}

bool is_given(const openssl_ca* ca, const void* data, unsigned length, unsigned char** out,
              const unsigned* out_length) {
    return ca && (data || length == 0) && out && out_length;
}

void print_encryption_error() {
    char text[kErrorTextRoom];
    ERR_error_string_n(ERR_peek_last_error(), text, sizeof text);
    fprintf(stderr, "Error encrypting message: %s\n", text);
}

}  // namespace

// --- the authority -------------------------------------------------------------------------------

extern "C" openssl_ca* openssl_ca_create(const char* directory) {
    const zt::Site here{kModule, __func__};
    DirectoryPaths paths;
    // Without a name, the files' paths would be the root's.
    if (!directory || *directory == '\0' || !paths.set(directory)) return nullptr;
    const zt::ErrorMark mark;
    initialise_openssl();
    make_directory(directory);

    Authority ca = make_record(directory, paths, here);
    if (!ca || !make_on_first_use(*ca, here) || !load(*ca, here)) return nullptr;
    return ca.release();
}

extern "C" void openssl_ca_free(openssl_ca* ca, int free_self) {
    if (!ca) return;
    release_field<free>(ca->directory);
    release_field<free>(ca->private_path);
    release_field<free>(ca->public_path);
    release_field<free>(ca->serial_path);
    zt::destroy_mutex(ca->mutex, {kModule, __func__});
    release_field<X509_free>(ca->ca_certificate);
    release_field<X509_STORE_free>(ca->store);
    release_field<X509_STORE_CTX_free>(ca->store_context);
    release_field<EVP_PKEY_free>(ca->private_key);
    release_field<EVP_PKEY_free>(ca->public_key);
    if (free_self) free(ca);
    OBJ_cleanup();  // since OpenSSL 1.1, identifiers stay until the process ends
}

// --- client certificates -------------------------------------------------------------------------

extern "C" int openssl_ca_new(openssl_ca* ca, const char* common_name, uint64_t client_id,
                              uint64_t client_domain) {
    if (!ca || !common_name) return 0;
    const zt::ErrorMark mark;
    issue(*ca, common_name, {.domain = client_domain, .id = client_id}, {kModule, __func__});
    OBJ_cleanup();
    return 0;
}

extern "C" int openssl_ca_del(openssl_ca* ca, const char* name) {
    zt::ClientPaths paths;
    if (!ca || !name || !is_client_name(name) || !paths.set(ca->directory, name)) return 0;
    const zt::Lock lock(ca->mutex, {kModule, __func__});
    paths.remove();
    return 0;
}

extern "C" int openssl_ca_verify(openssl_ca* ca, X509* certificate, uint64_t* client_domain_out,
                                 uint64_t* client_id_out) {
    if (!ca || !certificate) return -1;
    const zt::ErrorMark mark;
    if (client_domain_out) {
        if (!zt::read_number(*certificate, zt::kClientDomain, *client_domain_out)) return -1;
    }
    if (client_domain_out && client_id_out) {
        if (!zt::read_number(*certificate, zt::kClientId, *client_id_out)) return -2;
        if (!zt::is_issued(ca->directory, {.domain = *client_domain_out, .id = *client_id_out}))
            return -4;
    }
    const zt::Lock lock(ca->mutex, {kModule, __func__});
    return zt::is_valid(*certificate, *ca->store, *ca->store_context, *ca->ca_certificate) ? 0 : 1;
}

// --- encryption ----------------------------------------------------------------------------------

extern "C" int openssl_ca_public_encrypt(openssl_ca* ca, const void* data, unsigned length,
                                         unsigned char** out, unsigned* out_length) {
    if (!is_given(ca, data, length, out, out_length)) return -1;
    const zt::ErrorMark mark;
    return apply(RSA_public_encrypt, ca->public_key, data, length, out, out_length,
                 {kModule, __func__});
}

extern "C" int openssl_ca_private_decrypt(openssl_ca* ca, const void* data, unsigned length,
                                          unsigned char** out, unsigned* out_length) {
    if (!is_given(ca, data, length, out, out_length)) return -1;
    const zt::ErrorMark mark;
    const int result = apply(RSA_private_decrypt, ca->private_key, data, length, out, out_length,
                             {kModule, __func__});
    if (result == -2) print_encryption_error();
    return result;
}

// --- steps ---------------------------------------------------------------------------------------

extern "C" int openssl_ca_create_cert(const char* key_path, const char* certificate_path,
                                      const char* common_name, int serial,
                                      const char* signer_key_path) {
    const zt::Site here{kModule, __func__};
    if (!key_path || !certificate_path || !common_name) return kNoKeyOrFile;
    const zt::ErrorMark mark;
    return make_pair_files({key_path, certificate_path, nullptr}, common_name, serial,
                           signer_key_path, here);
}

extern "C" int openssl_ca_create_private_key(const char* path) {
    if (!path) return -1;
    const zt::ErrorMark mark;
    const zt::Key key = zt::wrap_rsa_key(zt::generate_rsa_key());
    const zt::Bio pem = key ? zt::pem_of(*key) : nullptr;
    if (pem && zt::write_file(path, zt::kPrivateFile, pem)) return 0;
    if (pem) log_call({kModule, __func__}, "fopen");
    ERR_print_errors_fp(stderr);
    struct stat status;
    if (lstat(path, &status) == 0 && S_ISREG(status.st_mode)) unlink(path);
    return -1;
}

extern "C" X509* openssl_cert_load(const char* path) {
    if (!path) return nullptr;
    const zt::ErrorMark mark;
    const zt::Bio pem = zt::read_file(path);
    if (!pem) return nullptr;
    errno = EINVAL;
    return zt::read_certificate(pem).release();
}

extern "C" int add_ext(X509* certificate, int nid, const char* value) {
    if (!certificate || !value) return 0;
    const zt::ErrorMark mark;
    return zt::add_extension(*certificate, nid, value);
}

extern "C" int verify_callback2(int ok, X509_STORE_CTX* store_context) {
    if (ok || !store_context) return ok;
    zt::print_verification_error(*store_context);
    return X509_STORE_CTX_get_error(store_context) == X509_V_ERR_UNHANDLED_CRITICAL_EXTENSION ? 1
                                                                                              : ok;
}
