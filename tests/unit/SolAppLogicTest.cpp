#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "SolApp.h"
#include "SolAppDoubles.h"
#include "TraceCapture.h"

using namespace solicd;
using namespace solicd::test;
using SolApp::Logic;
using ::testing::_;
using ::testing::ElementsAre;
using ::testing::InSequence;
using ::testing::MatchesRegex;
using ::testing::Return;

namespace {

constexpr const char* kTag = "solcid.ns1-eth0";

std::string tagged(const std::string& function, const std::string& text) {
    return function + "(): [" + kTag + "] " + text;
}

std::string quoteRegex(const std::string& text) {
    std::string out;
    for (const char c : text) {
        if (std::string("\\^$.|?*+()[]{}").find(c) != std::string::npos) {
            out += '\\';
        }
        out += c;
    }
    return out;
}

// The child's stderr when it traced `traces` (FdTraces lines) and then asked for a restart with
// `text` from SolApp.cpp.
std::string restartAfter(const std::string& traces, const std::string& text) {
    return quoteRegex(traces) +
           "solicd: restart requested at [^\n]*SolApp\\.cpp:[0-9]+: " + quoteRegex(text) + "\n";
}

std::string line(TraceEvent event, const std::string& category, const std::string& message) {
    return formatRecord(event, category.c_str(), message.c_str());
}

void ignorePrint(const gchar*) {}

class LogicTest : public ::testing::Test {
protected:
    void SetUp() override {
        setTraceTag("");
        m_previousPrint = g_set_print_handler(&ignorePrint);
    }
    void TearDown() override {
        g_log_set_default_handler(g_log_default_handler, nullptr);
        g_set_print_handler(m_previousPrint);
        setTraceTag("");
    }

    uint32_t initLogic(Logic& logic, Args args = {"solicd", "-n", "ns1", "-i", "eth0", "-d", "client"}) {
        return logic.init(args.argc(), args.argv());
    }

    std::string lmxAdded() const {
        return tagged("addFdEvent", "FD for EVENT_SRC_TYPE_LMX with ID " +
                                        std::to_string(m_data.lmxPipe.readEnd.get()) +
                                        " was added into event loop");
    }
    std::string socketAdded() const {
        return tagged("addFdEvent", "FD for EVENT_SRC_TYPE_SOCKET with ID " +
                                        std::to_string(m_data.socketPipe.readEnd.get()) +
                                        " was added into event loop");
    }

    TestData m_data;
    GPrintFunc m_previousPrint = nullptr;
};

// ---- Construction and the single instance ----

TEST_F(LogicTest, ConstructionMakesTheSingleInstanceAndDestructionClearsIt) {
    EXPECT_EQ(Logic::getInstance(), nullptr);
    {
        Logic logic(&m_data);
        EXPECT_EQ(Logic::getInstance(), &logic);
        EXPECT_TRUE(logic.getFdEvents().empty());
        EXPECT_TRUE(logic.getTimeouts().empty());
    }
    EXPECT_EQ(Logic::getInstance(), nullptr);
}

class LogicDeathTest : public LogicTest {
protected:
    void SetUp() override {
        useThreadsafeDeathTests();
        LogicTest::SetUp();
    }
};

void constructSecond(SolApp::DataIf* data) {
    FdTraces traces(STDERR_FILENO);
    Logic second(data);
}

TEST_F(LogicDeathTest, SecondInstanceRequestsRestartEvenIfTheFirstIsIdle) {
    Logic first(&m_data);
    const std::string text = "Runtime error, attempt to create  second instance of the SolApp::Logic";
    EXPECT_EXIT(constructSecond(&m_data), ::testing::ExitedWithCode(70),
                MatchesRegex(restartAfter(line(TraceEvent::ERROR, "GENERAL", "Logic(): " + text), text)));
}

// ---- init ----

TEST_F(LogicTest, InitRunsEveryStepInOrderAndTracesStartAndEnd) {
    Logic logic(&m_data);
    {
        InSequence order;
        EXPECT_CALL(m_data.cache, setMaxCacheSizes(64, 128, 128));
        EXPECT_CALL(m_data.socket, init("ns1", "eth0")).WillOnce(Return(0));
        EXPECT_CALL(m_data.lmx, init(kTag, "client")).WillOnce(Return(0));
        EXPECT_CALL(m_data.lmx, getFd()).WillOnce(Return(m_data.lmxPipe.readEnd.get()));
        EXPECT_CALL(m_data.socket, getFd()).WillOnce(Return(m_data.socketPipe.readEnd.get()));
    }
    TraceCapture capture;
    EXPECT_EQ(initLogic(logic), 0u);
    EXPECT_STREQ(getTraceTag(), kTag);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                          "setData(): Input arguments m_interface: eth0, m_namespace: ns1, m_mboxLocal: , "
                          "m_mboxRemote: client, m_verboseEnabled: 0"),
                    Trace(TraceEvent::INFO, "GENERAL", tagged("init", "Solicd initialization started")),
                    Trace(TraceEvent::LAB, "GENERAL", lmxAdded()),
                    Trace(TraceEvent::LAB, "GENERAL", socketAdded()),
                    Trace(TraceEvent::INFO, "GENERAL", tagged("init", "Solicd initialization finished"))));
    ASSERT_EQ(logic.getFdEvents().size(), 2u);
    EXPECT_NE(logic.getFdEvents().at(SolApp::EVENT_SRC_TYPE_LMX), 0u);
    EXPECT_NE(logic.getFdEvents().at(SolApp::EVENT_SRC_TYPE_SOCKET), 0u);
}

TEST_F(LogicTest, SourceMailboxIsTheTagAndTheOwnMailboxName) {
    Logic logic(&m_data);
    EXPECT_CALL(m_data.lmx, init("solicd-1", "client")).WillOnce(Return(0));
    EXPECT_EQ(initLogic(logic, {"solicd", "-n", "ns1", "-i", "eth0", "-s", "solicd-1", "-d", "client"}), 0u);
    EXPECT_STREQ(getTraceTag(), "solicd-1");
}

TEST_F(LogicTest, GeneratedTagKeepsTheDashWhenTheNamespaceIsEmpty) {
    Logic logic(&m_data);
    EXPECT_CALL(m_data.socket, init("", "eth0")).WillOnce(Return(0));
    EXPECT_CALL(m_data.lmx, init("solcid.-eth0", "")).WillOnce(Return(0));
    TraceCapture capture;
    EXPECT_EQ(initLogic(logic, {"solicd", "-i", "eth0"}), 0u);
    EXPECT_TRUE(capture.contains(TraceEvent::INFO, "GENERAL",
                                 "init(): [solcid.-eth0] Solicd initialization started"));
}

TEST_F(LogicTest, InitInstallsTheSignalTable) {
    Logic logic(&m_data);
    ASSERT_EQ(initLogic(logic), 0u);
    struct Expected {
        int signal;
        bool handled;
        bool resetHand;
    };
    for (const Expected& e : {Expected{SIGHUP, true, false}, Expected{SIGINT, true, true},
                              Expected{SIGTERM, true, true}, Expected{SIGQUIT, true, false}}) {
        struct sigaction action {};
        ASSERT_EQ(sigaction(e.signal, nullptr, &action), 0);
        EXPECT_EQ(action.sa_handler, &SolApp::cbSignalEvent) << e.signal;
        EXPECT_EQ((action.sa_flags & SA_RESETHAND) != 0, e.resetHand) << e.signal;
    }
    struct sigaction pipeAction {};
    ASSERT_EQ(sigaction(SIGPIPE, nullptr, &pipeAction), 0);
    EXPECT_EQ(pipeAction.sa_handler, SIG_IGN);
}

TEST_F(LogicTest, WriteToAClosedPeerFailsWithEpipeInsteadOfKilling) {
    Logic logic(&m_data);
    ASSERT_EQ(initLogic(logic), 0u);
    TestPipe peer;
    peer.readEnd.reset();
    TraceCapture capture;
    errno = 0;
    EXPECT_EQ(write(peer.writeEnd.get(), "x", 1), -1);
    EXPECT_EQ(errno, EPIPE);
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(LogicTest, CommandLineErrorEndsInitBeforeAnythingElse) {
    Logic logic(&m_data);
    EXPECT_CALL(m_data.cache, setMaxCacheSizes(_, _, _)).Times(0);
    EXPECT_CALL(m_data.socket, init(_, _)).Times(0);
    TraceCapture capture;
    EXPECT_EQ(initLogic(logic, {"solicd", "--bogus"}), 1u);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  "init(): Argument parsing error Unknown option --bogus")));
    EXPECT_STREQ(getTraceTag(), "");
}

TEST_F(LogicTest, SocketFailureReturnsItsResultAndStops) {
    Logic logic(&m_data);
    EXPECT_CALL(m_data.socket, init("ns1", "eth0")).WillOnce(Return(5));
    EXPECT_CALL(m_data.lmx, init(_, _)).Times(0);
    TraceCapture capture;
    EXPECT_EQ(initLogic(logic), 5u);
    EXPECT_TRUE(logic.getFdEvents().empty());
    EXPECT_TRUE(capture.messages(TraceEvent::LAB).size() == 1u);  // setData only
    EXPECT_FALSE(
        capture.contains(TraceEvent::INFO, "GENERAL", tagged("init", "Solicd initialization finished")));
}

TEST_F(LogicTest, MailboxFailureReturnsItsResultAndRegistersNothing) {
    Logic logic(&m_data);
    EXPECT_CALL(m_data.lmx, init(kTag, "client")).WillOnce(Return(3));
    EXPECT_CALL(m_data.lmx, getFd()).Times(0);
    EXPECT_EQ(initLogic(logic), 3u);
    EXPECT_TRUE(logic.getFdEvents().empty());
}

TEST_F(LogicTest, RefusedMailboxSourceReturnsAtOnce) {
    TestLogic logic(&m_data);
    logic.refusedFd = m_data.lmxPipe.readEnd.get();
    TraceCapture capture;
    EXPECT_EQ(initLogic(logic), 1u);
    EXPECT_TRUE(logic.getFdEvents().empty());
    EXPECT_EQ(capture.records().back(),
              Trace(TraceEvent::ERROR, "GENERAL",
                    tagged("addFdEvent", "FD for EVENT_SRC_TYPE_LMX with ID " +
                                             std::to_string(m_data.lmxPipe.readEnd.get()) +
                                             " was not added into event loop")));
}

TEST_F(LogicTest, RefusedSocketSourceStillTracesInitializationFinished) {
    TestLogic logic(&m_data);
    logic.refusedFd = m_data.socketPipe.readEnd.get();
    TraceCapture capture;
    EXPECT_EQ(initLogic(logic), 1u);
    const auto& records = capture.records();
    ASSERT_GE(records.size(), 3u);
    EXPECT_EQ(records[records.size() - 3], Trace(TraceEvent::LAB, "GENERAL", lmxAdded()));
    EXPECT_EQ(records[records.size() - 2],
              Trace(TraceEvent::ERROR, "GENERAL",
                    tagged("addFdEvent", "FD for EVENT_SRC_TYPE_SOCKET with ID " +
                                             std::to_string(m_data.socketPipe.readEnd.get()) +
                                             " was not added into event loop")));
    EXPECT_EQ(records.back(),
              Trace(TraceEvent::INFO, "GENERAL", tagged("init", "Solicd initialization finished")));
    EXPECT_EQ(logic.getFdEvents().size(), 1u);
    EXPECT_EQ(logic.getFdEvents().count(SolApp::EVENT_SRC_TYPE_LMX), 1u);
}

TEST_F(LogicTest, AddFdEventOverwritesTheSourceOfTheSameType) {
    Logic logic(&m_data);
    ASSERT_EQ(logic.addFdEvent(SolApp::EVENT_SRC_TYPE_SOCKET, m_data.socketPipe.readEnd.get(),
                               &SolApp::cbRaSocketEvent),
              0u);
    const uint32_t first = logic.getFdEvents().at(SolApp::EVENT_SRC_TYPE_SOCKET);
    ASSERT_EQ(logic.addFdEvent(SolApp::EVENT_SRC_TYPE_SOCKET, m_data.lmxPipe.readEnd.get(),
                               &SolApp::cbRaSocketEvent),
              0u);
    EXPECT_EQ(logic.getFdEvents().size(), 1u);
    EXPECT_NE(logic.getFdEvents().at(SolApp::EVENT_SRC_TYPE_SOCKET), first);
    g_source_remove(first);
}

// A blocked source is taken out of the poll set and put back around every dispatch: two
// main-context wakeups per RA. No callback runs a nested main loop, so none needs the guard.
TEST_F(LogicTest, DescriptorSourcesAreNotBlockedWhileTheirCallbackRuns) {
    Logic logic(&m_data);
    ASSERT_EQ(logic.addFdEvent(SolApp::EVENT_SRC_TYPE_SOCKET, m_data.socketPipe.readEnd.get(),
                               &SolApp::cbRaSocketEvent),
              0u);
    const guint id = logic.getFdEvents().at(SolApp::EVENT_SRC_TYPE_SOCKET);
    GSource* source = g_main_context_find_source_by_id(nullptr, id);
    ASSERT_NE(source, nullptr);
    EXPECT_TRUE(g_source_get_can_recurse(source));
    EXPECT_EQ(g_source_get_priority(source), G_PRIORITY_DEFAULT);
}

TEST_F(LogicTest, EventSourceTypeNames) {
    EXPECT_STREQ(SolApp::eventSrcTypeToCstr(0), "EVENT_SRC_TYPE_SOCKET");
    EXPECT_STREQ(SolApp::eventSrcTypeToCstr(1), "EVENT_SRC_TYPE_LMX");
    EXPECT_STREQ(SolApp::eventSrcTypeToCstr(2), "UNKNOWN");
    Logic logic(&m_data);
    TraceCapture capture;
    ASSERT_EQ(logic.addFdEvent(static_cast<SolApp::EventSrcType>(9), m_data.socketPipe.readEnd.get(),
                               &SolApp::cbRaSocketEvent),
              0u);
    EXPECT_THAT(capture.records(), ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                                     "addFdEvent(): [] FD for UNKNOWN with ID " +
                                                         std::to_string(m_data.socketPipe.readEnd.get()) +
                                                         " was added into event loop")));
}

// ---- Descriptor events ----

TEST_F(LogicTest, ReadableSocketIsTracedAndHandledAndStaysWatched) {
    Logic logic(&m_data);
    ASSERT_EQ(initLogic(logic), 0u);
    int received = 0;
    // Datagrams the socket rejected: the handler traces them and goes no further.
    EXPECT_CALL(m_data.socket, receive(_)).Times(2).WillRepeatedly([&](SocketMgr::Message& message) {
        m_data.socketPipe.drain();
        message.m_state = SocketMgr::Message::MSG_STATE_RX_TRUNCATED;
        ++received;
        return 0u;
    });
    TraceCapture capture;
    m_data.socketPipe.makeReadable();
    ASSERT_TRUE(iterateUntil([&] { return received == 1; }));
    m_data.socketPipe.makeReadable();
    ASSERT_TRUE(iterateUntil([&] { return received == 2; }));
    const std::string event = tagged("cbRaSocketEvent", "Socket event 1, is received on socket " +
                                                            std::to_string(m_data.socketPipe.readEnd.get()));
    const std::string handled = tagged(
        "handleRaSocketEvent",
        "Something went wrong on RA receiving, RX socket state is { no: 4, txt: MSG_STATE_RX_TRUNCATED}");
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::LAB, "GENERAL", event), Trace(TraceEvent::ERROR, "GENERAL", handled),
                    Trace(TraceEvent::LAB, "GENERAL", event), Trace(TraceEvent::ERROR, "GENERAL", handled)));
}

TEST_F(LogicTest, UnexpectedSocketConditionIsReportedAndStillHandled) {
    Logic logic(&m_data);
    setTraceTag(kTag);
    EXPECT_CALL(m_data.socket, receive(_)).WillOnce([](SocketMgr::Message& message) {
        message.m_state = SocketMgr::Message::MSG_STATE_RX_TRUNCATED;
        return 0u;
    });
    TraceCapture capture;
    EXPECT_EQ(SolApp::cbRaSocketEvent(7, static_cast<GIOCondition>(G_IO_IN | G_IO_HUP), &logic), TRUE);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::LAB, "GENERAL",
                                  tagged("cbRaSocketEvent", "Socket event 17, is received on socket 7")),
                            Trace(TraceEvent::ERROR, "GENERAL",
                                  tagged("cbRaSocketEvent",
                                         "Unexpected socket event for socket with fd:7 glib condition: 17")),
                            Trace(TraceEvent::ERROR, "GENERAL",
                                  tagged("handleRaSocketEvent",
                                         "Something went wrong on RA receiving, RX socket state is "
                                         "{ no: 4, txt: MSG_STATE_RX_TRUNCATED}"))));
}

// ---- terminate ----

// Reports, right after the abnormal-termination trace, whether the mailbox source is still there.
class SourceProbe : public FdTraces {
public:
    explicit SourceProbe(guint source) : FdTraces(STDERR_FILENO), m_source(source) {}

protected:
    void afterRecord(const char* message) override {
        if (strstr(message, "Abonrnal") != nullptr) {
            writeText(g_main_context_find_source_by_id(nullptr, m_source) != nullptr
                          ? "mailbox source attached\n"
                          : "mailbox source removed\n");
        }
    }

private:
    guint m_source;
};

void terminateWithFailure(Logic& logic, guint mailboxSource) {
    SourceProbe traces(mailboxSource);
    logic.terminate(1);
}

TEST_F(LogicDeathTest, TerminateWithFailureRemovesTheMailboxSourceThenRequestsRestart) {
    TestLogic logic(&m_data);
    logic.refusedFd = m_data.socketPipe.readEnd.get();
    ASSERT_EQ(initLogic(logic), 1u);
    const uint32_t source = logic.getFdEvents().at(SolApp::EVENT_SRC_TYPE_LMX);
    ASSERT_NE(g_main_context_find_source_by_id(nullptr, source), nullptr);
    // The death test runs in a fresh process, where the source id may differ.
    const std::string traces =
        quoteRegex(line(TraceEvent::INFO, "GENERAL", tagged("terminate", "Terminating. result 1")) +
                   "LAB GENERAL " + tagged("terminate", "FD for EVENT_SRC_TYPE_LMX with ID ")) +
        "[0-9]+" +
        quoteRegex(" was removed\n" +
                   line(TraceEvent::ERROR, "GENERAL", "terminate(): Abonrnal solicd termination result: 1") +
                   "mailbox source removed\n");
    EXPECT_EXIT(terminateWithFailure(logic, source), ::testing::ExitedWithCode(70),
                MatchesRegex(traces + "solicd: restart requested at [^\n]*SolApp\\.cpp:[0-9]+: " +
                             quoteRegex("Abonrnal solicd termination result: 1") + "\n"));
}

void runDaemon(SolApp::DataIf& data, Args args) {
    g_set_print_handler(&ignorePrint);
    FdTraces traces(STDERR_FILENO);
    Logic::run(args.argc(), args.argv(), data);
}

TEST_F(LogicDeathTest, RunWithInvalidCommandLineRequestsRestart) {
    const std::string traces =
        line(TraceEvent::ERROR, "GENERAL", "init(): Argument parsing error Unknown option --bogus") +
        line(TraceEvent::ERROR, "GENERAL",
             "run(): [] Application initialization is failed,  or mainloop was abnormally terminated") +
        line(TraceEvent::INFO, "GENERAL", "terminate(): [] Terminating. result 1") +
        line(TraceEvent::ERROR, "GENERAL", "terminate(): Abonrnal solicd termination result: 1");
    EXPECT_EXIT(runDaemon(m_data, {"solicd", "--bogus"}), ::testing::ExitedWithCode(70),
                MatchesRegex(restartAfter(traces, "Abonrnal solicd termination result: 1")));
}

TEST_F(LogicDeathTest, RunWithSocketFailureRequestsRestart) {
    ON_CALL(m_data.socket, init(_, _)).WillByDefault(Return(1));
    const std::string traces =
        line(TraceEvent::LAB, "GENERAL",
             "setData(): Input arguments m_interface: eth0, m_namespace: ns1, m_mboxLocal: , m_mboxRemote: , "
             "m_verboseEnabled: 0") +
        line(TraceEvent::INFO, "GENERAL", tagged("init", "Solicd initialization started")) +
        line(TraceEvent::ERROR, "GENERAL",
             tagged("run", "Application initialization is failed,  or mainloop was abnormally terminated")) +
        line(TraceEvent::INFO, "GENERAL", tagged("terminate", "Terminating. result 1")) +
        line(TraceEvent::ERROR, "GENERAL", "terminate(): Abonrnal solicd termination result: 1");
    EXPECT_EXIT(runDaemon(m_data, {"solicd", "-n", "ns1", "-i", "eth0"}), ::testing::ExitedWithCode(70),
                MatchesRegex(restartAfter(traces, "Abonrnal solicd termination result: 1")));
}

// ---- Signals, with the daemon core running in a child process ----

// Runs Logic::run in a child whose traces come back through a pipe, one line each.
class ChildDaemon {
public:
    ChildDaemon(TestData& data, Args args) {
        TestPipe channel;
        m_pid = fork();
        if (m_pid == 0) {
            channel.readEnd.reset();
            // A daemon that never ends fails the test through the alarm's default action.
            alarm(kChildGuardSeconds);
            g_set_print_handler(&ignorePrint);
            FdTraces traces(channel.writeEnd.get());
            fcntl(channel.writeEnd.get(), F_SETFL, 0);
            // Reports whether exit handlers ran.
            s_channel = channel.writeEnd.get();
            atexit([] { (void)!write(s_channel, kAtExitLine, strlen(kAtExitLine)); });
            Logic::run(args.argc(), args.argv(), data);
        }
        m_channel = std::move(channel.readEnd);
    }
    ~ChildDaemon() {
        if (m_pid > 0 && !m_reaped) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }

    // Reads trace lines until `expected` arrives; false on end of stream or when the guard ran out.
    bool waitForLine(const std::string& expected) {
        while (true) {
            for (; m_checked < m_lines.size(); ++m_checked) {
                if (m_lines[m_checked] == expected) {
                    ++m_checked;
                    return true;
                }
            }
            if (!readMore(kGuardMs)) {
                return false;
            }
        }
    }

    bool isRunning() const { return waitpid(m_pid, nullptr, WNOHANG) == 0; }
    void signal(int number) const { kill(m_pid, number); }

    // Waits for the child to end and collects the rest of its traces; the wait status.
    int finish() {
        while (readMore(kGuardMs)) {
        }
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_reaped = true;
        return status;
    }

    const std::vector<std::string>& all() const { return m_lines; }

    // Lines after the last one waitForLine found.
    std::vector<std::string> rest() const {
        return std::vector<std::string>(m_lines.begin() + static_cast<long>(m_checked), m_lines.end());
    }

    static constexpr const char* kAtExitLine = "exit handlers ran\n";

private:
    static constexpr unsigned kChildGuardSeconds = 60;
    static inline int s_channel = -1;
    static constexpr int kGuardMs = 20000;

    bool readMore(int timeoutMs) {
        pollfd pfd{m_channel.get(), POLLIN, 0};
        if (poll(&pfd, 1, timeoutMs) <= 0) {
            return false;
        }
        char buffer[4096];
        const ssize_t n = read(m_channel.get(), buffer, sizeof buffer);
        if (n <= 0) {
            return false;
        }
        m_partial.append(buffer, static_cast<size_t>(n));
        size_t end;
        while ((end = m_partial.find('\n')) != std::string::npos) {
            m_lines.push_back(m_partial.substr(0, end));
            m_partial.erase(0, end + 1);
        }
        return true;
    }

    pid_t m_pid = -1;
    bool m_reaped = false;
    UniqueFd m_channel;
    std::string m_partial;
    std::vector<std::string> m_lines;
    size_t m_checked = 0;
};

std::string lineText(TraceEvent event, const std::string& category, const std::string& message) {
    std::string text = line(event, category, message);
    text.pop_back();
    return text;
}

const std::string kInitFinished =
    lineText(TraceEvent::INFO, "GENERAL", tagged("init", "Solicd initialization finished"));

std::string removedRegex(const char* type) {
    return quoteRegex(std::string("LAB GENERAL terminate(): [") + kTag + "] FD for " + type + " with ID ") +
           "[0-9]+ was removed";
}

struct SignalCase {
    int number;
    const char* text;
};

std::ostream& operator<<(std::ostream& os, const SignalCase& signalCase) {
    return os << signalCase.text;
}

class SignalTest : public LogicTest, public ::testing::WithParamInterface<SignalCase> {};

TEST_P(SignalTest, EndsTheDaemonWithStatusZeroAfterTracingTheRemovedSources) {
    const SignalCase signalCase = GetParam();
    ChildDaemon child(m_data, {"solicd", "-n", "ns1", "-i", "eth0"});
    ASSERT_TRUE(child.waitForLine(kInitFinished));
    child.signal(signalCase.number);
    const int status = child.finish();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    const std::string number = std::to_string(signalCase.number);
    EXPECT_THAT(
        child.rest(),
        ElementsAre(lineText(TraceEvent::INFO, "GENERAL",
                             tagged("cbSignalEvent", std::string("Unix Signal ") + signalCase.text + " (" +
                                                         number + "), is received")),
                    lineText(TraceEvent::INFO, "GENERAL", tagged("terminate", "Terminating. result 0")),
                    MatchesRegex(removedRegex("EVENT_SRC_TYPE_SOCKET")),
                    MatchesRegex(removedRegex("EVENT_SRC_TYPE_LMX"))));
    // The clean exit skips exit handlers: it may have interrupted anything, malloc included.
    EXPECT_THAT(child.all(), ::testing::Not(::testing::Contains("exit handlers ran")));
}

INSTANTIATE_TEST_SUITE_P(TermAndInt, SignalTest,
                         ::testing::Values(SignalCase{SIGTERM, "Terminated"},
                                           SignalCase{SIGINT, "Interrupt"}),
                         [](const auto& info) {
                             return std::string(info.param.number == SIGTERM ? "Sigterm" : "Sigint");
                         });

class IgnoredSignalTest : public LogicTest, public ::testing::WithParamInterface<SignalCase> {};

TEST_P(IgnoredSignalTest, IsTracedAsReceivedAndIgnoredAndTheDaemonKeepsRunning) {
    const SignalCase signalCase = GetParam();
    ChildDaemon child(m_data, {"solicd", "-n", "ns1", "-i", "eth0"});
    ASSERT_TRUE(child.waitForLine(kInitFinished));
    child.signal(signalCase.number);
    const std::string number = std::to_string(signalCase.number);
    ASSERT_TRUE(
        child.waitForLine(lineText(TraceEvent::INFO, "GENERAL",
                                   tagged("cbSignalEvent", std::string("Unix Signal ") + signalCase.text +
                                                               " (" + number + "), is received"))));
    ASSERT_TRUE(child.waitForLine(lineText(
        TraceEvent::INFO, "GENERAL",
        tagged("handleSignalEvent",
               std::string("Unix Signal ") + signalCase.text + " (" + number + "), received and ignored"))));
    // Twice: the handler stays installed.
    child.signal(signalCase.number);
    ASSERT_TRUE(child.waitForLine(lineText(
        TraceEvent::INFO, "GENERAL",
        tagged("handleSignalEvent",
               std::string("Unix Signal ") + signalCase.text + " (" + number + "), received and ignored"))));
    EXPECT_TRUE(child.isRunning());
    child.signal(SIGTERM);
    const int status = child.finish();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

INSTANTIATE_TEST_SUITE_P(HupAndQuit, IgnoredSignalTest,
                         ::testing::Values(SignalCase{SIGHUP, "Hangup"}, SignalCase{SIGQUIT, "Quit"}),
                         [](const auto& info) {
                             return std::string(info.param.number == SIGHUP ? "Sighup" : "Sigquit");
                         });

TEST_F(LogicTest, SigpipeReachesNoHandlerAndTheDaemonKeepsRunning) {
    ChildDaemon child(m_data, {"solicd", "-n", "ns1", "-i", "eth0"});
    ASSERT_TRUE(child.waitForLine(kInitFinished));
    child.signal(SIGPIPE);
    // SIGHUP as a marker: once its trace arrives, the earlier SIGPIPE has been dealt with.
    child.signal(SIGHUP);
    ASSERT_TRUE(child.waitForLine(
        lineText(TraceEvent::INFO, "GENERAL",
                 tagged("handleSignalEvent", "Unix Signal Hangup (1), received and ignored"))));
    EXPECT_TRUE(child.isRunning());
    child.signal(SIGTERM);
    const int status = child.finish();
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 0);
    for (const std::string& text : child.all()) {
        EXPECT_EQ(text.find("Broken pipe"), std::string::npos) << text;
    }
}

TEST_F(LogicTest, SignalWithoutLogicIsTracedAndIgnored) {
    TraceCapture capture;
    SolApp::cbSignalEvent(SIGHUP);
    EXPECT_THAT(
        capture.records(),
        ElementsAre(
            Trace(TraceEvent::INFO, "GENERAL", "cbSignalEvent(): [] Unix Signal Hangup (1), is received"),
            Trace(TraceEvent::ERROR, "GENERAL",
                  "cbSignalEvent(): [] Application logic is not instantiated, ignoring signal Hangup (1)")));
}

// ---- GLib log handler ----

class GlibLogTest : public LogicTest {
protected:
    void SetUp() override {
        LogicTest::SetUp();
        ASSERT_EQ(initLogic(m_logic), 0u);
    }
    Logic m_logic{&m_data};
};

TEST_F(GlibLogTest, WarningIsTracedAtInfoWithTheWordWarning) {
    TraceCapture capture;
    g_log("solicd-test", G_LOG_LEVEL_WARNING, "disk %d full", 3);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "GENERAL",
                                  tagged("handleGLibEvent", "WARNING: solicd-test: disk 3 full"))));
}

TEST_F(GlibLogTest, EachLevelHasItsEventAndWord) {
    TraceCapture capture;
    g_log("d", G_LOG_LEVEL_CRITICAL, "c");
    g_log("d", G_LOG_LEVEL_MESSAGE, "m");
    g_log("d", G_LOG_LEVEL_INFO, "i");
    g_log("d", G_LOG_LEVEL_DEBUG, "g");
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL", tagged("handleGLibEvent", "CRITICAL: d: c")),
                            Trace(TraceEvent::INFO, "GENERAL", tagged("handleGLibEvent", "MESSAGE: d: m")),
                            Trace(TraceEvent::INFO, "GENERAL", tagged("handleGLibEvent", "INFO: d: i")),
                            Trace(TraceEvent::LAB, "GENERAL", tagged("handleGLibEvent", "DEBUG: d: g"))));
}

TEST_F(GlibLogTest, GlibsOwnCriticalReachesTheHandler) {
    TraceCapture capture;
    const guint unknownSource = 4000000;
    EXPECT_FALSE(g_source_remove(unknownSource));
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  tagged("handleGLibEvent",
                                         "CRITICAL: GLib: Source ID 4000000 was not found when attempting to "
                                         "remove it"))));
}

TEST_F(GlibLogTest, NonFatalErrorLevelIsTracedAtError) {
    TraceCapture capture;
    SolApp::cbGlibEvent("d", G_LOG_LEVEL_ERROR, "e", nullptr);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL", tagged("handleGLibEvent", "ERROR: d: e"))));
}

TEST_F(GlibLogTest, RecursiveWarningAppendsRecursionToTheWord) {
    TraceCapture capture;
    SolApp::cbGlibEvent("d", static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_FLAG_RECURSION), "again",
                        nullptr);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "GENERAL",
                                  tagged("handleGLibEvent", "WARNING/RECURSION: d: again"))));
}

TEST_F(GlibLogTest, UnknownLevelIsTracedAtErrorWithItsValue) {
    TraceCapture capture;
    SolApp::cbGlibEvent("d", static_cast<GLogLevelFlags>(1 << 10 | G_LOG_FLAG_RECURSION), "user level",
                        nullptr);
    SolApp::cbGlibEvent("d", static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_LEVEL_DEBUG), "two",
                        nullptr);
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                                  tagged("handleGLibEvent", "UNKNOWN_GLIB_LOG_LEVEL=1024: d: user level")),
                            Trace(TraceEvent::ERROR, "GENERAL",
                                  tagged("handleGLibEvent", "UNKNOWN_GLIB_LOG_LEVEL=144: d: two"))));
}

TEST_F(GlibLogTest, NullDomainPrintsAsTheFormattersNullText) {
    TraceCapture capture;
    g_log(nullptr, G_LOG_LEVEL_WARNING, "no domain");
    EXPECT_THAT(capture.records(),
                ElementsAre(Trace(TraceEvent::INFO, "GENERAL",
                                  tagged("handleGLibEvent", "WARNING: (null): no domain"))));
}

TEST_F(LogicTest, GlibEventWithoutLogicIsTracedAndIgnored) {
    g_log_set_default_handler(&SolApp::cbGlibEvent, nullptr);
    TraceCapture capture;
    g_log("d", G_LOG_LEVEL_WARNING, "w");
    EXPECT_THAT(
        capture.records(),
        ElementsAre(Trace(TraceEvent::ERROR, "GENERAL",
                          "cbGlibEvent(): [] Application logic is not instantiated, ignoring Glib event")));
}

class GlibLogDeathTest : public GlibLogTest {
protected:
    void SetUp() override {
        useThreadsafeDeathTests();
        GlibLogTest::SetUp();
    }
};

void logFatal(GLogLevelFlags level) {
    FdTraces traces(STDERR_FILENO);
    SolApp::cbGlibEvent("solicd-test", level, "boom", nullptr);
}

void logGlibError() {
    FdTraces traces(STDERR_FILENO);
    g_log("solicd-test", G_LOG_LEVEL_ERROR, "boom");
}

TEST_F(GlibLogDeathTest, GlibErrorRequestsRestart) {
    const std::string text = "Fatal GLib log level: 0x06, aborting.";
    const std::string traces =
        line(TraceEvent::ERROR, "GENERAL",
             tagged("handleGLibEvent", "FATAL UNKNOWN_GLIB_LOG_LEVEL=4: solicd-test: boom")) +
        line(TraceEvent::ERROR, "GENERAL", "handleGLibEvent(): " + text);
    EXPECT_EXIT(logGlibError(), ::testing::ExitedWithCode(70), MatchesRegex(restartAfter(traces, text)));
}

TEST_F(GlibLogDeathTest, FatalFlagOnAnyLevelRequestsRestartWithTheFullLevel) {
    const std::string text = "Fatal GLib log level: 0x0B, aborting.";
    const std::string traces =
        line(TraceEvent::ERROR, "GENERAL",
             tagged("handleGLibEvent", "FATAL UNKNOWN_GLIB_LOG_LEVEL=8: solicd-test: boom")) +
        line(TraceEvent::ERROR, "GENERAL", "handleGLibEvent(): " + text);
    EXPECT_EXIT(
        logFatal(static_cast<GLogLevelFlags>(G_LOG_LEVEL_CRITICAL | G_LOG_FLAG_FATAL | G_LOG_FLAG_RECURSION)),
        ::testing::ExitedWithCode(70), MatchesRegex(restartAfter(traces, text)));
}

}  // namespace
