// A real browser for pages that a test serves: Chromium, headless, with a profile of its own.
//
//     if (!browser_missing().empty()) GTEST_SKIP() << browser_missing();
//     const Browsed page = browse("http://127.0.0.1:" + port + "/");
//     EXPECT_THAT(page.dom, HasSubstr("<title>ready</title>"));
//
// The document is looked at when its load event fires, and that waits for every image the page asks
// for. So a page that is to be looked at later holds an image open, <img src="/hold">, which the
// test's server answers (with anything) when it is time.
#pragma once

#include <chrono>
#include <string>

namespace zt_test {

// Why there is no browser here; empty where there is one.
std::string browser_missing();

struct BrowserSettings {
    std::string screenshot;  // where to put a PNG of the page; empty: nowhere
    int width = 1000;        // of the window, in pixels
    int height = 700;
    std::chrono::seconds limit{60};  // then the browser is killed
};

struct Browsed {
    bool ended = false;  // by itself, with exit status 0
    std::string dom;     // the document as HTML, scripts' changes included
    std::string log;     // the browser's own messages, for a failure's text
};

// Opens `url`, and returns when the browser has ended, with all the processes that work for it. It
// inherits neither descriptors nor environment, and reaches loopback addresses alone.
Browsed browse(const std::string& url, const BrowserSettings& settings = {});

}  // namespace zt_test
