// The authority's certificate is of version 3 and has no extensions, not even the one that makes an
// authority. OpenSSL refuses such an issuer since version 3. That one error, of that one
// certificate, is overlooked; a callback of the host's judges everything else.

#include <ztlib/sutils/openssl_ca_verification.hpp>

#include <ztlib/sutils/openssl_ca_files.hpp>

#include <openssl/objects.h>

#include <cstdio>

namespace {

constexpr size_t kNameRoom = 256;

// Travels with the context as its application data.
struct Judgement {
    const X509* authority;
    X509_STORE_CTX_verify_cb next;
};

bool is_authority_without_extensions(X509_STORE_CTX& context, const X509& authority) {
    const X509* current = X509_STORE_CTX_get_current_cert(&context);
    return X509_STORE_CTX_get_error(&context) == X509_V_ERR_INVALID_CA && current &&
           X509_cmp(current, &authority) == 0;
}

int judge(int ok, X509_STORE_CTX* context) {
    const auto& judgement = *static_cast<Judgement*>(X509_STORE_CTX_get_app_data(context));
    if (!ok && is_authority_without_extensions(*context, *judgement.authority)) {
        X509_STORE_CTX_set_error(context, X509_V_OK);
        ok = 1;
    }
    return judgement.next(ok, context);
}

const char* one_line(const X509_NAME* name, char (&text)[kNameRoom]) {
    text[0] = '\0';
    if (name) X509_NAME_oneline(name, text, sizeof text);
    return text;
}

}  // namespace

bool zt::read_number(const X509& certificate, const ObjectName& name, uint64_t& number) {
    const int extension_number = object_number(name);
    if (extension_number == NID_undef) return false;
    const int at = X509_get_ext_by_NID(&certificate, extension_number, -1);
    if (at < 0) return false;
    const ASN1_OCTET_STRING* value = X509_EXTENSION_get_data(X509_get_ext(&certificate, at));
    number = decimal_value({reinterpret_cast<const char*>(ASN1_STRING_get0_data(value)),
                            static_cast<size_t>(ASN1_STRING_length(value))});
    return true;
}

bool zt::is_valid(X509& certificate, X509_STORE& store, X509_STORE_CTX& context,
                  const X509& authority) {
    bool valid = false;
    if (X509_STORE_CTX_init(&context, &store, &certificate, nullptr) == 1) {
        Judgement judgement{&authority, X509_STORE_CTX_get_verify_cb(&context)};
        X509_STORE_CTX_set_verify_cb(&context, judge);
        valid = X509_STORE_CTX_set_app_data(&context, &judgement) == 1 &&
                X509_verify_cert(&context) == 1;
    }
    X509_STORE_CTX_cleanup(&context);
    return valid;
}

void zt::print_verification_error(X509_STORE_CTX& context) {
    const X509* certificate = X509_STORE_CTX_get_current_cert(&context);
    const int error = X509_STORE_CTX_get_error(&context);
    char issuer[kNameRoom];
    char subject[kNameRoom];
    fprintf(stderr,
            "-Error with certificate at depth: %i\n"
            "  issuer   = %s\n"
            "  subject  = %s\n"
            "  err %i:%s\n",
            X509_STORE_CTX_get_error_depth(&context),
            one_line(certificate ? X509_get_issuer_name(certificate) : nullptr, issuer),
            one_line(certificate ? X509_get_subject_name(certificate) : nullptr, subject), error,
            X509_verify_cert_error_string(error));
}
