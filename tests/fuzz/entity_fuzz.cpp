// The steps that change a text in place, beside the plainest code that does the same.

#include <ztlib/xmldoc/xmldoc.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

void require(bool holds) {
    if (!holds) abort();
}

// One entity after the other, each by erasing from a string.
int decode_plainly(std::string& text) {
    static const struct {
        const char* name;
        char character;
    } names[] = {{"amp", '&'}, {"apos", '\''}, {"quot", '"'}, {"lt", '<'}, {"gt", '>'}};

    for (size_t mark = text.find('&'); mark != text.npos; mark = text.find('&', mark + 1)) {
        const size_t semicolon = text.find(';', mark);
        if (semicolon == text.npos) return -2;
        if (semicolon - mark - 1 > 10) return -3;
        const std::string body = text.substr(mark + 1, semicolon - mark - 1);
        if (body[0] == '#') {
            const long number = body[1] == 'x' ? strtol(body.c_str() + 2, nullptr, 16)
                                               : strtol(body.c_str() + 1, nullptr, 10);
            text[mark] = static_cast<char>(number & 0xff);
            text.erase(mark + 1, semicolon - mark);
            continue;
        }
        for (const auto& known : names) {
            if (body.compare(0, strlen(known.name), known.name) != 0) continue;
            text[mark] = known.character;
            text.erase(mark + 1, strlen(known.name) + 1);
            break;
        }
    }
    return 0;
}

std::string first_stage_plainly(std::string text) {
    for (size_t at; (at = text.find("\r\n")) != text.npos;) text.replace(at, 2, " ");
    for (char& c : text)
        if (c == '\r' || c == '\n' || c == '\t') c = ' ';
    return text;
}

std::string second_stage_plainly(std::string text) {
    for (size_t at; (at = text.find("  ")) != text.npos;) text.erase(at, 1);
    if (!text.empty() && text.front() == ' ') text.erase(0, 1);
    if (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

// A block of exactly the text's size, so that the sanitizer sees a step beyond either end.
class Block {
  public:
    explicit Block(const std::string& text) : bytes_(text.c_str(), text.c_str() + text.size() + 1) {
        bytes_.shrink_to_fit();
    }
    char* text() { return bytes_.data(); }
    bool begins_with(const std::string& expected) const {
        return memcmp(bytes_.data(), expected.c_str(), expected.size() + 1) == 0;
    }

  private:
    std::vector<char> bytes_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size) {
    std::string text(reinterpret_cast<const char*>(bytes), size);
    text.resize(strlen(text.c_str()));

    std::string decoded = text;
    const int code = decode_plainly(decoded);
    Block entities(text);
    require(_xmldoc_value_escape(entities.text()) == code);
    require(entities.begins_with(decoded));

    const std::string spaced = first_stage_plainly(text);
    Block value(text);
    _xmldoc_attr_value_normalize_s1(value.text());
    require(value.begins_with(spaced));
    _xmldoc_attr_value_normalize_s2(value.text());
    require(value.begins_with(second_stage_plainly(spaced)));
    Block squeezed(text);
    _xmldoc_attr_value_normalize_s2(squeezed.text());
    require(squeezed.begins_with(second_stage_plainly(text)));

    Block whole(text);
    const char* const begin = whole.text();
    require(_xmldoc_skip_white(begin) == begin + strspn(begin, " \r\n\t"));
    require(_xmldoc_skip_name(begin) == begin + strcspn(begin, " \r\n/>="));
    const unsigned count = size > 0 ? bytes[size - 1] : 0;
    _xmldoc_shift_left(whole.text(), count);
    require(whole.begins_with(count < text.size() ? text.substr(count) : ""));
    return 0;
}
