/* SPDX-License-Identifier: Apache-2.0 */
/* All functions but the two openers run in signal handlers, which may interrupt any of them. So
   there is no lock, no allocation and no call that takes a lock in the C library: localtime_r and
   gmtime_r do, which is why the time zone is read ahead into a table. vsnprintf neither locks nor
   allocates in glibc for integers and short strings, the only arguments here.

   Each line is one write to a descriptor in append mode, so lines of several threads, and of
   several processes that share the file, are not mixed. A line that the output doesn't take is
   counted, and the count is written before the next line.

   Roll-over. The file's descriptor keeps its number: dup3 replaces the file in one step, so that no
   thread ever writes to a closed descriptor. Only one thread rolls over at a time. Other threads,
   and handlers on this thread, must not wait meanwhile and write to the old file, which may exceed
   its cap by a few lines. */
#include "platform/zel/zel_text.h"

#include "platform/zel/zel_limit.h"
#include "util/descriptor.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/* From this second on, local time differs from UTC by this offset. */
struct utc_offset {
    time_t from;
    long seconds;
};

} // namespace

static std::array<utc_offset, 64> utc_offsets;
static size_t utc_offset_count;

static zel_output output;
static bool is_journal;
static char file_path[PATH_MAX];
static char old_path[PATH_MAX + 2];
static uint64_t file_cap; /* 0 for streams, which have no cap */
static std::atomic_flag is_rolling;
static std::atomic<uint64_t> lost_lines;

void text_line::add(std::string_view piece)
{
    constexpr size_t end_size = 4; /* "...\n" */
    if (is_cut_ || length_ + piece.size() > sizeof(bytes_) - end_size) {
        is_cut_ = true;
        return;
    }
    memcpy(bytes_ + length_, piece.data(), piece.size());
    length_ += piece.size();
}

void text_line::format(const char *format, ...)
{
    char piece[128];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start stands right above
    const int size = vsnprintf(piece, sizeof(piece), format, arguments);
    va_end(arguments);
    if (size > 0)
        add({piece, std::min(static_cast<size_t>(size), sizeof(piece) - 1)});
}

/* The size in bytes of the printable character at the start of `text`, or 0. */
static size_t printable_size(const unsigned char *text)
{
    /* A row of the table of valid UTF-8 sequences: first byte, second byte, length. The first row
       excludes U+0080 to U+009F, which are control characters. */
    struct form {
        unsigned char first_min, first_max, second_min, second_max, size;
    };
    static constexpr form forms[] = {
        {0xc2, 0xc2, 0xa0, 0xbf, 2}, {0xc3, 0xdf, 0x80, 0xbf, 2}, {0xe0, 0xe0, 0xa0, 0xbf, 3},
        {0xe1, 0xec, 0x80, 0xbf, 3}, {0xed, 0xed, 0x80, 0x9f, 3}, {0xee, 0xef, 0x80, 0xbf, 3},
        {0xf0, 0xf0, 0x90, 0xbf, 4}, {0xf1, 0xf3, 0x80, 0xbf, 4}, {0xf4, 0xf4, 0x80, 0x8f, 4},
    };
    if (text[0] < 0x80)
        return text[0] >= 0x20 && text[0] != 0x7f;
    for (const form &row : forms) {
        if (text[0] < row.first_min || text[0] > row.first_max)
            continue;
        if (text[1] < row.second_min || text[1] > row.second_max)
            return 0;
        for (size_t i = 2; i < row.size; ++i)
            if ((text[i] & 0xc0) != 0x80)
                return 0;
        return row.size;
    }
    return 0;
}

void text_line::escape(const char *text)
{
    static constexpr std::string_view plain = "\\\n\r\t", letters = "\\nrt";
    while (*text != '\0' && !is_cut_) {
        const size_t size = printable_size(reinterpret_cast<const unsigned char *>(text));
        const size_t known = plain.find(*text);
        if (known != plain.npos)
            add({std::array{'\\', letters[known]}.data(), 2});
        else if (size > 0)
            add({text, size});
        else
            format("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(*text)));
        text += std::max<size_t>(size, 1);
    }
}

size_t text_line::size_with_end() const
{
    return length_ + (is_cut_ ? 4 : 1);
}

bool text_line::write_to(const zel_output &to, bool is_error)
{
    memcpy(bytes_ + length_, is_cut_ ? "...\n" : "\n", size_with_end() - length_);
    return zel_write(to, bytes_, size_with_end(), is_error);
}

static long utc_offset_of(time_t time)
{
    tm local{};
    localtime_r(&time, &local);
    return local.tm_gmtoff;
}

/* Searches the next ten years, day by day, for the seconds at which local time changes. */
static void read_time_zone()
{
    constexpr time_t day = time_t{24} * 60 * 60;
    const time_t start = time(nullptr);
    tzset();
    utc_offsets[0] = {start, utc_offset_of(start)};
    utc_offset_count = 1;
    for (time_t evening = start + day; evening < start + 3660 * day; evening += day) {
        const long offset = utc_offset_of(evening);
        if (offset == utc_offsets[utc_offset_count - 1].seconds)
            continue;
        if (utc_offset_count == utc_offsets.size())
            return;
        time_t before = evening - day, after = evening;
        while (after - before > 1) {
            const time_t middle = before + (after - before) / 2;
            (utc_offset_of(middle) == offset ? after : before) = middle;
        }
        utc_offsets[utc_offset_count++] = {after, offset};
    }
}

static void add_time(text_line &line)
{
    using namespace std::chrono;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    size_t current = utc_offset_count - 1;
    while (current > 0 && utc_offsets[current].from > now.tv_sec)
        --current;
    const sys_seconds local{seconds{now.tv_sec + utc_offsets[current].seconds}};
    const year_month_day date{floor<days>(local)};
    const hh_mm_ss clock{local - floor<days>(local)};
    line.format("%04d-%02u-%02u %02d:%02d:%02d.%06d ", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()),
                static_cast<int>(clock.hours().count()), static_cast<int>(clock.minutes().count()),
                static_cast<int>(clock.seconds().count()), static_cast<int>(now.tv_nsec / 1000));
}

/* Journal priorities: error, notice and debug. */
static int priority_of(uint32_t group)
{
    switch (group) {
    case 1:
        return 3;
    case 4:
        return 5;
    default:
        return 7;
    }
}

static void fill_line(text_line &line, const zel_record &record)
{
    if (is_journal)
        line.format("<%d>", priority_of(record.group));
    else
        add_time(line);
    line.escape(record.thread);
    line.format(" %u ", record.group);
    line.escape(record.file);
    line.format(":%u: ", record.line);
    if (record.kind == zel_kind::received)
        line.format("received 0x%08x: ", record.number);
    if (record.kind == zel_kind::sent)
        line.format("sent 0x%08x to 0x%08x: ", record.number, record.receiver);
    line.escape(record.text);
}

/* Streams, FIFOs and devices have no size. */
static bool has_room(size_t size)
{
    struct stat status = {};
    return file_cap == 0 ||
           (fstat(output.descriptor, &status) == 0 &&
            (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) + size <= file_cap));
}

/* Renames the file only if it is still at the path: another process that shares it may have rolled
   over already; then the new file is only opened. */
static void roll_over()
{
    struct stat ours = {};
    struct stat named = {};
    if (fstat(output.descriptor, &ours) == 0 && stat(file_path, &named) == 0 &&
        ours.st_dev == named.st_dev && ours.st_ino == named.st_ino)
        rename(file_path, old_path);
    const util::descriptor opened(zel_open_file(file_path).descriptor);
    if (opened)
        dup3(opened.get(), output.descriptor, O_CLOEXEC);
}

/* False if the full file could not be replaced. */
static bool make_room(size_t size)
{
    /* Another thread, or the code that this handler interrupted, is rolling over. */
    if (is_rolling.test_and_set(std::memory_order_acquire))
        return true;
    if (!has_room(size))
        roll_over();
    const bool was_made = has_room(size);
    is_rolling.clear(std::memory_order_release);
    return was_made;
}

/* An error may use the part of the output's buffer that is kept free for errors. */
static bool write_line(const zel_record &record, bool is_error)
{
    text_line line;
    fill_line(line, record);
    const size_t size = line.size_with_end();
    return (has_room(size) || make_room(size)) && line.write_to(output, is_error);
}

/* Writes a line of this library about missing lines. */
static bool write_note(uint32_t group, const char *file, uint32_t line, const char *text,
                       bool is_error)
{
    return write_line({.kind = zel_kind::trace,
                       .group = group,
                       .file = file,
                       .line = line,
                       .number = 0,
                       .receiver = 0,
                       .text = text,
                       .thread = "libzel"},
                      is_error);
}

/* Called before a line is written. False if the output still takes no line. */
static bool report_lost_lines(bool is_error)
{
    const uint64_t lost = lost_lines.exchange(0, std::memory_order_relaxed);
    if (lost == 0)
        return true;
    char text[64];
    snprintf(text, sizeof(text), "%" PRIu64 " lines lost: the output did not take them", lost);
    if (write_note(1, "output", 0, text, is_error))
        return true;
    lost_lines.fetch_add(lost, std::memory_order_relaxed);
    return false;
}

/* If the output doesn't take the report, the counts are kept for a later one. */
static void report_place(zel_place &place)
{
    const uint64_t repeated = place.repeated.exchange(0, std::memory_order_relaxed);
    const uint64_t left_out = place.left_out.exchange(0, std::memory_order_relaxed);
    if (repeated + left_out == 0)
        return;
    char text[96];
    snprintf(text, sizeof(text), "repeated %" PRIu64 " times, %" PRIu64 " more lines left out",
             repeated, left_out);
    if (write_note(place.group, place.file, place.line, text, place.group == 1))
        return;
    place.repeated.fetch_add(repeated, std::memory_order_relaxed);
    place.left_out.fetch_add(left_out, std::memory_order_relaxed);
}

static void write_record(const zel_record &record)
{
    zel_place *place = zel_limit_admit(record);
    zel_limit_sweep(false, report_place);
    if (place == nullptr)
        return;
    report_place(*place);
    const bool is_error = record.group == 1;
    const bool has_room_for_note = report_lost_lines(is_error);
    if (!(has_room_for_note || is_error) || !write_line(record, is_error))
        lost_lines.fetch_add(1, std::memory_order_relaxed);
}

/* Runs at the end of the process, as no later line will report the counts. */
__attribute__((destructor)) static void report_all()
{
    if (output.descriptor < 0)
        return;
    zel_limit_sweep(true, report_place);
    report_lost_lines(true);
}

static void set_limit(const uint32_t *share)
{
    const uint32_t standard = zel_is_regular_file(output) ? 0 : default_share;
    zel_limit_set(share != nullptr ? *share : standard);
}

/* Whether the descriptor is the journal's: systemd names that by device and inode. */
static bool is_journal_stream(int descriptor)
{
    const char *setting = secure_getenv("JOURNAL_STREAM");
    struct stat status = {};
    char name[64];
    if (setting == nullptr || fstat(descriptor, &status) != 0)
        return false;
    snprintf(name, sizeof(name), "%ju:%ju", static_cast<uintmax_t>(status.st_dev),
             static_cast<uintmax_t>(status.st_ino));
    return strcmp(name, setting) == 0;
}

static constexpr zel_sink text_sink{write_record, nullptr};

const zel_sink *zel_text_to_stream(int descriptor, const uint32_t *share)
{
    read_time_zone();
    is_journal = is_journal_stream(descriptor);
    output = zel_open_stream(descriptor);
    set_limit(share);
    return &text_sink;
}

const zel_sink *zel_text_to_file(const char *path, uint64_t cap, const uint32_t *share)
{
    /* An absolute path, so that roll-over still works after the program has changed its
       directory. */
    char directory[PATH_MAX] = "";
    if (path[0] != '/' && getcwd(directory, sizeof(directory)) == nullptr)
        return nullptr;
    const int size = snprintf(file_path, sizeof(file_path), "%s%s%s", directory,
                              path[0] == '/' ? "" : "/", path);
    if (static_cast<size_t>(size) >= sizeof(file_path)) {
        errno = ENAMETOOLONG;
        return nullptr;
    }
    snprintf(old_path, sizeof(old_path), "%s.1", file_path);
    output = zel_open_file(file_path);
    if (output.descriptor < 0)
        return nullptr;
    read_time_zone();
    file_cap = cap;
    set_limit(share);
    return &text_sink;
}
