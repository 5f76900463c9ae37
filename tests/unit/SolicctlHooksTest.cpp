// `solicctl hooks` in parts: the reasons derived from every state transition of every kind, the
// new and old values, bursts merged per entry, the resync after a whole-cache push, the DNS
// servers held through the push of a restarted solicd and kept across a restart of the hooks, and
// the runner against real hook programs (environment passed intact, name order, a failing hook and
// one past its time limit reported without stopping the others).
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "ClientRecords.h"
#include "DnsHold.h"
#include "HookRunner.h"
#include "HookState.h"
#include "StderrCapture.h"

using namespace solicd;
using namespace solicd::ctl;
using namespace solicd::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

SolRouter router(const char* address, uint32_t state, uint16_t lifetime = 1800) {
    SolRouter r;
    r.m_config.address = ipv6(address);
    r.m_config.routerLifetime = lifetime;
    r.m_config.reachableTime = 30000;
    r.m_config.retransTimer = 1000;
    r.m_config.flags = FLAG_OTHER;
    r.m_status.state = state;
    return r;
}

SolNetwork prefix(const char* address, uint32_t state, uint32_t valid = 86400, uint32_t preferred = 14400) {
    SolNetwork n;
    n.m_config.prefix = ipv6(address);
    n.m_config.prefixLength = 64;
    n.m_config.validLifetime = valid;
    n.m_config.preferredLifetime = preferred;
    n.m_config.flags = FLAG_ON_LINK | FLAG_AUTONOMOUS;
    n.m_status.state = state;
    return n;
}

// Seconds since the epoch, as solicd's time points count.
constexpr int64_t kNow = 1'800'000'000;
constexpr int64_t kNoHold = 0;

// A server whose lifetime started at kNow - 10.
SolDnsServer dns(const char* address, uint32_t index, uint32_t lifetime = 600) {
    SolDnsServer d;
    d.m_config.address = ipv6(address);
    d.m_config.index = index;
    d.m_config.lifetime = lifetime;
    d.m_status.state = static_cast<uint32_t>(sol_dns_server_state_t::STATE_NEW);
    d.m_status.timeoutStartTime = kNow - 10;
    return d;
}

SolifMessage update(const SolRouter& r) {
    SolifMessage m;
    m.msgNo = SOLIF_ROUTER_UPDATED_IND;
    m.routers = {r};
    return m;
}

SolifMessage update(const SolNetwork& n) {
    SolifMessage m;
    m.msgNo = SOLIF_NETWORK_UPDATED_IND;
    m.networks = {n};
    return m;
}

SolifMessage update(std::vector<SolDnsServer> servers) {
    SolifMessage m;
    m.msgNo = SOLIF_DNS_SERVER_UPDATED_IND;
    m.dnsServers = std::move(servers);
    return m;
}

std::map<std::string, std::string> variables(const HookEvent& e) {
    return std::map<std::string, std::string>(e.variables.begin(), e.variables.end());
}

std::vector<std::string> reasons(const std::vector<HookEvent>& events) {
    std::vector<std::string> out;
    for (const auto& e : events) {
        out.push_back(e.reason);
    }
    return out;
}

constexpr uint32_t kInitial = 0, kNew = 1, kUpdated = 2, kExpired = 3, kDeprecated = 4, kInvalidated = 5;

TEST(HookReasons, EveryRouterTransition) {
    const SolRouter fresh = router("fe80::1", kNew);
    const SolRouter updated = router("fe80::1", kUpdated, 600);
    const SolRouter expired = router("fe80::1", kExpired);
    const SolRouter invalidated = router("fe80::1", kInvalidated, 0);
    EXPECT_EQ(routerReason(nullptr, fresh), "ROUTER_NEW");
    EXPECT_EQ(routerReason(nullptr, updated), "ROUTER_NEW") << "not known here: new to the hooks";
    EXPECT_EQ(routerReason(&fresh, updated), "ROUTER_UPDATED");
    EXPECT_EQ(routerReason(&updated, router("fe80::1", kUpdated, 300)), "ROUTER_UPDATED");
    EXPECT_EQ(routerReason(&fresh, expired), "ROUTER_EXPIRED");
    EXPECT_EQ(routerReason(&updated, invalidated), "ROUTER_INVALIDATED");
    EXPECT_EQ(routerReason(&expired, fresh), "ROUTER_NEW") << "back after expiring";
    EXPECT_EQ(routerReason(&invalidated, updated), "ROUTER_NEW");
    EXPECT_EQ(routerReason(&updated, updated), "") << "nothing changed";
    EXPECT_EQ(routerReason(nullptr, router("fe80::1", kInitial)), "");
}

TEST(HookReasons, EveryPrefixTransition) {
    const SolNetwork fresh = prefix("2001:db8:1::", kNew);
    const SolNetwork updated = prefix("2001:db8:1::", kUpdated, 7200);
    const SolNetwork deprecated = prefix("2001:db8:1::", kDeprecated);
    const SolNetwork expired = prefix("2001:db8:1::", kExpired);
    const SolNetwork invalidated = prefix("2001:db8:1::", kInvalidated, 0, 0);
    EXPECT_EQ(prefixReason(nullptr, fresh), "PREFIX_NEW");
    EXPECT_EQ(prefixReason(&fresh, updated), "PREFIX_UPDATED");
    EXPECT_EQ(prefixReason(&fresh, deprecated), "PREFIX_DEPRECATED");
    EXPECT_EQ(prefixReason(&deprecated, updated), "PREFIX_UPDATED") << "a deprecated prefix refreshed";
    EXPECT_EQ(prefixReason(&deprecated, expired), "PREFIX_EXPIRED");
    EXPECT_EQ(prefixReason(&fresh, invalidated), "PREFIX_INVALIDATED");
    EXPECT_EQ(prefixReason(&expired, fresh), "PREFIX_NEW");
    EXPECT_EQ(prefixReason(&updated, updated), "");
}

TEST(HookState, NewAndOldFieldsOfARouter) {
    HookState state;
    state.add(update(router("fe80::1", kNew)));
    auto events = state.takeChanges();
    ASSERT_EQ(events.size(), 1u);
    auto v = variables(events[0]);
    EXPECT_EQ(events[0].reason, "ROUTER_NEW");
    EXPECT_EQ(v["new_address"], "fe80::1");
    EXPECT_EQ(v["new_state"], "STATE_NEW");
    EXPECT_EQ(v["new_router_lifetime"], "1800");
    EXPECT_EQ(v["new_reachable_time"], "30000");
    EXPECT_EQ(v["new_retrans_timer"], "1000");
    EXPECT_EQ(v["new_flags"], "O");
    EXPECT_EQ(v.count("old_address"), 1u) << "present and empty for a new entry";
    EXPECT_EQ(v["old_address"], "");
    EXPECT_EQ(v["old_router_lifetime"], "");

    state.add(update(router("fe80::1", kExpired)));
    events = state.takeChanges();
    ASSERT_EQ(events.size(), 1u);
    v = variables(events[0]);
    EXPECT_EQ(events[0].reason, "ROUTER_EXPIRED");
    EXPECT_EQ(v["new_state"], "STATE_EXPIRED");
    EXPECT_EQ(v["old_state"], "STATE_NEW");
    EXPECT_EQ(v["old_router_lifetime"], "1800");

    // Gone with its expiry: when it comes back it is new, with no old values.
    state.add(update(router("fe80::1", kNew, 600)));
    events = state.takeChanges();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0].reason, "ROUTER_NEW");
    EXPECT_EQ(variables(events[0])["old_state"], "");
}

TEST(HookState, OldValuesAcrossADeprecation) {
    HookState state;
    state.add(update(prefix("2001:db8:1::99", kNew)));
    state.takeChanges();
    state.add(update(prefix("2001:db8:1::99", kDeprecated, 86000, 0)));
    const auto events = state.takeChanges();
    ASSERT_EQ(events.size(), 1u);
    auto v = variables(events[0]);
    EXPECT_EQ(events[0].reason, "PREFIX_DEPRECATED");
    EXPECT_EQ(v["new_prefix"], "2001:db8:1::") << "the prefix itself, masked to its length";
    EXPECT_EQ(v["new_prefix_length"], "64");
    EXPECT_EQ(v["new_state"], "STATE_DEPRECATED");
    EXPECT_EQ(v["new_preferred_lifetime"], "0");
    EXPECT_EQ(v["old_state"], "STATE_NEW");
    EXPECT_EQ(v["old_valid_lifetime"], "86400");
    EXPECT_EQ(v["old_preferred_lifetime"], "14400");
    EXPECT_EQ(v["old_flags"], "L A");
}

TEST(HookState, ABurstOfOneEntryIsOneEventWithItsLatestState) {
    HookState state;
    state.add(update(prefix("2001:db8:1::", kNew, 1000)));
    state.takeChanges();
    for (uint32_t i = 0; i < 100; ++i) {
        state.add(update(prefix("2001:db8:1::", kUpdated, 2000 + i)));
        state.add(update(router("fe80::1", kUpdated, static_cast<uint16_t>(100 + i))));
    }
    const auto events = state.takeChanges();
    ASSERT_THAT(reasons(events), ElementsAre("PREFIX_UPDATED", "ROUTER_NEW"));
    EXPECT_EQ(variables(events[0])["new_valid_lifetime"], "2099");
    EXPECT_EQ(variables(events[0])["old_valid_lifetime"], "1000") << "old: the state before the batch";
    EXPECT_EQ(variables(events[1])["new_router_lifetime"], "199");
    EXPECT_FALSE(state.hasPending());
    EXPECT_THAT(state.takeChanges(), IsEmpty());
}

TEST(HookState, DnsChangedOnlyWhenTheListChanges) {
    HookState state;
    state.add(update({dns("2001:db8::53", 0), dns("2001:db8::54", 1)}));
    auto events = state.takeChanges();
    ASSERT_THAT(reasons(events), ElementsAre("DNS_CHANGED"));
    EXPECT_EQ(variables(events[0])["new_dns_servers"], "2001:db8::53 2001:db8::54");
    EXPECT_EQ(variables(events[0])["old_dns_servers"], "");

    auto refreshed = dns("2001:db8::53", 0);
    refreshed.m_config.lifetime = 300;
    state.add(update({refreshed, dns("2001:db8::54", 1)}));
    EXPECT_THAT(state.takeChanges(), IsEmpty()) << "the same servers: no reload for nothing";

    state.add(update({dns("2001:db8::54", 0)}));
    state.add(update(std::vector<SolDnsServer>{}));
    events = state.takeChanges();
    ASSERT_THAT(reasons(events), ElementsAre("DNS_CHANGED"));
    EXPECT_EQ(variables(events[0])["new_dns_servers"], "");
    EXPECT_EQ(variables(events[0])["old_dns_servers"], "2001:db8::53 2001:db8::54");
}

TEST(HookState, EveryRouterAndPrefixEventCarriesTheCurrentDnsSet) {
    HookState state;
    state.add(update({dns("2001:db8::53", 0)}));
    state.takeChanges();
    state.add(update(router("fe80::1", kNew)));
    const auto events = state.takeChanges();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(variables(events[0])["new_dns_servers"], "2001:db8::53");
    EXPECT_EQ(variables(events[0])["old_dns_servers"], "2001:db8::53");
}

TEST(HookState, AResyncReplacesTheWholeStateOnce) {
    HookState state;
    state.add(update(router("fe80::1", kNew)));
    state.add(update(prefix("2001:db8:1::", kNew)));
    state.add(update({dns("2001:db8::53", 0)}));
    state.takeChanges();

    // The new push names router 2 and DNS server 54 only.
    state.add(update(router("fe80::2", kNew)));
    state.add(update({dns("2001:db8::54", 0)}));
    const HookEvent resync = state.takeResync(kNow, kNoHold);
    EXPECT_EQ(resync.reason, "RESYNC");
    EXPECT_EQ(variables(resync)["new_dns_servers"], "2001:db8::54");
    EXPECT_EQ(variables(resync)["old_dns_servers"], "2001:db8::53");
    EXPECT_FALSE(state.hasPending());

    // Router 1 is gone: it is new when heard of again; router 2 is known.
    state.add(update(router("fe80::1", kUpdated)));
    state.add(update(router("fe80::2", kUpdated, 600)));
    state.add(update(prefix("2001:db8:1::", kUpdated)));
    EXPECT_THAT(reasons(state.takeChanges()), ElementsAre("ROUTER_NEW", "ROUTER_UPDATED", "PREFIX_NEW"));
}

TEST(HookState, ThePushOfEveryKeptServerGivesTheActiveOnes) {
    HookState state;
    auto invalidated = dns("2001:db8::54", 1);
    invalidated.m_status.state = static_cast<uint32_t>(sol_dns_server_state_t::STATE_INVALIDATED);
    auto expired = dns("2001:db8::55", 2);
    expired.m_status.state = static_cast<uint32_t>(sol_dns_server_state_t::STATE_EXPIRED);
    state.add(update({dns("2001:db8::53", 0), invalidated, expired}));
    EXPECT_EQ(variables(state.takeResync(kNow, kNoHold))["new_dns_servers"], "2001:db8::53");
}

TEST(HookState, AnEmptyPushEmptiesEverything) {
    HookState state;
    state.add(update({dns("2001:db8::53", 0)}));
    state.add(update(router("fe80::1", kNew)));
    state.takeChanges();
    const HookEvent resync = state.takeResync(kNow, kNoHold);
    EXPECT_EQ(variables(resync)["new_dns_servers"], "");
    EXPECT_EQ(variables(resync)["old_dns_servers"], "2001:db8::53");
    state.add(update(router("fe80::1", kUpdated)));
    EXPECT_THAT(reasons(state.takeChanges()), ElementsAre("ROUTER_NEW"));
}

// After solicd restarted: its push is empty until its first solicitation cycle refills it.
class HookDnsHold : public ::testing::Test {
protected:
    // The hooks acted on 53 (590 s left) and 54 (5 s left).
    void SetUp() override {
        m_state.add(update({dns("2001:db8::53", 0), dns("2001:db8::54", 1, 15)}));
        m_state.takeChanges();
    }
    HookState m_state;
};

TEST_F(HookDnsHold, AnEmptyPushKeepsTheServersUntilTheCycleEnds) {
    m_state.add(update({dns("2001:db8::53", 0)}));
    m_state.takeChanges();
    const HookEvent resync = m_state.takeResync(kNow, kNow + 14);
    EXPECT_EQ(variables(resync)["new_dns_servers"], "2001:db8::53");
    EXPECT_EQ(variables(resync)["old_dns_servers"], "2001:db8::53");
    EXPECT_EQ(m_state.nextHoldEnd(), kNow + 14);

    m_state.endHolds(kNow + 13);
    EXPECT_FALSE(m_state.hasPending());
    m_state.endHolds(kNow + 14);
    const auto events = m_state.takeChanges();
    ASSERT_THAT(reasons(events), ElementsAre("DNS_CHANGED"));
    EXPECT_EQ(variables(events[0])["new_dns_servers"], "") << "then what solicd knows: nothing";
    EXPECT_EQ(variables(events[0])["old_dns_servers"], "2001:db8::53");
    EXPECT_EQ(m_state.nextHoldEnd(), std::nullopt);
}

TEST_F(HookDnsHold, AHeldServerGoesWhenItsOwnLifetimeEnds) {
    HookEvent resync = m_state.takeResync(kNow, kNow + 14);
    EXPECT_EQ(variables(resync)["new_dns_servers"], "2001:db8::53 2001:db8::54");
    EXPECT_EQ(m_state.nextHoldEnd(), kNow + 5) << "54's lifetime ends before the cycle";

    m_state.endHolds(kNow + 5);
    auto events = m_state.takeChanges();
    ASSERT_THAT(reasons(events), ElementsAre("DNS_CHANGED"));
    EXPECT_EQ(variables(events[0])["new_dns_servers"], "2001:db8::53");
    EXPECT_EQ(variables(events[0])["old_dns_servers"], "2001:db8::53 2001:db8::54");
    EXPECT_EQ(m_state.nextHoldEnd(), kNow + 14);
}

TEST_F(HookDnsHold, WhatSolicdAnnouncesMeanwhileIsTakenAtOnce) {
    m_state.takeResync(kNow, kNow + 14);
    // The router answers the solicitation with the same servers: nothing to do.
    m_state.add(update({dns("2001:db8::53", 0), dns("2001:db8::54", 1)}));
    EXPECT_THAT(m_state.takeChanges(), IsEmpty());
    // Another one adds 55, before the held ones.
    m_state.add(update({dns("2001:db8::55", 0)}));
    auto events = m_state.takeChanges();
    ASSERT_THAT(reasons(events), ElementsAre("DNS_CHANGED"));
    EXPECT_EQ(variables(events[0])["new_dns_servers"], "2001:db8::55");
    EXPECT_EQ(variables(events[0])["old_dns_servers"], "2001:db8::53 2001:db8::54")
        << "53 and 54 were solicd's again, and solicd no longer names them";
}

TEST_F(HookDnsHold, AServerSolicdNamedIsNotHeldOnceSolicdDropsIt) {
    m_state.takeResync(kNow, kNow + 14);
    m_state.add(update({dns("2001:db8::55", 0), dns("2001:db8::53", 1)}));
    auto events = m_state.takeChanges();
    ASSERT_THAT(reasons(events), ElementsAre("DNS_CHANGED"));
    EXPECT_EQ(variables(events[0])["new_dns_servers"], "2001:db8::55 2001:db8::53 2001:db8::54");
    // 53 withdrawn: solicd's word stands; 54 is still held.
    m_state.add(update({dns("2001:db8::55", 0)}));
    events = m_state.takeChanges();
    ASSERT_THAT(reasons(events), ElementsAre("DNS_CHANGED"));
    EXPECT_EQ(variables(events[0])["new_dns_servers"], "2001:db8::55 2001:db8::54");
}

TEST_F(HookDnsHold, NothingIsHeldOnceTheCycleHasEnded) {
    const HookEvent resync = m_state.takeResync(kNow, kNow);
    EXPECT_EQ(variables(resync)["new_dns_servers"], "");
    EXPECT_EQ(m_state.nextHoldEnd(), std::nullopt);
}

TEST_F(HookDnsHold, AServerWhoseLifetimeHasEndedIsNotHeld) {
    const HookEvent resync = m_state.takeResync(kNow + 5, kNow + 14);
    EXPECT_EQ(variables(resync)["new_dns_servers"], "2001:db8::53");
}

TEST(HookState, TheServersActedOnCarryTheEndsOfTheirLifetimes) {
    HookState state;
    state.add(update({dns("2001:db8::53", 0), dns("2001:db8::54", 1, kInfiniteLifetime)}));
    state.takeChanges();
    EXPECT_THAT(state.dnsServers(), ElementsAre(KnownServer{"2001:db8::53", kNow + 590},
                                                KnownServer{"2001:db8::54", KnownServer::kNoEnd}));
}

TEST(HookState, ServersRememberedFromTheLastRunAreHeldThroughTheFirstPush) {
    HookState state;
    state.rememberDns({{"2001:db8::53", kNow + 100}, {"2001:db8::54", KnownServer::kNoEnd}});
    HookEvent resync = state.takeResync(kNow, kNow + 14);
    EXPECT_EQ(variables(resync)["new_dns_servers"], "2001:db8::53 2001:db8::54");
    EXPECT_EQ(variables(resync)["old_dns_servers"], "2001:db8::53 2001:db8::54");

    // solicd has run for long: its push stands at once.
    HookState later;
    later.rememberDns({{"2001:db8::53", kNow + 100}});
    later.add(update({dns("2001:db8::55", 0)}));
    resync = later.takeResync(kNow, kNow - 3600);
    EXPECT_EQ(variables(resync)["new_dns_servers"], "2001:db8::55");
    EXPECT_EQ(variables(resync)["old_dns_servers"], "2001:db8::53");
}

TEST(DnsMemory, TheTextRoundTrips) {
    const std::vector<KnownServer> servers{{"2001:db8::53", kNow + 590}, {"fe80::1", KnownServer::kNoEnd}};
    const std::string text = dnsMemoryText(servers);
    EXPECT_EQ(text,
              "# solicctl hooks: the DNS servers the hooks acted on last, each with the end of its lifetime\n"
              "2001:db8::53 1800000590\n"
              "fe80::1 infinite\n");
    std::vector<KnownServer> parsed;
    std::string error;
    ASSERT_TRUE(parseDnsMemory(text, parsed, error)) << error;
    EXPECT_EQ(parsed, servers);
}

TEST(DnsMemory, AnythingButAddressesAndEndsIsRefused) {
    for (const char* text : {"2001:db8::53\n", "2001:db8::53 \n", "2001:db8::53 12x\n", "2001:db8::53 -5\n",
                             "192.0.2.1 100\n", "2001:db8::53;evil 100\n", "2001:db8::53 100 200\n",
                             "2001:db8::53  100\n", "nameserver 2001:db8::53\n"}) {
        std::vector<KnownServer> parsed{{"2001:db8::1", 1}};
        std::string error;
        EXPECT_FALSE(parseDnsMemory(text, parsed, error)) << text;
        EXPECT_EQ(error, "line 1 is not an IPv6 address and the end of its lifetime") << text;
        EXPECT_EQ(parsed.size(), 1u) << "left as it was";
    }
}

// A directory of the test's own, removed at its end.
class ScratchDirTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/solicctl-hooks-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }
    std::string m_dir;
};

using DnsMemoryFile = ScratchDirTest;

TEST_F(DnsMemoryFile, SavedServersAreLoadedByTheNextRun) {
    const std::string path = m_dir + "/dns";
    std::string error;
    DnsMemory first(path);
    EXPECT_THAT(first.load(error), IsEmpty()) << "no file yet";
    EXPECT_EQ(error, "");
    const std::vector<KnownServer> servers{{"2001:db8::53", kNow + 590}};
    first.save(servers, error);
    EXPECT_EQ(error, "");
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));

    DnsMemory next(path);
    EXPECT_EQ(next.load(error), servers);
    EXPECT_EQ(error, "");
}

TEST_F(DnsMemoryFile, ABrokenFileIsNamedAndLeftOut) {
    const std::string path = m_dir + "/dns";
    std::ofstream(path) << "# comment\n2001:db8::53 100\nrubbish\n";
    std::string error;
    DnsMemory memory(path);
    EXPECT_THAT(memory.load(error), IsEmpty());
    EXPECT_EQ(error,
              "ignored " + path +
                  ": line 3 is not an IPv6 address and the end of its lifetime; starting without the DNS "
                  "servers of the last run");
}

TEST_F(DnsMemoryFile, AFileThatCannotBeWrittenIsReportedOnce) {
    const std::string path = m_dir + "/missing/dns";
    DnsMemory memory(path);
    std::string error;
    memory.save({{"2001:db8::53", kNow}}, error);
    EXPECT_EQ(error, "cannot keep the DNS servers in " + path +
                         " (No such file or directory); a restart of the hooks will not hold them");
    memory.save({{"2001:db8::54", kNow}}, error);
    EXPECT_EQ(error, "");
}

TEST_F(DnsMemoryFile, TheCycleEndsAtTheLatestFourteenSecondsAfterTheMailboxWasMade) {
    const std::string mailbox = m_dir + "/solicd";
    std::ofstream(mailbox) << "";
    const timespec times[2] = {{kNow, 500'000'000}, {kNow, 500'000'000}};
    ASSERT_EQ(utimensat(AT_FDCWD, mailbox.c_str(), times, 0), 0);
    // 1 s of first delay, three solicitations 4 s apart, 4 s after the last, 1 s for the answers.
    EXPECT_EQ(firstCycleEnd(m_dir, "solicd", kNow + 3600), kNow + 15) << "14.5 s later, rounded up";
    EXPECT_EQ(firstCycleEnd(m_dir, "gone", kNow + 3600), kNow + 3600 + 14) << "as if made now";
}

TEST(HookEnvironment, InheritedHookVariablesAreReplacedAndValuesPassIntact) {
    std::string path = "PATH=/usr/bin:/bin";
    std::string stale = "SOLICD_REASON=STALE";
    std::string staleNew = "new_address=stale";
    std::string home = "HOME=/root";
    char* inherited[] = {path.data(), stale.data(), staleNew.data(), home.data(), nullptr};
    HookEvent e;
    e.reason = "ROUTER_NEW";
    e.variables = {{"new_address", "fe80::1"}, {"old_address", ""}};
    const auto env = hookEnvironment(inherited, {{"SOLICD_NAMESPACE", "blue ns"}}, e);
    EXPECT_THAT(env, ElementsAre("PATH=/usr/bin:/bin", "HOME=/root", "SOLICD_NAMESPACE=blue ns",
                                 "SOLICD_REASON=ROUTER_NEW", "new_address=fe80::1", "old_address="));
}

// A hooks directory of its own, with programs written by the test.
class HookRunnerTest : public ScratchDirTest {
protected:
    void SetUp() override {
        ScratchDirTest::SetUp();
        std::filesystem::create_directory(m_dir + "/hooks.d");
    }

    void hook(const std::string& name, const std::string& body, bool executable = true) {
        const std::string path = m_dir + "/hooks.d/" + name;
        std::ofstream(path) << "#!/bin/sh\n" << body << "\n";
        chmod(path.c_str(), executable ? 0755 : 0644);
    }

    // Runs the events to their end, as the command's loop does.
    static void runToEnd(HookRunner& runner) {
        const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (runner.busy() && std::chrono::steady_clock::now() < guard) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            runner.advance();
        }
    }

    std::string read(const std::string& name) const {
        std::ifstream in(m_dir + "/" + name);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }
};

TEST_F(HookRunnerTest, HooksRunInNameOrderWithTheEnvironmentIntact) {
    hook("20-second", "echo \"second $SOLICD_REASON\" >>" + m_dir + "/log");
    hook("10-first",
         "printf '%s|%s|%s|%s|%s\\n' \"$SOLICD_REASON\" \"$SOLICD_NAMESPACE\" \"$new_address\" "
         "\"$old_address\" \"$SOLICD_MAILBOX\" >>" +
             m_dir + "/log");
    hook("30-not-executable", "echo never >>" + m_dir + "/log", false);
    hook(".hidden", "echo never >>" + m_dir + "/log");
    HookRunner runner(
        m_dir + "/hooks.d", std::chrono::seconds(10),
        {{"SOLICD_NAMESPACE", "blue ns 'quoted' \"twice\" $HOME `x`"}, {"SOLICD_MAILBOX", "client"}});
    HookEvent e;
    e.reason = "ROUTER_NEW";
    e.variables = {{"new_address", "fe80::1"}, {"old_address", ""}};
    runner.enqueue(e);
    EXPECT_TRUE(runner.busy());
    runToEnd(runner);
    EXPECT_EQ(read("log"),
              "ROUTER_NEW|blue ns 'quoted' \"twice\" $HOME `x`|fe80::1||client\nsecond ROUTER_NEW\n");
}

TEST_F(HookRunnerTest, AFailingAndASlowHookAreReportedAndTheOthersStillRun) {
    hook("10-fails", "exit 3");
    // Ignores SIGTERM: only SIGKILL, 2 s after the limit, ends it.
    hook("20-slow", "trap '' TERM; sleep 30");
    hook("30-works", "echo \"$SOLICD_REASON\" >>" + m_dir + "/log");
    HookRunner runner(m_dir + "/hooks.d", std::chrono::seconds(1), {});
    StderrCapture err;
    const auto begin = std::chrono::steady_clock::now();
    HookEvent e;
    e.reason = "DNS_CHANGED";
    runner.enqueue(e);
    runToEnd(runner);
    const auto took = std::chrono::steady_clock::now() - begin;
    const std::string text = err.text();
    EXPECT_THAT(text, HasSubstr("solicctl: hook 10-fails for DNS_CHANGED failed with exit status 3\n"));
    EXPECT_THAT(text, HasSubstr("solicctl: hook 20-slow for DNS_CHANGED ran past 1 s and was ended\n"));
    EXPECT_EQ(read("log"), "DNS_CHANGED\n");
    EXPECT_GE(took, std::chrono::seconds(3)) << "1 s limit, then 2 s before SIGKILL";
    EXPECT_LT(took, std::chrono::seconds(10));
}

TEST_F(HookRunnerTest, AHookEndedBySigtermAtTheLimitTakesItsGroupAlong) {
    // The child of the hook would outlive it if only the hook were signalled.
    hook("10-parent", "sleep 30 & echo $! >" + m_dir + "/child; wait");
    HookRunner runner(m_dir + "/hooks.d", std::chrono::seconds(1), {});
    StderrCapture err;
    HookEvent e;
    e.reason = "RESYNC";
    runner.enqueue(e);
    runToEnd(runner);
    EXPECT_THAT(err.text(), HasSubstr("hook 10-parent for RESYNC ran past 1 s and was ended"));
    const std::string child = read("child");
    ASSERT_FALSE(child.empty());
    const std::string stat = "/proc/" + child.substr(0, child.find('\n')) + "/stat";
    // Gone, or a zombie waiting for whoever adopted it: not running in any case.
    const auto running = [&] {
        std::ifstream in(stat);
        std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        const size_t close = text.rfind(')');
        return close != std::string::npos && close + 2 < text.size() && text[close + 2] != 'Z';
    };
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (running() && std::chrono::steady_clock::now() < guard) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_FALSE(running()) << "the hook's own child was not ended";
}

TEST_F(HookRunnerTest, StoppingEndsTheRunningHookAndForgetsTheRest) {
    hook("10-polite", "echo $$ >" + m_dir + "/polite; exec sleep 30");
    hook("20-stubborn", "echo $$ >" + m_dir + "/stubborn; trap '' TERM; sleep 30");
    for (const std::string name : {"polite", "stubborn"}) {
        if (name == "stubborn") {
            std::filesystem::remove(m_dir + "/hooks.d/10-polite");
        }
        HookRunner runner(m_dir + "/hooks.d", std::chrono::seconds(60), {});
        HookEvent e;
        e.reason = "RESYNC";
        runner.enqueue(e);
        const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (read(name).empty() && std::chrono::steady_clock::now() < guard) {
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        const auto begin = std::chrono::steady_clock::now();
        runner.stop();
        const auto took = std::chrono::steady_clock::now() - begin;
        EXPECT_FALSE(runner.busy()) << name;
        EXPECT_EQ(runner.fd(), -1) << name;
        const std::string pid = read(name).substr(0, read(name).find('\n'));
        EXPECT_FALSE(std::filesystem::exists("/proc/" + pid))
            << name << " still there (reaped: it must be gone)";
        if (name == "polite") {
            EXPECT_LT(took, std::chrono::seconds(1)) << "SIGTERM is enough";
        } else {
            EXPECT_GE(took, std::chrono::milliseconds(1900)) << "SIGKILL after the 2 s grace";
        }
    }
}

TEST_F(HookRunnerTest, AMissingDirectoryRunsNothing) {
    HookRunner runner(m_dir + "/none", std::chrono::seconds(1), {});
    HookEvent e;
    e.reason = "RESYNC";
    runner.enqueue(e);
    EXPECT_FALSE(runner.busy());
    EXPECT_THAT(hookPrograms(m_dir + "/none"), IsEmpty());
}

}  // namespace
