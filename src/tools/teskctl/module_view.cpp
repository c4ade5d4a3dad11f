/* SPDX-License-Identifier: Apache-2.0 */
/* A missing value is replaced by the reason and the age of the last one. Powers are shown in dBm,
   also between their limits. */
#include "tools/teskctl/module_view.h"

#include "program/units.h"
#include "tools/teskctl/layout.h"
#include "util/escape.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fmt/format.h>
#include <fmt/ranges.h>

static constexpr size_t bar_cells = 21;
static constexpr size_t label_width = 10;

using texts = std::vector<std::string>;

namespace
{

/* How a measured value is written. */
struct quantity {
    int places;
    const char *unit;
    bool is_power; /* milliwatts, shown in dBm */
};

} // namespace

static const quantity module_quantities[] = {
    {1, nullptr, false}, /* degrees, whose sign depends on the locale */
    {3, "V", false},
    {1, nullptr, false},
    {1, "%", false},
};
static const quantity lane_quantities[] = {
    {2, "mA", false},
    {2, "dBm", true},
    {2, "dBm", true},
};

static const char *unit_of(const quantity &shown)
{
    return shown.unit != nullptr ? shown.unit : celsius_unit();
}

template <size_t width>
static std::string text_of(const char (&field)[width])
{
    return escape({field, strnlen(field, width)});
}

static std::string number_text(double value, const quantity &shown)
{
    if (shown.is_power && value <= 0)
        return "no light";
    return fmt::format("{:.{}f}", shown.is_power ? milliwatts_to_dbm(value) : value, shown.places);
}

static std::string span_text(int64_t duration)
{
    const auto seconds = static_cast<double>(std::max<int64_t>(duration, 0)) / 1e9;
    static constexpr struct {
        double seconds;
        const char *unit;
    } units[] = {{86400, "d"}, {3600, "h"}, {60, "min"}};
    for (const auto &[length, unit] : units)
        if (seconds >= 2 * length)
            return fmt::format("{:.0f} {}", std::floor(seconds / length), unit);
    if (seconds < 1e-4)
        return fmt::format("{:.0f} us", seconds * 1e6);
    return seconds < 1 ? fmt::format("{:.1f} ms", seconds * 1000)
                       : fmt::format("{:.0f} s", seconds);
}

static std::string age_text(int64_t at, int64_t now)
{
    return at > 0 ? span_text(now - at) + " ago" : "never";
}

static void add(texts &parts, const std::string &part)
{
    if (!part.empty())
        parts.push_back(part);
}

/* Adds a text with its label in front, unless the text is empty. */
static void add(texts &parts, const char *label, const std::string &part)
{
    if (!part.empty())
        parts.push_back(fmt::format("{} {}", label, part));
}

static void add_line(texts &lines, const char *label, const texts &parts)
{
    if (!parts.empty())
        lines.push_back("  " + fit(label, label_width) + fmt::format("{}", fmt::join(parts, ", ")));
}

static tint tint_of(uint32_t grade)
{
    switch (grade) {
    case DOLM_RIC_GRADE_OK:
        return tint::green;
    case DOLM_RIC_GRADE_LOW_WARNING:
    case DOLM_RIC_GRADE_HIGH_WARNING:
        return tint::yellow;
    case DOLM_RIC_GRADE_LOW_ALARM:
    case DOLM_RIC_GRADE_HIGH_ALARM:
        return tint::red;
    default:
        return tint::none;
    }
}

static texts kind_of(const dolm_ric_details_identity &its)
{
    texts kind;
    add(kind, text_of(its.form_factor));
    add(kind, text_of(its.connector));
    if (its.medium != DOLM_RIC_MEDIUM_UNKNOWN)
        add(kind, tesk_details_text(TESK_DETAILS_TEXT_MEDIUM, its.medium));
    if (its.family != DOLM_RIC_FAMILY_UNKNOWN)
        add(kind, tesk_details_text(TESK_DETAILS_TEXT_FAMILY, its.family) +
                      (its.cmis_revision != 0
                           ? fmt::format(" {}.{}", its.cmis_revision >> 4, its.cmis_revision & 15)
                           : ""));
    add(kind, text_of(its.technology));
    add(kind, text_of(its.encoding));
    return kind;
}

static texts maker_of(const dolm_ric_details_identity &its)
{
    texts maker;
    add(maker, text_of(its.vendor));
    add(maker, "part", text_of(its.part));
    add(maker, "revision", text_of(its.revision));
    add(maker, "serial", text_of(its.serial));
    add(maker, "date", text_of(its.date));
    if (its.oui[0] != 0 || its.oui[1] != 0 || its.oui[2] != 0)
        add(maker, fmt::format("OUI {:02x}:{:02x}:{:02x}", its.oui[0], its.oui[1], its.oui[2]));
    return maker;
}

static texts reach_of(const dolm_ric_details_identity &its)
{
    texts reach;
    for (uint32_t i = 0; i < std::min<uint32_t>(its.compliance_count, DOLM_RIC_DETAILS_COMPLIANCES);
         i++)
        add(reach, text_of(its.compliance[i]));
    if (its.bit_rate > 0)
        add(reach, fmt::format("{:g} Gbit/s", its.bit_rate));
    if (its.wavelength > 0)
        add(reach, fmt::format("{:g} nm", its.wavelength));
    for (uint32_t i = 0; i < DOLM_RIC_LENGTHS; i++)
        if (its.length[i] > 0)
            add(reach, fmt::format("{} {:g} m", tesk_details_text(TESK_DETAILS_TEXT_LENGTH, i),
                                   its.length[i]));
    return reach;
}

static texts state_of(const dolm_ric_details_record &record, int64_t now)
{
    const dolm_ric_details_identity &its = record.identity;
    texts state;
    if (its.module_state != DOLM_RIC_MODULE_STATE_NONE)
        add(state, tesk_details_text(TESK_DETAILS_TEXT_MODULE_STATE, its.module_state));
    if (its.fault_cause != 0)
        add(state, "fault",
            fmt::format("{} ({})",
                        tesk_details_text(TESK_DETAILS_TEXT_FAULT_CAUSE, its.fault_cause),
                        its.fault_cause));
    if (its.power_class != 0)
        add(state, fmt::format("power class {}", its.power_class));
    if (its.max_power > 0)
        add(state, fmt::format("at most {:g} W", its.max_power));
    add(state, "firmware", text_of(its.firmware));
    add(state, "inactive firmware", text_of(its.inactive_firmware));
    if (record.inserted_at > 0)
        add(state, "found " + age_text(record.inserted_at, now));
    return state;
}

static void add_identity(texts &lines, const dolm_ric_details_record &record, int64_t now)
{
    const dolm_ric_details_identity &its = record.identity;
    if (its.state != DOLM_RIC_VALUE_VALID) {
        add_line(lines, "module", {tesk_details_text(TESK_DETAILS_TEXT_STATE, its.state)});
        return;
    }
    add_line(lines, "module", kind_of(its));
    add_line(lines, "vendor", maker_of(its));
    add_line(lines, "reach", reach_of(its));
    add_line(lines, "state", state_of(record, now));
}

static void add_applications(texts &lines, const dolm_ric_details_identity &its)
{
    const uint32_t count = std::min<uint32_t>(its.application_count, DOLM_RIC_DETAILS_APPLICATIONS);
    for (uint32_t i = 0; i < count; i++) {
        const dolm_ric_details_application &one = its.application[i];
        add_line(
            lines, i == 0 ? "runs as" : "",
            {fmt::format("{} {} x{} to {} x{}", one.selected_lanes != 0 ? "*" : " ",
                         text_of(one.host), one.host_lanes, text_of(one.media), one.media_lanes)});
    }
}

static void add_link(texts &lines, const dolm_ric_details_link &its, int64_t now)
{
    if (its.state != DOLM_RIC_VALUE_VALID) {
        add_line(lines, "link", {tesk_details_text(TESK_DETAILS_TEXT_STATE, its.state)});
        return;
    }
    texts parts = {tesk_details_text(TESK_DETAILS_TEXT_SWITCH, its.oper)};
    if (its.admin == DOLM_RIC_SWITCH_DOWN)
        parts.push_back("set down");
    if (its.speed != 0)
        parts.push_back(fmt::format("{:g} Gbit/s", its.speed / 1000.0));
    if (its.lanes != 0)
        parts.push_back(fmt::format("{} lane{}", its.lanes, its.lanes == 1 ? "" : "s"));
    if (its.duplex != DOLM_RIC_DUPLEX_UNKNOWN)
        add(parts,
            fmt::format("{} duplex", tesk_details_text(TESK_DETAILS_TEXT_DUPLEX, its.duplex)));
    if (its.autoneg != DOLM_RIC_SWITCH_UNKNOWN)
        add(parts, its.autoneg == DOLM_RIC_SWITCH_UP ? "autonegotiation" : "no autonegotiation");
    if (its.fec != DOLM_RIC_FEC_UNKNOWN)
        add(parts, "FEC", tesk_details_text(TESK_DETAILS_TEXT_FEC, its.fec));
    parts.push_back(fmt::format("{} falls, {} rises", its.falls, its.rises));
    if (its.changed_at > 0)
        parts.push_back("changed " + age_text(its.changed_at, now));
    add_line(lines, "link", parts);
}

std::string limits_bar(const dolm_ric_details_value &value, const dolm_ric_details_limits &limits,
                       bool is_logarithmic, size_t cells)
{
    if (value.state != DOLM_RIC_VALUE_VALID || limits.state != DOLM_RIC_VALUE_VALID)
        return {};
    const auto scaled = [&](double from) {
        return is_logarithmic ? milliwatts_to_dbm(std::max(from, 1e-4))
                              : from; /* -40 dBm stands for no light */
    };
    const double low = scaled(limits.low_alarm);
    const double high = scaled(limits.high_alarm);
    if (!std::isfinite(low) || !std::isfinite(high) || high <= low || !std::isfinite(value.value))
        return {};
    const auto cell_of = [&](double from) {
        const double part = std::clamp((scaled(from) - low) / (high - low), 0.0, 1.0);
        return static_cast<size_t>(std::lround(part * static_cast<double>(cells - 1)));
    };
    std::string bar(cells, '-');
    bar[cell_of(limits.low_warning)] = '+';
    bar[cell_of(limits.high_warning)] = '+';
    if (value.value < limits.low_alarm)
        bar.front() = '<';
    else if (value.value > limits.high_alarm)
        bar.back() = '>';
    else
        bar[cell_of(value.value)] = '#';
    return bar;
}

static std::string drawn(const std::string &bar, bool has_unicode)
{
    if (!has_unicode)
        return "|" + bar + "|";
    std::string text = "\u2595"; /* right one eighth block */
    for (const char cell : bar)
        text += cell == '-'   ? "\u2500"
                : cell == '+' ? "\u253c"
                : cell == '#' ? "\u25cf"
                              : std::string(1, cell);
    return text + "\u258f";
}

static std::string flags_text(const dolm_ric_details_value &value, int64_t now)
{
    texts parts;
    for (uint32_t kind = 0; kind < DOLM_RIC_FLAGS; kind++)
        if (const dolm_ric_details_flag &flag = value.flag[kind]; flag.count > 0)
            parts.push_back(fmt::format("{} {}x, last {}",
                                        tesk_details_text(TESK_DETAILS_TEXT_FLAG, kind), flag.count,
                                        age_text(flag.last_at, now)));
    return fmt::format("{}", fmt::join(parts, "; "));
}

static texts row_of(const std::string &name, const dolm_ric_details_value &value,
                    const dolm_ric_details_limits &limits, const quantity &shown, int64_t now,
                    const module_style &style)
{
    const bool has = value.state == DOLM_RIC_VALUE_VALID;
    const bool has_limits = limits.state == DOLM_RIC_VALUE_VALID;
    const std::string bar = limits_bar(value, limits, shown.is_power, bar_cells);
    texts row = {name};
    row.push_back(!has ? tesk_details_text(TESK_DETAILS_TEXT_STATE, value.state)
                  : shown.is_power && value.value <= 0
                      ? "no light"
                      : number_text(value.value, shown) + " " + unit_of(shown));
    row.push_back(has_limits ? number_text(limits.low_alarm, shown) : "-");
    row.push_back(has_limits ? number_text(limits.low_warning, shown) : "-");
    row.push_back(bar.empty() ? "" : drawn(bar, style.has_unicode));
    row.push_back(has_limits ? number_text(limits.high_warning, shown) : "-");
    row.push_back(has_limits ? number_text(limits.high_alarm, shown) : "-");
    row.push_back(value.grade == DOLM_RIC_GRADE_NONE
                      ? "-"
                      : paint(tesk_details_text(TESK_DETAILS_TEXT_GRADE, value.grade),
                              tint_of(value.grade), style.coloured));
    row.push_back(value.read_at > 0 ? span_text(now - value.read_at) : "-");
    row.push_back(flags_text(value, now));
    return row;
}

static bool is_worth_a_row(const dolm_ric_details_value &value)
{
    return value.state != DOLM_RIC_VALUE_NOT_SUPPORTED &&
           value.state != DOLM_RIC_VALUE_NOT_PUBLISHED && value.state != DOLM_RIC_VALUE_UNKNOWN;
}

static void add_table(texts &lines, const table &shown, const module_style &style)
{
    const std::string text = shown.text(style.width > 2 ? style.width - 2 : style.width);
    for (size_t begin = 0, end; begin < text.size(); begin = end + 1) {
        end = std::min(text.find('\n', begin), text.size());
        lines.push_back("  " + text.substr(begin, end - begin));
    }
}

static void add_values(texts &lines, const dolm_ric_details_record &record, int64_t now,
                       const module_style &style)
{
    table shown(
        {"VALUE", "NOW", "ALARM", "WARN", "LOW TO HIGH", "WARN", "ALARM", "GRADE", "AGE", "FLAGS"});
    size_t rows = 0;
    const auto add_row = [&](const std::string &name, const dolm_ric_details_value &value,
                             const dolm_ric_details_limits &limits, const quantity &how) {
        if (!is_worth_a_row(value))
            return;
        rows++;
        shown.add(row_of(name, value, limits, how, now, style));
    };
    const auto is_rare = [](uint32_t kind) { return kind >= DOLM_RIC_LASER_TEMPERATURE; };
    for (uint32_t kind = 0; kind < DOLM_RIC_MODULE_VALUES; kind++)
        if (!is_rare(kind) || record.module_value[kind].state == DOLM_RIC_VALUE_VALID)
            add_row(tesk_details_text(TESK_DETAILS_TEXT_MODULE_VALUE, kind),
                    record.module_value[kind], record.module_limits[kind], module_quantities[kind]);
    const uint32_t lanes = std::min<uint32_t>(record.lane_count, DOLM_RIC_DETAILS_LANES);
    for (uint32_t kind = 0; kind < DOLM_RIC_LANE_VALUES; kind++)
        for (uint32_t lane = 0; lane < lanes; lane++) {
            const char *name = tesk_details_text(TESK_DETAILS_TEXT_LANE_VALUE, kind);
            const bool is_other = (record.own_lanes >> lane & 1) == 0;
            add_row(lanes == 1 ? name : fmt::format("{} {}{}", name, lane, is_other ? "*" : ""),
                    record.lane[lane].value[kind], record.lane_limits[kind], lane_quantities[kind]);
        }
    if (rows > 0) {
        lines.emplace_back();
        add_table(lines, shown, style);
    } else if (record.identity.state == DOLM_RIC_VALUE_VALID) {
        add_line(lines, "values",
                 {tesk_details_text(TESK_DETAILS_TEXT_STATE,
                                    record.module_value[DOLM_RIC_TEMPERATURE].state)});
    }
    const uint32_t all = lanes == 0 ? 0 : (1U << lanes) - 1;
    if (lanes > 1 && (record.own_lanes & all) != all)
        lines.emplace_back("  * a lane of another port");
    if (record.power_kind != DOLM_RIC_POWER_UNKNOWN)
        add_line(lines, "rx power",
                 {tesk_details_text(TESK_DETAILS_TEXT_POWER_KIND, record.power_kind)});
    if (lanes == 0)
        add_line(lines, "lanes", {tesk_details_text(TESK_DETAILS_TEXT_STATE, record.lanes_state)});
}

/* One part for each condition, with the lanes on which it is, or was, present. */
static void add_conditions(texts &lines, const dolm_ric_details_record &record, int64_t now)
{
    texts parts;
    for (uint32_t kind = 0; kind < DOLM_RIC_SIGNALS; kind++)
        for (uint32_t lane = 0;
             lane < std::min<uint32_t>(record.lane_count, DOLM_RIC_DETAILS_LANES); lane++) {
            const dolm_ric_details_condition &its = record.lane[lane].signal[kind];
            if (its.state != DOLM_RIC_VALUE_VALID || (its.on == 0 && its.count == 0))
                continue;
            const char *name = tesk_details_text(TESK_DETAILS_TEXT_SIGNAL, kind);
            const std::string where =
                record.lane_count == 1 ? name : fmt::format("{} on lane {}", name, lane);
            parts.push_back(its.on != 0 ? fmt::format("{} now, {}x", where, its.count)
                                        : fmt::format("{} {}x, last {}", where, its.count,
                                                      age_text(its.last_at, now)));
        }
    add_line(lines, "signals", parts);
}

static std::string vdm_number(uint8_t kind, double value)
{
    const bool is_ratio =
        kind >= DOLM_RIC_VDM_PRE_FEC_BER_CURRENT && kind <= DOLM_RIC_VDM_ERRORED_FRAMES_AVERAGE;
    return is_ratio ? fmt::format("{:.2e}", value) : fmt::format("{:.2f}", value);
}

static std::string vdm_range(const dolm_ric_details_vdm &row, double low, double high)
{
    if (row.limits.state != DOLM_RIC_VALUE_VALID)
        return "-";
    return fmt::format("{} to {}", vdm_number(row.kind, low), vdm_number(row.kind, high));
}

/* The flags found by the last reading. */
static std::string raised_text(uint32_t raised)
{
    if ((raised & DOLM_RIC_VDM_FLAGS_UNKNOWN) != 0)
        return "not read";
    texts parts;
    for (uint32_t kind = 0; kind < DOLM_RIC_FLAGS; kind++)
        if ((raised >> kind & 1) != 0)
            parts.emplace_back(tesk_details_text(TESK_DETAILS_TEXT_FLAG, kind));
    return parts.empty() ? "-" : fmt::format("{}", fmt::join(parts, "; "));
}

static void add_vdm(texts &lines, const dolm_ric_details_record &record, int64_t now,
                    const module_style &style)
{
    const uint32_t count = std::min<uint32_t>(record.vdm_count, DOLM_RIC_DETAILS_VDM);
    if (count == 0)
        return;
    table shown({"DIAGNOSTICS", "SIDE", "LANE", "NOW", "WARN", "ALARM", "GRADE", "AGE", "FLAGS"});
    for (uint32_t i = 0; i < count; i++) {
        const dolm_ric_details_vdm &row = record.vdm[i];
        const std::string name = row.kind == DOLM_RIC_VDM_OTHER
                                     ? fmt::format("observable {}", row.code)
                                     : tesk_details_text(TESK_DETAILS_TEXT_VDM_KIND, row.kind);
        const bool has_grade = row.grade != DOLM_RIC_GRADE_NONE;
        shown.add({name, tesk_details_text(TESK_DETAILS_TEXT_SIDE, row.side),
                   row.lane == 0xff ? "all" : std::to_string(row.lane),
                   row.state == DOLM_RIC_VALUE_VALID
                       ? vdm_number(row.kind, row.value)
                       : tesk_details_text(TESK_DETAILS_TEXT_STATE, row.state),
                   vdm_range(row, row.limits.low_warning, row.limits.high_warning),
                   vdm_range(row, row.limits.low_alarm, row.limits.high_alarm),
                   has_grade ? paint(tesk_details_text(TESK_DETAILS_TEXT_GRADE, row.grade),
                                     tint_of(row.grade), style.coloured)
                             : "-",
                   age_text(row.read_at, now), raised_text(row.raised)});
    }
    lines.emplace_back();
    add_table(lines, shown, style);
    if (record.vdm_left_out > 0)
        lines.push_back(fmt::format("  and {} more", record.vdm_left_out));
}

static void add_cost(texts &lines, const dolm_ric_details_cost &its, int64_t now)
{
    if (its.reads == 0 && its.failures == 0)
        return;
    texts parts = {fmt::format("{} reads, {} bytes", its.reads, its.bytes)};
    if (its.last_sweep > 0 && its.period > 0) {
        const auto share = static_cast<double>(its.last_sweep) / static_cast<double>(its.period);
        parts.push_back(fmt::format("a sweep {} (longest {})", span_text(its.last_sweep),
                                    span_text(its.longest_sweep)));
        parts.push_back(
            fmt::format("every {}, {} % of the time", span_text(its.period),
                        share < 1e-4 ? "under 0.01" : fmt::format("{:.2f}", 100 * share)));
    }
    if (its.failures > 0) {
        texts errors;
        for (const dolm_ric_details_error &row : its.error)
            if (row.error != 0)
                errors.push_back(fmt::format("{} {}x",
                                             row.error > 0 && strerrorname_np(row.error) != nullptr
                                                 ? strerrorname_np(row.error)
                                                 : "other",
                                             row.count));
        parts.push_back(fmt::format("{} failures ({})", its.failures, fmt::join(errors, ", ")));
    }
    if (its.dropped > 0)
        parts.push_back(fmt::format("{} doubtful readings dropped", its.dropped));
    if (its.lease_until > now)
        parts.push_back("leased to another tool for " + span_text(its.lease_until - now));
    add_line(lines, "reading", parts);
}

std::vector<std::string> module_lines(const dolm_ric_details_record &record,
                                      const std::string &name, int64_t now,
                                      const module_style &style)
{
    std::string title = fmt::format("port {}", record.port);
    if (const std::string own = name.empty() ? text_of(record.link.interface) : name; !own.empty())
        title += "  " + own;
    title += std::string("  ") + tesk_details_text(TESK_DETAILS_TEXT_PRESENCE, record.presence);
    texts lines = {paint(title, tint::bold, style.coloured)};
    const bool has_module = record.presence == DOLM_RIC_PRESENCE_READY ||
                            record.presence == DOLM_RIC_PRESENCE_NOT_READY;
    if (has_module) {
        add_identity(lines, record, now);
        add_applications(lines, record.identity);
    }
    add_link(lines, record.link, now);
    texts doubts;
    for (uint32_t i = 0; i < std::min<uint32_t>(record.doubt_count, DOLM_RIC_DETAILS_DOUBTS); i++)
        add(doubts, text_of(record.doubt[i]));
    add_line(lines, "doubtful", doubts);
    if (has_module) {
        add_values(lines, record, now, style);
        add_conditions(lines, record, now);
        add_vdm(lines, record, now, style);
    }
    add_cost(lines, record.cost, now);
    return lines;
}
