#include "RaHealth.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <nlohmann/json.hpp>
#include <tuple>

#include "TraceLog.h"

namespace solicd {
namespace {

constexpr const char* kCategory = "ADDR_IPV6";
// The moving mean follows the last eight intervals or so.
constexpr double kMeanWeight = 1.0 / 8;

using Json = nlohmann::ordered_json;

std::string text(const RaHealth::Address& a) {
    char out[KT_IP6_TEXT_SIZE];
    kt_ip6_address_text(a.data(), out);
    return out;
}

std::string lifetimeText(uint32_t seconds) {
    return seconds == kInfiniteLifetime ? "infinite" : std::to_string(seconds);
}

// Two announced lifetimes of one prefix agree when they are the same, or when both count down
// to the same moment (routers that decrement them in real time).
bool sameLifetime(uint32_t mine, time_t myTime, uint32_t theirs, time_t theirTime) {
    if (mine == theirs) {
        return true;
    }
    if (mine == kInfiniteLifetime || theirs == kInfiniteLifetime) {
        return false;
    }
    const int64_t myEnd = static_cast<int64_t>(myTime) + mine;
    const int64_t theirEnd = static_cast<int64_t>(theirTime) + theirs;
    return std::llabs(myEnd - theirEnd) <= RaHealth::kLifetimeSlackSeconds;
}

template <size_t N, class Name>
Json countsByName(const uint64_t (&counts)[N], Name name, size_t from = 0) {
    Json j = Json::object();
    for (size_t i = from; i < N; ++i) {
        if (counts[i] != 0) {
            j[name(i)] = counts[i];
        }
    }
    return j;
}

Json dropsJson(const uint64_t (&drops)[kRaDropCount]) {
    // Index 0 is RaDrop::None: not a drop.
    return countsByName(
        drops, [](size_t i) { return toCstr(static_cast<RaDrop>(i)); }, 1);
}

Json ignoredJson(const uint64_t (&ignored)[kPrefixIgnoreCount]) {
    return countsByName(ignored, [](size_t i) { return toCstr(static_cast<PrefixIgnore>(i)); });
}

}  // namespace

RaHealth::PrefixKey RaHealth::prefixKey(const SolNetwork::Config& n) {
    // The prefix masked to its length, as the cache keys it, then the length.
    PrefixKey key{};
    const uint32_t bits = std::min<uint32_t>(n.prefixLength, 128);
    std::memcpy(key.data(), n.prefix.bytes, bits / 8);
    if (bits % 8 != 0) {
        key[bits / 8] = static_cast<uint8_t>(n.prefix.bytes[bits / 8] & (0xff << (8 - bits % 8)));
    }
    key[16] = static_cast<uint8_t>(bits);
    return key;
}

RaHealth::Address RaHealth::addressOf(const kt_ip_address_t& address) {
    Address a;
    std::memcpy(a.data(), address.bytes, a.size());
    return a;
}

void RaHealth::onRa(const kt_ip_address_t& source, const SolRouter::Config* router,
                    const std::vector<SolNetwork::Config>& networks, const ParseOutcome& outcome, bool cached,
                    time_t now) {
    const Address from = addressOf(source);
    if (router == nullptr || !cached) {
        countOutcome(from, outcome, now);
        return;
    }
    auto [it, created] = m_routers.try_emplace(from);
    Router& r = it->second;
    if (created) {
        if (m_anyRouter && now - m_firstRouter > kLateRouterSeconds) {
            SOL_TRACE(INFO, kCategory, "onRa", "[%s] New router %s appeared %u s after the first router",
                      getTraceTag(), text(from).c_str(), static_cast<unsigned>(now - m_firstRouter));
        }
        if (!m_anyRouter) {
            m_anyRouter = true;
            m_firstRouter = now;
        }
        r.first = now;
    }
    noteArrival(from, r, now);
    for (size_t i = 0; i < kPrefixIgnoreCount; ++i) {
        r.prefixesIgnored[i] += outcome.prefixesIgnored[i];
    }
    ++r.drops[static_cast<size_t>(outcome.drop)];
    r.flags = router->flags;
    r.reachableTime = router->reachableTime != 0 ? router->reachableTime : r.reachableTime;
    r.retransTimer = router->retransTimer != 0 ? router->retransTimer : r.retransTimer;
    compare(from, r, networks, now);
    for (const SolNetwork::Config& n : networks) {
        const auto [it, added] =
            r.prefixes.insert_or_assign(prefixKey(n), PrefixSeen{n.validLifetime, n.preferredLifetime, now});
        if (added && r.prefixes.size() > kPrefixesPerRouterMax) {
            // A flood of new prefixes keeps the memory it may use: the one heard longest ago goes.
            r.prefixes.erase(
                std::min_element(r.prefixes.begin(), r.prefixes.end(),
                                 [](const auto& a, const auto& b) { return a.second.at < b.second.at; }));
        }
    }
}

void RaHealth::countOutcome(const Address& source, const ParseOutcome& outcome, time_t now) {
    if (outcome.drop == RaDrop::None &&
        std::all_of(std::begin(outcome.prefixesIgnored), std::end(outcome.prefixesIgnored),
                    [](uint32_t n) { return n == 0; })) {
        return;
    }
    if (const auto it = m_routers.find(source); it != m_routers.end()) {
        ++it->second.drops[static_cast<size_t>(outcome.drop)];
        return;
    }
    auto it = m_others.find(source);
    if (it == m_others.end()) {
        if (m_others.size() >= kOtherSourcesMax) {
            m_others.erase(
                std::min_element(m_others.begin(), m_others.end(),
                                 [](const auto& a, const auto& b) { return a.second.last < b.second.last; }));
            ++m_otherSourcesForgotten;
        }
        it = m_others.try_emplace(source).first;
    }
    Other& o = it->second;
    o.last = now;
    ++o.drops[static_cast<size_t>(outcome.drop)];
    for (size_t i = 0; i < kPrefixIgnoreCount; ++i) {
        o.prefixesIgnored[i] += outcome.prefixesIgnored[i];
    }
}

void RaHealth::noteArrival(const Address& source, Router& r, time_t now) {
    if (r.ras != 0) {
        const int64_t interval = now - r.last;
        Interval& i = r.interval;
        const bool gap = i.count >= 2 && i.mean >= 1 && static_cast<double>(interval) > kGapFactor * i.mean;
        if (gap) {
            ++r.gaps;
            SOL_TRACE(INFO, kCategory, "noteArrival",
                      "[%s] Router %s sent no RA for %u s, usually every %u s", getTraceTag(),
                      text(source).c_str(), static_cast<unsigned>(interval),
                      static_cast<unsigned>(std::lround(i.mean)));
        } else {
            i.mean = i.count == 0 ? static_cast<double>(interval)
                                  : i.mean + kMeanWeight * (static_cast<double>(interval) - i.mean);
        }
        i.min = i.count == 0 ? interval : std::min(i.min, interval);
        i.max = i.count == 0 ? interval : std::max(i.max, interval);
        i.last = interval;
        ++i.count;
    }
    ++r.ras;
    r.last = now;
}

void RaHealth::check(const Address& source, const Address& peer, const std::string& field, bool agree,
                     const std::string& mine, const std::string& theirs) {
    const bool sourceFirst = source < peer;
    ConflictKey key{sourceFirst ? source : peer, sourceFirst ? peer : source, field};
    if (agree) {
        m_conflicts.erase(key);
        return;
    }
    ConflictValues values{sourceFirst ? mine : theirs, sourceFirst ? theirs : mine};
    if (const auto it = m_conflicts.find(key); it != m_conflicts.end()) {
        it->second = std::move(values);
        return;
    }
    // Untraced too: a flood of disagreeing routers must not become a flood of traces.
    if (m_conflicts.size() >= kConflictsMax) {
        ++m_conflictsDropped;
        return;
    }
    m_conflicts.emplace(std::move(key), std::move(values));
    SOL_TRACE(INFO, kCategory, "check", "[%s] Router %s disagrees with router %s on %s: %s vs %s",
              getTraceTag(), text(source).c_str(), text(peer).c_str(), field.c_str(), mine.c_str(),
              theirs.c_str());
}

void RaHealth::compare(const Address& source, const Router& r,
                       const std::vector<SolNetwork::Config>& networks, time_t now) {
    // While no two routers disagree, agreement needs no names: the usual RA builds no text.
    const bool anyConflict = !m_conflicts.empty();
    const auto consider = [&](const Address& peer, bool agree, const auto& field, const auto& mine,
                              const auto& theirs) {
        if (!agree || anyConflict) {
            check(source, peer, field(), agree, mine(), theirs());
        }
    };
    const auto bit = [](uint32_t flags, uint32_t flag) {
        return std::string((flags & flag) != 0 ? "1" : "0");
    };
    // Named references, not structured bindings: the lambdas below capture them, which the
    // fuzzing build's compiler does not allow of bindings.
    for (const auto& known : m_routers) {
        const Address& peer = known.first;
        const auto& p = known.second;
        if (peer == source) {
            continue;
        }
        for (const auto& check : {std::pair{"M flag", FLAG_MANAGED}, std::pair{"O flag", FLAG_OTHER}}) {
            const char* name = check.first;
            const uint32_t flag = check.second;
            consider(
                peer, (r.flags & flag) == (p.flags & flag), [&] { return std::string(name); },
                [&] { return bit(r.flags, flag); }, [&] { return bit(p.flags, flag); });
        }
        if (r.reachableTime != 0 && p.reachableTime != 0) {
            consider(
                peer, r.reachableTime == p.reachableTime, [] { return std::string("reachable time"); },
                [&] { return std::to_string(r.reachableTime); },
                [&] { return std::to_string(p.reachableTime); });
        }
        if (r.retransTimer != 0 && p.retransTimer != 0) {
            consider(
                peer, r.retransTimer == p.retransTimer, [] { return std::string("retrans timer"); },
                [&] { return std::to_string(r.retransTimer); },
                [&] { return std::to_string(p.retransTimer); });
        }
        for (const SolNetwork::Config& n : networks) {
            const auto seen = p.prefixes.find(prefixKey(n));
            if (seen == p.prefixes.end()) {
                continue;
            }
            const PrefixSeen& q = seen->second;
            const auto prefixName = [&] {
                const std::string name = n.getName();
                return name.substr(name.find('/') + 1);
            };
            consider(
                peer, sameLifetime(n.validLifetime, now, q.valid, q.at),
                [&] { return "valid lifetime of " + prefixName(); },
                [&] { return lifetimeText(n.validLifetime); }, [&] { return lifetimeText(q.valid); });
            consider(
                peer, sameLifetime(n.preferredLifetime, now, q.preferred, q.at),
                [&] { return "preferred lifetime of " + prefixName(); },
                [&] { return lifetimeText(n.preferredLifetime); }, [&] { return lifetimeText(q.preferred); });
        }
    }
}

void RaHealth::keepOnly(const std::function<bool(const Address&)>& isCached) {
    for (auto it = m_routers.begin(); it != m_routers.end();) {
        if (isCached(it->first)) {
            ++it;
            continue;
        }
        const Address gone = it->first;
        it = m_routers.erase(it);
        for (auto c = m_conflicts.begin(); c != m_conflicts.end();) {
            c = c->first.a == gone || c->first.b == gone ? m_conflicts.erase(c) : std::next(c);
        }
    }
}

std::string RaHealth::json(time_t now, const std::function<std::string(const Address&)>& stateOf) const {
    Json routers = Json::array();
    for (const auto& [address, r] : m_routers) {
        Json conflicts = Json::array();
        for (const auto& [key, values] : m_conflicts) {
            if (key.a == address || key.b == address) {
                const bool first = key.a == address;
                conflicts.push_back(Json{{"peer", text(first ? key.b : key.a)},
                                         {"field", key.field},
                                         {"here", first ? values.a : values.b},
                                         {"there", first ? values.b : values.a}});
            }
        }
        const Interval& i = r.interval;
        routers.push_back(Json{{"address", text(address)},
                               {"state", stateOf ? stateOf(address) : std::string()},
                               {"ras", r.ras},
                               {"firstRa", r.first},
                               {"lastRa", r.last},
                               {"silentSeconds", now - r.last},
                               {"interval", Json{{"count", i.count},
                                                 {"last", i.last},
                                                 {"min", i.min},
                                                 {"max", i.max},
                                                 {"mean", std::round(i.mean * 10) / 10}}},
                               {"gaps", r.gaps},
                               {"dropped", dropsJson(r.drops)},
                               {"prefixesIgnored", ignoredJson(r.prefixesIgnored)},
                               {"conflicts", std::move(conflicts)}});
    }
    Json others = Json::array();
    for (const auto& [address, o] : m_others) {
        others.push_back(Json{{"address", text(address)},
                              {"lastSeen", o.last},
                              {"dropped", dropsJson(o.drops)},
                              {"prefixesIgnored", ignoredJson(o.prefixesIgnored)}});
    }
    return Json{{"version", 1},
                {"time", now},
                {"conflictsDropped", m_conflictsDropped},
                {"otherSourcesForgotten", m_otherSourcesForgotten},
                {"routers", std::move(routers)},
                {"otherSources", std::move(others)}}
        .dump();
}

}  // namespace solicd
