/* SPDX-License-Identifier: Apache-2.0 */
/* Each function writes one format of strftime, some with milliseconds. */
#include "program/clock.h"

#include <chrono>
#include <ctime>
#include <fmt/format.h>

/* The local time in a format of strftime. */
static std::string local(uint64_t time_us, const char *format)
{
    const auto seconds = static_cast<time_t>(time_us / 1'000'000);
    tm broken_down{};
    localtime_r(&seconds, &broken_down);
    char text[64];
    return std::string(text, std::strftime(text, sizeof(text), format, &broken_down));
}

static std::string with_milliseconds(uint64_t time_us, const char *format)
{
    return fmt::format("{}.{:03}", local(time_us, format), time_us / 1000 % 1000);
}

uint64_t now_us()
{
    using namespace std::chrono;
    return static_cast<uint64_t>(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
}

std::string clock_time(uint64_t time_us)
{
    return with_milliseconds(time_us, "%H:%M:%S");
}

std::string clock_seconds(uint64_t time_us)
{
    return local(time_us, "%H:%M:%S");
}

std::string date(uint64_t time_us)
{
    return local(time_us, "%Y-%m-%d");
}

std::string date_and_time(uint64_t time_us)
{
    return with_milliseconds(time_us, "%Y-%m-%d %H:%M:%S");
}

std::string iso_time(uint64_t time_us)
{
    const auto seconds = static_cast<time_t>(time_us / 1'000'000);
    tm broken_down{};
    gmtime_r(&seconds, &broken_down);
    char text[64];
    const size_t size = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &broken_down);
    return fmt::format("{}.{:06}Z", std::string_view(text, size), time_us % 1'000'000);
}
