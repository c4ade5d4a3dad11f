/* SPDX-License-Identifier: Apache-2.0 */
/* update() changes a record in memory and marks its port as due. The thread takes all due records,
   copies one after the other and writes the copy in three steps: an odd sequence, the rest, an even
   sequence. Only the lanes and VDM rows that a record has are copied and written.

   After a failed write the file has an odd sequence or the old record; the record stays due and is
   written again after a second. Before each write the thread checks that the file hasn't been
   shortened, which the write would hide, and once a second that the file is still the one at its
   path; if not, it writes all records to a new file and renames that to the path. */
#include "platform/dolm_ric/port_details.h"

#include "platform/dolm_ric/new_file.h"
#include "util/boot_clock.h"
#include "util/thread.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <new>
#include <pthread.h>
#include <sys/stat.h>
#include <utility>

namespace board
{

using record_type = dolm_ric_details_record;

static constexpr uint32_t page = 4096;
static constexpr uint32_t record_size = (sizeof(record_type) + page - 1) / page * page;
static constexpr int64_t check_interval = 1'000'000'000;
static constexpr std::chrono::seconds retry_interval{1};

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

port_details::port_details()
{
    due_.reserve(2 * most_records);
    taken_.reserve(2 * most_records);
}

/* Drops a record that was taken out of the configuration, to make room for a new port. */
bool port_details::make_room(uint32_t port)
{
    if (slots_.size() < most_records)
        return true;
    const auto gone = std::ranges::find_if(slots_, [](const auto &one) {
        return !one.second.is_due && one.second.record->presence == DOLM_RIC_PRESENCE_OUT;
    });
    if (gone != slots_.end()) {
        due_.push_back(gone->first);
        slots_.erase(gone);
        return true;
    }
    if (!std::exchange(has_left_out_, true))
        fprintf(stderr,
                "libdolm_ric: there are details of %zu ports at most: port %u and others have "
                "none\n",
                most_records, port);
    return false;
}

/* calloc, since fresh pages of the kernel are zero: pages without a used lane take no memory. A
   record that replaces an earlier one of its port gets a greater sequence. */
port_details::slot *port_details::find_or_make(uint32_t port)
{
    try {
        const auto found = slots_.find(port);
        if (found != slots_.end())
            return &found->second;
        if (!make_room(port))
            return nullptr;
        slot made;
        made.record.reset(static_cast<record_type *>(calloc(1, sizeof(record_type))));
        if (made.record == nullptr)
            return nullptr;
        made.record->port = port;
        made.record->sequence = static_cast<uint64_t>(details_time()) & ~uint64_t{1};
        return &slots_.emplace(port, std::move(made)).first->second;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

/* No allocation: due_ has room for all ports. */
void port_details::mark(uint32_t port, slot &its)
{
    if (std::exchange(its.is_due, true))
        return;
    due_.push_back(port);
    changed_.notify_one();
}

void port_details::flush()
{
    std::unique_lock guard(lock_);
    settled_.wait(guard, [this] {
        return !thread_.joinable() || (!is_writing_ && (due_.empty() || has_failed_));
    });
}

/* Copies the used part of the record, with its next sequence. False if the port has no record. */
bool port_details::take(uint32_t port, bool was_due)
{
    const std::lock_guard guard(lock_);
    const auto found = slots_.find(port);
    if (found == slots_.end())
        return false;
    if (was_due)
        found->second.is_due = false;
    record_type &its = *found->second.record;
    its.sequence += 2;
    its.epoch = header_.epoch;
    its.published_at = details_time();
    memcpy(&copy_, &its, offsetof(record_type, lane) + its.lane_count * sizeof(its.lane[0]));
    memcpy(copy_.vdm, its.vdm, its.vdm_count * sizeof(its.vdm[0]));
    return true;
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
bool port_details::write_record()
{
    const int fd = file_.get();
    const record_type &its = copy_;
    const off_t at = offset_of(its.port);
    const char *bytes = reinterpret_cast<const char *>(&its);
    const auto write_sequence = [&](uint64_t sequence) {
        std::atomic_thread_fence(std::memory_order_release);
        const bool is_written = write_fully(fd, &sequence, sizeof(sequence), at);
        std::atomic_thread_fence(std::memory_order_release);
        return is_written;
    };
    const auto write_part = [&](size_t from, size_t size) {
        const off_t begin = at + static_cast<off_t>(from);
        if (!write_fully(fd, bytes + from, size, begin))
            return false;
        if (size > 0)
            size_ = std::max(size_, begin + static_cast<off_t>(size));
        return true;
    };
    constexpr size_t first = sizeof(its.sequence);
    return write_sequence(its.sequence - 1) &&
           write_part(first,
                      offsetof(record_type, lane) - first + its.lane_count * sizeof(its.lane[0])) &&
           write_part(offsetof(record_type, vdm), its.vdm_count * sizeof(its.vdm[0])) &&
           write_sequence(its.sequence) && write_count(its.port);
}

/* A hole reads as a record that was never written. */
bool port_details::erase_record(uint32_t port)
{
    constexpr uint64_t never = 0;
    return fallocate(file_.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset_of(port),
                     record_size) == 0 ||
           write_fully(file_.get(), &never, sizeof(never), offset_of(port));
}

bool port_details::write_port(uint32_t port)
{
    if (!check_file())
        return false;
    return take(port, true) ? write_record() : erase_record(port);
}

/* Called before the file is renamed to its path. Due ports stay due, as they may change
   meanwhile. */
bool port_details::write_all()
{
    for (uint32_t port = 0;; port++) {
        {
            const std::lock_guard guard(lock_);
            const auto next = slots_.lower_bound(port);
            if (next == slots_.end())
                return true;
            port = next->first;
        }
        if (!take(port, false) || !write_record())
            return false;
    }
}

/* Prints one line for all failures until every record is written. */
void port_details::note_result(bool is_written)
{
    const int error = errno;
    const std::lock_guard guard(lock_);
    if (!std::exchange(has_failed_, !is_written) && !is_written)
        fprintf(
            stderr, "libdolm_ric: cannot write the details of ports to %s: %s; it is tried again\n",
            path_.c_str(), error == EBUSY ? "the file belongs to another board" : strerror(error));
}

/* Returns whether all records were written; failed ones are due again. */
bool port_details::write_taken()
{
    size_t done = 0;
    while (done < taken_.size() && write_port(taken_[done]))
        done++;
    note_result(done == taken_.size());
    const std::lock_guard guard(lock_);
    for (size_t left = done; left < taken_.size(); left++) {
        const uint32_t port = taken_[left];
        if (const auto found = slots_.find(port); found != slots_.end())
            found->second.is_due = true;
        if (left != done || std::ranges::find(due_, port) == due_.end())
            due_.push_back(port); /* the port may be due again already */
    }
    return done == taken_.size();
}

/* After stop() the last round is not retried. */
void port_details::run()
{
    std::unique_lock guard(lock_);
    bool is_last = false;
    while (!is_last) {
        changed_.wait(guard, [this] { return is_stopping_ || !due_.empty(); });
        is_last = is_stopping_;
        taken_.clear();
        taken_.swap(due_);
        is_writing_ = true;
        guard.unlock();
        const bool is_written = write_taken();
        guard.lock();
        is_writing_ = false;
        settled_.notify_all();
        if (!is_written && !is_last)
            changed_.wait_for(guard, retry_interval, [this] { return is_stopping_; });
    }
}

bool port_details::is_in_place() const
{
    struct stat mine = {};
    struct stat there = {};
    return fstat(file_.get(), &mine) == 0 && lstat(path_.c_str(), &there) == 0 &&
           mine.st_dev == there.st_dev && mine.st_ino == there.st_ino;
}

bool port_details::is_cut() const
{
    struct stat mine = {};
    return fstat(file_.get(), &mine) != 0 || mine.st_size < size_;
}

bool port_details::is_whole() const
{
    uint64_t epoch = 0;
    return is_in_place() &&
           pread(file_.get(), &epoch, sizeof(epoch), offsetof(dolm_ric_details_header, epoch)) ==
               sizeof(epoch) &&
           epoch == header_.epoch;
}

/* Returns whether there is a file to write to. */
bool port_details::check_file()
{
    const int64_t now = details_time();
    const bool is_usable = file_ && !is_cut();
    if (is_usable && now - checked_at_ < check_interval)
        return true;
    checked_at_ = now;
    return (is_usable && is_whole()) || make_file();
}

/* The process that writes a file of details holds a lock on it. */
bool port_details::has_other_owner() const
{
    const util::descriptor there(
        open(path_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct flock lock = {};
    lock.l_type = F_RDLCK; /* ignores read locks, which readers hold */
    lock.l_whence = SEEK_SET;
    return there && !(file_ && is_in_place()) && fcntl(there.get(), F_OFD_GETLK, &lock) == 0 &&
           lock.l_type != F_UNLCK;
}

/* The epoch is the real time, which differs at each start, also after a crash. */
bool port_details::make_file()
{
    if (has_other_owner()) {
        file_.reset();
        errno = EBUSY;
        return false;
    }
    util::descriptor made = make_new_file(path_);
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
    file_ = std::move(made);
    size_ = sizeof(header_);
    if (file_ && fcntl(file_.get(), F_OFD_SETLK, &lock) == 0 &&
        write_fully(file_.get(), &header_, sizeof(header_), 0) && write_all() &&
        place_new_file(path_))
        return true;
    drop_new_file(path_);
    file_.reset();
    return false;
}

void port_details::start_thread()
{
    try {
        thread_ = util::start_thread("port-details", [this] { run(); });
    } catch (const std::exception &error) {
        fprintf(stderr, "libdolm_ric: no details of ports: no thread for them: %s\n", error.what());
    }
}

void port_details::start(const std::string &path)
{
    path_ = path;
    is_stopping_ = false;
    checked_at_ = details_time();
    note_result(make_file());
    start_thread();
    flush();
}

/* Another board may have put its own file at the path meanwhile. */
void port_details::stop() noexcept
{
    if (!thread_.joinable())
        return;
    {
        const std::lock_guard guard(lock_);
        is_stopping_ = true;
        changed_.notify_one();
    }
    thread_.join();
    if (file_) {
        header_.ended = 1;
        write_fully(file_.get(), &header_, sizeof(header_), 0);
        if (is_in_place())
            unlink(path_.c_str());
    }
    file_.reset();
}

} // namespace board
