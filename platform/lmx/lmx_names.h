// Process-local ids of mailbox names.
#pragma once

#include <cstddef>
#include <deque>
#include <string>
#include <string_view>
#include <unordered_map>

#include "lmx.h"

namespace lmx {

// Names a process can know at once. Peers choose the names they announce, so the table is
// bounded; a hello naming one more is refused.
constexpr size_t kMaxNames = 65536;

// The same name always gets the same id, never 0 and never LMX_INVALID_ID.
class NameTable {
public:
    // LMX_INVALID_ID once the table is full.
    lmx_mbox_id_t intern(std::string_view name);
    lmx_mbox_id_t lookup(std::string_view name) const;
    const std::string* find(lmx_mbox_id_t id) const;

private:
    std::deque<std::string> m_names;  // a deque keeps every name where it is, for lmx_name
    std::unordered_map<std::string, lmx_mbox_id_t> m_ids;
};

}  // namespace lmx
