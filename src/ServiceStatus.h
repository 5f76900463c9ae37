// The stages of solicd's life as the service manager shows them: entering the namespace, waiting
// for a link-local address, waiting for the client, and running with the cache's counts. Counts
// are refreshed when they change, at most once per refresh interval, by a one-shot timer armed
// only while a change waits to be looked at: an idle daemon never wakes for them.
#pragma once

#include <glib.h>

#include <cstddef>
#include <functional>
#include <string>

#include "ServiceNotify.h"

namespace solicd {

class ServiceStatus {
public:
    // Entries in use, as `Running: ...` counts them.
    struct Counts {
        size_t routers = 0;
        size_t prefixes = 0;
        size_t dnsServers = 0;
        bool operator==(const Counts&) const = default;
    };
    using Counter = std::function<Counts()>;

    static constexpr guint kRefreshIntervalMs = 1000;

    // `refreshIntervalMs` is a seam for tests; the daemon uses kRefreshIntervalMs.
    ServiceStatus(ServiceNotify& notify, Counter counter, guint refreshIntervalMs = kRefreshIntervalMs);
    ~ServiceStatus();
    ServiceStatus(const ServiceStatus&) = delete;
    ServiceStatus& operator=(const ServiceStatus&) = delete;

    bool isEnabled() const { return m_notify.isEnabled(); }

    void enteringNamespace(const std::string& ns);
    void waitingForLinkLocal(const std::string& ifName);
    // Initialisation has finished. `client` is the client's mailbox, empty when there is none:
    // without one solicd is running at once, with one it waits for it.
    void ready(const std::string& client);
    void clientConnected();
    void clientLost();
    // The cache changed in a way the client hears of; the counts may follow. One test of a flag
    // while no counts are shown (no service manager, or no client yet).
    void cacheChanged() {
        if (m_showingCounts) {
            refreshSoon();
        }
    }

    // A refresh waits for its timer.
    bool isRefreshPending() const { return m_timer != nullptr; }

    static std::string runningText(const Counts& counts);

private:
    static gboolean cbRefresh(gpointer self);
    void refreshSoon();
    void refresh();
    std::string showCounts();
    void cancelTimer();

    ServiceNotify& m_notify;
    Counter m_counter;
    gint64 m_refreshIntervalUs;
    std::string m_client;
    bool m_showingCounts = false;
    Counts m_shown;
    gint64 m_lastRefresh = 0;  // monotonic microseconds
    GSource* m_timer = nullptr;
};

}  // namespace solicd
