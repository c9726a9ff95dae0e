// The one lock that every module takes its mutexes through. It names itself in its message, not its
// caller, and ends the process with 1.

#include <ztlib/pthread_utils.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" void pthread_utils_mutex_lock(pthread_mutex_t* mutex) {
    if (!mutex) return;
    const int code = pthread_mutex_lock(mutex);
    if (code == 0) return;

    fprintf(stderr, "%s:%s pthread_mutex_lock(): %s (%d)\n", "./pthread_utils", __func__,
            strerror(code), code);
    exit(EXIT_FAILURE);
}
