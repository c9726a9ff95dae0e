// OpenSSL's objects with an owner, and its error queue.
#pragma once

#include <ztlib/base/memory.h>

#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

namespace zt {

using Asn1Object = std::unique_ptr<ASN1_OBJECT, ReleaseWith<ASN1_OBJECT_free>>;
using AuthorityKeyId = std::unique_ptr<AUTHORITY_KEYID, ReleaseWith<AUTHORITY_KEYID_free>>;
using BigNumber = std::unique_ptr<BIGNUM, ReleaseWith<BN_free>>;
using Bio = std::unique_ptr<BIO, ReleaseWith<BIO_free>>;
using Certificate = std::unique_ptr<X509, ReleaseWith<X509_free>>;
using Extension = std::unique_ptr<X509_EXTENSION, ReleaseWith<X509_EXTENSION_free>>;
using Key = std::unique_ptr<EVP_PKEY, ReleaseWith<EVP_PKEY_free>>;
using OctetString = std::unique_ptr<ASN1_OCTET_STRING, ReleaseWith<ASN1_OCTET_STRING_free>>;
using Pkcs12 = std::unique_ptr<PKCS12, ReleaseWith<PKCS12_free>>;
using Request = std::unique_ptr<X509_REQ, ReleaseWith<X509_REQ_free>>;
using RsaKey = std::unique_ptr<RSA, ReleaseWith<RSA_free>>;
using Store = std::unique_ptr<X509_STORE, ReleaseWith<X509_STORE_free>>;
using StoreContext = std::unique_ptr<X509_STORE_CTX, ReleaseWith<X509_STORE_CTX_free>>;

// Leaves OpenSSL's error queue as it found it: at the end of the scope, what was added is gone. (A
// host that reads the queue to judge a call of its own must not find ours in it.)
class ErrorMark {
  public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;
};

}  // namespace zt
