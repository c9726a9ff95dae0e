#include <ztlib/utils/converters.h>
#include <ztlib/utils/hex.hpp>
#include <ztlib/utils/vectors.hpp>

#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

std::vector<unsigned char> random_bytes(size_t count) {
    std::mt19937 random(static_cast<unsigned>(count) + 1);
    std::vector<unsigned char> bytes(count);
    for (auto& byte : bytes) byte = static_cast<unsigned char>(random());
    return bytes;
}

// --- hexadecimal --------------------------------------------------------------------------------

TEST(Hex, HasTwoLowerCaseDigitsAByte) {
    char text[9];
    tohexstring("\x00\x0f\xA5\xff", 4, text, 0);
    EXPECT_STREQ(text, "000fa5ff");
    tohexstring(nullptr, 0, text, 0);
    EXPECT_STREQ(text, "");
    text[0] = 'k';
    tohexstring(nullptr, 1, text, 9);
    EXPECT_EQ(text[0], 'k');
    tohexstring("x", 1, nullptr, 9);
}

TEST(Hex, IsReadInEitherCase) {
    unsigned char bytes[2];
    EXPECT_EQ(hextobytes("0a1B", 4, bytes, 2), 2);
    EXPECT_THAT(bytes, ElementsAre(0x0A, 0x1B));
}

TEST(Hex, IsNotReadWhenOddOrEmptyOrTooLong) {
    unsigned char bytes[2];
    EXPECT_EQ(hextobytes("0a1B", 4, bytes, 1), -2);
    EXPECT_EQ(hextobytes("0a1", 3, bytes, 2), -1);
    EXPECT_EQ(hextobytes("0a1", 3, bytes, 0), -1);
    EXPECT_EQ(hextobytes("", 0, bytes, 2), -1);
    EXPECT_EQ(hextobytes("0a", 2, bytes, 0), -2);
    EXPECT_EQ(hextobytes(nullptr, 2, bytes, 2), -1);
    EXPECT_EQ(hextobytes("0a", 2, nullptr, 2), -1);
}

TEST(Hex, ReadsEveryPairAsStrtoulDoes) {
    for (unsigned pair = 0; pair < 65536; ++pair) {
        const char text[] = {static_cast<char>(pair >> 8), static_cast<char>(pair), 0};
        const auto expected = static_cast<unsigned char>(strtoul(text, nullptr, 16));
        unsigned char byte = 0x5A;
        ASSERT_EQ(hextobytes(text, 2, &byte, 1), 1);
        ASSERT_EQ(byte, expected) << "pair " << pair;
    }
}

TEST(Hex, ReadsAnOddPairAnywhereInALongText) {
    for (size_t at = 0; at < 70; ++at) {
        std::string text(140, '7');
        text.replace(2 * at, 2, "g1");
        std::vector<unsigned char> bytes(70);
        EXPECT_EQ(hextobytes(text.data(), 140, bytes.data(), 70), 70);
        for (size_t i = 0; i < 70; ++i) ASSERT_EQ(bytes[i], i == at ? 0 : 0x77);
    }
}

TEST(Hex, IsReadInItsOwnPlace) {
    const auto bytes = random_bytes(75);
    char text[151];
    tohexstring(bytes.data(), 75, text, sizeof text);
    EXPECT_EQ(hextobytes(text, 150, text, 75), 75);
    EXPECT_EQ(memcmp(text, bytes.data(), 75), 0);
}

class HexPaths : public testing::TestWithParam<bool> {};

TEST_P(HexPaths, GoThereAndBackForEveryLength) {
    const bool use_vectors = GetParam() && zt::vectors::available();
    for (size_t length = 0; length <= 300; ++length) {
        const auto bytes = random_bytes(length);
        std::string text(2 * length, '?'), expected;
        zt::hex_encode(bytes.data(), length, text.data(), use_vectors);
        for (unsigned char byte : bytes) {
            char digits[3];
            snprintf(digits, sizeof digits, "%02x", byte);
            expected += digits;
        }
        ASSERT_EQ(text, expected);

        if (length % 2)
            for (char& c : text) c = static_cast<char>(toupper(c));
        std::vector<unsigned char> back(length);
        zt::hex_decode(text.data(), length, back.data(), use_vectors);
        ASSERT_EQ(back, bytes);
    }
}

TEST_P(HexPaths, TellEveryCharacterApartAtEveryPlace) {
    const bool use_vectors = GetParam() && zt::vectors::available();
    for (unsigned c = 0; c < 256; ++c)
        for (size_t at = 0; at < 32; ++at) {
            std::string text(32, '0');
            text[at] = static_cast<char>(c);
            unsigned char bytes[16];
            zt::hex_decode(text.data(), 16, bytes, use_vectors);
            const char pair[] = {text[at & ~size_t{1}], text[at | 1], 0};
            ASSERT_EQ(bytes[at / 2], static_cast<unsigned char>(strtoul(pair, nullptr, 16)));
        }
}

INSTANTIATE_TEST_SUITE_P(Both, HexPaths, testing::Bool(),
                         [](const auto& run) { return run.param ? "vectors" : "scalar"; });

// --- bytes --------------------------------------------------------------------------------------

TEST(ByteCmp, ComparesUnsignedBytes) {
    EXPECT_EQ(bytecmp("\x80", "\x7f", 1), 1);
    EXPECT_EQ(bytecmp("\x7f", "\x80", 1), -1);
    EXPECT_EQ(bytecmp("abcd", "abce", 4), -1);
    EXPECT_EQ(bytecmp("abcd", "abce", 3), 0);
    EXPECT_EQ(bytecmp("a\0c", "a\0b", 3), 1);
}

TEST(ByteCmp, FindsNoDifferenceInNothing) {
    EXPECT_EQ(bytecmp("a", "b", 0), 0);
    EXPECT_EQ(bytecmp("a", "b", -1), 0);
    EXPECT_EQ(bytecmp(nullptr, nullptr, 0), 0);
    EXPECT_EQ(bytecmp(nullptr, "b", 1), -1);
    EXPECT_EQ(bytecmp("a", nullptr, 1), -1);
}

TEST(DumpArray, PrintsEachByteAndABlank) {
    CapturedStderr err;
    dump_array("\x00\xaf\x10", 3);
    EXPECT_EQ(err.take(), "dump: 00 AF 10 \n");
    dump_array(nullptr, 0);
    EXPECT_EQ(err.take(), "dump: \n");
    dump_array(nullptr, 1);
    EXPECT_EQ(err.take(), "");
}

TEST(NetworkOrder, IsReadFromAnyIndex) {
    const unsigned char bytes[] = {1, 2, 3, 4, 5, 6, 7, 8, 0xF9};
    EXPECT_EQ(be_byte2uint16(bytes, 0), 0x0102);
    EXPECT_EQ(be_byte2uint16(bytes, 7), 0x08F9);
    EXPECT_EQ(be_byte2uint32(bytes, 1), 0x02030405u);
    EXPECT_EQ(be_byte2uint32(bytes, 5), 0x060708F9u);
    EXPECT_EQ(be_byte2uint64(bytes, 1), 0x02030405060708F9u);
    EXPECT_EQ(be_byte2uint16(bytes + 8, -1), 0x08F9);
    EXPECT_EQ(be_byte2uint16(nullptr, 1) + be_byte2uint32(nullptr, 1) + be_byte2uint64(nullptr, 1),
              0u);
}

TEST(NetworkOrder, IsWrittenMostSignificantByteFirst) {
    unsigned char bytes[10] = {};
    be_uint162byte(0xABCD, bytes + 1);
    EXPECT_THAT(bytes, ElementsAre(0, 0xAB, 0xCD, 0, 0, 0, 0, 0, 0, 0));
    be_uint322byte(0x01020304, bytes + 1);
    EXPECT_THAT(bytes, ElementsAre(0, 1, 2, 3, 4, 0, 0, 0, 0, 0));
    be_uint642byte(0xF102030405060708, bytes + 1);
    EXPECT_THAT(bytes, ElementsAre(0, 0xF1, 2, 3, 4, 5, 6, 7, 8, 0));
    be_uint162byte(1, nullptr);
    be_uint322byte(1, nullptr);
    be_uint642byte(1, nullptr);
}

// --- replacing ----------------------------------------------------------------------------------

std::string replaced(const char* text, const char* find, const char* by) {
    int flag = 9;
    char* result = strreplace(text, find, by, &flag);
    EXPECT_EQ(flag, 1);
    EXPECT_NE(result, text);
    const std::string copy = result;
    free(result);
    return copy;
}

TEST(StrReplace, ReplacesTheFirstOccurrenceOnly) {
    EXPECT_EQ(replaced("aXbX", "X", "YY"), "aYYbX");
    EXPECT_EQ(replaced("start end", "start ", ""), "end");
    EXPECT_EQ(replaced("start end", "end", "over"), "start over");
    EXPECT_EQ(replaced("all", "all", "none"), "none");
    EXPECT_EQ(replaced("aXb", "X", "X"), "aXb");
    EXPECT_EQ(replaced("", "", "x"), "x");
    EXPECT_EQ(replaced("text", "", "con"), "context");
}

TEST(StrReplace, GivesTheTextItselfWithoutAnOccurrence) {
    const char* text = "text";
    int flag = 9;
    EXPECT_EQ(strreplace(text, "y", "z", &flag), text);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(strreplace(text, "texts", "z", nullptr), text);
}

TEST(StrReplace, NeedsNoFlag) {
    char* result = strreplace("abc", "b", "-", nullptr);
    EXPECT_STREQ(result, "a-c");
    free(result);
}

TEST(StrReplace, GivesNothingWhenMemoryIsOutOrAnArgumentIsNull) {
    for_each_failing_allocation([] { return strreplace("abc", "b", "-", nullptr); },
                                [](char* text) { free(text); });
    int flag = 9;
    FailingCall fault("malloc", ENOMEM);
    EXPECT_EQ(strreplace("abc", "b", "-", &flag), nullptr);
    EXPECT_EQ(flag, 0);
    EXPECT_EQ(strreplace(nullptr, "b", "-", nullptr), nullptr);
    EXPECT_EQ(strreplace("abc", nullptr, "-", nullptr), nullptr);
    EXPECT_EQ(strreplace("abc", "b", nullptr, nullptr), nullptr);
}

// --- decimal ------------------------------------------------------------------------------------

TEST(Decimal, PrintsTheLowBitsIntoOneSharedText) {
    EXPECT_STREQ(u82str(0x1FF), "255");
    EXPECT_STREQ(u162str(0xABCD0007), "7");
    EXPECT_STREQ(u322str(0x1FFFFFFFF), "4294967295");
    EXPECT_STREQ(u642str(UINT64_MAX), "18446744073709551615");
    EXPECT_EQ(u82str(1), u162str(2));
    EXPECT_EQ(u322str(3), u642str(4));
    EXPECT_EQ(u82str(5), u642str(6));
}

TEST(Decimal, PrintsIntoTheCallersBuffer) {
    char text[32];
    EXPECT_EQ(u82str_r(0x1FF, text, sizeof text), text);
    EXPECT_STREQ(text, "255");
    EXPECT_STREQ(u162str_r(0x1FFFF, text, sizeof text), "65535");
    EXPECT_STREQ(u322str_r(0, text, sizeof text), "0");
    EXPECT_STREQ(u642str_r(UINT64_MAX, text, sizeof text), "18446744073709551615");
    EXPECT_STREQ(u322str_r(12345, text, 4), "123");
    text[0] = 'k';
    EXPECT_EQ(u322str_r(12345, text, 0), text);
    EXPECT_EQ(text[0], 'k');
    EXPECT_EQ(u82str_r(1, nullptr, 9), nullptr);
}

TEST(Decimal, PrintsWideIntoTheCallersBuffer) {
    wchar_t text[32];
    EXPECT_EQ(u82wstr_r(0x1FF, text, 32), text);
    EXPECT_STREQ(text, L"255");
    EXPECT_STREQ(u162wstr_r(0x1FFFF, text, 32), L"65535");
    EXPECT_STREQ(u322wstr_r(UINT32_MAX, text, 32), L"4294967295");
    EXPECT_STREQ(u642wstr_r(UINT64_MAX, text, 21), L"18446744073709551615");
    EXPECT_EQ(u642wstr_r(1, nullptr, 9), nullptr);
}

// --- narrow and wide ----------------------------------------------------------------------------

class LocaleText : public testing::Test {
  protected:
    LocaleText() { setlocale(LC_CTYPE, "C.UTF-8"); }
    ~LocaleText() override { setlocale(LC_CTYPE, "C"); }

    CapturedLog log;
};

constexpr char kNarrow[] = "gr\xc3\xbc\xc3\x9f \xe2\x82\xac";  // 9 bytes for 6 characters
constexpr wchar_t kWide[] = L"gr\u00fc\u00df \u20ac";

TEST_F(LocaleText, IsCountedWithoutADestination) {
    EXPECT_EQ(str2wchr(kNarrow, nullptr), 6);
    EXPECT_EQ(wchr2str(kWide, nullptr), 10);
    EXPECT_EQ(str2wchr("", nullptr), 0);
    EXPECT_EQ(wchr2str(L"", nullptr), 0);
}

TEST_F(LocaleText, IsConvertedIntoNewMemory) {
    wchar_t* wide = nullptr;
    EXPECT_EQ(str2wchr(kNarrow, &wide), 6);
    EXPECT_STREQ(wide, kWide);
    char* narrow = nullptr;
    EXPECT_EQ(wchr2str(wide, &narrow), 10);
    EXPECT_STREQ(narrow, kNarrow);
    free(wide);
    free(narrow);
}

TEST_F(LocaleText, IsConvertedIntoTheCallersBuffer) {
    wchar_t wide[8];
    wmemset(wide, L'#', 8);
    wchar_t* to_wide = wide;
    EXPECT_EQ(str2wchr(kNarrow, &to_wide), 6);
    EXPECT_EQ(to_wide, wide);
    EXPECT_STREQ(wide, kWide);
    EXPECT_EQ(wide[7], L'#');

    char narrow[12];
    memset(narrow, '#', sizeof narrow);
    char* to_narrow = narrow;
    EXPECT_EQ(wchr2str(kWide, &to_narrow), 10);
    EXPECT_EQ(std::string(narrow, 12), std::string(kNarrow) + "##");  // no terminator
}

TEST_F(LocaleText, ThatCannotBeConvertedTouchesNothing) {
    const auto before = live_allocations();
    wchar_t* no_wide = nullptr;
    wchar_t wide[4] = L"###";
    wchar_t* to_wide = wide;
    EXPECT_EQ(str2wchr("a\xff", nullptr), -1);
    EXPECT_EQ(str2wchr("a\xff", &no_wide), -1);
    EXPECT_EQ(str2wchr("a\xff", &to_wide), -1);
    EXPECT_EQ(no_wide, nullptr);
    EXPECT_STREQ(wide, L"###");

    const wchar_t bad[] = {L'a', -2, 0};
    char* no_narrow = nullptr;
    char narrow[4] = "###";
    char* to_narrow = narrow;
    EXPECT_EQ(wchr2str(bad, nullptr), -1);
    EXPECT_EQ(wchr2str(bad, &no_narrow), -1);
    EXPECT_EQ(wchr2str(bad, &to_narrow), -1);
    EXPECT_EQ(no_narrow, nullptr);
    EXPECT_STREQ(narrow, "###");
    EXPECT_EQ(live_allocations(), before);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(LocaleText, OfNullIsRefused) {
    wchar_t* wide = nullptr;
    errno = EINVAL;
    EXPECT_EQ(str2wchr(nullptr, &wide), -1);
    EXPECT_EQ(wide, nullptr);
    EXPECT_THAT(log.lines(), ElementsAre("ERR:converters:str2wchr: null input parameter(): "
                                         "Invalid argument"));
    char* narrow = nullptr;
    EXPECT_EQ(wchr2str(nullptr, &narrow), -1);
    EXPECT_EQ(narrow, nullptr);
}

TEST_F(LocaleText, FailsWhenMemoryIsOut) {
    wchar_t* wide = nullptr;
    char* narrow = nullptr;
    {
        FailingCall fault("calloc", ENOMEM);
        EXPECT_EQ(str2wchr(kNarrow, &wide), -3);
    }
    {
        FailingCall fault("calloc", ENOMEM);
        EXPECT_EQ(wchr2str(kWide, &narrow), -2);
    }
    EXPECT_EQ(wide, nullptr);
    EXPECT_EQ(narrow, nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre("ERR:converters:str2wchr: calloc(): Cannot allocate memory",
                            "ERR:converters:wchr2str: calloc(): Cannot allocate memory"));
}

}  // namespace
