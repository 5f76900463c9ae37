// The application core: the owner of the managers, the single application logic with its main
// loop, descriptor sources, signals, GLib log handler and cache-entry timers.
#pragma once

#include <glib-unix.h>
#include <glib.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "ArgParser.h"
#include "CacheMgr.h"
#include "LmxMgr.h"
#include "PacketParser.h"
#include "RaHealth.h"
#include "ServiceNotify.h"
#include "ServiceStatus.h"
#include "SocketMgr.h"
#include "SolTimeout.h"

namespace solicd::SolApp {

// What the logic reaches the managers through, so that another owner can stand in.
class DataIf {
public:
    virtual ~DataIf() = default;
    virtual ArgParser& getArgParser() = 0;
    virtual SocketMgr& getSocketMgr() = 0;
    virtual LmxMgr& getLmxMgr() = 0;
    virtual CacheMgr& getCacheMgr() = 0;
    virtual PacketParser& getPacketParser() = 0;
    virtual ServiceNotify& getServiceNotify() = 0;
};

// The daemon's managers, built in this order and destroyed in reverse.
class Data : public DataIf {
public:
    Data() = default;
    ~Data() override = default;
    Data(const Data&) = delete;
    Data& operator=(const Data&) = delete;

    ArgParser& getArgParser() override { return m_argParser; }
    SocketMgr& getSocketMgr() override { return m_socketMgr; }
    LmxMgr& getLmxMgr() override { return m_lmxMgr; }
    CacheMgr& getCacheMgr() override { return m_cacheMgr; }
    PacketParser& getPacketParser() override { return m_packetParser; }
    ServiceNotify& getServiceNotify() override { return m_serviceNotify; }

private:
    ArgParser m_argParser;
    SocketMgr m_socketMgr;
    LmxMgr m_lmxMgr;
    CacheMgr m_cacheMgr;
    PacketParser m_packetParser;
    SystemdNotify m_serviceNotify;
};

enum EventSrcType : uint32_t {
    EVENT_SRC_TYPE_SOCKET = 0,  // the RA socket
    EVENT_SRC_TYPE_LMX = 1,     // the client mailbox
};
const char* eventSrcTypeToCstr(uint32_t type);

// GLib and process callbacks; the logic is reached through the user data or the single instance.
gboolean cbRaSocketEvent(gint fd, GIOCondition condition, gpointer logic);
gboolean cbLmxEvent(gint fd, GIOCondition condition, gpointer logic);
void cbSignalEvent(int signal);
void cbGlibEvent(const gchar* domain, GLogLevelFlags level, const gchar* message, gpointer userData);

class Logic {
public:
    // The lifetime timer of one cache entry; its expiry goes to handleCacheExpiredEvent.
    class CacheTimeout : public SolTimeout {
    public:
        enum Type : uint32_t {
            TYPE_UNSET = 0,
            TYPE_ROUTER = 1,
            TYPE_NETWORK = 2,
            TYPE_DNS_SERVER = 3,
        };
        static const char* typeToCstr(uint32_t type);

        CacheTimeout() = default;
        ~CacheTimeout() override;

        void init(Logic* logic, uint32_t type, const std::string& name);
        void cbExpired() override;

        uint32_t getType() const { return m_type; }
        const std::string& getObjectName() const { return m_objectName; }

    private:
        Logic* m_logic = nullptr;
        uint32_t m_type = TYPE_UNSET;
        std::string m_objectName;
    };

    // Longest cache timer in seconds that still fits the 32-bit millisecond interval, and the
    // interval used for anything longer (one second shorter, as the platform always did).
    static constexpr uint32_t kMaxTimeoutSeconds = 4294967;
    static constexpr uint32_t kCappedTimeoutMs = 4294966000u;

    static constexpr size_t kMaxRouters = 64;
    static constexpr size_t kMaxNetworks = 128;
    static constexpr size_t kMaxDnsServers = 128;

    explicit Logic(DataIf* data);
    virtual ~Logic();
    Logic(const Logic&) = delete;
    Logic& operator=(const Logic&) = delete;

    // Builds the logic, initialises it and runs the main loop; any way out is a restart request.
    [[noreturn]] static void run(int argc, char** argv, DataIf& data);
    // The live instance, for the signal and GLib log handlers; null when there is none.
    static Logic* getInstance();

    uint32_t init(int argc, char** argv);
    // 0: clean exit with status 0 (reached from the signal handler); otherwise a restart request.
    [[noreturn]] void terminate(int result);
    uint32_t addFdEvent(EventSrcType type, int fd, GUnixFDSourceFunc callback);

    void handleSignalEvent(int signal);
    void handleGLibEvent(const gchar* domain, GLogLevelFlags level, const gchar* message);

    // Cache-entry timers, keyed by entry name. Names come as views: the RA handler writes them into
    // a buffer, and a known timer is found without building a string.
    void orderTimeout(std::string_view name, uint32_t type, uint32_t seconds);
    void removeTimeout(std::string_view name);
    // Acts on a cache timeout action: 0 removes the timer, TIMEOUT_KEEP leaves it, else (re)arms.
    void applyTimeoutAction(std::string_view name, uint32_t type, uint32_t timeout);

    // Event handlers (SolAppHandlers.cpp).
    void handleRaSocketEvent();
    // Before the RA of a socket wakeup: lets the socket read the datagrams queued behind it at
    // once while LAB is off.
    void prepareRaReception();
    // True while datagrams read with the last one wait to be handled, each by handleRaSocketEvent.
    bool hasQueuedRa();
    void handleCacheExpiredEvent(uint32_t type, const std::string& name);
    bool readyForLmxNotify(bool dataUpdated);
    void handleLmxEvent();
    void sendRaCacheToLmxClient();
    void sendShowRainfoToLmxClient(const LmxMgr::Message& request);
    // The routers' health (RaHealth) as the health answer's document, to whoever asked.
    void sendHealthToLmxClient(const LmxMgr::Message& request);
    // What the health keeps of the packet just parsed; `router` is the cached router it
    // announced, if any.
    void noteRaHealth(const kt_ip_address_t& source, const RouterEntry* router);

    const std::map<EventSrcType, uint32_t>& getFdEvents() const { return m_fdEvents; }
    const ServiceStatus& getServiceStatus() const { return m_status; }
    using Timeouts = std::map<std::string, CacheTimeout, std::less<>>;
    const Timeouts& getTimeouts() const { return m_timeouts; }

protected:
    // The one GLib call that registers a descriptor; GLib source id, 0 when refused.
    virtual guint addUnixFdSource(int fd, GUnixFDSourceFunc callback);

private:
    uint32_t installSignalActions();
    // The cache's entries in use, for the service manager's status line.
    ServiceStatus::Counts countEntriesInUse();
    // The three kinds of cache-entry expiry differ in what the client is told.
    void handleRouterExpiry(const std::string& name);
    void handleNetworkExpiry(const std::string& name);
    void handleDnsServerExpiry(const std::string& name);

    // The RA handler's buffers, kept from one RA to the next so that their memory is allocated
    // once; their contents never outlive a call.
    struct RaBuffers {
        SocketMgr::Message message;
        std::vector<SolRouter::Config> routers;
        std::vector<SolNetwork::Config> networks;
        std::vector<SolDnsServer::Config> dnsServers;
        // The active DNS set before and after the RA's servers are pushed.
        std::vector<uint32_t> activeDnsIdsBefore;
        std::vector<uint32_t> activeDnsIdsAfter;
        // Client messages in their default state; the first `inUse` serve the current RA.
        std::vector<LmxMgr::Message> notifications;
        size_t inUse = 0;

        // `count` client messages in their default state.
        LmxMgr::Message* takeNotifications(size_t count);
        // Empties everything (the messages back to their default state) but keeps the memory.
        void clear();
    };

    DataIf* m_data;
    std::map<EventSrcType, uint32_t> m_fdEvents;
    Timeouts m_timeouts;
    RaBuffers m_ra;
    ServiceStatus m_status;
    RaHealth m_health;
};

}  // namespace solicd::SolApp
