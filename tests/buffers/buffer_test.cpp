#include <ztlib/buffers/buffer.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace zt_test;
using testing::ElementsAre;

namespace {

// The three fields, embedded here.
struct Buffer {
    char* data = nullptr;
    unsigned capacity = 0;
    unsigned length = 0;

    Buffer() = default;
    explicit Buffer(const std::string& text) { append(text); }
    ~Buffer() { free(data); }
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    char* append(const std::string& text) {
        return buffer_append(&data, &capacity, &length, text.data(), static_cast<int>(text.size()));
    }
    char* make_room(unsigned n) { return buffer_make_room(&data, &capacity, &length, n); }
    int remove(int n) { return buffer_remove(&data, &capacity, &length, n); }
    std::string text() const { return data ? std::string(data, length) : ""; }
};

// Formats that the compiler rightly warns of.
char* (*const print_unchecked)(char**, unsigned*, unsigned*, const char*, ...) = buffer_vsnprintf;

constexpr char kNoRoomToMake[] =
    "./buffers/buffer:buffer_make_room realloc():Cannot allocate memory\n";
constexpr char kNoRoomToAppend[] =
    "./buffers/buffer:buffer_append realloc():Cannot allocate memory\n";

TEST(Buffer, IsMadeEmpty) {
    buffer* b = buffer_create();
    EXPECT_EQ(b->data, nullptr);
    EXPECT_EQ(b->capacity, 0u);
    EXPECT_EQ(b->length, 0u);
    buffer_free(b, 1);
}

TEST(Buffer, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation([] { return buffer_create(); },
                                [](buffer* b) { buffer_free(b, 1); });

    CapturedLog log;
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(buffer_create(), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:buffer:buffer_create: calloc(): Cannot allocate memory"));
}

TEST(Buffer, IsEmptiedByInitWithoutReleasing) {
    char kept[] = "kept";
    buffer b{kept, 5, 4};
    EXPECT_EQ(buffer_init(&b), 0);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(buffer_init(nullptr), -1);
}

TEST(Buffer, CanBeUsedAgainOnceFreed) {
    const auto before = live_allocations();
    buffer b{};
    buffer_append(&b.data, &b.capacity, &b.length, "first", 5);
    buffer_free(&b, 0);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(live_allocations(), before);

    buffer_append(&b.data, &b.capacity, &b.length, "again", 5);
    EXPECT_STREQ(b.data, "again");
    buffer_free(&b, 0);
    buffer_free(&b, 0);
    buffer_free(nullptr, 1);
    EXPECT_EQ(live_allocations(), before);
}

TEST(Buffer, TakesOneByteForAnEmptyText) {
    Buffer b;
    EXPECT_EQ(b.append(""), b.data);
    EXPECT_STREQ(b.data, "");
    EXPECT_EQ(b.capacity, 1u);
    EXPECT_EQ(b.length, 0u);
}

TEST(Buffer, TakesANullSourceOfNoBytes) {
    Buffer b;
    EXPECT_NE(buffer_append(&b.data, &b.capacity, &b.length, nullptr, 0), nullptr);
    EXPECT_STREQ(b.data, "");
}

TEST(Buffer, GrowsToTheAddedPlusTwiceTheOldPlusOne) {
    Buffer b;
    b.append("12345");
    EXPECT_EQ(b.capacity, 6u);
    b.append("6");
    EXPECT_EQ(b.capacity, 14u);
    EXPECT_STREQ(b.data, "123456");
    b.append("789abcd");  // up to the last byte that leaves room for the terminator
    EXPECT_EQ(b.capacity, 14u);
    b.append("");
    EXPECT_EQ(b.capacity, 14u);
    b.append("e");
    EXPECT_EQ(b.capacity, 30u);
    EXPECT_STREQ(b.data, "123456789abcde");
}

TEST(Buffer, KeepsBinaryBytesAndTerminatesThem) {
    const std::string bytes("a\0b\xff\0", 5);
    Buffer b;
    b.append(bytes);
    b.append(bytes);
    EXPECT_EQ(b.text(), bytes + bytes);
    EXPECT_EQ(b.data[10], '\0');
}

TEST(Buffer, KeepsEveryByteOfManyAppends) {
    Buffer b;
    std::string expected;
    for (int i = 0; i < 3000; ++i) {
        const std::string piece(static_cast<size_t>(i % 37), static_cast<char>(i));
        ASSERT_EQ(b.append(piece), b.data);
        expected += piece;
        ASSERT_EQ(b.data[b.length], '\0');
        ASSERT_LT(b.length, b.capacity);
    }
    EXPECT_EQ(b.text(), expected);
}

TEST(Buffer, CopiesPiecesOfEveryLength) {
    std::string source;
    for (int i = 0; i < 70; ++i) source += static_cast<char>(i + 1);
    for (size_t length = 0; length < source.size(); ++length) {
        Buffer b("#");
        b.make_room(100);
        memset(b.data + 1, '#', 101);
        b.append(source.substr(0, length));
        ASSERT_EQ(b.text(), "#" + source.substr(0, length));
        ASSERT_EQ(b.data[1 + length], '\0');
        ASSERT_EQ(b.data[2 + length], '#');
    }
}

TEST(Buffer, IsUnchangedByAnAppendThatFindsNoMemory) {
    Buffer b("text");
    const char* data = b.data;
    {
        CapturedStderr err;
        FailingCall fault("realloc", ENOMEM);
        EXPECT_EQ(b.append("more"), nullptr);
        EXPECT_EQ(err.text(), kNoRoomToAppend);
    }
    EXPECT_EQ(b.data, data);
    EXPECT_EQ(b.capacity, 5u);
    EXPECT_STREQ(b.data, "text");
    EXPECT_NE(b.append("more"), nullptr);
    EXPECT_STREQ(b.data, "textmore");
}

TEST(Buffer, RefusesANegativeCountAsIfMemoryWereOut) {
    Buffer b("text");
    for (int n : {-1, -4, -5, INT_MIN}) {
        CapturedStderr err;
        EXPECT_EQ(buffer_append(&b.data, &b.capacity, &b.length, "more", n), nullptr);
        EXPECT_EQ(err.text(), kNoRoomToAppend);
    }
    EXPECT_EQ(b.capacity, 5u);
    EXPECT_EQ(b.text(), "text");
}

TEST(Buffer, RefusesToGrowBeyond32Bits) {
    char byte = 0;
    char* data = &byte;  // never touched
    unsigned capacity = 3u << 30, length = capacity - 1;
    CapturedStderr err;
    EXPECT_EQ(buffer_append(&data, &capacity, &length, "x", 1), nullptr);
    EXPECT_EQ(err.take(), kNoRoomToAppend);
    capacity = UINT_MAX, length = UINT_MAX - 1;
    EXPECT_EQ(buffer_append(&data, &capacity, &length, "x", 1), nullptr);
    EXPECT_EQ(err.take(), kNoRoomToAppend);
    EXPECT_EQ(data, &byte);
    EXPECT_EQ(length, UINT_MAX - 1);

    capacity = 1u << 30, length = capacity - 1;
    EXPECT_EQ(buffer_make_room(&data, &capacity, &length, 1), nullptr);
    EXPECT_EQ(err.take(), kNoRoomToMake);
    EXPECT_EQ(buffer_make_room(&data, &capacity, &length, UINT_MAX), nullptr);
    EXPECT_EQ(err.take(), kNoRoomToMake);
    EXPECT_EQ(capacity, 1u << 30);
}

TEST(Buffer, TakesAClaimedLengthWithoutDataForZeros) {
    Buffer b;
    b.capacity = 8;
    b.length = 3;
    b.append("x");
    EXPECT_EQ(b.text(), std::string("\0\0\0x", 4));
    EXPECT_EQ(b.capacity, 18u);
}

TEST(BufferMakeRoom, GrowsByTheSameRule) {
    Buffer b;
    EXPECT_EQ(b.make_room(9), b.data);
    EXPECT_EQ(b.capacity, 10u);
    EXPECT_EQ(b.length, 0u);
    char* data = b.data;
    EXPECT_EQ(b.make_room(9), data);
    EXPECT_EQ(b.capacity, 10u);
    b.make_room(10);
    EXPECT_EQ(b.capacity, 31u);
}

TEST(BufferMakeRoom, LeavesTextAndLengthAlone) {
    Buffer b("text");
    b.make_room(100);
    EXPECT_STREQ(b.data, "text");
    EXPECT_EQ(b.length, 4u);
    EXPECT_EQ(b.capacity, 111u);
}

TEST(BufferMakeRoom, ChangesNothingWhenMemoryIsOut) {
    Buffer b("text");
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(b.make_room(100), nullptr);
    EXPECT_EQ(err.text(), kNoRoomToMake);
    EXPECT_EQ(b.capacity, 5u);
    EXPECT_STREQ(b.data, "text");
}

TEST(BufferRemove, KeepsTheAllocationWhenNothingIsLeft) {
    Buffer b("text");
    char* data = b.data;
    EXPECT_EQ(b.remove(4), 0);
    EXPECT_EQ(b.data, data);
    EXPECT_EQ(b.capacity, 5u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_STREQ(b.data, "text");  // no terminator either
    EXPECT_EQ(b.remove(0), 0);
}

TEST(BufferRemove, MovesTheRestToTheFrontAndTerminatesIt) {
    Buffer b("text and more");
    EXPECT_EQ(b.remove(5), 0);
    EXPECT_STREQ(b.data, "and more");
    EXPECT_EQ(b.length, 8u);
    EXPECT_EQ(b.capacity, 14u);
    EXPECT_EQ(b.remove(0), 0);
    EXPECT_STREQ(b.data, "and more");
    EXPECT_EQ(b.remove(7), 0);
    EXPECT_STREQ(b.data, "e");
    b.append("nd");
    EXPECT_STREQ(b.data, "end");
}

TEST(BufferRemove, RefusesMoreThanThereIs) {
    Buffer b("text");
    for (int n : {-1, 5, INT_MAX, INT_MIN}) EXPECT_EQ(b.remove(n), -3);
    EXPECT_STREQ(b.data, "text");
    EXPECT_EQ(b.length, 4u);
}

TEST(BufferRemove, SaysThatThereIsNoBuffer) {
    Buffer b;
    EXPECT_EQ(b.remove(0), -2);
    EXPECT_EQ(buffer_remove(nullptr, &b.capacity, &b.length, 0), -2);
}

TEST(Buffer, IgnoresNullArguments) {
    Buffer b("text");
    EXPECT_EQ(buffer_make_room(nullptr, &b.capacity, &b.length, 1), nullptr);
    EXPECT_EQ(buffer_make_room(&b.data, nullptr, &b.length, 1), nullptr);
    EXPECT_EQ(buffer_make_room(&b.data, &b.capacity, nullptr, 1), nullptr);
    EXPECT_EQ(buffer_append(nullptr, &b.capacity, &b.length, "x", 1), nullptr);
    EXPECT_EQ(buffer_append(&b.data, nullptr, &b.length, "x", 1), nullptr);
    EXPECT_EQ(buffer_append(&b.data, &b.capacity, nullptr, "x", 1), nullptr);
    EXPECT_EQ(buffer_append(&b.data, &b.capacity, &b.length, nullptr, 1), nullptr);
    EXPECT_EQ(buffer_remove(&b.data, nullptr, &b.length, 1), -2);
    EXPECT_EQ(buffer_remove(&b.data, &b.capacity, nullptr, 1), -2);
    EXPECT_EQ(buffer_vsnprintf(nullptr, &b.capacity, &b.length, "x"), nullptr);
    EXPECT_EQ(buffer_vsnprintf(&b.data, nullptr, &b.length, "x"), nullptr);
    EXPECT_EQ(buffer_vsnprintf(&b.data, &b.capacity, nullptr, "x"), nullptr);
    EXPECT_EQ(print_unchecked(&b.data, &b.capacity, &b.length, nullptr), nullptr);
    EXPECT_STREQ(b.data, "text");
}

// --- the formatted append -----------------------------------------------------------------------

// The text and the capacity that one formatted append to an empty buffer gives.
template <class... Arguments>
std::pair<std::string, unsigned> printed(const char* format, Arguments... arguments) {
    Buffer b;
    EXPECT_EQ(print_unchecked(&b.data, &b.capacity, &b.length, format, arguments...), b.data);
    EXPECT_EQ(strlen(b.data), b.length);
    return {b.text(), b.capacity};
}

std::pair<std::string, unsigned> text_and_room(const std::string& text, unsigned room) {
    return {text, room + 1};
}

TEST(BufferFormat, MakesRoomForItsEstimateAnd32More) {
    EXPECT_EQ(printed("%s %d", "abc", 7), text_and_room("abc 7", 5 + 3 + 32 + 32));
    EXPECT_EQ(printed("plain"), text_and_room("plain", 5 + 32));
    EXPECT_EQ(printed(""), text_and_room("", 32));
    EXPECT_EQ(printed("%ld%s%x", -5L, "", 255u), text_and_room("-5ff", 7 + 32 + 0 + 32 + 32));
}

TEST(BufferFormat, CountsBothHalvesOfADoubledPercent) {
    EXPECT_EQ(printed("100%%"), text_and_room("100%", 5 + 64 + 32));
    EXPECT_EQ(printed("%%s"), text_and_room("%s", 3 + 64 + 32));
    EXPECT_EQ(printed("%%%s", "abc"), text_and_room("%abc", 4 + 64 + 3 + 32));
}

TEST(BufferFormat, FindsTheStringBehindArgumentsOfEveryKind) {
    const std::string s(200, 's');
    const char* text = s.c_str();
    const auto room = [](const char* format, unsigned others) {
        return static_cast<unsigned>(strlen(format)) + others * 32 + 200 + 32;
    };
    EXPECT_EQ(printed("%f%s", 1.5, text), text_and_room("1.500000" + s, room("%f%s", 1)));
    EXPECT_EQ(printed("%Lf%s", 2.5L, text), text_and_room("2.500000" + s, room("%Lf%s", 1)));
    EXPECT_EQ(printed("%llf%s", 2.5L, text), text_and_room("2.500000" + s, room("%llf%s", 1)));
    EXPECT_EQ(printed("%*d%s", 3, 7, text), text_and_room("  7" + s, room("%*d%s", 1)));
    EXPECT_EQ(printed("%.*f%s", 1, 2.25, text), text_and_room("2.2" + s, room("%.*f%s", 1)));
    EXPECT_EQ(printed("%-+5.2hhd%s", 7, text), text_and_room("+07  " + s, room("%-+5.2hhd%s", 1)));
    EXPECT_EQ(printed("%c%zu%s", 'c', size_t{9}, text),
              text_and_room("c9" + s, room("%c%zu%s", 2)));
    EXPECT_EQ(printed("%lld%s", 9LL, text), text_and_room("9" + s, room("%lld%s", 1)));
    EXPECT_EQ(printed("%.2s%s", "abc", text), text_and_room("ab" + s, room("%.2s%s", 1)));
    EXPECT_EQ(printed("%% %s", text), text_and_room("% " + s, room("%% %s", 2)));
    errno = ENOENT;
    EXPECT_EQ(printed("%m%s", text),
              text_and_room("No such file or directory" + s, room("%m%s", 1)));
    // More than the registers hold, of both kinds.
    EXPECT_EQ(printed("%d%d%d%d%d%d%f%f%f%f%f%f%f%f%f%s", 1, 2, 3, 4, 5, 6, 1., 2., 3., 4., 5., 6.,
                      7., 8., 9., text)
                  .second,
              room("%d%d%d%d%d%d%f%f%f%f%f%f%f%f%f%s", 15) + 1);
}

TEST(BufferFormat, DoesNotReadAStringThatPrintfDoesNot) {
    const char* none = nullptr;
    EXPECT_EQ(printed("%s", none), text_and_room("(null)", 2 + 32 + 32));
    EXPECT_EQ(printed("%d%%s%%s", 1), text_and_room("1%s%s", 8 + 32 + 128 + 32));
    EXPECT_EQ(printed("% %s"), text_and_room("%s", 4 + 64 + 32));
}

TEST(BufferFormat, ReadsNoStringBehindNumberedArgumentsOrUnknownConversions) {
    EXPECT_EQ(printed("%2$s-%1$d", 1, "two"), text_and_room("two-1", 9 + 64 + 32));
    EXPECT_EQ(printed("%1$*2$d%3$s", 1, 3, "x"), text_and_room("  1x", 11 + 64 + 32));
    EXPECT_EQ(printed("%y%s", "abc").second, 4u + 64 + 32 + 1);
}

TEST(BufferFormat, TakesAFormatThatEndsInAPercent) {
    Buffer b;
    print_unchecked(&b.data, &b.capacity, &b.length, "ab%");
    EXPECT_EQ(b.capacity, 3u + 32 + 32 + 1);
    EXPECT_STREQ(b.data, "");  // the C library prints nothing of it
    EXPECT_EQ(b.length, 0u);
}

TEST(BufferFormat, PrintsATextLongerThanItsEstimateWhole) {
    const std::string wide(500, ' ');
    EXPECT_EQ(printed("%501d", 7), text_and_room(wide + "7", 501 + 2 * (5 + 32 + 32 + 1)));
    const std::string s(300, 's');
    EXPECT_EQ(printed("%5s", s.c_str()), text_and_room(s, 300 + 2 * (3 + 32 + 32 + 1)));
}

TEST(BufferFormat, AppendsBehindWhatIsThere) {
    Buffer b("text");
    buffer_vsnprintf(&b.data, &b.capacity, &b.length, "-%d-%s", 42, "end");
    EXPECT_STREQ(b.data, "text-42-end");
    EXPECT_EQ(b.length, 11u);
    EXPECT_EQ(b.capacity, (6 + 32 + 3 + 32) + 2 * 5 + 1u);
}

TEST(BufferFormat, FillsTheRoomToTheLastByte) {
    // Room is made for 5 + 32 + 32 bytes and the terminator.
    EXPECT_EQ(printed("%069d", 1), text_and_room(std::string(68, '0') + "1", 69));
    EXPECT_EQ(printed("%070d", 1).second, 70 + 2 * 70 + 1u);
}

TEST(BufferFormat, PrintsIntoTheRoomInHandWhenItCannotGrow) {
    Buffer b("text");
    b.make_room(10);
    ASSERT_EQ(b.capacity, 21u);
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(buffer_vsnprintf(&b.data, &b.capacity, &b.length, "%016d", 7), b.data);
    EXPECT_STREQ(b.data, "text0000000000000007");
    EXPECT_EQ(b.length, 20u);
    EXPECT_EQ(b.capacity, 21u);
    EXPECT_EQ(err.text(), kNoRoomToMake);
}

TEST(BufferFormat, ChangesNothingWhenTheTextDoesNotFitAndCannotGrow) {
    Buffer b("text");
    b.make_room(10);
    memset(b.data + 5, 'x', 16);
    const std::string before(b.data, 21);
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(buffer_vsnprintf(&b.data, &b.capacity, &b.length, "%017d", 7), b.data);
    EXPECT_EQ(std::string(b.data, 21), before);
    EXPECT_EQ(b.length, 4u);
    EXPECT_EQ(err.text(), kNoRoomToMake);
}

TEST(BufferFormat, StaysAnEmptyBufferWhenMemoryIsOut) {
    Buffer b;
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(buffer_vsnprintf(&b.data, &b.capacity, &b.length, "text"), nullptr);
    EXPECT_EQ(b.capacity, 0u);
    EXPECT_EQ(b.length, 0u);
    EXPECT_EQ(err.text(), kNoRoomToMake);
}

TEST(BufferFormat, KeepsTheTextWhenTheSecondGrowthFails) {
    Buffer b("text");
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM, 1);
    EXPECT_EQ(buffer_vsnprintf(&b.data, &b.capacity, &b.length, "%0500d", 7), b.data);
    EXPECT_TRUE(fault.hit());
    EXPECT_STREQ(b.data, "text");
    EXPECT_EQ(b.length, 4u);
    EXPECT_EQ(err.text(), kNoRoomToMake);
}

TEST(BufferFormat, KeepsTheTextWhenTheCLibraryCannotPrint) {
    Buffer b("text");
    const wchar_t unprintable[] = {L'a', 0x10FFFF, 0};  // not in the C locale
    EXPECT_EQ(buffer_vsnprintf(&b.data, &b.capacity, &b.length, "more %ls", unprintable), b.data);
    EXPECT_STREQ(b.data, "text");
    EXPECT_EQ(b.length, 4u);
}

TEST(BufferFormat, GrowsByItsEstimateHoweverMuchRoomThereIs) {
    Buffer b;
    std::string expected;
    unsigned capacity = 0;
    for (unsigned i = 0; i < 3000; ++i) {
        const std::string word((i * i) % 700, static_cast<char>('a' + i % 26));
        const unsigned estimate = 5 + static_cast<unsigned>(word.size()) + 32 + 32;
        const auto length = static_cast<unsigned>(expected.size());
        if (length + estimate >= capacity) capacity = estimate + 2 * capacity + 1;

        buffer_vsnprintf(&b.data, &b.capacity, &b.length, "%s %u", word.c_str(), i);
        expected += word + " " + std::to_string(i);
        ASSERT_EQ(b.capacity, capacity) << "append " << i;
        ASSERT_EQ(b.length, expected.size());
        ASSERT_EQ(b.data[b.length], '\0');
    }
    EXPECT_EQ(b.text(), expected);
}

TEST(BufferFormat, KeepsTheTextWhenALongOneFillsAllRoomAndCannotGrow) {
    Buffer b("text");
    b.make_room(1000);
    const std::string s(5000, 's');
    CapturedStderr err;
    FailingCall fault("realloc", ENOMEM);
    EXPECT_EQ(buffer_vsnprintf(&b.data, &b.capacity, &b.length, "%s", s.c_str()), b.data);
    EXPECT_STREQ(b.data, "text");
    EXPECT_EQ(b.length, 4u);
    EXPECT_EQ(err.text(), kNoRoomToMake);
}

TEST(BufferFormat, SurvivesEveryFailingAllocation) {
    for (FailingAllocations round; round.next();) {
        CapturedStderr err;
        Buffer b;
        round.arm();
        buffer_append(&b.data, &b.capacity, &b.length, "ab", 2);
        buffer_vsnprintf(&b.data, &b.capacity, &b.length, "%s%0200d", "text", 7);
        round.disarm();
        EXPECT_EQ(round.hit(), !err.text().empty());
        if (b.data) {
            EXPECT_EQ(b.data[b.length], '\0');
        }
        if (!round.hit()) {
            EXPECT_EQ(b.text(), "abtext" + std::string(199, '0') + "7");
        }
    }
}

}  // namespace
