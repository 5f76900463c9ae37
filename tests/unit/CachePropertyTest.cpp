// Seeded random sequences of pushes, relations, expiries and clock moves: whatever happens, no
// relation or primary router id names a missing entry, no store exceeds its capacity and no id is
// handed out twice.
#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>

#include "CacheTestSupport.h"

namespace solicd::test {
namespace {

constexpr size_t kMaxRouters = 8;
constexpr size_t kMaxNetworks = 12;
constexpr size_t kMaxDnsServers = 10;
constexpr unsigned kSteps = 6000;

// Every id one kind ever handed out, and which name holds which id now.
struct IdLedger {
    std::map<std::string, uint32_t> live;
    uint32_t highest = 0;
    size_t created = 0;
    size_t vanished = 0;

    template <class E>
    void check(const std::list<E*>& entries, std::set<uint32_t>& ids) {
        std::map<std::string, uint32_t> now;
        for (const E* e : entries) {
            const uint32_t id = e->m_status.id;
            ASSERT_TRUE(ids.insert(id).second) << "id " << id << " held twice";
            const std::string name = e->m_config.getName();
            const auto known = live.find(name);
            if (known == live.end() || known->second != id) {
                ASSERT_GT(id, highest) << name << " got an id handed out before";
                highest = id;
                ++created;
            }
            now[name] = id;
        }
        for (const auto& [name, id] : live) {
            const auto still = now.find(name);
            vanished += still == now.end() || still->second != id ? 1 : 0;
        }
        live = std::move(now);
    }
};

class Sequence {
public:
    explicit Sequence(unsigned seed) : m_rng(seed) {
        m_cache.setMaxCacheSizes(kMaxRouters, kMaxNetworks, kMaxDnsServers);
    }

    void step() {
        switch (pick(10)) {
            case 0:
            case 1:
                pushRouter();
                break;
            case 2:
            case 3:
                pushNetwork();
                break;
            case 4:
                pushDnsServer();
                break;
            case 5:
            case 6:
                relate();
                break;
            case 7:
            case 8:
                expireOne();
                break;
            default:
                m_now += pick(900);
                break;
        }
    }

    void checkInvariants() {
        const auto routers = listOf(&CacheMgr::getRouters, m_cache);
        const auto networks = listOf(&CacheMgr::getNetworks, m_cache);
        const auto dnsServers = listOf(&CacheMgr::getDnsServers, m_cache);
        ASSERT_LE(routers.size(), kMaxRouters);
        ASSERT_LE(networks.size(), kMaxNetworks);
        ASSERT_LE(dnsServers.size(), kMaxDnsServers);

        std::set<uint32_t> routerIds, networkIds, dnsIds;
        m_routers.check(routers, routerIds);
        m_networks.check(networks, networkIds);
        m_dnsServers.check(dnsServers, dnsIds);

        std::map<uint32_t, const NetworkEntry*> networkById;
        for (const NetworkEntry* n : networks) {
            networkById[n->m_status.id] = n;
        }
        std::map<uint32_t, const DnsServerEntry*> dnsById;
        for (const DnsServerEntry* d : dnsServers) {
            dnsById[d->m_status.id] = d;
        }
        for (const RouterEntry* r : routers) {
            for (uint32_t id : r->networkIds) {
                ASSERT_TRUE(networkById.count(id)) << "router names missing network " << id;
                ASSERT_TRUE(networkById[id]->routerIds.count(r->m_status.id));
            }
            for (uint32_t id : r->dnsServerIds) {
                ASSERT_TRUE(dnsById.count(id)) << "router names missing DNS server " << id;
                ASSERT_TRUE(dnsById[id]->routerIds.count(r->m_status.id));
            }
        }
        checkRouterSide(networks, routerIds);
        checkRouterSide(dnsServers, routerIds);
    }

    const IdLedger& routers() const { return m_routers; }
    const IdLedger& networks() const { return m_networks; }
    const IdLedger& dnsServers() const { return m_dnsServers; }
    size_t refused() const { return m_refused; }

private:
    template <class E>
    static void checkRouterSide(const std::list<E*>& entries, const std::set<uint32_t>& routerIds) {
        for (const E* e : entries) {
            for (uint32_t id : e->routerIds) {
                ASSERT_TRUE(routerIds.count(id)) << e->m_config.getName() << " names missing router " << id;
            }
            if (e->primaryRouterId == 0) {
                ASSERT_TRUE(e->routerIds.empty()) << e->m_config.getName();
            } else {
                ASSERT_TRUE(e->routerIds.count(e->primaryRouterId)) << e->m_config.getName();
            }
        }
    }

    uint32_t pick(uint32_t n) { return std::uniform_int_distribution<uint32_t>(0, n - 1)(m_rng); }

    // Zero often enough to invalidate entries and make them evictable.
    uint32_t lifetime() { return pick(4) == 0 ? 0 : 1 + pick(1200); }

    void count(const void* entry) { m_refused += entry == nullptr ? 1 : 0; }

    void pushRouter() {
        SolRouter::Config c =
            routerCfg("fe80::", static_cast<uint16_t>(lifetime()), pick(3) * 1000, pick(2) * 500);
        c.address.bytes[15] = static_cast<uint8_t>(1 + pick(kMaxRouters * 2));
        count(m_cache.pushConfigAndGetEntry(c, nullptr, nullptr));
    }

    void pushNetwork() {
        const uint32_t valid = pick(10) == 0 ? kInfiniteLifetime : lifetime();
        const uint32_t preferred =
            valid == kInfiniteLifetime ? (pick(2) ? valid : 600) : (valid ? pick(valid) : 0);
        SolNetwork::Config c =
            networkCfg("2001:db8::", valid, preferred, pick(2) ? kAutoconf : FLAG_AUTONOMOUS);
        c.prefix.bytes[5] = static_cast<uint8_t>(1 + pick(kMaxNetworks * 2));
        count(m_cache.pushConfigAndGetEntry(c, nullptr, nullptr));
    }

    void pushDnsServer() {
        SolDnsServer::Config c = dnsCfg("2001:db8::", lifetime(), pick(3));
        c.address.bytes[15] = static_cast<uint8_t>(1 + pick(kMaxDnsServers * 2));
        count(m_cache.pushConfigAndGetEntry(c, nullptr, nullptr));
    }

    template <class E>
    E* any(const std::list<E*>& entries) {
        if (entries.empty()) {
            return nullptr;
        }
        auto it = entries.begin();
        std::advance(it, pick(static_cast<uint32_t>(entries.size())));
        return *it;
    }

    void relate() {
        RouterEntry* r = any(listOf(&CacheMgr::getRouters, m_cache));
        if (r == nullptr) {
            return;
        }
        if (pick(2) == 0) {
            if (NetworkEntry* n = any(listOf(&CacheMgr::getNetworks, m_cache))) {
                m_cache.setRelation(*r, *n);
            }
        } else if (DnsServerEntry* d = any(listOf(&CacheMgr::getDnsServers, m_cache))) {
            m_cache.setRelation(*r, *d);
        }
    }

    void expireOne() {
        switch (pick(3)) {
            case 0:
                if (RouterEntry* r = any(listOf(&CacheMgr::getRouters, m_cache))) {
                    m_now = std::max<time_t>(m_now, r->m_status.expiryTime);
                    m_cache.notifyTimeoutExpiresAndGetEntry(nullptr, nullptr, r->m_config.getName(),
                                                            RouterKind{});
                }
                break;
            case 1:
                if (NetworkEntry* n = any(listOf(&CacheMgr::getNetworks, m_cache))) {
                    m_now = std::max<time_t>(m_now, n->m_status.expiryTime);
                    m_cache.notifyTimeoutExpiresAndGetEntry(nullptr, nullptr, n->m_config.getName(),
                                                            NetworkKind{});
                }
                break;
            default:
                if (DnsServerEntry* d = any(listOf(&CacheMgr::getDnsServers, m_cache))) {
                    m_now = std::max<time_t>(m_now, d->m_status.expiryTime);
                    m_cache.notifyTimeoutExpiresAndGetEntry(nullptr, nullptr, d->m_config.getName(),
                                                            DnsServerKind{});
                }
                break;
        }
    }

    std::mt19937 m_rng;
    time_t m_now = kT0;
    CacheMgr m_cache{[this] { return m_now; }};
    IdLedger m_routers, m_networks, m_dnsServers;
    size_t m_refused = 0;
};

class CachePropertyTest : public ::testing::TestWithParam<unsigned> {};

TEST_P(CachePropertyTest, RelationsIdsAndCapacityStaySoundThroughRandomSequences) {
    Sequence sequence(GetParam());
    for (unsigned i = 0; i < kSteps; ++i) {
        sequence.step();
        sequence.checkInvariants();
        if (::testing::Test::HasFatalFailure()) {
            FAIL() << "seed " << GetParam() << ", step " << i;
        }
    }
    // The sequence really evicted and refused entries of every kind.
    EXPECT_GT(sequence.routers().vanished, 20u);
    EXPECT_GT(sequence.networks().vanished, 20u);
    EXPECT_GT(sequence.dnsServers().vanished, 20u);
    EXPECT_GT(sequence.refused(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Seeds, CachePropertyTest, ::testing::Values(1u, 2u, 3u, 20240601u));

}  // namespace
}  // namespace solicd::test
