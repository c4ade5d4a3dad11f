/* SPDX-License-Identifier: Apache-2.0 */
/* Checks this user's access to the server: the directory of the mailboxes, the socket in it, and
   the process that owns the socket. A missing right is found by owner, group and mode, beginning
   with the directory, since each cause needs another remedy. */
#include "tools/teskctl/doctor_checks.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/port_selection.h"
#include "util/escape.h"
#include "util/local_socket.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <grp.h>
#include <iterator>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace doctor
{

static constexpr char account[] = "tesk"; /* user and group of the packaged server */

static std::string user_name(uid_t user)
{
    const passwd *entry = getpwuid(user);
    return entry != nullptr ? entry->pw_name : std::to_string(user);
}

static std::string group_name(gid_t group)
{
    const struct group *entry = getgrgid(group);
    return entry != nullptr ? entry->gr_name : std::to_string(group);
}

static std::string ownership(const struct stat &status)
{
    return fmt::format("owner {}, group {}, mode {:04o}", user_name(status.st_uid),
                       group_name(status.st_gid), status.st_mode & 07777);
}

static std::string socket_path()
{
    return mailbox_directory() + "/" + server_name;
}

/* The command that starts a missing server. */
static std::string start_remedy(const unit_table &units)
{
    if (!has_unit(units))
        return fmt::format("MBX_DIR={} {}", escape(mailbox_directory()), server_name);
    const bool can_start = property(units, server_unit, "LoadState") == "loaded" &&
                           property(units, server_unit, "ActiveState") == "inactive";
    return can_start ? "systemctl start tesk-server.service" : "see the unit";
}

static bool is_member(gid_t group)
{
    gid_t groups[1024];
    const int count = getgroups(static_cast<int>(std::size(groups)), groups);
    return getegid() == group ||
           std::find(groups, groups + std::max(count, 0), group) != groups + std::max(count, 0);
}

/* Whether the group's member list has the user, who was added after logging in. */
static bool is_listed_in(gid_t group)
{
    const std::string user = user_name(geteuid());
    const struct group *entry = getgrgid(group);
    for (char **member = entry != nullptr ? entry->gr_mem : nullptr;
         member != nullptr && *member != nullptr; member++)
        if (user == *member)
            return true;
    return false;
}

/* Only the server's own group is meant for its users: membership of another group, above all
   root's, would give more rights than access to the server. */
static bool is_group_of_server(const unit_table &units, gid_t group)
{
    const std::string name = group_name(group), unit = property(units, server_unit, "Group");
    return group != 0 && name == (unit.empty() ? account : unit);
}

/* Why the mode of a directory or socket denies the access in `bits`, and the remedy; both are empty
   if it doesn't. `bits` is S_IXOTH or S_IWOTH. */
static std::pair<std::string, std::string> denial(const unit_table &units, const std::string &path,
                                                  const struct stat &status, mode_t bits)
{
    const char letter = bits == S_IXOTH ? 'x' : 'w';
    const std::string user = user_name(geteuid()), group = group_name(status.st_gid);
    if (geteuid() == 0)
        return {};
    if (geteuid() == status.st_uid) {
        if ((status.st_mode & (bits << 6)) != 0)
            return {};
        return {"the mode forbids its owner the access",
                fmt::format("chmod u+{} {}", letter, escape(path))};
    }
    if (is_member(status.st_gid)) {
        if ((status.st_mode & (bits << 3)) != 0)
            return {};
        return {fmt::format("the mode forbids group {} the access", group),
                fmt::format("chmod g+{} {}", letter, escape(path))};
    }
    if ((status.st_mode & bits) != 0)
        return {};
    const std::string why = fmt::format("user {} is not in the group {}", user, group);
    if (!is_group_of_server(units, status.st_gid))
        return {why + ", which is not one for the server's users",
                has_unit(units)
                    ? "use sudo; systemctl restart tesk-server gives it to the unit's group"
                    : fmt::format("use sudo, or run the server in a group made for its users")};
    if (is_listed_in(status.st_gid))
        return {why + " yet",
                fmt::format("log in again: {} has been added to group {} since", user, group)};
    return {why, fmt::format("adduser {} {}, then log in again; or use sudo", user, group)};
}

finding check_directory(const unit_table &units)
{
    const std::string path = mailbox_directory(), shown = escape(path);
    struct stat status = {};
    if (!path.starts_with('/'))
        return {"directory", verdict::wrong, shown + " is relative",
                "set MBX_DIR to an absolute path, or unset it"};
    if (lstat(path.c_str(), &status) != 0) {
        const int error = errno;
        const std::string text = fmt::format("{}: {}", shown, std::strerror(error));
        if (error == ENOENT && !has_unit(units))
            return {"directory", verdict::wrong, text,
                    fmt::format("unset MBX_DIR, or mkdir -m 0750 {}, then {}", shown,
                                start_remedy(units))};
        return {"directory", verdict::wrong, text,
                error == ENOENT ? start_remedy(units) : "use sudo, or correct MBX_DIR"};
    }
    if (!S_ISDIR(status.st_mode))
        return {"directory", verdict::wrong, shown + " is not a directory",
                fmt::format("move it away, or correct MBX_DIR; then {}", start_remedy(units))};
    const std::string text = fmt::format("{}, {}", shown, ownership(status));
    if ((status.st_mode & S_IWOTH) != 0)
        return {"directory", verdict::wrong, text + ": every user can take the server's name",
                fmt::format("chmod o-w {}", shown)};
    struct stat socket = {};
    if (lstat(socket_path().c_str(), &socket) == 0 && status.st_uid != socket.st_uid &&
        status.st_uid != 0)
        return {"directory", verdict::wrong,
                fmt::format("{}: its owner can take the name of the server, which user {} runs",
                            text, user_name(socket.st_uid)),
                fmt::format("chown {} {}", user_name(socket.st_uid), shown)};
    const auto [why, remedy] = denial(units, path, status, S_IXOTH);
    if (!why.empty())
        return {"directory", verdict::wrong, fmt::format("{}: {}", text, why), remedy};
    return {"directory", verdict::ok, text, ""};
}

finding check_socket(const unit_table &units)
{
    const std::string path = socket_path(), shown = escape(path);
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        const int error = errno;
        return {"socket", verdict::wrong, fmt::format("{}: {}", shown, std::strerror(error)),
                error == ENOENT ? start_remedy(units) : "see the directory"};
    }
    if (!S_ISSOCK(status.st_mode))
        return {"socket", verdict::wrong, shown + " is not a socket",
                fmt::format("move it away, then {}", start_remedy(units))};
    const std::string text = fmt::format("{}, {}", shown, ownership(status));
    const auto [why, remedy] = denial(units, path, status, S_IWOTH);
    if (!why.empty())
        return {"socket", verdict::wrong, fmt::format("{}: {}", text, why), remedy};
    return {"socket", verdict::ok, text, ""};
}

/* The process that owns the socket; 0 if it can't be determined. */
static pid_t server_process()
{
    const util::descriptor connection =
        util::connect_to(socket_path(), SOCK_SEQPACKET | SOCK_NONBLOCK);
    ucred peer = {};
    socklen_t size = sizeof(peer);
    if (!connection.is_open() ||
        getsockopt(connection.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0)
        return 0;
    return peer.pid;
}

/* A value of /proc/PID/status, such as "T (stopped)" for the key State; empty if it can't be
   read. */
static std::string process_value(pid_t process, const std::string &key)
{
    std::ifstream file(fmt::format("/proc/{}/status", process));
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(key + ":\t"))
            return line.substr(key.size() + 2);
    return "";
}

/* A stopped process handles no signals but SIGCONT and SIGKILL, and a traced process belongs to its
   debugger. */
static finding explain_silence(const unit_table &units, pid_t process, const std::string &why)
{
    const std::string state = process_value(process, "State");
    std::string name = process_value(process, "Name");
    const std::string text =
        fmt::format("process {} ({}, {}) has the server's name, but: {}", process,
                    name.empty() ? "not visible" : escape(name), state, why);
    if (!name.empty() && name != server_name)
        return {"server", verdict::wrong, text,
                fmt::format("find out why another program has that socket: ps -fp {}", process)};
    if (state.starts_with('T'))
        return {"server", verdict::wrong, text,
                fmt::format("it is stopped: kill -CONT {} lets it go on", process)};
    if (state.starts_with('t'))
        return {"server", verdict::wrong, text,
                fmt::format("end or detach the debugger, process {}",
                            process_value(process, "TracerPid"))};
    if (property(units, server_unit, "MainPID") == std::to_string(process))
        return {"server", verdict::wrong, text,
                "--timeout 10 gives it longer; then systemctl restart tesk-server"};
    return {"server", verdict::wrong, text,
            fmt::format("--timeout 10 gives it longer; then kill {}, and {}", process,
                        start_remedy(units))};
}

static bool is_replaced(pid_t process)
{
    char executable[512] = "";
    return readlink(fmt::format("/proc/{}/exe", process).c_str(), executable,
                    sizeof(executable) - 1) > 0 &&
           std::strstr(executable, " (deleted)") != nullptr;
}

finding check_server(const settings &common, const unit_table &units, tesk_client_session **session)
{
    tesk_client_options options{};
    options.deadline_ms = common.timeout_ms;
    const tesk_client_result result = tesk_client_connect(&options, session);
    const std::string why = tesk_client_error();
    const pid_t process = server_process();
    if (result == TESK_CLIENT_OK) {
        const std::string text = fmt::format("process {} answers", process);
        if (is_replaced(process))
            return {"server", verdict::wrong, text + ", but its file has been replaced since",
                    property(units, server_unit, "MainPID") == std::to_string(process)
                        ? "systemctl restart tesk-server"
                        : "start it anew"};
        return {"server", verdict::ok, text, ""};
    }
    if (result == TESK_CLIENT_NO_SERVER)
        return {"server", verdict::wrong, "no process has the server's name", start_remedy(units)};
    if (result == TESK_CLIENT_NO_ACCESS)
        return {"server", verdict::wrong, why, "see the directory and the socket"};
    if (process == 0)
        return {"server", verdict::wrong, why, "--timeout 10 gives it longer"};
    return explain_silence(units, process, why);
}

static void count_port(tesk_client_session *session, uint32_t port_no, size_t &ports,
                       size_t &modules, bool &is_lost)
{
    tesk_client_pm pm{};
    const tesk_client_result result = tesk_client_read_pm(session, port_no, &pm);
    is_lost = result != TESK_CLIENT_OK && result != TESK_CLIENT_REJECTED;
    if (is_lost || (result == TESK_CLIENT_REJECTED &&
                    tesk_client_error_rejection() == TESK_CLIENT_REJECTION_NO_PORT))
        return;
    ports++;
    modules += result == TESK_CLIENT_OK ? 1 : 0;
}

static finding check_port_map(std::vector<uint32_t> &candidates)
{
    const tesk_client_result map = tesk_client_read_port_map(
        nullptr,
        [](uint32_t port_no, const char *, void *user) {
            static_cast<std::vector<uint32_t> *>(user)->push_back(port_no);
        },
        &candidates);
    const std::string why = tesk_client_error();
    switch (map) {
    case TESK_CLIENT_OK:
        return {"port map", verdict::ok, fmt::format("{} ports have names", candidates.size()), ""};
    case TESK_CLIENT_NO_PORT_MAP:
        return {"port map", verdict::note, why + ": tools show numbers only", ""};
    case TESK_CLIENT_NO_ACCESS:
        return {"port map", verdict::wrong, why,
                "see the owner and mode of its directory, or use sudo"};
    default:
        return {"port map", verdict::wrong, why, "restart tesk-server, which writes it anew"};
    }
}

findings check_ports(tesk_client_session *session)
{
    std::vector<uint32_t> candidates;
    findings all = {check_port_map(candidates)};
    if (session == nullptr)
        return all;
    const size_t named = candidates.size();
    for (uint32_t port_no = 0; named == 0 && port_no < 128; port_no++)
        candidates.push_back(port_no);
    size_t ports = 0, modules = 0;
    bool is_lost = false;
    for (const uint32_t port_no : candidates)
        if (!is_lost)
            count_port(session, port_no, ports, modules, is_lost);
    const std::string text = fmt::format("{} port{}, {} with a module that can be read", ports,
                                         ports == 1 ? "" : "s", modules);
    if (is_lost)
        all.push_back({"ports", verdict::wrong, "a port's values: no answer", "see the server"});
    else if (ports == 0)
        all.push_back({"ports", verdict::wrong, "the server has no port",
                       "journalctl -u tesk-server shows what the board's library looked for"});
    else if (ports < named)
        all.push_back({"ports", verdict::wrong,
                       fmt::format("{}; the port map has {} more that the server doesn't know",
                                   text, named - ports),
                       "DOLM_RIC_PORT_MAP must name the map of this server"});
    else
        all.push_back({"ports", verdict::ok, text, ""});
    return all;
}

} // namespace doctor
