#include "feed.h"

#include <cstdarg>
#include <cstdio>
#include <stdexcept>

namespace dashboard {
namespace {

// --- one message ---------------------------------------------------------------------------------

// The longest piece of JSON text beside {"inventory":""} or {"host":<number>,"system":""}.
constexpr size_t kMaxPiece = 200;

__attribute__((format(printf, 2, 3))) void tell(Output& output, const char* format, ...) {
    char text[kMaxMessage + 1];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) > kMaxMessage)
        throw std::length_error("a message is too long");
    output.add_message({text, static_cast<size_t>(length)});
}

bool continues_character(char c) { return (c & 0xc0) == 0x80; }

// Takes the first characters from a plain text, as many as make at most kMaxPiece bytes of a JSON
// string's content.
std::string take_piece(std::string_view& text) {
    std::string piece;
    while (!text.empty()) {
        size_t length = 1;
        while (length < text.size() && continues_character(text[length])) ++length;
        const bool reserved = text[0] == '"' || text[0] == '\\';
        if (piece.size() + length + reserved > kMaxPiece) break;
        if (reserved) piece += '\\';
        piece += text.substr(0, length);
        text.remove_prefix(length);
    }
    return piece;
}

// --- all about a host ----------------------------------------------------------------------------

double seconds_since(Clock::time_point then, Clock::time_point now) {
    return std::chrono::duration<double>(now - then).count();
}

void tell_who(size_t place, const inventory::Host& host, Output& output) {
    std::string_view name = host.name, system = host.system;
    tell(output, R"({"host":%zu,"name":"%s"})", place, take_piece(name).c_str());
    while (!name.empty())
        tell(output, R"({"host":%zu,"more":"%s"})", place, take_piece(name).c_str());
    tell(output, R"({"host":%zu,"system":"%s"})", place, take_piece(system).c_str());
}

void tell_sample(size_t place, const Sample& sample, Clock::time_point now, Output& output) {
    tell(output, R"({"host":%zu,"sample":[%.1f,%.2f,%ju]})", place,
         seconds_since(sample.reported, now), sample.load, uintmax_t{sample.memory_used});
}

void tell_state(size_t place, const Slot& slot, Clock::time_point now, Output& output) {
    const inventory::Host& host = slot.host;
    const Sample& last = slot.samples.back();
    tell(
        output,
        R"({"host":%zu,"age":%.1f,"load":[%.2f,%.2f,%.2f],"memory":[%ju,%ju],"traffic":[%ju,%ju]})",
        place, seconds_since(last.reported, now), host.load[0], host.load[1], host.load[2],
        uintmax_t{last.memory_used}, uintmax_t{host.memory_total}, uintmax_t{host.traffic.received},
        uintmax_t{host.traffic.sent});
}

}  // namespace

void Feed::tell_host(size_t place, const Slot& slot, Clock::time_point now, Output& output) {
    uint64_t& told = told_[place];
    if (!slot.present) {
        if (told > 0) tell(output, R"({"gone":%zu})", place);
    } else {
        if (told < slot.named) tell_who(place, slot.host, output);
        const Sample* last = &slot.samples.back();
        for (const Sample& sample : slot.samples)
            if (&sample != last && sample.change > told) tell_sample(place, sample, now, output);
        tell_state(place, slot, now, output);
    }
    told = slot.changed;
}

bool Feed::fill(const Board& board, const Settings& settings, Clock::time_point now,
                Output& output) {
    const std::lock_guard lock(board.mutex);
    if (!greeted_) {
        tell(output, R"({"every":%jd,"window":%jd,"stale":%jd})", intmax_t{settings.every.count()},
             intmax_t{kWindow.count()}, intmax_t{settings.stale.count()});
        greeted_ = true;
    }
    if (board.answered == 0) return false;  // nothing is known yet

    if (told_answer_ < board.answered && output.size() < kEnough) {
        std::string_view trouble = board.trouble;
        tell(output, R"({"inventory":"%s"})", trouble.empty() ? "ok" : take_piece(trouble).c_str());
        told_answer_ = board.answered;
    }
    if (told_all_ < board.changes) {
        told_.resize(board.slots.size());
        // Once round, from where the last look ended.
        for (size_t looked_at = 0; looked_at < told_.size(); ++looked_at) {
            if (next_ >= told_.size()) next_ = 0;
            if (told_[next_] < board.slots[next_].changed) {
                if (output.size() >= kEnough) return true;
                tell_host(next_, board.slots[next_], now, output);
            }
            ++next_;
        }
        told_all_ = board.changes;
    }
    if (!ready_) {
        tell(output, R"({"ready":true})");
        ready_ = true;
    }
    return false;
}

}  // namespace dashboard
