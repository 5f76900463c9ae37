// Runs the hook programs of `solicctl hooks`: for each event every executable file of the hooks
// directory, in name order, one at a time, each in a process group of its own with a time limit
// (then SIGTERM to the group, and SIGKILL 2 s later). Never blocks: the caller polls fd() and
// calls advance() when it is readable or deadline() has come, and reads its mailbox meanwhile.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "HookState.h"

namespace solicd::ctl {

using Variables = std::vector<std::pair<std::string, std::string>>;

// The executable regular files of `dir` (symbolic links followed), sorted by name; empty when
// the directory is missing.
std::vector<std::string> hookPrograms(const std::string& dir);

// The environment of one hook run: this process's environment without any variable the hooks
// define, then `fixed` (namespace, interface, mailbox), SOLICD_REASON and the event's variables.
std::vector<std::string> hookEnvironment(char** inherited, const Variables& fixed, const HookEvent& event);

class HookRunner {
public:
    HookRunner(std::string dir, std::chrono::seconds limit, Variables fixed);
    ~HookRunner();
    HookRunner(const HookRunner&) = delete;
    HookRunner& operator=(const HookRunner&) = delete;

    // Queues the event's runs (the directory is read now) and starts the first if idle.
    void enqueue(const HookEvent& event);
    bool busy() const { return m_child > 0 || !m_queue.empty(); }

    // Readable when the running hook has ended; -1 when none runs.
    int fd() const { return m_pidFd; }
    std::optional<std::chrono::steady_clock::time_point> deadline() const;

    // Reaps an ended hook and reports a failure, escalates a hook past its time, starts the next.
    void advance();

    // Ends a running hook (SIGTERM, SIGKILL after 2 s) and forgets the queue.
    void stop();

private:
    struct Run {
        std::string program;
        HookEvent event;
    };
    void startNext();
    void reap(int status);
    void forgetChild();

    std::string m_dir;
    std::chrono::seconds m_limit;
    Variables m_fixed;
    std::deque<Run> m_queue;
    pid_t m_child = -1;
    int m_pidFd = -1;
    std::string m_running;  // "NAME for REASON"
    std::chrono::steady_clock::time_point m_deadline;
    bool m_terminated = false;  // SIGTERM sent; SIGKILL at m_deadline
};

}  // namespace solicd::ctl
