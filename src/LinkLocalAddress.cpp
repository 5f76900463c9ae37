// SocketMgr's link-local address: from the interface's addresses, or else waited for over route
// netlink until the kernel announces it.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

#include "SocketInternal.h"
#include "SocketMgr.h"
#include "TraceLog.h"

namespace solicd {
namespace {

constexpr std::string_view kLinkLocalPrefix = "fe80:";

constexpr uint32_t kNetlinkGroups = RTMGRP_IPV6_IFADDR;
constexpr size_t kNetlinkScatterSize = 8129;
constexpr uint8_t kIfaFlagPermanent = IFA_F_PERMANENT;

constexpr size_t kIpv6AddressLength = 16;
constexpr uint8_t kLinkLocalByte0 = 0xfe;
constexpr uint8_t kLinkLocalByte1Mask = 0xc0;
constexpr uint8_t kLinkLocalByte1Bits = 0x80;

// The address header of one RTM_NEWADDR message and its attributes; `message` spans exactly the
// message's own length.
bool newAddressIsLinkLocal(const uint8_t* message, size_t length, const std::string& ifName,
                           IfIndexToName resolve, struct sockaddr_in6& lladdr) {
    constexpr const char* kFn = "initLocalIpv6AddrFromNetlink";
    SOL_TRACE(LAB, kCategorySocket, kFn, "[%s] Get a message with new address", getTraceTag());

    constexpr size_t kHeaders = NLMSG_HDRLEN + sizeof(struct ifaddrmsg);
    if (length < kHeaders) {
        // Too short to name an interface: nothing to look at.
        return false;
    }
    struct ifaddrmsg address;
    std::memcpy(&address, message + NLMSG_HDRLEN, sizeof address);

    char name[IF_NAMESIZE] = {};
    if (resolve(address.ifa_index, name) == nullptr) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] if_indextoname return NULL, errno=%s (%d)",
                  getTraceTag(), strerror(err), err);
        return false;
    }
    const std::string_view resolved(name, strnlen(name, sizeof name));
    if (resolved != ifName) {
        SOL_TRACE(LAB, kCategorySocket, kFn, "[%s] Message ignored for uninterested ifname %.*s",
                  getTraceTag(), static_cast<int>(resolved.size()), resolved.data());
        return false;
    }
    if ((address.ifa_flags & kIfaFlagPermanent) == 0) {
        SOL_TRACE(LAB, kCategorySocket, kFn, "[%s] Message igonred for the address is not PERMANENT",
                  getTraceTag());
        return false;
    }

    size_t offset = kHeaders;
    while (length - offset >= sizeof(struct rtattr)) {
        struct rtattr attribute;
        std::memcpy(&attribute, message + offset, sizeof attribute);
        const size_t remaining = length - offset;
        if (attribute.rta_len < sizeof(struct rtattr) || attribute.rta_len > remaining) {
            break;
        }
        if (attribute.rta_type == IFA_ADDRESS && attribute.rta_len == RTA_LENGTH(kIpv6AddressLength)) {
            const uint8_t* bytes = message + offset + RTA_LENGTH(0);
            if (bytes[0] == kLinkLocalByte0 && (bytes[1] & kLinkLocalByte1Mask) == kLinkLocalByte1Bits) {
                lladdr = {};
                lladdr.sin6_family = address.ifa_family;
                std::memcpy(&lladdr.sin6_addr, bytes, kIpv6AddressLength);
                lladdr.sin6_scope_id = address.ifa_index;
                return true;
            }
        }
        const size_t advance = RTA_ALIGN(attribute.rta_len);
        if (advance >= remaining) {
            break;
        }
        offset += advance;
    }
    return false;
}

}  // namespace

uint32_t SocketMgr::initLocalIpv6Addr() {
    constexpr const char* kFn = "initLocalIpv6Addr";
    struct ifaddrs* list = nullptr;
    if (::getifaddrs(&list) != 0) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Error from getifaddrs(). Terminating. error: %s (%d)",
                  getTraceTag(), strerror(err), err);
        return 1;
    }
    std::unique_ptr<struct ifaddrs, decltype(&::freeifaddrs)> owner(list, &::freeifaddrs);
    for (const struct ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET6) {
            continue;
        }
        struct sockaddr_in6 address;
        std::memcpy(&address, entry->ifa_addr, sizeof address);
        char text[INET6_ADDRSTRLEN];
        if (::inet_ntop(AF_INET6, &address.sin6_addr, text, sizeof text) == nullptr) {
            const int err = errno;
            SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Error from inet_ntop(), error: %s (%d)",
                      getTraceTag(), strerror(err), err);
            return 1;
        }
        // Textual on purpose: only addresses written "fe80:..." qualify here.
        if (entry->ifa_name != nullptr && m_ifName == entry->ifa_name &&
            std::string_view(text).starts_with(kLinkLocalPrefix)) {
            m_ifConfig.lladdr = address;
            return 0;
        }
    }
    owner.reset();
    return initLocalIpv6AddrFromNetlink();
}

uint32_t SocketMgr::initLocalIpv6AddrFromNetlink() {
    constexpr const char* kFn = "initLocalIpv6AddrFromNetlink";
    SOL_TRACE(
        INFO, kCategorySocket, kFn,
        "[%s] Did not find linklocal address on the interface %s. Use netlink to wait kernel to give the "
        "address",
        getTraceTag(), m_ifName.c_str());

    m_netlink.reset(::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
    if (m_netlink.get() < 0) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Error from socket(), error: %s (%d)", getTraceTag(),
                  strerror(err), err);
        return 1;
    }
    // No dump request: only announcements made from now on are seen.
    struct sockaddr_nl local {};
    local.nl_family = AF_NETLINK;
    local.nl_pid = 0;
    local.nl_groups = kNetlinkGroups;
    if (::bind(m_netlink.get(), reinterpret_cast<const struct sockaddr*>(&local), sizeof local) != 0) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Error from bind(), error: %s (%d)", getTraceTag(),
                  strerror(err), err);
        return 1;
    }

    reportLinkLocalWait();
    alignas(struct nlmsghdr) uint8_t buffer[kNetlinkBufferSize];
    for (;;) {
        struct sockaddr_nl peer {};
        struct iovec scatter {
            buffer, kNetlinkScatterSize
        };
        struct msghdr header {};
        header.msg_name = &peer;
        header.msg_namelen = sizeof peer;
        header.msg_iov = &scatter;
        header.msg_iovlen = 1;
        const ssize_t received = ::recvmsg(m_netlink.get(), &header, 0);
        if (received == 0) {
            SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Read error on netlink socket, EOF", getTraceTag());
            return 1;
        }
        if (received < 0) {
            const int err = errno;
            SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Read error on netlink socket, errno=%s (%d)",
                      getTraceTag(), strerror(err), err);
            return 1;
        }
        if (findLinkLocalInNetlink(buffer, static_cast<size_t>(received), m_ifName, &::if_indextoname,
                                   m_ifConfig.lladdr)) {
            break;
        }
    }
    m_netlink.reset();
    SOL_TRACE(INFO, kCategorySocket, kFn, "[%s] Received link-local address from kernel over netlink",
              getTraceTag());
    return 0;
}

void SocketMgr::reportLinkLocalWait() const {
    if (m_linkLocalWaitHook) {
        m_linkLocalWaitHook();
    }
}

bool findLinkLocalInNetlink(const uint8_t* data, size_t length, const std::string& ifName,
                            IfIndexToName resolve, struct sockaddr_in6& lladdr) {
    constexpr const char* kFn = "initLocalIpv6AddrFromNetlink";
    SOL_TRACE(LAB, kCategorySocket, kFn, "[%s] Get a netlink message to process with len %zd", getTraceTag(),
              static_cast<ssize_t>(length));
    size_t offset = 0;
    while (length - offset >= sizeof(struct nlmsghdr)) {
        struct nlmsghdr header;
        std::memcpy(&header, data + offset, sizeof header);
        const size_t remaining = length - offset;
        if (header.nlmsg_len < sizeof(struct nlmsghdr) || header.nlmsg_len > remaining ||
            header.nlmsg_type == NLMSG_DONE) {
            break;
        }
        if (header.nlmsg_type == NLMSG_ERROR) {
            // The current errno, not the code the message carries: the daemon has always said so.
            const int err = errno;
            SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Read error on netlink socket, errno=%s (%d)",
                      getTraceTag(), strerror(err), err);
        } else if (header.nlmsg_type == RTM_NEWADDR &&
                   newAddressIsLinkLocal(data + offset, header.nlmsg_len, ifName, resolve, lladdr)) {
            return true;
        }
        const size_t advance = NLMSG_ALIGN(header.nlmsg_len);
        if (advance >= remaining) {
            break;
        }
        offset += advance;
    }
    return false;
}

}  // namespace solicd
