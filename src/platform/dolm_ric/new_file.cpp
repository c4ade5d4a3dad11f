/* SPDX-License-Identifier: Apache-2.0 */
/* The temporary file has a fixed name beside its target, so a process that dies while writing
   leaves at most one file, which the next one replaces. */
#include "platform/dolm_ric/new_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace board
{

static std::string beside(const std::string &path)
{
    return path + ".new";
}

/* The group is set before the mode, so that no other group can read the file in between. If the
   process is not a member of the directory's group, the file keeps the process's own. */
static bool give_to_group(int descriptor, const std::string &directory)
{
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0)
        return false;
    if (fchown(descriptor, static_cast<uid_t>(-1), status.st_gid) != 0 && errno != EPERM)
        return false;
    return fchmod(descriptor, 0640) == 0;
}

util::descriptor make_new_file(const std::string &path)
{
    const std::string temporary = beside(path);
    const std::string directory = path.substr(0, path.find_last_of('/') + 1);

    if (unlink(temporary.c_str()) != 0 && errno != ENOENT)
        return {};
    util::descriptor made(
        open(temporary.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!made || give_to_group(made.get(), directory.empty() ? "." : directory))
        return made;
    drop_new_file(path);
    return {};
}

bool place_new_file(const std::string &path)
{
    return rename(beside(path).c_str(), path.c_str()) == 0;
}

void drop_new_file(const std::string &path)
{
    const int error = errno;
    unlink(beside(path).c_str());
    errno = error;
}

bool write_fully(int descriptor, const void *bytes, size_t size, off_t offset)
{
    const char *next = static_cast<const char *>(bytes);
    while (size > 0) {
        const ssize_t count = pwrite(descriptor, next, size, offset);
        if (count < 0 && errno != EINTR)
            return false;
        const auto done = static_cast<size_t>(count > 0 ? count : 0);
        next += done;
        size -= done;
        offset += static_cast<off_t>(done);
    }
    return true;
}

} // namespace board
