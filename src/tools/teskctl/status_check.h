/* SPDX-License-Identifier: Apache-2.0 */
/* status_check - indications with the module in the word of all commands. The server's SFP info of
   a module that can't be read is that of an empty port, whose port status has the type
   "electrical"; the measured values, whose reading leaves no record, show what is in the port. One
   thread. */
#pragma once

#include "tools/teskctl/session.h"

#include <functional>
#include <map>

class status_check
{
  public:
    using status_shown = std::function<void(const tesk_client_port_status &)>;
    using info_shown = std::function<void(const tesk_client_sfp_info &)>;

    /* Each function gets every indication of its kind, those of one port in their order, with
       TESK_CLIENT_SFP_NOT_PRESENT for one of an empty port and module_not_ready for one whose
       module can't be read. */
    status_check(status_shown show_status, info_shown show_info)
        : show_status_(std::move(show_status)), show_info_(std::move(show_info))
    {
    }

    /* Both may be called in a callback of the session, which must be closed before this object
       ends. */
    void take(session &server, const tesk_client_port_status &status);
    void take(session &server, const tesk_client_sfp_info &info);

  private:
    void ask(session &server, uint32_t port_no, const session::answered &show);

    status_shown show_status_;
    info_shown show_info_;
    std::map<uint32_t, size_t> open_; /* indications that wait, by port */
};
