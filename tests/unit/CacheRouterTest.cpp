// Router entries: push rule, timeout on push, config merge and timer expiry.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "CacheTestSupport.h"

namespace solicd::test {
namespace {

using ::testing::ElementsAre;
using S = sol_router_state_t;

constexpr const char* kR1 = "router/fe80::1";

uint32_t raw(S s) {
    return static_cast<uint32_t>(s);
}

class RouterEntryTest : public CacheTest {};

TEST_F(RouterEntryTest, FirstAdvertisementCreatesANewRouterTimedByItsLifetime) {
    TraceCapture capture;
    RouterEntry* r = push(routerCfg("fe80::1", 1800));
    ASSERT_NE(r, nullptr);
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 1800u);
    EXPECT_EQ(r->m_status.id, 1u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_NEW));
    EXPECT_EQ(r->m_status.createdTime, kT0);
    EXPECT_EQ(r->m_status.lastUpdateTime, kT0);
    EXPECT_EQ(r->m_status.lastStateChangeTime, kT0);
    EXPECT_EQ(r->m_status.lastConfigChangeTime, kT0);
    EXPECT_EQ(r->m_status.timeoutStartTime, kT0);
    EXPECT_EQ(r->m_status.expiryTime, kT0 + 1800);
    EXPECT_EQ(r->m_status.updateCount, 0u);
    EXPECT_EQ(r->m_status.stateChangeCount, 0u);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(
            Trace(TraceEvent::LAB, "ADDR_IPV6",
                  msg("pushConfigAndGetEntry",
                      "pushConfig for {address: fe80::1, reachableTime: 0, retransTimer: "
                      "0, routerLifetime: 1800, flags: 0x0}")),
            Trace(
                TraceEvent::INFO, "ADDR_IPV6",
                msg("init",
                    "Created Router with id:router/fe80::1, data: {config: {address: fe80::1, reachableTime: "
                    "0, "
                    "retransTimer: 0, routerLifetime: 1800, flags: 0x0}, status: {id: 1, state: STATE_NEW, "
                    "createdTime: 1700000000, lastUpdateTime: 1700000000, lastStateChangeTime: 1700000000, "
                    "lastConfigChangeTime: 1700000000, timeoutStartTime: 1700000000, expiryTime: 1700001800, "
                    "updateCount: 0, configChangeCount: 0, stateChangeCount: 0, invalidatedCount: 0, "
                    "expiredCount: 0}}"))));
}

TEST_F(RouterEntryTest, RouterFirstSeenWithLifetimeZeroIsCreatedInvalidatedWithoutTimer) {
    TraceCapture capture;
    RouterEntry* r = push(routerCfg("fe80::1", 0));
    ASSERT_NE(r, nullptr);
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_EQ(r->m_status.invalidatedCount, 1u);
    EXPECT_EQ(r->m_status.stateChangeCount, 0u);
    EXPECT_EQ(r->m_status.timeoutStartTime, 0);
    EXPECT_EQ(r->m_status.expiryTime, 0);
    EXPECT_TRUE(capture.contains(TraceEvent::LAB, "ADDR_IPV6",
                                 msg("getTimeoutActionOnPush",
                                     "Router with id: router/fe80::1, received lifetime "
                                     "set to 0, timeout should be removed")));
}

TEST_F(RouterEntryTest, LifetimeZeroForAKnownRouterInvalidatesItAndRemovesItsTimer) {
    push(routerCfg("fe80::1", 1800));
    now = kT0 + 100;
    TraceCapture capture;
    RouterEntry* r = push(routerCfg("fe80::1", 0));
    ASSERT_NE(r, nullptr);
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_EQ(r->m_status.invalidatedCount, 1u);
    EXPECT_EQ(r->m_status.stateChangeCount, 1u);
    EXPECT_EQ(r->m_status.lastStateChangeTime, kT0 + 100);
    EXPECT_EQ(r->m_status.configChangeCount, 1u);
    EXPECT_EQ(r->m_status.lastConfigChangeTime, kT0 + 100);
    EXPECT_EQ(r->m_status.updateCount, 1u);
    EXPECT_EQ(r->m_status.lastUpdateTime, kT0 + 100);
    // Timeout 0 orders no timer: the old timer points stay.
    EXPECT_EQ(r->m_status.timeoutStartTime, kT0);
    EXPECT_EQ(r->m_status.expiryTime, kT0 + 1800);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "ADDR_IPV6",
                                  msg("pushConfigAndGetEntry",
                                      "pushConfig for {address: fe80::1, reachableTime: 0, "
                                      "retransTimer: 0, routerLifetime: 0, flags: 0x0}")),
                            Trace(TraceEvent::LAB, "ADDR_IPV6",
                                  msg("getTimeoutActionOnPush",
                                      "Router with id: router/fe80::1, received lifetime set to "
                                      "0, timeout should be removed")),
                            Trace(TraceEvent::INFO, "ADDR_IPV6",
                                  msg("pushConfig",
                                      "Updated cfg for Router with id:router/fe80::1, new config: {address: "
                                      "fe80::1, reachableTime: 0, retransTimer: 0, routerLifetime: 0, flags: "
                                      "0x0}")),
                            Trace(TraceEvent::INFO, "ADDR_IPV6",
                                  msg("pushConfig",
                                      "Updated state for Router with id:router/fe80::1 due to pushconfig: "
                                      "STATE_NEW -> STATE_INVALIDATED"))));
}

TEST_F(RouterEntryTest, SecondLifetimeZeroIsMergedLikeAnyOtherPushForRouters) {
    push(routerCfg("fe80::1", 1800));
    push(routerCfg("fe80::1", 0));
    TraceCapture capture;
    RouterEntry* r = push(routerCfg("fe80::1", 0));
    ASSERT_NE(r, nullptr);
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_EQ(r->m_status.invalidatedCount, 2u);
    EXPECT_EQ(r->m_status.updateCount, 2u);
    for (const auto& rec : capture.records()) {
        EXPECT_EQ(rec.message.find("Ignore"), std::string::npos) << rec;
    }
}

TEST_F(RouterEntryTest, InvalidatedRouterAdvertisedAgainIsNew) {
    push(routerCfg("fe80::1", 1800));
    push(routerCfg("fe80::1", 0));
    RouterEntry* r = push(routerCfg("fe80::1", 600));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 600u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_NEW));
}

TEST_F(RouterEntryTest, ZeroReachableTimeAndRetransTimerKeepTheLastKnownValues) {
    push(routerCfg("fe80::1", 1800, 30000, 1000));
    push(routerCfg("fe80::1", 1800, 30000, 1000));  // STATE_NEW -> STATE_UPDATED
    TraceCapture capture;
    RouterEntry* r = push(routerCfg("fe80::1", 1800, 0, 0));
    ASSERT_NE(r, nullptr);
    EXPECT_FALSE(changed);
    EXPECT_EQ(r->m_config.reachableTime, 30000u);
    EXPECT_EQ(r->m_config.retransTimer, 1000u);
    EXPECT_EQ(r->m_status.configChangeCount, 0u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_UPDATED));
    EXPECT_EQ(capture.messages(TraceEvent::INFO).size(), 0u);
}

TEST_F(RouterEntryTest, ZeroReachableTimeIsMergedIntoAnOtherwiseChangedConfig) {
    push(routerCfg("fe80::1", 1800, 30000, 1000));
    RouterEntry* r = push(routerCfg("fe80::1", 900, 0, 2000, FLAG_MANAGED));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 900u);
    EXPECT_EQ(r->m_config.reachableTime, 30000u);
    EXPECT_EQ(r->m_config.retransTimer, 2000u);
    EXPECT_EQ(r->m_config.routerLifetime, 900u);
    EXPECT_EQ(r->m_config.flags, FLAG_MANAGED);
    EXPECT_EQ(r->m_status.configChangeCount, 1u);
}

TEST_F(RouterEntryTest, TimeoutOneSecondEarlyOrdersTheLastSecondAndKeepsTheState) {
    push(routerCfg("fe80::1", 1800));
    now = kT0 + 1799;
    TraceCapture capture;
    RouterEntry* r = expire(kR1, RouterKind{});
    ASSERT_NE(r, nullptr);
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 1u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_NEW));
    EXPECT_EQ(r->m_status.stateChangeCount, 0u);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::LAB, "ADDR_IPV6",
                          msg("notifyTimeoutExpiresAndGetEntry",
                              "notifyTimeoutExpiresAndGetEntry for router/fe80::1")),
                    Trace(TraceEvent::INFO, "ADDR_IPV6",
                          msg("notifyTimeoutExpires",
                              "Special case: router with id:router/fe80::1, was notified before expiration "
                              "time. current time: 2023-11-14 22:43:19, entry : " +
                                  toStr(static_cast<const SolRouter&>(*r))))));
}

TEST_F(RouterEntryTest, EarlyNotificationPrintsTheLocalTime) {
    setenv("TZ", "EST5", 1);
    tzset();
    push(routerCfg("fe80::1", 1800));
    now = kT0 + 1000;
    TraceCapture capture;
    expire(kR1, RouterKind{});
    EXPECT_EQ(timeout, 800u);
    const auto infos = capture.messages(TraceEvent::INFO);
    ASSERT_EQ(infos.size(), 1u);
    EXPECT_NE(infos[0].find("current time: 2023-11-14 17:30:00, entry : "), std::string::npos) << infos[0];
}

TEST_F(RouterEntryTest, TimerOrderedForAnOlderLifetimeIsReorderedForTheRest) {
    push(routerCfg("fe80::1", 600));
    now = kT0 + 300;
    push(routerCfg("fe80::1", 1800));  // restarts the lifetime at kT0 + 300
    now = kT0 + 600;
    expire(kR1, RouterKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 1500u);
}

TEST_F(RouterEntryTest, TimeoutAtTheEndOfTheLifetimeExpiresTheRouter) {
    push(routerCfg("fe80::1", 1800));
    now = kT0 + 1800;
    TraceCapture capture;
    RouterEntry* r = expire(kR1, RouterKind{});
    ASSERT_NE(r, nullptr);
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_EXPIRED));
    EXPECT_EQ(r->m_status.expiredCount, 1u);
    EXPECT_EQ(r->m_status.stateChangeCount, 1u);
    EXPECT_EQ(r->m_status.expiryTime, kT0 + 1800);
    EXPECT_EQ(r->m_status.lastStateChangeTime, kT0 + 1800);
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "Router with id:router/fe80::1, has changed state due to "
                                     "timeout: STATE_NEW -> STATE_EXPIRED")));
}

TEST_F(RouterEntryTest, LateTimeoutExpiresAnUpdatedRouterAtTheMomentItIsHandled) {
    push(routerCfg("fe80::1", 1800));
    push(routerCfg("fe80::1", 1800));
    now = kT0 + 5000;
    RouterEntry* r = expire(kR1, RouterKind{});
    EXPECT_TRUE(changed);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_EXPIRED));
    EXPECT_EQ(r->m_status.expiryTime, kT0 + 5000);
}

TEST_F(RouterEntryTest, ExpiredRouterAdvertisedAgainComesBackUpdated) {
    push(routerCfg("fe80::1", 1800));
    now = kT0 + 1800;
    expire(kR1, RouterKind{});
    now = kT0 + 2000;
    TraceCapture capture;
    RouterEntry* r = push(routerCfg("fe80::1", 1800));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 1800u);
    EXPECT_EQ(r->m_status.state, raw(S::STATE_UPDATED));
    EXPECT_EQ(r->m_status.timeoutStartTime, kT0 + 2000);
    EXPECT_EQ(r->m_status.expiryTime, kT0 + 3800);
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 msg("pushConfig",
                                     "Updated state for Router with id:router/fe80::1 due to "
                                     "pushconfig: STATE_EXPIRED -> STATE_UPDATED")));
}

TEST_F(RouterEntryTest, TimeoutForAnInvalidatedRouterLogsWrongStateAndChangesNothing) {
    push(routerCfg("fe80::1", 1800));
    RouterEntry* r = push(routerCfg("fe80::1", 0));
    now = kT0 + 50;
    const SolRouter::Status before = r->m_status;
    const SolRouter::Config config = r->m_config;
    TraceCapture capture;
    RouterEntry* after = expire(kR1, RouterKind{});
    EXPECT_EQ(after, r);
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(std::memcmp(&before.data(), &r->m_status.data(), sizeof(sol_status_t)), 0);
    EXPECT_FALSE(config.isNotEqual(r->m_config));
    EXPECT_TRUE(capture.contains(TraceEvent::ERROR, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "Router with id: router/fe80::1, has wrong state for "
                                     "timeout event is in state: STATE_INVALIDATED")));
}

TEST_F(RouterEntryTest, SecondTimeoutOfAnExpiredRouterLogsWrongState) {
    push(routerCfg("fe80::1", 1800));
    now = kT0 + 1800;
    expire(kR1, RouterKind{});
    TraceCapture capture;
    expire(kR1, RouterKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_TRUE(capture.contains(TraceEvent::ERROR, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "Router with id: router/fe80::1, has wrong state for "
                                     "timeout event is in state: STATE_EXPIRED")));
}

TEST_F(RouterEntryTest, RouterExpiredByATimeoutReturnsChangedAndNoFurtherTimer) {
    push(routerCfg("fe80::2", 30));
    now = kT0 + 30;
    RouterEntry* r =
        cache.notifyTimeoutExpiresAndGetEntry(&changed, &timeout, "router/fe80::2", RouterKind{});
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->m_config.getName(), "router/fe80::2");
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
}

}  // namespace
}  // namespace solicd::test
