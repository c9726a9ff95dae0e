// The other process of a channel, forked from the test.
#pragma once

#include <tests/support/process.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zt_test {

// True while the process's main thread, or this thread of the own process, sleeps in a call.
inline bool is_asleep(pid_t id) {
    std::ifstream file("/proc/" + std::to_string(id) + "/stat");
    std::string line;
    std::getline(file, line);
    const size_t name_end = line.rfind(')');
    return name_end != std::string::npos && line.compare(name_end, 3, ") S") == 0;
}

// Runs `work`, whose result is its exit status. Killed at the end of the scope if it still runs,
// and with the test itself.
class Partner {
  public:
    explicit Partner(const std::function<int()>& work) {
        fflush(nullptr);
        pid_ = fork();
        if (pid_ < 0) abort();
        if (pid_ != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        _exit(work());
    }
    ~Partner() { kill(); }
    Partner(const Partner&) = delete;
    Partner& operator=(const Partner&) = delete;

    bool sleeps() const { return is_asleep(pid_); }

    void kill() {
        if (pid_ <= 0) return;
        ::kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = 0;
    }

    // Its exit status; a signal's number below 0 where that ended it, and -1000 when nothing does.
    int wait() {
        int status = 0;
        if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; },
                        std::chrono::seconds(120)))
            return -1000;
        pid_ = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
    }

  private:
    pid_t pid_ = 0;
};

}  // namespace zt_test
