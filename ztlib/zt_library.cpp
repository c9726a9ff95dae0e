// OpenSSL's own start-up and tear-down calls, in the order in which hosts have always had them.
// Most of them do nothing on OpenSSL 1.1 and newer, which initialises and cleans up by itself.

#include <ztlib/zt_library.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/ssl.h>

extern "C" int zt_library_init() {
    SSL_load_error_strings();
    return SSL_library_init();
}

extern "C" void zt_library_done() {
    EVP_cleanup();
    OBJ_cleanup();
    CRYPTO_cleanup_all_ex_data();
    ERR_free_strings();
}
