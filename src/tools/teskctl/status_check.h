/* SPDX-License-Identifier: Apache-2.0 */
/* status_check - adds the state of the module to indications, in the words of all commands. The
   server sends the same SFP info for an empty port and for an unreadable module, and the port
   status of an empty port has the type "electrical"; a read of measured values, which adds no
   record to the history, distinguishes them. One thread. */
#pragma once

#include "tools/teskctl/session.h"

#include <functional>
#include <map>

class status_check
{
  public:
    using status_shown = std::function<void(const tesk_client_port_status &)>;
    using info_shown = std::function<void(const tesk_client_sfp_info &)>;

    /* The functions receive every indication of their kind, in order for each port. The type is
       TESK_CLIENT_SFP_NOT_PRESENT for an empty port, and module_not_ready for a module that can't
       be read. */
    status_check(status_shown show_status, info_shown show_info)
        : show_status_(std::move(show_status)), show_info_(std::move(show_info))
    {
    }

    /* Both functions may be called in a callback of the session, which must be closed before this
       object is destroyed. */
    void take(session &server, const tesk_client_port_status &status);
    void take(session &server, const tesk_client_sfp_info &info);

  private:
    void ask(session &server, uint32_t port_no, const session::answered &show);

    status_shown show_status_;
    info_shown show_info_;
    std::map<uint32_t, size_t> open_; /* number of held indications, by port */
};
