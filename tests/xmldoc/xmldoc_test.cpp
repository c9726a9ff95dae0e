// What is the narrow document's own; what it shares with the wide one is in xml_twins_test.cpp.

#include <tests/xmldoc/twins.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using Document = zt_test::Document<Narrow>;

// A byte buffer as hosts embed it.
struct Buffer {
    ~Buffer() { free(data); }

    int save(const xmldoc& document, const xmldoc_node* node) {
        return xmldoc_save(&document, node, &data, &capacity, &length);
    }
    int append(const char* text, int n) {
        return _xmldoc_buffer_append(&data, &capacity, &length, text, n);
    }
    std::string text() const { return data ? std::string(data, length) : ""; }

    char* data = nullptr;
    unsigned capacity = 0;
    unsigned length = 0;
};

// Parses a text that must be right and gives it back as the writer spells it.
std::string rewritten(const std::string& text) {
    Document document(text);
    EXPECT_EQ(document.code, 0) << text;
    Buffer buffer;
    EXPECT_EQ(buffer.save(document, document.root), document.root ? 0 : -1);
    return buffer.text();
}

int code_of(const std::string& text) { return zt_test::code_of<Narrow>(text); }

// --- documents ----------------------------------------------------------------------------------

TEST(Xmldoc, InitEmptiesARecordWithoutALookAtIt) {
    xmldoc document;
    memset(&document, 0x5a, sizeof document);
    EXPECT_EQ(xmldoc_init(&document), 0);
    EXPECT_EQ(document.declaration, nullptr);
    EXPECT_EQ(document.root, nullptr);
    EXPECT_EQ(xmldoc_init(nullptr), 0);
}

TEST(Xmldoc, DefaultDocumentHasADeclarationAndANamedRoot) {
    xmldoc* document = xmldoc_create_def("msg");
    ASSERT_NE(document, nullptr);
    EXPECT_STREQ(document->declaration->name, "");
    EXPECT_EQ(attributes_of(document->declaration),
              (Pairs{{"version", "1.0"}, {"encoding", "UTF-8"}}));
    EXPECT_STREQ(document->declaration->last_attribute->name, "encoding");
    EXPECT_EQ(document->declaration->last_attribute->previous,
              document->declaration->first_attribute);
    EXPECT_EQ(document->declaration->first_attribute->previous, nullptr);
    EXPECT_STREQ(document->root->name, "msg");
    EXPECT_EQ(document->root->value, nullptr);
    xmldoc_free(document, 1);
}

TEST(Xmldoc, DefaultDocumentLeaksNothingWhenMemoryIsOut) {
    for_each_failing_allocation([] { return xmldoc_create_def("msg"); },
                                [](xmldoc* d) { xmldoc_free(d, 1); });
    const int64_t before = live_allocations();
    EXPECT_EQ(xmldoc_create_def(nullptr), nullptr);
    EXPECT_EQ(live_allocations(), before);
}

// --- nodes --------------------------------------------------------------------------------------

TEST(XmldocNode, BecomesTheRootWhenAChildIsAddedToIt) {
    Document document;
    xmldoc_node* first = xmldoc_node_create("first");
    xmldoc_node* second = xmldoc_node_create("second");
    xmldoc_node* third = xmldoc_node_create("third");
    xmldoc_node_add(nullptr, first, second);
    xmldoc_node_add(&document, nullptr, second);
    xmldoc_node_add(&document, first, nullptr);
    EXPECT_EQ(document.root, nullptr);
    EXPECT_EQ(first->first_child, nullptr);

    xmldoc_node_add(&document, first, second);
    EXPECT_EQ(document.root, first);
    xmldoc_node_add(&document, second, third);
    EXPECT_EQ(document.root, first);
    EXPECT_EQ(second->first_child, third);
}

TEST(XmldocNode, IsTakenOutAtTheFrontTheMiddleAndTheEnd) {
    Document document("<r><a/><b/><c/><d/></r>");
    xmldoc_node* const root = document.root;
    for (const auto& [name, left] : std::vector<std::pair<const char*, std::vector<std::string>>>{
             {"b", {"a", "c", "d"}}, {"a", {"c", "d"}}, {"d", {"c"}}, {"c", {}}}) {
        xmldoc_node* const child = xmldoc_node_get(root, name);
        xmldoc_node_remove_child(root, child);
        EXPECT_EQ(children_of(root), left);
        EXPECT_EQ(child->previous_sibling, nullptr);
        EXPECT_EQ(child->next_sibling, nullptr);
        EXPECT_EQ(child->parent, root);
        EXPECT_STREQ(child->name, name);
        if (!left.empty()) {
            EXPECT_EQ(root->first_child->previous_sibling, nullptr);
            EXPECT_EQ(root->last_child->name, left.back());
            EXPECT_EQ(root->last_child->next_sibling, nullptr);
        }
        xmldoc_free_node(child);
    }
    EXPECT_EQ(root->first_child, nullptr);
    EXPECT_EQ(root->last_child, nullptr);
}

TEST(XmldocNode, RemovalIgnoresNull) {
    Document document("<r><a/></r>");
    xmldoc_node_remove_child(nullptr, document.root->first_child);
    xmldoc_node_remove_child(document.root, nullptr);
    EXPECT_THAT(children_of(document.root), ElementsAre("a"));
}

TEST(XmldocNode, FreeingOneInTheMiddleFreesThatOneAlone) {
    Document document("<r><a><x/></a><b/></r>");
    xmldoc_node* const a = document.root->first_child;
    xmldoc_node_remove_child(document.root, a);
    xmldoc_node_add_child(document.root, a);
    xmldoc_node_remove_child(document.root, a);
    xmldoc_free_node(a);
    EXPECT_THAT(children_of(document.root), ElementsAre("b"));
}

TEST(XmldocNode, GivesTheValueOfAChild) {
    Document document("<r><a>1</a><b/></r>");
    EXPECT_STREQ(xmldoc_node_get_value(document.root, "a"), "1");
    EXPECT_EQ(xmldoc_node_get_value(document.root, "b"), nullptr);
    EXPECT_EQ(xmldoc_node_get_value(document.root, "c"), nullptr);
    EXPECT_EQ(xmldoc_node_get_value(nullptr, "a"), nullptr);
}

// --- parser -------------------------------------------------------------------------------------

TEST(XmldocParse, FindsNothingInAnEmptyText) {
    Document document;
    EXPECT_EQ(xmldoc_parse(&document, ""), 0);
    EXPECT_EQ(xmldoc_parse(&document, nullptr), 0);
    EXPECT_EQ(xmldoc_parse(nullptr, nullptr), 0);
    EXPECT_EQ(xmldoc_parse(nullptr, "<a/>"), -1);
    EXPECT_EQ(document.root, nullptr);
}

TEST(XmldocParse, KnowsNoCommentsSectionsOrDoctypes) {
    EXPECT_EQ(code_of("<!-- x --><a/>"), -11);
    EXPECT_EQ(code_of("<!--x-->"), 0);  // an open element of that name
    EXPECT_EQ(code_of("<![CDATA[x]]></a>"), -4);
    EXPECT_EQ(code_of("<!DOCTYPE a><a/>"), -11);
}

TEST(XmldocParse, LogsNothing) {
    CapturedLog log;
    CapturedStderr err;
    code_of("<a></b>");
    code_of("<a>&</a>");
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(err.text(), "");
}

// --- parser: depth ------------------------------------------------------------------------------

constexpr size_t kDeep = 1'000'000;
constexpr size_t kSmallStack = 256 * 1024;

TEST(XmldocDepth, AMillionElementsDeepIsSavedOnASmallStack) {
    const std::string text = repeated("<a>", kDeep) + repeated("</a>", kDeep);
    std::string saved;
    run_on_stack(kSmallStack, [&] {
        Document document;
        ASSERT_EQ(xmldoc_parse(&document, text.c_str()), 0);
        Buffer buffer;
        ASSERT_EQ(buffer.save(document, document.root), 0);
        saved = buffer.text();
    });
    EXPECT_TRUE(saved == text);
}

TEST(XmldocDepth, HoldsForTreesMadeByHandWhichHaveNoParentLinks) {
    run_on_stack(kSmallStack, [] {
        Document document;
        document.root = xmldoc_node_create("a");
        xmldoc_node* last = document.root;
        for (size_t i = 0; i < 100'000; ++i) {
            xmldoc_node* const child = xmldoc_node_create("a");
            xmldoc_node_add_child(last, child);
            xmldoc_node_add_child(last, xmldoc_node_create("b"));
            last = child;
        }
        Buffer buffer;
        EXPECT_EQ(buffer.save(document, document.root), 0);
        EXPECT_EQ(buffer.length, 100'001u * 7 + 100'000u * 7);
    });
}

// --- parser: files ------------------------------------------------------------------------------

TEST(XmldocParseFile, GivesTheAddressOfAFreedDocumentAfterAFailedParse) {
    ScratchDirectory scratch;
    const std::string path = scratch.write("bad.xml", "<a><b></a>");
    CapturedLog log;
    const int64_t before = live_allocations();
    const int descriptors = descriptor_count();
    EXPECT_NE(reinterpret_cast<uintptr_t>(xmldoc_parse_file(path.c_str())), 0u);
    EXPECT_EQ(live_allocations(), before);
    EXPECT_EQ(descriptor_count(), descriptors);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:xmldoc:xmldoc_parse_file: failed parse file " + path));
    EXPECT_EQ(system_log().records()[0].priority, 4);
}

TEST(XmldocParseFile, GivesNothingWhenMemoryIsOut) {
    ScratchDirectory scratch;
    const std::string path =
        scratch.write("a.xml", "<a x='1'>v" + std::string(2000, ' ') + "<b/></a>");
    CapturedLog log;
    CapturedStderr err;
    const int descriptors = descriptor_count();
    for_each_failing_allocation([&] { return xmldoc_parse_file(path.c_str()); },
                                [](xmldoc* d) { xmldoc_free(d, 1); });
    EXPECT_EQ(descriptor_count(), descriptors);
    const std::string refused = "./buffers/buffer:buffer_append realloc():Cannot allocate memory\n";
    EXPECT_EQ(err.text(),
              repeated(refused, 2));  // two lines are read, and the buffer grows for both
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines().front(),
              "WARN:xmldoc:xmldoc_parse_file: xmldoc_create()(): Cannot allocate memory");
    EXPECT_EQ(log.lines().back(), "WARN:xmldoc:xmldoc_parse_file: failed parse file " + path);
}

// --- writer -------------------------------------------------------------------------------------

TEST(XmldocSave, WritesTheDefaultDocument) {
    xmldoc* document = xmldoc_create_def("msg");
    Buffer buffer;
    EXPECT_EQ(buffer.save(*document, document->root), 0);
    EXPECT_STREQ(buffer.data, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<msg></msg>");
    EXPECT_EQ(buffer.length, strlen(buffer.data));
    EXPECT_EQ(buffer.capacity, 1500u);
    xmldoc_free(document, 1);
}

TEST(XmldocSave, WritesTheDeclarationIntoAnEmptyBufferOnly) {
    Document document("<?xml v='1'?><a><b>x</b></a>");
    Buffer buffer;
    EXPECT_EQ(buffer.save(document, document.root), 0);
    EXPECT_EQ(buffer.save(document, document.root->first_child), 0);
    EXPECT_EQ(buffer.text(), "<?xml v=\"1\"?>\r\n<a><b>x</b></a><b>x</b>");
}

TEST(XmldocSave, WritesOneNodeWithoutItsSiblings) {
    Document document("<a><b>x<c/></b><d/></a>");
    Buffer buffer;
    EXPECT_EQ(buffer.save(document, document.root->first_child), 0);
    EXPECT_EQ(buffer.text(), "<b>x<c></c></b>");
}

TEST(XmldocSave, TrustsTheText) {
    Document document("<a x='&lt;\"'>&lt;b>&amp;</a>");
    Buffer buffer;
    EXPECT_EQ(buffer.save(document, document.root), 0);
    EXPECT_EQ(buffer.text(), "<a x=\"&lt;\"\"><b>&</a>");
}

TEST(XmldocSave, WritesMissingTextAsEmpty) {
    Document document;
    document.root = xmldoc_node_create("a");
    xmldoc_node_attr_addval(document.root, nullptr, "1");
    xmldoc_node_attr_addval(document.root, "x", nullptr);
    Buffer buffer;
    EXPECT_EQ(buffer.save(document, document.root), 0);
    EXPECT_EQ(buffer.text(), "<a =\"1\" x=\"\"></a>");
}

TEST(XmldocSave, RefusesNull) {
    Document document("<a/>");
    Buffer b;
    EXPECT_EQ(xmldoc_save(&document, nullptr, &b.data, &b.capacity, &b.length), -1);
    EXPECT_EQ(xmldoc_save(nullptr, document.root, &b.data, &b.capacity, &b.length), -1);
    EXPECT_EQ(xmldoc_save(&document, document.root, nullptr, &b.capacity, &b.length), -1);
    EXPECT_EQ(xmldoc_save(&document, document.root, &b.data, nullptr, &b.length), -1);
    EXPECT_EQ(xmldoc_save(&document, document.root, &b.data, &b.capacity, nullptr), -1);
    EXPECT_EQ(b.data, nullptr);
    EXPECT_EQ(b.length, 0u);
}

TEST(XmldocSave, CutsTagsAndAttributesButNoValue) {
    const std::string name(2000, 'n');
    const std::string value(5000, 'v');
    Document document;
    document.root = xmldoc_node_create(name.c_str());
    xmldoc_node_attr_addval(document.root, "x", value.c_str());
    xmldoc_node_attr_addval(document.root, std::string(1494, 'y').c_str(), "1");
    xmldoc_node_attr_addval(document.root, std::string(1495, 'z').c_str(), "1");
    document.root->value = strdup(value.c_str());
    Buffer buffer;
    EXPECT_EQ(buffer.save(document, document.root), 0);
    EXPECT_EQ(buffer.text(), "<" + name.substr(0, 1498) + " x=\"" + value.substr(0, 1495) + " " +
                                 std::string(1494, 'y') + "=\"1\" " + std::string(1495, 'z') +
                                 "=\"1" + ">" + value + "</" + name.substr(0, 1497));
}

TEST(XmldocSave, GrowsAgainAndAgainUntilTheTextFits) {
    Document document;
    document.root = xmldoc_node_create("a");
    for (const auto& [size, capacity] : std::vector<std::pair<size_t, unsigned>>{
             {1499, 1500}, {1500, 4500}, {4499, 4500}, {4500, 10500}, {10500, 22500}}) {
        free(document.root->value);
        document.root->value = strdup(std::string(size - 7, 'v').c_str());
        Buffer buffer;
        EXPECT_EQ(buffer.save(document, document.root), 0);
        EXPECT_EQ(buffer.length, size);
        EXPECT_EQ(buffer.capacity, capacity) << size;
        EXPECT_EQ(buffer.data[size], 0);
    }
}

TEST(XmldocSave, TakesItsTextBackWhenMemoryIsOut) {
    const std::string text =
        repeated("<a x='1'>" + std::string(100, 'v'), 200) + "<b/>" + repeated("</a>", 200);
    Document document("<?xml v='1'?>" + text);
    ASSERT_EQ(document.code, 0);
    for (const char* before : {"", "kept"}) {
        for (FailingAllocations round; round.next();) {
            Buffer buffer;
            if (*before) buffer.append(before, 4);
            round.arm();
            const int result = buffer.save(document, document.root);
            round.disarm();
            EXPECT_EQ(result, round.hit() ? -1 : 0);
            if (round.hit()) {
                EXPECT_EQ(buffer.text(), before);
                EXPECT_TRUE(!buffer.data || buffer.data[buffer.length] == 0);
                EXPECT_EQ(buffer.append("!", 1), 0);
            }
        }
    }
}

TEST(XmldocSave, RoundTripsThroughTheParser) {
    const char* const text = "<a x=\"1\" y=\"2 3\">v<b></b><c>w<d z=\"\"></d></c></a>";
    EXPECT_EQ(rewritten(text), text);
}

TEST(XmldocSave, SatisfiesXmllint) {
    if (system("command -v xmllint > /dev/null") != 0) GTEST_SKIP() << "xmllint is not installed";
    xmldoc* document = xmldoc_create_def("msg");
    xmldoc_node_attr_addval(document->root, "id", "7");
    xmldoc_node_attr_addval(document->root, "lang", "en");
    for (int i = 0; i < 100; ++i) {
        xmldoc_node* const item = xmldoc_node_create("item");
        item->value = strdup("text");
        xmldoc_node_attr_addval(item, "n", std::to_string(i).c_str());
        xmldoc_node_add(document, document->root, item);
        xmldoc_node_add(document, item, xmldoc_node_create("part"));
    }
    Buffer buffer;
    ASSERT_EQ(buffer.save(*document, document->root), 0);
    xmldoc_free(document, 1);

    ScratchDirectory scratch;
    const std::string path = scratch.write("saved.xml", buffer.text());
    EXPECT_EQ(system(("xmllint --noout '" + path + "'").c_str()), 0);
}

// --- dump ---------------------------------------------------------------------------------------

TEST(XmldocDump, WritesTheElementAloneToStandardOutput) {
    Document document("<?xml v='1'?><a x='1' y='2'>v<b>w</b><c/></a>");
    CapturedStdout out;
    xmldoc_node_dump(document.root);
    EXPECT_EQ(out.text(), "<a x=\"1\" y=\"2\">v<b>w</b><c></c></a>");
    xmldoc_node_dump(nullptr);
    EXPECT_EQ(out.text(), "<a x=\"1\" y=\"2\">v<b>w</b><c></c></a>");
}

TEST(XmldocDump, FlushesStandardOutput) {
    const ChildResult child = run_in_child([] {
        Document document("<a>v</a>");
        xmldoc_node_dump(document.root);
        _exit(3);  // flushes nothing
    });
    EXPECT_EQ(child.out, "<a>v</a>");
    EXPECT_EQ(child.status, 3);
}

// --- internal steps -----------------------------------------------------------------------------

TEST(XmldocSteps, CutANumberToItsLowEightBits) {
    std::string text = "&#321;&#x141;&#-191;";
    EXPECT_EQ(_xmldoc_value_escape(text.data()), 0);
    EXPECT_STREQ(text.c_str(), "AAA");
}

TEST(XmldocSteps, AppendBytesWithTheWritersGrowth) {
    Buffer buffer;
    EXPECT_EQ(buffer.append("", 0), 0);
    EXPECT_EQ(buffer.capacity, 1500u);
    EXPECT_STREQ(buffer.data, "");
    EXPECT_EQ(buffer.append("a\0b", 3), 0);
    EXPECT_EQ(buffer.text(), std::string("a\0b", 3));
    const std::string more(1496, 'x');
    EXPECT_EQ(buffer.append(more.c_str(), 1496), 0);
    EXPECT_EQ(buffer.length, 1499u);
    EXPECT_EQ(buffer.capacity, 1500u);
    EXPECT_EQ(buffer.append("y", 1), 0);
    EXPECT_EQ(buffer.capacity, 4500u);
    EXPECT_EQ(buffer.data[1500], 0);
}

TEST(XmldocSteps, RefuseAnAppendThatCannotBe) {
    Buffer buffer;
    EXPECT_EQ(buffer.append("abc", 3), 0);
    EXPECT_EQ(buffer.append("abc", -1), -1);
    EXPECT_EQ(buffer.append(nullptr, 1), -1);
    EXPECT_EQ(_xmldoc_buffer_append(nullptr, &buffer.capacity, &buffer.length, "a", 1), -1);
    EXPECT_EQ(_xmldoc_buffer_append(&buffer.data, nullptr, &buffer.length, "a", 1), -1);
    EXPECT_EQ(_xmldoc_buffer_append(&buffer.data, &buffer.capacity, nullptr, "a", 1), -1);
    EXPECT_EQ(buffer.text(), "abc");

    char* none = nullptr;
    unsigned capacity = UINT_MAX;
    unsigned length = UINT_MAX - 1;
    EXPECT_EQ(_xmldoc_buffer_append(&none, &capacity, &length, "a", 1), -1);  // no bytes behind it
    EXPECT_EQ(length, UINT_MAX - 1);

    char byte = 'x';  // never touched: the length has no room in 32 bits
    char* full = &byte;
    EXPECT_EQ(_xmldoc_buffer_append(&full, &capacity, &length, "abc", 3), -1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(length, UINT_MAX - 1);
}

TEST(XmldocSteps, KeepTheBufferWhenMemoryIsOut) {
    for (FailingAllocations round; round.next();) {
        Buffer buffer;
        buffer.append("kept", 4);
        const std::string text(5000, 'x');
        round.arm();
        const int result = buffer.append(text.c_str(), 5000);
        round.disarm();
        EXPECT_EQ(result, round.hit() ? -1 : 0);
        EXPECT_EQ(buffer.capacity, round.hit() ? 1500u : 10500u);
        EXPECT_EQ(buffer.length, round.hit() ? 4u : 5004u);
    }
}

TEST(XmldocSteps, FormatAtMostOnePiece) {
    Buffer buffer;
    EXPECT_EQ(
        _xmldoc_buffer_vsprintf(&buffer.data, &buffer.capacity, &buffer.length, "%s-%d", "a", 7),
        0);
    EXPECT_EQ(buffer.text(), "a-7");
    const std::string text(2000, 'x');
    EXPECT_EQ(
        _xmldoc_buffer_vsprintf(&buffer.data, &buffer.capacity, &buffer.length, "%s", text.c_str()),
        0);
    EXPECT_EQ(buffer.text(), "a-7" + text.substr(0, 1499));
    EXPECT_EQ(_xmldoc_buffer_vsprintf(nullptr, &buffer.capacity, &buffer.length, "%s", "a"), -1);
    const char* const no_format = nullptr;
    EXPECT_EQ(_xmldoc_buffer_vsprintf(&buffer.data, &buffer.capacity, &buffer.length, no_format),
              -1);
    const wchar_t unprintable[] = {0x7fffffff, 0};
    EXPECT_EQ(
        _xmldoc_buffer_vsprintf(&buffer.data, &buffer.capacity, &buffer.length, "%ls", unprintable),
        -1);
    EXPECT_EQ(buffer.length, 1502u);
}

}  // namespace
