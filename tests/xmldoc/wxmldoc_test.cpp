// What is the wide document's own; what it shares with the narrow one is in xml_twins_test.cpp.

#include <tests/xmldoc/twins.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <cerrno>
#include <clocale>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Document = zt_test::Document<Wide>;

constexpr char kUtf8[] = "C.UTF-8";
constexpr size_t kPiece = 1499;  // bytes of a file that are converted together

std::string error_line(const std::string& function, const std::string& message) {
    return "ERR:wxmldoc:" + function + ": " + message;
}
std::string parser_line(const std::string& message) { return error_line("xmldoc_parse", message); }

int code_of(const std::wstring& text) { return Document(text).code; }

// The value of the root of a text that must be right.
std::wstring value_of(const std::wstring& text) {
    Document document(text);
    EXPECT_EQ(document.code, 0) << text;
    return document.root && document.root->value ? document.root->value : L"(null)";
}

// --- documents, nodes, attributes ---------------------------------------------------------------

TEST(Wxmldoc, LogsThatItIsNotMade) {
    CapturedLog log;
    FailingCall fault("calloc", ENOMEM);
    EXPECT_EQ(wxmldoc_create(), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("wxmldoc_create", "calloc(): Cannot allocate memory")));
    EXPECT_EQ(system_log().records()[0].priority, 3);
}

TEST(Wxmldoc, InitDoesNothing) {
    wxmldoc document;
    wxmldoc untouched;
    memset(&document, 0x5a, sizeof document);
    memset(&untouched, 0x5a, sizeof untouched);
    EXPECT_EQ(wxmldoc_init(&document), 0);
    EXPECT_EQ(memcmp(&document, &untouched, sizeof document), 0);
    EXPECT_EQ(wxmldoc_init(nullptr), 0);
}

TEST(WxmldocNode, LogsThatItIsNotMade) {
    CapturedLog log;
    for (FailingAllocations round; round.next();) {
        round.arm();
        wxmldoc_node* const node = wxmldoc_node_create(L"name");
        round.disarm();
        EXPECT_EQ(node == nullptr, round.hit());
        wxmldoc_node_free(node);
    }
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("wxmldoc_node_create", "calloc(): Cannot allocate memory"),
                            error_line("wxmldoc_node_create", "wcsdup(): Cannot allocate memory")));
}

TEST(WxmldocNode, IsNotMadeWithoutAName) {
    CapturedLog log;
    EXPECT_EQ(wxmldoc_node_create(nullptr), nullptr);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(WxmldocNode, ComparesWholeCharacters) {
    wxmldoc_node* top = wxmldoc_node_create(L"top");
    wxmldoc_node_add(top, wxmldoc_node_create(L"\u0161"));
    wxmldoc_node_add(top, wxmldoc_node_create(L"a\U0001f600"));
    EXPECT_EQ(wxmldoc_node_get(top, L"a"), nullptr);
    EXPECT_EQ(wxmldoc_node_get(top, L"\u0161"), top->first_child);
    EXPECT_EQ(wxmldoc_node_get(top, L"a\U0001f600"), top->last_child);
    wxmldoc_node_free(top);
}

TEST(WxmldocAttr, LogsThatItsRecordIsNotMadeAndNothingElse) {
    CapturedLog log;
    for_each_failing_allocation([] { return wxmldoc_attr_create(L"x", L"1"); }, wxmldoc_attr_free);
    EXPECT_THAT(log.lines(),
                ElementsAre(error_line("wxmldoc_attr_create", "calloc(): Cannot allocate memory")));
}

TEST(WxmldocAttr, IsFreedWithWhatItOwns) {
    const int64_t before = live_allocations();
    wxmldoc_attr_free(wxmldoc_attr_create(L"x", L"1"));
    wxmldoc_attr_free(wxmldoc_attr_create(nullptr, nullptr));
    wxmldoc_attr_free(nullptr);
    EXPECT_EQ(live_allocations(), before);
}

// --- parser: the buffer --------------------------------------------------------------------------

TEST(WxmldocParse, TakesTheTextOfAWideBuffer) {
    wbuffer* text = wbuffer_create();
    wbuffer_append(text, L"<a x='1'>\u263a", 10);
    wbuffer_vappend(text, L"%ls</a>", L"\U0010ffff");
    const wbuffer before = *text;
    const std::wstring characters(text->data, text->length);

    wxmldoc document{};
    EXPECT_EQ(wxmldoc_parse(&document, text), 0);
    EXPECT_STREQ(document.root->value, L"\u263a\U0010ffff");
    EXPECT_EQ(memcmp(text, &before, sizeof before), 0);
    EXPECT_EQ(std::wstring(text->data, text->length), characters);
    wbuffer_free(text, 1);
    EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", "1"}}));
    wxmldoc_free(&document, 0);
}

TEST(WxmldocParse, LooksAtTheLengthBeforeTheStorage) {
    Document document;
    const wbuffer empty{nullptr, 7, 0};
    EXPECT_EQ(wxmldoc_parse(&document, &empty), 0);
    const wbuffer freed{nullptr, 7, 5};
    EXPECT_EQ(wxmldoc_parse(&document, &freed), -1);
    EXPECT_EQ(wxmldoc_parse(&document, nullptr), -1);
    EXPECT_EQ(document.root, nullptr);
}

TEST(WxmldocParse, ReadsNothingBeyondTheLength) {
    wchar_t text[] = L"<a/>\0b/>";  // the terminator, then what the buffer held before
    const wbuffer buffer{text, std::size(text), 4};
    Document document;
    EXPECT_EQ(wxmldoc_parse(&document, &buffer), 0);
    EXPECT_EQ(text_of(document.root->name), "a");
}

TEST(WxmldocParse, EndsAtAZeroCharacter) {
    Document document(std::wstring(L"<a>\0</b>", 8));
    EXPECT_EQ(document.code, 0);
    EXPECT_EQ(document.root->first_child, nullptr);
    EXPECT_EQ(code_of(std::wstring(L"\0<a", 3)), 0);
}

TEST(WxmldocParse, TakesALengthThatWrappedForNone) {
    wbuffer text{};
    wbuffer_vappend(&text, L"longer than its estimate");
    ASSERT_EQ(text.length, UINT64_MAX);
    Document document;
    EXPECT_EQ(wxmldoc_parse(&document, &text), 0);
    EXPECT_EQ(document.root, nullptr);
    wbuffer_free(&text, 0);
}

TEST(WxmldocParse, RefusesNoDocument) {
    CapturedLog log;
    wchar_t text[] = L"<a/>";
    const wbuffer buffer{text, 5, 4};
    errno = EINVAL;
    EXPECT_EQ(wxmldoc_parse(nullptr, &buffer), -1);
    EXPECT_EQ(wxmldoc_parse(nullptr, nullptr), -1);
    const std::string line =
        error_line("wxmldoc_parse", "empty input param doc(): Invalid argument");
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
    EXPECT_EQ(system_log().records()[0].priority, 3);
}

// --- parser: comments ----------------------------------------------------------------------------

struct Read {
    const wchar_t* text;
    const char* root;  // as the dump spells it; empty: none
};

class WxmldocComment : public testing::Test {
  protected:
    void expect(const std::vector<Read>& cases) {
        for (const auto& [text, root] : cases) {
            Document document((std::wstring(text)));
            EXPECT_EQ(document.code, 0) << text;
            EXPECT_EQ(dump_of<Wide>(document.root), root) << text;
        }
    }
};

TEST_F(WxmldocComment, IsSkippedWhereATagMayStand) {
    expect({
        {L"<!-- note --><a/>", "<a></a>"},
        {L"<a/><!-- note -->", "<a></a>"},
        {L"<?xml v='1'?><!-- note --><a/>", "<a></a>"},
        {L"<a><!-- note --><b/></a>", "<a><b></b></a>"},
        {L"<a>text<!-- note --><b/></a>", "<a>text<b></b></a>"},
        {L"<a><b/><!-- note --></a>", "<a><b></b></a>"},
        {L"<!-- one --><!-- two --><a><!-- three --></a>", "<a></a>"},
        {L"<!-- <a> </b> & \" ' = < > -- - -> --><a/>", "<a></a>"},
    });
}

TEST_F(WxmldocComment, IsNamedExactly) {
    expect({
        {L"<!--note--><a/>", "<!--note--><a></a></!--note-->"},
        {L"<!--\tnote --='1'/>", "<!--\tnote --=\"1\"></!--\tnote>"},
        {L"<!---></!--->", "<!---></!--->"},
        {L"<!-/>", "<!-></!->"},
        {L"<a x='<!-- no -->'/>", "<a x=\"<!-- no -->\"></a>"},
    });
}

TEST_F(WxmldocComment, BeginsWithWhateverEndsAName) {
    expect({
        {L"<!-- --><a/>", "<a></a>"},
        {L"<!--\r--><a/>", "<a></a>"},
        {L"<!--\n--><a/>", "<a></a>"},
        {L"<!--/--><a/>", "<a></a>"},
        {L"<!--=--><a/>", "<a></a>"},
        {L"<!-->--><a/>", "<a></a>"},
    });
}

TEST_F(WxmldocComment, EndsBehindItsNameAtTheEarliest) {
    expect({
        {L"<!--><a/>", ""},
        {L"<!--><a/>--><b/>", "<b></b>"},
        {L"<!-- -- > ---><a/>", "<a></a>"},
        {L"<!-- ----><a/>", "<a></a>"},
    });
}

TEST_F(WxmldocComment, WithoutAnEndIsTheEndOfTheText) {
    expect({
        {L"<!-- <a/>", ""},
        {L"<a><!-- </b>", "<a></a>"},
        {L"<a/><!-- --", "<a></a>"},
        {L"<a/><!-- ->", "<a></a>"},
        {L"<a/><!-- ", "<a></a>"},
    });
    EXPECT_EQ(code_of(L"<!--"), -7);  // its name has no end
}

TEST_F(WxmldocComment, IsFollowedByBlanksAsAnyTag) {
    expect({
        {L"<!-- note --> \r\n\t<a/>", "<a></a>"},
        {L"<a/><!-- note --> \r\n\t", "<a></a>"},
    });
    EXPECT_EQ(code_of(L"<a><!-- note --> "), -1);  // the element is open: a tag must follow
    EXPECT_EQ(code_of(L"<a/><!-- note -->x"), -1);
}

TEST_F(WxmldocComment, HidesTheTextBehindIt) {
    expect({
        {L"<a><!-- note -->text</a>", "<a></a>"},
        {L"<!-- note -->text<a/>", "<a></a>"},
    });
}

TEST_F(WxmldocComment, NeedsNoMemory) {
    CapturedLog log;
    const std::wstring text = L"<!-- " + std::wstring(100'000, L'-') + L" --> <!-- ";
    FailingAllocations round;
    ASSERT_TRUE(round.next());
    Document document;
    round.arm();
    EXPECT_EQ(document.parse(text), 0);
    round.disarm();
    EXPECT_FALSE(round.hit());
    EXPECT_THAT(log.lines(), IsEmpty());
}

// --- parser: messages ----------------------------------------------------------------------------

TEST(WxmldocParse, LogsThatATagIsMissing) {
    CapturedLog log;
    for (const wchar_t* text : {L"text", L" ", L"<", L"<a/>x", L"<a><"})
        EXPECT_EQ(code_of(text), -1) << text;
    EXPECT_EQ(log.lines(), std::vector(5, parser_line("missing tag start '<'")));
    EXPECT_EQ(system_log().records()[0].priority, 3);
}

TEST(WxmldocParse, LogsThatAnEqualsSignIsMissing) {
    CapturedLog log;
    for (const wchar_t* text : {L"<a x>", L"<a\nx='1'>", L"<a x y='1'>", L"<!DOCTYPE a>"})
        EXPECT_EQ(code_of(text), -11) << text;
    EXPECT_EQ(log.lines(), std::vector(4, parser_line("'=' not found after attr name")));
}

TEST(WxmldocParse, LogsThatAnEntityIsNone) {
    CapturedLog log;
    EXPECT_EQ(code_of(L"<a>&amp</a>"), -22);
    EXPECT_EQ(code_of(L"<a>&12345678901;</a>"), -22);
    EXPECT_THAT(log.lines(), ElementsAre(parser_line("failed to escape value: -2"),
                                         parser_line("failed to escape value: -3")));
}

TEST(WxmldocParse, LogsNoOtherFailure) {
    CapturedLog log;
    const std::pair<int, std::wstring> refused[] = {
        {-1, L"</a>"},
        {-1, L"<a/></a>"},
        {-2, L"<a></a"},
        {-3, L"<a></>"},
        {-4, L"<a></b>"},
        {-5, L"<>"},
        {-6, L"< a>"},
        {-7, L"<a"},
        {-8, L"<a "},
        {-9, L"<a x"},
        {-10, L"<a x "},
        {-12, L"<a x="},
        {-13, L"<a x=1>"},
        {-14, L"<a x='"},
        {-15, L"<a x='1"},
        {-16, L"<a x='1'"},
        {-17, L"<?x?><?x v='1'?>"},
        {-18, L"<a/"},
        {-19, L"<a>text"},
        {-20, L"<?x?><?x?>"},
        {-31, L"<" + std::wstring(1024, L'\u263a') + L">"},
    };
    for (const auto& [code, text] : refused) EXPECT_EQ(code_of(text), code) << text;
    Document document;
    {
        FailingCall fault("malloc", ENOMEM);
        EXPECT_EQ(document.parse("<a/>"), -32);
    }
    EXPECT_EQ(document.parse("<a>&lt;<!-- note --></a>"), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(WxmldocError, LogsAsTheParserAndGivesTheCodeBack) {
    CapturedLog log;
    EXPECT_EQ(_wxmldoc_error(-7, "%s at %d", "stopped", 12), -7);
    EXPECT_EQ(_wxmldoc_error(0, "plain"), 0);
    EXPECT_THAT(log.lines(), ElementsAre(parser_line("stopped at 12"), parser_line("plain")));
    EXPECT_EQ(system_log().records()[0].priority, 3);
    const char* const no_format = nullptr;
    EXPECT_EQ(_wxmldoc_error(-1, no_format), -1);
}

// --- parser: characters --------------------------------------------------------------------------

TEST(WxmldocParse, StoresNumericEntitiesAsWholeCharacters) {
    EXPECT_EQ(value_of(L"<a>&#x263A;</a>"), L"\u263a");
    EXPECT_EQ(value_of(L"<a>&#9786;&#x1f600;&#X10FFFF;</a>"), L"\u263a\U0001f600");  // 'X' is 0
    EXPECT_EQ(value_of(L"<a>&#x10FFFF;&#321;</a>"), L"\U0010ffff\u0141");
    EXPECT_EQ(value_of(L"<a>&#60;&#38;lt;</a>"), L"<&lt;");
    EXPECT_EQ(value_of(L"<a>x&#256;y</a>"), L"x\u0100y");  // whose low 8 bits are 0
    const std::wstring odd = value_of(L"<a>&#-1;&#xFFFFFFFE;&#xD800;</a>");
    ASSERT_EQ(odd.size(), 3u);
    EXPECT_EQ(odd[0], wchar_t(-1));
    EXPECT_EQ(odd[1], wchar_t(-2));
    EXPECT_EQ(odd[2], wchar_t(0xd800));
}

TEST(WxmldocParse, TellsMarkupByWholeCharacters) {
    // Of each character of the markup one that has the same low bits, and one that is negative too.
    for (const uint32_t above : {0x100u, 0x2600u, 0x10000u, 0x80000000u}) {
        std::wstring like_markup;
        for (const char c : std::string("<>/=?'\"&; \t\r\n!-#x"))
            like_markup += static_cast<wchar_t>(above | static_cast<unsigned char>(c));
        const std::wstring text = L"<" + like_markup + L" " + like_markup + L"='" + like_markup +
                                  L"' y=\"" + like_markup + L"\">" + like_markup + L"<b/></" +
                                  like_markup + L">";
        Document document(text);
        ASSERT_EQ(document.code, 0) << above;
        EXPECT_EQ(document.root->name, like_markup);
        EXPECT_EQ(document.root->value, like_markup);
        EXPECT_EQ(document.root->first_attribute->name, like_markup);
        EXPECT_EQ(document.root->first_attribute->value, like_markup);
        EXPECT_EQ(document.root->last_attribute->value, like_markup);
        EXPECT_EQ(text_of(document.root->last_child->name), "b");
    }
}

TEST(WxmldocParse, BoundsNamesInCharacters) {
    const std::wstring longest(1023, L'\U0001f600');
    Document document(L"<" + longest + L"/>");
    EXPECT_EQ(document.code, 0);
    EXPECT_EQ(document.root->name, longest);
}

TEST(WxmldocSteps, WorkOnWholeCharacters) {
    std::wstring value = L"\u0120 \u010a\u0109 ";
    _wxmldoc_attr_value_normalize_s1(value.data());
    EXPECT_EQ(value, L"\u0120 \u010a\u0109 ");
    _wxmldoc_attr_value_normalize_s2(value.data());
    EXPECT_STREQ(value.c_str(), L"\u0120 \u010a\u0109");
    _wxmldoc_shift_left(value.data(), 2);
    EXPECT_STREQ(value.c_str(), L"\u010a\u0109");
    EXPECT_STREQ(_wxmldoc_skip_white(L" \u0120"), L"\u0120");
    EXPECT_STREQ(_wxmldoc_skip_name(L"\u012f\u013e/"), L"/");
}

// --- files ---------------------------------------------------------------------------------------

class WxmldocParseFile : public testing::Test {
  protected:
    ~WxmldocParseFile() override { setlocale(LC_ALL, "C"); }

    void use_utf8() {
        ASSERT_NE(setlocale(LC_ALL, kUtf8), nullptr) << "the C library has no UTF-8";
    }

    // Makes a locale with this encoding and takes it. Skips the test where there are no tools to.
    void use_encoding(const char* encoding) {
        const std::string path = scratch / encoding;
        const std::string command = "localedef -c -i POSIX -f " + std::string(encoding) + " '" +
                                    path + "' > /dev/null 2>&1";
        if (system(command.c_str()) == -1) GTEST_FAIL() << strerror(errno);
        setenv("LOCPATH", scratch.path().c_str(), 1);
        const bool taken = setlocale(LC_ALL, encoding) != nullptr;
        unsetenv("LOCPATH");
        if (!taken)
            GTEST_SKIP() << "no locale of " << encoding
                         << ": localedef or its sources (package locales) are not installed";
    }

    // A document from a file of these bytes, or null.
    wxmldoc* parse(const std::string& bytes) {
        path = scratch.write("a.xml", bytes);
        return wxmldoc_parse_file(path.c_str());
    }

    // The root's value of a file that must be right.
    std::wstring value_in(const std::string& bytes) {
        wxmldoc* const document = parse(bytes);
        if (!document || !document->root || !document->root->value) {
            ADD_FAILURE() << "no value in " << bytes;
            wxmldoc_free(document, 1);
            return L"";
        }
        const std::wstring value = document->root->value;
        wxmldoc_free(document, 1);
        return value;
    }

    void expect_refused(const std::string& bytes, int code = -1) {
        log.clear();
        EXPECT_EQ(parse(bytes), nullptr) << bytes;
        EXPECT_THAT(lines(), ElementsAre(failed(code))) << bytes;
    }
    std::string failed(int code) const {
        return error_line("wxmldoc_parse_file",
                          "xmldoc_parse(" + path + "): failed code:" + std::to_string(code));
    }
    static std::vector<std::string> lines() { return system_log().lines(); }

    ScratchDirectory scratch;
    std::string path;
    SystemLog& log = system_log();
};

// One character of each of the planes, and the last of each length.
const std::pair<const char*, wchar_t> kPlanes[] = {
    {"A", L'A'},
    {"\x7f", 0x7f},
    {"\xc2\x80", 0x80},
    {"\xc3\xa9", 0xe9},
    {"\xdf\xbf", 0x7ff},
    {"\xe0\xa0\x80", 0x800},
    {"\xe2\x98\xba", 0x263a},
    {"\xef\xbf\xbd", 0xfffd},
    {"\xf0\x90\x80\x80", 0x10000},
    {"\xf0\x9f\x98\x80", 0x1f600},
    {"\xf0\xa0\x80\x80", 0x20000},
    {"\xf0\xb0\x80\x80", 0x30000},
    {"\xf1\x80\x80\x80", 0x40000},
    {"\xf1\x90\x80\x80", 0x50000},
    {"\xf1\xa0\x80\x80", 0x60000},
    {"\xf1\xb0\x80\x80", 0x70000},
    {"\xf2\x80\x80\x80", 0x80000},
    {"\xf2\x90\x80\x80", 0x90000},
    {"\xf2\xa0\x80\x80", 0xa0000},
    {"\xf2\xb0\x80\x80", 0xb0000},
    {"\xf3\x80\x80\x80", 0xc0000},
    {"\xf3\x90\x80\x80", 0xd0000},
    {"\xf3\xa0\x80\x81", 0xe0001},
    {"\xf3\xb0\x80\x80", 0xf0000},
    {"\xf4\x80\x80\x80", 0x100000},
    {"\xf4\x8f\xbf\xbf", 0x10ffff},
};

TEST_F(WxmldocParseFile, ReadsCharactersOfAllPlanesInNamesAttributesAndText) {
    use_utf8();
    std::string bytes;
    std::wstring characters;
    for (const auto& [encoded, character] : kPlanes) {
        bytes += encoded;
        characters += character;
    }
    wxmldoc* const document =
        parse("<?xml version='1.0'?>\n<" + bytes + " " + bytes + "='" + bytes + "'>" + bytes +
              "<!-- " + bytes + " -->\n</" + bytes + ">\n");
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(document->root->name, characters);
    EXPECT_EQ(document->root->first_attribute->name, characters);
    EXPECT_EQ(document->root->first_attribute->value, characters);
    EXPECT_EQ(document->root->value, characters);
    wxmldoc_free(document, 1);
}

TEST_F(WxmldocParseFile, ReadsACharacterThatGoesOnInTheNextPiece) {
    use_utf8();
    for (const char* encoded : {"a", "\xc3\xa9", "\xe2\x98\xba", "\xf0\x9f\x98\x80"}) {
        const size_t size = strlen(encoded);
        wchar_t character = 0;
        ASSERT_EQ(mbtowc(&character, encoded, size), static_cast<int>(size));
        for (size_t in_front = kPiece - size - 1; in_front <= kPiece + 1; ++in_front) {
            const std::string padding(in_front - strlen("<a>"), 'p');
            EXPECT_EQ(value_in("<a>" + padding + encoded + "q</a>"),
                      widened(padding) + character + L"q")
                << "behind " << in_front << " bytes";
        }
    }
}

TEST_F(WxmldocParseFile, ReadsLinesOfManyPieces) {
    use_utf8();
    for (const auto& [encoded, character] : kPlanes)
        EXPECT_EQ(value_in("<a>" + repeated(encoded, 5000) + "</a>"),
                  std::wstring(5000, character));
}

TEST_F(WxmldocParseFile, ReadsPiecesThatEndWithALineOfAnyLength) {
    use_utf8();
    for (size_t length = kPiece - 4; length <= kPiece + 4; ++length) {
        const std::string line = std::string(length - 3, 'p') + "\xe2\x98\xba\n";
        const std::wstring expected = std::wstring(length - 3, L'p') + L"\u263a\n";
        EXPECT_EQ(value_in("<a>" + line + line + "</a>"), expected + expected);
    }
}

TEST_F(WxmldocParseFile, RefusesBytesThatAreNoCharacter) {
    use_utf8();
    const std::string padding(kPiece - strlen("<a>") - 1, 'p');
    for (const std::string bytes :
         {"\xff", "\x80", "\xc3(", "\xe2\x98(", "\xe2\n", "\xc0\x80", "\xfe"}) {
        expect_refused("<a>" + bytes + "</a>");
        expect_refused("<a>" + padding + bytes + "</a>");
        expect_refused("<a>\n\n</a>" + bytes);
        expect_refused("</b>" + bytes);  // before the text is parsed
    }
    EXPECT_EQ(log.records().back().priority, 3);
}

TEST_F(WxmldocParseFile, RefusesACharacterThatTheFileEndsIn) {
    use_utf8();
    for (const std::string bytes : {"\xc3", "\xe2", "\xe2\x98", "\xf0\x9f\x98"}) {
        expect_refused("<a/>" + bytes);
        expect_refused("<a/>\n" + bytes);
        for (size_t left = 0; left <= bytes.size(); ++left)
            expect_refused("<a/>" + std::string(kPiece - 4 - left, ' ') + bytes);
    }
}

TEST_F(WxmldocParseFile, TakesAZeroByteForTheEndOfItsPiece) {
    use_utf8();
    const std::string zero(1, '\0');
    EXPECT_EQ(value_in("<a>b" + zero + "hidden\xff\nc</a>"), L"bc");
    EXPECT_EQ(value_in("<a>\xe2\x98\xba" + zero + "\n\xe2\x98\xba</a>"), L"\u263a\u263a");
    // It is no part of a character, neither behind one that began nor in front of its rest.
    expect_refused("<a>\xe2" + zero + "\n\x98\xba</a>");
    const std::string padding(kPiece - strlen("<a>") - 1, 'p');
    expect_refused("<a>" + padding + "\xe2" + zero + "\x98\xba</a>");
}

TEST_F(WxmldocParseFile, ReadsAsciiAloneInTheLocaleOfAProgramThatSetNone) {
    EXPECT_EQ(value_in("<a>ascii</a>"), L"ascii");
    EXPECT_EQ(value_in("<a>&#x263A;</a>"), L"\u263a");
    expect_refused("<a>\xe2\x98\xba</a>");
    expect_refused("<a>\xe9</a>");
}

TEST_F(WxmldocParseFile, ReadsTheBytesOfASingleByteEncoding) {
    use_encoding("ISO-8859-1");
    if (IsSkipped()) return;
    EXPECT_EQ(value_in("<a>\xe9\xff" + std::string(kPiece, '\xe2') + "</a>"),
              L"\u00e9\u00ff" + std::wstring(kPiece, L'\u00e2'));
}

TEST_F(WxmldocParseFile, ReadsCharactersOfAnotherMultibyteEncodingAcrossPieces) {
    use_encoding("EUC-JP");
    if (IsSkipped()) return;
    // Two bytes each, of which the second could begin a character as well; then three.
    for (size_t in_front = 3; in_front <= 5; ++in_front) {
        const std::string padding(in_front - 3, 'p');
        EXPECT_EQ(value_in("<a>" + padding + repeated("\xa4\xa4", 2000) + "</a>"),
                  widened(padding) + std::wstring(2000, L'\u3044'));
        EXPECT_EQ(value_in("<a>" + padding + repeated("\x8f\xb0\xa1", 2000) + "</a>"),
                  widened(padding) + std::wstring(2000, L'\u4e02'));
    }
    expect_refused("<a>\xa4</a>");
    expect_refused("<a/>\xa4");
}

TEST_F(WxmldocParseFile, SaysWhichRuleBroke) {
    const int64_t before = live_allocations();
    const int descriptors = descriptor_count();
    expect_refused("<a><b></a>", -4);
    expect_refused("<a", -7);
    EXPECT_EQ(live_allocations(), before);
    EXPECT_EQ(descriptor_count(), descriptors);

    log.clear();
    EXPECT_EQ(parse("text"), nullptr);
    EXPECT_THAT(lines(), ElementsAre(parser_line("missing tag start '<'"), failed(-1)));
}

TEST_F(WxmldocParseFile, NeedsAFileThatOpens) {
    log.clear();
    EXPECT_EQ(wxmldoc_parse_file("/nowhere/a.xml"), nullptr);
    EXPECT_EQ(log.records()[0].priority, 4);
    log.clear();
    EXPECT_EQ(wxmldoc_parse_file(nullptr), nullptr);
    EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(WxmldocParseFile, LeavesNothingOpenOrAllocatedWhenMemoryIsOut) {
    use_utf8();
    const std::string bytes = "<a x='1'>v" + std::string(2000, ' ') + "&lt;<b/></a>";
    path = scratch.write("a.xml", bytes);
    const int descriptors = descriptor_count();
    log.clear();
    for_each_failing_allocation([&] { return wxmldoc_parse_file(path.c_str()); },
                                [](wxmldoc* d) { wxmldoc_free(d, 1); });
    EXPECT_EQ(descriptor_count(), descriptors);

    const std::string no_memory = ": Cannot allocate memory";
    std::vector<std::string> expected = {
        error_line("wxmldoc_create", "calloc()" + no_memory),
        "WARN:wxmldoc:wxmldoc_parse_file: xmldoc_create()()" + no_memory};
    for (int piece = 0; piece < 2; ++piece) {  // the text grows for both
        expected.push_back("ERR:wbuffer:wbuffer_expand: realloc()" + no_memory);
        expected.push_back("ERR:wbuffer:wbuffer_cappend: wbuffer_expand()" + no_memory);
        expected.push_back(failed(-1));
    }
    // Name and record of both elements, name, value and record of the attribute, and the text.
    for (int allocation = 0; allocation < 8; ++allocation) expected.push_back(failed(-32));
    EXPECT_EQ(lines(), expected);
}

// --- dump ----------------------------------------------------------------------------------------

// A child whose standard output has carried no text yet.
ChildResult run_with_fresh_output(const std::function<void()>& work) {
    return run_in_child([&] {
        if (!freopen("/proc/self/fd/1", "a", stdout)) _exit(99);
        work();
    });
}

TEST(WxmldocDump, WritesToStandardOutputInTheLocalesEncodingAndFlushesIt) {
    const ChildResult child = run_with_fresh_output([] {
        setlocale(LC_ALL, kUtf8);
        Document document(L"<?xml v='1'?><\u00e9 x='\u263a'>\U0001f600<b/></\u00e9>");
        wxmldoc_node_dump(document.root);
        wxmldoc_node_dump(nullptr);
        _exit(3);  // flushes nothing
    });
    EXPECT_EQ(child.out, "<\xc3\xa9 x=\"\xe2\x98\xba\">\xf0\x9f\x98\x80<b></b></\xc3\xa9>");
    EXPECT_EQ(child.status, 3);
}

TEST(WxmldocDump, IgnoresNull) {
    CapturedStdout out;
    wxmldoc_node_dump(nullptr);
    EXPECT_EQ(out.text(), "");
}

TEST(WxmldocDump, TakesTheStreamForWideTextAlone) {
    const ChildResult wide_first = run_with_fresh_output([] {
        Document document("<a/>");
        wxmldoc_node_dump(document.root);
        printf("narrow");
    });
    EXPECT_EQ(wide_first.out, "<a></a>");
    const ChildResult narrow_first = run_with_fresh_output([] {
        Document document("<a/>");
        printf("narrow");
        wxmldoc_node_dump(document.root);
    });
    EXPECT_EQ(narrow_first.out, "narrow");
}

TEST(WxmldocDump, WritesAFileThatIsReadAgain) {
    ScratchDirectory scratch;
    setlocale(LC_ALL, kUtf8);
    const std::wstring text =
        L"<a x=\"\u263a\">\U0001f600" + std::wstring(5000, L'\u4e02') + L"<b></b></a>";
    Document document(text);
    const std::string path = scratch / "dumped.xml";
    FILE* const file = fopen(path.c_str(), "w");
    _wxmldoc_node_dump_fd(document.root, file, 0);
    fclose(file);

    wxmldoc* const again = wxmldoc_parse_file(path.c_str());
    setlocale(LC_ALL, "C");
    ASSERT_NE(again, nullptr);
    EXPECT_STREQ(again->root->value, document.root->value);
    EXPECT_EQ(dump_of<Wide>(again->root), dump_of<Wide>(document.root));
    wxmldoc_free(again, 1);
}

}  // namespace
