// Builds route-netlink datagrams byte by byte, the way the kernel lays them out, including
// deliberately broken lengths.
#pragma once

#include <arpa/inet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <optional>
#include <vector>

namespace solicd::test {

class NetlinkDatagram {
public:
    // One route attribute, padded to 4 bytes; `length` may lie about its size.
    static std::vector<uint8_t> rawAttribute(uint16_t type, uint16_t length,
                                             const std::vector<uint8_t>& payload) {
        std::vector<uint8_t> out(sizeof(struct rtattr));
        const struct rtattr header { length, type };
        std::memcpy(out.data(), &header, sizeof header);
        out.insert(out.end(), payload.begin(), payload.end());
        out.resize(RTA_ALIGN(out.size()));
        return out;
    }

    static std::vector<uint8_t> attribute(uint16_t type, const std::vector<uint8_t>& payload) {
        return rawAttribute(type, static_cast<uint16_t>(RTA_LENGTH(payload.size())), payload);
    }

    static std::vector<uint8_t> ipv6(const char* text) {
        std::vector<uint8_t> bytes(16);
        inet_pton(AF_INET6, text, bytes.data());
        return bytes;
    }

    static std::vector<uint8_t> address(uint16_t type, const char* text) {
        return attribute(type, ipv6(text));
    }

    // One message; its length field is the real length unless `length` says otherwise. The
    // next message starts at the padded real length.
    NetlinkDatagram& message(uint16_t type, const std::vector<uint8_t>& payload,
                             std::optional<uint32_t> length = std::nullopt) {
        struct nlmsghdr header {};
        header.nlmsg_len = length.value_or(static_cast<uint32_t>(NLMSG_LENGTH(payload.size())));
        header.nlmsg_type = type;
        const size_t start = m_bytes.size();
        m_bytes.resize(start + sizeof header);
        std::memcpy(m_bytes.data() + start, &header, sizeof header);
        m_bytes.insert(m_bytes.end(), payload.begin(), payload.end());
        m_bytes.resize(start + NLMSG_ALIGN(m_bytes.size() - start));
        return *this;
    }

    NetlinkDatagram& newAddress(uint8_t family, uint8_t flags, uint32_t ifindex,
                                std::initializer_list<std::vector<uint8_t>> attributes) {
        struct ifaddrmsg header {};
        header.ifa_family = family;
        header.ifa_prefixlen = 64;
        header.ifa_flags = flags;
        header.ifa_scope = RT_SCOPE_LINK;
        header.ifa_index = ifindex;
        std::vector<uint8_t> payload(sizeof header);
        std::memcpy(payload.data(), &header, sizeof header);
        for (const auto& a : attributes) {
            payload.insert(payload.end(), a.begin(), a.end());
        }
        return message(RTM_NEWADDR, payload);
    }

    const std::vector<uint8_t>& bytes() const { return m_bytes; }

private:
    std::vector<uint8_t> m_bytes;
};

}  // namespace solicd::test
