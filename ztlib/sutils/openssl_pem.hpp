// PEM and DER between OpenSSL's objects and files. What may be key material is never left behind in
// memory: a memory BIO cleanses its bytes when it is freed.
#pragma once

#include <ztlib/base/descriptor.h>
#include <ztlib/sutils/new_file.hpp>
#include <ztlib/sutils/openssl_owned.hpp>

#include <sys/types.h>

namespace zt {

// An empty memory BIO to write to, or null when memory is out.
Bio memory_bio();

// All that the file holds, or null with errno set: it cannot be opened or read, has more than
// kLargestPemFile bytes, or memory is out.
constexpr size_t kLargestPemFile = 16 << 20;
Bio read_file(const char* path);
Bio read_file(const Descriptor& file);

// Adds what the memory BIO holds. False, with errno set, when it does not go in.
bool write_content(NewFile& file, const Bio& content);

// Makes the file with this content, or leaves the path as it is and returns false with errno set.
bool write_file(const char* path, mode_t mode, const Bio& content);

// For OpenSSL's readers, which without it ask on the terminal: there is no pass phrase.
int no_pass_phrase(char* text, int size, int writing, void* user);

// The first certificate in the text, or null.
Certificate read_certificate(const Bio& pem);

// An unencrypted private key; null when it is not one, or not an RSA key.
RsaKey read_rsa_key(const Bio& pem);

// The key as unencrypted PKCS#8, or null when memory is out.
Bio pem_of(const EVP_PKEY& key);
Bio pem_of(const X509& certificate);
Bio pem_of(const X509_REQ& request);

// A new key, 4,096 bits with exponent 65537, or null. Takes seconds.
RsaKey generate_rsa_key();

// Hands the RSA key over to a general one. False when memory is out, for one of the two or for
// this.
bool wrap_rsa_key(RsaKey rsa, const Key& key);
Key wrap_rsa_key(RsaKey rsa);

}  // namespace zt
