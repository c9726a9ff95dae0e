// The inventory's server: agents report their hosts to it and ask it for them.
//
// The main thread accepts. Every connection is a node of a net thread pool, whose threads run the
// simple XML protocol and, for each request, on_request(). The hosts are in a hash table under its
// reader/writer lock.
//
// Who owns what:
//   connection   Server::connections, from serve() until release_connection(), which the pool calls
//                once, when neither of the connection's routines runs any more
//   socket       its connection. Nobody else closes it: who wants to end a connection early shuts
//                its socket down, which makes the routines return
//   Entry        the hash table's values. The table never frees one: whoever takes one out does
//   Database     the server, for as long as it runs. A report goes into the table, then to disk;
//                answers come from the table alone
//
// The end, on SIGTERM or SIGINT: no longer accept, shut every socket down, wait for the releases,
// join the pool's threads, free the hosts.
//
// Locks: the table's is held for as long as somebody looks at an Entry, Server::mutex for as long
// as somebody looks at the connections. Nothing else is locked and nothing is sent under either.

#include <ztlib/hashtable/hashtable.h>
#include <ztlib/logger.h>
#include <ztlib/pools/threadpool/netthreadpool.h>
#include <ztlib/pools/threadpool/protocols/simple_xml.h>
#include <ztlib/pthread_utils.h>

#include "command_line.h"
#include "database.h"
#include "messages.h"
#include "network.h"
#include "stop_signals.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <list>
#include <mutex>
#include <optional>

#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>

using namespace inventory;

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kModule = "inventory_server";

constexpr uint64_t kBuckets = 4096;
constexpr uint8_t kStringKeys = 0;

// A connection takes two threads of the pool while it is answered: one that reads and one that
// writes.
constexpr size_t kMaxConnections = 900;
static_assert(2 * kMaxConnections < NETTHREADPOOL_MAX_THREADS);

// The longest list fits into a frame: its texts, of which every byte may be an entity, and its
// tags.
static_assert(kMaxHosts * (6 * (kMaxName + kMaxSystem) + 600) < SIMPLE_XML_MAX_FRAME);

// A peer that asks on while so many bytes of answers wait for it does not read them.
constexpr unsigned kMaxUnsent = 4 * 1024 * 1024;

constexpr int kPauseMs = 100;  // before the next try to accept, when there is no room

// --- what the server holds -----------------------------------------------------------------------

struct Entry {
    Host host;
    Clock::time_point reported;
};

void free_entry(void* value) { delete static_cast<Entry*>(value); }

struct FreeHosts {
    void operator()(hashtable* hosts) const { hashtable_free_ref(hosts, free_entry, 1); }
};
struct FreePool {
    void operator()(netthreadpool* pool) const { netthreadpool_free(pool, 1); }
};

struct Server;

struct Connection {
    Server& server;
    Descriptor socket;
    simple_xml_proto* protocol = nullptr;
    std::list<Connection>::iterator place;  // in Server::connections

    Connection(Server& owner, Descriptor accepted) : server(owner), socket(std::move(accepted)) {}
};

struct Server {
    std::unique_ptr<hashtable, FreeHosts> hosts;  // name -> Entry
    std::optional<Database> database;             // none: hosts are forgotten at the end

    std::mutex mutex;  // guards the connections
    std::condition_variable none_left;
    std::list<Connection> connections;

    std::unique_ptr<netthreadpool, FreePool> pool;  // last: its threads use all of the above

    // `database_path`: empty for none.
    explicit Server(const std::string& database_path)
        : hosts(hashtable_create_ex(kBuckets, kStringKeys, HASHTABLE_RWLOCK)),
          pool(netthreadpool_create()) {
        if (!database_path.empty()) remember(database_path);
        if (!hosts || !pool || netthreadpool_start(pool.get()) != 0)
            throw std::runtime_error("cannot start the thread pool");
    }
    void remember(const std::string& database_path);
    ~Server();
};

// Releases the table's lock at the end of a scope, whoever took it.
class HeldLock {
  public:
    explicit HeldLock(hashtable& table) : table_(table) {}
    ~HeldLock() { pthread_rwlock_unlock(&table_.rwlock); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

  private:
    hashtable& table_;
};

// --- requests ------------------------------------------------------------------------------------

// Adds an entry's host to an answer. The caller holds the table's lock.
void add_entry(xmldoc& answer, const Entry& entry, Detail detail) {
    const auto age =
        std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - entry.reported);
    add_host(answer, entry.host, age.count(), detail);
}

enum class Put { added, replaced, full };

// Puts the host into the table, in place of what it reported before.
Put put(hashtable& hosts, const Host& host, Clock::time_point reported) {
    auto entry = std::make_unique<Entry>(Entry{host, reported});
    std::unique_ptr<Entry> old;  // freed when nobody can look at it any more

    // The look-up returns with the write lock held: nobody comes between it and the insert.
    old.reset(static_cast<Entry*>(hashtable_get_rw_wl(&hosts, host.name.c_str())));
    const HeldLock lock(hosts);
    if (!old && hosts.count >= kMaxHosts) return Put::full;
    if (hashtable_insert_l(&hosts, host.name.c_str(), entry.get(), nullptr) != 0) {
        static_cast<void>(old.release());  // the table's still
        throw std::bad_alloc();
    }
    static_cast<void>(entry.release());  // the table's now
    return old ? Put::replaced : Put::added;
}

Document answer_report(Server& server, const Host& host) {
    Document answer = hosts_answer();
    add_host(*answer, host, 0, Detail::full);
    const Put result = put(*server.hosts, host, Clock::now());
    if (result == Put::full) return error_answer("full", "the server takes no further host");
    if (result == Put::added)
        logger_log(LOGGER_INFO, kModule, __func__, "new host: %s", host.name.c_str());
    if (server.database) server.database->keep(host);
    return answer;
}

Document answer_list(hashtable& hosts) {
    Document answer = hosts_answer();

    pthread_rwlock_rdlock(&hosts.rwlock);
    const HeldLock lock(hosts);
    std::vector<const Entry*> entries;
    for (const hashtable_entry* at = hosts.last; at; at = at->older)
        entries.push_back(static_cast<const Entry*>(at->value));
    std::sort(entries.begin(), entries.end(),
              [](const Entry* a, const Entry* b) { return a->host.name < b->host.name; });
    for (const Entry* entry : entries) add_entry(*answer, *entry, Detail::brief);
    return answer;
}

Document answer_show(hashtable& hosts, const std::string& name) {
    Document answer = hosts_answer();

    // With the read lock held, a report of the same host waits until its old entry is written out.
    const void* value = hashtable_get_rw_rl(&hosts, name.c_str());
    const HeldLock lock(hosts);
    if (!value) return error_answer("no-such-host", "no host is named " + name);
    add_entry(*answer, *static_cast<const Entry*>(value), Detail::full);
    return answer;
}

Document answer_to(Server& server, const xmldoc& request) {
    try {
        if (is_message(request, "report")) return answer_report(server, reported_host(request));
        if (is_message(request, "list")) return answer_list(*server.hosts);
        if (is_message(request, "show"))
            return answer_show(*server.hosts, text_of(request.root, "name", kMaxName));
        return error_answer("unknown-request", "requests are report, list and show");
    } catch (const Incomplete& problem) {
        return error_answer("incomplete", problem.what());
    }
}

// How many bytes of answers wait for a peer to take them, at most: the protocol drops what it has
// sent from the buffer only once that is half of what is there.
unsigned unsent(simple_xml_proto& protocol) {
    net_buffer& output = protocol.output_buffer;
    pthread_utils_mutex_lock(&output.mutex);
    const unsigned length = output.length;
    pthread_mutex_unlock(&output.mutex);
    return length;
}

// Queues the answer to a request. Returns what keeps the connection from going on, or null.
const char* answer_request(Connection& connection, const xmldoc& request) {
    if (unsent(*connection.protocol) > kMaxUnsent) return "the peer does not read its answers";
    try {
        const Document answer = answer_to(connection.server, request);
        const int result = simple_xml_proto_send(connection.protocol, answer.get());
        return result == 0 ? nullptr : "no memory for an answer";
    } catch (const std::bad_alloc&) {
        return "no memory for a request";
    }
}

// The protocol's callback, on a thread of the pool. No exception may pass through the library,
// which is C to us. A result other than 0 ends the connection and leaves the request's nodes to us.
int on_request(void* context, xmldoc* request) noexcept {
    Connection& connection = *static_cast<Connection*>(context);
    const char* trouble = answer_request(connection, *request);
    if (!trouble) return 0;

    logger_log(LOGGER_WARNING, kModule, __func__, "connection ended: %s", trouble);
    xmldoc_free(request, 0);
    shutdown(connection.socket.get(), SHUT_RDWR);
    return 1;
}

// --- connections ---------------------------------------------------------------------------------

Connection& add_connection(Server& server, Descriptor socket) {
    const std::lock_guard lock(server.mutex);
    server.connections.emplace_front(server, std::move(socket));
    server.connections.front().place = server.connections.begin();
    return server.connections.front();
}

// Closes the socket as well, under the lock: nobody shuts down a number that is another's by now.
void remove_connection(Connection& connection) {
    Server& server = connection.server;
    const std::lock_guard lock(server.mutex);
    server.connections.erase(connection.place);
    if (server.connections.empty()) server.none_left.notify_all();
}

// The node's release routine: called once, when nothing uses the connection any more.
void release_connection(void* user_pointer) {
    auto* protocol = static_cast<simple_xml_proto*>(user_pointer);
    auto& connection = *static_cast<Connection*>(protocol->user_context);
    simple_xml_proto_destroy(protocol);
    free(protocol);
    remove_connection(connection);
}

// Hands an accepted socket to the pool, which logs why if it cannot serve it.
void serve(Server& server, Descriptor socket) {
    Connection& connection = add_connection(server, std::move(socket));
    netthreadpool_node* node = netthreadpool_get_node(server.pool.get());
    connection.protocol =
        simple_xml_proto_create(node, &connection, connection.socket.get(), on_request);
    if (!connection.protocol) {
        if (node) netthreadpool_return_node(server.pool.get(), node);
        return remove_connection(connection);
    }
    node->release_routine = release_connection;

    // From here on the connection is the pool's, unless it never begins.
    if (netthreadpool_invite_read(node) != 0) {
        release_connection(connection.protocol);
        node->user_pointer = nullptr;
        netthreadpool_return_node(server.pool.get(), node);
    }
}

// Ends all connections and waits until they are released. Called when nobody accepts any more.
Server::~Server() {
    std::unique_lock lock(mutex);
    for (const Connection& connection : connections) shutdown(connection.socket.get(), SHUT_RDWR);
    none_left.wait(lock, [this] { return connections.empty(); });
}

// Takes what an earlier server kept, and keeps all that is reported from now on.
void Server::remember(const std::string& database_path) {
    for (const Host& host : database.emplace(database_path).take_hosts())
        put(*hosts, host, Clock::now() - std::chrono::seconds(host.age));
    logger_log(LOGGER_INFO, kModule, __func__, "%s: %u hosts", database_path.c_str(),
               static_cast<unsigned>(hosts->count));
}

// --- the main thread -----------------------------------------------------------------------------

struct Options {
    std::string bind = "127.0.0.1";
    uint16_t port = kDefaultPort;
    unsigned idle_seconds = 300;
    std::string database;  // empty: none
};

bool is_shortage(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}

// Accepts one connection, if one waits. False when there is no room for more at present: they wait
// in the listener's queue until somebody leaves.
bool accept_one(Server& server, const Descriptor& listener, unsigned idle_seconds) {
    {
        const std::lock_guard lock(server.mutex);
        if (server.connections.size() >= kMaxConnections) return false;
    }
    Descriptor accepted(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!accepted) return !is_shortage(errno);
    prepare(accepted, idle_seconds);
    try {
        serve(server, std::move(accepted));
    } catch (const std::bad_alloc&) {
        return false;
    }
    return true;
}

// Returns the signal that ended it.
int accept_until_stopped(Server& server, const Descriptor& listener, const Descriptor& signals,
                         unsigned idle_seconds) {
    for (bool room = true;;) {
        pollfd wait[] = {{signals.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}};
        poll(wait, room ? 2 : 1, room ? -1 : kPauseMs);

        signalfd_siginfo signal{};
        if (wait[0].revents && read(signals.get(), &signal, sizeof signal) == sizeof signal)
            return static_cast<int>(signal.ssi_signo);

        const bool had_room = room;
        room = accept_one(server, listener, idle_seconds);
        if (had_room && !room)
            logger_log(LOGGER_WARNING, kModule, __func__, "no room for a further connection");
    }
}

int run(const Options& options) {
    const Descriptor signals = stop_signals();
    const Descriptor listener = listen_on(options.bind, options.port);
    Server server(options.database);

    const std::string address = bound_address(listener);
    logger_log(LOGGER_INFO, kModule, __func__, "listening on %s", address.c_str());
    printf("listening on %s\n", address.c_str());
    fflush(stdout);

    const int signal = accept_until_stopped(server, listener, signals, options.idle_seconds);
    logger_log(LOGGER_INFO, kModule, __func__, "stopping: %s", strsignal(signal));
    return 0;
}

constexpr const char* kHelp = R"(Usage: inventory_server [OPTION]...
Keeps what hosts report about themselves, until SIGTERM or SIGINT. Prints the address that it
listens on once it does.

  --bind ADDRESS   numeric address to listen on (127.0.0.1). There is no authentication:
                   whoever can connect can report and ask.
  --port PORT      port to listen on (7420); 0 takes any free one
  --idle SECONDS   end a connection that is silent, or takes no answers, for so long (300)
  --database FILE  keep the hosts in this file over a restart; it is made if it is missing
  --verbose        log to standard error, too, not only to the system log
  --help           this text
)";

Options read_options(int argc, char** argv) {
    const option known[] = {
        {"bind", required_argument, nullptr, 'b'},
        {"port", required_argument, nullptr, 'p'},
        {"idle", required_argument, nullptr, 'i'},
        {"database", required_argument, nullptr, 'd'},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {},
    };
    Options options;
    for (int chosen; (chosen = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (chosen) {
            case 'b':
                options.bind = optarg;
                break;
            case 'p':
                options.port = number_argument("port", optarg, 0, UINT16_MAX);
                break;
            case 'i':
                options.idle_seconds = number_argument("idle", optarg, 1, 86400);
                break;
            case 'd':
                options.database = optarg;
                break;
            case 'v':
                logger_to_stderr = 1;
                break;
            case 'h':
                fputs(kHelp, stdout);
                exit(0);
            default:
                exit(kMisused);
        }
    }
    if (optind < argc) misused("unexpected argument '%s'", argv[optind]);
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    logger_syslog_name = kModule;
    const Options options = read_options(argc, argv);
    try {
        return run(options);
    } catch (const std::exception& failure) {
        return failed(failure);
    }
}
