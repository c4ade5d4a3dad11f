/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: fold() takes the entries in order; an entry of the same event as earlier ones
   joins their group, and a group that ends becomes one line. */
#include "tools/teskctl/history_fold.h"

#include "program/port_list.h"
#include "program/words.h"

#include <algorithm>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <set>
#include <unistd.h>

/* The records of one event are written within about a millisecond. Two events of one port within
   together_us count as one. */
static constexpr uint64_t together_us = 10'000;

namespace
{

/* The server's number for the client, and the client's own reference. */
using client_key = std::pair<uint32_t, uint32_t>;

struct history_group {
    history_entry first;
    std::set<uint32_t> ports;
    std::set<client_key> clients;
};

} // namespace

static bool joins(const history_group &open, const history_entry &entry)
{
    if (entry.kind != TESK_CLIENT_HISTORY_ACTIONS || open.first.kind != entry.kind ||
        open.first.record.action != entry.record.action ||
        entry.record.time_us - open.first.record.time_us > together_us)
        return false;
    const bool has_port = open.ports.contains(entry.record.port_no);
    const bool has_client = open.clients.contains({entry.record.client_id, entry.record.conn_ref});
    if (has_port && has_client)
        return false; /* a repeated action is an event of its own */
    return (has_port && open.ports.size() == 1) || (has_client && open.clients.size() == 1);
}

/* Users of the client library have their process id as reference; other programs may use any
   number. */
static bool is_process(uint32_t reference)
{
    return access(fmt::format("/proc/{}", reference).c_str(), F_OK) == 0;
}

static std::string clients_text(const std::set<client_key> &clients)
{
    std::vector<std::string> texts;
    texts.reserve(clients.size());
    for (const auto &[client_id, conn_ref] : clients)
        texts.push_back(fmt::format("{} ({} {})", client_id,
                                    is_process(conn_ref) ? "process id" : "reference", conn_ref));
    return fmt::format("client{} {}", clients.size() == 1 ? "" : "s", fmt::join(texts, ", "));
}

static std::string what_happened(const history_group &shown)
{
    const tesk_client_history_record &record = shown.first.record;
    switch (shown.first.kind) {
    case TESK_CLIENT_HISTORY_PORT_STATUS:
        return fmt::format("port {}, filter at {}; {}",
                           tesk_client_text(TESK_CLIENT_TEXT_PORT_STATE, record.port_state),
                           record.filter_level, describe_levels(record.level));
    case TESK_CLIENT_HISTORY_SFP_INFO:
        return fmt::format("module {}",
                           tesk_client_text(TESK_CLIENT_TEXT_PRESENCE, record.presence));
    default:
        return fmt::format("{} for {}", tesk_client_text(TESK_CLIENT_TEXT_ACTION, record.action),
                           clients_text(shown.clients));
    }
}

std::vector<folded_entry> fold(const std::vector<history_entry> &entries)
{
    std::vector<history_group> groups;
    for (const history_entry &entry : entries) {
        /* The newest group that the entry can join: entries of other groups may be in between. */
        const auto found =
            std::find_if(groups.rbegin(), groups.rend(),
                         [&](const history_group &open) { return joins(open, entry); });
        history_group &target =
            found != groups.rend() ? *found : groups.emplace_back(history_group{entry, {}, {}});
        target.ports.insert(entry.record.port_no);
        target.clients.insert({entry.record.client_id, entry.record.conn_ref});
    }
    std::vector<folded_entry> folded;
    folded.reserve(groups.size());
    for (const history_group &each : groups)
        folded.push_back({each.first, format_ports({each.ports.begin(), each.ports.end()}),
                          what_happened(each)});
    return folded;
}
