// Configs, a movable clock and a fixture for the cache tests.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <list>
#include <string>

#include "CacheMgr.h"
#include "TraceCapture.h"
#include "TraceLog.h"

namespace solicd::test {

// 2023-11-14 22:13:20 UTC.
inline constexpr time_t kT0 = 1700000000;
inline constexpr const char* kTag = "solicd.test";
inline constexpr uint32_t kAutoconf = FLAG_ON_LINK | FLAG_AUTONOMOUS;

inline kt_ip_address_t ipv6(const char* text) {
    kt_ip_address_t address{};
    address.family = KT_AF_INET6;
    EXPECT_EQ(inet_pton(AF_INET6, text, address.bytes), 1) << text;
    return address;
}

inline SolRouter::Config routerCfg(const char* address, uint16_t lifetime, uint32_t reachableTime = 0,
                                   uint32_t retransTimer = 0, uint32_t flags = 0) {
    SolRouter::Config c;
    c.address = ipv6(address);
    c.routerLifetime = lifetime;
    c.reachableTime = reachableTime;
    c.retransTimer = retransTimer;
    c.flags = flags;
    return c;
}

inline SolNetwork::Config networkCfg(const char* prefix, uint32_t valid, uint32_t preferred,
                                     uint32_t flags = kAutoconf) {
    SolNetwork::Config c;
    c.prefix = ipv6(prefix);
    c.prefixLength = 64;
    c.validLifetime = valid;
    c.preferredLifetime = preferred;
    c.flags = flags;
    return c;
}

inline SolDnsServer::Config dnsCfg(const char* address, uint32_t lifetime, uint32_t index = 0) {
    SolDnsServer::Config c;
    c.index = index;
    c.address = ipv6(address);
    c.lifetime = lifetime;
    return c;
}

// The full text of a captured message: "<function>(): [tag] <text>".
inline std::string msg(const char* function, const std::string& text) {
    return std::string(function) + "(): [" + kTag + "] " + text;
}

inline std::string pointerText(const void* p) {
    char text[32];
    snprintf(text, sizeof text, "%p", p);
    return text;
}

template <class T>
std::list<T*> listOf(void (CacheMgr::*get)(std::list<T*>&), CacheMgr& cache) {
    std::list<T*> out;
    (cache.*get)(out);
    return out;
}

// Time stands still unless a test moves it; local time is UTC so that printed times are exact.
class CacheTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("TZ", "UTC", 1);
        tzset();
        setTraceTag(kTag);
        cache.setMaxCacheSizes(64, 128, 128);
    }
    void TearDown() override {
        setenv("TZ", "UTC", 1);
        tzset();
        setTraceTag("");
    }

    RouterEntry* push(const SolRouter::Config& c) {
        return cache.pushConfigAndGetEntry(c, &changed, &timeout);
    }
    NetworkEntry* push(const SolNetwork::Config& c) {
        return cache.pushConfigAndGetEntry(c, &changed, &timeout);
    }
    DnsServerEntry* push(const SolDnsServer::Config& c) {
        return cache.pushConfigAndGetEntry(c, &changed, &timeout);
    }

    RouterEntry* expire(const std::string& name, RouterKind k) {
        return cache.notifyTimeoutExpiresAndGetEntry(&changed, &timeout, name, k);
    }
    NetworkEntry* expire(const std::string& name, NetworkKind k) {
        return cache.notifyTimeoutExpiresAndGetEntry(&changed, &timeout, name, k);
    }
    DnsServerEntry* expire(const std::string& name, DnsServerKind k) {
        return cache.notifyTimeoutExpiresAndGetEntry(&changed, &timeout, name, k);
    }

    time_t now = kT0;
    CacheMgr cache{[this] { return now; }};
    // Out-values of the last push or expiry; preset so that a test sees them being written.
    bool changed = true;
    uint32_t timeout = 12345;
};

}  // namespace solicd::test
