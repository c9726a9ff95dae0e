// Programs, the tree's own and others, as a test's peers: started, watched and ended by their
// process id.
#pragma once

#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zt_test {

using Strings = std::vector<std::string>;

inline std::string content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// Becomes the program, or ends with status 127.
[[noreturn]] inline void become(const Strings& command) {
    std::vector<char*> arguments;
    for (const std::string& argument : command)
        arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    execvp(arguments[0], arguments.data());
    _exit(127);
}

// A program that runs, its output in files, its input a pipe. Killed at the end of the scope if it
// still runs, and with the test itself.
class Program {
  public:
    // `prepare` is called by the new process before it becomes the program.
    explicit Program(const Strings& command, const std::function<void()>& prepare = {}) {
        int input[2];
        if (pipe2(input, O_CLOEXEC) != 0) abort();
        const std::string out = files_ / "out", err = files_ / "err";
        pid_ = fork();
        if (pid_ == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(input[0], STDIN_FILENO);
            dup2(open(out.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600), STDOUT_FILENO);
            dup2(open(err.c_str(), O_CREAT | O_WRONLY | O_APPEND, 0600), STDERR_FILENO);
            if (prepare) prepare();
            become(command);
        }
        close(input[0]);
        input_ = input[1];
    }
    ~Program() {
        close(input_);
        if (pid_ < 0) return;
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    std::string out() const { return content_of(files_ / "out"); }
    std::string err() const { return content_of(files_ / "err"); }
    void write(const std::string& text) const {
        if (::write(input_, text.data(), text.size()) < 0) abort();
    }

    void signal(int number) const { kill(pid_, number); }
    pid_t pid() const { return pid_; }

    // Its exit status; -1 when it does not end, or ends by a signal.
    int wait() {
        int status = 0;
        if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; },
                        std::chrono::seconds(60)))
            return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    ScratchDirectory files_;
    int input_ = -1;
    pid_t pid_ = -1;
};

struct Result {
    int status;
    std::string out;
    std::string err;
};

// Runs a program to its end.
inline Result run(const Strings& command, const std::function<void()>& prepare = {}) {
    Program program(command, prepare);
    const int status = program.wait();
    return {status, program.out(), program.err()};
}

// True when the shell finds this program.
inline bool is_installed(const std::string& program) {
    return Program({"sh", "-c", "command -v " + program}).wait() == 0;
}

}  // namespace zt_test
