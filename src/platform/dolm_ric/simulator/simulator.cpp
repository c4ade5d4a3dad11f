/* SPDX-License-Identifier: Apache-2.0 */
#include "platform/dolm_ric/simulator/simulator.h"

#include "platform/dolm_ric/simulator/board_file.h"
#include "platform/dolm_ric/simulator/control_protocol.h"
#include "platform/dolm_ric/simulator/control_server.h"

#include <cstdio>
#include <cstdlib>
#include <exception>

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
    try {
        control_ = std::make_unique<control_server>(
            setting_or(DOLM_RIC_BOARD_SOCKET_ENV, DOLM_RIC_BOARD_SOCKET), *this);
    } catch (const std::exception &error) {
        fprintf(stderr, "libdolm_ric: teskboard can't control this board: %s\n", error.what());
    }
}

void simulator::stop() noexcept
{
    control_.reset();
}

std::unique_ptr<port_source> make_port_source(core &events)
{
    return make_board(setting_or(DOLM_RIC_BOARD_FILE_ENV, nullptr), events);
}

} // namespace board
