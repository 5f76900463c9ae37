// The cache-entry timers with traces disabled, as every RA drives them: re-arming the timer of an
// entry that is already known (one per router, prefix and DNS server of each RA), with a full
// cache's worth of timers in the map, and creating then removing one. The reference beside them is
// one GLib timeout source replaced by another, what every re-arm did before a timer kept its
// source while LAB is off.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "SolApp.h"

namespace solicd {
namespace {

// Routers, networks and DNS servers of a full cache.
constexpr size_t kFullCacheEntries =
    SolApp::Logic::kMaxRouters + SolApp::Logic::kMaxNetworks + SolApp::Logic::kMaxDnsServers;
constexpr uint32_t kLifetimeSeconds = 1800;

gboolean neverCalled(gpointer) {
    return FALSE;
}

std::vector<std::string> entryNames() {
    std::vector<std::string> names;
    for (size_t i = 0; i < kFullCacheEntries; ++i) {
        names.push_back("network/2001:db8:" + std::to_string(i) + "::/64");
    }
    return names;
}

void BM_RearmKnownEntryInFullMap(benchmark::State& state) {
    SolApp::Data data;
    SolApp::Logic logic(&data);
    const std::vector<std::string> names = entryNames();
    for (const std::string& name : names) {
        logic.orderTimeout(name, SolApp::Logic::CacheTimeout::TYPE_NETWORK, kLifetimeSeconds);
    }
    size_t next = 0;
    for (auto _ : state) {
        logic.orderTimeout(names[next], SolApp::Logic::CacheTimeout::TYPE_NETWORK, kLifetimeSeconds);
        next = next + 1 == names.size() ? 0 : next + 1;
    }
}
BENCHMARK(BM_RearmKnownEntryInFullMap);

void BM_CreateThenRemoveEntry(benchmark::State& state) {
    SolApp::Data data;
    SolApp::Logic logic(&data);
    const std::string name = "dns/2001:db8::53";
    for (auto _ : state) {
        logic.orderTimeout(name, SolApp::Logic::CacheTimeout::TYPE_DNS_SERVER, kLifetimeSeconds);
        logic.removeTimeout(name);
    }
}
BENCHMARK(BM_CreateThenRemoveEntry);

// Reference: one GLib timeout source replaced by another.
void BM_ReferenceGlibSourceReplace(benchmark::State& state) {
    guint id = g_timeout_add(kLifetimeSeconds * 1000, &neverCalled, nullptr);
    for (auto _ : state) {
        g_source_remove(id);
        id = g_timeout_add(kLifetimeSeconds * 1000, &neverCalled, nullptr);
    }
    g_source_remove(id);
}
BENCHMARK(BM_ReferenceGlibSourceReplace);

}  // namespace
}  // namespace solicd
