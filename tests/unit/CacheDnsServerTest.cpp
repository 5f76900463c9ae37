// DNS server entries: one lifetime, the confirmed-invalidation short cut, and timer expiry.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CacheTestSupport.h"

namespace solicd::test {
namespace {

using ::testing::ElementsAre;
using S = sol_dns_server_state_t;

constexpr const char* kD1 = "dns/2001:db8::53";

uint32_t raw(S s) {
    return static_cast<uint32_t>(s);
}

class DnsServerEntryTest : public CacheTest {};

TEST_F(DnsServerEntryTest, TwoAddressesOfOneOptionBecomeTwoEntriesInPushOrder) {
    TraceCapture capture;
    DnsServerEntry* first = push(dnsCfg("2001:db8::53", 600, 0));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 600u);
    DnsServerEntry* second = push(dnsCfg("2001:db8::54", 600, 1));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 600u);
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(first->m_status.id, 1u);
    EXPECT_EQ(second->m_status.id, 2u);
    EXPECT_EQ(first->m_config.lifetime, second->m_config.lifetime);
    EXPECT_EQ(first->m_status.state, raw(S::STATE_NEW));
    EXPECT_EQ(second->m_status.expiryTime, kT0 + 600);
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 msg("init", "Created DnsServer with id:dns/2001:db8::54, data: " +
                                                 toStr(static_cast<const SolDnsServer&>(*second)))));
    EXPECT_THAT(listOf(&CacheMgr::getActiveDnsServers, cache), ElementsAre(first, second));
}

TEST_F(DnsServerEntryTest, LifetimeZeroInvalidatesAndTheSameAgainIsIgnoredWithKeep) {
    push(dnsCfg("2001:db8::53", 600));
    now = kT0 + 10;
    TraceCapture capture;
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 0));
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(d->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_EQ(d->m_status.invalidatedCount, 1u);
    EXPECT_EQ(d->m_status.stateChangeCount, 1u);
    EXPECT_TRUE(capture.contains(TraceEvent::LAB, "ADDR_IPV6",
                                 msg("getTimeoutActionOnPush",
                                     "DNS server with id: dns/2001:db8::53, received "
                                     "lifetime set to 0, timeout should be removed")));
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 msg("pushConfig",
                                     "Updated state for DnsServer with id:dns/2001:db8::53 due to "
                                     "pushconfig: STATE_NEW -> STATE_INVALIDATED")));

    capture.clear();
    push(dnsCfg("2001:db8::53", 0, 3));
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, TIMEOUT_KEEP);
    EXPECT_EQ(d->m_config.index, 0u);
    EXPECT_EQ(d->m_status.configChangeCount, 1u);
    EXPECT_THAT(
        capture.messages(TraceEvent::LAB),
        ElementsAre(
            msg("pushConfigAndGetEntry", "pushConfig for {index: 3, address: 2001:db8::53, lifetime: 0}"),
            msg("updateCfg",
                "Ignore DNS server config update. Entry is invalidated and proposed config is "
                "confirming invalidation: {index: 3, address: 2001:db8::53, lifetime: 0}")));
}

TEST_F(DnsServerEntryTest, ExpiredServerAdvertisedAgainBecomesUpdated) {
    push(dnsCfg("2001:db8::53", 600));
    now = kT0 + 600;
    expire(kD1, DnsServerKind{});
    EXPECT_TRUE(changed);
    now = kT0 + 900;
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 600));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 600u);
    EXPECT_EQ(d->m_status.state, raw(S::STATE_UPDATED));
    EXPECT_EQ(d->m_status.timeoutStartTime, kT0 + 900);
    EXPECT_EQ(d->m_status.expiryTime, kT0 + 1500);
}

TEST_F(DnsServerEntryTest, TimeoutAtTheEndOfTheLifetimeExpiresTheServer) {
    push(dnsCfg("2001:db8::53", 600));
    now = kT0 + 600;
    TraceCapture capture;
    DnsServerEntry* d = expire(kD1, DnsServerKind{});
    ASSERT_NE(d, nullptr);
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(d->m_status.state, raw(S::STATE_EXPIRED));
    EXPECT_EQ(d->m_status.expiredCount, 1u);
    EXPECT_EQ(d->m_status.expiryTime, kT0 + 600);
    EXPECT_EQ(d->m_status.lastStateChangeTime, kT0 + 600);
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "DNS server with id:dns/2001:db8::53, has changed state "
                                     "due to timeout: STATE_NEW -> STATE_EXPIRED")));
    EXPECT_TRUE(listOf(&CacheMgr::getActiveDnsServers, cache).empty());
}

TEST_F(DnsServerEntryTest, EarlyTimeoutOrdersTheRestAndKeepsTheState) {
    push(dnsCfg("2001:db8::53", 600));
    now = kT0 + 200;
    TraceCapture capture;
    DnsServerEntry* d = expire(kD1, DnsServerKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 400u);
    EXPECT_EQ(d->m_status.state, raw(S::STATE_NEW));
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "Special case: DNS server with id:dns/2001:db8::53, was notified before "
                                     "expiration time. current time: 2023-11-14 22:16:40, entry : " +
                                         toStr(static_cast<const SolDnsServer&>(*d)))));
}

TEST_F(DnsServerEntryTest, TimeoutForAnInvalidatedServerLogsWrongState) {
    push(dnsCfg("2001:db8::53", 600));
    push(dnsCfg("2001:db8::53", 0));
    now = kT0 + 5;
    TraceCapture capture;
    DnsServerEntry* d = expire(kD1, DnsServerKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(d->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_TRUE(capture.contains(TraceEvent::ERROR, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "DNS server with id: dns/2001:db8::53, has wrong state "
                                     "for timeout event is in state: STATE_INVALIDATED")));
}

TEST_F(DnsServerEntryTest, ExpiredServerInvalidatedByAnRaIsTraced) {
    push(dnsCfg("2001:db8::53", 600));
    now = kT0 + 600;
    expire(kD1, DnsServerKind{});
    now = kT0 + 601;
    TraceCapture capture;
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 0));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(d->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_TRUE(capture.contains(TraceEvent::LAB, "ADDR_IPV6",
                                 msg("updateCfg",
                                     "DNS Server with ID dns/2001:db8::53: is invalidated by RA message  "
                                     "valid lifetime has already expired ")));
}

TEST_F(DnsServerEntryTest, ShorterLifetimeIsTakenWithoutTheTwoHourRule) {
    push(dnsCfg("2001:db8::53", 86400));
    now = kT0 + 100;
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", 60));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 60u);
    EXPECT_EQ(d->m_config.lifetime, 60u);
    EXPECT_EQ(d->m_status.expiryTime, kT0 + 160);
}

TEST_F(DnsServerEntryTest, InfiniteLifetimeIsReturnedAsItIs) {
    DnsServerEntry* d = push(dnsCfg("2001:db8::53", kInfiniteLifetime));
    EXPECT_EQ(timeout, kInfiniteLifetime);
    EXPECT_EQ(d->m_status.expiryTime, kT0 + static_cast<int64_t>(kInfiniteLifetime));
}

}  // namespace
}  // namespace solicd::test
