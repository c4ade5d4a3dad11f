/* SPDX-License-Identifier: Apache-2.0 */
/* status_check - port statuses with the module in the word of all commands. The server's port
   status of an empty port has the type "electrical"; the measured values, whose reading leaves no
   record, show whether there is a module. One thread. */
#pragma once

#include "tools/teskctl/session.h"

#include <functional>
#include <map>

class status_check
{
  public:
    using shown = std::function<void(const tesk_client_port_status &)>;

    /* `show` gets every status, those of one port in their order, with
       TESK_CLIENT_SFP_NOT_PRESENT for one of an empty port. */
    explicit status_check(shown show) : show_(std::move(show))
    {
    }

    /* May be called in a callback of the session, which must be closed before this object ends. */
    void take(session &server, const tesk_client_port_status &status);

  private:
    shown show_;
    std::map<uint32_t, size_t> open_; /* statuses that wait, by port */
};
