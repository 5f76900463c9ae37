#include "SolTypes.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constexpr size_t kIp6Groups = 8;
constexpr size_t kIp4Bytes = 4;
constexpr size_t kIp4Offset = 12;
constexpr size_t kMappedMarkerGroup = 5;
constexpr unsigned kMappedMarker = 0xffff;
constexpr char kHexDigits[] = "0123456789abcdef";

// "%u" of one byte.
char* putDecimalByte(char* out, unsigned value) {
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
char* putHexGroup(char* out, unsigned value) {
    if (value >= 0x1000) {
        *out++ = kHexDigits[value >> 12];
    }
    if (value >= 0x100) {
        *out++ = kHexDigits[(value >> 8) & 0xf];
    }
    if (value >= 0x10) {
        *out++ = kHexDigits[(value >> 4) & 0xf];
    }
    *out++ = kHexDigits[value & 0xf];
    return out;
}

char* putIp4(char* out, const uint8_t* bytes) {
    for (size_t i = 0; i < kIp4Bytes; ++i) {
        if (i != 0) {
            *out++ = '.';
        }
        out = putDecimalByte(out, bytes[i]);
    }
    return out;
}

// The groups [from, to) in "%x", separated by ':'.
char* putHexGroups(char* out, const unsigned* groups, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
        if (i != from) {
            *out++ = ':';
        }
        out = putHexGroup(out, groups[i]);
    }
    return out;
}

// The run of zero groups that becomes "::" for each pattern of zero groups (bit i set: group i is
// zero): the longest, the first of equally long ones, none shorter than two groups. Base in the
// high nibble, length in the low one; 0 when there is no such run.
constexpr unsigned kRunLengthMask = 0xf;
constexpr unsigned kRunBaseShift = 4;
constexpr auto kZeroRuns = [] {
    std::array<uint8_t, 1u << kIp6Groups> runs{};
    for (unsigned zeros = 0; zeros < runs.size(); ++zeros) {
        unsigned bestBase = 0;
        unsigned bestLength = 0;
        for (unsigned i = 0; i < kIp6Groups;) {
            unsigned end = i;
            while (end < kIp6Groups && (zeros >> end & 1) != 0) {
                ++end;
            }
            if (end - i > bestLength) {
                bestBase = i;
                bestLength = end - i;
            }
            i = end == i ? i + 1 : end;
        }
        runs[zeros] = bestLength < 2 ? 0 : static_cast<uint8_t>(bestBase << kRunBaseShift | bestLength);
    }
    return runs;
}();

}  // namespace

size_t kt_ip6_address_text(const uint8_t* bytes, char* text) {
    unsigned groups[kIp6Groups];
    unsigned zeros = 0;
    for (size_t i = 0; i < kIp6Groups; ++i) {
        groups[i] = static_cast<unsigned>(bytes[2 * i] << 8 | bytes[2 * i + 1]);
        zeros |= (groups[i] == 0 ? 1u : 0u) << i;
    }
    const unsigned run = kZeroRuns[zeros];
    const size_t runLength = run & kRunLengthMask;
    const size_t runBase = run >> kRunBaseShift;
    char* out = text;
    if (runLength == 0) {
        out = putHexGroups(out, groups, 0, kIp6Groups);
    } else {
        out = putHexGroups(out, groups, 0, runBase);
        *out++ = ':';
        *out++ = ':';
        const size_t tail = runBase + runLength;
        // IPv4-compatible (::a.b.c.d) and IPv4-mapped (::ffff:a.b.c.d): the last two groups in
        // dotted decimal.
        if (runBase == 0 &&
            (runLength == 6 || (runLength == 5 && groups[kMappedMarkerGroup] == kMappedMarker))) {
            out = putHexGroups(out, groups, tail, kIp4Offset / 2);
            if (tail < kIp4Offset / 2) {
                *out++ = ':';
            }
            out = putIp4(out, bytes + kIp4Offset);
        } else {
            out = putHexGroups(out, groups, tail, kIp6Groups);
        }
    }
    *out = '\0';
    return static_cast<size_t>(out - text);
}

namespace {

// kt_ip_address_ntop into a buffer of KT_IP6_TEXT_SIZE bytes; the length written.
size_t addressText(const kt_ip_address_t& address, char* text) {
    if (address.family == AF_INET) {
        return static_cast<size_t>(putIp4(text, address.bytes) - text);
    }
    return kt_ip6_address_text(address.bytes, text);
}

}  // namespace

std::string kt_ip_address_ntop(const kt_ip_address_t& address) {
    char text[KT_IP6_TEXT_SIZE];
    return std::string(text, addressText(address, text));
}

std::ostream& operator<<(std::ostream& os, const kt_ip_address_t& address) {
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

const char* toCstr(sol_router_state_t state) {
    switch (state) {
        case sol_router_state_t::STATE_INITIAL:
            return "STATE_INITIAL";
        case sol_router_state_t::STATE_NEW:
            return "STATE_NEW";
        case sol_router_state_t::STATE_UPDATED:
            return "STATE_UPDATED";
        case sol_router_state_t::STATE_EXPIRED:
            return "STATE_EXPIRED";
        case sol_router_state_t::STATE_INVALIDATED:
            return "STATE_INVALIDATED";
    }
    return "UNKNOWN";
}

const char* toCstr(sol_network_state_t state) {
    switch (state) {
        case sol_network_state_t::STATE_INITIAL:
            return "STATE_INITIAL";
        case sol_network_state_t::STATE_NEW:
            return "STATE_NEW";
        case sol_network_state_t::STATE_UPDATED:
            return "STATE_UPDATED";
        case sol_network_state_t::STATE_EXPIRED:
            return "STATE_EXPIRED";
        case sol_network_state_t::STATE_DEPRECATED:
            return "STATE_DEPRECATED";
        case sol_network_state_t::STATE_INVALIDATED:
            return "STATE_INVALIDATED";
    }
    return "UNKNOWN";
}

const char* toCstr(sol_dns_server_state_t state) {
    switch (state) {
        case sol_dns_server_state_t::STATE_INITIAL:
            return "STATE_INITIAL";
        case sol_dns_server_state_t::STATE_NEW:
            return "STATE_NEW";
        case sol_dns_server_state_t::STATE_UPDATED:
            return "STATE_UPDATED";
        case sol_dns_server_state_t::STATE_EXPIRED:
            return "STATE_EXPIRED";
        case sol_dns_server_state_t::STATE_INVALIDATED:
            return "STATE_INVALIDATED";
    }
    return "UNKNOWN";
}

std::ostream& operator<<(std::ostream& os, sol_router_state_t state) {
    return os << toCstr(state);
}
std::ostream& operator<<(std::ostream& os, sol_network_state_t state) {
    return os << toCstr(state);
}
std::ostream& operator<<(std::ostream& os, sol_dns_server_state_t state) {
    return os << toCstr(state);
}

namespace solicd {
namespace {

// The prefix with every bit beyond `length` cleared.
kt_ip_address_t maskedPrefix(const kt_ip_address_t& prefix, uint32_t length) {
    constexpr uint32_t kBits = 8 * sizeof prefix.bytes;
    kt_ip_address_t masked = prefix;
    masked.family = KT_AF_INET6;
    const uint32_t kept = std::min(length, kBits);
    const uint32_t fullBytes = kept / 8;
    if (fullBytes < sizeof masked.bytes) {
        masked.bytes[fullBytes] &= static_cast<uint8_t>(0xff << (8 - kept % 8));
        std::memset(masked.bytes + fullBytes + 1, 0, sizeof masked.bytes - fullBytes - 1);
    }
    return masked;
}

// "<kind><address>", or "<kind><address>/<length>" when a length is given, into a buffer of
// SOL_ENTRY_NAME_SIZE bytes; the length written. The names are the cache and timer keys, built
// for every record of every RA.
template <size_t N>
size_t writeEntryName(char* text, const char (&kind)[N], const kt_ip_address_t& address,
                      const uint32_t* length = nullptr) {
    constexpr size_t kKindLength = N - 1;
    static_assert(kKindLength + KT_IP6_TEXT_SIZE + SOL_DECIMAL_U32_SIZE <= SOL_ENTRY_NAME_SIZE);
    std::memcpy(text, kind, kKindLength);
    char* out = text + kKindLength;
    out += addressText(address, out);
    if (length != nullptr) {
        *out++ = '/';
        char digits[SOL_DECIMAL_U32_SIZE];
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
    *out = '\0';
    return static_cast<size_t>(out - text);
}

template <class Config>
std::string nameOf(const Config& config) {
    char text[SOL_ENTRY_NAME_SIZE];
    return std::string(text, config.writeName(text));
}

bool sameAddress(const kt_ip_address_t& a, const kt_ip_address_t& b) {
    return a.family == b.family && std::memcmp(a.bytes, b.bytes, sizeof a.bytes) == 0;
}

std::ostream& flagsText(std::ostream& os, uint32_t flags) {
    os << "0x" << std::hex << flags << std::dec;
    return os;
}

template <class S>
std::ostream& commonStatusText(std::ostream& os, const S& s, const char* stateName) {
    return os << "id: " << s.id << ", state: " << stateName << ", createdTime: " << s.createdTime
              << ", lastUpdateTime: " << s.lastUpdateTime
              << ", lastStateChangeTime: " << s.lastStateChangeTime
              << ", lastConfigChangeTime: " << s.lastConfigChangeTime
              << ", timeoutStartTime: " << s.timeoutStartTime << ", expiryTime: " << s.expiryTime
              << ", updateCount: " << s.updateCount << ", configChangeCount: " << s.configChangeCount
              << ", stateChangeCount: " << s.stateChangeCount << ", invalidatedCount: " << s.invalidatedCount
              << ", expiredCount: " << s.expiredCount;
}

}  // namespace

size_t SolRouter::Config::writeName(char* text) const {
    return writeEntryName(text, "router/", address);
}
std::string SolRouter::Config::getName() const {
    return nameOf(*this);
}

size_t SolNetwork::Config::writeName(char* text) const {
    return writeEntryName(text, "network/", maskedPrefix(prefix, prefixLength), &prefixLength);
}
std::string SolNetwork::Config::getName() const {
    return nameOf(*this);
}

size_t SolDnsServer::Config::writeName(char* text) const {
    return writeEntryName(text, "dns/", address);
}
std::string SolDnsServer::Config::getName() const {
    return nameOf(*this);
}

bool SolRouter::Config::isNotEqual(const Config& o) const {
    return !sameAddress(address, o.address) || reachableTime != o.reachableTime ||
           retransTimer != o.retransTimer || routerLifetime != o.routerLifetime || flags != o.flags;
}

bool SolNetwork::Config::isNotEqual(const Config& o) const {
    return !sameAddress(prefix, o.prefix) || prefixLength != o.prefixLength ||
           validLifetime != o.validLifetime || preferredLifetime != o.preferredLifetime || flags != o.flags;
}

bool SolDnsServer::Config::isNotEqual(const Config& o) const {
    return index != o.index || !sameAddress(address, o.address) || lifetime != o.lifetime;
}

std::ostream& operator<<(std::ostream& os, const SolRouter::Config& c) {
    os << "{address: " << c.address << ", reachableTime: " << c.reachableTime
       << ", retransTimer: " << c.retransTimer << ", routerLifetime: " << c.routerLifetime << ", flags: ";
    return flagsText(os, c.flags) << "}";
}

std::ostream& operator<<(std::ostream& os, const SolNetwork::Config& c) {
    os << "{prefix: " << c.prefix << ", prefixLength: " << c.prefixLength
       << ", validLifetime: " << c.validLifetime << ", preferredLifetime: " << c.preferredLifetime
       << ", flags: ";
    return flagsText(os, c.flags) << "}";
}

std::ostream& operator<<(std::ostream& os, const SolDnsServer::Config& c) {
    return os << "{index: " << c.index << ", address: " << c.address << ", lifetime: " << c.lifetime << "}";
}

std::ostream& operator<<(std::ostream& os, const SolRouter::Status& s) {
    os << "{";
    return commonStatusText(os, s, toCstr(SolRouter::Status::uintToState(s.state))) << "}";
}

std::ostream& operator<<(std::ostream& os, const SolDnsServer::Status& s) {
    os << "{";
    return commonStatusText(os, s, toCstr(SolDnsServer::Status::uintToState(s.state))) << "}";
}

std::ostream& operator<<(std::ostream& os, const SolNetwork::Status& s) {
    os << "{";
    return commonStatusText(os, s, toCstr(SolNetwork::Status::uintToState(s.state)))
           << ", deprecatedCount: " << s.deprecatedCount << ", lifetimeResetCount: " << s.lifetimeResetCount
           << ", lifetimeIgnoredCount: " << s.lifetimeIgnoredCount << "}";
}

std::ostream& operator<<(std::ostream& os, const SolRouter& r) {
    return os << "{config: " << r.m_config << ", status: " << r.m_status << "}";
}

std::ostream& operator<<(std::ostream& os, const SolNetwork& n) {
    return os << "{config: " << n.m_config << ", status: " << n.m_status << "}";
}

std::ostream& operator<<(std::ostream& os, const SolDnsServer& d) {
    return os << "{config: " << d.m_config << ", status: " << d.m_status << "}";
}

std::ostream& operator<<(std::ostream& os, const SolCounter<sol_socket_counters_t>& c) {
    const sol_socket_counters_t& v = c.m_counters;
    return os << "{rxRa: " << v.rxRa << ", txRs: " << v.txRs << ", txRsFailed: " << v.txRsFailed
              << ", rxRejected: " << v.rxRejected << "}";
}

std::ostream& operator<<(std::ostream& os, const SolCounter<sol_packet_counters_t>& c) {
    const sol_packet_counters_t& v = c.m_counters;
    return os << "{raParsed: " << v.raParsed << ", raDropped: " << v.raDropped
              << ", prefixAccepted: " << v.prefixAccepted << ", prefixIgnored: " << v.prefixIgnored << "}";
}

}  // namespace solicd
