// A host in C++17: the same as the one in C.
#include <ztlib/ztlib.h>

int main() {
    logger_to_syslog = 0;
    logger_to_stdout = 1;
    logger_log(LOGGER_INFO, "cxx_host", __func__, "hello from %s", "C++");
    return zt_library_init() == 1 ? 0 : 1;
}
