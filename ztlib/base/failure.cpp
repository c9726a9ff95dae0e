#include <ztlib/base/failure.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zt {

void report(Site site, int level, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    logger_valog(level, site.module, site.function, format, arguments);
    va_end(arguments);
}

void report_call(Site site, const char* call, int level) {
    report(site, level, "%s(): %s", call, strerror(errno));
}

void print_call(Site site, const char* call, int code) {
    fprintf(stderr, "%s:%s: %s(): %s (%d)\n", site.module, site.function, call, strerror(errno),
            code);
}

void fatal_call(Site site, const char* call, int code) {
    print_call(site, call, code);
    exit(-1);
}

void fatal_call_errno(Site site, const char* call, int /*code*/) {
    print_call(site, call, errno);
    exit(-1);
}

}  // namespace zt
