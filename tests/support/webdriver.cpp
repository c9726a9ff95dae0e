#include <tests/support/process.h>
#include <tests/support/sockets.h>
#include <tests/support/webdriver.h>

#include <ztlib/utils/converters.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <unistd.h>

namespace zt_test {

namespace {

constexpr const char* kBrowser = "/usr/bin/chromium";
constexpr const char* kDriver = "/usr/bin/chromedriver";

constexpr const char* kCapabilities = R"({"capabilities":{"alwaysMatch":{"goog:chromeOptions":{
    "binary":"/usr/bin/chromium","args":["--headless=new","--no-sandbox","--disable-gpu",
    "--disable-dev-shm-usage","--hide-scrollbars",
    "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1, EXCLUDE localhost",
    "--disable-quic","--no-first-run","--disable-background-networking",
    "--disable-component-update","--disable-sync","--disable-extensions"]}}}})";

std::string json_text(std::string_view text) {
    std::string result = "\"";
    for (const char c : text) {
        if (c == '\n') {
            result += "\\n";
            continue;
        }
        if (c == '"' || c == '\\') result += '\\';
        result += c;
    }
    return result + '"';
}

// The text behind "name":" up to the next quotation mark; the values asked for hold no escapes.
std::string member(const std::string& json, const std::string& name) {
    const std::string key = "\"" + name + "\":\"";
    const size_t at = json.find(key);
    if (at == std::string::npos) return "(failed: " + json + ")";
    const size_t begin = at + key.size();
    return json.substr(begin, json.find('"', begin) - begin);
}

std::string percent_decoded(const std::string& text) {
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size()) {
            result += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

}  // namespace

std::string driven_browser_missing() {
    if (access(kBrowser, X_OK) != 0) return "chromium is not installed";
    if (access(kDriver, X_OK) != 0) return "chromium-driver is not installed";
    return "";
}

DrivenBrowser::DrivenBrowser() {
    driver_ = std::make_unique<Program>(Strings{kDriver, "--port=0"}, [this] {
        setsid();
        setenv("HOME", home_.path().c_str(), 1);
        setenv("TMPDIR", home_.path().c_str(), 1);
        setenv("LANG", "C.UTF-8", 1);
    });
    const std::string started = "started successfully on port ";
    eventually([&] {
        const std::string out = driver_->out();
        const size_t at = out.find(started);
        if (at == std::string::npos || out.find('\n', at) == std::string::npos) return false;
        port_ = static_cast<uint16_t>(std::atoi(out.c_str() + at + started.size()));
        return true;
    });
    session_ = "/session/" + member(ask("POST", "/session", kCapabilities), "sessionId");
}

DrivenBrowser::~DrivenBrowser() {
    ask("DELETE", session_, "");
    kill(-driver_->pid(), SIGKILL);
}

// One request of the driver's own HTTP; the answer's body.
std::string DrivenBrowser::ask(const std::string& method, const std::string& path,
                               const std::string& body) {
    const Fd connection = connect_to(port_);
    send_all(connection.get(), method + " " + path +
                                   " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port_) +
                                   "\r\nContent-Type: application/json\r\nContent-Length: " +
                                   std::to_string(body.size()) + "\r\n\r\n" + body);
    constexpr const char* kLength = "Content-Length:";
    std::string head;
    while (!head.ends_with("\r\n\r\n")) {
        const std::string byte = receive(connection.get(), 1);
        if (byte.empty()) return "no answer";
        head += byte;
    }
    const size_t length = head.find(kLength);
    if (length == std::string::npos) return head;
    return receive(connection.get(), std::stoul(head.substr(length + strlen(kLength))));
}

std::string DrivenBrowser::command(const std::string& name, const std::string& parameters) {
    return ask("POST", session_ + "/goog/cdp/execute",
               "{\"cmd\":" + json_text(name) + ",\"params\":" + parameters + "}");
}

void DrivenBrowser::open(const std::string& url) {
    ask("POST", session_ + "/url", "{\"url\":" + json_text(url) + "}");
}

// The value comes percent-encoded, so that its JSON has nothing to unescape.
std::string DrivenBrowser::value(const std::string& expression) {
    const std::string script =
        "const done = arguments[0];"
        "(async () => String(await (" +
        expression +
        ")))()"
        ".catch(error => `(failed: ${error})`)"
        ".then(text => done(encodeURIComponent(text)));";
    return percent_decoded(member(ask("POST", session_ + "/execute/async",
                                      "{\"args\":[],\"script\":" + json_text(script) + "}"),
                                  "value"));
}

void DrivenBrowser::show_as(int width, int height, Scheme scheme) {
    command("Emulation.setDeviceMetricsOverride",
            "{\"width\":" + std::to_string(width) + ",\"height\":" + std::to_string(height) +
                ",\"deviceScaleFactor\":1,\"mobile\":" + (width < 500 ? "true" : "false") + "}");
    command("Emulation.setEmulatedMedia",
            std::string("{\"features\":[{\"name\":\"prefers-color-scheme\",\"value\":\"") +
                (scheme == Scheme::dark ? "dark" : "light") + "\"}]}");
    // Until it is drawn so.
    value("new Promise(go => requestAnimationFrame(() => requestAnimationFrame(go)))");
}

std::string DrivenBrowser::screenshot() {
    const std::string base64 = member(command("Page.captureScreenshot", "{}"), "data");
    unsigned length = 0;
    unsigned char* bytes =
        base64decode_(base64.data(), static_cast<unsigned>(base64.size()), &length);
    if (!bytes) return "";
    const std::string png(reinterpret_cast<const char*>(bytes), length);
    free(bytes);
    return png;
}

}  // namespace zt_test
