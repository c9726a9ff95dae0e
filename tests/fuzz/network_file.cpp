// A saved file of any content: what is loaded is what it holds, byte for byte; it can be applied to
// a host, with commands whose words stay within their fields; and it is saved again as it was.
//
//     byte 0  odd: a file of routes; else of interfaces
//     then    the file

#include <ztlib/logger.h>
#include <ztlib/utils/network.h>

#include "pretended_ip.h"

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iterator>

namespace {

using pretended::check;
using pretended::Words;

constexpr const char* kPath = "saved";  // in the fuzzer's own directory

// A host with a VLAN among its links.
std::string answer(const Words& words) {
    if (words == Words{"route"}) return "default via 10.1.2.1 dev a \n10.7.0.0/16 via 10.1.2.1\n";
    if (words == Words{"link", "list"}) return "1: a: <UP>\n2: b@a: <UP>\n3: c: <UP>\n";
    if (words[0] == "-d") return "    vlan protocol 802.1Q id 5 \n";
    return "    inet 10.1.2.3/24 scope global\n    inet 10.1.2.4/24 scope global\n";
}

void look_at(const Words& words) {
    check(words.size() >= 3 && words.size() <= 10);
    for (const std::string& word : words) check(word.size() <= NETWORK_NAME_SIZE);
}

template <class Record>
struct Functions {
    Record** (*load)(const char* path);
    int (*apply)(Record** list);
    int (*save)(const char* path, Record** list);
    void (*release)(Record** list);
};

std::string content() {
    std::ifstream file(kPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// True when a record begins with the number of a place behind it: that place is left out of a file.
template <class Record>
bool one_is_left_out(Record** list, size_t count) {
    for (size_t i = 0; i < count; ++i) {
        uint32_t number;
        memcpy(&number, list[i], sizeof number);
        if (number > i && number < count) return true;
    }
    return false;
}

template <class Record>
void run(const std::string& bytes, const Functions<Record>& functions) {
    std::ofstream(kPath, std::ios::binary) << bytes;
    Record** const list = functions.load(kPath);
    size_t count = 0;
    for (; list[count]; ++count)
        check(memcmp(list[count], &bytes[count * sizeof(Record)], sizeof(Record)) == 0);
    check(count == bytes.size() / sizeof(Record));

    check(functions.apply(list) == 0);
    check(functions.save(kPath, list) == 0);
    if (!one_is_left_out(list, count)) check(content() == bytes.substr(0, count * sizeof(Record)));
    functions.release(list);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***);
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    stderr = fopen("/dev/null", "w");  // the library's lines; the fuzzer keeps its own stream
    logger_to_syslog = 0;
    pretended::answer = answer;
    pretended::changed = look_at;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string bytes(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (data[0] & 1)
        run<network_route>(bytes, {network_routes_load, network_routes_apply, network_routes_save,
                                   network_routes_free});
    else
        run<network_interface>(bytes, {network_interfaces_load, network_interfaces_apply,
                                       network_interfaces_save, network_interfaces_free});
    return 0;
}
