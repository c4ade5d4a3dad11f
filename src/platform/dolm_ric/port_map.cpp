/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the text is made in memory, written to a new file beside the old one, and renamed
   over it, so that a reader gets either the old map or the new one. */
#include "platform/dolm_ric/port_map.h"

#include "platform/dolm_ric/new_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

/* close() may be the first call to report a full file system. */
static bool replace_file(const std::string &path, const std::string &text)
{
    util::descriptor file = make_new_file(path);
    if (!file)
        return false;
    if (write_fully(file.get(), text.data(), text.size(), 0) && file.close() &&
        place_new_file(path))
        return true;
    drop_new_file(path);
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
