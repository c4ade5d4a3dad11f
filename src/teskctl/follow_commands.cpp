/* The commands that go on until a limit or a process signal: watch and ping. */
#include "teskctl/commands.h"
#include "teskctl/report.h"
#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace
{

using std::chrono::steady_clock;

steady_time after(double seconds)
{
    return steady_clock::now() + std::chrono::duration_cast<steady_clock::duration>(
                                     std::chrono::duration<double>(seconds));
}

std::optional<steady_time> limit(double seconds)
{
    return seconds > 0 ? std::optional(after(seconds)) : std::nullopt;
}

/* What ping has seen so far; round-trip times in milliseconds. */
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
        return sum / static_cast<double>(answered);
    }
    double deviation() const
    {
        const double mean = average();
        const double variance = sum_of_squares / static_cast<double>(answered) - mean * mean;
        return std::sqrt(std::max(variance, 0.0));
    }
};

void report_answer(const settings &settings, const reporter &report, uint64_t sequence,
                   const tesk_client_answer &answer, double time)
{
    const bool answered = answer.result == TESK_CLIENT_OK;
    if (settings.json) {
        json_object object = {{"event", answered ? "answer" : "no answer"}, {"seq", sequence}};
        if (answered)
            object["time_ms"] = time;
        else
            object["text"] = answer.text;
        report.object(object);
    } else if (answered) {
        report.line(fmt::format("answer from tesk-server: seq={} time={:.3f} ms", sequence, time));
    } else {
        report.line(fmt::format("no answer: seq={} {}", sequence, answer.text));
    }
}

void report_statistics(const settings &settings, const reporter &report,
                       const ping_statistics &seen)
{
    const uint64_t done = seen.sent - seen.open;
    const double loss =
        done == 0 ? 0 : 100 * static_cast<double>(done - seen.answered) / static_cast<double>(done);
    if (settings.json) {
        json_object object = {{"event", "summary"},
                              {"requests", done},
                              {"answers", seen.answered},
                              {"loss_percent", loss}};
        if (seen.answered > 0)
            object.update({{"min_ms", seen.shortest},
                           {"avg_ms", seen.average()},
                           {"max_ms", seen.longest},
                           {"mdev_ms", seen.deviation()}});
        return report.object(object);
    }
    report.line(fmt::format("\n--- tesk-server ping statistics ---\n"
                            "{} requests, {} answers, {:.0f}% lost",
                            done, seen.answered, loss));
    if (seen.answered > 0)
        report.line(fmt::format("rtt min/avg/max/mdev = {:.3f}/{:.3f}/{:.3f}/{:.3f} ms",
                                seen.shortest, seen.average(), seen.longest, seen.deviation()));
}

} // namespace

exit_code run_ping(const settings &settings, const ping_options &options)
{
    event_loop loop;
    const reporter report(settings);
    ping_statistics seen;
    session session(settings, {{}, {}, [&](const auto &event) { report.heard(event); }}, true);
    auto send = [&] {
        const uint64_t sequence = ++seen.sent;
        const steady_time start = steady_clock::now();
        seen.open++;
        session.request(
            TESK_CLIENT_REQUEST_CAPABILITIES, 0, [&, sequence, start](const auto &answer) {
                const std::chrono::duration<double, std::milli> time = steady_clock::now() - start;
                if (answer.result == TESK_CLIENT_CANCELLED)
                    return;
                seen.open--;
                if (answer.result == TESK_CLIENT_OK)
                    seen.add(time.count());
                report_answer(settings, report, sequence, answer, time.count());
            });
    };
    steady_time next = steady_clock::now();
    auto all_sent = [&] { return options.count != 0 && seen.sent >= options.count; };
    while (!all_sent() || seen.open > 0) {
        if (!all_sent() && steady_clock::now() >= next) {
            send();
            next += std::chrono::duration_cast<steady_clock::duration>(
                std::chrono::duration<double>(options.interval));
        }
        const auto end = all_sent() ? std::nullopt : std::optional(next);
        if (loop.wait(session, end) == event_loop::wake::signal)
            break;
    }
    report_statistics(settings, report, seen);
    return seen.answered > 0 ? exit_done : exit_no_answer;
}

exit_code run_watch(const settings &settings, const watch_options &options)
{
    event_loop loop;
    const reporter report(settings);
    uint64_t heard = 0;
    auto more_wanted = [&] { return options.count == 0 || heard < options.count; };
    auto show = [&](const auto &record) {
        if (more_wanted()) {
            heard++;
            report.heard(record);
        }
    };
    session session(settings, {show, show, [&](const auto &event) { report.heard(event); }}, true);

    exit_code code = exit_done;
    std::vector<port_request> wanted =
        requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, options.sfp);
    std::ranges::copy(requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, options.status),
                      std::back_inserter(wanted));
    const auto end = limit(options.seconds);
    const auto held = subscribe_all(loop, session, wanted, [&](const tesk_client_answer &answer) {
        report.failed(answer);
        code = std::max(code, exit_code_of(answer.result));
    });
    while (loop.signal() == 0 && more_wanted() && !held.empty() &&
           (!end || steady_clock::now() < *end))
        loop.wait(session, end);
    if (session.connected())
        request_all(loop, session, held, [](const tesk_client_answer &) {});
    return code;
}
