// A host of a test's own for the library to read and change: the script stand_in_ip, first on PATH
// under the name `ip`.
//
//     StandInIp ip;
//     ip.set("links", "eth0 - 0 52:54:00:12:34:56\n");
//     network_interfaces_flush();
//     EXPECT_THAT(ip.changes(), ElementsAre("ip addr flush dev eth0"));
#pragma once

#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/stat.h>
#include <unistd.h>

namespace zt_test {

inline Strings lines_of(const std::string& text) {
    Strings lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

// Sets an environment variable until the end of the scope.
class Environment {
  public:
    Environment(const char* name, const std::string& value) : name_(name) {
        if (const char* before = getenv(name)) before_ = before, was_set_ = true;
        setenv(name, value.c_str(), 1);
    }
    ~Environment() {
        if (was_set_)
            setenv(name_, before_.c_str(), 1);
        else
            unsetenv(name_);
    }
    Environment(const Environment&) = delete;
    Environment& operator=(const Environment&) = delete;

  private:
    const char* name_;
    std::string before_;
    bool was_set_ = false;
};

class StandInIp {
  public:
    StandInIp()
        : path_("PATH", directory_.path() + ":" + getenv("PATH")),
          state_("STAND_IN_IP", directory_.path()) {
        if (symlink(STAND_IN_IP, (directory_ / "ip").c_str()) != 0) abort();
        for (const char* file : {"links", "addresses", "routes", "calls"}) set(file, "");
    }

    // Sets one of the files that the script describes.
    void set(const std::string& file, const std::string& content) {
        directory_.write(file, content);
    }
    std::string get(const std::string& file) const { return content_of(directory_ / file); }
    // What `ip` prints when it is called with these words.
    void answer(const std::string& words, const std::string& text) {
        mkdir((directory_ / "answers").c_str(), 0755);
        directory_.write("answers/" + words, text);
    }

    // The calls so far, as the script records them: "[link][list]".
    Strings calls() const { return lines_of(get("calls")); }
    // Those that change something, as they are printed: "ip addr flush dev eth0".
    Strings changes() const {
        Strings changes;
        for (std::string call : calls()) {
            if (call == "[link][list]" || call == "[route]" || call.starts_with("[addr][list]") ||
                call.starts_with("[-d]"))
                continue;
            std::string text = "ip";
            std::istringstream words(call);
            for (std::string word; std::getline(words, word, ']') && !word.empty();)
                text += " " + word.substr(1);
            changes.push_back(text);
        }
        return changes;
    }

  private:
    ScratchDirectory directory_;
    Environment path_;
    Environment state_;
};

}  // namespace zt_test
