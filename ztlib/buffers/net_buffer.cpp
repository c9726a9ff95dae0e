// One mutex guards the record, never held while another is taken. `flags` alone is also read
// without it, to see whether the buffer is waitable, so it is written atomically.
//
// Tearing down: free sets FREED, wakes the waiter and sleeps on the same condition until the waiter
// has taken back its WAITING mark. The waiter signals that as the last thing that it does under the
// lock, so nobody is left inside when mutex and condition are destroyed. Free takes WAITABLE back
// as well: what stays of the record answers a later wait or post without touching either.
//
// One thread is meant to wait. Should there be more, WAITING stays until the last one leaves: those
// beside the first are counted in bits of `flags` that mean nothing else.

#include <ztlib/buffers/net_buffer.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/failure.h>
#include <ztlib/base/lock.h>
#include <ztlib/base/memory.h>
#include <ztlib/base/stderr_block.h>
#include <ztlib/buffers/buffer.h>

#include <cerrno>
#include <cstdio>

namespace {

constexpr const char* kModule = "./buffers/net_buffer";

constexpr unsigned kFirstCapacity = 2048;
constexpr uint32_t kFurtherWaiter = 256;  // one in the count of waiters beside the first

using Lock = zt::BasicLock<zt::fatal_call_errno>;

bool is_waitable(const net_buffer& b) { return zt::load(b.flags) & NET_BUFFER_WAITABLE; }

// The caller holds the lock here and in every step below.
bool has(const net_buffer& b, uint32_t bits) { return b.flags & bits; }
void set(net_buffer& b, uint32_t bits) { zt::store(b.flags, b.flags | bits); }
void clear(net_buffer& b, uint32_t bits) { zt::store(b.flags, b.flags & ~bits); }

void post(net_buffer& b) {
    if (!has(b, NET_BUFFER_WAITABLE)) return;
    set(b, NET_BUFFER_POSTED);
    pthread_cond_signal(&b.condition);
}

void announce_waiter(net_buffer& b) {
    zt::store(b.flags, has(b, NET_BUFFER_WAITING) ? b.flags + kFurtherWaiter
                                                  : b.flags | uint32_t{NET_BUFFER_WAITING});
}

void withdraw_waiter(net_buffer& b) {
    zt::store(b.flags, b.flags >= kFurtherWaiter ? b.flags - kFurtherWaiter
                                                 : b.flags & ~uint32_t{NET_BUFFER_WAITING});
}

void release_waiters(net_buffer& b) {
    if (!has(b, NET_BUFFER_WAITABLE)) return;
    pthread_cond_broadcast(&b.condition);
    while (has(b, NET_BUFFER_WAITING)) pthread_cond_wait(&b.condition, &b.mutex);
}

// False with the error in errno.
bool init_condition(net_buffer& b) {
    errno = pthread_cond_init(&b.condition, nullptr);
    return errno == 0;
}

}  // namespace

extern "C" net_buffer* net_buffer_create(int waitable) {
    zt::Owned<net_buffer> b(zt::allocate_zeroed<net_buffer>());
    if (!b) {
        zt::report_call({kModule, __func__}, "calloc");
        return nullptr;
    }
    return net_buffer_init(b.get(), waitable) == 0 ? b.release() : nullptr;
}

extern "C" int net_buffer_init(net_buffer* b, int waitable) {
    const zt::Site here{kModule, __func__};
    if (!b) return -2;

    zt::Owned<char> data(zt::allocate<char>(kFirstCapacity));
    if (!data) {
        zt::report_call(here, "malloc");
        return -1;
    }
    zt::init_mutex(b->mutex, here);
    if (waitable && !init_condition(*b)) {
        zt::report_call(here, "pthread_cond_init");
        zt::destroy_mutex(b->mutex, here);
        return -1;
    }
    b->data = data.release();
    b->data[0] = '\0';
    b->capacity = kFirstCapacity;
    b->length = 0;
    const uint32_t flags = waitable ? uint32_t{NET_BUFFER_WAITABLE} : 0;
    zt::store(b->flags, flags);
    return 0;
}

extern "C" void net_buffer_free(net_buffer* b, int free_record) {
    const zt::Site here{kModule, __func__};
    if (!b) return;

    Lock lock(b->mutex, here);
    const bool waitable = is_waitable(*b);
    set(*b, NET_BUFFER_FREED);
    release_waiters(*b);
    clear(*b, NET_BUFFER_WAITABLE);
    lock.unlock();

    if (b->capacity > 0) free(b->data);
    b->data = nullptr;
    b->capacity = 0;
    b->length = 0;
    zt::destroy_mutex(b->mutex, here);
    if (waitable) pthread_cond_destroy(&b->condition);
    if (free_record) free(b);
}

extern "C" int net_buffer_mark_free(net_buffer* b) {
    if (!b) return -2;

    Lock lock(b->mutex, {kModule, __func__});
    set(*b, NET_BUFFER_FREED);
    if (has(*b, NET_BUFFER_WAITABLE) && has(*b, NET_BUFFER_WAITING))
        pthread_cond_signal(&b->condition);
    return 0;
}

extern "C" int net_buffer_wait(net_buffer* b) {
    if (!b) return -2;
    if (!is_waitable(*b)) return -1;

    Lock lock(b->mutex, {kModule, __func__});
    announce_waiter(*b);
    while (!has(*b, NET_BUFFER_POSTED | NET_BUFFER_FREED))
        pthread_cond_wait(&b->condition, &b->mutex);
    clear(*b, NET_BUFFER_POSTED);
    withdraw_waiter(*b);

    if (!has(*b, NET_BUFFER_FREED)) return 0;
    pthread_cond_broadcast(&b->condition);  // to other waiters, and to net_buffer_free()
    return -1;
}

extern "C" int net_buffer_post(net_buffer* b) {
    if (!b) return -2;
    if (!is_waitable(*b)) return 0;

    Lock lock(b->mutex, {kModule, __func__});
    post(*b);
    return 0;
}

extern "C" int net_buffer_add(net_buffer* b, const void* src, unsigned n) {
    if (!b) return -2;

    Lock lock(b->mutex, {kModule, __func__});
    const int result = _net_buffer_add(b, src, n);
    post(*b);
    return result;
}

extern "C" int net_buffer_begin_add(net_buffer* b, const void* src, unsigned n) {
    if (!b) return -2;

    Lock lock(b->mutex, {kModule, __func__});
    lock.keep();
    return _net_buffer_add(b, src, n);
}

extern "C" int net_buffer_end_add(net_buffer* b, const void* src, unsigned n) {
    if (!b) return -2;

    const int result = _net_buffer_add(b, src, n);
    post(*b);
    zt::unlock_mutex<zt::fatal_call_errno>(b->mutex, {kModule, __func__});
    return result;
}

extern "C" int net_buffer_remove(net_buffer* b, unsigned n) {
    if (!b) return -2;

    Lock lock(b->mutex, {kModule, __func__});
    return _net_buffer_remove(b, n);
}

extern "C" int net_buffer_reset(net_buffer* b) {
    if (!b) return -2;

    Lock lock(b->mutex, {kModule, __func__});
    b->length = 0;
    return 0;
}

extern "C" void net_buffer_dump(net_buffer* b) {
    if (!b) return;
    fprintf(stderr, "- dumping net buffer %p - %d bytes len -\n", static_cast<void*>(b),
            static_cast<int>(b->capacity));
    zt::StderrBlock out;
    for (unsigned i = 0; i < b->length; ++i)
        out.print(" %u ", static_cast<unsigned char>(b->data[i]));
    out.print("\n");
}

extern "C" int _net_buffer_add(net_buffer* b, const void* src, unsigned n) {
    if (!b) return -2;
    const auto count = static_cast<int>(n);
    return buffer_append(&b->data, &b->capacity, &b->length, src, count) ? 0 : -1;
}

extern "C" int _net_buffer_make_room(net_buffer* b, unsigned n) {
    if (!b) return -2;
    return buffer_make_room(&b->data, &b->capacity, &b->length, n) ? 0 : -1;
}

extern "C" int _net_buffer_remove(net_buffer* b, unsigned n) {
    if (!b) return -2;
    const auto count = static_cast<int>(n);
    return buffer_remove(&b->data, &b->capacity, &b->length, count) == 0 ? 0 : -3;
}
