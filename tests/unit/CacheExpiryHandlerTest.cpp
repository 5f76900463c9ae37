// handleCacheExpiredEvent and readyForLmxNotify: an entry's timer ran out; the cache moves the
// entry on, the timer follows, and the client hears what the kind of entry calls for.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "HandlerDoubles.h"

using namespace solicd;
using namespace solicd::test;
using SolApp::Logic;
using CacheTimeout = SolApp::Logic::CacheTimeout;
using ::testing::_;
using ::testing::An;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Return;

namespace {

constexpr const char* kRouter1 = "router/fe80::1";
constexpr const char* kRouter2 = "router/fe80::2";
constexpr const char* kRouter9 = "router/fe80::9";
constexpr const char* kNet1 = "network/2001:db8:1::/64";
constexpr const char* kNet2 = "network/2001:db8:2::/64";
constexpr const char* kNet9 = "network/2001:db8:9::/64";
constexpr const char* kDns53 = "dns/2001:db8::53";
constexpr const char* kDns54 = "dns/2001:db8::54";

std::string notForwarded(const char* isLmxNotify, const char* dataUpdated) {
    return tagged("readyForLmxNotify", std::string("RA state change was not forwarded. isLmxNotify: ") +
                                           isLmxNotify + ", dataUpdated: " + dataUpdated);
}

class CacheExpiryTest : public HandlerTest {
protected:
    // Fills the cache while the client is away, so that only the expiry under test sends.
    void SetUp() override {
        HandlerTest::SetUp();
        m_data.lmxState = LmxMgr::DST_MBOX_STATE_NOT_SET;
    }
    void connect() { m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED; }

    // Routers fe80::9, fe80::2 and fe80::1 (ids 1, 2, 3); fe80::1 lives 60 s, the others 1800 s.
    void threeRouters() {
        receiveRa(RaBuilder(1800).bytes(), "fe80::9");
        receiveRa(RaBuilder(1800).bytes(), "fe80::2");
        receiveRa(RaBuilder(60).bytes(), "fe80::1");
    }
    // Runs a network through its preferred (300 s) and then its valid lifetime (600 s).
    void expireNetworkFully(const std::string& name) {
        m_data.now += 300;
        m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_NETWORK, name);
        m_data.now += 300;
        m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_NETWORK, name);
    }
};

using CacheExpiryDeathTest = CacheExpiryTest;

// ---- Routers ----

TEST_F(CacheExpiryTest, RouterExpiryNotifiesTheExpiredRouterThenTheLowestIdActiveOne) {
    threeRouters();
    connect();
    m_data.now += 60;
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_ROUTER, kRouter1);
    ASSERT_THAT(describe(m_data.notified), ElementsAre("router router/fe80::1", "router router/fe80::9"));
    EXPECT_EQ(m_data.notified[0].decoded.routers[0].m_status.state,
              static_cast<uint32_t>(sol_router_state_t::STATE_EXPIRED));
    EXPECT_TRUE(sameRecord<SolRouter>(m_data.notified[0].decoded.routers[0], *router(kRouter1)));
    EXPECT_TRUE(sameRecord<SolRouter>(m_data.notified[1].decoded.routers[0], *router(kRouter9)));
    EXPECT_THAT(timerActions(capture), ElementsAre("Removed ROUTER timeout with with id:router/fe80::1",
                                                   "Timer router/fe80::1 is removed"));
    EXPECT_THAT(timerNames(), ElementsAre(kRouter2, kRouter9));
    EXPECT_THAT(tracesOf(capture, {"handleCacheExpiredEvent", "readyForLmxNotify"}), IsEmpty());
}

TEST_F(CacheExpiryTest, RouterExpiryWhileNoRouterIsActiveNotifiesNothing) {
    receiveRa(RaBuilder(60).bytes());
    connect();
    m_data.now += 60;
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_ROUTER, kRouter1);
    EXPECT_EQ(router(kRouter1)->m_status.state, static_cast<uint32_t>(sol_router_state_t::STATE_EXPIRED));
    EXPECT_THAT(timerNames(), IsEmpty());
    // The empty list ends the branch before readyForLmxNotify is asked.
    EXPECT_THAT(tracesOf(capture, {"readyForLmxNotify"}), IsEmpty());
}

TEST_F(CacheExpiryTest, RouterExpiryWhileNoRouterIsActiveEndsBeforeAskingTheClientLink) {
    receiveRa(RaBuilder(60).bytes());
    m_data.now += 60;
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_ROUTER, kRouter1);
    EXPECT_EQ(router(kRouter1)->m_status.state, static_cast<uint32_t>(sol_router_state_t::STATE_EXPIRED));
    // With the client away, asking would have traced "not forwarded".
    EXPECT_THAT(tracesOf(capture, {"readyForLmxNotify"}), IsEmpty());
}

TEST_F(CacheExpiryTest, RouterExpiryWithTheClientAwayAdvancesTheCacheAndTracesNotForwarded) {
    threeRouters();
    m_data.now += 60;
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_ROUTER, kRouter1);
    EXPECT_EQ(router(kRouter1)->m_status.state, static_cast<uint32_t>(sol_router_state_t::STATE_EXPIRED));
    EXPECT_THAT(timerNames(), ElementsAre(kRouter2, kRouter9));
    EXPECT_THAT(tracesOf(capture, {"readyForLmxNotify"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", notForwarded("false", "true"))));
}

TEST_F(CacheExpiryTest, EarlyRouterExpiryReArmsForTheRestAndSendsNothing) {
    threeRouters();
    connect();
    m_data.now += 20;
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_ROUTER, kRouter1);
    EXPECT_THAT(timerActions(capture), ElementsAre("Timer router/fe80::1 is removed",
                                                   "Timer router/fe80::1 is added, timeout 40000 msec"));
    EXPECT_THAT(tracesOf(capture, {"readyForLmxNotify"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", notForwarded("true", "false"))));
}

// ---- Networks ----

// Router fe80::1 with networks 2001:db8:9:: (id 1), 2001:db8:2:: (id 2), both 3600/1800 s, and
// 2001:db8:1:: (id 3), 600/300 s.
class NetworkExpiryTest : public CacheExpiryTest {
protected:
    void SetUp() override {
        CacheExpiryTest::SetUp();
        receiveRa(RaBuilder(1800)
                      .prefix("2001:db8:9::", 3600, 1800)
                      .prefix("2001:db8:2::", 3600, 1800)
                      .prefix("2001:db8:1::", 600, 300)
                      .bytes());
    }
};

using NetworkExpiryDeathTest = NetworkExpiryTest;

TEST_F(NetworkExpiryTest, DeprecationReArmsForTheValidLifetimeAndSendsNothingEvenWithTheClientAway) {
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    m_data.now += 300;
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_NETWORK, kNet1);
    EXPECT_EQ(network(kNet1)->m_status.state, static_cast<uint32_t>(sol_network_state_t::STATE_DEPRECATED));
    EXPECT_THAT(timerActions(capture),
                ElementsAre("Timer network/2001:db8:1::/64 is removed",
                            "Timer network/2001:db8:1::/64 is added, timeout 300000 msec"));
    EXPECT_THAT(tracesOf(capture, {"handleCacheExpiredEvent", "readyForLmxNotify"}), IsEmpty());
}

TEST_F(NetworkExpiryTest, ExpiryReportsTheNetworkThenTheLowestIdActiveNetworkOfItsRouter) {
    m_data.now += 300;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_NETWORK, kNet1);
    connect();
    m_data.now += 300;
    EXPECT_CALL(m_data.cache, getActiveNetworksOfRouter(router(kRouter1)->m_status.id, _));
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_NETWORK, kNet1);
    ASSERT_THAT(describe(m_data.notified),
                ElementsAre("network network/2001:db8:1::/64", "network network/2001:db8:9::/64"));
    EXPECT_TRUE(sameRecord<SolNetwork>(m_data.notified[0].decoded.networks[0], *network(kNet1)));
    EXPECT_EQ(m_data.notified[0].decoded.networks[0].m_status.state,
              static_cast<uint32_t>(sol_network_state_t::STATE_EXPIRED));
    EXPECT_TRUE(sameRecord<SolNetwork>(m_data.notified[1].decoded.networks[0], *network(kNet9)));
    EXPECT_THAT(timerActions(capture),
                ElementsAre("Removed NETWORK timeout with with id:network/2001:db8:1::/64",
                            "Timer network/2001:db8:1::/64 is removed"));
    EXPECT_THAT(tracesOf(capture, {"handleCacheExpiredEvent", "readyForLmxNotify"}), IsEmpty());
}

TEST_F(CacheExpiryTest, NetworkExpiryWhoseRouterHasNoActiveNetworkLeftReportsTheLowestIdActiveOfAll) {
    receiveRa(RaBuilder(1800).prefix("2001:db8:9::", 3600, 1800).prefix("2001:db8:2::", 3600, 1800).bytes(),
              "fe80::2");
    receiveRa(RaBuilder(1800).prefix("2001:db8:1::", 600, 300).bytes(), "fe80::1");
    connect();
    {
        ::testing::InSequence order;
        EXPECT_CALL(m_data.cache, getActiveNetworksOfRouter(router(kRouter1)->m_status.id, _));
        EXPECT_CALL(m_data.cache, getActiveNetworks(_)).Times(2);  // inside the first call, then alone
    }
    expireNetworkFully(kNet1);
    EXPECT_THAT(describe(m_data.notified),
                ElementsAre("network network/2001:db8:1::/64", "network network/2001:db8:9::/64"));
}

TEST_F(CacheExpiryTest, NetworkExpiryWithNoActiveNetworkLeftReportsOnlyTheNetwork) {
    receiveRa(RaBuilder(1800).prefix("2001:db8:1::", 600, 300).bytes());
    connect();
    expireNetworkFully(kNet1);
    EXPECT_THAT(describe(m_data.notified), ElementsAre("network network/2001:db8:1::/64"));
}

TEST_F(NetworkExpiryTest, ExpiryIsSentWithoutAskingReadyForLmxNotify) {
    connect();
    TraceCapture capture;
    expireNetworkFully(kNet1);
    EXPECT_THAT(m_data.notified, ::testing::SizeIs(2));
    EXPECT_THAT(tracesOf(capture, {"readyForLmxNotify"}), IsEmpty());
}

TEST_F(NetworkExpiryDeathTest, ExpiryWithTheClientAwayRequestsRestart) {
    m_data.now += 300;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_NETWORK, kNet1);
    m_data.now += 300;
    EXPECT_EXIT(
        {
            StderrTraces traces({"handleCacheExpiredEvent", "readyForLmxNotify"});
            m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_NETWORK, kNet1);
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(
            restartAfter(traceLine(TraceEvent::ERROR, "GENERAL", "handleCacheExpiredEvent(): LmxMgr::notify"),
                         "LmxMgr::notify")));
}

// ---- DNS servers ----

// Router fe80::1 with DNS servers 2001:db8::53 (60 s) and 2001:db8::54 (600 s).
class DnsExpiryTest : public CacheExpiryTest {
protected:
    void SetUp() override {
        CacheExpiryTest::SetUp();
        receiveRa(RaBuilder(1800).rdnss(60, {"2001:db8::53"}).rdnss(600, {"2001:db8::54"}).bytes());
    }
};

using DnsExpiryDeathTest = DnsExpiryTest;

TEST_F(DnsExpiryTest, ExpiryAtTheEndOfTheLifetimeSendsTheWholeActiveSet) {
    connect();
    m_data.now += 60;
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, kDns53);
    ASSERT_THAT(describe(m_data.notified), ElementsAre("dns dns/2001:db8::54"));
    EXPECT_EQ(m_data.notified[0].size, solifDnsServerUpdatedIndSize(1));
    EXPECT_TRUE(sameRecord<SolDnsServer>(m_data.notified[0].decoded.dnsServers[0], *dnsServer(kDns54)));
    EXPECT_EQ(dnsServer(kDns53)->m_status.state,
              static_cast<uint32_t>(sol_dns_server_state_t::STATE_EXPIRED));
    EXPECT_THAT(timerActions(capture), ElementsAre("Removed DNS_SERVER timeout with with id:dns/2001:db8::53",
                                                   "Timer dns/2001:db8::53 is removed"));
}

TEST_F(DnsExpiryTest, LastServerExpiringSendsAnEmptySet) {
    connect();
    m_data.now += 600;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, kDns53);
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, kDns54);
    ASSERT_THAT(describe(m_data.notified), ElementsAre("dns dns/2001:db8::54", "dns"));
    EXPECT_EQ(m_data.notified[1].size, solifDnsServerUpdatedIndSize(0));
}

TEST_F(DnsExpiryTest, ExpiryThatOnlyReArmsTheTimerSendsNothing) {
    connect();
    m_data.now += 20;
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    EXPECT_CALL(m_data.cache, getActiveDnsServers(_)).Times(0);
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, kDns53);
    EXPECT_THAT(timerActions(capture), ElementsAre("Timer dns/2001:db8::53 is removed",
                                                   "Timer dns/2001:db8::53 is added, timeout 40000 msec"));
    EXPECT_THAT(tracesOf(capture, {"readyForLmxNotify"}), IsEmpty());
}

TEST_F(DnsExpiryTest, KeepLeavesTheTimerAndSendsNothing) {
    connect();
    const uint32_t handler = m_logic.getTimeouts().at(kDns53).getHandlerId();
    EXPECT_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, kDns53, An<DnsServerKind>()))
        .WillOnce([this](bool* changed, uint32_t* timeout, const std::string&, DnsServerKind) {
            *changed = true;
            *timeout = TIMEOUT_KEEP;
            return dnsServer(kDns53);
        });
    EXPECT_CALL(m_data.cache, getActiveDnsServers(_)).Times(0);
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, kDns53);
    EXPECT_THAT(timerActions(capture), IsEmpty());
    EXPECT_EQ(m_logic.getTimeouts().at(kDns53).getHandlerId(), handler);
}

TEST_F(DnsExpiryTest, ExpiryWithTheClientAwayRemovesTheTimerAndTracesNotForwarded) {
    m_data.now += 60;
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, kDns53);
    EXPECT_EQ(dnsServer(kDns53)->m_status.state,
              static_cast<uint32_t>(sol_dns_server_state_t::STATE_EXPIRED));
    EXPECT_THAT(timerNames(), ElementsAre(kDns54, kRouter1));
    EXPECT_THAT(tracesOf(capture, {"readyForLmxNotify"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", notForwarded("false", "true"))));
}

TEST_F(DnsExpiryTest, ExpiryWithoutChangeAndLifetimeZeroTracesNotForwarded) {
    connect();
    EXPECT_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, kDns53, An<DnsServerKind>()))
        .WillOnce([this](bool* changed, uint32_t* timeout, const std::string&, DnsServerKind) {
            *changed = false;
            *timeout = 0;
            return dnsServer(kDns53);
        });
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, kDns53);
    EXPECT_THAT(timerNames(), ElementsAre(kDns54, kRouter1));
    EXPECT_THAT(tracesOf(capture, {"readyForLmxNotify"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", notForwarded("true", "false"))));
}

// ---- Names the cache does not hold, and other types ----

TEST_F(CacheExpiryTest, ExpiryForANameTheCacheNoLongerHoldsRemovesTheTimerAndSendsNothing) {
    connect();
    m_logic.orderTimeout("dns/2001:db8::99", CacheTimeout::TYPE_DNS_SERVER, 60);
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, "dns/2001:db8::99");
    EXPECT_THAT(timerNames(), IsEmpty());
    EXPECT_THAT(tracesOf(capture, {"handleCacheExpiredEvent", "readyForLmxNotify"}), IsEmpty());
    EXPECT_THAT(
        tracesOf(capture, {"notifyTimeoutExpiresAndGetEntry"}),
        ElementsAre(Trace(TraceEvent::LAB, "ADDR_IPV6",
                          tagged("notifyTimeoutExpiresAndGetEntry",
                                 "notifyTimeoutExpiresAndGetEntry for dns/2001:db8::99")),
                    Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          tagged("notifyTimeoutExpiresAndGetEntry",
                                 "Cannot process Timeout expiration dns/2001:db8::99, object does not exist "
                                 "in cache"))));
}

TEST_F(CacheExpiryTest, AnyOtherTypeDoesNothing) {
    receiveRa(RaBuilder(60).bytes());
    connect();
    m_data.now += 60;
    EXPECT_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, An<RouterKind>())).Times(0);
    EXPECT_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, An<NetworkKind>())).Times(0);
    EXPECT_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, An<DnsServerKind>())).Times(0);
    TraceCapture capture;
    for (const uint32_t type : {0u, 4u, 7u}) {
        m_logic.handleCacheExpiredEvent(type, kRouter1);
    }
    EXPECT_THAT(capture.records(), IsEmpty());
    EXPECT_THAT(timerNames(), ElementsAre(kRouter1));
}

// ---- readyForLmxNotify ----

TEST_F(CacheExpiryTest, ReadyForLmxNotifyOnlyWhenConnectedAndUpdated) {
    TraceCapture capture;
    connect();
    EXPECT_TRUE(m_logic.readyForLmxNotify(true));
    EXPECT_FALSE(m_logic.readyForLmxNotify(false));
    for (const uint32_t state : {LmxMgr::DST_MBOX_STATE_NOT_SET, LmxMgr::DST_MBOX_STATE_CONNECTING}) {
        m_data.lmxState = state;
        EXPECT_FALSE(m_logic.readyForLmxNotify(true));
        EXPECT_FALSE(m_logic.readyForLmxNotify(false));
    }
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", notForwarded("true", "false")),
                            Trace(TraceEvent::LAB, "GENERAL", notForwarded("false", "true")),
                            Trace(TraceEvent::LAB, "GENERAL", notForwarded("false", "false")),
                            Trace(TraceEvent::LAB, "GENERAL", notForwarded("false", "true")),
                            Trace(TraceEvent::LAB, "GENERAL", notForwarded("false", "false"))));
}

// ---- Failed sends ----

TEST_F(CacheExpiryDeathTest, FailedRouterNotifyRequestsRestart) {
    threeRouters();
    connect();
    m_data.now += 60;
    ON_CALL(m_data.lmx, notify(_)).WillByDefault(Return(1u));
    EXPECT_EXIT(
        {
            StderrTraces traces({"handleCacheExpiredEvent"});
            m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_ROUTER, kRouter1);
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(
            restartAfter(traceLine(TraceEvent::ERROR, "GENERAL", "handleCacheExpiredEvent(): LmxMgr::notify"),
                         "LmxMgr::notify")));
}

TEST_F(DnsExpiryDeathTest, FailedDnsNotifyRequestsRestart) {
    connect();
    m_data.now += 60;
    ON_CALL(m_data.lmx, notify(_)).WillByDefault(Return(1u));
    EXPECT_EXIT(
        {
            StderrTraces traces({"handleCacheExpiredEvent"});
            m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_DNS_SERVER, kDns53);
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(
            restartAfter(traceLine(TraceEvent::ERROR, "GENERAL", "handleCacheExpiredEvent(): LmxMgr::notify"),
                         "LmxMgr::notify")));
}

// ---- On the main loop ----

TEST_F(CacheExpiryTest, RouterTimerOnTheMainLoopExpiresTheRouterRemovesItselfAndNotifies) {
    m_data.realClock = true;
    receiveRa(RaBuilder(1800).bytes(), "fe80::2");
    receiveRa(RaBuilder(1).bytes(), "fe80::1");
    connect();
    ASSERT_THAT(timerNames(), ElementsAre(kRouter1, kRouter2));
    ASSERT_TRUE(iterateUntil([&] { return m_logic.getTimeouts().count(kRouter1) == 0; }));
    EXPECT_THAT(describe(m_data.notified), ElementsAre("router router/fe80::1", "router router/fe80::2"));
    EXPECT_EQ(router(kRouter1)->m_status.state, static_cast<uint32_t>(sol_router_state_t::STATE_EXPIRED));
    EXPECT_THAT(timerNames(), ElementsAre(kRouter2));
}

}  // namespace
