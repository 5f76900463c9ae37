#include "SocketMgr.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/icmp6.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>

#include "SocketInternal.h"
#include "TraceLog.h"

namespace solicd {
namespace {

constexpr const char* kNetnsDir = "/var/run/netns/";
// The longest interface name the kernel keeps (IFNAMSIZ less its NUL); quoted in the refusal.
constexpr size_t kIfNameMaxLength = IFNAMSIZ - 1;
static_assert(kIfNameMaxLength == 15);
constexpr const char* kAllRoutersAddress = "ff02::2";

// ICMPv6 type filter, set bit = blocked: everything but type 134 (word 4, bit 6).
constexpr uint32_t kRaOnlyFilter[8] = {0xffffffff, 0xffffffff, 0xffffffff, 0xffffffff,
                                       0xffffffbf, 0xffffffff, 0xffffffff, 0xffffffff};

// The link-local address may still be under DAD when init binds: retry for about 20 s.
constexpr int kBindAttempts = 200;
constexpr useconds_t kBindRetryPause = 100000;

// The first solicitation goes out after 0 to kSolifFirstRsDelayMaxMs; without a random source the
// preset gives 500 ms.
constexpr uint32_t kRandomPreset = 0x800000be;
constexpr uint32_t kFirstRsDelaySpan = kSolifFirstRsDelayMaxMs + 1;

static_assert(kReceiveControlSize % alignof(struct cmsghdr) == 0,
              "read-ahead slots of control data stay aligned");

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

}  // namespace

// ---- Set-up ----

SocketMgr::SocketMgr(uint32_t rsRetryInterval)
    : m_rsTimeout(rsRetryInterval),
      m_readAhead(1 + kReadAheadCapacity, kMessageBufferSize, kReceiveControlSize) {}

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
    const int multicastLoop = 0;
    if (::setsockopt(fd, IPPROTO_ICMPV6, ICMP6_FILTER, &filter, sizeof filter) != 0 ||
        !requestReceptionItems(fd) ||
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

bool SocketMgr::requestReceptionItems(int socket) {
    const int on = 1;
    return ::setsockopt(socket, IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on) == 0 &&
           ::setsockopt(socket, IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof on) == 0;
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

// ---- Reception ----

namespace {

constexpr const char* kReceiveFn = "receive";

// A message as reception starts it: nothing received, the whole buffer zeroed.
void clearForReception(SocketMgr::Message& message) {
    message.m_state = SocketMgr::Message::MSG_STATE_UNSET;
    message.m_data.assign(kMessageBufferSize, 0);
    message.m_length = 0;
    message.m_peer = {};
    message.m_offLink = false;
}

}  // namespace

uint32_t SocketMgr::receive(Message& message) {
    clearForReception(message);

    ReadAhead::Datagram datagram{};
    if (m_readAhead.take(datagram)) {
        std::memcpy(message.m_data.data(), datagram.data, datagram.length);
        return accept(message, *datagram.header, datagram.length);
    }
    if (m_readAheadMost > 0) {
        const int read = m_readAhead.read(m_socket.get(), 1 + m_readAheadMost);
        if (read > 0) {
            // The ones behind the first arrived before this point; a link notification not yet
            // handled may be older than some of them, and then only the kernel knows their names.
            if (read > 1 && m_arrivalNames.isNotificationWaiting()) {
                m_arrivalNames.forget();
            }
            m_readAhead.take(datagram);
            std::memcpy(message.m_data.data(), datagram.data, datagram.length);
            return accept(message, *datagram.header, datagram.length);
        }
        return readFailed(message);
    }

    struct sockaddr_in6 source {};
    struct iovec scatter {
        message.m_data.data(), message.m_data.size()
    };
    alignas(struct cmsghdr) uint8_t control[kReceiveControlSize] = {};
    struct msghdr header {};
    header.msg_name = &source;
    header.msg_namelen = sizeof source;
    header.msg_iov = &scatter;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;

    const ssize_t received = ::recvmsg(m_socket.get(), &header, 0);
    if (received < 0) {
        return readFailed(message);
    }
    return accept(message, header, static_cast<size_t>(received));
}

uint32_t SocketMgr::readFailed(Message& message) {
    constexpr const char* kFn = kReceiveFn;
    const int err = errno;
    SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] read error on raw socket, errno=%s (%d)", getTraceTag(),
              strerror(err), err);
    message.m_state = Message::MSG_STATE_RX_ERROR;
    return 1;
}

uint32_t SocketMgr::accept(Message& message, const struct msghdr& received, size_t length) {
    constexpr const char* kFn = kReceiveFn;
    // The control walk needs a header it may point into.
    struct msghdr header = received;
    const struct sockaddr_in6& source = *static_cast<const struct sockaddr_in6*>(header.msg_name);
    message.m_length = length;

    if ((header.msg_flags & (MSG_TRUNC | MSG_CTRUNC)) != 0) {
        SOL_TRACE(ERROR, kCategorySocket, kFn, "[%s] truncated message, received %zu", getTraceTag(),
                  message.m_length);
        message.m_state = Message::MSG_STATE_RX_TRUNCATED;
        ++m_counters.m_counters.rxRejected;
        return 0;
    }

    struct in6_pktinfo info {};
    bool haveInfo = false;
    // A missing item reads as -1: no hop limit is 255.
    int hopLimit = -1;
    for (struct cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
        if (item->cmsg_level != IPPROTO_IPV6) {
            continue;
        }
        if (item->cmsg_type == IPV6_PKTINFO && item->cmsg_len >= CMSG_LEN(sizeof info)) {
            std::memcpy(&info, CMSG_DATA(item), sizeof info);
            haveInfo = true;
        } else if (item->cmsg_type == IPV6_HOPLIMIT && item->cmsg_len >= CMSG_LEN(sizeof hopLimit)) {
            std::memcpy(&hopLimit, CMSG_DATA(item), sizeof hopLimit);
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
    // RFC 4861 6.1.2: a router beyond the link cannot make an RA arrive with hop limit 255.
    if (hopLimit != kNdHopLimit) {
        SOL_TRACE(INFO, kCategorySocket, kFn, "[%s] Message was received with hop limit %d, expected 255",
                  getTraceTag(), hopLimit);
        message.m_state = Message::MSG_STATE_RX_WRONG_INTERFACE;
        message.m_offLink = true;
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

int SocketMgr::getFd() const {
    return m_socket.get();
}

const SocketMgr::IfConfig& SocketMgr::getIfConfig() const {
    return m_ifConfig;
}

}  // namespace solicd
