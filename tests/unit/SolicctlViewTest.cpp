// solicctl's forms for people, against golden files: `status` for a fixed cache at a fixed time,
// plain, coloured and as JSON, and `watch` lines for fixed updates. SOLICD_UPDATE_GOLDEN=1
// rewrites the files from the output (then review the diff).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "ClientRecords.h"
#include "Durations.h"
#include "HealthView.h"
#include "LmxTestPeer.h"
#include "StatusView.h"
#include "Table.h"
#include "Terminal.h"
#include "WatchLines.h"

using namespace solicd;
using namespace solicd::ctl;
using namespace solicd::test;

namespace {

constexpr int64_t kNow = 1764064800;  // 2025-11-25 10:00:00 UTC

void expectGolden(const std::string& name, const std::string& actual) {
    const std::string path = std::string(SOLICD_GOLDEN_DIR) + "/" + name;
    const char* update = std::getenv("SOLICD_UPDATE_GOLDEN");
    if (update != nullptr && std::string(update) == "1") {
        std::ofstream(path, std::ios::binary) << actual;
    }
    std::ifstream in(path, std::ios::binary);
    ASSERT_TRUE(in) << "no golden file " << path << "; run with SOLICD_UPDATE_GOLDEN=1 to write it";
    std::ostringstream expected;
    expected << in.rdbuf();
    EXPECT_EQ(actual, expected.str()) << "differs from " << path;
}

template <class S>
void times(S& s, uint32_t state, int64_t start, int64_t updated) {
    s.state = state;
    s.createdTime = start;
    s.lastUpdateTime = updated;
    s.lastStateChangeTime = start;
    s.lastConfigChangeTime = start;
    s.timeoutStartTime = updated;
}

SolRouter router(const char* address, uint16_t lifetime, uint32_t flags, sol_router_state_t state,
                 int64_t updated) {
    SolRouter r;
    r.m_config.address = ipv6(address);
    r.m_config.reachableTime = 30000;
    r.m_config.retransTimer = 1500;
    r.m_config.routerLifetime = lifetime;
    r.m_config.flags = flags;
    times(r.m_status, static_cast<uint32_t>(state), kNow - 3600, updated);
    r.m_status.expiryTime = updated + lifetime;
    return r;
}

SolNetwork prefix(const char* address, uint32_t length, uint32_t valid, uint32_t preferred, uint32_t flags,
                  sol_network_state_t state, int64_t updated) {
    SolNetwork n;
    n.m_config.prefix = ipv6(address);
    n.m_config.prefixLength = length;
    n.m_config.validLifetime = valid;
    n.m_config.preferredLifetime = preferred;
    n.m_config.flags = flags;
    times(n.m_status, static_cast<uint32_t>(state), kNow - 7200, updated);
    return n;
}

SolDnsServer dns(uint32_t index, const char* address, uint32_t lifetime, sol_dns_server_state_t state,
                 int64_t updated) {
    SolDnsServer d;
    d.m_config.index = index;
    d.m_config.address = ipv6(address);
    d.m_config.lifetime = lifetime;
    times(d.m_status, static_cast<uint32_t>(state), kNow - 600, updated);
    return d;
}

// A link with every case a table shows: active and inactive entries interleaved in the cache,
// infinite lifetimes, a deprecated prefix, the two-hour rule at work, flags and none.
SolCacheText fixedCache() {
    SolCacheText c;
    c.routers.push_back(router("fe80::2", 1800, 0, sol_router_state_t::STATE_EXPIRED, kNow - 1900));
    c.routers.push_back(router("fe80::1", 1800, FLAG_OTHER, sol_router_state_t::STATE_UPDATED, kNow - 2));
    c.routers.push_back(
        router("fe80::abcd:1", 9000, FLAG_MANAGED | FLAG_OTHER, sol_router_state_t::STATE_NEW, kNow - 65));
    c.routers.back().m_config.reachableTime = 0;
    c.routers.back().m_config.retransTimer = 0;
    c.networks.push_back(prefix("2001:db8:1::", 64, 86400, 14400, FLAG_ON_LINK | FLAG_AUTONOMOUS,
                                sol_network_state_t::STATE_NEW, kNow - 60));
    c.networks.push_back(prefix("2001:db8:2::99", 64, 7200, 600, FLAG_ON_LINK | FLAG_AUTONOMOUS,
                                sol_network_state_t::STATE_DEPRECATED, kNow - 900));
    c.networks.back().m_status.lifetimeResetCount = 1;
    c.networks.back().m_status.lifetimeIgnoredCount = 2;
    c.networks.push_back(prefix("2001:db8:ffff::", 48, kInfiniteLifetime, kInfiniteLifetime, FLAG_ON_LINK,
                                sol_network_state_t::STATE_UPDATED, kNow - 5));
    c.dnsServers.push_back(dns(0, "2001:db8::53", 600, sol_dns_server_state_t::STATE_NEW, kNow - 2));
    c.dnsServers.push_back(dns(2, "2001:db8::55", 600, sol_dns_server_state_t::STATE_EXPIRED, kNow - 700));
    c.dnsServers.push_back(
        dns(1, "2001:db8::54", kInfiniteLifetime, sol_dns_server_state_t::STATE_NEW, kNow - 2));
    c.socketCounters.m_counters = {1234, 3, 0, 2};
    c.packetCounters.m_counters = {1234, 0, 1200, 34};
    return c;
}

TEST(SolicctlStatus, PlainTextMatchesTheGoldenFile) {
    expectGolden("status.txt", statusText("solicd.ns1-eth0", fixedCache(), kNow, false));
}

TEST(SolicctlStatus, ColouredTextMatchesTheGoldenFile) {
    expectGolden("status-colour.txt", statusText("solicd.ns1-eth0", fixedCache(), kNow, true));
}

TEST(SolicctlStatus, JsonMatchesTheGoldenFile) {
    expectGolden("status.json", statusJson("solicd.ns1-eth0", fixedCache()) + "\n");
}

TEST(SolicctlStatus, AnEmptyCacheSaysNoneUnderEachHeading) {
    SolCacheText empty;
    empty.socketCounters.m_counters.txRs = 1;
    expectGolden("status-empty.txt", statusText("solicd", empty, kNow, false));
}

SolifMessage update(uint32_t msgNo) {
    SolifMessage m;
    m.msgNo = msgNo;
    return m;
}

TEST(SolicctlWatch, LinesMatchTheGoldenFile) {
    setenv("TZ", "UTC", 1);
    tzset();
    const SolCacheText c = fixedCache();
    std::vector<SolifMessage> updates;
    for (const auto& r : c.routers) {
        updates.push_back(update(SOLIF_ROUTER_UPDATED_IND));
        updates.back().routers = {r};
    }
    for (const auto& n : c.networks) {
        updates.push_back(update(SOLIF_NETWORK_UPDATED_IND));
        updates.back().networks = {n};
    }
    updates.push_back(update(SOLIF_DNS_SERVER_UPDATED_IND));
    updates.back().dnsServers = {c.dnsServers[0]};
    updates.push_back(update(SOLIF_DNS_SERVER_UPDATED_IND));
    updates.back().dnsServers = {c.dnsServers[0], c.dnsServers[1]};
    updates.push_back(update(SOLIF_DNS_SERVER_UPDATED_IND));
    updates.back().dnsServers = {c.dnsServers[0], c.dnsServers[2]};
    updates.push_back(update(SOLIF_DNS_SERVER_UPDATED_IND));
    std::string plain;
    std::string coloured;
    for (size_t i = 0; i < updates.size(); ++i) {
        plain += watchLine(updates[i], kNow + static_cast<int64_t>(i), false) + "\n";
        coloured += watchLine(updates[i], kNow + static_cast<int64_t>(i), true) + "\n";
    }
    expectGolden("watch.txt", plain);
    expectGolden("watch-colour.txt", coloured);
    EXPECT_EQ(watchLine(update(SOLIF_GET_ROUTERS_CFM), kNow, false), "") << "not an update";
}

TEST(SolicctlDurations, TwoUnitsAtMostAndWordsForTheSpecialCases) {
    EXPECT_EQ(durationText(0), "0s");
    EXPECT_EQ(durationText(-5), "0s");
    EXPECT_EQ(durationText(59), "59s");
    EXPECT_EQ(durationText(60), "1m");
    EXPECT_EQ(durationText(1798), "29m 58s");
    EXPECT_EQ(durationText(3600), "1h");
    EXPECT_EQ(durationText(3661), "1h 1m");
    EXPECT_EQ(durationText(86399), "23h 59m");
    EXPECT_EQ(durationText(86400), "1d");
    EXPECT_EQ(durationText(86401), "1d");
    EXPECT_EQ(durationText(90061), "1d 1h");
    EXPECT_EQ(durationText(4294967294), "49710d 6h");
    EXPECT_EQ(lifetimeText(0xffffffff), "infinite");
    EXPECT_EQ(lifetimeText(14400), "4h");
    EXPECT_EQ(agoText(5), "5s ago");
    EXPECT_EQ(agoText(-3), "0s ago");
    EXPECT_EQ(millisecondsText(0), "-");
    EXPECT_EQ(millisecondsText(30000), "30s");
    EXPECT_EQ(millisecondsText(1500), "1500ms");
    EXPECT_EQ(millisecondsText(750), "750ms");
}

TEST(SolicctlTerminal, ColourOnlyOnATerminalWithoutNoColorOrADumbTerm) {
    EXPECT_TRUE(colourWanted(true, nullptr, "xterm-256color"));
    EXPECT_TRUE(colourWanted(true, nullptr, nullptr));
    EXPECT_TRUE(colourWanted(true, "", "xterm")) << "an empty NO_COLOR does not count";
    EXPECT_FALSE(colourWanted(false, nullptr, "xterm"));
    EXPECT_FALSE(colourWanted(true, "1", "xterm"));
    EXPECT_FALSE(colourWanted(true, "0", "xterm")) << "any value counts";
    EXPECT_FALSE(colourWanted(true, nullptr, "dumb"));
    EXPECT_EQ(paint("x", Tone::Good, false), "x");
    EXPECT_EQ(paint("x", Tone::Good, true), "\033[32mx\033[0m");
    EXPECT_EQ(paint("x", Tone::Plain, true), "x");
}

TEST(SolicctlTable, ColumnsAlignOnTheTextNotOnTheColourAndLinesEndWithoutBlanks) {
    Table t({"A", "BB", "C"});
    t.addRow({{"long cell"}, {"x", Tone::Good}, {""}});
    t.addRow({{"s"}, {""}, {"end"}});
    EXPECT_EQ(t.render(false), "A          BB  C\nlong cell  x\ns              end\n");
    EXPECT_EQ(t.render(true),
              "\033[1mA\033[0m          \033[1mBB\033[0m  \033[1mC\033[0m\n"
              "long cell  \033[32mx\033[0m\n"
              "s              end\n");
}

TEST(SolicctlHealth, TextMatchesTheGoldenFile) {
    HealthDocument health;
    std::string error;
    ASSERT_TRUE(readHealth(kTestHealthText, health, error)) << error;
    expectGolden("health.txt", healthText("solicd.ns1-eth0", health, kNow, false));
    expectGolden("health-colour.txt", healthText("solicd.ns1-eth0", health, kNow, true));
}

TEST(SolicctlHealth, MetricsMatchTheGoldenFile) {
    HealthDocument health;
    std::string error;
    ASSERT_TRUE(readHealth(kTestHealthText, health, error)) << error;
    expectGolden("metrics.txt", metricsText(health, fixedCache(), kNow));
    expectGolden("metrics.prom", metricsText(health, fixedCache(), kNow, MetricsFormat::Prometheus));
}

// What the daemon left out of the document (conflicts beyond those it keeps, other sources
// forgotten for newer ones) is said under the heading, and counted in the metrics.
TEST(SolicctlHealth, WhatTheDocumentLeftOutIsSaid) {
    nlohmann::json doc = nlohmann::json::parse(kTestHealthText);
    doc["conflictsDropped"] = 5321;
    doc["otherSourcesForgotten"] = 3;
    HealthDocument health;
    std::string error;
    ASSERT_TRUE(readHealth(doc.dump(), health, error)) << error;
    const std::string text = healthText("solicd.ns1-eth0", health, kNow, false);
    EXPECT_EQ(text.substr(0, text.find("\n\n")),
              "solicd.ns1-eth0: 2 routers heard, 1 other source of dropped RAs\n"
              "Conflicts: 1 kept, 5321 more disagreements found and not kept\n"
              "Other sources: 1 kept, 3 forgotten for newer ones");
    const std::string metrics = metricsText(health, fixedCache(), kNow);
    EXPECT_NE(metrics.find("\nsolicd_router_conflicts_dropped_total 5321\n"), std::string::npos) << metrics;
    EXPECT_NE(metrics.find("\nsolicd_other_sources_forgotten_total 3\n"), std::string::npos) << metrics;
    // Nothing left out, nothing said.
    ASSERT_TRUE(readHealth(kTestHealthText, health, error)) << error;
    const std::string calm = healthText("solicd.ns1-eth0", health, kNow, false);
    EXPECT_EQ(calm.find("Conflicts:"), std::string::npos) << calm;
    EXPECT_EQ(calm.find("Other sources:"), std::string::npos) << calm;
}

TEST(SolicctlHealth, ADocumentItCannotReadIsAnError) {
    HealthDocument health;
    std::string error;
    EXPECT_FALSE(readHealth("{not json", health, error));
    EXPECT_EQ(error, "not a JSON document");
    EXPECT_FALSE(readHealth(R"({"version":2,"routers":[],"otherSources":[]})", health, error));
    EXPECT_EQ(error,
              "a health document of version 2, this solicctl reads version 1; check that solicd and "
              "solicctl are of one version");
    EXPECT_FALSE(readHealth(R"({"version":1})", health, error));
    EXPECT_EQ(error, "a health document without its lists");
    // Whole JSON, but not what solicd writes: refused whole, never half shown.
    nlohmann::json doc = nlohmann::json::parse(kTestHealthText);
    doc["routers"][1]["ras"] = "many";
    EXPECT_FALSE(readHealth(doc.dump(), health, error));
    EXPECT_EQ(error, "a health document with a router whose ras is not a count");
    doc = nlohmann::json::parse(kTestHealthText);
    doc["routers"][0]["interval"].erase("mean");
    EXPECT_FALSE(readHealth(doc.dump(), health, error));
    EXPECT_EQ(error, "a health document with a router's interval whose mean is not a number of seconds");
    doc = nlohmann::json::parse(kTestHealthText);
    doc["routers"][0]["conflicts"][0]["peer"] = 7;
    EXPECT_FALSE(readHealth(doc.dump(), health, error));
    EXPECT_EQ(error, "a health document with a conflict whose peer is not a string");
    doc = nlohmann::json::parse(kTestHealthText);
    doc["otherSources"][0]["dropped"]["malformed_option"] = -4;
    EXPECT_FALSE(readHealth(doc.dump(), health, error));
    EXPECT_EQ(error, "a health document with another source whose count of malformed_option is not a count");
    doc = nlohmann::json::parse(kTestHealthText);
    doc["otherSources"][0] = "fe80::bad";
    EXPECT_FALSE(readHealth(doc.dump(), health, error));
    EXPECT_EQ(error, "a health document with another source that is not an object");
}

}  // namespace
