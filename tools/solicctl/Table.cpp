#include "Table.h"

#include <algorithm>

namespace solicd::ctl {

Table::Table(std::vector<std::string> headings) : m_headings(std::move(headings)) {}

void Table::addRow(std::vector<Cell> cells, Tone rowTone) {
    cells.resize(m_headings.size());
    m_rows.push_back(Row{std::move(cells), rowTone});
}

std::string Table::render(bool colour) const {
    std::vector<size_t> widths(m_headings.size());
    for (size_t c = 0; c < m_headings.size(); ++c) {
        widths[c] = m_headings[c].size();
        for (const Row& row : m_rows) {
            widths[c] = std::max(widths[c], row.cells[c].text.size());
        }
    }
    // Padding goes outside the paint, so that colour never moves a column.
    const auto line = [&](const std::vector<Cell>& cells, Tone rowTone) {
        std::string text;
        std::string pending;  // blanks written only if something follows them
        for (size_t c = 0; c < cells.size(); ++c) {
            const Cell& cell = cells[c];
            if (!cell.text.empty()) {
                text += pending + paint(cell.text, rowTone != Tone::Plain ? rowTone : cell.tone, colour);
                pending.clear();
            }
            pending += std::string(widths[c] - cell.text.size() + 2, ' ');
        }
        return text + "\n";
    };
    std::vector<Cell> headingCells;
    for (const auto& heading : m_headings) {
        headingCells.push_back(Cell{heading, Tone::Heading});
    }
    std::string text = line(headingCells, Tone::Plain);
    for (const Row& row : m_rows) {
        text += line(row.cells, row.tone);
    }
    return text;
}

}  // namespace solicd::ctl
