// A host for fuzz targets: no program runs, but what `ip` would have printed is read, and what it
// is called with is looked at. The target is linked with --wrap for the three calls.
#pragma once

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/types.h>
#include <unistd.h>

namespace pretended {

inline void check(bool condition) {
    if (!condition) abort();
}

using Words = std::vector<std::string>;

inline std::string (*answer)(const Words& words);  // what `ip` prints when called so
inline void (*changed)(const Words& words);        // called for a command whose output is not read

inline int output = -1;  // the file that the next program writes to

}  // namespace pretended

extern "C" {

int __real_memfd_create(const char* name, unsigned flags);
int __wrap_memfd_create(const char* name, unsigned flags);
int __wrap_memfd_create(const char* name, unsigned flags) {
    return pretended::output = __real_memfd_create(name, flags);
}

int __wrap_posix_spawnp(pid_t* child, const char* program,
                        const posix_spawn_file_actions_t* actions, const posix_spawnattr_t*,
                        char* const words[], char* const[]);
int __wrap_posix_spawnp(pid_t* child, const char* program,
                        const posix_spawn_file_actions_t* actions, const posix_spawnattr_t*,
                        char* const words[], char* const[]) {
    pretended::check(strcmp(program, "ip") == 0 && strcmp(words[0], "ip") == 0);
    pretended::Words all;
    for (char* const* word = words + 1; *word; ++word) all.emplace_back(*word);
    if (actions) {
        const std::string text = pretended::answer(all);
        pretended::check(write(pretended::output, text.data(), text.size()) ==
                         static_cast<ssize_t>(text.size()));
    } else {
        pretended::changed(all);
    }
    *child = 1;
    return 0;
}

pid_t __wrap_waitpid(pid_t child, int* status, int);
pid_t __wrap_waitpid(pid_t child, int* status, int) {
    *status = 0;
    return child;
}
}
