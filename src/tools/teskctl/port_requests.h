/* SPDX-License-Identifier: Apache-2.0 */
/* port_requests - the same request for many ports. One thread. */
#pragma once

#include "tools/teskctl/session.h"

#include <map>
#include <set>
#include <vector>

/* The most requests in progress. A request's deadline begins when it is made: if thousands were
   made at once, many would expire in the queue. */
inline constexpr size_t most_open_requests = 64;

struct port_request {
    tesk_client_request_type type;
    uint32_t port_no;
};

/* One request of this type for each port. */
std::vector<port_request> requests_for(tesk_client_request_type type,
                                       const std::vector<uint32_t> &ports);

/* Sends all requests and waits for their answers. A process signal ends the wait; `take` isn't
   called after that. */
void request_all(event_loop &loop, session &server, const std::vector<port_request> &requests,
                 const session::answered &take);

/* Sends subscribe requests and returns the unsubscribe requests for the confirmed ones. `failed` is
   called for the others. */
std::vector<port_request> subscribe_all(event_loop &loop, session &server,
                                        const std::vector<port_request> &wanted,
                                        const session::answered &failed);

/* Subscribes to the SFP info of these ports and waits for the first indications, at most as long as
   for an answer; the session's handler stores them in `infos`. If a module has values but no SFP
   info, it is not ready. `failed` is called for ports that can't be subscribed to. */
void read_infos(const settings &common, event_loop &loop, session &server,
                const std::vector<uint32_t> &ports,
                const std::map<uint32_t, tesk_client_sfp_info> &infos,
                const session::answered &failed);

/* The ports whose module is not ready by the details that the board publishes: a board may have
   measured values of such a module. Empty if it publishes no details. */
std::set<uint32_t> unready_ports(const std::vector<uint32_t> &ports);

/* The measured values in an answer. For a port without a readable module the record has no values;
   nothing if the request failed. */
std::optional<tesk_client_pm> pm_of(const tesk_client_answer &answer,
                                    const std::set<uint32_t> &unready = {});
