#include "SenderTrust.h"

#include <pwd.h>

#include <utility>
#include <vector>

namespace solicd::ctl {

std::string userName(uid_t uid) {
    passwd entry{};
    passwd* found = nullptr;
    std::vector<char> buffer(4096);
    if (getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr) {
        return found->pw_name;
    }
    return "uid " + std::to_string(uid);
}

SenderTrust::SenderTrust(std::string daemon, uid_t self, std::function<std::string(uid_t)> nameOf)
    : m_daemon(std::move(daemon)), m_self(self), m_nameOf(std::move(nameOf)) {}

bool SenderTrust::admits(const char* name, uid_t owner, std::string& report) {
    report.clear();
    const bool ownerTrusted = owner == 0 || owner == m_self;
    if (name != nullptr && ownerTrusted && (m_daemon.empty() || m_daemon == name)) {
        return true;
    }
    if (!m_reported) {
        m_reported = true;
        const std::string from = name != nullptr ? "'" + std::string(name) + "'" : "an unnamed mailbox";
        const std::string owners = m_self == 0 ? "root" : "root or " + m_nameOf(m_self);
        const std::string wanted = m_daemon.empty() ? "mailboxes" : "'" + m_daemon + "'";
        report = "refused a message from " + from + " (owned by " + m_nameOf(owner) +
                 "): only messages from " + wanted + " owned by " + owners +
                 " are taken; further refusals are not reported";
    }
    return false;
}

}  // namespace solicd::ctl
