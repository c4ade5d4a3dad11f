/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the constructor locks the folder, opens the file and sets an unusable one aside;
   write() appends and prunes in one transaction; the other functions read. */
#include "history/store.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>

namespace history
{

static constexpr int64_t version = 1;
static constexpr int64_t application = 0x7465736b; /* "tesk" */
static constexpr int64_t page_size = 4096;
static constexpr int place_bits = 24;
/* The log contains an hour of batches; the limit applies to both files together. */
static constexpr int64_t log_size = int64_t{4} << 20;
/* The events of a port that flaps for two years; 16 MiB. */
static constexpr int64_t most_events = 100'000;
static constexpr char schema[] = R"(
    BEGIN IMMEDIATE;
    CREATE TABLE places(id INTEGER PRIMARY KEY AUTOINCREMENT, port INTEGER NOT NULL,
        interface TEXT NOT NULL, vendor TEXT NOT NULL, part TEXT NOT NULL, serial TEXT NOT NULL,
        first INTEGER NOT NULL, last INTEGER NOT NULL);
    CREATE TABLE steps(key INTEGER PRIMARY KEY, data BLOB NOT NULL);
    CREATE TABLE hours(key INTEGER PRIMARY KEY, data BLOB NOT NULL);
    CREATE TABLE days(key INTEGER PRIMARY KEY, data BLOB NOT NULL);
    CREATE TABLE events(id INTEGER PRIMARY KEY AUTOINCREMENT, time INTEGER NOT NULL,
        port INTEGER NOT NULL, place INTEGER NOT NULL, kind TEXT NOT NULL, text TEXT NOT NULL);
    CREATE INDEX events_of_port ON events(port, time);
    CREATE TABLE clock(first INTEGER PRIMARY KEY, shift INTEGER NOT NULL);
    CREATE TABLE announcements(place INTEGER NOT NULL, key TEXT NOT NULL, text TEXT NOT NULL,
        PRIMARY KEY(place, key)) WITHOUT ROWID;
    PRAGMA application_id = 1952805739;
    PRAGMA user_version = 1;
    COMMIT;
)";

/* In the order of enum level. */
static constexpr const char *insert_row[] = {"INSERT OR IGNORE INTO steps VALUES(?, ?)",
                                             "INSERT OR IGNORE INTO hours VALUES(?, ?)",
                                             "INSERT OR IGNORE INTO days VALUES(?, ?)"};
static constexpr const char *drop_rows[] = {"DELETE FROM steps WHERE key < ?",
                                            "DELETE FROM hours WHERE key < ?",
                                            "DELETE FROM days WHERE key < ?"};
static constexpr const char *read_row[] = {"SELECT data FROM steps WHERE key = ?",
                                           "SELECT data FROM hours WHERE key = ?",
                                           "SELECT data FROM days WHERE key = ?"};
static constexpr const char *read_rows[] = {
    "SELECT key, data FROM steps WHERE key >= ? AND key < ?",
    "SELECT key, data FROM hours WHERE key >= ? AND key < ?",
    "SELECT key, data FROM days WHERE key >= ? AND key < ?"};
static constexpr const char *first_key[] = {
    "SELECT min(key) FROM steps", "SELECT min(key) FROM hours", "SELECT min(key) FROM days"};
static constexpr const char *last_key[] = {
    "SELECT max(key) FROM steps", "SELECT max(key) FROM hours", "SELECT max(key) FROM days"};

struct store::statements {
    explicit statements(database &of)
        : rows{statement(of, insert_row[0]), statement(of, insert_row[1]),
               statement(of, insert_row[2])},
          reads{statement(of, read_row[0]), statement(of, read_row[1]), statement(of, read_row[2])},
          place(of, "INSERT INTO places VALUES(?, ?, ?, ?, ?, ?, ?, ?) "
                    "ON CONFLICT(id) DO UPDATE SET interface = excluded.interface, "
                    "last = excluded.last"),
          event(of, "INSERT INTO events(time, port, place, kind, text) VALUES(?, ?, ?, ?, ?)"),
          shift(of, "INSERT INTO clock VALUES(?, ?)"),
          announce(of, "INSERT OR REPLACE INTO announcements VALUES(?, ?, ?)"),
          withdraw(of, "DELETE FROM announcements WHERE place = ? AND key = ?")
    {
    }
    std::array<statement, levels> rows, reads;
    statement place, event, shift, announce, withdraw;
};

static int64_t key_of(int64_t number, int64_t place)
{
    return number << place_bits | place;
}

bool batch::is_empty() const
{
    return places.empty() && events.empty() && shifts.empty() && announcements.empty() &&
           std::ranges::all_of(rows, [](const auto &each) { return each.empty(); });
}

/* The size of the batch in the file, with the bytes that SQLite adds. */
size_t batch::size() const
{
    constexpr size_t of_row = 16;
    size_t bytes = 0;
    for (const auto &level : rows)
        for (const kept_row &each : level)
            bytes += each.blob.size() + of_row;
    for (const event &each : events)
        bytes += each.kind.size() + each.text.size() + 4 * of_row;
    return bytes + places.size() * 16 * of_row + announcements.size() * 32 * of_row;
}

static util::descriptor lock_folder(const std::string &folder)
{
    if (mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST)
        throw store_error(
            fmt::format("{} can't be made: {}; make it, for the exporter's user alone", folder,
                        std::strerror(errno)));
    const std::string path = folder + "/lock";
    util::descriptor lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock.is_open())
        throw store_error(
            fmt::format("{} can't be opened: {}; the folder must be the exporter's user's", path,
                        std::strerror(errno)));
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        throw store_error(
            fmt::format("another exporter uses {}; give each a folder of its own", folder));
    return lock;
}

/* Renames the file and its log. The file that was set aside before is replaced, since two of them
   would exceed the limit. */
static void set_aside(const std::string &path, const std::string &reason,
                      std::vector<std::string> &notes)
{
    namespace fs = std::filesystem;
    std::error_code error;
    if (fs::file_size(path, error) == 0) { /* an empty file must not replace one with content */
        fs::remove(path, error);
        return;
    }
    for (const auto &entry : fs::directory_iterator(fs::path(path).parent_path(), error))
        if (entry.path().string().starts_with(path + ".2"))
            fs::remove(entry.path(), error);
    std::array<char, 32> when{};
    const time_t now = time(nullptr);
    std::tm parts{};
    std::strftime(when.data(), when.size(), "%Y%m%dT%H%M%SZ", gmtime_r(&now, &parts));
    const std::string kept = path + "." + when.data();
    fs::rename(path, kept, error);
    if (error)
        throw store_error(fmt::format("{} can't be used ({}), and can't be set aside: {}", path,
                                      reason, error.message()));
    fs::rename(path + "-wal", kept + "-wal", error);
    notes.push_back(fmt::format("{} can't be used: {}; it is now {}, and a new history begins",
                                path, reason, kept));
}

/* SQLite accepts no path that contains a symbolic link, such as the state directory of a unit with
   DynamicUser. */
static std::string path_in(const std::string &folder)
{
    const std::unique_ptr<char, void (*)(void *)> resolved(realpath(folder.c_str(), nullptr), free);
    if (!resolved)
        throw store_error(fmt::format("{} can't be found: {}", folder, std::strerror(errno)));
    return std::string(resolved.get()) + "/history.db";
}

/* After a temporary failure, such as a lack of descriptors, the file is kept and tried again. */
static bool is_for_a_new_file(const database_error &error)
{
    switch (error.code()) {
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
    case SQLITE_READONLY:
    case SQLITE_ERROR: /* a table is missing */
    case SQLITE_CONSTRAINT:
        return true;
    default:
        return false;
    }
}

store::store(const std::string &folder, int64_t limit, const std::string &fault,
             std::vector<std::string> &notes)
    : most_pages_((std::max(limit, least_limit) - log_size) / page_size), lock_(lock_folder(folder))
{
    const std::string path = path_in(folder);
    try {
        if (!fault.empty())
            set_aside(path, fault, notes);
        open(path);
    } catch (const database_error &error) {
        if (!is_for_a_new_file(error))
            throw store_error(fmt::format("{}: {}", path, error.what()));
        prepared_.reset();
        database_.reset();
        set_aside(path, error.what(), notes);
        try {
            open(path);
        } catch (const database_error &again) {
            throw store_error(fmt::format("{}: {}", path, again.what()));
        }
    }
}

/* Created here, since SQLite would make the file readable for others; closed before SQLite locks
   it, since closing any descriptor of a file ends the process's locks. */
static void make_file(const std::string &path)
{
    const util::descriptor made(
        open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!made.is_open())
        throw database_error(SQLITE_CANTOPEN, std::strerror(errno));
}

void store::open(const std::string &path)
{
    make_file(path);
    database_ = std::make_unique<database>(path);
    database &file = *database_;
    const int64_t found = file.number("PRAGMA user_version");
    const bool is_new = found == 0 && file.number("SELECT count(*) FROM sqlite_master") == 0;
    if (!is_new && file.number("PRAGMA application_id") != application)
        throw database_error(SQLITE_NOTADB, "it is not a history");
    if (found > version)
        throw store_error(
            fmt::format("{} has version {}, this exporter knows {}: it is left alone; "
                        "use a newer exporter, or move the file away",
                        path, found, version));
    if (is_new)
        file.run("PRAGMA page_size = 4096; PRAGMA auto_vacuum = INCREMENTAL;");
    file.run("PRAGMA locking_mode = EXCLUSIVE; PRAGMA journal_mode = WAL;"
             "PRAGMA synchronous = FULL; PRAGMA wal_autocheckpoint = 0;"
             "PRAGMA journal_size_limit = 4194304; PRAGMA cache_size = -2048;");
    if (is_new)
        file.run(schema);
    file.run("BEGIN IMMEDIATE; COMMIT;"); /* fails if the file can't be written */
    prepared_ = std::make_shared<statements>(file);
    file.number(fmt::format("PRAGMA max_page_count = {}", most_pages_).c_str());
    if (file.number("PRAGMA page_count") <= most_pages_)
        return;
    /* The operator may have lowered the limit. */
    file.run("BEGIN IMMEDIATE");
    prune(end());
    make_room({}, end());
    file.run("COMMIT; PRAGMA incremental_vacuum; PRAGMA wal_checkpoint(TRUNCATE);");
    file.number(fmt::format("PRAGMA max_page_count = {}", most_pages_).c_str());
}

static void write_rows(statement &to, const std::vector<batch::kept_row> &rows)
{
    for (const batch::kept_row &each : rows)
        to.bind(1, key_of(each.number, each.place)).bind_blob(2, each.blob).run();
}

/* Drops rows and events that are too old, or beyond the limit. */
void store::prune(int64_t present)
{
    database &file = *database_;
    for (size_t of = 0; of < levels; of++)
        statement(file, drop_rows[of])
            .bind(1, key_of(present / level_seconds[of] - level_length[of], 0))
            .run();
    const int64_t oldest = present - level_seconds[day_rows] * level_length[day_rows];
    statement(file, "DELETE FROM events WHERE time < ?").bind(1, oldest).run();
    statement(file, "DELETE FROM events WHERE id <= (SELECT max(id) FROM events) - ?")
        .bind(1, most_events)
        .run();
    statement(file, "DELETE FROM places WHERE last < ?").bind(1, oldest).run();
    statement(file, "DELETE FROM places WHERE id IN (SELECT id FROM places ORDER BY last DESC, id "
                    "DESC LIMIT -1 OFFSET ?)")
        .bind(1, static_cast<int64_t>(most_places))
        .run();
    file.run("DELETE FROM announcements WHERE place NOT IN (SELECT id FROM places)");
}

/* Makes room before `added` is written, since a transaction that finds the file full also undoes
   its deletions. Drops a sixteenth of the events and of each level's time at once, so that this
   happens rarely. */
void store::make_room(const batch &added, int64_t present)
{
    database &file = *database_;
    const int64_t wanted = static_cast<int64_t>(added.size()) * 3 / 2 / page_size + 16;
    const auto is_short = [&] {
        return file.number("PRAGMA page_count") - file.number("PRAGMA freelist_count") + wanted >
               most_pages_;
    };
    for (int64_t left = 16; left > 0 && is_short(); left--) {
        for (size_t of = 0; of < levels; of++) {
            const int64_t first = file.number(first_key[of]) >> place_bits;
            const int64_t length = present / level_seconds[of] - first;
            statement(file, drop_rows[of])
                .bind(1, key_of(first + std::max<int64_t>(length / left, 1), 0))
                .run();
        }
        statement(file, "DELETE FROM events WHERE id <= (SELECT min(id) + (max(id) - min(id)) / ? "
                        "FROM events)")
            .bind(1, left)
            .run();
    }
}

void store::insert(const batch &added)
{
    for (const place &each : added.places)
        prepared_->place.bind(1, each.id)
            .bind(2, each.port)
            .bind_text(3, each.interface)
            .bind_text(4, each.vendor)
            .bind_text(5, each.part)
            .bind_text(6, each.serial)
            .bind(7, each.first)
            .bind(8, each.last)
            .run();
    for (const event &each : added.events)
        prepared_->event.bind(1, each.time)
            .bind(2, each.port)
            .bind(3, each.place)
            .bind_text(4, each.kind)
            .bind_text(5, each.text)
            .run();
    if (!added.shifts.empty())
        database_->run("DELETE FROM clock");
    for (const shift &each : added.shifts)
        prepared_->shift.bind(1, each.first).bind(2, each.offset).run();
    for (const announcement &each : added.announcements) {
        statement &to = each.text.empty() ? prepared_->withdraw : prepared_->announce;
        to.bind(1, each.place).bind_text(2, each.key);
        if (!each.text.empty())
            to.bind_text(3, each.text);
        to.run();
    }
    for (size_t of = 0; of < levels; of++)
        write_rows(prepared_->rows[of], added.rows[of]);
}

void store::write(const batch &added, int64_t present)
{
    database &file = *database_;
    file.run("BEGIN IMMEDIATE");
    try {
        /* Old rows are dropped once an hour, with the row of the hour. */
        if (!added.rows[hour_rows].empty() || added.events.size() > 1000)
            prune(present);
        make_room(added, present);
        insert(added);
        file.run("COMMIT");
    } catch (const database_error &) {
        sqlite3_exec(file.get(), "ROLLBACK", nullptr, nullptr, nullptr);
        throw;
    }
}

void store::checkpoint()
{
    database_->run("PRAGMA wal_checkpoint(PASSIVE)");
}

std::vector<place> store::places()
{
    std::vector<place> found;
    statement each(*database_, "SELECT * FROM places ORDER BY id");
    while (each.step())
        found.push_back({each.number(0), static_cast<uint32_t>(each.number(1)), each.text(2),
                         each.text(3), each.text(4), each.text(5), each.number(6), each.number(7)});
    return found;
}

std::vector<shift> store::shifts()
{
    std::vector<shift> found;
    statement each(*database_, "SELECT first, shift FROM clock ORDER BY first");
    while (each.step())
        found.push_back({each.number(0), each.number(1)});
    return found;
}

std::vector<announcement> store::announcements()
{
    std::vector<announcement> found;
    statement each(*database_, "SELECT place, key, text FROM announcements");
    while (each.step())
        found.push_back({each.number(0), each.text(1), each.text(2)});
    return found;
}

int64_t store::end()
{
    database &file = *database_;
    const int64_t key = file.number(last_key[step_rows]);
    return std::max({key == 0 ? 0 : ((key >> place_bits) + 1) * level_seconds[step_rows],
                     file.number("SELECT max(time) + 1 FROM events"),
                     file.number("SELECT max(last) FROM places"),
                     file.number("SELECT max(first) FROM clock")});
}

void store::read(level of, int64_t place, int64_t first, int64_t last,
                 const std::function<void(int64_t number, const record &)> &take)
{
    statement &one = prepared_->reads[of];
    const int64_t begin = std::max(first, database_->number(first_key[of]) >> place_bits),
                  end = std::min(last, database_->number(last_key[of]) >> place_bits);
    for (int64_t number = begin; number <= end; number++) {
        one.bind(1, key_of(number, place));
        if (!one.step())
            continue;
        const auto found = decode(one.bytes(0));
        one.reset();
        if (found)
            take(number, *found);
    }
}

void store::read_all(level of, int64_t first, int64_t last,
                     const std::function<void(int64_t number, int64_t place, const record &)> &take)
{
    statement each(*database_, read_rows[of]);
    each.bind(1, key_of(first, 0)).bind(2, key_of(last + 1, 0));
    while (each.step()) {
        const int64_t key = each.number(0);
        if (const auto found = decode(each.bytes(1)))
            take(key >> place_bits, key & ((int64_t{1} << place_bits) - 1), *found);
    }
}

std::vector<event> store::events(std::optional<int64_t> port, int64_t first, size_t most)
{
    std::vector<event> found;
    statement each(*database_,
                   port ? "SELECT time, port, place, kind, text FROM events WHERE port IN (?1, -1) "
                          "AND time >= ?2 ORDER BY time DESC, id DESC LIMIT ?3"
                        : "SELECT time, port, place, kind, text FROM events WHERE time >= ?2 "
                          "ORDER BY id DESC LIMIT ?3");
    if (port)
        each.bind(1, *port);
    each.bind(2, first).bind(3, static_cast<int64_t>(most));
    while (each.step())
        found.push_back(
            {each.number(0), each.number(1), each.number(2), each.text(3), each.text(4)});
    std::ranges::reverse(found);
    return found;
}

} // namespace history
