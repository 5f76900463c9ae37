// The parser of the records' text forms: round trips over many random records of each kind, the
// cache dump as solicd lays it out, and an error with its offset for every damaged text.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "SolTypesParse.h"

using namespace solicd;

namespace {

constexpr int kRounds = 2000;

class RandomRecords {
public:
    explicit RandomRecords(uint64_t seed) : m_random(seed) {}

    template <class T>
    T any() {
        return static_cast<T>(m_random());
    }

    kt_ip_address_t address() {
        kt_ip_address_t a{};
        a.family = KT_AF_INET6;
        // Zero groups often, so that "::" and the dotted forms come up.
        for (size_t i = 0; i < sizeof a.bytes; i += 2) {
            if (m_random() % 3 != 0) {
                a.bytes[i] = any<uint8_t>();
                a.bytes[i + 1] = any<uint8_t>();
            }
        }
        return a;
    }

    template <class S>
    void status(S& s, std::initializer_list<uint32_t> states) {
        s.id = any<uint32_t>();
        s.state = *(states.begin() + m_random() % states.size());
        s.createdTime = any<int64_t>();
        s.lastUpdateTime = any<int64_t>();
        s.lastStateChangeTime = any<int64_t>();
        s.lastConfigChangeTime = any<int64_t>();
        s.timeoutStartTime = any<int64_t>();
        s.expiryTime = any<int64_t>();
        s.updateCount = any<uint64_t>();
        s.configChangeCount = any<uint64_t>();
        s.stateChangeCount = any<uint64_t>();
        s.invalidatedCount = any<uint64_t>();
        s.expiredCount = any<uint64_t>();
    }

    SolRouter router() {
        SolRouter r;
        r.m_config.address = address();
        r.m_config.reachableTime = any<uint32_t>();
        r.m_config.retransTimer = any<uint32_t>();
        r.m_config.routerLifetime = any<uint16_t>();
        r.m_config.flags = any<uint32_t>();
        status(r.m_status, {0, 1, 2, 3, 5});
        return r;
    }

    SolNetwork network() {
        SolNetwork n;
        n.m_config.prefix = address();
        n.m_config.prefixLength = any<uint32_t>() % 129;
        n.m_config.validLifetime = any<uint32_t>();
        n.m_config.preferredLifetime = any<uint32_t>();
        n.m_config.flags = any<uint32_t>();
        status(n.m_status, {0, 1, 2, 3, 4, 5});
        n.m_status.deprecatedCount = any<uint64_t>();
        n.m_status.lifetimeResetCount = any<uint64_t>();
        n.m_status.lifetimeIgnoredCount = any<uint64_t>();
        return n;
    }

    SolDnsServer dnsServer() {
        SolDnsServer d;
        d.m_config.index = any<uint32_t>();
        d.m_config.address = address();
        d.m_config.lifetime = any<uint32_t>();
        status(d.m_status, {0, 1, 2, 3, 4});
        return d;
    }

private:
    std::mt19937_64 m_random;
};

// Every field compared, byte for byte: the parts the text does not carry (padding) are zero in
// both, since the random records leave them as the constructors made them.
template <class Record>
void expectSameRecord(const Record& a, const Record& b) {
    EXPECT_EQ(std::memcmp(&a.m_config.data(), &b.m_config.data(), sizeof a.m_config.data()), 0) << toStr(a);
    EXPECT_EQ(std::memcmp(&a.m_status.data(), &b.m_status.data(), sizeof a.m_status.data()), 0) << toStr(a);
}

template <class Record, class Make>
void roundTrips(Make make) {
    for (int i = 0; i < kRounds; ++i) {
        const Record original = make();
        const std::string text = toStr(original);
        Record parsed;
        std::string error;
        ASSERT_TRUE(solParseRecord(text, parsed, error)) << error << " in " << text;
        expectSameRecord(original, parsed);
        EXPECT_EQ(toStr(parsed), text);
    }
}

TEST(SolTypesParse, RandomRoutersRoundTrip) {
    RandomRecords random(1);
    roundTrips<SolRouter>([&] { return random.router(); });
}

TEST(SolTypesParse, RandomNetworksRoundTrip) {
    RandomRecords random(2);
    roundTrips<SolNetwork>([&] { return random.network(); });
}

TEST(SolTypesParse, RandomDnsServersRoundTrip) {
    RandomRecords random(3);
    roundTrips<SolDnsServer>([&] { return random.dnsServer(); });
}

TEST(SolTypesParse, CountersRoundTrip) {
    RandomRecords random(4);
    for (int i = 0; i < kRounds; ++i) {
        SolCounter<sol_socket_counters_t> socket;
        socket.m_counters = {random.any<uint64_t>(), random.any<uint64_t>(), random.any<uint64_t>(),
                             random.any<uint64_t>()};
        SolCounter<sol_packet_counters_t> packet;
        packet.m_counters = {random.any<uint64_t>(), random.any<uint64_t>(), random.any<uint64_t>(),
                             random.any<uint64_t>()};
        SolCounter<sol_socket_counters_t> socketBack;
        SolCounter<sol_packet_counters_t> packetBack;
        std::string error;
        ASSERT_TRUE(solParseCounters(toStr(socket), socketBack, error)) << error;
        ASSERT_TRUE(solParseCounters(toStr(packet), packetBack, error)) << error;
        EXPECT_EQ(std::memcmp(&socket.m_counters, &socketBack.m_counters, sizeof socket.m_counters), 0);
        EXPECT_EQ(std::memcmp(&packet.m_counters, &packetBack.m_counters, sizeof packet.m_counters), 0);
    }
}

SolCacheText randomCache(RandomRecords& random, size_t routers, size_t networks, size_t dnsServers) {
    SolCacheText cache;
    for (size_t i = 0; i < routers; ++i) {
        cache.routers.push_back(random.router());
    }
    for (size_t i = 0; i < networks; ++i) {
        cache.networks.push_back(random.network());
    }
    for (size_t i = 0; i < dnsServers; ++i) {
        cache.dnsServers.push_back(random.dnsServer());
    }
    cache.socketCounters.m_counters.rxRa = random.any<uint64_t>();
    cache.packetCounters.m_counters.prefixIgnored = random.any<uint64_t>();
    return cache;
}

TEST(SolTypesParse, CacheTextRoundTripsWithEmptyAndFullSections) {
    RandomRecords random(5);
    for (size_t routers = 0; routers < 3; ++routers) {
        for (size_t networks = 0; networks < 3; ++networks) {
            for (size_t dns = 0; dns < 3; ++dns) {
                const SolCacheText cache = randomCache(random, routers, networks, dns);
                const std::string text = solCacheTextOf(cache);
                SolCacheText parsed;
                std::string error;
                ASSERT_TRUE(solParseCacheText(text, parsed, error)) << error << " in " << text;
                ASSERT_EQ(parsed.routers.size(), routers);
                ASSERT_EQ(parsed.networks.size(), networks);
                ASSERT_EQ(parsed.dnsServers.size(), dns);
                for (size_t i = 0; i < routers; ++i) {
                    expectSameRecord(cache.routers[i], parsed.routers[i]);
                }
                for (size_t i = 0; i < networks; ++i) {
                    expectSameRecord(cache.networks[i], parsed.networks[i]);
                }
                for (size_t i = 0; i < dns; ++i) {
                    expectSameRecord(cache.dnsServers[i], parsed.dnsServers[i]);
                }
                EXPECT_EQ(solCacheTextOf(parsed), text);
            }
        }
    }
}

TEST(SolTypesParse, EmptyCacheIsTheFourHeadingsAndZeroCounters) {
    SolCacheText parsed;
    std::string error;
    ASSERT_TRUE(solParseCacheText(
        "\nRouters:\nNetworks:\nDNS Servers:\nCounters:{rxRa: 0, txRs: 1, txRsFailed: 0, rxRejected: 0}"
        "{raParsed: 0, raDropped: 0, prefixAccepted: 0, prefixIgnored: 0}",
        parsed, error))
        << error;
    EXPECT_TRUE(parsed.routers.empty());
    EXPECT_EQ(parsed.socketCounters.m_counters.txRs, 1u);
}

TEST(SolTypesParse, EveryTruncationOfACacheTextIsAnErrorNeverAShorterCache) {
    RandomRecords random(6);
    const std::string text = solCacheTextOf(randomCache(random, 2, 2, 2));
    for (size_t length = 0; length < text.size(); ++length) {
        SolCacheText parsed;
        std::string error;
        EXPECT_FALSE(solParseCacheText(std::string_view(text).substr(0, length), parsed, error))
            << "cut at " << length;
        EXPECT_EQ(error.rfind("at offset ", 0), 0u) << error;
    }
}

struct Damaged {
    std::string text;
    std::string error;
};

TEST(SolTypesParse, DamagedRecordsNameTheOffsetAndWhatWasExpected) {
    const std::string good =
        "{config: {address: fe80::1, reachableTime: 0, retransTimer: 0, routerLifetime: 1800, flags: 0x4}, "
        "status: {id: 1, state: STATE_NEW, createdTime: 1, lastUpdateTime: 1, lastStateChangeTime: 1, "
        "lastConfigChangeTime: 1, timeoutStartTime: 1, expiryTime: 1801, updateCount: 0, configChangeCount: "
        "0, "
        "stateChangeCount: 0, invalidatedCount: 0, expiredCount: 0}}";
    SolRouter router;
    std::string error;
    ASSERT_TRUE(solParseRecord(good, router, error)) << error;
    EXPECT_EQ(router.m_config.routerLifetime, 1800);

    const auto replaced = [&](const std::string& from, const std::string& to) {
        std::string text = good;
        text.replace(text.find(from), from.size(), to);
        return text;
    };
    const std::vector<Damaged> cases{
        {replaced("fe80::1", "fe80::g"), "at offset 25: expected ', reachableTime: '"},
        {replaced("fe80::1", "router"), "at offset 19: expected an IPv6 address"},
        {replaced("routerLifetime: 1800", "routerLifetime: 65536"), "at offset 79: number out of range"},
        {replaced("0x4", "4"), "at offset 92: expected '0x'"},
        {replaced("STATE_NEW", "STATE_DEPRECATED"), "at offset 121: expected a state name"},
        {replaced("id: 1", "id: -1"), "at offset 111: expected a number"},
        {replaced("createdTime: 1", "createdTime: -9223372036854775809"),
         "at offset 145: number out of range"},
        {good + "\n", "at offset " + std::to_string(good.size()) + ": unexpected text after the end"},
        {"", "at offset 0: expected '{config: '"},
    };
    for (const auto& c : cases) {
        std::string why;
        EXPECT_FALSE(solParseRecord(c.text, router, why)) << c.text;
        EXPECT_EQ(why, c.error) << c.text;
    }
}

TEST(SolTypesParse, ExtremeTimesAndCountsAreRead) {
    SolNetwork n;
    n.m_config.prefix.family = KT_AF_INET6;
    n.m_status.createdTime = INT64_MIN;
    n.m_status.lastUpdateTime = INT64_MAX;
    n.m_status.lifetimeIgnoredCount = UINT64_MAX;
    n.m_config.validLifetime = kInfiniteLifetime;
    SolNetwork back;
    std::string error;
    ASSERT_TRUE(solParseRecord(toStr(n), back, error)) << error;
    expectSameRecord(n, back);
}

}  // namespace
