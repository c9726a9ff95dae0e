// What one browser is told, and how.
//
// A message is one JSON object in a text of at most kMaxMessage bytes. On a new connection:
//
//   {"every":1,"window":300,"stale":30}           seconds: between two looks at the inventory, of
//                                                 a chart, until a report is old
//   {"inventory":"ok"}                            or why it does not answer; after every look
//   {"host":7,"name":"web1"}                      begins host 7; a name that is too long goes on
//   {"host":7,"more":"..."}                       in further messages
//   {"host":7,"system":"Debian GNU/Linux 12"}
//   {"host":7,"sample":[12.5,0.42,3311976448]}    reported so many seconds ago: load, memory used
//   {"host":7,"age":2.5,"load":[0.42,0.40,0.33],"memory":[3311976448,8324317184],
//    "traffic":[73400320,1048576]}                its last report; memory: used and total
//   {"ready":true}                                all that was known is told
//
// and from then on, one message of the last kind but one for each new report, what belongs to a new
// host, and {"gone":7}.
//
// Nothing is queued for a browser: a Feed remembers up to which change it has told what there is of
// each host, and writes the rest when there is room. So a slow browser costs no memory, and gets
// the present state when it reads again.
#pragma once

#include "board.h"
#include "output.h"

#include <chrono>
#include <cstdint>
#include <vector>

namespace dashboard {

// What the page should know of the daemon.
struct Settings {
    std::chrono::seconds every{1};   // between two looks at the inventory
    std::chrono::seconds stale{30};  // a host whose report is older is shown as stale
};

class Feed {
  public:
    // Writes what the browser does not know yet, until `output` holds kEnough bytes, what belongs
    // to one host in any case. True when there is more. Takes the board's lock.
    bool fill(const Board& board, const Settings& settings, Clock::time_point now, Output& output);

  private:
    void tell_host(size_t place, const Slot& slot, Clock::time_point now, Output& output);

    bool greeted_ = false;
    bool ready_ = false;
    uint64_t told_answer_ = 0;    // up to this change
    uint64_t told_all_ = 0;       // nothing of any host is older and untold
    std::vector<uint64_t> told_;  // by slot: up to this change
    size_t next_ = 0;             // the slot to go on with
};

constexpr size_t kEnough = 32 * 1024;  // bytes

}  // namespace dashboard
