// What the test peer (LmxTestPeer.cpp) sends, for the tests that check what arrived.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "ClientRecords.h"

namespace solicd::test {

// The show-cache answer: a cache dump laid out as solicd writes it, of routers 1 and 2,
// network 1, DNS servers 0 and 1, and counters.
inline std::string testCacheText() {
    SolCounter<sol_socket_counters_t> socket;
    socket.m_counters = {1234, 3, 0, 2};
    SolCounter<sol_packet_counters_t> packet;
    packet.m_counters = {1234, 0, 1200, 34};
    return "\nRouters:" + toStr(makeRouter(1)) + "\n" + toStr(makeRouter(2)) + "\n" +
           "\nNetworks:" + toStr(makeNetwork(1)) + "\n" + "\nDNS Servers:" + toStr(makeDnsServer(0)) + "\n" +
           toStr(makeDnsServer(1)) + "\n" + "\nCounters:" + toStr(socket) + toStr(packet);
}
// The health answer: as solicd writes it, two routers that disagree on M, one with a gap and
// drops, and a source of malformed RAs that is not a router.
inline constexpr const char* kTestHealthText =
    R"({"version":1,"time":1764064800,"conflictsDropped":0,"otherSourcesForgotten":0,"routers":[)"
    R"({"address":"fe80::1","state":"STATE_UPDATED","ras":120,"firstRa":1764063600,"lastRa":1764064797,)"
    R"("silentSeconds":3,"interval":{"count":119,"last":10,"min":9,"max":60,"mean":10.1},"gaps":1,)"
    R"("dropped":{"no_options":2},"prefixesIgnored":{"prefix_length":1},)"
    R"("conflicts":[{"peer":"fe80::2","field":"M flag","here":"1","there":"0"}]},)"
    R"({"address":"fe80::2","state":"STATE_EXPIRED","ras":1,"firstRa":1764064000,"lastRa":1764064000,)"
    R"("silentSeconds":800,"interval":{"count":0,"last":0,"min":0,"max":0,"mean":0.0},"gaps":0,)"
    R"("dropped":{},"prefixesIgnored":{},)"
    R"("conflicts":[{"peer":"fe80::1","field":"M flag","here":"0","there":"1"}]}],)"
    R"("otherSources":[{"address":"fe80::bad","lastSeen":1764064790,"dropped":{"malformed_option":4},)"
    R"("prefixesIgnored":{}}]})";
inline constexpr uint32_t kForeignMsgNo = 0x1234;
inline constexpr size_t kShortRouterUpdate = 100;

}  // namespace solicd::test
