#include "SolicctlOutput.h"

#include <nlohmann/json.hpp>

namespace solicd::ctl {
namespace {

template <class Status>
Json commonStatus(const Status& s, const char* state) {
    return Json{{"id", s.id},
                {"state", state},
                {"createdTime", s.createdTime},
                {"lastUpdateTime", s.lastUpdateTime},
                {"lastStateChangeTime", s.lastStateChangeTime},
                {"lastConfigChangeTime", s.lastConfigChangeTime},
                {"timeoutStartTime", s.timeoutStartTime},
                {"expiryTime", s.expiryTime},
                {"updateCount", s.updateCount},
                {"configChangeCount", s.configChangeCount},
                {"stateChangeCount", s.stateChangeCount},
                {"invalidatedCount", s.invalidatedCount},
                {"expiredCount", s.expiredCount}};
}

// Each record's fields, in record order, into the object `j` ("kind" may come first).
void addFields(Json& j, const SolRouter& r) {
    const auto& c = r.m_config;
    j["address"] = kt_ip_address_ntop(c.address);
    j["reachableTime"] = c.reachableTime;
    j["retransTimer"] = c.retransTimer;
    j["routerLifetime"] = c.routerLifetime;
    j["flags"] = c.flags;
    j["status"] = commonStatus(r.m_status, toCstr(SolRouter::Status::uintToState(r.m_status.state)));
}

void addFields(Json& j, const SolNetwork& n) {
    const auto& c = n.m_config;
    const auto& s = n.m_status;
    j["prefix"] = kt_ip_address_ntop(c.prefix);
    j["prefixLength"] = c.prefixLength;
    j["validLifetime"] = c.validLifetime;
    j["preferredLifetime"] = c.preferredLifetime;
    j["flags"] = c.flags;
    Json& status = j["status"] = commonStatus(s, toCstr(SolNetwork::Status::uintToState(s.state)));
    status["deprecatedCount"] = s.deprecatedCount;
    status["lifetimeResetCount"] = s.lifetimeResetCount;
    status["lifetimeIgnoredCount"] = s.lifetimeIgnoredCount;
}

void addFields(Json& j, const SolDnsServer& d) {
    const auto& c = d.m_config;
    j["index"] = c.index;
    j["address"] = kt_ip_address_ntop(c.address);
    j["lifetime"] = c.lifetime;
    j["status"] = commonStatus(d.m_status, toCstr(SolDnsServer::Status::uintToState(d.m_status.state)));
}

// {"kind": kind, then the one record's fields}
template <class Record>
Json single(const char* kind, const Record& record) {
    Json j{{"kind", kind}};
    addFields(j, record);
    return j;
}

// {"kind": kind, listName: [records]}
template <class Record>
Json list(const char* kind, const char* listName, const std::vector<Record>& records) {
    return Json{{"kind", kind}, {listName, recordsJson(records)}};
}

template <class Record>
std::string joined(const std::vector<Record>& records) {
    std::string text;
    for (const auto& r : records) {
        text += (text.empty() ? "" : ", ") + toStr(r);
    }
    return text;
}

}  // namespace

Json recordJson(const SolRouter& router) {
    Json j = Json::object();
    addFields(j, router);
    return j;
}

Json recordJson(const SolNetwork& network) {
    Json j = Json::object();
    addFields(j, network);
    return j;
}

Json recordJson(const SolDnsServer& server) {
    Json j = Json::object();
    addFields(j, server);
    return j;
}

const char* kindOf(uint32_t msgNo) {
    switch (msgNo) {
        case SOLIF_ROUTER_UPDATED_IND:
            return "router_updated";
        case SOLIF_NETWORK_UPDATED_IND:
            return "network_updated";
        case SOLIF_DNS_SERVER_UPDATED_IND:
            return "dns_servers_updated";
        case SOLIF_GET_ROUTERS_CFM:
            return "routers";
        default:
            return nullptr;
    }
}

std::vector<std::string> textLines(const SolifMessage& m) {
    const char* kind = kindOf(m.msgNo);
    switch (m.msgNo) {
        case SOLIF_ROUTER_UPDATED_IND:
            return {std::string(kind) + " " + toStr(m.routers.at(0))};
        case SOLIF_NETWORK_UPDATED_IND:
            return {std::string(kind) + " " + toStr(m.networks.at(0))};
        case SOLIF_DNS_SERVER_UPDATED_IND:
            return {std::string(kind) + " count: " + std::to_string(m.dnsServers.size()) + ", servers: [" +
                    joined(m.dnsServers) + "]"};
        case SOLIF_GET_ROUTERS_CFM: {
            std::vector<std::string> lines{std::string(kind) + ": " + std::to_string(m.routers.size())};
            for (const auto& r : m.routers) {
                lines.push_back(toStr(r));
            }
            return lines;
        }
        default:
            return {};
    }
}

std::string jsonLine(const SolifMessage& m) {
    const char* kind = kindOf(m.msgNo);
    switch (m.msgNo) {
        case SOLIF_ROUTER_UPDATED_IND:
            return single(kind, m.routers.at(0)).dump();
        case SOLIF_NETWORK_UPDATED_IND:
            return single(kind, m.networks.at(0)).dump();
        case SOLIF_DNS_SERVER_UPDATED_IND:
            return list(kind, "servers", m.dnsServers).dump();
        case SOLIF_GET_ROUTERS_CFM:
            return list(kind, "routers", m.routers).dump();
        default:
            return {};
    }
}

std::string showText(const SolifMessage& m) {
    if (!m.text.empty() && m.text.back() == '\n') {
        return m.text;
    }
    return m.text + "\n";
}

}  // namespace solicd::ctl
