// The job as the peers do it: take a request off the wire, parse it with pugixml, build the answer
// as a document, write it, frame it. The request and the answer are described in load_client.cpp.
#ifndef ZTLIB_BENCH_LOAD_PEER_JOB_H
#define ZTLIB_BENCH_LOAD_PEER_JOB_H

#include <pugixml.hpp>

#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include <arpa/inet.h>

namespace load {

constexpr size_t kLengthBytes = 4;
constexpr size_t kMaxFrame = 4096;

inline uint32_t frame_length(const char* frame) {
    uint32_t length;
    memcpy(&length, frame, sizeof(length));
    return ntohl(length);
}

// The received bytes of one connection, cut into frames.
class FrameReader {
  public:
    // Where the next bytes go. Never empty unless a frame is longer than kMaxFrame.
    std::span<char> room() {
        memmove(bytes_, bytes_ + taken_, held_ - taken_);
        held_ -= taken_;
        taken_ = 0;
        return {bytes_ + held_, sizeof(bytes_) - held_};
    }

    void received(size_t count) { held_ += count; }

    // The text of the next whole frame, valid until room() is called; empty when there is none.
    std::span<char> next() {
        const size_t waiting = held_ - taken_;
        if (waiting < kLengthBytes) return {};
        const size_t length = frame_length(bytes_ + taken_);
        if (length < kLengthBytes || waiting < length) return {};
        char* frame = bytes_ + taken_;
        taken_ += length;
        return {frame + kLengthBytes, length - kLengthBytes};
    }

  private:
    char bytes_[kMaxFrame];
    size_t held_ = 0;
    size_t taken_ = 0;
};

class AppendingWriter : public pugi::xml_writer {
  public:
    explicit AppendingWriter(std::string& out) : out_(out) {}
    void write(const void* data, size_t size) override {
        out_.append(static_cast<const char*>(data), size);
    }

  private:
    std::string& out_;
};

inline void build_answer(const pugi::xml_node& request, pugi::xml_document& answer) {
    pugi::xml_node declaration = answer.append_child(pugi::node_declaration);
    declaration.append_attribute("version").set_value("1.0");
    declaration.append_attribute("encoding").set_value("UTF-8");

    pugi::xml_node root = answer.append_child("answer");
    root.append_attribute("id").set_value(request.attribute("id").value());
    root.append_attribute("kind").set_value(request.attribute("kind").value());
    root.append_child("status").text().set("done");
    for (const char* field : {"from", "to", "amount"}) {
        root.append_child(field).text().set(request.child_value(field));
    }
}

// Appends the framed answer to the request in `text`, which is parsed in place. False, and nothing
// appended, when it is no request.
inline bool append_answer(std::span<char> text, std::string& out) {
    pugi::xml_document request;
    if (!request.load_buffer_inplace(text.data(), text.size())) return false;
    const pugi::xml_node root = request.child("request");
    if (!root) return false;

    pugi::xml_document answer;
    build_answer(root, answer);

    const size_t start = out.size();
    out.append(kLengthBytes, '\0');
    AppendingWriter writer(out);
    answer.save(writer, "", pugi::format_raw, pugi::encoding_utf8);
    const uint32_t length = htonl(static_cast<uint32_t>(out.size() - start));
    memcpy(out.data() + start, &length, sizeof(length));
    return true;
}

}  // namespace load

#endif
