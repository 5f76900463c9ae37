// solicctl's command line, output forms and trust in senders, without the mailbox service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "ClientRecords.h"
#include "SenderTrust.h"
#include "SolicctlArgs.h"
#include "SolicctlOutput.h"

using namespace solicd;
using namespace solicd::ctl;
using namespace solicd::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

ParseResult parse(std::vector<std::string> args, const char* env = nullptr) {
    return parseArgs(args, env);
}

std::string usageOf(std::vector<std::string> args) {
    const ParseResult r = parse(std::move(args));
    EXPECT_EQ(r.kind, ParseResult::Kind::Usage);
    return r.text;
}

TEST(SolicctlArgs, DirectoryComesFromDirThenLmxDirThenRunLmx) {
    EXPECT_EQ(parse({"ls"}).options.dir, "/run/lmx");
    EXPECT_EQ(parse({"ls"}, "").options.dir, "/run/lmx");
    EXPECT_EQ(parse({"ls"}, "/tmp/env").options.dir, "/tmp/env");
    EXPECT_EQ(parse({"--dir", "/tmp/opt", "ls"}, "/tmp/env").options.dir, "/tmp/opt");
    EXPECT_EQ(parse({"--dir=/tmp/eq", "ls"}, "/tmp/env").options.dir, "/tmp/eq");
    EXPECT_EQ(parse({"show", "solicd", "--dir", "/tmp/after"}).options.dir, "/tmp/after");
}

TEST(SolicctlArgs, CommandsTakeTheirMailboxAndOptions) {
    ParseResult r = parse({"routers", "solicd", "--json"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run);
    EXPECT_EQ(r.options.command, Command::Routers);
    EXPECT_EQ(r.options.mbox, "solicd");
    EXPECT_TRUE(r.options.json);

    r = parse({"watch", "--count", "3", "client", "--timeout=9", "--json"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run);
    EXPECT_EQ(r.options.command, Command::Watch);
    EXPECT_EQ(r.options.mbox, "client");
    EXPECT_EQ(r.options.count, 3u);
    EXPECT_EQ(r.options.timeoutSec, 9u);
    EXPECT_TRUE(r.options.json);

    r = parse({"show", "solicd"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run);
    EXPECT_EQ(r.options.command, Command::Show);
    EXPECT_FALSE(r.options.json);
    EXPECT_EQ(r.options.count, 0u) << "no limit";
    EXPECT_EQ(r.options.timeoutSec, 5u) << "a request waits 5 s unless told";

    r = parse({"status", "solicd", "--timeout", "2", "--json"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run);
    EXPECT_EQ(r.options.command, Command::Status);
    EXPECT_EQ(r.options.timeoutSec, 2u);
    EXPECT_TRUE(r.options.json);

    r = parse({"watch", "client", "--raw"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run);
    EXPECT_TRUE(r.options.raw);
    EXPECT_EQ(r.options.timeoutSec, 0u) << "watch has no limit unless told";
}

TEST(SolicctlArgs, HooksTakeTheirDirectoryNamesAndLimit) {
    ParseResult r = parse({"hooks", "client", "--daemon", "solicd.blue", "--hooks-dir=/tmp/h", "--namespace",
                           "blue", "--interface", "eth0", "--timeout", "3"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run) << r.text;
    EXPECT_EQ(r.options.command, Command::Hooks);
    EXPECT_EQ(r.options.mbox, "client");
    EXPECT_EQ(r.options.daemon, "solicd.blue");
    EXPECT_EQ(r.options.hooksDir, "/tmp/h");
    EXPECT_EQ(r.options.netns, "blue");
    EXPECT_EQ(r.options.interface, "eth0");
    EXPECT_EQ(r.options.timeoutSec, 3u);

    r = parse({"hooks", "client"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run);
    EXPECT_EQ(r.options.daemon, "") << "solicd's restarts not watched";
    EXPECT_EQ(r.options.hooksDir, "/etc/solicd/hooks.d");
    EXPECT_EQ(r.options.timeoutSec, 10u);

    // An empty --daemon is solicd's own default name, as the unit passes an empty SOURCE.
    r = parse({"hooks", "client", "--daemon=", "--namespace=blue", "--interface=eth0"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run) << r.text;
    EXPECT_EQ(r.options.daemon, "solcid.blue-eth0");
    // In the host's own namespace, as the unit passes an empty NAMESPACE.
    r = parse({"hooks", "client", "--daemon=", "--namespace=", "--interface=eth0"});
    ASSERT_EQ(r.kind, ParseResult::Kind::Run) << r.text;
    EXPECT_EQ(r.options.netns, "");
    EXPECT_EQ(r.options.daemon, "solcid.-eth0");
    EXPECT_EQ(
        usageOf({"hooks", "client", "--daemon=", "--namespace=blue"}),
        "solicctl: hooks: an empty --daemon names solicd's default mailbox, which needs --interface (and "
        "--namespace, unless solicd watches the host's own) of mailbox-name characters; see 'solicctl "
        "hooks --help'");
    EXPECT_EQ(
        usageOf({"hooks", "client", "--daemon=", "--namespace=a b", "--interface=eth0"}),
        "solicctl: hooks: an empty --daemon names solicd's default mailbox, which needs --interface (and "
        "--namespace, unless solicd watches the host's own) of mailbox-name characters; see 'solicctl "
        "hooks --help'");
    EXPECT_EQ(
        usageOf({"hooks", "client", "--interface", "a-very-long-interface"}),
        "solicctl: hooks: --interface needs an interface name of 1 to 15 characters; see 'solicctl hooks "
        "--help'");
    EXPECT_EQ(usageOf({"hooks", "client", "--namespace", "a/b"}),
              "solicctl: hooks: --namespace needs a network namespace name; see 'solicctl hooks --help'");
    EXPECT_EQ(usageOf({"watch", "client", "--daemon", "x"}),
              "solicctl: watch: unknown option '--daemon'; see 'solicctl watch --help'");
}

TEST(SolicctlArgs, VersionAndHelpCommand) {
    EXPECT_EQ(parse({"--version"}).kind, ParseResult::Kind::Version);
    EXPECT_EQ(parse({"status", "x", "--version"}).text, "solicctl " SOLICD_VERSION "\n");
    EXPECT_THAT(parse({"help"}).text, StartsWith("Usage: solicctl [--dir DIR] COMMAND [ARGS]\n"));
    EXPECT_EQ(parse({"help", "status"}).text, parse({"status", "--help"}).text);
    EXPECT_EQ(parse({"help", "help"}).kind, ParseResult::Kind::Help);
    EXPECT_EQ(parse({"help", "help"}).text,
              "Usage: solicctl help [COMMAND]\nDescribes the tool, or COMMAND as 'solicctl COMMAND --help' "
              "does.\n");
    EXPECT_THAT(parse({"help", "status"}).text,
                StartsWith("Usage: solicctl [--dir DIR] status MBOX [--json]"));
    EXPECT_EQ(usageOf({"help", "stat"}), "solicctl: unknown command 'stat'; see 'solicctl --help'");
    EXPECT_EQ(usageOf({"help", "ls", "show"}),
              "solicctl: help: unexpected argument 'show'; see 'solicctl --help'");
    EXPECT_EQ(usageOf({"help", "help", "ls"}),
              "solicctl: help: unexpected argument 'ls'; see 'solicctl --help'");
}

TEST(SolicctlArgs, HelpForTheToolAndForEachCommand) {
    EXPECT_EQ(parse({"--help"}).kind, ParseResult::Kind::Help);
    EXPECT_THAT(parse({"-h"}).text, StartsWith("Usage: solicctl [--dir DIR] COMMAND [ARGS]\n"));
    EXPECT_THAT(parse({"ls", "--help"}).text, StartsWith("Usage: solicctl [--dir DIR] ls\n"));
    EXPECT_THAT(parse({"show", "--help"}).text,
                StartsWith("Usage: solicctl [--dir DIR] show MBOX [--timeout SEC]\n"));
    EXPECT_THAT(parse({"routers", "x", "--help"}).text,
                StartsWith("Usage: solicctl [--dir DIR] routers MBOX"));
    EXPECT_THAT(
        parse({"watch", "--count", "zero", "--help"}).text,
        StartsWith("Usage: solicctl [--dir DIR] watch MBOX [--json | --raw] [--count N] [--timeout SEC]\n"));
}

TEST(SolicctlArgs, UsageErrorsSayWhatIsWrongInOneLine) {
    EXPECT_EQ(usageOf({}), "solicctl: missing command; see 'solicctl --help'");
    EXPECT_EQ(usageOf({"lst"}), "solicctl: unknown command 'lst'; see 'solicctl --help'");
    EXPECT_EQ(usageOf({"--verbose", "ls"}), "solicctl: unknown option '--verbose'; see 'solicctl --help'");
    EXPECT_EQ(usageOf({"--dir"}), "solicctl: --dir needs a directory; see 'solicctl --help'");
    EXPECT_EQ(usageOf({"--dir=", "ls"}), "solicctl: --dir needs a directory; see 'solicctl --help'");
    EXPECT_EQ(usageOf({"show"}), "solicctl: show: missing mailbox name; see 'solicctl show --help'");
    EXPECT_EQ(usageOf({"ls", "extra"}),
              "solicctl: ls: unexpected argument 'extra'; see 'solicctl ls --help'");
    EXPECT_EQ(usageOf({"show", "a", "b"}),
              "solicctl: show: unexpected argument 'b'; see 'solicctl show --help'");
    EXPECT_EQ(usageOf({"show", "a", "--json"}),
              "solicctl: show: unknown option '--json'; see 'solicctl show --help'");
    EXPECT_EQ(usageOf({"watch", "a", "--json", "--raw"}),
              "solicctl: watch: --json and --raw exclude each other; see 'solicctl watch --help'");
    EXPECT_EQ(usageOf({"status", "a", "--raw"}),
              "solicctl: status: unknown option '--raw'; see 'solicctl status --help'");
    EXPECT_EQ(usageOf({"routers", "a", "--count", "1"}),
              "solicctl: routers: unknown option '--count'; see 'solicctl routers --help'");
    EXPECT_EQ(
        usageOf({"watch", "c", "--count", "0"}),
        "solicctl: watch: --count needs a whole number from 1 to 4294967295; see 'solicctl watch --help'");
    EXPECT_EQ(
        usageOf({"watch", "c", "--count"}),
        "solicctl: watch: --count needs a whole number from 1 to 4294967295; see 'solicctl watch --help'");
    EXPECT_EQ(
        usageOf({"watch", "c", "--count", "-1"}),
        "solicctl: watch: --count needs a whole number from 1 to 4294967295; see 'solicctl watch --help'");
    EXPECT_EQ(
        usageOf({"watch", "c", "--timeout", "1.5"}),
        "solicctl: watch: --timeout needs whole seconds from 1 to 2678400; see 'solicctl watch --help'");
    EXPECT_EQ(
        usageOf({"watch", "c", "--timeout", "99999999999999999999999"}),
        "solicctl: watch: --timeout needs whole seconds from 1 to 2678400; see 'solicctl watch --help'");
}

TEST(SolicctlArgs, MailboxNamesFollowTheServiceRule) {
    EXPECT_TRUE(isValidMailboxName("solicd-ra0.v2_x"));
    EXPECT_TRUE(isValidMailboxName(std::string(100, 'a')));
    EXPECT_FALSE(isValidMailboxName(std::string(101, 'a')));
    EXPECT_FALSE(isValidMailboxName(""));
    EXPECT_FALSE(isValidMailboxName(".hidden"));
    EXPECT_FALSE(isValidMailboxName("../etc"));
    EXPECT_FALSE(isValidMailboxName("a b"));
    EXPECT_EQ(usageOf({"show", "../x"}),
              "solicctl: show: invalid mailbox name '../x': use 1 to 100 characters of A-Z a-z 0-9 . _ - not "
              "starting with '.'; see 'solicctl show --help'");
}

SolifMessage routerUpdate(const SolRouter& r) {
    SolifMessage m;
    m.msgNo = SOLIF_ROUTER_UPDATED_IND;
    m.routers.push_back(r);
    return m;
}

TEST(SolicctlOutput, RouterUpdateJsonHasRecordFieldsAndStatusWithStateName) {
    const auto j = nlohmann::json::parse(jsonLine(routerUpdate(makeRouter(7))));
    EXPECT_EQ(j.dump(), nlohmann::json::parse(R"({
        "kind": "router_updated", "address": "fe80::7", "reachableTime": 30007, "retransTimer": 1007,
        "routerLifetime": 1807, "flags": 6,
        "status": {"id": 7, "state": "STATE_NEW", "createdTime": 1700000007, "lastUpdateTime": 1700000107,
                   "lastStateChangeTime": 1700000207, "lastConfigChangeTime": 1700000307,
                   "timeoutStartTime": 1700000407, "expiryTime": 1700000507, "updateCount": 17,
                   "configChangeCount": 27, "stateChangeCount": 37, "invalidatedCount": 47, "expiredCount": 57}
    })")
                            .dump());
    EXPECT_THAT(jsonLine(routerUpdate(makeRouter(7))),
                StartsWith("{\"kind\":\"router_updated\",\"address\":"))
        << "kind first, fields in record order";
    EXPECT_EQ(jsonLine(routerUpdate(makeRouter(7))).find('\n'), std::string::npos) << "one line";
}

TEST(SolicctlOutput, NetworkUpdateJsonCarriesNetworkCountersAndPrefixAsReceived) {
    SolifMessage m;
    m.msgNo = SOLIF_NETWORK_UPDATED_IND;
    m.networks.push_back(makeNetwork(2));
    const auto j = nlohmann::json::parse(jsonLine(m));
    EXPECT_EQ(j["kind"], "network_updated");
    EXPECT_EQ(j["prefix"], "2001:db8:2::1234");
    EXPECT_EQ(j["prefixLength"], 64);
    EXPECT_EQ(j["validLifetime"], 86402);
    EXPECT_EQ(j["preferredLifetime"], 14402);
    EXPECT_EQ(j["flags"], 0x30);
    EXPECT_EQ(j["status"]["state"], "STATE_DEPRECATED");
    EXPECT_EQ(j["status"]["deprecatedCount"], 62);
    EXPECT_EQ(j["status"]["lifetimeResetCount"], 72);
    EXPECT_EQ(j["status"]["lifetimeIgnoredCount"], 82);
}

TEST(SolicctlOutput, ListsGoUnderServersAndRouters) {
    SolifMessage dns;
    dns.msgNo = SOLIF_DNS_SERVER_UPDATED_IND;
    dns.dnsServers = {makeDnsServer(0), makeDnsServer(1)};
    auto j = nlohmann::json::parse(jsonLine(dns));
    EXPECT_EQ(j["kind"], "dns_servers_updated");
    ASSERT_EQ(j["servers"].size(), 2u);
    EXPECT_EQ(j["servers"][1]["index"], 1);
    EXPECT_EQ(j["servers"][1]["address"], "2001:db8::53:1");
    EXPECT_EQ(j["servers"][1]["lifetime"], 601);
    EXPECT_EQ(j["servers"][1]["status"]["state"], "STATE_UPDATED");

    SolifMessage routers;
    routers.msgNo = SOLIF_GET_ROUTERS_CFM;
    EXPECT_EQ(jsonLine(routers), R"({"kind":"routers","routers":[]})");
    routers.routers = {makeRouter(1), makeRouter(2)};
    j = nlohmann::json::parse(jsonLine(routers));
    ASSERT_EQ(j["routers"].size(), 2u);
    EXPECT_EQ(j["routers"][0]["address"], "fe80::1");
    EXPECT_EQ(j["routers"][1]["status"]["id"], 2);
}

TEST(SolicctlOutput, ReadableFormsAreOneLinePerUpdate) {
    const SolRouter r = makeRouter(3);
    EXPECT_THAT(textLines(routerUpdate(r)), ElementsAre("router_updated " + toStr(r)));
    SolifMessage dns;
    dns.msgNo = SOLIF_DNS_SERVER_UPDATED_IND;
    dns.dnsServers = {makeDnsServer(0), makeDnsServer(1)};
    EXPECT_THAT(textLines(dns),
                ElementsAre("dns_servers_updated count: 2, servers: [" + toStr(dns.dnsServers[0]) + ", " +
                            toStr(dns.dnsServers[1]) + "]"));
    SolifMessage routers;
    routers.msgNo = SOLIF_GET_ROUTERS_CFM;
    routers.routers = {r};
    EXPECT_THAT(textLines(routers), ElementsAre("routers: 1", toStr(r)));
    for (const auto& line : textLines(dns)) {
        EXPECT_THAT(line, ::testing::Not(HasSubstr("\n")));
    }
}

TEST(SolicctlOutput, ShowTextEndsWithALineEnd) {
    SolifMessage m;
    m.msgNo = SOLIF_SHOW_RAINFO_CFM;
    m.text = "\nRouters:\n";
    EXPECT_EQ(showText(m), "\nRouters:\n");
    m.text = "\nCounters:{...}";
    EXPECT_EQ(showText(m), "\nCounters:{...}\n");
}

// Users named as a test wants them, whatever this system's user database says.
std::string testUser(uid_t uid) {
    switch (uid) {
        case 0:
            return "root";
        case 1000:
            return "alice";
        case 1001:
            return "mallory";
        default:
            return "uid " + std::to_string(uid);
    }
}

TEST(SenderTrust, WithoutADaemonTakesMailboxesOfRootAndOfItsOwnUserAndReportsTheFirstOther) {
    SenderTrust trust("", 1000, testUser);
    std::string report = "stale";
    EXPECT_TRUE(trust.admits("solicd-blue", 0, report));
    EXPECT_EQ(report, "");
    EXPECT_TRUE(trust.admits("alices-own", 1000, report));
    EXPECT_FALSE(trust.admits("forger", 1001, report));
    EXPECT_EQ(
        report,
        "refused a message from 'forger' (owned by mallory): only messages from mailboxes owned by root or "
        "alice are taken; further refusals are not reported");
    EXPECT_FALSE(trust.admits("forger", 1001, report));
    EXPECT_EQ(report, "");  // once, not once per message
    EXPECT_FALSE(trust.admits("another", 1002, report));
    EXPECT_EQ(report, "");
    EXPECT_TRUE(trust.admits("solicd-blue", 0, report));  // refusals change nothing for the others
}

TEST(SenderTrust, WithADaemonTakesOnlyItsMailboxAndOnlyOfRootOrItsOwnUser) {
    SenderTrust trust("solicd-blue", 0, testUser);
    std::string report;
    EXPECT_TRUE(trust.admits("solicd-blue", 0, report));
    // Root's other mailboxes are not solicd.
    EXPECT_FALSE(trust.admits("solicd-red", 0, report));
    EXPECT_EQ(
        report,
        "refused a message from 'solicd-red' (owned by root): only messages from 'solicd-blue' owned by "
        "root are taken; further refusals are not reported");
    // The daemon's name in another user's hands (its file replaced while solicd was away).
    SenderTrust fresh("solicd-blue", 0, testUser);
    EXPECT_FALSE(fresh.admits("solicd-blue", 1001, report));
    EXPECT_EQ(
        report,
        "refused a message from 'solicd-blue' (owned by mallory): only messages from 'solicd-blue' owned by "
        "root are taken; further refusals are not reported");
    EXPECT_TRUE(fresh.admits("solicd-blue", 0, report));
    EXPECT_EQ(report, "");
}

TEST(SenderTrust, UnnamedOrUnownedSendersAreRefused) {
    SenderTrust trust("", 0, testUser);
    std::string report;
    EXPECT_FALSE(trust.admits(nullptr, 0, report));
    EXPECT_EQ(
        report,
        "refused a message from an unnamed mailbox (owned by root): only messages from mailboxes owned by "
        "root are taken; further refusals are not reported");
    EXPECT_FALSE(trust.admits("x", static_cast<uid_t>(-1), report));
}

TEST(SenderTrust, UsersAreNamedFromTheUserDatabaseElseByNumber) {
    EXPECT_EQ(userName(0), "root");
    EXPECT_EQ(userName(3999999999u), "uid 3999999999");
}

}  // namespace
