// One libuv loop on one thread. An answer is tried at once and queued only for what the socket did
// not take.

#include "listener.h"
#include "peer_job.h"

#include <uv.h>

namespace {

struct Connection {
    uv_tcp_t stream;
    load::FrameReader reader;
};

struct PendingWrite {
    uv_write_t request;
    std::string bytes;
};

void expect(int result, const char* step) {
    if (result == 0) return;
    fprintf(stderr, "%s: %s\n", step, uv_strerror(result));
    exit(1);
}

void end(Connection* connection) {
    auto* handle = reinterpret_cast<uv_handle_t*>(&connection->stream);
    if (uv_is_closing(handle)) return;
    uv_close(handle, [](uv_handle_t* closed) { delete static_cast<Connection*>(closed->data); });
}

void write_rest(uv_stream_t* stream, std::string rest) {
    auto* pending = new PendingWrite{{}, std::move(rest)};
    pending->request.data = pending;
    const uv_buf_t buffer =
        uv_buf_init(pending->bytes.data(), static_cast<unsigned>(pending->bytes.size()));
    const auto done = [](uv_write_t* request, int) {
        delete static_cast<PendingWrite*>(request->data);
    };
    if (uv_write(&pending->request, stream, &buffer, 1, done) != 0) delete pending;
}

void send(uv_stream_t* stream, std::string& answers) {
    const uv_buf_t buffer = uv_buf_init(answers.data(), static_cast<unsigned>(answers.size()));
    const int result = uv_try_write(stream, &buffer, 1);
    const size_t sent = result > 0 ? static_cast<size_t>(result) : 0;
    if (sent < answers.size()) write_rest(stream, answers.substr(sent));
}

void offer_room(uv_handle_t* handle, size_t, uv_buf_t* buffer) {
    const std::span<char> room = static_cast<Connection*>(handle->data)->reader.room();
    *buffer = uv_buf_init(room.data(), static_cast<unsigned>(room.size()));
}

void on_read(uv_stream_t* stream, ssize_t count, const uv_buf_t*) {
    auto* connection = static_cast<Connection*>(stream->data);
    if (count < 0) return end(connection);
    connection->reader.received(static_cast<size_t>(count));

    static std::string answers;
    answers.clear();
    for (std::span<char> text; !(text = connection->reader.next()).empty();) {
        if (!load::append_answer(text, answers)) return end(connection);
    }
    if (!answers.empty()) send(stream, answers);
}

void on_connection(uv_stream_t* listener, int status) {
    expect(status, "listen");
    auto* connection = new Connection;
    expect(uv_tcp_init(listener->loop, &connection->stream), "uv_tcp_init");
    connection->stream.data = connection;
    auto* stream = reinterpret_cast<uv_stream_t*>(&connection->stream);
    expect(uv_accept(listener, stream), "uv_accept");
    expect(uv_tcp_nodelay(&connection->stream, 1), "uv_tcp_nodelay");
    expect(uv_read_start(stream, offer_room, on_read), "uv_read_start");
}

}  // namespace

int main() {
    uv_loop_t* loop = uv_default_loop();
    uv_tcp_t listener;
    expect(uv_tcp_init(loop, &listener), "uv_tcp_init");
    expect(uv_tcp_open(&listener, load::listen_and_announce()), "uv_tcp_open");
    expect(uv_listen(reinterpret_cast<uv_stream_t*>(&listener), load::kBacklog, on_connection),
           "uv_listen");
    return uv_run(loop, UV_RUN_DEFAULT);
}
