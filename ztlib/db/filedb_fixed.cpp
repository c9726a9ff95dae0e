// Every operation is made of up to three parts: an Access to the file (a descriptor of its own,
// locked, or the caller's, whose position it puts back), a Scan that reads records from the start,
// and what is written when the scan has found its place.
//
// A scan reads as many whole records at once as a block holds:
//
//     +--------+--------+- - - - -+--------+-----+
//     | record | record |         | record | cut |   what one read() gave
//     +--------+--------+- - - - -+--------+-----+
//     ^                                    ^
//     begin()                              end(); a record that is cut off is read on
//
// so the file's position is ahead of the record that is looked at. Whoever writes sets the position
// first. A walk whose callback wrote through the walk's descriptor forgets what it has read ahead,
// which it knows from a count of the writes through each descriptor.
//
// Nothing is locked in this process: the file's lock is all there is.

#include <ztlib/db/filedb_fixed.h>

#include <ztlib/base/atomic.h>
#include <ztlib/base/descriptor.h>
#include <ztlib/base/failure.h>
#include <ztlib/base/memory.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>

namespace {

constexpr const char* kModule = "./db/filedb_fixed";

enum Result {
    kDone = 0,
    kNotFound = 1,
    kFailed = -1,
    kNotLocked = -2,
    kKeyExists = -2,
    kSeekFailed = -3,
    kIncomplete = -4,
    kOffsetFailed = -4,
};

constexpr size_t kBlockSize = 32 * 1024;
constexpr size_t kCacheLine = 64;
constexpr mode_t kFileMode = 0644;

// --- what a database is --------------------------------------------------------------------------

// The types from 1 to 8 come in pairs of one width: 1, 2, 4 and 8 bytes.
constexpr uint32_t kFirstKeyType = 1;
constexpr uint32_t kLastFixedWidth = 8;
constexpr uint32_t kGivenWidth = 9;
constexpr uint32_t kOtherGivenWidth = 18;

bool is_key_type(uint32_t type) {
    return (type >= kFirstKeyType && type <= kGivenWidth) || type == kOtherGivenWidth;
}

uint32_t key_width(uint32_t type, uint32_t given) {
    return type <= kLastFixedWidth ? 1u << (type - kFirstKeyType) / 2 : given;
}

bool has_records(const filedb_fixed* db) { return db && db->record_size >= 1; }

bool has_keys(const filedb_fixed* db) {
    return has_records(db) && db->key_size >= 1 &&
           db->key_size <= static_cast<uint32_t>(db->record_size);
}

size_t size_of_record(const filedb_fixed& db) { return static_cast<size_t>(db.record_size); }

// Such a record is read by itself.
bool exceeds_block(const filedb_fixed& db) { return size_of_record(db) > kBlockSize; }

// Room for one record: for one that exceeds a block, or that is moved. Operations that are said to
// allocate do so for shorter records too, and fail alike when memory is out.
using WorkingBuffer = zt::Owned<char>;

WorkingBuffer allocate_record(const filedb_fixed& db) {
    char* buffer = zt::allocate<char>(size_of_record(db));
    // Keeps the compiler from leaving out a buffer that nobody reads.
    __asm__ volatile("" : "+r"(buffer));
    return WorkingBuffer(buffer);
}

// --- access to the file --------------------------------------------------------------------------

class Access {
  public:
    // `lock` is flock()'s, for a file that is opened here.
    Access(const filedb_fixed& db, int fd, int lock) : fd_(fd), own_(fd <= 0) {
        if (own_)
            open_locked(db, lock);
        else
            position_ = lseek(fd_, 0, SEEK_CUR);
    }
    ~Access() {
        if (!own_) {
            lseek(fd_, position_, SEEK_SET);
        } else if (fd_ >= 0) {
            flock(fd_, LOCK_UN);
            close(fd_);
        }
    }
    Access(const Access&) = delete;
    Access& operator=(const Access&) = delete;

    // kDone, or why there is no access.
    int result() const { return result_; }
    int fd() const { return fd_; }

    // To the file's start, where one that was opened here stands already.
    bool rewind() const { return own_ || lseek(fd_, 0, SEEK_SET) >= 0; }

  private:
    void open_locked(const filedb_fixed& db, int lock) {
        fd_ = filedb_fixed_fdopen(&db);
        if (fd_ < 0) {
            result_ = kFailed;
        } else if (flock(fd_, lock) != 0) {
            close(fd_);
            fd_ = -1;
            result_ = kNotLocked;
        }
    }

    int fd_;
    const bool own_;
    off_t position_ = 0;
    int result_ = kDone;
};

// How often this process wrote through each descriptor. Where two share a place, a write through
// one makes a walk through the other read again, and no more.
constexpr size_t kWriteCounts = 64;
uint32_t write_counts[kWriteCounts];

uint32_t& writes_through(int fd) { return write_counts[static_cast<unsigned>(fd) % kWriteCounts]; }

void count_write(int fd) { std::atomic_ref<uint32_t>(writes_through(fd)).fetch_add(1); }

// Writes one record where the descriptor stands; false where not all of it went out.
bool write_record(const filedb_fixed& db, int fd, const void* record) {
    const size_t size = size_of_record(db);
    ssize_t count;
    do count = write(fd, record, size);
    while (count < 0 && errno == EINTR);
    count_write(fd);
    return count == static_cast<ssize_t>(size);
}

bool write_record_at(const filedb_fixed& db, int fd, int64_t offset, const void* record) {
    return lseek(fd, offset, SEEK_SET) >= 0 && write_record(db, fd, record);
}

bool read_record_at(const filedb_fixed& db, int fd, int64_t offset, char* record) {
    return lseek(fd, offset, SEEK_SET) >= 0 && zt::read_all(fd, record, size_of_record(db));
}

bool truncate_to(int fd, int64_t length) {
    const bool truncated = ftruncate(fd, length) == 0;
    count_write(fd);
    return truncated;
}

// --- reading ------------------------------------------------------------------------------------

// Reads records from where the descriptor stands, which is the file's start.
class Scan {
  public:
    Scan(zt::Site site, const filedb_fixed& db, int fd, const WorkingBuffer& long_record)
        : site_(site), db_(db), fd_(fd), size_(size_of_record(db)) {
        if (exceeds_block(db)) {
            block_ = long_record.get();
            capacity_ = size_;
        } else {
            block_ = inside_;
            capacity_ = kBlockSize / size_ * size_;
        }
        ahead_ = capacity_;
    }
    Scan(const Scan&) = delete;
    Scan& operator=(const Scan&) = delete;

    // Reads the next records, at least one. False, with a result, when there is none.
    bool read_block() {
        offset_ += static_cast<int64_t>(whole_);
        filled_ -= whole_;
        memmove(block_, block_ + whole_, filled_);
        whole_ = 0;
        while (filled_ < size_)
            if (!read_on()) return false;
        whole_ = filled_ / size_ * size_;
        ahead_ = std::min(2 * ahead_, capacity_);
        return true;
    }

    // The whole records of the block.
    char* begin() { return block_; }
    char* end() { return block_ + whole_; }

    int64_t offset_of(const char* record) const { return offset_ + (record - block_); }

    // Forgets what was read behind this record, to read it again: one record first, for whoever
    // wrote now may write again soon, then more. False where that fails.
    bool go_on_behind(const char* record) {
        offset_ = offset_of(record) + static_cast<int64_t>(size_);
        filled_ = whole_ = 0;
        ahead_ = size_;
        return lseek(fd_, offset_, SEEK_SET) >= 0;
    }

    // kDone at the file's end.
    int result() const { return result_; }

  private:
    bool read_on() {
        const ssize_t count = read(fd_, block_ + filled_, ahead_ - filled_);
        if (count > 0) {
            filled_ += static_cast<size_t>(count);
            return true;
        }
        if (count < 0) {
            result_ = static_cast<int>(count);
            zt::report(site_, LOGGER_WARNING, "%s read %d", db_.path, result_);
        } else if (filled_ > 0) {
            result_ = kIncomplete;
            zt::report(site_, LOGGER_WARNING,
                       "%s read %d bytes struct size %d possible file corrupt", db_.path,
                       static_cast<int>(filled_), db_.record_size);
        }
        return false;
    }

    const zt::Site site_;
    const filedb_fixed& db_;
    const int fd_;
    const size_t size_;
    char* block_;
    size_t capacity_;     // of the block
    size_t ahead_;        // ... of which so many are filled at once, whole records
    size_t filled_ = 0;   // bytes in the block
    size_t whole_ = 0;    // ... that are whole records
    int64_t offset_ = 0;  // the block's, in the file
    int result_ = kDone;
    alignas(kCacheLine) char inside_[kBlockSize];  // the system copies faster to such a place
};

template <class Word>
Word word_at(const char* bytes) {
    Word word;
    memcpy(&word, bytes, sizeof word);
    return word;
}

// Keys of one kind tend to begin alike, and to differ within a few words: compared in line, for the
// call of memcmp() would take longer.
bool same_bytes(const char* a, const char* b, size_t size) {
    for (; size >= sizeof(uint64_t); size -= sizeof(uint64_t)) {
        if (word_at<uint64_t>(a) != word_at<uint64_t>(b)) return false;
        a += sizeof(uint64_t);
        b += sizeof(uint64_t);
    }
    return size == 0 || memcmp(a, b, size) == 0;
}

// The first record of the block that begins with `key`, or null. A key is at least a Word wide.
template <class Word>
const char* find_in_block(Scan& scan, const filedb_fixed& db, const char* key) {
    const Word first_word = word_at<Word>(key);
    const char* const end = scan.end();
    const size_t step = size_of_record(db);
    const size_t rest = db.key_size - sizeof(Word);
    for (const char* record = scan.begin(); record != end; record += step)
        if (word_at<Word>(record) == first_word &&
            same_bytes(record + sizeof(Word), key + sizeof(Word), rest))
            return record;
    return nullptr;
}

const char* find_in_block(Scan& scan, const filedb_fixed& db, const char* key) {
    if (db.key_size >= sizeof(uint64_t)) return find_in_block<uint64_t>(scan, db, key);
    if (db.key_size >= sizeof(uint32_t)) return find_in_block<uint32_t>(scan, db, key);
    if (db.key_size >= sizeof(uint16_t)) return find_in_block<uint16_t>(scan, db, key);
    return find_in_block<uint8_t>(scan, db, key);
}

// Reads until a record begins with `key`; its place is then `offset`. `last` (unless null) becomes
// the last record that was looked at.
int search(Scan& scan, const filedb_fixed& db, const void* key, void* last, int64_t& offset) {
    const size_t size = size_of_record(db);
    while (scan.read_block()) {
        const char* const match = find_in_block(scan, db, static_cast<const char*>(key));
        if (last) memcpy(last, match ? match : scan.end() - size, size);
        if (match) {
            offset = scan.offset_of(match);
            return kDone;
        }
    }
    return scan.result() == kDone ? kNotFound : scan.result();
}

// --- the operations' steps ----------------------------------------------------------------------

// `offset` may be null.
int append(zt::Site site, const filedb_fixed& db, int fd, const void* record, int64_t* offset) {
    if (lseek(fd, 0, SEEK_END) < 0) return kSeekFailed;
    if (!write_record(db, fd, record)) {
        zt::report(site, LOGGER_WARNING, "%s write failed", db.path);
        return kIncomplete;
    }
    if (offset) *offset = lseek(fd, 0, SEEK_CUR) - db.record_size;
    return kDone;
}

// Puts the file's last record over the one at `offset`, unless that is the last one, and cuts it
// off.
bool remove_record_at(const filedb_fixed& db, int fd, int64_t offset, char* buffer) {
    const int64_t end = lseek(fd, 0, SEEK_END);
    if (end < 0) return false;
    const int64_t last = end - db.record_size;
    if (offset < last &&
        !(read_record_at(db, fd, last, buffer) && write_record_at(db, fd, offset, buffer)))
        return false;
    return truncate_to(fd, last);
}

// Calls visit(fd, offset, record) for each record until a result is not 0.
template <class Visit>
int walk(zt::Site site, const filedb_fixed* db, int fd, Visit visit) {
    if (!has_records(db)) return kFailed;
    const WorkingBuffer working = allocate_record(*db);
    if (!working) return kFailed;
    const Access access(*db, fd, LOCK_SH);
    if (access.result() != kDone) return access.result();
    if (!access.rewind()) return kSeekFailed;

    Scan scan(site, *db, access.fd(), working);
    const uint32_t& writes = writes_through(access.fd());
    const size_t size = size_of_record(*db);
    while (scan.read_block()) {
        const uint32_t before = zt::load(writes);
        char* const end = scan.end();
        for (char* record = scan.begin(); record != end; record += size) {
            const int result =
                visit(access.fd(), scan.offset_of(record), record, static_cast<int32_t>(size));
            if (result != kDone) return result;
            if (zt::load(writes) == before) continue;
            if (!scan.go_on_behind(record)) return kSeekFailed;
            break;
        }
    }
    return scan.result();
}

}  // namespace

extern "C" int filedb_fixed_init(filedb_fixed* db, const char* path, uint32_t record_size,
                                 uint32_t key_type, uint32_t key_length) {
    const zt::Site here{kModule, __func__};
    if (!db || !path) return kFailed;

    const size_t length = strnlen(path, sizeof db->path - 1);
    memmove(db->path, path, length);  // it may be its own
    db->path[length] = '\0';
    db->record_size = static_cast<int32_t>(record_size);
    db->key_type = key_type;
    db->key_size = is_key_type(key_type) ? key_width(key_type, key_length) : 0;
    if (is_key_type(key_type)) return kDone;

    zt::report(here, LOGGER_WARNING, "invalid key_type: %d", static_cast<int>(key_type));
    return kFailed;
}

extern "C" int filedb_fixed_fdopen(const filedb_fixed* db) {
    const zt::Site here{kModule, __func__};
    if (!db) return kFailed;

    int fd = open(db->path, O_RDWR | O_CREAT | O_CLOEXEC, kFileMode);
    if (fd >= 0 && fd < zt::kFirstFreeDescriptor) {
        // What the host prints is not to end up in the database, and 0 would not be taken back.
        const zt::Descriptor standard_stream(fd);
        fd = fcntl(fd, F_DUPFD_CLOEXEC, zt::kFirstFreeDescriptor);
    }
    if (fd < 0) zt::report_call(here, "open");
    return fd;
}

extern "C" void filedb_fixed_fdclose(const filedb_fixed* /*db*/, int fd) { close(fd); }

extern "C" int filedb_fixed_insert(const filedb_fixed* db, int fd, const void* key,
                                   const void* record) {
    const zt::Site here{kModule, __func__};
    if (!has_keys(db) || !key || !record) return kFailed;
    const WorkingBuffer working = allocate_record(*db);
    if (!working) return kFailed;
    const Access access(*db, fd, LOCK_EX);
    if (access.result() != kDone) return access.result();

    // A search that fails is no reason not to append.
    if (access.rewind()) {
        Scan scan({kModule, "filedb_fixed_find"}, *db, access.fd(), working);
        int64_t offset;
        if (search(scan, *db, key, nullptr, offset) == kDone) return kKeyExists;
    }
    return append(here, *db, access.fd(), record, nullptr);
}

extern "C" int filedb_fixed_append_offset(const filedb_fixed* db, int fd, int64_t* offset,
                                          const void* /*spare*/, const void* record) {
    const zt::Site here{kModule, __func__};
    if (!has_records(db) || !record) return kFailed;
    const Access access(*db, fd, LOCK_EX);
    if (access.result() != kDone) return access.result();
    return append(here, *db, access.fd(), record, offset);
}

extern "C" int filedb_fixed_edit(const filedb_fixed* db, int fd, const void* key,
                                 const void* record, void* scratch) {
    const zt::Site here{kModule, __func__};
    if (!has_keys(db) || !key || !record) return kFailed;
    WorkingBuffer working;
    if ((!scratch || exceeds_block(*db)) && !(working = allocate_record(*db))) return kFailed;
    const Access access(*db, fd, LOCK_EX);
    if (access.result() != kDone) return access.result();
    if (!access.rewind()) return kSeekFailed;

    Scan scan(here, *db, access.fd(), working);
    int64_t offset;
    const int found = search(scan, *db, key, scratch, offset);
    if (found != kDone) return found;
    return write_record_at(*db, access.fd(), offset, record) ? kDone : db->record_size;
}

extern "C" int filedb_fixed_edit_offset(const filedb_fixed* db, int fd, int64_t offset,
                                        const void* /*spare*/, const void* record, void* scratch) {
    if (!has_records(db) || !record) return kFailed;
    WorkingBuffer working;
    if (!scratch && !(working = allocate_record(*db))) return kFailed;
    const Access access(*db, fd, LOCK_EX);
    if (access.result() != kDone) return access.result();
    if (!access.rewind()) return kSeekFailed;

    if (lseek(access.fd(), offset, SEEK_SET) < 0) return kOffsetFailed;
    return write_record(*db, access.fd(), record) ? kDone : kFailed;
}

extern "C" int filedb_fixed_remove(const filedb_fixed* db, int fd, const void* key) {
    const zt::Site here{kModule, __func__};
    if (!has_keys(db) || !key) return kFailed;
    const WorkingBuffer working = allocate_record(*db);
    const WorkingBuffer last = allocate_record(*db);
    if (!working || !last) return kFailed;
    const Access access(*db, fd, LOCK_EX);
    if (access.result() != kDone) return access.result();
    if (!access.rewind()) return kSeekFailed;

    Scan scan(here, *db, access.fd(), working);
    int64_t offset;
    const int found = search(scan, *db, key, nullptr, offset);
    if (found != kDone) return found;
    return remove_record_at(*db, access.fd(), offset, last.get()) ? kDone : db->record_size;
}

extern "C" int filedb_fixed_find(const filedb_fixed* db, int fd, const void* key, void* record) {
    const zt::Site here{kModule, __func__};
    if (!has_keys(db) || !key || !record) return kFailed;
    WorkingBuffer working;
    if (exceeds_block(*db) && !(working = allocate_record(*db))) return kFailed;
    const Access access(*db, fd, LOCK_SH);
    if (access.result() != kDone) return access.result();
    if (!access.rewind()) return kSeekFailed;

    Scan scan(here, *db, access.fd(), working);
    int64_t offset;
    return search(scan, *db, key, record, offset);
}

extern "C" int filedb_fixed_list(const filedb_fixed* db, int fd, void* context,
                                 filedb_fixed_list_callback callback) {
    if (!callback) return kFailed;
    return walk({kModule, __func__}, db, fd, [=](int, int64_t, char* record, int32_t size) {
        return callback(context, record, size);
    });
}

extern "C" int filedb_fixed_list_offset(filedb_fixed* db, int fd, void* context,
                                        filedb_fixed_list_offset_callback callback) {
    if (!callback) return kFailed;
    return walk({kModule, __func__}, db, fd,
                [=](int in_use, int64_t offset, char* record, int32_t size) {
                    return callback(context, db, in_use, offset, record, size);
                });
}
