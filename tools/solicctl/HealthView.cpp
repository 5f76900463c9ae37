#include "HealthView.h"

#include <algorithm>
#include <cmath>
#include <sstream>

#include "Durations.h"
#include "RecordWords.h"
#include "Table.h"
#include "Terminal.h"

namespace solicd::ctl {
namespace {

using Json = nlohmann::json;

// "malformed_option 1, prefix_length 2 ignored"
std::string reasons(const Json& dropped, const Json& ignored) {
    std::string text;
    for (const auto& [reason, count] : dropped.items()) {
        text += (text.empty() ? "" : ", ") + reason + " " + std::to_string(count.get<uint64_t>());
    }
    for (const auto& [reason, count] : ignored.items()) {
        text +=
            (text.empty() ? "" : ", ") + reason + " " + std::to_string(count.get<uint64_t>()) + " ignored";
    }
    return text.empty() ? "-" : text;
}

std::string conflicts(const Json& list) {
    std::string text;
    for (const auto& c : list) {
        text += (text.empty() ? "" : "; ") + c["field"].get<std::string>() + ": " +
                c["here"].get<std::string>() + " here, " + c["there"].get<std::string>() + " at " +
                c["peer"].get<std::string>();
    }
    return text.empty() ? "-" : text;
}

std::string usual(const Json& interval) {
    if (interval["count"].get<uint64_t>() == 0) {
        return "-";
    }
    return "every " + durationText(std::llround(interval["mean"].get<double>()));
}

// A label value as OpenMetrics writes it: backslash, quote and line end escaped.
std::string label(const std::string& value) {
    std::string out;
    for (const char c : value) {
        if (c == '\\' || c == '"') {
            out += '\\';
            out += c;
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    return "\"" + out + "\"";
}

// One family: its # TYPE, # UNIT when in seconds, # HELP, then its samples.
class Family {
public:
    Family(std::string name, const char* type, std::string help)
        : m_name(std::move(name)), m_type(type), m_help(std::move(help)) {}

    void add(const std::string& labels, const std::string& value) {
        const std::string suffix = m_type == std::string("counter") ? "_total" : "";
        m_samples += m_name + suffix + (labels.empty() ? "" : "{" + labels + "}") + " " + value + "\n";
    }

    std::string text(MetricsFormat format) const {
        if (format == MetricsFormat::Prometheus) {
            // The family named as its samples are; no units.
            const std::string name = m_name + (m_type == std::string("counter") ? "_total" : "");
            return "# HELP " + name + " " + m_help + "\n# TYPE " + name + " " + m_type + "\n" + m_samples;
        }
        std::string out = "# TYPE " + m_name + " " + m_type + "\n";
        const std::string unit = "_seconds";
        if (m_name.size() > unit.size() &&
            m_name.compare(m_name.size() - unit.size(), unit.size(), unit) == 0) {
            out += "# UNIT " + m_name + " seconds\n";
        }
        return out + "# HELP " + m_name + " " + m_help + "\n" + m_samples;
    }

private:
    std::string m_name;
    const char* m_type;
    std::string m_help;
    std::string m_samples;
};

std::string number(double value) {
    std::ostringstream os;
    os << value;
    return os.str();
}

// A count of what the document says it left out (solicd keeps at most so many of each); 0 when
// the document has none.
uint64_t leftOut(const Json& doc, const char* key) {
    const auto it = doc.find(key);
    return it != doc.end() && it->is_number_unsigned() ? it->get<uint64_t>() : 0;
}

std::string left(int64_t start, uint32_t lifetime, int64_t now) {
    if (lifetime == kInfiniteLifetime) {
        return "+Inf";
    }
    return std::to_string(std::max<int64_t>(0, start + lifetime - now));
}

// What the views read of one entry of a list, and of which type; a document that lacks one is
// refused whole rather than half shown.
struct Member {
    const char* key;
    bool (Json::*is)() const noexcept;
    const char* type;
};
constexpr Member kRouterMembers[] = {
    {"address", &Json::is_string, "a string"},     {"state", &Json::is_string, "a string"},
    {"ras", &Json::is_number_unsigned, "a count"}, {"lastRa", &Json::is_number_integer, "a time"},
    {"interval", &Json::is_object, "an object"},   {"gaps", &Json::is_number_unsigned, "a count"},
    {"dropped", &Json::is_object, "an object"},    {"prefixesIgnored", &Json::is_object, "an object"},
    {"conflicts", &Json::is_array, "a list"}};
constexpr Member kIntervalMembers[] = {{"count", &Json::is_number_unsigned, "a count"},
                                       {"last", &Json::is_number_integer, "a number of seconds"},
                                       {"min", &Json::is_number_integer, "a number of seconds"},
                                       {"max", &Json::is_number_integer, "a number of seconds"},
                                       {"mean", &Json::is_number, "a number of seconds"}};
constexpr Member kConflictMembers[] = {{"peer", &Json::is_string, "a string"},
                                       {"field", &Json::is_string, "a string"},
                                       {"here", &Json::is_string, "a string"},
                                       {"there", &Json::is_string, "a string"}};
constexpr Member kSourceMembers[] = {{"address", &Json::is_string, "a string"},
                                     {"lastSeen", &Json::is_number_integer, "a time"},
                                     {"dropped", &Json::is_object, "an object"},
                                     {"prefixesIgnored", &Json::is_object, "an object"}};

template <size_t N>
bool hasMembers(const Json& entry, const Member (&members)[N], const std::string& what, std::string& error) {
    if (!entry.is_object()) {
        error = "a health document with " + what + " that is not an object";
        return false;
    }
    for (const Member& m : members) {
        const auto it = entry.find(m.key);
        if (it == entry.end() || !((*it).*m.is)()) {
            error = "a health document with " + what + " whose " + m.key + " is not " + m.type;
            return false;
        }
    }
    return true;
}

// Counts by reason: every value a count.
bool areCounts(const Json& counts, const std::string& what, std::string& error) {
    for (const auto& [reason, count] : counts.items()) {
        if (!count.is_number_unsigned()) {
            error = "a health document with " + what + " whose count of " + reason + " is not a count";
            return false;
        }
    }
    return true;
}

bool wellFormed(const Json& doc, std::string& error) {
    for (const Json& r : doc["routers"]) {
        if (!hasMembers(r, kRouterMembers, "a router", error) ||
            !hasMembers(r["interval"], kIntervalMembers, "a router's interval", error) ||
            !areCounts(r["dropped"], "a router", error) ||
            !areCounts(r["prefixesIgnored"], "a router", error)) {
            return false;
        }
        for (const Json& c : r["conflicts"]) {
            if (!hasMembers(c, kConflictMembers, "a conflict", error)) {
                return false;
            }
        }
    }
    for (const Json& o : doc["otherSources"]) {
        if (!hasMembers(o, kSourceMembers, "another source", error) ||
            !areCounts(o["dropped"], "another source", error) ||
            !areCounts(o["prefixesIgnored"], "another source", error)) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool readHealth(const std::string& text, HealthDocument& out, std::string& error) {
    out.doc = Json::parse(text, nullptr, false);
    if (out.doc.is_discarded() || !out.doc.is_object()) {
        error = "not a JSON document";
        return false;
    }
    if (!out.doc.contains("version") || out.doc["version"] != 1) {
        error = "a health document of version " +
                (out.doc.contains("version") ? out.doc["version"].dump() : "none") +
                ", this solicctl reads version 1; check that solicd and solicctl are of one version";
        return false;
    }
    if (!out.doc.contains("routers") || !out.doc["routers"].is_array() || !out.doc.contains("otherSources") ||
        !out.doc["otherSources"].is_array()) {
        error = "a health document without its lists";
        return false;
    }
    return wellFormed(out.doc, error);
}

std::string healthText(const std::string& mbox, const HealthDocument& health, int64_t now, bool colour) {
    const Json& routers = health.doc["routers"];
    const Json& others = health.doc["otherSources"];
    std::string text = paint(mbox, Tone::Heading, colour) + ": " + std::to_string(routers.size()) +
                       (routers.size() == 1 ? " router" : " routers") + " heard, " +
                       std::to_string(others.size()) +
                       (others.size() == 1 ? " other source" : " other sources") + " of dropped RAs\n";
    // Said only when something was left out, and where the reader looks first.
    const uint64_t dropped = leftOut(health.doc, "conflictsDropped");
    const uint64_t forgotten = leftOut(health.doc, "otherSourcesForgotten");
    if (dropped != 0) {
        // Each conflict is listed under both routers.
        size_t listed = 0;
        for (const Json& r : routers) {
            listed += r["conflicts"].size();
        }
        text += paint("Conflicts: " + std::to_string(listed / 2) + " kept, " + std::to_string(dropped) +
                          " more disagreements found and not kept",
                      Tone::Warn, colour) +
                "\n";
    }
    if (forgotten != 0) {
        text += "Other sources: " + std::to_string(others.size()) + " kept, " + std::to_string(forgotten) +
                " forgotten for newer ones\n";
    }
    if (!routers.empty()) {
        Table table({"ADDRESS", "STATE", "RAS", "LAST RA", "USUAL", "GAPS", "DROPS", "CONFLICTS"});
        for (const Json& r : routers) {
            const std::string state = r["state"].get<std::string>();
            const bool active = state == "STATE_NEW" || state == "STATE_UPDATED";
            const bool conflicted = !r["conflicts"].empty();
            table.addRow({{r["address"].get<std::string>()},
                          {state.empty() ? "-" : state, active ? Tone::Good : Tone::Dim},
                          {std::to_string(r["ras"].get<uint64_t>())},
                          {agoText(now - r["lastRa"].get<int64_t>())},
                          {usual(r["interval"])},
                          {std::to_string(r["gaps"].get<uint64_t>())},
                          {reasons(r["dropped"], r["prefixesIgnored"])},
                          {conflicts(r["conflicts"]), conflicted ? Tone::Warn : Tone::Plain}});
        }
        text += "\n" + table.render(colour);
    }
    if (!others.empty()) {
        Table table({"OTHER SOURCE", "LAST DROP", "DROPS"});
        for (const Json& o : others) {
            table.addRow({{o["address"].get<std::string>()},
                          {agoText(now - o["lastSeen"].get<int64_t>())},
                          {reasons(o["dropped"], o["prefixesIgnored"])}});
        }
        text += "\n" + table.render(colour);
    }
    return text;
}

std::string metricsText(const HealthDocument& health, const SolCacheText& cache, int64_t now,
                        MetricsFormat format) {
    Family received("solicd_ra_received", "counter", "Router Advertisements received from the router.");
    Family interval(
        "solicd_ra_interval_seconds", "gauge",
        "Interval between the router's RAs: the last, the shortest, the longest, the moving mean.");
    Family silent("solicd_ra_silent_seconds", "gauge", "Time since the router's last RA.");
    Family gaps("solicd_ra_gaps", "counter", "Intervals over three times the router's usual one.");
    Family dropped("solicd_ra_dropped", "counter", "RAs the parser dropped, by source and reason.");
    Family ignored("solicd_prefixes_ignored", "counter",
                   "Prefix options the parser ignored, by source and reason.");
    Family conflicts(
        "solicd_router_conflicts", "gauge",
        "1 while the router disagrees with a peer on a field (M flag, O flag, timers, lifetimes).");
    Family lifetime("solicd_router_lifetime_remaining_seconds", "gauge",
                    "Router lifetime left, 0 once expired.");
    Family valid("solicd_prefix_valid_remaining_seconds", "gauge",
                 "Valid lifetime left of an on-link prefix.");
    Family preferred("solicd_prefix_preferred_remaining_seconds", "gauge",
                     "Preferred lifetime left of an on-link prefix.");
    Family dns("solicd_dns_servers_active", "gauge", "Recursive DNS servers in use.");
    Family conflictsNotKept("solicd_router_conflicts_dropped", "counter",
                            "Disagreements between routers found while solicd kept its most conflicts; "
                            "not in solicd_router_conflicts.");
    Family sourcesForgotten("solicd_other_sources_forgotten", "counter",
                            "Sources of dropped RAs that are not routers, forgotten for newer ones.");

    const auto bySource = [](Family& family, const std::string& source, const Json& counts) {
        for (const auto& [reason, count] : counts.items()) {
            family.add("router=" + label(source) + ",reason=" + label(reason),
                       std::to_string(count.get<uint64_t>()));
        }
    };
    for (const Json& r : health.doc["routers"]) {
        const std::string router = "router=" + label(r["address"].get<std::string>());
        received.add(router, std::to_string(r["ras"].get<uint64_t>()));
        for (const char* stat : {"last", "min", "max", "mean"}) {
            interval.add(router + ",stat=" + label(stat), number(r["interval"][stat].get<double>()));
        }
        silent.add(router, std::to_string(now - r["lastRa"].get<int64_t>()));
        gaps.add(router, std::to_string(r["gaps"].get<uint64_t>()));
        bySource(dropped, r["address"].get<std::string>(), r["dropped"]);
        bySource(ignored, r["address"].get<std::string>(), r["prefixesIgnored"]);
        for (const Json& c : r["conflicts"]) {
            conflicts.add(router + ",peer=" + label(c["peer"].get<std::string>()) +
                              ",field=" + label(c["field"].get<std::string>()),
                          "1");
        }
    }
    for (const Json& o : health.doc["otherSources"]) {
        bySource(dropped, o["address"].get<std::string>(), o["dropped"]);
        bySource(ignored, o["address"].get<std::string>(), o["prefixesIgnored"]);
    }
    for (const SolRouter& r : cache.routers) {
        lifetime.add("router=" + label(keyOf(r)),
                     isActive(r) ? left(r.m_status.timeoutStartTime, r.m_config.routerLifetime, now) : "0");
    }
    for (const SolNetwork& n : cache.networks) {
        // A deprecated prefix is still valid.
        const bool stillValid =
            isActive(n) || n.m_status.state == static_cast<uint32_t>(sol_network_state_t::STATE_DEPRECATED);
        valid.add("prefix=" + label(keyOf(n)),
                  stillValid ? left(n.m_status.timeoutStartTime, n.m_config.validLifetime, now) : "0");
        preferred.add(
            "prefix=" + label(keyOf(n)),
            isActive(n) ? left(n.m_status.timeoutStartTime, n.m_config.preferredLifetime, now) : "0");
    }
    dns.add("", std::to_string(std::count_if(cache.dnsServers.begin(), cache.dnsServers.end(),
                                             [](const SolDnsServer& d) { return isActive(d); })));
    conflictsNotKept.add("", std::to_string(leftOut(health.doc, "conflictsDropped")));
    sourcesForgotten.add("", std::to_string(leftOut(health.doc, "otherSourcesForgotten")));

    std::string text;
    for (const Family* f : {&received, &interval, &silent, &gaps, &dropped, &ignored, &conflicts,
                            &conflictsNotKept, &sourcesForgotten, &lifetime, &valid, &preferred, &dns}) {
        text += f->text(format);
    }
    return format == MetricsFormat::OpenMetrics ? text + "# EOF\n" : text;
}

}  // namespace solicd::ctl
