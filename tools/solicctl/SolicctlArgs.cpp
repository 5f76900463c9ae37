#include "SolicctlArgs.h"

#include <cerrno>
#include <cstdlib>
#include <optional>

namespace solicd::ctl {
namespace {

constexpr size_t kMailboxNameMax = 100;
constexpr uint64_t kMaxCount = 0xffffffff;
constexpr uint64_t kMaxTimeoutSec = 31u * 24 * 3600;

const char* const kToolHelp =
    "Usage: solicctl [--dir DIR] COMMAND [ARGS]\n"
    "Talks to solicd through the mailbox directory.\n"
    "\n"
    "Commands:\n"
    "  ls                      list the live mailboxes in the directory\n"
    "  show MBOX               print solicd's cache dump (show-cache request to MBOX)\n"
    "  routers MBOX [--json]   print solicd's routers (routers request to MBOX)\n"
    "  watch MBOX [--json] [--count N] [--timeout SEC]\n"
    "                          act as solicd's client: create MBOX and print every update\n"
    "\n"
    "Options:\n"
    "  --dir DIR   mailbox directory (default: $LMX_DIR, else /run/lmx)\n"
    "  --help      this text; 'solicctl COMMAND --help' describes one command\n"
    "\n"
    "Exit status: 0 success, 1 the request failed or timed out, 2 usage error.\n";

const char* const kLsHelp =
    "Usage: solicctl [--dir DIR] ls\n"
    "Lists the live mailboxes in the mailbox directory, one name per line, sorted.\n"
    "Socket files left behind by a process that died are not listed.\n";

const char* const kShowHelp =
    "Usage: solicctl [--dir DIR] show MBOX\n"
    "Sends a show-cache request to MBOX (the name solicd was given with --source) and prints\n"
    "the text answer: routers, networks, DNS servers and counters.\n"
    "Exit status 1 when MBOX does not exist or gives no answer within 5 s.\n";

const char* const kRoutersHelp =
    "Usage: solicctl [--dir DIR] routers MBOX [--json]\n"
    "Sends a routers request to MBOX (the name solicd was given with --source) and prints the\n"
    "routers of the answer: a count line, then one line per router.\n"
    "  --json   print the answer as one JSON object: {\"kind\": \"routers\", \"routers\": [...]}\n"
    "Exit status 1 when MBOX does not exist or gives no answer within 5 s.\n";

const char* const kWatchHelp =
    "Usage: solicctl [--dir DIR] watch MBOX [--json] [--count N] [--timeout SEC]\n"
    "Creates mailbox MBOX (the name solicd was given with --destination), becomes solicd's\n"
    "client and prints every update it receives, one per line: router_updated,\n"
    "network_updated, dns_servers_updated. Runs until SIGINT or SIGTERM, N updates, or SEC\n"
    "seconds.\n"
    "  --json         one JSON object per line\n"
    "  --count N      stop after N updates\n"
    "  --timeout SEC  stop after SEC seconds; with --count, fewer than N updates by then is a\n"
    "                 failure (exit status 1)\n";

const char* helpOf(Command command) {
    switch (command) {
        case Command::Ls:
            return kLsHelp;
        case Command::Show:
            return kShowHelp;
        case Command::Routers:
            return kRoutersHelp;
        case Command::Watch:
            return kWatchHelp;
    }
    return kToolHelp;
}

std::optional<Command> commandOf(const std::string& word) {
    if (word == "ls") {
        return Command::Ls;
    }
    if (word == "show") {
        return Command::Show;
    }
    if (word == "routers") {
        return Command::Routers;
    }
    if (word == "watch") {
        return Command::Watch;
    }
    return std::nullopt;
}

bool isHelp(const std::string& arg) {
    return arg == "--help" || arg == "-h";
}

// A whole decimal number in [1, max].
std::optional<uint64_t> positiveNumber(const std::string& text, uint64_t max) {
    if (text.empty() || text.find_first_not_of("0123456789") != std::string::npos) {
        return std::nullopt;
    }
    errno = 0;
    const unsigned long long value = std::strtoull(text.c_str(), nullptr, 10);
    if (errno != 0 || value == 0 || value > max) {
        return std::nullopt;
    }
    return value;
}

ParseResult usage(const std::string& problem, const std::string& helpCommand) {
    ParseResult r;
    r.kind = ParseResult::Kind::Usage;
    r.text = "solicctl: " + problem + "; see 'solicctl " + (helpCommand.empty() ? "" : helpCommand + " ") +
             "--help'";
    return r;
}

ParseResult help(const char* text) {
    ParseResult r;
    r.kind = ParseResult::Kind::Help;
    r.text = text;
    return r;
}

// Splits "--name=value" and "--name value" alike; `index` moves past a separate value.
struct OptionValue {
    bool matched = false;
    bool missing = false;
    std::string value;
};

OptionValue optionValue(const std::vector<std::string>& args, size_t& index, const std::string& name) {
    OptionValue v;
    const std::string& arg = args[index];
    if (arg.rfind(name + "=", 0) == 0) {
        v.matched = true;
        v.value = arg.substr(name.size() + 1);
    } else if (arg == name) {
        v.matched = true;
        if (index + 1 < args.size()) {
            v.value = args[++index];
        } else {
            v.missing = true;
        }
    }
    return v;
}

}  // namespace

bool isValidMailboxName(const std::string& name) {
    if (name.empty() || name.size() > kMailboxNameMax || name[0] == '.') {
        return false;
    }
    for (const char c : name) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                        c == '.' || c == '_' || c == '-';
        if (!ok) {
            return false;
        }
    }
    return true;
}

ParseResult parseArgs(const std::vector<std::string>& args, const char* envDir) {
    // --help wins wherever it stands: before the command it describes the tool, after it the command.
    std::optional<Command> command;
    std::string commandWord;
    for (size_t i = 0; i < args.size(); ++i) {
        if (!command && isHelp(args[i])) {
            return help(kToolHelp);
        }
        if (command && isHelp(args[i])) {
            return help(helpOf(*command));
        }
        if (!command && args[i] == "--dir") {
            ++i;
        } else if (!command && !args[i].empty() && args[i][0] != '-') {
            command = commandOf(args[i]);
            commandWord = args[i];
            if (!command) {
                return usage("unknown command '" + args[i] + "'", "");
            }
        }
    }

    ParseResult r;
    Options& o = r.options;
    std::optional<std::string> dir;
    bool seenCommand = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const std::string where = seenCommand ? commandWord : "";
        const std::string prefix = seenCommand ? commandWord + ": " : "";
        if (const OptionValue v = optionValue(args, i, "--dir"); v.matched) {
            if (v.missing || v.value.empty()) {
                return usage("--dir needs a directory", where);
            }
            dir = v.value;
            continue;
        }
        if (!seenCommand) {
            if (!arg.empty() && arg[0] == '-') {
                return usage("unknown option '" + arg + "'", "");
            }
            o.command = *command;
            seenCommand = true;
            continue;
        }
        const bool watch = o.command == Command::Watch;
        if (arg == "--json" && (watch || o.command == Command::Routers)) {
            o.json = true;
            continue;
        }
        if (watch) {
            if (const OptionValue v = optionValue(args, i, "--count"); v.matched) {
                const auto n = positiveNumber(v.value, kMaxCount);
                if (!n) {
                    return usage(
                        prefix + "--count needs a whole number from 1 to " + std::to_string(kMaxCount),
                        where);
                }
                o.count = *n;
                continue;
            }
            if (const OptionValue v = optionValue(args, i, "--timeout"); v.matched) {
                const auto n = positiveNumber(v.value, kMaxTimeoutSec);
                if (!n) {
                    return usage(
                        prefix + "--timeout needs whole seconds from 1 to " + std::to_string(kMaxTimeoutSec),
                        where);
                }
                o.timeoutSec = *n;
                continue;
            }
        }
        if (!arg.empty() && arg[0] == '-') {
            return usage(prefix + "unknown option '" + arg + "'", where);
        }
        if (o.command == Command::Ls || !o.mbox.empty()) {
            return usage(prefix + "unexpected argument '" + arg + "'", where);
        }
        if (!isValidMailboxName(arg)) {
            return usage(prefix + "invalid mailbox name '" + arg +
                             "': use 1 to 100 characters of A-Z a-z 0-9 . _ - not starting with '.'",
                         where);
        }
        o.mbox = arg;
    }
    if (!seenCommand) {
        return usage("missing command", "");
    }
    if (o.command != Command::Ls && o.mbox.empty()) {
        return usage(commandWord + ": missing mailbox name", commandWord);
    }
    o.dir = dir ? *dir : (envDir != nullptr && envDir[0] != '\0' ? envDir : kDefaultDir);
    return r;
}

}  // namespace solicd::ctl
