#include "lmx_service.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <sys/un.h>

#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <unordered_set>

#include "lmx_wire.h"

namespace lmx {

namespace {

// Sticky: a member of the group cannot remove or replace another user's mailbox, whose name
// would then be theirs to speak as.
constexpr mode_t kDirMode = 01770;
constexpr mode_t kSocketMode = 0660;
constexpr int kEventBatch = 32;
constexpr int kAcceptBatch = 16;
constexpr size_t kMaxInboundPerMailbox = 1024;
// Asked for per data connection so several full packets are in flight; the kernel caps it at
// net.core.wmem_max, and a smaller buffer gets smaller packets.
constexpr int kSendBuffer = 256 * 1024;
constexpr int kInstallAttempts = 3;
constexpr uint64_t kDirectoryToken = 1;
constexpr uint64_t kWakeToken = 2;
constexpr uint64_t kDeathTimerToken = 3;
// How often a dying owner's listening socket is tried, and for how long at most.
constexpr long kDeathCheckNs = 1000000;
constexpr std::chrono::milliseconds kDeathCheckLimit{1000};
constexpr size_t kNotifyBufferSize = 4096;

// A socket address that reaches `rest` through the descriptor `fd`; mailbox paths can be longer
// than sun_path, the descriptor's magic link never is.
bool procAddress(sockaddr_un& addr, socklen_t& len, int fd, std::string_view rest = {}) {
    addr = {};
    addr.sun_family = AF_UNIX;
    const int n = rest.empty() ? snprintf(addr.sun_path, sizeof addr.sun_path, "/proc/self/fd/%d", fd)
                               : snprintf(addr.sun_path, sizeof addr.sun_path, "/proc/self/fd/%d/%.*s", fd,
                                          static_cast<int>(rest.size()), rest.data());
    if (n < 0 || static_cast<size_t>(n) >= sizeof addr.sun_path) {
        return false;
    }
    len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + n + 1);
    return true;
}

bool sendWhole(int fd, const void* bytes, size_t size) {
    ssize_t n;
    do {
        n = ::send(fd, bytes, size, MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    return n == static_cast<ssize_t>(size);
}

void drainRead(int fd, void* buffer, size_t size) {
    for (;;) {
        const ssize_t n = ::read(fd, buffer, size);
        if (n == 0 || (n < 0 && errno != EINTR)) {
            return;
        }
    }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Channels: every descriptor in the inner epoll set besides the directory watch

struct Service::Channel {
    enum class Kind { Listener, Inbound, Outbound, Monitor };
    Channel(Kind kind, Fd fd) : m_kind(kind), m_fd(std::move(fd)) {}
    virtual ~Channel() = default;

    const Kind m_kind;
    Fd m_fd;
    Token m_token = 0;  // its key in m_channels and in the epoll set
};

// One of our mailboxes.
struct Service::Listener : Channel {
    Listener(Fd fd, NameHold mailbox, const struct stat& file)
        : Channel(Kind::Listener, std::move(fd)),
          m_mailbox(std::move(mailbox)),
          m_dev(file.st_dev),
          m_ino(file.st_ino) {}
    const NameHold m_mailbox;
    const dev_t m_dev;  // the socket file we put in place, so we never remove another's
    const ino_t m_ino;
    std::unordered_set<Token> m_inbound;
};

// A connection a peer made to one of our mailboxes.
struct Service::Inbound : Channel {
    Inbound(Fd fd, lmx_mbox_id_t mailbox, uid_t peerUid)
        : Channel(Kind::Inbound, std::move(fd)), m_mailbox(mailbox), m_peerUid(peerUid) {}
    const lmx_mbox_id_t m_mailbox;
    const uid_t m_peerUid;  // the connecting process's user, from the kernel
    NameHold m_sender;      // set by the hello
    Intake m_intake;
};

// Our connection from mailbox `from` to mailbox `to`, with the messages the peer has no room for.
struct Service::Outbound : Channel {
    struct Pending {
        MessagePtr msg;
        size_t sent;  // bytes of it the peer already has
    };
    Outbound(Fd fd, lmx_mbox_id_t from, NameHold to, size_t packetSize)
        : Channel(Kind::Outbound, std::move(fd)),
          m_from(from),
          m_to(std::move(to)),
          m_packetSize(packetSize) {}
    const lmx_mbox_id_t m_from;  // held by its listener
    const NameHold m_to;
    const size_t m_packetSize;
    std::deque<Pending> m_queue;
    size_t m_queuedBytes = 0;  // not yet sent, over the whole queue
    bool m_watchingOutput = false;
};

// A connection whose only purpose is to end when the peer mailbox does.
struct Service::MonitorLink : Channel {
    MonitorLink(Fd fd, NameHold target, uint32_t monitorId, FileId file)
        : Channel(Kind::Monitor, std::move(fd)),
          m_target(std::move(target)),
          m_monitorId(monitorId),
          m_file(file) {}
    const NameHold m_target;
    const uint32_t m_monitorId;
    const FileId m_file;  // the target's socket file when the monitor began
};

// ---------------------------------------------------------------------------------------------
// Start and end

namespace {
std::atomic<uint32_t> g_serials{0};
}

Service::Service(unsigned mailboxes)
    : m_mailboxLimit(mailboxes),
      m_serial(++g_serials),
      m_nextToken(kDeathTimerToken + 1),
      m_packet(kMaxPacketSize) {}

std::unique_ptr<Service> Service::start(unsigned mailboxes) {
    std::unique_ptr<Service> service(new Service(mailboxes));
    int err = service->setUp();
    if (err == 0) {
        err = service->startThread();
    }
    if (err != 0) {
        service.reset();
        errno = err;
    }
    return service;
}

int Service::setUp() {
    const char* dir = std::getenv("LMX_DIR");
    m_dirPath = dir != nullptr && *dir != '\0' ? dir : LMX_DEFAULT_DIR;
    // Secure by default: operators grant access through the directory's group.
    if (::mkdir(m_dirPath.c_str(), kDirMode) == 0) {
        if (::chmod(m_dirPath.c_str(), kDirMode) != 0) {
            return errno;
        }
    } else if (errno != EEXIST) {
        return errno;
    }
    const auto opened = [](Fd& fd, int value) {
        fd.reset(value);
        return value >= 0;
    };
    if (!opened(m_dir, ::open(m_dirPath.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) ||
        !opened(m_inner, ::epoll_create1(EPOLL_CLOEXEC)) ||
        !opened(m_event, ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) ||
        !opened(m_wake, ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) ||
        !opened(m_deathTimer, ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) ||
        !opened(m_notify, ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) ||
        !opened(m_reserve, ::open("/dev/null", O_RDONLY | O_CLOEXEC))) {
        return errno;
    }
    for (const auto& [fd, token] : {std::pair{&m_notify, kDirectoryToken}, std::pair{&m_wake, kWakeToken},
                                    std::pair{&m_deathTimer, kDeathTimerToken}}) {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.u64 = token;
        if (::epoll_ctl(m_inner.get(), EPOLL_CTL_ADD, fd->get(), &ev) != 0) {
            return errno;
        }
    }
    return 0;
}

int Service::startThread() {
    // Signals are the application's: the service thread never takes one (a SIGTERM meant for a
    // signalfd or a handler of the main thread would otherwise end up here).
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    const int err = ::pthread_create(&m_thread, nullptr, &Service::threadMain, this);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    m_threadRunning = err == 0;
    return err;
}

void Service::stopThread() {
    if (!m_threadRunning) {
        return;
    }
    {
        const std::lock_guard held(m_mutex);
        m_stopping = true;
    }
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(m_wake.get(), &one, sizeof one);
    ::pthread_join(m_thread, nullptr);
    m_threadRunning = false;
}

void* Service::threadMain(void* self) {
    static_cast<Service*>(self)->serve();
    return nullptr;
}

void Service::serve() {
    epoll_event events[kEventBatch];
    for (;;) {
        const int n = ::epoll_wait(m_inner.get(), events, kEventBatch, -1);
        if (n < 0 && errno != EINTR) {
            return;
        }
        const std::lock_guard held(m_mutex);
        if (m_stopping) {
            return;
        }
        const size_t before = m_inbox.size();
        for (int i = 0; i < n; ++i) {
            try {
                dispatch(events[i]);
            } catch (const std::bad_alloc&) {
                // Out of memory for one event: the level-triggered set offers it again.
            }
        }
        settle();
        if (m_inbox.size() > before) {
            m_arrived.notify_all();
        }
    }
}

Service::~Service() {
    stopThread();
    while (!m_mailboxes.empty()) {
        deleteMailbox(m_mailboxes.begin()->first);
    }
}

// ---------------------------------------------------------------------------------------------
// Mailbox files

int Service::connectMailbox(std::string_view name, Fd& sock, struct stat* file) const {
    // O_NOFOLLOW: a link planted in the directory never leads us elsewhere.
    const Fd path(::openat(m_dir.get(), std::string(name).c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat st;
    if (!path || ::fstat(path.get(), &st) != 0) {
        return errno;
    }
    if (file != nullptr) {
        *file = st;
    }
    if (!S_ISSOCK(st.st_mode)) {
        return ENOTSOCK;
    }
    Fd s(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    sockaddr_un addr;
    socklen_t len;
    if (!s) {
        return errno;
    }
    if (!procAddress(addr, len, path.get())) {
        return ENAMETOOLONG;
    }
    if (::connect(s.get(), reinterpret_cast<const sockaddr*>(&addr), len) != 0) {
        return errno;
    }
    sock = std::move(s);
    return 0;
}

bool Service::isLive(std::string_view name, struct stat* file) const {
    if (const lmx_mbox_id_t id = m_names.lookup(name); id != LMX_INVALID_ID && m_mailboxes.count(id) != 0) {
        return true;
    }
    Fd sock;
    const int err = connectMailbox(name, sock, file);
    // EAGAIN: its backlog is full, but someone listens.
    return err == 0 || err == EAGAIN;
}

int Service::install(const std::string& tmp, const std::string& name) const {
    for (int attempt = 0; attempt < kInstallAttempts; ++attempt) {
        if (::renameat2(m_dir.get(), tmp.c_str(), m_dir.get(), name.c_str(), RENAME_NOREPLACE) == 0) {
            return 0;
        }
        if (errno != EEXIST) {
            return errno;
        }
        Fd probe;
        struct stat file;
        const int err = connectMailbox(name, probe, &file);
        if (err == 0 || err == EAGAIN) {
            return EADDRINUSE;
        }
        if (err == ECONNREFUSED) {
            removeIfSame(name, file.st_dev, file.st_ino);  // its owner died without removing it
        } else if (err == ENOTSOCK) {
            return EEXIST;           // not a mailbox: not ours to replace
        } else if (err != ENOENT) {  // ENOENT: it went away meanwhile
            return err;
        }
    }
    return EADDRINUSE;
}

void Service::removeIfSame(const std::string& name, dev_t dev, ino_t ino) const {
    struct stat now;
    if (::fstatat(m_dir.get(), name.c_str(), &now, AT_SYMLINK_NOFOLLOW) == 0 && now.st_dev == dev &&
        now.st_ino == ino) {
        ::unlinkat(m_dir.get(), name.c_str(), 0);
    }
}

lmx_mbox_id_t Service::createMailbox(const char* name) {
    if (!isValidName(name)) {
        errno = EINVAL;
        return LMX_INVALID_ID;
    }
    if (m_mailboxes.size() >= m_mailboxLimit) {
        errno = ENOSPC;
        return LMX_INVALID_ID;
    }
    NameHold hold(m_names, std::string_view(name));
    if (!hold) {
        errno = ENOSPC;
        return LMX_INVALID_ID;
    }
    const lmx_mbox_id_t id = hold.id();
    if (m_mailboxes.count(id) != 0) {
        errno = EADDRINUSE;
        return LMX_INVALID_ID;
    }
    Fd sock(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!sock) {
        return LMX_INVALID_ID;
    }
    // Bound under a hidden name and renamed into place, so that whoever sees the name can connect.
    // Unique across processes that share the directory from different pid namespaces, too.
    uint32_t salt = 0;
    [[maybe_unused]] const ssize_t got = ::getrandom(&salt, sizeof salt, GRND_NONBLOCK);
    const std::string tmp =
        "." + std::to_string(::getpid()) + "." + std::to_string(++m_tmpCounter) + "." + std::to_string(salt);
    sockaddr_un addr;
    socklen_t len;
    if (!procAddress(addr, len, m_dir.get(), tmp)) {
        errno = ENAMETOOLONG;
        return LMX_INVALID_ID;
    }
    if (::bind(sock.get(), reinterpret_cast<const sockaddr*>(&addr), len) != 0) {
        return LMX_INVALID_ID;
    }
    struct stat file;
    int err = 0;
    // Connecting takes write access to the socket file: the owner and the directory's group have
    // it, whatever the umask.
    if (::fchmodat(m_dir.get(), tmp.c_str(), kSocketMode, 0) != 0 || ::listen(sock.get(), SOMAXCONN) != 0 ||
        ::fstatat(m_dir.get(), tmp.c_str(), &file, AT_SYMLINK_NOFOLLOW) != 0) {
        err = errno;
    } else {
        err = install(tmp, name);
    }
    if (err != 0) {
        ::unlinkat(m_dir.get(), tmp.c_str(), 0);
        errno = err;
        return LMX_INVALID_ID;
    }
    const Token token =
        addChannel(std::make_unique<Listener>(std::move(sock), std::move(hold), file), EPOLLIN);
    if (token == 0) {
        err = errno;
        removeIfSame(name, file.st_dev, file.st_ino);
        errno = err;
        return LMX_INVALID_ID;
    }
    m_mailboxes.emplace(id, token);
    return id;
}

int Service::deleteMailbox(lmx_mbox_id_t id) {
    const auto it = m_mailboxes.find(id);
    if (it == m_mailboxes.end()) {
        errno = EINVAL;
        return -1;
    }
    const auto& listener = static_cast<const Listener&>(*m_channels.at(it->second));
    removeIfSame(*m_names.find(id), listener.m_dev, listener.m_ino);
    // Closing the listener and its connections ends every peer's monitor of this mailbox.
    drop(it->second);
    m_mailboxes.erase(it);
    std::vector<Token> outbound;
    for (const auto& [key, token] : m_outbound) {
        if (key.first == id) {
            outbound.push_back(token);
        }
    }
    for (const Token token : outbound) {
        drop(token);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------------
// Channels and the event loop

Service::Token Service::addChannel(std::unique_ptr<Channel> channel, uint32_t events) {
    const Token token = m_nextToken++;
    const int fd = channel->m_fd.get();
    channel->m_token = token;
    m_channels.emplace(token, std::move(channel));
    epoll_event ev{};
    ev.events = events;
    ev.data.u64 = token;
    if (::epoll_ctl(m_inner.get(), EPOLL_CTL_ADD, fd, &ev) != 0) {
        const int err = errno;
        m_channels.erase(token);
        errno = err;
        return 0;
    }
    return token;
}

void Service::drop(Token token) {
    const auto it = m_channels.find(token);
    if (it == m_channels.end()) {
        return;
    }
    Channel& channel = *it->second;
    switch (channel.m_kind) {
        case Channel::Kind::Listener:
            for (const Token inbound : static_cast<Listener&>(channel).m_inbound) {
                ::epoll_ctl(m_inner.get(), EPOLL_CTL_DEL, m_channels.at(inbound)->m_fd.get(), nullptr);
                m_channels.erase(inbound);
            }
            break;
        case Channel::Kind::Inbound:
            if (const auto l = m_mailboxes.find(static_cast<Inbound&>(channel).m_mailbox);
                l != m_mailboxes.end()) {
                static_cast<Listener&>(*m_channels.at(l->second)).m_inbound.erase(token);
            }
            break;
        case Channel::Kind::Outbound: {
            const auto& out = static_cast<Outbound&>(channel);
            m_outbound.erase({out.m_from, out.m_to.id()});
            break;
        }
        case Channel::Kind::Monitor:
            m_monitors.erase(static_cast<MonitorLink&>(channel).m_monitorId);
            break;
    }
    // Explicitly: a copy inherited by a child process would otherwise keep it in the set.
    ::epoll_ctl(m_inner.get(), EPOLL_CTL_DEL, channel.m_fd.get(), nullptr);
    m_channels.erase(it);
}

void Service::dispatch(const epoll_event& event) {
    const Token token = event.data.u64;
    if (token == kDirectoryToken) {
        readDirectoryEvents();
        return;
    }
    if (token == kWakeToken) {
        return;  // the flag it stands for is read under the lock
    }
    if (token == kDeathTimerToken) {
        uint64_t expirations = 0;
        [[maybe_unused]] const ssize_t n = ::read(m_deathTimer.get(), &expirations, sizeof expirations);
        answerDeathsDue();
        return;
    }
    const auto it = m_channels.find(token);
    if (it == m_channels.end()) {
        return;  // dropped earlier in this batch
    }
    Channel& channel = *it->second;
    bool keep = true;
    switch (channel.m_kind) {
        case Channel::Kind::Listener:
            acceptInbound(static_cast<Listener&>(channel));
            break;
        case Channel::Kind::Inbound:
            if (inboxFull()) {
                pause(static_cast<Inbound&>(channel));
            } else {
                keep = readInbound(static_cast<Inbound&>(channel));
            }
            break;
        case Channel::Kind::Outbound:
            // A peer never speaks on our link: input means it closed it or broke the protocol.
            keep = (event.events & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0 &&
                   flush(static_cast<Outbound&>(channel));
            break;
        case Channel::Kind::Monitor: {
            const auto& link = static_cast<MonitorLink&>(channel);
            answerDeath(link.m_monitorId, link.m_target.id(), link.m_file);
            keep = false;
            break;
        }
    }
    if (!keep) {
        drop(token);
    }
}

void Service::acceptInbound(Listener& listener) {
    for (int i = 0; i < kAcceptBatch; ++i) {
        Fd conn(::accept4(listener.m_fd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!conn) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno == EMFILE || errno == ENFILE) {
                // Out of descriptors: refuse the waiting connection rather than leave the
                // listener readable for ever.
                m_reserve.reset();
                Fd(::accept4(listener.m_fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
                m_reserve.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
            }
            return;
        }
        ucred peer{};
        socklen_t peerLen = sizeof peer;
        if (listener.m_inbound.size() >= kMaxInboundPerMailbox ||
            ::getsockopt(conn.get(), SOL_SOCKET, SO_PEERCRED, &peer, &peerLen) != 0) {
            continue;  // refused: closing it tells the peer
        }
        const Token token = addChannel(
            std::make_unique<Inbound>(std::move(conn), listener.m_mailbox.id(), peer.uid), EPOLLIN);
        if (token != 0) {
            listener.m_inbound.insert(token);
        }
    }
}

bool Service::readInbound(Inbound& inbound) {
    for (;;) {
        iovec iov{m_packet.data(), m_packet.size()};
        msghdr mh{};
        mh.msg_iov = &iov;
        mh.msg_iovlen = 1;
        const ssize_t n = ::recvmsg(inbound.m_fd.get(), &mh, MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN;
        }
        if (n == 0 || (mh.msg_flags & MSG_TRUNC) != 0) {
            return false;  // closed (a partial message goes with it), or an oversized packet
        }
        switch (inbound.m_intake.feed(m_packet.data(), static_cast<size_t>(n))) {
            case Intake::Step::More:
                break;
            case Intake::Step::Hello:
                if (inbound.m_intake.kind() == LinkKind::Data) {
                    // A name is proven, not claimed: only its owner speaks as it.
                    const std::string& name = inbound.m_intake.peerName();
                    if (!speaksFor(inbound.m_peerUid, name)) {
                        return false;
                    }
                    inbound.m_sender = NameHold(m_names, std::string_view(name));
                    if (!inbound.m_sender) {
                        return false;
                    }
                }
                break;
            case Intake::Step::Message: {
                MessagePtr msg = inbound.m_intake.takeMessage();
                headerOf(msg.get()).sender = inbound.m_sender.id();
                headerOf(msg.get()).senderUid = inbound.m_peerUid;
                deliver(std::move(msg));
                return true;  // one message per turn, so no peer can flood the inbox
            }
            case Intake::Step::Malformed:
                return false;
        }
    }
}

void Service::pause(Inbound& inbound) {
    epoll_event ev{};
    ev.data.u64 = inbound.m_token;
    if (::epoll_ctl(m_inner.get(), EPOLL_CTL_MOD, inbound.m_fd.get(), &ev) == 0) {
        m_paused.push_back(inbound.m_token);
    }
}

void Service::resumeIfRoom() {
    if (m_paused.empty() || m_inboxBytes > kInboxLimit / 2) {
        return;
    }
    for (const Token token : m_paused) {
        if (const auto it = m_channels.find(token); it != m_channels.end()) {
            epoll_event ev{};
            ev.events = EPOLLIN;
            ev.data.u64 = token;
            ::epoll_ctl(m_inner.get(), EPOLL_CTL_MOD, it->second->m_fd.get(), &ev);
        }
    }
    m_paused.clear();
}

// ---------------------------------------------------------------------------------------------
// Sending

Service::Outbound* Service::outboundTo(lmx_mbox_id_t from, lmx_mbox_id_t to) {
    if (const auto it = m_outbound.find({from, to}); it != m_outbound.end()) {
        return static_cast<Outbound*>(m_channels.at(it->second).get());
    }
    Fd sock;
    if (const int err = connectMailbox(*m_names.find(to), sock); err != 0) {
        errno = err;
        return nullptr;
    }
    ::setsockopt(sock.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    int sendBuffer = 0;
    socklen_t optLen = sizeof sendBuffer;
    ::getsockopt(sock.get(), SOL_SOCKET, SO_SNDBUF, &sendBuffer, &optLen);
    // A datagram may not exceed the send buffer; half of it leaves room for the kernel's overhead.
    const size_t packetSize = std::clamp<size_t>(sendBuffer / 2, kFragmentHeaderSize + 1, kMaxPacketSize);
    const Hello hello = encodeHello(LinkKind::Data, *m_names.find(from));
    if (!sendWhole(sock.get(), hello.bytes.data(), hello.size)) {
        return nullptr;
    }
    const Token token = addChannel(
        std::make_unique<Outbound>(std::move(sock), from, NameHold(m_names, to), packetSize), EPOLLIN);
    if (token == 0) {
        return nullptr;
    }
    m_outbound.emplace(std::make_pair(from, to), token);
    return static_cast<Outbound*>(m_channels.at(token).get());
}

int Service::send(MessagePtr msg, lmx_mbox_id_t to, lmx_mbox_id_t from) {
    disown(msg.get());
    if (m_mailboxes.count(from) == 0 || m_names.find(to) == nullptr) {
        errno = EINVAL;
        return -1;
    }
    // A kept connection may lead to a peer that has since died; one fresh attempt then.
    for (bool retry = m_outbound.count({from, to}) != 0;; retry = false) {
        Outbound* out = outboundTo(from, to);
        if (out == nullptr) {
            return -1;
        }
        const int err = submit(*out, msg);
        if (err == 0) {
            return 0;
        }
        if (err != ENOBUFS) {
            drop(m_outbound.at({from, to}));
        }
        if (err == ENOBUFS || !retry) {
            errno = err;
            return -1;
        }
    }
}

int Service::submit(Outbound& out, MessagePtr& msg) {
    if (!out.m_queue.empty() && !flush(out)) {
        return errno;
    }
    const size_t size = headerOf(msg.get()).size;
    if (out.m_queue.empty()) {
        size_t sent = 0;
        switch (transmit(out, msg.get(), sent)) {
            case Transfer::Done:
                msg.reset();
                return 0;
            case Transfer::Broken:
                return errno;
            case Transfer::Again:
                break;
        }
        out.m_queuedBytes += size - sent;
        out.m_queue.push_back({std::move(msg), sent});
        watchOutput(out, true);
        return 0;
    }
    if (out.m_queuedBytes + size > kPeerQueueLimit) {
        return ENOBUFS;
    }
    out.m_queuedBytes += size;
    out.m_queue.push_back({std::move(msg), 0});
    return 0;
}

bool Service::flush(Outbound& out) {
    while (!out.m_queue.empty()) {
        Outbound::Pending& pending = out.m_queue.front();
        const size_t before = pending.sent;
        const Transfer result = transmit(out, pending.msg.get(), pending.sent);
        out.m_queuedBytes -= pending.sent - before;
        if (result == Transfer::Broken) {
            return false;
        }
        if (result == Transfer::Again) {
            watchOutput(out, true);
            return true;
        }
        out.m_queue.pop_front();
    }
    watchOutput(out, false);
    return true;
}

Service::Transfer Service::transmit(Outbound& out, void* msg, size_t& sent) {
    const size_t size = headerOf(msg).size;
    const size_t chunkLimit = out.m_packetSize - kFragmentHeaderSize;
    while (sent < size) {
        const size_t chunk = std::min(chunkLimit, size - sent);
        FragmentHeader header{static_cast<uint32_t>(size), static_cast<uint32_t>(sent)};
        iovec iov[2] = {{&header, sizeof header}, {static_cast<uint8_t*>(msg) + sent, chunk}};
        msghdr mh{};
        mh.msg_iov = iov;
        mh.msg_iovlen = 2;
        if (::sendmsg(out.m_fd.get(), &mh, MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN ? Transfer::Again : Transfer::Broken;
        }
        sent += chunk;
    }
    return Transfer::Done;
}

void Service::watchOutput(Outbound& out, bool on) {
    if (out.m_watchingOutput == on) {
        return;
    }
    epoll_event ev{};
    ev.events = on ? EPOLLIN | EPOLLOUT : EPOLLIN;
    ev.data.u64 = out.m_token;
    if (::epoll_ctl(m_inner.get(), EPOLL_CTL_MOD, out.m_fd.get(), &ev) == 0) {
        out.m_watchingOutput = on;
    }
}

// ---------------------------------------------------------------------------------------------
// Locate and monitor

lmx_mbox_id_t Service::locate(const char* name) {
    if (!isValidName(name)) {
        errno = EINVAL;
        return LMX_INVALID_ID;
    }
    struct stat file {};
    if (!isLive(name, &file)) {
        errno = ENOENT;
        return LMX_INVALID_ID;
    }
    const lmx_mbox_id_t id = keepLocated(name, file);
    if (id == LMX_INVALID_ID) {
        errno = ENOSPC;
    }
    return id;
}

lmx_mbox_id_t Service::keepLocated(std::string_view name, const struct stat& file) {
    NameHold hold(m_names, name);
    const lmx_mbox_id_t id = hold.id();
    if (hold && m_mailboxes.count(id) == 0) {  // ours are held by their listeners
        m_located.insert_or_assign(id, Located{std::move(hold), file.st_dev, file.st_ino});
    }
    return id;
}

int Service::locateAsync(const char* name, const void* data, uint32_t sender) {
    // Only the default answer exists: a message numbered LMX_LOCATE_DEFAULT_NO.
    if (!isValidName(name) || data != nullptr || sender != LMX_LOCATE_SENDER) {
        errno = EINVAL;
        return -1;
    }
    // Looked at again once the watch is in place, so an appearance in between is not missed.
    struct stat file {};
    if (!isLive(name, &file)) {
        if (!watchDirectory()) {
            return -1;
        }
        if (!isLive(name, &file)) {
            ++m_pendingLocates[name];
            return 0;
        }
        unwatchDirectoryIfIdle();
    }
    answerLocates(name, 1, file);
    return 0;
}

void Service::answerLocates(const std::string& name, unsigned count, const struct stat& file) {
    const lmx_mbox_id_t id = keepLocated(name, file);
    for (unsigned i = 0; i < count && id != LMX_INVALID_ID; ++i) {
        deliverAnswer(LMX_LOCATE_DEFAULT_NO, id, 0);
    }
}

bool Service::watchDirectory() {
    if (m_watch >= 0) {
        return true;
    }
    char path[sizeof(sockaddr_un::sun_path)];
    snprintf(path, sizeof path, "/proc/self/fd/%d", m_dir.get());
    m_watch = ::inotify_add_watch(m_notify.get(), path, IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    return m_watch >= 0;
}

void Service::unwatchDirectoryIfIdle() {
    if (m_watch < 0 || !m_pendingLocates.empty()) {
        return;
    }
    ::inotify_rm_watch(m_notify.get(), m_watch);
    m_watch = -1;
    // Removing the watch queues one last event; take it now, it is of no interest.
    alignas(inotify_event) char buffer[kNotifyBufferSize];
    drainRead(m_notify.get(), buffer, sizeof buffer);
}

void Service::readDirectoryEvents() {
    alignas(inotify_event) char buffer[kNotifyBufferSize];
    std::vector<std::string> appeared;
    bool overflow = false;
    for (;;) {
        const ssize_t n = ::read(m_notify.get(), buffer, sizeof buffer);
        if (n <= 0) {
            if (n < 0 && errno == EINTR) {
                continue;
            }
            break;
        }
        for (ssize_t at = 0; at < n;) {
            const auto* ev = reinterpret_cast<const inotify_event*>(buffer + at);
            if ((ev->mask & IN_Q_OVERFLOW) != 0) {
                overflow = true;
            } else if (ev->len != 0 && m_pendingLocates.count(ev->name) != 0) {
                appeared.emplace_back(ev->name);
            }
            at += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
        }
    }
    if (overflow) {  // events were lost: look at every name still waited for
        appeared.clear();
        for (const auto& entry : m_pendingLocates) {
            appeared.push_back(entry.first);
        }
    }
    for (const std::string& name : appeared) {
        const auto it = m_pendingLocates.find(name);
        struct stat file {};
        if (it != m_pendingLocates.end() && isLive(name, &file)) {
            const unsigned count = it->second;
            m_pendingLocates.erase(it);
            answerLocates(name, count, file);
        }
    }
    unwatchDirectoryIfIdle();
}

uint32_t Service::monitor(lmx_mbox_id_t id, const void* data) {
    const std::string* target = m_names.find(id);
    if (target == nullptr || data != nullptr || m_lastMonitorId == UINT32_MAX) {
        errno = EINVAL;
        return 0;
    }
    const uint32_t monitorId = ++m_lastMonitorId;
    Fd sock;
    struct stat file {};
    const int err = connectMailbox(*target, sock, &file);
    if (err == ENOENT || err == ECONNREFUSED || err == ENOTSOCK) {
        deliverAnswer(LMX_MONITOR_DEFAULT_NO, id, monitorId);  // already gone
        return monitorId;
    }
    if (err != 0) {
        errno = err;
        return 0;
    }
    // If the peer dies before the hello gets there, the link still ends and reports it.
    const Hello hello = encodeHello(LinkKind::Monitor, {});
    sendWhole(sock.get(), hello.bytes.data(), hello.size);
    const Token token = addChannel(
        std::make_unique<MonitorLink>(std::move(sock), NameHold(m_names, id), monitorId, fileId(file)),
        EPOLLIN);
    if (token == 0) {
        return 0;
    }
    m_monitors.emplace(monitorId, token);
    return monitorId;
}

int Service::unmonitor(uint32_t monitorId) {
    if (monitorId == 0 || monitorId > m_lastMonitorId) {
        errno = EINVAL;
        return -1;
    }
    // A monitor that already ended is cancelled all the same: its answer, if not yet taken, goes.
    if (const auto it = m_monitors.find(monitorId); it != m_monitors.end()) {
        drop(it->second);
    }
    std::erase_if(m_pendingDeaths, [monitorId](const PendingDeath& d) { return d.monitorId == monitorId; });
    armDeathTimer(!m_pendingDeaths.empty());
    withdrawAnswers(monitorId);
    return 0;
}

bool Service::speaksFor(uid_t uid, const std::string& name) const {
    struct stat st {};
    return ::fstatat(m_dir.get(), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISSOCK(st.st_mode) &&
           st.st_uid == uid;
}

bool Service::stillListens(std::string_view name, const FileId& file) const {
    Fd sock;
    struct stat now {};
    const int err = connectMailbox(name, sock, &now);
    return (err == 0 || err == EAGAIN) && fileId(now) == file;
}

void Service::answerDeath(uint32_t monitorId, lmx_mbox_id_t target, const FileId& file) {
    const std::string* name = m_names.find(target);
    if (name == nullptr || !stillListens(*name, file)) {
        deliverAnswer(LMX_MONITOR_DEFAULT_NO, target, monitorId);
        return;
    }
    m_pendingDeaths.push_back({monitorId, NameHold(m_names, target), *name, file,
                               std::chrono::steady_clock::now() + kDeathCheckLimit});
    armDeathTimer(true);
}

void Service::answerDeathsDue() {
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(m_pendingDeaths, [&](const PendingDeath& d) {
        // Past the limit the name's socket file is someone else's that happens to look alike.
        if (now < d.giveUp && stillListens(d.name, d.file)) {
            return false;
        }
        deliverAnswer(LMX_MONITOR_DEFAULT_NO, d.target.id(), d.monitorId);
        return true;
    });
    armDeathTimer(!m_pendingDeaths.empty());
}

void Service::armDeathTimer(bool on) {
    itimerspec spec{};
    if (on) {
        spec.it_value.tv_nsec = kDeathCheckNs;
        spec.it_interval.tv_nsec = kDeathCheckNs;
    }
    ::timerfd_settime(m_deathTimer.get(), 0, &spec, nullptr);
}

// ---------------------------------------------------------------------------------------------
// The inbox

void Service::deliver(MessagePtr msg) {
    MessageHeader& header = headerOf(msg.get());
    m_inbox.push_back(std::move(msg));
    m_inboxBytes += header.size;
    // The sender's name stays known while the message lives, in the inbox or the application's hands.
    if (m_names.hold(header.sender)) {
        header.holder = m_serial;
    }
}

void Service::disown(void* msg) {
    MessageHeader& header = headerOf(msg);
    if (header.holder == m_serial) {
        header.holder = 0;
        m_names.release(header.sender);
    }
}

void Service::deliverAnswer(uint32_t msgNo, lmx_mbox_id_t sender, uint32_t monitorId) {
    MessagePtr msg(allocMessage(kMinMessageSize, true));
    if (msg == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(msg.get(), &msgNo, sizeof msgNo);
    headerOf(msg.get()).sender = sender;
    headerOf(msg.get()).monitorId = monitorId;
    deliver(std::move(msg));
}

MessagePtr Service::take(const uint32_t* filter, uint32_t from) {
    const auto matches = [filter, from](const MessagePtr& msg) {
        if (from != LMX_ANY_SENDER && headerOf(msg.get()).sender != from) {
            return false;
        }
        if (filter == nullptr) {
            return true;
        }
        const uint32_t no = msgNoOf(msg.get());
        for (const uint32_t* f = filter; *f != 0; ++f) {
            if (*f == no) {
                return true;
            }
        }
        return false;
    };
    const auto it = std::find_if(m_inbox.begin(), m_inbox.end(), matches);
    if (it == m_inbox.end()) {
        return nullptr;
    }
    MessagePtr msg = std::move(*it);
    m_inbox.erase(it);
    m_inboxBytes -= headerOf(msg.get()).size;
    resumeIfRoom();
    return msg;
}

void Service::withdrawAnswers(uint32_t monitorId) {
    std::erase_if(m_inbox, [this, monitorId](const MessagePtr& msg) {
        const bool withdrawn =
            msgNoOf(msg.get()) == LMX_MONITOR_DEFAULT_NO && headerOf(msg.get()).monitorId == monitorId;
        if (withdrawn) {
            m_inboxBytes -= headerOf(msg.get()).size;
            disown(msg.get());
        }
        return withdrawn;
    });
}

void Service::forgetLocatedGone() {
    std::erase_if(m_located, [this](const auto& entry) {
        const Located& located = entry.second;
        struct stat now {};
        return ::fstatat(m_dir.get(), m_names.find(entry.first)->c_str(), &now, AT_SYMLINK_NOFOLLOW) != 0 ||
               now.st_dev != located.dev || now.st_ino != located.ino;
    });
}

void Service::settle() {
    const bool waiting = !m_inbox.empty();
    if (waiting == m_eventRaised) {
        return;
    }
    uint64_t value = 1;
    const ssize_t n =
        waiting ? ::write(m_event.get(), &value, sizeof value) : ::read(m_event.get(), &value, sizeof value);
    if (n == sizeof value) {
        m_eventRaised = waiting;
    }
}

void* Service::receive(const uint32_t* filter, int32_t timeoutMs, uint32_t from,
                       std::unique_lock<std::mutex>& held) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(std::max(timeoutMs, 0));
    forgetLocatedGone();
    for (;;) {
        if (MessagePtr msg = take(filter, from)) {
            return msg.release();
        }
        if (timeoutMs == 0) {
            errno = EAGAIN;
            return nullptr;
        }
        // The service thread delivers while this one waits without the lock.
        if (timeoutMs < 0) {
            m_arrived.wait(held);
        } else if (m_arrived.wait_until(held, deadline) == std::cv_status::timeout) {
            if (MessagePtr msg = take(filter, from)) {
                return msg.release();
            }
            errno = ETIMEDOUT;
            return nullptr;
        }
    }
}

const char* Service::name(lmx_mbox_id_t id) const {
    const std::string* name = m_names.find(id);
    return name == nullptr ? nullptr : name->c_str();
}

}  // namespace lmx
