// What the library wrote: to standard error or output, and to the system log.
#pragma once

#include <cstdarg>
#include <mutex>
#include <string>
#include <vector>

namespace zt_test {

// Redirects a stream's descriptor into a file of its own while it lives. Reading does not end it.
class CapturedStream {
  public:
    explicit CapturedStream(int descriptor);
    ~CapturedStream();
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;

    // All that was written so far.
    std::string text() const;
    // All that was written since the last take().
    std::string take();

  private:
    int descriptor_;
    int saved_;
    int file_;
    size_t taken_ = 0;
};

struct CapturedStderr : CapturedStream {
    CapturedStderr() : CapturedStream(2) {}
};
struct CapturedStdout : CapturedStream {
    CapturedStdout() : CapturedStream(1) {}
};

// Standard error to the null device: for what says too much to be kept.
class SilentStderr {
  public:
    SilentStderr();
    ~SilentStderr();
    SilentStderr(const SilentStderr&) = delete;
    SilentStderr& operator=(const SilentStderr&) = delete;

  private:
    int saved_;
};

// The system log as the library used it. Nothing reaches the host's own log.
class SystemLog {
  public:
    struct Opening {
        std::string identity;
        int options;
        int facility;
    };
    struct Record {
        int priority;
        std::string text;
    };

    std::vector<Opening> openings() const;
    std::vector<Record> records() const;
    void clear();

    // The messages alone: what follows " : " in each line, without the line's end.
    std::vector<std::string> messages() const;
    // The lines with process and thread id taken out: "WARN:queue:queue_create: calloc(): ...".
    std::vector<std::string> lines() const;

    void opened(const char* identity, int options, int facility);
    void record(int priority, const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)));

  private:
    mutable std::mutex mutex_;
    std::vector<Opening> openings_;
    std::vector<Record> records_;
};

SystemLog& system_log();

// An empty system log for the length of a test.
struct CapturedLog {
    CapturedLog() { system_log().clear(); }
    std::vector<std::string> messages() const { return system_log().messages(); }
    std::vector<std::string> lines() const { return system_log().lines(); }
};

}  // namespace zt_test
