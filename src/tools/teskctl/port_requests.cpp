/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: request_all() sends the requests and waits until each is answered, one can't be
   sent, or a process signal is received; the other functions choose the requests and handle the
   answers. */
#include "tools/teskctl/port_requests.h"

#include "program/words.h"
#include "tesk_client/tesk_details.h"

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

namespace
{

/* A process signal or a failed request ends the call before all answers were received; the rest
   arrive when the session is closed. The callbacks have a weak pointer to the batch, which is empty
   once the call has returned. */
struct batch {
    size_t open;
    const session::answered &take;
};

} // namespace

void request_all(event_loop &loop, session &server, const std::vector<port_request> &requests,
                 const session::answered &take)
{
    const auto all = std::make_shared<batch>(batch{0, take});
    const auto count_answer = [weak = std::weak_ptr(all)](const tesk_client_answer &answer) {
        const auto waiting = weak.lock();
        if (!waiting)
            return;
        waiting->open--;
        waiting->take(answer);
    };
    for (size_t next = 0; next < requests.size() || all->open > 0;) {
        for (; next < requests.size() && all->open < most_open_requests; next++) {
            server.request(requests[next].type, requests[next].port_no, count_answer);
            all->open++;
        }
        if (loop.wait(server.get(), std::nullopt) == event_loop::wake::signal)
            return;
    }
}

std::vector<port_request> subscribe_all(event_loop &loop, session &server,
                                        const std::vector<port_request> &wanted,
                                        const session::answered &failed)
{
    std::vector<port_request> held;
    request_all(loop, server, wanted, [&](const tesk_client_answer &answer) {
        if (answer.result == TESK_CLIENT_OK) {
            /* The type of an unsubscribe follows that of its subscribe. */
            held.push_back(
                {static_cast<tesk_client_request_type>(answer.request + 1), answer.port_no});
        } else {
            failed(answer);
        }
    });
    return held;
}

void read_infos(const settings &common, event_loop &loop, session &server,
                const std::vector<uint32_t> &ports,
                const std::map<uint32_t, tesk_client_sfp_info> &infos,
                const session::answered &failed)
{
    const size_t wanted =
        infos.size() + subscribe_all(loop, server,
                                     requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, ports),
                                     failed)
                           .size();
    const steady_time end =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(common.timeout_ms);
    while (infos.size() < wanted && std::chrono::steady_clock::now() < end &&
           loop.wait(server.get(), end) != event_loop::wake::signal) {
    }
}

std::set<uint32_t> unready_ports(const std::vector<uint32_t> &ports)
{
    std::set<uint32_t> unready;
    tesk_details *details = nullptr;
    if (tesk_details_open(nullptr, &details) != TESK_DETAILS_OK)
        return unready;
    for (const uint32_t port_no : ports) {
        dolm_ric_details_record record;
        if (tesk_details_read(details, port_no, &record) == TESK_DETAILS_OK &&
            record.presence == DOLM_RIC_PRESENCE_NOT_READY)
            unready.insert(port_no);
    }
    tesk_details_close(details);
    return unready;
}

std::optional<tesk_client_pm> pm_of(const tesk_client_answer &answer,
                                    const std::set<uint32_t> &unready)
{
    if (answer.pm != nullptr) {
        tesk_client_pm pm = *answer.pm;
        if (pm.sfp_type != TESK_CLIENT_SFP_NOT_PRESENT && unready.contains(pm.port_no))
            pm.sfp_type = module_not_ready;
        return pm;
    }
    const bool is_unready = answer.rejection == TESK_CLIENT_REJECTION_BUSY;
    if (!is_unready && answer.rejection != TESK_CLIENT_REJECTION_NO_MODULE)
        return std::nullopt;
    tesk_client_pm none{};
    none.port_no = answer.port_no;
    none.sfp_type = is_unready ? module_not_ready : uint32_t{TESK_CLIENT_SFP_NOT_PRESENT};
    return none;
}
