#include "HookState.h"

#include <algorithm>
#include <iterator>
#include <type_traits>

#include "RecordWords.h"

namespace solicd::ctl {
namespace {

constexpr const char* kDnsKey = "dns";

bool gone(uint32_t state);

// The reason for a kind whose states share their names: an entry that is new or updated was new
// unless it was known and had not gone (a deprecated prefix refreshed is updated); a record that
// did not change is no reason.
template <class Record, class State>
std::string reasonOf(const char* kind, const Record* before, const Record& after, State state) {
    const bool same = before != nullptr && !before->m_config.isNotEqual(after.m_config) &&
                      before->m_status.state == after.m_status.state;
    if (same) {
        return {};
    }
    std::string word;
    switch (state) {
        case State::STATE_NEW:
        case State::STATE_UPDATED:
            word = before != nullptr && !gone(before->m_status.state) ? "UPDATED" : "NEW";
            break;
        case State::STATE_EXPIRED:
            word = "EXPIRED";
            break;
        case State::STATE_INVALIDATED:
            word = "INVALIDATED";
            break;
        default:
            if constexpr (std::is_same_v<State, sol_network_state_t>) {
                if (state == State::STATE_DEPRECATED) {
                    word = "DEPRECATED";
                    break;
                }
            }
            return {};  // STATE_INITIAL or a state without a name: nothing to tell
    }
    return std::string(kind) + "_" + word;
}

using Variables = std::vector<std::pair<std::string, std::string>>;

// `prefix` "new_" or "old_": the record's fields, or the same names empty when there is none.
void routerVariables(Variables& v, const char* prefix, const SolRouter* r) {
    const auto value = [&](auto get) { return r != nullptr ? get(*r) : std::string(); };
    const std::string p(prefix);
    v.emplace_back(p + "address", value([](const SolRouter& x) { return keyOf(x); }));
    v.emplace_back(p + "state", value([](const SolRouter& x) { return stateOf(x); }));
    v.emplace_back(p + "router_lifetime",
                   value([](const SolRouter& x) { return std::to_string(x.m_config.routerLifetime); }));
    v.emplace_back(p + "reachable_time",
                   value([](const SolRouter& x) { return std::to_string(x.m_config.reachableTime); }));
    v.emplace_back(p + "retrans_timer",
                   value([](const SolRouter& x) { return std::to_string(x.m_config.retransTimer); }));
    v.emplace_back(p + "flags",
                   value([](const SolRouter& x) { return routerFlagLetters(x.m_config.flags); }));
}

void prefixVariables(Variables& v, const char* prefix, const SolNetwork* n) {
    const auto value = [&](auto get) { return n != nullptr ? get(*n) : std::string(); };
    const std::string p(prefix);
    v.emplace_back(p + "prefix", value([](const SolNetwork& x) {
                       const std::string key = keyOf(x);
                       return key.substr(0, key.rfind('/'));
                   }));
    v.emplace_back(p + "prefix_length",
                   value([](const SolNetwork& x) { return std::to_string(x.m_config.prefixLength); }));
    v.emplace_back(p + "state", value([](const SolNetwork& x) { return stateOf(x); }));
    v.emplace_back(p + "valid_lifetime",
                   value([](const SolNetwork& x) { return std::to_string(x.m_config.validLifetime); }));
    v.emplace_back(p + "preferred_lifetime",
                   value([](const SolNetwork& x) { return std::to_string(x.m_config.preferredLifetime); }));
    v.emplace_back(p + "flags",
                   value([](const SolNetwork& x) { return prefixFlagLetters(x.m_config.flags); }));
}

std::string addresses(const std::vector<KnownServer>& servers) {
    std::string text;
    for (const auto& d : servers) {
        text += (text.empty() ? "" : " ") + d.address;
    }
    return text;
}

bool named(const std::vector<KnownServer>& servers, const std::string& address) {
    return std::any_of(servers.begin(), servers.end(),
                       [&](const KnownServer& s) { return s.address == address; });
}

KnownServer known(const SolDnsServer& d) {
    return {keyOf(d), d.m_config.lifetime == kInfiniteLifetime
                          ? KnownServer::kNoEnd
                          : d.m_status.timeoutStartTime + static_cast<int64_t>(d.m_config.lifetime)};
}

void dnsVariables(Variables& v, const std::vector<KnownServer>& before,
                  const std::vector<KnownServer>& after) {
    v.emplace_back("new_dns_servers", addresses(after));
    v.emplace_back("old_dns_servers", addresses(before));
}

bool gone(uint32_t state) {
    // Expired and invalidated share their values in every kind but the DNS server's; routers
    // and prefixes are what leave the state here.
    return state == static_cast<uint32_t>(sol_router_state_t::STATE_EXPIRED) ||
           state == static_cast<uint32_t>(sol_router_state_t::STATE_INVALIDATED);
}

template <class Record>
const Record* find(const std::map<std::string, Record>& records, const std::string& key) {
    const auto it = records.find(key);
    return it != records.end() ? &it->second : nullptr;
}

}  // namespace

std::string routerReason(const SolRouter* before, const SolRouter& after) {
    return reasonOf("ROUTER", before, after, SolRouter::Status::uintToState(after.m_status.state));
}

std::string prefixReason(const SolNetwork* before, const SolNetwork& after) {
    return reasonOf("PREFIX", before, after, SolNetwork::Status::uintToState(after.m_status.state));
}

void HookState::noteKey(const std::string& key) {
    if (std::find(m_pendingOrder.begin(), m_pendingOrder.end(), key) == m_pendingOrder.end()) {
        m_pendingOrder.push_back(key);
    }
}

void HookState::add(const SolifMessage& m) {
    switch (m.msgNo) {
        case SOLIF_ROUTER_UPDATED_IND: {
            const std::string key = m.routers.at(0).m_config.getName();
            m_pendingRouters[key] = m.routers.at(0);
            noteKey(key);
            break;
        }
        case SOLIF_NETWORK_UPDATED_IND: {
            const std::string key = m.networks.at(0).m_config.getName();
            m_pendingNetworks[key] = m.networks.at(0);
            noteKey(key);
            break;
        }
        case SOLIF_DNS_SERVER_UPDATED_IND: {
            // A change carries the active set; the whole-cache push carries every server solicd
            // still keeps, expired and invalidated ones too. The hooks get the active ones.
            std::vector<KnownServer> active;
            for (const SolDnsServer& d : m.dnsServers) {
                if (isActive(d)) {
                    active.push_back(known(d));
                }
            }
            m_pendingDns = std::move(active);
            noteKey(kDnsKey);
            break;
        }
        default:
            break;
    }
}

void HookState::clearPending() {
    m_pendingOrder.clear();
    m_pendingRouters.clear();
    m_pendingNetworks.clear();
    m_pendingDns.reset();
}

std::vector<HookEvent> HookState::takeChanges() {
    std::vector<HookEvent> events;
    for (const std::string& key : m_pendingOrder) {
        HookEvent e;
        if (key == kDnsKey) {
            // What solicd says of a server replaces what was held of it, also when it ends later.
            m_daemonDns = *m_pendingDns;
            std::erase_if(m_held, [this](const KnownServer& s) { return named(m_daemonDns, s.address); });
            const std::vector<KnownServer> after = effectiveDns();
            if (addresses(after) != addresses(m_dns)) {
                e.reason = "DNS_CHANGED";
                dnsVariables(e.variables, m_dns, after);
            }
            m_dns = after;
        } else if (const auto it = m_pendingRouters.find(key); it != m_pendingRouters.end()) {
            const SolRouter* before = find(m_routers, key);
            e.reason = routerReason(before, it->second);
            if (e.reason == "ROUTER_NEW") {
                before = nullptr;
            }
            routerVariables(e.variables, "new_", &it->second);
            routerVariables(e.variables, "old_", before);
            dnsVariables(e.variables, m_dns, m_dns);
            if (gone(it->second.m_status.state)) {
                m_routers.erase(key);
            } else {
                m_routers[key] = it->second;
            }
        } else {
            const SolNetwork& after = m_pendingNetworks.at(key);
            const SolNetwork* before = find(m_networks, key);
            e.reason = prefixReason(before, after);
            if (e.reason == "PREFIX_NEW") {
                before = nullptr;
            }
            prefixVariables(e.variables, "new_", &after);
            prefixVariables(e.variables, "old_", before);
            dnsVariables(e.variables, m_dns, m_dns);
            if (gone(after.m_status.state)) {
                m_networks.erase(key);
            } else {
                m_networks[key] = after;
            }
        }
        if (!e.reason.empty()) {
            events.push_back(std::move(e));
        }
    }
    clearPending();
    return events;
}

std::vector<KnownServer> HookState::effectiveDns() const {
    std::vector<KnownServer> servers = m_daemonDns;
    for (const KnownServer& s : m_held) {
        if (!named(servers, s.address)) {
            servers.push_back(s);
        }
    }
    return servers;
}

HookEvent HookState::takeResync(int64_t now, int64_t holdUntil) {
    HookEvent e;
    e.reason = "RESYNC";
    m_daemonDns = m_pendingDns.value_or(std::vector<KnownServer>{});
    m_held.clear();
    m_holdUntil = holdUntil;
    if (now < holdUntil) {
        for (const KnownServer& s : m_dns) {
            if (s.end > now && !named(m_daemonDns, s.address)) {
                m_held.push_back(s);
            }
        }
    }
    const std::vector<KnownServer> after = effectiveDns();
    dnsVariables(e.variables, m_dns, after);
    m_dns = after;
    m_routers.clear();
    m_networks.clear();
    for (const auto& [key, r] : m_pendingRouters) {
        if (!gone(r.m_status.state)) {
            m_routers[key] = r;
        }
    }
    for (const auto& [key, n] : m_pendingNetworks) {
        if (!gone(n.m_status.state)) {
            m_networks[key] = n;
        }
    }
    clearPending();
    return e;
}

std::optional<int64_t> HookState::nextHoldEnd() const {
    if (m_held.empty()) {
        return std::nullopt;
    }
    int64_t end = m_holdUntil;
    for (const KnownServer& s : m_held) {
        end = std::min(end, s.end);
    }
    return end;
}

void HookState::endHolds(int64_t now) {
    const size_t before = m_held.size();
    std::erase_if(m_held, [&](const KnownServer& s) { return now >= m_holdUntil || s.end <= now; });
    if (m_held.size() != before) {
        if (!m_pendingDns) {
            m_pendingDns = m_daemonDns;
        }
        noteKey(kDnsKey);
    }
}

}  // namespace solicd::ctl
