// Hosts as people read them.
#pragma once

#include "messages.h"

#include <string>
#include <vector>

namespace inventory {

// One line for each host, below a line of headings.
std::string hosts_table(const std::vector<Host>& hosts);

// All about one host, and tables of its interfaces and routes.
std::string host_page(const Host& host);

// One line about a host, without a line's end.
std::string host_line(const Host& host);

}  // namespace inventory
