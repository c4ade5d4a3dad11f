/* SPDX-License-Identifier: Apache-2.0 */
/* A record is written in three steps: an odd sequence, the rest, an even sequence. Only the lanes
   and VDM rows that it has are written.

   A publication that failed leaves an odd sequence, or the old record; it is made again with the
   next one of any port. Once a second it is checked that the file is still the one at its path and
   not shorter than it was; if not, a new one is made. */
#include "platform/dolm_ric/port_details.h"

#include "platform/dolm_ric/new_file.h"
#include "util/boot_clock.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <sys/stat.h>
#include <utility>

namespace board
{

using record_type = dolm_ric_details_record;

static constexpr uint32_t page = 4096;
static constexpr uint32_t record_size = (sizeof(record_type) + page - 1) / page * page;
static constexpr int64_t check_interval = 1'000'000'000;

std::string details_path(const std::string &port_map)
{
    const char *path = secure_getenv(DOLM_RIC_DETAILS_ENV);
    if (path != nullptr && *path != '\0')
        return path;
    return port_map.substr(0, port_map.find_last_of('/') + 1) + "details";
}

int64_t details_time()
{
    return std::chrono::nanoseconds{util::boot_time().time_since_epoch()}.count();
}

static off_t offset_of(uint32_t port)
{
    return static_cast<off_t>(page + uint64_t{port} * record_size);
}

/* calloc, since the kernel's fresh pages are zero: what no lane is in costs nothing. */
record_type *port_details::find_or_make(uint32_t port)
{
    try {
        record_pointer &its = records_[port];
        if (its == nullptr) {
            its.reset(static_cast<record_type *>(calloc(1, sizeof(record_type))));
            if (its != nullptr)
                its->port = port;
        }
        return its.get();
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

bool port_details::write_count(uint32_t port)
{
    if (port < header_.record_count)
        return true;
    dolm_ric_details_header grown = header_;
    grown.record_count = port + 1;
    if (!write_fully(file_.get(), &grown, sizeof(grown), 0))
        return false;
    header_ = grown;
    return true;
}

/* The fences order the steps for a reader on another processor. */
bool port_details::write_record(record_type &its)
{
    const int fd = file_.get();
    const off_t at = offset_of(its.port);
    const char *bytes = reinterpret_cast<const char *>(&its);
    const uint64_t writing = its.sequence | 1;
    const auto write_sequence = [&](uint64_t sequence) {
        std::atomic_thread_fence(std::memory_order_release);
        const bool is_written = write_fully(fd, &sequence, sizeof(sequence), at);
        std::atomic_thread_fence(std::memory_order_release);
        return is_written;
    };
    const auto write_part = [&](size_t from, size_t size) {
        return write_fully(fd, bytes + from, size, at + static_cast<off_t>(from));
    };
    constexpr size_t first = sizeof(its.sequence);

    its.epoch = header_.epoch;
    its.published_at = details_time();
    its.sequence = writing + 1;
    return write_sequence(writing) &&
           write_part(first,
                      offsetof(record_type, lane) - first + its.lane_count * sizeof(its.lane[0])) &&
           write_part(offsetof(record_type, vdm), its.vdm_count * sizeof(its.vdm[0])) &&
           write_sequence(its.sequence) && write_count(its.port);
}

void port_details::report_failure()
{
    if (!std::exchange(has_failed_, true))
        fprintf(stderr,
                "libdolm_ric: cannot write the details of ports to %s: %s; it is tried again\n",
                path_.c_str(), strerror(errno));
}

void port_details::publish(record_type &its)
{
    if (path_.empty())
        return;
    check_file();
    if (!file_ || !write_record(its)) {
        report_failure();
        unwritten_.insert(its.port);
        return;
    }
    unwritten_.erase(its.port);
    while (!unwritten_.empty() && write_record(*records_.at(*unwritten_.begin())))
        unwritten_.erase(unwritten_.begin());
    has_failed_ = !unwritten_.empty();
}

bool port_details::is_in_place() const
{
    struct stat mine = {};
    struct stat there = {};
    return fstat(file_.get(), &mine) == 0 && lstat(path_.c_str(), &there) == 0 &&
           mine.st_dev == there.st_dev && mine.st_ino == there.st_ino;
}

void port_details::check_file()
{
    const int64_t now = details_time();
    if (now - checked_at_ < check_interval)
        return;
    checked_at_ = now;
    struct stat mine = {};
    const off_t least = header_.record_count > 0 ? offset_of(header_.record_count - 1) : 0;
    uint64_t epoch = 0;
    const bool is_whole =
        file_ && fstat(file_.get(), &mine) == 0 && mine.st_size > least && is_in_place() &&
        pread(file_.get(), &epoch, sizeof(epoch), offsetof(dolm_ric_details_header, epoch)) ==
            sizeof(epoch) &&
        epoch == header_.epoch;
    if (!is_whole && make_file())
        write_all();
}

/* The real time is another one at each start, also after a crash. */
bool port_details::make_file()
{
    util::descriptor made(make_new_file(path_));
    header_ = {};
    memcpy(header_.magic, DOLM_RIC_DETAILS_MAGIC, sizeof(header_.magic));
    header_.version = DOLM_RIC_DETAILS_VERSION;
    header_.header_size = page;
    header_.record_size = record_size;
    header_.epoch = static_cast<uint64_t>(
        std::chrono::nanoseconds{std::chrono::system_clock::now().time_since_epoch()}.count());
    header_.started_at = details_time();
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    if (made && fcntl(made.get(), F_OFD_SETLK, &lock) == 0 &&
        write_fully(made.get(), &header_, sizeof(header_), 0) && place_new_file(path_)) {
        file_ = std::move(made);
        return true;
    }
    drop_new_file(path_);
    file_.reset();
    return false;
}

void port_details::write_all()
{
    for (auto &[port, record] : records_)
        if (record != nullptr && !write_record(*record)) {
            report_failure();
            unwritten_.insert(port);
        }
}

void port_details::start(const std::string &path)
{
    const std::lock_guard guard(lock_);
    path_ = path;
    checked_at_ = details_time();
    if (make_file())
        write_all();
    else
        report_failure();
}

/* Another board may have put its file there meanwhile. */
void port_details::stop() noexcept
{
    const std::lock_guard guard(lock_);
    if (path_.empty())
        return;
    if (file_) {
        header_.ended = 1;
        write_fully(file_.get(), &header_, sizeof(header_), 0);
        if (is_in_place())
            unlink(path_.c_str());
    }
    file_.reset();
    path_.clear();
}

} // namespace board
