#define LTTNG_UST_TRACEPOINT_DEFINE
#include "TraceLog.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "orv_restart.h"

namespace solicd {
namespace {

std::string& tagStorage() {
    // Lives until process exit: traces may be emitted from a signal handler during exit.
    static std::string* tag = new std::string();
    return *tag;
}

thread_local char t_formatBuffer[kTraceBufferSize];

trace::CaptureFn g_captureFn = nullptr;
void* g_captureContext = nullptr;

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

unsigned g_captureMask = 0;

void setCapture(CaptureFn fn, void* context, unsigned mask) {
    g_captureFn = fn;
    g_captureContext = context;
    g_captureMask = fn != nullptr ? mask : 0;
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
    if (g_captureFn != nullptr && (g_captureMask & bit(event)) != 0) {
        g_captureFn(g_captureContext, event, location, category, message);
    }
}

}  // namespace trace
}  // namespace solicd
