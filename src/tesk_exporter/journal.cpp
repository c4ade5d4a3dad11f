/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: write() queues a record, within a bound; the thread makes its fields and sends
   them. */
#define SD_JOURNAL_SUPPRESS_LOCATION /* it would always be that of this file */
#include "tesk_exporter/journal.h"

#include "program/json_records.h"
#include "program/words.h"
#include "tesk_exporter/falls.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <sys/uio.h>
#include <systemd/sd-journal.h>

namespace exporter
{

static std::string upper(std::string text)
{
    for (char &letter : text)
        letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    return text;
}

static std::string value_text(const json_object &value)
{
    if (!value.is_array())
        return value.is_string() ? value.get<std::string>() : value.dump();
    std::string sentences;
    for (const json_object &each : value)
        sentences += (sentences.empty() ? "" : " ") + value_text(each);
    return sentences;
}

static void add_field(std::vector<std::string> &fields, const std::string &name,
                      const json_object &value)
{
    if (!value.is_null() && value != json_object::array())
        fields.push_back("TESK_" + name + "=" + value_text(value));
}

static std::string message(const event &happened)
{
    const auto port = port_of(happened);
    if (!port)
        return std::get<server_change>(happened.record).connected ? "tesk-server is back"
                                                                  : "tesk-server went away";
    const std::string name =
        happened.interface.empty() ? "" : fmt::format(" ({})", happened.interface);
    if (const auto *fall = std::get_if<fall_fact>(&happened.record))
        return fmt::format("port {}{}: {}", *port, name, describe(**fall));
    const auto *info = std::get_if<tesk_client_sfp_info>(&happened.record);
    return fmt::format(
        "port {}{}: {} {}: {}", *port, name, info ? "module" : "link", change_text(happened.kind),
        info ? describe(*info) : describe(std::get<tesk_client_port_status>(happened.record)));
}

static bool has_alarm(const event &happened)
{
    const auto *status = std::get_if<tesk_client_port_status>(&happened.record);
    return status != nullptr && std::ranges::any_of(status->level, [](uint32_t level) {
               return level == TESK_CLIENT_LEVEL_LOW_ALARM || level == TESK_CLIENT_LEVEL_HIGH_ALARM;
           });
}

/* Journal priorities: 4 is a warning, 6 is information. */
static int priority(const event &happened)
{
    const auto *server = std::get_if<server_change>(&happened.record);
    if (const auto *fall = std::get_if<fall_fact>(&happened.record))
        return (*fall)->its.ill.empty() ? 6 : 4; /* the fall itself was recorded before */
    const bool is_bad = (server != nullptr && !server->connected) ||
                        happened.kind == change::down || happened.kind == change::removed ||
                        has_alarm(happened);
    return is_bad ? 4 : 6;
}

std::vector<std::string> journal_fields(const event &happened)
{
    std::vector<std::string> fields = {"MESSAGE=" + message(happened),
                                       fmt::format("PRIORITY={}", priority(happened)),
                                       "SYSLOG_IDENTIFIER=tesk-exporter"};
    if (!happened.interface.empty())
        fields.push_back("TESK_INTERFACE=" + happened.interface);
    const auto object = to_json(happened);
    for (const auto &[key, value] : object.items()) {
        if (key == "levels")
            for (const auto &[measurement, grade] : value.items())
                add_field(fields, "GRADE_" + upper(measurement), grade);
        else
            add_field(fields, key == "link" ? "STATE" : upper(key), value);
    }
    return fields;
}

journal::journal()
{
    thread_.start([this] { run(); });
}

journal::~journal()
{
    thread_.stop();
}

void journal::write(const event &happened)
{
    const std::lock_guard lock(mutex_);
    if (waiting_.size() >= capacity) {
        lost_++;
        return;
    }
    waiting_.push_back(happened);
    wake_.signal();
}

/* Writes the oldest record; false if there is none. */
bool journal::write_next()
{
    event next;
    {
        const std::lock_guard lock(mutex_);
        if (waiting_.empty())
            return false;
        next = std::move(waiting_.front());
        waiting_.pop_front();
    }
    const std::vector<std::string> fields = journal_fields(next);
    std::vector<iovec> parts;
    parts.reserve(fields.size());
    for (const std::string &field : fields)
        parts.push_back({const_cast<char *>(field.data()), field.size()});
    if (sd_journal_sendv(parts.data(), static_cast<int>(parts.size())) < 0)
        lost_++;
    return true;
}

void journal::run()
{
    while (!thread_.must_stop()) {
        thread_.wait(wake_.fd(), std::chrono::hours(1));
        wake_.take();
        while (!thread_.must_stop() && write_next()) {
        }
    }
}

} // namespace exporter
