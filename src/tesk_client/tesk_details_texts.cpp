/* SPDX-License-Identifier: Apache-2.0 */
/* The texts of the codes in the details of a port; the code is the index into its table. Programs
   compare these texts (the tools' JSON contains them), so they must not change. */
#include "tesk_client/tesk_details.h"

#include <iterator>
#include <span>

static constexpr const char *read_result_texts[] = {
    "done",
    "a null pointer",
    "there are no details of ports",
    "no permission to read the details of ports",
    "not a file of details of ports",
    "the details of ports are of another version",
    "the details of ports are cut short",
    "the board that wrote the details of ports has ended",
    "no such port",
    "the details of the port are being written",
    "the details of the port are damaged",
    "the system failed",
};
static_assert(std::size(read_result_texts) == TESK_DETAILS_FAILED + 1);

static constexpr const char *state_texts[] = {
    "unknown",   "valid",    "not supported", "not read",      "not ready",
    "no answer", "checksum", "doubtful",      "polling off",   "no light",
    "empty",     "busy",     "taken out",     "not published",
};
static_assert(std::size(state_texts) == DOLM_RIC_VALUE_STATES);
static constexpr const char *grade_texts[] = {
    "none", "ok", "low warning", "high warning", "low alarm", "high alarm", "off",
};
static_assert(std::size(grade_texts) == DOLM_RIC_GRADES);
static constexpr const char *flag_texts[] = {
    "low warning",
    "high warning",
    "low alarm",
    "high alarm",
};
static_assert(std::size(flag_texts) == DOLM_RIC_FLAGS);
static constexpr const char *module_value_texts[] = {
    "temperature",
    "voltage",
    "laser temperature",
    "tec current",
};
static_assert(std::size(module_value_texts) == DOLM_RIC_MODULE_VALUES);
static constexpr const char *lane_value_texts[] = {"tx bias", "tx power", "rx power"};
static_assert(std::size(lane_value_texts) == DOLM_RIC_LANE_VALUES);
static constexpr const char *signal_texts[] = {
    "rx los", "rx lol", "tx los", "tx lol", "tx fault", "tx off", "rx off",
};
static_assert(std::size(signal_texts) == DOLM_RIC_SIGNALS);
static constexpr const char *presences[] = {
    "unknown", "empty", "not ready", "ready", "polling off", "taken out", "no interface",
};
static_assert(std::size(presences) == DOLM_RIC_PRESENCES);
static constexpr const char *family_texts[] = {"unknown", "SFF-8472", "SFF-8636", "CMIS"};
static_assert(std::size(family_texts) == DOLM_RIC_FAMILIES);
static constexpr const char *medium_texts[] = {"unknown", "light", "copper"};
static_assert(std::size(medium_texts) == DOLM_RIC_MEDIA);
static constexpr const char *power_kind_texts[] = {"unknown", "average", "oma"};
static_assert(std::size(power_kind_texts) == DOLM_RIC_POWER_KINDS);
static constexpr const char *length_texts[] = {"smf", "om1", "om2", "om3", "om4", "om5", "cable"};
static_assert(std::size(length_texts) == DOLM_RIC_LENGTHS);
static constexpr const char *module_state_texts[] = {
    "none", "low power", "powering up", "ready", "powering down", "fault",
};
static_assert(std::size(module_state_texts) == DOLM_RIC_MODULE_STATES);
static constexpr const char *switch_texts[] = {"unknown", "down", "up"};
static_assert(std::size(switch_texts) == DOLM_RIC_SWITCHES);
static constexpr const char *duplex_texts[] = {"unknown", "half", "full"};
static_assert(std::size(duplex_texts) == DOLM_RIC_DUPLEXES);
static constexpr const char *fec_texts[] = {"unknown", "none", "base-r", "rs", "llrs"};
static_assert(std::size(fec_texts) == DOLM_RIC_FECS);
static constexpr const char *side_texts[] = {"host", "media"};
static_assert(std::size(side_texts) == DOLM_RIC_SIDES);
static constexpr const char *vdm_kind_texts[] = {
    "other",
    "snr",
    "pre-fec ber",
    "pre-fec ber min",
    "pre-fec ber max",
    "pre-fec ber average",
    "errored frames",
    "errored frames min",
    "errored frames max",
    "errored frames average",
    "laser temperature",
    "tec current",
};
static_assert(std::size(vdm_kind_texts) == DOLM_RIC_VDM_KINDS);
/* 0 is both "no fault" and "not reported". */
static constexpr const char *fault_cause_texts[] = {
    "none",
    "tec runaway",
    "corrupted data memory",
    "corrupted program memory",
};

/* In the order of tesk_details_enumeration. */
static constexpr std::span<const char *const> text_tables[] = {
    state_texts,  grade_texts,        flag_texts,        module_value_texts, lane_value_texts,
    signal_texts, presences,          family_texts,      medium_texts,       power_kind_texts,
    length_texts, module_state_texts, switch_texts,      duplex_texts,       fec_texts,
    side_texts,   vdm_kind_texts,     fault_cause_texts,
};
static_assert(std::size(text_tables) == TESK_DETAILS_TEXT_FAULT_CAUSE + 1);

static const char *text_at(std::span<const char *const> texts, size_t index)
{
    return index < texts.size() ? texts[index] : "unknown";
}

const char *tesk_details_result_text(tesk_details_result result)
{
    return text_at(read_result_texts, static_cast<size_t>(result));
}

const char *tesk_details_text(tesk_details_enumeration enumeration, uint32_t code)
{
    const auto index = static_cast<size_t>(enumeration);
    return index < std::size(text_tables) ? text_at(text_tables[index], code) : "unknown";
}
