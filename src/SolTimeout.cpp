#include "SolTimeout.h"

#include "TraceLog.h"

namespace solicd {
namespace {

constexpr gint64 kMicrosecondsPerMillisecond = 1000;

// A timeout source reduced to its ready time: GLib runs the callback once the monotonic time
// reaches it, as it runs a g_timeout_add source, and the ready time can be moved without
// replacing the source.
gboolean dispatchTimer(GSource*, GSourceFunc callback, gpointer object) {
    return callback(object);
}

GSourceFuncs g_timerFuncs = {nullptr, nullptr, &dispatchTimer, nullptr, nullptr, nullptr};

}  // namespace

SolTimeout::~SolTimeout() {
    try {
        remove();
    } catch (...) {
        // A destructor must not throw; the source is gone with the process anyway.
    }
}

void SolTimeout::add(uint32_t interval) {
    if (m_handlerId != 0) {
        SOL_TRACE(ERROR, "GENERAL", "add", "[%s] Timer with name %s is active already, handler :%u",
                  getTraceTag(), m_name.c_str(), m_handlerId);
        return;
    }
    m_expiry = g_get_monotonic_time() + static_cast<gint64>(interval) * kMicrosecondsPerMillisecond;
    GSource* source = g_source_new(&g_timerFuncs, sizeof(GSource));
    g_source_set_ready_time(source, m_expiry);
    g_source_set_callback(source, &SolTimeout::timeoutCb, this, nullptr);
    m_handlerId = g_source_attach(source, nullptr);
    // The context keeps the source until it is destroyed.
    g_source_unref(source);
    m_source = source;
    SOL_TRACE(LAB, "GENERAL", "add", "[%s] Timer %s is added, timeout %u msec, handler: %u", getTraceTag(),
              m_name.c_str(), interval, m_handlerId);
}

void SolTimeout::remove() {
    if (m_handlerId == 0) {
        return;
    }
    g_source_remove(m_handlerId);
    SOL_TRACE(LAB, "GENERAL", "remove", "[%s] Timer %s is removed, handler id: %u", getTraceTag(),
              m_name.c_str(), m_handlerId);
    m_handlerId = 0;
    m_source = nullptr;
}

void SolTimeout::restart(uint32_t interval) {
    if (m_handlerId == 0 || SOL_TRACE_ENABLED(LAB)) {
        remove();
        add(interval);
        return;
    }
    m_expiry = g_get_monotonic_time() + static_cast<gint64>(interval) * kMicrosecondsPerMillisecond;
    // A later expiry leaves the source as it is (it waits on when it becomes ready, see
    // timeoutCb); an earlier one moves it.
    if (m_expiry < g_source_get_ready_time(m_source)) {
        g_source_set_ready_time(m_source, m_expiry);
    }
    // Timers due in the same main-loop iteration run in the order they were last armed, as they
    // would with a new source: re-setting the priority puts the source last among its equals.
    g_source_set_priority(m_source, G_PRIORITY_DEFAULT);
}

gboolean SolTimeout::timeoutCb(gpointer object) {
    auto* self = static_cast<SolTimeout*>(object);
    if (self == nullptr) {
        SOL_TRACE(ERROR, "GENERAL", "timeoutCb",
                  "[%s] SolTimeout is not instantiated, unable to run timer callback", getTraceTag());
        return FALSE;
    }
    // Restarted since the source became due: not expired, wait on until the latest expiry.
    if (g_source_get_time(self->m_source) < self->m_expiry) {
        g_source_set_ready_time(self->m_source, self->m_expiry);
        return TRUE;
    }
    SOL_TRACE(LAB, "GENERAL", "timeoutCb", "[%s] Timer %s is expired, handler %u will be removed",
              getTraceTag(), self->m_name.c_str(), self->m_handlerId);
    self->remove();
    // The expiry may destroy this object (a cache timer removing itself): nothing follows it.
    self->cbExpired();
    return FALSE;
}

}  // namespace solicd
