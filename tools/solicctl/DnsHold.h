// What `solicctl hooks` needs to hold the DNS servers across restarts (see HookState): for a
// restart of solicd, when its first solicitation cycle has ended at the latest; for a restart of
// the hooks themselves, the servers they acted on last, kept in a file.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "HookState.h"

namespace solicd::ctl {

// When the first solicitation cycle of the solicd whose mailbox is `name` in `dir` has ended at
// the latest, in seconds since the epoch: the cycle's longest run after the mailbox was made (the
// time of its socket file), and a second for the answers to reach the hooks. A mailbox that
// cannot be read counts as made at `now`.
int64_t firstCycleEnd(const std::string& dir, const std::string& name, int64_t now);

// The file's text: a comment line, then one line per server, its address and the end of its
// lifetime (seconds since the epoch, or "infinite").
std::string dnsMemoryText(const std::vector<KnownServer>& servers);
// False, with one line in `error`, for a text that is not such a list.
bool parseDnsMemory(const std::string& text, std::vector<KnownServer>& servers, std::string& error);

// The file of the servers acted on last; none with an empty path.
class DnsMemory {
public:
    explicit DnsMemory(std::string path) : m_path(std::move(path)) {}

    // The servers the file holds; none when there is no file. A file that cannot be read or
    // parsed is left out, and `error` says so.
    std::vector<KnownServer> load(std::string& error);

    // Replaces the file (written beside it and renamed over it) when `servers` differ from what it
    // holds. `error` says why it could not, the first time only.
    void save(const std::vector<KnownServer>& servers, std::string& error);

private:
    std::string m_path;
    std::vector<KnownServer> m_held;
    bool m_failed = false;
};

}  // namespace solicd::ctl
