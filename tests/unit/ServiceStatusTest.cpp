// What the service manager is told: READY=1 and the status line at each stage, with exact texts
// and in order, and the refresh of the counts (when they change, at most once per interval, by a
// timer that is armed only while a change waits). Through ServiceStatus alone, through init, and
// through the handlers on the real cache.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "HandlerDoubles.h"
#include "RaVectors.h"
#include "ServiceStatus.h"

using namespace solicd;
using namespace solicd::test;
using SolApp::Logic;
using CacheTimeout = SolApp::Logic::CacheTimeout;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Return;

namespace {

using Counts = ServiceStatus::Counts;

// Short enough for the tests, long enough that nothing in between reaches it.
constexpr guint kIntervalMs = 300;
constexpr gint64 kIntervalUs = kIntervalMs * 1000;

class ServiceStatusTest : public ::testing::Test {
protected:
    void SetUp() override { m_notify.enabled = true; }

    // Runs the main loop until the pending refresh has run.
    void waitForRefresh() {
        ASSERT_TRUE(m_status.isRefreshPending());
        ASSERT_TRUE(iterateUntil([this] { return !m_status.isRefreshPending(); }));
    }
    // Lets the refresh interval run out without anything happening.
    static void quietInterval() { g_usleep(kIntervalUs + kIntervalUs / 2); }

    RecordingNotify m_notify;
    Counts m_counts;
    ServiceStatus m_status{m_notify, [this] { return m_counts; }, kIntervalMs};
};

TEST_F(ServiceStatusTest, RunningLineCountsInWordsForOneAndForMany) {
    EXPECT_EQ(ServiceStatus::runningText({1, 1, 2}), "Running: 1 router, 1 prefix, 2 DNS servers");
    EXPECT_EQ(ServiceStatus::runningText({0, 0, 0}), "Running: 0 routers, 0 prefixes, 0 DNS servers");
    EXPECT_EQ(ServiceStatus::runningText({2, 3, 1}), "Running: 2 routers, 3 prefixes, 1 DNS server");
    EXPECT_EQ(ServiceStatus::runningText({64, 128, 128}),
              "Running: 64 routers, 128 prefixes, 128 DNS servers");
}

TEST_F(ServiceStatusTest, WithoutAServiceManagerNothingIsSentAndNothingArmed) {
    m_notify.enabled = false;
    m_status.enteringNamespace("blue");
    m_status.waitingForLinkLocal("eth0");
    m_status.ready("");
    m_counts = {1, 1, 1};
    m_status.cacheChanged();
    m_status.clientLost();
    m_status.clientConnected();
    EXPECT_THAT(m_notify.lines, IsEmpty());
    EXPECT_FALSE(m_status.isRefreshPending());
}

TEST_F(ServiceStatusTest, StagesOfAStartWithAClientThatComesAndGoes) {
    m_status.enteringNamespace("blue");
    m_status.waitingForLinkLocal("eth0");
    m_status.ready("blue-client");
    m_counts = {1, 1, 2};
    m_status.clientConnected();
    m_status.clientLost();
    EXPECT_THAT(m_notify.lines, ElementsAre("STATUS=Entering network namespace blue",
                                            "STATUS=Waiting for a link-local address on eth0", "READY=1",
                                            "STATUS=Waiting for the client mailbox blue-client",
                                            "STATUS=Running: 1 router, 1 prefix, 2 DNS servers",
                                            "STATUS=Waiting for the client mailbox blue-client"));
}

TEST_F(ServiceStatusTest, WithoutAClientItRunsFromTheStart) {
    m_counts = {0, 0, 0};
    m_status.ready("");
    EXPECT_THAT(m_notify.lines,
                ElementsAre("READY=1", "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers"));
}

TEST_F(ServiceStatusTest, ChangeAfterAQuietIntervalIsShownAtOnce) {
    m_status.ready("");
    quietInterval();
    m_counts = {1, 1, 2};
    m_status.cacheChanged();
    EXPECT_FALSE(m_status.isRefreshPending());
    EXPECT_THAT(m_notify.lines, ElementsAre("READY=1", "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers",
                                            "STATUS=Running: 1 router, 1 prefix, 2 DNS servers"));
}

TEST_F(ServiceStatusTest, ChangesWithinTheIntervalAreShownOnceWithTheLastCountsWhenItEnds) {
    m_status.ready("");
    const gint64 shown = g_get_monotonic_time();
    m_counts = {1, 0, 0};
    m_status.cacheChanged();
    m_counts = {1, 1, 0};
    m_status.cacheChanged();
    m_counts = {1, 1, 2};
    m_status.cacheChanged();
    EXPECT_EQ(m_notify.lines.size(), 2u) << "nothing more before the interval ends";
    waitForRefresh();
    EXPECT_GE(g_get_monotonic_time() - shown, kIntervalUs);
    EXPECT_THAT(m_notify.lines, ElementsAre("READY=1", "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers",
                                            "STATUS=Running: 1 router, 1 prefix, 2 DNS servers"));
    EXPECT_FALSE(m_status.isRefreshPending()) << "the timer is one-shot";
}

TEST_F(ServiceStatusTest, RefreshesAreAtLeastOneIntervalApart) {
    m_status.ready("");
    quietInterval();
    m_counts = {1, 0, 0};
    m_status.cacheChanged();  // shown at once
    const gint64 first = g_get_monotonic_time();
    m_counts = {2, 0, 0};
    m_status.cacheChanged();  // held
    waitForRefresh();
    EXPECT_GE(g_get_monotonic_time() - first, kIntervalUs);
    EXPECT_THAT(m_notify.lines, ElementsAre("READY=1", "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers",
                                            "STATUS=Running: 1 router, 0 prefixes, 0 DNS servers",
                                            "STATUS=Running: 2 routers, 0 prefixes, 0 DNS servers"));
}

TEST_F(ServiceStatusTest, ChangeThatLeavesTheCountsSendsNothing) {
    m_counts = {1, 1, 2};
    m_status.ready("");
    quietInterval();
    m_status.cacheChanged();
    EXPECT_FALSE(m_status.isRefreshPending());
    m_status.cacheChanged();  // within the interval of that look: held
    waitForRefresh();
    EXPECT_THAT(m_notify.lines, ElementsAre("READY=1", "STATUS=Running: 1 router, 1 prefix, 2 DNS servers"));
}

TEST_F(ServiceStatusTest, CountsThatChangeAndChangeBackWithinTheIntervalSendNothing) {
    m_status.ready("");
    m_counts = {1, 0, 0};
    m_status.cacheChanged();
    m_counts = {0, 0, 0};
    m_status.cacheChanged();
    waitForRefresh();
    EXPECT_THAT(m_notify.lines,
                ElementsAre("READY=1", "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers"));
}

TEST_F(ServiceStatusTest, NothingChangedNothingArmed) {
    m_status.ready("");
    quietInterval();
    EXPECT_FALSE(m_status.isRefreshPending());
    EXPECT_FALSE(g_main_context_pending(nullptr)) << "no source of its own is ready";
}

TEST_F(ServiceStatusTest, WhileWaitingForTheClientChangesAreNotCountedOrTimed) {
    m_status.ready("blue-client");
    m_counts = {1, 1, 2};
    m_status.cacheChanged();
    EXPECT_FALSE(m_status.isRefreshPending());
    EXPECT_THAT(m_notify.lines, ElementsAre("READY=1", "STATUS=Waiting for the client mailbox blue-client"));
}

TEST_F(ServiceStatusTest, ClientLeavingCancelsTheHeldRefresh) {
    m_status.ready("blue-client");
    m_status.clientConnected();
    m_counts = {1, 1, 2};
    m_status.cacheChanged();
    ASSERT_TRUE(m_status.isRefreshPending());
    m_status.clientLost();
    EXPECT_FALSE(m_status.isRefreshPending());
    g_usleep(kIntervalUs * 2);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    EXPECT_THAT(m_notify.lines, ElementsAre("READY=1", "STATUS=Waiting for the client mailbox blue-client",
                                            "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers",
                                            "STATUS=Waiting for the client mailbox blue-client"));
}

TEST_F(ServiceStatusTest, ClientComingBackShowsTheCountsOfThatMoment) {
    m_status.ready("blue-client");
    m_status.clientConnected();
    m_status.clientLost();
    m_counts = {1, 1, 2};
    m_status.clientConnected();
    EXPECT_THAT(m_notify.lines.back(), "STATUS=Running: 1 router, 1 prefix, 2 DNS servers");
}

// ---- Through init ----

class ServiceStatusInitTest : public ::testing::Test {
protected:
    void SetUp() override {
        setTraceTag("");
        m_previousPrint = g_set_print_handler([](const gchar*) {});
        m_data.notify.enabled = true;
    }
    void TearDown() override {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        g_set_print_handler(m_previousPrint);
        setTraceTag("");
    }
    uint32_t init(Args args) { return m_logic.init(args.argc(), args.argv()); }

    TestData m_data;
    Logic m_logic{&m_data};
    GPrintFunc m_previousPrint = nullptr;
};

TEST_F(ServiceStatusInitTest, NamespaceThenLinkLocalWaitThenReadyWaitingForTheClient) {
    EXPECT_CALL(m_data.socket, init("blue", "eth0")).WillOnce([this] {
        m_data.socket.reportLinkLocalWait();
        return 0u;
    });
    EXPECT_EQ(init({"solicd", "-n", "blue", "-i", "eth0", "-d", "blue-client"}), 0u);
    EXPECT_THAT(m_data.notify.lines, ElementsAre("STATUS=Entering network namespace blue",
                                                 "STATUS=Waiting for a link-local address on eth0", "READY=1",
                                                 "STATUS=Waiting for the client mailbox blue-client"));
}

TEST_F(ServiceStatusInitTest, HostNamespaceAndNoClientGoStraightToRunning) {
    EXPECT_EQ(init({"solicd", "-i", "eth0"}), 0u);
    EXPECT_THAT(m_data.notify.lines,
                ElementsAre("READY=1", "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers"));
}

TEST_F(ServiceStatusInitTest, FailedStartIsNeverReady) {
    EXPECT_CALL(m_data.socket, init(_, _)).WillOnce(Return(1u));
    EXPECT_NE(init({"solicd", "-n", "blue", "-i", "eth0", "-d", "blue-client"}), 0u);
    EXPECT_THAT(m_data.notify.lines, ElementsAre("STATUS=Entering network namespace blue"));
}

TEST_F(ServiceStatusInitTest, RefusedSourceIsNeverReady) {
    EXPECT_CALL(m_data.lmx, init(_, _)).WillOnce(Return(1u));
    EXPECT_NE(init({"solicd", "-i", "eth0", "-d", "blue-client"}), 0u);
    EXPECT_THAT(m_data.notify.lines, IsEmpty());
}

TEST_F(ServiceStatusInitTest, WithoutAServiceManagerTheLinkLocalWaitReportsNothing) {
    m_data.notify.enabled = false;
    EXPECT_CALL(m_data.socket, init(_, _)).WillOnce([this] {
        m_data.socket.reportLinkLocalWait();
        return 0u;
    });
    EXPECT_EQ(init({"solicd", "-n", "blue", "-i", "eth0"}), 0u);
    EXPECT_THAT(m_data.notify.lines, IsEmpty());
}

// The texts of the traces of one init, descriptors left out (they differ from run to run).
std::vector<std::string> tracesOfInit(bool listening) {
    TestData data;
    data.notify.enabled = listening;
    Logic logic(&data);
    Args args{"solicd", "-n", "blue", "-i", "eth0", "-d", "blue-client"};
    TraceCapture capture;
    EXPECT_EQ(logic.init(args.argc(), args.argv()), 0u);
    std::vector<std::string> lines;
    for (const TraceRecord& record : capture.records()) {
        lines.push_back(record.category + " " + record.message.substr(0, record.message.find(" with ID ")));
    }
    return lines;
}

TEST(ServiceStatusTraceTest, InitTracesTheSameWithAndWithoutAServiceManager) {
    const GPrintFunc previousPrint = g_set_print_handler([](const gchar*) {});
    const std::vector<std::string> without = tracesOfInit(false);
    const std::vector<std::string> with = tracesOfInit(true);
    g_log_set_default_handler(g_log_default_handler, nullptr);
    g_set_print_handler(previousPrint);
    setTraceTag("");
    EXPECT_FALSE(without.empty());
    EXPECT_EQ(with, without);
}

// ---- Through the handlers, on the real cache ----

// The handlers with an initialised logic that a service manager listens to.
class ListenedHandlerTest : public HandlerTest {
protected:
    void TearDown() override {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        g_set_print_handler(m_previousPrint);
        HandlerTest::TearDown();
    }
    // Initialises the logic with `args` while the client link is in `linkState`.
    void start(Args args, uint32_t linkState) {
        m_data.notify.enabled = true;
        m_data.lmxState = linkState;
        m_previousPrint = g_set_print_handler([](const gchar*) {});
        ASSERT_EQ(m_logic.init(args.argc(), args.argv()), 0u);
    }
    void waitForRefresh() {
        ASSERT_TRUE(m_logic.getServiceStatus().isRefreshPending());
        ASSERT_TRUE(iterateUntil([this] { return !m_logic.getServiceStatus().isRefreshPending(); }));
    }

    GPrintFunc m_previousPrint = nullptr;
};

class ServiceStatusHandlerTest : public ListenedHandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        start({"solicd", "-i", "eth0", "-s", kHandlerTag, "-d", "blue-client"},
              LmxMgr::DST_MBOX_STATE_CONNECTING);
        ASSERT_THAT(m_data.notify.lines,
                    ElementsAre("READY=1", "STATUS=Waiting for the client mailbox blue-client"));
        m_data.notify.lines.clear();
    }
    // The locate answer of the client's mailbox, or its monitor answer, through the mailbox event.
    void clientEvent(uint32_t msgNo, uint32_t stateAfter) {
        ON_CALL(m_data.lmx, receive(_)).WillByDefault([=, this](LmxMgr::Message& message) {
            m_data.lmxPipe.drain();
            message.m_data.m_buffer = lmx_alloc(sizeof(uint32_t), msgNo);
            message.m_data.m_peer = kClient;
            m_data.lmxState = stateAfter;
            return 0u;
        });
        m_logic.handleLmxEvent();
    }
    void clientArrives() { clientEvent(LMX_LOCATE_DEFAULT_NO, LmxMgr::DST_MBOX_STATE_CONNECTED); }
    void clientLeaves() { clientEvent(LMX_MONITOR_DEFAULT_NO, LmxMgr::DST_MBOX_STATE_CONNECTING); }

    static constexpr uint32_t kClient = 0x51;
};

TEST_F(ServiceStatusHandlerTest, ClientArrivingShowsTheCacheItFoundAndLeavingShowsTheWait) {
    receiveRa(RaBuilder(1800).prefix("2001:db8:1::", 3600, 1800).rdnss(600, {"2001:db8::53"}).bytes());
    clientArrives();
    clientLeaves();
    EXPECT_THAT(m_data.notify.lines, ElementsAre("STATUS=Running: 1 router, 1 prefix, 1 DNS server",
                                                 "STATUS=Waiting for the client mailbox blue-client"));
}

TEST_F(ServiceStatusHandlerTest, RaThatChangesTheCountsIsShownWhenTheSecondIsUp) {
    clientArrives();
    const gint64 shown = g_get_monotonic_time();
    receiveRa(RaBuilder(1800)
                  .prefix("2001:db8:1::", 3600, 1800)
                  .rdnss(600, {"2001:db8::53", "2001:db8::54"})
                  .bytes());
    EXPECT_EQ(m_data.notify.lines.size(), 1u);
    waitForRefresh();
    EXPECT_GE(g_get_monotonic_time() - shown, gint64{1000000});
    EXPECT_THAT(m_data.notify.lines, ElementsAre("STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers",
                                                 "STATUS=Running: 1 router, 1 prefix, 2 DNS servers"));
}

TEST_F(ServiceStatusHandlerTest, RaThatChangesNothingArmsNothing) {
    const auto ra = RaBuilder(1800).prefix("2001:db8:1::", 3600, 1800).bytes();
    receiveRa(ra);
    receiveRa(ra);  // the entries settle from new to known
    clientArrives();
    receiveRa(ra);
    EXPECT_FALSE(m_logic.getServiceStatus().isRefreshPending());
    EXPECT_THAT(m_data.notify.lines, ElementsAre("STATUS=Running: 1 router, 1 prefix, 0 DNS servers"));
}

TEST_F(ServiceStatusHandlerTest, ExpiredRouterLeavesTheCounts) {
    receiveRa(RaBuilder(60).bytes());
    clientArrives();
    m_data.now += 60;
    m_logic.handleCacheExpiredEvent(CacheTimeout::TYPE_ROUTER, "router/fe80::1");
    waitForRefresh();
    EXPECT_THAT(m_data.notify.lines, ElementsAre("STATUS=Running: 1 router, 0 prefixes, 0 DNS servers",
                                                 "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers"));
}

// A daemon without a client (-d not given) runs from the start and counts all the same.
class ServiceStatusWithoutClientTest : public ListenedHandlerTest {
protected:
    void SetUp() override {
        HandlerTest::SetUp();
        start({"solicd", "-i", "eth0", "-s", kHandlerTag}, LmxMgr::DST_MBOX_STATE_NOT_SET);
    }
};

TEST_F(ServiceStatusWithoutClientTest, RaThatChangesTheCountsIsShown) {
    receiveRa(RaBuilder(1800).prefix("2001:db8:1::", 3600, 1800).bytes());
    ASSERT_TRUE(m_logic.getServiceStatus().isRefreshPending());
    ASSERT_TRUE(iterateUntil([this] { return !m_logic.getServiceStatus().isRefreshPending(); }));
    EXPECT_THAT(m_data.notify.lines,
                ElementsAre("READY=1", "STATUS=Running: 0 routers, 0 prefixes, 0 DNS servers",
                            "STATUS=Running: 1 router, 1 prefix, 0 DNS servers"));
}

// A daemon started by hand: the same handlers, not a word, not a timer.
class ServiceStatusUnlistenedTest : public HandlerTest {};

TEST_F(ServiceStatusUnlistenedTest, RasAndClientsSendNothingAndArmNothing) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTING;
    ON_CALL(m_data.lmx, receive(_)).WillByDefault([this](LmxMgr::Message& message) {
        message.m_data.m_buffer = lmx_alloc(sizeof(uint32_t), LMX_LOCATE_DEFAULT_NO);
        m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED;
        return 0u;
    });
    m_logic.handleLmxEvent();
    receiveRa(RaBuilder(1800).prefix("2001:db8:1::", 3600, 1800).bytes());
    EXPECT_FALSE(m_logic.getServiceStatus().isRefreshPending());
    EXPECT_THAT(m_data.notify.lines, IsEmpty());
}

}  // namespace
