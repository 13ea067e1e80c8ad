// Rows for a terminal: columns as wide as their widest cell, two blanks
// apart, the last one not padded, every cell made safe to print.
#pragma once

#include <string>
#include <vector>

struct table_column {
    std::string title;
    size_t min_width = 0;  // wider than title and cells when they are narrower ("TIME" for "0.4s")
    bool right = false;    // numbers: aligned on their last digit
};

// The title line, then a line per row (each with a cell per column).
std::string table_text(const std::vector<table_column>& columns, const std::vector<std::vector<std::string>>& rows);
