#include "output.h"

#include <ztlib/network/websocket.h>

#include <cerrno>
#include <new>
#include <stdexcept>

#include <sys/socket.h>

namespace dashboard {
namespace {

constexpr unsigned char kFinal = 0x80;
constexpr unsigned char kText = 1;
constexpr size_t kFrameHeader = 4;

}  // namespace

void Output::add_response(htmldoc& response) {
    const uint32_t before = bytes_.length;
    htmldoc_unwrap(&bytes_.data, &bytes_.capacity, &bytes_.length, &response, false);
    if (bytes_.length == before) throw std::bad_alloc();
}

void Output::add_message(std::string_view text) { add_frame(kFinal | kText, text); }

void Output::add_control(unsigned opcode, std::string_view data) {
    add_frame(static_cast<unsigned char>(kFinal | opcode), data);
}

// The library builds text frames. Another kind has another first byte and is the same behind it.
void Output::add_frame(unsigned char first_byte, std::string_view payload) {
    if (payload.size() > kMaxMessage) throw std::length_error("a message is too long");
    unsigned char frame[kMaxMessage + kFrameHeader];
    unsigned size = 0;
    websocket_unwrap(payload.data(), static_cast<int>(payload.size()), frame, &size);
    frame[0] = first_byte;
    if (!buffer_append(&bytes_.data, &bytes_.capacity, &bytes_.length, frame,
                       static_cast<int>(size)))
        throw std::bad_alloc();
}

bool Output::send_to(int socket) {
    size_t sent = 0;
    bool lost = false;
    while (sent < bytes_.length && !lost) {
        const ssize_t taken =
            send(socket, bytes_.data + sent, bytes_.length - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (taken >= 0) {
            sent += static_cast<size_t>(taken);
        } else if (errno != EINTR) {
            if (errno == EAGAIN) break;
            lost = true;
        }
    }
    if (sent > 0)
        buffer_remove(&bytes_.data, &bytes_.capacity, &bytes_.length, static_cast<int>(sent));
    return !lost;
}

}  // namespace dashboard
