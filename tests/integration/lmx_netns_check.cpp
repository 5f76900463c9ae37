// Mailboxes across network namespaces, as the daemon and its client use them: a forked "daemon"
// enters the namespace given on the command line before it creates its mailbox, the "client"
// stays in the initial one. Checks locate both ways, a request and a large answer, and monitors
// both ways. Exit status 0 when everything arrived; otherwise the failed step on stderr.
//
//   lmx_netns_check /run/netns/NAME      (root; $LMX_DIR names the mailbox directory)
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>

#include "lmx.h"

namespace {

constexpr int kGuardMs = 10000;
constexpr const char* kDaemon = "solicd-netns";
constexpr const char* kClient = "client";
constexpr uint32_t kIndication = 0x1a11630;
constexpr uint32_t kRequest = 0x1a11635;
constexpr uint32_t kAnswer = 0x1a11636;
constexpr size_t kAnswerSize = 300 * 1024;  // more than one packet, as a full show-cache text is

ino_t netnsInode() {
    struct stat st {};
    return ::stat("/proc/self/ns/net", &st) == 0 ? st.st_ino : 0;
}

uint8_t patternAt(size_t i) {
    return static_cast<uint8_t>(i * 29 + 7);
}

int fail(const char* step) {
    std::fprintf(stderr, "lmx_netns_check: %s\n", step);
    return 1;
}

// The daemon's side: enters the namespace, creates its mailbox, waits for the client, monitors
// it, greets it, answers its request, and ends when the client's mailbox goes away.
int runDaemon(const char* netns, int report) {
    const int ns = ::open(netns, O_RDONLY | O_CLOEXEC);
    if (ns < 0 || ::setns(ns, CLONE_NEWNET) != 0) {
        return fail("daemon: cannot enter the network namespace");
    }
    const ino_t inode = netnsInode();
    if (::write(report, &inode, sizeof inode) != sizeof inode) {
        return fail("daemon: cannot report its namespace");
    }
    if (lmx_init(1, nullptr) != 0) {
        return fail("daemon: lmx_init");
    }
    const lmx_mbox_id_t self = lmx_create_mailbox(kDaemon, 0);
    if (self == LMX_INVALID_ID || lmx_locate_async(kClient, nullptr, LMX_LOCATE_SENDER) != 0) {
        return fail("daemon: mailbox or locate");
    }
    for (;;) {
        void* msg = lmx_receive(nullptr, kGuardMs, LMX_ANY_SENDER);
        if (msg == nullptr) {
            return fail("daemon: nothing arrived");
        }
        const uint32_t no = lmx_msgno(msg);
        const lmx_mbox_id_t from = lmx_sender(msg);
        lmx_free(msg);
        if (no == LMX_LOCATE_DEFAULT_NO) {
            if (lmx_monitor(from, nullptr) == 0 || lmx_send(lmx_alloc(144, kIndication), from, self) != 0) {
                return fail("daemon: monitor or greet the client");
            }
        } else if (no == kRequest) {
            auto* answer = static_cast<uint8_t*>(lmx_alloc(kAnswerSize, kAnswer));
            for (size_t i = sizeof kAnswer; i < kAnswerSize; ++i) {
                answer[i] = patternAt(i);
            }
            if (lmx_send(answer, from, self) != 0) {
                return fail("daemon: answer");
            }
        } else if (no == LMX_MONITOR_DEFAULT_NO) {
            lmx_exit();
            return 0;
        }
    }
}

void* expect(uint32_t no, const char* step) {
    void* msg = lmx_receive(nullptr, kGuardMs, LMX_ANY_SENDER);
    if (msg != nullptr && lmx_msgno(msg) != no) {
        lmx_free(msg);
        msg = nullptr;
    }
    if (msg == nullptr) {
        fail(step);
    }
    return msg;
}

int runClient(pid_t daemon, int report) {
    ino_t daemonNs = 0;
    if (::read(report, &daemonNs, sizeof daemonNs) != sizeof daemonNs || daemonNs == netnsInode()) {
        return fail("the daemon is not in another network namespace");
    }
    if (lmx_init(1, nullptr) != 0 || lmx_locate_async(kDaemon, nullptr, LMX_LOCATE_SENDER) != 0) {
        return fail("client: lmx_init or locate");
    }
    void* located = expect(LMX_LOCATE_DEFAULT_NO, "client: the daemon's mailbox was not located");
    if (located == nullptr) {
        return 1;
    }
    const lmx_mbox_id_t daemonId = lmx_sender(located);
    lmx_free(located);
    if (daemonId != lmx_locate(kDaemon) || lmx_monitor(daemonId, nullptr) == 0) {
        return fail("client: locate or monitor the daemon");
    }
    const lmx_mbox_id_t self = lmx_create_mailbox(kClient, 0);
    if (self == LMX_INVALID_ID) {
        return fail("client: mailbox");
    }
    void* greeting = expect(kIndication, "client: no greeting from the daemon");
    if (greeting == nullptr || lmx_sender(greeting) != daemonId) {
        return 1;
    }
    lmx_free(greeting);
    if (lmx_send(lmx_alloc(4, kRequest), daemonId, self) != 0) {
        return fail("client: request");
    }
    auto* answer = static_cast<uint8_t*>(expect(kAnswer, "client: no answer"));
    if (answer == nullptr) {
        return 1;
    }
    bool whole = lmx_size(answer) == kAnswerSize;
    for (size_t i = sizeof kAnswer; whole && i < kAnswerSize; ++i) {
        whole = answer[i] == patternAt(i);
    }
    lmx_free(answer);
    if (!whole) {
        return fail("client: the answer did not arrive whole");
    }
    // Leaving ends the daemon (its monitor of us), which ends our monitor of it.
    lmx_delete_mailbox(self);
    void* gone = expect(LMX_MONITOR_DEFAULT_NO, "client: the daemon's end was not reported");
    if (gone == nullptr || lmx_sender(gone) != daemonId) {
        return 1;
    }
    lmx_free(gone);
    int status = 0;
    ::waitpid(daemon, &status, 0);
    lmx_exit();
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : fail("the daemon failed");
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: lmx_netns_check /run/netns/NAME\n");
        return 2;
    }
    int pipeFds[2];
    if (::pipe(pipeFds) != 0) {
        return fail("pipe");
    }
    const pid_t daemon = ::fork();
    if (daemon == 0) {
        ::close(pipeFds[0]);
        ::_exit(runDaemon(argv[1], pipeFds[1]));
    }
    ::close(pipeFds[1]);
    const int rc = runClient(daemon, pipeFds[0]);
    if (rc != 0) {
        ::kill(daemon, SIGKILL);
        ::waitpid(daemon, nullptr, 0);
    }
    return rc;
}
