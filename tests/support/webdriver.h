// A browser that a test looks into while it runs: Chromium without a window, by way of
// chromedriver. browser.h opens a page once; this one stays.
//
//     if (!driven_browser_missing().empty()) GTEST_SKIP() << driven_browser_missing();
//     DrivenBrowser browser;
//     browser.open(url);
//     EXPECT_TRUE(eventually([&] { return browser.value("document.title") == "ready"; }));
#pragma once

#include <tests/support/program.h>
#include <tests/support/scratch.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace zt_test {

// Why there is no such browser here; empty where there is one.
std::string driven_browser_missing();

class DrivenBrowser {
  public:
    enum class Scheme { light, dark };

    DrivenBrowser();
    ~DrivenBrowser();
    DrivenBrowser(const DrivenBrowser&) = delete;
    DrivenBrowser& operator=(const DrivenBrowser&) = delete;

    void open(const std::string& url);

    // What a JavaScript expression is, as text; a promise is waited for. "(failed: ...)" when there
    // is no such value.
    std::string value(const std::string& expression);

    // The window's size, and what prefers-color-scheme says. Below 500 pixels of width the window
    // is a phone's.
    void show_as(int width, int height, Scheme scheme);

    // What the window shows, as a PNG.
    std::string screenshot();

  private:
    std::string ask(const std::string& method, const std::string& path, const std::string& body);
    std::string command(const std::string& name, const std::string& parameters);

    ScratchDirectory home_;
    std::unique_ptr<Program> driver_;
    uint16_t port_ = 0;
    std::string session_;  // the path of all that belongs to it
};

}  // namespace zt_test
