// The messages between solicd and its clients: numbers, byte layouts (native endian, every
// message begins with its 32-bit number), their text forms, and size-checked decoding for clients.
// solicd and solicctl both build against these; nobody re-declares a layout.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "SolTypes.h"

// ---- Message numbers ----

inline constexpr uint32_t SOLIF_ROUTER_UPDATED_IND = 0x1a11630;
inline constexpr uint32_t SOLIF_NETWORK_UPDATED_IND = 0x1a11631;
inline constexpr uint32_t SOLIF_DNS_SERVER_UPDATED_IND = 0x1a11632;
inline constexpr uint32_t SOLIF_GET_ROUTERS_REQ = 0x1a11633;
inline constexpr uint32_t SOLIF_GET_ROUTERS_CFM = 0x1a11634;
inline constexpr uint32_t SOLIF_SHOW_RAINFO_REQ = 0x1a11635;
inline constexpr uint32_t SOLIF_SHOW_RAINFO_CFM = 0x1a11636;
// Beside the numbers above, which stay as they are: the health of the link's routers.
inline constexpr uint32_t SOLIF_HEALTH_REQ = 0x1a11637;
inline constexpr uint32_t SOLIF_HEALTH_CFM = 0x1a11638;

// The name of a solif message number ("solif_router_updated_ind_t"), "UNKNOWN" for any other.
const char* solifMsgNoToCstr(uint32_t msgNo);

// ---- What a client may count on ----

// solicd's own mailbox when it is given no --source (or an empty one): "solcid." (spelled so),
// the namespace (empty for the one solicd was started in), "-", the interface.
inline std::string solifDefaultMailbox(const std::string& ns, const std::string& interface) {
    return "solcid." + ns + "-" + interface;
}

// The first solicitation cycle. solicd arms its first Router Solicitation once its socket is set
// up, before its mailbox exists, 0 to kSolifFirstRsDelayMaxMs ahead; it sends at most
// kSolifRsMaxCount, kSolifRsIntervalMs apart, and the cycle ends kSolifRsIntervalMs after the last
// (or after the first an RA answered). Every router that answers solicitations has therefore been
// heard within kSolifFirstCycleMaxMs of solicd's mailbox appearing.
inline constexpr uint32_t kSolifFirstRsDelayMaxMs = 1000;
inline constexpr uint32_t kSolifRsMaxCount = 3;
inline constexpr uint32_t kSolifRsIntervalMs = 4000;
inline constexpr uint32_t kSolifFirstCycleMaxMs =
    kSolifFirstRsDelayMaxMs + kSolifRsMaxCount * kSolifRsIntervalMs;

// ---- Layouts ----

// One router changed.
struct solif_router_updated_ind_t {
    uint32_t msgNo;  // SOLIF_ROUTER_UPDATED_IND
    uint32_t unused;
    sol_router_config_t config;
    uint32_t pad;
    sol_status_t status;
};

// One network changed.
struct solif_network_updated_ind_t {
    uint32_t msgNo;  // SOLIF_NETWORK_UPDATED_IND
    uint32_t unused;
    sol_network_config_t config;
    uint32_t pad;
    sol_network_status_t status;
};

struct solif_dns_server_entry_t {
    sol_dns_server_config_t config;
    uint32_t pad;
    sol_status_t status;
};

// The full current list of DNS servers. Declared with one entry and allocated with `count` more,
// so one entry's worth of space at the end stays unused; readers take `count` entries.
struct solif_dns_server_updated_ind_t {
    uint32_t msgNo;  // SOLIF_DNS_SERVER_UPDATED_IND
    uint32_t count;
    solif_dns_server_entry_t entries[1];
};

struct solif_router_entry_t {
    sol_router_config_t config;
    uint32_t pad;
    sol_status_t status;
};

// Every router, answering a routers request. Never smaller than the declared structure.
struct solif_get_routers_cfm_t {
    uint32_t msgNo;  // SOLIF_GET_ROUTERS_CFM
    uint32_t count;
    solif_router_entry_t entries[1];
};

// The text dump answering a show-cache request. `size` counts the text bytes with their NUL
// (none when the text was truncated); one more NUL always follows them.
struct solif_show_rainfo_cfm_t {
    uint32_t msgNo;  // SOLIF_SHOW_RAINFO_CFM
    uint32_t size;
    char text[1];
};

// The two requests carry nothing but their number.
struct solif_get_routers_req_t {
    uint32_t msgNo;  // SOLIF_GET_ROUTERS_REQ
};

struct solif_show_rainfo_req_t {
    uint32_t msgNo;  // SOLIF_SHOW_RAINFO_REQ
};

// The health answer: laid out as the text dump, its text a JSON document (UTF-8, with a
// "version" key).
struct solif_health_cfm_t {
    uint32_t msgNo;  // SOLIF_HEALTH_CFM
    uint32_t size;
    char text[1];
};

struct solif_health_req_t {
    uint32_t msgNo;  // SOLIF_HEALTH_REQ
};

static_assert(sizeof(solif_router_updated_ind_t) == 144);
static_assert(offsetof(solif_router_updated_ind_t, unused) == 4);
static_assert(offsetof(solif_router_updated_ind_t, config) == 8);
static_assert(offsetof(solif_router_updated_ind_t, pad) == 44);
static_assert(offsetof(solif_router_updated_ind_t, status) == 48);
static_assert(sizeof(solif_network_updated_ind_t) == 168);
static_assert(offsetof(solif_network_updated_ind_t, config) == 8);
static_assert(offsetof(solif_network_updated_ind_t, pad) == 44);
static_assert(offsetof(solif_network_updated_ind_t, status) == 48);
static_assert(sizeof(solif_dns_server_entry_t) == 128);
static_assert(offsetof(solif_dns_server_entry_t, pad) == 28);
static_assert(offsetof(solif_dns_server_entry_t, status) == 32);
static_assert(sizeof(solif_dns_server_updated_ind_t) == 136);
static_assert(offsetof(solif_dns_server_updated_ind_t, count) == 4);
static_assert(offsetof(solif_dns_server_updated_ind_t, entries) == 8);
static_assert(sizeof(solif_router_entry_t) == 136);
static_assert(offsetof(solif_router_entry_t, pad) == 36);
static_assert(offsetof(solif_router_entry_t, status) == 40);
static_assert(sizeof(solif_get_routers_cfm_t) == 144);
static_assert(offsetof(solif_get_routers_cfm_t, count) == 4);
static_assert(offsetof(solif_get_routers_cfm_t, entries) == 8);
static_assert(sizeof(solif_show_rainfo_cfm_t) == 12);
static_assert(offsetof(solif_show_rainfo_cfm_t, size) == 4);
static_assert(offsetof(solif_show_rainfo_cfm_t, text) == 8);
static_assert(sizeof(solif_get_routers_req_t) == 4);
static_assert(sizeof(solif_show_rainfo_req_t) == 4);
static_assert(sizeof(solif_health_cfm_t) == sizeof(solif_show_rainfo_cfm_t));
static_assert(offsetof(solif_health_cfm_t, size) == offsetof(solif_show_rainfo_cfm_t, size));
static_assert(offsetof(solif_health_cfm_t, text) == offsetof(solif_show_rainfo_cfm_t, text));
static_assert(sizeof(solif_health_req_t) == 4);

// ---- Sizes and entry access ----

// Allocated size of a DNS server list: the declared structure grown by `count` entries.
constexpr size_t solifDnsServerUpdatedIndSize(uint32_t count) {
    return sizeof(solif_dns_server_updated_ind_t) + size_t{count} * sizeof(solif_dns_server_entry_t);
}

// Size of a routers answer: `count` entries, but never less than the declared structure.
constexpr size_t solifGetRoutersCfmSize(uint32_t count) {
    return std::max(sizeof(solif_get_routers_cfm_t), offsetof(solif_get_routers_cfm_t, entries) +
                                                         size_t{count} * sizeof(solif_router_entry_t));
}

// Size of a text answer whose `size` field is `textSize`: header, text, and the extra NUL.
inline constexpr size_t kSolifShowRainfoOverhead = sizeof(solif_show_rainfo_cfm_t);
constexpr size_t solifShowRainfoCfmSize(uint32_t textSize) {
    return kSolifShowRainfoOverhead + textSize;
}

// Entry `index` of a list message, addressed by bytes: the entries run past the declared array.
template <class Msg>
auto* solifEntry(Msg& msg, size_t index) {
    using Entry = std::remove_reference_t<decltype(msg.entries[0])>;
    using Byte = std::conditional_t<std::is_const_v<Msg>, const unsigned char, unsigned char>;
    return reinterpret_cast<Entry*>(reinterpret_cast<Byte*>(&msg) + offsetof(Msg, entries) +
                                    index * sizeof(Entry));
}

// ---- Text forms (for traces): "{msg_no_txt: NAME , msg_no: NUMBER, ...}" ----
// The list and text forms trust `count` and `size`: check a received message with solifFits first.

std::ostream& operator<<(std::ostream& os, const solif_router_updated_ind_t& msg);
std::ostream& operator<<(std::ostream& os, const solif_network_updated_ind_t& msg);
std::ostream& operator<<(std::ostream& os, const solif_dns_server_updated_ind_t& msg);
std::ostream& operator<<(std::ostream& os, const solif_get_routers_cfm_t& msg);
std::ostream& operator<<(std::ostream& os, const solif_show_rainfo_cfm_t& msg);
std::ostream& operator<<(std::ostream& os, const solif_health_cfm_t& msg);

namespace solicd {

// ---- Checked decoding (for clients; a received message is never read past its end) ----

// True when `size` bytes hold a solif message with everything its own fields announce (its count
// of entries, its text size). Otherwise false, and `why` (if given) says what is wrong.
bool solifFits(const void* msg, size_t size, std::string* why = nullptr);

// Prints the message by its structure's text form when `size` bytes really hold one of the five
// layouts (the buffer aligned as lmx_alloc aligns it); false, with nothing printed, otherwise.
bool solifPrint(std::ostream& os, const void* msg, size_t size);

// A received solif message, copied out of its buffer.
struct SolifMessage {
    uint32_t msgNo = 0;
    std::vector<SolRouter> routers;        // one for a router indication, `count` for a routers answer
    std::vector<SolNetwork> networks;      // one for a network indication
    std::vector<SolDnsServer> dnsServers;  // `count` for a DNS server list
    std::string text;                      // a text answer, up to its first NUL within its size
    bool textCut = false;                  // the text answer was cut by its sender: no NUL within its size
};

// Decodes the `size` bytes at `msg`. 0 on success; 1 when the message is short, inconsistent or of
// no solif number, with `error` saying which in one line.
uint32_t solifDecode(const void* msg, size_t size, SolifMessage& out, std::string& error);

}  // namespace solicd
