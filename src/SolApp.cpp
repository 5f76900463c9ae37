#include "SolApp.h"

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

#include "TraceLog.h"

namespace solicd::SolApp {
namespace {

Logic* s_instance = nullptr;

struct SignalAction {
    int signal;
    void (*handler)(int);
    unsigned flags;
};

// Installed in this order. A second SIGINT or SIGTERM during the exit takes the default action.
const SignalAction kSignalActions[] = {
    {SIGHUP, &cbSignalEvent, 0},
    {SIGINT, &cbSignalEvent, SA_RESETHAND},
    {SIGTERM, &cbSignalEvent, SA_RESETHAND},
    {SIGPIPE, SIG_IGN, 0},
    {SIGQUIT, &cbSignalEvent, 0},
};

struct MainLoopUnref {
    void operator()(GMainLoop* loop) const { g_main_loop_unref(loop); }
};

// strsignal's text without its locale lookup, which is not async-signal-safe.
const char* signalText(int signal) {
    const char* text = sigdescr_np(signal);
    return text != nullptr ? text : "Unknown signal";
}

// Both descriptor sources watch G_IO_IN only; anything else is reported and the read still tried.
void checkFdCondition(const char* function, gint fd, GIOCondition condition) {
    if (condition != G_IO_IN) {
        SOL_TRACE(ERROR, "GENERAL", function,
                  "[%s] Unexpected socket event for socket with fd:%d glib condition: %d", getTraceTag(), fd,
                  static_cast<int>(condition));
    }
}

// The two flag bits GLib adds to a level.
constexpr unsigned kGlibFlagBits = G_LOG_FLAG_RECURSION | G_LOG_FLAG_FATAL;

struct GlibLevel {
    unsigned level;
    TraceEvent event;
    const char* word;
};

const GlibLevel kGlibLevels[] = {
    {G_LOG_LEVEL_ERROR, TraceEvent::ERROR, "ERROR"},    {G_LOG_LEVEL_CRITICAL, TraceEvent::ERROR, "CRITICAL"},
    {G_LOG_LEVEL_WARNING, TraceEvent::INFO, "WARNING"}, {G_LOG_LEVEL_MESSAGE, TraceEvent::INFO, "MESSAGE"},
    {G_LOG_LEVEL_INFO, TraceEvent::INFO, "INFO"},       {G_LOG_LEVEL_DEBUG, TraceEvent::LAB, "DEBUG"},
};

}  // namespace

const char* eventSrcTypeToCstr(uint32_t type) {
    switch (type) {
        case EVENT_SRC_TYPE_SOCKET:
            return "EVENT_SRC_TYPE_SOCKET";
        case EVENT_SRC_TYPE_LMX:
            return "EVENT_SRC_TYPE_LMX";
        default:
            return "UNKNOWN";
    }
}

// ---- Process and GLib callbacks ----

gboolean cbRaSocketEvent(gint fd, GIOCondition condition, gpointer logic) {
    auto* self = static_cast<Logic*>(logic);
    bool first = true;
    // One RA, then those read ahead with it, if any. LAB is tested before each: a session that
    // starts in the middle of them records each with its socket event, as if each had woken the
    // loop alone.
    do {
        SOL_TRACE(LAB, "GENERAL", "cbRaSocketEvent", "[%s] Socket event %d, is received on socket %d",
                  getTraceTag(), static_cast<int>(condition), fd);
        if (first) {
            checkFdCondition("cbRaSocketEvent", fd, condition);
            self->prepareRaReception();
            first = false;
        }
        self->handleRaSocketEvent();
    } while (self->hasQueuedRa());
    return TRUE;
}

gboolean cbLmxEvent(gint fd, GIOCondition condition, gpointer logic) {
    SOL_TRACE(LAB, "GENERAL", "cbLmxEvent", "[%s] LMX event %d, is received on socket %d", getTraceTag(),
              static_cast<int>(condition), fd);
    checkFdCondition("cbLmxEvent", fd, condition);
    static_cast<Logic*>(logic)->handleLmxEvent();
    return TRUE;
}

void cbSignalEvent(int signal) {
    SOL_TRACE(INFO, "GENERAL", "cbSignalEvent", "[%s] Unix Signal %s (%d), is received", getTraceTag(),
              signalText(signal), signal);
    Logic* logic = Logic::getInstance();
    if (logic == nullptr) {
        SOL_TRACE(ERROR, "GENERAL", "cbSignalEvent",
                  "[%s] Application logic is not instantiated, ignoring signal %s (%d)", getTraceTag(),
                  signalText(signal), signal);
        return;
    }
    logic->handleSignalEvent(signal);
}

void cbGlibEvent(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer /*userData*/) {
    Logic* logic = Logic::getInstance();
    if (logic == nullptr) {
        SOL_TRACE(ERROR, "GENERAL", "cbGlibEvent",
                  "[%s] Application logic is not instantiated, ignoring Glib event", getTraceTag());
        return;
    }
    logic->handleGLibEvent(domain, level, message);
}

// ---- Logic ----

Logic::Logic(DataIf* data)
    : m_data(data), m_status(data->getServiceNotify(), [this] { return countEntriesInUse(); }) {
    if (s_instance != nullptr) {
        SOL_FATAL("Logic", "Runtime error, attempt to create  second instance of the SolApp::Logic");
    }
    s_instance = this;
}

Logic::~Logic() {
    if (s_instance == this) {
        s_instance = nullptr;
    }
    m_timeouts.clear();
    // The sources carry this object as their user data: none may outlive it.
    for (const auto& [type, id] : m_fdEvents) {
        if (id != 0) {
            g_source_remove(id);
        }
    }
    m_fdEvents.clear();
}

Logic* Logic::getInstance() {
    return s_instance;
}

void Logic::run(int argc, char** argv, DataIf& data) {
    Logic logic(&data);
    if (logic.init(argc, argv) == 0) {
        std::unique_ptr<GMainLoop, MainLoopUnref> loop(g_main_loop_new(nullptr, FALSE));
        g_main_loop_run(loop.get());
    }
    SOL_TRACE(ERROR, "GENERAL", "run",
              "[%s] Application initialization is failed,  or mainloop was abnormally terminated",
              getTraceTag());
    logic.terminate(1);
}

uint32_t Logic::init(int argc, char** argv) {
    ArgParser& args = m_data->getArgParser();
    uint32_t result = args.init(argc, argv);
    if (result != 0) {
        return result;
    }
    const std::string ownMailbox = args.getOwnMailboxName();
    setTraceTag(ownMailbox);
    SOL_TRACE(INFO, "GENERAL", "init", "[%s] Solicd initialization started", getTraceTag());

    g_log_set_default_handler(&cbGlibEvent, nullptr);
    result = installSignalActions();
    if (result != 0) {
        return result;
    }

    m_data->getCacheMgr().setMaxCacheSizes(kMaxRouters, kMaxNetworks, kMaxDnsServers);

    SocketMgr& socket = m_data->getSocketMgr();
    if (m_status.isEnabled()) {
        if (!args.getNamespace().empty()) {
            m_status.enteringNamespace(args.getNamespace());
        }
        socket.setLinkLocalWaitHook(
            [this, ifName = args.getInterface()] { m_status.waitingForLinkLocal(ifName); });
    }
    result = socket.init(args.getNamespace(), args.getInterface());
    if (result != 0) {
        return result;
    }
    if (args.isVerboseEnabled()) {
        socket.setVerbose(true);
        m_data->getPacketParser().setVerbose(true);
    }

    LmxMgr& lmx = m_data->getLmxMgr();
    result = lmx.init(ownMailbox, args.getMboxRemote());
    if (result != 0) {
        return result;
    }
    result = addFdEvent(EVENT_SRC_TYPE_LMX, lmx.getFd(), &cbLmxEvent);
    if (result != 0) {
        return result;
    }
    result = addFdEvent(EVENT_SRC_TYPE_SOCKET, socket.getFd(), &cbRaSocketEvent);
    SOL_TRACE(INFO, "GENERAL", "init", "[%s] Solicd initialization finished", getTraceTag());
    if (result == 0) {
        m_status.ready(args.getMboxRemote());
    }
    return result;
}

uint32_t Logic::installSignalActions() {
    for (const SignalAction& entry : kSignalActions) {
        struct sigaction action {};
        action.sa_handler = entry.handler;
        action.sa_flags = static_cast<int>(entry.flags);
        int rc = sigemptyset(&action.sa_mask);
        if (rc != 0) {
            const int error = errno;
            SOL_TRACE(ERROR, "GENERAL", "init",
                      "[%s] Signal %d handler initialization failed, sigemptyset returns  %d, errono %d, "
                      "error string "
                      "%s",
                      getTraceTag(), entry.signal, rc, error, strerror(error));
            return 1;
        }
        rc = sigaction(entry.signal, &action, nullptr);
        if (rc != 0) {
            const int error = errno;
            SOL_TRACE(ERROR, "GENERAL", "init",
                      "[%s] Signal %d handler initialization failed, sigaction returns  %d, errono %d, error "
                      "string %s",
                      getTraceTag(), entry.signal, rc, error, strerror(error));
            return 1;
        }
    }
    return 0;
}

guint Logic::addUnixFdSource(int fd, GUnixFDSourceFunc callback) {
    // g_unix_fd_add, except that GLib does not block the source while its callback runs. Blocking
    // takes the descriptor out of the poll set and puts it back, two main-context wakeups and one
    // more loop iteration for every RA; it guards against re-entry from a nested main loop, and
    // no callback here runs one.
    GSource* source = g_unix_fd_source_new(fd, G_IO_IN);
    g_source_set_can_recurse(source, TRUE);
    g_source_set_callback(source, G_SOURCE_FUNC(callback), this, nullptr);
    const guint id = g_source_attach(source, nullptr);
    g_source_unref(source);
    return id;
}

uint32_t Logic::addFdEvent(EventSrcType type, int fd, GUnixFDSourceFunc callback) {
    const guint id = addUnixFdSource(fd, callback);
    if (id == 0) {
        SOL_TRACE(ERROR, "GENERAL", "addFdEvent", "[%s] FD for %s with ID %d was not added into event loop",
                  getTraceTag(), eventSrcTypeToCstr(type), fd);
        return 1;
    }
    m_fdEvents[type] = id;
    // "ID" is the descriptor here, the source id in terminate.
    SOL_TRACE(LAB, "GENERAL", "addFdEvent", "[%s] FD for %s with ID %d was added into event loop",
              getTraceTag(), eventSrcTypeToCstr(type), fd);
    return 0;
}

void Logic::terminate(int result) {
    SOL_TRACE(INFO, "GENERAL", "terminate", "[%s] Terminating. result %d", getTraceTag(), result);
    const bool cleanExit = result == 0;
    for (const auto& [type, id] : m_fdEvents) {
        if (id == 0) {
            continue;
        }
        SOL_TRACE(LAB, "GENERAL", "terminate", "[%s] FD for %s with ID %d was removed", getTraceTag(),
                  eventSrcTypeToCstr(type), static_cast<int>(id));
        // The clean exit runs in signal context, where GLib's context lock must not be taken;
        // _exit releases the descriptors anyway.
        if (!cleanExit) {
            g_source_remove(id);
        }
    }
    s_instance = nullptr;
    if (cleanExit) {
        // Nothing that allocates or flushes stdio may run here (signal context); stdout is line
        // buffered, so every printed line is already out.
        _exit(0);
    }
    m_fdEvents.clear();
    SOL_FATAL("terminate", "Abonrnal solicd termination result: %d", result);
}

void Logic::handleSignalEvent(int signal) {
    if (signal == SIGINT || signal == SIGTERM) {
        terminate(0);
    }
    SOL_TRACE(INFO, "GENERAL", "handleSignalEvent", "[%s] Unix Signal %s (%d), received and ignored",
              getTraceTag(), signalText(signal), signal);
}

void Logic::handleGLibEvent(const gchar* domain, GLogLevelFlags level, const gchar* message) {
    const unsigned flags = static_cast<unsigned>(level);
    const unsigned plainLevel = flags & ~kGlibFlagBits;
    if ((flags & G_LOG_FLAG_FATAL) != 0) {
        SOL_TRACE(ERROR, "GENERAL", "handleGLibEvent", "[%s] FATAL UNKNOWN_GLIB_LOG_LEVEL=%d: %s: %s",
                  getTraceTag(), static_cast<int>(plainLevel), domain, message);
        SOL_FATAL("handleGLibEvent", "Fatal GLib log level: 0x%02X, aborting.", flags);
    }
    const char* suffix = (flags & G_LOG_FLAG_RECURSION) != 0 ? "/RECURSION" : "";
    for (const GlibLevel& known : kGlibLevels) {
        if (known.level == plainLevel) {
            SOL_TRACE_AT(known.event, "GENERAL", "handleGLibEvent", "[%s] %s%s: %s: %s", getTraceTag(),
                         known.word, suffix, domain, message);
            return;
        }
    }
    SOL_TRACE(ERROR, "GENERAL", "handleGLibEvent", "[%s] UNKNOWN_GLIB_LOG_LEVEL=%d: %s: %s", getTraceTag(),
              static_cast<int>(plainLevel), domain, message);
}

// ---- Cache-entry timers ----

const char* Logic::CacheTimeout::typeToCstr(uint32_t type) {
    switch (type) {
        case TYPE_UNSET:
            return "UNSET";
        case TYPE_ROUTER:
            return "ROUTER";
        case TYPE_NETWORK:
            return "NETWORK";
        case TYPE_DNS_SERVER:
            return "DNS_SERVER";
        default:
            return "INTERNAL ERROR";
    }
}

void Logic::CacheTimeout::init(Logic* logic, uint32_t type, const std::string& name) {
    m_logic = logic;
    m_type = type;
    m_objectName = name;
    setName(name);
    SOL_TRACE(INFO, "ADDR_IPV6", "init", "[%s] Created %s timeout  with with id:%s", getTraceTag(),
              typeToCstr(m_type), m_objectName.c_str());
}

Logic::CacheTimeout::~CacheTimeout() {
    SOL_TRACE(INFO, "ADDR_IPV6", "~CacheTimeout", "[%s] Removed %s timeout with with id:%s", getTraceTag(),
              typeToCstr(m_type), m_objectName.c_str());
}

void Logic::CacheTimeout::cbExpired() {
    if (m_logic == nullptr) {
        SOL_FATAL("cbExpired",
                  "Runtime error, attempt to process not initilized timeout  associated with object with "
                  "name %s, type : "
                  "%d",
                  m_objectName.c_str(), static_cast<int>(m_type));
    }
    // Copies: the handler may remove this very timer, and nothing may touch it afterwards.
    Logic* logic = m_logic;
    const uint32_t type = m_type;
    const std::string name = m_objectName;
    logic->handleCacheExpiredEvent(type, name);
}

void Logic::orderTimeout(std::string_view name, uint32_t type, uint32_t seconds) {
    uint32_t interval = kCappedTimeoutMs;
    if (seconds <= kMaxTimeoutSeconds) {
        interval = seconds * 1000;
    } else {
        SOL_TRACE(
            INFO, "ADDR_IPV6", "orderTimeout",
            "[%s] Impossible to order timeout %d sec for %s cache entry %.*s requested value is greater "
            "than max "
            "supported %d",
            getTraceTag(), static_cast<int>(seconds), CacheTimeout::typeToCstr(type),
            static_cast<int>(name.size()), name.data(), static_cast<int>(kMaxTimeoutSeconds));
    }
    auto found = m_timeouts.find(name);
    if (found != m_timeouts.end()) {
        // One timer per name: a new order restarts it from now and keeps its first type.
        found->second.restart(interval);
        return;
    }
    const std::string key(name);
    CacheTimeout& timeout = m_timeouts.try_emplace(key).first->second;
    timeout.init(this, type, key);
    timeout.add(interval);
}

void Logic::removeTimeout(std::string_view name) {
    const auto found = m_timeouts.find(name);
    if (found != m_timeouts.end()) {
        m_timeouts.erase(found);
    }
}

void Logic::applyTimeoutAction(std::string_view name, uint32_t type, uint32_t timeout) {
    if (timeout == 0) {
        removeTimeout(name);
    } else if (timeout != TIMEOUT_KEEP) {
        orderTimeout(name, type, timeout);
    }
}

}  // namespace solicd::SolApp
