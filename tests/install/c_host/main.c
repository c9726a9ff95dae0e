/* A host in C11: one record through the logger, and a look at every header. */
#include <stdio.h>

#include <ztlib/ztlib.h>

int main(void) {
    logger_to_syslog = 0;
    logger_to_stdout = 1;
    logger_log(LOGGER_INFO, "c_host", __func__, "hello from %s", "C");
    return zt_library_init() == 1 ? 0 : 1;
}
