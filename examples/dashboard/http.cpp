#include "http.h"

#include <ztlib/network/websocket.h>

#include "page.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <string_view>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

namespace dashboard {
namespace {

// --- building ------------------------------------------------------------------------------------

struct Status {
    uint16_t code;
    const char* reason;
};
constexpr Status kOk{200, "OK"};
constexpr Status kBadRequest{400, "Bad Request"};
constexpr Status kForbidden{403, "Forbidden"};
constexpr Status kNotFound{404, "Not Found"};
constexpr Status kMethodNotAllowed{405, "Method Not Allowed"};
constexpr Status kUpgradeRequired{426, "Upgrade Required"};
constexpr Status kTooLong{431, "Request Header Fields Too Large"};

void add_option(htmldoc& response, const char* name, const std::string& value) {
    if (!htmldoc_add_option(&response.options, name, value.c_str())) throw std::bad_alloc();
}

enum class Body { sent, announced };  // announced: the answer to HEAD

// A response after which the connection ends. The document keeps the status in url_length and the
// reason where a request has its protocol.
Http make_response(Status status, const char* type, std::string_view body, Body how = Body::sent) {
    Http response = make_http();
    strcpy(response->method, "HTTP/1.1");
    response->url_length = status.code;
    strcpy(response->protocol, status.reason);
    add_option(*response, "Content-Type", type);
    add_option(*response, "Content-Length", std::to_string(body.size()));
    add_option(*response, "Cache-Control", "no-cache");
    add_option(*response, "X-Content-Type-Options", "nosniff");
    add_option(*response, "Connection", "close");
    if (how == Body::sent &&
        htmldoc_body_append(response.get(), body.data(), static_cast<int>(body.size())) != 0)
        throw std::bad_alloc();
    return response;
}

Http make_error(Status status) {
    const std::string body = std::to_string(status.code) + " " + status.reason + "\n";
    return make_response(status, "text/plain; charset=utf-8", body);
}

// The page needs nothing from anywhere but its own WebSocket, and nobody may put it into a frame.
Http make_page(Body how) {
    Http response = make_response(kOk, "text/html; charset=utf-8", kPage, how);
    add_option(*response, "Content-Security-Policy",
               "default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; "
               "img-src data:; connect-src 'self'; base-uri 'none'; form-action 'none'; "
               "frame-ancestors 'none'");
    add_option(*response, "Referrer-Policy", "no-referrer");
    return response;
}

// --- judging -------------------------------------------------------------------------------------

bool same(std::string_view a, std::string_view b) {
    return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

// A header line however it is spelled. The document compares names letter by letter.
htmldoc_option* find_option(const htmldoc& request, std::string_view name) {
    htmldoc_option* at = request.options;
    while (at && !same(at->name, name)) at = at->next;
    return at;
}

std::string_view value_of(const htmldoc& request, std::string_view name) {
    const htmldoc_option* option = find_option(request, name);
    return option ? option->value : std::string_view();
}

// Whether a list like "keep-alive, Upgrade" has this element.
bool has_element(std::string_view list, std::string_view wanted) {
    while (!list.empty()) {
        const size_t comma = list.find(',');
        std::string_view element = list.substr(0, comma);
        element.remove_prefix(std::min(element.find_first_not_of(" \t"), element.size()));
        element = element.substr(0, element.find_last_not_of(" \t") + 1);
        if (same(element, wanted)) return true;
        list.remove_prefix(comma == list.npos ? list.size() : comma + 1);
    }
    return false;
}

// "http://host:port" or, behind a proxy that encrypts, "https://host:port" of this request's own
// host. Programs that are no browsers send no origin.
bool is_own_origin(std::string_view origin, std::string_view host) {
    for (const std::string_view scheme : {"http://", "https://"})
        if (same(origin.substr(0, scheme.size()), scheme))
            return same(origin.substr(scheme.size()), host);
    return origin.empty();
}

// A name for this host that no name server had a part in: 127.x.x.x or localhost, with or without a
// port. Others could be a foreign page's host, which points here by now.
bool is_local_host(std::string_view host) {
    const std::string name(host.substr(0, host.rfind(':')));
    in_addr address{};
    if (inet_pton(AF_INET, name.c_str(), &address) == 1)
        return ntohl(address.s_addr) >> 24 == IN_LOOPBACKNET;
    return same(name, "localhost");
}

bool is_handshake(const htmldoc& request) {
    return same(value_of(request, "Upgrade"), "websocket") &&
           has_element(value_of(request, "Connection"), "upgrade") &&
           value_of(request, "Sec-WebSocket-Version") == "13";
}

// The handshake looks its key up in one spelling, and takes any text for one.
bool has_key(const htmldoc& request) {
    constexpr const char* kName = "Sec-WebSocket-Key";
    constexpr size_t kLength = 24;  // 16 bytes in base64
    htmldoc_option* key = find_option(request, kName);
    if (!key || strlen(key->value) != kLength) return false;
    memcpy(key->name, kName, strlen(kName));
    return true;
}

Http upgrade_required() {
    Http response = make_error(kUpgradeRequired);
    add_option(*response, "Upgrade", "websocket");
    add_option(*response, "Sec-WebSocket-Version", "13");
    return response;
}

Http method_not_allowed(const char* allowed) {
    Http response = make_error(kMethodNotAllowed);
    add_option(*response, "Allow", allowed);
    return response;
}

Answer answer_live(htmldoc& request, bool local_only) {
    const std::string_view host = value_of(request, "Host");
    if (!is_own_origin(value_of(request, "Origin"), host) || (local_only && !is_local_host(host)))
        return {make_error(kForbidden)};
    if (!is_handshake(request)) return {upgrade_required()};

    // A client that sends frames before it knows the answer does not keep to the protocol.
    if (!has_key(request) || request.body.length > 0) return {make_error(kBadRequest)};
    Http response = make_http();
    if (websocket_handshake(&request, response.get()) != 0) throw std::bad_alloc();
    return {std::move(response), true};
}

}  // namespace

Http make_http() {
    Http document(htmldoc_create());
    if (!document) throw std::bad_alloc();
    return document;
}

Answer answer_to(htmldoc& request, bool local_only) {
    const std::string_view method = request.method, url = request.url;
    const std::string_view protocol = request.protocol;
    if (!protocol.starts_with("HTTP/1.") ||
        (protocol != "HTTP/1.0" && value_of(request, "Host").empty()))
        return {make_error(kBadRequest)};

    if (url == "/") {
        if (method == "GET") return {make_page(Body::sent)};
        if (method == "HEAD") return {make_page(Body::announced)};
        return {method_not_allowed("GET, HEAD")};
    }
    if (url == "/live") {
        if (method == "GET") return answer_live(request, local_only);
        return {method_not_allowed("GET")};
    }
    return {make_error(kNotFound)};
}

Http refuse(Refusal why) { return make_error(why == Refusal::too_long ? kTooLong : kBadRequest); }

}  // namespace dashboard
