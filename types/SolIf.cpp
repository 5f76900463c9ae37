#include "SolIf.h"

#include <cstring>
#include <sstream>
#include <utility>

namespace {

using solicd::SolDnsServer;
using solicd::SolNetwork;
using solicd::SolRouter;

// The record a layout's config data belongs to.
template <class ConfigData>
struct RecordOf;
template <>
struct RecordOf<sol_router_config_t> {
    using type = SolRouter;
};
template <>
struct RecordOf<sol_network_config_t> {
    using type = SolNetwork;
};
template <>
struct RecordOf<sol_dns_server_config_t> {
    using type = SolDnsServer;
};

// The record whose config and status data a layout (an indication or a list entry) holds at
// `base`; copied bytewise because a received buffer promises no alignment.
template <class Layout>
auto recordAt(const void* base) {
    using ConfigData = decltype(Layout::config);
    using StatusData = decltype(Layout::status);
    const auto* bytes = static_cast<const unsigned char*>(base);
    ConfigData c;
    StatusData s;
    std::memcpy(&c, bytes + offsetof(Layout, config), sizeof c);
    std::memcpy(&s, bytes + offsetof(Layout, status), sizeof s);
    typename RecordOf<ConfigData>::type r;
    static_cast<ConfigData&>(r.m_config) = c;
    static_cast<StatusData&>(r.m_status) = s;
    return r;
}

template <class Layout>
auto recordOf(const Layout& layout) {
    return recordAt<Layout>(&layout);
}

std::ostream& head(std::ostream& os, uint32_t msgNo) {
    return os << "{msg_no_txt: " << solifMsgNoToCstr(msgNo) << " , msg_no: " << msgNo;
}

template <class Msg>
std::ostream& listText(std::ostream& os, const Msg& msg, const char* listName) {
    head(os, msg.msgNo) << ", count: " << msg.count << ", " << listName << ": [";
    for (uint32_t i = 0; i < msg.count; ++i) {
        os << (i == 0 ? "" : ", ") << recordOf(*solifEntry(msg, i));
    }
    return os << "]}";
}

// The text bytes of an answer: up to the first NUL within `size` (a truncated text has none).
std::string answerText(const char* text, uint32_t size) {
    return std::string(text, ::strnlen(text, size));
}

uint32_t readU32(const unsigned char* bytes, size_t offset) {
    uint32_t value;
    std::memcpy(&value, bytes + offset, sizeof value);
    return value;
}

// Every entry of a list message whose size was checked.
template <class Msg, class Record>
void decodeEntries(const unsigned char* bytes, std::vector<Record>& out) {
    using Entry = std::remove_reference_t<decltype(std::declval<Msg&>().entries[0])>;
    const uint32_t count = readU32(bytes, offsetof(Msg, count));
    out.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        out.push_back(recordAt<Entry>(bytes + offsetof(Msg, entries) + size_t{i} * sizeof(Entry)));
    }
}

// What `msg` must hold: its fixed part first, then whatever its count or text size announces.
// 0 when it is no solif message.
size_t requiredSize(const unsigned char* bytes, size_t size, uint32_t msgNo, std::string& what) {
    size_t header = 0;
    size_t entrySize = 0;
    switch (msgNo) {
        case SOLIF_ROUTER_UPDATED_IND:
            return sizeof(solif_router_updated_ind_t);
        case SOLIF_NETWORK_UPDATED_IND:
            return sizeof(solif_network_updated_ind_t);
        case SOLIF_GET_ROUTERS_REQ:
            return sizeof(solif_get_routers_req_t);
        case SOLIF_SHOW_RAINFO_REQ:
            return sizeof(solif_show_rainfo_req_t);
        case SOLIF_HEALTH_REQ:
            return sizeof(solif_health_req_t);
        case SOLIF_DNS_SERVER_UPDATED_IND:
            header = offsetof(solif_dns_server_updated_ind_t, entries);
            entrySize = sizeof(solif_dns_server_entry_t);
            break;
        case SOLIF_GET_ROUTERS_CFM:
            header = offsetof(solif_get_routers_cfm_t, entries);
            entrySize = sizeof(solif_router_entry_t);
            break;
        case SOLIF_SHOW_RAINFO_CFM:
        case SOLIF_HEALTH_CFM:
            header = offsetof(solif_show_rainfo_cfm_t, text);
            entrySize = 1;
            break;
        default:
            return 0;
    }
    if (size < header) {
        return header;
    }
    // The count (or text size) sits right behind the number in every variable message.
    const uint32_t count = readU32(bytes, sizeof(uint32_t));
    what = entrySize == 1 ? " its text of " + std::to_string(count) + " bytes"
                          : " its " + std::to_string(count) + " entries";
    return header + size_t{count} * entrySize;
}

}  // namespace

const char* solifMsgNoToCstr(uint32_t msgNo) {
    switch (msgNo) {
        case SOLIF_ROUTER_UPDATED_IND:
            return "solif_router_updated_ind_t";
        case SOLIF_NETWORK_UPDATED_IND:
            return "solif_network_updated_ind_t";
        case SOLIF_DNS_SERVER_UPDATED_IND:
            return "solif_dns_server_updated_ind_t";
        case SOLIF_GET_ROUTERS_REQ:
            return "solif_get_routers_req_t";
        case SOLIF_GET_ROUTERS_CFM:
            return "solif_get_routers_cfm_t";
        case SOLIF_SHOW_RAINFO_REQ:
            return "solif_show_rainfo_req_t";
        case SOLIF_SHOW_RAINFO_CFM:
            return "solif_show_rainfo_cfm_t";
        case SOLIF_HEALTH_REQ:
            return "solif_health_req_t";
        case SOLIF_HEALTH_CFM:
            return "solif_health_cfm_t";
        default:
            return "UNKNOWN";
    }
}

std::ostream& operator<<(std::ostream& os, const solif_router_updated_ind_t& msg) {
    return head(os, msg.msgNo) << ", router: " << recordOf(msg) << "}";
}

std::ostream& operator<<(std::ostream& os, const solif_network_updated_ind_t& msg) {
    return head(os, msg.msgNo) << ", network: " << recordOf(msg) << "}";
}

std::ostream& operator<<(std::ostream& os, const solif_dns_server_updated_ind_t& msg) {
    return listText(os, msg, "dnsServers");
}

std::ostream& operator<<(std::ostream& os, const solif_get_routers_cfm_t& msg) {
    return listText(os, msg, "routers");
}

namespace {

// The two text answers share their layout.
template <class Msg>
std::ostream& textAnswer(std::ostream& os, const Msg& msg) {
    return head(os, msg.msgNo) << ", size: " << msg.size << ", text: " << answerText(msg.text, msg.size)
                               << "}";
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const solif_show_rainfo_cfm_t& msg) {
    return textAnswer(os, msg);
}

std::ostream& operator<<(std::ostream& os, const solif_health_cfm_t& msg) {
    return textAnswer(os, msg);
}

namespace solicd {

bool solifFits(const void* msg, size_t size, std::string* why) {
    const auto* bytes = static_cast<const unsigned char*>(msg);
    if (size < sizeof(uint32_t)) {
        if (why != nullptr) {
            *why = "message of " + std::to_string(size) + " bytes has no room for its number";
        }
        return false;
    }
    const uint32_t msgNo = readU32(bytes, 0);
    std::string what;
    const size_t required = requiredSize(bytes, size, msgNo, what);
    if (required == 0) {
        if (why != nullptr) {
            std::ostringstream os;
            os << "message number 0x" << std::hex << msgNo << " is not a client message";
            *why = os.str();
        }
        return false;
    }
    if (size < required) {
        if (why != nullptr) {
            *why = std::string(solifMsgNoToCstr(msgNo)) + " of " + std::to_string(size) +
                   " bytes cannot hold" + (what.empty() ? " itself" : what) + " (needs " +
                   std::to_string(required) + " bytes)";
        }
        return false;
    }
    return true;
}

bool solifPrint(std::ostream& os, const void* msg, size_t size) {
    if (!solifFits(msg, size)) {
        return false;
    }
    switch (readU32(static_cast<const unsigned char*>(msg), 0)) {
        case SOLIF_ROUTER_UPDATED_IND:
            os << *static_cast<const solif_router_updated_ind_t*>(msg);
            return true;
        case SOLIF_NETWORK_UPDATED_IND:
            os << *static_cast<const solif_network_updated_ind_t*>(msg);
            return true;
        case SOLIF_DNS_SERVER_UPDATED_IND:
            os << *static_cast<const solif_dns_server_updated_ind_t*>(msg);
            return true;
        case SOLIF_GET_ROUTERS_CFM:
            os << *static_cast<const solif_get_routers_cfm_t*>(msg);
            return true;
        case SOLIF_SHOW_RAINFO_CFM:
            os << *static_cast<const solif_show_rainfo_cfm_t*>(msg);
            return true;
        case SOLIF_HEALTH_CFM:
            os << *static_cast<const solif_health_cfm_t*>(msg);
            return true;
        default:
            return false;  // the requests have no structure form
    }
}

uint32_t solifDecode(const void* msg, size_t size, SolifMessage& out, std::string& error) {
    out = SolifMessage{};
    if (!solifFits(msg, size, &error)) {
        return 1;
    }
    const auto* bytes = static_cast<const unsigned char*>(msg);
    out.msgNo = readU32(bytes, 0);
    switch (out.msgNo) {
        case SOLIF_ROUTER_UPDATED_IND:
            out.routers.push_back(recordAt<solif_router_updated_ind_t>(bytes));
            break;
        case SOLIF_NETWORK_UPDATED_IND:
            out.networks.push_back(recordAt<solif_network_updated_ind_t>(bytes));
            break;
        case SOLIF_DNS_SERVER_UPDATED_IND:
            decodeEntries<solif_dns_server_updated_ind_t>(bytes, out.dnsServers);
            break;
        case SOLIF_GET_ROUTERS_CFM:
            decodeEntries<solif_get_routers_cfm_t>(bytes, out.routers);
            break;
        case SOLIF_SHOW_RAINFO_CFM:
        case SOLIF_HEALTH_CFM: {
            const uint32_t textSize = readU32(bytes, offsetof(solif_show_rainfo_cfm_t, size));
            out.text = answerText(
                reinterpret_cast<const char*>(bytes + offsetof(solif_show_rainfo_cfm_t, text)), textSize);
            // The size counts the text's NUL; a text cut to fit the largest message has none.
            out.textCut = out.text.size() == textSize;
            break;
        }
        default:
            break;  // a request: nothing but its number
    }
    return 0;
}

}  // namespace solicd
