#include "CacheMgr.h"

#include <algorithm>
#include <limits>
#include <map>
#include <string_view>

#include "EntryName.h"
#include "TraceLog.h"

namespace solicd {
namespace {

constexpr const char* kCategory = "ADDR_IPV6";
constexpr const char* kCategoryGeneral = "GENERAL";
// Stateless autoconfiguration never lets an unauthenticated RA cut a valid lifetime below this.
constexpr uint32_t kTwoHours = 7200;
constexpr size_t kTimeTextSize = 32;
constexpr const char* kTimeFormat = "%Y-%m-%d %H:%M:%S";
// Routers never take the value between STATE_EXPIRED and STATE_INVALIDATED; it counts as not in use.
constexpr uint32_t kRouterStateUnnamed = 4;

// A timeout action that orders a timer (neither "remove" nor "keep").
bool ordersTimer(uint32_t timeout) {
    return timeout != 0 && timeout != TIMEOUT_KEEP;
}

template <class Entry>
using StateOf = decltype(Entry::Status::uintToState(0));

template <class Entry>
uint32_t raw(StateOf<Entry> state) {
    return static_cast<uint32_t>(state);
}

template <class Entry>
const char* stateName(uint32_t state) {
    return toCstr(Entry::Status::uintToState(state));
}

template <class Entry>
bool isState(uint32_t state, StateOf<Entry> wanted) {
    return state == raw<Entry>(wanted);
}

// Seconds from now to `end`, for a timer that must run out at `end`.
uint32_t secondsUntil(int64_t end, time_t now) {
    return static_cast<uint32_t>(std::min<int64_t>(end - now, std::numeric_limits<uint32_t>::max()));
}

// What is left of `lifetime` counted from `start`; 0 once it has run out.
uint32_t remainingLifetime(uint32_t lifetime, int64_t start, time_t now) {
    const int64_t remaining = static_cast<int64_t>(lifetime) + start - now;
    return remaining < 0 ? 0 : static_cast<uint32_t>(remaining);
}

// The push rule every kind shares: lifetime 0 invalidates, a first or revived entry is new, any
// other one updated.
template <class Entry, class Status>
void applyLifetimePushRule(Status& status, bool lifetimeIsZero) {
    using State = StateOf<Entry>;
    if (lifetimeIsZero) {
        status.state = raw<Entry>(State::STATE_INVALIDATED);
        ++status.invalidatedCount;
        return;
    }
    const bool fresh = isState<Entry>(status.state, State::STATE_INITIAL) ||
                       isState<Entry>(status.state, State::STATE_INVALIDATED);
    status.state = raw<Entry>(fresh ? State::STATE_NEW : State::STATE_UPDATED);
}

template <class Entry>
bool isNewOrUpdated(uint32_t state) {
    using State = StateOf<Entry>;
    return isState<Entry>(state, State::STATE_NEW) || isState<Entry>(state, State::STATE_UPDATED);
}

// Single-lifetime kinds (routers, DNS servers): the lifetime is the timer; 0 removes it.
template <class Config>
uint32_t lifetimeTimeoutAction(uint32_t lifetime, const char* word, const Config& config) {
    if (lifetime == 0) {
        SOL_TRACE(LAB, kCategory, "getTimeoutActionOnPush",
                  "[%s] %s with id: %s, received lifetime set to 0, timeout should be removed", getTraceTag(),
                  word, config.getName().c_str());
    }
    return lifetime;
}

// Networks and DNS servers: a second RA confirming an invalidation leaves the entry alone.
template <class Entry>
bool ignoresConfirmedInvalidation(const typename Entry::Status& status, uint32_t proposedLifetime,
                                  const typename Entry::Config& proposed, const char* word,
                                  uint32_t& timeout) {
    if (proposedLifetime != 0 || !isState<Entry>(status.state, StateOf<Entry>::STATE_INVALIDATED)) {
        return false;
    }
    SOL_TRACE(LAB, kCategory, "updateCfg",
              "[%s] Ignore %s config update. Entry is invalidated and proposed config is confirming "
              "invalidation: %s",
              getTraceTag(), word, toStr(proposed).c_str());
    timeout = TIMEOUT_KEEP;
    return true;
}

template <class Config>
void traceInvalidatedAfterExpiry(const char* word, const Config& config) {
    SOL_TRACE(LAB, kCategory, "updateCfg",
              "[%s] %s with ID %s: is invalidated by RA message  valid lifetime has already expired ",
              getTraceTag(), word, config.getName().c_str());
}

template <class Config>
bool storeIfDifferent(Config& stored, const Config& candidate) {
    if (!candidate.isNotEqual(stored)) {
        return false;
    }
    stored = candidate;
    return true;
}

// The timer fired before the entry's end (an early timer or one ordered for an older lifetime).
template <class Entry>
void traceEarlyNotification(const Entry& entry, const char* word, time_t now) {
    if (!SOL_TRACE_ENABLED(INFO)) {
        return;
    }
    char text[kTimeTextSize] = {};
    struct tm local {};
    if (localtime_r(&now, &local) != nullptr) {
        strftime(text, sizeof text, kTimeFormat, &local);
    }
    SOL_TRACE(
        INFO, kCategory, "notifyTimeoutExpires",
        "[%s] Special case: %s with id:%s, was notified before expiration time. current time: %s, entry : %s",
        getTraceTag(), word, entry.m_config.getName().c_str(), text, toStr(entry).c_str());
}

template <class Entry>
void traceTimeoutStateChange(const Entry& entry, const char* word, uint32_t oldState) {
    SOL_TRACE(INFO, kCategory, "notifyTimeoutExpires",
              "[%s] %s with id:%s, has changed state due to timeout: %s -> %s", getTraceTag(), word,
              entry.m_config.getName().c_str(), stateName<Entry>(oldState),
              stateName<Entry>(entry.m_status.state));
}

template <class Status>
void countExpiry(Status& status, uint32_t expiredState) {
    ++status.expiredCount;
    ++status.stateChangeCount;
    status.state = expiredState;
}

// Single-lifetime kinds: at the end of the lifetime a new or updated entry expires.
template <class Entry>
bool expireSingleLifetime(Entry& entry, uint32_t lifetime, const char* word, const char* earlyWord,
                          uint32_t& timeout, time_t now) {
    auto& status = entry.m_status;
    const int64_t expiry = status.timeoutStartTime + lifetime;
    if (now < expiry) {
        traceEarlyNotification(entry, earlyWord, now);
        timeout = secondsUntil(expiry, now);
        return false;
    }
    timeout = 0;
    const uint32_t oldState = status.state;
    if (!isNewOrUpdated<Entry>(oldState)) {
        SOL_TRACE(ERROR, kCategory, "notifyTimeoutExpires",
                  "[%s] %s with id: %s, has wrong state for timeout event is in state: %s", getTraceTag(),
                  word, entry.m_config.getName().c_str(), stateName<Entry>(oldState));
        return false;
    }
    countExpiry(status, raw<Entry>(StateOf<Entry>::STATE_EXPIRED));
    status.expiryTime = now;
    status.lastStateChangeTime = now;
    traceTimeoutStateChange(entry, word, oldState);
    return true;
}

}  // namespace

// ---- Router rules ----

bool RouterEntry::isInUse(uint32_t state) {
    using S = sol_router_state_t;
    return !(isState<RouterEntry>(state, S::STATE_INITIAL) || isState<RouterEntry>(state, S::STATE_EXPIRED) ||
             state == kRouterStateUnnamed || isState<RouterEntry>(state, S::STATE_INVALIDATED));
}

void RouterEntry::applyPushRule(Status& status) const {
    applyLifetimePushRule<RouterEntry>(status, m_config.routerLifetime == 0);
}

uint32_t RouterEntry::getTimeoutActionOnPush(const Config& config) const {
    return lifetimeTimeoutAction(config.routerLifetime, "Router", config);
}

bool RouterEntry::updateCfg(uint32_t& timeout, Status& /*status*/, const Config& proposed, time_t /*now*/) {
    // 0 in an RA means "unspecified": the last known value stays.
    Config merged = proposed;
    if (merged.reachableTime == 0) {
        merged.reachableTime = m_config.reachableTime;
    }
    if (merged.retransTimer == 0) {
        merged.retransTimer = m_config.retransTimer;
    }
    timeout = getTimeoutActionOnPush(proposed);
    return storeIfDifferent(m_config, merged);
}

bool RouterEntry::notifyTimeoutExpires(uint32_t& timeout, time_t now) {
    return expireSingleLifetime(*this, m_config.routerLifetime, "Router", "router", timeout, now);
}

// ---- Network rules ----

bool NetworkEntry::isInUse(uint32_t state) {
    using S = sol_network_state_t;
    return !(isState<NetworkEntry>(state, S::STATE_INITIAL) ||
             isState<NetworkEntry>(state, S::STATE_EXPIRED) ||
             isState<NetworkEntry>(state, S::STATE_INVALIDATED));
}

void NetworkEntry::applyPushRule(Status& status) const {
    applyLifetimePushRule<NetworkEntry>(status, m_config.validLifetime == 0);
    if (m_config.validLifetime != 0 && m_config.preferredLifetime == 0) {
        status.state = raw<NetworkEntry>(sol_network_state_t::STATE_DEPRECATED);
        ++status.deprecatedCount;
    }
}

uint32_t NetworkEntry::getTimeoutActionOnPush(const Config& config) const {
    // The timer first runs to the end of the preferred lifetime, then to the end of the valid one.
    if (config.validLifetime == 0) {
        return 0;
    }
    if (!config.isPreferredLifetimeInfinite() && config.preferredLifetime != 0) {
        return config.preferredLifetime;
    }
    if (config.isValidLifetimeInfinite()) {
        return 0;
    }
    return config.validLifetime;
}

bool NetworkEntry::updateCfg(uint32_t& timeout, Status& status, const Config& proposed, time_t now) {
    if (ignoresConfirmedInvalidation<NetworkEntry>(status, proposed.validLifetime, proposed, "network",
                                                   timeout)) {
        return false;
    }
    Config merged = proposed;
    // Once learnt, on-link is never unlearnt by a later RA.
    if (m_config.isFlagOnLinkSet()) {
        merged.flags |= FLAG_ON_LINK;
    }
    timeout = getTimeoutActionOnPush(proposed);
    const uint32_t proposedValid = proposed.validLifetime;
    if (!proposed.isValidLifetimeInfinite() && !proposed.isPreferredLifetimeInfinite()) {
        const uint32_t remaining = remainingLifetime(m_config.validLifetime, status.timeoutStartTime, now);
        SOL_TRACE(LAB, kCategory, "updateCfg",
                  "[%s] Updating lifetime for network %s: proposedLifetime: %d remainingLifetime %d)",
                  getTraceTag(), m_config.getName().c_str(), static_cast<int>(proposedValid),
                  static_cast<int>(remaining));
        if (proposedValid > std::min(remaining, kTwoHours)) {
            SOL_TRACE(LAB, kCategory, "updateCfg",
                      "[%s] Valid lifetime update for network %s: proposedLifetime is greater than 2 hours "
                      "or greater than remainingLifetime (%d)",
                      getTraceTag(), m_config.getName().c_str(), static_cast<int>(remaining));
        } else if (proposedValid == 0 && remaining == 0) {
            if (isState<NetworkEntry>(status.state, sol_network_state_t::STATE_EXPIRED)) {
                traceInvalidatedAfterExpiry("Network", m_config);
            }
        } else if (remaining > kTwoHours) {
            merged.validLifetime = kTwoHours;
            timeout = proposed.preferredLifetime != 0 ? proposed.preferredLifetime : kTwoHours;
            ++status.lifetimeResetCount;
            SOL_TRACE(INFO, kCategory, "updateCfg",
                      "[%s] Invalid lifetime update for network %s: remainingLifetime is more than 2h. Reset "
                      "valid_liftime to two hours ",
                      getTraceTag(), m_config.getName().c_str());
        } else {
            merged.validLifetime = m_config.validLifetime;
            timeout = proposed.preferredLifetime != 0 ? proposed.preferredLifetime : TIMEOUT_KEEP;
            ++status.lifetimeIgnoredCount;
            SOL_TRACE(
                INFO, kCategory, "updateCfg",
                "[%s] Invalid lifetime update for network %s: remainingLifetime is less than or equal to 2h, "
                "ignore valid_lifetime update",
                getTraceTag(), m_config.getName().c_str());
        }
    }
    return storeIfDifferent(m_config, merged);
}

bool NetworkEntry::notifyTimeoutExpires(uint32_t& timeout, time_t now) {
    using S = sol_network_state_t;
    timeout = 0;
    const uint32_t oldState = m_status.state;
    const int64_t start = m_status.timeoutStartTime;
    const bool preferredEnds = isNewOrUpdated<NetworkEntry>(oldState);
    const bool validEnds = isState<NetworkEntry>(oldState, S::STATE_DEPRECATED);
    if (!preferredEnds && !validEnds) {
        SOL_TRACE(ERROR, kCategory, "notifyTimeoutExpires",
                  "[%s] Network with id: %s, has wrong state for timeout event. Current  state is : %s",
                  getTraceTag(), m_config.getName().c_str(), stateName<NetworkEntry>(oldState));
        return false;
    }
    if (m_config.isPreferredLifetimeInfinite() || (validEnds && m_config.isValidLifetimeInfinite())) {
        SOL_TRACE(
            ERROR, kCategory, "notifyTimeoutExpires",
            "[%s] Network with id: %s, has wrong config for timeout event. Preferred or valid lifetime is "
            "infinite, state %s, config : %s",
            getTraceTag(), m_config.getName().c_str(), stateName<NetworkEntry>(oldState),
            toStr(m_config).c_str());
        return false;
    }
    const int64_t end = start + (preferredEnds ? m_config.preferredLifetime : m_config.validLifetime);
    if (now < end) {
        traceEarlyNotification(*this, "network", now);
        timeout = secondsUntil(end, now);
        return false;
    }
    bool changed = false;
    if (preferredEnds) {
        // Still valid: the client hears of it only when it expires.
        ++m_status.stateChangeCount;
        ++m_status.deprecatedCount;
        m_status.state = raw<NetworkEntry>(S::STATE_DEPRECATED);
        if (!m_config.isValidLifetimeInfinite() && m_config.validLifetime > m_config.preferredLifetime) {
            timeout = m_config.validLifetime - m_config.preferredLifetime;
        }
    } else {
        countExpiry(m_status, raw<NetworkEntry>(S::STATE_EXPIRED));
        changed = true;
    }
    if (timeout == 0) {
        m_status.expiryTime = now;
    } else if (timeout != TIMEOUT_KEEP) {
        m_status.expiryTime = now + timeout;
    }
    m_status.lastStateChangeTime = now;
    traceTimeoutStateChange(*this, "Network", oldState);
    return changed;
}

// ---- DNS server rules ----

bool DnsServerEntry::isInUse(uint32_t state) {
    using S = sol_dns_server_state_t;
    return !(isState<DnsServerEntry>(state, S::STATE_INITIAL) ||
             isState<DnsServerEntry>(state, S::STATE_EXPIRED) ||
             isState<DnsServerEntry>(state, S::STATE_INVALIDATED));
}

void DnsServerEntry::applyPushRule(Status& status) const {
    applyLifetimePushRule<DnsServerEntry>(status, m_config.lifetime == 0);
}

uint32_t DnsServerEntry::getTimeoutActionOnPush(const Config& config) const {
    return lifetimeTimeoutAction(config.lifetime, "DNS server", config);
}

bool DnsServerEntry::updateCfg(uint32_t& timeout, Status& status, const Config& proposed, time_t now) {
    if (ignoresConfirmedInvalidation<DnsServerEntry>(status, proposed.lifetime, proposed, "DNS server",
                                                     timeout)) {
        return false;
    }
    timeout = getTimeoutActionOnPush(proposed);
    if (proposed.lifetime == 0 && remainingLifetime(m_config.lifetime, status.timeoutStartTime, now) == 0 &&
        isState<DnsServerEntry>(status.state, sol_dns_server_state_t::STATE_EXPIRED)) {
        traceInvalidatedAfterExpiry("DNS Server", m_config);
    }
    return storeIfDifferent(m_config, proposed);
}

bool DnsServerEntry::notifyTimeoutExpires(uint32_t& timeout, time_t now) {
    return expireSingleLifetime(*this, m_config.lifetime, "DNS server", "DNS server", timeout, now);
}

// ---- Stores ----

namespace {

// One store per kind: the push, expiry, eviction and listing that all kinds share.
template <class Entry>
class EntryStore {
public:
    using Config = typename Entry::Config;
    using Status = typename Entry::Status;

    Entry* find(std::string_view name) {
        const auto it = entries.find(name);
        return it == entries.end() ? nullptr : &it->second;
    }

    // The entry of a configuration's name, looked up without building a string.
    Entry* find(const Config& config) {
        char name[SOL_ENTRY_NAME_SIZE];
        return find(writeEntryName(config, name));
    }

    Entry* push(const Config& config, bool& changed, uint32_t& timeout, const CacheMgr::Clock& clock) {
        changed = false;
        timeout = 0;
        SOL_TRACE(LAB, kCategory, "pushConfigAndGetEntry", "[%s] pushConfig for %s", getTraceTag(),
                  toStr(config).c_str());
        // The name is made a string only for a new entry: an RA mostly refreshes known ones.
        char nameText[SOL_ENTRY_NAME_SIZE];
        const std::string_view name = writeEntryName(config, nameText);
        auto it = entries.find(name);
        if (it != entries.end()) {
            changed = update(it->second, it->first, config, timeout, clock());
            return &it->second;
        }
        if (entries.size() >= maxSize && !evict(clock())) {
            SOL_TRACE(
                ERROR, kCategoryGeneral, "pushConfigAndGetEntry",
                "[%s] Can not insert entry into cache, cache is full. Max cache size =%zu, ignore entry %s.",
                getTraceTag(), maxSize, toStr(config).c_str());
            return nullptr;
        }
        Entry& entry = create(std::string(name), config, timeout, clock());
        changed = true;
        return &entry;
    }

    Entry* expire(const std::string& name, bool& changed, uint32_t& timeout, const CacheMgr::Clock& clock) {
        SOL_TRACE(LAB, kCategory, "notifyTimeoutExpiresAndGetEntry",
                  "[%s] notifyTimeoutExpiresAndGetEntry for %s", getTraceTag(), name.c_str());
        changed = false;
        timeout = 0;
        Entry* entry = find(name);
        if (entry == nullptr) {
            SOL_TRACE(ERROR, kCategory, "notifyTimeoutExpiresAndGetEntry",
                      "[%s] Cannot process Timeout expiration %s, object does not exist in cache",
                      getTraceTag(), name.c_str());
            return nullptr;
        }
        changed = entry->notifyTimeoutExpires(timeout, clock());
        return entry;
    }

    void appendAll(std::list<Entry*>& out) {
        for (auto& [name, entry] : entries) {
            out.push_back(&entry);
        }
    }

    void appendActive(std::list<Entry*>& out) {
        for (auto& [name, entry] : entries) {
            if (Entry::isInUse(entry.m_status.state)) {
                out.push_back(&entry);
            }
        }
        const auto byId = [](const Entry* a, const Entry* b) { return a->m_status.id < b->m_status.id; };
        // Name order is often id order already; std::list::sort costs its 64 scratch lists even then.
        if (!std::is_sorted(out.begin(), out.end(), byId)) {
            out.sort(byId);
        }
    }

    // Transparent comparison: look-ups by a name in a buffer need no string.
    std::map<std::string, Entry, std::less<>> entries;
    int32_t lastId = 0;
    size_t maxSize = 0;
    CacheCb* callback = nullptr;

private:
    Entry& create(std::string name, const Config& config, uint32_t& timeout, time_t now) {
        const uint32_t id = nextId();
        const auto it = entries.try_emplace(std::move(name)).first;
        Entry& entry = it->second;
        entry.m_config = config;
        timeout = entry.getTimeoutActionOnPush(config);
        Status status;
        status.createdTime = now;
        status.lastUpdateTime = now;
        status.lastStateChangeTime = now;
        status.lastConfigChangeTime = now;
        if (ordersTimer(timeout)) {
            status.timeoutStartTime = now;
            status.expiryTime = now + timeout;
        }
        status.id = id;
        entry.applyPushRule(status);
        entry.m_status = status;
        SOL_TRACE(INFO, kCategory, "init", "[%s] Created %s with id:%s, data: %s", getTraceTag(),
                  Entry::kKindWord, it->first.c_str(), toStr(entry).c_str());
        return entry;
    }

    bool update(Entry& entry, const std::string& name, const Config& config, uint32_t& timeout, time_t now) {
        Status status = entry.m_status;
        const bool cfgChanged = entry.updateCfg(timeout, status, config, now);
        if (cfgChanged) {
            SOL_TRACE(INFO, kCategory, "pushConfig", "[%s] Updated cfg for %s with id:%s, new config: %s",
                      getTraceTag(), Entry::kKindWord, name.c_str(), toStr(entry.m_config).c_str());
            ++status.configChangeCount;
            status.lastConfigChangeTime = now;
        }
        const uint32_t oldState = status.state;
        entry.applyPushRule(status);
        const bool stateChanged = status.state != oldState;
        if (stateChanged) {
            SOL_TRACE(INFO, kCategory, "pushConfig",
                      "[%s] Updated state for %s with id:%s due to pushconfig: %s -> %s", getTraceTag(),
                      Entry::kKindWord, name.c_str(), stateName<Entry>(oldState),
                      stateName<Entry>(status.state));
            ++status.stateChangeCount;
            status.lastStateChangeTime = now;
        }
        ++status.updateCount;
        if (ordersTimer(timeout)) {
            status.expiryTime = now + timeout;
            status.timeoutStartTime = now;
        }
        status.lastUpdateTime = now;
        entry.m_status = status;
        return cfgChanged || stateChanged;
    }

    // The victim is the entry not in use with the greatest name; an entry in use is never evicted.
    bool evict(time_t now) {
        for (auto it = entries.rbegin(); it != entries.rend(); ++it) {
            const Entry& entry = it->second;
            if (!Entry::isInUse(entry.m_status.state) && entry.m_status.lastUpdateTime <= now) {
                const std::string victim = it->first;
                // Relations are cleaned while the entry can still be looked up.
                if (callback != nullptr) {
                    callback->entryRemoved(Entry::kKind, victim);
                }
                return entries.erase(victim) != 0;
            }
        }
        return false;
    }

    // Ids are never reused; 0 stays "no entry" even if the counter ever wraps.
    uint32_t nextId() {
        uint32_t id = static_cast<uint32_t>(lastId) + 1;
        if (id == 0) {
            id = 1;
        }
        lastId = static_cast<int32_t>(id);
        return id;
    }
};

}  // namespace

class CacheMgrData : public CacheCb {
public:
    explicit CacheMgrData(CacheMgr::Clock clock) : m_clock(std::move(clock)) {}

    ~CacheMgrData() override {
        // Nothing is evicted during destruction, so no relation cleanup runs.
        m_routers.callback = nullptr;
        m_networks.callback = nullptr;
        m_dnsServers.callback = nullptr;
        m_dnsServers.entries.clear();
        m_networks.entries.clear();
        m_routers.entries.clear();
    }

    CacheMgrData(const CacheMgrData&) = delete;
    CacheMgrData& operator=(const CacheMgrData&) = delete;

    void entryRemoved(Kind kind, const std::string& name) override {
        switch (kind) {
            case ROUTER:
                removeRouterId(name);
                break;
            case NETWORK:
                removeIdFromRouters(m_networks, name, "network");
                break;
            case DNS_SERVER:
                removeIdFromRouters(m_dnsServers, name, "DNS server");
                break;
        }
    }

    template <class Other>
    void setRelation(const RouterEntry& router, const Other& other, EntryStore<Other>& store,
                     std::set<uint32_t> RouterEntry::*routerSide, const char* word) {
        RouterEntry* storedRouter = m_routers.find(router.m_config);
        Other* storedOther = store.find(other.m_config);
        if (storedRouter == nullptr || storedOther == nullptr) {
            SOL_TRACE(INFO, kCategory, "setRelation",
                      "[%s] There is no relation found in CacheEntry for router: %p and %s: %p",
                      getTraceTag(), static_cast<void*>(storedRouter), word, static_cast<void*>(storedOther));
            return;
        }
        (storedRouter->*routerSide).insert(storedOther->m_status.id);
        storedOther->routerIds.insert(storedRouter->m_status.id);
        // The first router related to an entry stays its primary.
        if (storedOther->primaryRouterId == 0) {
            storedOther->primaryRouterId = storedRouter->m_status.id;
        }
    }

    EntryStore<RouterEntry> m_routers;
    EntryStore<NetworkEntry> m_networks;
    EntryStore<DnsServerEntry> m_dnsServers;
    CacheMgr::Clock m_clock;

private:
    template <class Other>
    static void detachRouter(EntryStore<Other>& store, uint32_t routerId) {
        for (auto& [name, entry] : store.entries) {
            entry.routerIds.erase(routerId);
            if (entry.primaryRouterId == routerId) {
                entry.primaryRouterId = entry.routerIds.empty() ? 0 : *entry.routerIds.begin();
            }
        }
    }

    void removeRouterId(const std::string& name) {
        const RouterEntry* router = m_routers.find(name);
        if (router == nullptr) {
            return;
        }
        const uint32_t id = router->m_status.id;
        detachRouter(m_networks, id);
        detachRouter(m_dnsServers, id);
        SOL_TRACE(LAB, kCategory, "entryRemoved", "[%s] Removed %s Id %d", getTraceTag(), "router",
                  static_cast<int>(id));
    }

    // Network and DNS server ids are taken out of both of a router's sets, whichever kind went.
    template <class Other>
    void removeIdFromRouters(EntryStore<Other>& store, const std::string& name, const char* word) {
        const Other* other = store.find(name);
        if (other == nullptr) {
            return;
        }
        const uint32_t id = other->m_status.id;
        for (auto& [routerName, router] : m_routers.entries) {
            router.networkIds.erase(id);
            router.dnsServerIds.erase(id);
        }
        SOL_TRACE(LAB, kCategory, "entryRemoved", "[%s] Removed %s Id %d", getTraceTag(), word,
                  static_cast<int>(id));
    }
};

// ---- CacheMgr: a thin front over CacheMgrData ----

namespace {

time_t systemClock() {
    return time(nullptr);
}

// Runs `op` with local out-values and hands them to whichever out-pointers the caller gave.
template <class Op>
auto withOutParams(bool* changed, uint32_t* timeout, Op op) {
    bool changedValue = false;
    uint32_t timeoutValue = 0;
    auto* entry = op(changedValue, timeoutValue);
    if (changed != nullptr) {
        *changed = changedValue;
    }
    if (timeout != nullptr) {
        *timeout = timeoutValue;
    }
    return entry;
}

}  // namespace

CacheMgr::CacheMgr(Clock clock)
    : m_data(std::make_unique<CacheMgrData>(clock ? std::move(clock) : Clock(&systemClock))) {}

CacheMgr::~CacheMgr() = default;

time_t CacheMgr::now() const {
    return m_data->m_clock();
}

void CacheMgr::setMaxCacheSizes(size_t maxRouters, size_t maxNetworks, size_t maxDnsServers) {
    m_data->m_routers.maxSize = maxRouters;
    m_data->m_networks.maxSize = maxNetworks;
    m_data->m_dnsServers.maxSize = maxDnsServers;
    m_data->m_routers.callback = m_data.get();
    m_data->m_networks.callback = m_data.get();
    m_data->m_dnsServers.callback = m_data.get();
}

RouterEntry* CacheMgr::pushConfigAndGetEntry(const SolRouter::Config& config, bool* changed,
                                             uint32_t* timeout) {
    return withOutParams(changed, timeout, [&](bool& c, uint32_t& t) {
        return m_data->m_routers.push(config, c, t, m_data->m_clock);
    });
}

NetworkEntry* CacheMgr::pushConfigAndGetEntry(const SolNetwork::Config& config, bool* changed,
                                              uint32_t* timeout) {
    return withOutParams(changed, timeout, [&](bool& c, uint32_t& t) {
        return m_data->m_networks.push(config, c, t, m_data->m_clock);
    });
}

DnsServerEntry* CacheMgr::pushConfigAndGetEntry(const SolDnsServer::Config& config, bool* changed,
                                                uint32_t* timeout) {
    return withOutParams(changed, timeout, [&](bool& c, uint32_t& t) {
        return m_data->m_dnsServers.push(config, c, t, m_data->m_clock);
    });
}

RouterEntry* CacheMgr::notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout,
                                                       const std::string& name, RouterKind /*kind*/) {
    return withOutParams(changed, timeout, [&](bool& c, uint32_t& t) {
        return m_data->m_routers.expire(name, c, t, m_data->m_clock);
    });
}

NetworkEntry* CacheMgr::notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout,
                                                        const std::string& name, NetworkKind /*kind*/) {
    return withOutParams(changed, timeout, [&](bool& c, uint32_t& t) {
        return m_data->m_networks.expire(name, c, t, m_data->m_clock);
    });
}

DnsServerEntry* CacheMgr::notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout,
                                                          const std::string& name, DnsServerKind /*kind*/) {
    return withOutParams(changed, timeout, [&](bool& c, uint32_t& t) {
        return m_data->m_dnsServers.expire(name, c, t, m_data->m_clock);
    });
}

void CacheMgr::getRouters(std::list<RouterEntry*>& routers) {
    m_data->m_routers.appendAll(routers);
}

void CacheMgr::getActiveRouters(std::list<RouterEntry*>& routers) {
    m_data->m_routers.appendActive(routers);
}

void CacheMgr::getNetworks(std::list<NetworkEntry*>& networks) {
    m_data->m_networks.appendAll(networks);
}

void CacheMgr::getActiveNetworks(std::list<NetworkEntry*>& networks) {
    m_data->m_networks.appendActive(networks);
}

namespace {

void appendOfRouter(uint32_t routerId, const std::list<NetworkEntry*>& from, std::list<NetworkEntry*>& to) {
    for (NetworkEntry* network : from) {
        if (network->primaryRouterId == routerId) {
            to.push_back(network);
        }
    }
}

}  // namespace

void CacheMgr::getNetworksOfRouter(uint32_t routerId, std::list<NetworkEntry*>& networks) {
    std::list<NetworkEntry*> all;
    getNetworks(all);
    appendOfRouter(routerId, all, networks);
}

void CacheMgr::getActiveNetworksOfRouter(uint32_t routerId, std::list<NetworkEntry*>& networks) {
    std::list<NetworkEntry*> active;
    getActiveNetworks(active);
    appendOfRouter(routerId, active, networks);
}

void CacheMgr::getDnsServers(std::list<DnsServerEntry*>& dnsServers) {
    m_data->m_dnsServers.appendAll(dnsServers);
}

void CacheMgr::getActiveDnsServers(std::list<DnsServerEntry*>& dnsServers) {
    m_data->m_dnsServers.appendActive(dnsServers);
}

void CacheMgr::setRelation(const RouterEntry& router, const NetworkEntry& network) {
    m_data->setRelation(router, network, m_data->m_networks, &RouterEntry::networkIds, "network");
}

void CacheMgr::setRelation(const RouterEntry& router, const DnsServerEntry& dnsServer) {
    m_data->setRelation(router, dnsServer, m_data->m_dnsServers, &RouterEntry::dnsServerIds, "dnsServer");
}

}  // namespace solicd
