/* SPDX-License-Identifier: Apache-2.0 */
/* Only the end of the present state has an id: if the connection ends before, the reader has no id
   and gets the whole state again. */
#include "tesk_exporter/event_stream.h"

#include "program/clock.h"
#include "program/json_records.h"

#include <cstring>
#include <nlohmann/json.hpp>

namespace exporter
{

/* The delay before a browser reconnects; the default would be 3 seconds. */
static constexpr char preface[] = "retry: 2000\n\n";

static std::string data(const std::string &line)
{
    return "data: " + line + "\n\n";
}

event_stream::event_stream(const event_ring &events, const model &board, std::string_view last_id)
    : events_(events), model_(board), text_(preface)
{
    if (const auto next = events.after(last_id)) {
        next_ = *next;
        return;
    }
    begin_state();
    if (!last_id.empty())
        text_ += missed();
}

/* Events that occur while the state is being written follow after it. */
void event_stream::begin_state()
{
    next_ = events_.next();
    at_port_ = 0;
}

std::string event_stream::missed() const
{
    const json_object line = {
        {"time", iso_time(now_us())}, {"id", events_.id(next_ - 1)}, {"event", "missed"}};
    return data(line.dump());
}

std::string event_stream::event_text(const event &happened) const
{
    return "id: " + events_.id(happened.number) + "\n" + data(events_.line(happened.number));
}

/* The text of a state that was valid at that time. */
template <typename record_type>
std::string event_stream::state_text(uint64_t time_us, const record_type &record) const
{
    const event state{0, time_us, change::initial, record, ""};
    return data(to_json_line(state, events_.id(next_ - 1)));
}

std::string event_stream::next_of_state()
{
    const auto port = model_.ports().lower_bound(*at_port_);
    std::string text;
    const uint64_t known_us = model_.known_us({steady_clock::now(), now_us()});
    /* A loss is reported only if the server was connected since the start. */
    if (*at_port_ == 0 && !model_.is_connected() && known_us != 0)
        text = state_text(known_us, server_change{false});
    if (port == model_.ports().end()) {
        at_port_.reset();
        return text + "id: " + events_.id(next_ - 1) + "\n\n";
    }
    const port_state &state = port->second;
    at_port_ = state.number + 1;
    if (state.info)
        text += state_text(known_us, *state.info);
    if (state.status)
        text += state_text(known_us, *state.status);
    return text;
}

std::string event_stream::next_text()
{
    while (at_port_)
        if (std::string text = next_of_state(); !text.empty())
            return text;
    if (next_ < events_.first()) {
        begin_state();
        return missed();
    }
    if (next_ < events_.next())
        return event_text(events_.at(next_++));
    return std::exchange(needs_comment_, false) ? ":\n\n" : "";
}

size_t event_stream::read(char *buffer, size_t size)
{
    size_t used = 0;
    while (used < size) {
        if (written_ == text_.size()) {
            text_ = next_text();
            written_ = 0;
            if (text_.empty())
                break;
        }
        const size_t part = std::min(size - used, text_.size() - written_);
        std::memcpy(buffer + used, text_.data() + written_, part);
        used += part;
        written_ += part;
    }
    return used;
}

} // namespace exporter
