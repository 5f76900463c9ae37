// SocketMgr's Router Solicitation: the retry timer that drives it and the sending of one RS.
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "PacketParser.h"
#include "SocketInternal.h"
#include "SocketMgr.h"
#include "TraceLog.h"

namespace solicd {
namespace {

// Hop limit and packet information on transmission.
constexpr size_t kTxControlSize = 64;
static_assert(CMSG_SPACE(sizeof(int)) + CMSG_SPACE(sizeof(struct in6_pktinfo)) <= kTxControlSize);

// Every solicitation is the 8-byte ICMPv6 header and the 8-byte source link-layer option.
constexpr size_t kRsLength = 16;

}  // namespace

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
    if (!m_raReceived && m_counter < kSolifRsMaxCount) {
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

}  // namespace solicd
