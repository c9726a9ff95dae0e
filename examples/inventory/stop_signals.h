// How daemons are told to stop.
#pragma once

#include "network.h"

namespace inventory {

// A signalfd that becomes readable on SIGTERM and SIGINT, when the program is to stop. To be made
// before any thread is, so that all of them have the signals blocked and none is interrupted.
// Throws std::runtime_error.
Descriptor stop_signals();

}  // namespace inventory
