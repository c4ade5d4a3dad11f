/* SPDX-License-Identifier: Apache-2.0 */
/* socket_group - what the tools tell who may not connect. No state. */
#pragma once

#include <fmt/format.h>
#include <grp.h>
#include <string>
#include <sys/stat.h>

/* The group whose members may connect to the socket at `path`, in words: that of the socket, or of
   its folder where that can't even be looked into. */
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
