// The mailbox service's cost per message against the bare socket it runs on: one process sends
// to its own mailbox and takes the message back (allocation, fragmenting, reassembly, inbox),
// beside a SOCK_SEQPACKET socket pair carrying the same bytes in packets of the same size. The
// service's thread takes the message in and hands it to the receiving thread, so a small
// message's round trip includes two thread wake-ups; a large one's fragments are taken in while
// the sender still sends.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "lmx.h"

namespace {

constexpr uint32_t kNo = 0x1a11636;
constexpr size_t kPacketPayload = 64 * 1024 - 8;  // what one packet of the service carries

class MailboxDir {
public:
    MailboxDir() {
        char root[] = "/tmp/lmx-bench.XXXXXX";
        m_root = ::mkdtemp(root);
        ::setenv("LMX_DIR", (m_root + "/mbox").c_str(), 1);
    }
    ~MailboxDir() { std::filesystem::remove_all(m_root); }

private:
    std::string m_root;
};

void BM_LmxSendReceiveSelf(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    MailboxDir dir;
    lmx_init(1, nullptr);
    const lmx_mbox_id_t self = lmx_create_mailbox("bench", 0);
    for (auto _ : state) {
        if (lmx_send(lmx_alloc(size, kNo), self, self) != 0) {
            state.SkipWithError("lmx_send failed");
            break;
        }
        void* msg = nullptr;
        while (msg == nullptr) {
            msg = lmx_receive(nullptr, -1, LMX_ANY_SENDER);
        }
        benchmark::DoNotOptimize(msg);
        lmx_free(msg);
    }
    lmx_exit();
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

// The reference: the same bytes through a socket pair, cut into the same packets, no service.
void BM_RawSeqpacketPair(benchmark::State& state) {
    const auto size = static_cast<size_t>(state.range(0));
    int pair[2];
    ::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair);
    const int buffer = 1024 * 1024;
    ::setsockopt(pair[0], SOL_SOCKET, SO_SNDBUF, &buffer, sizeof buffer);
    std::vector<uint8_t> out(size, 1);
    std::vector<uint8_t> in(kPacketPayload);
    for (auto _ : state) {
        // Sent and taken one packet at a time so no buffer limit matters.
        for (size_t at = 0; at < size; at += kPacketPayload) {
            const size_t chunk = std::min(kPacketPayload, size - at);
            if (::send(pair[0], out.data() + at, chunk, 0) != static_cast<ssize_t>(chunk) ||
                ::recv(pair[1], in.data(), in.size(), 0) != static_cast<ssize_t>(chunk)) {
                state.SkipWithError("socket pair failed");
                break;
            }
        }
        benchmark::DoNotOptimize(in.data());
    }
    ::close(pair[0]);
    ::close(pair[1]);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * size));
}

// A router indication, a mid-size answer, one full packet, and the largest message.
#define SIZES Arg(144)->Arg(4096)->Arg(65528)->Arg(1024 * 1024)
BENCHMARK(BM_LmxSendReceiveSelf)->SIZES;
BENCHMARK(BM_RawSeqpacketPair)->SIZES;

}  // namespace
