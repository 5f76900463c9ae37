// Child processes for tests that need a real peer on the mailbox service: start one with its
// standard output and error on pipes, read lines with a guard timeout, signal it, reap it.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

extern char** environ;

namespace solicd::test {

// Failure guard only: long enough that a loaded machine never trips it.
inline constexpr std::chrono::seconds kGuard{20};

class Subprocess {
public:
    explicit Subprocess(const std::vector<std::string>& argv) {
        int out[2];
        int err[2];
        if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
            return;
        }
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_adddup2(&actions, err[1], STDERR_FILENO);
        std::vector<char*> args;
        for (const auto& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        if (posix_spawn(&m_pid, args[0], &actions, nullptr, args.data(), environ) != 0) {
            m_pid = -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        close(out[1]);
        close(err[1]);
        m_out = out[0];
        m_err = err[0];
    }
    ~Subprocess() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            wait();
        }
        closeFd(m_out);
        closeFd(m_err);
    }
    Subprocess(const Subprocess&) = delete;
    Subprocess& operator=(const Subprocess&) = delete;

    bool started() const { return m_pid > 0; }
    pid_t pid() const { return m_pid; }
    void signal(int sig) const { kill(m_pid, sig); }

    // The next line of standard output without its line end; empty at end of output or guard.
    std::string readLine() {
        const auto deadline = std::chrono::steady_clock::now() + kGuard;
        for (;;) {
            if (const auto nl = m_outText.find('\n'); nl != std::string::npos) {
                std::string line = m_outText.substr(0, nl);
                m_outText.erase(0, nl + 1);
                return line;
            }
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !readSome(m_out, m_outText, static_cast<int>(left.count()))) {
                return {};
            }
        }
    }

    // Reads both outputs to their end, then reaps; the exit status, or -1 (guard) / 128+signal.
    int finish(std::string* out = nullptr, std::string* err = nullptr) {
        const auto deadline = std::chrono::steady_clock::now() + kGuard;
        while (m_out >= 0 || m_err >= 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return -1;
            }
            pollfd fds[] = {{m_out, POLLIN, 0}, {m_err, POLLIN, 0}};
            if (poll(fds, 2, static_cast<int>(left.count())) <= 0) {
                continue;
            }
            drain(fds[0], m_out, m_outText);
            drain(fds[1], m_err, m_errText);
        }
        if (out != nullptr) {
            *out = m_outText;
        }
        if (err != nullptr) {
            *err = m_errText;
        }
        return wait();
    }

    int wait() {
        int status = 0;
        if (m_pid <= 0 || waitpid(m_pid, &status, 0) != m_pid) {
            return -1;
        }
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    static void closeFd(int& fd) {
        if (fd >= 0) {
            close(fd);
            fd = -1;
        }
    }

    // Appends what `fd` has within `timeoutMs`; false at end of output or on timeout.
    static bool readSome(int fd, std::string& text, int timeoutMs) {
        pollfd p{fd, POLLIN, 0};
        if (fd < 0 || poll(&p, 1, timeoutMs) <= 0) {
            return false;
        }
        char buffer[4096];
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n <= 0) {
            return false;
        }
        text.append(buffer, static_cast<size_t>(n));
        return true;
    }

    static void drain(const pollfd& p, int& fd, std::string& text) {
        if (fd >= 0 && (p.revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
            char buffer[4096];
            const ssize_t n = read(fd, buffer, sizeof buffer);
            if (n <= 0) {
                closeFd(fd);
            } else {
                text.append(buffer, static_cast<size_t>(n));
            }
        }
    }

    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
    std::string m_outText;
    std::string m_errText;
};

}  // namespace solicd::test
