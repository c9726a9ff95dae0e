#include "board.h"

#include <algorithm>
#include <set>

namespace dashboard {
namespace {

using inventory::Host;
using std::chrono::seconds;

constexpr uint64_t kMaxAge = 1'000'000'000;  // seconds; what is older is as old

bool same_values(const Host& a, const Host& b) {
    return a.system == b.system && a.load == b.load && a.memory_total == b.memory_total &&
           a.memory_available == b.memory_available && a.traffic.received == b.traffic.received &&
           a.traffic.sent == b.traffic.sent;
}

// Whether the host has reported since its last sample. Two looks at one report place it less than
// a second apart, because the age is cut to whole seconds.
bool has_reported(const Slot& slot, const Host& host, Clock::time_point reported) {
    return slot.samples.empty() || !same_values(slot.host, host) ||
           reported - slot.samples.back().reported >= seconds(1);
}

// Drops what no chart shows any more, but for the one sample from which a line enters it.
void trim(std::deque<Sample>& samples, Clock::time_point now) {
    while (samples.size() > kMaxSamples ||
           (samples.size() > 1 && samples[1].reported <= now - kWindow))
        samples.pop_front();
}

}  // namespace

// The host's slot; a host that is new gets one that nobody has.
Slot& Board::slot_of(const std::string& name) {
    const auto known = places_.find(name);
    if (known != places_.end()) return slots[known->second];

    auto place =
        std::find_if(slots.begin(), slots.end(), [](const Slot& slot) { return !slot.present; });
    if (place == slots.end()) place = slots.emplace(slots.end());
    places_.emplace(name, static_cast<size_t>(place - slots.begin()));
    *place = Slot{};
    place->present = true;
    place->named = place->changed = ++changes;
    return *place;
}

bool Board::update(std::vector<Host> hosts, Clock::time_point now) {
    if (hosts.size() > inventory::kMaxHosts) hosts.resize(inventory::kMaxHosts);
    std::set<std::string> names;
    for (const Host& host : hosts) names.insert(host.name);

    const std::lock_guard lock(mutex);
    for (auto place = places_.begin(); place != places_.end();) {
        if (names.contains(place->first)) {
            ++place;
            continue;
        }
        Slot& slot = slots[place->second];
        slot.present = false;
        slot.samples.clear();
        slot.changed = ++changes;
        place = places_.erase(place);
    }
    for (Host& host : hosts) {
        Slot& slot = slot_of(host.name);
        const Clock::time_point reported = now - seconds(std::min(host.age, kMaxAge));
        if (!has_reported(slot, host, reported)) continue;

        slot.changed = ++changes;
        if (slot.host.system != host.system) slot.named = slot.changed;
        slot.samples.push_back(
            {slot.changed, reported, host.load[0], host.memory_total - host.memory_available});
        trim(slot.samples, now);
        slot.host = std::move(host);
    }
    const bool news = answered == 0 || !trouble.empty();
    answered = ++changes;
    trouble.clear();
    return news;
}

bool Board::miss(std::string why) {
    const std::lock_guard lock(mutex);
    const bool news = answered == 0 || trouble.empty();
    answered = ++changes;
    trouble = std::move(why);
    return news;
}

}  // namespace dashboard
