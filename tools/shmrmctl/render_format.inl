// The column layout shared by the plain and the highlighted table.
#pragma once

#include <algorithm>

namespace shmrmctl {

template <typename Changed>
std::vector<std::string> format_table(const Table& t, Changed changed, std::size_t width,
                                      const std::string& mark_on, const std::string& mark_off) {
    std::vector<std::size_t> widths(t.columns.size());
    for (std::size_t c = 0; c < t.columns.size(); ++c)
        widths[c] = t.columns[c].size();
    for (const auto& row : t.rows) {
        for (std::size_t c = 0; c < row.size() && c < widths.size(); ++c) {
            widths[c] = std::max(widths[c], row[c].size());
        }
    }
    auto line = [&](const std::vector<std::string>& cells, long row) {
        std::string out;
        std::size_t shown = 0;
        for (std::size_t c = 0; c < cells.size() && c < widths.size(); ++c) {
            std::string cell = cells[c];
            cell.resize(widths[c], ' ');
            if (c + 1 < cells.size()) cell += "  ";
            if (width != 0 && shown + cell.size() > width) cell.resize(width - shown);
            const bool mark = row >= 0 && changed(static_cast<std::size_t>(row), c);
            if (mark) out += mark_on;
            out += cell;
            if (mark) out += mark_off;
            shown += cell.size();
            if (width != 0 && shown >= width) break;
        }
        while (!out.empty() && out.back() == ' ')
            out.pop_back();
        return out;
    };
    std::vector<std::string> lines;
    lines.push_back(t.title);
    lines.push_back(line(t.columns, -1));
    for (std::size_t r = 0; r < t.rows.size(); ++r) {
        lines.push_back(line(t.rows[r], static_cast<long>(r)));
    }
    return lines;
}

}  // namespace shmrmctl
