// Record names on the RA path: the name kept from the last call of a kind is handed out only for
// the same address (and prefix length), whatever came in between.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <string>

#include "EntryName.h"

using namespace solicd;

namespace {

kt_ip_address_t address(const char* text) {
    kt_ip_address_t a{};
    a.family = KT_AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, a.bytes), 1);
    return a;
}

template <class Config>
std::string written(const Config& config) {
    char buffer[SOL_ENTRY_NAME_SIZE];
    const std::string_view name = writeEntryName(config, buffer);
    EXPECT_EQ(name.size(), std::char_traits<char>::length(buffer));
    return std::string(name);
}

SolNetwork::Config network(const char* prefix, uint32_t length) {
    SolNetwork::Config n;
    n.prefix = address(prefix);
    n.prefixLength = length;
    return n;
}

TEST(EntryName, SameRecordTwiceGivesTheSameName) {
    SolRouter::Config r;
    r.address = address("fe80::1");
    EXPECT_EQ(written(r), "router/fe80::1");
    EXPECT_EQ(written(r), "router/fe80::1");
}

TEST(EntryName, EveryChangeOfAddressFamilyOrLengthGivesTheNewName) {
    SolRouter::Config r;
    r.address = address("fe80::1");
    EXPECT_EQ(written(r), "router/fe80::1");
    r.address = address("fe80::2");
    EXPECT_EQ(written(r), "router/fe80::2");
    r.address.family = AF_INET;
    EXPECT_EQ(written(r), "router/254.128.0.0");

    EXPECT_EQ(written(network("2001:db8:1::", 64)), "network/2001:db8:1::/64");
    EXPECT_EQ(written(network("2001:db8:1::", 48)), "network/2001:db8:1::/48");
    EXPECT_EQ(written(network("2001:db8:1::", 32)), "network/2001:db8::/32");
    EXPECT_EQ(written(network("2001:db8:1::ff", 32)), "network/2001:db8::/32");
}

TEST(EntryName, KindsKeepTheirOwnLastName) {
    SolRouter::Config r;
    r.address = address("2001:db8::53");
    SolDnsServer::Config d;
    d.address = address("2001:db8::53");
    SolDnsServer::Config other;
    other.address = address("2001:db8::54");
    EXPECT_EQ(written(r), "router/2001:db8::53");
    EXPECT_EQ(written(d), "dns/2001:db8::53");
    EXPECT_EQ(written(r), "router/2001:db8::53");
    EXPECT_EQ(written(other), "dns/2001:db8::54");
    EXPECT_EQ(written(d), "dns/2001:db8::53");
    EXPECT_EQ(written(d), d.getName());
}

}  // namespace
