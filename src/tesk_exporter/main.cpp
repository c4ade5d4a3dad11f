/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-exporter - serves the state of tesk-server's ports by HTTP.

   The main thread holds the whole state, answers by HTTP, and waits for descriptors only. Two
   threads have a session with the server each, and report to the main thread. Others write to the
   journal and keep the history, if that is enabled, and follow the falls that the board records. */
#include "program/clock.h"
#include "program/exit_code.h"
#include "program/recorded_falls.h"
#include "tesk_exporter/collector.h"
#include "tesk_exporter/history_keeper.h"
#include "tesk_exporter/http.h"
#include "tesk_exporter/journal.h"
#include "tesk_exporter/options.h"
#include "tesk_exporter/refresh_rules.h"
#include "tesk_exporter/refresher.h"
#include "tesk_exporter/replay.h"

#include <cerrno>
#include <csignal>
#include <fmt/format.h>
#include <malloc.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <system_error>

namespace exporter
{

static constexpr size_t ring_size = 2048;

/* An earlier process may have had the same process id; with the start time the epoch is unique. */
static std::string new_epoch()
{
    return fmt::format("{:x}{:x}", now_us(), getpid());
}

/* Large blocks are returned to the system as soon as they are free, and all threads share one
   arena. */
static void bound_memory()
{
    mallopt(M_ARENA_MAX, 1);
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    mallopt(M_TRIM_THRESHOLD, 128 * 1024);
}

static int blocked_signals()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigprocmask(SIG_BLOCK, &set, nullptr);
    signal(SIGPIPE, SIG_IGN);
    const int fd = signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0)
        throw std::system_error(errno, std::generic_category(), "signalfd");
    return fd;
}

/* All parts in the order of their construction; they are destroyed in reverse order. */
class service
{
  public:
    explicit service(const settings &given)
        : settings_(given), model_(events_, given.interval),
          http_(given, model_, events_, figures_, details_), refresher_(facts_),
          collector_({given.ports, given.interval}, facts_)
    {
        falls_.start(facts_);
        figures_.started_us = now_us();
        figures_.interval = given.interval;
        if (given.journal)
            journal_.emplace();
        if (given.history.empty())
            return;
        history_.emplace(given.history, given.history_limit, given.journal);
        http_.use_history(*history_);
    }

    ~service()
    {
        facts_.close(); /* otherwise a thread that is blocked in post() could not end */
        falls_.stop();
        collector_.stop();
        refresher_.stop();
    }

    void run(int signal_fd)
    {
        pollfd polled[] = {{signal_fd, POLLIN, 0},
                           {facts_.fd(), POLLIN, 0},
                           {http_.fd(), POLLIN, 0},
                           {history_ ? history_->fd() : -1, POLLIN, 0}};
        while (polled[0].revents == 0) {
            take_facts();
            refresh();
            /* After the facts are applied: streams that their events resume are written now, not at
               the next wake-up. */
            http_.run();
            if (poll(polled, std::size(polled), timeout()) < 0 && errno != EINTR)
                throw std::system_error(errno, std::generic_category(), "poll");
        }
    }

  private:
    void take_facts()
    {
        const uint64_t seen = events_.next();
        for (const fact &reported : facts_.take()) {
            const moment now{steady_clock::now(), now_us()};
            model_.apply(reported, now);
            if (history_)
                keep_reading(reported, now);
        }
        figures_.forecasts = history_ ? history_->forecasts() : std::vector<forecast_sample>{};
        figures_.has_history = history_.has_value();
        figures_.is_history_well = history_ && history_->is_well();
        figures_.lost_history_records = history_ ? history_->lost() : 0;
        if (events_.next() == seen)
            return;
        /* If there were more events than the ring holds, the oldest are missing here. */
        for (uint64_t number = std::max(seen, events_.first()); number < events_.next(); number++) {
            if (journal_)
                journal_->write(events_.at(number));
            if (history_)
                history_->note(events_.at(number));
        }
        figures_.lost_journal_records = journal_ ? journal_->lost() : 0;
        http_.continue_streams();
    }

    /* Passes a reading to the history if the model has accepted it as one of the module. */
    void keep_reading(const fact &reported, const moment &now)
    {
        const auto *read = std::get_if<reading_fact>(&reported);
        if (read == nullptr)
            return;
        const auto port = model_.ports().find(read->pm.port_no);
        if (port != model_.ports().end() && port->second.read_at == now.steady)
            history_->take(port->second, details_.read(port->first).get());
    }

    void refresh()
    {
        if (!settings_.refresh)
            return;
        if (const auto port_no = model_.choose_refresh(steady_clock::now()))
            refresher_.request(*port_no);
    }

    int timeout() const
    {
        const auto next = http_.next_run();
        if (!next)
            return -1;
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(*next - steady_clock::now());
        return static_cast<int>(std::clamp<int64_t>(left.count(), 0, 60'000));
    }

    const settings &settings_;
    event_ring events_{ring_size, new_epoch()};
    model model_;
    exporter_figures figures_;
    fact_queue facts_;
    std::optional<journal> journal_;
    std::optional<history_keeper> history_;
    port_details details_;
    http_server http_;
    refresher refresher_;
    collector collector_;
    fall_follower falls_{falls_folder()};
};

static int run(int argc, char **argv)
{
    settings given;
    if (const auto code = read_options(argc, argv, given))
        return *code;
    if (!given.replay.empty())
        return replay(given.replay, stdout, stderr);
    bound_memory();
    /* Limits how long the search for a server that doesn't respond can delay the end of the
       program. */
    setenv("MBX_LOCATE_MS", "1000", 0);
    const int signals = blocked_signals();
    service(given).run(signals);
    return static_cast<int>(exit_code::done);
}

} // namespace exporter

int main(int argc, char **argv)
{
    try {
        return exporter::run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tesk-exporter: %s\n", error.what());
        return 1;
    }
}
