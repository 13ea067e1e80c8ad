#include "table.h"

#include <algorithm>

#include "outcome.h"

namespace {

std::string line_of(const std::vector<table_column>& columns, const std::vector<size_t>& width,
                    const std::vector<std::string>& cells) {
    std::string line;
    for (size_t c = 0; c < columns.size(); c++) {
        const std::string& cell = cells[c];
        std::string blanks(width[c] - cell.size(), ' ');
        bool last = c + 1 == columns.size();
        line += columns[c].right ? blanks + cell : last ? cell : cell + blanks;
        if (!last) line += "  ";
    }
    return line + "\n";
}

}  // namespace

std::string table_text(const std::vector<table_column>& columns, const std::vector<std::vector<std::string>>& rows) {
    std::vector<std::string> titles;
    std::vector<size_t> width;
    for (const table_column& c : columns) {
        titles.push_back(c.title);
        width.push_back(std::max(c.min_width, c.title.size()));
    }
    std::vector<std::vector<std::string>> shown;
    for (const auto& row : rows) {
        std::vector<std::string> cells;
        for (size_t c = 0; c < columns.size(); c++) {
            cells.push_back(terminal_text(c < row.size() ? row[c] : ""));
            width[c] = std::max(width[c], cells.back().size());
        }
        shown.push_back(cells);
    }
    std::string text = line_of(columns, width, titles);
    for (const auto& cells : shown) text += line_of(columns, width, cells);
    return text;
}
