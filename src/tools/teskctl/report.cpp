/* SPDX-License-Identifier: Apache-2.0 */
/* The time before a line is that of its writing: neither indications nor answers carry one. */
#include "tools/teskctl/report.h"

#include "tools/common/clock.h"
#include "tools/common/output.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/words.h"
#include "util/escape.h"

#include <fmt/format.h>

void reporter::line(const std::string &text) const
{
    write_now(text + "\n");
}

void reporter::object(const json_object &object) const
{
    /* Built around the object, so that the time is its first key. */
    json_object stamped = {{"time", iso_time(now_us())}};
    stamped.update(object);
    line(to_line(stamped));
}

void reporter::port_line(uint32_t port_no, const char *what, const std::string &text) const
{
    line(fmt::format("{}  port {:<3} {:<6}  {}", clock_time(now_us()), port_no, what, text));
}

void reporter::heard(const tesk_client_sfp_info &info) const
{
    common_.json ? object(to_json(info)) : port_line(info.port_no, "sfp", describe(info));
}

void reporter::heard(const tesk_client_port_status &status) const
{
    common_.json ? object(to_json(status)) : port_line(status.port_no, "status", describe(status));
}

void reporter::heard(const tesk_client_pm &pm) const
{
    common_.json ? object(to_json(pm)) : port_line(pm.port_no, "pm", describe(pm));
}

void reporter::heard(const tesk_client_event &event) const
{
    /* In the order of tesk_client_event_type. */
    static constexpr const char *names[] = {"lost", "restored", "subscription lost"};
    static constexpr const char *words[] = {
        "tesk-server went away; waiting until it comes back",
        "tesk-server is back; subscribing again",
        "could not subscribe again",
    };
    const bool subscription = event.type == TESK_CLIENT_EVENT_SUBSCRIPTION_LOST;
    const char *kind = event.kind == TESK_CLIENT_SFP_INFO ? "sfp" : "status";
    if (common_.json) {
        json_object described = {{"event", names[event.type]}};
        if (subscription) {
            described["port"] = event.port_no;
            described["kind"] = kind;
            described["text"] = escape(event.text);
        }
        object(described);
    } else if (subscription) {
        port_line(event.port_no, kind,
                  fmt::format("{}: {}", words[event.type], escape(event.text)));
    } else {
        line(fmt::format("{}  {}", clock_time(now_us()), words[event.type]));
    }
}

void reporter::failed(const tesk_client_answer &answer) const
{
    const std::string name = request_name(answer.request);
    const bool rejected = answer.result == TESK_CLIENT_REJECTED;
    if (common_.json)
        object({{"event", rejected ? "rejected" : "failed"},
                {"request", name},
                {"port", answer.port_no},
                {"code", rejected ? json_object(answer.error_code) : json_object(nullptr)},
                {"text", escape(answer.text)}});
    complain("teskctl", fmt::format("port {}: {}: {}", answer.port_no, name,
                                    explain(answer.result, answer.text)));
}

void reporter::error_object(exit_code code, const std::string &text) const
{
    if (common_.json && code != exit_code::no_output)
        object({{"event", "error"}, {"exit_code", static_cast<int>(code)}, {"text", text}});
}
