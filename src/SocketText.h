// Text forms used in the socket's trace lines and the interface configuration line: message
// states, address families and socket addresses.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <ostream>
#include <string>

namespace solicd {

std::ostream& printMessageState(std::ostream& os, uint32_t state);  // "{ no: 1, txt: MSG_STATE_RX_OK}"
std::string messageStateToStr(uint32_t state);
const char* addressFamilyToCstr(unsigned family);
std::ostream& printSockaddr(std::ostream& os, const struct sockaddr& address);
std::ostream& printSockaddrIn6(std::ostream& os, const struct sockaddr_in6& address);

}  // namespace solicd
