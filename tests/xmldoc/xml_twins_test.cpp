// What holds for both XML documents. What is one document's own is in xmldoc_test.cpp and
// wxmldoc_test.cpp.

#include <tests/xmldoc/twins.h>

#include <tests/support/capture.h>
#include <tests/support/faults.h>
#include <tests/support/process.h>
#include <tests/support/scratch.h>

#include <gmock/gmock.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <iterator>
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

namespace {

struct Names {
    template <class Xml>
    static std::string GetName(int) {
        return Xml::kModule;
    }
};
using Documents = testing::Types<Narrow, Wide>;

template <class Xml>
struct XmlDocument : testing::Test {};
TYPED_TEST_SUITE(XmlDocument, Documents, Names);
template <class Xml>
struct XmlNode : testing::Test {};
TYPED_TEST_SUITE(XmlNode, Documents, Names);
template <class Xml>
struct XmlAttr : testing::Test {};
TYPED_TEST_SUITE(XmlAttr, Documents, Names);
template <class Xml>
struct XmlParse : testing::Test {};
TYPED_TEST_SUITE(XmlParse, Documents, Names);
template <class Xml>
struct XmlDepth : testing::Test {};
TYPED_TEST_SUITE(XmlDepth, Documents, Names);
template <class Xml>
struct XmlParseFile : testing::Test {};
TYPED_TEST_SUITE(XmlParseFile, Documents, Names);
template <class Xml>
struct XmlDump : testing::Test {};
TYPED_TEST_SUITE(XmlDump, Documents, Names);
template <class Xml>
struct XmlSteps : testing::Test {};
TYPED_TEST_SUITE(XmlSteps, Documents, Names);

// An argument spelled in bytes; a null one stays null.
template <class Xml>
class Spelled {
  public:
    Spelled(const char* text) : text_(Xml::spell(text ? text : "")), is_null_(!text) {}
    operator const typename Xml::Char *() const { return is_null_ ? nullptr : text_.c_str(); }

  private:
    std::basic_string<typename Xml::Char> text_;
    bool is_null_;
};

template <class Xml>
auto* new_node(const char* name) {
    return Xml::node_create(Spelled<Xml>(name));
}
template <class Xml>
auto* child(const typename Xml::Node* node, const char* name) {
    return Xml::node_get(node, Spelled<Xml>(name));
}
template <class Xml>
auto* new_attr(const char* name, const char* value) {
    return Xml::attr_create(Spelled<Xml>(name), Spelled<Xml>(value));
}
template <class Xml>
void add_attr(typename Xml::Node* node, const char* name, const char* value) {
    Xml::attr_addval(node, Spelled<Xml>(name), Spelled<Xml>(value));
}
template <class Xml>
auto* attr(const typename Xml::Node* node, const char* name) {
    return Xml::attr_get(node, Spelled<Xml>(name));
}
template <class Xml>
auto* attr_value(const typename Xml::Node* node, const char* name) {
    return Xml::attr_get_value(node, Spelled<Xml>(name));
}

// Parses a text that must be right and gives back its root as the dump spells it.
template <class Xml>
std::string rewritten(const std::string& text) {
    Document<Xml> document(text);
    EXPECT_EQ(document.code, 0) << text;
    return dump_of<Xml>(document.root);
}

template <class Xml>
std::string value_of(const std::string& text) {
    Document<Xml> document(text);
    EXPECT_EQ(document.code, 0) << text;
    return document.root ? text_of(document.root->value) : "(null)";
}

template <class Xml>
std::string after(void (*step)(typename Xml::Char*), const std::string& text) {
    auto changed = Xml::spell(text);
    step(changed.data());
    return text_of(changed.c_str());
}

template <class Xml>
std::string decoded(const std::string& text, int result = 0) {
    auto changed = Xml::spell(text);
    EXPECT_EQ(Xml::value_escape(changed.data()), result) << text;
    return text_of(changed.c_str());
}

constexpr size_t kDeep = 1'000'000;
constexpr size_t kSmallStack = 256 * 1024;

// --- documents -----------------------------------------------------------------------------------

TYPED_TEST(XmlDocument, StartsEmpty) {
    auto* document = TypeParam::create();
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(document->declaration, nullptr);
    EXPECT_EQ(document->root, nullptr);
    TypeParam::free(document, 1);
}

TYPED_TEST(XmlDocument, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation(TypeParam::create, [](auto* d) { TypeParam::free(d, 1); });
}

TYPED_TEST(XmlDocument, FreeKeepsOrFreesTheRecordAsAsked) {
    const int64_t before = live_allocations();
    auto* document = TypeParam::create();
    TypeParam::parse(document, "<?xml v='1'?><msg x='1'>text</msg>");
    TypeParam::free(document, 0);
    EXPECT_EQ(document->declaration, nullptr);
    EXPECT_EQ(document->root, nullptr);
    EXPECT_EQ(live_allocations(), before + 1);
    TypeParam::free(document, 7);
    EXPECT_EQ(live_allocations(), before);
    TypeParam::free(nullptr, 1);
}

// --- nodes ---------------------------------------------------------------------------------------

TYPED_TEST(XmlNode, HasACopyOfItsNameAndNothingElse) {
    char name[] = "item";
    auto* node = new_node<TypeParam>(name);
    ASSERT_NE(node, nullptr);
    name[0] = 'x';
    EXPECT_EQ(text_of(node->name), "item");
    typename TypeParam::Node expected{};
    expected.name = node->name;
    EXPECT_EQ(memcmp(node, &expected, sizeof expected), 0);
    TypeParam::node_free(node);
    EXPECT_EQ(TypeParam::node_create(nullptr), nullptr);
}

TYPED_TEST(XmlNode, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation([] { return new_node<TypeParam>("item"); }, TypeParam::node_free);
}

TYPED_TEST(XmlNode, AppendsChildrenInOrderAndSetsNoParent) {
    auto* top = new_node<TypeParam>("top");
    auto* a = new_node<TypeParam>("a");
    auto* b = new_node<TypeParam>("b");
    TypeParam::node_add(top, a);
    TypeParam::node_add(top, b);
    EXPECT_EQ(top->first_child, a);
    EXPECT_EQ(top->last_child, b);
    EXPECT_EQ(a->previous_sibling, nullptr);
    EXPECT_EQ(a->next_sibling, b);
    EXPECT_EQ(b->previous_sibling, a);
    EXPECT_EQ(b->next_sibling, nullptr);
    EXPECT_EQ(a->parent, nullptr);

    TypeParam::node_add(nullptr, a);
    TypeParam::node_add(top, nullptr);
    EXPECT_THAT(children_of(top), ElementsAre("a", "b"));
    TypeParam::node_free(top);
    TypeParam::node_free(nullptr);
}

TYPED_TEST(XmlNode, IsFoundByNameAmongTheChildren) {
    Document<TypeParam> document("<r><a>1</a><b>2</b><b>3</b><B/></r>");
    EXPECT_EQ(text_of(child<TypeParam>(document.root, "b")->value), "2");
    EXPECT_EQ(child<TypeParam>(document.root, "r"), nullptr);
    EXPECT_EQ(child<TypeParam>(document.root, "bb"), nullptr);
    EXPECT_EQ(child<TypeParam>(document.root, nullptr), nullptr);
    EXPECT_EQ(child<TypeParam>(nullptr, "b"), nullptr);
}

// --- attributes ----------------------------------------------------------------------------------

TYPED_TEST(XmlAttr, CopiesWhatIsThere) {
    auto* attribute = new_attr<TypeParam>("name", nullptr);
    EXPECT_EQ(text_of(attribute->name), "name");
    EXPECT_EQ(attribute->value, nullptr);
    EXPECT_EQ(attribute->previous, nullptr);
    EXPECT_EQ(attribute->next, nullptr);
    auto* node = new_node<TypeParam>("n");
    TypeParam::attr_add(node, attribute);
    TypeParam::attr_add(node, new_attr<TypeParam>(nullptr, "value"));
    add_attr<TypeParam>(node, "x", "1");
    TypeParam::attr_add(node, nullptr);
    EXPECT_EQ(attributes_of(node), (Pairs{{"name", "(null)"}, {"(null)", "value"}, {"x", "1"}}));
    EXPECT_EQ(node->last_attribute->previous->previous, attribute);

    EXPECT_EQ(text_of(attr_value<TypeParam>(node, "x")), "1");
    EXPECT_EQ(attr<TypeParam>(node, "x"), node->last_attribute);
    EXPECT_EQ(attr_value<TypeParam>(node, "name"), nullptr);
    EXPECT_EQ(attr<TypeParam>(node, "y"), nullptr);
    EXPECT_EQ(attr<TypeParam>(node, nullptr), nullptr);
    EXPECT_EQ(attr_value<TypeParam>(node, "y"), nullptr);
    EXPECT_EQ(attr<TypeParam>(nullptr, "x"), nullptr);
    EXPECT_EQ(attr_value<TypeParam>(nullptr, "x"), nullptr);
    TypeParam::node_free(node);
}

TYPED_TEST(XmlAttr, OfNoNodeIsNotMade) {
    const int64_t before = live_allocations();
    add_attr<TypeParam>(nullptr, "x", "1");
    EXPECT_EQ(live_allocations(), before);
    auto* attribute = new_attr<TypeParam>("x", "1");
    TypeParam::attr_add(nullptr, attribute);
    auto* node = new_node<TypeParam>("n");
    TypeParam::attr_add(node, attribute);
    TypeParam::node_free(node);
    EXPECT_EQ(live_allocations(), before);
}

TYPED_TEST(XmlAttr, IsNotMadeWhenMemoryIsOut) {
    for_each_failing_allocation([] { return new_attr<TypeParam>("x", "1"); },
                                [](auto* attribute) {
                                    free(attribute->name);
                                    free(attribute->value);
                                    free(attribute);
                                });
    for (FailingAllocations round; round.next();) {
        auto* node = new_node<TypeParam>("n");
        round.arm();
        add_attr<TypeParam>(node, "x", "1");
        round.disarm();
        EXPECT_EQ(attributes_of(node), round.hit() ? Pairs{} : (Pairs{{"x", "1"}}));
        TypeParam::node_free(node);
    }
}

// --- parser: what it builds ----------------------------------------------------------------------

TYPED_TEST(XmlParse, ReadsAttributesInOrderAndTheValue) {
    Document<TypeParam> document("<a x='1' y=\"2\">hi</a>");
    ASSERT_EQ(document.code, 0);
    EXPECT_EQ(text_of(document.root->name), "a");
    EXPECT_EQ(text_of(document.root->value), "hi");
    EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", "1"}, {"y", "2"}}));
    EXPECT_EQ(document.declaration, nullptr);
}

TYPED_TEST(XmlParse, KeepsTheDeclarationApart) {
    Document<TypeParam> document("<?xml version=\"1.0\"?><r/>");
    ASSERT_EQ(document.code, 0);
    EXPECT_EQ(text_of(document.declaration->name), "?xml");
    EXPECT_EQ(attributes_of(document.declaration), (Pairs{{"version", "1.0"}}));
    EXPECT_EQ(document.declaration->parent, nullptr);
    EXPECT_EQ(text_of(document.root->name), "r");
    EXPECT_EQ(document.root->value, nullptr);
}

TYPED_TEST(XmlParse, LinksParentsAndSiblings) {
    Document<TypeParam> document("<a><b><c/></b><d/></a>");
    ASSERT_EQ(document.code, 0);
    const auto* const a = document.root;
    const auto* const b = a->first_child;
    const auto* const d = a->last_child;
    EXPECT_EQ(a->parent, nullptr);
    EXPECT_EQ(b->parent, a);
    EXPECT_EQ(d->parent, a);
    EXPECT_EQ(b->first_child->parent, b);
    EXPECT_EQ(b->next_sibling, d);
    EXPECT_EQ(d->previous_sibling, b);
    EXPECT_EQ(a->next_sibling, nullptr);
}

TYPED_TEST(XmlParse, KeepsTheTextBehindAnOpeningTagAsItIs) {
    EXPECT_EQ(value_of<TypeParam>("<a>\r\n <b/></a>"), "\r\n ");
    EXPECT_EQ(value_of<TypeParam>("<a> x  y </a>"), " x  y ");
    EXPECT_EQ(value_of<TypeParam>("<a></a>"), "(null)");
    EXPECT_EQ(value_of<TypeParam>("<a/>"), "(null)");
    EXPECT_EQ(value_of<TypeParam>("<a>a>b/='\"</a>"), "a>b/='\"");
}

TYPED_TEST(XmlParse, DropsTextBehindAChild) {
    EXPECT_EQ(rewritten<TypeParam>("<a><b>x</b>tail</a>"), "<a><b>x</b></a>");
    EXPECT_EQ(rewritten<TypeParam>("<a>head<b/>tail<c>x</c>end</a>"), "<a>head<b></b><c>x</c></a>");
}

TYPED_TEST(XmlParse, DropsTextInFrontOfTheFirstTag) {
    EXPECT_EQ(rewritten<TypeParam>(" \r\n<a/>"), "<a></a>");
    EXPECT_EQ(rewritten<TypeParam>("words > and = <a/>"), "<a></a>");
    EXPECT_EQ(rewritten<TypeParam>("<?x v='1'?> words <a/> \t"), "<a></a>");
}

TYPED_TEST(XmlParse, DecodesEntitiesInText) {
    EXPECT_EQ(value_of<TypeParam>("<a>1 &lt; 2 &amp;&#65;&#x42;</a>"), "1 < 2 &AB");
    EXPECT_EQ(value_of<TypeParam>("<a>&quot;&apos;&gt;&amp;lt;</a>"), "\"'>&lt;");
}

TYPED_TEST(XmlParse, LeavesEntitiesInAttributesAlone) {
    Document<TypeParam> document("<a x='&lt;&#65;&'/>");
    ASSERT_EQ(document.code, 0);
    EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", "&lt;&#65;&"}}));
}

TYPED_TEST(XmlParse, NormalisesAttributeValues) {
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
        Document<TypeParam> document("<a x=\"" + std::string(written) + "\"/>");
        ASSERT_EQ(document.code, 0) << written;
        EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", stored}})) << written;
    }
}

TYPED_TEST(XmlParse, TakesBlanksWhereATagMayHaveThem) {
    EXPECT_EQ(rewritten<TypeParam>("<a \t\r\n x \t= \r\n'1' \n y='2'  />"),
              "<a x=\"1\" y=\"2\"></a>");
    EXPECT_EQ(rewritten<TypeParam>("<a x='1'y='2'>v</a>"), "<a x=\"1\" y=\"2\">v</a>");
    EXPECT_EQ(rewritten<TypeParam>("<a   >v</a>"), "<a>v</a>");
}

TYPED_TEST(XmlParse, EndsANameAtItsSixCharactersOnly) {
    EXPECT_EQ(rewritten<TypeParam>("<a\tb:c.d-e_f\"'?&\xc3\xa9>v</a\tb:c.d-e_f\"'?&\xc3\xa9>"),
              "<a\tb:c.d-e_f\"'?&\xc3\xa9>v</a\tb:c.d-e_f\"'?&\xc3\xa9>");
    EXPECT_EQ(rewritten<TypeParam>("<a='1'>v</a>"),
              "<a =\"1\">v</a>");  // an attribute without a name
}

TYPED_TEST(XmlParse, LooksAtTheCharacterBeforeTheTagsEndAlone) {
    EXPECT_EQ(rewritten<TypeParam>("<a/b>v</a>"), "<a>v</a>");
    EXPECT_EQ(rewritten<TypeParam>("<a / >v</a>"), "<a>v</a>");
    EXPECT_EQ(rewritten<TypeParam>("<a x='1'/ y>v</a>"), "<a x=\"1\">v</a>");
    EXPECT_EQ(rewritten<TypeParam>("<a x='1'?y>v</a>"), "<a x=\"1\">v</a>");
    EXPECT_EQ(rewritten<TypeParam>("<r><a//></r>"), "<r><a></a></r>");
}

TYPED_TEST(XmlParse, ReadsATagThatEndsInAQuestionMarkAsDeclarationWhateverItsName) {
    Document<TypeParam> document("<r><x y='1' ?></r>");
    ASSERT_EQ(document.code, 0);
    EXPECT_EQ(text_of(document.declaration->name), "x");
    EXPECT_EQ(document.declaration->parent, document.root);
    EXPECT_EQ(document.root->first_child, nullptr);

    Document<TypeParam> bare("<?xml?><r/>");
    ASSERT_EQ(bare.code, 0);
    EXPECT_EQ(text_of(bare.declaration->name), "?xml?");
}

TYPED_TEST(XmlParse, LeavesElementsOpenAtTheEnd) {
    Document<TypeParam> document("<a><b>");
    EXPECT_EQ(document.code, 0);
    EXPECT_EQ(text_of(document.root->name), "a");
    EXPECT_THAT(children_of(document.root), ElementsAre("b"));
}

TYPED_TEST(XmlParse, ReadsAndDropsFurtherTopLevelElements) {
    const int64_t before = live_allocations();
    {
        Document<TypeParam> document("<a/><b x='1'>text<c>v</c></b><d/><e>open");
        EXPECT_EQ(document.code, -19);
        EXPECT_EQ(code_of<TypeParam>("<a/><b x='1'>text<c>v</c></b> <d/><e><f>"), 0);
        EXPECT_EQ(document.parse("<z>"), 0);  // the document has a root already
        EXPECT_EQ(text_of(document.root->name), "a");
        EXPECT_THAT(children_of(document.root), ElementsAre());
    }
    EXPECT_EQ(live_allocations(), before);
}

TYPED_TEST(XmlParse, StillChecksTheTagsOfADroppedElement) {
    EXPECT_EQ(code_of<TypeParam>("<a/><b></c>"), -4);
    EXPECT_EQ(code_of<TypeParam>("<a/></b>"), -1);
}

TYPED_TEST(XmlParse, KeepsADeclarationOfADroppedElementWithoutAParent) {
    for (const char* text : {"<a/><b><?x y='1'?></b>", "<a/><b><c><?x?></c></b>", "<a/><b><?x?>",
                             "<a/><b><?x?></wrong>"}) {
        Document<TypeParam> document;
        document.parse(text);
        ASSERT_NE(document.declaration, nullptr) << text;
        EXPECT_EQ(document.declaration->parent, nullptr) << text;
        EXPECT_EQ(text_of(document.root->name), "a") << text;
    }
}

// --- parser: result codes ------------------------------------------------------------------------

TYPED_TEST(XmlParse, SaysWhichRuleBroke) {
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
        {TypeParam::kBadEntity, {"<a>&</a>", "<a>&amp</a>", "<a>&12345678901;</a>"}},
        {0, {"", "<a>", "<a/>", "<a/> \r\n", "<a><b></b></a> ", "<?x?>", "<a/><b>"}},
    };
    for (const Rule& rule : rules)
        for (const char* text : rule.texts) EXPECT_EQ(code_of<TypeParam>(text), rule.code) << text;
}

TYPED_TEST(XmlParse, KeepsWhatWasBuiltBeforeAFailure) {
    Document<TypeParam> document("<?xml v='1'?><a x='1'>v<b/><c y='2' z></a>");
    EXPECT_EQ(document.code, -11);
    ASSERT_NE(document.declaration, nullptr);
    EXPECT_EQ(attributes_of(document.declaration), (Pairs{{"v", "1"}}));
    EXPECT_EQ(dump_of<TypeParam>(document.root), "<a x=\"1\">v<b></b></a>");
}

TYPED_TEST(XmlParse, FreesTheElementUnderConstruction) {
    const int64_t before = live_allocations();
    for (const char* text : {"<a x='1' y>", "<a x='1'/", "<a>text", "<a>&x</a>", "<a x='1' y='2"}) {
        Document<TypeParam> document(text);
        EXPECT_NE(document.code, 0) << text;
        EXPECT_EQ(document.root, nullptr) << text;
    }
    EXPECT_EQ(live_allocations(), before);
}

TYPED_TEST(XmlParse, BoundsNames) {
    const std::string longest(1023, 'n');
    const std::string longer(1024, 'n');
    EXPECT_EQ(rewritten<TypeParam>("<" + longest + " " + longest + "='1'>v</" + longest + ">"),
              "<" + longest + " " + longest + "=\"1\">v</" + longest + ">");
    EXPECT_EQ(code_of<TypeParam>("<" + longer + "/>"), -31);
    EXPECT_EQ(code_of<TypeParam>("<" + longer), -31);
    EXPECT_EQ(code_of<TypeParam>("<a " + longer + "='1'/>"), -31);
    EXPECT_EQ(code_of<TypeParam>("<a " + longer), -31);
    EXPECT_EQ(code_of<TypeParam>("<a></" + longer + ">"), -31);
    EXPECT_EQ(code_of<TypeParam>("<a></" + longer), -2);
    EXPECT_EQ(code_of<TypeParam>("<" + longest), -7);
    EXPECT_EQ(code_of<TypeParam>("<a></" + longest + ">"), -4);
}

// One tag after the other with a code of its own, decided here from the text's shape alone: the
// prefix of a document ends in a place that says which code is due.
TYPED_TEST(XmlParse, GivesEveryPrefixTheCodeOfThePlaceWhereItEnds) {
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
            const int code = code_of<TypeParam>(whole.substr(0, length));
            found += code == 0 ? '.' : static_cast<char>('a' - 1 - code);
        }
        EXPECT_EQ(found, codes) << text;
    }
}

// --- parser: memory, depth, size -----------------------------------------------------------------

TYPED_TEST(XmlParse, LeavesTheDocumentAsItWasWhenMemoryIsOut) {
    for (FailingAllocations round; round.next();) {
        Document<TypeParam> document;
        round.arm();
        const int code = document.parse(
            "<?xml v='1'?><a x='1' y=' 2 '>t&amp;<b>u<c/></b></a>"
            "<d z='3'>w<e/></d>");
        round.disarm();
        EXPECT_EQ(code, round.hit() ? -32 : 0);
        EXPECT_EQ(document.root == nullptr, round.hit());
        EXPECT_EQ(document.declaration == nullptr, round.hit());
        TypeParam::free(&document, 0);
        EXPECT_EQ(document.parse("<again/>"), 0);
        EXPECT_EQ(text_of(document.root->name), "again");
    }
    for (FailingAllocations round; round.next();) {
        Document<TypeParam> document("<old>kept</old>");
        round.arm();
        const int code = document.parse("<?xml v='1'?><new>t<b/></new>");
        round.disarm();
        EXPECT_EQ(code, round.hit() ? -32 : 0);
        EXPECT_EQ(document.declaration == nullptr, round.hit());
        EXPECT_EQ(text_of(document.root->value), "kept");
    }
}

TYPED_TEST(XmlDepth, AMillionElementsDeepIsParsedDumpedAndFreedOnASmallStack) {
    const std::string text = repeated("<a>", kDeep) + repeated("</a>", kDeep);
    std::string dumped;
    run_on_stack(kSmallStack, [&] { dumped = rewritten<TypeParam>(text); });
    EXPECT_TRUE(dumped == text);
}

TYPED_TEST(XmlDepth, HoldsForTreesMadeByHandWhichHaveNoParentLinks) {
    run_on_stack(kSmallStack, [] {
        constexpr size_t kLevels = 100'000;
        Document<TypeParam> document;
        document.root = new_node<TypeParam>("a");
        auto* last = document.root;
        for (size_t i = 0; i < kLevels; ++i) {
            auto* const next = new_node<TypeParam>("a");
            TypeParam::node_add(last, next);
            TypeParam::node_add(last, new_node<TypeParam>("b"));
            last = next;
        }
        EXPECT_EQ(dump_of<TypeParam>(document.root),
                  repeated("<a>", kLevels + 1) + "</a>" + repeated("<b></b></a>", kLevels));
    });
}

TYPED_TEST(XmlDepth, HoldsForOpenAndForDroppedElements) {
    run_on_stack(kSmallStack, [] {
        EXPECT_EQ(code_of<TypeParam>("<r/>" + repeated("<a>", kDeep)), 0);
        EXPECT_EQ(code_of<TypeParam>("<r/>" + repeated("<a>", kDeep) + "<"), -1);
        EXPECT_EQ(code_of<TypeParam>(repeated("<a>", kDeep) + "</b>"), -4);
    });
}

TYPED_TEST(XmlParse, ReadsMegabytesOfEntitiesOrBlanksInOnePass) {
    constexpr size_t kSize = 4 * 1024 * 1024;
    EXPECT_EQ(value_of<TypeParam>("<a>" + repeated("&lt;", kSize / 4) + "</a>").size(), kSize / 4);
    EXPECT_EQ(value_of<TypeParam>("<a>" + repeated("&x;", kSize / 3) + "</a>").size(),
              kSize / 3 * 3);
    Document<TypeParam> document("<a x=' " + std::string(kSize, ' ') + "b" +
                                 repeated("\r\n", kSize / 2) + "c'/>");
    EXPECT_EQ(attributes_of(document.root), (Pairs{{"x", "b c"}}));
    EXPECT_EQ(code_of<TypeParam>("<a>" + repeated("&", kSize)), -19);
    EXPECT_EQ(code_of<TypeParam>("<a>" + repeated("&", kSize) + "</a>"), TypeParam::kBadEntity);
}

// --- parser: files -------------------------------------------------------------------------------

TYPED_TEST(XmlParseFile, ReadsADocumentOfManyLines) {
    ScratchDirectory scratch;
    const std::string long_value(5000, 'v');
    const std::string path = scratch.write(
        "a.xml", "<?xml version='1.0'?>\n<a>\n<b>" + long_value + "</b>\n <c x='1\n2'/>\n</a>\n");
    auto* document = TypeParam::parse_file(path.c_str());
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(text_of(document->root->value), "\n");
    EXPECT_EQ(text_of(child<TypeParam>(document->root, "b")->value), long_value);
    EXPECT_EQ(text_of(document->root->last_child->first_attribute->value), "1 2");
    TypeParam::free(document, 1);
}

TYPED_TEST(XmlParseFile, ReadsAnEmptyFileAsAnEmptyDocument) {
    ScratchDirectory scratch;
    auto* document = TypeParam::parse_file(scratch.write("empty", "").c_str());
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(document->root, nullptr);
    TypeParam::free(document, 1);
}

TYPED_TEST(XmlParseFile, GoesOnAfterAnInterruptedRead) {
    ScratchDirectory scratch;
    const std::string path = scratch / "fifo";
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    struct sigaction interrupt {};
    struct sigaction before {};
    interrupt.sa_handler = [](int) {};  // without SA_RESTART: the read returns EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &interrupt, &before), 0);

    std::atomic<typename TypeParam::Record*> document{nullptr};
    std::atomic<pid_t> reader_id{0};
    std::thread reader([&] {
        reader_id = static_cast<pid_t>(syscall(SYS_gettid));
        document = TypeParam::parse_file(path.c_str());
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
    EXPECT_NE(child<TypeParam>(document.load()->root, "b"), nullptr);
    EXPECT_NE(child<TypeParam>(document.load()->root, "c"), nullptr);
    TypeParam::free(document, 1);
}

TYPED_TEST(XmlParseFile, TakesADirectoryForAnEmptyDocument) {
    ScratchDirectory scratch;
    auto* document = TypeParam::parse_file(scratch.path().c_str());
    ASSERT_NE(document, nullptr);
    EXPECT_EQ(document->root, nullptr);
    TypeParam::free(document, 1);
}

TYPED_TEST(XmlParseFile, SaysThatTheFileCannotBeOpened) {
    CapturedLog log;
    EXPECT_EQ(TypeParam::parse_file("/nowhere/a.xml"), nullptr);
    EXPECT_THAT(log.lines(),
                ElementsAre("WARN:" + std::string(TypeParam::kModule) + ":" + TypeParam::kModule +
                            "_parse_file: fopen()(): No such file or directory"));
    EXPECT_EQ(TypeParam::parse_file(nullptr), nullptr);
}

// --- dump ----------------------------------------------------------------------------------------

TYPED_TEST(XmlDump, WritesToAnyStreamAndCutsNothing) {
    Document<TypeParam> document;
    const std::string name(2000, 'n');
    document.root = new_node<TypeParam>(name.c_str());
    add_attr<TypeParam>(document.root, "x", nullptr);
    EXPECT_EQ(dump_of<TypeParam>(document.root, 77), "<" + name + " x=\"\"></" + name + ">");
    EXPECT_EQ(dump_of<TypeParam>(nullptr), "");
    TypeParam::dump_fd(document.root, nullptr, 0);
}

TYPED_TEST(XmlDump, WritesOneNodeWithoutItsSiblingsAndTrustsTheText) {
    Document<TypeParam> document("<?xml v='1'?><r><a x='&lt;\"'>&lt;b>&amp;<c/></a><d/></r>");
    ASSERT_EQ(document.code, 0);
    EXPECT_EQ(dump_of<TypeParam>(document.root->first_child), "<a x=\"&lt;\"\"><b>&<c></c></a>");
}

TYPED_TEST(XmlDump, EndsInFrontOfTheLevelsThatItHasNoMemoryFor) {
    Document<TypeParam> document(repeated("<a>", 100));
    Dump<TypeParam> dump;
    for (FailingAllocations round; round.next();) {
        round.arm();
        const std::string dumped = dump.of(document.root);
        round.disarm();
        EXPECT_EQ(dumped,
                  round.hit() ? repeated("<a>", 65) : repeated("<a>", 100) + repeated("</a>", 100));
    }
}

// --- internal steps ------------------------------------------------------------------------------

TYPED_TEST(XmlSteps, SkipWhiteAndNames) {
    const auto spelled = TypeParam::spell(" \r\n\tname\t1 rest");
    const auto* const text = spelled.c_str();
    EXPECT_EQ(TypeParam::skip_white(text), text + 4);
    EXPECT_EQ(TypeParam::skip_white(text + 4), text + 4);
    EXPECT_EQ(TypeParam::skip_name(text + 4), text + 10);
    for (const char* ended :
         {"name", "name rest", "name\rx", "name\nx", "name/x", "name>x", "name=x"}) {
        const auto name = TypeParam::spell(ended);
        EXPECT_EQ(TypeParam::skip_name(name.c_str()), name.c_str() + 4) << ended;
    }
    const auto blanks = TypeParam::spell("  ");
    EXPECT_EQ(TypeParam::skip_white(blanks.c_str()), blanks.c_str() + 2);
    EXPECT_EQ(TypeParam::skip_white(nullptr), nullptr);
    EXPECT_EQ(TypeParam::skip_name(nullptr), nullptr);
}

TYPED_TEST(XmlSteps, ShiftLeftOverTheFirstBytes) {
    const std::pair<unsigned, const char*> cases[] = {{0, "abcdef"}, {2, "cdef"}, {5, "f"},
                                                      {6, ""},       {7, ""},     {UINT_MAX, ""}};
    for (const auto& [count, left] : cases) {
        auto text = TypeParam::spell("abcdef");
        TypeParam::shift_left(text.data(), count);
        EXPECT_EQ(text_of(text.c_str()), left) << count;
    }
    TypeParam::shift_left(nullptr, 1);
}

TYPED_TEST(XmlSteps, FirstStageTurnsBlanksIntoSpaces) {
    EXPECT_EQ(after<TypeParam>(TypeParam::normalize_s1, "\r\na\rb\nc\td\n\r e\r\r\n"),
              " a b c d   e  ");
    EXPECT_EQ(after<TypeParam>(TypeParam::normalize_s1, "abc"), "abc");
    EXPECT_EQ(after<TypeParam>(TypeParam::normalize_s1, ""), "");
    EXPECT_EQ(after<TypeParam>(TypeParam::normalize_s1, "\r"), " ");
    TypeParam::normalize_s1(nullptr);
}

TYPED_TEST(XmlSteps, SecondStageTrimsAndSqueezesSpacesAlone) {
    EXPECT_EQ(after<TypeParam>(TypeParam::normalize_s2, "  a  b c   "), "a b c");
    EXPECT_EQ(after<TypeParam>(TypeParam::normalize_s2, " \t  \n "), "\t \n");
    EXPECT_EQ(after<TypeParam>(TypeParam::normalize_s2, "    "), "");
    EXPECT_EQ(after<TypeParam>(TypeParam::normalize_s2, ""), "");
    TypeParam::normalize_s2(nullptr);
}

TYPED_TEST(XmlSteps, DecodeTheFiveNamesAndNumbers) {
    EXPECT_EQ(decoded<TypeParam>("&amp;&apos;&quot;&lt;&gt;"), "&'\"<>");
    EXPECT_EQ(decoded<TypeParam>("a&#65;b&#x42;&#x4a;c"), "aAbBJc");
    EXPECT_EQ(decoded<TypeParam>("plain"), "plain");
    EXPECT_EQ(decoded<TypeParam>(""), "");
}

TYPED_TEST(XmlSteps, DecodeEachCharacterOnce) {
    EXPECT_EQ(decoded<TypeParam>("&amp;lt;"), "&lt;");
    EXPECT_EQ(decoded<TypeParam>("&#38;amp;"), "&amp;");
    EXPECT_EQ(decoded<TypeParam>("&amp;#65;"), "&#65;");
}

TYPED_TEST(XmlSteps, DecodeABodyThatOnlyStartsWithAName) {
    EXPECT_EQ(decoded<TypeParam>("&ampx;y"), "&;y");
    EXPECT_EQ(decoded<TypeParam>("&ltgt;"), "<t;");
    EXPECT_EQ(decoded<TypeParam>("&gtamp;"), ">mp;");
    EXPECT_EQ(decoded<TypeParam>("&quota;"), "\";");
    EXPECT_EQ(decoded<TypeParam>("&am;p;"), "&am;p;");
}

TYPED_TEST(XmlSteps, LeaveAnyOtherBodyAndGoOnBehindItsAmpersand) {
    EXPECT_EQ(decoded<TypeParam>("&;&foo;&LT;&&amp;"), "&;&foo;&LT;&&");
    EXPECT_EQ(decoded<TypeParam>("&a&lt;b"), "&a<b");
}

TYPED_TEST(XmlSteps, EndTheStringAtANumberThatComesToZero) {
    auto text = TypeParam::spell("a&#0;b&lt;c");
    EXPECT_EQ(TypeParam::value_escape(text.data()), 0);
    EXPECT_EQ(text_of(text.data()), "a");
    EXPECT_EQ(text_of(text.data() + 2), "b<c");
    EXPECT_EQ(decoded<TypeParam>("&#;x"), "");
    EXPECT_EQ(decoded<TypeParam>("&#X41;x"), "");
    EXPECT_EQ(decoded<TypeParam>("&#x;x"), "");
}

TYPED_TEST(XmlSteps, RefuseAnEntityWithoutItsEnd) {
    EXPECT_EQ(decoded<TypeParam>("&lt;&", -2), "<&");
    EXPECT_EQ(decoded<TypeParam>("&lt;a&lt b", -2), "<a&lt b");
    EXPECT_EQ(decoded<TypeParam>("&gt;&1234567890123", -2), ">&1234567890123");
    EXPECT_EQ(decoded<TypeParam>("&lt;&12345678901;&gt;", -3), "<&12345678901;&gt;");
    EXPECT_EQ(decoded<TypeParam>("&1234567890;"), "&1234567890;");
    EXPECT_EQ(decoded<TypeParam>("&#000000065;"), "A");
    EXPECT_EQ(decoded<TypeParam>("&#0000000065;", -3), "&#0000000065;");
    EXPECT_EQ(TypeParam::value_escape(nullptr), -1);
}

}  // namespace
