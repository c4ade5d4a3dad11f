/* SPDX-License-Identifier: Apache-2.0 */
/* port_requests - the same request for many ports. One thread. */
#pragma once

#include "tools/teskctl/session.h"

#include <map>
#include <set>
#include <vector>

/* Requests in flight at once. A request's deadline runs from the moment it is made: thousands made
   at once would expire in the queue. */
inline constexpr size_t most_open_requests = 64;

struct port_request {
    tesk_client_request_type type;
    uint32_t port_no;
};

/* One request of this type for each port. */
std::vector<port_request> requests_for(tesk_client_request_type type,
                                       const std::vector<uint32_t> &ports);

/* Makes all requests and waits for their answers. A process signal ends the wait; `take` isn't
   called after that. */
void request_all(event_loop &loop, session &server, const std::vector<port_request> &requests,
                 const session::answered &take);

/* Makes subscribe requests and returns the unsubscribe requests for those that were confirmed.
   `failed` is called for the others. */
std::vector<port_request> subscribe_all(event_loop &loop, session &server,
                                        const std::vector<port_request> &wanted,
                                        const session::answered &failed);

/* Subscribes to the SFP info of these ports and waits for the first indications, which the
   session's handler puts into `infos`, as long as for an answer. Those with a module that the SFP
   info doesn't have are not ready. `failed` is called for the others. */
void read_infos(const settings &common, event_loop &loop, session &server,
                const std::vector<uint32_t> &ports,
                const std::map<uint32_t, tesk_client_sfp_info> &infos,
                const session::answered &failed);

/* Those of the ports whose module is not ready by the details that the board publishes: a board may
   have measured values of such a module. None where it publishes no details. */
std::set<uint32_t> unready_ports(const std::vector<uint32_t> &ports);

/* The measured values that an answer brings: for a port without a module, or whose module can't be
   read, a record without values, nothing if the request failed. */
std::optional<tesk_client_pm> pm_of(const tesk_client_answer &answer,
                                    const std::set<uint32_t> &unready = {});
