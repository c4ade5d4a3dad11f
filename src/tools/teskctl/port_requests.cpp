/* SPDX-License-Identifier: Apache-2.0 */
#include "tools/teskctl/port_requests.h"

#include <memory>

std::vector<port_request> requests_for(tesk_client_request_type type,
                                       const std::vector<uint32_t> &ports)
{
    std::vector<port_request> requests;
    requests.reserve(ports.size());
    for (const uint32_t port : ports)
        requests.push_back({type, port});
    return requests;
}

void request_all(event_loop &loop, session &server, const std::vector<port_request> &requests,
                 const session::answered &answered)
{
    /* A process signal or a failed request ends this call before all answers are there: they come
       later, the last of them when the session is closed. The callbacks hold what they touch
       weakly, so that they find nothing once this call is over. */
    struct batch {
        size_t open;
        const session::answered &answered;
    };
    const auto all = std::make_shared<batch>(batch{requests.size(), answered});
    for (const port_request &request : requests)
        server.request(request.type, request.port_no,
                       [weak = std::weak_ptr(all)](const tesk_client_answer &answer) {
                           const auto waiting = weak.lock();
                           if (!waiting)
                               return;
                           --waiting->open;
                           waiting->answered(answer);
                       });
    while (all->open > 0 && loop.wait(server, std::nullopt) != event_loop::wake::signal) {
    }
}

std::vector<port_request> subscribe_all(event_loop &loop, session &server,
                                        const std::vector<port_request> &wanted,
                                        const session::answered &failed)
{
    std::vector<port_request> held;
    request_all(loop, server, wanted, [&](const tesk_client_answer &answer) {
        if (answer.result == TESK_CLIENT_OK) {
            /* Each unsubscribe stands behind its subscribe. */
            held.push_back(
                {static_cast<tesk_client_request_type>(answer.request + 1), answer.port_no});
        } else {
            failed(answer);
        }
    });
    return held;
}
