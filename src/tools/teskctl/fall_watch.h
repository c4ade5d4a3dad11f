/* SPDX-License-Identifier: Apache-2.0 */
/* fall_watch - the falls that the board records while a command follows ports. A port's file is
   read only after an indication: at the first one, and 2.2, 3.5 and 10.5 s after each later one,
   since the board writes a fall 2 s after it has happened, and again when the link is up. A record
   that can't be read is left out until the next of these looks. One thread. */
#pragma once

#include "causes/facts.h"
#include "causes/verdict.h"
#include "tools/teskctl/event_loop.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

struct watched_fall {
    uint32_t port_no;
    bool is_news; /* false: the fall was recorded before the port's first indication */
    causes::facts seen;
    causes::verdict its;
};

class fall_watch
{
  public:
    using shown = std::function<void(const watched_fall &)>;

    /* `folder` is falls_folder(); if empty, nothing is followed. `show` is called with the last
       fall of a port at its first indication, with each later fall, and again for a fall whose
       verdict has changed. */
    fall_watch(std::string folder, shown show) : folder_(std::move(folder)), show_(std::move(show))
    {
    }

    /* To be called for each indication of the port's status. */
    void take(uint32_t port_no);
    /* When work() has something to do; nothing: not before the next indication. */
    std::optional<steady_time> next() const;
    void work();

  private:
    struct watched_port {
        bool is_known = false;               /* the falls before the watch are known */
        std::string last;                    /* text of the fall that was last shown */
        steady_time since = {};              /* time of the last indication */
        std::optional<steady_time> due = {}; /* time of the next look */
    };
    void look(uint32_t port_no, watched_port &its);

    std::string folder_;
    shown show_;
    std::map<uint32_t, watched_port> ports_;
};

/* "eth3 at 14:02:11.123: light lost, likely: The received light is gone ..", and in which way the
   link is ill now. */
std::string text_of(const watched_fall &fall);
/* Without evidence: "fell 14:02:11: light lost, likely". On another day with the date instead of
   the time. */
std::string short_text_of(const watched_fall &fall);
