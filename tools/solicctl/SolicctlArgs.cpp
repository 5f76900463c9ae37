#include "SolicctlArgs.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <optional>

#include "SolIf.h"

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
    "  status MBOX [--json]    the state of the link: routers, prefixes, DNS servers, counters\n"
    "  health MBOX [--json]    per router: RAs, intervals, gaps, drops, conflicts with others\n"
    "  metrics MBOX [--prometheus]\n"
    "                          the health and the lifetimes left as OpenMetrics text\n"
    "  show MBOX               print solicd's cache dump (show-cache request to MBOX)\n"
    "  routers MBOX [--json]   print solicd's routers (routers request to MBOX)\n"
    "  watch MBOX [--json | --raw] [--count N] [--timeout SEC]\n"
    "                          act as solicd's client: create MBOX and print every update\n"
    "  hooks MBOX [--daemon MBOX] [--hooks-dir DIR] [--namespace NS] [--interface IF]\n"
    "             [--state FILE]\n"
    "                          act as solicd's client and run hook programs on every change\n"
    "  help [COMMAND]          this text, or one command's\n"
    "\n"
    "Options:\n"
    "  --dir DIR   mailbox directory (default: $LMX_DIR, else /run/lmx)\n"
    "  --help      this text; 'solicctl COMMAND --help' describes one command\n"
    "  --version   the version of solicctl\n"
    "\n"
    "Output is coloured on a terminal unless NO_COLOR is set or TERM is dumb.\n"
    "Exit status: 0 success, 1 the request failed or timed out, 2 usage error.\n";

const char* const kLsHelp =
    "Usage: solicctl [--dir DIR] ls\n"
    "Lists the live mailboxes in the mailbox directory, one name per line, sorted.\n"
    "Socket files left behind by a process that died are not listed.\n";

const char* const kStatusHelp =
    "Usage: solicctl [--dir DIR] status MBOX [--json] [--timeout SEC]\n"
    "Asks MBOX (the name solicd was given with --source) for its cache and prints the state of\n"
    "the link: a header with the counts of active entries and the counters, then the routers,\n"
    "prefixes and DNS servers as aligned tables, lifetimes left as durations, flags as letters\n"
    "(M managed, O other configuration; L on-link, A autonomous). Active entries come first.\n"
    "  --json         the same as one JSON object\n"
    "  --timeout SEC  wait at most SEC seconds for the answer (default 5)\n"
    "Exit status 1 when MBOX does not exist, gives no answer in time or an answer it cannot read.\n";

const char* const kHealthHelp =
    "Usage: solicctl [--dir DIR] health MBOX [--json] [--timeout SEC]\n"
    "Asks MBOX (the name solicd was given with --source) how its routers do: per router its\n"
    "state, the RAs received, the last one, the usual interval, gaps (intervals over three times\n"
    "the usual one), RAs and prefixes dropped by reason, and where it disagrees with another\n"
    "router (M and O flags, reachable time, retrans timer, prefix lifetimes); then the sources\n"
    "of dropped RAs that are not routers.\n"
    "  --json         the answer's JSON document as it came\n"
    "  --timeout SEC  wait at most SEC seconds for the answer (default 5)\n";

const char* const kMetricsHelp =
    "Usage: solicctl [--dir DIR] metrics MBOX [--prometheus] [--timeout SEC]\n"
    "Prints the health of MBOX's routers and the lifetimes left in its cache as OpenMetrics\n"
    "text, for a scraper.\n"
    "  --prometheus   the Prometheus text format instead, as node_exporter's textfile collector\n"
    "                 reads it\n"
    "  --timeout SEC  wait at most SEC seconds for each answer (default 5)\n";

const char* const kShowHelp =
    "Usage: solicctl [--dir DIR] show MBOX [--timeout SEC]\n"
    "Sends a show-cache request to MBOX (the name solicd was given with --source) and prints\n"
    "the text answer: routers, networks, DNS servers and counters.\n"
    "  --timeout SEC  wait at most SEC seconds for the answer (default 5)\n"
    "Exit status 1 when MBOX does not exist or gives no answer in time.\n";

const char* const kRoutersHelp =
    "Usage: solicctl [--dir DIR] routers MBOX [--json] [--timeout SEC]\n"
    "Sends a routers request to MBOX (the name solicd was given with --source) and prints the\n"
    "routers of the answer: a count line, then one line per router.\n"
    "  --json         print the answer as one JSON object: {\"kind\": \"routers\", \"routers\": [...]}\n"
    "  --timeout SEC  wait at most SEC seconds for the answer (default 5)\n"
    "Exit status 1 when MBOX does not exist or gives no answer in time.\n";

const char* const kWatchHelp =
    "Usage: solicctl [--dir DIR] watch MBOX [--json | --raw] [--count N] [--timeout SEC]\n"
    "Creates mailbox MBOX (the name solicd was given with --destination), becomes solicd's\n"
    "client and prints every update it receives, one line each: local time, kind, key, state and\n"
    "the fields that matter. Runs until SIGINT or SIGTERM, N updates, or SEC seconds.\n"
    "Only messages from mailboxes of root or of this user are taken; the first other one is\n"
    "reported on stderr.\n"
    "  --json         one JSON object per line\n"
    "  --raw          the records' own stream forms\n"
    "  --count N      stop after N updates\n"
    "  --timeout SEC  stop after SEC seconds; with --count, fewer than N updates by then is a\n"
    "                 failure (exit status 1)\n";

const char* const kHooksHelp =
    "Usage: solicctl [--dir DIR] hooks MBOX [--daemon MBOX] [--hooks-dir DIR] [--namespace NS]\n"
    "                [--interface IF] [--state FILE] [--timeout SEC]\n"
    "Creates mailbox MBOX (the name solicd was given with --destination), becomes solicd's\n"
    "client, keeps the last state of every entry and, for every change, runs each executable\n"
    "file of the hooks directory in name order, one at a time. The environment says what\n"
    "happened: SOLICD_REASON, SOLICD_NAMESPACE, SOLICD_INTERFACE, SOLICD_MAILBOX, and the\n"
    "entry's fields as new_... and old_... (see solicctl(1)). RESYNC runs once after each\n"
    "whole-cache push. Runs until SIGINT or SIGTERM. Only messages from mailboxes of root or of\n"
    "this user are taken; the first other one is reported on stderr.\n"
    "  --daemon MBOX    solicd's own mailbox (its --source), the only one whose messages are\n"
    "                   taken; when it ends, the next cache it pushes replaces everything known\n"
    "                   (RESYNC), but the DNS servers are held until its first solicitation\n"
    "                   cycle has ended or their lifetimes do; without it a restart of solicd\n"
    "                   goes unnoticed\n"
    "  --hooks-dir DIR  the hook programs (default /etc/solicd/hooks.d)\n"
    "  --namespace NS   passed to the hooks as SOLICD_NAMESPACE (empty: the host's own)\n"
    "  --interface IF   passed to the hooks as SOLICD_INTERFACE\n"
    "  --state FILE     keeps the DNS servers acted on last in FILE, so that they are held\n"
    "                   across a restart of the hooks too\n"
    "  --timeout SEC    a hook running longer gets SIGTERM, SIGKILL 2 s later (default 10)\n";

// What each command takes besides --dir and --help.
enum Takes : unsigned {
    kMailbox = 1u << 0,
    kJson = 1u << 1,
    kRaw = 1u << 2,
    kCount = 1u << 3,
    kTimeout = 1u << 4,
    kHookOptions = 1u << 5,  // --daemon, --hooks-dir, --namespace, --interface, --state
    kPrometheus = 1u << 6,
};

struct CommandSpec {
    const char* word;
    Command command;
    unsigned takes;
    const char* help;
};

const CommandSpec kCommands[] = {
    {"ls", Command::Ls, 0, kLsHelp},
    {"status", Command::Status, kMailbox | kJson | kTimeout, kStatusHelp},
    {"health", Command::Health, kMailbox | kJson | kTimeout, kHealthHelp},
    {"metrics", Command::Metrics, kMailbox | kPrometheus | kTimeout, kMetricsHelp},
    {"show", Command::Show, kMailbox | kTimeout, kShowHelp},
    {"routers", Command::Routers, kMailbox | kJson | kTimeout, kRoutersHelp},
    {"watch", Command::Watch, kMailbox | kJson | kRaw | kCount | kTimeout, kWatchHelp},
    {"hooks", Command::Hooks, kMailbox | kTimeout | kHookOptions, kHooksHelp},
};

constexpr size_t kInterfaceNameMax = 15;  // IFNAMSIZ less its NUL

// The hooks' string options: where each goes and what a valid value is.
struct StringOption {
    const char* name;
    std::string Options::*member;
    bool (*valid)(const std::string&);
    const char* expected;
};

bool validPath(const std::string& value) {
    return !value.empty();
}

// Empty: the host's own namespace, as solicd takes an empty --namespace.
bool validNamespace(const std::string& value) {
    return value.empty() || (value.size() <= NAME_MAX && value.find('/') == std::string::npos &&
                             value != "." && value != "..");
}

bool validInterface(const std::string& value) {
    return !value.empty() && value.size() <= kInterfaceNameMax && value.find('/') == std::string::npos &&
           value.find_first_of(" \t\n:") == std::string::npos;
}

// Empty: the name solicd gives its mailbox when --source is empty (resolved after parsing).
bool validDaemon(const std::string& value) {
    return value.empty() || isValidMailboxName(value);
}

constexpr const char* kDefaultDaemon = "\x01";

const StringOption kHookStringOptions[] = {
    {"--daemon", &Options::daemon, validDaemon,
     "a mailbox name of 1 to 100 characters of A-Z a-z 0-9 . _ - not starting with '.', or nothing for "
     "solicd's "
     "default"},
    {"--hooks-dir", &Options::hooksDir, validPath, "a directory"},
    {"--state", &Options::stateFile, validPath, "a file"},
    {"--namespace", &Options::netns, validNamespace, "a network namespace name"},
    {"--interface", &Options::interface, validInterface, "an interface name of 1 to 15 characters"},
};

// "help" is a command word too, but runs nothing.
constexpr const char* kHelpWord = "help";
const char* const kHelpHelp =
    "Usage: solicctl help [COMMAND]\n"
    "Describes the tool, or COMMAND as 'solicctl COMMAND --help' does.\n";

const CommandSpec* commandOf(const std::string& word) {
    for (const CommandSpec& spec : kCommands) {
        if (word == spec.word) {
            return &spec;
        }
    }
    return nullptr;
}

// A command option whose value is the next argument.
bool takesValue(const std::string& arg) {
    if (arg == "--count" || arg == "--timeout") {
        return true;
    }
    return std::any_of(std::begin(kHookStringOptions), std::end(kHookStringOptions),
                       [&](const StringOption& option) { return arg == option.name; });
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
    // The words that are not options or their values: the command, then its arguments. --help
    // and --version win wherever they stand: before the command --help describes the tool,
    // after it the command.
    std::vector<std::string> words;
    bool wantsHelp = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (isHelp(args[i])) {
            wantsHelp = true;
        } else if (args[i] == "--version") {
            ParseResult r;
            r.kind = ParseResult::Kind::Version;
            r.text = std::string("solicctl ") + SOLICD_VERSION + "\n";
            return r;
        } else if (args[i] == "--dir" || (!words.empty() && takesValue(args[i]))) {
            ++i;
        } else if (!args[i].empty() && args[i][0] != '-') {
            words.push_back(args[i]);
        }
    }
    if (!words.empty() && words[0] == kHelpWord) {
        if (words.size() == 1) {
            return help(kToolHelp);
        }
        const bool aboutHelp = words[1] == kHelpWord;
        const CommandSpec* topic = commandOf(words[1]);
        if ((topic == nullptr && !aboutHelp) || words.size() > 2) {
            return usage(topic == nullptr && !aboutHelp ? "unknown command '" + words[1] + "'"
                                                        : "help: unexpected argument '" + words[2] + "'",
                         "");
        }
        return help(aboutHelp ? kHelpHelp : topic->help);
    }
    const CommandSpec* spec = words.empty() ? nullptr : commandOf(words[0]);
    if (wantsHelp) {
        return help(spec != nullptr ? spec->help : kToolHelp);
    }
    if (!words.empty() && spec == nullptr) {
        return usage("unknown command '" + words[0] + "'", "");
    }

    ParseResult r;
    Options& o = r.options;
    std::optional<std::string> dir;
    bool seenCommand = false;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        const std::string where = seenCommand ? spec->word : "";
        const std::string prefix = seenCommand ? where + ": " : "";
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
            o.command = spec->command;
            seenCommand = true;
            continue;
        }
        if (arg == "--json" && (spec->takes & kJson) != 0) {
            o.json = true;
            continue;
        }
        if (arg == "--prometheus" && (spec->takes & kPrometheus) != 0) {
            o.prometheus = true;
            continue;
        }
        if (arg == "--raw" && (spec->takes & kRaw) != 0) {
            o.raw = true;
            continue;
        }
        if ((spec->takes & kCount) != 0) {
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
        }
        if ((spec->takes & kTimeout) != 0) {
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
        if ((spec->takes & kHookOptions) != 0) {
            bool matched = false;
            for (const StringOption& option : kHookStringOptions) {
                const OptionValue v = optionValue(args, i, option.name);
                if (!v.matched) {
                    continue;
                }
                if (v.missing || !option.valid(v.value)) {
                    return usage(prefix + option.name + " needs " + option.expected, where);
                }
                o.*option.member =
                    option.member == &Options::daemon && v.value.empty() ? kDefaultDaemon : v.value;
                matched = true;
                break;
            }
            if (matched) {
                continue;
            }
        }
        if (!arg.empty() && arg[0] == '-') {
            return usage(prefix + "unknown option '" + arg + "'", where);
        }
        if ((spec->takes & kMailbox) == 0 || !o.mbox.empty()) {
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
    if ((spec->takes & kMailbox) != 0 && o.mbox.empty()) {
        return usage(std::string(spec->word) + ": missing mailbox name", spec->word);
    }
    if (o.daemon == kDefaultDaemon) {
        o.daemon = solifDefaultMailbox(o.netns, o.interface);
        if (o.interface.empty() || !isValidMailboxName(o.daemon)) {
            return usage(std::string(spec->word) +
                             ": an empty --daemon names solicd's default mailbox, which needs --interface "
                             "(and --namespace, unless solicd watches the host's own) of mailbox-name "
                             "characters",
                         spec->word);
        }
    }
    if (o.json && o.raw) {
        return usage(std::string(spec->word) + ": --json and --raw exclude each other", spec->word);
    }
    if (o.timeoutSec == 0 && o.command != Command::Watch) {
        o.timeoutSec = o.command == Command::Hooks ? kHookTimeoutSec : kRequestTimeoutSec;
    }
    o.dir = dir ? *dir : (envDir != nullptr && envDir[0] != '\0' ? envDir : kDefaultDir);
    return r;
}

}  // namespace solicd::ctl
