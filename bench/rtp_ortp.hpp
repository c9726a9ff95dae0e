// oRTP's packet functions, behind a door of their own: its headers and the library's declare
// functions and records of the same names.
#pragma once

#include <cstddef>
#include <cstdint>

namespace zt_bench {

// A message that holds the packet, with its payload, sequence number and timestamp. It is made and
// released here; `out`, unless null, gets its bytes first.
void ortp_build(const uint8_t* payload, size_t size, uint8_t* out);

// A message around `packet`, which has room for header and payload.
void ortp_build_in_place(const uint8_t* payload, size_t size, uint8_t* packet);

// A message with the packet's bytes, and its payload copied to `out`. Returns the payload's size.
size_t ortp_read(const uint8_t* packet, size_t size, uint8_t* out);

// The same with a message around the packet.
size_t ortp_read_in_place(uint8_t* packet, size_t size, uint8_t* out);

// The payload alone, of a message that was there before.
class OrtpMessage {
  public:
    OrtpMessage(const uint8_t* packet, size_t size);
    ~OrtpMessage();
    OrtpMessage(const OrtpMessage&) = delete;
    OrtpMessage& operator=(const OrtpMessage&) = delete;
    size_t read(uint8_t* out) const;

  private:
    void* message_;
};

}  // namespace zt_bench
