/* SPDX-License-Identifier: Apache-2.0 */
/* Each function adds one report to the record of its port: about the link, its speed, a lost
   interface, and the cost of readings. */
#include "platform/dolm_ric/linux/record_updates.h"

#include "platform/dolm_ric/details_record.h"

#include <algorithm>
#include <cerrno>
#include <span>

namespace linux_board
{

static uint32_t switch_of(bool is_on)
{
    return is_on ? DOLM_RIC_SWITCH_UP : DOLM_RIC_SWITCH_DOWN;
}

static void set_speed(uint32_t megabits, uint32_t duplex, dolm_ric_details_link &link)
{
    link.speed = megabits;
    link.duplex = duplex;
    if (megabits == 0)
        link.fec = DOLM_RIC_FEC_UNKNOWN;
}

void take_link_report(const link_report &report, uint32_t falls, uint32_t rises, int64_t now,
                      dolm_ric_details_record &record)
{
    dolm_ric_details_link &link = record.link;
    const uint32_t admin = switch_of(report.started);
    const uint32_t oper = switch_of(report.operational);
    const bool is_known = link.state == DOLM_RIC_VALUE_VALID;
    if (is_known && (link.admin != admin || link.oper != oper || falls > 0 || rises > 0))
        link.changed_at = now;
    link.state = DOLM_RIC_VALUE_VALID;
    link.admin = admin;
    link.oper = oper;
    link.falls += falls;
    link.rises += rises;
    board::set_text(link.interface, sizeof(link.interface), report.name.c_str(),
                    report.name.size());
    if (!report.operational)
        set_speed(0, DOLM_RIC_DUPLEX_UNKNOWN, link);
}

void take_link_speed(const link_speed &speed, int64_t now, dolm_ric_details_record &record)
{
    dolm_ric_details_link &link = record.link;
    const bool is_up = link.oper == DOLM_RIC_SWITCH_UP;
    if (is_up && link.speed != 0 && link.speed != speed.megabits)
        link.changed_at = now;
    const uint32_t duplex = !speed.is_full_duplex   ? DOLM_RIC_DUPLEX_UNKNOWN
                            : *speed.is_full_duplex ? DOLM_RIC_DUPLEX_FULL
                                                    : DOLM_RIC_DUPLEX_HALF;
    if (is_up)
        set_speed(speed.megabits, duplex, link);
    link.autoneg =
        speed.is_negotiated ? switch_of(*speed.is_negotiated) : uint32_t{DOLM_RIC_SWITCH_UNKNOWN};
    link.lanes = speed.lanes != 0 ? speed.lanes : link.lanes;
}

void take_link_fec(uint32_t fec, dolm_ric_details_record &record)
{
    if (record.link.oper == DOLM_RIC_SWITCH_UP)
        record.link.fec = fec;
}

void lose_interface(int64_t now, dolm_ric_details_record &record)
{
    const dolm_ric_details_link before = record.link;
    record.link = {};
    record.link.falls = before.falls;
    record.link.rises = before.rises;
    record.link.changed_at = now;
}

/* The last row is for all errors that have no row of their own. */
static void count_error(int error, dolm_ric_details_cost &cost)
{
    const auto own = std::span(cost.error).first(DOLM_RIC_DETAILS_ERRORS - 1);
    const auto row = std::ranges::find_if(own, [error](const dolm_ric_details_error &one) {
        return one.error == error || one.error == 0;
    });
    dolm_ric_details_error &its = row != own.end() ? *row : cost.error[own.size()];
    its.error = row != own.end() ? error : -1;
    its.count++;
    cost.failures++;
}

/* For an empty cage drivers give errors of many kinds, and EBUSY while the kernel uses a module for
   something else. Neither counts as a failure. */
static bool is_failure(int error, bool has_module)
{
    return error != 0 && error != EBUSY && (has_module || is_unanswered(error));
}

void take_cost(const reading_cost &readings, dolm_ric_details_record &record)
{
    dolm_ric_details_cost &cost = record.cost;
    int64_t made = 0;
    for (const piece &one : readings.pieces) {
        if (one.error == ECANCELED)
            continue;
        made++;
        cost.reads++;
        cost.bytes += one.error == 0 ? one.range.length : 0u;
        if (is_failure(one.error, readings.has_module))
            count_error(one.error, cost);
    }
    if (made == 0)
        return;
    const int64_t time = std::chrono::nanoseconds{readings.time}.count();
    cost.total += time;
    cost.period = readings.has_module ? std::chrono::nanoseconds{readings.period}.count() : 0;
    cost.longest_read = std::max(cost.longest_read, time / made);
    if (readings.is_sweep) {
        cost.last_sweep = time;
        cost.longest_sweep = std::max(cost.longest_sweep, time);
    }
}

} // namespace linux_board
