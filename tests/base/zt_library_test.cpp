#include <ztlib/zt_library.h>

#include <gtest/gtest.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/ssl.h>

TEST(Library, StartsMoreThanOnceAndEnds) {
    EXPECT_EQ(zt_library_init(), 1);
    EXPECT_EQ(zt_library_init(), 1);
    EXPECT_NE(ERR_reason_error_string(ERR_PACK(ERR_LIB_SSL, 0, SSL_R_NO_SHARED_CIPHER)), nullptr);

    SSL_CTX* context = SSL_CTX_new(TLS_client_method());
    EXPECT_NE(context, nullptr);
    SSL_CTX_free(context);

    zt_library_done();
}
