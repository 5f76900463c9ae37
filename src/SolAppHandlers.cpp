// The handlers the main loop calls for RA packets, cache-entry expiry and client messages.
#include <algorithm>
#include <list>
#include <set>
#include <sstream>
#include <string_view>
#include <type_traits>
#include <vector>

#include "EntryName.h"
#include "SolApp.h"
#include "TraceLog.h"

namespace solicd::SolApp {
namespace {

// What one cache push hands back: the entry (null when refused), whether the client must hear of
// it, and the timeout action for its timer.
template <class Entry>
struct Pushed {
    Entry* entry;
    bool changed;
    uint32_t lifetime;
};

// Pushes one parsed record; a record the cache refuses is reported and dropped, the rest of the
// packet goes on. `word` names the kind in the report ("router", "network", "DNS server").
template <class Config>
auto pushRecord(CacheMgr& cache, const Config& config, const char* word) {
    bool changed = false;
    uint32_t lifetime = TIMEOUT_KEEP;
    auto* entry = cache.pushConfigAndGetEntry(config, &changed, &lifetime);
    if (entry == nullptr) {
        SOL_TRACE(ERROR, "ADDR_IPV6", "handleRaSocketEvent",
                  "[%s] Failed to insert %s into RA Cache, possible due to cache overflow, ignored data %s",
                  getTraceTag(), word, toStr(config).c_str());
    }
    return Pushed<std::remove_pointer_t<decltype(entry)>>{entry, changed, lifetime};
}

// A message the client does not get leaves it with a wrong picture of the cache: restart instead.
void notifyOrRestart(LmxMgr& lmx, const char* function, LmxMgr::Message& message) {
    if (lmx.notify(message) != 0) {
        SOL_FATAL(function, "LmxMgr::notify");
    }
}

void respondOrRestart(LmxMgr& lmx, const char* function, const LmxMgr::Message& request,
                      LmxMgr::Message& answer) {
    if (lmx.respond(request, answer) != 0) {
        SOL_FATAL(function, "LmxMgr::respond");
    }
}

bool isConnected(const LmxMgr& lmx) {
    return lmx.getDstMboxState() == LmxMgr::DST_MBOX_STATE_CONNECTED;
}

template <class Entry>
std::list<Entry*> listOf(CacheMgr& cache, void (CacheMgr::*get)(std::list<Entry*>&)) {
    std::list<Entry*> entries;
    (cache.*get)(entries);
    return entries;
}

// The ids of the active DNS servers, in the cache's order, into `ids` (its memory is kept).
void activeDnsServerIds(CacheMgr& cache, std::vector<uint32_t>& ids) {
    ids.clear();
    for (const DnsServerEntry* server : listOf(cache, &CacheMgr::getActiveDnsServers)) {
        ids.push_back(server->m_status.id);
    }
}

template <class Entry>
void appendLines(std::ostream& os, const char* heading, const std::list<Entry*>& entries) {
    os << heading;
    for (const Entry* entry : entries) {
        os << *entry << "\n";
    }
}

}  // namespace

// ---- RA packets ----

LmxMgr::Message* Logic::RaBuffers::takeNotifications(size_t count) {
    if (notifications.size() < count) {
        notifications = std::vector<LmxMgr::Message>(count);
    }
    inUse = count;
    return notifications.data();
}

void Logic::RaBuffers::clear() {
    routers.clear();
    networks.clear();
    dnsServers.clear();
    activeDnsIdsBefore.clear();
    activeDnsIdsAfter.clear();
    // What a message still holds goes now, not with the next RA.
    for (size_t i = 0; i < inUse; ++i) {
        notifications[i].reset();
    }
    inUse = 0;
}

// Under a flood the main loop's round for each RA (every source prepared, polled and checked,
// then a system call to read the one datagram) costs about as much as the RA itself. While LAB is
// off, the wakeup's first receive therefore also reads the datagrams queued behind the first, in
// the same system call, and each is then handled in turn, through the same path. With LAB on a
// read takes one RA, so that each keeps a wakeup of its own; whichever way it was read, an RA
// handled while LAB is on comes with its "Socket event" trace (cbRaSocketEvent), as readers of
// the traces know them.
void Logic::prepareRaReception() {
    m_data->getSocketMgr().setReadAhead(SOL_TRACE_ENABLED(LAB) ? 0 : kReadAheadCapacity);
}

bool Logic::hasQueuedRa() {
    return m_data->getSocketMgr().hasReadAhead();
}

void Logic::handleRaSocketEvent() {
    // Whichever way the call ends, the buffers are left empty.
    struct Cleared {
        RaBuffers& buffers;
        ~Cleared() { buffers.clear(); }
    } cleared{m_ra};
    SocketMgr::Message& message = m_ra.message;
    if (m_data->getSocketMgr().receive(message) != 0) {
        SOL_FATAL("handleRaSocketEvent", "GenIf::receive()");
    }
    if (message.m_state != SocketMgr::Message::MSG_STATE_RX_OK) {
        // A datagram from beyond the link leaves the one trace receive gave it.
        if (!message.m_offLink) {
            SOL_TRACE(ERROR, "GENERAL", "handleRaSocketEvent",
                      "[%s] Something went wrong on RA receiving, RX socket state is %s", getTraceTag(),
                      messageStateToStr(message.m_state).c_str());
        }
        return;
    }

    std::vector<SolRouter::Config>& routers = m_ra.routers;
    std::vector<SolNetwork::Config>& networks = m_ra.networks;
    std::vector<SolDnsServer::Config>& dnsServers = m_ra.dnsServers;
    if (m_data->getPacketParser().raParser(routers, networks, dnsServers, message.m_peer,
                                           message.m_data.data(),
                                           static_cast<int32_t>(message.m_length)) != 0) {
        SOL_FATAL("handleRaSocketEvent", "solicd::raParser");
    }
    if (routers.empty()) {
        noteRaHealth(message.m_peer, nullptr);
        SOL_TRACE(LAB, "GENERAL", "handleRaSocketEvent", "[%s] No RA message was parsed", getTraceTag());
        return;
    }

    // One router, each network, and the DNS servers as one list: the most this packet can change.
    LmxMgr::Message* notifications =
        m_ra.takeNotifications(1 + networks.size() + std::max<size_t>(dnsServers.size(), 1));
    size_t count = 0;
    CacheMgr& cache = m_data->getCacheMgr();
    char name[SOL_ENTRY_NAME_SIZE];

    // Only the first router counts: the parser gives at most one per packet.
    const SolRouter::Config& routerConfig = routers.front();
    const auto router = pushRecord(cache, routerConfig, "router");
    if (router.entry != nullptr) {
        if (router.changed) {
            notifications[count++].setTxRouterUpdatedInd(*router.entry);
        }
        applyTimeoutAction(writeEntryName(routerConfig, name), CacheTimeout::TYPE_ROUTER, router.lifetime);
    }
    noteRaHealth(message.m_peer, router.entry);

    for (const SolNetwork::Config& config : networks) {
        const auto network = pushRecord(cache, config, "network");
        if (network.entry == nullptr) {
            continue;
        }
        if (network.changed) {
            notifications[count++].setTxNetworkUpdatedInd(*network.entry);
            if (router.entry != nullptr) {
                cache.setRelation(*router.entry, *network.entry);
            }
        }
        applyTimeoutAction(writeEntryName(config, name), CacheTimeout::TYPE_NETWORK, network.lifetime);
    }

    if (dnsServers.empty()) {
        SOL_TRACE(LAB, "GENERAL", "handleRaSocketEvent", "[%s] No DNS server addresses are parsed.",
                  getTraceTag());
    } else {
        // The client keeps the active set as a whole: it hears of DNS servers only when that set
        // changes, and then gets all of it.
        activeDnsServerIds(cache, m_ra.activeDnsIdsBefore);
        for (const SolDnsServer::Config& config : dnsServers) {
            const auto server = pushRecord(cache, config, "DNS server");
            if (server.entry == nullptr) {
                continue;
            }
            if (server.changed && router.entry != nullptr) {
                cache.setRelation(*router.entry, *server.entry);
            }
            applyTimeoutAction(writeEntryName(config, name), CacheTimeout::TYPE_DNS_SERVER, server.lifetime);
        }
        // Compared by id: a server withdrawn by this RA may have been evicted for a new one that
        // now lives at its address.
        activeDnsServerIds(cache, m_ra.activeDnsIdsAfter);
        if (m_ra.activeDnsIdsBefore != m_ra.activeDnsIdsAfter) {
            notifications[count++].setTxDnsServersUpdatedInd(listOf(cache, &CacheMgr::getActiveDnsServers));
        }
    }

    LmxMgr& lmx = m_data->getLmxMgr();
    if (!isConnected(lmx)) {
        // Nothing is queued: the client gets the whole cache when it connects.
        SOL_TRACE(
            LAB, "GENERAL", "handleRaSocketEvent",
            "[%s] Updated %zu objects in RA cache. Solicd client is not connected, no notification will "
            "be sent",
            getTraceTag(), count);
    } else {
        for (size_t i = 0; i < count; ++i) {
            notifyOrRestart(lmx, "handleRaSocketEvent", notifications[i]);
        }
    }
    // Without a client to wait for, the status shows the counts all the same.
    if (count != 0) {
        m_status.cacheChanged();
    }
}

// ---- Cache-entry expiry ----

void Logic::handleCacheExpiredEvent(uint32_t type, const std::string& name) {
    switch (type) {
        case CacheTimeout::TYPE_ROUTER:
            handleRouterExpiry(name);
            break;
        case CacheTimeout::TYPE_NETWORK:
            handleNetworkExpiry(name);
            break;
        case CacheTimeout::TYPE_DNS_SERVER:
            handleDnsServerExpiry(name);
            break;
        default:
            break;
    }
    m_status.cacheChanged();
}

void Logic::handleRouterExpiry(const std::string& name) {
    CacheMgr& cache = m_data->getCacheMgr();
    bool changed = false;
    uint32_t lifetime = 0;
    const RouterEntry* router =
        cache.notifyTimeoutExpiresAndGetEntry(&changed, &lifetime, name, RouterKind{});
    applyTimeoutAction(name, CacheTimeout::TYPE_ROUTER, lifetime);
    if (router == nullptr) {
        return;
    }
    const auto active = listOf(cache, &CacheMgr::getActiveRouters);
    if (active.empty() || !readyForLmxNotify(changed)) {
        return;
    }
    // The expired router, then the router the client should use now (the oldest active one).
    LmxMgr& lmx = m_data->getLmxMgr();
    LmxMgr::Message message;
    message.setTxRouterUpdatedInd(*router);
    notifyOrRestart(lmx, "handleCacheExpiredEvent", message);
    message.setTxRouterUpdatedInd(*active.front());
    notifyOrRestart(lmx, "handleCacheExpiredEvent", message);
}

void Logic::handleNetworkExpiry(const std::string& name) {
    CacheMgr& cache = m_data->getCacheMgr();
    bool changed = false;
    uint32_t lifetime = 0;
    const NetworkEntry* network =
        cache.notifyTimeoutExpiresAndGetEntry(&changed, &lifetime, name, NetworkKind{});
    applyTimeoutAction(name, CacheTimeout::TYPE_NETWORK, lifetime);
    if (network == nullptr || !changed) {
        return;
    }
    // Unlike routers and DNS servers, a network change is sent without asking readyForLmxNotify:
    // a client that is not connected makes the send fail, and that is a restart.
    LmxMgr& lmx = m_data->getLmxMgr();
    LmxMgr::Message message;
    message.setTxNetworkUpdatedInd(*network);
    notifyOrRestart(lmx, "handleCacheExpiredEvent", message);

    // Then the network the client should use now: the oldest active one of the same router, else
    // the oldest active one of all.
    std::list<NetworkEntry*> active;
    cache.getActiveNetworksOfRouter(network->primaryRouterId, active);
    if (active.empty()) {
        cache.getActiveNetworks(active);
    }
    if (active.empty()) {
        return;
    }
    message.setTxNetworkUpdatedInd(*active.front());
    notifyOrRestart(lmx, "handleCacheExpiredEvent", message);
}

void Logic::handleDnsServerExpiry(const std::string& name) {
    CacheMgr& cache = m_data->getCacheMgr();
    bool changed = false;
    uint32_t lifetime = 0;
    const DnsServerEntry* server =
        cache.notifyTimeoutExpiresAndGetEntry(&changed, &lifetime, name, DnsServerKind{});
    applyTimeoutAction(name, CacheTimeout::TYPE_DNS_SERVER, lifetime);
    // Only a server whose time is up leaves the active set; a re-armed timer changes nothing the
    // client sees.
    if (server == nullptr || lifetime != 0) {
        return;
    }
    const auto active = listOf(cache, &CacheMgr::getActiveDnsServers);
    if (!readyForLmxNotify(changed)) {
        return;
    }
    LmxMgr::Message message;
    message.setTxDnsServersUpdatedInd(active);
    notifyOrRestart(m_data->getLmxMgr(), "handleCacheExpiredEvent", message);
}

bool Logic::readyForLmxNotify(bool dataUpdated) {
    const bool isLmxNotify = isConnected(m_data->getLmxMgr());
    const bool ready = isLmxNotify && dataUpdated;
    if (!ready) {
        SOL_TRACE(LAB, "GENERAL", "readyForLmxNotify",
                  "[%s] RA state change was not forwarded. isLmxNotify: %s, dataUpdated: %s", getTraceTag(),
                  isLmxNotify ? "true" : "false", dataUpdated ? "true" : "false");
    }
    return ready;
}

ServiceStatus::Counts Logic::countEntriesInUse() {
    CacheMgr& cache = m_data->getCacheMgr();
    return {listOf(cache, &CacheMgr::getActiveRouters).size(),
            listOf(cache, &CacheMgr::getActiveNetworks).size(),
            listOf(cache, &CacheMgr::getActiveDnsServers).size()};
}

// ---- Client messages ----

void Logic::handleLmxEvent() {
    LmxMgr& lmx = m_data->getLmxMgr();
    LmxMgr::Message message;
    const uint32_t stateBefore = lmx.getDstMboxState();
    if (lmx.receive(message) == 1) {
        // A locate or monitor answer the link could not act on: the client would never be
        // reached again.
        if (message.getRxType() == LmxMgr::RX_TYPE_INTERNAL) {
            SOL_FATAL("handleLmxEvent", "Internal LMX initialization failed");
        }
        if (message.getRxType() == LmxMgr::RX_TYPE_NO_MSG) {
            return;
        }
    }
    const LmxMgr::RxType rxType = message.getRxType();
    SOL_TRACE(LAB, "GENERAL", "handleLmxEvent", "[%s] Received message with ID %d", getTraceTag(),
              static_cast<int>(rxType));

    const uint32_t stateAfter = lmx.getDstMboxState();
    if (stateAfter != stateBefore && stateAfter == LmxMgr::DST_MBOX_STATE_CONNECTED) {
        SOL_TRACE(LAB, "GENERAL", "handleLmxEvent", "[%s] Client established connection, sending RA cache",
                  getTraceTag());
        sendRaCacheToLmxClient();
        m_status.clientConnected();
    } else if (stateBefore == LmxMgr::DST_MBOX_STATE_CONNECTED && stateAfter != stateBefore) {
        m_status.clientLost();
    }

    switch (rxType) {
        case LmxMgr::RX_TYPE_ROUTERS_REQ: {
            // Answered to whoever asked, subscriber or not, with the routers only.
            const auto routers = listOf(m_data->getCacheMgr(), &CacheMgr::getRouters);
            LmxMgr::Message answer;
            answer.setTxGetRoutersCfm(static_cast<uint32_t>(routers.size()));
            for (const RouterEntry* router : routers) {
                answer.setTxGetRoutersCfmPush(*router);
            }
            respondOrRestart(lmx, "handleLmxEvent", message, answer);
            break;
        }
        case LmxMgr::RX_TYPE_CLICMD_SHOW_CACHE_REQ:
            SOL_TRACE(
                LAB, "GENERAL", "handleLmxEvent",
                "[%s] Received message RX_TYPE_CLICMD_SHOW_CACHE_REQ to request information about routers "
                "and networks",
                getTraceTag());
            sendShowRainfoToLmxClient(message);
            break;
        case LmxMgr::RX_TYPE_HEALTH_REQ:
            sendHealthToLmxClient(message);
            break;
        default:
            break;
    }
}

void Logic::sendRaCacheToLmxClient() {
    CacheMgr& cache = m_data->getCacheMgr();
    const auto routers = listOf(cache, &CacheMgr::getRouters);
    const auto networks = listOf(cache, &CacheMgr::getNetworks);
    const auto dnsServers = listOf(cache, &CacheMgr::getDnsServers);
    SOL_TRACE(
        INFO, "GENERAL", "sendRaCacheToLmxClient",
        "[%s] Will propagate RA cache to the client. Routers number: %zu Networks number: %zu DNS Servers "
        "number: %zu.",
        getTraceTag(), routers.size(), networks.size(), dnsServers.size());

    std::vector<LmxMgr::Message> messages(routers.size() + networks.size() + dnsServers.size());
    size_t count = 0;
    for (const RouterEntry* router : routers) {
        messages[count++].setTxRouterUpdatedInd(*router);
    }
    for (const NetworkEntry* network : networks) {
        messages[count++].setTxNetworkUpdatedInd(*network);
    }
    if (!dnsServers.empty()) {
        messages[count++].setTxDnsServersUpdatedInd(dnsServers);
    }
    LmxMgr& lmx = m_data->getLmxMgr();
    for (size_t i = 0; i < count; ++i) {
        notifyOrRestart(lmx, "sendRaCacheToLmxClient", messages[i]);
    }
}

void Logic::sendShowRainfoToLmxClient(const LmxMgr::Message& request) {
    CacheMgr& cache = m_data->getCacheMgr();
    std::ostringstream text;
    appendLines(text, "\nRouters:", listOf(cache, &CacheMgr::getRouters));
    appendLines(text, "\nNetworks:", listOf(cache, &CacheMgr::getNetworks));
    appendLines(text, "\nDNS Servers:", listOf(cache, &CacheMgr::getDnsServers));
    text << "\nCounters:" << m_data->getSocketMgr().getCounters() << m_data->getPacketParser().getCounters();

    LmxMgr::Message answer;
    answer.setTxShowRainfoCfm(text.str());
    respondOrRestart(m_data->getLmxMgr(), "sendShowRainfoToLmxClient", request, answer);
}

void Logic::sendHealthToLmxClient(const LmxMgr::Message& request) {
    CacheMgr& cache = m_data->getCacheMgr();
    std::map<RaHealth::Address, std::string> states;
    for (const RouterEntry* r : listOf(cache, &CacheMgr::getRouters)) {
        states[RaHealth::addressOf(r->m_config.address)] =
            toCstr(SolRouter::Status::uintToState(r->m_status.state));
    }
    LmxMgr::Message answer;
    answer.setTxHealthCfm(m_health.json(cache.now(), [&](const RaHealth::Address& a) {
        const auto it = states.find(a);
        return it != states.end() ? it->second : std::string();
    }));
    respondOrRestart(m_data->getLmxMgr(), "sendHealthToLmxClient", request, answer);
}

void Logic::noteRaHealth(const kt_ip_address_t& source, const RouterEntry* router) {
    CacheMgr& cache = m_data->getCacheMgr();
    const time_t now = router != nullptr ? router->m_status.lastUpdateTime : cache.now();
    m_health.onRa(source, router != nullptr ? &m_ra.routers.front() : nullptr, m_ra.networks,
                  m_data->getPacketParser().lastOutcome(), router != nullptr, now);
    // A router just created may have taken the place of an evicted one, whose health goes too.
    if (router != nullptr && router->m_status.updateCount == 0 && m_health.routerCount() > 1) {
        std::set<RaHealth::Address> cached;
        for (const RouterEntry* r : listOf(cache, &CacheMgr::getRouters)) {
            cached.insert(RaHealth::addressOf(r->m_config.address));
        }
        m_health.keepOnly([&](const RaHealth::Address& a) { return cached.count(a) != 0; });
    }
}

}  // namespace solicd::SolApp
