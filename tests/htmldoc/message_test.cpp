// What both document families do alike.

#include <gmock/gmock.h>
#include <tests/htmldoc/documents.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <cerrno>
#include <cstring>
#include <random>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

template <class Family>
class HttpMessage : public testing::Test {
  protected:
    // What the parser prints when it refuses `raw`.
    static std::string report(const std::string& raw, const std::string& message) {
        return std::string(Family::prefix) + "_failed: request:\n" + raw + "\n" + message;
    }
    static std::string under(const char* name) { return Family::prefix + std::string(name); }
    static std::string hidden(const char* name) { return "_" + under(name); }
};

using Families = testing::Types<FirstFamily, SecondFamily>;
TYPED_TEST_SUITE(HttpMessage, Families);

const std::string kRequest =
    "GET /a?x=1&y=2 HTTP/1.1\r\n"
    "Host: h\r\n"
    "\r\n";

// What the parser makes of a CGI program's output, in the plainest words.
struct CgiHeader {
    int result = 1;
    Pairs options;

    explicit CgiHeader(const std::string& text) {
        const size_t end = text.find("\r\n\r\n");
        if (text[0] == '\r' || text[0] == '\n') result = -1;
        if (result == -1 || end == std::string::npos || end > text.find('\0')) return;
        result = 0;
        std::string line;
        for (const char c : text.substr(0, end) + "\n") {
            if (c != '\r' && c != '\n') {
                line += c;
                continue;
            }
            if (!add(line)) {
                result = -1;
                return;
            }
            line.clear();
        }
    }

    bool add(const std::string& line) {
        const size_t colon = line.find(':');
        if (colon == std::string::npos) return true;
        const size_t value = line.find_first_not_of(' ', colon + 1);
        if (value == std::string::npos) return false;
        options.insert(options.begin(), {line.substr(0, colon), line.substr(value)});
        return true;
    }
};

}  // namespace

// --- parsing -------------------------------------------------------------------------------------

TYPED_TEST(HttpMessage, HoldsAParsedRequest) {
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap(kRequest), 0);
    EXPECT_STREQ(d.record.method, "GET");
    EXPECT_EQ(d.url(), "/a");
    EXPECT_EQ(d.record.url_length, 2);
    EXPECT_STREQ(d.record.protocol, "HTTP/1.1");
    EXPECT_THAT(d.get_params(), ElementsAre(Pair("y", "2"), Pair("x", "1")));
    EXPECT_THAT(d.options(), ElementsAre(Pair("Host", "h")));
    EXPECT_EQ(d.record.host, d.record.options->value);
    EXPECT_EQ(d.record.header_ok, 1);
    EXPECT_EQ(d.record.body_ok, 1);
}

TYPED_TEST(HttpMessage, HoldsAParsedResponse) {
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap("HTTP/1.1 404 Not Found\r\nServer: s\r\n\r\n"), 0);
    EXPECT_STREQ(d.record.method, "HTTP/1.1");
    EXPECT_EQ(d.url(), "404");
    EXPECT_EQ(d.record.url_length, 3);
    EXPECT_STREQ(d.record.protocol, "Not Found");
    EXPECT_EQ(d.record.host, nullptr);
}

TYPED_TEST(HttpMessage, HoldsHeaderLinesInReverse) {
    Document<TypeParam> d;
    EXPECT_EQ(
        d.wrap("GET / HTTP/1.1\r\nA: 1\nB:2\r\r\nC:   3 \r\nhost: x\nHost: y\r\nHost:z\r\n\r\n"),
        0);
    EXPECT_THAT(d.options(), ElementsAre(Pair("Host", "z"), Pair("Host", "y"), Pair("host", "x"),
                                         Pair("C", "3 "), Pair("B", "2"), Pair("A", "1")));
    EXPECT_STREQ(d.record.host, "z");
}

TYPED_TEST(HttpMessage, TakesEachWordAsItStands) {
    const struct {
        const char* line;
        const char* method;
        const char* url;
        const char* protocol;
        Pairs params;
    } cases[] = {
        {"M u", nullptr, nullptr, nullptr, {}},
        {"M u ", "M", "u", "", {}},
        {"M  p", "M", "", "p", {}},
        {"M ?a=b p", "M", "", "p", {{"a", "b"}}},
        {"M u? p", "M", "u", "p", {}},
        {"M u?&&a=b&&c=d=e& p", "M", "u", "p", {{"c", "d=e"}, {"a", "b"}}},
        {"M u?a=?&=v p", "M", "u", "p", {{"", "v"}, {"a", "?"}}},
        {"M u?a=%20+ p", "M", "u", "p", {{"a", "%20+"}}},
        {"M u p q  r ", "M", "u", "p q  r ", {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        CapturedStderr err;
        Document<TypeParam> d;
        const int result = d.wrap(std::string(c.line) + "\r\n\r\n");
        if (!c.url) {
            EXPECT_EQ(result, -1);
            continue;
        }
        EXPECT_EQ(result, 0);
        EXPECT_STREQ(d.record.method, c.method);
        EXPECT_EQ(d.url(), c.url);
        EXPECT_EQ(d.record.url_length, strlen(c.url));
        EXPECT_STREQ(d.record.protocol, c.protocol);
        EXPECT_EQ(d.get_params(), c.params);
    }
}

TYPED_TEST(HttpMessage, TakesAnotherStartLineAfterAnEmptyMethod) {
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap(" a b\r\nGET c d\r\nH: v\r\n\r\n"), 0);
    EXPECT_STREQ(d.record.method, "GET");
    EXPECT_EQ(d.url(), "c");
    EXPECT_THAT(d.options(), ElementsAre(Pair("H", "v")));
}

TYPED_TEST(HttpMessage, SaysWhyItRefusesABlock) {
    const std::string w32(32, 'w');
    const std::string w33(33, 'w');
    const std::string long_url(65536, 'u');
    const struct {
        std::string block;
        std::string message;
    } cases[] = {
        {"GET", "search method\n"},
        {w33 + " / p", "method len to long (33 expect max 32)\n"},
        {"GET /", "search url\n"},
        {"GET /?a p", "parse options get (can't find = in 'a')\n"},
        {"GET /?x=1&ab&y=2 p", "parse options get (can't find = in 'ab')\n"},
        {"GET /?ab= p", "parse options get (missing value for 'ab')\n"},
        {"GET / " + w33, "proto len to long (33 exprect max 32)\n"},
        {"GET " + long_url + " p", "url len to long (65536 expect max 65535)\n"},
        {"GET / p\r\nnothing here", "parse options (can't find : in 'nothing here')\n"},
        {"GET / p\r\nA: 1\r\nB:", "parse options (missing value for 'B')\n"},
        {"GET / p\r\nA:   ", "parse options (missing value for 'A')\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.message);
        Document<TypeParam> d;
        const std::string text = c.block + "\r\n\r\n";
        CapturedStderr err;
        EXPECT_EQ(d.wrap(text), -1);
        EXPECT_EQ(err.text(), this->report(text, c.message));
        EXPECT_EQ(d.record.header_ok, 0);
        EXPECT_EQ(d.record.body_ok, 0);
    }

    Document<TypeParam> accepted;
    EXPECT_EQ(accepted.wrap(w32 + " " + std::string(65535, 'u') + " " + w32 + "\r\n\r\n"), 0);
    EXPECT_EQ(accepted.record.method, w32);
    EXPECT_EQ(accepted.record.url_length, 65535);
    EXPECT_EQ(accepted.record.protocol, w32);
}

TYPED_TEST(HttpMessage, KeepsWhatItUnderstoodBeforeARefusal) {
    CapturedStderr err;
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap("GET /?a=1&b p\r\n\r\n"), -1);
    EXPECT_STREQ(d.record.method, "GET");
    EXPECT_EQ(d.record.url, nullptr);
    EXPECT_STREQ(d.record.protocol, "");
    EXPECT_THAT(d.get_params(), ElementsAre(Pair("a", "1")));

    Document<TypeParam> e;
    EXPECT_EQ(e.wrap("GET / p\r\nHost: h\r\nbad\r\n\r\n"), -1);
    EXPECT_EQ(e.url(), "/");
    EXPECT_STREQ(e.record.protocol, "p");
    EXPECT_THAT(e.options(), ElementsAre(Pair("Host", "h")));
    EXPECT_STREQ(e.record.host, "h");
}

TYPED_TEST(HttpMessage, RefusesABlockThatBeginsWithALineEnd) {
    for (const char* text : {"\r\n\r\n", "\nGET / p\r\n\r\n", "\r"}) {
        Document<TypeParam> d;
        CapturedStderr err;
        EXPECT_EQ(d.wrap(text), -1);
        EXPECT_EQ(d.wrap_cgi(text), -1);
        EXPECT_EQ(err.text(), "");
    }
}

TYPED_TEST(HttpMessage, CompletesItsBodyAsContentLengthSays) {
    const std::string head = "POST / p\r\nContent-Length: ";
    const struct {
        const char* announced;
        const char* body;
        int result;
    } cases[] = {
        {"0", "", 0},
        {"5", "", 1},
        {"5", "hell", 1},
        {"5", "hello", 0},
        {"5", "hello!", 1},
        {"0", "x", 1},
        {"x", "", 0},
        {"5 ", "hello", 0},
        {"+5", "hello", 0},
        {"-5", "hello", 1},
        {"5;q", "hello", 0},
        {"\t5", "hello", 0},
        {"0000000005", "hello", 0},
        {"99999999999", "hello", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.announced) + "/" + c.body);
        Document<TypeParam> d;
        EXPECT_EQ(d.wrap(head + c.announced + "\r\n\r\n" + c.body), c.result);
        EXPECT_EQ(d.body(), c.body);
        EXPECT_EQ(d.record.body_ok, c.result == 0);
        EXPECT_EQ(d.record.header_ok, 1);
    }
}

TYPED_TEST(HttpMessage, TakesWhateverFollowsWhenNothingIsAnnounced) {
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap("POST / p\r\nContent-length: 99\r\n\r\nsome"), 0);
    EXPECT_EQ(d.body(), "some");
    EXPECT_STREQ(d.record.body.data, "some");
}

TYPED_TEST(HttpMessage, TakesTheRestOfABodyPieceByPiece) {
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap("POST / p\r\nContent-Length: 9\r\n\r\nabc"), 1);
    EXPECT_EQ(d.wrap("def"), 1);
    EXPECT_EQ(d.wrap(""), 1);
    EXPECT_EQ(d.wrap("ghi"), 0);
    EXPECT_EQ(d.body(), "abcdefghi");
}

TYPED_TEST(HttpMessage, KeepsAnyByteInABody) {
    const std::string body("\0\r\n\r\n\xff\0", 7);
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap("POST / p\r\nContent-Length: 7\r\n\r\n" + body), 0);
    EXPECT_EQ(d.body(), body);
}

TYPED_TEST(HttpMessage, NeverFindsABlockThatAZeroByteHides) {
    const std::string text("GET / p\r\nA: \0b\r\n\r\nrest\r\n\r\n", 26);
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap(text), 1);
    EXPECT_EQ(d.wrap_cgi(text), 1);
    EXPECT_EQ(d.record.header_ok, 0);
    EXPECT_STREQ(d.record.method, "");
}

TYPED_TEST(HttpMessage, ReadsLinesOfAnyLengthAndSeparation) {
    std::mt19937 random(1);
    const auto below = [&](size_t n) { return random() % n; };
    int results[3] = {};
    for (int round = 0; round < 5000; round++) {
        std::string text;
        while (below(6) != 0) {
            text += std::string(below(24), 'n') + (below(8) == 0 ? "" : ":");
            text += std::string(below(3), ' ') + std::string(below(40), 'v');
            if (below(40) == 0) text += '\0';
            constexpr const char* kSeparators[] = {"\r\n", "\r\n", "\r\n", "\n", "\r", "\n\r\n"};
            text += kSeparators[below(6)];
        }
        text += below(8) == 0 ? "\r\n" : "x: y\r\n\r\n";
        SCOPED_TRACE(text);

        const CgiHeader expected(text);
        CapturedStderr err;
        Document<TypeParam> d;
        ASSERT_EQ(d.wrap_cgi(text), expected.result);
        ASSERT_EQ(d.options(), expected.options);
        results[expected.result + 1]++;
    }
    for (const int count : results) EXPECT_GT(count, 100);
}

TYPED_TEST(HttpMessage, BoundsTheHeaderBlock) {
    const std::string start = "GET / p\r\nA: ";
    const std::string fits = start + std::string(HTMLDOC_HEADER_LENGTH - start.size(), 'a');
    {
        Document<TypeParam> d;
        EXPECT_EQ(d.wrap(fits + "\r\n\r"), 1);
    }
    {
        Document<TypeParam> d;
        EXPECT_EQ(d.wrap(fits + "\r\n\r\n"), 0);
    }
    const struct {
        std::string text;
        const char* length;
    } cases[] = {{fits + "a\r\n\r\n", "1048577"}, {fits + "aaaa", "1048580"}};
    for (const auto& c : cases) {
        Document<TypeParam> d;
        CapturedStderr err;
        EXPECT_EQ(d.wrap(c.text), -1);
        EXPECT_EQ(err.text(), this->report(c.text, std::string("header len to long (") + c.length +
                                                       " expect max 1048576)\n"));
    }
}

TYPED_TEST(HttpMessage, AnswersNothingAndNullWithoutLookingFurther) {
    Document<TypeParam> d;
    EXPECT_EQ(TypeParam::wrap(&d.record, nullptr, 0), 1);
    EXPECT_EQ(TypeParam::wrap_cgi(&d.record, nullptr, 0), 1);
    EXPECT_EQ(TypeParam::wrap(&d.record, nullptr, 3), -1);
    EXPECT_EQ(TypeParam::wrap_cgi(&d.record, nullptr, 3), -1);
    EXPECT_EQ(TypeParam::wrap(&d.record, "x", -1), -1);
    EXPECT_EQ(TypeParam::wrap_cgi(&d.record, "x", -1), -1);
    EXPECT_EQ(TypeParam::wrap(nullptr, "x", 1), -1);
    EXPECT_EQ(TypeParam::wrap_cgi(nullptr, "x", 1), -1);
    EXPECT_EQ(TypeParam::wrap_post(nullptr), -1);
    EXPECT_EQ(TypeParam::duplicate(nullptr), nullptr);
    EXPECT_EQ(TypeParam::init(nullptr), -1);
    EXPECT_EQ(TypeParam::append(nullptr, "x", 1), -1);
    EXPECT_EQ(TypeParam::append_str(nullptr, "x"), -1);
    EXPECT_EQ(TypeParam::append_arg(nullptr, "x"), -1);
    TypeParam::free(nullptr, 1);
    TypeParam::dump(nullptr);
    TypeParam::free_options(nullptr);
    Text text;
    TypeParam::unwrap(&text, nullptr, true);
    EXPECT_EQ(text.data, nullptr);
}

TYPED_TEST(HttpMessage, ParsesTheSameTextAgainAfterMemoryRanOut) {
    const std::string text = "POST /u?x=1&y=2 p\r\nHost: h\r\nContent-Length: 4\r\n\r\nbody";
    for (FailingAllocations round; round.next();) {
        CapturedStderr err;
        Document<TypeParam> d;
        round.arm();
        const int result = TypeParam::wrap(&d.record, text.data(), static_cast<int>(text.size()));
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -1 : 0);
        if (round.hit()) {
            EXPECT_STREQ(d.record.method, "");
            EXPECT_EQ(d.record.url, nullptr);
            EXPECT_EQ(d.record.host, nullptr);
            EXPECT_EQ(d.record.header_ok, 0);
            EXPECT_THAT(d.options(), IsEmpty());
            EXPECT_THAT(d.get_params(), IsEmpty());
            EXPECT_EQ(d.record.body.length, 0u);
            EXPECT_NE(err.text(), "");
            EXPECT_EQ(d.wrap(text), 0);
        }
        EXPECT_STREQ(d.record.host, "h");
        EXPECT_EQ(d.body(), "body");
    }
}

TYPED_TEST(HttpMessage, SaysThatMemoryRanOut) {
    CapturedStderr err;
    Document<TypeParam> d;
    FailingCall fault("malloc", ENOMEM, 0, true);
    EXPECT_EQ(TypeParam::wrap(&d.record, kRequest.data(), static_cast<int>(kRequest.size())), -1);
    EXPECT_EQ(err.text(), this->report(kRequest, "malloc(): Cannot allocate memory\n"));
}

// --- CGI -----------------------------------------------------------------------------------------

TYPED_TEST(HttpMessage, TakesTheOutputOfACgiProgram) {
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap_cgi("Status: 200\r\n"), 1);
    EXPECT_EQ(d.wrap_cgi("Status: 200\r\nno colon\r\nHost:h\r\n\r\nbo"), 0);
    EXPECT_THAT(d.options(), ElementsAre(Pair("Host", "h"), Pair("Status", "200")));
    EXPECT_STREQ(d.record.host, "h");
    EXPECT_STREQ(d.record.method, "");
    EXPECT_EQ(d.body(), "bo");
    EXPECT_EQ(d.record.body.capacity, 2u);
    EXPECT_STREQ(d.record.body.data, "bo");

    EXPECT_EQ(d.wrap_cgi("Other: 1\r\n\r\nother"), 0) << "a complete document stays as it is";
    EXPECT_EQ(d.wrap_cgi("Other: 1\r\n"), 1) << "the empty line is missing all the same";
    EXPECT_EQ(d.body(), "bo");
    EXPECT_EQ(d.options().size(), 2u);
}

TYPED_TEST(HttpMessage, TakesACgiOutputWithoutBody) {
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap_cgi("A: 1\r\n\r\n"), 0);
    EXPECT_EQ(d.record.body.data, nullptr);
    EXPECT_EQ(d.record.header_ok, 1);
    EXPECT_EQ(d.record.body_ok, 1);
}

TYPED_TEST(HttpMessage, RefusesACgiHeaderWithoutValue) {
    const std::string text = "A: 1\r\nB: \r\n\r\nbody";
    CapturedStderr err;
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap_cgi(text), -1);
    EXPECT_EQ(err.text(), this->report(text, "parse options (missing value for 'B')\n"));
    EXPECT_THAT(d.options(), ElementsAre(Pair("A", "1")));
    EXPECT_EQ(d.record.header_ok, 0);
}

TYPED_TEST(HttpMessage, ReplacesABodyByThatOfTheCgiOutput) {
    Document<TypeParam> d;
    TypeParam::append_str(&d.record, "old");
    EXPECT_EQ(d.wrap_cgi("A: 1\r\n\r\nnew one"), 0);
    EXPECT_EQ(d.body(), "new one");
}

TYPED_TEST(HttpMessage, TakesCgiOutputAgainAfterMemoryRanOut) {
    const std::string text = "Host: 1\r\nB: 2\r\n\r\nbody";
    for (FailingAllocations round; round.next();) {
        CapturedStderr err;
        Document<TypeParam> d;
        round.arm();
        const int result =
            TypeParam::wrap_cgi(&d.record, text.data(), static_cast<int>(text.size()));
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -1 : 0);
        EXPECT_EQ(d.record.header_ok, !round.hit());
        EXPECT_EQ(d.options().size(), round.hit() ? 0u : 2u);
        EXPECT_EQ(d.wrap_cgi(text), 0);
        EXPECT_EQ(d.body(), "body");
    }
}

// --- forms ---------------------------------------------------------------------------------------

TYPED_TEST(HttpMessage, SplitsAFormAsItAlwaysHas) {
    const std::string small = this->hidden("_uri_decode") + ": destination buffer to small ";
    const struct {
        const char* form;
        Pairs params;
        std::string said;
    } cases[] = {
        {"user=alice", {{"use", "=alic"}}, small + "6\n"},
        {"user=a%20b", {{"use", "=a b"}}, ""},
        {"user=", {{"use", ""}}, small + "1\n"},
        {"=v", {{"", "="}}, small + "2\n"},
        {"u=v", {{"", "="}}, small + "2\n"},
        {"ab=%41&cd=%4", {{"c", "="}, {"a", "=A"}}, "decode fail for '=%4' di=1\n"},
        {"&&ab=%41&&cd=%42&", {{"c", "=B"}, {"a", "=A"}}, ""},
        {"a=b=%41", {{"", "=b=A"}}, ""},
        {"&", {}, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.form);
        Document<TypeParam> d;
        ASSERT_EQ(d.wrap("POST / p\r\n\r\n" + std::string(c.form)), 0);
        CapturedStderr err;
        EXPECT_EQ(TypeParam::wrap_post(&d.record), 0);
        EXPECT_EQ(err.text(), c.said);
        EXPECT_EQ(d.post_params(), c.params);
    }
}

TYPED_TEST(HttpMessage, SaysWhatItCutsInTheFormsOrder) {
    const std::string function = this->hidden("_uri_decode");
    std::string form;
    std::string said;
    for (size_t n = 1; n <= 60; n++) {
        form += "key=" + std::string(n, 'v') + "&";
        said += function + ": destination buffer to small " + std::to_string(n + 1) + "\n";
        if (n % 20 != 0) continue;
        form += "key=" + std::string(2000, 'v') + "%4&";
        said += "decode fail for '=" + std::string(2000, 'v') + "%4' di=2001\n";
    }
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap("POST / p\r\n\r\n" + form + "key"), 0);
    CapturedStderr err;
    EXPECT_EQ(TypeParam::wrap_post(&d.record), -1);
    EXPECT_EQ(err.text(), said + this->under("_wrap_post") + ": missing '=' in 'key'\n");
    EXPECT_EQ(d.post_params().size(), 63u);
}

TYPED_TEST(HttpMessage, SplitsTheBodyInPlace) {
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap("POST / p\r\n\r\n&a=%41&&b=%42&c=%43&"), 0);
    EXPECT_EQ(TypeParam::wrap_post(&d.record), 0);
    EXPECT_EQ(d.body(), std::string("&a=%41\0&b=%42\0c=%43\0", 20));
    EXPECT_EQ(d.post_params().size(), 3u);
}

TYPED_TEST(HttpMessage, KeepsTheParametersBeforeAPieceWithoutEquals) {
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap("POST / p\r\n\r\nab=%41&bad&cd=%42"), 0);
    CapturedStderr err;
    EXPECT_EQ(TypeParam::wrap_post(&d.record), -1);
    EXPECT_EQ(err.text(), this->under("_wrap_post") + ": missing '=' in 'bad'\n");
    EXPECT_THAT(d.post_params(), ElementsAre(Pair("a", "=A")));
    EXPECT_EQ(d.body(), std::string("ab=%41\0bad\0cd=%42", 17));
}

TYPED_TEST(HttpMessage, SplitsOnlyACompleteBody) {
    Document<TypeParam> d;
    {
        CapturedStderr err;
        EXPECT_EQ(TypeParam::wrap_post(&d.record), -1);
        EXPECT_EQ(err.text(), "header_ok=0, body_ok=0");
    }
    EXPECT_EQ(d.wrap("POST / p\r\nContent-Length: 3\r\n\r\na="), 1);
    {
        CapturedStderr err;
        EXPECT_EQ(TypeParam::wrap_post(&d.record), -1);
        EXPECT_EQ(err.text(), "header_ok=1, body_ok=0");
    }
}

TYPED_TEST(HttpMessage, SplitsAnEmptyBodyIntoNothing) {
    Document<TypeParam> d;
    EXPECT_EQ(d.wrap("POST / p\r\n\r\n"), 0);
    EXPECT_EQ(TypeParam::wrap_post(&d.record), 0);
    EXPECT_THAT(d.post_params(), IsEmpty());
}

TYPED_TEST(HttpMessage, SplitsNothingWhenMemoryIsOut) {
    for (FailingAllocations round; round.next();) {
        Document<TypeParam> d;
        ASSERT_EQ(d.wrap("POST / p\r\n\r\nab=%41&cd=%42"), 0);
        round.arm();
        const int result = TypeParam::wrap_post(&d.record);
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -1 : 0);
        if (!round.hit()) continue;
        EXPECT_EQ(d.body(), "ab=%41&cd=%42");
        EXPECT_THAT(d.post_params(), IsEmpty());
        EXPECT_EQ(TypeParam::wrap_post(&d.record), 0);
        EXPECT_EQ(d.post_params().size(), 2u);
    }
}

// --- rendering -----------------------------------------------------------------------------------

TYPED_TEST(HttpMessage, RendersARequestBehindWhatIsThere) {
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap("POST /a?x=1 HTTP/1.1\r\nA: 1\r\nB: 2\r\n\r\nbo" + std::string("\0dy", 3)), 0);
    Text text;
    buffer_append(&text.data, &text.capacity, &text.length, ">", 1);
    TypeParam::unwrap(&text, &d.record, true);
    const std::string s = TypeParam::separator;
    EXPECT_EQ(text.str(),
              ">POST /a HTTP/1.1\r\nB" + s + "2\r\nA" + s + "1\r\n\r\nbo" + std::string("\0dy", 3));
    EXPECT_EQ(text.data[text.length], '\0');
}

TYPED_TEST(HttpMessage, RendersUrlLengthAsAResponsesStatusCode) {
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap("HTTP/1.1 200 OK\r\n\r\n"), 0);
    Text text;
    TypeParam::unwrap(&text, &d.record, false);
    EXPECT_EQ(text.str(), "HTTP/1.1 3 OK\r\n\r\n");

    Document<TypeParam> built;
    strcpy(built.record.method, "HTTP/1.0");
    strcpy(built.record.protocol, "Odd");
    built.record.url_length = 65535;
    Text other;
    TypeParam::unwrap(&other, &built.record, false);
    EXPECT_EQ(other.str(), "HTTP/1.0 65535 Odd\r\n\r\n");
    built.record.url_length = 0;
}

TYPED_TEST(HttpMessage, RendersLinesOfAnyLength) {
    const std::string value(100'000, 'v');
    Document<TypeParam> d;
    TypeParam::add(&d.record.options, "N", value.c_str());
    Text text;
    TypeParam::unwrap(&text, &d.record, true);
    EXPECT_EQ(text.str(), "  \r\nN" + std::string(TypeParam::separator) + value + "\r\n\r\n");
}

TYPED_TEST(HttpMessage, RendersNothingWhenMemoryIsOut) {
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap(kRequest), 0);
    Text text;
    buffer_append(&text.data, &text.capacity, &text.length, ">", 1);
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM);
    TypeParam::unwrap(&text, &d.record, true);
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(text.str(), ">");
    EXPECT_EQ(err.text(), "./buffers/buffer:buffer_make_room realloc():Cannot allocate memory\n");
}

TYPED_TEST(HttpMessage, DumpsWhatItHolds) {
    Document<TypeParam> d;
    {
        CapturedStderr err;
        TypeParam::dump(&d.record);
        EXPECT_EQ(err.text(), "- dump http document:  <none> (0) \n- get params -\n");
    }
    ASSERT_EQ(d.wrap("POST /a?x=1&y=2 HTTP/1.1\r\nA: 1\r\nB: 2\r\n\r\np=%41"), 0);
    ASSERT_EQ(TypeParam::wrap_post(&d.record), 0);
    CapturedStderr err;
    TypeParam::dump(&d.record);
    EXPECT_EQ(err.text(),
              "- dump http document: POST /a (2) HTTP/1.1\n\tB:2\n\tA:1\n- get params -\n\ty=2\n"
              "\tx=1\n- body_pos 5 -\n- body -\np=%41\n");
}

// --- copies --------------------------------------------------------------------------------------

TYPED_TEST(HttpMessage, CopiesWithItsListsReversed) {
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap("POST /url?x=1&y=2 HTTP/1.1\r\nHost: 1\r\nB: 2\r\n\r\np=%41&q=%42"), 0);
    ASSERT_EQ(TypeParam::wrap_post(&d.record), 0);

    auto* copy = TypeParam::duplicate(&d.record);
    ASSERT_NE(copy, nullptr);
    EXPECT_STREQ(copy->method, "POST");
    EXPECT_STREQ(copy->url, "/url");
    EXPECT_EQ(copy->url_length, 4);
    EXPECT_STREQ(copy->protocol, "");
    EXPECT_EQ(copy->host, nullptr);
    EXPECT_THAT(pairs_of(copy->options), ElementsAre(Pair("Host", "1"), Pair("B", "2")));
    EXPECT_THAT(pairs_of(copy->get_params), ElementsAre(Pair("x", "1"), Pair("y", "2")));
    EXPECT_THAT(pairs_of(copy->post_params), ElementsAre(Pair("", "=A"), Pair("", "=B")));
    EXPECT_EQ(copy->body.capacity, d.record.body.capacity);
    EXPECT_EQ(std::string(copy->body.data, copy->body.length), d.body());
    EXPECT_EQ(copy->body.data[copy->body.length], '\0');
    TypeParam::free(copy, 1);
}

TYPED_TEST(HttpMessage, CopiesNoMoreOfAUrlThanItsText) {
    Document<TypeParam> d;
    d.record.url = strdup("/");
    d.record.url_length = 404;
    auto* copy = TypeParam::duplicate(&d.record);
    EXPECT_STREQ(copy->url, "/");
    EXPECT_EQ(copy->url_length, 404);
    TypeParam::free(copy, 1);

    Document<TypeParam> none;
    none.record.url_length = 200;
    copy = TypeParam::duplicate(&none.record);
    EXPECT_EQ(copy->url, nullptr);
    EXPECT_EQ(copy->url_length, 200);
    TypeParam::free(copy, 1);

    Document<TypeParam> empty;
    ASSERT_EQ(empty.wrap("GET  p\r\n\r\n"), 0);
    copy = TypeParam::duplicate(&empty.record);
    EXPECT_STREQ(copy->url, "");
    TypeParam::free(copy, 1);
}

TYPED_TEST(HttpMessage, IsNotCopiedAndLeaksNothingWhenMemoryIsOut) {
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap("POST /u?x=1 p\r\nA: 1\r\n\r\np=%41"), 0);
    ASSERT_EQ(TypeParam::wrap_post(&d.record), 0);
    for_each_failing_allocation([&] { return TypeParam::duplicate(&d.record); },
                                [](auto* copy) { TypeParam::free(copy, 1); });
}

TYPED_TEST(HttpMessage, IsZeroedWhenItsRecordIsKept) {
    typename TypeParam::Record d = {};
    TypeParam::init(&d);
    const std::string text = "POST /u?x=1 p\r\nHost: 1\r\n\r\np=%41";
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(TypeParam::wrap(&d, text.data(), static_cast<int>(text.size())), 0);
        TypeParam::free(&d, round - 1);
        EXPECT_EQ(d.method[0], '\0');
        EXPECT_EQ(d.url, nullptr);
        EXPECT_EQ(d.options, nullptr);
        EXPECT_EQ(d.host, nullptr);
        EXPECT_EQ(d.header_ok, 0);
        EXPECT_EQ(d.body.data, nullptr);
        EXPECT_EQ(d.body_ok, 0);
    }
}

// --- body ----------------------------------------------------------------------------------------

TYPED_TEST(HttpMessage, GrowsItsBodyToTwiceWhatIsNeeded) {
    Document<TypeParam> d;
    buffer& body = d.record.body;
    EXPECT_EQ(TypeParam::append(&d.record, "", 0), 0);
    EXPECT_EQ(body.data, nullptr);
    EXPECT_EQ(TypeParam::append(&d.record, "abc", 3), 0);
    EXPECT_EQ(body.capacity, 6u);
    EXPECT_EQ(TypeParam::append(&d.record, "def", 3), 0);
    EXPECT_EQ(body.capacity, 6u) << "exactly full; the terminator has a byte of its own";
    EXPECT_STREQ(body.data, "abcdef");
    EXPECT_EQ(TypeParam::append(&d.record, nullptr, 0), 0);
    EXPECT_EQ(TypeParam::append_str(&d.record, "g"), 0);
    EXPECT_EQ(body.capacity, 14u);
    EXPECT_EQ(TypeParam::append_arg(&d.record, "%d-%s", 42, "x"), 0);
    EXPECT_STREQ(body.data, "abcdefg42-x");
}

TYPED_TEST(HttpMessage, FillsABodyThatTheParserMade) {
    Document<TypeParam> d;
    ASSERT_EQ(d.wrap_cgi("A: 1\r\n\r\nbody"), 0);
    EXPECT_EQ(TypeParam::append(&d.record, "", 0), 0);
    EXPECT_EQ(TypeParam::append_str(&d.record, "!"), 0);
    EXPECT_STREQ(d.record.body.data, "body!");
    EXPECT_EQ(d.record.body.capacity, 10u);
    auto* copy = TypeParam::duplicate(&d.record);
    EXPECT_EQ(TypeParam::append_str(copy, "five."), 0);
    EXPECT_STREQ(copy->body.data, "body!five.");
    EXPECT_EQ(copy->body.capacity, 10u);
    TypeParam::free(copy, 1);

    Document<TypeParam> parsed;
    ASSERT_EQ(parsed.wrap("POST / p\r\n\r\nbody"), 0);
    EXPECT_EQ(parsed.record.body.capacity, 5u);
    EXPECT_EQ(TypeParam::append_str(&parsed.record, "!"), 0);
    EXPECT_STREQ(parsed.record.body.data, "body!");
    EXPECT_EQ(parsed.record.body.capacity, 5u);
}

TYPED_TEST(HttpMessage, CutsAFormattedAppend) {
    Document<TypeParam> d;
    const std::string text(2000, 'x');
    EXPECT_EQ(TypeParam::append_arg(&d.record, "%s", text.c_str()), 0);
    EXPECT_EQ(d.body(), text.substr(0, 1499));
}

TYPED_TEST(HttpMessage, RefusesABodyThatCannotGrow) {
    Document<TypeParam> d;
    ASSERT_EQ(TypeParam::append_str(&d.record, "abc"), 0);
    CapturedStderr err;
    {
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(TypeParam::append_str(&d.record, "defghi"), -1);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(TypeParam::append(&d.record, "x", -1), -1);
    EXPECT_EQ(err.take(), "realloc(): Cannot allocate memory\nrealloc(): Cannot allocate memory\n");
    EXPECT_EQ(TypeParam::append(&d.record, nullptr, 1), -1);
    EXPECT_EQ(err.take(), "");
    EXPECT_EQ(TypeParam::append_str(&d.record, nullptr), -1);
    EXPECT_EQ(err.take(), this->under("_body_append_str") + ": append null data\n");
    EXPECT_EQ(d.body(), "abc");
    EXPECT_EQ(d.record.body.capacity, 6u);

    buffer& body = d.record.body;
    body.capacity = 0x80000000u;
    body.length = 0x7fffffffu;
    EXPECT_EQ(TypeParam::append(&d.record, "xyz", 3), -1);
    EXPECT_EQ(err.take(), "realloc(): Cannot allocate memory\n");
    body.capacity = 6;
    body.length = 3;
}

// --- lists ---------------------------------------------------------------------------------------

TYPED_TEST(HttpMessage, AddsOptionsAtTheTailAndFindsTheFirst) {
    Document<TypeParam> d;
    htmldoc_option** head = &d.record.options;
    const htmldoc_option* a = TypeParam::add(head, "A", "1");
    EXPECT_EQ(a, d.record.options);
    TypeParam::add(head, "B", "2");
    TypeParam::add(head, "A", "");
    EXPECT_THAT(d.options(), ElementsAre(Pair("A", "1"), Pair("B", "2"), Pair("A", "")));
    EXPECT_EQ(TypeParam::get(head, "A"), a);
    EXPECT_STREQ(TypeParam::get_value(head, "B"), "2");
    EXPECT_EQ(TypeParam::get(head, "a"), nullptr);
    EXPECT_EQ(TypeParam::get_value(head, "AB"), nullptr);
    EXPECT_EQ(TypeParam::get(head, ""), nullptr);
    TypeParam::free_options(head);
    EXPECT_EQ(*head, nullptr);
}

TYPED_TEST(HttpMessage, AddsNoOptionWhenMemoryIsOut) {
    for (FailingAllocations round; round.next();) {
        Document<TypeParam> d;
        TypeParam::add(&d.record.options, "A", "1");
        round.arm();
        const htmldoc_option* added = TypeParam::add(&d.record.options, "B", "2");
        round.disarm();
        EXPECT_EQ(added == nullptr, round.hit());
        EXPECT_EQ(d.options().size(), round.hit() ? 1u : 2u);
    }
}

TYPED_TEST(HttpMessage, RefusesNullOptions) {
    htmldoc_option* none = nullptr;
    EXPECT_EQ(TypeParam::add(nullptr, "A", "1"), nullptr);
    EXPECT_EQ(TypeParam::add(&none, nullptr, "1"), nullptr);
    EXPECT_EQ(TypeParam::add(&none, "A", nullptr), nullptr);
    EXPECT_EQ(TypeParam::get(nullptr, "A"), nullptr);
    EXPECT_EQ(TypeParam::get(&none, nullptr), nullptr);
    EXPECT_EQ(TypeParam::get_value(nullptr, "A"), nullptr);
    char out[2] = "x";
    EXPECT_EQ(TypeParam::to_query(nullptr, out, 2), 0);
    EXPECT_EQ(TypeParam::to_query(&none, nullptr, 2), 0);
    EXPECT_EQ(TypeParam::to_query(&none, out, 0), 0);
    EXPECT_EQ(TypeParam::to_query(&none, out, -1), 0);
    EXPECT_STREQ(out, "x");
}

TYPED_TEST(HttpMessage, CutsAQueryAtEveryLength) {
    Document<TypeParam> d;
    htmldoc_option** head = &d.record.get_params;
    TypeParam::add(head, "a", "1 2");
    TypeParam::add(head, "", "");
    TypeParam::add(head, "b", "&");
    const std::string whole = "a=1 2&=&b=&";
    for (int size = 1; size <= 20; size++) {
        std::vector<char> out(static_cast<size_t>(size), 'x');
        const std::string expected = whole.substr(0, static_cast<size_t>(size - 1));
        const int result = TypeParam::to_query(head, out.data(), size);
        EXPECT_EQ(result,
                  TypeParam::prefix == std::string("http") ? 0 : static_cast<int>(expected.size()));
        EXPECT_EQ(std::string(out.begin(), out.end()),
                  expected + std::string(out.size() - expected.size(), '\0'));
    }
}

// --- percent-encoding ----------------------------------------------------------------------------

TYPED_TEST(HttpMessage, EncodesAUri) {
    const struct {
        const char* text;
        const char* encoded;
    } cases[] = {
        {"", ""},
        {"azAZ09-_.!~*()'", "azAZ09-_.!~*()'"},
        {"a b/\xc3\xa9", "a%20b%2f%ff%ff"},
        {"\x01\x1f%\x7f+", "%01%1f%25%7f%2b"},
        {"\x80\xff", "%ff%ff"},
    };
    for (const auto& c : cases) {
        char out[100];
        EXPECT_EQ(TypeParam::encode(c.text, out, 99), static_cast<int>(strlen(c.encoded)));
        EXPECT_STREQ(out, c.encoded);
    }
}

TYPED_TEST(HttpMessage, EncodesOnlyWhatFits) {
    const struct {
        const char* text;
        int needed;
    } cases[] = {{"ab", 3}, {"a b", 6}, {"ab ", 5}, {" ", 3}, {"", -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        for (int size = -1; size < 9; size++) {
            CapturedStderr err;
            std::vector<char> out(static_cast<size_t>(size < 0 ? 1 : size + 1));
            const int result = TypeParam::encode(c.text, out.data(), size);
            if (size >= c.needed) {
                EXPECT_EQ(result, static_cast<int>(strlen(out.data())));
                EXPECT_EQ(err.text(), "");
            } else {
                EXPECT_EQ(result, -1);
                EXPECT_EQ(err.text(), this->hidden("_uri_encode") +
                                          ": destination buffer to small " + std::to_string(size) +
                                          "\n");
            }
        }
    }
}

TYPED_TEST(HttpMessage, DecodesAUri) {
    const struct {
        const char* text;
        std::string decoded;
    } cases[] = {
        {"", ""},
        {"a+b", "a+b"},
        {"%41%4a%4Az", "AJJz"},
        {"%fF", "\xff"},
        {"%g1", {"\0", 1}},
        {"%1g", "\x01"},
        {"% 5", "\x05"},
        {"%+5", "\x05"},
        {"%-1", "\xff"},
        {"%0x", {"\0", 1}},
        {"%00a", {"\0a", 2}},
        {"%%41",
         {"\0"
          "1",
          2}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        char out[100];
        const int length = TypeParam::decode(c.text, out, 100);
        ASSERT_EQ(length, static_cast<int>(c.decoded.size()));
        EXPECT_EQ(std::string(out, c.decoded.size() + 1), c.decoded + '\0');
    }
}

TYPED_TEST(HttpMessage, DecodesOnlyWhatFits) {
    for (int size = -1; size < 6; size++) {
        CapturedStderr err;
        std::vector<char> out(static_cast<size_t>(size < 1 ? 1 : size));
        const int result = TypeParam::decode("a%20b", out.data(), size);
        if (size >= 4) {
            EXPECT_EQ(result, 3);
            EXPECT_STREQ(out.data(), "a b");
        } else {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(err.text(), this->hidden("_uri_decode") + ": destination buffer to small " +
                                      std::to_string(size) + "\n");
        }
    }
}

TYPED_TEST(HttpMessage, DecodesNoUnfinishedEscape) {
    for (const char* text : {"ab%", "ab%4"}) {
        CapturedStderr err;
        char out[10];
        EXPECT_EQ(TypeParam::decode(text, out, 10), -1);
        EXPECT_EQ(err.text(), std::string("decode fail for '") + text + "' di=2\n");
    }
}

TYPED_TEST(HttpMessage, CodesNothingIntoNull) {
    char out[4];
    EXPECT_EQ(TypeParam::encode(nullptr, out, 4), -1);
    EXPECT_EQ(TypeParam::encode("x", nullptr, 4), -1);
    EXPECT_EQ(TypeParam::decode(nullptr, out, 4), -1);
    EXPECT_EQ(TypeParam::decode("x", nullptr, 4), -1);
}

TYPED_TEST(HttpMessage, ReportsARefusalUnderItsOwnName) {
    CapturedStderr err;
    EXPECT_EQ(TypeParam::failed("raw", "%s=%d\n", "a", 1), -1);
    EXPECT_EQ(TypeParam::failed(nullptr, nullptr), -1);
    EXPECT_EQ(err.text(), this->report("raw", "a=1\n") + this->report("", ""));
}
