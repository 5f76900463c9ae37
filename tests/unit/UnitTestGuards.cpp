// Linked into every unit test of the daemon's code, set before any test runs:
// - a capture that records nothing owns the enabled state of every event, so all events are off
//   unless a test enables them through TraceCapture: a tracing session on the host, or
//   SOLICD_TRACE_STDERR in the environment, changes nothing a unit test sees;
// - a GLib warning or critical that reaches GLib's own output (no handler of ours took it, so no
//   test asserts it) fails the running test.
#include <glib.h>
#include <gtest/gtest.h>

#include "TraceLog.h"

namespace {

void discard(void*, solicd::TraceEvent, const char*, const char*, const char*) {}

GLogWriterOutput failOnWarning(GLogLevelFlags level, const GLogField* fields, gsize count, gpointer data) {
    constexpr unsigned kUnexpected = G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING;
    if ((static_cast<unsigned>(level) & kUnexpected) != 0) {
        const char* message = "";
        for (gsize i = 0; i < count; ++i) {
            if (g_strcmp0(fields[i].key, "MESSAGE") == 0 && fields[i].length < 0) {
                message = static_cast<const char*>(fields[i].value);
            }
        }
        ADD_FAILURE() << "GLib warned and no test asserts it: " << message;
    }
    return g_log_writer_default(level, fields, count, data);
}

// Static initialisers, so that they also hold in the re-executed child of a death test.
const bool g_guarded = [] {
    solicd::trace::setCapture(&discard, nullptr, 0);
    g_log_set_writer_func(&failOnWarning, nullptr, nullptr);
    return true;
}();

}  // namespace
