// A browser talks to a server made of the library's own parts: listener, thread pool, HTTP document
// and WebSocket functions. Both sides say what they got.

#include <ztlib/htmldoc/htmldoc.h>
#include <ztlib/network/socket_listener.h>
#include <ztlib/network/websocket.h>
#include <ztlib/pools/threadpool/threadpool.h>
#include <ztlib/sptrlist/sptrlist.h>

#include <tests/support/browser.h>
#include <tests/support/capture.h>
#include <tests/support/process.h>
#include <tests/support/sockets.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

using namespace zt_test;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// Texts up to 255 bytes come back in capitals, larger ones as their length. The page says in its
// title, and in its last request, what came and how the connection ended.
constexpr const char* kPage = R"(<!doctype html>
<title>unfinished</title>
<img src="/hold" alt="">
<script>
const sizes = [0, 1, 125, 126, 127, 255, 65535, 65536];
const letters = n => Array.from({length: n}, (_, i) => String.fromCharCode(97 + i % 26)).join('');
const expected = n => n <= 255 ? letters(n).toUpperCase() : String(n);
const got = [];
const socket = new WebSocket(`ws://${location.host}/socket`);
socket.onopen = () => sizes.forEach(n => socket.send(letters(n)));
socket.onmessage = event => {
    got.push(event.data);
    if (got.length == 1 + sizes.length) socket.close(1000);
};
socket.onclose = event => {
    const right = sizes.filter((n, i) => got[i + 1] === expected(n));
    document.title = [got[0], ...right, event.code, event.wasClean ? 'clean' : 'broken'].join('.');
    fetch('/verdict?page=' + document.title);
};
</script>
)";
constexpr const char* kVerdict = "hello.0.1.125.126.127.255.65535.65536.1000.clean";

std::string letters(size_t n) {
    std::string text(n, ' ');
    for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('a' + i % 26);
    return text;
}

std::string answer_to(const std::string& text) {
    if (text.size() > 255) return std::to_string(text.size());
    std::string capitals = text;
    for (char& c : capitals) c = static_cast<char>(toupper(c));
    return capitals;
}

std::string rendered(htmldoc& response) {
    buffer text;
    buffer_init(&text);
    htmldoc_unwrap(&text.data, &text.capacity, &text.length, &response, false);
    std::string bytes(text.data, text.length);
    buffer_free(&text, 0);
    return bytes;
}

std::string http_answer(const std::string& body) {
    htmldoc response;
    htmldoc_init(&response);
    strcpy(response.method, "HTTP/1.1");
    response.url_length = 200;
    strcpy(response.protocol, "OK");
    htmldoc_add_option(&response.options, "Content-Type", "text/html");
    htmldoc_add_option(&response.options, "Content-Length", std::to_string(body.size()).c_str());
    htmldoc_body_append_str(&response, body.c_str());
    const std::string text = rendered(response);
    htmldoc_free(&response, 0);
    return text;
}

std::string text_frame(const std::string& text) {
    std::string frame(text.size() + 4, '\0');
    unsigned length = 0;
    websocket_unwrap(text.data(), static_cast<int>(text.size()),
                     reinterpret_cast<unsigned char*>(frame.data()), &length);
    frame.resize(length);
    return frame;
}

// How long the frame in front of `bytes` is, which has more bytes behind it.
size_t frame_size(const std::string& bytes) {
    const auto byte = [&](size_t i) { return size_t{static_cast<unsigned char>(bytes[i])}; };
    const size_t key = byte(1) & 0x80 ? 4 : 0;
    const size_t announced = byte(1) & 0x7F;
    if (announced < 126) return 2 + key + announced;
    const size_t length_size = announced == 126 ? 2 : 8;
    size_t length = 0;
    for (size_t i = 0; i < length_size; ++i) length = length << 8 | byte(2 + i);
    return 2 + length_size + key + length;
}

class WebServer {
  public:
    WebServer() : pool_(threadpool_create(1)), port_(free_port()) {
        threadpool_start(pool_);
        listener_ = socket_listener_open("127.0.0.1", port_, accept, this);
    }

    // After this, what the server saw can be read.
    void stop() {
        socket_listener_close(listener_);
        socket_listener_wait(listener_);
        EXPECT_TRUE(eventually([this] { return connections_ == 0; }));

        auto* worker = static_cast<threadpool_thread*>(pool_->threads[1]);
        threadpool_destroy(pool_);
        EXPECT_EQ(sptrlist_count(worker->nodes), 0);
        sptrlist_free(worker->nodes);
        sem_destroy(&worker->wake);
        pthread_mutex_destroy(&worker->mutex);
        free(worker);
    }

    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/"; }

    std::vector<std::string> texts;  // of the frames that came
    std::string verdict;
    int opened = 0;
    int closed = 0;

  private:
    struct Connection {
        explicit Connection(WebServer& s, int f) : server(s), fd(f) { htmldoc_init(&request); }
        ~Connection() { htmldoc_free(&request, 0); }

        WebServer& server;
        int fd;
        htmldoc request;
        bool upgraded = false;
        std::string frames;  // bytes of frames that are not complete

        std::mutex mutex;
        std::string inbox;  // under the mutex
    };

    static void accept(void* server, int fd, sockaddr*, unsigned) {
        auto& self = *static_cast<WebServer*>(server);
        auto* connection = new Connection(self, fd);
        threadpool_node* node = threadpool_node_create(connection);
        node->fd = fd;
        node->data_cb = receive;
        node->process_cb = process;
        node->remove_cb = remove;
        ++self.connections_;
        EXPECT_EQ(threadpool_entry(self.pool_, node), 0);
    }

    static int32_t receive(void* user, void* bytes, int32_t count) {
        auto& c = *static_cast<Connection*>(user);
        const std::lock_guard lock(c.mutex);
        c.inbox.append(static_cast<const char*>(bytes), static_cast<size_t>(count));
        return count;
    }

    static int32_t process(void* user) {
        auto& c = *static_cast<Connection*>(user);
        std::string bytes;
        {
            const std::lock_guard lock(c.mutex);
            bytes.swap(c.inbox);
        }
        return c.upgraded ? c.server.take_frames(c, bytes) : c.server.take_request(c, bytes);
    }

    static void remove(void* user) {
        auto* c = static_cast<Connection*>(user);
        --c->server.connections_;
        delete c;
    }

    int32_t take_request(Connection& c, const std::string& bytes) {
        const int result = htmldoc_wrap(&c.request, bytes.data(), static_cast<int>(bytes.size()));
        if (result != 0) return result < 0 ? -1 : 0;

        const std::string path(c.request.url, c.request.url_length);
        if (path == "/socket") return upgrade(c);
        if (path == "/hold") {
            held_.push_back(c.fd);
        } else if (path == "/verdict") {
            const char* page = htmldoc_getvalue_option(&c.request.get_params, "page");
            verdict = page ? page : "";
            send_all(c.fd, http_answer("thank you"));
            for (const int fd : held_) send_all(fd, http_answer("go on"));
        } else {
            send_all(c.fd, http_answer(path == "/" ? kPage : "nothing"));
        }
        htmldoc_free(&c.request, 0);
        htmldoc_init(&c.request);
        return 0;
    }

    int32_t upgrade(Connection& c) {
        htmldoc response;
        htmldoc_init(&response);
        EXPECT_EQ(websocket_handshake(&c.request, &response), 0);
        send_all(c.fd, rendered(response) + text_frame("hello"));
        htmldoc_free(&response, 0);
        c.upgraded = true;
        ++opened;
        return 0;
    }

    int32_t take_frames(Connection& c, const std::string& bytes) {
        c.frames += bytes;
        size_t size = c.frames.size();
        while (size > 0) {
            std::string text(size, '\0');
            unsigned length = 0, frame = 0;
            const int result = websocket_wrap(reinterpret_cast<unsigned char*>(c.frames.data()),
                                              static_cast<int>(size), text.data(), &length, &frame);
            if (result == -8) {
                ++closed;
                send_all(c.fd, "\x88\x02\x03\xe8");  // a close frame with code 1000
                return -1;
            }
            if (result == 7) {
                size = frame_size(c.frames);
                continue;
            }
            if (result != 0) return 0;  // more bytes are to come

            EXPECT_EQ(frame, size);
            text.resize(length);
            texts.push_back(text);
            send_all(c.fd, text_frame(answer_to(text)));
            c.frames.erase(0, frame);
            size = c.frames.size();
        }
        return 0;
    }

    threadpool* pool_;
    socket_listener* listener_ = nullptr;
    uint16_t port_;
    std::atomic<int> connections_{0};
    std::vector<int> held_;
};

}  // namespace

TEST(WebSocketInABrowser, CarriesTextsBothWaysUntilThePageCloses) {
    if (const std::string reason = browser_missing(); !reason.empty()) GTEST_SKIP() << reason;
    const CapturedStderr traces;
    WebServer server;

    const Browsed page = browse(server.url());
    server.stop();

    EXPECT_TRUE(page.ended) << page.log;
    EXPECT_THAT(page.dom, HasSubstr(std::string("<title>") + kVerdict + "</title>"));
    EXPECT_EQ(server.verdict, kVerdict);
    EXPECT_EQ(server.opened, 1);
    EXPECT_EQ(server.closed, 1);
    EXPECT_THAT(server.texts,
                ElementsAre(letters(0), letters(1), letters(125), letters(126), letters(127),
                            letters(255), letters(65535), letters(65536)));
}
