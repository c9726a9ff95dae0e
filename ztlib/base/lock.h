// Locks that report their own failures: guards for mutexes and reader/writer locks, and the calls
// that make and destroy them.
//
//     zt::Lock lock(q->mutex, here);        // until the end of the scope
//     lock.unlock();                        // ... or until here
//     lock.keep();                          // ... or for the caller to release
#pragma once

#include <ztlib/base/failure.h>
#include <ztlib/pthread_utils.h>

#include <pthread.h>

namespace zt {

// The report of pthread_utils_mutex_lock(): prints its line and ends the process with 1.
[[noreturn]] void fatal_mutex_lock(int code);

// pthread_utils_mutex_lock() without the call.
inline void lock_mutex(pthread_mutex_t& mutex) {
    const int code = pthread_mutex_lock(&mutex);
    if (code != 0) [[unlikely]]
        fatal_mutex_lock(code);
}

using FatalReport = void (*)(Site, const char* call, int code);

template <FatalReport Fatal = fatal_call>
inline void unlock_mutex(pthread_mutex_t& mutex, Site site) {
    const int code = pthread_mutex_unlock(&mutex);
    if (code != 0) [[unlikely]]
        Fatal(site, "pthread_mutex_unlock", code);
}

// Holds a mutex, taken through the checked lock. `Fatal` reports a failed unlock.
template <FatalReport Fatal>
class BasicLock {
  public:
    BasicLock(pthread_mutex_t& mutex, Site site) : mutex_(&mutex), site_(site) {
        lock_mutex(mutex);
    }
    ~BasicLock() { unlock(); }
    BasicLock(const BasicLock&) = delete;
    BasicLock& operator=(const BasicLock&) = delete;

    // Releases now. A second call does nothing.
    void unlock() {
        if (!mutex_) return;
        unlock_mutex<Fatal>(*mutex_, site_);
        mutex_ = nullptr;
    }

    // Takes the mutex again after unlock().
    void relock(pthread_mutex_t& mutex) {
        mutex_ = &mutex;
        lock_mutex(mutex);
    }

    // Leaves the mutex locked; its release is the caller's.
    void keep() { mutex_ = nullptr; }

  private:
    pthread_mutex_t* mutex_;
    Site site_;
};

using Lock = BasicLock<fatal_call>;

inline void unlock_rwlock(pthread_rwlock_t& rwlock, Site site) {
    const int code = pthread_rwlock_unlock(&rwlock);
    if (code != 0) [[unlikely]]
        fatal_call(site, "pthread_rwlock_unlock", code);
}

// Holds a reader/writer lock for reading.
class ReadLock {
  public:
    ReadLock(pthread_rwlock_t& rwlock, Site site) : rwlock_(&rwlock), site_(site) {
        const int code = pthread_rwlock_rdlock(rwlock_);
        if (code != 0) [[unlikely]]
            fatal_call(site_, "pthread_rwlock_rdlock", code);
    }
    ~ReadLock() {
        if (rwlock_) unlock_rwlock(*rwlock_, site_);
    }
    ReadLock(const ReadLock&) = delete;
    ReadLock& operator=(const ReadLock&) = delete;

    void keep() { rwlock_ = nullptr; }

  private:
    pthread_rwlock_t* rwlock_;
    Site site_;
};

// Holds a reader/writer lock for writing.
class WriteLock {
  public:
    WriteLock(pthread_rwlock_t& rwlock, Site site) : rwlock_(&rwlock), site_(site) {
        const int code = pthread_rwlock_wrlock(rwlock_);
        if (code != 0) [[unlikely]]
            fatal_call(site_, "pthread_rwlock_wrlock", code);
    }
    ~WriteLock() {
        if (rwlock_) unlock_rwlock(*rwlock_, site_);
    }
    WriteLock(const WriteLock&) = delete;
    WriteLock& operator=(const WriteLock&) = delete;

    void keep() { rwlock_ = nullptr; }

  private:
    pthread_rwlock_t* rwlock_;
    Site site_;
};

inline void init_mutex(pthread_mutex_t& mutex, Site site) {
    const int code = pthread_mutex_init(&mutex, nullptr);
    if (code != 0) [[unlikely]]
        fatal_call(site, "pthread_mutex_init", code);
}

inline void destroy_mutex(pthread_mutex_t& mutex, Site site) {
    const int code = pthread_mutex_destroy(&mutex);
    if (code != 0) [[unlikely]]
        print_call(site, "pthread_mutex_destroy", code);
}

inline void init_rwlock(pthread_rwlock_t& rwlock, Site site) {
    const int code = pthread_rwlock_init(&rwlock, nullptr);
    if (code != 0) [[unlikely]]
        fatal_call(site, "pthread_rwlock_init", code);
}

// A failed pthread_rwlock_destroy() is not reported anywhere in the library.
inline void destroy_rwlock(pthread_rwlock_t& rwlock) { pthread_rwlock_destroy(&rwlock); }

}  // namespace zt
