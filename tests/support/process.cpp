#include <tests/support/process.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include <dirent.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#    include <sanitizer/lsan_interface.h>
#endif

namespace zt_test {

namespace {

int entries_of(const char* directory) {
    DIR* listing = opendir(directory);
    if (!listing) abort();
    int count = 0;
    while (const dirent* entry = readdir(listing))
        if (entry->d_name[0] != '.') ++count;
    closedir(listing);
    return count;
}

void* call_function(void* argument) {
    (*static_cast<const std::function<void()>*>(argument))();
    return nullptr;
}

}  // namespace

ChildResult run_in_child(const std::function<void()>& work) {
    const int err = memfd_create("child-stderr", 0);
    const int out = memfd_create("child-stdout", 0);
    fflush(nullptr);
    const pid_t child = fork();
    if (child < 0) abort();
    if (child == 0) {
#if defined(__SANITIZE_ADDRESS__)
        __lsan_disable();  // a fatal path leaves by exit() with its memory in use
#endif
        dup2(err, 2);
        dup2(out, 1);
        work();
        fflush(nullptr);
        _exit(0);
    }

    ChildResult result;
    int status = 0;
    const bool ended = eventually([&] { return waitpid(child, &status, WNOHANG) == child; },
                                  std::chrono::seconds(60));
    if (!ended) {
        kill(child, SIGKILL);
        waitpid(child, &status, 0);
    }
    result.exited = ended && WIFEXITED(status);
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status);
    result.err = whole_file(err);
    result.out = whole_file(out);
    close(err);
    close(out);
    return result;
}

void run_on_stack(size_t bytes, const std::function<void()>& work) {
    pthread_attr_t attributes;
    pthread_t thread;
    if (pthread_attr_init(&attributes) != 0 || pthread_attr_setstacksize(&attributes, bytes) != 0 ||
        pthread_create(&thread, &attributes, call_function,
                       const_cast<std::function<void()>*>(&work)) != 0)
        abort();
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
}

std::string whole_file(int descriptor) {
    struct stat status;
    if (fstat(descriptor, &status) != 0) abort();
    std::string text(static_cast<size_t>(status.st_size), '\0');
    if (pread(descriptor, text.data(), text.size(), 0) != status.st_size) abort();
    return text;
}

int thread_count() { return entries_of("/proc/self/task"); }
int descriptor_count() { return entries_of("/proc/self/fd") - 1; }

}  // namespace zt_test
