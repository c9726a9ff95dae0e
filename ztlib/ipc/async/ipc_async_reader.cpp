// `running` is taken back by an atomic exchange, and whoever gets the 1 owns the thread's end: a
// stop joins the thread, a thread that ends by its read function's result detaches itself. A thread
// that lost to a stop is joined, so the record stays until it has looked at `running` once more;
// one that won touches the record no more.
//
// No lock. `thread` is touched only by whoever starts, stops or closes.

#include <ztlib/ipc/async/ipc_async_reader.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>

#include <cerrno>

namespace {

constexpr const char* kModule = "./ipc/async/ipc_async_reader";

constexpr pthread_t kNoThread = 0;

// True for the one who ends the reader.
bool claim_end(ipc_async_reader& reader) { return zt::exchange<uint8_t>(reader.running, 0); }

}  // namespace

extern "C" ipc_async_reader* ipc_async_reader_open(void* context,
                                                   ipc_async_read_function read_function) {
    const zt::Site here{kModule, __func__};

    zt::Owned<ipc_async_reader> reader(zt::allocate_zeroed<ipc_async_reader>());
    if (!reader) {
        zt::report_call(here, "calloc()");
        return nullptr;
    }
    if (ipc_async_reader_init(reader.get(), context, read_function) != 0) {
        zt::report_call(here, "ipc_async_reader_init()");
        return nullptr;
    }
    return reader.release();
}

extern "C" int ipc_async_reader_init(ipc_async_reader* reader, void* context,
                                     ipc_async_read_function read_function) {
    if (!reader || !read_function) {
        errno = EINVAL;
        return -1;
    }
    *reader = {0, kNoThread, context, read_function};
    return 0;
}

extern "C" int ipc_async_reader_start(ipc_async_reader* reader) {
    if (!reader) return -1;
    const bool was_running = zt::exchange<uint8_t>(reader->running, 1);
    if (was_running && reader->thread != kNoThread) return 0;

    const int code = pthread_create(&reader->thread, nullptr, ipc_async_reader_routine, reader);
    if (code != 0) {
        reader->thread = kNoThread;
        errno = code;
        zt::report_call({kModule, __func__}, "pthread_create()");
        return -1;
    }
    return 0;
}

extern "C" int ipc_async_reader_stop(ipc_async_reader* reader) {
    if (!reader || !claim_end(*reader) || reader->thread == kNoThread) return 0;
    return pthread_join(reader->thread, nullptr);
}

extern "C" void ipc_async_reader_close(ipc_async_reader* reader, int free_self) {
    if (!reader) return;
    ipc_async_reader_stop(reader);
    if (free_self) free(reader);
}

extern "C" void* ipc_async_reader_routine(void* argument) {
    if (!argument) return nullptr;
    ipc_async_reader& reader = *static_cast<ipc_async_reader*>(argument);

    while (zt::load(reader.running)) {
        if (reader.read_function(reader.context) == 0) continue;
        if (claim_end(reader)) pthread_detach(pthread_self());
        break;
    }
    return nullptr;
}
