#include "ServiceNotify.h"

#include <systemd/sd-daemon.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace solicd {
namespace {

constexpr const char* kNotifySocketVariable = "NOTIFY_SOCKET";

}  // namespace

SystemdNotify::SystemdNotify() {
    if (const char* socket = std::getenv(kNotifySocketVariable); socket != nullptr) {
        m_socket = socket;
    }
}

void SystemdNotify::status(const std::string& text) {
    send("STATUS=" + text);
}

void SystemdNotify::ready(const std::string& text) {
    send("READY=1\nSTATUS=" + text);
}

void SystemdNotify::send(const std::string& assignments) {
    if (m_socket.empty()) {
        return;
    }
    const int result = sd_notify(0, assignments.c_str());
    // A lost READY=1 leaves the unit starting for ever (it has no start timeout): say so once,
    // where the journal shows it.
    if (result < 0 && !m_failureReported) {
        m_failureReported = true;
        std::fprintf(stderr, "solicd: cannot notify the service manager at %s: %s\n", m_socket.c_str(),
                     std::strerror(-result));
    }
}

}  // namespace solicd
