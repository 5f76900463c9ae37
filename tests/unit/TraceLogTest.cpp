#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "StderrCapture.h"
#include "TraceCapture.h"
#include "TraceLog.h"

using namespace solicd;
using solicd::test::StderrCapture;
using solicd::test::TraceCapture;

namespace {

struct Poison {
    // Formatting this would crash; a disabled trace must never touch it.
    const char* c_str() const {
        ++touched;
        return reinterpret_cast<const char*>(16);
    }
    static int touched;
};
int Poison::touched = 0;

// The state word a tracing session sets when it enables an event, set here by hand.
class SessionEnablesLab {
public:
    SessionEnablesLab() { lttng_ust_tracepoint_com_orvane_kt_solicd___LAB.state = 1; }
    ~SessionEnablesLab() { lttng_ust_tracepoint_com_orvane_kt_solicd___LAB.state = 0; }
    SessionEnablesLab(const SessionEnablesLab&) = delete;
    SessionEnablesLab& operator=(const SessionEnablesLab&) = delete;
};

class TraceLogTest : public ::testing::Test {
protected:
    void SetUp() override { setTraceTag(""); }
    void TearDown() override { setTraceTag(""); }
};

TEST_F(TraceLogTest, DisabledEventEvaluatesNoArgumentAndFormatsNothing) {
    TraceCapture capture(trace::bit(TraceEvent::ERROR));
    Poison poison;
    Poison::touched = 0;
    traceFormat(nullptr, nullptr, "%s", "sentinel");
    SOL_TRACE(LAB, "GENERAL", "f", "[%s] %s", getTraceTag(), poison.c_str());
    EXPECT_EQ(Poison::touched, 0);
    EXPECT_TRUE(capture.records().empty());
    EXPECT_STREQ(traceFormat(nullptr, nullptr, nullptr), "");
}

TEST_F(TraceLogTest, EnabledEventCarriesBaseNameLocationCategoryAndMessage) {
    TraceCapture capture;
    const int line = __LINE__ + 1;
    SOL_TRACE(INFO, "GENERAL", "init", "[%s] Solicd initialization started", getTraceTag());
    ASSERT_EQ(capture.records().size(), 1u);
    const auto& r = capture.records()[0];
    EXPECT_EQ(r.event, TraceEvent::INFO);
    EXPECT_EQ(r.location, "TraceLogTest.cpp:" + std::to_string(line));
    EXPECT_EQ(r.category, "GENERAL");
    EXPECT_EQ(r.message, "init(): [] Solicd initialization started");
}

TEST_F(TraceLogTest, EachEventReachesTheCaptureUnderItsOwnName) {
    TraceCapture capture;
    SOL_TRACE(INFO, "GENERAL", "f", "i");
    SOL_TRACE(ERROR, "ADDR_IPV6", "f", "e");
    SOL_TRACE(EXCEPTION, "GENERAL", "f", "x");
    SOL_TRACE(LAB, "ADDR_IPV6", "f", "l");
    ASSERT_EQ(capture.records().size(), 4u);
    EXPECT_EQ(capture.records()[0].event, TraceEvent::INFO);
    EXPECT_EQ(capture.records()[1].event, TraceEvent::ERROR);
    EXPECT_EQ(capture.records()[2].event, TraceEvent::EXCEPTION);
    EXPECT_EQ(capture.records()[3].event, TraceEvent::LAB);
    EXPECT_EQ(capture.records()[1].message, "f(): e");
}

TEST_F(TraceLogTest, EventChosenAtRunTimeFollowsTheSameEnabledRule) {
    TraceCapture capture(trace::bit(TraceEvent::LAB));
    Poison poison;
    Poison::touched = 0;
    TraceEvent event = TraceEvent::INFO;
    SOL_TRACE_AT(event, "GENERAL", "f", "[%s] %s", getTraceTag(), poison.c_str());
    EXPECT_EQ(Poison::touched, 0);
    event = TraceEvent::LAB;
    SOL_TRACE_AT(event, "ADDR_IPV6", "handleGLibEvent", "[%s] %s", getTraceTag(), "DEBUG");
    ASSERT_EQ(capture.records().size(), 1u);
    EXPECT_EQ(capture.records()[0].event, TraceEvent::LAB);
    EXPECT_EQ(capture.records()[0].category, "ADDR_IPV6");
    EXPECT_EQ(capture.records()[0].message, "handleGLibEvent(): [] DEBUG");
}

TEST_F(TraceLogTest, TagPrintsEmptyBeforeItIsSetThenItsValue) {
    EXPECT_STREQ(traceFormat("%s(): ", "f", "[%s] x", getTraceTag()), "f(): [] x");
    setTraceTag("solcid.ns1-eth0");
    EXPECT_STREQ(traceFormat("%s(): ", "init", "[%s] Solicd initialization started", getTraceTag()),
                 "init(): [solcid.ns1-eth0] Solicd initialization started");
}

TEST_F(TraceLogTest, NullFunctionNameSkipsThePrefix) {
    EXPECT_STREQ(traceFormat("%s(): ", nullptr, "Abonrnal solicd termination result: %d", 1),
                 "Abonrnal solicd termination result: 1");
}

TEST_F(TraceLogTest, NullMessageFormatLeavesOnlyThePrefix) {
    EXPECT_STREQ(traceFormat("%s(): ", "run", nullptr), "run(): ");
}

TEST_F(TraceLogTest, LongFunctionNameIsCutSoThatNameAndSuffixFill255Bytes) {
    const std::string name(252, 'n');
    const char* text = traceFormat("%s(): ", name.c_str(), "M");
    // 252 + "(): " is 256 characters: snprintf keeps 255, the message starts at byte 255.
    EXPECT_EQ(std::strlen(text), 256u);
    EXPECT_EQ(std::string(text, 252), name);
    EXPECT_EQ(std::string(text + 252, 3), "():");
    EXPECT_EQ(text[255], 'M');

    const std::string longer(400, 'q');
    text = traceFormat("%s(): ", longer.c_str(), "M");
    EXPECT_EQ(std::string(text, 255), std::string(255, 'q'));
    EXPECT_STREQ(text + 255, "M");
}

TEST_F(TraceLogTest, NameOfExactly251CharactersKeepsTheWholePrefix) {
    const std::string name(251, 'n');
    const char* text = traceFormat("%s(): ", name.c_str(), "M");
    EXPECT_EQ(std::string(text), name + "(): M");
}

TEST_F(TraceLogTest, LongMessageEndsAt1023CharactersWithNul) {
    const std::string big(5000, 'x');
    const char* text = traceFormat("%s(): ", "f", "%s", big.c_str());
    EXPECT_EQ(std::strlen(text), 1023u);
    EXPECT_EQ(std::string(text, 5), "f(): ");
}

TEST_F(TraceLogTest, BufferIsReusedByTheNextCallOnTheSameThread) {
    const char* first = traceFormat("%s(): ", "a", "one");
    const char* second = traceFormat("%s(): ", "b", "two");
    EXPECT_EQ(first, second);
    EXPECT_STREQ(second, "b(): two");
}

TEST_F(TraceLogTest, SetTraceTagReplacesTheTag) {
    setTraceTag("a");
    setTraceTag("mbox-local");
    EXPECT_STREQ(getTraceTag(), "mbox-local");
}

TEST_F(TraceLogTest, SessionEnablingAnEventChangesNothingWhileACaptureOwnsTheState) {
    TraceCapture capture(trace::bit(TraceEvent::ERROR));
    SessionEnablesLab session;
    Poison poison;
    Poison::touched = 0;
    SOL_TRACE(LAB, "GENERAL", "f", "[%s] %s", getTraceTag(), poison.c_str());
    EXPECT_EQ(Poison::touched, 0);
    EXPECT_FALSE(trace::isEnabled(TraceEvent::LAB));
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(TraceLogTest, NestedCaptureGivesBackTheStateItFound) {
    TraceCapture outer(trace::bit(TraceEvent::INFO));
    {
        TraceCapture inner(trace::bit(TraceEvent::LAB));
        EXPECT_TRUE(trace::isEnabled(TraceEvent::LAB));
        EXPECT_FALSE(trace::isEnabled(TraceEvent::INFO));
    }
    EXPECT_TRUE(trace::isEnabled(TraceEvent::INFO));
    EXPECT_FALSE(trace::isEnabled(TraceEvent::LAB));
    SOL_TRACE(INFO, "GENERAL", "f", "back");
    EXPECT_EQ(outer.records().size(), 1u);
}

// ---- The stderr mirror ----

class StderrMirrorTest : public TraceLogTest {
protected:
    void TearDown() override {
        trace::setStderrMirror(0);
        TraceLogTest::TearDown();
    }
};

TEST_F(StderrMirrorTest, MirroredEventIsOneLineOfEventCategoryLocationAndMessage) {
    trace::setStderrMirror(trace::bit(TraceEvent::ERROR));
    setTraceTag("solicd-x");
    StderrCapture err;
    const int line = __LINE__ + 1;
    SOL_TRACE(ERROR, "ADDR_IPV6", "init", "[%s] Interface name '%s' is longer than 15 characters",
              getTraceTag(), "veth0123456789ab");
    EXPECT_EQ(err.text(), "ERROR ADDR_IPV6 TraceLogTest.cpp:" + std::to_string(line) +
                              " init(): [solicd-x] Interface name 'veth0123456789ab' is longer than 15 "
                              "characters\n");
}

TEST_F(StderrMirrorTest, OnlyTheNamedEventsAreMirroredAndOthersStayUnformatted) {
    trace::setStderrMirror(trace::bit(TraceEvent::ERROR) | trace::bit(TraceEvent::EXCEPTION));
    StderrCapture err;
    Poison poison;
    Poison::touched = 0;
    SOL_TRACE(LAB, "GENERAL", "f", "%s", poison.c_str());
    SOL_TRACE(INFO, "GENERAL", "f", "info");
    SOL_TRACE(EXCEPTION, "GENERAL", "receive", "x");
    EXPECT_EQ(Poison::touched, 0);
    const std::string text = err.text();
    EXPECT_EQ(text.substr(0, 18), "EXCEPTION GENERAL ");
    EXPECT_NE(text.find(" receive(): x\n"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST_F(StderrMirrorTest, MirrorAndCaptureBothGetTheTrace) {
    TraceCapture capture(trace::bit(TraceEvent::ERROR));
    trace::setStderrMirror(trace::bit(TraceEvent::ERROR));
    StderrCapture err;
    SOL_TRACE(ERROR, "GENERAL", "f", "both");
    EXPECT_EQ(capture.messages(TraceEvent::ERROR), std::vector<std::string>{"f(): both"});
    EXPECT_NE(err.text().find(" f(): both\n"), std::string::npos);
}

TEST_F(StderrMirrorTest, LineBreaksInAMessageBecomeBlanks) {
    trace::setStderrMirror(trace::bit(TraceEvent::INFO));
    StderrCapture err;
    SOL_TRACE(INFO, "GENERAL", "handleGLibEvent", "two\nlines\r");
    const std::string text = err.text();
    EXPECT_NE(text.find(" handleGLibEvent(): two lines \n"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1);
}

TEST_F(StderrMirrorTest, LongestMessageIsWrittenWholeOnOneLine) {
    trace::setStderrMirror(trace::bit(TraceEvent::ERROR));
    StderrCapture err;
    const std::string big(5000, 'x');
    SOL_TRACE(ERROR, "GENERAL", "f", "%s", big.c_str());
    const std::string text = err.text();
    EXPECT_NE(text.find(" f(): " + std::string(1023 - 5, 'x') + "\n"), std::string::npos);
}

TEST(EventList, NamesAnyCaseWithBlanksBecomeTheirBits) {
    std::string unknown;
    EXPECT_EQ(trace::parseEventList("ERROR,EXCEPTION", unknown),
              trace::bit(TraceEvent::ERROR) | trace::bit(TraceEvent::EXCEPTION));
    EXPECT_EQ(unknown, "");
    EXPECT_EQ(trace::parseEventList(" info , Lab,,", unknown),
              trace::bit(TraceEvent::INFO) | trace::bit(TraceEvent::LAB));
    EXPECT_EQ(unknown, "");
    EXPECT_EQ(trace::parseEventList("", unknown), 0u);
    EXPECT_EQ(trace::parseEventList(nullptr, unknown), 0u);
}

TEST(EventList, UnknownNamesAreLeftOutAndNamed) {
    std::string unknown;
    EXPECT_EQ(trace::parseEventList("ERROR,WARN,EXCEPTIONS", unknown), trace::bit(TraceEvent::ERROR));
    EXPECT_EQ(unknown, "WARN,EXCEPTIONS");
}

TEST(EventList, BadSettingIsOneLineOnStderrAndTheKnownNamesStillApply) {
    StderrCapture err;
    trace::mirrorToStderrFrom("ERROR,WARN");
    EXPECT_EQ(err.text(),
              "solicd: SOLICD_TRACE_STDERR: 'WARN' ignored: name events from INFO, ERROR, EXCEPTION, LAB, "
              "separated by commas\n");
    EXPECT_EQ(trace::g_forcedMask & trace::bit(TraceEvent::ERROR), trace::bit(TraceEvent::ERROR));
    trace::setStderrMirror(0);
}

TEST(EventList, UnsetOrEmptySettingMirrorsNothingAndSaysNothing) {
    StderrCapture err;
    trace::mirrorToStderrFrom(nullptr);
    trace::mirrorToStderrFrom("");
    EXPECT_EQ(err.text(), "");
    EXPECT_EQ(trace::g_forcedMask, 0u);
}

using TraceLogDeathTest = TraceLogTest;

TEST_F(TraceLogDeathTest, RestartRequestCarriesLineFileAndText) {
    EXPECT_EXIT(restartOnFatalError(42, "src/Some.cpp", "reason %d", 7), ::testing::ExitedWithCode(70),
                "^solicd: restart requested at src/Some.cpp:42: reason 7\n$");
}

TEST_F(TraceLogDeathTest, RestartTextIsCutAt127Characters) {
    const std::string text(200, 'r');
    EXPECT_EXIT(restartOnFatalError(1, "f.cpp", "%s", text.c_str()), ::testing::ExitedWithCode(70),
                "^solicd: restart requested at f.cpp:1: " + std::string(127, 'r') + "\n$");
}

TEST_F(TraceLogDeathTest, FatalTracesAtErrorThenRequestsRestart) {
    EXPECT_EXIT(
        {
            TraceCapture capture;
            SOL_FATAL("handleRaSocketEvent", "GenIf::receive()");
        },
        ::testing::ExitedWithCode(70),
        "restart requested at .*TraceLogTest.cpp:[0-9]+: GenIf::receive\\(\\)");
}

}  // namespace

TEST(TraceEventNames, AreTheTracepointNames) {
    EXPECT_STREQ(eventName(TraceEvent::INFO), "INFO");
    EXPECT_STREQ(eventName(TraceEvent::ERROR), "ERROR");
    EXPECT_STREQ(eventName(TraceEvent::EXCEPTION), "EXCEPTION");
    EXPECT_STREQ(eventName(TraceEvent::LAB), "LAB");
}
