// What agents and the server say to each other.
//
// A message is one XML document in a frame of the simple XML protocol. A connection carries one
// request after the other; the agent waits for the answer before it sends the next one, and keeps
// its end open until then.
//
//   report   <report><host>
//                <name>web1</name>
//                <system>Debian GNU/Linux 12 (bookworm)</system>
//                <load><one>0.42</one><five>0.40</five><fifteen>0.33</fifteen></load>
//                <memory><total>8324317184</total><available>5012340736</available></memory>
//                <traffic><received>73400320</received><sent>1048576</sent></traffic>
//                <interface>
//                    <name>eth0</name>
//                    <received>73400320</received><sent>1048576</sent>
//                    <mac>52:54:00:12:34:56</mac>
//                    <address>192.0.2.10/24</address>
//                </interface>
//                <route><destination>0.0.0.0/0</destination><gateway>192.0.2.1</gateway></route>
//            </host></report>
//   list     <list></list>
//   show     <show><name>web1</name></show>
//
// A host has any number of interfaces and routes, an interface any number of addresses; it may lack
// a mac.
//
// The answer to each of them holds the hosts asked for, a report's its own. Each has its age, the
// seconds since it reported. A list is sorted by name and leaves interfaces and routes out.
//
//   hosts    <hosts><host><age>3</age> ... as above ... </host></hosts>
//   error    <error><code>no-such-host</code><message>no host is named web9</message></error>
//
// Codes: unknown-request, incomplete (an element is missing, or its text is not what it should be),
// no-such-host, full (the server takes no further host).
//
// Bytes everywhere; all data is element text, for the parser leaves attributes' entities alone.
#pragma once

#include <ztlib/xmldoc/xmldoc.h>

#include <array>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace inventory {

constexpr uint16_t kDefaultPort = 7420;

// What a message may hold. A list of kMaxHosts stays far below the protocol's bound on a frame, and
// so does one host with kMaxInterfaces.
constexpr size_t kMaxHosts = 2000;
constexpr size_t kMaxInterfaces = 256;
constexpr size_t kMaxAddresses = 10;  // of an interface
constexpr size_t kMaxRoutes = 256;
constexpr size_t kMaxName = 255;  // of a host and of an interface
constexpr size_t kMaxSystem = 128;
constexpr size_t kMaxMac = 127;
constexpr size_t kMaxMessage = 512;  // of an error

struct Traffic {
    uint64_t received = 0;
    uint64_t sent = 0;
};

struct Interface {
    std::string name;
    Traffic traffic;
    std::string mac;                     // empty: it has none
    std::vector<std::string> addresses;  // "192.0.2.10/24"
};

struct Route {
    std::string destination;  // "0.0.0.0/0" for the default route
    std::string gateway;      // "192.0.2.1"
};

struct Host {
    std::string name;
    std::string system;
    std::array<double, 3> load{};  // of the last 1, 5 and 15 minutes
    uint64_t memory_total = 0;
    uint64_t memory_available = 0;
    Traffic traffic;  // of all interfaces but the loopback
    std::vector<Interface> interfaces;
    std::vector<Route> routes;
    uint64_t age = 0;  // seconds since it reported; in answers
};

// --- documents -----------------------------------------------------------------------------------

struct FreeDocument {
    void operator()(xmldoc* document) const { xmldoc_free(document, 1); }
};
using Document = std::unique_ptr<xmldoc, FreeDocument>;

// Each of these throws std::bad_alloc when memory is out.
Document report_request(const Host& host);
Document list_request();
Document show_request(std::string_view name);

enum class Detail { brief, full };  // without or with interfaces and routes
Document hosts_answer();
void add_host(xmldoc& answer, const Host& host, uint64_t age, Detail detail);
Document error_answer(const char* code, std::string_view message);

// A document as text.
std::string to_text(const xmldoc& document);

// --- reading what a peer sent --------------------------------------------------------------------

// A well-formed message that lacks something, or holds what it should not.
struct Incomplete : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// True when the document's root has this name.
bool is_message(const xmldoc& document, std::string_view name);

// The plain text of `parent`'s child `name`. Throws Incomplete when there is none of 1 to
// `max_bytes` bytes.
std::string text_of(const xmldoc_node* parent, const char* name, size_t max_bytes);

// The host of a report, the hosts of an answer. Both throw Incomplete.
Host reported_host(const xmldoc& report);
std::vector<Host> answered_hosts(const xmldoc& answer);

}  // namespace inventory
