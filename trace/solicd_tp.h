/* Tracepoint provider com_orvane_kt_solicd: four events, each (location, category, message). */
#undef LTTNG_UST_TRACEPOINT_PROVIDER
#define LTTNG_UST_TRACEPOINT_PROVIDER com_orvane_kt_solicd

#undef LTTNG_UST_TRACEPOINT_INCLUDE
#define LTTNG_UST_TRACEPOINT_INCLUDE "solicd_tp.h"

#if !defined(SOLICD_TP_H) || defined(LTTNG_UST_TRACEPOINT_HEADER_MULTI_READ)
#define SOLICD_TP_H

#include <lttng/tracepoint.h>

LTTNG_UST_TRACEPOINT_EVENT_CLASS(
    com_orvane_kt_solicd, text,
    LTTNG_UST_TP_ARGS(const char *, location, const char *, category, const char *, message),
    LTTNG_UST_TP_FIELDS(lttng_ust_field_string(location, location)
                            lttng_ust_field_string(category, category)
                                lttng_ust_field_string(message, message)))

#define SOLICD_TP_EVENT(name)                                                                    \
    LTTNG_UST_TRACEPOINT_EVENT_INSTANCE(                                                         \
        com_orvane_kt_solicd, text, com_orvane_kt_solicd, name,                                  \
        LTTNG_UST_TP_ARGS(const char *, location, const char *, category, const char *, message))

SOLICD_TP_EVENT(INFO)
SOLICD_TP_EVENT(ERROR)
SOLICD_TP_EVENT(EXCEPTION)
SOLICD_TP_EVENT(LAB)

#endif /* SOLICD_TP_H */

#include <lttng/tracepoint-event.h>
