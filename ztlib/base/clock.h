// Deadlines on the real-time clock, which condition variables and semaphores wait by.
#pragma once

#include <cstdint>
#include <ctime>

namespace zt {

// Sets `deadline` to `seconds` from now. False, with errno set, when the clock cannot be read.
inline bool deadline_in(int32_t seconds, timespec& deadline) {
    if (clock_gettime(CLOCK_REALTIME, &deadline) != 0) return false;
    deadline.tv_sec += seconds;
    return true;
}

}  // namespace zt
