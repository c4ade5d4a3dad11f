/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: post() queues an input; run() takes the queue every ten seconds, or at once for a
   question, and passes each input to the chronicle with the clocks of the moment of its post(). */
#define SD_JOURNAL_SUPPRESS_LOCATION /* it would always be that of this file */
#include "tesk_exporter/history_keeper.h"

#include "program/clock.h"
#include "program/units.h"
#include "program/words.h"
#include "tesk_exporter/history_json.h"
#include "util/boot_clock.h"
#include "util/escape.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <fmt/format.h>
#include <limits>
#include <span>
#include <system_error>
#include <systemd/sd-journal.h>
#include <unistd.h>

namespace exporter
{

/* Often enough for steps of five minutes. */
static constexpr std::chrono::seconds step_look_pause{10};

/* Without any reading no step ends, so the look is rare. */
static constexpr int64_t longest_look_pause = 3600;

static history::clocks clocks_now()
{
    const auto boot = util::boot_time().time_since_epoch();
    return {static_cast<int64_t>(now_us() / 1'000'000),
            std::chrono::duration_cast<std::chrono::seconds>(boot).count()};
}

history_keeper::history_keeper(const std::string &folder, int64_t limit, bool has_journal)
    : has_journal_(has_journal),
      chronicle_({folder, limit,
                  [](const std::string &text) {
                      std::fprintf(stderr, "tesk-exporter: history: %s\n", text.c_str());
                  },
                  [this](const history::place &of, int64_t time, const history::record &read) {
                      outlooks_.feed(of, time, read);
                      has_steps_ = true;
                  }})
{
    thread_.start([this] { run(); });
}

history_keeper::~history_keeper()
{
    thread_.stop();
}

void history_keeper::post(input given, bool is_urgent)
{
    const std::lock_guard lock(mutex_);
    if (inputs_.size() >= capacity && !is_urgent) {
        lost_++;
        return;
    }
    inputs_.push_back(std::move(given));
    if (is_urgent || inputs_.size() == wake_at)
        wake_.signal();
}

static int16_t kept(bool has, history::measure what, double value)
{
    return has ? history::stored(what, value) : history::absent;
}

/* A power without light has no logarithm and is stored as absent. */
static int16_t kept_power(bool has, history::measure what, uint32_t microwatts)
{
    const auto dbm = has ? to_dbm(microwatts) : std::nullopt;
    return kept(dbm.has_value(), what, dbm.value_or(0));
}

/* The order is that of history::row; the server has the values of one lane. */
static history::record record_of(const port_state &port)
{
    using history::measure;
    const tesk_client_pm &pm = *port.reading;
    history::record made;
    if (port.status)
        made.link = port.status->link == TESK_CLIENT_LINK_OPERATIONAL ? 100 : 0;
    made.middle = {kept(pm.has_temperature, measure::temperature, pm.temperature / 10.0),
                   kept(pm.has_voltage, measure::voltage, pm.voltage / 10'000.0),
                   kept_power(pm.has_rx_power, measure::rx_power, pm.rx_power),
                   kept_power(pm.has_tx_power, measure::tx_power, pm.tx_power),
                   kept(pm.has_tx_bias, measure::bias, pm.tx_bias / 100.0),
                   history::absent};
    return made;
}

/* The value; NaN if it is missing. */
static double number_of(const dolm_ric_details_value &its)
{
    return its.state == DOLM_RIC_VALUE_VALID ? its.value : std::numeric_limits<double>::quiet_NaN();
}

static int16_t power_of(history::measure what, const dolm_ric_details_value &its)
{
    const double milliwatts = number_of(its);
    return milliwatts > 0 ? history::stored(what, milliwatts_to_dbm(milliwatts)) : history::absent;
}

/* The bit error ratio of the lane's light before correction; the average if the module has it. */
static int16_t errors_of(const dolm_ric_details_record &details, uint32_t lane)
{
    double found = 0;
    for (const auto &row : std::span(details.vdm).first(details.vdm_count))
        if (row.lane == lane && row.side == DOLM_RIC_SIDE_MEDIA &&
            row.state == DOLM_RIC_VALUE_VALID &&
            (row.kind == DOLM_RIC_VDM_PRE_FEC_BER_AVERAGE ||
             (row.kind == DOLM_RIC_VDM_PRE_FEC_BER_CURRENT && found == 0)))
            found = row.value;
    return found > 0 ? history::stored(history::measure::error_ratio, std::log10(found))
                     : history::absent;
}

/* The lanes of the port, if its module has several; the server has the values of one lane only. */
static void take_lanes(const dolm_ric_details_record &details, history::record &made)
{
    using history::measure;
    made.middle.resize(history::per_port);
    for (uint32_t lane = 0; lane < details.lane_count; lane++) {
        const auto &its = details.lane[lane].value;
        const bool is_own = (details.own_lanes >> lane & 1) != 0;
        history::row row = {power_of(measure::rx_power, its[DOLM_RIC_RX_POWER]),
                            power_of(measure::tx_power, its[DOLM_RIC_TX_POWER]),
                            history::stored(measure::bias, number_of(its[DOLM_RIC_TX_BIAS])),
                            errors_of(details, lane)};
        if (!is_own)
            row.assign(history::per_lane, history::absent);
        made.middle.insert(made.middle.end(), row.begin(), row.end());
    }
}

static forecast::limits limits_of(const dolm_ric_details_limits &its, double unit)
{
    if (its.state != DOLM_RIC_VALUE_VALID)
        return {};
    return {its.low_alarm * unit, its.low_warning * unit, its.high_warning * unit,
            its.high_alarm * unit};
}

/* In the order of forecast::quantity. */
static outlooks::module_limits limits_of(const dolm_ric_details_record &details)
{
    return {limits_of(details.lane_limits[DOLM_RIC_RX_POWER], 1000),
            limits_of(details.lane_limits[DOLM_RIC_TX_POWER], 1000),
            limits_of(details.lane_limits[DOLM_RIC_TX_BIAS], 1),
            {},
            limits_of(details.module_limits[DOLM_RIC_TEMPERATURE], 1)};
}

/* A field of a module without its padding. */
static std::string text_of(const char *field)
{
    const std::string text = escape(field);
    const size_t end = text.find_last_not_of(' ');
    return end == std::string::npos ? "" : text.substr(0, end + 1);
}

void history_keeper::take(const port_state &read, const dolm_ric_details_record *details)
{
    if (!read.info || !read.reading)
        return; /* it isn't known yet which module has these values */
    history::occupant from{read.number, read.interface, text_of(read.info->vendor_name),
                           text_of(read.info->vendor_pn), text_of(read.info->vendor_sn)};
    reading made{std::move(from), record_of(read), {}};
    if (details != nullptr && details->presence == DOLM_RIC_PRESENCE_READY) {
        made.limits = limits_of(*details);
        if (details->lane_count > 1)
            take_lanes(*details, made.measured);
    }
    post({clocks_now(), std::move(made)}, false);
}

void history_keeper::note(const exporter::event &happened)
{
    const auto port = port_of(happened);
    noted given{port ? int64_t{*port} : history::no_port, change_text(happened.kind), "", false};
    if (const auto *server = std::get_if<server_change>(&happened.record)) {
        given.kind = server->connected ? "restored" : "lost";
    } else if (const auto *info = std::get_if<tesk_client_sfp_info>(&happened.record)) {
        given.text = describe(*info);
        given.is_empty = info->type == TESK_CLIENT_SFP_NOT_PRESENT;
    } else if (const auto *fall = std::get_if<fall_fact>(&happened.record)) {
        given.kind = (*fall)->is_ill_now ? "ill" : "cause";
        given.text = describe(**fall);
    } else {
        given.text = describe(std::get<tesk_client_port_status>(happened.record));
    }
    if (port && happened.kind == change::initial)
        given.kind.clear(); /* the initial state: nothing has happened */
    post({clocks_now(), std::move(given)}, false);
}

uint64_t history_keeper::ask(const history_question &asked)
{
    post({clocks_now(), question{++questions_, asked}}, true);
    return questions_;
}

std::vector<history_answer> history_keeper::take_answers()
{
    answered_.take();
    const std::lock_guard lock(mutex_);
    return std::exchange(answers_, {});
}

void history_keeper::take(const reading &given, const history::clocks &when)
{
    chronicle_.take(given.from, given.measured, when);
    if (given.limits)
        outlooks_.know_limits(chronicle_, given.from.port, *given.limits);
}

void history_keeper::take(const noted &given, const history::clocks &when)
{
    if (!given.kind.empty())
        chronicle_.note(given.port, given.kind, given.text, when);
    if (given.is_empty)
        chronicle_.vacate(static_cast<uint32_t>(given.port));
}

void history_keeper::take(const question &given, const history::clocks &when)
{
    history_answer made{given.id, 200, ""};
    if (!chronicle_.trouble().empty())
        made = {given.id, 503, "there is no history: " + chronicle_.trouble()};
    else if (given.asked.what == history_question::kind::modules)
        made.text = modules_json(chronicle_);
    else if (given.asked.what == history_question::kind::forecast)
        made.text = outlooks_.json(chronicle_, when.boot);
    else
        made.text = history_json(chronicle_, given.asked.port, given.asked.of, when.boot,
                                 given.asked.is_followed);
    if (made.status == 200 && !chronicle_.trouble().empty())
        made = {given.id, 503, "there is no history: " + chronicle_.trouble()};
    else if (made.status == 200 && made.text.empty())
        made = {given.id, 404, "there is no such port, and was none"};
    const std::lock_guard lock(mutex_);
    answers_.push_back(std::move(made));
    answered_.signal();
}

/* The fields are named like those of journal_fields(). */
static void send_to_journal(const outlooks::news &each)
{
    const forecast::report &told = each.told;
    const std::string name =
        each.of.interface.empty() ? "" : fmt::format(" ({})", each.of.interface);
    const std::string message =
        fmt::format("port {}{}: forecast {}: {}{}: {}", each.of.port, name,
                    each.is_raised ? fmt::format("{:.1f} days left", told.days_left) : "withdrawn",
                    forecast::name_of(told.value), lane_text(told.lane), told.reason);
    sd_journal_send("MESSAGE=%s", message.c_str(), "PRIORITY=%d", each.is_raised ? 4 : 6,
                    "SYSLOG_IDENTIFIER=tesk-exporter", "TESK_EVENT=forecast", "TESK_PORT=%u",
                    each.of.port, "TESK_INTERFACE=%s", each.of.interface.c_str(), "TESK_CHANGE=%s",
                    each.is_raised ? "raised" : "withdrawn", "TESK_VALUE=%s",
                    forecast::name_of(told.value), "TESK_LANE=%s", lane_label(told.lane).c_str(),
                    "TESK_DAYS_LEFT=%.1f", told.days_left, nullptr);
}

/* After steps have ended; the first time, for the whole past. */
void history_keeper::look_ahead(const history::clocks &now)
{
    const bool is_open = chronicle_.trouble().empty();
    if (!is_open) {
        is_restored_ = false;
        const std::lock_guard lock(mutex_);
        forecasts_.clear();
        return;
    }
    if (!is_restored_) {
        const auto must_stop = [this] { return thread_.must_stop(); };
        if (!must_stop())
            outlooks_.restore(chronicle_, must_stop);
        if (must_stop())
            return; /* until all past readings are taken in, no forecast is withdrawn */
        is_restored_ = true;
    } else if (!std::exchange(has_steps_, false) && now.boot < next_look_)
        return;
    next_look_ = now.boot + longest_look_pause;
    for (const outlooks::news &each : outlooks_.settle(chronicle_, now))
        if (has_journal_)
            send_to_journal(each);
    auto made = outlooks_.samples(chronicle_, now.boot);
    const std::lock_guard lock(mutex_);
    forecasts_ = std::move(made);
}

std::vector<forecast_sample> history_keeper::forecasts()
{
    const std::lock_guard lock(mutex_);
    return forecasts_;
}

void history_keeper::process(const std::vector<input> &inputs)
{
    for (const input &each : inputs) {
        chronicle_.advance(each.when);
        look_ahead(each.when);
        std::visit([&](const auto &what) { take(what, each.when); }, each.what);
    }
}

void history_keeper::run()
{
    const auto take_all = [this] {
        const std::lock_guard lock(mutex_);
        return std::exchange(inputs_, {});
    };
    while (!thread_.must_stop()) {
        process(take_all());
        chronicle_.advance(clocks_now());
        look_ahead(clocks_now());
        is_well_ = chronicle_.trouble().empty() && chronicle_.write_trouble().empty();
        if (thread_.wait(wake_.fd(), step_look_pause))
            wake_.take();
    }
    process(take_all());
    chronicle_.close(clocks_now());
}

} // namespace exporter
