/* SPDX-License-Identifier: Apache-2.0 */
/* doctor: checks the path from this user to the server, one step after the other. The checks are
   independent, work without systemd, dpkg and permissions, and name the command that corrects a
   fault. */
#include "tools/common/output.h"
#include "tools/common/socket_group.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/report.h"
#include "util/escape.h"
#include "util/local_socket.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <functional>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

enum class verdict : uint8_t { ok, note, wrong };

struct finding {
    const char *topic;
    verdict state;
    std::string text;
    std::string remedy; /* a command or an instruction; empty unless wrong */
};

using findings = std::vector<finding>;

} // namespace

/* The output of a command; empty if it can't be run or takes longer than 5 s. */
static std::string output_of(const std::string &command)
{
    FILE *pipe = popen(("LC_ALL=C timeout 5 " + command + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr)
        return "";
    std::string text;
    char part[512];
    while (std::fgets(part, sizeof(part), pipe) != nullptr)
        text += part;
    pclose(pipe);
    return text;
}

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

static finding check_directory()
{
    const std::string path = mailbox_directory(), shown = escape(path);
    struct stat status = {};
    if (!path.starts_with('/'))
        return {"directory", verdict::wrong, shown + " is relative",
                "set MBX_DIR to an absolute path, or unset it"};
    if (lstat(path.c_str(), &status) != 0)
        return {"directory", verdict::wrong, fmt::format("{}: {}", shown, std::strerror(errno)),
                errno == ENOENT ? start_command() : "use sudo"};
    if (!S_ISDIR(status.st_mode))
        return {"directory", verdict::wrong, shown + " is not a directory",
                fmt::format("remove it, then {}", start_command())};
    const std::string text = fmt::format("{}, {}", shown, ownership(status));
    if ((status.st_mode & S_IWOTH) != 0)
        return {"directory", verdict::wrong, text + ": every user can take the server's name",
                fmt::format("chmod o-w {}", shown)};
    return {"directory", verdict::ok, text, ""};
}

/* The group whose members may connect, as its number. */
static bool is_member(gid_t group)
{
    gid_t groups[1024];
    const int count = getgroups(static_cast<int>(std::size(groups)), groups);
    return getegid() == group ||
           std::find(groups, groups + std::max(count, 0), group) != groups + std::max(count, 0);
}

static std::string access_remedy(gid_t group)
{
    const std::string name = group_name(group), user = user_name(geteuid());
    const struct group *entry = getgrgid(group);
    for (char **member = entry != nullptr ? entry->gr_mem : nullptr;
         member != nullptr && *member != nullptr; member++)
        if (user == *member)
            return fmt::format("log in again: {} has been added to group {} since", user, name);
    return fmt::format("adduser {} {}, then log in again; or use sudo", user, name);
}

static finding check_socket()
{
    const std::string path = socket_path(), shown = escape(path);
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) {
        const int error = errno;
        const std::string text = fmt::format("{}: {}", shown, std::strerror(error));
        if (error != EACCES)
            return {"socket", verdict::wrong, text, start_command()};
        struct stat directory = {};
        if (stat(mailbox_directory().c_str(), &directory) != 0)
            return {"socket", verdict::wrong, text, "use sudo"};
        return {"socket", verdict::wrong, text, access_remedy(directory.st_gid)};
    }
    if (!S_ISSOCK(status.st_mode))
        return {"socket", verdict::wrong, shown + " is not a socket",
                fmt::format("rm {}, then {}", shown, start_command())};
    const std::string text = fmt::format("{}, {}", shown, ownership(status));
    if (access(path.c_str(), W_OK) != 0)
        return {"socket", verdict::wrong,
                fmt::format("{}: user {} is {}", text, user_name(geteuid()),
                            is_member(status.st_gid) ? "in the group, but the mode forbids access"
                                                     : "not in the group"),
                access_remedy(status.st_gid)};
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

static finding check_server(const settings &common)
{
    tesk_client_options options{};
    options.deadline_ms = common.timeout_ms;
    tesk_client_session *session = nullptr;
    const tesk_client_result result = tesk_client_connect(&options, &session);
    tesk_client_close(session);
    if (result == TESK_CLIENT_OK) {
        const pid_t process = server_process();
        char executable[512] = "";
        const bool is_replaced = readlink(fmt::format("/proc/{}/exe", process).c_str(), executable,
                                          sizeof(executable) - 1) > 0 &&
                                 std::strstr(executable, " (deleted)") != nullptr;
        const std::string text = fmt::format("process {} answers", process);
        if (is_replaced)
            return {"server", verdict::wrong, text + ", but its file has been replaced since",
                    "systemctl restart tesk-server"};
        return {"server", verdict::ok, text, ""};
    }
    const std::string text = tesk_client_error();
    switch (result) {
    case TESK_CLIENT_NO_SERVER:
        return {"server", verdict::wrong, "no process has the server's name", start_command()};
    case TESK_CLIENT_NO_ACCESS:
        return {"server", verdict::wrong, text, "see the socket"};
    default:
        return {"server", verdict::wrong,
                fmt::format("process {} has the server's name, but: {}", server_process(), text),
                unit_file().empty()
                    ? fmt::format("kill {0}, then {1}", server_process(), start_command())
                    : "systemctl restart tesk-server"};
    }
}

static std::string value_in(const std::string &properties, const std::string &key)
{
    const size_t at = ("\n" + properties).find("\n" + key + "=");
    if (at == std::string::npos)
        return "";
    const size_t begin = at + key.size() + 1;
    return properties.substr(begin, properties.find('\n', begin) - begin);
}

static finding check_unit()
{
    const std::string file = unit_file();
    if (file.empty())
        return {"unit", verdict::note,
                access("/run/systemd/system", F_OK) == 0 ? "tesk-server.service is not installed"
                                                         : "systemd doesn't run here",
                ""};
    const std::string properties = output_of(
        "systemctl show tesk-server -p ActiveState -p SubState -p Result -p ExecMainStatus");
    const std::string state = value_in(properties, "ActiveState");
    if (state.empty())
        return {"unit", verdict::note, file + ": systemctl doesn't say its state", ""};
    const std::string text =
        fmt::format("{}: {} ({})", file, state, value_in(properties, "SubState"));
    if (state == "active" || mailbox_directory() != default_mailbox_directory)
        return {"unit", state == "active" ? verdict::ok : verdict::note, text, ""};
    if (state == "inactive")
        return {"unit", verdict::wrong, text, "systemctl start tesk-server"};
    return {"unit", verdict::wrong,
            fmt::format("{}, result {}, exit status {}", text, value_in(properties, "Result"),
                        value_in(properties, "ExecMainStatus")),
            "journalctl -u tesk-server -n 20 shows why; then systemctl restart tesk-server"};
}

static finding check_versions()
{
    const std::string library = tesk_client_version();
    std::string text = fmt::format("teskctl {}, libtesk_client {}", TESK_VERSION, library);
    bool differ = library != TESK_VERSION;
    const std::string packages = output_of(
        "dpkg-query -W -f '${db:Status-Status} ${Package} ${Version}\\n' tesk-server tesk-tools "
        "libtesk-client0 libtesk-client-dev tesk-platform-base tesk-platform-sim "
        "tesk-platform-linux");
    std::string first;
    for (size_t at = 0; at < packages.size();) {
        std::string line = packages.substr(at, packages.find('\n', at) - at);
        at += line.size() + 1;
        static constexpr std::string_view installed = "installed ";
        if (!line.starts_with(installed))
            continue; /* known to dpkg, perhaps by what is left of its configuration */
        line.erase(0, installed.size());
        const std::string version = line.substr(line.find(' ') + 1);
        text += ", package " + line;
        differ = differ || (!first.empty() && version != first);
        first = version;
    }
    if (differ)
        return {"versions", verdict::wrong, text, "install all packages from one build"};
    return {"versions", verdict::ok, text, ""};
}

static void write_finding(const settings &common, const finding &found)
{
    static constexpr const char *names[] = {"ok", "note", "wrong"}; /* in the order of verdict */
    const char *state = names[static_cast<size_t>(found.state)];
    if (common.json) {
        json_object object = {
            {"check", found.topic}, {"state", state}, {"text", found.text}, {"remedy", nullptr}};
        if (!found.remedy.empty())
            object["remedy"] = found.remedy;
        write_text(to_line(object) + "\n");
        return;
    }
    write_text(fmt::format("{:<6} {:<10} {}\n", state, found.topic, found.text));
    if (!found.remedy.empty())
        write_text(fmt::format("{:<17} -> {}\n", "", found.remedy));
}

exit_code run_doctor(const settings &common)
{
    const findings all = {check_directory(), check_socket(), check_server(common), check_unit(),
                          check_versions()};
    exit_code code = exit_code::done;
    for (const finding &each : all) {
        write_finding(common, each);
        if (each.state == verdict::wrong && code != exit_code::no_server)
            code =
                std::strcmp(each.topic, "server") == 0 ? exit_code::no_server : exit_code::rejected;
    }
    return code;
}
