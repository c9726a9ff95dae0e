// Text from a descriptor, a line at a time.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstring>

#include <unistd.h>

namespace zt {

// Reads ahead in blocks of its own: nobody else reads from the descriptor meanwhile.
class Lines {
  public:
    explicit Lines(int descriptor) : descriptor_(descriptor) {}

    // The next line as fgets() gives it: terminated, its line feed kept, and a line that does not
    // fit comes in pieces. False when there is none left or reading failed.
    template <size_t Size>
    bool next(char (&line)[Size]) {
        size_t length = 0;
        bool complete = false;
        while (!complete && length < Size - 1 && fill()) {
            const size_t room = Size - 1 - length;
            const size_t count = at_most(room, complete);
            memcpy(line + length, block_ + at_, count);
            at_ += count;
            length += count;
        }
        line[length] = '\0';
        return length > 0;
    }

  private:
    // True when there is something to take from the block.
    bool fill() {
        if (at_ < end_) return true;
        if (descriptor_ < 0) return false;
        ssize_t count;
        do count = read(descriptor_, block_, sizeof block_);
        while (count < 0 && errno == EINTR);
        if (count <= 0) return false;
        at_ = 0;
        end_ = static_cast<size_t>(count);
        return true;
    }

    // How much of the block belongs to a line that has room for `room` more.
    size_t at_most(size_t room, bool& complete) const {
        const size_t count = end_ - at_ < room ? end_ - at_ : room;
        const void* feed = memchr(block_ + at_, '\n', count);
        complete = feed;
        return feed ? static_cast<size_t>(static_cast<const char*>(feed) - (block_ + at_)) + 1
                    : count;
    }

    int descriptor_;
    size_t at_ = 0, end_ = 0;  // what is left of the block
    char block_[4096];
};

// Ends the text at the last `character`, if there is one.
inline void cut_at_last(char* text, char character) {
    if (char* last = strrchr(text, character)) *last = '\0';
}

}  // namespace zt
