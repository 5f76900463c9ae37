// The cache's hot paths with traces disabled, as the daemon runs them: the steady-state push of an
// unchanged config (every RA repeats its router, prefixes and DNS servers), the push of a new
// entry, the push into a full store that must evict, one timer expiry, and the active-network
// list. The references beside them are the two things every push must do anyway: name the config
// and look the name up.
#include <benchmark/benchmark.h>

#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "CacheMgr.h"

namespace solicd {
namespace {

constexpr size_t kMaxRouters = 64;
constexpr size_t kMaxNetworks = 128;
constexpr size_t kMaxDnsServers = 128;
constexpr time_t kT0 = 1700000000;

kt_ip_address_t address(uint8_t first, uint8_t second, uint64_t low) {
    kt_ip_address_t a{};
    a.family = KT_AF_INET6;
    a.bytes[0] = first;
    a.bytes[1] = second;
    for (int i = 0; i < 8; ++i) {
        a.bytes[15 - i] = static_cast<uint8_t>(low >> (8 * i));
    }
    return a;
}

SolRouter::Config router(uint64_t n, uint16_t lifetime = 1800) {
    SolRouter::Config c;
    c.address = address(0xfe, 0x80, n);
    c.routerLifetime = lifetime;
    c.reachableTime = 30000;
    c.retransTimer = 1000;
    c.flags = FLAG_OTHER;
    return c;
}

// 2001:<site>:<n>::/64; a higher site sorts after a lower one by name.
SolNetwork::Config network(uint32_t n, uint32_t valid = 86400, uint32_t preferred = 14400,
                           uint16_t site = 0) {
    SolNetwork::Config c;
    c.prefix = address(0x20, 0x01, 0);
    c.prefix.bytes[2] = static_cast<uint8_t>(site >> 8);
    c.prefix.bytes[3] = static_cast<uint8_t>(site);
    for (int i = 0; i < 4; ++i) {
        c.prefix.bytes[7 - i] = static_cast<uint8_t>(n >> (8 * i));
    }
    c.prefixLength = 64;
    c.validLifetime = valid;
    c.preferredLifetime = preferred;
    c.flags = FLAG_ON_LINK | FLAG_AUTONOMOUS;
    return c;
}

SolDnsServer::Config dnsServer(uint64_t n, uint32_t lifetime = 600) {
    SolDnsServer::Config c;
    c.address = address(0x20, 0x01, n);
    c.lifetime = lifetime;
    return c;
}

struct Clocked {
    time_t now = kT0;
    CacheMgr cache{[this] { return now; }};
    Clocked() { cache.setMaxCacheSizes(kMaxRouters, kMaxNetworks, kMaxDnsServers); }
};

template <class Config>
void pushUnchanged(benchmark::State& state, const Config& config) {
    Clocked c;
    bool changed = false;
    uint32_t timeout = 0;
    c.cache.pushConfigAndGetEntry(config, &changed, &timeout);
    c.cache.pushConfigAndGetEntry(config, &changed, &timeout);  // to STATE_UPDATED: steady from here
    for (auto _ : state) {
        benchmark::DoNotOptimize(c.cache.pushConfigAndGetEntry(config, &changed, &timeout));
        ++c.now;
    }
    if (changed) {
        state.SkipWithError("steady-state push reported a change");
    }
}

void BM_PushUnchangedRouter(benchmark::State& state) {
    pushUnchanged(state, router(1));
}
void BM_PushUnchangedNetwork(benchmark::State& state) {
    pushUnchanged(state, network(1));
}
void BM_PushUnchangedDnsServer(benchmark::State& state) {
    pushUnchanged(state, dnsServer(0x53));
}

// Fills an empty network store; the store is rebuilt, untimed, once it is full.
void BM_PushNewNetwork(benchmark::State& state) {
    std::vector<SolNetwork::Config> configs;
    for (uint32_t i = 1; i <= kMaxNetworks; ++i) {
        configs.push_back(network(i));
    }
    auto c = std::make_unique<Clocked>();
    size_t next = 0;
    for (auto _ : state) {
        if (next == configs.size()) {
            state.PauseTiming();
            c = std::make_unique<Clocked>();
            next = 0;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(c->cache.pushConfigAndGetEntry(configs[next++], nullptr, nullptr));
    }
}

// Every push names a new prefix into a full store: 127 active prefixes and one invalidated one
// whose name sorts below all of them, so the search for a victim walks the whole store.
void BM_PushEvictingNetwork(benchmark::State& state) {
    constexpr uint16_t kActiveSite = 0xffff;
    Clocked c;
    for (uint32_t i = 1; i < kMaxNetworks; ++i) {
        c.cache.pushConfigAndGetEntry(network(i, 86400, 14400, kActiveSite), nullptr, nullptr);
    }
    uint32_t n = 1;
    c.cache.pushConfigAndGetEntry(network(n++, 0, 0), nullptr, nullptr);
    for (auto _ : state) {
        NetworkEntry* e = c.cache.pushConfigAndGetEntry(network(n++, 0, 0), nullptr, nullptr);
        if (e == nullptr) {
            state.SkipWithError("full store did not evict");
            break;
        }
    }
}

// One router timer expiring; the store of 64 is re-advertised, untimed, once all have expired.
void BM_ExpireRouter(benchmark::State& state) {
    Clocked c;
    std::vector<std::string> names;
    for (uint64_t i = 1; i <= kMaxRouters; ++i) {
        names.push_back(router(i).getName());
    }
    auto readvertise = [&] {
        for (uint64_t i = 1; i <= kMaxRouters; ++i) {
            c.cache.pushConfigAndGetEntry(router(i), nullptr, nullptr);
        }
        c.now += 1800;
    };
    readvertise();
    size_t next = 0;
    bool changed = false;
    uint32_t timeout = 0;
    for (auto _ : state) {
        if (next == names.size()) {
            state.PauseTiming();
            readvertise();
            next = 0;
            state.ResumeTiming();
        }
        benchmark::DoNotOptimize(
            c.cache.notifyTimeoutExpiresAndGetEntry(&changed, &timeout, names[next++], RouterKind{}));
    }
    if (!changed) {
        state.SkipWithError("expiry did not expire");
    }
}

void BM_GetActiveNetworksFull(benchmark::State& state) {
    Clocked c;
    // Pushed in reverse name order so that the id sort has work to do.
    for (uint32_t i = kMaxNetworks; i >= 1; --i) {
        c.cache.pushConfigAndGetEntry(network(i), nullptr, nullptr);
    }
    for (auto _ : state) {
        std::list<NetworkEntry*> active;
        c.cache.getActiveNetworks(active);
        benchmark::DoNotOptimize(active.size());
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kMaxNetworks));
}

// ---- References ----

void BM_ReferenceNameNetwork(benchmark::State& state) {
    const SolNetwork::Config config = network(1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(config.getName());
    }
}

void BM_ReferenceNameAndFindNetwork(benchmark::State& state) {
    std::map<std::string, int> names;
    for (uint32_t i = 1; i <= kMaxNetworks; ++i) {
        names.emplace(network(i).getName(), 0);
    }
    const SolNetwork::Config config = network(1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(names.find(config.getName()));
    }
}

BENCHMARK(BM_PushUnchangedRouter);
BENCHMARK(BM_PushUnchangedNetwork);
BENCHMARK(BM_PushUnchangedDnsServer);
BENCHMARK(BM_PushNewNetwork);
BENCHMARK(BM_PushEvictingNetwork);
BENCHMARK(BM_ExpireRouter);
BENCHMARK(BM_GetActiveNetworksFull);
BENCHMARK(BM_ReferenceNameNetwork);
BENCHMARK(BM_ReferenceNameAndFindNetwork);

}  // namespace
}  // namespace solicd
