// Captures every trace emitted while it lives, for exact assertions on event, category and text.
// While it lives, the events of its mask and no others are enabled.
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "TraceLog.h"

namespace solicd::test {

struct TraceRecord {
    TraceEvent event;
    std::string location;
    std::string category;
    std::string message;

    bool operator==(const TraceRecord& o) const {
        return event == o.event && category == o.category && message == o.message;
    }
};

inline std::ostream& operator<<(std::ostream& os, const TraceRecord& r) {
    return os << eventName(r.event) << " " << r.category << " \"" << r.message << "\" @" << r.location;
}

// Installs a capture for as long as it lives, then gives back the one it found.
class ScopedCapture {
public:
    ScopedCapture(trace::CaptureFn fn, void* context, unsigned mask) : m_previous(trace::getCapture()) {
        trace::setCapture(fn, context, mask);
    }
    ~ScopedCapture() { trace::setCapture(m_previous.fn, m_previous.context, m_previous.mask); }
    ScopedCapture(const ScopedCapture&) = delete;
    ScopedCapture& operator=(const ScopedCapture&) = delete;

private:
    trace::Capture m_previous;
};

class TraceCapture {
public:
    explicit TraceCapture(unsigned mask = trace::kAllEvents) : m_scope(&TraceCapture::onTrace, this, mask) {}
    TraceCapture(const TraceCapture&) = delete;
    TraceCapture& operator=(const TraceCapture&) = delete;

    const std::vector<TraceRecord>& records() const { return m_records; }
    void clear() { m_records.clear(); }

    // Records of one event, message text only.
    std::vector<std::string> messages(TraceEvent event) const {
        std::vector<std::string> out;
        for (const auto& r : m_records) {
            if (r.event == event) {
                out.push_back(r.message);
            }
        }
        return out;
    }

    bool contains(TraceEvent event, const std::string& category, const std::string& message) const {
        for (const auto& r : m_records) {
            if (r.event == event && r.category == category && r.message == message) {
                return true;
            }
        }
        return false;
    }

private:
    static void onTrace(void* self, TraceEvent event, const char* location, const char* category,
                        const char* message) {
        static_cast<TraceCapture*>(self)->m_records.push_back({event, location, category, message});
    }

    std::vector<TraceRecord> m_records;
    ScopedCapture m_scope;
};

// EXPECT_THAT(capture.records(), Contains(Trace(TraceEvent::INFO, "GENERAL", "init(): [] ...")));
inline TraceRecord Trace(TraceEvent event, std::string category, std::string message) {
    return TraceRecord{event, "", std::move(category), std::move(message)};
}

}  // namespace solicd::test
