// solicctl: the command-line client of solicd. Lists mailboxes, asks solicd for its routers, its
// cache dump or the state of the link, or acts as its client and prints every update.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "HealthView.h"
#include "HooksCommand.h"
#include "MailboxAccess.h"
#include "SolIf.h"
#include "SolTypesParse.h"
#include "SolicctlArgs.h"
#include "SolicctlLink.h"
#include "SolicctlOutput.h"
#include "StatusView.h"
#include "Terminal.h"
#include "WatchLines.h"

namespace solicd::ctl {
namespace {

int fail(const std::string& text) {
    std::fprintf(stderr, "solicctl: %s\n", text.c_str());
    return kExitFailed;
}

// Text on stdout, flushed at once: a reader of `watch` sees every update as it comes.
bool emit(const std::string& text) {
    return std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
}

bool emitLine(const std::string& line) {
    return emit(line + "\n");
}

// A reader that went away (`solicctl watch | head -1`) ends solicctl quietly and well, as it
// does `ip` and `grep`; any other write error is one.
int outputFailed() {
    if (errno == EPIPE) {
        return kExitOk;
    }
    return fail(std::string("cannot write the output (") + std::strerror(errno) + ")");
}

std::string hexNo(uint32_t msgNo) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%x", msgNo);
    return text;
}

std::string senderName(const void* msg) {
    const char* name = lmx_name(lmx_sender(msg));
    return name != nullptr ? std::string("'") + name + "'" : "an unnamed sender";
}

int runLs(const Options& o) {
    std::string error;
    if (!mailboxDirectoryUsable(o.dir, error)) {
        return fail(error);
    }
    DIR* dir = opendir(o.dir.c_str());
    if (dir == nullptr) {
        return fail("cannot read the mailbox directory " + o.dir + " (" + std::strerror(errno) +
                    "); check --dir or LMX_DIR");
    }
    std::vector<std::string> candidates;
    while (const dirent* entry = readdir(dir)) {
        struct stat st;
        if (isValidMailboxName(entry->d_name) &&
            fstatat(dirfd(dir), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISSOCK(st.st_mode)) {
            candidates.emplace_back(entry->d_name);
        }
    }
    closedir(dir);
    std::sort(candidates.begin(), candidates.end());

    LmxSession session;
    if (session.start(o.dir, error) != 0) {
        return fail(error);
    }
    for (const auto& name : candidates) {
        // A socket file whose owner died stays behind until the name is used again.
        if (lmx_locate(name.c_str()) != LMX_INVALID_ID && !emitLine(name)) {
            return outputFailed();
        }
    }
    return kExitOk;
}

using AnswerHandler = std::function<int(const SolifMessage&)>;

// A request from a private mailbox to `o.mbox`; its decoded answer goes to `onAnswer`, whose
// result is solicctl's.
int runRequest(const Options& o, uint32_t requestNo, uint32_t answerNo, const AnswerHandler& onAnswer) {
    std::string error;
    if (!mailboxDirectoryUsable(o.dir, error)) {
        return fail(error);
    }
    const TerminationSignals signals;
    LmxSession session;
    if (session.start(o.dir, error) != 0) {
        return fail(error);
    }
    const lmx_mbox_id_t daemon = lmx_locate(o.mbox.c_str());
    if (daemon == LMX_INVALID_ID) {
        return fail("no mailbox '" + o.mbox + "' in " + o.dir +
                    "; check --dir (or LMX_DIR) and that solicd runs with --source " + o.mbox);
    }
    if (session.createMailbox("solicctl-" + std::to_string(getpid()), error) != 0) {
        return fail(error);
    }
    // Learn at once when solicd goes away instead of waiting the whole timeout.
    const uint32_t monitor = lmx_monitor(daemon, nullptr);
    static_assert(sizeof(solif_get_routers_req_t) == sizeof(solif_show_rainfo_req_t) &&
                      sizeof(solif_health_req_t) == sizeof(solif_show_rainfo_req_t),
                  "requests are alike");
    void* request = lmx_alloc(sizeof(solif_get_routers_req_t), requestNo);
    if (request == nullptr || lmx_send(request, daemon, session.mailbox()) != 0) {
        return fail("cannot send the request to '" + o.mbox + "' (" + std::strerror(errno) +
                    "); check that solicd runs");
    }
    const auto deadline = Clock::now() + std::chrono::seconds(o.timeoutSec);
    for (;;) {
        Received r = waitForMessage(signals, deadline);
        switch (r.kind) {
            case Received::Kind::Timeout:
                return fail("no answer from '" + o.mbox + "' within " + std::to_string(o.timeoutSec) +
                            " s; check that it is the mailbox solicd was given with --source");
            case Received::Kind::Signal:
                return fail("interrupted before '" + o.mbox + "' answered");
            case Received::Kind::Error:
                return fail(r.error);
            case Received::Kind::Message:
                break;
        }
        const void* msg = r.message.get();
        if (lmx_sender(msg) != daemon) {
            continue;  // not ours to answer
        }
        const uint32_t msgNo = lmx_msgno(msg);
        if (monitor != 0 && msgNo == LMX_MONITOR_DEFAULT_NO) {
            return fail("'" + o.mbox + "' went away before answering; check that solicd runs");
        }
        if (msgNo != answerNo) {
            continue;
        }
        SolifMessage answer;
        if (solifDecode(msg, lmx_size(msg), answer, error) != 0) {
            return fail("malformed answer from '" + o.mbox + "': " + error);
        }
        return onAnswer(answer);
    }
}

// What to say of a text answer its sender cut to the largest message of the mailbox service:
// it is never read or printed as if it were whole.
std::string cutAnswer(const Options& o, const std::string& what, const SolifMessage& answer) {
    return "the " + what + " of '" + o.mbox + "' came cut at " + std::to_string(answer.text.size()) +
           " bytes, the largest message the mailbox service carries; solicd traces its whole size at INFO";
}

// The health answer read whole into `health`; otherwise false, having said why.
bool readHealthAnswer(const Options& o, const SolifMessage& answer, HealthDocument& health) {
    if (answer.textCut) {
        fail(cutAnswer(o, "health answer", answer));
        return false;
    }
    std::string error;
    if (!readHealth(answer.text, health, error)) {
        fail("cannot read the health answer of '" + o.mbox + "' (" + error + ")");
        return false;
    }
    return true;
}

// The dump as it came; one that came cut is printed as far as it goes, and said to be cut.
int printShow(const Options& o, const SolifMessage& answer) {
    if (!emit(showText(answer))) {
        return outputFailed();
    }
    return answer.textCut ? fail(cutAnswer(o, "cache answer", answer)) : kExitOk;
}

int printRouters(const Options& o, const SolifMessage& answer) {
    const std::vector<std::string> lines =
        o.json ? std::vector<std::string>{jsonLine(answer)} : textLines(answer);
    for (const auto& line : lines) {
        if (!emitLine(line)) {
            return outputFailed();
        }
    }
    return kExitOk;
}

int printStatus(const Options& o, const SolifMessage& answer) {
    if (answer.textCut) {
        return fail(cutAnswer(o, "cache answer", answer));
    }
    SolCacheText cache;
    std::string error;
    if (!solParseCacheText(answer.text, cache, error)) {
        return fail("cannot read the cache of '" + o.mbox + "' (" + error + "); 'solicctl show " + o.mbox +
                    "' prints it as it came, check that solicd and solicctl are of one version");
    }
    const std::string text = o.json ? statusJson(o.mbox, cache) + "\n"
                                    : statusText(o.mbox, cache, std::time(nullptr), colourForStdout());
    return emit(text) ? kExitOk : outputFailed();
}

// The document as it came with --json, for people without; either way only a document read whole.
int printHealth(const Options& o, const SolifMessage& answer) {
    HealthDocument health;
    if (!readHealthAnswer(o, answer, health)) {
        return kExitFailed;
    }
    if (o.json) {
        return emitLine(answer.text) ? kExitOk : outputFailed();
    }
    return emit(healthText(o.mbox, health, std::time(nullptr), colourForStdout())) ? kExitOk : outputFailed();
}

// The health answer, then the cache: two requests, one after the other.
int printMetrics(const Options& o) {
    HealthDocument health;
    const int asked = runRequest(o, SOLIF_HEALTH_REQ, SOLIF_HEALTH_CFM, [&](const SolifMessage& answer) {
        return readHealthAnswer(o, answer, health) ? kExitOk : kExitFailed;
    });
    if (asked != kExitOk) {
        return asked;
    }
    return runRequest(o, SOLIF_SHOW_RAINFO_REQ, SOLIF_SHOW_RAINFO_CFM, [&](const SolifMessage& answer) {
        if (answer.textCut) {
            return fail(cutAnswer(o, "cache answer", answer));
        }
        SolCacheText cache;
        std::string error;
        if (!solParseCacheText(answer.text, cache, error)) {
            return fail("cannot read the cache of '" + o.mbox + "' (" + error + ")");
        }
        const MetricsFormat format = o.prometheus ? MetricsFormat::Prometheus : MetricsFormat::OpenMetrics;
        return emit(metricsText(health, cache, std::time(nullptr), format)) ? kExitOk : outputFailed();
    });
}

bool isUpdate(uint32_t msgNo) {
    return msgNo == SOLIF_ROUTER_UPDATED_IND || msgNo == SOLIF_NETWORK_UPDATED_IND ||
           msgNo == SOLIF_DNS_SERVER_UPDATED_IND;
}

int runWatch(const Options& o) {
    std::string error;
    if (!mailboxDirectoryUsable(o.dir, error)) {
        return fail(error);
    }
    const bool colour = colourForStdout();
    SenderTrust trust("", geteuid());
    const TerminationSignals signals;
    LmxSession session;
    if (session.start(o.dir, error) != 0 || session.createMailbox(o.mbox, error) != 0) {
        return fail(error);
    }
    std::optional<Clock::time_point> deadline;
    if (o.timeoutSec != 0) {
        deadline = Clock::now() + std::chrono::seconds(o.timeoutSec);
    }
    uint64_t printed = 0;
    while (o.count == 0 || printed < o.count) {
        Received r = waitForMessage(signals, deadline);
        switch (r.kind) {
            case Received::Kind::Timeout:
                if (o.count != 0) {
                    return fail("timed out after " + std::to_string(o.timeoutSec) + " s with " +
                                std::to_string(printed) + " of " + std::to_string(o.count) +
                                " updates; check that solicd runs with --destination " + o.mbox);
                }
                return kExitOk;
            case Received::Kind::Signal:
                return kExitOk;
            case Received::Kind::Error:
                return fail(r.error);
            case Received::Kind::Message:
                break;
        }
        const void* msg = r.message.get();
        if (!admitted(trust, msg)) {
            continue;
        }
        const uint32_t msgNo = lmx_msgno(msg);
        if (!isUpdate(msgNo)) {
            std::fprintf(stderr, "solicctl: ignored message %s (%s) from %s\n", hexNo(msgNo).c_str(),
                         solifMsgNoToCstr(msgNo), senderName(msg).c_str());
            continue;
        }
        SolifMessage update;
        if (solifDecode(msg, lmx_size(msg), update, error) != 0) {
            std::fprintf(stderr, "solicctl: ignored malformed update from %s: %s\n", senderName(msg).c_str(),
                         error.c_str());
            continue;
        }
        const std::string line = o.json  ? jsonLine(update)
                                 : o.raw ? textLines(update).front()
                                         : watchLine(update, std::time(nullptr), colour);
        if (!emitLine(line)) {
            return outputFailed();
        }
        ++printed;
    }
    return kExitOk;
}

int run(const Options& o) {
    switch (o.command) {
        case Command::Ls:
            return runLs(o);
        case Command::Show:
            return runRequest(o, SOLIF_SHOW_RAINFO_REQ, SOLIF_SHOW_RAINFO_CFM,
                              [&](const SolifMessage& answer) { return printShow(o, answer); });
        case Command::Routers:
            return runRequest(o, SOLIF_GET_ROUTERS_REQ, SOLIF_GET_ROUTERS_CFM,
                              [&](const SolifMessage& answer) { return printRouters(o, answer); });
        case Command::Status:
            return runRequest(o, SOLIF_SHOW_RAINFO_REQ, SOLIF_SHOW_RAINFO_CFM,
                              [&](const SolifMessage& answer) { return printStatus(o, answer); });
        case Command::Health:
            return runRequest(o, SOLIF_HEALTH_REQ, SOLIF_HEALTH_CFM,
                              [&](const SolifMessage& answer) { return printHealth(o, answer); });
        case Command::Metrics:
            return printMetrics(o);
        case Command::Watch:
            return runWatch(o);
        case Command::Hooks:
            return runHooks(o);
    }
    return kExitUsage;
}

}  // namespace
}  // namespace solicd::ctl

int main(int argc, char** argv) {
    using namespace solicd::ctl;
    const ParseResult parsed =
        parseArgs(std::vector<std::string>(argv + 1, argv + argc), std::getenv("LMX_DIR"));
    switch (parsed.kind) {
        case ParseResult::Kind::Help:
        case ParseResult::Kind::Version:
            std::fputs(parsed.text.c_str(), stdout);
            return kExitOk;
        case ParseResult::Kind::Usage:
            std::fprintf(stderr, "%s\n", parsed.text.c_str());
            return kExitUsage;
        case ParseResult::Kind::Run:
            break;
    }
    return run(parsed.options);
}
