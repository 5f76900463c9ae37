// Cost of SocketMgr::receive next to the bare recvmsg it wraps (the reference), and of the walk
// over one route-netlink datagram. Every receive arm sends one datagram on ::1 and reads it back,
// so the ratio of each to the reference is the overhead receive adds per RA: with the arrival
// interface's name asked of the kernel every time, and kept while the links are watched, as the
// daemon does.
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstring>
#include <vector>

#include "NetlinkDatagram.h"
#include "SocketMgr.h"

using namespace solicd;

namespace {

constexpr size_t kRaSize = 120;

struct LoopbackLink {
    LoopbackLink() {
        receiver = UniqueFd(::socket(AF_INET6, SOCK_DGRAM, 0));
        sender = UniqueFd(::socket(AF_INET6, SOCK_DGRAM, 0));
        address.sin6_family = AF_INET6;
        address.sin6_addr = in6addr_loopback;
        socklen_t length = sizeof address;
        ok = receiver.get() > 0 && sender.get() > 0 &&
             ::bind(receiver.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
             SocketMgr::requestReceptionItems(receiver.get()) &&
             ::setsockopt(sender.get(), IPPROTO_IPV6, IPV6_UNICAST_HOPS, &kNdHopLimit, sizeof kNdHopLimit) ==
                 0 &&
             ::getsockname(receiver.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0;
    }

    bool send() const {
        return ::sendto(sender.get(), payload.data(), payload.size(), 0,
                        reinterpret_cast<const sockaddr*>(&address),
                        sizeof address) == static_cast<ssize_t>(payload.size());
    }

    UniqueFd receiver;
    UniqueFd sender;
    struct sockaddr_in6 address {};
    std::vector<uint8_t> payload = std::vector<uint8_t>(kRaSize, 0x86);
    bool ok = false;
};

class BenchSocket : public SocketMgr {
public:
    BenchSocket(UniqueFd socket, bool watchLinks) {
        adoptSocket(std::move(socket), "", "lo");
        if (watchLinks) {
            getArrivalNames().watch();
        }
    }
};

void BM_RecvmsgReference(benchmark::State& state) {
    LoopbackLink link;
    if (!link.ok) {
        state.SkipWithError("no IPv6 loopback");
        return;
    }
    std::vector<uint8_t> data(kMessageBufferSize);
    for (auto _ : state) {
        link.send();
        struct sockaddr_in6 source {};
        struct iovec scatter {
            data.data(), data.size()
        };
        alignas(struct cmsghdr) uint8_t control[kReceiveControlSize];
        struct msghdr header {};
        header.msg_name = &source;
        header.msg_namelen = sizeof source;
        header.msg_iov = &scatter;
        header.msg_iovlen = 1;
        header.msg_control = control;
        header.msg_controllen = sizeof control;
        benchmark::DoNotOptimize(::recvmsg(link.receiver.get(), &header, 0));
    }
}
BENCHMARK(BM_RecvmsgReference);

void receiveLoop(benchmark::State& state, bool watchLinks) {
    LoopbackLink link;
    if (!link.ok) {
        state.SkipWithError("no IPv6 loopback");
        return;
    }
    BenchSocket mgr(std::move(link.receiver), watchLinks);
    SocketMgr::Message message;
    for (auto _ : state) {
        link.send();
        mgr.receive(message);
        if (message.m_state != SocketMgr::Message::MSG_STATE_RX_OK) {
            state.SkipWithError("datagram not accepted");
            break;
        }
    }
}

void BM_SocketMgrReceive_NameAskedEachTime(benchmark::State& state) {
    receiveLoop(state, false);
}
BENCHMARK(BM_SocketMgrReceive_NameAskedEachTime);

void BM_SocketMgrReceive_NameKeptWhileLinksWatched(benchmark::State& state) {
    receiveLoop(state, true);
}
BENCHMARK(BM_SocketMgrReceive_NameKeptWhileLinksWatched);

char* resolve(unsigned, char* name) {
    return std::strcpy(name, "veth0");
}

void BM_NetlinkWalkNewAddress(benchmark::State& state) {
    test::NetlinkDatagram datagram;
    datagram.newAddress(AF_INET6, IFA_F_PERMANENT, 2,
                        {test::NetlinkDatagram::address(IFA_ADDRESS, "fe80::1"),
                         test::NetlinkDatagram::attribute(IFA_CACHEINFO, std::vector<uint8_t>(16, 0xff)),
                         test::NetlinkDatagram::attribute(IFA_FLAGS, {0x80, 0, 0, 0})});
    struct sockaddr_in6 lladdr {};
    for (auto _ : state) {
        benchmark::DoNotOptimize(findLinkLocalInNetlink(datagram.bytes().data(), datagram.bytes().size(),
                                                        "veth0", &resolve, lladdr));
    }
}
BENCHMARK(BM_NetlinkWalkNewAddress);

}  // namespace
