// What `solicctl hooks` knows of the link: the last state of every entry, the updates received
// since the hooks last ran (merged per entry), and from both the events the hooks run for: the
// reason and the environment with the new and the old values.
//
// A restarted solicd pushes an empty cache before its first solicitation cycle has refilled it.
// So that a restart does not take a namespace's resolver away, the DNS servers the hooks acted on
// last are held through such a push: each until the cycle has ended or its own lifetime ends,
// whichever comes first; what solicd announces meanwhile is taken at once.
#pragma once

#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "SolIf.h"

namespace solicd::ctl {

struct HookEvent {
    std::string reason;  // ROUTER_NEW, ..., DNS_CHANGED, RESYNC
    // NAME=value pairs for the hooks' environment, in a fixed order.
    std::vector<std::pair<std::string, std::string>> variables;
};

// A DNS server as the hooks know it: its address and when its lifetime ends, in seconds since the
// epoch as solicd counts them (kNoEnd for an infinite lifetime).
struct KnownServer {
    static constexpr int64_t kNoEnd = std::numeric_limits<int64_t>::max();
    std::string address;
    int64_t end = kNoEnd;
    bool operator==(const KnownServer&) const = default;
};

// The reason of a change from `before` (none: not known) to `after`; empty when nothing changed.
std::string routerReason(const SolRouter* before, const SolRouter& after);
std::string prefixReason(const SolNetwork* before, const SolNetwork& after);

class HookState {
public:
    // Merges one update indication into the pending batch; other messages are ignored.
    void add(const SolifMessage& update);
    bool hasPending() const { return !m_pendingOrder.empty(); }

    // One event per entry that changed in the pending batch, in the order the entries first
    // changed (the DNS set where its first update came), from the state before the batch to the
    // entry's latest state; the state then holds the batch. Entries that expired or were
    // invalidated leave the state with their event.
    std::vector<HookEvent> takeChanges();

    // After a whole-cache push: the pending batch is the whole state (entries it does not name are
    // gone). One RESYNC event with the DNS set before and after. Until `holdUntil` (solicd's first
    // solicitation cycle has ended by then; seconds since the epoch, as `now`) the servers acted on
    // before and not named by the push are held, each while its lifetime lasts.
    HookEvent takeResync(int64_t now, int64_t holdUntil);

    // When the held servers next change (the hold ends, or a held server's lifetime does); none
    // while nothing is held.
    std::optional<int64_t> nextHoldEnd() const;
    // Lets go of what is no longer held at `now`; the DNS set is then pending if it changed.
    void endHolds(int64_t now);

    // The DNS servers the hooks acted on last, and the same told again after a restart of the
    // hooks themselves, so that they hold them as they would across a restart of solicd.
    const std::vector<KnownServer>& dnsServers() const { return m_dns; }
    void rememberDns(std::vector<KnownServer> servers) { m_dns = std::move(servers); }

private:
    // "router/..." and "network/..." keys, and kDnsKey.
    std::vector<std::string> m_pendingOrder;
    std::map<std::string, SolRouter> m_pendingRouters;
    std::map<std::string, SolNetwork> m_pendingNetworks;
    std::optional<std::vector<KnownServer>> m_pendingDns;

    std::map<std::string, SolRouter> m_routers;
    std::map<std::string, SolNetwork> m_networks;
    std::vector<KnownServer> m_dns;        // acted on: solicd's servers, then the held ones
    std::vector<KnownServer> m_daemonDns;  // the active servers solicd last announced
    std::vector<KnownServer> m_held;       // from before solicd's restart, none of them solicd's
    int64_t m_holdUntil = 0;

    void noteKey(const std::string& key);
    void clearPending();
    // solicd's servers, then the held ones.
    std::vector<KnownServer> effectiveDns() const;
};

}  // namespace solicd::ctl
