/* SPDX-License-Identifier: Apache-2.0 */
/* events - raises link events at a board and prints the time from each event to the last
   subscriber's receipt: events BOARD RECEIPTS SUBSCRIBERS, then lines "events COUNT" on stdin. An
   event is raised once all subscribers have received the one before. */
#include "benchmarks/harness.h"
#include "platform/dolm_ric/dolm_ric.h"

#include <sys/socket.h>

using namespace bench;

/* The ports of the subscriptions. Their links are up at the start. */
static constexpr uint32_t event_ports = 4;
static constexpr uint32_t first_port_id = 0x00020000;

static void raise_event(int board_socket, uint32_t event)
{
    const bool down = event / event_ports % 2 == 0;
    const std::string request =
        "event " + std::to_string(DOLM_RICEVT_RILINKSTATUS) + " " +
        std::to_string(first_port_id + event % event_ports) + " " +
        std::to_string(down ? DOLM_RICRILINKSTATE_NOOPERATION : DOLM_RICRILINKSTATE_OPERATIONAL);
    need(static_cast<int>(send(board_socket, request.data(), request.size(), MSG_NOSIGNAL)),
         "board");
}

static std::vector<int64_t> raise_events(int board_socket, receipts &record, uint32_t subscribers,
                                         uint32_t count)
{
    std::vector<int64_t> times(count);
    for (uint32_t event = 0; event < count; event++) {
        char answer[1024];
        record.begin();
        const int64_t start = now_ns();
        raise_event(board_socket, event);
        times[event] = record.await_receipts(subscribers) - start;
        if (recv(board_socket, answer, sizeof(answer), 0) < 2 || answer[0] != 'o')
            fail("the board refuses an event");
    }
    return times;
}

static int run(std::span<char *> words)
{
    if (words.size() != 4)
        fail("events BOARD RECEIPTS SUBSCRIBERS");
    const int board_socket = connect_to(words[1]);
    receipts record(words[2]);
    const auto subscribers = static_cast<uint32_t>(std::stoul(words[3]));
    answer_lines([&](const std::vector<std::string> &line) {
        return raise_events(board_socket, record, subscribers,
                            static_cast<uint32_t>(std::stoul(line.at(1))));
    });
    return 0;
}

int main(int count, char **words)
{
    return report_failures(run, count, words);
}
