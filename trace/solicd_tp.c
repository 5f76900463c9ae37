/* The probe library: the only translation unit that creates the probes. */
#define LTTNG_UST_TRACEPOINT_CREATE_PROBES
#define LTTNG_UST_TRACEPOINT_DEFINE
#include "solicd_tp.h"
