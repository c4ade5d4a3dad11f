/* SPDX-License-Identifier: Apache-2.0 */
/* zel_text - traces as lines of text.

   Everything here but the two openers runs in signal handlers, on top of any of its own lines. So
   there is no lock, no allocation and no call that takes a lock in the C library: localtime_r and
   gmtime_r do, which is why the time zone is read ahead into a table. vsnprintf neither locks nor
   allocates in glibc for integers and short strings, which is all that is asked of it here.

   Each line is one write to a descriptor in append mode, so lines of several threads, and of
   several processes that share the file, stand one after the other.

   Roll-over. The file's descriptor keeps its number for good: the new file is put under it by dup3,
   which swaps the two in one step, so that nobody ever writes to a closed descriptor. One thread
   rolls at a time. Whoever needs to meanwhile - perhaps a handler on that very thread - must not
   wait, and writes where the descriptor leads at that moment: the old file may end a few lines
   above its cap. */
#include "platform/zel/zel_text.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

/* From this second on local time is this far ahead of UTC. */
struct utc_offset {
    time_t from;
    long seconds;
};

static std::array<utc_offset, 64> utc_offsets;
static size_t utc_offset_count;

static int out_descriptor;
static char file_path[PATH_MAX];
static char old_path[PATH_MAX + 2];
static uint64_t file_cap;
static std::atomic_flag is_rolling;

void text_line::add(std::string_view piece)
{
    constexpr size_t end_size = 4; /* "...\n" */
    if (is_cut || length + piece.size() > sizeof(bytes) - end_size) {
        is_cut = true;
        return;
    }
    memcpy(bytes + length, piece.data(), piece.size());
    length += piece.size();
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

/* The bytes of the printable character that `text` starts with, 0 where none does. */
static size_t printable_size(const unsigned char *text)
{
    /* The well-formed sequences: first byte, second byte, length. U+0080 to U+009F are controls,
       and so the first row starts above them. */
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
    for (const form &form : forms) {
        if (text[0] < form.first_min || text[0] > form.first_max)
            continue;
        if (text[1] < form.second_min || text[1] > form.second_max)
            return 0;
        for (size_t i = 2; i < form.size; ++i)
            if ((text[i] & 0xc0) != 0x80)
                return 0;
        return form.size;
    }
    return 0;
}

void text_line::escape(const char *text)
{
    static constexpr std::string_view plain = "\\\n\r\t", letters = "\\nrt";
    while (*text != '\0' && !is_cut) {
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
    return length + (is_cut ? 4 : 1);
}

void text_line::write_to(int descriptor)
{
    memcpy(bytes + length, is_cut ? "...\n" : "\n", size_with_end() - length);
    /* A stream that takes nothing, or only a part, has lost the line: tracing holds nobody up. */
    while (write(descriptor, bytes, size_with_end()) < 0 && errno == EINTR) {
    }
}

static long utc_offset_of(time_t time)
{
    tm local{};
    localtime_r(&time, &local);
    return local.tm_gmtoff;
}

/* Looks ten years ahead, day by day, for the seconds at which the clocks are changed. */
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

static void fill_line(text_line &line, const zel_record &record)
{
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

static void write_to_stream(const zel_record &record)
{
    text_line line;
    fill_line(line, record);
    line.write_to(out_descriptor);
}

static int open_file()
{
    return open(file_path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NOCTTY, 0640);
}

/* What is no regular file, as a pipe, never fills up. */
static bool has_room(size_t size)
{
    struct stat status {
    };
    return fstat(out_descriptor, &status) == 0 &&
           (!S_ISREG(status.st_mode) || static_cast<uint64_t>(status.st_size) + size <= file_cap);
}

/* Renames the file only if it is still ours: another process that shares it may have rolled it over
   already, and then only the new one has to be opened. */
static void roll_over()
{
    struct stat ours {
    };
    struct stat named {
    };
    if (fstat(out_descriptor, &ours) == 0 && stat(file_path, &named) == 0 &&
        ours.st_dev == named.st_dev && ours.st_ino == named.st_ino)
        rename(file_path, old_path);
    const int fresh = open_file();
    if (fresh < 0)
        return;
    dup3(fresh, out_descriptor, O_CLOEXEC);
    close(fresh);
}

/* False when the line must be dropped, since the full file could not be replaced. */
static bool make_room(size_t size)
{
    /* Somebody else rolls, or this thread does, under a handler: the line goes where it can. */
    if (is_rolling.test_and_set(std::memory_order_acquire))
        return true;
    if (!has_room(size))
        roll_over();
    const bool made = has_room(size);
    is_rolling.clear(std::memory_order_release);
    return made;
}

static void write_to_file(const zel_record &record)
{
    text_line line;
    fill_line(line, record);
    if (has_room(line.size_with_end()) || make_room(line.size_with_end()))
        line.write_to(out_descriptor);
}

const zel_sink *zel_text_to_stream(int descriptor)
{
    static constexpr zel_sink sink{write_to_stream, nullptr};
    read_time_zone();
    out_descriptor = descriptor;
    return &sink;
}

const zel_sink *zel_text_to_file(const char *path, uint64_t cap)
{
    static constexpr zel_sink sink{write_to_file, nullptr};
    /* Absolute, so that a program that changes its directory later still rolls over in place. */
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
    out_descriptor = open_file();
    if (out_descriptor < 0)
        return nullptr;
    read_time_zone();
    file_cap = cap;
    return &sink;
}
