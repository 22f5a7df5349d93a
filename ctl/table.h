/*
 * Tables for people: aligned columns over any text, wide letters counted as wide.
 */
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ctl {

enum class Align { left, right };
enum class Tone { plain, bad, busy };

struct Column {
    std::string title;
    Align align = Align::left;
};

struct Cell {
    std::string text;
    Tone tone = Tone::plain;
};

class Table {
public:
    explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}
    // As many cells as there are columns.
    void add(std::vector<Cell> row);
    // Two blanks between columns, none at the end of a line. The line of titles is left out when all of them are empty.
    std::string render(bool colour) const;

private:
    std::vector<size_t> widths() const;
    std::string line(const std::vector<Cell> &cells, const std::vector<size_t> &widths, bool colour) const;
    bool titled() const;

    std::vector<Column> columns_;
    std::vector<std::vector<Cell>> rows_;
};

// The text on one line and harmless to a terminal: control characters as \n, \t or \xNN, and so are bytes that are not
// UTF-8. Characters of `keep` stay as they are.
std::string printable(std::string_view text, std::string_view keep = "");

// Columns that a printable text takes on a terminal.
size_t displayWidth(std::string_view text);

} // namespace ctl
