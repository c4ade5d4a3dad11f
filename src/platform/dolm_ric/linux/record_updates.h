/* SPDX-License-Identifier: Apache-2.0 */
/* record_updates - updates a port's details from reports about its link and its readings. Pure
   functions; any thread, with one record at a time. `now` is in ns of CLOCK_BOOTTIME. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"
#include "platform/dolm_ric/linux/link_table.h"
#include "platform/dolm_ric/linux/module_poller.h"

#include <cstdint>

namespace linux_board
{

/* `falls` and `rises` are the growth of the kernel's counters since the previous report. */
void take_link_report(const link_report &report, uint32_t falls, uint32_t rises, int64_t now,
                      dolm_ric_details_record &record);
void take_link_speed(const link_speed &speed, int64_t now, dolm_ric_details_record &record);
/* Changes nothing while the link is down. */
void take_link_fec(uint32_t fec, dolm_ric_details_record &record);
/* Records that the port has no interface; the counters stay. */
void lose_interface(int64_t now, dolm_ric_details_record &record);

/* Adds the cost of readings. */
void take_cost(const reading_cost &cost, dolm_ric_details_record &record);

} // namespace linux_board
