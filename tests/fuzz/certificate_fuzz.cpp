// Certificates of any shape are loaded, read and judged without harm, and none is let in: the
// authority has issued nothing.

#include "quiet.h"
#include "scratch_authority.h"

#include <openssl/err.h>
#include <openssl/x509.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <sys/mman.h>
#include <unistd.h>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

void judge(X509* certificate) {
    openssl_ca* ca = scratch_authority();
    uint64_t domain = 0, id = 0;
    const int both = openssl_ca_verify(ca, certificate, &domain, &id);
    check(both == -1 || both == -2 || both == -4);
    const int alone = openssl_ca_verify(ca, certificate, nullptr, nullptr);
    check(alone == 1);
    check(openssl_ca_verify(ca, certificate, &domain, nullptr) == (both == -1 ? -1 : 1));
    check(ERR_peek_error() == 0);
}

// The file is the input itself.
X509* load(const uint8_t* data, size_t size) {
    static const int file = memfd_create("certificate", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    check(ftruncate(file, 0) == 0);
    check(pwrite(file, data, size, 0) == static_cast<ssize_t>(size));
    return openssl_cert_load(path.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    X509* loaded = load(data, size);
    check(ERR_peek_error() == 0);
    if (loaded) judge(loaded);
    X509_free(loaded);

    const unsigned char* at = data;
    X509* binary = d2i_X509(nullptr, &at, static_cast<long>(size));
    ERR_clear_error();
    if (binary) judge(binary);
    X509_free(binary);
    return 0;
}
