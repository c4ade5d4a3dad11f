/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: parse() appends the bytes to the rest of the last call, and takes keys from the
   front until the remainder is an incomplete sequence. */
#include "tools/teskctl/top_keys.h"

#include <optional>

namespace
{

struct sequence {
    std::string_view bytes;
    key_code code;
};

} // namespace

/* Cursor keys have two forms, depending on the terminal's mode; Home and End have four. */
static constexpr sequence sequences[] = {
    {"\x1b[A", key_code::up},    {"\x1bOA", key_code::up},       {"\x1b[B", key_code::down},
    {"\x1bOB", key_code::down},  {"\x1b[5~", key_code::page_up}, {"\x1b[6~", key_code::page_down},
    {"\x1b[H", key_code::home},  {"\x1bOH", key_code::home},     {"\x1b[1~", key_code::home},
    {"\x1b[F", key_code::end},   {"\x1bOF", key_code::end},      {"\x1b[4~", key_code::end},
    {"\r", key_code::enter},     {"\n", key_code::enter},        {"\x7f", key_code::backspace},
    {"\b", key_code::backspace},
};

/* The length of an escape sequence; nothing if it is incomplete. */
static std::optional<size_t> sequence_length(std::string_view bytes)
{
    if (bytes.size() < 2)
        return std::nullopt;
    if (bytes[1] == 'O')
        return bytes.size() < 3 ? std::nullopt : std::optional<size_t>(3);
    if (bytes[1] != '[')
        return 1; /* the escape key, followed by another key */
    const auto is_last = [](char byte) { return byte >= '@' && byte <= '~'; };
    for (size_t i = 2; i < bytes.size(); i++)
        if (is_last(bytes[i]))
            return i + 1;
    return std::nullopt;
}

static std::optional<key_code> code_of(std::string_view bytes)
{
    for (const sequence &known : sequences)
        if (known.bytes == bytes)
            return known.code;
    return std::nullopt;
}

std::vector<key> key_parser::parse(std::string_view bytes)
{
    std::vector<key> keys;
    if (bytes == "\x1b" && rest_.empty())
        return {{key_code::escape}};
    const std::string all = rest_ + std::string(bytes);
    std::string_view left = all;
    rest_.clear();
    while (!left.empty()) {
        const bool is_sequence = left[0] == '\x1b';
        const auto length = is_sequence ? sequence_length(left) : std::optional<size_t>(1);
        if (!length) {
            rest_ = left.size() < 16 ? left : ""; /* longer than any sequence, so not one */
            break;
        }
        const std::string_view part = left.substr(0, *length);
        if (const auto code = code_of(part))
            keys.push_back({*code});
        else if (is_sequence && *length == 1)
            keys.push_back({key_code::escape});
        else if (!is_sequence && part[0] >= ' ' && part[0] <= '~')
            keys.push_back({key_code::letter, part[0]});
        left.remove_prefix(*length);
    }
    return keys;
}
