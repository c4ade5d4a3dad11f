/* SPDX-License-Identifier: Apache-2.0 */
/* simulator - the simulated board as a port source: ports in memory, and injected faults. */
#pragma once

#include "platform/dolm_ric/core.h"
#include "platform/dolm_ric/simulator/fault_injector.h"
#include "platform/dolm_ric/simulator/simulated_ports.h"

namespace board
{

class simulator : public simulated_ports
{
  public:
    /* A board of empty cages. Installs itself as the core's hook, and takes the core's lock to do
       so. */
    simulator(uint32_t port_count, core &events_of);
    ~simulator() override;

    core &events;          /* the core of this board */
    fault_injector faults; /* installed as the core's hook */
};

} // namespace board
