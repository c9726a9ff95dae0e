// Object identifiers that OpenSSL does not know by itself.
#pragma once

namespace zt {

struct ObjectName {
    const char* identifier;  // "1.5.6..."
    const char* short_name;
    const char* long_name;
};

// The number by which OpenSSL's functions know the identifier; it is registered where nobody has
// done that yet. NID_undef when it cannot be registered. Any thread; the error queue stays as it
// is.
int object_number(const ObjectName& name);

// The same for an extension whose value is handled like that of a Netscape comment from now on.
int comment_extension_number(const ObjectName& name);

}  // namespace zt
