#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <vector>

#include "SolTypes.h"

using namespace solicd;

namespace {

kt_ip_address_t addr(const char* text) {
    kt_ip_address_t a{};
    a.family = KT_AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, a.bytes), 1);
    return a;
}

TEST(SolTypes, DefaultConstructorsClearEveryFieldFlagsIncluded) {
    SolRouter::Config r;
    SolNetwork::Config n;
    SolDnsServer::Config d;
    SolNetwork::Status ns;
    const sol_router_config_t zr{};
    const sol_network_config_t zn{};
    const sol_dns_server_config_t zd{};
    const sol_network_status_t zs{};
    EXPECT_EQ(std::memcmp(&r.data(), &zr, sizeof zr), 0);
    EXPECT_EQ(std::memcmp(&n.data(), &zn, sizeof zn), 0);
    EXPECT_EQ(std::memcmp(&d.data(), &zd, sizeof zd), 0);
    EXPECT_EQ(std::memcmp(&ns.data(), &zs, sizeof zs), 0);
}

TEST(SolTypes, NamesAreUniqueAcrossKindsAndStablePerEntry) {
    SolRouter::Config r;
    r.address = addr("fe80::1");
    SolDnsServer::Config d;
    d.address = addr("fe80::1");
    EXPECT_EQ(r.getName(), "router/fe80::1");
    EXPECT_EQ(d.getName(), "dns/fe80::1");
    SolNetwork::Config n;
    n.prefix = addr("2001:db8:1::1234");
    n.prefixLength = 64;
    EXPECT_EQ(n.getName(), "network/2001:db8:1::/64");
    SolNetwork::Config same = n;
    same.validLifetime = 99;
    EXPECT_EQ(same.getName(), n.getName());
}

TEST(SolTypes, NetworkNameMasksPrefixButRecordKeepsLowBits) {
    SolNetwork::Config n;
    n.prefix = addr("2001:db8::1234");
    n.prefixLength = 64;
    EXPECT_EQ(n.getName(), "network/2001:db8::/64");
    EXPECT_EQ(kt_ip_address_ntop(n.prefix), "2001:db8::1234");
    EXPECT_EQ(n.prefix.bytes[14], 0x12);
    EXPECT_EQ(n.prefix.bytes[15], 0x34);
}

TEST(SolTypes, IsNotEqualLooksAtEveryDataField) {
    SolRouter::Config a;
    a.address = addr("fe80::1");
    SolRouter::Config b = a;
    EXPECT_FALSE(a.isNotEqual(b));
    b.flags = FLAG_OTHER;
    EXPECT_TRUE(a.isNotEqual(b));
    b = a;
    b.retransTimer = 1;
    EXPECT_TRUE(a.isNotEqual(b));

    SolNetwork::Config n1, n2;
    n2.preferredLifetime = 1;
    EXPECT_TRUE(n1.isNotEqual(n2));
    SolDnsServer::Config d1, d2;
    d2.index = 1;
    EXPECT_TRUE(d1.isNotEqual(d2));
}

TEST(SolTypes, NetworkPredicates) {
    SolNetwork::Config n;
    EXPECT_FALSE(n.isFlagOnLinkSet());
    n.flags = FLAG_ON_LINK | FLAG_AUTONOMOUS;
    EXPECT_TRUE(n.isFlagOnLinkSet());
    n.validLifetime = 0xffffffff;
    EXPECT_TRUE(n.isValidLifetimeInfinite());
    EXPECT_FALSE(n.isPreferredLifetimeInfinite());
    n.preferredLifetime = 0xffffffff;
    EXPECT_TRUE(n.isPreferredLifetimeInfinite());
}

TEST(SolTypes, StateNamesAndUnknownValues) {
    EXPECT_EQ(toStr(SolRouter::Status::uintToState(1)), "STATE_NEW");
    EXPECT_EQ(toStr(SolRouter::Status::uintToState(4)), "UNKNOWN");
    EXPECT_EQ(toStr(SolNetwork::Status::uintToState(4)), "STATE_DEPRECATED");
    EXPECT_EQ(toStr(SolDnsServer::Status::uintToState(4)), "STATE_INVALIDATED");
    EXPECT_EQ(toStr(SolRouter::Status::uintToState(5)), "STATE_INVALIDATED");
}

TEST(SolTypes, AddressTextAndStreamForm) {
    const kt_ip_address_t a = addr("2001:db8::53");
    EXPECT_EQ(kt_ip_address_ntop(a), "2001:db8::53");
    EXPECT_EQ(toStr(a), "2001:db8::53");
}

TEST(SolTypes, ConfigStreamForms) {
    SolRouter::Config r;
    r.address = addr("fe80::1");
    r.routerLifetime = 1800;
    r.flags = FLAG_MANAGED | FLAG_OTHER;
    EXPECT_EQ(toStr(r),
              "{address: fe80::1, reachableTime: 0, retransTimer: 0, routerLifetime: 1800, flags: 0x6}");
    SolDnsServer::Config d;
    d.address = addr("2001:db8::53");
    d.lifetime = 600;
    d.index = 2;
    EXPECT_EQ(toStr(d), "{index: 2, address: 2001:db8::53, lifetime: 600}");
}

TEST(SolTypes, CounterStreamForms) {
    SolCounter<sol_socket_counters_t> s;
    s.m_counters.rxRa = 3;
    s.m_counters.rxRejected = 1;
    EXPECT_EQ(toStr(s), "{rxRa: 3, txRs: 0, txRsFailed: 0, rxRejected: 1}");
    SolCounter<sol_packet_counters_t> p;
    p.m_counters.prefixAccepted = 2;
    EXPECT_EQ(toStr(p), "{raParsed: 0, raDropped: 0, prefixAccepted: 2, prefixIgnored: 0}");
}

std::string hexdump(const void* data, size_t length) {
    std::ostringstream os;
    SolTypesOsHexdump(os, data, length);
    return os.str();
}

TEST(SolTypes, HexdumpOfNothingPrintsNothing) {
    const uint8_t byte = 0x41;
    EXPECT_EQ(hexdump(&byte, 0), "");
    EXPECT_EQ(hexdump(nullptr, 16), "");
}

TEST(SolTypes, HexdumpFullLineShowsOffsetSplitHexAndPrintableColumn) {
    const uint8_t bytes[16] = {0x86, 0x00, 0x12, 0x34, 0x40, 0xc0, 0x07, 0x08,
                               'A',  'z',  ' ',  '~',  0x7f, 0x1f, 0xff, '0'};
    EXPECT_EQ(hexdump(bytes, sizeof bytes),
              "00000000  86 00 12 34 40 c0 07 08  41 7a 20 7e 7f 1f ff 30  |...4@...Az ~...0|\n");
}

TEST(SolTypes, HexdumpPadsTheLastPartialLineSoColumnsAlign) {
    uint8_t bytes[21];
    for (size_t i = 0; i < sizeof bytes; ++i) {
        bytes[i] = static_cast<uint8_t>('a' + i);
    }
    EXPECT_EQ(hexdump(bytes, sizeof bytes),
              "00000000  61 62 63 64 65 66 67 68  69 6a 6b 6c 6d 6e 6f 70  |abcdefghijklmnop|\n"
              "00000010  71 72 73 74 75                                    |qrstu|\n");
    EXPECT_EQ(hexdump(bytes, 9), "00000000  61 62 63 64 65 66 67 68  69                       |abcdefghi|\n");
}

TEST(SolTypes, HexdumpOffsetsCountBytesInHex) {
    const std::vector<uint8_t> bytes(0x111, 0);
    const std::string text = hexdump(bytes.data(), bytes.size());
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 18);
    EXPECT_NE(text.find("\n00000100  00 "), std::string::npos);
    EXPECT_EQ(text.substr(text.rfind("00000110")),
              "00000110  00                                                |.|\n");
}

// inet_ntop's text, the reference for every address text solicd writes.
std::string libcText(const uint8_t* bytes) {
    char text[INET6_ADDRSTRLEN];
    EXPECT_NE(inet_ntop(AF_INET6, bytes, text, sizeof text), nullptr);
    return text;
}

std::string ownText(const uint8_t* bytes) {
    char text[KT_IP6_TEXT_SIZE];
    const size_t length = kt_ip6_address_text(bytes, text);
    EXPECT_EQ(length, std::strlen(text));
    return std::string(text, length);
}

void setGroup(uint8_t* bytes, size_t group, unsigned value) {
    bytes[2 * group] = static_cast<uint8_t>(value >> 8);
    bytes[2 * group + 1] = static_cast<uint8_t>(value);
}

TEST(SolTypes, AddressTextEqualsInetNtopForEveryPatternOfZeroAndNonZeroGroups) {
    // Each group zero, one, a three-digit, a four-digit value or 0xffff: every placement and
    // length of zero runs, ties between runs, leading and trailing runs, and the groups that
    // decide the IPv4-compatible and IPv4-mapped forms.
    const unsigned values[] = {0, 1, 0xabc, 0x1000, 0xffff};
    constexpr size_t kValues = sizeof values / sizeof values[0];
    size_t combinations = 1;
    for (int i = 0; i < 8; ++i) {
        combinations *= kValues;
    }
    size_t mismatches = 0;
    for (size_t n = 0; n < combinations; ++n) {
        uint8_t bytes[16];
        size_t rest = n;
        for (size_t g = 0; g < 8; ++g) {
            setGroup(bytes, g, values[rest % kValues]);
            rest /= kValues;
        }
        if (ownText(bytes) != libcText(bytes) && ++mismatches <= 5) {
            ADD_FAILURE() << "differs from inet_ntop: " << libcText(bytes) << " / " << ownText(bytes);
        }
    }
    EXPECT_EQ(mismatches, 0u);
}

TEST(SolTypes, AddressTextEqualsInetNtopForEmbeddedIpv4OfEveryByteValue) {
    for (unsigned v = 0; v < 256; ++v) {
        for (const bool mapped : {false, true}) {
            uint8_t bytes[16] = {};
            if (mapped) {
                setGroup(bytes, 5, 0xffff);
            }
            bytes[12] = static_cast<uint8_t>(v);
            bytes[13] = static_cast<uint8_t>(255 - v);
            bytes[14] = static_cast<uint8_t>(v / 10);
            bytes[15] = static_cast<uint8_t>(v);
            EXPECT_EQ(ownText(bytes), libcText(bytes));
        }
    }
}

TEST(SolTypes, AddressTextEqualsInetNtopForPseudoRandomAddresses) {
    // A fixed linear congruential sequence, sparse in zero bytes and groups half of the time.
    uint64_t state = 0x2001db8;
    auto next = [&state] {
        state = state * 6364136223846793005u + 1442695040888963407u;
        return static_cast<uint32_t>(state >> 33);
    };
    for (int i = 0; i < 200000; ++i) {
        uint8_t bytes[16];
        const bool sparse = (i & 1) != 0;
        for (uint8_t& b : bytes) {
            const uint32_t r = next();
            b = sparse && r % 3 != 0 ? 0 : static_cast<uint8_t>(r);
        }
        ASSERT_EQ(ownText(bytes), libcText(bytes));
    }
}

TEST(SolTypes, AddressTextOfLongestAddressFillsTheBuffer) {
    const kt_ip_address_t longest = addr("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_EQ(kt_ip_address_ntop(longest), "ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    const kt_ip_address_t mapped = addr("::ffff:255.255.255.255");
    EXPECT_EQ(kt_ip_address_ntop(mapped), "::ffff:255.255.255.255");
}

TEST(SolTypes, Ipv4FamilyAddressPrintsDottedDecimal) {
    kt_ip_address_t a{};
    a.family = AF_INET;
    const uint8_t v4[] = {192, 0, 2, 10};
    std::memcpy(a.bytes, v4, sizeof v4);
    EXPECT_EQ(kt_ip_address_ntop(a), "192.0.2.10");
}

TEST(SolTypes, NetworkNamePrintsEveryPrefixLengthInDecimal) {
    SolNetwork::Config n;
    n.prefix = addr("2001:db8:ffff:ffff:ffff:ffff:ffff:ffff");
    for (uint32_t length : {0u, 1u, 9u, 10u, 63u, 64u, 100u, 128u, 129u, 4294967295u}) {
        n.prefixLength = length;
        char masked[INET6_ADDRSTRLEN];
        kt_ip_address_t m = n.prefix;
        for (uint32_t i = 0; i < 16; ++i) {
            const uint32_t before = i * 8;
            if (length <= before) {
                m.bytes[i] = 0;
            } else if (length < before + 8) {
                m.bytes[i] &= static_cast<uint8_t>(0xff << (8 - (length - before)));
            }
        }
        ASSERT_NE(inet_ntop(AF_INET6, m.bytes, masked, sizeof masked), nullptr);
        EXPECT_EQ(n.getName(), "network/" + std::string(masked) + "/" + std::to_string(length));
    }
}

TEST(SolTypes, WrittenNamesEqualTheNamesAndFitTheBufferAtTheirLongest) {
    SolNetwork::Config n;
    n.prefix = addr("ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    n.prefixLength = 4294967295u;
    SolRouter::Config r;
    r.address = addr("fe80:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    SolDnsServer::Config d;
    d.address = addr("::ffff:255.255.255.255");
    char text[SOL_ENTRY_NAME_SIZE];
    const size_t nLength = n.writeName(text);
    ASSERT_EQ(nLength, std::strlen(text));
    EXPECT_STREQ(text, "network/ffff:ffff:ffff:ffff:ffff:ffff:ffff:ffff/4294967295");
    EXPECT_EQ(n.getName(), text);
    const size_t rLength = r.writeName(text);
    ASSERT_EQ(rLength, std::strlen(text));
    EXPECT_STREQ(text, "router/fe80:ffff:ffff:ffff:ffff:ffff:ffff:ffff");
    EXPECT_EQ(r.getName(), text);
    const size_t dLength = d.writeName(text);
    ASSERT_EQ(dLength, std::strlen(text));
    EXPECT_STREQ(text, "dns/::ffff:255.255.255.255");
    EXPECT_EQ(d.getName(), text);
}

}  // namespace
