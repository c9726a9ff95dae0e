# cmake -D INPUT=page.html -D OUTPUT=page.cpp -P embed.cmake: the page as a source file.

file(READ ${INPUT} bytes HEX)
string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
string(REGEX REPLACE "(................................................................................)" "\\1\n    " bytes "${bytes}")
file(WRITE ${OUTPUT} "#include \"dashboard/page.h\"

namespace {

constexpr unsigned char kBytes[] = {
    ${bytes}
};

}  // namespace

const std::string_view dashboard::kPage(reinterpret_cast<const char*>(kBytes), sizeof kBytes);
")
