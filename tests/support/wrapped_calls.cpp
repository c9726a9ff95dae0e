// The linker sends every call that wrapped_calls.def names here; what the test did not ask to fail
// goes on to the real one.

#include <tests/support/capture.h>
#include <tests/support/faults_internal.h>

#include <openssl/evp.h>
#include <openssl/objects.h>
#include <openssl/pem.h>
#include <openssl/pkcs12.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <cwchar>

#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <pthread.h>
#include <semaphore.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

using zt_test::Verdict;
using zt_test::WrappedFunction;

namespace {

template <class Result>
Result as_result(int64_t value) {
    if constexpr (std::is_pointer_v<Result>)
        return reinterpret_cast<Result>(value);
    else
        return static_cast<Result>(value);
}

}  // namespace

#define WRAP(name, result, failure, parameters, arguments) \
    extern "C" result __real_##name parameters;            \
    extern "C" result __wrap_##name parameters;            \
    static WrappedFunction wrapped_##name{#name};          \
    extern "C" result __wrap_##name parameters {           \
        int error = 0;                                     \
        int64_t value = 0;                                 \
        switch (wrapped_##name.judge(error, value)) {      \
            case Verdict::fail:                            \
                errno = error;                             \
                return failure;                            \
            case Verdict::fake:                            \
                return as_result<result>(value);           \
            case Verdict::pass:                            \
            case Verdict::shorten:                         \
                break;                                     \
        }                                                  \
        return __real_##name arguments;                    \
    }

#define CODE(name, parameters, arguments)             \
    extern "C" int __real_##name parameters;          \
    extern "C" int __wrap_##name parameters;          \
    static WrappedFunction wrapped_##name{#name};     \
    extern "C" int __wrap_##name parameters {         \
        int error = 0;                                \
        int64_t value = 0;                            \
        switch (wrapped_##name.judge(error, value)) { \
            case Verdict::fail:                       \
                return error;                         \
            case Verdict::fake:                       \
                return static_cast<int>(value);       \
            case Verdict::pass:                       \
            case Verdict::shorten:                    \
                break;                                \
        }                                             \
        return __real_##name arguments;               \
    }

#define TRANSFER(name, bytes_type)                                                             \
    extern "C" ssize_t __real_##name(int file, bytes_type bytes, size_t size);                 \
    extern "C" ssize_t __wrap_##name(int file, bytes_type bytes, size_t size);                 \
    static WrappedFunction wrapped_##name{#name};                                              \
    extern "C" ssize_t __wrap_##name(int file, bytes_type bytes, size_t size) {                \
        int error = 0;                                                                         \
        int64_t value = 0;                                                                     \
        switch (wrapped_##name.judge(error, value)) {                                          \
            case Verdict::fail:                                                                \
                errno = error;                                                                 \
                return -1;                                                                     \
            case Verdict::fake:                                                                \
                return value;                                                                  \
            case Verdict::shorten:                                                             \
                return __real_##name(file, bytes, std::min(size, static_cast<size_t>(value))); \
            case Verdict::pass:                                                                \
                break;                                                                         \
        }                                                                                      \
        return __real_##name(file, bytes, size);                                               \
    }

namespace {

// A block that did not exist before the call and exists after it.
void* counted(void* made, void* before) {
    if (made && !before) zt_test::count_allocated(1);
    return made;
}

#define BEFORE_malloc nullptr
#define BEFORE_calloc nullptr
#define BEFORE_realloc memory
#define BEFORE_strdup nullptr
#define BEFORE_strndup nullptr
#define BEFORE_wcsdup nullptr

}  // namespace

#define ALLOCATION(name, result, failure, parameters, arguments)                                   \
    extern "C" result __real_##name parameters;                                                    \
    extern "C" result __wrap_##name parameters;                                                    \
    static WrappedFunction wrapped_##name{#name};                                                  \
    extern "C" result __wrap_##name parameters {                                                   \
        int error = 0;                                                                             \
        int64_t value = 0;                                                                         \
        if (zt_test::refuse_allocation() || wrapped_##name.judge(error, value) != Verdict::pass) { \
            errno = ENOMEM;                                                                        \
            return failure;                                                                        \
        }                                                                                          \
        void* const before = BEFORE_##name;                                                        \
        return static_cast<result>(counted(__real_##name arguments, before));                      \
    }

#define SPECIAL(name)

#include <tests/support/wrapped_calls.def>

extern "C" void __real_free(void* memory);
extern "C" void __wrap_free(void* memory);
extern "C" void __wrap_free(void* memory) {
    if (memory) zt_test::count_allocated(-1);
    __real_free(memory);
}

extern "C" void __wrap_openlog(const char* identity, int options, int facility);
extern "C" void __wrap_openlog(const char* identity, int options, int facility) {
    zt_test::system_log().opened(identity, options, facility);
}

extern "C" void __wrap_syslog(int priority, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
extern "C" void __wrap_syslog(int priority, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    zt_test::system_log().record(priority, format, arguments);
    va_end(arguments);
}

extern "C" void __wrap___syslog_chk(int priority, int flag, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
extern "C" void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    zt_test::system_log().record(priority, format, arguments);
    va_end(arguments);
}
