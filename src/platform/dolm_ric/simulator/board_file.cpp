/* SPDX-License-Identifier: Apache-2.0 */
/* A board file has no language of its own: each line is a request of the control protocol, so
   whatever can be played can also stand at the start. Only the first line is another thing, as it
   says how many ports there are.

   The built-in board is such a file, too. What the file says wrong is told with the line's number,
   and no board comes of it: a board that is not quite what was meant would be found out much later.
 */
#include "platform/dolm_ric/simulator/board_file.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

namespace board
{

/* Something of each kind, so that whatever a client may meet is there without a file. */
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

/* The whole file; what can't be read counts as empty, which no board file is. */
static std::string read_text(const char *path)
{
    if (path == nullptr)
        return built_in;
    std::ifstream file(path);
    std::ostringstream text;
    if (!file)
        throw board_error(std::string(path) + ": " + std::strerror(errno));
    text << file.rdbuf();
    return text.str();
}

/* The line that the others need: what they name must exist. */
static std::unique_ptr<simulated_ports> make_ports(std::string_view line, desk &events)
{
    const auto words = split_words(line);
    if (words.size() != 2 || words[0] != "ports")
        throw board_error("the first line is: ports COUNT");
    const auto count = static_cast<uint32_t>(parse_number(words[1], max_ports));
    if (count == 0)
        throw board_error("a board has one port at least");
    events.open(count);
    return std::make_unique<simulated_ports>(count, events);
}

/* Nobody subscribes yet, so no event comes of it. */
static void carry_out(std::string_view line, const stage &on)
{
    condition never;
    const std::string answer = answer_request(line, on, never);
    if (!answer.starts_with("ok"))
        throw board_error(never ? "nobody waits in a board file"
                                : answer.substr(answer.find(' ') + 1));
}

std::unique_ptr<simulated_ports> make_board(const char *path, desk &events)
{
    std::istringstream text(read_text(path));
    std::unique_ptr<simulated_ports> ports;
    std::string line;
    for (int number = 1; std::getline(text, line); number++) {
        if (split_words(line).empty() || line.starts_with('#'))
            continue;
        try {
            if (ports)
                carry_out(line, {events, *ports});
            else
                ports = make_ports(line, events);
        } catch (const board_error &error) {
            throw board_error((path != nullptr ? path : "built-in board") +
                              (":" + std::to_string(number)) + ": " + error.what());
        }
    }
    if (!ports)
        throw board_error(std::string(path) + ": a board has one port at least");
    return ports;
}

} // namespace board
