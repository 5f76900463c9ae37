// Process-local ids of mailbox names, kept while something of this process holds the name.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "lmx.h"

namespace lmx {

// Names a process can know at once. Peers choose the names they announce, so the table is
// bounded; a hello naming one more is refused.
constexpr size_t kMaxNames = 65536;

// A name is known while something holds it (a mailbox of ours, a connection from or to it, a
// monitor, a message from it, a locate's answer to the application); with its last hold it is
// forgotten. The same name keeps its id while it is known. Ids are never 0 nor LMX_INVALID_ID,
// and an id is not given again until the 2^32 - 2 others have been: an id the application kept
// past its name's end names nothing rather than another mailbox.
class NameTable {
public:
    // `firstId` is where the ids start; tests start near the end of the range.
    explicit NameTable(lmx_mbox_id_t firstId = 1) : m_nextId(firstId) {}

    // One more hold of `name`, known or new; LMX_INVALID_ID (and no hold) when the table is full.
    lmx_mbox_id_t hold(std::string_view name);
    // One more hold of the id, if it is known.
    bool hold(lmx_mbox_id_t id);
    // One hold less; the name is forgotten when that was its last.
    void release(lmx_mbox_id_t id);

    lmx_mbox_id_t lookup(std::string_view name) const;
    // The name behind a known id; stays where it is until the name is forgotten.
    const std::string* find(lmx_mbox_id_t id) const;
    size_t size() const { return m_entries.size(); }

private:
    struct Entry {
        std::string name;
        size_t holds = 0;
    };

    lmx_mbox_id_t m_nextId;
    // Node-based: an entry's name stays where it is, so the index can point into it.
    std::unordered_map<lmx_mbox_id_t, Entry> m_entries;
    std::unordered_map<std::string_view, lmx_mbox_id_t> m_ids;
};

// One hold of a name for as long as it lives: what a connection, a monitor or a mailbox keeps.
class NameHold {
public:
    NameHold() = default;
    // Takes one more hold of `id`; empty when the id is not known.
    NameHold(NameTable& table, lmx_mbox_id_t id) {
        if (table.hold(id)) {
            m_table = &table;
            m_id = id;
        }
    }
    // Takes a hold of `name`; empty when the table is full.
    NameHold(NameTable& table, std::string_view name) : m_id(table.hold(name)) {
        if (m_id != LMX_INVALID_ID) {
            m_table = &table;
        }
    }
    ~NameHold() { reset(); }
    NameHold(NameHold&& other) noexcept
        : m_table(std::exchange(other.m_table, nullptr)), m_id(std::exchange(other.m_id, LMX_INVALID_ID)) {}
    NameHold& operator=(NameHold&& other) noexcept {
        if (this != &other) {
            reset();
            m_table = std::exchange(other.m_table, nullptr);
            m_id = std::exchange(other.m_id, LMX_INVALID_ID);
        }
        return *this;
    }
    NameHold(const NameHold&) = delete;
    NameHold& operator=(const NameHold&) = delete;

    lmx_mbox_id_t id() const { return m_id; }
    explicit operator bool() const { return m_table != nullptr; }
    void reset() {
        if (m_table != nullptr) {
            std::exchange(m_table, nullptr)->release(m_id);
            m_id = LMX_INVALID_ID;
        }
    }

private:
    NameTable* m_table = nullptr;
    lmx_mbox_id_t m_id = LMX_INVALID_ID;
};

}  // namespace lmx
