// The mailbox service between real processes: each test has its own mailbox directory; peers
// are forked children driven over pipes.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <set>
#include <string>
#include <vector>

#include "LmxProcess.h"
#include "lmx.h"
#include "lmx_service.h"
#include "lmx_wire.h"

using namespace solicd::test;

namespace {

constexpr uint32_t kPing = 0x1a11633;  // any number: the service does not look inside
constexpr const char* kMe = "me";
constexpr const char* kPeer = "peer";

// Every byte after the message number depends on its offset and the message size, so a
// misplaced or missing fragment shows.
void fillPattern(void* msg, size_t size) {
    auto* bytes = static_cast<uint8_t*>(msg);
    for (size_t i = sizeof(uint32_t); i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(i * 131 + size);
    }
}

bool hasPattern(const void* msg, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(msg);
    for (size_t i = sizeof(uint32_t); i < size; ++i) {
        if (bytes[i] != static_cast<uint8_t>(i * 131 + size)) {
            return false;
        }
    }
    return true;
}

LmxMessage patterned(size_t size, uint32_t no = kPing) {
    LmxMessage msg(lmx_alloc(size, no));
    if (msg != nullptr) {
        fillPattern(msg.get(), size);
    }
    return msg;
}

// A peer process with mailbox `name`, created at once or on command. Commands from the test:
//   'c' create the mailbox (answers 'r'), 'd' delete it (answers 'd'),
//   's' send one ping to "me" (answers 's'),
//   'e' take one message and send it back to its sender (answers 'e'),
//   'v' the same after checking its pattern (answers 'v'),
//   'q' or the test's end: end cleanly. Any failure answers 'x'.
// Between commands it keeps the service working, as an application's main loop would, so its
// queued output drains; messages that arrive meanwhile wait for the next 'e' or 'v'.
int runPeer(Child& test, const std::string& name, bool createNow) {
    if (lmx_init(1, nullptr) != 0) {
        return 10;
    }
    std::deque<LmxMessage> arrived;
    const auto nextCommand = [&] {
        for (;;) {
            pollfd fds[2] = {{test.input(), POLLIN, 0}, {lmx_get_fd(), POLLIN, 0}};
            ::poll(fds, 2, -1);
            if (fds[0].revents != 0) {
                return test.listen();
            }
            if (LmxMessage msg{lmx_receive(nullptr, 0, LMX_ANY_SENDER)}) {
                arrived.push_back(std::move(msg));
            }
        }
    };
    const auto nextMessage = [&] {
        if (arrived.empty()) {
            return receiveWithinGuard();
        }
        LmxMessage msg = std::move(arrived.front());
        arrived.pop_front();
        return msg;
    };
    lmx_mbox_id_t self = LMX_INVALID_ID;
    const auto create = [&] {
        self = lmx_create_mailbox(name.c_str(), 0);
        return self != LMX_INVALID_ID;
    };
    if (createNow) {
        test.say(create() ? 'r' : 'x');
    }
    for (;;) {
        switch (const char command = nextCommand()) {
            case 'c':
                test.say(create() ? 'r' : 'x');
                break;
            case 'd':
                test.say(lmx_delete_mailbox(self) == 0 ? 'd' : 'x');
                break;
            case 's': {
                const lmx_mbox_id_t to = lmx_locate(kMe);
                test.say(to != LMX_INVALID_ID && lmx_send(lmx_alloc(4, kPing), to, self) == 0 ? 's' : 'x');
                break;
            }
            case 'e':
            case 'v': {
                LmxMessage msg = nextMessage();
                bool ok = msg != nullptr && (command == 'e' || hasPattern(msg.get(), lmx_size(msg.get())));
                const lmx_mbox_id_t to = lmx_sender(msg.get());
                ok = ok && lmx_send(msg.release(), to, self) == 0;
                test.say(ok ? command : 'x');
                break;
            }
            case 'q':
            case 0:
                lmx_exit();
                return 0;
            default:
                return 12;
        }
    }
}

// Starts a peer that creates its mailbox at once.
std::unique_ptr<Child> startPeer(const std::string& name = kPeer) {
    auto child = std::make_unique<Child>([name](Child& test) { return runPeer(test, name, true); });
    EXPECT_EQ(child->listen(), 'r');
    return child;
}

// A socket connected to mailbox `name` the way no well-behaved peer would use it.
int rawConnect(const std::string& path) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

bool rawSend(int fd, const std::vector<uint8_t>& packet) {
    return ::send(fd, packet.data(), packet.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(packet.size());
}

// A listening socket file at `path`, put in place as mailboxes appear (listening under another
// name, then renamed), as a mailbox's owner has it; -1 on failure.
int rawListener(const std::string& path) {
    const std::string hidden = path + ".new";
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, hidden.c_str(), sizeof addr.sun_path - 1);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0 || ::listen(fd, 8) != 0 ||
        ::rename(hidden.c_str(), path.c_str()) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

std::vector<uint8_t> helloFrom(const std::string& name) {
    const lmx::Hello hello = lmx::encodeHello(lmx::LinkKind::Data, name);
    return std::vector<uint8_t>(hello.bytes.begin(), hello.bytes.begin() + hello.size);
}

std::vector<uint8_t> fragment(uint32_t total, uint32_t offset, size_t payload) {
    std::vector<uint8_t> packet(lmx::kFragmentHeaderSize + payload, 0x11);
    std::memcpy(packet.data(), &total, 4);
    std::memcpy(packet.data() + 4, &offset, 4);
    return packet;
}

// Whether the other end has closed `raw` (a refused or dropped connection).
bool closedByPeer(int raw) {
    char byte;
    return readable(raw) && ::recv(raw, &byte, 1, MSG_DONTWAIT) == 0;
}

// Waits until the service has closed `raw`; false if it never does, or if anything of the
// connection was handed on.
bool closedByService(int raw) {
    return eventually([raw] { return closedByPeer(raw); }) && !readable(lmx_get_fd()) &&
           LmxMessage(lmx_receive(nullptr, 0, LMX_ANY_SENDER)) == nullptr;
}

class LmxServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        char root[] = "/tmp/lmx-test.XXXXXX";
        ASSERT_NE(::mkdtemp(root), nullptr);
        m_root = root;
        m_dir = m_root + "/mbox";
        ::setenv("LMX_DIR", m_dir.c_str(), 1);
    }
    void TearDown() override {
        lmx_exit();
        for (const int fd : m_rawMailboxes) {
            ::close(fd);
        }
        std::filesystem::remove_all(m_root);
        ::unsetenv("LMX_DIR");
    }

    // The test process as mailbox "me".
    lmx_mbox_id_t startAsMe() {
        EXPECT_EQ(lmx_init(1, nullptr), 0);
        const lmx_mbox_id_t me = lmx_create_mailbox(kMe, 0);
        EXPECT_NE(me, LMX_INVALID_ID);
        return me;
    }
    std::string path(const std::string& name) const { return m_dir + "/" + name; }
    ino_t inode(const std::string& name) const {
        struct stat st {};
        return ::lstat(path(name).c_str(), &st) == 0 ? st.st_ino : 0;
    }
    bool isSocketFile(const std::string& name) const {
        struct stat st {};
        return ::lstat(path(name).c_str(), &st) == 0 && S_ISSOCK(st.st_mode);
    }
    std::vector<std::string> files() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(m_dir)) {
            names.push_back(entry.path().filename());
        }
        return names;
    }

    // A mailbox `name` of this process's user that a raw connection may then speak as.
    void rawMailbox(const std::string& name) {
        const int fd = rawListener(path(name));
        ASSERT_GE(fd, 0) << name;
        m_rawMailboxes.push_back(fd);
    }

    std::string m_root;
    std::string m_dir;
    std::vector<int> m_rawMailboxes;
};

}  // namespace

TEST_F(LmxServiceTest, DirectoryIs1770AndSocketFiles0660WhateverTheUmask) {
    const mode_t old = ::umask(077);
    ASSERT_EQ(lmx_init(1, nullptr), 0);
    ASSERT_NE(lmx_create_mailbox(kMe, 0), LMX_INVALID_ID);
    ::umask(old);
    struct stat st {};
    ASSERT_EQ(::stat(m_dir.c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 01770u);
    ASSERT_EQ(::lstat(path(kMe).c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0660u);
}

TEST_F(LmxServiceTest, OperationsBeforeInitFailAndInitIsOnceWithoutOptions) {
    errno = 0;
    EXPECT_EQ(lmx_get_fd(), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(lmx_create_mailbox(kMe, 0), LMX_INVALID_ID);
    EXPECT_EQ(lmx_send(lmx_alloc(4, kPing), 1, 1), -1);  // and the message is freed (ASan)
    const int options = 0;
    EXPECT_EQ(lmx_init(1, &options), -1);
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(lmx_init(1, nullptr), 0);
    EXPECT_GE(lmx_get_fd(), 0);
    EXPECT_EQ(lmx_init(1, nullptr), -1);
    EXPECT_EQ(errno, EALREADY);
}

TEST_F(LmxServiceTest, BuffersAreZeroedNumberedAndBoundedByTheMaximumSize) {
    EXPECT_EQ(lmx_get_max_size(), 1024u * 1024u);
    LmxMessage msg(lmx_alloc(lmx_get_max_size(), kPing));
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(lmx_msgno(msg.get()), kPing);
    EXPECT_EQ(lmx_size(msg.get()), lmx_get_max_size());
    const auto* bytes = static_cast<const uint8_t*>(msg.get());
    EXPECT_TRUE(std::all_of(bytes + 4, bytes + lmx_get_max_size(), [](uint8_t b) { return b == 0; }));
    EXPECT_EQ(lmx_alloc(lmx_get_max_size() + 1, kPing), nullptr);
    EXPECT_EQ(errno, EMSGSIZE);
    EXPECT_EQ(lmx_alloc(3, kPing), nullptr);
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(LmxServiceTest, ReceiveWithTimeoutZeroGivesNullAndEagain) {
    startAsMe();
    errno = 0;
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_EQ(errno, EAGAIN);
    errno = 0;
    EXPECT_EQ(lmx_receive(nullptr, 1, LMX_ANY_SENDER), nullptr);
    EXPECT_EQ(errno, ETIMEDOUT);
}

TEST_F(LmxServiceTest, InvalidNamesAreRefusedByEveryOperation) {
    ASSERT_EQ(lmx_init(1, nullptr), 0);
    const std::string tooLong(101, 'n');
    for (const char* name :
         {"../x", "a/b", ".x", "", tooLong.c_str(), "a b", "..", static_cast<const char*>(nullptr)}) {
        const std::string shown = name == nullptr ? "(null)" : name;
        errno = 0;
        EXPECT_EQ(lmx_create_mailbox(name, 0), LMX_INVALID_ID) << shown;
        EXPECT_EQ(errno, EINVAL) << shown;
        errno = 0;
        EXPECT_EQ(lmx_locate(name), LMX_INVALID_ID) << shown;
        EXPECT_EQ(errno, EINVAL) << shown;
        errno = 0;
        EXPECT_EQ(lmx_locate_async(name, nullptr, LMX_LOCATE_SENDER), -1) << shown;
        EXPECT_EQ(errno, EINVAL) << shown;
    }
    EXPECT_TRUE(files().empty());
    EXPECT_FALSE(std::filesystem::exists(m_root + "/x"));
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);  // no answer was promised
}

TEST_F(LmxServiceTest, LongestNameCarriesMessagesBothWays) {
    const std::string longest(LMX_NAME_MAX, 'L');
    ASSERT_GT(path(longest).size(), sizeof(sockaddr_un::sun_path));  // longer than a socket address
    auto peer = startPeer(longest);
    const lmx_mbox_id_t me = startAsMe();
    const lmx_mbox_id_t to = lmx_locate(longest.c_str());
    ASSERT_NE(to, LMX_INVALID_ID);
    EXPECT_STREQ(lmx_name(to), longest.c_str());
    ASSERT_EQ(lmx_send(patterned(100).release(), to, me), 0);
    peer->say('e');
    ASSERT_EQ(peer->listen(), 'e');
    LmxMessage back = receiveWithinGuard();
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(lmx_sender(back.get()), to);
    EXPECT_EQ(lmx_size(back.get()), 100u);
    EXPECT_TRUE(hasPattern(back.get(), 100));
}

TEST_F(LmxServiceTest, IdsAreStablePerNameAndNeverZeroNorAllOnes) {
    auto peer = startPeer();
    const lmx_mbox_id_t me = startAsMe();
    EXPECT_NE(me, 0u);
    EXPECT_EQ(lmx_locate(kMe), me);
    EXPECT_STREQ(lmx_name(me), kMe);
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    EXPECT_NE(p, 0u);
    EXPECT_NE(p, LMX_INVALID_ID);
    EXPECT_NE(p, me);
    EXPECT_EQ(lmx_locate(kPeer), p);
    EXPECT_STREQ(lmx_name(p), kPeer);
    EXPECT_EQ(lmx_name(0), nullptr);
    EXPECT_EQ(lmx_name(LMX_INVALID_ID), nullptr);
    // The same id again as the sender of a message and of a locate answer.
    peer->say('s');
    ASSERT_EQ(peer->listen(), 's');
    LmxMessage ping = receiveWithinGuard();
    ASSERT_NE(ping, nullptr);
    EXPECT_EQ(lmx_msgno(ping.get()), kPing);
    EXPECT_EQ(lmx_sender(ping.get()), p);
    ASSERT_EQ(lmx_locate_async(kPeer, nullptr, LMX_LOCATE_SENDER), 0);
    LmxMessage located = receiveWithinGuard();
    ASSERT_NE(located, nullptr);
    EXPECT_EQ(lmx_sender(located.get()), p);
}

TEST_F(LmxServiceTest, LocateAnswersAtOnceWhenThePeerIsLive) {
    auto peer = startPeer();
    startAsMe();
    ASSERT_EQ(lmx_locate_async(kPeer, nullptr, LMX_LOCATE_SENDER), 0);
    EXPECT_TRUE(readable(lmx_get_fd()));
    LmxMessage answer(lmx_receive(nullptr, 0, LMX_ANY_SENDER));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(lmx_msgno(answer.get()), LMX_LOCATE_DEFAULT_NO);
    EXPECT_EQ(lmx_size(answer.get()), 4u);
    EXPECT_EQ(lmx_sender(answer.get()), lmx_locate(kPeer));
    EXPECT_FALSE(readable(lmx_get_fd()));
}

TEST_F(LmxServiceTest, LocateAnswersAsSoonAsThePeerAppears) {
    Child peer([](Child& test) { return runPeer(test, kPeer, false); });
    startAsMe();
    errno = 0;
    EXPECT_EQ(lmx_locate(kPeer), LMX_INVALID_ID);
    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(lmx_locate_async(kPeer, nullptr, LMX_LOCATE_SENDER), 0);
    ASSERT_EQ(lmx_locate_async(kPeer, nullptr, LMX_LOCATE_SENDER), 0);  // asked twice, answered twice
    EXPECT_FALSE(readable(lmx_get_fd()));
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);

    peer.say('c');
    ASSERT_EQ(peer.listen(), 'r');
    ASSERT_TRUE(readable(lmx_get_fd(), kGuardMs));
    for (int i = 0; i < 2; ++i) {
        LmxMessage answer = receiveWithinGuard();
        ASSERT_NE(answer, nullptr);
        EXPECT_EQ(lmx_msgno(answer.get()), LMX_LOCATE_DEFAULT_NO);
        EXPECT_EQ(lmx_sender(answer.get()), lmx_locate(kPeer));
    }
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_FALSE(readable(lmx_get_fd()));
}

TEST_F(LmxServiceTest, LocateWaitsPastAStaleFileForTheNextOwner) {
    {
        auto dead = startPeer();
        dead->kill(SIGKILL);
        dead->wait();
    }
    ASSERT_TRUE(isSocketFile(kPeer));  // its owner could not remove it
    startAsMe();
    EXPECT_EQ(lmx_locate(kPeer), LMX_INVALID_ID);
    ASSERT_EQ(lmx_locate_async(kPeer, nullptr, LMX_LOCATE_SENDER), 0);
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    auto next = startPeer();
    LmxMessage answer = receiveWithinGuard();
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(lmx_msgno(answer.get()), LMX_LOCATE_DEFAULT_NO);
    EXPECT_EQ(lmx_sender(answer.get()), lmx_locate(kPeer));
}

TEST_F(LmxServiceTest, MonitorReportsAPeerKilledBySigkill) {
    auto peer = startPeer();
    startAsMe();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    const uint32_t monitor = lmx_monitor(p, nullptr);
    ASSERT_NE(monitor, 0u);
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_FALSE(readable(lmx_get_fd()));
    peer->kill(SIGKILL);
    peer->wait();
    ASSERT_TRUE(readable(lmx_get_fd(), kGuardMs));
    LmxMessage gone = receiveWithinGuard();
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(lmx_msgno(gone.get()), LMX_MONITOR_DEFAULT_NO);
    EXPECT_EQ(lmx_sender(gone.get()), p);
    EXPECT_EQ(lmx_unmonitor(monitor), 0);  // ended already: harmless
}

TEST_F(LmxServiceTest, MonitorReportsAPeerThatDeletesItsMailbox) {
    auto peer = startPeer();
    startAsMe();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    ASSERT_NE(lmx_monitor(p, nullptr), 0u);
    peer->say('d');
    ASSERT_EQ(peer->listen(), 'd');
    LmxMessage gone = receiveWithinGuard();
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(lmx_msgno(gone.get()), LMX_MONITOR_DEFAULT_NO);
    EXPECT_EQ(lmx_sender(gone.get()), p);
    EXPECT_TRUE(peer->running());
    EXPECT_FALSE(std::filesystem::exists(path(kPeer)));
    // The answer holds the name; with it the name goes.
    EXPECT_STREQ(lmx_name(p), kPeer);
    gone.reset();
    EXPECT_EQ(lmx_name(p), nullptr);
}

TEST_F(LmxServiceTest, MonitorOfAMailboxAlreadyGoneAnswersAtOnce) {
    auto peer = startPeer();
    startAsMe();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    peer->kill(SIGKILL);
    peer->wait();
    ASSERT_NE(lmx_monitor(p, nullptr), 0u);
    LmxMessage gone(lmx_receive(nullptr, 0, LMX_ANY_SENDER));
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(lmx_msgno(gone.get()), LMX_MONITOR_DEFAULT_NO);
    EXPECT_EQ(lmx_sender(gone.get()), p);
}

TEST_F(LmxServiceTest, MonitorOfAnUnknownIdFails) {
    startAsMe();
    EXPECT_EQ(lmx_monitor(12345, nullptr), 0u);
    EXPECT_EQ(lmx_monitor(LMX_INVALID_ID, nullptr), 0u);
    EXPECT_EQ(lmx_unmonitor(0), -1);
    EXPECT_EQ(lmx_unmonitor(77), -1);
}

TEST_F(LmxServiceTest, UnmonitorCancelsBeforeAndAfterTheAnswer) {
    auto peer = startPeer();
    startAsMe();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    const uint32_t monitor = lmx_monitor(p, nullptr);
    ASSERT_NE(monitor, 0u);
    EXPECT_EQ(lmx_unmonitor(monitor), 0);
    peer->kill(SIGKILL);
    peer->wait();  // the kernel closed its sockets before it could be reaped
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs));

    // An answer already waiting is withdrawn.
    const uint32_t late = lmx_monitor(p, nullptr);
    ASSERT_NE(late, 0u);
    EXPECT_TRUE(readable(lmx_get_fd()));
    EXPECT_EQ(lmx_unmonitor(late), 0);
    EXPECT_FALSE(readable(lmx_get_fd()));
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
}

TEST_F(LmxServiceTest, StaleSocketFileIsReplaced) {
    {
        auto dead = startPeer();
        dead->kill(SIGKILL);
        dead->wait();
    }
    ASSERT_TRUE(isSocketFile(kPeer));
    const ino_t stale = inode(kPeer);
    ASSERT_EQ(lmx_init(1, nullptr), 0);
    const lmx_mbox_id_t mine = lmx_create_mailbox(kPeer, 0);
    ASSERT_NE(mine, LMX_INVALID_ID);
    EXPECT_TRUE(isSocketFile(kPeer));
    EXPECT_NE(inode(kPeer), stale);
    // It is really ours now: a message sent to that name arrives here.
    Child sender([](Child& test) {
        lmx_init(1, nullptr);
        const lmx_mbox_id_t self = lmx_create_mailbox("sender", 0);
        const int rc = lmx_send(lmx_alloc(4, kPing), lmx_locate(kPeer), self);
        test.listen(-1);
        lmx_exit();
        return rc == 0 ? 0 : 1;
    });
    LmxMessage ping = receiveWithinGuard();
    ASSERT_NE(ping, nullptr);
    EXPECT_STREQ(lmx_name(lmx_sender(ping.get())), "sender");
}

TEST_F(LmxServiceTest, LiveMailboxOfTheSameNameIsRefusedAndKeepsWorking) {
    auto peer = startPeer();
    const ino_t before = inode(kPeer);
    ASSERT_EQ(lmx_init(2, nullptr), 0);
    errno = 0;
    EXPECT_EQ(lmx_create_mailbox(kPeer, 0), LMX_INVALID_ID);
    EXPECT_EQ(errno, EADDRINUSE);
    EXPECT_EQ(inode(kPeer), before);
    const lmx_mbox_id_t me = lmx_create_mailbox(kMe, 0);
    ASSERT_NE(me, LMX_INVALID_ID);
    errno = 0;
    EXPECT_EQ(lmx_create_mailbox(kMe, 0), LMX_INVALID_ID);  // nor twice in one process
    EXPECT_EQ(errno, EADDRINUSE);
    ASSERT_EQ(lmx_send(patterned(8).release(), lmx_locate(kPeer), me), 0);
    peer->say('e');
    ASSERT_EQ(peer->listen(), 'e');
    EXPECT_NE(receiveWithinGuard(), nullptr);
    // Hidden temporary names never stay behind.
    for (const std::string& name : files()) {
        EXPECT_NE(name.front(), '.') << name;
    }
}

TEST_F(LmxServiceTest, NoMoreMailboxesThanAnnouncedAtInit) {
    ASSERT_EQ(lmx_init(1, nullptr), 0);
    ASSERT_NE(lmx_create_mailbox("a", 0), LMX_INVALID_ID);
    errno = 0;
    EXPECT_EQ(lmx_create_mailbox("b", 0), LMX_INVALID_ID);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(std::filesystem::exists(path("b")));
}

TEST_F(LmxServiceTest, DeleteAndExitRemoveSocketFilesAndReleaseEveryDescriptor) {
    auto peer = startPeer();
    const size_t baseline = openDescriptors();
    ASSERT_EQ(lmx_init(2, nullptr), 0);
    const lmx_mbox_id_t a = lmx_create_mailbox("a", 0);
    const lmx_mbox_id_t b = lmx_create_mailbox("b", 0);
    ASSERT_NE(b, LMX_INVALID_ID);
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    ASSERT_NE(lmx_monitor(p, nullptr), 0u);
    ASSERT_EQ(lmx_locate_async("later", nullptr, LMX_LOCATE_SENDER), 0);
    ASSERT_EQ(lmx_send(patterned(64).release(), p, a), 0);
    ASSERT_EQ(lmx_send(patterned(64).release(), a, a), 0);  // to itself: waits unread
    EXPECT_EQ(lmx_delete_mailbox(a), 0);
    EXPECT_FALSE(std::filesystem::exists(path("a")));
    EXPECT_EQ(lmx_delete_mailbox(a), -1);
    EXPECT_TRUE(isSocketFile("b"));
    lmx_exit();
    EXPECT_FALSE(std::filesystem::exists(path("b")));
    EXPECT_EQ(openDescriptors(), baseline);
    EXPECT_EQ(lmx_get_fd(), -1);
}

TEST_F(LmxServiceTest, SendToAMailboxThatIsGoneFails) {
    auto peer = startPeer();
    const lmx_mbox_id_t me = startAsMe();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    peer->kill(SIGKILL);
    peer->wait();
    errno = 0;
    EXPECT_EQ(lmx_send(patterned(16).release(), p, me), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(lmx_send(patterned(16).release(), 999, me), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(lmx_send(patterned(16).release(), me, 999), -1);  // not our mailbox
    EXPECT_EQ(errno, EINVAL);
}

TEST_F(LmxServiceTest, LocateAndMonitorNumbersCannotBeSent) {
    // Only the service makes these answers; letting a peer send one would let it fake a
    // subscriber's arrival or death.
    const lmx_mbox_id_t me = startAsMe();
    for (const uint32_t reserved : {LMX_LOCATE_DEFAULT_NO, LMX_MONITOR_DEFAULT_NO}) {
        errno = 0;
        EXPECT_EQ(lmx_send(lmx_alloc(8, reserved), me, me), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    errno = 0;
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LmxServiceTest, KeptConnectionIsRenewedWhenThePeerComesBack) {
    const lmx_mbox_id_t me = startAsMe();
    auto first = startPeer();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    ASSERT_EQ(lmx_send(patterned(16).release(), p, me), 0);
    first->kill(SIGKILL);
    first->wait();
    // The kept connection's end is the service's own work: nothing for the application.
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs));
    auto second = startPeer();
    ASSERT_EQ(lmx_send(patterned(24).release(), p, me), 0);
    second->say('v');
    ASSERT_EQ(second->listen(), 'v');
    LmxMessage back = receiveWithinGuard();
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(lmx_size(back.get()), 24u);
}

TEST_F(LmxServiceTest, MessagesOfEverySizeUpToTheLargestTravelWhole) {
    auto peer = startPeer();
    const lmx_mbox_id_t me = startAsMe();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    const size_t chunk = lmx::kMaxPacketSize - lmx::kFragmentHeaderSize;
    for (const size_t size :
         {size_t{4}, size_t{5}, chunk - 1, chunk, chunk + 1, 3 * chunk, lmx_get_max_size()}) {
        ASSERT_EQ(lmx_send(patterned(size).release(), p, me), 0) << size;
        peer->say('v');  // the peer checks every byte and sends it back
        LmxMessage back = receiveWithinGuard();
        ASSERT_EQ(peer->listen(), 'v') << size;
        ASSERT_NE(back, nullptr) << size;
        EXPECT_EQ(lmx_size(back.get()), size);
        EXPECT_EQ(lmx_msgno(back.get()), kPing);
        EXPECT_TRUE(hasPattern(back.get(), size)) << size;
    }
}

TEST_F(LmxServiceTest, PeerThatNeverReadsNeitherBlocksTheSenderNorTakesMoreThanTheBound) {
    constexpr size_t kSize = 64 * 1024;
    constexpr uint32_t kLimit = 1024;  // 64 MiB: far past any bound
    Child sink([](Child& test) {
        lmx_init(1, nullptr);
        lmx_create_mailbox("sink", 0);
        test.say('r');
        uint32_t expected = 0;
        if (!test.listen(&expected, sizeof expected, -1)) {
            return 1;
        }
        for (uint32_t i = 0; i < expected; ++i) {
            LmxMessage msg = receiveWithinGuard();
            uint32_t index = 0;
            if (msg == nullptr || lmx_size(msg.get()) != kSize) {
                return 2;
            }
            std::memcpy(&index, static_cast<uint8_t*>(msg.get()) + 4, sizeof index);
            if (index != i) {
                return 3;  // lost, doubled or out of order
            }
        }
        const bool more = lmx_receive(nullptr, 200, LMX_ANY_SENDER) != nullptr;
        test.say(more ? 'x' : 'k');
        test.listen(-1);
        lmx_exit();
        return 0;
    });
    ASSERT_EQ(sink.listen(), 'r');
    const lmx_mbox_id_t me = startAsMe();
    const lmx_mbox_id_t to = lmx_locate("sink");
    uint32_t accepted = 0;
    const auto sendNext = [&] {
        void* msg = lmx_alloc(kSize, kPing);
        std::memcpy(static_cast<uint8_t*>(msg) + 4, &accepted, sizeof accepted);
        const bool sent = lmx_send(msg, to, me) == 0;
        accepted += sent ? 1 : 0;
        return sent;
    };
    // Until refused twice in a row a while apart: the sink's service takes messages in for its
    // application, up to its own bound, while this process sends.
    for (bool refusedBefore = false; accepted < kLimit;) {
        if (sendNext()) {
            refusedBefore = false;
            continue;
        }
        ASSERT_EQ(errno, ENOBUFS);
        if (refusedBefore) {
            break;
        }
        refusedBefore = true;
        ::usleep(kQuietMs * 1000);
    }
    // The bound on queued output, plus what the sink's service took in for its application and
    // what the kernel holds between them.
    EXPECT_GE(accepted * kSize, lmx::kPeerQueueLimit);
    EXPECT_LE(accepted * kSize, lmx::kPeerQueueLimit + lmx::kInboxLimit + 1024 * 1024);
    EXPECT_EQ(lmx_send(patterned(kSize).release(), to, me), -1);  // still full

    // The sink starts reading; this process only polls and receives, and the queue drains.
    sink.say(&accepted, sizeof accepted);
    for (;;) {
        pollfd fds[2] = {{lmx_get_fd(), POLLIN, 0}, {sink.input(), POLLIN, 0}};
        ASSERT_GT(::poll(fds, 2, kGuardMs), 0);
        if (fds[1].revents != 0) {
            break;
        }
        EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    }
    EXPECT_EQ(sink.listen(), 'k');
    ASSERT_EQ(lmx_send(patterned(kSize).release(), to, me), 0);  // room again
}

TEST_F(LmxServiceTest, DescriptorIsReadableExactlyWhileAMessageWaits) {
    auto peer = startPeer();
    startAsMe();
    EXPECT_FALSE(readable(lmx_get_fd()));
    peer->say('s');
    ASSERT_EQ(peer->listen(), 's');
    peer->say('s');
    ASSERT_EQ(peer->listen(), 's');
    EXPECT_TRUE(readable(lmx_get_fd(), kGuardMs));
    EXPECT_NE(LmxMessage(lmx_receive(nullptr, 0, LMX_ANY_SENDER)), nullptr);
    EXPECT_TRUE(readable(lmx_get_fd(), kGuardMs));
    EXPECT_NE(LmxMessage(lmx_receive(nullptr, 0, LMX_ANY_SENDER)), nullptr);
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs));
    errno = 0;
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LmxServiceTest, DescriptorStaysQuietThroughTheServicesOwnWork) {
    startAsMe();
    rawMailbox("raw");
    const auto quiet = [] { return !readable(lmx_get_fd(), kQuietMs); };

    // A peer connecting, saying hello, sending half a message, and leaving.
    const int raw = rawConnect(path(kMe));
    ASSERT_GE(raw, 0);
    EXPECT_TRUE(quiet()) << "connect";
    ASSERT_TRUE(rawSend(raw, helloFrom("raw")));
    EXPECT_TRUE(quiet()) << "hello";
    ASSERT_TRUE(rawSend(raw, fragment(16, 0, 8)));
    EXPECT_TRUE(quiet()) << "half a message";
    ::close(raw);
    EXPECT_TRUE(quiet()) << "close";

    // A peer process that sends, so that a connection of ours to it is kept, then dies.
    auto peer = startPeer();
    ASSERT_NE(lmx_send(lmx_alloc(4, kPing), lmx_locate(kPeer), lmx_locate(kMe)), -1);
    peer->say('e');
    ASSERT_EQ(peer->listen(), 'e');
    ASSERT_NE(receiveWithinGuard(), nullptr);
    peer->kill(SIGKILL);
    peer->wait();
    EXPECT_TRUE(quiet()) << "death of a peer";

    // The directory changing: with no locate waiting, then with one waiting for another name.
    auto other = startPeer("other");
    other->say('d');
    ASSERT_EQ(other->listen(), 'd');
    EXPECT_TRUE(quiet()) << "a mailbox coming and going";
    ASSERT_EQ(lmx_locate_async("absent", nullptr, LMX_LOCATE_SENDER), 0);
    other->say('c');
    ASSERT_EQ(other->listen(), 'r');
    EXPECT_TRUE(quiet()) << "another mailbox appearing while a locate waits";

    errno = 0;
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_EQ(errno, EAGAIN);
}

TEST_F(LmxServiceTest, DescriptorBecomesReadableForALocateAnswerAndForAMonitorAnswer) {
    startAsMe();
    ASSERT_EQ(lmx_locate_async("later", nullptr, LMX_LOCATE_SENDER), 0);
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs));
    auto later = startPeer("later");
    ASSERT_TRUE(readable(lmx_get_fd(), kGuardMs));
    LmxMessage located(lmx_receive(nullptr, 0, LMX_ANY_SENDER));
    ASSERT_NE(located, nullptr);
    EXPECT_EQ(lmx_msgno(located.get()), LMX_LOCATE_DEFAULT_NO);
    EXPECT_FALSE(readable(lmx_get_fd()));

    ASSERT_NE(lmx_monitor(lmx_sender(located.get()), nullptr), 0u);
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs));
    later->kill(SIGKILL);
    later->wait();
    ASSERT_TRUE(readable(lmx_get_fd(), kGuardMs));
    LmxMessage gone(lmx_receive(nullptr, 0, LMX_ANY_SENDER));
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(lmx_msgno(gone.get()), LMX_MONITOR_DEFAULT_NO);
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs));
}

// A mailbox's owner as a raw listening socket, monitored by this process; its monitor link
// closed as a dying process's descriptors close one by one, the listening socket still open.
class DyingOwner {
public:
    explicit DyingOwner(const std::string& path) : m_listener(rawListener(path)) {}
    ~DyingOwner() { closeListener(); }
    DyingOwner(const DyingOwner&) = delete;
    DyingOwner& operator=(const DyingOwner&) = delete;

    bool listening() const { return m_listener >= 0; }
    // The connections waiting, the locate's probes and the monitor link among them, closed.
    void closeLinks() {
        ::fcntl(m_listener, F_SETFL, O_NONBLOCK);
        for (int conn; (conn = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            ::close(conn);
        }
    }
    void closeListener() {
        if (m_listener >= 0) {
            ::close(m_listener);
            m_listener = -1;
        }
    }

private:
    int m_listener;
};

TEST_F(LmxServiceTest, DeathIsAnsweredOnceTheDyingOwnerNoLongerListensAndIsNotFoundAgain) {
    startAsMe();
    const std::string path = m_dir + "/dying";
    DyingOwner owner(path);
    ASSERT_TRUE(owner.listening());
    const lmx_mbox_id_t dying = lmx_locate("dying");
    ASSERT_NE(dying, LMX_INVALID_ID);
    ASSERT_NE(lmx_monitor(dying, nullptr), 0u);
    owner.closeLinks();
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs)) << "answered while the owner still listens";

    owner.closeListener();
    LmxMessage gone = receiveWithinGuard();
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(lmx_msgno(gone.get()), LMX_MONITOR_DEFAULT_NO);
    EXPECT_EQ(lmx_sender(gone.get()), dying);
    // Whoever reads the answer and looks again does not find the dead mailbox...
    EXPECT_EQ(lmx_locate("dying"), LMX_INVALID_ID);
    ASSERT_EQ(lmx_locate_async("dying", nullptr, LMX_LOCATE_SENDER), 0);
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs));
    // ... but its successor under the same name.
    ::unlink(path.c_str());
    DyingOwner successor(path);
    ASSERT_TRUE(successor.listening());
    LmxMessage located = receiveWithinGuard();
    ASSERT_NE(located, nullptr);
    EXPECT_EQ(lmx_msgno(located.get()), LMX_LOCATE_DEFAULT_NO);
    EXPECT_EQ(lmx_locate("dying"), dying);
}

TEST_F(LmxServiceTest, DeathIsAnsweredWithinASecondEvenWhileTheNameStillListens) {
    startAsMe();
    DyingOwner owner(m_dir + "/lingering");
    ASSERT_TRUE(owner.listening());
    ASSERT_NE(lmx_monitor(lmx_locate("lingering"), nullptr), 0u);
    owner.closeLinks();
    const auto start = std::chrono::steady_clock::now();
    LmxMessage gone = receiveWithinGuard();
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(lmx_msgno(gone.get()), LMX_MONITOR_DEFAULT_NO);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
}

TEST_F(LmxServiceTest, PeerFloodingAnApplicationThatDoesNotReadStopsAtTheInboxBound) {
    startAsMe();
    rawMailbox("raw");
    const int raw = rawConnect(path(kMe));
    ASSERT_GE(raw, 0);
    ASSERT_TRUE(rawSend(raw, helloFrom("raw")));
    ::fcntl(raw, F_SETFL, O_NONBLOCK);
    // Small messages as fast as the service takes them, until it takes no more.
    size_t sent = 0;
    const auto full = [&] {
        while (rawSend(raw, fragment(256, 0, 256))) {
            ++sent;
        }
        pollfd p{raw, POLLOUT, 0};
        return errno == EAGAIN && ::poll(&p, 1, kQuietMs) == 0;  // and the service takes no more
    };
    ASSERT_TRUE(eventually(full));
    ASSERT_TRUE(readable(lmx_get_fd()));
    EXPECT_GE(sent * 256, lmx::kInboxLimit);
    EXPECT_LE(sent * 256, lmx::kInboxLimit + 1024 * 1024);  // plus what the kernel holds
    // Taking messages makes room: the rest comes, in order, nothing lost.
    size_t taken = 0;
    while (LmxMessage msg = LmxMessage(lmx_receive(nullptr, kQuietMs, LMX_ANY_SENDER))) {
        ++taken;
    }
    EXPECT_EQ(taken, sent);
    ::close(raw);
}

TEST_F(LmxServiceTest, FilterAndSenderSelectWhichMessageIsTaken) {
    auto peer = startPeer();
    const lmx_mbox_id_t me = startAsMe();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    ASSERT_EQ(lmx_locate_async(kPeer, nullptr, LMX_LOCATE_SENDER), 0);
    ASSERT_EQ(lmx_send(patterned(4, kPing).release(), me, me), 0);
    const uint32_t onlyPing[] = {kPing, 0};
    LmxMessage ping(lmx_receive(onlyPing, kGuardMs, LMX_ANY_SENDER));
    ASSERT_NE(ping, nullptr);
    EXPECT_EQ(lmx_msgno(ping.get()), kPing);
    EXPECT_EQ(lmx_sender(ping.get()), me);
    EXPECT_EQ(lmx_receive(nullptr, 0, me), nullptr);  // the locate answer is the peer's
    LmxMessage answer(lmx_receive(nullptr, 0, p));
    ASSERT_NE(answer, nullptr);
    EXPECT_EQ(lmx_msgno(answer.get()), LMX_LOCATE_DEFAULT_NO);
}

TEST_F(LmxServiceTest, MalformedPeerInputDropsOnlyThatConnection) {
    auto peer = startPeer();
    startAsMe();
    rawMailbox("raw");
    // A good peer with a connection already in use.
    peer->say('s');
    ASSERT_EQ(peer->listen(), 's');
    ASSERT_NE(receiveWithinGuard(), nullptr);

    std::vector<uint8_t> badMagic = helloFrom("raw");
    badMagic[0] = 'X';
    std::vector<uint8_t> badVersion = helloFrom("raw");
    badVersion[4] = 9;
    const std::vector<std::vector<std::vector<uint8_t>>> cases = {
        {badMagic},
        {badVersion},
        {helloFrom("../etc")},
        {{0xde, 0xad, 0xbe, 0xef, 0x00, 0x01, 0x02}},
        // One byte more than a packet may have; cut to size it would look like a good fragment.
        {helloFrom("raw"),
         fragment(lmx::kMaxMessageSize, 0, lmx::kMaxPacketSize - lmx::kFragmentHeaderSize + 1)},
        {helloFrom("raw"), {4, 0, 0}},                                // truncated packet
        {helloFrom("raw"), fragment(4 * 1024 * 1024, 0, 16)},         // bigger than any message
        {helloFrom("raw"), fragment(16, 0, 8), fragment(16, 12, 4)},  // a gap
    };
    for (size_t i = 0; i < cases.size(); ++i) {
        const int raw = rawConnect(path(kMe));
        ASSERT_GE(raw, 0);
        for (const auto& packet : cases[i]) {
            ASSERT_TRUE(rawSend(raw, packet)) << "case " << i;
        }
        EXPECT_TRUE(closedByService(raw)) << "case " << i;
        ::close(raw);
    }

    // A message cut short by its sender's end is never handed on.
    const int cut = rawConnect(path(kMe));
    ASSERT_TRUE(rawSend(cut, helloFrom("raw")));
    ASSERT_TRUE(rawSend(cut, fragment(16, 0, 8)));
    ::close(cut);
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_FALSE(readable(lmx_get_fd()));

    // The good connection goes on; so does a new well-formed one.
    peer->say('s');
    ASSERT_EQ(peer->listen(), 's');
    LmxMessage ping = receiveWithinGuard();
    ASSERT_NE(ping, nullptr);
    EXPECT_STREQ(lmx_name(lmx_sender(ping.get())), kPeer);
    const int good = rawConnect(path(kMe));
    ASSERT_TRUE(rawSend(good, helloFrom("raw")));
    ASSERT_TRUE(rawSend(good, fragment(12, 0, 12)));
    LmxMessage fromRaw = receiveWithinGuard();
    ::close(good);
    ASSERT_NE(fromRaw, nullptr);
    EXPECT_EQ(lmx_size(fromRaw.get()), 12u);
    EXPECT_STREQ(lmx_name(lmx_sender(fromRaw.get())), "raw");
}

TEST_F(LmxServiceTest, OutOfDescriptorsAConnectionIsRefusedNotSpunOn) {
    Child full([](Child& test) {
        lmx_init(1, nullptr);
        lmx_create_mailbox(kMe, 0);
        rlimit limit{};
        ::getrlimit(RLIMIT_NOFILE, &limit);
        limit.rlim_cur = openDescriptors() + 8;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        while (::open("/dev/null", O_RDONLY) >= 0) {
        }
        test.say('r');
        if (test.listen(-1) != 'c') {
            return 1;
        }
        // Refused, not spun on: the service thread goes quiet, the application sees nothing.
        const auto cpu = [] {
            rusage usage{};
            ::getrusage(RUSAGE_SELF, &usage);
            return usage.ru_utime.tv_sec * 1000000L + usage.ru_utime.tv_usec +
                   usage.ru_stime.tv_sec * 1000000L + usage.ru_stime.tv_usec;
        };
        const long before = cpu();
        if (readable(lmx_get_fd(), kQuietMs)) {
            return 2;
        }
        return cpu() - before < kQuietMs * 1000L / 4 ? 0 : 3;
    });
    ASSERT_EQ(full.listen(), 'r');
    const int raw = rawConnect(path(kMe));
    ASSERT_GE(raw, 0);
    full.say('c');
    EXPECT_TRUE(eventually([raw] { return closedByPeer(raw); }));
    EXPECT_EQ(full.wait(), 0);
    ::close(raw);
}

TEST_F(LmxServiceTest, MailboxTakesAtMost1024ConnectionsAndRoomComesBack) {
    constexpr int kAccepted = 1024;
    constexpr int kExtra = 6;
    constexpr rlim_t kDescriptors = 4 * (kAccepted + kExtra);  // both ends live in the child
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    if (limit.rlim_max < kDescriptors) {
        GTEST_SKIP() << "needs " << kDescriptors << " descriptors, the hard limit is " << limit.rlim_max;
    }
    Child host([&](Child&) {
        limit.rlim_cur = kDescriptors;
        ::setrlimit(RLIMIT_NOFILE, &limit);
        lmx_init(1, nullptr);
        lmx_create_mailbox(kMe, 0);
        const std::string me = std::string(::getenv("LMX_DIR")) + "/" + kMe;
        std::vector<int> raw;
        for (int i = 0; i < kAccepted + kExtra; ++i) {
            raw.push_back(rawConnect(me));
            if (raw.back() < 0) {
                return 1;
            }
        }
        if (!eventually([&] {
                return std::all_of(raw.begin() + kAccepted, raw.end(),
                                   [](int fd) { return closedByPeer(fd); });
            })) {
            return 2;  // the connections past 1024 are closed
        }
        if (std::any_of(raw.begin(), raw.begin() + kAccepted, [](int fd) { return closedByPeer(fd); })) {
            return 3;  // the first 1024 are kept
        }
        ::close(raw[0]);
        // Room again once the service has seen that one go: a new connection is kept.
        return eventually([&] {
            const int again = rawConnect(me);
            const bool kept = again >= 0 && !readable(again, kQuietMs);
            ::close(again);
            return kept;
        })
                   ? 0
                   : 4;
    });
    EXPECT_EQ(host.wait(), 0);
}

// ---- Sender names: proven by their owner, known while something of them lives ----

// Connects to `to` and says hello as `name`; the socket, or -1.
int rawPeerAs(const std::string& to, const std::string& name) {
    const int raw = rawConnect(to);
    if (raw >= 0 && !rawSend(raw, helloFrom(name))) {
        ::close(raw);
        return -1;
    }
    return raw;
}

TEST_F(LmxServiceTest, HelloNamingNoSocketFileOfThePeersOwnIsRefused) {
    startAsMe();
    // No such mailbox; a plain file; a link to a mailbox of ours, which is not followed.
    ASSERT_EQ(::close(::open(path("plain").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)), 0);
    rawMailbox("real");
    ASSERT_EQ(::symlink(path("real").c_str(), path("link").c_str()), 0);
    for (const char* name : {"absent", "plain", "link"}) {
        const int raw = rawPeerAs(path(kMe), name);
        ASSERT_GE(raw, 0) << name;
        rawSend(raw, fragment(12, 0, 12));
        EXPECT_TRUE(closedByService(raw)) << name;
        ::close(raw);
    }
    // The owner of the real one is heard, and its messages carry its user.
    const int raw = rawPeerAs(path(kMe), "real");
    ASSERT_TRUE(rawSend(raw, fragment(12, 0, 12)));
    LmxMessage msg = receiveWithinGuard();
    ASSERT_NE(msg, nullptr);
    EXPECT_STREQ(lmx_name(lmx_sender(msg.get())), "real");
    EXPECT_EQ(lmx_sender_uid(msg.get()), ::geteuid());
    ::close(raw);
}

TEST_F(LmxServiceTest, HelloNamingAnotherUsersMailboxIsRefusedEvenFromRoot) {
    if (::geteuid() != 0) {
        GTEST_SKIP() << "needs root to give a socket file to another user";
    }
    const lmx_mbox_id_t me = startAsMe();
    rawMailbox("theirs");
    constexpr uid_t kOther = 65534;
    ASSERT_EQ(::lchown(path("theirs").c_str(), kOther, static_cast<gid_t>(-1)), 0);
    const int raw = rawPeerAs(path(kMe), "theirs");
    ASSERT_GE(raw, 0);
    rawSend(raw, fragment(12, 0, 12));
    EXPECT_TRUE(closedByService(raw));
    ::close(raw);
    // A mailbox of our own still speaks, to itself as to anyone.
    ASSERT_EQ(lmx_send(lmx_alloc(4, kPing), me, me), 0);
    LmxMessage msg = receiveWithinGuard();
    ASSERT_NE(msg, nullptr);
    EXPECT_EQ(lmx_sender(msg.get()), me);
    EXPECT_EQ(lmx_sender_uid(msg.get()), 0u);
}

TEST_F(LmxServiceTest, ServiceAnswersAndUnreceivedBuffersHaveNoSenderUser) {
    auto peer = startPeer();
    startAsMe();
    ASSERT_EQ(lmx_locate_async(kPeer, nullptr, LMX_LOCATE_SENDER), 0);
    LmxMessage located = receiveWithinGuard();
    ASSERT_NE(located, nullptr);
    EXPECT_EQ(lmx_sender_uid(located.get()), static_cast<uid_t>(-1));
    LmxMessage own(lmx_alloc(4, kPing));
    EXPECT_EQ(lmx_sender_uid(own.get()), static_cast<uid_t>(-1));
    EXPECT_EQ(lmx_sender_uid(nullptr), static_cast<uid_t>(-1));
}

TEST_F(LmxServiceTest, SendersNameStaysWhileItsMessageIsHeldThenItsIdNamesNothing) {
    const lmx_mbox_id_t me = startAsMe();
    LmxMessage msg;
    {
        auto peer = startPeer();
        peer->say('s');
        ASSERT_EQ(peer->listen(), 's');
        msg = receiveWithinGuard();
        ASSERT_NE(msg, nullptr);
        peer->kill(SIGKILL);
        peer->wait();
    }
    const lmx_mbox_id_t gone = lmx_sender(msg.get());
    // Its connection is closed, its message still held: the id keeps its name and meaning.
    EXPECT_FALSE(readable(lmx_get_fd(), kQuietMs));
    EXPECT_STREQ(lmx_name(gone), kPeer);
    errno = 0;
    EXPECT_EQ(lmx_send(lmx_alloc(4, kPing), gone, me), -1);
    EXPECT_EQ(errno, ECONNREFUSED);  // its stale file refuses; the name is still the peer's
    // Freed: the name is forgotten. A new peer of that name gets another id, and the old one
    // never reaches it.
    msg.reset();
    EXPECT_EQ(lmx_name(gone), nullptr);
    auto successor = startPeer();
    const lmx_mbox_id_t now = lmx_locate(kPeer);
    ASSERT_NE(now, LMX_INVALID_ID);
    EXPECT_NE(now, gone);
    errno = 0;
    EXPECT_EQ(lmx_send(lmx_alloc(4, kPing), gone, me), -1);
    EXPECT_EQ(errno, EINVAL);
    successor->say('e');
    EXPECT_EQ(successor->listen(kQuietMs), 0) << "the successor got a message sent to the old id";
}

TEST_F(LmxServiceTest, MessageSentOnKeepsItsSendersNameOnlyUntilSent) {
    const lmx_mbox_id_t me = startAsMe();
    auto peer = startPeer();
    peer->say('s');
    ASSERT_EQ(peer->listen(), 's');
    LmxMessage msg = receiveWithinGuard();
    ASSERT_NE(msg, nullptr);
    const lmx_mbox_id_t p = lmx_sender(msg.get());
    // Sent on to ourselves: the name is held by the copy that arrives, not by the one sent.
    ASSERT_EQ(lmx_send(msg.release(), me, me), 0);
    LmxMessage back = receiveWithinGuard();
    ASSERT_NE(back, nullptr);
    EXPECT_EQ(lmx_sender(back.get()), me);
    peer->say('d');
    ASSERT_EQ(peer->listen(), 'd');
    EXPECT_TRUE(eventually([p] { return lmx_name(p) == nullptr; }));
}

TEST_F(LmxServiceTest, LocatedNameLastsWhileItsSocketFileIsInPlace) {
    startAsMe();
    auto peer = startPeer();
    const lmx_mbox_id_t located = lmx_locate(kPeer);
    ASSERT_NE(located, LMX_INVALID_ID);
    EXPECT_EQ(lmx_locate(kPeer), located);
    // Held by nothing else, it lasts: the peer's first message comes under that id.
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_STREQ(lmx_name(located), kPeer);
    peer->say('s');
    ASSERT_EQ(peer->listen(), 's');
    LmxMessage ping(lmx_receive(nullptr, kGuardMs, located));
    ASSERT_NE(ping, nullptr);
    EXPECT_EQ(lmx_sender(ping.get()), located);
    ping.reset();
    // The mailbox deleted, its file goes: the next receive lets the name go once nothing else
    // holds it (the peer's connection to us ends with the mailbox).
    peer->say('d');
    ASSERT_EQ(peer->listen(), 'd');
    EXPECT_TRUE(eventually([located] {
        LmxMessage(lmx_receive(nullptr, 0, LMX_ANY_SENDER));
        return lmx_name(located) == nullptr;
    }));
    // A stale file replaced by a new owner's lets it go as well.
    peer->say('c');
    ASSERT_EQ(peer->listen(), 'r');
    const lmx_mbox_id_t again = lmx_locate(kPeer);
    EXPECT_NE(again, located);
    peer->kill(SIGKILL);
    peer->wait();
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_STREQ(lmx_name(again), kPeer);  // its file stays behind
    auto successor = startPeer();
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_EQ(lmx_name(again), nullptr);
}

TEST_F(LmxServiceTest, IdFromALocateAnswerOutlivesTheAnswerWhileItsMailboxIsThere) {
    // As a daemon meets its client: the answer read, freed, and the id monitored afterwards.
    startAsMe();
    ASSERT_EQ(lmx_locate_async(kPeer, nullptr, LMX_LOCATE_SENDER), 0);
    auto peer = startPeer();
    LmxMessage answer = receiveWithinGuard();
    ASSERT_NE(answer, nullptr);
    const lmx_mbox_id_t client = lmx_sender(answer.get());
    answer.reset();
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_STREQ(lmx_name(client), kPeer);
    EXPECT_EQ(lmx_locate(kPeer), client);
    ASSERT_NE(lmx_monitor(client, nullptr), 0u);
    peer->say('d');
    ASSERT_EQ(peer->listen(), 'd');
    LmxMessage gone = receiveWithinGuard();
    ASSERT_NE(gone, nullptr);
    EXPECT_EQ(lmx_msgno(gone.get()), LMX_MONITOR_DEFAULT_NO);
    EXPECT_EQ(lmx_sender(gone.get()), client);
    gone.reset();
    EXPECT_EQ(lmx_name(client), nullptr);
}

TEST_F(LmxServiceTest, NameHeldByAMonitorAndAConnectionLastsAsLongAsThey) {
    const lmx_mbox_id_t me = startAsMe();
    auto peer = startPeer();
    const lmx_mbox_id_t p = lmx_locate(kPeer);
    const uint32_t monitor = lmx_monitor(p, nullptr);
    ASSERT_NE(monitor, 0u);
    ASSERT_EQ(lmx_send(patterned(8).release(), p, me), 0);
    // Its file goes while the mailbox lives on (someone removed it): the monitor and our
    // connection to it still hold the name.
    ASSERT_EQ(::unlink(path(kPeer).c_str()), 0);
    EXPECT_EQ(lmx_receive(nullptr, 0, LMX_ANY_SENDER), nullptr);
    EXPECT_STREQ(lmx_name(p), kPeer);
    EXPECT_EQ(lmx_unmonitor(monitor), 0);
    EXPECT_STREQ(lmx_name(p), kPeer);
    ASSERT_EQ(lmx_send(patterned(8).release(), p, me), 0);  // over the kept connection
    // The peer ends: so does the connection, and with it the name.
    peer->kill(SIGKILL);
    peer->wait();
    EXPECT_TRUE(eventually([p] { return lmx_name(p) == nullptr; }));
}

TEST_F(LmxServiceTest, ShortLivedPeersAreForgottenOnceGoneAndTheirIdsNeverComeBack) {
    // Each raw peer has a mailbox of its own for a moment, says hello under its name, sends one
    // message and goes, half of them under one name used again and again.
    startAsMe();
    constexpr int kPeers = 1000;
    const std::string me = path(kMe);
    std::set<lmx_mbox_id_t> ids;
    for (int i = 0; i < kPeers; ++i) {
        const std::string name = i % 2 == 0 ? "again" : "p" + std::to_string(i);
        const int file = rawListener(path(name));
        ASSERT_GE(file, 0) << i;
        const int raw = rawPeerAs(me, name);
        ASSERT_GE(raw, 0) << i;
        ASSERT_TRUE(rawSend(raw, fragment(8, 0, 8))) << i;
        LmxMessage msg = receiveWithinGuard();
        ASSERT_NE(msg, nullptr) << "peer " << i << " was not heard";
        const lmx_mbox_id_t id = lmx_sender(msg.get());
        ASSERT_STREQ(lmx_name(id), name.c_str());
        ids.insert(id);
        msg.reset();
        ::close(raw);
        ::close(file);
        ::unlink(path(name).c_str());
        // Gone, once the service has seen its connection end; the next one of the same name is new.
        ASSERT_TRUE(eventually([id] { return lmx_name(id) == nullptr; })) << i;
    }
    EXPECT_EQ(ids.size(), static_cast<size_t>(kPeers));
    EXPECT_EQ(ids.count(0), 0u);
    EXPECT_EQ(ids.count(LMX_INVALID_ID), 0u);
}
