// Writing a tree to text in memory, at three sizes: each library writes the tree that it parsed
// from the same message, into storage that the entry makes and frees, on one line where that can be
// asked for.

#include <bench/support/xml_samples.hpp>

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <string>

#ifdef HAVE_TINYXML2
#    include <tinyxml2.h>
#endif
#ifdef HAVE_LIBXML2
#    include <libxml/parser.h>
#    include <libxml/tree.h>
#endif
#ifdef HAVE_PUGIXML
#    include <pugixml.hpp>
#endif

namespace {

using benchmark::State;
using samples::Count;
using samples::Sample;

[[noreturn]] void fail(const char* who) {
    fprintf(stderr, "%s does not write the sample\n", who);
    exit(1);
}

// A writer with its tree: writes it, and gives the text when it is asked for.
class Ours {
  public:
    explicit Ours(const std::string& text) {
        if (xmldoc_parse(&document_, text.c_str()) != 0) fail("ztlib");
    }
    ~Ours() { xmldoc_free(&document_, 0); }

    void write(std::string* text) const {
        char* data = nullptr;
        unsigned capacity = 0;
        unsigned length = 0;
        if (xmldoc_save(&document_, document_.root, &data, &capacity, &length) != 0) fail("ztlib");
        benchmark::DoNotOptimize(data);
        if (text) text->assign(data, length);
        free(data);
    }

  private:
    xmldoc document_{};
};

#ifdef HAVE_TINYXML2
class TinyXml2 {
  public:
    explicit TinyXml2(const std::string& text) {
        if (document_.Parse(text.data(), text.size()) != tinyxml2::XML_SUCCESS) fail("tinyxml2");
    }
    void write(std::string* text) const {
        tinyxml2::XMLPrinter printer(nullptr, true);
        document_.Print(&printer);
        benchmark::DoNotOptimize(printer.CStr());
        if (text) *text = printer.CStr();
    }

  private:
    tinyxml2::XMLDocument document_;
};
#endif

#ifdef HAVE_LIBXML2
class LibXml2 {
  public:
    explicit LibXml2(const std::string& text)
        : document_(xmlReadMemory(text.data(), static_cast<int>(text.size()), nullptr, nullptr,
                                  XML_PARSE_NONET)) {
        if (!document_) fail("libxml2");
    }
    ~LibXml2() { xmlFreeDoc(document_); }
    void write(std::string* text) const {
        xmlChar* data = nullptr;
        int size = 0;
        xmlDocDumpMemory(document_, &data, &size);
        benchmark::DoNotOptimize(data);
        if (text) text->assign(reinterpret_cast<char*>(data), static_cast<size_t>(size));
        xmlFree(data);
    }

  private:
    xmlDoc* document_;
};
#endif

#ifdef HAVE_PUGIXML
class PugiXml {
  public:
    explicit PugiXml(const std::string& text) {
        if (!document_.load_buffer(text.data(), text.size(),
                                   pugi::parse_default | pugi::parse_declaration))
            fail("pugixml");
    }
    void write(std::string* text) const {
        struct : pugi::xml_writer {
            void write(const void* data, size_t size) override {
                all.append(static_cast<const char*>(data), size);
            }
            std::string all;
        } writer;
        document_.save(writer, "", pugi::format_raw, pugi::encoding_utf8);
        benchmark::DoNotOptimize(writer.all.data());
        if (text) *text = writer.all;
    }

  private:
    pugi::xml_document document_;
};
#endif

// What a text holds, read by our parser.
Count count_in(const char* engine, const std::string& text) {
    xmldoc document{};
    if (xmldoc_parse(&document, text.c_str()) != 0) fail(engine);
    Count found;
    samples::count(document.root, found);
    xmldoc_free(&document, 0);
    return found;
}

template <class Engine>
void add(const Sample& sample, const char* engine) {
    const auto writer = std::make_shared<Engine>(sample.text);
    std::string written;
    writer->write(&written);
    samples::expect_same(engine, count_in(engine, written), count_in("sample", sample.text));

    const std::string name = std::string("xml write, ") + sample.name + "/" + engine;
    benchmark::RegisterBenchmark(name.c_str(), [writer, &sample](State& state) {
        for (auto _ : state) writer->write(nullptr);
        state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(sample.text.size()));
    });
}

const bool registered = [] {
    for (const Sample& sample : samples::all()) {
        add<Ours>(sample, "ztlib");
#ifdef HAVE_TINYXML2
        add<TinyXml2>(sample, "tinyxml2");
#endif
#ifdef HAVE_LIBXML2
        add<LibXml2>(sample, "libxml2");
#endif
#ifdef HAVE_PUGIXML
        add<PugiXml>(sample, "pugixml");
#endif
    }
    return true;
}();

}  // namespace
