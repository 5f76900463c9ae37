// The words solicctl uses for records in its forms for people: keys, states, flags as letters.
#pragma once

#include <string>

#include "SolTypes.h"
#include "Terminal.h"

namespace solicd::ctl {

// The entry's key: a router's or DNS server's address, a prefix as "2001:db8:1::/64".
std::string keyOf(const SolRouter& router);
std::string keyOf(const SolNetwork& network);
std::string keyOf(const SolDnsServer& server);

// "STATE_NEW" and the like.
std::string stateOf(const SolRouter& router);
std::string stateOf(const SolNetwork& network);
std::string stateOf(const SolDnsServer& server);

// Active: new or updated. Expired, invalidated and deprecated entries are not.
bool isActive(const SolRouter& router);
bool isActive(const SolNetwork& network);
bool isActive(const SolDnsServer& server);

// The tone of an entry's state: active good, deprecated a warning, the rest dim.
template <class Record>
Tone stateTone(const Record& record);

// "M O" for a router's managed and other-configuration flags, "L A" for a prefix's on-link
// and autonomous flags; empty when none is set.
std::string routerFlagLetters(uint32_t flags);
std::string prefixFlagLetters(uint32_t flags);

}  // namespace solicd::ctl
