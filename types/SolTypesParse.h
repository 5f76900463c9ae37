// Reading back the text forms SolTypes.h prints: a record's stream form, a counter set's, and the
// cache dump solicd answers a show-cache request with. Strict: every literal, field and number
// must be exactly where the printer puts it; anything else is an error naming the offset.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "SolTypes.h"

namespace solicd {

// Each reads the whole of `text` as one form. On failure: false, `out` unspecified, and `error`
// such as "at offset 17: expected ', reachableTime: '".
bool solParseRecord(std::string_view text, SolRouter& out, std::string& error);
bool solParseRecord(std::string_view text, SolNetwork& out, std::string& error);
bool solParseRecord(std::string_view text, SolDnsServer& out, std::string& error);
bool solParseCounters(std::string_view text, SolCounter<sol_socket_counters_t>& out, std::string& error);
bool solParseCounters(std::string_view text, SolCounter<sol_packet_counters_t>& out, std::string& error);

// The cache dump: "\nRouters:", the routers one per line (the first directly after the
// heading), "\nNetworks:" and "\nDNS Servers:" likewise, then "\nCounters:" with the socket and
// the parser counter sets side by side.
struct SolCacheText {
    std::vector<SolRouter> routers;
    std::vector<SolNetwork> networks;
    std::vector<SolDnsServer> dnsServers;
    SolCounter<sol_socket_counters_t> socketCounters;
    SolCounter<sol_packet_counters_t> packetCounters;
};
bool solParseCacheText(std::string_view text, SolCacheText& out, std::string& error);

// The cache dump laid out as solicd writes it, for what it reads back.
std::string solCacheTextOf(const SolCacheText& cache);

}  // namespace solicd
