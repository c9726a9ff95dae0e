// The library's authority as the program uses it: what fails throws, with a line for the user.
#pragma once

#include <ztlib/sutils/openssl_ca.h>

#include <compare>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace ca {

struct Client {
    uint64_t domain;
    uint64_t id;

    // "<domain>_<id>", which its files' names begin with.
    std::string name() const;
    auto operator<=>(const Client&) const = default;
};

// Throws unless the text is "<domain>_<id>".
Client client_named(const std::string& name);

struct Issued {
    Client client;
    std::string serial;
    std::string name;
    std::string valid_until;
};

class Authority {
  public:
    // Makes one; throws where there is one already. Takes seconds, and says so.
    static Authority make(const std::string& directory);
    // Opens one; throws where there is none.
    explicit Authority(const std::string& directory);

    uint32_t last_serial() const { return ca_->serial; }
    // Takes seconds, and says so. Throws when the client has a certificate already.
    Issued issue(const Client& client, const std::string& common_name);
    // Whose valid certificate the file holds; throws with the reason when it holds none.
    Client verify(const std::string& path);
    void revoke(const Client& client);
    std::vector<Issued> list() const;  // by domain and id

    std::string path_of(const Client& client, const char* suffix) const;

  private:
    struct Close {
        void operator()(openssl_ca* opened) const { openssl_ca_free(opened, 1); }
    };
    explicit Authority(openssl_ca* opened) : ca_(opened) {}
    bool has(const Client& client) const;

    std::unique_ptr<openssl_ca, Close> ca_;
};

}  // namespace ca
