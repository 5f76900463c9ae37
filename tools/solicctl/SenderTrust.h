// Whose messages a listening command (hooks, watch) acts on. The mailbox service proves every
// sender's name (a process speaks only as a mailbox its user owns), so a message is taken when
// it comes from solicd's own mailbox, where one is named, and from a mailbox of root or of this
// user: a member of the mailbox group cannot feed forged updates to what root runs.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace solicd::ctl {

// A user's name, or "uid N" when it has none.
std::string userName(uid_t uid);

class SenderTrust {
public:
    // `daemon`: solicd's mailbox; empty when not named. `self`: this process's user.
    SenderTrust(std::string daemon, uid_t self, std::function<std::string(uid_t)> nameOf = userName);

    // Whether a message from mailbox `name` (null when unnamed) owned by `owner` is taken. The
    // first refusal sets `report` to one line saying so; every other call leaves it empty.
    bool admits(const char* name, uid_t owner, std::string& report);

private:
    std::string m_daemon;
    uid_t m_self;
    std::function<std::string(uid_t)> m_nameOf;
    bool m_reported = false;
};

}  // namespace solicd::ctl
