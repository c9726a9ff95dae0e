#include <ztlib/network/websocket.h>

#include <ztlib/network/websocket_mask.hpp>
#include <ztlib/utils/vectors.hpp>

#include <tests/support/capture.h>
#include <tests/support/faults.h>

#include <gmock/gmock.h>

#include <openssl/crypto.h>
#include <openssl/err.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace zt_test;
using testing::Each;
using testing::ElementsAre;
using testing::Pair;

namespace {

// OpenSSL allocates through the harness as well, so that its allocations fail in their turn.
void* openssl_malloc(size_t size, const char*, int) { return size ? malloc(size) : nullptr; }
void* openssl_realloc(void* memory, size_t size, const char*, int) { return realloc(memory, size); }
void openssl_free(void* memory, const char*, int) { free(memory); }
const int openssl_is_watched =
    CRYPTO_set_mem_functions(openssl_malloc, openssl_realloc, openssl_free);

using Bytes = std::vector<unsigned char>;

Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

Bytes bytes_of(const std::string& text) { return Bytes(text.begin(), text.end()); }
std::string text_of(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// Bytes that differ from their neighbours, zero among them.
Bytes sample(size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<unsigned char>(i * 37 + i / 256);
    return bytes;
}

// --- frames, made by RFC 6455's rules -----------------------------------------------------------

const Bytes kKey = {0x37, 0xfa, 0x21, 0x3d};

enum class Length { in7, in16, in64 };

Bytes header(unsigned char first, bool masked, Length form, uint64_t length) {
    const unsigned char mask = masked ? 0x80 : 0;
    const auto big_endian = [length](int count) {
        Bytes bytes;
        for (int i = count - 1; i >= 0; --i)
            bytes.push_back(static_cast<unsigned char>(length >> (8 * i)));
        return bytes;
    };
    Bytes bytes = {first};
    switch (form) {
        case Length::in7:
            bytes = bytes + Bytes{static_cast<unsigned char>(mask | length)};
            break;
        case Length::in16:
            bytes = bytes + Bytes{static_cast<unsigned char>(mask | 126)} + big_endian(2);
            break;
        case Length::in64:
            bytes = bytes + Bytes{static_cast<unsigned char>(mask | 127)} + big_endian(8);
            break;
    }
    return masked ? bytes + kKey : bytes;
}

Bytes masked(Bytes bytes, const Bytes& key = kKey) {
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] ^= key[i % 4];
    return bytes;
}

Bytes masked_frame(Length form, const Bytes& payload, unsigned char first = 0x81) {
    return header(first, true, form, payload.size()) + masked(payload);
}

// --- decoding -----------------------------------------------------------------------------------

struct Decoded {
    int result;
    Bytes payload;  // as far as payload_len says
    unsigned payload_len;
    unsigned frame_len;
    Bytes data;  // after the call

    bool untouched(const Bytes& before) const {
        return data == before && payload_len == 77 && frame_len == 78;
    }
};

// Decodes blocks of exactly their size, so that the sanitizer sees every byte beyond.
Decoded decode(const Bytes& frame, size_t payload_size) {
    const auto exact = [](size_t size) { return std::make_unique<unsigned char[]>(size); };
    const auto data = exact(frame.size());
    const auto payload = exact(payload_size + 1);
    std::copy(frame.begin(), frame.end(), data.get());
    std::fill_n(payload.get(), payload_size + 1, 0xAA);

    Decoded d{0, {}, 77, 78, {}};
    d.result = websocket_wrap(data.get(), static_cast<int>(frame.size()), payload.get(),
                              &d.payload_len, &d.frame_len);
    d.data.assign(data.get(), data.get() + frame.size());
    if (d.result == 0) {
        EXPECT_EQ(d.payload_len, payload_size);
        d.payload.assign(payload.get(), payload.get() + payload_size);
        EXPECT_EQ(payload[payload_size], 0) << "the terminator";
    } else {
        EXPECT_THAT(Bytes(payload.get(), payload.get() + payload_size + 1), Each(0xAA));
    }
    return d;
}

void expect_refused(const Bytes& bytes, int result) {
    const Decoded d = decode(bytes, bytes.size());
    EXPECT_EQ(d.result, result) << bytes.size() << " bytes";
    EXPECT_TRUE(d.untouched(bytes)) << bytes.size() << " bytes";
}

void expect_decoded(const Bytes& head, const Bytes& payload, const Bytes& on_the_wire) {
    const Decoded d = decode(head + on_the_wire, payload.size());
    EXPECT_EQ(d.result, 0);
    EXPECT_TRUE(d.payload == payload) << payload.size() << " bytes";
    EXPECT_EQ(d.frame_len, head.size() + payload.size());
    EXPECT_TRUE(d.data == head + payload) << "unmasked in place, the header as it was";
}

Bytes first_of(const Bytes& bytes, size_t count) {
    return Bytes(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count));
}

// --- the handshake ------------------------------------------------------------------------------

constexpr const char* kSampleKey = "dGhlIHNhbXBsZSBub25jZQ==";
constexpr const char* kSampleAccept = "s3pPLMBiTxaQ9kYGzzhZRbK+xOo=";

struct Document : htmldoc {
    Document() { htmldoc_init(this); }
    ~Document() { htmldoc_free(this, 0); }
    Document(const Document&) = delete;
    Document& operator=(const Document&) = delete;

    void add(const char* name, const char* value) { htmldoc_add_option(&options, name, value); }
    std::vector<std::pair<std::string, std::string>> all_options() const {
        std::vector<std::pair<std::string, std::string>> all;
        for (const htmldoc_option* o = options; o; o = o->next) all.emplace_back(o->name, o->value);
        return all;
    }
    std::string rendered() {
        buffer text;
        buffer_init(&text);
        htmldoc_unwrap(&text.data, &text.capacity, &text.length, this, false);
        const std::string result(text.data, text.length);
        buffer_free(&text, 0);
        return result;
    }
    bool empty() const {
        return method[0] == '\0' && !url && url_length == 0 && protocol[0] == '\0' && !options;
    }
};

struct Request : Document {
    explicit Request(const char* key) { add("Sec-WebSocket-Key", key); }
};

void warm_up_openssl() {
    ASSERT_EQ(openssl_is_watched, 1);
    Request request(kSampleKey);
    Document response;
    websocket_handshake(&request, &response);
    ERR_raise(ERR_LIB_USER, ERR_R_INTERNAL_ERROR);
    ERR_clear_error();
}

}  // namespace

// --- the handshake ------------------------------------------------------------------------------

TEST(WebSocketHandshake, AnswersTheExampleOfTheStandard) {
    const std::string text =
        "GET /chat HTTP/1.1\r\n"
        "Host: server.example.com\r\n"
        "Upgrade: websocket\r\n"
        "Connection: Upgrade\r\n"
        "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
        "Origin: http://example.com\r\n"
        "Sec-WebSocket-Version: 13\r\n\r\n";
    Document request, response;
    ASSERT_EQ(htmldoc_wrap(&request, text.data(), static_cast<int>(text.size())), 0);

    EXPECT_EQ(websocket_handshake(&request, &response), 0);

    EXPECT_STREQ(response.method, "HTTP/1.1");
    EXPECT_EQ(response.url_length, 101);
    EXPECT_STREQ(response.protocol, "Switching Protocols");
    EXPECT_EQ(response.rendered(),
              "HTTP/1.1 101 Switching Protocols\r\n"
              "Upgrade: websocket\r\n"
              "Connection: Upgrade\r\n"
              "Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n\r\n");
}

TEST(WebSocketHandshake, NeedsTheKeyAloneAndTakesTheFirst) {
    Request request(kSampleKey);
    request.add("Sec-WebSocket-Key", "another");
    Document response;
    EXPECT_EQ(websocket_handshake(&request, &response), 0);
    EXPECT_STREQ(htmldoc_getvalue_option(&response.options, "Sec-WebSocket-Accept"), kSampleAccept);
}

TEST(WebSocketHandshake, LeavesTheResponseWithoutAUsableKey) {
    Document none;
    none.add("sec-websocket-key", kSampleKey);
    Request empty("");
    Request missing(kSampleKey);
    free(std::exchange(missing.options->value, nullptr));
    for (htmldoc* request : {static_cast<htmldoc*>(&none), static_cast<htmldoc*>(&empty),
                             static_cast<htmldoc*>(&missing)}) {
        Document response;
        EXPECT_EQ(websocket_handshake(request, &response), 1);
        EXPECT_TRUE(response.empty());
    }
}

TEST(WebSocketHandshake, TakesAKeyThatFits1500BytesTogetherWithTheRest) {
    Request longest(std::string(1463, 'k').c_str());
    Request longer(std::string(1464, 'k').c_str());
    Request endless(std::string(100'000, 'k').c_str());
    Document response;
    EXPECT_EQ(websocket_handshake(&longer, &response), 1);
    EXPECT_EQ(websocket_handshake(&endless, &response), 1);
    EXPECT_TRUE(response.empty());
    EXPECT_EQ(websocket_handshake(&longest, &response), 0);
    EXPECT_STREQ(htmldoc_getvalue_option(&response.options, "Sec-WebSocket-Accept"),
                 "ocyHKJ5cJLD0e3tDN5Wxm4UmPpg=");
}

TEST(WebSocketHandshake, AddsItsOptionsBehindThoseOfTheResponse) {
    Request request(kSampleKey);
    Document response;
    response.add("Server", "s");
    response.add("Sec-WebSocket-Protocol", "chat");
    EXPECT_EQ(websocket_handshake(&request, &response), 0);
    response.add("Last", "l");
    EXPECT_THAT(response.all_options(),
                ElementsAre(Pair("Server", "s"), Pair("Sec-WebSocket-Protocol", "chat"),
                            Pair("Upgrade", "websocket"), Pair("Connection", "Upgrade"),
                            Pair("Sec-WebSocket-Accept", kSampleAccept), Pair("Last", "l")));
    for (htmldoc_option** link = &response.options; *link; link = &(*link)->next)
        EXPECT_EQ((*link)->prev_link, link);
}

TEST(WebSocketHandshake, NeverMakesAUrlTheResponsesOwnThatWasNot) {
    char borrowed[] = "/";
    Request request(kSampleKey);
    Document response;
    response.url = borrowed;
    EXPECT_EQ(websocket_handshake(&request, &response), 0);
    EXPECT_EQ(response.url, nullptr);

    Document answered;
    htmldoc_init_proto(&answered, "/owned", HTMLDOC_GET);
    EXPECT_EQ(websocket_handshake(&request, &answered), 0);
    EXPECT_STREQ(answered.url, "/owned") << "released with the document";
}

TEST(WebSocketHandshake, MayAnswerWithinTheRequestsDocument) {
    Request both(kSampleKey);
    EXPECT_EQ(websocket_handshake(&both, &both), 0);
    EXPECT_STREQ(htmldoc_getvalue_option(&both.options, "Sec-WebSocket-Accept"), kSampleAccept);
}

TEST(WebSocketHandshake, RefusesNull) {
    Request request(kSampleKey);
    Document response;
    EXPECT_EQ(websocket_handshake(nullptr, &response), -1);
    EXPECT_EQ(websocket_handshake(&request, nullptr), -1);
    EXPECT_EQ(websocket_handshake(nullptr, nullptr), -1);
    EXPECT_TRUE(response.empty());
}

TEST(WebSocketHandshake, LeavesTheResponseWhenMemoryIsOut) {
    warm_up_openssl();
    int failed = 0;
    for (FailingAllocations round; round.next();) {
        Request request(kSampleKey);
        Document response;
        round.arm();
        const int result = websocket_handshake(&request, &response);
        round.disarm();
        ERR_clear_error();
        // OpenSSL does without some of its allocations.
        EXPECT_TRUE(result == 0 || (result == -1 && round.hit())) << round.round();
        if (result == 0)
            EXPECT_EQ(response.all_options().size(), 3u) << round.round();
        else
            EXPECT_TRUE(response.empty()) << round.round();
        failed += result == -1;
    }
    EXPECT_GT(failed, 10)
        << "at least the accept value, three options of three blocks, and a digest";
}

TEST(WebSocketHandshake, PrintsAndLogsNothing) {
    const CapturedStderr captured;
    const CapturedLog log;
    Document request, response;
    websocket_handshake(&request, &response);
    websocket_handshake(nullptr, nullptr);
    EXPECT_EQ(captured.text(), "");
    EXPECT_TRUE(log.lines().empty());
}

// --- base64 -------------------------------------------------------------------------------------

namespace {

std::string encoded(const Bytes& bytes) {
    const std::unique_ptr<char, void (*)(void*)> text(
        _websocket_base64encode(bytes.data(), static_cast<unsigned>(bytes.size())), free);
    return text ? text.get() : "null";
}

}  // namespace

TEST(WebSocketBase64, EncodesTheStandardsVectors) {
    EXPECT_EQ(encoded({}), "");
    EXPECT_EQ(encoded(bytes_of("f")), "Zg==");
    EXPECT_EQ(encoded(bytes_of("fo")), "Zm8=");
    EXPECT_EQ(encoded(bytes_of("foo")), "Zm9v");
    EXPECT_EQ(encoded(bytes_of("foob")), "Zm9vYg==");
    EXPECT_EQ(encoded(bytes_of("fooba")), "Zm9vYmE=");
    EXPECT_EQ(encoded(bytes_of("foobar")), "Zm9vYmFy");
    EXPECT_EQ(encoded({0xb3, 0x7a, 0x4f, 0x2c, 0xc0, 0x62, 0x4f, 0x16, 0x90, 0xf6,
                       0x46, 0x06, 0xcf, 0x38, 0x59, 0x45, 0xb2, 0xbe, 0xc4, 0xea}),
              kSampleAccept);
}

TEST(WebSocketBase64, BreaksLinesAndDropsTheLastBreakAlone) {
    const std::string line(64, 'A');
    EXPECT_EQ(encoded(Bytes(48)), line);
    EXPECT_EQ(encoded(Bytes(49)), line + "\nAA==");
    EXPECT_EQ(encoded(Bytes(96)), line + "\n" + line);
    EXPECT_EQ(encoded(Bytes(99)), line + "\n" + line + "\nAAAA");
}

TEST(WebSocketBase64, RefusesWhatItCannotRead) {
    EXPECT_EQ(_websocket_base64encode(nullptr, 1), nullptr);
    EXPECT_EQ(_websocket_base64encode("x", unsigned{INT_MAX} + 1), nullptr);
    char* empty = _websocket_base64encode(nullptr, 0);
    EXPECT_STREQ(empty, "");
    free(empty);
}

TEST(WebSocketBase64, IsNotMadeAndLeaksNothingWhenMemoryIsOut) {
    warm_up_openssl();
    for_each_failing_allocation(
        [] {
            char* text = _websocket_base64encode("0123456789", 10);
            ERR_clear_error();
            return text;
        },
        [](char* text) { free(text); });
}

// --- decoding -----------------------------------------------------------------------------------

TEST(WebSocketWrap, DecodesTheExamplesOfTheStandard) {
    const Bytes hello = bytes_of("Hello");
    const Bytes masked_hello = {0x7f, 0x9f, 0x4d, 0x51, 0x58};
    expect_decoded({0x81, 0x85, 0x37, 0xfa, 0x21, 0x3d}, hello, masked_hello);
    expect_decoded({0x8a, 0x85, 0x37, 0xfa, 0x21, 0x3d}, hello, masked_hello);  // a pong
    expect_decoded({0x82, 0x7e, 0x01, 0x00}, sample(256), sample(256));
    expect_decoded({0x82, 0x7f, 0, 0, 0, 0, 0, 1, 0, 0}, sample(65536), sample(65536));
}

TEST(WebSocketWrap, DecodesEveryLengthInEveryForm) {
    std::vector<size_t> sizes;
    for (size_t n = 0; n <= 130; ++n) sizes.push_back(n);
    for (const size_t n : {255, 256, 4095, 4096, 4097, 8195, 65535, 65536, 65537, 200'003})
        sizes.push_back(n);
    for (const size_t n : sizes) {
        const Bytes payload = sample(n);
        for (const Length form : {Length::in7, Length::in16, Length::in64}) {
            if ((form == Length::in7 && n > 125) || (form == Length::in16 && n > 65535)) continue;
            expect_decoded(header(0x81, true, form, n), payload, masked(payload));
            if (form != Length::in7) expect_decoded(header(0x81, false, form, n), payload, payload);
        }
    }
}

TEST(WebSocketWrap, ReadsAnUnmaskedShortFrameFromItsFourthByte) {
    const Bytes hello = bytes_of("Hello");
    expect_refused(Bytes{0x81, 0x05} + hello, 8);
    expect_decoded({0x81, 0x05, 'H'}, bytes_of("ello!"), bytes_of("ello!"));
    expect_refused(Bytes{0x81, 0x05} + bytes_of("Hello!?"), 7);

    expect_refused({0x81, 0x00}, 8);
    expect_decoded({0x81, 0x00, 'x'}, {}, {});
    expect_refused({0x81, 0x00, 'x', 'y'}, 7);
}

TEST(WebSocketWrap, TakesEveryOpcodeButCloseAlike) {
    const Bytes payload = bytes_of("payload");
    for (int first = 0; first < 256; ++first) {
        const Bytes frame = masked_frame(Length::in7, payload, static_cast<unsigned char>(first));
        if ((first & 15) == 8)
            expect_refused(frame, -8);
        else
            expect_decoded(first_of(frame, 6), payload, masked(payload));
    }
}

TEST(WebSocketWrap, KnowsACloseFrameByItsFirstByteAlone) {
    expect_refused({0x88, 0x80}, -8);
    expect_refused({0x08, 0x00}, -8);
    expect_refused({0x88, 0xff, 0xff}, -8);
    expect_refused(masked_frame(Length::in7, {0x03, 0xe8}, 0x88) + bytes_of("more"), -8);
    expect_refused({0x88}, 1);
}

TEST(WebSocketWrap, SaysWhichPartOfTheHeaderIsMissing) {
    const struct {
        Length form;
        bool masked;
        size_t size;
        int missing_length, missing_key;
    } kinds[] = {
        {Length::in7, true, 6, 1, 6},   {Length::in16, false, 4, 2, 2},
        {Length::in16, true, 8, 2, 3},  {Length::in64, false, 10, 4, 4},
        {Length::in64, true, 14, 4, 5},
    };
    for (const auto& kind : kinds) {
        const Bytes head = header(0x81, kind.masked, kind.form, 3);
        ASSERT_EQ(head.size(), kind.size);
        const size_t key = kind.masked ? kKey.size() : 0;
        for (size_t n = 0; n < kind.size; ++n) {
            const int expected = n < 2                 ? 1
                                 : n < kind.size - key ? kind.missing_length
                                                       : kind.missing_key;
            expect_refused(first_of(head, n), expected);
        }
        // The header alone is there, then one byte short of the frame.
        expect_refused(head, 8);
        expect_refused(head + bytes_of("ab"), 8);
        expect_refused(head + bytes_of("abcd"), 7);
    }
}

TEST(WebSocketWrap, TakesNoNegativeLength) {
    unsigned char data[] = {0x81, 0x85, 1, 2, 3, 4, 5, 6, 7, 8, 9};
    unsigned char payload[16];
    unsigned payload_len = 77, frame_len = 78;
    for (const int len : {-1, -8, INT_MIN})
        EXPECT_EQ(websocket_wrap(data, len, payload, &payload_len, &frame_len), 1);
    EXPECT_EQ(payload_len, 77u);
    EXPECT_EQ(frame_len, 78u);
}

TEST(WebSocketWrap, DecodesTheFirstOfTwoFramesWhenItIsCutThere) {
    const Bytes first = masked_frame(Length::in7, bytes_of("first"));
    const Bytes second = masked_frame(Length::in7, bytes_of("second"));
    expect_refused(first + second, 7);
    expect_refused(first + Bytes{0x81}, 7);
    EXPECT_EQ(text_of(decode(first, 5).payload), "first");
    EXPECT_EQ(decode(first, 5).frame_len, 11u);
}

TEST(WebSocketWrap, AsksForMoreAtEveryCutOfAFrame) {
    for (const Length form : {Length::in7, Length::in16, Length::in64}) {
        const Bytes frame = masked_frame(form, sample(100));
        const size_t head = frame.size() - 100;
        for (size_t n = head; n < frame.size(); ++n) expect_refused(first_of(frame, n), 8);
    }
}

TEST(WebSocketWrap, NeverBelievesALengthThatNoBlockHas) {
    constexpr uint64_t kInt = INT_MAX, kUnsigned = UINT_MAX, kMost = UINT64_MAX;
    for (const uint64_t length :
         {kInt - 14, kInt - 10, kInt, kInt + 1, kUnsigned - 14, kUnsigned - 10, kUnsigned - 9,
          kUnsigned, kUnsigned + 1, kUnsigned + 4, kMost / 2, kMost / 2 + 1, kMost - 14, kMost - 13,
          kMost - 10, kMost - 9, kMost - 1, kMost}) {
        for (const bool is_masked : {false, true}) {
            expect_refused(header(0x82, is_masked, Length::in64, length), 8);
            expect_refused(header(0x82, is_masked, Length::in64, length) + sample(50), 8);
        }
    }
}

TEST(WebSocketWrap, PutsThePayloadWhereverItOverlapsTheFrame) {
    for (const size_t n : {1, 5, 31, 125, 300, 4096, 10'000}) {
        const Bytes payload = sample(n);
        for (const bool is_masked : {true, false}) {
            const Bytes frame =
                header(0x82, is_masked, Length::in64, n) + (is_masked ? masked(payload) : payload);
            const size_t begin = frame.size() - n;
            for (const size_t position : {size_t{0}, size_t{1}, begin - 1, begin, begin + 1,
                                          begin + 3, begin + n / 2, begin + n - 1, begin + n}) {
                std::vector<unsigned char> room = frame;
                room.resize(position + n + 1 < frame.size() ? frame.size() : position + n + 1);
                unsigned payload_len = 0, frame_len = 0;
                EXPECT_EQ(websocket_wrap(room.data(), static_cast<int>(frame.size()),
                                         room.data() + position, &payload_len, &frame_len),
                          0);
                EXPECT_EQ(payload_len, n);
                EXPECT_EQ(frame_len, frame.size());
                EXPECT_EQ(memcmp(room.data() + position, payload.data(), n), 0)
                    << n << " bytes to " << position;
                EXPECT_EQ(room[position + n], 0);
            }
        }
    }
}

TEST(WebSocketWrap, RefusesNull) {
    Bytes frame = masked_frame(Length::in7, bytes_of("Hello"));
    const Bytes before = frame;
    const int len = static_cast<int>(frame.size());
    char payload[8];
    unsigned n = 77, m = 78;
    EXPECT_EQ(websocket_wrap(nullptr, len, payload, &n, &m), -1);
    EXPECT_EQ(websocket_wrap(frame.data(), len, nullptr, &n, &m), -1);
    EXPECT_EQ(websocket_wrap(frame.data(), len, payload, nullptr, &m), -1);
    EXPECT_EQ(websocket_wrap(frame.data(), len, payload, &n, nullptr), -1);
    EXPECT_EQ(websocket_wrap(nullptr, 1, payload, &n, &m), 1) << "a buffer that is still empty";
    EXPECT_EQ(websocket_wrap(frame.data(), 3, nullptr, nullptr, nullptr), 6);
    EXPECT_EQ(websocket_wrap(frame.data(), len - 1, nullptr, nullptr, nullptr), 8);
    EXPECT_EQ(frame, before);
    frame[0] = 0x88;
    EXPECT_EQ(websocket_wrap(frame.data(), len, nullptr, nullptr, nullptr), -8) << "a close frame";
    EXPECT_EQ(n, 77u);
    EXPECT_EQ(m, 78u);
}

TEST(WebSocketMask, IsTheSameWideAndNarrowAtEveryLengthAndPlace) {
    const uint32_t key = zt::websocket::load_key(kKey.data());
    for (const bool wide : {false, true}) {
        if (wide && !zt::vectors::available()) continue;
        for (size_t n = 0; n <= 200; ++n) {
            for (const size_t place : {0, 1, 6, 8, 14, 31}) {
                const Bytes before = sample(n + 64);
                Bytes expected = before;
                for (size_t i = 0; i < n; ++i) expected[place + i] ^= kKey[i % 4];
                Bytes copied(n + 64);
                std::copy_n(&expected[place], n, copied.begin());

                Bytes after = before, copy(n + 64);
                zt::websocket::unmask(&after[place], copy.data(), n, key, wide);
                ASSERT_EQ(after, expected) << n << " bytes, wide " << wide;
                ASSERT_EQ(copy, copied) << n << " bytes, wide " << wide;

                after = before;
                zt::websocket::unmask(&after[place], &after[place], n, key, wide);
                ASSERT_EQ(after, expected) << n << " bytes in place, wide " << wide;
            }
        }
    }
}

// --- encoding -----------------------------------------------------------------------------------

namespace {

Bytes built(const Bytes& payload) {
    const auto out = std::make_unique<unsigned char[]>(payload.size() + 4);
    unsigned out_len = 77;
    EXPECT_EQ(
        websocket_unwrap(payload.data(), static_cast<int>(payload.size()), out.get(), &out_len), 0);
    EXPECT_LE(out_len, payload.size() + 4);
    return Bytes(out.get(), out.get() + out_len);
}

}  // namespace

TEST(WebSocketUnwrap, BuildsTheExampleOfTheStandard) {
    EXPECT_EQ(built(bytes_of("Hello")), (Bytes{0x81, 0x05, 0x48, 0x65, 0x6c, 0x6c, 0x6f}));
}

TEST(WebSocketUnwrap, AnnouncesUpTo255BytesAsTheyAre) {
    for (size_t n = 0; n <= 255; ++n) {
        const auto low = static_cast<unsigned char>(n);
        const Bytes head = n <= 125 ? Bytes{0x81, low} : Bytes{0x81, 126, 0, low};
        EXPECT_EQ(built(sample(n)), head + sample(n)) << n;
    }
}

TEST(WebSocketUnwrap, AnnouncesMoreModulo256) {
    EXPECT_EQ(built(sample(256)), (Bytes{0x81, 126, 0, 0}) + sample(256));
    EXPECT_EQ(built(sample(300)), (Bytes{0x81, 126, 0, 44}) + sample(300));
    EXPECT_EQ(built(sample(65535)), (Bytes{0x81, 126, 0, 255}) + sample(65535));
    EXPECT_EQ(built(sample(65536)), (Bytes{0x81, 126, 0, 0}) + sample(65536));
    EXPECT_EQ(built(sample(100'001)), (Bytes{0x81, 126, 0, 161}) + sample(100'001));
}

TEST(WebSocketUnwrap, BuildsInPlaceToo) {
    for (const size_t n : {5, 125, 126, 300, 5000}) {
        for (const size_t position : {0, 1, 2, 3, 4}) {
            Bytes room = Bytes(position) + sample(n) + Bytes(8);
            unsigned out_len = 0;
            websocket_unwrap(room.data() + position, static_cast<int>(n), room.data(), &out_len);
            EXPECT_EQ(first_of(room, out_len), built(sample(n))) << n << " from " << position;
        }
    }
}

TEST(WebSocketUnwrap, BuildsNothingOfNothing) {
    Bytes out(16, 0xAA);
    unsigned out_len = 77;
    EXPECT_EQ(websocket_unwrap(nullptr, 0, out.data(), &out_len), 0);
    EXPECT_EQ(out_len, 2u) << "an empty frame";
    EXPECT_EQ(first_of(out, 2), (Bytes{0x81, 0}));

    out.assign(16, 0xAA);
    const auto stays_empty = [&](const void* payload, int len, unsigned char* to) {
        out_len = 77;
        EXPECT_EQ(websocket_unwrap(payload, len, to, &out_len), 0);
        return out_len == 0;
    };
    EXPECT_TRUE(stays_empty(nullptr, 5, out.data()));
    EXPECT_TRUE(stays_empty("Hello", 5, nullptr));
    EXPECT_TRUE(stays_empty("Hello", -1, out.data()));
    EXPECT_TRUE(stays_empty("Hello", INT_MIN, out.data()));
    EXPECT_EQ(websocket_unwrap("Hello", 5, out.data(), nullptr), 0);
    EXPECT_THAT(out, Each(0xAA));
}
