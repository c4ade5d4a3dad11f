/* SPDX-License-Identifier: Apache-2.0 */
/* One row for each family, and one function that writes its samples for a port. A record has 20 kB:
   one is read at a time, and each family has a text of its own until all have been read. A missing
   value has no series, whatever the reason. Values are in base units, powers in dBm. */
#include "tesk_exporter/details_metrics.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>
#include <vector>

namespace exporter
{

namespace
{

struct detailed_port {
    metrics_writer &writer;
    const std::string &labels; /* labels of the port */
    const dolm_ric_details_record &record;
    bool has_lanes;

    void sample(std::string_view more_labels, double value) const
    {
        writer.sample(labels, more_labels, value);
    }
    uint32_t lanes() const
    {
        return has_lanes ? std::min<uint32_t>(record.lane_count, DOLM_RIC_DETAILS_LANES) : 0;
    }
};

struct details_family {
    family described;
    void (*write)(const detailed_port &of);
    size_t room = 256; /* room for the text of one port */
};

enum class scale { plain, milli, dbm };

} // namespace

static std::optional<double> scaled(double value, scale by)
{
    if (by == scale::dbm && value <= 0)
        return std::nullopt; /* without light the power has no logarithm */
    if (!std::isfinite(value))
        return std::nullopt;
    switch (by) {
    case scale::milli:
        return std::round(value * 1000) / 1e6;
    case scale::dbm:
        return std::round(1000 * std::log10(value)) / 100;
    default:
        return std::round(value * 1e4) / 1e4;
    }
}

static std::string label_of(tesk_details_enumeration enumeration, uint32_t code)
{
    std::string text = tesk_details_text(enumeration, code);
    std::ranges::replace(text, ' ', '_');
    std::ranges::replace(text, '-', '_');
    return text;
}

/* The text lane="3"; each is made once. */
static const std::string &lane_label(uint32_t lane)
{
    static const auto labels = [] {
        std::array<std::string, DOLM_RIC_DETAILS_LANES> made;
        for (uint32_t i = 0; i < made.size(); i++)
            made[i] = fmt::format("lane=\"{}\"", i);
        return made;
    }();
    return labels[lane];
}

static void write_limits(const detailed_port &of, const dolm_ric_details_limits &limits, scale by)
{
    if (limits.state != DOLM_RIC_VALUE_VALID)
        return;
    for (const auto &[label, value] : {std::pair{"limit=\"low_alarm\"", limits.low_alarm},
                                       std::pair{"limit=\"low_warning\"", limits.low_warning},
                                       std::pair{"limit=\"high_warning\"", limits.high_warning},
                                       std::pair{"limit=\"high_alarm\"", limits.high_alarm}})
        if (const auto shown = scaled(value, by))
            of.sample(label, *shown);
}

static void write_lanes(const detailed_port &of, uint32_t kind, scale by)
{
    for (uint32_t lane = 0; lane < of.lanes(); lane++) {
        const dolm_ric_details_value &its = of.record.lane[lane].value[kind];
        if (its.state != DOLM_RIC_VALUE_VALID)
            continue;
        if (const auto shown = scaled(its.value, by))
            of.sample(lane_label(lane), *shown);
    }
}

static void write_signals(const detailed_port &of)
{
    static const auto labels = [] {
        std::array<std::string, size_t{DOLM_RIC_SIGNALS} * DOLM_RIC_DETAILS_LANES> made;
        for (uint32_t i = 0; i < made.size(); i++)
            made[i] = lane_label(i / DOLM_RIC_SIGNALS) + ",signal=\"" +
                      label_of(TESK_DETAILS_TEXT_SIGNAL, i % DOLM_RIC_SIGNALS) + "\"";
        return made;
    }();
    for (uint32_t lane = 0; lane < of.lanes(); lane++)
        for (uint32_t kind = 0; kind < DOLM_RIC_SIGNALS; kind++)
            if (const auto &its = of.record.lane[lane].signal[kind];
                its.state == DOLM_RIC_VALUE_VALID)
                of.sample(labels[lane * DOLM_RIC_SIGNALS + kind], its.on != 0);
}

/* A flag that was never raised has no series: otherwise a board of 512 ports would have 50,000
   zeros. */
static void write_flags_of(const detailed_port &of, const dolm_ric_details_value &value,
                           const std::string &more_labels)
{
    for (uint32_t kind = 0; kind < DOLM_RIC_FLAGS; kind++)
        if (value.flag[kind].count > 0)
            of.sample(
                fmt::format("{},flag=\"{}\"", more_labels, label_of(TESK_DETAILS_TEXT_FLAG, kind)),
                static_cast<double>(value.flag[kind].count));
}

static void write_flags(const detailed_port &of)
{
    for (uint32_t kind = 0; kind < DOLM_RIC_MODULE_VALUES; kind++)
        write_flags_of(of, of.record.module_value[kind],
                       fmt::format("measurement=\"{}\",lane=\"\"",
                                   label_of(TESK_DETAILS_TEXT_MODULE_VALUE, kind)));
    for (uint32_t lane = 0; lane < of.lanes(); lane++)
        for (uint32_t kind = 0; kind < DOLM_RIC_LANE_VALUES; kind++)
            write_flags_of(of, of.record.lane[lane].value[kind],
                           fmt::format("measurement=\"{}\",{}",
                                       label_of(TESK_DETAILS_TEXT_LANE_VALUE, kind),
                                       lane_label(lane)));
}

static std::string labels_of(const dolm_ric_details_vdm &row)
{
    return fmt::format("observable=\"{}\",side=\"{}\",lane=\"{}\"",
                       label_of(TESK_DETAILS_TEXT_VDM_KIND, row.kind),
                       label_of(TESK_DETAILS_TEXT_SIDE, row.side),
                       row.lane == 0xff ? "" : std::to_string(row.lane));
}

/* Calls `write` for the observables that have a name; those with a number of the module's maker are
   in /api/ports/N only. */
template <typename writer_type>
static void for_named_vdm(const detailed_port &of, writer_type &&write)
{
    const uint32_t count = std::min<uint32_t>(of.record.vdm_count, DOLM_RIC_DETAILS_VDM);
    for (uint32_t i = 0; of.has_lanes && i < count; i++)
        if (of.record.vdm[i].kind != DOLM_RIC_VDM_OTHER)
            write(of.record.vdm[i]);
}

static void write_vdm(const detailed_port &of)
{
    for_named_vdm(of, [&](const dolm_ric_details_vdm &row) {
        if (row.state == DOLM_RIC_VALUE_VALID && std::isfinite(row.value))
            of.sample(labels_of(row), row.value);
    });
}

static void write_raised_vdm(const detailed_port &of)
{
    for_named_vdm(of, [&](const dolm_ric_details_vdm &row) {
        for (uint32_t kind = 0; kind < DOLM_RIC_FLAGS; kind++)
            if ((row.raised >> kind & 1) != 0)
                of.sample(fmt::format("{},flag=\"{}\"", labels_of(row),
                                      label_of(TESK_DETAILS_TEXT_FLAG, kind)),
                          1);
    });
}

static const dolm_ric_details_cost &cost_of(const detailed_port &of)
{
    return of.record.cost;
}

static constexpr details_family families[] = {
    {{"tesk_port_admin_up", metric_type::gauge, "",
      "Whether the interface is set up; absent where the board doesn't say."},
     [](const detailed_port &of) {
         if (of.record.link.state == DOLM_RIC_VALUE_VALID &&
             of.record.link.admin != DOLM_RIC_SWITCH_UNKNOWN)
             of.sample("", of.record.link.admin == DOLM_RIC_SWITCH_UP);
     }},
    {{"tesk_port_link_falls", metric_type::counter, "",
      "Falls of the carrier since the board started, those that the filter holds back included."},
     [](const detailed_port &of) {
         if (of.record.link.state == DOLM_RIC_VALUE_VALID)
             of.sample("", static_cast<double>(of.record.link.falls));
     }},
    {{"tesk_port_fec", metric_type::info, "",
      "The active forward error correction of an operational link; absent where it isn't known."},
     [](const detailed_port &of) {
         const dolm_ric_details_link &link = of.record.link;
         if (link.state == DOLM_RIC_VALUE_VALID && link.fec != DOLM_RIC_FEC_UNKNOWN)
             of.sample(fmt::format("mode=\"{}\"", label_of(TESK_DETAILS_TEXT_FEC, link.fec)), 1);
     }},
    {{"tesk_port_receive_power_limit_dbm", metric_type::gauge, "dbm",
      "The module's own limits of received light."},
     [](const detailed_port &of) {
         write_limits(of, of.record.lane_limits[DOLM_RIC_RX_POWER], scale::dbm);
     }},
    {{"tesk_port_transmit_power_limit_dbm", metric_type::gauge, "dbm",
      "The module's own limits of transmitted light."},
     [](const detailed_port &of) {
         write_limits(of, of.record.lane_limits[DOLM_RIC_TX_POWER], scale::dbm);
     }},
    {{"tesk_port_transmit_bias_limit_amperes", metric_type::gauge, "amperes",
      "The module's own limits of the bias current."},
     [](const detailed_port &of) {
         write_limits(of, of.record.lane_limits[DOLM_RIC_TX_BIAS], scale::milli);
     }},
    {{"tesk_port_temperature_limit_celsius", metric_type::gauge, "celsius",
      "The module's own limits of its temperature."},
     [](const detailed_port &of) {
         write_limits(of, of.record.module_limits[DOLM_RIC_TEMPERATURE], scale::plain);
     }},
    {{"tesk_port_voltage_limit_volts", metric_type::gauge, "volts",
      "The module's own limits of its supply voltage."},
     [](const detailed_port &of) {
         write_limits(of, of.record.module_limits[DOLM_RIC_VOLTAGE], scale::plain);
     }},
    {{"tesk_port_lane_receive_power_dbm", metric_type::gauge, "dbm",
      "Received light of a lane; absent without light."},
     [](const detailed_port &of) { write_lanes(of, DOLM_RIC_RX_POWER, scale::dbm); },
     1024},
    {{"tesk_port_lane_transmit_power_dbm", metric_type::gauge, "dbm",
      "Transmitted light of a lane; absent without light."},
     [](const detailed_port &of) { write_lanes(of, DOLM_RIC_TX_POWER, scale::dbm); },
     1024},
    {{"tesk_port_lane_transmit_bias_amperes", metric_type::gauge, "amperes",
      "Bias current of the laser of a lane."},
     [](const detailed_port &of) { write_lanes(of, DOLM_RIC_TX_BIAS, scale::milli); },
     1024},
    {{"tesk_port_lane_signal", metric_type::gauge, "",
      "Whether a condition of a lane is there: loss of signal or of lock, fault, switched off."},
     write_signals,
     6144},
    {{"tesk_port_flag_readings", metric_type::counter, "",
      "Readings in which the module had raised a flag. A module clears its flags when they are "
      "read, by whoever reads them."},
     write_flags},
    {{"tesk_port_diagnostics", metric_type::gauge, "",
      "Versatile diagnostics of a CMIS module: error ratios from 0 to 1, SNR in dB."},
     write_vdm},
    {{"tesk_port_diagnostics_raised", metric_type::gauge, "",
      "1 for each flag of the versatile diagnostics that the last reading found raised; absent "
      "otherwise."},
     write_raised_vdm},
    {{"tesk_port_module_reads", metric_type::counter, "", "Reads of the module's memory."},
     [](const detailed_port &of) {
         if (cost_of(of).reads > 0)
             of.sample("", static_cast<double>(cost_of(of).reads));
     }},
    {{"tesk_port_module_read_failures", metric_type::counter, "",
      "Reads of the module's memory that failed."},
     [](const detailed_port &of) {
         if (cost_of(of).reads > 0)
             of.sample("", static_cast<double>(cost_of(of).failures));
     }},
    {{"tesk_port_module_read_seconds", metric_type::counter, "seconds",
      "Time in which reads of the module's memory kept the kernel busy."},
     [](const detailed_port &of) {
         if (cost_of(of).reads > 0)
             of.sample("", static_cast<double>(cost_of(of).total) / 1e9);
     }},
    {{"tesk_port_dropped_readings", metric_type::counter, "",
      "Readings that a second one, made at once, did not confirm."},
     [](const detailed_port &of) {
         if (cost_of(of).reads > 0)
             of.sample("", static_cast<double>(cost_of(of).dropped));
     }},
};

/* Reserved pages that aren't written take no memory; growing the text would copy megabytes. */
static std::vector<metrics_writer> begin_families(text_format format, size_t ports)
{
    std::vector<metrics_writer> texts;
    for (const details_family &row : families) {
        metrics_writer &text = texts.emplace_back(format);
        text.reserve(1024 + ports * row.room);
        text.begin(row.described);
    }
    return texts;
}

std::vector<metrics_writer> details_texts(const model &board, port_details &details, bool has_lanes,
                                          text_format format, steady_time now)
{
    std::vector<metrics_writer> texts;
    port_details::costs costs;
    for (const auto &[number, port] : board.ports()) {
        const auto record = details.read(number);
        if (!record)
            continue;
        if (texts.empty())
            texts = begin_families(format, board.ports().size());
        for (size_t i = 0; i < std::size(families); i++)
            families[i].write({texts[i], port.labels, *record, has_lanes});
        if (record->cost.reads > 0)
            costs[number] = record->cost.total;
    }
    if (const auto share = details.share_of_time(costs, now)) {
        metrics_writer &text = texts.emplace_back(format);
        text.begin({"tesk_module_reading_share_ratio", metric_type::gauge, "ratio",
                    "Share of the time in which reading modules keeps the kernel busy, all ports "
                    "together, between two scrapes."});
        text.sample("", *share);
    }
    return texts;
}

} // namespace exporter
