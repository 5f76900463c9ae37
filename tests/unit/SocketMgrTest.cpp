// Reception, transmission and the solicitation cycle of SocketMgr, without privileges: a UDP
// socket on ::1 stands in for the raw ICMPv6 socket (recvmsg reports the same packet information,
// arrival interface "lo"), and the solicitation timer runs on a real GLib loop.
#include <arpa/inet.h>
#include <fcntl.h>
#include <glib-unix.h>
#include <glib.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "LoopbackSocket.h"
#include "SocketMgr.h"
#include "TraceCapture.h"

using namespace solicd;
using solicd::test::loopbackSocket;
using solicd::test::sendDatagram;
using solicd::test::Trace;
using solicd::test::TraceCapture;
using solicd::test::TraceRecord;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Not;

namespace {

using Message = SocketMgr::Message;

// Short enough to keep the cycle tests quick, long enough that a datagram sent by the transmit
// double is always read before the next expiry.
constexpr uint32_t kTestRetryInterval = 200;
constexpr guint kGuardMs = 30000;
constexpr const char* kNs = "testns";

// SocketMgr with an adopted socket in place of init.
class SocketDouble : public SocketMgr {
public:
    SocketDouble(UniqueFd socket, const std::string& ifName, uint32_t retryInterval = kSolifRsIntervalMs)
        : SocketMgr(retryInterval) {
        adoptSocket(std::move(socket), kNs, ifName);
    }
};

// Records every message handed to transmit; may answer with a datagram standing in for an RA.
class TransmitDouble : public SocketDouble {
public:
    using SocketDouble::SocketDouble;

    const IfConfig& getIfConfig() const override { return config; }

    uint32_t transmit(Message& message) override {
        sent.push_back(message.m_data);
        sentLengths.push_back(message.m_length);
        sentStates.push_back(message.m_state);
        if (answerAt == sent.size()) {
            sendDatagram(answerTo, 64);
        }
        return result;
    }

    IfConfig config{};
    std::vector<std::vector<uint8_t>> sent;
    std::vector<size_t> sentLengths;
    std::vector<uint32_t> sentStates;
    size_t answerAt = 0;  // 1-based transmit call after which an "RA" is sent; 0: never
    struct sockaddr_in6 answerTo {};
    uint32_t result = 0;
};

// Runs the default GLib context until `done` or the guard expires.
bool runLoopUntil(const std::function<bool()>& done) {
    bool expired = false;
    const guint guard = g_timeout_add(
        kGuardMs,
        [](gpointer flag) -> gboolean {
            *static_cast<bool*>(flag) = true;
            return G_SOURCE_REMOVE;
        },
        &expired);
    while (!done() && !expired) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (!expired) {
        g_source_remove(guard);
    }
    return done();
}

// Receives on the socket whenever GLib reports it readable, as the application core does.
class ReceiveWatch {
public:
    explicit ReceiveWatch(SocketMgr& mgr) : m_mgr(mgr) {
        m_source = g_unix_fd_add(mgr.getFd(), G_IO_IN, &ReceiveWatch::cbReadable, this);
    }
    ~ReceiveWatch() { g_source_remove(m_source); }
    ReceiveWatch(const ReceiveWatch&) = delete;
    ReceiveWatch& operator=(const ReceiveWatch&) = delete;

    std::vector<uint32_t> states;
    std::vector<bool> raReceivedAfter;

private:
    static gboolean cbReadable(gint, GIOCondition, gpointer self) {
        auto* watch = static_cast<ReceiveWatch*>(self);
        Message message;
        watch->m_mgr.receive(message);
        watch->states.push_back(message.m_state);
        watch->raReceivedAfter.push_back(watch->m_mgr.getRsTimeout().m_raReceived);
        return G_SOURCE_CONTINUE;
    }

    SocketMgr& m_mgr;
    guint m_source = 0;
};

std::vector<TraceRecord> withoutLab(const std::vector<TraceRecord>& records) {
    std::vector<TraceRecord> out;
    for (const auto& r : records) {
        if (r.event != TraceEvent::LAB) {
            out.push_back(r);
        }
    }
    return out;
}

bool finished(const TraceCapture& capture) {
    for (const auto& r : capture.records()) {
        if (r.message.starts_with("cbExpired(): [] Finished router solicitation.")) {
            return true;
        }
    }
    return false;
}

TraceRecord info(const char* category, const std::string& text) {
    return Trace(TraceEvent::INFO, category, text);
}
TraceRecord error(const char* category, const std::string& text) {
    return Trace(TraceEvent::ERROR, category, text);
}
TraceRecord lab(const char* category, const std::string& text) {
    return Trace(TraceEvent::LAB, category, text);
}

TraceRecord rsSent() {
    return info("GENERAL", "dispatchRs(): [] RS Sent , m_ifName= lo, m_ns= testns");
}
TraceRecord resending(int counter) {
    return info("GENERAL", "cbExpired(): [] Re-sending RS message, counter=" + std::to_string(counter) +
                               ", m_ifName=lo");
}

class SocketMgrTest : public ::testing::Test {
protected:
    void SetUp() override {
        setTraceTag("");
        m_receiver = loopbackSocket(true, &m_address);
        if (m_receiver.get() <= 0) {
            GTEST_SKIP() << "no IPv6 loopback here: " << strerror(errno);
        }
    }

    UniqueFd m_receiver;
    struct sockaddr_in6 m_address {};
    TraceCapture m_capture;
};

// ---- Construction ----

TEST(SocketMgrConstruction, StartsEmptyWithAnIdleRsTimeout) {
    SocketMgr mgr;
    EXPECT_EQ(mgr.getFd(), 0);
    const SocketMgr::IfConfig& config = mgr.getIfConfig();
    const SocketMgr::IfConfig zero{};
    EXPECT_EQ(std::memcmp(&config, &zero, sizeof zero), 0);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 0u);
    EXPECT_EQ(mgr.getCounters().m_counters.txRs, 0u);
    EXPECT_EQ(mgr.getCounters().m_counters.txRsFailed, 0u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 0u);
    EXPECT_EQ(mgr.getRsTimeout().getName(), "RS timeout");
    EXPECT_EQ(mgr.getRsTimeout().getHandlerId(), 0u);
    EXPECT_EQ(mgr.getRsTimeout().m_owner, nullptr);
    EXPECT_EQ(mgr.getRsTimeout().m_counter, 0u);
    EXPECT_FALSE(mgr.getRsTimeout().m_soliciting);
    EXPECT_FALSE(mgr.getRsTimeout().m_raReceived);
}

// ---- Reception ----

TEST_F(SocketMgrTest, DatagramOnTheMonitoredInterfaceIsAcceptedWithItsSource) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    sendDatagram(m_address, 100);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(message.m_length, 100u);
    EXPECT_EQ(message.m_data.size(), kMessageBufferSize);
    EXPECT_EQ(message.m_data[0], 0x86);
    EXPECT_EQ(message.m_data[100], 0);
    EXPECT_EQ(message.m_peer.family, AF_INET6);
    EXPECT_EQ(std::memcmp(message.m_peer.bytes, &in6addr_loopback, 16), 0);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 1u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 0u);
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(lab("ADDR_IPV6", "receive(): [] Received message on interface [lo], RA: ::1->::1")));
}

TEST_F(SocketMgrTest, VerboseAcceptedDatagramPrintsOneLine) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    mgr.setVerbose(true);
    sendDatagram(m_address, 20);
    Message message;
    testing::internal::CaptureStdout();
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Received an IPv6 Router Advertisement from ::1 on interface lo sent to ::1\n");
}

TEST_F(SocketMgrTest, QuietAcceptedDatagramPrintsNothing) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    sendDatagram(m_address, 20);
    Message message;
    testing::internal::CaptureStdout();
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(SocketMgrTest, DatagramIsAcceptedWithItsSourceAndArrivalCheckedWhileLabIsOff) {
    TraceCapture quiet(trace::bit(TraceEvent::ERROR));
    SocketDouble mgr(std::move(m_receiver), "lo");
    sendDatagram(m_address, 40);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(message.m_length, 40u);
    EXPECT_EQ(message.m_peer.family, AF_INET6);
    EXPECT_EQ(std::memcmp(message.m_peer.bytes, &in6addr_loopback, 16), 0);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 1u);
    EXPECT_TRUE(quiet.records().empty());
}

TEST_F(SocketMgrTest, VerboseLineIsPrintedWhileLabIsOff) {
    TraceCapture quiet(trace::bit(TraceEvent::ERROR));
    SocketDouble mgr(std::move(m_receiver), "lo");
    mgr.setVerbose(true);
    sendDatagram(m_address, 20);
    Message message;
    testing::internal::CaptureStdout();
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Received an IPv6 Router Advertisement from ::1 on interface lo sent to ::1\n");
    EXPECT_TRUE(quiet.records().empty());
}

TEST_F(SocketMgrTest, WrongInterfaceIsNamedWhileLabIsOff) {
    TraceCapture errors(trace::bit(TraceEvent::ERROR));
    SocketDouble mgr(std::move(m_receiver), "eth0");
    sendDatagram(m_address, 20);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_WRONG_INTERFACE);
    EXPECT_THAT(errors.records(),
                ElementsAre(error("ADDR_IPV6",
                                  "receive(): [] Message was received on wrong interface expected:eth0, "
                                  "actual: lo")));
}

TEST_F(SocketMgrTest, DatagramLongerThanTheBufferIsTruncatedCountedAndNotAccepted) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    sendDatagram(m_address, 1500);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_TRUNCATED);
    EXPECT_EQ(message.m_length, 1024u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 1u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 0u);
    EXPECT_THAT(m_capture.records(),
                ElementsAre(error("ADDR_IPV6", "receive(): [] truncated message, received 1024")));
}

TEST_F(SocketMgrTest, DatagramOfExactlyTheBufferSizeIsAccepted) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    sendDatagram(m_address, 1024);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(message.m_length, 1024u);
}

TEST_F(SocketMgrTest, ControlDataThatDoesNotFitIsTruncation) {
    // A third item beside packet information and hop limit: more than the room for the two.
    const int on = 1;
    ASSERT_EQ(setsockopt(m_receiver.get(), IPPROTO_IPV6, IPV6_RECVTCLASS, &on, sizeof on), 0);
    SocketDouble mgr(std::move(m_receiver), "lo");
    sendDatagram(m_address, 30);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_TRUNCATED);
    EXPECT_EQ(message.m_length, 30u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 1u);
    EXPECT_THAT(m_capture.records(),
                ElementsAre(error("ADDR_IPV6", "receive(): [] truncated message, received 30")));
}

TEST_F(SocketMgrTest, DatagramWithoutPacketInformationIsAnErrorNotAWrongInterface) {
    struct sockaddr_in6 address {};
    UniqueFd plain = loopbackSocket(false, &address);
    ASSERT_GT(plain.get(), 0);
    SocketDouble mgr(std::move(plain), "lo");
    sendDatagram(address, 30);
    Message message;
    errno = 0;
    EXPECT_EQ(mgr.receive(message), 1u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_ERROR);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 0u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 0u);
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(error("ADDR_IPV6",
                          "receive(): [] couldn't find interface name for RX message, error: Success (0)")));
}

TEST_F(SocketMgrTest, DatagramFromAnotherInterfaceIsRejectedAndCounted) {
    SocketDouble mgr(std::move(m_receiver), "veth-none");
    sendDatagram(m_address, 30);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_WRONG_INTERFACE);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 1u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 0u);
    EXPECT_THAT(m_capture.records(),
                ElementsAre(error(
                    "ADDR_IPV6",
                    "receive(): [] Message was received on wrong interface expected:veth-none, actual: lo")));
}

TEST_F(SocketMgrTest, InterfaceNameIsComparedExactly) {
    SocketDouble mgr(std::move(m_receiver), "lo0");
    sendDatagram(m_address, 30);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_WRONG_INTERFACE);
}

TEST_F(SocketMgrTest, EmptyInterfaceNameAcceptsEveryInterface) {
    SocketDouble mgr(std::move(m_receiver), "");
    sendDatagram(m_address, 30);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 1u);
}

TEST_F(SocketMgrTest, ReadErrorDiscardsThePreviousContent) {
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    UniqueFd writeEnd(pipeFds[1]);
    SocketDouble mgr(UniqueFd(pipeFds[0]), "lo");
    Message message;
    message.m_data.assign(10, 0xee);
    message.m_length = 10;
    message.m_state = Message::MSG_STATE_RX_OK;
    message.m_peer.family = AF_INET6;
    message.m_peer.bytes[15] = 1;
    EXPECT_EQ(mgr.receive(message), 1u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_ERROR);
    EXPECT_EQ(message.m_length, 0u);
    EXPECT_EQ(message.m_data, std::vector<uint8_t>(kMessageBufferSize, 0));
    EXPECT_EQ(message.m_peer.family, 0);
    EXPECT_EQ(message.m_peer.bytes[15], 0);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 0u);
    EXPECT_THAT(m_capture.records(),
                ElementsAre(error(
                    "ADDR_IPV6",
                    "receive(): [] read error on raw socket, errno=Socket operation on non-socket (88)")));
}

// ---- Hop limit: Neighbour Discovery from this link comes with 255 ----

TEST_F(SocketMgrTest, DatagramWithHopLimit255IsAcceptedWithoutAWord) {
    TraceCapture quiet(trace::kAllEvents & ~trace::bit(TraceEvent::LAB));
    SocketDouble mgr(std::move(m_receiver), "lo");
    sendDatagram(m_address, 30, 255);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_OK);
    EXPECT_FALSE(message.m_offLink);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 1u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 0u);
    EXPECT_TRUE(quiet.records().empty());
}

// Rejected as a datagram from another interface is (counted, consumed, not to be parsed), with
// its one INFO trace and nothing else.
TEST_F(SocketMgrTest, DatagramWithAnotherHopLimitIsRejectedWithItsOneTrace) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    for (const int hopLimit : {64, 254, 1, 0}) {
        m_capture.clear();
        sendDatagram(m_address, 30, hopLimit);
        Message message;
        EXPECT_EQ(mgr.receive(message), 0u) << hopLimit;
        EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_WRONG_INTERFACE) << hopLimit;
        EXPECT_TRUE(message.m_offLink) << hopLimit;
        EXPECT_EQ(message.m_peer.family, 0) << "no source for what is not taken";
        EXPECT_THAT(m_capture.records(),
                    ElementsAre(info("ADDR_IPV6", "receive(): [] Message was received with hop limit " +
                                                      std::to_string(hopLimit) + ", expected 255")));
    }
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 4u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 0u);
}

TEST_F(SocketMgrTest, DatagramWithoutItsHopLimitIsRejectedAsHopLimitMinusOne) {
    struct sockaddr_in6 address {};
    UniqueFd infoOnly = loopbackSocket(false, &address);
    ASSERT_GT(infoOnly.get(), 0);
    const int on = 1;
    ASSERT_EQ(setsockopt(infoOnly.get(), IPPROTO_IPV6, IPV6_RECVPKTINFO, &on, sizeof on), 0);
    SocketDouble mgr(std::move(infoOnly), "lo");
    sendDatagram(address, 30);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_WRONG_INTERFACE);
    EXPECT_TRUE(message.m_offLink);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 1u);
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(info("ADDR_IPV6", "receive(): [] Message was received with hop limit -1, expected 255")));
}

TEST_F(SocketMgrTest, TheInterfaceIsCheckedBeforeTheHopLimit) {
    SocketDouble mgr(std::move(m_receiver), "eth0");
    sendDatagram(m_address, 30, 64);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_WRONG_INTERFACE);
    EXPECT_FALSE(message.m_offLink);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRejected, 1u);
    EXPECT_THAT(m_capture.records(),
                ElementsAre(error("ADDR_IPV6",
                                  "receive(): [] Message was received on wrong interface expected:eth0, "
                                  "actual: lo")));
}

TEST_F(SocketMgrTest, AnRaFromBeyondTheLinkDoesNotAnswerASolicitation) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    mgr.getRsTimeout().m_soliciting = true;
    sendDatagram(m_address, 30, 64);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_FALSE(mgr.getRsTimeout().m_raReceived);
}

// ---- Datagrams read ahead ----

// What receive gives for one datagram: result, state, bytes and source.
struct Reception {
    uint32_t result;
    uint32_t state;
    bool offLink;
    std::vector<uint8_t> data;
    size_t length;
    std::vector<uint8_t> peer;
    bool operator==(const Reception& o) const {
        return result == o.result && state == o.state && offLink == o.offLink && data == o.data &&
               length == o.length && peer == o.peer;
    }
};

Reception receiveOne(SocketMgr& mgr) {
    Message m;
    const uint32_t result = mgr.receive(m);
    return {result,   m.m_state,  m.m_offLink,
            m.m_data, m.m_length, std::vector<uint8_t>(m.m_peer.bytes, m.m_peer.bytes + 16)};
}

// Accepted, truncated, accepted, from beyond the link, exactly the buffer: read in one call, then
// given one by one as they are given when each is read on its own, with the same traces in the
// same order and the same counters.
TEST_F(SocketMgrTest, DatagramsReadAheadAreGivenAsEachIsWhenReadOnItsOwn) {
    struct Datagram {
        size_t size;
        int hopLimit;
    };
    const std::vector<Datagram> datagrams = {{100, kNdHopLimit},
                                             {kMessageBufferSize + 1, kNdHopLimit},
                                             {64, kNdHopLimit},
                                             {64, 64},
                                             {kMessageBufferSize, kNdHopLimit}};
    struct sockaddr_in6 secondAddress {};
    UniqueFd second = loopbackSocket(true, &secondAddress);
    ASSERT_GT(second.get(), 0);
    SocketDouble alone(std::move(m_receiver), "lo");
    SocketDouble ahead(std::move(second), "lo");
    ahead.setReadAhead(kReadAheadCapacity);
    for (const Datagram& d : datagrams) {
        sendDatagram(m_address, d.size, d.hopLimit);
        sendDatagram(secondAddress, d.size, d.hopLimit);
    }
    std::vector<Reception> oneByOne;
    for (size_t i = 0; i < datagrams.size(); ++i) {
        oneByOne.push_back(receiveOne(alone));
        EXPECT_FALSE(alone.hasReadAhead());
    }
    const std::vector<TraceRecord> oneByOneTraces = m_capture.records();
    m_capture.clear();

    std::vector<Reception> readAhead;
    for (size_t i = 0; i < datagrams.size(); ++i) {
        readAhead.push_back(receiveOne(ahead));
        EXPECT_EQ(ahead.hasReadAhead(), i + 1 < datagrams.size()) << "after datagram " << i;
    }
    EXPECT_TRUE(oneByOne == readAhead);
    EXPECT_EQ(oneByOne[1].state, Message::MSG_STATE_RX_TRUNCATED);
    EXPECT_EQ(oneByOne[3].state, Message::MSG_STATE_RX_WRONG_INTERFACE);
    EXPECT_EQ(oneByOne[4].state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(m_capture.records(), oneByOneTraces);
    EXPECT_EQ(oneByOneTraces.size(), 5u);
    EXPECT_THAT(
        oneByOneTraces,
        Contains(info("ADDR_IPV6", "receive(): [] Message was received with hop limit 64, expected 255")));
    EXPECT_EQ(ahead.getCounters().m_counters.rxRa, 3u);
    EXPECT_EQ(ahead.getCounters().m_counters.rxRejected, 2u);
}

TEST_F(SocketMgrTest, ReadAheadTakesNoMoreThanAllowedAndTheCapacity) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    EXPECT_FALSE(mgr.hasReadAhead());
    for (size_t i = 0; i < 5; ++i) {
        sendDatagram(m_address, 64);
    }
    mgr.setReadAhead(2);
    const auto givenFromOneRead = [&] {
        size_t given = 1;
        receiveOne(mgr);
        for (; mgr.hasReadAhead(); ++given) {
            receiveOne(mgr);
        }
        return given;
    };
    EXPECT_EQ(givenFromOneRead(), 3u);
    EXPECT_EQ(givenFromOneRead(), 2u) << "what is there, when less than allowed";
    mgr.setReadAhead(kReadAheadCapacity + 100);
    for (size_t i = 0; i < kReadAheadCapacity + 5; ++i) {
        sendDatagram(m_address, 64);
    }
    EXPECT_EQ(givenFromOneRead(), 1 + kReadAheadCapacity);
    EXPECT_EQ(givenFromOneRead(), 4u);
    mgr.setReadAhead(0);
    sendDatagram(m_address, 64);
    sendDatagram(m_address, 64);
    EXPECT_EQ(givenFromOneRead(), 1u);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, kReadAheadCapacity + 11);
}

int g_loNamesAsked = 0;
char* countedIndexToName(unsigned index, char* name) {
    ++g_loNamesAsked;
    return ::if_indextoname(index, name);
}

// A link notification not yet handled when datagrams are read ahead may be older than some of
// them: the names they arrived on are then asked of the kernel, not taken from the name kept.
TEST_F(SocketMgrTest, ALinkNotificationWaitingWhenDatagramsAreReadAheadHasTheirNamesAskedAfresh) {
    class WatchingDouble : public SocketDouble {
    public:
        using SocketDouble::SocketDouble;
        ArrivalNames& names() { return getArrivalNames(); }
    } mgr(std::move(m_receiver), "lo");
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    mgr.names().watch(UniqueFd(ends[0]));
    mgr.names().resolveWith(&countedIndexToName);
    g_loNamesAsked = 0;
    UniqueFd kernel(ends[1]);
    mgr.setReadAhead(kReadAheadCapacity);

    sendDatagram(m_address, 64);
    EXPECT_EQ(receiveOne(mgr).state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(g_loNamesAsked, 1);
    sendDatagram(m_address, 64);
    sendDatagram(m_address, 64);
    EXPECT_EQ(receiveOne(mgr).state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(receiveOne(mgr).state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(g_loNamesAsked, 1) << "no notification waits: the name kept serves";

    sendDatagram(m_address, 64);
    sendDatagram(m_address, 64);
    ASSERT_EQ(::send(kernel.get(), "link", 4, 0), 4);
    EXPECT_EQ(receiveOne(mgr).state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(g_loNamesAsked, 2);
    EXPECT_EQ(receiveOne(mgr).state, Message::MSG_STATE_RX_OK);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 5u);
}

TEST_F(SocketMgrTest, RaWhileSolicitingMarksTheSolicitationAnswered) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    mgr.getRsTimeout().m_soliciting = true;
    sendDatagram(m_address, 30);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_TRUE(mgr.getRsTimeout().m_raReceived);
    EXPECT_THAT(m_capture.records(),
                Contains(lab("GENERAL", "receive(): [] RA received after solicitation")));
}

TEST_F(SocketMgrTest, RaWhileSolicitingMarksItAnsweredEvenWithLabOff) {
    TraceCapture quiet(trace::bit(TraceEvent::ERROR));
    SocketDouble mgr(std::move(m_receiver), "lo");
    mgr.getRsTimeout().m_soliciting = true;
    sendDatagram(m_address, 30);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_TRUE(mgr.getRsTimeout().m_raReceived);
    EXPECT_TRUE(quiet.records().empty());
}

TEST_F(SocketMgrTest, RaWhileNoSolicitationRunsLeavesRaReceivedAlone) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    sendDatagram(m_address, 30);
    Message message;
    EXPECT_EQ(mgr.receive(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_RX_OK);
    EXPECT_FALSE(mgr.getRsTimeout().m_raReceived);
    EXPECT_THAT(m_capture.records(),
                Not(Contains(lab("GENERAL", "receive(): [] RA received after solicitation"))));
}

// ---- Transmission ----

TEST(Transmit, MessageNotReadyIsRefusedButReportedAsSuccess) {
    TraceCapture capture;
    SocketMgr mgr;
    for (uint32_t state :
         std::initializer_list<uint32_t>{Message::MSG_STATE_UNSET, Message::MSG_STATE_RX_OK,
                                         Message::MSG_STATE_TX_OK, Message::MSG_STATE_TX_TOO_BIG, 42u}) {
        capture.clear();
        Message message;
        message.m_state = state;
        EXPECT_EQ(mgr.transmit(message), 0u);
        EXPECT_EQ(message.m_state, state);
        EXPECT_THAT(capture.records(),
                    ElementsAre(error("ADDR_IPV6", "transmit(): [] Unable to transmit message in state " +
                                                       messageStateToStr(state))));
    }
    EXPECT_EQ(mgr.getCounters().m_counters.txRs, 0u);
    EXPECT_EQ(mgr.getCounters().m_counters.txRsFailed, 0u);
}

TEST(Transmit, RefusalTextNamesTheState) {
    TraceCapture capture;
    SocketMgr mgr;
    Message message;
    EXPECT_EQ(mgr.transmit(message), 0u);
    EXPECT_THAT(capture.records(),
                ElementsAre(error(
                    "ADDR_IPV6",
                    "transmit(): [] Unable to transmit message in state { no: 0, txt: MSG_STATE_UNSET}")));
}

TEST(Transmit, EmptyInterfaceMarksTheMessageSentWithoutSending) {
    TraceCapture capture;
    SocketMgr mgr;
    Message message;
    message.m_data.assign(kMessageBufferSize, 0);
    message.m_state = Message::MSG_STATE_TX_READY;
    EXPECT_EQ(mgr.transmit(message), 0u);
    EXPECT_EQ(message.m_state, Message::MSG_STATE_TX_OK);
    EXPECT_EQ(mgr.getCounters().m_counters.txRs, 0u);
    EXPECT_THAT(capture.records(),
                ElementsAre(error("ADDR_IPV6",
                                  "transmit(): [] Egress interface is not set, unable to send RS message")));
}

TEST(Transmit, SendFailureIsReportedAtInfoAndCounted) {
    TraceCapture capture;
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    UniqueFd readEnd(pipeFds[0]);
    SocketDouble mgr(UniqueFd(pipeFds[1]), "lo");
    Message message;
    message.m_data.assign(kMessageBufferSize, 0);
    message.m_state = Message::MSG_STATE_TX_READY;
    EXPECT_EQ(mgr.transmit(message), 1u);
    EXPECT_EQ(mgr.getCounters().m_counters.txRsFailed, 1u);
    EXPECT_EQ(mgr.getCounters().m_counters.txRs, 0u);
    EXPECT_THAT(capture.records(),
                ElementsAre(info("ADDR_IPV6",
                                 "rs6Send(): [] Unable to send RS with sendmsg() error: Socket operation on "
                                 "non-socket (88)"),
                            info("ADDR_IPV6", "transmit(): [] Unable to send message in rs6Send()")));
}

TEST_F(SocketMgrTest, Rs6SendSendsSixteenBytesWithHopLimit255OnTheConfiguredInterface) {
    const int on = 1;
    ASSERT_EQ(setsockopt(m_receiver.get(), IPPROTO_IPV6, IPV6_RECVHOPLIMIT, &on, sizeof on), 0);
    SocketDouble mgr(loopbackSocket(false), "lo");
    SocketMgr::IfConfig config{};
    config.ifindex = static_cast<int32_t>(if_nametoindex("lo"));
    config.rsaddr = m_address;
    Message message;
    for (size_t i = 0; i < kMessageBufferSize; ++i) {
        message.m_data.push_back(static_cast<uint8_t>(i + 1));
    }
    message.m_length = 1;
    EXPECT_EQ(mgr.rs6Send(config, mgr.getFd(), message), 0u);
    EXPECT_EQ(mgr.getCounters().m_counters.txRs, 1u);
    EXPECT_TRUE(m_capture.records().empty());

    uint8_t buffer[64];
    struct iovec scatter {
        buffer, sizeof buffer
    };
    alignas(struct cmsghdr) uint8_t control[128];
    struct msghdr header {};
    header.msg_iov = &scatter;
    header.msg_iovlen = 1;
    header.msg_control = control;
    header.msg_controllen = sizeof control;
    ASSERT_EQ(recvmsg(m_receiver.get(), &header, MSG_DONTWAIT), 16);
    EXPECT_EQ(std::vector<uint8_t>(buffer, buffer + 16),
              std::vector<uint8_t>(message.m_data.begin(), message.m_data.begin() + 16));
    int hopLimit = -1;
    unsigned arrival = 0;
    for (cmsghdr* item = CMSG_FIRSTHDR(&header); item != nullptr; item = CMSG_NXTHDR(&header, item)) {
        if (item->cmsg_level == IPPROTO_IPV6 && item->cmsg_type == IPV6_HOPLIMIT) {
            std::memcpy(&hopLimit, CMSG_DATA(item), sizeof hopLimit);
        }
        if (item->cmsg_level == IPPROTO_IPV6 && item->cmsg_type == IPV6_PKTINFO) {
            struct in6_pktinfo info;
            std::memcpy(&info, CMSG_DATA(item), sizeof info);
            arrival = info.ipi6_ifindex;
        }
    }
    EXPECT_EQ(hopLimit, 255);
    EXPECT_EQ(arrival, if_nametoindex("lo"));
}

TEST(Rs6Send, BufferShorterThanAnRsIsRefusedWithoutSending) {
    TraceCapture capture;
    SocketMgr mgr;
    Message message;
    message.m_data.assign(15, 0);
    EXPECT_EQ(mgr.rs6Send(mgr.getIfConfig(), -1, message), 1u);
    EXPECT_EQ(mgr.getCounters().m_counters.txRs, 0u);
    EXPECT_EQ(mgr.getCounters().m_counters.txRsFailed, 0u);
    EXPECT_THAT(capture.records(),
                ElementsAre(error("ADDR_IPV6",
                                  "rs6Send(): [] Message buffer of 15 bytes cannot hold an RS of 16 bytes")));
}

// ---- Interface state ----

TEST_F(SocketMgrTest, LoopbackIsUp) {
    SocketDouble mgr(std::move(m_receiver), "lo");
    EXPECT_TRUE(mgr.isInterfaceUp());
    EXPECT_TRUE(m_capture.records().empty());
}

TEST_F(SocketMgrTest, FlagsOfAnEmptyNameCannotBeReadSoTheInterfaceIsNotUp) {
    SocketDouble mgr(std::move(m_receiver), "");
    EXPECT_FALSE(mgr.isInterfaceUp());
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(error("ADDR_IPV6", "isInterfaceUp(): [] ioctl error on , errno=No such device (19)")));
}

TEST_F(SocketMgrTest, LongNameIsCutToFifteenCharactersForTheFlagsRequest) {
    // "lo" followed by 14 characters: cut to 15, it is still no interface; "lo" alone is.
    SocketDouble mgr(std::move(m_receiver), "lo0123456789abcd");
    EXPECT_FALSE(mgr.isInterfaceUp());
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(error("ADDR_IPV6", "isInterfaceUp(): [] ioctl error on , errno=No such device (19)")));
}

// ---- Solicitation cycle ----

namespace {

// One whole solicitation cycle of `mgr`, from a first solicitation due at once to its last trace.
bool runCycle(SocketMgr& mgr, const TraceCapture& capture) {
    mgr.getRsTimeout().m_owner = &mgr;
    mgr.getRsTimeout().add(0);
    return runLoopUntil([&] { return finished(capture); });
}

}  // namespace

TEST_F(SocketMgrTest, WithoutAnyRaThreeSolicitationsThenNoRaDetected) {
    TransmitDouble mgr(std::move(m_receiver), "lo", kTestRetryInterval);
    ASSERT_TRUE(runCycle(mgr, m_capture));

    ASSERT_EQ(mgr.sent.size(), 3u);
    for (size_t i = 0; i < mgr.sent.size(); ++i) {
        EXPECT_EQ(mgr.sentStates[i], Message::MSG_STATE_TX_READY);
        EXPECT_EQ(mgr.sentLengths[i], 16u);
        EXPECT_EQ(mgr.sent[i][0], 133);
    }
    EXPECT_THAT(
        withoutLab(m_capture.records()),
        ElementsAre(
            rsSent(), resending(0), rsSent(), resending(1), rsSent(), resending(2),
            info("GENERAL",
                 "cbExpired(): [] Finished router solicitation. Sent 3 RS messages, noRA detected.")));
    EXPECT_THAT(
        m_capture.records(),
        Contains(lab("GENERAL", "cbExpired(): [] Timeout expired counter=2, m_ifName=lo, raReceived=0")));
    EXPECT_THAT(
        m_capture.records(),
        Contains(lab("GENERAL", "dispatchRs(): [] Monitored interface is set, ready to transmit RS")));
    EXPECT_EQ(mgr.getRsTimeout().getHandlerId(), 0u);
    EXPECT_EQ(mgr.getRsTimeout().m_counter, 0u);
    EXPECT_FALSE(mgr.getRsTimeout().m_soliciting);
    EXPECT_FALSE(mgr.getRsTimeout().m_raReceived);
}

TEST_F(SocketMgrTest, RaBetweenFirstAndSecondSolicitationEndsTheCycleAfterOne) {
    TransmitDouble mgr(std::move(m_receiver), "lo", kTestRetryInterval);
    mgr.answerAt = 1;
    mgr.answerTo = m_address;
    ReceiveWatch watch(mgr);
    ASSERT_TRUE(runCycle(mgr, m_capture));

    EXPECT_EQ(mgr.sent.size(), 1u);
    EXPECT_EQ(watch.states, std::vector<uint32_t>{Message::MSG_STATE_RX_OK});
    EXPECT_EQ(watch.raReceivedAfter, std::vector<bool>{true});
    EXPECT_THAT(
        withoutLab(m_capture.records()),
        ElementsAre(rsSent(), resending(0),
                    info("GENERAL",
                         "cbExpired(): [] Finished router solicitation. Sent 1 RS messages, RA detected.")));
    EXPECT_THAT(
        m_capture.records(),
        Contains(lab("GENERAL", "cbExpired(): [] Timeout expired counter=1, m_ifName=lo, raReceived=1")));
    EXPECT_THAT(m_capture.records(),
                Contains(lab("GENERAL", "receive(): [] RA received after solicitation")));
    EXPECT_EQ(mgr.getRsTimeout().getHandlerId(), 0u);
    EXPECT_FALSE(mgr.getRsTimeout().m_raReceived);
    EXPECT_EQ(mgr.getCounters().m_counters.rxRa, 1u);
}

TEST_F(SocketMgrTest, RaAfterAFailedDispatchDoesNotCountAsAnAnswer) {
    TransmitDouble mgr(std::move(m_receiver), "lo", kTestRetryInterval);
    mgr.result = 1;
    mgr.answerAt = 1;
    mgr.answerTo = m_address;
    ReceiveWatch watch(mgr);
    ASSERT_TRUE(runCycle(mgr, m_capture));

    EXPECT_EQ(mgr.sent.size(), 3u);
    EXPECT_EQ(watch.states, std::vector<uint32_t>{Message::MSG_STATE_RX_OK});
    EXPECT_EQ(watch.raReceivedAfter, std::vector<bool>{false});
    const TraceRecord failedTransmit = info(
        "GENERAL", "dispatchRs(): [] Failed to transmit message, state: { no: 6, txt: MSG_STATE_TX_READY}");
    const TraceRecord failedDispatch = info("ADDR_IPV6", "cbExpired(): [] Failed in dispatchRs");
    EXPECT_THAT(
        withoutLab(m_capture.records()),
        ElementsAre(
            failedTransmit, failedDispatch, failedTransmit, failedDispatch, failedTransmit, failedDispatch,
            info("GENERAL",
                 "cbExpired(): [] Finished router solicitation. Sent 3 RS messages, noRA detected.")));
    EXPECT_THAT(m_capture.records(),
                Not(Contains(lab("GENERAL", "receive(): [] RA received after solicitation"))));
}

TEST_F(SocketMgrTest, EmptyInterfaceFailsEveryDispatchThenNoRaDetected) {
    TransmitDouble mgr(std::move(m_receiver), "", kTestRetryInterval);
    ASSERT_TRUE(runCycle(mgr, m_capture));

    EXPECT_TRUE(mgr.sent.empty());
    const TraceRecord failedDispatch = info("ADDR_IPV6", "cbExpired(): [] Failed in dispatchRs");
    EXPECT_THAT(
        withoutLab(m_capture.records()),
        ElementsAre(
            failedDispatch, failedDispatch, failedDispatch,
            info("GENERAL",
                 "cbExpired(): [] Finished router solicitation. Sent 3 RS messages, noRA detected.")));
    EXPECT_THAT(
        m_capture.records(),
        Not(Contains(lab("GENERAL", "dispatchRs(): [] Monitored interface is set, ready to transmit RS"))));
}

TEST_F(SocketMgrTest, DispatchBuildsTheSolicitationFromTheInterfaceConfiguration) {
    TransmitDouble mgr(std::move(m_receiver), "lo", kTestRetryInterval);
    mgr.config.hwaddr.sa_family = 1;
    const uint8_t hw[] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    std::memcpy(mgr.config.hwaddr.sa_data, hw, sizeof hw);
    mgr.config.lladdr.sin6_family = AF_INET6;
    ASSERT_EQ(inet_pton(AF_INET6, "fe80::1", &mgr.config.lladdr.sin6_addr), 1);
    mgr.config.rsaddr.sin6_family = AF_INET6;
    ASSERT_EQ(inet_pton(AF_INET6, "ff02::2", &mgr.config.rsaddr.sin6_addr), 1);
    mgr.getRsTimeout().m_owner = &mgr;

    EXPECT_TRUE(mgr.getRsTimeout().dispatchRs());
    ASSERT_EQ(mgr.sent.size(), 1u);
    EXPECT_EQ(mgr.sentStates[0], Message::MSG_STATE_TX_READY);
    EXPECT_EQ(mgr.sentLengths[0], 16u);
    ASSERT_GE(mgr.sent[0].size(), 16u);
    // Type 133, code 0, checksum 0x7a2c, reserved, source link-layer address option.
    const std::vector<uint8_t> expected = {0x85, 0x00, 0x7a, 0x2c, 0x00, 0x00, 0x00, 0x00,
                                           0x01, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(std::vector<uint8_t>(mgr.sent[0].begin(), mgr.sent[0].begin() + 16), expected);
    EXPECT_THAT(withoutLab(m_capture.records()), ElementsAre(rsSent()));
}

TEST(RsTimeout, ExpiryWithoutOwnerReportsAndStaysDisarmed) {
    TraceCapture capture;
    SocketMgr::RsTimeout timeout;
    timeout.cbExpired();
    EXPECT_EQ(timeout.getHandlerId(), 0u);
    EXPECT_EQ(timeout.m_counter, 0u);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(lab("GENERAL", "cbExpired(): [] Timeout expired counter=0, m_ifName=, raReceived=0"),
                    error("ADDR_IPV6", "cbExpired(): [] Socket manager not initiated")));
}

TEST(RsTimeout, DaemonRearmsEveryFourSeconds) {
    TraceCapture capture;
    SocketMgr mgr;
    mgr.getRsTimeout().m_owner = &mgr;
    mgr.getRsTimeout().cbExpired();
    const guint handler = mgr.getRsTimeout().getHandlerId();
    ASSERT_NE(handler, 0u);
    EXPECT_EQ(mgr.getRsTimeout().m_counter, 1u);
    EXPECT_THAT(capture.records(),
                Contains(lab("GENERAL", "add(): [] Timer RS timeout is added, timeout 4000 msec, handler: " +
                                            std::to_string(handler))));
    mgr.getRsTimeout().remove();
}

TEST(RsTimeout, DispatchWithoutInterfaceFailsSilently) {
    TraceCapture capture;
    SocketMgr mgr;
    mgr.getRsTimeout().m_owner = &mgr;
    EXPECT_FALSE(mgr.getRsTimeout().dispatchRs());
    EXPECT_TRUE(capture.records().empty());
}

}  // namespace

// ---- Arrival interface names ----

namespace {

// Answers "eth7" for index 7, nothing for any other, and counts the questions.
int g_resolved = 0;
char* resolveOnlySeven(unsigned index, char* name) {
    ++g_resolved;
    if (index != 7) {
        errno = ENXIO;
        return nullptr;
    }
    std::strcpy(name, "eth7");
    return name;
}

class ArrivalNamesTest : public ::testing::Test {
protected:
    void SetUp() override { g_resolved = 0; }

    // A socket pair stands in for the link notifications: what is written on `m_kernel` is a
    // notification to the names being watched.
    void watchPair() {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        m_names.watch(UniqueFd(ends[0]));
        m_kernel = UniqueFd(ends[1]);
    }
    void notify() { ASSERT_EQ(::send(m_kernel.get(), "link", 4, 0), 4); }
    static void runPending() {
        while (g_main_context_iteration(nullptr, FALSE)) {
        }
    }
    std::string lookup(unsigned index) {
        char name[IF_NAMESIZE] = {};
        return m_names.lookup(-1, index, name) ? name : "(none)";
    }

    ArrivalNames m_names{&resolveOnlySeven};
    UniqueFd m_kernel;
};

// ---- Interface names ----

TEST(SocketMgrInit, InterfaceNameOf16CharactersIsRefusedBeforeTheNamespaceIsEntered) {
    TraceCapture capture(trace::bit(TraceEvent::ERROR));
    SocketMgr socket;
    EXPECT_EQ(socket.init("solicd-test-no-such-namespace", "veth0123456789ab"), 1u);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          "init(): [] Interface name 'veth0123456789ab' is longer than 15 characters")));
}

TEST(SocketMgrInit, LongerInterfaceNameIsRefusedWhole) {
    TraceCapture capture(trace::bit(TraceEvent::ERROR));
    SocketMgr socket;
    EXPECT_EQ(socket.init("", "veth0123456789abcdef"), 1u);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "ADDR_IPV6",
                                  "init(): [] Interface name 'veth0123456789abcdef' is longer than 15 "
                                  "characters")));
}

TEST(SocketMgrInit, InterfaceNameOf15CharactersGoesOnToTheNamespace) {
    TraceCapture capture(trace::bit(TraceEvent::ERROR));
    SocketMgr socket;
    EXPECT_EQ(socket.init("solicd-test-no-such-namespace", "veth0123456789a"), 1u);
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(
        capture.records()[0].message.rfind(
            "init(): [] Unable to set namespace 'solicd-test-no-such-namespace', function 'open' failed", 0),
        0u)
        << capture.records()[0];
}

}  // namespace

TEST_F(ArrivalNamesTest, WithoutAWatchEveryArrivalIsAskedOfTheKernel) {
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(g_resolved, 2);
}

TEST_F(ArrivalNamesTest, WhileWatchingTheNameIsAskedOnceUntilALinkChanges) {
    watchPair();
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(g_resolved, 1);
    notify();
    runPending();
    EXPECT_TRUE(m_names.isWatching());
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(g_resolved, 2);
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(g_resolved, 2);
}

TEST_F(ArrivalNamesTest, ANotificationWaitsUntilTheMainLoopTakesIt) {
    EXPECT_FALSE(m_names.isNotificationWaiting()) << "nothing watched";
    watchPair();
    EXPECT_FALSE(m_names.isNotificationWaiting());
    notify();
    EXPECT_TRUE(m_names.isNotificationWaiting());
    runPending();
    EXPECT_FALSE(m_names.isNotificationWaiting());
}

TEST_F(ArrivalNamesTest, AForgottenNameIsAskedOfTheKernelAgain) {
    watchPair();
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(g_resolved, 1) << "kept while no link changed";
    m_names.forget();
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(g_resolved, 2);
}

TEST_F(ArrivalNamesTest, ManyNotificationsAtOnceAreAllTakenInOneWakeup) {
    watchPair();
    for (int i = 0; i < 5; ++i) {
        notify();
    }
    EXPECT_TRUE(g_main_context_iteration(nullptr, FALSE));
    EXPECT_FALSE(g_main_context_iteration(nullptr, FALSE));
}

TEST_F(ArrivalNamesTest, AnUnknownIndexIsNeverKept) {
    watchPair();
    errno = 0;
    EXPECT_EQ(lookup(9), "(none)");
    EXPECT_EQ(errno, ENXIO);
    EXPECT_EQ(lookup(9), "(none)");
    EXPECT_EQ(g_resolved, 2);
}

TEST_F(ArrivalNamesTest, AFailedLookupOfAnotherIndexLeavesTheKeptNameAlone) {
    watchPair();
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(lookup(9), "(none)");
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(g_resolved, 2);
}

// A datagram and a link notification both waiting: the notification is taken first, so the
// datagram's arrival name is asked afresh.
TEST_F(ArrivalNamesTest, ALinkNotificationIsHandledBeforeADatagramWaitingBesideIt) {
    watchPair();
    EXPECT_EQ(lookup(7), "eth7");
    int datagram[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, datagram), 0);
    UniqueFd reader(datagram[0]);
    UniqueFd writer(datagram[1]);
    struct Reception {
        ArrivalNames* names;
        int resolvedBefore;
        char name[IF_NAMESIZE];
    } reception{&m_names, -1, {}};
    GSource* socket = g_unix_fd_source_new(reader.get(), G_IO_IN);
    g_source_set_callback(socket, G_SOURCE_FUNC(+[](gint fd, GIOCondition, gpointer data) -> gboolean {
                              auto* r = static_cast<Reception*>(data);
                              char byte;
                              [[maybe_unused]] const ssize_t ignored = ::recv(fd, &byte, 1, 0);
                              r->resolvedBefore = g_resolved;
                              r->names->lookup(-1, 7, r->name);
                              return G_SOURCE_REMOVE;
                          }),
                          &reception, nullptr);
    g_source_attach(socket, nullptr);
    g_source_unref(socket);
    ASSERT_EQ(::send(writer.get(), "x", 1, 0), 1);
    notify();
    runPending();
    EXPECT_EQ(reception.resolvedBefore, 1);
    EXPECT_STREQ(reception.name, "eth7");
    EXPECT_EQ(g_resolved, 2);
}

TEST_F(ArrivalNamesTest, NotificationsThatEndStopTheWatchAndNamesAreAskedAfresh) {
    watchPair();
    EXPECT_EQ(lookup(7), "eth7");
    m_kernel.reset();
    runPending();
    EXPECT_FALSE(m_names.isWatching());
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(lookup(7), "eth7");
    EXPECT_EQ(g_resolved, 3);
}

TEST_F(ArrivalNamesTest, LinkNotificationsCanBeWatchedWithoutPrivileges) {
    ArrivalNames names;
    ASSERT_TRUE(names.watch());
    EXPECT_TRUE(names.isWatching());
    char name[IF_NAMESIZE] = {};
    UniqueFd any = loopbackSocket(false);
    ASSERT_GT(any.get(), 0);
    ASSERT_TRUE(names.lookup(any.get(), if_nametoindex("lo"), name));
    EXPECT_STREQ(name, "lo");
}

TEST_F(ArrivalNamesTest, AStormOfNotificationsIsTakenInBoundedWakeupsAndTheWatchGoesOn) {
    watchPair();
    int sent = 0;
    while (sent < 200 && ::send(m_kernel.get(), "link", 4, 0) == 4) {
        ++sent;
    }
    ASSERT_GT(sent, 64);
    int wakeups = 0;
    while (g_main_context_iteration(nullptr, FALSE)) {
        ++wakeups;
    }
    EXPECT_EQ(wakeups, (sent + 63) / 64);
    EXPECT_TRUE(m_names.isWatching());
}
