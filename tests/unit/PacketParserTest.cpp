#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if_arp.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "PacketParser.h"
#include "RaVectors.h"
#include "TraceCapture.h"

using namespace solicd;
using solicd::test::Trace;
using solicd::test::TraceCapture;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr const char* kTag = "solcid.lab-eth0";

kt_ip_address_t addr(const char* text) {
    kt_ip_address_t a{};
    a.family = KT_AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, a.bytes), 1) << text;
    return a;
}

std::string text(const kt_ip_address_t& a) {
    return kt_ip_address_ntop(a);
}

std::string raTrace(const std::string& message) {
    return "raParser(): [" + std::string(kTag) + "] " + message;
}

// ---- Option builders for the variations; the golden RAs are spelt out in RaVectors.h ----

void putNet32(Bytes& b, size_t offset, uint32_t value) {
    const uint32_t net = htonl(value);
    std::memcpy(b.data() + offset, &net, sizeof net);
}

// A plain RA header: hop limit 64, no flags, router lifetime 1800 s, timers 0.
Bytes raWith(const std::vector<Bytes>& options) {
    Bytes b = {
        0x86, 0x00,              // type 134, code 0
        0x00, 0x00,              // checksum
        0x40,                    // hop limit 64
        0x00,                    // M=0 O=0
        0x07, 0x08,              // router lifetime 1800
        0x00, 0x00, 0x00, 0x00,  // reachable time
        0x00, 0x00, 0x00, 0x00,  // retrans timer
    };
    for (const Bytes& o : options) {
        b.insert(b.end(), o.begin(), o.end());
    }
    return b;
}

Bytes pio(const char* prefix, uint8_t prefixLength, uint8_t flags, uint32_t valid, uint32_t preferred,
          uint8_t units = 4) {
    Bytes o(units * 8u, 0);
    o[0] = 3;
    o[1] = units;
    o[2] = prefixLength;
    o[3] = flags;
    putNet32(o, 4, valid);
    putNet32(o, 8, preferred);
    if (o.size() >= 32) {
        const kt_ip_address_t a = addr(prefix);
        std::memcpy(o.data() + 16, a.bytes, 16);
    }
    return o;
}

// RDNSS of `units`, address slots filled with 2001:db8::100, ::101, ... as far as they fit.
Bytes rdnss(uint8_t units, uint32_t lifetime) {
    Bytes o(units * 8u, 0);
    o[0] = 25;
    o[1] = units;
    if (o.size() >= 8) {
        putNet32(o, 4, lifetime);
    }
    for (size_t at = 8, i = 0; at + 16 <= o.size(); at += 16, ++i) {
        kt_ip_address_t a = addr("2001:db8::100");
        a.bytes[15] = static_cast<uint8_t>(a.bytes[15] + i);
        std::memcpy(o.data() + at, a.bytes, 16);
    }
    return o;
}

// An option of any type, filled with its type number.
Bytes opaque(uint8_t type, uint8_t units) {
    Bytes o(units * 8u, type);
    o[0] = type;
    o[1] = units;
    return o;
}

struct Parsed {
    int rc = -1;
    std::vector<SolRouter::Config> routers;
    std::vector<SolNetwork::Config> networks;
    std::vector<SolDnsServer::Config> dnsServers;

    bool empty() const { return routers.empty() && networks.empty() && dnsServers.empty(); }
};

class PacketParserTest : public ::testing::Test {
protected:
    void SetUp() override { setTraceTag(kTag); }
    void TearDown() override { setTraceTag(""); }

    // The parser reads from an exact-size heap copy, so a read past the received bytes is a heap
    // overflow under AddressSanitizer.
    Parsed parse(const uint8_t* bytes, size_t size, const kt_ip_address_t& source) {
        Parsed p;
        std::unique_ptr<uint8_t[]> copy(new uint8_t[size]);
        std::memcpy(copy.get(), bytes, size);
        p.rc = m_parser.raParser(p.routers, p.networks, p.dnsServers, source, copy.get(),
                                 static_cast<int32_t>(size));
        return p;
    }
    Parsed parse(const Bytes& bytes, const kt_ip_address_t& source) {
        return parse(bytes.data(), bytes.size(), source);
    }
    Parsed parse(const Bytes& bytes) { return parse(bytes, addr("fe80::1")); }
    template <size_t N>
    Parsed parse(const uint8_t (&bytes)[N]) {
        return parse(bytes, N, addr("fe80::1"));
    }

    std::string verboseParse(const Bytes& bytes, const kt_ip_address_t& source) {
        m_parser.setVerbose(true);
        ::testing::internal::CaptureStdout();
        m_last = parse(bytes, source);
        return ::testing::internal::GetCapturedStdout();
    }
    std::string verboseParse(const Bytes& bytes) { return verboseParse(bytes, addr("fe80::1")); }

    const sol_packet_counters_t& counters() const { return m_parser.getCounters().m_counters; }

    PacketParser m_parser;
    TraceCapture m_capture;
    Parsed m_last;
};

template <size_t N>
Bytes bytesOf(const uint8_t (&a)[N]) {
    return Bytes(a, a + N);
}

// ---- Records ----

TEST_F(PacketParserTest, RouterRecordKeepsTheFull20ByteSourceAddressAsDelivered) {
    kt_ip_address_t source = addr("fe80::1:2:3:4");
    source.pad[0] = 0xa1;  // whatever the receive path left there travels unchanged
    source.pad[1] = 0xb2;
    source.pad[2] = 0xc3;
    const Parsed p = parse(bytesOf(golden::kTypicalRa), source);
    ASSERT_EQ(p.rc, 0);
    ASSERT_EQ(p.routers.size(), 1u);
    EXPECT_EQ(std::memcmp(&p.routers[0].address, &source, sizeof source), 0);
}

TEST_F(PacketParserTest, TypicalRaYieldsRouterPrefixAndBothDnsServers) {
    const Parsed p = parse(golden::kTypicalRa);
    EXPECT_EQ(p.rc, 0);
    ASSERT_EQ(p.routers.size(), 1u);
    const SolRouter::Config& r = p.routers[0];
    EXPECT_EQ(text(r.address), "fe80::1");
    EXPECT_EQ(r.routerLifetime, 1800);
    EXPECT_EQ(r.reachableTime, 30000u);
    EXPECT_EQ(r.retransTimer, 1000u);
    EXPECT_EQ(r.flags, FLAG_MANAGED | FLAG_OTHER);
    EXPECT_EQ(r.pad, 0);
    ASSERT_EQ(p.networks.size(), 1u);
    const SolNetwork::Config& n = p.networks[0];
    EXPECT_EQ(toStr(n),
              "{prefix: 2001:db8:1::, prefixLength: 64, validLifetime: 3600, preferredLifetime: 1800, "
              "flags: 0x30}");
    EXPECT_EQ(n.prefix.family, KT_AF_INET6);
    EXPECT_EQ(n.prefix.pad[0] | n.prefix.pad[1] | n.prefix.pad[2], 0);
    ASSERT_EQ(p.dnsServers.size(), 2u);
    EXPECT_EQ(toStr(p.dnsServers[0]), "{index: 0, address: 2001:db8::53, lifetime: 600}");
    EXPECT_EQ(toStr(p.dnsServers[1]), "{index: 1, address: 2001:db8::54, lifetime: 600}");
    EXPECT_EQ(p.dnsServers[1].address.family, KT_AF_INET6);
    EXPECT_THAT(m_capture.records(), IsEmpty());
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 1, raDropped: 0, prefixAccepted: 1, prefixIgnored: 0}");
}

TEST_F(PacketParserTest, PrefixIsKeptAsReceivedNotMaskedToItsLength) {
    const Parsed p = parse(raWith({pio("2001:db8::1234", 64, 0xc0, 3600, 1800)}));
    ASSERT_EQ(p.networks.size(), 1u);
    EXPECT_EQ(text(p.networks[0].prefix), "2001:db8::1234");
    const uint8_t low[8] = {0, 0, 0, 0, 0, 0, 0x12, 0x34};
    EXPECT_EQ(std::memcmp(p.networks[0].prefix.bytes + 8, low, sizeof low), 0);
    EXPECT_EQ(p.networks[0].prefixLength, 64u);
}

TEST_F(PacketParserTest, TwoRdnssOptionsOfTwoAndOneAddressesNumberTheServers012) {
    const Parsed p = parse(golden::kTwoRdnssRa);
    EXPECT_EQ(p.rc, 0);
    ASSERT_EQ(p.dnsServers.size(), 3u);
    EXPECT_EQ(toStr(p.dnsServers[0]), "{index: 0, address: 2001:db8::53, lifetime: 600}");
    EXPECT_EQ(toStr(p.dnsServers[1]), "{index: 1, address: 2001:db8::54, lifetime: 600}");
    EXPECT_EQ(toStr(p.dnsServers[2]), "{index: 2, address: 2001:db8:2::53, lifetime: 4294967295}");
    EXPECT_THAT(m_capture.records(), IsEmpty());
}

TEST_F(PacketParserTest, DnsServerOrdinalRestartsWithEveryMessage) {
    parse(golden::kTwoRdnssRa);
    const Parsed second = parse(golden::kTwoRdnssRa);
    ASSERT_EQ(second.dnsServers.size(), 3u);
    EXPECT_EQ(second.dnsServers[0].index, 0u);
    EXPECT_EQ(second.dnsServers[2].index, 2u);
}

TEST_F(PacketParserTest, RecordsAreAppendedNeverCleared) {
    Parsed p;
    p.routers.resize(1);
    p.networks.resize(2);
    p.dnsServers.resize(3);
    const Bytes ra = bytesOf(golden::kTypicalRa);
    EXPECT_EQ(m_parser.raParser(p.routers, p.networks, p.dnsServers, addr("fe80::1"), ra.data(),
                                static_cast<int32_t>(ra.size())),
              0);
    EXPECT_EQ(p.routers.size(), 2u);
    EXPECT_EQ(p.networks.size(), 3u);
    EXPECT_EQ(p.dnsServers.size(), 5u);
    EXPECT_EQ(text(p.routers[1].address), "fe80::1");
    EXPECT_EQ(p.dnsServers[3].index, 0u);
}

// ---- Router header ----

TEST_F(PacketParserTest, ManagedFlagWithRouterLifetimeZero) {
    const Parsed p = parse(golden::kManagedLifetimeZeroRa);
    EXPECT_EQ(p.rc, 0);
    ASSERT_EQ(p.routers.size(), 1u);
    EXPECT_EQ(p.routers[0].flags, FLAG_MANAGED);
    EXPECT_EQ(p.routers[0].routerLifetime, 0);
    EXPECT_EQ(p.routers[0].reachableTime, 0u);
    EXPECT_EQ(p.routers[0].retransTimer, 0xffffffffu);
    EXPECT_EQ(counters().raParsed, 1u);
}

TEST_F(PacketParserTest, OtherFlagWithRouterLifetimeMaxIgnoresHomeAgentAndReservedBits) {
    const Parsed p = parse(golden::kOtherLifetimeMaxRa);
    EXPECT_EQ(p.rc, 0);
    ASSERT_EQ(p.routers.size(), 1u);
    EXPECT_EQ(p.routers[0].flags, FLAG_OTHER);
    EXPECT_EQ(p.routers[0].routerLifetime, 0xffff);
    EXPECT_EQ(p.routers[0].reachableTime, 0x01020304u);
    EXPECT_EQ(p.routers[0].retransTimer, 0x0a0b0c0du);
}

TEST_F(PacketParserTest, RouterFlagsFollowOnlyTheManagedAndOtherBits) {
    const struct {
        uint8_t octet;
        uint32_t flags;
    } cases[] = {{0x00, 0},          {0x80, FLAG_MANAGED},
                 {0x40, FLAG_OTHER}, {0xc0, FLAG_MANAGED | FLAG_OTHER},
                 {0x3f, 0},          {0xff, FLAG_MANAGED | FLAG_OTHER}};
    for (const auto& c : cases) {
        Bytes ra = bytesOf(golden::kTypicalRa);
        ra[5] = c.octet;
        const Parsed p = parse(ra);
        ASSERT_EQ(p.routers.size(), 1u);
        EXPECT_EQ(p.routers[0].flags, c.flags) << "flags octet " << unsigned{c.octet};
    }
}

// ---- Which messages are taken for an RA ----

TEST_F(PacketParserTest, NeighborSolicitationTypeWithCodeZeroFromLinkLocalIsParsedAsRa) {
    Bytes ra = bytesOf(golden::kTypicalRa);
    ra[0] = 135;
    const Parsed p = parse(ra);
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.routers.size(), 1u);
    EXPECT_EQ(p.networks.size(), 1u);
    EXPECT_EQ(p.dnsServers.size(), 2u);
    EXPECT_EQ(counters().raParsed, 1u);
}

TEST_F(PacketParserTest, RaTypeWithNonZeroCodeIsParsedAsRa) {
    Bytes ra = bytesOf(golden::kTypicalRa);
    ra[1] = 1;
    const Parsed p = parse(ra);
    EXPECT_EQ(p.rc, 0);
    EXPECT_EQ(p.routers.size(), 1u);
    EXPECT_EQ(counters().raParsed, 1u);
}

TEST_F(PacketParserTest, OtherTypeWithNonZeroCodeIsRefusedAsNotAnRa) {
    Bytes ra = bytesOf(golden::kTypicalRa);
    ra[0] = 135;
    ra[1] = 1;
    const Parsed p = parse(ra);
    EXPECT_EQ(p.rc, 1);
    EXPECT_TRUE(p.empty());
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          raTrace("Not a Router Advertisement. Type: 135, code: 1. Why did we get it?"))));
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 0, raDropped: 1, prefixAccepted: 0, prefixIgnored: 0}");
}

TEST_F(PacketParserTest, NullBufferIsInvalid) {
    Parsed p;
    EXPECT_EQ(m_parser.raParser(p.routers, p.networks, p.dnsServers, addr("fe80::1"), nullptr, 96), 1);
    EXPECT_TRUE(p.empty());
    EXPECT_THAT(m_capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                                  raTrace("Invalid buffer passed to packet parser. isNull: true. len: 96"))));
    EXPECT_EQ(counters().raDropped, 1u);
}

TEST_F(PacketParserTest, EmptyOrNegativeLengthIsInvalid) {
    const uint8_t byte = 0x86;
    Parsed p;
    EXPECT_EQ(m_parser.raParser(p.routers, p.networks, p.dnsServers, addr("fe80::1"), &byte, 0), 1);
    EXPECT_EQ(m_parser.raParser(p.routers, p.networks, p.dnsServers, addr("fe80::1"), &byte, -5), 1);
    EXPECT_TRUE(p.empty());
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          raTrace("Invalid buffer passed to packet parser. isNull: false. len: 0")),
                    Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          raTrace("Invalid buffer passed to packet parser. isNull: false. len: -5"))));
    EXPECT_EQ(counters().raDropped, 2u);
}

TEST_F(PacketParserTest, TraceLocationIsTheParserSource) {
    parse(Bytes{0x86});
    ASSERT_EQ(m_capture.records().size(), 1u);
    EXPECT_THAT(m_capture.records()[0].location, ::testing::StartsWith("PacketParser.cpp:"));
}

// ---- Source address ----

TEST_F(PacketParserTest, GlobalSourceYieldsNoRecordsAndResultZero) {
    const Parsed p = parse(bytesOf(golden::kTypicalRa), addr("2001:db8::1"));
    EXPECT_EQ(p.rc, 0);
    EXPECT_TRUE(p.empty());
    EXPECT_THAT(m_capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "ADDR_IPV6",
                                  raTrace("RA message ignored due to non link local address 2001:db8::1"))));
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 0, raDropped: 1, prefixAccepted: 0, prefixIgnored: 0}");
}

TEST_F(PacketParserTest, LinkLocalSourceIsExactlyFe80Slash10) {
    const struct {
        const char* source;
        bool accepted;
    } cases[] = {{"fe80::1", true},  {"febf:ffff::1", true}, {"fec0::1", false},
                 {"fe7f::1", false}, {"ff02::1", false},     {"::1", false}};
    for (const auto& c : cases) {
        const Parsed p = parse(bytesOf(golden::kTypicalRa), addr(c.source));
        EXPECT_EQ(p.routers.size(), c.accepted ? 1u : 0u) << c.source;
        EXPECT_EQ(p.rc, 0) << c.source;
    }
    EXPECT_EQ(counters().raParsed, 2u);
    EXPECT_EQ(counters().raDropped, 4u);
}

// ---- Missing options, short and malformed messages ----

TEST_F(PacketParserTest, RaWithoutOptionsReportsItsRouterAndMissingData) {
    const Parsed p = parse(golden::kHeaderOnlyRa);
    EXPECT_EQ(p.rc, 0);
    ASSERT_EQ(p.routers.size(), 1u);
    EXPECT_EQ(p.routers[0].routerLifetime, 1800);
    EXPECT_TRUE(p.networks.empty());
    EXPECT_TRUE(p.dnsServers.empty());
    EXPECT_THAT(m_capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "ADDR_IPV6", raTrace("Missing data after RA header."))));
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 0, raDropped: 1, prefixAccepted: 0, prefixIgnored: 0}");
}

TEST_F(PacketParserTest, EveryLengthFrom1To15IsDroppedAsShort) {
    const Bytes ra = bytesOf(golden::kTypicalRa);
    for (int32_t length = 1; length <= 15; ++length) {
        m_capture.clear();
        const Parsed p = parse(ra.data(), static_cast<size_t>(length), addr("fe80::1"));
        EXPECT_EQ(p.rc, 0) << length;
        EXPECT_TRUE(p.empty()) << length;
        EXPECT_THAT(
            m_capture.records(),
            ElementsAre(Trace(TraceEvent::INFO, "ADDR_IPV6",
                              raTrace("RA message ignored due to short length " + std::to_string(length)))))
            << length;
    }
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 0, raDropped: 15, prefixAccepted: 0, prefixIgnored: 0}");
}

TEST_F(PacketParserTest, ShortLengthIsCheckedBeforeTypeAndSource) {
    // An 8-byte message that the type test would refuse, from a global source.
    const Bytes echo = {0x87, 0x05, 0xaa, 0xbb, 0, 0, 0, 0};
    const Parsed p = parse(echo, addr("2001:db8::1"));
    EXPECT_EQ(p.rc, 0);
    EXPECT_THAT(m_capture.records(), ElementsAre(Trace(TraceEvent::INFO, "ADDR_IPV6",
                                                       raTrace("RA message ignored due to short length 8"))));
}

TEST_F(PacketParserTest, ZeroLengthOptionDropsTheWholeRaInsteadOfLoopingForever) {
    const Parsed p = parse(golden::kZeroLengthOptionRa);
    EXPECT_EQ(p.rc, 0);
    EXPECT_TRUE(p.empty());  // not even the router
    EXPECT_THAT(m_capture.records(),
                ElementsAre(Trace(
                    TraceEvent::INFO, "ADDR_IPV6",
                    raTrace("RA message ignored due to malformed option at offset 56, type 25, length 0"))));
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 0, raDropped: 1, prefixAccepted: 0, prefixIgnored: 0}");
}

TEST_F(PacketParserTest, ZeroLengthRdnssAndZeroLengthUnknownOptionAreMalformed) {
    EXPECT_TRUE(parse(raWith({Bytes{25, 0, 0, 0, 0, 0, 0, 0}})).empty());
    EXPECT_TRUE(parse(raWith({opaque(1, 1), Bytes{200, 0}})).empty());
    EXPECT_THAT(
        m_capture.messages(TraceEvent::INFO),
        ElementsAre(raTrace("RA message ignored due to malformed option at offset 16, type 25, length 0"),
                    raTrace("RA message ignored due to malformed option at offset 24, type 200, length 0")));
}

TEST_F(PacketParserTest, OptionOverrunningTheMessageDropsTheWholeRa) {
    // The PIO claims 4 units but only 24 bytes follow its start.
    Bytes ra = raWith({opaque(1, 1), pio("2001:db8::", 64, 0xc0, 1, 1)});
    ra.resize(ra.size() - 8);
    const Parsed p = parse(ra);
    EXPECT_EQ(p.rc, 0);
    EXPECT_TRUE(p.empty());
    EXPECT_THAT(m_capture.records(),
                ElementsAre(Trace(
                    TraceEvent::INFO, "ADDR_IPV6",
                    raTrace("RA message ignored due to malformed option at offset 24, type 3, length 4"))));
    EXPECT_EQ(counters().raDropped, 1u);
    EXPECT_EQ(counters().prefixIgnored, 0u);
}

TEST_F(PacketParserTest, MaximalLengthOctetOverrunsAndIsMalformed) {
    const Parsed p = parse(raWith({opaque(25, 1), Bytes{25, 255, 0, 0, 0, 0, 0, 0}}));
    EXPECT_TRUE(p.empty());
    EXPECT_THAT(
        m_capture.messages(TraceEvent::INFO),
        ElementsAre(raTrace("RA message ignored due to malformed option at offset 24, type 25, length 255")));
}

TEST_F(PacketParserTest, TrailingOneByteFragmentIsMalformedWithItsOctetAsTypeAndLengthZero) {
    Bytes ra = bytesOf(golden::kTypicalRa);
    ra.push_back(0x19);
    const Parsed p = parse(ra);
    EXPECT_EQ(p.rc, 0);
    EXPECT_TRUE(p.empty());
    EXPECT_THAT(m_capture.records(),
                ElementsAre(Trace(
                    TraceEvent::INFO, "ADDR_IPV6",
                    raTrace("RA message ignored due to malformed option at offset 96, type 25, length 0"))));
}

TEST_F(PacketParserTest, SeventeenByteMessageIsAOneByteFragment) {
    Bytes ra = bytesOf(golden::kHeaderOnlyRa);
    ra.push_back(0x03);
    EXPECT_TRUE(parse(ra).empty());
    EXPECT_THAT(
        m_capture.messages(TraceEvent::INFO),
        ElementsAre(raTrace("RA message ignored due to malformed option at offset 16, type 3, length 0")));
}

// Every truncation of the golden RAs, each from an exact-size heap copy: the outcome follows from
// where the cut falls, and under AddressSanitizer no read may pass the cut.
TEST_F(PacketParserTest, NoReadLeavesTheBytesReceivedAtAnyTruncation) {
    const std::vector<Bytes> goldens = {bytesOf(golden::kTypicalRa),
                                        bytesOf(golden::kTwoRdnssRa),
                                        bytesOf(golden::kPrefixFlagsRa),
                                        bytesOf(golden::kUnknownOptionsRa),
                                        bytesOf(golden::kManagedLifetimeZeroRa),
                                        bytesOf(golden::kOtherLifetimeMaxRa)};
    for (bool verbose : {false, true}) {
        m_parser.setVerbose(verbose);
        for (const Bytes& ra : goldens) {
            std::vector<size_t> starts;  // option starts, then the end
            for (size_t at = 16; at < ra.size(); at += ra[at + 1] * 8u) {
                starts.push_back(at);
            }
            starts.push_back(ra.size());
            for (size_t cut = 1; cut <= ra.size(); ++cut) {
                m_capture.clear();
                if (verbose) {
                    ::testing::internal::CaptureStdout();
                }
                const Parsed p = parse(ra.data(), cut, addr("fe80::1"));
                if (verbose) {
                    ::testing::internal::GetCapturedStdout();
                }
                ASSERT_EQ(p.rc, 0) << cut;
                std::string expected;
                if (cut < 16) {
                    expected = raTrace("RA message ignored due to short length " + std::to_string(cut));
                } else if (cut == 16) {
                    expected = raTrace("Missing data after RA header.");
                } else {
                    size_t option = 0;
                    while (starts[option + 1] < cut) {
                        ++option;
                    }
                    if (starts[option + 1] == cut) {
                        EXPECT_EQ(p.routers.size(), 1u) << cut;
                        continue;
                    }
                    const size_t at = starts[option];
                    const unsigned length = cut - at == 1 ? 0u : ra[at + 1];
                    expected =
                        raTrace("RA message ignored due to malformed option at offset " + std::to_string(at) +
                                ", type " + std::to_string(ra[at]) + ", length " + std::to_string(length));
                }
                EXPECT_THAT(m_capture.messages(TraceEvent::INFO), ::testing::Contains(expected)) << cut;
                EXPECT_EQ(p.routers.size(), cut == 16 ? 1u : 0u) << cut;
                EXPECT_TRUE(p.networks.empty() && p.dnsServers.empty()) << cut;
            }
        }
    }
}

// ---- Prefix Information ----

TEST_F(PacketParserTest, PrefixWithEveryOnLinkAndAutonomousCombination) {
    const Parsed p = parse(golden::kPrefixFlagsRa);
    EXPECT_EQ(p.rc, 0);
    ASSERT_EQ(p.networks.size(), 3u);
    EXPECT_EQ(text(p.networks[0].prefix), "2001:db8:11::");
    EXPECT_EQ(p.networks[0].flags, FLAG_ON_LINK | FLAG_AUTONOMOUS);
    EXPECT_EQ(text(p.networks[1].prefix), "2001:db8:10::");
    EXPECT_EQ(p.networks[1].flags, FLAG_ON_LINK);
    EXPECT_TRUE(p.networks[1].isFlagOnLinkSet());
    EXPECT_EQ(text(p.networks[2].prefix), "2001:db8:1::");
    EXPECT_EQ(p.networks[2].flags, FLAG_AUTONOMOUS);
    EXPECT_FALSE(p.networks[2].isFlagOnLinkSet());
    EXPECT_THAT(m_capture.records(),
                ElementsAre(Trace(
                    TraceEvent::INFO, "ADDR_IPV6",
                    raTrace("Prefix information option 2001:db8:: ignored due to A and L flag not set"))));
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 1, raDropped: 0, prefixAccepted: 3, prefixIgnored: 1}");
}

TEST_F(PacketParserTest, PrefixFlagsIgnoreTheReservedBits) {
    const Parsed p =
        parse(raWith({pio("2001:db8::", 64, 0x7f, 10, 5), pio("2001:db8:1::", 64, 0x3f, 10, 5)}));
    ASSERT_EQ(p.networks.size(), 1u);
    EXPECT_EQ(p.networks[0].flags, FLAG_AUTONOMOUS);
    EXPECT_THAT(
        m_capture.messages(TraceEvent::INFO),
        ElementsAre(raTrace("Prefix information option 2001:db8:1:: ignored due to A and L flag not set")));
}

TEST_F(PacketParserTest, PrefixLength48IsIgnoredAndLength64WithOnlyAutonomousAccepted) {
    const Parsed p =
        parse(raWith({pio("2001:db8:1::", 48, 0xc0, 3600, 1800), pio("2001:db8:2::", 64, 0x40, 3600, 1800)}));
    ASSERT_EQ(p.networks.size(), 1u);
    EXPECT_EQ(text(p.networks[0].prefix), "2001:db8:2::");
    EXPECT_EQ(p.networks[0].prefixLength, 64u);
    EXPECT_EQ(p.networks[0].flags, FLAG_AUTONOMOUS);
    EXPECT_EQ(p.networks[0].validLifetime, 3600u);
    EXPECT_EQ(p.networks[0].preferredLifetime, 1800u);
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(Trace(
            TraceEvent::INFO, "ADDR_IPV6",
            raTrace("Prefix information option 2001:db8:1:: ignored due to illegal prefix length 48"))));
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 1, raDropped: 0, prefixAccepted: 1, prefixIgnored: 1}");
}

TEST_F(PacketParserTest, PreferredAboveValidIsIgnoredAndEqualAccepted) {
    const Parsed p = parse(raWith(
        {pio("2001:db8:1::", 64, 0xc0, 3600, 0xffffffff), pio("2001:db8:2::", 64, 0xc0, 3600, 3600),
         pio("2001:db8:3::", 64, 0xc0, 0xffffffff, 0xffffffff), pio("2001:db8:4::", 64, 0xc0, 7200, 7201)}));
    ASSERT_EQ(p.networks.size(), 2u);
    EXPECT_EQ(text(p.networks[0].prefix), "2001:db8:2::");
    EXPECT_EQ(p.networks[0].preferredLifetime, 3600u);
    EXPECT_EQ(text(p.networks[1].prefix), "2001:db8:3::");
    EXPECT_TRUE(p.networks[1].isValidLifetimeInfinite());
    EXPECT_TRUE(p.networks[1].isPreferredLifetimeInfinite());
    EXPECT_THAT(m_capture.messages(TraceEvent::INFO),
                ElementsAre(raTrace("Prefix information option 2001:db8:1:: ignored due to preferred time -1 "
                                    "exceeds valid lifetime 3600"),
                            raTrace("Prefix information option 2001:db8:4:: ignored due to preferred time "
                                    "7201 exceeds valid lifetime "
                                    "7200")));
    EXPECT_EQ(counters().prefixIgnored, 2u);
    EXPECT_EQ(counters().prefixAccepted, 2u);
}

TEST_F(PacketParserTest, LinkLocalPrefixIsIgnored) {
    const Parsed p = parse(raWith({pio("fe80::", 64, 0xc0, 3600, 1800), pio("febf:1::", 64, 0xc0, 3600, 1800),
                                   pio("fec0::", 64, 0xc0, 3600, 1800)}));
    ASSERT_EQ(p.networks.size(), 1u);
    EXPECT_EQ(text(p.networks[0].prefix), "fec0::");
    EXPECT_THAT(m_capture.messages(TraceEvent::INFO),
                ElementsAre(raTrace("Prefix information option fe80:: ignored due to link local prefix"),
                            raTrace("Prefix information option febf:1:: ignored due to link local prefix")));
}

TEST_F(PacketParserTest, PrefixOptionOfWrongLengthIsIgnoredWithTheDoubledBlank) {
    const Parsed p =
        parse(raWith({pio("2001:db8::", 64, 0xc0, 3600, 1800, 5), pio("", 64, 0xc0, 3600, 1800, 3)}));
    EXPECT_TRUE(p.networks.empty());
    EXPECT_EQ(p.routers.size(), 1u);
    EXPECT_THAT(
        m_capture.messages(TraceEvent::INFO),
        ElementsAre(
            raTrace("Prefix information option  ignored due to wrong prefix information option length 5"),
            raTrace("Prefix information option  ignored due to wrong prefix information option length 3")));
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 1, raDropped: 0, prefixAccepted: 0, prefixIgnored: 2}");
}

TEST_F(PacketParserTest, PrefixChecksRunInOrderAndOnlyTheFirstFailureIsTraced) {
    // Each option fails its own check and every check after it.
    const Parsed p = parse(raWith({
        pio("fe80::", 48, 0x00, 10, 20, 5),   // wrong length first
        pio("fe80::", 48, 0x00, 10, 20),      // then link local
        pio("2001:db8::", 48, 0x00, 10, 20),  // then preferred above valid
        pio("2001:db8::", 48, 0x00, 20, 10),  // then prefix length
    }));
    EXPECT_TRUE(p.networks.empty());
    EXPECT_THAT(
        m_capture.messages(TraceEvent::INFO),
        ElementsAre(
            raTrace("Prefix information option  ignored due to wrong prefix information option length 5"),
            raTrace("Prefix information option fe80:: ignored due to link local prefix"),
            raTrace("Prefix information option 2001:db8:: ignored due to preferred time 20 exceeds valid "
                    "lifetime 10"),
            raTrace("Prefix information option 2001:db8:: ignored due to illegal prefix length 48")));
    EXPECT_EQ(counters().prefixIgnored, 4u);
}

// ---- RDNSS ----

TEST_F(PacketParserTest, RdnssAddressCountIsUnitsMinusOneHalvedRoundedDown) {
    const struct {
        uint8_t units;
        size_t addresses;
    } cases[] = {{1, 0}, {2, 0}, {3, 1}, {4, 1}, {5, 2}, {6, 2}, {7, 3}};
    for (const auto& c : cases) {
        m_capture.clear();
        const Parsed p = parse(raWith({rdnss(c.units, 900)}));
        EXPECT_EQ(p.rc, 0);
        ASSERT_EQ(p.dnsServers.size(), c.addresses) << "units " << unsigned{c.units};
        for (size_t i = 0; i < c.addresses; ++i) {
            EXPECT_EQ(p.dnsServers[i].index, i);
            EXPECT_EQ(p.dnsServers[i].lifetime, 900u);
            EXPECT_EQ(text(p.dnsServers[i].address), "2001:db8::10" + std::to_string(i));
        }
        EXPECT_THAT(m_capture.records(), IsEmpty()) << "units " << unsigned{c.units};
    }
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 7, raDropped: 0, prefixAccepted: 0, prefixIgnored: 0}");
}

// ---- Other options ----

TEST_F(PacketParserTest, UnknownOptionsAreSkippedAndTheWalkContinues) {
    const Parsed p = parse(golden::kUnknownOptionsRa);
    EXPECT_EQ(p.rc, 0);
    ASSERT_EQ(p.routers.size(), 1u);
    ASSERT_EQ(p.networks.size(), 1u);
    EXPECT_EQ(text(p.networks[0].prefix), "2001:db8:5::");
    ASSERT_EQ(p.dnsServers.size(), 1u);
    EXPECT_EQ(text(p.dnsServers[0].address), "2001:db8::35");
    EXPECT_THAT(m_capture.records(), IsEmpty());
    EXPECT_EQ(counters().raParsed, 1u);
}

// ---- Counters ----

TEST_F(PacketParserTest, CountersFollowEveryOutcome) {
    parse(golden::kTypicalRa);                                // parsed, 1 prefix accepted
    parse(golden::kPrefixFlagsRa);                            // parsed, 3 accepted, 1 ignored
    parse(golden::kHeaderOnlyRa);                             // dropped: nothing after the header
    parse(Bytes{0x86, 0x00, 0x00});                           // dropped: short
    parse(golden::kZeroLengthOptionRa);                       // dropped: malformed
    parse(bytesOf(golden::kTypicalRa), addr("2001:db8::1"));  // dropped: not link local
    Bytes notRa = bytesOf(golden::kTypicalRa);
    notRa[0] = 1;
    notRa[1] = 4;
    parse(notRa);  // dropped: not an RA
    Parsed p;
    m_parser.raParser(p.routers, p.networks, p.dnsServers, addr("fe80::1"), nullptr, 0);  // dropped: invalid
    EXPECT_EQ(toStr(m_parser.getCounters()),
              "{raParsed: 2, raDropped: 6, prefixAccepted: 4, prefixIgnored: 1}");
}

TEST_F(PacketParserTest, CountersStartAtZeroAndVerboseStartsOff) {
    PacketParser parser;
    EXPECT_EQ(toStr(parser.getCounters()),
              "{raParsed: 0, raDropped: 0, prefixAccepted: 0, prefixIgnored: 0}");
    ::testing::internal::CaptureStdout();
    Parsed p;
    const Bytes ra = bytesOf(golden::kTypicalRa);
    parser.raParser(p.routers, p.networks, p.dnsServers, addr("fe80::1"), ra.data(),
                    static_cast<int32_t>(ra.size()));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

// ---- Verbose output ----

TEST_F(PacketParserTest, VerboseDumpOfTypicalRa) {
    if constexpr (std::endian::native != std::endian::little) {
        GTEST_SKIP() << "the raw header fields print in host order; the expected text is for little endian";
    }
    const std::string out = verboseParse(bytesOf(golden::kTypicalRa));
    EXPECT_EQ(
        out,
        "Recevied packet: \n"
        "00000000  86 00 12 34 40 c0 07 08  00 00 75 30 00 00 03 e8  |...4@.....u0....|\n"
        "00000010  01 01 02 00 00 00 00 01  03 04 40 c0 00 00 0e 10  |..........@.....|\n"
        "00000020  00 00 07 08 00 00 00 00  20 01 0d b8 00 01 00 00  |........ .......|\n"
        "00000030  00 00 00 00 00 00 00 00  19 05 00 00 00 00 02 58  |...............X|\n"
        "00000040  20 01 0d b8 00 00 00 00  00 00 00 00 00 00 00 53  | ..............S|\n"
        "00000050  20 01 0d b8 00 00 00 00  00 00 00 00 00 00 00 54  | ..............T|\n"
        "ICMP6 header\n"
        " nd_ra_type: 134\n"
        " nd_ra_code: 0\n"
        " nd_ra_cksum: 13330\n"
        "RA:\n"
        "  nd_ra_router_lifetime: 2055\n"
        "  nd_ra_reachable: 812974080\n"
        "  nd_ra_retransmit: 3892510720\n"
        "  nd_ra_curhoplimit: 64\n"
        "  nd_ra_flags_reserved: 192 (0xc0)\n"
        "  - MANAGED: yes\n"
        "  - OTHER: yes\n"
        "  - HOME_AGENT: no\n"
        "RA options:\n"
        "  option type ND_OPT_SOURCE_LINKADDR 1 (0x1)\n"
        "  option length in header: 1 (0x1)\n"
        "  actual length in bytes: 8\n"
        "  option:\n"
        "00000000  01 01 02 00 00 00 00 01                           |........|\n"
        "  option type ND_OPT_PREFIX_INFORMATION 3 (0x3)\n"
        "  option length in header: 4 (0x4)\n"
        "  actual length in bytes: 32\n"
        "  option:\n"
        "00000000  03 04 40 c0 00 00 0e 10  00 00 07 08 00 00 00 00  |..@.............|\n"
        "00000010  20 01 0d b8 00 01 00 00  00 00 00 00 00 00 00 00  | ...............|\n"
        " Recevied prefix information with data: {prefix: 2001:db8:1::, prefixLength: 64, validLifetime: "
        "3600, preferredLifetime: 1800, flags: 0x30}\n"
        "  option type ND_OPT_RDNSS 25 (0x19)\n"
        "  option length in header: 5 (0x5)\n"
        "  actual length in bytes: 40\n"
        "  option:\n"
        "00000000  19 05 00 00 00 00 02 58  20 01 0d b8 00 00 00 00  |.......X .......|\n"
        "00000010  00 00 00 00 00 00 00 53  20 01 0d b8 00 00 00 00  |.......S .......|\n"
        "00000020  00 00 00 00 00 00 00 54                           |.......T|\n"
        "\n");
    EXPECT_EQ(m_last.networks.size(), 1u);
}

TEST_F(PacketParserTest, VerboseDumpOfHomeAgentRaAndRejectedPrefix) {
    if constexpr (std::endian::native != std::endian::little) {
        GTEST_SKIP() << "the raw header fields print in host order; the expected text is for little endian";
    }
    const std::string out = verboseParse(raWith({pio("2001:db8::", 48, 0x80, 1, 1)}));
    const std::string header =
        "Recevied packet: \n"
        "00000000  86 00 00 00 40 00 07 08  00 00 00 00 00 00 00 00  |....@...........|\n"
        "00000010  03 04 30 80 00 00 00 01  00 00 00 01 00 00 00 00  |..0.............|\n"
        "00000020  20 01 0d b8 00 00 00 00  00 00 00 00 00 00 00 00  | ...............|\n"
        "ICMP6 header\n"
        " nd_ra_type: 134\n"
        " nd_ra_code: 0\n"
        " nd_ra_cksum: 0\n"
        "RA:\n"
        "  nd_ra_router_lifetime: 2055\n"
        "  nd_ra_reachable: 0\n"
        "  nd_ra_retransmit: 0\n"
        "  nd_ra_curhoplimit: 64\n"
        "  nd_ra_flags_reserved: 0 (0x0)\n"
        "  - MANAGED: no\n"
        "  - OTHER: no\n"
        "  - HOME_AGENT: no\n";
    // A rejected prefix prints its option but no record line.
    EXPECT_EQ(out, header +
                       "RA options:\n"
                       "  option type ND_OPT_PREFIX_INFORMATION 3 (0x3)\n"
                       "  option length in header: 4 (0x4)\n"
                       "  actual length in bytes: 32\n"
                       "  option:\n"
                       "00000000  03 04 30 80 00 00 00 01  00 00 00 01 00 00 00 00  |..0.............|\n"
                       "00000010  20 01 0d b8 00 00 00 00  00 00 00 00 00 00 00 00  | ...............|\n"
                       "\n");

    Bytes homeAgent = bytesOf(golden::kHeaderOnlyRa);
    homeAgent[5] = 0x20;
    EXPECT_EQ(verboseParse(homeAgent),
              "Recevied packet: \n"
              "00000000  86 00 00 00 40 20 07 08  00 00 00 00 00 00 00 00  |....@ ..........|\n"
              "ICMP6 header\n"
              " nd_ra_type: 134\n"
              " nd_ra_code: 0\n"
              " nd_ra_cksum: 0\n"
              "RA:\n"
              "  nd_ra_router_lifetime: 2055\n"
              "  nd_ra_reachable: 0\n"
              "  nd_ra_retransmit: 0\n"
              "  nd_ra_curhoplimit: 64\n"
              "  nd_ra_flags_reserved: 32 (0x20)\n"
              "  - MANAGED: no\n"
              "  - OTHER: no\n"
              "  - HOME_AGENT: yes\n");
}

TEST_F(PacketParserTest, VerboseDumpStopsWhereTheMessageIsRefused) {
    const Bytes ra = bytesOf(golden::kHeaderOnlyRa);
    const std::string packet =
        "Recevied packet: \n"
        "00000000  86 00 00 00 40 00 07 08  00 00 00 00 00 00 00 00  |....@...........|\n";
    EXPECT_EQ(verboseParse(ra, addr("2001:db8::1")), packet);

    Bytes notRa = ra;
    notRa[1] = 9;
    notRa[0] = 1;
    EXPECT_EQ(verboseParse(notRa),
              "Recevied packet: \n"
              "00000000  01 09 00 00 40 00 07 08  00 00 00 00 00 00 00 00  |....@...........|\n");
    EXPECT_EQ(m_last.rc, 1);

    EXPECT_EQ(verboseParse(Bytes(ra.begin(), ra.begin() + 15)), "");
    m_parser.setVerbose(true);
    ::testing::internal::CaptureStdout();
    Parsed p;
    m_parser.raParser(p.routers, p.networks, p.dnsServers, addr("fe80::1"), nullptr, 16);
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
}

TEST_F(PacketParserTest, VerboseDumpOfMalformedRaEndsAfterTheHeader) {
    const std::string out = verboseParse(bytesOf(golden::kZeroLengthOptionRa));
    EXPECT_TRUE(m_last.empty());
    EXPECT_THAT(out, ::testing::StartsWith("Recevied packet: \n00000000  86 00 "));
    EXPECT_THAT(out, ::testing::EndsWith("  - HOME_AGENT: no\n"));
    EXPECT_EQ(out.find("RA options:"), std::string::npos);
}

TEST_F(PacketParserTest, VerboseOptionNamesFollowTheTableWithUnknownOutsideIt) {
    std::vector<Bytes> options;
    for (unsigned type = 0; type <= 27; ++type) {
        options.push_back(opaque(static_cast<uint8_t>(type), 1));
    }
    options.push_back(opaque(255, 2));
    const std::string out = verboseParse(raWith(options));
    std::vector<std::string> lines;
    for (size_t at = out.find("  option type "); at != std::string::npos;
         at = out.find("  option type ", at + 1)) {
        lines.push_back(out.substr(at, out.find('\n', at) - at));
    }
    const std::vector<std::string> expected = {
        "  option type UNKNOWN 0 (0x0)",
        "  option type ND_OPT_SOURCE_LINKADDR 1 (0x1)",
        "  option type ND_OPT_TARGET_LINKADDR 2 (0x2)",
        "  option type ND_OPT_PREFIX_INFORMATION 3 (0x3)",
        "  option type ND_OPT_REDIRECTED_HEADER 4 (0x4)",
        "  option type ND_OPT_MTU 5 (0x5)",
        "  option type UNKNOWN 6 (0x6)",
        "  option type ND_OPT_ADVINTERVAL 7 (0x7)",
        "  option type ND_OPT_HOMEAGENT_INFO 8 (0x8)",
        "  option type ND_OPT_ROUTE_INFO 9 (0x9)",
        "  option type UNKNOWN 10 (0xa)",
        "  option type UNKNOWN 11 (0xb)",
        "  option type UNKNOWN 12 (0xc)",
        "  option type UNKNOWN 13 (0xd)",
        "  option type UNKNOWN 14 (0xe)",
        "  option type UNKNOWN 15 (0xf)",
        "  option type UNKNOWN 16 (0x10)",
        "  option type UNKNOWN 17 (0x11)",
        "  option type UNKNOWN 18 (0x12)",
        "  option type UNKNOWN 19 (0x13)",
        "  option type UNKNOWN 20 (0x14)",
        "  option type UNKNOWN 21 (0x15)",
        "  option type UNKNOWN 22 (0x16)",
        "  option type UNKNOWN 23 (0x17)",
        "  option type UNKNOWN 24 (0x18)",
        "  option type ND_OPT_RDNSS 25 (0x19)",
        "  option type UNKNOWN 26 (0x1a)",
        "  option type UNKNOWN 27 (0x1b)",
        "  option type UNKNOWN 255 (0xff)",
    };
    EXPECT_EQ(lines, expected);
    EXPECT_NE(out.find("  option type UNKNOWN 255 (0xff)\n"
                       "  option length in header: 2 (0x2)\n"
                       "  actual length in bytes: 16\n"
                       "  option:\n"
                       "00000000  ff 02 ff ff ff ff ff ff  ff ff ff ff ff ff ff ff  |................|\n"),
              std::string::npos);
    // The 8-byte PIO in that list is rejected for its length; the 8-byte RDNSS is skipped silently.
    EXPECT_THAT(m_capture.messages(TraceEvent::INFO),
                ElementsAre(raTrace(
                    "Prefix information option  ignored due to wrong prefix information option length 1")));
}

// ---- allocArray ----

struct AllocatorSpy {
    static inline int calls = 0;
    static inline int failOnCall = 0;  // 0: never
    static inline std::vector<size_t> sizes;

    static void* allocate(size_t count, size_t size) {
        sizes.push_back(count * size);
        return ++calls == failOnCall ? nullptr : std::calloc(count, size);
    }
};

class AllocatorTest : public PacketParserTest {
protected:
    void SetUp() override {
        PacketParserTest::SetUp();
        AllocatorSpy::calls = 0;
        AllocatorSpy::failOnCall = 0;
        AllocatorSpy::sizes.clear();
    }
    void TearDown() override {
        PacketParser::setAllocator(nullptr);
        PacketParserTest::TearDown();
    }
};

TEST_F(AllocatorTest, AllocArrayRefusesLengthsBelowOne) {
    EXPECT_EQ(PacketParser::allocArray(0), nullptr);
    EXPECT_EQ(PacketParser::allocArray(-7), nullptr);
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          "allocArray(): [solcid.lab-eth0] Cannot allocate memory because len = 0 in "
                          "allocArray()."),
                    Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          "allocArray(): [solcid.lab-eth0] Cannot allocate memory because len = -7 in "
                          "allocArray().")));
}

TEST_F(AllocatorTest, AllocArrayReturnsZeroFilledMemoryEvenWhereGarbageWasFreed) {
    constexpr size_t kSize = 300;
    void* garbage = std::malloc(kSize);
    ASSERT_NE(garbage, nullptr);
    std::memset(garbage, 0xa5, kSize);
    std::free(garbage);
    uint8_t* array = PacketParser::allocArray(kSize);
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(std::count(array, array + kSize, 0), static_cast<long>(kSize));
    std::free(array);
    EXPECT_THAT(m_capture.records(), IsEmpty());
}

TEST_F(AllocatorTest, AllocArrayTracesAnAllocationFailure) {
    PacketParser::setAllocator(&AllocatorSpy::allocate);
    AllocatorSpy::failOnCall = 1;
    EXPECT_EQ(PacketParser::allocArray(64), nullptr);
    EXPECT_THAT(AllocatorSpy::sizes, ElementsAre(64u));
    EXPECT_THAT(m_capture.records(),
                ElementsAre(Trace(
                    TraceEvent::ERROR, "ADDR_IPV6",
                    "allocArray(): [solcid.lab-eth0] Cannot allocate memory for array in allocArray().")));
}

// ---- insertRsMsg ----

SocketMgr::IfConfig ifConfig(const char* lladdr, const char* rsaddr, const uint8_t (&hw)[6]) {
    SocketMgr::IfConfig c{};
    c.hwaddr.sa_family = ARPHRD_ETHER;
    std::memcpy(c.hwaddr.sa_data, hw, sizeof hw);
    c.lladdr.sin6_family = AF_INET6;
    c.rsaddr.sin6_family = AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, lladdr, &c.lladdr.sin6_addr), 1);
    EXPECT_EQ(inet_pton(AF_INET6, rsaddr, &c.rsaddr.sin6_addr), 1);
    return c;
}

SocketMgr::Message socketBuffer() {
    SocketMgr::Message m;
    m.m_data.assign(kMessageBufferSize, 0);
    m.m_length = 1;
    return m;
}

// Written out from the pseudo-header layout as a reader of the standard would, big-endian words.
uint16_t referenceChecksum(const in6_addr& source, const in6_addr& destination, const uint8_t* icmp,
                           size_t length) {
    std::vector<uint8_t> input(source.s6_addr, source.s6_addr + 16);
    input.insert(input.end(), destination.s6_addr, destination.s6_addr + 16);
    input.insert(input.end(), {static_cast<uint8_t>(length >> 24), static_cast<uint8_t>(length >> 16),
                               static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length), 0, 0, 0, 58});
    input.insert(input.end(), icmp, icmp + length);
    input[40 + 2] = 0;
    input[40 + 3] = 0;
    uint64_t sum = 0;
    for (size_t i = 0; i < input.size(); i += 2) {
        sum += (uint32_t{input[i]} << 8) | input[i + 1];
    }
    while (sum > 0xffff) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum & 0xffff);
}

TEST_F(AllocatorTest, RouterSolicitationForFe80Colon1IsTheKnownVector) {
    const uint8_t hw[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    SocketMgr::Message m = socketBuffer();
    m.m_state = SocketMgr::Message::MSG_STATE_TX_READY;
    EXPECT_EQ(PacketParser::insertRsMsg(ifConfig("fe80::1", "ff02::2", hw), m), 0u);
    const Bytes expected = {
        0x85, 0x00,                          // type 133, code 0
        0x7a, 0x2c,                          // checksum
        0x00, 0x00, 0x00, 0x00,              // reserved
        0x01, 0x01,                          // Source Link-Layer Address, 1 unit
        0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // hardware address
    };
    EXPECT_EQ(Bytes(m.m_data.begin(), m.m_data.begin() + 16), expected);
    EXPECT_EQ(m.m_length, 16u);
    EXPECT_EQ(m.m_data.size(), kMessageBufferSize);
    EXPECT_EQ(m.m_state, SocketMgr::Message::MSG_STATE_TX_READY);
    const in6_addr src = ifConfig("fe80::1", "ff02::2", hw).lladdr.sin6_addr;
    const in6_addr dst = ifConfig("fe80::1", "ff02::2", hw).rsaddr.sin6_addr;
    EXPECT_EQ(referenceChecksum(src, dst, m.m_data.data(), 16), 0x7a2c);
    EXPECT_THAT(m_capture.records(), IsEmpty());
}

TEST_F(AllocatorTest, RouterSolicitationChecksumMatchesAnIndependentComputation) {
    for (unsigned i = 0; i < 64; ++i) {
        const uint8_t hw[6] = {static_cast<uint8_t>(0x02 + i), 0x11,
                               static_cast<uint8_t>(i * 37),   0xff,
                               static_cast<uint8_t>(0xfe - i), static_cast<uint8_t>(i * 101)};
        SocketMgr::IfConfig c = ifConfig("fe80::", "ff02::2", hw);
        for (size_t b = 8; b < 16; ++b) {
            c.lladdr.sin6_addr.s6_addr[b] = static_cast<uint8_t>(i * (b + 3) + 0xf0);
        }
        SocketMgr::Message m = socketBuffer();
        ASSERT_EQ(PacketParser::insertRsMsg(c, m), 0u);
        const uint16_t wire = static_cast<uint16_t>((m.m_data[2] << 8) | m.m_data[3]);
        EXPECT_EQ(wire, referenceChecksum(c.lladdr.sin6_addr, c.rsaddr.sin6_addr, m.m_data.data(), 16)) << i;
        EXPECT_EQ(std::memcmp(m.m_data.data() + 10, hw, 6), 0);
    }
}

TEST_F(AllocatorTest, RouterSolicitationOverwritesOnlyTheFirst16Bytes) {
    const uint8_t hw[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    SocketMgr::Message m;
    m.m_data.assign(16, 0xee);
    EXPECT_EQ(PacketParser::insertRsMsg(ifConfig("fe80::1", "ff02::2", hw), m), 0u);
    EXPECT_EQ(m.m_data.size(), 16u);
    EXPECT_EQ(m.m_data[4], 0);
    EXPECT_EQ(m.m_data[15], 0x01);
}

TEST_F(AllocatorTest, BufferOf15BytesIsRefusedWithLengthAlready16) {
    const uint8_t hw[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    PacketParser::setAllocator(&AllocatorSpy::allocate);
    SocketMgr::Message m;
    m.m_data.assign(15, 0xee);
    m.m_length = 3;
    EXPECT_EQ(PacketParser::insertRsMsg(ifConfig("fe80::1", "ff02::2", hw), m), 1u);
    EXPECT_EQ(m.m_length, 16u);
    EXPECT_EQ(m.m_data, Bytes(15, 0xee));
    EXPECT_EQ(AllocatorSpy::calls, 0);

    SocketMgr::Message empty;
    EXPECT_EQ(PacketParser::insertRsMsg(ifConfig("fe80::1", "ff02::2", hw), empty), 1u);
    EXPECT_EQ(empty.m_length, 16u);
    EXPECT_TRUE(empty.m_data.empty());
}

TEST_F(AllocatorTest, RouterSolicitationUsesTwo65535ByteScratchBuffers) {
    const uint8_t hw[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    PacketParser::setAllocator(&AllocatorSpy::allocate);
    SocketMgr::Message m = socketBuffer();
    EXPECT_EQ(PacketParser::insertRsMsg(ifConfig("fe80::1", "ff02::2", hw), m), 0u);
    EXPECT_THAT(AllocatorSpy::sizes, ElementsAre(65535u, 65535u));
    EXPECT_EQ(m.m_data[2], 0x7a);
    EXPECT_EQ(m.m_data[3], 0x2c);
}

TEST_F(AllocatorTest, OptionsBufferAllocationFailureLeavesTheMessageUntouched) {
    const uint8_t hw[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    PacketParser::setAllocator(&AllocatorSpy::allocate);
    AllocatorSpy::failOnCall = 1;
    SocketMgr::Message m = socketBuffer();
    m.m_data[0] = 0x42;
    EXPECT_EQ(PacketParser::insertRsMsg(ifConfig("fe80::1", "ff02::2", hw), m), 1u);
    EXPECT_EQ(m.m_length, 16u);
    EXPECT_EQ(m.m_data[0], 0x42);
    EXPECT_EQ(std::count(m.m_data.begin() + 1, m.m_data.end(), 0), static_cast<long>(kMessageBufferSize - 1));
    EXPECT_EQ(AllocatorSpy::calls, 1);
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(
            Trace(TraceEvent::ERROR, "ADDR_IPV6",
                  "allocArray(): [solcid.lab-eth0] Cannot allocate memory for array in allocArray()."),
            Trace(TraceEvent::ERROR, "ADDR_IPV6",
                  "insertRsMsg(): [solcid.lab-eth0] Could not allocate memory for options buffer in "
                  "allocArray.")));
}

TEST_F(AllocatorTest, PseudoHeaderAllocationFailureReleasesTheFirstBufferAndLeavesTheMessage) {
    const uint8_t hw[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    PacketParser::setAllocator(&AllocatorSpy::allocate);
    AllocatorSpy::failOnCall = 2;
    SocketMgr::Message m = socketBuffer();
    EXPECT_EQ(PacketParser::insertRsMsg(ifConfig("fe80::1", "ff02::2", hw), m), 1u);
    EXPECT_EQ(m.m_length, 16u);
    EXPECT_EQ(std::count(m.m_data.begin(), m.m_data.end(), 0), static_cast<long>(kMessageBufferSize));
    EXPECT_EQ(AllocatorSpy::calls, 2);
    // A leak of the first buffer fails the sanitizer run.
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(
            Trace(TraceEvent::ERROR, "ADDR_IPV6",
                  "allocArray(): [solcid.lab-eth0] Cannot allocate memory for array in allocArray()."),
            Trace(TraceEvent::ERROR, "ADDR_IPV6",
                  "insertRsMsg(): [solcid.lab-eth0] Could not allocate memory for psdhdr buffer in "
                  "allocArray.")));
}

}  // namespace
