/* SPDX-License-Identifier: Apache-2.0 */
/* chronicle - the history of all ports: readings and events go in with their time, rows of steps,
   hours and days go to the store. No clock and no thread of its own; one thread at a time. No
   function throws but for exhausted memory.

   Rows that can't be stored, as with a full disk, stay in memory (two days of rows at most) and is
   written when it can be: a write that fails is tried again after a minute, then after twice as
   long each time, up to a quarter of an hour. */
#pragma once

#include "history/store.h"

#include <map>
#include <set>

namespace history
{

/* The module that is in a port. All texts are empty where its memory can't be read. */
struct occupant {
    uint32_t port;
    std::string interface, vendor, part, serial;
};

class chronicle
{
  public:
    struct settings {
        std::string folder;
        int64_t limit; /* of the file, in bytes */
        /* A sentence for the operator. Each failure is reported once, and its end. */
        std::function<void(const std::string &)> report;
        /* A step of five minutes has ended. */
        std::function<void(const place &, int64_t time, const record &)> on_step;
    };
    explicit chronicle(settings given) : given_(std::move(given))
    {
    }

    /* A reading: a record with its middle alone. */
    void take(const occupant &from, const record &measured, const clocks &now);
    /* A change. `port` may be no_port. */
    void note(int64_t port, const std::string &kind, const std::string &text, const clocks &now);
    /* A port is known to be empty. */
    void vacate(uint32_t port);
    /* To be called each minute or more often: opens the store, ends steps, writes what is due. */
    void advance(const clocks &now);
    /* Writes all complete steps; to be called before the end. */
    void close(const clocks &now);
    void announce(announcement told)
    {
        pending_.announcements.push_back(std::move(told));
    }

    /* Why there is no history; empty while there is one. The functions below need one. */
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
    /* The place of the module that is in a port now; 0: it is empty; nothing: not known yet. */
    std::optional<int64_t> occupant_of(uint32_t port) const;

    /* As the functions of the store, but with rows that aren't written yet. After a failure of the
       file they give nothing, and the file is set aside. */
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
    std::set<int64_t> touched_;         /* places to be written */
    std::map<int64_t, unsigned> noted_; /* events of a port in this batch */
    batch pending_;
    int64_t next_id_ = 1, step_ = 0;
    int64_t next_try_ = INT64_MIN, next_write_ = 0, next_checkpoint_ = 0;
    int64_t write_pause_ = 0; /* 0: the last write succeeded */
};

} // namespace history
