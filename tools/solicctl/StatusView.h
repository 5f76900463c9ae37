// `solicctl status`: the cache dump of solicd read back into records, shown for people (a header
// and three aligned tables) or as one JSON object.
#pragma once

#include <cstdint>
#include <string>

#include "SolTypesParse.h"

namespace solicd::ctl {

// `now` is the time the lifetimes left are counted from, in seconds since the epoch (the clock
// of the status time points).
std::string statusText(const std::string& mbox, const SolCacheText& cache, int64_t now, bool colour);

// {"kind": "status", "mailbox", "routers", "networks", "dnsServers", "counters"}: the records as
// `watch --json` writes them, the counters under their names. One line, no line end.
std::string statusJson(const std::string& mbox, const SolCacheText& cache);

}  // namespace solicd::ctl
