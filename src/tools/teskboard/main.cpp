/* SPDX-License-Identifier: Apache-2.0 */
/* teskboard - plays the simulated board of a running tesk-server.

   A command becomes one request to the board, or, for a table, one for each port. A scene is parsed
   and checked as a whole; then each of its steps is carried out like a command, over one
   connection. Errors are thrown and end the program in one place, with a line on standard error and
   an exit code of their own. */
#include "program/clock.h"
#include "program/exit_code.h"
#include "program/known_command.h"
#include "program/output.h"
#include "program/run_tool.h"
#include "tools/teskboard/board_client.h"
#include "tools/teskboard/command.h"
#include "tools/teskboard/scene.h"
#include "tools/teskboard/view.h"

#include <algorithm>
#include <fmt/format.h>
#include <iterator>
#include <thread>

using namespace teskboard;

namespace
{

using seconds = std::chrono::duration<double>;

} // namespace

/* Flushes, since the lines of a scene are read while it is played. Throws if that fails: a scene
   must not continue without output. */
static void print(const std::string &text)
{
    write_text(text);
    check_output();
}

static uint32_t count_ports(board_client &board, seconds deadline)
{
    const std::string count(value_of(board.ask("board", deadline), "ports"));
    return static_cast<uint32_t>(std::stoul(count));
}

/* Without PORTS prints a table of all ports; named ports are shown in full. */
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

/* `played` is printed before the answer to a step of a scene. */
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

/* Finds every wrong port of a scene before its first step. */
static void check_ports(const std::vector<scene_step> &steps, uint32_t count)
{
    for (const scene_step &step : steps)
        for (const board::port_range &range : step.what.ports)
            if (range.last >= count)
                throw tool_error(
                    exit_code::usage,
                    fmt::format("{}: there is no port {}: this board has the ports 0 to {}",
                                step.where, range.last, count - 1));
}

/* A pause begins when the previous step was due, so that a scene always takes the same time; after
   a "wait" it begins when the wait has ended. */
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
            print(fmt::format("{}  {:>7}  {}: ", clock_time(now_us()), "+" + time, step.text));
        try {
            run(board, step.what, json, {{"time", time}, {"step", step.text}});
        } catch (const tool_error &error) {
            throw tool_error(error.code(), fmt::format("{}: {}", step.where, error.what()));
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
    /* Before the tool connects, so that a wrong scene is reported even if there is no board. */
    const std::vector<scene_step> steps = read_scene(what.scene);
    board_client board(whole.socket);
    play(board, steps, what, whole.json);
}

/* CLI11 reports --help and --version by exceptions, too, with the code 0. */
static exit_code run_command_line(int count, char **words)
{
    CLI::App app("Plays the simulated board of a running tesk-server.", "teskboard");
    try {
        settings whole;
        const command what = parse_command({words + 1, words + count}, &whole, app);
        carry_out(what, whole);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            throw usage_error(app, error);
        app.exit(error);
    } catch (const board::board_error &error) {
        throw tool_error(exit_code::usage, error.what());
    }
    return exit_code::done;
}

int main(int count, char **words)
{
    return run_tool("teskboard", [&] { return run_command_line(count, words); });
}
