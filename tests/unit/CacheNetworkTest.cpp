// Network entries: push rule with deprecation, the two-hour rule, on-link learning, and the two
// timers (end of the preferred lifetime, then end of the valid lifetime).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "CacheTestSupport.h"

namespace solicd::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using S = sol_network_state_t;

constexpr const char* kN1 = "network/2001:db8:1::/64";
constexpr const char* kP1 = "2001:db8:1::";
constexpr uint32_t kInf = kInfiniteLifetime;

uint32_t raw(S s) {
    return static_cast<uint32_t>(s);
}

class NetworkEntryTest : public CacheTest {};

TEST_F(NetworkEntryTest, PrefixAgesFromNewThroughDeprecatedToExpired) {
    NetworkEntry* n = push(networkCfg(kP1, 86400, 14400));
    ASSERT_NE(n, nullptr);
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 14400u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_NEW));
    EXPECT_EQ(n->m_status.timeoutStartTime, kT0);
    EXPECT_EQ(n->m_status.expiryTime, kT0 + 14400);

    now = kT0 + 14400;
    TraceCapture capture;
    NetworkEntry* deprecated = expire(kN1, NetworkKind{});
    ASSERT_EQ(deprecated, n);
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 72000u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_DEPRECATED));
    EXPECT_EQ(n->m_status.deprecatedCount, 1u);
    EXPECT_EQ(n->m_status.stateChangeCount, 1u);
    EXPECT_EQ(n->m_status.lastStateChangeTime, kT0 + 14400);
    EXPECT_EQ(n->m_status.expiryTime, kT0 + 86400);
    EXPECT_EQ(n->m_status.timeoutStartTime, kT0);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "ADDR_IPV6",
                                  msg("notifyTimeoutExpiresAndGetEntry",
                                      "notifyTimeoutExpiresAndGetEntry for network/2001:db8:1::/64")),
                            Trace(TraceEvent::INFO, "ADDR_IPV6",
                                  msg("notifyTimeoutExpires",
                                      "Network with id:network/2001:db8:1::/64, has changed "
                                      "state due to timeout: STATE_NEW -> STATE_DEPRECATED"))));
    // Deprecated is still usable: listed as active.
    EXPECT_THAT(listOf(&CacheMgr::getActiveNetworks, cache), ElementsAre(n));

    now = kT0 + 86400;
    capture.clear();
    expire(kN1, NetworkKind{});
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_EXPIRED));
    EXPECT_EQ(n->m_status.expiredCount, 1u);
    EXPECT_EQ(n->m_status.stateChangeCount, 2u);
    EXPECT_EQ(n->m_status.expiryTime, kT0 + 86400);
    EXPECT_EQ(n->m_status.lastStateChangeTime, kT0 + 86400);
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "Network with id:network/2001:db8:1::/64, has changed "
                                     "state due to timeout: STATE_DEPRECATED -> "
                                     "STATE_EXPIRED")));
    EXPECT_TRUE(listOf(&CacheMgr::getActiveNetworks, cache).empty());
    EXPECT_THAT(listOf(&CacheMgr::getNetworks, cache), ElementsAre(n));
}

TEST_F(NetworkEntryTest, DeprecatedByATimeoutReturnsUnchangedWithTheRestOfTheValidLifetime) {
    push(networkCfg(kP1, 3600, 1800));
    now = kT0 + 1800;
    NetworkEntry* n = expire(kN1, NetworkKind{});
    ASSERT_NE(n, nullptr);
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 1800u);
}

TEST_F(NetworkEntryTest, EarlyTimeoutWhileDeprecatedOrdersTheRestOfTheValidLifetime) {
    push(networkCfg(kP1, 86400, 14400));
    now = kT0 + 14400;
    expire(kN1, NetworkKind{});
    now = kT0 + 80000;
    TraceCapture capture;
    NetworkEntry* n = expire(kN1, NetworkKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 6400u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_DEPRECATED));
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "Special case: network with id:network/2001:db8:1::/64, was notified "
                                     "before expiration time. current "
                                     "time: 2023-11-15 20:26:40, entry : " +
                                         toStr(static_cast<const SolNetwork&>(*n)))));
}

TEST_F(NetworkEntryTest, EarlyTimeoutBeforeThePreferredEndKeepsTheState) {
    push(networkCfg(kP1, 86400, 14400));
    now = kT0 + 14399;
    NetworkEntry* n = expire(kN1, NetworkKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 1u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_NEW));
    EXPECT_EQ(n->m_status.stateChangeCount, 0u);
}

TEST_F(NetworkEntryTest, PreferredLifetimeZeroMakesThePushDeprecated) {
    NetworkEntry* n = push(networkCfg(kP1, 3600, 0));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 3600u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_DEPRECATED));
    EXPECT_EQ(n->m_status.deprecatedCount, 1u);
    now = kT0 + 3600;
    expire(kN1, NetworkKind{});
    EXPECT_TRUE(changed);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_EXPIRED));
}

TEST_F(NetworkEntryTest, PreferredEqualToValidDeprecatesWithoutAFurtherTimer) {
    push(networkCfg(kP1, 3600, 3600));
    now = kT0 + 3600;
    NetworkEntry* n = expire(kN1, NetworkKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_DEPRECATED));
    EXPECT_EQ(n->m_status.expiryTime, kT0 + 3600);
}

TEST_F(NetworkEntryTest, InfiniteLifetimesOrderNoTimerAndAStrayTimeoutLogsWrongConfig) {
    NetworkEntry* n = push(networkCfg(kP1, kInf, kInf));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_NEW));
    EXPECT_EQ(n->m_status.timeoutStartTime, 0);
    EXPECT_EQ(n->m_status.expiryTime, 0);
    now = kT0 + 100000;
    TraceCapture capture;
    expire(kN1, NetworkKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_NEW));
    EXPECT_TRUE(capture.contains(
        TraceEvent::ERROR, "ADDR_IPV6",
        msg("notifyTimeoutExpires",
            "Network with id: network/2001:db8:1::/64, has wrong config for timeout event. Preferred or "
            "valid "
            "lifetime is infinite, state STATE_NEW, config : {prefix: 2001:db8:1::, prefixLength: 64, "
            "validLifetime: 4294967295, preferredLifetime: 4294967295, flags: 0x30}")));
}

TEST_F(NetworkEntryTest, InfiniteValidLifetimeDeprecatesWithoutAFurtherTimer) {
    push(networkCfg(kP1, kInf, 600));
    EXPECT_EQ(timeout, 600u);
    now = kT0 + 600;
    NetworkEntry* n = expire(kN1, NetworkKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_DEPRECATED));
    EXPECT_EQ(n->m_status.expiryTime, kT0 + 600);
    TraceCapture capture;
    expire(kN1, NetworkKind{});
    EXPECT_EQ(capture.messages(TraceEvent::ERROR),
              std::vector<std::string>{msg("notifyTimeoutExpires",
                                           "Network with id: network/2001:db8:1::/64, has wrong config for "
                                           "timeout event. Preferred or valid "
                                           "lifetime is infinite, state STATE_DEPRECATED, config : " +
                                               toStr(n->m_config))});
}

TEST_F(NetworkEntryTest, TimeoutForAnExpiredOrInvalidatedNetworkLogsWrongState) {
    push(networkCfg(kP1, 0, 0));
    TraceCapture capture;
    expire(kN1, NetworkKind{});
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_TRUE(capture.contains(TraceEvent::ERROR, "ADDR_IPV6",
                                 msg("notifyTimeoutExpires",
                                     "Network with id: network/2001:db8:1::/64, has wrong "
                                     "state for timeout event. Current  state is : "
                                     "STATE_INVALIDATED")));
}

TEST_F(NetworkEntryTest, ValidLifetimeZeroTwiceInvalidatesThenIsIgnoredWithKeep) {
    NetworkEntry* n = push(networkCfg(kP1, 0, 0));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_EQ(n->m_status.invalidatedCount, 1u);

    now = kT0 + 10;
    TraceCapture capture;
    push(networkCfg(kP1, 0, 0, FLAG_AUTONOMOUS));
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, TIMEOUT_KEEP);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_EQ(n->m_config.flags, kAutoconf);
    EXPECT_EQ(n->m_status.configChangeCount, 0u);
    EXPECT_EQ(n->m_status.updateCount, 1u);
    EXPECT_EQ(n->m_status.timeoutStartTime, 0);
    EXPECT_THAT(
        capture.messages(TraceEvent::LAB),
        ElementsAre(msg("pushConfigAndGetEntry",
                        "pushConfig for {prefix: 2001:db8:1::, prefixLength: 64, validLifetime: 0, "
                        "preferredLifetime: 0, flags: 0x20}"),
                    msg("updateCfg",
                        "Ignore network config update. Entry is invalidated and proposed config is "
                        "confirming invalidation: {prefix: 2001:db8:1::, prefixLength: 64, validLifetime: 0, "
                        "preferredLifetime: 0, flags: 0x20}")));
}

TEST_F(NetworkEntryTest, ExpiredNetworkInvalidatedByAnRaIsTracedAndTheNextZeroIgnored) {
    push(networkCfg(kP1, 600, 300));
    now = kT0 + 300;
    expire(kN1, NetworkKind{});
    now = kT0 + 600;
    expire(kN1, NetworkKind{});
    now = kT0 + 700;
    TraceCapture capture;
    NetworkEntry* n = push(networkCfg(kP1, 0, 0));
    EXPECT_TRUE(changed);
    EXPECT_EQ(timeout, 0u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_INVALIDATED));
    EXPECT_EQ(n->m_config.validLifetime, 0u);
    EXPECT_TRUE(capture.contains(TraceEvent::LAB, "ADDR_IPV6",
                                 msg("updateCfg",
                                     "Network with ID network/2001:db8:1::/64: is invalidated by RA "
                                     "message  valid lifetime has already expired ")));
    push(networkCfg(kP1, 0, 0));
    EXPECT_FALSE(changed);
    EXPECT_EQ(timeout, TIMEOUT_KEEP);
}

TEST_F(NetworkEntryTest, OnLinkFlagOnceLearntIsNeverCleared) {
    push(networkCfg(kP1, 86400, 14400, FLAG_AUTONOMOUS));
    NetworkEntry* n = push(networkCfg(kP1, 86400, 14400, kAutoconf));
    EXPECT_TRUE(changed);
    EXPECT_EQ(n->m_config.flags, kAutoconf);
    push(networkCfg(kP1, 86400, 14400, kAutoconf));
    push(networkCfg(kP1, 86400, 14400, FLAG_AUTONOMOUS));
    EXPECT_FALSE(changed);
    EXPECT_EQ(n->m_config.flags, kAutoconf);
    EXPECT_EQ(n->m_status.configChangeCount, 1u);
}

// ---- The two-hour rule, one row per branch ----

struct TwoHourCase {
    const char* behaviour;
    uint32_t storedValid, storedPreferred;
    time_t elapsed;  // seconds between the first push and the proposing RA
    uint32_t proposedValid, proposedPreferred;
    uint32_t expectValid;
    uint32_t expectTimeout;
    bool expectChanged;
    S expectState;
    uint64_t expectReset, expectIgnored;
    std::vector<TraceRecord> expectTraces;  // updateCfg's own traces, in order
};

std::ostream& operator<<(std::ostream& os, const TwoHourCase& c) {
    return os << c.behaviour;
}

// Both numbers print through "%d", as signed ints.
TraceRecord updating(int proposed, int remaining) {
    return Trace(TraceEvent::LAB, "ADDR_IPV6",
                 msg("updateCfg", "Updating lifetime for network " + std::string(kN1) +
                                      ": proposedLifetime: " + std::to_string(proposed) +
                                      " remainingLifetime " + std::to_string(remaining) + ")"));
}

TraceRecord accepted(uint32_t remaining) {
    return Trace(TraceEvent::LAB, "ADDR_IPV6",
                 msg("updateCfg",
                     "Valid lifetime update for network " + std::string(kN1) +
                         ": proposedLifetime is greater than 2 hours or greater than remainingLifetime (" +
                         std::to_string(remaining) + ")"));
}

TraceRecord reset() {
    return Trace(
        TraceEvent::INFO, "ADDR_IPV6",
        msg("updateCfg", "Invalid lifetime update for network " + std::string(kN1) +
                             ": remainingLifetime is more than 2h. Reset valid_liftime to two hours "));
}

TraceRecord ignored() {
    return Trace(TraceEvent::INFO, "ADDR_IPV6",
                 msg("updateCfg",
                     "Invalid lifetime update for network " + std::string(kN1) +
                         ": remainingLifetime is less than or equal to 2h, ignore valid_lifetime update"));
}

class TwoHourRuleTest : public NetworkEntryTest, public ::testing::WithParamInterface<TwoHourCase> {};

TEST_P(TwoHourRuleTest, StoredValidLifetimeFollowsTheTwoHourRule) {
    const TwoHourCase& c = GetParam();
    push(networkCfg(kP1, c.storedValid, c.storedPreferred));
    now = kT0 + c.elapsed;
    TraceCapture capture;
    NetworkEntry* n = push(networkCfg(kP1, c.proposedValid, c.proposedPreferred));
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->m_config.validLifetime, c.expectValid);
    EXPECT_EQ(n->m_config.preferredLifetime, c.proposedPreferred);
    EXPECT_EQ(timeout, c.expectTimeout);
    EXPECT_EQ(changed, c.expectChanged);
    EXPECT_EQ(n->m_status.state, raw(c.expectState));
    EXPECT_EQ(n->m_status.lifetimeResetCount, c.expectReset);
    EXPECT_EQ(n->m_status.lifetimeIgnoredCount, c.expectIgnored);
    std::vector<TraceRecord> own;
    for (const auto& r : capture.records()) {
        if (r.message.rfind("updateCfg(): ", 0) == 0) {
            own.push_back(r);
        }
    }
    EXPECT_THAT(own, ElementsAreArray(c.expectTraces));
    // A timer ordered by this push restarts the lifetime count.
    if (c.expectTimeout != 0 && c.expectTimeout != TIMEOUT_KEEP) {
        EXPECT_EQ(n->m_status.timeoutStartTime, now);
        EXPECT_EQ(n->m_status.expiryTime, now + c.expectTimeout);
    } else {
        EXPECT_EQ(n->m_status.timeoutStartTime, c.storedValid == kInf ? 0 : kT0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Branches, TwoHourRuleTest,
    ::testing::Values(TwoHourCase{"ProposedAboveTwoHoursIsAcceptedWhateverRemains",
                                  3600,
                                  1800,
                                  600,
                                  10000,
                                  5000,
                                  10000,
                                  5000,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  0,
                                  {updating(10000, 3000), accepted(3000)}},
                      TwoHourCase{"ProposedAboveTwoHoursIsAcceptedEvenBelowALongRemainder",
                                  86400,
                                  14400,
                                  400,
                                  10000,
                                  5000,
                                  10000,
                                  5000,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  0,
                                  {updating(10000, 86000), accepted(86000)}},
                      TwoHourCase{"ProposedAboveTheRemainderIsAcceptedBelowTwoHours",
                                  3600,
                                  1800,
                                  3000,
                                  1000,
                                  500,
                                  1000,
                                  500,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  0,
                                  {updating(1000, 600), accepted(600)}},
                      TwoHourCase{"SameLifetimeRefreshedBeforeTheEndIsAccepted",
                                  86400,
                                  14400,
                                  60,
                                  86400,
                                  14400,
                                  86400,
                                  14400,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  0,
                                  {updating(86400, 86340), accepted(86340)}},
                      TwoHourCase{"ZeroProposedAfterTheLifetimeRanOutInvalidates",
                                  600,
                                  300,
                                  700,
                                  0,
                                  0,
                                  0,
                                  0,
                                  true,
                                  S::STATE_INVALIDATED,
                                  0,
                                  0,
                                  {updating(0, 0)}},
                      TwoHourCase{"ShortProposalWithMoreThanTwoHoursLeftResetsToTwoHours",
                                  86400,
                                  14400,
                                  6400,
                                  600,
                                  0,
                                  7200,
                                  7200,
                                  true,
                                  S::STATE_DEPRECATED,
                                  1,
                                  0,
                                  {updating(600, 80000), reset()}},
                      TwoHourCase{"ResetToTwoHoursTimesThePreferredLifetimeWhenThereIsOne",
                                  86400,
                                  14400,
                                  6400,
                                  600,
                                  300,
                                  7200,
                                  300,
                                  true,
                                  S::STATE_UPDATED,
                                  1,
                                  0,
                                  {updating(600, 80000), reset()}},
                      TwoHourCase{"ZeroProposedWithMoreThanTwoHoursLeftResetsToTwoHours",
                                  86400,
                                  14400,
                                  100,
                                  0,
                                  0,
                                  7200,
                                  7200,
                                  true,
                                  S::STATE_DEPRECATED,
                                  1,
                                  0,
                                  {updating(0, 86300), reset()}},
                      TwoHourCase{"OneSecondAboveTwoHoursLeftResets",
                                  7300,
                                  3600,
                                  99,
                                  600,
                                  0,
                                  7200,
                                  7200,
                                  true,
                                  S::STATE_DEPRECATED,
                                  1,
                                  0,
                                  {updating(600, 7201), reset()}},
                      TwoHourCase{"ShortProposalWithTwoHoursOrLessLeftIsIgnoredAndKeepsTheTimer",
                                  3600,
                                  1800,
                                  600,
                                  600,
                                  0,
                                  3600,
                                  TIMEOUT_KEEP,
                                  true,
                                  S::STATE_DEPRECATED,
                                  0,
                                  1,
                                  {updating(600, 3000), ignored()}},
                      TwoHourCase{"IgnoredProposalStillTimesThePreferredLifetime",
                                  3600,
                                  1800,
                                  600,
                                  600,
                                  300,
                                  3600,
                                  300,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  1,
                                  {updating(600, 3000), ignored()}},
                      TwoHourCase{"ExactlyTwoHoursLeftIsIgnored",
                                  7200,
                                  3600,
                                  0,
                                  100,
                                  50,
                                  7200,
                                  50,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  1,
                                  {updating(100, 7200), ignored()}},
                      TwoHourCase{"ZeroProposedWithSomeTimeLeftIsIgnored",
                                  3600,
                                  1800,
                                  600,
                                  0,
                                  0,
                                  3600,
                                  TIMEOUT_KEEP,
                                  true,
                                  S::STATE_DEPRECATED,
                                  0,
                                  1,
                                  {updating(0, 3000), ignored()}},
                      TwoHourCase{"InfiniteProposedValidIsTakenWithoutTheRule",
                                  3600,
                                  1800,
                                  600,
                                  kInf,
                                  1200,
                                  kInf,
                                  1200,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  0,
                                  {}},
                      TwoHourCase{"InfiniteProposedLifetimesAreTakenAndOrderNoTimer",
                                  3600,
                                  1800,
                                  600,
                                  kInf,
                                  kInf,
                                  kInf,
                                  0,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  0,
                                  {}},
                      TwoHourCase{"InfinitePreferredAloneSkipsTheRule",
                                  3600,
                                  1800,
                                  600,
                                  600,
                                  kInf,
                                  600,
                                  600,
                                  true,
                                  S::STATE_UPDATED,
                                  0,
                                  0,
                                  {}},
                      TwoHourCase{"FiniteProposalForAnInfiniteStoredLifetimeResetsToTwoHours",
                                  kInf,
                                  kInf,
                                  600,
                                  600,
                                  0,
                                  7200,
                                  7200,
                                  true,
                                  S::STATE_DEPRECATED,
                                  1,
                                  0,
                                  {updating(600, -1700000601), reset()}}),
    [](const ::testing::TestParamInfo<TwoHourCase>& info) { return std::string(info.param.behaviour); });

TEST_F(NetworkEntryTest, ResetToTwoHoursThenExpiresTwoHoursLater) {
    push(networkCfg(kP1, 86400, 14400));
    now = kT0 + 6400;
    NetworkEntry* n = push(networkCfg(kP1, 600, 0));
    EXPECT_EQ(timeout, 7200u);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_DEPRECATED));
    now += 7200;
    expire(kN1, NetworkKind{});
    EXPECT_TRUE(changed);
    EXPECT_EQ(n->m_status.state, raw(S::STATE_EXPIRED));
}

}  // namespace
}  // namespace solicd::test
