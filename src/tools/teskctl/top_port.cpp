/* SPDX-License-Identifier: Apache-2.0 */
/* Each take() adds one record to the shown state of a port, and returns the event's text if the
   record is an event. */
#include "tools/teskctl/top_port.h"

#include "program/clock.h"
#include "program/moved_values.h"
#include "program/words.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <vector>

static std::string difference(const tesk_client_port_status &before,
                              const tesk_client_port_status &now)
{
    std::vector<std::string> parts;
    if (before.link != now.link || before.link_speed != now.link_speed)
        parts.push_back("link " + link_text(now));
    if (before.sfp_type != now.sfp_type)
        parts.push_back(module_phrase(now.sfp_type));
    for (uint32_t i = 0; i < TESK_CLIENT_MEASUREMENTS; i++)
        if (before.level[i] != now.level[i])
            parts.push_back(fmt::format("{} {}", tesk_client_text(TESK_CLIENT_TEXT_MEASUREMENT, i),
                                        tesk_client_text(TESK_CLIENT_TEXT_LEVEL, now.level[i])));
    if (before.environment != now.environment)
        parts.push_back(fmt::format(
            "environment {}", tesk_client_text(TESK_CLIENT_TEXT_ENVIRONMENT, now.environment)));
    return fmt::format("{}", fmt::join(parts, ", "));
}

static void note_event(top_port &port, const std::string &what)
{
    if (what.empty())
        return;
    port.changes++;
    port.is_unseen = true;
    port.last_event = clock_seconds(now_us()) + " " + what;
}

std::string take(top_port &port, const tesk_client_port_status &status)
{
    /* The first indication shows the state and is no event. Those after a reconnection are events
       only if something has changed. */
    std::string what = port.status ? difference(*port.status, status) : "";
    note_event(port, what);
    port.status = status;
    port.status_time = std::chrono::steady_clock::now();
    port.graded.reset();
    return what;
}

std::string take(top_port &port, const tesk_client_sfp_info &info)
{
    std::string what;
    if (port.sfp && describe(*port.sfp) != describe(info))
        what = info.type == TESK_CLIENT_SFP_NOT_PRESENT ? "module out"
               : info.type == module_not_ready          ? describe(info)
                                                        : "module in: " + describe(info);
    note_event(port, what);
    port.sfp = info;
    return what;
}

void take(top_port &port, const tesk_client_pm &pm)
{
    port.pm = pm;
    if (port.status && !port.graded && pm.sfp_type != module_not_ready)
        port.graded = pm;
}

void take(top_port &port, const watched_fall &fall)
{
    port.last_fall = short_text_of(fall);
    port.is_unseen |= fall.is_news;
}

std::string event_text(const top_port &port)
{
    if (port.last_event.empty() || port.last_fall.empty())
        return port.last_event + port.last_fall;
    return port.last_event + "; " + port.last_fall;
}

void take_loss(top_port &port)
{
    if (!port.is_gone)
        note_event(port, "port gone");
    port.is_gone = true;
    port.status.reset();
    port.sfp.reset();
    port.pm.reset();
    port.graded.reset();
}

uint32_t module_of(const top_port &port)
{
    /* Only the SFP info reports insertion and removal; only the measured values distinguish an
       empty port from a module that isn't ready. */
    if (port.sfp && port.sfp->type != TESK_CLIENT_SFP_NOT_PRESENT &&
        port.sfp->type != module_not_ready)
        return port.sfp->type;
    if (port.pm && port.pm->sfp_type == TESK_CLIENT_SFP_NOT_PRESENT)
        return TESK_CLIENT_SFP_NOT_PRESENT;
    if (port.sfp)
        return port.pm ? module_not_ready : port.sfp->type;
    return port.status ? port.status->sfp_type : uint32_t{TESK_CLIENT_SFP_UNKNOWN};
}

bool has_moved(const top_port &port, tesk_client_measurement measurement)
{
    return port.pm && port.graded && has_moved(*port.graded, *port.pm, measurement);
}

uint32_t rank(const top_port &port)
{
    if (port.is_gone)
        return 1;
    if (!port.status || module_of(port) == TESK_CLIENT_SFP_NOT_PRESENT)
        return 0;
    const bool is_down = port.status->link != TESK_CLIENT_LINK_OPERATIONAL;
    return 2 * severity(worst_level(port.status->level)) + (is_down ? 1 : 0);
}
