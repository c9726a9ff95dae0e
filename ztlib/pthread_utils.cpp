// The one lock that every module takes its mutexes through. It names itself in its message, not its
// caller, and ends the process with 1.

#include <ztlib/pthread_utils.h>

#include <ztlib/base/lock.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

void zt::fatal_mutex_lock(int code) {
    fprintf(stderr, "%s:%s pthread_mutex_lock(): %s (%d)\n", "./pthread_utils",
            "pthread_utils_mutex_lock", strerror(code), code);
    exit(EXIT_FAILURE);
}

extern "C" void pthread_utils_mutex_lock(pthread_mutex_t* mutex) {
    if (mutex) zt::lock_mutex(*mutex);
}
