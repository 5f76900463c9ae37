#include "SocketMgr.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <glib-unix.h>
#include <ifaddrs.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <netdb.h>
#include <netinet/icmp6.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <memory>
#include <string_view>

#include "PacketParser.h"
#include "TraceLog.h"

namespace solicd {
namespace {

constexpr const char* kCategorySocket = "ADDR_IPV6";
constexpr const char* kCategoryGeneral = "GENERAL";
constexpr const char* kNetnsDir = "/var/run/netns/";
// The longest interface name the kernel keeps (IFNAMSIZ less its NUL); quoted in the refusal.
constexpr size_t kIfNameMaxLength = IFNAMSIZ - 1;
static_assert(kIfNameMaxLength == 15);
constexpr std::string_view kLinkLocalPrefix = "fe80:";
constexpr const char* kAllRoutersAddress = "ff02::2";

// ICMPv6 type filter, set bit = blocked: everything but type 134 (word 4, bit 6).
constexpr uint32_t kRaOnlyFilter[8] = {0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff,
                                       0xffffffbf, 0xffffffff, 0xffffffff, 0xffffffff};

// The link-local address may still be under DAD when init binds: retry for about 20 s.
constexpr int kBindAttempts = 200;
constexpr useconds_t kBindRetryPause = 100000;

// The first solicitation goes out after 0 to 1000 ms; without a random source the preset gives
// 500 ms.
constexpr uint32_t kRandomPreset = 0x800000be;
constexpr uint32_t kFirstRsDelaySpan = 1001;

constexpr uint32_t kNetlinkGroups = RTMGRP_IPV6_IFADDR;
constexpr size_t kNetlinkBufferSize = 8192;
constexpr size_t kNetlinkScatterSize = 8129;
constexpr uint8_t kIfaFlagPermanent = IFA_F_PERMANENT;
constexpr int kNotificationsPerWakeup = 64;

// One IPV6_PKTINFO item on reception; hop limit and packet information on transmission.
constexpr size_t kRxControlSize = 40;
constexpr size_t kTxControlSize = 64;
static_assert(CMSG_SPACE(sizeof(struct in6_pktinfo)) <= kRxControlSize);
static_assert(CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(struct in6_pktinfo)) <= kTxControlSize);

// Every solicitation is the 8-byte ICMPv6 header and the 8-byte source link-layer option.
constexpr size_t kRsLength = 16;
constexpr int kNdHopLimit = 255;

constexpr size_t kIpv6AddressLength = 16;
constexpr uint8_t kLinkLocalByte0 = 0xfe;
constexpr uint8_t kLinkLocalByte1Mask = 0xc0;
constexpr uint8_t kLinkLocalByte1Bits = 0x80;

void copyIfName(char (&target)[IFNAMSIZ], const std::string& name) {
    std::snprintf(target, sizeof target, "%s", name.c_str());
}

uint32_t firstSolicitationDelay(const std::string& randomSource) {
    uint32_t value = kRandomPreset;
    UniqueFd random(::open(randomSource.c_str(), O_RDONLY));
    if (random.get() >= 0) {
        // A short read keeps part of the preset, which is as good a delay as any.
        [[maybe_unused]] const ssize_t ignored = ::read(random.get(), &value, sizeof value);
    }
    return value % kFirstRsDelaySpan;
}

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

const char* messageStateName(uint32_t state) {
    switch (state) {
        case SocketMgr::Message::MSG_STATE_UNSET:
            return "MSG_STATE_UNSET";
        case SocketMgr::Message::MSG_STATE_RX_OK:
            return "MSG_STATE_RX_OK";
        case SocketMgr::Message::MSG_STATE_RX_ERROR:
            return "MSG_STATE_RX_ERROR";
        case SocketMgr::Message::MSG_STATE_RX_NULL:
            return "MSG_STATE_RX_NULL";
        case SocketMgr::Message::MSG_STATE_RX_TRUNCATED:
            return "MSG_STATE_RX_TRUNCATED";
        case SocketMgr::Message::MSG_STATE_RX_WRONG_INTERFACE:
            return "MSG_STATE_RX_WRONG_INTERFACE";
        case SocketMgr::Message::MSG_STATE_TX_READY:
            return "MSG_STATE_TX_READY";
        case SocketMgr::Message::MSG_STATE_TX_OK:
            return "MSG_STATE_TX_OK";
        case SocketMgr::Message::MSG_STATE_TX_TOO_BIG:
            return "MSG_STATE_TX_TOO_BIG";
        case SocketMgr::Message::MSG_STATE_TX_ERROR:
            return "MSG_STATE_TX_ERROR";
        default:
            return "UNKNOWN";
    }
}

// Restores the caller's number base and fill when a renderer is done.
class StreamFormatGuard {
public:
    explicit StreamFormatGuard(std::ostream& os) : m_os(os), m_flags(os.flags()), m_fill(os.fill()) {}
    ~StreamFormatGuard() {
        m_os.flags(m_flags);
        m_os.fill(m_fill);
    }
    StreamFormatGuard(const StreamFormatGuard&) = delete;
    StreamFormatGuard& operator=(const StreamFormatGuard&) = delete;

private:
    std::ostream& m_os;
    std::ios_base::fmtflags m_flags;
    char m_fill;
};

}  // namespace

// ---- Router Solicitation ----

SocketMgr::RsTimeout::RsTimeout(uint32_t retryInterval) : m_retryInterval(retryInterval) {
    setName("RS timeout");
}

void SocketMgr::RsTimeout::cbExpired() {
    SOL_TRACE(LAB, kCategoryGeneral, "cbExpired",
              "[%s] Timeout expired counter=%u, m_ifName=%s, raReceived=%d", getTraceTag(), m_counter,
              m_owner != nullptr ? m_owner->getIfName().c_str() : "", m_raReceived);
    if (m_owner == nullptr) {
        SOL_TRACE(ERROR, kCategorySocket, "cbExpired", "[%s] Socket manager not initiated", getTraceTag());
        return;
    }
    if (!m_raReceived && m_counter < kRsMaxCount) {
        m_soliciting = dispatchRs();
        if (!m_soliciting) {
            SOL_TRACE(INFO, kCategorySocket, "cbExpired", "[%s] Failed in dispatchRs", getTraceTag());
        } else {
            SOL_TRACE(INFO, kCategoryGeneral, "cbExpired",
                      "[%s] Re-sending RS message, counter=%u, m_ifName=%s", getTraceTag(), m_counter,
                      m_owner->getIfName().c_str());
        }
        // A failed dispatch still uses up one of the attempts.
        ++m_counter;
        remove();
        add(m_retryInterval);
        return;
    }
    SOL_TRACE(INFO, kCategoryGeneral, "cbExpired",
              "[%s] Finished router solicitation. Sent %d RS messages, %sRA detected.", getTraceTag(),
              static_cast<int>(m_counter), m_raReceived ? "" : "no");
    m_counter = 0;
    m_soliciting = false;
    m_raReceived = false;
}

bool SocketMgr::RsTimeout::dispatchRs() {
    if (m_owner == nullptr || m_owner->getIfName().empty()) {
        return false;
    }
    SOL_TRACE(LAB, kCategoryGeneral, "dispatchRs", "[%s] Monitored interface is set, ready to transmit RS",
              getTraceTag());

    static_assert(kMessageBufferSize > 1, "a solicitation buffer must hold more than one byte");
    Message message;
    message.m_data.assign(kMessageBufferSize, 0);
    message.m_length = 1;
    message.m_state = Message::MSG_STATE_TX_READY;

    if (PacketParser::insertRsMsg(m_owner->getIfConfig(), message) != 0) {
        SOL_TRACE(INFO, kCategoryGeneral, "dispatchRs",
                  "[%s] Failed to insert RS into rsMsg in insertRsMsg().", getTraceTag());
        return false;
    }
    if (m_owner->transmit(message) != 0) {
        SOL_TRACE(INFO, kCategoryGeneral, "dispatchRs", "[%s] Failed to transmit message, state: %s",
                  getTraceTag(), messageStateToStr(message.m_state).c_str());
        return false;
    }
    SOL_TRACE(INFO, kCategoryGeneral, "dispatchRs", "[%s] RS Sent , m_ifName= %s, m_ns= %s", getTraceTag(),
              m_owner->getIfName().c_str(), m_owner->getNs().c_str());
    return true;
}

// ---- Set-up ----

SocketMgr::SocketMgr(uint32_t rsRetryInterval) : m_rsTimeout(rsRetryInterval) {}

SocketMgr::~SocketMgr() {
    // Raw socket, then namespace, then netlink: the timer and strings go with the members.
    m_socket.reset();
    m_nsFd.reset();
    m_netlink.reset();
}

void SocketMgr::adoptSocket(UniqueFd socket, const std::string& ns, const std::string& ifName) {
    m_socket = std::move(socket);
    m_ns = ns;
    m_ifName = ifName;
}

uint32_t SocketMgr::init(const std::string& ns, const std::string& ifName) {
    constexpr const char* kFn = "init";
    SOL_TRACE(LAB, kCategorySocket, kFn,
              "[%s] Socket manager will be initiated with netns  '%s', on interface %s.", getTraceTag(),
              ns.c_str(), ifName.c_str());
    m_ns = ns;
    m_ifName = ifName;

    // The kernel would cut a longer name, and the address of the interface that the cut name
    // names would never be this one's: refuse it rather than wait for it for ever.
    if (m_ifName.size() > kIfNameMaxLength) {
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Interface name '%s' is longer than 15 characters",
                  getTraceTag(), m_ifName.c_str());
        return 1;
    }

    if (!m_ns.empty()) {
        const std::string path = kNetnsDir + m_ns;
        m_nsFd.reset(::open(path.c_str(), O_RDONLY));
        if (m_nsFd.get() < 0 || ::setns(m_nsFd.get(), CLONE_NEWNET) != 0) {
            const int err = errno;
            SOL_TRACE(ERROR, kCategorySocket, kFn,
                      "[%s] Unable to set namespace '%s', function '%s' failed, error: %s (%d)",
                      getTraceTag(), m_ns.c_str(), m_nsFd.get() < 0 ? "open" : "setns", strerror(err), err);
            return 1;
        }
    }

    m_socket.reset(::socket(AF_INET6, SOCK_RAW, IPPROTO_ICMPV6));
    const int fd = m_socket.get();
    if (fd < 0) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, kFn,
                  "[%s] Error from socket(), error: %s (%d)  Possible no permission to open raw socket",
                  getTraceTag(), strerror(err), err);
        return 1;
    }

    if (!m_ifName.empty()) {
        // The kernel takes the full name here; only the interface requests are cut to 15.
        if (::setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, m_ifName.data(), m_ifName.size()) != 0) {
            const int err = errno;
            SOL_TRACE(ERROR, kCategorySocket, kFn,
                      "[%s] Unable to bind socket to interface %s, error: %s (%d)", getTraceTag(),
                      m_ifName.c_str(), strerror(err), err);
            return 1;
        }
        struct ifreq request {};
        copyIfName(request.ifr_name, m_ifName);
        copyIfName(m_ifConfig.name, m_ifName);

        const auto ioctlFailed = [this](const char* requestName) {
            const int err = errno;
            SOL_TRACE(ERROR, kCategorySocket, "init",
                      "[%s] Unable to get socket option %s for interface: %serror: %s (%d)", getTraceTag(),
                      requestName, m_ifName.c_str(), strerror(err), err);
            return 1u;
        };
        if (::ioctl(fd, SIOCGIFINDEX, &request) != 0) {
            return ioctlFailed("SIOCGIFINDEX");
        }
        m_ifConfig.ifindex = request.ifr_ifindex;
        if (::ioctl(fd, SIOCGIFHWADDR, &request) != 0) {
            return ioctlFailed("SIOCGIFHWADDR");
        }
        m_ifConfig.hwaddr = request.ifr_hwaddr;

        if (const uint32_t result = initLocalIpv6Addr(); result != 0) {
            return result;
        }
        if (const uint32_t result = initRsMcastIpv6Addr(); result != 0) {
            return result;
        }
        SOL_TRACE(LAB, kCategorySocket, kFn,
                  "[%s] Fetched interface configuration for if %s configuration %s", getTraceTag(),
                  m_ifName.c_str(), toStr(m_ifConfig).c_str());
    }

    struct icmp6_filter filter;
    static_assert(sizeof filter == sizeof kRaOnlyFilter);
    std::memcpy(&filter, kRaOnlyFilter, sizeof filter);
    const int receivePacketInfo = 1;
    const int multicastLoop = 0;
    if (::setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter) != 0 ||
        ::setsockopt(fd, IPPROTO_IPV6, IPV6_RECVPKTINFO, &receivePacketInfo, sizeof receivePacketInfo) != 0 ||
        ::setsockopt(fd, IPPROTO_IPV6, IPV6_MULTICAST_LOOP, &multicastLoop, sizeof multicastLoop) != 0) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Error from setsockopt(). Terminating. error: %s (%d)",
                  getTraceTag(), strerror(err), err);
        return 1;
    }

    if (!isInterfaceUp()) {
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Interface is not UP. Terminating.", getTraceTag());
        return 1;
    }

    m_ifConfig.lladdr.sin6_family = AF_INET6;
    int attempt = 1;
    while (::bind(fd, reinterpret_cast<const struct sockaddr*>(&m_ifConfig.lladdr),
                  sizeof m_ifConfig.lladdr) != 0) {
        if (attempt >= kBindAttempts) {
            const int err = errno;
            SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Error from bind(), error: %s (%d) Bind failed",
                      getTraceTag(), strerror(err), err);
            return 1;
        }
        ::usleep(kBindRetryPause);
        ++attempt;
    }
    SOL_TRACE(INFO, kCategorySocket, kFn, "[%s] Bind successful after %d attempts.", getTraceTag(), attempt);

    // Without the watch every arrival name is asked of the kernel: slower, never wrong.
    m_arrivalNames.watch();
    m_rsTimeout.m_owner = this;
    m_rsTimeout.add(firstSolicitationDelay(m_randomSource));
    return 0;
}

uint32_t SocketMgr::initRsMcastIpv6Addr() {
    struct addrinfo hints {};
    hints.ai_flags = AI_CANONNAME;
    hints.ai_family = AF_INET6;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_protocol = 0;
    struct addrinfo* list = nullptr;
    const int result = ::getaddrinfo(kAllRoutersAddress, nullptr, &hints, &list);
    const std::unique_ptr<struct addrinfo, decltype(&::freeaddrinfo)> owner(list, &::freeaddrinfo);
    if (result == 0 && list != nullptr) {
        std::memcpy(&m_ifConfig.rsaddr, list->ai_addr,
                    std::min<size_t>(list->ai_addrlen, sizeof m_ifConfig.rsaddr));
        return 0;
    }
    SOL_TRACE(ERROR, kCategorySocket, "initRsMcastIpv6Addr",
              "[%s] Unable to generate mcast dst address for RS %s, result is%s null", getTraceTag(),
              gai_strerror(result), list != nullptr ? " not" : "");
    return 1;
}

bool SocketMgr::isInterfaceUp() {
    struct ifreq request {};
    copyIfName(request.ifr_name, m_ifName);
    short flags = 0;
    if (::ioctl(m_socket.get(), SIOCGIFFLAGS, &request) != 0) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, "isInterfaceUp", "[%s] ioctl error on , errno=%s (%d)",
                  getTraceTag(), strerror(err), err);
    } else {
        flags = request.ifr_flags;
    }
    return (flags & IFF_UP) != 0;
}

// ---- Link-local address ----

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

// ---- Reception ----

namespace {

// if_indextoname through the socket we hold instead of one opened and closed for each call:
// the same name, and ENXIO for an unknown index, without two extra system calls per datagram.
bool interfaceName(int socket, unsigned index, char* name) {
    struct ifreq request {};
    request.ifr_ifindex = static_cast<int>(index);
    if (::ioctl(socket, SIOCGIFNAME, &request) < 0) {
        if (errno == ENODEV) {
            errno = ENXIO;
        }
        return false;
    }
    std::strncpy(name, request.ifr_name, IF_NAMESIZE);
    return true;
}

}  // namespace

// ---- Arrival interface names ----

void ArrivalNames::SourceRelease::operator()(GSource* source) const {
    g_source_destroy(source);
    g_source_unref(source);
}

bool ArrivalNames::watch() {
    UniqueFd links(::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE));
    struct sockaddr_nl local {};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK;
    if (links.get() < 0 ||
        ::bind(links.get(), reinterpret_cast<const struct sockaddr*>(&local), sizeof local) != 0) {
        return false;
    }
    watch(std::move(links));
    return true;
}

void ArrivalNames::watch(UniqueFd notifications) {
    m_source.reset();
    m_notifications = std::move(notifications);
    m_index = 0;
    m_source.reset(g_unix_fd_source_new(m_notifications.get(), G_IO_IN));
    g_source_set_priority(m_source.get(), G_PRIORITY_HIGH);
    g_source_set_callback(m_source.get(), G_SOURCE_FUNC(&ArrivalNames::cbNotified), this, nullptr);
    g_source_attach(m_source.get(), nullptr);
}

gboolean ArrivalNames::cbNotified(gint, GIOCondition, gpointer self) {
    static_cast<ArrivalNames*>(self)->notified();
    return G_SOURCE_CONTINUE;
}

void ArrivalNames::notified() {
    m_index = 0;
    uint8_t buffer[kNetlinkBufferSize];
    // Bounded work per wakeup: what is left keeps the descriptor readable for the next one.
    for (int taken = 0; taken < kNotificationsPerWakeup; ++taken) {
        const ssize_t received = ::recv(m_notifications.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        if (received > 0 || (received < 0 && errno == EINTR)) {
            continue;
        }
        // ENOBUFS: notifications were lost, which forgetting the name covers; the socket goes on.
        if (received < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS)) {
            return;
        }
        // End of file or a lasting error: without notifications no name can be kept.
        m_source.reset();
        m_notifications.reset();
        return;
    }
}

bool ArrivalNames::lookup(int socket, unsigned index, char* name) {
    if (index != 0 && index == m_index) {
        std::memcpy(name, m_name, IF_NAMESIZE);
        return true;
    }
    const bool found =
        m_resolve != nullptr ? m_resolve(index, name) != nullptr : interfaceName(socket, index, name);
    if (found && isWatching()) {
        std::memcpy(m_name, name, IF_NAMESIZE);
        m_index = index;
    }
    return found;
}

uint32_t SocketMgr::receive(Message& message) {
    constexpr const char* kFn = "receive";
    message.m_state = Message::MSG_STATE_UNSET;
    message.m_data.assign(kMessageBufferSize, 0);
    message.m_length = 0;
    message.m_peer = {};

    struct sockaddr_in6 source {};
    struct iovec scatter {
        message.m_data.data(), message.m_data.size()
    };
    alignas(struct cmsghdr) uint8_t control[kRxControlSize] = {};
    struct msghdr header {};
    header.msg_name = &source;
    header.msg_namelen = sizeof source;
    header.msg_iov = &scatter;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;

    const ssize_t received = ::recvmsg(m_socket.get(), &header, 0);
    if (received < 0) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] read error on raw socket, errno=%s (%d)", getTraceTag(),
                  strerror(err), err);
        message.m_state = Message::MSG_STATE_RX_ERROR;
        return 1;
    }
    message.m_length = static_cast<size_t>(received);

    if ((header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] truncated message, received %zu", getTraceTag(),
                  message.m_length);
        message.m_state = Message::MSG_STATE_RX_TRUNCATED;
        ++m_counters.m_counters.rxRejected;
        return 0;
    }

    struct in6_pktinfo info {};
    bool haveInfo = false;
    for (struct cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
        if (item->cmsg_level == IPPROTO_IPV6 && item->cmsg_type == IPV6_PKTINFO &&
            item->cmsg_len >= CMSG_LEN(sizeof info)) {
            std::memcpy(&info, CMSG_DATA(item), sizeof info);
            haveInfo = true;
            break;
        }
    }
    char arrival[IF_NAMESIZE] = {};
    if (!haveInfo || !m_arrivalNames.lookup(m_socket.get(), info.ipi6_ifindex, arrival)) {
        const int err = errno;
        SOL_TRACE(ERROR, kCategorySocket, kFn,
                  "[%s] couldn't find interface name for RX message, error: %s (%d)", getTraceTag(),
                  strerror(err), err);
        message.m_state = Message::MSG_STATE_RX_ERROR;
        return 1;
    }
    if (!m_ifName.empty() && m_ifName != arrival) {
        SOL_TRACE(ERROR, kCategorySocket, kFn,
                  "[%s] Message was received on wrong interface expected:%s, actual: %s", getTraceTag(),
                  m_ifName.c_str(), arrival);
        message.m_state = Message::MSG_STATE_RX_WRONG_INTERFACE;
        ++m_counters.m_counters.rxRejected;
        return 0;
    }
    message.m_state = Message::MSG_STATE_RX_OK;

    message.m_peer.family = AF_INET6;
    std::memcpy(message.m_peer.bytes, &source.sin6_addr, sizeof message.m_peer.bytes);
    // The texts serve the trace and the verbose line only: under a flood of RAs nobody reads
    // them, so they are written only when one of the two does.
    if (SOL_TRACE_ENABLED(LAB) || m_verbose) {
        char sourceText[INET6_ADDRSTRLEN];
        char destinationText[INET6_ADDRSTRLEN];
        if (::inet_ntop(AF_INET6, &source.sin6_addr, sourceText, sizeof sourceText) == nullptr ||
            ::inet_ntop(AF_INET6, &info.ipi6_addr, destinationText, sizeof destinationText) == nullptr) {
            SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Couldn't convert IPv6 address to string",
                      getTraceTag());
            message.m_state = Message::MSG_STATE_RX_ERROR;
            return 1;
        }
        SOL_TRACE(LAB, kCategorySocket, kFn, "[%s] Received message on interface [%s], RA: %s->%s",
                  getTraceTag(), arrival, sourceText, destinationText);
        if (m_verbose) {
            std::cout << "Received an IPv6 Router Advertisement from " << sourceText << " on interface "
                      << arrival << " sent to " << destinationText << std::endl;
        }
    }
    if (m_rsTimeout.m_soliciting) {
        SOL_TRACE(LAB, kCategoryGeneral, kFn, "[%s] RA received after solicitation", getTraceTag());
        m_rsTimeout.m_raReceived = true;
    }
    ++m_counters.m_counters.rxRa;
    return 0;
}

// ---- Transmission ----

uint32_t SocketMgr::transmit(Message& message) {
    constexpr const char* kFn = "transmit";
    if (message.m_state != Message::MSG_STATE_TX_READY) {
        // Reported as success: the caller has nothing better to do with the refusal.
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Unable to transmit message in state %s", getTraceTag(),
                  messageStateToStr(message.m_state).c_str());
        return 0;
    }
    if (m_ifName.empty()) {
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] Egress interface is not set, unable to send RS message",
                  getTraceTag());
        message.m_state = Message::MSG_STATE_TX_OK;
        return 0;
    }
    if (rs6Send(getIfConfig(), m_socket.get(), message) != 0) {
        SOL_TRACE(INFO, kCategorySocket, kFn, "[%s] Unable to send message in rs6Send()", getTraceTag());
        return 1;
    }
    return 0;
}

uint32_t SocketMgr::rs6Send(const IfConfig& config, int socket, Message& message) {
    constexpr const char* kFn = "rs6Send";
    if (message.m_data.size() < kRsLength) {
        SOL_TRACE(ERROR, kCategorySocket, kFn,
                  "[%s] Message buffer of %zu bytes cannot hold an RS of %zu bytes", getTraceTag(),
                  message.m_data.size(), kRsLength);
        return 1;
    }
    struct sockaddr_in6 destination = config.rsaddr;
    struct iovec scatter {
        message.m_data.data(), kRsLength
    };
    alignas(struct cmsghdr) uint8_t control[kTxControlSize] = {};
    struct msghdr header {};
    header.msg_name = &destination;
    header.msg_namelen = sizeof destination;
    header.msg_iov = &scatter;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;

    struct cmsghdr* item = CMSG_FIRSTHDR(&header);
    item->cmsg_level = IPPROTO_IPV6;
    item->cmsg_type = IPV6_HOPLIMIT;
    item->cmsg_len = CMSG_LEN(sizeof kNdHopLimit);
    std::memcpy(CMSG_DATA(item), &kNdHopLimit, sizeof kNdHopLimit);

    item = CMSG_NXTHDR(&header, item);
    if (item == nullptr || reinterpret_cast<uint8_t*>(item) + CMSG_SPACE(sizeof(struct in6_pktinfo)) >
                               control + sizeof control) {
        SOL_TRACE(ERROR, kCategorySocket, kFn,
                  "[%s] Failed to write 2nd ctrl header: 'ancillary_data_buffer' too small", getTraceTag());
        return 1;
    }
    // The unspecified source lets the kernel pick the link-local address the socket is bound to.
    struct in6_pktinfo info {};
    info.ipi6_ifindex = static_cast<unsigned>(config.ifindex);
    item->cmsg_level = IPPROTO_IPV6;
    item->cmsg_type = IPV6_PKTINFO;
    item->cmsg_len = CMSG_LEN(sizeof info);
    std::memcpy(CMSG_DATA(item), &info, sizeof info);

    if (::sendmsg(socket, &header, 0) < 0) {
        const int err = errno;
        SOL_TRACE(INFO, kCategorySocket, kFn, "[%s] Unable to send RS with sendmsg() error: %s (%d)",
                  getTraceTag(), strerror(err), err);
        ++m_counters.m_counters.txRsFailed;
        return 1;
    }
    ++m_counters.m_counters.txRs;
    return 0;
}

int SocketMgr::getFd() const {
    return m_socket.get();
}

const SocketMgr::IfConfig& SocketMgr::getIfConfig() const {
    return m_ifConfig;
}

// ---- Text forms ----

std::ostream& printMessageState(std::ostream& os, uint32_t state) {
    const StreamFormatGuard guard(os);
    return os << std::dec << "{ no: " << state << ", txt: " << messageStateName(state) << "}";
}

std::string messageStateToStr(uint32_t state) {
    std::ostringstream os;
    printMessageState(os, state);
    return os.str();
}

const char* addressFamilyToCstr(unsigned family) {
    switch (family) {
        case AF_LOCAL:
            return "AF_LOCAL|UNIX";
        case AF_INET:
            return "AF_INET";
        case AF_AX25:
            return "AF_AX25";
        case AF_IPX:
            return "AF_IPX";
        case AF_APPLETALK:
            return "AF_APPLETALK";
        case AF_ATMPVC:
            return "AF_ATMPVC";
        case AF_X25:
            return "AF_X25";
        case AF_INET6:
            return "AF_INET6";
        case AF_NETLINK:
            return "AF_NETLINK";
        case AF_PACKET:
            return "AF_PACKET";
        default:
            return "UNKNOWN";
    }
}

std::ostream& printSockaddr(std::ostream& os, const struct sockaddr& address) {
    constexpr size_t kMacLength = 6;
    const StreamFormatGuard guard(os);
    os << std::dec << "{sa_family_text: " << addressFamilyToCstr(address.sa_family)
       << ", sa_family_num:" << address.sa_family << ", sa_data: " << std::hex << std::setfill('0');
    // Bytes go out as signed values, so 0x80 and above print as eight digits: the form operators know.
    const auto byteAt = [&address](size_t i) {
        return static_cast<int>(static_cast<signed char>(address.sa_data[i]));
    };
    if (address.sa_family == AF_LOCAL || address.sa_family == AF_PACKET) {
        for (size_t i = 0; i < kMacLength; ++i) {
            os << (i == 0 ? "" : ":") << std::setw(2) << byteAt(i);
        }
    } else {
        constexpr size_t kDataLength = sizeof address.sa_data;
        for (size_t i = 0; i < kDataLength; ++i) {
            os << std::setw(2) << byteAt(i);
            if (i % 2 == 1 && i + 1 < kDataLength) {
                os << ':';
            }
        }
    }
    return os << "}";
}

std::ostream& printSockaddrIn6(std::ostream& os, const struct sockaddr_in6& address) {
    const StreamFormatGuard guard(os);
    os << std::dec << "{sin6_family.text: " << addressFamilyToCstr(address.sin6_family)
       << ", sain6_family_num:" << address.sin6_family << ", sin6_port: " << address.sin6_port
       << ", sin6_flowinfo: " << address.sin6_flowinfo << ", sin6_addr: ";
    char text[INET6_ADDRSTRLEN];
    if (::inet_ntop(address.sin6_family, &address.sin6_addr, text, sizeof text) != nullptr) {
        os << text;
    } else {
        const int err = errno;
        os << "{errorno: " << err << ", errorstr:" << strerror(err) << "}";
    }
    return os << ", sin6_scope_id: " << address.sin6_scope_id << "}";
}

std::ostream& operator<<(std::ostream& os, const SocketMgr::IfConfig& config) {
    const StreamFormatGuard guard(os);
    os << std::dec << "{ name: " << std::string_view(config.name, strnlen(config.name, sizeof config.name))
       << ", ifindex:" << config.ifindex << ", hwaddr:";
    printSockaddr(os, config.hwaddr) << ", lladdr:";
    printSockaddrIn6(os, config.lladdr) << ", rsaddr:";
    return printSockaddrIn6(os, config.rsaddr);
}

}  // namespace solicd
