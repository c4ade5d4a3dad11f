/* SPDX-License-Identifier: Apache-2.0 */
/* Runs each line of the input as a command to the simulated board: a command returns an answer or a
   condition to wait for, a command with an error changes nothing, and each value that is shown can
   be parsed again. */
#include "platform/dolm_ric/simulator/commands.h"
#include "platform/dolm_ric/simulator/control_protocol.h"
#include "tests/fuzz/fuzz_input.h"

#include <sstream>

static constexpr uint32_t port_count = 4;

static std::string state_of(board::simulator &board)
{
    board::pending_answer none;
    std::string state = board::run_command("board", board, none);
    for (uint32_t port = 0; port < port_count; port++)
        state += board::run_command("show " + std::to_string(port), board, none);
    return state;
}

static void run_line(const std::string &line, board::simulator &board)
{
    const std::string before = state_of(board);
    board::pending_answer pending;
    const std::string answer = board::run_command(line, board, pending);
    assert(answer.size() <= DOLM_RIC_BOARD_PACKET_MAX);
    if (pending) {
        assert(answer.empty());
        pending();
    } else {
        assert(answer.starts_with("ok") || answer.starts_with("error "));
    }
    if (!answer.starts_with("ok"))
        assert(state_of(board) == before);
}

/* An injected failure of waitevent may be permanent, so the number of tries is limited; it suffices
   for all events of an input. */
static void take_events(board::core &events)
{
    auto guard = events.lock();
    events.close();
    for (int tries = 0; tries < 4000; tries++) {
        dolm_ric_event *event = nullptr;
        const int32_t result = events.wait_event(guard, event);
        if (result == DOLM_RICERR_SHUTDOWN)
            return;
        assert((result == DOLM_RICERR_OK) == (event != nullptr));
        const bool was_out = event == nullptr || events.free_event(event);
        assert(was_out);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    board::core events;
    events.open();
    board::simulator board(port_count, events);
    {
        const auto guard = events.lock();
        events.subscribe(0, &board::subscriptions::port);
        events.subscribe(0, &board::subscriptions::link);
        std::istringstream lines(std::string(reinterpret_cast<const char *>(data), size));
        for (std::string line; std::getline(lines, line);)
            run_line(line, board);
        for (const board::field &shown : board::fields())
            board::parse_setting(std::string(shown.name) + "=" + board.value_of(0, shown));
    }
    take_events(events);
    return 0;
}
