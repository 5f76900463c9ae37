// The mailbox service of one process: its mailboxes (listening sockets in the mailbox directory),
// the connections to and from other mailboxes, the queue of messages waiting to be taken, and
// the pending locates and monitors. One instance per process, used from one thread.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
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
    // (its socket files, its epoll registrations).
    void forsake() { m_mailboxes.clear(); }

    int fd() const { return m_outer.get(); }
    lmx_mbox_id_t createMailbox(const char* name);
    int deleteMailbox(lmx_mbox_id_t id);
    void* receive(const uint32_t* filter, int32_t timeoutMs, uint32_t from);
    int send(MessagePtr msg, lmx_mbox_id_t to, lmx_mbox_id_t from);
    int locateAsync(const char* name, const void* data, uint32_t sender);
    lmx_mbox_id_t locate(const char* name);
    uint32_t monitor(lmx_mbox_id_t id, const void* data);
    int unmonitor(uint32_t monitorId);
    const char* name(lmx_mbox_id_t id) const;
    // Makes the eventfd readable exactly while the inbox holds something; called after every
    // operation, so a message delivered and taken within one call costs no system call.
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

    // Connects to the mailbox `name`; 0, or the errno of the failure (ENOTSOCK when the file is
    // not a socket). `file` receives the socket file's identity.
    int connectMailbox(std::string_view name, Fd& sock, struct stat* file = nullptr) const;
    bool isLive(std::string_view name) const;
    int install(const std::string& tmp, const std::string& name) const;
    void removeIfSame(const std::string& name, dev_t dev, ino_t ino) const;

    Token addChannel(std::unique_ptr<Channel> channel, uint32_t events);
    void drop(Token token);
    int pump(int waitMs);
    void dispatch(const epoll_event& event);
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
    void answerLocates(const std::string& name, unsigned count);

    void deliver(MessagePtr msg);
    void deliverAnswer(uint32_t msgNo, lmx_mbox_id_t sender, uint32_t monitorId);
    MessagePtr take(const uint32_t* filter, uint32_t from);
    void withdrawAnswers(uint32_t monitorId);

    const unsigned m_mailboxLimit;
    std::string m_dirPath;
    Fd m_dir;
    Fd m_outer;  // what lmx_get_fd hands out: m_inner and m_event
    Fd m_inner;  // sockets and the directory watch
    Fd m_event;  // readable while m_inbox holds a message
    bool m_eventRaised = false;
    Fd m_notify;  // inotify on the directory, watched only while locates wait
    int m_watch = -1;
    Fd m_reserve;  // given up for a moment to shed a connection when descriptors run out
    NameTable m_names;
    std::unordered_map<Token, std::unique_ptr<Channel>> m_channels;
    Token m_nextToken;
    std::map<lmx_mbox_id_t, Token> m_mailboxes;
    std::map<std::pair<lmx_mbox_id_t, lmx_mbox_id_t>, Token> m_outbound;  // (from, to)
    std::map<uint32_t, Token> m_monitors;
    uint32_t m_lastMonitorId = 0;
    std::map<std::string, unsigned> m_pendingLocates;  // name -> requests waiting for it
    std::deque<MessagePtr> m_inbox;
    std::vector<uint8_t> m_packet;  // one received packet at a time
    unsigned m_tmpCounter = 0;
};

}  // namespace lmx
