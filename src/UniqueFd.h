// A move-only owner of one file descriptor; no implicit conversion to int.
#pragma once

#include <unistd.h>

#include <utility>

namespace solicd {

class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, 0)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.m_fd, 0));
        }
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return m_fd; }
    // Descriptors are kept as 0 when closed, as the daemon's members always were; 0 is never
    // one of ours (stdin stays open).
    void reset(int fd = 0) {
        if (m_fd > 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }
    int release() { return std::exchange(m_fd, 0); }

private:
    int m_fd = 0;
};

}  // namespace solicd
