/* SPDX-License-Identifier: Apache-2.0 */
/* words - splits text into words, and parses and prints numbers, escaped bytes and lists of ports.
   Pure functions. Text that can't be parsed throws a board_error. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace board
{

/* The words are views into `text`. */
std::vector<std::string_view> split_words(std::string_view text);

/* The form that parse_setting takes: non-printable and non-ASCII bytes become \xNN, a backslash
   \\. */
std::string escape(std::string_view bytes, bool spaces_too);
/* The inverse of escape(). A single backslash is an error, since it is probably a mistake. */
std::string unescape(std::string_view text);
/* A text for messages: escaped and in quotes. */
std::string quoted(std::string_view text);

/* A decimal or 0x number with an optional sign; nothing for any other text. */
std::optional<int64_t> parse_integer(std::string_view text);
/* A decimal or 0x number from 0 to `highest`. */
uint64_t parse_number(std::string_view text, uint64_t highest);

/* Ports in the order in which they were first named, without duplicates. */
struct port_range {
    uint32_t first;
    uint32_t last;
};
using port_list = std::vector<port_range>;

/* Parses "0-3,7"; never an empty list. */
port_list parse_ports(std::string_view text);
std::string format_ports(const port_list &ports);
bool contains(const port_list &ports, uint32_t port);

} // namespace board
