// Emits one trace of each event through the daemon's trace log, so that a test can check what
// reaches an LTTng session. The expected texts live in lttng_trace_test.sh.
#include "TraceLog.h"

int main() {
    solicd::setTraceTag("solcid.it-eth0");
    SOL_TRACE(INFO, "GENERAL", "init", "[%s] Solicd initialization started", solicd::getTraceTag());
    SOL_TRACE(ERROR, "ADDR_IPV6", "orderTimeout", "[%s] error %d of %s", solicd::getTraceTag(), 42,
              "emitter");
    SOL_TRACE(EXCEPTION, "GENERAL", "receive", "[%s] exception text", solicd::getTraceTag());
    SOL_TRACE(LAB, "ADDR_IPV6", "addFdEvent", "[%s] lab %u", solicd::getTraceTag(), 7u);
    return 0;
}
