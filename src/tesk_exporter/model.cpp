/* SPDX-License-Identifier: Apache-2.0 */
/* While the server is away, the last state is kept for the page; the metrics leave it out. The
   first indications after a connection are "initial" even if they differ from the last state, since
   the changes in between are not known. */
#include "tesk_exporter/model.h"

#include "program/moved_values.h"
#include "program/words.h"
#include "tesk_exporter/metrics_text.h"
#include "tesk_exporter/refresh_rules.h"
#include "util/escape.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace exporter
{

void latency_histogram::add(double seconds)
{
    const auto bucket = std::ranges::lower_bound(limits, seconds) - std::begin(limits);
    buckets[static_cast<size_t>(bucket)]++;
    sum += seconds;
}

static bool is_readable(const tesk_client_sfp_info &info)
{
    return info.type != TESK_CLIENT_SFP_NOT_PRESENT && info.type != module_not_ready;
}

bool has_module(const port_state &port)
{
    return port.info && is_readable(*port.info);
}

/* The server's indication doesn't distinguish an empty port from a module that isn't ready or can't
   be read, and no indication is sent when a module stops being ready. The history and a read of the
   values distinguish them. */
static bool is_not_ready(const port_state &port)
{
    if (port.presence == TESK_CLIENT_PRESENCE_NOT_READY)
        return true;
    return !is_readable(*port.indicated) &&
           (port.is_answering || port.presence == TESK_CLIENT_PRESENCE_READY);
}

template <size_t width>
static bool is_same_text(const char (&one)[width], const char (&other)[width])
{
    return std::strncmp(one, other, width) == 0;
}

static bool is_same(const tesk_client_sfp_info &one, const tesk_client_sfp_info &other)
{
    return one.type == other.type && one.speed == other.speed &&
           is_same_text(one.morvaine_rdh, other.morvaine_rdh) &&
           is_same_text(one.morvaine_rdh_ext, other.morvaine_rdh_ext) &&
           is_same_text(one.vendor_name, other.vendor_name) &&
           is_same_text(one.vendor_pn, other.vendor_pn) &&
           is_same_text(one.vendor_rev, other.vendor_rev) &&
           is_same_text(one.date_code, other.date_code) &&
           is_same_text(one.vendor_sn, other.vendor_sn);
}

static bool is_same(const tesk_client_port_status &one, const tesk_client_port_status &other)
{
    return one.link == other.link && one.sfp_type == other.sfp_type &&
           one.link_speed == other.link_speed && one.environment == other.environment &&
           std::ranges::equal(one.level, other.level);
}

static change module_change(const tesk_client_sfp_info &before, const tesk_client_sfp_info &now)
{
    if (now.type == module_not_ready)
        return change::not_ready;
    if (!is_readable(now))
        return change::removed;
    return is_readable(before) ? change::replaced : change::inserted;
}

static change link_change(const tesk_client_port_status &before, const tesk_client_port_status &now)
{
    if (before.link == now.link)
        return change::grades;
    return now.link == TESK_CLIENT_LINK_OPERATIONAL ? change::up : change::down;
}

static std::string labels_of(uint32_t number, const std::string &interface)
{
    std::string labels = "port=\"" + std::to_string(number) + "\"";
    if (!interface.empty())
        labels += ",interface=\"" + label_value(interface) + "\"";
    return labels;
}

/* The port, created if it is new; null if it isn't followed any more, as the report may have been
   in the queue by then. */
port_state *model::wanted(uint32_t number)
{
    const auto interface = interfaces_.find(number);
    if (interface == interfaces_.end())
        return nullptr;
    const auto [found, is_new] = ports_.try_emplace(number);
    port_state &port = found->second;
    if (is_new) {
        port.number = number;
        port.interface = interface->second;
        port.labels = labels_of(number, port.interface);
    }
    return &port;
}

void model::take(const ports_fact &reported, const moment &)
{
    interfaces_.clear();
    for (const ports_fact::port &port : reported.ports)
        interfaces_[port.number] = port.interface;
    std::erase_if(ports_, [this](const auto &entry) { return !interfaces_.contains(entry.first); });
    for (auto &[number, port] : ports_) {
        port.interface = interfaces_[number];
        port.labels = labels_of(number, port.interface);
    }
}

void model::take(const connection_fact &reported, const moment &now)
{
    const bool is_change = reported.connected != is_connected_;
    trouble_ = escape(reported.text);
    if (is_up() || reported.connected)
        answered_us_ = now.wall_us;
    is_connected_ = is_answering_ = reported.connected;
    if (!is_change)
        return;
    is_read_ = false;
    if (reported.connected) {
        connections++;
        for (auto &[number, port] : ports_) {
            port.is_info_initial = port.is_status_initial = true;
            port.is_answering = false;
            port.presence.reset(); /* it came from the history of the previous server */
        }
    }
    if (!reported.connected || connections > 1)
        events_.add({0, now.wall_us, change::initial, server_change{reported.connected}, ""});
}

void model::take(const tesk_client_sfp_info &info, const moment &now)
{
    port_state *const found = wanted(info.port_no);
    if (found == nullptr)
        return;
    port_state &known = *found;
    known.sfp_indications++;
    const bool is_initial = std::exchange(known.is_info_initial, false) || !known.info;
    known.indicated = info;
    known.is_answering = false;
    if (is_readable(info))
        known.presence.reset(); /* the entry in the history is older */
    if (!show_module(known, is_initial, now) && is_initial)
        events_.add({0, now.wall_us, change::initial, *known.info, known.interface});
}

/* Shows the module by all that is known of it, and reports a change. */
bool model::show_module(port_state &known, bool is_initial, const moment &now)
{
    tesk_client_sfp_info info = *known.indicated;
    const bool is_unready = is_not_ready(known);
    if (is_unready || known.presence == TESK_CLIENT_PRESENCE_NONE) {
        info = {};
        info.port_no = known.number;
        info.type = is_unready ? module_not_ready : uint32_t{TESK_CLIENT_SFP_NOT_PRESENT};
    }
    if (known.info && is_same(*known.info, info))
        return false;
    const change kind = is_initial ? change::initial : module_change(*known.info, info);
    events_.add({0, now.wall_us, kind, info, known.interface});
    known.changed_us = is_initial ? known.changed_us : now.wall_us;
    known.info = info;
    /* Values and grades were those of the previous module. */
    known.reading.reset();
    known.graded_values.reset();
    known.unread.clear();
    known.read_at = now.steady;
    known.module_labels = is_readable(info) ? module_labels(info) : "";
    return true;
}

/* An answer with the history may be received before the first indication. */
void model::take(const presence_fact &reported, const moment &now)
{
    const auto found = ports_.find(reported.port_no);
    if (found == ports_.end())
        return;
    found->second.presence = reported.presence;
    if (found->second.indicated)
        show_module(found->second, false, now);
}

void model::take(const tesk_client_port_status &status, const moment &now)
{
    port_state *const found = wanted(status.port_no);
    if (found == nullptr)
        return;
    port_state &known = *found;
    known.status_indications++;
    known.graded_at = now.steady;
    known.graded_values.reset(); /* the collector is about to read the port */
    const bool is_initial = std::exchange(known.is_status_initial, false) || !known.status;
    if (is_initial || !is_same(*known.status, status)) {
        const change kind = is_initial ? change::initial : link_change(*known.status, status);
        if (!is_initial) {
            known.changed_us = now.wall_us;
            known.link_changes += kind != change::grades;
        }
        events_.add({0, now.wall_us, kind, status, known.interface});
    }
    known.status = status;
}

void model::take(const reading_fact &reported, const moment &now)
{
    port_state *const found = wanted(reported.pm.port_no);
    if (found == nullptr)
        return;
    port_state &known = *found;
    if (known.indicated && !std::exchange(known.is_answering, true))
        show_module(known, true, now);
    known.unread.clear();
    if (known.info && !has_module(known))
        return; /* the values of a module that isn't ready are unreliable */
    known.reading = reported.pm;
    known.read_at = now.steady;
    if (!known.graded_values)
        known.graded_values = reported.pm;
    const auto since_start = now.steady.time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(since_start).count();
    known.values.add(reported.pm, static_cast<uint64_t>(seconds));
}

void model::take(const unread_fact &reported, const moment &now)
{
    const auto found = ports_.find(reported.port_no);
    if (found == ports_.end())
        return;
    port_state &known = found->second;
    if (reported.is_refused) {
        known.reading.reset();
        const bool was_answering = std::exchange(known.is_answering, reported.has_module);
        if (known.indicated && was_answering != known.is_answering)
            show_module(known, true, now);
    }
    known.unread = escape(reported.text);
}

/* Takes the grades only: the state of the link comes from the collector's subscription. */
void model::take(const grades_fact &reported, const moment &now)
{
    is_refreshing_ = false;
    (reported.succeeded ? refreshes : failed_refreshes)++;
    const auto found = ports_.find(reported.port_no);
    if (!reported.succeeded || found == ports_.end() || !found->second.status)
        return;
    port_state &known = found->second;
    known.graded_at = now.steady;
    known.graded_values = known.reading;
    tesk_client_port_status status = *known.status;
    std::ranges::copy(reported.status.level, status.level);
    status.environment = reported.status.environment;
    if (!is_same(*known.status, status)) {
        known.changed_us = now.wall_us;
        events_.add({0, now.wall_us, change::grades, status, known.interface});
    }
    known.status = status;
}

void model::take(const request_fact &reported, const moment &now)
{
    const bool is_answered =
        reported.result == TESK_CLIENT_OK || reported.result == TESK_CLIENT_REJECTED;
    if (is_answered && reported.is_read)
        latency.add(std::chrono::duration<double>(reported.latency).count());
    if (reported.is_failure)
        failed_reads[static_cast<size_t>(reported.result)]++;
    is_answering_ = is_connected_ && is_answered;
    if (is_answering_)
        answered_us_ = now.wall_us;
}

void model::take(const gone_fact &reported, const moment &)
{
    ports_.erase(reported.port_no);
}

void model::take(const round_fact &, const moment &)
{
    is_read_ = true;
}

void model::take(const fall_fact &reported, const moment &now)
{
    falls_.take(reported, now.steady);
    const auto found = interfaces_.find(reported->port_no);
    if (found != interfaces_.end() && (reported->is_new || reported->is_ill_now))
        events_.add({0, now.wall_us, change::down, reported, found->second});
}

void model::apply(const fact &reported, const moment &now)
{
    std::visit([&](const auto &taken) { take(taken, now); }, reported);
}

static bool is_due(const port_state &port, steady_time now)
{
    const bool was_refreshed = port.refreshed_at != steady_time{};
    return port.status && port.reading && port.graded_values && has_module(port) &&
           (!was_refreshed || now - port.refreshed_at >= refresh_port_pause) &&
           has_moved(*port.graded_values, *port.reading);
}

std::optional<uint32_t> model::choose_refresh(steady_time now)
{
    if (!is_up() || is_refreshing_ || now < next_refresh_)
        return std::nullopt;
    port_state *oldest = nullptr;
    for (auto &[number, port] : ports_)
        if (is_due(port, now) && (oldest == nullptr || port.graded_at < oldest->graded_at))
            oldest = &port;
    if (oldest == nullptr)
        return std::nullopt;
    oldest->refreshed_at = now;
    next_refresh_ = now + refresh_pause;
    is_refreshing_ = true;
    return oldest->number;
}

std::string model::trouble() const
{
    if (!is_connected_)
        return trouble_;
    if (!is_answering_)
        return "tesk-server doesn't answer in time";
    return is_read_ ? "" : "the ports are being read for the first time";
}

} // namespace exporter
