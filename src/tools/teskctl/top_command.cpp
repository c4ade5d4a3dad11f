/* SPDX-License-Identifier: Apache-2.0 */
/* top: subscribes to both kinds on all its ports, since a module's coming and going reaches a port
   only while somebody holds its SFP info, and reads the measured values at an interval. On a
   terminal it draws a page after whatever came in; elsewhere it writes a line for each. */
#include "tools/common/clock.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/port_requests.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/screen.h"
#include "tools/teskctl/top_view.h"

#include <algorithm>
#include <fmt/format.h>

using std::chrono::steady_clock;

static steady_clock::duration seconds(double count)
{
    return std::chrono::duration_cast<steady_clock::duration>(std::chrono::duration<double>(count));
}

namespace
{

/* Asked for by a view that is drawn anew: a page shows all that is known, at any time. So nothing
   here keeps track of what has changed since the last one. */
class top
{
  public:
    top(const settings &common, const top_options &options)
        : common_(common), options_(options), report_(common), view_(options.ports),
          loop_({SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGTSTP, SIGWINCH}),
          session_(common,
                   {[this](const auto &info) { hear(info); },
                    [this](const auto &status) { hear(status); },
                    [this](const auto &event) { hear_event(event); }},
                   true)
    {
    }

    exit_code run()
    {
        const steady_time start = steady_clock::now();
        if (options_.seconds > 0)
            end_ = start + seconds(options_.seconds);
        const std::vector<port_request> held = subscribe();
        if (!held.empty()) {
            follow();
            if (session_.connected())
                request_all(loop_, session_, held, [](const tesk_client_answer &) {});
        }
        return code_;
    }

  private:
    bool on_screen() const
    {
        return common_.on_terminal && !common_.json;
    }

    template <typename record_type>
    void hear(const record_type &record)
    {
        view_.heard(record);
        if (!on_screen())
            report_.heard(record);
    }

    /* On a page, the loss of the server is part of its title for as long as it lasts. */
    void hear_event(const tesk_client_event &event)
    {
        const std::string time = clock_seconds(now_us());
        if (event.type == TESK_CLIENT_EVENT_LOST)
            state_ = fmt::format("away since {}, waiting for it", time);
        else if (event.type == TESK_CLIENT_EVENT_RESTORED)
            state_ = fmt::format("back since {}", time);
        if (!on_screen())
            report_.heard(event);
    }

    std::vector<port_request> subscribe()
    {
        auto wanted = requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO, options_.ports);
        std::ranges::copy(requests_for(TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS, options_.ports),
                          std::back_inserter(wanted));
        return subscribe_all(loop_, session_, wanted, [this](const tesk_client_answer &answer) {
            report_.failed(answer);
            code_ = std::max(code_, exit_code_of(answer.result));
        });
    }

    void read_values()
    {
        for (const uint32_t port_no : options_.ports) {
            port_view &view = view_.port(port_no);
            if (view.reading || !session_.connected())
                continue;
            /* A server that is slower than the interval is not asked twice for a port. */
            view.reading = true;
            session_.request(
                TESK_CLIENT_REQUEST_PM, port_no, [this, &view](const tesk_client_answer &answer) {
                    view.reading = false;
                    view.pm = answer.pm != nullptr ? std::optional(*answer.pm) : std::nullopt;
                    if (view.pm && !on_screen())
                        report_.heard(*view.pm);
                });
        }
    }

    /* False when the command is to end. */
    bool handle_signal(std::optional<screen> &page)
    {
        if (loop_.signal() == SIGWINCH) /* the next page is drawn for the new size */
            return true;
        if (loop_.signal() != SIGTSTP)
            return false;
        /* Elsewhere there is no page to give back. */
        page ? page->suspend() : void(raise(SIGSTOP));
        return true;
    }

    void follow()
    {
        std::optional<screen> page;
        if (on_screen()) {
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
                read_values();
                next_read = now + seconds(options_.interval);
            }
            if (page) {
                const size_t height = terminal_height();
                page->draw(view_.lines(terminal_width(common_), height, common_.coloured, state_),
                           height);
            }
            /* The ages grow all the time: the page is drawn at each read, if nothing else comes. */
            const auto wake = loop_.wait(session_, end_ ? std::min(*end_, next_read) : next_read);
            if (wake == event_loop::wake::signal && !handle_signal(page))
                return;
            if (wake == event_loop::wake::key && (loop_.key() == 'q' || loop_.key() == 'Q'))
                return;
        }
    }

    const settings &common_;
    const top_options &options_;
    reporter report_;
    top_view view_;
    std::string state_;
    exit_code code_ = exit_code::done;
    std::optional<steady_time> end_;
    event_loop loop_;
    session session_; /* the last, so that it is closed before what its callbacks touch */
};

} // namespace

exit_code run_top(const settings &common, const top_options &options)
{
    return top(common, options).run();
}
