#include <tests/support/capture.h>

#include <cstdio>
#include <cstdlib>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace zt_test {

CapturedStream::CapturedStream(int descriptor)
    : descriptor_(descriptor), saved_(dup(descriptor)), file_(memfd_create("captured", 0)) {
    fflush(nullptr);
    if (saved_ < 0 || file_ < 0 || dup2(file_, descriptor_) < 0) abort();
}

CapturedStream::~CapturedStream() {
    fflush(nullptr);
    dup2(saved_, descriptor_);
    close(saved_);
    close(file_);
}

std::string CapturedStream::text() const {
    fflush(nullptr);
    struct stat status;
    if (fstat(file_, &status) != 0) abort();
    std::string text(static_cast<size_t>(status.st_size), '\0');
    if (pread(file_, text.data(), text.size(), 0) != status.st_size) abort();
    return text;
}

std::string CapturedStream::take() {
    const std::string all = text();
    const std::string fresh = all.substr(taken_);
    taken_ = all.size();
    return fresh;
}

SilentStderr::SilentStderr() : saved_(fcntl(2, F_DUPFD_CLOEXEC, 10)) {
    const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
    fflush(stderr);
    if (saved_ < 0 || null < 0 || dup2(null, 2) < 0) abort();
    close(null);
}

SilentStderr::~SilentStderr() {
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
}

std::vector<SystemLog::Opening> SystemLog::openings() const {
    std::lock_guard lock(mutex_);
    return openings_;
}

std::vector<SystemLog::Record> SystemLog::records() const {
    std::lock_guard lock(mutex_);
    return records_;
}

void SystemLog::clear() {
    std::lock_guard lock(mutex_);
    openings_.clear();
    records_.clear();
}

std::vector<std::string> SystemLog::messages() const {
    std::vector<std::string> messages;
    for (const Record& record : records()) {
        const size_t begin = record.text.find(" : ") + 3;
        messages.push_back(record.text.substr(begin, record.text.size() - begin - 1));
    }
    return messages;
}

std::vector<std::string> SystemLog::lines() const {
    std::vector<std::string> lines;
    for (const Record& record : records()) {
        const size_t ids = record.text.find(" p:");
        const size_t message = record.text.find(" : ") + 2;
        lines.push_back(record.text.substr(0, ids) +
                        record.text.substr(message, record.text.size() - message - 1));
    }
    return lines;
}

void SystemLog::opened(const char* identity, int options, int facility) {
    std::lock_guard lock(mutex_);
    openings_.push_back({identity, options, facility});
}

void SystemLog::record(int priority, const char* format, va_list arguments) {
    char text[8192];
    vsnprintf(text, sizeof text, format, arguments);
    std::lock_guard lock(mutex_);
    records_.push_back({priority, text});
}

SystemLog& system_log() {
    static SystemLog* log = new SystemLog;  // outlives every thread that may still log
    return *log;
}

}  // namespace zt_test
