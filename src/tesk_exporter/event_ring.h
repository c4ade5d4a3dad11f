/* SPDX-License-Identifier: Apache-2.0 */
/* event_ring - the last changes, numbered, so that a reader that reconnects gets the events that it
   missed. Fixed memory. Main thread only. */
#pragma once

#include "program/json_records.h"
#include "tesk_client/tesk_client.h"
#include "tesk_exporter/facts.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace exporter
{

/* The kind of change that an event reports. */
enum class change {
    initial,  /* the state found after connecting, of unknown age */
    inserted, /* a module */
    removed,
    replaced,  /* another module, or the same one whose texts now read differently */
    not_ready, /* the module is present, but its memory can't be read */
    up,        /* a link */
    down,
    grades, /* grades or the environment; the link is as before */
};

/* The word for it in JSON objects, such as "replaced". Never null. */
const char *change_text(change kind);

/* The server disappeared, or is back. */
struct server_change {
    bool connected;
};

struct event {
    uint64_t number;
    uint64_t time_us; /* wall clock, since 1970 */
    change kind;      /* used for modules and links */
    std::variant<tesk_client_sfp_info, tesk_client_port_status, server_change, fall_fact> record;
    std::string interface; /* escaped; empty if not known */
};

/* The port of an event; nothing for an event of the server itself. */
std::optional<uint32_t> port_of(const event &happened);

/* The event as an object like those of teskctl --json, or as one line. The key "id" follows the
   time, unless `id` is empty; the key "change" is last, for events of modules and links. */
json_object to_json(const event &happened, const std::string &id = "");
std::string to_json_line(const event &happened, const std::string &id = "");

class event_ring
{
  public:
    /* The epoch distinguishes the ids of this process from those of earlier ones. */
    event_ring(size_t capacity, std::string epoch) : capacity_(capacity), epoch_(std::move(epoch))
    {
    }

    /* Numbers the event and stores it; a full ring drops its oldest event. */
    void add(event added);

    /* The number of the oldest stored event, and the number of the next event. They are equal in an
       empty ring. */
    uint64_t first() const
    {
        return next_ - events_.size();
    }
    uint64_t next() const
    {
        return next_;
    }
    /* `number` must be at least first() and below next(). */
    const event &at(uint64_t number) const
    {
        return events_[(number - 1) % capacity_];
    }

    /* "EPOCH-NUMBER", the id of an event. */
    std::string id(uint64_t number) const;
    /* The event's line with its id. */
    std::string line(uint64_t number) const
    {
        return to_json_line(at(number), id(number));
    }
    /* The number of the event after the one with this id, where a reader continues. Nothing if the
       id is malformed or of another epoch, or if later events are no longer stored. */
    std::optional<uint64_t> after(std::string_view id) const;

  private:
    const size_t capacity_;
    const std::string epoch_;
    std::vector<event> events_; /* event `number` is at (number - 1) % capacity_ */
    uint64_t next_ = 1;         /* so that 0 stands for "before the first" */
};

} // namespace exporter
