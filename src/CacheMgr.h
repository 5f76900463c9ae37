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

class RouterEntry : public SolRouter {
public:
    ~RouterEntry() override = default;

    std::set<uint32_t> networkIds;
    std::set<uint32_t> dnsServerIds;
};

class NetworkEntry : public SolNetwork {
public:
    ~NetworkEntry() override = default;

    uint32_t primaryRouterId = 0;
    std::set<uint32_t> routerIds;
};

class DnsServerEntry : public SolDnsServer {
public:
    ~DnsServerEntry() override = default;

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

    virtual void setMaxCacheSizes(size_t maxRouters, size_t maxNetworks, size_t maxDnsServers);
    virtual RouterEntry* pushConfigAndGetEntry(const SolRouter::Config& config, bool* changed, uint32_t* timeout);
    virtual NetworkEntry* pushConfigAndGetEntry(const SolNetwork::Config& config, bool* changed, uint32_t* timeout);
    virtual DnsServerEntry* pushConfigAndGetEntry(const SolDnsServer::Config& config, bool* changed,
                                                  uint32_t* timeout);
    virtual RouterEntry* notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout, const std::string& name,
                                                         RouterKind kind);
    virtual NetworkEntry* notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout, const std::string& name,
                                                          NetworkKind kind);
    virtual DnsServerEntry* notifyTimeoutExpiresAndGetEntry(bool* changed, uint32_t* timeout,
                                                            const std::string& name, DnsServerKind kind);
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

private:
    std::unique_ptr<CacheMgrData> m_data;
};

}  // namespace solicd
