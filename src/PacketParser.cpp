#include "PacketParser.h"

#include <arpa/inet.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>

#include "TraceLog.h"

namespace solicd {
namespace {

constexpr const char* kCategory = "ADDR_IPV6";
constexpr const char* kRaParserFn = "raParser";

// ICMPv6 header.
constexpr size_t kIcmpTypeOffset = 0;
constexpr size_t kIcmpCodeOffset = 1;
constexpr size_t kIcmpChecksumOffset = 2;
constexpr uint8_t kCodeZero = 0;

// Router Advertisement (RFC 4861, 4.2).
constexpr uint8_t kTypeRouterAdvertisement = 134;
constexpr int32_t kRaHeaderSize = 16;
constexpr size_t kRaHopLimitOffset = 4;
constexpr size_t kRaFlagsOffset = 5;
constexpr size_t kRaRouterLifetimeOffset = 6;
constexpr size_t kRaReachableTimeOffset = 8;
constexpr size_t kRaRetransTimerOffset = 12;
constexpr uint8_t kRaFlagManaged = 0x80;
constexpr uint8_t kRaFlagOther = 0x40;
constexpr uint8_t kRaFlagHomeAgent = 0x20;

// Options: type and length octets, the length counted in units of 8 bytes.
constexpr int32_t kOptionHeaderSize = 2;
constexpr size_t kOptionTypeOffset = 0;
constexpr size_t kOptionUnitsOffset = 1;
constexpr size_t kOptionUnitSize = 8;

// Prefix Information (RFC 4861, 4.6.2).
constexpr uint8_t kOptPrefixInformation = 3;
constexpr uint8_t kPrefixInformationUnits = 4;
constexpr uint8_t kAcceptedPrefixLength = 64;
constexpr size_t kPioPrefixLengthOffset = 2;
constexpr size_t kPioFlagsOffset = 3;
constexpr size_t kPioValidLifetimeOffset = 4;
constexpr size_t kPioPreferredLifetimeOffset = 8;
constexpr size_t kPioPrefixOffset = 16;
constexpr uint8_t kPioFlagOnLink = 0x80;
constexpr uint8_t kPioFlagAutonomous = 0x40;

// Recursive DNS Server (RFC 8106, 5.1): two units per address after the first unit.
constexpr uint8_t kOptRdnss = 25;
constexpr uint8_t kRdnssMinUnits = 3;
constexpr size_t kRdnssLifetimeOffset = 4;
constexpr size_t kRdnssAddressesOffset = 8;
constexpr size_t kRdnssUnitsPerAddress = 2;
constexpr size_t kIpv6AddressSize = 16;

// Router Solicitation (RFC 4861, 4.1) with a Source Link-Layer Address option.
constexpr uint8_t kTypeRouterSolicitation = 133;
constexpr uint8_t kOptSourceLinkAddr = 1;
constexpr size_t kRsSize = 16;
constexpr size_t kRsHeaderSize = 8;
constexpr size_t kRsOptionSize = 8;
constexpr size_t kHwAddrSize = 6;
// Upper-layer pseudo-header (RFC 8200, 8.1) followed by the solicitation.
constexpr uint8_t kNextHeaderIcmpv6 = 58;
constexpr size_t kPseudoSourceOffset = 0;
constexpr size_t kPseudoDestinationOffset = 16;
constexpr size_t kPseudoLengthOffset = 32;
constexpr size_t kPseudoNextHeaderOffset = 39;
constexpr size_t kPseudoHeaderSize = 40;
constexpr size_t kChecksumInputSize = kPseudoHeaderSize + kRsSize;
// Both scratch buffers keep this size although only 8 and 56 bytes are used.
constexpr int32_t kScratchBufferSize = 65535;

constexpr std::array<const char*, 25> kOptionNames = {
    "ND_OPT_SOURCE_LINKADDR",
    "ND_OPT_TARGET_LINKADDR",
    "ND_OPT_PREFIX_INFORMATION",
    "ND_OPT_REDIRECTED_HEADER",
    "ND_OPT_MTU",
    "UNKNOWN",
    "ND_OPT_ADVINTERVAL",
    "ND_OPT_HOMEAGENT_INFO",
    "ND_OPT_ROUTE_INFO",  // deliberately on type 9; Route Information proper (24) prints UNKNOWN
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "UNKNOWN",
    "ND_OPT_RDNSS",
};

const char* optionName(uint8_t type) {
    return type >= 1 && type <= kOptionNames.size() ? kOptionNames[type - 1] : "UNKNOWN";
}

void* callocAllocator(size_t count, size_t size) {
    return std::calloc(count, size);
}
PacketParser::ZeroAllocator g_allocator = &callocAllocator;

// Reads without alignment assumptions; the RA fields are anywhere in the datagram.
template <class T>
T readRaw(const uint8_t* p) {
    T value;
    std::memcpy(&value, p, sizeof value);
    return value;
}

uint16_t readNet16(const uint8_t* p) {
    return ntohs(readRaw<uint16_t>(p));
}
uint32_t readNet32(const uint8_t* p) {
    return ntohl(readRaw<uint32_t>(p));
}

kt_ip_address_t ipv6Address(const uint8_t* p) {
    kt_ip_address_t address{};
    address.family = KT_AF_INET6;
    std::memcpy(address.bytes, p, sizeof address.bytes);
    return address;
}

// fe80::/10
bool isLinkLocal(const kt_ip_address_t& address) {
    return address.bytes[0] == 0xfe && (address.bytes[1] & 0xc0) == 0x80;
}

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

// Where the option area first breaks its bounds.
struct MalformedOption {
    int32_t offset;  // from the start of the message
    int32_t type;
    int32_t length;  // the length octet (units of 8 bytes)
};

// Walks the option area once before anything in it is read. Every option must have a non-zero
// length octet and fit into the bytes received. A trailing fragment of one byte is reported at
// its offset with its single octet as type and 0 as length, the length octet being absent.
bool findMalformedOption(const uint8_t* buffer, int32_t length, MalformedOption& malformed) {
    for (int32_t offset = kRaHeaderSize; offset < length;) {
        const int32_t remaining = length - offset;
        const uint8_t* option = buffer + offset;
        if (remaining < kOptionHeaderSize) {
            malformed = {offset, option[kOptionTypeOffset], 0};
            return true;
        }
        const uint8_t units = option[kOptionUnitsOffset];
        const int32_t size = static_cast<int32_t>(units * kOptionUnitSize);
        if (units == 0 || size > remaining) {
            malformed = {offset, option[kOptionTypeOffset], units};
            return true;
        }
        offset += size;
    }
    return false;
}

void printHeader(std::ostream& os, const uint8_t* ra) {
    // Raw fields, as they sit in the datagram: operators compare them with a capture.
    const uint8_t flags = ra[kRaFlagsOffset];
    os << "ICMP6 header\n nd_ra_type: " << unsigned{ra[kIcmpTypeOffset]}
       << "\n nd_ra_code: " << unsigned{ra[kIcmpCodeOffset]}
       << "\n nd_ra_cksum: " << readRaw<uint16_t>(ra + kIcmpChecksumOffset) << "\nRA:"
       << "\n  nd_ra_router_lifetime: " << readRaw<uint16_t>(ra + kRaRouterLifetimeOffset)
       << "\n  nd_ra_reachable: " << readRaw<uint32_t>(ra + kRaReachableTimeOffset)
       << "\n  nd_ra_retransmit: " << readRaw<uint32_t>(ra + kRaRetransTimerOffset)
       << "\n  nd_ra_curhoplimit: " << unsigned{ra[kRaHopLimitOffset]}
       << "\n  nd_ra_flags_reserved: " << unsigned{flags} << " (0x" << std::hex << unsigned{flags} << std::dec
       << ")"
       << "\n  - MANAGED: " << yesNo(flags & kRaFlagManaged) << "\n  - OTHER: " << yesNo(flags & kRaFlagOther)
       << "\n  - HOME_AGENT: " << yesNo(flags & kRaFlagHomeAgent) << "\n";
}

void printOption(std::ostream& os, const uint8_t* option, uint8_t type, uint8_t units, size_t size) {
    os << "  option type " << optionName(type) << " " << unsigned{type} << " (0x" << std::hex
       << unsigned{type} << std::dec << ")"
       << "\n  option length in header: " << unsigned{units} << " (0x" << std::hex << unsigned{units}
       << std::dec << ")"
       << "\n  actual length in bytes: " << size << "\n  option:\n";
    SolTypesOsHexdump(os, option, size);
}

SolRouter::Config routerRecord(const kt_ip_address_t& source, const uint8_t* ra) {
    SolRouter::Config router;
    router.address = source;
    router.routerLifetime = readNet16(ra + kRaRouterLifetimeOffset);
    router.reachableTime = readNet32(ra + kRaReachableTimeOffset);
    router.retransTimer = readNet32(ra + kRaRetransTimerOffset);
    const uint8_t flags = ra[kRaFlagsOffset];
    if (flags & kRaFlagManaged) {
        router.flags |= FLAG_MANAGED;
    }
    if (flags & kRaFlagOther) {
        router.flags |= FLAG_OTHER;
    }
    return router;
}

// The checks run in this order and the first that fails names the reason (`why`).
bool acceptPrefixInformation(const uint8_t* option, uint8_t units, SolNetwork::Config& network,
                             PrefixIgnore& why) {
    if (units != kPrefixInformationUnits) {
        why = PrefixIgnore::OptionLength;
        SOL_TRACE(INFO, kCategory, kRaParserFn,
                  "[%s] Prefix information option  ignored due to wrong prefix information option length %d",
                  getTraceTag(), units);
        return false;
    }
    const kt_ip_address_t prefix = ipv6Address(option + kPioPrefixOffset);
    if (isLinkLocal(prefix)) {
        why = PrefixIgnore::LinkLocal;
        SOL_TRACE(INFO, kCategory, kRaParserFn,
                  "[%s] Prefix information option %s ignored due to link local prefix", getTraceTag(),
                  toStr(prefix).c_str());
        return false;
    }
    const uint32_t validLifetime = readNet32(option + kPioValidLifetimeOffset);
    const uint32_t preferredLifetime = readNet32(option + kPioPreferredLifetimeOffset);
    if (preferredLifetime > validLifetime) {
        why = PrefixIgnore::PreferredOverValid;
        // "%d" as the operators' tools expect: an infinite lifetime reads -1.
        SOL_TRACE(
            INFO, kCategory, kRaParserFn,
            "[%s] Prefix information option %s ignored due to preferred time %d exceeds valid lifetime %d",
            getTraceTag(), toStr(prefix).c_str(), static_cast<int32_t>(preferredLifetime),
            static_cast<int32_t>(validLifetime));
        return false;
    }
    const uint8_t prefixLength = option[kPioPrefixLengthOffset];
    if (prefixLength != kAcceptedPrefixLength) {
        why = PrefixIgnore::PrefixLength;
        SOL_TRACE(INFO, kCategory, kRaParserFn,
                  "[%s] Prefix information option %s ignored due to illegal prefix length %d", getTraceTag(),
                  toStr(prefix).c_str(), prefixLength);
        return false;
    }
    const uint8_t flags = option[kPioFlagsOffset];
    if ((flags & (kPioFlagOnLink | kPioFlagAutonomous)) == 0) {
        why = PrefixIgnore::NoFlags;
        SOL_TRACE(INFO, kCategory, kRaParserFn,
                  "[%s] Prefix information option %s ignored due to A and L flag not set", getTraceTag(),
                  toStr(prefix).c_str());
        return false;
    }
    network.prefix = prefix;
    network.prefixLength = kAcceptedPrefixLength;
    network.validLifetime = validLifetime;
    network.preferredLifetime = preferredLifetime;
    network.flags =
        ((flags & kPioFlagOnLink) ? FLAG_ON_LINK : 0) | ((flags & kPioFlagAutonomous) ? FLAG_AUTONOMOUS : 0);
    return true;
}

// A trailing half address slot is ignored; `ordinal` numbers the addresses of the whole RA.
void appendRdnssAddresses(const uint8_t* option, uint8_t units, uint32_t& ordinal,
                          std::vector<SolDnsServer::Config>& dnsServers) {
    if (units < kRdnssMinUnits) {
        return;
    }
    const size_t count = (units - 1u) / kRdnssUnitsPerAddress;
    const uint32_t lifetime = readNet32(option + kRdnssLifetimeOffset);
    // One allocation for the usual single option; later ones grow the list as push_back does.
    if (dnsServers.empty()) {
        dnsServers.reserve(count);
    }
    for (size_t i = 0; i < count; ++i) {
        SolDnsServer::Config server;
        server.index = ordinal++;
        server.address = ipv6Address(option + kRdnssAddressesOffset + kIpv6AddressSize * i);
        server.lifetime = lifetime;
        dnsServers.push_back(server);
    }
}

// What the verbose output printed reaches the terminal even if the process ends right after.
class FlushOnExit {
public:
    explicit FlushOnExit(bool enabled) : m_enabled(enabled) {}
    ~FlushOnExit() {
        if (m_enabled) {
            std::cout.flush();
        }
    }
    FlushOnExit(const FlushOnExit&) = delete;
    FlushOnExit& operator=(const FlushOnExit&) = delete;

private:
    bool m_enabled;
};

struct FreeDeleter {
    void operator()(uint8_t* p) const { std::free(p); }
};
using ScratchBuffer = std::unique_ptr<uint8_t, FreeDeleter>;

// RFC 1071: the sum is taken over words in memory order and the result stored the same way,
// which gives the checksum in network order on any host.
uint16_t internetChecksum(const uint8_t* data, size_t length) {
    uint32_t sum = 0;
    for (size_t i = 0; i + 1 < length; i += 2) {
        sum += readRaw<uint16_t>(data + i);
    }
    while (sum >> 16) {
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return static_cast<uint16_t>(~sum);
}

}  // namespace

const char* toCstr(RaDrop drop) {
    switch (drop) {
        case RaDrop::None:
            return "";
        case RaDrop::InvalidBuffer:
            return "invalid_buffer";
        case RaDrop::ShortLength:
            return "short_length";
        case RaDrop::NotRa:
            return "not_ra";
        case RaDrop::NotLinkLocal:
            return "not_link_local";
        case RaDrop::MalformedOption:
            return "malformed_option";
        case RaDrop::NoOptions:
            return "no_options";
    }
    return "";
}

const char* toCstr(PrefixIgnore reason) {
    switch (reason) {
        case PrefixIgnore::OptionLength:
            return "option_length";
        case PrefixIgnore::LinkLocal:
            return "link_local_prefix";
        case PrefixIgnore::PreferredOverValid:
            return "preferred_over_valid";
        case PrefixIgnore::PrefixLength:
            return "prefix_length";
        case PrefixIgnore::NoFlags:
            return "no_flags";
    }
    return "";
}

int PacketParser::raParser(std::vector<SolRouter::Config>& routers, std::vector<SolNetwork::Config>& networks,
                           std::vector<SolDnsServer::Config>& dnsServers, const kt_ip_address_t& source,
                           const uint8_t* buffer, int32_t length) {
    sol_packet_counters_t& counters = m_counters.m_counters;
    m_outcome = ParseOutcome{};
    if (buffer == nullptr || length < 1) {
        m_outcome.drop = RaDrop::InvalidBuffer;
        ++counters.raDropped;
        SOL_TRACE(ERROR, kCategory, kRaParserFn,
                  "[%s] Invalid buffer passed to packet parser. isNull: %s. len: %d", getTraceTag(),
                  buffer == nullptr ? "true" : "false", length);
        return 1;
    }
    if (length < kRaHeaderSize) {
        m_outcome.drop = RaDrop::ShortLength;
        ++counters.raDropped;
        SOL_TRACE(INFO, kCategory, kRaParserFn, "[%s] RA message ignored due to short length %d",
                  getTraceTag(), length);
        return 0;
    }
    const FlushOnExit flush(m_verbose);
    if (m_verbose) {
        std::cout << "Recevied packet: \n";
        SolTypesOsHexdump(std::cout, buffer, static_cast<size_t>(length));
    }
    // Deliberately lenient: only a message that is neither type 134 nor code 0 is refused.
    const uint8_t type = buffer[kIcmpTypeOffset];
    const uint8_t code = buffer[kIcmpCodeOffset];
    if (type != kTypeRouterAdvertisement && code != kCodeZero) {
        SOL_TRACE(ERROR, kCategory, kRaParserFn,
                  "[%s] Not a Router Advertisement. Type: %d, code: %d. Why did we get it?", getTraceTag(),
                  type, code);
        m_outcome.drop = RaDrop::NotRa;
        ++counters.raDropped;
        return 1;
    }
    if (!isLinkLocal(source)) {
        SOL_TRACE(INFO, kCategory, kRaParserFn, "[%s] RA message ignored due to non link local address %s",
                  getTraceTag(), kt_ip_address_ntop(source).c_str());
        m_outcome.drop = RaDrop::NotLinkLocal;
        ++counters.raDropped;
        return 0;
    }
    if (m_verbose) {
        printHeader(std::cout, buffer);
    }
    // Bounds first: a malformed option area discards the whole RA, the router included, so that
    // no read below can leave the bytes received.
    MalformedOption malformed{};
    if (findMalformedOption(buffer, length, malformed)) {
        m_outcome.drop = RaDrop::MalformedOption;
        ++counters.raDropped;
        SOL_TRACE(INFO, kCategory, kRaParserFn,
                  "[%s] RA message ignored due to malformed option at offset %d, type %d, length %d",
                  getTraceTag(), malformed.offset, malformed.type, malformed.length);
        return 0;
    }
    routers.push_back(routerRecord(source, buffer));

    if (length - kRaHeaderSize < 1) {
        // The router stays: an RA without options still announces it.
        SOL_TRACE(INFO, kCategory, kRaParserFn, "[%s] Missing data after RA header.", getTraceTag());
        m_outcome.drop = RaDrop::NoOptions;
        ++counters.raDropped;
        return 0;
    }
    if (m_verbose) {
        std::cout << "RA options:\n";
    }
    uint32_t dnsOrdinal = 0;
    for (int32_t offset = kRaHeaderSize; offset < length;) {
        const uint8_t* option = buffer + offset;
        const uint8_t optionType = option[kOptionTypeOffset];
        const uint8_t units = option[kOptionUnitsOffset];
        const size_t size = units * kOptionUnitSize;
        if (m_verbose) {
            printOption(std::cout, option, optionType, units, size);
        }
        if (optionType == kOptPrefixInformation) {
            SolNetwork::Config network;
            PrefixIgnore why{};
            if (acceptPrefixInformation(option, units, network, why)) {
                networks.push_back(network);
                ++counters.prefixAccepted;
                if (m_verbose) {
                    std::cout << " Recevied prefix information with data: " << network << "\n";
                }
            } else {
                ++counters.prefixIgnored;
                ++m_outcome.prefixesIgnored[static_cast<size_t>(why)];
            }
        } else if (optionType == kOptRdnss) {
            appendRdnssAddresses(option, units, dnsOrdinal, dnsServers);
        }
        offset += static_cast<int32_t>(size);
    }
    if (m_verbose) {
        std::cout << "\n";
    }
    ++counters.raParsed;
    return 0;
}

uint8_t* PacketParser::allocArray(int32_t length) {
    if (length < 1) {
        SOL_TRACE(ERROR, kCategory, "allocArray",
                  "[%s] Cannot allocate memory because len = %i in allocArray().", getTraceTag(), length);
        return nullptr;
    }
    auto* array = static_cast<uint8_t*>(g_allocator(static_cast<size_t>(length), 1));
    if (array == nullptr) {
        SOL_TRACE(ERROR, kCategory, "allocArray", "[%s] Cannot allocate memory for array in allocArray().",
                  getTraceTag());
    }
    return array;
}

void PacketParser::setAllocator(ZeroAllocator allocator) {
    g_allocator = allocator != nullptr ? allocator : &callocAllocator;
}

uint32_t PacketParser::insertRsMsg(const SocketMgr::IfConfig& config, SocketMgr::Message& message) {
    // The length is set whatever follows: the sender always sends 16 bytes.
    message.m_length = kRsSize;
    if (message.m_data.size() < kRsSize) {
        return 1;
    }
    const ScratchBuffer options(allocArray(kScratchBufferSize));
    if (!options) {
        SOL_TRACE(ERROR, kCategory, "insertRsMsg",
                  "[%s] Could not allocate memory for options buffer in allocArray.", getTraceTag());
        return 1;
    }
    const ScratchBuffer checksumInput(allocArray(kScratchBufferSize));
    if (!checksumInput) {
        SOL_TRACE(ERROR, kCategory, "insertRsMsg",
                  "[%s] Could not allocate memory for psdhdr buffer in allocArray.", getTraceTag());
        return 1;
    }

    uint8_t* option = options.get();
    option[kOptionTypeOffset] = kOptSourceLinkAddr;
    option[kOptionUnitsOffset] = kRsOptionSize / kOptionUnitSize;
    std::memcpy(option + kOptionHeaderSize, config.hwaddr.sa_data, kHwAddrSize);

    uint8_t* pseudo = checksumInput.get();
    std::memcpy(pseudo + kPseudoSourceOffset, config.lladdr.sin6_addr.s6_addr, kIpv6AddressSize);
    std::memcpy(pseudo + kPseudoDestinationOffset, config.rsaddr.sin6_addr.s6_addr, kIpv6AddressSize);
    const uint32_t upperLayerLength = htonl(kRsSize);
    std::memcpy(pseudo + kPseudoLengthOffset, &upperLayerLength, sizeof upperLayerLength);
    pseudo[kPseudoNextHeaderOffset] = kNextHeaderIcmpv6;
    uint8_t* rs = pseudo + kPseudoHeaderSize;
    rs[kIcmpTypeOffset] = kTypeRouterSolicitation;
    rs[kIcmpCodeOffset] = kCodeZero;
    std::memcpy(rs + kRsHeaderSize, option, kRsOptionSize);

    const uint16_t checksum = internetChecksum(pseudo, kChecksumInputSize);
    std::memcpy(rs + kIcmpChecksumOffset, &checksum, sizeof checksum);
    std::memcpy(message.m_data.data(), rs, kRsSize);
    return 0;
}

}  // namespace solicd
