// The cost of a trace at a call site, with one of the daemon's own LAB messages:
//  - the event disabled (no capture, no LTTng session enabling it): what every RA pays for the
//    traces nobody reads;
//  - the event enabled but recorded nowhere, through the capture seam with a sink that drops the
//    record: the formatting and the hand-over, without any tracer's own cost;
//  - the event enabled by an LTTng session whose filter rejects every record (run only when such
//    a session is active, see below): the formatting plus LTTng's probe and filter;
//  - traceFormat alone, beside the reference of one snprintf of the same finished text.
// For the LTTng case, as root with a session daemon running:
//   lttng create flt --snapshot && lttng enable-event -u 'com_orvane_kt_solicd:LAB' --filter '0 == 1'
//   lttng start flt && build/bin/bench_trace; lttng destroy flt
#include <benchmark/benchmark.h>

#include <cstdio>

#include "TraceLog.h"

namespace solicd {
namespace {

constexpr const char* kTag = "solcid.ns1-eth0";
constexpr const char* kName = "network/2001:db8:1::/64";
constexpr unsigned kInterval = 1800000;
constexpr unsigned kHandler = 4711;

// One LAB message as the timers write it on every RA.
#define TIMER_ADDED_TRACE()                                                                               \
    SOL_TRACE(LAB, "GENERAL", "add", "[%s] Timer %s is added, timeout %u msec, handler: %u", kTag, kName, \
              kInterval, kHandler)

void dropRecord(void*, TraceEvent, const char*, const char*, const char* message) {
    benchmark::DoNotOptimize(message);
}

bool lttngEnablesLab() {
    return lttng_ust_tracepoint_enabled(com_orvane_kt_solicd, LAB);
}

void BM_TraceDisabled(benchmark::State& state) {
    if (SOL_TRACE_ENABLED(LAB)) {
        state.SkipWithError("LAB is enabled (an LTTng session is active): nothing to measure here");
        return;
    }
    for (auto _ : state) {
        TIMER_ADDED_TRACE();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_TraceDisabled);

void BM_TraceEnabledUnrecorded_CaptureSeam(benchmark::State& state) {
    if (lttngEnablesLab()) {
        state.SkipWithError("LAB is enabled by an LTTng session: the figure would include its probe");
        return;
    }
    trace::setCapture(&dropRecord, nullptr, trace::bit(TraceEvent::LAB));
    for (auto _ : state) {
        TIMER_ADDED_TRACE();
    }
    trace::setCapture(nullptr, nullptr, 0);
}
BENCHMARK(BM_TraceEnabledUnrecorded_CaptureSeam);

void BM_TraceEnabledUnrecorded_LttngFilterRejectsAll(benchmark::State& state) {
    if (!lttngEnablesLab()) {
        state.SkipWithError("no LTTng session enables LAB (see the head of TraceBench.cpp)");
        return;
    }
    for (auto _ : state) {
        TIMER_ADDED_TRACE();
    }
}
BENCHMARK(BM_TraceEnabledUnrecorded_LttngFilterRejectsAll);

void BM_TraceFormat(benchmark::State& state) {
    for (auto _ : state) {
        benchmark::DoNotOptimize(traceFormat("%s(): ", "add",
                                             "[%s] Timer %s is added, timeout %u msec, handler: %u", kTag,
                                             kName, kInterval, kHandler));
    }
}
BENCHMARK(BM_TraceFormat);

// Reference: the finished text written by one snprintf.
void BM_Reference_SnprintfOfTheSameText(benchmark::State& state) {
    char buffer[kTraceBufferSize];
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(buffer, sizeof buffer,
                                               "%s(): [%s] Timer %s is added, timeout %u msec, handler: %u",
                                               "add", kTag, kName, kInterval, kHandler));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Reference_SnprintfOfTheSameText);

}  // namespace
}  // namespace solicd
