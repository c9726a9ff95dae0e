#include <ztlib/utils/network.h>

#include <tests/support/faults.h>

#include <gmock/gmock.h>

#include <cstdlib>
#include <cstring>
#include <string>

using namespace zt_test;

namespace {

ipv4_address parsed(const std::string& text, int expected = 0) {
    ipv4_address address;
    memset(&address, 0xEE, sizeof address);
    EXPECT_EQ(ipv4_parse_addr(text.c_str(), &address), expected) << text;
    return address;
}

std::string text_of(const ipv4_address& address, int with_prefix = 1) {
    char text[IPV4_TEXT_SIZE];
    EXPECT_EQ(ipv4_to_string_r(&address, with_prefix, text, sizeof text), 0);
    return text;
}

int compared(const char* a, const char* b) {
    const ipv4_address left = parsed(a), right = parsed(b);
    return ipv4_compare(&left, &right);
}

network_route route(const char* destination, const char* gateway) {
    return {parsed(destination), parsed(gateway)};
}

}  // namespace

// --- parsing -------------------------------------------------------------------------------------

TEST(Ipv4Address, IsMadeZeroedOrNotAtAll) {
    for_each_failing_allocation([] { return ipv4_address_create(); },
                                [](ipv4_address* address) {
                                    const ipv4_address zero{};
                                    EXPECT_EQ(memcmp(address, &zero, sizeof zero), 0);
                                    free(address);
                                });
}

TEST(Ipv4Parse, TakesAnAddressAlone) {
    const ipv4_address address = parsed("10.1.2.3");
    EXPECT_EQ(uint32_t{address.address}, 0x0A010203u);
    EXPECT_EQ(uint32_t{address.mask}, 0xFFFFFFFFu);
    EXPECT_EQ(address.prefix, 32);
    for (const uint8_t byte : address.reserved) EXPECT_EQ(byte, 0);
}

TEST(Ipv4Parse, TakesAPrefixAndShiftsTheMaskByIt) {
    const struct {
        const char* text;
        int prefix;
        uint32_t mask;
    } cases[] = {
        {"10.1.2.3/24", 24, 0xFF000000}, {"10.1.2.3/1", 1, 0xFFFFFFFE},
        {"10.1.2.3/8", 8, 0xFFFFFF00},   {"10.1.2.3/31", 31, 0x80000000},
        {"10.1.2.3/32", 32, 0xFFFFFFFF}, {"10.1.2.3/0", 0, 0xFFFFFFFF},
    };
    for (const auto& [text, prefix, mask] : cases) {
        const ipv4_address address = parsed(text);
        EXPECT_EQ(uint32_t{address.address}, 0x0A010203u) << text;
        EXPECT_EQ(address.prefix, prefix) << text;
        EXPECT_EQ(uint32_t{address.mask}, mask) << text;
    }
}

TEST(Ipv4Parse, TakesADottedMaskAsItStandsInNetworkOrder) {
    const ipv4_address address = parsed("10.1.2.3/255.255.255.0");
    EXPECT_EQ(address.prefix, 24);
    const unsigned char bytes[] = {255, 255, 255, 0};
    EXPECT_EQ(memcmp(&address.mask, bytes, sizeof bytes), 0);
    EXPECT_EQ(parsed("10.1.2.3/0.0.0.0").prefix, 0);
    EXPECT_EQ(parsed("10.1.2.3/255.255.255.255").prefix, 32);
    EXPECT_EQ(parsed("10.1.2.3/1.0.3.0").prefix, 3) << "all one bits count";
}

TEST(Ipv4Parse, ReadsAPrefixLikeANumberAndKeepsEightBitsOfIt) {
    EXPECT_EQ(parsed("10.1.2.3/24x").prefix, 24);
    EXPECT_EQ(parsed("10.1.2.3/ 24").prefix, 24);
    EXPECT_EQ(parsed("10.1.2.3/+24").prefix, 24);
    EXPECT_EQ(parsed("10.1.2.3/024").prefix, 24);
    EXPECT_EQ(parsed("10.1.2.3/280").prefix, 24);
    EXPECT_EQ(parsed("10.1.2.3/-232").prefix, 24);
    parsed("10.1.2.3/99999999999999999999", -2);
}

TEST(Ipv4Parse, RefusesPrefixesAbove32) {
    parsed("10.1.2.3/33", -2);
    parsed("10.1.2.3/255", -2);
    parsed("10.1.2.3/-1", -2);
    parsed("10.1.2.3/255.255.255", -2);  // no mask, so a number
}

TEST(Ipv4Parse, RefusesWhatReadsAsZeroUnlessItIsZero) {
    for (const char* text :
         {"10.1.2.3/x", "10.1.2.3/", "10.1.2.3/00", "10.1.2.3/0x", "10.1.2.3/-0", "10.1.2.3/256"}) {
        parsed(text, -3);
    }
    EXPECT_EQ(parsed("10.1.2.3/0").prefix, 0);
}

TEST(Ipv4Parse, RefusesWhatIsNoAddress) {
    for (const char* text :
         {"", "x", "10.1.2", "10.1.2.256", "10.1.2.3.4", " 10.1.2.3", "10.1.2.3 ", "fd00::1", "/24",
          "x/24", "10.1.2.3/24/8", "default", "0x0a010203"}) {
        const ipv4_address address = parsed(text, -1);
        const ipv4_address zero{};
        EXPECT_EQ(memcmp(&address, &zero, sizeof zero), 0) << text;
    }
}

TEST(Ipv4Parse, SplitsAtTheLastSlash) { parsed("10.1.2.3/8/24", -1); }

TEST(Ipv4Parse, TakesTextOf129CharactersWholeAndNoMore) {
    const std::string longest = "10.1.2.3/24" + std::string(129 - 11, 'x');
    EXPECT_EQ(parsed(longest).prefix, 24);
    // The last character is read too.
    EXPECT_EQ(parsed("10.1.2.3/" + std::string(129 - 11, '0') + "17").prefix, 17);

    const ipv4_address untouched = parsed(longest + "x", -1);
    EXPECT_EQ(untouched.prefix, 0xEE);
    parsed(std::string(100'000, '1'), -1);
}

TEST(Ipv4Parse, RefusesNull) {
    ipv4_address address = parsed("10.1.2.3");
    EXPECT_EQ(ipv4_parse_addr(nullptr, &address), -1);
    EXPECT_EQ(uint32_t{address.address}, 0x0A010203u);
    EXPECT_EQ(ipv4_parse_addr("10.1.2.3", nullptr), -1);
}

// --- texts ---------------------------------------------------------------------------------------

TEST(Ipv4Text, HasThePrefixWhenBitZeroAsksForIt) {
    const ipv4_address address = parsed("10.1.2.3/24");
    EXPECT_EQ(text_of(address, 1), "10.1.2.3/24");
    EXPECT_EQ(text_of(address, 3), "10.1.2.3/24");
    EXPECT_EQ(text_of(address, 0), "10.1.2.3");
    EXPECT_EQ(text_of(address, 2), "10.1.2.3");
    EXPECT_EQ(text_of(parsed("255.254.0.1/0")), "255.254.0.1/0");
    ipv4_address damaged = parsed("255.255.255.255");
    damaged.prefix = 255;
    EXPECT_EQ(text_of(damaged), "255.255.255.255/255");
}

TEST(Ipv4Text, IsCutToTheRoom) {
    const ipv4_address address = parsed("10.1.2.3/24");
    char text[] = "untouched";
    EXPECT_EQ(ipv4_to_string_r(&address, 1, text, 5), 0);
    EXPECT_STREQ(text, "10.1");
    EXPECT_EQ(ipv4_to_string_r(&address, 1, text, 1), 0);
    EXPECT_STREQ(text, "");
    text[0] = '!';
    EXPECT_EQ(ipv4_to_string_r(&address, 1, text, 0), 0);
    EXPECT_EQ(text[0], '!');
    EXPECT_EQ(ipv4_to_string_r(nullptr, 1, text, sizeof text), 0);
    EXPECT_EQ(text[0], '!');
    EXPECT_EQ(ipv4_to_string_r(&address, 1, nullptr, 8), 0);
}

TEST(Ipv4Text, SharesOneBuffer) {
    const ipv4_address one = parsed("10.1.2.3/24"), two = parsed("10.4.5.6/16");
    char* const text = ipv4_to_string(&one, 1);
    EXPECT_STREQ(text, "10.1.2.3/24");
    EXPECT_EQ(ipv4_to_string(&two, 0), text);
    EXPECT_STREQ(text, "10.4.5.6");
    EXPECT_EQ(ipv4_to_string(nullptr, 1), nullptr);
}

// --- comparing -----------------------------------------------------------------------------------

TEST(Ipv4Network, HoldsAddressesThatAgreeInThePrefix) {
    EXPECT_EQ(ipv4_address_in_network(0x0A010203, 0x0A010200, 24), 1);
    EXPECT_EQ(ipv4_address_in_network(0x0A010303, 0x0A010200, 24), 0);
    EXPECT_EQ(ipv4_address_in_network(0x0A010303, 0x0A010200, 23), 1);
    EXPECT_EQ(ipv4_address_in_network(0x0A010203, 0x0A010203, 32), 1);
    EXPECT_EQ(ipv4_address_in_network(0x0A010203, 0x0A010202, 32), 0);
    EXPECT_EQ(ipv4_address_in_network(0x0A010203, 0x0A010202, 31), 1);
    EXPECT_EQ(ipv4_address_in_network(0x80000000, 0, 1), 0);
}

TEST(Ipv4Network, OfPrefixZeroHoldsAll) {
    EXPECT_EQ(ipv4_address_in_network(0, 0xFFFFFFFF, 0), 1);
    EXPECT_EQ(ipv4_address_in_network(0x0A010203, 0x01020304, 0), 1);
}

TEST(Ipv4Network, OfAPrefixAbove32ComparesAllBits) {
    EXPECT_EQ(ipv4_address_in_network(5, 5, 33), 1);
    EXPECT_EQ(ipv4_address_in_network(5, 4, 0xFFFFFFFF), 0);
}

TEST(Ipv4Compare, OrdersLargerAddressesFirstAndLargerPrefixesLast) {
    EXPECT_EQ(compared("10.0.0.1/24", "10.0.0.1/24"), 0);
    EXPECT_EQ(compared("10.0.0.1/24", "10.0.0.1/255.255.255.0"), 0) << "masks do not count";
    EXPECT_EQ(compared("10.0.0.1/24", "10.0.0.2/24"), 3);
    EXPECT_EQ(compared("10.0.0.2/24", "10.0.0.1/24"), -3);
    EXPECT_EQ(compared("1.0.0.0", "255.0.0.0"), 3) << "addresses have no sign";
    EXPECT_EQ(compared("10.0.0.1/24", "10.0.0.1/16"), 2);
    EXPECT_EQ(compared("10.0.0.1/16", "10.0.0.1/24"), -2);
    EXPECT_EQ(compared("10.0.0.9/16", "10.0.0.1/24"), -2);
}

TEST(Ipv4Compare, TellsNullsApart) {
    const ipv4_address address = parsed("10.0.0.1");
    EXPECT_EQ(ipv4_compare(nullptr, nullptr), 0);
    EXPECT_EQ(ipv4_compare(nullptr, &address), 1);
    EXPECT_EQ(ipv4_compare(&address, nullptr), -1);
}

TEST(Ipv4Compare, OfRoutesIsZeroOrNot) {
    const network_route a = route("10.0.0.0/8", "10.1.2.1");
    const network_route same = route("10.0.0.0/8", "10.1.2.1");
    const network_route elsewhere = route("10.0.0.0/16", "10.1.2.1");
    const network_route otherwise = route("10.0.0.0/8", "10.1.2.2");
    EXPECT_EQ(ipv4_route_cmp(&a, &same), 0);
    EXPECT_EQ(ipv4_route_cmp(&a, &elsewhere), -1);
    EXPECT_EQ(ipv4_route_cmp(&elsewhere, &a), -1);
    EXPECT_EQ(ipv4_route_cmp(&a, &otherwise), -1);
    EXPECT_EQ(ipv4_route_cmp(nullptr, nullptr), 0);
    EXPECT_EQ(ipv4_route_cmp(nullptr, &a), 1);
    EXPECT_EQ(ipv4_route_cmp(&a, nullptr), -1);
}
