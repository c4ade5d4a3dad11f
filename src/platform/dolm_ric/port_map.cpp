/* SPDX-License-Identifier: Apache-2.0 */
/* The temporary file has a fixed name beside the map, so a process that dies while it writes leaves
   one file at most, which the next one replaces. */
#include "platform/dolm_ric/port_map.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace board
{

std::string port_map_path()
{
    const char *path = secure_getenv("DOLM_RIC_PORT_MAP");
    return path != nullptr && *path != '\0' ? path : "/run/dolm_ric/ports";
}

static std::string text_of(const std::map<uint32_t, std::string> &names)
{
    std::string text = "# tesk-ports 1\n";
    for (const auto &[number, name] : names) {
        text += std::to_string(number) + '\t';
        for (const char byte : name) {
            const bool is_control = static_cast<unsigned char>(byte) < ' ' || byte == 0x7f;
            text += is_control ? '?' : byte;
        }
        text += '\n';
    }
    return text;
}

static bool write_all(int descriptor, const std::string &text)
{
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = write(descriptor, text.data() + done, text.size() - done);
        if (count < 0 && errno != EINTR)
            return false;
        done += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return true;
}

/* The group is the directory's, whose members may connect to the board as well. It is set before
   the mode, so that no other group can read the file in between. A process that is not a member of
   that group leaves its own. */
static bool fill_file(int descriptor, const std::string &directory, const std::string &text)
{
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0)
        return false;
    if (fchown(descriptor, static_cast<uid_t>(-1), status.st_gid) != 0 && errno != EPERM)
        return false;
    return fchmod(descriptor, 0640) == 0 && write_all(descriptor, text);
}

/* Close may be the first to report that the file system is full. */
static bool replace_file(const std::string &path, const std::string &text)
{
    const std::string temporary = path + ".new";
    const std::string directory = path.substr(0, path.find_last_of('/') + 1);

    if (unlink(temporary.c_str()) != 0 && errno != ENOENT)
        return false;
    const int descriptor =
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0)
        return false;
    bool is_done = fill_file(descriptor, directory.empty() ? "." : directory, text);
    int error = errno;
    if (close(descriptor) != 0 && is_done) {
        error = errno;
        is_done = false;
    }
    if (is_done && rename(temporary.c_str(), path.c_str()) == 0)
        return true;
    if (is_done)
        error = errno;
    unlink(temporary.c_str());
    errno = error;
    return false;
}

bool write_port_map(const std::string &path, const std::map<uint32_t, std::string> &names)
{
    if (replace_file(path, text_of(names)))
        return true;
    fprintf(stderr, "libdolm_ric: cannot write the port map %s: %s; tools show numbers only\n",
            path.c_str(), strerror(errno));
    return false;
}

} // namespace board
