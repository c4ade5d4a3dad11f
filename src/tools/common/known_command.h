/* SPDX-License-Identifier: Apache-2.0 */
/* known_command - names an unknown command and the nearest known one, which CLI11 doesn't. Header
   only, since not all tools use CLI11's subcommands. */
#pragma once

#include "tools/common/exit_code.h"
#include "tools/common/nearest.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <string>
#include <vector>

/* Throws a tool_error with exit_code::usage if the first word that is neither an option of the app
   nor its value is not a command. */
inline void require_known_command(const CLI::App &app, const std::vector<std::string> &words)
{
    size_t at = 0;
    while (at < words.size() && (words[at].starts_with('-') || words[at] == "help")) {
        const CLI::Option *option = app.get_option_no_throw(words[at]);
        at += option != nullptr && option->get_items_expected_max() > 0 ? 2 : 1;
    }
    if (at >= words.size())
        return;
    std::vector<std::string> known;
    for (const CLI::App *command : app.get_subcommands({}))
        known.push_back(command->get_name());
    if (std::ranges::find(known, words[at]) != known.end())
        return;
    throw tool_error(
        exit_code::usage,
        fmt::format("no command is called '{}': did you mean '{}'? The commands are {}", words[at],
                    nearest(words[at], known), fmt::join(known, ", ")));
}
