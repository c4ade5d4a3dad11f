/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: split_words() splits a line; each parser converts one word, or throws a
   board_error that says which form is right. */
#include "platform/dolm_ric/simulator/words.h"

#include "platform/dolm_ric/operation.h"

#include <algorithm>
#include <charconv>

namespace board
{

[[noreturn]] static void fail(const std::string &text)
{
    throw board_error(text);
}

std::string quoted(std::string_view text)
{
    return "'" + escape(text, false) + "'";
}

std::vector<std::string_view> split_words(std::string_view text)
{
    constexpr std::string_view blanks = " \t\r";
    std::vector<std::string_view> words;
    for (size_t at = text.find_first_not_of(blanks); at != text.npos;
         at = text.find_first_not_of(blanks, at)) {
        words.push_back(text.substr(at, text.find_first_of(blanks, at) - at));
        at += words.back().size();
    }
    return words;
}

std::string escape(std::string_view bytes, bool spaces_too)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char byte : bytes) {
        const auto value = static_cast<unsigned char>(byte);
        if (byte == '\\')
            text += "\\\\";
        else if (value >= 0x7f || value < ' ' || (spaces_too && value == ' '))
            text += {'\\', 'x', digits[value >> 4], digits[value & 15]};
        else
            text += byte;
    }
    return text;
}

std::string unescape(std::string_view text)
{
    std::string bytes;
    for (size_t at = 0; at < text.size(); at++) {
        if (text[at] != '\\') {
            bytes += text[at];
            continue;
        }
        const std::string_view rest = text.substr(at + 1);
        unsigned value = 0;
        if (rest.starts_with('\\')) {
            bytes += '\\';
            at += 1;
        } else if (rest.size() >= 3 && rest[0] == 'x' &&
                   std::from_chars(&rest[1], &rest[1] + 2, value, 16).ptr == &rest[1] + 2) {
            bytes += static_cast<char>(value);
            at += 3;
        } else {
            fail(quoted(text) + ": after a backslash comes xNN or another backslash");
        }
    }
    return bytes;
}

std::optional<int64_t> parse_integer(std::string_view text)
{
    const bool negative = text.starts_with('-');
    std::string_view digits = text.substr(negative ? 1 : 0);
    const bool hex = digits.starts_with("0x");
    digits.remove_prefix(hex ? 2 : 0);
    uint64_t value = 0;
    const auto [end, error] =
        std::from_chars(digits.data(), digits.data() + digits.size(), value, hex ? 16 : 10);
    if (error != std::errc() || end != digits.data() + digits.size() || value > INT64_MAX)
        return std::nullopt;
    return negative ? -static_cast<int64_t>(value) : static_cast<int64_t>(value);
}

uint64_t parse_number(std::string_view text, uint64_t highest)
{
    const auto number = parse_integer(text);
    if (!number || *number < 0 || static_cast<uint64_t>(*number) > highest)
        fail(quoted(text) + " is no number from 0 to " + std::to_string(highest));
    return static_cast<uint64_t>(*number);
}

static uint32_t parse_port(std::string_view text, std::string_view list)
{
    const auto port = parse_integer(text);
    if (!port || *port < 0 || *port >= max_ports)
        fail(quoted(list) + " is no list of ports: it looks like 0-3,7, and the highest is " +
             std::to_string(max_ports - 1));
    return static_cast<uint32_t>(*port);
}

/* Adds the ports of the range that aren't in the list yet, as one range or several. */
static void add_range(port_list &ports, std::vector<bool> &is_listed, const port_range &added)
{
    bool continues = false; /* the port continues the last range of the list */
    for (uint32_t port = added.first; port <= added.last; port++) {
        const bool is_new = !is_listed[port];
        if (is_new && continues)
            ports.back().last = port;
        else if (is_new)
            ports.push_back({port, port});
        continues = is_new;
        is_listed[port] = true;
    }
}

/* A port that is named again counts again towards the limit, so that a list which names a port many
   times can't cause work for millions of ports. */
port_list parse_ports(std::string_view text)
{
    port_list ports;
    std::vector<bool> is_listed(max_ports);
    uint32_t count = 0;
    /* Includes an empty part at the end, which is an error. */
    for (size_t at = 0; at <= text.size();) {
        const std::string_view part = text.substr(at, text.find(',', at) - at);
        const size_t dash = part.find('-');
        const uint32_t first = parse_port(part.substr(0, dash), text);
        const uint32_t last = dash == part.npos ? first : parse_port(part.substr(dash + 1), text);
        if (last < first)
            fail(quoted(text) + " is no list of ports: a range goes upwards, as 3-7");
        count += last - first + 1;
        if (count > max_ports)
            fail("more ports are listed than a board can have, " + std::to_string(max_ports));
        add_range(ports, is_listed, {first, last});
        at += part.size() + 1;
    }
    return ports;
}

std::string format_ports(const port_list &ports)
{
    std::string text;
    for (const port_range &range : ports) {
        text += (text.empty() ? "" : ",") + std::to_string(range.first);
        if (range.last != range.first)
            text += "-" + std::to_string(range.last);
    }
    return text;
}

bool contains(const port_list &ports, uint32_t port)
{
    return std::ranges::any_of(ports, [port](const port_range &range) {
        return range.first <= port && port <= range.last;
    });
}

} // namespace board
