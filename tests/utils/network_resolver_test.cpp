// The resolver's file, read from and written to a file of the test's own: opening is faked. That it
// is the right path and is opened the right way, network_host_test.cpp sees.

#include <ztlib/utils/network.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/program.h>
#include <tests/utils/network_support.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include <fcntl.h>

using namespace zt_test;
using testing::ElementsAre;

namespace {

constexpr const char* kBanner = "# automatically generated from zt lib\n";

struct Free {
    void operator()(network_resolv* resolv) const { free(resolv); }
};
using Resolv = std::unique_ptr<network_resolv, Free>;

// What a resolver file of this content gives.
Resolv loaded(const std::string& content) {
    ScratchDirectory scratch;
    FakedCall opened("open", open(scratch.write("file", content).c_str(), O_RDONLY));
    Resolv resolv(network_resolv_load());
    EXPECT_TRUE(opened.hit());
    EXPECT_NE(resolv, nullptr);
    return resolv ? std::move(resolv) : Resolv(static_cast<network_resolv*>(calloc(1, 302)));
}

// "<search>|<name server> <name server>..."
std::string text_of(const network_resolv& resolv) {
    std::string text = std::string(resolv.search) + "|";
    for (int i = 0; i < resolv.nameserver_count; ++i)
        text += (i ? " " : "") + zt_test::text_of(resolv.nameservers[i]);
    return text;
}

std::string saved(const network_resolv& resolv) {
    ScratchDirectory scratch;
    const std::string path = scratch.write("file", "");
    FakedCall opened("open", open(path.c_str(), O_WRONLY));
    EXPECT_EQ(network_resolv_save(&resolv), 0);
    return content_of(path);
}

network_resolv resolv_of(const std::string& search, const Strings& nameservers) {
    network_resolv resolv{};
    memcpy(resolv.search, search.data(), search.size());
    for (const std::string& server : nameservers)
        resolv.nameservers[resolv.nameserver_count++] = address_of(server);
    return resolv;
}

}  // namespace

TEST(Resolver, ReadsSearchAndNameServersInOrder) {
    EXPECT_EQ(text_of(*loaded("# a comment\n"
                              "search example.com example.org\n"
                              "nameserver 192.0.2.1\n"
                              "options edns0\n"
                              "nameserver 192.0.2.2\r\n"
                              "nameserver 10.0.0.1/8")),
              "example.com example.org|192.0.2.1/32 192.0.2.2/32 10.0.0.1/8");
}

TEST(Resolver, SkipsWhatItDoesNotKnow) {
    EXPECT_EQ(text_of(*loaded("\n"
                              "nameserver\n"
                              "search\n"
                              "#nameserver 192.0.2.1\n"
                              " nameserver 192.0.2.2\n"
                              "nameserver\t192.0.2.3\n"
                              "Nameserver 192.0.2.4\n"
                              "nameservers 192.0.2.5\n"
                              "domain example.com\n")),
              "|");
}

TEST(Resolver, CountsNameServersThatCannotBeRead) {
    EXPECT_EQ(text_of(*loaded("nameserver fd00::1\n"
                              "nameserver  192.0.2.1\n"
                              "nameserver \n"
                              "nameserver 192.0.2.2\n"
                              "nameserver " +
                              std::string(200, '1') + "\n")),
              "|0.0.0.0/0 0.0.0.0/0 0.0.0.0/0 192.0.2.2/32 0.0.0.0/0");
}

TEST(Resolver, TakesAllThatStandsBehindTheFirstSpace) {
    EXPECT_EQ(text_of(*loaded("search  a\tb  # c \n"
                              "search\td\n"
                              "search\te f\n"
                              "nameserver 192.0.2.1 # a comment\n"
                              "nameserver \t192.0.2.2\n")),
              " a\tb  # c |0.0.0.0/0 0.0.0.0/0");
}

TEST(Resolver, SavesNameServersThatCannotBeReadAsZeros) {
    EXPECT_EQ(saved(*loaded("nameserver fd00::1\nnameserver 192.0.2.1\n")),
              std::string(kBanner) + "nameserver 0.0.0.0\nnameserver 192.0.2.1\n");
}

TEST(Resolver, KeepsTheFirst10NameServers) {
    std::string content;
    for (int i = 1; i <= 12; ++i) content += "nameserver 192.0.2." + std::to_string(i) + "\n";
    const Resolv resolv = loaded(content);
    EXPECT_EQ(resolv->nameserver_count, NETWORK_MAX_NAMESERVERS);
    EXPECT_EQ(zt_test::text_of(resolv->nameservers[9], false), "192.0.2.10");
}

TEST(Resolver, KeepsTheLastSearchLineCutAt127Characters) {
    EXPECT_EQ(text_of(*loaded("search example.com\nsearch b\n")), "b|");
    EXPECT_EQ(text_of(*loaded("search " + std::string(200, 'x'))), std::string(127, 'x') + "|");
    EXPECT_EQ(text_of(*loaded("search \n")), "|");
    const Resolv resolv = loaded("search " + std::string(100, 'x') + "\nsearch b\n");
    const network_resolv expected = resolv_of("b", {});
    EXPECT_EQ(memcmp(resolv.get(), &expected, sizeof expected), 0);
}

TEST(Resolver, ReadsLinesInPiecesOf1023Characters) {
    // The second piece of the first line is a line of its own.
    EXPECT_EQ(text_of(*loaded("search a" + std::string(1023 - 8, ' ') + "nameserver 192.0.2.1\n"))
                  .substr(127),
              "|192.0.2.1/32");
}

TEST(Resolver, OfAnEmptyFileIsEmpty) {
    const Resolv resolv = loaded("");
    const network_resolv zero{};
    EXPECT_EQ(memcmp(resolv.get(), &zero, sizeof zero), 0);
}

TEST(Resolver, IsNotLoadedWhereItsFileDoesNotOpen) {
    CapturedLog log;
    FailingCall fault("open", ENOENT);
    EXPECT_EQ(network_resolv_load(), nullptr);
    EXPECT_THAT(
        log.lines(),
        ElementsAre("WARN:network:network_resolv_load: fopen(): No such file or directory"));
}

TEST(Resolver, IsNotLoadedWhenMemoryIsOut) {
    CapturedLog log;
    const Leftovers leftovers;
    ScratchDirectory scratch;
    const std::string path = scratch.write("file", "search x\n");
    for (FailingAllocations round; round.next();) {
        FakedCall opened("open", open(path.c_str(), O_RDONLY));
        round.arm();
        const Resolv resolv(network_resolv_load());
        round.disarm();
        EXPECT_EQ(resolv == nullptr, round.hit());
    }
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:network:network_resolv_load: calloc(): Cannot allocate memory"));
    EXPECT_TRUE(leftovers.none());
}

TEST(Resolver, HasWhatWasReadBeforeReadingFailed) {
    FailingCall fault("read", EIO);
    EXPECT_EQ(text_of(*loaded("search x\n")), "|");
}

TEST(Resolver, IsSavedBehindABanner) {
    EXPECT_EQ(strlen(kBanner), 38u);
    EXPECT_EQ(saved(resolv_of("", {})), kBanner);
    EXPECT_EQ(saved(resolv_of("example.com example.org", {"192.0.2.1/24", "192.0.2.2"})),
              std::string(kBanner) +
                  "search example.com example.org\nnameserver 192.0.2.1\nnameserver 192.0.2.2\n");
    EXPECT_EQ(saved(resolv_of("", {"192.0.2.1"})), std::string(kBanner) + "nameserver 192.0.2.1\n");
}

TEST(Resolver, GivesBackWhatWasSaved) {
    const network_resolv resolv = resolv_of("example.com", {"192.0.2.1", "192.0.2.2"});
    EXPECT_EQ(memcmp(loaded(saved(resolv)).get(), &resolv, sizeof resolv), 0);
}

TEST(Resolver, IsSavedInOneWriteHoweverFullItIs) {
    network_resolv resolv = resolv_of(std::string(128, 'x'), Strings(10, "255.255.255.255"));
    resolv.nameserver_count = 1'000'000;
    const uint64_t before = calls_of("write");
    std::string expected = kBanner + ("search " + std::string(128, 'x')) + "\n";
    for (int i = 0; i < 10; ++i) expected += "nameserver 255.255.255.255\n";
    EXPECT_EQ(saved(resolv), expected);
    EXPECT_EQ(calls_of("write"), before + 1);
    resolv.nameserver_count = -1;
    EXPECT_EQ(saved(resolv), kBanner + ("search " + std::string(128, 'x')) + "\n");
}

TEST(Resolver, DoesNotSayThatTheDiskIsFull) {
    CapturedLog log;
    const Leftovers leftovers;
    FailingCall fault("write", ENOSPC);
    EXPECT_EQ(saved(resolv_of("", {})), "");
    EXPECT_TRUE(fault.hit());
    EXPECT_THAT(log.lines(), testing::IsEmpty());
    EXPECT_TRUE(leftovers.none());
}

TEST(Resolver, IsNotSavedWhereItsFileDoesNotOpen) {
    CapturedLog log;
    const network_resolv resolv{};
    FailingCall fault("open", EACCES);
    EXPECT_EQ(network_resolv_save(&resolv), -1);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:network:network_resolv_save: fopen(): Permission denied"));
    EXPECT_EQ(network_resolv_save(nullptr), -1);
}
