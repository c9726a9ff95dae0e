// What a user sees while something takes long.
#pragma once

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

namespace ca {

// A line on standard error for as long as it lives: on a terminal with the seconds that it has
// taken, rewritten in place and gone at the end; else said once.
class Progress {
  public:
    explicit Progress(std::string what);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

  private:
    void show();

    const std::string what_;
    std::mutex mutex_;
    std::condition_variable ended_;
    bool is_over_ = false;
    std::thread thread_;
};

}  // namespace ca
