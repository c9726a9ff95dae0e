// One libevent loop on one thread, a bufferevent for each connection.

#include "listener.h"
#include "peer_job.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>

#include <unistd.h>

namespace {

// The text of the next whole frame in `input`, in one piece; empty when there is none.
std::span<char> next_text(evbuffer* input, size_t& length) {
    char prefix[load::kLengthBytes];
    if (evbuffer_copyout(input, prefix, sizeof(prefix)) < ssize_t{sizeof(prefix)}) return {};
    length = load::frame_length(prefix);
    if (length <= sizeof(prefix) || evbuffer_get_length(input) < length) return {};
    auto* frame = reinterpret_cast<char*>(evbuffer_pullup(input, static_cast<ssize_t>(length)));
    return {frame + sizeof(prefix), length - sizeof(prefix)};
}

void on_read(bufferevent* connection, void*) {
    evbuffer* input = bufferevent_get_input(connection);
    static std::string answers;
    answers.clear();
    size_t length = 0;
    for (std::span<char> text; !(text = next_text(input, length)).empty();) {
        if (!load::append_answer(text, answers)) return bufferevent_free(connection);
        evbuffer_drain(input, length);
    }
    if (!answers.empty()) bufferevent_write(connection, answers.data(), answers.size());
}

void on_event(bufferevent* connection, short what, void*) {
    if (what & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) bufferevent_free(connection);
}

void on_connection(evconnlistener* listener, evutil_socket_t socket, sockaddr*, int, void*) {
    load::send_without_delay(socket);
    bufferevent* connection =
        bufferevent_socket_new(evconnlistener_get_base(listener), socket, BEV_OPT_CLOSE_ON_FREE);
    if (!connection) {
        close(socket);
        return;
    }
    bufferevent_setcb(connection, on_read, nullptr, on_event, nullptr);
    bufferevent_enable(connection, EV_READ | EV_WRITE);
}

}  // namespace

int main() {
    const int socket = load::listen_and_announce();
    evutil_make_socket_nonblocking(socket);
    event_base* base = event_base_new();
    if (!base || !evconnlistener_new(base, on_connection, nullptr, 0, 0, socket)) {
        load::give_up("event_base_new");
    }
    return event_base_dispatch(base);
}
