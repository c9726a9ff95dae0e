// The state of the host that this program runs on.
#pragma once

#include "messages.h"

namespace inventory {

// Reads /etc/os-release, /proc/loadavg, /proc/meminfo, /proc/net/dev and the host's own name, and
// asks the system's `ip` for addresses and routes; without it there are none. What a report could
// not carry is cut: names that are too long, interfaces and routes beyond the limit.
// Throws std::runtime_error, which names the file, when one of those in /proc does not tell.
Host read_this_host();

}  // namespace inventory
