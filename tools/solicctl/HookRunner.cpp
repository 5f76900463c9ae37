#include "HookRunner.h"

#include <dirent.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace solicd::ctl {
namespace {

constexpr std::chrono::seconds kKillGrace{2};

// Variables the hooks get from solicctl and nowhere else.
bool definedByHooks(const char* entry) {
    return std::strncmp(entry, "SOLICD_", 7) == 0 || std::strncmp(entry, "new_", 4) == 0 ||
           std::strncmp(entry, "old_", 4) == 0;
}

void report(const std::string& text) {
    std::fprintf(stderr, "solicctl: %s\n", text.c_str());
}

}  // namespace

std::vector<std::string> hookPrograms(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        return names;
    }
    while (const dirent* entry = readdir(d)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        struct stat st {};
        const std::string path = dir + "/" + entry->d_name;
        if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0) {
            names.emplace_back(entry->d_name);
        }
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> hookEnvironment(char** inherited, const Variables& fixed, const HookEvent& event) {
    std::vector<std::string> env;
    for (char** e = inherited; e != nullptr && *e != nullptr; ++e) {
        if (!definedByHooks(*e)) {
            env.emplace_back(*e);
        }
    }
    for (const auto& [name, value] : fixed) {
        env.push_back(name + "=" + value);
    }
    env.push_back("SOLICD_REASON=" + event.reason);
    for (const auto& [name, value] : event.variables) {
        env.push_back(name + "=" + value);
    }
    return env;
}

HookRunner::HookRunner(std::string dir, std::chrono::seconds limit, Variables fixed)
    : m_dir(std::move(dir)), m_limit(limit), m_fixed(std::move(fixed)) {}

HookRunner::~HookRunner() {
    stop();
}

void HookRunner::enqueue(const HookEvent& event) {
    for (const auto& program : hookPrograms(m_dir)) {
        m_queue.push_back(Run{program, event});
    }
    if (m_child <= 0) {
        startNext();
    }
}

std::optional<std::chrono::steady_clock::time_point> HookRunner::deadline() const {
    if (m_child <= 0) {
        return std::nullopt;
    }
    return m_deadline;
}

void HookRunner::startNext() {
    while (m_child <= 0 && !m_queue.empty()) {
        Run run = std::move(m_queue.front());
        m_queue.pop_front();
        const std::string path = m_dir + "/" + run.program;
        std::vector<std::string> env = hookEnvironment(environ, m_fixed, run.event);
        std::vector<char*> envp;
        for (auto& e : env) {
            envp.push_back(e.data());
        }
        envp.push_back(nullptr);
        char* argv[] = {const_cast<char*>(path.c_str()), nullptr};

        // Its own process group, so that a time limit ends what it started too; the signals
        // solicctl blocks or ignores are the hook's as usual.
        posix_spawnattr_t attr;
        posix_spawnattr_init(&attr);
        sigset_t none;
        sigemptyset(&none);
        sigset_t defaults;
        sigemptyset(&defaults);
        sigaddset(&defaults, SIGPIPE);
        sigaddset(&defaults, SIGINT);
        sigaddset(&defaults, SIGTERM);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setsigdefault(&attr, &defaults);
        posix_spawnattr_setpgroup(&attr, 0);
        posix_spawnattr_setflags(&attr,
                                 POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
        pid_t pid = -1;
        const int error = posix_spawn(&pid, path.c_str(), nullptr, &attr, argv, envp.data());
        posix_spawnattr_destroy(&attr);
        if (error != 0) {
            report("hook " + run.program + " could not start for " + run.event.reason + " (" +
                   std::strerror(error) + ")");
            continue;
        }
        m_child = pid;
        // Readable when the hook ends (this glibc's header for the call lacks C linkage).
        m_pidFd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
        m_running = run.program + " for " + run.event.reason;
        m_deadline = std::chrono::steady_clock::now() + m_limit;
        m_terminated = false;
    }
}

void HookRunner::reap(int status) {
    if (m_terminated) {
        report("hook " + m_running + " ran past " + std::to_string(m_limit.count()) + " s and was ended");
    } else if (WIFEXITED(status) && WEXITSTATUS(status) != 0) {
        report("hook " + m_running + " failed with exit status " + std::to_string(WEXITSTATUS(status)));
    } else if (WIFSIGNALED(status)) {
        report("hook " + m_running + " was ended by signal " + std::to_string(WTERMSIG(status)) + " (" +
               strsignal(WTERMSIG(status)) + ")");
    }
    forgetChild();
}

void HookRunner::forgetChild() {
    if (m_pidFd >= 0) {
        close(m_pidFd);
    }
    m_pidFd = -1;
    m_child = -1;
}

void HookRunner::advance() {
    if (m_child > 0) {
        int status = 0;
        const pid_t ended = waitpid(m_child, &status, WNOHANG);
        if (ended == m_child) {
            reap(status);
        } else if (const auto now = std::chrono::steady_clock::now(); now >= m_deadline) {
            // First the polite signal to the whole group, then, after the grace, the one that
            // cannot be refused; the hook is reaped when it has gone.
            kill(-m_child, m_terminated ? SIGKILL : SIGTERM);
            m_terminated = true;
            m_deadline = now + kKillGrace;
        }
    }
    startNext();
}

void HookRunner::stop() {
    m_queue.clear();
    if (m_child <= 0) {
        return;
    }
    kill(-m_child, SIGTERM);
    // The descriptor becomes readable when the hook ends; SIGKILL if it has not within the grace.
    pollfd ended{m_pidFd, POLLIN, 0};
    const int graceMs = static_cast<int>(std::chrono::milliseconds(kKillGrace).count());
    if (m_pidFd < 0 || poll(&ended, 1, graceMs) <= 0) {
        kill(-m_child, SIGKILL);
    }
    int status = 0;
    waitpid(m_child, &status, 0);
    forgetChild();
}

}  // namespace solicd::ctl
