/* SPDX-License-Identifier: Apache-2.0 */
/* chronicle - the history of all ports: takes readings and events with their time, and stores rows
   of steps, hours and days. No clock and no thread of its own; one thread at a time. Functions
   throw only if memory is exhausted.

   Rows that can't be stored, for example on a full disk, stay in memory (two days of rows at most)
   until they are written: a failed write is tried again after a minute, then each time after twice
   as long, up to a quarter of an hour. */
#pragma once

#include "history/store.h"

#include <map>
#include <set>

namespace history
{

/* The module in a port. All texts are empty if its memory can't be read. */
struct occupant {
    uint32_t port;
    std::string interface, vendor, part, serial;
};

class chronicle
{
  public:
    struct settings {
        std::string folder;
        int64_t limit; /* limit of the file, in bytes */
        /* Receives a sentence for the operator, once when a failure begins and once when it
           ends. */
        std::function<void(const std::string &)> report;
        /* Called when a step of five minutes has ended. */
        std::function<void(const place &, int64_t time, const record &)> on_step;
    };
    explicit chronicle(settings given) : given_(std::move(given))
    {
    }

    /* Adds a reading: a record of which only the middle is set. */
    void take(const occupant &from, const record &measured, const clocks &now);
    /* Adds a change. `port` may be no_port. */
    void note(int64_t port, const std::string &kind, const std::string &text, const clocks &now);
    /* Reports that a port is empty. */
    void vacate(uint32_t port);
    /* To be called each minute or more often: opens the store, ends steps, and writes what is
       due. */
    void advance(const clocks &now);
    /* Writes all complete steps; to be called before the end. */
    void close(const clocks &now);
    void announce(announcement told)
    {
        pending_.announcements.push_back(std::move(told));
    }

    /* Why there is no history; empty while there is one. The functions below need a history. */
    const std::string &trouble() const
    {
        return trouble_;
    }
    /* The reason why the history can't be written at present; empty while it can. */
    const std::string &write_trouble() const
    {
        return write_trouble_;
    }
    const timeline &time() const
    {
        return *time_;
    }
    const std::map<int64_t, place> &places() const
    {
        return places_;
    }
    /* The place of the module that is in a port now; 0: the port is empty; nothing: not known
       yet. */
    std::optional<int64_t> occupant_of(uint32_t port) const;

    /* Like the functions of the store, with the rows that aren't written yet. If reading the file
       fails, they return nothing and the file is set aside. */
    void read(level of, int64_t place, int64_t first, int64_t last,
              const std::function<void(int64_t number, const record &)> &take);
    void read_all(level of, int64_t first, int64_t last,
                  const std::function<void(int64_t number, int64_t place, const record &)> &take);
    std::vector<event> events(std::optional<int64_t> port, int64_t first, size_t most);
    std::vector<announcement> announcements();

  private:
    struct live {
        accumulator step, hour, day;
        int64_t hour_number = 0, day_number = 0;
    };

    void open(const clocks &now);
    void restore();
    int64_t place_of(const occupant &from, int64_t time);
    void forget_oldest();
    void end_step(int64_t next_step);
    void roll(int64_t id, live &of, int64_t next_time);
    void write(const clocks &now);
    void drop();
    void failed(const database_error &error);
    void bound_pending();
    template <typename read_type>
    void guarded(read_type read);

    settings given_;
    std::unique_ptr<store> store_;
    std::optional<timeline> time_;
    std::string trouble_ = "it isn't open yet", write_trouble_, fault_;
    std::set<std::string> reported_;
    std::map<int64_t, place> places_;
    std::map<std::array<std::string, 4>, int64_t> ids_; /* by port, vendor, part, serial */
    std::map<uint32_t, int64_t> occupants_;
    std::map<int64_t, live> live_;
    std::set<int64_t> touched_;         /* places still to be written */
    std::map<int64_t, unsigned> noted_; /* number of events of each port in this batch */
    batch pending_;
    int64_t next_id_ = 1, step_ = 0;
    int64_t next_try_ = INT64_MIN, next_write_ = 0, next_checkpoint_ = 0;
    int64_t write_pause_ = 0; /* 0: the last write succeeded */
};

} // namespace history
