// Test doubles for driving SolApp::Logic through SolApp::DataIf, and helpers to run the GLib main
// loop and to see traces of a process that ends.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "SolApp.h"
#include "TraceCapture.h"
#include "UniqueFd.h"

namespace solicd::test {

class MockSocketMgr : public SocketMgr {
public:
    MOCK_METHOD(uint32_t, init, (const std::string& ns, const std::string& ifName), (override));
    MOCK_METHOD(uint32_t, receive, (Message & message), (override));
    MOCK_METHOD(int, getFd, (), (const, override));
    using SocketMgr::adoptSocket;
    using SocketMgr::reportLinkLocalWait;
};

class MockLmxMgr : public LmxMgr {
public:
    MOCK_METHOD(int, getFd, (), (override));
    MOCK_METHOD(uint32_t, init, (const std::string& srcMbox, const std::string& dstMbox), (override));
    MOCK_METHOD(uint32_t, getDstMboxState, (), (const, override));
    MOCK_METHOD(uint32_t, receive, (Message & message), (override));
    MOCK_METHOD(uint32_t, notify, (Message & message), (override));
    MOCK_METHOD(uint32_t, respond, (const Message& request, Message& answer), (override));
};

class MockCacheMgr : public CacheMgr {
public:
    MOCK_METHOD(void, setMaxCacheSizes, (size_t maxRouters, size_t maxNetworks, size_t maxDnsServers),
                (override));
    MOCK_METHOD(RouterEntry*, notifyTimeoutExpiresAndGetEntry,
                (bool* changed, uint32_t* timeout, const std::string& name, RouterKind kind), (override));
    MOCK_METHOD(NetworkEntry*, notifyTimeoutExpiresAndGetEntry,
                (bool* changed, uint32_t* timeout, const std::string& name, NetworkKind kind), (override));
    MOCK_METHOD(DnsServerEntry*, notifyTimeoutExpiresAndGetEntry,
                (bool* changed, uint32_t* timeout, const std::string& name, DnsServerKind kind), (override));
};

// A service manager that keeps every notification, one string per line of it ("READY=1",
// "STATUS=..."), in order. It listens only when a test turns it on.
class RecordingNotify : public ServiceNotify {
public:
    bool isEnabled() const override { return enabled; }
    void status(const std::string& text) override { lines.push_back("STATUS=" + text); }
    void ready(const std::string& text) override {
        lines.push_back("READY=1");
        lines.push_back("STATUS=" + text);
    }

    bool enabled = false;
    std::vector<std::string> lines;
};

// A pipe whose read end stands in for a descriptor the loop watches.
struct TestPipe {
    TestPipe() {
        std::array<int, 2> fds{};
        if (pipe2(fds.data(), O_CLOEXEC | O_NONBLOCK) == 0) {
            readEnd.reset(fds[0]);
            writeEnd.reset(fds[1]);
        }
    }
    void makeReadable() const { (void)!write(writeEnd.get(), "x", 1); }
    void drain() const {
        char buffer[64];
        while (read(readEnd.get(), buffer, sizeof buffer) > 0) {
        }
    }
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

// Managers as mocks with quiet defaults: every initialisation succeeds and the two descriptors
// are pipes that stay silent until a test writes into them.
class TestData : public SolApp::DataIf {
public:
    TestData() {
        ON_CALL(socket, getFd()).WillByDefault(::testing::Return(socketPipe.readEnd.get()));
        ON_CALL(lmx, getFd()).WillByDefault(::testing::Return(lmxPipe.readEnd.get()));
    }
    ArgParser& getArgParser() override { return args; }
    SocketMgr& getSocketMgr() override { return socket; }
    LmxMgr& getLmxMgr() override { return lmx; }
    CacheMgr& getCacheMgr() override { return cache; }
    PacketParser& getPacketParser() override { return parser; }
    ServiceNotify& getServiceNotify() override { return notify; }

    TestPipe socketPipe;
    TestPipe lmxPipe;
    RecordingNotify notify;
    ArgParser args;
    ::testing::NiceMock<MockSocketMgr> socket;
    ::testing::NiceMock<MockLmxMgr> lmx;
    ::testing::NiceMock<MockCacheMgr> cache;
    PacketParser parser;
};

// A logic whose GLib fd registration can be refused for one descriptor.
class TestLogic : public SolApp::Logic {
public:
    using Logic::Logic;
    int refusedFd = -1;

protected:
    guint addUnixFdSource(int fd, GUnixFDSourceFunc callback) override {
        return fd == refusedFd ? 0 : Logic::addUnixFdSource(fd, callback);
    }
};

// main's argument vector.
class Args {
public:
    Args(std::initializer_list<const char*> args) : m_storage(args.begin(), args.end()) {
        for (auto& s : m_storage) {
            m_pointers.push_back(s.data());
        }
        m_pointers.push_back(nullptr);
    }
    int argc() const { return static_cast<int>(m_storage.size()); }
    char** argv() { return m_pointers.data(); }

private:
    std::vector<std::string> m_storage;
    std::vector<char*> m_pointers;
};

// lttng-ust keeps listener threads in every test process: death tests re-execute the binary
// instead of forking a process that has them.
inline void useThreadsafeDeathTests() {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
}

// Runs the default main context until `done` holds; false when the generous guard ran out first.
inline bool iterateUntil(const std::function<bool()>& done, guint guardMs = 20000) {
    bool guardFired = false;
    const guint guard = g_timeout_add(
        guardMs,
        [](gpointer fired) -> gboolean {
            *static_cast<bool*>(fired) = true;
            return FALSE;
        },
        &guardFired);
    while (!done() && !guardFired) {
        g_main_context_iteration(nullptr, TRUE);
    }
    if (!guardFired) {
        g_source_remove(guard);
    }
    return !guardFired;
}

inline std::string formatRecord(TraceEvent event, const char* category, const char* message) {
    return std::string(eventName(event)) + " " + category + " " + message + "\n";
}

// Writes every trace as one line "EVENT CATEGORY message" to a descriptor, with write() alone, so
// that traces from signal context and from a process that ends with _exit are all seen.
class FdTraces {
public:
    explicit FdTraces(int fd) : m_fd(fd), m_scope(&FdTraces::onTrace, this, trace::kAllEvents) {}
    virtual ~FdTraces() = default;

protected:
    // Called after each record is written, for a test to add what it observed at that point.
    virtual void afterRecord(const char* /*message*/) {}
    void writeText(const char* text) const { (void)!write(m_fd, text, strlen(text)); }

private:
    static void onTrace(void* self, TraceEvent event, const char* /*location*/, const char* category,
                        const char* message) {
        char line[kTraceBufferSize + kLinePrefixSize];
        const int n = snprintf(line, sizeof line, "%s %s %s\n", eventName(event), category, message);
        if (n > 0) {
            (void)!write(static_cast<FdTraces*>(self)->m_fd, line,
                         std::min(static_cast<size_t>(n), sizeof line - 1));
        }
        static_cast<FdTraces*>(self)->afterRecord(message);
    }

    static constexpr size_t kLinePrefixSize = 32;  // event and category words
    int m_fd;
    ScopedCapture m_scope;
};

}  // namespace solicd::test
