// The files of the authority's directory.
#pragma once

#include <ztlib/sutils/new_file.hpp>
#include <ztlib/sutils/openssl_ca_profile.hpp>
#include <ztlib/sutils/openssl_owned.hpp>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace zt {

// Room for a path with its terminator: of a file that is made, of the serial file, and of the
// certificate that is looked for when one is verified.
constexpr size_t kPathRoom = 512;
constexpr size_t kSerialPathRoom = 128;
constexpr size_t kVerifiedPathRoom = 256;

constexpr size_t kSerialLineLength = 127;  // bytes of the serial file that are looked at

// The unsigned number that strtoull() reads in decimal text, which here needs no terminator.
uint64_t decimal_value(std::string_view text);

// --- the serial file -----------------------------------------------------------------------------

// Reads the last serial number, its low 32 bits. False, with errno set, when the file cannot be
// read or does not begin with a digit (EINVAL).
bool read_serial(const char* path, uint32_t& serial);

// Writes it, on the disk when it returns. False with errno set when that fails, and the file as it
// was unless it is only the disk that did not take its name.
bool write_serial(const char* path, uint32_t serial);

// --- a client's files ----------------------------------------------------------------------------

struct ClientPaths {
    char certificate[kPathRoom];
    char key[kPathRoom];
    char bundle[kPathRoom];

    // `name` is "<domain>_<id>". False when a path does not fit.
    bool set(const char* directory, const char* name);
    void remove() const;
};

// True when the client's certificate is there under a path that is not too long to be looked at.
bool is_issued(const char* directory, const Client& client);

// The three files while they are made. They appear together or not at all. Every step is false when
// it failed.
class ClientFiles {
  public:
    // `paths` is the caller's until the end of the scope.
    explicit ClientFiles(const ClientPaths& paths)
        : paths_(paths),
          certificate_(paths.certificate, kPublicFile),
          key_(paths.key, kPrivateFile),
          bundle_(paths.bundle, kPrivateFile) {}

    bool write(X509& certificate, EVP_PKEY& key);
    // Brings them to the disk, which takes long.
    bool flush();
    // A file that cannot take its place takes the client's other files away. Two threads may do
    // this for the same client, but only one after the other.
    bool put_in_place();

  private:
    const ClientPaths& paths_;
    NewFile certificate_;
    NewFile key_;
    NewFile bundle_;
};

}  // namespace zt
