// solicctl's command line: what to do, or the help text, or one line saying what is wrong.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace solicd::ctl {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;  // the request failed or timed out
inline constexpr int kExitUsage = 2;

inline constexpr const char* kDefaultDir = "/run/lmx";
inline constexpr unsigned kRequestTimeoutSec = 5;
inline constexpr unsigned kHookTimeoutSec = 10;
inline constexpr const char* kDefaultHooksDir = "/etc/solicd/hooks.d";

enum class Command { Ls, Show, Routers, Status, Health, Metrics, Watch, Hooks };

struct Options {
    Command command = Command::Ls;
    std::string dir;   // resolved: --dir, then $LMX_DIR, then /run/lmx
    std::string mbox;  // the mailbox of every command but ls
    bool json = false;
    bool raw = false;         // watch: the records' own stream forms
    bool prometheus = false;  // metrics: the Prometheus text format instead of OpenMetrics
    uint64_t count = 0;       // watch: 0 means no limit
    uint64_t timeoutSec =
        0;  // watch: 0 means no limit; requests: kRequestTimeoutSec; hooks: each hook's limit
    // hooks
    std::string daemon;  // solicd's own mailbox, watched to learn of its restarts; empty: not watched
    std::string hooksDir = kDefaultHooksDir;
    std::string netns;
    std::string interface;
    std::string stateFile;  // the DNS servers acted on last; empty: kept in memory only
};

struct ParseResult {
    enum class Kind { Run, Help, Version, Usage } kind = Kind::Run;
    Options options;
    std::string text;  // Help: the help text; Version: the version line; Usage: the one-line error
};

// `envDir` is $LMX_DIR (null when unset).
ParseResult parseArgs(const std::vector<std::string>& args, const char* envDir);

// The service's rule for mailbox names: 1 to 100 of A-Z a-z 0-9 . _ -, not starting with '.'.
bool isValidMailboxName(const std::string& name);

}  // namespace solicd::ctl
