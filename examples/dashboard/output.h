// What waits to be sent to a browser.
#pragma once

#include <ztlib/buffers/buffer.h>
#include <ztlib/htmldoc/htmldoc.h>

#include <cstddef>
#include <string_view>

namespace dashboard {

// The longest text of one WebSocket message: beyond it the library announces another length than
// the true one.
constexpr size_t kMaxMessage = 255;

class Output {
  public:
    Output() = default;
    ~Output() { buffer_free(&bytes_, 0); }
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Each of these throws std::bad_alloc, and has then added nothing.
    void add_response(htmldoc& response);
    void add_message(std::string_view text);                   // at most kMaxMessage bytes
    void add_control(unsigned opcode, std::string_view data);  // at most 125

    size_t size() const { return bytes_.length; }

    // Sends as much as the socket takes without blocking. False when the connection is lost.
    bool send_to(int socket);

  private:
    void add_frame(unsigned char first_byte, std::string_view payload);

    buffer bytes_{};
};

}  // namespace dashboard
