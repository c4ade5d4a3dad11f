/* SPDX-License-Identifier: Apache-2.0 */
/* The folder is watched with inotify, so that the check before each reading costs one system call.
   The folder is created with the reader's socket, perhaps after the board has started; until then
   its existence is checked once a second. */
#include "platform/linux_interfaces/module_leases.h"

#include "platform/linux_interfaces/reader_protocol.h"
#include "util/boot_clock.h"

#include <array>
#include <charconv>
#include <fcntl.h>
#include <filesystem>
#include <sys/inotify.h>
#include <unistd.h>
#include <utility>

namespace linux_board
{

std::string module_leases::folder_of(const std::string &reader)
{
    const bool is_inherited = reader.starts_with("fd:");
    return std::filesystem::path(is_inherited ? READER_SOCKET : reader).parent_path();
}

std::string module_leases::path_in(const std::string &folder, uint32_t interface)
{
    return folder + "/lease." + std::to_string(interface);
}

module_leases::module_leases(std::string folder) : folder_(std::move(folder))
{
    watch();
}

void module_leases::watch()
{
    constexpr uint32_t changed =
        IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_DELETE_SELF | IN_MOVE_SELF;
    looked_at_ = util::boot_time();
    events_ = util::descriptor(inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (events_.is_open() &&
        inotify_add_watch(events_.get(), folder_.c_str(), changed | IN_ONLYDIR) < 0)
        events_.reset();
}

/* After the folder was removed, a new one needs a watch of its own. */
bool module_leases::has_changed()
{
    if (!events_.is_open()) {
        if (util::boot_time() - looked_at_ < std::chrono::seconds(1))
            return false;
        watch();
        return true;
    }
    alignas(inotify_event) std::array<char, 4096> buffer;
    bool found = false;
    while (read(events_.get(), buffer.data(), buffer.size()) > 0)
        found = true;
    if (found && access(folder_.c_str(), F_OK) != 0)
        events_.reset();
    return found;
}

/* A FIFO or a link in place of the file is no lease. */
module_leases::time_point module_leases::end_of(int32_t interface) const
{
    if (interface <= 0)
        return {};
    const std::string path = path_in(folder_, static_cast<uint32_t>(interface));
    const util::descriptor file(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    std::array<char, 32> text;
    const ssize_t length = file.is_open() ? read(file.get(), text.data(), text.size()) : -1;
    int64_t end_ns = 0;
    if (length <= 0 ||
        std::from_chars(text.data(), text.data() + length, end_ns).ec != std::errc() || end_ns <= 0)
        return {};
    const time_point end{std::chrono::nanoseconds(end_ns)};
    return end <= util::boot_time() + longest ? end : time_point{};
}

} // namespace linux_board
