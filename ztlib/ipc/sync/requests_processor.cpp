// The semaphore is all that passes between the two threads: what the answering one wrote before its
// post, the asking one sees after its wait.

#include <ztlib/ipc/sync/requests_processor.h>

#include <ztlib/base/clock.h>
#include <ztlib/base/failure.h>

#include <cerrno>
#include <cstring>

namespace {

constexpr const char* kModule = "./ipc/sync/requests_processor";

sem_t* semaphore_of(void* request) { return static_cast<sem_t*>(request); }

// A signal's handler does not end the wait; the deadline stays.
int wait_until(sem_t* semaphore, const timespec& deadline) {
    int result;
    do result = sem_timedwait(semaphore, &deadline);
    while (result != 0 && errno == EINTR);
    return result;
}

}  // namespace

extern "C" int requests_processor_request_init(void* request) {
    if (!request) return -1;
    memset(request, 0, REQUESTS_PROCESSOR_REQUEST_BYTES);
    return sem_init(semaphore_of(request), 0, 0);
}

extern "C" int requests_processor_request_wait(void* request) {
    const zt::Site here{kModule, __func__};
    if (!request) return -1;

    timespec deadline;
    if (!zt::deadline_in(REQUESTS_PROCESSOR_WAIT_SECONDS, deadline)) return -1;
    const int result = wait_until(semaphore_of(request), deadline);
    if (result != 0 && errno != ETIMEDOUT) {
        const int error = errno;
        zt::report_call(here, "sem_timedwait()");
        errno = error;
    }
    return result;
}

extern "C" int requests_processor_request_done(void* request) {
    return request ? sem_destroy(semaphore_of(request)) : -1;
}
