// The client link on the real mailbox service: the subscriber is another process that starts
// late, is killed with SIGKILL and comes back; a GLib loop drives LmxMgr as the daemon does.
#include <glib-unix.h>
#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <memory>

#include "ClientRecords.h"
#include "LmxMgr.h"
#include "Subprocess.h"
#include "TraceCapture.h"

using namespace solicd;
using namespace solicd::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const char* const kNotSet = "{ no: 2, txt: DST_MBOX_STATE_NOT_SET}";
const char* const kConnecting = "{ no: 4, txt: DST_MBOX_STATE_CONNECTING}";
const char* const kConnected = "{ no: 8, txt: DST_MBOX_STATE_CONNECTED}";

std::string stateChange(const char* from, const char* to) {
    return std::string("postDstMboxEvent(): [] Changing dstMbox 'client' state: '") + from + "' -> '" + to +
           "'";
}

class LmxMgrServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/lmxmgr-test-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_dir = pattern;
        setenv("LMX_DIR", m_dir.c_str(), 1);
        setTraceTag("");
    }
    void TearDown() override {
        std::filesystem::remove_all(m_dir);
        unsetenv("LMX_DIR");
    }

    // Runs the main loop, receiving every message as the daemon does, until `done` holds; false
    // when the guard ran out first.
    bool runUntil(LmxMgr& mgr, const std::function<bool()>& done) {
        struct Loop {
            LmxMgr* mgr;
            const std::function<bool()>* done;
            GMainLoop* loop;
            bool guardExpired;
        } state{&mgr, &done, g_main_loop_new(nullptr, FALSE), false};
        if (done()) {
            g_main_loop_unref(state.loop);
            return true;
        }
        const guint watch = g_unix_fd_add(
            mgr.getFd(), G_IO_IN,
            [](int, GIOCondition, gpointer data) -> gboolean {
                auto* s = static_cast<Loop*>(data);
                LmxMgr::Message message;
                s->mgr->receive(message);
                if ((*s->done)()) {
                    g_main_loop_quit(s->loop);
                }
                return G_SOURCE_CONTINUE;
            },
            &state);
        const guint guard = g_timeout_add_seconds(
            static_cast<guint>(kGuard.count()),
            [](gpointer data) -> gboolean {
                auto* s = static_cast<Loop*>(data);
                s->guardExpired = true;
                g_main_loop_quit(s->loop);
                return G_SOURCE_REMOVE;
            },
            &state);
        g_main_loop_run(state.loop);
        g_source_remove(watch);
        if (!state.guardExpired) {
            g_source_remove(guard);
        }
        g_main_loop_unref(state.loop);
        return !state.guardExpired;
    }

    std::unique_ptr<Subprocess> startSubscriber() {
        auto peer =
            std::make_unique<Subprocess>(std::vector<std::string>{LMX_TEST_PEER_BIN, "silent", "client"});
        EXPECT_EQ(peer->readLine(), "ready");
        return peer;
    }

    std::string m_dir;
};

std::vector<std::string> stateChanges(const TraceCapture& capture) {
    std::vector<std::string> out;
    for (const auto& r : capture.records()) {
        if (r.event == TraceEvent::INFO && r.message.find("Changing dstMbox") != std::string::npos) {
            out.push_back(r.message);
        }
    }
    return out;
}

TEST_F(LmxMgrServiceTest, SubscriberKilledAndBackGoesConnectedNotSetConnectingConnected) {
    TraceCapture capture;
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    const auto connected = [&] { return mgr.getDstMboxState() == LmxMgr::DST_MBOX_STATE_CONNECTED; };

    auto subscriber = startSubscriber();
    ASSERT_TRUE(runUntil(mgr, connected));
    LmxMgr::Message update;
    update.setTxRouterUpdatedInd(makeRouter(1));
    EXPECT_EQ(mgr.notify(update), 0u);

    subscriber->signal(SIGKILL);
    subscriber->wait();
    // Gone: the monitor answer takes the link back to waiting for the subscriber.
    ASSERT_TRUE(runUntil(mgr, [&] { return stateChanges(capture).size() == 4; }));
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_CONNECTING);
    update.setTxRouterUpdatedInd(makeRouter(1));
    EXPECT_EQ(mgr.notify(update), 1u) << "nobody to notify while the subscriber is away";
    update.reset();

    subscriber = startSubscriber();
    ASSERT_TRUE(runUntil(mgr, connected));
    EXPECT_THAT(stateChanges(capture),
                ElementsAre(stateChange(kNotSet, kConnecting), stateChange(kConnecting, kConnected),
                            stateChange(kConnected, kNotSet), stateChange(kNotSet, kConnecting),
                            stateChange(kConnecting, kConnected)));
    EXPECT_THAT(capture.messages(TraceEvent::ERROR),
                ElementsAre("notify(): [] Unable to notify solicd, state " + std::string(kConnecting) +
                            ". Reason: not connected"));
    update.setTxRouterUpdatedInd(makeRouter(2));
    EXPECT_EQ(mgr.notify(update), 0u) << "the subscriber that came back is notified";
}

TEST_F(LmxMgrServiceTest, SubscriberStartingFirstIsConnectedAtOnce) {
    auto subscriber = startSubscriber();
    TraceCapture capture;
    LmxMgr mgr;
    ASSERT_EQ(mgr.init("solicd", "client"), 0u);
    ASSERT_TRUE(runUntil(mgr, [&] { return mgr.getDstMboxState() == LmxMgr::DST_MBOX_STATE_CONNECTED; }));
    EXPECT_THAT(capture.messages(TraceEvent::ERROR), IsEmpty());
}

TEST_F(LmxMgrServiceTest, OwnMailboxExistsWhileTheLinkLivesAndIsGoneAfter) {
    {
        LmxMgr mgr;
        ASSERT_EQ(mgr.init("solicd", ""), 0u);
        EXPECT_TRUE(std::filesystem::is_socket(m_dir + "/solicd"));
    }
    EXPECT_FALSE(std::filesystem::exists(m_dir + "/solicd"));
}

TEST_F(LmxMgrServiceTest, OwnMailboxNameHeldByAnotherProcessFailsInit) {
    Subprocess holder({LMX_TEST_PEER_BIN, "silent", "solicd"});
    ASSERT_EQ(holder.readLine(), "ready");
    TraceCapture capture;
    LmxMgr mgr;
    EXPECT_EQ(mgr.init("solicd", "client"), 1u);
    EXPECT_EQ(mgr.getDstMboxState(), LmxMgr::DST_MBOX_STATE_NOT_SET);
    EXPECT_THAT(capture.messages(TraceEvent::ERROR),
                ElementsAre("init(): [] Failed to create LMX mailbox, srcMbox:[solicd]"));
}

}  // namespace
