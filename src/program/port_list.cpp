/* SPDX-License-Identifier: Apache-2.0 */
/* Ranges may overlap, so they are collected in a set. Limits are checked before a range is
   expanded: a mistake such as 0-4294967295 is reported at once. */
#include "program/port_list.h"

#include "program/exit_code.h"
#include "program/nearest.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <set>
#include <string_view>

/* A name contains a letter, so that a list of numbers isn't taken for a name. */
static bool is_name(std::string_view word)
{
    return word.find_first_not_of("0123456789- ") != std::string_view::npos;
}

static uint32_t parse_port(std::string_view text, const std::string &list)
{
    uint32_t port = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (text.empty() || error != std::errc{} || end != text.data() + text.size() ||
        port > highest_port) {
        throw tool_error(exit_code::usage,
                         fmt::format("\"{}\" is not a list of ports: write them as 0-3,7; they go "
                                     "from 0 to {}{}",
                                     list, highest_port,
                                     is_name(text) ? "; no interface names are known here" : ""));
    }
    return port;
}

static uint32_t port_of(const std::string &name, const port_name_map &names)
{
    const auto found = std::ranges::find(names, name, &port_name_map::value_type::second);
    if (found != names.end())
        return found->first;
    std::vector<std::string> known;
    for (const auto &entry : names)
        known.push_back(entry.second);
    throw tool_error(exit_code::usage, fmt::format("no port is called '{}': did you mean '{}'?",
                                                   name, nearest(name, known)));
}

static void add_range(std::string_view range, const std::string &list, const port_name_map &names,
                      std::set<uint32_t> &ports)
{
    if (!names.empty() && is_name(range)) {
        ports.insert(port_of(std::string(range), names));
        return;
    }
    const size_t dash = range.find('-');
    const uint32_t first = parse_port(range.substr(0, dash), list);
    const uint32_t last =
        dash == std::string_view::npos ? first : parse_port(range.substr(dash + 1), list);
    if (last < first)
        throw tool_error(
            exit_code::usage,
            fmt::format("\"{}\" is not a list of ports: a range goes upwards, as {}-{}", list, last,
                        first));
    for (uint32_t port = first; port <= last; port++)
        ports.insert(port);
}

std::vector<uint32_t> parse_ports(const std::vector<std::string> &lists, const port_name_map &names)
{
    std::set<uint32_t> ports;
    for (const std::string &list : lists) {
        std::string_view rest = list;
        size_t comma = 0;
        do {
            comma = rest.find(',');
            add_range(rest.substr(0, comma), list, names, ports);
            rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
        } while (comma != std::string_view::npos);
    }
    return {ports.begin(), ports.end()};
}

std::string format_ports(const std::vector<uint32_t> &ports)
{
    std::string text;
    for (size_t first = 0, last = 0; first < ports.size(); first = last + 1) {
        last = first;
        while (last + 1 < ports.size() && ports[last + 1] == ports[last] + 1)
            last++;
        text += fmt::format("{}{}", text.empty() ? "" : ",", ports[first]);
        if (last > first)
            text += fmt::format("-{}", ports[last]);
    }
    return text;
}
