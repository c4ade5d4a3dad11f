/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_texts - the texts of results and enumerations; the value is the index into its table.
   Programs compare these texts (teskctl's JSON contains them), so they must not change. */
#include "tesk_client/tesk_client.h"

#include <span>

static constexpr const char *result_texts[] = {
    "done",
    "rejected by the server",
    "wrong use of the session",
    "no server",
    "no access to the server",
    "no answer in time",
    "the server went away",
    "cancelled",
    "the system failed",
    "there is no port map",
    "the port map is wrong",
};
static_assert(std::size(result_texts) == TESK_CLIENT_BAD_PORT_MAP + 1);

static constexpr const char *sfp_type_texts[] = {"not present", "electrical", "optical", "unknown"};
static constexpr const char *link_texts[] = {"stopped", "not operational", "operational"};
static constexpr const char *level_texts[] = {
    "ok", "low warning", "high warning", "low alarm", "high alarm", "not measured", "not supported",
};
static constexpr const char *measurement_texts[] = {
    "tx power", "rx power", "tx bias", "vcc", "temperature", "laser temperature", "tec",
};
static_assert(std::size(measurement_texts) == TESK_CLIENT_MEASUREMENTS);
static constexpr const char *environment_texts[] = {"clear", "set",   nullptr,
                                                    nullptr, nullptr, "not read"};
static constexpr const char *port_state_texts[] = {"unknown", "up", "down"};
static constexpr const char *presence_texts[] = {
    "not present", "present, not ready", "present and ready", "unknown", "unsupported port",
};
static constexpr const char *action_texts[] = {
    "unknown",
    "port status subscribed",
    "port status unsubscribed",
    "sfp info subscribed",
    "sfp info unsubscribed",
    "port status indication",
    "sfp info indication",
};

/* In the order of tesk_client_enumeration. */
static constexpr std::span<const char *const> enumerations[] = {
    sfp_type_texts,    link_texts,       level_texts,    measurement_texts,
    environment_texts, port_state_texts, presence_texts, action_texts,
};

const char *tesk_client_result_text(tesk_client_result result)
{
    const auto index = static_cast<size_t>(result);
    return index < std::size(result_texts) ? result_texts[index] : "unknown result";
}

const char *tesk_client_text(tesk_client_enumeration enumeration, uint32_t value)
{
    const auto index = static_cast<size_t>(enumeration);
    if (index >= std::size(enumerations) || value >= enumerations[index].size() ||
        enumerations[index][value] == nullptr)
        return "unknown";
    return enumerations[index][value];
}
