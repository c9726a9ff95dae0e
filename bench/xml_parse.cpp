// Parsing a message into a tree and freeing the tree again, at three sizes.
//
// The event parsers build the library's own tree in their handlers. The floor makes the
// allocations, copies and frees of our tree and nothing else.

#include <bench/support/xml_samples.hpp>

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#ifdef HAVE_TINYXML2
#    include <tinyxml2.h>
#endif
#ifdef HAVE_LIBXML2
#    include <libxml/parser.h>
#    include <libxml/tree.h>
#endif
#ifdef HAVE_EXPAT
#    include <expat.h>
#endif
#ifdef HAVE_GLIB
#    include <glib.h>
#endif
#ifdef HAVE_PUGIXML
#    include <pugixml.hpp>
#endif

namespace {

using benchmark::State;
using samples::Count;
using samples::Sample;

[[noreturn]] void fail(const char* who) {
    fprintf(stderr, "%s does not parse the sample\n", who);
    exit(1);
}

// --- ours ---------------------------------------------------------------------------------------

Count count_ours(const std::string& text) {
    xmldoc document{};
    if (xmldoc_parse(&document, text.c_str()) != 0) fail("ztlib");
    Count found;
    samples::count(document.root, found);
    xmldoc_free(&document, 0);
    return found;
}

void parse_ours(State& state, const Sample& sample) {
    for (auto _ : state) {
        xmldoc document{};
        if (xmldoc_parse(&document, sample.text.c_str()) != 0) fail("ztlib");
        xmldoc_free(&document, 0);
    }
}

// --- floor --------------------------------------------------------------------------------------

// The blocks of a tree in the order in which they are made, with what is copied into them.
struct Block {
    size_t size;
    const char* text;  // null: a record
};

class Floor {
  public:
    explicit Floor(const std::string& text) {
        xmldoc_parse(&document_, text.c_str());
        add(document_.declaration);
        add(document_.root);
        made_.resize(blocks_.size());
    }
    ~Floor() { xmldoc_free(&document_, 0); }

    void run() {
        for (size_t i = 0; i < blocks_.size(); ++i) {
            made_[i] = malloc(blocks_[i].size);
            if (blocks_[i].text) memcpy(made_[i], blocks_[i].text, blocks_[i].size);
        }
        benchmark::ClobberMemory();
        for (void* block : made_) free(block);
    }

  private:
    void add(const char* text) { blocks_.push_back({strlen(text) + 1, text}); }
    void add(const xmldoc_node* node) {
        add(node->name);
        blocks_.push_back({sizeof *node, nullptr});
        for (const xmldoc_attr* a = node->first_attribute; a; a = a->next) {
            add(a->name);
            add(a->value);
            blocks_.push_back({sizeof *a, nullptr});
        }
        if (node->value) add(node->value);
        for (const xmldoc_node* child = node->first_child; child; child = child->next_sibling)
            add(child);
    }

    xmldoc document_{};
    std::vector<Block> blocks_;
    std::vector<void*> made_;
};

void make_and_free_alone(State& state, const Sample& sample) {
    Floor floor(sample.text);
    for (auto _ : state) floor.run();
}

// --- a tree built by an event parser's handlers --------------------------------------------------

struct TreeBuilder {
    ~TreeBuilder() { xmldoc_free_node(root); }

    void begin(const char* name, const char* const* names, const char* const* values, int step) {
        xmldoc_node* const node = xmldoc_node_create(name);
        for (; *names; names += step, values += step)
            xmldoc_node_attr_addval(node, *names, *values);
        node->parent = open;
        if (open)
            xmldoc_node_add_child(open, node);
        else
            root = node;
        open = node;
    }
    void end() { open = open->parent; }
    void text(const char* text, size_t length) {
        const size_t before = open->value ? strlen(open->value) : 0;
        open->value = static_cast<char*>(realloc(open->value, before + length + 1));
        memcpy(open->value + before, text, length);
        open->value[before + length] = 0;
    }

    xmldoc_node* root = nullptr;
    xmldoc_node* open = nullptr;
};

Count count_of(const TreeBuilder& tree) {
    Count found;
    samples::count(tree.root, found);
    return found;
}

#ifdef HAVE_EXPAT
void expat_tree(const std::string& text, TreeBuilder& tree) {
    XML_Parser parser = XML_ParserCreate(nullptr);
    XML_SetUserData(parser, &tree);
    XML_SetElementHandler(
        parser,
        [](void* user, const XML_Char* name, const XML_Char** attributes) {
            static_cast<TreeBuilder*>(user)->begin(name, attributes, attributes + 1, 2);
        },
        [](void* user, const XML_Char*) { static_cast<TreeBuilder*>(user)->end(); });
    XML_SetCharacterDataHandler(parser, [](void* user, const XML_Char* s, int length) {
        static_cast<TreeBuilder*>(user)->text(s, static_cast<size_t>(length));
    });
    if (XML_Parse(parser, text.data(), static_cast<int>(text.size()), 1) != XML_STATUS_OK)
        fail("expat");
    XML_ParserFree(parser);
}
#endif

#ifdef HAVE_GLIB
void gmarkup_tree(const std::string& text, TreeBuilder& tree) {
    static const GMarkupParser handlers = {
        [](GMarkupParseContext*, const gchar* name, const gchar** names, const gchar** values,
           gpointer user,
           GError**) { static_cast<TreeBuilder*>(user)->begin(name, names, values, 1); },
        [](GMarkupParseContext*, const gchar*, gpointer user, GError**) {
            static_cast<TreeBuilder*>(user)->end();
        },
        [](GMarkupParseContext*, const gchar* s, gsize length, gpointer user, GError**) {
            TreeBuilder& builder = *static_cast<TreeBuilder*>(user);
            if (builder.open && length > 0) builder.text(s, length);
        },
        nullptr, nullptr};
    GMarkupParseContext* context =
        g_markup_parse_context_new(&handlers, GMarkupParseFlags(0), &tree, nullptr);
    if (!g_markup_parse_context_parse(context, text.data(), static_cast<gssize>(text.size()),
                                      nullptr) ||
        !g_markup_parse_context_end_parse(context, nullptr))
        fail("gmarkup");
    g_markup_parse_context_free(context);
}
#endif

template <void (*Build)(const std::string&, TreeBuilder&)>
void build_tree(State& state, const Sample& sample) {
    for (auto _ : state) {
        TreeBuilder tree;
        Build(sample.text, tree);
    }
}

template <void (*Build)(const std::string&, TreeBuilder&)>
Count count_built(const std::string& text) {
    TreeBuilder tree;
    Build(text, tree);
    return count_of(tree);
}

// --- parsers with a tree of their own ------------------------------------------------------------

#ifdef HAVE_TINYXML2
void count_tinyxml2(const tinyxml2::XMLElement* element, Count& total) {
    ++total.elements;
    total.characters += strlen(element->Name());
    for (auto* a = element->FirstAttribute(); a; a = a->Next()) {
        ++total.attributes;
        total.characters += strlen(a->Name()) + strlen(a->Value());
    }
    if (element->GetText()) total.characters += strlen(element->GetText());
    for (auto* child = element->FirstChildElement(); child; child = child->NextSiblingElement())
        count_tinyxml2(child, total);
}

Count count_tinyxml2(const std::string& text) {
    tinyxml2::XMLDocument document;
    if (document.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) fail("tinyxml2");
    Count found;
    count_tinyxml2(document.RootElement(), found);
    return found;
}

void parse_tinyxml2(State& state, const Sample& sample) {
    for (auto _ : state) {
        tinyxml2::XMLDocument document;
        if (document.Parse(sample.text.data(), sample.text.size()) != tinyxml2::XML_SUCCESS)
            fail("tinyxml2");
    }
}
#endif

#ifdef HAVE_LIBXML2
xmlDoc* read_libxml2(const std::string& text) {
    xmlDoc* document = xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                     XML_PARSE_NONET);
    if (!document) fail("libxml2");
    return document;
}

size_t length_of(const xmlChar* text) { return strlen(reinterpret_cast<const char*>(text)); }

void count_libxml2(const xmlNode* element, Count& total) {
    ++total.elements;
    total.characters += length_of(element->name);
    for (const xmlAttr* a = element->properties; a; a = a->next) {
        ++total.attributes;
        total.characters += length_of(a->name) + length_of(a->children->content);
    }
    for (const xmlNode* child = element->children; child; child = child->next) {
        if (child->type == XML_ELEMENT_NODE)
            count_libxml2(child, total);
        else
            total.characters += length_of(child->content);
    }
}

Count count_libxml2(const std::string& text) {
    xmlDoc* document = read_libxml2(text);
    Count found;
    count_libxml2(xmlDocGetRootElement(document), found);
    xmlFreeDoc(document);
    return found;
}

void parse_libxml2(State& state, const Sample& sample) {
    for (auto _ : state) xmlFreeDoc(read_libxml2(sample.text));
}
#endif

#ifdef HAVE_PUGIXML
void count_pugixml(const pugi::xml_node& element, Count& total) {
    ++total.elements;
    total.characters += strlen(element.name()) + strlen(element.child_value());
    for (const pugi::xml_attribute& a : element.attributes()) {
        ++total.attributes;
        total.characters += strlen(a.name()) + strlen(a.value());
    }
    for (const pugi::xml_node& child : element.children())
        if (child.type() == pugi::node_element) count_pugixml(child, total);
}

Count count_pugixml(const std::string& text) {
    pugi::xml_document document;
    if (!document.load_buffer(text.data(), text.size())) fail("pugixml");
    Count found;
    count_pugixml(document.document_element(), found);
    return found;
}

void parse_pugixml(State& state, const Sample& sample) {
    for (auto _ : state) {
        pugi::xml_document document;
        if (!document.load_buffer(sample.text.data(), sample.text.size())) fail("pugixml");
    }
}
#endif

// --- registration --------------------------------------------------------------------------------

using Parse = void (*)(State&, const Sample&);
using CountElements = Count (*)(const std::string&);

void add(const Sample& sample, const char* engine, Parse parse, CountElements count) {
    if (count) samples::expect_same(engine, count(sample.text), count_ours(sample.text));
    const std::string name = std::string("xml parse and free, ") + sample.name + "/" + engine;
    benchmark::RegisterBenchmark(name.c_str(), [parse, &sample](State& state) {
        parse(state, sample);
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(sample.text.size()));
    });
}

const bool registered = [] {
    for (const Sample& sample : samples::all()) {
        add(sample, "ztlib", parse_ours, nullptr);
        add(sample, "limit:floor", make_and_free_alone, nullptr);
#ifdef HAVE_TINYXML2
        add(sample, "tinyxml2", parse_tinyxml2, count_tinyxml2);
#endif
#ifdef HAVE_LIBXML2
        add(sample, "libxml2", parse_libxml2, count_libxml2);
#endif
#ifdef HAVE_EXPAT
        add(sample, "expat", build_tree<expat_tree>, count_built<expat_tree>);
#endif
#ifdef HAVE_GLIB
        add(sample, "gmarkup", build_tree<gmarkup_tree>, count_built<gmarkup_tree>);
#endif
#ifdef HAVE_PUGIXML
        add(sample, "shown:pugixml", parse_pugixml, count_pugixml);
#endif
    }
    return true;
}();

}  // namespace
