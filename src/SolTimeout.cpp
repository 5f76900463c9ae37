#include "SolTimeout.h"

#include "TraceLog.h"

namespace solicd {

SolTimeout::~SolTimeout()
{
    try {
        remove();
    } catch (...) {
        // A destructor must not throw; the source is gone with the process anyway.
    }
}

void SolTimeout::add(uint32_t interval)
{
    if (m_handlerId != 0) {
        SOL_TRACE(ERROR, "GENERAL", "add", "[%s] Timer with name %s is active already, handler :%u", getTraceTag(),
                  m_name.c_str(), m_handlerId);
        return;
    }
    m_handlerId = g_timeout_add(interval, &SolTimeout::timeoutCb, this);
    SOL_TRACE(LAB, "GENERAL", "add", "[%s] Timer %s is added, timeout %u msec, handler: %u", getTraceTag(),
              m_name.c_str(), interval, m_handlerId);
}

void SolTimeout::remove()
{
    if (m_handlerId == 0) {
        return;
    }
    g_source_remove(m_handlerId);
    SOL_TRACE(LAB, "GENERAL", "remove", "[%s] Timer %s is removed, handler id: %u", getTraceTag(), m_name.c_str(),
              m_handlerId);
    m_handlerId = 0;
}

gboolean SolTimeout::timeoutCb(gpointer object)
{
    auto* self = static_cast<SolTimeout*>(object);
    if (self == nullptr) {
        SOL_TRACE(ERROR, "GENERAL", "timeoutCb", "[%s] SolTimeout is not instantiated, unable to run timer callback",
                  getTraceTag());
        return FALSE;
    }
    SOL_TRACE(LAB, "GENERAL", "timeoutCb", "[%s] Timer %s is expired, handler %u will be removed", getTraceTag(),
              self->m_name.c_str(), self->m_handlerId);
    self->remove();
    // The expiry may destroy this object (a cache timer removing itself): nothing follows it.
    self->cbExpired();
    return FALSE;
}

}  // namespace solicd
