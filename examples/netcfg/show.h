// The host's configuration as tables.
#pragma once

#include "host.h"

#include <string>

namespace netcfg {

// Interfaces, routes, and the resolver where `resolv` is not null.
std::string page(const Configuration& host, const network_resolv* resolv);

}  // namespace netcfg
