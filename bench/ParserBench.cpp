// The RA parser and the RS builder beside references measured in the same run: a plain copy of
// the same RA bytes, and the two zeroed scratch allocations the RS builder makes. Figures are
// meant as ratios to the references; absolute times only as context.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <net/if_arp.h>

#include <cstdlib>
#include <cstring>
#include <vector>

#include "PacketParser.h"
#include "RaVectors.h"

namespace {

using solicd::PacketParser;
using solicd::golden::kTypicalRa;

constexpr int32_t kScratchBufferSize = 65535;

kt_ip_address_t routerAddress() {
    kt_ip_address_t a{};
    a.family = KT_AF_INET6;
    inet_pton(AF_INET6, "fe80::1", a.bytes);
    return a;
}

// Reference: copying the RA's bytes once, the least any consumer of them does.
void BM_Reference_CopyRa(benchmark::State& state) {
    uint8_t copy[sizeof kTypicalRa];
    for (auto _ : state) {
        benchmark::DoNotOptimize(kTypicalRa);
        std::memcpy(copy, kTypicalRa, sizeof kTypicalRa);
        benchmark::DoNotOptimize(copy);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * sizeof kTypicalRa);
}
BENCHMARK(BM_Reference_CopyRa);

// As the RA handler uses it: fresh record lists for every message (PIO + RDNSS of two addresses).
void BM_RaParser_TypicalRa(benchmark::State& state) {
    PacketParser parser;
    const kt_ip_address_t source = routerAddress();
    for (auto _ : state) {
        std::vector<solicd::SolRouter::Config> routers;
        std::vector<solicd::SolNetwork::Config> networks;
        std::vector<solicd::SolDnsServer::Config> dnsServers;
        benchmark::DoNotOptimize(
            parser.raParser(routers, networks, dnsServers, source, kTypicalRa, sizeof kTypicalRa));
        benchmark::DoNotOptimize(dnsServers.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * sizeof kTypicalRa);
}
BENCHMARK(BM_RaParser_TypicalRa);

// The parsing alone: the lists keep their capacity between messages.
void BM_RaParser_TypicalRaReusedLists(benchmark::State& state) {
    PacketParser parser;
    const kt_ip_address_t source = routerAddress();
    std::vector<solicd::SolRouter::Config> routers;
    std::vector<solicd::SolNetwork::Config> networks;
    std::vector<solicd::SolDnsServer::Config> dnsServers;
    for (auto _ : state) {
        routers.clear();
        networks.clear();
        dnsServers.clear();
        benchmark::DoNotOptimize(
            parser.raParser(routers, networks, dnsServers, source, kTypicalRa, sizeof kTypicalRa));
        benchmark::DoNotOptimize(dnsServers.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * sizeof kTypicalRa);
}
BENCHMARK(BM_RaParser_TypicalRaReusedLists);

// Reference: the two zeroed 65,535-byte scratch buffers alone, allocated and released.
void BM_Reference_TwoScratchBuffers(benchmark::State& state) {
    for (auto _ : state) {
        void* a = std::calloc(kScratchBufferSize, 1);
        void* b = std::calloc(kScratchBufferSize, 1);
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
        std::free(b);
        std::free(a);
    }
}
BENCHMARK(BM_Reference_TwoScratchBuffers);

void BM_InsertRsMsg(benchmark::State& state) {
    solicd::SocketMgr::IfConfig config{};
    config.hwaddr.sa_family = ARPHRD_ETHER;
    const uint8_t hw[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    std::memcpy(config.hwaddr.sa_data, hw, sizeof hw);
    inet_pton(AF_INET6, "fe80::1", &config.lladdr.sin6_addr);
    inet_pton(AF_INET6, "ff02::2", &config.rsaddr.sin6_addr);
    solicd::SocketMgr::Message message;
    message.m_data.assign(solicd::kMessageBufferSize, 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(PacketParser::insertRsMsg(config, message));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_InsertRsMsg);

}  // namespace
