#include <tests/support/browser.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <csignal>
#include <cstdlib>
#include <vector>

#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace zt_test {

namespace {

constexpr const char* kBrowser = "/usr/bin/chromium";

std::vector<std::string> command_for(const std::string& url, const BrowserSettings& settings,
                                     const std::string& profile) {
    std::vector<std::string> command = {
        kBrowser, "--headless", "--user-data-dir=" + profile, "--dump-dom",
        "--window-size=" + std::to_string(settings.width) + "," + std::to_string(settings.height),
        // The pages are the test's own, and root has no sandbox.
        "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
        // Nothing but the page: no look-ups, no updates, no first-run questions.
        "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1, EXCLUDE localhost",
        "--disable-quic", "--no-first-run", "--disable-background-networking",
        "--disable-component-update", "--disable-sync", "--disable-extensions"};
    if (!settings.screenshot.empty()) command.push_back("--screenshot=" + settings.screenshot);
    command.push_back(url);
    return command;
}

std::vector<char*> pointers_to(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

// Starts the command as the leader of a session of its own, with these for standard output and
// error and no other descriptor.
pid_t start(std::vector<std::string> command, std::vector<std::string> environment, int out,
            int err) {
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attributes;
    sigset_t none;
    sigemptyset(&none);
    pid_t child = -1;
    if (posix_spawn_file_actions_init(&files) != 0 || posix_spawnattr_init(&attributes) != 0 ||
        posix_spawn_file_actions_addopen(&files, 0, "/dev/null", 0, 0) != 0 ||
        posix_spawn_file_actions_adddup2(&files, out, 1) != 0 ||
        posix_spawn_file_actions_adddup2(&files, err, 2) != 0 ||
        posix_spawn_file_actions_addclosefrom_np(&files, 3) != 0 ||
        posix_spawnattr_setsigmask(&attributes, &none) != 0 ||
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK) != 0)
        abort();
    if (posix_spawn(&child, command[0].c_str(), &files, &attributes, pointers_to(command).data(),
                    pointers_to(environment).data()) != 0)
        child = -1;
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&files);
    return child;
}

}  // namespace

std::string browser_missing() {
    return access(kBrowser, X_OK) == 0 ? "" : "chromium is not installed";
}

Browsed browse(const std::string& url, const BrowserSettings& settings) {
    const ScratchDirectory home;
    const int out = memfd_create("browser-out", MFD_CLOEXEC);
    const int err = memfd_create("browser-err", MFD_CLOEXEC);
    if (out < 0 || err < 0) abort();

    // What the browser leaves behind becomes this process's child, to be waited for as well.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    Browsed page;
    const pid_t child = start(
        command_for(url, settings, home / "profile"),
        {"PATH=/usr/bin:/bin", "HOME=" + home.path(), "TMPDIR=" + home.path(), "LANG=C.UTF-8"}, out,
        err);
    if (child > 0) {
        int status = 0;
        const bool ended =
            eventually([&] { return waitpid(child, &status, WNOHANG) == child; }, settings.limit);
        page.ended = ended && WIFEXITED(status) && WEXITSTATUS(status) == 0;
        kill(-child, SIGKILL);
        while (waitpid(-child, nullptr, 0) > 0) {
        }
    }
    prctl(PR_SET_CHILD_SUBREAPER, 0);
    page.dom = whole_file(out);
    page.log = whole_file(err);
    close(out);
    close(err);
    return page;
}

}  // namespace zt_test
