/* SPDX-License-Identifier: Apache-2.0 */
/* Widths are columns of the terminal: text from outside is escaped to ASCII before, so that only
   our own characters, such as the degree sign, are longer than a byte. */
#include "tools/teskctl/layout.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

/* Breaks a text at blanks into lines of at most `width` columns; a longer word is cut. */
static std::vector<std::string> wrap(std::string_view text, size_t width)
{
    std::vector<std::string> lines;
    while (width > 0 && display_width(text) > width) {
        size_t end = text.rfind(' ', width);
        if (end == std::string_view::npos || end == 0)
            end = width;
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(std::min(text.size(), text.find_first_not_of(' ', end)));
    }
    lines.emplace_back(text);
    return lines;
}

std::string paint(const std::string &text, tint shade, bool enabled)
{
    static constexpr const char *codes[] = {"", "32", "33", "31", "2", "1"};
    if (!enabled || shade == tint::none)
        return text;
    return fmt::format("\x1b[{}m{}\x1b[0m", codes[static_cast<size_t>(shade)], text);
}

/* Each character has one column: those beyond ASCII are our own, such as the degree sign. Colours,
   from an escape to its 'm', have none. */
size_t display_width(std::string_view text)
{
    size_t width = 0;
    bool is_colour = false;
    for (const char byte : text) {
        is_colour |= byte == '\x1b';
        width += !is_colour && (static_cast<unsigned char>(byte) & 0xc0) != 0x80 ? 1 : 0;
        is_colour &= byte != 'm';
    }
    return width;
}

std::string fit(std::string_view text, size_t width)
{
    const size_t taken = display_width(text);
    if (taken <= width)
        return std::string(text) + std::string(width - taken, ' ');
    /* Only the first byte of a character counts, so the loop removes whole characters. */
    while (display_width(text) > width)
        text.remove_suffix(1);
    return std::string(text);
}

std::string table::text(size_t width) const
{
    constexpr size_t gap = 2, narrowest = 12;
    const size_t last = rows_.front().size() - 1;
    std::vector<size_t> widths(last, 0);
    size_t indent = 0;
    for (size_t i = 0; i < last; i++) {
        for (const auto &row : rows_)
            widths[i] = std::max(widths[i], display_width(row[i]));
        indent += widths[i] + gap;
    }
    /* If the window is even narrower, the terminal wraps the lines, so that nothing is lost. */
    const size_t room = width == 0 ? 0 : std::max(width, indent + narrowest) - indent;
    std::string text;
    for (const auto &row : rows_) {
        for (size_t i = 0; i < last; i++)
            text += fit(row[i], widths[i] + gap);
        bool first = true;
        for (const std::string &line : wrap(row[last], room))
            text += (std::exchange(first, false) ? "" : std::string(indent, ' ')) + line + "\n";
    }
    return text;
}
