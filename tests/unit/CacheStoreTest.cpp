// The store shared by all kinds: ids, status time points, lists, relations, eviction, capacity,
// destruction, and that disabled traces cost no formatting.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <locale>

#include "CacheTestSupport.h"

namespace solicd::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class CacheStoreTest : public CacheTest {};

// ---- Ids ----

TEST_F(CacheStoreTest, FirstEntryOfEachKindGetsIdOne) {
    EXPECT_EQ(push(routerCfg("fe80::1", 1800))->m_status.id, 1u);
    EXPECT_EQ(push(networkCfg("2001:db8:1::", 86400, 14400))->m_status.id, 1u);
    EXPECT_EQ(push(dnsCfg("2001:db8::53", 600))->m_status.id, 1u);
    EXPECT_EQ(push(routerCfg("fe80::2", 1800))->m_status.id, 2u);
    EXPECT_EQ(push(routerCfg("fe80::1", 1800))->m_status.id, 1u);
}

TEST_F(CacheStoreTest, EntryRecreatedAfterEvictionGetsANewHigherId) {
    cache.setMaxCacheSizes(1, 1, 1);
    EXPECT_EQ(push(routerCfg("fe80::a", 0))->m_status.id, 1u);
    EXPECT_EQ(push(routerCfg("fe80::b", 0))->m_status.id, 2u);
    RouterEntry* again = push(routerCfg("fe80::a", 1800));
    ASSERT_NE(again, nullptr);
    EXPECT_TRUE(changed);
    EXPECT_EQ(again->m_status.id, 3u);
    EXPECT_EQ(again->m_status.state, static_cast<uint32_t>(sol_router_state_t::STATE_NEW));
    EXPECT_EQ(again->m_status.createdTime, kT0);
    EXPECT_EQ(again->m_status.updateCount, 0u);
}

TEST_F(CacheStoreTest, EachKindCountsItsIdsByItself) {
    push(routerCfg("fe80::1", 1800));
    push(routerCfg("fe80::2", 1800));
    push(dnsCfg("2001:db8::53", 600));
    EXPECT_EQ(push(networkCfg("2001:db8:1::", 86400, 14400))->m_status.id, 1u);
    EXPECT_EQ(push(dnsCfg("2001:db8::54", 600))->m_status.id, 2u);
}

// ---- Pushes and status time points ----

TEST_F(CacheStoreTest, IdenticalPushLeavesUnchangedButCountsAndRefreshesTheUpdate) {
    push(routerCfg("fe80::1", 1800));
    now = kT0 + 5;
    RouterEntry* r = push(routerCfg("fe80::1", 1800));
    EXPECT_TRUE(changed) << "STATE_NEW -> STATE_UPDATED is a change";
    now = kT0 + 9;
    TraceCapture capture;
    r = push(routerCfg("fe80::1", 1800));
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 1800u);
    const auto& s = r->m_status;
    EXPECT_EQ(s.updateCount, 2u);
    EXPECT_EQ(s.lastUpdateTime, kT0 + 9);
    EXPECT_EQ(s.createdTime, kT0);
    EXPECT_EQ(s.lastStateChangeTime, kT0 + 5);
    EXPECT_EQ(s.lastConfigChangeTime, kT0);
    EXPECT_EQ(s.configChangeCount, 0u);
    EXPECT_EQ(s.stateChangeCount, 1u);
    EXPECT_EQ(s.timeoutStartTime, kT0 + 9);
    EXPECT_EQ(s.expiryTime, kT0 + 9 + 1800);
    EXPECT_THAT(capture.messages(TraceEvent::INFO), IsEmpty());
}

TEST_F(CacheStoreTest, ConfigChangeIsCountedAndTimed) {
    push(networkCfg("2001:db8:1::", 86400, 14400));
    now = kT0 + 30;
    TraceCapture capture;
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 86400, 10000));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 10000u);
    EXPECT_EQ(n->m_status.configChangeCount, 1u);
    EXPECT_EQ(n->m_status.lastConfigChangeTime, kT0 + 30);
    EXPECT_EQ(n->m_status.stateChangeCount, 1u);
    EXPECT_EQ(n->m_status.updateCount, 1u);
    EXPECT_EQ(n->m_status.expiryTime, kT0 + 30 + 10000);
    EXPECT_THAT(capture.messages(TraceEvent::INFO),
                ElementsAre(msg("pushConfig",
                                "Updated cfg for Network with id:network/2001:db8:1::/64, new "
                                "config: {prefix: 2001:db8:1::, prefixLength: 64, validLifetime: "
                                "86400, preferredLifetime: 10000, flags: 0x30}"),
                            msg("pushConfig",
                                "Updated state for Network with id:network/2001:db8:1::/64 due to "
                                "pushconfig: STATE_NEW -> STATE_UPDATED")));
}

TEST_F(CacheStoreTest, KeepTimeoutLeavesTheTimerPointsAlone) {
    push(networkCfg("2001:db8:1::", 3600, 1800));
    now = kT0 + 600;
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 600, 0));
    EXPECT_EQ(timeout, TIMEOUT_KEEP);
    EXPECT_EQ(n->m_status.timeoutStartTime, kT0);
    EXPECT_EQ(n->m_status.expiryTime, kT0 + 1800);
    EXPECT_EQ(n->m_status.lastUpdateTime, kT0 + 600);
}

TEST_F(CacheStoreTest, NullOutParametersAreAccepted) {
    EXPECT_NE(cache.pushConfigAndGetEntry(routerCfg("fe80::1", 1800), nullptr, nullptr), nullptr);
    EXPECT_NE(cache.pushConfigAndGetEntry(networkCfg("2001:db8:1::", 600, 300), nullptr, nullptr), nullptr);
    EXPECT_NE(cache.pushConfigAndGetEntry(dnsCfg("2001:db8::53", 600), nullptr, nullptr), nullptr);
    EXPECT_NE(cache.notifyTimeoutExpiresAndGetEntry(nullptr, nullptr, "router/fe80::1", RouterKind{}),
              nullptr);
    EXPECT_EQ(cache.notifyTimeoutExpiresAndGetEntry(nullptr, nullptr, "network/x", NetworkKind{}), nullptr);
}

TEST_F(CacheStoreTest, DefaultClockIsTheSystemTime) {
    CacheMgr real;
    real.setMaxCacheSizes(1, 1, 1);
    const time_t before = time(nullptr);
    RouterEntry* r = real.pushConfigAndGetEntry(routerCfg("fe80::1", 60), nullptr, nullptr);
    const time_t after = time(nullptr);
    ASSERT_NE(r, nullptr);
    EXPECT_GE(r->m_status.createdTime, before);
    EXPECT_LE(r->m_status.createdTime, after);
}

// ---- Expiry by name ----

TEST_F(CacheStoreTest, ExpiryForAnEvictedNameReturnsNullAndChangesNothing) {
    cache.setMaxCacheSizes(1, 1, 1);
    push(routerCfg("fe80::1", 0));
    RouterEntry* survivor = push(routerCfg("fe80::2", 1800));
    push(networkCfg("2001:db8:1::", 0, 0));
    push(networkCfg("2001:db8:2::", 600, 300));
    push(dnsCfg("2001:db8::53", 0));
    push(dnsCfg("2001:db8::54", 600));
    const SolRouter::Status before = survivor->m_status;

    TraceCapture capture;
    changed = true;
    timeout = 7;
    EXPECT_EQ(expire("router/fe80::1", RouterKind{}), nullptr);
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(expire("network/2001:db8:1::/64", NetworkKind{}), nullptr);
    EXPECT_EQ(expire("dns/2001:db8::53", DnsServerKind{}), nullptr);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::LAB, "ADDR_IPV6",
                          msg("notifyTimeoutExpiresAndGetEntry",
                              "notifyTimeoutExpiresAndGetEntry for router/fe80::1")),
                    Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          msg("notifyTimeoutExpiresAndGetEntry",
                              "Cannot process Timeout expiration router/fe80::1, object does not exist in "
                              "cache")),
                    Trace(TraceEvent::LAB, "ADDR_IPV6",
                          msg("notifyTimeoutExpiresAndGetEntry",
                              "notifyTimeoutExpiresAndGetEntry for network/2001:db8:1::/64")),
                    Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          msg("notifyTimeoutExpiresAndGetEntry",
                              "Cannot process Timeout expiration network/2001:db8:1::/64, object does not "
                              "exist in cache")),
                    Trace(TraceEvent::LAB, "ADDR_IPV6",
                          msg("notifyTimeoutExpiresAndGetEntry",
                              "notifyTimeoutExpiresAndGetEntry for dns/2001:db8::53")),
                    Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          msg("notifyTimeoutExpiresAndGetEntry",
                              "Cannot process Timeout expiration dns/2001:db8::53, object does not exist in "
                              "cache"))));
    EXPECT_EQ(std::memcmp(&before.data(), &survivor->m_status.data(), sizeof(sol_status_t)), 0);
}

TEST_F(CacheStoreTest, ExpiryLooksTheNameUpInTheKindItIsAskedFor) {
    push(routerCfg("fe80::1", 60));
    now = kT0 + 60;
    EXPECT_EQ(expire("router/fe80::1", NetworkKind{}), nullptr);
    EXPECT_EQ(expire("router/fe80::1", DnsServerKind{}), nullptr);
    EXPECT_NE(expire("router/fe80::1", RouterKind{}), nullptr);
    EXPECT_TRUE(changed);
}

// ---- Lists ----

TEST_F(CacheStoreTest, ListsAppendAllInNameOrderAndActiveOnesSortedById) {
    RouterEntry* r2 = push(routerCfg("fe80::2", 1800));    // id 1
    RouterEntry* r10 = push(routerCfg("fe80::10", 1800));  // id 2, sorts first by name
    RouterEntry* r3 = push(routerCfg("fe80::3", 0));       // id 3, invalidated

    RouterEntry outsider;
    std::list<RouterEntry*> all{&outsider};
    cache.getRouters(all);
    EXPECT_THAT(all, ElementsAre(&outsider, r10, r2, r3));

    std::list<RouterEntry*> active;
    cache.getActiveRouters(active);
    EXPECT_THAT(active, ElementsAre(r2, r10));
}

TEST_F(CacheStoreTest, ActiveListSortsTheWholeCallerListStably) {
    push(routerCfg("fe80::2", 1800));
    RouterEntry* r10 = push(routerCfg("fe80::10", 1800));  // id 2
    RouterEntry* r1 = cache.pushConfigAndGetEntry(routerCfg("fe80::2", 1800), nullptr, nullptr);
    RouterEntry early;
    early.m_status.id = 2;
    RouterEntry late;
    late.m_status.id = 9;
    std::list<RouterEntry*> list{&late, &early};
    cache.getActiveRouters(list);
    // The caller's id-2 entry stays ahead of the cache's id-2 entry.
    EXPECT_THAT(list, ElementsAre(r1, &early, r10, &late));
}

TEST_F(CacheStoreTest, ActiveListsLeaveOutEntriesNotInUse) {
    using NS = sol_network_state_t;
    RouterEntry* rNew = push(routerCfg("fe80::1", 60));
    RouterEntry* rUpdated = push(routerCfg("fe80::2", 60));
    push(routerCfg("fe80::2", 60));
    push(routerCfg("fe80::3", 0));
    push(routerCfg("fe80::4", 30));
    NetworkEntry* nNew = push(networkCfg("2001:db8:1::", 600, 300));
    NetworkEntry* nDeprecated = push(networkCfg("2001:db8:2::", 600, 0));
    push(networkCfg("2001:db8:3::", 0, 0));
    push(networkCfg("2001:db8:4::", 30, 30));
    DnsServerEntry* dNew = push(dnsCfg("2001:db8::1", 600));
    push(dnsCfg("2001:db8::2", 0));
    push(dnsCfg("2001:db8::3", 30));
    now = kT0 + 30;
    expire("router/fe80::4", RouterKind{});
    expire("network/2001:db8:4::/64", NetworkKind{});
    expire("network/2001:db8:4::/64", NetworkKind{});
    expire("dns/2001:db8::3", DnsServerKind{});
    ASSERT_EQ(listOf(&CacheMgr::getNetworks, cache).back()->m_status.state,
              static_cast<uint32_t>(NS::STATE_EXPIRED));

    EXPECT_THAT(listOf(&CacheMgr::getActiveRouters, cache), ElementsAre(rNew, rUpdated));
    EXPECT_THAT(listOf(&CacheMgr::getActiveNetworks, cache), ElementsAre(nNew, nDeprecated));
    EXPECT_THAT(listOf(&CacheMgr::getActiveDnsServers, cache), ElementsAre(dNew));
    EXPECT_EQ(listOf(&CacheMgr::getRouters, cache).size(), 4u);
    EXPECT_EQ(listOf(&CacheMgr::getNetworks, cache).size(), 4u);
    EXPECT_EQ(listOf(&CacheMgr::getDnsServers, cache).size(), 3u);
}

TEST_F(CacheStoreTest, NetworksOfARouterAreThoseItIsPrimaryFor) {
    RouterEntry* r1 = push(routerCfg("fe80::1", 1800));
    RouterEntry* r2 = push(routerCfg("fe80::2", 1800));
    NetworkEntry* nB = push(networkCfg("2001:db8:b::", 600, 300));
    NetworkEntry* nA = push(networkCfg("2001:db8:a::", 600, 300));
    NetworkEntry* nC = push(networkCfg("2001:db8:c::", 0, 0));
    cache.setRelation(*r1, *nB);
    cache.setRelation(*r1, *nA);
    cache.setRelation(*r1, *nC);
    cache.setRelation(*r2, *nA);

    std::list<NetworkEntry*> of1{nullptr};
    cache.getNetworksOfRouter(r1->m_status.id, of1);
    EXPECT_THAT(of1, ElementsAre(nullptr, nA, nB, nC));
    std::list<NetworkEntry*> active1;
    cache.getActiveNetworksOfRouter(r1->m_status.id, active1);
    EXPECT_THAT(active1, ElementsAre(nB, nA));
    EXPECT_THAT(listOf(&CacheMgr::getNetworks, cache), ElementsAre(nA, nB, nC));
    std::list<NetworkEntry*> of2;
    cache.getNetworksOfRouter(r2->m_status.id, of2);
    EXPECT_THAT(of2, IsEmpty());
}

// A replacement of the network lists must be what the per-router lists read.
class FilteringCache : public CacheMgr {
public:
    using CacheMgr::CacheMgr;
    void getNetworks(std::list<NetworkEntry*>& networks) override {
        ++allCalls;
        networks.push_back(&extra);
    }
    void getActiveNetworks(std::list<NetworkEntry*>& networks) override {
        ++activeCalls;
        networks.push_back(&extra);
    }
    NetworkEntry extra;
    int allCalls = 0;
    int activeCalls = 0;
};

TEST_F(CacheStoreTest, NetworksOfARouterReadTheListsThroughTheObjectsOwnOperations) {
    FilteringCache derived([this] { return now; });
    derived.setMaxCacheSizes(4, 4, 4);
    RouterEntry* r = derived.pushConfigAndGetEntry(routerCfg("fe80::1", 60), nullptr, nullptr);
    NetworkEntry* n = derived.pushConfigAndGetEntry(networkCfg("2001:db8:1::", 600, 300), nullptr, nullptr);
    derived.setRelation(*r, *n);
    derived.extra.primaryRouterId = r->m_status.id;

    std::list<NetworkEntry*> all;
    derived.getNetworksOfRouter(r->m_status.id, all);
    EXPECT_THAT(all, ElementsAre(&derived.extra));
    std::list<NetworkEntry*> active;
    derived.getActiveNetworksOfRouter(r->m_status.id, active);
    EXPECT_THAT(active, ElementsAre(&derived.extra));
    EXPECT_EQ(derived.allCalls, 1);
    EXPECT_EQ(derived.activeCalls, 1);
}

// ---- Relations ----

TEST_F(CacheStoreTest, RelationLinksBothSidesAndTheFirstRouterStaysPrimary) {
    RouterEntry* r1 = push(routerCfg("fe80::1", 1800));
    RouterEntry* r2 = push(routerCfg("fe80::2", 1800));
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 600, 300));
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 600));
    cache.setRelation(*r2, *n);
    cache.setRelation(*r2, *d);
    TraceCapture capture;
    cache.setRelation(*r1, *n);
    cache.setRelation(*r1, *d);
    EXPECT_THAT(n->routerIds, ElementsAre(1u, 2u));
    EXPECT_THAT(d->routerIds, ElementsAre(1u, 2u));
    EXPECT_EQ(n->primaryRouterId, 2u);
    EXPECT_EQ(d->primaryRouterId, 2u);
    EXPECT_THAT(r1->networkIds, ElementsAre(1u));
    EXPECT_THAT(r1->dnsServerIds, ElementsAre(1u));
    EXPECT_THAT(r2->networkIds, ElementsAre(1u));
    EXPECT_THAT(capture.records(), IsEmpty());
}

TEST_F(CacheStoreTest, SameRelationTwiceChangesNothingTheSecondTime) {
    RouterEntry* r = push(routerCfg("fe80::1", 1800));
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 600, 300));
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 600));
    cache.setRelation(*r, *n);
    cache.setRelation(*r, *d);
    const auto networkIds = r->networkIds;
    const auto dnsIds = r->dnsServerIds;
    const auto nRouters = n->routerIds;
    const auto dRouters = d->routerIds;
    cache.setRelation(*r, *n);
    cache.setRelation(*r, *d);
    EXPECT_EQ(r->networkIds, networkIds);
    EXPECT_EQ(r->dnsServerIds, dnsIds);
    EXPECT_EQ(n->routerIds, nRouters);
    EXPECT_EQ(d->routerIds, dRouters);
    EXPECT_EQ(n->primaryRouterId, 1u);
    EXPECT_EQ(d->primaryRouterId, 1u);
}

TEST_F(CacheStoreTest, RelationWithAMissingEntryIsTracedWithTheLookedUpAddresses) {
    RouterEntry* r = push(routerCfg("fe80::1", 1800));
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 600, 300));
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 600));
    RouterEntry strangerRouter;
    strangerRouter.m_config = routerCfg("fe80::99", 1800);
    NetworkEntry strangerNetwork;
    strangerNetwork.m_config = networkCfg("2001:db8:99::", 600, 300);
    DnsServerEntry strangerDns;
    strangerDns.m_config = dnsCfg("2001:db8::99", 600);

    TraceCapture capture;
    cache.setRelation(*r, strangerNetwork);
    cache.setRelation(strangerRouter, *n);
    cache.setRelation(strangerRouter, *d);
    cache.setRelation(*r, strangerDns);
    const std::string none = pointerText(nullptr);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::INFO, "ADDR_IPV6",
                          msg("setRelation", "There is no relation found in CacheEntry for router: " +
                                                 pointerText(r) + " and network: " + none)),
                    Trace(TraceEvent::INFO, "ADDR_IPV6",
                          msg("setRelation", "There is no relation found in CacheEntry for router: " + none +
                                                 " and network: " + pointerText(n))),
                    Trace(TraceEvent::INFO, "ADDR_IPV6",
                          msg("setRelation", "There is no relation found in CacheEntry for router: " + none +
                                                 " and dnsServer: " + pointerText(d))),
                    Trace(TraceEvent::INFO, "ADDR_IPV6",
                          msg("setRelation", "There is no relation found in CacheEntry for router: " +
                                                 pointerText(r) + " and dnsServer: " + none))));
    EXPECT_EQ(none, "(nil)");
    EXPECT_THAT(r->networkIds, IsEmpty());
    EXPECT_THAT(r->dnsServerIds, IsEmpty());
    EXPECT_THAT(n->routerIds, IsEmpty());
    EXPECT_EQ(n->primaryRouterId, 0u);
    EXPECT_EQ(d->primaryRouterId, 0u);
}

TEST_F(CacheStoreTest, RelationUsesTheCachedEntriesFoundByName) {
    RouterEntry* r = push(routerCfg("fe80::1", 1800));
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 600, 300));
    RouterEntry copyOfRouter;
    copyOfRouter.m_config = r->m_config;
    NetworkEntry copyOfNetwork;
    copyOfNetwork.m_config = n->m_config;
    cache.setRelation(copyOfRouter, copyOfNetwork);
    EXPECT_THAT(r->networkIds, ElementsAre(1u));
    EXPECT_EQ(n->primaryRouterId, 1u);
    EXPECT_THAT(copyOfRouter.networkIds, IsEmpty());
}

// ---- Eviction ----

TEST_F(CacheStoreTest, UnsizedCacheRefusesEveryEntry) {
    CacheMgr unsized([this] { return now; });
    TraceCapture capture;
    EXPECT_EQ(unsized.pushConfigAndGetEntry(routerCfg("fe80::1", 60), &changed, &timeout), nullptr);
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_THAT(
        capture.messages(TraceEvent::ERROR),
        ElementsAre(msg("pushConfigAndGetEntry",
                        "Can not insert entry into cache, cache is full. Max cache size =0, ignore entry "
                        "{address: fe80::1, reachableTime: 0, retransTimer: 0, routerLifetime: 60, flags: "
                        "0x0}.")));
}

TEST_F(CacheStoreTest, EvictionTakesTheGreatestNameAmongEntriesNotInUse) {
    cache.setMaxCacheSizes(4, 4, 4);
    push(routerCfg("fe80::5", 0));
    push(routerCfg("fe80::9", 60));
    push(routerCfg("fe80::7", 0));
    push(routerCfg("fe80::8", 60));  // active, greatest evictable would be fe80::7
    TraceCapture capture;
    RouterEntry* r = push(routerCfg("fe80::1", 60));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->m_status.id, 5u);
    std::list<std::string> names;
    for (RouterEntry* e : listOf(&CacheMgr::getRouters, cache)) {
        names.push_back(e->m_config.getName());
    }
    EXPECT_THAT(names, ElementsAre("router/fe80::1", "router/fe80::5", "router/fe80::8", "router/fe80::9"));
    EXPECT_TRUE(capture.contains(TraceEvent::LAB, "ADDR_IPV6", msg("entryRemoved", "Removed router Id 3")));
}

TEST_F(CacheStoreTest, EntryUpdatedInTheFutureIsNotEvicted) {
    cache.setMaxCacheSizes(1, 1, 1);
    now = kT0 + 100;
    push(routerCfg("fe80::1", 0));
    now = kT0;  // the clock stepped back
    TraceCapture capture;
    EXPECT_EQ(push(routerCfg("fe80::2", 60)), nullptr);
    EXPECT_EQ(capture.messages(TraceEvent::ERROR).size(), 1u);
    now = kT0 + 100;
    EXPECT_NE(push(routerCfg("fe80::2", 60)), nullptr);
}

TEST_F(CacheStoreTest, EvictedRouterHandsPrimaryToTheSmallestRemainingRouterOrNone) {
    cache.setMaxCacheSizes(4, 4, 4);
    RouterEntry* r1 = push(routerCfg("fe80::1", 60));
    RouterEntry* r2 = push(routerCfg("fe80::2", 60));
    RouterEntry* r3 = push(routerCfg("fe80::3", 60));
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 600, 300));
    NetworkEntry* lone = push(networkCfg("2001:db8:2::", 600, 300));
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 600));
    cache.setRelation(*r1, *n);
    cache.setRelation(*r3, *n);
    cache.setRelation(*r2, *n);
    cache.setRelation(*r1, *d);
    cache.setRelation(*r3, *d);
    cache.setRelation(*r1, *lone);
    push(routerCfg("fe80::4", 60));

    push(routerCfg("fe80::1", 0));  // invalidated: evictable
    TraceCapture capture;
    ASSERT_NE(push(routerCfg("fe80::5", 60)), nullptr);
    EXPECT_THAT(n->routerIds, ElementsAre(2u, 3u));
    EXPECT_EQ(n->primaryRouterId, 2u);
    EXPECT_THAT(d->routerIds, ElementsAre(3u));
    EXPECT_EQ(d->primaryRouterId, 3u);
    EXPECT_THAT(lone->routerIds, IsEmpty());
    EXPECT_EQ(lone->primaryRouterId, 0u);
    // The relations are cleaned before the new router exists.
    ASSERT_GE(capture.records().size(), 3u);
    EXPECT_EQ(capture.records()[1],
              Trace(TraceEvent::LAB, "ADDR_IPV6", msg("entryRemoved", "Removed router Id 1")));
    EXPECT_EQ(capture.records()[2].message.rfind("init(): ", 0), 0u) << capture.records()[2];

    push(routerCfg("fe80::3", 0));
    ASSERT_NE(push(routerCfg("fe80::6", 60)), nullptr);
    EXPECT_EQ(d->primaryRouterId, 0u);
    EXPECT_THAT(d->routerIds, IsEmpty());
    EXPECT_EQ(n->primaryRouterId, 2u);
}

TEST_F(CacheStoreTest, EvictingANetworkErasesItsIdFromBothSetsOfEveryRouter) {
    cache.setMaxCacheSizes(4, 1, 4);
    RouterEntry* r = push(routerCfg("fe80::1", 60));
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 0, 0));  // id 1, evictable
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 600));     // id 1 as well
    cache.setRelation(*r, *n);
    cache.setRelation(*r, *d);
    TraceCapture capture;
    ASSERT_NE(push(networkCfg("2001:db8:2::", 600, 300)), nullptr);
    EXPECT_THAT(r->networkIds, IsEmpty());
    // Ids of the two kinds are counted apart, yet both sets lose the number: kept on purpose.
    EXPECT_THAT(r->dnsServerIds, IsEmpty());
    EXPECT_THAT(d->routerIds, ElementsAre(1u));
    EXPECT_TRUE(capture.contains(TraceEvent::LAB, "ADDR_IPV6", msg("entryRemoved", "Removed network Id 1")));
}

TEST_F(CacheStoreTest, EvictingADnsServerErasesItsIdFromBothSetsOfEveryRouter) {
    cache.setMaxCacheSizes(4, 4, 1);
    RouterEntry* r = push(routerCfg("fe80::1", 60));
    NetworkEntry* n = push(networkCfg("2001:db8:1::", 600, 300));
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 0));
    cache.setRelation(*r, *n);
    cache.setRelation(*r, *d);
    TraceCapture capture;
    ASSERT_NE(push(dnsCfg("2001:db8::54", 600)), nullptr);
    EXPECT_THAT(r->dnsServerIds, IsEmpty());
    EXPECT_THAT(r->networkIds, IsEmpty());
    EXPECT_EQ(n->primaryRouterId, 1u);
    EXPECT_TRUE(
        capture.contains(TraceEvent::LAB, "ADDR_IPV6", msg("entryRemoved", "Removed DNS server Id 1")));
}

TEST_F(CacheStoreTest, DestroyingTheCacheRunsNoRelationCleanup) {
    TraceCapture capture;
    {
        CacheMgr doomed([this] { return now; });
        doomed.setMaxCacheSizes(2, 2, 2);
        RouterEntry* r = doomed.pushConfigAndGetEntry(routerCfg("fe80::1", 0), nullptr, nullptr);
        NetworkEntry* n = doomed.pushConfigAndGetEntry(networkCfg("2001:db8:1::", 0, 0), nullptr, nullptr);
        DnsServerEntry* d = doomed.pushConfigAndGetEntry(dnsCfg("2001:db8::53", 0), nullptr, nullptr);
        doomed.setRelation(*r, *n);
        doomed.setRelation(*r, *d);
        capture.clear();
    }
    EXPECT_THAT(capture.records(), IsEmpty());
}

// ---- Capacity, per kind ----

template <class E>
struct KindOf;

template <>
struct KindOf<RouterEntry> {
    using Tag = RouterKind;
    static constexpr size_t kCapacity = 64;
    static constexpr const char* kRemoved = "router";
    static std::list<RouterEntry*> all(CacheMgr& cache) { return listOf(&CacheMgr::getRouters, cache); }
    static SolRouter::Config config(unsigned i, uint32_t lifetime) {
        SolRouter::Config c = routerCfg("fe80::1:0", static_cast<uint16_t>(lifetime));
        c.address.bytes[14] = static_cast<uint8_t>(i >> 8);
        c.address.bytes[15] = static_cast<uint8_t>(i);
        return c;
    }
    // A neighbour of the other kind, related to `e`.
    static void relate(CacheMgr& cache, RouterEntry& e) {
        NetworkEntry* n =
            cache.pushConfigAndGetEntry(networkCfg("2001:db8:ffff::", 600, 300), nullptr, nullptr);
        cache.setRelation(e, *n);
    }
    static bool stillRelated(CacheMgr& cache, uint32_t id) {
        return listOf(&CacheMgr::getNetworks, cache).front()->routerIds.count(id) != 0;
    }
};

template <>
struct KindOf<NetworkEntry> {
    using Tag = NetworkKind;
    static constexpr size_t kCapacity = 128;
    static constexpr const char* kRemoved = "network";
    static std::list<NetworkEntry*> all(CacheMgr& cache) { return listOf(&CacheMgr::getNetworks, cache); }
    static SolNetwork::Config config(unsigned i, uint32_t lifetime) {
        SolNetwork::Config c = networkCfg("2001:db8::", lifetime, lifetime / 2);
        c.prefix.bytes[4] = static_cast<uint8_t>(i >> 8);
        c.prefix.bytes[5] = static_cast<uint8_t>(i);
        return c;
    }
    static void relate(CacheMgr& cache, NetworkEntry& e) {
        RouterEntry* r = cache.pushConfigAndGetEntry(routerCfg("fe80::ffff", 600), nullptr, nullptr);
        cache.setRelation(*r, e);
    }
    static bool stillRelated(CacheMgr& cache, uint32_t id) {
        return listOf(&CacheMgr::getRouters, cache).front()->networkIds.count(id) != 0;
    }
};

template <>
struct KindOf<DnsServerEntry> {
    using Tag = DnsServerKind;
    static constexpr size_t kCapacity = 128;
    static constexpr const char* kRemoved = "DNS server";
    static std::list<DnsServerEntry*> all(CacheMgr& cache) { return listOf(&CacheMgr::getDnsServers, cache); }
    static SolDnsServer::Config config(unsigned i, uint32_t lifetime) {
        SolDnsServer::Config c = dnsCfg("2001:db8::", lifetime);
        c.address.bytes[14] = static_cast<uint8_t>(i >> 8);
        c.address.bytes[15] = static_cast<uint8_t>(i);
        return c;
    }
    static void relate(CacheMgr& cache, DnsServerEntry& e) {
        RouterEntry* r = cache.pushConfigAndGetEntry(routerCfg("fe80::ffff", 600), nullptr, nullptr);
        cache.setRelation(*r, e);
    }
    static bool stillRelated(CacheMgr& cache, uint32_t id) {
        return listOf(&CacheMgr::getRouters, cache).front()->dnsServerIds.count(id) != 0;
    }
};

template <class E>
class CapacityTest : public CacheTest {
protected:
    using K = KindOf<E>;

    E* pushKind(unsigned i, uint32_t lifetime) { return push(K::config(i, lifetime)); }

    // Drives the entry's timers until it has expired.
    void expireFully(E& e) {
        now = kT0 + 1000000;
        for (int i = 0; i < 2 && e.m_status.state != 3; ++i) {
            expire(e.m_config.getName(), typename K::Tag{});
        }
        ASSERT_EQ(e.m_status.state, 3u) << "STATE_EXPIRED";
    }
};

using EntryKinds = ::testing::Types<RouterEntry, NetworkEntry, DnsServerEntry>;
TYPED_TEST_SUITE(CapacityTest, EntryKinds);

TYPED_TEST(CapacityTest, FullStoreOfActiveEntriesRefusesTheNextOne) {
    using K = KindOf<TypeParam>;
    for (unsigned i = 1; i <= K::kCapacity; ++i) {
        ASSERT_NE(this->pushKind(i, 600), nullptr) << i;
    }
    TraceCapture capture;
    const auto extra = K::config(K::kCapacity + 1, 600);
    this->changed = true;
    this->timeout = 9;
    EXPECT_EQ(this->push(extra), nullptr);
    EXPECT_FALSE(this->changed);
    EXPECT_EQ(this->timeout, 0u);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::LAB, "ADDR_IPV6",
                          msg("pushConfigAndGetEntry", "pushConfig for " + toStr(extra))),
                    Trace(TraceEvent::ERROR, "GENERAL",
                          msg("pushConfigAndGetEntry",
                              "Can not insert entry into cache, cache is full. Max cache size =" +
                                  std::to_string(K::kCapacity) + ", ignore entry " + toStr(extra) + "."))));
    EXPECT_EQ(K::all(this->cache).size(), K::kCapacity);
    // A known entry is still pushed while the store is full.
    EXPECT_NE(this->pushKind(1, 600), nullptr);
}

TYPED_TEST(CapacityTest, ExpiredEntryOfAFullStoreMakesRoomWithItsRelationsCleaned) {
    using K = KindOf<TypeParam>;
    std::vector<TypeParam*> entries;
    for (unsigned i = 1; i <= K::kCapacity; ++i) {
        entries.push_back(this->pushKind(i, 600));
    }
    TypeParam& victim = *entries[K::kCapacity / 2];
    const uint32_t victimId = victim.m_status.id;
    const std::string victimName = victim.m_config.getName();
    K::relate(this->cache, victim);
    ASSERT_TRUE(K::stillRelated(this->cache, victimId));
    this->expireFully(victim);

    TraceCapture capture;
    TypeParam* created = this->pushKind(K::kCapacity + 1, 600);
    ASSERT_NE(created, nullptr);
    EXPECT_TRUE(this->changed);
    EXPECT_EQ(created->m_status.id, K::kCapacity + 1);
    EXPECT_GT(created->m_status.id, victimId);
    EXPECT_FALSE(K::stillRelated(this->cache, victimId));
    const auto all = K::all(this->cache);
    EXPECT_EQ(all.size(), K::kCapacity);
    for (const TypeParam* e : all) {
        EXPECT_NE(e->m_config.getName(), victimName);
    }
    EXPECT_TRUE(capture.contains(
        TraceEvent::LAB, "ADDR_IPV6",
        msg("entryRemoved", std::string("Removed ") + K::kRemoved + " Id " + std::to_string(victimId))));
}

TEST_F(CacheStoreTest, SixtyFifthRouterIsRefusedWhileAllSixtyFourAreActive) {
    for (unsigned i = 1; i <= 64; ++i) {
        ASSERT_NE(push(KindOf<RouterEntry>::config(i, 1800)), nullptr);
    }
    TraceCapture capture;
    EXPECT_EQ(push(routerCfg("fe80::65", 1800)), nullptr);
    EXPECT_THAT(
        capture.messages(TraceEvent::ERROR),
        ElementsAre("pushConfigAndGetEntry(): [solicd.test] Can not insert entry into cache, cache is full. "
                    "Max cache size =64, ignore entry {address: fe80::65, reachableTime: 0, retransTimer: 0, "
                    "routerLifetime: 1800, flags: 0x0}."));
}

TEST_F(CacheStoreTest, GreatestNamedExpiredRouterIsEvictedFromAFullStore) {
    std::vector<RouterEntry*> routers;
    for (unsigned i = 1; i <= 64; ++i) {
        routers.push_back(push(KindOf<RouterEntry>::config(i, 1800)));
    }
    now = kT0 + 1800;
    expire(routers[9]->m_config.getName(), RouterKind{});   // fe80::1:a
    expire(routers[19]->m_config.getName(), RouterKind{});  // fe80::1:14
    ASSERT_GT(routers[9]->m_config.getName(), routers[19]->m_config.getName());
    const std::string survivor = routers[19]->m_config.getName();
    TraceCapture capture;
    RouterEntry* r = push(routerCfg("fe80::65", 1800));
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->m_status.id, 65u);
    EXPECT_TRUE(capture.contains(TraceEvent::LAB, "ADDR_IPV6", msg("entryRemoved", "Removed router Id 10")));
    EXPECT_NE(expire(survivor, RouterKind{}), nullptr);
}

// ---- Disabled traces cost nothing ----

// Counts every number a stream formats: printing a record formats several.
class CountingNumPut : public std::num_put<char> {
public:
    static inline int s_calls = 0;

protected:
    iter_type do_put(iter_type out, std::ios_base& str, char_type fill, long v) const override {
        ++s_calls;
        return std::num_put<char>::do_put(out, str, fill, v);
    }
    iter_type do_put(iter_type out, std::ios_base& str, char_type fill, unsigned long v) const override {
        ++s_calls;
        return std::num_put<char>::do_put(out, str, fill, v);
    }
    iter_type do_put(iter_type out, std::ios_base& str, char_type fill, long long v) const override {
        ++s_calls;
        return std::num_put<char>::do_put(out, str, fill, v);
    }
    iter_type do_put(iter_type out, std::ios_base& str, char_type fill, unsigned long long v) const override {
        ++s_calls;
        return std::num_put<char>::do_put(out, str, fill, v);
    }
};

class CountingLocale {
public:
    CountingLocale() : m_previous(std::locale::global(std::locale(std::locale(), new CountingNumPut))) {}
    ~CountingLocale() { std::locale::global(m_previous); }

private:
    std::locale m_previous;
};

TEST_F(CacheStoreTest, SteadyStatePushesFormatNothingWhileLabIsOff) {
    push(routerCfg("fe80::1", 1800));
    push(routerCfg("fe80::1", 1800));
    push(networkCfg("2001:db8:1::", 86400, 14400));
    push(networkCfg("2001:db8:1::", 86400, 14400));
    push(dnsCfg("2001:db8::53", 600));
    push(dnsCfg("2001:db8::53", 600));
    CountingLocale counting;
    const char* buffer = traceFormat(nullptr, nullptr, "%s", "sentinel");
    {
        TraceCapture withoutLab(trace::bit(TraceEvent::INFO) | trace::bit(TraceEvent::ERROR) |
                                trace::bit(TraceEvent::EXCEPTION));
        CountingNumPut::s_calls = 0;
        now = kT0 + 60;
        push(routerCfg("fe80::1", 1800));
        push(networkCfg("2001:db8:1::", 86400, 14400));
        push(dnsCfg("2001:db8::53", 600));
        EXPECT_FALSE(changed);
        EXPECT_EQ(CountingNumPut::s_calls, 0);
        EXPECT_STREQ(buffer, "sentinel");
        EXPECT_THAT(withoutLab.records(), IsEmpty());
    }
    {
        // The same pushes with LAB on print their configs: the counter sees it.
        TraceCapture withLab;
        push(routerCfg("fe80::1", 1800));
        EXPECT_GT(CountingNumPut::s_calls, 0);
        EXPECT_EQ(withLab.messages(TraceEvent::LAB).size(), 1u);
        const int afterRouter = CountingNumPut::s_calls;
        push(networkCfg("2001:db8:1::", 86400, 14400));
        EXPECT_GT(CountingNumPut::s_calls, afterRouter);
        const int afterNetwork = CountingNumPut::s_calls;
        push(dnsCfg("2001:db8::53", 600));
        EXPECT_GT(CountingNumPut::s_calls, afterNetwork);
    }
}

}  // namespace
}  // namespace solicd::test
