// Asking an inventory server.
#pragma once

#include "messages.h"

#include <string>

namespace inventory {

// Sends a request on a connection of its own and returns the hosts that are the answer. `seconds`
// bound each wait for the server. Throws std::runtime_error with a line for the user: the message
// of an error answer, or what kept the answer from coming.
std::vector<Host> ask(const std::string& host, uint16_t port, unsigned seconds, xmldoc& request);

}  // namespace inventory
