#include <ztlib/utils/uid.h>

#include <gmock/gmock.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include <unistd.h>

using namespace zt_test;

namespace {

const uid kSample{0x0123456789abcdef, 0x11, 0xfedcba98, 0x2, 0xffffffff};
constexpr const char* kSampleText = "0123456789abcdef-00000011-fedcba98-0002-ffffffff";

bool same(const uid& a, const uid& b) { return memcmp(&a, &b, sizeof a) == 0; }

std::string content_of(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

uid from_line(const std::string& line, int expected = 0) {
    ScratchDirectory scratch;
    uid read = kSample;
    EXPECT_EQ(uid_from_file(scratch.write("id", line).c_str(), &read), expected) << line;
    return read;
}

}  // namespace

// --- the first use, before any other test makes an identifier in this process --------------------

TEST(UidFirstUse, FailsWhenNeitherDeviceOpens) {
    ScratchDirectory without_devices;
    constexpr int kMayNot = 77;
    const ChildResult child = run_in_child([&] {
        if (chroot(without_devices.path().c_str()) != 0) _exit(kMayNot);
        char bytes[8];
        uid id = kSample;
        const bool right = uid_uread(bytes, sizeof bytes) == -1 && uid_generate(&id) == -1 &&
                           _uid_init() == -1 && same(id, kSample);
        _exit(right ? 0 : 1);
    });
    if (child.status == kMayNot) GTEST_SKIP() << "needs root, to hide the devices";
    EXPECT_EQ(child.status, 0) << child.err;
}

TEST(UidFirstUse, IsTriedAgainByTheNextIdentifier) {
    const ChildResult child = run_in_child([] {
        uid id = kSample;
        {
            FailingCall fault("read", EIO, 1);
            if (uid_generate(&id) != -1 || !same(id, kSample)) exit(1);
        }
        exit(uid_generate(&id) == 0 ? 0 : 2);
    });
    EXPECT_EQ(child.status, 0);
}

// --- identifiers ---------------------------------------------------------------------------------

TEST(Uid, HasATextOfFortyEightCharacters) {
    uid id;
    ASSERT_EQ(uid_generate(&id), 0);
    EXPECT_THAT(uid2str(&id), testing::MatchesRegex("[0-9a-f]{16}-[0-9a-f]{8}-[0-9a-f]{8}-"
                                                    "[0-9a-f]{4}-[0-9a-f]{8}"));
    EXPECT_STREQ(uid2str(&kSample), kSampleText);
    EXPECT_EQ(uid2str(nullptr), nullptr);
}

TEST(Uid, CutsItsTextToTheRoom) {
    char text[UID_TEXT_SIZE];
    EXPECT_EQ(uid2str_t(&kSample, text, sizeof text), text);
    EXPECT_STREQ(text, kSampleText);
    uid2str_t(&kSample, text, 8);
    EXPECT_STREQ(text, "0123456");
    text[0] = '!';
    EXPECT_EQ(uid2str_t(&kSample, text, 0), text);
    EXPECT_EQ(text[0], '!');
    EXPECT_EQ(uid2str_t(nullptr, text, 8), nullptr);
    EXPECT_EQ(uid2str_t(&kSample, nullptr, 8), nullptr);
}

TEST(Uid, CountsUpInBothSequences) {
    uid first, second;
    ASSERT_EQ(uid_generate(&first), 0);
    ASSERT_EQ(uid_generate(&second), 0);
    EXPECT_EQ(static_cast<uint32_t>(second.seq32 - first.seq32), 1u);
    EXPECT_EQ(static_cast<uint16_t>(second.seq16 - first.seq16), 1u);
    EXPECT_NE(first.random, second.random);
    EXPECT_EQ(uid_generate(nullptr), -1);
}

TEST(Uid, TurnsTheShortSequenceAround) {
    uid id;
    ASSERT_EQ(uid_generate(&id), 0);
    const uint16_t begin = id.seq16;
    for (int i = 0; i < 65536; ++i) ASSERT_EQ(uid_generate(&id), 0);
    EXPECT_EQ(id.seq16, begin);
}

TEST(Uid, GivesAMillionDifferentTextsToEightThreads) {
    constexpr size_t kThreads = 8;
    constexpr size_t kEach = 125'000;
    uid before;
    ASSERT_EQ(uid_generate(&before), 0);

    std::vector<uid> ids(kThreads * kEach);
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&ids, t] {
            for (size_t i = 0; i < kEach; ++i) uid_generate(&ids[t * kEach + i]);
        });
    }
    for (auto& thread : threads) thread.join();

    std::vector<std::string> texts;
    texts.reserve(ids.size());
    for (const uid& id : ids) {
        char text[UID_TEXT_SIZE];
        texts.emplace_back(uid2str_t(&id, text, sizeof text));
    }
    std::sort(texts.begin(), texts.end());
    EXPECT_EQ(std::adjacent_find(texts.begin(), texts.end()), texts.end());

    uid after;
    ASSERT_EQ(uid_generate(&after), 0);
    EXPECT_EQ(static_cast<uint32_t>(after.seq32 - before.seq32), kThreads * kEach + 1);
    EXPECT_EQ(after.seq16, static_cast<uint16_t>(before.seq16 + kThreads * kEach + 1));
}

// --- the random device --------------------------------------------------------------------------

TEST(UidRandom, FillsAllOfTheDestination) {
    unsigned char bytes[64] = {};
    EXPECT_EQ(uid_uread(bytes, 60), 0);
    EXPECT_GT(std::count_if(bytes, bytes + 60, [](unsigned char b) { return b != 0; }), 30);
    EXPECT_EQ(std::count(bytes + 60, bytes + 64, 0), 4);
    EXPECT_EQ(uid_uread(bytes, 0), 0);
    EXPECT_EQ(uid_uread(bytes, -1), 0);
    EXPECT_EQ(uid_uread(nullptr, 4), -1);
}

TEST(UidRandom, TakesTheOtherDeviceWhenTheFirstDoesNotOpen) {
    char bytes[8];
    FailingCall fault("open", ENOENT);
    EXPECT_EQ(uid_uread(bytes, sizeof bytes), 0);
    EXPECT_TRUE(fault.hit());
}

TEST(UidRandom, FailsWhereAReadFailsOrTheDeviceEnds) {
    const int descriptors = descriptor_count();
    char bytes[8];
    {
        FailingCall fault("read", EIO);
        EXPECT_EQ(uid_uread(bytes, sizeof bytes), -2);
    }
    {
        FakedCall fault("read", 0);
        EXPECT_EQ(uid_uread(bytes, sizeof bytes), -2);
    }
    EXPECT_EQ(descriptor_count(), descriptors);
}

TEST(UidRandom, ReadsOnAfterAShortReadAndASignal) {
    char bytes[8] = {};
    {
        FakedCall shorter("read", 3);
        EXPECT_EQ(uid_uread(bytes, sizeof bytes), 0);
    }
    FailingCall interrupted("read", EINTR);
    EXPECT_EQ(uid_uread(bytes, sizeof bytes), 0);
}

TEST(UidRandom, MakesIdentifiersWithoutItOnceInitialised) {
    uid id;
    ASSERT_EQ(uid_generate(&id), 0);
    const uint32_t before = id.seq32;
    FailingCall fault("read", EIO);
    EXPECT_EQ(uid_generate(&id), 0);
    EXPECT_EQ(id.random, 0u);
    EXPECT_EQ(id.seq32, before + 1);
}

TEST(UidInit, SaysWhichCounterItCouldNotSeed) {
    {
        FailingCall fault("read", EIO);
        EXPECT_EQ(_uid_init(), -1);
    }
    {
        FailingCall fault("read", EIO, 1);
        EXPECT_EQ(_uid_init(), -2);
    }
    EXPECT_EQ(_uid_init(), 0);
}

// --- time and sequence --------------------------------------------------------------------------

TEST(UidTimeSeq, JoinsTheTimeAndACounter) {
    const bool steady = eventually([] {
        const uint64_t first = uid_time_seq();
        const uint64_t second = uid_time_seq();
        EXPECT_EQ(static_cast<uint32_t>(second - first), 1u);
        return first >> 32 == second >> 32;
    });
    EXPECT_TRUE(steady);
    EXPECT_LE(static_cast<uint32_t>(time(nullptr)) - static_cast<uint32_t>(uid_time_seq() >> 32),
              2u);
}

TEST(UidTimeSeq, GivesEachThreadNumbersOfItsOwn) {
    const auto before = static_cast<uint32_t>(uid_time_seq());
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 10'000; ++i) uid_time_seq();
        });
    }
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(static_cast<uint32_t>(uid_time_seq()) - before, 80'001u);
}

// --- files --------------------------------------------------------------------------------------

TEST(UidFile, GivesBackWhatWasSaved) {
    ScratchDirectory scratch;
    const std::string path = scratch / "id";
    ASSERT_EQ(uid_to_file(path.c_str(), &kSample), 0);
    EXPECT_EQ(content_of(path), kSampleText);
    uid read;
    ASSERT_EQ(uid_from_file(path.c_str(), &read), 0);
    EXPECT_TRUE(same(read, kSample));
}

TEST(UidFile, ReplacesALongerFile) {
    ScratchDirectory scratch;
    const std::string path = scratch.write("id", std::string(500, 'x'));
    ASSERT_EQ(uid_to_file(path.c_str(), &kSample), 0);
    EXPECT_EQ(content_of(path), kSampleText);
}

TEST(UidFile, CannotBeSavedWhereNoFileOpensOrTheDiskIsFull) {
    ScratchDirectory scratch;
    EXPECT_EQ(uid_to_file((scratch / "none/id").c_str(), &kSample), -1);
    EXPECT_EQ(uid_to_file(nullptr, &kSample), -1);
    EXPECT_EQ(uid_to_file((scratch / "id").c_str(), nullptr), -1);
    FailingCall full("write", ENOSPC);
    EXPECT_EQ(uid_to_file((scratch / "id").c_str(), &kSample), -1);
}

TEST(UidFile, ReadsFiveGroupsOfAnyWidth) {
    EXPECT_TRUE(same(from_line("1-2-3-4-5"), uid{1, 2, 3, 4, 5}));
    EXPECT_TRUE(same(from_line("1-2-3-4-5\nmore-lines"), uid{1, 2, 3, 4, 5}));
    EXPECT_TRUE(same(from_line("A-b-3z-zz-"), uid{10, 11, 3, 0, 0}));
    EXPECT_TRUE(same(from_line("1-100000002-300000003-12345-500000005"), uid{1, 2, 3, 0x2345, 5}));
}

TEST(UidFile, RefusesAnyOtherNumberOfGroupsAndKeepsTheRecord) {
    for (const char* line : {"1-2-3-4", "1-2-3-4-5-6", "", "\n1-2-3-4-5", "x"}) {
        const int64_t live = live_allocations();
        EXPECT_TRUE(same(from_line(line, -3), kSample));
        EXPECT_EQ(live_allocations(), live);
    }
}

TEST(UidFile, ReadsNoMoreOfALineThanItsFirst1023Characters) {
    EXPECT_TRUE(same(from_line("1-2-3-4-" + std::string(1014, '0') + "1f"), uid{1, 2, 3, 4, 1}));
}

TEST(UidFile, CannotBeLoadedWhereThereIsNone) {
    ScratchDirectory scratch;
    uid id = kSample;
    EXPECT_EQ(uid_from_file((scratch / "none").c_str(), &id), -1);
    EXPECT_EQ(uid_from_file(nullptr, &id), -1);
    EXPECT_EQ(uid_from_file((scratch / "none").c_str(), nullptr), -1);
    EXPECT_TRUE(same(id, kSample));
}

TEST(UidFile, IsLeftAloneWhenMemoryIsOut) {
    ScratchDirectory scratch;
    const std::string path = scratch.write("id", kSampleText);
    for (FailingAllocations round; round.next();) {
        uid id{};
        round.arm();
        const int result = uid_from_file(path.c_str(), &id);
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -2 : 0);
        EXPECT_TRUE(same(id, round.hit() ? uid{} : kSample));
    }
}
