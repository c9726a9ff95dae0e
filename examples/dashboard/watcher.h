// Asks the inventory server for its hosts, over and over.
#pragma once

#include "board.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace dashboard {

struct Inventory {
    std::string host = "127.0.0.1";
    uint16_t port = inventory::kDefaultPort;
};

// Puts each answer, or what kept it from coming, on the board and calls `news`, on a thread of its
// own, until the end of the scope.
class Watcher {
  public:
    Watcher(const Inventory& source, std::chrono::seconds every, Board& board,
            std::function<void()> news);
    ~Watcher();

  private:
    void look();
    void run();

    const Inventory source_;
    const std::chrono::seconds every_;
    Board& board_;
    const std::function<void()> news_;

    std::mutex mutex_;  // guards stopping_
    std::condition_variable stop_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace dashboard
