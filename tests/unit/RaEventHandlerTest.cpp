// handleRaSocketEvent: one RA from the socket through the parser into the cache, the entries'
// timers, the relations and the client.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "HandlerDoubles.h"
#include "LoopbackSocket.h"
#include "RaVectors.h"

using namespace solicd;
using namespace solicd::test;
using SolApp::Logic;
using solicd::test::loopbackSocket;
using solicd::test::sendDatagram;
using ::testing::_;
using ::testing::An;
using ::testing::DoDefault;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Return;

namespace {

constexpr const char* kRouter = "router/fe80::1";
constexpr const char* kNetwork = "network/2001:db8:1::/64";
constexpr const char* kDns53 = "dns/2001:db8::53";
constexpr const char* kDns54 = "dns/2001:db8::54";

std::string updatedNotSent(size_t count) {
    return tagged("handleRaSocketEvent", "Updated " + std::to_string(count) +
                                             " objects in RA cache. Solicd client is not connected, no "
                                             "notification will be sent");
}

using RaEventTest = HandlerTest;
using RaEventDeathTest = HandlerTest;

// ---- A first RA ----

TEST_F(RaEventTest, FirstRaForwardsRouterNetworkAndTheDnsListInThatOrder) {
    TraceCapture capture;
    receiveRa(golden::kTypicalRa);
    ASSERT_THAT(describe(m_data.notified),
                ElementsAre("router router/fe80::1", "network network/2001:db8:1::/64",
                            "dns dns/2001:db8::53 dns/2001:db8::54"));
    EXPECT_EQ(m_data.notified[0].size, sizeof(solif_router_updated_ind_t));
    EXPECT_TRUE(sameRecord<SolRouter>(m_data.notified[0].decoded.routers[0], *router(kRouter)));
    EXPECT_EQ(m_data.notified[1].size, sizeof(solif_network_updated_ind_t));
    EXPECT_TRUE(sameRecord<SolNetwork>(m_data.notified[1].decoded.networks[0], *network(kNetwork)));
    EXPECT_EQ(m_data.notified[2].size, solifDnsServerUpdatedIndSize(2));
    EXPECT_TRUE(sameRecord<SolDnsServer>(m_data.notified[2].decoded.dnsServers[0], *dnsServer(kDns53)));
    EXPECT_TRUE(sameRecord<SolDnsServer>(m_data.notified[2].decoded.dnsServers[1], *dnsServer(kDns54)));
    // Connected and something sent: the handler has nothing of its own to say.
    EXPECT_THAT(tracesOf(capture, {"handleRaSocketEvent"}), IsEmpty());
}

TEST_F(RaEventTest, FirstRaArmsOneTimerPerEntryForItsLifetime) {
    TraceCapture capture;
    receiveRa(golden::kTypicalRa);
    EXPECT_THAT(timerActions(capture),
                ElementsAre("Created ROUTER timeout  with with id:router/fe80::1",
                            "Timer router/fe80::1 is added, timeout 1800000 msec",
                            "Created NETWORK timeout  with with id:network/2001:db8:1::/64",
                            "Timer network/2001:db8:1::/64 is added, timeout 1800000 msec",
                            "Created DNS_SERVER timeout  with with id:dns/2001:db8::53",
                            "Timer dns/2001:db8::53 is added, timeout 600000 msec",
                            "Created DNS_SERVER timeout  with with id:dns/2001:db8::54",
                            "Timer dns/2001:db8::54 is added, timeout 600000 msec"));
    EXPECT_THAT(timerNames(), ElementsAre(kDns53, kDns54, kNetwork, kRouter));
    EXPECT_EQ(m_logic.getTimeouts().at(kNetwork).getType(), Logic::CacheTimeout::TYPE_NETWORK);
    EXPECT_EQ(m_logic.getTimeouts().at(kDns54).getType(), Logic::CacheTimeout::TYPE_DNS_SERVER);
}

TEST_F(RaEventTest, FirstRaRelatesTheRouterWithItsNetworkAndDnsServers) {
    EXPECT_CALL(m_data.cache, setRelation(_, An<const NetworkEntry&>())).Times(1);
    EXPECT_CALL(m_data.cache, setRelation(_, An<const DnsServerEntry&>())).Times(2);
    receiveRa(golden::kTypicalRa);
    const RouterEntry* r = router(kRouter);
    EXPECT_THAT(r->networkIds, ElementsAre(network(kNetwork)->m_status.id));
    EXPECT_THAT(r->dnsServerIds, ElementsAre(dnsServer(kDns53)->m_status.id, dnsServer(kDns54)->m_status.id));
    EXPECT_EQ(network(kNetwork)->primaryRouterId, r->m_status.id);
    EXPECT_EQ(dnsServer(kDns54)->primaryRouterId, r->m_status.id);
}

TEST_F(RaEventTest, ReadableSocketOnTheMainLoopRunsTheHandlerAndTheSourceStays) {
    ASSERT_EQ(m_logic.addFdEvent(SolApp::EVENT_SRC_TYPE_SOCKET, m_data.socketPipe.readEnd.get(),
                                 &SolApp::cbRaSocketEvent),
              0u);
    m_data.queueRa(std::vector<uint8_t>(std::begin(golden::kHeaderOnlyRa), std::end(golden::kHeaderOnlyRa)));
    m_data.socketPipe.makeReadable();
    ASSERT_TRUE(iterateUntil([&] { return m_data.notified.size() == 1; }));
    m_data.queueRa(RaBuilder(900).bytes());
    m_data.socketPipe.makeReadable();
    ASSERT_TRUE(iterateUntil([&] { return m_data.notified.size() == 2; }));
    EXPECT_THAT(describe(m_data.notified), ElementsAre("router router/fe80::1", "router router/fe80::1"));
    EXPECT_EQ(m_data.notified[1].decoded.routers[0].m_config.routerLifetime, 900);
}

// ---- Nothing changed ----

TEST_F(RaEventTest, UnchangedRaWithTheClientConnectedSendsNothingAndTracesNothing) {
    receiveRa(golden::kTypicalRa);
    receiveRa(golden::kTypicalRa);  // every entry moves from new to updated
    m_data.notified.clear();
    TraceCapture capture;
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    // Relations are made only for entries that changed.
    EXPECT_CALL(m_data.cache, setRelation(_, An<const NetworkEntry&>())).Times(0);
    EXPECT_CALL(m_data.cache, setRelation(_, An<const DnsServerEntry&>())).Times(0);
    receiveRa(golden::kTypicalRa);
    EXPECT_THAT(tracesOf(capture, {"handleRaSocketEvent"}), IsEmpty());
    // The lifetimes still restart every timer.
    EXPECT_THAT(
        timerActions(capture),
        ElementsAre(
            "Timer router/fe80::1 is removed", "Timer router/fe80::1 is added, timeout 1800000 msec",
            "Timer network/2001:db8:1::/64 is removed",
            "Timer network/2001:db8:1::/64 is added, timeout 1800000 msec",
            "Timer dns/2001:db8::53 is removed", "Timer dns/2001:db8::53 is added, timeout 600000 msec",
            "Timer dns/2001:db8::54 is removed", "Timer dns/2001:db8::54 is added, timeout 600000 msec"));
}

TEST_F(RaEventTest, UnchangedRaWithTheClientAwayTracesZeroObjects) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTING;
    receiveRa(golden::kTypicalRa);
    receiveRa(golden::kTypicalRa);
    TraceCapture capture;
    receiveRa(golden::kTypicalRa);
    EXPECT_THAT(tracesOf(capture, {"handleRaSocketEvent"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", updatedNotSent(0))));
}

// ---- Client not connected ----

TEST_F(RaEventTest, ClientNotConnectedGetsNothingAndTheCountIsTraced) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTING;
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    receiveRa(golden::kTypicalRa);
    EXPECT_THAT(tracesOf(capture, {"handleRaSocketEvent"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL", updatedNotSent(3))));
    // The cache and the timers move all the same.
    EXPECT_NE(router(kRouter), nullptr);
    EXPECT_THAT(timerNames(), ElementsAre(kDns53, kDns54, kNetwork, kRouter));
}

TEST_F(RaEventTest, ChangesMadeWhileTheClientWasAwayAreNotSentLater) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_NOT_SET;
    receiveRa(golden::kTypicalRa);
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED;
    receiveRa(golden::kTypicalRa);
    // Only what the second RA changed: every entry went from new to updated, the DNS set stayed.
    EXPECT_THAT(describe(m_data.notified),
                ElementsAre("router router/fe80::1", "network network/2001:db8:1::/64"));
}

// ---- Refused records ----

TEST_F(RaEventTest, RouterRefusedByAFullCacheLeavesNetworksAndDnsServersStoredButUnrelated) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_NOT_SET;
    for (int i = 0; i < 64; ++i) {
        receiveRa(golden::kHeaderOnlyRa, "fe80::1:" + std::to_string(i));
    }
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED;
    EXPECT_CALL(m_data.cache, setRelation(_, An<const NetworkEntry&>())).Times(0);
    EXPECT_CALL(m_data.cache, setRelation(_, An<const DnsServerEntry&>())).Times(0);
    TraceCapture capture;
    receiveRa(golden::kTypicalRa);
    EXPECT_THAT(
        tracesOf(capture, {"handleRaSocketEvent"}),
        ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          tagged("handleRaSocketEvent",
                                 "Failed to insert router into RA Cache, possible due to cache overflow, "
                                 "ignored data {address: fe80::1, reachableTime: 30000, retransTimer: "
                                 "1000, routerLifetime: 1800, flags: 0x6}"))));
    EXPECT_EQ(router(kRouter), nullptr);
    // No router message, so the network comes first.
    EXPECT_THAT(describe(m_data.notified),
                ElementsAre("network network/2001:db8:1::/64", "dns dns/2001:db8::53 dns/2001:db8::54"));
    EXPECT_EQ(network(kNetwork)->primaryRouterId, 0u);
    EXPECT_THAT(network(kNetwork)->routerIds, IsEmpty());
    EXPECT_EQ(dnsServer(kDns53)->primaryRouterId, 0u);
    EXPECT_THAT(dnsServer(kDns54)->routerIds, IsEmpty());
    EXPECT_EQ(m_logic.getTimeouts().count(kRouter), 0u);
    EXPECT_EQ(m_logic.getTimeouts().count(kNetwork), 1u);
}

TEST_F(RaEventTest, RefusedNetworkIsReportedAndTheRestOfThePacketGoesOn) {
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolNetwork::Config&>(), _, _))
        .WillOnce(Return(nullptr));
    EXPECT_CALL(m_data.cache, setRelation(_, An<const NetworkEntry&>())).Times(0);
    TraceCapture capture;
    receiveRa(golden::kTypicalRa);
    EXPECT_THAT(
        tracesOf(capture, {"handleRaSocketEvent"}),
        ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          tagged("handleRaSocketEvent",
                                 "Failed to insert network into RA Cache, possible due to cache overflow, "
                                 "ignored data {prefix: 2001:db8:1::, prefixLength: 64, validLifetime: "
                                 "3600, preferredLifetime: 1800, flags: 0x30}"))));
    EXPECT_THAT(describe(m_data.notified),
                ElementsAre("router router/fe80::1", "dns dns/2001:db8::53 dns/2001:db8::54"));
    EXPECT_THAT(timerNames(), ElementsAre(kDns53, kDns54, kRouter));
}

TEST_F(RaEventTest, RefusedDnsServerIsReportedAndTheOthersStillCount) {
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolDnsServer::Config&>(), _, _))
        .WillOnce(Return(nullptr))
        .WillRepeatedly(DoDefault());
    EXPECT_CALL(m_data.cache, setRelation(_, An<const DnsServerEntry&>())).Times(1);
    TraceCapture capture;
    receiveRa(golden::kTypicalRa);
    EXPECT_THAT(tracesOf(capture, {"handleRaSocketEvent"}),
                ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                                  tagged("handleRaSocketEvent",
                                         "Failed to insert DNS server into RA Cache, possible due to cache "
                                         "overflow, ignored data {index: 0, address: 2001:db8::53, lifetime: "
                                         "600}"))));
    EXPECT_THAT(
        describe(m_data.notified),
        ElementsAre("router router/fe80::1", "network network/2001:db8:1::/64", "dns dns/2001:db8::54"));
    EXPECT_THAT(router(kRouter)->dnsServerIds, ElementsAre(dnsServer(kDns54)->m_status.id));
}

// ---- Timeout actions ----

TEST_F(RaEventTest, LifetimeZeroFromTheCacheRemovesTheEntrysTimer) {
    receiveRa(golden::kHeaderOnlyRa);
    ASSERT_THAT(timerNames(), ElementsAre(kRouter));
    TraceCapture capture;
    receiveRa(golden::kManagedLifetimeZeroRa);  // the same router, now with lifetime 0
    EXPECT_THAT(timerActions(capture), ElementsAre("Removed ROUTER timeout with with id:router/fe80::1",
                                                   "Timer router/fe80::1 is removed"));
    EXPECT_THAT(timerNames(), IsEmpty());
    EXPECT_EQ(router(kRouter)->m_status.state, static_cast<uint32_t>(sol_router_state_t::STATE_INVALIDATED));
}

TEST_F(RaEventTest, KeepFromTheCacheLeavesTheRunningTimerUntouched) {
    receiveRa(golden::kHeaderOnlyRa);
    const uint32_t handler = m_logic.getTimeouts().at(kRouter).getHandlerId();
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolRouter::Config&>(), _, _))
        .WillOnce([this](const SolRouter::Config& config, bool* changed, uint32_t* timeout) {
            RouterEntry* entry = m_data.cache.CacheMgr::pushConfigAndGetEntry(config, changed, timeout);
            *timeout = TIMEOUT_KEEP;
            return entry;
        });
    TraceCapture capture;
    receiveRa(RaBuilder(900).bytes());
    EXPECT_THAT(timerActions(capture), IsEmpty());
    EXPECT_EQ(m_logic.getTimeouts().at(kRouter).getHandlerId(), handler);
    EXPECT_NE(g_main_context_find_source_by_id(nullptr, handler), nullptr);
}

TEST_F(RaEventTest, AnyOtherLifetimeRestartsTheSameTimerFromNow) {
    receiveRa(golden::kHeaderOnlyRa);
    TraceCapture capture;
    receiveRa(RaBuilder(900).bytes());
    EXPECT_THAT(timerActions(capture), ElementsAre("Timer router/fe80::1 is removed",
                                                   "Timer router/fe80::1 is added, timeout 900000 msec"));
}

// ---- DNS servers: the active set ----

TEST_F(RaEventTest, DnsServerBecomingActiveIsForwardedWithTheWholeSet) {
    receiveRa(RaBuilder(1800).rdnss(600, {"2001:db8::53"}).bytes());
    EXPECT_THAT(describe(m_data.notified), ElementsAre("router router/fe80::1", "dns dns/2001:db8::53"));
    m_data.notified.clear();
    receiveRa(RaBuilder(1800).rdnss(600, {"2001:db8::53", "2001:db8::54"}).bytes());
    ASSERT_THAT(describe(m_data.notified),
                ElementsAre("router router/fe80::1", "dns dns/2001:db8::53 dns/2001:db8::54"));
    EXPECT_EQ(m_data.notified[1].size, solifDnsServerUpdatedIndSize(2));
    EXPECT_TRUE(sameRecord<SolDnsServer>(m_data.notified[1].decoded.dnsServers[0], *dnsServer(kDns53)));
}

TEST_F(RaEventTest, DnsServerBecomingInactiveIsForwardedWithTheRemainingSet) {
    receiveRa(RaBuilder(1800).rdnss(600, {"2001:db8::53", "2001:db8::54"}).bytes());
    receiveRa(RaBuilder(1800).rdnss(600, {"2001:db8::53", "2001:db8::54"}).bytes());
    m_data.notified.clear();
    receiveRa(RaBuilder(1800).rdnss(0, {"2001:db8::53"}).rdnss(600, {"2001:db8::54"}).bytes());
    EXPECT_THAT(describe(m_data.notified), ElementsAre("dns dns/2001:db8::54"));
    EXPECT_THAT(timerNames(), ElementsAre(kDns54, kRouter));
}

TEST_F(RaEventTest, DnsSetIsListedByIdNotByName) {
    receiveRa(RaBuilder(1800).rdnss(600, {"2001:db8::54"}).bytes());
    receiveRa(RaBuilder(1800).rdnss(600, {"2001:db8::53"}).bytes());
    EXPECT_EQ(describe(m_data.notified.back()), "dns dns/2001:db8::54 dns/2001:db8::53");
}

TEST_F(RaEventTest, ServerWithdrawnAndEvictedForANewOneInTheSameRaChangesTheSet) {
    // The store full of active servers, 2001:db8::1:0 to 2001:db8::1:7f, in RAs that fit the
    // receive buffer; each RA's servers are active once a second RA confirms them.
    std::vector<std::string> all;
    for (unsigned i = 0; i < SolApp::Logic::kMaxDnsServers; ++i) {
        char text[32];
        std::snprintf(text, sizeof text, "2001:db8::1:%x", i);
        all.emplace_back(text);
    }
    constexpr size_t kPerRa = 32;
    for (size_t first = 0; first < all.size(); first += kPerRa) {
        const std::vector<std::string> some(all.begin() + first, all.begin() + first + kPerRa);
        receiveRa(RaBuilder(1800).rdnss(600, some).bytes());
        receiveRa(RaBuilder(1800).rdnss(600, some).bytes());
    }
    std::list<DnsServerEntry*> active;
    m_data.cache.CacheMgr::getActiveDnsServers(active);
    ASSERT_EQ(active.size(), SolApp::Logic::kMaxDnsServers);
    m_data.notified.clear();

    // The newest server (highest id) is withdrawn, so it is the one evicted for the new server,
    // whose entry may then live where the withdrawn one did.
    receiveRa(RaBuilder(1800).rdnss(0, {all.back().c_str()}).rdnss(600, {"2001:db8::53"}).bytes());
    ASSERT_EQ(m_data.notified.size(), 1u) << ::testing::PrintToString(describe(m_data.notified));
    std::string expected = "dns";
    for (auto it = all.begin(); it != all.end() - 1; ++it) {
        expected += " dns/" + *it;
    }
    EXPECT_EQ(describe(m_data.notified[0]), expected + " " + kDns53);
}

TEST_F(RaEventTest, DnsServerWhoseDataChangesWithoutLeavingTheSetIsNotForwarded) {
    receiveRa(RaBuilder(1800).rdnss(600, {"2001:db8::53"}).bytes());
    receiveRa(RaBuilder(1800).rdnss(600, {"2001:db8::53"}).bytes());
    m_data.notified.clear();
    const uint64_t changesBefore = dnsServer(kDns53)->m_status.configChangeCount;
    // The server changed (it is related again), but the set did not: nothing is sent.
    EXPECT_CALL(m_data.cache, setRelation(_, An<const DnsServerEntry&>())).Times(1);
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    receiveRa(RaBuilder(1800).rdnss(1200, {"2001:db8::53"}).bytes());
    EXPECT_EQ(dnsServer(kDns53)->m_status.configChangeCount, changesBefore + 1);
    EXPECT_EQ(dnsServer(kDns53)->m_config.lifetime, 1200u);
}

TEST_F(RaEventTest, NetworksWithoutDnsServersTraceTheMissingListAndForwardRouterAndNetworks) {
    EXPECT_CALL(m_data.cache, getActiveDnsServers(_)).Times(0);
    TraceCapture capture;
    receiveRa(golden::kPrefixFlagsRa);
    EXPECT_THAT(tracesOf(capture, {"handleRaSocketEvent"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  tagged("handleRaSocketEvent", "No DNS server addresses are parsed."))));
    EXPECT_THAT(describe(m_data.notified),
                ElementsAre("router router/fe80::1", "network network/2001:db8:11::/64",
                            "network network/2001:db8:10::/64", "network network/2001:db8:1::/64"));
}

// ---- One RA after another ----

TEST_F(RaEventTest, EachRaIsTakenOnItsOwnNothingOfThePreviousOneIsPushedAgain) {
    receiveRa(golden::kTypicalRa);
    m_data.notified.clear();
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolRouter::Config&>(), _, _)).Times(1);
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolNetwork::Config&>(), _, _)).Times(0);
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolDnsServer::Config&>(), _, _)).Times(0);
    TraceCapture capture;
    receiveRa(golden::kHeaderOnlyRa);  // the same router (its flags now clear), nothing else
    EXPECT_THAT(tracesOf(capture, {"handleRaSocketEvent"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  tagged("handleRaSocketEvent", "No DNS server addresses are parsed."))));
    EXPECT_THAT(describe(m_data.notified), ElementsAre("router router/fe80::1"));
}

TEST_F(RaEventTest, MessagesNotSentAreReleasedWhenTheRaIsDone) {
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_NOT_SET;
    receiveRa(golden::kTypicalRa);
    EXPECT_EQ(FakeLmx::instance().liveBuffers(), 0u);
    m_data.lmxState = LmxMgr::DST_MBOX_STATE_CONNECTED;
    // A later RA with more to tell than the first (five messages, not three): each message is
    // there, in its default state.
    receiveRa(RaBuilder(1801)
                  .prefix("2001:db8:1::", 3600, 1800)
                  .prefix("2001:db8:2::", 3600, 1800)
                  .prefix("2001:db8:3::", 3600, 1800)
                  .rdnss(600, {"2001:db8::53", "2001:db8::55"})
                  .bytes());
    EXPECT_THAT(describe(m_data.notified),
                ElementsAre("router router/fe80::1", "network network/2001:db8:1::/64",
                            "network network/2001:db8:2::/64", "network network/2001:db8:3::/64",
                            "dns dns/2001:db8::53 dns/2001:db8::54 dns/2001:db8::55"));
    EXPECT_EQ(FakeLmx::instance().liveBuffers(), 0u);
}

// ---- Datagrams queued behind each other ----

constexpr unsigned kAllButLab = trace::kAllEvents & ~trace::bit(TraceEvent::LAB);

// The socket manager's own reception on a UDP socket on ::1 in place of the raw socket: what a
// wakeup takes is what the kernel queued. The datagrams come from ::1, not from a link-local
// address, so none of them announces a router: what is compared is what the socket and the
// handler do with each.
class QueuedDatagramTest : public HandlerTest {
public:
    void SetUp() override {
        HandlerTest::SetUp();
        UniqueFd socket = loopbackSocket(true, &m_address);
        if (socket.get() <= 0) {
            GTEST_SKIP() << "no IPv6 loopback here: " << strerror(errno);
        }
        m_fd = socket.get();
        m_data.socket.adoptSocket(std::move(socket), "testns", "lo");
        ON_CALL(m_data.socket, getFd()).WillByDefault(Return(m_fd));
        ON_CALL(m_data.socket, receive(_)).WillByDefault([this](SocketMgr::Message& message) {
            return m_data.socket.SocketMgr::receive(message);
        });
    }
    void TearDown() override { HandlerTest::TearDown(); }

    // Datagrams the socket has taken so far, accepted or rejected.
    uint64_t taken() const {
        const auto& counters = m_data.socket.getCounters().m_counters;
        return counters.rxRa + counters.rxRejected;
    }
    // One wakeup of the RA socket on the main loop; how many datagrams it took.
    uint64_t wakeUp() {
        const uint64_t before = taken();
        EXPECT_EQ(SolApp::cbRaSocketEvent(m_fd, G_IO_IN, &m_logic), TRUE);
        return taken() - before;
    }
    void send(size_t size, int hopLimit = kNdHopLimit) { sendDatagram(m_address, size, hopLimit); }

    // The socket event and the reception traces of the wakeups so far, in order: "E" and "R".
    std::string eventsAndReceptions(const std::vector<TraceRecord>& records) const {
        const TraceRecord event =
            Trace(TraceEvent::LAB, "GENERAL",
                  tagged("cbRaSocketEvent", "Socket event 1, is received on socket " + std::to_string(m_fd)));
        const TraceRecord reception =
            Trace(TraceEvent::LAB, "ADDR_IPV6",
                  tagged("receive", "Received message on interface [lo], RA: ::1->::1"));
        std::string out;
        for (const TraceRecord& r : records) {
            out += r == event ? "E" : r == reception ? "R" : "";
        }
        return out;
    }

    struct sockaddr_in6 m_address {};
    int m_fd = -1;
};

TEST_F(QueuedDatagramTest, WhileLabIsOffTheDatagramsWaitingAreTakenInOneWakeup) {
    TraceCapture capture(kAllButLab);
    send(64);
    send(64);
    send(64);
    EXPECT_EQ(wakeUp(), 3u);
    EXPECT_EQ(m_data.socket.getCounters().m_counters.rxRa, 3u);
    EXPECT_FALSE(m_data.socket.hasReadAhead());
}

TEST_F(QueuedDatagramTest, WhileLabIsOnEachDatagramHasAWakeupAndASocketEventTraceOfItsOwn) {
    TraceCapture capture;
    send(64);
    send(64);
    const std::string event =
        tagged("cbRaSocketEvent", "Socket event 1, is received on socket " + std::to_string(m_fd));
    const auto events = [&] {
        std::vector<size_t> at;
        for (size_t i = 0; i < capture.records().size(); ++i) {
            if (capture.records()[i] == Trace(TraceEvent::LAB, "GENERAL", event)) {
                at.push_back(i);
            }
        }
        return at;
    };
    // A wakeup with nothing waiting would block: stop at the first that takes more than one.
    ASSERT_EQ(wakeUp(), 1u);
    EXPECT_THAT(events(), ElementsAre(0));
    const size_t firstWakeup = capture.records().size();
    EXPECT_EQ(wakeUp(), 1u);
    EXPECT_THAT(events(), ElementsAre(0, firstWakeup));
    EXPECT_EQ(capture.records().size(), 2 * firstWakeup);
}

// A session that starts in the middle of a batch read ahead: every datagram handled from then on
// comes with its socket event, exactly as if each had had a wakeup of its own.
TEST_F(QueuedDatagramTest, LabTurnedOnAfterTheFirstDatagramOfABatchGivesEveryOtherItsSocketEvent) {
    constexpr size_t kBatch = 6;
    TraceCapture capture(kAllButLab);
    for (size_t i = 0; i < kBatch; ++i) {
        send(64);
    }
    // The seam: LAB comes on as soon as the socket has given the first datagram of the batch.
    size_t given = 0;
    ON_CALL(m_data.socket, receive(_)).WillByDefault([&](SocketMgr::Message& message) {
        const uint32_t result = m_data.socket.SocketMgr::receive(message);
        if (++given == 1) {
            const trace::Capture current = trace::getCapture();
            trace::setCapture(current.fn, current.context, trace::kAllEvents);
        }
        return result;
    });
    EXPECT_EQ(wakeUp(), kBatch) << "read ahead with LAB off, so taken in one wakeup";
    EXPECT_EQ(eventsAndReceptions(capture.records()), "ERERERERER");
    // From the second datagram's socket event on (the first one's handling ends with LAB on).
    const auto secondEvent =
        std::find_if(capture.records().begin(), capture.records().end(),
                     [&](const TraceRecord& r) { return eventsAndReceptions({r}) == "E"; });
    const std::vector<TraceRecord> midBatch(secondEvent, capture.records().end());

    // The same datagrams one per wakeup, LAB on from the start.
    capture.clear();
    for (size_t i = 1; i < kBatch; ++i) {
        send(64);
    }
    for (size_t i = 1; i < kBatch; ++i) {
        ASSERT_EQ(wakeUp(), 1u);
    }
    EXPECT_EQ(midBatch, capture.records());
}

// An RA from beyond the link (hop limit not 255) is counted as rejected and leaves the one trace
// the socket gives it: the handler adds none, read ahead or not.
TEST_F(QueuedDatagramTest, ADatagramFromBeyondTheLinkLeavesOnlyTheSocketsTrace) {
    TraceCapture capture(kAllButLab);
    send(64, 64);
    send(64, 64);
    EXPECT_EQ(wakeUp(), 2u);
    const TraceRecord offLink =
        Trace(TraceEvent::INFO, "ADDR_IPV6",
              tagged("receive", "Message was received with hop limit 64, expected 255"));
    EXPECT_THAT(capture.records(), ElementsAre(offLink, offLink));
    EXPECT_EQ(m_data.socket.getCounters().m_counters.rxRejected, 2u);
    EXPECT_EQ(
        m_data.parser.getCounters().m_counters.raParsed + m_data.parser.getCounters().m_counters.raDropped,
        0u)
        << "never parsed";
}

TEST_F(QueuedDatagramTest, AWakeupTakesAtMostItsShareAndLeavesTheRestToTheNext) {
    TraceCapture capture(kAllButLab);
    for (size_t i = 0; i < 1 + kReadAheadCapacity + 3; ++i) {
        send(64);
    }
    EXPECT_EQ(wakeUp(), 1 + kReadAheadCapacity);
    EXPECT_EQ(wakeUp(), 3u);
}

// Each datagram leaves the traces it leaves in a wakeup of its own, in the same order: accepted,
// too long (the socket rejects it, the handler reports it), accepted, from beyond the link (the
// socket rejects it), exactly the buffer.
TEST_F(QueuedDatagramTest, TakenTogetherTheyLeaveTheTracesTheyLeaveOneByOne) {
    const std::vector<std::pair<size_t, int>> datagrams = {{100, kNdHopLimit},
                                                           {kMessageBufferSize + 1, kNdHopLimit},
                                                           {64, kNdHopLimit},
                                                           {64, 64},
                                                           {kMessageBufferSize, kNdHopLimit}};
    TraceCapture capture(kAllButLab);
    for (const auto& [size, hopLimit] : datagrams) {
        send(size, hopLimit);
    }
    EXPECT_EQ(wakeUp(), datagrams.size());
    const std::vector<TraceRecord> together = capture.records();
    capture.clear();
    for (const auto& [size, hopLimit] : datagrams) {
        send(size, hopLimit);
    }
    m_data.socket.setReadAhead(0);
    for (size_t i = 0; i < datagrams.size(); ++i) {
        m_logic.handleRaSocketEvent();
    }
    EXPECT_EQ(together, capture.records());
    EXPECT_THAT(together,
                ::testing::Contains(Trace(TraceEvent::ERROR, "GENERAL",
                                          tagged("handleRaSocketEvent",
                                                 "Something went wrong on RA receiving, RX socket "
                                                 "state is { no: 4, txt: MSG_STATE_RX_TRUNCATED}"))));
    EXPECT_THAT(together, ::testing::Contains(Trace(TraceEvent::INFO, "ADDR_IPV6",
                                                    tagged("receive",
                                                           "Message was received with hop limit 64, "
                                                           "expected 255"))));
    EXPECT_EQ(m_data.socket.getCounters().m_counters.rxRejected, 4u);
}

// ---- Packets that go no further ----

TEST_F(RaEventTest, PacketNotReceivedIntactIsTracedAndDropped) {
    EXPECT_CALL(m_data.socket, receive(_)).WillOnce([](SocketMgr::Message& message) {
        message.m_state = SocketMgr::Message::MSG_STATE_RX_TRUNCATED;
        return 0u;
    });
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolRouter::Config&>(), _, _)).Times(0);
    TraceCapture capture;
    m_logic.handleRaSocketEvent();
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                          tagged("handleRaSocketEvent",
                                 "Something went wrong on RA receiving, RX socket state is { no: 4, txt: "
                                 "MSG_STATE_RX_TRUNCATED}"))));
    EXPECT_EQ(m_data.parser.getCounters().m_counters.raDropped, 0u) << "the packet is not parsed";
}

TEST_F(RaEventTest, RaWithoutRouterChangesNothing) {
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolRouter::Config&>(), _, _)).Times(0);
    EXPECT_CALL(m_data.cache, pushConfigAndGetEntry(An<const SolNetwork::Config&>(), _, _)).Times(0);
    EXPECT_CALL(m_data.lmx, notify(_)).Times(0);
    TraceCapture capture;
    receiveRa(golden::kTypicalRa, "2001:db8::1");  // not link-local: the parser yields no router
    EXPECT_THAT(tracesOf(capture, {"handleRaSocketEvent"}),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  tagged("handleRaSocketEvent", "No RA message was parsed"))));
    EXPECT_THAT(timerNames(), IsEmpty());
}

// ---- Fatal paths ----

TEST_F(RaEventDeathTest, FailedReceiveRequestsRestart) {
    ON_CALL(m_data.socket, receive(_)).WillByDefault(Return(1u));
    EXPECT_EXIT(
        {
            StderrTraces traces({"handleRaSocketEvent"});
            m_logic.handleRaSocketEvent();
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(
            restartAfter(traceLine(TraceEvent::ERROR, "GENERAL", "handleRaSocketEvent(): GenIf::receive()"),
                         "GenIf::receive()")));
}

TEST_F(RaEventDeathTest, ParserFailureRequestsRestart) {
    // A Neighbor Solicitation with code 1: neither type 134 nor code 0.
    m_data.queueRa({0x87, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EXIT(
        {
            StderrTraces traces({"raParser", "handleRaSocketEvent"});
            m_logic.handleRaSocketEvent();
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(restartAfter(
            traceLine(
                TraceEvent::ERROR, "ADDR_IPV6",
                tagged("raParser", "Not a Router Advertisement. Type: 135, code: 1. Why did we get it?")) +
                traceLine(TraceEvent::ERROR, "GENERAL", "handleRaSocketEvent(): solicd::raParser"),
            "solicd::raParser")));
}

TEST_F(RaEventDeathTest, FailedNotifyRequestsRestartAndSendsNothingFurther) {
    ON_CALL(m_data.lmx, notify(_)).WillByDefault([](LmxMgr::Message&) {
        (void)!write(STDERR_FILENO, "notify\n", 7);
        return 1u;
    });
    m_data.queueRa(std::vector<uint8_t>(std::begin(golden::kTypicalRa), std::end(golden::kTypicalRa)));
    EXPECT_EXIT(
        {
            StderrTraces traces({"handleRaSocketEvent"});
            m_logic.handleRaSocketEvent();
        },
        ::testing::ExitedWithCode(70),
        ::testing::MatchesRegex(restartAfter(
            "notify\n" + traceLine(TraceEvent::ERROR, "GENERAL", "handleRaSocketEvent(): LmxMgr::notify"),
            "LmxMgr::notify")));
}

}  // namespace
