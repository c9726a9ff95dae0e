// The RSA type of its own is deprecated since OpenSSL 3, and stays here because the records of the
// security facilities hold it and because 1.1 has nothing else. No other calls here are.

#include <ztlib/sutils/openssl_pem.hpp>

#include <openssl/crypto.h>
#include <openssl/pem.h>

#include <cerrno>
#include <utility>

#include <fcntl.h>

namespace {

constexpr int kKeyBits = 4096;
constexpr size_t kPiece = 4096;  // bytes of a file that are read at once

// Cleanses its bytes at the end of the scope.
struct Piece {
    ~Piece() { OPENSSL_cleanse(bytes, sizeof bytes); }
    char bytes[kPiece];
};

// One read, whatever signal arrives.
ssize_t read_piece(const zt::Descriptor& file, Piece& piece) {
    ssize_t count = read(file.get(), piece.bytes, sizeof piece.bytes);
    while (count < 0 && errno == EINTR) count = read(file.get(), piece.bytes, sizeof piece.bytes);
    return count;
}

bool append(const zt::Bio& to, const void* bytes, size_t size) {
    if (BIO_write(to.get(), bytes, static_cast<int>(size)) == static_cast<int>(size)) return true;
    errno = ENOMEM;
    return false;
}

bool copy_all(const zt::Descriptor& file, const zt::Bio& to) {
    Piece piece;
    for (size_t total = 0;;) {
        const ssize_t count = read_piece(file, piece);
        if (count <= 0) return count == 0;
        total += static_cast<size_t>(count);
        if (total > zt::kLargestPemFile) {
            errno = EFBIG;
            return false;
        }
        if (!append(to, piece.bytes, static_cast<size_t>(count))) return false;
    }
}

}  // namespace

zt::Bio zt::memory_bio() {
    Bio memory(BIO_new(BIO_s_mem()));
    // An end is an end, not a place to wait for more.
    if (memory) BIO_set_mem_eof_return(memory.get(), 0);
    return memory;
}

zt::Bio zt::read_file(const char* path) {
    const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
    return file ? read_file(file) : nullptr;
}

zt::Bio zt::read_file(const Descriptor& file) {
    Bio content = memory_bio();
    if (!content) {
        errno = ENOMEM;
        return nullptr;
    }
    return copy_all(file, content) ? std::move(content) : nullptr;
}

bool zt::write_content(NewFile& file, const Bio& content) {
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(content.get(), &bytes);
    return file.write(bytes, static_cast<size_t>(size));
}

bool zt::write_file(const char* path, mode_t mode, const Bio& content) {
    NewFile file(path, mode);
    return file && write_content(file, content) && file.put_in_place();
}

int zt::no_pass_phrase(char*, int, int, void*) { return -1; }

zt::Certificate zt::read_certificate(const Bio& pem) {
    return Certificate(PEM_read_bio_X509(pem.get(), nullptr, no_pass_phrase, nullptr));
}

zt::RsaKey zt::read_rsa_key(const Bio& pem) {
    return RsaKey(PEM_read_bio_RSAPrivateKey(pem.get(), nullptr, no_pass_phrase, nullptr));
}

zt::Bio zt::pem_of(const EVP_PKEY& key) {
    Bio pem = memory_bio();
    // The writers' arguments are not const before OpenSSL 3.
    if (!pem || PEM_write_bio_PKCS8PrivateKey(pem.get(), const_cast<EVP_PKEY*>(&key), nullptr,
                                              nullptr, 0, nullptr, nullptr) != 1)
        return nullptr;
    return pem;
}

zt::Bio zt::pem_of(const X509& certificate) {
    Bio pem = memory_bio();
    if (!pem || PEM_write_bio_X509(pem.get(), const_cast<X509*>(&certificate)) != 1) return nullptr;
    return pem;
}

zt::Bio zt::pem_of(const X509_REQ& request) {
    Bio pem = memory_bio();
    if (!pem || PEM_write_bio_X509_REQ(pem.get(), const_cast<X509_REQ*>(&request)) != 1)
        return nullptr;
    return pem;
}

zt::RsaKey zt::generate_rsa_key() {
    RsaKey key(RSA_new());
    const BigNumber exponent(BN_new());
    if (!key || !exponent || BN_set_word(exponent.get(), RSA_F4) != 1 ||
        RSA_generate_key_ex(key.get(), kKeyBits, exponent.get(), nullptr) != 1)
        return nullptr;
    return key;
}

bool zt::wrap_rsa_key(RsaKey rsa, const Key& key) {
    if (!rsa || !key || EVP_PKEY_assign_RSA(key.get(), rsa.get()) != 1) return false;
    rsa.release();
    return true;
}

zt::Key zt::wrap_rsa_key(RsaKey rsa) {
    Key key(EVP_PKEY_new());
    return wrap_rsa_key(std::move(rsa), key) ? std::move(key) : nullptr;
}
