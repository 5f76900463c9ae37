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
inline constexpr uint32_t kForeignMsgNo = 0x1234;
inline constexpr size_t kShortRouterUpdate = 100;

}  // namespace solicd::test
