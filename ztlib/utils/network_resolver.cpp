// The resolver's file: lines of a keyword, a blank and a value.

#include <ztlib/utils/network.hpp>

#include <ztlib/base/descriptor.h>
#include <ztlib/base/failure.h>
#include <ztlib/base/lines.h>

#include <cstdio>
#include <cstring>

#include <fcntl.h>

using namespace zt::network;

namespace {

constexpr const char* kPath = "/etc/resolv.conf";
constexpr const char* kBanner = "# automatically generated from zt lib\n";
constexpr size_t kLineSize = 1024;
constexpr size_t kFileSize = 512;  // more than the longest file that is written
constexpr mode_t kFileMode = 0666;

void read_line(char* line, network_resolv& resolv) {
    zt::cut_at_last(line, '\r');
    zt::cut_at_last(line, '\n');
    char* const blank = strchr(line, ' ');
    if (line[0] == '#' || !blank) return;
    *blank = '\0';
    const char* const value = blank + 1;

    if (strcmp(line, "search") == 0) {
        set_field(resolv.search, value);
    } else if (strcmp(line, "nameserver") == 0) {
        if (resolv.nameserver_count == NETWORK_MAX_NAMESERVERS) return;
        ipv4_address address{};
        ipv4_parse_addr(value, &address);
        resolv.nameservers[resolv.nameserver_count++] = address;
    }
}

// The file's text under construction; there is room for all that a record can hold.
class FileText {
  public:
    __attribute__((format(printf, 2, 3))) void add(const char* format, ...) {
        va_list arguments;
        va_start(arguments, format);
        const int printed = vsnprintf(text_ + length_, sizeof text_ - length_, format, arguments);
        va_end(arguments);
        length_ = std::min(length_ + static_cast<size_t>(printed), sizeof text_ - 1);
    }
    const char* data() const { return text_; }
    size_t size() const { return length_; }

  private:
    char text_[kFileSize];
    size_t length_ = 0;
};

FileText file_text(const network_resolv& resolv) {
    FileText text;
    text.add("%s", kBanner);
    const FieldText<NETWORK_SEARCH_SIZE> search(resolv.search);
    if (*search.c_str()) text.add("search %s\n", search.c_str());
    for (size_t i = 0; i < nameserver_count(resolv); ++i)
        text.add("nameserver %s\n", AddressText(resolv.nameservers[i], false).c_str());
    return text;
}

}  // namespace

extern "C" network_resolv* network_resolv_load() {
    const zt::Site here{kModule, __func__};
    const zt::Descriptor file(open(kPath, O_RDONLY | O_CLOEXEC));
    if (!file) {
        zt::report_call(here, "fopen");
        return nullptr;
    }
    auto* const resolv = zt::allocate_zeroed<network_resolv>();
    if (!resolv) {
        zt::report_call(here, "calloc");
        return nullptr;
    }

    zt::Lines lines(file.get());
    char line[kLineSize];
    while (lines.next(line)) read_line(line, *resolv);
    return resolv;
}

extern "C" int network_resolv_save(const network_resolv* resolv) {
    if (!resolv) return -1;
    const zt::Descriptor file(open(kPath, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, kFileMode));
    if (!file) {
        zt::report_call({kModule, __func__}, "fopen");
        return -1;
    }
    const FileText text = file_text(*resolv);
    zt::write_all(file.get(), text.data(), text.size());
    return 0;
}
