// What the authority's own and its clients' certificates look like.
#pragma once

#include <ztlib/sutils/openssl_objects.hpp>
#include <ztlib/sutils/openssl_owned.hpp>

#include <cstdint>

namespace zt {

inline constexpr ObjectName kClientPurpose{"1.3.6.1.4.1.49371.7.7.2.7", "selvarClient",
                                           "Selvar Client"};
inline constexpr ObjectName kClientDomain{"1.3.6.1.4.1.49371.7.7.2.7.2", "selvarClientDomain",
                                          "Selvar Client Domain"};
inline constexpr ObjectName kClientId{"1.3.6.1.4.1.49371.7.7.2.7.3", "selvarClientID",
                                      "Selvar Client ID"};

struct Client {
    uint64_t domain;
    uint64_t id;
};

// Who signs, and under whose name.
struct Signer {
    X509* certificate;
    EVP_PKEY* key;
};

// Fills in and signs an authority's certificate for `key`, which signs it. A null `issuer` is the
// subject itself. False when OpenSSL refuses a step.
bool fill_authority_certificate(X509& certificate, const char* common_name, int64_t serial,
                                EVP_PKEY& key, X509* issuer);

// A client's certificate for `key`, or null when OpenSSL refuses a step.
Certificate make_client_certificate(const Client& client, const char* common_name, int64_t serial,
                                    EVP_PKEY& key, const Signer& signer);

// Adds an extension from its configuration string.
bool add_extension(X509& certificate, int number, const char* value);

}  // namespace zt
