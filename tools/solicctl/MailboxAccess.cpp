#include "MailboxAccess.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace solicd::ctl {

bool mailboxDirectoryUsable(const std::string& dir, std::string& error) {
    struct stat st {};
    const int found = stat(dir.c_str(), &st);
    if (found != 0 || !S_ISDIR(st.st_mode)) {
        const std::string why = found != 0 ? std::strerror(errno) : "not a directory";
        error =
            "no mailbox directory " + dir + " (" + why + "); check --dir (or LMX_DIR) and that solicd runs";
        return false;
    }
    if (access(dir.c_str(), W_OK | X_OK) != 0 && errno == EACCES) {
        const struct group* group = getgrgid(st.st_gid);
        const std::string name = group != nullptr ? group->gr_name : std::to_string(st.st_gid);
        error = "permission denied: you may not use the mailboxes in " + dir + "; join group " + name +
                " (then log in again) or run as root";
        return false;
    }
    return true;
}

}  // namespace solicd::ctl
