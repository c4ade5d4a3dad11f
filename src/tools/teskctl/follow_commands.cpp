/* SPDX-License-Identifier: Apache-2.0 */
/* The commands that run until a limit or a process signal: watch and ping.

   The session of both reconnects when the server goes away. A request of ping that was queued
   without a connection measures no round trip, and counts as lost. The session renews the
   subscriptions of watch, and watch repeats failed renewals itself; the first indications after
   that show changes made since the loss. With "all" a port that comes into the port map later is
   subscribed as well. */
#include "program/recorded_falls.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/fall_watch.h"
#include "tools/teskctl/kept_subscriptions.h"
#include "tools/teskctl/port_requests.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/status_check.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

using std::chrono::steady_clock;

static steady_clock::duration from_seconds(double seconds)
{
    return std::chrono::duration_cast<steady_clock::duration>(
        std::chrono::duration<double>(seconds));
}

static std::optional<steady_time> limit(double seconds)
{
    return seconds > 0 ? std::optional(steady_clock::now() + from_seconds(seconds)) : std::nullopt;
}

namespace
{

/* The statistics of ping; round-trip times in milliseconds. */
struct ping_statistics {
    uint64_t sent = 0;
    uint64_t answered = 0;
    uint64_t open = 0;
    double shortest = 0;
    double longest = 0;
    double sum = 0;
    double sum_of_squares = 0;

    void add(double time)
    {
        shortest = answered == 0 ? time : std::min(shortest, time);
        longest = std::max(longest, time);
        answered++;
        sum += time;
        sum_of_squares += time * time;
    }
    double average() const
    {
        return answered == 0 ? 0 : sum / static_cast<double>(answered);
    }
    double deviation() const
    {
        const double mean = average();
        const double mean_of_squares =
            answered == 0 ? 0 : sum_of_squares / static_cast<double>(answered);
        /* With equal times, rounding can give a little less than 0. */
        return std::sqrt(std::max(mean_of_squares - mean * mean, 0.0));
    }
};

struct ping_run {
    explicit ping_run(const settings &given) : common(given), report(given)
    {
    }

    const settings &common;
    reporter report;
    ping_statistics seen;
    uint64_t losses = 0; /* losses of the connection */
};

} // namespace

static void report_answer(const settings &common, const reporter &report, uint64_t sequence,
                          bool answered, const char *text, double time)
{
    if (common.json) {
        json_object object = {{"event", answered ? "answer" : "no answer"}, {"seq", sequence}};
        if (answered)
            object["time_ms"] = time;
        else
            object["text"] = text;
        report.object(object);
    } else if (answered) {
        report.line(fmt::format("answer from tesk-server: seq={} time={:.3f} ms", sequence, time));
    } else {
        report.line(fmt::format("no answer: seq={} {}", sequence, text));
    }
}

static void report_statistics(const settings &common, const reporter &report,
                              const ping_statistics &seen)
{
    /* A request without an answer when the user ends ping is neither answered nor lost. */
    const uint64_t done = seen.sent - seen.open;
    const double loss =
        done == 0 ? 0 : 100 * static_cast<double>(done - seen.answered) / static_cast<double>(done);
    const bool any = seen.answered > 0;
    if (common.json) {
        auto if_any = [any](double value) {
            return any ? json_object(value) : json_object(nullptr);
        };
        return report.object({{"event", "summary"},
                              {"requests", done},
                              {"answers", seen.answered},
                              {"loss_percent", loss},
                              {"min_ms", if_any(seen.shortest)},
                              {"avg_ms", if_any(seen.average())},
                              {"max_ms", if_any(seen.longest)},
                              {"mdev_ms", if_any(seen.deviation())}});
    }
    report.line(fmt::format("\n--- tesk-server ping statistics ---\n"
                            "{} requests, {} answers, {:.0f}% lost",
                            done, seen.answered, loss));
    if (any)
        report.line(fmt::format("rtt min/avg/max/mdev = {:.3f}/{:.3f}/{:.3f}/{:.3f} ms",
                                seen.shortest, seen.average(), seen.longest, seen.deviation()));
}

static void send_ping(ping_run &run, session &server)
{
    const uint64_t sequence = ++run.seen.sent;
    const steady_time start = steady_clock::now();
    const bool was_connected = server.is_connected();
    run.seen.open++;
    server.request(TESK_CLIENT_REQUEST_CAPABILITIES, 0,
                   [&run, sequence, start, was_connected, before = run.losses](const auto &answer) {
                       const std::chrono::duration<double, std::milli> time =
                           steady_clock::now() - start;
                       if (answer.result == TESK_CLIENT_CANCELLED)
                           return; /* after the summary */
                       run.seen.open--;
                       const bool is_round_trip = was_connected && run.losses == before;
                       const bool answered = answer.result == TESK_CLIENT_OK && is_round_trip;
                       if (answered)
                           run.seen.add(time.count());
                       report_answer(run.common, run.report, sequence, answered,
                                     answer.result == TESK_CLIENT_OK ? "waited for a new connection"
                                                                     : answer.text,
                                     time.count());
                   });
}

exit_code run_ping(const settings &common, const ping_options &options)
{
    event_loop loop;
    ping_run run(common);
    /* Declared after the variables that its callbacks use, and so closed before they are
       destroyed. */
    session server(loop, common,
                   {{},
                    {},
                    [&](const auto &event) {
                        run.losses += event.type == TESK_CLIENT_EVENT_LOST ? 1 : 0;
                        run.report.show(event);
                    }},
                   true);
    /* Each time is computed from the previous due time, so that a slow server gets as many
       requests. */
    steady_time next = steady_clock::now();
    auto all_sent = [&] { return options.count != 0 && run.seen.sent >= options.count; };
    while (!all_sent() || run.seen.open > 0) {
        if (!all_sent() && steady_clock::now() >= next) {
            send_ping(run, server);
            next += from_seconds(options.interval);
        }
        const auto end = all_sent() ? std::nullopt : std::optional(next);
        if (loop.wait(server.get(), end) == event_loop::wake::signal)
            break;
    }
    report_statistics(common, run.report, run.seen);
    return run.seen.answered > 0 ? exit_code::done : exit_code::no_answer;
}

static std::optional<steady_time> earlier(const std::optional<steady_time> &one,
                                          const std::optional<steady_time> &other)
{
    return one && (!other || *one < *other) ? one : other;
}

namespace
{

/* The subscriptions of watch. With "all" they follow the port map: each port that it has had is
   `known`, so that one which the server refused at first is not asked for again. */
struct watch_upkeep {
    event_loop &loop;
    session &server;
    const watch_options &options;
    kept_subscriptions kept{server};
    port_name_map known = follows_map() ? port_names() : port_name_map();
    std::optional<steady_time> next_look = {};

    bool follows_map() const
    {
        return is_all(options.sfp) || is_all(options.status);
    }
    void look()
    {
        for (const auto &[port_no, name] : port_names()) {
            if (!known.emplace(port_no, name).second)
                continue;
            if (is_all(options.sfp))
                kept.add(TESK_CLIENT_SFP_INFO, port_no);
            if (is_all(options.status))
                kept.add(TESK_CLIENT_PORT_STATUS, port_no);
        }
    }
    /* Waits for an indication or the time. After a pause the map is looked at, and subscriptions
       that are not there are tried again. */
    void wait(const std::optional<steady_time> &until)
    {
        static constexpr std::chrono::seconds look_pause{2};
        if (!kept.is_due() && !follows_map())
            next_look.reset();
        else if (!next_look)
            next_look = steady_clock::now() + look_pause;
        loop.wait(server.get(), earlier(next_look, until));
        if (!next_look || steady_clock::now() < *next_look)
            return;
        if (follows_map())
            look();
        kept.send_due();
        next_look.reset();
    }
};

} // namespace

static std::vector<port_request> watched(event_loop &loop, session &server,
                                         const watch_options &options)
{
    const auto ports_of = [&](const ports_text &text) {
        return text.empty() ? std::vector<uint32_t>() : select_ports(loop, server, text);
    };
    std::vector<port_request> wanted =
        requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, ports_of(options.sfp));
    std::ranges::copy(
        requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, ports_of(options.status)),
        std::back_inserter(wanted));
    return wanted;
}

exit_code run_watch(const settings &common, const watch_options &options)
{
    event_loop loop;
    reporter report(common);
    /* One dispatch can bring several indications: those beyond the limit are not shown. */
    uint64_t shown = 0;
    auto more_wanted = [&] { return options.count == 0 || shown < options.count; };
    auto show = [&](const auto &record) {
        if (more_wanted()) {
            shown++;
            report.show(record);
        }
    };
    fall_watch falls(options.has_falls ? falls_folder() : "", [&](const watched_fall &fall) {
        if (fall.is_news)
            report.show(fall);
    });
    status_check checked(
        [&](const auto &status) {
            show(status);
            falls.take(status.port_no);
        },
        show);
    session *connected = nullptr; /* callbacks run only during its calls */
    std::optional<watch_upkeep> upkeep;
    session server(loop, common,
                   {[&](const auto &info) { checked.take(*connected, info); },
                    [&](const auto &status) { checked.take(*connected, status); },
                    [&](const auto &event) {
                        report.show(event);
                        if (upkeep)
                            upkeep->kept.take(event);
                    }},
                   true);
    connected = &server;
    upkeep.emplace(watch_upkeep{loop, server, options});
    const std::vector<port_request> wanted = watched(loop, server, options);
    const auto end = limit(options.seconds);
    const auto held =
        subscribe_all(loop, server, wanted, [&](const auto &answer) { report.failed(answer); });
    upkeep->kept.confirm(held);
    report.write_failures();
    /* A signal may have ended the subscribing already; without a subscription no indication will be
       received. */
    while (loop.signal() == 0 && more_wanted() && !held.empty() &&
           (!end || steady_clock::now() < *end)) {
        upkeep->wait(earlier(falls.next(), end));
        falls.work();
    }
    /* The server would drop the subscriptions with the connection, but a moment later. */
    if (server.is_connected())
        request_all(loop, server, upkeep->kept.unsubscribes(), [](const tesk_client_answer &) {});
    return report.code();
}
