#include <ztlib/utils/network.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/stand_in_ip.h>
#include <tests/utils/network_support.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

#include <sys/stat.h>

using namespace zt_test;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr size_t kInterfaceSize = 374;
constexpr size_t kRouteSize = 34;
constexpr uint32_t kAllOnes = 0xFFFFFFFF;

// --- the layout, written out ---------------------------------------------------------------------

std::string little_endian(uint32_t number) {
    std::string bytes;
    for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(number >> shift);
    return bytes;
}

std::string padded(const std::string& text, size_t size) {
    return text + std::string(size - text.size(), '\0');
}

std::string address_bytes(uint32_t address, uint32_t mask, uint8_t prefix) {
    return little_endian(address) + little_endian(mask) + static_cast<char>(prefix) +
           std::string(8, '\0');
}

std::string interface_bytes(const std::string& name, const std::string& link,
                            const std::string& mac, uint32_t vlan_id, const Strings& addresses) {
    std::string all;
    for (const std::string& address : addresses) all += address;
    return padded(name, 32) + padded(link, 32) + padded(mac, 128) + std::string(4, '\0') +
           little_endian(vlan_id) + padded(all, 170) +
           little_endian(static_cast<uint32_t>(addresses.size()));
}

const std::string kSavedInterfaces = interface_bytes("eth0", "", "52:54:00:12:34:56", 0,
                                                     {address_bytes(0x0A010203, 0xFF000000, 24),
                                                      address_bytes(0xC0000207, kAllOnes, 32)}) +
                                     interface_bytes("eth0.5", "eth0", "52:54:00:12:34:56", 5,
                                                     {address_bytes(0x0A050003, 0xFFFF0000, 16)});

const std::string kSavedRoutes =
    address_bytes(0, 0, 0) + address_bytes(0x0A010201, kAllOnes, 32) +  // default
    address_bytes(0x0A070000, 0xFFFF0000, 16) + address_bytes(0x0A010201, kAllOnes, 32) +
    address_bytes(0x0A080001, kAllOnes, 32) + address_bytes(0x0A010202, kAllOnes, 32);

// The host that those files are saved from.
struct Host : StandInIp {
    Host() {
        set("links", "eth0 - 0 52:54:00:12:34:56\neth0.5 eth0 5 52:54:00:12:34:56\n");
        set("addresses", "eth0 10.1.2.3/24\neth0 192.0.2.7/32\neth0.5 10.5.0.3/16\n");
        set("routes",
            "default via 10.1.2.1 dev eth0 \n10.7.0.0/16 via 10.1.2.1 dev eth0 \n"
            "10.8.0.1 via 10.1.2.2 dev eth0 \n");
    }
};

constexpr const char* kEth0 = "eth0 52:54:00:12:34:56 10.1.2.3/24 192.0.2.7/32";
constexpr const char* kVlan = "eth0.5@eth0 5 52:54:00:12:34:56 10.5.0.3/16";

Strings loaded_interfaces(const std::string& path) {
    return texts_of(Interfaces(network_interfaces_load(path.c_str())).get());
}
Strings loaded_routes(const std::string& path) {
    return texts_of(Routes(network_routes_load(path.c_str())).get());
}

}  // namespace

// --- saving --------------------------------------------------------------------------------------

TEST(NetworkFiles, HoldTheHostsInterfacesByteForByte) {
    Host ip;
    ScratchDirectory scratch;
    const std::string path = scratch / "interfaces";
    const int64_t live = live_allocations();
    EXPECT_EQ(network_interfaces_save(path.c_str(), nullptr), 0);
    EXPECT_EQ(content_of(path), kSavedInterfaces);
    EXPECT_EQ(content_of(path).size(), 2 * kInterfaceSize);
    EXPECT_EQ(live_allocations(), live);
}

TEST(NetworkFiles, HoldTheHostsRoutesByteForByte) {
    Host ip;
    ScratchDirectory scratch;
    const std::string path = scratch / "routes";
    const int64_t live = live_allocations();
    EXPECT_EQ(network_routes_save(path.c_str(), nullptr), 0);
    EXPECT_EQ(content_of(path), kSavedRoutes);
    EXPECT_EQ(content_of(path).size(), 3 * kRouteSize);
    EXPECT_EQ(live_allocations(), live);
}

TEST(NetworkFiles, HoldTheListThatIsGiven) {
    StandInIp ip;
    ScratchDirectory scratch;
    const std::string path = scratch / "routes";
    Wanted<network_route> routes{route_of("10.7.0.0/16", "10.1.2.1")};
    EXPECT_EQ(network_routes_save(path.c_str(), routes.list()), 0);
    EXPECT_EQ(content_of(path), kSavedRoutes.substr(kRouteSize, kRouteSize));
    EXPECT_THAT(texts_of(routes.list()), SizeIs(1)) << "the list stays the caller's";
    EXPECT_THAT(ip.calls(), IsEmpty());
}

TEST(NetworkFiles, ReplaceWhatWasThere) {
    Host ip;
    ScratchDirectory scratch;
    const std::string path = scratch.write("file", std::string(10'000, 'x'));
    network_interfaces_save(path.c_str(), nullptr);
    EXPECT_EQ(content_of(path), kSavedInterfaces);
    network_routes_save(path.c_str(), nullptr);
    EXPECT_EQ(content_of(path), kSavedRoutes);
}

TEST(NetworkFiles, AreEmptiedWhereTheyCannotBeRemoved) {
    Host ip;
    ScratchDirectory scratch;
    const std::string path = scratch.write("file", std::string(10'000, 'x'));
    FailingCall fault("unlink", EBUSY);
    network_routes_save(path.c_str(), nullptr);
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(content_of(path), kSavedRoutes);
}

TEST(NetworkFiles, ArePutInThePlaceThatACutPathNames) {
    constexpr size_t kLongestPath = 511;
    ScratchDirectory scratch;
    std::string directory = scratch.path();
    while (directory.size() < kLongestPath - 200) {
        directory += "/" + std::string(100, 'd');
        ASSERT_EQ(mkdir(directory.c_str(), 0755), 0);
    }
    const std::string cut = directory + "/" + std::string(kLongestPath - directory.size() - 1, 'f');
    const std::string path = cut + "long";
    std::ofstream(path) << "another's";
    const network_route route = route_of("10.7.0.0/16", "10.1.2.1");
    Wanted<network_route> routes{route};
    Wanted<network_interface> interfaces{interface_of("eth0")};
    for (int i = 0; i < 2; ++i) {
        network_interfaces_save(path.c_str(), interfaces.list());
        EXPECT_EQ(content_of(cut).size(), kInterfaceSize);
        network_routes_save(path.c_str(), routes.list());
        EXPECT_EQ(content_of(cut).size(), kRouteSize);
    }
    EXPECT_THAT(loaded_routes(path), SizeIs(1));
    EXPECT_EQ(content_of(path), "another's");
}

TEST(NetworkFiles, OfAnEmptyListAreEmpty) {
    ScratchDirectory scratch;
    const std::string path = scratch.write("file", "before");
    Wanted<network_route> routes{};
    EXPECT_EQ(network_routes_save(path.c_str(), routes.list()), 0);
    EXPECT_EQ(content_of(path), "");
    EXPECT_TRUE(loaded_routes(path).empty());
}

TEST(NetworkFiles, KeepRecordsThatAreEqual) {
    ScratchDirectory scratch;
    const std::string path = scratch / "routes";
    const network_route route = route_of("10.7.0.0/16", "10.1.2.1");
    Wanted<network_route> routes{route, route, route};
    network_routes_save(path.c_str(), routes.list());
    EXPECT_EQ(content_of(path).size(), 3 * kRouteSize);
}

TEST(NetworkFiles, LeaveOutTheRecordWhosePlaceAnEarlierOneBeginsWith) {
    ScratchDirectory scratch;
    const std::string path = scratch / "routes";
    Wanted<network_route> routes{
        route_of("0.0.0.2", "10.1.2.1"), route_of("10.1.0.0/16", "10.1.2.1"),
        route_of("10.2.0.0/16", "10.1.2.1"), route_of("10.3.0.0/16", "10.1.2.1")};
    network_routes_save(path.c_str(), routes.list());
    EXPECT_THAT(loaded_routes(path),
                ElementsAre("0.0.0.2/32 via 10.1.2.1", "10.1.0.0/16 via 10.1.2.1",
                            "10.3.0.0/16 via 10.1.2.1"));
}

TEST(NetworkFiles, AreGoneWhenTheHostCannotBeListed) {
    Host ip;
    ScratchDirectory scratch;
    for (const auto& save :
         {+[](const char* path) { return network_interfaces_save(path, nullptr); },
          +[](const char* path) { return network_routes_save(path, nullptr); }}) {
        const std::string path = scratch.write("file", "before");
        FailingCall fault("calloc", ENOMEM);
        EXPECT_EQ(save(path.c_str()), 0);
        EXPECT_EQ(access(path.c_str(), F_OK), -1);
    }
}

TEST(NetworkFiles, AreNotWrittenWhereNoneOpens) {
    Host ip;
    ScratchDirectory scratch;
    CapturedLog log;
    const Leftovers leftovers;
    EXPECT_EQ(network_routes_save((scratch / "none/routes").c_str(), nullptr), 0);
    EXPECT_EQ(network_interfaces_save((scratch / "none/links").c_str(), nullptr), 0);
    EXPECT_THAT(log.messages(), Each("open(): No such file or directory"));
    EXPECT_TRUE(leftovers.none());
    EXPECT_EQ(network_routes_save(nullptr, nullptr), 0);
    EXPECT_EQ(network_interfaces_save(nullptr, nullptr), 0);
}

TEST(NetworkFiles, AreWrittenThroughTheNextDescriptorWhenTheFirstDoesNotOpen) {
    Host ip;
    ScratchDirectory scratch;
    const std::string path = scratch / "routes";
    const Leftovers leftovers;
    FailingCall fault("open", EMFILE);
    network_routes_save(path.c_str(), nullptr);
    EXPECT_TRUE(fault.hit());
    EXPECT_EQ(content_of(path), kSavedRoutes);
    EXPECT_TRUE(leftovers.none());
}

TEST(NetworkFiles, LackTheRecordThatCouldNotBeWritten) {
    Host ip;
    ScratchDirectory scratch;
    const std::string path = scratch / "routes";
    CapturedLog log;
    FailingCall fault("write", ENOSPC, 1);
    EXPECT_EQ(network_routes_save(path.c_str(), nullptr), 0);
    EXPECT_EQ(content_of(path),
              kSavedRoutes.substr(0, kRouteSize) + kSavedRoutes.substr(2 * kRouteSize, kRouteSize));
    EXPECT_THAT(log.messages(), ElementsAre(path + " write failed"));
}

TEST(NetworkFiles, LeakNothingWhateverAllocationFailsWhileTheyAreSaved) {
    Host ip;
    ScratchDirectory scratch;
    const std::string path = scratch / "file";
    for (FailingAllocations round; round.next();) {
        round.arm();
        EXPECT_EQ(network_interfaces_save(path.c_str(), nullptr), 0);
        EXPECT_EQ(network_routes_save(path.c_str(), nullptr), 0);
        round.disarm();
    }
    EXPECT_EQ(content_of(path), kSavedRoutes);
}

// --- loading -------------------------------------------------------------------------------------

TEST(NetworkFiles, GiveBackWhatWasWrittenByHand) {
    ScratchDirectory scratch;
    EXPECT_THAT(loaded_interfaces(scratch.write("interfaces", kSavedInterfaces)),
                ElementsAre(kEth0, kVlan));
    EXPECT_THAT(loaded_routes(scratch.write("routes", kSavedRoutes)),
                ElementsAre("0.0.0.0/0 via 10.1.2.1", "10.7.0.0/16 via 10.1.2.1",
                            "10.8.0.1/32 via 10.1.2.2"));
}

TEST(NetworkFiles, GiveBackEveryByte) {
    ScratchDirectory scratch;
    std::string bytes;
    for (size_t i = 0; i < 3 * kInterfaceSize; ++i) bytes += static_cast<char>(i * 7);
    const Interfaces list(network_interfaces_load(scratch.write("file", bytes).c_str()));
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(memcmp(list.get()[i], &bytes[i * kInterfaceSize], kInterfaceSize), 0);
    EXPECT_EQ(list.get()[3], nullptr);
}

TEST(NetworkFiles, AreLoadedHoweverLongTheyAre) {
    ScratchDirectory scratch;
    const std::string record = kSavedRoutes.substr(0, kRouteSize);
    std::string content;
    for (size_t count = 0; count < 45; ++count, content += record)
        EXPECT_THAT(loaded_routes(scratch.write("file", content)), SizeIs(count));
}

TEST(NetworkFiles, ThatAreMissingAreEmptyAndMade) {
    ScratchDirectory scratch;
    const std::string path = scratch / "none";
    const Interfaces interfaces(network_interfaces_load(path.c_str()));
    ASSERT_TRUE(interfaces);
    EXPECT_EQ(*interfaces.get(), nullptr);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
    const Routes routes(network_routes_load(path.c_str()));
    ASSERT_TRUE(routes);
    EXPECT_EQ(*routes.get(), nullptr);
}

TEST(NetworkFiles, ThatDoNotOpenAreEmpty) {
    ScratchDirectory scratch;
    CapturedLog log;
    EXPECT_TRUE(loaded_routes(scratch / "none/routes").empty());
    EXPECT_THAT(log.messages(), ElementsAre("open(): No such file or directory"));
    EXPECT_EQ(network_routes_load(nullptr), nullptr);
    EXPECT_EQ(network_interfaces_load(nullptr), nullptr);
}

TEST(NetworkFiles, ThatAreDamagedGiveTheRecordsBeforeTheDamage) {
    ScratchDirectory scratch;
    CapturedLog log;
    const std::string path = scratch.write("routes", kSavedRoutes + "rest");
    EXPECT_THAT(loaded_routes(path), SizeIs(3));
    EXPECT_THAT(log.messages(),
                ElementsAre(path + " read 4 bytes struct size 34 possible file corrupt"));
}

TEST(NetworkFiles, EndWhereReadingFails) {
    ScratchDirectory scratch;
    const std::string path = scratch.write("routes", kSavedRoutes);
    CapturedLog log;
    const Leftovers leftovers;
    FailingCall fault("read", EIO);
    const Routes routes(network_routes_load(path.c_str()));
    ASSERT_TRUE(routes);
    EXPECT_EQ(*routes.get(), nullptr);
    EXPECT_THAT(log.messages(), ElementsAre(path + " read -1"));
}

TEST(NetworkFiles, AreLoadedAsFarAsMemoryGoes) {
    ScratchDirectory scratch;
    std::string content;
    for (int i = 0; i < 12; ++i) content += kSavedRoutes.substr(0, kRouteSize);
    const std::string path = scratch.write("routes", content);
    size_t before = 0;
    for (FailingAllocations round; round.next();) {
        round.arm();
        network_route** const list = network_routes_load(path.c_str());
        round.disarm();
        EXPECT_EQ(list == nullptr, round.round() == 1);
        const size_t count = texts_of(list).size();
        EXPECT_GE(count, before);
        EXPECT_EQ(count < 12, round.hit());
        before = count;
        network_routes_free(list);
    }

    FailingCall fault("realloc", ENOMEM);
    EXPECT_THAT(loaded_routes(path), SizeIs(9));
}

TEST(NetworkFiles, OfInterfacesNeedMemoryForTheirList) {
    ScratchDirectory scratch;
    const std::string path = scratch.write("interfaces", kSavedInterfaces);
    for (FailingAllocations round; round.next();) {
        round.arm();
        network_interface** const list = network_interfaces_load(path.c_str());
        round.disarm();
        EXPECT_EQ(list == nullptr, round.round() == 1);
        EXPECT_EQ(texts_of(list).size() < 2, round.hit());
        network_interfaces_free(list);
    }
}

// --- all of it -----------------------------------------------------------------------------------

TEST(NetworkFiles, BringAHostBackToWhatItWas) {
    Host ip;
    ScratchDirectory scratch;
    SilentStderr silent;
    const std::string interfaces = scratch / "interfaces", routes = scratch / "routes";
    network_interfaces_save(interfaces.c_str(), nullptr);
    network_routes_save(routes.c_str(), nullptr);

    network_routes_flush();
    network_interfaces_destroy();
    network_interfaces_flush();
    EXPECT_THAT(listed_interfaces(), ElementsAre("eth0 52:54:00:12:34:56"));
    EXPECT_THAT(listed_routes(), IsEmpty());

    network_interfaces_apply(Interfaces(network_interfaces_load(interfaces.c_str())).get());
    network_routes_apply(Routes(network_routes_load(routes.c_str())).get());
    EXPECT_THAT(listed_interfaces(), ElementsAre(kEth0, kVlan));
    EXPECT_THAT(listed_routes(), ElementsAre("0.0.0.0/0 via 10.1.2.1", "10.7.0.0/16 via 10.1.2.1",
                                             "10.8.0.1/32 via 10.1.2.2"));
}

TEST(NetworkFiles, ThatAreNonsenseHarmNothingWhenTheyAreApplied) {
    Host ip;
    ScratchDirectory scratch;
    SilentStderr silent;
    const std::string path = scratch.write("file", std::string(2 * kInterfaceSize, '\xFF'));
    EXPECT_EQ(network_interfaces_apply(Interfaces(network_interfaces_load(path.c_str())).get()), 0);
    EXPECT_EQ(network_routes_apply(Routes(network_routes_load(path.c_str())).get()), 0);
    EXPECT_THAT(ip.changes(), Contains("ip link set dev " + std::string(32, '\xFF') + " up"));
    EXPECT_THAT(ip.changes(), Contains("ip route add 255.255.255.255/255 via 255.255.255.255"));
}
