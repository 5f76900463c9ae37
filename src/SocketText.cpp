#include "SocketText.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <string_view>

#include "SocketMgr.h"

namespace solicd {
namespace {

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
