// Identifiers that are registered once per process: each test has a process of its own.

#include <ztlib/sutils/openssl_objects.hpp>

#include <tests/sutils/authority.h>

using namespace zt_test;

namespace {

constexpr zt::ObjectName kName{"1.3.6.1.4.1.49371.99.1", "ztTest", "ZT Test"};

}  // namespace

TEST(OpensslObjects, RegistersAnIdentifierOnce) {
    const ChildResult child = run_in_child([] {
        const HostsError error;
        const int number = zt::object_number(kName);
        printf("%s, %s\n", OBJ_nid2sn(number), OBJ_nid2ln(number));
        printf("%d\n", number == OBJ_txt2nid(kName.identifier));
        printf("%d\n", zt::object_number(kName) == number);
        printf("%d\n", X509V3_EXT_get_nid(number) == nullptr);
        printf("%d\n", error.is_alone());
    });
    EXPECT_EQ(child.out, "ztTest, ZT Test\n1\n1\n1\n1\n");
}

TEST(OpensslObjects, TakesTheIdentifierThatTheHostHasRegistered) {
    const ChildResult child = run_in_child([] {
        const int number = OBJ_create(kName.identifier, "theirs", "Theirs");
        printf("%d\n", zt::object_number(kName) == number);
        printf("%d\n", zt::comment_extension_number(kName) == number);
    });
    EXPECT_EQ(child.out, "1\n1\n");
}

TEST(OpensslObjects, HandlesAnExtensionAsACommentOnce) {
    const ChildResult child = run_in_child([] {
        const HostsError error;
        const int number = zt::comment_extension_number(kName);
        const X509V3_EXT_METHOD* method = X509V3_EXT_get_nid(number);
        printf("%d\n", method->i2s == X509V3_EXT_get_nid(NID_netscape_comment)->i2s);
        printf("%d\n", zt::comment_extension_number(kName) == number);
        printf("%d\n", X509V3_EXT_get_nid(number) == method);
        printf("%d\n", error.is_alone());
    });
    EXPECT_EQ(child.out, "1\n1\n1\n1\n");
}

TEST(OpensslObjects, HasNoNumberForWhatCannotBeRegistered) {
    const ChildResult child = run_in_child([] {
        const HostsError error;
        printf("%d\n", zt::object_number({"no.numbers", "none", "None"}));
        OBJ_create("1.3.6.1.4.1.49371.99.2", kName.short_name, "Another");
        ERR_clear_error();
        printf("%d\n", zt::object_number(kName));
        printf("%lu\n", ERR_peek_error());
    });
    EXPECT_EQ(child.out, "0\n0\n0\n");
}

TEST(OpensslObjects, NoCertificateIsIssuedWithoutThem) {
    const ScratchAuthority ca;
    for (const char* call : {"OBJ_create", "X509V3_EXT_add_alias"})
        for (uint32_t skip = 0; skip < 3; skip++) {
            const ChildResult child = run_in_child([&] {
                const FailingCall fault(call, ENOMEM, skip);
                openssl_ca_new(ca.get(), "client", 42, 7);
                if (fault.hit()) puts("refused");
            });
            EXPECT_EQ(child.out, "refused\n") << call << ' ' << skip;
            EXPECT_FALSE(exists(ca / "7_42_public")) << call << ' ' << skip;
            EXPECT_FALSE(exists(ca / "7_42_private")) << call << ' ' << skip;
        }
}

TEST(OpensslObjects, NoClientIsKnownWithoutThem) {
    const ScratchAuthority ca;
    const CertificatePtr x = make_by(ca, {});
    const auto verdict = [&](uint32_t skip) {
        return run_in_child([&] {
                   const FailingCall fault("OBJ_create", ENOMEM, skip);
                   printf("%d\n", ca.verify(x));
               })
            .out;
    };
    EXPECT_EQ(verdict(0), "-1\n");
    EXPECT_EQ(verdict(1), "-2\n");
    EXPECT_EQ(verdict(2), "-4\n");
}
