// A record is composed once, on the stack, and handed whole to each sink: the sinks interleave
// between threads, lines never do.
//
// No lock. The system log is opened by whichever record first finds it wanted; two threads that do
// so at the same moment open it twice, which is harmless.

#include <ztlib/logger.h>

#include <ztlib/base/atomic.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include <sys/syscall.h>
#include <syslog.h>
#include <unistd.h>

uint8_t logger_to_syslog = 1;
uint8_t logger_to_stderr = 0;
uint8_t logger_to_stdout = 0;
const char* logger_syslog_name = "ztlib";

namespace {

constexpr size_t kPieceSize = 1500;  // message and prefix, terminator included
constexpr size_t kLineSize = 2 * kPieceSize + 64;

uint8_t log_opened = 0;

const char* level_word(uint8_t level) {
    switch (level) {
        case LOGGER_ERROR:
            return "ERR:";
        case LOGGER_WARNING:
            return "WARN:";
        case LOGGER_INFO:
            return "INFO:";
        default:
            return "";
    }
}

// What basename() of POSIX gives, without its licence to write into the path.
std::string_view base_name(const char* path) {
    if (!path || !*path) return ".";
    std::string_view name(path);
    while (name.size() > 1 && name.back() == '/') name.remove_suffix(1);
    if (name == "/") return name;
    name.remove_prefix(name.find_last_of('/') + 1);  // npos + 1 is 0
    return name;
}

void open_system_log_once() {
    if (zt::load(log_opened)) return;
    openlog(zt::load(logger_syslog_name), 0, LOG_DAEMON);
    zt::store(log_opened, uint8_t{1});
}

void emit(uint8_t level, const char* line, bool to_syslog) {
    if (to_syslog) syslog(level, "%s", line);
    if (zt::load(logger_to_stderr)) fputs(line, stderr);
    if (zt::load(logger_to_stdout)) fputs(line, stdout);
}

}  // namespace

extern "C" int logger_valog(int level, const char* file, const char* function, const char* format,
                            va_list arguments) {
    const int saved_errno = errno;
    const auto level_byte = static_cast<uint8_t>(level);

    const bool to_syslog = zt::load(logger_to_syslog);  // once: never written to before it is open
    if (to_syslog) open_system_log_once();

    char message[kPieceSize] = "";
    if (format) vsnprintf(message, sizeof message, format, arguments);

    char prefix[kPieceSize];
    const std::string_view name = base_name(file);
    snprintf(prefix, sizeof prefix, "%s%.*s:%s:", level_word(level_byte),
             static_cast<int>(name.size()), name.data(), function ? function : "");

    char line[kLineSize];
    snprintf(line, sizeof line, "%s p:%d, t:%d : %s\n", prefix, static_cast<int>(getpid()),
             static_cast<int>(syscall(SYS_gettid)), message);
    emit(level_byte, line, to_syslog);

    errno = saved_errno;
    return 0;
}

extern "C" int logger_log(int level, const char* file, const char* function, const char* format,
                          ...) {
    va_list arguments;
    va_start(arguments, format);
    const int result = logger_valog(level, file, function, format, arguments);
    va_end(arguments);
    return result;
}
