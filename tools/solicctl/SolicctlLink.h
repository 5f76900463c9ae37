// solicctl's use of the mailbox service: the session for this process, waiting for the next
// message with a deadline while SIGINT and SIGTERM end the wait, and received buffers as owners.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "SenderTrust.h"
#include "lmx.h"

namespace solicd::ctl {

struct LmxFree {
    void operator()(void* msg) const { lmx_free(msg); }
};
using LmxBuffer = std::unique_ptr<void, LmxFree>;

// The service for this process, started in `dir`; ends it (mailbox included) when destroyed.
class LmxSession {
public:
    LmxSession() = default;
    ~LmxSession();
    LmxSession(const LmxSession&) = delete;
    LmxSession& operator=(const LmxSession&) = delete;

    // 0 on success; otherwise 1 with `error` saying what failed and what to do.
    uint32_t start(const std::string& dir, std::string& error);
    uint32_t createMailbox(const std::string& name, std::string& error);
    lmx_mbox_id_t mailbox() const { return m_mailbox; }

private:
    std::string m_dir;
    bool m_started = false;
    lmx_mbox_id_t m_mailbox = LMX_INVALID_ID;
};

// SIGINT and SIGTERM, blocked for the whole process and read from a descriptor, so that they
// end a wait instead of the process (which would leave the mailbox behind). SIGPIPE is ignored.
class TerminationSignals {
public:
    TerminationSignals();
    ~TerminationSignals();
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

    int fd() const { return m_fd; }

private:
    int m_fd = -1;
};

using Clock = std::chrono::steady_clock;

struct Received {
    enum class Kind { Message, Timeout, Signal, Error } kind = Kind::Error;
    LmxBuffer message;
    std::string error;  // Error: what failed
};

// The next message, or Timeout at `deadline` (none: wait for ever), or Signal.
Received waitForMessage(const TerminationSignals& signals, std::optional<Clock::time_point> deadline);

// Whether a received message is acted on: the service's own answers (locate, monitor) always, a
// peer's when `trust` admits its sender; the first refusal is said on stderr.
bool admitted(SenderTrust& trust, const void* msg);

}  // namespace solicd::ctl
