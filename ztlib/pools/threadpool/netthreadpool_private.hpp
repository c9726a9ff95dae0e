// What the protocols of the net thread pool need of it beyond its public functions.
#pragma once

#include <ztlib/pools/threadpool/netthreadpool.h>

namespace zt {

// netthreadpool_invite_write() for a sender that has queued something for the connection whose user
// pointer this is. An invitation that meets the running write routine leaves a mark, for which the
// pool runs the routine once more; one that comes after the connection was released does nothing.
void invite_to_send(netthreadpool_node& node, const void* user_pointer);

}  // namespace zt
