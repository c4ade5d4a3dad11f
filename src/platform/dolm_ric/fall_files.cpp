/* SPDX-License-Identifier: Apache-2.0 */
/* keep_fall() reads the file of the port, drops what it has no room for, and writes a new one. What
   isn't a regular file of the expected size is not read, and replaced. */
#include "platform/dolm_ric/fall_files.h"

#include "platform/dolm_ric/new_file.h"
#include "util/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace board
{

static std::string folder_of(const std::string &path)
{
    return path.substr(0, path.find_last_of('/') + 1);
}

std::string falls_folder(const std::string &details)
{
    return folder_of(details) + "falls";
}

/* A process that is not a member of the group keeps its own. */
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

/* Empty where there is none that this board can have written. */
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

/* Without the last line. */
static void drop_last(std::string &lines)
{
    if (!lines.empty())
        lines.pop_back();
    lines.erase(lines.find_last_of('\n') + 1); /* npos + 1 is 0 */
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
               size_t files)
{
    const std::string path = folder + "/" + std::to_string(port);
    const size_t share = std::min(most_fall_bytes, most_folder_bytes / std::max<size_t>(files, 1));
    std::string lines = read_falls(path);
    if (replaces)
        drop_last(lines);
    drop_oldest(lines, share - std::min(share, line.size() + 1));
    lines += line + "\n";
    const util::descriptor file(make_new_file(path));
    if (file && write_fully(file.get(), lines.data(), lines.size(), 0) && place_new_file(path))
        return true;
    drop_new_file(path);
    return false;
}

} // namespace board
