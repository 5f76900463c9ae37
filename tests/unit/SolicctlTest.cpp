// solicctl as an operator runs it, against a test peer on the real mailbox service in a private
// directory: output forms, --count, --timeout, signals, exit statuses and error lines.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <thread>

#include "ClientRecords.h"
#include "LmxTestPeer.h"
#include "SolIf.h"
#include "Subprocess.h"
#include "lmx.h"

using namespace solicd;
using namespace solicd::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::StartsWith;

namespace {

struct Result {
    int status = -1;
    std::string out;
    std::string err;
};

std::vector<std::string> lines(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t nl = text.find('\n'); nl != std::string::npos; nl = text.find('\n', start)) {
        out.push_back(text.substr(start, nl - start));
        start = nl + 1;
    }
    if (start < text.size()) {
        out.push_back(text.substr(start));
    }
    return out;
}

class SolicctlTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/solicctl-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        setenv("LMX_DIR", m_dir.c_str(), 1);
    }
    void TearDown() override {
        m_peers.clear();
        std::filesystem::remove_all(m_dir);
        unsetenv("LMX_DIR");
    }

    // A test peer holding `mbox`, ready to serve.
    void startPeer(const std::string& mode, const std::string& mbox, const std::string& subscriber = "") {
        std::vector<std::string> argv{LMX_TEST_PEER_BIN, mode, mbox};
        if (!subscriber.empty()) {
            argv.push_back(subscriber);
        }
        m_peers.push_back(std::make_unique<Subprocess>(argv));
        ASSERT_TRUE(m_peers.back()->started());
        ASSERT_EQ(m_peers.back()->readLine(), "ready");
    }

    static std::unique_ptr<Subprocess> start(std::vector<std::string> args) {
        args.insert(args.begin(), SOLICCTL_BIN);
        return std::make_unique<Subprocess>(args);
    }

    static Result run(std::vector<std::string> args) {
        Result r;
        r.status = start(std::move(args))->finish(&r.out, &r.err);
        return r;
    }

    // Every command that reads the health answer of 'solicd' ends with status 1, prints nothing
    // and says `err` on stderr.
    static void expectHealthRefused(const std::string& err) {
        for (const std::vector<std::string>& command : {std::vector<std::string>{"health", "solicd"},
                                                        {"health", "solicd", "--json"},
                                                        {"metrics", "solicd"}}) {
            const Result r = run(command);
            EXPECT_EQ(r.status, 1) << command.back();
            EXPECT_EQ(r.out, "") << command.back();
            EXPECT_EQ(r.err, err) << command.back();
        }
    }

    // Until the mailbox `name` exists (the watcher created it), or the guard.
    bool waitForMailbox(const std::string& name) const {
        const auto deadline = std::chrono::steady_clock::now() + kGuard;
        while (!std::filesystem::is_socket(m_dir + "/" + name)) {
            if (std::chrono::steady_clock::now() > deadline) {
                return false;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }

    std::string m_dir;
    std::vector<std::unique_ptr<Subprocess>> m_peers;
};

TEST_F(SolicctlTest, RoutersPrintsACountLineThenOneLinePerRouter) {
    startPeer("answer", "solicd");
    const Result r = run({"routers", "solicd"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "routers: 2\n" + toStr(makeRouter(1)) + "\n" + toStr(makeRouter(2)) + "\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(SolicctlTest, RoutersJsonIsOneObjectOnOneLine) {
    startPeer("answer", "solicd");
    const Result r = run({"routers", "solicd", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto out = lines(r.out);
    ASSERT_EQ(out.size(), 1u);
    const auto j = nlohmann::json::parse(out[0]);
    EXPECT_EQ(j["kind"], "routers");
    ASSERT_EQ(j["routers"].size(), 2u);
    EXPECT_EQ(j["routers"][0]["address"], "fe80::1");
    EXPECT_EQ(j["routers"][0]["routerLifetime"], 1801);
    EXPECT_EQ(j["routers"][1]["address"], "fe80::2");
    EXPECT_EQ(j["routers"][1]["status"]["state"], "STATE_NEW");
}

TEST_F(SolicctlTest, ShowPrintsTheTextAnswer) {
    startPeer("answer", "solicd");
    const Result r = run({"show", "solicd"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, testCacheText() + "\n");
}

TEST_F(SolicctlTest, DirOptionWinsOverLmxDir) {
    startPeer("answer", "solicd");
    setenv("LMX_DIR", "/nonexistent-lmx-dir", 1);
    const Result r = run({"--dir", m_dir, "show", "solicd"});
    EXPECT_EQ(r.status, 0) << r.err;
}

TEST_F(SolicctlTest, MissingDaemonMailboxSaysWhereItLookedAndWhatToCheck) {
    const Result r = run({"show", "nosuch"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "solicctl: no mailbox 'nosuch' in " + m_dir +
                         "; check --dir (or LMX_DIR) and that solicd runs with --source nosuch\n");
}

TEST_F(SolicctlTest, RequestToAMissingDirectoryFailsAndCreatesNothing) {
    const std::string missing = m_dir + "/missing";
    const Result r = run({"--dir", missing, "routers", "solicd"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "solicctl: no mailbox directory " + missing +
                         " (No such file or directory); check --dir (or LMX_DIR) and that solicd runs\n");
    EXPECT_FALSE(std::filesystem::exists(missing));
}

TEST_F(SolicctlTest, NoAnswerWithinFiveSecondsFails) {
    startPeer("silent", "solicd");
    const Result r = run({"routers", "solicd"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(
        r.err,
        "solicctl: no answer from 'solicd' within 5 s; check that it is the mailbox solicd was given with "
        "--source\n");
}

TEST_F(SolicctlTest, InconsistentAnswerIsReportedNotRead) {
    startPeer("malformed", "solicd");
    const Result r = run({"routers", "solicd", "--json"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(
        r.err,
        "solicctl: malformed answer from 'solicd': solif_get_routers_cfm_t of 144 bytes cannot hold its 5 "
        "entries (needs 688 bytes)\n");
}

TEST_F(SolicctlTest, DaemonGoneBeforeAnsweringFailsAtOnce) {
    startPeer("vanish", "solicd");
    const Result r = run({"show", "solicd"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "solicctl: 'solicd' went away before answering; check that solicd runs\n");
}

TEST_F(SolicctlTest, WatchRawPrintsEveryUpdateInStreamFormUntilCountAndReportsWhatItIgnores) {
    startPeer("publish", "solicd", "client");
    const Result r = run({"watch", "client", "--raw", "--count", "4"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(lines(r.out), ElementsAre("router_updated " + toStr(makeRouter(1)),
                                          "network_updated " + toStr(makeNetwork(1)),
                                          "dns_servers_updated count: 2, servers: [" +
                                              toStr(makeDnsServer(0)) + ", " + toStr(makeDnsServer(1)) + "]",
                                          "router_updated " + toStr(makeRouter(2))));
    EXPECT_THAT(lines(r.err),
                ElementsAre("solicctl: ignored malformed update from 'solicd': "
                            "solif_router_updated_ind_t of 100 bytes cannot hold itself (needs 144 "
                            "bytes)",
                            "solicctl: ignored message 0x1234 (UNKNOWN) from 'solicd'"));
}

TEST_F(SolicctlTest, WatchJsonPrintsOneObjectPerUpdate) {
    startPeer("publish", "solicd", "client");
    const Result r = run({"watch", "client", "--json", "--count", "3"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto out = lines(r.out);
    ASSERT_EQ(out.size(), 3u);
    const auto router = nlohmann::json::parse(out[0]);
    EXPECT_EQ(router["kind"], "router_updated");
    EXPECT_EQ(router["address"], "fe80::1");
    EXPECT_EQ(router["status"]["id"], 1);
    const auto network = nlohmann::json::parse(out[1]);
    EXPECT_EQ(network["kind"], "network_updated");
    EXPECT_EQ(network["prefix"], "2001:db8:1::1234");
    EXPECT_EQ(network["status"]["state"], "STATE_DEPRECATED");
    const auto dns = nlohmann::json::parse(out[2]);
    EXPECT_EQ(dns["kind"], "dns_servers_updated");
    ASSERT_EQ(dns["servers"].size(), 2u);
    EXPECT_EQ(dns["servers"][1]["address"], "2001:db8::53:1");
}

TEST_F(SolicctlTest, WatchFlushesEachLineAsItComes) {
    startPeer("publish", "solicd", "client");
    auto watch = start({"watch", "client", "--raw", "--count", "100"});
    // The watcher is still running (it wants 100): each line must already have been written.
    EXPECT_THAT(watch->readLine(), StartsWith("router_updated "));
    EXPECT_THAT(watch->readLine(), StartsWith("network_updated "));
    EXPECT_THAT(watch->readLine(), StartsWith("dns_servers_updated "));
    EXPECT_THAT(watch->readLine(), StartsWith("router_updated "));
    watch->signal(SIGTERM);
    EXPECT_EQ(watch->finish(), 0);
}

TEST_F(SolicctlTest, WatchTimeoutWithoutCountIsANormalEnd) {
    const Result r = run({"watch", "lonely", "--timeout", "1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
}

TEST_F(SolicctlTest, WatchTimeoutBeforeCountFails) {
    const Result r = run({"watch", "lonely", "--count", "1", "--timeout", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err,
              "solicctl: timed out after 1 s with 0 of 1 updates; check that solicd runs with --destination "
              "lonely\n");
}

TEST_F(SolicctlTest, WatchEndsOnSigtermAndSigintAndRemovesItsMailbox) {
    for (const int sig : {SIGTERM, SIGINT}) {
        auto watch = start({"watch", "client"});
        ASSERT_TRUE(waitForMailbox("client"));
        watch->signal(sig);
        std::string err;
        EXPECT_EQ(watch->finish(nullptr, &err), 0) << "signal " << sig << ": " << err;
        EXPECT_FALSE(std::filesystem::exists(m_dir + "/client")) << "signal " << sig;
    }
}

TEST_F(SolicctlTest, WatchRefusesAMailboxThatIsInUse) {
    startPeer("silent", "client");
    const Result r = run({"watch", "client", "--timeout", "1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.err, StartsWith("solicctl: cannot create mailbox 'client' in " + m_dir + " ("));
    EXPECT_THAT(r.err, HasSubstr("; another process may hold it"));
    EXPECT_EQ(lines(r.err).size(), 1u);
}

TEST_F(SolicctlTest, LsListsLiveMailboxesSortedAndSkipsLeftovers) {
    startPeer("silent", "b-daemon");
    startPeer("silent", "a-daemon");
    {
        // A socket file nobody listens on any more.
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        const std::string path = m_dir + "/stale";
        std::snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path.c_str());
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
        close(fd);
        std::ofstream(m_dir + "/plain-file") << "x";
    }
    const Result r = run({"ls"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "a-daemon\nb-daemon\n");
}

TEST_F(SolicctlTest, AMissingDirectoryIsOneLineForEveryCommandAndIsNeverCreated) {
    const std::string missing = m_dir + "/mistyped";
    for (const auto& args : std::vector<std::vector<std::string>>{
             {"ls"}, {"watch", "client", "--timeout", "1"}, {"status", "solicd"}, {"show", "solicd"}}) {
        std::vector<std::string> withDir{"--dir", missing};
        withDir.insert(withDir.end(), args.begin(), args.end());
        const Result r = run(withDir);
        EXPECT_EQ(r.status, 1) << args[0];
        EXPECT_EQ(r.out, "") << args[0];
        EXPECT_EQ(r.err, "solicctl: no mailbox directory " + missing +
                             " (No such file or directory); check --dir (or LMX_DIR) and that solicd runs\n")
            << args[0];
        EXPECT_FALSE(std::filesystem::exists(missing)) << args[0];
    }
}

TEST_F(SolicctlTest, UsageErrorsExitTwoWithOneLineOnStderr) {
    for (const auto& args : std::vector<std::vector<std::string>>{
             {}, {"bogus"}, {"watch"}, {"routers", "a", "--count", "1"}, {"watch", "c", "--timeout", "0"}}) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 2) << r.err;
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(lines(r.err).size(), 1u) << r.err;
        EXPECT_THAT(r.err, StartsWith("solicctl: "));
    }
}

TEST_F(SolicctlTest, HelpForTheToolAndEachCommandExitsZero) {
    for (const auto& args : std::vector<std::vector<std::string>>{{"--help"},
                                                                  {"help"},
                                                                  {"ls", "--help"},
                                                                  {"show", "--help"},
                                                                  {"routers", "--help"},
                                                                  {"status", "--help"},
                                                                  {"watch", "--help"},
                                                                  {"help", "watch"}}) {
        const Result r = run(args);
        EXPECT_EQ(r.status, 0);
        EXPECT_THAT(r.out, StartsWith("Usage: solicctl [--dir DIR] "));
        EXPECT_EQ(r.err, "");
    }
}

TEST_F(SolicctlTest, VersionIsOneLineOnStdout) {
    const Result r = run({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "solicctl " SOLICD_VERSION "\n");
    EXPECT_EQ(r.err, "");
}

TEST_F(SolicctlTest, StatusShowsTheLinkForPeople) {
    startPeer("answer", "solicd");
    const Result r = run({"status", "solicd"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    const auto out = lines(r.out);
    ASSERT_GE(out.size(), 14u) << r.out;
    // Network 1 is deprecated, so not active; the times are long past, so every lifetime has run out.
    EXPECT_EQ(out[0], "solicd: 2 routers, 0 prefixes, 2 DNS servers active");
    EXPECT_EQ(
        out[1],
        "rx 1234 RAs, 2 rejected; 3 RS sent; parsed 1234, dropped 0; prefixes 1200 accepted, 34 ignored");
    EXPECT_EQ(out[3], "Routers");
    EXPECT_THAT(out[4], StartsWith("ADDRESS  STATE      LIFETIME  FLAGS  REACHABLE  RETRANS  UPDATED"));
    EXPECT_THAT(out[5], StartsWith("fe80::1  STATE_NEW  0s        M O    30001ms    1001ms   "));
    EXPECT_THAT(out[6], StartsWith("fe80::2  STATE_NEW  0s        M O    30002ms    1002ms   "));
    EXPECT_EQ(out[8], "Prefixes");
    EXPECT_EQ(out[10],
              "2001:db8:1::/64  STATE_DEPRECATED  0s     expired    L A    71 cut to 2h, 81 ignored");
    EXPECT_EQ(out[12], "DNS servers");
    EXPECT_EQ(out[14], "2001:db8::53:0  STATE_UPDATED  0s");
}

TEST_F(SolicctlTest, StatusJsonIsOneObjectWithTheRecordsAndCounters) {
    startPeer("answer", "solicd");
    const Result r = run({"status", "solicd", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto out = lines(r.out);
    ASSERT_EQ(out.size(), 1u);
    const auto j = nlohmann::json::parse(out[0]);
    EXPECT_EQ(j["kind"], "status");
    EXPECT_EQ(j["mailbox"], "solicd");
    ASSERT_EQ(j["routers"].size(), 2u);
    EXPECT_EQ(j["routers"][1]["address"], "fe80::2");
    EXPECT_EQ(j["routers"][1]["status"]["expiredCount"], 52);
    ASSERT_EQ(j["networks"].size(), 1u);
    EXPECT_EQ(j["networks"][0]["prefix"], "2001:db8:1::1234");
    EXPECT_EQ(j["networks"][0]["status"]["lifetimeIgnoredCount"], 81);
    ASSERT_EQ(j["dnsServers"].size(), 2u);
    EXPECT_EQ(j["dnsServers"][1]["index"], 1);
    EXPECT_EQ(j["counters"]["rxRa"], 1234);
    EXPECT_EQ(j["counters"]["prefixIgnored"], 34);
}

TEST_F(SolicctlTest, StatusOfAnAnswerItCannotReadIsAnErrorNeverATable) {
    startPeer("malformed", "solicd");
    const Result r = run({"status", "solicd"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_THAT(r.err, StartsWith("solicctl: cannot read the cache of 'solicd' (at offset "));
    EXPECT_EQ(lines(r.err).size(), 1u);
}

TEST_F(SolicctlTest, RequestsWaitAsLongAsTimeoutSays) {
    startPeer("silent", "solicd");
    for (const char* command : {"show", "status", "routers"}) {
        const auto begin = std::chrono::steady_clock::now();
        const Result r = run({command, "solicd", "--timeout", "1"});
        const auto took = std::chrono::steady_clock::now() - begin;
        EXPECT_EQ(r.status, 1) << command;
        EXPECT_EQ(
            r.err,
            "solicctl: no answer from 'solicd' within 1 s; check that it is the mailbox solicd was given "
            "with --source\n")
            << command;
        EXPECT_LT(took, std::chrono::seconds(4)) << command << ": not the default 5 s";
    }
}

TEST_F(SolicctlTest, WatchPrintsOneShortLinePerUpdate) {
    startPeer("publish", "solicd", "client");
    const Result r = run({"watch", "client", "--count", "4"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto out = lines(r.out);
    ASSERT_EQ(out.size(), 4u) << r.out;
    const std::string clock = "[0-9][0-9]:[0-9][0-9]:[0-9][0-9] ";
    EXPECT_THAT(out[0], ::testing::MatchesRegex(clock + "router  fe80::1  STATE_NEW  lifetime 30m 1s  M O"));
    EXPECT_THAT(out[1], ::testing::MatchesRegex(clock + "prefix  2001:db8:1::/64  STATE_DEPRECATED  "
                                                        "valid 1d preferred 4h  L A"));
    EXPECT_THAT(out[2], ::testing::MatchesRegex(clock + "dns     2001:db8::53:0 2001:db8::53:1  "
                                                        "lifetimes 10m 10m 1s"));
    EXPECT_THAT(out[3], ::testing::MatchesRegex(clock + "router  fe80::2  STATE_NEW  lifetime 30m 2s  M O"));
}

// solicctl's stdout is a pipe whose reader has already gone, as under `watch | head -n 1` once
// head has its line: the first update it writes meets a broken pipe.
TEST_F(SolicctlTest, AReaderThatLeavesEndsWatchQuietlyAndWell) {
    startPeer("publish", "solicd", "client");
    int out[2];
    int err[2];
    ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
    ASSERT_EQ(pipe2(err, O_CLOEXEC), 0);
    close(out[0]);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execl(SOLICCTL_BIN, SOLICCTL_BIN, "watch", "client", "--count", "4", "--timeout", "30", nullptr);
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    std::string errText;
    char buffer[256];
    for (ssize_t n; (n = read(err[0], buffer, sizeof buffer)) > 0;) {
        errText.append(buffer, static_cast<size_t>(n));
    }
    close(err[0]);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(errText, "");
}

// solicctl on a real pseudo-terminal, as a person runs it: what it printed there.
std::string onTerminal(const std::vector<std::string>& args, const char* noColor) {
    int master = -1;
    const pid_t pid = forkpty(&master, nullptr, nullptr, nullptr);
    if (pid < 0) {
        return "forkpty failed";
    }
    if (pid == 0) {
        setenv("TERM", "xterm", 1);
        if (noColor != nullptr) {
            setenv("NO_COLOR", noColor, 1);
        } else {
            unsetenv("NO_COLOR");
        }
        std::vector<char*> argv{const_cast<char*>(SOLICCTL_BIN)};
        for (const auto& a : args) {
            argv.push_back(const_cast<char*>(a.c_str()));
        }
        argv.push_back(nullptr);
        execv(SOLICCTL_BIN, argv.data());
        _exit(127);
    }
    std::string text;
    char buffer[4096];
    // The terminal's reader ends with EIO once the child has gone.
    for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    close(master);
    waitpid(pid, nullptr, 0);
    return text;
}

TEST_F(SolicctlTest, ColourOnATerminalOnlyAndNeverWithNoColor) {
    startPeer("answer", "solicd");
    const std::string coloured = onTerminal({"status", "solicd"}, nullptr);
    EXPECT_THAT(coloured, HasSubstr("\033[1mRouters\033[0m")) << coloured;
    EXPECT_THAT(coloured, HasSubstr("\033[32mSTATE_NEW\033[0m")) << coloured;
    const std::string noColor = onTerminal({"status", "solicd"}, "1");
    EXPECT_THAT(noColor, HasSubstr("Routers"));
    EXPECT_EQ(noColor.find('\033'), std::string::npos) << noColor;
    const Result piped = run({"status", "solicd"});
    EXPECT_EQ(piped.status, 0) << piped.err;
    EXPECT_THAT(piped.out, HasSubstr("Routers"));
    EXPECT_EQ(piped.out.find('\033'), std::string::npos) << piped.out;
}

// Until `path` exists, or the guard.
bool waitForFile(const std::string& path) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!std::filesystem::exists(path)) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

std::string fileText(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// 100 updates of one prefix arrive while the resync's hook runs: the mailbox is read all along,
// and when the hook is done the hooks see the prefix once, in its final state.
TEST_F(SolicctlTest, HooksMergeWhatArrivesWhileAHookRuns) {
    const std::string hooks = m_dir + "/hooks.d";
    std::filesystem::create_directory(hooks);
    {
        std::ofstream hook(hooks + "/10-record");
        hook << "#!/bin/sh\n"
             << "echo \"$SOLICD_REASON|$new_prefix|$new_valid_lifetime|$old_valid_lifetime\" >>" << m_dir
             << "/events\n"
             << "[ \"$SOLICD_REASON\" = RESYNC ] || exit 0\n"
             << "touch " << m_dir << "/started\n"
             << "while [ ! -e " << m_dir << "/release ]; do sleep 0.02; done\n";
    }
    std::filesystem::permissions(hooks + "/10-record", std::filesystem::perms::owner_all);
    startPeer("burst", "solicd", "client");
    auto client = start({"hooks", "client", "--hooks-dir", hooks});
    ASSERT_TRUE(waitForFile(m_dir + "/started")) << "no RESYNC";
    m_peers.back()->signal(SIGUSR1);
    EXPECT_EQ(m_peers.back()->readLine(), "burst");
    // The burst is in solicctl's hands (or on its way): let the hook end.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    std::ofstream(m_dir + "/release") << "";
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (fileText(m_dir + "/events").find("PREFIX_NEW") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    client->signal(SIGTERM);
    std::string err;
    EXPECT_EQ(client->finish(nullptr, &err), 0) << err;
    EXPECT_EQ(fileText(m_dir + "/events"), "RESYNC|||\nPREFIX_NEW|2001:db8:1::|100|\n");
    EXPECT_EQ(err, "");
}

TEST_F(SolicctlTest, HooksWithoutProgramsSayItOnceAtStart) {
    auto client = start({"hooks", "client", "--hooks-dir", m_dir + "/none"});
    ASSERT_TRUE(waitForMailbox("client"));
    client->signal(SIGTERM);
    std::string err;
    EXPECT_EQ(client->finish(nullptr, &err), 0);
    EXPECT_EQ(err, "solicctl: no hook programs in " + m_dir +
                       "/none (missing or empty); nothing will run until some are there\n");
}

TEST_F(SolicctlTest, HealthShowsTheRoutersForPeopleOrTheDocumentAsItCame) {
    startPeer("answer", "solicd");
    Result r = run({"health", "solicd"});
    EXPECT_EQ(r.status, 0) << r.err;
    const auto out = lines(r.out);
    ASSERT_GE(out.size(), 5u) << r.out;
    EXPECT_EQ(out[0], "solicd: 2 routers heard, 1 other source of dropped RAs");
    EXPECT_THAT(out[3], StartsWith("fe80::1  STATE_UPDATED  120  "));
    EXPECT_THAT(out[3], ::testing::EndsWith("M flag: 1 here, 0 at fe80::2"));
    r = run({"health", "solicd", "--json"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, std::string(kTestHealthText) + "\n");
}

TEST_F(SolicctlTest, MetricsAskForTheHealthAndTheCache) {
    startPeer("answer", "solicd");
    const Result r = run({"metrics", "solicd"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_THAT(r.out, HasSubstr("solicd_ra_received_total{router=\"fe80::1\"} 120\n"));
    EXPECT_THAT(r.out, HasSubstr("solicd_prefix_valid_remaining_seconds{prefix=\"2001:db8:1::/64\"} 0\n"))
        << "the test cache's times are long past";
    EXPECT_THAT(r.out, HasSubstr("solicd_dns_servers_active 2\n"));
    EXPECT_THAT(r.out, ::testing::EndsWith("# EOF\n"));
}

TEST_F(SolicctlTest, HealthOfAnotherVersionIsAnErrorNeverATable) {
    startPeer("malformed", "solicd");
    expectHealthRefused(
        "solicctl: cannot read the health answer of 'solicd' (a health document of version 7, this solicctl "
        "reads version 1; check that solicd and solicctl are of one version)\n");
}

// solicd cuts a text answer to the largest message the mailbox service carries (its health
// answer is bounded so that it never is): whatever came cut is said to be cut, in one line, and
// never printed or read as if it were whole.
TEST_F(SolicctlTest, AnAnswerThatCameCutIsSaidToBeCut) {
    startPeer("cut", "solicd");
    const std::string cutAt = std::to_string(lmx_get_max_size() - kSolifShowRainfoOverhead);
    const auto cut = [&](const std::string& what) {
        return "solicctl: the " + what + " of 'solicd' came cut at " + cutAt +
               " bytes, the largest message the mailbox service carries; solicd traces its whole size at "
               "INFO\n";
    };
    expectHealthRefused(cut("health answer"));
    Result r = run({"status", "solicd"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, cut("cache answer"));
    // The dump as far as it came, and the line that says it is not all.
    r = run({"show", "solicd"});
    EXPECT_EQ(r.status, 1);
    EXPECT_THAT(r.out, StartsWith(testCacheText()));
    EXPECT_EQ(r.err, cut("cache answer"));
}

TEST_F(SolicctlTest, AHealthAnswerThatIsNotJsonIsSaidSoAndNotPrinted) {
    startPeer("garbled", "solicd");
    expectHealthRefused("solicctl: cannot read the health answer of 'solicd' (not a JSON document)\n");
}

}  // namespace
