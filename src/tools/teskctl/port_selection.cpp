/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: select_ports() takes the user's list; "all" means the port map, or else the ports
   that answer a read. */
#include "tools/teskctl/port_selection.h"

#include "program/exit_code.h"
#include "program/output.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/port_requests.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <numeric>
#include <utility>

bool is_all(const ports_text &text)
{
    return text.size() == 1 && text.front() == "all";
}

void check_ports(const ports_text &text)
{
    if (!is_all(text))
        parse_ports(text, port_names());
}

/* Reading measured values is the only request for a port that leaves no record in the server's
   history. */
static std::vector<uint32_t> probe(event_loop &loop, session &server)
{
    std::vector<uint32_t> candidates(probed_ports), found;
    std::iota(candidates.begin(), candidates.end(), 0U);
    tesk_client_result failure = TESK_CLIENT_OK;
    request_all(loop, server, requests_for(TESK_CLIENT_REQUEST_PM, candidates),
                [&](const tesk_client_answer &answer) {
                    if (answer.result != TESK_CLIENT_OK && answer.result != TESK_CLIENT_REJECTED)
                        failure = answer.result;
                    if (answer.rejection != TESK_CLIENT_REJECTION_NO_PORT)
                        found.push_back(answer.port_no);
                });
    if (failure != TESK_CLIENT_OK)
        throw tool_error(exit_code_of(failure), explain(failure, tesk_client_result_text(failure)));
    std::ranges::sort(found);
    return found;
}

std::optional<port_name_map> port_map()
{
    port_name_map names;
    const tesk_client_result result = tesk_client_read_port_map(
        nullptr,
        [](uint32_t port_no, const char *name, void *user) {
            static_cast<port_name_map *>(user)->emplace(port_no, name);
        },
        &names);
    static bool is_reported = false;
    if (result != TESK_CLIENT_OK && result != TESK_CLIENT_NO_PORT_MAP &&
        !std::exchange(is_reported, true))
        complain("teskctl", fmt::format("port map ignored: {}", tesk_client_error()));
    return result == TESK_CLIENT_OK ? std::optional(std::move(names)) : std::nullopt;
}

port_name_map port_names()
{
    return port_map().value_or(port_name_map{});
}

std::vector<uint32_t> select_ports(event_loop &loop, session &server, const ports_text &text)
{
    if (!is_all(text))
        return parse_ports(text, port_names());
    const auto named = port_map();
    if (named && named->empty())
        throw tool_error(exit_code::rejected,
                         "the server has no port, as its port map says; \"journalctl -u "
                         "tesk-server\" has a line that begins with \"there is no port\" and says "
                         "what was looked for");
    std::vector<uint32_t> ports;
    for (const auto &[port_no, name] : named.value_or(port_name_map{}))
        ports.push_back(port_no);
    if (!named)
        ports = probe(loop, server);
    if (ports.empty() && loop.signal() == 0)
        throw tool_error(
            exit_code::rejected,
            fmt::format("the server has no port from 0 to {}: give the numbers of its ports",
                        probed_ports - 1));
    return ports;
}
