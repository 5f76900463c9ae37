// The routers' health: intervals and gaps, conflicts raised once and cleared when the routers
// agree again, the late-router hint, the bounded table of other sources, health leaving with an
// evicted router, and the answer's exact document (a golden file). Time is passed in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "ClientRecords.h"
#include "RaHealth.h"
#include "TraceCapture.h"

using namespace solicd;
using namespace solicd::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr time_t kStart = 1764064800;
const std::string kTag = "health-test";

SolRouter::Config router(const char* address, uint32_t flags = 0, uint32_t reachable = 0,
                         uint32_t retrans = 0) {
    SolRouter::Config c;
    c.address = ipv6(address);
    c.routerLifetime = 1800;
    c.flags = flags;
    c.reachableTime = reachable;
    c.retransTimer = retrans;
    return c;
}

SolNetwork::Config prefix(const char* address, uint32_t valid, uint32_t preferred) {
    SolNetwork::Config n;
    n.prefix = ipv6(address);
    n.prefixLength = 64;
    n.validLifetime = valid;
    n.preferredLifetime = preferred;
    n.flags = FLAG_ON_LINK | FLAG_AUTONOMOUS;
    return n;
}

class RaHealthTest : public ::testing::Test {
protected:
    void SetUp() override { setTraceTag(kTag); }

    // An RA parsed from `config`'s router and cached.
    void ra(const SolRouter::Config& config, time_t at, std::vector<SolNetwork::Config> networks = {},
            ParseOutcome outcome = {}) {
        m_health.onRa(config.address, &config, networks, outcome, true, at);
    }

    std::vector<std::string> infos() const { return m_traces.messages(TraceEvent::INFO); }
    static std::string info(const std::string& text) { return "RaHealth(): [" + kTag + "] " + text; }

    nlohmann::json answer(time_t now) const { return nlohmann::json::parse(m_health.json(now)); }

    RaHealth m_health;
    TraceCapture m_traces;
};

TEST_F(RaHealthTest, IntervalsAreCountedAndAGapIsTracedWhenTheLateRaComes) {
    const auto a = router("fe80::1");
    for (time_t t = 0; t <= 10; t += 2) {
        ra(a, kStart + t);
    }
    EXPECT_THAT(infos(), IsEmpty());
    ra(a, kStart + 30);  // 20 s of silence where 2 s is usual
    EXPECT_THAT(infos(), ElementsAre(info("Router fe80::1 sent no RA for 20 s, usually every 2 s")));
    ra(a, kStart + 32);
    EXPECT_EQ(infos().size(), 1u) << "the usual interval again";
    const auto r = answer(kStart + 35)["routers"][0];
    EXPECT_EQ(r["ras"], 8);
    EXPECT_EQ(r["firstRa"], kStart);
    EXPECT_EQ(r["lastRa"], kStart + 32);
    EXPECT_EQ(r["silentSeconds"], 3);
    EXPECT_EQ(r["gaps"], 1);
    EXPECT_EQ(r["interval"]["count"], 7);
    EXPECT_EQ(r["interval"]["last"], 2);
    EXPECT_EQ(r["interval"]["min"], 2);
    EXPECT_EQ(r["interval"]["max"], 20);
    EXPECT_EQ(r["interval"]["mean"], 2.0) << "a gap does not make the usual interval longer";
}

TEST_F(RaHealthTest, NoGapBeforeTheUsualIntervalIsKnown) {
    const auto a = router("fe80::1");
    ra(a, kStart);
    ra(a, kStart + 1);
    ra(a, kStart + 60);
    EXPECT_THAT(infos(), IsEmpty());
}

TEST_F(RaHealthTest, EachConflictKindIsRaisedOnceAndClearedWhenTheRoutersAgree) {
    ra(router("fe80::1", FLAG_MANAGED, 30000, 1000), kStart, {prefix("2001:db8:1::", 86400, 14400)});
    ra(router("fe80::2", FLAG_OTHER, 20000, 2000), kStart + 1, {prefix("2001:db8:1::", 7200, 3600)});
    ra(router("fe80::2", FLAG_OTHER, 20000, 2000), kStart + 2, {prefix("2001:db8:1::", 7200, 3600)});
    EXPECT_THAT(
        infos(),
        ElementsAre(info("Router fe80::2 disagrees with router fe80::1 on M flag: 0 vs 1"),
                    info("Router fe80::2 disagrees with router fe80::1 on O flag: 1 vs 0"),
                    info("Router fe80::2 disagrees with router fe80::1 on reachable time: 20000 vs 30000"),
                    info("Router fe80::2 disagrees with router fe80::1 on retrans timer: 2000 vs 1000"),
                    info("Router fe80::2 disagrees with router fe80::1 on valid lifetime of "
                         "2001:db8:1::/64: 7200 vs 86400"),
                    info("Router fe80::2 disagrees with router fe80::1 on preferred lifetime of "
                         "2001:db8:1::/64: 3600 vs 14400")))
        << "once per pair and field";
    EXPECT_EQ(answer(kStart + 3)["routers"][0]["conflicts"].size(), 6u);
    m_traces.clear();

    // The first router comes round: everything agrees, nothing is traced, the conflicts go.
    ra(router("fe80::1", FLAG_OTHER, 20000, 2000), kStart + 3, {prefix("2001:db8:1::", 7200, 3600)});
    EXPECT_THAT(infos(), IsEmpty());
    EXPECT_THAT(answer(kStart + 4)["routers"][0]["conflicts"], IsEmpty());
    // A new disagreement is news again.
    ra(router("fe80::1", FLAG_MANAGED | FLAG_OTHER, 20000, 2000), kStart + 4);
    EXPECT_THAT(infos(), ElementsAre(info("Router fe80::1 disagrees with router fe80::2 on M flag: 1 vs 0")));
}

TEST_F(RaHealthTest, UnsetTimersAndLifetimesCountingDownTogetherAreNoConflict) {
    ra(router("fe80::1", 0, 30000, 0), kStart, {prefix("2001:db8:1::", 1000, 500)});
    // Unspecified reachable time; the lifetimes decremented in real time by the 100 s since.
    ra(router("fe80::2", 0, 0, 1000), kStart + 100, {prefix("2001:db8:1::", 900, 400)});
    EXPECT_THAT(infos(), IsEmpty());
    EXPECT_THAT(answer(kStart + 100)["routers"][1]["conflicts"], IsEmpty());
}

TEST_F(RaHealthTest, ARouterFirstHeardLongAfterTheFirstIsNamed) {
    ra(router("fe80::1"), kStart);
    ra(router("fe80::2"), kStart + 600);
    EXPECT_THAT(infos(), IsEmpty()) << "600 s is not yet late";
    ra(router("fe80::3"), kStart + 3601);
    EXPECT_THAT(infos(), ElementsAre(info("New router fe80::3 appeared 3601 s after the first router")));
}

TEST_F(RaHealthTest, OutcomesGoToTheRouterOrToTheBoundedTableOfOtherSources) {
    ParseOutcome ignored;
    ignored.prefixesIgnored[static_cast<size_t>(PrefixIgnore::PrefixLength)] = 2;
    ra(router("fe80::1"), kStart, {}, ignored);
    ParseOutcome malformed;
    malformed.drop = RaDrop::MalformedOption;
    m_health.onRa(ipv6("fe80::1"), nullptr, {}, malformed, false, kStart + 1);
    for (int i = 0; i < 20; ++i) {
        m_health.onRa(ipv6(("fe80::a:" + std::to_string(i)).c_str()), nullptr, {}, malformed, false,
                      kStart + i);
    }
    const auto j = answer(kStart + 30);
    EXPECT_EQ(j["routers"][0]["prefixesIgnored"], nlohmann::json({{"prefix_length", 2}}));
    EXPECT_EQ(j["routers"][0]["dropped"], nlohmann::json({{"malformed_option", 1}}));
    ASSERT_EQ(j["otherSources"].size(), RaHealth::kOtherSourcesMax);
    // The four oldest were forgotten.
    for (const auto& o : j["otherSources"]) {
        EXPECT_GE(o["lastSeen"].get<time_t>(), kStart + 4) << o;
    }
}

TEST_F(RaHealthTest, AFloodOfNewPrefixesKeepsOnlyTheNewestForComparing) {
    const auto a = router("fe80::1");
    for (unsigned i = 0; i < 1000; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "2001:db8:%x::", i);
        ra(a, kStart + i / 4, {prefix(text, 86400, 14400)});
    }
    // The newest prefixes are still compared: another router disagreeing on the last one is seen.
    ra(router("fe80::2"), kStart + 300, {prefix("2001:db8:3e7::", 7200, 3600)});
    EXPECT_THAT(infos(),
                ElementsAre(info("Router fe80::2 disagrees with router fe80::1 on valid lifetime of "
                                 "2001:db8:3e7::/64: 7200 vs 86400"),
                            info("Router fe80::2 disagrees with router fe80::1 on preferred lifetime of "
                                 "2001:db8:3e7::/64: 3600 vs 14400")));
    m_traces.clear();
    // The oldest are forgotten: no comparison, no trace.
    ra(router("fe80::2"), kStart + 301, {prefix("2001:db8:0::", 7200, 3600)});
    EXPECT_THAT(infos(), IsEmpty());
}

TEST_F(RaHealthTest, HealthLeavesWithTheEvictedRouterAndItsConflicts) {
    ra(router("fe80::1", FLAG_MANAGED), kStart);
    ra(router("fe80::2"), kStart + 1);
    m_health.keepOnly([](const RaHealth::Address& a) { return a == RaHealth::addressOf(ipv6("fe80::2")); });
    const auto j = answer(kStart + 2);
    ASSERT_EQ(j["routers"].size(), 1u);
    EXPECT_EQ(j["routers"][0]["address"], "fe80::2");
    EXPECT_THAT(j["routers"][0]["conflicts"], IsEmpty());
    EXPECT_EQ(m_health.routerCount(), 1u);
}

TEST_F(RaHealthTest, TheAnswerMatchesTheGoldenFile) {
    ParseOutcome ignored;
    ignored.prefixesIgnored[static_cast<size_t>(PrefixIgnore::LinkLocal)] = 1;
    ra(router("fe80::1", FLAG_MANAGED, 30000, 1000), kStart, {prefix("2001:db8:1::", 86400, 14400)}, ignored);
    ra(router("fe80::1", FLAG_MANAGED, 30000, 1000), kStart + 10, {prefix("2001:db8:1::", 86400, 14400)});
    ra(router("fe80::2", 0, 30000, 1000), kStart + 12, {prefix("2001:db8:1::", 86400, 14400)});
    ParseOutcome malformed;
    malformed.drop = RaDrop::MalformedOption;
    m_health.onRa(ipv6("fe80::bad"), nullptr, {}, malformed, false, kStart + 13);
    const std::string actual = nlohmann::ordered_json::parse(m_health.json(kStart + 20)).dump(2) + "\n";
    const std::string path = std::string(SOLICD_GOLDEN_DIR) + "/health.json";
    const char* update = std::getenv("SOLICD_UPDATE_GOLDEN");
    if (update != nullptr && std::string(update) == "1") {
        std::ofstream(path) << actual;
    }
    std::ifstream in(path);
    std::ostringstream expected;
    expected << in.rdbuf();
    EXPECT_EQ(actual, expected.str()) << "differs from " << path;
    EXPECT_EQ(m_health.json(kStart + 20).find('\n'), std::string::npos) << "one line on the wire";
    EXPECT_EQ(nlohmann::ordered_json::parse(m_health.json(kStart + 20)).begin().key(), "version");
}

}  // namespace
