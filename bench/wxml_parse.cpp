// Parsing wide text into a tree and freeing the tree again, beside the narrow parser on the same
// document; and the same from a file.
//
// The floor makes the allocations, copies and frees of the wide tree and nothing else.

#include <ztlib/xmldoc/wxmldoc.h>

#include <bench/support/xml_samples.hpp>

#include <benchmark/benchmark.h>

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <string>
#include <string_view>
#include <vector>

#include <sys/mman.h>
#include <unistd.h>

namespace {

using benchmark::State;
using samples::Count;
using samples::Sample;

[[noreturn]] void fail(const char* what) {
    fprintf(stderr, "%s\n", what);
    exit(1);
}

// --- parsing ------------------------------------------------------------------------------------

// The characters of a sample in a wide buffer.
class WideSample {
  public:
    explicit WideSample(const Sample& sample) {
        for (const char c : sample.text) wbuffer_append(&text_, std::wstring(1, c).c_str(), 1);
    }
    ~WideSample() { wbuffer_free(&text_, 0); }
    WideSample(const WideSample&) = delete;
    WideSample& operator=(const WideSample&) = delete;

    void parse(wxmldoc& document) const {
        if (wxmldoc_parse(&document, &text_) != 0) fail("the wide parser refuses the sample");
    }

  private:
    wbuffer text_{};
};

void parse_wide(State& state, const Sample& sample) {
    const WideSample text(sample);
    for (auto _ : state) {
        wxmldoc document{};
        text.parse(document);
        wxmldoc_free(&document, 0);
    }
}

void parse_narrow(State& state, const Sample& sample) {
    for (auto _ : state) {
        xmldoc document{};
        if (xmldoc_parse(&document, sample.text.c_str()) != 0)
            fail("the narrow parser refuses the sample");
        xmldoc_free(&document, 0);
    }
}

// --- floor --------------------------------------------------------------------------------------

// The blocks of a tree in the order in which they are made, with what is copied into them.
struct Block {
    size_t size;
    const wchar_t* text;  // null: a record
};

class Floor {
  public:
    explicit Floor(const Sample& sample) {
        WideSample(sample).parse(document_);
        add(document_.declaration);
        add(document_.root);
        made_.resize(blocks_.size());
    }
    ~Floor() { wxmldoc_free(&document_, 0); }
    Floor(const Floor&) = delete;
    Floor& operator=(const Floor&) = delete;

    void run() {
        for (size_t i = 0; i < blocks_.size(); ++i) {
            made_[i] = malloc(blocks_[i].size);
            if (blocks_[i].text) memcpy(made_[i], blocks_[i].text, blocks_[i].size);
        }
        benchmark::ClobberMemory();
        for (void* block : made_) free(block);
    }

  private:
    void add(const wchar_t* text) {
        blocks_.push_back({(wcslen(text) + 1) * sizeof(wchar_t), text});
    }
    void add(const wxmldoc_node* node) {
        add(node->name);
        blocks_.push_back({sizeof *node, nullptr});
        for (const wxmldoc_attr* a = node->first_attribute; a; a = a->next) {
            add(a->name);
            add(a->value);
            blocks_.push_back({sizeof *a, nullptr});
        }
        if (node->value) add(node->value);
        for (const wxmldoc_node* child = node->first_child; child; child = child->next_sibling)
            add(child);
    }

    wxmldoc document_{};
    std::vector<Block> blocks_;
    std::vector<void*> made_;
};

void make_and_free_alone(State& state, const Sample& sample) {
    Floor floor(sample);
    for (auto _ : state) floor.run();
}

// --- files --------------------------------------------------------------------------------------

// A sample as a file in memory.
class File {
  public:
    explicit File(const Sample& sample) : descriptor_(memfd_create("sample", 0)) {
        const auto size = static_cast<ssize_t>(sample.text.size());
        if (write(descriptor_, sample.text.data(), sample.text.size()) != size)
            fail("no file for the sample");
    }
    ~File() { close(descriptor_); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    std::string path() const { return "/proc/self/fd/" + std::to_string(descriptor_); }

  private:
    int descriptor_;
};

void parse_wide_file(State& state, const Sample& sample) {
    const File file(sample);
    for (auto _ : state) {
        wxmldoc* const document = wxmldoc_parse_file(file.path().c_str());
        if (!document) fail("the wide parser refuses the file");
        wxmldoc_free(document, 1);
    }
}

void parse_narrow_file(State& state, const Sample& sample) {
    const File file(sample);
    for (auto _ : state) {
        xmldoc* const document = xmldoc_parse_file(file.path().c_str());
        benchmark::DoNotOptimize(document);
        xmldoc_free(document, 1);
    }
}

// --- registration -------------------------------------------------------------------------------

void count(const wxmldoc_node* node, Count& total) {
    ++total.elements;
    total.characters += wcslen(node->name);
    if (node->value) total.characters += wcslen(node->value);
    for (const wxmldoc_attr* a = node->first_attribute; a; a = a->next) {
        ++total.attributes;
        total.characters += wcslen(a->name) + wcslen(a->value);
    }
    for (const wxmldoc_node* child = node->first_child; child; child = child->next_sibling)
        count(child, total);
}

void check(const Sample& sample) {
    wxmldoc wide{};
    Count found;
    WideSample(sample).parse(wide);
    count(wide.root, found);
    wxmldoc_free(&wide, 0);

    xmldoc narrow{};
    Count expected;
    if (xmldoc_parse(&narrow, sample.text.c_str()) != 0)
        fail("the narrow parser refuses the sample");
    samples::count(narrow.root, expected);
    xmldoc_free(&narrow, 0);
    samples::expect_same("the wide parser", found, expected);
}

void add(const std::string& job, const Sample& sample, const char* engine,
         void (*run)(State&, const Sample&)) {
    const std::string name = job + ", " + sample.name + "/" + engine;
    benchmark::RegisterBenchmark(name.c_str(), [run, &sample](State& state) {
        run(state, sample);
        state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(sample.text.size()));
    });
}

const bool registered = [] {
    if (!setlocale(LC_ALL, "C.UTF-8")) fail("no UTF-8 locale");
    for (const Sample& sample : samples::all()) {
        check(sample);
        add("wide xml parse and free", sample, "ztlib", parse_wide);
        add("wide xml parse and free", sample, "limit:narrow", parse_narrow);
        add("wide xml parse and free", sample, "limit:floor", make_and_free_alone);
    }
    const Sample& largest = samples::all()[2];
    add("wide xml file", largest, "ztlib", parse_wide_file);
    add("wide xml file", largest, "limit:narrow", parse_narrow_file);
    return true;
}();

}  // namespace
