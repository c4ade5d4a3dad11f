/* SPDX-License-Identifier: Apache-2.0 */
/* To open: the file is opened without following a link or blocking; then its header and its owner's
   lock are checked. To read a port: the owner's lock, the sequence, the used parts of the record,
   and the sequence again; repeated while the record is being written. A handle whose owner has
   ended looks once for a new file.

   Only the used parts are copied, as most modules have one lane: first the members before the
   lanes, which contain the number of lanes, then the lanes, then VDM. */
#include "tesk_client/tesk_details.h"

#include "tesk_client/tesk_client_paths.h"
#include "util/deadline.h"
#include "util/descriptor.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

using port_record = dolm_ric_details_record;

struct tesk_details {
    std::string path;
    util::descriptor file = {};
    dolm_ric_details_header header = {};
};

static constexpr std::chrono::milliseconds patience{500};
static constexpr timespec pause_of_retry = {0, 20'000};
static constexpr uint32_t page = 4096;

/* Empty if MBX_DIR selects another server than that of the default path. */
static std::string details_path(const char *path)
{
    if (path != nullptr)
        return path;
    if (std::string set = value_of_variable(DOLM_RIC_DETAILS_ENV); !set.empty())
        return set;
    if (const std::string map = value_of_variable("DOLM_RIC_PORT_MAP"); !map.empty())
        return map.substr(0, map.find_last_of('/') + 1) + "details";
    return is_default_board() ? DOLM_RIC_DETAILS_FILE : "";
}

static tesk_details_result result_of_errno()
{
    switch (errno) {
    case ENOENT:
    case ENOTDIR:
        return TESK_DETAILS_NO_FILE;
    case EACCES:
    case EPERM:
        return TESK_DETAILS_NO_ACCESS;
    case ELOOP: /* a link */
    case ENXIO: /* a socket, or a device without a driver */
        return TESK_DETAILS_NOT_DETAILS;
    default:
        return TESK_DETAILS_FAILED;
    }
}

static tesk_details_result read_part(int fd, void *to, size_t size, uint64_t offset)
{
    auto *next = static_cast<char *>(to);
    while (size > 0) {
        const ssize_t got = pread(fd, next, size, static_cast<off_t>(offset));
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return TESK_DETAILS_FAILED;
        if (got == 0)
            return TESK_DETAILS_TRUNCATED;
        next += got;
        size -= static_cast<size_t>(got);
        offset += static_cast<uint64_t>(got);
    }
    return TESK_DETAILS_OK;
}

static tesk_details_result check_header(const dolm_ric_details_header &header)
{
    if (memcmp(header.magic, DOLM_RIC_DETAILS_MAGIC, sizeof(header.magic)) != 0)
        return TESK_DETAILS_NOT_DETAILS;
    if (header.version != DOLM_RIC_DETAILS_VERSION)
        return TESK_DETAILS_OTHER_VERSION;
    const bool makes_sense = header.header_size >= sizeof(header) && header.epoch != 0 &&
                             header.header_size % page == 0 &&
                             header.record_size >= sizeof(port_record) &&
                             header.record_size % page == 0;
    if (!makes_sense)
        return TESK_DETAILS_DAMAGED;
    return header.ended != 0 ? TESK_DETAILS_ENDED : TESK_DETAILS_OK;
}

/* The kernel releases the lock when its owner dies. */
static bool has_owner(int fd)
{
    struct flock lock = {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    return fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
}

static tesk_details_result attach(tesk_details &details)
{
    details.header = {};
    details.file.reset(
        open(details.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!details.file || fstat(details.file.get(), &status) != 0)
        return result_of_errno();
    if (!S_ISREG(status.st_mode))
        return TESK_DETAILS_NOT_DETAILS;
    dolm_ric_details_header header = {};
    if (const auto result = read_part(details.file.get(), &header, sizeof(header), 0))
        return result;
    if (const auto result = check_header(header))
        return result;
    details.header = header;
    return has_owner(details.file.get()) ? TESK_DETAILS_OK : TESK_DETAILS_ENDED;
}

static tesk_details_result refresh(tesk_details &details)
{
    if (details.header.epoch != 0 && has_owner(details.file.get()))
        return TESK_DETAILS_OK;
    return attach(details);
}

static uint64_t offset_of(const tesk_details &details, uint32_t port)
{
    return details.header.header_size + uint64_t{port} * details.header.record_size;
}

/* The number of records grows while the board runs. */
static tesk_details_result read_header(tesk_details &details)
{
    dolm_ric_details_header now = {};
    if (const auto result = read_part(details.file.get(), &now, sizeof(now), 0))
        return result;
    if (const auto result = check_header(now))
        return result;
    if (now.epoch != details.header.epoch)
        return TESK_DETAILS_DAMAGED;
    details.header = now;
    return TESK_DETAILS_OK;
}

static tesk_details_result read_sequence(const tesk_details &details, uint64_t offset,
                                         uint64_t &sequence)
{
    std::atomic_thread_fence(std::memory_order_acquire);
    const auto result = read_part(details.file.get(), &sequence, sizeof(sequence), offset);
    std::atomic_thread_fence(std::memory_order_acquire);
    return result;
}

/* False if the numbers of lanes and rows can't be those of a record. */
static bool are_counts_right(const port_record &its)
{
    return its.lane_count <= DOLM_RIC_DETAILS_LANES && its.vdm_count <= DOLM_RIC_DETAILS_VDM &&
           its.doubt_count <= DOLM_RIC_DETAILS_DOUBTS &&
           its.identity.compliance_count <= DOLM_RIC_DETAILS_COMPLIANCES &&
           its.identity.application_count <= DOLM_RIC_DETAILS_APPLICATIONS;
}

static tesk_details_result copy_parts(const tesk_details &details, uint64_t offset, port_record &to)
{
    const int fd = details.file.get();
    if (const auto result = read_part(fd, &to, offsetof(port_record, lane), offset))
        return result;
    if (!are_counts_right(to))
        return TESK_DETAILS_DAMAGED;
    if (const auto result = read_part(fd, to.lane, to.lane_count * sizeof(to.lane[0]),
                                      offset + offsetof(port_record, lane)))
        return result;
    return read_part(fd, to.vdm, to.vdm_count * sizeof(to.vdm[0]),
                     offset + offsetof(port_record, vdm));
}

/* The result of an attempt is meaningless if the sequence has changed meanwhile. */
static std::optional<tesk_details_result> try_copy(const tesk_details &details, uint64_t offset,
                                                   port_record &to)
{
    uint64_t before = 0;
    uint64_t after = 0;
    if (const auto result = read_sequence(details, offset, before))
        return result;
    if (before == 0)
        return TESK_DETAILS_NO_PORT;
    if (before % 2 != 0)
        return std::nullopt;
    const tesk_details_result copied = copy_parts(details, offset, to);
    if (const auto result = read_sequence(details, offset, after))
        return result;
    return before == after ? std::optional(copied) : std::nullopt;
}

template <size_t size>
static void terminate(char (&text)[size])
{
    text[size - 1] = '\0';
}

static void terminate_texts(port_record &its)
{
    for (auto &doubt : its.doubt)
        terminate(doubt);
    terminate(its.link.interface);
    dolm_ric_details_identity &identity = its.identity;
    terminate(identity.form_factor);
    terminate(identity.connector);
    terminate(identity.encoding);
    terminate(identity.technology);
    terminate(identity.vendor);
    terminate(identity.part);
    terminate(identity.revision);
    terminate(identity.serial);
    terminate(identity.date);
    terminate(identity.firmware);
    terminate(identity.inactive_firmware);
    for (auto &compliance : identity.compliance)
        terminate(compliance);
    for (auto &application : identity.application) {
        terminate(application.host);
        terminate(application.media);
    }
}

static tesk_details_result copy_record(const tesk_details &details, uint32_t port, port_record &to)
{
    const util::deadline until(patience);
    const uint64_t offset = offset_of(details, port);
    for (;;) {
        if (const auto result = try_copy(details, offset, to))
            return *result;
        if (until.has_passed())
            return has_owner(details.file.get()) ? TESK_DETAILS_BUSY : TESK_DETAILS_ENDED;
        nanosleep(&pause_of_retry, nullptr);
    }
}

static tesk_details_result read_record(tesk_details &details, uint32_t port, port_record &to)
{
    if (const auto result = refresh(details))
        return result;
    if (port >= details.header.record_count) {
        if (const auto result = read_header(details))
            return result;
        if (port >= details.header.record_count)
            return TESK_DETAILS_NO_PORT;
    }
    if (const auto result = copy_record(details, port, to))
        return result;
    if (to.port != port || to.epoch != details.header.epoch)
        return TESK_DETAILS_DAMAGED;
    terminate_texts(to);
    return TESK_DETAILS_OK;
}

tesk_details_result tesk_details_open(const char *path, tesk_details **details)
{
    if (details == nullptr)
        return TESK_DETAILS_MISUSE;
    *details = nullptr;
    try {
        auto opened = std::make_unique<tesk_details>(tesk_details{details_path(path)});
        if (const auto result = attach(*opened))
            return result;
        *details = opened.release();
        return TESK_DETAILS_OK;
    } catch (const std::bad_alloc &) {
        errno = ENOMEM;
        return TESK_DETAILS_FAILED;
    }
}

void tesk_details_close(tesk_details *details)
{
    delete details;
}

tesk_details_result tesk_details_read(tesk_details *details, uint32_t port,
                                      dolm_ric_details_record *record)
{
    if (details == nullptr || record == nullptr)
        return TESK_DETAILS_MISUSE;
    memset(record, 0, sizeof(*record));
    const tesk_details_result result = read_record(*details, port, *record);
    if (result != TESK_DETAILS_OK)
        memset(record, 0, sizeof(*record));
    return result;
}

bool tesk_details_is_newer(tesk_details *details, const dolm_ric_details_record *known)
{
    if (details == nullptr || known == nullptr)
        return false;
    if (known->epoch == 0 || known->epoch != details->header.epoch ||
        !has_owner(details->file.get()))
        return true;
    uint64_t sequence = 0;
    const uint64_t offset = offset_of(*details, known->port);
    return read_sequence(*details, offset, sequence) != TESK_DETAILS_OK ||
           sequence != known->sequence;
}

uint32_t tesk_details_port_limit(tesk_details *details)
{
    if (details == nullptr || refresh(*details) != TESK_DETAILS_OK ||
        read_header(*details) != TESK_DETAILS_OK)
        return 0;
    return details->header.record_count;
}
