#include "Durations.h"

#include "SolTypes.h"

namespace solicd::ctl {

std::string durationText(int64_t seconds) {
    struct Unit {
        int64_t seconds;
        const char* suffix;
    };
    constexpr Unit kUnits[] = {{86400, "d"}, {3600, "h"}, {60, "m"}, {1, "s"}};
    constexpr size_t kUnitCount = sizeof kUnits / sizeof kUnits[0];
    int64_t rest = seconds < 0 ? 0 : seconds;
    for (size_t i = 0; i < kUnitCount; ++i) {
        const int64_t count = rest / kUnits[i].seconds;
        if (count == 0 && i + 1 < kUnitCount) {
            continue;
        }
        std::string text = std::to_string(count) + kUnits[i].suffix;
        if (i + 1 < kUnitCount) {
            const int64_t next = rest % kUnits[i].seconds / kUnits[i + 1].seconds;
            if (next != 0) {
                text += " " + std::to_string(next) + kUnits[i + 1].suffix;
            }
        }
        return text;
    }
    return "0s";
}

std::string lifetimeText(uint32_t seconds) {
    return seconds == kInfiniteLifetime ? "infinite" : durationText(seconds);
}

std::string agoText(int64_t seconds) {
    return durationText(seconds) + " ago";
}

std::string millisecondsText(uint32_t ms) {
    constexpr uint32_t kMsPerSecond = 1000;
    if (ms == 0) {
        return "-";
    }
    if (ms % kMsPerSecond == 0) {
        return durationText(ms / kMsPerSecond);
    }
    return std::to_string(ms) + "ms";
}

}  // namespace solicd::ctl
