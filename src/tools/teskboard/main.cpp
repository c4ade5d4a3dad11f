/* SPDX-License-Identifier: Apache-2.0 */
/* teskboard - plays the simulated board of a running tesk-server.

   A command becomes one request to the board, or, for a table, one for each port. A scene is read
   and checked as a whole, and then its steps are commands like any other, over one connection.
   Whatever goes wrong is thrown and ends the program at one place, with a line on standard error
   and an exit code of its own. */
#include "tools/teskboard/board_client.h"
#include "tools/teskboard/command.h"
#include "tools/teskboard/scene.h"
#include "tools/teskboard/view.h"

#include <algorithm>
#include <fmt/chrono.h>
#include <fmt/format.h>
#include <iterator>
#include <thread>

using namespace teskboard;
namespace
{

using seconds = std::chrono::duration<double>;

} // namespace

/* At once, since a scene's lines are read while it is played. */
static void print(const std::string &text)
{
    std::fputs(text.c_str(), stdout);
    if (std::fflush(stdout) != 0)
        throw failed(exit_code::no_output, "output could not be written: is the disk full?");
}

/* The clock's time, which also the server's clients show. */
static std::string clock_time()
{
    const auto now = std::chrono::system_clock::now();
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() %
        1000;
    return fmt::format("{:%H:%M:%S}.{:03}",
                       fmt::localtime(std::chrono::system_clock::to_time_t(now)), milliseconds);
}

static uint32_t count_ports(board_client &board, seconds deadline)
{
    const std::string count(value_of(board.ask("board", deadline), "ports"));
    return static_cast<uint32_t>(std::stoul(count));
}

/* Without named ports a table of all, with some each in full. */
static void show(board_client &board, const command &what, bool json)
{
    const seconds deadline(what.timeout);
    board::port_list list = what.ports;
    if (list.empty())
        list = {{0, count_ports(board, deadline) - 1}};
    const bool table = !json && what.ports.empty();
    if (table)
        print(format_table_head());
    for (const board::port_range &range : list) {
        for (uint32_t port = range.first; port <= range.last; port++) {
            const answer lines = board.ask(fmt::format("show {}", port), deadline);
            print(json ? to_json(lines) : table ? format_table_row(lines) : format_port(lines));
        }
    }
}

/* `played` stands before what a step of a scene answers. */
static void run(board_client &board, const command &what, bool json, const answer &played = {})
{
    if (what.what == action::show)
        return show(board, what, json);
    const bool counts = what.what == action::ports;
    answer lines = board.ask(counts ? "board" : what.request, seconds(what.timeout));
    if (!json)
        return print(counts ? format_board(lines) : format_change(lines) + "\n");
    lines.insert(lines.begin(), played.begin(), played.end());
    print(to_json(lines));
}

/* Everything that can be wrong in a scene is found before its first step. */
static void check_ports(const std::vector<scene_step> &steps, uint32_t count)
{
    for (const scene_step &step : steps)
        for (const board::port_range &range : step.what.ports)
            if (range.last >= count)
                throw failed(
                    exit_code::wrong_usage,
                    fmt::format("{}: there is no port {}: this board has the ports 0 to {}",
                                step.where, range.last, count - 1));
}

/* A pause counts from when the step before was due, so that a scene takes as long each time; but
   after a step that waited, from its end. */
static void play(board_client &board, const std::vector<scene_step> &steps, const command &whole,
                 bool json)
{
    using clock = std::chrono::steady_clock;
    check_ports(steps, count_ports(board, seconds(whole.timeout)));
    const auto start = clock::now();
    std::chrono::time_point<clock, seconds> due = start;
    for (const scene_step &step : steps) {
        due += step.pause;
        std::this_thread::sleep_until(due);
        const std::string time = fmt::format("{:.3f}", seconds(clock::now() - start).count());
        if (!json)
            print(fmt::format("{}  {:>7}  {}: ", clock_time(), "+" + time, step.text));
        try {
            run(board, step.what, json, {{"time", time}, {"step", step.text}});
        } catch (const failed &error) {
            throw failed(error.code, fmt::format("{}: {}", step.where, error.what()));
        }
        if (step.what.what == action::wait)
            due = clock::now();
    }
}

static void carry_out(const command &what, const settings &whole)
{
    if (what.what != action::play) {
        board_client board(whole.socket);
        return run(board, what, whole.json);
    }
    /* First of all: a scene that is wrong is told without a board, too. */
    const std::vector<scene_step> steps = read_scene(what.scene);
    board_client board(whole.socket);
    play(board, steps, what, whole.json);
}

/* CLI11 tells of --help and --version by exceptions too, and gives them the code 0. */
static exit_code run_command_line(int count, char **words)
{
    CLI::App app("Plays the simulated board of a running tesk-server.", "teskboard");
    try {
        settings whole;
        const command what = parse_command({words + 1, words + count}, &whole, app);
        carry_out(what, whole);
    } catch (const CLI::ParseError &error) {
        const bool told = app.exit(error) == 0;
        print(""); /* CLI11 has written, but not looked whether it could */
        return told ? exit_code::done : exit_code::wrong_usage;
    } catch (const board::board_error &error) {
        throw failed(exit_code::wrong_usage, error.what());
    }
    return exit_code::done;
}

static int complain(const std::exception &error, exit_code code)
{
    std::fflush(stdout); /* what was written before comes before, where both go to one place */
    std::fprintf(stderr, "teskboard: %s\n", error.what());
    return static_cast<int>(code);
}

int main(int count, char **words)
{
    try {
        return static_cast<int>(run_command_line(count, words));
    } catch (const failed &error) {
        return complain(error, error.code);
    } catch (const std::exception &error) {
        return complain(error, exit_code::fault);
    }
}
