/* SPDX-License-Identifier: Apache-2.0 */
/* model - the latest state of the board as the facts describe it, with the age of each part, and
   what counts as a change. No clock of its own: each fact comes with its time. Main thread only. */
#pragma once

#include "tesk_exporter/event_ring.h"
#include "tesk_exporter/facts.h"
#include "tesk_exporter/falls.h"
#include "tesk_exporter/plots.h"

#include <array>
#include <map>
#include <optional>

namespace exporter
{

/* The two clocks of a fact. */
struct moment {
    steady_time steady;
    uint64_t wall_us; /* since 1970 */
};

struct port_state {
    uint32_t number;
    std::string interface;     /* escaped; empty if not known */
    std::string labels;        /* port="3",interface="eth0" */
    std::string module_labels; /* vendor="...",... of the port's module; empty without one */

    /* The module as it is shown: the server's last indication, or, with the type module_not_ready,
       an info without texts. */
    std::optional<tesk_client_sfp_info> info;
    std::optional<tesk_client_sfp_info> indicated; /* that indication */
    /* The module's last presence in the server's history; nothing if no change was seen. */
    std::optional<uint32_t> presence;
    bool is_answering = false; /* the last read of values showed that a module is present */
    std::optional<tesk_client_port_status> status;
    std::optional<tesk_client_pm> reading;
    std::string unread; /* why the last read failed, escaped; empty if it succeeded */
    /* When the values were read, or, before the first read, when the module was found. */
    steady_time read_at;
    steady_time graded_at;
    /* The values that belong to the grades: those of the first reading after the grades came. */
    std::optional<tesk_client_pm> graded_values;
    steady_time refreshed_at; /* when a refresh was last requested */

    /* The next indication is the first one since the connection. */
    bool is_info_initial = true;
    bool is_status_initial = true;

    uint64_t link_changes = 0; /* changes that were seen */
    uint64_t sfp_indications = 0;
    uint64_t status_indications = 0;
    uint64_t changed_us = 0; /* wall clock of the last change; 0: no change */
    plots values;
};

/* Counts round trips of reads. */
struct latency_histogram {
    /* Upper limits in seconds; one more bucket has no limit. */
    static constexpr double limits[] = {0.0001, 0.00025, 0.0005, 0.001, 0.0025, 0.005,
                                        0.01,   0.025,   0.05,   0.1,   0.25,   0.5};
    std::array<uint64_t, std::size(limits) + 1> buckets{}; /* not cumulative */
    double sum = 0;

    void add(double seconds);
};

/* Whether the port has a module whose memory can be read. */
bool has_module(const port_state &port);

class model
{
  public:
    /* Values are read at the interval; values older than a few intervals don't count as present. */
    explicit model(event_ring &events,
                   std::chrono::milliseconds interval = std::chrono::seconds(15))
        : events_(events), longest_age_(3 * interval + std::chrono::seconds(10))
    {
    }

    /* Applies a fact; changes are added to the ring of events. */
    void apply(const fact &reported, const moment &now);

    /* The port whose grades are to be refreshed now, if any, by the rules of refresh_rules.h. The
       caller must then request the refresh, as the model records it as made. */
    std::optional<uint32_t> choose_refresh(steady_time now);

    const std::map<uint32_t, port_state> &ports() const
    {
        return ports_;
    }
    /* Connected, and the last read was answered. */
    bool is_up() const
    {
        return is_connected_ && is_answering_;
    }
    bool is_connected() const
    {
        return is_connected_;
    }
    /* When the last state of the board was known, by the wall clock: now, unless the server is
       away; 0 if it was never connected. */
    uint64_t known_us(const moment &now) const
    {
        return is_up() ? now.wall_us : answered_us_;
    }
    /* The present measured values of a port; null if they are too old or not known. */
    const tesk_client_pm *values_of(const port_state &port, steady_time now) const
    {
        return port.reading && now - port.read_at <= longest_age_ ? &*port.reading : nullptr;
    }
    /* All ports have been read since the connection was made. */
    bool is_ready() const
    {
        return is_up() && is_read_;
    }
    /* The reason why is_ready() is false; empty while it is true. */
    std::string trouble() const;

    const fall_log &falls() const
    {
        return falls_;
    }

    uint64_t connections = 0;
    uint64_t refreshes = 0;
    uint64_t failed_refreshes = 0;
    std::array<uint64_t, TESK_CLIENT_FAILED + 1> failed_reads{}; /* indexed by tesk_client_result */
    latency_histogram latency;

  private:
    void take(const ports_fact &reported, const moment &now);
    void take(const connection_fact &reported, const moment &now);
    void take(const tesk_client_sfp_info &info, const moment &now);
    void take(const tesk_client_port_status &status, const moment &now);
    void take(const reading_fact &reported, const moment &now);
    void take(const unread_fact &reported, const moment &now);
    void take(const presence_fact &reported, const moment &now);
    void take(const grades_fact &reported, const moment &now);
    void take(const request_fact &reported, const moment &now);
    void take(const gone_fact &reported, const moment &now);
    void take(const round_fact &reported, const moment &now);
    void take(const fall_fact &reported, const moment &now);
    port_state *wanted(uint32_t number);
    bool show_module(port_state &known, bool is_initial, const moment &now);

    event_ring &events_;
    const steady_clock::duration longest_age_;
    fall_log falls_;
    std::map<uint32_t, port_state> ports_;
    std::map<uint32_t, std::string> interfaces_; /* interfaces of the ports that are followed */
    bool is_connected_ = false;
    bool is_answering_ = false;
    bool is_read_ = false;
    uint64_t answered_us_ = 0;
    std::string trouble_ = "not connected yet";
    steady_time next_refresh_{};
    bool is_refreshing_ = false;
};

} // namespace exporter
