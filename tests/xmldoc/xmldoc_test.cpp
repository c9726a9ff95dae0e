#include <ztlib/xmldoc/xmldoc.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

using namespace zt_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// A document with what it holds freed at the end.
struct Document : xmldoc {
    Document() : xmldoc{} {}
    explicit Document(const std::string& text) : Document() { code = parse(text); }
    ~Document() { xmldoc_free(this, 0); }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    int parse(const std::string& text) { return xmldoc_parse(this, text.c_str()); }
    int code = 0;
};

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

using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs attributes_of(const xmldoc_node* node) {
    Pairs pairs;
    for (const xmldoc_attr* a = node->first_attribute; a; a = a->next)
        pairs.emplace_back(a->name ? a->name : "(null)", a->value ? a->value : "(null)");
    return pairs;
}

std::vector<std::string> children_of(const xmldoc_node* node) {
    std::vector<std::string> names;
    for (const xmldoc_node* child = node->first_child; child; child = child->next_sibling)
        names.push_back(child->name);
    return names;
}

// Parses a text that must be right and gives it back as the writer spells it.
std::string rewritten(const std::string& text) {
    Document document(text);
    EXPECT_EQ(document.code, 0) << text;
    Buffer buffer;
    EXPECT_EQ(buffer.save(document, document.root), document.root ? 0 : -1);
    return buffer.text();
}

int code_of(const std::string& text) { return Document(text).code; }

std::string value_of(const std::string& text) {
    Document document(text);
    EXPECT_EQ(document.code, 0) << text;
    return document.root && document.root->value ? document.root->value : "(null)";
}

std::string dump_of(const xmldoc_node* node, unsigned depth = 0) {
    char* text = nullptr;
    size_t size = 0;
    FILE* const stream = open_memstream(&text, &size);
    _xmldoc_node_dump_fd(node, stream, depth);
    fclose(stream);
    const std::string dumped(text, size);
    free(text);
    return dumped;
}

std::string repeated(const std::string& text, size_t times) {
    std::string all;
    all.reserve(text.size() * times);
    for (size_t i = 0; i < times; ++i) all += text;
    return all;
}

// --- documents ----------------------------------------------------------------------------------

TEST(Xmldoc, StartsEmpty) {
    xmldoc* document = xmldoc_create();
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(document->declaration, nullptr);
    EXPECT_EQ(document->root, nullptr);
    xmldoc_free(document, 1);
}

TEST(Xmldoc, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation(xmldoc_create, [](xmldoc* d) { xmldoc_free(d, 1); });
}

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

TEST(Xmldoc, FreeKeepsOrFreesTheRecordAsAsked) {
    const int64_t before = live_allocations();
    xmldoc* document = xmldoc_create_def("msg");
    xmldoc_free(document, 0);
    EXPECT_EQ(document->declaration, nullptr);
    EXPECT_EQ(document->root, nullptr);
    EXPECT_EQ(live_allocations(), before + 1);
    xmldoc_free(document, 7);
    EXPECT_EQ(live_allocations(), before);
    xmldoc_free(nullptr, 1);
}

// --- nodes --------------------------------------------------------------------------------------

TEST(XmldocNode, HasACopyOfItsNameAndNothingElse) {
    char name[] = "item";
    xmldoc_node* node = xmldoc_node_create(name);
    ASSERT_NE(node, nullptr);
    name[0] = 'x';
    EXPECT_STREQ(node->name, "item");
    xmldoc_node expected{};
    expected.name = node->name;
    EXPECT_EQ(memcmp(node, &expected, sizeof expected), 0);
    xmldoc_free_node(node);
    EXPECT_EQ(xmldoc_node_create(nullptr), nullptr);
}

TEST(XmldocNode, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation([] { return xmldoc_node_create("item"); }, xmldoc_free_node);
}

TEST(XmldocNode, AppendsChildrenInOrderAndSetsNoParent) {
    xmldoc_node* top = xmldoc_node_create("top");
    xmldoc_node* a = xmldoc_node_create("a");
    xmldoc_node* b = xmldoc_node_create("b");
    xmldoc_node_add_child(top, a);
    xmldoc_node_add_child(top, b);
    EXPECT_EQ(top->first_child, a);
    EXPECT_EQ(top->last_child, b);
    EXPECT_EQ(a->previous_sibling, nullptr);
    EXPECT_EQ(a->next_sibling, b);
    EXPECT_EQ(b->previous_sibling, a);
    EXPECT_EQ(b->next_sibling, nullptr);
    EXPECT_EQ(a->parent, nullptr);

    xmldoc_node_add_child(nullptr, a);
    xmldoc_node_add_child(top, nullptr);
    EXPECT_THAT(children_of(top), ElementsAre("a", "b"));
    xmldoc_free_node(top);
    xmldoc_free_node(nullptr);
}

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

TEST(XmldocNode, IsFoundByNameAmongTheChildren) {
    Document document("<r><a>1</a><b>2</b><b>3</b><B/></r>");
    EXPECT_STREQ(xmldoc_node_get(document.root, "b")->value, "2");
    EXPECT_EQ(xmldoc_node_get(document.root, "r"), nullptr);
    EXPECT_EQ(xmldoc_node_get(document.root, "bb"), nullptr);
    EXPECT_EQ(xmldoc_node_get(document.root, nullptr), nullptr);
    EXPECT_EQ(xmldoc_node_get(nullptr, "b"), nullptr);
    EXPECT_STREQ(xmldoc_node_get_value(document.root, "a"), "1");
    EXPECT_EQ(xmldoc_node_get_value(document.root, "B"), nullptr);
    EXPECT_EQ(xmldoc_node_get_value(document.root, "c"), nullptr);
    EXPECT_EQ(xmldoc_node_get_value(nullptr, "a"), nullptr);
}

// --- attributes ---------------------------------------------------------------------------------

TEST(XmldocAttr, CopiesWhatIsThere) {
    xmldoc_attr* attribute = xmldoc_attr_create("name", nullptr);
    EXPECT_STREQ(attribute->name, "name");
    EXPECT_EQ(attribute->value, nullptr);
    EXPECT_EQ(attribute->previous, nullptr);
    EXPECT_EQ(attribute->next, nullptr);
    xmldoc_node* node = xmldoc_node_create("n");
    xmldoc_node_attr_add(node, attribute);
    xmldoc_node_attr_add(node, xmldoc_attr_create(nullptr, "value"));
    xmldoc_node_attr_addval(node, "x", "1");
    xmldoc_node_attr_add(node, nullptr);
    EXPECT_EQ(attributes_of(node), (Pairs{{"name", "(null)"}, {"(null)", "value"}, {"x", "1"}}));
    EXPECT_EQ(node->last_attribute->previous->previous, attribute);

    EXPECT_STREQ(xmldoc_node_attr_get_value(node, "x"), "1");
    EXPECT_EQ(xmldoc_node_attr_get(node, "x"), node->last_attribute);
    EXPECT_EQ(xmldoc_node_attr_get_value(node, "name"), nullptr);
    EXPECT_EQ(xmldoc_node_attr_get(node, "y"), nullptr);
    EXPECT_EQ(xmldoc_node_attr_get(node, nullptr), nullptr);
    EXPECT_EQ(xmldoc_node_attr_get_value(node, "y"), nullptr);
    EXPECT_EQ(xmldoc_node_attr_get(nullptr, "x"), nullptr);
    EXPECT_EQ(xmldoc_node_attr_get_value(nullptr, "x"), nullptr);
    xmldoc_free_node(node);
}

TEST(XmldocAttr, OfNoNodeIsNotMade) {
    const int64_t before = live_allocations();
    xmldoc_node_attr_addval(nullptr, "x", "1");
    EXPECT_EQ(live_allocations(), before);
    xmldoc_attr* attribute = xmldoc_attr_create("x", "1");
    xmldoc_node_attr_add(nullptr, attribute);
    xmldoc_node* node = xmldoc_node_create("n");
    xmldoc_node_attr_add(node, attribute);
    xmldoc_free_node(node);
    EXPECT_EQ(live_allocations(), before);
}

TEST(XmldocAttr, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation([] { return xmldoc_attr_create("x", "1"); },
                                [](xmldoc_attr* attribute) {
                                    free(attribute->name);
                                    free(attribute->value);
                                    free(attribute);
                                });
    for (FailingAllocations round; round.next();) {
        xmldoc_node* node = xmldoc_node_create("n");
        round.arm();
        xmldoc_node_attr_addval(node, "x", "1");
        round.disarm();
        EXPECT_EQ(attributes_of(node), round.hit() ? Pairs{} : (Pairs{{"x", "1"}}));
        xmldoc_free_node(node);
    }
}

// --- parser: what it builds ---------------------------------------------------------------------

TEST(XmldocParse, ReadsAttributesInOrderAndTheValue) {
    Document document("<a x='1' y=\"2\">hi</a>");
    ASSERT_EQ(document.code, 0);
    EXPECT_STREQ(document.root->name, "a");
    EXPECT_STREQ(document.root->value, "hi");
    EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", "1"}, {"y", "2"}}));
    EXPECT_EQ(document.declaration, nullptr);
}

TEST(XmldocParse, KeepsTheDeclarationApart) {
    Document document("<?xml version=\"1.0\"?><r/>");
    ASSERT_EQ(document.code, 0);
    EXPECT_STREQ(document.declaration->name, "?xml");
    EXPECT_EQ(attributes_of(document.declaration), (Pairs{{"version", "1.0"}}));
    EXPECT_EQ(document.declaration->parent, nullptr);
    EXPECT_STREQ(document.root->name, "r");
    EXPECT_EQ(document.root->value, nullptr);
}

TEST(XmldocParse, LinksParentsAndSiblings) {
    Document document("<a><b><c/></b><d/></a>");
    ASSERT_EQ(document.code, 0);
    const xmldoc_node* const a = document.root;
    const xmldoc_node* const b = a->first_child;
    const xmldoc_node* const d = a->last_child;
    EXPECT_EQ(a->parent, nullptr);
    EXPECT_EQ(b->parent, a);
    EXPECT_EQ(d->parent, a);
    EXPECT_EQ(b->first_child->parent, b);
    EXPECT_EQ(b->next_sibling, d);
    EXPECT_EQ(d->previous_sibling, b);
    EXPECT_EQ(a->next_sibling, nullptr);
}

TEST(XmldocParse, KeepsTheTextBehindAnOpeningTagAsItIs) {
    EXPECT_EQ(value_of("<a>\r\n <b/></a>"), "\r\n ");
    EXPECT_EQ(value_of("<a> x  y </a>"), " x  y ");
    EXPECT_EQ(value_of("<a></a>"), "(null)");
    EXPECT_EQ(value_of("<a/>"), "(null)");
    EXPECT_EQ(value_of("<a>a>b/='\"</a>"), "a>b/='\"");
}

TEST(XmldocParse, DropsTextBehindAChild) {
    EXPECT_EQ(rewritten("<a><b>x</b>tail</a>"), "<a><b>x</b></a>");
    EXPECT_EQ(rewritten("<a>head<b/>tail<c>x</c>end</a>"), "<a>head<b></b><c>x</c></a>");
}

TEST(XmldocParse, DropsTextInFrontOfTheFirstTag) {
    EXPECT_EQ(rewritten(" \r\n<a/>"), "<a></a>");
    EXPECT_EQ(rewritten("words > and = <a/>"), "<a></a>");
    EXPECT_EQ(rewritten("<?x v='1'?> words <a/> \t"), "<?xml v=\"1\"?>\r\n<a></a>");
}

TEST(XmldocParse, DecodesEntitiesInText) {
    EXPECT_EQ(value_of("<a>1 &lt; 2 &amp;&#65;&#x42;</a>"), "1 < 2 &AB");
    EXPECT_EQ(value_of("<a>&quot;&apos;&gt;&amp;lt;</a>"), "\"'>&lt;");
}

TEST(XmldocParse, LeavesEntitiesInAttributesAlone) {
    Document document("<a x='&lt;&#65;&'/>");
    ASSERT_EQ(document.code, 0);
    EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", "&lt;&#65;&"}}));
}

TEST(XmldocParse, NormalisesAttributeValues) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {" a \r\n b  ", "a b"},
        {"", ""},
        {"   ", ""},
        {"\r\n", ""},
        {"a\tb", "a b"},
        {"a\r\r\nb", "a b"},
        {"\ta\n", "a"},
        {"a  b   c", "a b c"},
        {"a b", "a b"},
        {"<>/=?'", "<>/=?'"},
        {"\xc3\xa9 \xff", "\xc3\xa9 \xff"},
    };
    for (const auto& [written, stored] : cases) {
        Document document("<a x=\"" + std::string(written) + "\"/>");
        ASSERT_EQ(document.code, 0) << written;
        EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", stored}})) << written;
    }
}

TEST(XmldocParse, TakesBlanksWhereATagMayHaveThem) {
    EXPECT_EQ(rewritten("<a \t\r\n x \t= \r\n'1' \n y='2'  />"), "<a x=\"1\" y=\"2\"></a>");
    EXPECT_EQ(rewritten("<a x='1'y='2'>v</a>"), "<a x=\"1\" y=\"2\">v</a>");
    EXPECT_EQ(rewritten("<a   >v</a>"), "<a>v</a>");
}

TEST(XmldocParse, EndsANameAtItsSixCharactersOnly) {
    EXPECT_EQ(rewritten("<a\tb:c.d-e_f\"'?&\xc3\xa9>v</a\tb:c.d-e_f\"'?&\xc3\xa9>"),
              "<a\tb:c.d-e_f\"'?&\xc3\xa9>v</a\tb:c.d-e_f\"'?&\xc3\xa9>");
    EXPECT_EQ(rewritten("<a='1'>v</a>"), "<a =\"1\">v</a>");  // an attribute without a name
}

TEST(XmldocParse, LooksAtTheCharacterBeforeTheTagsEndAlone) {
    EXPECT_EQ(rewritten("<a/b>v</a>"), "<a>v</a>");
    EXPECT_EQ(rewritten("<a / >v</a>"), "<a>v</a>");
    EXPECT_EQ(rewritten("<a x='1'/ y>v</a>"), "<a x=\"1\">v</a>");
    EXPECT_EQ(rewritten("<a x='1'?y>v</a>"), "<a x=\"1\">v</a>");
    EXPECT_EQ(rewritten("<r><a//></r>"), "<r><a></a></r>");
}

TEST(XmldocParse, ReadsATagThatEndsInAQuestionMarkAsDeclarationWhateverItsName) {
    Document document("<r><x y='1' ?></r>");
    ASSERT_EQ(document.code, 0);
    EXPECT_STREQ(document.declaration->name, "x");
    EXPECT_EQ(document.declaration->parent, document.root);
    EXPECT_EQ(document.root->first_child, nullptr);

    Document bare("<?xml?><r/>");
    ASSERT_EQ(bare.code, 0);
    EXPECT_STREQ(bare.declaration->name, "?xml?");
}

TEST(XmldocParse, LeavesElementsOpenAtTheEnd) {
    Document document("<a><b>");
    EXPECT_EQ(document.code, 0);
    EXPECT_STREQ(document.root->name, "a");
    EXPECT_THAT(children_of(document.root), ElementsAre("b"));
}

TEST(XmldocParse, FindsNothingInAnEmptyText) {
    Document document;
    EXPECT_EQ(xmldoc_parse(&document, ""), 0);
    EXPECT_EQ(xmldoc_parse(&document, nullptr), 0);
    EXPECT_EQ(xmldoc_parse(nullptr, nullptr), 0);
    EXPECT_EQ(xmldoc_parse(nullptr, "<a/>"), -1);
    EXPECT_EQ(document.root, nullptr);
}

TEST(XmldocParse, ReadsAndDropsFurtherTopLevelElements) {
    const int64_t before = live_allocations();
    {
        Document document("<a/><b x='1'>text<c>v</c></b><d/><e>open");
        EXPECT_EQ(document.code, -19);
        EXPECT_EQ(rewritten("<a/><b x='1'>text<c>v</c></b> <d/><e><f>"), "<a></a>");
        EXPECT_EQ(document.parse("<z>"), 0);  // the document has a root already
        EXPECT_STREQ(document.root->name, "a");
    }
    EXPECT_EQ(live_allocations(), before);
}

TEST(XmldocParse, StillChecksTheTagsOfADroppedElement) {
    EXPECT_EQ(code_of("<a/><b></c>"), -4);
    EXPECT_EQ(code_of("<a/></b>"), -1);
}

TEST(XmldocParse, KeepsADeclarationOfADroppedElementWithoutAParent) {
    for (const char* text : {"<a/><b><?x y='1'?></b>", "<a/><b><c><?x?></c></b>", "<a/><b><?x?>",
                             "<a/><b><?x?></wrong>"}) {
        Document document;
        xmldoc_parse(&document, text);
        ASSERT_NE(document.declaration, nullptr) << text;
        EXPECT_EQ(document.declaration->parent, nullptr) << text;
        EXPECT_STREQ(document.root->name, "a") << text;
    }
}

// --- parser: result codes -----------------------------------------------------------------------

TEST(XmldocParse, SaysWhichRuleBroke) {
    struct Rule {
        int code;
        std::vector<const char*> texts;
    };
    const std::vector<Rule> rules = {
        {-1, {"text", " ", "<", "<a/>x", "<a/><", "text<", "<a><b></b> "}},
        {-1, {"</a>", "</", "<a/></a>", "<a></a></a>"}},
        {-2, {"<a></a", "<a></"}},
        {-3, {"<a></>"}},
        {-4, {"<a></b>", "<a></a >", "<a></ a>", "<a></aa>", "<aa></a>", "<a><b></a></b>"}},
        {-5, {"<>", "<a><></a>"}},
        {-6, {"< a>", "<=>", "<\n>", "<\r>"}},
        {-7, {"<a", "<a><b", "<\t"}},
        {-8, {"<a ", "<a \t\r\n"}},
        {-9, {"<a x", "<a x='1' y"}},
        {-10, {"<a x ", "<a x \n"}},
        {-11, {"<a x>", "<a x/>", "<a\nx='1'>", "<a x\n='1'>", "<a x y='1'>", "<a\r>", "<?x ?>"}},
        {-12, {"<a x=", "<a x= "}},
        {-13, {"<a x=1>", "<a x=>"}},
        {-14, {"<a x='", "<a x=\""}},
        {-15, {"<a x='1", "<a x='1\">"}},
        {-16, {"<a x='1'", "<a x='1' "}},
        {-17, {"<?x v='1'?><?x v='1'?>", "<?x?><?x v='1'?", "<?x?><a v='1'?b>"}},
        {-18, {"<a/", "<a x='1'/", "<a x='1'?", "<a /"}},
        {-19, {"<a>text", "<a> ", "<a><b>text"}},
        {-20, {"<?x?><?x?>", "<?x v='1'?><?y?><r/>"}},
        {-30, {"<a>&</a>", "<a>&amp</a>", "<a>&12345678901;</a>"}},
        {0, {"", "<a>", "<a/>", "<a/> \r\n", "<a><b></b></a> ", "<?x?>", "<a/><b>"}},
    };
    for (const Rule& rule : rules)
        for (const char* text : rule.texts) EXPECT_EQ(code_of(text), rule.code) << text;
}

TEST(XmldocParse, KnowsNoCommentsSectionsOrDoctypes) {
    EXPECT_EQ(code_of("<!-- x --><a/>"), -11);
    EXPECT_EQ(code_of("<!--x-->"), 0);  // an open element of that name
    EXPECT_EQ(code_of("<![CDATA[x]]></a>"), -4);
    EXPECT_EQ(code_of("<!DOCTYPE a><a/>"), -11);
}

TEST(XmldocParse, KeepsWhatWasBuiltBeforeAFailure) {
    Document document("<?xml v='1'?><a x='1'>v<b/><c y='2' z></a>");
    EXPECT_EQ(document.code, -11);
    EXPECT_NE(document.declaration, nullptr);
    Buffer buffer;
    EXPECT_EQ(buffer.save(document, document.root), 0);
    EXPECT_EQ(buffer.text(), "<?xml v=\"1\"?>\r\n<a x=\"1\">v<b></b></a>");
}

TEST(XmldocParse, FreesTheElementUnderConstruction) {
    const int64_t before = live_allocations();
    for (const char* text : {"<a x='1' y>", "<a x='1'/", "<a>text", "<a>&x</a>", "<a x='1' y='2"}) {
        Document document(text);
        EXPECT_NE(document.code, 0) << text;
        EXPECT_EQ(document.root, nullptr) << text;
    }
    EXPECT_EQ(live_allocations(), before);
}

TEST(XmldocParse, BoundsNames) {
    const std::string longest(1023, 'n');
    const std::string longer(1024, 'n');
    EXPECT_EQ(rewritten("<" + longest + " " + longest + "='1'>v</" + longest + ">"),
              "<" + longest + " " + longest + "=\"1\">v</" + longest + ">");
    EXPECT_EQ(code_of("<" + longer + "/>"), -31);
    EXPECT_EQ(code_of("<" + longer), -31);
    EXPECT_EQ(code_of("<a " + longer + "='1'/>"), -31);
    EXPECT_EQ(code_of("<a " + longer), -31);
    EXPECT_EQ(code_of("<a></" + longer + ">"), -31);
    EXPECT_EQ(code_of("<a></" + longer), -2);
    EXPECT_EQ(code_of("<" + longest), -7);
    EXPECT_EQ(code_of("<a></" + longest + ">"), -4);
}

// One tag after the other with a code of its own, decided here from the text's shape alone: the
// prefix of a document ends in a place that says which code is due.
TEST(XmldocParse, GivesEveryPrefixTheCodeOfThePlaceWhereItEnds) {
    // Each character of the text, and below it the code of the text that ends right behind it:
    // letters stand for the codes ('a' is -1, 'b' is -2, ...), '.' for 0.
    const std::pair<const char*, const char*> documents[] = {
        {"<a x='1' y=\"2\">hi</a> ",  //
         "aghilnoppilnop.ssabb.."},
        {"<?x v = '1' ?> <r/>",  //
         "agghijllnoppr..agr."},
        {"<a>t<b/></a>",  //
         "ag.sagr.abb."},
        {"<a><b>&lt;</b>x</a>",  //
         "ag.ag.ssssabb.aabb."},
        {"<a/>\n<b></b>",  //
         "agr..ag.abb."},
    };
    for (const auto& [text, codes] : documents) {
        const std::string whole(text);
        std::string found;
        for (size_t length = 1; length <= whole.size(); ++length) {
            const int code = code_of(whole.substr(0, length));
            found += code == 0 ? '.' : static_cast<char>('a' - 1 - code);
        }
        EXPECT_EQ(found, codes) << text;
    }
}

TEST(XmldocParse, LogsNothing) {
    CapturedLog log;
    CapturedStderr err;
    code_of("<a></b>");
    code_of("<a>&</a>");
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(err.text(), "");
}

// --- parser: memory, depth, size ----------------------------------------------------------------

TEST(XmldocParse, LeavesTheDocumentAsItWasWhenMemoryIsOut) {
    for (FailingAllocations round; round.next();) {
        Document document;
        round.arm();
        const int code = xmldoc_parse(&document,
                                      "<?xml v='1'?><a x='1' y=' 2 '>t&amp;<b>u<c/></b></a>"
                                      "<d z='3'>w<e/></d>");
        round.disarm();
        EXPECT_EQ(code, round.hit() ? -32 : 0);
        EXPECT_EQ(document.root == nullptr, round.hit());
        EXPECT_EQ(document.declaration == nullptr, round.hit());
        xmldoc_free(&document, 0);
        EXPECT_EQ(document.parse("<again/>"), 0);
        EXPECT_STREQ(document.root->name, "again");
    }
    for (FailingAllocations round; round.next();) {
        Document document("<old>kept</old>");
        round.arm();
        const int code = xmldoc_parse(&document, "<?xml v='1'?><new>t<b/></new>");
        round.disarm();
        EXPECT_EQ(code, round.hit() ? -32 : 0);
        EXPECT_EQ(document.declaration == nullptr, round.hit());
        EXPECT_STREQ(document.root->value, "kept");
    }
}

constexpr size_t kDeep = 1'000'000;
constexpr size_t kSmallStack = 256 * 1024;

TEST(XmldocDepth, AMillionElementsDeepIsParsedSavedDumpedAndFreedOnASmallStack) {
    const std::string text = repeated("<a>", kDeep) + repeated("</a>", kDeep);
    std::string saved;
    std::string dumped;
    run_on_stack(kSmallStack, [&] {
        Document document;
        ASSERT_EQ(xmldoc_parse(&document, text.c_str()), 0);
        Buffer buffer;
        ASSERT_EQ(buffer.save(document, document.root), 0);
        saved = buffer.text();
        dumped = dump_of(document.root);
    });
    EXPECT_TRUE(saved == text);
    EXPECT_TRUE(dumped == text);
}

TEST(XmldocDepth, HoldsForOpenAndForDroppedElements) {
    run_on_stack(kSmallStack, [] {
        EXPECT_EQ(code_of("<r/>" + repeated("<a>", kDeep)), 0);
        EXPECT_EQ(code_of("<r/>" + repeated("<a>", kDeep) + "<"), -1);
        EXPECT_EQ(code_of(repeated("<a>", kDeep) + "</b>"), -4);
    });
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

TEST(XmldocParse, ReadsSixteenMegabytesOfEntitiesOrBlanksInOnePass) {
    constexpr size_t kSize = 16 * 1024 * 1024;
    EXPECT_EQ(value_of("<a>" + repeated("&lt;", kSize / 4) + "</a>").size(), kSize / 4);
    EXPECT_EQ(value_of("<a>" + repeated("&x;", kSize / 3) + "</a>").size(), kSize / 3 * 3);
    Document document("<a x=' " + std::string(kSize, ' ') + "b" + repeated("\r\n", kSize / 2) +
                      "c'/>");
    EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", "b c"}}));
    EXPECT_EQ(code_of("<a>" + repeated("&", kSize)), -19);
    EXPECT_EQ(code_of("<a>" + repeated("&", kSize) + "</a>"), -30);
}

// --- parser: files ------------------------------------------------------------------------------

TEST(XmldocParseFile, ReadsADocumentOfManyLines) {
    ScratchDirectory scratch;
    const std::string long_value(5000, 'v');
    const std::string path = scratch.write(
        "a.xml", "<?xml version='1.0'?>\n<a>\n<b>" + long_value + "</b>\n <c x='1\n2'/>\n</a>\n");
    xmldoc* document = xmldoc_parse_file(path.c_str());
    ASSERT_NE(document, nullptr);
    EXPECT_STREQ(document->root->value, "\n");
    EXPECT_EQ(xmldoc_node_get_value(document->root, "b"), long_value);
    EXPECT_STREQ(document->root->last_child->first_attribute->value, "1 2");
    xmldoc_free(document, 1);
}

TEST(XmldocParseFile, ReadsAnEmptyFileAsAnEmptyDocument) {
    ScratchDirectory scratch;
    xmldoc* document = xmldoc_parse_file(scratch.write("empty", "").c_str());
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(document->root, nullptr);
    xmldoc_free(document, 1);
}

TEST(XmldocParseFile, GoesOnAfterAnInterruptedRead) {
    ScratchDirectory scratch;
    const std::string path = scratch / "fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    struct sigaction interrupt {};
    struct sigaction before {};
    interrupt.sa_handler = [](int) {};  // without SA_RESTART: the read returns EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &interrupt, &before), 0);

    std::atomic<xmldoc*> document{nullptr};
    std::atomic<pid_t> reader_id{0};
    std::thread reader([&] {
        reader_id = static_cast<pid_t>(syscall(SYS_gettid));
        document = xmldoc_parse_file(path.c_str());
    });
    const int writer = open(path.c_str(), O_WRONLY);
    ASSERT_EQ(write(writer, "<a><b/>", 7), 7);
    const auto reader_sleeps_in_read = [&] {
        int unread = 1;
        ioctl(writer, FIONREAD, &unread);
        std::ifstream state("/proc/self/task/" + std::to_string(reader_id) + "/stat");
        const std::string text(std::istreambuf_iterator<char>(state), {});
        return unread == 0 && text.find(") S ") != text.npos;
    };
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(eventually(reader_sleeps_in_read));
        pthread_kill(reader.native_handle(), SIGUSR1);
    }
    ASSERT_EQ(write(writer, "<c/></a>\n", 9), 9);
    close(writer);
    reader.join();
    sigaction(SIGUSR1, &before, nullptr);

    ASSERT_NE(document.load(), nullptr);
    ASSERT_NE(document.load()->root, nullptr);
    EXPECT_NE(xmldoc_node_get(document.load()->root, "b"), nullptr);
    EXPECT_NE(xmldoc_node_get(document.load()->root, "c"), nullptr);
    xmldoc_free(document, 1);
}

TEST(XmldocParseFile, TakesADirectoryForAnEmptyDocument) {
    ScratchDirectory scratch;
    xmldoc* document = xmldoc_parse_file(scratch.path().c_str());
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(document->root, nullptr);
    xmldoc_free(document, 1);
}

TEST(XmldocParseFile, SaysThatTheFileCannotBeOpened) {
    CapturedLog log;
    EXPECT_EQ(xmldoc_parse_file("/nowhere/a.xml"), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:xmldoc:xmldoc_parse_file: fopen()(): No such file or directory"));
    EXPECT_EQ(xmldoc_parse_file(nullptr), nullptr);
}

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

TEST(XmldocDump, WritesToAnyStreamAndCutsNothing) {
    Document document;
    const std::string name(2000, 'n');
    document.root = xmldoc_node_create(name.c_str());
    xmldoc_node_attr_addval(document.root, "x", nullptr);
    EXPECT_EQ(dump_of(document.root, 77), "<" + name + " x=\"\"></" + name + ">");
    EXPECT_EQ(dump_of(nullptr), "");
    _xmldoc_node_dump_fd(document.root, nullptr, 0);
}

TEST(XmldocDump, EndsInFrontOfTheLevelsThatItHasNoMemoryFor) {
    Document document(repeated("<a>", 100));
    for (FailingAllocations round; round.next();) {
        const CapturedStdout out;
        fflush(stdout);
        round.arm();
        xmldoc_node_dump(document.root);
        round.disarm();
        EXPECT_EQ(out.text(),
                  round.hit() ? repeated("<a>", 65) : repeated("<a>", 100) + repeated("</a>", 100));
    }
}

// --- internal steps -----------------------------------------------------------------------------

TEST(XmldocSteps, SkipWhiteAndNames) {
    const char* const text = " \r\n\tname\t1 rest";
    EXPECT_EQ(_xmldoc_skip_white(text), text + 4);
    EXPECT_EQ(_xmldoc_skip_white(text + 4), text + 4);
    EXPECT_EQ(_xmldoc_skip_name(text + 4), text + 10);
    for (const char* name :
         {"name", "name rest", "name\rx", "name\nx", "name/x", "name>x", "name=x"})
        EXPECT_EQ(_xmldoc_skip_name(name), name + 4) << name;
    EXPECT_STREQ(_xmldoc_skip_white("  "), "");
    EXPECT_EQ(_xmldoc_skip_white(nullptr), nullptr);
    EXPECT_EQ(_xmldoc_skip_name(nullptr), nullptr);
}

TEST(XmldocSteps, ShiftLeftOverTheFirstBytes) {
    const std::pair<unsigned, const char*> cases[] = {{0, "abcdef"}, {2, "cdef"}, {5, "f"},
                                                      {6, ""},       {7, ""},     {UINT_MAX, ""}};
    for (const auto& [count, left] : cases) {
        char text[] = "abcdef";
        _xmldoc_shift_left(text, count);
        EXPECT_STREQ(text, left) << count;
    }
    _xmldoc_shift_left(nullptr, 1);
}

std::string after(void (*step)(char*), std::string text) {
    step(text.data());
    return text.c_str();
}

TEST(XmldocSteps, FirstStageTurnsBlanksIntoSpaces) {
    EXPECT_EQ(after(_xmldoc_attr_value_normalize_s1, "\r\na\rb\nc\td\n\r e\r\r\n"),
              " a b c d   e  ");
    EXPECT_EQ(after(_xmldoc_attr_value_normalize_s1, "abc"), "abc");
    EXPECT_EQ(after(_xmldoc_attr_value_normalize_s1, ""), "");
    EXPECT_EQ(after(_xmldoc_attr_value_normalize_s1, "\r"), " ");
    _xmldoc_attr_value_normalize_s1(nullptr);
}

TEST(XmldocSteps, SecondStageTrimsAndSqueezesSpacesAlone) {
    EXPECT_EQ(after(_xmldoc_attr_value_normalize_s2, "  a  b c   "), "a b c");
    EXPECT_EQ(after(_xmldoc_attr_value_normalize_s2, " \t  \n "), "\t \n");
    EXPECT_EQ(after(_xmldoc_attr_value_normalize_s2, "    "), "");
    EXPECT_EQ(after(_xmldoc_attr_value_normalize_s2, ""), "");
    _xmldoc_attr_value_normalize_s2(nullptr);
}

std::string decoded(std::string text, int result = 0) {
    EXPECT_EQ(_xmldoc_value_escape(text.data()), result) << text;
    return text.c_str();
}

TEST(XmldocSteps, DecodeTheFiveNamesAndNumbers) {
    EXPECT_EQ(decoded("&amp;&apos;&quot;&lt;&gt;"), "&'\"<>");
    EXPECT_EQ(decoded("a&#65;b&#x42;&#x4a;c"), "aAbBJc");
    EXPECT_EQ(decoded("&#321;&#x141;&#-191;"), "AAA");  // the low 8 bits
    EXPECT_EQ(decoded("plain"), "plain");
    EXPECT_EQ(decoded(""), "");
}

TEST(XmldocSteps, DecodeEachCharacterOnce) {
    EXPECT_EQ(decoded("&amp;lt;"), "&lt;");
    EXPECT_EQ(decoded("&#38;amp;"), "&amp;");
    EXPECT_EQ(decoded("&amp;#65;"), "&#65;");
}

TEST(XmldocSteps, DecodeABodyThatOnlyStartsWithAName) {
    EXPECT_EQ(decoded("&ampx;y"), "&;y");
    EXPECT_EQ(decoded("&ltgt;"), "<t;");
    EXPECT_EQ(decoded("&gtamp;"), ">mp;");
    EXPECT_EQ(decoded("&quota;"), "\";");
    EXPECT_EQ(decoded("&am;p;"), "&am;p;");
}

TEST(XmldocSteps, LeaveAnyOtherBodyAndGoOnBehindItsAmpersand) {
    EXPECT_EQ(decoded("&;&foo;&LT;&&amp;"), "&;&foo;&LT;&&");
    EXPECT_EQ(decoded("&a&lt;b"), "&a<b");
}

TEST(XmldocSteps, EndTheStringAtANumberThatComesToZero) {
    char text[] = "a&#0;b&lt;c";
    EXPECT_EQ(_xmldoc_value_escape(text), 0);
    EXPECT_EQ(std::string(text, 5), std::string("a\0b<c", 5));
    EXPECT_EQ(decoded("&#;x"), "");
    EXPECT_EQ(decoded("&#X41;x"), "");
    EXPECT_EQ(decoded("&#x;x"), "");
}

TEST(XmldocSteps, RefuseAnEntityWithoutItsEnd) {
    EXPECT_EQ(decoded("&lt;&", -2), "<&");
    EXPECT_EQ(decoded("&lt;a&lt b", -2), "<a&lt b");
    EXPECT_EQ(decoded("&gt;&1234567890123", -2), ">&1234567890123");
    EXPECT_EQ(decoded("&lt;&12345678901;&gt;", -3), "<&12345678901;&gt;");
    EXPECT_EQ(decoded("&1234567890;"), "&1234567890;");
    EXPECT_EQ(decoded("&#000000065;"), "A");
    EXPECT_EQ(decoded("&#0000000065;", -3), "&#0000000065;");
    EXPECT_EQ(_xmldoc_value_escape(nullptr), -1);
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
