/* SPDX-License-Identifier: Apache-2.0 */
/* One row for each family, with a function that writes its samples for a port or gives its only
   value. While the server is away or doesn't answer, its values are unknown and left out; counters
   and ages stay. */
#include "tesk_exporter/metrics.h"

#include "program/units.h"
#include "tesk_exporter/details_metrics.h"

#include <cmath>
#include <dirent.h>
#include <fstream>
#include <memory>
#include <span>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

namespace exporter
{

namespace
{
/* The data from which a port's samples are written. */
struct scrape {
    metrics_writer &writer;
    steady_time now;
    const tesk_client_pm *reading; /* of the port; null without present values */
};

struct port_family {
    family described;
    bool needs_server; /* the family shows a present state: left out while the server is away */
    void (*write)(const scrape &to, const port_state &port);
};

/* A family with one sample and no label. */
struct single_family {
    family described;
    double (*value)(const model &board, const exporter_figures &figures);
};
} // namespace

static double seconds_since(steady_time then, steady_time now)
{
    return std::round(std::chrono::duration<double>(now - then).count() * 100) / 100;
}

static void write_if(const scrape &to, const port_state &port, bool has, double value)
{
    if (has)
        to.writer.sample(port.labels, value);
}

static void write_dbm(const scrape &to, const port_state &port, bool has, uint32_t microwatts)
{
    const auto dbm = has ? to_dbm(microwatts) : std::nullopt;
    write_if(to, port, dbm.has_value(), std::round(100 * dbm.value_or(0)) / 100);
}

static std::string with_underscores(std::string text)
{
    for (char &letter : text)
        letter = letter == ' ' ? '_' : letter;
    return text;
}

/* The labels of all grades, made once: measurement="rx_power",grade="low_alarm". A value that a
   module doesn't support has no grade. */
static const std::string &grade_labels(uint32_t measurement, uint32_t level)
{
    static constexpr uint32_t levels = TESK_CLIENT_LEVEL_NOT_SUPPORTED;
    static const auto labels = [] {
        std::array<std::string, size_t{TESK_CLIENT_MEASUREMENTS} * levels> made;
        for (uint32_t i = 0; i < made.size(); i++)
            made[i] = "measurement=\"" +
                      with_underscores(tesk_client_text(TESK_CLIENT_TEXT_MEASUREMENT, i / levels)) +
                      "\",grade=\"" +
                      with_underscores(tesk_client_text(TESK_CLIENT_TEXT_LEVEL, i % levels)) + "\"";
        return made;
    }();
    return labels[measurement * levels + level];
}

static void write_grades(const scrape &to, const port_state &port)
{
    if (!port.status || port.module_labels.empty())
        return;
    for (uint32_t i = 0; i < TESK_CLIENT_MEASUREMENTS; i++) {
        const uint32_t graded = port.status->level[i];
        if (graded == TESK_CLIENT_LEVEL_NOT_SUPPORTED)
            continue;
        for (uint32_t level = 0; level < TESK_CLIENT_LEVEL_NOT_SUPPORTED; level++)
            to.writer.sample(port.labels, grade_labels(i, level), graded == level);
    }
}

static constexpr port_family port_families[] = {
    {{"tesk_port_link_up", metric_type::gauge, "",
      "Whether the link is operational. One that somebody has stopped isn't."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, port.status.has_value(),
                  port.status && port.status->link == TESK_CLIENT_LINK_OPERATIONAL);
     }},
    {{"tesk_port_link_speed_bytes_per_second", metric_type::gauge, "bytes_per_second",
      "Speed of the link, where there is one and it is known."},
     true,
     [](const scrape &to, const port_state &port) {
         const uint32_t tenths = port.status ? port.status->link_speed : 0;
         write_if(to, port, tenths != 0, tenths * 1e8 / 8);
     }},
    {{"tesk_port_link_changes", metric_type::counter, "", "Changes of the link that were seen."},
     false,
     [](const scrape &to, const port_state &port) {
         to.writer.sample(port.labels, static_cast<double>(port.link_changes));
     }},
    {{"tesk_port_indications", metric_type::counter, "", "Reports of the server, by their kind."},
     false,
     [](const scrape &to, const port_state &port) {
         to.writer.sample(port.labels, "kind=\"sfp\"", static_cast<double>(port.sfp_indications));
         to.writer.sample(port.labels, "kind=\"status\"",
                          static_cast<double>(port.status_indications));
     }},
    {{"tesk_port_module_present", metric_type::gauge, "", "Whether a module is in the port."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, port.info.has_value(),
                  port.info && port.info->type != TESK_CLIENT_SFP_NOT_PRESENT);
     }},
    {{"tesk_port_module_ready", metric_type::gauge, "",
      "Whether the module is ready and can be read; absent without a module."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, port.info && port.info->type != TESK_CLIENT_SFP_NOT_PRESENT,
                  has_module(port));
     }},
    {{"tesk_port_module", metric_type::info, "",
      "The module in the port. Bytes that are no printable ASCII are written as \\\\xNN."},
     true,
     [](const scrape &to, const port_state &port) {
         if (!port.module_labels.empty())
             to.writer.sample(port.labels, port.module_labels, 1);
     }},
    {{"tesk_port_transmit_power_watts", metric_type::gauge, "watts", "Transmitted light."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, to.reading && to.reading->has_tx_power,
                  to.reading ? to.reading->tx_power / 1e6 : 0);
     }},
    {{"tesk_port_transmit_power_dbm", metric_type::gauge, "dbm",
      "Transmitted light in dBm; absent without light."},
     true,
     [](const scrape &to, const port_state &port) {
         if (to.reading)
             write_dbm(to, port, to.reading->has_tx_power, to.reading->tx_power);
     }},
    {{"tesk_port_receive_power_watts", metric_type::gauge, "watts", "Received light."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, to.reading && to.reading->has_rx_power,
                  to.reading ? to.reading->rx_power / 1e6 : 0);
     }},
    {{"tesk_port_receive_power_dbm", metric_type::gauge, "dbm",
      "Received light in dBm; absent without light."},
     true,
     [](const scrape &to, const port_state &port) {
         if (to.reading)
             write_dbm(to, port, to.reading->has_rx_power, to.reading->rx_power);
     }},
    {{"tesk_port_transmit_bias_amperes", metric_type::gauge, "amperes",
      "Bias current of the laser."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, to.reading && to.reading->has_tx_bias,
                  to.reading ? to.reading->tx_bias / 1e5 : 0);
     }},
    {{"tesk_port_voltage_volts", metric_type::gauge, "volts", "Supply voltage of the module."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, to.reading && to.reading->has_voltage,
                  to.reading ? to.reading->voltage / 1e4 : 0);
     }},
    {{"tesk_port_temperature_celsius", metric_type::gauge, "celsius", "Temperature of the module."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, to.reading && to.reading->has_temperature,
                  to.reading ? to.reading->temperature / 10.0 : 0);
     }},
    {{"tesk_port_signal_lost", metric_type::gauge, "",
      "Whether the module says that it has lost its signal; absent where it can't be read."},
     true,
     [](const scrape &to, const port_state &port) {
         write_if(to, port, to.reading && has_module(port),
                  to.reading && to.reading->has_loss_of_signal);
     }},
    {{"tesk_port_grade", metric_type::gauge, "",
      "How a measured value stands against the module's thresholds: 1 for the grade that it has."},
     true,
     write_grades},
    {{"tesk_port_environment_set", metric_type::gauge, "",
      "Whether the module's status word reports its environment; absent where it can't be read."},
     true,
     [](const scrape &to, const port_state &port) {
         const uint32_t environment =
             port.status ? port.status->environment : uint32_t{TESK_CLIENT_ENVIRONMENT_NOT_READ};
         write_if(to, port, environment <= TESK_CLIENT_ENVIRONMENT_SET,
                  environment == TESK_CLIENT_ENVIRONMENT_SET);
     }},
    {{"tesk_port_reading_age_seconds", metric_type::gauge, "seconds",
      "Time since the measured values were read or, if they never were, since the module was "
      "found. Values that are too old have no series."},
     false,
     [](const scrape &to, const port_state &port) {
         if (has_module(port))
             to.writer.sample(port.labels, seconds_since(port.read_at, to.now));
     }},
    {{"tesk_port_grade_age_seconds", metric_type::gauge, "seconds",
      "Time since the server graded the values."},
     false,
     [](const scrape &to, const port_state &port) {
         if (port.status)
             to.writer.sample(port.labels, seconds_since(port.graded_at, to.now));
     }},
};

static constexpr single_family server_families[] = {
    {{"tesk_up", metric_type::gauge, "", "Whether tesk-server is connected and answers in time."},
     [](const model &board, const exporter_figures &) { return board.is_up() ? 1.0 : 0.0; }},
    {{"tesk_connections", metric_type::counter, "",
      "Connections to tesk-server that were established; all but the first are reconnections."},
     [](const model &board, const exporter_figures &) {
         return static_cast<double>(board.connections);
     }},
    {{"tesk_ports", metric_type::gauge, "", "Ports that are followed."},
     [](const model &board, const exporter_figures &) {
         return static_cast<double>(board.ports().size());
     }},
};

static void write_singles(metrics_writer &writer, std::span<const single_family> rows,
                          const model &board, const exporter_figures &figures)
{
    for (const single_family &row : rows) {
        writer.begin(row.described);
        writer.sample("", row.value(board, figures));
    }
}

static void write_latency(metrics_writer &writer, const latency_histogram &latency)
{
    writer.begin({"tesk_request_duration_seconds", metric_type::histogram, "seconds",
                  "Round trips of the exporter's reads of measured values."});
    uint64_t count = 0;
    for (size_t i = 0; i < latency.buckets.size(); i++) {
        count += latency.buckets[i];
        char limit[32] = "+Inf";
        if (i < std::size(latency_histogram::limits))
            snprintf(limit, sizeof(limit), "%g", latency_histogram::limits[i]);
        writer.sample("_bucket", "", std::string("le=\"") + limit + "\"",
                      static_cast<double>(count));
    }
    writer.sample("_sum", "", "", latency.sum);
    writer.sample("_count", "", "", static_cast<double>(count));
}

static void write_server(metrics_writer &writer, const model &board,
                         const exporter_figures &figures)
{
    write_singles(writer, server_families, board, figures);
    write_latency(writer, board.latency);
    writer.begin({"tesk_failed_reads", metric_type::counter, "",
                  "Reads of measured values without a result, by the reason."});
    for (const auto &[result, reason] :
         {std::pair{TESK_CLIENT_REJECTED, "rejected"}, std::pair{TESK_CLIENT_TIMEOUT, "timeout"},
          std::pair{TESK_CLIENT_LOST, "lost"}})
        writer.sample("", std::string("reason=\"") + reason + "\"",
                      static_cast<double>(board.failed_reads[result]));
    writer.begin({"tesk_exporter_grade_refreshes", metric_type::counter, "",
                  "Grades that were taken again because a value had moved."});
    writer.sample("", "result=\"done\"", static_cast<double>(board.refreshes));
    writer.sample("", "result=\"failed\"", static_cast<double>(board.failed_refreshes));
}

static double open_descriptors()
{
    const std::unique_ptr<DIR, int (*)(DIR *)> folder(opendir("/proc/self/fd"), closedir);
    double count = 0;
    while (folder && readdir(folder.get()) != nullptr)
        count++;
    return count - 3; /* ".", ".." and the folder itself */
}

static double processor_seconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

static double resident_bytes()
{
    double pages = 0, resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

static double most_descriptors()
{
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<double>(limit.rlim_cur);
}

/* With the names that all exporters use for these figures. */
static constexpr single_family process_families[] = {
    {{"process_cpu_seconds", metric_type::counter, "seconds",
      "Processor time of the exporter, user and system."},
     [](const model &, const exporter_figures &) { return processor_seconds(); }},
    {{"process_resident_memory_bytes", metric_type::gauge, "bytes",
      "Resident memory of the exporter."},
     [](const model &, const exporter_figures &) { return resident_bytes(); }},
    {{"process_start_time_seconds", metric_type::gauge, "seconds",
      "Start of the exporter since 1970."},
     [](const model &, const exporter_figures &figures) {
         return static_cast<double>(figures.started_us) / 1e6;
     }},
    {{"process_open_fds", metric_type::gauge, "", "Open descriptors."},
     [](const model &, const exporter_figures &) { return open_descriptors(); }},
    {{"process_max_fds", metric_type::gauge, "", "The limit of open descriptors."},
     [](const model &, const exporter_figures &) { return most_descriptors(); }},
};

static void write_forecasts(metrics_writer &writer, const model &board,
                            const exporter_figures &figures)
{
    if (!figures.has_history)
        return;
    writer.begin({"tesk_port_forecast_days", metric_type::gauge, "",
                  "Days until a value will meet its limit, of values that fail; 0 beyond it."});
    for (const forecast_sample &each : figures.forecasts)
        if (const auto port = board.ports().find(each.port); port != board.ports().end())
            writer.sample(port->second.labels,
                          "lane=\"" + lane_label(each.lane) + "\",value=\"" + each.value + "\"",
                          std::round(each.days_left * 100) / 100);
}

/* Only causes that have occurred have a series. */
static void write_falls(metrics_writer &writer, const model &board, port_details &details,
                        steady_time now)
{
    const auto each_port = [&](auto &&write) {
        for (const auto &[number, falls] : board.falls().ports())
            if (const auto port = board.ports().find(number); port != board.ports().end())
                write(port->second, falls);
    };
    writer.begin(
        {"tesk_port_falls", metric_type::counter, "",
         "Falls of the link since the exporter's start, by their cause; those of one burst "
         "count once."});
    each_port([&](const port_state &port, const fall_log::of_port &falls) {
        for (size_t i = 0; i < falls.count.size(); i++)
            if (falls.count[i] > 0)
                writer.sample(port.labels,
                              "cause=\"" +
                                  with_underscores(name_of(static_cast<causes::cause>(i))) + "\"",
                              static_cast<double>(falls.count[i]));
    });
    writer.begin({"tesk_port_up_but_ill", metric_type::gauge, "",
                  "Whether the link came back from its last fall worse than it was before, and "
                  "still is."});
    each_port([&](const port_state &port, const fall_log::of_port &falls) {
        writer.sample(port.labels,
                      falls.ill != nullptr && falls.is_ill(details.read(port.number).get(), now));
    });
}

static constexpr single_family exporter_families[] = {
    {{"tesk_exporter_interval_seconds", metric_type::gauge, "seconds",
      "Time between two reads of the measured values of a port."},
     [](const model &, const exporter_figures &figures) {
         return std::chrono::duration<double>(figures.interval).count();
     }},
    {{"tesk_exporter_http_connections", metric_type::gauge, "", "Open connections."},
     [](const model &, const exporter_figures &figures) {
         return static_cast<double>(figures.connections);
     }},
    {{"tesk_exporter_http_ended_connections", metric_type::counter, "",
      "Connections that the exporter ended: too slow, or idle where places were short. One that is "
      "closed after a long idle time doesn't count."},
     [](const model &, const exporter_figures &figures) {
         return static_cast<double>(figures.ended_connections);
     }},
    {{"tesk_exporter_event_streams", metric_type::gauge, "", "Open streams of events."},
     [](const model &, const exporter_figures &figures) {
         return static_cast<double>(figures.streams);
     }},
    {{"tesk_exporter_events", metric_type::counter, "", "Events so far."},
     [](const model &, const exporter_figures &figures) {
         return static_cast<double>(figures.events);
     }},
    {{"tesk_exporter_lost_journal_records", metric_type::counter, "",
      "Records that the journal did not take in time."},
     [](const model &, const exporter_figures &figures) {
         return static_cast<double>(figures.lost_journal_records);
     }},
};

/* Left out if no history is kept. */
static constexpr single_family history_families[] = {
    {{"tesk_exporter_history_up", metric_type::gauge, "",
      "Whether the history is open and can be written."},
     [](const model &, const exporter_figures &figures) {
         return figures.is_history_well ? 1.0 : 0.0;
     }},
    {{"tesk_exporter_lost_history_records", metric_type::counter, "",
      "Readings and events that the history did not take in time."},
     [](const model &, const exporter_figures &figures) {
         return static_cast<double>(figures.lost_history_records);
     }},
};

static void write_exporter(metrics_writer &writer, const model &board,
                           const exporter_figures &figures)
{
    writer.begin({"tesk_exporter_build", metric_type::info, "", "The version of the exporter."});
    writer.sample("version=\"" TESK_VERSION "\"", 1);
    writer.begin({"tesk_exporter_http_responses", metric_type::counter, "",
                  "Responses of the exporter, by their status."});
    for (const auto &[code, count] : figures.responses)
        writer.sample("", "code=\"" + std::to_string(code) + "\"", static_cast<double>(count));
    write_singles(writer, exporter_families, board, figures);
    if (figures.has_history)
        write_singles(writer, history_families, board, figures);
    write_singles(writer, process_families, board, figures);
}

std::string render_metrics(const model &board, port_details &details, bool has_lanes,
                           const exporter_figures &figures, text_format format, steady_time now)
{
    const std::vector<metrics_writer> detailed =
        details_texts(board, details, has_lanes, format, now);
    size_t size =
        16384 + board.ports().size() * 5120; /* enough for most boards: growing copies megabytes */
    for (const metrics_writer &text : detailed)
        size += text.size();
    metrics_writer writer(format);
    writer.reserve(size);
    write_server(writer, board, figures);
    for (const port_family &row : port_families) {
        writer.begin(row.described);
        if (row.needs_server && !board.is_up())
            continue;
        for (const auto &[number, port] : board.ports())
            row.write({writer, now, board.values_of(port, now)}, port);
    }
    write_forecasts(writer, board, figures);
    write_falls(writer, board, details, now);
    for (const metrics_writer &text : detailed)
        writer.append(text);
    write_exporter(writer, board, figures);
    return writer.finish();
}

} // namespace exporter
