// `solicctl watch` for people: one short line per update.
#pragma once

#include <ctime>
#include <string>

#include "SolIf.h"

namespace solicd::ctl {

// The line for an update indication received at `when` (shown in local time), without its line
// end; empty for any other message. For example
// "12:00:01 prefix  2001:db8:1::/64  STATE_NEW  valid 1d preferred 4h  L A".
std::string watchLine(const SolifMessage& update, std::time_t when, bool colour);

}  // namespace solicd::ctl
