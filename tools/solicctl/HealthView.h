// `solicctl health` and `solicctl metrics`: solicd's health answer (a JSON document) for people,
// as aligned tables, and with the cache for scrapers, as OpenMetrics text.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

#include "SolTypesParse.h"

namespace solicd::ctl {

// The health answer's document, version 1.
struct HealthDocument {
    nlohmann::json doc;
};

// Reads the health answer's text; false with `error` for a document this solicctl cannot read
// (not JSON, another version, or without its lists).
bool readHealth(const std::string& text, HealthDocument& out, std::string& error);

// Per router: address, state, RAs, the last RA ("3s ago"), the usual interval, gaps, drops by
// reason, conflicts ("M flag: 1 here, 0 at fe80::2"); then the sources that are not routers.
std::string healthText(const std::string& mbox, const HealthDocument& health, int64_t now, bool colour);

// Every family with # HELP and # TYPE; `now` counts the lifetimes left. OpenMetrics text (units,
// counters named without their _total, # EOF at the end), or with `prometheus` the older
// Prometheus text format that node_exporter's textfile collector reads.
enum class MetricsFormat { OpenMetrics, Prometheus };
std::string metricsText(const HealthDocument& health, const SolCacheText& cache, int64_t now,
                        MetricsFormat format = MetricsFormat::OpenMetrics);

}  // namespace solicd::ctl
