// A connection's bytes go from the read thread to whichever thread answers through one string under
// one mutex; all else belongs to the answering thread alone. That is the process thread, or, where
// the server answers on the read thread, the read thread until output gets stuck: from then on it
// is the process thread, until everything is sent and nothing has come in meanwhile.
//
// A request is cut out of the bytes before the document sees it, because a document takes all that
// it is fed: its header block first, then as much body as Content-Length says. What follows is the
// next request's.

#include <tests/support/http_server.h>

#include <ztlib/htmldoc/htmldoc.h>
#include <ztlib/sptrlist/sptrlist.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

namespace zt_test {

namespace {

using std::string_view;
using namespace std::string_view_literals;

constexpr string_view kHeaderEnd = "\r\n\r\n";
constexpr size_t kMaxHeader = 64 * 1024;
constexpr size_t kMaxBody = 4 << 20;
constexpr size_t kMaxBacklog = 2 * kMaxBody;   // received and not looked at
constexpr unsigned kMaxUnsent = 64 * 1024;     // answers that are collected before they are sent
constexpr size_t kMaxCount = 64 << 20;         // of /bytes
constexpr int kSendPatienceMilliseconds = 10;  // of one turn, for a peer that does not read
constexpr size_t kHomeBytes = 1024;

// What a document's status line wants: a code and a reason.
struct Status {
    uint16_t code;
    const char* reason;
};
constexpr Status kOk{200, "OK"};
constexpr Status kBadRequest{400, "Bad Request"};
constexpr Status kNotFound{404, "Not Found"};
constexpr Status kBodyTooLarge{413, "Content Too Large"};
constexpr Status kHeaderTooLarge{431, "Request Header Fields Too Large"};
constexpr Status kNotImplemented{501, "Not Implemented"};

bool same_word(const char* a, const char* b) { return strcasecmp(a, b) == 0; }

// The first header line of that name, in whatever case the client writes it.
htmldoc_option* header(htmldoc& document, const char* name) {
    htmldoc_option* at = document.options;
    while (at && !same_word(at->name, name)) at = at->next;
    return at;
}

bool header_is(htmldoc& document, const char* name, const char* value) {
    const htmldoc_option* line = header(document, name);
    return line && same_word(line->value, value);
}

// False unless the text is one number and nothing else.
bool read_number(const char* text, size_t& number) {
    const char* end = text + strlen(text);
    const auto result = std::from_chars(text, end, number);
    return result.ec == std::errc() && result.ptr == end;
}

}  // namespace

std::string http_bytes(size_t count) {
    std::string text(count, '\0');
    for (size_t i = 0; i < count; ++i) text[i] = static_cast<char>('a' + (i + i / 997) % 26);
    return text;
}

// --- a connection ---

class HttpServer::Connection {
  public:
    Connection(HttpServer& server, int fd) : server_(server), fd_(fd) { htmldoc_init(&request_); }
    ~Connection() {
        htmldoc_free(&request_, 0);
        buffer_free(&out_, 0);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // False when memory is out.
    bool make_node();
    // For a connection that the pool does not hold.
    void destroy_node() { threadpool_node_destroy(node_); }
    threadpool_node* node() const { return node_; }

    std::list<Connection>::iterator place;  // in the server's list

  private:
    enum class Sent { all, part, failed };

    static Connection& of(void* user) { return *static_cast<Connection*>(user); }

    // Callbacks of the node.
    int32_t read_and_answer(void* bytes, int32_t size);
    int32_t keep(const void* bytes, int32_t count);
    int32_t take_turn();
    void remove();

    // Steps of the answering thread. A turn's result is a process_cb's.
    int32_t answer_all(bool patiently);
    void take_received();
    bool has_request();
    bool has_header();
    Status judge_header();
    void take_body();
    void answer_request();
    void refuse(Status status);
    void render(Status status, string_view body, bool with_body);
    Sent send_answers(bool patiently);
    int32_t end();

    string_view pending() const { return string_view(input_).substr(taken_); }

    HttpServer& server_;
    const int fd_;
    threadpool_node* node_ = nullptr;

    std::mutex mutex_;  // guards the two below
    std::string received_;
    bool handed_over_ = false;  // the process thread answers

    std::atomic<bool> lingering_{false};  // all is said: what still comes is dropped

    std::string input_;
    size_t taken_ = 0;     // of input_
    size_t searched_ = 0;  // of pending(), for the header's end
    htmldoc request_{};
    size_t body_bytes_ = 0;
    buffer out_{};
    unsigned sent_ = 0;  // of out_
    bool last_ = false;  // no request follows
    bool refused_ = false;
};

bool HttpServer::Connection::make_node() {
    node_ = threadpool_node_create(this);
    if (!node_) return false;
    node_->fd = fd_;
    if (server_.answers_ == Answers::on_read_thread) {
        node_->read_cb = [](void* user, void* buffer, int32_t size) {
            return of(user).read_and_answer(buffer, size);
        };
    } else {
        handed_over_ = true;
        node_->data_cb = [](void* user, void* bytes, int32_t count) {
            return of(user).keep(bytes, count);
        };
    }
    node_->process_cb = [](void* user) { return of(user).take_turn(); };
    node_->remove_cb = [](void* user) { of(user).remove(); };
    return true;
}

int32_t HttpServer::Connection::read_and_answer(void* bytes, int32_t size) {
    const auto count =
        static_cast<int32_t>(recv(fd_, bytes, static_cast<size_t>(size), MSG_DONTWAIT));
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return 0;
    if (count <= 0 || keep(bytes, count) < 0) return -1;
    {
        const std::lock_guard lock(mutex_);
        if (handed_over_) return 0;
    }
    const int32_t result = answer_all(false);
    if (result > 0) {
        const std::lock_guard lock(mutex_);
        handed_over_ = true;
    }
    return result;
}

int32_t HttpServer::Connection::keep(const void* bytes, int32_t count) {
    if (lingering_) return 0;
    const std::lock_guard lock(mutex_);
    received_.append(static_cast<const char*>(bytes), static_cast<size_t>(count));
    return received_.size() > kMaxBacklog ? -1 : 1;
}

int32_t HttpServer::Connection::take_turn() {
    {
        const std::lock_guard lock(mutex_);
        if (!handed_over_) return 0;
    }
    const int32_t result = answer_all(true);
    if (result != 0 || server_.answers_ == Answers::on_process_thread) return result;

    const std::lock_guard lock(mutex_);
    if (!received_.empty()) return 1;
    handed_over_ = false;
    return 0;
}

void HttpServer::Connection::remove() { server_.forget(*this); }

int32_t HttpServer::Connection::answer_all(bool patiently) {
    take_received();
    for (;;) {
        while (!last_ && out_.length < kMaxUnsent && has_request()) answer_request();
        if (out_.length == 0) return 0;
        switch (send_answers(patiently)) {
            case Sent::part:
                return 1;
            case Sent::failed:
                return -1;
            case Sent::all:
                break;
        }
        if (last_) return end();
    }
}

void HttpServer::Connection::take_received() {
    input_.erase(0, taken_);
    taken_ = 0;
    const std::lock_guard lock(mutex_);
    if (input_.empty())
        input_.swap(received_);
    else
        input_ += received_;
    received_.clear();
}

// True once a whole request is in request_. A request that is refused is answered here.
bool HttpServer::Connection::has_request() {
    if (!request_.header_ok) {
        if (!has_header()) return false;
        const Status status = judge_header();
        if (status.code != kOk.code) {
            refuse(status);
            return false;
        }
    }
    take_body();
    return request_.body_ok;
}

// True once the header block is in request_.
bool HttpServer::Connection::has_header() {
    const size_t end = pending().find(kHeaderEnd, searched_);
    const size_t size = std::min(end, pending().size());
    if (size > kMaxHeader) {
        refuse(kHeaderTooLarge);
        return false;
    }
    if (end == string_view::npos) {
        searched_ = size - std::min(size, kHeaderEnd.size() - 1);
        return false;
    }
    const size_t block = end + kHeaderEnd.size();
    if (htmldoc_wrap(&request_, pending().data(), static_cast<int>(block)) < 0 ||
        !request_.header_ok) {
        refuse(kBadRequest);
        return false;
    }
    taken_ += block;
    searched_ = 0;
    return true;
}

// kOk, or why the request is refused. Afterwards the document waits for body_bytes_ of body.
Status HttpServer::Connection::judge_header() {
    if (request_.protocol != "HTTP/1.1"sv && request_.protocol != "HTTP/1.0"sv) return kBadRequest;
    if (header(request_, "Transfer-Encoding")) return kNotImplemented;

    body_bytes_ = 0;
    if (htmldoc_option* length = header(request_, "Content-Length")) {
        for (htmldoc_option* at = length->next; at; at = at->next)
            if (same_word(at->name, length->name)) return kBadRequest;
        if (!read_number(length->value, body_bytes_)) return kBadRequest;
        // The document knows the name in this spelling only.
        strcpy(length->name, "Content-Length");
    }
    request_.body_ok = body_bytes_ == 0;
    if (body_bytes_ > kMaxBody) return kBodyTooLarge;

    if (!request_.body_ok && header_is(request_, "Expect", "100-continue")) {
        constexpr string_view go_on = "HTTP/1.1 100 Continue\r\n\r\n";
        buffer_append(&out_.data, &out_.capacity, &out_.length, go_on.data(),
                      static_cast<int>(go_on.size()));
    }
    return kOk;
}

void HttpServer::Connection::take_body() {
    if (request_.body_ok) return;
    const size_t count = std::min(pending().size(), body_bytes_ - request_.body.length);
    htmldoc_wrap(&request_, pending().data(), static_cast<int>(count));
    taken_ += count;
}

void HttpServer::Connection::answer_request() {
    last_ = request_.protocol == "HTTP/1.0"sv ? !header_is(request_, "Connection", "keep-alive")
                                              : header_is(request_, "Connection", "close");
    static const std::string home = http_bytes(kHomeBytes);
    const string_view method = request_.method;
    const string_view url = request_.url;
    const bool gets = method == "GET" || method == "HEAD";
    const char* count_text = htmldoc_getvalue_option(&request_.get_params, "count");
    size_t count = 0;
    if (gets && url == "/")
        render(kOk, home, method == "GET");
    else if (gets && url == "/bytes" && count_text && read_number(count_text, count) &&
             count <= kMaxCount)
        render(kOk, http_bytes(count), method == "GET");
    else if (method == "POST" && url == "/echo")
        render(kOk, {request_.body.length ? request_.body.data : "", request_.body.length}, true);
    else
        render(kNotFound, "not here\n", method != "HEAD");

    htmldoc_free(&request_, 0);
    htmldoc_init(&request_);
}

void HttpServer::Connection::refuse(Status status) {
    last_ = refused_ = true;
    render(status, "", true);
}

void HttpServer::Connection::render(Status status, string_view body, bool with_body) {
    htmldoc answer;
    htmldoc_init(&answer);
    strcpy(answer.method, "HTTP/1.1");
    answer.url_length = status.code;
    strcpy(answer.protocol, status.reason);
    htmldoc_add_option(&answer.options, "Content-Type", "text/plain");
    htmldoc_add_option(&answer.options, "Content-Length", std::to_string(body.size()).c_str());
    if (last_)
        htmldoc_add_option(&answer.options, "Connection", "close");
    else if (request_.protocol == "HTTP/1.0"sv)
        htmldoc_add_option(&answer.options, "Connection", "keep-alive");
    if (with_body) htmldoc_body_append(&answer, body.data(), static_cast<int>(body.size()));
    htmldoc_unwrap(&out_.data, &out_.capacity, &out_.length, &answer, false);
    htmldoc_free(&answer, 0);
}

// Patiently: a socket that takes nothing more is given a moment.
HttpServer::Connection::Sent HttpServer::Connection::send_answers(bool patiently) {
    while (sent_ < out_.length) {
        const ssize_t count =
            send(fd_, out_.data + sent_, out_.length - sent_, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent_ += static_cast<unsigned>(count);
        } else if (errno == EAGAIN) {
            pollfd writable{fd_, POLLOUT, 0};
            if (!patiently || poll(&writable, 1, kSendPatienceMilliseconds) == 0) return Sent::part;
        } else if (errno != EINTR) {
            return Sent::failed;
        }
    }
    buffer_remove(&out_.data, &out_.capacity, &out_.length, static_cast<int>(out_.length));
    sent_ = 0;
    return Sent::all;
}

// Closing with bytes unread would reset the connection, perhaps before the peer has read why it was
// refused. So its end is announced, and the peer closes.
int32_t HttpServer::Connection::end() {
    if (!refused_) return -1;
    lingering_ = true;
    shutdown(fd_, SHUT_WR);
    return 0;
}

// --- the server ---

HttpServer::HttpServer(uint16_t port, int32_t workers, Answers answers)
    : answers_(answers), pool_(threadpool_create(workers)) {
    if (pool_ && threadpool_start(pool_) == 0)
        listener_ = socket_listener_open("127.0.0.1", port, accept, this);
    if (!listener_) abort();
}

HttpServer::~HttpServer() {
    socket_listener_close(listener_);
    socket_listener_wait(listener_);

    std::vector<threadpool_thread*> workers;
    for (int32_t i = 1; i <= pool_->count; ++i)
        workers.push_back(static_cast<threadpool_thread*>(pool_->threads[i]));
    threadpool_destroy(pool_);
    for (threadpool_thread* worker : workers) {
        sptrlist_free(worker->nodes);
        sem_destroy(&worker->wake);
        pthread_mutex_destroy(&worker->mutex);
        free(worker);
    }
    // Adopted or not, all nodes are ours again.
    for (Connection& connection : connections_) connection.destroy_node();
}

void HttpServer::accept(void* user_data, int fd, sockaddr*, unsigned) {
    HttpServer& server = *static_cast<HttpServer*>(user_data);
    if (fd >= FD_SETSIZE) {  // the pool would refuse it; as it is, every remove_cb is a removal
        close(fd);
        return;
    }
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ++server.accepted_;

    Connection* connection;
    {
        const std::lock_guard lock(server.mutex_);
        connection = &server.connections_.emplace_front(server, fd);
        connection->place = server.connections_.begin();
    }
    if (!connection->make_node()) {
        close(fd);
        server.forget(*connection);
    } else if (threadpool_entry(server.pool_, connection->node()) != 0) {
        connection->destroy_node();
        server.forget(*connection);
    }
}

void HttpServer::forget(Connection& connection) {
    const std::lock_guard lock(mutex_);
    connections_.erase(connection.place);
    ++removed_;
}

}  // namespace zt_test
