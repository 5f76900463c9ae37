// What solicctl prints for a decoded client message: readable text or one JSON object per line.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "SolIf.h"

namespace solicd::ctl {

// The "kind" of a message solicctl prints ("router_updated", "network_updated",
// "dns_servers_updated", "routers"); null for any other message.
const char* kindOf(uint32_t msgNo);

// The lines for one update indication (watch) or routers answer (routers), without line ends.
// An update is always one line; a readable routers answer is a count line and one per router.
std::vector<std::string> textLines(const SolifMessage& message);
std::string jsonLine(const SolifMessage& message);

// One record as a JSON object: its fields under their record names, in record order, and the
// `status` object with the state by name. Keys keep their order.
using Json = nlohmann::ordered_json;
Json recordJson(const SolRouter& router);
Json recordJson(const SolNetwork& network);
Json recordJson(const SolDnsServer& server);

// A list of records as a JSON array of recordJson() objects.
template <class Record>
Json recordsJson(const std::vector<Record>& records) {
    Json items = Json::array();
    for (const auto& r : records) {
        items.push_back(recordJson(r));
    }
    return items;
}

// A show-cache answer as printed: the text, ending with a line end.
std::string showText(const SolifMessage& message);

}  // namespace solicd::ctl
