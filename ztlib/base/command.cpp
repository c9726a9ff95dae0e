// Programs are started with posix_spawnp(), which copies neither the host's memory nor its page
// tables, however large the host is. A child has the host's environment, signal mask and standard
// streams, as one of popen() or system() has.
//
// Output goes to a file in memory and is read when the program has ended: it wakes the host up
// once, where a pipe does so for what is written, for its end and for the program's end. A pipe is
// for a host that may make no such file or whose files are limited in size, because the limit is
// the program's too and ends it.

#include <ztlib/base/command.h>

#include <cerrno>
#include <csignal>

#include <fcntl.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zt {

namespace {

constexpr int kMissing = 127;  // a shell's exit statuses
constexpr int kNotRunnable = 126;

// Keeps SIGCHLD from this thread until the end of the scope, as system() does: a handler that waits
// for any child would take the program's status away.
class NoChildSignals {
  public:
    NoChildSignals() {
        sigset_t blocked;
        sigemptyset(&blocked);
        sigaddset(&blocked, SIGCHLD);
        pthread_sigmask(SIG_BLOCK, &blocked, &before_);
    }
    ~NoChildSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    NoChildSignals(const NoChildSignals&) = delete;
    NoChildSignals& operator=(const NoChildSignals&) = delete;

    // The signals that were blocked before.
    const sigset_t& before() const { return before_; }

  private:
    sigset_t before_;
};

// Returns 0, or an error number.
int start(Words words, const posix_spawn_file_actions_t* actions,
          const posix_spawnattr_t* attributes, pid_t& child) {
    // Neither the words nor the array is written to; the type is older than const.
    return posix_spawnp(&child, words[0], actions, attributes, const_cast<char* const*>(words),
                        environ);
}

// Starts the program with these signals blocked, whatever this thread blocks. Returns 0, or an
// error number.
int start_blocking(const sigset_t& signals, Words words, pid_t& child) {
    posix_spawnattr_t attributes;
    int error = posix_spawnattr_init(&attributes);
    if (error != 0) return error;
    error = posix_spawnattr_setsigmask(&attributes, &signals);
    if (error == 0) error = posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);
    if (error == 0) error = start(words, nullptr, &attributes, child);
    posix_spawnattr_destroy(&attributes);
    return error;
}

// Starts the program with `output` as its standard output. The child is -1 where that fails.
pid_t start_writing_to(int output, Words words) {
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) return -1;
    pid_t child;
    if (posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO) != 0 ||
        start(words, &actions, nullptr, child) != 0)
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

bool files_are_limited() {
    rlimit limit;
    return getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY;
}

// Runs the program to its end. Returns the file, which it wrote to, at its start; or -1.
int output_in(Descriptor& file, Words words) {
    const pid_t child = start_writing_to(file.get(), words);
    if (child < 0) return -1;
    wait_for(child);
    return lseek(file.get(), 0, SEEK_SET) == 0 ? file.release() : -1;
}

// Starts the program. Returns the end of a pipe that it writes to; or -1.
int output_through_pipe(Words words, pid_t& child) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return -1;
    Descriptor from(ends[0]);
    const Descriptor to(ends[1]);
    child = start_writing_to(to.get(), words);
    return child >= 0 ? from.release() : -1;
}

// Returns what the program's output is read from, or -1. The child is one that may still run.
int output_of(Words words, pid_t& child) {
    if (!files_are_limited())
        if (Descriptor file(memfd_create("output", MFD_CLOEXEC)); file)
            return output_in(file, words);
    return output_through_pipe(words, child);
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
    const NoChildSignals blocked;
    pid_t child;
    const int error = start_blocking(blocked.before(), words, child);
    return error == 0 ? wait_for(child) : status_of_failed_start(error);
}

CommandOutput::CommandOutput(Words words)
    : output_(output_of(words, child_)), lines_(output_.get()) {}

CommandOutput::~CommandOutput() {
    if (child_ < 0) return;
    char rest[512];
    while (lines_.next(rest)) continue;
    // Nobody reads any more: a program that writes on ends, and is not waited for in vain.
    close(output_.release());
    wait_for(child_);
}

}  // namespace zt
