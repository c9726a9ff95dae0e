// The server's hosts on disk: a file database with a record for each host, its last report in it.
//
//     0      name      256 bytes, the key; zero bytes behind the text
//     256    reported    8 bytes, seconds since 1970
//     264    length      4 bytes, of the report
//     268    report      the report message's text, see messages.h
//     16384
//
// A host keeps its place in the file, so a report costs one write, however many hosts there are.
// The file is locked for as long as the server runs: no second server uses it.
#pragma once

#include <ztlib/db/filedb_fixed.h>

#include "messages.h"
#include "network.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace inventory {

class Database {
  public:
    // Opens the file, or makes it. Throws std::runtime_error when it cannot, when another server
    // uses the file, and when it holds something else than hosts.
    explicit Database(const std::string& path);

    // The hosts that were there at the start, each with its age.
    std::vector<Host> take_hosts() { return std::move(hosts_); }

    // Writes a host's report in place of its last one. Interfaces and routes that a record has no
    // room for are left out. A failure is logged; the record that was there may be damaged then.
    // Of two reports of one host at the same time, either is the one that stays.
    void keep(const Host& host);

  private:
    void open(const std::string& path);
    void read(const std::string& path);
    void cut_off(const std::string& path, int64_t bytes);

    filedb_fixed file_{};
    Descriptor descriptor_;
    std::vector<Host> hosts_;

    std::mutex mutex_;  // guards the file's position and the places
    std::map<std::string, int64_t> places_;
};

}  // namespace inventory
