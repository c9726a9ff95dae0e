// How a certificate that a client shows is judged.
#pragma once

#include <ztlib/sutils/openssl_objects.hpp>
#include <ztlib/sutils/openssl_owned.hpp>

#include <cstdint>

namespace zt {

// Reads the number in the first extension of that name. False when there is none.
bool read_number(const X509& certificate, const ObjectName& name, uint64_t& number);

// Whether the certificate was issued by the store's authority and is within its time. The context
// is empty before and afterwards; the caller holds its lock.
bool is_valid(X509& certificate, X509_STORE& store, X509_STORE_CTX& context, const X509& authority);

// One error of a verification on standard error, names and all.
void print_verification_error(X509_STORE_CTX& context);

}  // namespace zt
