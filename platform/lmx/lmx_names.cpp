#include "lmx_names.h"

namespace lmx {

lmx_mbox_id_t NameTable::intern(std::string_view name) {
    if (const lmx_mbox_id_t id = lookup(name); id != LMX_INVALID_ID) {
        return id;
    }
    if (m_names.size() >= kMaxNames) {
        return LMX_INVALID_ID;
    }
    const auto id = static_cast<lmx_mbox_id_t>(m_names.size() + 1);
    m_names.emplace_back(name);
    try {
        m_ids.emplace(m_names.back(), id);
    } catch (...) {
        m_names.pop_back();
        throw;
    }
    return id;
}

lmx_mbox_id_t NameTable::lookup(std::string_view name) const {
    const auto it = m_ids.find(std::string(name));
    return it == m_ids.end() ? LMX_INVALID_ID : it->second;
}

const std::string* NameTable::find(lmx_mbox_id_t id) const {
    return id == 0 || id > m_names.size() ? nullptr : &m_names[id - 1];
}

}  // namespace lmx
