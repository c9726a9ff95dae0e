// Every request goes the same way: a connection is made, the request goes out as one text, and the
// answer is fed to a document, piece by piece, until the document says that it is complete. Plain
// and TLS connections differ in how they are made and in how bytes go through them.
//
// OpenSSL answers an interrupted system call with "try again", and tells that from a failure by its
// error queue, which therefore is emptied before each of its calls that reads or writes.

#include <ztlib/network/http_client.h>

#include <ztlib/base/memory.h>
#include <ztlib/base/sigpipe.h>
#include <ztlib/utils/converters.h>
#include <ztlib/network/https_trust.hpp>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <utility>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

constexpr const char* kService = "80";
constexpr size_t kGetPiece = 1600;    // bytes of an answer to a GET that are read at once
constexpr size_t kPostPiece = 1500;   // ... of one to a POST, and over TLS
constexpr int kDeepestPardon = 5;     // no error of a certificate beyond it is accepted
constexpr size_t kNumberRoom = 32;    // for a number's digits
constexpr size_t kSubjectRoom = 256;  // for a certificate's name

// --- owners --------------------------------------------------------------------------------------

using zt::ReleaseWith;

using Addresses = std::unique_ptr<addrinfo, ReleaseWith<freeaddrinfo>>;
using Document = std::unique_ptr<htmldoc, ReleaseWith<html_request_free>>;
using Bio = std::unique_ptr<BIO, ReleaseWith<BIO_free>>;
using Certificate = std::unique_ptr<X509, ReleaseWith<X509_free>>;
using Store = std::unique_ptr<X509_STORE, ReleaseWith<X509_STORE_free>>;
using Context = std::unique_ptr<SSL_CTX, ReleaseWith<SSL_CTX_free>>;
using Handle = std::unique_ptr<SSL, ReleaseWith<SSL_free>>;

// Owns a socket, which may be none (negative), until release().
class Socket {
  public:
    explicit Socket(int fd) : fd_(fd) {}
    ~Socket() {
        if (fd_ < 0) return;
        shutdown(fd_, SHUT_RDWR);
        close(fd_);
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }

  private:
    int fd_;
};

// A byte buffer of a function's own.
struct Text {
    char* data = nullptr;
    unsigned capacity = 0;
    unsigned length = 0;

    Text() = default;
    ~Text() { free(data); }
    Text(const Text&) = delete;
    Text& operator=(const Text&) = delete;
};

// --- plain connections ---------------------------------------------------------------------------

// Repeats a system call for as long as signals interrupt it.
template <class Call>
auto uninterrupted(Call call) {
    auto result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

// False, with errno as the resolver left it, when the name does not resolve.
bool resolve(const char* host, Addresses& addresses) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host, kService, &hints, &found) != 0) return false;
    addresses.reset(found);
    return true;
}

int make_socket(const addrinfo& address) {
    return socket(address.ai_family, address.ai_socktype, address.ai_protocol);
}

// An interrupted connect() goes on behind our back; the next one waits for it.
bool connect_to(const Socket& to, const sockaddr* address, socklen_t length) {
    return uninterrupted([&] { return connect(to.get(), address, length); }) == 0;
}

// One send, which has to take it all.
bool send_whole(const Socket& to, const Text& text) {
    return uninterrupted([&] { return send(to.get(), text.data, text.length, MSG_NOSIGNAL); }) ==
           static_cast<ssize_t>(text.length);
}

// A copy of the answer, or null when it is refused or cut short, or memory is out.
template <size_t piece_size>
htmldoc* receive_answer(const Socket& from) {
    const Document answer(htmldoc_create());
    if (!answer) return nullptr;
    for (int result = 1; result != 0;) {
        char piece[piece_size];
        const ssize_t n = uninterrupted([&] { return recv(from.get(), piece, piece_size, 0); });
        if (n <= 0) return nullptr;
        result = htmldoc_wrap(answer.get(), piece, static_cast<int>(n));
        if (result < 0) return nullptr;
    }
    return htmldoc_dublicate(answer.get());
}

// --- requests ------------------------------------------------------------------------------------

bool render_get(const char* host, const char* path, Text& text) {
    return buffer_vsnprintf(&text.data, &text.capacity, &text.length,
                            "GET %s HTTP/1.0\r\n"
                            "Host:%s\r\n"
                            "\r\n\r\n",
                            path, host) != nullptr;
}

struct Body {
    const void* bytes;
    unsigned length;

    bool is_missing() const { return !bytes && length != 0; }
};

// A POST while it is built. Every step is false when memory is out.
class Post {
  public:
    explicit Post(const char* path) {
        htmldoc_init(&document_);
        htmldoc_init_proto(&document_, path, HTMLDOC_POST | HTMLDOC_HTTP_1_0);
    }
    ~Post() {
        // The document takes a url whose length has 16 zero bits for none.
        if (document_.url_length == 0) free(document_.url);
        htmldoc_free(&document_, 0);
    }
    Post(const Post&) = delete;
    Post& operator=(const Post&) = delete;

    bool add_header(const char* name, const char* value) {
        return htmldoc_add_option(&document_.options, name, value) != nullptr;
    }
    bool add_body(const Body& body) {
        char length[kNumberRoom];
        // A length that is no int is refused as one that no memory can hold.
        return add_header("Content-Length", u322str_r(body.length, length, sizeof length)) &&
               htmldoc_body_append(&document_, body.bytes, static_cast<int>(body.length)) == 0;
    }
    bool render(Text& text) {
        if (document_.url)
            htmldoc_unwrap(&text.data, &text.capacity, &text.length, &document_, true);
        return text.length != 0;
    }

  private:
    htmldoc document_;
};

bool send_xml(const Socket& to, const char* path, const Body& body) {
    Post post(path);
    Text text;
    return post.add_header("Content-type", "application/xml") && post.add_body(body) &&
           post.render(text) && send_whole(to, text);
}

// --- TLS connections -----------------------------------------------------------------------------

// Repeats a TLS call for as long as signals interrupt it.
template <class Call>
int uninterrupted_tls(SSL& ssl, Call call) {
    for (;;) {
        ERR_clear_error();
        const int result = call();
        if (result > 0) return result;
        const int error = SSL_get_error(&ssl, result);
        if (error != SSL_ERROR_WANT_READ && error != SSL_ERROR_WANT_WRITE) return result;
    }
}

Certificate compiled_in_root() {
    const char* pem = zt::https_trust().certificates[0];
    const Bio text(BIO_new_mem_buf(pem, static_cast<int>(strlen(pem))));
    return Certificate(text ? PEM_read_bio_X509(text.get(), nullptr, nullptr, nullptr) : nullptr);
}

Store make_store() {
    Store store(X509_STORE_new());
    const Certificate root = compiled_in_root();
    if (!store || !root || X509_STORE_add_cert(store.get(), root.get()) != 1) return nullptr;
    return store;
}

// A context that trusts the compiled-in root alone.
Context make_context() {
    Context context(SSL_CTX_new(TLS_client_method()));
    if (!context || SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) != 1)
        return nullptr;
    Store store = make_store();
    if (!store) return nullptr;
    SSL_CTX_set_cert_store(context.get(), store.release());
    return context;
}

bool shows_pinned_certificate(const SSL& ssl) {
    const Certificate shown(SSL_get_peer_certificate(&ssl));
    unsigned char digest[EVP_MAX_MD_SIZE];
    if (!shown || X509_digest(shown.get(), EVP_sha1(), digest, nullptr) != 1) return false;
    if (memcmp(digest, zt::https_trust().fingerprint, SHA_DIGEST_LENGTH) == 0) return true;
    fputs("not norv cert !\n", stderr);
    return false;
}

// A verified connection over the connected socket, or null with the reason in OpenSSL's queue. The
// handle keeps the context alive.
Handle start_tls(const Socket& socket) {
    const Context context = make_context();
    if (!context) return nullptr;
    Handle handle(SSL_new(context.get()));
    if (!handle || SSL_set_fd(handle.get(), socket.get()) != 1) return nullptr;
    SSL_set_verify(handle.get(), SSL_VERIFY_PEER, cert_verify_callback);
    if (uninterrupted_tls(*handle, [&] { return SSL_connect(handle.get()); }) != 1) return nullptr;
    return shows_pinned_certificate(*handle) ? std::move(handle) : nullptr;
}

Handle connect_tls(const Socket& socket, const char* ip, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = inet_addr(ip);
    if (!socket || !connect_to(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address))
        return nullptr;
    return start_tls(socket);
}

// A connection to the trusted server for one request, its socket included. What it leaves in
// OpenSSL's queue goes with it: the caller's next look there is at a connection of its own.
class Session {
  public:
    Session(const char* ip, int port) : ssl_(https_connect(ip, port)) {}
    ~Session() {
        if (ssl_) {
            const int fd = SSL_get_fd(ssl_);
            https_close(ssl_);
            close(fd);
        }
        ERR_clear_error();
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    explicit operator bool() const { return ssl_; }

    bool send_whole(const Text& text) const {
        const int length = static_cast<int>(text.length);
        return uninterrupted_tls(*ssl_, [&] { return SSL_write(ssl_, text.data, length); }) ==
               length;
    }
    // As SSL_read(): 0 or less at the end of the connection, whatever ended it.
    template <int size>
    int receive(char (&piece)[size]) const {
        return uninterrupted_tls(*ssl_, [&] { return SSL_read(ssl_, piece, size); });
    }

  private:
    SSL* ssl_;
};

bool send_post(const Session& to, const char* path, const Body* body) {
    Post post(path);
    Text text;
    return (!body || post.add_body(*body)) && post.render(text) && to.send_whole(text);
}

// The answer, or null when it is refused or cut short, or memory is out. A refused one is read to
// its end all the same.
htmldoc* receive_answer(const Session& from) {
    Document answer(htmldoc_create());
    if (!answer) return nullptr;
    for (int result = 1; result != 0;) {
        char piece[kPostPiece];
        const int n = from.receive(piece);
        if (n <= 0) return nullptr;
        const unsigned held = answer->input.length;
        result = htmldoc_wrap(answer.get(), piece, n);
        // The document holds on to what it refuses. What it did not keep is lost: memory is out.
        if (result < 0 && answer->input.length == held) return nullptr;
    }
    return answer.release();
}

// `body` is null for a request that has none and does not speak of one.
htmldoc* request_trusted(const char* ip, int port, const char* path, const Body* body) {
    if (!ip || !path) return nullptr;
    const zt::SigpipeBlocked blocked;
    const Session session(ip, port);
    if (!session || !send_post(session, path, body)) return nullptr;
    htmldoc* answer = receive_answer(session);
    htmldoc_dump(answer);
    return answer;
}

}  // namespace

// --- HTTP ----------------------------------------------------------------------------------------

extern "C" htmldoc* html_request(const char* host, unsigned short /*port*/, const char* path) {
    if (!host || !path) return nullptr;
    Addresses addresses;
    if (!resolve(host, addresses)) {
        fprintf(stderr, "failed to resolve: %s, %s\n", host, strerror(errno));
        return nullptr;
    }
    if (!addresses) {
        fprintf(stderr, "failed to connect to %s\n", host);
        return nullptr;
    }
    const Socket server(make_socket(*addresses));
    if (!server || !connect_to(server, addresses->ai_addr, addresses->ai_addrlen)) return nullptr;
    addresses.reset();

    {
        Text request;
        if (!render_get(host, path, request) || !send_whole(server, request)) return nullptr;
    }
    return receive_answer<kGetPiece>(server);
}

extern "C" void html_request_free(htmldoc* doc) {
    if (doc) htmldoc_free(doc, 1);
}

extern "C" htmldoc* http_post(const char* host, int port, const char* path, const char* body,
                              unsigned body_len) {
    const Body content{body, body_len};
    if (!path || content.is_missing()) return nullptr;
    const Socket server(_http_post_get_socket(host, port));
    if (!server || !send_xml(server, path, content)) return nullptr;
    return receive_answer<kPostPiece>(server);
}

extern "C" int _http_post_get_socket(const char* host, int /*port*/) {
    Addresses addresses;
    if (!host || !resolve(host, addresses)) return -1;
    for (const addrinfo* address = addresses.get(); address; address = address->ai_next) {
        Socket server(make_socket(*address));
        if (!server) return -2;
        if (connect_to(server, address->ai_addr, address->ai_addrlen)) return server.release();
    }
    return -3;
}

// --- HTTPS ---------------------------------------------------------------------------------------

extern "C" SSL* https_connect(const char* ip, int port) {
    if (!ip) return nullptr;
    const zt::SigpipeBlocked blocked;
    ERR_clear_error();
    Socket server(socket(AF_INET, SOCK_STREAM, IPPROTO_TCP));
    Handle handle = connect_tls(server, ip, port);
    if (!handle) {
        ERR_print_errors_fp(stderr);
        return nullptr;
    }
    server.release();
    return handle.release();
}

extern "C" void https_close(SSL* ssl) {
    if (!ssl) return;
    const zt::SigpipeBlocked blocked;
    SSL_shutdown(ssl);
    SSL_free(ssl);
}

extern "C" htmldoc* https_post_request(const char* ip, int port, const char* path, const void* body,
                                       unsigned body_len) {
    const Body content{body, body_len};
    return content.is_missing() ? nullptr : request_trusted(ip, port, path, &content);
}

extern "C" htmldoc* https_get_request(const char* ip, int port, const char* path) {
    return request_trusted(ip, port, path, nullptr);
}

extern "C" void https_free_request(htmldoc* doc) { htmldoc_free(doc, 1); }

extern "C" int cert_verify_callback(int preverify_ok, X509_STORE_CTX* ctx) {
    if (!ctx) return 0;
    // The names are for whoever looks on with a debugger.
    char name[kSubjectRoom] = "";
    const X509* certificate = X509_STORE_CTX_get_current_cert(ctx);
    if (certificate) X509_NAME_oneline(X509_get_subject_name(certificate), name, sizeof name);

    if (preverify_ok == 0 && X509_STORE_CTX_get_error_depth(ctx) > kDeepestPardon)
        X509_STORE_CTX_set_error(ctx, X509_V_ERR_CERT_CHAIN_TOO_LONG);

    switch (X509_STORE_CTX_get_error(ctx)) {
        case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
            if (certificate)
                X509_NAME_oneline(X509_get_issuer_name(certificate), name, sizeof name);
            return preverify_ok;
        case X509_V_ERR_CERT_HAS_EXPIRED:
        case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
            return 1;
        default:
            return preverify_ok;
    }
}
