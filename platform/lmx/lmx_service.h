// The mailbox service of one process: its mailboxes (listening sockets in the mailbox directory),
// the connections to and from other mailboxes, the queue of messages waiting to be taken, and
// the pending locates and monitors. One instance per process, used from one application thread.
//
// A thread of the service's own does its work (connections coming and going, hellos, packets,
// directory changes, queued output), so the descriptor handed to the application becomes
// readable only when a message waits for it. The application's calls and the service thread
// take turns through one lock: every operation below expects the caller to hold lock().
#pragma once

#include <pthread.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "lmx.h"
#include "lmx_message.h"
#include "lmx_names.h"

struct epoll_event;

namespace lmx {

// Queued output per connection before lmx_send refuses; the kernel holds another send buffer.
constexpr size_t kPeerQueueLimit = 4 * 1024 * 1024;
// Received bytes waiting for the application before the service stops taking more in.
constexpr size_t kInboxLimit = 4 * 1024 * 1024;

// Owns one descriptor; -1 when closed.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() { reset(); }
    Fd(Fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.m_fd, -1));
        }
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const { return m_fd; }
    explicit operator bool() const { return m_fd >= 0; }
    void reset(int fd = -1) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

class Service {
public:
    // nullptr with errno set when the directory or a descriptor cannot be had.
    static std::unique_ptr<Service> start(unsigned mailboxes);
    ~Service();
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    // In a child after fork: lets go of everything without touching what the parent still uses
    // (its socket files, its epoll registrations, its service thread, which the child has not).
    void forsake() {
        m_mailboxes.clear();
        m_threadRunning = false;
    }

    std::mutex& lock() { return m_mutex; }
    int fd() const { return m_event.get(); }
    lmx_mbox_id_t createMailbox(const char* name);
    int deleteMailbox(lmx_mbox_id_t id);
    // Waits, when it must, on `held` (the caller's hold of lock()) so the service thread can work.
    void* receive(const uint32_t* filter, int32_t timeoutMs, uint32_t from,
                  std::unique_lock<std::mutex>& held);
    int send(MessagePtr msg, lmx_mbox_id_t to, lmx_mbox_id_t from);
    int locateAsync(const char* name, const void* data, uint32_t sender);
    lmx_mbox_id_t locate(const char* name);
    uint32_t monitor(lmx_mbox_id_t id, const void* data);
    int unmonitor(uint32_t monitorId);
    const char* name(lmx_mbox_id_t id) const;
    // Lets go of the hold a received message keeps on its sender's name, when it is this
    // service's; the buffer is being freed or sent on.
    void disown(void* msg);
    // Makes the eventfd readable exactly while the inbox holds something; called after every
    // operation and every turn of the service thread, so a message delivered and taken within one
    // call costs no system call.
    void settle();

private:
    struct Channel;
    struct Listener;
    struct Inbound;
    struct Outbound;
    struct MonitorLink;
    enum class Transfer { Done, Again, Broken };
    using Token = uint64_t;

    explicit Service(unsigned mailboxes);
    int setUp();
    int startThread();
    void stopThread();
    static void* threadMain(void* self);
    void serve();

    // Connects to the mailbox `name`; 0, or the errno of the failure (ENOTSOCK when the file is
    // not a socket). `file` receives the socket file's identity.
    int connectMailbox(std::string_view name, Fd& sock, struct stat* file = nullptr) const;
    // Whether someone listens on the mailbox `name`; `file` receives its socket file's identity
    // when it is not one of ours.
    bool isLive(std::string_view name, struct stat* file = nullptr) const;
    // A socket file, told apart from a later one of the same name.
    struct FileId {
        dev_t dev = 0;
        ino_t ino = 0;
        timespec ctime{};
        bool operator==(const FileId& o) const {
            return dev == o.dev && ino == o.ino && ctime.tv_sec == o.ctime.tv_sec &&
                   ctime.tv_nsec == o.ctime.tv_nsec;
        }
    };
    static FileId fileId(const struct stat& st) { return FileId{st.st_dev, st.st_ino, st.st_ctim}; }
    // Whether the mailbox `name` still takes connections on the socket file `file`.
    bool stillListens(std::string_view name, const FileId& file) const;
    // Whether a peer whose process runs as `uid` may speak as mailbox `name`: it owns the
    // mailbox's socket file in our directory.
    bool speaksFor(uid_t uid, const std::string& name) const;

    // A monitored mailbox's link closes while its dying owner's other descriptors, its listening
    // socket among them, are still being closed: the answer waits until that socket refuses (or
    // the name has another file), so that whoever reads it never finds the dead mailbox again.
    struct PendingDeath {
        uint32_t monitorId;
        NameHold target;
        std::string name;
        FileId file;
        std::chrono::steady_clock::time_point giveUp;
    };
    void answerDeath(uint32_t monitorId, lmx_mbox_id_t target, const FileId& file);
    void answerDeathsDue();
    void armDeathTimer(bool on);
    int install(const std::string& tmp, const std::string& name) const;
    void removeIfSame(const std::string& name, dev_t dev, ino_t ino) const;

    Token addChannel(std::unique_ptr<Channel> channel, uint32_t events);
    void drop(Token token);
    void dispatch(const epoll_event& event);
    // While the inbox is full, a connection with more to read waits, out of the epoll set, for the
    // application to take messages: a peer can never grow the inbox without bound.
    bool inboxFull() const { return m_inboxBytes >= kInboxLimit; }
    void pause(Inbound& inbound);
    void resumeIfRoom();
    void acceptInbound(Listener& listener);
    bool readInbound(Inbound& inbound);
    Outbound* outboundTo(lmx_mbox_id_t from, lmx_mbox_id_t to);
    int submit(Outbound& out, MessagePtr& msg);
    bool flush(Outbound& out);
    Transfer transmit(Outbound& out, void* msg, size_t& sent);
    void watchOutput(Outbound& out, bool on);

    bool watchDirectory();
    void unwatchDirectoryIfIdle();
    void readDirectoryEvents();
    void answerLocates(const std::string& name, unsigned count, const struct stat& file);
    // The id of a mailbox found live, its socket file `file`, kept while that file is in place.
    lmx_mbox_id_t keepLocated(std::string_view name, const struct stat& file);

    void deliver(MessagePtr msg);
    void deliverAnswer(uint32_t msgNo, lmx_mbox_id_t sender, uint32_t monitorId);
    MessagePtr take(const uint32_t* filter, uint32_t from);
    void withdrawAnswers(uint32_t monitorId);
    void forgetLocatedGone();

    const unsigned m_mailboxLimit;
    const uint32_t m_serial;  // tells this service's buffers from those of an earlier one
    std::string m_dirPath;
    Fd m_dir;
    Fd m_inner;  // sockets, the directory watch and m_wake: what the service thread waits on
    Fd m_event;  // what lmx_get_fd hands out: readable while m_inbox holds a message
    bool m_eventRaised = false;
    Fd m_wake;  // tells the service thread to stop
    std::mutex m_mutex;
    std::condition_variable m_arrived;  // the inbox got a message
    pthread_t m_thread{};
    bool m_threadRunning = false;
    bool m_stopping = false;
    Fd m_notify;  // inotify on the directory, watched only while locates wait
    int m_watch = -1;
    Fd m_reserve;       // given up for a moment to shed a connection when descriptors run out
    NameTable m_names;  // before everything that holds names in it, so it goes after them
    std::unordered_map<Token, std::unique_ptr<Channel>> m_channels;
    Token m_nextToken;
    std::map<lmx_mbox_id_t, Token> m_mailboxes;
    std::map<std::pair<lmx_mbox_id_t, lmx_mbox_id_t>, Token> m_outbound;  // (from, to)
    std::map<uint32_t, Token> m_monitors;
    uint32_t m_lastMonitorId = 0;
    std::map<std::string, unsigned> m_pendingLocates;  // name -> requests waiting for it
    // The names located for the application (lmx_locate, locate answers), kept while the socket
    // file found then is in place: it may keep such an id without holding anything else of it.
    struct Located {
        NameHold name;
        dev_t dev;
        ino_t ino;
    };
    std::map<lmx_mbox_id_t, Located> m_located;
    std::vector<PendingDeath> m_pendingDeaths;
    Fd m_deathTimer;  // runs while m_pendingDeaths is not empty
    std::deque<MessagePtr> m_inbox;
    size_t m_inboxBytes = 0;
    std::vector<Token> m_paused;    // inbound connections waiting for room in the inbox
    std::vector<uint8_t> m_packet;  // one received packet at a time
    unsigned m_tmpCounter = 0;
};

}  // namespace lmx
