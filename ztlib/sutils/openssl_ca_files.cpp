// Whatever is written appears whole: a serial number is on the disk before a certificate that has
// it is, so that none is ever given twice.

#include <ztlib/sutils/openssl_ca_files.hpp>

#include <ztlib/base/descriptor.h>
#include <ztlib/base/text.h>
#include <ztlib/sutils/openssl_pem.hpp>

#include <openssl/pkcs12.h>

#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* kFriendlyName = "Selvar NetClient";
// A text of no characters and no text at all give different bundles; programs ask for the first.
constexpr const char* kNoPassword = "";
constexpr size_t kNumberRoom = 16;  // for a serial number's digits

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_blank(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

// False when the path does not fit.
template <size_t room>
__attribute__((format(printf, 2, 3))) bool format_path(char (&path)[room], const char* format,
                                                       ...) {
    va_list parts;
    va_start(parts, format);
    const int length = vsnprintf(path, room, format, parts);
    va_end(parts);
    return length >= 0 && static_cast<size_t>(length) < room;
}

// The bytes at the file's beginning, as many as there is room for. Negative, with errno set, when
// they cannot be read.
template <size_t room>
ssize_t read_beginning(const char* path, char (&bytes)[room]) {
    const zt::Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    if (!file) return -1;
    size_t used = 0;
    while (used < room) {
        const ssize_t count = read(file.get(), bytes + used, room - used);
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return -1;
        if (count == 0) break;
        used += static_cast<size_t>(count);
    }
    return static_cast<ssize_t>(used);
}

// Certificate and key with the library's defaults, without a password.
zt::Bio bundle_of(X509& certificate, EVP_PKEY& key) {
    const zt::Pkcs12 bundle(
        PKCS12_create(kNoPassword, kFriendlyName, &key, &certificate, nullptr, 0, 0, 0, 0, 0));
    zt::Bio der = zt::memory_bio();
    if (!bundle || !der || i2d_PKCS12_bio(der.get(), bundle.get()) != 1) return nullptr;
    return der;
}

bool write_part(zt::NewFile& file, const zt::Bio& content) {
    return file && content && zt::write_content(file, content);
}

}  // namespace

// As in strtoull(): blanks, a sign, digits; the greatest number for one that is too great.
uint64_t zt::decimal_value(std::string_view text) {
    while (!text.empty() && is_blank(text.front())) text.remove_prefix(1);
    const bool negative = !text.empty() && text.front() == '-';
    if (negative || (!text.empty() && text.front() == '+')) text.remove_prefix(1);
    uint64_t value = 0;
    for (; !text.empty() && is_digit(text.front()); text.remove_prefix(1))
        if (__builtin_mul_overflow(value, 10u, &value) ||
            __builtin_add_overflow(value, static_cast<unsigned>(text.front() - '0'), &value))
            return UINT64_MAX;
    return negative ? 0 - value : value;
}

// --- the serial file -----------------------------------------------------------------------------

bool zt::read_serial(const char* path, uint32_t& serial) {
    char line[kSerialLineLength];
    const ssize_t length = read_beginning(path, line);
    if (length < 0) return false;
    if (length == 0 || !is_digit(line[0])) {
        errno = EINVAL;
        return false;
    }
    serial = static_cast<uint32_t>(decimal_value({line, static_cast<size_t>(length)}));
    return true;
}

bool zt::write_serial(const char* path, uint32_t serial) {
    char text[kNumberRoom];
    const int length = snprintf(text, sizeof text, "%" PRIu32, serial);
    NewFile file(path, kPublicFile);
    return file && file.write(text, static_cast<size_t>(length)) && file.put_in_place() &&
           file.flush_name();
}

// --- a client's files ----------------------------------------------------------------------------

bool zt::ClientPaths::set(const char* directory, const char* name) {
    return format_path(certificate, "%s/%s_public", directory, name) &&
           format_path(key, "%s/%s_private", directory, name) &&
           format_path(bundle, "%s/%s.pfx", directory, name);
}

void zt::ClientPaths::remove() const {
    unlink(bundle);
    unlink(key);
    unlink(certificate);
}

bool zt::is_issued(const char* directory, const Client& client) {
    char path[kVerifiedPathRoom];
    struct stat status;
    return format_path(path, "%s/%" PRIu64 "_%" PRIu64 "_public", directory, client.domain,
                       client.id) &&
           stat(path, &status) == 0;
}

bool zt::ClientFiles::write(X509& certificate, EVP_PKEY& key) {
    return write_part(certificate_, pem_of(certificate)) && write_part(key_, pem_of(key)) &&
           write_part(bundle_, bundle_of(certificate, key));
}

bool zt::ClientFiles::flush() { return certificate_.flush() && key_.flush() && bundle_.flush(); }

bool zt::ClientFiles::put_in_place() {
    if (certificate_.put_in_place() && key_.put_in_place() && bundle_.put_in_place()) return true;
    paths_.remove();
    return false;
}
