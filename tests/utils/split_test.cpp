#include <ztlib/utils/split.h>

#include <gmock/gmock.h>
#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

using namespace zt_test;
using testing::ElementsAre;

namespace {

std::vector<std::string> parts_of(const char* text, char delimiter) {
    split_result result;
    EXPECT_EQ(split(text, 0, delimiter, &result), 0);
    std::vector<std::string> parts(result.parts, result.parts + result.count);
    split_free(&result, 0);
    return parts;
}

}  // namespace

TEST(Split, GivesOnePartMoreThanThereAreDelimiters) {
    EXPECT_THAT(parts_of("a,b", ','), ElementsAre("a", "b"));
    EXPECT_THAT(parts_of("a,,b", ','), ElementsAre("a", "", "b"));
    EXPECT_THAT(parts_of("a,", ','), ElementsAre("a", ""));
    EXPECT_THAT(parts_of(",a", ','), ElementsAre("", "a"));
    EXPECT_THAT(parts_of(",", ','), ElementsAre("", ""));
    EXPECT_THAT(parts_of("abc", ','), ElementsAre("abc"));
}

TEST(Split, GivesAsManyPartsAsThereAre) {
    std::vector<std::string> wanted;
    std::string line;
    for (int count = 1; count <= 200; ++count) {
        if (count > 1) line += ' ';
        wanted.push_back(std::to_string(count));
        line += wanted.back();
        EXPECT_EQ(parts_of(line.c_str(), ' '), wanted);
    }
}

TEST(Split, TakesNoTextForAnEmptyOne) {
    EXPECT_THAT(parts_of("", ','), ElementsAre(""));
    EXPECT_THAT(parts_of(nullptr, ','), ElementsAre(""));
}

TEST(Split, FindsNoZeroByte) { EXPECT_THAT(parts_of("a,b", '\0'), ElementsAre("a,b")); }

TEST(Split, ComparesTheDelimiterAsAByte) {
    EXPECT_THAT(parts_of("a\xFF"
                         "b",
                         '\xFF'),
                ElementsAre("a", "b"));
}

TEST(Split, ReadsTheTextToItsEndWhateverTheLengthSays) {
    for (int length : {-1, 0, 1, 1000}) {
        split_result result;
        ASSERT_EQ(split("a b c", length, ' ', &result), 0);
        EXPECT_EQ(result.count, 3u);
        split_free(&result, 0);
    }
}

TEST(Split, OverwritesWhatTheRecordHeld) {
    split_result result{77, reinterpret_cast<char**>(1)};
    ASSERT_EQ(split("x", 1, ',', &result), 0);
    EXPECT_EQ(result.count, 1u);
    EXPECT_STREQ(result.parts[0], "x");
    split_free(&result, 0);
}

TEST(Split, LeavesAnEmptyRecordBehindWhenReleased) {
    split_result result;
    ASSERT_EQ(split("a,b", 3, ',', &result), 0);
    split_free(&result, 0);
    EXPECT_EQ(result.count, 0u);
    EXPECT_EQ(result.parts, nullptr);
    split_free(&result, 0);
    split_free(nullptr, 1);
}

TEST(Split, ReleasesTheRecordOnRequest) {
    const int64_t before = live_allocations();
    auto* result = static_cast<split_result*>(malloc(sizeof(split_result)));
    ASSERT_EQ(split("a,b", 3, ',', result), 0);
    split_free(result, 1);
    EXPECT_EQ(live_allocations(), before);
}

TEST(Split, RefusesNoRecord) { EXPECT_EQ(split("a", 1, ',', nullptr), -1); }

TEST(Split, HoldsNothingAndSaysWhyWhenMemoryIsOut) {
    const std::string forty(39, ',');  // more parts than the array has room for at first, and then
    for (const std::string& text : {std::string("a,b"), forty}) {
        std::vector<std::string> calls;
        for (FailingAllocations round; round.next();) {
            CapturedLog log;
            split_result result;
            round.arm();
            const int done = split(text.c_str(), 0, ',', &result);
            round.disarm();
            EXPECT_EQ(done, round.hit() ? -1 : 0);
            if (round.hit()) {
                EXPECT_EQ(result.count, 0u);
                EXPECT_EQ(result.parts, nullptr);
                ASSERT_EQ(log.lines().size(), 1u);
                calls.push_back(log.lines()[0]);
            } else {
                EXPECT_THAT(log.lines(), ElementsAre());
            }
            split_free(&result, 0);
        }
        const auto said = [&](const char* call) {
            return std::count(
                calls.begin(), calls.end(),
                std::string("WARN:split:split: ") + call + "(): Cannot allocate memory");
        };
        EXPECT_EQ(said("calloc()"), text == forty ? 3 : 1) << "the array, and its growth";
        EXPECT_EQ(said("malloc()"), text == forty ? 40 : 2) << "the parts";
    }
}
