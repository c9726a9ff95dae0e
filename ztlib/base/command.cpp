// Programs are started with posix_spawnp(), which copies neither the host's memory nor its page
// tables, however large the host is. A child has the host's environment, signal mask and standard
// streams, as one of popen() or system() has.

#include <ztlib/base/command.h>

#include <cerrno>

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zt {

namespace {

constexpr int kMissing = 127;  // a shell's exit statuses
constexpr int kNotRunnable = 126;

// Returns 0, or an error number with `child` untouched.
int start(Words words, const posix_spawn_file_actions_t* actions, pid_t& child) {
    // Neither the words nor the array is written to; the type is older than const.
    return posix_spawnp(&child, words[0], actions, nullptr, const_cast<char* const*>(words),
                        environ);
}

// Starts the program with `output` as its standard output. The child is -1 where that fails.
pid_t start_writing_to(int output, Words words) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return -1;
    pid_t child = -1;
    if (posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO) == 0)
        start(words, &actions, child);
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

// Starts the program; returns the end of a pipe that its output is read from, or -1.
int start_reading_from(Words words, pid_t& child) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return -1;
    Descriptor reading(ends[0]);
    const Descriptor writing(ends[1]);
    child = start_writing_to(writing.get(), words);
    return child < 0 ? -1 : reading.release();
}

// The child's wait status, or -1.
int wait_for(pid_t child) {
    int status;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return status;
}

// What a shell makes of a program that does not start.
int status_of_failed_start(int error) {
    switch (error) {
        case EAGAIN:
        case ENOMEM:
            errno = error;
            return -1;
        case ENOENT:
        case ENOTDIR:
        case ELOOP:
        case ENAMETOOLONG:
            return W_EXITCODE(kMissing, 0);
        default:
            return W_EXITCODE(kNotRunnable, 0);
    }
}

}  // namespace

int run_command(Words words) {
    pid_t child;
    const int error = start(words, nullptr, child);
    return error == 0 ? wait_for(child) : status_of_failed_start(error);
}

CommandOutput::CommandOutput(Words words)
    : output_(start_reading_from(words, child_)), lines_(output_.get()) {}

CommandOutput::~CommandOutput() {
    if (child_ < 0) return;
    char rest[1024];
    while (lines_.next(rest)) {
    }
    wait_for(child_);
}

}  // namespace zt
