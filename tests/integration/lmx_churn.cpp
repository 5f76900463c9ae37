// Short-lived peers of a daemon, one after another, each under a name of its own, as a metrics
// timer or a hostile member of the mailbox group makes them:
//   lmx_churn DAEMON COUNT
// Peer N creates mailbox churn-PID-N, sends a routers request to mailbox DAEMON, waits for the
// answer and deletes its mailbox. The mailbox directory is $LMX_DIR. Exit status 0 when every
// peer was answered within 5 s, 1 otherwise (the peer's number on stderr), 2 on a usage or set-up
// error.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "SolIf.h"
#include "lmx.h"

namespace {

constexpr int32_t kAnswerMs = 5000;

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fputs("usage: lmx_churn DAEMON COUNT\n", stderr);
        return 2;
    }
    const char* daemonName = argv[1];
    const long count = std::atol(argv[2]);
    if (count < 1 || lmx_init(1, nullptr) != 0) {
        std::fputs("lmx_churn: bad count, or no mailbox service\n", stderr);
        return 2;
    }
    // Located once: the daemon's id holds while its mailbox is there.
    const lmx_mbox_id_t daemon = lmx_locate(daemonName);
    if (daemon == LMX_INVALID_ID) {
        std::fprintf(stderr, "lmx_churn: no mailbox %s\n", daemonName);
        return 2;
    }
    const uint32_t answerOnly[] = {SOLIF_GET_ROUTERS_CFM, 0};
    const std::string prefix = "churn-" + std::to_string(::getpid()) + "-";
    for (long n = 1; n <= count; ++n) {
        const lmx_mbox_id_t self = lmx_create_mailbox((prefix + std::to_string(n)).c_str(), 0);
        if (self == LMX_INVALID_ID ||
            lmx_send(lmx_alloc(sizeof(solif_get_routers_req_t), SOLIF_GET_ROUTERS_REQ), daemon, self) != 0) {
            std::fprintf(stderr, "lmx_churn: peer %ld could not ask (%s)\n", n, std::strerror(errno));
            return 1;
        }
        void* answer = lmx_receive(answerOnly, kAnswerMs, daemon);
        if (answer == nullptr) {
            std::fprintf(stderr, "lmx_churn: peer %ld got no answer within %d ms\n", n, kAnswerMs);
            return 1;
        }
        lmx_free(answer);
        lmx_delete_mailbox(self);
    }
    lmx_exit();
    return 0;
}
