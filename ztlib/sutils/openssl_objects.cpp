// OpenSSL keeps one table of identifiers and one of extension handlers for the whole process. An
// entry that is added twice is an error or a leak, so each is looked up first, and looking up and
// adding go under one lock.

#include <ztlib/sutils/openssl_objects.hpp>

#include <ztlib/base/lock.h>
#include <ztlib/sutils/openssl_owned.hpp>

#include <openssl/objects.h>
#include <openssl/x509v3.h>

namespace {

constexpr const char* kModule = "./sutils/openssl_objects";

pthread_mutex_t tables = PTHREAD_MUTEX_INITIALIZER;

// The caller holds the lock.
int find_or_add(const zt::ObjectName& name) {
    const zt::Asn1Object object(OBJ_txt2obj(name.identifier, 1));
    if (!object) return NID_undef;
    const int known = OBJ_obj2nid(object.get());
    return known != NID_undef ? known
                              : OBJ_create(name.identifier, name.short_name, name.long_name);
}

}  // namespace

int zt::object_number(const ObjectName& name) {
    const Lock lock(tables, {kModule, __func__});
    const ErrorMark mark;
    return find_or_add(name);
}

int zt::comment_extension_number(const ObjectName& name) {
    const Lock lock(tables, {kModule, __func__});
    const ErrorMark mark;
    const int number = find_or_add(name);
    if (number == NID_undef || X509V3_EXT_get_nid(number)) return number;
    return X509V3_EXT_add_alias(number, NID_netscape_comment) == 1 ? number : NID_undef;
}
