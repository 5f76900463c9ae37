// Aligned columns for people: a heading row, then rows whose cells may carry a tone.
#pragma once

#include <string>
#include <vector>

#include "Terminal.h"

namespace solicd::ctl {

struct Cell {
    std::string text;
    Tone tone = Tone::Plain;
};

class Table {
public:
    explicit Table(std::vector<std::string> headings);

    // A row of as many cells as there are headings; `rowTone` (when not Plain) paints every cell.
    void addRow(std::vector<Cell> cells, Tone rowTone = Tone::Plain);

    // Columns two blanks apart, each as wide as its widest text; no trailing blanks. One line
    // per row, each ending with a line end.
    std::string render(bool colour) const;

private:
    struct Row {
        std::vector<Cell> cells;
        Tone tone;
    };
    std::vector<std::string> m_headings;
    std::vector<Row> m_rows;
};

}  // namespace solicd::ctl
