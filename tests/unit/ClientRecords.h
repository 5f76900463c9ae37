// Records whose every field holds a distinct value derived from a seed, so that a byte image
// shows where each field landed; and small byte readers for message images.
#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "SolTypes.h"

namespace solicd::test {

inline kt_ip_address_t ipv6(const std::string& text) {
    kt_ip_address_t a{};
    a.family = KT_AF_INET6;
    inet_pton(AF_INET6, text.c_str(), a.bytes);
    return a;
}

template <class S>
void fillCommonStatus(S& s, uint32_t seed, uint32_t state) {
    s.id = seed;
    s.state = state;
    s.createdTime = 1700000000 + seed;
    s.lastUpdateTime = 1700000100 + seed;
    s.lastStateChangeTime = 1700000200 + seed;
    s.lastConfigChangeTime = 1700000300 + seed;
    s.timeoutStartTime = 1700000400 + seed;
    s.expiryTime = 1700000500 + seed;
    s.updateCount = 10 + seed;
    s.configChangeCount = 20 + seed;
    s.stateChangeCount = 30 + seed;
    s.invalidatedCount = 40 + seed;
    s.expiredCount = 50 + seed;
}

inline SolRouter makeRouter(uint32_t seed) {
    SolRouter r;
    r.m_config.address = ipv6("fe80::" + std::to_string(seed));
    r.m_config.reachableTime = 30000 + seed;
    r.m_config.retransTimer = 1000 + seed;
    r.m_config.routerLifetime = static_cast<uint16_t>(1800 + seed);
    r.m_config.pad = 0xa5a5;  // "left as the constructor set it": a copy keeps whatever is there
    r.m_config.flags = FLAG_MANAGED | FLAG_OTHER;
    fillCommonStatus(r.m_status, seed, static_cast<uint32_t>(sol_router_state_t::STATE_NEW));
    return r;
}

inline SolNetwork makeNetwork(uint32_t seed) {
    SolNetwork n;
    n.m_config.prefix = ipv6("2001:db8:" + std::to_string(seed) + "::1234");
    n.m_config.prefixLength = 64;
    n.m_config.validLifetime = 86400 + seed;
    n.m_config.preferredLifetime = 14400 + seed;
    n.m_config.flags = FLAG_ON_LINK | FLAG_AUTONOMOUS;
    fillCommonStatus(n.m_status, seed, static_cast<uint32_t>(sol_network_state_t::STATE_DEPRECATED));
    n.m_status.deprecatedCount = 60 + seed;
    n.m_status.lifetimeResetCount = 70 + seed;
    n.m_status.lifetimeIgnoredCount = 80 + seed;
    return n;
}

inline SolDnsServer makeDnsServer(uint32_t seed) {
    SolDnsServer d;
    d.m_config.index = seed;
    d.m_config.address = ipv6("2001:db8::53:" + std::to_string(seed));
    d.m_config.lifetime = 600 + seed;
    fillCommonStatus(d.m_status, seed, static_cast<uint32_t>(sol_dns_server_state_t::STATE_UPDATED));
    return d;
}

// Little readers over a message image.
inline uint32_t u32At(const std::vector<unsigned char>& bytes, size_t offset) {
    uint32_t v;
    std::memcpy(&v, bytes.data() + offset, sizeof v);
    return v;
}

inline std::vector<unsigned char> bytesOf(const void* p, size_t size) {
    const auto* b = static_cast<const unsigned char*>(p);
    return std::vector<unsigned char>(b, b + size);
}

inline std::vector<unsigned char> slice(const std::vector<unsigned char>& bytes, size_t offset, size_t size) {
    return std::vector<unsigned char>(bytes.begin() + offset, bytes.begin() + offset + size);
}

}  // namespace solicd::test
