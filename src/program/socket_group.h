/* SPDX-License-Identifier: Apache-2.0 */
/* socket_group - the group whose members may connect to a socket, for error messages. No state. */
#pragma once

#include <fmt/format.h>
#include <grp.h>
#include <string>
#include <sys/stat.h>

/* The name of the socket's group; if the socket at `path` can't be read, the name of its
   directory's group. */
inline std::string socket_group(const std::string &path)
{
    const std::string folder = path.substr(0, path.find_last_of('/') + 1);
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 && stat(folder.c_str(), &status) != 0)
        return "the one that owns " + folder;
    const group *owner = getgrgid(status.st_gid);
    return owner != nullptr ? fmt::format("\"{}\"", owner->gr_name)
                            : fmt::format("{}", status.st_gid);
}
