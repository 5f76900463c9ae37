// Client message definitions: names, sizes, text forms, and decoding that never reads past the
// end of a short or inconsistent message.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ClientRecords.h"
#include "SolIf.h"

using namespace solicd;
using namespace solicd::test;

namespace {

TEST(SolIf, MessageNumbersHaveTheirStructureNames) {
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11630), "solif_router_updated_ind_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11631), "solif_network_updated_ind_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11632), "solif_dns_server_updated_ind_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11633), "solif_get_routers_req_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11634), "solif_get_routers_cfm_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11635), "solif_show_rainfo_req_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11636), "solif_show_rainfo_cfm_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11637), "solif_health_req_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11638), "solif_health_cfm_t");
    EXPECT_STREQ(solifMsgNoToCstr(0x1a11639), "UNKNOWN");
    EXPECT_STREQ(solifMsgNoToCstr(0x1901000), "UNKNOWN");
}

TEST(SolIf, ListAndTextSizes) {
    EXPECT_EQ(solifDnsServerUpdatedIndSize(0), 136u);
    EXPECT_EQ(solifDnsServerUpdatedIndSize(3), 520u);
    EXPECT_EQ(solifGetRoutersCfmSize(0), 144u) << "room for one entry when there is none";
    EXPECT_EQ(solifGetRoutersCfmSize(1), 144u);
    EXPECT_EQ(solifGetRoutersCfmSize(2), 280u);
    EXPECT_EQ(solifGetRoutersCfmSize(64), 8u + 64 * 136);
    EXPECT_EQ(solifShowRainfoCfmSize(4), 16u) << "text size + 12, the extra NUL included";
}

// Images built the way the daemon lays them out, independently of its builders.
std::vector<unsigned char> routerInd(const SolRouter& r) {
    std::vector<unsigned char> b(144);
    const uint32_t no = SOLIF_ROUTER_UPDATED_IND;
    std::memcpy(&b[0], &no, 4);
    std::memcpy(&b[8], &r.m_config.data(), 36);
    std::memcpy(&b[48], &r.m_status.data(), 96);
    return b;
}

std::vector<unsigned char> listMsg(uint32_t no, uint32_t count, size_t size) {
    std::vector<unsigned char> b(size);
    std::memcpy(&b[0], &no, 4);
    std::memcpy(&b[4], &count, 4);
    return b;
}

std::vector<unsigned char> routersCfm(const std::vector<SolRouter>& routers) {
    auto b = listMsg(SOLIF_GET_ROUTERS_CFM, static_cast<uint32_t>(routers.size()),
                     solifGetRoutersCfmSize(static_cast<uint32_t>(routers.size())));
    for (size_t i = 0; i < routers.size(); ++i) {
        std::memcpy(&b[8 + 136 * i], &routers[i].m_config.data(), 36);
        std::memcpy(&b[8 + 136 * i + 40], &routers[i].m_status.data(), 96);
    }
    return b;
}

std::vector<unsigned char> dnsList(const std::vector<SolDnsServer>& servers) {
    auto b = listMsg(SOLIF_DNS_SERVER_UPDATED_IND, static_cast<uint32_t>(servers.size()),
                     solifDnsServerUpdatedIndSize(static_cast<uint32_t>(servers.size())));
    for (size_t i = 0; i < servers.size(); ++i) {
        std::memcpy(&b[8 + 128 * i], &servers[i].m_config.data(), 28);
        std::memcpy(&b[8 + 128 * i + 32], &servers[i].m_status.data(), 96);
    }
    return b;
}

std::vector<unsigned char> textCfm(const std::string& text, uint32_t size,
                                   uint32_t msgNo = SOLIF_SHOW_RAINFO_CFM) {
    auto b = listMsg(msgNo, size, solifShowRainfoCfmSize(size));
    std::memcpy(&b[8], text.data(), std::min<size_t>(text.size(), size));
    return b;
}

template <class Record>
void expectSameRecord(const Record& got, const Record& want) {
    EXPECT_EQ(bytesOf(&got.m_config.data(), sizeof got.m_config.data()),
              bytesOf(&want.m_config.data(), sizeof want.m_config.data()));
    EXPECT_EQ(bytesOf(&got.m_status.data(), sizeof got.m_status.data()),
              bytesOf(&want.m_status.data(), sizeof want.m_status.data()));
}

std::string decodeError(const std::vector<unsigned char>& b, size_t size) {
    SolifMessage out;
    std::string error;
    // Copy exactly `size` bytes so that a read past the end is caught by the sanitizers.
    std::vector<unsigned char> exact(b.begin(), b.begin() + static_cast<long>(size));
    EXPECT_EQ(solifDecode(exact.data(), exact.size(), out, error), 1u) << "size " << size;
    EXPECT_FALSE(solifFits(exact.data(), exact.size()));
    return error;
}

TEST(SolIfDecode, RouterIndicationGivesTheRecordBackByteForByte) {
    const SolRouter r = makeRouter(7);
    const auto b = routerInd(r);
    SolifMessage out;
    std::string error;
    ASSERT_EQ(solifDecode(b.data(), b.size(), out, error), 0u) << error;
    EXPECT_EQ(out.msgNo, SOLIF_ROUTER_UPDATED_IND);
    ASSERT_EQ(out.routers.size(), 1u);
    expectSameRecord(out.routers[0], r);
    EXPECT_TRUE(out.networks.empty());
}

TEST(SolIfDecode, NetworkIndicationGivesTheRecordBack) {
    const SolNetwork n = makeNetwork(2);
    std::vector<unsigned char> b(168);
    const uint32_t no = SOLIF_NETWORK_UPDATED_IND;
    std::memcpy(&b[0], &no, 4);
    std::memcpy(&b[8], &n.m_config.data(), 36);
    std::memcpy(&b[48], &n.m_status.data(), 120);
    SolifMessage out;
    std::string error;
    ASSERT_EQ(solifDecode(b.data(), b.size(), out, error), 0u) << error;
    ASSERT_EQ(out.networks.size(), 1u);
    expectSameRecord(out.networks[0], n);
    EXPECT_EQ(decodeError(b, 167),
              "solif_network_updated_ind_t of 167 bytes cannot hold itself (needs 168 bytes)");
}

TEST(SolIfDecode, ListsGiveCountEntriesInOrder) {
    const std::vector<SolRouter> routers{makeRouter(3), makeRouter(1)};
    const std::vector<SolDnsServer> servers{makeDnsServer(0), makeDnsServer(1), makeDnsServer(2)};
    SolifMessage out;
    std::string error;
    auto b = routersCfm(routers);
    ASSERT_EQ(solifDecode(b.data(), b.size(), out, error), 0u) << error;
    ASSERT_EQ(out.routers.size(), 2u);
    expectSameRecord(out.routers[0], routers[0]);
    expectSameRecord(out.routers[1], routers[1]);
    b = dnsList(servers);
    ASSERT_EQ(solifDecode(b.data(), b.size(), out, error), 0u) << error;
    ASSERT_EQ(out.dnsServers.size(), 3u);
    EXPECT_TRUE(out.routers.empty()) << "a decode starts afresh";
    for (size_t i = 0; i < 3; ++i) {
        expectSameRecord(out.dnsServers[i], servers[i]);
    }
    b = routersCfm({});
    ASSERT_EQ(solifDecode(b.data(), b.size(), out, error), 0u) << error;
    EXPECT_TRUE(out.routers.empty());
}

TEST(SolIfDecode, ListsNeedOnlyTheirCountedEntries) {
    // Readers take `count` entries: the unused trailing DNS entry is not required.
    const auto b = dnsList({makeDnsServer(1)});
    SolifMessage out;
    std::string error;
    EXPECT_EQ(solifDecode(b.data(), 8 + 128, out, error), 0u) << error;
    EXPECT_EQ(out.dnsServers.size(), 1u);
    EXPECT_EQ(decodeError(b, 8 + 127),
              "solif_dns_server_updated_ind_t of 135 bytes cannot hold its 1 entries (needs 136 bytes)");
}

TEST(SolIfDecode, EveryShortMessageIsReportedNeverRead) {
    EXPECT_EQ(decodeError(routerInd(makeRouter(1)), 0), "message of 0 bytes has no room for its number");
    EXPECT_EQ(decodeError(routerInd(makeRouter(1)), 3), "message of 3 bytes has no room for its number");
    for (size_t size = 4; size < 144; ++size) {
        EXPECT_EQ(decodeError(routerInd(makeRouter(1)), size),
                  "solif_router_updated_ind_t of " + std::to_string(size) +
                      " bytes cannot hold itself (needs 144 bytes)");
    }
    EXPECT_EQ(decodeError(routersCfm({}), 7),
              "solif_get_routers_cfm_t of 7 bytes cannot hold itself (needs 8 bytes)");
    EXPECT_EQ(decodeError(textCfm("x", 2), 9),
              "solif_show_rainfo_cfm_t of 9 bytes cannot hold its text of 2 bytes "
              "(needs 10 bytes)");
}

TEST(SolIfDecode, CountsBeyondTheMessageAreInconsistent) {
    auto b = routersCfm({makeRouter(1)});
    const uint32_t huge = 0xffffffff;
    std::memcpy(&b[4], &huge, 4);
    EXPECT_EQ(decodeError(b, b.size()),
              "solif_get_routers_cfm_t of 144 bytes cannot hold its 4294967295 entries "
              "(needs 584115552128 bytes)");
    const uint32_t two = 2;
    std::memcpy(&b[4], &two, 4);
    EXPECT_EQ(decodeError(b, b.size()),
              "solif_get_routers_cfm_t of 144 bytes cannot hold its 2 entries (needs 280 bytes)");
    auto t = textCfm("abc", 4);
    const uint32_t bigText = 1000;
    std::memcpy(&t[4], &bigText, 4);
    EXPECT_EQ(decodeError(t, t.size()),
              "solif_show_rainfo_cfm_t of 16 bytes cannot hold its text of 1000 bytes (needs 1008 bytes)");
}

TEST(SolIfDecode, UnknownNumbersAreNoClientMessage) {
    auto b = listMsg(0x1901000, 0, 8);
    EXPECT_EQ(decodeError(b, b.size()), "message number 0x1901000 is not a client message");
}

TEST(SolIfDecode, TextStopsAtItsNulOrItsSize) {
    SolifMessage out;
    std::string error;
    auto b = textCfm(std::string("abc\0", 4), 4);
    ASSERT_EQ(solifDecode(b.data(), b.size(), out, error), 0u);
    EXPECT_EQ(out.text, "abc");
    // A truncated text has no NUL within its size; the size bounds it, the extra NUL is not needed.
    b = textCfm("abcdef", 4);
    ASSERT_EQ(solifDecode(b.data(), 8 + 4, out, error), 0u);
    EXPECT_EQ(out.text, "abcd");
}

TEST(SolIfDecode, TheHealthAnswerIsLaidOutAsTheTextAnswer) {
    SolifMessage out;
    std::string error;
    const std::string json = R"({"version":1})";
    auto b = textCfm(json + '\0', static_cast<uint32_t>(json.size() + 1), SOLIF_HEALTH_CFM);
    ASSERT_EQ(solifDecode(b.data(), b.size(), out, error), 0u) << error;
    EXPECT_EQ(out.msgNo, SOLIF_HEALTH_CFM);
    EXPECT_EQ(out.text, json);
    EXPECT_EQ(decodeError(b, 6), "solif_health_cfm_t of 6 bytes cannot hold itself (needs 8 bytes)");
    EXPECT_EQ(toStr(*reinterpret_cast<const solif_health_cfm_t*>(b.data())),
              "{msg_no_txt: solif_health_cfm_t , msg_no: 27334200, size: 14, text: " + json + "}");
    const uint32_t request = SOLIF_HEALTH_REQ;
    ASSERT_EQ(solifDecode(&request, sizeof request, out, error), 0u);
    EXPECT_EQ(out.msgNo, SOLIF_HEALTH_REQ);
}

TEST(SolIfDecode, RequestsCarryOnlyTheirNumber) {
    SolifMessage out;
    std::string error;
    const uint32_t no = SOLIF_SHOW_RAINFO_REQ;
    ASSERT_EQ(solifDecode(&no, sizeof no, out, error), 0u);
    EXPECT_EQ(out.msgNo, SOLIF_SHOW_RAINFO_REQ);
}

TEST(SolIfText, StructureFormsNameTheMessageAndPrintTheRecords) {
    const SolRouter r = makeRouter(7);
    auto b = routerInd(r);
    EXPECT_EQ(toStr(*reinterpret_cast<const solif_router_updated_ind_t*>(b.data())),
              "{msg_no_txt: solif_router_updated_ind_t , msg_no: 27334192, router: " + toStr(r) + "}");

    const SolRouter other = makeRouter(8);
    b = routersCfm({r, other});
    EXPECT_EQ(toStr(*reinterpret_cast<const solif_get_routers_cfm_t*>(b.data())),
              "{msg_no_txt: solif_get_routers_cfm_t , msg_no: 27334196, count: 2, routers: [" + toStr(r) +
                  ", " + toStr(other) + "]}");

    const SolDnsServer d = makeDnsServer(1);
    b = dnsList({d});
    EXPECT_EQ(toStr(*reinterpret_cast<const solif_dns_server_updated_ind_t*>(b.data())),
              "{msg_no_txt: solif_dns_server_updated_ind_t , msg_no: 27334194, count: 1, dnsServers: [" +
                  toStr(d) + "]}");

    const SolNetwork n = makeNetwork(1);
    std::vector<unsigned char> nb(168);
    const uint32_t no = SOLIF_NETWORK_UPDATED_IND;
    std::memcpy(&nb[0], &no, 4);
    std::memcpy(&nb[8], &n.m_config.data(), 36);
    std::memcpy(&nb[48], &n.m_status.data(), 120);
    EXPECT_EQ(toStr(*reinterpret_cast<const solif_network_updated_ind_t*>(nb.data())),
              "{msg_no_txt: solif_network_updated_ind_t , msg_no: 27334193, network: " + toStr(n) + "}");

    b = textCfm("abcdef", 4);
    EXPECT_EQ(toStr(*reinterpret_cast<const solif_show_rainfo_cfm_t*>(b.data())),
              "{msg_no_txt: solif_show_rainfo_cfm_t , msg_no: 27334198, size: 4, text: abcd}");
}

}  // namespace
