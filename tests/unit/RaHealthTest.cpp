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
#include "SolApp.h"
#include "SolIf.h"
#include "TraceCapture.h"
#include "lmx.h"

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
    // A trace of the method that finds the event.
    static std::string info(const std::string& method, const std::string& text) {
        return method + "(): [" + kTag + "] " + text;
    }
    static std::string disagree(const std::string& text) { return info("check", text); }
    // The conflicts listed in an answer (each is listed under both routers).
    static size_t conflictsListed(const nlohmann::json& answer) {
        size_t n = 0;
        for (const auto& r : answer["routers"]) {
            n += r["conflicts"].size();
        }
        return n / 2;
    }

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
    EXPECT_THAT(infos(),
                ElementsAre(info("noteArrival", "Router fe80::1 sent no RA for 20 s, usually every 2 s")));
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
        ElementsAre(
            disagree("Router fe80::2 disagrees with router fe80::1 on M flag: 0 vs 1"),
            disagree("Router fe80::2 disagrees with router fe80::1 on O flag: 1 vs 0"),
            disagree("Router fe80::2 disagrees with router fe80::1 on reachable time: 20000 vs 30000"),
            disagree("Router fe80::2 disagrees with router fe80::1 on retrans timer: 2000 vs 1000"),
            disagree("Router fe80::2 disagrees with router fe80::1 on valid lifetime of "
                     "2001:db8:1::/64: 7200 vs 86400"),
            disagree("Router fe80::2 disagrees with router fe80::1 on preferred lifetime of "
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
    EXPECT_THAT(infos(),
                ElementsAre(disagree("Router fe80::1 disagrees with router fe80::2 on M flag: 1 vs 0")));
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
    EXPECT_THAT(infos(),
                ElementsAre(info("onRa", "New router fe80::3 appeared 3601 s after the first router")));
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
    // The four oldest were forgotten, and the answer says how many.
    for (const auto& o : j["otherSources"]) {
        EXPECT_GE(o["lastSeen"].get<time_t>(), kStart + 4) << o;
    }
    EXPECT_EQ(j["otherSourcesForgotten"], 4);
}

// 64 routers that each disagree with every other (a spoofing flood): the conflicts grow with the
// square of the routers, but only the first 64 found are kept and traced; the rest are counted.
TEST_F(RaHealthTest, AFloodOfDisagreeingRoutersKeepsTheFirstConflictsAndCountsTheRest) {
    constexpr unsigned kRouters = 64;
    for (unsigned i = 0; i < kRouters; ++i) {
        const std::string address = "fe80::1:" + std::to_string(i);
        ra(router(address.c_str(), 0, 10000 + i), kStart + i);
    }
    const size_t pairs = kRouters * (kRouters - 1) / 2;
    const auto j = answer(kStart + kRouters);
    EXPECT_EQ(conflictsListed(j), RaHealth::kConflictsMax);
    EXPECT_EQ(j["conflictsDropped"], pairs - RaHealth::kConflictsMax);
    EXPECT_EQ(infos().size(), RaHealth::kConflictsMax) << "a conflict not kept is not traced";
    EXPECT_EQ(infos().front(), disagree("Router fe80::1:1 disagrees with router fe80::1:0 on reachable time: "
                                        "10001 vs 10000"));
    // Every router is still there, with its own counts.
    EXPECT_EQ(j["routers"].size(), kRouters);
}

// A kept conflict that ends makes room: the next disagreement found is kept, and traced.
TEST_F(RaHealthTest, AConflictThatEndsMakesRoomForTheNextOneFound) {
    constexpr unsigned kRouters = 16;
    for (unsigned i = 0; i < kRouters; ++i) {
        const std::string address = "fe80::1:" + std::to_string(i);
        ra(router(address.c_str(), 0, 10000 + i), kStart);
    }
    ASSERT_EQ(conflictsListed(answer(kStart)), RaHealth::kConflictsMax);
    const uint64_t droppedBefore = answer(kStart)["conflictsDropped"];
    m_traces.clear();
    // Router 1 now agrees with router 0 (and still disagrees with the others): their conflict
    // ends, and of router 1's other disagreements the first not kept takes its place.
    ra(router("fe80::1:1", 0, 10000), kStart + 1);
    const auto j = answer(kStart + 1);
    EXPECT_EQ(conflictsListed(j), RaHealth::kConflictsMax);
    EXPECT_THAT(infos(),
                ElementsAre(disagree("Router fe80::1:1 disagrees with router fe80::1:12 on reachable "
                                     "time: 10000 vs 10012")));
    EXPECT_GT(j["conflictsDropped"].get<uint64_t>(), droppedBefore) << "the rest are counted again";
    for (const auto& c : j["routers"][0]["conflicts"]) {
        EXPECT_NE(c["peer"], "fe80::1:1") << "routers 0 and 1 agree";
    }
}

// The largest document the daemon can be asked for travels whole: 64 routers (the cache's most)
// with the longest addresses and every reason of drop, 64 conflicts with the longest texts, and
// the whole table of other sources, each with every reason.
TEST_F(RaHealthTest, TheLargestAnswerFitsTheLargestMessage) {
    ParseOutcome everything;
    for (uint32_t& n : everything.prefixesIgnored) {
        n = 0xffffffff;
    }
    const auto longest = [](const char* head, unsigned i) {
        char text[64];
        std::snprintf(text, sizeof text, "%sffff:ffff:ffff:ffff:ffff:ffff:%04x", head, i);
        return std::string(text);
    };
    // Two routers disagreeing on both lifetimes of 32 prefixes of the longest text.
    std::vector<SolNetwork::Config> mine;
    std::vector<SolNetwork::Config> theirs;
    for (unsigned i = 0; i < RaHealth::kConflictsMax / 2; ++i) {
        SolNetwork::Config n = prefix(longest("ffff:", i).c_str(), 4294967294u, 4294967293u);
        n.prefixLength = 128;
        mine.push_back(n);
        // Far from counting down together with the first router's.
        n.validLifetime = 1000000000u;
        n.preferredLifetime = 1000000001u;
        theirs.push_back(n);
    }
    for (unsigned i = 0; i < SolApp::Logic::kMaxRouters; ++i) {
        const std::string address = longest("fe80:", i);
        const auto& networks = i == 0 ? mine : i == 1 ? theirs : std::vector<SolNetwork::Config>{};
        ra(router(address.c_str()), kStart + i, networks, everything);
        for (size_t drop = 1; drop < kRaDropCount; ++drop) {
            ParseOutcome dropped;
            dropped.drop = static_cast<RaDrop>(drop);
            m_health.onRa(ipv6(address.c_str()), nullptr, {}, dropped, false, kStart + i);
        }
    }
    for (unsigned i = 0; i < RaHealth::kOtherSourcesMax; ++i) {
        for (size_t drop = 1; drop < kRaDropCount; ++drop) {
            ParseOutcome dropped = everything;
            dropped.drop = static_cast<RaDrop>(drop);
            m_health.onRa(ipv6(longest("2001:", i).c_str()), nullptr, {}, dropped, false, kStart);
        }
    }
    const std::string document = m_health.json(kStart + 100);
    const auto j = nlohmann::json::parse(document);
    ASSERT_EQ(j["routers"].size(), SolApp::Logic::kMaxRouters);
    ASSERT_EQ(conflictsListed(j), RaHealth::kConflictsMax);
    ASSERT_EQ(j["otherSources"].size(), RaHealth::kOtherSourcesMax);
    // Every number in it written with 20 digits, as the largest counts would be, cannot make up
    // the difference: about 40 numbers per router or source.
    constexpr size_t kLongerNumbers = (SolApp::Logic::kMaxRouters + RaHealth::kOtherSourcesMax) * 40 * 20;
    EXPECT_LE(document.size() + 1 + kLongerNumbers + kSolifShowRainfoOverhead, lmx_get_max_size())
        << document.size() << " bytes";
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
                ElementsAre(disagree("Router fe80::2 disagrees with router fe80::1 on valid lifetime of "
                                     "2001:db8:3e7::/64: 7200 vs 86400"),
                            disagree("Router fe80::2 disagrees with router fe80::1 on preferred lifetime of "
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
