// The cache of routers, networks and DNS servers. It computes the timeout each entry's timer must
// have but runs no timers itself; "now" comes through a clock seam.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <set>
#include <string>

#include "SolTypes.h"

namespace solicd {

// Timeout action: 0 removes the entry's timer, TIMEOUT_KEEP leaves it, anything else (re)arms it
// for that many seconds.
inline constexpr uint32_t TIMEOUT_KEEP = 0x7fffffff;

// Told by a store just before it evicts an entry, so that relations naming it can be cleaned up.
class CacheCb {
public:
    enum Kind : uint32_t { ROUTER = 0, NETWORK = 1, DNS_SERVER = 2 };

    virtual ~CacheCb() = default;
    virtual void entryRemoved(Kind kind, const std::string& name) = 0;
};

// Each entry kind carries its own rules; the store that runs them is shared by all three.
// The rules work on a Status copy where the store writes the result back after a push.

class RouterEntry : public SolRouter {
public:
    static constexpr CacheCb::Kind kKind = CacheCb::ROUTER;
    static constexpr const char* kKindWord = "Router";

    ~RouterEntry() override = default;

    // In use: listed as active, never evicted.
    static bool isInUse(uint32_t state);
    // The state after a push, judged on the stored config.
    void applyPushRule(Status& status) const;
    uint32_t getTimeoutActionOnPush(const Config& config) const;
    // Merges the proposed config into the stored one; true when the stored config changed.
    bool updateCfg(uint32_t& timeout, Status& status, const Config& proposed, time_t now);
    // Applies an expired timer; true when the client must hear of the new state.
    bool notifyTimeoutExpires(uint32_t& timeout, time_t now);

    std::set<uint32_t> networkIds;
    std::set<uint32_t> dnsServerIds;
};

class NetworkEntry : public SolNetwork {
public:
    static constexpr CacheCb::Kind kKind = CacheCb::NETWORK;
    static constexpr const char* kKindWord = "Network";

    ~NetworkEntry() override = default;

    static bool isInUse(uint32_t state);
    void applyPushRule(Status& status) const;
    uint32_t getTimeoutActionOnPush(const Config& config) const;
    bool updateCfg(uint32_t& timeout, Status& status, const Config& proposed, time_t now);
    bool notifyTimeoutExpires(uint32_t& timeout, time_t now);

    uint32_t primaryRouterId = 0;
    std::set<uint32_t> routerIds;
};

class DnsServerEntry : public SolDnsServer {
public:
    static constexpr CacheCb::Kind kKind = CacheCb::DNS_SERVER;
    static constexpr const char* kKindWord = "DnsServer";

    ~DnsServerEntry() override = default;

    static bool isInUse(uint32_t state);
    void applyPushRule(Status& status) const;
    uint32_t getTimeoutActionOnPush(const Config& config) const;
    bool updateCfg(uint32_t& timeout, Status& status, const Config& proposed, time_t now);
    bool notifyTimeoutExpires(uint32_t& timeout, time_t now);

    uint32_t primaryRouterId = 0;
    std::set<uint32_t> routerIds;
};

class CacheMgrData;

// Tags that pick the store of a by-name operation (the name alone does not say the kind).
struct RouterKind {};
struct NetworkKind {};
struct DnsServerKind {};

class CacheMgr {
public:
    using Clock = std::function<time_t()>;

    // The clock defaults to time().
    explicit CacheMgr(Clock clock = {});
    virtual ~CacheMgr();
    CacheMgr(const CacheMgr&) = delete;
    CacheMgr& operator=(const CacheMgr&) = delete;

    // Null out-parameters are allowed wherever the caller does not need the answer.
    virtual void setMaxCacheSizes(size_t maxRouters, size_t maxNetworks, size_t maxDnsServers);
    virtual RouterEntry* pushConfigAndGetEntry(const SolRouter::Config& config, bool* changed,
                                               uint32_t* timeout);
    virtual NetworkEntry* pushConfigAndGetEntry(const SolNetwork::Config& config, bool* changed,
                                                uint32_t* timeout);
    virtual DnsServerEntry* pushConfigAndGetEntry(const SolDnsServer::Config& config, bool* changed,
                                                  uint32_t* timeout);
    virtual RouterEntry* notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout,
                                                         const std::string& name, RouterKind kind);
    virtual NetworkEntry* notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout,
                                                          const std::string& name, NetworkKind kind);
    virtual DnsServerEntry* notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout,
                                                            const std::string& name, DnsServerKind kind);
    // The list operations append to the caller's list; the pointers stay valid until the next push.
    virtual void getRouters(std::list<RouterEntry*>& routers);
    virtual void getActiveRouters(std::list<RouterEntry*>& routers);
    virtual void getNetworks(std::list<NetworkEntry*>& networks);
    virtual void getActiveNetworks(std::list<NetworkEntry*>& networks);
    virtual void getNetworksOfRouter(uint32_t routerId, std::list<NetworkEntry*>& networks);
    virtual void getActiveNetworksOfRouter(uint32_t routerId, std::list<NetworkEntry*>& networks);
    virtual void getDnsServers(std::list<DnsServerEntry*>& dnsServers);
    virtual void getActiveDnsServers(std::list<DnsServerEntry*>& dnsServers);
    virtual void setRelation(const RouterEntry& router, const NetworkEntry& network);
    virtual void setRelation(const RouterEntry& router, const DnsServerEntry& dnsServer);
    // The time on the cache's clock.
    virtual time_t now() const;

private:
    std::unique_ptr<CacheMgrData> m_data;
};

}  // namespace solicd
