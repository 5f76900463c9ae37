// What the test peer (LmxTestPeer.cpp) sends, for the tests that check what arrived.
#pragma once

#include <cstddef>
#include <cstdint>

namespace solicd::test {

inline constexpr const char* kTestCacheText =
    "\nRouters:\n{router 1}\n\nNetworks:\n\nDNS Servers:\n\nCounters:{}{}";
inline constexpr uint32_t kForeignMsgNo = 0x1234;
inline constexpr size_t kShortRouterUpdate = 100;

}  // namespace solicd::test
