// What solicd tells the service manager that started it: that it is ready, and one line of status
// for `systemctl status`. Only a manager that asked for it (NOTIFY_SOCKET) hears anything.
#pragma once

#include <string>

namespace solicd {

class ServiceNotify {
public:
    virtual ~ServiceNotify() = default;

    // False when no service manager listens: nothing is sent, and callers skip working out what
    // they would have said.
    virtual bool isEnabled() const = 0;
    // "STATUS=text".
    virtual void status(const std::string& text) = 0;
    // "READY=1" and "STATUS=text" in one notification.
    virtual void ready(const std::string& text) = 0;
};

// Through libsystemd's sd_notify, to the socket NOTIFY_SOCKET names when the object is made. The
// socket is a path, so it stays reachable after solicd enters another network namespace.
class SystemdNotify : public ServiceNotify {
public:
    SystemdNotify();

    bool isEnabled() const override { return !m_socket.empty(); }
    void status(const std::string& text) override;
    void ready(const std::string& text) override;

private:
    void send(const std::string& assignments);

    std::string m_socket;  // empty: no service manager listens
    bool m_failureReported = false;
};

}  // namespace solicd
