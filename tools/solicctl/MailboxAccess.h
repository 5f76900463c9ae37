// Whether this user can use the mailboxes of a directory, asked before the mailbox service
// starts: starting it creates a missing directory, and the service cannot tell a mailbox this
// user may not use from one that is not there.
#pragma once

#include <string>

namespace solicd::ctl {

// True when `dir` is a directory this user may enter and write in; otherwise false and `error`
// is one line saying what is wrong and what to do.
bool mailboxDirectoryUsable(const std::string& dir, std::string& error);

}  // namespace solicd::ctl
