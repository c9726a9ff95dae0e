// Links as the stand-in `ip` has them; network_host_test.cpp asks the real one.

#include <ztlib/utils/network.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/stand_in_ip.h>
#include <tests/utils/network_support.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <string>

#include <sys/stat.h>
#include <sys/wait.h>

using namespace zt_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr const char* kLinks =
    "lo - 0 -\n"
    "eth0 - 0 52:54:00:12:34:56\n"
    "eth0.5 eth0 5 52:54:00:12:34:56\n"
    "eth1 - 0 52:54:00:65:43:21\n";
constexpr const char* kAddresses =
    "lo 127.0.0.1/8\n"
    "eth0 10.1.2.3/24\n"
    "eth0.5 10.5.0.3/16\n"
    "eth0 10.1.2.4/24\n"
    "eth0 192.0.2.7/32\n";

// A host of four links, one of them a VLAN.
struct Host : StandInIp {
    Host() {
        set("links", kLinks);
        set("addresses", kAddresses);
    }
};

int exit_status(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : -1; }

// The only link of a host whose `ip` prints this.
network_interface only_link(StandInIp& ip, const std::string& list, const std::string& details = "",
                            const std::string& addresses = "") {
    ip.answer("link list", list);
    ip.answer("-d link show dev v", details);
    ip.answer("addr list dev v", addresses);
    const Interfaces listed(network_interfaces_list());
    EXPECT_THAT(texts_of(listed.get()), SizeIs(1));
    return *listed.get() ? **listed.get() : network_interface{};
}

}  // namespace

// --- listing -------------------------------------------------------------------------------------

TEST(Links, AreListedWithTheirAddressesInTheHostsOrder) {
    Host ip;
    EXPECT_THAT(
        listed_interfaces(),
        ElementsAre("lo 127.0.0.1/8", "eth0 52:54:00:12:34:56 10.1.2.3/24 10.1.2.4/24 192.0.2.7/32",
                    "eth0.5@eth0 5 52:54:00:12:34:56 10.5.0.3/16", "eth1 52:54:00:65:43:21"));
    EXPECT_THAT(ip.calls(), ElementsAre("[link][list]", "[addr][list][dev][lo]",
                                        "[addr][list][dev][eth0]", "[-d][link][show][dev][eth0.5]",
                                        "[addr][list][dev][eth0.5]", "[addr][list][dev][eth1]"));
}

TEST(Links, AreReadWithoutAPrintedLine) {
    Host ip;
    CapturedStderr captured;
    listed_interfaces();
    EXPECT_EQ(captured.text(), "");
}

TEST(Links, HaveZeroedBytesBehindTheirTexts) {
    StandInIp ip;
    const network_interface iface = only_link(ip, "1: v: <UP>\n");
    network_interface expected{};
    strcpy(expected.name, "v");
    EXPECT_EQ(memcmp(&iface, &expected, sizeof iface), 0);
}

TEST(Links, AreFoundInTheLinesWithAnAngleBracket) {
    StandInIp ip;
    ip.answer("link list",
              "1: lo: <LOOPBACK,UP,LOWER_UP> mtu 65536\n"
              "    link/loopback 00:00:00:00:00:00 brd 00:00:00:00:00:00\n"
              "a: b: no bracket\n"
              "no colon <\n"
              "2:noblank:<\n"
              "3: noend <\n"
              "4: : <>\n"
              "5: a name with blanks: <UP>\r\n"
              "   6:x late: <UP>\n"
              "7: \t: <UP>");
    EXPECT_THAT(listed_interfaces(), ElementsAre("lo", "a name with blanks", "late", "\t"));
}

TEST(Links, AreTheFirst32) {
    StandInIp ip;
    std::string links;
    for (int i = 0; i < 40; ++i) links += "eth" + std::to_string(i) + " - 0 -\n";
    ip.set("links", links);
    const Strings listed = listed_interfaces();
    ASSERT_THAT(listed, SizeIs(NETWORK_MAX_LINKS));
    EXPECT_EQ(listed.front(), "eth0");
    EXPECT_EQ(listed.back(), "eth31");
    EXPECT_THAT(ip.calls(), SizeIs(1 + NETWORK_MAX_LINKS));
}

TEST(Links, HaveTheFirst10Addresses) {
    StandInIp ip;
    std::string addresses;
    for (int i = 1; i <= 12; ++i)
        addresses += "    inet 10.0.0." + std::to_string(i) + "/24 scope global v\n";
    const network_interface iface = only_link(ip, "1: v: <UP>\n", "", addresses);
    EXPECT_EQ(iface.address_count, NETWORK_MAX_ADDRESSES);
    EXPECT_EQ(text_of(iface.addresses[9]), "10.0.0.10/24");
}

TEST(Links, TakeTheTokensBehindTheirMarks) {
    StandInIp ip;
    const network_interface iface = only_link(ip, "1: v: <UP>\n", "",
                                              "    link/ether   52:54:00:12:34:56\r\n"
                                              "    inet 10.3.3.3 peer 10.3.3.4/32 scope global\n"
                                              "    inet6 fd00::1/64 scope global\n"
                                              "    inet   10.1.2.3/24\n"
                                              "inet 10.1.2.4/16");
    EXPECT_EQ(text_of(iface), "v 52:54:00:12:34:56 10.3.3.3/32 10.1.2.3/24 10.1.2.4/16");
}

TEST(Links, CountAnAddressThatCannotBeRead) {
    StandInIp ip;
    const network_interface iface =
        only_link(ip, "1: v: <UP>\n", "",
                  "    inet nonsense scope\n    inet " + std::string(200, '1') + "\n");
    EXPECT_EQ(text_of(iface), "v 0.0.0.0/0 0.0.0.0/0");
}

TEST(Links, KeepWhatFitsTheirFields) {
    StandInIp ip;
    const std::string name(40, 'n'), parent(40, 'p'), mac(200, 'm');
    ip.answer("link list", "1: " + name + "@" + parent + ": <UP>\n");
    ip.answer("addr list dev " + name.substr(0, 31), "link/ether " + mac + "\n");
    EXPECT_THAT(listed_interfaces(), ElementsAre(name.substr(0, 31) + "@" + parent.substr(0, 31) +
                                                 " " + mac.substr(0, 127)));
}

TEST(Links, AreReadInPiecesOf511Characters) {
    StandInIp ip;
    // The bracket is in the second piece, which has no name of its own.
    ip.answer("link list", "1: v: " + std::string(505, 'x') + "<UP>\n" +
                               "2: w: " + std::string(504, 'x') + "<UP>\n");
    EXPECT_THAT(listed_interfaces(), ElementsAre("w"));
}

TEST(Links, WithAParentTakeTheirVlanIdFromTheFirstMark) {
    const struct {
        const char* details;
        uint32_t id;
    } cases[] = {
        {"v@p: <>\n    link/ether x\n    vlan protocol 802.1Q id 17 <REORDER_HDR>\n", 17},
        {"    vlan protocol 802.1Q id 4094\n    vxlan id 5\n", 4094},
        {"    link/ether x link-netnsid 3 \n    vlan id 5\n", 3},
        {"id x\n id 5\n", 0},
        {"id=5 ID 5 id\n", 0},
        {"", 0},
    };
    for (const auto& [details, id] : cases) {
        StandInIp ip;
        const network_interface iface = only_link(ip, "7: v@p: <UP>\n", details);
        EXPECT_EQ(uint32_t{iface.vlan_id}, id) << details;
        EXPECT_STREQ(iface.name, "v");
        EXPECT_STREQ(iface.link, "p");
        EXPECT_THAT(ip.calls(), Contains("[-d][link][show][dev][v]"));
    }
}

TEST(Links, MayHaveAParentWithoutAName) {
    StandInIp ip;
    const network_interface iface = only_link(ip, "7: v@: <UP>\n", "id 5\n");
    EXPECT_STREQ(iface.link, "");
    EXPECT_EQ(uint32_t{iface.vlan_id}, 5u);
}

TEST(Links, OfAHostWithoutIpAreNone) {
    ScratchDirectory empty;
    Environment path("PATH", empty.path());
    const Leftovers leftovers;
    EXPECT_THAT(listed_interfaces(), IsEmpty());
    EXPECT_TRUE(Interfaces(network_interfaces_list()));
    EXPECT_TRUE(leftovers.none());
}

TEST(Links, AreNoneWhereIpCannotBeStartedOrItsOutputRead) {
    Host ip;
    for (const char* call : {"posix_spawnp", "lseek"}) {
        const Leftovers leftovers;
        FailingCall fault(call, EAGAIN);
        EXPECT_THAT(listed_interfaces(), IsEmpty()) << call;
        EXPECT_TRUE(fault.hit());
        EXPECT_TRUE(leftovers.none());
    }
    EXPECT_THAT(ip.calls(), ElementsAre("[link][list]"));
}

TEST(Links, AreListedWhereNoFileCanBeMadeInMemory) {
    for (uint32_t command = 0; command < 6; ++command) {
        Host ip;
        const Strings expected = listed_interfaces();
        const Leftovers leftovers;
        FailingCall fault("memfd_create", EPERM, command);
        EXPECT_EQ(listed_interfaces(), expected);
        EXPECT_TRUE(fault.hit());
        EXPECT_TRUE(leftovers.none());
    }
}

TEST(Links, LackWhatALaterCommandWouldSay) {
    Host ip;
    const Leftovers leftovers;
    FailingCall fault("posix_spawnp", EAGAIN, 3);
    EXPECT_THAT(
        listed_interfaces(),
        ElementsAre("lo 127.0.0.1/8", "eth0 52:54:00:12:34:56 10.1.2.3/24 10.1.2.4/24 192.0.2.7/32",
                    "eth0.5@eth0 52:54:00:12:34:56 10.5.0.3/16", "eth1 52:54:00:65:43:21"));
    EXPECT_TRUE(leftovers.none());
}

TEST(Links, EndWhereReadingFails) {
    Host ip;
    const Leftovers leftovers;
    FailingCall fault("read", EIO);
    EXPECT_THAT(listed_interfaces(), IsEmpty());
    EXPECT_TRUE(leftovers.none());
}

TEST(Links, AreReadAndWaitedForDespiteSignals) {
    Host ip;
    const Leftovers leftovers;
    {
        FailingCall fault("read", EINTR);
        EXPECT_THAT(listed_interfaces(), SizeIs(4));
        EXPECT_TRUE(fault.hit());
    }
    {
        FailingCall fault("waitpid", EINTR);
        EXPECT_THAT(listed_interfaces(), SizeIs(4));
        EXPECT_TRUE(fault.hit());
    }
    EXPECT_TRUE(leftovers.none());
}

TEST(Links, AreNotListedWhenMemoryIsOut) {
    Host ip;
    for_each_failing_allocation([] { return network_interfaces_list(); }, network_interfaces_free);
}

TEST(Links, ThatAreNullNeedNoRelease) { network_interfaces_free(nullptr); }

TEST(Links, AreFoundByTheirWholeName) {
    Wanted<network_interface> wanted{interface_of("eth0"), interface_of("eth0.5"),
                                     interface_of("eth0", {"10.0.0.1"})};
    memset(wanted.list()[1]->name, 'x', NETWORK_NAME_SIZE);  // no terminator
    EXPECT_EQ(_network_interface_find(wanted.list(), "eth0"), wanted.list()[0]);
    EXPECT_EQ(_network_interface_find(wanted.list(), "eth"), nullptr);
    EXPECT_EQ(_network_interface_find(wanted.list(), "eth00"), nullptr);
    EXPECT_EQ(_network_interface_find(wanted.list(), std::string(32, 'x').c_str()),
              wanted.list()[1]);
    EXPECT_EQ(_network_interface_find(wanted.list(), std::string(33, 'x').c_str()), nullptr);
    EXPECT_EQ(_network_interface_find(nullptr, "eth0"), nullptr);
    EXPECT_EQ(_network_interface_find(wanted.list(), nullptr), nullptr);
}

// --- single commands -----------------------------------------------------------------------------

TEST(LinkCommands, ArePrintedAndRun) {
    Host ip;
    const network_interface vlan = interface_of("eth1.7", {}, "eth1", 7);
    const network_interface eth0 = interface_of("eth0");
    const ipv4_address address = address_of("10.9.9.9/25");
    const Strings expected = {
        "ip link add link eth1 name eth1.7 type vlan id 7",
        "ip addr add 10.9.9.9/25 dev eth0",
        "ip addr del 10.9.9.9/25 dev eth0",
        "ip addr flush dev eth0",
        "ip link set dev eth0 down",
        "ip link set dev eth0 up",
        "ip link delete eth1.7",
    };
    CapturedStderr captured;
    EXPECT_EQ(_network_interface_create(&vlan), 0);
    EXPECT_EQ(_network_interface_ip_add(&eth0, &address), 0);
    EXPECT_EQ(_network_interface_ip_del(&eth0, &address), 0);
    EXPECT_EQ(_network_interface_flush(&eth0), 0);
    EXPECT_EQ(_network_interface_down(&eth0), 0);
    EXPECT_EQ(_network_interface_up(&eth0), 0);
    EXPECT_EQ(_network_interface_destroy(&vlan), 0);
    EXPECT_EQ(ip.changes(), expected);
    EXPECT_EQ(lines_of(captured.text()), expected);
    EXPECT_EQ(ip.get("links"), kLinks);
}

TEST(LinkCommands, ArePrintedBeforeIpSpeaks) {
    Host ip;
    CapturedStderr captured;
    EXPECT_EQ(exit_status(_network_interface_up("none")), 2);
    EXPECT_EQ(captured.text(), "ip link set dev none up\nDevice \"none\" does not exist.\n");
}

TEST(LinkCommands, TakeANameAlone) {
    Host ip;
    SilentStderr silent;
    const ipv4_address address = address_of("10.9.9.9/25");
    _network_interface_ip_add("eth0", &address);
    _network_interface_ip_del("eth0", &address);
    _network_interface_flush("eth0");
    _network_interface_down("eth0");
    _network_interface_up("eth0");
    _network_interface_destroy("eth0");
    EXPECT_THAT(ip.changes(),
                ElementsAre("ip addr add 10.9.9.9/25 dev eth0", "ip addr del 10.9.9.9/25 dev eth0",
                            "ip addr flush dev eth0", "ip link set dev eth0 down",
                            "ip link set dev eth0 up", "ip link delete eth0"));
}

TEST(LinkCommands, PassANameOnAsOneWord) {
    StandInIp ip;
    CapturedStderr captured;
    const std::string odd = "a b;touch x|'\"`$(id)\n\\*";
    _network_interface_flush(odd.c_str());
    _network_interface_flush("");
    const network_interface vlan = interface_of("x y", {}, "-p q", 4294967295);
    _network_interface_create(&vlan);
    EXPECT_EQ(ip.get("calls"), "[addr][flush][dev][" + odd +
                                   "]\n[addr][flush][dev][]\n"
                                   "[link][add][link][-p q][name][x y][type][vlan][id]"
                                   "[4294967295]\n");
    const std::string printed = captured.text();
    EXPECT_THAT(printed, testing::StartsWith("ip addr flush dev " + odd + "\n"));
    EXPECT_THAT(printed, testing::HasSubstr("\nip addr flush dev \n"));
    EXPECT_THAT(printed,
                testing::HasSubstr("\nip link add link -p q name x y type vlan id 4294967295\n"));
}

TEST(LinkCommands, EndANameWithItsField) {
    StandInIp ip;
    SilentStderr silent;
    network_interface iface;
    memset(&iface, 'x', sizeof iface);
    const std::string name(32, 'x');
    _network_interface_flush(&iface);
    _network_interface_create(&iface);
    EXPECT_THAT(ip.changes(), ElementsAre("ip addr flush dev " + name,
                                          "ip link add link " + name + " name " + name +
                                              " type vlan id " + std::to_string(0x78787878)));
}

TEST(LinkCommands, GiveWhatIpEndsWith) {
    Host ip;
    SilentStderr silent;
    EXPECT_EQ(_network_interface_up("eth0"), 0);
    EXPECT_EQ(_network_interface_up("none"), 2 << 8);
}

TEST(LinkCommands, FailWithoutIpAsAShellWould) {
    ScratchDirectory directory;
    Environment path("PATH", directory.path());
    CapturedStderr captured;
    EXPECT_EQ(exit_status(_network_interface_up("eth0")), 127);
    directory.write("ip", "");
    EXPECT_EQ(exit_status(_network_interface_up("eth0")), 126);
    EXPECT_EQ(captured.text(), "ip link set dev eth0 up\nip link set dev eth0 up\n");
}

TEST(LinkCommands, FailWhereNoProcessCanBeMadeOrWaitedFor) {
    Host ip;
    SilentStderr silent;
    for (const int error : {EAGAIN, ENOMEM}) {
        FailingCall fault("posix_spawnp", error);
        EXPECT_EQ(_network_interface_up("eth0"), -1);
        EXPECT_EQ(errno, error);
    }
    {
        FailingCall interrupted("waitpid", EINTR);
        EXPECT_EQ(_network_interface_up("eth0"), 0);
    }
    FailingCall fault("waitpid", ECHILD);
    EXPECT_EQ(_network_interface_up("eth0"), -1);
    EXPECT_EQ(errno, ECHILD);
}

TEST(LinkCommands, DoNothingWithNull) {
    StandInIp ip;
    CapturedStderr captured;
    const ipv4_address address = address_of("10.9.9.9/25");
    EXPECT_EQ(_network_interface_create(nullptr), -1);
    EXPECT_EQ(_network_interface_destroy(nullptr), -1);
    EXPECT_EQ(_network_interface_flush(nullptr), -1);
    EXPECT_EQ(_network_interface_ip_add(nullptr, &address), -1);
    EXPECT_EQ(_network_interface_ip_add("eth0", nullptr), -1);
    EXPECT_EQ(_network_interface_ip_del(nullptr, &address), -1);
    EXPECT_EQ(_network_interface_ip_del("eth0", nullptr), -1);
    EXPECT_EQ(_network_interface_up(nullptr), -1);
    EXPECT_EQ(_network_interface_down(nullptr), -1);
    EXPECT_THAT(ip.calls(), IsEmpty());
    EXPECT_EQ(captured.text(), "");
}

// --- all links at once ---------------------------------------------------------------------------

TEST(LinksFlush, TakesTheAddressesOfEveryLink) {
    Host ip;
    CapturedStderr captured;
    network_interfaces_flush();
    EXPECT_THAT(ip.changes(), ElementsAre("ip addr flush dev lo", "ip addr flush dev eth0",
                                          "ip addr flush dev eth0.5", "ip addr flush dev eth1"));
    EXPECT_EQ(lines_of(captured.text()), ip.changes());
    EXPECT_EQ(ip.get("addresses"), "");
}

TEST(LinksDestroy, DeletesVlansAlone) {
    Host ip;
    CapturedStderr captured;
    network_interfaces_destroy();
    EXPECT_THAT(ip.changes(), ElementsAre("ip link delete eth0.5"));
    EXPECT_EQ(captured.text(), "ip link delete eth0.5\n");
}

TEST(LinksAll, AreLeftAloneWhenTheyCannotBeListed) {
    Host ip;
    for (FailingAllocations round; round.next();) {
        CapturedStderr captured;
        round.arm();
        network_interfaces_destroy();
        round.disarm();
        EXPECT_EQ(captured.text(), round.hit() ? "" : "ip link delete eth0.5\n");
    }
    const size_t before = ip.changes().size();
    FailingCall fault("calloc", ENOMEM);
    network_interfaces_flush();
    EXPECT_EQ(ip.changes().size(), before);
}

// --- apply ---------------------------------------------------------------------------------------

TEST(LinksApply, RemovesWhatIsNotWantedThenAddsWhatIsMissing) {
    Host ip;
    Wanted<network_interface> wanted{
        interface_of("lo", {"127.0.0.1/8"}),
        interface_of("eth0", {"10.1.2.4/24", "10.1.2.4/16", "192.0.2.7"}),
        interface_of("eth1.7", {"10.7.0.1/16"}, "eth1", 7),
    };
    CapturedStderr captured;
    EXPECT_EQ(network_interfaces_apply(wanted.list()), 0);
    EXPECT_THAT(ip.changes(),
                ElementsAre("ip addr del 10.1.2.3/24 dev eth0", "ip link delete eth0.5",
                            "ip addr flush dev eth1", "ip link set dev lo up",
                            "ip addr add 10.1.2.4/16 dev eth0", "ip link set dev eth0 up",
                            "ip link add link eth1 name eth1.7 type vlan id 7",
                            "ip addr add 10.7.0.1/16 dev eth1.7", "ip link set dev eth1.7 up"));
    EXPECT_EQ(lines_of(captured.text()), ip.changes());
    EXPECT_THAT(
        listed_interfaces(),
        ElementsAre("lo 127.0.0.1/8", "eth0 52:54:00:12:34:56 10.1.2.4/24 192.0.2.7/32 10.1.2.4/16",
                    "eth1 52:54:00:65:43:21", "eth1.7@eth1 7 52:54:00:65:43:21 10.7.0.1/16"));
}

TEST(LinksApply, ListsTheHostAfreshBeforeEachPass) {
    Host ip;
    SilentStderr silent;
    Wanted<network_interface> nothing{};
    network_interfaces_apply(nothing.list());
    const Strings calls = ip.calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), "[link][list]"), 2);
}

TEST(LinksApply, SetsUpWhatIsThereAsItShouldBe) {
    Host ip;
    CapturedStderr captured;
    const Interfaces current(network_interfaces_list());
    EXPECT_EQ(network_interfaces_apply(current.get()), 0);
    EXPECT_EQ(captured.text(),
              "ip link set dev lo up\nip link set dev eth0 up\n"
              "ip link set dev eth0.5 up\nip link set dev eth1 up\n");
}

TEST(LinksApply, KeepsAVlanOfTheRightNameWhateverItsIdAndParent) {
    Host ip;
    SilentStderr silent;
    Wanted<network_interface> wanted{interface_of("eth0.5", {"10.5.0.3/16"}, "eth1", 6)};
    network_interfaces_apply(wanted.list());
    EXPECT_THAT(ip.changes(), ElementsAre("ip addr flush dev lo", "ip addr flush dev eth0",
                                          "ip addr flush dev eth1", "ip link set dev eth0.5 up"));
}

TEST(LinksApply, DoesNotMakeALinkThatIsNoVlan) {
    StandInIp ip;
    CapturedStderr captured;
    Wanted<network_interface> wanted{interface_of("eth9", {"10.9.0.1/24"})};
    EXPECT_EQ(network_interfaces_apply(wanted.list()), 0);
    EXPECT_THAT(ip.changes(),
                ElementsAre("ip addr add 10.9.0.1/24 dev eth9", "ip link set dev eth9 up"));
}

TEST(LinksApply, TakesBackWhatARemovalTookAlong) {
    // As the kernel drops an interface's secondary addresses together with the primary one.
    Host ip;
    SilentStderr silent;
    ip.answer("addr list dev eth0", "    inet 10.1.2.3/24\n    inet 10.1.2.4/24\n");
    Wanted<network_interface> wanted{interface_of("eth0", {"10.1.2.4/24"})};
    ip.set("links", "eth0 - 0 -\n");
    network_interfaces_apply(wanted.list());
    EXPECT_THAT(ip.changes(),
                ElementsAre("ip addr del 10.1.2.3/24 dev eth0", "ip link set dev eth0 up"));
}

TEST(LinksApply, TakesADamagedRecordForWhatItCanHold) {
    StandInIp ip;
    SilentStderr silent;
    ip.set("links", "eth0 - 0 -\n");
    Wanted<network_interface> wanted{interface_of("eth0", {"10.0.0.1"}),
                                     interface_of("eth1", {"10.0.0.1"})};
    wanted.list()[0]->address_count = 1'000'000;
    wanted.list()[1]->address_count = -1;
    EXPECT_EQ(network_interfaces_apply(wanted.list()), 0);
    const Strings changes = ip.changes();
    EXPECT_EQ(std::count_if(changes.begin(), changes.end(),
                            [](const std::string& c) { return c.starts_with("ip addr add"); }),
              NETWORK_MAX_ADDRESSES);
}

TEST(LinksApply, OfNullChangesNothing) {
    Host ip;
    EXPECT_EQ(network_interfaces_apply(nullptr), 0);
    EXPECT_THAT(ip.calls(), IsEmpty());
}

TEST(LinksApply, SkipsRemovalWhenTheHostCannotBeListed) {
    Host ip;
    SilentStderr silent;
    Wanted<network_interface> wanted{interface_of("eth0", {"10.1.2.3/24"})};
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(network_interfaces_apply(wanted.list()), 0);
    EXPECT_THAT(ip.changes(), ElementsAre("ip link set dev eth0 up"));
}

TEST(LinksApply, TriesToAddAllWhenTheHostCannotBeListedAgain) {
    Host ip;
    SilentStderr silent;
    Wanted<network_interface> wanted{interface_of("eth0.5", {"10.5.0.3/16"}, "eth0", 5)};
    ip.set("links", "eth0 - 0 -\neth0.5 eth0 5 -\n");
    // A list of two links takes three allocations.
    FailingCall fault("calloc", ENOMEM, 3);
    EXPECT_EQ(network_interfaces_apply(wanted.list()), 0);
    EXPECT_TRUE(fault.hit());
    EXPECT_THAT(
        ip.changes(),
        ElementsAre("ip addr flush dev eth0", "ip link add link eth0 name eth0.5 type vlan id 5",
                    "ip addr add 10.5.0.3/16 dev eth0.5", "ip link set dev eth0.5 up"));
}

TEST(LinksApply, LeaksNothingWhateverAllocationFails) {
    Host ip;
    SilentStderr silent;
    Wanted<network_interface> wanted{interface_of("eth0", {"10.1.2.3/24"})};
    for (FailingAllocations round; round.next();) {
        round.arm();
        EXPECT_EQ(network_interfaces_apply(wanted.list()), 0);
        round.disarm();
    }
}
