#include "ArgParser.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "TraceCapture.h"

using namespace solicd;
using solicd::test::Trace;
using solicd::test::TraceCapture;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;

namespace {

std::string g_printed;

void capturePrint(const gchar* text) {
    g_printed += text;
}

// A writable argument vector as main receives it, NULL-terminated.
class Argv {
public:
    explicit Argv(std::vector<std::string> args) : m_storage(std::move(args)) {
        for (auto& s : m_storage) {
            m_pointers.push_back(s.data());
        }
        m_original = m_pointers;
        m_pointers.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(m_storage.size()); }
    char** argv() { return m_pointers.data(); }
    // The pointers main would see afterwards, to prove the parser left them alone.
    bool untouched() const {
        return std::vector<char*>(m_pointers.begin(), m_pointers.end() - 1) == m_original &&
               m_pointers.back() == nullptr;
    }

private:
    std::vector<std::string> m_storage;
    std::vector<char*> m_pointers;
    std::vector<char*> m_original;
};

class ArgParserTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_printed.clear();
        m_previousPrint = g_set_print_handler(&capturePrint);
    }
    void TearDown() override { g_set_print_handler(m_previousPrint); }

    uint32_t parse(std::vector<std::string> args) {
        Argv argv(std::move(args));
        const uint32_t result = m_parser.init(argv.argc(), argv.argv());
        EXPECT_TRUE(argv.untouched());
        return result;
    }

    void expectAllEmpty() const {
        EXPECT_EQ(m_parser.getNamespace(), "");
        EXPECT_EQ(m_parser.getInterface(), "");
        EXPECT_EQ(m_parser.getMboxLocal(), "");
        EXPECT_EQ(m_parser.getMboxRemote(), "");
        EXPECT_FALSE(m_parser.isVerboseEnabled());
    }

    ArgParser m_parser;
    GPrintFunc m_previousPrint = nullptr;
};

TEST_F(ArgParserTest, DescriptionIsTheFourLineUsageSummaryOf317Characters) {
    const std::string& text = m_parser.getDescription();
    EXPECT_EQ(text.size(), 317u);
    EXPECT_EQ(text,
              "application is listening for IPv6 ND RA messages,\n"
              "tracking routers and subnetworks states, and forwarding this information to the client\n"
              "with LMX mailbox MBOX_REMOTE. Application also allows to provide diagnostic over internal LMX "
              "mechanism.\n"
              "In this case, client should transmit request towards MBOX_LOCAL LMX mailbox");
}

TEST_F(ArgParserTest, ConstructorLeavesEveryFieldEmptyAndVerboseOff) {
    expectAllEmpty();
}

TEST_F(ArgParserTest, NoArgumentsAtAllSucceedWithEveryFieldEmpty) {
    TraceCapture capture;
    EXPECT_EQ(parse({"solicd"}), 0u);
    expectAllEmpty();
    EXPECT_EQ(g_printed, "");
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  "setData(): Input arguments m_interface: , m_namespace: , m_mboxLocal: , "
                                  "m_mboxRemote: , m_verboseEnabled: 0")));
}

TEST_F(ArgParserTest, EmptyArgumentVectorSucceeds) {
    char* none[] = {nullptr};
    EXPECT_EQ(m_parser.init(0, none), 0u);
    expectAllEmpty();
}

TEST_F(ArgParserTest, LongOptionsFillTheFieldsAndAreTracedWithoutTag) {
    setTraceTag("tag-must-not-appear");
    TraceCapture capture;
    EXPECT_EQ(parse({"solicd", "--namespace", "ns1", "--interface=eth0", "--source", "mbox-l",
                     "--destination", "mbox-r", "--verbose"}),
              0u);
    setTraceTag("");
    EXPECT_EQ(m_parser.getNamespace(), "ns1");
    EXPECT_EQ(m_parser.getInterface(), "eth0");
    EXPECT_EQ(m_parser.getMboxLocal(), "mbox-l");
    EXPECT_EQ(m_parser.getMboxRemote(), "mbox-r");
    EXPECT_TRUE(m_parser.isVerboseEnabled());
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                          "setData(): Input arguments m_interface: eth0, m_namespace: ns1, m_mboxLocal: "
                          "mbox-l, m_mboxRemote: mbox-r, m_verboseEnabled: 1")));
    EXPECT_THAT(capture.records()[0].location, MatchesRegex("ArgParser\\.cpp:[0-9]+"));
}

TEST_F(ArgParserTest, ShortOptionsFillTheSameFields) {
    EXPECT_EQ(parse({"solicd", "-n", "ns2", "-i", "veth1", "-s", "a", "-d", "b", "-v"}), 0u);
    EXPECT_EQ(m_parser.getNamespace(), "ns2");
    EXPECT_EQ(m_parser.getInterface(), "veth1");
    EXPECT_EQ(m_parser.getMboxLocal(), "a");
    EXPECT_EQ(m_parser.getMboxRemote(), "b");
    EXPECT_TRUE(m_parser.isVerboseEnabled());
}

TEST_F(ArgParserTest, AnOptionGivenTwiceKeepsTheLastValue) {
    EXPECT_EQ(parse({"solicd", "-n", "first", "-n", "second"}), 0u);
    EXPECT_EQ(m_parser.getNamespace(), "second");
}

TEST_F(ArgParserTest, EmptyOptionValuesAreAcceptedAsGiven) {
    EXPECT_EQ(parse({"solicd", "-n", "", "-i", "eth0"}), 0u);
    EXPECT_EQ(m_parser.getNamespace(), "");
    EXPECT_EQ(m_parser.getInterface(), "eth0");
}

TEST_F(ArgParserTest, ArgumentsThatAreNotOptionsAreIgnored) {
    EXPECT_EQ(parse({"solicd", "stray", "-i", "eth0", "another"}), 0u);
    EXPECT_EQ(m_parser.getInterface(), "eth0");
    EXPECT_EQ(m_parser.getNamespace(), "");
    EXPECT_EQ(g_printed, "");
}

TEST_F(ArgParserTest, UnknownOptionPrintsErrorAndFullHelpAndFails) {
    TraceCapture capture;
    EXPECT_EQ(parse({"solicd", "--bogus"}), 1u);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  "init(): Argument parsing error Unknown option --bogus")));
    EXPECT_THAT(g_printed, StartsWith("ERROR: Unknown option --bogus\nUsage:\n  solicd [OPTION"));
    EXPECT_THAT(g_printed, HasSubstr(std::string("] ") + ArgParser::kDescription + "\n"));
    EXPECT_THAT(g_printed, MatchesRegex("(.|\n)*\n  -n, --namespace=NAMESPACE +Linux network namespace\n"
                                        "  -i, --interface=IF +Linux network interface\n"
                                        "  -s, --source=MBOX_LOCAL +solicd LMX mailbox\n"
                                        "  -d, --destination=MBOX_REMOTE +solicd client LMX mailbox\n"
                                        "  -v, --verbose +print information to stdout\n(.|\n)*"));
    // The help ends with its own line feed; the daemon adds one more.
    EXPECT_THAT(g_printed, EndsWith("\n\n"));
}

TEST_F(ArgParserTest, MissingOptionArgumentFails) {
    TraceCapture capture;
    EXPECT_EQ(parse({"solicd", "-i", "eth0", "-n"}), 1u);
    EXPECT_THAT(g_printed, StartsWith("ERROR: Missing argument for -n\n"));
    EXPECT_TRUE(capture.contains(TraceEvent::ERROR, "GENERAL",
                                 "init(): Argument parsing error Missing argument for -n"));
}

TEST_F(ArgParserTest, ParseErrorLeavesTheFieldsAsTheyWere) {
    TraceCapture capture;
    EXPECT_EQ(parse({"solicd", "-n", "ns1", "-i", "eth0", "-v", "--bogus"}), 1u);
    expectAllEmpty();
    EXPECT_TRUE(capture.messages(TraceEvent::LAB).empty());
}

TEST_F(ArgParserTest, SetDataKeepsFieldsWhoseOptionWasNotGiven) {
    ASSERT_EQ(parse({"solicd", "-n", "ns1", "-s", "local", "-v"}), 0u);
    ASSERT_EQ(parse({"solicd", "-i", "eth0"}), 0u);
    EXPECT_EQ(m_parser.getNamespace(), "ns1");
    EXPECT_EQ(m_parser.getInterface(), "eth0");
    EXPECT_EQ(m_parser.getMboxLocal(), "local");
    // The flag is not a string: it follows the latest parse.
    EXPECT_FALSE(m_parser.isVerboseEnabled());
}

TEST_F(ArgParserTest, VerboseOnlyWhenTheFlagEqualsOne) {
    ArgParser::Values values;
    values.verbose = 2;
    m_parser.setData(values);
    EXPECT_FALSE(m_parser.isVerboseEnabled());
    values.verbose = 1;
    m_parser.setData(values);
    EXPECT_TRUE(m_parser.isVerboseEnabled());
}

TEST_F(ArgParserTest, ProgramNameIsArgvZero) {
    EXPECT_EQ(parse({"/usr/sbin/solicd-x", "-n", "ns"}), 0u);
    EXPECT_STREQ(g_get_prgname(), "/usr/sbin/solicd-x");
}

TEST_F(ArgParserTest, TagIsTheSourceMailboxWhenGiven) {
    ASSERT_EQ(parse({"solicd", "-n", "ns1", "-i", "eth0", "-s", "solicd-mbox.1"}), 0u);
    EXPECT_EQ(m_parser.getOwnMailboxName(), "solicd-mbox.1");
}

TEST_F(ArgParserTest, TagIsGeneratedFromNamespaceAndInterfaceWithoutSource) {
    ASSERT_EQ(parse({"solicd", "-n", "ns1", "-i", "eth0"}), 0u);
    EXPECT_EQ(m_parser.getOwnMailboxName(), "solcid.ns1-eth0");
}

TEST_F(ArgParserTest, TagIsGeneratedWhenSourceIsEmpty) {
    ASSERT_EQ(parse({"solicd", "-n", "ns1", "-i", "eth0", "--source="}), 0u);
    EXPECT_EQ(m_parser.getOwnMailboxName(), "solcid.ns1-eth0");
}

TEST_F(ArgParserTest, TagWithEmptyNamespaceKeepsTheDash) {
    ASSERT_EQ(parse({"solicd", "-i", "eth0"}), 0u);
    EXPECT_EQ(m_parser.getOwnMailboxName(), "solcid.-eth0");
}

using ArgParserDeathTest = ArgParserTest;

void printToStderr(const gchar* text) {
    fputs(text, stderr);
}

// Death tests match stderr only: send GLib's help printing there.
void parseHelp(ArgParser& parser) {
    g_set_print_handler(&printToStderr);
    char arg0[] = "solicd";
    char arg1[] = "--help";
    char* argv[] = {arg0, arg1, nullptr};
    parser.init(2, argv);
}

TEST_F(ArgParserDeathTest, HelpPrintsTheUsageAndEndsWithStatusZero) {
    EXPECT_EXIT(parseHelp(m_parser), ::testing::ExitedWithCode(0),
                "Usage:\n  solicd \\[OPTION.*\\] application is listening");
}

}  // namespace
