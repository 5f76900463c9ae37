// A named one-shot timer on the GLib main loop; subclasses receive the expiry.
#pragma once

#include <glib.h>

#include <cstdint>
#include <string>

namespace solicd {

class SolTimeout {
public:
    SolTimeout() = default;
    virtual ~SolTimeout();
    SolTimeout(const SolTimeout&) = delete;
    SolTimeout& operator=(const SolTimeout&) = delete;

    // Arms the timer for `interval` ms; refused (ERROR trace) while it is armed.
    void add(uint32_t interval);
    // Disarms the timer if it is armed.
    void remove();
    // remove() then add(interval): the timer runs again from now for `interval` ms. Every RA
    // restarts the timers of its entries, so while LAB is off (nobody reads the handler ids of the
    // removal and addition traces) an armed timer keeps its GLib source instead of replacing it.
    void restart(uint32_t interval);

    // Called once per arming, after the timer has been disarmed.
    virtual void cbExpired() = 0;

    uint32_t getHandlerId() const { return m_handlerId; }
    const std::string& getName() const { return m_name; }

protected:
    void setName(const std::string& name) { m_name = name; }

private:
    static gboolean timeoutCb(gpointer object);

    uint32_t m_handlerId = 0;
    // The armed source (owned by the default main context) and the monotonic time, in
    // microseconds, at which the timer runs out. A kept source may become ready before that
    // time: it then waits on, unseen.
    GSource* m_source = nullptr;
    gint64 m_expiry = 0;
    std::string m_name = "undefined";
};

}  // namespace solicd
