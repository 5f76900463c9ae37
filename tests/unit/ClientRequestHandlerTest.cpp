// cbLmxEvent, handleLmxEvent, sendRaCacheToLmxClient and sendShowRainfoToLmxClient: what comes
// into the daemon's mailbox, and what goes back.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <nlohmann/json.hpp>

#include "HandlerDoubles.h"
#include "RaVectors.h"
#include "SolTypesParse.h"

using namespace solicd;
using namespace solicd::test;
using SolApp::Logic;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Return;

namespace {

constexpr uint32_t kSubscriber = 0x51;
constexpr uint32_t kOtherClient = 0x77;

std::string received(int rxType) {
    return tagged("handleLmxEvent", "Received message with ID " + std::to_string(rxType));
}

const std::string kEstablished = tagged("handleLmxEvent", "Client established connection, sending RA cache");

std::string propagate(int routers, int networks, int dnsServers) {
    return tagged("sendRaCacheToLmxClient",
                  "Will propagate RA cache to the client. Routers number: " + std::to_string(routers) +
                      " Networks number: " + std::to_string(networks) +
                      " DNS Servers number: " + std::to_string(dnsServers) + ".");
}

size_t allocations() {
    size_t n = 0;
    for (const std::string& call : FakeLmx::instance().calls) {
        n += call.rfind("lmx_alloc(", 0) == 0 ? 1 : 0;
    }
    return n;
}

class ClientRequestTest : public HandlerTest {
protected:
    // The next receive holds a message numbered `msgNo` from `sender`; the link's state becomes
    // `stateAfter` on the way, as a locate or monitor answer would leave it. (A default action, not
    // an expectation: death tests make the call in a child process.)
    void nextMessage(uint32_t msgNo, uint32_t sender, uint32_t stateAfter, uint32_t result = 0) {
        ON_CALL(m_data.lmx, receive(_)).WillByDefault([=, this](LmxMgr::Message& message) {
            m_data.lmxPipe.drain();
            message.m_data.m_buffer = lmx_alloc(sizeof(uint32_t), msgNo);
            message.m_data.m_peer = sender;
            m_data.lmxState = stateAfter;
            return result;
        });
    }
    void nothingNext() { EXPECT_CALL(m_data.lmx, receive(_)).WillOnce(Return(1u)); }

    // Two routers, one network and three DNS servers, learnt while the client was away.
    void fillCache() {
        m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTING;
        receiveRa(RaBuilder(1800)
                      .prefix("2001:db8:1::", 3600, 1800)
                      .rdnss(600, {"2001:db8::53", "2001:db8::54", "2001:db8::55"})
                      .bytes(),
                  "fe80::2");
        receiveRa(golden::kHeaderOnlyRa, "fe80::1");
    }
};

using ClientRequestDeathTest = ClientRequestTest;

// ---- The mailbox source ----

TEST_F(ClientRequestTest, MailboxEventIsTracedHandledAndKeepsTheSource) {
    nothingNext();
    TraceCapture capture;
    EXPECT_EQ(SolApp::cbLmxEvent(7, G_IO_IN, &m_logic), TRUE);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  tagged("cbLmxEvent", "LMX event 1, is received on socket 7"))));
}

TEST_F(ClientRequestTest, UnexpectedMailboxConditionIsReportedAndStillHandled) {
    nothingNext();
    TraceCapture capture;
    EXPECT_EQ(SolApp::cbLmxEvent(7, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), &m_logic), TRUE);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(
            Trace(TraceEvent::LAB, "GENERAL", tagged("cbLmxEvent", "LMX event 17, is received on socket 7")),
            Trace(TraceEvent::ERROR, "GENERAL",
                  tagged("cbLmxEvent", "Unexpected socket event for socket with fd:7 glib condition: 17"))));
}

TEST_F(ClientRequestTest, ReadableMailboxOnTheMainLoopIsAnsweredEachTime) {
    ASSERT_EQ(
        m_logic.addFdEvent(SolApp::EVENT_SRC_TYPE_LMX, m_data.lmxPipe.readEnd.get(), &SolApp::cbLmxEvent),
        0u);
    nextMessage(SOLIF_GET_ROUTERS_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    m_data.lmxPipe.makeReadable();
    ASSERT_TRUE(iterateUntil([&] { return m_data.responded.size() == 1; }));
    nextMessage(SOLIF_SHOW_RAINFO_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    m_data.lmxPipe.makeReadable();
    ASSERT_TRUE(iterateUntil([&] { return m_data.responded.size() == 2; }));
    EXPECT_EQ(m_data.responded[0].decoded.msgNo, SOLIF_GET_ROUTERS_CFM);
    EXPECT_EQ(m_data.responded[1].decoded.msgNo, SOLIF_SHOW_RAINFO_CFM);
}

// ---- What receive gives ----

TEST_F(ClientRequestTest, NothingReceivedEndsTheEventQuietly) {
    nothingNext();
    EXPECT_CALL(m_data.cache, getRouters(_)).Times(0);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    EXPECT_THAT(capture.records(), IsEmpty());
}

TEST_F(ClientRequestTest, UnknownMessageIsTracedAndIgnored) {
    nextMessage(0x1234, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    EXPECT_CALL(m_data.lmx, respond(_, _)).Times(0);
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::LAB, "GENERAL", received(4))));
}

TEST_F(ClientRequestDeathTest, FailedInternalEventRequestsRestart) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTING;
    nextMessage(LMX_LOCATE_DEFAULT_NO, kSubscriber, LmxMgr::DST_MBOX_STATE_CONNECTING, 1);
    EXPECT_EXIT(
        {
            StderrTraces traces({"handleLmxEvent"});
            m_logic.handleLmxEvent();
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(restartAfter(
            traceLine(TraceEvent::ERROR, "GENERAL", "handleLmxEvent(): Internal LMX initialization failed"),
            "Internal LMX initialization failed")));
}

// ---- The subscriber arriving ----

TEST_F(ClientRequestTest, SubscriberConnectingToAnEmptyCacheGetsNothing) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTING;
    nextMessage(LMX_LOCATE_DEFAULT_NO, kSubscriber, LmxMgr::DST_MBOX_STATE_CONNECTED);
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::LAB, "GENERAL", received(1)),
                                               Trace(TraceEvent::LAB, "GENERAL", kEstablished),
                                               Trace(TraceEvent::INFO, "GENERAL", propagate(0, 0, 0))));
    EXPECT_EQ(allocations(), 1u) << "only the received message; nothing is built";
}

TEST_F(ClientRequestTest, SubscriberConnectingGetsRoutersThenNetworksThenOneDnsList) {
    fillCache();
    nextMessage(LMX_LOCATE_DEFAULT_NO, kSubscriber, LmxMgr::DST_MBOX_STATE_CONNECTED);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    ASSERT_THAT(
        describe(m_data.notified),
        ElementsAre("router router/fe80::1", "router router/fe80::2", "network network/2001:db8:1::/64",
                    "dns dns/2001:db8::53 dns/2001:db8::54 dns/2001:db8::55"));
    EXPECT_TRUE(sameRecord<SolRouter>(m_data.notified[0].decoded.routers[0], *router("router/fe80::1")));
    EXPECT_TRUE(sameRecord<SolRouter>(m_data.notified[1].decoded.routers[0], *router("router/fe80::2")));
    EXPECT_TRUE(
        sameRecord<SolNetwork>(m_data.notified[2].decoded.networks[0], *network("network/2001:db8:1::/64")));
    EXPECT_TRUE(
        sameRecord<SolDnsServer>(m_data.notified[3].decoded.dnsServers[2], *dnsServer("dns/2001:db8::55")));
    EXPECT_EQ(m_data.notified[3].size, 520u);
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::LAB, "GENERAL", received(1)),
                                               Trace(TraceEvent::LAB, "GENERAL", kEstablished),
                                               Trace(TraceEvent::INFO, "GENERAL", propagate(2, 1, 3))));
}

TEST_F(ClientRequestTest, WholeCacheIncludesEntriesThatAreNoLongerActive) {
    fillCache();
    receiveRa(golden::kManagedLifetimeZeroRa, "fe80::1");  // invalidates fe80::1
    nextMessage(LMX_LOCATE_DEFAULT_NO, kSubscriber, LmxMgr::DST_MBOX_STATE_CONNECTED);
    m_logic.handleLmxEvent();
    ASSERT_GE(m_data.notified.size(), 1u);
    EXPECT_EQ(describe(m_data.notified[0]), "router router/fe80::1");
    EXPECT_EQ(m_data.notified[0].decoded.routers[0].m_status.state,
              static_cast<uint32_t>(sol_router_state_t::STATE_INVALIDATED));
}

TEST_F(ClientRequestTest, StateChangeThatIsNotAConnectionSendsNoCache) {
    fillCache();
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED;
    // The subscriber died: the link is looking for it again.
    nextMessage(LMX_MONITOR_DEFAULT_NO, kSubscriber, LmxMgr::DST_MBOX_STATE_CONNECTING);
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::LAB, "GENERAL", received(1))));
}

TEST_F(ClientRequestTest, RequestFromTheConnectedSubscriberSendsNoCache) {
    fillCache();
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED;
    nextMessage(SOLIF_GET_ROUTERS_REQ, kSubscriber, LmxMgr::DST_MBOX_STATE_CONNECTED);
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    m_logic.handleLmxEvent();
    EXPECT_THAT(m_data.respondedTo, ElementsAre(kSubscriber));
}

TEST_F(ClientRequestDeathTest, FailedNotifyOfTheCacheRequestsRestartAndSendsNothingFurther) {
    fillCache();
    nextMessage(LMX_LOCATE_DEFAULT_NO, kSubscriber, LmxMgr::DST_MBOX_STATE_CONNECTED);
    // The first message goes out, the second fails.
    ON_CALL(m_data.lmx, notify(_)).WillByDefault([sent = 0](LmxMgr::Message&) mutable {
        (void)!write(STDERR_FILENO, "notify\n", 7);
        return ++sent == 1 ? 0u : 1u;
    });
    EXPECT_EXIT(
        {
            StderrTraces traces({"sendRaCacheToLmxClient"});
            m_logic.handleLmxEvent();
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(restartAfter(
            traceLine(TraceEvent::INFO, "GENERAL", propagate(2, 1, 3)) + "notify\nnotify\n" +
                traceLine(TraceEvent::ERROR, "GENERAL", "sendRaCacheToLmxClient(): LmxMgr::notify"),
            "LmxMgr::notify")));
}

// ---- Routers request ----

TEST_F(ClientRequestTest, RoutersRequestFromAnotherMailboxIsAnsweredToItWithRoutersOnly) {
    fillCache();
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED;
    nextMessage(SOLIF_GET_ROUTERS_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    EXPECT_THAT(m_data.respondedTo, ElementsAre(kOtherClient));
    ASSERT_THAT(describe(m_data.responded), ElementsAre("routers router/fe80::1 router/fe80::2"));
    EXPECT_EQ(m_data.responded[0].size, solifGetRoutersCfmSize(2));
    EXPECT_TRUE(sameRecord<SolRouter>(m_data.responded[0].decoded.routers[1], *router("router/fe80::2")));
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::LAB, "GENERAL", received(2))));
}

TEST_F(ClientRequestTest, RoutersRequestToAnEmptyCacheIsAnsweredWithNoRouters) {
    nextMessage(SOLIF_GET_ROUTERS_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    m_logic.handleLmxEvent();
    ASSERT_THAT(describe(m_data.responded), ElementsAre("routers"));
    EXPECT_EQ(m_data.responded[0].size, 144u);
}

TEST_F(ClientRequestTest, RoutersRequestWhileTheClientIsAwayIsStillAnswered) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_NOT_SET;
    receiveRa(golden::kHeaderOnlyRa);
    nextMessage(SOLIF_GET_ROUTERS_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_NOT_SET);
    m_logic.handleLmxEvent();
    EXPECT_THAT(describe(m_data.responded), ElementsAre("routers router/fe80::1"));
}

TEST_F(ClientRequestDeathTest, FailedRoutersAnswerRequestsRestart) {
    nextMessage(SOLIF_GET_ROUTERS_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    ON_CALL(m_data.lmx, respond(_, _)).WillByDefault(Return(1u));
    EXPECT_EXIT(
        {
            StderrTraces traces({"handleLmxEvent"});
            m_logic.handleLmxEvent();
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(
            restartAfter(traceLine(TraceEvent::LAB, "GENERAL", received(2)) +
                             traceLine(TraceEvent::ERROR, "GENERAL", "handleLmxEvent(): LmxMgr::respond"),
                         "LmxMgr::respond")));
}

// ---- Show-cache request ----

TEST_F(ClientRequestTest, ShowCacheRequestIsAnsweredWithTheTextDumpToItsSender) {
    fillCache();
    nextMessage(SOLIF_SHOW_RAINFO_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTING);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::LAB, "GENERAL", received(3)),
                    Trace(TraceEvent::LAB, "GENERAL",
                          tagged("handleLmxEvent",
                                 "Received message RX_TYPE_CLICMD_SHOW_CACHE_REQ to request information "
                                 "about routers and networks"))));
    const std::string expected = "\nRouters:" + toStr<SolRouter>(*router("router/fe80::1")) + "\n" +
                                 toStr<SolRouter>(*router("router/fe80::2")) + "\n" +
                                 "\nNetworks:" + toStr<SolNetwork>(*network("network/2001:db8:1::/64")) +
                                 "\n" +
                                 "\nDNS Servers:" + toStr<SolDnsServer>(*dnsServer("dns/2001:db8::53")) +
                                 "\n" + toStr<SolDnsServer>(*dnsServer("dns/2001:db8::54")) + "\n" +
                                 toStr<SolDnsServer>(*dnsServer("dns/2001:db8::55")) + "\n" +
                                 "\nCounters:{rxRa: 0, txRs: 0, txRsFailed: 0, rxRejected: 0}"
                                 "{raParsed: 1, raDropped: 1, prefixAccepted: 1, prefixIgnored: 0}";
    EXPECT_THAT(m_data.respondedTo, ElementsAre(kOtherClient));
    ASSERT_EQ(m_data.responded.size(), 1u);
    EXPECT_EQ(m_data.responded[0].decoded.msgNo, SOLIF_SHOW_RAINFO_CFM);
    EXPECT_EQ(m_data.responded[0].decoded.text, expected);
    EXPECT_EQ(m_data.responded[0].size, expected.size() + 1 + 12);
}

// What clients read the dump with (solicctl status) reads the daemon's own answer back into the
// very records of the cache, and prints it again letter for letter.
TEST_F(ClientRequestTest, ShowCacheAnswerReadsBackIntoTheCachedRecords) {
    fillCache();
    nextMessage(SOLIF_SHOW_RAINFO_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    m_logic.handleLmxEvent();
    ASSERT_EQ(m_data.responded.size(), 1u);
    const std::string& text = m_data.responded[0].decoded.text;
    SolCacheText parsed;
    std::string error;
    ASSERT_TRUE(solParseCacheText(text, parsed, error)) << error;
    const auto same = [](const auto& a, const auto& b) {
        return std::memcmp(&a.m_config.data(), &b.m_config.data(), sizeof a.m_config.data()) == 0 &&
               std::memcmp(&a.m_status.data(), &b.m_status.data(), sizeof a.m_status.data()) == 0;
    };
    ASSERT_EQ(parsed.routers.size(), 2u);
    EXPECT_TRUE(same(parsed.routers[0], static_cast<const SolRouter&>(*router("router/fe80::1"))));
    EXPECT_TRUE(same(parsed.routers[1], static_cast<const SolRouter&>(*router("router/fe80::2"))));
    ASSERT_EQ(parsed.networks.size(), 1u);
    EXPECT_TRUE(
        same(parsed.networks[0], static_cast<const SolNetwork&>(*network("network/2001:db8:1::/64"))));
    ASSERT_EQ(parsed.dnsServers.size(), 3u);
    EXPECT_TRUE(same(parsed.dnsServers[2], static_cast<const SolDnsServer&>(*dnsServer("dns/2001:db8::55"))));
    EXPECT_EQ(parsed.packetCounters.m_counters.raParsed, 1u);
    EXPECT_EQ(solCacheTextOf(parsed), text);
}

// ---- Health request (beside the two requests above) ----

TEST_F(ClientRequestTest, HealthRequestIsAnsweredWithTheHealthDocumentToItsSender) {
    fillCache();
    nextMessage(SOLIF_HEALTH_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTING);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::LAB, "GENERAL", received(5))))
        << "no trace of its own";
    EXPECT_THAT(m_data.respondedTo, ElementsAre(kOtherClient));
    ASSERT_EQ(m_data.responded.size(), 1u);
    EXPECT_EQ(m_data.responded[0].decoded.msgNo, SOLIF_HEALTH_CFM);
    const std::string& text = m_data.responded[0].decoded.text;
    EXPECT_EQ(text.rfind(R"({"version":1,"time":)", 0), 0u) << text;
    // The two RAs that filled the cache, their routers by address with their cache states; the
    // header-only RA counts as a drop of its source (nothing after the header).
    EXPECT_NE(text.find(R"({"address":"fe80::1","state":"STATE_NEW","ras":1,)"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("dropped":{"no_options":1})"), std::string::npos) << text;
    EXPECT_NE(text.find(R"({"address":"fe80::2","state":"STATE_NEW","ras":1,)"), std::string::npos) << text;
    EXPECT_NE(text.find(R"("otherSources":[]})"), std::string::npos) << text;
}

TEST_F(ClientRequestTest, ARouterEvictedFromTheCacheTakesItsHealthAlong) {
    m_data.cache.setMaxCacheSizes(2, SolApp::Logic::kMaxNetworks, SolApp::Logic::kMaxDnsServers);
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTING;
    receiveRa(RaBuilder(1800).bytes(), "fe80::1");
    // Lifetime 0: invalidated at once, so no longer in use, and the one that makes room.
    receiveRa(RaBuilder(0).bytes(), "fe80::2");
    receiveRa(RaBuilder(1800).bytes(), "fe80::3");
    nextMessage(SOLIF_HEALTH_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTING);
    m_logic.handleLmxEvent();
    ASSERT_EQ(m_data.responded.size(), 1u);
    const std::string& text = m_data.responded[0].decoded.text;
    // Routers have a state; the other sources do not.
    EXPECT_NE(text.find(R"({"address":"fe80::1","state")"), std::string::npos) << text;
    EXPECT_EQ(text.find(R"("fe80::2")"), std::string::npos) << "evicted, its health too: " << text;
    EXPECT_NE(text.find(R"({"address":"fe80::3","state")"), std::string::npos) << text;
}

// A spoofing flood: as many routers as the cache holds, each sending random M and O flags,
// reachable time and retrans timer, so that nearly every pair disagrees. The answer stays whole
// and valid, keeps the most conflicts it keeps and counts the rest.
TEST_F(ClientRequestTest, TheHealthAnswerDuringAFloodOfDisagreeingRoutersIsWholeAndSaysWhatItLeftOut) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTING;
    uint32_t seed = 22;
    const auto random = [&seed] {
        seed = seed * 1103515245u + 12345u;
        return seed >> 8;
    };
    for (int round = 0; round < 2; ++round) {
        for (size_t i = 0; i < Logic::kMaxRouters; ++i) {
            const std::string source = "fe80::a:" + std::to_string(i);
            receiveRa(RaBuilder(1800)
                          .flags(static_cast<uint8_t>(random() & 0xc0))
                          .timers(1 + random() % 3600000, 1 + random() % 10000)
                          .bytes(),
                      source.c_str());
        }
    }
    nextMessage(SOLIF_HEALTH_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTING);
    TraceCapture capture;
    m_logic.handleLmxEvent();
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::LAB, "GENERAL", received(5))))
        << "sent as it is, never cut";
    ASSERT_EQ(m_data.responded.size(), 1u);
    ASSERT_FALSE(m_data.responded[0].decoded.textCut);
    const auto j = nlohmann::json::parse(m_data.responded[0].decoded.text, nullptr, false);
    ASSERT_TRUE(j.is_object()) << "not JSON";
    EXPECT_EQ(j["routers"].size(), Logic::kMaxRouters);
    size_t listed = 0;
    for (const auto& r : j["routers"]) {
        listed += r["conflicts"].size();
    }
    EXPECT_EQ(listed, 2 * RaHealth::kConflictsMax) << "each under both its routers";
    EXPECT_GT(j["conflictsDropped"].get<uint64_t>(), 1000u);
}

TEST_F(ClientRequestTest, ShowCacheOfAnEmptyCacheHasTheHeadingsAndCounters) {
    nextMessage(SOLIF_SHOW_RAINFO_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    m_logic.handleLmxEvent();
    ASSERT_EQ(m_data.responded.size(), 1u);
    EXPECT_EQ(m_data.responded[0].decoded.text,
              "\nRouters:\nNetworks:\nDNS Servers:\nCounters:{rxRa: 0, txRs: 0, txRsFailed: 0, rxRejected: 0}"
              "{raParsed: 0, raDropped: 0, prefixAccepted: 0, prefixIgnored: 0}");
}

TEST_F(ClientRequestDeathTest, FailedShowCacheAnswerRequestsRestart) {
    nextMessage(SOLIF_SHOW_RAINFO_REQ, kOtherClient, LmxMgr::DST_MBOX_STATE_CONNECTED);
    ON_CALL(m_data.lmx, respond(_, _)).WillByDefault(Return(1u));
    EXPECT_EXIT(
        {
            StderrTraces traces({"sendShowRainfoToLmxClient"});
            m_logic.handleLmxEvent();
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(restartAfter(
            traceLine(TraceEvent::ERROR, "GENERAL", "sendShowRainfoToLmxClient(): LmxMgr::respond"),
            "LmxMgr::respond")));
}

}  // namespace
