/* SPDX-License-Identifier: Apache-2.0 */
/* event_ring - the last changes, numbered, so that a reader that reconnects gets those it missed.
   Fixed memory. Main thread only. */
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
    replaced,  /* another module, or the same one read again with other texts */
    not_ready, /* a module is there, and its memory can't be read */
    up,        /* a link */
    down,
    grades, /* grades or the environment; the link is as before */
};

/* The word of the objects for it, such as "replaced". Never null. */
const char *change_text(change kind);

/* The server went away, or is back. */
struct server_change {
    bool connected;
};

struct event {
    uint64_t number;
    uint64_t time_us; /* wall clock, since 1970 */
    change kind;      /* for the first two records */
    std::variant<tesk_client_sfp_info, tesk_client_port_status, server_change, fall_fact> record;
    std::string interface; /* escaped; empty where it isn't known */
};

/* The port of an event; nothing for an event of the server. */
std::optional<uint32_t> port_of(const event &happened);

/* An object as teskctl --json writes it, or its line, with the key "id" behind the time, unless it
   is empty, and the key "change" at its end where it is of a module or a link. */
json_object to_json(const event &happened, const std::string &id = "");
std::string to_json_line(const event &happened, const std::string &id = "");

class event_ring
{
  public:
    /* The epoch distinguishes the numbers of this process from those of another. */
    event_ring(size_t capacity, std::string epoch) : capacity_(capacity), epoch_(std::move(epoch))
    {
    }

    /* Numbers the event and keeps it; a full ring drops its oldest one. */
    void add(event added);

    /* The oldest number that is kept, and the number of the next event to come. They are equal in
       an empty ring. */
    uint64_t first() const
    {
        return next_ - events_.size();
    }
    uint64_t next() const
    {
        return next_;
    }
    /* `number` is from first() on and before next(). */
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
    /* The number after the event that an id names, at which a reader continues. Nothing where the
       id is of another epoch, is malformed, or its successors are not kept any more. */
    std::optional<uint64_t> after(std::string_view id) const;

  private:
    const size_t capacity_;
    const std::string epoch_;
    std::vector<event> events_; /* at (number - 1) % capacity_ */
    uint64_t next_ = 1;         /* so that 0 stands for "before the first" */
};

} // namespace exporter
