// Saved lists: databases of records that are found by nothing, only listed. Each is written under
// the number of its place as a key, which the database compares with what the records before it
// begin with.

#include <ztlib/utils/network.hpp>

#include <ztlib/db/filedb_fixed.h>

#include <cerrno>
#include <cstdint>

#include <unistd.h>

using namespace zt::network;

namespace {

constexpr uint32_t kFourByteKey = 5;

template <class Record>
filedb_fixed database_at(const char* path) {
    filedb_fixed db;
    filedb_fixed_init(&db, path, sizeof(Record), kFourByteKey, 0);
    return db;
}

template <class Record>
void write(const filedb_fixed& db, Record** list) {
    // Where this fails, each insertion opens the file, and reports, for itself.
    const int fd = filedb_fixed_fdopen(&db);
    for (uint32_t i = 0; list[i]; ++i) filedb_fixed_insert(&db, fd, &i, list[i]);
    if (fd >= 0) filedb_fixed_fdclose(&db, fd);
}

// A file that cannot be removed (another is mounted over it, or its directory is not ours) is
// emptied where it stands.
void remove_or_empty(const char* path) {
    if (unlink(path) == 0 || errno == ENOENT) return;
    [[maybe_unused]] const int emptied = truncate(path, 0);
}

// `current` lists the host, `release` frees that list.
template <class Record>
void save(const char* path, Record** list, Record** (*current)(), void (*release)(Record**)) {
    if (!path) return;
    const auto db = database_at<Record>(path);
    remove_or_empty(db.path);  // not `path`, of which the database opens no more than it can hold
    Record** const listed = list ? nullptr : current();
    if (list || listed) write(db, list ? list : listed);
    release(listed);
}

template <class Record>
int append_copy(void* context, void* record, int32_t /*record_size*/) {
    auto& list = *static_cast<ListBuilder<Record>*>(context);
    if (!list.make_room()) return -1;
    auto* const copy = zt::allocate_zeroed<Record>();
    if (!copy) return -1;
    memcpy(copy, record, sizeof *copy);
    list.append(copy);
    return 0;
}

template <class Record>
Record** load(const char* path) {
    if (!path) return nullptr;
    ListBuilder<Record> list;
    if (!list) return nullptr;
    const auto db = database_at<Record>(path);
    filedb_fixed_list(&db, 0, &list, append_copy<Record>);
    return list.release();
}

}  // namespace

extern "C" int network_interfaces_save(const char* path, network_interface** list) {
    save(path, list, network_interfaces_list, network_interfaces_free);
    return 0;
}

extern "C" int network_routes_save(const char* path, network_route** list) {
    save(path, list, network_routes_list, network_routes_free);
    return 0;
}

extern "C" network_interface** network_interfaces_load(const char* path) {
    return load<network_interface>(path);
}

extern "C" network_route** network_routes_load(const char* path) {
    return load<network_route>(path);
}
