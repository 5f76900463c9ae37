// The raw ICMPv6 socket of the daemon: namespace, interface, link-local address, RA reception and
// Router Solicitation.
#pragma once

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "ArrivalNames.h"
#include "ReadAhead.h"
#include "SocketText.h"
#include "SolIf.h"
#include "SolTimeout.h"
#include "SolTypes.h"
#include "UniqueFd.h"

namespace solicd {

inline constexpr size_t kMessageBufferSize = 1024;
// Neighbour Discovery messages from this link come with this hop limit, and RSs leave with it:
// a router beyond the link cannot send one that arrives with it.
inline constexpr int kNdHopLimit = 255;
// Control data of one received datagram: where it arrived (IPV6_PKTINFO) and the hop limit it
// came with (IPV6_HOPLIMIT).
inline constexpr size_t kReceiveControlSize =
    CMSG_SPACE(sizeof(struct in6_pktinfo)) + CMSG_SPACE(sizeof(int));
// At most this many datagrams are read with the one receive waits for (setReadAhead).
inline constexpr size_t kReadAheadCapacity = 31;

class SocketMgr {
public:
    // The buffer that travels between socket, parser and RS builder.
    class Message {
    public:
        // Numeric values are part of the contract.
        enum State : uint32_t {
            MSG_STATE_UNSET = 0,
            MSG_STATE_RX_OK = 1,
            MSG_STATE_RX_ERROR = 2,
            MSG_STATE_RX_NULL = 3,
            MSG_STATE_RX_TRUNCATED = 4,
            MSG_STATE_RX_WRONG_INTERFACE = 5,
            MSG_STATE_TX_READY = 6,
            MSG_STATE_TX_OK = 7,
            MSG_STATE_TX_TOO_BIG = 8,
            MSG_STATE_TX_ERROR = 9,
        };

        Message() = default;
        virtual ~Message() = default;

        std::vector<uint8_t> m_data;
        size_t m_length = 0;
        uint32_t m_state = MSG_STATE_UNSET;
        kt_ip_address_t m_peer{};
        // With MSG_STATE_RX_WRONG_INTERFACE: the datagram came with a hop limit other than
        // kNdHopLimit, from beyond the link. receive has traced it; nobody else does.
        bool m_offLink = false;
    };

    // The interface configuration: handed to the RS builder and to rs6Send.
    struct IfConfig {
        char name[IFNAMSIZ];
        int32_t ifindex;
        struct sockaddr hwaddr;
        struct sockaddr_in6 lladdr;
        struct sockaddr_in6 rsaddr;
    };

    // Drives Router Solicitation: up to three, 4 s apart, until an RA answers.
    class RsTimeout : public SolTimeout {
    public:
        // The interval is a seam for tests only; the daemon always uses kSolifRsIntervalMs.
        explicit RsTimeout(uint32_t retryInterval = kSolifRsIntervalMs);
        void cbExpired() override;
        // Builds and sends one solicitation; true when it was sent.
        bool dispatchRs();

        uint32_t m_counter = 0;
        bool m_soliciting = false;
        bool m_raReceived = false;
        SocketMgr* m_owner = nullptr;

    private:
        uint32_t m_retryInterval;
    };

    explicit SocketMgr(uint32_t rsRetryInterval = kSolifRsIntervalMs);
    virtual ~SocketMgr();
    SocketMgr(const SocketMgr&) = delete;
    SocketMgr& operator=(const SocketMgr&) = delete;

    virtual uint32_t init(const std::string& ns, const std::string& ifName);
    virtual uint32_t initLocalIpv6Addr();
    virtual uint32_t initRsMcastIpv6Addr();
    virtual uint32_t receive(Message& message);
    virtual uint32_t transmit(Message& message);
    virtual uint32_t rs6Send(const IfConfig& config, int socket, Message& message);
    virtual int getFd() const;
    virtual const IfConfig& getIfConfig() const;

    bool isInterfaceUp();
    uint32_t initLocalIpv6AddrFromNetlink();
    // How many datagrams queued behind the one it waits for receive may read with it, in the same
    // system call (at most kReadAheadCapacity; 0, the default, reads one at a time). Those are
    // then given by the next calls of receive, each as it would have been read on its own.
    void setReadAhead(size_t most) { m_readAheadMost = std::min(most, kReadAheadCapacity); }
    // True while datagrams read ahead wait to be given by receive.
    bool hasReadAhead() const { return !m_readAhead.isEmpty(); }
    // Asks the kernel to give every datagram on `socket` the control items receive checks (see
    // kReceiveControlSize); false, with errno set, when it refuses.
    static bool requestReceptionItems(int socket);

    void setVerbose(bool enabled) { m_verbose = enabled; }
    const SolCounter<sol_socket_counters_t>& getCounters() const { return m_counters; }
    const std::string& getIfName() const { return m_ifName; }
    const std::string& getNs() const { return m_ns; }
    RsTimeout& getRsTimeout() { return m_rsTimeout; }
    // Where the first solicitation's random delay comes from; tests point it at a missing file.
    void setRandomSource(const std::string& path) { m_randomSource = path; }
    // Called when init starts to wait for the kernel to give the interface a link-local address,
    // a wait without a time limit that whoever supervises the daemon may want to report.
    void setLinkLocalWaitHook(std::function<void()> hook) { m_linkLocalWaitHook = std::move(hook); }

protected:
    // For test doubles standing in for init: takes over a socket that is already set up and the
    // names init would have stored.
    void adoptSocket(UniqueFd socket, const std::string& ns, const std::string& ifName);
    // init starts watching the links; a double that stands in for it may do the same.
    ArrivalNames& getArrivalNames() { return m_arrivalNames; }
    // Runs the link-local wait hook, if one is set; a double that stands in for init may wait too.
    void reportLinkLocalWait() const;

private:
    // What receive does with a datagram once it is read: `header` as recvmsg left it, the bytes
    // already in the message.
    uint32_t accept(Message& message, const struct msghdr& header, size_t received);
    // What receive does when the socket refuses a read (errno as the call left it).
    uint32_t readFailed(Message& message);

    RsTimeout m_rsTimeout;
    std::string m_ns;
    std::string m_ifName;
    UniqueFd m_socket;
    UniqueFd m_nsFd;
    bool m_verbose = false;
    IfConfig m_ifConfig{};
    SolCounter<sol_socket_counters_t> m_counters;
    UniqueFd m_netlink;
    std::string m_randomSource = "/dev/urandom";
    ArrivalNames m_arrivalNames;
    ReadAhead m_readAhead;
    size_t m_readAheadMost = 0;
    std::function<void()> m_linkLocalWaitHook;
};

// Walks the route-netlink messages of one received datagram. True when one of them announces a
// permanent fe80::/10 address on `ifName`; `lladdr` then holds it with the interface index as
// scope. Unusable messages are traced and skipped; nothing is read beyond `length`.
bool findLinkLocalInNetlink(const uint8_t* data, size_t length, const std::string& ifName,
                            IfIndexToName resolve, struct sockaddr_in6& lladdr);

// The interface configuration line; written with the other text forms (SocketText.cpp).
std::ostream& operator<<(std::ostream& os, const SocketMgr::IfConfig& config);

}  // namespace solicd
