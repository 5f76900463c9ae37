#include "lmx_names.h"

namespace lmx {

lmx_mbox_id_t NameTable::hold(std::string_view name) {
    if (const auto it = m_ids.find(name); it != m_ids.end()) {
        ++m_entries.at(it->second).holds;
        return it->second;
    }
    if (m_entries.size() >= kMaxNames) {
        return LMX_INVALID_ID;
    }
    // The next id that is neither reserved nor in use; at most kMaxNames are in use.
    lmx_mbox_id_t id = m_nextId;
    while (id == 0 || id == LMX_INVALID_ID || m_entries.count(id) != 0) {
        ++id;
    }
    m_nextId = id + 1;
    Entry& e = m_entries[id];
    try {
        e.name.assign(name);
        m_ids.emplace(e.name, id);
    } catch (...) {
        m_entries.erase(id);
        throw;
    }
    e.holds = 1;
    return id;
}

bool NameTable::hold(lmx_mbox_id_t id) {
    const auto it = m_entries.find(id);
    if (it == m_entries.end()) {
        return false;
    }
    ++it->second.holds;
    return true;
}

void NameTable::release(lmx_mbox_id_t id) {
    const auto it = m_entries.find(id);
    if (it == m_entries.end()) {
        return;
    }
    if (--it->second.holds == 0) {
        m_ids.erase(it->second.name);
        m_entries.erase(it);
    }
}

lmx_mbox_id_t NameTable::lookup(std::string_view name) const {
    const auto it = m_ids.find(name);
    return it == m_ids.end() ? LMX_INVALID_ID : it->second;
}

const std::string* NameTable::find(lmx_mbox_id_t id) const {
    const auto it = m_entries.find(id);
    return it == m_entries.end() ? nullptr : &it->second.name;
}

}  // namespace lmx
