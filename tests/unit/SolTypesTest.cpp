#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <vector>

#include "SolTypes.h"

using namespace solicd;

namespace {

kt_ip_address_t addr(const char* text)
{
    kt_ip_address_t a{};
    a.family = KT_AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, a.bytes), 1);
    return a;
}

TEST(SolTypes, DefaultConstructorsClearEveryFieldFlagsIncluded)
{
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

TEST(SolTypes, NamesAreUniqueAcrossKindsAndStablePerEntry)
{
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

TEST(SolTypes, NetworkNameMasksPrefixButRecordKeepsLowBits)
{
    SolNetwork::Config n;
    n.prefix = addr("2001:db8::1234");
    n.prefixLength = 64;
    EXPECT_EQ(n.getName(), "network/2001:db8::/64");
    EXPECT_EQ(kt_ip_address_ntop(n.prefix), "2001:db8::1234");
    EXPECT_EQ(n.prefix.bytes[14], 0x12);
    EXPECT_EQ(n.prefix.bytes[15], 0x34);
}

TEST(SolTypes, IsNotEqualLooksAtEveryDataField)
{
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

TEST(SolTypes, NetworkPredicates)
{
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

TEST(SolTypes, StateNamesAndUnknownValues)
{
    EXPECT_EQ(toStr(SolRouter::Status::uintToState(1)), "STATE_NEW");
    EXPECT_EQ(toStr(SolRouter::Status::uintToState(4)), "UNKNOWN");
    EXPECT_EQ(toStr(SolNetwork::Status::uintToState(4)), "STATE_DEPRECATED");
    EXPECT_EQ(toStr(SolDnsServer::Status::uintToState(4)), "STATE_INVALIDATED");
    EXPECT_EQ(toStr(SolRouter::Status::uintToState(5)), "STATE_INVALIDATED");
}

TEST(SolTypes, AddressTextAndStreamForm)
{
    const kt_ip_address_t a = addr("2001:db8::53");
    EXPECT_EQ(kt_ip_address_ntop(a), "2001:db8::53");
    EXPECT_EQ(toStr(a), "2001:db8::53");
}

TEST(SolTypes, ConfigStreamForms)
{
    SolRouter::Config r;
    r.address = addr("fe80::1");
    r.routerLifetime = 1800;
    r.flags = FLAG_MANAGED | FLAG_OTHER;
    EXPECT_EQ(toStr(r), "{address: fe80::1, reachableTime: 0, retransTimer: 0, routerLifetime: 1800, flags: 0x6}");
    SolDnsServer::Config d;
    d.address = addr("2001:db8::53");
    d.lifetime = 600;
    d.index = 2;
    EXPECT_EQ(toStr(d), "{index: 2, address: 2001:db8::53, lifetime: 600}");
}

TEST(SolTypes, CounterStreamForms)
{
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

}  // namespace
