/* SPDX-License-Identifier: Apache-2.0 */
/* board_control - the socket at which a simulated board is played, and the thread that serves it.
   Its users are in other processes; what they ask is carried out under the desk's lock, between two
   calls of the library. */
#pragma once

#include "platform/dolm_ric/simulator/board_requests.h"

#include <memory>
#include <string>

namespace board
{

class board_control
{
  public:
    /* Listens at that path and starts the thread; a board_error tells why that can't be. Neither
       this nor the destructor, which ends the thread, is called with the desk's lock held. */
    board_control(const std::string &path, const stage &on);
    ~board_control();
    board_control(const board_control &) = delete;
    board_control &operator=(const board_control &) = delete;

  private:
    class server;
    std::unique_ptr<server> own;
};

} // namespace board
