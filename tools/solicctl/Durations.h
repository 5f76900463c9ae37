// Times for people: "29m 58s", "1d", "infinite", "5s ago", reachable time as "30s".
#pragma once

#include <cstdint>
#include <string>

namespace solicd::ctl {

// The largest unit of d, h, m, s and the next one when it is not zero: 86400 "1d", 90061
// "1d 1h", 1798 "29m 58s", 0 "0s". Negative counts as 0.
std::string durationText(int64_t seconds);

// An advertised lifetime in seconds: "infinite" for 0xffffffff, else durationText().
std::string lifetimeText(uint32_t seconds);

// "5s ago"; a time point in the future (a clock set back) counts as now.
std::string agoText(int64_t seconds);

// An advertised time in ms (reachable time, retransmit timer): "-" for 0 (unspecified), whole
// seconds as durationText(), else "750ms".
std::string millisecondsText(uint32_t ms);

}  // namespace solicd::ctl
