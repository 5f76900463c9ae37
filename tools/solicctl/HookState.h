// What `solicctl hooks` knows of the link: the last state of every entry, the updates received
// since the hooks last ran (merged per entry), and from both the events the hooks run for: the
// reason and the environment with the new and the old values.
#pragma once

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
    // gone). One RESYNC event with the DNS set before and after.
    HookEvent takeResync();

private:
    // "router/..." and "network/..." keys, and kDnsKey.
    std::vector<std::string> m_pendingOrder;
    std::map<std::string, SolRouter> m_pendingRouters;
    std::map<std::string, SolNetwork> m_pendingNetworks;
    std::optional<std::vector<SolDnsServer>> m_pendingDns;

    std::map<std::string, SolRouter> m_routers;
    std::map<std::string, SolNetwork> m_networks;
    std::vector<SolDnsServer> m_dns;

    void noteKey(const std::string& key);
    void clearPending();
};

}  // namespace solicd::ctl
