/* SPDX-License-Identifier: Apache-2.0 */
/* simulator - the simulated board as a port source: ports in memory, injected faults, and a control
   server for teskboard. */
#pragma once

#include "platform/dolm_ric/core.h"
#include "platform/dolm_ric/simulator/fault_injector.h"
#include "platform/dolm_ric/simulator/simulated_ports.h"

#include <memory>
#include <string>

namespace board
{

class control_server;

class simulator final : public simulated_ports
{
  public:
    /* A board of empty cages. Installs itself as the core's hook; takes the lock. */
    simulator(uint32_t port_count, core &events_of);
    ~simulator() override;

    /* The control server and the port map, which belongs to the board that has the socket. A board
       without them still works: the reason is one line on standard error. */
    void start() override;
    void stop() noexcept override;

    core &events;          /* of this board */
    fault_injector faults; /* as the core's hook */

  private:
    void write_map(const std::string &socket);

    std::unique_ptr<control_server> control_;
    std::string map_path_; /* empty without a map */
};

} // namespace board
