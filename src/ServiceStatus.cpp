#include "ServiceStatus.h"

namespace solicd {
namespace {

constexpr gint64 kMicrosecondsPerMillisecond = 1000;

std::string counted(size_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

}  // namespace

ServiceStatus::ServiceStatus(ServiceNotify& notify, Counter counter, guint refreshIntervalMs)
    : m_notify(notify),
      m_counter(std::move(counter)),
      m_refreshIntervalUs(static_cast<gint64>(refreshIntervalMs) * kMicrosecondsPerMillisecond) {}

ServiceStatus::~ServiceStatus() {
    cancelTimer();
}

std::string ServiceStatus::runningText(const Counts& counts) {
    return "Running: " + counted(counts.routers, "router", "routers") + ", " +
           counted(counts.prefixes, "prefix", "prefixes") + ", " +
           counted(counts.dnsServers, "DNS server", "DNS servers");
}

void ServiceStatus::enteringNamespace(const std::string& ns) {
    if (isEnabled()) {
        m_notify.status("Entering network namespace " + ns);
    }
}

void ServiceStatus::waitingForLinkLocal(const std::string& ifName) {
    if (isEnabled()) {
        m_notify.status("Waiting for a link-local address on " + ifName);
    }
}

void ServiceStatus::ready(const std::string& client) {
    if (!isEnabled()) {
        return;
    }
    m_client = client;
    m_notify.ready(m_client.empty() ? showCounts() : "Waiting for the client mailbox " + m_client);
}

void ServiceStatus::clientConnected() {
    if (isEnabled()) {
        m_notify.status(showCounts());
    }
}

void ServiceStatus::clientLost() {
    if (!isEnabled()) {
        return;
    }
    m_showingCounts = false;
    cancelTimer();
    m_notify.status("Waiting for the client mailbox " + m_client);
}

std::string ServiceStatus::showCounts() {
    m_showingCounts = true;
    m_shown = m_counter();
    m_lastRefresh = g_get_monotonic_time();
    return runningText(m_shown);
}

void ServiceStatus::refreshSoon() {
    if (m_timer != nullptr) {
        return;
    }
    const gint64 due = m_lastRefresh + m_refreshIntervalUs;
    const gint64 now = g_get_monotonic_time();
    if (now >= due) {
        refresh();
        return;
    }
    m_timer = g_timeout_source_new(
        static_cast<guint>((due - now + kMicrosecondsPerMillisecond - 1) / kMicrosecondsPerMillisecond));
    g_source_set_callback(m_timer, &ServiceStatus::cbRefresh, this, nullptr);
    g_source_attach(m_timer, nullptr);
}

gboolean ServiceStatus::cbRefresh(gpointer self) {
    auto* status = static_cast<ServiceStatus*>(self);
    // The source ends with this call; the context held the last reference but one.
    g_source_unref(status->m_timer);
    status->m_timer = nullptr;
    status->refresh();
    return G_SOURCE_REMOVE;
}

void ServiceStatus::refresh() {
    m_lastRefresh = g_get_monotonic_time();
    const Counts counts = m_counter();
    if (counts == m_shown) {
        return;
    }
    m_shown = counts;
    m_notify.status(runningText(m_shown));
}

void ServiceStatus::cancelTimer() {
    if (m_timer != nullptr) {
        g_source_destroy(m_timer);
        g_source_unref(m_timer);
        m_timer = nullptr;
    }
}

}  // namespace solicd
