#include "HooksCommand.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "DnsHold.h"
#include "HookRunner.h"
#include "HookState.h"
#include "MailboxAccess.h"
#include "SolIf.h"
#include "SolicctlLink.h"

namespace solicd::ctl {
namespace {

// A whole-cache push comes as one burst right after solicd finds its client: it is taken as
// over once nothing more came for a moment, at least a second after solicd was found, and at
// the latest after five.
constexpr std::chrono::milliseconds kPushQuiet{300};
constexpr std::chrono::seconds kPushMin{1};
constexpr std::chrono::seconds kPushMax{5};

void say(const std::string& text) {
    std::fprintf(stderr, "solicctl: %s\n", text.c_str());
}

// When the push being received is over; none while no push is expected now.
class PushWindow {
public:
    void open(Clock::time_point now) {
        m_start = now;
        m_last = now;
        m_open = true;
    }
    void close() { m_open = false; }
    bool isOpen() const { return m_open; }
    void noteMessage(Clock::time_point now) { m_last = now; }
    std::optional<Clock::time_point> end() const {
        if (!m_open) {
            return std::nullopt;
        }
        return std::min(std::max(m_start + kPushMin, m_last + kPushQuiet), m_start + kPushMax);
    }

private:
    bool m_open = false;
    Clock::time_point m_start;
    Clock::time_point m_last;
};

int pollTimeoutMs(std::initializer_list<std::optional<Clock::time_point>> deadlines) {
    std::optional<Clock::time_point> first;
    for (const auto& d : deadlines) {
        if (d && (!first || *d < *first)) {
            first = d;
        }
    }
    if (!first) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*first - Clock::now()).count();
    return left < 0 ? 0 : static_cast<int>(left);
}

}  // namespace

int runHooks(const Options& o) {
    std::string error;
    if (!mailboxDirectoryUsable(o.dir, error)) {
        say(error);
        return kExitFailed;
    }
    if (hookPrograms(o.hooksDir).empty()) {
        say("no hook programs in " + o.hooksDir +
            " (missing or empty); nothing will run until some are there");
    }
    const TerminationSignals signals;
    LmxSession session;
    if (session.start(o.dir, error) != 0 || session.createMailbox(o.mbox, error) != 0) {
        say(error);
        return kExitFailed;
    }
    HookRunner runner(
        o.hooksDir, std::chrono::seconds(o.timeoutSec),
        {{"SOLICD_NAMESPACE", o.netns}, {"SOLICD_INTERFACE", o.interface}, {"SOLICD_MAILBOX", o.mbox}});
    HookState state;
    DnsMemory memory(o.stateFile);
    state.rememberDns(memory.load(error));
    if (!error.empty()) {
        say(error);
    }
    // Until when the DNS servers known before a push are held through it: solicd's first
    // solicitation cycle has ended by then. Nothing is held without solicd's own mailbox.
    int64_t holdUntil = 0;
    PushWindow push;
    SenderTrust trust(o.daemon, geteuid());
    // Without solicd's own mailbox the push is expected once, now; with it, whenever solicd
    // (again) exists.
    if (o.daemon.empty()) {
        push.open(Clock::now());
    } else if (lmx_locate_async(o.daemon.c_str(), nullptr, LMX_LOCATE_SENDER) != 0) {
        say("cannot look for mailbox '" + o.daemon + "' (" + std::strerror(errno) + ")");
        return kExitFailed;
    }

    for (;;) {
        pollfd fds[] = {{lmx_get_fd(), POLLIN, 0}, {signals.fd(), POLLIN, 0}, {runner.fd(), POLLIN, 0}};
        std::optional<Clock::time_point> holdEnd;
        if (const auto end = state.nextHoldEnd()) {
            holdEnd = Clock::now() + std::chrono::seconds(*end - std::time(nullptr));
        }
        const int ready =
            poll(fds, runner.fd() >= 0 ? 3 : 2, pollTimeoutMs({push.end(), runner.deadline(), holdEnd}));
        if (ready < 0 && errno != EINTR) {
            say(std::string("waiting failed (") + std::strerror(errno) + ")");
            return kExitFailed;
        }
        if (ready > 0 && (fds[1].revents & POLLIN) != 0) {
            runner.stop();
            return kExitOk;
        }
        // Everything that waits, merged into the pending batch: the mailbox is read all the time,
        // hooks running or not, so solicd's queue to it never fills.
        while (void* raw = lmx_receive(nullptr, 0, LMX_ANY_SENDER)) {
            const LmxBuffer msg(raw);
            if (!admitted(trust, raw)) {
                continue;
            }
            const uint32_t msgNo = lmx_msgno(raw);
            if (msgNo == LMX_LOCATE_DEFAULT_NO) {
                lmx_monitor(lmx_sender(raw), nullptr);
                push.open(Clock::now());
                holdUntil = firstCycleEnd(o.dir, o.daemon, std::time(nullptr));
                continue;
            }
            if (msgNo == LMX_MONITOR_DEFAULT_NO) {
                // solicd ended: the one that comes next starts from an empty cache.
                say("'" + o.daemon + "' ended; waiting for it to come back");
                push.close();
                lmx_locate_async(o.daemon.c_str(), nullptr, LMX_LOCATE_SENDER);
                continue;
            }
            SolifMessage update;
            if (solifDecode(raw, lmx_size(raw), update, error) != 0) {
                say("ignored malformed update: " + error);
                continue;
            }
            state.add(update);
            if (push.isOpen()) {
                push.noteMessage(Clock::now());
            }
        }
        if (errno != EAGAIN) {
            say(std::string("receiving failed (") + std::strerror(errno) + ")");
            return kExitFailed;
        }
        runner.advance();
        state.endHolds(std::time(nullptr));
        if (const auto end = push.end(); end && Clock::now() >= *end) {
            push.close();
            runner.enqueue(state.takeResync(std::time(nullptr), holdUntil));
        } else if (!push.isOpen() && !runner.busy() && state.hasPending()) {
            for (const HookEvent& event : state.takeChanges()) {
                runner.enqueue(event);
            }
        }
        memory.save(state.dnsServers(), error);
        if (!error.empty()) {
            say(error);
        }
    }
}

}  // namespace solicd::ctl
