#include "progress.h"

#include <chrono>
#include <cstdio>
#include <utility>

#include <unistd.h>

namespace ca {

Progress::Progress(std::string what) : what_(std::move(what)) {
    if (isatty(STDERR_FILENO))
        thread_ = std::thread([this] { show(); });
    else
        fprintf(stderr, "%s\n", what_.c_str());
}

Progress::~Progress() {
    if (!thread_.joinable()) return;
    {
        const std::lock_guard lock(mutex_);
        is_over_ = true;
    }
    ended_.notify_one();
    thread_.join();
    fputs("\r\033[K", stderr);
}

void Progress::show() {
    std::unique_lock lock(mutex_);
    for (int seconds = 0; !is_over_; seconds++) {
        fprintf(stderr, "\r%s ... %d s", what_.c_str(), seconds);
        ended_.wait_for(lock, std::chrono::seconds(1), [this] { return is_over_; });
    }
}

}  // namespace ca
