// The column layout shared by the plain and the highlighted table.
#pragma once

#include <algorithm>

namespace shmrmctl {

namespace detail {
// Whether a column holds texts, which may be cut to fit a line.
bool text_column(const std::string& name);
// The longest start of a printable text that takes at most `width` columns.
std::string take_width(std::string_view text, std::size_t width);
// The column widths of the aligned table: each column's widest cell, then text columns
// narrowed while lines are wider than `style.width`.
std::vector<std::size_t> column_widths(const Table& t, const TableStyle& style);
}  // namespace detail

template <typename Changed>
std::vector<std::string> format_table(const Table& t, const TableStyle& style, Changed changed,
                                      const std::string& mark_on, const std::string& mark_off) {
    std::vector<std::string> lines;
    if (style.headings) lines.push_back(t.title);
    if (style.raw) {
        auto raw_line = [](const std::vector<std::string>& cells) {
            std::string out;
            for (std::size_t c = 0; c < cells.size(); ++c) {
                if (c != 0) out += ' ';
                out += raw_escaped(cells[c]);
            }
            return out;
        };
        if (style.headings) lines.push_back(raw_line(t.columns));
        for (const auto& row : t.rows)
            lines.push_back(raw_line(row));
        return lines;
    }
    const std::vector<std::size_t> widths = detail::column_widths(t, style);
    const bool clip = style.clip && style.width != 0;
    auto line = [&](const std::vector<std::string>& cells, long row) {
        std::string out;
        std::size_t shown = 0;
        const std::size_t n = std::min(cells.size(), widths.size());
        for (std::size_t c = 0; c < n; ++c) {
            std::string cell = fit_width(printable(cells[c]), widths[c]);
            std::size_t w = display_width(cell);
            if (c + 1 < n) {
                cell.append(widths[c] - w + 2, ' ');
                w = widths[c] + 2;
            }
            if (clip && shown + w > style.width) {
                cell = detail::take_width(cell, style.width - shown);
                w = display_width(cell);
            }
            const bool mark = row >= 0 && changed(static_cast<std::size_t>(row), c);
            if (mark) out += mark_on;
            out += cell;
            if (mark) out += mark_off;
            shown += w;
            if (clip && shown >= style.width) break;
        }
        while (!out.empty() && out.back() == ' ')
            out.pop_back();
        return out;
    };
    if (style.headings) lines.push_back(line(t.columns, -1));
    for (std::size_t r = 0; r < t.rows.size(); ++r) {
        lines.push_back(line(t.rows[r], static_cast<long>(r)));
    }
    return lines;
}

}  // namespace shmrmctl
