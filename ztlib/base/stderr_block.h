// Many small pieces for standard error, which has no buffer of its own, in few writes.
#pragma once

#include <ztlib/base/text.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <string_view>

namespace zt {

// Collects pieces and writes them a block at a time, the last at the end of the scope.
class StderrBlock {
  public:
    StderrBlock() = default;
    ~StderrBlock() { flush(); }
    StderrBlock(const StderrBlock&) = delete;
    StderrBlock& operator=(const StderrBlock&) = delete;

    // A piece has at most kPiece bytes.
    __attribute__((format(printf, 2, 3))) void print(const char* format, ...) {
        if (used_ + kPiece > sizeof block_) flush();
        va_list arguments;
        va_start(arguments, format);
        const int printed = vsnprintf(block_ + used_, kPiece, format, arguments);
        va_end(arguments);
        if (printed > 0) used_ += static_cast<size_t>(printed) < kPiece ? printed : kPiece - 1;
    }

    // A line, given in parts, has at most kLine bytes and is not torn apart.
    void add_line(std::initializer_list<std::string_view> parts) {
        if (used_ + kLine > sizeof block_) flush();
        const size_t end = used_ + kLine;
        for (const std::string_view part : parts) {
            const std::string_view fitting = front(part, end - used_);
            memcpy(block_ + used_, fitting.data(), fitting.size());
            used_ += fitting.size();
        }
    }

    // Writes what was collected; to be called before anything is written past this block.
    void flush() {
        fwrite(block_, 1, used_, stderr);
        used_ = 0;
    }

  private:
    static constexpr size_t kPiece = 16;
    static constexpr size_t kLine = 128;

    char block_[1024];
    size_t used_ = 0;
};

}  // namespace zt
