/* SPDX-License-Identifier: Apache-2.0 */
/* clock - wall-clock times as text. A time is in microseconds since 1970; texts for people are in
   local time, those for programs in UTC. No state. */
#pragma once

#include <cstdint>
#include <string>

uint64_t now_us();                           /* the present time */
std::string clock_time(uint64_t time_us);    /* 14:02:11.123 */
std::string clock_seconds(uint64_t time_us); /* 14:02:11 */
std::string date(uint64_t time_us);          /* 2026-03-01 */
std::string date_and_time(uint64_t time_us); /* 2026-03-01 14:02:11.123 */
std::string iso_time(uint64_t time_us);      /* 2026-03-01T13:02:11.123456Z */
