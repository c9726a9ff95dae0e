// What the page shows: the inventory's hosts, and what they reported lately.
//
// Every change takes the next number of one counter, so a reader that remembers the number up to
// which it has read finds what is new to it.
#pragma once

#include "inventory/messages.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace dashboard {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::seconds kWindow{300};  // what a chart shows
constexpr size_t kMaxSamples = 300;           // of a host; the oldest make room

struct Sample {
    uint64_t change = 0;
    Clock::time_point reported;  // to a second: the inventory tells ages in whole ones
    double load = 0;             // of the last minute
    uint64_t memory_used = 0;
};

// A host's place. It is another host's when this one is gone.
struct Slot {
    bool present = false;
    uint64_t named = 0;    // the change by which the host got this place, or another system
    uint64_t changed = 0;  // its last change
    inventory::Host host;
    std::deque<Sample> samples;  // in order of time; the last one is the host's present state
};

class Board {
  public:
    mutable std::mutex mutex;  // guards what follows

    std::vector<Slot> slots;
    uint64_t changes = 0;   // the counter
    uint64_t answered = 0;  // the change by which the inventory last answered, or did not
    std::string trouble;    // why it did not; empty when it did

    // Takes the inventory's answer, as it was at `now`; hosts beyond inventory::kMaxHosts are left
    // out. True when it had not answered before. Takes the lock.
    bool update(std::vector<inventory::Host> hosts, Clock::time_point now);

    // Notes why there is no answer. True when there was one before. Takes the lock.
    bool miss(std::string why);

  private:
    Slot& slot_of(const std::string& name);

    std::map<std::string, size_t> places_;  // name -> slot
};

}  // namespace dashboard
