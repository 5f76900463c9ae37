#include "StatusView.h"

#include <algorithm>
#include <vector>

#include "Durations.h"
#include "RecordWords.h"
#include "SolicctlOutput.h"
#include "Table.h"

namespace solicd::ctl {
namespace {

std::string counted(size_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

template <class Record>
size_t activeCount(const std::vector<Record>& records) {
    return static_cast<size_t>(
        std::count_if(records.begin(), records.end(), [](const Record& r) { return isActive(r); }));
}

// Active entries first, each group in the cache's order.
template <class Record>
std::vector<const Record*> activeFirst(const std::vector<Record>& records) {
    std::vector<const Record*> ordered;
    for (const Record& r : records) {
        ordered.push_back(&r);
    }
    std::stable_partition(ordered.begin(), ordered.end(), [](const Record* r) { return isActive(*r); });
    return ordered;
}

// What is left of a lifetime that started at the entry's timeoutStartTime, or "expired" when it
// no longer runs.
template <class Record>
std::string leftText(const Record& record, bool running, uint32_t lifetime, int64_t now) {
    if (!running) {
        return "expired";
    }
    if (lifetime == kInfiniteLifetime) {
        return "infinite";
    }
    return durationText(record.m_status.timeoutStartTime + lifetime - now);
}

Tone rowTone(bool active) {
    return active ? Tone::Plain : Tone::Dim;
}

std::string routersTable(const std::vector<SolRouter>& routers, int64_t now, bool colour) {
    Table table({"ADDRESS", "STATE", "LIFETIME", "FLAGS", "REACHABLE", "RETRANS", "UPDATED"});
    for (const SolRouter* r : activeFirst(routers)) {
        const auto& c = r->m_config;
        table.addRow({{keyOf(*r)},
                      {stateOf(*r), stateTone(*r)},
                      {leftText(*r, isActive(*r), c.routerLifetime, now)},
                      {routerFlagLetters(c.flags)},
                      {millisecondsText(c.reachableTime)},
                      {millisecondsText(c.retransTimer)},
                      {agoText(now - r->m_status.lastUpdateTime)}},
                     rowTone(isActive(*r)));
    }
    return table.render(colour);
}

// The two-hour rule at work on a prefix: lifetimes cut to two hours, shorter ones ignored.
std::string twoHourRuleText(const SolNetwork& n) {
    const auto& s = n.m_status;
    std::string text;
    if (s.lifetimeResetCount != 0) {
        text = std::to_string(s.lifetimeResetCount) + " cut to 2h";
    }
    if (s.lifetimeIgnoredCount != 0) {
        text += (text.empty() ? "" : ", ") + std::to_string(s.lifetimeIgnoredCount) + " ignored";
    }
    return text;
}

std::string prefixesTable(const std::vector<SolNetwork>& networks, int64_t now, bool colour) {
    const bool ruleColumn = std::any_of(networks.begin(), networks.end(),
                                        [](const SolNetwork& n) { return !twoHourRuleText(n).empty(); });
    std::vector<std::string> headings{"PREFIX", "STATE", "VALID", "PREFERRED", "FLAGS"};
    if (ruleColumn) {
        headings.emplace_back("TWO-HOUR RULE");
    }
    Table table(headings);
    for (const SolNetwork* n : activeFirst(networks)) {
        const auto& c = n->m_config;
        // A deprecated prefix is still valid: its valid lifetime runs on.
        const bool deprecated =
            n->m_status.state == static_cast<uint32_t>(sol_network_state_t::STATE_DEPRECATED);
        table.addRow({{keyOf(*n)},
                      {stateOf(*n), stateTone(*n)},
                      {leftText(*n, isActive(*n) || deprecated, c.validLifetime, now)},
                      {leftText(*n, isActive(*n), c.preferredLifetime, now)},
                      {prefixFlagLetters(c.flags)},
                      {twoHourRuleText(*n)}},
                     rowTone(isActive(*n)));
    }
    return table.render(colour);
}

std::string dnsTable(const std::vector<SolDnsServer>& servers, int64_t now, bool colour) {
    Table table({"ADDRESS", "STATE", "LIFETIME"});
    for (const SolDnsServer* d : activeFirst(servers)) {
        table.addRow({{keyOf(*d)},
                      {stateOf(*d), stateTone(*d)},
                      {leftText(*d, isActive(*d), d->m_config.lifetime, now)}},
                     rowTone(isActive(*d)));
    }
    return table.render(colour);
}

std::string section(const char* title, bool empty, const std::string& table, bool colour) {
    return "\n" + paint(title, Tone::Heading, colour) + (empty ? ": none\n" : "\n" + table);
}

}  // namespace

std::string statusText(const std::string& mbox, const SolCacheText& cache, int64_t now, bool colour) {
    const auto& socket = cache.socketCounters.m_counters;
    const auto& packet = cache.packetCounters.m_counters;
    std::string text = paint(mbox, Tone::Heading, colour) + ": " +
                       counted(activeCount(cache.routers), "router", "routers") + ", " +
                       counted(activeCount(cache.networks), "prefix", "prefixes") + ", " +
                       counted(activeCount(cache.dnsServers), "DNS server", "DNS servers") + " active\n";
    text += "rx " + std::to_string(socket.rxRa) + " RAs, " + std::to_string(socket.rxRejected) +
            " rejected; " + std::to_string(socket.txRs) + " RS sent" +
            (socket.txRsFailed != 0 ? ", " + std::to_string(socket.txRsFailed) + " failed" : "") +
            "; parsed " + std::to_string(packet.raParsed) + ", dropped " + std::to_string(packet.raDropped) +
            "; prefixes " + std::to_string(packet.prefixAccepted) + " accepted, " +
            std::to_string(packet.prefixIgnored) + " ignored\n";
    text += section("Routers", cache.routers.empty(), routersTable(cache.routers, now, colour), colour);
    text += section("Prefixes", cache.networks.empty(), prefixesTable(cache.networks, now, colour), colour);
    text += section("DNS servers", cache.dnsServers.empty(), dnsTable(cache.dnsServers, now, colour), colour);
    return text;
}

std::string statusJson(const std::string& mbox, const SolCacheText& cache) {
    const auto& socket = cache.socketCounters.m_counters;
    const auto& packet = cache.packetCounters.m_counters;
    const Json counters{{"rxRa", socket.rxRa},
                        {"txRs", socket.txRs},
                        {"txRsFailed", socket.txRsFailed},
                        {"rxRejected", socket.rxRejected},
                        {"raParsed", packet.raParsed},
                        {"raDropped", packet.raDropped},
                        {"prefixAccepted", packet.prefixAccepted},
                        {"prefixIgnored", packet.prefixIgnored}};
    return Json{{"kind", "status"},
                {"mailbox", mbox},
                {"routers", recordsJson(cache.routers)},
                {"networks", recordsJson(cache.networks)},
                {"dnsServers", recordsJson(cache.dnsServers)},
                {"counters", counters}}
        .dump();
}

}  // namespace solicd::ctl
