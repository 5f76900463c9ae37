// What an operator needs to judge the link, kept per router address beside the cache (never in
// the records the client messages carry): RAs received, arrival times and intervals, gaps, the
// parser's outcomes per source, and conflicts between routers on M, O, reachable time, retrans
// timer and prefix lifetimes. No timer: everything is updated when an RA arrives and read when
// asked. Bounded: a router's health goes with its cache entry; drops from sources that are not
// routers go to a small table that forgets the oldest; conflicts beyond a few dozen are counted,
// not kept. The answer says what it left out.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <vector>

#include "PacketParser.h"
#include "SolTypes.h"

namespace solicd {

class RaHealth {
public:
    // Sources that are not cached routers, kept for their drops.
    static constexpr size_t kOtherSourcesMax = 16;
    // A router first heard this long after the first one is worth a word (a rogue's usual sign).
    static constexpr time_t kLateRouterSeconds = 600;
    // An interval over this many times the usual one is a gap.
    static constexpr double kGapFactor = 3;
    // The prefixes remembered per router, for comparing lifetimes; the oldest heard goes first.
    static constexpr size_t kPrefixesPerRouterMax = 64;
    // Prefix lifetimes that count down in real time agree within this many seconds.
    static constexpr int64_t kLifetimeSlackSeconds = 10;
    // Conflicts kept at once. Under a flood of routers that each disagree with all the others
    // they would grow with the square of the routers; beyond these, they are only counted.
    static constexpr size_t kConflictsMax = 64;

    using Address = std::array<uint8_t, 16>;

    // One packet from `source` as the parser saw it (`outcome`): `router` is null when it was
    // dropped, else the router it announced with its accepted prefixes. `cached`: the router is
    // in the cache (only cached routers get a health of their own).
    void onRa(const kt_ip_address_t& source, const SolRouter::Config* router,
              const std::vector<SolNetwork::Config>& networks, const ParseOutcome& outcome, bool cached,
              time_t now);

    // Forgets the routers for which `isCached` is false: they left the cache.
    void keepOnly(const std::function<bool(const Address&)>& isCached);
    size_t routerCount() const { return m_routers.size(); }

    // The health answer: a JSON document with a "version" key, at time `now`; each router's
    // state in the cache as `stateOf` names it.
    std::string json(time_t now, const std::function<std::string(const Address&)>& stateOf = {}) const;

    static Address addressOf(const kt_ip_address_t& address);

private:
    struct Interval {
        uint64_t count = 0;  // intervals seen
        int64_t last = 0;
        int64_t min = 0;
        int64_t max = 0;
        double mean = 0;  // moving mean of the intervals that were not gaps
    };
    struct PrefixSeen {
        uint32_t valid = 0;
        uint32_t preferred = 0;
        time_t at = 0;
    };
    using PrefixKey = std::array<uint8_t, 17>;  // masked prefix and length
    struct Router {
        uint64_t ras = 0;
        time_t first = 0;
        time_t last = 0;
        Interval interval;
        uint64_t gaps = 0;
        uint64_t drops[kRaDropCount] = {};
        uint64_t prefixesIgnored[kPrefixIgnoreCount] = {};
        uint32_t flags = 0;
        uint32_t reachableTime = 0;
        uint32_t retransTimer = 0;
        std::map<PrefixKey, PrefixSeen> prefixes;
    };
    struct Other {
        time_t last = 0;
        uint64_t drops[kRaDropCount] = {};
        uint64_t prefixesIgnored[kPrefixIgnoreCount] = {};
    };
    // A disagreement of two routers (the lower address first) on one field, with both values.
    struct ConflictKey {
        Address a;
        Address b;
        std::string field;
        bool operator<(const ConflictKey& o) const {
            return std::tie(a, b, field) < std::tie(o.a, o.b, o.field);
        }
    };
    struct ConflictValues {
        std::string a;
        std::string b;
    };

    static PrefixKey prefixKey(const SolNetwork::Config& network);
    void countOutcome(const Address& source, const ParseOutcome& outcome, time_t now);
    void noteArrival(const Address& source, Router& r, time_t now);
    void compare(const Address& source, const Router& r, const std::vector<SolNetwork::Config>& networks,
                 time_t now);
    void check(const Address& source, const Address& peer, const std::string& field, bool agree,
               const std::string& mine, const std::string& theirs);

    std::map<Address, Router> m_routers;
    std::map<Address, Other> m_others;
    std::map<ConflictKey, ConflictValues> m_conflicts;
    // Disagreements found while kConflictsMax were kept, and other sources forgotten for newer ones.
    uint64_t m_conflictsDropped = 0;
    uint64_t m_otherSourcesForgotten = 0;
    time_t m_firstRouter = 0;
    bool m_anyRouter = false;
};

}  // namespace solicd
