// Tables for people: aligned columns with titles.
#ifndef KAVEL_CTL_TABLE_H
#define KAVEL_CTL_TABLE_H

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <numeric>
#include <ostream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kavel::ctl {

template <typename Item>
struct TableColumn {
    std::string_view title;
    bool numeric = false; // aligned to the right
    std::string (*text)(const Item &item) = nullptr;
    bool shrinks = false; // its cells are cut when the table is too wide
};

// The characters of a printable text. Each is taken to be as wide as one column of the terminal.
[[nodiscard]] inline std::size_t WidthOf(std::string_view text)
{
    constexpr unsigned kContinuation = 0x80; // of a UTF-8 sequence: 10xxxxxx
    constexpr unsigned kContinuationMask = 0xC0;
    return static_cast<std::size_t>(std::ranges::count_if(
        text, [](char byte) { return (static_cast<unsigned char>(byte) & kContinuationMask) != kContinuation; }));
}

// `text`, or as much of its beginning as fits into `width` with "..." behind it. `width` is at least 3.
[[nodiscard]] inline std::string CutTo(std::string text, std::size_t width)
{
    constexpr std::string_view kEllipsis = "...";
    if (WidthOf(text) <= width) {
        return text;
    }
    while (WidthOf(text) > width - kEllipsis.size()) {
        const std::size_t before = WidthOf(text);
        while (WidthOf(text) == before) {
            text.pop_back();
        }
    }
    return text.append(kEllipsis);
}

// A table of cells. Every row has as many as the columns.
template <typename Item>
class Table {
  public:
    // `widest`: the columns that shrink are cut to it, but not below their titles; 0: they are not cut.
    Table(std::span<const TableColumn<Item>> columns, std::span<const Item *const> items, std::size_t widest)
        : columns_(columns), items_(items)
    {
        Row titles;
        std::ranges::transform(columns, std::back_inserter(titles),
                               [](const auto &column) { return std::string(column.title); });
        rows_.push_back(std::move(titles));
        std::ranges::transform(items, std::back_inserter(rows_), [columns](const Item *item) {
            Row row;
            std::ranges::transform(columns, std::back_inserter(row),
                                   [item](const auto &column) { return column.text(*item); });
            return row;
        });
        SetWidths(widest);
    }

    // Writes the titles and a row for each item. `colour(column, item)` returns the escape sequence that begins a cell;
    // empty: no colour. The last column is not padded, so that no line ends in blanks.
    template <typename Colour>
    void Print(std::ostream &out, Colour colour) const
    {
        for (std::size_t r = 0; r < rows_.size(); ++r) {
            for (std::size_t c = 0; c < columns_.size(); ++c) {
                PrintCell(out, c, rows_[r][c], r == 0 ? "" : colour(c, *items_[r - 1]));
            }
            out << '\n';
        }
    }

  private:
    using Row = std::vector<std::string>;

    void SetWidths(std::size_t widest)
    {
        widths_.assign(columns_.size(), 0);
        for (const Row &row : rows_) {
            std::ranges::transform(row, widths_, widths_.begin(), [](const std::string &cell, std::size_t width) {
                return std::max(WidthOf(cell), width);
            });
        }
        for (std::size_t c = 0; widest != 0 && c < columns_.size(); ++c) {
            const std::size_t total =
                std::accumulate(widths_.begin(), widths_.end(), kGap.size() * (widths_.size() - 1));
            if (columns_[c].shrinks && total > widest) {
                const std::size_t excess = std::min(total - widest, widths_[c]);
                widths_[c] = std::max(columns_[c].title.size(), widths_[c] - excess);
            }
        }
        for (Row &row : rows_) {
            std::ranges::transform(row, widths_, row.begin(), CutTo);
        }
    }

    void PrintCell(std::ostream &out, std::size_t c, const std::string &cell, const std::string &begin) const
    {
        const std::string padding(widths_[c] - WidthOf(cell), ' ');
        const bool isNumeric = columns_[c].numeric;
        out << (c == 0 ? "" : kGap) << (isNumeric ? padding : "") << begin << cell << (begin.empty() ? "" : "\033[0m")
            << (isNumeric || c + 1 == columns_.size() ? "" : padding);
    }

    static constexpr std::string_view kGap = "  ";

    std::span<const TableColumn<Item>> columns_;
    std::span<const Item *const> items_;
    std::vector<Row> rows_; // the titles first
    std::vector<std::size_t> widths_;
};

} // namespace kavel::ctl

#endif
