// A UDP socket on ::1 standing in for the raw ICMPv6 socket in tests without privileges: recvmsg
// reports the same packet information and hop limit, arrival interface "lo".
#pragma once

#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <vector>

#include "SocketMgr.h"
#include "UniqueFd.h"

namespace solicd::test {

// Bound to ::1 on a port of its own (`bound`, when given, receives the address), with the
// control items of the daemon's socket (packet information, hop limit) switched on when
// `receptionItems`; an empty UniqueFd when the host has no IPv6 loopback.
inline UniqueFd loopbackSocket(bool receptionItems, struct sockaddr_in6* bound = nullptr) {
    UniqueFd fd(::socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        return UniqueFd();
    }
    struct sockaddr_in6 address {};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    if (::bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        (receptionItems && !SocketMgr::requestReceptionItems(fd.get()))) {
        return UniqueFd();
    }
    socklen_t length = sizeof address;
    ::getsockname(fd.get(), reinterpret_cast<sockaddr*>(&address), &length);
    if (bound != nullptr) {
        *bound = address;
    }
    return fd;
}

// `size` bytes to `to`, with the hop limit of a Neighbour Discovery message from the link unless
// `hopLimit` says another.
inline void sendDatagram(const struct sockaddr_in6& to, size_t size, int hopLimit = kNdHopLimit) {
    UniqueFd sender = loopbackSocket(false);
    ASSERT_GT(sender.get(), 0);
    ASSERT_EQ(::setsockopt(sender.get(), IPPROTO_IPV6, IPV6_UNICAST_HOPS, &hopLimit, sizeof hopLimit), 0);
    const std::vector<uint8_t> payload(size, 0x86);
    ASSERT_EQ(::sendto(sender.get(), payload.data(), payload.size(), 0,
                       reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(size));
}

}  // namespace solicd::test
