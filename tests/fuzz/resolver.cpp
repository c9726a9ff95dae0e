// A resolver file of any content: the record is well formed, and what is saved of it is loaded as
// the same.

#include <ztlib/utils/network.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

void check(bool condition) {
    if (!condition) abort();
}

int resolver_file = -1;  // stands for the host's

std::string content() {
    struct stat status;
    check(fstat(resolver_file, &status) == 0);
    std::string text(static_cast<size_t>(status.st_size), '\0');
    check(pread(resolver_file, text.data(), text.size(), 0) == status.st_size);
    return text;
}

network_resolv* load() {
    network_resolv* const resolv = network_resolv_load();
    check(resolv && strnlen(resolv->search, NETWORK_SEARCH_SIZE) < NETWORK_SEARCH_SIZE);
    check(resolv->nameserver_count >= 0 && resolv->nameserver_count <= NETWORK_MAX_NAMESERVERS);
    return resolv;
}

}  // namespace

extern "C" int __wrap_open(const char* path, int flags, mode_t mode);
extern "C" int __wrap_open(const char* path, int flags, mode_t) {
    check(strcmp(path, "/etc/resolv.conf") == 0);
    if (flags & O_TRUNC) check(ftruncate(resolver_file, 0) == 0);
    lseek(resolver_file, 0, SEEK_SET);
    return dup(resolver_file);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (resolver_file < 0) resolver_file = memfd_create("resolver", 0);
    check(ftruncate(resolver_file, 0) == 0);
    check(pwrite(resolver_file, data, size, 0) == static_cast<ssize_t>(size));

    network_resolv* const first = load();
    check(network_resolv_save(first) == 0);
    check(content().starts_with("# automatically generated from zt lib\n"));
    network_resolv* const second = load();
    // A carriage return within the line is its end when it is the last one left.
    if (char* last = strrchr(first->search, '\r')) *last = '\0';
    check(strcmp(first->search, second->search) == 0);
    check(first->nameserver_count == second->nameserver_count);
    for (int i = 0; i < first->nameserver_count; ++i)
        check(first->nameservers[i].address == second->nameservers[i].address);
    free(first);
    free(second);
    return 0;
}
