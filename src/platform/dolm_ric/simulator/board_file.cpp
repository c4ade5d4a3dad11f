/* SPDX-License-Identifier: Apache-2.0 */
/* A board file has no language of its own: each line is a command of the control protocol. Only the
   first line is another one: it gives the number of ports. The built-in board is such a text, too.

   An error ends the start of the board and names the line, since a wrong board would be noticed
   much later. */
#include "platform/dolm_ric/simulator/board_file.h"

#include "platform/dolm_ric/simulator/commands.h"
#include "platform/dolm_ric/simulator/control_protocol.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace board
{

/* One port of each kind, so that a client can meet all kinds without a file. */
static constexpr char built_in[] = R"(ports 16
insert 0-3 lc-own link=up speed=9.8
set 1 vendor_sn=EX10G0002 temperature=38.2C
set 2 vendor_sn=EX10G0003 temperature=44.0C speed=10.1
set 3 vendor_sn=EX10G0004 link=down
insert 4-7 lc link=up speed=10
set 5 vendor_sn=EX10G0102 temperature=47.9C
set 6 vendor_sn=EX10G0103 rxpower=-12.8dBm
set 7 vendor_sn=EX10G0104 ready=no link=down
insert 8-9 rj45 link=up speed=1.2
set 9 vendor_sn=EX1GT0002
insert 10 other link=up speed=10
insert 11 non-sfp
insert 12 unreadable
set 15 started=no link=stopped
)";

/* Reads the whole file. A file that can't be read, such as a directory, counts as empty, which is
   an error later. */
static std::string read_text(const char *path)
{
    if (path == nullptr)
        return built_in;
    std::ifstream file(path);
    std::ostringstream text;
    if (!file)
        throw board_error(std::string(path) + ": " + std::strerror(errno) + "; " +
                          DOLM_RIC_BOARD_FILE_ENV + " names it");
    text << file.rdbuf();
    return text.str();
}

/* Makes the ports from the first line. The other lines need them, since a line may name only
   existing ports. */
static std::unique_ptr<simulator> make_ports(std::string_view line, core &events,
                                             board_maker make_empty)
{
    const auto words = split_words(line);
    if (words.size() != 2 || words[0] != "ports")
        throw board_error("the first line must be \"ports COUNT\", such as \"ports 16\"");
    const auto count = static_cast<uint32_t>(parse_number(words[1], max_ports));
    if (count == 0)
        throw board_error("a board needs a port: COUNT must be 1 or more");
    return make_empty(count, events);
}

/* No port is subscribed yet, so only a raw event can be queued. */
static void run_line(std::string_view line, simulator &board)
{
    pending_answer pending;
    const auto guard = board.events.lock();
    const std::string answer = run_command(line, board, pending);
    if (!answer.starts_with("ok"))
        throw board_error(pending ? "a board file can't wait, not even for its events to be taken"
                                  : answer.substr(answer.find(' ') + 1));
}

std::unique_ptr<simulator> make_board(const char *path, core &events, board_maker make_empty)
{
    std::istringstream text(read_text(path));
    std::unique_ptr<simulator> board;
    std::string line;
    for (int number = 1; std::getline(text, line); number++) {
        if (split_words(line).empty() || line.starts_with('#'))
            continue;
        try {
            if (board)
                run_line(line, *board);
            else
                board = make_ports(line, events, make_empty);
        } catch (const board_error &error) {
            throw board_error((path != nullptr ? path : "built-in board") +
                              (":" + std::to_string(number)) + ": " + error.what());
        }
    }
    if (!board)
        throw board_error(std::string(path) + ": there is no line \"ports COUNT\"");
    return board;
}

} // namespace board
