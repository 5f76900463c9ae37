// SystemdNotify against a notification socket of the test's own: what arrives, and the one line
// on stderr when nothing can arrive.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "ServiceNotify.h"
#include "StderrCapture.h"
#include "UniqueFd.h"

using solicd::SystemdNotify;
using solicd::UniqueFd;
using solicd::test::StderrCapture;

namespace {

// NOTIFY_SOCKET for one test, restored afterwards.
class NotifySocketVariable {
public:
    explicit NotifySocketVariable(const char* value) {
        if (const char* old = std::getenv("NOTIFY_SOCKET"); old != nullptr) {
            m_old = old;
            m_hadOld = true;
        }
        if (value != nullptr) {
            setenv("NOTIFY_SOCKET", value, 1);
        } else {
            unsetenv("NOTIFY_SOCKET");
        }
    }
    ~NotifySocketVariable() {
        if (m_hadOld) {
            setenv("NOTIFY_SOCKET", m_old.c_str(), 1);
        } else {
            unsetenv("NOTIFY_SOCKET");
        }
    }

private:
    std::string m_old;
    bool m_hadOld = false;
};

class ServiceNotifyTest : public ::testing::Test {
protected:
    void SetUp() override {
        char dir[] = "/tmp/solicd-notify.XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        m_dir = dir;
        m_path = m_dir + "/notify";
        m_socket.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        struct sockaddr_un address {};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
        ASSERT_EQ(bind(m_socket.get(), reinterpret_cast<const struct sockaddr*>(&address), sizeof address),
                  0);
    }
    void TearDown() override {
        unlink(m_path.c_str());
        rmdir(m_dir.c_str());
    }
    // The next notification, or "" when none waits.
    std::string received() const {
        char buffer[4096];
        const ssize_t n = recv(m_socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
        return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
    }

    std::string m_dir;
    std::string m_path;
    UniqueFd m_socket;
};

TEST_F(ServiceNotifyTest, ReadyAndStatusArriveAsAssignments) {
    NotifySocketVariable variable(m_path.c_str());
    SystemdNotify notify;
    ASSERT_TRUE(notify.isEnabled());
    notify.ready("Waiting for the client mailbox blue-client");
    notify.status("Running: 1 router, 1 prefix, 2 DNS servers");
    EXPECT_EQ(received(), "READY=1\nSTATUS=Waiting for the client mailbox blue-client");
    EXPECT_EQ(received(), "STATUS=Running: 1 router, 1 prefix, 2 DNS servers");
    EXPECT_EQ(received(), "");
}

TEST_F(ServiceNotifyTest, WithoutTheVariableNothingIsSent) {
    NotifySocketVariable variable(nullptr);
    SystemdNotify notify;
    EXPECT_FALSE(notify.isEnabled());
    StderrCapture capture;
    notify.ready("x");
    notify.status("y");
    EXPECT_EQ(capture.text(), "");
    EXPECT_EQ(received(), "");
}

TEST_F(ServiceNotifyTest, WithoutTheVariableAtStartNothingIsSentLater) {
    std::unique_ptr<SystemdNotify> notify;
    {
        NotifySocketVariable variable(nullptr);
        notify = std::make_unique<SystemdNotify>();
    }
    NotifySocketVariable variable(m_path.c_str());
    EXPECT_FALSE(notify->isEnabled());
    notify->status("y");
    EXPECT_EQ(received(), "");
}

TEST_F(ServiceNotifyTest, UnreachableManagerIsReportedOnceOnStderr) {
    const std::string missing = m_dir + "/gone";
    NotifySocketVariable variable(missing.c_str());
    SystemdNotify notify;
    StderrCapture capture;
    notify.status("Entering network namespace blue");
    notify.ready("Running: 0 routers, 0 prefixes, 0 DNS servers");
    EXPECT_EQ(capture.text(),
              "solicd: cannot notify the service manager at " + missing + ": No such file or directory\n");
}

}  // namespace
