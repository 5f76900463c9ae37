#include "RecordWords.h"

#include <type_traits>

namespace solicd::ctl {
namespace {

template <class Record>
auto stateValue(const Record& record) {
    return Record::Status::uintToState(record.m_status.state);
}

// The states every kind shares by name: new and updated are the active ones.
template <class State>
bool activeState(State state) {
    return state == State::STATE_NEW || state == State::STATE_UPDATED;
}

std::string letters(uint32_t flags, uint32_t first, char firstLetter, uint32_t second, char secondLetter) {
    std::string text;
    if ((flags & first) != 0) {
        text += firstLetter;
    }
    if ((flags & second) != 0) {
        text += text.empty() ? "" : " ";
        text += secondLetter;
    }
    return text;
}

}  // namespace

std::string keyOf(const SolRouter& router) {
    return kt_ip_address_ntop(router.m_config.address);
}

std::string keyOf(const SolNetwork& network) {
    constexpr size_t kKindWordLength = sizeof "network/" - 1;
    return network.m_config.getName().substr(kKindWordLength);
}

std::string keyOf(const SolDnsServer& server) {
    return kt_ip_address_ntop(server.m_config.address);
}

std::string stateOf(const SolRouter& router) {
    return toCstr(stateValue(router));
}

std::string stateOf(const SolNetwork& network) {
    return toCstr(stateValue(network));
}

std::string stateOf(const SolDnsServer& server) {
    return toCstr(stateValue(server));
}

bool isActive(const SolRouter& router) {
    return activeState(stateValue(router));
}

bool isActive(const SolNetwork& network) {
    return activeState(stateValue(network));
}

bool isActive(const SolDnsServer& server) {
    return activeState(stateValue(server));
}

template <class Record>
Tone stateTone(const Record& record) {
    if (isActive(record)) {
        return Tone::Good;
    }
    if constexpr (std::is_same_v<Record, SolNetwork>) {
        if (stateValue(record) == sol_network_state_t::STATE_DEPRECATED) {
            return Tone::Warn;
        }
    }
    return Tone::Dim;
}

template Tone stateTone(const SolRouter&);
template Tone stateTone(const SolNetwork&);
template Tone stateTone(const SolDnsServer&);

std::string routerFlagLetters(uint32_t flags) {
    return letters(flags, FLAG_MANAGED, 'M', FLAG_OTHER, 'O');
}

std::string prefixFlagLetters(uint32_t flags) {
    return letters(flags, FLAG_ON_LINK, 'L', FLAG_AUTONOMOUS, 'A');
}

}  // namespace solicd::ctl
