/* SPDX-License-Identifier: Apache-2.0 */
/* Each step is parsed with the same code as a command line, so that both accept the same words and
   an error in a scene is found before anything has been changed on the board. Only the board knows
   which ports exist: main.cpp checks the ports before it plays the scene. */
#include "tools/teskboard/scene.h"

#include "program/exit_code.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <fstream>
#include <glib.h>

namespace teskboard
{

/* Parses a pause such as "+0.5"; a million seconds or more is a mistake. */
static std::chrono::duration<double> parse_pause(const std::string &word)
{
    double seconds = 0;
    const char *last = word.data() + word.size();
    const auto [end, error] = std::from_chars(word.data() + 1, last, seconds);
    if (error != std::errc() || end != last || !(seconds >= 0 && seconds < 1e6))
        throw board::board_error(word + ": a pause is +SECONDS, such as +0.5");
    return std::chrono::duration<double>(seconds);
}

/* The words of a line, without its comment. GLib would end a comment only at a newline. */
static std::vector<std::string> split_line(const std::string &line)
{
    gchar **words = nullptr;
    GError *error = nullptr;
    if (!g_shell_parse_argv((line + "\n").c_str(), nullptr, &words, &error)) {
        const bool empty = g_error_matches(error, G_SHELL_ERROR, G_SHELL_ERROR_EMPTY_STRING);
        const std::string why = error->message;
        g_error_free(error);
        if (empty)
            return {};
        throw board::board_error(why);
    }
    std::vector<std::string> list(words, words + g_strv_length(words));
    g_strfreev(words);
    return list;
}

/* The words are a command line of their own, without the options for the whole run. */
static scene_step parse_step(std::vector<std::string> words)
{
    scene_step step = {};
    if (words[0].starts_with('+')) {
        step.pause = parse_pause(words[0]);
        words.erase(words.begin());
    }
    step.text = fmt::format("{}", fmt::join(words, " "));
    CLI::App app;
    app.set_help_flag();
    step.what = parse_command(std::move(words), nullptr, app);
    return step;
}

static tool_error error_at(const std::string &where, const std::exception &error)
{
    return {exit_code::usage, fmt::format("{}: {}", where, error.what())};
}

std::vector<scene_step> read_scene(const std::string &path)
{
    std::ifstream file(path);
    if (!file)
        throw tool_error(exit_code::usage, fmt::format("{}: {}", path, std::strerror(errno)));
    std::vector<scene_step> steps;
    std::string line;
    for (int number = 1; std::getline(file, line); number++) {
        const std::string where = fmt::format("{}:{}", path, number);
        try {
            auto words = split_line(line);
            if (words.empty())
                continue;
            steps.push_back(parse_step(std::move(words)));
            steps.back().where = where;
        } catch (const board::board_error &error) {
            throw error_at(where, error);
        } catch (const CLI::Error &error) {
            throw error_at(where, error);
        } catch (const tool_error &error) {
            throw error_at(where, error);
        }
    }
    return steps;
}

} // namespace teskboard
