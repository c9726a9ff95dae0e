// The library and the real `ip` of iproute2, in a network of the test's own.

#include <ztlib/utils/network.h>

#include <tests/support/capture.h>
#include <tests/support/own_network.h>
#include <tests/support/scratch.h>
#include <tests/support/stand_in_ip.h>
#include <tests/utils/network_support.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <string>

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace zt_test;
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

namespace {

// Two ends of a cable, a bridge and a tap; several addresses, of both families.
void set_up_links() {
    set_up(
        "ip link set lo up\n"
        "ip link add v0 address 02:00:00:00:00:10 type veth"
        "    peer name v1 address 02:00:00:00:00:11\n"
        "ip link add br0 address 02:00:00:00:00:12 type bridge\n"
        "ip tuntap add tap0 mode tap\n"
        "ip link set tap0 address 02:00:00:00:00:13\n"
        "for link in v0 v1 br0 tap0; do ip link set $link up; done\n"
        "ip addr add 10.1.2.3/24 dev v0\n"
        "ip addr add 10.1.2.4/24 dev v0\n"
        "ip addr add 192.0.2.7 dev v0\n"
        "ip addr add fd00::1/64 dev v0\n"
        "ip addr add 10.2.0.1/16 broadcast 10.2.255.255 dev br0 label br0:1\n"
        "ip addr add fd01::1/64 dev br0\n");
}

void set_up_routes() {
    set_up(
        "ip route add default via 10.1.2.1\n"
        "ip route add 10.7.0.0/16 via 10.1.2.1 proto static\n"
        "ip route add 10.8.0.1 via 10.2.0.9\n"
        "ip route add unreachable 10.9.0.0/16\n"
        "ip route add fd07::/16 via fd00::2\n");
}

const Strings kInterfaces = {
    "lo 127.0.0.1/8",
    "v1@v0 02:00:00:00:00:11",
    "v0@v1 02:00:00:00:00:10 10.1.2.3/24 192.0.2.7/32 10.1.2.4/24",
    "br0 02:00:00:00:00:12 10.2.0.1/16",
    "tap0 02:00:00:00:00:13",
};
const Strings kRoutes = {
    "0.0.0.0/0 via 10.1.2.1",
    "10.7.0.0/16 via 10.1.2.1",
    "10.8.0.1/32 via 10.2.0.9",
};

// Every `ip` that the library runs from here on is recorded, and run.
class RecordedIp {
  public:
    RecordedIp() {
        const std::string real = sh("command -v ip").out;
        directory_.write("ip", "#!/bin/sh\necho \"ip $*\" >> " + directory_ / "calls" + "\nexec " +
                                   real.substr(0, real.size() - 1) + " \"$@\"\n");
        chmod((directory_ / "ip").c_str(), 0755);
        setenv("PATH", (directory_.path() + ":" + getenv("PATH")).c_str(), 1);
    }
    Strings route_changes() const {
        Strings changes;
        for (const std::string& call : lines_of(content_of(directory_ / "calls")))
            if (call.starts_with("ip route add") || call.starts_with("ip route del"))
                changes.push_back(call);
        return changes;
    }

  private:
    ScratchDirectory directory_;
};

network_route route(const char* destination) { return route_of(destination, "10.1.2.1"); }

bool is_up(const char* link) {
    return sh(std::string("ip link list up | grep -q ' ") + link + "[:@]'").status == 0;
}

// Puts this file in the place of the resolver's.
void hide_resolver_behind(const std::string& path) {
    if (mount(path.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
        cannot_call("mount over /etc/resolv.conf");
}

}  // namespace

TEST(RealHost, IsListedAsItIs) {
    in_own_network([] {
        set_up_links();
        set_up_routes();
        EXPECT_EQ(listed_interfaces(), kInterfaces);
        EXPECT_EQ(listed_routes(), kRoutes);
    });
}

TEST(RealHost, WithNothingSetUpHasTheLoopbackAndNoRoutes) {
    in_own_network([] {
        EXPECT_THAT(listed_interfaces(), ElementsAre("lo"));
        EXPECT_THAT(listed_routes(), IsEmpty());
    });
}

TEST(RealHost, IsBroughtBackFromSavedFiles) {
    in_own_network([] {
        set_up_links();
        set_up_routes();
        ScratchDirectory scratch;
        const std::string interfaces = scratch / "interfaces", routes = scratch / "routes";
        EXPECT_EQ(network_interfaces_save(interfaces.c_str(), nullptr), 0);
        EXPECT_EQ(network_routes_save(routes.c_str(), nullptr), 0);

        SilentStderr silent;
        network_routes_flush();
        EXPECT_THAT(listed_routes(), IsEmpty());
        network_interfaces_flush();
        EXPECT_THAT(listed_interfaces(),
                    ElementsAre("lo", "v1@v0 02:00:00:00:00:11", "v0@v1 02:00:00:00:00:10",
                                "br0 02:00:00:00:00:12", "tap0 02:00:00:00:00:13"));

        const Interfaces desired(network_interfaces_load(interfaces.c_str()));
        EXPECT_EQ(network_interfaces_apply(desired.get()), 0);
        const Routes desired_routes(network_routes_load(routes.c_str()));
        EXPECT_EQ(network_routes_apply(desired_routes.get()), 0);
        EXPECT_EQ(listed_interfaces(), kInterfaces);
        EXPECT_EQ(listed_routes(), kRoutes);
        EXPECT_THAT(sh("ip -6 addr").out, Not(HasSubstr("fd00::1"))) << "flushed with the rest";
    });
}

TEST(RealHost, StaysAsItIsWhenThatIsApplied) {
    in_own_network([] {
        set_up_links();
        set_up_routes();
        const std::string before = sh("ip addr; ip route; ip -6 route").out;
        CapturedStderr captured;
        network_interfaces_apply(Interfaces(network_interfaces_list()).get());
        EXPECT_EQ(captured.take(),
                  "ip link set dev lo up\nip link set dev v1 up\nip link set dev v0 up\n"
                  "ip link set dev br0 up\nip link set dev tap0 up\n");
        network_routes_apply(Routes(network_routes_list()).get());
        EXPECT_EQ(captured.text().find("Error"), std::string::npos);
        EXPECT_EQ(listed_interfaces(), kInterfaces);
        EXPECT_EQ(listed_routes(), kRoutes);
        EXPECT_EQ(sh("ip addr | grep -c inet").out,
                  sh("grep -c inet <<EOF\n" + before + "EOF").out);
    });
}

TEST(RealHost, LosesWhatIsNotDesired) {
    in_own_network([] {
        set_up_links();
        SilentStderr silent;
        // Taking 10.1.2.3 away takes 10.1.2.4 along, unless the host promotes such addresses; it is
        // then added again.
        Wanted<network_interface> wanted{interface_of("lo", {"127.0.0.1/8"}),
                                         interface_of("v0", {"10.1.2.4/24", "10.3.0.1/16"}),
                                         interface_of("none", {"10.4.0.1/16"})};
        network_interfaces_apply(wanted.list());
        EXPECT_THAT(listed_interfaces(),
                    ElementsAre("lo 127.0.0.1/8", "v1@v0 02:00:00:00:00:11",
                                AnyOf("v0@v1 02:00:00:00:00:10 10.3.0.1/16 10.1.2.4/24",
                                      "v0@v1 02:00:00:00:00:10 10.1.2.4/24 10.3.0.1/16"),
                                "br0 02:00:00:00:00:12", "tap0 02:00:00:00:00:13"));
        EXPECT_TRUE(is_up("br0"));
    });
}

TEST(RealHost, SetsLinksUpAndDown) {
    in_own_network([] {
        set_up("ip link add v0 type veth peer name v1");
        SilentStderr silent;
        EXPECT_EQ(_network_interface_up("v0"), 0);
        EXPECT_TRUE(is_up("v0"));
        EXPECT_EQ(_network_interface_down("v0"), 0);
        EXPECT_FALSE(is_up("v0"));
        EXPECT_EQ(_network_interface_destroy("v0"), 0);
        EXPECT_THAT(listed_interfaces(), ElementsAre("lo"));
    });
}

TEST(RealHost, RefusesWhatMakesNoSense) {
    in_own_network([] {
        set_up_links();
        SilentStderr silent;
        const ipv4_address held = address_of("10.1.2.3/24"), other = address_of("10.1.2.9/24");
        EXPECT_EQ(_network_interface_ip_add("v0", &held), 2 << 8);
        EXPECT_EQ(_network_interface_ip_del("v0", &other), 2 << 8);
        EXPECT_EQ(_network_interface_flush("none"), 1 << 8);
        EXPECT_EQ(_network_interface_flush("v0; ip link delete v0"), 1 << 8);
        EXPECT_NE(_network_interface_flush(""), 0);
        EXPECT_NE(_network_interface_destroy(""), 0);
        const network_route unreachable = route_of("10.7.0.0/16", "203.0.113.1");
        EXPECT_EQ(_network_route_add(&unreachable), 2 << 8);
        EXPECT_EQ(_network_route_del(&unreachable), 2 << 8);
        EXPECT_EQ(listed_interfaces(), kInterfaces);
    });
}

TEST(RealHost, ListsTheFirst32OfItsLinks) {
    in_own_network([] {
        std::string batch;
        for (int i = 1; i < 40; ++i) batch += "link add br" + std::to_string(i) + " type bridge\n";
        batch += "addr add 10.0.31.1/24 dev br31\naddr add 10.0.32.1/24 dev br32\n";
        set_up("ip -batch - <<EOF\n" + batch + "EOF\n");
        const Strings listed = listed_interfaces();
        ASSERT_THAT(listed, SizeIs(NETWORK_MAX_LINKS));
        EXPECT_EQ(listed.front(), "lo");
        EXPECT_THAT(listed.back(), testing::MatchesRegex("br31 [0-9a-f:]{17} 10.0.31.1/24"));
    });
}

TEST(RealHost, ListsTheFirst10OfALinksAddresses) {
    in_own_network([] {
        std::string batch = "link add br0 address 02:00:00:00:00:12 type bridge\n";
        std::string expected = "br0 02:00:00:00:00:12";
        for (int i = 1; i <= 12; ++i) {
            const std::string address = "10.0." + std::to_string(i) + ".1/24";
            batch += "addr add " + address + " dev br0\n";
            if (i <= NETWORK_MAX_ADDRESSES) expected += " " + address;
        }
        set_up("ip -batch - <<EOF\n" + batch + "EOF\n");
        EXPECT_THAT(listed_interfaces(), ElementsAre("lo", expected));
    });
}

TEST(RealHost, TakesRoutesInEveryOrderThoughNotWithTheSameCommands) {
    in_own_network([] {
        set_up_links();
        const network_route a = route("10.7.0.0/16"), b = route("10.8.0.0/16"),
                            c = route("10.9.0.0/16");
        const Strings all = {text_of(a), text_of(b), text_of(c)};
        const struct {
            Wanted<network_route> wanted;
            Strings changes;
        } cases[] = {
            {{a, b, c},
             {"ip route add 10.7.0.0/16 via 10.1.2.1",    // refused
              "ip route add 10.8.0.0/16 via 10.1.2.1"}},  // refused
            {{c, b, a},
             {"ip route del 10.8.0.0/16 via 10.1.2.1", "ip route del 10.9.0.0/16 via 10.1.2.1",
              "ip route add 10.9.0.0/16 via 10.1.2.1", "ip route add 10.8.0.0/16 via 10.1.2.1"}},
            {{b, a, c},
             {"ip route del 10.8.0.0/16 via 10.1.2.1", "ip route del 10.9.0.0/16 via 10.1.2.1",
              "ip route add 10.8.0.0/16 via 10.1.2.1", "ip route add 10.9.0.0/16 via 10.1.2.1"}},
        };
        for (auto [wanted, changes] : cases) {
            SilentStderr silent;
            network_routes_flush();
            set_up(
                "ip route add 10.7.0.0/16 via 10.1.2.1\n"
                "ip route add 10.8.0.0/16 via 10.1.2.1\n"
                "ip route add 10.9.0.0/16 via 10.1.2.1\n");
            const RecordedIp ip;
            EXPECT_EQ(network_routes_apply(wanted.list()), 0);
            EXPECT_EQ(ip.route_changes(), changes);
            EXPECT_EQ(listed_routes(), all);
        }
        EXPECT_EQ(network_routes_apply(nullptr), 0);
        EXPECT_THAT(listed_routes(), IsEmpty());
    });
}

TEST(RealHost, GetsATwinOfARouteWithAMetric) {
    in_own_network([] {
        set_up_links();
        set_up(
            "ip route add 10.7.0.0/16 via 10.1.2.1 metric 50\n"
            "ip route add 10.8.0.0/16 via 10.1.2.1 metric 50\n");
        network_routes_apply(Routes(network_routes_list()).get());
        EXPECT_EQ(sh("ip route show via 10.1.2.1").out,
                  "10.7.0.0/16 dev v0 \n10.7.0.0/16 dev v0 metric 50 \n"
                  "10.8.0.0/16 dev v0 metric 50 \n");
    });
}

TEST(RealHost, HasItsResolverFileReadAndRewritten) {
    in_own_network([] {
        if (access("/etc/resolv.conf", F_OK) != 0) cannot("there is no /etc/resolv.conf to hide");
        ScratchDirectory scratch;
        const std::string path =
            scratch.write("resolv.conf", "# by hand\nsearch example.com\nnameserver 192.0.2.1\n" +
                                             std::string(2000, '#') + "\nnameserver 192.0.2.2\n");
        hide_resolver_behind(path);
        network_resolv* const resolv = network_resolv_load();
        ASSERT_NE(resolv, nullptr);
        EXPECT_STREQ(resolv->search, "example.com");
        ASSERT_EQ(resolv->nameserver_count, 2);
        EXPECT_EQ(text_of(resolv->nameservers[1], false), "192.0.2.2");

        EXPECT_EQ(network_resolv_save(resolv), 0);
        EXPECT_EQ(content_of(path),
                  "# automatically generated from zt lib\nsearch example.com\n"
                  "nameserver 192.0.2.1\nnameserver 192.0.2.2\n");
        free(resolv);
    });
}

TEST(RealHost, SaysWhenItsResolverFileIsNoneToWrite) {
    in_own_network([] {
        if (access("/etc/resolv.conf", F_OK) != 0) cannot("there is no /etc/resolv.conf to hide");
        ScratchDirectory scratch;
        hide_resolver_behind(scratch.write("resolv.conf", "search x\n"));
        if (mount(nullptr, "/etc/resolv.conf", nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY,
                  nullptr) != 0)
            cannot_call("mount read-only");
        CapturedLog log;
        const network_resolv resolv{};
        EXPECT_EQ(network_resolv_save(&resolv), -1);
        EXPECT_THAT(log.lines(), ElementsAre("WARN:network:network_resolv_save: fopen(): "
                                             "Read-only file system"));
    });
}
