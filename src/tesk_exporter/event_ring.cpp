/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: add() numbers an event and drops the oldest one beyond the capacity; after() says
   where a reader continues that has received the event with a given id. */
#include "tesk_exporter/event_ring.h"

#include "program/clock.h"
#include "tesk_exporter/falls.h"

#include <charconv>
#include <nlohmann/json.hpp>

namespace exporter
{

const char *change_text(change kind)
{
    /* In the order of enum change. */
    static constexpr const char *texts[] = {"initial",   "inserted", "removed", "replaced",
                                            "not ready", "up",       "down",    "grades"};
    return texts[static_cast<size_t>(kind)];
}

std::optional<uint32_t> port_of(const event &happened)
{
    if (const auto *info = std::get_if<tesk_client_sfp_info>(&happened.record))
        return info->port_no;
    if (const auto *status = std::get_if<tesk_client_port_status>(&happened.record))
        return status->port_no;
    if (const auto *fall = std::get_if<fall_fact>(&happened.record))
        return (*fall)->port_no;
    return std::nullopt;
}

static json_object record_to_json(const event &happened)
{
    if (const auto *info = std::get_if<tesk_client_sfp_info>(&happened.record))
        return to_json(*info);
    if (const auto *status = std::get_if<tesk_client_port_status>(&happened.record))
        return to_json(*status);
    if (const auto *fall = std::get_if<fall_fact>(&happened.record))
        return {{"event", "fall"},
                {"port", (*fall)->port_no},
                {"cause", name_of((*fall)->its.cause)},
                {"certainty", name_of((*fall)->its.certainty)},
                {"side", name_of((*fall)->its.side)},
                {"layer", name_of((*fall)->its.layer)},
                {"evidence", (*fall)->its.evidence},
                {"ill", (*fall)->its.ill}};
    const bool connected = std::get<server_change>(happened.record).connected;
    return {{"event", connected ? "restored" : "lost"}};
}

json_object to_json(const event &happened, const std::string &id)
{
    json_object object = {{"time", iso_time(happened.time_us)}};
    if (!id.empty())
        object["id"] = id;
    object.update(record_to_json(happened));
    if (port_of(happened) && !std::holds_alternative<fall_fact>(happened.record))
        object["change"] = change_text(happened.kind);
    return object;
}

std::string to_json_line(const event &happened, const std::string &id)
{
    return to_json(happened, id).dump();
}

void event_ring::add(event added)
{
    added.number = next_;
    if (events_.size() < capacity_)
        events_.push_back(std::move(added));
    else
        events_[(next_ - 1) % capacity_] = std::move(added);
    next_++;
}

std::string event_ring::id(uint64_t number) const
{
    return epoch_ + "-" + std::to_string(number);
}

std::optional<uint64_t> event_ring::after(std::string_view id) const
{
    if (id.size() <= epoch_.size() + 1 || !id.starts_with(epoch_) || id[epoch_.size()] != '-')
        return std::nullopt;
    id.remove_prefix(epoch_.size() + 1);
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(id.data(), id.data() + id.size(), number);
    if (error != std::errc{} || end != id.data() + id.size())
        return std::nullopt;
    /* The event itself may have been dropped, as long as all later events are kept. */
    if (number >= next_ || number + 1 < first())
        return std::nullopt;
    return number + 1;
}

} // namespace exporter
