#include "database.h"

#include <ztlib/logger.h>

#include "text.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace inventory {
namespace {

constexpr const char* kModule = "inventory_server";

constexpr unsigned kBytesKey = 9;  // a key of as many bytes as one says
constexpr size_t kKeyBytes = kMaxName + 1;
constexpr size_t kRecordBytes = 16 * 1024;

struct Record {
    char name[kKeyBytes];
    int64_t reported;
    uint32_t length;
    char report[kRecordBytes - kKeyBytes - sizeof(int64_t) - sizeof(uint32_t)];
};
static_assert(sizeof(Record) == kRecordBytes);

// A host without interfaces and routes always has room.
static_assert(6 * (kMaxName + kMaxSystem) + 1000 < sizeof Record::report);

int64_t now() {
    using std::chrono::system_clock;
    return std::chrono::duration_cast<std::chrono::seconds>(system_clock::now().time_since_epoch())
        .count();
}

// --- records and hosts ---------------------------------------------------------------------------

// The host's report as text that a record has room for.
std::string report_text(const Host& host) {
    std::string text = to_text(*report_request(host));
    Host less = host;
    while (text.size() >= sizeof Record::report) {
        less.interfaces.resize(less.interfaces.size() / 2);
        less.routes.resize(less.routes.size() / 2);
        text = to_text(*report_request(less));
    }
    return text;
}

std::unique_ptr<Record> record_of(const Host& host) {
    auto record = std::make_unique<Record>();
    const std::string text = report_text(host);
    memcpy(record->name, host.name.data(), host.name.size());
    record->reported = now();
    record->length = static_cast<uint32_t>(text.size());
    memcpy(record->report, text.data(), text.size());
    return record;
}

// Throws Incomplete when the record holds no host.
Host host_of(const Record& record) {
    if (record.length >= sizeof record.report) throw Incomplete("the report is too long");
    const std::string text(record.report, record.length);
    const Document document(xmldoc_create());
    if (!document) throw std::bad_alloc();
    if (xmldoc_parse(document.get(), text.c_str()) != 0) throw Incomplete("the report is not XML");

    Host host = reported_host(*document);
    if (strncmp(record.name, host.name.c_str(), kKeyBytes) != 0)
        throw Incomplete("the report is another host's");
    host.age = static_cast<uint64_t>(std::max<int64_t>(now() - record.reported, 0));
    return host;
}

// --- reading the file ----------------------------------------------------------------------------

// What the walk over the file collects.
struct Walk {
    std::vector<Host>& hosts;
    std::map<std::string, int64_t>& places;
    bool out_of_memory = false;
};

// A damaged record is skipped, and its place stays its host's.
void take(Walk& walk, const Record& record, int64_t offset) {
    const std::string name(record.name, strnlen(record.name, sizeof record.name));
    if (is_plain(name, kMaxName)) walk.places[name] = offset;
    try {
        Host host = host_of(record);
        if (walk.hosts.size() < kMaxHosts) walk.hosts.push_back(std::move(host));
    } catch (const Incomplete& problem) {
        logger_log(LOGGER_WARNING, kModule, __func__, "skipped the record at byte %lld: %s",
                   static_cast<long long>(offset), problem.what());
    }
}

// The library's callback: no exception may pass through it.
int take_record(void* context, filedb_fixed*, int, int64_t offset, void* bytes, int) noexcept {
    Walk& walk = *static_cast<Walk*>(context);
    try {
        const auto record = std::make_unique<Record>();
        memcpy(record.get(), bytes, sizeof *record);
        take(walk, *record, offset);
        return 0;
    } catch (const std::bad_alloc&) {
        walk.out_of_memory = true;
        return 1;
    }
}

[[noreturn]] void fail(const std::string& path, const std::string& why) {
    throw std::runtime_error(path + ": " + why);
}

}  // namespace

// --- the file ------------------------------------------------------------------------------------

Database::Database(const std::string& path) {
    open(path);
    read(path);
}

void Database::open(const std::string& path) {
    if (path.size() >= sizeof file_.path) fail("--database", "the path is too long");
    filedb_fixed_init(&file_, path.c_str(), sizeof(Record), kBytesKey, kKeyBytes);
    descriptor_ = Descriptor(filedb_fixed_fdopen(&file_));
    if (!descriptor_) fail(path, strerror(errno));
    fcntl(descriptor_.get(), F_SETFD, FD_CLOEXEC);
    if (flock(descriptor_.get(), LOCK_EX | LOCK_NB) != 0)
        fail(path, errno == EWOULDBLOCK ? "another server uses it" : strerror(errno));
}

void Database::read(const std::string& path) {
    struct stat status {};
    if (fstat(descriptor_.get(), &status) != 0 || !S_ISREG(status.st_mode))
        fail(path, "not a regular file");

    Walk walk{hosts_, places_};
    filedb_fixed_list_offset(&file_, descriptor_.get(), &walk, take_record);
    if (walk.out_of_memory) throw std::bad_alloc();
    if (status.st_size != 0 && hosts_.empty()) fail(path, "not an inventory's database");

    // What a full disk or a crash left of a record.
    const int64_t rest = status.st_size % static_cast<int64_t>(sizeof(Record));
    if (rest != 0) cut_off(path, status.st_size - rest);
}

void Database::cut_off(const std::string& path, int64_t bytes) {
    if (ftruncate(descriptor_.get(), bytes) != 0) fail(path, strerror(errno));
}

void Database::keep(const Host& host) {
    const std::unique_ptr<Record> record = record_of(host);
    const int fd = descriptor_.get();

    const std::lock_guard lock(mutex_);
    const auto [at, is_new] = places_.try_emplace(host.name, 0);
    if (!is_new) {
        if (filedb_fixed_edit_offset(&file_, fd, at->second, nullptr, record.get(), record.get()) !=
            0)
            logger_log(LOGGER_WARNING, kModule, __func__, "cannot keep %s", host.name.c_str());
        return;
    }
    const off_t end = lseek(fd, 0, SEEK_END);
    if (filedb_fixed_append_offset(&file_, fd, &at->second, nullptr, record.get()) == 0) return;
    logger_log(LOGGER_WARNING, kModule, __func__, "cannot keep %s", host.name.c_str());
    places_.erase(at);
    if (end < 0 || ftruncate(fd, end) != 0)
        logger_log(LOGGER_WARNING, kModule, __func__, "half a record stays at the file's end");
}

}  // namespace inventory
