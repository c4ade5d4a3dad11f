/* SPDX-License-Identifier: Apache-2.0 */
/* store - the history's file: places, rows of three levels, events, and shifts of the clock, in
   SQLite. One thread at a time. All times are those of the timeline, in seconds.

   DIR/history.db is written in WAL mode with synchronous=FULL, since otherwise a power cut loses
   the commits after the last checkpoint; a commit costs one fsync, a checkpoint two. The connection
   locks the file exclusively: so no reader can delay the log's reset, and no shared memory file is
   needed. DIR/lock is locked as long as a store is open.

   A row's key is the number of its step, hour or day in the high bits and the place in the low
   ones. So each write appends at the end of a table, a few pages for all ports, and one row is
   found by its key alone. */
#pragma once

#include "history/database.h"
#include "history/row.h"
#include "history/timeline.h"
#include "util/descriptor.h"

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace history
{

/* A failure of the store, with a text for people. */
class store_error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/* One module in one port, however often it was inserted. All modules without a serial number in a
   port count as one. */
struct place {
    int64_t id; /* 1 to 2^24-1, never used twice */
    uint32_t port;
    std::string interface, vendor, part, serial;
    int64_t first, last; /* times at which the module was seen; `last` is written once an hour and
                            at the end */
};

/* A module whose serial number reads differently each time has many places. If a place is dropped,
   its rows stay until they are too old. */
inline constexpr size_t most_places = 16'384;
inline constexpr int64_t no_port = -1;

struct event {
    int64_t time;
    int64_t port;  /* or no_port: an event of the box */
    int64_t place; /* 0: none */
    std::string kind, text;
};

/* Data of the forecast that survives a restart: an announced forecast, or the limits of a module.
   Kept as long as its place. */
struct announcement {
    int64_t place;
    std::string key;  /* lane and quantity, or "limits" */
    std::string text; /* empty: the forecast was withdrawn */
};

enum level : size_t { step_rows, hour_rows, day_rows };
inline constexpr size_t levels = 3;
inline constexpr std::array<int64_t, levels> level_seconds = {300, 3600, 86400};
/* The longest age of rows: two days, eight weeks, two years. */
inline constexpr std::array<int64_t, levels> level_length = {576, 1344, 731};

struct batch {
    struct kept_row {
        int64_t number; /* number of the step, hour or day: time divided by its length */
        int64_t place;
        std::string blob;
    };
    std::vector<place> places; /* new places, or places seen again */
    std::array<std::vector<kept_row>, levels> rows;
    std::vector<event> events;
    std::vector<shift> shifts; /* all shifts, or none if they haven't changed */
    std::vector<announcement> announcements;

    bool is_empty() const;
    size_t size() const; /* its approximate size in the file, in bytes */
};

class store
{
  public:
    static constexpr int64_t least_limit = int64_t{16} << 20;

    /* Opens DIR/history.db, or makes it. A file that is damaged, of another program, or can't be
       written, is renamed to history.db.TIME, and replaces an earlier renamed file; `notes` gets a
       sentence. If `fault` isn't empty, the file is renamed in any case, for this reason. Throws
       store_error with what to do: locked by another exporter, of a newer version, no folder. */
    store(const std::string &folder, int64_t limit, const std::string &fault,
          std::vector<std::string> &notes);

    /* Writes the batch in one transaction, and drops rows that are too old or beyond the limit;
       `present` is the time of the history. Throws database_error; nothing is written then. */
    void write(const batch &added, int64_t present);
    /* Moves committed transactions from the log into the file, so that the log can start again. */
    void checkpoint();

    std::vector<place> places();
    std::vector<shift> shifts();
    std::vector<announcement> announcements();
    /* The end of the last step or event in the file, in seconds; 0 if it is empty. */
    int64_t end();
    /* The rows of a place from number `first` up to `last`, in ascending order. */
    void read(level of, int64_t place, int64_t first, int64_t last,
              const std::function<void(int64_t number, const record &)> &take);
    /* The rows of all places from number `first` up to `last`, ordered by number. */
    void read_all(level of, int64_t first, int64_t last,
                  const std::function<void(int64_t number, int64_t place, const record &)> &take);
    /* The newest `most` events since `first`, oldest first: of a port, or of all ports. Events of
       the box belong to each port. */
    std::vector<event> events(std::optional<int64_t> port, int64_t first, size_t most);

  private:
    struct statements;

    void open(const std::string &path);
    void prune(int64_t present);
    void make_room(const batch &added, int64_t present);
    void insert(const batch &added);

    int64_t most_pages_;
    util::descriptor lock_;
    std::unique_ptr<database> database_;
    std::shared_ptr<statements> prepared_;
};

} // namespace history
