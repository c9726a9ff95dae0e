// Running programs directly: no shell reads the words, so nothing in them means anything to one.
#pragma once

#include <ztlib/base/descriptor.h>
#include <ztlib/base/lines.h>

#include <cstddef>

#include <sys/types.h>

namespace zt {

// A program's name, looked for along PATH, and its arguments, ended by null.
using Words = const char* const*;

// Runs the program and waits for its end. Returns what system() would: a wait status, of exit 127
// where the program is missing and of exit 126 where it cannot be run; -1, with errno set, when no
// process could be made or waited for. SIGCHLD does not reach this thread meanwhile.
int run_command(Words words);

// What a program writes to its standard output, a line at a time. A program that could not be
// started wrote nothing.
class CommandOutput {
  public:
    explicit CommandOutput(Words words);
    // The program has ended when this returns.
    ~CommandOutput();
    CommandOutput(const CommandOutput&) = delete;
    CommandOutput& operator=(const CommandOutput&) = delete;

    // As Lines::next().
    template <size_t Size>
    bool next_line(char (&line)[Size]) {
        return lines_.next(line);
    }

  private:
    pid_t child_ = -1;  // one that may still be writing
    Descriptor output_;
    Lines lines_;
};

}  // namespace zt
