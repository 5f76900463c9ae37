#include "SolTypesParse.h"

#include <arpa/inet.h>

#include <cstring>
#include <limits>
#include <sstream>
#include <type_traits>

namespace solicd {
namespace {

// Reads a text front to back; the first failure is kept with its offset and ends the reading.
class Cursor {
public:
    explicit Cursor(std::string_view text) : m_text(text) {}

    bool literal(std::string_view word) {
        if (m_text.substr(m_pos, word.size()) != word) {
            return fail("expected '" + std::string(word) + "'");
        }
        m_pos += word.size();
        return true;
    }

    bool startsWith(std::string_view word) const { return m_text.substr(m_pos, word.size()) == word; }
    bool atEnd() const { return m_pos == m_text.size(); }

    // A decimal number as `<<` prints it: an optional '-' for signed types, then digits.
    template <class T>
    bool number(T& out) {
        static_assert(std::is_integral_v<T>);
        const bool negative = std::is_signed_v<T> && startsWith("-");
        size_t at = m_pos + (negative ? 1 : 0);
        const size_t first = at;
        using Wide = std::make_unsigned_t<T>;
        // The largest magnitude: one more for a negative number of a signed type.
        const Wide limit = negative ? static_cast<Wide>(static_cast<Wide>(std::numeric_limits<T>::max()) + 1)
                                    : static_cast<Wide>(std::numeric_limits<T>::max());
        Wide value = 0;
        while (at < m_text.size() && m_text[at] >= '0' && m_text[at] <= '9') {
            const auto digit = static_cast<Wide>(m_text[at] - '0');
            if (value > (limit - digit) / 10) {
                return fail("number out of range");
            }
            value = static_cast<Wide>(value * 10 + digit);
            ++at;
        }
        if (at == first) {
            return fail("expected a number");
        }
        m_pos = at;
        out = negative ? static_cast<T>(-static_cast<std::make_signed_t<Wide>>(value - 1) - 1)
                       : static_cast<T>(value);
        return true;
    }

    // "0x" and lower-case hex digits, as the flags are printed.
    bool hexFlags(uint32_t& out) {
        if (!literal("0x")) {
            return false;
        }
        size_t at = m_pos;
        uint32_t value = 0;
        while (at < m_text.size() && std::strchr("0123456789abcdef", m_text[at]) != nullptr &&
               m_text[at] != 0) {
            if (value > (std::numeric_limits<uint32_t>::max() >> 4)) {
                return fail("flags out of range");
            }
            const char c = m_text[at];
            value = value << 4 | static_cast<uint32_t>(c <= '9' ? c - '0' : c - 'a' + 10);
            ++at;
        }
        if (at == m_pos) {
            return fail("expected hex digits");
        }
        m_pos = at;
        out = value;
        return true;
    }

    // An IPv6 address in text form.
    bool address(kt_ip_address_t& out) {
        size_t at = m_pos;
        while (at < m_text.size() && std::strchr("0123456789abcdefABCDEF:.", m_text[at]) != nullptr &&
               m_text[at] != 0) {
            ++at;
        }
        const std::string word(m_text.substr(m_pos, at - m_pos));
        kt_ip_address_t a{};
        a.family = KT_AF_INET6;
        if (word.empty() || inet_pton(AF_INET6, word.c_str(), a.bytes) != 1) {
            return fail("expected an IPv6 address");
        }
        m_pos = at;
        out = a;
        return true;
    }

    // A state by its name among those of `State`.
    template <class State>
    bool state(uint32_t& out) {
        size_t at = m_pos;
        while (at < m_text.size() && ((m_text[at] >= 'A' && m_text[at] <= 'Z') || m_text[at] == '_')) {
            ++at;
        }
        const std::string_view word = m_text.substr(m_pos, at - m_pos);
        constexpr uint32_t kHighestState = 5;
        for (uint32_t value = 0; value <= kHighestState; ++value) {
            const char* name = toCstr(static_cast<State>(value));
            if (std::strcmp(name, "UNKNOWN") != 0 && word == name) {
                m_pos = at;
                out = value;
                return true;
            }
        }
        return fail("expected a state name");
    }

    bool end() { return atEnd() || fail("unexpected text after the end"); }

    bool fail(const std::string& what) {
        if (m_error.empty()) {
            m_error = "at offset " + std::to_string(m_pos) + ": " + what;
        }
        return false;
    }
    const std::string& error() const { return m_error; }

private:
    std::string_view m_text;
    size_t m_pos = 0;
    std::string m_error;
};

// ", name: " then a number (or the first field: "name: " without the comma).
template <class T>
bool field(Cursor& c, const char* name, T& out, bool first = false) {
    return c.literal((first ? "" : ", ") + std::string(name) + ": ") && c.number(out);
}

template <class State, class S>
bool commonStatus(Cursor& c, S& s) {
    return c.literal("{") && field(c, "id", s.id, true) && c.literal(", state: ") &&
           c.state<State>(s.state) && field(c, "createdTime", s.createdTime) &&
           field(c, "lastUpdateTime", s.lastUpdateTime) &&
           field(c, "lastStateChangeTime", s.lastStateChangeTime) &&
           field(c, "lastConfigChangeTime", s.lastConfigChangeTime) &&
           field(c, "timeoutStartTime", s.timeoutStartTime) && field(c, "expiryTime", s.expiryTime) &&
           field(c, "updateCount", s.updateCount) && field(c, "configChangeCount", s.configChangeCount) &&
           field(c, "stateChangeCount", s.stateChangeCount) &&
           field(c, "invalidatedCount", s.invalidatedCount) && field(c, "expiredCount", s.expiredCount);
}

bool status(Cursor& c, SolRouter::Status& s) {
    return commonStatus<sol_router_state_t>(c, s) && c.literal("}");
}

bool status(Cursor& c, SolDnsServer::Status& s) {
    return commonStatus<sol_dns_server_state_t>(c, s) && c.literal("}");
}

bool status(Cursor& c, SolNetwork::Status& s) {
    return commonStatus<sol_network_state_t>(c, s) && field(c, "deprecatedCount", s.deprecatedCount) &&
           field(c, "lifetimeResetCount", s.lifetimeResetCount) &&
           field(c, "lifetimeIgnoredCount", s.lifetimeIgnoredCount) && c.literal("}");
}

bool config(Cursor& c, SolRouter::Config& r) {
    return c.literal("{address: ") && c.address(r.address) && field(c, "reachableTime", r.reachableTime) &&
           field(c, "retransTimer", r.retransTimer) && field(c, "routerLifetime", r.routerLifetime) &&
           c.literal(", flags: ") && c.hexFlags(r.flags) && c.literal("}");
}

bool config(Cursor& c, SolNetwork::Config& n) {
    return c.literal("{prefix: ") && c.address(n.prefix) && field(c, "prefixLength", n.prefixLength) &&
           field(c, "validLifetime", n.validLifetime) && field(c, "preferredLifetime", n.preferredLifetime) &&
           c.literal(", flags: ") && c.hexFlags(n.flags) && c.literal("}");
}

bool config(Cursor& c, SolDnsServer::Config& d) {
    return c.literal("{") && field(c, "index", d.index, true) && c.literal(", address: ") &&
           c.address(d.address) && field(c, "lifetime", d.lifetime) && c.literal("}");
}

template <class Record>
bool record(Cursor& c, Record& r) {
    r = Record{};
    return c.literal("{config: ") && config(c, r.m_config) && c.literal(", status: ") &&
           status(c, r.m_status) && c.literal("}");
}

bool counters(Cursor& c, SolCounter<sol_socket_counters_t>& counters) {
    auto& v = counters.m_counters;
    return c.literal("{") && field(c, "rxRa", v.rxRa, true) && field(c, "txRs", v.txRs) &&
           field(c, "txRsFailed", v.txRsFailed) && field(c, "rxRejected", v.rxRejected) && c.literal("}");
}

bool counters(Cursor& c, SolCounter<sol_packet_counters_t>& counters) {
    auto& v = counters.m_counters;
    return c.literal("{") && field(c, "raParsed", v.raParsed, true) && field(c, "raDropped", v.raDropped) &&
           field(c, "prefixAccepted", v.prefixAccepted) && field(c, "prefixIgnored", v.prefixIgnored) &&
           c.literal("}");
}

// A heading and the records under it, each ending with a line end.
template <class Record>
bool section(Cursor& c, const char* heading, std::vector<Record>& out) {
    if (!c.literal(heading)) {
        return false;
    }
    while (c.startsWith("{")) {
        Record r;
        if (!record(c, r) || !c.literal("\n")) {
            return false;
        }
        out.push_back(r);
    }
    return true;
}

// Reads all of `text` with `read`, or says where it went wrong.
template <class Read>
bool whole(std::string_view text, std::string& error, Read read) {
    Cursor c(text);
    if (read(c) && c.end()) {
        return true;
    }
    error = c.error();
    return false;
}

}  // namespace

bool solParseRecord(std::string_view text, SolRouter& out, std::string& error) {
    return whole(text, error, [&](Cursor& c) { return record(c, out); });
}

bool solParseRecord(std::string_view text, SolNetwork& out, std::string& error) {
    return whole(text, error, [&](Cursor& c) { return record(c, out); });
}

bool solParseRecord(std::string_view text, SolDnsServer& out, std::string& error) {
    return whole(text, error, [&](Cursor& c) { return record(c, out); });
}

bool solParseCounters(std::string_view text, SolCounter<sol_socket_counters_t>& out, std::string& error) {
    return whole(text, error, [&](Cursor& c) { return counters(c, out); });
}

bool solParseCounters(std::string_view text, SolCounter<sol_packet_counters_t>& out, std::string& error) {
    return whole(text, error, [&](Cursor& c) { return counters(c, out); });
}

bool solParseCacheText(std::string_view text, SolCacheText& out, std::string& error) {
    out = SolCacheText{};
    return whole(text, error, [&](Cursor& c) {
        return section(c, "\nRouters:", out.routers) && section(c, "\nNetworks:", out.networks) &&
               section(c, "\nDNS Servers:", out.dnsServers) && c.literal("\nCounters:") &&
               counters(c, out.socketCounters) && counters(c, out.packetCounters);
    });
}

}  // namespace solicd

namespace solicd {
namespace {

template <class Record>
void appendSection(std::ostream& os, const char* heading, const std::vector<Record>& records) {
    os << heading;
    for (const auto& r : records) {
        os << r << "\n";
    }
}

}  // namespace

std::string solCacheTextOf(const SolCacheText& cache) {
    std::ostringstream os;
    appendSection(os, "\nRouters:", cache.routers);
    appendSection(os, "\nNetworks:", cache.networks);
    appendSection(os, "\nDNS Servers:", cache.dnsServers);
    os << "\nCounters:" << cache.socketCounters << cache.packetCounters;
    return os.str();
}

}  // namespace solicd
