#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "SolApp.h"
#include "SolAppDoubles.h"
#include "TraceCapture.h"

using namespace solicd;
using namespace solicd::test;
using SolApp::Logic;
using CacheTimeout = SolApp::Logic::CacheTimeout;
using ::testing::_;
using ::testing::DoAll;
using ::testing::ElementsAre;
using ::testing::Eq;
using ::testing::Return;
using ::testing::SetArgPointee;
using ::testing::UnorderedElementsAre;

namespace {

constexpr const char* kTag = "solcid.ns1-eth0";
constexpr const char* kRouter = "router/fe80::1";
constexpr const char* kNetwork = "network/2001:db8::/64";
constexpr const char* kDns = "dns/2001:db8::53";

std::string tagged(const std::string& function, const std::string& text) {
    return function + "(): [" + kTag + "] " + text;
}

std::string added(const std::string& name, uint64_t ms, uint32_t handler) {
    return tagged("add", "Timer " + name + " is added, timeout " + std::to_string(ms) +
                             " msec, handler: " + std::to_string(handler));
}

std::string removed(const std::string& name, uint32_t handler) {
    return tagged("remove", "Timer " + name + " is removed, handler id: " + std::to_string(handler));
}

class CacheTimeoutTest : public ::testing::Test {
protected:
    void SetUp() override { setTraceTag(kTag); }
    void TearDown() override { setTraceTag(""); }

    uint32_t handlerOf(const std::string& name) const {
        return m_logic.getTimeouts().at(name).getHandlerId();
    }

    // Monotonic time at which the timer's GLib source becomes ready.
    static gint64 readyTime(uint32_t handler) {
        GSource* source = g_main_context_find_source_by_id(nullptr, handler);
        return source != nullptr ? g_source_get_ready_time(source) : -2;
    }

    TestData m_data;
    std::unique_ptr<Logic> m_logicOwner = std::make_unique<Logic>(&m_data);
    Logic& m_logic = *m_logicOwner;
};

TEST_F(CacheTimeoutTest, TypeNames) {
    EXPECT_STREQ(CacheTimeout::typeToCstr(0), "UNSET");
    EXPECT_STREQ(CacheTimeout::typeToCstr(1), "ROUTER");
    EXPECT_STREQ(CacheTimeout::typeToCstr(2), "NETWORK");
    EXPECT_STREQ(CacheTimeout::typeToCstr(3), "DNS_SERVER");
    EXPECT_STREQ(CacheTimeout::typeToCstr(4), "INTERNAL ERROR");
}

TEST_F(CacheTimeoutTest, FirstOrderCreatesTheTimerAndArmsIt) {
    TraceCapture capture;
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 1800);
    const uint32_t handler = handlerOf(kRouter);
    EXPECT_NE(handler, 0u);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "ADDR_IPV6",
                                  tagged("init", "Created ROUTER timeout  with with id:router/fe80::1")),
                            Trace(TraceEvent::LAB, "GENERAL", added(kRouter, 1800000, handler))));
    const CacheTimeout& timeout = m_logic.getTimeouts().at(kRouter);
    EXPECT_EQ(timeout.getName(), kRouter);
    EXPECT_EQ(timeout.getObjectName(), kRouter);
    EXPECT_EQ(timeout.getType(), CacheTimeout::TYPE_ROUTER);
}

TEST_F(CacheTimeoutTest, AddWhileArmedIsRefusedAndTheOldExpiryStays) {
    CacheTimeout timeout;
    timeout.init(&m_logic, CacheTimeout::TYPE_NETWORK, kNetwork);
    timeout.add(60000);
    const uint32_t handler = timeout.getHandlerId();
    const gint64 expiry = readyTime(handler);
    ASSERT_GT(expiry, 0);
    TraceCapture capture;
    timeout.add(1);
    EXPECT_EQ(timeout.getHandlerId(), handler);
    EXPECT_EQ(readyTime(handler), expiry);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                          tagged("add", "Timer with name network/2001:db8::/64 is active already, handler :" +
                                            std::to_string(handler)))));
}

TEST_F(CacheTimeoutTest, SecondOrderRestartsTheTimerWithOneCreationTraceAndTheFirstType) {
    m_logic.orderTimeout(kNetwork, CacheTimeout::TYPE_NETWORK, 10);
    const uint32_t first = handlerOf(kNetwork);
    TraceCapture capture;
    m_logic.orderTimeout(kNetwork, CacheTimeout::TYPE_DNS_SERVER, 20);
    const uint32_t second = handlerOf(kNetwork);
    EXPECT_NE(second, first);
    EXPECT_EQ(g_main_context_find_source_by_id(nullptr, first), nullptr);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", removed(kNetwork, first)),
                            Trace(TraceEvent::LAB, "GENERAL", added(kNetwork, 20000, second))));
    EXPECT_EQ(m_logic.getTimeouts().size(), 1u);
    EXPECT_EQ(m_logic.getTimeouts().at(kNetwork).getType(), CacheTimeout::TYPE_NETWORK);
}

TEST_F(CacheTimeoutTest, LongestSupportedTimeoutIsArmedExactly) {
    TraceCapture capture;
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 4294967);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::INFO, "ADDR_IPV6",
                          tagged("init", "Created ROUTER timeout  with with id:router/fe80::1")),
                    Trace(TraceEvent::LAB, "GENERAL", added(kRouter, 4294967000u, handlerOf(kRouter)))));
}

TEST_F(CacheTimeoutTest, LongerTimeoutIsTracedAndArmedOneSecondShortOfTheLimit) {
    TraceCapture capture;
    m_logic.orderTimeout(kNetwork, CacheTimeout::TYPE_NETWORK, 4294968);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(
            Trace(TraceEvent::INFO, "ADDR_IPV6",
                  tagged("orderTimeout",
                         "Impossible to order timeout 4294968 sec for NETWORK cache entry "
                         "network/2001:db8::/64 requested value is greater than max supported 4294967")),
            Trace(TraceEvent::INFO, "ADDR_IPV6",
                  tagged("init", "Created NETWORK timeout  with with id:network/2001:db8::/64")),
            Trace(TraceEvent::LAB, "GENERAL", added(kNetwork, 4294966000u, handlerOf(kNetwork)))));
}

TEST_F(CacheTimeoutTest, RemoveTimeoutForAnUnknownNameDoesNothing) {
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 5);
    TraceCapture capture;
    m_logic.removeTimeout("router/fe80::2");
    EXPECT_TRUE(capture.records().empty());
    EXPECT_EQ(m_logic.getTimeouts().size(), 1u);
}

TEST_F(CacheTimeoutTest, RemoveTimeoutTracesTheRemovalThenDisarms) {
    m_logic.orderTimeout(kDns, CacheTimeout::TYPE_DNS_SERVER, 5);
    const uint32_t handler = handlerOf(kDns);
    TraceCapture capture;
    m_logic.removeTimeout(kDns);
    EXPECT_TRUE(m_logic.getTimeouts().empty());
    EXPECT_EQ(g_main_context_find_source_by_id(nullptr, handler), nullptr);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "ADDR_IPV6",
                                  tagged("~CacheTimeout",
                                         "Removed DNS_SERVER timeout with with id:dns/2001:db8::53")),
                            Trace(TraceEvent::LAB, "GENERAL", removed(kDns, handler))));
}

TEST_F(CacheTimeoutTest, TypeSevenPrintsAsInternalError) {
    TraceCapture capture;
    m_logic.orderTimeout("odd", 7, 1);
    m_logic.removeTimeout("odd");
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 tagged("init", "Created INTERNAL ERROR timeout  with with id:odd")));
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "ADDR_IPV6",
                                 tagged("~CacheTimeout", "Removed INTERNAL ERROR timeout with with id:odd")));
}

TEST_F(CacheTimeoutTest, ApplyTimeoutActionRemovesKeepsOrRearms) {
    m_logic.applyTimeoutAction(kRouter, CacheTimeout::TYPE_ROUTER, 30);
    const uint32_t handler = handlerOf(kRouter);
    ASSERT_NE(handler, 0u);
    m_logic.applyTimeoutAction(kRouter, CacheTimeout::TYPE_ROUTER, TIMEOUT_KEEP);
    EXPECT_EQ(handlerOf(kRouter), handler);
    m_logic.applyTimeoutAction(kRouter, CacheTimeout::TYPE_ROUTER, 0);
    EXPECT_TRUE(m_logic.getTimeouts().empty());
}

TEST_F(CacheTimeoutTest, ExpiryDisarmsFirstAndDeliversTypeAndName) {
    bool delivered = false;
    uint32_t handlerDuringExpiry = 1;
    EXPECT_CALL(m_data.cache,
                notifyTimeoutExpiresAndGetEntry(_, _, Eq(std::string(kNetwork)), ::testing::A<NetworkKind>()))
        .WillOnce([&](bool*, uint32_t* timeout, const std::string&, NetworkKind) {
            handlerDuringExpiry = handlerOf(kNetwork);
            *timeout = TIMEOUT_KEEP;
            delivered = true;
            return nullptr;
        });
    m_logic.orderTimeout(kNetwork, CacheTimeout::TYPE_NETWORK, 0);
    const uint32_t handler = handlerOf(kNetwork);
    TraceCapture capture;
    ASSERT_TRUE(iterateUntil([&] { return delivered; }));
    EXPECT_EQ(handlerDuringExpiry, 0u);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  tagged("timeoutCb", "Timer network/2001:db8::/64 is expired, handler " +
                                                          std::to_string(handler) + " will be removed")),
                            Trace(TraceEvent::LAB, "GENERAL", removed(kNetwork, handler))));
}

TEST_F(CacheTimeoutTest, AfterExpiryTheHandlerIsZeroAndANewOrderArmsItAgain) {
    int expiries = 0;
    ON_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, ::testing::A<RouterKind>()))
        .WillByDefault([&](bool*, uint32_t* timeout, const std::string&, RouterKind) {
            *timeout = TIMEOUT_KEEP;
            ++expiries;
            return nullptr;
        });
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 0);
    ASSERT_TRUE(iterateUntil([&] { return expiries == 1; }));
    EXPECT_EQ(handlerOf(kRouter), 0u);
    TraceCapture capture;
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 0);
    const uint32_t handler = handlerOf(kRouter);
    EXPECT_NE(handler, 0u);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", added(kRouter, 0, handler))));
    ASSERT_TRUE(iterateUntil([&] { return expiries == 2; }));
}

TEST_F(CacheTimeoutTest, ExpiryMayRemoveItsOwnTimer) {
    bool delivered = false;
    EXPECT_CALL(m_data.cache,
                notifyTimeoutExpiresAndGetEntry(_, _, Eq(std::string(kDns)), ::testing::A<DnsServerKind>()))
        .WillOnce(DoAll(
            SetArgPointee<1>(0u), [&] { delivered = true; }, Return(nullptr)));
    m_logic.orderTimeout(kDns, CacheTimeout::TYPE_DNS_SERVER, 0);
    TraceCapture capture;
    ASSERT_TRUE(iterateUntil([&] { return delivered; }));
    EXPECT_TRUE(m_logic.getTimeouts().empty());
    EXPECT_EQ(capture.records().back(),
              Trace(TraceEvent::INFO, "ADDR_IPV6",
                    tagged("~CacheTimeout", "Removed DNS_SERVER timeout with with id:dns/2001:db8::53")));
}

TEST_F(CacheTimeoutTest, ExpiryMayRearmItsOwnTimer) {
    bool delivered = false;
    EXPECT_CALL(m_data.cache,
                notifyTimeoutExpiresAndGetEntry(_, _, Eq(std::string(kRouter)), ::testing::A<RouterKind>()))
        .WillOnce(DoAll(
            SetArgPointee<1>(30u), [&] { delivered = true; }, Return(nullptr)));
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 0);
    TraceCapture capture;
    ASSERT_TRUE(iterateUntil([&] { return delivered; }));
    const uint32_t handler = handlerOf(kRouter);
    EXPECT_NE(handler, 0u);
    EXPECT_EQ(capture.records().back(), Trace(TraceEvent::LAB, "GENERAL", added(kRouter, 30000, handler)));
}

TEST_F(CacheTimeoutTest, ExpiryOfAnUnknownTypeAsksTheCacheNothing) {
    EXPECT_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, ::testing::A<RouterKind>())).Times(0);
    EXPECT_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, ::testing::A<NetworkKind>())).Times(0);
    EXPECT_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, ::testing::A<DnsServerKind>()))
        .Times(0);
    m_logic.orderTimeout("odd", 7, 0);
    ASSERT_TRUE(iterateUntil([&] { return handlerOf("odd") == 0; }));
    EXPECT_EQ(m_logic.getTimeouts().size(), 1u);
}

TEST_F(CacheTimeoutTest, DestroyingTheLogicDestroysEveryTimer) {
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 5);
    m_logic.orderTimeout(kDns, CacheTimeout::TYPE_DNS_SERVER, 5);
    const uint32_t dnsHandler = handlerOf(kDns);
    const uint32_t routerHandler = handlerOf(kRouter);
    TraceCapture capture;
    m_logicOwner.reset();
    EXPECT_THAT(
        capture.records(),
        UnorderedElementsAre(
            Trace(TraceEvent::INFO, "ADDR_IPV6",
                  tagged("~CacheTimeout", "Removed DNS_SERVER timeout with with id:dns/2001:db8::53")),
            Trace(TraceEvent::LAB, "GENERAL", removed(kDns, dnsHandler)),
            Trace(TraceEvent::INFO, "ADDR_IPV6",
                  tagged("~CacheTimeout", "Removed ROUTER timeout with with id:router/fe80::1")),
            Trace(TraceEvent::LAB, "GENERAL", removed(kRouter, routerHandler))));
    EXPECT_EQ(g_main_context_find_source_by_id(nullptr, dnsHandler), nullptr);
    EXPECT_EQ(g_main_context_find_source_by_id(nullptr, routerHandler), nullptr);
    EXPECT_EQ(Logic::getInstance(), nullptr);
}

// Every event but LAB: the handler ids of the timer traces are not read.
constexpr unsigned kAllButLab = trace::kAllEvents & ~trace::bit(TraceEvent::LAB);

TEST_F(CacheTimeoutTest, RestartWhileLabIsOffKeepsTheSourceAndRunsOutAtTheNewExpiryOnly) {
    int expiries = 0;
    ON_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, ::testing::A<NetworkKind>()))
        .WillByDefault([&](bool*, uint32_t* timeout, const std::string&, NetworkKind) {
            *timeout = TIMEOUT_KEEP;
            ++expiries;
            return nullptr;
        });
    gint64 restartedAt = 0;
    uint32_t handler = 0;
    {
        TraceCapture quiet(kAllButLab);
        m_logic.orderTimeout(kNetwork, CacheTimeout::TYPE_NETWORK, 0);
        handler = handlerOf(kNetwork);
        quiet.clear();
        restartedAt = g_get_monotonic_time();
        m_logic.orderTimeout(kNetwork, CacheTimeout::TYPE_NETWORK, 1);
        EXPECT_EQ(handlerOf(kNetwork), handler);
        EXPECT_THAT(quiet.records(), ::testing::IsEmpty());
    }
    // The source armed for 0 s becomes due at once; that is no expiry, and nothing is traced
    // for it: the timer runs out one second after the restart, once.
    TraceCapture capture;
    ASSERT_TRUE(iterateUntil([&] { return expiries == 1; }));
    EXPECT_GE(g_get_monotonic_time() - restartedAt, 1000000);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  tagged("timeoutCb", "Timer network/2001:db8::/64 is expired, handler " +
                                                          std::to_string(handler) + " will be removed")),
                            Trace(TraceEvent::LAB, "GENERAL", removed(kNetwork, handler))));
    EXPECT_EQ(expiries, 1);
}

TEST_F(CacheTimeoutTest, RestartWhileLabIsOffToAnEarlierExpiryMovesTheSource) {
    bool delivered = false;
    ON_CALL(m_data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, ::testing::A<RouterKind>()))
        .WillByDefault([&](bool*, uint32_t* timeout, const std::string&, RouterKind) {
            *timeout = TIMEOUT_KEEP;
            delivered = true;
            return nullptr;
        });
    TraceCapture quiet(kAllButLab);
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 3600);
    const uint32_t handler = handlerOf(kRouter);
    const gint64 before = g_get_monotonic_time();
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 0);
    EXPECT_EQ(handlerOf(kRouter), handler);
    EXPECT_LE(readyTime(handler), g_get_monotonic_time());
    EXPECT_GE(readyTime(handler), before);
    ASSERT_TRUE(iterateUntil([&] { return delivered; }));
}

// The order in which two timers due in the same main-loop iteration run: the order of their last
// orders, whatever the order of their creation.
std::vector<std::string> expiryOrderAfterRestarts(TestData& data, Logic& logic) {
    std::vector<std::string> order;
    ON_CALL(data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, ::testing::A<RouterKind>()))
        .WillByDefault([&](bool*, uint32_t* timeout, const std::string& name, RouterKind) {
            *timeout = TIMEOUT_KEEP;
            order.push_back(name);
            return nullptr;
        });
    ON_CALL(data.cache, notifyTimeoutExpiresAndGetEntry(_, _, _, ::testing::A<DnsServerKind>()))
        .WillByDefault([&](bool*, uint32_t* timeout, const std::string& name, DnsServerKind) {
            *timeout = TIMEOUT_KEEP;
            order.push_back(name);
            return nullptr;
        });
    logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 3600);
    logic.orderTimeout(kDns, CacheTimeout::TYPE_DNS_SERVER, 3600);
    logic.orderTimeout(kDns, CacheTimeout::TYPE_DNS_SERVER, 0);
    logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 0);
    iterateUntil([&] { return order.size() == 2; });
    return order;
}

TEST_F(CacheTimeoutTest, TimersDueTogetherRunInTheOrderOfTheirLastOrderWhileLabIsOff) {
    TraceCapture quiet(kAllButLab);
    EXPECT_THAT(expiryOrderAfterRestarts(m_data, m_logic), ElementsAre(kDns, kRouter));
}

TEST_F(CacheTimeoutTest, TimersDueTogetherRunInTheOrderOfTheirLastOrderWhileLabIsOn) {
    TraceCapture capture;
    EXPECT_THAT(expiryOrderAfterRestarts(m_data, m_logic), ElementsAre(kDns, kRouter));
}

TEST_F(CacheTimeoutTest, RestartOnceLabIsOnTracesTheLiveSourceAsRemovedAndANewOneAsAdded) {
    uint32_t kept = 0;
    {
        TraceCapture quiet(kAllButLab);
        m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 3600);
        kept = handlerOf(kRouter);
        m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 1800);
        ASSERT_EQ(handlerOf(kRouter), kept);
    }
    TraceCapture capture;
    m_logic.orderTimeout(kRouter, CacheTimeout::TYPE_ROUTER, 900);
    const uint32_t fresh = handlerOf(kRouter);
    EXPECT_NE(fresh, kept);
    EXPECT_EQ(g_main_context_find_source_by_id(nullptr, kept), nullptr);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", removed(kRouter, kept)),
                            Trace(TraceEvent::LAB, "GENERAL", added(kRouter, 900000, fresh))));
}

class CacheTimeoutDeathTest : public CacheTimeoutTest {
protected:
    void SetUp() override {
        useThreadsafeDeathTests();
        CacheTimeoutTest::SetUp();
    }
};

void expireUninitialised() {
    FdTraces traces(STDERR_FILENO);
    CacheTimeout timeout;
    timeout.add(0);
    iterateUntil([] { return false; }, 5000);
}

TEST_F(CacheTimeoutDeathTest, ExpiryOfAnUninitialisedTimerRequestsRestart) {
    const std::string text =
        "Runtime error, attempt to process not initilized timeout  associated with object with name , type : "
        "0";
    EXPECT_EXIT(
        expireUninitialised(), ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(
            "LAB GENERAL add\\(\\): \\[solcid\\.ns1-eth0\\] Timer undefined is added, timeout 0 msec, "
            "handler: "
            "[0-9]+\n"
            "LAB GENERAL timeoutCb\\(\\): \\[solcid\\.ns1-eth0\\] Timer undefined is expired, handler [0-9]+ "
            "will be removed\n"
            "LAB GENERAL remove\\(\\): \\[solcid\\.ns1-eth0\\] Timer undefined is removed, handler id: "
            "[0-9]+\n"
            "ERROR GENERAL cbExpired\\(\\): " +
            text + "\nsolicd: restart requested at [^\n]*SolApp\\.cpp:[0-9]+: " + text + "\n"));
}

void expireWithoutLogic(const std::string& name) {
    CacheTimeout timeout;
    timeout.init(nullptr, CacheTimeout::TYPE_ROUTER, name);
    timeout.add(0);
    iterateUntil([] { return false; }, 5000);
}

TEST_F(CacheTimeoutDeathTest, RestartTextOfALongEntryNameIsCutAt127Characters) {
    const std::string name = "router/" + std::string(200, 'a');
    const std::string text =
        ("Runtime error, attempt to process not initilized timeout  associated with object with name " +
         name + ", type : 1")
            .substr(0, 127);
    EXPECT_EXIT(expireWithoutLogic(name), ::testing::ExitedWithCode(70),
                ::testing::EndsWith(": " + text + "\n"));
}

}  // namespace
