// What the first family has for itself: the record it makes, the input it keeps, messages cut
// anywhere.

#include <gmock/gmock.h>
#include <tests/htmldoc/documents.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

using Doc = Document<FirstFamily>;

std::string input_of(const Doc& d) { return {d.record.input.data, d.record.input.length}; }

std::string report(const std::string& raw, const std::string& message) {
    return "htmldoc_failed: request:\n" + raw + "\n" + message;
}

// Every field that the parser fills, as text.
std::string describe(const Doc& d) {
    std::string text = std::string(d.record.method) + "|" + d.url() + "|" + d.record.protocol + "|";
    for (const auto& [name, value] : d.options()) text += name + ":" + value + "|";
    for (const auto& [name, value] : d.get_params()) text += name + "=" + value + "|";
    return text + (d.record.host ? d.record.host : "-") + "|" + d.body();
}

const char* const kMessages[] = {
    "GET / HTTP/1.1\r\n\r\n",
    "GET /a?x=1&y=2 HTTP/1.1\r\nHost: h\r\nB: 1\r\nContent-Length: 0\r\n\r\n",
    "POST /form HTTP/1.1\r\nHost: h\r\nContent-Length: 9\r\n\r\na=b\r\n\r\nc=",
    "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nServer: x\r\r\n\nY: z\r\n\r\nhello",
};

}  // namespace

TEST(HttpDocument, NeedsEveryByteOfAMessageThatComesByteByByte) {
    for (const std::string message : kMessages) {
        SCOPED_TRACE(message);
        Doc d;
        for (size_t i = 0; i + 1 < message.size(); i++)
            ASSERT_EQ(htmldoc_wrap(&d.record, &message[i], 1), 1) << i;
        EXPECT_EQ(htmldoc_wrap(&d.record, &message.back(), 1), 0);
        EXPECT_EQ(d.record.input.length, 0u);

        Doc whole;
        EXPECT_EQ(whole.wrap(message), 0);
        EXPECT_EQ(describe(d), describe(whole));
    }
}

TEST(HttpDocument, UnderstandsAMessageCutAnywhere) {
    for (const std::string message : kMessages) {
        SCOPED_TRACE(message);
        Doc whole;
        ASSERT_EQ(whole.wrap(message), 0);
        for (size_t cut = 1; cut < message.size(); cut++) {
            for (size_t next = cut + 1; next <= message.size(); next++) {
                Doc d;
                ASSERT_EQ(d.wrap(message.substr(0, cut)), 1);
                ASSERT_EQ(d.wrap(message.substr(cut, next - cut)), next == message.size() ? 0 : 1);
                if (next < message.size()) {
                    ASSERT_EQ(d.wrap(message.substr(next)), 0);
                }
                ASSERT_EQ(describe(d), describe(whole)) << cut << " " << next;
            }
        }
    }
}

TEST(HttpDocument, KeepsAnIncompleteBlockInItsInput) {
    Doc d;
    EXPECT_EQ(d.wrap("GET / HT"), 1);
    EXPECT_EQ(d.wrap("TP/1.1\r\n"), 1);
    EXPECT_EQ(input_of(d), "GET / HTTP/1.1\r\n");
    EXPECT_EQ(d.record.header_ok, 0);
    EXPECT_EQ(d.wrap("\r\n"), 0);
    EXPECT_EQ(d.record.input.length, 0u);
}

TEST(HttpDocument, FindsTheEndOfABlockHoweverItArrives) {
    std::mt19937 random(1);
    const auto below = [&](size_t n) { return random() % n; };
    size_t ended = 0;
    for (int round = 0; round < 5000; round++) {
        std::string text = "GET / p\r\nA:";
        for (size_t length = below(60); length > 0; length--) {
            const size_t kind = below(100);
            text += kind < 30 ? '\r' : kind < 60 ? '\n' : kind < 61 ? '\0' : 'b';
        }
        text += "bbbb";  // no end begins within its last bytes
        SCOPED_TRACE(text);
        const size_t end = text.find("\r\n\r\n");
        const bool is_ended = end != std::string::npos && end < text.find('\0');
        ended += is_ended;

        CapturedStderr err;
        Doc d;
        size_t at = 0;
        for (int result = 1; result == 1 && at < text.size();) {
            const size_t piece = std::min(1 + below(20), text.size() - at);
            result = d.wrap({text.data() + at, piece});
            at += piece;
            ASSERT_EQ(result != 1, is_ended && at >= end + 4);
        }
    }
    EXPECT_GT(ended, 500u);
}

TEST(HttpDocument, CompletesABodyThatComesByteByByteAsContentLengthSays) {
    for (const std::string announced : {"5", "+5", "0000000005", "5 bytes"}) {
        SCOPED_TRACE(announced);
        Doc d;
        ASSERT_EQ(
            d.wrap("POST / p\r\nContent-Length: " + announced + "\r\nContent-Type: x\r\n\r\n"), 1);
        for (const char c : {'h', 'e', 'l', 'l'}) ASSERT_EQ(htmldoc_wrap(&d.record, &c, 1), 1);
        EXPECT_EQ(htmldoc_wrap(&d.record, "o", 1), 0);
        EXPECT_EQ(d.body(), "hello");
        EXPECT_EQ(d.record.body.data[5], '\0');
        EXPECT_EQ(d.record.body_ok, 1);
    }
}

TEST(HttpDocument, LooksContentLengthUpAfterEveryByte) {
    Doc d;
    ASSERT_EQ(d.wrap("POST / p\r\nContent-Length: 9\r\n\r\nab"), 1);
    EXPECT_EQ(d.wrap("c"), 1);
    strcpy(d.record.options->value, "5");
    EXPECT_EQ(d.wrap("d"), 1);
    EXPECT_EQ(d.wrap("e"), 0);

    Doc without;
    ASSERT_EQ(without.wrap("POST / p\r\nContent-Length: 9\r\n\r\nab"), 1);
    EXPECT_EQ(without.wrap("c"), 1);
    _htmldoc_options_free(&without.record.options);
    EXPECT_EQ(without.wrap("d"), 0);
}

TEST(HttpDocument, NeverCompletesABodyAboveTheAnnouncedLength) {
    Doc d;
    EXPECT_EQ(d.wrap("POST / p\r\nContent-Length: 3\r\n\r\nab"), 1);
    EXPECT_EQ(d.wrap("cd"), 1);
    EXPECT_EQ(d.wrap("e"), 1);
    EXPECT_EQ(d.body(), "abcde");
}

TEST(HttpDocument, LeavesInTheInputWhatIsFedToACompleteDocument) {
    Doc d;
    EXPECT_EQ(d.wrap("GET / p\r\n\r\n"), 0);
    EXPECT_EQ(d.wrap("GET /next"), 0);
    EXPECT_EQ(d.wrap(" p\r\n\r\n"), 0);
    EXPECT_EQ(input_of(d), "GET /next p\r\n\r\n");
    EXPECT_EQ(d.url(), "/");
}

TEST(HttpDocument, FailsForGoodOnceItBeginsWithALineEnd) {
    Doc d;
    EXPECT_EQ(d.wrap("\n"), -1);
    EXPECT_EQ(d.wrap("GET / p\r\n\r\n"), -1);
    EXPECT_EQ(input_of(d), "\nGET / p\r\n\r\n");
    EXPECT_EQ(d.record.header_ok, 0);
}

TEST(HttpDocument, GoesOnRefusingABlockThatItRefused) {
    const struct {
        std::string block;
        std::string first;
        std::string later;
    } cases[] = {
        {"GET\r\n\r\n", "search method\n", "search method\n"},
        {"GET / p\r\nbad\r\n\r\n", "parse options (can't find : in 'bad')\n",
         "parse options (can't find : in 'GET / p')\n"},
    };
    for (const auto& c : cases) {
        Doc d;
        CapturedStderr err;
        EXPECT_EQ(d.wrap(c.block + "rest"), -1);
        EXPECT_EQ(err.take(), report(c.block + "rest", c.first));
        EXPECT_EQ(input_of(d), c.block + "rest");
        EXPECT_EQ(d.wrap("x"), -1);
        EXPECT_EQ(err.take(), report(c.block + "restx", c.later));
        EXPECT_EQ(d.wrap("y"), -1);
        EXPECT_EQ(err.take(), report(c.block + "restxy", c.later));
    }
}

TEST(HttpDocument, RefusesABlockOfManyPiecesLikeAWholeOne) {
    const std::string block = "GET / p\r\nA 1\r\n\r\n";
    Doc d;
    CapturedStderr err;
    for (size_t i = 0; i + 1 < block.size(); i++)
        ASSERT_EQ(htmldoc_wrap(&d.record, &block[i], 1), 1);
    EXPECT_EQ(d.wrap("\n"), -1);
    EXPECT_EQ(err.text(), report(block, "parse options (can't find : in 'A 1')\n"));
}

TEST(HttpDocument, BoundsTheInputThatItKeeps) {
    Doc d;
    CapturedStderr err;
    const std::string piece(64 * 1024, 'a');
    int result = 1;
    size_t fed = 0;
    for (; result == 1 && fed < 2 * size_t{HTMLDOC_HEADER_LENGTH}; fed += piece.size())
        result = d.wrap(piece);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(fed, HTMLDOC_HEADER_LENGTH + piece.size());
    EXPECT_EQ(err.text(), report(std::string(fed, 'a'),
                                 "header len to long (1114112 expect max "
                                 "1048576)\n"));
    EXPECT_EQ(d.wrap("\r\n\r\n"), -1);
}

TEST(HttpDocument, AcceptsTheLongestBlockInPieces) {
    const std::string start = "GET / p\r\nA: ";
    const std::string block = start + std::string(HTMLDOC_HEADER_LENGTH - start.size(), 'a');
    Doc d;
    EXPECT_EQ(d.wrap(block), 1);
    EXPECT_EQ(d.wrap("\r\n\r"), 1);
    EXPECT_EQ(d.wrap("\n"), 0);

    Doc longer;
    CapturedStderr err;
    EXPECT_EQ(longer.wrap(block), 1);
    EXPECT_EQ(longer.wrap("a\r\n"), 1);
    EXPECT_EQ(longer.wrap("\r"), -1);
}

TEST(HttpDocument, HidesEveryEndBehindAZeroByteHoweverItArrives) {
    const std::string starts[] = {std::string("\0", 1), std::string("GET / p\r\nA: \0", 13),
                                  std::string("GET / p\r\nA\0: b", 14)};
    const std::string ends[] = {"\r\n\r\n", "\r\n\r\n\r\n\r\n", "\r\n\r\nab\r\n\r\n",
                                "\r\nB: c\r\n\r\n"};
    for (const std::string& start : starts) {
        for (const std::string& end : ends) {
            const std::string text = start + end + end;
            Doc d;
            for (const char& c : text) ASSERT_EQ(htmldoc_wrap(&d.record, &c, 1), 1);
            for (size_t cut = 1; cut < text.size(); cut++) {
                Doc halves;
                ASSERT_EQ(halves.wrap(text.substr(0, cut)), 1);
                ASSERT_EQ(halves.wrap(text.substr(cut)), 1);
            }
        }
    }
}

TEST(HttpDocument, TakesTheSamePieceAgainAfterMemoryRanOut) {
    const std::string first = "POST /u?x=1 p\r\nHost: h\r\nContent-Length: 8\r";
    const std::string second = "\n\r\nbody";
    const std::string third = "more";
    for (FailingAllocations round; round.next();) {
        CapturedStderr err;
        Doc d;
        for (const std::string& piece : {first, second, third}) {
            const std::string before = input_of(d);
            round.arm();
            int result = htmldoc_wrap(&d.record, piece.data(), static_cast<int>(piece.size()));
            round.disarm();
            if (result == -1) {
                EXPECT_TRUE(round.hit());
                EXPECT_EQ(input_of(d), before);
                result = d.wrap(piece);
            }
            EXPECT_EQ(result, piece == third ? 0 : 1);
        }
        EXPECT_EQ(describe(d), "POST|/u|p|Content-Length:8|Host:h|x=1|h|bodymore");
    }
}

TEST(HttpDocument, IsUnchangedWhenTheTextItRefusesCannotBeKept) {
    const std::string text = "GET /a p\r\nHost: h\r\nbad\r\n\r\n";
    const std::string refusal = report(text, "parse options (can't find : in 'bad')\n");
    for (FailingAllocations round; round.next();) {
        CapturedStderr err;
        Doc d;
        round.arm();
        EXPECT_EQ(htmldoc_wrap(&d.record, text.data(), static_cast<int>(text.size())), -1);
        round.disarm();
        if (round.hit()) {
            EXPECT_EQ(describe(d), describe(Doc()));
            EXPECT_EQ(input_of(d), "");
            err.take();
            EXPECT_EQ(d.wrap(text), -1);
        }
        EXPECT_EQ(err.take(), refusal);
        EXPECT_STREQ(d.record.host, "h");
        EXPECT_EQ(input_of(d), text);
    }
}

TEST(HttpDocument, StaysCompleteWhenItsInputCannotGrow) {
    Doc d;
    ASSERT_EQ(d.wrap("GET / p\r\n\r\n"), 0);
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(htmldoc_wrap(&d.record, "more", 4), -1);
    EXPECT_EQ(err.text(), "./buffers/buffer:buffer_append realloc():Cannot allocate memory\n");
    EXPECT_EQ(d.record.body_ok, 1);
}

TEST(HttpDocument, StaysRefusedWhenItsInputCannotGrow) {
    CapturedStderr err;
    Doc d;
    ASSERT_EQ(d.wrap("GET\r\n\r\nrest"), -1);
    {
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(htmldoc_wrap(&d.record, "x", 1), -1);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(input_of(d), "GET\r\n\r\nrest");
    err.take();
    EXPECT_EQ(d.wrap("y"), -1);
    EXPECT_EQ(err.take(), report("GET\r\n\r\nresty", "search method\n"));
}

TEST(HttpDocument, LeavesAUrlRoomToGrow) {
    Doc d;
    ASSERT_EQ(d.wrap("GET /a p\r\n\r\n"), 0);
    memset(d.record.url + 2, 'x', 64);
    d.record.url[66] = '\0';
    EXPECT_EQ(strlen(d.record.url), 66u);
}

TEST(HttpDocument, IsMadeEmpty) {
    htmldoc* d = htmldoc_create();
    const htmldoc zeroed = {};
    EXPECT_EQ(memcmp(d, &zeroed, sizeof zeroed), 0);
    EXPECT_EQ(htmldoc_free(d, 1), 0);
    EXPECT_EQ(htmldoc_free(nullptr, 1), 0);
}

TEST(HttpDocument, IsNotMadeWhenMemoryIsOut) {
    CapturedLog log;
    for_each_failing_allocation([] { return htmldoc_create(); },
                                [](htmldoc* d) { htmldoc_free(d, 1); });
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:htmldoc:htmldoc_create: calloc(): Cannot allocate memory"));
}

TEST(HttpDocument, FillsItsStartLineByFlags) {
    const struct {
        int flags;
        const char* method;
        const char* protocol;
    } cases[] = {
        {0, "", ""},
        {HTMLDOC_GET, "GET", ""},
        {HTMLDOC_POST, "POST", ""},
        {HTMLDOC_GET | HTMLDOC_POST, "POST", ""},
        {HTMLDOC_HTTP_1_0, "", "HTTP/1.0"},
        {HTMLDOC_HTTP_1_1, "", "HTTP/1.1"},
        {HTMLDOC_HTTP_1_0 | HTMLDOC_HTTP_1_1 | HTMLDOC_GET, "GET", "HTTP/1.1"},
    };
    for (const auto& c : cases) {
        Doc d;
        htmldoc_init_proto(&d.record, "/x", c.flags);
        EXPECT_STREQ(d.record.method, c.method);
        EXPECT_STREQ(d.record.protocol, c.protocol);
        EXPECT_EQ(d.url(), "/x");
        EXPECT_EQ(d.record.url_length, 2);
    }
}

TEST(HttpDocument, KeepsTheLowBitsOfALongUrlsLength) {
    Doc d;
    htmldoc_init_proto(&d.record, std::string(65537, 'u').c_str(), 0);
    EXPECT_EQ(d.record.url_length, 1);
}

TEST(HttpDocument, FillsNothingWithoutAUrlOrMemory) {
    Doc d;
    htmldoc_init_proto(&d.record, nullptr, HTMLDOC_GET);
    htmldoc_init_proto(nullptr, "/", HTMLDOC_GET);
    FailingCall fault("strdup", ENOMEM);
    htmldoc_init_proto(&d.record, "/", HTMLDOC_GET);
    EXPECT_TRUE(fault.hit());
    EXPECT_STREQ(d.record.method, "");
    EXPECT_EQ(d.record.url, nullptr);
}

TEST(HttpDocument, ReplacesAUrlThatItOwnsWhenItParses) {
    Doc d;
    htmldoc_init_proto(&d.record, "/old", HTMLDOC_HTTP_1_0);
    EXPECT_EQ(d.wrap("GET /new?a=b p\r\n\r\n"), 0);
    EXPECT_EQ(d.url(), "/new");
    EXPECT_STREQ(d.record.protocol, "p");
}

TEST(HttpDocument, PutsParsedOptionsInFrontOfTheHosts) {
    Doc d;
    htmldoc_add_option(&d.record.options, "Own", "1");
    EXPECT_EQ(d.wrap("GET / p\r\nA: 1\r\nB: 2\r\n\r\n"), 0);
    EXPECT_THAT(d.options(), ElementsAre(Pair("B", "2"), Pair("A", "1"), Pair("Own", "1")));
}

TEST(HttpDocument, KnowsWhetherThereWereParameters) {
    Doc d;
    EXPECT_EQ(htmldoc_have_get_params(&d.record), 0);
    EXPECT_EQ(htmldoc_have_get_params(nullptr), 0);
    EXPECT_EQ(d.wrap("GET /?a=b p\r\n\r\n"), 0);
    EXPECT_EQ(htmldoc_have_get_params(&d.record), 1);
}

TEST(HttpDocument, CopiesItsFlagsButNotItsInput) {
    Doc d;
    ASSERT_EQ(d.wrap("GET / p\r\n\r\n"), 0);
    ASSERT_EQ(d.wrap("more"), 0);
    htmldoc* copy = htmldoc_dublicate(&d.record);
    EXPECT_EQ(copy->header_ok, 1);
    EXPECT_EQ(copy->body_ok, 1);
    EXPECT_EQ(copy->input.data, nullptr);
    htmldoc_free(copy, 1);
}
