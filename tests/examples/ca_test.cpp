// The certificate authority's program as its users meet it.

#include <tests/sutils/authority.h>

#include <pty.h>

using namespace zt_test;
using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

namespace {

constexpr const char* kProgram = CA_PROGRAM;

Result ca_program(const Strings& arguments) {
    Strings command{kProgram};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return run(command);
}

std::string complaint(const std::string& what) {
    return std::string(kProgram) + ": " + what + "\n";
}

// The program ends with 1 and this line, the last on standard error.
void expect_failure(const Strings& arguments, const std::string& what) {
    const Result result = ca_program(arguments);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_THAT(result.err, EndsWith(complaint(what)));
}

void expect_misuse(const Strings& arguments, const std::string& what) {
    const Result result = ca_program(arguments);
    EXPECT_EQ(result.status, 2);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, complaint(what + "; see --help"));
}

// Runs the program on a terminal; returns what it shows there.
Result on_terminal(const Strings& arguments) {
    Strings command{kProgram};
    command.insert(command.end(), arguments.begin(), arguments.end());
    int terminal = -1;
    const pid_t child = forkpty(&terminal, nullptr, nullptr, nullptr);
    if (child == 0) become(command);
    Result result{-1, "", ""};
    char piece[256];
    for (ssize_t n; (n = read(terminal, piece, sizeof piece)) > 0;)
        result.out.append(piece, static_cast<size_t>(n));
    waitpid(child, &result.status, 0);
    close(terminal);
    return result;
}

}  // namespace

TEST(CaProgram, MakesAnAuthorityAndIssuesFromIt) {
    const ScratchDirectory scratch;
    const std::string directory = scratch / "ca";
    const Result made = ca_program({"init", directory});
    EXPECT_EQ(made.status, 0);
    EXPECT_EQ(made.out, "made an authority in " + directory +
                            "; its first certificate will have serial 1000001\n");
    EXPECT_EQ(made.err, "making a key of 4,096 bits\n");

    // On a terminal the seconds are counted while the key is made, and gone when it is.
    const Result issued =
        on_terminal({"issue", directory, "Till 42", "--domain", "7", "--id", "42"});
    EXPECT_EQ(issued.status, 0);
    EXPECT_THAT(issued.out, StartsWith("\rmaking a key of 4,096 bits ... 0 s"));
    const size_t last = issued.out.find("\r\033[K");
    ASSERT_NE(last, std::string::npos);
    EXPECT_THAT(issued.out.substr(last + 4),
                MatchesRegex("issued 7_42 to Till 42, serial 1000001, valid until "
                             "[0-9]{4}-[0-9]{2}-[0-9]{2}: .*/7_42\\.pfx\r\n"));

    EXPECT_EQ(
        run({"openssl", "pkcs12", "-in", directory + "/7_42.pfx", "-passin", "pass:", "-noout"})
            .status,
        0);
    EXPECT_EQ(ca_program({"verify", directory, directory + "/7_42_public"}).out,
              "valid: domain 7, id 42\n");
    const Result again = ca_program({"init", directory});
    EXPECT_EQ(again.status, 1);
    EXPECT_EQ(again.err, complaint(directory + " holds an authority already"));
    expect_failure({"issue", directory, "Till 42", "-d7", "-i42"},
                   "7_42 has a certificate already; 'revoke' it first");
}

TEST(CaProgram, ListsWhatIsIssued) {
    const ScratchAuthority authority;
    authority.issue(10, 1, "later");
    authority.issue(7, 42, "sooner");
    const std::string until = [&] {
        tm broken{};
        char text[16];
        ASN1_TIME_to_tm(X509_get0_notAfter(certificate_in(authority / "7_42_public").get()),
                        &broken);
        strftime(text, sizeof text, "%F", &broken);
        return std::string(text);
    }();
    write_to(authority / "7_43_public", "no certificate");
    const Result result = ca_program({"list", authority.path()});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out,
              "CLIENT                    SERIAL  VALID UNTIL  NAME\n"
              "7_42                     1000002  " +
                  until +
                  "   sooner\n"
                  "10_1                     1000001  " +
                  until + "   later\n");
}

TEST(CaProgram, SaysWhyACertificateIsNotValid) {
    const ScratchAuthority authority;
    authority.issue(7, 42);
    const auto refusal = [&](X509* certificate) {
        write_to(authority / "shown", pem_text(certificate));
        const Result result = ca_program({"verify", authority.path(), authority / "shown"});
        EXPECT_EQ(result.status, 1);
        return result.err;
    };
    EXPECT_EQ(refusal(make({}).get()),
              complaint("not valid: another authority's, or its time or this authority's is over"));
    EXPECT_EQ(refusal(make({.domain = nullptr}).get()),
              complaint("not valid: it names no client domain"));
    EXPECT_EQ(refusal(make({.id = nullptr}).get()), complaint("not valid: it names no client id"));
    EXPECT_EQ(refusal(make_by(authority, {.domain = "8"}).get()),
              complaint("not valid: 8_42 was revoked, or never issued"));
    expect_failure({"verify", authority.path(), authority / "none"},
                   "no certificate can be read from " + (authority / "none"));
}

TEST(CaProgram, Revokes) {
    const ScratchAuthority authority;
    const CertificatePtr x = authority.issue(7, 42);
    EXPECT_EQ(ca_program({"revoke", authority.path(), "7_42"}).out, "revoked 7_42\n");
    EXPECT_EQ(authority.verify(x), -4);
    expect_failure({"revoke", authority.path(), "7_42"}, "7_42 has no certificate");
    expect_failure({"revoke", authority.path(), "../7_42"},
                   "'../7_42' is not a domain, '_' and an id");
}

TEST(CaProgram, MakesNoAuthorityUnasked) {
    const ScratchDirectory scratch;
    const std::string directory = scratch / "ca";
    const std::string why = directory + " holds no authority; make one with 'init'";
    expect_failure({"issue", directory, "client", "-d7", "-i42"}, why);
    expect_failure({"verify", directory, "x"}, why);
    expect_failure({"revoke", directory, "7_42"}, why);
    expect_failure({"list", directory}, why);
    EXPECT_FALSE(exists(directory));
}

TEST(CaProgram, SaysWhatCannotBeOpenedOrIssued) {
    const ScratchAuthority authority;
    expect_failure({"issue", authority.path(), "", "-d7", "-i42"},
                   "a client's name has 1 to 64 characters");
    expect_failure({"issue", authority.path(), std::string(65, 'n'), "-d7", "-i42"},
                   "a client's name has 1 to 64 characters");
    for (const char* name : {"J\xc3\xbcrgen", "two\nlines", "\x1b[2J", "\x7f"})
        expect_failure({"issue", authority.path(), name, "-d7", "-i42"},
                       "a client's name has printable ASCII characters only");
    unlink((authority / "serial").c_str());
    const Result result = ca_program({"list", authority.path()});
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(result.err, AllOf(StartsWith("ERR:openssl_ca:openssl_ca_create:"),
                                  HasSubstr(" : fopen(): No such file or directory\n")));
    expect_failure({"list", authority.path()},
                   "the authority in " + authority.path() + " cannot be opened");
}

TEST(CaProgram, LooksAtTheParentBeforeItMakesAKey) {
    const ScratchDirectory scratch;
    for (const char* end : {"/x", "/x/"}) {
        const Result result = ca_program({"init", scratch / "none" + end});
        EXPECT_EQ(result.status, 1);
        EXPECT_EQ(result.err,
                  complaint("there is no directory " + (scratch / "none/") + " to make one in"));
    }
}

TEST(CaProgram, ExplainsItsCommandLine) {
    const Result help = ca_program({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_THAT(help.out, StartsWith("Usage: ca COMMAND DIR"));
    expect_misuse({}, "what shall be done?");
    expect_misuse({"sign", "dir"}, "there is no command 'sign'");
    expect_misuse({"init"}, "init takes 1 arguments");
    expect_misuse({"issue", "dir", "name", "--id", "1"}, "issue needs --domain and --id");
    expect_misuse({"issue", "dir", "name", "--id", "-1"}, "--id takes a number, not '-1'");
    EXPECT_EQ(ca_program({"list", "dir", "--all"}).status, 2);
}
