// The inventory's programs as their users meet them: real processes, real sockets, this host's
// state. A sanitized build's programs end with a status of their own when they leaked or raced, so
// every status of 0 here says more than that.

#include <tests/examples/inventory.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::SizeIs;
using testing::StartsWith;

namespace {

// --- this host -----------------------------------------------------------------------------------

TEST(Inventory, TellsThisHostAsItIs) {
    Server server;
    const std::string load_before = content_of("/proc/loadavg");
    ASSERT_EQ(agent(server, {"report"}).status, 0);
    const std::string load_after = content_of("/proc/loadavg");

    const std::string name = output_of("uname -n");
    const Result shown = agent(server, {"show", name, "--xml"});
    ASSERT_EQ(shown.status, 0) << shown.err;
    const auto value = [&](const std::string& path) {
        return xpath(shown.out, "/hosts/host/" + path);
    };

    EXPECT_EQ(value("name"), name);
    EXPECT_EQ(value("system"), output_of(". /etc/os-release; printf %s \"$PRETTY_NAME\""));
    EXPECT_EQ(value("memory/total"),
              output_of("awk '$1 == \"MemTotal:\" { printf \"%.0f\", $2 * 1024 }' /proc/meminfo"));
    EXPECT_LE(std::stoull(value("memory/available")), std::stoull(value("memory/total")));
    const std::string load =
        value("load/one") + " " + value("load/five") + " " + value("load/fifteen") + " ";
    EXPECT_TRUE(load_before.starts_with(load) || load_after.starts_with(load)) << load;
    EXPECT_EQ(xpath(shown.out, "count(//interface)"), output_of("ls /sys/class/net | wc -l"));
    for (const std::string& interface : lines_of(output_of("ls /sys/class/net"))) {
        const std::string counters = "/sys/class/net/" + interface + "/statistics/";
        const std::string element = "interface[name='" + interface + "']/";
        EXPECT_NE(value(element + "name"), "") << interface;
        EXPECT_LE(std::stoull(value(element + "received")),
                  std::stoull(content_of(counters + "rx_bytes")));
        EXPECT_LE(std::stoull(value(element + "sent")),
                  std::stoull(content_of(counters + "tx_bytes")));
    }
    EXPECT_GT(std::stoull(value("interface[name='lo']/received")), 0u);
    EXPECT_EQ(xpath(shown.out, "count(//interface/address)"),
              output_of("ip -4 -oneline address | wc -l"));
    EXPECT_EQ(value("interface[name='lo']/address"), "127.0.0.1/8");
    EXPECT_EQ(xpath(shown.out, "count(//interface/mac)"),
              output_of("ip -oneline link | grep -c link/ether || true"));
    EXPECT_EQ(xpath(shown.out, "count(//route)"), output_of("ip route | grep -c via || true"));
    EXPECT_EQ(value("traffic/received"), xpath(shown.out, "sum(//interface[name!='lo']/received)"));
    EXPECT_EQ(server.stop(), 0);
    EXPECT_EQ(server.err(), "");
}

TEST(Inventory, ReadsTheSystemsNameAsAShellWould) {
    const ScratchDirectory scratch;
    const std::string release =
        scratch.write("os-release", "NAME=x\nPRETTY_NAME=\"A \\\"B\\\" <&> \\$C 'D'\"\nID=y\n");
    Server server;
    const Result result = run(agent_command(server, {"report", "--xml"}), [&] {
        // A mount that only this process sees; where that is not allowed it says so by its status.
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(release.c_str(), "/etc/os-release", nullptr, MS_BIND, nullptr) != 0)
            _exit(77);
    });
    if (result.status == 77) GTEST_SKIP() << "needs a mount namespace";
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(xpath(result.out, "/hosts/host/system"), "A \"B\" <&> $C 'D'");
}

// --- tables --------------------------------------------------------------------------------------

TEST(Inventory, AlignsTheListAndSortsItByName) {
    Server server;
    Peer peer(server);
    Report web1, zoe, umlaut;
    zoe.name = "<name>zoe</name>";
    zoe.memory = "<memory><total>1024</total><available>1023</available></memory>";
    zoe.traffic =
        "<traffic><received>18446744073709551615</received><sent>1048575</sent></traffic>";
    umlaut.name = "<name>K\xc3\xb6ln</name>";
    umlaut.load = "<load><one>100</one><five>0.1</five><fifteen>0</fifteen></load>";
    for (const Report& report : {zoe, web1, umlaut})
        EXPECT_THAT(peer.ask(report.text()), StartsWith("<hosts>"));

    const Result list = agent(server, {"list"});
    EXPECT_EQ(list.status, 0);
    EXPECT_EQ(ageless(list.out),
              "HOST  SYSTEM         LOAD 1     5  15 MIN  MEMORY USED    TOTAL  RECEIVED     SENT  "
              "REPORTED\n"
              "K\xc3\xb6ln  Some System 1  100.00  0.10    0.00      2.0 GiB  8.0 GiB   1.0 MiB    "
              "512 B   0 s ago\n"
              "web1  Some System 1    0.42  1.00   12.50      2.0 GiB  8.0 GiB   1.0 MiB    512 B  "
              " 0 s ago\n"
              "zoe   Some System 1    0.42  1.00   12.50          1 B  1.0 KiB  16.0 EiB  1.0 MiB  "
              " 0 s ago\n");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, ShowsOneHostWithItsInterfacesAndRoutes) {
    Server server;
    Peer peer(server);
    Report report;
    report.interfaces =
        "<interface><name>lo</name><received>5</received><sent>5</sent>"
        "<address>127.0.0.1/8</address></interface>"
        "<interface><name>eth0</name><received>1048576</received><sent>512</sent>"
        "<mac>52:54:00:12:34:56</mac><address>192.0.2.10/24</address>"
        "<address>10.1.2.3</address></interface>"
        "<interface><name>sit0</name><received>0</received><sent>0</sent></interface>"
        "<route><destination>0.0.0.0/0</destination><gateway>192.0.2.1</gateway></route>"
        "<route><destination>10.0.0.0/8</destination><gateway>192.0.2.254</gateway></route>";
    peer.ask(report.text());

    const Result shown = agent(server, {"show", "web1"});
    EXPECT_EQ(shown.status, 0);
    EXPECT_EQ(ageless(shown.out),
              "host      web1\n"
              "system    Some System 1\n"
              "load      0.42 1.00 12.50\n"
              "memory    2.0 GiB used of 8.0 GiB\n"
              "reported  0 s ago\n"
              "\n"
              "INTERFACE  ADDRESS        MAC                RECEIVED   SENT\n"
              "lo         127.0.0.1/8                            5 B    5 B\n"
              "eth0       192.0.2.10/24  52:54:00:12:34:56   1.0 MiB  512 B\n"
              "           10.1.2.3\n"
              "sit0                                              0 B    0 B\n"
              "\n"
              "ROUTE       VIA\n"
              "0.0.0.0/0   192.0.2.1\n"
              "10.0.0.0/8  192.0.2.254\n");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, ListsNobodyBelowItsHeadings) {
    Server server;
    const Result list = agent(server, {"list"});
    EXPECT_EQ(list.status, 0);
    EXPECT_THAT(lines_of(list.out), ElementsAre(StartsWith("HOST  SYSTEM  LOAD 1")));
    EXPECT_EQ(xpath(agent(server, {"list", "--xml"}).out, "count(/hosts/*)"), "0");
}

// --- answers -------------------------------------------------------------------------------------

TEST(Inventory, AnswersAReportWithTheHost) {
    Server server;
    Peer peer(server);
    const Report report;
    EXPECT_EQ(peer.ask(report.text()),
              "<hosts><host><age>0</age>" + report.host() + report.interfaces + "</host></hosts>");
}

TEST(Inventory, KeepsAHostsLastReport) {
    Server server;
    Peer peer(server);
    Report report;
    peer.ask(report.text());
    report.system = "<system>Some System 2</system>";
    peer.ask(report.text());
    EXPECT_EQ(ageless(peer.ask("<show><name>web1</name></show>")),
              "<hosts><host><age>0</age>" + report.host() + report.interfaces + "</host></hosts>");
    EXPECT_EQ(ageless(peer.ask("<list/>")),
              "<hosts><host><age>0</age>" + report.host() + "</host></hosts>");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, CarriesReservedCharactersThereAndBack) {
    const std::string name = "a<b>&c\"d'e &amp; \xe2\x82\xac";
    Server server;
    const Result reported = agent(server, {"report", "--name", name});
    ASSERT_EQ(reported.status, 0) << reported.err;
    EXPECT_THAT(reported.out, HasSubstr("\n" + name + "  "));
    EXPECT_THAT(agent(server, {"list"}).out, HasSubstr("\n" + name + "  "));
    const Result shown = agent(server, {"show", name, "--xml"});
    EXPECT_EQ(shown.status, 0) << shown.err;
    EXPECT_EQ(xpath(shown.out, "/hosts/host/name"), name);
    const Result missing = agent(server, {"show", name + "<"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(missing.err, std::string(kAgent) + ": no host is named " + name + "<\n");
}

TEST(Inventory, AnswersUnknownRequestsWithAnErrorAndGoesOn) {
    const std::string unknown = error("unknown-request", "requests are report, list and show");
    Server server;
    Peer peer(server);
    EXPECT_EQ(peer.ask("<reboot/>"), unknown);
    EXPECT_EQ(peer.ask("<List/>"), unknown);
    EXPECT_EQ(peer.ask("<show><name>web9</name></show>"),
              error("no-such-host", "no host is named web9"));
    EXPECT_EQ(peer.ask("<list/>"), "<hosts></hosts>");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, AnswersAFrameWithoutADocumentLikeAnUnknownRequest) {
    Server server;
    Peer peer(server);
    peer.send_bytes(Peer::frame("") + Peer::frame("<list/>"));
    EXPECT_EQ(peer.receive(), error("unknown-request", "requests are report, list and show"));
    // Each chunk takes one frame off: the list is answered when something follows it.
    EXPECT_EQ(peer.ask("<reboot/>"), "<hosts></hosts>");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, AnswersIncompleteRequestsWithAnErrorAndGoesOn) {
    Server server;
    Peer peer(server);
    const auto incomplete = [&](const std::string& request, const std::string& message) {
        EXPECT_EQ(peer.ask(request), error("incomplete", message)) << request;
    };
    const auto incomplete_report = [&](auto change, const std::string& message) {
        Report report;
        change(report);
        incomplete(report.text(), message);
    };
    incomplete("<show/>", "name is missing");
    incomplete("<show><name/></show>", "name is empty");
    incomplete("<report/>", "host is missing");
    incomplete("<report><host/></report>", "name is missing");
    incomplete_report([](Report& r) { r.system = ""; }, "system is missing");
    incomplete_report([](Report& r) { r.load = "<load/>"; }, "one is missing");
    incomplete_report([](Report& r) { r.load = replace_all(r.load, "0.42", "x"); },
                      "one is not a number");
    incomplete_report([](Report& r) { r.load = replace_all(r.load, "0.42", "nan"); },
                      "one is out of range");
    incomplete_report([](Report& r) { r.load = replace_all(r.load, "0.42", "-1"); },
                      "one is out of range");
    incomplete_report([](Report& r) { r.memory = replace_all(r.memory, "8589934592", "12"); },
                      "available exceeds total");
    incomplete_report([](Report& r) { r.memory = replace_all(r.memory, "8589934592", "-12"); },
                      "total is not a number");
    incomplete_report(
        [](Report& r) { r.traffic = replace_all(r.traffic, "512", "18446744073709551616"); },
        "sent is not a number");
    incomplete_report([](Report& r) { r.traffic = replace_all(r.traffic, "512", "512 "); },
                      "sent is not a number");
    incomplete_report([](Report& r) { r.interfaces = "<interface/>"; }, "name is missing");
    EXPECT_EQ(peer.ask("<list/>"), "<hosts></hosts>");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, TakesPlainTextOfBoundedLengthAlone) {
    Server server;
    Peer peer(server);
    const auto is_taken = [&](const std::string& name) {
        Report report;
        report.name = "<name>" + name + "</name>";
        const std::string answer = peer.ask(report.text());
        if (answer.starts_with("<hosts>")) return true;
        EXPECT_EQ(answer, error("incomplete", "name is too long or not plain text"));
        return false;
    };
    EXPECT_TRUE(is_taken(std::string(255, 'x')));
    EXPECT_FALSE(is_taken(std::string(256, 'x')));
    EXPECT_TRUE(is_taken("\xc2\xa0\xe0\xa0\x80\xed\x9f\xbf\xf0\x90\x80\x80\xf4\x8f\xbf\xbd"));
    for (const char* bad : {"a\x1b[2J", "a\nb", "a\tb", "a\x7f", "&#27;", "\xc2\x9b", "\xc0\xaf",
                            "\xe0\x80\xaf", "\xed\xa0\x80", "\xf0\x80\x80\xaf", "\xf4\x90\x80\x80",
                            "\xf5\x80\x80\x80", "\xef\xbf\xbe", "\xe2\x82", "\x80"})
        EXPECT_FALSE(is_taken(bad)) << testing::PrintToString(bad);
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, SkipsTextThatDoesNotParseAndGoesOn) {
    Server server;
    Peer peer(server);
    peer.send_frame("<list></tsil>");
    EXPECT_TRUE(
        eventually([&] { return server.err().find("failed parse xml -4") != std::string::npos; }));
    EXPECT_EQ(peer.ask("<list/>"), "<hosts></hosts>");
    peer.send_frame("no XML");
    EXPECT_TRUE(
        eventually([&] { return server.err().find("failed parse xml -1") != std::string::npos; }));
    EXPECT_EQ(peer.ask("<list/>"), "<hosts></hosts>");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, TakesRequestsInAnyPieces) {
    Server server;
    Peer peer(server);
    const Report report;
    for (const char byte : Peer::frame(report.text())) peer.send_bytes({&byte, 1});
    EXPECT_THAT(*peer.receive(), StartsWith("<hosts><host>"));
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, BoundsItsHostsAndTheirInterfaces) {
    Server server;
    Peer peer(server);
    Report report;
    const auto report_as = [&](int number) {
        report.name = "<name>host" + std::to_string(number) + "</name>";
        return peer.ask(report.text());
    };
    for (int i = 0; i < 2000; ++i) ASSERT_THAT(report_as(i), StartsWith("<hosts>"));
    EXPECT_EQ(report_as(2000), error("full", "the server takes no further host"));
    EXPECT_THAT(report_as(1999), StartsWith("<hosts>")) << "a known host still reports";
    EXPECT_THAT(lines_of(agent(server, {"list"}).out), SizeIs(2001));

    std::string many;
    for (int i = 0; i < 256; ++i) many += report.interfaces;
    report.interfaces = many;
    EXPECT_THAT(report_as(0), StartsWith("<hosts>"));
    EXPECT_EQ(xpath(agent(server, {"show", "host0", "--xml"}).out, "count(//interface)"), "256");
    report.interfaces += "<interface/>";
    EXPECT_EQ(report_as(0), error("incomplete", "interface comes too often"));

    const std::string route =
        "<route><destination>10.0.0.0/8</destination><gateway>10.0.0.1</gateway></route>";
    const std::string address = "<address>10.0.0.1/8</address>";
    report.interfaces.clear();
    for (int i = 0; i < 256; ++i) report.interfaces += route;
    EXPECT_THAT(report_as(0), StartsWith("<hosts>"));
    report.interfaces += route;
    EXPECT_EQ(report_as(0), error("incomplete", "route comes too often"));
    many.clear();
    for (int i = 0; i < 11; ++i) many += address;
    report.interfaces =
        "<interface><name>lo</name><received>5</received><sent>5</sent>" + many + "</interface>";
    EXPECT_EQ(report_as(0), error("incomplete", "address comes too often"));
    EXPECT_EQ(server.stop(), 0);
}

// --- peers that misbehave ------------------------------------------------------------------------

TEST(Inventory, EndsOnlyTheConnectionOfAHostileFrame) {
    Server server;
    Peer good(server);
    EXPECT_EQ(good.ask("<list/>"), "<hosts></hosts>");
    for (const uint32_t length : {0xffffffffu, 0x80000000u, 16u * 1024 * 1024 + 1, 3u, 0u}) {
        Peer hostile(server);
        hostile.send_bytes(Peer::length_word(length) + "<list/>");
        EXPECT_TRUE(hostile.ended()) << length;
    }
    EXPECT_EQ(good.ask("<list/>"), "<hosts></hosts>");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, EndsTheConnectionOfAPeerThatReadsNoAnswers) {
    Server server({"--verbose"});
    Peer good(server);
    Report report;
    report.system = "<system>" + replace_all(std::string(128, '&'), "&", "&amp;") + "</system>";
    for (int i = 0; i < 1000; ++i) {
        report.name = "<name>" + std::to_string(i) + "</name>";
        good.ask(report.text());
    }

    Peer hostile(server);
    const std::string request = Peer::frame("<list/>");
    // Each chunk that arrives takes one request off; what is left behind is taken later.
    EXPECT_TRUE(eventually([&] {
        const ssize_t sent = send(hostile.socket_number(), request.data(), request.size(),
                                  MSG_NOSIGNAL | MSG_DONTWAIT);
        return sent < 0 && errno != EAGAIN;
    }));
    EXPECT_TRUE(eventually([&] {
        return server.err().find("connection ended: the peer does not read its answers\n") !=
               std::string::npos;
    }));
    EXPECT_THAT(good.ask("<list/>"), StartsWith("<hosts><host>"));
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, EndsAConnectionThatIsSilentForTooLong) {
    Server server({"--idle", "1"});
    Peer silent(server), stuck(server);
    stuck.send_bytes(std::string_view("\0\0", 2));
    EXPECT_TRUE(silent.ended());
    EXPECT_TRUE(stuck.ended());
    EXPECT_EQ(server.stop(), 0);
}

// Connects so many peers, of which the last finds no room, and makes room.
void expect_the_last_to_wait(Server& server, size_t peers_wanted, size_t leaving) {
    std::vector<std::unique_ptr<Peer>> peers;
    while (peers.size() < peers_wanted) peers.push_back(std::make_unique<Peer>(server));
    EXPECT_TRUE(eventually([&] {
        return server.err().find("no room for a further connection\n") != std::string::npos;
    }));
    peers.back()->send_frame("<list/>");
    EXPECT_EQ(peers.front()->ask("<list/>"), "<hosts></hosts>");
    peers.erase(peers.begin(), peers.begin() + static_cast<ptrdiff_t>(leaving));
    EXPECT_EQ(peers.back()->receive(), "<hosts></hosts>");
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, LetsPeersWaitThatItHasNoDescriptorsFor) {
    Server server({"--verbose"}, [] {
        const rlimit few{20, 20};
        setrlimit(RLIMIT_NOFILE, &few);
    });
    expect_the_last_to_wait(server, 30, 20);
}

TEST(Inventory, LetsPeersWaitThatItHasNoThreadsFor) {
    Server server({"--verbose"});
    expect_the_last_to_wait(server, 901, 1);
}

// --- many at once, and the end -------------------------------------------------------------------

TEST(Inventory, ServesTwoHundredAgentsAtOnce) {
    constexpr int kAgents = 200;
    Server server;
    std::vector<std::unique_ptr<Program>> agents;
    for (int i = 0; i < kAgents; ++i) {
        const Strings arguments = {"report", "--name", "host" + std::to_string(1000 + i)};
        agents.push_back(std::make_unique<Program>(agent_command(server, arguments)));
    }
    for (const auto& one : agents) EXPECT_EQ(one->wait(), 0) << one->err();

    const Strings list = lines_of(agent(server, {"list"}).out);
    ASSERT_THAT(list, SizeIs(kAgents + 1));
    for (int i = 0; i < kAgents; ++i)
        EXPECT_THAT(list[i + 1], StartsWith("host" + std::to_string(1000 + i) + "  "));
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, ServesTwoHundredOpenConnectionsSideBySide) {
    Server server;
    std::vector<std::unique_ptr<Peer>> peers;
    for (int i = 0; i < 200; ++i) peers.push_back(std::make_unique<Peer>(server));
    Report report;
    for (int round = 0; round < 3; ++round) {
        for (size_t i = 0; i < peers.size(); ++i) {
            report.name = "<name>host" + std::to_string(i) + "</name>";
            peers[i]->send_frame(report.text());
        }
        for (size_t i = 0; i < peers.size(); ++i) {
            report.name = "<name>host" + std::to_string(i) + "</name>";
            EXPECT_EQ(ageless(peers[i]->receive().value_or("(ended)")),
                      "<hosts><host><age>0</age>" + report.host() + report.interfaces +
                          "</host></hosts>");
        }
    }
    EXPECT_EQ(server.stop(), 0);
}

class InventoryStops : public testing::TestWithParam<int> {};

TEST_P(InventoryStops, WithNobodyThere) {
    Server server;
    EXPECT_EQ(server.stop(GetParam()), 0);
    EXPECT_EQ(server.err(), "");
}

TEST_P(InventoryStops, WithConnectionsOpenAndRequestsInFlight) {
    Server server;
    Peer filler(server);
    Report report;
    report.system = "<system>" + replace_all(std::string(128, '&'), "&", "&amp;") + "</system>";
    for (int i = 0; i < 1500; ++i) {
        report.name = "<name>" + std::to_string(i) + "</name>";
        filler.ask(report.text());
    }

    std::vector<std::unique_ptr<Peer>> silent, half, asking;
    for (int i = 0; i < 20; ++i) {
        silent.push_back(std::make_unique<Peer>(server));
        half.push_back(std::make_unique<Peer>(server));
        half.back()->send_bytes(Peer::frame(report.text()).substr(0, 100));
        asking.push_back(std::make_unique<Peer>(server));
        asking.back()->send_frame(report.text());
    }

    // Four lists are more than the system keeps for a peer that reads nothing: its writer is stuck.
    Peer stuck(server, 4096);
    for (int i = 0; i < 4; ++i) {
        stuck.send_frame("<list/>");
        EXPECT_TRUE(eventually([&] { return stuck.everything_is_taken(); }));
    }

    const pid_t flood = fork();
    if (flood == 0) {
        Peer flooder(server);
        const std::string request = Peer::frame(report.text());
        while (send(flooder.socket_number(), request.data(), request.size(), MSG_NOSIGNAL) > 0 &&
               flooder.receive()) {
        }
        _exit(0);
    }
    EXPECT_EQ(server.stop(GetParam()), 0) << server.err();
    kill(flood, SIGKILL);
    waitpid(flood, nullptr, 0);
    for (const auto& peer : silent) EXPECT_TRUE(peer->ended());
}

INSTANTIATE_TEST_SUITE_P(BySignal, InventoryStops, testing::Values(SIGTERM, SIGINT),
                         [](const auto& signal) {
                             return signal.param == SIGTERM ? "Term" : "Int";
                         });

// --- watching ------------------------------------------------------------------------------------

constexpr const char* kStatus =
    "watcher  load [0-9.]+  memory [0-9.]+ [KMGT]iB of [0-9.]+ [KMGT]iB  received [0-9.]+ "
    "[A-Za-z]*B  "
    "sent [0-9.]+ [A-Za-z]*B  reports ";

TEST(Inventory, WatchesInPlainLinesWhereThereIsNoTerminal) {
    Server server;
    Program watch(agent_command(server, {"report", "--name", "watcher", "--watch", "1"}));
    EXPECT_TRUE(eventually([&] { return lines_of(watch.out()).size() >= 3; }));
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
    EXPECT_EQ(watch.err(), "");
    const Strings lines = lines_of(watch.out());
    for (size_t i = 0; i < lines.size(); ++i)
        EXPECT_THAT(lines[i], MatchesRegex(kStatus + std::to_string(i + 1)));
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, WatchesInOneLineOnATerminalCutToItsWidth) {
    Server server;
    for (const uint16_t columns : {200, 20}) {
        winsize size{};
        size.ws_row = 24;
        size.ws_col = columns;
        int terminal = -1;
        const pid_t pid = forkpty(&terminal, nullptr, nullptr, &size);
        if (pid == 0)
            become(agent_command(server, {"report", "--name", "watcher", "--watch", "1"}));

        std::string seen;
        const auto drawn = [&] { return std::count(seen.begin(), seen.end(), '\r'); };
        const auto read_more = [&] {
            pollfd wait{terminal, POLLIN, 0};
            char piece[512];
            if (poll(&wait, 1, 0) != 1) return;
            const ssize_t got = read(terminal, piece, sizeof piece);
            if (got > 0) seen.append(piece, got);
        };
        EXPECT_TRUE(eventually([&] {
            read_more();
            return drawn() >= 3;
        }));
        EXPECT_EQ(seen.find('\n'), std::string::npos) << seen;
        const std::string lines = seen.substr(0, seen.rfind('\r'));  // the last may not be whole

        const std::string line =
            columns == 200 ? kStatus + std::string("[0-9]+") : "watcher  load [0-9.]{4}[ 0-9]";
        EXPECT_THAT(lines, MatchesRegex("(\r" + line + "\033\\[K)+"));

        kill(pid, SIGINT);
        int status = -1;
        EXPECT_TRUE(eventually([&] {
            read_more();  // or the terminal may fill up
            return waitpid(pid, &status, WNOHANG) == pid;
        }));
        EXPECT_EQ(status, 0);
        close(terminal);
    }
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, GoesOnWatchingWhenTheServerIsAwayForAWhile) {
    auto server = std::make_unique<Server>();
    const std::string port = server->port;
    Program watch(agent_command(*server, {"report", "--name", "watcher", "--watch", "1"}));
    EXPECT_TRUE(eventually([&] { return watch.out().find("reports 1\n") != std::string::npos; }));
    EXPECT_EQ(server->stop(), 0);
    const std::string away = "\n127.0.0.1 port " + port + ": Connection refused\n";
    EXPECT_TRUE(eventually([&] { return watch.out().find(away) != std::string::npos; }));

    Program again({kServer, "--port", port});
    const size_t before = watch.out().size();
    EXPECT_TRUE(
        eventually([&] { return watch.out().find("  reports ", before) != std::string::npos; }));
    watch.signal(SIGTERM);
    EXPECT_EQ(watch.wait(), 0);
    again.signal(SIGTERM);
    EXPECT_EQ(again.wait(), 0);
}

// --- the command line ----------------------------------------------------------------------------

// A port of the loopback interface that nobody listens on, nor will while this lives.
struct DeadPort {
    int holder = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string port;

    DeadPort() {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(holder, generic, length), 0);
        EXPECT_EQ(getsockname(holder, generic, &length), 0);
        port = std::to_string(ntohs(address.sin_port));
    }
    ~DeadPort() { close(holder); }
};

TEST(Inventory, SaysInOneLineThatThereIsNoServer) {
    const DeadPort dead;
    for (const Strings& command : std::vector<Strings>{
             {"report"}, {"list"}, {"show", "x"}, {"list", "--xml"}, {"report", "--watch", "1"}}) {
        Strings arguments = {kAgent, "--port", dead.port};
        arguments.insert(arguments.end(), command.begin(), command.end());
        const Result result = run(arguments);
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err,
                  std::string(kAgent) + ": 127.0.0.1 port " + dead.port + ": Connection refused\n");
    }
}

TEST(Inventory, SaysInOneLineThatItCannotListen) {
    Server first;
    const Result second = run({kServer, "--port", first.port});
    EXPECT_EQ(second.status, 1);
    EXPECT_EQ(second.out, "");
    EXPECT_EQ(second.err, std::string(kServer) + ": 127.0.0.1 port " + first.port +
                              ": Address already in use\n");
    EXPECT_EQ(run({kServer, "--bind", "nowhere"}).status, 1);
}

TEST(Inventory, ListensOnOtherAddressesToo) {
    const Result probe = run({kServer, "--bind", "::2"});
    EXPECT_EQ(probe.status, 1) << "not an address of this host";
    Server server({"--bind", "127.0.0.2"});
    EXPECT_EQ(server.out(), "listening on 127.0.0.2:" + server.port + "\n");
    EXPECT_EQ(agent(server, {"list"}).status, 1);
    EXPECT_EQ(agent(server, {"list", "--host", "127.0.0.2"}).status, 0);
    EXPECT_EQ(server.stop(), 0);
}

TEST(Inventory, RefusesAWrongCommandLineInOneLine) {
    const auto refused = [](const Strings& command, const std::string& line) {
        const Result result = run(command);
        EXPECT_EQ(result.status, 2);
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, command[0] + ": " + line + "\n");
    };
    refused({kAgent, "--frob"}, "unrecognized option '--frob'");
    refused({kAgent, "list", "--port"}, "option '--port' requires an argument");
    refused({kAgent}, "a command is missing: report, list or show HOST");
    refused({kAgent, "frob"}, "unknown command 'frob'");
    refused({kAgent, "show"}, "show wants the name of a host");
    refused({kAgent, "list", "all"}, "unexpected argument 'all'");
    refused({kAgent, "list", "--port", "0"}, "--port takes a number from 1 to 65535, not '0'");
    refused({kAgent, "list", "--port", "65536"},
            "--port takes a number from 1 to 65535, not '65536'");
    refused({kAgent, "report", "--watch", "1x"},
            "--watch takes a number from 1 to 86400, not '1x'");
    refused({kAgent, "list", "--watch", "1"}, "--watch goes with report alone, and without --xml");
    refused({kAgent, "report", "--name", "a\nb"}, "--name takes up to 255 bytes of plain text");
    refused({kServer, "--frob"}, "unrecognized option '--frob'");
    refused({kServer, "--port", ""}, "--port takes a number from 0 to 65535, not ''");
    refused({kServer, "--idle", "0"}, "--idle takes a number from 1 to 86400, not '0'");
    refused({kServer, "now"}, "unexpected argument 'now'");
}

TEST(Inventory, ExplainsItsOptions) {
    for (const char* program : {kServer, kAgent}) {
        const Result help = run({program, "--help"});
        EXPECT_EQ(help.status, 0);
        EXPECT_THAT(help.out, StartsWith("Usage: inventory_"));
        EXPECT_EQ(help.err, "");
    }
}

TEST(Inventory, SaysWhenTheAnswerIsNone) {
    // A server that takes one request, answers with these bytes and closes.
    const auto ask_one_that_says = [](const std::string& answer) {
        const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* generic = reinterpret_cast<sockaddr*>(&address);
        EXPECT_EQ(bind(listener, generic, length), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, generic, &length), 0);
        Program asking({kAgent, "--port", std::to_string(ntohs(address.sin_port)), "list"});
        const int accepted = accept(listener, nullptr, nullptr);
        char request[4096];
        EXPECT_GT(recv(accepted, request, 4, MSG_WAITALL), 0);
        uint32_t rest = 0;
        memcpy(&rest, request, sizeof rest);
        EXPECT_GT(recv(accepted, request, ntohl(rest) - 4, MSG_WAITALL), 0);
        send(accepted, answer.data(), answer.size(), MSG_NOSIGNAL);
        close(accepted);
        close(listener);
        EXPECT_EQ(asking.wait(), 1);
        EXPECT_EQ(asking.out(), "");
        return replace_all(asking.err(), std::string(kAgent) + ": ", "");
    };
    EXPECT_EQ(ask_one_that_says(""), "the server closed the connection\n");
    EXPECT_EQ(ask_one_that_says(Peer::frame("no XML")), "the server's answer is not XML\n");
    EXPECT_EQ(ask_one_that_says(Peer::frame("<what/>")),
              "the server's answer is of no known kind\n");
    EXPECT_EQ(ask_one_that_says(Peer::frame("<hosts><host/></hosts>")), "name is missing\n");
    EXPECT_EQ(ask_one_that_says(Peer::frame("<error><message>\x1b[2J</message></error>")),
              "message is too long or not plain text\n");
    EXPECT_THAT(ask_one_that_says(Peer::length_word(0xffffffff)),
                testing::EndsWith("\ncannot receive the server's answer\n"));
}

TEST(Inventory, IsShownByTheDemo) {
    const Result demo = run({kDemo, kBuild});
    EXPECT_EQ(demo.status, 0) << demo.out << demo.err;
    EXPECT_EQ(demo.err, "");
    EXPECT_THAT(demo.out, HasSubstr("\n" + output_of("uname -n") + "  "));
    EXPECT_THAT(demo.out, HasSubstr("\nhost      " + output_of("uname -n") + "\n"));
    EXPECT_THAT(demo.out, testing::EndsWith("\nThe server has stopped.\n"));
}

}  // namespace
