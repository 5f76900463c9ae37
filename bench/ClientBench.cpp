// Client messages at full cache size (64 routers, 128 DNS servers, a whole show-cache dump):
// building them with LmxMgr::Message and decoding them as solicctl does, each beside a reference
// measured in the same run (allocating the same buffer and copying the same bytes in). Figures
// are meant as ratios to the references; absolute times only as context.
#include <benchmark/benchmark.h>

#include <cstring>
#include <list>
#include <string>
#include <vector>

#include "ClientRecords.h"
#include "LmxMgr.h"
#include "SolIf.h"
#include "lmx.h"

namespace {

using namespace solicd;
using namespace solicd::test;

constexpr uint32_t kRouters = 64;
constexpr uint32_t kDnsServers = 128;

std::vector<SolRouter> routers() {
    std::vector<SolRouter> out;
    for (uint32_t i = 0; i < kRouters; ++i) {
        out.push_back(makeRouter(i + 1));
    }
    return out;
}

// The text of a full cache, as long as the daemon's dump of one.
std::string fullDump() {
    std::string text = "\nRouters:";
    for (uint32_t i = 0; i < kRouters; ++i) {
        text += toStr(makeRouter(i + 1)) + "\n";
    }
    text += "\nNetworks:";
    for (uint32_t i = 0; i < 2 * kRouters; ++i) {
        text += toStr(makeNetwork(i + 1)) + "\n";
    }
    text += "\nDNS Servers:";
    for (uint32_t i = 0; i < kDnsServers; ++i) {
        text += toStr(makeDnsServer(i)) + "\n";
    }
    return text + "\nCounters:";
}

// Reference: the buffer of a routers answer, and each router's two data parts copied in.
void BM_Reference_RoutersCfmCopy(benchmark::State& state) {
    const auto rs = routers();
    for (auto _ : state) {
        auto* msg = static_cast<solif_get_routers_cfm_t*>(lmx_alloc(solifGetRoutersCfmSize(kRouters), 0));
        for (uint32_t i = 0; i < kRouters; ++i) {
            std::memcpy(&solifEntry(*msg, i)->config, &rs[i].m_config.data(), sizeof(sol_router_config_t));
            std::memcpy(&solifEntry(*msg, i)->status, &rs[i].m_status.data(), sizeof(sol_status_t));
        }
        benchmark::DoNotOptimize(msg);
        lmx_free(msg);
    }
}
BENCHMARK(BM_Reference_RoutersCfmCopy);

void BM_Message_RoutersCfm64(benchmark::State& state) {
    const auto rs = routers();
    LmxMgr::Message m;
    for (auto _ : state) {
        m.setTxGetRoutersCfm(kRouters);
        for (const auto& r : rs) {
            m.setTxGetRoutersCfmPush(r);
        }
        benchmark::DoNotOptimize(m.m_data.m_buffer);
    }
}
BENCHMARK(BM_Message_RoutersCfm64);

void BM_Message_DnsList128(benchmark::State& state) {
    std::list<SolDnsServer> servers;
    for (uint32_t i = 0; i < kDnsServers; ++i) {
        servers.push_back(makeDnsServer(i));
    }
    LmxMgr::Message m;
    for (auto _ : state) {
        m.setTxDnsServersUpdatedInd(servers);
        benchmark::DoNotOptimize(m.m_data.m_buffer);
    }
}
BENCHMARK(BM_Message_DnsList128);

// Reference: the buffer of the text answer and the text copied in.
void BM_Reference_ShowTextCopy(benchmark::State& state) {
    const std::string text = fullDump();
    for (auto _ : state) {
        void* msg = lmx_alloc(solifShowRainfoCfmSize(static_cast<uint32_t>(text.size() + 1)), 0);
        std::memcpy(static_cast<char*>(msg) + 8, text.c_str(), text.size() + 1);
        benchmark::DoNotOptimize(msg);
        lmx_free(msg);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_Reference_ShowTextCopy);

void BM_Message_ShowTextFullCache(benchmark::State& state) {
    const std::string text = fullDump();
    LmxMgr::Message m;
    for (auto _ : state) {
        m.setTxShowRainfoCfm(text);
        benchmark::DoNotOptimize(m.m_data.m_buffer);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
}
BENCHMARK(BM_Message_ShowTextFullCache);

// Reference: copying the received routers answer out once.
void BM_Reference_RoutersCfmCopyOut(benchmark::State& state) {
    LmxMgr::Message m;
    m.setTxGetRoutersCfm(kRouters);
    for (const auto& r : routers()) {
        m.setTxGetRoutersCfmPush(r);
    }
    std::vector<unsigned char> copy(solifGetRoutersCfmSize(kRouters));
    for (auto _ : state) {
        std::memcpy(copy.data(), m.m_data.m_buffer, copy.size());
        benchmark::DoNotOptimize(copy.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Reference_RoutersCfmCopyOut);

// solicctl's checked decoding of the same answer into records.
void BM_Decode_RoutersCfm64(benchmark::State& state) {
    LmxMgr::Message m;
    m.setTxGetRoutersCfm(kRouters);
    for (const auto& r : routers()) {
        m.setTxGetRoutersCfmPush(r);
    }
    SolifMessage out;
    std::string error;
    for (auto _ : state) {
        solifDecode(m.m_data.m_buffer, solifGetRoutersCfmSize(kRouters), out, error);
        benchmark::DoNotOptimize(out.routers.data());
    }
}
BENCHMARK(BM_Decode_RoutersCfm64);

}  // namespace
