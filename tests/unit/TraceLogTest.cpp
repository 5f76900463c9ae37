#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "TraceCapture.h"
#include "TraceLog.h"

using namespace solicd;
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
