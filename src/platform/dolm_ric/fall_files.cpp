/* SPDX-License-Identifier: Apache-2.0 */
/* keep_fall() reads the file of the port, drops the falls that have no room, and writes a new file.
   Anything but a regular file of the expected size is replaced without being read. The size of the
   folder is kept as a running total: the folder is listed only at the start and when its files take
   too much. */
#include "platform/dolm_ric/fall_files.h"

#include "platform/dolm_ric/new_file.h"
#include "util/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace board
{

static constexpr size_t file_page = 4096;

static std::string folder_of(const std::string &path)
{
    return path.substr(0, path.find_last_of('/') + 1);
}

std::string falls_folder(const std::string &details)
{
    return folder_of(details) + "falls";
}

/* If the process is not a member of the parent's group, the folder keeps the process's group. */
bool make_falls_folder(const std::string &folder)
{
    if (mkdir(folder.c_str(), 0750) != 0 && errno != EEXIST)
        return false;
    const util::descriptor its(
        open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat above = {};
    if (!its || stat((folder_of(folder) + ".").c_str(), &above) != 0)
        return false;
    if (fchown(its.get(), static_cast<uid_t>(-1), above.st_gid) != 0 && errno != EPERM)
        return false;
    return fchmod(its.get(), 0750) == 0;
}

/* Empty if there is no file, or one that this board can't have written. */
static std::string read_falls(const std::string &path)
{
    const util::descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
        status.st_size > static_cast<off_t>(most_fall_bytes))
        return "";
    std::string text(static_cast<size_t>(status.st_size), '\0');
    const ssize_t size = pread(file.get(), text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return text;
}

/* Removes the last line. */
static void drop_last(std::string &lines)
{
    if (!lines.empty())
        lines.pop_back();
    lines.erase(lines.find_last_of('\n') + 1); /* npos + 1 is 0 */
}

static size_t pages_of(const struct stat &file)
{
    const size_t size = S_ISREG(file.st_mode) ? static_cast<size_t>(file.st_size) : 0;
    return (size + file_page - 1) / file_page * file_page;
}

static size_t pages_at(const std::string &path)
{
    struct stat file = {};
    return lstat(path.c_str(), &file) == 0 ? pages_of(file) : 0;
}

namespace
{

struct falls_file {
    int64_t changed_at; /* ns */
    std::string name;
    size_t pages;
};

} // namespace

/* Files of ports, and temporary files that a board left when it ended. */
static std::vector<falls_file> list_files(DIR *folder)
{
    std::vector<falls_file> files;
    struct stat file = {};
    while (const dirent *entry = readdir(folder)) {
        const char *name = entry->d_name;
        if (*name < '0' || *name > '9' ||
            fstatat(dirfd(folder), name, &file, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(file.st_mode))
            continue;
        const timespec &changed = file.st_mtim;
        files.push_back(
            {int64_t{changed.tv_sec} * 1'000'000'000 + changed.tv_nsec, name, pages_of(file)});
    }
    return files;
}

size_t trim_falls(const std::string &folder)
{
    const std::unique_ptr<DIR, int (*)(DIR *)> open(opendir(folder.c_str()), closedir);
    if (!open)
        return 0;
    std::vector<falls_file> files = list_files(open.get());
    std::ranges::sort(files, std::greater(), &falls_file::changed_at);
    size_t taken = 0;
    for (const falls_file &each : files)
        if (taken + each.pages <= most_folder_bytes ||
            unlinkat(dirfd(open.get()), each.name.c_str(), 0) != 0)
            taken += each.pages;
    return taken;
}

static void drop_oldest(std::string &lines, size_t room)
{
    auto count = static_cast<size_t>(std::ranges::count(lines, '\n'));
    while (!lines.empty() && (count >= most_falls || lines.size() > room)) {
        lines.erase(0, std::min(lines.find('\n'), lines.size() - 1) + 1);
        count--;
    }
}

bool keep_fall(const std::string &folder, uint32_t port, const std::string &line, bool replaces,
               size_t files, size_t &taken)
{
    const std::string path = folder + "/" + std::to_string(port);
    const size_t room = most_folder_bytes / std::max<size_t>(files, 1) / file_page * file_page;
    const size_t share = std::min(most_fall_bytes, room), before = pages_at(path);
    std::string lines = read_falls(path);
    if (replaces)
        drop_last(lines);
    drop_oldest(lines, share - std::min(share, line.size() + 1));
    lines += line + "\n";
    const util::descriptor file = make_new_file(path);
    if (!file || !write_fully(file.get(), lines.data(), lines.size(), 0) || !place_new_file(path)) {
        drop_new_file(path);
        return false;
    }
    taken += pages_at(path) - before;
    if (taken > most_folder_bytes)
        taken = trim_falls(folder);
    return true;
}

} // namespace board
