// The one way every part of solicd emits a trace: test the event's enabled state, then format
// into the thread's buffer, then hand (location, category, message) to the tracepoint.
#pragma once

#include <cstdint>
#include <string>

#include "solicd_tp.h"

namespace solicd {

enum class TraceEvent : unsigned { INFO = 0, ERROR = 1, EXCEPTION = 2, LAB = 3 };

// The event's name, as its tracepoint is called; for readers of captured traces.
constexpr const char* eventName(TraceEvent event) {
    switch (event) {
        case TraceEvent::INFO:
            return "INFO";
        case TraceEvent::ERROR:
            return "ERROR";
        case TraceEvent::EXCEPTION:
            return "EXCEPTION";
        case TraceEvent::LAB:
            return "LAB";
    }
    return "?";
}

inline constexpr size_t kTraceBufferSize = 1024;
inline constexpr size_t kTraceNameLimit = 256;
inline constexpr size_t kRestartTextSize = 128;

// The process-wide tag that opens almost every message ("[%s]"); empty until set.
const char* getTraceTag();
void setTraceTag(const std::string& text);

// Formats "prefixFmt" with the function name (clamped to 255 bytes), then the message, into the
// calling thread's 1024-byte buffer. Either step is skipped when its argument is null.
const char* traceFormat(const char* prefixFmt, const char* function, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

// Asks the platform to restart the process with the formatted reason (cut at 127 characters)
// and waits to be restarted.
[[noreturn]] void restartOnFatalError(int line, const char* file, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

namespace trace {

// Test seam: while a capture is installed, the events in its mask and no others count as enabled
// (a tracing session elsewhere on the machine changes nothing a test sees), and every emitted
// trace is also handed to it. A null `fn` removes the capture.
using CaptureFn = void (*)(void* context, TraceEvent event, const char* location, const char* category,
                           const char* message);

inline constexpr unsigned kAllEvents = 0xf;
inline constexpr unsigned bit(TraceEvent e) {
    return 1u << static_cast<unsigned>(e);
}

struct Capture {
    CaptureFn fn = nullptr;
    void* context = nullptr;
    unsigned mask = 0;
};
void setCapture(CaptureFn fn, void* context, unsigned mask);
Capture getCapture();

// Events enabled whatever the tracepoints say: the capture's and the stderr mirror's. One word,
// so that a disabled event still costs the tracepoint's state and this one test.
extern unsigned g_forcedMask;
// False while a capture owns the enabled state.
extern bool g_tracepointsDecide;

// The stderr mirror: every emit of the events in `mask` is also written to standard error as one
// line, "EVENT CATEGORY LOCATION MESSAGE", whether or not a tracing session records it.
void setStderrMirror(unsigned mask);
// Parses a comma list of event names (any case; blanks around names ignored) into a mask.
// Unknown names are left out and returned, comma-separated, in `unknown`.
unsigned parseEventList(const char* list, std::string& unknown);
inline constexpr const char* kStderrMirrorVariable = "SOLICD_TRACE_STDERR";
// The operator's setting (the value of kStderrMirrorVariable, or null): applies what it
// names and reports anything it cannot use in one line on stderr.
void mirrorToStderrFrom(const char* setting);

void emit(TraceEvent event, const char* location, const char* category, const char* message);

// The enabled test for a call site whose event is chosen at run time.
bool isEnabled(TraceEvent event);

}  // namespace trace
}  // namespace solicd

#define SOL_TRACE_STR2(x) #x
#define SOL_TRACE_STR(x) SOL_TRACE_STR2(x)
#define SOL_TRACE_LOCATION __FILE_NAME__ ":" SOL_TRACE_STR(__LINE__)

#define SOL_TRACE_ENABLED(EV)                                                                            \
    ((lttng_ust_tracepoint_enabled(com_orvane_kt_solicd, EV) && ::solicd::trace::g_tracepointsDecide) || \
     (::solicd::trace::g_forcedMask & ::solicd::trace::bit(::solicd::TraceEvent::EV)))

// SOL_TRACE(INFO, "GENERAL", "init", "[%s] Solicd initialization started", getTraceTag());
// Nothing after the category is evaluated while the event is disabled.
#define SOL_TRACE(EV, CATEGORY, FUNCTION, ...)                                             \
    do {                                                                                   \
        if (SOL_TRACE_ENABLED(EV)) {                                                       \
            ::solicd::trace::emit(::solicd::TraceEvent::EV, SOL_TRACE_LOCATION, CATEGORY,  \
                                  ::solicd::traceFormat("%s(): ", FUNCTION, __VA_ARGS__)); \
        }                                                                                  \
    } while (0)

// SOL_TRACE with the event as a value (for example one mapped from a GLib log level).
#define SOL_TRACE_AT(EVENT, CATEGORY, FUNCTION, ...)                                       \
    do {                                                                                   \
        const ::solicd::TraceEvent solTraceEvent_ = (EVENT);                               \
        if (::solicd::trace::isEnabled(solTraceEvent_)) {                                  \
            ::solicd::trace::emit(solTraceEvent_, SOL_TRACE_LOCATION, CATEGORY,            \
                                  ::solicd::traceFormat("%s(): ", FUNCTION, __VA_ARGS__)); \
        }                                                                                  \
    } while (0)

// Traces the text at ERROR ("GENERAL") and requests a restart with the same text; never returns.
#define SOL_FATAL(FUNCTION, ...)                                        \
    do {                                                                \
        SOL_TRACE(ERROR, "GENERAL", FUNCTION, __VA_ARGS__);             \
        ::solicd::restartOnFatalError(__LINE__, __FILE__, __VA_ARGS__); \
    } while (0)
