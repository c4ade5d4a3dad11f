/* SPDX-License-Identifier: Apache-2.0 */
/* Each line begins with the time at which it is written, since neither indications nor answers
   contain a time. */
#include "tools/teskctl/report.h"

#include "program/clock.h"
#include "program/output.h"
#include "program/port_list.h"
#include "program/recorded_falls.h"
#include "program/words.h"
#include "tools/teskctl/explain.h"
#include "util/escape.h"

#include <algorithm>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <utility>

void reporter::line(const std::string &text) const
{
    write_now(text + "\n");
}

void reporter::object(const json_object &object) const
{
    /* A new object, so that the time is its first key. */
    json_object stamped = {{"time", iso_time(now_us())}};
    stamped.update(object);
    line(to_line(stamped));
}

/* A line with the date precedes the first one of a new day. */
void reporter::timed_line(const std::string &text)
{
    const uint64_t now = now_us();
    const std::string before = std::exchange(day_, date(now));
    if (!before.empty() && before != day_)
        line(day_);
    line(fmt::format("{}  {}", clock_time(now), text));
}

void reporter::port_line(uint32_t port_no, const char *what, const std::string &text)
{
    timed_line(fmt::format("port {:<3} {:<6}  {}", port_no, what, text));
}

void reporter::show(const tesk_client_sfp_info &info)
{
    common_.json ? object(to_json(info)) : port_line(info.port_no, "sfp", describe(info));
}

void reporter::show(const tesk_client_port_status &status)
{
    common_.json ? object(to_json(status)) : port_line(status.port_no, "status", describe(status));
}

void reporter::show(const tesk_client_pm &pm)
{
    common_.json ? object(to_json(pm)) : port_line(pm.port_no, "pm", describe(pm));
}

void reporter::show(const tesk_client_event &event)
{
    /* In the order of tesk_client_event_type. */
    static constexpr const char *names[] = {"lost", "restored", "subscription lost"};
    static constexpr const char *words[] = {
        "tesk-server went away; waiting until it comes back",
        "tesk-server is back; subscribing again",
        "could not subscribe again",
    };
    const bool is_subscription = event.type == TESK_CLIENT_EVENT_SUBSCRIPTION_LOST;
    const char *kind = event.kind == TESK_CLIENT_SFP_INFO ? "sfp" : "status";
    if (common_.json) {
        json_object described = {{"event", names[event.type]}};
        if (is_subscription) {
            described["port"] = event.port_no;
            described["kind"] = kind;
            described["text"] = escape(event.text);
        }
        object(described);
    } else if (is_subscription) {
        port_line(event.port_no, kind,
                  fmt::format("{}: {}", words[event.type], escape(event.text)));
    } else {
        timed_line(words[event.type]);
    }
}

void reporter::show(const watched_fall &fall)
{
    if (!common_.json)
        return port_line(fall.port_no, "fall", text_of(fall));
    json_object described = {{"event", "fall"}, {"port", fall.port_no}};
    described.update(json_of(fall.seen, fall.its, nullptr));
    object(described);
}

void reporter::failed(const tesk_client_answer &answer)
{
    const std::string name = request_name(answer.request);
    const bool is_rejected = answer.result == TESK_CLIENT_REJECTED;
    code_ = std::max(code_, exit_code_of(answer.result));
    failures_[fmt::format("{}: {}", name, explain(answer))].insert(answer.port_no);
    if (common_.json)
        object({{"event", is_rejected ? "rejected" : "failed"},
                {"request", name},
                {"port", answer.port_no},
                {"code", is_rejected ? json_object(answer.error_code) : json_object(nullptr)},
                {"text", escape(answer.text)}});
}

void reporter::write_failures()
{
    for (const auto &[text, ports] : std::exchange(failures_, {}))
        complain("teskctl", fmt::format("port{} {}: {}", ports.size() == 1 ? "" : "s",
                                        format_ports({ports.begin(), ports.end()}), text));
}

void reporter::error_object(exit_code code, const std::string &text) const
{
    if (common_.json && code != exit_code::no_output)
        object({{"event", "error"}, {"exit_code", static_cast<int>(code)}, {"text", text}});
}
