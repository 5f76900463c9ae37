// The client link: initialisation, the destination mailbox machine driven by locate and monitor
// answers, receive, notify, respond and tear-down, against the in-process fake mailbox service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ClientRecords.h"
#include "FakeLmx.h"
#include "LmxMgr.h"
#include "SolIf.h"
#include "TraceCapture.h"

using namespace solicd;
using namespace solicd::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr lmx_mbox_id_t kSrcId = 0x51;      // FakeLmx::createResult
constexpr uint32_t kMonitorId = 0x3;        // FakeLmx::monitorResult
constexpr lmx_mbox_id_t kSubscriberId = 7;  // what lmx_locate finds for "client"
constexpr lmx_mbox_id_t kOtherId = 9;

const char* const kNotSet = "{ no: 2, txt: DST_MBOX_STATE_NOT_SET}";
const char* const kConnecting = "{ no: 4, txt: DST_MBOX_STATE_CONNECTING}";
const char* const kConnected = "{ no: 8, txt: DST_MBOX_STATE_CONNECTED}";

std::string stateChange(const char* from, const char* to) {
    return std::string("postDstMboxEvent(): [ra0] Changing dstMbox 'client' state: '") + from + "' -> '" +
           to + "'";
}

class LmxMgrTest : public ::testing::Test {
protected:
    void SetUp() override {
        lmx.reset();
        lmx.live["client"] = kSubscriberId;
        setTraceTag("ra0");
    }
    void TearDown() override {
        EXPECT_EQ(lmx.liveBuffers(), 0u) << "a message buffer leaked";
        setTraceTag("");
    }

    // A manager connected to "client": initialised, located, monitored. Calls and traces cleared.
    void connect(LmxMgr& mgr) {
        ASSERT_EQ(mgr.init("solicd", "client"), 0u);
        lmx.deliver(LMX_LOCATE_DEFAULT_NO, kSubscriberId);
        LmxMgr::Message located;
        ASSERT_EQ(mgr.receive(located), 0u);
        ASSERT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTED);
        lmx.calls.clear();
        capture.clear();
    }

    FakeLmx& lmx = FakeLmx::instance();
    TraceCapture capture;
};

TEST_F(LmxMgrTest, StatesPrintNumberAndName) {
    EXPECT_EQ(toStr(LmxMgr::DST_MBOX_STATE_CONNECTED), "8");
    std::ostringstream os;
    printDstMboxState(os, LmxMgr::DST_MBOX_STATE_CONNECTED);
    printDstMboxState(os, LmxMgr::DST_MBOX_STATE_NOT_SET);
    printDstMboxState(os, LmxMgr::DST_MBOX_STATE_CONNECTING);
    printDstMboxState(os, 3);
    EXPECT_EQ(os.str(), std::string(kConnected) + kNotSet + kConnecting + "{ no: 3, txt: UNKNOWN}");
}

TEST_F(LmxMgrTest, InitCreatesOwnMailboxAndStartsLocatingTheSubscriber) {
    LmxMgr mgr;
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_NOT_SET);
    EXPECT_EQ(mgr.init("solicd", "client"), 0u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTING);
    EXPECT_THAT(lmx.calls, ElementsAre("lmx_init(1, NULL)", "lmx_create_mailbox(solicd, 0)",
                                       "lmx_locate_async(client, NULL, 0xfff00000)"));
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::INFO, "GENERAL", stateChange(kNotSet, kConnecting)),
                    Trace(TraceEvent::LAB, "GENERAL",
                          "actionLocateDstMbox(): [ra0] ACTION: locating dstMbox with name: 'client'")));
    EXPECT_EQ(mgr.getFd(), lmx.fd);
}

TEST_F(LmxMgrTest, SecondInitIsRefused) {
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    capture.clear();
    lmx.calls.clear();
    EXPECT_EQ(mgr.init("other", "else"), 1u);
    EXPECT_THAT(lmx.calls, IsEmpty());
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTING);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  "init(): [ra0] Invalid attemp to initilize LMX mananger second time")));
}

TEST_F(LmxMgrTest, EmptySourceNameFailsWithoutStartingTheService) {
    {
        LmxMgr mgr;
        EXPECT_EQ(mgr.init("", "client"), 1u);
        EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_NOT_SET);
        EXPECT_THAT(capture.records(),
                    ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                      "init(): [ra0] Failed to initilize LMX mailbox, srcMbox:[]")));
    }
    EXPECT_THAT(lmx.calls, IsEmpty()) << "nothing to tear down either";
}

TEST_F(LmxMgrTest, FailedServiceStartFailsInitAndIsNotTornDown) {
    lmx.initResult = -1;
    {
        LmxMgr mgr;
        EXPECT_EQ(mgr.init("solicd", "client"), 1u);
        EXPECT_THAT(capture.records(),
                    ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                      "init(): [ra0] Failed to initilize LMX mailbox, srcMbox:[solicd]")));
    }
    EXPECT_THAT(lmx.calls, ElementsAre("lmx_init(1, NULL)"));
}

TEST_F(LmxMgrTest, FailedMailboxCreationFailsInitButTheServiceIsStillEnded) {
    lmx.createResult = LMX_INVALID_ID;
    {
        LmxMgr mgr;
        EXPECT_EQ(mgr.init("solicd", "client"), 1u);
        EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_NOT_SET);
        EXPECT_THAT(capture.records(),
                    ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                      "init(): [ra0] Failed to create LMX mailbox, srcMbox:[solicd]")));
        capture.clear();
        EXPECT_EQ(mgr.init("solicd", "client"), 1u) << "initialisation got that far";
        EXPECT_THAT(capture.messages(TraceEvent::ERROR),
                    ElementsAre("init(): [ra0] Invalid attemp to initilize LMX mananger second time"));
    }
    EXPECT_THAT(lmx.calls, ElementsAre("lmx_init(1, NULL)", "lmx_create_mailbox(solicd, 0)", "lmx_exit()"));
}

TEST_F(LmxMgrTest, WithoutSubscriberNotifyFailsNotConnectedButRespondStillAnswers) {
    LmxMgr mgr;
    EXPECT_EQ(mgr.init("solicd", ""), 0u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_NOT_SET);
    EXPECT_THAT(lmx.calls, ElementsAre("lmx_init(1, NULL)", "lmx_create_mailbox(solicd, 0)"));

    LmxMgr::Message update;
    update.setTxRouterUpdatedInd(makeRouter(1));
    capture.clear();
    EXPECT_EQ(mgr.notify(update), 1u);
    EXPECT_NE(update.m_data.m_buffer, nullptr) << "a message not sent is kept";
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                                     "notify(): [ra0] Unable to notify solicd, state " +
                                                         std::string(kNotSet) + ". Reason: not connected")));

    lmx.deliver(SOLIF_GET_ROUTERS_REQ, kOtherId);
    LmxMgr::Message request;
    ASSERT_EQ(mgr.receive(request), 0u);
    LmxMgr::Message answer;
    answer.setTxGetRoutersCfm(0);
    capture.clear();
    EXPECT_EQ(mgr.respond(request, answer), 0u);
    EXPECT_EQ(answer.m_data.m_buffer, nullptr) << "the service owns a sent buffer";
    ASSERT_EQ(lmx.sent.size(), 1u);
    EXPECT_EQ(lmx.sent[0].to, kOtherId);
    EXPECT_EQ(lmx.sent[0].from, kSrcId);
    EXPECT_EQ(u32At(lmx.sent[0].bytes, 0), SOLIF_GET_ROUTERS_CFM);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  "respond(): [ra0] Send message to 9 (other client), msg:{msg_no_txt: "
                                  "solif_get_routers_cfm_t , msg_no: 27334196, count: 0, routers: []}")));
}

TEST_F(LmxMgrTest, NotifyWithoutMessageFailsMessageNotSetInAnyState) {
    LmxMgr mgr;
    connect(mgr);
    LmxMgr::Message empty;
    EXPECT_EQ(mgr.notify(empty), 1u);
    EXPECT_THAT(lmx.calls, IsEmpty());
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  "notify(): [ra0] Unable to notify solicd, state " +
                                      std::string(kConnected) + ". Reason: message not set")));
}

TEST_F(LmxMgrTest, NotifyWhileConnectingFailsNotConnected) {
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    LmxMgr::Message update;
    update.setTxNetworkUpdatedInd(makeNetwork(1));
    capture.clear();
    EXPECT_EQ(mgr.notify(update), 1u);
    EXPECT_TRUE(lmx.sent.empty());
    EXPECT_THAT(capture.messages(TraceEvent::ERROR),
                ElementsAre("notify(): [ra0] Unable to notify solicd, state " + std::string(kConnecting) +
                            ". Reason: not connected"));
}

TEST_F(LmxMgrTest, LocateAnswerConnectsAndMonitorsTheSubscriber) {
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    capture.clear();
    lmx.calls.clear();
    lmx.deliver(LMX_LOCATE_DEFAULT_NO, kSubscriberId);
    LmxMgr::Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTED);
    EXPECT_EQ(message.getRxType(), LmxMgr::RX_TYPE_INTERNAL);
    EXPECT_EQ(message.m_data.m_peer, kSubscriberId);
    EXPECT_THAT(lmx.calls, ElementsAre("lmx_receive(NULL, 0, 4293988625)", "lmx_locate(client)",
                                       "lmx_monitor(7, NULL)"));
    EXPECT_THAT(
        capture.records(),
        ElementsAre(
            Trace(TraceEvent::LAB, "GENERAL",
                  "receive(): [ra0] Received message from 7(other client), msg:{msg_no_txt: "
                  "LMX_LOCATE_DEFAULT_NO , msg_no: 26218496}"),
            Trace(TraceEvent::INFO, "GENERAL", stateChange(kConnecting, kConnected)),
            Trace(
                TraceEvent::LAB, "GENERAL",
                "actionGetIdAndMonitorDstMbox(): [ra0] ACTION: found ID: 7 for dstMbox with name: 'client'"),
            Trace(TraceEvent::LAB, "GENERAL",
                  "actionGetIdAndMonitorDstMbox(): [ra0] ACTION: start monitoring for dstMbox with name: "
                  "'client'")));
}

TEST_F(LmxMgrTest, NotifyWhenConnectedSendsFromOwnMailboxToSubscriber) {
    LmxMgr mgr;
    connect(mgr);
    const SolRouter router = makeRouter(5);
    LmxMgr::Message update;
    update.setTxRouterUpdatedInd(router);
    const std::string printed = toStr(update);
    const auto image = bytesOf(update.m_data.m_buffer, 144);
    EXPECT_EQ(mgr.notify(update), 0u);
    EXPECT_EQ(update.m_data.m_buffer, nullptr);
    ASSERT_EQ(lmx.sent.size(), 1u);
    EXPECT_EQ(lmx.sent[0].to, kSubscriberId);
    EXPECT_EQ(lmx.sent[0].from, kSrcId);
    EXPECT_EQ(lmx.sent[0].bytes, image);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  "notify(): [ra0] Send message to 7 (subscriber), msg:" + printed)));
}

TEST_F(LmxMgrTest, MonitorAnswerWhileConnectingIsRefusedAndStateStays) {
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    capture.clear();
    lmx.deliver(LMX_MONITOR_DEFAULT_NO, kSubscriberId);
    LmxMgr::Message message;
    EXPECT_EQ(mgr.receive(message), 1u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTING);
    EXPECT_EQ(message.getRxType(), LmxMgr::RX_TYPE_INTERNAL) << "the caller sees which event failed";
    EXPECT_THAT(capture.messages(TraceEvent::ERROR),
                ElementsAre("postDstMboxEvent(): [ra0] Event OrderDisconnect is not expected in state " +
                            std::string(kConnecting)));
    EXPECT_THAT(capture.messages(TraceEvent::INFO), IsEmpty());
}

TEST_F(LmxMgrTest, SecondLocateAnswerWhileConnectedIsRefused) {
    LmxMgr mgr;
    connect(mgr);
    lmx.deliver(LMX_LOCATE_DEFAULT_NO, kSubscriberId);
    LmxMgr::Message message;
    EXPECT_EQ(mgr.receive(message), 1u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTED);
    EXPECT_THAT(capture.messages(TraceEvent::ERROR),
                ElementsAre("postDstMboxEvent(): [ra0] Event Located is not expected in state " +
                            std::string(kConnected)));
}

TEST_F(LmxMgrTest, SubscriberGoneBeforeItsIdIsFoundReturnsToConnecting) {
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    lmx.live.clear();
    capture.clear();
    lmx.deliver(LMX_LOCATE_DEFAULT_NO, kSubscriberId);
    LmxMgr::Message message;
    EXPECT_EQ(mgr.receive(message), 1u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTING);
    EXPECT_THAT(
        capture.messages(TraceEvent::ERROR),
        ElementsAre("actionGetIdAndMonitorDstMbox(): [ra0] DstMbox with name:'client' is up, but cannot  "
                    "find mbox ID"));
}

TEST_F(LmxMgrTest, FailedMonitorStartReturnsToConnecting) {
    lmx.monitorResult = 0;
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    capture.clear();
    lmx.deliver(LMX_LOCATE_DEFAULT_NO, kSubscriberId);
    LmxMgr::Message message;
    EXPECT_EQ(mgr.receive(message), 1u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTING);
    EXPECT_THAT(
        capture.messages(TraceEvent::ERROR),
        ElementsAre("actionGetIdAndMonitorDstMbox(): [ra0] Mbox dstMbox:[client] monitoring is failed"));
    EXPECT_THAT(capture.messages(TraceEvent::INFO), ElementsAre(stateChange(kConnecting, kConnected)));
}

TEST_F(LmxMgrTest, SubscriberDyingAndReturningGoesConnectedNotSetConnectingConnected) {
    LmxMgr mgr;
    connect(mgr);
    lmx.deliver(LMX_MONITOR_DEFAULT_NO, kSubscriberId);
    LmxMgr::Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTING);
    EXPECT_THAT(lmx.calls, ElementsAre("lmx_receive(NULL, 0, 4293988625)", "lmx_unmonitor(3)",
                                       "lmx_locate_async(client, NULL, 0xfff00000)"));
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                          "receive(): [ra0] Received message from 7 (subscriber), msg:{msg_no_txt: "
                          "LMX_MONITOR_DEFAULT_NO , msg_no: 26218497}"),
                    Trace(TraceEvent::INFO, "GENERAL", stateChange(kConnected, kNotSet)),
                    Trace(TraceEvent::LAB, "GENERAL",
                          "actionUnsetDstMbox(): [ra0] ACTION: unset dstMbox with name: 'client'"),
                    Trace(TraceEvent::INFO, "GENERAL", stateChange(kNotSet, kConnecting)),
                    Trace(TraceEvent::LAB, "GENERAL",
                          "actionLocateDstMbox(): [ra0] ACTION: locating dstMbox with name: 'client'")));

    // Not the subscriber any more: the same id is now an other client.
    LmxMgr::Message answer;
    answer.setTxShowRainfoCfm("x");
    capture.clear();
    ASSERT_EQ(mgr.respond(message, answer), 0u);
    EXPECT_THAT(capture.messages(TraceEvent::LAB),
                ElementsAre("respond(): [ra0] Send message to 7 (other client), msg:{msg_no_txt: "
                            "solif_show_rainfo_cfm_t , msg_no: 27334198, size: 2, text: x}"));

    // Back under a new id.
    lmx.live["client"] = 12;
    lmx.deliver(LMX_LOCATE_DEFAULT_NO, 12);
    capture.clear();
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTED);
    EXPECT_THAT(capture.messages(TraceEvent::INFO), ElementsAre(stateChange(kConnecting, kConnected)));
    LmxMgr::Message update;
    update.setTxRouterUpdatedInd(makeRouter(1));
    EXPECT_EQ(mgr.notify(update), 0u);
    ASSERT_EQ(lmx.sent.size(), 2u);
    EXPECT_EQ(lmx.sent[1].to, 12u);
}

TEST_F(LmxMgrTest, NothingToReceiveIsAnExceptionTraceWithErrno) {
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    capture.clear();
    LmxMgr::Message message;
    message.setTxShowRainfoCfm("stale");
    EXPECT_EQ(mgr.receive(message), 1u);
    EXPECT_EQ(message.getRxType(), LmxMgr::RX_TYPE_NO_MSG) << "the holder was reset first";
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::EXCEPTION, "GENERAL",
                                  "receive(): [ra0] Empty message received on solicd, errno: 11(Resource "
                                  "temporarily unavailable)")));
}

TEST_F(LmxMgrTest, TimedOutReceiveIsTimeTravel) {
    lmx.emptyErrno = ETIMEDOUT;
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    capture.clear();
    LmxMgr::Message message;
    EXPECT_EQ(mgr.receive(message), 1u);
    EXPECT_EQ(message.getRxType(), LmxMgr::RX_TYPE_NO_MSG);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "GENERAL", "receive(): [ra0] LMX time travel detected")));
}

TEST_F(LmxMgrTest, RequestFromSubscriberIsLeftToTheCallerWithItsSender) {
    LmxMgr mgr;
    connect(mgr);
    lmx.deliver(SOLIF_SHOW_RAINFO_REQ, kSubscriberId);
    LmxMgr::Message request;
    EXPECT_EQ(mgr.receive(request), 0u);
    EXPECT_EQ(request.getRxType(), LmxMgr::RX_TYPE_CLICMD_SHOW_CACHE_REQ);
    EXPECT_EQ(request.m_data.m_peer, kSubscriberId);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTED);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  "receive(): [ra0] Received message from 7 (subscriber), msg:{msg_no_txt: "
                                  "solif_show_rainfo_req_t , msg_no: 27334197}")));

    LmxMgr::Message answer;
    answer.setTxGetRoutersCfm(0);
    capture.clear();
    EXPECT_EQ(mgr.respond(request, answer), 0u);
    ASSERT_EQ(lmx.sent.size(), 1u);
    EXPECT_EQ(lmx.sent[0].to, kSubscriberId);
    EXPECT_THAT(capture.messages(TraceEvent::LAB),
                ElementsAre("respond(): [ra0] Send message to 7 (subscriber), msg:{msg_no_txt: "
                            "solif_get_routers_cfm_t , msg_no: 27334196, count: 0, routers: []}"));
}

TEST_F(LmxMgrTest, RoutersRequestFromAnotherMailboxIsAnsweredToThatMailbox) {
    LmxMgr mgr;
    connect(mgr);
    lmx.deliver(SOLIF_GET_ROUTERS_REQ, kOtherId);
    LmxMgr::Message request;
    ASSERT_EQ(mgr.receive(request), 0u);
    EXPECT_EQ(request.getRxType(), LmxMgr::RX_TYPE_ROUTERS_REQ);
    EXPECT_THAT(capture.messages(TraceEvent::LAB),
                ElementsAre("receive(): [ra0] Received message from 9(other client), msg:{msg_no_txt: "
                            "solif_get_routers_req_t , msg_no: 27334195}"));
    LmxMgr::Message answer;
    answer.setTxGetRoutersCfm(1);
    answer.setTxGetRoutersCfmPush(makeRouter(1));
    EXPECT_EQ(mgr.respond(request, answer), 0u);
    ASSERT_EQ(lmx.sent.size(), 1u);
    EXPECT_EQ(lmx.sent[0].to, kOtherId);
    EXPECT_EQ(lmx.sent[0].from, kSrcId);
}

TEST_F(LmxMgrTest, FailedSendIsTracedNotFatalAndTheBufferIsNotLeaked) {
    // A subscriber killed between two updates refuses the next one before its death notice is
    // read; a requester may be gone before its answer. Neither may cost the daemon a restart.
    LmxMgr mgr;
    connect(mgr);
    lmx.sendResult = -1;
    LmxMgr::Message update;
    update.setTxRouterUpdatedInd(makeRouter(1));
    EXPECT_EQ(mgr.notify(update), 0u);
    EXPECT_EQ(update.m_data.m_buffer, nullptr) << "the service took the buffer";
    lmx.deliver(SOLIF_GET_ROUTERS_REQ, kOtherId);
    LmxMgr::Message request;
    ASSERT_EQ(mgr.receive(request), 0u);
    LmxMgr::Message answer;
    answer.setTxGetRoutersCfm(0);
    EXPECT_EQ(mgr.respond(request, answer), 0u);
    EXPECT_EQ(answer.m_data.m_buffer, nullptr);
    EXPECT_THAT(
        capture.messages(TraceEvent::ERROR),
        ElementsAre("notify(): [ra0] Failed to send message to 7, errno: 105(No buffer space available)",
                    "respond(): [ra0] Failed to send message to 9, errno: 105(No buffer space available)"));
}

TEST_F(LmxMgrTest, RespondWithoutAnswerSendsNothing) {
    LmxMgr mgr;
    connect(mgr);
    lmx.deliver(SOLIF_GET_ROUTERS_REQ, kOtherId);
    LmxMgr::Message request;
    ASSERT_EQ(mgr.receive(request), 0u);
    LmxMgr::Message answer;
    capture.clear();
    EXPECT_EQ(mgr.respond(request, answer), 1u);
    EXPECT_TRUE(lmx.sent.empty());
    EXPECT_THAT(capture.messages(TraceEvent::ERROR),
                ElementsAre("respond(): [ra0] Unable to respond to 9. Reason: message not set"));
}

TEST_F(LmxMgrTest, DestructionUnmonitorsDeletesOwnMailboxAndEndsTheService) {
    {
        LmxMgr mgr;
        connect(mgr);
    }
    EXPECT_THAT(lmx.calls, ElementsAre("lmx_unmonitor(3)", "lmx_delete_mailbox(81)", "lmx_exit()"));
}

TEST_F(LmxMgrTest, FailedLocateRequestIsTracedButTheLinkKeepsConnecting) {
    lmx.locateAsyncResult = -1;
    LmxMgr mgr;
    EXPECT_EQ(mgr.init("solicd", "client"), 0u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTING);
    EXPECT_THAT(
        capture.messages(TraceEvent::ERROR),
        ElementsAre("actionLocateDstMbox(): [ra0] Failed to request locating dstMbox with name: 'client', "
                    "errno: 22(Invalid argument)"));
}

}  // namespace
