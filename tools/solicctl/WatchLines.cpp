#include "WatchLines.h"

#include <algorithm>

#include "Durations.h"
#include "RecordWords.h"
#include "Terminal.h"

namespace solicd::ctl {
namespace {

std::string clockText(std::time_t when) {
    std::tm local{};
    localtime_r(&when, &local);
    char text[16];
    std::strftime(text, sizeof text, "%H:%M:%S", &local);
    return text;
}

// The kind word padded so that keys line up: "router", "prefix", "dns".
std::string kindColumn(const char* kind) {
    constexpr size_t kKindWidth = 6;
    std::string text(kind);
    text.resize(kKindWidth, ' ');
    return text;
}

// Fields two blanks apart; empty ones leave no gap.
std::string joined(std::initializer_list<std::string> fields) {
    std::string text;
    for (const auto& field : fields) {
        if (!field.empty()) {
            text += (text.empty() ? "" : "  ") + field;
        }
    }
    return text;
}

std::string routerLine(const SolRouter& r, bool colour) {
    return joined({kindColumn("router"), keyOf(r), paint(stateOf(r), stateTone(r), colour),
                   "lifetime " + durationText(r.m_config.routerLifetime),
                   routerFlagLetters(r.m_config.flags)});
}

std::string prefixLine(const SolNetwork& n, bool colour) {
    const auto& c = n.m_config;
    return joined(
        {kindColumn("prefix"), keyOf(n), paint(stateOf(n), stateTone(n), colour),
         "valid " + lifetimeText(c.validLifetime) + " preferred " + lifetimeText(c.preferredLifetime),
         prefixFlagLetters(c.flags)});
}

// The whole active set: its addresses in order, and one lifetime when they share it.
std::string dnsLine(const std::vector<SolDnsServer>& servers) {
    if (servers.empty()) {
        return joined({kindColumn("dns"), "none"});
    }
    std::string addresses;
    std::string lifetimes;
    for (const auto& d : servers) {
        addresses += (addresses.empty() ? "" : " ") + keyOf(d);
        lifetimes += (lifetimes.empty() ? "" : " ") + lifetimeText(d.m_config.lifetime);
    }
    const bool shared = std::all_of(servers.begin(), servers.end(), [&](const SolDnsServer& d) {
        return d.m_config.lifetime == servers.front().m_config.lifetime;
    });
    return joined(
        {kindColumn("dns"), addresses,
         shared ? "lifetime " + lifetimeText(servers.front().m_config.lifetime) : "lifetimes " + lifetimes});
}

}  // namespace

std::string watchLine(const SolifMessage& m, std::time_t when, bool colour) {
    std::string line;
    switch (m.msgNo) {
        case SOLIF_ROUTER_UPDATED_IND:
            line = routerLine(m.routers.at(0), colour);
            break;
        case SOLIF_NETWORK_UPDATED_IND:
            line = prefixLine(m.networks.at(0), colour);
            break;
        case SOLIF_DNS_SERVER_UPDATED_IND:
            line = dnsLine(m.dnsServers);
            break;
        default:
            return {};
    }
    return paint(clockText(when), Tone::Dim, colour) + " " + line;
}

}  // namespace solicd::ctl
