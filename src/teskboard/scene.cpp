#include "scene.h"

#include "board_client.h"

#include <fmt/format.h>
#include <glib.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

namespace teskboard
{
namespace
{

/* Takes "+SECONDS" off the front of the line, if it is there. */
std::chrono::duration<double> take_pause(std::string_view &line)
{
    if (!line.starts_with('+'))
        return {};
    const std::string_view word = line.substr(1, line.find_first_of(" \t") - 1);
    double seconds = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), seconds);
    if (error != std::errc() || end != word.data() + word.size() ||
        !(seconds >= 0 && seconds < 1e6))
        throw board::board_error(fmt::format("+{}: a pause is +SECONDS, such as +0.5", word));
    line.remove_prefix(word.size() + 1);
    return std::chrono::duration<double>(seconds);
}

std::string_view strip(std::string_view line)
{
    const size_t first = line.find_first_not_of(" \t\r");
    if (first == line.npos)
        return {};
    return line.substr(first, line.find_last_not_of(" \t\r") - first + 1);
}

std::vector<std::string> split_quoted(std::string_view text)
{
    gchar **words = nullptr;
    GError *error = nullptr;
    if (!g_shell_parse_argv(std::string(text).c_str(), nullptr, &words, &error)) {
        const std::string why = error->message;
        g_error_free(error);
        throw board::board_error(why);
    }
    std::vector<std::string> list(words, words + g_strv_length(words));
    g_strfreev(words);
    return list;
}

command parse_step(std::string_view text)
{
    CLI::App app;
    app.set_help_flag();
    return parse_command(split_quoted(text), nullptr, app);
}

} // namespace

std::vector<scene_step> read_scene(const std::string &path)
{
    std::ifstream file(path);
    if (!file)
        throw failed(exit_code::wrong_usage, fmt::format("{}: {}", path, std::strerror(errno)));
    std::vector<scene_step> steps;
    std::chrono::duration<double> time = {};
    std::string content;
    for (int number = 1; std::getline(file, content); number++) {
        std::string_view line = strip(content);
        if (line.empty() || line.starts_with('#'))
            continue;
        const std::string where = fmt::format("{}:{}", path, number);
        try {
            time += take_pause(line);
            const std::string text(strip(line));
            steps.push_back({where, text, time, parse_step(text)});
        } catch (const std::exception &error) {
            throw failed(exit_code::wrong_usage, fmt::format("{}: {}", where, error.what()));
        }
    }
    return steps;
}

} // namespace teskboard
