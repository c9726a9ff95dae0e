// The server's hosts over a restart: its file as it is written, read again, damaged and shared.

#include <tests/examples/inventory.h>

#include <gmock/gmock.h>

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include <sys/resource.h>

using namespace zt_test;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr uintmax_t kRecord = 16 * 1024;
constexpr size_t kReported = 256;  // where a record has its time
constexpr size_t kText = 268;      // and its report

class InventoryDatabase : public testing::Test {
  protected:
    // A server that keeps its hosts in the file.
    struct Keeping : Server {
        explicit Keeping(const std::string& file, const std::function<void()>& prepare = {})
            : Server({"--database", file, "--verbose"}, prepare) {}
    };

    std::string report(const Server& server, const Report& report) {
        return Peer(server).ask(report.text());
    }
    std::string report(const Server& server, const std::string& name) {
        Report sent;
        sent.name = "<name>" + name + "</name>";
        return report(server, sent);
    }
    static std::string list(const Server& server) { return ageless(Peer(server).ask("<list/>")); }
    static std::string names(const Server& server) {
        std::string names;
        std::string answer = list(server);
        for (size_t at; (at = answer.find("<name>")) != std::string::npos;) {
            answer.erase(0, at + strlen("<name>"));
            names += answer.substr(0, answer.find('<')) + " ";
        }
        return names;
    }

    // One line on standard error, and status 1.
    void refuses(const std::string& path, const std::string& why) {
        const Result result = run({kServer, "--port", "0", "--database", path});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.out, "");
        EXPECT_THAT(result.err, EndsWith(std::string(kServer) + ": " + why + "\n"));
    }

    uintmax_t size() const { return std::filesystem::file_size(file); }
    void overwrite(size_t at, const std::string& bytes) const {
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekp(static_cast<std::streamoff>(at));
        stream << bytes;
    }

    ScratchDirectory scratch;
    const std::string file = scratch / "hosts.db";
};

TEST_F(InventoryDatabase, KeepsItsHostsOverARestart) {
    Report web1, zoe;
    zoe.name = "<name>zo\xc3\xab &amp; co</name>";
    zoe.interfaces =
        "<interface><name>eth0</name><received>1</received><sent>2</sent>"
        "<mac>52:54:00:12:34:56</mac><address>192.0.2.10/24</address></interface>"
        "<route><destination>0.0.0.0/0</destination><gateway>192.0.2.1</gateway></route>";
    std::string before;
    {
        Keeping server(file);
        report(server, zoe);
        report(server, web1);
        before = list(server);
        EXPECT_EQ(server.stop(), 0);
    }
    EXPECT_EQ(size(), 2 * kRecord);

    Keeping server(file);
    EXPECT_EQ(list(server), before);
    EXPECT_EQ(ageless(Peer(server).ask("<show>" + zoe.name + "</show>")),
              "<hosts><host><age>0</age>" + zoe.host() + zoe.interfaces + "</host></hosts>");
    EXPECT_THAT(server.err(), HasSubstr(file + ": 2 hosts"));
    EXPECT_EQ(server.stop(), 0);
}

TEST_F(InventoryDatabase, LosesNothingThatWasAnsweredWhenTheServerIsKilled) {
    Keeping server(file);
    report(server, "web1");
    report(server, "web2");
    server.signal(SIGKILL);
    EXPECT_EQ(server.wait(), -1);

    Keeping next(file);
    EXPECT_EQ(names(next), "web1 web2 ");
    EXPECT_EQ(next.stop(), 0);
}

TEST_F(InventoryDatabase, KeepsEachHostsLastReportInItsPlace) {
    Report web1;
    for (int run = 0; run < 2; ++run) {
        Keeping server(file);
        report(server, web1);
        report(server, "web2");
        web1.system = "<system>Some System 2</system>";
        web1.interfaces = "";
        report(server, web1);
        EXPECT_EQ(server.stop(), 0);
        EXPECT_EQ(size(), 2 * kRecord);
    }
    Keeping server(file);
    EXPECT_EQ(ageless(Peer(server).ask("<show><name>web1</name></show>")),
              "<hosts><host><age>0</age>" + web1.host() + "</host></hosts>");
    EXPECT_EQ(server.stop(), 0);
}

TEST_F(InventoryDatabase, LetsAgesGoOnWhileTheServerIsAway) {
    {
        Keeping server(file);
        report(server, "web1");
        EXPECT_EQ(server.stop(), 0);
    }
    const auto report_at = [&](int64_t seconds) {
        std::string bytes(sizeof seconds, '\0');
        memcpy(bytes.data(), &seconds, sizeof seconds);
        overwrite(kReported, bytes);
    };
    report_at(time(nullptr) - 3 * 3600);
    {
        Keeping server(file);
        EXPECT_THAT(agent(server, {"list"}).out, HasSubstr("  3 h ago\n"));
        EXPECT_EQ(server.stop(), 0);
    }
    report_at(time(nullptr) + 3600);  // the clock was set back
    Keeping server(file);
    EXPECT_THAT(ageless(agent(server, {"list"}).out), HasSubstr("  0 s ago\n"));
    EXPECT_EQ(server.stop(), 0);
}

TEST_F(InventoryDatabase, LeavesOutWhatARecordHasNoRoomFor) {
    Report web1;
    for (int i = 0; i < 8; ++i) web1.interfaces += web1.interfaces;
    {
        Keeping server(file);
        EXPECT_THAT(report(server, web1), StartsWith("<hosts>"));
        const Result shown = agent(server, {"show", "web1", "--xml"});
        EXPECT_EQ(xpath(shown.out, "count(//interface)"), "256");
        EXPECT_EQ(server.stop(), 0);
    }
    EXPECT_EQ(size(), kRecord);
    Keeping server(file);
    EXPECT_EQ(xpath(agent(server, {"show", "web1", "--xml"}).out, "count(//interface)"), "128");
    EXPECT_EQ(server.stop(), 0);
}

TEST_F(InventoryDatabase, SkipsADamagedRecordUntilItsHostReportsAgain) {
    {
        Keeping server(file);
        report(server, "web1");
        report(server, "web2");
        report(server, "web3");
        EXPECT_EQ(server.stop(), 0);
    }
    overwrite(kRecord + kText + 10, "<<<<");
    overwrite(2 * kRecord, "else");
    {
        Keeping server(file);
        EXPECT_THAT(server.err(), HasSubstr("skipped the record at byte 16384: "));
        EXPECT_THAT(server.err(), HasSubstr("skipped the record at byte 32768: the report is "
                                            "another host's"));
        EXPECT_EQ(names(server), "web1 ");
        report(server, "web2");
        report(server, "web3");
        EXPECT_EQ(names(server), "web1 web2 web3 ");
        EXPECT_EQ(server.stop(), 0);
    }
    EXPECT_EQ(size(), 4 * kRecord) << "the record of nobody stays where it is";
    Keeping server(file);
    EXPECT_EQ(names(server), "web1 web2 web3 ");
    EXPECT_EQ(server.stop(), 0);
}

TEST_F(InventoryDatabase, DropsARecordThatIsNotWhole) {
    {
        Keeping server(file);
        report(server, "web1");
        report(server, "web2");
        EXPECT_EQ(server.stop(), 0);
    }
    std::filesystem::resize_file(file, kRecord + 700);
    {
        Keeping server(file);
        EXPECT_EQ(size(), kRecord);
        EXPECT_EQ(names(server), "web1 ");
        report(server, "web3");
        EXPECT_EQ(server.stop(), 0);
    }
    Keeping server(file);
    EXPECT_EQ(names(server), "web1 web3 ");
    EXPECT_EQ(server.stop(), 0);
}

TEST_F(InventoryDatabase, AnswersOnWhenTheDiskIsFull) {
    Keeping server(file, [] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{kRecord + 1000, kRecord + 1000};
        setrlimit(RLIMIT_FSIZE, &limit);
    });
    EXPECT_THAT(report(server, "web1"), StartsWith("<hosts>"));
    EXPECT_THAT(report(server, "web2"), StartsWith("<hosts>"));
    EXPECT_EQ(names(server), "web1 web2 ");
    EXPECT_EQ(size(), kRecord);
    EXPECT_EQ(server.stop(), 0);
    EXPECT_THAT(server.err(), HasSubstr("cannot keep web2"));

    Keeping next(file);
    EXPECT_EQ(names(next), "web1 ");
    EXPECT_EQ(next.stop(), 0);
}

TEST_F(InventoryDatabase, RefusesAFileThatAnotherServerUses) {
    Keeping server(file);
    report(server, "web1");
    refuses(file, file + ": another server uses it");
    EXPECT_EQ(server.stop(), 0);
}

TEST_F(InventoryDatabase, RefusesWhatIsNoDatabaseAndLeavesItAlone) {
    for (const size_t bytes : {size_t{1}, size_t{kRecord - 1}, size_t{kRecord}, size_t{40000}}) {
        const std::string text(bytes, 'x');
        const std::string other = scratch.write("other", text);
        refuses(other, other + ": not an inventory's database");
        EXPECT_EQ(content_of(other), text);
    }
    const std::string directory = scratch / "directory";
    std::filesystem::create_directory(directory);
    refuses(directory, directory + ": Is a directory");
    refuses("/dev/null", "/dev/null: not a regular file");
    const std::string nowhere = scratch / "missing/hosts.db";
    refuses(nowhere, nowhere + ": No such file or directory");
    refuses(std::string(512, 'x'), "--database: the path is too long");
}

}  // namespace
