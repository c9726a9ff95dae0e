// Programs are started with posix_spawnp(), which copies neither the host's memory nor its page
// tables, however large the host is. A child has the host's environment, signal mask and standard
// streams, as one of popen() or system() has.
//
// Output goes to a file in memory and is read when the program has ended: it wakes the host up
// once, where a pipe does so for what is written, for its end and for the program's end.

#include <ztlib/base/command.h>

#include <cerrno>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zt {

namespace {

constexpr int kMissing = 127;  // a shell's exit statuses
constexpr int kNotRunnable = 126;

// Returns 0, or an error number.
int start(Words words, const posix_spawn_file_actions_t* actions, pid_t& child) {
    // Neither the words nor the array is written to; the type is older than const.
    return posix_spawnp(&child, words[0], actions, nullptr, const_cast<char* const*>(words),
                        environ);
}

// Starts the program with `output` as its standard output. The child is -1 where that fails.
pid_t start_writing_to(int output, Words words) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return -1;
    pid_t child;
    if (posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO) != 0 ||
        start(words, &actions, child) != 0)
        child = -1;
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

// The child's wait status, or -1.
int wait_for(pid_t child) {
    int status;
    while (waitpid(child, &status, 0) < 0)
        if (errno != EINTR) return -1;
    return status;
}

// Runs the program to its end; returns a file of what it wrote, to be read from its start, or -1.
int output_of(Words words) {
    Descriptor file(memfd_create("output", MFD_CLOEXEC));
    if (!file) return -1;
    const pid_t child = start_writing_to(file.get(), words);
    if (child < 0) return -1;
    wait_for(child);
    return lseek(file.get(), 0, SEEK_SET) == 0 ? file.release() : -1;
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

CommandOutput::CommandOutput(Words words) : output_(output_of(words)), lines_(output_.get()) {}

}  // namespace zt
