// The plainest server there is: a thread for each connection, blocked in recv until a request
// comes, which parses it, answers with one send and blocks again.

#include "listener.h"
#include "peer_job.h"

#include <thread>

#include <unistd.h>

namespace {

bool send_all(int socket, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t result = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (result <= 0) return false;
        sent += static_cast<size_t>(result);
    }
    return true;
}

// Answers every whole request that has come. False when the connection cannot go on.
bool answer(int socket, load::FrameReader& reader, std::string& answers) {
    answers.clear();
    for (std::span<char> text; !(text = reader.next()).empty();) {
        if (!load::append_answer(text, answers)) return false;
    }
    return send_all(socket, answers);
}

void serve(int socket) {
    load::FrameReader reader;
    std::string answers;
    for (;;) {
        const std::span<char> room = reader.room();
        const ssize_t count = recv(socket, room.data(), room.size(), 0);
        if (count <= 0) break;
        reader.received(static_cast<size_t>(count));
        if (!answer(socket, reader, answers)) break;
    }
    close(socket);
}

}  // namespace

int main() {
    const int listener = load::listen_and_announce();
    for (;;) std::thread(serve, load::accept_client(listener)).detach();
}
