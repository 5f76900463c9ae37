// What the files of the socket manager share and nobody else needs: trace categories and the size
// of a route-netlink receive buffer.
#pragma once

#include <cstddef>

namespace solicd {

inline constexpr const char* kCategorySocket = "ADDR_IPV6";
inline constexpr const char* kCategoryGeneral = "GENERAL";
inline constexpr size_t kNetlinkBufferSize = 8192;

}  // namespace solicd
