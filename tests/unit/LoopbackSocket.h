// A UDP socket on ::1 standing in for the raw ICMPv6 socket in tests without privileges: recvmsg
// reports the same packet information, arrival interface "lo".
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <vector>

#include "UniqueFd.h"

namespace solicd::test {

// Bound to ::1 on a port of its own (`bound`, when given, receives the address), with packet
// information switched on when `packetInfo`; an empty UniqueFd when the host has no IPv6
// loopback.
inline UniqueFd loopbackSocket(bool packetInfo, struct sockaddr_in6* bound = nullptr) {
    UniqueFd fd(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        return UniqueFd();
    }
    struct sockaddr_in6 address {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const int on = 1;
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        (packetInfo && ::setsockopt(fd.get(), IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on) != 0)) {
        return UniqueFd();
    }
    socklen_t length = sizeof address;
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length);
    if (bound != nullptr) {
        *bound = address;
    }
    return fd;
}

inline void sendDatagram(const struct sockaddr_in6& to, size_t size) {
    UniqueFd sender = loopbackSocket(false);
    ASSERT_GT(sender.get(), 0);
    const std::vector<uint8_t> payload(size, 0x86);
    ASSERT_EQ(::sendto(sender.get(), payload.data(), payload.size(), 0,
                       reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(size));
}

}  // namespace solicd::test
