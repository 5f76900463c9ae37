// The instance-file check of solicd@.service: the file is read as systemd reads an
// EnvironmentFile=, and each mistake that would keep solicd from ever starting is one message.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "InstanceFile.h"

using namespace solicd::instance;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

std::string entryText(const Entry& e) {
    return std::to_string(e.line) +
           (e.isAssignment ? " " + e.key + "=[" + e.value + "]" : " stray [" + e.key + "]");
}

std::vector<std::string> read(std::string_view text) {
    std::vector<std::string> out;
    for (const Entry& entry : readEnvironmentFile(text)) {
        out.push_back(entryText(entry));
    }
    return out;
}

std::vector<std::string> mistakes(std::string_view text) {
    std::vector<std::string> out;
    for (const Mistake& mistake : check(text)) {
        out.push_back(std::to_string(mistake.line) + ": " + mistake.text);
    }
    return out;
}

const std::string kMailboxRule = "1 to 100 of A-Z a-z 0-9 . _ -, not starting with '.'";

// ---- Reading, as systemd reads an environment file ----

TEST(EnvironmentFileTest, PlainAssignmentsWithTheirLines) {
    EXPECT_THAT(read("NAMESPACE=blue\nINTERFACE=eth0\n\nSOURCE=\n"),
                ElementsAre("1 NAMESPACE=[blue]", "2 INTERFACE=[eth0]", "4 SOURCE=[]"));
}

TEST(EnvironmentFileTest, CommentsStartWithHashOrSemicolonFirstOnTheLine) {
    EXPECT_THAT(read("# a comment\n  ; another\nINTERFACE=eth0\n"), ElementsAre("3 INTERFACE=[eth0]"));
}

TEST(EnvironmentFileTest, BlanksAroundKeyAndValueGoInnerBlanksStay) {
    EXPECT_THAT(read("  INTERFACE \t=  eth0 x \t\n"), ElementsAre("1 INTERFACE=[eth0 x]"));
}

TEST(EnvironmentFileTest, HashAfterTheEqualsSignIsPartOfTheValue) {
    EXPECT_THAT(read("INTERFACE=eth0 # uplink\n"), ElementsAre("1 INTERFACE=[eth0 # uplink]"));
}

TEST(EnvironmentFileTest, QuotesKeepBlanksAndJoinWithWhatFollows) {
    EXPECT_THAT(read("A=' x '\nB=\"a b\"c\nC=\"a\" 'b'\n"),
                ElementsAre("1 A=[ x ]", "2 B=[a bc]", "3 C=[ab]"));
}

TEST(EnvironmentFileTest, BackslashInDoubleQuotesOnlyBeforeQuoteBackslashBacktickDollar) {
    EXPECT_THAT(read(R"(A="q\"b\\t\`d\$n\x")"), ElementsAre(R"(1 A=[q"b\t`d$n\x])"));
}

TEST(EnvironmentFileTest, BackslashOutsideQuotesTakesTheNextCharacterAndJoinsLines) {
    EXPECT_THAT(read("A=x\\ \\#y\nB=one\\\ntwo\nC=z\n"),
                ElementsAre("1 A=[x #y]", "2 B=[onetwo]", "4 C=[z]"));
}

TEST(EnvironmentFileTest, QuotedValueMaySpanLines) {
    EXPECT_THAT(read("A='x\ny'\nB=z\n"), ElementsAre("1 A=[x\ny]", "3 B=[z]"));
}

TEST(EnvironmentFileTest, LineWithoutEqualsSignIsStray) {
    EXPECT_THAT(read("eth0\nINTERFACE=eth0\nlast words"),
                ElementsAre("1 stray [eth0]", "2 INTERFACE=[eth0]", "3 stray [last words]"));
}

TEST(EnvironmentFileTest, CarriageReturnsEndLinesToo) {
    EXPECT_THAT(read("NAMESPACE=blue\r\nINTERFACE=eth0\r\n"),
                ElementsAre("1 NAMESPACE=[blue]", "2 INTERFACE=[eth0]"));
}

TEST(EnvironmentFileTest, LastLineNeedsNoLineEnd) {
    EXPECT_THAT(read("INTERFACE=eth0"), ElementsAre("1 INTERFACE=[eth0]"));
    EXPECT_THAT(read("INTERFACE='eth0"), ElementsAre("1 INTERFACE=[eth0]"));
}

TEST(EnvironmentFileTest, BackslashEndsACommentOnTheNextLine) {
    EXPECT_THAT(read("# see below \\\nINTERFACE=eth0\nSOURCE=s\n"), ElementsAre("3 SOURCE=[s]"));
}

// ---- Files the unit starts with ----

TEST(InstanceFileTest, ShippedExampleHasNoMistakes) {
    std::ifstream file(SOLICD_INSTANCE_EXAMPLE);
    ASSERT_TRUE(file) << SOLICD_INSTANCE_EXAMPLE;
    std::ostringstream text;
    text << file.rdbuf();
    EXPECT_THAT(mistakes(text.str()), IsEmpty());
}

TEST(InstanceFileTest, InterfaceAloneIsEnough) {
    EXPECT_THAT(mistakes("INTERFACE=eth0\n"), IsEmpty());
}

TEST(InstanceFileTest, EmptyNamespaceSourceAndDestinationAreAllowed) {
    EXPECT_THAT(mistakes("NAMESPACE=\nINTERFACE=eth0\nSOURCE=\nDESTINATION=\n"), IsEmpty());
}

TEST(InstanceFileTest, NamesAtTheirLimitsAreAllowed) {
    const std::string text = "NAMESPACE=" + std::string(255, 'n') +
                             "\nINTERFACE=enp0s31f6uplink\nSOURCE=" + std::string(100, 's') +
                             "\nDESTINATION=a.b_c-D9\n";
    EXPECT_THAT(mistakes(text), IsEmpty());
}

TEST(InstanceFileTest, QuotedValuesAreCheckedUnquoted) {
    EXPECT_THAT(mistakes("INTERFACE=\"eth0\"\nDESTINATION='blue-client'\n"), IsEmpty());
}

TEST(InstanceFileTest, NamespaceMayHoldBlanksAsIpNetnsAllows) {
    EXPECT_THAT(mistakes("NAMESPACE=lab one\nINTERFACE=eth0\nSOURCE=lab-solicd\n"), IsEmpty());
}

// ---- Mistakes, one message each ----

TEST(InstanceFileTest, UnknownSettingNamesTheKnownOnes) {
    EXPECT_THAT(mistakes("INTERFACE=eth0\nDESTINATON=blue-client\n"),
                ElementsAre("2: unknown setting 'DESTINATON'; the settings are NAMESPACE, INTERFACE, SOURCE "
                            "and DESTINATION"));
}

TEST(InstanceFileTest, SettingsAreCaseSensitive) {
    EXPECT_THAT(
        mistakes("interface=eth0\n"),
        ElementsAre("1: unknown setting 'interface'; the settings are NAMESPACE, INTERFACE, SOURCE and "
                    "DESTINATION",
                    "0: INTERFACE is not set; set it to the interface to listen on, as `ip link` shows it"));
}

TEST(InstanceFileTest, LineThatIsNoAssignment) {
    EXPECT_THAT(mistakes("INTERFACE=eth0\n--verbose\n"),
                ElementsAre("2: '--verbose' is not a setting; write KEY=value"));
}

TEST(InstanceFileTest, MissingAndEmptyInterface) {
    EXPECT_THAT(
        mistakes("NAMESPACE=blue\n"),
        ElementsAre("0: INTERFACE is not set; set it to the interface to listen on, as `ip link` shows it"));
    EXPECT_THAT(
        mistakes("INTERFACE=\n"),
        ElementsAre("1: INTERFACE is empty; set it to the interface to listen on, as `ip link` shows it"));
}

TEST(InstanceFileTest, InterfaceLongerThanTheKernelKeeps) {
    EXPECT_THAT(
        mistakes("INTERFACE=enp0s31f6uplink01\n"),
        ElementsAre("1: INTERFACE 'enp0s31f6uplink01' is longer than 15 characters, the most the kernel "
                    "keeps; give the name `ip link` shows"));
}

TEST(InstanceFileTest, InterfaceWithCharactersNoInterfaceHas) {
    EXPECT_THAT(mistakes("INTERFACE=eth0:1\n"),
                ElementsAre("1: INTERFACE 'eth0:1' holds ':', which interface names never do; give the name "
                            "`ip link` shows"));
    EXPECT_THAT(mistakes("INTERFACE=a/b\n"),
                ElementsAre("1: INTERFACE 'a/b' holds '/', which interface names never do; give the name `ip "
                            "link` shows"));
    EXPECT_THAT(
        mistakes("INTERFACE=eth0 -v\n"),
        ElementsAre("1: INTERFACE 'eth0 -v' holds a blank, which interface names never do; give the name "
                    "`ip link` shows"));
    EXPECT_THAT(
        mistakes("INTERFACE=..\n"),
        ElementsAre("1: INTERFACE '..' is not a name an interface can have; give the name `ip link` shows"));
}

TEST(InstanceFileTest, CommentAfterAValue) {
    EXPECT_THAT(
        mistakes("INTERFACE=eth0   # uplink\n"),
        ElementsAre("1: INTERFACE 'eth0   # uplink' holds a comment, but systemd takes the whole rest of "
                    "the line as the value; put the comment on a line of its own"));
}

TEST(InstanceFileTest, NamespaceNamesIpNetnsRefuses) {
    EXPECT_THAT(
        mistakes("NAMESPACE=/var/run/netns/blue\nINTERFACE=eth0\nSOURCE=s\n"),
        ElementsAre("1: NAMESPACE '/var/run/netns/blue' holds '/': name a file in /var/run/netns, as `ip "
                    "netns list` shows"));
    EXPECT_THAT(mistakes("NAMESPACE=.\nINTERFACE=eth0\nSOURCE=s\n"),
                ElementsAre("1: NAMESPACE '.' is not a name a namespace can have"));
    EXPECT_THAT(mistakes("NAMESPACE=" + std::string(256, 'n') + "\nINTERFACE=eth0\nSOURCE=s\n"),
                ElementsAre("1: NAMESPACE '" + std::string(256, 'n') +
                            "' is longer than 255 bytes, the most a file name can be"));
}

TEST(InstanceFileTest, MailboxNamesByTheServicesRule) {
    EXPECT_THAT(mistakes("INTERFACE=eth0\nSOURCE=.hidden\nDESTINATION=blue client\n"),
                ElementsAre("2: SOURCE '.hidden' is not a mailbox name: use " + kMailboxRule,
                            "3: DESTINATION 'blue client' is not a mailbox name: use " + kMailboxRule));
    EXPECT_THAT(
        mistakes("INTERFACE=eth0\nSOURCE=" + std::string(101, 's') + "\n"),
        ElementsAre("2: SOURCE '" + std::string(101, 's') + "' is not a mailbox name: use " + kMailboxRule));
    EXPECT_THAT(mistakes("INTERFACE=eth0\nDESTINATION=../etc/passwd\n"),
                ElementsAre("2: DESTINATION '../etc/passwd' is not a mailbox name: use " + kMailboxRule));
}

TEST(InstanceFileTest, GeneratedOwnMailboxMustBeAName) {
    EXPECT_THAT(
        mistakes("NAMESPACE=lab one\nINTERFACE=eth0\n"),
        ElementsAre("0: SOURCE is not set, and the mailbox name solicd makes from NAMESPACE and INTERFACE, "
                    "'solcid.lab one-eth0', is not a mailbox name; set SOURCE to a mailbox name (" +
                    kMailboxRule + ")"));
    EXPECT_THAT(
        mistakes("NAMESPACE=lab one\nINTERFACE=eth0\nSOURCE=\n"),
        ElementsAre("3: SOURCE is empty, and the mailbox name solicd makes from NAMESPACE and INTERFACE, "
                    "'solcid.lab one-eth0', is not a mailbox name; set SOURCE to a mailbox name (" +
                    kMailboxRule + ")"));
}

TEST(InstanceFileTest, ClientMailboxMustNotBeTheOwnOne) {
    EXPECT_THAT(
        mistakes("INTERFACE=eth0\nSOURCE=blue\nDESTINATION=blue\n"),
        ElementsAre("3: DESTINATION 'blue' is solicd's own mailbox (SOURCE); name the client's mailbox"));
    EXPECT_THAT(mistakes("NAMESPACE=blue\nINTERFACE=eth0\nDESTINATION=solcid.blue-eth0\n"),
                ElementsAre("3: DESTINATION 'solcid.blue-eth0' is solicd's own mailbox (SOURCE); name the "
                            "client's mailbox"));
}

TEST(InstanceFileTest, SettingGivenTwiceIsReportedAndEachValueChecked) {
    EXPECT_THAT(
        mistakes("INTERFACE=enp0s31f6uplink01\nINTERFACE=eth0\n"),
        ElementsAre("1: INTERFACE 'enp0s31f6uplink01' is longer than 15 characters, the most the kernel "
                    "keeps; give the name `ip link` shows",
                    "2: INTERFACE is set again (also on line 1); keep one"));
}

TEST(InstanceFileTest, InvalidUtf8WouldMakeSystemdRefuseTheFile) {
    EXPECT_THAT(
        mistakes("INTERFACE=eth0\nSOURCE=\xc3\x28\n"),
        ElementsAre("2: 'SOURCE' is not valid UTF-8, and systemd refuses the whole file for it; write the "
                    "line in UTF-8"));
}

TEST(InstanceFileTest, ControlCharactersAreShownEscaped) {
    EXPECT_THAT(
        mistakes("INTERFACE='eth\t0'\n"),
        ElementsAre("1: INTERFACE 'eth\\x090' holds a blank, which interface names never do; give the name "
                    "`ip link` shows"));
}

TEST(InstanceFileTest, EveryMistakeOfAFileInLineOrder) {
    EXPECT_THAT(
        mistakes("DESTINATON=blue-client\nNAMESPACE=a/b\nSOURCE=bad name\nstray\n"),
        ElementsAre("1: unknown setting 'DESTINATON'; the settings are NAMESPACE, INTERFACE, SOURCE and "
                    "DESTINATION",
                    "2: NAMESPACE 'a/b' holds '/': name a file in /var/run/netns, as `ip netns list` shows",
                    "3: SOURCE 'bad name' is not a mailbox name: use " + kMailboxRule,
                    "4: 'stray' is not a setting; write KEY=value",
                    "0: INTERFACE is not set; set it to the interface to listen on, as `ip link` shows it"));
}

}  // namespace
