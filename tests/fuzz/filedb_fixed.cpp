// A database file of any content, under every operation: each gives what a model of the file gives
// that holds it as text, and leaves the same bytes behind.

#include <ztlib/db/filedb_fixed.h>
#include <ztlib/logger.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr uint32_t kGivenWidth = 9;
constexpr uint32_t kLongRecord = 33'000;  // longer than what is read at once

void check(bool condition) {
    if (!condition) abort();
}

// The input, taken from its front.
class Bytes {
  public:
    Bytes(const uint8_t* data, size_t size) : text_(reinterpret_cast<const char*>(data), size) {}
    uint8_t byte() {
        const std::string one = take(1);
        return static_cast<uint8_t>(one[0]);
    }
    // Zeros where there is not enough.
    std::string take(size_t count) {
        std::string taken = text_.substr(at_, count);
        at_ += taken.size();
        taken.resize(count);
        return taken;
    }
    std::string rest() {
        std::string taken = text_.substr(at_);
        at_ = text_.size();
        return taken;
    }
    bool done() const { return at_ == text_.size(); }

  private:
    const std::string text_;
    size_t at_ = 0;
};

struct Model {
    std::string content;
    size_t record_size;
    size_t key_size;

    size_t records() const { return content.size() / record_size; }
    bool cut() const { return content.size() % record_size != 0; }
    int at_end(int whole) const { return cut() ? -4 : whole; }

    // npos: none.
    size_t find(const std::string& key) const {
        for (size_t i = 0; i < records(); ++i)
            if (content.compare(i * record_size, key_size, key) == 0) return i * record_size;
        return std::string::npos;
    }
    void remove(size_t offset) {
        const size_t last = content.size() - record_size;
        if (offset < last) content.replace(offset, record_size, content.substr(last));
        content.resize(last);
    }
};

// A file in memory that opens by a path.
class File {
  public:
    explicit File(const std::string& content) : fd_(memfd_create("db", MFD_CLOEXEC)) {
        check(fd_ > 0 && pwrite(fd_, content.data(), content.size(), 0) ==
                             static_cast<ssize_t>(content.size()));
    }
    ~File() { close(fd_); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }
    std::string content() const {
        std::string text(static_cast<size_t>(lseek(fd_, 0, SEEK_END)), '\0');
        check(pread(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()));
        return text;
    }

  private:
    int fd_;
};

struct Listed {
    std::string text;
    size_t stop = SIZE_MAX;  // bytes

    int add(const void* record, int32_t size) {
        text.append(static_cast<const char*>(record), static_cast<size_t>(size));
        return text.size() >= stop ? 7 : 0;
    }
};

void compare_lists(filedb_fixed& db, int fd, const Model& model, uint8_t stop) {
    Listed all, some;
    check(filedb_fixed_list(&db, fd, &all, [](void* context, void* record, int32_t size) {
              return static_cast<Listed*>(context)->add(record, size);
          }) == model.at_end(0));
    const size_t whole = model.records() * model.record_size;
    check(all.text == model.content.substr(0, whole));

    some.stop = (stop + size_t{1}) * model.record_size;
    const int result = filedb_fixed_list_offset(
        &db, fd, &some,
        [](void* context, filedb_fixed*, int, int64_t offset, void* record, int32_t size) {
            auto* listed = static_cast<Listed*>(context);
            check(static_cast<size_t>(offset) == listed->text.size());
            return listed->add(record, size);
        });
    check(result == (some.stop <= whole ? 7 : model.at_end(0)));
    check(some.text == all.text.substr(0, some.stop));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    logger_to_syslog = 0;
    Bytes input(data, size);
    const uint8_t shape = input.byte();
    const uint32_t record_size = shape == 0xff ? kLongRecord : 1 + shape % 80u;
    const uint32_t key_size = 1 + input.byte() % record_size;
    const bool kept = input.byte() & 1;
    std::vector<std::string> steps;
    for (uint8_t count = input.byte() % 16; count > 0 && !input.done(); --count)
        steps.push_back(input.take(1 + key_size));

    Model model{input.rest(), record_size, key_size};
    const File file(model.content);
    filedb_fixed db;
    check(filedb_fixed_init(&db, file.path().c_str(), record_size, kGivenWidth, key_size) == 0);
    const int fd = kept ? filedb_fixed_fdopen(&db) : 0;

    for (const std::string& step : steps) {
        const auto what = static_cast<uint8_t>(step[0]);
        const std::string key = step.substr(1);
        std::string record = key;
        record.resize(record_size, step[0]);
        const size_t found = model.find(key);
        const bool there = found != std::string::npos;
        const int if_found = there ? 0 : model.at_end(1);
        std::string out(record_size, '-');
        switch (what % 6) {
            case 0:
                check(filedb_fixed_find(&db, fd, key.data(), out.data()) == if_found);
                if (model.records() > 0) {
                    const size_t last = there ? found : (model.records() - 1) * model.record_size;
                    check(out == model.content.substr(last, record_size));
                }
                break;
            case 1:
                check(filedb_fixed_insert(&db, fd, key.data(), record.data()) == (there ? -2 : 0));
                if (!there) model.content += record;
                break;
            case 2:
                check(filedb_fixed_edit(&db, fd, key.data(), record.data(),
                                        what & 0x40 ? out.data() : nullptr) == if_found);
                if (there) model.content.replace(found, record_size, record);
                break;
            case 3:
                check(filedb_fixed_remove(&db, fd, key.data()) == if_found);
                if (there) model.remove(found);
                break;
            case 4: {
                int64_t offset;
                check(filedb_fixed_append_offset(&db, fd, &offset, nullptr, record.data()) == 0);
                check(static_cast<size_t>(offset) == model.content.size());
                model.content += record;
                break;
            }
            default:
                compare_lists(db, fd, model, what);
        }
        check(file.content() == model.content);
    }
    compare_lists(db, fd, model, 0);
    if (kept) {
        check(lseek(fd, 0, SEEK_CUR) == 0);
        filedb_fixed_fdclose(&db, fd);
    }
    return 0;
}
