#include "SolicctlLink.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace solicd::ctl {
namespace {

constexpr unsigned kMailboxCount = 1;

sigset_t terminationSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

std::string errnoText(int error) {
    return std::string(std::strerror(error));
}

}  // namespace

LmxSession::~LmxSession() {
    if (m_mailbox != LMX_INVALID_ID) {
        lmx_delete_mailbox(m_mailbox);
    }
    if (m_started) {
        lmx_exit();
    }
}

uint32_t LmxSession::start(const std::string& dir, std::string& error) {
    m_dir = dir;
    // The service takes its directory from the environment.
    if (setenv("LMX_DIR", dir.c_str(), 1) != 0 || lmx_init(kMailboxCount, nullptr) != 0) {
        error = "cannot start the mailbox service in " + dir + " (" + errnoText(errno) + "); check --dir";
        return 1;
    }
    m_started = true;
    return 0;
}

uint32_t LmxSession::createMailbox(const std::string& name, std::string& error) {
    m_mailbox = lmx_create_mailbox(name.c_str(), 0);
    if (m_mailbox == LMX_INVALID_ID) {
        error = "cannot create mailbox '" + name + "' in " + m_dir + " (" + errnoText(errno) +
                "); another process may hold it, or the directory is not writable for you";
        return 1;
    }
    return 0;
}

TerminationSignals::TerminationSignals() {
    const sigset_t set = terminationSet();
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    m_fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
}

TerminationSignals::~TerminationSignals() {
    if (m_fd >= 0) {
        close(m_fd);
    }
}

Received waitForMessage(const TerminationSignals& signals, std::optional<Clock::time_point> deadline) {
    Received r;
    for (;;) {
        // Whatever already waits comes first; the descriptor only says when to look again.
        if (void* msg = lmx_receive(nullptr, 0, LMX_ANY_SENDER); msg != nullptr) {
            r.kind = Received::Kind::Message;
            r.message.reset(msg);
            return r;
        }
        if (errno != EAGAIN) {
            r.error = "receiving failed (" + errnoText(errno) + ")";
            return r;
        }
        int timeoutMs = -1;
        if (deadline) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - Clock::now()).count();
            if (left <= 0) {
                r.kind = Received::Kind::Timeout;
                return r;
            }
            timeoutMs = static_cast<int>(left);
        }
        pollfd fds[] = {{lmx_get_fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}};
        const int ready = poll(fds, 2, timeoutMs);
        if (ready < 0 && errno != EINTR) {
            r.error = "waiting failed (" + errnoText(errno) + ")";
            return r;
        }
        if (ready > 0 && (fds[1].revents & POLLIN) != 0) {
            r.kind = Received::Kind::Signal;
            return r;
        }
    }
}

bool admitted(SenderTrust& trust, const void* msg) {
    const uint32_t msgNo = lmx_msgno(msg);
    if (msgNo == LMX_LOCATE_DEFAULT_NO || msgNo == LMX_MONITOR_DEFAULT_NO) {
        return true;
    }
    std::string report;
    if (trust.admits(lmx_name(lmx_sender(msg)), lmx_sender_uid(msg), report)) {
        return true;
    }
    if (!report.empty()) {
        std::fprintf(stderr, "solicctl: %s\n", report.c_str());
    }
    return false;
}

}  // namespace solicd::ctl
