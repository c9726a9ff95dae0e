// netcfg as its users meet it: on a host that a stand-in `ip` keeps, and on a real one in a network
// of the test's own.

#include <tests/support/own_network.h>
#include <tests/support/program.h>
#include <tests/support/scratch.h>
#include <tests/support/stand_in_ip.h>

#include <gmock/gmock.h>

#include <string>

#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

constexpr const char* kLinks =
    "lo - 0 -\n"
    "eth0 - 0 52:54:00:12:34:56\n"
    "eth0.5 eth0 5 52:54:00:12:34:56\n";
constexpr const char* kAddresses =
    "lo 127.0.0.1/8\n"
    "eth0 10.1.2.3/24\n"
    "eth0 10.1.2.4/24\n"
    "eth0.5 10.5.0.3/16\n";
constexpr const char* kRoutes =
    "default via 10.1.2.1 dev eth0 \n"
    "10.7.0.0/16 via 10.1.2.1 dev eth0 \n";

struct Host : StandInIp {
    Host() {
        set("links", kLinks);
        set("addresses", kAddresses);
        set("routes", kRoutes);
    }
    // Other addresses, other routes, another VLAN.
    void change() {
        set("links",
            "lo - 0 -\neth0 - 0 52:54:00:12:34:56\neth0.6 eth0 6 52:54:00:12:34:56\n"
            "eth1 - 0 52:54:00:65:43:21\n");
        set("addresses", "lo 127.0.0.1/8\neth0 10.1.2.4/24\neth0 10.9.0.1/16\neth1 10.8.0.1/16\n");
        set("routes", "10.6.0.0/16 via 10.1.2.1 dev eth0 \ndefault via 10.1.2.1 dev eth0 \n");
    }
};

Result netcfg(const Strings& arguments) {
    Strings command = {NETCFG};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command);
}

}  // namespace

TEST(Netcfg, ShowsTheHost) {
    Host ip;
    const Result result = netcfg({"show"});
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_THAT(result.out,
                StartsWith("INTERFACE  LINK  VLAN  MAC                ADDRESSES\n"
                           "lo                                        127.0.0.1/8\n"
                           "eth0                   52:54:00:12:34:56  10.1.2.3/24 10.1.2.4/24\n"
                           "eth0.5     eth0  5     52:54:00:12:34:56  10.5.0.3/16\n"
                           "\n"
                           "DESTINATION  GATEWAY\n"
                           "default      10.1.2.1\n"
                           "10.7.0.0/16  10.1.2.1\n"));
}

TEST(Netcfg, SavesWhatItAppliesLater) {
    Host ip;
    ScratchDirectory scratch;
    const std::string name = scratch / "host";
    ASSERT_EQ(netcfg({"save", name}).status, 0);
    EXPECT_EQ(content_of(name + ".interfaces").size(), 3 * 374u);
    EXPECT_EQ(content_of(name + ".routes").size(), 2 * 34u);
    EXPECT_NE(access((name + ".interfaces.new").c_str(), F_OK), 0);

    ip.change();
    ip.set("calls", "");
    const Result planned = netcfg({"apply", name, "--dry-run"});
    EXPECT_EQ(planned.status, 0) << planned.err;
    EXPECT_THAT(
        lines_of(planned.out),
        ElementsAre(
            "ip addr del 10.9.0.1/16 dev eth0", "ip link delete eth0.6", "ip addr flush dev eth1",
            "ip link set dev lo up", "ip addr add 10.1.2.3/24 dev eth0", "ip link set dev eth0 up",
            "ip link add link eth0 name eth0.5 type vlan id 5",
            "ip addr add 10.5.0.3/16 dev eth0.5", "ip link set dev eth0.5 up",
            "ip route del 10.6.0.0/16 via 10.1.2.1", "ip route del 0.0.0.0/0 via 10.1.2.1",
            "ip route add 0.0.0.0/0 via 10.1.2.1", "ip route add 10.7.0.0/16 via 10.1.2.1"));
    EXPECT_THAT(ip.changes(), IsEmpty());

    const Result applied = netcfg({"apply", name, "--yes"});
    EXPECT_EQ(applied.status, 0) << applied.err;
    EXPECT_EQ(applied.err, planned.out) << "each command is printed as it runs";
    EXPECT_EQ(ip.changes(), lines_of(planned.out));
    EXPECT_EQ(ip.get("routes"), kRoutes);
    EXPECT_THAT(netcfg({"show"}).out, HasSubstr("eth0.5     eth0  5     52:54:00:12:34:56  "
                                                "10.5.0.3/16\n"));
}

TEST(Netcfg, SaysWhatIpDidNotDo) {
    Host ip;
    ScratchDirectory scratch;
    const std::string name = scratch / "host";
    ASSERT_EQ(netcfg({"save", name}).status, 0);
    // A host that no command changes.
    ip.answer("link list", "1: eth0: <UP>\n2: eth1: <UP>\n");
    ip.answer("addr list dev eth0", "    inet 10.1.2.3/24\n    inet 10.1.2.4/24\n");
    ip.answer("addr list dev eth1", "    inet 10.8.0.1/24\n");
    ip.answer("route", "10.6.0.0/16 via 10.1.2.1\n");
    const Result result = netcfg({"apply", name, "--yes"});
    EXPECT_EQ(result.status, 1);
    Strings left;
    for (const std::string& line : lines_of(result.err))
        if (const size_t at = line.find("not done: "); at != std::string::npos)
            left.push_back(line.substr(at));
    EXPECT_THAT(left, ElementsAre("not done: ip addr flush dev eth1",
                                  "not done: ip addr add 127.0.0.1/8 dev lo",
                                  "not done: ip link add link eth0 name eth0.5 type vlan id 5",
                                  "not done: ip addr add 10.5.0.3/16 dev eth0.5",
                                  "not done: ip route del 10.6.0.0/16 via 10.1.2.1",
                                  "not done: ip route add 0.0.0.0/0 via 10.1.2.1",
                                  "not done: ip route add 10.7.0.0/16 via 10.1.2.1"));
}

TEST(Netcfg, KeepsWhatWasSavedWhenTheHostCannotBeListed) {
    ScratchDirectory scratch;
    const std::string name = scratch / "host";
    {
        Host ip;
        ASSERT_EQ(netcfg({"save", name}).status, 0);
    }
    const std::string before = content_of(name + ".interfaces");
    ScratchDirectory empty;
    Environment path("PATH", empty.path());
    for (const Strings& arguments : {Strings{"show"},
                                     {"save", name},
                                     {"apply", name, "--dry-run"},
                                     {"apply", name, "--yes"}}) {
        const Result result = netcfg(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, EndsWith("netcfg: the host: ip lists no links\n"));
    }
    EXPECT_EQ(content_of(name + ".interfaces"), before);
}

TEST(Netcfg, SaysWhereItCannotSave) {
    Host ip;
    const Result result = netcfg({"save", "/none/such"});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err,
                EndsWith("netcfg: /none/such.interfaces.new: No such file or directory\n"));
}

TEST(Netcfg, AppliesNoFilesThatAreMissingOrDamagedOrHoldNothing) {
    Host ip;
    ScratchDirectory scratch;
    const std::string name = scratch / "host";
    const auto refused = [&] {
        for (const char* option : {"--dry-run", "--yes"}) {
            const Result result = netcfg({"apply", name, option});
            EXPECT_EQ(result.status, 1);
            EXPECT_EQ(result.out, "");
        }
        const std::string text = netcfg({"apply", name, "--yes"}).err;
        return text.substr(text.find(": ") + 2);
    };
    EXPECT_EQ(refused(), name + ".interfaces: No such file or directory\n");
    scratch.write("host.interfaces", std::string(373, 'x'));
    EXPECT_EQ(refused(), name + ".interfaces: is damaged\n");
    scratch.write("host.interfaces", "");
    EXPECT_EQ(refused(), name + ".routes: No such file or directory\n");
    scratch.write("host.routes", "");
    EXPECT_EQ(refused(), name + ".interfaces: holds no interface\n");
    EXPECT_THAT(ip.calls(), IsEmpty());
}

TEST(Netcfg, ShowsNamesWithoutControlCharacters) {
    Host ip;
    ip.answer("link list", "1: e\033[2J: <UP>\n");
    EXPECT_THAT(netcfg({"show"}).out, HasSubstr("\ne?[2J\n"));
}

TEST(Netcfg, ShowsSavedNamesWithoutControlCharacters) {
    Host ip;
    ScratchDirectory scratch;
    const std::string name = scratch / "host";
    ip.set("links", "e\033[2J - 0 -\nv\033[3J e\033[2J 5 -\n");
    ip.set("addresses", "e\033[2J 10.1.2.3/24\n");
    ip.set("routes", "");
    ASSERT_EQ(netcfg({"save", name}).status, 0);
    EXPECT_EQ(content_of(name + ".interfaces").substr(0, 5), "e\033[2J");

    const Result same = netcfg({"apply", name, "--dry-run"});
    EXPECT_THAT(lines_of(same.out),
                ElementsAre("ip link set dev e?[2J up", "ip link set dev v?[3J up"))
        << "names are compared as they are";

    // A host that no command changes.
    ip.answer("link list", "1: x\033[4J: <UP>\n");
    ip.answer("addr list dev x\033[4J", "    inet 10.8.0.1/24\n");
    const Strings commands = {"ip addr flush dev x?[4J", "ip addr add 10.1.2.3/24 dev e?[2J",
                              "ip link add link e?[2J name v?[3J type vlan id 5"};
    const Result planned = netcfg({"apply", name, "--dry-run"});
    EXPECT_EQ(planned.out.find('\033'), std::string::npos);
    const Result applied = netcfg({"apply", name, "--yes"});
    EXPECT_EQ(applied.status, 1);
    for (const std::string& command : commands) {
        EXPECT_THAT(planned.out, HasSubstr(command + "\n"));
        EXPECT_THAT(applied.err, HasSubstr("not done: " + command + "\n"));
    }
}

TEST(Netcfg, ExplainsItself) {
    const Result help = netcfg({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, StartsWith("usage: netcfg show\n"));
    for (const Strings& wrong : {Strings{},
                                 {"none"},
                                 {"show", "x"},
                                 {"save"},
                                 {"save", "x", "y"},
                                 {"apply", "x"},
                                 {"apply", "x", "--yes", "--dry-run"},
                                 {"save", "x", "--yes"},
                                 {"show", "--dry-run"},
                                 {"show", "--none"}}) {
        const Result result = netcfg(wrong);
        EXPECT_EQ(result.status, 2);
        EXPECT_THAT(lines_of(result.err), testing::SizeIs(1));
        EXPECT_EQ(result.out, "");
    }
}

TEST(Netcfg, BringsARealHostBack) {
    in_own_network([] {
        set_up(
            "ip link set lo up\n"
            "ip link add v0 address 02:00:00:00:00:10 type veth peer name v1\n"
            "ip link set v1 up\n"
            "ip link set v0 up\n"
            "ip addr add 10.1.2.3/24 dev v0\n"
            "ip addr add 192.0.2.7 dev v0\n"
            "ip route add default via 10.1.2.1\n"
            "ip route add 10.7.0.0/16 via 10.1.2.1\n");
        ScratchDirectory scratch;
        const std::string name = scratch / "host";
        const Result before = netcfg({"show"});
        ASSERT_EQ(netcfg({"save", name}).status, 0);
        set_up(
            "ip addr flush dev v0\n"
            "ip addr add 10.6.0.1/16 dev v0\n"
            "ip route add 10.8.0.0/16 via 10.6.0.9\n"
            "ip link set v0 down");
        const Result applied = netcfg({"apply", name, "--yes"});
        EXPECT_EQ(applied.status, 0) << applied.err;
        EXPECT_EQ(netcfg({"show"}).out, before.out);
        EXPECT_THAT(before.out, HasSubstr("192.0.2.7/32"));
    });
}
