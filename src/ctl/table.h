// Tables for people: aligned columns with titles.
#ifndef KAVEL_CTL_TABLE_H
#define KAVEL_CTL_TABLE_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <ostream>
#include <span>
#include <string>
#include <vector>

namespace kavel::ctl {

template <typename Item>
struct TableColumn {
    const char *title = nullptr;
    bool numeric = false; // aligned to the right
    std::string (*text)(const Item &item) = nullptr;
};

// Writes the titles and a row for each item. `colour(column, item)` returns the escape sequence that begins a cell;
// empty: no colour. The last column is not padded, so that no line ends in blanks.
template <typename Item, std::size_t Count, typename Colour>
void PrintTable(std::ostream &out, const std::array<TableColumn<Item>, Count> &columns,
                std::span<const Item *const> items, Colour colour)
{
    using Row = std::array<std::string, Count>;
    std::vector<Row> rows(1);
    std::ranges::transform(columns, rows.front().begin(), &TableColumn<Item>::title);
    for (const Item *item : items) {
        std::ranges::transform(columns, rows.emplace_back().begin(),
                               [item](const TableColumn<Item> &column) { return column.text(*item); });
    }
    std::array<std::size_t, Count> widths{};
    for (const Row &row : rows) {
        std::ranges::transform(row, widths, widths.begin(),
                               [](const std::string &cell, std::size_t width) { return std::max(cell.size(), width); });
    }
    for (std::size_t r = 0; r < rows.size(); ++r) {
        for (std::size_t c = 0; c < Count; ++c) {
            const std::string &cell = rows[r][c];
            const std::string padding(widths[c] - cell.size(), ' ');
            const std::string begin = r == 0 ? "" : colour(c, *items[r - 1]);
            out << (c == 0 ? "" : "  ") << (columns[c].numeric ? padding : "") << begin << cell
                << (begin.empty() ? "" : "\033[0m") << (columns[c].numeric || c + 1 == Count ? "" : padding);
        }
        out << '\n';
    }
}

} // namespace kavel::ctl

#endif
