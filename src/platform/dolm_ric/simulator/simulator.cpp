/* SPDX-License-Identifier: Apache-2.0 */
/* The ports, and the socket through which teskboard controls them. */
#include "platform/dolm_ric/simulator/simulator.h"

namespace board
{

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

} // namespace board
