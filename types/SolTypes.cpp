#include "SolTypes.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

std::string kt_ip_address_ntop(const kt_ip_address_t& address)
{
    char text[INET6_ADDRSTRLEN] = {};
    const int family = address.family == AF_INET ? AF_INET : AF_INET6;
    if (inet_ntop(family, address.bytes, text, sizeof text) == nullptr) {
        return "<invalid address>";
    }
    return text;
}

std::ostream& operator<<(std::ostream& os, const kt_ip_address_t& address)
{
    return os << kt_ip_address_ntop(address);
}

std::ostream& SolTypesOsHexdump(std::ostream& os, const void* data, size_t length) {
    constexpr size_t kBytesPerLine = 16;
    constexpr size_t kOffsetDigits = 8;
    constexpr char kHexDigits[] = "0123456789abcdef";
    // Offset, two blanks, 16 x "xx ", the middle blank, " |", 16 characters, "|\n".
    constexpr size_t kLineSize = kOffsetDigits + 2 + kBytesPerLine * 3 + 1 + 2 + kBytesPerLine + 2;
    if (data == nullptr) {
        return os;
    }
    const auto* bytes = static_cast<const uint8_t*>(data);
    for (size_t offset = 0; offset < length; offset += kBytesPerLine) {
        char line[kLineSize];
        size_t n = 0;
        for (size_t shift = kOffsetDigits * 4; shift > 0; shift -= 4) {
            line[n++] = kHexDigits[(offset >> (shift - 4)) & 0xf];
        }
        line[n++] = ' ';
        line[n++] = ' ';
        const size_t count = std::min(kBytesPerLine, length - offset);
        for (size_t i = 0; i < kBytesPerLine; ++i) {
            if (i < count) {
                line[n++] = kHexDigits[bytes[offset + i] >> 4];
                line[n++] = kHexDigits[bytes[offset + i] & 0xf];
            } else {
                line[n++] = ' ';
                line[n++] = ' ';
            }
            line[n++] = ' ';
            if (i == kBytesPerLine / 2 - 1) {
                line[n++] = ' ';
            }
        }
        line[n++] = ' ';
        line[n++] = '|';
        for (size_t i = 0; i < count; ++i) {
            const uint8_t c = bytes[offset + i];
            line[n++] = c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '.';
        }
        line[n++] = '|';
        line[n++] = '\n';
        os.write(line, static_cast<std::streamsize>(n));
    }
    return os;
}

const char* toCstr(sol_router_state_t state)
{
    switch (state) {
        case sol_router_state_t::STATE_INITIAL: return "STATE_INITIAL";
        case sol_router_state_t::STATE_NEW: return "STATE_NEW";
        case sol_router_state_t::STATE_UPDATED: return "STATE_UPDATED";
        case sol_router_state_t::STATE_EXPIRED: return "STATE_EXPIRED";
        case sol_router_state_t::STATE_INVALIDATED: return "STATE_INVALIDATED";
    }
    return "UNKNOWN";
}

const char* toCstr(sol_network_state_t state)
{
    switch (state) {
        case sol_network_state_t::STATE_INITIAL: return "STATE_INITIAL";
        case sol_network_state_t::STATE_NEW: return "STATE_NEW";
        case sol_network_state_t::STATE_UPDATED: return "STATE_UPDATED";
        case sol_network_state_t::STATE_EXPIRED: return "STATE_EXPIRED";
        case sol_network_state_t::STATE_DEPRECATED: return "STATE_DEPRECATED";
        case sol_network_state_t::STATE_INVALIDATED: return "STATE_INVALIDATED";
    }
    return "UNKNOWN";
}

const char* toCstr(sol_dns_server_state_t state)
{
    switch (state) {
        case sol_dns_server_state_t::STATE_INITIAL: return "STATE_INITIAL";
        case sol_dns_server_state_t::STATE_NEW: return "STATE_NEW";
        case sol_dns_server_state_t::STATE_UPDATED: return "STATE_UPDATED";
        case sol_dns_server_state_t::STATE_EXPIRED: return "STATE_EXPIRED";
        case sol_dns_server_state_t::STATE_INVALIDATED: return "STATE_INVALIDATED";
    }
    return "UNKNOWN";
}

std::ostream& operator<<(std::ostream& os, sol_router_state_t state) { return os << toCstr(state); }
std::ostream& operator<<(std::ostream& os, sol_network_state_t state) { return os << toCstr(state); }
std::ostream& operator<<(std::ostream& os, sol_dns_server_state_t state) { return os << toCstr(state); }

namespace solicd {
namespace {

// The prefix with every bit beyond `length` cleared, as IPv6 text.
std::string maskedPrefixText(const kt_ip_address_t& prefix, uint32_t length)
{
    kt_ip_address_t masked = prefix;
    masked.family = KT_AF_INET6;
    for (uint32_t i = 0; i < sizeof masked.bytes; ++i) {
        const uint32_t bitsBefore = i * 8;
        if (length <= bitsBefore) {
            masked.bytes[i] = 0;
        } else if (length < bitsBefore + 8) {
            masked.bytes[i] &= static_cast<uint8_t>(0xff << (8 - (length - bitsBefore)));
        }
    }
    return kt_ip_address_ntop(masked);
}

bool sameAddress(const kt_ip_address_t& a, const kt_ip_address_t& b)
{
    return a.family == b.family && std::memcmp(a.bytes, b.bytes, sizeof a.bytes) == 0;
}

std::ostream& flagsText(std::ostream& os, uint32_t flags)
{
    os << "0x" << std::hex << flags << std::dec;
    return os;
}

template <class S>
std::ostream& commonStatusText(std::ostream& os, const S& s, const char* stateName)
{
    return os << "id: " << s.id << ", state: " << stateName << ", createdTime: " << s.createdTime
              << ", lastUpdateTime: " << s.lastUpdateTime << ", lastStateChangeTime: " << s.lastStateChangeTime
              << ", lastConfigChangeTime: " << s.lastConfigChangeTime
              << ", timeoutStartTime: " << s.timeoutStartTime << ", expiryTime: " << s.expiryTime
              << ", updateCount: " << s.updateCount << ", configChangeCount: " << s.configChangeCount
              << ", stateChangeCount: " << s.stateChangeCount << ", invalidatedCount: " << s.invalidatedCount
              << ", expiredCount: " << s.expiredCount;
}

}  // namespace

SolRouter::Config::Config() : sol_router_config_t{} {}
SolRouter::Status::Status() : sol_status_t{} {}
SolNetwork::Config::Config() : sol_network_config_t{} {}
SolNetwork::Status::Status() : sol_network_status_t{} {}
SolDnsServer::Config::Config() : sol_dns_server_config_t{} {}
SolDnsServer::Status::Status() : sol_status_t{} {}

std::string SolRouter::Config::getName() const { return "router/" + kt_ip_address_ntop(address); }

std::string SolNetwork::Config::getName() const
{
    return "network/" + maskedPrefixText(prefix, prefixLength) + "/" + std::to_string(prefixLength);
}

std::string SolDnsServer::Config::getName() const { return "dns/" + kt_ip_address_ntop(address); }

bool SolRouter::Config::isNotEqual(const Config& o) const
{
    return !sameAddress(address, o.address) || reachableTime != o.reachableTime ||
           retransTimer != o.retransTimer || routerLifetime != o.routerLifetime || flags != o.flags;
}

bool SolNetwork::Config::isNotEqual(const Config& o) const
{
    return !sameAddress(prefix, o.prefix) || prefixLength != o.prefixLength || validLifetime != o.validLifetime ||
           preferredLifetime != o.preferredLifetime || flags != o.flags;
}

bool SolDnsServer::Config::isNotEqual(const Config& o) const
{
    return index != o.index || !sameAddress(address, o.address) || lifetime != o.lifetime;
}

sol_router_state_t SolRouter::Status::uintToState(unsigned value) { return static_cast<sol_router_state_t>(value); }
sol_network_state_t SolNetwork::Status::uintToState(unsigned value)
{
    return static_cast<sol_network_state_t>(value);
}
sol_dns_server_state_t SolDnsServer::Status::uintToState(unsigned value)
{
    return static_cast<sol_dns_server_state_t>(value);
}

std::ostream& operator<<(std::ostream& os, const SolRouter::Config& c)
{
    os << "{address: " << c.address << ", reachableTime: " << c.reachableTime << ", retransTimer: " << c.retransTimer
       << ", routerLifetime: " << c.routerLifetime << ", flags: ";
    return flagsText(os, c.flags) << "}";
}

std::ostream& operator<<(std::ostream& os, const SolNetwork::Config& c)
{
    os << "{prefix: " << c.prefix << ", prefixLength: " << c.prefixLength << ", validLifetime: " << c.validLifetime
       << ", preferredLifetime: " << c.preferredLifetime << ", flags: ";
    return flagsText(os, c.flags) << "}";
}

std::ostream& operator<<(std::ostream& os, const SolDnsServer::Config& c)
{
    return os << "{index: " << c.index << ", address: " << c.address << ", lifetime: " << c.lifetime << "}";
}

std::ostream& operator<<(std::ostream& os, const SolRouter::Status& s)
{
    os << "{";
    return commonStatusText(os, s, toCstr(SolRouter::Status::uintToState(s.state))) << "}";
}

std::ostream& operator<<(std::ostream& os, const SolDnsServer::Status& s)
{
    os << "{";
    return commonStatusText(os, s, toCstr(SolDnsServer::Status::uintToState(s.state))) << "}";
}

std::ostream& operator<<(std::ostream& os, const SolNetwork::Status& s)
{
    os << "{";
    return commonStatusText(os, s, toCstr(SolNetwork::Status::uintToState(s.state)))
           << ", deprecatedCount: " << s.deprecatedCount << ", lifetimeResetCount: " << s.lifetimeResetCount
           << ", lifetimeIgnoredCount: " << s.lifetimeIgnoredCount << "}";
}

std::ostream& operator<<(std::ostream& os, const SolRouter& r)
{
    return os << "{config: " << r.m_config << ", status: " << r.m_status << "}";
}

std::ostream& operator<<(std::ostream& os, const SolNetwork& n)
{
    return os << "{config: " << n.m_config << ", status: " << n.m_status << "}";
}

std::ostream& operator<<(std::ostream& os, const SolDnsServer& d)
{
    return os << "{config: " << d.m_config << ", status: " << d.m_status << "}";
}

std::ostream& operator<<(std::ostream& os, const SolCounter<sol_socket_counters_t>& c)
{
    const sol_socket_counters_t& v = c.m_counters;
    return os << "{rxRa: " << v.rxRa << ", txRs: " << v.txRs << ", txRsFailed: " << v.txRsFailed
              << ", rxRejected: " << v.rxRejected << "}";
}

std::ostream& operator<<(std::ostream& os, const SolCounter<sol_packet_counters_t>& c)
{
    const sol_packet_counters_t& v = c.m_counters;
    return os << "{raParsed: " << v.raParsed << ", raDropped: " << v.raDropped
              << ", prefixAccepted: " << v.prefixAccepted << ", prefixIgnored: " << v.prefixIgnored << "}";
}

}  // namespace solicd
