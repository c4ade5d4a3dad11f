/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: advance() opens the store if there is none, ends a step that is over, and writes;
   take() and note() add to the step and to the next batch. */
#include "history/chronicle.h"

#include <algorithm>
#include <fmt/format.h>
#include <utility>

namespace history
{

static constexpr int64_t write_pause = 60; /* at most one fsync a minute, to spare flash memory */
/* A large batch that fails costs more; while a disk stays full, retries must cost nearly
   nothing. */
static constexpr int64_t longest_write_pause = 900;
static constexpr int64_t try_pause = 60;
static constexpr int64_t checkpoint_pause = 3600;
static constexpr unsigned most_events_at_once = 32; /* events of a port in one batch */
/* While the disk is full, at most this part of the limit may be pending. A larger batch might not
   fit into the file. */
static constexpr int64_t pending_part = 8;
static constexpr size_t most_pending_events = 20'000;

static std::array<std::string, 4> key_of(uint32_t port, const std::string &vendor,
                                         const std::string &part, const std::string &serial)
{
    return {std::to_string(port), vendor, part, serial};
}

std::optional<int64_t> chronicle::occupant_of(uint32_t port) const
{
    const auto found = occupants_.find(port);
    return found == occupants_.end() ? std::nullopt : std::optional(found->second);
}

void chronicle::open(const clocks &now)
{
    next_try_ = now.boot + try_pause;
    std::vector<std::string> notes;
    try {
        store_ = std::make_unique<store>(given_.folder, given_.limit, fault_, notes);
        fault_.clear();
        for (place &each : store_->places()) {
            ids_[key_of(each.port, each.vendor, each.part, each.serial)] = each.id;
            next_id_ = std::max(next_id_, each.id + 1);
            places_[each.id] = std::move(each);
        }
        const auto shifts = store_->shifts();
        time_.emplace(shifts, store_->end(), now);
        step_ = time_->start() / level_seconds[step_rows];
        if (shifts.size() != time_->shifts().size())
            pending_.shifts = time_->shifts();
        restore();
        trouble_.clear();
        if (const auto by = time_->shift_at_start())
            note(no_port, "clock", fmt::format("the clock differs by {} s from before", *by), now);
    } catch (const database_error &error) {
        failed(error);
        drop();
        trouble_ = error.what();
    } catch (const store_error &error) {
        drop();
        trouble_ = error.what();
    }
    for (const std::string &note : notes)
        given_.report(note);
    if (trouble_.empty()) {
        if (!reported_.empty())
            given_.report("the history is kept again");
        reported_.clear();
    } else if (reported_.insert(trouble_).second) {
        given_.report(trouble_ + "; no history is kept until then");
    }
}

/* Restores the current hour and day from rows of shorter times, if their own rows aren't written
   yet. */
void chronicle::restore()
{
    const int64_t last = store_->end() - 1, hour = last / level_seconds[hour_rows],
                  day = last / level_seconds[day_rows];
    constexpr int64_t a_day = 24, an_hour = 12;
    const auto ended = [this](level of, int64_t number) {
        std::set<int64_t> found;
        store_->read_all(of, number, number,
                         [&](int64_t, int64_t id, const record &) { found.insert(id); });
        return found;
    };
    const auto ended_hours = ended(hour_rows, hour), ended_days = ended(day_rows, day);
    store_->read_all(step_rows, hour * an_hour, (hour + 1) * an_hour - 1,
                     [&](int64_t, int64_t id, const record &found) {
                         if (ended_hours.contains(id))
                             return;
                         live_[id].hour.add(found);
                         live_[id].hour_number = hour;
                     });
    store_->read_all(hour_rows, day * a_day, (day + 1) * a_day - 1,
                     [&](int64_t, int64_t id, const record &found) {
                         if (ended_days.contains(id))
                             return;
                         live_[id].day.add(found);
                         live_[id].day_number = day;
                     });
}

/* A module whose serial number reads differently each time must not fill the memory. */
void chronicle::forget_oldest()
{
    if (places_.size() < most_places)
        return;
    const auto oldest =
        std::ranges::min_element(places_, {}, [](const auto &each) { return each.second.last; });
    const place &left = oldest->second;
    ids_.erase(key_of(left.port, left.vendor, left.part, left.serial));
    touched_.erase(left.id);
    live_.erase(left.id);
    places_.erase(oldest);
}

int64_t chronicle::place_of(const occupant &from, int64_t time)
{
    const auto [entry, is_new] =
        ids_.try_emplace(key_of(from.port, from.vendor, from.part, from.serial), next_id_);
    const int64_t id = entry->second;
    if (is_new) {
        next_id_++;
        forget_oldest();
        places_[id] = {id,        from.port,   from.interface, from.vendor,
                       from.part, from.serial, time,           time};
    }
    place &found = places_[id];
    if (is_new || found.interface != from.interface) {
        found.interface = from.interface;
        touched_.insert(id);
    }
    found.last = time;
    return id;
}

void chronicle::take(const occupant &from, const record &measured, const clocks &now)
{
    if (!store_)
        return;
    const int64_t id = place_of(from, time_->at(now.boot));
    occupants_[from.port] = id;
    live_[id].step.add(measured);
}

void chronicle::note(int64_t port, const std::string &kind, const std::string &text,
                     const clocks &now)
{
    if (!store_)
        return;
    const auto found = occupants_.find(static_cast<uint32_t>(port));
    const int64_t id = port == no_port || found == occupants_.end() ? 0 : found->second;
    /* A flapping port must fill neither the file nor the memory. */
    if (noted_[port]++ < most_events_at_once && pending_.events.size() < most_pending_events)
        pending_.events.push_back({time_->at(now.boot), port, id, kind, text});
}

void chronicle::vacate(uint32_t port)
{
    const int64_t left = std::exchange(occupants_[port], 0);
    if (left != 0)
        touched_.insert(left);
}

/* Adds the rows of an hour and a day that end before `next_time`. */
void chronicle::roll(int64_t id, live &of, int64_t next_time)
{
    const int64_t hour = next_time / level_seconds[hour_rows],
                  day = next_time / level_seconds[day_rows];
    if (!of.hour.is_empty() && of.hour_number != hour) {
        const record ended = of.hour.finish();
        pending_.rows[hour_rows].push_back({of.hour_number, id, encode(ended, true)});
        const int64_t its_day = of.hour_number * level_seconds[hour_rows] / level_seconds[day_rows];
        if (!of.day.is_empty() && of.day_number != its_day)
            pending_.rows[day_rows].push_back({of.day_number, id, encode(of.day.finish(), true)});
        of.day.add(ended);
        of.day_number = its_day;
        touched_.insert(id);
    }
    if (!of.day.is_empty() && of.day_number != day)
        pending_.rows[day_rows].push_back({of.day_number, id, encode(of.day.finish(), true)});
}

void chronicle::end_step(int64_t next_step)
{
    const int64_t time = step_ * level_seconds[step_rows],
                  next = next_step * level_seconds[step_rows];
    for (auto each = live_.begin(); each != live_.end();) {
        auto &[id, of] = *each;
        if (!of.step.is_empty()) {
            roll(id, of, time);
            const record ended = of.step.finish();
            pending_.rows[step_rows].push_back({step_, id, encode(ended, false)});
            of.hour.add(ended);
            of.hour_number = time / level_seconds[hour_rows];
            if (given_.on_step)
                given_.on_step(places_[id], time, ended);
        }
        roll(id, of, next);
        const bool is_over = of.hour.is_empty() && of.day.is_empty();
        each = is_over ? live_.erase(each) : std::next(each);
    }
    step_ = next_step;
}

void chronicle::advance(const clocks &now)
{
    if (!store_ && now.boot >= next_try_)
        open(now);
    if (!store_)
        return;
    if (const auto by = time_->follow(now)) {
        pending_.shifts = time_->shifts();
        note(no_port, "clock", fmt::format("the clock was set by {} s", *by), now);
    }
    const int64_t step = time_->at(now.boot) / level_seconds[step_rows];
    if (step > step_)
        end_step(step);
    if (now.boot >= next_write_)
        write(now);
}

void chronicle::close(const clocks &now)
{
    if (!store_)
        return;
    for (const auto &[port, id] : occupants_)
        if (id != 0)
            touched_.insert(id);
    write(now);
    store_.reset();
    trouble_ = "it is closed";
}

void chronicle::write(const clocks &now)
{
    for (const auto &[port, count] : noted_)
        if (count > most_events_at_once)
            pending_.events.push_back(
                {time_->at(now.boot), port, 0, "more",
                 fmt::format("{} more changes within a minute", count - most_events_at_once)});
    noted_.clear();
    for (const int64_t id : touched_)
        pending_.places.push_back(places_[id]);
    if (pending_.is_empty())
        return;
    next_write_ = now.boot + write_pause;
    try {
        store_->write(pending_, time_->at(now.boot));
        write_pause_ = 0;
        pending_ = {};
        touched_.clear();
        if (!write_trouble_.empty())
            given_.report("the history can be written again");
        write_trouble_.clear();
        if (now.boot >= next_checkpoint_) {
            next_checkpoint_ = now.boot + checkpoint_pause;
            store_->checkpoint();
        }
    } catch (const database_error &error) {
        write_pause_ = std::clamp(2 * write_pause_, write_pause, longest_write_pause);
        next_write_ = now.boot + write_pause_;
        failed(error);
    }
}

/* Returns to the state before open(), except that known empty ports stay known. */
void chronicle::drop()
{
    store_.reset();
    time_.reset();
    places_.clear();
    ids_.clear();
    std::erase_if(occupants_, [](const auto &each) { return each.second != 0; });
    live_.clear();
    touched_.clear();
    pending_ = {};
}

static bool is_damaged(const database_error &error)
{
    return error.code() == SQLITE_CORRUPT || error.code() == SQLITE_NOTADB;
}

/* A damaged file is replaced by a new one; any other failure may be temporary. */
void chronicle::failed(const database_error &error)
{
    if (is_damaged(error)) {
        fault_ = error.what();
        trouble_ = fault_;
        drop();
        next_try_ = INT64_MIN;
        return;
    }
    pending_.places.clear(); /* the places stay in touched_ */
    if (store_ && write_trouble_.empty())
        given_.report(fmt::format("the history can't be written: {}; it goes on in memory, and is "
                                  "written when that is possible",
                                  error.what()));
    write_trouble_ = error.what();
    bound_pending();
}

/* Drops the older half of the pending places. */
void chronicle::bound_pending()
{
    const auto most =
        static_cast<size_t>(std::max(given_.limit, store::least_limit) / pending_part);
    const auto halve = [](auto &list) {
        list.erase(list.begin(), list.begin() + static_cast<ptrdiff_t>((list.size() + 1) / 2));
    };
    while (pending_.size() > most) {
        for (auto &rows : pending_.rows)
            halve(rows);
        halve(pending_.events);
    }
}

/* Reads can find a damaged file, too. */
template <typename read_type>
void chronicle::guarded(read_type read)
{
    if (!store_)
        return;
    try {
        read();
    } catch (const database_error &error) {
        if (is_damaged(error))
            failed(error);
        else if (reported_.insert(error.what()).second)
            given_.report(fmt::format("the history can't be read: {}", error.what()));
    }
}

void chronicle::read(level of, int64_t id, int64_t first, int64_t last,
                     const std::function<void(int64_t number, const record &)> &take)
{
    guarded([&] { store_->read(of, id, first, last, take); });
    for (const batch::kept_row &each : pending_.rows[of])
        if (each.place == id && each.number >= first && each.number <= last)
            if (const auto found = decode(each.blob))
                take(each.number, *found);
}

void chronicle::read_all(
    level of, int64_t first, int64_t last,
    const std::function<void(int64_t number, int64_t place, const record &)> &take)
{
    guarded([&] { store_->read_all(of, first, last, take); });
}

std::vector<event> chronicle::events(std::optional<int64_t> port, int64_t first, size_t most)
{
    std::vector<event> found;
    guarded([&] { found = store_->events(port, first, most); });
    for (const event &each : pending_.events)
        if (each.time >= first && (!port || each.port == no_port || each.port == *port))
            found.push_back(each);
    return found;
}

std::vector<announcement> chronicle::announcements()
{
    std::vector<announcement> found;
    guarded([&] { found = store_->announcements(); });
    return found;
}

} // namespace history
