// Routes as the stand-in `ip` has them; network_host_test.cpp asks the real one.

#include <ztlib/utils/network.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/leftovers.h>
#include <tests/support/stand_in_ip.h>
#include <tests/utils/network_support.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <string>

#include <sys/wait.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

const network_route kA = route_of("10.7.0.0/16", "10.1.2.1");
const network_route kB = route_of("10.8.0.0/16", "10.1.2.1");
const network_route kC = route_of("10.9.0.0/16", "10.1.2.1");

constexpr const char* kLineA = "10.7.0.0/16 via 10.1.2.1 dev eth0 \n";
constexpr const char* kLineB = "10.8.0.0/16 via 10.1.2.1 dev eth0 \n";
constexpr const char* kLineC = "10.9.0.0/16 via 10.1.2.1 dev eth0 \n";

struct Host : StandInIp {
    explicit Host(const std::string& routes) { set("routes", routes); }
};

// As many routes as this, and what they are listed as.
std::string many_routes(int count) {
    std::string routes;
    for (int i = 0; i < count; ++i)
        routes += "10.0." + std::to_string(i) + ".0/24 via 10.1.2.1 dev eth0 \n";
    return routes;
}

}  // namespace

// --- listing -------------------------------------------------------------------------------------

TEST(Routes, AreThoseThroughAGateway) {
    Host ip(
        "default via 10.1.2.1 dev eth0 \n"
        "10.1.2.0/24 dev eth0 proto kernel scope link src 10.1.2.3 \n"
        "10.7.0.0/16 via 10.1.2.1 dev eth0 proto static metric 100 \n"
        "10.8.0.1 via 10.1.2.2 dev eth0 \n"
        "blackhole 10.9.0.0/16 \n");
    EXPECT_THAT(listed_routes(), ElementsAre("0.0.0.0/0 via 10.1.2.1", "10.7.0.0/16 via 10.1.2.1",
                                             "10.8.0.1/32 via 10.1.2.2"));
    EXPECT_THAT(ip.calls(), ElementsAre("[route]"));
}

TEST(Routes, ToTheDefaultHaveNoMask) {
    Host ip("default via 10.1.2.1\n");
    const Routes routes(network_routes_list());
    ASSERT_TRUE(*routes.get());
    const network_route& route = **routes.get();
    EXPECT_EQ(uint32_t{route.destination.mask}, 0u);
    EXPECT_EQ(route.destination.prefix, 0);
    EXPECT_EQ(route.gateway.prefix, 32);
    EXPECT_EQ(uint32_t{route.gateway.mask}, 0xFFFFFFFFu);
}

TEST(Routes, ComeFromWellFormedLines) {
    Host ip(
        "\n"
        "default via\n"
        "via via via\n"
        "default  via 10.1.2.1\n"  // two blanks: an empty field between
        " default via 10.1.2.1\n"
        "default\tvia\t10.1.2.1\n"
        "default via 10.1.2.1\tdev eth0\n"
        "default via inet6 fe80::1 dev eth0\n"
        "default via 10.1.2.1/33\n"
        "10.0.0.0/99 via 10.1.2.1\n"
        "nonsense via 10.1.2.1\n"
        "\tnexthop via 10.1.2.1 dev eth0 weight 1\n"
        "10.1.0.0/16 via 10.1.2.1\r\n"
        "10.2.0.0/16 via 10.1.2.1");
    EXPECT_THAT(listed_routes(),
                ElementsAre("10.1.0.0/16 via 10.1.2.1", "10.2.0.0/16 via 10.1.2.1"));
}

TEST(Routes, AreReadInPiecesOf1023Characters) {
    const std::string route = "10.1.0.0/16 via 10.1.2.1 ";
    // The first line's second piece is a route of its own.
    Host ip(route + std::string(1023 - route.size(), 'x') + "10.2.0.0/16 via 10.1.2.2 dev eth0\n" +
            kLineC);
    EXPECT_THAT(listed_routes(), ElementsAre("10.1.0.0/16 via 10.1.2.1", "10.2.0.0/16 via 10.1.2.2",
                                             "10.9.0.0/16 via 10.1.2.1"));
}

TEST(Routes, AreListedHoweverManyThereAre) {
    for (const int count : {8, 9, 10, 18, 19, 200}) {
        Host ip(many_routes(count));
        const Strings listed = listed_routes();
        ASSERT_THAT(listed, SizeIs(count));
        EXPECT_EQ(listed.back(), "10.0." + std::to_string(count - 1) + ".0/24 via 10.1.2.1");
    }
}

TEST(Routes, SayWhenTheirListCannotGrow) {
    Host ip(many_routes(30));
    const Leftovers leftovers;
    const int64_t live = live_allocations();
    for (const auto& [skip, listed] : {std::pair{0u, 9u}, std::pair{1u, 19u}}) {
        CapturedStderr captured;
        FailingCall fault("realloc", ENOMEM, skip);
        EXPECT_THAT(listed_routes(), SizeIs(listed));
        EXPECT_EQ(captured.text(), "network_routes_list: realloc(): Cannot allocate memory\n");
    }
    EXPECT_EQ(live_allocations(), live);
    EXPECT_TRUE(leftovers.none());
}

TEST(Routes, AreNotListedWhenNotEvenTheirListCanBeMade) {
    Host ip(kLineA);
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(network_routes_list(), nullptr);
    EXPECT_THAT(ip.calls(), IsEmpty());
}

TEST(Routes, EndWhereARecordCannotBeMadeAndSkipALineThatCannotBeSplit) {
    Host ip(many_routes(3));
    CapturedLog log;
    size_t shorter = 0;
    for (FailingAllocations round; round.next();) {
        round.arm();
        network_route** const listed = network_routes_list();
        round.disarm();
        if (round.round() == 1) {
            EXPECT_EQ(listed, nullptr);
        } else {
            ASSERT_NE(listed, nullptr);
            const size_t count = texts_of(listed).size();
            EXPECT_EQ(count < 3, round.hit());
            shorter += count < 3;
        }
        network_routes_free(listed);
    }
    EXPECT_GT(shorter, 10u);
    EXPECT_THAT(log.messages(), testing::Contains("malloc()(): Cannot allocate memory"));
}

TEST(Routes, OfAHostWithoutIpAreNone) {
    ScratchDirectory empty;
    Environment path("PATH", empty.path());
    const Leftovers leftovers;
    const Routes routes(network_routes_list());
    ASSERT_TRUE(routes);
    EXPECT_EQ(*routes.get(), nullptr);
}

TEST(Routes, AreNoneWhereIpCannotBeStarted) {
    Host ip(kLineA);
    for (const char* call : {"posix_spawnp", "lseek"}) {
        const Leftovers leftovers;
        FailingCall fault(call, EMFILE);
        EXPECT_THAT(listed_routes(), IsEmpty()) << call;
        EXPECT_TRUE(fault.hit());
        EXPECT_TRUE(leftovers.none());
    }
}

TEST(Routes, AreListedWhereNoFileCanBeMadeInMemory) {
    Host ip(kLineA);
    const Leftovers leftovers;
    FailingCall fault("memfd_create", EPERM);
    EXPECT_THAT(listed_routes(), SizeIs(1));
    EXPECT_TRUE(fault.hit());
    EXPECT_TRUE(leftovers.none());
}

TEST(Routes, ThatAreNullNeedNoRelease) { network_routes_free(nullptr); }

// --- single commands -----------------------------------------------------------------------------

TEST(RouteCommands, AreRunAndNotPrinted) {
    Host ip("");
    const network_route fallback = {ipv4_address{}, address_of("10.1.2.1")};
    CapturedStderr captured;
    EXPECT_EQ(_network_route_add(&kA), 0);
    EXPECT_EQ(_network_route_add(&fallback), 0);
    EXPECT_THAT(listed_routes(), ElementsAre("10.7.0.0/16 via 10.1.2.1", "0.0.0.0/0 via 10.1.2.1"));
    EXPECT_EQ(_network_route_del(&kA), 0);
    EXPECT_EQ(_network_route_del(&fallback), 0);
    EXPECT_THAT(ip.changes(), ElementsAre("ip route add 10.7.0.0/16 via 10.1.2.1",
                                          "ip route add 0.0.0.0/0 via 10.1.2.1",
                                          "ip route del 10.7.0.0/16 via 10.1.2.1",
                                          "ip route del 0.0.0.0/0 via 10.1.2.1"));
    EXPECT_EQ(captured.text(), "");
    EXPECT_EQ(ip.get("routes"), "");
}

TEST(RouteCommands, PassTheGatewayWithoutItsPrefix) {
    Host ip("");
    const network_route route = route_of("10.7.0.0/16", "10.1.2.1/24");
    _network_route_add(&route);
    EXPECT_THAT(ip.changes(), ElementsAre("ip route add 10.7.0.0/16 via 10.1.2.1"));
}

TEST(RouteCommands, GiveWhatIpEndsWith) {
    Host ip(kLineA);
    CapturedStderr captured;
    EXPECT_EQ(_network_route_add(&kA), 2 << 8);
    EXPECT_EQ(_network_route_del(&kB), 2 << 8);
    EXPECT_EQ(captured.text(),
              "RTNETLINK answers: File exists\nRTNETLINK answers: No such process\n");
    ScratchDirectory empty;
    Environment path("PATH", empty.path());
    EXPECT_EQ(_network_route_add(&kA), 127 << 8);
    EXPECT_EQ(_network_route_del(&kA), 127 << 8);
}

TEST(RouteCommands, DoNothingWithNull) {
    Host ip("");
    EXPECT_EQ(_network_route_add(nullptr), -1);
    EXPECT_EQ(_network_route_del(nullptr), -1);
    EXPECT_THAT(ip.calls(), IsEmpty());
}

// --- all routes at once --------------------------------------------------------------------------

TEST(RoutesFlush, DeletesEveryRouteThroughAGateway) {
    const std::string connected = "10.1.2.0/24 dev eth0 scope link \n";
    Host ip(kLineA + connected + kLineB);
    CapturedStderr captured;
    network_routes_flush();
    EXPECT_THAT(ip.changes(), ElementsAre("ip route del 10.7.0.0/16 via 10.1.2.1",
                                          "ip route del 10.8.0.0/16 via 10.1.2.1"));
    EXPECT_EQ(ip.get("routes"), connected);
    EXPECT_EQ(captured.text(), "");
}

TEST(RoutesFlush, DoesNothingWhenTheHostCannotBeListed) {
    Host ip(kLineA);
    FailingCall fault("calloc", ENOMEM);
    network_routes_flush();
    EXPECT_THAT(ip.calls(), IsEmpty());
}

// --- apply ---------------------------------------------------------------------------------------

TEST(RoutesApply, DeletesWhatTheForwardPassHasGoneBy) {
    Host ip(std::string(kLineB) + kLineA);
    Wanted<network_route> wanted{kA, kB};
    EXPECT_EQ(network_routes_apply(wanted.list()), 0);
    EXPECT_THAT(ip.changes(), ElementsAre("ip route del 10.7.0.0/16 via 10.1.2.1",
                                          "ip route add 10.7.0.0/16 via 10.1.2.1"));
    EXPECT_THAT(listed_routes(),
                ElementsAre("10.8.0.0/16 via 10.1.2.1", "10.7.0.0/16 via 10.1.2.1"));
}

TEST(RoutesApply, AddsAllButTheLastOneListed) {
    Host ip(std::string(kLineA) + kLineB + kLineC);
    Wanted<network_route> wanted{kA, kB, kC};
    CapturedStderr captured;
    EXPECT_EQ(network_routes_apply(wanted.list()), 0);
    EXPECT_THAT(ip.changes(), ElementsAre("ip route add 10.7.0.0/16 via 10.1.2.1",
                                          "ip route add 10.8.0.0/16 via 10.1.2.1"));
    EXPECT_EQ(captured.text(), "RTNETLINK answers: File exists\nRTNETLINK answers: File exists\n");
    EXPECT_THAT(listed_routes(), SizeIs(3));
}

TEST(RoutesApply, DeletesAllBehindTheFirstThatIsNotWanted) {
    Host ip(std::string(kLineA) + kLineB + kLineC);
    Wanted<network_route> wanted{kA, kC};
    SilentStderr silent;
    network_routes_apply(wanted.list());
    EXPECT_THAT(ip.changes(), ElementsAre("ip route del 10.8.0.0/16 via 10.1.2.1",
                                          "ip route del 10.9.0.0/16 via 10.1.2.1",
                                          "ip route add 10.9.0.0/16 via 10.1.2.1"));
    EXPECT_THAT(listed_routes(),
                ElementsAre("10.7.0.0/16 via 10.1.2.1", "10.9.0.0/16 via 10.1.2.1"));
}

TEST(RoutesApply, KeepsARouteThatIsListedTwiceInARow) {
    Host ip(std::string(kLineA) + kLineA + kLineB);
    Wanted<network_route> wanted{kC, kA, kB};
    SilentStderr silent;
    network_routes_apply(wanted.list());
    EXPECT_THAT(ip.changes(), ElementsAre("ip route add 10.9.0.0/16 via 10.1.2.1",
                                          "ip route add 10.7.0.0/16 via 10.1.2.1"));
}

TEST(RoutesApply, ListsTheHostAfreshBeforeEachPass) {
    Host ip(kLineA);
    Wanted<network_route> wanted{kB};
    network_routes_apply(wanted.list());
    EXPECT_THAT(ip.calls(), ElementsAre("[route]", "[route][del][10.7.0.0/16][via][10.1.2.1]",
                                        "[route]", "[route][add][10.8.0.0/16][via][10.1.2.1]"));
}

TEST(RoutesApply, AddsAllToAHostWithoutRoutes) {
    Host ip("");
    Wanted<network_route> wanted{kB, kA};
    network_routes_apply(wanted.list());
    EXPECT_THAT(listed_routes(),
                ElementsAre("10.8.0.0/16 via 10.1.2.1", "10.7.0.0/16 via 10.1.2.1"));
}

TEST(RoutesApply, OfNothingDeletesAll) {
    Wanted<network_route> nothing{};
    for (network_route** list : {nothing.list(), static_cast<network_route**>(nullptr)}) {
        Host ip(std::string(kLineA) + kLineB);
        EXPECT_EQ(network_routes_apply(list), 0);
        EXPECT_THAT(ip.changes(), ElementsAre("ip route del 10.7.0.0/16 via 10.1.2.1",
                                              "ip route del 10.8.0.0/16 via 10.1.2.1"));
    }
}

TEST(RoutesApply, SkipsRemovalWhenTheHostCannotBeListed) {
    Host ip(kLineA);
    Wanted<network_route> wanted{kB};
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(network_routes_apply(wanted.list()), 0);
    EXPECT_THAT(ip.changes(), ElementsAre("ip route add 10.8.0.0/16 via 10.1.2.1"));
}

TEST(RoutesApply, TriesToAddAllWhenTheHostCannotBeListedAgain) {
    Host ip(kLineA);
    Wanted<network_route> wanted{kA};
    SilentStderr silent;
    // The list, the fields of its line, the route's record.
    FailingCall fault("calloc", ENOMEM, 3);
    EXPECT_EQ(network_routes_apply(wanted.list()), 0);
    EXPECT_TRUE(fault.hit());
    EXPECT_THAT(ip.changes(), ElementsAre("ip route add 10.7.0.0/16 via 10.1.2.1"));
}

TEST(RoutesApply, LeaksNothingWhateverAllocationFails) {
    SilentStderr silent;
    for (FailingAllocations round; round.next();) {
        Host ip(std::string(kLineB) + kLineA);
        Wanted<network_route> wanted{kA, kB};
        round.arm();
        EXPECT_EQ(network_routes_apply(wanted.list()), 0);
        round.disarm();
    }
}
