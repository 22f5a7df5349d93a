#include "table.h"
#include <algorithm>
#include <cassert>
#include <clocale>
#include <cwchar>

namespace ctl {

namespace {

struct Letter {
    char32_t code;
    size_t length; // bytes
    bool valid;
};

// One UTF-8 character; overlong forms, surrogates and cut sequences are invalid bytes.
Letter decode(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        return {lead, 1, true};
    }
    const size_t length = lead >= 0xf0 ? 4 : lead >= 0xe0 ? 3 : 2;
    if (lead < 0xc2 || lead > 0xf4 || text.size() < length) {
        return {lead, 1, false};
    }
    char32_t code = lead & (0xffU >> (length + 1));
    for (size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xc0) != 0x80) {
            return {lead, 1, false};
        }
        code = code << 6 | (next & 0x3f);
    }
    constexpr char32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < smallest[length] || code > 0x10ffff || (code >= 0xd800 && code < 0xe000)) {
        return {lead, 1, false};
    }
    return {code, length, true};
}

bool isControl(char32_t code)
{
    return code < 0x20 || (code >= 0x7f && code < 0xa0);
}

std::string escaped(std::string_view bytes)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {'\\', 'x', digits[byte >> 4], digits[byte & 0xf]};
    }
    return text;
}

// The C library's own table of widths, of a fixed locale: what the user's locale says does not count.
size_t letterWidth(char32_t code)
{
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    if (locale == nullptr) {
        return 1;
    }
    const locale_t before = uselocale(locale);
    const int width = wcwidth(static_cast<wchar_t>(code));
    uselocale(before);
    return width < 0 ? 1 : static_cast<size_t>(width);
}

std::string painted(const std::string &text, const char *style)
{
    return std::string("\033[") + style + "m" + text + "\033[0m";
}

std::string painted(const std::string &text, Tone tone)
{
    switch (tone) {
    case Tone::bad:
        return painted(text, "31");
    case Tone::busy:
        return painted(text, "33");
    case Tone::plain:
        break;
    }
    return text;
}

} // namespace

std::string printable(std::string_view text, std::string_view keep)
{
    std::string shown;
    while (!text.empty()) {
        const Letter letter = decode(text);
        const std::string_view bytes = text.substr(0, letter.length);
        text.remove_prefix(letter.length);
        if (letter.valid && (!isControl(letter.code) || keep.find(bytes) != std::string_view::npos)) {
            shown += bytes;
        } else if (letter.code == '\n' || letter.code == '\t') {
            shown += letter.code == '\n' ? "\\n" : "\\t";
        } else {
            shown += escaped(bytes);
        }
    }
    return shown;
}

size_t displayWidth(std::string_view text)
{
    size_t width = 0;
    while (!text.empty()) {
        const Letter letter = decode(text);
        width += letterWidth(letter.code);
        text.remove_prefix(letter.length);
    }
    return width;
}

void Table::add(std::vector<Cell> row)
{
    assert(row.size() == columns_.size());
    for (Cell &cell : row) {
        cell.text = printable(cell.text);
    }
    rows_.push_back(std::move(row));
}

std::vector<size_t> Table::widths() const
{
    std::vector<size_t> widths;
    for (size_t column = 0; column < columns_.size(); ++column) {
        size_t width = displayWidth(columns_[column].title);
        for (const auto &row : rows_) {
            width = std::max(width, displayWidth(row[column].text));
        }
        widths.push_back(width);
    }
    return widths;
}

std::string Table::line(const std::vector<Cell> &cells, const std::vector<size_t> &widths, bool colour) const
{
    std::string text;
    size_t owed = 0; // blanks that are due only if something follows
    for (size_t column = 0; column < cells.size(); ++column) {
        const Cell &cell = cells[column];
        const size_t room = widths[column] - displayWidth(cell.text);
        const bool right = columns_[column].align == Align::right;
        owed += right ? room : 0;
        if (!cell.text.empty()) {
            text += std::string(owed, ' ') + (colour ? painted(cell.text, cell.tone) : cell.text);
            owed = 0;
        }
        owed += (right ? 0 : room) + 2;
    }
    return text;
}

bool Table::titled() const
{
    return std::any_of(columns_.begin(), columns_.end(), [](const Column &column) { return !column.title.empty(); });
}

std::string Table::render(bool colour) const
{
    const std::vector<size_t> width = widths();
    std::string text;
    if (titled()) {
        std::vector<Cell> titles;
        for (const Column &column : columns_) {
            titles.push_back({column.title});
        }
        const std::string head = line(titles, width, false);
        text += (colour ? painted(head, "1") : head) + "\n";
    }
    for (const auto &row : rows_) {
        text += line(row, width, colour) + "\n";
    }
    return text;
}

} // namespace ctl
