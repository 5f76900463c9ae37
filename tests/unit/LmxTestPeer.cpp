// A stand-in for solicd on the real mailbox service, for tests of solicctl and of the client link:
// it holds a mailbox through LmxMgr and answers, stays silent, misbehaves or publishes updates.
// Prints "ready" on stdout once its mailbox exists; ends on SIGTERM or SIGINT.
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <list>
#include <string>

#include "ClientRecords.h"
#include "LmxMgr.h"
#include "LmxTestPeer.h"
#include "SolIf.h"
#include "lmx.h"

using namespace solicd;
using namespace solicd::test;

namespace {

const char* const kUsage =
    "Usage: lmx_test_peer MODE MBOX [SUBSCRIBER]\n"
    "  answer     answer routers requests (routers 1 and 2), show-cache requests (testCacheText())\n"
    "             and health requests (kTestHealthText)\n"
    "  silent     hold the mailbox and answer nothing\n"
    "  malformed  answer routers requests with a routers answer that claims 5 entries in 144 bytes,\n"
    "             show-cache requests with a cache dump cut in the middle of a record, and health\n"
    "             requests with a document of version 7\n"
    "  cut        answer health and show-cache requests with texts longer than the largest message,\n"
    "             which go out cut as solicd cuts them\n"
    "  garbled    answer health requests with a whole text that is not JSON\n"
    "  vanish     end without answering at the first request\n"
    "  publish    when SUBSCRIBER connects, send: router 1 update, network 1 update, DNS list of\n"
    "             servers 0 and 1, a router update of 100 bytes, a message numbered 0x1234, and\n"
    "             router 2 update; again on every reconnection\n"
    "  burst      when SUBSCRIBER connects, send router 1 update; on SIGUSR1 send 100 updates of\n"
    "             network 1 with valid lifetimes 1 to 100 and print \"burst\"\n";

void sendRaw(LmxMgr& mgr, size_t size, uint32_t msgNo, uint32_t count) {
    LmxMgr::Message m;
    m.m_data.m_buffer = lmx_alloc(size, msgNo);
    if (size >= 8) {
        std::memcpy(static_cast<unsigned char*>(m.m_data.m_buffer) + 4, &count, sizeof count);
    }
    mgr.notify(m);
}

void publish(LmxMgr& mgr) {
    LmxMgr::Message m;
    m.setTxRouterUpdatedInd(makeRouter(1));
    mgr.notify(m);
    m.setTxNetworkUpdatedInd(makeNetwork(1));
    mgr.notify(m);
    m.setTxDnsServersUpdatedInd(std::list<SolDnsServer>{makeDnsServer(0), makeDnsServer(1)});
    mgr.notify(m);
    sendRaw(mgr, kShortRouterUpdate, SOLIF_ROUTER_UPDATED_IND, 0);
    sendRaw(mgr, sizeof(uint32_t), kForeignMsgNo, 0);
    m.setTxRouterUpdatedInd(makeRouter(2));
    mgr.notify(m);
}

// One prefix, changed 100 times in a row: its valid lifetime counts 1 to 100.
void burst(LmxMgr& mgr) {
    constexpr uint32_t kUpdates = 100;
    for (uint32_t i = 1; i <= kUpdates; ++i) {
        SolNetwork n = makeNetwork(1);
        n.m_config.validLifetime = i;
        n.m_status.state = static_cast<uint32_t>(sol_network_state_t::STATE_NEW);
        LmxMgr::Message m;
        m.setTxNetworkUpdatedInd(n);
        mgr.notify(m);
    }
    std::printf("burst\n");
    std::fflush(stdout);
}

// Answers one request as `mode` says; false when the peer is to end.
bool answer(LmxMgr& mgr, const std::string& mode, const LmxMgr::Message& request) {
    const LmxMgr::RxType type = request.getRxType();
    if (type != LmxMgr::RX_TYPE_ROUTERS_REQ && type != LmxMgr::RX_TYPE_CLICMD_SHOW_CACHE_REQ &&
        type != LmxMgr::RX_TYPE_HEALTH_REQ) {
        return true;
    }
    if (mode == "vanish") {
        return false;
    }
    LmxMgr::Message reply;
    if (type == LmxMgr::RX_TYPE_ROUTERS_REQ) {
        if (mode == "malformed") {
            reply.m_data.m_buffer = lmx_alloc(solifGetRoutersCfmSize(0), SOLIF_GET_ROUTERS_CFM);
            static_cast<solif_get_routers_cfm_t*>(reply.m_data.m_buffer)->count = 5;
        } else {
            reply.setTxGetRoutersCfm(2);
            reply.setTxGetRoutersCfmPush(makeRouter(1));
            reply.setTxGetRoutersCfmPush(makeRouter(2));
        }
    } else if (type == LmxMgr::RX_TYPE_HEALTH_REQ) {
        if (mode == "cut") {
            // Whole, a valid document; it does not fit.
            std::string text = kTestHealthText;
            text.insert(text.size() - 1, ",\"padding\":\"" + std::string(lmx_get_max_size(), 'x') + "\"");
            reply.setTxHealthCfm(text);
        } else {
            reply.setTxHealthCfm(mode == "malformed" ? "{\"version\":7}"
                                 : mode == "garbled" ? "{\"version\":1,\"routers\":["
                                                     : kTestHealthText);
        }
    } else {
        const std::string text = testCacheText();
        reply.setTxShowRainfoCfm(mode == "malformed" ? text.substr(0, text.size() / 2)
                                 : mode == "cut"     ? text + std::string(lmx_get_max_size(), '\n')
                                                     : text);
    }
    mgr.respond(request, reply);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    const std::string mode = argv[1];
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGUSR1);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    const int sigFd = signalfd(-1, &set, SFD_CLOEXEC);

    LmxMgr mgr;
    if (mgr.init(argv[2], argc > 3 ? argv[3] : "") != 0) {
        std::fprintf(stderr, "lmx_test_peer: cannot hold mailbox %s\n", argv[2]);
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    for (;;) {
        pollfd fds[] = {{mgr.getFd(), POLLIN, 0}, {sigFd, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            break;
        }
        if ((fds[1].revents & POLLIN) != 0) {
            signalfd_siginfo info{};
            if (read(sigFd, &info, sizeof info) == sizeof info && info.ssi_signo == SIGUSR1 &&
                mode == "burst") {
                burst(mgr);
                continue;
            }
            break;
        }
        const uint32_t before = mgr.getDstMboxState();
        LmxMgr::Message request;
        if (mgr.receive(request) != 0) {
            continue;
        }
        if (before != LmxMgr::DST_MBOX_STATE_CONNECTED &&
            mgr.getDstMboxState() == LmxMgr::DST_MBOX_STATE_CONNECTED) {
            if (mode == "publish") {
                publish(mgr);
            } else if (mode == "burst") {
                LmxMgr::Message m;
                m.setTxRouterUpdatedInd(makeRouter(1));
                mgr.notify(m);
            }
        }
        if (mode != "silent" && !answer(mgr, mode, request)) {
            _exit(0);  // gone without a word, as a crashed daemon would be
        }
    }
    close(sigFd);
    return 0;
}
