#include <ztlib/pthread_utils.h>

#include <tests/support/faults.h>
#include <tests/support/process.h>

#include <cerrno>

using namespace zt_test;

TEST(CheckedLock, ReturnsWithTheMutexHeld) {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_utils_mutex_lock(&mutex);
    EXPECT_EQ(pthread_mutex_trylock(&mutex), EBUSY);
    EXPECT_EQ(pthread_mutex_unlock(&mutex), 0);
    pthread_mutex_destroy(&mutex);
}

TEST(CheckedLock, EndsTheProcessWithOneAndTheReturnedCode) {
    const ChildResult child = run_in_child([] {
        pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
        FailingCall fault("pthread_mutex_lock", EINVAL, 0, true);
        errno = ENOENT;
        pthread_utils_mutex_lock(&mutex);
    });
    EXPECT_TRUE(child.exited);
    EXPECT_EQ(child.status, 1);
    EXPECT_EQ(
        child.err,
        "./pthread_utils:pthread_utils_mutex_lock pthread_mutex_lock(): Invalid argument (22)\n");
}

TEST(CheckedLock, IgnoresNull) { pthread_utils_mutex_lock(nullptr); }
