/* SPDX-License-Identifier: Apache-2.0 */
/* The simulated board as a libdolm_ric: with a control server for teskboard, a port map and the
   details of its ports. */
#include "platform/dolm_ric/port_map.h"
#include "platform/dolm_ric/simulator/board_file.h"
#include "platform/dolm_ric/simulator/control_protocol.h"
#include "platform/dolm_ric/simulator/control_server.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <map>
#include <unistd.h>

namespace board
{

namespace
{

/* The port map belongs to the board that has the socket. If the control server or the map can't be
   started, the board works without it: one line on standard error gives the reason. */
class controlled_board final : public simulator
{
  public:
    using simulator::simulator;
    void start() override;
    void stop() noexcept override;

  private:
    void write_map(const std::string &socket);

    std::unique_ptr<control_server> control_;
    std::string map_path_; /* empty if there is no map */
};

} // namespace

/* A set-uid program ignores the settings of its caller. */
static const char *setting_or(const char *name, const char *standard)
{
    const char *value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : standard;
}

void controlled_board::start()
{
    const std::string socket = setting_or(DOLM_RIC_BOARD_SOCKET_ENV, DOLM_RIC_BOARD_SOCKET);
    try {
        control_ = std::make_unique<control_server>(socket, *this);
        write_map(socket);
    } catch (const std::exception &error) {
        fprintf(stderr, "libdolm_ric: teskboard can't control this board: %s\n", error.what());
    }
}

/* By default the map is beside the socket, so that a board at another socket doesn't replace the
   map of the machine's own board. */
void controlled_board::write_map(const std::string &socket)
{
    std::map<uint32_t, std::string> names;
    for (uint32_t port = 0; port < count(); port++)
        names.emplace(port, "port" + std::to_string(port));
    const std::string standard = std::filesystem::path(socket).parent_path() / "ports";
    const std::string path = setting_or(DOLM_RIC_PORT_MAP_ENV, standard.c_str());
    if (write_port_map(path, names))
        map_path_ = path;
    const auto guard = events.lock();
    start_details(details_path(path));
}

void controlled_board::stop() noexcept
{
    if (!map_path_.empty())
        unlink(map_path_.c_str());
    control_.reset();
    stop_details();
}

std::unique_ptr<port_source> make_port_source(core &events)
{
    const auto make_empty = [](uint32_t port_count, core &of) -> std::unique_ptr<simulator> {
        return std::make_unique<controlled_board>(port_count, of);
    };
    return make_board(setting_or(DOLM_RIC_BOARD_FILE_ENV, nullptr), events, make_empty);
}

} // namespace board
