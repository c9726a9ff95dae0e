// What the HTTPS client trusts. The build compiles it in from files (cmake/https_trust.cmake); a
// test that defines https_trust() itself is linked with that one instead.
#pragma once

#include <openssl/sha.h>

namespace zt {

struct HttpsTrust {
    // PEM: the root, which is what connections trust, and two of its intermediates, which are
    // carried with it.
    const char* certificates[3];
    // Of the one server's certificate.
    unsigned char fingerprint[SHA_DIGEST_LENGTH];
};

const HttpsTrust& https_trust();

}  // namespace zt
