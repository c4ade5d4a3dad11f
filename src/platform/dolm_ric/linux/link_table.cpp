/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: take() finds the port of a report, update() compares it with the last one, and
   announce_or_hold() turns the difference into events, or holds it back while the link flaps.
   settle() announces the held changes once the link has been quiet for a while. */
#include "platform/dolm_ric/linux/link_table.h"

#include "platform/dolm_ric/dolm_ric.h"

#include <algorithm>
#include <utility>

namespace linux_board
{

/* A fall is always announced from an operational link: a link that was announced as down must have
   risen before it fell. */
std::vector<uint32_t> link_transitions(uint32_t before, uint32_t falls, uint32_t after)
{
    constexpr uint32_t up = DOLM_RICRILINKSTATE_OPERATIONAL;
    std::vector<uint32_t> states;
    uint32_t state = before;
    for (uint32_t left = std::min(falls, max_falls); left > 0; left--) {
        if (state != up)
            states.push_back(up);
        const bool last = left == 1 && after != up;
        state = last ? after : uint32_t{DOLM_RICRILINKSTATE_NOOPERATION};
        states.push_back(state);
    }
    if ((state == up) != (after == up))
        states.push_back(after);
    return states;
}

static uint32_t state_of(const link_report &report)
{
    if (!report.started)
        return DOLM_RICRILINKSTATE_STOPPED;
    return report.operational ? DOLM_RICRILINKSTATE_OPERATIONAL : DOLM_RICRILINKSTATE_NOOPERATION;
}

/* How much a counter that wraps has grown; negative if `now` is the older value. */
static int32_t growth(uint32_t before, uint32_t now)
{
    return static_cast<int32_t>(now - before);
}

/* Drivers drop the carrier when an administrator stops or restarts the port. The announcement of
   the stop has counted that fall already. */
static uint32_t falls_between(const link_report &before, const link_report &now)
{
    const auto falls = static_cast<uint32_t>(growth(before.falls, now.falls));
    const bool by_stop = falls > 0 && !before.started && before.has_carrier;
    return !before.started && !now.started ? 0 : falls - (by_stop ? 1 : 0);
}

link_table::link_table(link_listener &listener, speed_source ask_speed)
    : listener_(listener), ask_speed_(std::move(ask_speed))
{
}

void link_table::add(uint32_t port, port_filter fits)
{
    links_[port] = {.number = port,
                    .fits = std::move(fits),
                    .lost = {},
                    .last = {},
                    .announced = {DOLM_RICRILINKSTATE_NOOPERATION, 0, 0},
                    .settles_at = {}};
}

bool link_table::change(uint32_t port, port_filter fits, bool is_same)
{
    const auto found = links_.find(port);
    if (found == links_.end()) {
        add(port, std::move(fits));
        return true;
    }
    port_link &link = found->second;
    const link_report *const known = link.index != 0 ? &link.last
                                     : link.lost     ? &*link.lost
                                                     : nullptr;
    if (!is_same && known != nullptr && !fits(*known))
        return false;
    link.fits = std::move(fits);
    link.is_out = false;
    return true;
}

void link_table::take_out(uint32_t port, time_point now)
{
    port_link &link = links_.at(port);
    forget(link.index, now);
    link.is_out = true;
}

/* The port without an interface that a new interface belongs to. A port whose filter matches is
   preferred to a port whose last interface had this name, since the name may have been set by
   hand. */
link_table::port_link *link_table::find_free(const link_report &report)
{
    port_link *returned_to = nullptr;
    for (auto &[number, link] : links_) {
        if (link.index != 0 || link.is_out ||
            (link.lost &&
             (link.lost->parent != report.parent || link.lost->port_name != report.port_name)))
            continue;
        if (link.fits(report))
            return &link;
        if (returned_to == nullptr && link.lost && link.lost->name == report.name)
            returned_to = &link;
    }
    return returned_to;
}

/* The port of an interface; if it has none, a matching port without an interface takes it. */
link_table::port_link *link_table::bind(const link_report &report)
{
    const auto known = ports_.find(report.index);
    if (known != ports_.end())
        return &links_.at(known->second);
    port_link *link = find_free(report);
    if (link == nullptr)
        return nullptr;
    link->index = report.index;
    ports_[report.index] = link->number;
    return link;
}

/* If the counters of an answer went back, it is about another interface that got the same index. */
void link_table::take(const link_report &report, origin from, time_point now)
{
    reported_.insert(report.index);
    if (report.deleted) {
        const auto how = report.moved ? board::departure::moved : board::departure::removed;
        return forget(report.index, now, from == origin::notice ? how : board::departure::unknown);
    }
    port_link *link = bind(report);
    if (link == nullptr) {
        listener_.interface_left_out(report);
        return;
    }
    const bool known = link->last.index == report.index;
    const bool older = known && (growth(link->last.rises, report.rises) < 0 ||
                                 growth(link->last.falls, report.falls) < 0);
    if (older && from != origin::answer)
        return;
    if (older)
        announce(*link, 0, DOLM_RICRILINKSTATE_NOOPERATION, now);
    update(*link, report, from, known && !older, now);
}

void link_table::update(port_link &link, const link_report &report, origin from, bool is_same,
                        time_point now)
{
    const uint32_t falls = is_same ? falls_between(link.last, report) : 0;
    const bool is_counted = is_same && growth(link.last.falls, report.falls) >= 0 &&
                            growth(link.last.rises, report.rises) >= 0;
    listener_.link_reported(link.number, report, is_counted ? report.falls - link.last.falls : 0,
                            is_counted ? report.rises - link.last.rises : 0, from);
    const bool named_anew = link.last.name != report.name;
    if (!is_same || link.last.rises != report.rises || !report.operational)
        link.speed_at.reset();
    link.last = report;
    if (named_anew)
        listener_.interface_changed(link.number, &link.last);
    if (falls > 0)
        listener_.link_fell(link.number, falls);
    if (report.operational && !link.speed_at && ask_speed_)
        if (const auto speed = ask_speed_(report.index))
            set_speed(link, *speed, now);
    announce_or_hold(link, falls, now);
}

/* When the hold ends, a full filter has room for one fall at most, however many there were. A
   change from one known speed to another counts as a fall, although the counters don't show it. */
void link_table::announce_or_hold(port_link &link, uint32_t falls, time_point now)
{
    if (!link.settles_at && now - link.announced_at >= settle_time)
        link.falls_left = max_falls;
    const uint32_t state = state_of(link.last);
    const uint32_t before = link.announced.speed, speed = values_of(link, state).speed;
    if (link.announced.state == state && before != 0 && speed != 0 && before != speed)
        falls = std::max(falls, 1U);
    if (link.settles_at && link.falls_left == 0) {
        link.is_held = true;
        link.falls_held = std::max(link.falls_held, std::min(falls, 1U));
        listener_.link_known(link.number, values_of(link, state));
        return;
    }
    const uint32_t announced = std::min(falls, link.falls_left);
    link.falls_left -= announced;
    announce(link, announced, state, now);
}

void link_table::set_speed(port_link &link, const link_speed &speed, time_point now)
{
    link.speed = speed.code;
    link.lanes = speed.lanes != 0 ? speed.lanes : link.lanes;
    link.speed_at = now;
    listener_.speed_reported(link.number, speed);
}

void link_table::take_speed(int32_t index, const link_speed &speed, time_point now)
{
    const auto known = ports_.find(index);
    if (known == ports_.end())
        return;
    port_link &link = links_.at(known->second);
    set_speed(link, speed, now);
    announce_or_hold(link, 0, now);
}

bool link_table::is_up(int32_t index) const
{
    const auto known = ports_.find(index);
    return known != ports_.end() && links_.at(known->second).last.operational;
}

bool link_table::is_speed_wanted(int32_t index, time_point now) const
{
    if (!is_up(index))
        return false;
    const port_link &link = links_.at(ports_.at(index));
    return !link.speed_at || now - *link.speed_at >= speed_age;
}

void link_table::forget(int32_t index, time_point now, board::departure how)
{
    const auto known = ports_.find(index);
    if (known == ports_.end())
        return;
    port_link &link = links_.at(known->second);
    ports_.erase(known);
    listener_.interface_leaves(link.number, how);
    link.index = 0;
    link.lost = std::exchange(link.last, {});
    announce(link, 0, DOLM_RICRILINKSTATE_NOOPERATION, now);
    listener_.interface_changed(link.number, nullptr);
}

void link_table::begin_dump()
{
    reported_.clear();
}

void link_table::end_dump(time_point now)
{
    std::vector<int32_t> gone;
    for (const auto &[index, port] : ports_)
        if (!reported_.contains(index))
            gone.push_back(index);
    for (const int32_t index : gone)
        forget(index, now);
    reported_.clear();
}

link_values link_table::values_of(const port_link &link, uint32_t state)
{
    return {state, state == DOLM_RICRILINKSTATE_OPERATIONAL ? link.speed : 0, link.lanes};
}

/* Returns whether there was an event. Events in quick succession may be handled together, and so in
   another order. If there was no memory for an event, the link's state is announced again when it
   has settled. */
bool link_table::announce(port_link &link, uint32_t falls, uint32_t state, time_point now)
{
    const std::vector<uint32_t> states = link_transitions(link.announced.state, falls, state);
    const bool was_held = std::exchange(link.is_held, false);
    link.falls_held = 0;
    if (states.empty()) {
        const link_values before = std::exchange(link.announced, values_of(link, state));
        if (was_held || link.announced != before)
            listener_.link_known(link.number, link.announced);
        return false;
    }
    const bool is_burst =
        link.settles_at.has_value() || states.size() > 1 || now - link.announced_at < settle_time;
    link.settles_at = now + settle_time;
    link.announced_at = now;
    for (const uint32_t next : states) {
        link.announced = values_of(link, next);
        listener_.link_changed(link.number, link.announced);
    }
    if (!is_burst)
        link.settles_at.reset();
    return true;
}

std::optional<link_table::time_point> link_table::next_settling() const
{
    std::optional<time_point> next;
    for (const auto &[port, link] : links_)
        if (link.settles_at && (!next || *link.settles_at < *next))
            next = link.settles_at;
    return next;
}

/* Announces the events that were held back, if any; the burst then goes on. */
void link_table::settle(port_link &link, time_point now)
{
    if (link.is_held && announce(link, link.falls_held, state_of(link.last), now))
        return;
    link.announced = values_of(link, link.announced.state);
    listener_.link_changed(link.number, link.announced);
    link.falls_left = max_falls;
    link.settles_at.reset();
}

void link_table::announce_settled(time_point now)
{
    for (auto &[port, link] : links_)
        if (link.settles_at && *link.settles_at <= now)
            settle(link, now);
}

int32_t link_table::index_of(uint32_t port) const
{
    const auto found = links_.find(port);
    return found == links_.end() ? 0 : found->second.index;
}

std::set<int32_t> link_table::indices() const
{
    std::set<int32_t> all;
    for (const auto &[index, port] : ports_)
        all.insert(index);
    return all;
}

std::optional<uint32_t> link_table::port_of(int32_t index) const
{
    const auto found = ports_.find(index);
    return found == ports_.end() ? std::nullopt : std::optional(found->second);
}

} // namespace linux_board
