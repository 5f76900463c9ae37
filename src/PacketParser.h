// Turns one received ICMPv6 message into router, network and DNS server records, and builds the
// Router Solicitation. No system calls: bytes in, records out.
#pragma once

#include <cstdint>
#include <vector>

#include "SocketMgr.h"
#include "SolTypes.h"

namespace solicd {

// Why the parser dropped an RA (none: it was taken), and why it ignored a prefix option.
enum class RaDrop : uint8_t {
    None,
    InvalidBuffer,
    ShortLength,
    NotRa,
    NotLinkLocal,
    MalformedOption,
    NoOptions
};
enum class PrefixIgnore : uint8_t { OptionLength, LinkLocal, PreferredOverValid, PrefixLength, NoFlags };
inline constexpr size_t kRaDropCount = 7;
inline constexpr size_t kPrefixIgnoreCount = 5;
// Names for people and metrics: "malformed_option", "preferred_over_valid"; "" for None.
const char* toCstr(RaDrop drop);
const char* toCstr(PrefixIgnore reason);

// What one call of raParser made of its packet.
struct ParseOutcome {
    RaDrop drop = RaDrop::None;
    uint32_t prefixesIgnored[kPrefixIgnoreCount] = {};
};

class PacketParser {
public:
    PacketParser() = default;
    virtual ~PacketParser() = default;

    // Appends at most one router, the accepted prefixes and every RDNSS address. Returns 1 when
    // the buffer is invalid or the message is not taken for an RA, 0 otherwise.
    int raParser(std::vector<SolRouter::Config>& routers, std::vector<SolNetwork::Config>& networks,
                 std::vector<SolDnsServer::Config>& dnsServers, const kt_ip_address_t& source,
                 const uint8_t* buffer, int32_t length);

    // A zero-filled buffer of `length` bytes, released with free(); null on failure.
    static uint8_t* allocArray(int32_t length);
    // Writes the 16-byte Router Solicitation into the message; 0 on success.
    static uint32_t insertRsMsg(const SocketMgr::IfConfig& config, SocketMgr::Message& message);

    // Test seam: the zero-filling allocator behind allocArray (calloc's contract); null restores
    // calloc. Lets tests reach the allocation-failure paths.
    using ZeroAllocator = void* (*)(size_t count, size_t size);
    static void setAllocator(ZeroAllocator allocator);

    void setVerbose(bool enabled) { m_verbose = enabled; }
    const SolCounter<sol_packet_counters_t>& getCounters() const { return m_counters; }
    // The outcome of the last raParser call.
    const ParseOutcome& lastOutcome() const { return m_outcome; }

private:
    SolCounter<sol_packet_counters_t> m_counters;
    ParseOutcome m_outcome;
    bool m_verbose = false;
};

}  // namespace solicd
