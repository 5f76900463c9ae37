// Text forms of the socket layer: message states, address families, socket addresses and the
// interface configuration line.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>

#include "SocketMgr.h"

using namespace solicd;

namespace {

std::string render(const struct sockaddr& address) {
    std::ostringstream os;
    printSockaddr(os, address);
    return os.str();
}

std::string render(const struct sockaddr_in6& address) {
    std::ostringstream os;
    printSockaddrIn6(os, address);
    return os.str();
}

struct sockaddr hardwareAddress(unsigned short family, std::initializer_list<uint8_t> bytes) {
    struct sockaddr address {};
    address.sa_family = family;
    size_t i = 0;
    for (uint8_t b : bytes) {
        address.sa_data[i++] = static_cast<char>(b);
    }
    return address;
}

struct sockaddr_in6 ipv6Address(const char* text, uint32_t scope) {
    struct sockaddr_in6 address {};
    address.sin6_family = AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, &address.sin6_addr), 1);
    address.sin6_scope_id = scope;
    return address;
}

TEST(MessageState, EveryStateRendersWithItsNumberAndName) {
    const char* names[] = {"MSG_STATE_UNSET",    "MSG_STATE_RX_OK",        "MSG_STATE_RX_ERROR",
                           "MSG_STATE_RX_NULL",  "MSG_STATE_RX_TRUNCATED", "MSG_STATE_RX_WRONG_INTERFACE",
                           "MSG_STATE_TX_READY", "MSG_STATE_TX_OK",        "MSG_STATE_TX_TOO_BIG",
                           "MSG_STATE_TX_ERROR"};
    for (uint32_t state = 0; state < 10; ++state) {
        EXPECT_EQ(messageStateToStr(state),
                  "{ no: " + std::to_string(state) + ", txt: " + names[state] + "}");
    }
    EXPECT_EQ(messageStateToStr(SocketMgr::Message::MSG_STATE_RX_OK), "{ no: 1, txt: MSG_STATE_RX_OK}");
}

TEST(MessageState, ValueAboveNineRendersAsUnknown) {
    EXPECT_EQ(messageStateToStr(10), "{ no: 10, txt: UNKNOWN}");
    EXPECT_EQ(messageStateToStr(0xffffffffu), "{ no: 4294967295, txt: UNKNOWN}");
}

TEST(MessageState, StreamFormWritesTheSameTextInDecimalAndKeepsTheStreamBase) {
    std::ostringstream os;
    os << std::hex;
    printMessageState(os, 12) << ' ' << 255;
    EXPECT_EQ(os.str(), "{ no: 12, txt: UNKNOWN} ff");
}

TEST(AddressFamily, NamedFamiliesAndUnknownOnes) {
    EXPECT_STREQ(addressFamilyToCstr(1), "AF_LOCAL|UNIX");
    EXPECT_STREQ(addressFamilyToCstr(2), "AF_INET");
    EXPECT_STREQ(addressFamilyToCstr(3), "AF_AX25");
    EXPECT_STREQ(addressFamilyToCstr(4), "AF_IPX");
    EXPECT_STREQ(addressFamilyToCstr(5), "AF_APPLETALK");
    EXPECT_STREQ(addressFamilyToCstr(8), "AF_ATMPVC");
    EXPECT_STREQ(addressFamilyToCstr(9), "AF_X25");
    EXPECT_STREQ(addressFamilyToCstr(10), "AF_INET6");
    EXPECT_STREQ(addressFamilyToCstr(16), "AF_NETLINK");
    EXPECT_STREQ(addressFamilyToCstr(17), "AF_PACKET");
    for (unsigned family : {0u, 6u, 7u, 11u, 12u, 13u, 14u, 15u, 18u, 255u, 65535u}) {
        EXPECT_STREQ(addressFamilyToCstr(family), "UNKNOWN") << family;
    }
}

TEST(SockaddrText, EthernetHardwareAddressIsSixPairsWithHighBytesAsSignedValues) {
    const auto address = hardwareAddress(1, {0x02, 0x00, 0x5e, 0x10, 0xa4, 0x80, 0x77});
    EXPECT_EQ(render(address),
              "{sa_family_text: AF_LOCAL|UNIX, sa_family_num:1, sa_data: 02:00:5e:10:ffffffa4:ffffff80}");
}

TEST(SockaddrText, PacketFamilyUsesTheMacForm) {
    const auto address = hardwareAddress(17, {0xaa, 0xbb, 0x0c, 0x0d, 0x0e, 0x0f});
    EXPECT_EQ(render(address),
              "{sa_family_text: AF_PACKET, sa_family_num:17, sa_data: ffffffaa:ffffffbb:0c:0d:0e:0f}");
}

TEST(SockaddrText, OtherFamiliesWriteAllFourteenBytesInSevenGroups) {
    const auto address = hardwareAddress(
        2, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08, 0x09, 0x0a, 0x0b, 0x0c, 0x0d, 0xfe});
    EXPECT_EQ(
        render(address),
        "{sa_family_text: AF_INET, sa_family_num:2, sa_data: 0102:0304:0506:0708:090a:0b0c:0dfffffffe}");
}

TEST(SockaddrText, FamilyZeroRendersAsUnknown) {
    const auto address = hardwareAddress(0, {});
    EXPECT_EQ(render(address),
              "{sa_family_text: UNKNOWN, sa_family_num:0, sa_data: 0000:0000:0000:0000:0000:0000:0000}");
}

TEST(SockaddrText, StreamBaseAndFillAreRestored) {
    const auto address = hardwareAddress(1, {0xa4});
    std::ostringstream decimal;
    printSockaddr(decimal, address) << ' ' << 255 << ' ' << std::setw(3) << 7;
    EXPECT_TRUE(decimal.str().ends_with("} 255   7")) << decimal.str();

    std::ostringstream hex;
    hex << std::hex;
    printSockaddr(hex, address) << ' ' << 255;
    EXPECT_TRUE(hex.str().ends_with("} ff")) << hex.str();
    EXPECT_NE(hex.str().find("sa_family_num:1,"), std::string::npos);
}

TEST(Sockaddr6Text, FieldsAsStoredWithTheAddressText) {
    auto address = ipv6Address("fe80::a8bb:ccff:fedd:eeff", 7);
    address.sin6_port = 0x1234;
    address.sin6_flowinfo = 0x00010000;
    EXPECT_EQ(render(address),
              "{sin6_family.text: AF_INET6, sain6_family_num:10, sin6_port: 4660, sin6_flowinfo: 65536, "
              "sin6_addr: fe80::a8bb:ccff:fedd:eeff, sin6_scope_id: 7}");
}

TEST(Sockaddr6Text, UnconvertibleAddressGivesTheErrorForm) {
    struct sockaddr_in6 address {};
    EXPECT_EQ(render(address),
              "{sin6_family.text: UNKNOWN, sain6_family_num:0, sin6_port: 0, sin6_flowinfo: 0, sin6_addr: "
              "{errorno: 97, errorstr:Address family not supported by protocol}, sin6_scope_id: 0}");
}

TEST(IfConfigText, OneLineOfNameIndexAndTheThreeAddresses) {
    SocketMgr::IfConfig config{};
    std::strcpy(config.name, "veth0");
    config.ifindex = 4;
    config.hwaddr = hardwareAddress(1, {0x02, 0x00, 0x00, 0x00, 0x00, 0xa4});
    config.lladdr = ipv6Address("fe80::1", 4);
    config.rsaddr = ipv6Address("ff02::2", 0);
    std::ostringstream os;
    os << config;
    EXPECT_EQ(
        os.str(),
        "{ name: veth0, ifindex:4, hwaddr:{sa_family_text: AF_LOCAL|UNIX, sa_family_num:1, sa_data: "
        "02:00:00:00:00:ffffffa4}, lladdr:{sin6_family.text: AF_INET6, sain6_family_num:10, sin6_port: 0, "
        "sin6_flowinfo: 0, sin6_addr: fe80::1, sin6_scope_id: 4}, rsaddr:{sin6_family.text: AF_INET6, "
        "sain6_family_num:10, sin6_port: 0, sin6_flowinfo: 0, sin6_addr: ff02::2, sin6_scope_id: 0}");
}

TEST(IfConfigText, NameFillingTheWholeFieldStopsAtTheField) {
    SocketMgr::IfConfig config{};
    std::memset(config.name, 'x', sizeof config.name);
    std::ostringstream os;
    os << config;
    EXPECT_TRUE(os.str().starts_with("{ name: xxxxxxxxxxxxxxxx, ifindex:0, hwaddr:")) << os.str();
}

}  // namespace
