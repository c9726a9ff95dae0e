#include "watcher.h"

#include "inventory/client.h"
#include "inventory/text.h"

#include <ztlib/logger.h>

namespace dashboard {
namespace {

constexpr const char* kModule = "dashboard";

constexpr unsigned kAnswerSeconds = 3;  // each wait for the inventory is bounded by it
constexpr size_t kMaxTrouble = 160;     // bytes

}  // namespace

Watcher::Watcher(const Inventory& source, std::chrono::seconds every, Board& board,
                 std::function<void()> news)
    : source_(source), every_(every), board_(board), news_(std::move(news)) {
    thread_ = std::thread([this] { run(); });
}

// The wait for an answer is not cut short: its own bound is.
Watcher::~Watcher() {
    {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    stop_.notify_all();
    thread_.join();
}

void Watcher::look() {
    try {
        const inventory::Document list = inventory::list_request();
        if (board_.update(inventory::ask(source_.host, source_.port, kAnswerSeconds, *list),
                          Clock::now()))
            logger_log(LOGGER_INFO, kModule, __func__, "the inventory answers");
    } catch (const std::exception& failure) {
        if (board_.miss(inventory::make_plain(failure.what(), kMaxTrouble)))
            logger_log(LOGGER_WARNING, kModule, __func__, "the inventory does not answer: %s",
                       failure.what());
    }
}

void Watcher::run() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        lock.unlock();
        const auto began = Clock::now();
        look();
        news_();
        lock.lock();
        stop_.wait_until(lock, began + every_, [this] { return stopping_; });
    }
}

}  // namespace dashboard
