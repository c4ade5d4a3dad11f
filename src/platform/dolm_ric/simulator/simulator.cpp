/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/dolm_ric/simulator/simulator.h"

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

/* A set-uid program takes no settings from its caller. */
static const char *setting_or(const char *name, const char *standard)
{
    const char *value = secure_getenv(name);
    return value != nullptr && *value != '\0' ? value : standard;
}

simulator::simulator(uint32_t port_count, core &events_of)
    : simulated_ports(port_count, events_of), events(events_of)
{
    const auto guard = events.lock();
    events.set_call_hook(&faults);
}

simulator::~simulator()
{
    const auto guard = events.lock();
    events.set_call_hook(nullptr);
}

void simulator::start()
{
    const std::string socket = setting_or(DOLM_RIC_BOARD_SOCKET_ENV, DOLM_RIC_BOARD_SOCKET);
    try {
        control_ = std::make_unique<control_server>(socket, *this);
        write_map(socket);
    } catch (const std::exception &error) {
        fprintf(stderr, "libdolm_ric: teskboard can't control this board: %s\n", error.what());
    }
}

/* Beside the socket by default, so that a board at another socket doesn't replace the map of the
   machine's own board. */
void simulator::write_map(const std::string &socket)
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

void simulator::stop() noexcept
{
    if (!map_path_.empty())
        unlink(map_path_.c_str());
    control_.reset();
    stop_details();
}

std::unique_ptr<port_source> make_port_source(core &events)
{
    return make_board(setting_or(DOLM_RIC_BOARD_FILE_ENV, nullptr), events);
}

} // namespace board
