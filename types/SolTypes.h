// The records everything learnt from a Router Advertisement travels in, shared by solicd and its
// clients. The data parts (the sol_*_t structures) are what client messages carry byte for byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <sstream>
#include <string>

// ---- Plain data parts (native endian; fixed sizes, asserted below) ----

struct kt_ip_address_t {
    uint8_t family;     // 10 (AF_INET6) whenever solicd builds it
    uint8_t pad[3];     // zero when solicd builds the address
    uint8_t bytes[16];  // network order
};

struct sol_router_config_t {
    kt_ip_address_t address;
    uint32_t reachableTime;   // ms, as advertised
    uint32_t retransTimer;    // ms, as advertised
    uint16_t routerLifetime;  // s; 0: not a default router
    uint16_t pad;
    uint32_t flags;
};

struct sol_network_config_t {
    kt_ip_address_t prefix;  // as received: bits beyond the length are not cleared
    uint32_t prefixLength;
    uint32_t validLifetime;      // s
    uint32_t preferredLifetime;  // s
    uint32_t flags;
};

struct sol_dns_server_config_t {
    uint32_t index;  // ordinal among all RDNSS addresses of one RA
    kt_ip_address_t address;
    uint32_t lifetime;  // s
};

#define SOL_STATUS_FIELDS         \
    uint32_t id;                  \
    uint32_t state;               \
    int64_t createdTime;          \
    int64_t lastUpdateTime;       \
    int64_t lastStateChangeTime;  \
    int64_t lastConfigChangeTime; \
    int64_t timeoutStartTime;     \
    int64_t expiryTime;           \
    uint64_t updateCount;         \
    uint64_t configChangeCount;   \
    uint64_t stateChangeCount;    \
    uint64_t invalidatedCount;    \
    uint64_t expiredCount;

struct sol_status_t {
    SOL_STATUS_FIELDS
};

struct sol_network_status_t {
    SOL_STATUS_FIELDS
    uint64_t deprecatedCount;
    uint64_t lifetimeResetCount;
    uint64_t lifetimeIgnoredCount;
};

#undef SOL_STATUS_FIELDS

struct sol_socket_counters_t {
    uint64_t rxRa;        // RAs accepted by the socket
    uint64_t txRs;        // Router Solicitations sent
    uint64_t txRsFailed;  // Router Solicitations whose send failed
    uint64_t rxRejected;  // datagrams rejected: truncated or from another interface
};

struct sol_packet_counters_t {
    uint64_t raParsed;
    uint64_t raDropped;
    uint64_t prefixAccepted;
    uint64_t prefixIgnored;
};

static_assert(sizeof(kt_ip_address_t) == 20);
static_assert(offsetof(kt_ip_address_t, bytes) == 4);
static_assert(sizeof(sol_router_config_t) == 36);
static_assert(offsetof(sol_router_config_t, reachableTime) == 20);
static_assert(offsetof(sol_router_config_t, retransTimer) == 24);
static_assert(offsetof(sol_router_config_t, routerLifetime) == 28);
static_assert(offsetof(sol_router_config_t, flags) == 32);
static_assert(sizeof(sol_network_config_t) == 36);
static_assert(offsetof(sol_network_config_t, prefixLength) == 20);
static_assert(offsetof(sol_network_config_t, validLifetime) == 24);
static_assert(offsetof(sol_network_config_t, preferredLifetime) == 28);
static_assert(offsetof(sol_network_config_t, flags) == 32);
static_assert(sizeof(sol_dns_server_config_t) == 28);
static_assert(offsetof(sol_dns_server_config_t, address) == 4);
static_assert(offsetof(sol_dns_server_config_t, lifetime) == 24);
static_assert(sizeof(sol_status_t) == 96);
static_assert(offsetof(sol_status_t, createdTime) == 8);
static_assert(offsetof(sol_status_t, updateCount) == 56);
static_assert(offsetof(sol_status_t, expiredCount) == 88);
static_assert(sizeof(sol_network_status_t) == 120);
static_assert(offsetof(sol_network_status_t, deprecatedCount) == 96);
static_assert(sizeof(sol_socket_counters_t) == 32);
static_assert(sizeof(sol_packet_counters_t) == 32);

// ---- Address helpers ----

inline constexpr uint8_t KT_AF_INET6 = 10;

std::string kt_ip_address_ntop(const kt_ip_address_t& address);

// Exactly inet_ntop's text of an IPv6 address (the longest run of two or more zero groups, the
// first of equal ones, as "::"; the IPv4-compatible and IPv4-mapped forms in dotted decimal),
// written without the formatted output inet_ntop runs per group: names are built on every RA.
// `text` holds at least KT_IP6_TEXT_SIZE bytes; the result is NUL-terminated and its length
// returned.
inline constexpr size_t KT_IP6_TEXT_SIZE = 46;
size_t kt_ip6_address_text(const uint8_t* bytes, char* text);

// Room for any entry name and its NUL: the longest kind word ("network/"), an address with its
// NUL (KT_IP6_TEXT_SIZE), then "/" and a 32-bit length in decimal (SOL_DECIMAL_U32_SIZE).
inline constexpr size_t SOL_DECIMAL_U32_SIZE = 11;
inline constexpr size_t SOL_ENTRY_NAME_SIZE = 8 + KT_IP6_TEXT_SIZE + SOL_DECIMAL_U32_SIZE;
std::ostream& operator<<(std::ostream& os, const kt_ip_address_t& address);

// A conventional hex dump: per 16 bytes one line of the offset (8 hex digits), the bytes in hex
// (an extra blank after the eighth) and the printable ASCII column between bars, e.g.
// "00000000  86 00 12 34 40 c0 07 08  00 00 00 00 00 00 00 00  |...4@...........|".
// Every line ends with a line feed; nothing is printed for an empty or null buffer.
std::ostream& SolTypesOsHexdump(std::ostream& os, const void* data, size_t length);

template <class T>
std::string toStr(const T& value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

// ---- State enumerations (values are the contract; they travel in Status::state) ----

enum class sol_router_state_t : uint32_t {
    STATE_INITIAL = 0,
    STATE_NEW = 1,
    STATE_UPDATED = 2,
    STATE_EXPIRED = 3,
    STATE_INVALIDATED = 5,
};

enum class sol_network_state_t : uint32_t {
    STATE_INITIAL = 0,
    STATE_NEW = 1,
    STATE_UPDATED = 2,
    STATE_EXPIRED = 3,
    STATE_DEPRECATED = 4,
    STATE_INVALIDATED = 5,
};

enum class sol_dns_server_state_t : uint32_t {
    STATE_INITIAL = 0,
    STATE_NEW = 1,
    STATE_UPDATED = 2,
    STATE_EXPIRED = 3,
    STATE_INVALIDATED = 4,
};

// Names such as "STATE_NEW"; a value without a name gives "UNKNOWN".
const char* toCstr(sol_router_state_t state);
const char* toCstr(sol_network_state_t state);
const char* toCstr(sol_dns_server_state_t state);
std::ostream& operator<<(std::ostream& os, sol_router_state_t state);
std::ostream& operator<<(std::ostream& os, sol_network_state_t state);
std::ostream& operator<<(std::ostream& os, sol_dns_server_state_t state);

// ---- Records ----

namespace solicd {

// Flag bits shared by the router and network `flags` fields.
inline constexpr uint32_t FLAG_MANAGED = 0x2;
inline constexpr uint32_t FLAG_OTHER = 0x4;
inline constexpr uint32_t FLAG_ON_LINK = 0x10;
inline constexpr uint32_t FLAG_AUTONOMOUS = 0x20;

inline constexpr uint32_t kInfiniteLifetime = 0xffffffff;

// What the two parts of every record share: the plain block, zeroed when made, copied whole, and
// reachable as such for the wire.
template <class Raw>
class SolRecordPart : public Raw {
public:
    SolRecordPart() : Raw{} {}
    virtual ~SolRecordPart() = default;
    SolRecordPart(const SolRecordPart&) = default;
    SolRecordPart& operator=(const SolRecordPart&) = default;

    const Raw& data() const { return *this; }
};

// A record's status, its state read in the kind's own terms.
template <class Raw, class State>
class SolStatus : public SolRecordPart<Raw> {
public:
    static State uintToState(unsigned value) { return static_cast<State>(value); }
};

class SolRouter {
public:
    class Config : public SolRecordPart<sol_router_config_t> {
    public:
        // "router/fe80::1": one name per router address.
        std::string getName() const;
        // getName() into `text` (SOL_ENTRY_NAME_SIZE bytes, NUL-terminated) without allocating;
        // the length written.
        size_t writeName(char* text) const;
        bool isNotEqual(const Config& other) const;
    };

    using Status = SolStatus<sol_status_t, sol_router_state_t>;

    virtual ~SolRouter() = default;

    Config m_config;
    Status m_status;
};

class SolNetwork {
public:
    class Config : public SolRecordPart<sol_network_config_t> {
    public:
        // "network/2001:db8:1::/64": the prefix masked to its length.
        std::string getName() const;
        // getName() into `text` (SOL_ENTRY_NAME_SIZE bytes, NUL-terminated) without allocating;
        // the length written.
        size_t writeName(char* text) const;
        bool isNotEqual(const Config& other) const;
        bool isFlagOnLinkSet() const { return (flags & FLAG_ON_LINK) != 0; }
        bool isValidLifetimeInfinite() const { return validLifetime == kInfiniteLifetime; }
        bool isPreferredLifetimeInfinite() const { return preferredLifetime == kInfiniteLifetime; }
    };

    using Status = SolStatus<sol_network_status_t, sol_network_state_t>;

    virtual ~SolNetwork() = default;

    Config m_config;
    Status m_status;
};

class SolDnsServer {
public:
    class Config : public SolRecordPart<sol_dns_server_config_t> {
    public:
        // "dns/2001:db8::53": one name per server address.
        std::string getName() const;
        // getName() into `text` (SOL_ENTRY_NAME_SIZE bytes, NUL-terminated) without allocating;
        // the length written.
        size_t writeName(char* text) const;
        bool isNotEqual(const Config& other) const;
    };

    using Status = SolStatus<sol_status_t, sol_dns_server_state_t>;

    virtual ~SolDnsServer() = default;

    Config m_config;
    Status m_status;
};

std::ostream& operator<<(std::ostream& os, const SolRouter::Config& config);
std::ostream& operator<<(std::ostream& os, const SolRouter::Status& status);
std::ostream& operator<<(std::ostream& os, const SolRouter& router);
std::ostream& operator<<(std::ostream& os, const SolNetwork::Config& config);
std::ostream& operator<<(std::ostream& os, const SolNetwork::Status& status);
std::ostream& operator<<(std::ostream& os, const SolNetwork& network);
std::ostream& operator<<(std::ostream& os, const SolDnsServer::Config& config);
std::ostream& operator<<(std::ostream& os, const SolDnsServer::Status& status);
std::ostream& operator<<(std::ostream& os, const SolDnsServer& server);

// ---- Counter sets ----

template <class T>
class SolCounter {
public:
    SolCounter() : m_counters{} {}
    virtual ~SolCounter() {}

    T m_counters;
};

std::ostream& operator<<(std::ostream& os, const SolCounter<sol_socket_counters_t>& counters);
std::ostream& operator<<(std::ostream& os, const SolCounter<sol_packet_counters_t>& counters);

}  // namespace solicd
