// The messages that the XML benchmarks work on: one line each, as the library's own writer spells
// them, with no entity and no white space between tags, so that every parser makes the same of
// them.
#pragma once

#include <ztlib/xmldoc/xmldoc.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

namespace samples {

inline constexpr std::string_view kDeclaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n";

// A request of 180 bytes.
inline std::string request() {
    return std::string(kDeclaration) +
           "<request id=\"4711\" type=\"query\"><user>operator</user><table>measurements</table>"
           "<filter field=\"station\">berlin-north-0007</filter></request>";
}

// A report of `size` bytes, rows of a table and a last row as long as it takes.
inline std::string report(size_t size) {
    std::string text = std::string(kDeclaration) + "<report station=\"berlin-north-7\">";
    const std::string_view end = "</report>";
    for (int i = 0;; ++i) {
        char row[256];
        const int length = snprintf(
            row, sizeof row,
            "<row id=\"%d\" state=\"%s\"><time>2024-03-%02dT%02d:%02d:00Z</time>"
            "<value unit=\"hPa\">%d.%d</value><note>reading %d taken by the second "
            "sensor</note></row>",
            i, i % 7 ? "valid" : "estimated", 1 + i % 28, i % 24, i % 60, 980 + i % 50, i % 10, i);
        if (text.size() + static_cast<size_t>(length) + end.size() > size) break;
        text.append(row, static_cast<size_t>(length));
    }
    const std::string_view filler_begin = "<filler>", filler_end = "</filler>";
    const size_t around = filler_begin.size() + filler_end.size() + end.size();
    if (text.size() + around < size) {
        text += filler_begin;
        text.append(size - text.size() - filler_end.size() - end.size(), '.');
        text += filler_end;
    }
    return text.append(end);
}

struct Sample {
    const char* name;
    std::string text;
};

// The three sizes that the jobs are measured at.
inline const Sample (&all())[3] {
    static const Sample samples[] = {
        {"180 B", request()}, {"4 KiB", report(4096)}, {"1 MiB", report(1 << 20)}};
    return samples;
}

// What a parser found in a message, to be compared with what another one found.
struct Count {
    size_t elements = 0;
    size_t attributes = 0;
    size_t characters = 0;  // of names, values and texts; the declaration does not count

    bool operator==(const Count&) const = default;
};

inline void count(const xmldoc_node* node, Count& total) {
    ++total.elements;
    total.characters += std::string_view(node->name).size();
    if (node->value) total.characters += std::string_view(node->value).size();
    for (const xmldoc_attr* a = node->first_attribute; a; a = a->next) {
        ++total.attributes;
        total.characters += std::string_view(a->name).size() + std::string_view(a->value).size();
    }
    for (const xmldoc_node* child = node->first_child; child; child = child->next_sibling)
        count(child, total);
}

// Ends the benchmark where a peer's answer is not ours.
inline void expect_same(const char* peer, const Count& found, const Count& expected) {
    if (found == expected) return;
    fprintf(stderr,
            "%s finds %zu elements, %zu attributes, %zu characters; expected %zu, %zu, %zu\n", peer,
            found.elements, found.attributes, found.characters, expected.elements,
            expected.attributes, expected.characters);
    exit(1);
}

}  // namespace samples
