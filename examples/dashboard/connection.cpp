#include "connection.h"

#include <ztlib/network/websocket.h>

#include "server.h"

#include <new>
#include <stdexcept>

#include <sys/socket.h>

namespace dashboard {
namespace {

using std::chrono::seconds;

constexpr size_t kMaxUnread = 16 * 1024;  // bytes between two turns
constexpr size_t kMaxRequest = 8 * 1024;  // bytes
constexpr seconds kRequestLimit{5};       // for a request to be complete
constexpr seconds kSendLimit{30};         // for a browser that reads nothing
constexpr seconds kCloseLimit{5};         // for a browser to close its end

// What a turn answers to the pool.
constexpr int32_t kClose = -1;
constexpr int32_t kDone = 0;
constexpr int32_t kAgain = 1;

// --- frames of a browser -------------------------------------------------------------------------

constexpr unsigned kCloseFrame = 8;
constexpr unsigned kPing = 9;
constexpr unsigned kPong = 10;

constexpr size_t kMaskedHeader = 6;
constexpr size_t kMaxShort = 125;  // bytes of payload with such a header

// Codes of a close frame.
constexpr unsigned kNormal = 1000;
constexpr unsigned kProtocolError = 1002;
constexpr unsigned kTooBig = 1009;
constexpr unsigned kInternalError = 1011;

}  // namespace

Connection::Connection(Server& server, uint64_t id, int socket)
    : server_(server),
      id_(id),
      node_(threadpool_node_create(this)),
      deadline_(Clock::now() + kRequestLimit) {
    if (!node_) throw std::bad_alloc();
    node_->fd = socket;
    node_->data_cb = on_data;
    node_->process_cb = on_turn;
    node_->remove_cb = on_removed;
}

bool Connection::expire(Clock::time_point now) {
    if (now <= deadline_.load()) return false;
    is_expired_ = true;
    return true;
}

// --- callbacks of the pool: no exception may pass through it -------------------------------------

int32_t Connection::on_data(void* connection, void* bytes, int32_t count) {
    try {
        static_cast<Connection*>(connection)
            ->take({static_cast<const char*>(bytes), static_cast<size_t>(count)});
        return count;
    } catch (const std::bad_alloc&) {
        return kClose;
    }
}

int32_t Connection::on_turn(void* connection) {
    try {
        return static_cast<Connection*>(connection)->turn();
    } catch (const std::exception&) {
        return kClose;
    }
}

// The pool closes the socket and frees the node when this returns.
void Connection::on_removed(void* connection) {
    auto* self = static_cast<Connection*>(connection);
    self->server_.forget(*self);
}

// --- input ---------------------------------------------------------------------------------------

void Connection::take(std::string_view bytes) {
    if (is_deaf_) return;
    const std::lock_guard lock(mutex_);
    if (unread_.size() + bytes.size() > kMaxUnread)
        overflown_ = true;
    else
        unread_ += bytes;
}

std::string Connection::received(bool& overflown) {
    std::string bytes;
    const std::lock_guard lock(mutex_);
    bytes.swap(unread_);
    overflown = overflown_;
    return bytes;
}

int32_t Connection::turn() {
    if (is_new_) {
        is_new_ = false;
        server_.wake_reader();
    }
    if (is_expired_) return kClose;

    bool overflown = false;
    const std::string bytes = received(overflown);
    if (state_ == State::asking && (overflown || request_size_ + bytes.size() > kMaxRequest))
        respond(refuse(Refusal::too_long));
    if (state_ == State::live && overflown) close_socket_with(kTooBig);

    if (state_ == State::asking && !bytes.empty())
        hear_request(bytes);
    else if (state_ == State::live)
        hear_frames(bytes);

    const bool more = state_ == State::live &&
                      feed_.fill(server_.board(), server_.settings(), Clock::now(), output_);
    return send_output(more);
}

// The document takes no zero byte, and would wait for the end of the lines behind one for ever.
void Connection::hear_request(const std::string& bytes) {
    if (!request_) request_ = make_http();
    request_size_ += bytes.size();
    const int result =
        bytes.find('\0') != bytes.npos
            ? -1
            : htmldoc_wrap(request_.get(), bytes.data(), static_cast<int>(bytes.size()));
    if (result > 0) return;
    if (result < 0) return respond(refuse(Refusal::malformed));

    Answer answer = answer_to(*request_, server_.is_local_only());
    if (!answer.is_live) return respond(std::move(answer.response));
    output_.add_response(*answer.response);
    request_.reset();
    state_ = State::live;
    is_live_ = true;
}

// The page says nothing but that it goes; other clients may ask whether somebody is there. So each
// frame is a short one, and masked as the protocol demands.
void Connection::hear_frames(const std::string& bytes) {
    frames_ += bytes;
    size_t heard = 0;
    while (state_ == State::live && frames_.size() - heard >= 2) {
        auto* frame = reinterpret_cast<unsigned char*>(frames_.data()) + heard;
        const size_t length = frame[1] & 0x7f;
        if (!(frame[1] & 0x80)) return close_socket_with(kProtocolError);
        if (length > kMaxShort) return close_socket_with(kTooBig);
        if (frames_.size() - heard < kMaskedHeader + length) break;
        hear_frame(frame, kMaskedHeader + length);
        heard += kMaskedHeader + length;
    }
    frames_.erase(0, heard);
}

void Connection::hear_frame(unsigned char* frame, size_t size) {
    const unsigned opcode = frame[0] & 0x0f;
    if (opcode == kCloseFrame) return close_socket_with(kNormal);
    if (opcode != kPing) return;

    char payload[kMaxShort + 1];
    unsigned length = 0, whole = 0;
    if (websocket_wrap(frame, static_cast<int>(size), payload, &length, &whole) != 0)
        return close_socket_with(kInternalError);
    // Who pings on without reading has no claim to every answer.
    if (output_.size() < kEnough) output_.add_control(kPong, {payload, length});
}

// --- output --------------------------------------------------------------------------------------

void Connection::respond(Http response) {
    output_.add_response(*response);
    request_.reset();
    state_ = State::ending;
    is_deaf_ = true;
}

void Connection::close_socket_with(unsigned code) {
    const char data[] = {static_cast<char>(code >> 8), static_cast<char>(code)};
    output_.add_control(kCloseFrame, {data, sizeof data});
    state_ = State::ending;
    is_live_ = false;
    is_deaf_ = true;
}

// Sends what the socket takes. What it does not take waits until the server's main thread sees that
// there is room. An ending connection is closed on this side alone at first: to close it all while
// bytes still come would tell the browser to forget the answer.
int32_t Connection::send_output(bool more) {
    const size_t waiting = output_.size();
    if (!output_.send_to(node_->fd)) return kClose;

    const bool was_stuck = is_stuck_;
    is_stuck_ = output_.size() > 0;
    if (is_stuck_) {
        if (!was_stuck || output_.size() < waiting) deadline_ = Clock::now() + kSendLimit;
        server_.watch_for_room(*this);
        return kDone;
    }
    if (state_ == State::ending && !is_half_closed_) {
        is_half_closed_ = true;
        shutdown(node_->fd, SHUT_WR);
        deadline_ = Clock::now() + kCloseLimit;
    }
    if (state_ == State::live) deadline_ = Clock::time_point::max();
    return more ? kAgain : kDone;
}

}  // namespace dashboard
