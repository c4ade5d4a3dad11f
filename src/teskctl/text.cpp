/* Values come in the protocol's whole numbers and leave as on a data sheet, with as many places as
   the numbers have. Widths count columns of the terminal: all text from outside is escaped to ASCII
   before it comes here, so that only our own characters are longer than a byte. */
#include "teskctl/text.h"
#include <algorithm>
#include <chrono>
#include <cmath>
#include <ctime>
#include <fmt/format.h>

namespace
{

/* Local time by a format of strftime. */
std::string local(uint64_t time_us, const char *format)
{
    const auto seconds = static_cast<time_t>(time_us / 1'000'000);
    tm broken_down{};
    localtime_r(&seconds, &broken_down);
    char text[64];
    return std::string(text, std::strftime(text, sizeof text, format, &broken_down));
}

std::string with_milliseconds(uint64_t time_us, const char *format)
{
    return fmt::format("{}.{:03}", local(time_us, format), time_us / 1000 % 1000);
}

/* Breaks a text at blanks into lines of at most `width` columns; a longer word is cut. */
std::vector<std::string> wrap(std::string_view text, size_t width)
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

} // namespace

std::string paint(const std::string &text, tint shade, bool enabled)
{
    static constexpr const char *codes[] = {"", "32", "33", "31", "2", "1"};
    if (!enabled || shade == tint::none)
        return text;
    return fmt::format("\x1b[{}m{}\x1b[0m", codes[static_cast<size_t>(shade)], text);
}

size_t display_width(std::string_view text)
{
    /* One column a character: the only ones beyond ASCII are our own, like that of degrees. */
    return static_cast<size_t>(std::ranges::count_if(
        text, [](char byte) { return (static_cast<unsigned char>(byte) & 0xc0) != 0x80; }));
}

std::string fit(std::string_view text, size_t width)
{
    const size_t taken = display_width(text);
    if (taken <= width)
        return std::string(text) + std::string(width - taken, ' ');
    /* Goes on until the first byte of a character is off, which is the one that counts. */
    while (display_width(text) > width)
        text.remove_suffix(1);
    return std::string(text);
}

std::string milliwatts(uint32_t microwatts)
{
    return fmt::format("{:.3f} mW", microwatts / 1000.0);
}

std::optional<double> to_dbm(uint32_t microwatts)
{
    if (microwatts == 0)
        return std::nullopt;
    return 10 * std::log10(microwatts / 1000.0);
}

std::string dbm(uint32_t microwatts)
{
    const auto value = to_dbm(microwatts);
    return value ? fmt::format("{:.2f} dBm", *value) : "< -30.00 dBm";
}

std::string celsius(int32_t tenths)
{
    return fmt::format("{:.1f} °C", tenths / 10.0);
}

std::string volts(uint32_t tenths_of_millivolts)
{
    return fmt::format("{:.4f} V", tenths_of_millivolts / 10000.0);
}

std::string milliamperes(uint32_t hundredths)
{
    return fmt::format("{:.2f} mA", hundredths / 100.0);
}

std::string gbps(uint32_t tenths)
{
    return fmt::format("{:.1f} Gbps", tenths / 10.0);
}

uint64_t now_us()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

std::string clock_time(uint64_t time_us)
{
    return with_milliseconds(time_us, "%H:%M:%S");
}

std::string date_and_time(uint64_t time_us)
{
    return with_milliseconds(time_us, "%Y-%m-%d %H:%M:%S");
}

std::string iso_time(uint64_t time_us)
{
    const std::string zone = local(time_us, "%z"); /* +0100 */
    return fmt::format("{}.{:06}{}:{}", local(time_us, "%Y-%m-%dT%H:%M:%S"), time_us % 1'000'000,
                       zone.substr(0, 3), zone.substr(3));
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
    /* In a window too narrow even for that, lines wrap, rather than lose what they tell. */
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
