// Record names on the RA path. Each record of an RA is named twice, one right after the other:
// by the cache (the key of its entry) and by the RA handler (the key of its timer). The last
// name of each kind is kept and written again for the same address without formatting it anew.
#pragma once

#include <cstdint>
#include <cstring>
#include <string_view>

#include "SolTypes.h"

namespace solicd {
namespace entryname {

// What a name is made of: the address as received and, for a prefix, its length.
struct Key {
    uint8_t family = 0;
    uint8_t bytes[sizeof(kt_ip_address_t::bytes)] = {};
    uint32_t length = 0;

    bool operator==(const Key& o) const {
        return family == o.family && length == o.length && std::memcmp(bytes, o.bytes, sizeof bytes) == 0;
    }
};

inline Key keyOf(const kt_ip_address_t& address, uint32_t length) {
    Key key;
    key.family = address.family;
    std::memcpy(key.bytes, address.bytes, sizeof key.bytes);
    key.length = length;
    return key;
}

inline Key keyOf(const SolRouter::Config& config) {
    return keyOf(config.address, 0);
}
inline Key keyOf(const SolNetwork::Config& config) {
    return keyOf(config.prefix, config.prefixLength);
}
inline Key keyOf(const SolDnsServer::Config& config) {
    return keyOf(config.address, 0);
}

template <class Config>
struct Last {
    bool valid = false;
    Key key;
    size_t size = 0;
    char text[SOL_ENTRY_NAME_SIZE] = {};
};

}  // namespace entryname

// config.getName() written into `buffer`.
template <class Config>
std::string_view writeEntryName(const Config& config, char (&buffer)[SOL_ENTRY_NAME_SIZE]) {
    thread_local entryname::Last<Config> last;
    const entryname::Key key = entryname::keyOf(config);
    if (!last.valid || !(last.key == key)) {
        last.size = config.writeName(last.text);
        last.key = key;
        last.valid = true;
    }
    std::memcpy(buffer, last.text, last.size + 1);
    return {buffer, last.size};
}

}  // namespace solicd
