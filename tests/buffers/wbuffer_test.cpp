#include <ztlib/buffers/wbuffer.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdlib>
#include <string>
#include <utility>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr uint64_t kWrapped = UINT64_MAX;

constexpr char kEmptyIn[] = "empty input buffer";
constexpr char kNoMemory[] = ": Cannot allocate memory";

std::string line(const std::string& function, const std::string& message) {
    return "ERR:wbuffer:" + function + ": " + message;
}
std::string no_memory(const std::string& function, const std::string& call) {
    return line(function, call + "()" + kNoMemory);
}

class WBuffer : public testing::Test {
  protected:
    ~WBuffer() override { wbuffer_free(&b, 0); }

    int append(const std::wstring& text) {
        return wbuffer_append(&b, text.c_str(), static_cast<int>(text.size()));
    }
    // An array of its own that claims these counts, and holds them.
    void claim(uint64_t capacity, const std::wstring& text) {
        free(b.data);
        b.data = static_cast<wchar_t*>(calloc(capacity, sizeof(wchar_t)));
        text.copy(b.data, text.size());
        b.capacity = capacity;
        b.length = text.size();
    }
    std::wstring text() const { return {b.data, b.length}; }

    wbuffer b{};
    CapturedLog log;
};

TEST_F(WBuffer, IsMadeEmpty) {
    wbuffer* made = wbuffer_create();
    EXPECT_EQ(made->data, nullptr);
    EXPECT_EQ(made->capacity, 0u);
    EXPECT_EQ(made->length, 0u);
    wbuffer_append(made, L"x", 1);
    wbuffer_free(made, 1);
    wbuffer_free(nullptr, 1);
}

TEST_F(WBuffer, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation([] { return wbuffer_create(); },
                                [](wbuffer* made) { wbuffer_free(made, 1); });
    EXPECT_THAT(log.lines(), ElementsAre(no_memory("wbuffer_create", "calloc")));
}

TEST_F(WBuffer, KeepsItsCountsWhenFreed) {
    append(L"text");
    wbuffer_free(&b, 0);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.capacity, 5u);
    EXPECT_EQ(b.length, 4u);
    EXPECT_EQ(wbuffer_init(&b), 0);
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(wbuffer_init(nullptr), -1);
}

TEST_F(WBuffer, TakesALengthWithoutAnArrayForZeros) {
    append(L"text");
    wbuffer_free(&b, 0);
    EXPECT_EQ(append(L"x"), 0);
    EXPECT_EQ(text(), std::wstring(L"\0\0\0\0x", 5));
    wbuffer_free(&b, 0);
    EXPECT_EQ(wbuffer_remove(&b, 1), -3);
}

TEST_F(WBuffer, GrowsToTheAddedPlusTwiceTheOldPlusOne) {
    EXPECT_EQ(append(L"12345"), 0);
    EXPECT_EQ(b.capacity, 6u);
    EXPECT_EQ(append(L"6"), 0);
    EXPECT_EQ(b.capacity, 14u);
    EXPECT_EQ(append(L"789abcd"), 0);
    EXPECT_EQ(b.capacity, 14u);
    EXPECT_EQ(append(L"e"), 0);
    EXPECT_EQ(b.capacity, 30u);
    EXPECT_STREQ(b.data, L"123456789abcde");
}

TEST_F(WBuffer, AppendsExactlyTheCount) {
    EXPECT_EQ(wbuffer_append(&b, L"a\0b and more", 3), 0);
    EXPECT_EQ(text(), std::wstring(L"a\0b", 3));
    EXPECT_EQ(b.data[3], L'\0');
    EXPECT_EQ(wbuffer_append(&b, nullptr, 0), 0);
    EXPECT_EQ(b.length, 3u);
}

TEST_F(WBuffer, KeepsEveryCharacterOfManyAppends) {
    std::wstring expected;
    for (int i = 0; i < 2000; ++i) {
        const std::wstring piece(static_cast<size_t>(i % 23), static_cast<wchar_t>(0x400 + i));
        ASSERT_EQ(append(piece), 0);
        expected += piece;
        ASSERT_LT(b.length, b.capacity);
        ASSERT_EQ(b.data[b.length], L'\0');
    }
    EXPECT_EQ(text(), expected);
}

TEST_F(WBuffer, LogsANullBuffer) {
    EXPECT_EQ(wbuffer_expand(nullptr, 1), -1);
    EXPECT_EQ(wbuffer_append(nullptr, L"x", 1), -1);
    EXPECT_EQ(wbuffer_vappend(nullptr, L"x"), -1);
    EXPECT_EQ(wbuffer_remove(nullptr, 1), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre(line("wbuffer_expand", kEmptyIn), line("wbuffer_append", kEmptyIn),
                            line("wbuffer_vappend", kEmptyIn), line("wbuffer_remove", kEmptyIn)));
}

TEST_F(WBuffer, LogsANullBufferTwiceForMultibyteText) {
    errno = ENOENT;
    EXPECT_EQ(wbuffer_cappend(nullptr, "x", 1), -1);
    EXPECT_THAT(log.lines(), ElementsAre(line("wbuffer_expand", kEmptyIn),
                                         line("wbuffer_cappend",
                                              "wbuffer_expand(): No such file or directory")));
}

TEST_F(WBuffer, RefusesNullText) {
    EXPECT_EQ(wbuffer_append(&b, nullptr, 1), -1);
    EXPECT_EQ(wbuffer_vappend(&b, nullptr), -1);
    EXPECT_EQ(wbuffer_cappend(&b, nullptr, 1), -1);
    EXPECT_EQ(b.data, nullptr);
}

TEST_F(WBuffer, RefusesToAppendANegativeCount) {
    append(L"text");
    for (int n : {-1, -5, INT_MIN}) EXPECT_EQ(wbuffer_append(&b, L"x", n), -2);
    EXPECT_EQ(text(), L"text");
    EXPECT_EQ(b.capacity, 5u);
    EXPECT_EQ(log.lines()[0], no_memory("wbuffer_append", "wbuffer_expand"));
}

TEST_F(WBuffer, ReportsBothStepsOfAnAppendThatFindsNoMemory) {
    append(L"text");
    const wchar_t* data = b.data;
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(append(L"more"), -2);
    EXPECT_THAT(log.lines(), ElementsAre(no_memory("wbuffer_expand", "realloc"),
                                         no_memory("wbuffer_append", "wbuffer_expand")));
    EXPECT_EQ(b.data, data);
    EXPECT_STREQ(b.data, L"text");
    EXPECT_EQ(b.length, 4u);
}

// --- expand -------------------------------------------------------------------------------------

TEST_F(WBuffer, ExpandsOnlyWhereThereIsNoRoom) {
    EXPECT_EQ(wbuffer_expand(&b, 9), 0);
    EXPECT_EQ(b.capacity, 10u);
    EXPECT_STREQ(b.data, L"");
    EXPECT_EQ(wbuffer_expand(&b, 9), 0);
    EXPECT_EQ(b.capacity, 10u);
    EXPECT_EQ(wbuffer_expand(&b, 10), 0);
    EXPECT_EQ(b.capacity, 31u);
    EXPECT_EQ(b.length, 0u);
}

TEST_F(WBuffer, UndoesAFailedGrowthByHalving) {
    claim(10, L"123456789");
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(wbuffer_expand(&b, 3), -2);
    EXPECT_EQ(b.capacity, (24u >> 1) - 3 - 1);
    EXPECT_EQ(text(), L"123456789");
    EXPECT_THAT(log.lines(), ElementsAre(no_memory("wbuffer_expand", "realloc")));
}

TEST_F(WBuffer, HoldsTheTextHoweverOftenItCouldNotGrow) {
    claim(10, L"123456789");
    for (int n : {3, 5, 3, 4}) {
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(wbuffer_expand(&b, n), -2);
    }
    EXPECT_LT(b.capacity, 4u);
    EXPECT_EQ(wbuffer_expand(&b, 0), 0);
    EXPECT_STREQ(b.data, L"123456789");
    EXPECT_EQ(append(L"abc"), 0);
    EXPECT_STREQ(b.data, L"123456789abc");
}

TEST_F(WBuffer, GrowsFromItsTextAfterACapacityThatWrapped) {
    append(L"abc");
    {
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(wbuffer_expand(&b, 100), -2);
    }
    EXPECT_EQ(b.capacity, uint64_t{109 >> 1} - 101);  // far below 0
    EXPECT_EQ(append(L"defgh"), 0);
    EXPECT_STREQ(b.data, L"abcdefgh");
    EXPECT_EQ(b.capacity, 5u + 2 * 3 + 1);
}

TEST_F(WBuffer, StartsAgainAfterAFirstGrowthThatFailed) {
    {
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(wbuffer_expand(&b, 10), -2);
    }
    EXPECT_EQ(b.capacity, uint64_t{11 >> 1} - 11);
    EXPECT_EQ(append(L"text"), 0);
    EXPECT_STREQ(b.data, L"text");
    EXPECT_EQ(b.capacity, 5u);
}

TEST_F(WBuffer, CountsANegativeNumberWithItsSign) {
    claim(10, L"12345");
    EXPECT_EQ(wbuffer_expand(&b, -5), 0);
    EXPECT_EQ(b.capacity, 10u);
    EXPECT_EQ(wbuffer_expand(&b, -6), 0);
    EXPECT_EQ(b.capacity, 15u);
    EXPECT_EQ(wbuffer_expand(&b, -29), 0);
    EXPECT_EQ(b.capacity, 2u);
    EXPECT_STREQ(b.data, L"12345");
    EXPECT_EQ(append(L"6789"), 0);
    EXPECT_STREQ(b.data, L"123456789");
}

TEST_F(WBuffer, CannotExpandToNothing) {
    claim(10, L"1");
    EXPECT_EQ(wbuffer_expand(&b, -21), -2);
    EXPECT_EQ(b.capacity, 20u);
    EXPECT_THAT(log.lines(), ElementsAre(no_memory("wbuffer_expand", "realloc")));
    EXPECT_EQ(append(L"23456789abcdef"), 0);  // the room that it claims is there
    EXPECT_EQ(b.capacity, 20u);
    EXPECT_STREQ(b.data, L"123456789abcdef");
}

TEST_F(WBuffer, ClaimsNoRoomThatItCouldNotGet) {
    claim(10, L"1");
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(wbuffer_expand(&b, -21), -2);
    EXPECT_EQ(b.capacity, 10u);
}

TEST_F(WBuffer, CannotExpandBelowNothing) {
    claim(10, L"1");
    EXPECT_EQ(wbuffer_expand(&b, INT_MIN), -2);
    EXPECT_EQ(text(), L"1");
    EXPECT_EQ(append(L"2"), 0);
    EXPECT_EQ(text(), L"12");
}

// --- multibyte text -----------------------------------------------------------------------------

TEST_F(WBuffer, ConvertsMultibyteText) {
    setlocale(LC_CTYPE, "C.UTF-8");
    EXPECT_EQ(wbuffer_cappend(&b, "gr\xc3\xbc\xc3\x9f", 0), 0);
    EXPECT_EQ(b.capacity, 5u);
    EXPECT_EQ(wbuffer_cappend(&b, " \xe2\x82\xac", 9999), 0);
    EXPECT_STREQ(b.data, L"gr\u00fc\u00df \u20ac");
    EXPECT_EQ(b.length, 6u);
    EXPECT_EQ(wbuffer_cappend(&b, "", 1), 0);
    EXPECT_EQ(b.length, 6u);

    const uint64_t capacity = b.capacity;
    EXPECT_EQ(wbuffer_cappend(&b, "bad \xff", 5), -1);
    EXPECT_EQ(b.capacity, capacity);
    EXPECT_STREQ(b.data, L"gr\u00fc\u00df \u20ac");
    setlocale(LC_CTYPE, "C");
}

TEST_F(WBuffer, ReportsMultibyteTextThatFindsNoMemory) {
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(wbuffer_cappend(&b, "text", 4), -1);
    EXPECT_THAT(log.lines(), ElementsAre(no_memory("wbuffer_expand", "realloc"),
                                         no_memory("wbuffer_cappend", "wbuffer_expand")));
    EXPECT_EQ(b.data, nullptr);
}

// --- the formatted append -----------------------------------------------------------------------

TEST_F(WBuffer, MakesRoomForTheArgumentsOfAFormat) {
    EXPECT_EQ(wbuffer_vappend(&b, L"%d-%ls", 7, L"abc"), 0);
    EXPECT_STREQ(b.data, L"7-abc");
    EXPECT_EQ(b.length, 5u);
    EXPECT_EQ(b.capacity, 64u + 1);
}

TEST_F(WBuffer, MeasuresAPlainStringAsAWideOne) {
    EXPECT_EQ(wbuffer_vappend(&b, L"%s", L"ab\0"), 0);  // printed as the bytes 'a' 0 0 0
    EXPECT_EQ(b.capacity, 2u + 1);
    EXPECT_STREQ(b.data, L"a");
}

TEST_F(WBuffer, FindsThePlainStringBehindOtherArguments) {
    const wchar_t* none = nullptr;
    EXPECT_EQ(wbuffer_vappend(&b, L"%5.1f%%%*d%s%s", 1.5, 3, 7, L"a", none), 0);
    EXPECT_EQ(b.capacity, 4u * 32 + 1 + 32 + 1);
    EXPECT_STREQ(b.data, L"  1.5%  7a(null)");
}

TEST_F(WBuffer, DoesNotCountAFormatsOwnText) {
    EXPECT_EQ(wbuffer_vappend(&b, L"literal"), 0);  // a capacity of 1 has no room for it
    EXPECT_EQ(b.capacity, 1u);
    EXPECT_EQ(b.length, kWrapped);
    EXPECT_STREQ(b.data, L"");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(WBuffer, BoundsAFormattedTextByTheWholeCapacity) {
    claim(10, L"12345678");
    EXPECT_EQ(wbuffer_vappend(&b, L"abcdefghi"), 0);  // 9 and the terminator: all of the capacity
    EXPECT_STREQ(b.data, L"12345678abcdefghi");
    EXPECT_EQ(b.length, 17u);
    EXPECT_EQ(b.capacity, 10u);
    EXPECT_EQ(append(L"j"), 0);
    EXPECT_STREQ(b.data, L"12345678abcdefghij");
    EXPECT_EQ(b.capacity, 1u + 20 + 1);
}

TEST_F(WBuffer, LosesOneCharacterToAFormattedTextThatDoesNotFit) {
    claim(10, L"12345678");
    EXPECT_EQ(wbuffer_vappend(&b, L"abcdefghij"), 0);
    EXPECT_STREQ(b.data, L"1234567");
    EXPECT_EQ(b.length, 7u);
    EXPECT_EQ(b.capacity, 10u);
}

TEST_F(WBuffer, GrowsFromNothingAfterALengthThatWrapped) {
    wbuffer_vappend(&b, L"literal");
    ASSERT_EQ(b.length, kWrapped);
    EXPECT_EQ(append(L"abc"), 0);
    EXPECT_STREQ(b.data, L"abc");
    EXPECT_EQ(b.length, 3u);
    EXPECT_EQ(b.capacity, 3u + 2 * 1 + 1);
}

TEST_F(WBuffer, TakesALengthThatWrappedForNoRoomInEveryOperation) {
    const auto wrap = [this] {
        claim(50, L"");
        b.length = kWrapped;
    };
    wrap();
    EXPECT_EQ(wbuffer_expand(&b, 1), 0);
    EXPECT_EQ(b.capacity, 1u + 100 + 1);
    EXPECT_EQ(b.length, 0u);
    wrap();
    EXPECT_EQ(wbuffer_cappend(&b, "abc", 3), 0);
    EXPECT_STREQ(b.data, L"abc");
    wrap();
    EXPECT_EQ(wbuffer_vappend(&b, L"%d", 42), 0);
    EXPECT_STREQ(b.data, L"42");
    wrap();
    EXPECT_EQ(wbuffer_remove(&b, 1), -3);
    EXPECT_EQ(b.length, kWrapped);
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(append(L"x"), -2);
}

TEST_F(WBuffer, KeepsItsTextWhenAFormattedTextFindsNoMemory) {
    claim(5, L"text");
    {
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(wbuffer_vappend(&b, L"%d", 1), -2);
        EXPECT_THAT(log.lines(), ElementsAre(no_memory("wbuffer_expand", "realloc"),
                                             no_memory("wbuffer_vappend", "wbuffer_expand")));
    }
    EXPECT_STREQ(b.data, L"text");

    claim(10, L"12345678");
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(wbuffer_vappend(&b, L"abcdefghi"), -2);
    EXPECT_TRUE(fault.hit());
    EXPECT_STREQ(b.data, L"12345678");
    EXPECT_EQ(b.length, 8u);
}

// --- remove -------------------------------------------------------------------------------------

TEST_F(WBuffer, ForgetsItsArrayWhenAllIsRemoved) {
    append(L"text");
    wchar_t* forgotten = b.data;
    EXPECT_EQ(wbuffer_remove(&b, 4), 0);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_STREQ(forgotten, L"text");
    free(forgotten);
    EXPECT_EQ(wbuffer_remove(&b, 0), 0);
}

TEST_F(WBuffer, MovesTheRestToAnArrayOfTheSameCapacity) {
    append(L"text and more");
    EXPECT_EQ(wbuffer_remove(&b, 5), 0);
    EXPECT_STREQ(b.data, L"and more");
    EXPECT_EQ(b.length, 8u);
    EXPECT_EQ(b.capacity, 14u);
    EXPECT_EQ(append(L"12345"), 0);  // into the room that the capacity claims
    EXPECT_EQ(b.capacity, 14u);
    EXPECT_STREQ(b.data, L"and more12345");
    EXPECT_EQ(wbuffer_remove(&b, 0), 0);
    EXPECT_STREQ(b.data, L"and more12345");
}

TEST_F(WBuffer, RemovesAlsoAfterACapacityThatWrapped) {
    append(L"abc");
    b.capacity = kWrapped;
    EXPECT_EQ(wbuffer_remove(&b, 1), 0);
    EXPECT_STREQ(b.data, L"bc");
    EXPECT_EQ(b.capacity, kWrapped);
    EXPECT_EQ(append(L"d"), 0);
    EXPECT_STREQ(b.data, L"bcd");
}

TEST_F(WBuffer, RefusesToRemoveMoreThanThereIs) {
    append(L"text");
    for (int n : {-1, 5, INT_MAX, INT_MIN}) EXPECT_EQ(wbuffer_remove(&b, n), -3);
    EXPECT_STREQ(b.data, L"text");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(WBuffer, IsUnchangedByARemovalThatFindsNoMemory) {
    append(L"text");
    const wchar_t* data = b.data;
    FailingCall fault("malloc", ENOMEM);
    EXPECT_EQ(wbuffer_remove(&b, 1), -3);
    EXPECT_EQ(b.data, data);
    EXPECT_STREQ(b.data, L"text");
    EXPECT_THAT(log.lines(), ElementsAre(no_memory("wbuffer_remove", "malloc")));
}

TEST_F(WBuffer, SurvivesEveryFailingAllocation) {
    for (FailingAllocations round; round.next();) {
        wbuffer each{};
        round.arm();
        int failures = 0;
        failures += wbuffer_append(&each, L"ab", 2) != 0;
        failures += wbuffer_cappend(&each, "cd", 2) != 0;
        failures += wbuffer_vappend(&each, L"%d", 42) != 0;
        failures += wbuffer_append(&each, L"efgh", 4) != 0;
        failures += wbuffer_remove(&each, 1) != 0;
        round.disarm();
        EXPECT_EQ(failures, round.hit() ? 1 : 0);
        EXPECT_EQ(each.data[each.length], L'\0');
        if (!round.hit()) {
            EXPECT_STREQ(each.data, L"bcd42efgh");
        }
        wbuffer_free(&each, 0);
    }
}

}  // namespace
