// What the second family has for itself: nothing is kept between calls.

#include <gmock/gmock.h>
#include <tests/htmldoc/documents.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <cerrno>
#include <cstring>

using namespace zt_test;
using testing::ElementsAre;
using testing::Pair;

namespace {

using Doc = Document<SecondFamily>;

const std::string kBlock = "POST /f?a=b HTTP/1.1\r\nHost: h\r\nContent-Length: 6\r\n\r\n";

}  // namespace

TEST(SecondHttpDocument, NeedsTheWholeBlockInOneCall) {
    for (size_t cut = 1; cut < kBlock.size(); cut++) {
        Doc d;
        EXPECT_EQ(d.wrap(kBlock.substr(0, cut)), 1);
        const http_document zeroed = {};
        EXPECT_EQ(memcmp(&d.record, &zeroed, sizeof zeroed), 0) << "nothing is stored";
        EXPECT_EQ(d.wrap(kBlock + "fo"), 1);
        EXPECT_EQ(d.wrap("rm=1"), 0);
        EXPECT_EQ(d.url(), "/f");
        EXPECT_EQ(d.body(), "form=1");
    }
}

TEST(SecondHttpDocument, TakesABodyInThreePieces) {
    Doc d;
    EXPECT_EQ(d.wrap(kBlock), 1);
    EXPECT_EQ(d.wrap("ab"), 1);
    EXPECT_EQ(d.wrap("cd"), 1);
    EXPECT_EQ(d.wrap("ef"), 0);
    EXPECT_EQ(d.body(), "abcdef");
}

TEST(SecondHttpDocument, IgnoresWhatIsFedToACompleteDocument) {
    Doc d;
    EXPECT_EQ(d.wrap(kBlock + "abcdef"), 0);
    EXPECT_EQ(d.wrap("more"), 0);
    EXPECT_EQ(d.body(), "abcdef");
}

TEST(SecondHttpDocument, RefusesThisCallsDataAlone) {
    Doc d;
    EXPECT_EQ(d.wrap("GET / p\r\nA: 1\r\n"), 1);
    CapturedStderr err;
    EXPECT_EQ(d.wrap("GET / p\r\nbad\r\n\r\nrest"), -1);
    EXPECT_EQ(err.text(),
              "http_failed: request:\nGET / p\r\nbad\r\n\r\nrest\nparse options (can't find : in "
              "'bad')\n");
}

TEST(SecondHttpDocument, LeavesAUrlRoomToGrow) {
    Doc d;
    ASSERT_EQ(d.wrap("GET /a p\r\n\r\n"), 0);
    memset(d.record.url + 2, 'x', 1500);
    d.record.url[1502] = '\0';
    EXPECT_EQ(strlen(d.record.url), 1502u);
}

TEST(SecondHttpDocument, CopiesWithoutItsFlags) {
    Doc d;
    ASSERT_EQ(d.wrap(kBlock + "abcdef"), 0);
    http_document* copy = http_dublicate_document(&d.record);
    EXPECT_EQ(copy->header_ok, 0);
    EXPECT_EQ(copy->body_ok, 0);
    EXPECT_STREQ(copy->url, "/f");
    http_free(copy, 1);
}

TEST(SecondHttpDocument, StaysAsItWasWhenABodyCannotGrow) {
    Doc d;
    ASSERT_EQ(d.wrap(kBlock + "ab"), 1);
    CapturedStderr err;
    {
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(http_wrap(&d.record, "cdef", 4), -1);
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_EQ(err.text(), "./buffers/buffer:buffer_append realloc():Cannot allocate memory\n");
    EXPECT_EQ(d.body(), "ab");
    EXPECT_EQ(d.wrap("cdef"), 0);
}

TEST(SecondHttpDocument, TakesNoBodyAheadOfItsHeader) {
    Doc d;
    EXPECT_EQ(d.wrap("no header yet"), 1);
    EXPECT_EQ(d.record.body.data, nullptr);
    EXPECT_EQ(d.record.body_ok, 0);
}
