// The walk over one route-netlink datagram while init waits for the link-local address.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "NetlinkDatagram.h"
#include "SocketMgr.h"
#include "TraceCapture.h"

using namespace solicd;
using solicd::test::NetlinkDatagram;
using solicd::test::Trace;
using solicd::test::TraceCapture;
using ::testing::ElementsAre;

namespace {

constexpr uint32_t kIfIndex = 2;
constexpr uint32_t kOtherIfIndex = 3;
constexpr uint32_t kUnknownIfIndex = 99;
constexpr const char* kIfName = "veth0";

char* fakeIndexToName(unsigned index, char* name) {
    if (index == kIfIndex) {
        return std::strcpy(name, kIfName);
    }
    if (index == kOtherIfIndex) {
        return std::strcpy(name, "eth1");
    }
    errno = ENXIO;
    return nullptr;
}

std::string prefixed(const std::string& text) {
    return "initLocalIpv6AddrFromNetlink(): [] " + text;
}

solicd::test::TraceRecord lab(const std::string& text) {
    return Trace(TraceEvent::LAB, "ADDR_IPV6", prefixed(text));
}

solicd::test::TraceRecord received(size_t length) {
    return lab("Get a netlink message to process with len " + std::to_string(length));
}

const solicd::test::TraceRecord kNewAddress = lab("Get a message with new address");

class NetlinkWalk : public ::testing::Test {
protected:
    void SetUp() override {
        setTraceTag("");
        std::memset(&m_lladdr, 0x5a, sizeof m_lladdr);
    }

    bool walk(const std::vector<uint8_t>& bytes, const std::string& ifName = kIfName) {
        return findLinkLocalInNetlink(bytes.data(), bytes.size(), ifName, &fakeIndexToName, m_lladdr);
    }

    void expectAnswer(const char* text, uint32_t scope) {
        struct in6_addr expected;
        ASSERT_EQ(inet_pton(AF_INET6, text, &expected), 1);
        EXPECT_EQ(m_lladdr.sin6_family, AF_INET6);
        EXPECT_EQ(m_lladdr.sin6_port, 0);
        EXPECT_EQ(m_lladdr.sin6_flowinfo, 0u);
        EXPECT_EQ(std::memcmp(&m_lladdr.sin6_addr, &expected, sizeof expected), 0);
        EXPECT_EQ(m_lladdr.sin6_scope_id, scope);
    }

    void expectUntouched() {
        struct sockaddr_in6 poison;
        std::memset(&poison, 0x5a, sizeof poison);
        EXPECT_EQ(std::memcmp(&m_lladdr, &poison, sizeof poison), 0);
    }

    TraceCapture m_capture;
    struct sockaddr_in6 m_lladdr;
};

TEST_F(NetlinkWalk, PermanentLinkLocalOnTheInterfaceIsTheAnswerWithItsIndexAsScope) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    EXPECT_TRUE(walk(d.bytes()));
    expectAnswer("fe80::1", kIfIndex);
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size()), kNewAddress));
}

TEST_F(NetlinkWalk, TentativeAddressIsIgnoredAsNotPermanent) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_TENTATIVE, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    EXPECT_FALSE(walk(d.bytes()));
    expectUntouched();
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size()), kNewAddress,
                                                 lab("Message igonred for the address is not PERMANENT")));
}

TEST_F(NetlinkWalk, PermanentGlobalAddressIsPassedOverWithoutAMessage) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "2001:db8::1")});
    EXPECT_FALSE(walk(d.bytes()));
    expectUntouched();
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size()), kNewAddress));
}

TEST_F(NetlinkWalk, DatagramOfFifteenBytesIsSkippedApartFromTheReceptionLine) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    std::vector<uint8_t> bytes = d.bytes();
    bytes.resize(15);
    EXPECT_FALSE(walk(bytes));
    EXPECT_THAT(m_capture.records(), ElementsAre(received(15)));
    bytes.clear();
    m_capture.clear();
    EXPECT_FALSE(walk(bytes));
    EXPECT_THAT(m_capture.records(), ElementsAre(received(0)));
}

TEST_F(NetlinkWalk, AddressOnAnotherInterfaceIsIgnoredWithItsName) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kOtherIfIndex,
                 {NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    EXPECT_FALSE(walk(d.bytes()));
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size()), kNewAddress,
                                                 lab("Message ignored for uninterested ifname eth1")));
}

TEST_F(NetlinkWalk, UnresolvableIndexIsAnErrorAndTheWalkGoesOn) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kUnknownIfIndex,
                 {NetlinkDatagram::address(IFA_ADDRESS, "fe80::9")});
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::2")});
    EXPECT_TRUE(walk(d.bytes()));
    expectAnswer("fe80::2", kIfIndex);
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(received(d.bytes().size()), kNewAddress,
                    Trace(TraceEvent::ERROR, "ADDR_IPV6",
                          prefixed("if_indextoname return NULL, errno=No such device or address (6)")),
                    kNewAddress));
}

TEST_F(NetlinkWalk, ErrorMessageReportsTheCurrentErrnoNotItsOwnCodeAndTheWalkGoesOn) {
    NetlinkDatagram d;
    const int32_t carried = -EPERM;
    d.message(NLMSG_ERROR, std::vector<uint8_t>(reinterpret_cast<const uint8_t*>(&carried),
                                                reinterpret_cast<const uint8_t*>(&carried) + sizeof carried));
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::3")});
    errno = EAGAIN;
    EXPECT_TRUE(walk(d.bytes()));
    expectAnswer("fe80::3", kIfIndex);
    EXPECT_THAT(
        m_capture.records(),
        ElementsAre(
            received(d.bytes().size()),
            Trace(TraceEvent::ERROR, "ADDR_IPV6",
                  prefixed("Read error on netlink socket, errno=Resource temporarily unavailable (11)")),
            kNewAddress));
}

TEST_F(NetlinkWalk, DoneEndsTheWalk) {
    NetlinkDatagram d;
    d.message(NLMSG_DONE, {0, 0, 0, 0});
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    EXPECT_FALSE(walk(d.bytes()));
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size())));
}

TEST_F(NetlinkWalk, MessageLengthBelowTheHeaderEndsTheWalk) {
    NetlinkDatagram d;
    d.message(RTM_NEWLINK, {0, 0, 0, 0}, 15);
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    EXPECT_FALSE(walk(d.bytes()));
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size())));
}

TEST_F(NetlinkWalk, MessageLengthBeyondTheDatagramEndsTheWalk) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    std::vector<uint8_t> bytes = d.bytes();
    bytes.pop_back();
    EXPECT_FALSE(walk(bytes));
    EXPECT_THAT(m_capture.records(), ElementsAre(received(bytes.size())));
}

TEST_F(NetlinkWalk, OtherMessageTypesAreSkippedAndUnpaddedLengthsAreAligned) {
    NetlinkDatagram d;
    d.message(RTM_NEWLINK, {1, 2, 3, 4, 5, 6, 7});  // length 23, padded to 24
    d.message(RTM_DELADDR, std::vector<uint8_t>(40, 0));
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::4")});
    EXPECT_TRUE(walk(d.bytes()));
    expectAnswer("fe80::4", kIfIndex);
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size()), kNewAddress));
}

TEST_F(NetlinkWalk, NewAddressTooShortForItsAddressHeaderIsSkipped) {
    NetlinkDatagram d;
    d.message(RTM_NEWADDR, {});
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::5")});
    EXPECT_TRUE(walk(d.bytes()));
    expectAnswer("fe80::5", kIfIndex);
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size()), kNewAddress, kNewAddress));
}

TEST_F(NetlinkWalk, FirstQualifyingAddressAttributeWins) {
    NetlinkDatagram d;
    d.newAddress(
        AF_INET6, IFA_F_PERMANENT, kIfIndex,
        {NetlinkDatagram::address(IFA_LOCAL, "fe80::a"),
         NetlinkDatagram::attribute(IFA_ADDRESS, {0xfe, 0x80}),
         NetlinkDatagram::address(IFA_ADDRESS, "fec0::1"), NetlinkDatagram::address(IFA_ADDRESS, "febf::b"),
         NetlinkDatagram::address(IFA_ADDRESS, "fe80::c")});
    EXPECT_TRUE(walk(d.bytes()));
    expectAnswer("febf::b", kIfIndex);
}

TEST_F(NetlinkWalk, WholeFe80Slash10QualifiesNotOnlyTheFe80Text) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe90::1")});
    EXPECT_TRUE(walk(d.bytes()));
    expectAnswer("fe90::1", kIfIndex);
}

TEST_F(NetlinkWalk, AttributeLengthBelowItsHeaderEndsTheAttributeWalk) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex,
                 {NetlinkDatagram::rawAttribute(IFA_CACHEINFO, 3, {0, 0, 0, 0}),
                  NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    EXPECT_FALSE(walk(d.bytes()));
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size()), kNewAddress));
}

TEST_F(NetlinkWalk, AttributeBeyondItsMessageEndsTheAttributeWalk) {
    NetlinkDatagram d;
    // The address attribute claims 4 bytes more than its message holds; the next message is intact.
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex,
                 {NetlinkDatagram::rawAttribute(IFA_ADDRESS, 24, NetlinkDatagram::ipv6("fe80::1"))});
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::6")});
    EXPECT_TRUE(walk(d.bytes()));
    expectAnswer("fe80::6", kIfIndex);
    EXPECT_THAT(m_capture.records(), ElementsAre(received(d.bytes().size()), kNewAddress, kNewAddress));
}

TEST_F(NetlinkWalk, NameIsComparedExactly) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::1")});
    EXPECT_FALSE(walk(d.bytes(), "veth"));
    EXPECT_FALSE(walk(d.bytes(), "veth00"));
    EXPECT_TRUE(walk(d.bytes(), "veth0"));
}

TEST_F(NetlinkWalk, AnswerFromAMisalignedBufferIsReadSafely) {
    NetlinkDatagram d;
    d.newAddress(AF_INET6, IFA_F_PERMANENT, kIfIndex, {NetlinkDatagram::address(IFA_ADDRESS, "fe80::7")});
    std::vector<uint8_t> shifted(d.bytes().size() + 1);
    std::memcpy(shifted.data() + 1, d.bytes().data(), d.bytes().size());
    EXPECT_TRUE(
        findLinkLocalInNetlink(shifted.data() + 1, d.bytes().size(), kIfName, &fakeIndexToName, m_lladdr));
    expectAnswer("fe80::7", kIfIndex);
}

}  // namespace
