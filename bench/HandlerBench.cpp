// The RA event handler, from the received datagram to the client messages, beside a reference
// measured in the same run: the parser alone on the same RA, the first thing the handler does.
// Figures are meant as ratios to the reference; absolute times only as context.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "RaVectors.h"
#include "SolApp.h"

namespace {

using namespace solicd;
using solicd::golden::kTypicalRa;

kt_ip_address_t routerAddress() {
    kt_ip_address_t a{};
    a.family = KT_AF_INET6;
    inet_pton(AF_INET6, "fe80::1", a.bytes);
    return a;
}

// Hands out the RA it holds, as the socket leaves a received datagram.
class RaSocket : public SocketMgr {
public:
    uint32_t receive(Message& message) override {
        message.m_data.assign(kMessageBufferSize, 0);
        std::copy(ra.begin(), ra.end(), message.m_data.begin());
        message.m_length = ra.size();
        message.m_peer = routerAddress();
        message.m_state = Message::MSG_STATE_RX_OK;
        return 0;
    }
    std::vector<uint8_t> ra{std::begin(kTypicalRa), std::end(kTypicalRa)};
};

// A connected client that takes every message; the buffers go back to the service unsent.
class ConnectedClient : public LmxMgr {
public:
    uint32_t getDstMboxState() const override { return DST_MBOX_STATE_CONNECTED; }
    uint32_t notify(Message& message) override {
        benchmark::DoNotOptimize(message.m_data.m_buffer);
        ++sent;
        return 0;
    }
    uint64_t sent = 0;
};

// No service manager listens, as for a daemon started by hand.
class NoServiceManager : public ServiceNotify {
public:
    bool isEnabled() const override { return false; }
    void status(const std::string&) override {}
    void ready(const std::string&) override {}
};

class BenchData : public SolApp::DataIf {
public:
    BenchData() {
        cache.setMaxCacheSizes(SolApp::Logic::kMaxRouters, SolApp::Logic::kMaxNetworks,
                               SolApp::Logic::kMaxDnsServers);
    }
    ArgParser& getArgParser() override { return args; }
    SocketMgr& getSocketMgr() override { return socket; }
    LmxMgr& getLmxMgr() override { return lmx; }
    CacheMgr& getCacheMgr() override { return cache; }
    PacketParser& getPacketParser() override { return parser; }
    ServiceNotify& getServiceNotify() override { return notify; }

    ArgParser args;
    RaSocket socket;
    ConnectedClient lmx;
    CacheMgr cache;
    PacketParser parser;
    NoServiceManager notify;
};

// Reference: the parse of the same RA into fresh record lists, as the handler does it.
void BM_Reference_ParseTypicalRa(benchmark::State& state) {
    PacketParser parser;
    const kt_ip_address_t source = routerAddress();
    for (auto _ : state) {
        std::vector<SolRouter::Config> routers;
        std::vector<SolNetwork::Config> networks;
        std::vector<SolDnsServer::Config> dnsServers;
        benchmark::DoNotOptimize(
            parser.raParser(routers, networks, dnsServers, source, kTypicalRa, sizeof kTypicalRa));
        benchmark::DoNotOptimize(dnsServers.data());
    }
}
BENCHMARK(BM_Reference_ParseTypicalRa);

// The steady state of a network: the same RA again and again. Nothing changes, nothing is sent,
// but every lifetime restarts its entry's timer (four GLib timer sources removed and added).
void BM_Handler_UnchangedTypicalRa(benchmark::State& state) {
    BenchData data;
    SolApp::Logic logic(&data);
    logic.handleRaSocketEvent();
    logic.handleRaSocketEvent();
    for (auto _ : state) {
        logic.handleRaSocketEvent();
    }
    state.counters["sent"] = static_cast<double>(data.lmx.sent);
}
BENCHMARK(BM_Handler_UnchangedTypicalRa);

// A router whose lifetime changes with every RA: one router message per RA.
void BM_Handler_RouterChangingEveryRa(benchmark::State& state) {
    BenchData data;
    SolApp::Logic logic(&data);
    constexpr size_t kRouterLifetimeOffset = 6;
    logic.handleRaSocketEvent();
    logic.handleRaSocketEvent();
    for (auto _ : state) {
        data.socket.ra[kRouterLifetimeOffset + 1] ^= 1;  // 1800 s and 1801 s in turn
        logic.handleRaSocketEvent();
    }
    state.counters["sentPerRa"] =
        benchmark::Counter(static_cast<double>(data.lmx.sent), benchmark::Counter::kAvgIterations);
}
BENCHMARK(BM_Handler_RouterChangingEveryRa);

}  // namespace
