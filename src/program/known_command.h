/* SPDX-License-Identifier: Apache-2.0 */
/* known_command - errors of the command line: names an unknown command or option and the most
   similar known one, which CLI11 doesn't. Header only, since not all tools use CLI11. No state. */
#pragma once

#include "program/exit_code.h"
#include "program/nearest.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <string>
#include <vector>

/* The command that was parsed, or the tool itself. */
inline const CLI::App *parsed_command(const CLI::App &app)
{
    const auto parsed = app.get_subcommands();
    return parsed.empty() ? &app : parsed.front();
}

/* Adds "did you mean": the options of the command and of the tool are compared. */
inline std::string unknown_word(const CLI::App &app, const std::string &word)
{
    std::vector<std::string> known;
    if (!word.starts_with('-')) {
        for (const CLI::Option *option : parsed_command(app)->get_options())
            if (option != parsed_command(app)->get_help_ptr() && !option->get_lnames().empty())
                known.push_back("--" + option->get_lnames().front());
        return fmt::format("'{}' is one word too many{}{};", word,
                           known.empty() ? "" : ": the options are ", fmt::join(known, ", "));
    }
    for (const CLI::App *each : {parsed_command(app), &app})
        for (const CLI::Option *option : each->get_options())
            for (const std::string &name : option->get_lnames())
                known.push_back("--" + name);
    const std::string name = word.substr(0, word.find('='));
    return fmt::format("there is no option '{}': did you mean '{}'?", name, nearest(name, known));
}

/* The tool_error for a CLI::ParseError; its text names the --help that explains the usage. */
inline tool_error usage_error(const CLI::App &app, const CLI::ParseError &error)
{
    std::string text = fmt::format("{};", error.what());
    const auto unknown = app.remaining(true);
    if (const auto *command = parsed_command(app);
        command == &app && app.get_require_subcommand_min() > 0)
        text = "a command is missing;";
    else if (!unknown.empty())
        text = unknown_word(app, unknown.front());
    const std::string &command =
        parsed_command(app) == &app ? "" : parsed_command(app)->get_name() + " ";
    return {exit_code::usage,
            fmt::format("{} \"{} {}--help\" explains it", text, app.get_name(), command)};
}

/* Throws a tool_error with exit_code::usage if the first word that is neither an option of the app
   nor its value is not a command. */
inline void require_known_command(const CLI::App &app, const std::vector<std::string> &words)
{
    size_t at = 0;
    while (at < words.size() && (words[at].starts_with('-') || words[at] == "help")) {
        const CLI::Option *option =
            app.get_option_no_throw(words[at].substr(0, words[at].find('=')));
        if (option == nullptr && words[at] != "help")
            throw tool_error(exit_code::usage, unknown_word(app, words[at]));
        const bool has_value = words[at].find('=') != std::string::npos;
        at += option != nullptr && !has_value && option->get_items_expected_max() > 0 ? 2 : 1;
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
