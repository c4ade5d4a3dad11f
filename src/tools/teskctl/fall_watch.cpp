/* SPDX-License-Identifier: Apache-2.0 */
/* take() plans the looks at a port's file, work() makes those that are due, and a look shows the
   last fall if it wasn't shown yet. A fall within ten seconds of another one is added to the record
   of the earlier fall, and is shown if the verdict changes. */
#include "tools/teskctl/fall_watch.h"

#include "program/clock.h"
#include "program/exit_code.h"
#include "program/recorded_falls.h"
#include "util/escape.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

using namespace std::chrono_literals;

static constexpr std::chrono::milliseconds looks_after[] = {2200ms, 3500ms, 10500ms};

static uint64_t time_us_of(const watched_fall &fall)
{
    return static_cast<uint64_t>(std::max(0.0, fall.seen.time.value_or(0) * 1e6));
}

std::string text_of(const watched_fall &fall)
{
    const std::string ill = illness_text(fall.its);
    return fmt::format(
        "{}at {}: {}{}{}", fall.seen.interface ? escape(*fall.seen.interface) + " " : "",
        clock_time(time_us_of(fall)), cause_text(fall.its), ill.empty() ? "" : " The ", ill);
}

std::string short_text_of(const watched_fall &fall)
{
    const uint64_t time_us = time_us_of(fall);
    const bool is_today = date(time_us) == date(now_us());
    return fmt::format("fell {}: {}, {}{}", is_today ? clock_seconds(time_us) : date(time_us),
                       name_of(fall.its.cause), name_of(fall.its.certainty),
                       fall.its.ill.empty() ? "" : ", up but ill");
}

void fall_watch::look(uint32_t port_no, watched_port &its)
{
    try {
        const auto last = last_fall_of(folder_, port_no);
        const bool is_news = std::exchange(its.is_known, true);
        if (!last)
            return;
        const watched_fall fall{port_no, is_news, *last, causes::judge(*last)};
        std::string text = text_of(fall);
        if (text == its.last)
            return;
        its.last = std::move(text);
        show_(fall);
    } catch (const tool_error &) { /* teskctl why shows the reason */
    }
}

void fall_watch::take(uint32_t port_no)
{
    if (folder_.empty())
        return;
    const auto [found, is_first] = ports_.try_emplace(port_no);
    watched_port &its = found->second;
    its.since = std::chrono::steady_clock::now();
    if (!its.is_known)
        look(port_no, its);
    const steady_time first = its.since + looks_after[0];
    /* A planned look isn't delayed again: a port can flap for hours. */
    if (!is_first)
        its.due = std::min(its.due.value_or(first), first);
}

std::optional<steady_time> fall_watch::next() const
{
    std::optional<steady_time> first;
    for (const auto &[port_no, its] : ports_)
        if (its.due && (!first || *its.due < *first))
            first = its.due;
    return first;
}

void fall_watch::work()
{
    const steady_time now = std::chrono::steady_clock::now();
    for (auto &[port_no, its] : ports_) {
        if (!its.due || *its.due > now)
            continue;
        look(port_no, its);
        const auto past = now - its.since;
        const auto *after = std::ranges::upper_bound(looks_after, past);
        its.due = after == std::end(looks_after) ? std::nullopt : std::optional(its.since + *after);
    }
}
