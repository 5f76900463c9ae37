#include "SolTypes.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

namespace {

constexpr size_t kIp6Groups = 8;
constexpr size_t kIp4Bytes = 4;
constexpr size_t kIp4Offset = 12;
constexpr size_t kMappedMarkerGroup = 5;
constexpr unsigned kMappedMarker = 0xffff;
constexpr char kHexDigits[] = "0123456789abcdef";

// "%u" of one byte.
char* putDecimalByte(char* out, unsigned value)
{
    if (value >= 100) {
        *out++ = static_cast<char>('0' + value / 100);
    }
    if (value >= 10) {
        *out++ = static_cast<char>('0' + value / 10 % 10);
    }
    *out++ = static_cast<char>('0' + value % 10);
    return out;
}

// "%x" of one group: no leading zeros.
char* putHexGroup(char* out, unsigned value)
{
    bool started = false;
    for (int shift = 12; shift >= 0; shift -= 4) {
        const unsigned digit = (value >> shift) & 0xf;
        started = started || digit != 0 || shift == 0;
        if (started) {
            *out++ = kHexDigits[digit];
        }
    }
    return out;
}

char* putIp4(char* out, const uint8_t* bytes)
{
    for (size_t i = 0; i < kIp4Bytes; ++i) {
        if (i != 0) {
            *out++ = '.';
        }
        out = putDecimalByte(out, bytes[i]);
    }
    return out;
}

}  // namespace

size_t kt_ip6_address_text(const uint8_t* bytes, char* text)
{
    unsigned groups[kIp6Groups];
    for (size_t i = 0; i < kIp6Groups; ++i) {
        groups[i] = static_cast<unsigned>(bytes[2 * i] << 8 | bytes[2 * i + 1]);
    }
    // The longest run of zero groups; the first one wins a tie; a single group is no run.
    size_t bestBase = kIp6Groups;
    size_t bestLength = 0;
    for (size_t i = 0; i < kIp6Groups;) {
        if (groups[i] != 0) {
            ++i;
            continue;
        }
        size_t end = i;
        while (end < kIp6Groups && groups[end] == 0) {
            ++end;
        }
        if (end - i > bestLength) {
            bestBase = i;
            bestLength = end - i;
        }
        i = end;
    }
    if (bestLength < 2) {
        bestBase = kIp6Groups;
        bestLength = 0;
    }
    char* out = text;
    for (size_t i = 0; i < kIp6Groups; ++i) {
        if (i >= bestBase && i < bestBase + bestLength) {
            if (i == bestBase) {
                *out++ = ':';
            }
            continue;
        }
        if (i != 0) {
            *out++ = ':';
        }
        if (i == kIp4Offset / 2 && bestBase == 0 &&
            (bestLength == 6 || (bestLength == 5 && groups[kMappedMarkerGroup] == kMappedMarker))) {
            out = putIp4(out, bytes + kIp4Offset);
            break;
        }
        out = putHexGroup(out, groups[i]);
    }
    if (bestLength != 0 && bestBase + bestLength == kIp6Groups) {
        *out++ = ':';
    }
    *out = '\0';
    return static_cast<size_t>(out - text);
}

namespace {

// kt_ip_address_ntop into a buffer of KT_IP6_TEXT_SIZE bytes; the length written.
size_t addressText(const kt_ip_address_t& address, char* text)
{
    if (address.family == AF_INET) {
        return static_cast<size_t>(putIp4(text, address.bytes) - text);
    }
    return kt_ip6_address_text(address.bytes, text);
}

}  // namespace

std::string kt_ip_address_ntop(const kt_ip_address_t& address)
{
    char text[KT_IP6_TEXT_SIZE];
    return std::string(text, addressText(address, text));
}

std::ostream& operator<<(std::ostream& os, const kt_ip_address_t& address)
{
    return os << kt_ip_address_ntop(address);
}

std::ostream& SolTypesOsHexdump(std::ostream& os, const void* data, size_t length) {
    constexpr size_t kBytesPerLine = 16;
    constexpr size_t kOffsetDigits = 8;
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

constexpr size_t kDecimalDigits32 = 10;

// The prefix with every bit beyond `length` cleared.
kt_ip_address_t maskedPrefix(const kt_ip_address_t& prefix, uint32_t length)
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
    return masked;
}

// "<kind><address>", or "<kind><address>/<length>" when a length is given, written once into
// a buffer: the names are the cache and timer keys, built for every record of every RA.
template <size_t N>
std::string entryName(const char (&kind)[N], const kt_ip_address_t& address, const uint32_t* length = nullptr)
{
    constexpr size_t kKindLength = N - 1;
    char text[kKindLength + KT_IP6_TEXT_SIZE + 1 + kDecimalDigits32];
    std::memcpy(text, kind, kKindLength);
    char* out = text + kKindLength;
    out += addressText(address, out);
    if (length != nullptr) {
        *out++ = '/';
        char digits[kDecimalDigits32];
        size_t count = 0;
        uint32_t rest = *length;
        do {
            digits[count++] = static_cast<char>('0' + rest % 10);
            rest /= 10;
        } while (rest != 0);
        while (count != 0) {
            *out++ = digits[--count];
        }
    }
    return std::string(text, static_cast<size_t>(out - text));
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

std::string SolRouter::Config::getName() const { return entryName("router/", address); }

std::string SolNetwork::Config::getName() const
{
    return entryName("network/", maskedPrefix(prefix, prefixLength), &prefixLength);
}

std::string SolDnsServer::Config::getName() const { return entryName("dns/", address); }

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
