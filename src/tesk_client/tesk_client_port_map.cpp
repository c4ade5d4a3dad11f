/* SPDX-License-Identifier: Apache-2.0 */
/* The map is text: "# tesk-ports 1", then a line "NUMBER<TAB>NAME" for each port, in ascending
   order. Its writer replaces the whole file by a rename, so that an opened file is complete or
   invalid.

   The folder may belong to another user: a link, a FIFO or a device in place of the file is
   refused, and opening it doesn't block. The whole file is checked before the first port is
   reported, so that a caller never works with half a map. */
#include "tesk_client/tesk_client_port_map.h"

#include "tesk_client/tesk_client_paths.h"
#include "util/descriptor.h"
#include "util/escape.h"

#include <cerrno>
#include <charconv>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

static constexpr char default_path[] = "/run/dolm_ric/ports";
static constexpr std::string_view first_line = "# tesk-ports 1";
static constexpr size_t largest_file = 4 << 20;
static constexpr uint32_t highest_port = 65534;

namespace
{
struct named_port {
    uint32_t number;
    std::string name; /* escaped */
};
} // namespace

/* Empty if MBX_DIR selects another server than that of the default path. */
static std::string port_map_path(const char *path)
{
    if (path != nullptr)
        return path;
    if (std::string set = value_of_variable("DOLM_RIC_PORT_MAP"); !set.empty())
        return set;
    return is_default_board() ? default_path : "";
}

static outcome failure(tesk_client_result result, const std::string &path, const std::string &why)
{
    outcome failed;
    failed.result = result;
    failed.text = escape(path) + ": " + why;
    return failed;
}

static outcome open_failure(const std::string &path, int error)
{
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        return failure(TESK_CLIENT_NO_PORT_MAP, path, "there is no port map");
    case EACCES:
    case EPERM:
        return failure(TESK_CLIENT_NO_ACCESS, path, "no permission to read the port map");
    case ELOOP:
        return failure(TESK_CLIENT_BAD_PORT_MAP, path, "is a link; it must be a regular file");
    case ENXIO: /* a socket, or a device without a driver */
        return failure(TESK_CLIENT_BAD_PORT_MAP, path, "is not a regular file");
    default:
        return failure(TESK_CLIENT_FAILED, path, std::generic_category().message(error));
    }
}

/* Reads up to the end of the file, or until the content is too long. False with errno. */
static bool read_all(int fd, std::string &content)
{
    char part[16384];
    while (content.size() <= largest_file) {
        const ssize_t got = read(fd, part, sizeof(part));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        content.append(part, static_cast<size_t>(got));
    }
    return true;
}

static outcome load(const std::string &path, std::string &content)
{
    const util::descriptor file(
        open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (file.get() < 0)
        return open_failure(path, errno);
    struct stat status = {};
    if (fstat(file.get(), &status) != 0)
        return open_failure(path, errno);
    if (!S_ISREG(status.st_mode))
        return failure(TESK_CLIENT_BAD_PORT_MAP, path, "is not a regular file");
    if (!read_all(file.get(), content))
        return open_failure(path, errno);
    if (content.size() > largest_file)
        return failure(TESK_CLIENT_BAD_PORT_MAP, path,
                       "is longer than 4 MiB, the most that a port map may have");
    return {};
}

/* Removes the first line from the text and returns it without its line feed; nothing if there is no
   line feed. */
static std::optional<std::string_view> take_line(std::string_view &text)
{
    const size_t end = text.find('\n');
    if (end == std::string_view::npos)
        return std::nullopt;
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end + 1);
    return line;
}

static std::optional<named_port> parse_line(std::string_view line)
{
    const size_t tab = line.find('\t');
    if (tab == std::string_view::npos || tab + 1 == line.size())
        return std::nullopt;
    named_port port{};
    const char *end = line.data() + tab;
    const auto [stop, error] = std::from_chars(line.data(), end, port.number);
    if (error != std::errc{} || stop != end || port.number > highest_port)
        return std::nullopt;
    port.name = escape(line.substr(tab + 1));
    return port;
}

/* The first error in the text, with its line; empty if the text is valid. */
static std::string parse(std::string_view text, std::vector<named_port> &ports)
{
    if (take_line(text) != first_line)
        return "line 1: must be \"" + std::string(first_line) + "\"";
    for (size_t number = 2; !text.empty(); number++) {
        const std::string where = "line " + std::to_string(number) + ": ";
        const auto line = take_line(text);
        if (!line)
            return where + "has no end: the file was cut short";
        auto port = parse_line(*line);
        if (!port)
            return where + "must be a port number up to 65534, a tab and a name";
        if (!ports.empty() && port->number <= ports.back().number)
            return where + "port " + std::to_string(port->number) + " must come before port " +
                   std::to_string(ports.back().number) + ", and only once";
        ports.push_back(std::move(*port));
    }
    return {};
}

outcome read_port_map(const char *given_path, tesk_client_port_named each, void *user)
{
    const std::string path = port_map_path(given_path);
    if (path.empty())
        return failure(TESK_CLIENT_NO_PORT_MAP, default_path,
                       "is not the map of the server that MBX_DIR selects; DOLM_RIC_PORT_MAP can "
                       "name that");
    std::string content;
    outcome loaded = load(path, content);
    if (loaded.result != TESK_CLIENT_OK)
        return loaded;
    std::vector<named_port> ports;
    const std::string fault = parse(content, ports);
    if (!fault.empty())
        return failure(TESK_CLIENT_BAD_PORT_MAP, path, fault);
    for (const named_port &port : ports)
        each(port.number, port.name.c_str(), user);
    return {};
}
