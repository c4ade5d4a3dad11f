/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: read() loads a file that has changed since it was read, and copies the requested
   pieces from the loaded bytes, as a module would answer. */
#include "platform/dolm_ric/linux/module_files.h"

#include "util/descriptor.h"
#include "util/escape.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <unistd.h>
#include <utility>

namespace linux_board
{

static bool is_same_version(const struct stat &a, const struct stat &b)
{
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino && a.st_size == b.st_size &&
           a.st_mtim.tv_sec == b.st_mtim.tv_sec && a.st_mtim.tv_nsec == b.st_mtim.tv_nsec &&
           a.st_ctim.tv_sec == b.st_ctim.tv_sec && a.st_ctim.tv_nsec == b.st_ctim.tv_nsec;
}

/* Returns an empty text, or why the file can't be used. One byte more than the longest file is
   read, so that growth is noticed. */
static std::string read_all(int fd, std::vector<uint8_t> &bytes)
{
    bytes.assign(largest_module_file + 1, 0);
    size_t length = 0;
    while (length < bytes.size()) {
        const ssize_t count = ::read(fd, bytes.data() + length, bytes.size() - length);
        if (count < 0)
            return strerror(errno);
        if (count == 0)
            break;
        length += static_cast<size_t>(count);
    }
    bytes.resize(length);
    bytes.shrink_to_fit();
    return length > largest_module_file ? "larger than 64 KiB" : "";
}

/* A device is not even opened, since opening may have an effect; and the open doesn't block, since
   a FIFO could have taken the file's place. */
static std::string read_file(const std::string &path, struct stat &status,
                             std::vector<uint8_t> &bytes)
{
    if (!S_ISREG(status.st_mode))
        return "not a regular file";
    const util::descriptor file(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.is_open() || fstat(file.get(), &status) != 0)
        return strerror(errno);
    return S_ISREG(status.st_mode) ? read_all(file.get(), bytes) : "not a regular file";
}

/* A missing file counts as an empty cage; any other fault is reported once. */
int module_files::load(uint32_t port, recorded &file)
{
    struct stat status = {};
    std::string fault;
    const int error = stat(file.path.c_str(), &status) == 0 ? 0 : errno;
    if (error == 0 && !file.bytes.empty() && is_same_version(status, file.status))
        return 0;
    file.bytes.clear();
    if (error == 0)
        fault = read_file(file.path, status, file.bytes);
    else if (error != ENOENT && error != ENOTDIR)
        fault = strerror(error);
    if (!fault.empty()) {
        file.bytes.clear();
        if (fault != file.fault)
            fprintf(stderr, "libdolm_ric: port %u: %s: %s\n", port, escape(file.path).c_str(),
                    fault.c_str());
    }
    file.fault = fault;
    file.status = status;
    return error != 0 && fault.empty() ? ENXIO : fault.empty() ? 0 : EIO;
}

/* In SFP modules the first byte of the memory is 0x02, 0x03 or 0x0b. */
static bool is_sfp(uint8_t identifier)
{
    return identifier == 0x02 || identifier == 0x03 || identifier == 0x0b;
}

static int copy_bytes(const std::vector<uint8_t> &file, piece &wanted)
{
    const memory_range &range = wanted.range;
    const bool second = range.address == diagnostics_address;
    if (file.empty() || range.bank != 0 || (second && !is_sfp(file[0])))
        return ENXIO;
    const size_t at = (second ? 256u : 0u) + range.page * 128u + range.offset;
    if (at + range.length > file.size())
        return ENXIO;
    std::copy_n(file.begin() + static_cast<ptrdiff_t>(at), range.length, wanted.bytes.begin());
    return 0;
}

void module_files::add(uint32_t port, std::string path)
{
    files_.erase(port);
    if (!path.empty())
        files_[port] = {.path = std::move(path)};
}

bool module_files::has(uint32_t port) const
{
    return files_.contains(port);
}

void module_files::read(std::span<piece> pieces)
{
    for (piece &wanted : pieces) {
        recorded &file = files_.at(wanted.port);
        wanted.error = load(wanted.port, file);
        if (wanted.error == 0)
            wanted.error = copy_bytes(file.bytes, wanted);
    }
}

} // namespace linux_board
