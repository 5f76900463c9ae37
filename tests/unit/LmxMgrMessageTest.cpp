// Client messages as LmxMgr::Message builds them: byte images, append rules, text truncation,
// classes of received messages and their printed forms. The mailbox service is the in-process fake.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CacheMgr.h"
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

class LmxMgrMessageTest : public ::testing::Test {
protected:
    void SetUp() override {
        lmx.reset();
        setTraceTag("ra0");
    }
    void TearDown() override {
        EXPECT_EQ(lmx.liveBuffers(), 0u) << "a message buffer leaked";
        setTraceTag("");
    }

    static std::vector<unsigned char> image(const LmxMgr::Message& m) {
        if (m.m_data.m_buffer == nullptr) {
            return {};
        }
        return bytesOf(m.m_data.m_buffer, lmx_size(m.m_data.m_buffer));
    }

    FakeLmx& lmx = FakeLmx::instance();
    TraceCapture capture;
};

std::vector<unsigned char> zeros(size_t n) {
    return std::vector<unsigned char>(n, 0);
}

TEST_F(LmxMgrMessageTest, RouterUpdatedIndIs144BytesWithConfigAt8AndStatusAt48) {
    const SolRouter router = makeRouter(7);
    LmxMgr::Message m;
    m.setTxRouterUpdatedInd(router);
    const auto b = image(m);
    ASSERT_EQ(b.size(), 144u);
    EXPECT_THAT(lmx.calls, ElementsAre("lmx_alloc(144, 0x1a11630)"));
    EXPECT_EQ(u32At(b, 0), 0x1a11630u);
    EXPECT_EQ(slice(b, 4, 4), zeros(4)) << "offset 4 is not written";
    EXPECT_EQ(slice(b, 8, 36), bytesOf(&router.m_config.data(), 36));
    EXPECT_EQ(slice(b, 44, 4), zeros(4)) << "padding";
    EXPECT_EQ(slice(b, 48, 96), bytesOf(&router.m_status.data(), 96));
    EXPECT_EQ(u32At(b, 8 + 28) >> 16, 0xa5a5u) << "the config's own padding travels as it was";
    EXPECT_EQ(m.getRxType(), LmxMgr::RX_TYPE_UNKNOWN);
}

TEST_F(LmxMgrMessageTest, NetworkUpdatedIndIs168BytesWithConfigAt8AndStatusAt48) {
    const SolNetwork network = makeNetwork(3);
    LmxMgr::Message m;
    m.setTxNetworkUpdatedInd(network);
    const auto b = image(m);
    ASSERT_EQ(b.size(), 168u);
    EXPECT_EQ(u32At(b, 0), 0x1a11631u);
    EXPECT_EQ(slice(b, 4, 4), zeros(4));
    EXPECT_EQ(slice(b, 8, 36), bytesOf(&network.m_config.data(), 36));
    EXPECT_EQ(slice(b, 44, 4), zeros(4));
    EXPECT_EQ(slice(b, 48, 120), bytesOf(&network.m_status.data(), 120));
}

void expectDnsList(const std::vector<unsigned char>& b, const std::vector<SolDnsServer>& servers) {
    const size_t count = servers.size();
    ASSERT_EQ(b.size(), 136 + 128 * count);
    EXPECT_EQ(u32At(b, 0), 0x1a11632u);
    EXPECT_EQ(u32At(b, 4), count);
    for (size_t i = 0; i < count; ++i) {
        const size_t e = 8 + 128 * i;
        EXPECT_EQ(slice(b, e, 28), bytesOf(&servers[i].m_config.data(), 28)) << "entry " << i;
        EXPECT_EQ(slice(b, e + 28, 4), zeros(4)) << "entry " << i;
        EXPECT_EQ(slice(b, e + 32, 96), bytesOf(&servers[i].m_status.data(), 96)) << "entry " << i;
    }
    EXPECT_EQ(slice(b, 8 + 128 * count, 128), zeros(128)) << "one entry's worth stays unused at the end";
}

TEST_F(LmxMgrMessageTest, DnsListForThreeServersIs520BytesInListOrderWithUnusedTrailingEntry) {
    const std::list<SolDnsServer> servers{makeDnsServer(2), makeDnsServer(0), makeDnsServer(1)};
    LmxMgr::Message m;
    m.setTxDnsServersUpdatedInd(servers);
    EXPECT_EQ(image(m).size(), 520u);
    expectDnsList(image(m), {servers.begin(), servers.end()});
}

TEST_F(LmxMgrMessageTest, DnsListFromCacheEntriesHasTheSameImageAsFromRecords) {
    std::list<DnsServerEntry> entries(3);
    std::list<DnsServerEntry*> pointers;
    std::vector<SolDnsServer> records;
    uint32_t seed = 5;
    for (auto& e : entries) {
        static_cast<SolDnsServer&>(e) = makeDnsServer(seed--);
        e.primaryRouterId = 99;  // relations are not part of the message
        pointers.push_back(&e);
        records.push_back(e);
    }
    LmxMgr::Message m;
    m.setTxDnsServersUpdatedInd(pointers);
    expectDnsList(image(m), records);
}

TEST_F(LmxMgrMessageTest, EmptyDnsListIs136BytesWithCountZero) {
    LmxMgr::Message m;
    m.setTxDnsServersUpdatedInd(std::list<SolDnsServer>{});
    expectDnsList(image(m), {});
}

TEST_F(LmxMgrMessageTest, RoutersCfmForZeroRoutersIs144BytesAndRefusesAnyPush) {
    LmxMgr::Message m;
    m.setTxGetRoutersCfm(0);
    const auto before = image(m);
    ASSERT_EQ(before.size(), 144u);
    EXPECT_EQ(u32At(before, 0), 0x1a11634u);
    EXPECT_EQ(u32At(before, 4), 0u);
    m.setTxGetRoutersCfmPush(makeRouter(12));
    EXPECT_EQ(image(m), before);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  "setTxGetRoutersCfmPush(): [ra0] Failed to append router with id 12 into "
                                  "getRouterCfm message memory is allocated for 0 routers only")));
}

TEST_F(LmxMgrMessageTest, RoutersCfmEntriesAre136BytesInPushOrderAndAThirdPushIntoTwoFails) {
    const SolRouter first = makeRouter(4);
    const SolRouter second = makeRouter(9);
    LmxMgr::Message m;
    m.setTxGetRoutersCfm(2);
    m.setTxGetRoutersCfmPush(first);
    m.setTxGetRoutersCfmPush(second);
    const auto b = image(m);
    ASSERT_EQ(b.size(), 8u + 2 * 136);
    EXPECT_EQ(u32At(b, 4), 2u);
    for (const auto& [e, r] : {std::pair{8u, &first}, std::pair{144u, &second}}) {
        EXPECT_EQ(slice(b, e, 36), bytesOf(&r->m_config.data(), 36));
        EXPECT_EQ(slice(b, e + 36, 4), zeros(4));
        EXPECT_EQ(slice(b, e + 40, 96), bytesOf(&r->m_status.data(), 96));
    }
    EXPECT_THAT(capture.records(), IsEmpty());
    EXPECT_EQ(m.m_data.m_appendIndex, 2u);

    m.setTxGetRoutersCfmPush(makeRouter(33));
    EXPECT_EQ(image(m), b) << "a refused push writes nothing";
    EXPECT_EQ(m.m_data.m_appendIndex, 2u);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  "setTxGetRoutersCfmPush(): [ra0] Failed to append router with id 33 into "
                                  "getRouterCfm message memory is allocated for 2 routers only")));
}

TEST_F(LmxMgrMessageTest, PushWithoutMessageIsRefusedAsNull) {
    LmxMgr::Message m;
    m.setTxGetRoutersCfmPush(makeRouter(6));
    EXPECT_EQ(m.m_data.m_buffer, nullptr);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                          "setTxGetRoutersCfmPush(): [ra0] Failed to append router with id 6 into null "
                          "message memory is allocated for 0 routers only")));
}

TEST_F(LmxMgrMessageTest, PushIntoAnotherMessageIsRefusedAsUnexpected) {
    LmxMgr::Message m;
    m.setTxRouterUpdatedInd(makeRouter(1));
    const auto before = image(m);
    m.setTxGetRoutersCfmPush(makeRouter(6));
    EXPECT_EQ(image(m), before);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  "setTxGetRoutersCfmPush(): [ra0] Failed to append router with id 6 into "
                                  "unexpected message memory is allocated for 0 routers only")));
}

TEST_F(LmxMgrMessageTest, ShowRainfoCfmCarriesTextWithItsNulAndOneExtraNul) {
    LmxMgr::Message m;
    m.setTxShowRainfoCfm("abc");
    const auto b = image(m);
    ASSERT_EQ(b.size(), 4u + 12);
    EXPECT_EQ(u32At(b, 0), 0x1a11636u);
    EXPECT_EQ(u32At(b, 4), 4u) << "text size counts the NUL";
    EXPECT_EQ(slice(b, 8, 5), (std::vector<unsigned char>{'a', 'b', 'c', 0, 0}));
    EXPECT_THAT(capture.records(), IsEmpty());
}

TEST_F(LmxMgrMessageTest, TextOfLimitMinusOneCharactersIsSentWhole) {
    lmx.maxSize = 112;  // limit 100
    LmxMgr::Message m;
    const std::string text(99, 'x');
    m.setTxShowRainfoCfm(text);
    const auto b = image(m);
    ASSERT_EQ(b.size(), 112u);
    EXPECT_EQ(u32At(b, 4), 100u);
    EXPECT_EQ(std::string(b.begin() + 8, b.begin() + 107), text);
    EXPECT_EQ(b[107], 0);
    EXPECT_EQ(b[108], 0);
    EXPECT_THAT(capture.records(), IsEmpty());
}

TEST_F(LmxMgrMessageTest, TextOneCharacterOverTheLimitIsTruncatedByOneByteWithoutNulInItsSize) {
    lmx.maxSize = 112;  // limit 100
    LmxMgr::Message m;
    std::string text(99, 'x');
    text += 'y';
    m.setTxShowRainfoCfm(text);
    const auto b = image(m);
    ASSERT_EQ(b.size(), 112u);
    EXPECT_EQ(u32At(b, 4), 100u);
    EXPECT_EQ(std::string(b.begin() + 8, b.begin() + 108), text) << "all 100 counted bytes are text";
    EXPECT_EQ(b[108], 0) << "the extra NUL follows the text";
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "GENERAL",
                                  "setTxShowRainfoCfm(): [ra0] Attemp to send texts with size 101, which "
                                  "overflows max size 100, so truncated 1 bytes")));
}

TEST_F(LmxMgrMessageTest, BuildersWriteTheirFieldsAndLeaveUnusedBytesAsAllocated) {
    lmx.poison = true;
    const std::vector<unsigned char> untouched(4, FakeLmx::kPoison);
    LmxMgr::Message m;
    m.setTxRouterUpdatedInd(makeRouter(1));
    auto b = image(m);
    EXPECT_EQ(slice(b, 4, 4), untouched);
    EXPECT_EQ(slice(b, 44, 4), untouched);
    m.setTxGetRoutersCfm(1);
    m.setTxGetRoutersCfmPush(makeRouter(1));
    b = image(m);
    EXPECT_EQ(u32At(b, 4), 1u);
    EXPECT_EQ(slice(b, 8 + 36, 4), untouched);
    m.setTxShowRainfoCfm("abc");
    b = image(m);
    EXPECT_EQ(u32At(b, 4), 4u);
    EXPECT_EQ(slice(b, 8, 5), (std::vector<unsigned char>{'a', 'b', 'c', 0, 0})) << "text NUL and extra NUL";
    EXPECT_EQ(slice(b, 13, 3), std::vector<unsigned char>(3, FakeLmx::kPoison));
}

TEST_F(LmxMgrMessageTest, EveryBuilderResetsTheHolderFirst) {
    LmxMgr::Message m;
    m.setTxGetRoutersCfm(2);
    m.setTxGetRoutersCfmPush(makeRouter(1));
    m.m_data.m_peer = 17;
    m.setTxNetworkUpdatedInd(makeNetwork(1));
    EXPECT_EQ(lmx.liveBuffers(), 1u) << "the routers answer was freed";
    EXPECT_EQ(m.m_data.m_appendIndex, 0u);
    EXPECT_EQ(m.m_data.m_peer, 0xffffffffu);
    m.setTxRouterUpdatedInd(makeRouter(1));
    m.setTxDnsServersUpdatedInd(std::list<SolDnsServer>{makeDnsServer(1)});
    m.setTxShowRainfoCfm("x");
    m.setTxGetRoutersCfm(1);
    EXPECT_EQ(lmx.liveBuffers(), 1u);
    EXPECT_EQ(u32At(image(m), 0), 0x1a11634u);
}

TEST_F(LmxMgrMessageTest, ResetFreesTheBufferAndClearsIndexAndPeer) {
    LmxMgr::Message m;
    m.setTxGetRoutersCfm(1);
    m.setTxGetRoutersCfmPush(makeRouter(1));
    m.m_data.m_peer = 3;
    m.reset();
    EXPECT_EQ(m.m_data.m_buffer, nullptr);
    EXPECT_EQ(m.m_data.m_appendIndex, 0u);
    EXPECT_EQ(m.m_data.m_peer, 0xffffffffu);
    EXPECT_EQ(lmx.liveBuffers(), 0u);
    EXPECT_EQ(m.getRxType(), LmxMgr::RX_TYPE_NO_MSG);
}

TEST_F(LmxMgrMessageTest, DestroyingTheHolderFreesItsBuffer) {
    {
        LmxMgr::Message m;
        m.setTxShowRainfoCfm("dump");
        EXPECT_EQ(lmx.liveBuffers(), 1u);
    }
    EXPECT_EQ(lmx.liveBuffers(), 0u);
}

TEST_F(LmxMgrMessageTest, RefusedAllocationLeavesNoMessageAndIsTraced) {
    lmx.maxSize = 100;
    LmxMgr::Message m;
    m.setTxRouterUpdatedInd(makeRouter(1));
    EXPECT_EQ(m.m_data.m_buffer, nullptr);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  "setTxRouterUpdatedInd(): [ra0] Failed to allocate 144 bytes for "
                                  "solif_router_updated_ind_t")));
}

LmxMgr::RxType rxTypeOf(uint32_t msgNo) {
    LmxMgr::Message m;
    m.m_data.m_buffer = lmx_alloc(sizeof msgNo, msgNo);
    return m.getRxType();
}

TEST_F(LmxMgrMessageTest, ReceivedMessagesAreClassifiedByNumber) {
    EXPECT_EQ(LmxMgr::Message{}.getRxType(), LmxMgr::RX_TYPE_NO_MSG);
    EXPECT_EQ(rxTypeOf(0x1901000), LmxMgr::RX_TYPE_INTERNAL);
    EXPECT_EQ(rxTypeOf(0x1901001), LmxMgr::RX_TYPE_INTERNAL);
    EXPECT_EQ(rxTypeOf(0x1a11633), LmxMgr::RX_TYPE_ROUTERS_REQ);
    EXPECT_EQ(rxTypeOf(0x1a11635), LmxMgr::RX_TYPE_CLICMD_SHOW_CACHE_REQ);
    EXPECT_EQ(rxTypeOf(0x1a11634), LmxMgr::RX_TYPE_UNKNOWN);
    EXPECT_EQ(rxTypeOf(0), LmxMgr::RX_TYPE_UNKNOWN);
    EXPECT_EQ(static_cast<uint32_t>(LmxMgr::RX_TYPE_UNKNOWN), 4u);
}

std::string printed(uint32_t msgNo, size_t size = sizeof(uint32_t)) {
    LmxMgr::Message m;
    m.m_data.m_buffer = lmx_alloc(size, msgNo);
    return toStr(m);
}

TEST_F(LmxMgrMessageTest, MessagesWithoutLayoutPrintNameAndNumber) {
    EXPECT_EQ(toStr(LmxMgr::Message{}), "{}");
    EXPECT_EQ(printed(0x1901000), "{msg_no_txt: LMX_LOCATE_DEFAULT_NO , msg_no: 26218496}");
    EXPECT_EQ(printed(0x1901001), "{msg_no_txt: LMX_MONITOR_DEFAULT_NO , msg_no: 26218497}");
    EXPECT_EQ(printed(0x1a11633), "{msg_no_txt: solif_get_routers_req_t , msg_no: 27334195}");
    EXPECT_EQ(printed(0x1a11635), "{msg_no_txt: solif_show_rainfo_req_t , msg_no: 27334197}");
    EXPECT_EQ(printed(0x42), "{msg_no_txt: UNKNOWN , msg_no: 66}");
}

TEST_F(LmxMgrMessageTest, ShortMessagesWithALayoutNumberPrintOnlyNameAndNumber) {
    // A peer can send any number with any size; printing must not read past the end.
    EXPECT_EQ(printed(0x1a11630, 143), "{msg_no_txt: solif_router_updated_ind_t , msg_no: 27334192}");
    EXPECT_EQ(printed(0x1a11631), "{msg_no_txt: solif_network_updated_ind_t , msg_no: 27334193}");
    EXPECT_EQ(printed(0x1a11632, 7), "{msg_no_txt: solif_dns_server_updated_ind_t , msg_no: 27334194}");
    EXPECT_EQ(printed(0x1a11636, 4), "{msg_no_txt: solif_show_rainfo_cfm_t , msg_no: 27334198}");
}

TEST_F(LmxMgrMessageTest, MessagesWithALayoutPrintTheirStructureForm) {
    LmxMgr::Message m;
    m.setTxRouterUpdatedInd(makeRouter(1));
    EXPECT_EQ(toStr(m), toStr(*static_cast<const solif_router_updated_ind_t*>(m.m_data.m_buffer)));
    m.setTxNetworkUpdatedInd(makeNetwork(1));
    EXPECT_EQ(toStr(m), toStr(*static_cast<const solif_network_updated_ind_t*>(m.m_data.m_buffer)));
    m.setTxDnsServersUpdatedInd(std::list<SolDnsServer>{makeDnsServer(1), makeDnsServer(2)});
    EXPECT_EQ(toStr(m), toStr(*static_cast<const solif_dns_server_updated_ind_t*>(m.m_data.m_buffer)));
    m.setTxGetRoutersCfm(1);
    m.setTxGetRoutersCfmPush(makeRouter(2));
    EXPECT_EQ(toStr(m), toStr(*static_cast<const solif_get_routers_cfm_t*>(m.m_data.m_buffer)));
    m.setTxShowRainfoCfm("\nRouters:\n");
    EXPECT_EQ(toStr(m),
              "{msg_no_txt: solif_show_rainfo_cfm_t , msg_no: 27334198, size: 11, text: \nRouters:\n}");
}

}  // namespace
