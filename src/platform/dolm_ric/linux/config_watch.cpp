/* SPDX-License-Identifier: Apache-2.0 */
/* The directory is watched, since replacing a file gives its name to another inode. If the path is
   a symbolic link to a file elsewhere, or the directory was created later, the file's status shows
   the change. */
#include "platform/dolm_ric/linux/config_watch.h"

#include <ctime>
#include <filesystem>
#include <sys/inotify.h>
#include <utility>

namespace linux_board
{

/* All zero if there is no file. */
static struct stat status_of(const std::string &path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0)
        status = {};
    return status;
}

static bool is_same(const struct timespec &a, const struct timespec &b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

config_watch::config_watch(std::string path)
    : path_(std::move(path)), events_(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)),
      seen_(status_of(path_))
{
    const std::filesystem::path directory = std::filesystem::path(path_).parent_path();
    constexpr uint32_t replaced =
        IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_DELETE | IN_ATTRIB | IN_ONLYDIR;
    if (events_.is_open() &&
        inotify_add_watch(events_.get(), directory.empty() ? "." : directory.c_str(), replaced) < 0)
        events_.reset();
}

/* Returns whether there were any events. */
bool config_watch::take_events()
{
    alignas(inotify_event) char buffer[4096];
    bool found = false;
    while (events_.is_open() && read(events_.get(), buffer, sizeof(buffer)) > 0)
        found = true;
    return found;
}

bool config_watch::has_changed()
{
    const bool is_reported = take_events();
    const struct stat now = status_of(path_);
    if (now.st_dev == seen_.st_dev && now.st_ino == seen_.st_ino && now.st_size == seen_.st_size &&
        is_same(now.st_mtim, seen_.st_mtim) && is_same(now.st_ctim, seen_.st_ctim))
        return false;
    if (!is_reported && time(nullptr) - now.st_mtim.tv_sec <= 1)
        return false;
    seen_ = now;
    return true;
}

} // namespace linux_board
