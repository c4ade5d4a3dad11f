/* SPDX-License-Identifier: Apache-2.0 */
/* top: subscribes to both kinds on all its ports, since the server reports a module's insertion and
   removal only with a subscription to SFP info, and reads the measured values at an interval. On a
   terminal it draws a page after each event; elsewhere, and on one that can't move its cursor, it
   writes a line for each record.

   The ports can change while it runs, by another configuration of the board or a restart of the
   server. A port no longer exists when the server rejects a read of its values for that reason.
   With "all" its row is removed, and at each interval the values of new ports of the port map are
   read. Without a port map, all port numbers that may exist are tried when the server has come
   back. */
#include "program/clock.h"
#include "program/recorded_falls.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/fall_watch.h"
#include "tools/teskctl/kept_subscriptions.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/screen.h"
#include "tools/teskctl/status_check.h"
#include "tools/teskctl/top_view.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>

using std::chrono::steady_clock;

static steady_clock::duration seconds(double count)
{
    return std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(count));
}

namespace
{

/* Each page is drawn from the whole state, so that no change needs to be tracked. */
class top
{
  public:
    top(const settings &common, const top_options &options)
        : common_(common), options_(options), report_(common),
          loop_({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}),
          session_(loop_, common,
                   {[this](const auto &info) { checked_.take(session_, info); },
                    [this](const auto &status) {
                        checked_.take(session_, status);
                        read_value(status.port_no); /* the values that belong to the new grades */
                    },
                    [this](const auto &event) { take_event(event); }},
                   true)
    {
    }

    exit_code run()
    {
        const steady_time start = steady_clock::now();
        if (options_.seconds > 0)
            end_ = start + seconds(options_.seconds);
        const auto ports = select_ports(loop_, session_, options_.ports);
        view_ = top_view(ports);
        const std::vector<port_request> held = subscribe(ports);
        report_.write_failures();
        if (!held.empty()) {
            for (const uint32_t port_no : ports)
                subscriptions_.add(port_no);
            subscriptions_.confirm(held);
            follow();
            if (session_.is_connected())
                request_all(loop_, session_, subscriptions_.unsubscribes(),
                            [](const tesk_client_answer &) {});
        }
        return report_.code();
    }

  private:
    bool is_on_screen() const
    {
        const char *terminal = std::getenv("TERM");
        const bool is_dumb =
            terminal == nullptr || *terminal == '\0' || std::string_view(terminal) == "dumb";
        return common_.on_terminal && !common_.json && !is_dumb;
    }

    void take_status(const tesk_client_port_status &status)
    {
        take_record(status);
        falls_.take(status.port_no);
    }

    void take_fall(const watched_fall &fall)
    {
        view_.show(fall);
        if (fall.is_news && !is_on_screen())
            report_.show(fall);
    }

    template <typename record_type>
    void take_record(const record_type &record)
    {
        view_.show(record);
        if (!is_on_screen())
            report_.show(record);
    }

    /* On a page, the title shows the loss of the server. */
    void take_event(const tesk_client_event &event)
    {
        const std::string time = clock_seconds(now_us());
        if (event.type == TESK_CLIENT_EVENT_LOST)
            state_ = fmt::format("away since {}, waiting for it", time);
        else if (event.type == TESK_CLIENT_EVENT_RESTORED)
            state_ = fmt::format("back since {}", time);
        is_restored_ |= event.type == TESK_CLIENT_EVENT_RESTORED;
        subscriptions_.take(event);
        if (!is_on_screen())
            report_.show(event);
    }

    std::vector<port_request> subscribe(const std::vector<uint32_t> &ports)
    {
        auto wanted = requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, ports);
        std::ranges::copy(requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, ports),
                          std::back_inserter(wanted));
        return subscribe_all(loop_, session_, wanted,
                             [this](const tesk_client_answer &answer) { report_.failed(answer); });
    }

    void read_value(uint32_t port_no)
    {
        top_port *port = view_.port(port_no);
        /* If the server is slower than the interval, a port has at most one request in progress. */
        if (port == nullptr || port->is_reading || !session_.is_connected())
            return;
        port->is_reading = true;
        session_.request(TESK_CLIENT_REQUEST_PM, port_no,
                         [this](const tesk_client_answer &answer) { take_value(answer); });
    }

    void take_value(const tesk_client_answer &answer)
    {
        top_port *read = view_.port(answer.port_no);
        if (read == nullptr)
            return;
        read->is_reading = false;
        if (answer.rejection == TESK_CLIENT_REJECTION_NO_PORT)
            return lose(answer, *read);
        if (const auto pm = pm_of(answer)) {
            read->is_gone = false;
            take(*read, *pm);
        } else {
            read->pm.reset();
        }
        if (answer.pm != nullptr && !is_on_screen())
            report_.show(*answer.pm);
    }

    /* A port that the user named stays, and is shown again when it exists again. */
    void lose(const tesk_client_answer &answer, top_port &port)
    {
        if (!port.is_gone && is_on_screen()) {
            state_ = fmt::format("port {} gone since {}", answer.port_no, clock_seconds(now_us()));
        } else if (!port.is_gone) {
            report_.failed(answer);
            report_.write_failures();
        }
        take_loss(port);
        if (!is_all(options_.ports))
            return;
        view_.remove(answer.port_no);
        subscriptions_.remove(answer.port_no);
    }

    /* Reads the values of a port that may be new; if it exists, it is shown from then on. */
    void probe(uint32_t port_no)
    {
        if (view_.port(port_no) != nullptr)
            return;
        session_.request(TESK_CLIENT_REQUEST_PM, port_no, [this](const tesk_client_answer &answer) {
            if (!pm_of(answer))
                return;
            view_.add(answer.port_no);
            subscriptions_.add(answer.port_no);
            take_value(answer);
        });
    }

    /* Takes new ports and names from the port map, which may have changed. */
    void look_for_ports()
    {
        const port_name_map names = port_names();
        view_.name(names);
        if (!is_all(options_.ports))
            return;
        for (const auto &entry : names)
            probe(entry.first);
        for (uint32_t port_no = 0; is_restored_ && names.empty() && port_no < probed_ports;
             port_no++)
            probe(port_no);
        is_restored_ = false;
    }

    void read_all()
    {
        if (!session_.is_connected())
            return;
        look_for_ports();
        for (const uint32_t port_no : view_.all())
            read_value(port_no);
        subscriptions_.send_due();
    }

    /* A new subscription causes an indication with present grades. */
    void grade(std::optional<uint32_t> port_no)
    {
        if (!port_no || !session_.is_connected())
            return;
        subscriptions_.renew(*port_no, [this](const auto &answer) { note_grading(answer); });
    }

    void note_grading(const tesk_client_answer &answer)
    {
        state_ = answer.result == TESK_CLIENT_OK
                     ? fmt::format("port {} graded at {}", answer.port_no, clock_seconds(now_us()))
                     : fmt::format("port {} not graded: {}", answer.port_no, explain(answer));
    }

    /* False if the command is to end. */
    bool handle_keys()
    {
        for (const key &pressed : keys_.parse(loop_.keys())) {
            const top_view::action action = view_.press(pressed);
            if (action == top_view::action::quit)
                return false;
            if (action == top_view::action::grade)
                grade(view_.selected());
        }
        return true;
    }

    /* False if the command is to end. */
    bool handle_signal(std::optional<screen> &page)
    {
        if (loop_.signal() == SIGWINCH) /* the next page is drawn for the new size */
            return true;
        if (loop_.signal() != SIGTSTP)
            return false;
        if (page)
            page->suspend();
        else
            raise(SIGSTOP);
        return true;
    }

    void draw(const screen &page)
    {
        const size_t height = terminal_height();
        page.draw(view_.lines(terminal_width(common_), height, common_.coloured, state_), height);
    }

    void follow()
    {
        std::optional<screen> page;
        if (is_on_screen()) {
            page.emplace();
            if (page->has_keys())
                loop_.watch_keys();
        }
        steady_time next_read = steady_clock::now();
        for (;;) {
            const steady_time now = steady_clock::now();
            if (end_ && now >= *end_)
                return;
            if (now >= next_read) {
                read_all();
                next_read = now + seconds(options_.interval);
            }
            if (page)
                draw(*page);
            /* The page is drawn at least at each read, since the ages grow. */
            const steady_time next = std::min(next_read, falls_.next().value_or(next_read));
            const auto wake = loop_.wait(session_.get(), end_ ? std::min(*end_, next) : next);
            falls_.work();
            if (wake == event_loop::wake::signal && !handle_signal(page))
                return;
            if (wake == event_loop::wake::key && !handle_keys())
                return;
        }
    }

    const settings &common_;
    const top_options &options_;
    reporter report_;
    top_view view_{{}};
    key_parser keys_;
    std::string state_;
    bool is_restored_ = false; /* the server came back, perhaps with other ports */
    std::optional<steady_time> end_;
    event_loop loop_;
    status_check checked_{[this](const auto &status) { take_status(status); },
                          [this](const auto &info) { take_record(info); }};
    fall_watch falls_{falls_folder(), [this](const auto &fall) { take_fall(fall); }};
    kept_subscriptions subscriptions_{session_};
    session session_; /* the last, so that it closes before what its callbacks use */
};

} // namespace

exit_code run_top(const settings &common, const top_options &options)
{
    return top(common, options).run();
}
