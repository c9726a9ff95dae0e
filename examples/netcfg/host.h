// The host's configuration and the saved one, as lists that release themselves.
//
// A configuration FILE is saved in two files, FILE.interfaces and FILE.routes. Neither saving nor
// applying says whether it worked, so what they left is looked at.
#pragma once

#include <ztlib/utils/network.h>

#include <memory>
#include <string>

namespace netcfg {

struct Release {
    void operator()(network_interface** list) const { network_interfaces_free(list); }
    void operator()(network_route** list) const { network_routes_free(list); }
};

struct Configuration {
    std::unique_ptr<network_interface*, Release> interfaces;
    std::unique_ptr<network_route*, Release> routes;
};

// These throw std::runtime_error with a text for the user.

// What the host has now. A host without links is one whose `ip` does not work.
Configuration read_host();

// Replaces both files only when both are written.
void save(const Configuration& configuration, const std::string& file);

// Files that are missing, damaged or without an interface are refused: applied, they would leave a
// host that nobody reaches.
Configuration load(const std::string& file);

}  // namespace netcfg
