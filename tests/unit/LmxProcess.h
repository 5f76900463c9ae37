// Helpers for mailbox tests that run real processes: a fresh mailbox directory per test, forked
// peers that talk with the test over pipes, and waits bounded by a generous guard.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>

#include "lmx.h"

namespace solicd::test {

// Long enough for any healthy wait; reached only when the behaviour under test is broken.
constexpr int kGuardMs = 10000;

struct LmxFree {
    void operator()(void* msg) const { lmx_free(msg); }
};
using LmxMessage = std::unique_ptr<void, LmxFree>;

// The next message for this process, waiting at most the guard.
inline LmxMessage receiveWithinGuard() {
    return LmxMessage(lmx_receive(nullptr, kGuardMs, LMX_ANY_SENDER));
}

// Whether `fd` is readable now (waitMs 0) or becomes so within waitMs.
inline bool readable(int fd, int waitMs = 0) {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, waitMs) == 1 && (p.revents & (POLLIN | POLLHUP)) != 0;
}

// How long a quiet descriptor is watched to show that it stays quiet: the service thread does its
// work in well under this.
constexpr int kQuietMs = 200;

// Polls `done` every millisecond until it holds; false if the guard ran out first.
inline bool eventually(const std::function<bool()>& done, int guardMs = kGuardMs) {
    for (int waited = 0; !done(); ++waited) {
        if (waited >= guardMs) {
            return false;
        }
        ::usleep(1000);
    }
    return true;
}

inline size_t openDescriptors() {
    size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        ++count;
    }
    return count;
}

// A forked process running `body`; its exit status is body's result. Both sides exchange bytes
// over two pipes. The destructor kills and reaps a child still running.
class Child {
public:
    explicit Child(const std::function<int(Child&)>& body) {
        int down[2];
        int up[2];
        if (::pipe2(down, O_CLOEXEC) != 0 || ::pipe2(up, O_CLOEXEC) != 0) {
            return;
        }
        m_pid = ::fork();
        if (m_pid == 0) {
            ::close(down[1]);
            ::close(up[0]);
            m_in = down[0];
            m_out = up[1];
            ::_exit(body(*this));
        }
        ::close(down[0]);
        ::close(up[1]);
        m_in = up[0];
        m_out = down[1];
    }
    ~Child() {
        if (m_pid > 0 && !m_reaped) {
            ::kill(m_pid, SIGKILL);
            ::waitpid(m_pid, nullptr, 0);
        }
        ::close(m_in);
        ::close(m_out);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }
    int input() const { return m_in; }

    void say(const void* bytes, size_t size) const {
        if (::write(m_out, bytes, size) != static_cast<ssize_t>(size)) {
            ::abort();
        }
    }
    void say(char c) const { say(&c, 1); }
    // Reads exactly `size` bytes from the other side; false on end of input or after waitMs.
    // A child waits for its test with -1: the test ending closes the pipe.
    bool listen(void* bytes, size_t size, int waitMs = kGuardMs) const {
        auto* at = static_cast<char*>(bytes);
        while (size > 0) {
            if (!readable(m_in, waitMs)) {
                return false;
            }
            const ssize_t n = ::read(m_in, at, size);
            if (n <= 0) {
                return false;
            }
            at += n;
            size -= static_cast<size_t>(n);
        }
        return true;
    }
    // The next byte from the other side; 0 on end of input or after waitMs.
    char listen(int waitMs = kGuardMs) const {
        char c = 0;
        return listen(&c, 1, waitMs) ? c : 0;
    }

    void kill(int sig) const { ::kill(m_pid, sig); }
    // The exit status, or 128 + the signal that ended it; -1 (and killed) if it does not end
    // within the guard.
    int wait() {
        const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, m_pid, 0));
        const bool ended = readable(pidfd, kGuardMs);
        ::close(pidfd);
        if (!ended) {
            ::kill(m_pid, SIGKILL);
        }
        int status = 0;
        ::waitpid(m_pid, &status, 0);
        m_reaped = true;
        if (!ended) {
            return -1;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    bool running() {
        int status = 0;
        const pid_t r = ::waitpid(m_pid, &status, WNOHANG);
        m_reaped = r == m_pid;
        return r == 0;
    }

private:
    pid_t m_pid = -1;
    bool m_reaped = false;
    int m_in = -1;
    int m_out = -1;
};

}  // namespace solicd::test
