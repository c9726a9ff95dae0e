// HTTP documents: a message that arrives whole, one that arrives byte by byte, and form bodies.
// Every engine ends up with the same strings: method, url, each header, the body.

#include <ztlib/htmldoc/htmldoc.h>

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#ifdef HAVE_BEAST
#    include <boost/beast/core/flat_buffer.hpp>
#    include <boost/beast/http.hpp>
#endif
#ifdef HAVE_POCO
#    include <Poco/Net/HTMLForm.h>
#    include <Poco/Net/HTTPRequest.h>
#    include <Poco/Net/HTTPResponse.h>
#    include <Poco/URI.h>

#    include <istream>
#    include <sstream>
#    include <streambuf>
#endif
#ifdef HAVE_HTTP_PARSER
#    include <http_parser.h>
#endif
#ifdef HAVE_LIBEVENT
#    include <event2/http.h>
#    include <event2/keyvalq_struct.h>
#endif
#ifdef HAVE_GLIB
#    include <glib.h>
#endif

namespace {

void require(bool condition, const char* what) {
    if (condition) return;
    fprintf(stdout, "bench: wrong answer: %s\n", what);
    exit(1);
}

// --- the messages --------------------------------------------------------------------------------

struct Message {
    const char* name;
    std::string text;
    bool is_request;
    size_t headers;
    size_t body;
};

std::string letters(size_t n) {
    std::string text(n, ' ');
    for (size_t i = 0; i < n; i++) text[i] = static_cast<char>('a' + i * 7 % 26);
    return text;
}

Message browser_get() {
    return {"get",
            "GET /search?q=blue+shoes&lang=en HTTP/1.1\r\n"
            "Host: www.example.org\r\n"
            "User-Agent: Mozilla/5.0 (X11; Linux x86_64; rv:109.0) Gecko/20100101 Firefox/115.0\r\n"
            "Accept: text/html,application/xhtml+xml,application/xml;q=0.9,*/*;q=0.8\r\n"
            "Accept-Language: en-US,en;q=0.5\r\n"
            "Accept-Encoding: gzip, deflate, br\r\n"
            "Referer: https://www.example.org/\r\n"
            "Connection: keep-alive\r\n"
            "Cookie: session=0123456789abcdef0123456789abcdef; theme=dark\r\n"
            "Upgrade-Insecure-Requests: 1\r\n"
            "Sec-Fetch-Dest: document\r\n"
            "Sec-Fetch-Mode: navigate\r\n"
            "Cache-Control: max-age=0\r\n"
            "\r\n",
            true, 12, 0};
}

// What a command-line client sends.
Message form_post() {
    std::string form = "name=" + letters(300) + "&mail=" + letters(300) + "&text=";
    form += letters(1024 - form.size());
    return {"post",
            "POST /form HTTP/1.1\r\n"
            "Host: www.example.org\r\n"
            "User-Agent: curl/7.88.1\r\n"
            "Accept: */*\r\n"
            "Content-Length: 1024\r\n"
            "Content-Type: application/x-www-form-urlencoded\r\n"
            "\r\n" +
                form,
            true, 5, 1024};
}

Message page_response() {
    return {"response",
            "HTTP/1.1 200 OK\r\n"
            "Date: Mon, 01 Jan 2024 10:00:00 GMT\r\n"
            "Server: Apache/2.4.57 (Debian)\r\n"
            "Last-Modified: Sun, 31 Dec 2023 23:59:59 GMT\r\n"
            "ETag: \"2aa6-60d5a1a1f3a40\"\r\n"
            "Accept-Ranges: bytes\r\n"
            "Content-Length: 342\r\n"
            "Connection: close\r\n"
            "Content-Type: text/html\r\n"
            "\r\n" +
                letters(342),
            false, 8, 342};
}

// --- ours ----------------------------------------------------------------------------------------

size_t count(const htmldoc_option* node) {
    size_t n = 0;
    for (; node; node = node->next) n++;
    return n;
}

void run_ztlib(benchmark::State& state, const Message& m, size_t piece) {
    const auto parse = [&](htmldoc& d) {
        htmldoc_init(&d);
        int result = 1;
        for (size_t i = 0; i < m.text.size(); i += piece)
            result = htmldoc_wrap(&d, m.text.data() + i,
                                  static_cast<int>(std::min(piece, m.text.size() - i)));
        return result;
    };
    htmldoc d;
    require(parse(d) == 0 && count(d.options) == m.headers && d.body.length == m.body, "ztlib");
    htmldoc_free(&d, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(parse(d));
        htmldoc_free(&d, 0);
    }
}

// --- what any parser that keeps the same strings must do -----------------------------------------

void run_floor(benchmark::State& state, const Message& m) {
    std::vector<std::string_view> words;  // names and values in turn
    htmldoc parsed;
    htmldoc_init(&parsed);
    htmldoc_wrap(&parsed, m.text.data(), static_cast<int>(m.text.size()));
    for (const htmldoc_option* list : {parsed.options, parsed.get_params})
        for (const htmldoc_option* node = list; node; node = node->next) {
            words.emplace_back(node->name);
            words.emplace_back(node->value);
        }
    const std::string url(parsed.url);
    const std::string body(parsed.body.data, parsed.body.length);

    struct Node {
        char* name;
        char* value;
        Node* next;
        Node** link;
    };
    const auto copy = [](std::string_view text, size_t spare) {
        char* to = static_cast<char*>(malloc(text.size() + spare));
        memcpy(to, text.data(), text.size());
        to[text.size()] = '\0';
        return to;
    };
    for (auto _ : state) {
        char* url_copy = copy(url, 65);
        Node* head = nullptr;
        for (size_t i = 0; i < words.size(); i += 2) {
            auto* node = static_cast<Node*>(malloc(sizeof(Node)));
            *node = {copy(words[i], 1), copy(words[i + 1], 1), head, &head};
            head = node;
        }
        char* body_copy = body.empty() ? nullptr : copy(body, 1);
        benchmark::DoNotOptimize(head);
        free(url_copy);
        free(body_copy);
        while (head) {
            Node* next = head->next;
            free(head->name);
            free(head->value);
            free(head);
            head = next;
        }
    }
    htmldoc_free(&parsed, 0);
}

// --- peers ---------------------------------------------------------------------------------------

#ifdef HAVE_BEAST
template <bool is_request>
void run_beast(benchmark::State& state, const Message& m, size_t piece) {
    namespace beast = boost::beast;
    const auto parse = [&](auto& parser) {
        beast::flat_buffer waiting;  // Beast leaves partial input to its caller
        beast::error_code error;
        parser.eager(true);
        for (size_t i = 0; i < m.text.size(); i += piece) {
            const size_t n = std::min(piece, m.text.size() - i);
            if (waiting.size() == 0) {
                const boost::asio::const_buffer direct(m.text.data() + i, n);
                const size_t used = parser.put(direct, error);
                if (used < n)
                    waiting.commit(
                        boost::asio::buffer_copy(waiting.prepare(n - used), direct + used));
            } else {
                waiting.commit(boost::asio::buffer_copy(waiting.prepare(n),
                                                        boost::asio::buffer(m.text.data() + i, n)));
                waiting.consume(parser.put(waiting.data(), error));
            }
            if (error == beast::http::error::need_more) error = {};
        }
        return parser.is_done() && !error;
    };
    using Parser = beast::http::parser<is_request, beast::http::string_body>;
    {
        Parser parser;
        parser.header_limit(1 << 20);
        const bool done = parse(parser);
        const auto& fields = parser.get();
        const auto n = static_cast<size_t>(std::distance(fields.begin(), fields.end()));
        require(done && n == m.headers && fields.body().size() == m.body, "Beast");
    }
    for (auto _ : state) {
        Parser parser;
        parser.header_limit(1 << 20);
        benchmark::DoNotOptimize(parse(parser));
    }
}
#endif

#ifdef HAVE_POCO
// A stream of the message that hands out `piece` bytes at a time.
class Pieces : public std::streambuf {
  public:
    Pieces(const std::string& text, size_t piece) : text_(text), piece_(piece) {}

  protected:
    int_type underflow() override {
        if (at_ == text_.size()) return traits_type::eof();
        char* begin = const_cast<char*>(text_.data()) + at_;
        const size_t n = std::min(piece_, text_.size() - at_);
        at_ += n;
        setg(begin, begin, begin + n);
        return traits_type::to_int_type(*begin);
    }

  private:
    const std::string& text_;
    size_t piece_;
    size_t at_ = 0;
};

template <class PocoMessage>
void run_poco(benchmark::State& state, const Message& m, size_t piece) {
    const auto parse = [&](PocoMessage& message, std::string& body) {
        Pieces pieces(m.text, piece);
        std::istream stream(&pieces);
        message.read(stream);
        if (m.body == 0) return;
        body.resize(static_cast<size_t>(message.getContentLength64()));
        stream.read(body.data(), static_cast<std::streamsize>(body.size()));
    };
    {
        PocoMessage message;
        std::string body;
        parse(message, body);
        require(message.size() == m.headers && body == m.text.substr(m.text.size() - m.body),
                "POCO");
    }
    for (auto _ : state) {
        PocoMessage message;
        std::string body;
        parse(message, body);
        benchmark::DoNotOptimize(body.data());
        benchmark::DoNotOptimize(message);
    }
}
#endif

#ifdef HAVE_HTTP_PARSER
// http_parser keeps nothing itself; a user collects what it names.
struct Collected {
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    bool in_value = true;
    bool complete = false;
};

http_parser_settings collecting() {
    http_parser_settings settings;
    http_parser_settings_init(&settings);
    settings.on_url = [](http_parser* p, const char* at, size_t n) {
        static_cast<Collected*>(p->data)->url.append(at, n);
        return 0;
    };
    settings.on_header_field = [](http_parser* p, const char* at, size_t n) {
        auto& c = *static_cast<Collected*>(p->data);
        if (c.in_value) c.headers.emplace_back();
        c.in_value = false;
        c.headers.back().first.append(at, n);
        return 0;
    };
    settings.on_header_value = [](http_parser* p, const char* at, size_t n) {
        auto& c = *static_cast<Collected*>(p->data);
        c.in_value = true;
        c.headers.back().second.append(at, n);
        return 0;
    };
    settings.on_body = [](http_parser* p, const char* at, size_t n) {
        static_cast<Collected*>(p->data)->body.append(at, n);
        return 0;
    };
    settings.on_message_complete = [](http_parser* p) {
        static_cast<Collected*>(p->data)->complete = true;
        return 0;
    };
    return settings;
}

void run_http_parser(benchmark::State& state, const Message& m, size_t piece) {
    const http_parser_settings settings = collecting();
    http_parser_set_max_header_size(1 << 20);
    const auto parse = [&](Collected& c) {
        http_parser parser;
        http_parser_init(&parser, m.is_request ? HTTP_REQUEST : HTTP_RESPONSE);
        parser.data = &c;
        for (size_t i = 0; i < m.text.size(); i += piece)
            http_parser_execute(&parser, &settings, m.text.data() + i,
                                std::min(piece, m.text.size() - i));
    };
    {
        Collected c;
        parse(c);
        require(c.complete && c.headers.size() == m.headers && c.body.size() == m.body,
                "http_parser");
    }
    for (auto _ : state) {
        Collected c;
        parse(c);
        benchmark::DoNotOptimize(c.body.data());
    }
}
#endif

// --- a long header block, a byte at a time -------------------------------------------------------

Message long_block(size_t bytes) {
    Message m{"", "GET / HTTP/1.1\r\n", true, 0, 0};
    while (m.text.size() < bytes) {
        m.text += "X-Line-" + std::to_string(m.headers++) + ": " + letters(48) + "\r\n";
    }
    m.text += "\r\n";
    return m;
}

// --- forms ---------------------------------------------------------------------------------------

constexpr size_t kFields = 16;

// `escaped`: each value has an escape in it; else none has.
std::string form_text(bool escaped) {
    std::string text;
    for (size_t i = 0; i < kFields; i++) {
        if (i != 0) text += '&';
        text +=
            "field" + std::to_string(i) + "=" + letters(8) + (escaped ? "%40" : "x") + letters(8);
    }
    return text;
}

void form_ztlib(benchmark::State& state, const std::string& text) {
    // The document that splits its body in place needs it whole for every round.
    htmldoc d;
    htmldoc_init(&d);
    htmldoc_body_append(&d, text.data(), static_cast<int>(text.size()));
    d.header_ok = d.body_ok = 1;
    const auto split = [&] {
        memcpy(d.body.data, text.data(), text.size());
        const int result = htmldoc_wrap_post(&d);
        const size_t n = count(d.post_params);
        _htmldoc_options_free(&d.post_params);
        return result == 0 ? n : 0;
    };
    // What does not fit is said on standard error; a daemon's is a file, here one that keeps
    // nothing.
    fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(nowhere, STDERR_FILENO);
    require(split() == kFields, "ztlib's form");
    for (auto _ : state) benchmark::DoNotOptimize(split());
    dup2(saved, STDERR_FILENO);
    close(saved);
    close(nowhere);
    htmldoc_free(&d, 0);
}

#ifdef HAVE_LIBEVENT
void form_libevent(benchmark::State& state, const std::string& text) {
    const auto split = [&] {
        evkeyvalq fields;
        evhttp_parse_query_str(text.c_str(), &fields);
        size_t n = 0;
        for (const evkeyval* f = fields.tqh_first; f; f = f->next.tqe_next) n++;
        evhttp_clear_headers(&fields);
        return n;
    };
    require(split() == kFields, "libevent's form");
    for (auto _ : state) benchmark::DoNotOptimize(split());
}
#endif

#ifdef HAVE_GLIB
void form_glib(benchmark::State& state, const std::string& text) {
    const auto split = [&] {
        GHashTable* fields = g_uri_parse_params(text.data(), static_cast<gssize>(text.size()), "&",
                                                G_URI_PARAMS_WWW_FORM, nullptr);
        const size_t n = g_hash_table_size(fields);
        g_hash_table_unref(fields);
        return n;
    };
    require(split() == kFields, "GLib's form");
    for (auto _ : state) benchmark::DoNotOptimize(split());
}
#endif

#ifdef HAVE_POCO
void form_poco(benchmark::State& state, const std::string& text) {
    const auto split = [&] {
        std::istringstream stream(text);
        Poco::Net::HTMLForm form;
        form.read(stream);
        return form.size();
    };
    require(split() == kFields, "POCO's form");
    for (auto _ : state) benchmark::DoNotOptimize(split());
}
#endif

// --- registration --------------------------------------------------------------------------------

template <class Run, class... Arguments>
void add(const std::string& name, Run run, Arguments... arguments) {
    benchmark::RegisterBenchmark(name.c_str(),
                                 [=](benchmark::State& state) { run(state, arguments...); });
}

void add_message(const std::string& job, const Message& m, size_t piece) {
    add(job + "/ztlib", run_ztlib, m, piece);
    if (piece > 1) add(job + "/limit:floor", run_floor, m);
#ifdef HAVE_BEAST
    if (m.is_request)
        add(job + (piece > 1 ? "/shown:beast" : "/beast"), run_beast<true>, m, piece);
    else
        add(job + (piece > 1 ? "/shown:beast" : "/beast"), run_beast<false>, m, piece);
#endif
#ifdef HAVE_POCO
    if (m.is_request)
        add(job + "/poco", run_poco<Poco::Net::HTTPRequest>, m, piece);
    else
        add(job + "/poco", run_poco<Poco::Net::HTTPResponse>, m, piece);
#endif
#ifdef HAVE_HTTP_PARSER
    add(job + (piece > 1 ? "/shown:http_parser" : "/http_parser"), run_http_parser, m, piece);
#endif
}

void add_form(const std::string& job, bool escaped) {
    const std::string text = form_text(escaped);
    add(job + "/ztlib", form_ztlib, text);
#ifdef HAVE_LIBEVENT
    add(job + "/shown:libevent", form_libevent, text);
#endif
#ifdef HAVE_GLIB
    add(job + "/glib", form_glib, text);
#endif
#ifdef HAVE_POCO
    add(job + "/poco", form_poco, text);
#endif
}

const bool registered = [] {
    for (const Message& m : {browser_get(), form_post(), page_response()}) {
        add_message(std::string("http_document/whole/") + m.name, m, m.text.size());
        add_message(std::string("http_document/bytewise/") + m.name, m, 1);
    }
    for (const size_t kib : {8, 16, 32, 64})
        add("http_document/bytewise_block_" + std::to_string(kib) + "_kib/ztlib", run_ztlib,
            long_block(kib * 1024), size_t{1});
    add_form("http_document/form_escaped", true);
    add_form("http_document/form_plain", false);
    return true;
}();

}  // namespace
