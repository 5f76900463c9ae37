#define LTTNG_UST_TRACEPOINT_DEFINE
#include "TraceLog.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "orv_restart.h"

namespace solicd {
namespace {

std::string& tagStorage() {
    // Lives until process exit: traces may be emitted from a signal handler during exit.
    static std::string* tag = new std::string();
    return *tag;
}

thread_local char t_formatBuffer[kTraceBufferSize];

trace::Capture g_capture;
unsigned g_stderrMask = 0;

constexpr TraceEvent kEvents[] = {TraceEvent::INFO, TraceEvent::ERROR, TraceEvent::EXCEPTION,
                                  TraceEvent::LAB};

// Appends `text` to the line being built at `at`, up to `end`; line breaks become blanks so that
// one trace stays one line.
char* appendToLine(char* at, const char* end, std::string_view text) {
    for (const char c : text) {
        if (at == end) {
            break;
        }
        *at++ = c == '\n' || c == '\r' ? ' ' : c;
    }
    return at;
}

// One write of one whole line, with nothing that allocates or locks: traces are also emitted in
// signal context.
void writeStderrLine(TraceEvent event, const char* location, const char* category, const char* message) {
    char line[kTraceBufferSize + kTraceNameLimit];
    const char* const end = line + sizeof line - 1;
    char* at = line;
    for (const std::string_view part : {std::string_view(eventName(event)), std::string_view(category),
                                        std::string_view(location), std::string_view(message)}) {
        if (at != line) {
            at = appendToLine(at, end, " ");
        }
        at = appendToLine(at, end, part);
    }
    *at++ = '\n';
    const int savedErrno = errno;
    const char* pending = line;
    while (pending < at) {
        const ssize_t written = ::write(STDERR_FILENO, pending, static_cast<size_t>(at - pending));
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            break;
        }
        pending += written;
    }
    errno = savedErrno;
}

// Hands the record to the tracepoint of its event, when a session enables it.
void emitToTracepoint(TraceEvent event, const char* location, const char* category, const char* message) {
    switch (event) {
        case TraceEvent::INFO:
            if (lttng_ust_tracepoint_enabled(com_orvane_kt_solicd, INFO)) {
                lttng_ust_do_tracepoint(com_orvane_kt_solicd, INFO, location, category, message);
            }
            break;
        case TraceEvent::ERROR:
            if (lttng_ust_tracepoint_enabled(com_orvane_kt_solicd, ERROR)) {
                lttng_ust_do_tracepoint(com_orvane_kt_solicd, ERROR, location, category, message);
            }
            break;
        case TraceEvent::EXCEPTION:
            if (lttng_ust_tracepoint_enabled(com_orvane_kt_solicd, EXCEPTION)) {
                lttng_ust_do_tracepoint(com_orvane_kt_solicd, EXCEPTION, location, category, message);
            }
            break;
        case TraceEvent::LAB:
            if (lttng_ust_tracepoint_enabled(com_orvane_kt_solicd, LAB)) {
                lttng_ust_do_tracepoint(com_orvane_kt_solicd, LAB, location, category, message);
            }
            break;
    }
}

void updateForcedMask() {
    trace::g_forcedMask = (g_capture.fn != nullptr ? g_capture.mask : 0) | g_stderrMask;
    trace::g_tracepointsDecide = g_capture.fn == nullptr;
}

}  // namespace

const char* getTraceTag() {
    return tagStorage().c_str();
}

void setTraceTag(const std::string& text) {
    tagStorage() = text;
}

const char* traceFormat(const char* prefixFmt, const char* function, const char* fmt, ...) {
    char* buf = t_formatBuffer;
    size_t n = 0;
    buf[0] = '\0';
    if (function != nullptr) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
        const int written = snprintf(buf, kTraceNameLimit, prefixFmt, function);
#pragma GCC diagnostic pop
        n = static_cast<size_t>(std::clamp(written, 0, static_cast<int>(kTraceNameLimit - 1)));
    }
    if (fmt != nullptr) {
        va_list args;
        va_start(args, fmt);
        vsnprintf(buf + n, kTraceBufferSize - n, fmt, args);
        va_end(args);
    }
    return buf;
}

void restartOnFatalError(int line, const char* file, const char* fmt, ...) {
    char text[kRestartTextSize];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    orv_ng_restart_request_line_and_file(line, file, 1, text, 0, 0);
    // The platform ends us; until it does, sleep instead of spinning.
    for (;;) {
        pause();
    }
}

namespace trace {

unsigned g_forcedMask = 0;
bool g_tracepointsDecide = true;

void setCapture(CaptureFn fn, void* context, unsigned mask) {
    g_capture = Capture{fn, fn != nullptr ? context : nullptr, fn != nullptr ? mask : 0};
    updateForcedMask();
}

Capture getCapture() {
    return g_capture;
}

void setStderrMirror(unsigned mask) {
    g_stderrMask = mask & kAllEvents;
    updateForcedMask();
}

unsigned parseEventList(const char* list, std::string& unknown) {
    unknown.clear();
    unsigned mask = 0;
    std::string_view rest = list != nullptr ? list : "";
    while (!rest.empty()) {
        const size_t comma = rest.find(',');
        std::string_view word = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view() : rest.substr(comma + 1);
        while (!word.empty() && (word.front() == ' ' || word.front() == '\t')) {
            word.remove_prefix(1);
        }
        while (!word.empty() && (word.back() == ' ' || word.back() == '\t')) {
            word.remove_suffix(1);
        }
        if (word.empty()) {
            continue;
        }
        const auto* known = std::find_if(std::begin(kEvents), std::end(kEvents), [word](TraceEvent e) {
            const std::string_view name = eventName(e);
            return name.size() == word.size() && strncasecmp(name.data(), word.data(), word.size()) == 0;
        });
        if (known != std::end(kEvents)) {
            mask |= bit(*known);
        } else {
            unknown.append(unknown.empty() ? "" : ",").append(word);
        }
    }
    return mask;
}

void mirrorToStderrFrom(const char* setting) {
    std::string unknown;
    setStderrMirror(parseEventList(setting, unknown));
    if (!unknown.empty()) {
        std::fprintf(stderr,
                     "solicd: %s: '%s' ignored: name events from INFO, ERROR, EXCEPTION, LAB, "
                     "separated by commas\n",
                     trace::kStderrMirrorVariable, unknown.c_str());
    }
}

bool isEnabled(TraceEvent event) {
    switch (event) {
        case TraceEvent::INFO:
            return SOL_TRACE_ENABLED(INFO);
        case TraceEvent::ERROR:
            return SOL_TRACE_ENABLED(ERROR);
        case TraceEvent::EXCEPTION:
            return SOL_TRACE_ENABLED(EXCEPTION);
        case TraceEvent::LAB:
            return SOL_TRACE_ENABLED(LAB);
    }
    return false;
}

void emit(TraceEvent event, const char* location, const char* category, const char* message) {
    if (g_tracepointsDecide) {
        emitToTracepoint(event, location, category, message);
    }
    if ((g_stderrMask & bit(event)) != 0) {
        writeStderrLine(event, location, category, message);
    }
    if (g_capture.fn != nullptr && (g_capture.mask & bit(event)) != 0) {
        g_capture.fn(g_capture.context, event, location, category, message);
    }
}

}  // namespace trace
}  // namespace solicd
