// Arbitrary bytes as a received ICMPv6 message, through a quiet and a verbose parser, with every
// trace formatted. Beyond crashes and sanitizer reports it traps on any broken promise of the
// parser: records only from a message it accepts, accepted prefixes as checked, DNS server
// ordinals 0..n-1, one counter step per message, nothing beyond the bytes given.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "PacketParser.h"
#include "TraceLog.h"

namespace {

using solicd::PacketParser;
using solicd::SolDnsServer;
using solicd::SolNetwork;
using solicd::SolRouter;

PacketParser g_quiet;
PacketParser g_verbose;

void discardTrace(void*, solicd::TraceEvent, const char*, const char*, const char*) {}

void check(bool promise) {
    if (!promise) {
        __builtin_trap();
    }
}

uint64_t total(const sol_packet_counters_t& c) {
    return c.raParsed + c.raDropped;
}

void parseOnce(PacketParser& parser, const kt_ip_address_t& source, const uint8_t* data, size_t size) {
    std::vector<SolRouter::Config> routers;
    std::vector<SolNetwork::Config> networks;
    std::vector<SolDnsServer::Config> dnsServers;
    const uint64_t before = total(parser.getCounters().m_counters);
    const int rc = parser.raParser(routers, networks, dnsServers, source, data, static_cast<int32_t>(size));
    check(rc == 0 || rc == 1);
    check(total(parser.getCounters().m_counters) == before + 1);
    check(routers.size() <= 1);
    if (routers.empty()) {
        check(networks.empty() && dnsServers.empty());
        return;
    }
    check(size >= 16);
    check(16 + networks.size() * 32 + dnsServers.size() * 16 <= size);
    for (const SolNetwork::Config& n : networks) {
        check(n.prefixLength == 64 && n.preferredLifetime <= n.validLifetime);
        check(n.flags != 0 && (n.flags & ~(solicd::FLAG_ON_LINK | solicd::FLAG_AUTONOMOUS)) == 0);
        check(!(n.prefix.bytes[0] == 0xfe && (n.prefix.bytes[1] & 0xc0) == 0x80));
    }
    for (size_t i = 0; i < dnsServers.size(); ++i) {
        check(dnsServers[i].index == i && dnsServers[i].address.family == KT_AF_INET6);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The verbose dumps are exercised, not read.
    check(std::freopen("/dev/null", "w", stdout) != nullptr);
    solicd::trace::setCapture(&discardTrace, nullptr, solicd::trace::kAllEvents);
    solicd::setTraceTag("fuzz");
    g_verbose.setVerbose(true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kt_ip_address_t source{};
    source.family = KT_AF_INET6;
    source.bytes[0] = 0xfe;
    source.bytes[1] = 0x80;
    source.bytes[15] = 1;
    // libFuzzer hands over exactly `size` bytes on the heap: any read past them is reported.
    parseOnce(g_quiet, source, data, size);
    parseOnce(g_verbose, source, data, size);
    return 0;
}
